// Follows one stream's sequences. In-order packets are counted in the header; here are the first one, leaps, late
// and repeated ones. Nothing here sees a clock.
//
// Invariants between calls: the open interval is (m_uBase, m_uLast], modulo 2^32; the runs of m_mapLoss lie inside of
// it and do not touch one another; at most c_uMaxRuns of them.
#include "PlainPktFlowStatic.h"

#include <cstddef>
#include <iterator>

namespace plain
{

namespace
{
const size_t c_uMaxRuns =
    16384; // missing runs kept apart: all that can lie within 0x7FFF numbers of the newest
const uint16 c_wMaxFixed = 0xFFFF; // where their count stops
const uint32 c_uMaxSpan = 0xFFFFFFFF;
} // namespace

static_assert(offsetof(tagPktStat, uLossTimes) == 0 && offsetof(tagPktStat, uTotalPkt) == 4 &&
                  offsetof(tagPktStat, uRecvPkt) == 8 && sizeof(tagPktStat) == 12,
              "three words");

tagCPktFlowStat::tagCPktFlowStat() : m_bInit(FALSE), m_wRunsFixed(0), m_uBase(0), m_uLast(0), m_uPktRecv(0) {}

void tagCPktFlowStat::Reset() { *this = tagCPktFlowStat(); }

void tagCPktFlowStat::UpdateStat()
{
    m_stat.uLossTimes = (uint32)m_mapLoss.size() + m_wRunsFixed;
    m_stat.uTotalPkt = m_uLast - m_uBase;
    m_stat.uRecvPkt = m_uPktRecv;

    m_uBase = m_uLast;
    m_uPktRecv = 0;
    m_mapLoss.clear();
    m_wRunsFixed = 0;
}

void tagCPktFlowStat::RecvOutOfOrder(uint32 seq)
{
    if (!m_bInit)
    {
        m_bInit = TRUE;
        m_uBase = seq - 1;
        m_uLast = seq;
        m_uPktRecv = 1;
    }
    else if (IsNewSeqNum(seq, m_uLast))
        LeapTo(seq);
    else if (seq - m_uBase - 1 < m_uLast - m_uBase)
        FillLate(seq);
    // else: from before the interval, counted there or never
}

// A newer sequence: all between it and the newest so far is missing, for now.
void tagCPktFlowStat::LeapTo(uint32 seq)
{
    const uint32 uFirst = m_uLast + 1;
    ExtendSpan(seq - m_uLast);
    if (seq != uFirst)
    {
        if (m_mapLoss.size() == c_uMaxRuns)
            FixOldestRun();
        m_mapLoss[uFirst] = seq - uFirst;
    }
    m_uLast = seq;
    ++m_uPktRecv;
}

// A sequence inside the open interval: if it was missing, it is not any more.
void tagCPktFlowStat::FillLate(uint32 seq)
{
    if (m_mapLoss.empty())
        return;

    // The run that begins last at or before seq. The map is ordered by number and the interval may wrap, so "before"
    // the first key lies the last one.
    SeqMap::iterator it = m_mapLoss.upper_bound(seq);
    it = it == m_mapLoss.begin() ? std::prev(m_mapLoss.end()) : std::prev(it);
    const uint32 uFirst = it->first;
    const uint32 uCount = it->second;
    const uint32 uBefore = seq - uFirst;
    if (uBefore >= uCount)
        return; // repeated

    const uint32 uAfter = uCount - uBefore - 1;
    ++m_uPktRecv;
    if (uBefore != 0)
        it->second = uBefore;
    else
        m_mapLoss.erase(it);
    if (uAfter != 0)
    {
        if (m_mapLoss.size() == c_uMaxRuns)
            FixOldestRun();
        m_mapLoss[seq + 1] = uAfter;
    }
}

// Makes room for uBy more sequences: a span that would pass 2^32 - 1 stays there, and the oldest numbers fall out.
void tagCPktFlowStat::ExtendSpan(uint32 uBy)
{
    const uint32 uSpan = m_uLast - m_uBase;
    if (uBy <= c_uMaxSpan - uSpan)
        return;
    FixRuns(); // the numbers come round again, and would meet the runs of the first time
    m_uBase = m_uLast + uBy - c_uMaxSpan;
}

// Counts every run for good.
void tagCPktFlowStat::FixRuns()
{
    const size_t uRuns = m_wRunsFixed + m_mapLoss.size();
    m_wRunsFixed = (uint16)(uRuns < c_wMaxFixed ? uRuns : c_wMaxFixed);
    m_mapLoss.clear();
}

// Counts the oldest run for good. The map is not empty.
void tagCPktFlowStat::FixOldestRun()
{
    SeqMap::iterator it = m_mapLoss.upper_bound(m_uBase);
    if (it == m_mapLoss.end())
        it = m_mapLoss.begin();
    m_mapLoss.erase(it);
    if (m_wRunsFixed < c_wMaxFixed)
        ++m_wRunsFixed;
}

} // namespace plain
