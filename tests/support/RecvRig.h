#ifndef RECVRIG_H
#define RECVRIG_H

/**
 * A receiver on the bench: owner-driven, on a virtual clock, with an owner that records what it was given and
 * when, and makers of packets. `CRecvRig` is the receiver's single friend; whoever must look inside looks
 * through it.
 */

#include "AVGUDTRecv.h"
#include "UDTLog.h"
#include "VirtualClock.h"

#include <atomic>
#include <functional>
#include <mutex>
#include <ostream>
#include <string>
#include <utility>
#include <vector>

// ---- Packets -------------------------------------------------------------------------------------------------

/// What a test says of a packet before it is fed.
struct tagRigPacket
{
    uint64 ullUin = 0;
    uint8 cSubType = MEAVAudio;
    uint32 dwSendSeq = 0;
    uint32 dwDownSeq = 0; ///< 0: the rig numbers it
    uint16 wTimeStamp = 0;
    uint16 wLen = 100;
    bool bNull = false; ///< feed a null packet pointer
    tagUdtPacketHeadInfo stHead;

    // Say it in one breath: AudioPacket(7, 10).At(5000).Len(80).
    tagRigPacket& At(uint32 dwMediaMs)
    {
        stHead.uTimeStamp = dwMediaMs;
        return *this;
    }
    tagRigPacket& Len(uint16 wBytes)
    {
        wLen = wBytes;
        return *this;
    }
    tagRigPacket& Down(uint32 dwSeq)
    {
        dwDownSeq = dwSeq;
        return *this;
    }
    tagRigPacket& Stamp(uint16 wStamp)
    {
        wTimeStamp = wStamp;
        return *this;
    }
    tagRigPacket& Fec(uint8 cFec)
    {
        stHead.cFecPkgCount = cFec;
        return *this;
    }
};

constexpr uint32 c_dwRigMediaBase = 100000; ///< media time of sequence 0, ms
constexpr uint32 c_dwRigAudioStep = 20;     ///< ms of media per audio packet

/// An audio packet at media time base + 20 ms x sequence.
tagRigPacket AudioPacket(uint64 ullUin, uint32 dwSendSeq);

/// A packet of a video frame. `dwMediaMs` is the frame's media time; `cPkgIdx` of `cPkgNum` data packets.
tagRigPacket VideoPacket(uint64 ullUin, uint32 dwSendSeq, uint32 dwMediaMs, uint8 cFrmType, uint8 cGopIdx,
                         uint8 cFrmIdx, uint8 cPkgIdx = 0, uint8 cPkgNum = 1, uint8 cSubType = MEAVMaxVideo);

/// The packet object as the receiver sees it. Its body is an image of the media head.
class CRigPacket : public UDTCodecBaseDecode_V2
{
public:
    explicit CRigPacket(const tagRigPacket& stPacket);
    ~CRigPacket() override;

    static int Live(); ///< objects alive in this process

    tagRigPacket m_stPacket;

private:
    uint8 m_aHead[sizeof(tagUdtPacketHeadInfo)];
};

// ---- Owner -----------------------------------------------------------------------------------------------------

struct tagRelease
{
    uint32 dwTick = 0;
    uint64 ullUin = 0;
    uint8 cSubType = 0;
    uint32 dwSendSeq = 0;
    uint32 dwMediaMs = 0;
    bool bNull = false; ///< a null packet came out
};

struct tagRequest
{
    uint32 dwTick = 0;
    uint16 wType = 0;
    uint32 nSendCount = 0;
    uint32 nUdtV2 = 0;
    std::vector<tagReplyData> vecData;
};

/// Records releases and requests; tells the play delay it is set to.
class CRigOwner : public IUDTRecvEventCallBack
{
public:
    void OnUDTRecvOutData(UDTCodecBaseDecode_V2* pPacket, int* pnDelay) override;
    int UdtRecvHandleEvent(WORD wType, uint8* pBuffer, uint32 nBufSize, uint32 nSendCount,
                           uint32 nUdtV2) override;
    int UdtParsePacketHeadInfo(uint8* pBuf, UdtPacketHeadInfo& stHead) override;

    std::vector<uint32> Sequences(uint64 ullUin, uint8 cSubType) const;    ///< released, in order
    std::vector<uint32> ReleaseTicks(uint64 ullUin, uint8 cSubType) const; ///< when, in order
    std::vector<uint32> RequestTicks(uint64 ullUin, uint8 cSubType, uint32 dwSeq) const;
    void Forget(); ///< empties the records

    std::vector<tagRelease> m_vecReleases;
    std::vector<tagRequest> m_vecRequests;
    int m_nPlayDelay = 0;    ///< written back at every release
    bool m_bReadHead = true; ///< false: leaves heads zeroed

    std::function<void(const tagRelease&)> m_fnOnRelease; ///< called after the record was made
    std::function<void(const tagRequest&)> m_fnOnRequest;
    std::function<void()> m_fnOnParse;
};

// ---- Log -------------------------------------------------------------------------------------------------------

