#ifndef IUDT_H
#define IUDT_H

/**
 * @file
 * What an owner of the receiver sees: the records and enumerations that cross the interface, the interface
 * `IUDTRecv` that drives a receiver, and the callbacks `IUDTRecvEventCallBack` that the owner implements.
 *
 * All times are milliseconds, all loss rates are in units of 1/10000 (10000 = everything lost), all
 * sequences and ticks are 32-bit and wrap. Nothing here throws or returns an error code.
 */

#include "AVGUDTCodec.h"
#include "IUDTInside.h"
#include "xptypes.h"

#include <cstddef>

/** Media sub-types, the second half of every stream's key. */
enum emUDTAVType
{
    MEAVAudio = 1,         ///< audio: loss detection, released ahead by the owner's play delay
    MEAVMaxVideo = 2,      ///< big video: loss detection, GOP tracking
    MEAVMinVideo = 3,      ///< small video: loss detection, GOP tracking
    MEAVVideoSingal = 4,   ///< buffered and played, no loss detection
    MEAVVideoSingalEx = 5, ///< buffered and played, no loss detection
    MEAVPPTShare = 6,      ///< screen share: buffered and played, no loss detection
    MEAVSubVideo = 7,      ///< sub video: loss detection, GOP tracking
    MEAVCheckSpeed = 8,    ///< buffered and played, no loss detection
    MEAVPPTWBoardData = 9, ///< whiteboard: buffered and played, no loss detection
    MEAVMAX = 10           ///< one above the last
};

/** Frame types of the media head. A buffered packet whose type is not known holds 255. */
enum emUDTFrameType
{
    def_FrameType_I = 0,        ///< key frame
    def_FrameType_P = 1,        ///< P frame
    def_FrameType_P_WITHSP = 2, ///< P frame with SP
    def_FrameType_SP = 3,       ///< SP frame
    def_FrameType_GF = 4,       ///< golden frame
    def_FrameType_P_WITHB = 5,  ///< P frame with B
    def_FrameType_B = 6         ///< B frame
};

/** Events that the receiver raises through `UdtRecvHandleEvent`. */
enum emGVUdtRecvPacketEvent
{
    AVGUdtRecvPacketEvent_LossRequest = 0 ///< missing packets: an array of `tagReplyData`
};

/** Tuning. A field that is 0 or out of range leaves its setting alone, except where the field says so. */
struct tagUDTRecvParams
{
    uint16 wQueuePeriod;      ///< ms, upper bound of playout buffering; taken when >= `wTimelineDelta`
    uint16 wFirstGetTime;     ///< ms before a gap is asked for again after the first request; at least 200
    uint16 wNextGetTime;      ///< ms between later requests for one gap; at least 100
    uint16 wGetPkgTimeout;    ///< carried, not read
    uint16 wCalcRecvLossTime; ///< ms, period of the stream-loss calculation
    uint16 wTimelineDelta;    ///< ms, lower bound of playout buffering; at most the upper bound
    uint16 wOutPutDelay;      ///< ms, at most the playout buffering in force; 0 is taken
    uint16 wPeriodMinDelay;   ///< ms, minimum delay announced by the server
    uint16 wUdtMode;          ///< receive mode, bit 0 = low latency; 0 is taken
    uint16 wPushGopNum;       ///< GOPs that the server pushes when a stream starts; 0 is taken

    tagUDTRecvParams()
        : wQueuePeriod(0), wFirstGetTime(0), wNextGetTime(0), wGetPkgTimeout(0), wCalcRecvLossTime(0),
          wTimelineDelta(0), wOutPutDelay(0), wPeriodMinDelay(0), wUdtMode(0), wPushGopNum(0)
    {
    }
};

/** Receiver-wide statistics, filled by `IUDTRecv::GetRecvInfo`. Rates in 1/10000. */
struct tagRecvInfo
{
    uint32 dwChnNum;      ///< live streams
    uint32 dwMaxLossRate; ///< largest non-zero downlink loss rate so far
    uint32 dwMinLossRate; ///< smallest non-zero downlink loss rate so far; 0xFFFFFFFF while there is none
    uint32 dwCurLossRate; ///< downlink loss rate of the last polled interval
    uint32 dwChnClearNum; ///< streams that fell silent and were removed

    tagRecvInfo() : dwChnNum(0), dwMaxLossRate(0), dwMinLossRate(0), dwCurLossRate(0), dwChnClearNum(0) {}
};

