/**
 * When a packet leaves.
 *
 * In go the packets' arrival times (the transit band) and the turns (the clocks); out go the packets that are
 * due, through the owner's callback, in sequence order per stream. Worker thread only, no lock held. A turn
 * advances every user's clock before any stream is looked at, so all streams of a user are judged against the
 * same clock.
 */

#include "AVGUDTRecv.h"

#include "AVGUDTRecvInner.h"
#include "AVGUDTRecvRules.h"

#include <algorithm>

namespace
{

constexpr uint32 c_dwGateHold = 500;         // ms that a new stream is held back for its first I frame
constexpr uint32 c_dwSlowCallbackSpan = 101; // ms in an audio callback that are worth a line

// A gap that loss detection has not announced. Reported, never acted on; a sequence that went backwards looks
// like a huge gap and is reported too.
void CheckContinuity(const char* pszOper, const tagUinDataBuf& stUinDataBuf, const tagDataPacket& stPkt)
{
    if (stUinDataBuf.dwOutSendSeq == c_dwNone32)
        return;
    const uint32 dwGap = stPkt.dwSenderSeq - stUinDataBuf.dwOutSendSeq;
    if (dwGap >= 2 && stPkt.cPrePkgLost == 0)
        RECV_LOG(LOG_LEVEL_DEBUG, pszOper, "PrePkgLost is Error! %u,%u", stPkt.dwSenderSeq, dwGap);
}

void BookRelease(tagUinDataBuf& stUinDataBuf, const tagDataPacket& stPkt, int nAudDelayRTS, uint32 dwTick)
{
    stUinDataBuf.dwOutOfOrderCnt = 0;
    stUinDataBuf.dwLastOutPkgMETimeStamp = stPkt.dwMETimeStamp;
    stUinDataBuf.dwLastOutPkgHeadTS = stPkt.dwTimeStamp;
    stUinDataBuf.dwAudPlayDelayRTS = (uint32)nAudDelayRTS;
    stUinDataBuf.dwLastOutPkgTick = dwTick;
    stUinDataBuf.dwCurTotalLost += stPkt.cPrePkgLost;
    stUinDataBuf.stStatInfo.dwTotalLossPkgNum += stPkt.cPrePkgLost;
    stUinDataBuf.stUinRecvPkgStat.RecvData(stPkt.dwSenderSeq);
    if (stUinDataBuf.dwStartTimeStamp == 0 || stUinDataBuf.dwOutSendSeq == c_dwNone32)
        stUinDataBuf.dwStartTimeStamp = stPkt.dwMETimeStamp;
    stUinDataBuf.dwOutSendSeq = stPkt.dwSenderSeq;
}

// A loss right before a released packet: wait longer for the next ones.
void WidenTarget(tagUinDataInfo& stUinDataInfo, uint32 dwExWaitTick)
{
    stUinDataInfo.dwExWaitTick = dwExWaitTick;
    stUinDataInfo.dwFastFactor = c_dwFastFactor;
}

// Level of a release's trace: one line at the level that is always written when it was asked for, then the
// request is taken back.
UDT_LOG_LEVEL TakeTraceLevel(uint32 dwLogPrintFlagAll, tagUinDataBuf& stUinDataBuf)
{
    if (dwLogPrintFlagAll == 0 && (stUinDataBuf.dwLogPrintFlag & LOG_OUT) == 0)
        return LOG_LEVEL_DEBUG;
    stUinDataBuf.dwLogPrintFlag &= ~(uint32)LOG_OUT;
    return LOG_LEVEL_ERROR;
}

// A cheap look before the full one: does the first packet of a running stream wait for its time?
bool IsNothingDue(const MapUinInPkt::value_type& stStream, const MapUinDataInfo::value_type& stUser)
{
    const tagUinDataBuf& stUinDataBuf = stStream.second;
    if (stUinDataBuf.dwOutPutDelayFlag == 0 || stUinDataBuf.dwOutSendSeq == c_dwNone32)
        return false;
    const tagPktNode* const pFirst = stUinDataBuf.mapUdtPacket.Head();
    if (pFirst == nullptr)
        return true;
    const uint32 dwPlayDelay = stStream.first.cSubType == MEAVAudio ? stUinDataBuf.dwAudPlayDelayRTS : 0;
    return pFirst->Pkt().llAccount == stUser.first && stUser.second.dwTimelineOut != 0 &&
           pFirst->Pkt().dwMETimeStamp > stUser.second.dwTimelineOut + dwPlayDelay;
}

} // namespace

