#include "UdtStreamCounts.h"

#include "AVGUDTRecvRules.h"

#include <algorithm>

namespace
{

constexpr double c_dSecond = 1000.0; // ms

// The delay that the network alone asks for: the target without the configured bounds.
uint32 MinimumDelay(const tagPlayoutInfo& stPlayout)
{
    return PlayoutTarget(stPlayout.dwBandWidth, stPlayout.dwExWaitTick, 0, c_dwNone32);
}

} // namespace

// ---- Sequences -------------------------------------------------------------------------------------------------

void CUdtSeqMarks::Restart(uint32 dwSeq)
{
    m_aMarks.fill(0);
    m_dwTop = dwSeq;
    m_bAny = true;
    m_bStray = false;
}

CUdtSeqMarks::emPlace CUdtSeqMarks::Reach(uint32 dwSeq, bool bLeads)
{
    if (!m_bAny)
    {
        Restart(dwSeq);
        return PLACE_AHEAD;
    }
    if (IsRemembered(dwSeq))
        return PLACE_HERE;
    const uint32 dwForward = dwSeq - m_dwTop;
    // Only the stream's own packets may leap: a request never lies far ahead of them.
    if (dwForward < (bLeads ? c_dwMaxJump : c_dwSpan))
    {
        if (dwForward >= c_dwSpan)
            m_aMarks.fill(0);
        else
            for (uint32 dw = m_dwTop + 1; dw != dwSeq + 1; ++dw)
                At(dw) = 0;
        m_dwTop = dwSeq;
        return PLACE_AHEAD;
    }
    if (!bLeads)
        return PLACE_OUTSIDE;
    if (m_bStray && dwSeq == m_dwNextStray)
    {
        Restart(dwSeq);
        return PLACE_RESTARTED;
    }
    m_bStray = true;
    m_dwNextStray = dwSeq + 1;
    return PLACE_OUTSIDE;
}

// ---- Frames ----------------------------------------------------------------------------------------------------

bool tagFrameParts::Add(uint8 cPkgIndex, uint8 cPkgNum)
{
    cTotal = std::max(cTotal, cPkgNum); // a sender that does not know yet how long the frame gets tells less
    uint32& dwBits = aBits[cPkgIndex / 32];
    const uint32 dwBit = 1u << cPkgIndex % 32;
    if (cPkgIndex >= cPkgNum || (dwBits & dwBit) != 0)
        return false; // no data packet, or a repeat
    dwBits |= dwBit;
    ++wHave;
    if (bDone || wHave < cTotal)
        return false;
    bDone = true;
    return true;
}

// ---- The stream ------------------------------------------------------------------------------------------------

CUdtStreamCounts::CUdtStreamCounts(uint8 cSubType)
    : m_bVideo(UdtStatsKind(cSubType) != nullptr && cSubType != MEAVAudio), m_bAudio(cSubType == MEAVAudio)
{
}

void CUdtStreamCounts::Came(const tagCame& stCame)
{
    const CUdtSeqMarks::emPlace ePlace = m_marks.Reach(stCame.dwSeq, true);
    bool bFirst = true;
    bool bAsked = false;
    if (ePlace != CUdtSeqMarks::PLACE_OUTSIDE)
    {
        uint8& cMarks = m_marks.At(stCame.dwSeq);
        bFirst = (cMarks & CUdtSeqMarks::MARK_CAME) == 0;
        bAsked = (cMarks & CUdtSeqMarks::MARK_ASKED) != 0;
        cMarks |= CUdtSeqMarks::MARK_CAME;
    }
    CountSequence(stCame.dwSeq, bFirst, ePlace);
    m_ullAskedCame += bAsked && bFirst ? 1 : 0;
    if (stCame.bRetransmitted)
    {
        m_bRetransmittedTold = true;
        m_ullToldRetransmitted += *stCame.bRetransmitted ? 1 : 0;
    }

    ++m_ullCame;
    m_ullBytes += stCame.dwBytes;
    m_ullPayload += stCame.dwPayloadBytes.value_or(0);
    m_bPayloadKnown = m_bPayloadKnown && stCame.dwPayloadBytes;
    m_ullRepeats += bFirst ? 0 : 1;
    m_ullCameTick = m_ullLastTick = stCame.ullTick;
    if (ePlace == CUdtSeqMarks::PLACE_RESTARTED)
        m_bTransit = false; // a media clock of its own: there is nothing yet to compare with
    if (ePlace != CUdtSeqMarks::PLACE_OUTSIDE && bFirst && !bAsked && !stCame.bRetransmitted.value_or(false))
        CountJitter(stCame);
    if (m_bVideo)
        CountFrameIn(stCame.stHead);
}

