// Reads the receiver's figures from a thread of its own while a call goes on: one line every quarter of a second, and
// the streams at the end. Every 15th packet of the call is lost and comes when it is asked for.
#include "AVGUDTRecv.h"
#include "xpmess.h"

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <mutex>
#include <thread>
#include <vector>

namespace
{
constexpr uint64 c_ullSender = 4711;
constexpr uint32 c_dwPackets = 140;
constexpr uint32 c_dwAheadMs = 1000; // of sound come at once, as from a server that has kept them

struct CPacket : UDTCodecBaseDecode_V2
{
    uint32 m_dwMediaMs;

    explicit CPacket(uint32 dwMediaMs) : m_dwMediaMs(dwMediaMs)
    {
        wLen = 120; // counted by the byte counters
        bufBody.pbuf = (uint8*)&m_dwMediaMs;
        bufBody.ulen = sizeof(m_dwMediaMs);
    }
};

struct COwner : IUDTRecvEventCallBack
{
    std::mutex m_mutex;
    std::vector<uint32> m_vecAskedFor; // under m_mutex: from the worker to the network thread
    std::atomic<uint32> m_dwPlayed{0};

    void OnUDTRecvOutData(UDTCodecBaseDecode_V2*, int*) override { ++m_dwPlayed; }
    int UdtRecvHandleEvent(WORD, uint8* pBuffer, uint32 nBufSize, uint32, uint32) override
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        for (uint32 i = 0; i < nBufSize; ++i)
            m_vecAskedFor.push_back(((const tagReplyData*)pBuffer)[i].dwUserSeq);
        return 0;
    }
    int UdtParsePacketHeadInfo(uint8* pBuf, UdtPacketHeadInfo& stHead) override
    {
        stHead.cSubType = MEAVAudio;
        stHead.uTimeStamp = *(uint32*)pBuf;
        return 0;
    }
    std::vector<uint32> TakeAskedFor()
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        return std::move(m_vecAskedFor);
    }
};

// Every getter may be called from any thread, any time. The downlink is an exception in one point: reading it begins a
// new interval, so let one poller do it.
void PrintLine(CAVGUdtRecv& receiver)
{
    uint32 dwExpected, dwReceived, dwBytes, dwFirstI;
    receiver.GetDownPacketRecvInfo(dwExpected, dwReceived, dwBytes, dwFirstI);
    tagRecvInfo stInfo;
    receiver.GetRecvInfo(stInfo);
    tagPlayoutInfo stPlayout;
    receiver.GetPlayoutInfo(c_ullSender, stPlayout); // zeros until the user's first packet
    std::printf("downlink %3u of %3u packets, %5u bytes, loss %5.2f %% | buffered %4u ms, target %4u ms\n",
                dwReceived, dwExpected, dwBytes, stInfo.dwCurLossRate / 100.0, stPlayout.dwDataLen,
                stPlayout.dwTarget);
}

bool PrintStreams(CAVGUdtRecv& receiver)
{
    std::vector<tagRecvChnStatInfo> vecStream(16);
    vecStream.resize(receiver.GetRecvChnInfo(vecStream.data(), (uint32)vecStream.size()));
    for (const tagRecvChnStatInfo& stStream : vecStream)
        std::printf("stream %llu/%u: received %u, lost for good %u\n", stStream.llAccount, stStream.dwSubType,
                    stStream.dwTotalRecvPkgNum, stStream.dwTotalLossPkgNum);
    return vecStream.size() == 1 && vecStream[0].dwTotalRecvPkgNum >= c_dwPackets;
}
} // namespace

int main()
{
    COwner owner;
    CAVGUdtRecv receiver(&owner);
    receiver.SetRoomState(c_dwRoomStatePlaying);
    receiver.Start();

    std::atomic<bool> bCallGoesOn{true};
    std::thread monitor(
        [&]
        {
            while (bCallGoesOn)
            {
                PrintLine(receiver);
                xp_msleep(250);
            }
        });

    uint32 dwDown = 0;
    const auto Feed = [&](uint32 dwSeq)
    {
        CScopePtr<UDTCodecBaseDecode_V2> pPacket(new CPacket(1000 + 20 * dwSeq));
        receiver.UDTReceiveNetData(dwSeq, c_ullSender, ++dwDown, 0, MEAVAudio, pPacket.p);
    };
    const uint64 ullStart = xp_gettickcount();
    uint32 dwSeq = 0;
    std::vector<bool> vecAnswered(c_dwPackets);
    while (owner.m_dwPlayed < c_dwPackets && xp_gettickcount() - ullStart < 15000)
    {
        if (dwSeq < c_dwPackets && xp_gettickcount() - ullStart + c_dwAheadMs >= 20ull * dwSeq)
        {
            if (dwSeq % 15 == 14)
                ++dwDown; // lost
            else
                Feed(dwSeq);
            ++dwSeq;
        }
        for (const uint32 dwAsked : owner.TakeAskedFor())
            if (dwAsked < c_dwPackets && !vecAnswered[dwAsked])
            {
                vecAnswered[dwAsked] = true;
                Feed(dwAsked);
            }
        xp_msleep(5);
    }
    bCallGoesOn = false;
    monitor.join();
    const bool bGood = PrintStreams(receiver); // before Stop, which empties the buffers
    receiver.Stop();
    std::printf("played %u of %u packets, %u of them asked for\n", owner.m_dwPlayed.load(), c_dwPackets,
                (uint32)std::count(vecAnswered.begin(), vecAnswered.end(), true));
    return bGood && owner.m_dwPlayed == c_dwPackets ? 0 : 1;
}
