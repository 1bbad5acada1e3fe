// The books of one stream: what was sent, and what became of each packet.
#ifndef LAB_SIMSTREAM_H
#define LAB_SIMSTREAM_H

#include "Histogram.h"
#include "SimNet.h"
#include "xptypes.h"

#include <array>
#include <vector>

namespace lab
{

enum emSimMark : uint16
{
    SIM_MARK_SENT = 1,         // the record is in use
    SIM_MARK_AT_RELAY = 2,     // the relay has it
    SIM_MARK_FORWARDED = 4,    // the relay sent it on, unasked
    SIM_MARK_CAME = 8,         // it reached the receiver unasked
    SIM_MARK_ANSWER_CAME = 16, // it reached the receiver as an answer
    SIM_MARK_IN_TIME = 32,     // playout had not reached it when it first came
    SIM_MARK_RELEASED = 64,
    SIM_MARK_LOST_UP = 128,   // on its first way
    SIM_MARK_LOST_DOWN = 256, // likewise
    SIM_MARK_QUEUE = 512,     // by a full queue
    SIM_MARK_OUTAGE = 1024    // in an outage
};

struct tagSimRecord
{
    int64 llSentUs = 0;
    int64 llAtRelayUs = 0;
    uint32 uIndex = 0;
    uint32 dwMediaMs = 0;
    uint32 dwAskedMs = 0; // run time of the first request
    uint16 wBytes = 0;
    uint16 wAsks = 0;
    uint16 wMarks = 0;
    uint8 cFrmType = 0;
    uint8 cPkgIndex = 0;
    uint8 cPkgNum = 0;
    uint8 cFecNum = 0;
    uint8 cFrmIdx = 0;
    uint8 cGopIdx = 0;
};

// What became of a stream's packets. "Lost" is about the way to the receiver without any request.
//   sent = received + lost,  lost = recovered in time + recovered late + unrecovered
struct tagSimStreamCounts
{
    uint64 ullSent = 0; // distinct packets, from the first one meant for the receiver on
    uint64 ullBytes = 0;
    uint64 ullReceived = 0; // came without being asked for
    uint64 ullLost = 0;
    uint64 ullLostUp = 0;     // of the lost: between sender and relay
    uint64 ullLostDown = 0;   // of the lost: between relay and receiver
    uint64 ullLostQueue = 0;  // of the lost: a queue was full
    uint64 ullLostOutage = 0; // of the lost: in an outage
    uint64 ullAsked = 0;      // lost packets asked for
    uint64 ullAskedSeqs = 0;  // entries in requests, repeats included
    uint64 ullAskedLostSeqs = 0;
    uint64 ullWastedSeqs = 0;      // entries for packets that came anyway
    uint64 ullWasted = 0;          // packets asked for that came anyway
    uint64 ullUnknownSeqs = 0;     // entries for what was never sent or is long gone
    uint64 ullAnswers = 0;         // answers that the relay sent
    uint64 ullAnswered = 0;        // lost packets whose answer arrived
    uint64 ullNeedlessAnswers = 0; // answers that arrived when the packet was there already
    uint64 ullCopies = 0;          // copies made by the network that arrived
    uint64 ullInTime = 0;          // recovered: released, and there before playout reached them
    uint64 ullRecoveredLate = 0;   // recovered: released after their time
    uint64 ullUnrecovered = 0;
    uint64 ullNeverAsked = 0;   // of the unrecovered
    uint64 ullNeverAtStart = 0; // of these, in the stream's first seconds

    uint64 ullReleased = 0;
    uint64 ullOutOfOrder = 0; // released behind a later one
    uint64 ullGaps = 0;       // jumps over missing packets at release
    uint64 ullGapPackets = 0; // missing in them
    uint64 ullLongestGap = 0; // packets
    uint64 ullStalls = 0;     // releases that came more than 200 ms late after the one before
    uint32 dwLongestStallMs = 0;
    uint32 dwLongestStallAtMs = 0; // run time at which it ended
    uint32 dwFirstOutMs = 0;       // run time
    uint32 dwLastOutMs = 0;
    CMsHistogram delay;   // first arrival to release
    CMsHistogram latency; // sent to release
    CMsHistogram repair;  // first request to arrival

    void Add(const tagSimStreamCounts& st); // of another stream; the quantiles stay
};

class CSimStream
{
public:
    CSimStream(uint32 uNumber, uint32 uUser, int nKind, uint32 uEpoch, const tagSimFirst& stFirst,
               size_t nCapacity, int64 llCountFromUs);

    const uint32 m_uNumber;
    const uint32 m_uUser;
    const int m_nKind;     // emSimStream
    const uint32 m_uEpoch; // 0, then one more each time the sender began anew
    const tagSimFirst m_stFirst;
    const int64 m_llCountFromUs;

    // ---- For the sender ----
    tagSimRecord& Append(); // the next packet; what had its place before is closed
    void BeginGop() { m_aGops[m_uGops++ % m_aGops.size()] = m_uNext; }

    // ---- For everybody ----
    uint32 Seq(uint32 uIndex) const { return m_stFirst.dwSeq + uIndex; }
    uint32 Index(uint32 dwSeq) const { return dwSeq - m_stFirst.dwSeq; }
    uint32 Next() const { return m_uNext; }
    uint32 Gops() const { return m_uGops; }
    // Index of the first packet of a GOP, counted back from the latest (0).
    uint32 GopBegin(uint32 uBack) const { return m_aGops[(m_uGops - 1 - uBack) % m_aGops.size()]; }
    static constexpr uint32 c_uGopsKept = 64;
    // Null when it was never sent or its place was taken since.
    tagSimRecord* Find(uint32 uIndex);

    // From this packet on it is meant for the receiver.
    void Begin(uint32 uIndex)
    {
        if (!m_bBegun)
            m_uBegin = uIndex;
        m_bBegun = true;
    }
    bool Begun() const { return m_bBegun; }

    void Released(const tagSimRecord* pRecord, uint32 uIndex, uint32 dwMediaMs, uint32 dwNowMs,
                  uint32 dwDelayMs);
    void CloseAll(); // at the end of the run

    tagSimStreamCounts m_st;

private:
    void Close(tagSimRecord& st);

    std::vector<tagSimRecord> m_vecRing;
    uint32 m_uNext = 0;
    std::array<uint32, c_uGopsKept> m_aGops{};
    uint32 m_uGops = 0;
    uint32 m_uBegin = 0;
    int64 m_llBeginUs = -1; // when the first packet meant for the receiver was sent
    bool m_bBegun = false;
    bool m_bOut = false;
    uint32 m_uLastOut = 0;
    uint32 m_dwLastMediaMs = 0;
    uint32 m_dwLastOutMs = 0;
};

} // namespace lab

#endif