// Expected and received as RFC 3550 counts them: a sequence from far away counts only when the next one follows it.
void CUdtStreamCounts::CountSequence(uint32 dwSeq, bool bFirst, CUdtSeqMarks::emPlace ePlace)
{
    if (ePlace == CUdtSeqMarks::PLACE_OUTSIDE)
        return;
    if (ePlace == CUdtSeqMarks::PLACE_RESTARTED)
    {
        m_llExpected += 2; // the stray before it was the first of the new numbering
        m_llCounted += 2;
        m_dwHighestCame = dwSeq;
        m_bDeciding = false;
    }
    else
    {
        const int32 nAhead = (int32)(dwSeq - m_dwHighestCame);
        if (m_llCounted == 0)
            m_llExpected = 1;
        else if (nAhead > 0)
            m_llExpected += nAhead;
        if (m_llCounted == 0 || nAhead > 0)
            m_dwHighestCame = dwSeq;
        ++m_llCounted;
    }
    // Where deciding begins: at the lowest that came before anything was released.
    if (!m_bDeciding || (bFirst && !m_bAnyOut && (int32)(dwSeq - m_dwNextDecided) < 0))
        m_dwNextDecided = dwSeq;
    m_bDeciding = true;
}

void CUdtStreamCounts::CountJitter(const tagCame& stCame)
{
    const uint32 dwTransit = (uint32)stCame.ullTick - stCame.stHead.uTimeStamp;
    if (m_bTransit)
    {
        const int64_t llStep = (int32)(dwTransit - m_dwLastTransit);
        m_dJitterMs += ((double)(llStep < 0 ? -llStep : llStep) - m_dJitterMs) / 16;
        m_bJitter = true;
    }
    m_dwLastTransit = dwTransit;
    m_bTransit = true;
}

void CUdtStreamCounts::CountFrameIn(const tagUdtPacketHeadInfo& stHead)
{
    m_bKeySeen = m_bKeySeen || stHead.cFrmType == def_FrameType_I;
    if (stHead.cFecPkgCount != 0 && stHead.cPkgIndex >= stHead.cTotalPkgCount)
        ++m_ullFecCame;
    if (!m_pFrames)
        m_pFrames = std::make_unique<FrameRing>();
    FrameRing& ring = *m_pFrames;

    // A newer timestamp begins a frame. An older one is looked for from the frame begun last backwards.
    const bool bNewest = m_ullFrames == 0 || (int32)(stHead.uTimeStamp - m_dwNewestFrame) > 0;
    tagFrameParts* pstFrame = nullptr;
    const uint64 ullKept = bNewest ? 0 : std::min<uint64>(m_ullFrames, ring.size());
    for (uint64 ull = 1; ull <= ullKept && pstFrame == nullptr; ++ull)
    {
        tagFrameParts& stFrame = ring[(m_ullFrames - ull) % ring.size()];
        if (stFrame.dwTimeStamp == stHead.uTimeStamp)
            pstFrame = &stFrame;
    }
    if (pstFrame == nullptr)
    {
        pstFrame = &ring[m_ullFrames++ % ring.size()];
        *pstFrame = tagFrameParts();
        pstFrame->dwTimeStamp = stHead.uTimeStamp;
        if (bNewest)
            m_dwNewestFrame = stHead.uTimeStamp;
    }
    if (pstFrame->Add(stHead.cPkgIndex, stHead.cTotalPkgCount))
        ++m_ullFramesCame;
}

