#include "ListenReport.h"

#include "Files.h"
#include "ReplayReport.h"
#include "ReportTable.h"
#include "RunSeries.h"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>

namespace lab
{

namespace
{

std::string Percent(uint64 ullPart, uint64 ullWhole)
{
    return ullWhole ? fmt::format("{:.2f} %", 100.0 * (double)ullPart / (double)ullWhole) : "-";
}

nlohmann::ordered_json FateJson(const tagDropFate& st)
{
    return {{"dropped", st.ullDropped},
            {"came_back", st.ullBack},
            {"played_in_time", st.ullInTime},
            {"played_late", st.ullLate},
            {"never", st.ullNever}};
}

const char* StateName(CDropList::EState eState)
{
    switch (eState)
    {
    case CDropList::Back: return "back";
    case CDropList::InTime: return "in_time";
    case CDropList::Late: return "late";
    default: return "never";
    }
}

void Add(tagDropFate& stSum, const tagDropFate& st)
{
    stSum.ullDropped += st.ullDropped;
    stSum.ullBack += st.ullBack;
    stSum.ullInTime += st.ullInTime;
    stSum.ullLate += st.ullLate;
    stSum.ullNever += st.ullNever;
}

// Answers are no packets of their own: what counts is whether the packet they repeat came.
tagDropFate Sum(const tagListenResult& stResult, tagDropFate tagListenDrops::*pFate)
{
    tagDropFate stSum;
    for (const tagListenDrops& st : stResult.vecDrops)
        if (!st.bAnswers && st.nStream >= 0)
            Add(stSum, st.*pFate);
    return stSum;
}

constexpr uint32 c_dwLiveMs = 120000; // of the live page

double Rounded(double d) { return std::round(d * 1000.0) / 1000.0; }

void DropTable(std::string& str, const tagListenResult& stResult)
{
    if (!stResult.stImpair.Any())
        return;
    str += fmt::format("\n{:>3}  {:<8}  {:>8}  {:>9}  {:>14}  {:>11}  {:>5}   {}\n", "#", "SSRC", "dropped",
                       "came back", "played in time", "played late", "never", "by this tool");
    for (const tagListenDrops& st : stResult.vecDrops)
    {
        if (st.bAnswers || st.nStream < 0)
        {
            str += fmt::format("{:>3}  {:08x}  {:>8}  {:>9}  {:>14}  {:>11}  {:>5}   {}\n",
                               st.nStream < 0 ? "-" : fmt::format("{}", st.nStream), st.dwSsrc,
                               st.stAll.ullDropped, "-", "-", "-", "-",
                               st.bAnswers ? "answers to requests" : "no stream came of it");
            continue;
        }
        str += fmt::format("{:>3}  {:08x}  {:>8}  {:>9}  {:>14}  {:>11}  {:>5}\n", st.nStream, st.dwSsrc,
                           st.stAll.ullDropped, st.stAll.ullBack, st.stAll.ullInTime, st.stAll.ullLate,
                           st.stAll.ullNever);
    }
    const tagDropFate stCounted = Sum(stResult, &tagListenDrops::stCounted);
    str += fmt::format(
        "     dropped later than {:.0f} s after a stream's first packet and earlier than {:.0f} s before "
        "the end: {}, of these played in time: {} ({})\n",
        stResult.dwWarmUpMs / 1000.0, stResult.dwTailMs / 1000.0, stCounted.ullDropped, stCounted.ullInTime,
        Percent(stCounted.ullInTime, stCounted.ullDropped));
}

void FeedbackTable(std::string& str, const tagListenResult& stResult)
{
    const tagListenFeedback& st = stResult.stFeedback;
    str += fmt::format("\nsent: {} reports, {} NACK messages for {} packets, {} PLIs", st.ullReports,
                       st.ullNacks, st.ullNackedSeqs, st.ullPlisNoKey + st.ullPlisLostKey + st.ullPlisGaveUp);
    if (st.ullPlisNoKey + st.ullPlisLostKey + st.ullPlisGaveUp != 0)
        str += fmt::format(" (no key frame: {}, key frame lost: {}, packet given up: {})", st.ullPlisNoKey,
                           st.ullPlisLostKey, st.ullPlisGaveUp);
    str += st.bRtt
               ? fmt::format("; round trip {:.1f} ms by {}\n", st.dRttMs,
                             st.strRttFrom == "XR" ? "the sender's extended reports" : "answered requests")
               : "; round trip not measured\n";
    if (st.ullUnsent != 0)
        str += fmt::format(
            "note: {} feedback messages had nowhere to go: no RTCP came from the sender (see --rtcp-to)\n",
            st.ullUnsent);
    const tagRtpShaperTotals& stShaper = st.stShaper;
    if (stShaper.ullSpared + stShaper.ullTooSoon + stShaper.ullTriesUsedUp + stShaper.ullDelayed +
            stShaper.ullTooLate !=
        0)
        str += fmt::format(
            "shaped: {} asked, {} sent; {} spared by the hold-off, {} within a round trip, {} out of "
            "tries, {} delayed by the rate, {} dropped by it\n",
            stShaper.ullAsked, stShaper.ullSent, stShaper.ullSpared, stShaper.ullTooSoon,
            stShaper.ullTriesUsedUp, stShaper.ullDelayed, stShaper.ullTooLate);
    for (const tagListenSource& stSource : stResult.vecSources)
    {
        if (stSource.ullForeign + stSource.ullForeignRtcp != 0)
            str += fmt::format("note: {} {}: {} datagrams from elsewhere than {} left out, {} of RTCP\n",
                               stSource.strMedium, stSource.strListens,
                               stSource.ullForeign + stSource.ullForeignRtcp, stSource.strLockedTo,
                               stSource.ullForeignRtcp);
        if (stSource.ullRelocked != 0)
            str += fmt::format("note: {} {}: a silent source gave way to another, {} times\n",
                               stSource.strMedium, stSource.strListens, stSource.ullRelocked);
    }
    if (stResult.ullStalls != 0)
    {
        uint32 dwLongest = 0;
        uint32 dwAt = 0;
        for (const tagLiveStall& stStall : stResult.vecStalls)
        {
            if (stStall.dwMs > dwLongest)
            {
                dwLongest = stStall.dwMs;
                dwAt = stStall.dwAtMs;
            }
        }
        str += fmt::format("note: {} stalls of {} ms or more, the longest {} ms, over at {:.1f} s\n",
                           stResult.ullStalls, CLiveCall::c_dwStallMs, dwLongest, dwAt / 1000.0);
    }
}

const char* Kind(const tagRtpStreamInfo& st)
{
    return st.stFormat.eKind == RTP_KIND_AUDIO   ? "audio"
           : st.stFormat.eKind == RTP_KIND_VIDEO ? "video"
           : st.stFormat.eKind == RTP_KIND_RTX   ? "rtx"
                                                 : "other";
}

const tagUdtStreamStats* StatsOf(const tagListenNow& stNow, const tagRtpStreamInfo& st)
{
    for (const tagUdtStreamStats& stStats : stNow.stStats.vecStreams)
        if (st.llAccount != 0 && stStats.llAccount == st.llAccount && stStats.dwSubType == st.cSubType)
            return &stStats;
    return nullptr;
}

std::string Seconds(uint32 dwMs) { return fmt::format("{:02}:{:02}", dwMs / 60000, dwMs / 1000 % 60); }

std::string RttText(const tagListenFeedback& st)
{
    return st.bRtt ? fmt::format("{:.0f} ms", st.dRttMs) : "-";
}

} // namespace

std::string ListenTable(const tagListenResult& stResult, bool bColours)
{
    // The tables of a replay, with what only a live call has above their last line.
    std::string str = ReplayTable(stResult.st, bColours);
    std::string strLive;
    DropTable(strLive, stResult);
    FeedbackTable(strLive, stResult);
    const size_t nChecks = str.rfind("\n\n");
    str.insert(nChecks == std::string::npos ? str.size() : nChecks + 1, strLive);
    return str;
}

nlohmann::ordered_json ListenJson(const tagListenResult& stResult)
{
    nlohmann::ordered_json j = ReplayJson(stResult.st);
    j["format"] = "udtlab-listen";
    j.erase("captures");
    auto& jSources = j["sources"] = nlohmann::ordered_json::array();
    for (const tagListenSource& st : stResult.vecSources)
        jSources.push_back({{"medium", st.strMedium},
                            {"rtp", st.strListens},
                            {"rtcp", st.strRtcp},
                            {"locked_to", st.strLockedTo},
                            {"rtcp_to", st.strRtcpTo},
                            {"datagrams", st.ullDatagrams},
                            {"foreign", st.ullForeign},
                            {"foreign_rtcp", st.ullForeignRtcp},
                            {"relocked", st.ullRelocked}});
    const tagListenFeedback& stFeedback = stResult.stFeedback;
    j["feedback"] = {{"reports", stFeedback.ullReports},
                     {"nack_messages", stFeedback.ullNacks},
                     {"nacked_packets", stFeedback.ullNackedSeqs},
                     {"plis_without_key_frame", stFeedback.ullPlisNoKey},
                     {"plis_key_frame_lost", stFeedback.ullPlisLostKey},
                     {"plis_packet_given_up", stFeedback.ullPlisGaveUp},
                     {"unsent", stFeedback.ullUnsent}};
    j["feedback"]["rtt_ms"] =
        stFeedback.bRtt ? nlohmann::ordered_json(Rounded(stFeedback.dRttMs)) : nlohmann::ordered_json();
    j["feedback"]["rtt_from"] =
        stFeedback.bRtt ? nlohmann::ordered_json(stFeedback.strRttFrom) : nlohmann::ordered_json();
    const tagRtpShaperTotals& stShaper = stFeedback.stShaper;
    j["shaper"] = {{"asked", stShaper.ullAsked},
                   {"sent", stShaper.ullSent},
                   {"spared", stShaper.ullSpared},
                   {"within_rtt", stShaper.ullTooSoon},
                   {"out_of_tries", stShaper.ullTriesUsedUp},
                   {"delayed", stShaper.ullDelayed},
                   {"too_late", stShaper.ullTooLate},
                   {"given_up", stShaper.ullGaveUp}};
    j["flights"] = stResult.vecFlights;
    j["forwarded"] = stResult.ullForwarded;
    auto& jStalls = j["stalls"] = nlohmann::ordered_json::array();
    for (const tagLiveStall& st : stResult.vecStalls)
        jStalls.push_back({{"stream", st.uStream}, {"over_at_ms", st.dwAtMs}, {"ms", st.dwMs}});

    const tagImpairOptions& stImpair = stResult.stImpair;
    if (!stImpair.Any())
    {
        j["impairment"] = nlohmann::ordered_json();
        return j;
    }
    auto& i = j["impairment"];
    i["drop"] = stImpair.dDrop;
    i["delay_ms"] = stImpair.dwDelayMs;
    i["delay_spread_ms"] = stImpair.dwSpreadMs;
    i["reorder"] = stImpair.dReorder;
    i["seed"] = stImpair.ullSeed;
    i["rtp_packets"] = stResult.ullImpairSeen;
    i["reordered"] = stResult.ullReordered;
    i["warm_up_ms"] = stResult.dwWarmUpMs;
    i["tail_ms"] = stResult.dwTailMs;
    i["all"] = FateJson(Sum(stResult, &tagListenDrops::stAll));
    i["counted"] = FateJson(Sum(stResult, &tagListenDrops::stCounted));
    i["streams"] = nlohmann::ordered_json::array();
    for (const tagListenDrops& st : stResult.vecDrops)
    {
        nlohmann::ordered_json s;
        s["ssrc"] = fmt::format("{:08x}", st.dwSsrc);
        s["stream"] = st.nStream >= 0 ? nlohmann::ordered_json(st.nStream) : nlohmann::ordered_json();
        s["answers"] = st.bAnswers;
        s["all"] = FateJson(st.stAll);
        s["counted"] = FateJson(st.stCounted);
        i["streams"].push_back(s);
    }
    // [ssrc, sequence, times dropped, what became of it]
    i["drop_list"] = nlohmann::ordered_json::array();
    for (const CDropList::tagEntry& st : stResult.vecDropList)
        i["drop_list"].push_back(
            {fmt::format("{:08x}", st.dwSsrc), st.wSeq, st.dwTimes, StateName(st.eState)});
    return j;
}

nlohmann::ordered_json ListenRunReport(const tagListenResult& stResult, CRunSeries& series)
{
    nlohmann::ordered_json j = ReplayRunReport(stResult.st, series);
    j["run"]["kind"] = "listen";
    auto& jOptions = j["run"]["options"];
    const tagImpairOptions& stImpair = stResult.stImpair;
    if (stImpair.dDrop > 0)
        jOptions.push_back({"drop", fmt::format("{:g} %", stImpair.dDrop * 100)});
    if (stImpair.dwDelayMs != 0)
        jOptions.push_back({"delay, ms", fmt::format("{} +- {}", stImpair.dwDelayMs, stImpair.dwSpreadMs)});
    if (stImpair.dReorder > 0)
        jOptions.push_back({"reorder", fmt::format("{:g} %", stImpair.dReorder * 100)});
    if (stImpair.Any())
        jOptions.push_back({"seed", fmt::format("{}", stImpair.ullSeed)});

    if (stImpair.Any())
    {
        CReportTable table("Dropped by this tool", {">#", "SSRC", ">dropped", ">came back", ">played in time",
                                                    ">played late", ">never"});
        for (const tagListenDrops& st : stResult.vecDrops)
            if (!st.bAnswers && st.nStream >= 0)
                table.Row({fmt::format("{}", st.nStream), fmt::format("{:08x}", st.dwSsrc),
                           fmt::format("{}", st.stAll.ullDropped), fmt::format("{}", st.stAll.ullBack),
                           fmt::format("{}", st.stAll.ullInTime), fmt::format("{}", st.stAll.ullLate),
                           fmt::format("{}", st.stAll.ullNever)});
        table.AddTo(j["tables"]);
    }
    const tagListenFeedback& st = stResult.stFeedback;
    CReportTable table("Feedback sent",
                       {">reports", ">NACK messages", ">packets asked for", ">PLIs", ">round trip, ms"});
    table.Row({fmt::format("{}", st.ullReports), fmt::format("{}", st.ullNacks),
               fmt::format("{}", st.ullNackedSeqs),
               fmt::format("{}", st.ullPlisNoKey + st.ullPlisLostKey + st.ullPlisGaveUp),
               st.bRtt ? fmt::format("{:.1f}", st.dRttMs) : "-"});
    table.AddTo(j["tables"]);
    return j;
}

nlohmann::ordered_json ListenLiveReport(const tagListenNow& stNow, CRunSeries& series)
{
    tagSeriesRun stRun;
    stRun.strKind = "listen";
    stRun.strTitle = "live";
    series.SetRun(stRun);
    for (const tagRtpStreamInfo& st : stNow.vecStreams)
        if (st.llAccount != 0)
            series.NameUser(st.llAccount,
                            st.strCname.empty() ? fmt::format("SSRC {:08x}", st.dwSsrc) : st.strCname);
    nlohmann::ordered_json j = series.Json(c_dwLiveMs);
    CReportTable table("Streams", {"user", "media", "codec", ">packets", ">lost", ">jitter, ms", ">asked",
                                   ">came", ">played"});
    for (const tagRtpStreamInfo& st : stNow.vecStreams)
    {
        const tagUdtStreamStats* p = StatsOf(stNow, st);
        table.Row({st.strCname.empty() ? fmt::format("SSRC {:08x}", st.dwSsrc) : st.strCname, Kind(st),
                   st.stFormat.strCodec, fmt::format("{}", st.stStat.ullPackets),
                   fmt::format("{}", st.stStat.ullLost), fmt::format("{:.1f}", st.stStat.dJitterMs),
                   p ? fmt::format("{}", p->packetsRequestedUnique.value_or(0)) : "-",
                   p ? fmt::format("{}", p->requestedPacketsReceived.value_or(0)) : "-",
                   p ? fmt::format("{}", p->packetsReleased.value_or(0)) : "-"});
    }
    table.AddTo(j["tables"]);
    return j;
}

std::string ListenLine(const tagListenNow& stNow)
{
    std::string str = Seconds(stNow.dwRunMs);
    for (const tagRtpStreamInfo& st : stNow.vecStreams)
    {
        const tagUdtStreamStats* p = StatsOf(stNow, st);
        if (p == nullptr)
            continue;
        str += fmt::format("  {} {:08x}: {} in, {} lost, {} asked, {} came, {} played", Kind(st), st.dwSsrc,
                           p->packetsReceived.value_or(0), st.stStat.ullLost,
                           p->packetsRequestedUnique.value_or(0), p->requestedPacketsReceived.value_or(0),
                           p->packetsReleased.value_or(0));
    }
    if (stNow.vecStreams.empty())
        return str + "  no stream yet";
    return str + fmt::format("  rtt {}", RttText(stNow.stFeedback));
}

std::vector<std::string> ListenLiveTable(const tagListenNow& stNow)
{
    std::vector<std::string> vec;
    vec.push_back(fmt::format("{}   round trip {}   {} NACK messages   {} PLIs{}", Seconds(stNow.dwRunMs),
                              RttText(stNow.stFeedback), stNow.stFeedback.ullNacks,
                              stNow.stFeedback.ullPlisNoKey + stNow.stFeedback.ullPlisLostKey +
                                  stNow.stFeedback.ullPlisGaveUp,
                              stNow.ullDropped ? fmt::format("   {} dropped here", stNow.ullDropped) : ""));
    vec.push_back(fmt::format("{:<21}  {:<5}  {:<12}  {:>8}  {:>6}  {:>7}  {:>7}  {:>6}  {:>8}", "user",
                              "media", "codec", "packets", "lost", "jitter", "asked", "came", "played"));
    for (const tagRtpStreamInfo& st : stNow.vecStreams)
    {
        const tagUdtStreamStats* p = StatsOf(stNow, st);
        const std::string strUser =
            st.strCname.empty() ? fmt::format("SSRC {:08x}", st.dwSsrc) : Printable(st.strCname, 21);
        vec.push_back(fmt::format("{:<21}  {:<5}  {:<12}  {:>8}  {:>6}  {:>4.0f} ms  {:>7}  {:>6}  {:>8}",
                                  strUser, Kind(st), Printable(st.stFormat.strCodec, 12),
                                  st.stStat.ullPackets, st.stStat.ullLost, st.stStat.dJitterMs,
                                  p ? fmt::format("{}", p->packetsRequestedUnique.value_or(0)) : "-",
                                  p ? fmt::format("{}", p->requestedPacketsReceived.value_or(0)) : "-",
                                  p ? fmt::format("{}", p->packetsReleased.value_or(0)) : "-"));
    }
    return vec;
}

} // namespace lab
