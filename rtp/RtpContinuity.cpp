// The judgement of one stream's packets, in order of arrival. Reads no clock, allocates only once.
#include "RtpContinuity.h"

#include <algorithm>
#include <cstdlib>
#include <limits>

namespace
{
// Reordered pictures, and delays that nobody needs to be told apart from jitter.
const int64_t c_llSlackUs = 500000;
// A packet may come so much later than the quickest one.
const int64_t c_llLatestUs = 30000000;
// RFC 3550 A.1 (MAX_DROPOUT): how far behind the end of the last numbering its late packets are looked for.
const int64_t c_llMaxBehind = 3000;
// A packet of the audio kind takes 10 ms at most of what is known about its length, see FitsSequence.
const int64_t c_llMostLeastStepUs = 10000;
const int64_t c_llLeastLeap = 30;  // packets ahead from which an unlikely loss is looked at
const int64_t c_llUsualRate = 200; // packets/s, before more is known
const int64_t c_llFarAheadUs = 10000000;
const int64_t c_llPerPacketUs = 200000; // media time that one lost packet may explain
const int64_t c_llSpanUs = 5000000;     // spans of the least transit
const uint32 c_dwSpanPackets = 50;
const uint64 c_ullEstablished = 50; // packets and time after which the least transit can be relied on
const int64_t c_llEstablishedUs = 1000000;
const uint32 c_dwHeldFor = 64;  // packets in line that a held one is kept for
const int16_t c_nTogether = 64; // sequences between two that go together
const int64_t c_llTogetherUs = 1000000;
const uint32 c_dwRunPackets = 50; // of a run behind, and how long it lasts at least
const int64_t c_llRunUs = 2000000;
const int64_t c_llBeforeFirst = 256; // sequences before a numbering's first that may still come
const size_t c_nAges = 8;
const size_t c_nBefore = 3; // numberings whose late packets are known

int64_t UsToTicks(int64_t llUs, uint32 dwClock)
{
    const int64_t llSeconds = FloorDiv(llUs, 1000000);
    return llSeconds * (int64_t)dwClock + (llUs - llSeconds * 1000000) * (int64_t)dwClock / 1000000;
}

int64_t TicksOrZero(int64_t llTicks, uint32 dwClock)
{
    return dwClock == 0 ? 0 : TicksToUs(llTicks, dwClock);
}
} // namespace

int64_t CRtpContinuity::tagNumbering::MediaUs(int64_t llTs) const
{
    return llBaseUs + TicksOrZero(llTs, dwClock);
}

int64_t CRtpContinuity::tagNumbering::MinTransit() const
{
    return std::min(llMinTransit[0], llMinTransit[1]);
}

void CRtpContinuity::Begin(int64_t llBaseUs, uint32 dwClock, bool bVideo)
{
    m_bVideo = bVideo;
    m_dwClock = dwClock;
    m_now.llBaseUs = llBaseUs;
    m_now.dwClock = dwClock;
    m_now.llLowest = std::numeric_limits<int64_t>::min();
    m_llFirstBaseUs = m_llMaxMediaUs = llBaseUs;
    m_vecRecent.resize(c_nRecent);
    m_dequeAges.push_back({0, 0, 0});
}

int64_t CRtpContinuity::UsOf(int64_t llTicks) const { return TicksOrZero(llTicks, m_now.dwClock); }

// ---- Does a packet belong? ----

// Packets that the sender can have sent in this time: four times what it ever did in a second, and what came in one burst.
int64_t CRtpContinuity::MostSent(int64_t llUs) const
{
    return 100 + 4 * std::max(m_llPeak, c_llUsualRate) * (llUs / 1000 + 500) / 1000;
}

// A sequence ahead: can the sender have sent so much since the last one?
bool CRtpContinuity::FitsSequence(const tagWire& stWire, int64_t llAhead) const
{
    if (llAhead < c_llLeastLeap)
        return true;
    const int64_t llStepUs = UsOf(m_now.ts.Peek(stWire.dwTs) - m_now.llLastTs);
    // In the burst that ends a stall it is timestamps that tell how long ago that was.
    const int64_t llElapsedUs = std::max<int64_t>(
        std::max(stWire.llArrivalUs - m_now.llLastUs, FitsTime(stWire, llAhead) ? llStepUs : 0), 0);
    if (llAhead > MostSent(llElapsedUs))
        return false;
    if (m_bVideo || m_now.dwClock == 0 || m_now.llMinStep == 0 || llStepUs < 0)
        return true;
    // Every packet of audio takes its time, and timestamps count it whether or not it arrives.
    const int64_t llLeastUs = std::min(UsOf(m_now.llMinStep), c_llMostLeastStepUs);
    return llStepUs * 2 >= llAhead * llLeastUs;
}

