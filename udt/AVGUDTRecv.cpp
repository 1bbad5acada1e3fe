/**
 * How the receiver lives: construction, start, turns, stop; the owner's settings; the clearing of streams.
 *
 * The control thread starts, stops and sets; the worker runs the turns and carries out what the setters and
 * clear requests left for it. Nothing here looks into a stream's packets.
 */

#include "AVGUDTRecv.h"

#include "AVGUDTRecvInner.h"
#include "AVGUDTRecvRules.h"
#include "UDTInsideParam.h"

#include <algorithm>
#include <new>
#include <pthread.h>
#include <unistd.h>
#include <utility>

namespace
{

constexpr int c_nVersion = 1911;          // written to the start and stop lines
constexpr uint32 c_dwStopGraceMs = 200;   // for the worker to finish its turn
constexpr uint32 c_dwTurnSleepUs = 10000; // between turns
constexpr uint32 c_dwTurnWaitMs = 1;      // between looks at a turn that another thread makes
constexpr uint32 c_dwSpeedFactor = 10;    // smoothing of the rate meters

constexpr uint32 c_dwDefaultCalcTimer = 2000;     // ms
constexpr uint32 c_dwDefaultTimelineDelta = 1000; // ms
constexpr uint32 c_dwDefaultOutputDelay = 200;    // ms
constexpr uint32 c_dwDefaultMinDelay = 500;       // ms
constexpr uint32 c_dwLeastFirstGetTime = 200;     // ms
constexpr uint32 c_dwLeastNextGetTime = 100;      // ms
constexpr uint32 c_dwRttMargin = 50;              // ms over the round-trip time before a request repeats
constexpr uint32 c_dwLeastRttInterval = 200;      // ms

uint64 ThisThread() { return (uint64)pthread_self(); }

// The three meters in use: places in m_pSpeed are types counted from TOTAL_RECV_SPEED.
constexpr int SpeedIndex(emSpeedType eType) { return (int)eType - (int)TOTAL_RECV_SPEED; }

constexpr emSpeedType c_eSpeeds[] = {TOTAL_RECV_SPEED, TOTAL_AUDIO_RECV_SPEED, TOTAL_VIDEO_RECV_SPEED};
constexpr emSpeedType c_eSpeedsUndone[] = {TOTAL_RECV_SPEED, TOTAL_VIDEO_RECV_SPEED, TOTAL_AUDIO_RECV_SPEED};

} // namespace

// Closes a turn again, whatever a callback lets out.
struct CAVGUdtRecv::tagOpenTurn
{
    tagOpenTurn(CAVGUdtRecv& recvOf, bool bOpenedHere) : recv(recvOf), bOpened(bOpenedHere) {}
    ~tagOpenTurn()
    {
        if (bOpened)
            recv.EndTurn();
    }
    tagOpenTurn(const tagOpenTurn&) = delete;
    tagOpenTurn& operator=(const tagOpenTurn&) = delete;

    CAVGUdtRecv& recv;
    const bool bOpened;
};

// ---- Lifecycle -------------------------------------------------------------------------------------------

