// What a run looked like over time: fed while it goes, asked for a report at any moment.
//
//   owner --PacketIn--> | --PacketOut, Requested, LogLine--> owner        Sample: the receiver's getters, every 100 ms
//
// A call to each belongs right beside the receiver's own: PacketIn before `UDTReceiveNetData`, PacketOut inside
// `OnUDTRecvOutData`, Requested inside `UdtRecvHandleEvent`, LogLine inside the log's sink. Any thread; one lock, held for
// the counting of one fact and while a report is made, never while the receiver is called. Memory is bounded, however
// long the run: see CBinTable.
#ifndef LAB_RUNSERIES_H
#define LAB_RUNSERIES_H

#include "AVGUDTRecv.h"
#include "BinTable.h"
#include "SeriesStream.h"
#include "UDTLog.h"

#include <nlohmann/json.hpp>

#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace lab
{

struct tagSeriesOptions
{
    uint32 uBinMs = 100;    // the finest bins
    uint32 uMaxBins = 2000; // of a whole run
    uint64 ullWindowMs = 0; // also keep the last so many ms in fine bins, for Json(dwLastMs); 0: no
    uint32 uClockSpanMs =
        50; // least span over which the clock's speed is measured; more where samples come unevenly
    uint32 uMaxStreams = 512; // what belongs to a stream beyond them is left out
};

// What a report says about the run as a whole.
struct tagSeriesRun
{
    std::string strKind; // "replay", "simulate", "listen"
    std::string strTitle;
    std::optional<uint64> ullStartUnixMs; // the time of day of run time 0
    std::vector<std::pair<std::string, std::string>> vecOptions;
};

// A packet that is handed to the receiver.
struct tagSeriesPacket
{
    uint64 ullAccount = 0;
    uint8 cSubType = 0;
    uint32 dwSeq = 0;     // the sender's own
    uint32 dwMediaMs = 0; // of its media head
    uint32 dwBytes = 0;
    std::optional<bool> bRetransmitted; // it is, or is not, sent again on a request; nothing: nobody knows
};

class CRunSeries
{
public:
    explicit CRunSeries(const tagSeriesOptions& stOptions = tagSeriesOptions());
    ~CRunSeries();
    CRunSeries(const CRunSeries&) = delete;
    CRunSeries& operator=(const CRunSeries&) = delete;

    // Run time 0 is this tick; without it, that of the first packet.
    void Begin(uint64 ullTick);
    void SetRun(const tagSeriesRun& stRun);
    void NameUser(uint64 ullAccount, const std::string& strName);

    void PacketIn(const tagSeriesPacket& stPacket, uint64 ullTick);
    // stReleasing: the receiver's own record, `GetReleasing`. nPlayDelayMs: what the owner answers to this release.
    void PacketOut(const tagDataPacket& stReleasing, int nPlayDelayMs, uint64 ullTick);
    void Requested(const tagReplyData* pReply, uint32 uCount, uint64 ullTick);
    void LogLine(UDT_LOG_LEVEL eLevel, const char* pszFunc, const char* pszText, uint64 ullTick);
    // The owner polled GetDownPacketRecvInfo, and the receiver's rate is this one now, 1/10000.
    void Downlink(uint32 dwLossRate, uint64 ullTick);
    // Something that only the owner knows. ullAccount 0: of the run.
    void Event(const char* pszKind, uint64 ullAccount, const std::string& strText, uint64 ullTick,
               std::optional<uint64> ullMs = {});

    // Is it time to look at the receiver again?
    bool SampleDue(uint64 ullTick);
    // Asks the receiver where it stands. bMakesTurns: this is the thread that makes the turns (the owner's own, or the
    // worker inside a callback), which may also look where the transit band lies; others learn its width only.
    void Sample(CAVGUdtRecv& recv, uint64 ullTick, bool bMakesTurns);

    // The run is over: what is missing now stays missing.
    void Finish();

    // The report, but for its tables. dwLastMs 0: all of it; else the last so many ms, in fine bins as far as they are kept.
    nlohmann::ordered_json Json(uint32 dwLastMs = 0);
    // Of one stream.
    tagSeriesTotals Totals(uint64 ullAccount, uint8 cSubType);
    // What its memory grows with.
    size_t Cells();

private:
    struct tagUser;
    struct tagStream;
    struct tagEvent
    {
        uint64 ullMs = 0;
        std::string strOf;
        const char* pszKind = "";
        std::optional<uint64> ullSpanMs;
        std::string strText;
    };
    class CSink;
    typedef std::pair<uint64, uint8> Key;

    uint64 RunMs(uint64 ullTick);
    tagUser& User(uint64 ullAccount);
    tagStream* Stream(uint64 ullAccount, uint8 cSubType); // null: one too many
    tagStream* KnownStream(uint64 ullAccount, uint8 cSubType);
    size_t AddColumns(size_t n);
    void FitBins();
    void Count(size_t nColumn, uint64 ullMs, int64 n);
    void Value(size_t nColumn, uint64 ullMs, int32 nValue);
    void Mark(const char* pszKind, const std::string& strOf, uint64 ullMs, const std::string& strText,
              std::optional<uint64> ullSpanMs = {});
    int32 Transit(tagUser& stUser, uint32 dwTick, uint32 dwMediaMs);
    void MeasureAvOffset(tagUser& stUser, tagStream& stStream, const tagDataPacket& stPkt, int nPlayDelayMs,
                         uint64 ullTick);
    void TakePlayout(tagUser& stUser, const tagPlayoutInfo& stInfo, std::optional<uint32> dwBandLow,
                     uint64 ullTick);
    void TakePullBacks(tagUser& stUser, uint32 dwClock);
    void TakeClock(tagUser& stUser, uint32 dwClock, uint64 ullMs);
    nlohmann::ordered_json SeriesJson(const CBinTable& table, uint64 ullFromMs, size_t& nBins,
                                      uint64& ullStartMs);

    const tagSeriesOptions m_stOptions;
    std::mutex m_lock; // guards what follows
    tagSeriesRun m_stRun;
    std::optional<uint64> m_ullStartTick;
    uint64 m_ullLastMs = 0;
    std::optional<uint64> m_ullSampledMs;
    CBinTable m_whole;
    std::unique_ptr<CBinTable> m_pWindow;
    size_t m_nRunColumns = 0;
    std::map<uint64, std::unique_ptr<tagUser>> m_mapUsers;
    std::map<Key, std::unique_ptr<tagStream>> m_mapStreams;
    std::vector<tagUser*> m_vecUsers; // in the order of their first packet
    std::vector<tagStream*> m_vecStreams;
    std::map<uint64, std::string> m_mapNames;
    tagStream* m_pLastOut = nullptr;
    uint64 m_ullStreamsLeftOut = 0;
    std::optional<uint32> m_dwMode;
    struct tagPullBack
    {
        uint64 ullMs = 0;
        uint32 dwFrom = 0;
        uint32 dwTo = 0;
    };
    std::vector<tagPullBack> m_vecPullBacks; // whose they are shows at the next look at the clocks
    std::vector<tagEvent> m_vecEvents;       // the first ones
    std::deque<tagEvent> m_listEvents;       // the latest ones
    uint64 m_ullEventsLeftOut = 0;
};

} // namespace lab

#endif