// A timestamp with a sequence ahead.
bool CRtpContinuity::FitsTime(const tagWire& stWire, int64_t llAhead) const
{
    if (m_now.dwClock == 0)
        return true;
    const int64_t llTs = m_now.ts.Peek(stWire.dwTs);
    if (UsOf(m_now.llMaxTs - llTs) > c_llSlackUs)
        return false;
    const int64_t llTransit = stWire.llArrivalUs - m_now.MediaUs(llTs);
    const int64_t llEarlier = m_now.MinTransit() - llTransit;
    const bool bEstablished =
        m_now.ullTaken >= c_ullEstablished && m_now.llLastUs - m_now.llFirstUs >= c_llEstablishedUs;
    if (llEarlier <= (bEstablished ? c_llSlackUs : c_llFarAheadUs))
        return true;
    // Packets that overtook what was under way, or the first after a stall in which others were lost.
    const int64_t llLeapUs = UsOf(llTs - m_now.llLastTs) - (stWire.llArrivalUs - m_now.llLastUs);
    return llLeapUs <=
           c_llSlackUs - 100000 +
               std::min(llAhead * std::min(c_llPerPacketUs, 2 * UsOf(m_now.llMinStep)), c_llFarAheadUs);
}

// A sequence at or behind the newest: a late packet, a copy, a repeat.
bool CRtpContinuity::FitsBehind(const tagNumbering& st, const tagWire& stWire) const
{
    const int64_t llSeq = st.seq.Peek(stWire.wSeq);
    const int64_t llOwn = llSeq + st.llSeqAdd;
    const tagRecent& stRecent = m_vecRecent[(size_t)llOwn % c_nRecent];
    if (stRecent.llSeq == llOwn)
        return stRecent.dwTs == stWire.dwTs;
    if (st.dwClock == 0)
        return true;
    const int64_t llTs = st.ts.Peek(stWire.dwTs);
    // So many packets in the time between the two nobody sent.
    const int64_t llElapsedUs = TicksOrZero(std::max<int64_t>(st.llMaxTs - llTs, 0), st.dwClock);
    if (st.seq.Highest() - llSeq > MostSent(llElapsedUs))
        return false;
    const bool bMayLead = m_bVideo && st.seq.Highest() - llSeq < (int64_t)c_nRecent;
    if (TicksOrZero(llTs - st.llMaxTs, st.dwClock) > (bMayLead ? c_llSlackUs : 0))
        return false;
    return stWire.llArrivalUs - st.MediaUs(llTs) <= st.MinTransit() + c_llLatestUs;
}

// Overtaken by a numbering's first packet, by its timestamp.
bool CRtpContinuity::FitsBeforeFirst(const tagNumbering& st, const tagWire& stWire) const
{
    const int64_t llUs = TicksOrZero(st.ts.Peek(stWire.dwTs), st.dwClock);
    return llUs <= 0 && llUs >= -c_llTogetherUs;
}

// A late packet of a numbering before this one.
CRtpContinuity::tagNumbering* CRtpContinuity::FindBefore(const tagWire& stWire)
{
    const tagNumbering* pBehind = &m_now;
    for (tagNumbering& st : m_dequeBefore)
    {
        const tagNumbering& stBehind = *pBehind;
        pBehind = &st;
        const int64_t llSeq = st.seq.Peek(stWire.wSeq);
        if (stWire.llArrivalUs - st.llLastUs > c_llLatestUs || llSeq < st.llLowest ||
            llSeq <= st.seq.Highest() - c_llMaxBehind)
            continue;
        // Or it was overtaken by new timestamps while sequences went on.
        const bool bBetween = st.llSeqAdd == stBehind.llSeqAdd && llSeq < stBehind.llFirst;
        if (llSeq <= st.seq.Highest()
                ? FitsBehind(st, stWire)
                : bBetween && !FitsBeforeFirst(stBehind, stWire) && FitsTimeBefore(st, stWire))
            return &st;
    }
    return nullptr;
}