CAVGUdtRecv::CAVGUdtRecv(IUDTRecvEventCallBack* pCB)
    : m_pCB(pCB), m_bStop(1), m_hRecvEvent(nullptr), m_dwRecvChnStartTime(0), m_dwLastCheckPkgTimeoutTime(0),
      m_dwUdtlossDataRequestInterval(c_dwUdtlossDataRequestInterval),
      m_dwUdtFirstReGetTime(c_dwDefaultFirstGetTime), m_dwLastCheckPkgRqFailTime(0),
      m_dwTimelineDeltaMax(c_dwTimelineDeltaMax), m_dwRTT(0), m_dwAddDelay(0), m_dwLastCheckTimeout(0),
      m_dwExpectRecvPkgNum(0), m_dwRealRecvPkgNum(0), m_dwTotalLossTime(0), m_dwCalcLossCnt(0),
      m_bEnableReGetPkg(1), m_dwLastCalcRecvLoss(0), m_dwLoss100(0), m_dwTotalNum(0), m_dwRealNum(0),
      m_dwAvgLossMode(0), m_dwDownLoss100(0), m_dwCalcTimer(c_dwDefaultCalcTimer),
      m_dwTimelineDelta(c_dwDefaultTimelineDelta), m_dwUdtRecvMode(0),
      m_dwOutputDelay(c_dwDefaultOutputDelay), m_dwUdtParamsChanged(0), m_dwClearRequest(0),
      m_dwRoomLogicState(0), m_dwCheckLossParamTime(0), m_dwLossParamSetFlag(0), m_dwPacketRecvCnt(0),
      m_dwBytesRecvCnt(0), m_pSpeed(), m_dwSeqFirstRecv(0), m_dwSeqLastRecv(0), m_dwMaxLossRate(0),
      m_dwMinLossRate(c_dwNone32), m_dwCurLossRate(0), m_dwLossRateAccNum(0), m_dwLossRateAccCnt(0),
      m_dwServPushGopNum(c_dwServerPushGopNum), m_dwMinDelayFromServ(c_dwDefaultMinDelay),
      m_dwIFrmPkgLostInfo(0), m_dwPushStmDone(0), m_dwAVSyncAdjSwitch(1), m_LogPrintFlag(0),
      m_dwOutDelayDone(0), m_dwChnClearNum(0), m_dwUinNum(0), m_dwMultiUinAVSync(0), m_dwLogPrintTimer(0),
      m_dwLastPrintTick(0), m_nSpareWanted(0), m_pstReleasing(nullptr), m_bInTurn(FALSE),
      m_bStoppedInTurn(FALSE), m_ullTurnThread(0), m_ullIntakeBytes(0), m_nRingAccounts(0), m_nFirstDemand(0),
      m_bIdleUsersKnown(false), m_dwPullBackTick(0)
{
}

CAVGUdtRecv::~CAVGUdtRecv()
{
    CAVGUdtRecv::Stop();
    m_pCB = nullptr;
}

void CAVGUdtRecv::Start()
{
    if (m_bStop == 0)
        return;
    if (!AwaitWorker())
    {
        RECV_LOG(LOG_LEVEL_ERROR, "Start", "CAVGUdtRecv:: start from inside the stopping turn is ignored");
        return;
    }
    {
        const tagOpenTurn stNoTurn(*this, AwaitTurn());
        Clear();
        m_bStoppedInTurn = FALSE;
        m_hRecvEvent = xpevent_create(0, 0);
        m_bStop = 0;

        const uint32 dwNow = TickNow();
        m_dwLastCalcRecvLoss = dwNow;
        m_dwRecvChnStartTime = dwNow;

        InitSpeed();
    }
    CAVGThreadModel::StartThread();
    RECV_LOG(LOG_LEVEL_ERROR, "Start", "CAVGUdtRecv:: thread start... ver %d", c_nVersion);
}

void CAVGUdtRecv::Stop()
{
    if (m_bStop.Exchange(1) != 0)
    {
        // A worker stopped from inside its own callback may still be on its way out.
        AwaitWorker();
        return;
    }
    xpevent_signal(m_hRecvEvent);

    if (!IsOwnerDriven() && !IsWorkerThread())
    {
        xp_msleep(c_dwStopGraceMs);
        CAVGThreadModel::StopThread();
    }
    {
        const tagOpenTurn stNoTurn(*this, AwaitTurn());
        m_bStoppedInTurn = (boolean)IsOwnerDriven();
        if (stNoTurn.bOpened)
            FinishStop();

        xpevent_destory(m_hRecvEvent);
        m_hRecvEvent = nullptr;
        UninitSpeed();
        ResetStopCounters();
        m_bEnableReGetPkg = 1;
    }
    RECV_LOG(LOG_LEVEL_ERROR, "Stop", "CAVGUdtRecv:: thread stop... ver %d", c_nVersion);
}

void CAVGUdtRecv::Run()
{
    while (m_bStop == 0)
    {
        RunTurn();
        usleep(c_dwTurnSleepUs);
    }
    EndRun();
}

// Memory that runs out costs this step, not the owner's process.
template <void (CAVGUdtRecv::*pfnStep)()>
void CAVGUdtRecv::GuardedStep(const char* pszOper)
{
    try
    {
        (this->*pfnStep)();
    }
    catch (const std::bad_alloc&)
    {
        RECV_LOG(LOG_LEVEL_FAULT, pszOper, "out of memory, the step is cut short");
    }
}

void CAVGUdtRecv::RunTurn()
{
    const tagOpenTurn stTurn(*this, BeginTurn());
    if (!stTurn.bOpened)
        return;
    GuardedStep<&CAVGUdtRecv::Deliver>("Deliver");
    GuardedStep<&CAVGUdtRecv::OutPacket>("OutPacket");
    GuardedStep<&CAVGUdtRecv::CheckTimeOutNew>("CheckTimeOutNew");
    GuardedStep<&CAVGUdtRecv::CalcStatInfo>("CalcStatInfo");
    FinishStop();
}

