/// @file
/// What crosses the border of the RTP side: datagrams in, media packets and feedback out, options, figures.
///
/// Plain records only. Sequences named `dw...Seq` without `Rtp` are unwrapped to 32 bits; times in `Us` are
/// microseconds of the capture's (or the owner's) own clock.
#ifndef RTP_TYPES_H
#define RTP_TYPES_H

#include <array>
#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "IUDT.h"

/// A transport address. Family 0 means not known (a capture form that has none).
struct tagRtpAddr
{
    uint8 cFamily = 0;             ///< 0, 4 or 6
    std::array<uint8, 16> aAddr{}; ///< network order; IPv4 in the first four bytes
    uint16 wPort = 0;              ///< UDP port

    /// Same family, address and port.
    bool operator==(const tagRtpAddr& stOther) const
    {
        return cFamily == stOther.cFamily && aAddr == stOther.aAddr && wPort == stOther.wPort;
    }
    /// By family, then address, then port.
    bool operator<(const tagRtpAddr& stOther) const;
    std::string Text() const; ///< "10.0.0.1:5004", "[fe80::1]:5004", "-" when not known
};

/// One UDP datagram as it was taken from a capture or a socket. The bytes are borrowed for the call.
struct tagRtpDatagram
{
    uint64 ullArrivalUs = 0;      ///< when it arrived, microseconds since any epoch
    tagRtpAddr stSrc;             ///< where it came from
    tagRtpAddr stDst;             ///< where it went to
    const uint8* pData = nullptr; ///< the UDP payload
    uint32 dwCaptured = 0;        ///< bytes at pData
    uint32 dwWire = 0;            ///< bytes that were on the wire; more than dwCaptured in a cut capture
};

/// How a sender broke its numbering. Names for people: RtpRestartText.
enum emRtpRestart
{
    RTP_RESTART_NONE = 0,  ///< it goes on as it was
    RTP_RESTART_SEQUENCE,  ///< sequences (and mostly timestamps) begin elsewhere
    RTP_RESTART_TIMESTAMP, ///< timestamps leap, sequences go on
    RTP_RESTART_PAYLOAD,   ///< a payload type with another clock
    RTP_RESTART_SSRC       ///< another SSRC of the same source goes on with the stream
};
const char* RtpRestartText(emRtpRestart eRestart); ///< a stable name, e.g. "sequence"

/// One media packet, with all that `CAVGUdtRecv::UDTReceiveNetData` and `UdtParsePacketHeadInfo` want.
///
/// A packet that came by RTX stands here as the original packet: SSRC, payload type, sequence and bytes are
/// those of the original stream (the header rebuilt, the two bytes of original sequence taken out).
struct tagRtpMedia
{
    // For the receiver
    /// The RTP sequence unwrapped; a stream's first packet has 65536 + its sequence. After a restart it goes on with
    /// the next number, so its low 16 bits are the RTP sequence no more: see CRtpIntake::RtpSequence.
    uint32 dwSendSeq = 0;
    uint64 llAccount = 0;        ///< never 0
    uint32 dwSeq = 0;            ///< number on this downlink, 2 or more; packets known lost leave holes
    uint16 wTimeStamp = 0;       ///< low 16 bits of stHead.uTimeStamp
    uint8 cSubType = 0;          ///< 1 audio, 2 video (7, 3 for a user's second and third video)
    tagUdtPacketHeadInfo stHead; ///< the media head, for `UdtParsePacketHeadInfo`
    uint16 wLen = 0;             ///< media payload bytes, as they were on the wire

    // What it was on the wire
    uint32 dwStream = 0;                      ///< index of its stream, for CRtpIntake::Stream
    uint64 ullArrivalUs = 0;                  ///< when it arrived, microseconds since any epoch
    tagRtpAddr stSrc;                         ///< where it came from
    tagRtpAddr stDst;                         ///< where it went to
    uint32 dwSsrc = 0;                        ///< RTP synchronisation source
    uint8 cPt = 0;                            ///< RTP payload type
    uint16 wRtpSeq = 0;                       ///< RTP sequence
    uint32 dwRtpTs = 0;                       ///< RTP timestamp
    bool bMarker = false;                     ///< RTP marker bit
    bool bByRtx = false;                      ///< it came as an RTX answer (RFC 4588)
    bool bDuplicate = false;                  ///< this sequence of the stream was handed out before
    emRtpRestart eRestart = RTP_RESTART_NONE; ///< this packet is the first of a new numbering of its stream
    /// With eRestart: the receiver holds nothing of the stream that is worth playing, so let it begin afresh with
    /// `ClearRecvChn(llAccount, cSubType)` and a turn before this packet is fed.
    bool bClear = false;
    bool bKeyMark = false;     ///< this packet itself carries a key-frame mark
    uint16 wHeadLen = 0;       ///< RTP header bytes (CSRCs and extension included) at the start of vecRtp
    uint32 dwWireLen = 0;      ///< length of the RTP packet on the wire
    std::vector<uint8> vecRtp; ///< the RTP packet as captured (RTX: rebuilt as the original)
};