// A packet of the numbering before that was overtaken by the new one: its number is taken.
bool CRtpContinuity::IsOvertaken(const tagWire& stWire) const
{
    const tagNumbering* pBehind = &m_now;
    for (const tagNumbering& st : m_dequeBefore)
    {
        const bool bOneCount = st.llSeqAdd == pBehind->llSeqAdd;
        const int64_t llAhead = st.seq.Peek(stWire.wSeq) - st.seq.Highest();
        if (stWire.llArrivalUs - pBehind->llFirstUs <= c_llFarAheadUs && !bOneCount && llAhead > 0 &&
            llAhead <= c_llBeforeFirst && FitsTimeBefore(st, stWire) &&
            st.MediaUs(st.ts.Peek(stWire.dwTs)) <= pBehind->llBaseUs + c_llSlackUs / 2)
            return true;
        pBehind = &st;
    }
    return false;
}

bool CRtpContinuity::FitsTimeBefore(const tagNumbering& st, const tagWire& stWire) const
{
    if (st.dwClock == 0)
        return true;
    const int64_t llTransit = stWire.llArrivalUs - st.MediaUs(st.ts.Peek(stWire.dwTs));
    return llTransit >= st.MinTransit() - c_llSlackUs && llTransit <= st.MinTransit() + c_llLatestUs;
}

// Sent before this numbering began, by its sequence or its timestamp.
bool CRtpContinuity::IsOlder(const tagWire& stWire, int64_t llSeq) const
{
    return !m_dequeBefore.empty() && (llSeq < m_now.llFirst || m_now.ts.Peek(stWire.dwTs) < 0);
}

// Two packets of one numbering that nobody else confirms.
bool CRtpContinuity::GoTogether(const tagWire& stHeld, const tagWire& stWire) const
{
    const int16_t nSeq = (int16_t)(uint16)(stWire.wSeq - stHeld.wSeq);
    if (nSeq == 0 || nSeq > c_nTogether || nSeq < -c_nTogether || stWire.cPt != stHeld.cPt)
        return false;
    const uint32 dwClock = stWire.dwClock != 0 ? stWire.dwClock : m_now.dwClock;
    if (dwClock == 0)
        return true;
    const int64_t llStepUs = TicksToUs(Step32(stHeld.dwTs, stWire.dwTs), dwClock);
    const int64_t llOnUs = nSeq > 0 ? llStepUs : -llStepUs;
    if (m_bVideo ? llOnUs < -c_llSlackUs : llOnUs <= 0)
        return false;
    return std::llabs(llStepUs - (stWire.llArrivalUs - stHeld.llArrivalUs)) <= c_llTogetherUs;
}

// Late packets come between others or in a burst. A long run of them in step with the clock, and nothing else, is
// a sender that began anew within what late packets look like.
bool CRtpContinuity::RunsOn(const tagWire& stWire, int64_t llAhead)
{
    const int64_t llTransit = stWire.llArrivalUs - m_now.MediaUs(m_now.ts.Peek(stWire.dwTs));
    if (llAhead > 0 || m_now.dwClock == 0)
    {
        m_dwRun = 0;
        return false;
    }
    const bool bOn = m_dwRun > 0 && stWire.wSeq == (uint16)(m_wRunSeq + 1) &&
                     Step32(m_dwRunTs, stWire.dwTs) >= 0 &&
                     std::llabs(llTransit - m_llRunTransit) <= c_llSlackUs;
    if (!bOn)
    {
        m_dwRun = 0;
        m_llRunUs = stWire.llArrivalUs;
        m_llRunTransit = llTransit;
    }
    m_dwRun++;
    m_wRunSeq = stWire.wSeq;
    m_dwRunTs = stWire.dwTs;
    return m_dwRun >= c_dwRunPackets && stWire.llArrivalUs - m_llRunUs >= c_llRunUs;
}

