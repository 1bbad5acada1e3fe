// Receiver's RTCP by way of libre. In: records. Out: bytes. Parts are encoded one by one and then packed, so that a
// burst of losses becomes several datagrams rather than one that is too long for the path.
#include "RtpFeedback.h"

#include <algorithm>
#include <cmath>
#include <cstring>

#include <re.h>

namespace
{
const uint32 c_dwMaxBlocks = 31; // five bits of count
const size_t c_nMaxFci = 128;    // entries of one NACK
const uint32 c_dwMaxDropout = 3000;
const uint8 c_cXrReferenceTime = 4;
const uint8 c_cXrDlrr = 5;

typedef std::vector<uint8> CBytes;

// What an encoder callback of libre writes.
struct tagBlocks
{
    const tagRtpReportBlock* pBlocks;
    size_t nBlocks;
};

int WriteBlocks(struct mbuf* pBuf, void* pArg)
{
    const tagBlocks& st = *static_cast<const tagBlocks*>(pArg);
    int nError = 0;
    for (size_t i = 0; i < st.nBlocks; i++)
    {
        const tagRtpReportBlock& stBlock = st.pBlocks[i];
        const int32 nLost = std::clamp(stBlock.nLost, -0x800000, 0x7FFFFF);
        nError |= mbuf_write_u32(pBuf, htonl(stBlock.dwSsrc));
        nError |= mbuf_write_u32(pBuf, htonl((uint32)stBlock.cFraction << 24 | ((uint32)nLost & 0xFFFFFF)));
        nError |= mbuf_write_u32(pBuf, htonl(stBlock.dwHighSeq));
        nError |= mbuf_write_u32(pBuf, htonl(stBlock.dwJitter));
        nError |= mbuf_write_u32(pBuf, htonl(stBlock.dwLsr));
        nError |= mbuf_write_u32(pBuf, htonl(stBlock.dwDlsr));
    }
    return nError;
}

struct tagName
{
    uint32 dwSsrc;
    const std::string* pstrCname;
};

int WriteName(struct mbuf* pBuf, void* pArg)
{
    const tagName& st = *static_cast<const tagName*>(pArg);
    return rtcp_sdes_encode(pBuf, st.dwSsrc, 1, RTCP_SDES_CNAME, st.pstrCname->c_str());
}

struct tagFci
{
    const std::pair<uint16, uint16>* pEntries; // PID and the bits of those that follow it
    size_t nEntries;
};

int WriteFci(struct mbuf* pBuf, void* pArg)
{
    const tagFci& st = *static_cast<const tagFci*>(pArg);
    int nError = 0;
    for (size_t i = 0; i < st.nEntries; i++)
    {
        nError |= mbuf_write_u16(pBuf, htons(st.pEntries[i].first));
        nError |= mbuf_write_u16(pBuf, htons(st.pEntries[i].second));
    }
    return nError;
}

// One part of a compound, as the function writes it.
template <typename Fn>
CBytes Part(Fn fn)
{
    CBytes vecBytes;
    struct mbuf* pBuf = mbuf_alloc(512);
    if (pBuf != nullptr && fn(pBuf) == 0)
        vecBytes.assign(pBuf->buf, pBuf->buf + pBuf->end);
    mem_deref(pBuf);
    return vecBytes;
}

// Sequences as PIDs with bit masks. In order from the first of the largest hole, so that a list across the wrap of
// 16 bits is as short as any other.
std::vector<std::pair<uint16, uint16>> Fci(std::vector<uint16> vecSeqs)
{
    std::vector<std::pair<uint16, uint16>> vecFci;
    std::sort(vecSeqs.begin(), vecSeqs.end());
    vecSeqs.erase(std::unique(vecSeqs.begin(), vecSeqs.end()), vecSeqs.end());
    if (vecSeqs.empty())
        return vecFci;
    size_t nFirst = 0;
    uint16 wHole = (uint16)(vecSeqs.front() - vecSeqs.back());
    for (size_t i = 1; i < vecSeqs.size(); i++)
    {
        if ((uint16)(vecSeqs[i] - vecSeqs[i - 1]) > wHole)
        {
            wHole = (uint16)(vecSeqs[i] - vecSeqs[i - 1]);
            nFirst = i;
        }
    }
    std::rotate(vecSeqs.begin(), vecSeqs.begin() + (std::ptrdiff_t)nFirst, vecSeqs.end());
    for (const uint16 wSeq : vecSeqs)
    {
        const uint16 wBehind = vecFci.empty() ? 0 : (uint16)(wSeq - vecFci.back().first);
        if (wBehind >= 1 && wBehind <= 16)
            vecFci.back().second = (uint16)(vecFci.back().second | 1u << (wBehind - 1));
        else
            vecFci.push_back({wSeq, 0});
    }
    return vecFci;
}

CBytes ReportPart(uint32 dwSsrc, const tagRtpReportBlock* pBlocks, size_t nBlocks)
{
    tagBlocks stBlocks{pBlocks, nBlocks};
    return Part([&](struct mbuf* pBuf)
                { return rtcp_encode(pBuf, RTCP_RR, (uint32)nBlocks, dwSsrc, WriteBlocks, &stBlocks); });
}

// libre does not write extended reports.
CBytes ReferenceTimePart(uint32 dwSsrc, uint64 ullNtp)
{
    CBytes vec = {0x80, RTCP_XR, 0, 4};
    const auto put = [&vec](uint32 dw)
    {
        for (int nShift = 24; nShift >= 0; nShift -= 8)
            vec.push_back((uint8)(dw >> nShift));
    };
    put(dwSsrc);
    put((uint32)c_cXrReferenceTime << 24 | 2);
    put((uint32)(ullNtp >> 32));
    put((uint32)ullNtp);
    return vec;
}

uint32 Read32(const uint8* p) { return (uint32)p[0] << 24 | (uint32)p[1] << 16 | (uint32)p[2] << 8 | p[3]; }
} // namespace

