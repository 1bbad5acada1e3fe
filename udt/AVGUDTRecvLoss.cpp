/**
 * How GOPs are followed and losses noticed.
 *
 * In goes one packet at a time (GOP tracking, at intake) or one stream's buffer (loss detection, once per turn);
 * out come marks on the buffered packets: how many are missing before each. Worker thread only; nothing is
 * released or removed here.
 */

#include "AVGUDTRecv.h"

#include "AVGUDTRecvInner.h"
#include "AVGUDTRecvRules.h"

#include <algorithm>
#include <vector>

namespace
{

constexpr uint32 c_dwMaxFrmGap = 255;      // packets counted for a gap inside one frame
constexpr uint32 c_dwMaxFrmCrossGap = 100; // packets counted for a gap across frames

// A packet once found without loss before it is never given one later, even when its predecessor has since
// left the buffer.
bool FoundLossFree(const tagDataPacket& stPkt) { return stPkt.cIsCalcLost == 1 && stPkt.cPrePkgLost == 0; }

// ms from one audio packet to the next. Across the wrap it is one short; learning tolerates that by far.
uint32 AudioStampStep(uint32 dwPre, uint32 dwCur)
{
    return dwCur >= dwPre ? dwCur - dwPre : dwCur + (0xFFFFFFFF - dwPre);
}

// Learning the step between consecutive audio packets: the first one that is plausible, then any that three trailing
// gap-free steps agree lies well off the learned one.
constexpr uint32 c_dwStepTolerance = 15; // ms off the learned step
constexpr uint32 c_dwMaxStep = 84;       // ms, longer ones are never learned
constexpr uint32 c_dwEnoughSteps = 2;    // more trailing steps than this relearn

bool IsBigStep(const tagAudSteps& stSteps, uint32 dwStep)
{
    return dwStep > stSteps.dwLearned + c_dwStepTolerance;
}
bool IsSmallStep(const tagAudSteps& stSteps, uint32 dwStep)
{
    return dwStep + c_dwStepTolerance < stSteps.dwLearned;
}

void TakeStep(tagAudSteps& stSteps, uint32 dwStep)
{
    stSteps.dwCur = dwStep;
    stSteps.dwBigCnt = IsBigStep(stSteps, dwStep) ? stSteps.dwBigCnt + 1 : 0;
    stSteps.dwSmallCnt = IsSmallStep(stSteps, dwStep) ? stSteps.dwSmallCnt + 1 : 0;
}

bool IsNewStep(const tagAudSteps& stSteps)
{
    return stSteps.dwCur >= 1 && stSteps.dwCur <= c_dwMaxStep &&
           (stSteps.dwLearned == 0 || stSteps.dwBigCnt > c_dwEnoughSteps ||
            stSteps.dwSmallCnt > c_dwEnoughSteps);
}

// Would a second look at two neighbours find and write just what the first one does? Not if the sequence wrapped between
// them, which is worth a line at every look; nor if a multiple of 256 is missing, which reads as nothing afterwards.
bool IsPlainPair(const tagDataPacket& stPre, const tagDataPacket& stCur)
{
    const uint32 dwLost = stCur.dwSenderSeq - stPre.dwSenderSeq - 1;
    return IsNewSeqNum(stCur.dwSenderSeq, stPre.dwSenderSeq) &&
           (dwLost == 0 || (uint8)dwLost != 0 || FoundLossFree(stCur));
}

void SortLate(std::vector<tagPktNode*>& vecLate)
{
    std::sort(vecLate.begin(), vecLate.end(),
              [](const tagPktNode* a, const tagPktNode* b) { return a->Seq() < b->Seq(); });
}

// Packets of its frame, FEC included, that follow a video packet; negative when its counts contradict it.
int PkgIdxLeft(const tagDataPacket& stPkt) { return stPkt.cPkgNum + stPkt.cFecNum - stPkt.cPkgIndex - 1; }

} // namespace