CRtpContinuity::emVerdict CRtpContinuity::Judge(const tagWire& stWire, emHeld& eHeld)
{
    eHeld = HELD_KEEP;
    m_pBefore = nullptr;
    if (!m_now.seq.Started())
        return TAKE;
    const int64_t llSeq = m_now.seq.Peek(stWire.wSeq);
    const int64_t llAhead = llSeq - m_now.seq.Highest();
    emRtpRestart eWhy = RTP_RESTART_NONE;
    bool bSequence = false;
    const bool bClock = stWire.dwClock != 0 && m_now.dwClock != 0 && stWire.dwClock != m_now.dwClock;
    const bool bRun = RunsOn(stWire, llAhead);
    if (IsOlder(stWire, llSeq))
    {
        m_pBefore = FindBefore(stWire);
        if (m_pBefore != nullptr)
            return TAKE;
        const int64_t llEarlierUs = -UsOf(m_now.ts.Peek(stWire.dwTs));
        if (IsOvertaken(stWire))
            return REFUSE;
        if (m_now.llFirst - llSeq > 0 && m_now.llFirst - llSeq <= c_llBeforeFirst && llEarlierUs >= 0 &&
            llEarlierUs <= c_llSpanUs)
            return REFUSE;
    }
    if (llAhead > 0 ? !FitsSequence(stWire, llAhead)
                    : bRun || llSeq < m_now.llLowest || (!bClock && !FitsBehind(m_now, stWire)))
    {
        eWhy = RTP_RESTART_SEQUENCE;
        bSequence = true;
    }
    else if (bClock)
        eWhy = RTP_RESTART_PAYLOAD;
    else if (llAhead > 0 && !FitsTime(stWire, llAhead))
        eWhy = RTP_RESTART_TIMESTAMP;

    if (eWhy == RTP_RESTART_NONE)
    {
        // A timestamp that the next packet does not confirm stood alone. A sequence is given longer: packets of the old
        // numbering may still be under way.
        const bool bPassed = !m_bHeldSequence && (int16_t)(uint16)(stWire.wSeq - m_stHeld.wSeq) > 0;
        if (m_bHeld && (bPassed || ++m_dwSinceHeld >= c_dwHeldFor))
        {
            eHeld = m_bHeldSequence ? HELD_DROP : HELD_PLACE;
            m_bHeld = false;
        }
        return TAKE;
    }
    m_pBefore = FindBefore(stWire);
    if (m_pBefore != nullptr)
        return TAKE;
    if (IsOvertaken(stWire))
        return REFUSE;
    if (m_bHeld && stWire.wSeq == m_stHeld.wSeq && stWire.dwTs == m_stHeld.dwTs)
        return REFUSE; // a copy confirms nothing
    if (m_bHeld && GoTogether(m_stHeld, stWire))
        return RESTART;
    if (m_bHeld)
        eHeld = m_bHeldSequence ? HELD_DROP : HELD_PLACE;
    m_bHeld = true;
    m_bHeldSequence = bSequence;
    m_eHeld = eWhy;
    m_dwSinceHeld = 0;
    m_stHeld = stWire;
    return HOLD;
}

// ---- Numbers ----

CRtpContinuity::tagPlace CRtpContinuity::PlaceIn(tagNumbering& st, const tagWire& stWire)
{
    tagPlace stPlace;
    const int64_t llSeq = st.seq.Take(stWire.wSeq);
    stPlace.llSeq = llSeq + st.llSeqAdd;
    const bool bFirst = !st.ts.Started();
    const int64_t llTs = st.ts.Take(stWire.dwTs);
    st.llMaxTs = bFirst ? llTs : std::max(st.llMaxTs, llTs);
    stPlace.llTicks = st.llTicksAdd +
                      (st.dwClock == m_dwClock ? llTs : UsToTicks(TicksOrZero(llTs, st.dwClock), m_dwClock));
    stPlace.llMediaUs = st.MediaUs(llTs);
    m_vecRecent[(size_t)stPlace.llSeq % c_nRecent] = {stPlace.llSeq, stWire.dwTs};
    return stPlace;
}

