/**
 * How a packet gets in: from the owner's network thread into the intake list, and from there, on the worker,
 * into the buffer of its stream.
 *
 * The network thread parses, counts, copies and appends, nothing more. The worker takes the whole list in one
 * swap at the start of its turn and handles it without a lock. Losses are looked for once per turn, after all
 * of it was filed.
 */

#include "AVGUDTRecv.h"

#include "AVGUDTRecvInner.h"
#include "AVGUDTRecvRules.h"

#include <algorithm>
#include <iterator>
#include <new>
#include <utility>

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

constexpr size_t c_nSpareLeast = 1024;  // emptied list nodes that are kept whatever came
constexpr size_t c_nSpareDecay = 64;    // turns that a large intake is remembered, as a time constant
constexpr size_t c_nSpareGivenUp = 256; // nodes given back per turn

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

// What the unwrapping of a new stream's timestamps remembers, for as long as the receiver runs unless a guard has it
// forgotten.
UDT_SELDOM tagPkgRingParam& CAVGUdtRecv::NewRingParam(const tagInPktKey& stKey)
{
    if (const uint32 dwMaxAccounts = m_stGuards.dwMaxAccounts)
        ForgetRingParams(stKey.ullUserAccount, dwMaxAccounts);

    const MapUinPkgRingParam::iterator it = m_mapUinPkgRingParam.emplace(stKey, tagPkgRingParam()).first;
    const auto isSameAccount = [&stKey](MapUinPkgRingParam::const_iterator itOther)
    { return itOther->first.ullUserAccount == stKey.ullUserAccount; };
    const bool bKnown = (it != m_mapUinPkgRingParam.begin() && isSameAccount(std::prev(it))) ||
                        (std::next(it) != m_mapUinPkgRingParam.end() && isSameAccount(std::next(it)));
    m_nRingAccounts += bKnown ? 0 : 1;
    return it->second;
}

UDT_PER_PACKET boolean CAVGUdtRecv::UDTReceiveNetData(uint32 dwSendSeq, uint64 llAccount, uint32 dwSeq,
                                                      WORD wTimeStamp, uint8 cSubType,
                                                      UDTCodecBaseDecode_V2* pData)
try
{
    if (m_bStop != 0)
        return TRUE;

    // The unwrapped transport time goes nowhere but into the trace below; playout goes by the media head.
    uint32 dwTimeStamp = 0;
    tagPkgRingParam stRing;
    {
        CXPAutoLock lock(m_dataLock);
        const tagInPktKey stKey(llAccount, cSubType);
        const MapUinPkgRingParam::iterator itRing = m_mapUinPkgRingParam.lower_bound(stKey);
        const bool bIsNew = UDT_RARELY(itRing == m_mapUinPkgRingParam.end() || stKey < itRing->first);
        tagPkgRingParam& stPkgRingParam = bIsNew ? NewRingParam(stKey) : itRing->second;
        dwTimeStamp = UnwrapTimeStamp(stPkgRingParam, wTimeStamp);
        stRing = stPkgRingParam;
    }

    tagUdtPacketHeadInfo stHeadInfo;
    if (pData != nullptr && m_pCB != nullptr)
        m_pCB->UdtParsePacketHeadInfo(pData->bufBody.pbuf, stHeadInfo);

    // Counted under the sub-type of the media head, filed under that of the transport header.
    if (pData != nullptr)
        CalcDownPacketLoss(dwSeq, stHeadInfo.cSubType, pData->wLen);

    tagDataPacket dataPacket;
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
        if (UDT_RARELY(m_stGuards.bIntake != FALSE) && !AdmitToIntake(llAccount, cSubType, pData))
            return TRUE;
        if (m_listSpare.empty())
            m_listSpare.emplace_back();
        m_listSpare.front() = std::move(dataPacket);
        m_listRawData.splice(m_listRawData.end(), m_listSpare, m_listSpare.begin());
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
    TakeRawData();

    // At the end nodes without packets are left in the list, and packets that were dropped. Those go when all are
    // handled, and also when memory ran out before that: the last reference may be here.
    struct tagDrop
    {
        std::list<tagDataPacket>& listTaken;
        ~tagDrop()
        {
            for (tagDataPacket& dataPacket : listTaken)
            {
                if (dataPacket.pRawData != nullptr)
                    dataPacket.pRawData = nullptr;
            }
        }
    } stDrop{m_listTaken};

    ApplyTimelineDelta();
    HandleRawData(m_listTaken);
    CalcLostInfo();
    UdtModeProcessNew();
    if (UDT_RARELY(m_stGuards.dwMaxLatency != 0))
        DropBacklogs();
    ApplyClearRequest();
}

