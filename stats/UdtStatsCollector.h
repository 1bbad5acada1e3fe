/** @file
 * Stands between a receiver and its owner's callbacks and counts what passes:
 *
 *   owner --UDTReceiveNetData--> collector --> receiver --callbacks--> collector --> owner
 *
 *     CUdtStatsCollector collector(&myCallbacks);
 *     CAVGUdtRecv receiver(&collector);
 *     collector.Attach(&receiver);              // before Start
 *     ...
 *     collector.UDTReceiveNetData(...);         // instead of receiver.UDTReceiveNetData(...), network threads
 *     collector.Snapshot(st);                   // any thread
 *     ...
 *     collector.Attach(nullptr);                // before the receiver is destroyed
 *
 * Everything is passed on unchanged: the packet, the play delay, the results. One lock of its own guards the counts.
 * It is held for the counting of one packet or one request message, never while the owner or the receiver is called.
 * In steady state nothing is allocated per packet.
 */
#ifndef UDTSTATSCOLLECTOR_H
#define UDTSTATSCOLLECTOR_H

#include "AVGUDTRecv.h"
#include "UdtStats.h"
#include "xplock.h"

#include <atomic>
#include <map>
#include <memory>
#include <optional>

class CUdtStreamCounts;

/// Streams whose counts are remembered. One more makes the collector forget the one that was silent longest.
constexpr uint32 c_dwUdtStatsMaxStreams = 4096;

/** What an owner may know of a packet beyond what the receiver is told. */
struct tagUdtArrival
{
    std::optional<uint32> dwPayloadBytes; ///< media payload, without any header
    std::optional<bool> bRetransmitted;   ///< it is (true) or is not (false) sent again, as RTX tells
};

/** Counts what passes between one receiver and its owner; the head of this file shows where it stands. */
class CUdtStatsCollector : public IUDTRecvEventCallBack
{
public:
    /// @param pOwner the owner's callbacks, borrowed; they must outlive the collector. May be null.
    explicit CUdtStatsCollector(IUDTRecvEventCallBack* pOwner);
    virtual ~CUdtStatsCollector();
    CUdtStatsCollector(const CUdtStatsCollector&) = delete;
    CUdtStatsCollector& operator=(const CUdtStatsCollector&) = delete;

    /**
     * Names the receiver that was made with this collector as its callbacks. Control thread, while the receiver is
     * stopped. Null, before the receiver is destroyed: later snapshots hold what was counted here, without the
     * receiver's own records. Without a receiver releases are passed on, not counted by stream.
     */
    void Attach(CAVGUdtRecv* pRecv);

    /**
     * The door: `IUDTRecv::UDTReceiveNetData` of the attached receiver, same arguments, same threads, and the packet
     * is counted. Packets that the receiver refuses since it is stopped, and null packets, are not counted.
     * @param stArrival what the owner knows besides
     */
    boolean UDTReceiveNetData(uint32 dwSendSeq, uint64 llAccount, uint32 dwSeq, WORD wTimeStamp,
                              uint8 cSubType, UDTCodecBaseDecode_V2* pData,
                              const tagUdtArrival& stArrival = tagUdtArrival());

    /**
     * Hands in what `GetDownPacketRecvInfo` gave to the owner, in its order. The collector never polls it itself:
     * each poll ends an interval and moves the wait that playout adds after losses. Any thread.
     */
    void DownlinkPolled(uint32 dwExpectRecv, uint32 dwRealRecv, uint32 dwBytesRecv, uint32 dwIFrmLostInfo);

    /// Tells what time it is: milliseconds since 1970 at tick `ullTick` of the clock. Any thread.
    void SetTimeAtTick(double dUnixMs, uint64 ullTick);

    /// A stream of which nothing passes for longer than this is forgotten, ms; 0: never. 60 s unless told. Any thread.
    void SetForgetAfter(uint32 dwMs);

    /// Forgets all counts; the receiver's own records are the receiver's. For an owner that starts a receiver again.
    /// Any thread.
    void Reset();

    /// Everything at this moment. Any thread, also inside a callback.
    void Snapshot(tagUdtStats& st);

    // IUDTRecvEventCallBack, for the receiver
    void OnUDTRecvOutData(UDTCodecBaseDecode_V2* pPacket, int* pnDelay) override;
    int UdtRecvHandleEvent(WORD wType, uint8* pBuffer, uint32 nBufSize, uint32 nSendCount,
                           uint32 nUdtV2) override;
    int UdtParsePacketHeadInfo(uint8* pBuf, UdtPacketHeadInfo& stHead) override;

private:
    struct tagInFlight;
    struct tagSeen;
    typedef std::map<tagInPktKey, std::unique_ptr<CUdtStreamCounts>> MapCounts;

    CUdtStreamCounts& Counts(const tagInPktKey& stKey, uint64 ullTick); // Caller holds m_lock.
    void Forget(uint64 ullTick);                                        // Caller holds m_lock.
    void ForgetSilentLongest();                                         // Caller holds m_lock.
    const tagPlayoutInfo* PlayoutOf(CAVGUdtRecv& recv, uint64 llAccount, uint32 dwTick);
    void AskReceiver(tagSeen& stSeen);

    IUDTRecvEventCallBack* const m_pOwner;
    std::atomic<CAVGUdtRecv*> m_pRecv{nullptr};
    CXPLock m_lockRecv; // held while a snapshot asks the receiver, so that Attach(nullptr) waits for it

    CXPLock m_lock; // guards what follows
    MapCounts m_mapCounts;
    tagInPktKey m_stLastKey; // of the stream looked up last
    CUdtStreamCounts* m_pLastCounts = nullptr;
    uint64 m_ullParsed = 0;
    uint64 m_ullReleased = 0;
    uint64 m_ullMessages = 0;
    uint64 m_ullAsked = 0;
    bool m_bReleasesSeen = false; // a receiver was attached
    bool m_bPolled = false;
    uint64 m_ullDownExpected = 0;
    uint64 m_ullDownReceived = 0;
    uint64 m_ullDownBytes = 0;
    uint32 m_dwIFrmLostInfo = 0;
    bool m_bLossKnown = false; // some interval with packets was polled
    std::optional<double> m_dUnixMsAtTick0;
    uint32 m_dwForgetAfter = 60000;

    // Worker only: where the user of the packet released last stands, asked once per millisecond.
    tagPlayoutInfo m_stPlayout;
    uint64 m_ullPlayoutAccount = 0;
    uint32 m_dwPlayoutTick = 0;
    bool m_bPlayout = false;
};

#endif // UDTSTATSCOLLECTOR_H
