// The book of one stream's sequences: what was missing when, whether it came back, and whether in time.
#ifndef LAB_SERIESSTREAM_H
#define LAB_SERIESSTREAM_H

#include "xptypes.h"

#include <array>
#include <memory>
#include <optional>

namespace lab
{

// What is kept over time. The first group is of a stream, the second of a user, the last of the run.
enum emSeries
{
    SERIES_ARRIVAL_DELAY,
    SERIES_PLAYOUT_DELAY,
    SERIES_BUFFER_MS,
    SERIES_BUFFER_PACKETS,
    SERIES_PACKETS_IN,
    SERIES_PACKETS_OUT,
    SERIES_BYTES_IN,
    SERIES_BYTES_OUT,
    SERIES_LOST,
    SERIES_UNREPAIRED,
    SERIES_REQUESTED,
    SERIES_ANSWERED,
    SERIES_REQUESTS_FAILED,
    SERIES_REQUESTS_WASTED,
    SERIES_GAPS,
    SERIES_STALL_MS,
    SERIES_OF_STREAM, // their number

    SERIES_BAND_MIN = SERIES_OF_STREAM,
    SERIES_BAND_MAX,
    SERIES_TARGET,
    SERIES_CLOCK_SPEED,
    SERIES_AV_OFFSET,
    SERIES_LATENCY,
    SERIES_END_OF_USER,

    SERIES_DOWNLINK_LOSS = SERIES_END_OF_USER,
    SERIES_LIVE_STREAMS,
    SERIES_END_OF_RUN
};
constexpr size_t c_nSeriesOfUser = SERIES_END_OF_USER - SERIES_OF_STREAM;
constexpr size_t c_nSeriesOfRun = SERIES_END_OF_RUN - SERIES_END_OF_USER;

// Times at which nothing was played.
struct tagSeriesStills
{
    uint64 ullCount = 0;
    uint64 ullMs = 0;
    uint64 ullLongestMs = 0;
    uint64 ullLongestAt = 0; // run time at which it began
};

// Of a whole run. Packets unless said.
struct tagSeriesTotals
{
    uint64 ullIn = 0;
    uint64 ullOut = 0;
    uint64 ullBytesIn = 0;
    uint64 ullBytesOut = 0;
    uint64 ullDuplicates = 0;
    uint64 ullExpected = 0; // distinct sequences that came plus those that are missing
    // Missing when a higher one came, and not merely overtaken: lost = repaired in time + late + unrepaired, but
    // for those that are still open while the run goes on.
    uint64 ullLost = 0;
    uint64 ullInTime = 0;     // played at their place
    uint64 ullLate = 0;       // played behind it
    uint64 ullUnrepaired = 0; // never played
    uint64 ullRequested = 0;  // sequences, each time they were asked for
    uint64 ullRequestedOnce = 0;
    uint64 ullAnswered = 0; // distinct sequences that came first after they were asked for
    uint64 ullFailed = 0;   // asked for and given up
    uint64 ullWasted = 0;   // requests for what came by itself
    bool bWastedKnown = false;
    uint64 ullGaps = 0; // missing before released packets
    // Nothing was played for longer than c_dwSeriesStall, and the packet that ended it
    tagSeriesStills stStalls;          // came late for its time
    tagSeriesStills stHoles;           // is the first behind some that never came
    uint64 ullPlayoutMs = 0;           // sum over releases
    uint32 dwPlayoutLow = 0;           // over releases
    uint32 dwPlayoutHigh = 0;          // over releases
    std::optional<uint64> ullFirstIn;  // run time, ms
    std::optional<uint64> ullFirstOut; // run time, ms
};

// Playout that stands still for longer than this, ms, is told; less is filled by any decoder.
constexpr uint32 c_dwSeriesStall = 200;

// Where a stream's figures go.
class ISeriesSink
{
public:
    virtual void Count(emSeries eSeries, uint64 ullMs, int64 n) = 0;
    virtual void Value(emSeries eSeries, uint64 ullMs, int32 nValue) = 0;
    // Nothing was played: "stall" or "hole".
    virtual void Still(const char* pszKind, uint64 ullFromMs, uint64 ullMs) = 0;

protected:
    ~ISeriesSink() = default;
};

// Times are ms of run time. A loss is counted at the time at which it was noticed, also when what became of it is known
// later only. The latest c_dwSpan sequences are remembered.
class CSeriesStream
{
public:
    static constexpr uint32 c_dwSpan = 8192;

