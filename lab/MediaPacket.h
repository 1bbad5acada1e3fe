// The packet object that the lab feeds to a receiver.
#ifndef LAB_MEDIAPACKET_H
#define LAB_MEDIAPACKET_H

#include "AVGUDTCodec.h"
#include "IUDT.h"
#include "RtpTypes.h"
#include "UdtStatsCollector.h"

#include <cstring>
#include <vector>

namespace lab
{

class CMediaPacket;

// Told when the last reference to a packet was let go.
class IPacketKeeper
{
public:
    virtual void OnPacketGone(CMediaPacket& packet) = 0;

protected:
    ~IPacketKeeper() = default;
};

// One packet on its way through a receiver, with what a run wants to know about it afterwards. The body that
// the receiver hands back for parsing is the packet's own image of the media head.
class CMediaPacket : public UDTCodecBaseDecode_V2
{
public:
    explicit CMediaPacket(const tagUdtPacketHeadInfo& stHead, IPacketKeeper* pKeeper) : m_pKeeper(pKeeper)
    {
        memcpy(m_aHead, &stHead, sizeof(m_aHead));
        bufBody.pbuf = m_aHead;
        bufBody.ulen = sizeof(m_aHead);
    }
    ~CMediaPacket() override
    {
        if (m_pKeeper)
            m_pKeeper->OnPacketGone(*this);
    }

    // What the intake knows of it. Takes the RTP packet's bytes out of stMedia if they are kept.
    void Take(tagRtpMedia& stMedia, bool bKeepBytes)
    {
        dwSenderSeq = stMedia.dwSendSeq;
        dwSeq = stMedia.dwSeq;
        u64Uin = stMedia.llAccount;
        wTimeStamp = stMedia.wTimeStamp;
        wLen = stMedia.wLen;
        m_uStream = stMedia.dwStream;
        m_cSubType = stMedia.cSubType;
        m_dwWireLen = stMedia.dwWireLen;
        m_stSrc = stMedia.stSrc;
        m_stDst = stMedia.stDst;
        m_stArrival.dwPayloadBytes = stMedia.wLen;
        if (stMedia.bByRtx)
            m_stArrival.bRetransmitted = true; // nobody knows of those that come under their own number
        if (bKeepBytes)
            m_vecBytes.swap(stMedia.vecRtp);
    }

    // Nobody is told of its end: whoever keeps a packet beyond its run calls this.
    void Abandon() { m_pKeeper = nullptr; }

    tagUdtPacketHeadInfo Head() const
    {
        tagUdtPacketHeadInfo stHead;
        memcpy(&stHead, m_aHead, sizeof(m_aHead));
        return stHead;
    }

    uint32 m_uStream = 0;   // the run's own number of the stream
    uint32 m_dwFedTick = 0; // when it was handed in
    uint8 m_cSubType = 0;
    uint32 m_uEpoch = 0; // how often its sender had begun to count anew, where the numbers tell nobody

    tagUdtArrival m_stArrival; // what its maker knows besides

    // Kept by CRunChecks.
    uint32 m_uFiled = 0;        // where the receiver files it
    uint64 m_ullFedTurn = 0;    // the turn before it was handed in
    uint64 m_ullFedForgets = 0; // how often streams had been forgotten by then
    bool m_bFirst = false;      // the first packet of its stream with this sequence
    bool m_bUnsure = false;     // as far as anybody remembers: sequences of its stream lie too far apart
    bool m_bLate = false;       // handed in after its place was played
    bool m_bReleased = false;   // given back to the owner at least once

    // For whoever writes down what was played; empty when nobody does.
    std::vector<uint8> m_vecBytes; // the RTP packet as far as it is known
    uint32 m_dwWireLen = 0;        // bytes of the whole packet on the wire
    tagRtpAddr m_stSrc;
    tagRtpAddr m_stDst;

private:
    uint8 m_aHead[sizeof(tagUdtPacketHeadInfo)];
    IPacketKeeper* m_pKeeper;
};

} // namespace lab

#endif
