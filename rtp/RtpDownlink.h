/// One numbering of everything that comes down to this receiver.
///
/// Packets come in lanes, each with its own 16-bit count: the transport-wide sequence where a sender puts it on
/// (one lane for all its streams), else each SSRC's RTP sequence. When a lane goes on by n, n numbers are taken: the
/// packet gets the last, each missing packet keeps one, which a late packet uses and a lost one leaves as a hole.
/// So the numbers leave out exactly what is known lost, in every lane at once.
#ifndef RTP_DOWNLINK_H
#define RTP_DOWNLINK_H

#include <algorithm>
#include <vector>

#include "RtpUnwrap.h"

class CRtpDownlink
{
public:
    class CLane
    {
        friend class CRtpDownlink;
        struct tagPlace
        {
            int64_t llSeq = -1;
            uint32 dwNumber = 0;
        };
        CRtpSeqUnwrap m_seq;
        std::vector<tagPlace> m_vecPlaces; // ring of what was given to the lane's last packets
    };

    /// The number of a packet. A repeated packet has the number it had.
    uint32 Number(CLane& lane, uint16 wSeq)
    {
        const bool bFirst = !lane.m_seq.Started();
        const int64_t llHighest = lane.m_seq.Highest();
        const int64_t llSeq = Advance(lane, wSeq);
        CLane::tagPlace& stPlace = lane.m_vecPlaces[(size_t)llSeq % c_nPlaces];
        if (stPlace.llSeq == llSeq)
            return stPlace.dwNumber;
        if (!bFirst && llSeq <= llHighest - (int64_t)c_nPlaces)
            return m_dwNext - 1; // its number is forgotten; the newest counts neither as new nor as lost
        stPlace.llSeq = llSeq;
        stPlace.dwNumber = m_dwNext++;
        return stPlace.dwNumber;
    }

    /// A packet that came but is not handed to the receiver: it must not look lost.
    void Skip(CLane& lane, uint16 wSeq) { Advance(lane, wSeq); }

private:
    static const size_t c_nPlaces = 2048;
    // A jump by more is a sender that started anew, not a loss (RFC 3550 A.1, MAX_DROPOUT).
    static const int64_t c_llMaxGap = 3000;

    // Takes the sequence into its lane; numbers for what is missing before it are taken here.
    int64_t Advance(CLane& lane, uint16 wSeq)
    {
        if (lane.m_vecPlaces.empty())
            lane.m_vecPlaces.resize(c_nPlaces);
        const bool bFirst = !lane.m_seq.Started();
        const int64_t llHighest = lane.m_seq.Highest();
        const int64_t llSeq = lane.m_seq.Take(wSeq);
        if (bFirst || llSeq <= llHighest || llSeq - llHighest > c_llMaxGap)
            return llSeq;
        for (int64_t llMissing = llHighest + 1; llMissing < llSeq; llMissing++)
        {
            CLane::tagPlace& stPlace = lane.m_vecPlaces[(size_t)llMissing % c_nPlaces];
            stPlace.llSeq = llMissing;
            stPlace.dwNumber = m_dwNext++;
        }
        return llSeq;
    }

    uint32 m_dwNext = 2;
};

#endif // RTP_DOWNLINK_H
