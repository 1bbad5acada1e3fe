#ifndef AVGUDTRECVDATA_H
#define AVGUDTRECVDATA_H

/**
 * @file
 * What the receiver remembers: constants, one record per packet, stream and user, and the ordered maps that
 * index them. Defaults stand in the constructors. All of it belongs to the worker thread except where a
 * comment says otherwise.
 */

#include "AVGPktFlowStatic.h"
#include "AVGUDTCodec.h"
#include "AVGUDTPktMap.h"
#include "AVGUDTSeqMap.h"
#include "IUDT.h"
#include "IUDTInside.h"
#include "xpatomic.h"
#include "xprefc.h"
#include "xptypes.h"

#include <list>
#include <map>
#include <vector>

/// A word that one thread writes and others read without a lock.
typedef CXPShared<uint32> shared_uint32;
typedef CXPShared<boolean> shared_boolean; ///< likewise, a flag
typedef CXPShared<uint64> shared_uint64;   ///< likewise

// ---- Constants, ms unless said ---------------------------------------------------------------------------

constexpr uint32 c_dwUdtlossDataRequestInterval = 200; ///< between later requests for one gap
constexpr uint32 c_dwTimelineDeltaMax = 6000;          ///< upper bound of playout buffering
constexpr uint32 c_dwDefaultFirstGetTime = 300;        ///< before the second request, and during warm-up
constexpr uint32 c_dwCheckDataTimeout = 2000;          ///< between housekeeping passes
constexpr uint32 c_dwClearUinTimeOut = 6000;           ///< silence after which an empty stream is removed
constexpr uint32 c_dwMapUinSyncTimeOut = 2500;         ///< wait for the room state and the server's push
constexpr uint32 c_dwServerPushGopNum = 2;             ///< GOPs pushed when a stream starts
constexpr uint32 c_dwPkgDuplicatedInterval = 6000;     ///< least memory of the duplicate filter

constexpr uint32 c_dwNone32 = 0xFFFFFFFF; ///< "none yet" of sequences, indices and minima

/// The room plays out in this state only.
constexpr uint32 c_dwRoomStatePlaying = 3;

/// Bit of `m_dwUdtRecvMode` that selects the low-latency constants.
constexpr uint32 c_dwModeLowLatency = 1;

/// Bytes of `m_dwUdtParamsChanged`: one flag each, raised by the owner, taken by the worker.
enum emParamChange
{
    PARAM_TIMELINE_DELTA = 0,
    PARAM_OUTPUT_DELAY = 1, ///< raised for the owner's sake, no step takes it
    PARAM_MODE = 2
};

/// `m_dwClearRequest`: every stream but audio, of every user.
constexpr uint32 c_dwClearAllButAudio = 0xFF;

/// Moves of `tagUinDataInfo::dwVidResetTimelineMin`: asked for by per-packet handling and GOP tracking, done
/// by the transit band on the next packet, asked for anew after a pull-back of the timeline.
enum emVidResetState
{
    VID_RESET_NONE = 0,
    VID_RESET_ASKED = 1,
    VID_RESET_DONE = 2
};

/// Phases of `tagUinDataBuf::dwPFrmCnt`, forwards only, moved by the video loss walk.
enum emVidPFrmPhase
{
    VID_PFRM_NONE = 0,      ///< no P frame yet
    VID_PFRM_FIRST_RUN = 1, ///< in the first run of P frames: nothing counts as lost
    VID_PFRM_BEHIND = 2     ///< that run has ended
};

// ---- Keys --------------------------------------------------------------------------------------------------

/** Names a stream: a user account and a media sub-type. Ordered by account, then sub-type. */
struct tagInPktKey
{
    uint64 ullUserAccount; ///< the user
    uint8 cSubType;        ///< `emUDTAVType`

    tagInPktKey() : ullUserAccount(0), cSubType(0) {}
    /// The stream of that user and sub-type.
    tagInPktKey(uint64 ullAccount, uint8 cType) : ullUserAccount(ullAccount), cSubType(cType) {}