// A turn is made once at a time: a callback that asks for another one would pull the streams from under the
// walk it was called from.
bool CAVGUdtRecv::BeginTurn()
{
    if (m_bInTurn.Exchange(TRUE) != FALSE)
        return false;
    m_ullTurnThread = ThisThread();
    return true;
}

void CAVGUdtRecv::EndTurn()
{
    m_ullTurnThread = 0;
    m_bInTurn.Exchange(FALSE);
}

// An owner-driven receiver may be turned by one thread and started and stopped by another: keeps turns out until
// EndTurn. False: this is inside the turn, which cannot be waited for.
bool CAVGUdtRecv::AwaitTurn()
{
    while (!BeginTurn())
    {
        if (m_ullTurnThread == ThisThread())
            return false;
        xp_msleep(c_dwTurnWaitMs);
    }
    return true;
}

// Owner-driven: writes the end of a stopped run; of one stopped by a callback, when its turn is over.
void CAVGUdtRecv::FinishStop()
{
    if (m_bStoppedInTurn == FALSE)
        return;
    m_bStoppedInTurn = FALSE;
    EndRun();
}

// What follows the last turn.
void CAVGUdtRecv::EndRun()
{
    PrintStatInfo();
    Clear();
    // Once more: a turn that was stopped from inside itself went on after Stop had reset these.
    ResetStopCounters();
    RECV_LOG(LOG_LEVEL_ERROR, "Run", "CAVGUdtRecv:: run stop...");
}

// Waits for a worker that was stopped from inside its turn, and for what another thread is at. False: this is that turn.
bool CAVGUdtRecv::AwaitWorker()
{
    if (IsWorkerThread())
        return false;
    CAVGThreadModel::StopThread();
    return tagOpenTurn(*this, AwaitTurn()).bOpened;
}

void CAVGUdtRecv::ResetStopCounters()
{
    m_dwLastCheckTimeout = 0;
    m_dwExpectRecvPkgNum = 0;
    m_dwRealRecvPkgNum = 0;
    m_dwTotalLossTime = 0;
}

void CAVGUdtRecv::Clear()
{
    // Swapped out under the locks, destroyed after them: dropping the last reference to a packet runs its
    // maker's code, which may well call in here.
    std::list<tagDataPacket> listRawData;
    std::list<tagDataPacket> listSpare;
    MapUinInPkt mapUinInPkt;
    MapUinPkgRingParam mapUinPkgRingParam;
    MapUinDataInfo mapUinDataInfo;
    {
        CXPAutoLock lock(m_dataLock);
        listRawData.swap(m_listRawData);
        listSpare.swap(m_listSpare);
        mapUinPkgRingParam.swap(m_mapUinPkgRingParam);
        m_ullIntakeBytes = 0;
        m_mapIntakeShares.clear();
        m_nRingAccounts = 0;
        CXPAutoLock lockStreams(m_lockStreams);
        mapUinDataInfo.swap(m_mapUinDataInfo);
        mapUinInPkt.swap(m_mapUinInPkt);
    }
    listRawData.clear();
    mapUinInPkt.clear();
    RECV_LOG(LOG_LEVEL_ERROR, "Clear", "CAVGUdtRecv:: Clear.");
}

void CAVGUdtRecv::InitSpeed()
{
    CUDTInsideParam* pParam = CUDTInsideParam::GetInstance();
    for (emSpeedType eType : c_eSpeeds)
    {
        CXPAutoLock lock(m_lockRevcLoss);
        CAVGSpeed*& pSpeed = m_pSpeed[SpeedIndex(eType)];
        if (pSpeed == nullptr)
            pSpeed = new (std::nothrow) CAVGSpeed(c_dwSpeedFactor);
    }
    if (pParam == nullptr)
        return;
    for (emSpeedType eType : c_eSpeeds)
        pParam->SetSpeed(m_pSpeed[SpeedIndex(eType)], eType);
}

