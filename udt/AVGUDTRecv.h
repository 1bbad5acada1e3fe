#ifndef AVGUDTRECV_H
#define AVGUDTRECV_H

/**
 * @file
 * The receiver: takes decoded media packets from network threads, files them per stream, finds losses and
 * asks for them again, and plays every stream out on an adaptive timeline per user.
 *
 * One worker thread, made by `Start`, does all of it in turns of about 10 ms. An owner that wants to drive
 * the turns itself (a replay in virtual time, an event loop, a pool) calls `SetOwnerDriven(TRUE)` before
 * `Start` and `RunTurn` whenever it likes; the rest is the same code.
 */

#include "AVGSpeed.h"
#include "AVGUDTCodec.h"
#include "AVGUDTRecvData.h"
#include "AVGUDTRecvRules.h"
#include "AVGUDTSeq.h"
#include "AVGUDTThreadModel.h"
#include "IUDT.h"
#include "IUDTInside.h"
#include "xpevent.h"
#include "xplock.h"
#include "xptypes.h"

#include <list>
#include <map>
#include <vector>

/** One receiver, for all users of a room. How it works: see the head of this file; what it offers: `IUDTRecv`. */
class CAVGUdtRecv : public CAVGThreadModel, public IUDTRecv
{
public:
    /// @param pCB the owner's callbacks, borrowed; they must outlive the receiver. Null: packets are taken,
    ///            played and dropped in silence.
    explicit CAVGUdtRecv(IUDTRecvEventCallBack* pCB);

    /// Stops and waits for the worker. Not to be called from inside a callback.
    virtual ~CAVGUdtRecv();

    CAVGUdtRecv(const CAVGUdtRecv&) = delete;
    CAVGUdtRecv& operator=(const CAVGUdtRecv&) = delete;

    /// The worker's body: turns of `RunTurn` 10 ms apart until `Stop`, then the end report.
    virtual void Run();

    // The operations of IUDTRecv, documented there. Their order here fixes the slots of this class.
    virtual boolean UDTReceiveNetData(uint32 dwSendSeq, uint64 llAccount, uint32 dwSeq, WORD wTimeStamp,
                                      uint8 cSubType, UDTCodecBaseDecode_V2* pData);
    virtual void Stop();
    virtual void Start();
    virtual void UDTSetRecvParams(const tagUDTRecvParams& params);
    virtual void UDTSetRecvRTT(uint32 dwRTT);
    virtual void UDTCalcRecvLoss(uint32& dwLoss100, uint32& dwTotalNum, uint32& dwRealNum,
                                 uint32& dwAvgLossMode);
    virtual void UDTEnableReGetPkg(boolean bEnable);
    virtual void ClearRecvChn(uint64 llAccount, uint32 dwIsClearAll);
    virtual void SetRoomState(uint32 dwRoomState);
    virtual void GetDownPacketRecvInfo(uint32& dwExpectRecv, uint32& dwRealRecv, uint32& dwBytesRecv,
                                       uint32& dwIFrmLostInfo);
    virtual void GetRecvInfo(tagRecvInfo& stRecvInfo);
    virtual uint32 GetRecvChnInfo(tagRecvChnStatInfo* pstRecvInfo, uint32 dwNum);

    /**
     * One worker turn: take the intake, release what is due, ask for what is missing, count. An owner-driven
     * receiver is stepped with it, by one thread at a time; otherwise the worker calls it and nobody else. A call
     * from inside a callback, or while another thread makes a turn, does nothing. Start and Stop wait for a turn
     * that another thread makes, as they wait for the worker.
     */
    void RunTurn();

    /**
     * Where a user's playout stands. Any thread; the words are read one by one while the worker may move them.
     * @return FALSE, and nothing is filled, when there is no such user
     */
    boolean GetPlayoutInfo(uint64 llAccount, tagPlayoutInfo& stInfo);

    /**
     * Sets what the receiver takes at most, so that nobody can push its memory or its turns further: see
     * `tagUDTRecvGuards` and docs/guards.md. In force for the next packet and the next turn; what is over a new limit
     * already stays until it goes by itself. Any thread, also from inside a callback; kept over `Stop` and `Start`.
     */
    void SetGuards(const tagUDTRecvGuards& stGuards);

    /** What each guard did since the receiver was made. Any thread; the words are read one by one. */
    void GetGuardInfo(tagUDTRecvGuardInfo& stInfo);

