// What arrived of a stream, and what did not, interval by interval.
#ifndef AVGPKTFLOWSTATIC_H
#define AVGPKTFLOWSTATIC_H

#include "AVGUDTSeq.h"
#include "AVGUDTSeqMap.h"
#include "xptypes.h"

// Runs of missing sequences: first missing sequence -> number of consecutive missing ones.
typedef CUdtSeqMap<uint32> SeqMap;

// The counts of one closed interval.
struct tagPktStat
{
    tagPktStat() : uLossTimes(0), uTotalPkt(0), uRecvPkt(0) {}

    uint32 uLossTimes; // runs of consecutive missing sequences
    uint32 uTotalPkt;  // sequences that the interval spans
    uint32 uRecvPkt;   // distinct sequences received
};

// Follows the 32-bit sequences of one stream and counts, per interval, what it spans, what came and how many times
// something was missing. An interval begins at the first packet after construction or Reset, and behind the highest
// sequence seen after each UpdateStat.
//
//   UpdateStat                                          UpdateStat
//       |  11   12   .    .   15   14(late)   17            |
//  base = 10      last = 17: spans 7, received 5, missing {13}, {16}: 2 loss times
//
// - A newer sequence (IsNewSeqNum) moves the end; what it leaps over is a run of missing ones.
// - A late one shortens or splits its run. A repeated one, or one from before the interval, counts nothing.
// - A number out of reach both ways (0x8000 or more from the newest, and outside the interval) reads as one from
//   before it and counts nothing. A sender that counts anew is for the stream's owner to notice; it begins a new stream.
// - Memory is bounded whatever arrives: the newest 16384 runs of an interval are kept apart. An older one stays counted
//   but can no longer be filled (loss times stop at 65535 such runs; the span stops at 2^32 - 1).
//
// Not thread-safe: it belongs to whoever owns the stream. In-order packets cost no allocation.
struct tagCPktFlowStat
{
    typedef ::SeqMap SeqMap;

    tagCPktFlowStat();

    // Forgets everything, the closed interval's counts included.
    void Reset();

    // One packet of the stream.
    void RecvData(uint32 seq)
    {
        if (m_bInit && seq == m_uLast + 1 && m_uLast - m_uBase != 0xFFFFFFFF)
        {
            m_uLast = seq;
            ++m_uPktRecv;
            return;
        }
        RecvOutOfOrder(seq);
    }

    // Closes the interval: the getters tell its counts until the next call, and an empty interval begins.
    void UpdateStat();

    uint32 GetLossTimes() const { return m_stat.uLossTimes; }
    uint32 GetTotalPkt() const { return m_stat.uTotalPkt; }
    uint32 GetRecvPkt() const { return m_stat.uRecvPkt; }

    boolean m_bInit; // TRUE once the first packet came

    // Lies where the map's alignment leaves a hole, so the record is no larger for it.
    uint16 m_wRunsFixed; // runs of the open interval that are counted but no longer in the map

    SeqMap m_mapLoss;  // missing runs of the open interval that a late packet can still fill
    uint32 m_uBase;    // the sequence just before the open interval
    uint32 m_uLast;    // highest sequence seen
    uint32 m_uPktRecv; // distinct sequences received in the open interval
    tagPktStat m_stat; // the interval closed last

private:
    void RecvOutOfOrder(uint32 seq);
    void LeapTo(uint32 seq);
    void FillLate(uint32 seq);
    void FixRuns();
    void FixOldestRun();
    void ExtendSpan(uint32 uBy);
};

#endif