/** Statistics of one stream, filled by `IUDTRecv::GetRecvChnInfo`. Times in ms, counts in packets. */
struct tagRecvChnStatInfo
{
    uint64 llAccount;              ///< user account
    uint32 dwSubType;              ///< `emUDTAVType`
    uint32 dwFirstIFrmRecvTime;    ///< ms from the stream's first packet to its first I-frame packet
    uint32 dwFrmNumBeforeFristFrm; ///< frames before the first I frame
    uint32 dwFirstFrmCanDec;       ///< 1/0: first counted I frame could be decoded; 0xFFFFFFFF: none counted
    uint32 dwCanDecIFrmElpTime;    ///< ms from the first packet to the first decodable I frame; 0: none yet
    uint32 dwConfgMinDelay;        ///< ms, configured lower bound of playout buffering
    uint32 dwConfgMaxDelay;        ///< ms, configured upper bound of playout buffering
    uint32 dwRealMinDelay;         ///< ms, 0xFFFFFFFF while not measured
    uint32 dwRealMaxDelay;         ///< ms
    uint32 dwRealDelayAvg;         ///< ms, mean of the delay samples; 0 without samples
    uint32 dwCurCalcTLDelta;       ///< ms, the stream buffer's own timeline delta
    uint32 dwSkipPkgNum;           ///< packets that lay 2 s or more behind playout on arrival
    uint32 dwStampErrCnt;          ///< timestamp errors
    uint32 dwTotalRecvPkgNum;      ///< packets handled, duplicates included
    uint32 dwTotalLossPkgNum;      ///< packets missing before released packets
    uint32 dwTotalReqFailNum;      ///< requested packets that never came

    tagRecvChnStatInfo()
        : llAccount(0), dwSubType(0), dwFirstIFrmRecvTime(0), dwFrmNumBeforeFristFrm(0), dwFirstFrmCanDec(0),
          dwCanDecIFrmElpTime(0), dwConfgMinDelay(0), dwConfgMaxDelay(0), dwRealMinDelay(0),
          dwRealMaxDelay(0), dwRealDelayAvg(0), dwCurCalcTLDelta(0), dwSkipPkgNum(0), dwStampErrCnt(0),
          dwTotalRecvPkgNum(0), dwTotalLossPkgNum(0), dwTotalReqFailNum(0)
    {
    }
};

/**
 * What the receiver takes at most, told by `CAVGUdtRecv::SetGuards`. 0, the default of every field: no such guard.
 * A guard turns away what comes too much; it takes nothing back that was let in before it was set. The second half
 * of what may wait for the worker is kept for streams that are there already, in equal parts, so that a flood does not
 * keep their packets out. How to choose them: docs/guards.md.
 */
struct tagUDTRecvGuards
{
    uint32 dwMaxIntakePackets; ///< packets that wait for the worker's next turn
    uint32 dwMaxIntakeBytes;   ///< bytes, by `wLen`, of the packets that wait for the worker's next turn
    uint32 dwMaxStreams;       ///< streams at a time; packets of a further one are turned away
    uint32 dwMaxAccounts;      ///< accounts remembered, with or without a stream at present
    uint32 dwMaxStreamPackets; ///< packets that one stream buffers
    uint32 dwMaxStreamHistory; ///< sequences by which one stream knows duplicates: packets of the last 6 s
    uint32 dwMaxRequestsPerSecond; ///< packets asked for in any second, over all streams
    uint32 dwMaxPullBacks;         ///< times per second that early packets may pull one user's clock back
    uint32 dwMaxLatency; ///< ms of media ahead of a user's clock, before the clock leaps to the live edge

    tagUDTRecvGuards()
        : dwMaxIntakePackets(0), dwMaxIntakeBytes(0), dwMaxStreams(0), dwMaxAccounts(0),
          dwMaxStreamPackets(0), dwMaxStreamHistory(0), dwMaxRequestsPerSecond(0), dwMaxPullBacks(0),
          dwMaxLatency(0)
    {
    }
};

/**
 * What each guard did, filled by `CAVGUdtRecv::GetGuardInfo`. Counted since the receiver was made, modulo 2^32,
 * over starts and stops.
 */
struct tagUDTRecvGuardInfo
{
    uint32 dwIntakePackets; ///< packets turned away by `dwMaxIntakePackets`
    uint32 dwIntakeBytes;   ///< packets turned away by `dwMaxIntakeBytes`
    uint32 dwStreams;       ///< packets turned away by `dwMaxStreams`
    uint32 dwAccounts; ///< packets turned away by `dwMaxAccounts`, every remembered account having a stream
    uint32 dwAccountsForgot; ///< records of accounts forgotten to make room, up to two per account
    uint32 dwStreamPackets;  ///< packets turned away by `dwMaxStreamPackets`
    uint32 dwStreamHistory;  ///< packets turned away by `dwMaxStreamHistory`
    uint32 dwRequests;       ///< missing packets that were due and not asked for; again each time it happens
    uint32 dwPullBacks;      ///< early packets that did not pull the clock back
    uint32 dwLatency;        ///< leaps of a user's clock to the live edge

