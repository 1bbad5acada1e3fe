// An owner with its own head format on a UDP socket: parses datagrams, feeds the receiver, sends its loss requests
// back, and plays what comes out. The other end is nack_sender.
//
// usage: nack_receiver [PORT]      (on 127.0.0.1; without PORT, or with 0, any free one, which is printed)
#include "AVGUDTRecv.h"
#include "nack_wire.h"
#include "xpmess.h"

#include <algorithm>
#include <arpa/inet.h>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>
#include <utility>

namespace
{
constexpr uint64 c_ullSender = 4711; // one sender, one account; a room takes it from the datagram

// One datagram. It owns its bytes, and goes when the receiver and everybody else have let go of it.
struct CPacket : UDTCodecBaseDecode_V2
{
    Bytes m_buf;

    explicit CPacket(Bytes buf) : m_buf(std::move(buf))
    {
        wLen = (uint16)m_buf.size();
        bufBody.pbuf = m_buf.data() + WIRE_MEDIA_BEGIN;
        bufBody.ulen = (uint32)m_buf.size() - WIRE_MEDIA_BEGIN;
    }
};

class COwner : public IUDTRecvEventCallBack
{
public:
    explicit COwner(int nSocket) : m_nSocket(nSocket) {}

    // Before the first packet is fed, so the worker sees it.
    void SetPeer(const sockaddr_in& stPeer) { m_stPeer = stPeer; }

    void SendToPeer(const Bytes& buf)
    {
        sendto(m_nSocket, buf.data(), buf.size(), 0, (const sockaddr*)&m_stPeer, sizeof(m_stPeer));
    }

    std::atomic<uint32> m_dwPlayed{0};
    std::atomic<uint32> m_dwBackwards{0};
    std::atomic<uint32> m_dwAskedFor{0};

private:
    // Worker: decode and play. Here we only look whether it is the one after the last of its stream.
    void OnUDTRecvOutData(UDTCodecBaseDecode_V2* pPacket, int* pnDelay) override
    {
        const Bytes& buf = static_cast<CPacket*>(pPacket)->m_buf;
        const uint8 cSubType = buf[1];
        const uint32 dwSeq = Get(&buf[2], 4);
        if (dwSeq < m_dwNext[cSubType])
            ++m_dwBackwards;
        m_dwNext[cSubType] = dwSeq + 1;
        ++m_dwPlayed;
        if (cSubType == MEAVAudio)
            *pnDelay = 20; // ms of sound that our sound device holds
    }

    // Worker: packets are missing.
    int UdtRecvHandleEvent(WORD wType, uint8* pBuffer, uint32 nBufSize, uint32, uint32) override
    {
        if (wType != AVGUdtRecvPacketEvent_LossRequest)
            return 0;
        const tagReplyData* pstReply = (const tagReplyData*)pBuffer;
        for (uint32 i = 0; i < nBufSize; i += WIRE_NACK_MOST)
        {
            const uint32 dwCount = std::min<uint32>(nBufSize - i, WIRE_NACK_MOST);
            Bytes buf;
            Put(buf, 'N', 1);
            Put(buf, dwCount, 1);
            for (uint32 j = i; j < i + dwCount; ++j)
            {
                Put(buf, pstReply[j].cSubType, 1);
                Put(buf, pstReply[j].dwUserSeq, 4);
            }
            SendToPeer(buf);
        }
        m_dwAskedFor += nBufSize;
        return 0;
    }

    // Network thread: our media head, at the start of the body. The length was checked before the packet was fed.
    int UdtParsePacketHeadInfo(uint8* pBuf, UdtPacketHeadInfo& stHead) override
    {
        GetHead(pBuf, stHead);
        stHead.cSubType = pBuf[1 - WIRE_MEDIA_BEGIN];
        return 0;
    }

    int m_nSocket;
    sockaddr_in m_stPeer = {};
    uint32 m_dwNext[MEAVMAX] = {};
};
} // namespace

int main(int argc, char** argv)
{
    sockaddr_in stOwn = {};
    socklen_t nOwn = sizeof(stOwn);
    stOwn.sin_family = AF_INET;
    stOwn.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    stOwn.sin_port = htons((uint16)(argc > 1 ? std::atoi(argv[1]) : 0));
    const int nSocket = socket(AF_INET, SOCK_DGRAM, 0);
    if (nSocket < 0 || bind(nSocket, (sockaddr*)&stOwn, sizeof(stOwn)) != 0 ||
        getsockname(nSocket, (sockaddr*)&stOwn, &nOwn) != 0)
    {
        std::perror("nack_receiver: no socket");
        return 2;
    }
    std::printf("port %u\n", ntohs(stOwn.sin_port));
    std::fflush(stdout);

    COwner owner(nSocket);
    CAVGUdtRecv receiver(&owner);
    receiver.SetRoomState(c_dwRoomStatePlaying);
    receiver.UDTSetRecvRTT(1); // an owner measures it, and tells it now and then
    receiver.Start();

    bool bPeer = false;
    uint32 dwSent = 0; // by the sender; 0 until it says bye
    uint64 ullLast = xp_gettickcount();
    while (xp_gettickcount() - ullLast < 8000 && (dwSent == 0 || owner.m_dwPlayed < dwSent))
    {
        pollfd stPoll = {nSocket, POLLIN, 0};
        if (poll(&stPoll, 1, 20) != 1)
            continue;
        Bytes buf(1500);
        sockaddr_in stFrom = {};
        socklen_t nFrom = sizeof(stFrom);
        const ssize_t nLen = recvfrom(nSocket, buf.data(), buf.size(), 0, (sockaddr*)&stFrom, &nFrom);
        if (nLen < 5)
            continue;
        buf.resize((size_t)nLen);
        if (buf[0] == 'B')
            dwSent = Get(&buf[1], 4);
        // What comes from the network is checked here: the receiver takes any head, but it reads no lengths.
        if (buf[0] != 'M' || buf.size() < WIRE_MEDIA_BEGIN + WIRE_HEAD || buf[1] >= MEAVMAX)
            continue;
        if (!bPeer)
            owner.SetPeer(stFrom);
        bPeer = true;
        ullLast = xp_gettickcount();

        const uint8 cSubType = buf[1];
        const uint32 dwSendSeq = Get(&buf[2], 4);
        const uint32 dwDownSeq = Get(&buf[6], 4);
        const WORD wTimeStamp = (WORD)Get(&buf[10], 2);
        CScopePtr<UDTCodecBaseDecode_V2> pPacket(new CPacket(std::move(buf)));
        receiver.UDTReceiveNetData(dwSendSeq, c_ullSender, dwDownSeq, wTimeStamp, cSubType, pPacket.p);
    }
    owner.SendToPeer(Bytes(5, 'B'));
    receiver.Stop();
    close(nSocket);

    std::printf("played %u of %u packets, %u asked for, %u out of order\n", owner.m_dwPlayed.load(), dwSent,
                owner.m_dwAskedFor.load(), owner.m_dwBackwards.load());
    return dwSent != 0 && owner.m_dwPlayed == dwSent && owner.m_dwAskedFor > 0 ? 0 : 1;
}
