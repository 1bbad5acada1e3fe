// Guesses about one SSRC. Counts only; the decision is taken when somebody asks.
#include "RtpLearn.h"

#include <cmath>
#include <cstdio>
#include <cstdlib>

namespace
{
// Clocks a guess may give, video last.
const uint32 c_aClocks[] = {8000, 16000, 24000, 32000, 44100, 48000, 90000};
const size_t c_nClocks = sizeof(c_aClocks) / sizeof(c_aClocks[0]);
const size_t c_nVideoClock = c_nClocks - 1;

const uint64 c_ullSlopeSpanUs = 4000000;
const uint64 c_ullSlopeLeastUs = 500000;

// The clock whose ratio to the slope is nearest to 1.
size_t NearestClock(double dHz, size_t nClocks)
{
    size_t nBest = 0;
    for (size_t i = 1; i < nClocks; i++)
    {
        if (std::fabs(std::log(dHz / c_aClocks[i])) < std::fabs(std::log(dHz / c_aClocks[nBest])))
            nBest = i;
    }
    return nBest;
}

// Of the clocks in which a timestamp step is a usual length of audio frame: the one nearest to the slope, or without
// one that in which the step is nearest to 20 ms.
size_t ClockOfStep(int64_t llTicks, double dHz)
{
    static const int64_t c_aUsual100Us[] = {25, 50, 100, 200, 300, 400, 600, 800, 1000, 1200};
    size_t nBest = c_nVideoClock;
    double dBest = 0;
    for (size_t i = 0; i < c_nVideoClock; i++)
    {
        for (int64_t llUsual : c_aUsual100Us)
        {
            if (llTicks * 10000 != llUsual * (int64_t)c_aClocks[i])
                continue;
            const double dOff =
                std::fabs(dHz > 0 ? std::log(dHz / c_aClocks[i]) : std::log((double)llUsual / 200));
            if (nBest == c_nVideoClock || dOff < dBest)
            {
                nBest = i;
                dBest = dOff;
            }
        }
    }
    return nBest == c_nVideoClock ? 0 : nBest;
}

bool IsNear(double dHz, uint32 dwClock, double dPart) { return std::fabs(dHz / dwClock - 1) <= dPart; }
} // namespace

void CRtpLearn::OnPacket(const tagRtpHeader& stHeader, const uint8* pPayload, uint64 ullArrivalUs)
{
    m_ullPackets++;
    const int16_t nStep = (int16_t)(uint16)(stHeader.wSeq - m_wLastSeq);
    const bool bFirst = m_ullPackets == 1;
    const bool bSamePt = !bFirst && stHeader.cPt == m_cLastPt;
    // RFC 3550 A.1: forward by less than MAX_DROPOUT or back by less than MAX_MISORDER.
    if (bSamePt && nStep != 0 && nStep < 3000 && nStep > -100)
        m_bAlive = true;

    m_seq.Take(stHeader.wSeq);
    const int64_t llTs = m_ts.Take(stHeader.dwTs);
    if (bSamePt && nStep == 1)
    {
        m_dwPairs++;
        const int64_t llTicks = Step32(m_dwLastTs, stHeader.dwTs);
        if (llTicks == 0)
            m_dwSameTs++;
        else if (m_dwStepWeight == 0 || llTicks == m_llStepTicks)
        {
            m_llStepTicks = llTicks;
            m_dwStepWeight++;
        }
        else
            m_dwStepWeight--;
    }
    m_dwMarkers += stHeader.bMarker ? 1 : 0;
    m_cLastPt = stHeader.cPt;
    m_wLastSeq = stHeader.wSeq;
    m_dwLastTs = stHeader.dwTs;
    LearnSlope(ullArrivalUs, llTs);

    for (tagPtCount& st : m_aPt)
    {
        if (st.dwCount == 0)
            st.cPt = stHeader.cPt;
        if (st.cPt == stHeader.cPt)
        {
            st.dwCount++;
            break;
        }
    }
    // A cut payload cannot be judged: its length fields do not add up.
    if (stHeader.dwCaptured > 0 && stHeader.dwCaptured == stHeader.dwPayload)
    {
        bool bStrong = false;
        m_dwPayloads++;
        m_dwH264 += LooksLikeH264(pPayload, stHeader.dwCaptured, bStrong) ? 1 : 0;
        m_dwH264Strong += bStrong ? 1 : 0;
        m_dwVp8 += LooksLikeVp8(pPayload, stHeader.dwCaptured, bStrong) ? 1 : 0;
        m_dwVp8Strong += bStrong ? 1 : 0;
    }
}