void CUdtStreamCounts::Released(const tagDataPacket& stPacket, uint64 ullTick,
                                const tagPlayoutInfo* pstPlayout)
{
    const uint32 dwSeq = stPacket.dwSenderSeq;
    const uint32 dwTargetMs = pstPlayout != nullptr ? pstPlayout->dwTarget : 0;
    const uint32 dwMinimumMs = pstPlayout != nullptr ? MinimumDelay(*pstPlayout) : 0;
    m_ullLastTick = ullTick;
    ++m_ullReleased;
    m_ullDelayMs += (uint32)ullTick - stPacket.dwRecvTime;
    m_ullTargetMs += dwTargetMs;
    m_ullMinimumMs += dwMinimumMs;
    m_bTargetsKnown = m_bTargetsKnown && pstPlayout != nullptr;

    // Packets that come in past the door are first seen here, and lead the numbering here.
    if (m_marks.Reach(dwSeq, m_ullCame == 0) == CUdtSeqMarks::PLACE_OUTSIDE)
        return; // a leftover of a numbering that has ended
    uint8& cMarks = m_marks.At(dwSeq);
    if (m_ullCame == 0 && (cMarks & CUdtSeqMarks::MARK_ASKED) != 0)
        m_ullAskedCame += (cMarks & CUdtSeqMarks::MARK_RELEASED) == 0 ? 1 : 0;
    cMarks |= CUdtSeqMarks::MARK_RELEASED;

    if (m_bAnyOut && m_marks.IsRemembered(m_dwHighestOut) && (int32)(dwSeq - m_dwHighestOut) <= 0)
    {
        ++m_ullLate; // and its frame has left before
        return;
    }
    m_bAnyOut = true;
    m_dwHighestOut = dwSeq;
    if (m_bDeciding)
        PassDiscarded(dwSeq);
    if (m_bVideo)
        CountFrameOut(stPacket, ullTick, dwTargetMs, dwMinimumMs);
}

// What came and lies well behind the releases without having been released was let go in between.
void CUdtStreamCounts::PassDiscarded(uint32 dwSeq)
{
    const uint32 dwEnd = dwSeq - c_dwUdtDiscardLag;
    const uint32 dwLowest = m_marks.Top() - (CUdtSeqMarks::c_dwSpan - 1);
    if ((int32)(m_dwNextDecided - dwLowest) < 0)
        m_dwNextDecided = dwLowest;
    for (; (int32)(dwEnd - m_dwNextDecided) > 0; ++m_dwNextDecided)
    {
        const uint8 cMarks = m_marks.At(m_dwNextDecided);
        if ((cMarks & (CUdtSeqMarks::MARK_CAME | CUdtSeqMarks::MARK_RELEASED)) == CUdtSeqMarks::MARK_CAME)
            ++m_ullDiscarded;
    }
}

void CUdtStreamCounts::CountFrameOut(const tagDataPacket& stPacket, uint64 ullTick, uint32 dwTargetMs,
                                     uint32 dwMinimumMs)
{
    if (!m_bOutOpen || m_stOut.dwTimeStamp != stPacket.dwTimeStamp)
    {
        if (m_bOutOpen && !m_stOut.bDone)
            EmitFrame(); // it leaves incomplete
        m_stOut = tagFrameParts();
        m_stOut.dwTimeStamp = stPacket.dwTimeStamp;
        m_bOutOpen = true;
        m_bOutKey = stPacket.cFrmType == def_FrameType_I;
        m_bKeySeen = m_bKeySeen || m_bOutKey;
        m_dwOutFirstCame = stPacket.dwRecvTime;
        ++m_ullFramesOut;
        m_ullKeysOut += m_bOutKey ? 1 : 0;
    }
    if (m_stOut.bDone)
        return; // what follows a whole frame are its FEC packets
    if ((int32)(stPacket.dwRecvTime - m_dwOutFirstCame) < 0)
        m_dwOutFirstCame = stPacket.dwRecvTime;
    m_dwOutLastTick = (uint32)ullTick;
    m_dwOutTargetMs = dwTargetMs;
    m_dwOutMinimumMs = dwMinimumMs;
    if (m_stOut.Add(stPacket.cPkgIndex, stPacket.cPkgNum))
    {
        ++m_ullFramesWhole;
        m_ullKeysWhole += m_bOutKey ? 1 : 0;
        EmitFrame();
    }
}

