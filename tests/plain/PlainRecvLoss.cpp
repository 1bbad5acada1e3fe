/**
 * How GOPs are followed and losses noticed.
 *
 * In goes one packet at a time (GOP tracking, at intake) or one stream's buffer (loss detection, once per turn);
 * out come marks on the buffered packets: how many are missing before each. Worker thread only; nothing is
 * released or removed here.
 */

#include "PlainRecv.h"

#include "PlainRecvInner.h"
#include "PlainRecvRules.h"

#include <algorithm>
#include <iterator>
#include <vector>

namespace plain
{

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

// Learns the usual step between consecutive audio packets: the first one that is plausible, then any that
// three trailing gap-free steps agree lies well off the learned one.
struct tagAudStepTracker
{
    static constexpr uint32 c_dwTolerance = 15; // ms off the learned step
    static constexpr uint32 c_dwMaxStep = 84;   // ms, longer ones are never learned
    static constexpr uint32 c_dwEnough = 2;     // more trailing steps than this relearn

    uint32 m_dwCalcTSDelta;    // learned before this walk, 0: nothing
    uint32 m_dwCurTSDelta = 0; // of the last gap-free pair
    uint32 m_dwBigCnt = 0;     // trailing steps above the learned one
    uint32 m_dwSmallCnt = 0;   // trailing steps below it

    explicit tagAudStepTracker(uint32 dwLearned) : m_dwCalcTSDelta(dwLearned) {}

    void Take(uint32 dwStep)
    {
        m_dwCurTSDelta = dwStep;
        m_dwBigCnt = dwStep > m_dwCalcTSDelta + c_dwTolerance ? m_dwBigCnt + 1 : 0;
        m_dwSmallCnt = dwStep + c_dwTolerance < m_dwCalcTSDelta ? m_dwSmallCnt + 1 : 0;
    }