void CRtpLearn::LearnSlope(uint64 ullArrivalUs, int64_t llTs)
{
    if (m_ullPackets == 1)
    {
        m_ullFirstUs = m_ullSpanUs = ullArrivalUs;
        m_llSpanTs = llTs;
    }
    m_ullLastUs = ullArrivalUs;
    m_llLastTs = llTs;
    if (ullArrivalUs < m_ullSpanUs + c_ullSlopeSpanUs)
        return;
    const double dHz = (double)(llTs - m_llSpanTs) * 1e6 / (double)(ullArrivalUs - m_ullSpanUs);
    if (dHz > 0)
    {
        const size_t nClock = NearestClock(dHz, c_nClocks);
        if (IsNear(dHz, c_aClocks[nClock], 0.25))
            m_aVotes[nClock]++;
    }
    m_ullSpanUs = ullArrivalUs;
    m_llSpanTs = llTs;
}

uint8 CRtpLearn::MainPt() const
{
    const tagPtCount* pBest = &m_aPt[0];
    for (const tagPtCount& st : m_aPt)
    {
        if (st.dwCount > pBest->dwCount)
            pBest = &st;
    }
    return pBest->cPt;
}

tagRtpFormat CRtpLearn::Guess(std::string& strWhy) const
{
    char szText[160];
    tagRtpFormat stFormat;

    // Payload first: it depends on no clock and no network.
    const bool bH264 = LooksH264();
    if (bH264 || LooksVp8())
    {
        stFormat.eKind = RTP_KIND_VIDEO;
        stFormat.strCodec = bH264 ? "H264" : "VP8";
        stFormat.dwClock = c_aClocks[c_nVideoClock];
        std::snprintf(szText, sizeof(szText), "%s payload in %u of %u packets", bH264 ? "H.264" : "VP8",
                      bH264 ? m_dwH264 : m_dwVp8, m_dwPayloads);
        strWhy = szText;
        return stFormat;
    }

    const uint64 ullSpan = m_ullLastUs > m_ullFirstUs ? m_ullLastUs - m_ullFirstUs : 0;
    const bool bSlope = ullSpan >= c_ullSlopeLeastUs && m_llLastTs > 0;
    const double dHz = bSlope ? (double)m_llLastTs * 1e6 / (double)ullSpan : 0;
    size_t nVoted = 0;
    for (size_t i = 1; i < c_nClocks; i++)
    {
        if (m_aVotes[i] > m_aVotes[nVoted])
            nVoted = i;
    }
    const bool bVotes = m_aVotes[nVoted] > 0;

    // Several packets with one timestamp are a picture in pieces, and a 90 kHz slope is video. In too short a stream
    // for a slope, markers tell: they end every picture, but only begin a talkspurt.
    const bool bPieces = m_dwSameTs > 0 && m_dwSameTs * 20 >= m_dwPairs;
    const bool bVideoSlope =
        bVotes ? nVoted == c_nVideoClock : bSlope && IsNear(dHz, c_aClocks[c_nVideoClock], 0.15);
    const bool bMarked = !bSlope && m_ullPackets >= 2 && m_dwMarkers * 4ull >= m_ullPackets * 3;
    if (bPieces || bVideoSlope || bMarked)
    {
        stFormat.eKind = RTP_KIND_VIDEO;
        stFormat.strCodec = "video";
        stFormat.dwClock = c_aClocks[c_nVideoClock];
        if (bPieces)
            std::snprintf(szText, sizeof(szText), "%u of %u packets share a timestamp", m_dwSameTs,
                          m_dwPairs);
        else if (bVideoSlope)
            std::snprintf(szText, sizeof(szText), "timestamp slope %.1f kHz", dHz / 1000);
        else
            std::snprintf(szText, sizeof(szText), "%u of %llu packets have the marker", m_dwMarkers,
                          (unsigned long long)m_ullPackets);
        strWhy = szText;
        return stFormat;
    }

    stFormat.eKind = RTP_KIND_AUDIO;
    size_t nClock = 0;
    // Twice the same in the chain below: a near slope goes before votes, a far one behind them.
    if (bSlope && IsNear(dHz, c_aClocks[NearestClock(dHz, c_nVideoClock)], 0.03))
        // NOLINTNEXTLINE(bugprone-branch-clone)
        nClock = NearestClock(dHz, c_nVideoClock);
    else if (bVotes)
        nClock = nVoted;
    else if (bSlope)
        nClock = NearestClock(dHz, c_nVideoClock);
    else
        nClock = ClockOfStep(m_llStepTicks,
                             ullSpan > 0 && m_llLastTs > 0 ? (double)m_llLastTs * 1e6 / (double)ullSpan : 0);
    // 44100 and 48000 are 9 % apart, which a jittery slope does not tell; whole milliseconds of 48000 do.
    if (c_aClocks[nClock] == 44100 && m_dwStepWeight > 0 && m_llStepTicks % 120 == 0)
        nClock = 5;
    stFormat.dwClock = c_aClocks[nClock];
    stFormat.strCodec = stFormat.dwClock == 48000 ? "opus" : "audio";
    if (bSlope)
        std::snprintf(szText, sizeof(szText), "timestamp slope %.1f kHz", dHz / 1000);
    else
        std::snprintf(szText, sizeof(szText), "timestamp step %lld, too short for a slope",
                      (long long)m_llStepTicks);
    strWhy = szText;
    return stFormat;
}