CRtpContinuity::tagPlace CRtpContinuity::Take(const tagWire& stWire)
{
    if (m_pBefore != nullptr)
    {
        tagNumbering& st = *m_pBefore;
        m_pBefore = nullptr;
        return PlaceIn(st, stWire);
    }
    const int64_t llSeq = m_now.seq.Peek(stWire.wSeq);
    const bool bFirst = !m_now.ts.Started();
    if (!m_now.seq.Started())
        m_now.llFirst = llSeq;
    const int64_t llAhead = m_now.seq.Started() ? llSeq - m_now.seq.Highest() : 1;
    const tagPlace stPlace = PlaceIn(m_now, stWire);
    const int64_t llTs = m_now.ts.Peek(stWire.dwTs);
    if (bFirst)
    {
        m_now.llFirstUs = stWire.llArrivalUs;
        m_now.llLastTs = llTs;
    }
    m_llMaxMediaUs = std::max(m_llMaxMediaUs, stPlace.llMediaUs);
    m_now.ullTaken++;
    if (llAhead > 0)
        Learn(stWire, bFirst ? 0 : llAhead, llTs);
    return stPlace;
}

// Of a packet that moved the numbering on; llAhead 0 for its first.
void CRtpContinuity::Learn(const tagWire& stWire, int64_t llAhead, int64_t llTs)
{
    const int64_t llStep = llTs - m_now.llLastTs;
    if (llAhead == 1 && llStep > 0)
        m_now.llMinStep = m_now.llMinStep == 0 ? llStep : std::min(m_now.llMinStep, llStep);
    m_now.llLastTs = llTs;
    m_now.llLastUs = stWire.llArrivalUs;

    const int64_t llTransit = stWire.llArrivalUs - m_now.MediaUs(llTs);
    if (m_now.nTransits == 0)
    {
        m_now.llMinTransit[0] = m_now.llMinTransit[1] = llTransit;
        m_now.llSpanUs = stWire.llArrivalUs;
    }
    else if (stWire.llArrivalUs - m_now.llSpanUs >= c_llSpanUs && m_now.dwSpan >= c_dwSpanPackets)
    {
        m_now.dwSpan = 0;
        m_now.llSpanUs = stWire.llArrivalUs;
        m_now.llMinTransit[1] = m_now.llMinTransit[0];
        m_now.llMinTransit[0] = llTransit;
    }
    m_now.dwSpan++;
    m_now.llMinTransit[0] = std::min(m_now.llMinTransit[0], llTransit);
    m_now.aTransits[m_now.nTransits++ % c_nTransits] = llTransit;

    const int64_t llElapsedUs = stWire.llArrivalUs - m_llRateUs;
    if (m_llRateSeq == 0 || llElapsedUs >= 1000000)
    {
        if (m_llRateSeq != 0)
            m_llPeak = std::max(m_llPeak, (Highest() - m_llRateSeq) * 1000 / (llElapsedUs / 1000));
        m_llRateUs = stWire.llArrivalUs;
        m_llRateSeq = Highest();
    }
}

CRtpContinuity::tagPlace CRtpContinuity::TakeAlone(const tagWire& stWire)
{
    tagWire st = stWire;
    st.dwTs = Add32(m_now.ts.First(), m_now.llLastTs);
    return PlaceIn(m_now, st);
}

bool CRtpContinuity::TakeRepeated(const tagWire& stWire, tagPlace& stPlace)
{
    if (m_dequeBefore.empty())
    {
        stPlace = PlaceIn(m_now, stWire);
        return true;
    }
    tagNumbering* const pBefore = FindBefore(stWire);
    const int64_t llSeq = m_now.seq.Peek(stWire.wSeq);
    const int64_t llAhead = llSeq - m_now.seq.Highest();
    const bool bNow =
        llSeq >= m_now.llLowest && (llAhead > 0 ? FitsSequence(stWire, llAhead) && FitsTime(stWire, llAhead)
                                                : FitsBehind(m_now, stWire));
    if (bNow && (pBefore == nullptr || !IsOlder(stWire, llSeq)))
        stPlace = PlaceIn(m_now, stWire);
    else if (pBefore != nullptr)
        stPlace = PlaceIn(*pBefore, stWire);
    else
        return false;
    return true;
}

// ---- A new numbering ----

int64_t CRtpContinuity::MedianTransit() const
{
    std::array<int64_t, c_nTransits> a = m_now.aTransits;
    const size_t n = std::min(m_now.nTransits, c_nTransits);
    if (n == 0)
        return 0;
    std::nth_element(a.begin(), a.begin() + (std::ptrdiff_t)(n / 2), a.begin() + (std::ptrdiff_t)n);
    return a[n / 2];
}

