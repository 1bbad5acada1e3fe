/// @file
/// What a receiver of RTP sends back: receiver reports, generic NACKs, picture loss indications.
///
/// Plain records in, RTCP datagrams out, by way of libre. Time is what the caller says it is.
#ifndef RTP_FEEDBACK_H
#define RTP_FEEDBACK_H

#include <string>
#include <utility>
#include <vector>

#include "xptypes.h"

/// A block of a receiver report (RFC 3550 6.4.1).
struct tagRtpReportBlock
{
    uint32 dwSsrc = 0;    ///< whom it is about
    uint8 cFraction = 0;  ///< lost since the block before, 1/256
    int32 nLost = 0;      ///< lost so far; copies count against it, so it may be negative
    uint32 dwHighSeq = 0; ///< highest sequence, the wraps above its 16 bits
    uint32 dwJitter = 0;  ///< RTP ticks
    uint32 dwLsr = 0;     ///< middle 32 bits of the last sender report's NTP time; 0: none came
    uint32 dwDlsr = 0;    ///< since then, 1/65536 s
};

/// Follows one SSRC for its report blocks (RFC 3550 A.1, A.3, A.8). RTX answers are packets of their own SSRC.
class CRtpReportSource
{
public:
    /// A packet came. @param dwClock Hz of the RTP timestamp; 0: not known, the jitter stays what it is
    void OnPacket(uint16 wSeq, uint32 dwTs, uint64 ullArrivalUs, uint32 dwClock);
    /// A sender report came. @param ullNtp its NTP time, 32.32
    void OnSenderReport(uint64 ullNtp, uint64 ullArrivalUs);
    /// Did a packet come since the last block?
    bool IsActive() const { return m_ullReceived != m_ullReceivedPrior; }
    /// The block of this moment; the next one's fraction counts from here.
    tagRtpReportBlock Report(uint32 dwSsrc, uint64 ullNowUs);

private:
    bool m_bStarted = false;
    uint32 m_dwBaseSeq = 0;
    uint32 m_dwMaxSeq = 0; // wraps above the low 16 bits
    uint64 m_ullReceived = 0;
    uint64 m_ullReceivedPrior = 0;
    uint64 m_ullExpectedPrior = 0;
    bool m_bTransit = false;
    int64_t m_llTransit = 0; // RTP ticks
    double m_dJitter = 0;
    uint32 m_dwLsr = 0;
    uint64 m_ullSrUs = 0;
};

/// What one round of feedback says. Empty parts are left out.
struct tagRtcpFeedback
{
    uint32 dwSsrc = 0;                                            ///< of this receiver
    std::string strCname;                                         ///< of this receiver; cut to 255 bytes
    std::vector<tagRtpReportBlock> vecBlocks;                     ///< report blocks
    std::vector<std::pair<uint32, std::vector<uint16>>> vecNacks; ///< media SSRC, sequences in any order
    std::vector<uint32> vecPlis;                                  ///< media SSRCs
    bool bReferenceTime = false; ///< ask for the round trip: XR receiver reference time (RFC 3611 4.4)
    uint64 ullNtp = 0;           ///< that time, 32.32
    bool bReducedSize = false;   ///< NACKs and PLIs alone go without report and name (RFC 5506)
    bool bBye = false;           ///< leave
};

/// Datagrams of no more than about `nMost` bytes each, in the order they are to be sent. Unless `bReducedSize` holds
/// and there are neither blocks nor a BYE, each begins with a receiver report and the CNAME (RFC 4585 3.1).
std::vector<std::vector<uint8>> BuildRtcp(const tagRtcpFeedback& stFeedback, size_t nMost = 1200);

/// The answer to a reference time: the DLRR sub-block about `dwSsrc` (RFC 3611 4.5) in a compound RTCP packet.
/// @return false when there is none; any bytes are taken
bool FindDlrr(const uint8* pData, uint32 dwLen, uint32 dwSsrc, uint32& dwLrr, uint32& dwDlrr);

/// Who an RTCP datagram is from: the SSRC that every first part (SR, RR, or feedback of reduced size) begins with.
/// @return false when it is too short; any bytes are taken
bool RtcpSender(const uint8* pData, uint32 dwLen, uint32& dwSsrc);

/// NTP time, 32.32, of microseconds since 1970.
uint64 UnixUsToNtp(uint64 ullUs);
/// Its middle 32 bits, 1/65536 s.
inline uint32 NtpMiddle(uint64 ullNtp) { return (uint32)(ullNtp >> 16); }
/// Microseconds of a span in 1/65536 s.
inline uint64 NtpSpanToUs(uint32 dwSpan) { return (uint64)dwSpan * 1000000 >> 16; }

#endif // RTP_FEEDBACK_H
