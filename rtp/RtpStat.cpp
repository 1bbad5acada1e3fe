// Figures of one SSRC, packet by packet in arrival order. Nothing here knows a codec or another stream.
#include "RtpStat.h"

#include <algorithm>
#include <cmath>

namespace
{
// Delays are kept from a minute before to a minute after the first packet's, in quarters of a millisecond.
const int64_t c_llBinUs = 250;
const int64_t c_llDelayReach = 60000000 / c_llBinUs;
} // namespace

void CRtpSeqWindow::Run(bool bHere, uint64& ullOpen, uint64& ullRuns, uint64& ullLongest)
{
    if (bHere)
    {
        ullOpen = 0;
        return;
    }
    if (++ullOpen == 1)
        ullRuns++;
    ullLongest = std::max(ullLongest, ullOpen);
}

bool CRtpSeqWindow::Mark(int64_t llSeq)
{
    if (!m_bStarted)
    {
        m_bStarted = true;
        m_llLowest = m_llHighest = m_llFinal = llSeq;
        m_aBits[Word(llSeq)] |= (uint64_t)1 << (llSeq & 63);
        return true;
    }
    while (m_llHighest < llSeq)
    {
        m_llHighest++;
        // The place in the ring belongs to a sequence one span back: judge that one before it is reused.
        const int64_t llOut = m_llHighest - c_llSpan;
        if (llOut >= m_llFinal)
        {
            Run(Test(llOut), m_ullOpenRun, m_ullRuns, m_ullLongest);
            m_llFinal = llOut + 1;
        }
        m_aBits[Word(m_llHighest)] &= ~((uint64_t)1 << (m_llHighest & 63));
    }
    if (llSeq <= m_llHighest - c_llSpan)
        return false;
    if (llSeq < m_llLowest)
    {
        m_llLowest = llSeq;
        m_llFinal = std::min(m_llFinal, llSeq);
    }
    const uint64_t ullBit = (uint64_t)1 << (llSeq & 63);
    const bool bNew = (m_aBits[Word(llSeq)] & ullBit) == 0;
    m_aBits[Word(llSeq)] |= ullBit;
    return bNew;
}

void CRtpSeqWindow::LossRuns(uint64& ullRuns, uint64& ullLongest) const
{
    ullRuns = m_ullRuns;
    ullLongest = m_ullLongest;
    uint64 ullOpen = m_ullOpenRun;
    for (int64_t llSeq = m_llFinal; m_bStarted && llSeq <= m_llHighest; llSeq++)
        Run(Test(llSeq), ullOpen, ullRuns, ullLongest);
}

void CRtpStat::OnPacket(uint64 ullArrivalUs, uint16 wSeq, uint32 dwTs, uint32 dwBytes, uint32 dwClock)
{
    if (m_st.ullPackets == 0)
    {
        m_st.ullFirstUs = ullArrivalUs;
        m_ullFirstArrivalUs = ullArrivalUs;
    }
    else if (ullArrivalUs > m_st.ullLastUs)
        m_st.ullLongestGapUs = std::max(m_st.ullLongestGapUs, ullArrivalUs - m_st.ullLastUs);
    m_st.ullLastUs = m_st.ullPackets == 0 ? ullArrivalUs : std::max(m_st.ullLastUs, ullArrivalUs);
    m_st.ullPackets++;
    m_st.ullBytes += dwBytes;

    const bool bFirst = !m_seq.Started();
    const int64_t llHighest = m_seq.Highest();
    const int64_t llSeq = m_seq.Take(wSeq);
    if (m_window.Mark(llSeq))
    {
        m_st.ullUnique++;
        if (!bFirst && llSeq < llHighest)
        {
            m_st.ullReordered++;
            m_st.dwReorderDepth = std::max(m_st.dwReorderDepth, (uint32)(llHighest - llSeq));
        }
    }
    else
        m_st.ullDuplicates++;

    CountFrame(dwTs);
    if (dwClock != 0)
        Delay(ullArrivalUs, dwTs, dwClock);
}

void CRtpStat::CountFrame(uint32 dwTs)
{
    const uint32 dwKnown = std::min<uint32>(m_dwRecentTs, (uint32)m_aRecentTs.size());
    for (uint32 i = 0; i < dwKnown; i++)
    {
        if (m_aRecentTs[(m_dwRecentTs - 1 - i) % m_aRecentTs.size()] == dwTs)
            return;
    }
    m_aRecentTs[m_dwRecentTs % m_aRecentTs.size()] = dwTs;
    m_dwRecentTs++;
    m_st.ullFrames++;
}

void CRtpStat::Delay(uint64 ullArrivalUs, uint32 dwTs, uint32 dwClock)
{
    const bool bFirst = !m_ts.Started();
    const int64_t llTransitUs =
        (int64_t)ullArrivalUs - (int64_t)m_ullFirstArrivalUs - TicksToUs(m_ts.Take(dwTs), dwClock);

    if (!bFirst)
    {
        // RFC 3550 6.4.1
        const double dDiff = std::fabs((double)(llTransitUs - m_llLastTransitUs));
        m_dJitterUs += (dDiff - m_dJitterUs) / 16;
        m_dJitterMaxUs = std::max(m_dJitterMaxUs, m_dJitterUs);
    }
    m_llLastTransitUs = llTransitUs;

    const int64_t llBin =
        std::min(std::max(FloorDiv(llTransitUs, c_llBinUs), -c_llDelayReach), c_llDelayReach);
    if (m_vecBins.empty())
        m_llFirstBin = llBin;
    if (llBin < m_llFirstBin)
    {
        m_vecBins.insert(m_vecBins.begin(), (size_t)(m_llFirstBin - llBin), 0);
        m_llFirstBin = llBin;
    }
    if ((size_t)(llBin - m_llFirstBin) >= m_vecBins.size())
        m_vecBins.resize((size_t)(llBin - m_llFirstBin) + 1, 0);
    m_vecBins[(size_t)(llBin - m_llFirstBin)]++;
    m_ullDelays++;
}

uint32 CRtpStat::Quantile(uint64 ullPermille) const
{
    // The bins begin at the smallest delay, so a bin's place is the delay relative to it, rounded to ms.
    const uint64 ullRank = m_ullDelays == 0 ? 0 : std::min(m_ullDelays - 1, m_ullDelays * ullPermille / 1000);
    uint64 ullSeen = 0;
    for (size_t i = 0; i < m_vecBins.size(); i++)
    {
        ullSeen += m_vecBins[i];
        if (ullSeen > ullRank)
            return (uint32)((i * c_llBinUs + 500) / 1000);
    }
    return 0;
}

tagRtpStat CRtpStat::Get() const
{
    tagRtpStat st = m_st;
    st.ullExpected = m_window.Expected();
    st.ullLost = st.ullExpected - st.ullUnique;
    m_window.LossRuns(st.ullLossBursts, st.ullLongestBurst);
    st.dJitterMs = m_dJitterUs / 1000;
    st.dJitterMaxMs = m_dJitterMaxUs / 1000;
    st.bDelays = m_ullDelays > 0;
    if (st.bDelays)
    {
        st.dwDelayP50Ms = Quantile(500);
        st.dwDelayP95Ms = Quantile(950);
        st.dwDelayP99Ms = Quantile(990);
        st.dwDelayMaxMs = Quantile(1000);
    }
    return st;
}