    /// By account, then sub-type.
    bool operator<(const tagInPktKey& stOther) const
    {
        if (ullUserAccount != stOther.ullUserAccount)
            return ullUserAccount < stOther.ullUserAccount;
        return cSubType < stOther.cSubType;
    }
};

// ---- Records -----------------------------------------------------------------------------------------------

/** Unwraps the 16-bit transport timestamp of one stream. Guarded by `m_dataLock`. */
struct tagPkgRingParam
{
    uint32 dwTimeStampBase; ///< 65536 x the wraps seen
    uint16 wTimeStampLast;  ///< the last timestamp taken
    boolean bSwitch;        ///< a wrap happened a short while ago

    tagPkgRingParam() : dwTimeStampBase(0), wTimeStampLast(0), bSwitch(FALSE) {}
};

struct tagDownUpSeq
{
    uint32 dwSubType;
    uint32 dwSenderSeq;
    uint32 dwLastLostReqTime;

    tagDownUpSeq() : dwSubType(0), dwSenderSeq(0), dwLastLostReqTime(0) {}
};

/** One buffered packet. Copied by value; a copy adds a reference to the packet object. */
struct tagDataPacket
{
    uint32 dwSenderSeq; ///< the sender's own sequence, the key of the reorder buffer
    uint32 dwTimeStamp; ///< media timestamp of the parsed head, ms
    uint64 llAccount;   ///< user account
    uint32 dwSeq;       ///< downlink transport sequence; traces and downlink loss only
    /// the packet object; null when a null packet was handed in
    CScopePtr<UDTCodecBaseDecode_V2> pRawData;
    uint32 dwRecvTime;        ///< tick of intake
    uint8 cSubType;           ///< `emUDTAVType`
    uint8 cPrePkgLost;        ///< packets missing just before this one, modulo 256
    uint8 cIsFrmLastPkg;      ///< 1: last data packet of its frame
    uint8 cGopIdx;            ///< index of the GOP, wraps
    uint8 cFrmIdx;            ///< 255 until the head is known
    uint8 cPkgIndex;          ///< index inside the frame
    uint8 cFrmType;           ///< `emUDTFrameType`, 255 until the head is known
    uint8 cPkgNum;            ///< data packets of the frame
    uint8 cFecNum;            ///< forward-error-correction packets of the frame
    uint8 cFrmLostNum;        ///< packets of its frame missing up to this one
    uint8 cIsCalcLost;        ///< 1 once loss detection has seen it
    uint8 cIsOutOfOrderSeq;   ///< 1: arrived behind a newer packet of its stream
    uint16 wVidPkgIdxLeft;    ///< packets of the frame, FEC included, that follow this one
    uint16 wLostReqCnt;       ///< requests sent for the gap before it
    uint32 dwMETimeStamp;     ///< media timestamp that playout goes by, ms
    uint32 dwLastReqLostTime; ///< tick of the last request for the gap before it

    tagDataPacket()
        : dwSenderSeq(0), dwTimeStamp(0), llAccount(0), dwSeq(0), dwRecvTime(0), cSubType(0), cPrePkgLost(0),
          cIsFrmLastPkg(0), cGopIdx(0), cFrmIdx(255), cPkgIndex(0), cFrmType(255), cPkgNum(0), cFecNum(0),
          cFrmLostNum(0), cIsCalcLost(0), cIsOutOfOrderSeq(0), wVidPkgIdxLeft(0), wLostReqCnt(0),
          dwMETimeStamp(0), dwLastReqLostTime(0)
    {
    }
};

