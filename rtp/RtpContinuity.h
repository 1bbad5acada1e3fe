/// One media stream's numbering, and when a sender has begun a new one.
///
/// Sequences and timestamps are unwrapped by numberings. A numbering ends where a packet cannot belong to it and a
/// second one that goes together with the first confirms it (RFC 3550 A.1 asks for two packets in sequence as well).
/// The first waits for the second, so nothing with a wrong number leaves. What follows carries on where the old
/// numbering ended: sequences with the next number, media time by arrival. Behind this class there is no restart.
///
/// What makes a packet one that cannot belong:
/// - its sequence lies further ahead than the sender can have sent meanwhile, or (audio) its timestamp has not
///   advanced as so many packets would have advanced it;
/// - its sequence lies behind, but was there with another timestamp, or its timestamp is newer than all so far, or
///   older than a late packet is;
/// - its timestamp goes back by more than reordered pictures do;
/// - its timestamp leaps ahead, so that it would have arrived earlier than any packet before it could;
/// - its payload type counts timestamps by another clock.
/// Loss, reordering, copies, repeats by RTX, silence, stalls and bursts do none of these.
#ifndef RTP_CONTINUITY_H
#define RTP_CONTINUITY_H

#include <array>
#include <deque>
#include <vector>

#include "RtpTypes.h"
#include "RtpUnwrap.h"

class CRtpContinuity
{
public:
    /// What is looked at of a packet.
    struct tagWire
    {
        int64_t llArrivalUs = 0; ///< on the user's timeline
        uint16 wSeq = 0;
        uint32 dwTs = 0;
        uint8 cPt = 0;
        uint32 dwClock = 0; ///< of its payload type, 0 not known
    };

    /// Where a packet stands.
    struct tagPlace
    {
        int64_t llSeq = 0;     ///< the stream's own count, over all numberings
        int64_t llTicks = 0;   ///< the same of timestamps, since the stream's first packet
        int64_t llMediaUs = 0; ///< on the user's timeline
    };

    enum emVerdict
    {
        TAKE,    ///< it belongs: Take
        HOLD,    ///< it may begin a new numbering: keep it until a later call says what becomes of it
        RESTART, ///< it and the held one do: Restart, then Take both, the held one first
        REFUSE   ///< it left before the numbering's first packet, whose place it cannot have any more
    };
    /// What becomes of a packet that was held, whenever Judge was called.
    enum emHeld
    {
        HELD_KEEP,  ///< nothing yet (or none is held)
        HELD_PLACE, ///< only its timestamp stood alone: TakeAlone, before the one judged
        HELD_DROP   ///< it belongs to nothing
    };

    /// @param llBaseUs place of the first packet on the user's timeline
    void Begin(int64_t llBaseUs, uint32 dwClock, bool bVideo);

    emVerdict Judge(const tagWire& stWire, emHeld& eHeld);

    /// Begins a new numbering with the held packet and the one that confirmed it.
    /// @param llLagUs how much later the user's playout clock stands by its own doing, see RtpIntake.cpp
    emRtpRestart Restart(const tagWire& stWire, int64_t llLagUs);
    /// The same where somebody else knows that a packet begins a new numbering (a new SSRC).
    void RestartAt(const tagWire& stWire, int64_t llLagUs);

    /// Of a packet of a source that another one has replaced: does it belong to the numbering before? Then Take.
    bool IsLate(const tagWire& stWire);

    /// Numbers a packet that was judged.
    tagPlace Take(const tagWire& stWire);
    /// A packet whose timestamp nobody confirmed plays with what came before it.
    tagPlace TakeAlone(const tagWire& stWire);
    /// A packet that was sent again. @return false: it belongs to no numbering that is remembered
    bool TakeRepeated(const tagWire& stWire, tagPlace& stPlace);

    /// Of a held packet, when nothing comes any more: TakeAlone, or does it belong to nothing?
    bool HeldFitsSequence() const { return m_bHeld && !m_bHeldSequence; }

    /// Where an RTP sequence that somebody speaks of stands, without taking it.
    int64_t PeekSeq(uint16 wSeq) const;
    /// The RTP sequence of a number of this stream's own count, and how many restarts lay before it.
    uint16 RtpSeq(int64_t llSeq, uint32& dwRestart) const;