struct tagLogLine
{
    UDT_LOG_LEVEL eLevel;
    std::string strTag;
    std::string strFile;
    std::string strFunc;
    std::string strText;

    bool operator==(const tagLogLine& stOther) const
    {
        return eLevel == stOther.eLevel && strTag == stOther.strTag && strFile == stOther.strFile &&
               strFunc == stOther.strFunc && strText == stOther.strText;
    }
};

/// How test failures show a line.
inline void PrintTo(const tagLogLine& stLine, std::ostream* pStream)
{
    *pStream << stLine.eLevel << ' ' << stLine.strTag << ' ' << stLine.strFile << ' ' << stLine.strFunc
             << ": " << stLine.strText;
}

/// While one exists, it keeps every line up to its level. Any thread may write.
class CLogRecorder
{
public:
    explicit CLogRecorder(UDT_LOG_LEVEL eLevel = LOG_LEVEL_DEBUG);
    ~CLogRecorder();
    CLogRecorder(const CLogRecorder&) = delete;
    CLogRecorder& operator=(const CLogRecorder&) = delete;

    std::vector<tagLogLine> Lines() const;
    std::vector<std::string> Texts(const char* pszFunc) const; ///< of one operation, in order
    size_t Count(const char* pszContains) const;               ///< lines that contain the text
    std::string First(const char* pszContains) const;          ///< the first such line, or empty
    tagLogLine FirstLine(const char* pszContains) const;
    void Forget();

private:
    static void Sink(void* pCtx, UDT_LOG_LEVEL eLevel, const char* pTag, const char* pFile, int nLine,
                     const char* pFunc, const char* pText);

    mutable std::mutex m_lock;
    std::vector<tagLogLine> m_vecLines;
};

// ---- Rig -------------------------------------------------------------------------------------------------------

class CRecvRig
{
public:
    /// Makes a stopped, owner-driven receiver at that tick. `bWithOwner` false: a receiver without callbacks.
    explicit CRecvRig(uint64 ullTick = 1000, bool bWithOwner = true);

    CVirtualClock m_clock;
    CRigOwner m_owner;
    CAVGUdtRecv m_recv;

    void Start() { m_recv.Start(); }
    /// Start and room state 3: packets may leave from the first turn on.
    void StartPlaying();

    uint32 Now() const { return (uint32)m_clock.Tick(); }
    void ClockAt(uint64 ullTick) { m_clock.JumpTo(ullTick); }
    void Advance(uint32 dwMs) { m_clock.JumpTo(m_clock.Tick() + dwMs); }
    void Turn() { m_recv.RunTurn(); }
    /// A turn now and every `dwStep` ms, `ullTick` included; the clock then stands at `ullTick`.
    void TurnsUntil(uint64 ullTick, uint32 dwStep = 10);

    boolean Feed(const tagRigPacket& stPacket);
    /// Feeds the packet with a sequence, one after the other.
    void FeedAll(std::initializer_list<tagRigPacket> lstPackets);