// ---- Output scheduler ----------------------------------------------------------------------------------------

void CAVGUdtRecv::OutPacket()
{
    if (m_dwRoomLogicState != c_dwRoomStatePlaying)
        return;
    for (MapUinDataInfo::value_type& stUser : m_mapUinDataInfo)
        CalcTimelineOutNew(stUser.first, stUser.second);

    // Both maps are in order of accounts, so the user of each stream is found by the way.
    MapUinDataInfo::const_iterator itUser = m_mapUinDataInfo.begin();
    for (MapUinInPkt::value_type& stStream : m_mapUinInPkt)
    {
        while (itUser != m_mapUinDataInfo.end() && itUser->first < stStream.first.ullUserAccount)
            ++itUser;
        if (itUser != m_mapUinDataInfo.end() && IsNothingDue(stStream, *itUser) &&
            m_dwRoomLogicState == c_dwRoomStatePlaying) // a callback may have ended that
            continue;
        if (stStream.first.cSubType == MEAVAudio)
            OutPacketAudioNew(stStream.second);
        else
            OutPacketVideoNew(stStream.second);
    }
}

// ---- Transit band --------------------------------------------------------------------------------------------

void CAVGUdtRecv::CalcTimelineMaxMin(tagDataPacket& dataPacket)
{
    MoveBand(FindOrCreateUser(dataPacket.llAccount), dataPacket, TickNow());
}

void CAVGUdtRecv::MoveBand(tagUinDataInfo& stInfo, const tagDataPacket& dataPacket, uint32 dwNow)
{
    const bool bLowLatency = IsLowLatency();
    const uint32 dwChangeRange = BandChangeRange(bLowLatency);
    const uint32 dwTimeLine = TransitOffset(dwNow, dataPacket.dwTimeStamp);

    stInfo.dwTimelineMin = FollowBandMin(stInfo.dwTimelineMin, dwTimeLine, dwChangeRange);

    if (stInfo.dwVidResetTimelineMin == VID_RESET_ASKED)
    {
        RECV_LOG(LOG_LEVEL_ERROR, "CalcTimelineMaxMin",
                 "Reset_TimelineMax: subtype %1d seq %5d %5d oldmin %u oldmax %u dwTimeLine %u delta %d",
                 dataPacket.cSubType, dataPacket.dwSenderSeq, dataPacket.dwSeq, stInfo.dwTimelineMin.Get(),
                 stInfo.dwTimelineMax.Get(), dwTimeLine, dwTimeLine - stInfo.dwTimelineMin);
        stInfo.dwTimelineMax = ResetBandMax(stInfo.dwTimelineMin, dwTimeLine, bLowLatency);
        stInfo.dwVidResetTimelineMin = VID_RESET_DONE;
    }

    if (dwTimeLine > stInfo.dwTimelineMax)
    {
        RECV_LOG(
            LOG_LEVEL_DEBUG, "CalcTimelineMaxMin",
            "AdjustLimit Max: SubType %1u Old-TimelineMax %u dwTimeLine %u Delta %4d new-Max-Min %d Seq %5d "
            "%5d UIN %llu",
            dataPacket.cSubType, stInfo.dwTimelineMax.Get(), dwTimeLine, dwTimeLine - stInfo.dwTimelineMax,
            dwTimeLine - stInfo.dwTimelineMin, dataPacket.dwSenderSeq, dataPacket.dwSeq,
            dataPacket.llAccount);
    }
    stInfo.dwTimelineMax = FollowBandMax(stInfo.dwTimelineMax, dwTimeLine, dwChangeRange);

    if (dataPacket.dwMETimeStamp > stInfo.dwTimelineIn)
        stInfo.dwTimelineIn = dataPacket.dwMETimeStamp;
}