// The first packet's media time is that of one which came as quickly as the last ones did.
void CRtpContinuity::BeginNumbering(const tagWire& stWire, int64_t llLagUs, bool bSequence, int64_t llSpare)
{
    const int64_t llMediaUs = std::max(stWire.llArrivalUs - MedianTransit() - llLagUs, m_llMaxMediaUs + 1000);
    tagNumbering stNew;
    stNew.dwClock = stWire.dwClock != 0 ? stWire.dwClock : m_now.dwClock;
    stNew.llBaseUs = llMediaUs;
    stNew.llTicksAdd = UsToTicks(llMediaUs - m_llFirstBaseUs, m_dwClock);
    if (stNew.dwClock == m_now.dwClock)
        stNew.llMinStep = m_now.llMinStep;
    stNew.llLastUs = m_now.llLastUs;
    if (bSequence)
    {
        stNew.llFirst = stNew.seq.Peek(stWire.wSeq);
        stNew.llSeqAdd = Highest() + 1 + llSpare - stNew.llFirst;
    }
    else
    {
        stNew.seq = m_now.seq;
        stNew.llSeqAdd = m_now.llSeqAdd;
        stNew.llFirst = m_now.seq.Peek(stWire.wSeq);
    }
    // What overtook the first packet has a number below it.
    m_dequeAges.push_back(
        {bSequence ? Highest() + 1 : stNew.llFirst + stNew.llSeqAdd, stNew.llSeqAdd, m_dwRestarts + 1});
    if (m_dequeAges.size() > c_nAges)
        m_dequeAges.pop_front();
    stNew.llLowest = stNew.llFirst - llSpare;
    stNew.llFirstUs = stWire.llArrivalUs;
    m_dequeBefore.push_front(m_now);
    if (m_dequeBefore.size() > c_nBefore)
        m_dequeBefore.pop_back();
    m_now = stNew;
    m_bHeld = false;
    m_pBefore = nullptr;
    m_dwRun = 0;
    m_dwRestarts++;
}

emRtpRestart CRtpContinuity::Restart(const tagWire& stWire, int64_t llLagUs)
{
    const emRtpRestart eWhy = m_eHeld;
    const tagWire stHeld = m_stHeld;
    // The second may have overtaken the first on the way.
    const int16_t nSeq = (int16_t)(uint16)(stWire.wSeq - stHeld.wSeq);
    BeginNumbering(stHeld, llLagUs, m_bHeldSequence, std::max(0, -nSeq));
    return eWhy;
}

void CRtpContinuity::RestartAt(const tagWire& stWire, int64_t llLagUs)
{
    BeginNumbering(stWire, llLagUs, true, 0);
}

int64_t CRtpContinuity::PeekSeq(uint16 wSeq) const
{
    const tagNumbering* pFound = &m_now;
    for (size_t i = 0; i <= m_dequeBefore.size(); i++)
    {
        const tagNumbering& st = i == 0 ? m_now : m_dequeBefore[i - 1];
        const int64_t llSeq = st.seq.Peek(wSeq);
        if (llSeq >= st.llLowest && llSeq > st.seq.Highest() - c_llMaxBehind &&
            llSeq <= st.seq.Highest() + (i == 0 ? c_llMaxBehind : 0))
        {
            pFound = &st;
            break;
        }
    }
    return pFound->seq.Peek(wSeq) + pFound->llSeqAdd;
}

uint16 CRtpContinuity::RtpSeq(int64_t llSeq, uint32& dwRestart) const
{
    size_t n = m_dequeAges.size();
    while (n > 1 && m_dequeAges[n - 1].llFirst > llSeq)
        n--;
    dwRestart = n == 0 ? 0 : m_dequeAges[n - 1].dwRestart;
    return n == 0 ? (uint16)llSeq : (uint16)(llSeq - m_dequeAges[n - 1].llAdd); // modulo 65536
}

bool CRtpContinuity::IsLate(const tagWire& stWire)
{
    m_pBefore = FindBefore(stWire);
    return m_pBefore != nullptr;
}