void CUdtStreamCounts::EmitFrame()
{
    ++m_ullEmitted;
    m_ullFrameDelayMs += m_dwOutLastTick - m_dwOutFirstCame;
    m_ullFrameTargetMs += m_dwOutTargetMs;
    m_ullFrameMinimumMs += m_dwOutMinimumMs;
}

void CUdtStreamCounts::Requested(uint32 dwSeq, uint64 ullMessage, uint64 ullTick)
{
    m_ullLastTick = ullTick;
    if (m_ullMessages == 0 || m_ullLastMessage != ullMessage)
        ++m_ullMessages;
    m_ullLastMessage = ullMessage;
    ++m_ullAsked;

    if (m_marks.Reach(dwSeq, false) == CUdtSeqMarks::PLACE_OUTSIDE)
        return;
    uint8& cMarks = m_marks.At(dwSeq);
    m_ullAskedOnce += (cMarks & CUdtSeqMarks::MARK_ASKED) == 0 ? 1 : 0;
    cMarks |= CUdtSeqMarks::MARK_ASKED;
}

void CUdtStreamCounts::Fill(tagUdtStreamStats& st, bool bReleasesSeen) const
{
    if (m_ullCame != 0)
    {
        st.packetsReceived = m_ullCame;
        st.packetsLost = m_llExpected - m_llCounted;
        if (m_bJitter)
            st.jitter = m_dJitterMs / c_dSecond;
        st.packetsDiscarded = m_ullDiscarded;
        if (m_bPayloadKnown)
            st.bytesReceived = m_ullPayload;
        st.lastPacketReceivedTick = m_ullCameTick;
        st.packetsDuplicated = m_ullRepeats;
        st.packetBytesReceived = m_ullBytes;
        if (m_bVideo)
        {
            st.fecPacketsReceived = m_ullFecCame;
            st.framesReceived = m_ullFramesCame;
        }
    }
    if (m_bRetransmittedTold)
        st.retransmittedPacketsReceived = m_ullToldRetransmitted;
    st.nackCount = m_ullMessages;
    st.packetsRequested = m_ullAsked;
    st.packetsRequestedUnique = m_ullAskedOnce;
    st.requestedPacketsReceived = m_ullAskedCame;
    if (bReleasesSeen)
        FillReleases(st);
}

void CUdtStreamCounts::FillReleases(tagUdtStreamStats& st) const
{
    st.packetsReleased = m_ullReleased;
    st.packetsReleasedLate = m_ullLate;
    st.packetBufferDelay = (double)m_ullDelayMs / c_dSecond;
    if (m_bTargetsKnown)
    {
        st.packetTargetDelay = (double)m_ullTargetMs / c_dSecond;
        st.packetMinimumDelay = (double)m_ullMinimumMs / c_dSecond;
    }
    if (m_bAudio && m_nPlayDelay)
        st.audioPlayDelay = *m_nPlayDelay / c_dSecond;
    if (!m_bVideo)
        return;
    st.framesReleased = m_ullFramesOut;
    st.framesReleasedComplete = m_ullFramesWhole;
    st.keyFramesReleased = m_ullKeysOut;
    st.keyFramesReleasedComplete = m_ullKeysWhole;
    st.jitterBufferEmittedCount = m_ullEmitted;
    st.jitterBufferDelay = (double)m_ullFrameDelayMs / c_dSecond;
    if (m_bTargetsKnown)
    {
        st.jitterBufferTargetDelay = (double)m_ullFrameTargetMs / c_dSecond;
        st.jitterBufferMinimumDelay = (double)m_ullFrameMinimumMs / c_dSecond;
    }
}