// ---- Playout clock -------------------------------------------------------------------------------------------

void CAVGUdtRecv::CalcTimelineOutNew(uint64 ullAcount, tagUinDataInfo& stUinDataInfo)
{
    if (stUinDataInfo.dwTimelineOut == 0)
        return; // started by the user's first output
    const uint32 dwTickNow = TickNow();
    if (stUinDataInfo.dwLastCheckDeltaTime == 0)
    {
        stUinDataInfo.dwLastCheckDeltaTime = dwTickNow;
        return;
    }
    const uint32 dwTickDiff = dwTickNow - stUinDataInfo.dwLastCheckDeltaTime;
    if (dwTickDiff < c_dwClockMinAdvance)
        return;
    stUinDataInfo.dwLastCheckDeltaTime = dwTickNow;

    // Once a loss has been reported the extra wait follows the downlink for good.
    const bool bLowLatency = IsLowLatency();
    if (stUinDataInfo.dwExWaitTick != 0)
        stUinDataInfo.dwExWaitTick = LossExtraWait(bLowLatency, m_dwDownLoss100);

    const uint32 dwExtSmall = ClockExtSmall(bLowLatency);
    const uint32 dwExtBig = ClockExtBig(bLowLatency);
    const uint32 dwTarget =
        PlayoutTarget(stUinDataInfo.dwTimelineMax - stUinDataInfo.dwTimelineMin, stUinDataInfo.dwExWaitTick,
                      m_dwTimelineDelta, m_dwTimelineDeltaMax);
    const uint32 dwDataLen = DataLenAhead(stUinDataInfo.dwTimelineIn, stUinDataInfo.dwTimelineOut);

    // Until the band was reset for video it still holds the server's push; the clock keeps real time.
    const bool bBandUnsettled =
        stUinDataInfo.dwVidResetTimelineMin != VID_RESET_DONE && stUinDataInfo.dwHasVideo != 0;
    const int32 nStep = bBandUnsettled ? 0 : PlayoutStep(dwDataLen, dwTarget, dwExtSmall, dwExtBig);

    if (stUinDataInfo.dwTimelineOut + c_dwClockJumpLag < stUinDataInfo.dwTimelineIn)
    {
        const uint32 dwJumpTo = FindTimeStampJump(ullAcount, stUinDataInfo.dwTimelineOut);
        if (dwJumpTo != 0)
            stUinDataInfo.dwTimelineOut = dwJumpTo;
    }
    stUinDataInfo.dwTimelineOut =
        AdvanceClock(stUinDataInfo.dwTimelineOut, nStep, dwTickDiff, stUinDataInfo.dwFastFactor);

    if ((stUinDataInfo.dwLogPrintFlag & LOG_TIME_PARAM) != 0)
    {
        RECV_LOG(
            LOG_LEVEL_ERROR, "CalcTimelineOutNew",
            "CalcTimelineOutNew dwTimelineOut:%u TickDiff:%u Step:%d FastFactor:%u ExWaitTick:%u Target:%u "
            "DataLen:%u ExtBig:%u ExtSmall:%u TinyID:%llu",
            stUinDataInfo.dwTimelineOut.Get(), dwTickDiff, nStep, stUinDataInfo.dwFastFactor,
            stUinDataInfo.dwExWaitTick.Get(), dwTarget, dwDataLen, dwExtBig, dwExtSmall, ullAcount);
        stUinDataInfo.dwLogPrintFlag &= ~(uint32)LOG_TIME_PARAM;
    }
}