    tagUDTRecvGuardInfo()
        : dwIntakePackets(0), dwIntakeBytes(0), dwStreams(0), dwAccounts(0), dwAccountsForgot(0),
          dwStreamPackets(0), dwStreamHistory(0), dwRequests(0), dwPullBacks(0), dwLatency(0)
    {
    }
};

/** The media head of one packet as the owner parsed it. Zeroed by the receiver before the call. */
struct tagUdtPacketHeadInfo
{
    uint8 cHeadLen;       ///< bytes of the head; not read by the receiver
    uint8 cSubType;       ///< `emUDTAVType`; used for downlink accounting only
    uint8 cFrmType;       ///< `emUDTFrameType`
    uint8 cPkgIndex;      ///< index of this packet inside its frame, from 0
    uint8 cTotalPkgCount; ///< data packets of the frame
    uint8 cFecPkgCount;   ///< forward-error-correction packets of the frame
    uint8 cFrameIndex;    ///< index of the frame inside its GOP
    uint8 cGopIndex;      ///< index of the GOP, wraps
    uint32 uTimeStamp;    ///< media timestamp, ms on a timeline shared by the user's streams

    tagUdtPacketHeadInfo()
        : cHeadLen(0), cSubType(0), cFrmType(0), cPkgIndex(0), cTotalPkgCount(0), cFecPkgCount(0),
          cFrameIndex(0), cGopIndex(0), uTimeStamp(0)
    {
    }
};
typedef tagUdtPacketHeadInfo UdtPacketHeadInfo; ///< by its usual name

/**
 * One entry of a loss request. 24 bytes in host byte order; the bytes between the fields hold nothing and
 * must not be read.
 */
struct tagReplyData
{
    uint64 ullUserAccount; ///< the stream's user
    uint8 cSubType;        ///< the stream's `emUDTAVType`
    uint32 dwUserSeq;      ///< the missing packet, in the sender's own numbering
    uint8 cResult;         ///< always 0 in a request

    tagReplyData() : ullUserAccount(0), cSubType(0), dwUserSeq(0), cResult(0) {}
};

static_assert(sizeof(tagReplyData) == 24 && offsetof(tagReplyData, ullUserAccount) == 0 &&
                  offsetof(tagReplyData, cSubType) == 8 && offsetof(tagReplyData, dwUserSeq) == 12 &&
                  offsetof(tagReplyData, cResult) == 16,
              "a loss request is read by its byte offsets");
static_assert(sizeof(tagUDTRecvParams) == 20, "ten 16-bit fields");
static_assert(sizeof(tagRecvInfo) == 20, "five 32-bit fields");
static_assert(sizeof(tagRecvChnStatInfo) == 72, "a 64-bit and sixteen 32-bit fields");
static_assert(sizeof(tagUDTRecvGuards) == 36, "nine 32-bit fields");
static_assert(sizeof(tagUDTRecvGuardInfo) == 40, "ten 32-bit fields");
static_assert(sizeof(tagUdtPacketHeadInfo) == 12, "eight bytes and a 32-bit field");

/**
 * Drives a receiver. The slot order of the operations is part of the interface. There is no virtual
 * destructor: the owner destroys the receiver through its concrete type.
 *
 * Threads: `UDTReceiveNetData` may be called by any number of threads at once. The getters may be called by
 * any thread while the receiver runs. `Start`, `Stop` and the setters belong to one control thread; they may
 * also be called from inside a callback (see `Stop`).
 */
class IUDTRecv
{
public:
    /**
     * Stops the worker: it finishes its turn, writes the end report and clears the buffers. Takes at least
     * 200 ms, during which the worker may still call the owner; afterwards it no longer does. Does nothing on
     * a stopped receiver. Called from inside one of the worker's own callbacks it returns without waiting:
     * the worker ends after its turn, and the next `Start`, `Stop` or the destructor waits for it. An owner-driven
     * receiver ends its run on the caller's thread and waits for nothing; while a turn is being made, that turn's
     * thread ends the run after it.
     */
    virtual void Stop() = 0;

    /**
     * Clears the buffers and starts the worker. Does nothing on a running receiver. Inside the very turn that a
     * callback has just stopped it is ignored, with a log line: that worker cannot wait for itself.
     */
    virtual void Start() = 0;

    /** Tells the measured round-trip time in ms; it moves the interval between loss requests. */
    virtual void UDTSetRecvRTT(uint32 dwRTT) = 0;