// ---- Report blocks ----

void CRtpReportSource::OnPacket(uint16 wSeq, uint32 dwTs, uint64 ullArrivalUs, uint32 dwClock)
{
    if (!m_bStarted)
    {
        m_bStarted = true;
        m_dwBaseSeq = m_dwMaxSeq = wSeq;
    }
    else
    {
        const uint16 wAhead = (uint16)(wSeq - (uint16)m_dwMaxSeq);
        if (wAhead < c_dwMaxDropout)
            m_dwMaxSeq += wAhead;
        else if (wAhead < 0x8000) // the sender began anew
        {
            m_dwMaxSeq += wAhead;
            m_dwBaseSeq = m_dwMaxSeq;
            m_ullReceived = m_ullReceivedPrior = m_ullExpectedPrior = 0;
            m_bTransit = false;
        }
    }
    m_ullReceived++;
    if (dwClock == 0)
        return;
    // Packets of one frame leave together and are stamped alike: only differences count, as the RFC has it.
    const int64_t llArrival = (int64_t)((double)ullArrivalUs * dwClock / 1e6);
    const int64_t llTransit = llArrival - (int64_t)dwTs;
    if (m_bTransit)
    {
        // Modulo 2^32, as the timestamp wraps.
        const int32 nDiff = (int32)(uint32)((uint64)llTransit - (uint64)m_llTransit);
        m_dJitter += (std::fabs((double)nDiff) - m_dJitter) / 16;
    }
    m_bTransit = true;
    m_llTransit = llTransit;
}

void CRtpReportSource::OnSenderReport(uint64 ullNtp, uint64 ullArrivalUs)
{
    m_dwLsr = NtpMiddle(ullNtp);
    m_ullSrUs = ullArrivalUs;
}

tagRtpReportBlock CRtpReportSource::Report(uint32 dwSsrc, uint64 ullNowUs)
{
    tagRtpReportBlock st;
    st.dwSsrc = dwSsrc;
    const uint64 ullExpected = m_bStarted ? (uint64)(m_dwMaxSeq - m_dwBaseSeq) + 1 : 0;
    const int64_t llLost = (int64_t)ullExpected - (int64_t)m_ullReceived;
    const int64_t llExpectedNow = (int64_t)(ullExpected - m_ullExpectedPrior);
    const int64_t llLostNow = llExpectedNow - (int64_t)(m_ullReceived - m_ullReceivedPrior);
    if (llExpectedNow > 0 && llLostNow > 0)
        st.cFraction = (uint8)std::min<int64_t>(llLostNow * 256 / llExpectedNow, 255);
    st.nLost = (int32)std::clamp<int64_t>(llLost, -0x800000, 0x7FFFFF);
    st.dwHighSeq = m_dwMaxSeq;
    st.dwJitter = (uint32)m_dJitter;
    st.dwLsr = m_dwLsr;
    if (m_dwLsr != 0)
        st.dwDlsr = (uint32)((ullNowUs - m_ullSrUs) * 65536 / 1000000);
    m_ullExpectedPrior = ullExpected;
    m_ullReceivedPrior = m_ullReceived;
    return st;
}

// ---- Building ----