/** Per-stream statistics. Written by the worker, read by `GetRecvChnInfo` from any thread. */
struct tagUinBufStatInfo
{
    shared_uint32 dwFirstIFrmRecvTime;    ///< ms from the first packet to the first I-frame packet
    shared_uint32 dwFrmNumBeforeFristFrm; ///< frames before the first I frame
    shared_uint32 dwFirstFrmCanDec;       ///< 1/0: first counted I frame was decodable; none32: none yet
    shared_uint32 dwCanDecIFrmElpTime;    ///< ms to the first decodable I frame
    shared_uint32 dwConfgMinDelay;        ///< ms, configured
    shared_uint32 dwConfgMaxDelay;        ///< ms, configured
    shared_uint32 dwRealMinDelay;         ///< ms, none32 while not measured
    shared_uint32 dwRealMaxDelay;         ///< ms
    shared_uint32 dwRealDelayAccNum;      ///< ms, sum of the delay samples
    shared_uint32 dwRealDelayAccCnt;      ///< delay samples
    shared_uint32 dwCurCalcTLDelta;       ///< ms, the sample that the sum takes
    shared_uint32 dwSkipPkgNum;           ///< early packets of a server push, never reset
    shared_uint32 dwStampErrCnt;          ///< timestamp errors
    shared_uint32 dwTotalRecvPkgNum;      ///< packets handled, duplicates included
    shared_uint32 dwTotalLossPkgNum;      ///< packets missing before released ones
    shared_uint32 dwTotalReqFailNum;      ///< requested packets that never came
    shared_uint32 dwPreFrmType;           ///< frame type released last, none32 before the first
    shared_uint32 dwOutFrmCnt;            ///< frames released
    shared_uint32 dwOutIFrmNum;           ///< I frames counted; a decodable one counts twice
    shared_uint32 dwCurIFrmCanDec;        ///< 1: the I frame being released is decodable so far

    tagUinBufStatInfo()
        : dwFirstIFrmRecvTime(0), dwFrmNumBeforeFristFrm(0), dwFirstFrmCanDec(c_dwNone32),
          dwCanDecIFrmElpTime(0), dwConfgMinDelay(0), dwConfgMaxDelay(0), dwRealMinDelay(c_dwNone32),
          dwRealMaxDelay(0), dwRealDelayAccNum(0), dwRealDelayAccCnt(0), dwCurCalcTLDelta(0), dwSkipPkgNum(0),
          dwStampErrCnt(0), dwTotalRecvPkgNum(0), dwTotalLossPkgNum(0), dwTotalReqFailNum(0),
          dwPreFrmType(c_dwNone32), dwOutFrmCnt(0), dwOutIFrmNum(0), dwCurIFrmCanDec(0)
    {
    }
};

typedef CUdtPktMap<tagDataPacket> MapUdtPacket; ///< by `dwSenderSeq`
typedef MapUdtPacket::tagNode tagPktNode;
typedef CUdtSeqMap<uint32> MapSeqTick; ///< sequence to tick

/** Learns the usual step between consecutive audio packets, ms of media time. */
struct tagAudSteps
{
    uint32 dwLearned;  ///< before the present walk, 0: nothing
    uint32 dwCur;      ///< of the last gap-free pair
    uint32 dwBigCnt;   ///< trailing steps well above the learned one
    uint32 dwSmallCnt; ///< trailing steps well below it

    explicit tagAudSteps(uint32 dwLearnedStep = 0)
        : dwLearned(dwLearnedStep), dwCur(0), dwBigCnt(0), dwSmallCnt(0)
    {
    }
};

/**
 * What the worker still knows of a stream's buffer from earlier turns, so that it looks only at what is new.
 * Nothing in here decides anything: a track that was forgotten costs a walk over the buffer and gives the same.
 * It speaks of one buffer's nodes, so a copied stream begins without.
 */
struct tagUinTrack
{
    tagPktNode* pWalkedTo; ///< the loss walk would change nothing and write nothing up to here; null: unknown
    std::vector<tagPktNode*> vecLate; ///< buffered in front of `pWalkedTo` since
    uint32 dwPFrmCnt;                 ///< video: the phase the walk ended in
    bool bPushing;                    ///< video: whether it took the server to be pushing still
    tagAudSteps stSteps; ///< audio: as the walk left them; the counts may be too high, never too low
    uint32 dwFreeSeq;    ///< audio: the last packet without a gap before it
    bool bGapsKnown;     ///< `mapGaps` is complete
    CUdtSeqMap<tagDataPacket*> mapGaps; ///< the packets with a gap before them

    tagUinTrack() : pWalkedTo(nullptr), dwPFrmCnt(0), bPushing(false), dwFreeSeq(0), bGapsKnown(false) {}
    tagUinTrack(const tagUinTrack&) : tagUinTrack() {}
    // NOLINTNEXTLINE(bugprone-unhandled-self-assignment): a copy knows nothing yet, whatever is copied
    tagUinTrack& operator=(const tagUinTrack&)
    {
        Forget();
        return *this;
    }

