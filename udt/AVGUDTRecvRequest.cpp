/**
 * When a missing packet is asked for, and how often.
 *
 * In goes what loss detection marked on the buffered packets; out go loss requests through the owner, and the
 * count of those that were never answered. The housekeeping pass beside it folds the loss counters in and
 * drops streams that fell silent. Worker thread only, no lock held while the owner is called.
 */

#include "AVGUDTRecv.h"

#include "AVGUDTRecvInner.h"
#include "AVGUDTRecvRules.h"

#include <algorithm>
#include <vector>

namespace
{

constexpr uint32 c_dwLossScanGap = 50;           // ms between loss scans
constexpr uint32 c_dwFirstDelayWarmUp = 2000;    // ms during which the first-request delay is the default one
constexpr size_t c_nStreamScanEnough = 31;       // entries of one stream after which its walk ends
constexpr size_t c_nStreamScanMany = 100;        // entries that are worth a line
constexpr size_t c_nStreamScanCap = 10000;       // entries of one stream and scan
constexpr size_t c_nServedWhole = 8;             // due packets of one stream that are not cut by a guard
constexpr size_t c_nLostEntriesLeast = 16;       // streams whose scratch is kept, whoever they are
constexpr uint32 c_dwAllStreamsFoldPass = 3;     // housekeeping pass from which all streams fold alike
constexpr uint32 c_dwRequestFailCheckGap = 4000; // ms that pass between two checks

// Asks for the gap before one packet. The whole gap goes in, up to the cap; the attempt is stamped even when
// the cap cut it short, and even when requests are switched off further on. itSeq: where the last gap of this scan
// ended among the requested sequences; moves on to where this one does.
void RequestGap(MapSeqTick& mapRequestSeq, MapSeqTick::iterator& itSeq, tagDataPacket& stPkt, uint32 dwCurSeq,
                uint32 dwNow, size_t nMost, std::vector<uint32>& lossSeqVector)
{
    uint32 seq = dwCurSeq - stPkt.cPrePkgLost;
    RECV_LOG(
        LOG_LEVEL_DEBUG, "CheckTimeOutNew",
        "request: subtype %1d preLost %2d LostStartSeq %5d curSeq %5d pkgN %2d fecN %2d ft %1d fidx %2d gidx "
        "%2d PkgIdxLeft %2d ReqCnt %2d",
        stPkt.cSubType, stPkt.cPrePkgLost, seq, dwCurSeq, stPkt.cPkgNum, stPkt.cFecNum, stPkt.cFrmType,
        stPkt.cFrmIdx, stPkt.cGopIdx, stPkt.wVidPkgIdxLeft, stPkt.wLostReqCnt);

    for (uint32 dwCnt = 0; dwCnt < stPkt.cPrePkgLost && lossSeqVector.size() < nMost; ++dwCnt, ++seq)
    {
        lossSeqVector.push_back(seq);
        itSeq = mapRequestSeq.SetNear(itSeq, seq, dwNow);
    }
    stPkt.wLostReqCnt += 1;
    stPkt.dwLastReqLostTime = dwNow;
}

// Every packet with a gap before it is in the track's list; walks the buffer only if nobody knows.
void KnowGaps(tagUinDataBuf& stUinDataBuf, tagUinTrack& stTrack)
{
    if (stTrack.bGapsKnown)
        return;
    stTrack.BeginGaps();
    for (tagPktNode* pNode = stUinDataBuf.mapUdtPacket.Head(); pNode != nullptr; pNode = pNode->pNext)
        stTrack.NoteGap(pNode);
}

} // namespace

// ---- Timed scan ----------------------------------------------------------------------------------------------