    /**
     * The record of the packet that `OnUDTRecvOutData` is being called with: its arrival tick, sequence, frame
     * and what was lost before it. Worker thread, inside that callback only; null otherwise.
     */
    const tagDataPacket* GetReleasing() const { return m_pstReleasing; }

private:
    // Tests, simulations, fuzzers and benchmarks look inside through one class.
    friend class CRecvRig;

    // ---- Lifecycle (AVGUDTRecv.cpp) --------------------------------------------------------------------
    void Clear();
    void InitSpeed();
    void UninitSpeed();
    void EndRun();
    struct tagOpenTurn;
    bool BeginTurn();
    void EndTurn();
    void FinishStop();
    bool AwaitTurn();
    bool AwaitWorker();
    void ResetStopCounters();
    template <void (CAVGUdtRecv::*pfnStep)()>
    void GuardedStep(const char* pszOper);

    // ---- Guards (AVGUDTRecvGuard.cpp) ------------------------------------------------------------------
    // Caller holds m_dataLock.
    bool AdmitToIntake(uint64 ullAccount, uint8 cSubType, const UDTCodecBaseDecode_V2* pData);
    bool AdmitToShare(const tagInPktKey& stKey, uint64 ullMostPackets, uint64 ullMostBytes, uint32 dwBytes);
    void CountIntakeAnew();                                         // Caller holds m_dataLock.
    void CountIntakeBytes();                                        // Caller holds m_dataLock.
    void ForgetRingParams(uint64 ullAccount, size_t nMostAccounts); // Caller holds m_dataLock.
    bool AdmitStream(uint64 ullAccount);
    bool AdmitUser(uint64 ullAccount, size_t nMostAccounts);
    bool ForgetIdleUser();
    bool AdmitToStream(const tagUinDataBuf& stUinDataBuf);
    bool AdmitPullBack(uint64 ullAccount, uint32 dwNow);
    bool MayAskAtOnce(uint32 dwPackets);
    void DropBacklogs();

    // ---- Settings and clearing (AVGUDTRecv.cpp) --------------------------------------------------------
    void UdtModeProcessNew();
    void ApplyTimelineDelta();
    void ApplyClearRequest();
    void ClearChnParam(); // Caller holds m_paramlock.
    uint32 UpdateUinNum(uint64 ullCurUin);
    void ClearUselessData(uint64 ullAcount, uint32 uTimeOut);
    void ClearAudioRecvSeq(uint64 ullAccount);
    MapUinInPkt::iterator InsertStream(const tagInPktKey& stKey, const tagUinDataBuf& stUinDataBuf);
    MapUinInPkt::iterator EraseStream(MapUinInPkt::iterator itStream);
    tagUinDataInfo& FindOrCreateUser(uint64 ullAccount);
    void EraseUser(uint64 ullAccount);

    // ---- Intake (AVGUDTRecvIntake.cpp) -----------------------------------------------------------------
    enum emHandle
    {
        HANDLE_COPY, ///< the caller keeps his packet
        HANDLE_TAKE  ///< a packet that is buffered takes the caller's reference along
    };
    tagPkgRingParam& NewRingParam(const tagInPktKey& stKey); // Caller holds m_dataLock.
    void Deliver();
    void TakeRawData();
    void HandleRawData(std::list<tagDataPacket>& listRawData);
    void CalcLostInfo();
    void OnDataHandleNew(tagDataPacket& dataPacket);
    void HandleData(tagUinDataBuf& stUinDataBuf, tagUinDataInfo& stUinDataInfo, tagDataPacket& dataPacket,
                    emHandle eHandle, uint32 dwNow);
    static void BufferPacket(tagUinDataBuf& stUinDataBuf, tagPktNode* pBefore, tagDataPacket& dataPacket,
                             emHandle eHandle);
    bool CheckDuplicate(tagUinDataBuf& stUinDataBuf, uint32 dwSeq);
    bool CheckDuplicate(tagUinDataBuf& stUinDataBuf, uint32 dwSeq, uint32 dwTimeNow);
    MapUinInPkt::iterator FindOrCreateStream(const tagDataPacket& dataPacket);
    void CheckSyncTimeOut(tagUinDataBuf& stUinDataBuf, tagUinDataInfo& stUinDataInfo, uint32 dwNow);
    void TakeRequestAnswer(tagUinDataBuf& stUinDataBuf, const tagDataPacket& dataPacket);
    void CheckEarlyPush(tagUinDataBuf& stUinDataBuf, tagUinDataInfo& stUinDataInfo,
                        const tagDataPacket& dataPacket, uint32 dwNow);