    /** Sets the tuning; a field out of its range is ignored silently and shows in the log line. */
    virtual void UDTSetRecvParams(const tagUDTRecvParams& params) = 0;

    /**
     * Reads the last stream-loss calculation. @param dwLoss100 lost, 1/10000. @param dwTotalNum packets
     * expected. @param dwRealNum packets received. @param dwAvgLossMode mean burst, hundredths of a packet.
     */
    virtual void UDTCalcRecvLoss(uint32& dwLoss100, uint32& dwTotalNum, uint32& dwRealNum,
                                 uint32& dwAvgLossMode) = 0;

    /**
     * Reads the downlink since the previous call and begins a new interval. @param dwExpectRecv packets
     * expected. @param dwRealRecv packets received. @param dwBytesRecv bytes received. @param dwIFrmLostInfo
     * the last stream's first I frame: ms to its release << 16 | FEC packets << 8 | packets lost.
     */
    virtual void GetDownPacketRecvInfo(uint32& dwExpectRecv, uint32& dwRealRecv, uint32& dwBytesRecv,
                                       uint32& dwIFrmLostInfo) = 0;

    /** Allows (TRUE, the default) or forbids (FALSE) loss requests. `Stop` allows them again. */
    virtual void UDTEnableReGetPkg(boolean bEnable) = 0;

    /** Tells the room's state; only in state 3 are packets released. */
    virtual void SetRoomState(uint32 dwRoomState) = 0;

    /**
     * Takes one packet from the network.
     * @param dwSendSeq  the sender's own sequence, per stream
     * @param llAccount  the sending user
     * @param dwSeq      this receiver's downlink transport sequence
     * @param wTimeStamp 16-bit timestamp of the transport header, ms
     * @param cSubType   `emUDTAVType`
     * @param pData      the decoded packet; borrowed, the receiver adds its own reference. May be null.
     * @return always TRUE, also when the receiver is stopped or a guard turns the packet away, and it is dropped
     */
    virtual boolean UDTReceiveNetData(uint32 dwSendSeq, uint64 llAccount, uint32 dwSeq, WORD wTimeStamp,
                                      uint8 cSubType, UDTCodecBaseDecode_V2* pData) = 0;

    /**
     * Asks the worker to remove streams on its next turn. @param llAccount the user, 0 for none.
     * @param dwIsClearAll 0xFF: every stream but audio, of every user; any other value but 0: the stream of
     * that sub-type of every user named since the last turn. Several calls before a turn keep the last value.
     */
    virtual void ClearRecvChn(uint64 llAccount, uint32 dwIsClearAll) = 0;

    /** Fills the receiver-wide statistics. */
    virtual void GetRecvInfo(tagRecvInfo& stRecvInfo) = 0;

    /**
     * Fills one record per stream, ordered by account, then sub-type. @param pstRecvInfo an array of at least
     * `dwNum` records; null yields 0. @return the records filled.
     */
    virtual uint32 GetRecvChnInfo(tagRecvChnStatInfo* pstRecvInfo, uint32 dwNum) = 0;

protected:
    ~IUDTRecv() = default;
};

/**
 * What the owner implements. The object must outlive the receiver. No lock is held while it is called.
 */
class IUDTRecvEventCallBack
{
public:
    /**
     * Worker thread: a packet is due. The packet is lent for the call; `AddRef` it to keep it longer.
     * @param pPacket  the packet as it was handed in; null when a null packet was handed in
     * @param pnDelay  points at 0; for audio the owner writes its present audio play delay there, in ms, and
     *                 the stream's next packets are released that much ahead of the user's clock
     */
    virtual void OnUDTRecvOutData(UDTCodecBaseDecode_V2* pPacket, int* pnDelay) = 0;

    /**
     * Worker thread: an event to be sent. For `AVGUdtRecvPacketEvent_LossRequest` `pBuffer` is the first of
     * `nBufSize` (records, not bytes) `tagReplyData`, valid during the call; `nSendCount` and `nUdtV2` are 1.
     * The result is ignored.
     */
    virtual int UdtRecvHandleEvent(WORD wType, uint8* pBuffer, uint32 nBufSize, uint32 nSendCount,
                                   uint32 nUdtV2) = 0;

    /**
     * Thread of `UDTReceiveNetData`: parse the media head at the start of the body. `stHead` comes zeroed;
     * a head left untouched is taken as it is. The result is ignored.
     */
    virtual int UdtParsePacketHeadInfo(uint8* pBuf, UdtPacketHeadInfo& stHead) = 0;

protected:
    ~IUDTRecvEventCallBack() = default;
};

#endif // IUDT_H