// Gives the last turn's list nodes back and takes what has come. The network threads keep as many spare nodes as they
// lately used.
void CAVGUdtRecv::TakeRawData()
{
    m_nSpareWanted = std::max(m_listTaken.size(), m_nSpareWanted - m_nSpareWanted / c_nSpareDecay);
    std::list<tagDataPacket> listGivenUp;
    CXPAutoLock lock(m_dataLock);
    m_listSpare.splice(m_listSpare.end(), m_listTaken);
    m_listTaken.swap(m_listRawData);
    if (UDT_RARELY(m_stGuards.bIntake != FALSE))
        CountIntakeAnew();
    while (m_listSpare.size() > m_nSpareWanted + c_nSpareLeast && listGivenUp.size() < c_nSpareGivenUp)
        listGivenUp.splice(listGivenUp.end(), m_listSpare, m_listSpare.begin());
}

void CAVGUdtRecv::HandleRawData(std::list<tagDataPacket>& listRawData)
{
    if (listRawData.empty())
        return;
    // Handling them takes no time worth telling: the clock is read once. Packets of a stream come in bunches: its
    // records are looked up once for a bunch, and nothing in here erases one.
    const uint32 dwNow = TickNow();
    tagUinDataBuf* pstUinDataBuf = nullptr;
    tagUinDataInfo* pstUinDataInfo = nullptr;
    tagInPktKey stLast;
    m_bIdleUsersKnown = false;
    for (tagDataPacket& dataPacket : listRawData)
    {
        if (pstUinDataBuf == nullptr || dataPacket.llAccount != stLast.ullUserAccount ||
            dataPacket.cSubType != stLast.cSubType)
        {
            stLast = tagInPktKey(dataPacket.llAccount, dataPacket.cSubType);
            pstUinDataBuf = nullptr;
            const MapUinInPkt::iterator itStream = FindOrCreateStream(dataPacket);
            if (UDT_RARELY(itStream == m_mapUinInPkt.end()))
                continue; // a guard turned it away
            pstUinDataBuf = &itStream->second;
            pstUinDataInfo = &FindOrCreateUser(dataPacket.llAccount);
        }
        HandleData(*pstUinDataBuf, *pstUinDataInfo, dataPacket, HANDLE_TAKE, dwNow);
    }
}

// Every stream on every turn; but where nothing has changed the walk would change nothing.
void CAVGUdtRecv::CalcLostInfo()
{
    for (MapUinInPkt::value_type& stStream : m_mapUinInPkt)
    {
        if (IsLossSettled(stStream.second))
            continue;
        if (IsVideoWithLoss(stStream.first.cSubType))
            CalcVidLostInfo(stStream.second);
        else if (stStream.first.cSubType == MEAVAudio)
            CalcAudLostInfo(stStream.second);
    }
}

void CAVGUdtRecv::OnDataHandleNew(tagDataPacket& dataPacket)
{
    const MapUinInPkt::iterator itStream = FindOrCreateStream(dataPacket);
    if (itStream == m_mapUinInPkt.end())
        return; // a guard turned it away
    HandleData(itStream->second, FindOrCreateUser(dataPacket.llAccount), dataPacket, HANDLE_COPY, TickNow());
}

UDT_PER_PACKET void CAVGUdtRecv::HandleData(tagUinDataBuf& stUinDataBuf, tagUinDataInfo& stUinDataInfo,
                                            tagDataPacket& dataPacket, emHandle eHandle, uint32 dwNow)
{
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

    CheckSyncTimeOut(stUinDataBuf, stUinDataInfo, dwNow);
    stUinDataBuf.stStatInfo.dwTotalRecvPkgNum += 1; // duplicates count as well
    TakeRequestAnswer(stUinDataBuf, dataPacket);

    // A packet that is still buffered but has left the duplicate history moves the transit band before it is
    // dropped: it did arrive now, and the band is about arrivals.
    const bool bIsDuplicate = CheckDuplicate(stUinDataBuf, dataPacket.dwSenderSeq, dwNow);
    if (!bIsDuplicate)
        MoveBand(stUinDataInfo, dataPacket, dwNow);

    tagPktNode* const pNext = stUinDataBuf.mapUdtPacket.FindFrom(dataPacket.dwSenderSeq);
    const bool bBuffered = pNext != nullptr && pNext->Seq() == dataPacket.dwSenderSeq;
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

    // Like a duplicate it was counted, answers its request and moved the band; but it may come again.
    if (UDT_RARELY(m_stGuards.bStream != FALSE) && !AdmitToStream(stUinDataBuf))
        return;

    BufferPacket(stUinDataBuf, pNext, dataPacket, eHandle);
    stUinDataBuf.dwLastRecvPackTime = dwNow;
    stUinDataBuf.mapRecvSeq.Set(dataPacket.dwSenderSeq, dwNow);
    CheckEarlyPush(stUinDataBuf, stUinDataInfo, dataPacket, dwNow);
}