void CAVGUdtRecv::CheckTimeOutNew()
{
    const uint32 dwNow = TickNow();

    tagRequestTiming stTiming;
    stTiming.dwFirstDelay = FirstRequestDelay(dwNow); // every turn: the warm-up runs on

    ArmTick(m_dwLastCheckPkgTimeoutTime, dwNow);
    if (TickReached(dwNow, m_dwLastCheckPkgTimeoutTime, c_dwLossScanGap))
    {
        m_dwLastCheckPkgTimeoutTime = dwNow;
        stTiming.dwInterval = RequestInterval(m_dwRTT, m_dwUdtlossDataRequestInterval);

        BeginLossRequest();
        const uint32 dwPerSecond = m_stGuards.dwMaxRequestsPerSecond;
        if (UDT_RARELY(dwPerSecond != 0))
            CollectGuardedGaps(dwPerSecond, dwNow, stTiming, m_mapLost);
        else
            CollectDueGaps(dwNow, stTiming, m_mapLost);
        RequestLossPacket(m_mapLost);
    }

    ArmTick(m_dwLastCheckTimeout, dwNow);
    if (TickPassed(dwNow, m_dwLastCheckTimeout, c_dwCheckDataTimeout))
    {
        m_dwLastCheckTimeout = dwNow;
        Housekeep(dwNow);
    }
}

// For two seconds after the first turn the default holds whatever is configured, then the configured value.
uint32 CAVGUdtRecv::FirstRequestDelay(uint32 dwNow)
{
    ArmTick(m_dwCheckLossParamTime, dwNow);
    if (m_dwLossParamSetFlag == 0 && !TickReached(dwNow, m_dwCheckLossParamTime, c_dwFirstDelayWarmUp))
        return c_dwDefaultFirstGetTime;
    m_dwLossParamSetFlag = 1;
    m_dwCheckLossParamTime = dwNow;
    return m_dwUdtFirstReGetTime;
}

void CAVGUdtRecv::CollectDueGaps(uint32 dwNow, const tagRequestTiming& stTiming, MapUinSeq& mapUinPacketIdx)
{
    for (MapUinInPkt::value_type& stStream : m_mapUinInPkt)
    {
        const MapUinDataInfo::const_iterator itInfo = m_mapUinDataInfo.find(stStream.first.ullUserAccount);
        if (itInfo == m_mapUinDataInfo.end())
        {
            // No timeline: this user is being torn down, and we cannot tell what is still ahead of playout.
            // End the walk, not just this stream; what was gathered so far still goes out, and the next scan,
            // 50 ms on, starts over. Skipping only this stream would change who is asked for what while a
            // room closes.
            RECV_LOG(LOG_LEVEL_ERROR, "CheckTimeOutNew", "%s", "There should not reach unless before close!");
            return;
        }
        tagUinDataBuf& stUinDataBuf = stStream.second;
        KnowGaps(stUinDataBuf, TrackOf(stUinDataBuf));
        if (!stUinDataBuf.stTrack.mapGaps.empty())
            CollectStreamGaps(stUinDataBuf, itInfo->second.dwTimelineOut, dwNow, stTiming, c_nStreamScanCap,
                              mapUinPacketIdx[stStream.first]);
    }
}

// How many packets CollectStreamGaps would gather.
size_t CAVGUdtRecv::CountStreamGaps(const tagUinDataBuf& stUinDataBuf, uint32 dwTimelineOut, uint32 dwNow,
                                    const tagRequestTiming& stTiming)
{
    size_t nDue = 0;
    for (const CUdtSeqMap<tagDataPacket*>::value_type& stGap : stUinDataBuf.stTrack.mapGaps)
    {
        const tagDataPacket& stPkt = *stGap.second;
        if (stPkt.dwMETimeStamp <= dwTimelineOut || !IsRequestDue(stPkt.wLostReqCnt, dwNow - stPkt.dwRecvTime,
                                                                  dwNow - stPkt.dwLastReqLostTime, stTiming))
            continue;
        nDue += stPkt.cPrePkgLost;
        if (nDue >= c_nStreamScanEnough)
            break;
    }
    return nDue;
}

