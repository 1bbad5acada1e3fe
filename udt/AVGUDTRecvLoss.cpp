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

// ---- Loss detection ----------------------------------------------------------------------------------------

// Finds no losses yet.
uint32 CAVGUdtRecv::CalcAudLostInfo(tagUinDataBuf&) { return 0; }

// Finds no losses yet.
uint32 CAVGUdtRecv::CalcVidLostInfo(tagUinDataBuf&) { return 0; }
