/// @file
/// From RTP and RTCP datagrams to what the receiver takes.
///
/// A capture is read twice: the first reading learns (CNAMEs, payload formats, sender reports, RTX pairs, which
/// SSRCs are streams at all), the second makes packets.
///
///     CRtpIntake intake(stOptions);
///     while (reader.Next(stDatagram))
///         intake.Scan(stDatagram);
///     intake.EndScan();
///     reader.Rewind();
///     while (reader.Next(stDatagram))
///     {
///         intake.Push(stDatagram);
///         while (intake.Pop(stMedia))
///             Feed(stMedia);
///     }
///     intake.Flush();
///     while (intake.Pop(stMedia))
///         Feed(stMedia);
///
/// A live owner sets tagRtpOptions::bLive and leaves the scan out. What is not known then falls back:
/// - The SSRC is the account until a CNAME is heard.
/// - A stream begins with its second packet; with its tenth when only the pattern of its packets can tell what it
///   carries. None is lost: the first ones come out together then, with their own arrival times.
/// - Streams are placed on their user's timeline by arrival.
/// A stream keeps what it began with: a CNAME or a sender report that comes later counts for streams that begin later
/// and never moves a running one.
///
/// A sender that begins its numbering anew (sequence, timestamp, SSRC, a payload type with another clock) goes on
/// as the same stream with the next number and media time by arrival; tagRtpMedia::eRestart marks the packet, and
/// bClear asks for the receiver's stream to be cleared before it. Its first packet waits for its second.
///
/// Memory is bounded by the number of streams, never by the length of the input. No call throws but std::bad_alloc
/// (nothing else is thrown on any bytes). One thread at a time.
#ifndef RTP_INTAKE_H
#define RTP_INTAKE_H

#include <memory>
#include <string>
#include <vector>

#include "RtpTypes.h"

class CRtpIntakeImpl;

/// RTP and RTCP datagrams in, packets for the receiver and observations out. How: see the head of this file.
class CRtpIntake
{
public:
    /// The options are copied.
    explicit CRtpIntake(const tagRtpOptions& stOptions = tagRtpOptions());
    ~CRtpIntake();
    CRtpIntake(const CRtpIntake&) = delete;
    CRtpIntake& operator=(const CRtpIntake&) = delete;

    /// Learning only: no packet, no event, no figure comes of it. Before the first Push.
    void Scan(const tagRtpDatagram& stDatagram);
    /// Decides what was learned. Several captures of one call may be scanned one after the other before it.
    void EndScan();

    /// Takes one datagram, in arrival order.
    void Push(const tagRtpDatagram& stDatagram);
    /// The next media packet, in arrival order but for one that waited (a stream's beginning, a restart). Live: at once; else when its frame is known or the look-ahead full.
    /// @return false when there is none yet
    bool Pop(tagRtpMedia& stMedia);
    /// Live: lets packets go that were held a few ms for their frame's type. Call it when the socket is idle.
    void Advance(uint64 ullNowUs);
    /// The input has ended: everything held becomes poppable.
    void Flush();

    /// The next RTCP observation (reports, CNAMEs, NACKs, PLIs, BYEs), in arrival order.
    bool PopEvent(tagRtpEvent& stEvent);

    /// Streams are numbered from 0 in order of their first packet; a number stays for the intake's life.
    uint32 StreamCount() const;
    /// Who a stream is, what it carries, and its figures so far.
    tagRtpStreamInfo Stream(uint32 dwStream) const;
    /// What a sender has to be asked for (NACK): SSRC and RTP sequence of one of a stream's dwSendSeq.
    /// @return false: no such media stream
    bool RtpSequence(uint32 dwStream, uint32 dwSendSeq, uint32& dwSsrc, uint16& wSeq) const;
    /// Figures of the run so far.
    const tagRtpTotals& Totals() const;

    /// One line for each thing that was guessed or detected, for people:
    /// "SSRC f24b7ac6 PT 96: guessed H264/90000 (timestamp slope 89.9 kHz, H.264 payload in 2407 of 2407 packets)".
    std::vector<std::string> Guesses() const;

private:
    std::unique_ptr<CRtpIntakeImpl> m_pImpl;
};

/// The account of a CNAME: 64-bit FNV-1a of its bytes, 1 where that would be 0.
uint64 RtpAccountOfCname(const std::string& strCname);

#endif // RTP_INTAKE_H