// The same as CollectDueGaps, as far as the budget goes. Where it does not go far enough, streams that want little are
// served first and whole, and what is left is shared alike: a stream that lost a few packets does not wait for one
// that says it lost everything.
UDT_SELDOM void CAVGUdtRecv::CollectGuardedGaps(uint32 dwPerSecond, uint32 dwNow,
                                                const tagRequestTiming& stTiming, MapUinSeq& mapUinPacketIdx)
{
    m_requestBudget.Refill(dwPerSecond, dwNow);
    uint64 ullLeft = m_requestBudget.Left();
    uint64 ullDue = 0;
    bool bTornDown = false; // as without a guard, see CollectDueGaps
    m_vecDemands.clear();
    for (MapUinInPkt::value_type& stStream : m_mapUinInPkt)
    {
        const MapUinDataInfo::const_iterator itInfo = m_mapUinDataInfo.find(stStream.first.ullUserAccount);
        if (itInfo == m_mapUinDataInfo.end())
        {
            bTornDown = true;
            break;
        }
        tagUinDataBuf& stUinDataBuf = stStream.second;
        KnowGaps(stUinDataBuf, TrackOf(stUinDataBuf));
        if (stUinDataBuf.stTrack.mapGaps.empty())
            continue;
        tagGapDemand stDemand;
        stDemand.stKey = stStream.first;
        stDemand.pstUinDataBuf = &stUinDataBuf;
        stDemand.dwTimelineOut = itInfo->second.dwTimelineOut;
        stDemand.nDue = CountStreamGaps(stUinDataBuf, stDemand.dwTimelineOut, dwNow, stTiming);
        stDemand.nRank = 0;
        ullDue += stDemand.nDue;
        if (stDemand.nDue != 0)
            m_vecDemands.push_back(stDemand);
    }

    if (ullDue > ullLeft)
    {
        m_nFirstDemand += 1;
        for (size_t i = 0; i < m_vecDemands.size(); ++i)
            m_vecDemands[i].nRank = (i + m_nFirstDemand) % m_vecDemands.size();
        std::sort(m_vecDemands.begin(), m_vecDemands.end(),
                  [](const tagGapDemand& a, const tagGapDemand& b)
                  { return a.nDue != b.nDue ? a.nDue < b.nDue : a.nRank < b.nRank; });
    }
    size_t nStreams = m_vecDemands.size();
    for (const tagGapDemand& stDemand : m_vecDemands)
    {
        uint64 ullShare = stDemand.nDue;
        if (ullDue > ullLeft)
            ullShare = std::min({ullShare, ullLeft, std::max<uint64>(ullLeft / nStreams, c_nServedWhole)});
        --nStreams;
        ullDue -= stDemand.nDue;
        ullLeft -= ullShare;
        m_stGuardCounts.dwRequests += (uint32)(stDemand.nDue - ullShare);
        if (ullShare != 0)
            CollectStreamGaps(*stDemand.pstUinDataBuf, stDemand.dwTimelineOut, dwNow, stTiming,
                              (size_t)ullShare, mapUinPacketIdx[stDemand.stKey]);
    }
    if (bTornDown)
        RECV_LOG(LOG_LEVEL_ERROR, "CheckTimeOutNew", "%s", "There should not reach unless before close!");
}

// One stream's due gaps, oldest first, up to nMost packets. A gap that playout has reached is no longer worth asking
// for.
void CAVGUdtRecv::CollectStreamGaps(tagUinDataBuf& stUinDataBuf, uint32 dwTimelineOut, uint32 dwNow,
                                    const tagRequestTiming& stTiming, size_t nMost,
                                    std::vector<uint32>& lossSeqVector)
{
    MapSeqTick& mapRequestSeq = stUinDataBuf.mapRequestSeq;
    MapSeqTick::iterator itSeq = mapRequestSeq.begin();
    for (const CUdtSeqMap<tagDataPacket*>::value_type& stGap : stUinDataBuf.stTrack.mapGaps)
    {
        tagDataPacket& stPkt = *stGap.second;
        if (stPkt.dwMETimeStamp <= dwTimelineOut || !IsRequestDue(stPkt.wLostReqCnt, dwNow - stPkt.dwRecvTime,
                                                                  dwNow - stPkt.dwLastReqLostTime, stTiming))
            continue;
        RequestGap(mapRequestSeq, itSeq, stPkt, stGap.first, dwNow, nMost, lossSeqVector);
        if (lossSeqVector.size() >= c_nStreamScanMany)
        {
            RECV_LOG(LOG_LEVEL_ERROR, "CheckTimeOutNew",
                     "lossSeqVector subtype %1d size %d is larger than 100", stPkt.cSubType,
                     (int)lossSeqVector.size());
        }
        if (lossSeqVector.size() >= std::min(c_nStreamScanEnough, nMost))
            break; // the rest waits for the next scan
    }
}