    void ForgetWalk()
    {
        pWalkedTo = nullptr;
        vecLate.clear();
    }
    void Forget()
    {
        ForgetWalk();
        bGapsKnown = false;
        mapGaps.clear();
    }
    void BeginGaps()
    {
        mapGaps.clear();
        bGapsKnown = true;
    }

    // The three below never throw: where there is no memory to keep book with, the book is given up.

    /// The count of what is missing before a packet was set.
    void NoteGap(tagPktNode* pNode)
    {
        if (bGapsKnown && (pNode->Pkt().cPrePkgLost != 0 || !mapGaps.IsBehindAll(pNode->Seq())))
            NoteGapChange(pNode);
    }
    /// A packet was put in.
    void NoteBuffered(tagPktNode* pNode)
    {
        if (pNode->Pkt().cPrePkgLost != 0 || pNode->Pkt().cIsCalcLost != 0)
            Forget(); // somebody marked it before us
        else if (pWalkedTo != nullptr && pNode->Seq() < pWalkedTo->Seq())
            NoteLate(pNode);
    }
    /// A packet is about to leave.
    void NoteRemoval(tagPktNode* pNode)
    {
        if (pNode->Pkt().cPrePkgLost != 0)
            mapGaps.erase(pNode->Seq());
        if (pNode == pWalkedTo || !vecLate.empty())
            ForgetWalk();
    }

private:
    void NoteGapChange(tagPktNode* pNode);
    void NoteLate(tagPktNode* pNode);
};

/**
 * One stream: its reorder buffer and all that is remembered about it. Copying is member-wise; the packets
 * of a copy gain a reference.
 */
struct tagUinDataBuf
{
    uint32 dwTimelineMin;
    uint32 dwTimelineMax;
    shared_uint32 dwTimelineDelta; ///< ms, also read by `GetRecvChnInfo`
    uint32 dwTimelineOut;
    uint32 dwLastRecvPackTime;        ///< tick of the last packet accepted
    uint32 dwRecvFirstPkgTime;        ///< tick of the first packet, and of the last pull-back
    MapUdtPacket mapUdtPacket;        ///< the reorder buffer
    tagCPktFlowStat stUinRecvPkgStat; ///< released sequences, folded in by housekeeping
    uint32 dwLastCheckDeltaTime;
    uint32 dwTargetTimelineDelta;
    uint32 dwNoAdjustDeltaCounter;
    uint32 dwConfigTimelineDelta; ///< ms, as configured when last told
    uint32 dwOutSendSeq;          ///< sequence released last, none32 before the first
    uint32 dwOutOfOrderCnt;
    uint32 dwLastOutPkgMETimeStamp; ///< of the last release
    uint32 dwLastOutPkgHeadTS;      ///< of the last release
    uint32 dwAVSyncAddDelay;
    uint32 dwLastOutPkgTick; ///< tick of the last release
    uint32 dwTimeStampDelta; ///< ms, learned step between audio packets; 0: not learned
    uint32 dwCurTotalLost;   ///< packets missing before released ones since housekeeping
    uint32 dwOutputSwitch;
    uint32 dwDelayTimelineMax;
    uint32 dwStartTimeStamp; ///< media timestamp of the first release; 0: none yet
    uint32 dwStartTick;
    uint32 dwOutPutDelayFlag; ///< 0: held back, 1: may release
    MapSeqTick mapRecvSeq;    ///< duplicate history: sequence to tick of acceptance
    MapSeqTick mapRequestSeq; ///< asked-for sequence to tick of its latest request
    uint32 dwFirstIFOutFlag;  ///< 0, `VID_IFRM_RECV`, `VID_IFRM_OUT`
    uint32 dwPrePkgSeq;       ///< newest sequence in order, none32 before the first
    uint32 dwVidPreGopIdx;    ///< GOP index of that packet
    uint32 dwVidPreFrmIdx;
    uint32 dwVidGopCnt; ///< GOPs counted, 0 before the first
    uint32 dwAVStampSync;
    uint32 dwPFrmCnt; ///< 0 no P frame yet, 1 in the first run of them, 2 behind it
    uint32 dwAudPushDone;
    uint32 dwAudPlayDelayRTS; ///< ms, as the owner last reported
    tagUinBufStatInfo stStatInfo;
    uint32 dwLogPrintFlag; ///< bits of `enLogPrintPos`
    uint32 dwRecvIFlag;    ///< 1: an I frame or the paired stream's release was seen
    uint32 dwQuickOut;
    bool bPushStmDone; ///< the server's push is over, or 2.5 s have passed
    tagUinTrack stTrack;