// ---- GOP tracking ------------------------------------------------------------------------------------------

int32 CAVGUdtRecv::CalcVidGopInfo(tagUinDataBuf& stUinDataBuf, tagDataPacket& stDataPacket)
{
    const bool bIFrm = stDataPacket.cFrmType == def_FrameType_I;

    if (stUinDataBuf.dwPrePkgSeq == c_dwNone32)
    {
        stUinDataBuf.dwPrePkgSeq = stDataPacket.dwSenderSeq;
        stUinDataBuf.dwVidPreGopIdx = stDataPacket.cGopIdx;
        if (!bIFrm)
        {
            RECV_LOG(LOG_LEVEL_ERROR, "CalcVidGopInfo",
                     "First pkg isn't I frame, ft %1d gIdx %2d fIdx %2d pIdx %2d seq %5d",
                     stDataPacket.cFrmType, stDataPacket.cGopIdx, stDataPacket.cFrmIdx,
                     stDataPacket.cPkgIndex, stDataPacket.dwSenderSeq);
        }
        else
        {
            const uint32 dwCurTick = MarkFirstIFrm(stUinDataBuf);
            RECV_LOG(LOG_LEVEL_ERROR, "CalcVidGopInfo", "FirstIFrmRecv: time %d cur %d chn_start %d",
                     stUinDataBuf.stStatInfo.dwFirstIFrmRecvTime.Get(), dwCurTick, m_dwRecvChnStartTime);
        }
    }
    else if (IsNewSeqNum(stDataPacket.dwSenderSeq, stUinDataBuf.dwPrePkgSeq))
    {
        // A new GOP is told by its index alone, whatever it begins with.
        if (stDataPacket.cGopIdx != stUinDataBuf.dwVidPreGopIdx)
            BeginVidGop(stUinDataBuf, stDataPacket);
        stUinDataBuf.dwPrePkgSeq = stDataPacket.dwSenderSeq;
        stUinDataBuf.dwVidPreGopIdx = stDataPacket.cGopIdx;
    }
    else
    {
        stDataPacket.cIsOutOfOrderSeq = 1;
        if (bIFrm && stUinDataBuf.dwVidGopCnt == 0)
        {
            const uint32 dwCurTick = MarkFirstIFrm(stUinDataBuf);
            RECV_LOG(LOG_LEVEL_ERROR, "CalcVidGopInfo",
                     "FirstIFrmRecv: out of order, time %d cur %d chn_start %d",
                     stUinDataBuf.stStatInfo.dwFirstIFrmRecvTime.Get(), dwCurTick, m_dwRecvChnStartTime);
        }
    }

    stDataPacket.cIsFrmLastPkg = stDataPacket.cPkgIndex + 1 == stDataPacket.cPkgNum ? 1 : 0;
    if (stDataPacket.cIsFrmLastPkg != 0 && bIFrm && stUinDataBuf.dwFirstIFOutFlag == 0)
    {
        stUinDataBuf.dwFirstIFOutFlag = VID_IFRM_RECV;
        RECV_LOG(LOG_LEVEL_DEBUG, "CalcVidGopInfo", "%s", "Recv I Frame!");
    }
    return 0;
}

// Counts a GOP. When the server's push has come whole, the next GOP's packets are live and the transit band
// shall forget how late the pushed ones were.
void CAVGUdtRecv::BeginVidGop(tagUinDataBuf& stUinDataBuf, const tagDataPacket& stDataPacket)
{
    const uint32 dwGopsBefore = stUinDataBuf.dwVidGopCnt;
    stUinDataBuf.dwVidGopCnt = dwGopsBefore + 1;
    m_LogPrintFlag = 0;
    if (dwGopsBefore != m_dwServPushGopNum)
        return;

    const MapUinDataInfo::iterator itUser = m_mapUinDataInfo.find(stDataPacket.llAccount);
    if (itUser == m_mapUinDataInfo.end())
        return;
    RECV_LOG(LOG_LEVEL_ERROR, "CalcVidGopInfo", "TimelineMinReset: old-dwVidResetTimelineMin %1d, GopCnt %1d",
             itUser->second.dwVidResetTimelineMin, stUinDataBuf.dwVidGopCnt);
    if (itUser->second.dwVidResetTimelineMin == VID_RESET_NONE)
        itUser->second.dwVidResetTimelineMin = VID_RESET_ASKED;
}