    // ---- GOPs and losses (AVGUDTRecvLoss.cpp) ----------------------------------------------------------
    int32 CalcVidGopInfo(tagUinDataBuf& stUinDataBuf, tagDataPacket& stDataPacket);
    void BeginVidGop(tagUinDataBuf& stUinDataBuf, const tagDataPacket& stDataPacket);
    uint32 MarkFirstIFrm(tagUinDataBuf& stUinDataBuf);
    uint32 CalcAudLostInfo(tagUinDataBuf& stUinDataBuf);
    void WalkAudLoss(tagUinDataBuf& stUinDataBuf);
    bool FollowAudLoss(tagUinDataBuf& stUinDataBuf);
    static void MarkAudLoss(tagUinTrack& stTrack, tagPktNode* pPre, tagPktNode* pCur);
    static void RecountAudSteps(tagUinDataBuf& stUinDataBuf);
    static void LearnAudStep(tagUinDataBuf& stUinDataBuf, const tagAudSteps& stSteps);
    uint32 CalcVidLostInfo(tagUinDataBuf& stUinDataBuf);
    uint32 WalkVidLoss(tagUinDataBuf& stUinDataBuf);
    bool IsVidFollowable(const tagUinDataBuf& stUinDataBuf) const;
    uint32 FollowVidLoss(tagUinDataBuf& stUinDataBuf);
    bool StepVidWalk(tagUinDataBuf& stUinDataBuf, tagVidWalk& stWalk, tagPktNode* pCur, uint32& dwErrCnt);
    bool MarkVidLoss(tagUinDataBuf& stUinDataBuf, tagVidWalk& stWalk, tagDataPacket& stCur);
    uint32 LostAcrossFrames(const tagUinDataBuf& stUinDataBuf, const tagVidWalk& stWalk,
                            const tagDataPacket& stCur, uint32 dwLost, bool& bSilent);
    bool IsServerPushing(const tagUinDataBuf& stUinDataBuf) const
    {
        return m_dwServPushGopNum >= stUinDataBuf.dwVidGopCnt;
    }
    tagUinTrack& TrackOf(tagUinDataBuf& stUinDataBuf);
    static void SettleLossWalk(tagUinDataBuf& stUinDataBuf, bool bPushing);
    bool IsLossSettled(const tagUinDataBuf& stUinDataBuf) const;

    // ---- Requests (AVGUDTRecvRequest.cpp) --------------------------------------------------------------
    void CheckTimeOutNew();
    uint32 FirstRequestDelay(uint32 dwNow);
    void BeginLossRequest();
    void CollectDueGaps(uint32 dwNow, const tagRequestTiming& stTiming, MapUinSeq& mapUinPacketIdx);
    void CollectGuardedGaps(uint32 dwPerSecond, uint32 dwNow, const tagRequestTiming& stTiming,
                            MapUinSeq& mapUinPacketIdx);
    static size_t CountStreamGaps(const tagUinDataBuf& stUinDataBuf, uint32 dwTimelineOut, uint32 dwNow,
                                  const tagRequestTiming& stTiming);
    static void CollectStreamGaps(tagUinDataBuf& stUinDataBuf, uint32 dwTimelineOut, uint32 dwNow,
                                  const tagRequestTiming& stTiming, size_t nMost,
                                  std::vector<uint32>& lossSeqVector);
    void Housekeep(uint32 dwNow);
    void FoldLossCounters(uint8 cSubType, tagUinDataBuf& stUinDataBuf);
    MapUinInPkt::iterator ExpireStream(MapUinInPkt::iterator itStream);
    void RequestLossPacket(MapUinSeq& mapUinPacketIdx);
    boolean RecvDataEvent(uint16 wType, uint8* pBuffer, uint32 nBufSize, uint32 nSendCount, uint32 nUdtV2);
    void CheckPkgRequestFail(uint32 dwNow);