// Where a clock that lags far behind shall land: the user's earliest buffered packet, if even that lies well
// ahead. 0: stay.
uint32 CAVGUdtRecv::FindTimeStampJump(uint64 ullAcount, uint32 uTimelineOut)
{
    uint32 uMinTimeStamp = c_dwNone32;
    for (MapUinInPkt::const_iterator it = m_mapUinInPkt.lower_bound(tagInPktKey(ullAcount, 0));
         it != m_mapUinInPkt.end() && it->first.ullUserAccount == ullAcount; ++it)
    {
        const tagPktNode* const pFirst = it->second.mapUdtPacket.Head();
        if (pFirst != nullptr)
            uMinTimeStamp = std::min(uMinTimeStamp, pFirst->Pkt().dwMETimeStamp);
    }
    if (uMinTimeStamp == c_dwNone32 || uTimelineOut + c_dwClockJumpGap >= uMinTimeStamp)
        return 0;
    RECV_LOG(LOG_LEVEL_ERROR, "FindTimeStampJump",
             "FindTimeStampJump ullAcount:%llu,uTimelineOut:%u,uMinTimeStamp:%u", ullAcount, uTimelineOut,
             uMinTimeStamp);
    return uMinTimeStamp;
}

// ---- Stream gate ---------------------------------------------------------------------------------------------

// 1: hold the stream back. A new stream waits for its first I frame, audio for its video, 500 ms at most.
uint32 CAVGUdtRecv::OutPutDelay(tagUinDataBuf& stUinDataBuf)
{
    const uint32 dwTick = TickNow();
    uint32 dwFirstPkgTimeElp = 0;
    if (stUinDataBuf.dwRecvFirstPkgTime != 0)
    {
        dwFirstPkgTimeElp = dwTick - stUinDataBuf.dwRecvFirstPkgTime;
        if (dwTick < stUinDataBuf.dwRecvFirstPkgTime)
        {
            // The one place that compares ticks as they are: a wrap ends the wait instead of measuring it.
            stUinDataBuf.dwOutPutDelayFlag = 1;
            dwFirstPkgTimeElp = 0;
            RECV_LOG(LOG_LEVEL_ERROR, "OutPutDelay",
                     "OutPutDelay, tick overturn happened! tick %d dwRecvFirstPkgTime %d", dwTick,
                     stUinDataBuf.dwRecvFirstPkgTime);
        }
        if (!stUinDataBuf.mapUdtPacket.empty())
            OpenGateByMedia(stUinDataBuf);
    }
    if (dwFirstPkgTimeElp <= c_dwGateHold && stUinDataBuf.dwRecvIFlag != 1)
        return 1;

    stUinDataBuf.dwOutPutDelayFlag = 1;
    stUinDataBuf.dwRecvIFlag = 1;
    RECV_LOG(LOG_LEVEL_ERROR, "OutPutDelay", "Chn waiting for output is done, DelayTime %d GopCnt %d",
             dwFirstPkgTimeElp, stUinDataBuf.dwVidGopCnt);
    return 0;
}

// An I frame at the front opens its own gate and that of its audio; audio opens behind its video.
void CAVGUdtRecv::OpenGateByMedia(tagUinDataBuf& stUinDataBuf)
{
    const tagDataPacket& stFirst = stUinDataBuf.mapUdtPacket.Head()->Pkt();
    const MapUinInPkt::iterator itPair = GetAVMapUinPair(stFirst.llAccount, stFirst.cSubType);
    const bool bPaired = itPair != m_mapUinInPkt.end();
    if (stFirst.cSubType == MEAVAudio)
    {
        if (!bPaired || itPair->second.dwOutPutDelayFlag != 1)
            return;
    }
    else
    {
        if (stFirst.cFrmType != def_FrameType_I)
            return;
        if (bPaired)
        {
            itPair->second.dwRecvIFlag = 1;
            itPair->second.dwOutPutDelayFlag = 1;
        }
    }
    stUinDataBuf.dwRecvIFlag = 1;
    stUinDataBuf.dwOutPutDelayFlag = 1;
}

