#include "RunChecks.h"

#include <fmt/format.h>

#include <cstring>

namespace lab
{

namespace
{

constexpr size_t c_nMaxLines = 10;
constexpr size_t c_nPlayedRing = 4096;
constexpr size_t c_nTurnRing = 4096;

// The receiver remembers a sequence for 6 s from the turn that took it, which may be one turn after it was
// handed in.
constexpr uint32 c_dwSurelyRemembered = 6000 - 10;

bool IsBehindOrAt(uint32 dwSeq, uint32 dwOther) { return (int32)(dwSeq - dwOther) <= 0; }

// Behind by the way round, yet the larger number: the end of the 32-bit numbers lies between the two. The receiver's
// buffer is sorted by plain number, so what was still buffered when a stream's sequences began again from 0 stays
// behind all that comes after, and leaves when that runs dry, or never.
bool IsStranded(uint32 dwSeq, uint32 dwOther) { return IsBehindOrAt(dwSeq, dwOther) && dwSeq > dwOther; }

} // namespace

tagPacketAccount& CRunChecks::Stream(uint32 uStream)
{
    if (uStream >= m_vecStreams.size())
        m_vecStreams.resize(uStream + 1);
    return m_vecStreams[uStream];
}

const tagPacketAccount& CRunChecks::Account(uint32 uStream) { return Stream(uStream); }

CRunChecks::tagFiled& CRunChecks::FiledOf(CMediaPacket& packet)
{
    const auto stPlace = m_mapFiled.emplace(
        std::make_tuple(packet.u64Uin, packet.m_cSubType, packet.m_uEpoch), (uint32)m_vecFiled.size());
    if (stPlace.second)
        m_vecFiled.emplace_back();
    packet.m_uFiled = stPlace.first->second;
    return m_vecFiled[packet.m_uFiled];
}

void CRunChecks::Fed(CMediaPacket& packet, uint32 dwTick)
{
    constexpr uint64 c_ullAround =
        0x100000000ull - CSeqWindow::c_uSpan; // so many on, and what was first comes again
    tagPacketAccount& st = Stream(packet.m_uStream);
    tagFiled& stFiled = FiledOf(packet);
    packet.m_dwFedTick = dwTick;
    packet.m_ullFedTurn = m_ullTurn;
    packet.m_ullFedForgets = m_ullForgets;
    const CSeqWindow::ESeen eSeen = stFiled.seen.Insert(packet.dwSenderSeq);
    packet.m_bFirst = eSeen != CSeqWindow::ESeen::Again;
    stFiled.bUnsure |= eSeen == CSeqWindow::ESeen::Behind &&
                       stFiled.seen.Highest() - packet.dwSenderSeq >= CSeqWindow::c_uSpan;
    stFiled.bUnsure |= stFiled.seen.Expected() >= c_ullAround;
    packet.m_bUnsure = stFiled.bUnsure;
    packet.m_bLate = stFiled.bPlayed && IsBehindOrAt(packet.dwSenderSeq, stFiled.dwHighest);
    st.ullFed++;
    if (packet.m_bFirst)
        st.ullFirst++;
    m_ullLive++;
}

void CRunChecks::TurnBegins(uint32 dwTick)
{
    m_dwTick = dwTick;
    m_ullTurn++;
    m_vecTurnTicks.resize(c_nTurnRing);
    m_vecTurnTicks[m_ullTurn % c_nTurnRing] = dwTick;
    m_ullSkipLines = 0;
    m_bPulledBack = false;
}

void CRunChecks::LogLine(const char* pszText)
{
    if (strstr(pszText, "skip packet at beginning"))
        m_ullSkipLines++;
    else if (strstr(pszText, "Server Push Early Packet"))
    {
        m_bPulledBack = true;
        m_ullPullBacks++;
        m_ullForgets++;
    }
}

void CRunChecks::Released(CMediaPacket& packet)
{
    tagPacketAccount& st = Stream(packet.m_uStream);
    tagFiled& stFiled = m_vecFiled[packet.m_uFiled];
    CheckOrder(stFiled, packet);
    CheckTwice(stFiled, packet);
    if (!packet.m_bFirst)
        st.ullReplayed++;
    else if (!packet.m_bReleased)
    {
        st.ullPlayed++;
        if (packet.m_bLate)
            st.ullLate++;
    }
    packet.m_bReleased = true;
}

void CRunChecks::CheckOrder(tagFiled& stFiled, const CMediaPacket& packet)
{
    const uint32 dwSeq = packet.dwSenderSeq;
    if (stFiled.ullLastTurn == m_ullTurn && IsBehindOrAt(dwSeq, stFiled.dwLastInTurn) &&
        !IsStranded(dwSeq, stFiled.dwLastInTurn))
        PacketViolation(packet.m_uStream, dwSeq, "left after a higher sequence in the same turn");
    if (!stFiled.bPlayed || !IsBehindOrAt(dwSeq, stFiled.dwHighest))
    {
        stFiled.bPlayed = true;
        stFiled.dwHighest = dwSeq;
    }
    else if (IsStranded(dwSeq, stFiled.dwHighest))
        Stream(packet.m_uStream).ullStranded++;
    else if (!packet.m_bLate)
        PacketViolation(packet.m_uStream, dwSeq,
                        "left out of order, though it had come before its place was played");
    stFiled.ullLastTurn = m_ullTurn;
    stFiled.dwLastInTurn = dwSeq;
}

// When the receiver looked at it: in the first turn after it was handed in, which may be long after when nobody made
// turns for a while.
uint32 CRunChecks::TakenTick(const CMediaPacket& packet) const
{
    const uint64 ullTurn = packet.m_ullFedTurn + 1;
    return m_ullTurn - ullTurn < c_nTurnRing ? m_vecTurnTicks[ullTurn % c_nTurnRing] : packet.m_dwFedTick;
}

void CRunChecks::CheckTwice(tagFiled& stFiled, const CMediaPacket& packet)
{
    if (stFiled.vecPlayed.empty())
        stFiled.vecPlayed.resize(c_nPlayedRing);
    tagPlayed& stPlayed = stFiled.vecPlayed[packet.dwSenderSeq % c_nPlayedRing];
    if (stPlayed.bSet && stPlayed.dwSeq == packet.dwSenderSeq && stPlayed.ullForgets == m_ullForgets &&
        TakenTick(packet) - stPlayed.dwFedTick < c_dwSurelyRemembered)
        PacketViolation(packet.m_uStream, packet.dwSenderSeq, "played twice");
    stPlayed.dwSeq = packet.dwSenderSeq;
    stPlayed.dwFedTick = packet.m_dwFedTick;
    stPlayed.ullForgets = packet.m_ullFedForgets; // it may have been forgotten before it left
    stPlayed.bSet = true;
}

void CRunChecks::Gone(CMediaPacket& packet)
{
    m_ullLive--;
    if (packet.m_bReleased)
        return;
    tagPacketAccount& st = Stream(packet.m_uStream);
    if (!m_bStopping)
        m_vecDrops.push_back({packet.m_uStream, packet.dwSenderSeq, packet.m_bFirst, packet.m_bUnsure});
    else if (packet.m_bFirst)
        st.ullLeft++;
    else
        st.ullRepeats++;
}

void CRunChecks::TurnEnds()
{
    // Intake comes before playout in a turn, so what was skipped at the beginning was let go last.
    const size_t nSkipped = m_ullSkipLines < m_vecDrops.size() ? (size_t)m_ullSkipLines : m_vecDrops.size();
    const size_t nIntake = m_vecDrops.size() - nSkipped;
    for (size_t i = 0; i < m_vecDrops.size(); i++)
    {
        const tagDrop& stDrop = m_vecDrops[i];
        tagPacketAccount& st = Stream(stDrop.uStream);
        if (!stDrop.bFirst)
            st.ullRepeats++;
        else if (i >= nIntake)
            st.ullSkipped++;
        else if (m_bPulledBack || m_bClearAsked)
            st.ullCleared++;
        else if (stDrop.bUnsure)
        {
            st.ullFirst--; // so it was a repeat
            st.ullRepeats++;
        }
        else
        {
            st.ullVanished++;
            PacketViolation(stDrop.uStream, stDrop.dwSeq, "was let go unplayed and without a reason");
        }
    }
    m_vecDrops.clear();
    m_ullSkipLines = 0;
    m_bClearAsked = false;
}

void CRunChecks::Finish()
{
    if (m_ullLive != 0)
        Violation(fmt::format("{} packet objects outlived the run", m_ullLive));
    for (size_t i = 0; i < m_vecStreams.size(); i++)
    {
        const tagPacketAccount& st = m_vecStreams[i];
        const uint64 ullFirst = st.ullPlayed + st.ullSkipped + st.ullCleared + st.ullLeft + st.ullVanished;
        const uint64 ullAll = ullFirst + st.ullRepeats + st.ullReplayed;
        if (ullFirst != st.ullFirst || ullAll != st.ullFed)
            Violation(
                fmt::format("stream {}: {} packets handed in ({} distinct), {} accounted for ({} distinct)",
                            i, st.ullFed, st.ullFirst, ullAll, ullFirst));
    }
}

void CRunChecks::PacketViolation(uint32 uStream, uint32 dwSeq, const char* pszWhat)
{
    Violation(fmt::format("stream {}: sequence {} {} (at {:.3f} s)", uStream, dwSeq, pszWhat,
                          (m_dwTick - m_dwStartTick) / 1000.0));
}

void CRunChecks::Violation(const std::string& strWhat)
{
    m_ullBroken++;
    if (m_vecViolations.size() < c_nMaxLines)
        m_vecViolations.push_back(strWhat);
}

} // namespace lab
