/** @file
 * The statistics of one receiver as a record, as JSON and as OpenMetrics text.
 *
 * A field is named as it is printed, so one search finds it everywhere. A name of the W3C's webrtc-stats
 * ("inbound-rtp") is used only where the value means what it means there; every other name is our own. What
 * is not known is absent: no value here, no member in the JSON, no sample in the OpenMetrics text. Times are
 * seconds unless a line says otherwise.
 *
 * Sources, named at the end of each line:
 *  [door]    counted where packets come in, by `CUdtStatsCollector::UDTReceiveNetData`; absent in a stream whose
 *            packets come in past it
 *  [release] counted where packets leave, from the record of the packet being released
 *  [request] counted where loss requests leave
 *  [record]  the receiver's own record of the stream, named in the line; absent while the receiver has no such
 *            stream, and begun anew when it makes the stream anew
 *  [user]    where the playout of the stream's user stands now, `GetPlayoutInfo`
 *
 * Counts of door, release and request begin with the stream's first packet or request, or at
 * `CUdtStatsCollector::Reset`, and end when the stream is forgotten (see `SetForgetAfter`).
 */
#ifndef UDTSTATS_H
#define UDTSTATS_H

#include "xptypes.h"

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

/** Facts of one stream, by their printed names. */
struct tagUdtStreamStats
{
    uint64 llAccount = 0; ///< user account
    uint32 dwSubType = 0; ///< `emUDTAVType`
    std::string strUser;  ///< what the owner calls the user; the owner fills it in, empty: not printed
    bool bLive = false;   ///< the receiver has this stream now

    // ---- inbound-rtp: same name, same meaning ----

    /// Packets that came, late and repeated ones included. [door], else [record] dwTotalRecvPkgNum
    std::optional<uint64> packetsReceived;
    /// Expected minus received, as RFC 3550 A.3 has it: repaired packets no longer count, repeats count against
    /// it, and it may be negative. [door]
    std::optional<int64_t> packetsLost;
    /// Interarrival jitter of RFC 3550 6.4.1 at the resolution of the tick, seconds. Packets that were asked for,
    /// retransmitted or repeated do not move it, as if they came on a stream of their own. [door]
    std::optional<double> jitter;
    /// Packets that came, were not released and were passed by: older than the video they belong to at the
    /// beginning, or too far ahead when playout was pulled back. Not repeats. Late packets are released, never
    /// discarded. Decided `c_dwUdtDiscardLag` sequences later. [door] [release]
    std::optional<uint64> packetsDiscarded;
    /// Payload bytes: told at the door, else the body without its media head where both lengths are told.
    /// Absent as soon as one packet's payload is not known. [door]
    std::optional<uint64> bytesReceived;
    /// Loss-request messages that ask for a packet of this stream; an owner that splits a message into several
    /// packets sends more. [request]
    std::optional<uint64> nackCount;
    /// Retransmitted packets that came, as the owner told at the door. Absent until the owner told of some packet
    /// whether it is one: a late original looks just like an answer, see requestedPacketsReceived. [door]
    std::optional<uint64> retransmittedPacketsReceived;
    /// Packets of forward error correction: index at or behind the frame's data packets. Video. [door]
    std::optional<uint64> fecPacketsReceived;
    /// Frames of which every data packet came, counted when the last one comes. Video. [door]
    std::optional<uint64> framesReceived;
    /// Sum over emitted frames of the time from the arrival of their first packet to the release of their last
    /// one, seconds. Video: for audio the standard counts samples, see packetBufferDelay. [release]
    std::optional<double> jitterBufferDelay;
    /// Sum over emitted frames of the delay that the playout clock aimed at when they left, seconds. Video.
    /// [release] [user] dwTarget
    std::optional<double> jitterBufferTargetDelay;
    /// The same of what the network alone asks for: 1.2 times the transit band plus the extra wait after losses,
    /// without the configured bounds, seconds. Video. [release] [user] dwBandWidth, dwExWaitTick
    std::optional<double> jitterBufferMinimumDelay;
    /// Frames that left, whole or not, each when its last packet has left. Video. [release]
    std::optional<uint64> jitterBufferEmittedCount;
    /// When the last packet came, milliseconds since 1970. Absent until the collector knows what tick that is.
    /// [door]
    std::optional<double> lastPacketReceivedTimestamp;

    // ---- our own ----