// The stream's first I frame begins its first GOP. Returns the tick it did so at.
uint32 CAVGUdtRecv::MarkFirstIFrm(tagUinDataBuf& stUinDataBuf)
{
    stUinDataBuf.dwVidGopCnt = 1;
    const uint32 dwCurTick = TickNow();
    stUinDataBuf.stStatInfo.dwFirstIFrmRecvTime = dwCurTick - stUinDataBuf.dwRecvFirstPkgTime;
    return dwCurTick;
}

// ---- What need not be walked again ---------------------------------------------------------------------------

// The track of a stream's buffer, forgotten if anybody but the turns had his hands on the buffer.
tagUinTrack& CAVGUdtRecv::TrackOf(tagUinDataBuf& stUinDataBuf)
{
    const bool bInTurn = m_bInTurn != FALSE;
    if (stUinDataBuf.mapUdtPacket.TakeTouched() || !bInTurn)
        stUinDataBuf.stTrack.Forget();
    if (!bInTurn)
        stUinDataBuf.mapUdtPacket.Touch(); // nobody vouches for it until the next turn
    return stUinDataBuf.stTrack;
}

// What it depends on beside the packets is noted with it.
void CAVGUdtRecv::SettleLossWalk(tagUinDataBuf& stUinDataBuf, bool bPushing)
{
    tagUinTrack& stTrack = stUinDataBuf.stTrack;
    stTrack.vecLate.clear();
    stTrack.pWalkedTo = stUinDataBuf.mapUdtPacket.Tail();
    stTrack.dwPFrmCnt = stUinDataBuf.dwPFrmCnt;
    stTrack.bPushing = bPushing;
}

// Would the loss walk of this turn leave everything as it is, in silence?
bool CAVGUdtRecv::IsLossSettled(const tagUinDataBuf& stUinDataBuf) const
{
    const tagUinTrack& stTrack = stUinDataBuf.stTrack;
    return stTrack.pWalkedTo == stUinDataBuf.mapUdtPacket.Tail() && stTrack.vecLate.empty() &&
           !stUinDataBuf.mapUdtPacket.IsTouched() &&
           stTrack.stSteps.dwLearned == stUinDataBuf.dwTimeStampDelta &&
           stTrack.dwPFrmCnt == stUinDataBuf.dwPFrmCnt && stTrack.bPushing == IsServerPushing(stUinDataBuf);
}

// ---- Audio -------------------------------------------------------------------------------------------------

uint32 CAVGUdtRecv::CalcAudLostInfo(tagUinDataBuf& stUinDataBuf)
{
    const size_t nPackets = stUinDataBuf.mapUdtPacket.size();
    if (nPackets < 2)
        return 0;
    const tagUinTrack& stTrack = TrackOf(stUinDataBuf);
    if (stTrack.pWalkedTo == nullptr || !FollowAudLoss(stUinDataBuf))
        WalkAudLoss(stUinDataBuf);
    return (uint32)nPackets - 1;
}

