// The smallest owner: hands in one second of audio and gets it back in order, each packet when it is due.
#include "AVGUDTRecv.h"
#include "xpmess.h"

#include <atomic>
#include <cstdio>

// One datagram of our own wire format: its body is just a media timestamp in ms.
struct CPacket : UDTCodecBaseDecode_V2
{
    uint32 m_dwMediaMs;

    explicit CPacket(uint32 dwMediaMs) : m_dwMediaMs(dwMediaMs)
    {
        wLen = sizeof(m_dwMediaMs);
        bufBody.ulen = sizeof(m_dwMediaMs);
        bufBody.pbuf = (uint8*)&m_dwMediaMs;
    }
};

struct COwner : IUDTRecvEventCallBack
{
    std::atomic<uint32> m_dwPlayed{0};

    void OnUDTRecvOutData(UDTCodecBaseDecode_V2* pPacket, int*) override // worker: decode and play this
    {
        std::printf("%u ", pPacket->dwSenderSeq);
        ++m_dwPlayed;
    }
    int UdtRecvHandleEvent(WORD, uint8*, uint32, uint32, uint32) override // worker: send this loss request
    {
        return 0;
    }
    int UdtParsePacketHeadInfo(uint8* pBuf, UdtPacketHeadInfo& stHead) override // network thread: parse this
    {
        stHead.cSubType = MEAVAudio;
        stHead.uTimeStamp = *(uint32*)pBuf;
        return 0;
    }
};

int main()
{
    COwner owner;
    CAVGUdtRecv receiver(&owner);
    receiver.SetRoomState(3); // 3: the room plays
    receiver.Start();

    for (uint32 dwSeq = 0; dwSeq < 50; ++dwSeq) // what the network thread does for each datagram
    {
        CScopePtr<UDTCodecBaseDecode_V2> pPacket(new CPacket(1000 + 20 * dwSeq));
        pPacket.p->dwSenderSeq = dwSeq;
        receiver.UDTReceiveNetData(dwSeq, 4711, dwSeq, 0, MEAVAudio, pPacket.p);
        xp_msleep(20);
    }
    while (owner.m_dwPlayed < 50)
        xp_msleep(10);
    receiver.Stop();
    std::printf("\nplayed %u packets\n", owner.m_dwPlayed.load());
}