// ---- Output ------------------------------------------------------------------------------------------------

// The stream that a stream is kept in step with; the map's end when there is none. Audio goes with big video,
// and with sub video only where there is no big one.
MapUinInPkt::iterator CAVGUdtRecv::GetAVMapUinPair(uint64 llAccount, uint32 dwCurSubType)
{
    switch (dwCurSubType)
    {
    case MEAVAudio:
    {
        const MapUinInPkt::iterator it = m_mapUinInPkt.find(tagInPktKey(llAccount, MEAVMaxVideo));
        if (it != m_mapUinInPkt.end())
            return it;
        return m_mapUinInPkt.find(tagInPktKey(llAccount, MEAVSubVideo));
    }
    case MEAVMaxVideo:
    case MEAVSubVideo: return m_mapUinInPkt.find(tagInPktKey(llAccount, MEAVAudio));
    default: return m_mapUinInPkt.end();
    }
}

// The timeline of the user whose packet is first in the buffer, its clock started by that packet if nothing
// of the user was played before. Null: nothing buffered, or the user is being torn down.
tagUinDataInfo* CAVGUdtRecv::StartClock(tagUinDataBuf& stUinDataBuf, const char* pszOper)
{
    if (stUinDataBuf.mapUdtPacket.empty())
        return nullptr;
    const tagDataPacket& stFirst = stUinDataBuf.mapUdtPacket.Head()->Pkt();
    const MapUinDataInfo::iterator itUser = m_mapUinDataInfo.find(stFirst.llAccount);
    if (itUser == m_mapUinDataInfo.end())
        return nullptr;

    tagUinDataInfo& stInfo = itUser->second;
    if (stInfo.dwTimelineOut == 0)
    {
        stInfo.dwTimelineOut = stFirst.dwMETimeStamp;
        stInfo.dwLastCheckDeltaTime = TickNow();
        RECV_LOG(LOG_LEVEL_ERROR, pszOper, "TimelineOut Init %u Uin:%llu %s", stInfo.dwTimelineOut.Get(),
                 stFirst.llAccount, pszOper);
    }
    return &stInfo;
}

// Lends one packet to the owner. Returns the play delay that the owner wrote back, ms.
int CAVGUdtRecv::HandOutPacket(const tagDataPacket& dataPacket)
{
    int nAudDelayRTS = 0;
    m_pstReleasing = &dataPacket;
    if (m_pCB != nullptr)
        m_pCB->OnUDTRecvOutData(dataPacket.pRawData.p, &nAudDelayRTS);
    m_pstReleasing = nullptr;
    return nAudDelayRTS;
}

// Before a stream's first release: drops audio older than what its video began with, so that sound and
// picture start together. False: the buffer ran empty.
bool CAVGUdtRecv::SkipAtBeginning(tagUinDataBuf& stUinDataBuf, tagPktNode*& pNode)
{
    while (stUinDataBuf.dwOutSendSeq == c_dwNone32)
    {
        const tagDataPacket& stPkt = pNode->Pkt();
        const MapUinInPkt::iterator itPair = GetAVMapUinPair(stPkt.llAccount, stPkt.cSubType);
        if (itPair == m_mapUinInPkt.end())
            break;
        const uint32 dwStartTimeStamp = itPair->second.dwStartTimeStamp;
        const uint32 dwMETimeStamp = stPkt.dwMETimeStamp;
        if (dwStartTimeStamp == 0 || dwMETimeStamp >= dwStartTimeStamp)
            break;

        pNode = UnbufferPacket(stUinDataBuf, pNode);
        RECV_LOG(LOG_LEVEL_ERROR, "OutPacketAudioNew",
                 "OutPacketAudioNew skip packet at beginning StartStamp:%lu PacketStamp:%lu",
                 (unsigned long)dwStartTimeStamp, (unsigned long)dwMETimeStamp);
        if (pNode == nullptr)
            return false;
    }
    return true;
}