// The walk over the whole buffer, which two packets or more are in.
void CAVGUdtRecv::WalkAudLoss(tagUinDataBuf& stUinDataBuf)
{
    tagUinTrack& stTrack = stUinDataBuf.stTrack;
    stTrack.ForgetWalk();
    stTrack.BeginGaps();

    tagPktNode* pPre = stUinDataBuf.mapUdtPacket.Head();
    uint8 cHeadLost;
    if (HeadLost(pPre->Pkt(), pPre->pNext->Pkt(), cHeadLost))
    {
        pPre->Pkt().cPrePkgLost = cHeadLost;
        pPre->Pkt().cFrmLostNum = 0;
    }
    pPre->Pkt().cIsCalcLost = 1;
    stTrack.NoteGap(pPre);

    bool bSteady = true;
    stTrack.stSteps = tagAudSteps(stUinDataBuf.dwTimeStampDelta);
    stTrack.dwFreeSeq = 0;
    for (tagPktNode* pCur = pPre->pNext; pCur != nullptr; pPre = pCur, pCur = pCur->pNext)
    {
        bSteady &= IsPlainPair(pPre->Pkt(), pCur->Pkt());
        MarkAudLoss(stTrack, pPre, pCur);
    }
    LearnAudStep(stUinDataBuf, stTrack.stSteps);
    if (bSteady)
        SettleLossWalk(stUinDataBuf, IsServerPushing(stUinDataBuf));
}

// The same, looking only at what came since the last walk. False, and nothing was done: what came may upset what was
// found before.
UDT_PER_PACKET bool CAVGUdtRecv::FollowAudLoss(tagUinDataBuf& stUinDataBuf)
{
    tagUinTrack& stTrack = stUinDataBuf.stTrack;
    if (stTrack.stSteps.dwLearned != stUinDataBuf.dwTimeStampDelta)
        return false;
    for (const tagPktNode* pLate : stTrack.vecLate)
    {
        if (pLate->pPrev == nullptr || !IsPlainPair(pLate->pPrev->Pkt(), pLate->Pkt()) ||
            !IsPlainPair(pLate->Pkt(), pLate->pNext->Pkt()))
            return false;
        // Found loss-free although this one was missing before it: it stays so, and its step is another one now.
        if (FoundLossFree(pLate->pNext->Pkt()))
            return false;
    }
    for (const tagPktNode* pNew = stTrack.pWalkedTo->pNext; pNew != nullptr; pNew = pNew->pNext)
    {
        if (!IsPlainPair(pNew->pPrev->Pkt(), pNew->Pkt()))
            return false;
    }

    // In any order, and a packet between two late ones twice: it is judged by its neighbour, and the same each time.
    for (tagPktNode* pLate : stTrack.vecLate)
    {
        MarkAudLoss(stTrack, pLate->pPrev, pLate);
        MarkAudLoss(stTrack, pLate, pLate->pNext);
    }
    for (tagPktNode* pNew = stTrack.pWalkedTo->pNext; pNew != nullptr; pNew = pNew->pNext)
        MarkAudLoss(stTrack, pNew->pPrev, pNew);

    SettleLossWalk(stUinDataBuf, IsServerPushing(stUinDataBuf));
    if (IsNewStep(stTrack.stSteps))
    {
        // By counts that may be too high, of packets that may have left.
        RecountAudSteps(stUinDataBuf);
        LearnAudStep(stUinDataBuf, stTrack.stSteps);
    }
    return true;
}