// ---- Housekeeping --------------------------------------------------------------------------------------------

void CAVGUdtRecv::Housekeep(uint32 dwNow)
{
    m_dwCalcLossCnt += 1;
    for (MapUinInPkt::iterator it = m_mapUinInPkt.begin(); it != m_mapUinInPkt.end();)
    {
        tagUinDataBuf& stUinDataBuf = it->second;
        FoldLossCounters(it->first.cSubType, stUinDataBuf);
        const bool bSilent = TickPassed(dwNow, stUinDataBuf.dwLastRecvPackTime, c_dwClearUinTimeOut);
        it = bSilent && stUinDataBuf.mapUdtPacket.empty() ? ExpireStream(it) : std::next(it);
    }
    m_listClearedStreams.clear();
}

// Adds one stream's interval to the receiver-wide counters. In the first two passes of a receiver's life a
// video stream still holds what the server left out of its push, so there its marked losses count instead of
// the holes in its sequence.
void CAVGUdtRecv::FoldLossCounters(uint8 cSubType, tagUinDataBuf& stUinDataBuf)
{
    tagCPktFlowStat& stFlow = stUinDataBuf.stUinRecvPkgStat;
    stFlow.UpdateStat();
    m_dwRealRecvPkgNum += stFlow.m_stat.uRecvPkt;
    m_dwTotalLossTime += stFlow.m_stat.uLossTimes;
    if (cSubType == MEAVAudio || m_dwCalcLossCnt >= c_dwAllStreamsFoldPass)
    {
        m_dwExpectRecvPkgNum += stFlow.m_stat.uTotalPkt;
        return;
    }
    m_dwExpectRecvPkgNum += stUinDataBuf.dwCurTotalLost + stFlow.m_stat.uRecvPkt;
    stUinDataBuf.dwCurTotalLost = 0;
    stFlow.Reset();
}

// Removes a silent stream, and its user with the last of them. Returns the next stream.
MapUinInPkt::iterator CAVGUdtRecv::ExpireStream(MapUinInPkt::iterator itStream)
{
    const tagInPktKey stKey = itStream->first;
    RECV_LOG(LOG_LEVEL_ERROR, "CheckTimeOutNew", "CheckTimeOut Erase UIN:%llu subType %2d time_out %d",
             stKey.ullUserAccount, stKey.cSubType, c_dwClearUinTimeOut);
    m_dwChnClearNum += 1;
    const MapUinInPkt::iterator itNext = EraseStream(itStream);
    const uint32 dwDeleteUinNum = UpdateUinNum(stKey.ullUserAccount);
    if (dwDeleteUinNum != 0)
        EraseUser(stKey.ullUserAccount);
    m_dwUinNum -= std::min(dwDeleteUinNum, m_dwUinNum);
    return itNext;
}

// ---- Loss request message ------------------------------------------------------------------------------------

// Empties what the last request was gathered in. Streams come and go; when most of the entries must be of those that
// went, all go.
void CAVGUdtRecv::BeginLossRequest()
{
    if (m_mapLost.size() > 2 * m_mapUinInPkt.size() + c_nLostEntriesLeast)
        m_mapLost.clear();
    for (MapUinSeq::value_type& stStream : m_mapLost)
        stStream.second.clear();
}