UDT_PER_PACKET uint32 CAVGUdtRecv::OutPacketAudioNew(tagUinDataBuf& stUinDataBuf)
{
    if (m_dwRoomLogicState != c_dwRoomStatePlaying)
    {
        RECV_LOG(LOG_LEVEL_ERROR, "OutPacketAudioNew", "OutPacketAudioNew RoomState:%u is Wrong!",
                 m_dwRoomLogicState.Get());
        return 0;
    }
    if (stUinDataBuf.dwOutPutDelayFlag == 0 && OutPutDelay(stUinDataBuf) != 0)
        return 0;
    tagUinDataInfo* pstInfo = StartClock(stUinDataBuf, "OutPacketAudioNew");
    if (pstInfo == nullptr)
        return 0;

    // One play delay for the whole turn, although each release below reports a newer one.
    const uint32 uAudPlayDelay = stUinDataBuf.dwAudPlayDelayRTS;
    uint32 dwOutPkgCnt = 0;
    tagPktNode* pNode = stUinDataBuf.mapUdtPacket.Head();
    while (pNode != nullptr)
    {
        if (!SkipAtBeginning(stUinDataBuf, pNode))
            break;
        const tagDataPacket& stPkt = pNode->Pkt();
        if (stPkt.dwMETimeStamp > pstInfo->dwTimelineOut + uAudPlayDelay)
            break;

        const uint32 uBefore = TickNow();
        const int nAudDelayRTS = HandOutPacket(stPkt);
        const uint32 uAfter = TickNow(); // the owner may have taken its time
        if (TickReached(uAfter, uBefore, c_dwSlowCallbackSpan))
        {
            RECV_LOG(LOG_LEVEL_ERROR, "OutPacketAudioNew",
                     "OutPacketAudioNew CallBack Take %u, more than 100ms", uAfter - uBefore);
        }
        CheckContinuity("OutPacketAudioNew", stUinDataBuf, stPkt);
        BookRelease(stUinDataBuf, stPkt, nAudDelayRTS, uAfter);
        if (stPkt.cPrePkgLost != 0)
        {
            WidenTarget(*pstInfo, AudioLossExtraWait(IsLowLatency(), m_dwDownLoss100));
            RECV_LOG(LOG_LEVEL_ERROR, "OutPacketAudioNew",
                     "OutPacketAudioNew lost %d Packets Before %u ExWaitTick %u", stPkt.cPrePkgLost,
                     stPkt.dwSenderSeq, pstInfo->dwExWaitTick.Get());
        }
        const UDT_LOG_LEVEL eTrace = TakeTraceLevel(m_LogPrintFlag, stUinDataBuf);
        RECV_LOG(
            eTrace, "OutPacketAudioNew",
            "OutPacketNew Subtype:%d Seq:%u %u TimelineOut:%u METimeStamp:%u DataLen:%u Jitter:%u Tickout:%u "
            "FrameType:%d GOP:%d FrameIdx:%d TotalPkg:%d AudPlayDelay:%u Uin:%llu OutStamp:%u",
            stPkt.cSubType, stPkt.dwSenderSeq, stPkt.dwSeq, pstInfo->dwTimelineOut.Get(), stPkt.dwMETimeStamp,
            DataLenAhead(pstInfo->dwTimelineIn, pstInfo->dwTimelineOut),
            pstInfo->dwTimelineMax - pstInfo->dwTimelineMin, uAfter - stPkt.dwRecvTime, stPkt.cFrmType,
            stPkt.cGopIdx, stPkt.cFrmIdx, stPkt.cPkgNum, uAudPlayDelay, stPkt.llAccount, uAfter);

        pNode = UnbufferPacket(stUinDataBuf, pNode);
        ++dwOutPkgCnt;
    }
    return dwOutPkgCnt;
}