// One packet and its predecessor: how much is missing between them?
void CAVGUdtRecv::MarkAudLoss(tagUinTrack& stTrack, tagPktNode* pPre, tagPktNode* pCur)
{
    const tagDataPacket& stPre = pPre->Pkt();
    tagDataPacket& stCur = pCur->Pkt();
    if (!IsNewSeqNum(stCur.dwSenderSeq, stPre.dwSenderSeq))
    {
        // Neighbours in the map that are not neighbours in time: the sequence wrapped between them.
        RECV_LOG(LOG_LEVEL_ERROR, "CalcAudLostInfo",
                 "Err! pkg is out of order: subType %1d preSeq %5d nextSeq %5dUin %llu", stCur.cSubType,
                 stPre.dwSenderSeq, stCur.dwSenderSeq, stCur.llAccount);
        stTrack.NoteGap(pCur);
        return;
    }
    const uint32 dwLost = FoundLossFree(stCur) ? 0 : stCur.dwSenderSeq - stPre.dwSenderSeq - 1;
    stCur.cPrePkgLost = (uint8)dwLost; // modulo 256
    stCur.cFrmLostNum = 0;
    stCur.cIsCalcLost = 1;
    stTrack.NoteGap(pCur);
    if (dwLost != 0)
        return;

    const uint32 dwStep = AudioStampStep(stPre.dwTimeStamp, stCur.dwTimeStamp);
    if (pCur->Seq() >= stTrack.dwFreeSeq)
    {
        stTrack.dwFreeSeq = pCur->Seq();
        TakeStep(stTrack.stSteps, dwStep);
        return;
    }
    // A late packet: it may or may not belong to the trailing steps.
    stTrack.stSteps.dwBigCnt += IsBigStep(stTrack.stSteps, dwStep) ? 1 : 0;
    stTrack.stSteps.dwSmallCnt += IsSmallStep(stTrack.stSteps, dwStep) ? 1 : 0;
}

void CAVGUdtRecv::RecountAudSteps(tagUinDataBuf& stUinDataBuf)
{
    tagAudSteps stSteps(stUinDataBuf.dwTimeStampDelta);
    tagPktNode* pPre = stUinDataBuf.mapUdtPacket.Head();
    for (tagPktNode* pCur = pPre->pNext; pCur != nullptr; pPre = pCur, pCur = pCur->pNext)
    {
        if (pCur->Pkt().cPrePkgLost == 0)
            TakeStep(stSteps, AudioStampStep(pPre->Pkt().dwTimeStamp, pCur->Pkt().dwTimeStamp));
    }
    stUinDataBuf.stTrack.stSteps = stSteps;
}

// Do the buffer's steps agree on a new one? It stands in the stream, not in the track, and so has the next turn walk
// over everything with it.
void CAVGUdtRecv::LearnAudStep(tagUinDataBuf& stUinDataBuf, const tagAudSteps& stSteps)
{
    if (!IsNewStep(stSteps))
        return;
    stUinDataBuf.dwTimeStampDelta = stSteps.dwCur;
    RECV_LOG(LOG_LEVEL_ERROR, "CalcAudLostInfo",
             "audio pkg timestamp delta: preSeq %d preTSDelta %d, curTSDelta %d BigCnt %d SmallCnt %d",
             stUinDataBuf.mapUdtPacket.Tail()->Pkt().dwSenderSeq, stSteps.dwLearned, stSteps.dwCur,
             stSteps.dwBigCnt, stSteps.dwSmallCnt);
}

// ---- Video -------------------------------------------------------------------------------------------------

uint32 CAVGUdtRecv::CalcVidLostInfo(tagUinDataBuf& stUinDataBuf)
{
    if (stUinDataBuf.mapUdtPacket.empty())
        return 0;
    const tagUinTrack& stTrack = TrackOf(stUinDataBuf);
    if (stTrack.pWalkedTo != nullptr && IsVidFollowable(stUinDataBuf))
        return FollowVidLoss(stUinDataBuf);
    return WalkVidLoss(stUinDataBuf);
}