/// Why a datagram (or a part of one) was not taken. Names for people: RtpDropText.
enum emRtpDrop
{
    RTP_DROP_EMPTY = 0,        ///< no bytes
    RTP_DROP_STUN,             ///< RFC 7983: first byte 0 to 3
    RTP_DROP_DTLS,             ///< RFC 7983: first byte 20 to 63
    RTP_DROP_TURN_CHANNEL,     ///< RFC 7983: first byte 64 to 79
    RTP_DROP_NOT_RTP,          ///< not version 2
    RTP_DROP_RTP_SHORT,        ///< ends inside the RTP header, CSRC list or extension
    RTP_DROP_RTP_CUT,          ///< the capture kept too little of it to read the header
    RTP_DROP_RTP_PADDING,      ///< padding count 0 or longer than the payload
    RTP_DROP_SSRC_UNCONFIRMED, ///< no second packet consistent with it: not a stream
    RTP_DROP_SSRC_TOO_MANY,    ///< more streams than the options allow
    RTP_DROP_RTCP_SHORT,       ///< ends inside an RTCP packet, or its length is wrong
    RTP_DROP_RTCP_VERSION,     ///< a part of a compound RTCP packet is not version 2
    RTP_DROP_RTCP_MALFORMED,   ///< the RTCP parser refuses it
    RTP_DROP_RTX_PADDING,      ///< RTX without a payload: bandwidth probing
    RTP_DROP_RTX_UNKNOWN,      ///< RTX whose original stream is not known
    RTP_DROP_FEC,              ///< FEC in a stream of its own, which is not played
    RTP_DROP_RTP_STRAY,        ///< its sequence belongs to no numbering of its stream
    RTP_DROP_COUNT             ///< number of reasons
};
const char* RtpDropText(emRtpDrop eReason); ///< a stable name, e.g. "rtp-short"

/// What a payload type means.
enum emRtpKind
{
    RTP_KIND_UNKNOWN = 0, ///< not known
    RTP_KIND_AUDIO,       ///< audio
    RTP_KIND_VIDEO,       ///< video
    RTP_KIND_RTX,         ///< retransmissions (RFC 4588)
    RTP_KIND_FEC          ///< forward error correction
};

/// A payload format: from RFC 3551, from the user or guessed.
struct tagRtpFormat
{
    emRtpKind eKind = RTP_KIND_UNKNOWN; ///< audio, video or what repairs them
    std::string strCodec; ///< "H264", "opus", "PCMU"...; "audio" or "video" when only that much is known
    uint32 dwClock = 0;   ///< Hz, 0 not known
    int nApt = -1;        ///< RTX: the payload type it repeats; -1 not known
};

/// Reads "PT=codec/clock" ("96=H264/90000", "111=opus/48000") or "PT=rtx:APT" ("99=rtx:96").
/// @return false with a one-line reason in strError; nothing is changed then.
bool ParseRtpMap(const std::string& strText, std::map<uint8, tagRtpFormat>& mapFormats,
                 std::string& strError);

/// Choices of an intake. The defaults suit a capture that is read twice.
struct tagRtpOptions
{
    bool bLive = false; ///< no look-ahead: an unfinished frame counts one more than seen
    std::map<uint8, tagRtpFormat> mapFormats; ///< by payload type; goes before every guess
    int nTransportSeqId = -1;            ///< RFC 8285 id of the transport-wide sequence; -1: detect, 0: never
    std::map<uint32, uint32> mapRtxSsrc; ///< RTX SSRC to original SSRC, where the user knows it
    uint32 dwLookAheadPackets = 512;     ///< packets that an unfinished frame waits for at most
    uint32 dwLookAheadMs = 1000;         ///< ms that it waits at most
    uint32 dwMaxStreams = 1024;          ///< further streams are dropped
    uint32 dwMaxCandidates = 256;        ///< SSRCs on probation, the oldest is forgotten first
    uint32 dwMaxEvents = 65536;          ///< feedback events kept until taken, the oldest is dropped first
};