    std::optional<uint64> lastPacketReceivedTick; ///< the same, ms of the tick clock. [door]
    std::optional<uint64> packetsDuplicated;      ///< packets whose sequence had come before. [door]
    std::optional<uint64> packetBytesReceived;    ///< sum of `wLen`, bytes. [door]
    std::optional<uint64> packetsReleased;        ///< packets given to the owner. [release]
    /// Of these, behind a higher sequence: they came after their place had been played. [release]
    std::optional<uint64> packetsReleasedLate;
    /// Sum over released packets of the time from arrival to release, seconds. [release] dwRecvTime
    std::optional<double> packetBufferDelay;
    /// Sum over released packets of the delay that the playout clock aimed at, seconds. [user] dwTarget
    std::optional<double> packetTargetDelay;
    /// The same of what the network alone asks for, seconds. [user] dwBandWidth, dwExWaitTick
    std::optional<double> packetMinimumDelay;
    std::optional<uint64> framesReleased;         ///< frames begun to be released. Video. [release]
    std::optional<uint64> framesReleasedComplete; ///< of these, every data packet released. Video. [release]
    std::optional<uint64> keyFramesReleased;      ///< I frames begun to be released. Video. [release]
    std::optional<uint64>
        keyFramesReleasedComplete;                ///< of these, every data packet released. Video. [release]
    std::optional<uint64> packetsRequested;       ///< sequences asked for, each time it was asked. [request]
    std::optional<uint64> packetsRequestedUnique; ///< distinct sequences asked for. [request]
    /// Distinct sequences that came, for the first time, after they were asked for. [door], else [release]
    std::optional<uint64> requestedPacketsReceived;
    std::optional<double> audioPlayDelay; ///< as the owner last reported, seconds. Audio. [release]

    std::optional<uint64> packetsHandled; ///< packets taken from the intake. [record] dwTotalRecvPkgNum
    /// Packets missing before released packets, after repair. [record] dwTotalLossPkgNum
    std::optional<uint64> packetsMissingAtRelease;
    /// Packets asked for that never came, known about 6 s later. [record] dwTotalReqFailNum
    std::optional<uint64> requestedPacketsFailed;
    /// Packets that lay 2 s or more behind playout on arrival. [record] dwSkipPkgNum
    std::optional<uint64> packetsFarBehindPlayout;
    /// Timestamp errors; absent while 0, since no step of the receiver counts them. [record] dwStampErrCnt
    std::optional<uint64> timestampErrors;
    /// From the first packet to the first packet of an I frame, seconds; absent until there is one. Video.
    /// [record] dwFirstIFrmRecvTime
    std::optional<double> firstKeyFrameReceiveTime;
    /// Frames before the first I frame; absent while 0, as above. Video. [record] dwFrmNumBeforeFristFrm
    std::optional<uint64> framesBeforeFirstKeyFrame;
    /// The first I frame counted could be decoded: its FEC packets cover its losses. [record] dwFirstFrmCanDec
    std::optional<bool> firstKeyFrameDecodable;
    /// From the first packet to the first decodable I frame's release, seconds. [record] dwCanDecIFrmElpTime
    std::optional<double> firstDecodableKeyFrameTime;
    std::optional<double> configuredMinimumDelay; ///< seconds. [record] dwConfgMinDelay
    std::optional<double> configuredMaximumDelay; ///< seconds. [record] dwConfgMaxDelay
    std::optional<double> measuredMinimumDelay;   ///< seconds. [record] dwRealMinDelay, not 0xFFFFFFFF
    std::optional<double> measuredMaximumDelay;   ///< seconds. [record] dwRealMaxDelay, not 0
    std::optional<double> measuredAverageDelay;   ///< seconds. [record] dwRealDelayAvg, not 0
    std::optional<double> timelineDelta;          ///< the buffer's own, seconds. [record] dwCurCalcTLDelta

    std::optional<double> playoutTargetDelay; ///< media to keep ahead of the clock, seconds. [user] dwTarget
    std::optional<double>
        playoutBufferedTime; ///< media received ahead of the clock, seconds. [user] dwDataLen
    std::optional<double>
        transitBandWidth;                ///< highest minus lowest recent transit, seconds. [user] dwBandWidth
    std::optional<double> lossExtraWait; ///< seconds; absent before the first loss. [user] dwExWaitTick
    std::optional<double> playoutClock;  ///< media time, seconds; absent until started. [user] dwTimelineOut
};