// The walk over the whole buffer, which is not empty.
uint32 CAVGUdtRecv::WalkVidLoss(tagUinDataBuf& stUinDataBuf)
{
    tagUinTrack& stTrack = stUinDataBuf.stTrack;
    stTrack.Forget();
    stTrack.bPushing = IsServerPushing(stUinDataBuf);

    tagPktNode* const pFirst = stUinDataBuf.mapUdtPacket.Head();
    tagDataPacket& stFirst = pFirst->Pkt();
    if (PkgIdxLeft(stFirst) < 0)
    {
        // Nothing can be counted from it, and nothing behind it either until it has left the buffer.
        RECV_LOG(LOG_LEVEL_ERROR, "CalcVidLostInfo",
                 "Pkg num error 1, seq %d p_pkg %d p_fec %d p_pkgidx %d ft %1d fidx %3d gidx %3d",
                 stFirst.dwSenderSeq, stFirst.cPkgNum, stFirst.cFecNum, stFirst.cPkgIndex, stFirst.cFrmType,
                 stFirst.cFrmIdx, stFirst.cGopIdx);
        return c_dwNone32;
    }
    stFirst.wVidPkgIdxLeft = (uint16)PkgIdxLeft(stFirst);
    if (pFirst->pNext == nullptr)
        return 0;

    uint8 cHeadLost;
    if (HeadLost(stFirst, pFirst->pNext->Pkt(), cHeadLost))
    {
        stFirst.cPrePkgLost = cHeadLost;
        stFirst.cFrmLostNum = cHeadLost;
    }
    stFirst.cIsCalcLost = 1;
    stTrack.BeginGaps();
    stTrack.NoteGap(pFirst);

    const uint32 dwPFrmCnt = stUinDataBuf.dwPFrmCnt;
    uint32 dwErrCnt = 0;
    bool bSteady = true;
    m_vecIFrmLost.clear();
    tagVidWalk stWalk(stFirst);
    for (tagPktNode* pCur = pFirst->pNext; pCur != nullptr; pCur = pCur->pNext)
        bSteady &= StepVidWalk(stUinDataBuf, stWalk, pCur, dwErrCnt);
    // What was gathered of an I frame that the buffer ends in is not sent: more of it may be on its way. Its
    // packets keep their raised request counts, so the timed scan asks, not this walk again.

    if (bSteady && dwPFrmCnt == stUinDataBuf.dwPFrmCnt)
        SettleLossWalk(stUinDataBuf, stTrack.bPushing);
    return (uint32)stUinDataBuf.mapUdtPacket.size() - 1 - dwErrCnt;
}

// May the walk go on from where it ended, or does what it depends on stand differently now?
bool CAVGUdtRecv::IsVidFollowable(const tagUinDataBuf& stUinDataBuf) const
{
    const tagUinTrack& stTrack = stUinDataBuf.stTrack;
    if (stTrack.bPushing != IsServerPushing(stUinDataBuf) || stTrack.dwPFrmCnt != stUinDataBuf.dwPFrmCnt)
        return false;
    if (stTrack.vecLate.empty())
        return true;
    // A late packet may move the phase under the feet of all that follow it; and before the first packet there is
    // none to go on from.
    return stUinDataBuf.dwPFrmCnt == VID_PFRM_BEHIND &&
           stUinDataBuf.mapUdtPacket.Head()->Pkt().cIsCalcLost != 0;
}