    bool Started() const { return m_now.seq.Started(); }
    int64_t Highest() const { return m_now.seq.Highest() + m_now.llSeqAdd; }
    int64_t LastArrivalUs() const { return m_now.llLastUs; }
    uint32 Restarts() const { return m_dwRestarts; }

private:
    static constexpr size_t c_nRecent = 512;
    static constexpr size_t c_nTransits = 15;

    struct tagNumbering
    {
        CRtpSeqUnwrap seq;
        CRtpTsUnwrap ts;
        int64_t llSeqAdd = 0;   // to what seq gives
        int64_t llTicksAdd = 0; // to what ts gives
        int64_t llBaseUs = 0;   // media time of the first packet
        uint32 dwClock = 0;
        int64_t llFirst = 0;   // sequence by seq, of the first packet
        int64_t llLowest = 0;  // below it nothing belongs
        int64_t llMaxTs = 0;   // newest timestamp
        int64_t llLastTs = 0;  // that of the highest sequence
        int64_t llFirstUs = 0; // arrivals of the first packet and of the highest sequence
        int64_t llLastUs = 0;
        uint64 ullTaken = 0;
        int64_t llMinStep = 0; // smallest step of timestamps from a packet to the next

        // Transit is arrival less media time; the least of this span of time and the one before
        int64_t llSpanUs = 0;
        uint32 dwSpan = 0;
        int64_t llMinTransit[2] = {0, 0};
        std::array<int64_t, c_nTransits> aTransits{}; // of the last packets in order
        size_t nTransits = 0;

        int64_t MediaUs(int64_t llTs) const;
        int64_t MinTransit() const;
    };
    struct tagRecent
    {
        int64_t llSeq = -1;
        uint32 dwTs = 0;
    };
    struct tagAge
    {
        int64_t llFirst; // of the stream's own count
        int64_t llAdd;   // own count less (unwrapped) RTP sequence
        uint32 dwRestart;
    };

    int64_t MostSent(int64_t llUs) const;
    bool FitsSequence(const tagWire& stWire, int64_t llAhead) const;
    bool FitsTime(const tagWire& stWire, int64_t llAhead) const;
    bool FitsBehind(const tagNumbering& st, const tagWire& stWire) const;
    tagNumbering* FindBefore(const tagWire& stWire);
    bool FitsTimeBefore(const tagNumbering& st, const tagWire& stWire) const;
    bool FitsBeforeFirst(const tagNumbering& st, const tagWire& stWire) const;
    bool IsOvertaken(const tagWire& stWire) const;
    bool IsOlder(const tagWire& stWire, int64_t llSeq) const;
    bool GoTogether(const tagWire& stHeld, const tagWire& stWire) const;
    bool RunsOn(const tagWire& stWire, int64_t llAhead);
    int64_t UsOf(int64_t llTicks) const;
    tagPlace PlaceIn(tagNumbering& st, const tagWire& stWire);
    void Learn(const tagWire& stWire, int64_t llAhead, int64_t llTs);
    void BeginNumbering(const tagWire& stWire, int64_t llLagUs, bool bSequence, int64_t llSpare);
    int64_t MedianTransit() const;

    bool m_bVideo = false;
    uint32 m_dwClock = 0; // of the first numbering, in which ticks are counted
    tagNumbering m_now;
    std::deque<tagNumbering> m_dequeBefore; // the latest first
    tagNumbering* m_pBefore = nullptr;      // the packet judged last belongs there
    bool m_bHeld = false;
    bool m_bHeldSequence = false; // its sequence did not fit, not only its time
    emRtpRestart m_eHeld = RTP_RESTART_NONE;
    uint32 m_dwSinceHeld = 0;
    tagWire m_stHeld;
    std::vector<tagRecent> m_vecRecent; // timestamps of the latest sequences
    uint32 m_dwRestarts = 0;
    std::deque<tagAge> m_dequeAges;
    int64_t m_llFirstBaseUs = 0;
    int64_t m_llMaxMediaUs = 0;

    // Most sequences that went by in a second
    int64_t m_llRateUs = 0;
    int64_t m_llRateSeq = 0;
    int64_t m_llPeak = 0;

    // A sender that begins anew a little behind, with timestamps that would suit a late packet
    uint32 m_dwRun = 0;
    uint16 m_wRunSeq = 0;
    uint32 m_dwRunTs = 0;
    int64_t m_llRunUs = 0;
    int64_t m_llRunTransit = 0;
};

#endif // RTP_CONTINUITY_H