    struct tagCame
    {
        uint32 dwSeq = 0;
        uint32 dwMediaMs = 0;
        uint32 dwBytes = 0;
        std::optional<bool> bRetransmitted; // told by whoever handed it in
    };
    struct tagLeft
    {
        uint32 dwSeq = 0;
        uint32 dwMediaMs = 0;
        uint32 dwBytes = 0;
        uint32 dwDelayMs = 0; // since it came
        uint32 dwGap = 0;     // missing before it
    };

    // @return true when the sender began to number anew
    bool Came(const tagCame& stCame, uint64 ullMs, ISeriesSink& sink);
    void Released(const tagLeft& stLeft, uint64 ullMs, ISeriesSink& sink);
    void Asked(uint32 dwSeq, uint64 ullMs, ISeriesSink& sink);
    void Failed(uint32 uCount, uint64 ullMs, ISeriesSink& sink);
    // What is still open at the end was never played.
    void Finish(ISeriesSink& sink);

    const tagSeriesTotals& Totals() const { return m_st; }
    // Packets that came and whose place is still ahead of playout.
    uint32 Ahead() const { return m_uAhead; }
    // Newest media time that came.
    uint32 NewestMediaMs() const { return m_dwNewestMediaMs; }
    bool HasCome() const { return m_bAny; }

private:
    enum emMark : uint8
    {
        MARK_CAME = 1,
        MARK_ORIGINAL = 2, // not, or not only, as an answer
        MARK_ASKED = 4,
        MARK_OUT = 8,
        MARK_LOST = 16,       // counted as lost, at dwNoticedMs
        MARK_UNREPAIRED = 32, // of these, counted as never played
        MARK_IN_TIME = 64,    // of these, counted as played at its place
        MARK_LATE = 128       // of these, counted as played behind it
    };
    struct tagPlace
    {
        uint32 dwNoticedMs = 0;
        uint16 wAsks = 0;
        uint8 cMarks = 0;
    };
    typedef std::array<tagPlace, c_dwSpan> Ring;

    tagPlace& At(uint32 dwSeq) { return (*m_pRing)[dwSeq % c_dwSpan]; }
    bool IsRemembered(uint32 dwSeq) const { return m_bAny && m_dwTop - dwSeq < m_dwKnown; }
    void Restart(uint32 dwSeq, ISeriesSink& sink);
    void MoveUp(uint32 dwSeq, uint64 ullMs, ISeriesSink& sink);
    void MoveDown(uint32 dwSeq, uint64 ullMs, ISeriesSink& sink);
    void Open(tagPlace& st, uint64 ullMs, ISeriesSink& sink);
    void NotLost(tagPlace& st, uint64 ullMs, ISeriesSink& sink);
    void Close(tagPlace& st, uint64 ullMs, ISeriesSink& sink);
    void PassTo(uint32 dwSeq, uint64 ullMs, ISeriesSink& sink);
    void CountStillness(const tagLeft& stLeft, uint64 ullMs, ISeriesSink& sink);
    static void Note(tagSeriesStills& st, const char* pszKind, uint64 ullEndMs, uint64 ullMs,
                     ISeriesSink& sink);
    static uint64 NoticedMs(const tagPlace& st, uint64 ullNowMs)
    {
        return ullNowMs - (uint32)((uint32)ullNowMs - st.dwNoticedMs);
    }

    tagSeriesTotals m_st;
    std::unique_ptr<Ring> m_pRing; // made with the first packet
    uint32 m_dwTop = 0;            // highest sequence that came
    uint32 m_dwKnown = 0;          // places below and at it that are in use
    uint64 m_ullNowMs = 0;
    bool m_bAny = false;
    bool m_bStray = false; // the last packet was from far away
    uint32 m_dwNextStray = 0;
    bool m_bToldByRtx = false; // answers to this stream are known as such
    bool m_bOut = false;
    uint32 m_dwHighestOut = 0;
    uint32 m_uAhead = 0;
    uint32 m_dwNewestMediaMs = 0;
    bool m_bPace = false; // m_dwLastMediaMs and m_ullLastOutMs are of the last release in order
    uint32 m_dwLastMediaMs = 0;
    uint64 m_ullLastOutMs = 0;
    double m_dStepMs = 0; // media of a packet, on average
};

} // namespace lab

#endif