    // ---- The inside ----
    tagUinDataBuf* Stream(uint64 ullUin, uint8 cSubType);
    tagUinDataInfo* User(uint64 ullUin);
    tagDataPacket* Buffered(uint64 ullUin, uint8 cSubType, uint32 dwSendSeq);
    /// Puts a packet straight into a stream's buffer, making stream and user with plain defaults.
    tagDataPacket& Put(const tagRigPacket& stPacket);
    static tagDataPacket Record(const tagRigPacket& stPacket, uint32 dwRecvTime);

#define RIG_MEMBER(name) \
    decltype(CAVGUdtRecv::name)& name() { return m_recv.name; }
    RIG_MEMBER(m_pCB)
    RIG_MEMBER(m_listRawData)
    RIG_MEMBER(m_mapUinInPkt)
    RIG_MEMBER(m_mapUinSeqInfo)
    RIG_MEMBER(m_mapUinPkgRingParam)
    RIG_MEMBER(m_bStop)
    RIG_MEMBER(m_hRecvEvent)
    RIG_MEMBER(m_dwRecvChnStartTime)
    RIG_MEMBER(m_dwLastCheckPkgTimeoutTime)
    RIG_MEMBER(m_dwUdtlossDataRequestInterval)
    RIG_MEMBER(m_dwUdtFirstReGetTime)
    RIG_MEMBER(m_dwLastCheckPkgRqFailTime)
    RIG_MEMBER(m_dwTimelineDeltaMax)
    RIG_MEMBER(m_dwRTT)
    RIG_MEMBER(m_dwAddDelay)
    RIG_MEMBER(m_dwLastCheckTimeout)
    RIG_MEMBER(m_dwExpectRecvPkgNum)
    RIG_MEMBER(m_dwRealRecvPkgNum)
    RIG_MEMBER(m_dwTotalLossTime)
    RIG_MEMBER(m_dwCalcLossCnt)
    RIG_MEMBER(m_bEnableReGetPkg)
    RIG_MEMBER(m_dwLastCalcRecvLoss)
    RIG_MEMBER(m_dwLoss100)
    RIG_MEMBER(m_dwTotalNum)
    RIG_MEMBER(m_dwRealNum)
    RIG_MEMBER(m_dwAvgLossMode)
    RIG_MEMBER(m_dwDownLoss100)
    RIG_MEMBER(m_dwCalcTimer)
    RIG_MEMBER(m_dwTimelineDelta)
    RIG_MEMBER(m_dwUdtRecvMode)
    RIG_MEMBER(m_dwOutputDelay)
    RIG_MEMBER(m_dwUdtParamsChanged)
    RIG_MEMBER(m_dwClearRequest)
    RIG_MEMBER(m_listClearUin)
    RIG_MEMBER(m_dwRoomLogicState)
    RIG_MEMBER(m_mapUinDataInfo)
    RIG_MEMBER(m_dwCheckLossParamTime)
    RIG_MEMBER(m_dwLossParamSetFlag)
    RIG_MEMBER(m_dwPacketRecvCnt)
    RIG_MEMBER(m_dwBytesRecvCnt)
    RIG_MEMBER(m_pSpeed)
    RIG_MEMBER(m_dwSeqFirstRecv)
    RIG_MEMBER(m_dwSeqLastRecv)
    RIG_MEMBER(m_dwMaxLossRate)
    RIG_MEMBER(m_dwMinLossRate)
    RIG_MEMBER(m_dwCurLossRate)
    RIG_MEMBER(m_dwLossRateAccNum)
    RIG_MEMBER(m_dwLossRateAccCnt)
    RIG_MEMBER(m_dwServPushGopNum)
    RIG_MEMBER(m_dwMinDelayFromServ)
    RIG_MEMBER(m_dwIFrmPkgLostInfo)
    RIG_MEMBER(m_dwPushStmDone)
    RIG_MEMBER(m_dwAVSyncAdjSwitch)
    RIG_MEMBER(m_LogPrintFlag)
    RIG_MEMBER(m_dwOutDelayDone)
    RIG_MEMBER(m_dwChnClearNum)
    RIG_MEMBER(m_dwUinNum)
    RIG_MEMBER(m_dwMultiUinAVSync)
    RIG_MEMBER(m_dwLogPrintTimer)
    RIG_MEMBER(m_dwLastPrintTick)
    RIG_MEMBER(m_stGuardCounts)
#undef RIG_MEMBER

#define RIG_STEP(name)                                   \
    template <class... Args>                             \
    decltype(auto) name(Args&&... args)                  \
    {                                                    \
        return m_recv.name(std::forward<Args>(args)...); \
    }
    RIG_STEP(Clear)
    RIG_STEP(Deliver)
    RIG_STEP(OnDataHandleNew)
    RIG_STEP(CheckDuplicate)
    RIG_STEP(UdtModeProcessNew)
    RIG_STEP(ClearChnParam)
    RIG_STEP(UpdateUinNum)
    RIG_STEP(ClearUselessData)
    RIG_STEP(ClearAudioRecvSeq)
    RIG_STEP(EraseUser)
    RIG_STEP(CalcVidGopInfo)
    RIG_STEP(CalcAudLostInfo)
    RIG_STEP(CalcVidLostInfo)
    RIG_STEP(CheckTimeOutNew)
    RIG_STEP(RequestLossPacket)
    RIG_STEP(RecvDataEvent)
    RIG_STEP(CheckPkgRequestFail)
    RIG_STEP(OutPacket)
    RIG_STEP(CalcTimelineMaxMin)
    RIG_STEP(CalcTimelineOutNew)
    RIG_STEP(FindTimeStampJump)
    RIG_STEP(OutPutDelay)
    RIG_STEP(OutPacketAudioNew)
    RIG_STEP(OutPacketVideoNew)
    RIG_STEP(OutVideoStatInfo)
    RIG_STEP(GetAVMapUinPair)
    RIG_STEP(CalcDownPacketLoss)
    RIG_STEP(InternalUDTCalcRecvLoss)
    RIG_STEP(CalcStatInfo)
    RIG_STEP(PrintStatInfo)
#undef RIG_STEP

    /// The inside of a receiver that somebody else owns: a simulation looks at clocks and buffers.
    static const MapUinInPkt& StreamsOf(const CAVGUdtRecv& recv) { return recv.m_mapUinInPkt; }
    static const MapUinDataInfo& UsersOf(const CAVGUdtRecv& recv) { return recv.m_mapUinDataInfo; }
    /// All that decides what comes next, as bytes, and back into a started receiver (RecvState.h).
    static void SaveState(CAVGUdtRecv& recv, std::vector<uint8>& vecBytes);
    static bool LoadState(CAVGUdtRecv& recv, const uint8* pData, size_t nLen,
                          const std::function<UDTCodecBaseDecode_V2*(const tagDataPacket&)>& fnPacket);
    static bool IsStopped(const CAVGUdtRecv& recv) { return recv.m_bStop != 0; }

private:
    uint32 m_dwNextDownSeq = 2;
};

#endif // RECVRIG_H