void CAVGUdtRecv::UninitSpeed()
{
    // Unregister first, so that the process-wide readers never see a freed meter.
    if (CUDTInsideParam* pParam = CUDTInsideParam::GetInstance())
    {
        for (emSpeedType eType : c_eSpeeds)
            pParam->SetSpeed(nullptr, eType);
    }
    for (emSpeedType eType : c_eSpeedsUndone)
    {
        CAVGSpeed* pSpeed = nullptr;
        {
            // Network threads feed the meters under this lock.
            CXPAutoLock lock(m_lockRevcLoss);
            std::swap(pSpeed, m_pSpeed[SpeedIndex(eType)]);
        }
        delete pSpeed;
    }
}

// ---- Settings ----------------------------------------------------------------------------------------------

void CAVGUdtRecv::UDTSetRecvParams(const tagUDTRecvParams& params)
{
    // Each field is judged against what the ones before it have just set.
    if (params.wFirstGetTime != 0)
        m_dwUdtFirstReGetTime = std::max<uint32>(params.wFirstGetTime, c_dwLeastFirstGetTime);
    if (params.wNextGetTime != 0)
        m_dwUdtlossDataRequestInterval = std::max<uint32>(params.wNextGetTime, c_dwLeastNextGetTime);
    if (params.wQueuePeriod != 0 && params.wQueuePeriod >= params.wTimelineDelta)
        m_dwTimelineDeltaMax = params.wQueuePeriod;
    if (params.wCalcRecvLossTime != 0)
        m_dwCalcTimer = params.wCalcRecvLossTime;
    if (params.wTimelineDelta != 0 && m_dwTimelineDeltaMax >= params.wTimelineDelta)
    {
        CXPAutoLock lock(m_paramlock);
        if (m_dwTimelineDelta != params.wTimelineDelta)
            m_dwUdtParamsChanged = WithChange(m_dwUdtParamsChanged, PARAM_TIMELINE_DELTA);
        m_dwTimelineDelta = params.wTimelineDelta;
    }
    if (params.wOutPutDelay != m_dwOutputDelay && params.wOutPutDelay <= m_dwTimelineDelta)
    {
        CXPAutoLock lock(m_paramlock);
        m_dwUdtParamsChanged = WithChange(m_dwUdtParamsChanged, PARAM_OUTPUT_DELAY);
        m_dwOutputDelay = params.wOutPutDelay;
    }
    if (params.wPeriodMinDelay != 0)
        m_dwMinDelayFromServ = params.wPeriodMinDelay;
    if (params.wUdtMode != m_dwUdtRecvMode)
    {
        CXPAutoLock lock(m_paramlock);
        m_dwUdtParamsChanged = WithChange(m_dwUdtParamsChanged, PARAM_MODE);
        m_dwUdtRecvMode = params.wUdtMode;
    }
    if (params.wPushGopNum != m_dwServPushGopNum)
        m_dwServPushGopNum = params.wPushGopNum;

    // In force and asked for, pair by pair; the last pair is the asked-for value twice.
    RECV_LOG(
        LOG_LEVEL_ERROR, "UDTSetRecvParams",
        "UDTRSetRecvParams FirstReGetTime %u %u RequestInterval %u %u TimelineDeltaMax %u %u TimelineDelta "
        "%u %u RTT %d CalcTimer %u %u OutDelay %u %u MinDelay %u %u Mode %u %u PushGopN %u %u",
        m_dwUdtFirstReGetTime.Get(), (uint32)params.wFirstGetTime, m_dwUdtlossDataRequestInterval.Get(),
        (uint32)params.wNextGetTime, m_dwTimelineDeltaMax.Get(), (uint32)params.wQueuePeriod,
        m_dwTimelineDelta.Get(), (uint32)params.wTimelineDelta, (int)m_dwRTT.Get(), m_dwCalcTimer.Get(),
        (uint32)params.wCalcRecvLossTime, m_dwOutputDelay.Get(), (uint32)params.wOutPutDelay,
        m_dwMinDelayFromServ.Get(), (uint32)params.wPeriodMinDelay, m_dwUdtRecvMode.Get(),
        (uint32)params.wUdtMode, (uint32)params.wPushGopNum, (uint32)params.wPushGopNum);
}