std::vector<CBytes> BuildRtcp(const tagRtcpFeedback& stFeedback, size_t nMost)
{
    // What each datagram begins with. The first one has the first blocks.
    const std::string strCname = stFeedback.strCname.substr(0, 255);
    tagName stName{stFeedback.dwSsrc, &strCname};
    const CBytes vecName =
        Part([&](struct mbuf* pBuf) { return rtcp_encode(pBuf, RTCP_SDES, 1, WriteName, &stName); });
    const bool bBare = stFeedback.bReducedSize && stFeedback.vecBlocks.empty() && !stFeedback.bBye &&
                       !stFeedback.bReferenceTime &&
                       !(stFeedback.vecNacks.empty() && stFeedback.vecPlis.empty());

    std::vector<CBytes> vecParts;
    if (stFeedback.bReferenceTime)
        vecParts.push_back(ReferenceTimePart(stFeedback.dwSsrc, stFeedback.ullNtp));
    for (const auto& stNack : stFeedback.vecNacks)
    {
        const std::vector<std::pair<uint16, uint16>> vecFci = Fci(stNack.second);
        for (size_t i = 0; i < vecFci.size(); i += c_nMaxFci)
        {
            tagFci stFci{vecFci.data() + i, std::min(c_nMaxFci, vecFci.size() - i)};
            vecParts.push_back(Part(
                [&](struct mbuf* pBuf)
                {
                    return rtcp_encode(pBuf, RTCP_RTPFB, RTCP_RTPFB_GNACK, stFeedback.dwSsrc, stNack.first,
                                       WriteFci, &stFci);
                }));
        }
    }
    for (const uint32 dwSsrc : stFeedback.vecPlis)
        vecParts.push_back(Part(
            [&](struct mbuf* pBuf) {
                return rtcp_encode(pBuf, RTCP_PSFB, RTCP_PSFB_PLI, stFeedback.dwSsrc, dwSsrc, nullptr,
                                   nullptr);
            }));
    if (stFeedback.bBye)
    {
        uint32 dwSsrc = stFeedback.dwSsrc;
        vecParts.push_back(
            Part([&](struct mbuf* pBuf) { return rtcp_encode(pBuf, RTCP_BYE, 1, &dwSsrc, nullptr); }));
    }

    std::vector<CBytes> vecDatagrams;
    size_t nBlock = 0;
    const auto begin = [&]()
    {
        vecDatagrams.emplace_back();
        if (bBare)
            return;
        const size_t nBlocks = std::min<size_t>(c_dwMaxBlocks, stFeedback.vecBlocks.size() - nBlock);
        CBytes& vec = vecDatagrams.back();
        vec = ReportPart(stFeedback.dwSsrc, stFeedback.vecBlocks.data() + nBlock, nBlocks);
        nBlock += nBlocks;
        vec.insert(vec.end(), vecName.begin(), vecName.end());
    };
    begin();
    for (const CBytes& vecPart : vecParts)
    {
        if (!vecDatagrams.back().empty() && vecDatagrams.back().size() + vecPart.size() > nMost)
            begin();
        vecDatagrams.back().insert(vecDatagrams.back().end(), vecPart.begin(), vecPart.end());
    }
    while (nBlock < stFeedback.vecBlocks.size())
        begin();
    return vecDatagrams;
}

// ---- The round trip ----

bool RtcpSender(const uint8* pData, uint32 dwLen, uint32& dwSsrc)
{
    if (dwLen < 8)
        return false;
    dwSsrc = Read32(pData + 4);
    return true;
}

bool FindDlrr(const uint8* pData, uint32 dwLen, uint32 dwSsrc, uint32& dwLrr, uint32& dwDlrr)
{
    while (dwLen >= 4 && pData[0] >> 6 == RTCP_VERSION)
    {
        const uint32 dwPart = 4u * ((uint32)(pData[2] << 8 | pData[3]) + 1u);
        if (dwPart > dwLen)
            return false;
        if (pData[1] == RTCP_XR && dwPart >= 8)
        {
            const uint8* p = pData + 8;
            const uint8* pEnd = pData + dwPart;
            while (pEnd - p >= 4)
            {
                const uint32 dwBlock = 4u * ((uint32)(p[2] << 8 | p[3]) + 1u);
                if ((uint32)(pEnd - p) < dwBlock)
                    break;
                for (uint32 dwAt = 4; p[0] == c_cXrDlrr && dwAt + 12 <= dwBlock; dwAt += 12)
                {
                    if (Read32(p + dwAt) != dwSsrc || Read32(p + dwAt + 4) == 0)
                        continue;
                    dwLrr = Read32(p + dwAt + 4);
                    dwDlrr = Read32(p + dwAt + 8);
                    return true;
                }
                p += dwBlock;
            }
        }
        pData += dwPart;
        dwLen -= dwPart;
    }
    return false;
}

uint64 UnixUsToNtp(uint64 ullUs)
{
    const uint64 ullSeconds = ullUs / 1000000 + 2208988800ull;
    const uint64 ullFraction = ((ullUs % 1000000) << 32) / 1000000;
    return ullSeconds << 32 | ullFraction;
}
