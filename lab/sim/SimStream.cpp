// In: what happens to a stream's packets. Out: counts. A packet is counted when its record makes place for a newer
// one, tens of seconds after it was sent, or at the end.

#include "SimStream.h"

#include <algorithm>

namespace lab
{

namespace
{

constexpr uint32 c_dwStallMs = 200;
constexpr int64 c_llStartUs = 5000000; // the receiver's buffer fills, losses can be beyond repair

} // namespace

void tagSimStreamCounts::Add(const tagSimStreamCounts& st)
{
    ullSent += st.ullSent;
    ullBytes += st.ullBytes;
    ullReceived += st.ullReceived;
    ullLost += st.ullLost;
    ullLostUp += st.ullLostUp;
    ullLostDown += st.ullLostDown;
    ullLostQueue += st.ullLostQueue;
    ullLostOutage += st.ullLostOutage;
    ullAsked += st.ullAsked;
    ullAskedSeqs += st.ullAskedSeqs;
    ullAskedLostSeqs += st.ullAskedLostSeqs;
    ullWastedSeqs += st.ullWastedSeqs;
    ullWasted += st.ullWasted;
    ullUnknownSeqs += st.ullUnknownSeqs;
    ullAnswers += st.ullAnswers;
    ullAnswered += st.ullAnswered;
    ullNeedlessAnswers += st.ullNeedlessAnswers;
    ullCopies += st.ullCopies;
    ullInTime += st.ullInTime;
    ullRecoveredLate += st.ullRecoveredLate;
    ullUnrecovered += st.ullUnrecovered;
    ullNeverAsked += st.ullNeverAsked;
    ullNeverAtStart += st.ullNeverAtStart;
    ullReleased += st.ullReleased;
    ullOutOfOrder += st.ullOutOfOrder;
    ullGaps += st.ullGaps;
    ullGapPackets += st.ullGapPackets;
    ullLongestGap = std::max(ullLongestGap, st.ullLongestGap);
    ullStalls += st.ullStalls;
    if (st.dwLongestStallMs > dwLongestStallMs)
    {
        dwLongestStallMs = st.dwLongestStallMs;
        dwLongestStallAtMs = st.dwLongestStallAtMs;
    }
}

CSimStream::CSimStream(uint32 uNumber, uint32 uUser, int nKind, uint32 uEpoch, const tagSimFirst& stFirst,
                       size_t nCapacity, int64 llCountFromUs)
    : m_uNumber(uNumber), m_uUser(uUser), m_nKind(nKind), m_uEpoch(uEpoch), m_stFirst(stFirst),
      m_llCountFromUs(llCountFromUs)
{
    size_t nPower = 1024;
    while (nPower < nCapacity)
        nPower *= 2;
    m_vecRing.resize(nPower);
}

tagSimRecord& CSimStream::Append()
{
    tagSimRecord& st = m_vecRing[m_uNext & (m_vecRing.size() - 1)];
    Close(st);
    st = tagSimRecord();
    st.uIndex = m_uNext++;
    st.wMarks = SIM_MARK_SENT;
    return st;
}

tagSimRecord* CSimStream::Find(uint32 uIndex)
{
    tagSimRecord& st = m_vecRing[uIndex & (m_vecRing.size() - 1)];
    return (st.wMarks & SIM_MARK_SENT) != 0 && st.uIndex == uIndex ? &st : nullptr;
}

void CSimStream::Close(tagSimRecord& st)
{
    const uint16 w = st.wMarks;
    st.wMarks = 0;
    if ((w & SIM_MARK_SENT) == 0 || !m_bBegun || st.uIndex < m_uBegin)
        return;
    if (m_llBeginUs < 0)
        m_llBeginUs = st.llSentUs;
    if (st.llSentUs < m_llCountFromUs)
        return;
    m_st.ullSent++;
    m_st.ullBytes += st.wBytes;
    m_st.ullAskedSeqs += st.wAsks;
    if ((w & SIM_MARK_CAME) != 0)
    {
        m_st.ullReceived++;
        m_st.ullWastedSeqs += st.wAsks;
        m_st.ullWasted += st.wAsks != 0;
        return;
    }
    m_st.ullLost++;
    m_st.ullLostUp += (w & SIM_MARK_LOST_UP) != 0;
    m_st.ullLostDown += (w & SIM_MARK_LOST_DOWN) != 0;
    m_st.ullLostQueue += (w & SIM_MARK_QUEUE) != 0;
    m_st.ullLostOutage += (w & SIM_MARK_OUTAGE) != 0;
    m_st.ullAsked += st.wAsks != 0;
    m_st.ullAskedLostSeqs += st.wAsks;
    m_st.ullAnswered += (w & SIM_MARK_ANSWER_CAME) != 0;
    if ((w & SIM_MARK_RELEASED) == 0)
    {
        m_st.ullUnrecovered++;
        m_st.ullNeverAsked += st.wAsks == 0;
        m_st.ullNeverAtStart += st.wAsks == 0 && st.llSentUs - m_llBeginUs < c_llStartUs;
    }
    else if ((w & SIM_MARK_IN_TIME) != 0)
        m_st.ullInTime++;
    else
        m_st.ullRecoveredLate++;
}

void CSimStream::CloseAll()
{
    for (size_t i = 0; i < m_vecRing.size(); i++) // the oldest first
        Close(m_vecRing[(m_uNext + i) & (m_vecRing.size() - 1)]);
}

void CSimStream::Released(const tagSimRecord* pRecord, uint32 uIndex, uint32 dwMediaMs, uint32 dwNowMs,
                          uint32 dwDelayMs)
{
    if (pRecord && pRecord->llSentUs < m_llCountFromUs)
    {
        // Not counted, but what follows is measured from here.
        m_bOut = true;
        m_uLastOut = uIndex;
        m_dwLastMediaMs = dwMediaMs;
        m_dwLastOutMs = dwNowMs;
        return;
    }
    m_st.dwFirstOutMs = m_st.ullReleased == 0 ? dwNowMs : m_st.dwFirstOutMs;
    m_st.ullReleased++;
    m_st.dwLastOutMs = dwNowMs;
    m_st.delay.Add(dwDelayMs);
    if (pRecord)
        m_st.latency.Add(dwNowMs - (uint32)(pRecord->llSentUs / 1000));
    const int32 nAhead = (int32)(uIndex - m_uLastOut);
    if (m_bOut && nAhead <= 0)
    {
        m_st.ullOutOfOrder++;
        return;
    }
    if (m_bOut)
    {
        if (nAhead > 1)
        {
            m_st.ullGaps++;
            m_st.ullGapPackets += (uint64)(nAhead - 1);
            m_st.ullLongestGap = std::max<uint64>(m_st.ullLongestGap, (uint64)(nAhead - 1));
        }
        // Longer than the media between the two: the sound was silent or the picture stood still for the rest.
        const int64 llMedia = std::max<int64>(0, (int32)(dwMediaMs - m_dwLastMediaMs));
        const int64 llStall = (int64)(dwNowMs - m_dwLastOutMs) - llMedia;
        if (llStall > (int64)c_dwStallMs)
            m_st.ullStalls++;
        if (llStall > (int64)m_st.dwLongestStallMs)
        {
            m_st.dwLongestStallMs = (uint32)llStall;
            m_st.dwLongestStallAtMs = dwNowMs;
        }
    }
    m_bOut = true;
    m_uLastOut = uIndex;
    m_dwLastMediaMs = dwMediaMs;
    m_dwLastOutMs = dwNowMs;
}

} // namespace lab