    tagUinDataBuf()
        : dwTimelineMin(0), dwTimelineMax(0), dwTimelineDelta(0), dwTimelineOut(0), dwLastRecvPackTime(0),
          dwRecvFirstPkgTime(0), dwLastCheckDeltaTime(0), dwTargetTimelineDelta(0), dwNoAdjustDeltaCounter(0),
          dwConfigTimelineDelta(0), dwOutSendSeq(c_dwNone32), dwOutOfOrderCnt(0), dwLastOutPkgMETimeStamp(0),
          dwLastOutPkgHeadTS(0), dwAVSyncAddDelay(0), dwLastOutPkgTick(0), dwTimeStampDelta(0),
          dwCurTotalLost(0), dwOutputSwitch(1), dwDelayTimelineMax(0), dwStartTimeStamp(0), dwStartTick(0),
          dwOutPutDelayFlag(0), dwFirstIFOutFlag(0), dwPrePkgSeq(c_dwNone32), dwVidPreGopIdx(c_dwNone32),
          dwVidPreFrmIdx(c_dwNone32), dwVidGopCnt(0), dwAVStampSync(0), dwPFrmCnt(0), dwAudPushDone(0),
          dwAudPlayDelayRTS(0), dwLogPrintFlag(0), dwRecvIFlag(0), dwQuickOut(0), bPushStmDone(false)
    {
    }
    tagUinDataBuf(const tagUinDataBuf& stOther) = default;
    tagUinDataBuf& operator=(const tagUinDataBuf& stOther) = default;
};

/**
 * One user: the playout timeline that the user's audio and video share. The shared words are those that
 * `CAVGUdtRecv::GetPlayoutInfo` reads from any thread.
 */
struct tagUinDataInfo
{
    shared_uint32 dwTimelineOut;  ///< the playout clock, ms of media time; 0: not started
    shared_uint32 dwTimelineIn;   ///< newest media timestamp received
    shared_uint32 dwTimelineMin;  ///< lower bound of the transit band
    shared_uint32 dwTimelineMax;  ///< upper bound of the transit band
    uint32 dwVidResetTimelineMin; ///< `emVidResetState`
    uint32 dwLastCheckDeltaTime;  ///< tick of the last clock advance
    uint32 dwHasVideo;            ///< 1 once the user sent video
    uint32 dwFastFactor;          ///< the clock speeds up by 1/`dwFastFactor`
    shared_uint32 dwExWaitTick;   ///< ms added to the target after a loss; 0: no loss yet
    uint32 dwLogPrintFlag;        ///< bits of `enLogPrintPos`

    tagUinDataInfo()
        : dwTimelineOut(0), dwTimelineIn(0), dwTimelineMin(c_dwNone32), dwTimelineMax(0),
          dwVidResetTimelineMin(VID_RESET_NONE), dwLastCheckDeltaTime(0), dwHasVideo(0), dwFastFactor(12),
          dwExWaitTick(0), dwLogPrintFlag(0)
    {
    }
};

/** Where one user's playout stands, filled by `CAVGUdtRecv::GetPlayoutInfo`. All in ms. */
struct tagPlayoutInfo
{
    uint32 dwTimelineOut; ///< the playout clock, media time; 0: not started
    uint32 dwTimelineIn;  ///< newest media time received
    uint32 dwDataLen;     ///< media received ahead of the clock
    uint32 dwBandWidth;   ///< width of the transit band: highest minus lowest recent transit
    uint32 dwExWaitTick;  ///< added to the target since a loss; 0: no loss yet
    uint32 dwTarget;      ///< media that the clock aims to keep ahead

