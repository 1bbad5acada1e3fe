// An owner without a thread for the receiver: one poll loop reads the socket and makes the receiver's turns. Sound
// comes in over loopback from the same loop, so that the program needs no partner.
#include "AVGUDTRecv.h"
#include "xpmess.h"

#include <arpa/inet.h>
#include <cstdio>
#include <cstring>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

namespace
{
constexpr uint32 c_dwPackets = 50;
constexpr uint64 c_ullTurnMs = 10;

// Our wire format: sequence and media time, each four bytes as they lie in memory.
struct tagWire
{
    uint32 dwSeq;
    uint32 dwMediaMs;
};

struct CPacket : UDTCodecBaseDecode_V2
{
    tagWire m_stWire;

    explicit CPacket(const tagWire& stWire) : m_stWire(stWire)
    {
        wLen = sizeof(m_stWire);
        bufBody.pbuf = (uint8*)&m_stWire;
        bufBody.ulen = sizeof(m_stWire);
    }
};

// All callbacks come from this loop, so nothing here is shared and nothing needs a lock.
struct COwner : IUDTRecvEventCallBack
{
    uint32 m_dwPlayed = 0;
    bool m_bInOrder = true;

    void OnUDTRecvOutData(UDTCodecBaseDecode_V2* pPacket, int*) override
    {
        m_bInOrder = m_bInOrder && static_cast<CPacket*>(pPacket)->m_stWire.dwSeq == m_dwPlayed;
        ++m_dwPlayed;
    }
    int UdtRecvHandleEvent(WORD, uint8*, uint32, uint32, uint32) override { return 0; }
    int UdtParsePacketHeadInfo(uint8* pBuf, UdtPacketHeadInfo& stHead) override
    {
        stHead.cSubType = MEAVAudio;
        std::memcpy(&stHead.uTimeStamp, pBuf + offsetof(tagWire, dwMediaMs), sizeof(stHead.uTimeStamp));
        return 0;
    }
};
} // namespace

int main()
{
    sockaddr_in stOwn = {};
    socklen_t nOwn = sizeof(stOwn);
    stOwn.sin_family = AF_INET;
    stOwn.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    const int nSocket = socket(AF_INET, SOCK_DGRAM, 0);
    if (nSocket < 0 || bind(nSocket, (sockaddr*)&stOwn, sizeof(stOwn)) != 0 ||
        getsockname(nSocket, (sockaddr*)&stOwn, &nOwn) != 0)
    {
        std::perror("event_loop: no socket");
        return 2;
    }

    COwner owner;
    CAVGUdtRecv receiver(&owner);
    receiver.SetOwnerDriven(TRUE); // before Start: no thread is made
    receiver.SetRoomState(c_dwRoomStatePlaying);
    receiver.Start();

    const uint64 ullStart = xp_gettickcount();
    uint64 ullNextTurn = ullStart;
    uint32 dwTurns = 0;
    tagWire stSend = {0, 1000};
    while (owner.m_dwPlayed < c_dwPackets && xp_gettickcount() - ullStart < 10000)
    {
        // Wait for a datagram, but no longer than until the next turn.
        const uint64 ullNow = xp_gettickcount();
        pollfd stPoll = {nSocket, POLLIN, 0};
        poll(&stPoll, 1, ullNextTurn > ullNow ? (int)(ullNextTurn - ullNow) : 0);

        tagWire stWire;
        while (recv(nSocket, &stWire, sizeof(stWire), MSG_DONTWAIT) == (ssize_t)sizeof(stWire))
        {
            CScopePtr<UDTCodecBaseDecode_V2> pPacket(new CPacket(stWire));
            receiver.UDTReceiveNetData(stWire.dwSeq, 4711, stWire.dwSeq, (WORD)stWire.dwMediaMs, MEAVAudio,
                                       pPacket.p);
        }
        if (xp_gettickcount() >= ullNextTurn)
        {
            ullNextTurn = xp_gettickcount() + c_ullTurnMs; // a turn that came late is not made up for
            receiver.RunTurn();
            ++dwTurns;
        }
        if (stSend.dwSeq < c_dwPackets &&
            xp_gettickcount() - ullStart >= 20ull * stSend.dwSeq) // the far end of the call
        {
            sendto(nSocket, &stSend, sizeof(stSend), 0, (sockaddr*)&stOwn, sizeof(stOwn));
            ++stSend.dwSeq;
            stSend.dwMediaMs += 20;
        }
    }
    receiver.Stop(); // at once: there is no thread to wait for
    close(nSocket);
    std::printf("played %u of %u packets, %s, in %s turns of one thread\n", owner.m_dwPlayed, c_dwPackets,
                owner.m_bInOrder ? "in order" : "OUT OF ORDER", dwTurns > 50 ? "many" : "few");
    return owner.m_dwPlayed == c_dwPackets && owner.m_bInOrder ? 0 : 1;
}