void CRtpLearn::TestRtx(const tagRtpHeader& stHeader, const uint8* pPayload, uint32 dwOriginalSsrc,
                        const CRtpLearn& original)
{
    // A repeated packet lies a little behind its stream's newest, and carries its original timestamp.
    const uint16 wOriginal = (uint16)(pPayload[0] << 8 | pPayload[1]);
    const uint16 wBehind = (uint16)(original.HighestSeq() - wOriginal);
    const int64_t llTicks = Step32(original.LastTs(), stHeader.dwTs);
    if (wBehind >= 3000 || std::llabs(llTicks) > 3000000)
        return;
    for (tagRtxMatch& st : m_aRtx)
    {
        if (st.dwCount == 0)
            st.dwSsrc = dwOriginalSsrc;
        if (st.dwSsrc == dwOriginalSsrc)
        {
            st.dwCount++;
            return;
        }
    }
}

bool CRtpLearn::RtxOriginal(uint32& dwSsrc, std::string& strWhy) const
{
    const tagRtxMatch* pBest = &m_aRtx[0];
    for (const tagRtxMatch& st : m_aRtx)
    {
        if (st.dwCount > pBest->dwCount)
            pBest = &st;
    }
    if (pBest->dwCount < 2 || pBest->dwCount * 10 < m_dwRtxTests * 9)
        return false;
    dwSsrc = pBest->dwSsrc;
    char szText[96];
    std::snprintf(szText, sizeof(szText), "%u of %u packets repeat sequences of SSRC %08x", pBest->dwCount,
                  m_dwRtxTests, dwSsrc);
    strWhy = szText;
    return true;
}