    // ---- Playout (AVGUDTRecvPlayout.cpp) ---------------------------------------------------------------
    void OutPacket();
    void CalcTimelineMaxMin(tagDataPacket& dataPacket);
    void MoveBand(tagUinDataInfo& stInfo, const tagDataPacket& dataPacket, uint32 dwNow);
    void CalcTimelineOutNew(uint64 ullAcount, tagUinDataInfo& stUinDataInfo);
    uint32 FindTimeStampJump(uint64 ullAcount, uint32 uTimelineOut);
    uint32 OutPutDelay(tagUinDataBuf& stUinDataBuf);
    void OpenGateByMedia(tagUinDataBuf& stUinDataBuf);
    uint32 OutPacketAudioNew(tagUinDataBuf& stUinDataBuf);
    uint32 OutPacketVideoNew(tagUinDataBuf& stUinDataBuf);
    void OutVideoStatInfo(tagUinDataBuf& stUinDataBuf, tagDataPacket& dataPacket);
    void CountOutIFrm(tagUinDataBuf& stUinDataBuf, const tagDataPacket& dataPacket);
    MapUinInPkt::iterator GetAVMapUinPair(uint64 llAccount, uint32 dwCurSubType);
    bool SkipAtBeginning(tagUinDataBuf& stUinDataBuf, tagPktNode*& pNode);
    tagUinDataInfo* StartClock(tagUinDataBuf& stUinDataBuf, const char* pszOper);
    int HandOutPacket(const tagDataPacket& dataPacket);
    bool IsLowLatency() const { return (m_dwUdtRecvMode & c_dwModeLowLatency) != 0; }

    // ---- Statistics (AVGUDTRecvStat.cpp) ---------------------------------------------------------------
    void CalcDownPacketLoss(uint32 dwCurDownSeq, uint8 cSubType, uint32 dwPacketLen);
    void InternalUDTCalcRecvLoss();
    void CalcStatInfo();
    void PrintStatInfo();

    // ---- Members. Their order is fixed; a letter tells who owns each:
    // [W] worker only   [D] under m_dataLock   [P] under m_paramlock   [L] under m_lockRevcLoss
    // [F] one word: one side writes it, the other sees it on its next turn   [C] control thread
    IUDTRecvEventCallBack* m_pCB;                 // borrowed, constant while packets may come
    CXPLock m_dataLock;                           // guards [D]
    std::list<tagDataPacket> m_listRawData;       // [D] arrived, not yet taken by the worker
    MapUinInPkt m_mapUinInPkt;                    // [W] one buffer per stream; structure under m_lockStreams
    MapUinSeqInfo m_mapUinSeqInfo;                // [W]
    MapUinPkgRingParam m_mapUinPkgRingParam;      // [D] timestamp unwrap per stream
    shared_boolean m_bStop;                       // [F] 1: stopped
    hxpevent m_hRecvEvent;                        // [C] null while stopped
    uint32 m_dwRecvChnStartTime;                  // [C] tick of the last Start
    uint32 m_dwLastCheckPkgTimeoutTime;           // [W] tick of the last loss scan
    shared_uint32 m_dwUdtlossDataRequestInterval; // [F] ms
    shared_uint32 m_dwUdtFirstReGetTime;          // [F] ms
    uint32 m_dwLastCheckPkgRqFailTime;            // [W] tick
    shared_uint32 m_dwTimelineDeltaMax;           // [F] ms
    shared_uint32 m_dwRTT;                        // [F] ms, as last told by the owner
    shared_uint32 m_dwAddDelay;                   // [F] ms
    uint32 m_dwLastCheckTimeout;                  // [W] tick of the last housekeeping pass
    uint32 m_dwExpectRecvPkgNum;                  // [W] packets since the last calculation
    uint32 m_dwRealRecvPkgNum;                    // [W] packets since the last calculation
    uint32 m_dwTotalLossTime;                     // [W] loss events since the last calculation
    uint32 m_dwCalcLossCnt;                       // [W] housekeeping passes of this object's life
    shared_boolean m_bEnableReGetPkg;             // [F] 1: loss requests allowed
    uint32 m_dwLastCalcRecvLoss;                  // [W] tick
    shared_uint32 m_dwLoss100;                    // [F] 1/10000
    shared_uint32 m_dwTotalNum;                   // [F] packets
    shared_uint32 m_dwRealNum;                    // [F] packets
    shared_uint32 m_dwAvgLossMode;                // [F] hundredths of a packet
    shared_uint32 m_dwDownLoss100;                // [F] 1/10000, written under m_lockRevcLoss
    shared_uint32 m_dwCalcTimer;                  // [F] ms
    shared_uint32 m_dwTimelineDelta;              // [F] ms, written under m_paramlock
    shared_uint32 m_dwUdtRecvMode;                // [F] written under m_paramlock
    shared_uint32 m_dwOutputDelay;                // [F] ms, written under m_paramlock
    shared_uint32 m_dwUdtParamsChanged;           // [P] one flag per byte, emParamChange
    CXPLock m_paramlock;                          // guards [P]
    shared_uint32 m_dwClearRequest;               // [P] 0: none
    std::list<uint64> m_listClearUin;             // [P] accounts to clear
    shared_uint32 m_dwRoomLogicState;             // [F]
    MapUinDataInfo m_mapUinDataInfo;              // [W] one timeline per user
    uint32 m_dwCheckLossParamTime;                // [W] tick
    uint32 m_dwLossParamSetFlag;                  // [W] 1: warm-up of the first request is over
    uint32 m_dwPacketRecvCnt;                     // [L] packets of the interval
    uint32 m_dwBytesRecvCnt;                      // [L] bytes of the interval
    CAVGSpeed* m_pSpeed[6];                       // [L] by type - TOTAL_RECV_SPEED; 1, 3, 5 null
    uint32 m_dwSeqFirstRecv;                      // [L] 0: interval not started
    uint32 m_dwSeqLastRecv;                       // [L]
    shared_uint32 m_dwMaxLossRate;                // [F] 1/10000, written under m_lockRevcLoss
    shared_uint32 m_dwMinLossRate;                // [F] likewise
    shared_uint32 m_dwCurLossRate;                // [F] likewise
    shared_uint32 m_dwLossRateAccNum;             // [F] likewise
    shared_uint32 m_dwLossRateAccCnt;             // [F] likewise
    CXPLock m_lockRevcLoss;                       // guards [L]
    shared_uint32 m_dwServPushGopNum;             // [F] GOPs
    shared_uint32 m_dwMinDelayFromServ;           // [F] ms
    shared_uint32 m_dwIFrmPkgLostInfo;            // [F] packed, of the last stream's first I frame
    uint32 m_dwPushStmDone;                       // [W]
    uint32 m_dwAVSyncAdjSwitch;                   // [W]
    uint32 m_LogPrintFlag;                        // [W] enLogPrintPos
    uint32 m_dwOutDelayDone;                      // [W]
    shared_uint32 m_dwChnClearNum;                // [F] streams removed
    uint32 m_dwUinNum;                            // [W] users
    uint32 m_dwMultiUinAVSync;                    // [W]
    uint32 m_dwLogPrintTimer;                     // [W] tick
    uint32 m_dwLastPrintTick;                     // [W]