// All that one caller gathered travels in one event: streams in key order, sequences as they were gathered.
void CAVGUdtRecv::RequestLossPacket(MapUinSeq& mapUinPacketIdx)
{
    if (m_bEnableReGetPkg == 0 || mapUinPacketIdx.empty())
        return;

    std::vector<tagReplyData>& vecReplyData = m_vecReply;
    vecReplyData.clear();
    for (const MapUinSeq::value_type& stStream : mapUinPacketIdx)
    {
        tagReplyData stReply;
        stReply.ullUserAccount = stStream.first.ullUserAccount;
        stReply.cSubType = stStream.first.cSubType;
        for (uint32 seq : stStream.second)
        {
            stReply.dwUserSeq = seq;
            vecReplyData.push_back(stReply);
        }
    }
    if (!vecReplyData.empty())
    {
        if (m_stGuards.dwMaxRequestsPerSecond != 0)
            m_requestBudget.Spend(vecReplyData.size());
        RecvDataEvent(AVGUdtRecvPacketEvent_LossRequest, (uint8*)vecReplyData.data(),
                      (uint32)vecReplyData.size(), 1, 1);
    }
}

// The single exit for events. The owner's answer changes nothing here.
boolean CAVGUdtRecv::RecvDataEvent(uint16 wType, uint8* pBuffer, uint32 nBufSize, uint32 nSendCount,
                                   uint32 nUdtV2)
{
    if (m_pCB != nullptr)
        m_pCB->UdtRecvHandleEvent(wType, pBuffer, nBufSize, nSendCount, nUdtV2);
    return TRUE;
}

// ---- Requests that failed --------------------------------------------------------------------------------------

// A sequence that is still being asked for has a fresh tick and never fails; it fails once the scan has given
// it up and it did not come. Counting stops no request.
void CAVGUdtRecv::CheckPkgRequestFail(uint32 dwNow)
{
    if (m_dwLastCheckPkgRqFailTime == 0)
    {
        m_dwLastCheckPkgRqFailTime = dwNow;
        return;
    }
    if (!TickPassed(dwNow, m_dwLastCheckPkgRqFailTime, c_dwRequestFailCheckGap))
        return;
    m_dwLastCheckPkgRqFailTime = dwNow;

    const uint32 dwTimelineDeltaMax = m_dwTimelineDeltaMax;
    for (MapUinInPkt::value_type& stStream : m_mapUinInPkt)
    {
        tagUinDataBuf& stUinDataBuf = stStream.second;
        MapSeqTick& mapRequestSeq = stUinDataBuf.mapRequestSeq;
        uint32 dwStartSeq = 0; // 0: none yet, so a failed 0 gives way to the next one
        uint32 dwEndSeq = 0;
        uint32 dwPkgNum = 0;
        for (MapSeqTick::iterator it = mapRequestSeq.begin(); it != mapRequestSeq.end();)
        {
            if (!TickPassed(dwNow, it->second, dwTimelineDeltaMax))
            {
                ++it;
                continue;
            }
            dwEndSeq = it->first;
            if (dwStartSeq == 0)
                dwStartSeq = it->first;
            ++dwPkgNum;
            it = mapRequestSeq.erase(it);
        }
        if (dwPkgNum == 0)
            continue;
        stUinDataBuf.stStatInfo.dwTotalReqFailNum += dwPkgNum;
        RECV_LOG(LOG_LEVEL_ERROR, "CheckPkgRequestFail",
                 "CheckPkgRequestFail: subtype %1d curNum %3d totalNum %5d stSeq %5d endSeq %5d curSize %3d "
                 "Uin %llu",
                 stStream.first.cSubType, dwPkgNum, stUinDataBuf.stStatInfo.dwTotalReqFailNum.Get(),
                 dwStartSeq, dwEndSeq, (int)mapRequestSeq.size(), stStream.first.ullUserAccount);
    }
}

// Read by RequestLossPacket alone: detection, stamps and failure counts go on while it is off.
void CAVGUdtRecv::UDTEnableReGetPkg(boolean bEnable)
{
    if (bEnable == m_bEnableReGetPkg)
        return;
    m_bEnableReGetPkg = bEnable;
    RECV_LOG(LOG_LEVEL_ERROR, "UDTEnableReGetPkg", "UDTR EnableReGetPkg bEnable[%d]", bEnable);
}
