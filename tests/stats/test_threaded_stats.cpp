/**
 * Statistics under load: a call of fifty users on the receiver's own thread, fed by two network threads, while two
 * others call every getter and take snapshots once a millisecond. Made for the thread sanitizer; what is read is
 * checked to be of this call.
 */

#include "RecvRig.h"
#include "UdtStatsCollector.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <thread>
#include <vector>

namespace
{

using namespace std::chrono_literals;

constexpr uint32 c_dwUsers = 50;
constexpr uint32 c_dwSteps = 150; // of 10 ms

class CQuietOwner : public IUDTRecvEventCallBack
{
public:
    void OnUDTRecvOutData(UDTCodecBaseDecode_V2*, int*) override { m_ullReleased += 1; }
    int UdtRecvHandleEvent(WORD, uint8*, uint32, uint32, uint32) override { return 0; }
    int UdtParsePacketHeadInfo(uint8* pBuf, UdtPacketHeadInfo& stHead) override
    {
        stHead = *(const tagUdtPacketHeadInfo*)pBuf;
        return 0;
    }
    std::atomic<uint64> m_ullReleased{0};
};

// Half of the users: sound every 20 ms, a frame of three packets every 40 ms, every fiftieth packet lost.
void Send(CUdtStatsCollector& collector, uint32 dwFirst)
{
    std::vector<uint32> vecSeq(c_dwUsers * 2, 1000);
    uint32 dwDown = 2 + dwFirst;
    const auto tBegin = std::chrono::steady_clock::now();
    for (uint32 dwStep = 0; dwStep < c_dwSteps; ++dwStep)
    {
        std::this_thread::sleep_until(tBegin + dwStep * 10ms);
        for (uint32 dwUser = dwFirst; dwUser < c_dwUsers; dwUser += 2)
        {
            const auto feed = [&](const tagRigPacket& stPacket)
            {
                if (stPacket.dwSendSeq % 50 == 49)
                    return;
                CScopePtr<CRigPacket> p(new CRigPacket(stPacket));
                collector.UDTReceiveNetData(stPacket.dwSendSeq, stPacket.ullUin, dwDown += 2, 0,
                                            stPacket.cSubType, p.p);
            };
            const uint32 dwMs = 5000 + dwStep * 10;
            if (dwStep % 2 == 0)
                feed(AudioPacket(1 + dwUser, vecSeq[dwUser]++).At(dwMs));
            if (dwStep % 4 != 0)
                continue;
            const uint8 cFrm = (uint8)(dwStep / 4);
            for (uint8 cPkg = 0; cPkg < 3; ++cPkg)
                feed(VideoPacket(1 + dwUser, vecSeq[c_dwUsers + dwUser]++, dwMs,
                                 cFrm % 25 == 0 ? def_FrameType_I : def_FrameType_P, (uint8)(cFrm / 25), cFrm,
                                 cPkg, 3));
        }
    }
}

void Look(CAVGUdtRecv& recv, CUdtStatsCollector& collector, const std::atomic<bool>& bOver, uint64& ullLooks)
{
    uint64 ullLast = 0;
    while (!bOver)
    {
        uint32 dwA = 0, dwB = 0, dwC = 0, dwD = 0;
        recv.UDTCalcRecvLoss(dwA, dwB, dwC, dwD);
        recv.GetDownPacketRecvInfo(dwA, dwB, dwC, dwD);
        EXPECT_GE(dwA, dwB);
        collector.DownlinkPolled(dwA, dwB, dwC, dwD);
        tagRecvInfo stInfo;
        recv.GetRecvInfo(stInfo);
        EXPECT_LE(stInfo.dwChnNum, 2 * c_dwUsers);
        tagRecvChnStatInfo aInfo[2 * c_dwUsers];
        EXPECT_LE(recv.GetRecvChnInfo(aInfo, 2 * c_dwUsers), 2 * c_dwUsers);
        tagPlayoutInfo stPlayout;
        recv.GetPlayoutInfo(1 + ullLooks % c_dwUsers, stPlayout);

        tagUdtStats st;
        collector.Snapshot(st);
        const uint64 ullParsed = st.stReceiver.packetsParsed.value_or(0);
        EXPECT_GE(ullParsed, ullLast);
        ullLast = ullParsed;
        for (const tagUdtStreamStats& stStream : st.vecStreams)
            EXPECT_LE(stStream.packetsReleased.value_or(0), stStream.packetsReceived.value_or(0));
        if (ullLooks++ % 100 == 0)
        {
            EXPECT_FALSE(UdtStatsOpenMetrics(st).empty());
        }
        std::this_thread::sleep_for(1ms);
    }
}

TEST(ThreadedStats, EveryGetterAndTheSnapshotMayBeCalledWhileFiftyUsersTalk)
{
    CQuietOwner owner;
    CUdtStatsCollector collector(&owner);
    CAVGUdtRecv recv(&collector);
    collector.Attach(&recv);
    recv.Start();
    recv.SetRoomState(c_dwRoomStatePlaying);

    std::atomic<bool> bOver{false};
    uint64 aLooks[2] = {0, 0};
    std::vector<std::thread> vecLookers;
    for (uint64& ullLooks : aLooks)
        vecLookers.emplace_back([&] { Look(recv, collector, bOver, ullLooks); });
    std::thread sender([&] { Send(collector, 1); });
    Send(collector, 0);
    sender.join();
    bOver = true;
    for (std::thread& thread : vecLookers)
        thread.join();

    tagUdtStats st;
    collector.Snapshot(st);
    EXPECT_EQ(st.vecStreams.size(), 2 * c_dwUsers);
    EXPECT_GT(owner.m_ullReleased, 0u);
    EXPECT_GT(aLooks[0], 10u);
    EXPECT_GT(aLooks[1], 10u);
    recv.Stop();
    collector.Attach(nullptr);
    EXPECT_EQ(st.stReceiver.streams.value_or(0), 2 * c_dwUsers);
    EXPECT_EQ(CRigPacket::Live(), 0);
}

} // namespace