    // The worker holds this while it inserts or erases streams and users, the getters while they look them up.
    // Innermost of all locks.
    CXPLock m_lockStreams;
    // Streams and packets taken out under a lock, destroyed once it is free: the last reference to a packet runs
    // code of its maker.
    std::list<MapUinInPkt::node_type> m_listClearedStreams; // [W]
    std::list<tagDataPacket> m_listClearedData;             // [W]
    // Used again and again, so that a turn allocates nothing.
    std::list<tagDataPacket> m_listSpare; // [D] emptied nodes of m_listRawData
    std::list<tagDataPacket> m_listTaken; // [W] what this turn took from there, or its nodes
    size_t m_nSpareWanted;                // [W] nodes that the last turns used
    MapUinSeq m_mapLost;                  // [W] the request being gathered; its vectors are empty in between
    std::vector<uint32> m_vecIFrmLost;    // [W] of the I frame being walked
    std::vector<tagReplyData> m_vecReply; // [W] the message being sent
    const tagDataPacket* m_pstReleasing;  // [W] lent to the owner right now
    shared_boolean m_bInTurn;             // [F] 1: inside RunTurn
    shared_boolean m_bStoppedInTurn;      // [F] 1: stopped, and the end of the run is still to be written
    shared_uint64 m_ullTurnThread;        // [F] who makes the open turn
    // Guards: nothing of it is looked at while there are none, but the words that say so.
    tagGuardWords m_stGuards;                                // [F] written under m_paramlock
    tagGuardCounts m_stGuardCounts;                          // see there
    uint64 m_ullIntakeBytes;                                 // [D] of m_listRawData, while it has a guard
    std::map<tagInPktKey, tagIntakeShare> m_mapIntakeShares; // [D] of streams in its second half
    size_t m_nRingAccounts;                                  // [D] accounts in m_mapUinPkgRingParam
    CUdtRequestBudget m_requestBudget;                       // [W]
    std::vector<tagGapDemand> m_vecDemands;                  // [W] of the present scan
    size_t m_nFirstDemand;                   // [W] whose turn it is, among streams that want the same
    std::vector<uint64> m_vecIdleUsers;      // [W] users without a stream, as found in this turn
    bool m_bIdleUsersKnown;                  // [W]
    std::map<uint64, uint32> m_mapPullBacks; // [W] pull-backs of a user in this second
    uint32 m_dwPullBackTick;                 // [W] tick at which that second began
};

#endif // AVGUDTRECV_H
