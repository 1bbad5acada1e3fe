// What a sender sends, and when. Frames lie on a grid of the sender's own clock, which may run fast or slow; the
// media times of all streams of a user are read off that clock.

#include "SimSender.h"

#include "IUDT.h"

#include <algorithm>
#include <cmath>

namespace lab
{

CSimSender::CSimSender(const tagSimUsers& stUsers, uint32 uUser, uint32 uInGroup, int64 llEndUs,
                       uint64 ullSeed, ISimStreamMaker& maker)
    : m_stUsers(stUsers), m_uUser(uUser), m_llEndUs(llEndUs), m_random(ullSeed, "sender", uUser),
      m_maker(maker)
{
    double dPpm = stUsers.dSkewPpm;
    if (stUsers.uCount > 1)
        dPpm += stUsers.dSkewSpreadPpm * (2.0 * uInGroup / (stUsers.uCount - 1) - 1);
    else
        dPpm += stUsers.dSkewSpreadPpm;
    m_llSkewPpb = llround(dPpm * 1000);

    tagSimDeed stDeed;
    stDeed.llAtUs = stUsers.llJoinUs + stUsers.llJoinEveryUs * uInGroup;
    m_vecDeeds = stUsers.vecDeeds;
    m_vecDeeds.push_back(stDeed);
    if (stUsers.llLeaveUs >= 0)
    {
        stDeed.llAtUs = stUsers.llLeaveUs;
        stDeed.eDeed = SIM_LEAVE;
        m_vecDeeds.push_back(stDeed);
    }
    std::stable_sort(m_vecDeeds.begin(), m_vecDeeds.end(),
                     [](const tagSimDeed& a, const tagSimDeed& b) { return a.llAtUs < b.llAtUs; });

    for (int i = 0; i < SIM_STREAMS; i++)
    {
        tagTrack& st = m_aTracks[(size_t)i];
        if (i == SIM_AUDIO)
        {
            st.llStepUs = stUsers.stAudio.llPacketUs;
            st.dPacketsPerSecond = 1e6 / (double)st.llStepUs;
        }
        else
        {
            const tagSimVideo& stVideo = stUsers.aVideo[(size_t)i];
            st.llStepUs = llround(1e6 / stVideo.dFps);
            st.dPacketsPerSecond = stVideo.uKbps * 125.0 / stVideo.uMtu + stVideo.dFps * (1 + stVideo.uFec);
        }
        // Nobody's cameras and microphones tick together.
        st.llPhaseUs = (int64)m_random.Below((uint64)st.llStepUs);
        st.cGop = stUsers.stFirst.cGop;
    }
    Refresh();
}

bool CSimSender::Has(int nKind) const
{
    return nKind == SIM_AUDIO ? m_stUsers.stAudio.bOn : m_stUsers.aVideo[(size_t)nKind].bOn;
}

// The real time at which the sender's clock shows that.
int64 CSimSender::RealUs(int64 llClockUs) const
{
    return llClockUs - MulDiv(llClockUs, m_llSkewPpb, 1000000000 + m_llSkewPpb);
}

void CSimSender::Refresh()
{
    m_llNextUs = m_resends.NextUs();
    if (m_nDeed < m_vecDeeds.size() && m_vecDeeds[m_nDeed].llAtUs < m_llEndUs)
        m_llNextUs = std::min(m_llNextUs, m_vecDeeds[m_nDeed].llAtUs);
    for (const tagTrack& st : m_aTracks)
        m_llNextUs = std::min(m_llNextUs, st.llNextUs);
}

bool CSimSender::Take(tagSimPacket& stPacket)
{
    const int64 llNowUs = m_llNextUs;
    bool bOut = false;
    if (m_nDeed < m_vecDeeds.size() && m_vecDeeds[m_nDeed].llAtUs <= llNowUs)
        Do(m_vecDeeds[m_nDeed++]);
    else if (m_resends.NextUs() <= llNowUs)
    {
        stPacket = m_resends.Pop();
        bOut = true;
    }
    else
        for (int i = 0; i < SIM_STREAMS && !bOut; i++)
        {
            tagTrack& st = m_aTracks[(size_t)i];
            if (st.llNextUs > llNowUs)
                continue;
            Send(st, i, llNowUs, stPacket);
            bOut = true;
        }
    Refresh();
    return bOut;
}

void CSimSender::Resend(int64 llNowUs, const tagSimPacket& stPacket)
{
    m_resends.Push(llNowUs, stPacket);
    Refresh();
}

void CSimSender::Do(const tagSimDeed& stDeed)
{
    const bool bWasIn = m_bIn;
    if (stDeed.eDeed == SIM_JOIN)
        m_bIn = true;
    if (stDeed.eDeed == SIM_LEAVE)
        m_bIn = false;
    const bool bAnew = m_bIn && !bWasIn && m_stUsers.bRestart;
    for (int i = 0; i < SIM_STREAMS; i++)
    {
        tagTrack& st = m_aTracks[(size_t)i];
        if (!Has(i))
            continue;
        if (bAnew)
            st.pStream = nullptr;
        if ((stDeed.uStreams >> i & 1) != 0 && stDeed.eDeed >= SIM_MUTE)
            st.bMuted = stDeed.eDeed == SIM_MUTE;
        const bool bRuns = m_bIn && !st.bMuted;
        if (bRuns && st.llNextUs == c_llNever)
            Begin(st, i, stDeed.llAtUs);
        else if (!bRuns)
            Halt(st);
    }
    if (bAnew)
        m_uEpoch++;
}

void CSimSender::Begin(tagTrack& stTrack, int nKind, int64 llNowUs)
{
    if (!stTrack.pStream)
    {
        stTrack.pStream =
            &m_maker.NewStream(m_uUser, nKind, m_uEpoch, m_stUsers.stFirst, stTrack.dPacketsPerSecond);
        stTrack.cGop = m_stUsers.stFirst.cGop;
    }
    stTrack.bFresh = true;
    const int64 llClockUs = ClockUs(llNowUs);
    stTrack.llFrame =
        std::max<int64>(0, (llClockUs - stTrack.llPhaseUs + stTrack.llStepUs - 1) / stTrack.llStepUs);
    Schedule(stTrack, llNowUs);
}

void CSimSender::Halt(tagTrack& stTrack)
{
    stTrack.llNextUs = c_llNever;
    stTrack.uLeft = 0;
}

// The next frame, not before the last packet of this one is out.
void CSimSender::Schedule(tagTrack& stTrack, int64 llNotBeforeUs)
{
    const int64 llCaptureUs = RealUs(stTrack.llPhaseUs + stTrack.llFrame * stTrack.llStepUs);
    stTrack.llNextUs = std::max(llCaptureUs, llNotBeforeUs);
    if (stTrack.llNextUs >= m_llEndUs)
        Halt(stTrack);
}

void CSimSender::StartFrame(tagTrack& stTrack, int nKind)
{
    const int64 llClockUs = stTrack.llPhaseUs + stTrack.llFrame * stTrack.llStepUs;
    stTrack.llFrame++;
    tagSimRecord& st = stTrack.stFrame;
    st = tagSimRecord();
    st.dwMediaMs = m_stUsers.stFirst.dwMediaMs + (uint32)(llClockUs / 1000);
    if (nKind == SIM_AUDIO)
    {
        st.cFrmType = def_FrameType_P;
        st.cPkgNum = 1;
        stTrack.uLeft = 1;
        stTrack.uBytesLeft =
            std::max<uint32>(40, (uint32)(m_stUsers.stAudio.uKbps * stTrack.llStepUs / 8000));
        return;
    }
    const tagSimVideo& stVideo = m_stUsers.aVideo[(size_t)nKind];
    const bool bI = stTrack.bFresh || stTrack.uFrameInGop >= stVideo.uGop;
    if (bI)
    {
        if (stTrack.pStream->Next() != 0)
            stTrack.cGop++;
        stTrack.uFrameInGop = 0;
        stTrack.pStream->BeginGop();
    }
    stTrack.bFresh = false;
    const double dP =
        stVideo.uKbps * 125.0 / stVideo.dFps * stVideo.uGop / (stVideo.uGop - 1 + stVideo.dIRatio);
    const double dSpread = 1 + (2 * m_random.Uniform() - 1) * stVideo.dSpread / 100;
    stTrack.uBytesLeft = std::max<uint32>(60, (uint32)(dP * (bI ? stVideo.dIRatio : 1.0) * dSpread));
    const uint32 uPackets =
        std::min<uint32>(255 - stVideo.uFec, (stTrack.uBytesLeft + stVideo.uMtu - 1) / stVideo.uMtu);
    stTrack.uLeft = uPackets + stVideo.uFec;
    st.cFrmType = bI ? def_FrameType_I : def_FrameType_P;
    st.cPkgNum = (uint8)uPackets;
    st.cFecNum = (uint8)stVideo.uFec;
    st.cFrmIdx = (uint8)stTrack.uFrameInGop++; // modulo 256: the head has eight bits for it
    st.cGopIdx = stTrack.cGop;
}

void CSimSender::Send(tagTrack& stTrack, int nKind, int64 llNowUs, tagSimPacket& stPacket)
{
    if (stTrack.uLeft == 0)
        StartFrame(stTrack, nKind);
    tagSimRecord& st = stTrack.stFrame;
    const uint32 uData = st.cPkgIndex < st.cPkgNum ? (uint32)(st.cPkgNum - st.cPkgIndex) : 0;
    uint32 uBytes = 0;
    if (uData > 0) // evenly over the frame's packets
    {
        uBytes = (stTrack.uBytesLeft + uData - 1) / uData;
        stTrack.uBytesLeft -= uBytes;
    }
    else
        uBytes = st.wBytes; // FEC packets are as large as the data packets before them
    st.wBytes = (uint16)std::min<uint32>(uBytes, 65000);

    tagSimRecord& stRecord = stTrack.pStream->Append();
    const uint32 uIndex = stRecord.uIndex;
    const uint16 wMarks = stRecord.wMarks;
    stRecord = st;
    stRecord.uIndex = uIndex;
    stRecord.wMarks = wMarks;
    stRecord.llSentUs = llNowUs;

    stPacket = tagSimPacket();
    stPacket.uStream = stTrack.pStream->m_uNumber;
    stPacket.uIndex = uIndex;
    stPacket.wBytes = st.wBytes;
    stPacket.cKind = SIM_MEDIA;

    st.cPkgIndex++;
    stTrack.uLeft--;
    const int64 llPaceUs = nKind == SIM_AUDIO ? 0 : m_stUsers.aVideo[(size_t)nKind].llPaceUs;
    if (stTrack.uLeft > 0)
        stTrack.llNextUs = llNowUs + llPaceUs;
    else
        Schedule(stTrack, llNowUs + llPaceUs);
}

} // namespace lab