void CAVGUdtRecv::UDTSetRecvRTT(uint32 dwRTT)
{
    m_dwRTT = dwRTT;

    // The interval follows the round trip upward, and down to 200 ms but not below.
    const uint32 dwWanted = dwRTT + c_dwRttMargin;
    const bool bFollow = dwWanted > m_dwUdtlossDataRequestInterval || dwWanted > c_dwLeastRttInterval;
    const uint32 dwInterval = bFollow ? dwWanted : c_dwLeastRttInterval;
    m_dwUdtlossDataRequestInterval = dwInterval;

    if (IsLowLatency())
    {
        m_dwAddDelay = 0;
    }
    else
    {
        const uint32 dwDelay = std::min(m_dwTimelineDeltaMax.Get(), dwRTT);
        if (dwDelay > m_dwAddDelay)
            m_dwAddDelay = dwDelay; // only grows
    }
    RECV_LOG(LOG_LEVEL_ERROR, "UDTSetRecvRTT",
             "SetRecvRTT dwRTT:%u m_dwUdtlossDataRequestInterval:%u m_dwAddDelay %u", dwRTT, dwInterval,
             m_dwAddDelay.Get());
}

void CAVGUdtRecv::SetRoomState(uint32 dwRoomState)
{
    m_dwRoomLogicState = dwRoomState;
    RECV_LOG(LOG_LEVEL_ERROR, "SetRoomState", "UDTR SetRoomState %d", dwRoomState);
}

// Worker: tells the streams a new timeline delta.
void CAVGUdtRecv::ApplyTimelineDelta()
{
    if (!ChangeRaised(m_dwUdtParamsChanged, PARAM_TIMELINE_DELTA))
        return; // the usual case, without the lock
    CXPAutoLock lock(m_paramlock);
    if (!ChangeRaised(m_dwUdtParamsChanged, PARAM_TIMELINE_DELTA))
        return;
    for (MapUinInPkt::value_type& stStream : m_mapUinInPkt)
    {
        stStream.second.dwConfigTimelineDelta = m_dwTimelineDelta;
        stStream.second.stStatInfo.dwConfgMinDelay = m_dwTimelineDelta;
    }
    m_dwUdtParamsChanged = WithoutChange(m_dwUdtParamsChanged, PARAM_TIMELINE_DELTA);
}

// Worker: a switch into low latency drops every user's backlog to the upper bound at once.
void CAVGUdtRecv::UdtModeProcessNew()
{
    if (!ChangeRaised(m_dwUdtParamsChanged, PARAM_MODE))
        return;
    uint32 dwIsLowDelayMode = 0;
    {
        CXPAutoLock lock(m_paramlock);
        if (!ChangeRaised(m_dwUdtParamsChanged, PARAM_MODE))
            return;
        dwIsLowDelayMode = m_dwUdtRecvMode;
        m_dwUdtParamsChanged = WithoutChange(m_dwUdtParamsChanged, PARAM_MODE);
    }
    if ((dwIsLowDelayMode & c_dwModeLowLatency) == 0)
        return;
    for (MapUinDataInfo::value_type& stUser : m_mapUinDataInfo)
    {
        tagUinDataInfo& stInfo = stUser.second;
        const uint32 dwDataLen = DataLenAhead(stInfo.dwTimelineIn, stInfo.dwTimelineOut);
        if (dwDataLen > m_dwTimelineDeltaMax)
            stInfo.dwTimelineOut = stInfo.dwTimelineIn - m_dwTimelineDeltaMax;
    }
}

// ---- Clearing ----------------------------------------------------------------------------------------------

void CAVGUdtRecv::ClearRecvChn(uint64 llAccount, uint32 dwIsClearAll)
{
    // The entry is made before the lock and moved in under it.
    std::list<uint64> listUin;
    try
    {
        if (llAccount != 0)
            listUin.push_back(llAccount);
    }
    catch (const std::bad_alloc&)
    {
        return; // nothing was recorded
    }
    {
        CXPAutoLock lock(m_paramlock);
        m_dwClearRequest = dwIsClearAll;
        m_listClearUin.splice(m_listClearUin.end(), listUin);
    }
    RECV_LOG(LOG_LEVEL_ERROR, "ClearRecvChn", "ClearRecvChn: uin %llu IsClearAll %d", llAccount,
             dwIsClearAll);
}

// Worker: carries out what was asked since the last turn.
void CAVGUdtRecv::ApplyClearRequest()
{
    if (m_dwClearRequest == 0)
        return;
    {
        CXPAutoLock lock(m_paramlock);
        if (m_dwClearRequest == 0)
            return;
        ClearChnParam();
        m_dwClearRequest = 0;
        m_listClearUin.clear();
    }
    m_listClearedData.clear();
    m_listClearedStreams.clear();
}

