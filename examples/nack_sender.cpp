// Sends three seconds of sound and picture to nack_receiver, loses every 11th packet on purpose, and answers what is asked
// for from a history.
//
// usage: nack_sender PORT          (on 127.0.0.1)
#include "nack_wire.h"

#include <arpa/inet.h>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>
#include <utility>

#include "xpmess.h"

namespace
{
constexpr uint32 c_dwSendMs = 3000;    // media
constexpr uint32 c_dwAheadMs = 1000;   // of it leave at once, as from a server that has kept them
constexpr uint32 c_dwVideoFrom = 1600; // the camera is switched on a little later than the microphone
constexpr uint32 c_dwLoseFrom = 1700;
constexpr uint32 c_dwLoseEvery = 11;
constexpr uint32 c_dwLingerMs = 10000; // answers requests until the receiver says bye, or for this long

class CSender
{
public:
    explicit CSender(int nSocket) : m_nSocket(nSocket) {}

    void SendFrame(uint8 cSubType, UdtPacketHeadInfo stHead, uint32 dwPackets, bool bMayLose)
    {
        stHead.cTotalPkgCount = (uint8)dwPackets;
        for (uint32 i = 0; i < dwPackets; ++i)
        {
            stHead.cPkgIndex = (uint8)i;
            Bytes buf;
            Put(buf, 'M', 1);
            Put(buf, cSubType, 1);
            Put(buf, m_dwSeq[cSubType], 4);
            Put(buf, 0, 4); // downlink sequence: every transmission has its own
            Put(buf, stHead.uTimeStamp, 2);
            PutHead(buf, stHead);
            buf.resize(buf.size() + 300, cSubType);

            const std::pair<uint8, uint32> key(cSubType, m_dwSeq[cSubType]++);
            Bytes& bufKept = m_mapHistory[key] = buf;
            ++m_dwSent;
            if (bMayLose && ++m_dwTurn % c_dwLoseEvery == 0)
                ++m_dwDownSeq; // lost: it had a number on the downlink, too
            else
                Transmit(bufKept);
        }
    }

    // What came from the receiver. False when it said bye.
    bool TakeFeedback()
    {
        uint8 buf[1500];
        for (;;)
        {
            const ssize_t nLen = recv(m_nSocket, buf, sizeof(buf), MSG_DONTWAIT);
            if (nLen < 1)
                return true;
            if (buf[0] == 'B')
                return false;
            if (buf[0] != 'N' || nLen < 2 || nLen < 2 + 5 * (ssize_t)buf[1])
                continue;
            for (uint32 i = 0; i < buf[1]; ++i)
            {
                const uint8* p = buf + 2 + 5 * (size_t)i;
                const auto itKept = m_mapHistory.find({p[0], Get(p + 1, 4)});
                if (itKept != m_mapHistory.end())
                {
                    Transmit(itKept->second);
                    ++m_dwAnswered;
                }
            }
        }
    }

    void SendBye()
    {
        Bytes buf;
        Put(buf, 'B', 1);
        Put(buf, m_dwSent, 4);
        send(m_nSocket, buf.data(), buf.size(), 0);
    }

    uint32 m_dwSent = 0;
    uint32 m_dwAnswered = 0;

private:
    void Transmit(Bytes& buf)
    {
        const uint32 dwDown = ++m_dwDownSeq;
        for (uint32 i = 0; i < 4; ++i)
            buf[6 + i] = (uint8)(dwDown >> (24 - 8 * i));
        send(m_nSocket, buf.data(), buf.size(), 0);
    }

    int m_nSocket;
    uint32 m_dwSeq[MEAVMAX] = {};
    uint32 m_dwDownSeq = 0;
    uint32 m_dwTurn = 0;
    std::map<std::pair<uint8, uint32>, Bytes>
        m_mapHistory; // a sender of hours would forget what is too old to play
};
} // namespace

int main(int argc, char** argv)
{
    sockaddr_in stTo = {};
    stTo.sin_family = AF_INET;
    stTo.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    stTo.sin_port = htons((uint16)(argc > 1 ? std::atoi(argv[1]) : 0));
    const int nSocket = socket(AF_INET, SOCK_DGRAM, 0);
    if (stTo.sin_port == 0 || nSocket < 0 || connect(nSocket, (sockaddr*)&stTo, sizeof(stTo)) != 0)
    {
        std::fprintf(stderr, "usage: nack_sender PORT\n");
        return 2;
    }

    CSender sender(nSocket);
    const uint64 ullStart = xp_gettickcount();
    uint32 dwAudio = 0;
    uint32 dwFrame = 0;
    uint64 ullBye = 0;
    bool bGoOn = true;
    while (bGoOn && xp_gettickcount() - ullStart < c_dwSendMs + c_dwLingerMs)
    {
        const uint32 dwNow = (uint32)(xp_gettickcount() - ullStart) + c_dwAheadMs;
        UdtPacketHeadInfo stHead;
        for (; dwAudio * 20 < c_dwSendMs && dwAudio * 20 <= dwNow; ++dwAudio)
        {
            stHead.uTimeStamp = 1000 + dwAudio * 20;
            sender.SendFrame(MEAVAudio, stHead, 1, dwAudio * 20 >= c_dwLoseFrom);
        }
        for (; c_dwVideoFrom + dwFrame * 40 < c_dwSendMs && c_dwVideoFrom + dwFrame * 40 <= dwNow; ++dwFrame)
        {
            const bool bKey = dwFrame % 15 == 0;
            stHead.uTimeStamp = 1000 + c_dwVideoFrom + dwFrame * 40;
            stHead.cFrmType = bKey ? def_FrameType_I : def_FrameType_P;
            stHead.cFrameIndex = (uint8)(dwFrame % 15);
            stHead.cGopIndex = (uint8)(dwFrame / 15);
            sender.SendFrame(MEAVMaxVideo, stHead, bKey ? 6 : 2,
                             c_dwVideoFrom + dwFrame * 40 >= c_dwLoseFrom);
        }
        if (dwNow >= c_dwSendMs &&
            xp_gettickcount() - ullBye >= 200) // again and again: a bye may be lost, too
        {
            ullBye = xp_gettickcount();
            sender.SendBye();
        }
        pollfd stPoll = {nSocket, POLLIN, 0};
        poll(&stPoll, 1, 5);
        bGoOn = sender.TakeFeedback();
    }
    close(nSocket);
    std::printf("sent %u packets, answered %u requests\n", sender.m_dwSent, sender.m_dwAnswered);
    return bGoOn ? 1 : 0;
}