// Every sub-type but audio. Frames are not looked at: what is due goes out, and the decoder behind the
// callback deals with partial frames.
UDT_PER_PACKET uint32 CAVGUdtRecv::OutPacketVideoNew(tagUinDataBuf& stUinDataBuf)
{
    if (m_dwRoomLogicState != c_dwRoomStatePlaying)
    {
        RECV_LOG(LOG_LEVEL_ERROR, "OutPacketVideoNew", "OutPacketVideoNew RoomState:%u is Wrong!",
                 m_dwRoomLogicState.Get());
        return 0;
    }
    if (stUinDataBuf.dwOutPutDelayFlag == 0 && OutPutDelay(stUinDataBuf) != 0)
        return 0;
    tagUinDataInfo* pstInfo = StartClock(stUinDataBuf, "OutPacketVideoNew");
    if (pstInfo == nullptr)
        return 0;

    uint32 dwCnt = 0;
    tagPktNode* pNode = stUinDataBuf.mapUdtPacket.Head();
    while (pNode != nullptr && pNode->Pkt().dwMETimeStamp <= pstInfo->dwTimelineOut)
    {
        tagDataPacket& stPkt = pNode->Pkt();
        const int nAudDelayRTS = HandOutPacket(stPkt);
        const uint32 dwNow = TickNow(); // the owner may have taken its time
        CheckContinuity("OutPacketVideoNew", stUinDataBuf, stPkt);
        BookRelease(stUinDataBuf, stPkt, nAudDelayRTS, dwNow);
        OutVideoStatInfo(stUinDataBuf, stPkt);
        if (stPkt.cPrePkgLost != 0)
        {
            WidenTarget(*pstInfo, LossExtraWait(IsLowLatency(), m_dwDownLoss100));
            RECV_LOG(LOG_LEVEL_ERROR, "OutPacketVideoNew",
                     "OutPacketVideoNew lost %d Packets Before %u ExWaitTick %u", stPkt.cPrePkgLost,
                     stPkt.dwSenderSeq, pstInfo->dwExWaitTick.Get());
        }
        const UDT_LOG_LEVEL eTrace = TakeTraceLevel(m_LogPrintFlag, stUinDataBuf);
        RECV_LOG(
            eTrace, "OutPacketVideoNew",
            "OutPacketNew Subtype:%d Seq:%u %u TimelineOut:%u METimeStamp:%u DataLen:%u Jitter:%u Tickout:%u "
            "FrameType:%d GOP:%d FrameIdx:%d TotalPkg:%d Uin:%llu OutStamp:%u",
            stPkt.cSubType, stPkt.dwSenderSeq, stPkt.dwSeq, pstInfo->dwTimelineOut.Get(), stPkt.dwMETimeStamp,
            DataLenAhead(pstInfo->dwTimelineIn, pstInfo->dwTimelineOut),
            pstInfo->dwTimelineMax - pstInfo->dwTimelineMin, dwNow - stPkt.dwRecvTime, stPkt.cFrmType,
            stPkt.cGopIdx, stPkt.cFrmIdx, stPkt.cPkgNum, stPkt.llAccount, dwNow);

        pNode = UnbufferPacket(stUinDataBuf, pNode);
        ++dwCnt;
    }
    return dwCnt;
}

// ---- First-picture statistics ----------------------------------------------------------------------------------