// The same, looking only at what came since the last walk, and as far behind it as that makes a difference.
UDT_PER_PACKET uint32 CAVGUdtRecv::FollowVidLoss(tagUinDataBuf& stUinDataBuf)
{
    tagUinTrack& stTrack = stUinDataBuf.stTrack;
    const uint32 dwPFrmCnt = stUinDataBuf.dwPFrmCnt;
    uint32 dwErrCnt = 0;
    bool bSteady = true;
    m_vecIFrmLost.clear();

    SortLate(stTrack.vecLate);
    tagPktNode* pDone = nullptr; // the last one that was walked over here
    tagVidWalk stWalk(stTrack.pWalkedTo->Pkt());
    for (size_t i = 0; i < stTrack.vecLate.size();)
    {
        pDone = stTrack.vecLate[i]->pPrev;
        stWalk = tagVidWalk(pDone->Pkt());
        bool bMoved = true; // does the next packet see another one before it than last time?
        while (pDone != stTrack.pWalkedTo &&
               (bMoved || !m_vecIFrmLost.empty() || IsServerPushing(stUinDataBuf) != stTrack.bPushing))
        {
            pDone = pDone->pNext;
            const bool bLate = i < stTrack.vecLate.size() && pDone == stTrack.vecLate[i];
            const uint8 cFrmLostNum = pDone->Pkt().cFrmLostNum;
            bSteady &= StepVidWalk(stUinDataBuf, stWalk, pDone, dwErrCnt);
            bMoved = bLate || pDone->Pkt().cFrmLostNum != cFrmLostNum;
            i += bLate ? 1 : 0;
        }
    }
    if (pDone != stTrack.pWalkedTo)
        stWalk = tagVidWalk(stTrack.pWalkedTo->Pkt());
    for (tagPktNode* pNew = stTrack.pWalkedTo->pNext; pNew != nullptr; pNew = pNew->pNext)
        bSteady &= StepVidWalk(stUinDataBuf, stWalk, pNew, dwErrCnt);

    if (bSteady && dwPFrmCnt == stUinDataBuf.dwPFrmCnt)
        SettleLossWalk(stUinDataBuf, stTrack.bPushing);
    else
        stTrack.ForgetWalk();
    return (uint32)stUinDataBuf.mapUdtPacket.size() - 1 - dwErrCnt;
}

// One packet of the walk, and what was gathered before it of an I frame that has ended. False: a second
// look would write a line again, or find otherwise.
bool CAVGUdtRecv::StepVidWalk(tagUinDataBuf& stUinDataBuf, tagVidWalk& stWalk, tagPktNode* pCur,
                              uint32& dwErrCnt)
{
    tagDataPacket& stCur = pCur->Pkt();
    if (PkgIdxLeft(stCur) < 0)
    {
        RECV_LOG(LOG_LEVEL_ERROR, "CalcVidLostInfo",
                 "Pkg num error 2, seq %d p_pkg %d p_fec %d p_pkgidx %d ft %1d fidx %3d gidx %3d",
                 stCur.dwSenderSeq, stCur.cPkgNum, stCur.cFecNum, stCur.cPkgIndex, stCur.cFrmType,
                 stCur.cFrmIdx, stCur.cGopIdx);
        ++dwErrCnt;
        stUinDataBuf.stTrack.NoteGap(pCur);
        return false; // as if it were not there
    }
    stCur.wVidPkgIdxLeft = (uint16)PkgIdxLeft(stCur);

    bool bSilent = false;
    if (IsNewSeqNum(stCur.dwSenderSeq, stWalk.m_dwPreSeq))
    {
        bSilent = MarkVidLoss(stUinDataBuf, stWalk, stCur);
    }
    else
    {
        RECV_LOG(LOG_LEVEL_ERROR, "CalcVidLostInfo",
                 "Err! pkg is out of order: subType %1d preSeq %5d nextSeq %5d ft %1d gIdx %2d fIdx %2d pIdx "
                 "%2d Uin %llu",
                 stCur.cSubType, stWalk.m_dwPreSeq, stCur.dwSenderSeq, stCur.cFrmType, stCur.cGopIdx,
                 stCur.cFrmIdx, stCur.cPkgIndex, stCur.llAccount);
    }
    stUinDataBuf.stTrack.NoteGap(pCur);

    if (stCur.cFrmType != def_FrameType_I && !m_vecIFrmLost.empty())
    {
        BeginLossRequest();
        m_mapLost[tagInPktKey(stCur.llAccount, stCur.cSubType)].swap(m_vecIFrmLost);
        RequestLossPacket(m_mapLost);
        m_vecIFrmLost.clear();
    }
    stWalk.StepTo(stCur);
    return bSilent;
}

