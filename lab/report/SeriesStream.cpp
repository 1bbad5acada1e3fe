// In: a stream's packets, releases and requests. Out: counts, at the time to which they belong. A loss is open from the
// packet that shows it until its place is played; what had been counted too early is taken back where it was counted.

#include "SeriesStream.h"

#include <algorithm>

namespace lab
{

namespace
{

constexpr uint32 c_dwMaxJump = 65536; // a longer way forward is another numbering, not a loss
constexpr int64 c_llPaceMs = 60; // what the grid of turns and a slow clock may add to the pace of the media
constexpr uint64 c_ullSpreadMs =
    100; // a stall is spread over the bins that it covers, the finest of which are this wide
constexpr double c_dStepMemory = 64; // packets over which the media of one is averaged
constexpr double c_dMostMedia = 2;   // times that average, of one missing packet
constexpr int64 c_llMostStep = 1000; // ms of media from a packet to the next, beyond it is silence

} // namespace

// ---- Packets that come -------------------------------------------------------------------------------------------

bool CSeriesStream::Came(const tagCame& stCame, uint64 ullMs, ISeriesSink& sink)
{
    m_ullNowMs = ullMs;
    if (!m_st.ullFirstIn)
        m_st.ullFirstIn = ullMs;
    m_st.ullIn++;
    m_st.ullBytesIn += stCame.dwBytes;
    sink.Count(SERIES_PACKETS_IN, ullMs, 1);
    sink.Count(SERIES_BYTES_IN, ullMs, stCame.dwBytes);
    const bool bAnswer = stCame.bRetransmitted.value_or(false);
    m_bToldByRtx = m_bToldByRtx || stCame.bRetransmitted.has_value();
    m_st.bWastedKnown = m_st.bWastedKnown || m_bToldByRtx;

    bool bRestarted = false;
    if (!m_bAny)
        Restart(stCame.dwSeq, sink);
    else if (!IsRemembered(stCame.dwSeq))
    {
        const uint32 dwForward = stCame.dwSeq - m_dwTop;
        if (dwForward < c_dwMaxJump)
            MoveUp(stCame.dwSeq, ullMs, sink);
        else if (m_dwTop - stCame.dwSeq < c_dwSpan)
            MoveDown(stCame.dwSeq, ullMs, sink);
        else if (m_bStray && stCame.dwSeq == m_dwNextStray)
        {
            Restart(stCame.dwSeq, sink);
            bRestarted = true;
        }
        else
        {
            m_bStray = true;
            m_dwNextStray = stCame.dwSeq + 1;
            return false; // too far away to say anything of it
        }
    }
    m_bStray = false;

    tagPlace& st = At(stCame.dwSeq);
    const bool bFirst = (st.cMarks & MARK_CAME) == 0;
    const bool bAsked = (st.cMarks & MARK_ASKED) != 0;
    if (!bFirst)
        m_st.ullDuplicates++;
    if (bFirst && bAsked)
    {
        m_st.ullAnswered++;
        sink.Count(SERIES_ANSWERED, ullMs, 1);
    }
    // Where nobody tells, what was asked for is taken for the answer.
    const bool bOriginal = stCame.bRetransmitted ? !bAnswer : m_bToldByRtx || !bAsked;
    if (bFirst && bAnswer && (st.cMarks & MARK_LOST) == 0)
        Open(st, ullMs, sink); // sent again, so it had been lost: before anybody here could notice
    if (bOriginal && (st.cMarks & MARK_ORIGINAL) == 0 && (bFirst || m_bToldByRtx))
    {
        st.cMarks |= MARK_ORIGINAL;
        NotLost(st, ullMs, sink);
        if (st.wAsks != 0 && m_bToldByRtx)
        {
            m_st.ullWasted += st.wAsks;
            sink.Count(SERIES_REQUESTS_WASTED, ullMs, st.wAsks);
        }
    }
    if (bFirst && !(m_bOut && (int32)(stCame.dwSeq - m_dwHighestOut) <= 0))
        m_uAhead++;
    st.cMarks |= MARK_CAME;
    if (m_st.ullIn == 1 || bRestarted || (int32)(stCame.dwMediaMs - m_dwNewestMediaMs) > 0)
        m_dwNewestMediaMs = stCame.dwMediaMs;
    return bRestarted;
}

// Numbering begins here; what was open is closed.
void CSeriesStream::Restart(uint32 dwSeq, ISeriesSink& sink)
{
    if (m_bAny)
        Finish(sink);
    else
        m_pRing = std::make_unique<Ring>();
    m_bAny = true;
    m_bOut = false;
    m_bPace = false;
    m_uAhead = 0;
    m_dwTop = dwSeq;
    m_dwKnown = 1;
    At(dwSeq) = tagPlace();
    m_st.ullExpected++;
}

// A new highest sequence: all between it and the one before is missing so far.
void CSeriesStream::MoveUp(uint32 dwSeq, uint64 ullMs, ISeriesSink& sink)
{
    for (uint32 dw = m_dwTop + 1; dw != dwSeq + 1; dw++)
    {
        tagPlace& st = At(dw);
        if (m_dwKnown == c_dwSpan)
            Close(st, ullMs, sink);
        else
            m_dwKnown++;
        st = tagPlace();
        m_st.ullExpected++;
        if (dw != dwSeq)
            Open(st, ullMs, sink);
        m_dwTop = dw;
    }
}

// Older than the first packet that came: the stream began here.
void CSeriesStream::MoveDown(uint32 dwSeq, uint64 ullMs, ISeriesSink& sink)
{
    while (m_dwTop - m_dwKnown + 1 != dwSeq)
    {
        tagPlace& st = At(m_dwTop - m_dwKnown);
        st = tagPlace();
        m_dwKnown++;
        m_st.ullExpected++;
        if (m_dwTop - m_dwKnown + 1 == dwSeq)
            return;
        Open(st, ullMs, sink);
        if (m_bOut)
            Close(st, ullMs, sink);
    }
}

// ---- Losses --------------------------------------------------------------------------------------------------------

void CSeriesStream::Open(tagPlace& st, uint64 ullMs, ISeriesSink& sink)
{
    st.cMarks |= MARK_LOST;
    st.dwNoticedMs = (uint32)ullMs;
    m_st.ullLost++;
    sink.Count(SERIES_LOST, ullMs, 1);
}

// It was overtaken, no more: what was counted is taken back.
void CSeriesStream::NotLost(tagPlace& st, uint64 ullMs, ISeriesSink& sink)
{
    if ((st.cMarks & MARK_LOST) == 0)
        return;
    const uint64 ullNoticed = NoticedMs(st, ullMs);
    m_st.ullLost--;
    sink.Count(SERIES_LOST, ullNoticed, -1);
    if ((st.cMarks & MARK_UNREPAIRED) != 0)
    {
        m_st.ullUnrepaired--;
        sink.Count(SERIES_UNREPAIRED, ullNoticed, -1);
    }
    m_st.ullInTime -= (st.cMarks & MARK_IN_TIME) != 0;
    m_st.ullLate -= (st.cMarks & MARK_LATE) != 0;
    st.cMarks &= (uint8) ~(MARK_LOST | MARK_UNREPAIRED | MARK_IN_TIME | MARK_LATE);
}

// Its place is behind playout, or forgotten.
void CSeriesStream::Close(tagPlace& st, uint64 ullMs, ISeriesSink& sink)
{
    if ((st.cMarks & MARK_LOST) == 0 || (st.cMarks & (MARK_UNREPAIRED | MARK_IN_TIME | MARK_LATE)) != 0)
        return;
    st.cMarks |= MARK_UNREPAIRED;
    m_st.ullUnrepaired++;
    sink.Count(SERIES_UNREPAIRED, NoticedMs(st, ullMs), 1);
}

void CSeriesStream::Finish(ISeriesSink& sink)
{
    for (uint32 dw = 0; m_bAny && dw < m_dwKnown; dw++)
        Close(At(m_dwTop - dw), m_ullNowMs, sink);
}

// ---- Packets that leave ----------------------------------------------------------------------------------------------

void CSeriesStream::Released(const tagLeft& stLeft, uint64 ullMs, ISeriesSink& sink)
{
    m_ullNowMs = ullMs;
    if (!m_st.ullFirstOut)
        m_st.ullFirstOut = ullMs;
    m_st.dwPlayoutLow = m_st.ullOut == 0 ? stLeft.dwDelayMs : std::min(m_st.dwPlayoutLow, stLeft.dwDelayMs);
    m_st.dwPlayoutHigh = std::max(m_st.dwPlayoutHigh, stLeft.dwDelayMs);
    m_st.ullPlayoutMs += stLeft.dwDelayMs;
    m_st.ullOut++;
    m_st.ullBytesOut += stLeft.dwBytes;
    m_st.ullGaps += stLeft.dwGap;
    sink.Count(SERIES_PACKETS_OUT, ullMs, 1);
    sink.Count(SERIES_BYTES_OUT, ullMs, stLeft.dwBytes);
    sink.Value(SERIES_PLAYOUT_DELAY, ullMs, (int32)std::min<uint32>(stLeft.dwDelayMs, INT32_MAX));
    if (stLeft.dwGap != 0)
        sink.Count(SERIES_GAPS, ullMs, stLeft.dwGap);
    if (!IsRemembered(stLeft.dwSeq))
        return;

    tagPlace& st = At(stLeft.dwSeq);
    const bool bInOrder = !m_bOut || (int32)(stLeft.dwSeq - m_dwHighestOut) > 0;
    if (bInOrder)
    {
        CountStillness(stLeft, ullMs, sink);
        PassTo(stLeft.dwSeq, ullMs, sink);
    }
    if ((st.cMarks & MARK_OUT) == 0 && (st.cMarks & MARK_LOST) != 0)
    {
        if ((st.cMarks & MARK_UNREPAIRED) != 0)
        {
            m_st.ullUnrepaired--;
            sink.Count(SERIES_UNREPAIRED, NoticedMs(st, ullMs), -1);
        }
        st.cMarks &= (uint8)~MARK_UNREPAIRED;
        st.cMarks |= bInOrder ? MARK_IN_TIME : MARK_LATE;
        (bInOrder ? m_st.ullInTime : m_st.ullLate)++;
    }
    st.cMarks |= MARK_OUT;
}

// Playout stands at this sequence now.
void CSeriesStream::PassTo(uint32 dwSeq, uint64 ullMs, ISeriesSink& sink)
{
    const uint32 dwLowest = m_dwTop - m_dwKnown + 1;
    uint32 dwFrom = m_bOut ? m_dwHighestOut + 1 : dwLowest;
    if (!IsRemembered(dwFrom))
        dwFrom = dwLowest;
    for (uint32 dw = dwFrom; dw != dwSeq; dw++)
    {
        Close(At(dw), ullMs, sink);
        m_uAhead -= (At(dw).cMarks & MARK_CAME) != 0 && m_uAhead != 0;
    }
    m_uAhead -= (At(dwSeq).cMarks & MARK_CAME) != 0 && m_uAhead != 0;
    m_bOut = true;
    m_dwHighestOut = dwSeq;
}

// How long nothing was played before this release, apart from the pace of the media itself. Two reasons are told apart:
// the packet came late for its time (a stall), or what belonged before it never came (a hole).
void CSeriesStream::CountStillness(const tagLeft& stLeft, uint64 ullMs, ISeriesSink& sink)
{
    const int64 llMedia = std::max<int64>(0, (int32)(stLeft.dwMediaMs - m_dwLastMediaMs));
    const int64 llElapsed = (int64)(ullMs - m_ullLastOutMs);
    const int64 llSteps = m_bOut ? (int32)(stLeft.dwSeq - m_dwHighestOut) : 1;
    const bool bPace = m_bPace;
    m_bPace = true;
    m_dwLastMediaMs = stLeft.dwMediaMs;
    m_ullLastOutMs = ullMs;
    if (!bPace)
        return;

    // A sender may also be silent, numbering on: no more media is missing than that many packets hold.
    int64 llHole = 0;
    if (llSteps > 1)
        llHole =
            std::min(llMedia - llMedia / llSteps, (int64)(c_dMostMedia * m_dStepMs * (double)(llSteps - 1)));
    else if (llMedia <= c_llMostStep)
        m_dStepMs += ((double)llMedia - m_dStepMs) / (m_dStepMs == 0 ? 1 : c_dStepMemory);
    llHole = std::min(llHole, llElapsed);
    const int64 llStill = llElapsed - (llMedia - llHole);
    for (uint64 ull = llStill > c_llPaceMs ? ullMs - (uint64)llStill : ullMs; ull < ullMs;)
    {
        const uint64 ullNext = std::min(ullMs, (ull / c_ullSpreadMs + 1) * c_ullSpreadMs);
        sink.Count(SERIES_STALL_MS, ull, (int64)(ullNext - ull));
        ull = ullNext;
    }
    if (llElapsed - llMedia > (int64)c_dwSeriesStall)
        Note(m_st.stStalls, "stall", ullMs, (uint64)(llElapsed - llMedia), sink);
    if (llHole > (int64)c_dwSeriesStall)
        Note(m_st.stHoles, "hole", ullMs, (uint64)llHole, sink);
}

void CSeriesStream::Note(tagSeriesStills& st, const char* pszKind, uint64 ullEndMs, uint64 ullMs,
                         ISeriesSink& sink)
{
    st.ullCount++;
    st.ullMs += ullMs;
    if (ullMs > st.ullLongestMs)
    {
        st.ullLongestMs = ullMs;
        st.ullLongestAt = ullEndMs - ullMs;
    }
    sink.Still(pszKind, ullEndMs - ullMs, ullMs);
}

// ---- Requests --------------------------------------------------------------------------------------------------------

void CSeriesStream::Asked(uint32 dwSeq, uint64 ullMs, ISeriesSink& sink)
{
    m_ullNowMs = ullMs;
    m_st.ullRequested++;
    sink.Count(SERIES_REQUESTED, ullMs, 1);
    if (!IsRemembered(dwSeq))
    {
        m_st.ullRequestedOnce++;
        return;
    }
    tagPlace& st = At(dwSeq);
    m_st.ullRequestedOnce += (st.cMarks & MARK_ASKED) == 0;
    st.cMarks |= MARK_ASKED;
    if (st.wAsks < UINT16_MAX)
        st.wAsks++;
    if ((st.cMarks & MARK_ORIGINAL) != 0 && m_bToldByRtx)
    {
        m_st.ullWasted++; // it came just now
        sink.Count(SERIES_REQUESTS_WASTED, ullMs, 1);
    }
}

void CSeriesStream::Failed(uint32 uCount, uint64 ullMs, ISeriesSink& sink)
{
    m_ullNowMs = ullMs;
    m_st.ullFailed += uCount;
    sink.Count(SERIES_REQUESTS_FAILED, ullMs, uCount);
}

} // namespace lab