void CAVGUdtRecv::OutVideoStatInfo(tagUinDataBuf& stUinDataBuf, tagDataPacket& dataPacket)
{
    tagUinBufStatInfo& stStat = stUinDataBuf.stStatInfo;
    const bool bIFrm = dataPacket.cFrmType == def_FrameType_I;
    bool bIFrmIsOut = false;

    if (bIFrm && (dataPacket.cIsFrmLastPkg != 0 || dataPacket.cPkgIndex >= dataPacket.cPkgNum))
    {
        if (stUinDataBuf.dwFirstIFOutFlag != VID_IFRM_OUT)
        {
            const uint32 dwTick = TickNow() - stUinDataBuf.dwRecvFirstPkgTime;
            m_dwIFrmPkgLostInfo = dwTick << 16 | (uint32)dataPacket.cFecNum << 8 | dataPacket.cFrmLostNum;
            RECV_LOG(
                LOG_LEVEL_ERROR, "OutVideoStatInfo",
                "I-frame last pkg is out, tickTime %5d fecN %1d Lost %1d gIdx %2d gCnt %2d fIdx %2d pIdx "
                "%2d Account %llu",
                dwTick & 0xFFFF, dataPacket.cFecNum, dataPacket.cFrmLostNum, dataPacket.cGopIdx,
                stUinDataBuf.dwVidGopCnt, dataPacket.cFrmIdx, dataPacket.cPkgIndex, dataPacket.llAccount);
        }
        stUinDataBuf.dwFirstIFOutFlag = VID_IFRM_OUT;
        bIFrmIsOut = true;
    }
    if (stStat.dwPreFrmType == c_dwNone32)
        stStat.dwPreFrmType = dataPacket.cFrmType;

    // A decodable I frame is counted when its last packet leaves, and once more when the first packet of
    // another type follows it; one that is not decodable is counted there only. The first-picture figures
    // are written once, so the second count does not reach them.
    if (bIFrm)
        stStat.dwCurIFrmCanDec = dataPacket.cFecNum >= dataPacket.cFrmLostNum ? 1 : 0;
    const bool bCountNow = bIFrm && bIFrmIsOut && stStat.dwCurIFrmCanDec != 0;
    if (!bCountNow && stStat.dwPreFrmType == dataPacket.cFrmType)
        return;
    if (bCountNow || stStat.dwPreFrmType == def_FrameType_I)
        CountOutIFrm(stUinDataBuf, dataPacket);
    stStat.dwCurIFrmCanDec = 0;
    stStat.dwPreFrmType = dataPacket.cFrmType;
}

void CAVGUdtRecv::CountOutIFrm(tagUinDataBuf& stUinDataBuf, const tagDataPacket& dataPacket)
{
    tagUinBufStatInfo& stStat = stUinDataBuf.stStatInfo;
    if (stStat.dwOutIFrmNum == 0)
    {
        stStat.dwFirstFrmCanDec = stStat.dwCurIFrmCanDec;
        RECV_LOG(LOG_LEVEL_ERROR, "OutVideoStatInfo",
                 "first I-frm IsDecoded %1d, cur-gIdx %2d gCnt %2d cur-fIdx %2d Uin %llu",
                 stStat.dwCurIFrmCanDec.Get(), dataPacket.cGopIdx, stUinDataBuf.dwVidGopCnt,
                 dataPacket.cFrmIdx, dataPacket.llAccount);
    }
    stStat.dwOutIFrmNum += 1;
    if (stStat.dwCanDecIFrmElpTime == 0 && stStat.dwCurIFrmCanDec != 0)
    {
        stStat.dwCanDecIFrmElpTime = TickNow() - stUinDataBuf.dwRecvFirstPkgTime;
        RECV_LOG(
            LOG_LEVEL_ERROR, "OutVideoStatInfo",
            "first I-frm can be decoded, Elp time %d RecvStartTime %d cur-gIdx %2d gCnt %2d cur-fIdx %2d "
            "Uin %llu.",
            stStat.dwCanDecIFrmElpTime.Get(), m_dwRecvChnStartTime, dataPacket.cGopIdx,
            stUinDataBuf.dwVidGopCnt, dataPacket.cFrmIdx, dataPacket.llAccount);
    }
}