    tagPlayoutInfo()
        : dwTimelineOut(0), dwTimelineIn(0), dwDataLen(0), dwBandWidth(0), dwExWaitTick(0), dwTarget(0)
    {
    }
};

/** `tagUDTRecvGuards` as threads share it, and which of the doors have a guard at all. */
struct tagGuardWords
{
    shared_boolean bIntake; ///< `dwMaxIntakePackets` or `dwMaxIntakeBytes`
    shared_boolean bStream; ///< `dwMaxStreamPackets` or `dwMaxStreamHistory`
    shared_uint32 dwMaxIntakePackets;
    shared_uint32 dwMaxIntakeBytes;
    shared_uint32 dwMaxStreams;
    shared_uint32 dwMaxAccounts;
    shared_uint32 dwMaxStreamPackets;
    shared_uint32 dwMaxStreamHistory;
    shared_uint32 dwMaxRequestsPerSecond;
    shared_uint32 dwMaxPullBacks;
    shared_uint32 dwMaxLatency;
};

/** `tagUDTRecvGuardInfo` as threads share it. A word has one writer at a time; the letter of `CAVGUdtRecv` tells. */
struct tagGuardCounts
{
    shared_uint32 dwIntakePackets;  ///< [D]
    shared_uint32 dwIntakeBytes;    ///< [D]
    shared_uint32 dwStreams;        ///< [W]
    shared_uint32 dwAccounts;       ///< [W]
    shared_uint32 dwAccountsForgot; ///< any number of writers
    shared_uint32 dwStreamPackets;  ///< [W]
    shared_uint32 dwStreamHistory;  ///< [W]
    shared_uint32 dwRequests;       ///< [W]
    shared_uint32 dwPullBacks;      ///< [W]
    shared_uint32 dwLatency;        ///< [W]
};

/**
 * How many packets may be asked for now, so that no second sees more than so many. A quarter of them may come at
 * once, after a while of less; three quarters are what a second brings.
 */
class CUdtRequestBudget
{
public:
    CUdtRequestBudget() : m_dwPerSecond(0), m_dwTick(0), m_ullParts(0) {}

    /// Takes the setting and the time that went by. 0 per second: no budget, do not ask it.
    void Refill(uint32 dwPerSecond, uint32 dwNow);
    /// Packets that may be asked for.
    uint64 Left() const { return m_ullParts / c_dwParts; }
    /// The same for requests that do not wait for the scan: these leave it half of what it may spend at once.
    uint64 LeftAtOnce() const;
    /// So many were asked for.
    void Spend(uint64 ullPackets);

private:
    static constexpr uint32 c_dwParts = 4000; // per packet: a millisecond brings three per packet and second
    uint64 Most() const;

    uint32 m_dwPerSecond; // as last told
    uint32 m_dwTick;      // of the last refill
    uint64 m_ullParts;
};

/** What one stream put into the second half of a guarded intake list. */
struct tagIntakeShare
{
    uint32 dwPackets;
    uint64 ullBytes;

    tagIntakeShare() : dwPackets(0), ullBytes(0) {}
};

/** What one stream would ask for, while there is not enough for all. */
struct tagGapDemand
{
    tagInPktKey stKey;
    tagUinDataBuf* pstUinDataBuf;
    uint32 dwTimelineOut; ///< of its user
    size_t nDue;          ///< packets that this scan would ask for
    size_t nRank;         ///< among streams that want the same
};

// ---- Maps, iterated in ascending key order -------------------------------------------------------------------

typedef std::map<tagInPktKey, tagUinDataBuf> MapUinInPkt;
typedef std::map<tagInPktKey, tagPkgRingParam> MapUinPkgRingParam;
typedef std::map<tagInPktKey, std::vector<uint32>> MapUinSeq;
typedef std::map<uint64, tagUinDataInfo> MapUinDataInfo;
typedef std::map<uint64, std::map<uint32, tagDownUpSeq>> MapUinSeqInfo;

#endif // AVGUDTRECVDATA_H