    bool IsNewStep() const
    {
        return m_dwCurTSDelta >= 1 && m_dwCurTSDelta <= c_dwMaxStep &&
               (m_dwCalcTSDelta == 0 || m_dwBigCnt > c_dwEnough || m_dwSmallCnt > c_dwEnough);
    }
};

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

// ---- Audio -------------------------------------------------------------------------------------------------

uint32 CAVGUdtRecv::CalcAudLostInfo(tagUinDataBuf& stUinDataBuf)
{
    MapUdtPacket& pkglist = stUinDataBuf.mapUdtPacket;
    if (pkglist.size() < 2)
        return 0;

    MapUdtPacket::iterator it_p = pkglist.begin();
    MapUdtPacket::iterator it_n = std::next(it_p);
    uint8 cHeadLost;
    if (HeadLost(it_p->second, it_n->second, cHeadLost))
    {
        it_p->second.cPrePkgLost = cHeadLost;
        it_p->second.cFrmLostNum = 0;
    }
    it_p->second.cIsCalcLost = 1;

    uint32 dwPkgCnt = 0;
    tagAudStepTracker stSteps(stUinDataBuf.dwTimeStampDelta);
    for (; it_n != pkglist.end(); it_p = it_n++)
    {
        ++dwPkgCnt;
        const tagDataPacket& stPre = it_p->second;
        tagDataPacket& stCur = it_n->second;
        if (!IsNewSeqNum(stCur.dwSenderSeq, stPre.dwSenderSeq))
        {
            // Neighbours in the map that are not neighbours in time: the sequence wrapped between them.
            RECV_LOG(LOG_LEVEL_ERROR, "CalcAudLostInfo",
                     "Err! pkg is out of order: subType %1d preSeq %5d nextSeq %5dUin %llu", stCur.cSubType,
                     stPre.dwSenderSeq, stCur.dwSenderSeq, stCur.llAccount);
            continue;
        }
        const uint32 dwLost = FoundLossFree(stCur) ? 0 : stCur.dwSenderSeq - stPre.dwSenderSeq - 1;
        stCur.cPrePkgLost = (uint8)dwLost; // modulo 256
        stCur.cFrmLostNum = 0;
        stCur.cIsCalcLost = 1;
        if (dwLost == 0)
            stSteps.Take(AudioStampStep(stPre.dwTimeStamp, stCur.dwTimeStamp));
    }

    if (stSteps.IsNewStep())
    {
        stUinDataBuf.dwTimeStampDelta = stSteps.m_dwCurTSDelta;
        RECV_LOG(LOG_LEVEL_ERROR, "CalcAudLostInfo",
                 "audio pkg timestamp delta: preSeq %d preTSDelta %d, curTSDelta %d BigCnt %d SmallCnt %d",
                 it_p->second.dwSenderSeq, stSteps.m_dwCalcTSDelta, stSteps.m_dwCurTSDelta,
                 stSteps.m_dwBigCnt, stSteps.m_dwSmallCnt);
    }
    return dwPkgCnt;
}

// ---- Video -------------------------------------------------------------------------------------------------

uint32 CAVGUdtRecv::CalcVidLostInfo(tagUinDataBuf& stUinDataBuf)
{
    MapUdtPacket& pkglist = stUinDataBuf.mapUdtPacket;
    if (pkglist.empty())
        return 0;

    tagDataPacket& stFirst = pkglist.begin()->second;
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

    MapUdtPacket::iterator it_n = std::next(pkglist.begin());
    if (it_n == pkglist.end())
        return 0;
    uint8 cHeadLost;
    if (HeadLost(stFirst, it_n->second, cHeadLost))
    {
        stFirst.cPrePkgLost = cHeadLost;
        stFirst.cFrmLostNum = cHeadLost;
    }
    stFirst.cIsCalcLost = 1;

    uint32 dwPkgCnt = 0;
    std::vector<uint32> lossSeqVec; // of the I frame being walked
    tagVidWalk stWalk(stFirst);
    for (; it_n != pkglist.end(); ++it_n)
    {
        tagDataPacket& stCur = it_n->second;
        if (PkgIdxLeft(stCur) < 0)
        {
            RECV_LOG(LOG_LEVEL_ERROR, "CalcVidLostInfo",
                     "Pkg num error 2, seq %d p_pkg %d p_fec %d p_pkgidx %d ft %1d fidx %3d gidx %3d",
                     stCur.dwSenderSeq, stCur.cPkgNum, stCur.cFecNum, stCur.cPkgIndex, stCur.cFrmType,
                     stCur.cFrmIdx, stCur.cGopIdx);
            continue; // as if it were not there
        }
        stCur.wVidPkgIdxLeft = (uint16)PkgIdxLeft(stCur);

        if (IsNewSeqNum(stCur.dwSenderSeq, stWalk.m_dwPreSeq))
        {
            MarkVidLoss(stUinDataBuf, stWalk, stCur, lossSeqVec);
        }
        else
        {
            RECV_LOG(
                LOG_LEVEL_ERROR, "CalcVidLostInfo",
                "Err! pkg is out of order: subType %1d preSeq %5d nextSeq %5d ft %1d gIdx %2d fIdx %2d pIdx "
                "%2d Uin %llu",
                stCur.cSubType, stWalk.m_dwPreSeq, stCur.dwSenderSeq, stCur.cFrmType, stCur.cGopIdx,
                stCur.cFrmIdx, stCur.cPkgIndex, stCur.llAccount);
        }
        if (stCur.cFrmType != def_FrameType_I && !lossSeqVec.empty())
        {
            MapUinSeq mapUinPkgLost;
            mapUinPkgLost[tagInPktKey(stCur.llAccount, stCur.cSubType)].swap(lossSeqVec);
            RequestLossPacket(mapUinPkgLost);
            lossSeqVec.clear();
        }
        ++dwPkgCnt;
        stWalk.StepTo(stCur);
    }
    // What was gathered of an I frame that the buffer ends in is not sent: more of it may be on its way. Its
    // packets keep their raised request counts, so the timed scan asks, not this walk again.
    return dwPkgCnt;
}

// One packet that follows in order: how much is missing before it, and is that to be asked for at once?
void CAVGUdtRecv::MarkVidLoss(tagUinDataBuf& stUinDataBuf, tagVidWalk& stWalk, tagDataPacket& stCur,
                              std::vector<uint32>& lossSeqVec)
{
    const uint32 dwLost = stCur.dwSenderSeq - stWalk.m_dwPreSeq - 1;
    const bool bFrmIdxChanged = stWalk.IsOtherFrame(stCur);
    uint32 dwTreatedAsLost = std::min(dwLost, c_dwMaxFrmGap);
    if (dwLost > 0 && bFrmIdxChanged)
        dwTreatedAsLost = LostAcrossFrames(stUinDataBuf, stWalk, stCur, dwLost);

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

    if (dwTreatedAsLost == 0 || stCur.cFrmType != def_FrameType_I || stCur.wLostReqCnt != 0)
        return;
    for (uint32 dwBack = 1; dwBack <= dwTreatedAsLost; ++dwBack)
        lossSeqVec.push_back(stCur.dwSenderSeq - dwBack);
    stCur.wLostReqCnt += 1;
}

// A gap that crosses a frame boundary. While the server still pushes, whole frames missing in between were
// never sent to us; only the missing head of the present frame counts.
uint32 CAVGUdtRecv::LostAcrossFrames(const tagUinDataBuf& stUinDataBuf, const tagVidWalk& stWalk,
                                     const tagDataPacket& stCur, uint32 dwLost)
{
    if (stWalk.m_nPrePkgIdxLeft == 0 && m_dwServPushGopNum >= stUinDataBuf.dwVidGopCnt)
        return stCur.cPkgIndex;
    if (dwLost <= c_dwMaxFrmCrossGap)
        return dwLost;
    RECV_LOG(
        LOG_LEVEL_ERROR, "CalcVidLostInfo",
        "Lost %3d is bigger than 100, curSeq %5d preSeq %5d preGIdx %2d preFIdx %2d curGIdx %2d curFIdx %2d",
        dwLost, stCur.dwSenderSeq, stWalk.m_dwPreSeq, stWalk.m_dwPreGopIdx, stWalk.m_dwPreFrmIdx,
        stCur.cGopIdx, stCur.cFrmIdx);
    return c_dwMaxFrmCrossGap;
}

} // namespace plain