/// An RTCP observation, in arrival order.
enum emRtpEvent
{
    RTP_EVENT_SR = 0, ///< sender report
    RTP_EVENT_RR,     ///< a block of a receiver report
    RTP_EVENT_CNAME,  ///< an SSRC's CNAME seen for the first time or changed
    RTP_EVENT_BYE,    ///< a source left
    RTP_EVENT_NACK,   ///< generic NACK
    RTP_EVENT_PLI     ///< picture loss indication
};
/// One observation; which fields hold depends on `eType`.
struct tagRtpEvent
{
    emRtpEvent eType = RTP_EVENT_SR; ///< which of them
    uint64 ullArrivalUs = 0;         ///< when it arrived, microseconds since any epoch
    uint32 dwSenderSsrc = 0;         ///< who sent the report
    uint32 dwMediaSsrc = 0;          ///< RR block, NACK, PLI: whom it is about; else the sender
    int nStream = -1;                ///< index of the media SSRC's stream, -1 when none is known (yet)
    std::vector<uint16> vecRtpSeq;   ///< NACK: the sequences asked for
    std::vector<uint32> vecSendSeq;  ///< NACK: the same, unwrapped like dwSendSeq; empty without a stream
    std::string strCname;            ///< CNAME: the name
    uint64 ullNtp = 0;               ///< SR: NTP time, 32.32
    uint32 dwRtpTs = 0;              ///< SR
    uint32 dwPackets = 0;            ///< SR: sender's packet count
    uint32 dwOctets = 0;             ///< SR
    uint8 cFraction = 0;             ///< RR block: 1/256
    int32 nLost = 0;                 ///< RR block: cumulative, signed
    uint32 dwHighSeq = 0;            ///< RR block
    uint32 dwJitter = 0;             ///< RR block: RTP ticks
    uint32 dwLsr = 0;                ///< RR block: 1/65536 s
    uint32 dwDlsr = 0;               ///< RR block: 1/65536 s
};

/// Figures of one SSRC in the capture, before any receiver. RTX answers never count in the stream they repair.
struct tagRtpStat
{
    uint64 ullPackets = 0;      ///< copies included
    uint64 ullBytes = 0;        ///< of RTP packets, headers included
    uint64 ullFrames = 0;       ///< distinct RTP timestamps
    uint64 ullUnique = 0;       ///< without copies
    uint64 ullExpected = 0;     ///< highest minus lowest sequence plus 1
    uint64 ullLost = 0;         ///< expected minus unique
    uint64 ullLossBursts = 0;   ///< runs of lost packets
    uint64 ullLongestBurst = 0; ///< packets of the longest of them
    uint64 ullDuplicates = 0;   ///< copies
    uint64 ullReordered = 0;    ///< arrived below the highest sequence so far
    uint32 dwReorderDepth = 0;  ///< largest distance below it, packets
    double dJitterMs = 0;       ///< RFC 3550 6.4.1, at the end
    double dJitterMaxMs = 0;    ///< the largest it ever was
    uint64 ullFirstUs = 0;      ///< arrival of the first packet
    uint64 ullLastUs = 0;       ///< arrival of the last packet
    uint64 ullLongestGapUs = 0; ///< between arrivals
    bool bDelays = false;    ///< the quantiles below hold: arrival minus RTP time, relative to the smallest
    uint32 dwDelayP50Ms = 0; ///< median
    uint32 dwDelayP95Ms = 0; ///< 95 of 100 were no later
    uint32 dwDelayP99Ms = 0; ///< 99 of 100 were no later
    uint32 dwDelayMaxMs = 0; ///< the latest
};

/// One stream: who, what, and its figures.
struct tagRtpStreamInfo
{
    uint32 dwSsrc = 0;             ///< RTP synchronisation source, the latest where it changed
    tagRtpAddr stSrc;              ///< of its first packet
    tagRtpAddr stDst;              ///< where it went to
    uint64 llAccount = 0;          ///< 0 for an RTX or FEC stream
    uint8 cSubType = 0;            ///< 0 for an RTX or FEC stream
    std::string strCname;          ///< empty when none was heard
    uint8 cPt = 0;                 ///< RTP payload type
    tagRtpFormat stFormat;         ///< what the payload is
    bool bGuessed = false;         ///< kind, codec or clock is a guess
    bool bPlacedBySr = false;      ///< on its user's timeline by sender reports, else by first arrival
    int nRtxOf = -1;               ///< RTX: index of the stream it repairs
    uint64 ullRtxPackets = 0;      ///< RTX answers for this stream
    uint64 ullRtxRepaired = 0;     ///< of these, packets that the capture did not have before
    uint64 ullNacks = 0;           ///< NACK messages about this stream
    uint64 ullNackedSeqs = 0;      ///< sequences in them
    uint64 ullPlis = 0;            ///< picture loss indications about this stream
    uint64 ullSenderReports = 0;   ///< sender reports of this stream
    uint64 ullReceiverReports = 0; ///< report blocks about this stream
    bool bBye = false;             ///< it said BYE
    int nFollows = -1;     ///< index of the stream that this SSRC goes on with after another one's end
    uint32 dwRestarts = 0; ///< times its numbering began anew
    tagRtpStat stStat;     ///< its figures
};

/// Figures of a whole run.
struct tagRtpTotals
{
    uint64 ullDatagrams = 0;                     ///< all that were pushed
    uint64 ullRtp = 0;                           ///< RTP packets
    uint64 ullRtcp = 0;                          ///< datagrams
    uint64 ullMedia = 0;                         ///< packets handed out
    std::array<uint64, RTP_DROP_COUNT> aDrops{}; ///< datagrams dropped, by `emRtpDrop`
    std::array<uint64, 256> aRtcpTypes{};        ///< RTCP packets by type, every part of a compound
    uint64 ullEventsDropped = 0;                 ///< feedback that nobody took in time
};

#endif // RTP_TYPES_H