/** Facts of the receiver as a whole, by their printed names. */
struct tagUdtReceiverStats
{
    std::optional<uint64> streams; ///< live streams. GetRecvInfo dwChnNum
    std::optional<uint64>
        streamsExpired; ///< streams that fell silent and were removed. GetRecvInfo dwChnClearNum
    std::optional<uint64> packetsParsed;   ///< media heads parsed, of all streams. UdtParsePacketHeadInfo
    std::optional<uint64> packetsReleased; ///< packets given to the owner, of all streams. OnUDTRecvOutData
    std::optional<uint64> requestMessages; ///< loss-request messages. UdtRecvHandleEvent
    std::optional<uint64>
        packetsRequested; ///< sequences asked for, each time it was asked. UdtRecvHandleEvent
    /// Share of packets lost on the downlink in the interval that the owner polled last, 0 to 1; absent until the
    /// owner handed a poll in or a lossy interval is known. GetRecvInfo dwCurLossRate
    std::optional<double> downlinkLossRatio;
    std::optional<double> downlinkLossRatioMin; ///< of all lossy intervals. GetRecvInfo dwMinLossRate
    std::optional<double> downlinkLossRatioMax; ///< of all lossy intervals. GetRecvInfo dwMaxLossRate
    /// Packets that the downlink sequence spans, summed over the polls that the owner handed in.
    /// GetDownPacketRecvInfo dwExpectRecv
    std::optional<uint64> downlinkPacketsExpected;
    std::optional<uint64> downlinkPacketsReceived; ///< packets that came, likewise. dwRealRecv
    std::optional<uint64> downlinkBytesReceived;   ///< their lengths, likewise. dwBytesRecv
    /// From a stream's first packet to the release of its first I frame, of the stream that released one last,
    /// seconds (16 bits of ms); absent while there is none. GetDownPacketRecvInfo dwIFrmLostInfo
    std::optional<double> firstKeyFrameReleaseTime;
    std::optional<uint64> firstKeyFrameFecPackets;  ///< FEC packets of that I frame. dwIFrmLostInfo
    std::optional<uint64> firstKeyFramePacketsLost; ///< packets missing of that I frame. dwIFrmLostInfo
    /// Share of packets missing in the last stream-loss calculation, 0 to 1; absent while nothing was expected, and
    /// when more came than was expected. UDTCalcRecvLoss dwLoss100
    std::optional<double> streamLossRatio;
    std::optional<uint64> streamPacketsExpected; ///< packets expected in it. UDTCalcRecvLoss dwTotalNum
    std::optional<uint64> streamPacketsReceived; ///< packets received in it. UDTCalcRecvLoss dwRealNum
    /// Packets missing per loss event in it; absent without losses. UDTCalcRecvLoss dwAvgLossMode
    std::optional<double> streamLossBurst;
};

/** Everything at one moment. */
struct tagUdtStats
{
    uint64 ullTick = 0; ///< when, ms of the tick clock
    std::optional<double>
        timestamp; ///< when, ms since 1970; absent until the collector knows what tick that is
    tagUdtReceiverStats stReceiver;            ///< of the receiver as a whole
    std::vector<tagUdtStreamStats> vecStreams; ///< ordered by account, then sub-type
};

/// Sequences that releases must have gone on before a packet counts as discarded: one that is on its way to the
/// worker while its successors are released is still to come.
constexpr uint32 c_dwUdtDiscardLag = 64;

/// The standard's kind of a sub-type: "audio", "video", or null for what is neither.
const char* UdtStatsKind(uint32 dwSubType);
/// A sub-type's own name: "audio", "big-video", "small-video", "share", "sub-video", or "other".
const char* UdtStatsMedia(uint32 dwSubType);

/**
 * JSON of all. Account numbers are strings: they do not fit a JavaScript number. Text that is not UTF-8 is replaced.
 * @param st       what to print
 * @param nIndent  blanks per level, negative: one line
 */
std::string UdtStatsJson(const tagUdtStats& st, int nIndent = 2);
/// The same of one stream.
std::string UdtStreamStatsJson(const tagUdtStreamStats& st, int nIndent = 2);
/// The same of the receiver as a whole.
std::string UdtReceiverStatsJson(const tagUdtReceiverStats& st, int nIndent = 2);

/// OpenMetrics 1.0 text of all, "# EOF" included. Serve it as `c_pszUdtOpenMetricsType`.
std::string UdtStatsOpenMetrics(const tagUdtStats& st);
/// The media type to serve it as.
constexpr const char* c_pszUdtOpenMetricsType = "application/openmetrics-text; version=1.0.0; charset=utf-8";

/// One printed field: for help pages, and for whoever checks that the manual is whole.
struct tagUdtStatsField
{
    const char* pszName;   ///< in the record and in the JSON
    const char* pszMetric; ///< the OpenMetrics family; a counter's samples end in _total
    const char* pszType;   ///< "counter" or "gauge"
    const char* pszUnit;   ///< of the OpenMetrics samples: "seconds", "bytes", "ratio", or "" for a count
    const char* pszHelp;   ///< one sentence
};
/// All printed fields of a stream.
std::vector<tagUdtStatsField> UdtStreamStatsFields();
/// All printed fields of the receiver as a whole.
std::vector<tagUdtStatsField> UdtReceiverStatsFields();

#endif // UDTSTATS_H
