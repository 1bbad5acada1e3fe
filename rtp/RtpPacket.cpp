// RTP and RTCP bytes, by way of libre. Lengths are checked here before it reads, so that a count or length field
// that lies is refused by reason instead of being read past.
#include "RtpPacket.h"

#include <cstring>

#include <re.h>

namespace
{
uint16 Read16(const uint8* p) { return (uint16)(p[0] << 8 | p[1]); }

void AddReports(const struct rtcp_rr* pBlocks, uint32 dwCount, uint32 dwSender,
                std::vector<tagRtpEvent>& vecEvents)
{
    for (uint32 i = 0; i < dwCount; i++)
    {
        tagRtpEvent stEvent;
        stEvent.eType = RTP_EVENT_RR;
        stEvent.dwSenderSsrc = dwSender;
        stEvent.dwMediaSsrc = pBlocks[i].ssrc;
        stEvent.cFraction = (uint8)pBlocks[i].fraction;
        stEvent.nLost = pBlocks[i].lost;
        stEvent.dwHighSeq = pBlocks[i].last_seq;
        stEvent.dwJitter = pBlocks[i].jitter;
        stEvent.dwLsr = pBlocks[i].lsr;
        stEvent.dwDlsr = pBlocks[i].dlsr;
        vecEvents.push_back(stEvent);
    }
}

// What a part of this type and count needs at least, its header included; 0 for a type that is only counted.
uint32 LeastLength(uint8 cType, uint32 dwCount)
{
    switch (cType)
    {
    case RTCP_SR: return 28 + 24 * dwCount;
    case RTCP_RR: return 8 + 24 * dwCount;
    case RTCP_SDES: return 4 + 8 * dwCount;
    case RTCP_BYE: return 4 + 4 * dwCount;
    case RTCP_RTPFB: return dwCount == RTCP_RTPFB_GNACK ? 16 : 0;
    case RTCP_PSFB: return dwCount == RTCP_PSFB_PLI ? 12 : 0;
    default: return 0;
    }
}
} // namespace

bool IsRtcp(const uint8* pData, uint32 dwLen)
{
    return dwLen >= 2 && (pData[0] >> 6) == RTCP_VERSION && pData[1] >= 192 && pData[1] <= 223;
}

bool ParseRtp(const uint8* pData, uint32 dwCaptured, uint32 dwWire, tagRtpHeader& stHeader,
              emRtpDrop& eReason)
{
    const bool bCut = dwCaptured < dwWire;
    eReason = bCut ? RTP_DROP_RTP_CUT : RTP_DROP_RTP_SHORT;

    // Read in place: decoding a header neither writes nor keeps the buffer.
    struct mbuf stBuf;
    stBuf.buf = const_cast<uint8*>(pData);
    stBuf.size = dwCaptured;
    stBuf.pos = 0;
    stBuf.end = dwCaptured;
    if (dwCaptured < RTP_HEADER_SIZE)
        return false;
    struct rtp_header stRe;
    std::memset(&stRe, 0, sizeof(stRe));
    if (rtp_hdr_decode(&stRe, &stBuf) != 0)
        return false;
    if (stRe.ver != RTP_VERSION)
    {
        eReason = RTP_DROP_NOT_RTP;
        return false;
    }

    stHeader = tagRtpHeader();
    stHeader.bMarker = stRe.m;
    stHeader.cPt = stRe.pt;
    stHeader.wSeq = stRe.seq;
    stHeader.dwTs = stRe.ts;
    stHeader.dwSsrc = stRe.ssrc;
    stHeader.dwHeadLen = (uint32)stBuf.pos;
    if (stRe.ext)
    {
        stHeader.wExtProfile = stRe.x.type;
        stHeader.dwExtLen = stRe.x.len * 4u;
        stHeader.dwExtAt = stHeader.dwHeadLen - stHeader.dwExtLen;
    }
    stHeader.dwPayload = (bCut ? dwWire : dwCaptured) - stHeader.dwHeadLen;
    stHeader.dwCaptured = dwCaptured - stHeader.dwHeadLen;
    if (stRe.pad && !bCut)
    {
        const uint32 dwPadding = stHeader.dwCaptured == 0 ? 0 : pData[dwCaptured - 1];
        if (dwPadding == 0 || dwPadding > stHeader.dwCaptured)
        {
            eReason = RTP_DROP_RTP_PADDING;
            return false;
        }
        stHeader.dwPayload -= dwPadding;
        stHeader.dwCaptured -= dwPadding;
    }
    return true;
}

// libre keeps a reference to the buffer in some messages, so the buffer must be one of its own.
struct CRtcpReader::tagBuffer
{
    struct mbuf* pBuf = mbuf_alloc(2048);

    tagBuffer() = default;
    tagBuffer(const tagBuffer&) = delete;
    tagBuffer& operator=(const tagBuffer&) = delete;
    ~tagBuffer() { mem_deref(pBuf); }
};

CRtcpReader::CRtcpReader() : m_pBuffer(new tagBuffer) {}
CRtcpReader::~CRtcpReader() = default;