// One packet that follows in order: how much is missing before it, and is that to be asked for at once? False: a
// second look may do more than nothing.
bool CAVGUdtRecv::MarkVidLoss(tagUinDataBuf& stUinDataBuf, tagVidWalk& stWalk, tagDataPacket& stCur)
{
    const uint32 dwLost = stCur.dwSenderSeq - stWalk.m_dwPreSeq - 1;
    const bool bFrmIdxChanged = stWalk.IsOtherFrame(stCur);
    uint32 dwTreatedAsLost = std::min(dwLost, c_dwMaxFrmGap);
    bool bSilent = true;
    if (dwLost > 0 && bFrmIdxChanged)
        dwTreatedAsLost = LostAcrossFrames(stUinDataBuf, stWalk, stCur, dwLost, bSilent);

    // From the stream's first P frame to the first frame of another type behind it nothing counts as lost: the
    // server starts a stream in the middle of a GOP and leaves out what nobody could decode.
    const bool bPFrm = stCur.cFrmType == def_FrameType_P || stCur.cFrmType == def_FrameType_P_WITHSP;
    if (bPFrm && stUinDataBuf.dwPFrmCnt == VID_PFRM_NONE)
        stUinDataBuf.dwPFrmCnt = VID_PFRM_FIRST_RUN;
    else if (!bPFrm && stUinDataBuf.dwPFrmCnt == VID_PFRM_FIRST_RUN)
        stUinDataBuf.dwPFrmCnt = VID_PFRM_BEHIND;
    if (stUinDataBuf.dwPFrmCnt == VID_PFRM_FIRST_RUN || FoundLossFree(stCur))
        dwTreatedAsLost = 0;

    stWalk.m_dwFrmLostNum = bFrmIdxChanged ? stCur.cPkgIndex : stWalk.m_dwFrmLostNum + dwTreatedAsLost;
    stCur.cPrePkgLost = (uint8)dwTreatedAsLost;
    stCur.cFrmLostNum = (uint8)stWalk.m_dwFrmLostNum;
    stCur.cIsCalcLost = 1;

    // What a guard does not let be asked for at once keeps its count, and so is due at the next scan.
    if (dwTreatedAsLost != 0 && stCur.cFrmType == def_FrameType_I && stCur.wLostReqCnt == 0 &&
        (m_stGuards.dwMaxRequestsPerSecond == 0 || MayAskAtOnce(dwTreatedAsLost)))
    {
        for (uint32 dwBack = 1; dwBack <= dwTreatedAsLost; ++dwBack)
            m_vecIFrmLost.push_back(stCur.dwSenderSeq - dwBack);
        stCur.wLostReqCnt += 1;
    }
    return bSilent;
}

// A gap that crosses a frame boundary. While the server still pushes, whole frames missing in between were
// never sent to us; only the missing head of the present frame counts.
uint32 CAVGUdtRecv::LostAcrossFrames(const tagUinDataBuf& stUinDataBuf, const tagVidWalk& stWalk,
                                     const tagDataPacket& stCur, uint32 dwLost, bool& bSilent)
{
    if (stWalk.m_nPrePkgIdxLeft == 0)
    {
        // An owner who is asked amid the walk may set another push: what was judged before that is judged anew.
        const bool bPushing = IsServerPushing(stUinDataBuf);
        bSilent = bPushing == stUinDataBuf.stTrack.bPushing;
        if (bPushing)
            return stCur.cPkgIndex;
    }
    if (dwLost <= c_dwMaxFrmCrossGap)
        return dwLost;
    bSilent = false;
    RECV_LOG(
        LOG_LEVEL_ERROR, "CalcVidLostInfo",
        "Lost %3d is bigger than 100, curSeq %5d preSeq %5d preGIdx %2d preFIdx %2d curGIdx %2d curFIdx %2d",
        dwLost, stCur.dwSenderSeq, stWalk.m_dwPreSeq, stWalk.m_dwPreGopIdx, stWalk.m_dwPreFrmIdx,
        stCur.cGopIdx, stCur.cFrmIdx);
    return c_dwMaxFrmCrossGap;
}
