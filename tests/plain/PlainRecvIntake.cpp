/**
 * How a packet gets in: from the owner's network thread into the intake list, and from there, on the worker,
 * into the buffer of its stream.
 *
 * The network thread parses, counts, copies and appends, nothing more. The worker takes the whole list in one
 * swap at the start of its turn and handles it without a lock. Losses are looked for once per turn, after all
 * of it was filed.
 */

#include "PlainRecv.h"

#include "PlainRecvInner.h"
#include "PlainRecvRules.h"

#include <algorithm>
#include <new>

namespace plain
{

namespace
{

constexpr uint32 c_dwStartTimelineDelta = 100; // ms, every new stream
constexpr uint32 c_dwEarlyPushLag = 2000;      // ms behind playout that make a packet an early push
constexpr uint32 c_dwEarlyPushCount = 5;       // early packets before the timeline is pulled back
constexpr uint32 c_dwPullBackKeep = 4500;      // ms of media ahead of the new playout point that stay

bool IsVideoWithLoss(uint8 cSubType)
{
    return cSubType == MEAVMaxVideo || cSubType == MEAVMinVideo || cSubType == MEAVSubVideo;
}

void FillFromHead(tagDataPacket& dataPacket, const tagUdtPacketHeadInfo& stHeadInfo)
{
    dataPacket.dwTimeStamp = stHeadInfo.uTimeStamp;
    dataPacket.cFrmIdx = stHeadInfo.cFrameIndex;
    dataPacket.cPkgIndex = stHeadInfo.cPkgIndex;
    dataPacket.cGopIdx = stHeadInfo.cGopIndex;
    dataPacket.cFrmType = stHeadInfo.cFrmType;
    dataPacket.cFecNum = stHeadInfo.cFecPkgCount;
    dataPacket.cPkgNum = stHeadInfo.cTotalPkgCount;
    dataPacket.dwMETimeStamp = stHeadInfo.uTimeStamp;
}

} // namespace

// ---- Network threads ---------------------------------------------------------------------------------------

boolean CAVGUdtRecv::UDTReceiveNetData(uint32 dwSendSeq, uint64 llAccount, uint32 dwSeq, WORD wTimeStamp,
                                       uint8 cSubType, UDTCodecBaseDecode_V2* pData)
try
{
    if (m_bStop != 0)
        return TRUE;

    // The unwrapped transport time goes nowhere but into the trace below; playout goes by the media head.
    uint32 dwTimeStamp = 0;
    tagPkgRingParam stRing;
    {
        CXPAutoLock lock(m_dataLock);
        tagPkgRingParam& stPkgRingParam = m_mapUinPkgRingParam[tagInPktKey(llAccount, cSubType)];
        dwTimeStamp = UnwrapTimeStamp(stPkgRingParam, wTimeStamp);
        stRing = stPkgRingParam;
    }

    tagUdtPacketHeadInfo stHeadInfo;
    if (pData != nullptr && m_pCB != nullptr)
        m_pCB->UdtParsePacketHeadInfo(pData->bufBody.pbuf, stHeadInfo);

    // Counted under the sub-type of the media head, filed under that of the transport header.
    if (pData != nullptr)
        CalcDownPacketLoss(dwSeq, stHeadInfo.cSubType, pData->wLen);

    std::list<tagDataPacket> listOne(1);
    tagDataPacket& dataPacket = listOne.front();
    dataPacket.dwSenderSeq = dwSendSeq;
    dataPacket.llAccount = llAccount;
    dataPacket.dwSeq = dwSeq;
    dataPacket.cSubType = cSubType;
    dataPacket.pRawData = pData;
    dataPacket.dwRecvTime = TickNow();
    FillFromHead(dataPacket, stHeadInfo);
    {
        CXPAutoLock lock(m_dataLock);
        // Asked again under the lock that the last clearing takes: nothing is left behind it.
        if (m_bStop != 0)
            return TRUE;
        m_listRawData.splice(m_listRawData.end(), listOne);
    }

    RECV_LOG(
        LOG_LEVEL_DEBUG, "UDTReceiveNetData",
        "ReceiveNetData: SubType %1d %1d seq %5d %5d FT %1d PkgIdx %2d TotalPkgCnt %2d fecN %2d FrmIdx %2d "
        "GopIdx %2d dataTS %u %5u METS %5u tsBase %u tsSwitch %1d Uin %llu",
        cSubType, stHeadInfo.cSubType, dwSendSeq, dwSeq, stHeadInfo.cFrmType, stHeadInfo.cPkgIndex,
        stHeadInfo.cTotalPkgCount, stHeadInfo.cFecPkgCount, stHeadInfo.cFrameIndex, stHeadInfo.cGopIndex,
        dwTimeStamp, wTimeStamp, stHeadInfo.uTimeStamp, stRing.dwTimeStampBase, stRing.bSwitch, llAccount);
    return TRUE;
}
catch (const std::bad_alloc&)
{
    // The network loses packets, so do we; the worker will ask for this one again.
    return TRUE;
}

// ---- Worker ------------------------------------------------------------------------------------------------

void CAVGUdtRecv::Deliver()
{
    std::list<tagDataPacket> listRawData;
    {
        CXPAutoLock lock(m_dataLock);
        listRawData.swap(m_listRawData);
    }
    ApplyTimelineDelta();
    for (tagDataPacket& dataPacket : listRawData)
        OnDataHandleNew(dataPacket);
    CalcLostInfo();
    UdtModeProcessNew();
    ApplyClearRequest();
}

// Every stream on every turn, new packets or not.
void CAVGUdtRecv::CalcLostInfo()
{
    for (MapUinInPkt::value_type& stStream : m_mapUinInPkt)
    {
        if (IsVideoWithLoss(stStream.first.cSubType))
            CalcVidLostInfo(stStream.second);
        else if (stStream.first.cSubType == MEAVAudio)
            CalcAudLostInfo(stStream.second);
    }
}

void CAVGUdtRecv::OnDataHandleNew(tagDataPacket& dataPacket)
{
    tagUinDataBuf& stUinDataBuf = FindOrCreateStream(dataPacket)->second;
    tagUinDataInfo& stUinDataInfo = FindOrCreateUser(dataPacket.llAccount);

    if (IsVideoWithLoss(dataPacket.cSubType))
    {
        stUinDataInfo.dwHasVideo = 1;
        m_dwOutDelayDone = 1;
        CalcVidGopInfo(stUinDataBuf, dataPacket); // duplicates pass through it too
    }

    if (m_LogPrintFlag != 0 || (stUinDataBuf.dwLogPrintFlag & LOG_RECV) != 0)
    {
        RECV_LOG(
            LOG_LEVEL_ERROR, "OnDataHandleNew",
            "OnDataHandle: SubType %1d seq %5d %5d FT %1d PkgIdx %2d TotalPkgCnt %2d fecN %2d FrmIdx %2d "
            "GopIdx %2d dataTS %u AudPlayDelay %u Uin %llu",
            dataPacket.cSubType, dataPacket.dwSenderSeq, dataPacket.dwSeq, dataPacket.cFrmType,
            dataPacket.cPkgIndex, dataPacket.cPkgNum, dataPacket.cFecNum, dataPacket.cFrmIdx,
            dataPacket.cGopIdx, dataPacket.dwTimeStamp, stUinDataBuf.dwAudPlayDelayRTS, dataPacket.llAccount);
        stUinDataBuf.dwLogPrintFlag &= ~(uint32)LOG_RECV;
    }

    CheckSyncTimeOut(stUinDataBuf, stUinDataInfo);
    stUinDataBuf.stStatInfo.dwTotalRecvPkgNum += 1; // duplicates count as well
    TakeRequestAnswer(stUinDataBuf, dataPacket);

    // A packet that is still buffered but has left the duplicate history moves the transit band before it is
    // dropped: it did arrive now, and the band is about arrivals.
    const bool bIsDuplicate = CheckDuplicate(stUinDataBuf, dataPacket.dwSenderSeq);
    if (!bIsDuplicate)
        CalcTimelineMaxMin(dataPacket);

    MapUdtPacket& pkgList = stUinDataBuf.mapUdtPacket;
    const MapUdtPacket::iterator it_udt = pkgList.lower_bound(dataPacket.dwSenderSeq);
    const bool bBuffered = it_udt != pkgList.end() && it_udt->first == dataPacket.dwSenderSeq;
    if (bBuffered || bIsDuplicate)
    {
        RECV_LOG(
            LOG_LEVEL_DEBUG, "OnDataHandleNew",
            "Pkg is duplicated: SubType %1u SendSeq %5u %5u Duplicate %1d TimeStamp %u TLMin %u gI %2d fI "
            "%2d pI %2d ft %1d GopC %2d Uin %llu",
            dataPacket.cSubType, dataPacket.dwSenderSeq, dataPacket.dwSeq, (int)bIsDuplicate,
            dataPacket.dwTimeStamp, stUinDataBuf.dwTimelineMin, dataPacket.cGopIdx, dataPacket.cFrmIdx,
            dataPacket.cPkgIndex, dataPacket.cFrmType, stUinDataBuf.dwVidGopCnt, dataPacket.llAccount);
        return;
    }

    pkgList.emplace_hint(it_udt, dataPacket.dwSenderSeq, dataPacket);
    const uint32 dwNow = TickNow();
    stUinDataBuf.dwLastRecvPackTime = dwNow;
    stUinDataBuf.mapRecvSeq[dataPacket.dwSenderSeq] = dwNow;
    CheckEarlyPush(stUinDataBuf, stUinDataInfo, dataPacket);
}

MapUinInPkt::iterator CAVGUdtRecv::FindOrCreateStream(const tagDataPacket& dataPacket)
{
    const tagInPktKey stKey(dataPacket.llAccount, dataPacket.cSubType);
    const MapUinInPkt::iterator itStream = m_mapUinInPkt.find(stKey);
    if (itStream != m_mapUinInPkt.end())
        return itStream;

    tagUinDataBuf stUinDataBuf;
    stUinDataBuf.dwTimelineMin = c_dwNone32;
    stUinDataBuf.dwTimelineMax = 0;
    stUinDataBuf.dwTimelineDelta = c_dwStartTimelineDelta;
    stUinDataBuf.dwTimelineOut = c_dwNone32;
    stUinDataBuf.dwLastRecvPackTime = TickNow();
    stUinDataBuf.dwLastCheckDeltaTime = TickNow();
    stUinDataBuf.dwRecvFirstPkgTime = stUinDataBuf.dwLastRecvPackTime;
    stUinDataBuf.dwConfigTimelineDelta = m_dwTimelineDelta;
    stUinDataBuf.dwAVStampSync = 1;
    stUinDataBuf.stStatInfo.dwConfgMinDelay = m_dwTimelineDelta;
    stUinDataBuf.stStatInfo.dwConfgMaxDelay = m_dwTimelineDeltaMax;

    // Asked before the insertion: does this packet bring a new user?
    m_dwUinNum += UpdateUinNum(dataPacket.llAccount);
    return InsertStream(stKey, stUinDataBuf);
}

// 2.5 s after a stream's first packet the wait for the room state and for the server's push ends. Runs once
// per push phase; a pull-back of the timeline begins a new one.
void CAVGUdtRecv::CheckSyncTimeOut(tagUinDataBuf& stUinDataBuf, tagUinDataInfo& stUinDataInfo)
{
    if (!TickPassed(TickNow(), stUinDataBuf.dwRecvFirstPkgTime, c_dwMapUinSyncTimeOut) ||
        stUinDataBuf.bPushStmDone)
        return;

    if (m_dwRoomLogicState == 0)
    {
        m_dwRoomLogicState = c_dwRoomStatePlaying;
        RECV_LOG(LOG_LEVEL_ERROR, "OnDataHandleNew", "%s",
                 "m_dwRoomLogicState didn't set to be true for a long time(2.5s)! force to be true.");
    }
    if (stUinDataInfo.dwVidResetTimelineMin == VID_RESET_NONE && stUinDataInfo.dwHasVideo != 0)
    {
        stUinDataInfo.dwVidResetTimelineMin = VID_RESET_ASKED;
        RECV_LOG(LOG_LEVEL_ERROR, "OnDataHandleNew", "TimelineMinReset: old-dwVidResetTimelineMin %1d",
                 stUinDataInfo.dwVidResetTimelineMin);
    }
    m_LogPrintFlag = 0;
    stUinDataBuf.bPushStmDone = true;
    if (stUinDataInfo.dwHasVideo == 0)
        stUinDataBuf.dwOutputSwitch = 0;
    m_dwOutDelayDone = 1;
    stUinDataBuf.dwAudPushDone = 1;
}

// A packet that was asked for closes its request, even when it then turns out to be a duplicate.
void CAVGUdtRecv::TakeRequestAnswer(tagUinDataBuf& stUinDataBuf, const tagDataPacket& dataPacket)
{
    if (stUinDataBuf.mapRequestSeq.erase(dataPacket.dwSenderSeq) == 0)
        return;
    RECV_LOG(LOG_LEVEL_DEBUG, "OnDataHandleNew", "recv_request_pkg: subtype %1d seq %5d %5d Uin %llu",
             dataPacket.cSubType, dataPacket.dwSenderSeq, dataPacket.dwSeq, dataPacket.llAccount);
}

// A server that pushes a GOP when a stream starts may send media far behind a timeline that already runs. A
// few such packets may be strays; from the fifth on the timeline is pulled back to them, and stays that easy
// to pull: the count is never reset.
void CAVGUdtRecv::CheckEarlyPush(tagUinDataBuf& stUinDataBuf, tagUinDataInfo& stUinDataInfo,
                                 const tagDataPacket& dataPacket)
{
    if (dataPacket.dwMETimeStamp + c_dwEarlyPushLag > stUinDataInfo.dwTimelineOut || dataPacket.cSubType == 0)
        return;
    stUinDataBuf.stStatInfo.dwSkipPkgNum += 1;
    if (stUinDataBuf.stStatInfo.dwSkipPkgNum < c_dwEarlyPushCount)
        return;

    const uint32 dwNewOut = stUinDataBuf.mapUdtPacket.begin()->second.dwMETimeStamp;
    RECV_LOG(LOG_LEVEL_ERROR, "OnDataHandleNew",
             "Server Push Early Packet Make TimelineOut From %u Back to %u",
             stUinDataInfo.dwTimelineOut.Get(), dwNewOut);
    stUinDataInfo.dwTimelineOut = dwNewOut;
    ClearUselessData(dataPacket.llAccount, dwNewOut + c_dwPullBackKeep);

    stUinDataInfo.dwVidResetTimelineMin = VID_RESET_NONE;
    stUinDataBuf.dwRecvFirstPkgTime = TickNow();
    stUinDataBuf.bPushStmDone = false;
    stUinDataInfo.dwTimelineIn = dataPacket.dwMETimeStamp;

    // What was played before may come again and shall be played again.
    stUinDataBuf.mapRecvSeq.clear();
    if (dataPacket.cSubType != MEAVAudio)
        ClearAudioRecvSeq(dataPacket.llAccount);
}

bool CAVGUdtRecv::CheckDuplicate(tagUinDataBuf& stUinDataBuf, uint32 dwSeq)
{
    const uint32 dwTimeNow = TickNow();
    const uint32 dwMaxTime = std::max(m_dwTimelineDeltaMax.Get(), c_dwPkgDuplicatedInterval);

    // Looked up before the purge: an entry that ages out in this very call still counts.
    std::map<uint32, uint32>& mapRecvSeq = stUinDataBuf.mapRecvSeq;
    const bool bIsDuplicate = mapRecvSeq.find(dwSeq) != mapRecvSeq.end();

    // From the lowest sequence up to the first young entry; old ones behind it stay.
    while (!mapRecvSeq.empty() && TickReached(dwTimeNow, mapRecvSeq.begin()->second, dwMaxTime))
        mapRecvSeq.erase(mapRecvSeq.begin());
    return bIsDuplicate;
}

} // namespace plain