void CRtcpReader::Read(const uint8* pData, uint32 dwLen, std::vector<tagRtpEvent>& vecEvents,
                       tagRtpTotals& stTotals)
{
    while (dwLen > 0)
    {
        if (dwLen < 4)
        {
            stTotals.aDrops[RTP_DROP_RTCP_SHORT]++;
            return;
        }
        if ((pData[0] >> 6) != RTCP_VERSION)
        {
            stTotals.aDrops[RTP_DROP_RTCP_VERSION]++;
            return;
        }
        const uint32 dwPart = 4u * (Read16(pData + 2) + 1u);
        if (dwPart > dwLen)
        {
            stTotals.aDrops[RTP_DROP_RTCP_SHORT]++;
            return;
        }
        stTotals.aRtcpTypes[pData[1]]++;
        if (!ReadPart(pData, dwPart, vecEvents))
            stTotals.aDrops[RTP_DROP_RTCP_MALFORMED]++;
        pData += dwPart;
        dwLen -= dwPart;
    }
}

bool CRtcpReader::ReadPart(const uint8* pPart, uint32 dwLen, std::vector<tagRtpEvent>& vecEvents)
{
    const uint8 cType = pPart[1];
    const uint32 dwCount = pPart[0] & 0x1F;
    if ((pPart[0] & 0x20) != 0) // padding would be read as entries of a NACK
    {
        const uint32 dwPadding = pPart[dwLen - 1];
        if (dwPadding == 0 || dwPadding % 4 != 0 || dwPadding > dwLen - 4)
            return false;
        dwLen -= dwPadding;
    }
    const uint32 dwLeast = LeastLength(cType, dwCount);
    if (dwLeast == 0)
        return true;
    if (dwLen < dwLeast)
        return false;

    struct mbuf* pBuf = m_pBuffer->pBuf;
    if (pBuf == nullptr)
        return false;
    mbuf_rewind(pBuf);
    if (mbuf_write_mem(pBuf, pPart, dwLen) != 0)
        return false;
    const uint32 dwWords = dwLen / 4 - 1;
    pBuf->buf[0] = (uint8)(pBuf->buf[0] & ~0x20);
    pBuf->buf[2] = (uint8)(dwWords >> 8);
    pBuf->buf[3] = (uint8)dwWords;
    pBuf->pos = 0;

    struct rtcp_msg* pMsg = nullptr;
    if (rtcp_decode(&pMsg, pBuf) != 0 || pMsg == nullptr)
        return false;

    tagRtpEvent stEvent;
    switch (cType)
    {
    case RTCP_SR:
        stEvent.eType = RTP_EVENT_SR;
        stEvent.dwSenderSsrc = stEvent.dwMediaSsrc = pMsg->r.sr.ssrc;
        stEvent.ullNtp = (uint64)pMsg->r.sr.ntp_sec << 32 | pMsg->r.sr.ntp_frac;
        stEvent.dwRtpTs = pMsg->r.sr.rtp_ts;
        stEvent.dwPackets = pMsg->r.sr.psent;
        stEvent.dwOctets = pMsg->r.sr.osent;
        vecEvents.push_back(stEvent);
        AddReports(pMsg->r.sr.rrv, dwCount, pMsg->r.sr.ssrc, vecEvents);
        break;
    case RTCP_RR: AddReports(pMsg->r.rr.rrv, dwCount, pMsg->r.rr.ssrc, vecEvents); break;
    case RTCP_SDES:
        for (uint32 i = 0; i < pMsg->hdr.count; i++)
        {
            const auto& stChunk = pMsg->r.sdesv[i];
            for (uint32 k = 0; k < stChunk.n; k++)
            {
                // The parser stores whatever byte came, and reading an enum that holds none of its values is
                // not defined.
                int nType = 0;
                static_assert(sizeof(nType) == sizeof(stChunk.itemv[k].type));
                memcpy(&nType, &stChunk.itemv[k].type, sizeof(nType));
                if (nType != RTCP_SDES_CNAME || stChunk.itemv[k].length == 0)
                    continue;
                stEvent.eType = RTP_EVENT_CNAME;
                stEvent.dwSenderSsrc = stEvent.dwMediaSsrc = stChunk.src;
                stEvent.strCname.assign(stChunk.itemv[k].data, stChunk.itemv[k].length);
                vecEvents.push_back(stEvent);
            }
        }
        break;
    case RTCP_BYE:
        for (uint32 i = 0; i < dwCount; i++)
        {
            stEvent.eType = RTP_EVENT_BYE;
            stEvent.dwSenderSsrc = stEvent.dwMediaSsrc = pMsg->r.bye.srcv[i];
            vecEvents.push_back(stEvent);
        }
        break;
    case RTCP_RTPFB:
        stEvent.eType = RTP_EVENT_NACK;
        stEvent.dwSenderSsrc = pMsg->r.fb.ssrc_packet;
        stEvent.dwMediaSsrc = pMsg->r.fb.ssrc_media;
        for (uint32 i = 0; i < pMsg->r.fb.n; i++)
        {
            const uint16 wPid = pMsg->r.fb.fci.gnackv[i].pid;
            stEvent.vecRtpSeq.push_back(wPid);
            for (int nBit = 0; nBit < 16; nBit++)
            {
                if ((pMsg->r.fb.fci.gnackv[i].blp >> nBit & 1) != 0)
                    stEvent.vecRtpSeq.push_back((uint16)(wPid + nBit + 1));
            }
        }
        vecEvents.push_back(stEvent);
        break;
    case RTCP_PSFB:
        stEvent.eType = RTP_EVENT_PLI;
        stEvent.dwSenderSsrc = pMsg->r.fb.ssrc_packet;
        stEvent.dwMediaSsrc = pMsg->r.fb.ssrc_media;
        vecEvents.push_back(stEvent);
        break;
    default: break;
    }
    mem_deref(pMsg);
    return true;
}
