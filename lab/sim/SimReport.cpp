#include "SimReport.h"

#include "Paint.h"
#include "ReportTable.h"
#include "Verdict.h"

#include <fmt/format.h>
#include <sys/resource.h>

#include <algorithm>

namespace lab
{

namespace
{

typedef nlohmann::ordered_json Json;

const char* const c_aWayNames[SIM_WAYS] = {"up", "down", "request", "back"};

std::string PercentText(uint64 ullPart, uint64 ullWhole)
{
    return ullWhole ? fmt::format("{:.2f}%", 100.0 * (double)ullPart / (double)ullWhole) : "-";
}

std::string Ratio(uint64 ullPart, uint64 ullWhole)
{
    return ullWhole ? fmt::format("{:.2f}", (double)ullPart / (double)ullWhole) : "-";
}

Json Share(uint64 ullPart, uint64 ullWhole)
{
    return ullWhole ? Json((double)ullPart / (double)ullWhole) : Json();
}

std::string Cut(const std::string& str, size_t nMax)
{
    return str.size() <= nMax ? str : str.substr(0, nMax - 2) + "..";
}

std::string StreamLabel(const tagSimResult& stResult, const tagSimStreamResult& st)
{
    std::string str = stResult.vecUsers[st.uUser].strName;
    if (st.uEpoch)
        str += fmt::format(" ({})", st.uEpoch + 1);
    return str;
}

constexpr const char* c_pszRepairHead =
    "{:<16} {:<5} {:>8} {:>7} {:>7} {:>7} {:>7} {:>7} {:>6} {:>6} {:>8} {:>7} {:>6}\n";

void RepairRow(std::string& str, const std::string& strWho, const char* pszMedia,
               const tagSimStreamCounts& st)
{
    str += fmt::format(c_pszRepairHead, Cut(strWho, 16), pszMedia, st.ullSent, st.ullLost,
                       PercentText(st.ullLost, st.ullSent), st.ullAsked, st.ullAnswered, st.ullInTime,
                       st.ullRecoveredLate, st.ullUnrecovered, PercentText(st.ullInTime, st.ullLost),
                       Ratio(st.ullAskedLostSeqs, st.ullAsked), st.ullWastedSeqs);
}

void RepairTable(std::string& str, const tagSimResult& stResult, bool bStreams, const tagPaint& paint)
{
    str += paint.Head(fmt::format(c_pszRepairHead, "lost and repaired", "", "sent", "lost", "", "asked",
                                  "answd", "in time", "late", "never", "in time", "req/pkt", "wasted"));
    if (bStreams)
        for (const tagSimStreamResult& st : stResult.vecStreams)
            RepairRow(str, StreamLabel(stResult, st), SimStreamName(st.nKind), st.st);
    else
        for (const tagSimUserResult& stUser : stResult.vecUsers)
            RepairRow(str, stUser.strName, "", stUser.stSum);
    RepairRow(str, "all", "", stResult.stSum);
}

void PlayedTable(std::string& str, const tagSimResult& stResult, const tagPaint& paint)
{
    constexpr const char* c_pszForm = "{:<16} {:<5} {:>8} {:>6} {:>7} {:>7} {:>23} {:>23} {:>11} {:>16}\n";
    str += paint.Head(fmt::format(c_pszForm, "played", "", "released", "late", "dropped", "left",
                                  "playout delay, ms", "sent to released, ms", "gaps (pkts)",
                                  "stalls, longest"));
    str += paint.Head(fmt::format(c_pszForm, "", "", "", "", "", "", "p5   med   p95   max",
                                  "p5   med   p95   max", "", ""));
    const auto Quantiles = [](const CMsHistogram& h)
    {
        if (h.Count() == 0)
            return std::string("-");
        return fmt::format("{} {:>5} {:>5} {:>5}", h.Quantile(0.05), h.Quantile(0.5), h.Quantile(0.95),
                           h.Max());
    };
    for (const tagSimStreamResult& st : stResult.vecStreams)
    {
        const tagSimStreamCounts& c = st.st;
        const std::string strGaps = c.ullGaps ? fmt::format("{} ({})", c.ullGaps, c.ullGapPackets) : "0";
        const std::string strStalls =
            c.ullStalls ? fmt::format("{}, {} ms", c.ullStalls, c.dwLongestStallMs) : "0";
        str +=
            fmt::format(c_pszForm, Cut(StreamLabel(stResult, st), 16), SimStreamName(st.nKind), c.ullReleased,
                        c.ullOutOfOrder, st.stPackets.ullSkipped + st.stPackets.ullCleared,
                        st.stPackets.ullLeft, Quantiles(c.delay), Quantiles(c.latency), strGaps, strStalls);
    }
}

void AvTable(std::string& str, const tagSimResult& stResult, const tagPaint& paint)
{
    bool bAny = false;
    for (const tagSimUserResult& st : stResult.vecUsers)
        bAny = bAny || st.avOffset.Count() != 0;
    if (!bAny)
        return;
    constexpr const char* c_pszForm = "{:<22} {:>8} {:>7} {:>7} {:>7} {:>7}\n";
    str += "\n" + paint.Head(fmt::format(c_pszForm, "picture to sound, ms", "frames", "mean", "median", "p95",
                                         "max"));
    for (const tagSimUserResult& st : stResult.vecUsers)
        if (st.avOffset.Count())
            str += fmt::format(c_pszForm, Cut(st.strName, 22), st.avOffset.Count(),
                               fmt::format("{:+.0f}", (double)st.llAvSumMs / (double)st.avOffset.Count()),
                               st.avOffset.Quantile(0.5), st.avOffset.Quantile(0.95), st.avOffset.Max());
}

// ---- The same tables for the page ----

void AddRepairRow(CReportTable& table, const std::string& strWho, const char* pszMedia,
                  const tagSimStreamCounts& st)
{
    table.Row({strWho, pszMedia, Cell(st.ullSent), Cell(st.ullLost), PercentText(st.ullLost, st.ullSent),
               Cell(st.ullAsked), Cell(st.ullAnswered), Cell(st.ullInTime), Cell(st.ullRecoveredLate),
               Cell(st.ullUnrecovered), PercentText(st.ullInTime, st.ullLost),
               Ratio(st.ullAskedLostSeqs, st.ullAsked), Cell(st.ullWastedSeqs)});
}

void AddTables(Json& jTables, const tagSimResult& stResult)
{
    CReportTable repair("Lost and repaired",
                        {"user", "media", ">sent", ">lost", ">lost %", ">asked", ">answered", ">in time",
                         ">late", ">never", ">in time %", ">requests/packet", ">wasted"});
    CReportTable played("Played", {"user", "media", ">released", ">late", ">dropped", ">left",
                                   ">delay p5, ms", ">median", ">p95", ">max", ">sent to released, median",
                                   ">max", ">gaps", ">packets in them", ">stalls", ">longest, ms"});
    for (const tagSimStreamResult& st : stResult.vecStreams)
    {
        const tagSimStreamCounts& c = st.st;
        const std::string strWho = StreamLabel(stResult, st);
        AddRepairRow(repair, strWho, SimStreamName(st.nKind), c);
        const auto Delay = [](const CMsHistogram& h, double dShare)
        { return h.Count() != 0 ? Cell(h.Quantile(dShare)) : std::string("-"); };
        played.Row({strWho, SimStreamName(st.nKind), Cell(c.ullReleased), Cell(c.ullOutOfOrder),
                    Cell(st.stPackets.ullSkipped + st.stPackets.ullCleared), Cell(st.stPackets.ullLeft),
                    Delay(c.delay, 0.05), Delay(c.delay, 0.5), Delay(c.delay, 0.95), Delay(c.delay, 1),
                    Delay(c.latency, 0.5), Delay(c.latency, 1), Cell(c.ullGaps), Cell(c.ullGapPackets),
                    Cell(c.ullStalls), Cell(c.dwLongestStallMs)});
    }
    AddRepairRow(repair, "all", "", stResult.stSum);
    repair.AddTo(jTables);
    played.AddTo(jTables);
    CReportTable step("Picture to sound, ms", {"user", ">frames", ">mean", ">median", ">p95", ">max"});
    for (const tagSimUserResult& st : stResult.vecUsers)
        if (st.avOffset.Count() != 0)
            step.Row({st.strName, Cell(st.avOffset.Count()),
                      fmt::format("{:+.0f}", (double)st.llAvSumMs / (double)st.avOffset.Count()),
                      Cell(st.avOffset.Quantile(0.5)), Cell(st.avOffset.Quantile(0.95)),
                      Cell(st.avOffset.Max())});
    step.AddTo(jTables);
}

std::vector<std::string> Notes(const tagSimResult& stResult)
{
    std::vector<std::string> vec;
    const tagSimStreamCounts& st = stResult.stSum;
    const tagSimTraffic& stTraffic = stResult.stTraffic;
    if (st.ullLost)
        vec.push_back(
            fmt::format("lost: {} between sender and relay, {} between relay and receiver; {} of all by a "
                        "full queue, {} in outages",
                        st.ullLostUp, st.ullLostDown, st.ullLostQueue, st.ullLostOutage));
    if (st.ullUnrecovered)
        vec.push_back(fmt::format(
            "never recovered: {}; never asked for: {} of them, {} of these in a stream's first 5 s",
            st.ullUnrecovered, st.ullNeverAsked, st.ullNeverAtStart));
    uint64 ullRequestDrops = 0;
    for (const uint64 ull : stTraffic.aDrops[SIM_REQUESTS])
        ullRequestDrops += ull;
    if (stTraffic.ullMessages)
        vec.push_back(
            fmt::format("requests: {} datagrams, {} dropped on the way; entries: {} by the loss scan, {} "
                        "at once for I frames; {} answers, {} needless",
                        stTraffic.ullMessages, ullRequestDrops, stResult.ullScanRequests,
                        stResult.ullImmediateRequests, st.ullAnswers, st.ullNeedlessAnswers));
    if (stTraffic.ullPassedOn)
        vec.push_back(fmt::format("the relay passed {} requests on to senders", stTraffic.ullPassedOn));
    if (stTraffic.ullPushed)
        vec.push_back(fmt::format("the joiner was pushed {} packets", stTraffic.ullPushed));
    if (st.ullUnknownSeqs)
        vec.push_back(fmt::format("{} entries asked for packets that were never sent or are long gone",
                                  st.ullUnknownSeqs));
    if (st.ullCopies)
        vec.push_back(fmt::format("{} copies made by the network arrived", st.ullCopies));
    uint64 ullStranded = 0;
    for (const tagSimStreamResult& stStream : stResult.vecStreams)
        ullStranded += stStream.stPackets.ullStranded;
    if (ullStranded)
        vec.push_back(
            fmt::format("{} packets from before the end of the 32-bit sequences left behind those after it",
                        ullStranded));
    if (stResult.ullPullBacks)
        vec.push_back(fmt::format("the receiver pulled playout back {} times", stResult.ullPullBacks));
    return vec;
}

Json HistogramJson(const CMsHistogram& h)
{
    Json j;
    j["count"] = h.Count();
    if (h.Count() == 0)
        return j;
    j["min"] = h.Min();
    j["p5"] = h.Quantile(0.05);
    j["median"] = h.Quantile(0.5);
    j["p95"] = h.Quantile(0.95);
    j["p99"] = h.Quantile(0.99);
    j["max"] = h.Max();
    j["mean"] = h.Mean();
    return j;
}

Json CountsJson(const tagSimStreamCounts& st)
{
    Json j;
    j["sent"] = st.ullSent;
    j["bytes"] = st.ullBytes;
    j["received"] = st.ullReceived;
    j["copies_received"] = st.ullCopies;
    j["lost"] = st.ullLost;
    j["lost_share"] = Share(st.ullLost, st.ullSent);
    j["lost_up"] = st.ullLostUp;
    j["lost_down"] = st.ullLostDown;
    j["lost_in_queue"] = st.ullLostQueue;
    j["lost_in_outage"] = st.ullLostOutage;
    j["asked"] = st.ullAsked;
    j["answered"] = st.ullAnswered;
    j["recovered_in_time"] = st.ullInTime;
    j["recovered_late"] = st.ullRecoveredLate;
    j["unrecovered"] = st.ullUnrecovered;
    j["never_asked"] = st.ullNeverAsked;
    j["never_asked_at_start"] = st.ullNeverAtStart;
    j["recovered_in_time_share"] = Share(st.ullInTime, st.ullLost);
    j["requests"] = st.ullAskedSeqs;
    j["requests_per_lost"] = Share(st.ullAskedLostSeqs, st.ullAsked);
    j["requests_wasted"] = st.ullWastedSeqs;
    j["packets_asked_in_vain"] = st.ullWasted;
    j["requests_unknown"] = st.ullUnknownSeqs;
    j["answers_sent"] = st.ullAnswers;
    j["answers_needless"] = st.ullNeedlessAnswers;
    j["released"] = st.ullReleased;
    j["released_out_of_order"] = st.ullOutOfOrder;
    j["gaps"] = st.ullGaps;
    j["gap_packets"] = st.ullGapPackets;
    j["longest_gap_packets"] = st.ullLongestGap;
    j["stalls"] = st.ullStalls;
    j["longest_stall_ms"] = st.dwLongestStallMs;
    j["longest_stall_at_ms"] = st.dwLongestStallAtMs;
    return j;
}

Json StreamJson(const tagSimResult& stResult, size_t n)
{
    const tagSimStreamResult& st = stResult.vecStreams[n];
    Json j;
    j["stream"] = n;
    j["user"] = stResult.vecUsers[st.uUser].strName;
    j["account"] = stResult.vecUsers[st.uUser].llAccount;
    j["media"] = SimStreamName(st.nKind);
    j["sub_type"] = SimStreamSubType(st.nKind);
    j["epoch"] = st.uEpoch;
    j.update(CountsJson(st.st));
    const bool bOut = st.st.ullReleased != 0;
    j["first_output_ms"] = bOut ? Json(st.st.dwFirstOutMs) : Json();
    j["last_output_ms"] = bOut ? Json(st.st.dwLastOutMs) : Json();
    j["playout_delay_ms"] = HistogramJson(st.st.delay);
    j["sent_to_released_ms"] = HistogramJson(st.st.latency);
    j["asked_to_arrived_ms"] = HistogramJson(st.st.repair);
    auto& p = j["handed_in"];
    p["packets"] = st.stPackets.ullFed;
    p["distinct"] = st.stPackets.ullFirst;
    p["played"] = st.stPackets.ullPlayed;
    p["late"] = st.stPackets.ullLate;
    p["stranded"] = st.stPackets.ullStranded;
    p["skipped_at_beginning"] = st.stPackets.ullSkipped;
    p["cleared"] = st.stPackets.ullCleared;
    p["left_in_buffer"] = st.stPackets.ullLeft;
    p["repeats_dropped"] = st.stPackets.ullRepeats;
    p["repeats_played"] = st.stPackets.ullReplayed;
    return j;
}

double PeakMegabytes()
{
    struct rusage st = {};
    getrusage(RUSAGE_SELF, &st);
    return (double)st.ru_maxrss / 1024.0;
}

} // namespace

std::string SimTable(const tagSimResult& stResult, bool bStreams, bool bColours)
{
    const tagPaint paint{bColours};
    const tagScenario& stScenario = stResult.stScenario;
    std::string str = paint.Head(stScenario.strName);
    if (!stScenario.strAbout.empty())
        str += ": " + stScenario.strAbout;
    str +=
        fmt::format("\n{} users, {:g} s, {} mode, seed {}; round trip {}\n\n", stResult.vecUsers.size(),
                    (double)stScenario.llDurationUs / 1e6,
                    stScenario.stReceiver.bLowLatency ? "low-latency" : "default", stScenario.ullSeed,
                    stResult.rtt.Count() ? fmt::format("{} ms (median), {} to {}", stResult.rtt.Quantile(0.5),
                                                       stResult.rtt.Min(), stResult.rtt.Max())
                                         : std::string("not measured"));
    RepairTable(str, stResult, bStreams, paint);
    if (bStreams)
    {
        str += "\n";
        PlayedTable(str, stResult, paint);
        AvTable(str, stResult, paint);
    }
    const std::vector<std::string> vecNotes = Notes(stResult);
    if (!vecNotes.empty())
        str += "\n";
    for (const std::string& strNote : vecNotes)
        str += "note: " + strNote + "\n";
    str += "\n";
    for (const std::string& strLine : stResult.vecViolations)
        str += paint.Bad("BROKEN: ") + strLine + "\n";
    if (stResult.ullBroken)
        str += paint.Bad(fmt::format("checks: {} broken, the run ended there", stResult.ullBroken)) + "\n";
    else
        str += paint.Good("checks: all held") + "\n";
    return str;
}

Json SimJson(const tagSimResult& stResult)
{
    const tagScenario& stScenario = stResult.stScenario;
    Json j;
    j["format"] = "udtlab-simulate";
    j["version"] = 1;
    j["name"] = stScenario.strName;
    j["about"] = stScenario.strAbout;
    j["seed"] = stScenario.ullSeed;
    j["seconds"] = (double)stScenario.llDurationUs / 1e6;
    j["count_from_s"] = (double)stScenario.llCountFromUs / 1e6;
    j["mode"] = stScenario.stReceiver.bLowLatency ? "low-latency" : "default";
    j["play_delay_ms"] = stScenario.stReceiver.uPlayDelayMs;
    j["run_ms"] = stResult.dwRunMs;
    j["rtt_ms"] = HistogramJson(stResult.rtt);
    j["all"] = CountsJson(stResult.stSum);
    j["users"] = Json::array();
    for (const tagSimUserResult& st : stResult.vecUsers)
    {
        Json u;
        u["user"] = st.strName;
        u["account"] = st.llAccount;
        u["skew_ppm"] = st.dSkewPpm;
        u["streams"] = st.vecStreams;
        u.update(CountsJson(st.stSum));
        u["av_offset_ms"] = HistogramJson(st.avOffset);
        if (st.avOffset.Count())
            u["av_offset_ms"]["signed_mean"] = (double)st.llAvSumMs / (double)st.avOffset.Count();
        j["users"].push_back(u);
    }
    j["streams"] = Json::array();
    for (size_t i = 0; i < stResult.vecStreams.size(); i++)
        j["streams"].push_back(StreamJson(stResult, i));
    const tagSimTraffic& stTraffic = stResult.stTraffic;
    auto& t = j["traffic"];
    t["up_packets"] = stTraffic.ullUpPackets;
    t["down_packets"] = stTraffic.ullDownPackets;
    t["down_bytes"] = stTraffic.ullDownBytes;
    t["pushed_packets"] = stTraffic.ullPushed;
    t["request_datagrams"] = stTraffic.ullMessages;
    t["requests_by_scan"] = stResult.ullScanRequests;
    t["requests_at_once"] = stResult.ullImmediateRequests;
    t["requests_passed_on"] = stTraffic.ullPassedOn;
    for (size_t i = 0; i < SIM_WAYS; i++)
        t["drops"][c_aWayNames[i]] = {{"loss", stTraffic.aDrops[i][SIM_DROP_LOSS]},
                                      {"outage", stTraffic.aDrops[i][SIM_DROP_OUTAGE]},
                                      {"queue", stTraffic.aDrops[i][SIM_DROP_QUEUE]}};
    j["pull_backs"] = stResult.ullPullBacks;
    j["stats"] = Json::parse(UdtStatsJson(stResult.stStats, -1));
    j["checks"] = {
        {"ok", stResult.ullBroken == 0}, {"broken", stResult.ullBroken}, {"lines", stResult.vecViolations}};
    return j;
}

Json SimRunReport(const tagSimResult& stResult, CRunSeries& series,
                  const std::vector<std::pair<std::string, std::string>>& vecOptions)
{
    const tagScenario& stScenario = stResult.stScenario;
    tagSeriesRun stRun;
    stRun.strKind = "simulate";
    stRun.strTitle = stScenario.strName;
    stRun.vecOptions = {{"seed", Cell(stScenario.ullSeed)},
                        {"mode", stScenario.stReceiver.bLowLatency ? "low-latency" : "default"},
                        {"users", Cell(stResult.vecUsers.size())},
                        {"seconds", fmt::format("{:g}", (double)stScenario.llDurationUs / 1e6)}};
    for (const auto& st : vecOptions)
    {
        const auto it = std::find_if(stRun.vecOptions.begin(), stRun.vecOptions.end(),
                                     [&st](const auto& stHave) { return stHave.first == st.first; });
        if (it == stRun.vecOptions.end())
            stRun.vecOptions.push_back(st);
    }
    series.SetRun(stRun);
    for (const tagSimUserResult& st : stResult.vecUsers)
        series.NameUser(st.llAccount, st.strName);
    Json j = series.Json();
    AddTables(j["tables"], stResult);
    if (stResult.ullBroken != 0)
        AddBrokenChecks(j, stResult.ullBroken, stResult.vecViolations);
    return j;
}

std::string SimSpeedLine(const tagSimResult& stResult)
{
    return fmt::format("{:.1f} s of call in {:.2f} s: {:.0f} times real time, {:.0f} MB at most",
                       stResult.dwRunMs / 1000.0, stResult.dWallSeconds,
                       stResult.dwRunMs / 1000.0 / std::max(1e-6, stResult.dWallSeconds), PeakMegabytes());
}

Json SimSpeedJson(const tagSimResult& stResult)
{
    return {{"wall_seconds", stResult.dWallSeconds},
            {"virtual_seconds_per_wall_second",
             stResult.dwRunMs / 1000.0 / std::max(1e-6, stResult.dWallSeconds)},
            {"peak_megabytes", PeakMegabytes()}};
}

} // namespace lab