// Caller holds m_paramlock.
void CAVGUdtRecv::ClearChnParam()
{
    // Moves the arrived packets that match out of the intake list.
    const auto takeOut = [this](auto&& match)
    {
        CXPAutoLock lock(m_dataLock);
        for (auto it = m_listRawData.begin(); it != m_listRawData.end();)
        {
            const auto itTaken = it++;
            if (match(*itTaken))
                m_listClearedData.splice(m_listClearedData.end(), m_listRawData, itTaken);
        }
        if (m_stGuards.bIntake != FALSE)
            CountIntakeBytes();
    };

    if (m_dwClearRequest == c_dwClearAllButAudio)
    {
        takeOut([](const tagDataPacket& stPkt) { return stPkt.cSubType != MEAVAudio; });
        for (MapUinInPkt::iterator it = m_mapUinInPkt.begin(); it != m_mapUinInPkt.end();)
            it = it->first.cSubType != MEAVAudio ? EraseStream(it) : std::next(it);
        return;
    }
    while (!m_listClearUin.empty())
    {
        const uint64 ullUin = m_listClearUin.front();

        // Big video alone is purged from the intake, whatever sub-type is cleared. A cleared small video
        // with packets still waiting there starts anew from them on the next turn.
        takeOut([ullUin](const tagDataPacket& stPkt)
                { return stPkt.llAccount == ullUin && stPkt.cSubType == MEAVMaxVideo; });
        const MapUinInPkt::iterator it =
            m_mapUinInPkt.find(tagInPktKey(ullUin, (uint8)m_dwClearRequest.Get()));
        if (it != m_mapUinInPkt.end())
            EraseStream(it);
        m_listClearUin.pop_front();
    }
}

uint32 CAVGUdtRecv::UpdateUinNum(uint64 ullCurUin)
{
    const MapUinInPkt::const_iterator it = m_mapUinInPkt.lower_bound(tagInPktKey(ullCurUin, 0));
    return it != m_mapUinInPkt.end() && it->first.ullUserAccount == ullCurUin ? 0 : 1;
}

void CAVGUdtRecv::ClearUselessData(uint64 ullAcount, uint32 uTimeOut)
{
    for (MapUinInPkt::iterator it = m_mapUinInPkt.lower_bound(tagInPktKey(ullAcount, 0));
         it != m_mapUinInPkt.end() && it->first.ullUserAccount == ullAcount; ++it)
    {
        tagUinDataBuf& stUinDataBuf = it->second;
        for (tagPktNode* pNode = stUinDataBuf.mapUdtPacket.Head(); pNode != nullptr;)
            pNode =
                pNode->Pkt().dwMETimeStamp > uTimeOut ? UnbufferPacket(stUinDataBuf, pNode) : pNode->pNext;
        stUinDataBuf.stTrack.Forget();
    }
}

void CAVGUdtRecv::ClearAudioRecvSeq(uint64 ullAccount)
{
    const MapUinInPkt::iterator it = m_mapUinInPkt.find(tagInPktKey(ullAccount, MEAVAudio));
    if (it != m_mapUinInPkt.end())
        it->second.mapRecvSeq.clear();
}

MapUinInPkt::iterator CAVGUdtRecv::InsertStream(const tagInPktKey& stKey, const tagUinDataBuf& stUinDataBuf)
{
    CXPAutoLock lock(m_lockStreams);
    return m_mapUinInPkt.emplace(stKey, stUinDataBuf).first;
}

// Takes a stream out of the map and keeps it until m_listClearedStreams is emptied, with no lock held.
MapUinInPkt::iterator CAVGUdtRecv::EraseStream(MapUinInPkt::iterator itStream)
{
    m_listClearedStreams.emplace_back();
    const MapUinInPkt::iterator itNext = std::next(itStream);
    CXPAutoLock lock(m_lockStreams);
    m_listClearedStreams.back() = m_mapUinInPkt.extract(itStream);
    return itNext;
}

tagUinDataInfo& CAVGUdtRecv::FindOrCreateUser(uint64 ullAccount)
{
    const MapUinDataInfo::iterator it = m_mapUinDataInfo.find(ullAccount);
    if (it != m_mapUinDataInfo.end())
        return it->second;
    CXPAutoLock lock(m_lockStreams);
    return m_mapUinDataInfo[ullAccount];
}

void CAVGUdtRecv::EraseUser(uint64 ullAccount)
{
    CXPAutoLock lock(m_lockStreams);
    m_mapUinDataInfo.erase(ullAccount);
}
