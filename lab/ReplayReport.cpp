#include "ReplayReport.h"

#include "Files.h"
#include "Paint.h"
#include "ReportTable.h"
#include "Verdict.h"

#include <fmt/format.h>

#include <cmath>
#include <ctime>

namespace lab
{

namespace
{

constexpr size_t c_nNameWidth = 21;
constexpr uint64 c_ullFirstDateUs = 86400 * 1000000ull; // below it a capture counts from 0

std::string Percent(uint64 ullPart, uint64 ullWhole)
{
    return ullWhole ? fmt::format("{:.2f}", 100.0 * (double)ullPart / (double)ullWhole) : "-";
}

const char* KindName(emRtpKind eKind)
{
    switch (eKind)
    {
    case RTP_KIND_AUDIO: return "audio";
    case RTP_KIND_VIDEO: return "video";
    case RTP_KIND_RTX: return "rtx";
    case RTP_KIND_FEC: return "fec";
    default: return "unknown";
    }
}

std::string CodecText(const tagRtpStreamInfo& stInfo)
{
    if (stInfo.stFormat.eKind == RTP_KIND_RTX)
        return stInfo.nRtxOf >= 0 ? fmt::format("repairs {}", stInfo.nRtxOf) : "repairs ?";
    std::string str = stInfo.stFormat.strCodec.empty() ? "?" : stInfo.stFormat.strCodec;
    if (stInfo.stFormat.dwClock)
        str += fmt::format("/{}", stInfo.stFormat.dwClock);
    return str + (stInfo.bGuessed ? " *" : "");
}

std::string StreamUser(const tagRtpStreamInfo& stInfo)
{
    return stInfo.strCname.empty() ? fmt::format("SSRC {:08x}", stInfo.dwSsrc) : stInfo.strCname;
}

// "2026-11-21 01:05:35.123456 UTC, "; nothing for a capture that counts from 0.
std::string TimeText(uint64 ullUs)
{
    if (ullUs < c_ullFirstDateUs)
        return "";
    const time_t t = (time_t)(ullUs / 1000000);
    struct tm stTm = {};
    gmtime_r(&t, &stTm);
    char szText[64];
    strftime(szText, sizeof(szText), "%Y-%m-%d %H:%M:%S", &stTm);
    return fmt::format("{}.{:06} UTC, ", szText, ullUs % 1000000);
}

void CaptureTable(std::string& str, const tagReplayResult& stResult, const tagPaint& paint)
{
    str += paint.Head(
        fmt::format("{:>3}  {:<5}  {:<15}  {:<8}  {:<21}  {:>8}  {:>7}  {:>5}  {:>6}  {:>5}  {:>5}  {:>8}\n",
                    "#", "media", "codec/clock", "SSRC", "captured from", "packets", "unique", "lost",
                    "lost %", "reord", "dup", "repaired"));
    for (size_t i = 0; i < stResult.vecStreams.size(); i++)
    {
        const tagRtpStreamInfo& st = stResult.vecStreams[i].stInfo;
        const tagRtpStat& stat = st.stStat;
        str += fmt::format(
            "{:>3}  {:<5}  {:<15}  {:08x}  {:<21}  {:>8}  {:>7}  {}  {:>6}  {:>5}  {:>5}  {:>8}\n", i,
            KindName(st.stFormat.eKind), Printable(CodecText(st), 15), st.dwSsrc,
            Printable(st.stSrc.Text(), 21), stat.ullPackets, stat.ullUnique, paint.Count(stat.ullLost, 5),
            Percent(stat.ullLost, stat.ullExpected), stat.ullReordered, stat.ullDuplicates,
            st.stFormat.eKind == RTP_KIND_RTX ? "-" : fmt::format("{}", st.ullRtxRepaired));
    }
}

void PlayedTable(std::string& str, const tagReplayResult& stResult, const tagPaint& paint)
{
    str += paint.Head(
        fmt::format("{:{}}  {:>23}  {:>8}\n", "", c_nNameWidth + 50, "playout delay, ms", "first"));
    str += paint.Head(fmt::format(
        "{:>3}  {:<{}}  {:<5}  {:>8}  {:>5}  {:>7}  {:>7}  {:>5}  {:>5} {:>5} {:>5} {:>5}  {:>8}\n", "#",
        "played from", c_nNameWidth, "media", "played", "late", "skipped", "cleared", "left", "min", "med",
        "p95", "max", "out s"));
    for (size_t i = 0; i < stResult.vecStreams.size(); i++)
    {
        const tagStreamResult& st = stResult.vecStreams[i];
        if (!st.bFed)
            continue;
        const tagPacketAccount& stPackets = st.stPackets;
        std::string strDelay = fmt::format("{:>5} {:>5} {:>5} {:>5}", "-", "-", "-", "-");
        if (st.delay.Count())
            strDelay = fmt::format("{:>5} {:>5} {:>5} {:>5}", st.delay.Min(), st.delay.Quantile(0.5),
                                   st.delay.Quantile(0.95), st.delay.Max());
        str += fmt::format("{:>3}  {:<{}}  {:<5}  {:>8}  {}  {}  {}  {}  {}  {:>8}\n", i,
                           Printable(StreamUser(st.stInfo), c_nNameWidth), c_nNameWidth,
                           KindName(st.stInfo.stFormat.eKind), stPackets.ullPlayed,
                           paint.Count(stPackets.ullLate, 5), paint.Count(stPackets.ullSkipped, 7),
                           paint.Count(stPackets.ullCleared, 7), paint.Count(stPackets.ullLeft, 5), strDelay,
                           st.bPlayed ? fmt::format("{:.3f}", st.dwFirstOutMs / 1000.0) : "-");
    }
}

void UserTable(std::string& str, const tagReplayResult& stResult, const tagPaint& paint)
{
    bool bAny = false;
    for (const tagUserResult& stUser : stResult.vecUsers)
        bAny = bAny || stUser.avOffset.Count() != 0;
    if (!bAny)
        return;
    str += "\n";
    str += paint.Head(fmt::format("     {:<{}}  {:>8}  {:>8}  {:>8}  {:>8}  {:>8}\n",
                                  "picture against sound, ms", c_nNameWidth + 2, "frames", "mean", "median",
                                  "p95", "max"));
    for (const tagUserResult& stUser : stResult.vecUsers)
    {
        if (stUser.avOffset.Count() == 0)
            continue;
        str +=
            fmt::format("     {:<{}}  {:>8}  {:>+8.0f}  {:>8}  {:>8}  {:>8}\n",
                        Printable(stUser.strName, c_nNameWidth), c_nNameWidth + 2, stUser.avOffset.Count(),
                        (double)stUser.llAvSumMs / (double)stUser.avOffset.Count(),
                        stUser.avOffset.Quantile(0.5), stUser.avOffset.Quantile(0.95), stUser.avOffset.Max());
    }
}

uint64 Asked(const tagStreamResult& st) { return st.stStats.packetsRequestedUnique.value_or(0); }

// What our receiver asked for, what the capture answers, and what the receiver of that time asked for.
void RequestTable(std::string& str, const tagReplayResult& stResult, const tagPaint& paint)
{
    bool bAny = false;
    for (const tagStreamResult& st : stResult.vecStreams)
        bAny = bAny || Asked(st) != 0 || st.ullNackedPackets != 0;
    if (!bAny)
        return;
    str += "\n";
    str += paint.Head(fmt::format("{:>3}  {:<{}}  {:<5}  {:>8}  {:>8}  {:>5}  {:>7}  {:>5}  {:>12}\n", "#",
                                  "loss requests of", c_nNameWidth, "media", "asked", "requests", "came",
                                  "NACKed", "both", "ours earlier"));
    for (size_t i = 0; i < stResult.vecStreams.size(); i++)
    {
        const tagStreamResult& st = stResult.vecStreams[i];
        if (Asked(st) == 0 && st.ullNackedPackets == 0)
            continue;
        const std::string strLead =
            st.ullAskedByBoth ? fmt::format("{:+.0f} ms", (double)st.llLeadSumMs / (double)st.ullAskedByBoth)
                              : "-";
        str += fmt::format(
            "{:>3}  {:<{}}  {:<5}  {:>8}  {:>8}  {:>5}  {:>7}  {:>5}  {:>12}\n", i,
            Printable(StreamUser(st.stInfo), c_nNameWidth), c_nNameWidth, KindName(st.stInfo.stFormat.eKind),
            Asked(st), st.stStats.packetsRequested.value_or(0),
            st.stStats.requestedPacketsReceived.value_or(0), st.ullNackedPackets, st.ullAskedByBoth, strLead);
    }
}

// ---- The same tables for the page ----

std::string DelayCell(const CMsHistogram& h, uint32 uMs) { return h.Count() ? Cell(uMs) : "-"; }

void AddCaptureTable(nlohmann::ordered_json& jTables, const tagReplayResult& stResult)
{
    CReportTable table("Captured",
                       {">#", "media", "codec/clock", "SSRC", "from", ">packets", ">unique", ">lost",
                        ">lost %", ">reordered", ">duplicates", ">repaired", ">jitter, ms"});
    for (size_t i = 0; i < stResult.vecStreams.size(); i++)
    {
        const tagRtpStreamInfo& st = stResult.vecStreams[i].stInfo;
        const tagRtpStat& stat = st.stStat;
        table.Row({Cell(i), KindName(st.stFormat.eKind), CodecText(st), fmt::format("{:08x}", st.dwSsrc),
                   st.stSrc.Text(), Cell(stat.ullPackets), Cell(stat.ullUnique), Cell(stat.ullLost),
                   Percent(stat.ullLost, stat.ullExpected), Cell(stat.ullReordered), Cell(stat.ullDuplicates),
                   st.stFormat.eKind == RTP_KIND_RTX ? "-" : Cell(st.ullRtxRepaired),
                   fmt::format("{:.1f}", stat.dJitterMs)});
    }
    table.AddTo(jTables);
}

void AddPlayedTable(nlohmann::ordered_json& jTables, const tagReplayResult& stResult)
{
    CReportTable table("Played", {">#", "user", "media", ">played", ">late", ">skipped", ">cleared", ">left",
                                  ">delay min, ms", ">median", ">p95", ">max", ">first out, s"});
    for (size_t i = 0; i < stResult.vecStreams.size(); i++)
    {
        const tagStreamResult& st = stResult.vecStreams[i];
        if (!st.bFed)
            continue;
        table.Row({Cell(i), StreamUser(st.stInfo), KindName(st.stInfo.stFormat.eKind),
                   Cell(st.stPackets.ullPlayed), Cell(st.stPackets.ullLate), Cell(st.stPackets.ullSkipped),
                   Cell(st.stPackets.ullCleared), Cell(st.stPackets.ullLeft),
                   DelayCell(st.delay, st.delay.Min()), DelayCell(st.delay, st.delay.Quantile(0.5)),
                   DelayCell(st.delay, st.delay.Quantile(0.95)), DelayCell(st.delay, st.delay.Max()),
                   st.bPlayed ? fmt::format("{:.3f}", st.dwFirstOutMs / 1000.0) : "-"});
    }
    table.AddTo(jTables);
}

void AddRequestTable(nlohmann::ordered_json& jTables, const tagReplayResult& stResult)
{
    CReportTable table("Loss requests", {">#", "user", "media", ">packets asked", ">requests", ">came",
                                         ">NACKed then", ">both", ">ours earlier, ms"});
    for (size_t i = 0; i < stResult.vecStreams.size(); i++)
    {
        const tagStreamResult& st = stResult.vecStreams[i];
        if (Asked(st) == 0 && st.ullNackedPackets == 0)
            continue;
        table.Row({Cell(i), StreamUser(st.stInfo), KindName(st.stInfo.stFormat.eKind), Cell(Asked(st)),
                   Cell(st.stStats.packetsRequested.value_or(0)),
                   Cell(st.stStats.requestedPacketsReceived.value_or(0)), Cell(st.ullNackedPackets),
                   Cell(st.ullAskedByBoth),
                   st.ullAskedByBoth
                       ? fmt::format("{:+.0f}", (double)st.llLeadSumMs / (double)st.ullAskedByBoth)
                       : "-"});
    }
    table.AddTo(jTables);
}

void AddUserTable(nlohmann::ordered_json& jTables, const tagReplayResult& stResult)
{
    CReportTable table("Picture against sound, ms", {"user", ">frames", ">mean", ">median", ">p95", ">max"});
    for (const tagUserResult& stUser : stResult.vecUsers)
        if (stUser.avOffset.Count() != 0)
            table.Row({stUser.strName, Cell(stUser.avOffset.Count()),
                       fmt::format("{:+.0f}", (double)stUser.llAvSumMs / (double)stUser.avOffset.Count()),
                       Cell(stUser.avOffset.Quantile(0.5)), Cell(stUser.avOffset.Quantile(0.95)),
                       Cell(stUser.avOffset.Max())});
    table.AddTo(jTables);
}

// What a reader of the tables should know besides.
std::vector<std::string> Notes(const tagReplayResult& stResult)
{
    std::vector<std::string> vec;
    for (const std::string& strGuess : stResult.vecGuesses)
        vec.push_back(Printable(strGuess, 400));
    const tagRtpTotals& stTotals = stResult.stTotals;
    for (int i = 0; i < RTP_DROP_COUNT; i++)
        if (stTotals.aDrops[(size_t)i])
            vec.push_back(fmt::format("{} datagrams skipped: {}", stTotals.aDrops[(size_t)i],
                                      RtpDropText((emRtpDrop)i)));
    const tagCaptureStats& st = stResult.stCapture;
    if (st.ullFragments)
        vec.push_back(fmt::format("{} IP fragments skipped", st.ullFragments));
    if (st.ullCutHeaders)
        vec.push_back(
            fmt::format("{} records skipped: captured too short for their headers", st.ullCutHeaders));
    if (st.ullTimeBack)
        vec.push_back(fmt::format("{} datagrams stamped earlier than the one before: taken at its time",
                                  st.ullTimeBack));
    if (stResult.ullPullBacks)
        vec.push_back(fmt::format("the receiver pulled playout back {} times", stResult.ullPullBacks));
    for (size_t i = 0; i < stResult.vecStreams.size(); i++)
        if (stResult.vecStreams[i].stPackets.ullReplayed)
            vec.push_back(
                fmt::format("stream {}: {} repeats played again, more than 6 s after the first or after a "
                            "pull-back",
                            i, stResult.vecStreams[i].stPackets.ullReplayed));
    return vec;
}

// Microseconds are all that a capture can tell of milliseconds.
double Rounded(double d) { return std::round(d * 1000.0) / 1000.0; }

nlohmann::ordered_json DelayJson(const CMsHistogram& h)
{
    nlohmann::ordered_json j;
    j["count"] = h.Count();
    if (h.Count() == 0)
        return j;
    j["min"] = h.Min();
    j["median"] = h.Quantile(0.5);
    j["p95"] = h.Quantile(0.95);
    j["p99"] = h.Quantile(0.99);
    j["max"] = h.Max();
    j["mean"] = Rounded(h.Mean());
    return j;
}

nlohmann::ordered_json StreamJson(size_t n, const tagStreamResult& st)
{
    const tagRtpStreamInfo& stInfo = st.stInfo;
    const tagRtpStat& stat = stInfo.stStat;
    nlohmann::ordered_json j;
    j["stream"] = n;
    j["user"] = StreamUser(stInfo);
    j["cname"] = stInfo.strCname.empty() ? nlohmann::ordered_json() : nlohmann::ordered_json(stInfo.strCname);
    j["account"] = fmt::format("{:016x}", stInfo.llAccount);
    j["media"] = KindName(stInfo.stFormat.eKind);
    j["sub_type"] = stInfo.cSubType;
    j["ssrc"] = fmt::format("{:08x}", stInfo.dwSsrc);
    j["payload_type"] = stInfo.cPt;
    j["codec"] = stInfo.stFormat.strCodec;
    j["clock_hz"] = stInfo.stFormat.dwClock;
    j["guessed"] = stInfo.bGuessed;
    j["placed_by_sender_report"] = stInfo.bPlacedBySr;
    j["source"] = stInfo.stSrc.Text();
    j["destination"] = stInfo.stDst.Text();
    j["rtx_of"] = stInfo.nRtxOf >= 0 ? nlohmann::ordered_json(stInfo.nRtxOf) : nlohmann::ordered_json();

    auto& c = j["capture"];
    c["packets"] = stat.ullPackets;
    c["bytes"] = stat.ullBytes;
    c["frames"] = stat.ullFrames;
    c["expected"] = stat.ullExpected;
    c["unique"] = stat.ullUnique;
    c["lost"] = stat.ullLost;
    c["loss_bursts"] = stat.ullLossBursts;
    c["longest_loss_burst"] = stat.ullLongestBurst;
    c["reordered"] = stat.ullReordered;
    c["reorder_depth"] = stat.dwReorderDepth;
    c["duplicates"] = stat.ullDuplicates;
    c["rtx_packets"] = stInfo.ullRtxPackets;
    c["rtx_repaired"] = stInfo.ullRtxRepaired;
    c["jitter_ms"] = Rounded(stat.dJitterMs);
    c["jitter_max_ms"] = Rounded(stat.dJitterMaxMs);
    c["first_us"] = stat.ullFirstUs;
    c["last_us"] = stat.ullLastUs;
    c["longest_gap_ms"] = Rounded((double)stat.ullLongestGapUs / 1000.0);
    if (stat.bDelays)
        c["relative_delay_ms"] = {{"median", stat.dwDelayP50Ms},
                                  {"p95", stat.dwDelayP95Ms},
                                  {"p99", stat.dwDelayP99Ms},
                                  {"max", stat.dwDelayMaxMs}};
    c["nack_messages"] = stInfo.ullNacks;
    c["nacked_packets"] = stInfo.ullNackedSeqs;
    c["plis"] = stInfo.ullPlis;
    c["sender_reports"] = stInfo.ullSenderReports;
    c["receiver_reports"] = stInfo.ullReceiverReports;
    if (!st.bFed)
        return j;

    auto& p = j["playout"];
    p["handed_in"] = st.stPackets.ullFed;
    p["distinct"] = st.stPackets.ullFirst;
    p["played"] = st.stPackets.ullPlayed;
    p["late"] = st.stPackets.ullLate;
    p["skipped_at_beginning"] = st.stPackets.ullSkipped;
    p["cleared"] = st.stPackets.ullCleared;
    p["left_in_buffer"] = st.stPackets.ullLeft;
    p["repeats_dropped"] = st.stPackets.ullRepeats;
    p["repeats_played"] = st.stPackets.ullReplayed;
    p["first_arrival_ms"] = st.dwFirstArrivalMs;
    p["first_output_ms"] = st.bPlayed ? nlohmann::ordered_json(st.dwFirstOutMs) : nlohmann::ordered_json();
    p["last_output_ms"] = st.bPlayed ? nlohmann::ordered_json(st.dwLastOutMs) : nlohmann::ordered_json();
    p["delay_ms"] = DelayJson(st.delay);
    auto& r = j["requests"];
    r["sequences"] = st.stStats.packetsRequested.value_or(0);
    r["packets"] = Asked(st);
    r["came"] = st.stStats.requestedPacketsReceived.value_or(0);
    r["capture_packets"] = st.ullNackedPackets;
    r["both"] = st.ullAskedByBoth;
    r["mean_lead_ms"] =
        st.ullAskedByBoth
            ? nlohmann::ordered_json(Rounded((double)st.llLeadSumMs / (double)st.ullAskedByBoth))
            : nlohmann::ordered_json();
    return j;
}

} // namespace

std::string ReplayTable(const tagReplayResult& stResult, bool bColours)
{
    const tagPaint paint{bColours};
    std::string str;
    for (const std::string& strPath : stResult.stOptions.vecCaptures)
        str += paint.Head(strPath) + "\n";
    str += fmt::format("{}{:.1f} s, {} datagrams, {} RTP, {} RTCP, {} user{}\n\n",
                       TimeText(stResult.ullStartUs), stResult.dwDurationMs / 1000.0,
                       stResult.stTotals.ullDatagrams, stResult.stTotals.ullRtp, stResult.stTotals.ullRtcp,
                       stResult.vecUsers.size(), stResult.vecUsers.size() == 1 ? "" : "s");
    CaptureTable(str, stResult, paint);
    str += "\n";
    PlayedTable(str, stResult, paint);
    RequestTable(str, stResult, paint);
    UserTable(str, stResult, paint);

    const std::vector<std::string> vecNotes = Notes(stResult);
    if (!vecNotes.empty())
        str += "\n";
    for (const std::string& strNote : vecNotes)
        str += "note: " + strNote + "\n";

    if (stResult.stOptions.bEndReport)
    {
        str += "\n";
        for (const std::string& strLine : stResult.vecEndReport)
            str += strLine + "\n";
    }
    str += "\n";
    if (stResult.ullBroken == 0)
        str += paint.Good("checks: all held") + "\n";
    else
    {
        for (const std::string& strLine : stResult.vecViolations)
            str += paint.Bad("BROKEN: ") + strLine + "\n";
        str += paint.Bad(fmt::format("checks: {} broken", stResult.ullBroken)) + "\n";
    }
    return str;
}

nlohmann::ordered_json ReplayRunReport(const tagReplayResult& stResult, CRunSeries& series)
{
    tagSeriesRun stRun;
    stRun.strKind = "replay";
    for (const std::string& strPath : stResult.stOptions.vecCaptures)
        stRun.strTitle += (stRun.strTitle.empty() ? "" : ", ") + strPath.substr(strPath.rfind('/') + 1);
    if (stResult.ullStartUs >= c_ullFirstDateUs)
        stRun.ullStartUnixMs = stResult.ullStartUs / 1000;
    stRun.vecOptions = {{"mode", stResult.stOptions.bLowLatency ? "low-latency" : "default"},
                        {"play delay, ms", fmt::format("{}", stResult.stOptions.uPlayDelayMs)}};
    series.SetRun(stRun);
    for (const tagUserResult& stUser : stResult.vecUsers)
        series.NameUser(stUser.llAccount, stUser.strName);
    nlohmann::ordered_json j = series.Json();
    AddCaptureTable(j["tables"], stResult);
    AddPlayedTable(j["tables"], stResult);
    AddRequestTable(j["tables"], stResult);
    AddUserTable(j["tables"], stResult);
    if (stResult.ullBroken != 0)
        AddBrokenChecks(j, stResult.ullBroken, stResult.vecViolations);
    return j;
}

nlohmann::ordered_json ReplayJson(const tagReplayResult& stResult)
{
    nlohmann::ordered_json j;
    j["format"] = "udtlab-replay";
    j["version"] = 1;
    j["captures"] = stResult.stOptions.vecCaptures;
    j["options"] = {{"mode", stResult.stOptions.bLowLatency ? "low-latency" : "default"},
                    {"play_delay_ms", stResult.stOptions.uPlayDelayMs}};
    j["start_us"] = stResult.ullStartUs;
    j["duration_ms"] = stResult.dwDurationMs;
    j["run_ms"] = stResult.dwRunMs;

    const tagCaptureStats& st = stResult.stCapture;
    auto& c = j["input"];
    c["records"] = st.ullRecords;
    c["datagrams"] = st.ullDatagrams;
    c["rtp"] = stResult.stTotals.ullRtp;
    c["rtcp"] = stResult.stTotals.ullRtcp;
    c["not_ip"] = st.ullNotIp;
    c["not_udp"] = st.ullNotUdp;
    c["fragments"] = st.ullFragments;
    c["cut_headers"] = st.ullCutHeaders;
    c["time_back"] = st.ullTimeBack;
    c["skipped"] = nlohmann::ordered_json::object();
    for (int i = 0; i < RTP_DROP_COUNT; i++)
        c["skipped"][RtpDropText((emRtpDrop)i)] = stResult.stTotals.aDrops[(size_t)i];
    c["error"] = stResult.strInputError.empty() ? nlohmann::ordered_json()
                                                : nlohmann::ordered_json(stResult.strInputError);

    j["guesses"] = stResult.vecGuesses;
    j["streams"] = nlohmann::ordered_json::array();
    for (size_t i = 0; i < stResult.vecStreams.size(); i++)
        j["streams"].push_back(StreamJson(i, stResult.vecStreams[i]));
    j["users"] = nlohmann::ordered_json::array();
    for (const tagUserResult& stUser : stResult.vecUsers)
    {
        nlohmann::ordered_json u;
        u["user"] = stUser.strName;
        u["account"] = fmt::format("{:016x}", stUser.llAccount);
        u["streams"] = stUser.vecStreams;
        u["av_offset_ms"] = DelayJson(stUser.avOffset);
        if (stUser.avOffset.Count())
            u["av_offset_ms"]["signed_mean"] =
                Rounded((double)stUser.llAvSumMs / (double)stUser.avOffset.Count());
        j["users"].push_back(u);
    }
    j["pull_backs"] = stResult.ullPullBacks;
    j["stats"] = nlohmann::ordered_json::parse(UdtStatsJson(stResult.stStats, -1));
    if (stResult.stOptions.bEndReport)
        j["end_report"] = stResult.vecEndReport;
    j["checks"] = {
        {"ok", stResult.ullBroken == 0}, {"broken", stResult.ullBroken}, {"lines", stResult.vecViolations}};
    return j;
}

} // namespace lab