void CAVGUdtRecv::BufferPacket(tagUinDataBuf& stUinDataBuf, tagPktNode* pBefore, tagDataPacket& dataPacket,
                               emHandle eHandle)
{
    MapUdtPacket& pkgList = stUinDataBuf.mapUdtPacket;
    tagPktNode* const pNode = eHandle == HANDLE_TAKE
                                  ? pkgList.Insert(pBefore, dataPacket.dwSenderSeq, std::move(dataPacket))
                                  : pkgList.Insert(pBefore, dataPacket.dwSenderSeq, dataPacket);
    stUinDataBuf.stTrack.NoteBuffered(pNode);
}

// The map's end: a guard turns the packet away.
MapUinInPkt::iterator CAVGUdtRecv::FindOrCreateStream(const tagDataPacket& dataPacket)
{
    const tagInPktKey stKey(dataPacket.llAccount, dataPacket.cSubType);
    const MapUinInPkt::iterator itStream = m_mapUinInPkt.find(stKey);
    if (itStream != m_mapUinInPkt.end())
        return itStream;
    if (!AdmitStream(dataPacket.llAccount))
        return m_mapUinInPkt.end();

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
void CAVGUdtRecv::CheckSyncTimeOut(tagUinDataBuf& stUinDataBuf, tagUinDataInfo& stUinDataInfo, uint32 dwNow)
{
    if (stUinDataBuf.bPushStmDone ||
        !TickPassed(dwNow, stUinDataBuf.dwRecvFirstPkgTime, c_dwMapUinSyncTimeOut))
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
    if (stUinDataBuf.mapRequestSeq.IsBehindAll(dataPacket.dwSenderSeq) ||
        stUinDataBuf.mapRequestSeq.erase(dataPacket.dwSenderSeq) == 0)
        return;
    RECV_LOG(LOG_LEVEL_DEBUG, "OnDataHandleNew", "recv_request_pkg: subtype %1d seq %5d %5d Uin %llu",
             dataPacket.cSubType, dataPacket.dwSenderSeq, dataPacket.dwSeq, dataPacket.llAccount);
}

// A server that pushes a GOP when a stream starts may send media far behind a timeline that already runs. A
// few such packets may be strays; from the fifth on the timeline is pulled back to them, and stays that easy
// to pull: the count is never reset.
void CAVGUdtRecv::CheckEarlyPush(tagUinDataBuf& stUinDataBuf, tagUinDataInfo& stUinDataInfo,
                                 const tagDataPacket& dataPacket, uint32 dwNow)
{
    if (dataPacket.dwMETimeStamp + c_dwEarlyPushLag > stUinDataInfo.dwTimelineOut || dataPacket.cSubType == 0)
        return;
    stUinDataBuf.stStatInfo.dwSkipPkgNum += 1;
    if (stUinDataBuf.stStatInfo.dwSkipPkgNum < c_dwEarlyPushCount)
        return;
    if (m_stGuards.dwMaxPullBacks != 0 && !AdmitPullBack(dataPacket.llAccount, dwNow))
        return;

    const uint32 dwNewOut = stUinDataBuf.mapUdtPacket.Head()->Pkt().dwMETimeStamp;
    RECV_LOG(LOG_LEVEL_ERROR, "OnDataHandleNew",
             "Server Push Early Packet Make TimelineOut From %u Back to %u",
             stUinDataInfo.dwTimelineOut.Get(), dwNewOut);
    stUinDataInfo.dwTimelineOut = dwNewOut;
    ClearUselessData(dataPacket.llAccount, dwNewOut + c_dwPullBackKeep);

    stUinDataInfo.dwVidResetTimelineMin = VID_RESET_NONE;
    stUinDataBuf.dwRecvFirstPkgTime = dwNow;
    stUinDataBuf.bPushStmDone = false;
    stUinDataInfo.dwTimelineIn = dataPacket.dwMETimeStamp;

    // What was played before may come again and shall be played again.
    stUinDataBuf.mapRecvSeq.clear();
    if (dataPacket.cSubType != MEAVAudio)
        ClearAudioRecvSeq(dataPacket.llAccount);
}

bool CAVGUdtRecv::CheckDuplicate(tagUinDataBuf& stUinDataBuf, uint32 dwSeq)
{
    return CheckDuplicate(stUinDataBuf, dwSeq, TickNow());
}

bool CAVGUdtRecv::CheckDuplicate(tagUinDataBuf& stUinDataBuf, uint32 dwSeq, uint32 dwTimeNow)
{
    const uint32 dwMaxTime = std::max(m_dwTimelineDeltaMax.Get(), c_dwPkgDuplicatedInterval);

    // Looked up before the purge: an entry that ages out in this very call still counts.
    MapSeqTick& mapRecvSeq = stUinDataBuf.mapRecvSeq;
    const bool bIsDuplicate = mapRecvSeq.count(dwSeq) != 0;

    // From the lowest sequence up to the first young entry; old ones behind it stay.
    while (!mapRecvSeq.empty() && TickReached(dwTimeNow, mapRecvSeq.begin()->second, dwMaxTime))
        mapRecvSeq.pop_front();
    return bIsDuplicate;
}
