/// @file
/// Between the receiver's loss requests and the NACKs that go out.
///
/// The receiver asks as its own rules say: at once, again a scan later, then at intervals. A sender, or the path to
/// it, may want less. Each knob here takes away a kind of request; with all of them off, as they are by default,
/// everything asked for goes out at once and in the order it was asked.
///
///     CRtpShaper shaper(stOptions);
///     shaper.Ask(dwSsrc, dwSendSeq, ullNowUs);       // for every missing packet, as often as it is asked for
///     shaper.Arrived(dwSsrc, dwSendSeq);             // for every packet that came
///     shaper.Take(ullNowUs, vecNacks, vecPlis);      // what is to be sent now
///     shaper.NextUs(ullWhenUs);                      // when there will be something again
///
/// What a knob takes away is not kept for later, as the receiver asks again by itself; only what is over the rate
/// and what is held off waits here. Time is what the caller says it is. One thread at a time.
#ifndef RTP_SHAPER_H
#define RTP_SHAPER_H

#include <deque>
#include <map>
#include <utility>
#include <vector>

#include "xptypes.h"

/// The knobs. 0 and false: off.
struct tagRtpShaperOptions
{
    uint32 dwReorderHoldMs =
        0;                    ///< a packet missing is asked for this much later: it may only be out of order
    bool bOncePerRtt = false; ///< a packet is not asked for again before an answer could have come
    uint32 dwMaxSeqsPerSecond = 0; ///< sequences asked for in any second, over all streams
    uint32 dwMaxTries = 0;         ///< requests for one packet
    bool bGiveUpPli = false;       ///< a packet that used up its tries and is asked for still: send a PLI
};

/// What became of the requests.
struct tagRtpShaperTotals
{
    uint64 ullAsked = 0;       ///< sequences the receiver asked for, every time
    uint64 ullSent = 0;        ///< sequences that went out, every time
    uint64 ullSpared = 0;      ///< came, or were asked for again, while they were held off
    uint64 ullTooSoon = 0;     ///< left out: asked for less than a round trip ago
    uint64 ullTriesUsedUp = 0; ///< left out: asked for as often as allowed
    uint64 ullDelayed = 0;     ///< over the rate, so they went later
    uint64 ullTooLate = 0;     ///< over the rate for so long that they never went
    uint64 ullGaveUp = 0;      ///< packets given up, of which a PLI was due
};

/// One sequence to ask for.
struct tagRtpAsk
{
    uint32 dwSsrc = 0; ///< of the stream that misses it
    uint32 dwSeq = 0;  ///< unwrapped, its low 16 bits are the RTP sequence

    /// By stream, then sequence.
    bool operator<(const tagRtpAsk& stOther) const
    {
        return dwSsrc != stOther.dwSsrc ? dwSsrc < stOther.dwSsrc : dwSeq < stOther.dwSeq;
    }
    /// Same stream and sequence.
    bool operator==(const tagRtpAsk& stOther) const
    {
        return dwSsrc == stOther.dwSsrc && dwSeq == stOther.dwSeq;
    }
};

/// See the head of this file.
class CRtpShaper
{
public:
    /// The options are copied.
    explicit CRtpShaper(const tagRtpShaperOptions& stOptions = tagRtpShaperOptions());

    /// The round trip as last measured; 0: not known, then `bOncePerRtt` leaves nothing out.
    void SetRtt(uint32 dwMs) { m_ullRttUs = dwMs * 1000ull; }

    /// The receiver asks for a packet.
    void Ask(uint32 dwSsrc, uint32 dwSeq, uint64 ullNowUs);
    /// A packet came: it is not asked for any more.
    void Arrived(uint32 dwSsrc, uint32 dwSeq);
    /// What is to be sent now: sequences in the order they were asked for, and SSRCs to send a PLI to (each once).
    void Take(uint64 ullNowUs, std::vector<tagRtpAsk>& vecNacks, std::vector<uint32>& vecPlis);
    /// When Take will have something, if nothing else happens. @return false: never
    bool NextUs(uint64& ullWhenUs) const;

    /// Figures so far.
    const tagRtpShaperTotals& Totals() const { return m_stTotals; }

private:
    struct tagMissing
    {
        uint32 dwTries = 0;
        uint64 ullFirstUs = 0; // asked for, by the receiver
        uint64 ullLastUs = 0;  // asked for, by the receiver or by us
        uint64 ullSentUs = 0;
        bool bWaiting = false; // in m_dequeWaiting
        bool bGivenUp = false;
    };
    struct tagWaiting
    {
        tagRtpAsk stAsk;
        uint64 ullDueUs;
        uint64 ullAskedUs;
    };

    void Forget(uint64 ullNowUs);
    bool RateAllows(uint64 ullNowUs);

    const tagRtpShaperOptions m_stOptions;
    uint64 m_ullRttUs = 0;
    std::map<tagRtpAsk, tagMissing> m_mapMissing;
    std::deque<tagWaiting>
        m_dequeWaiting;             // in the order of their due times: the hold-off is the same for all
    std::deque<uint64> m_dequeSent; // when, of the last second; kept with a rate only
    std::vector<uint32> m_vecPlis;
    uint64 m_ullForgotUs = 0;
    tagRtpShaperTotals m_stTotals;
};

#endif // RTP_SHAPER_H
