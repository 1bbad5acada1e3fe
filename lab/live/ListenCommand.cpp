#include "ListenCommand.h"

#include "Files.h"
#include "Listen.h"
#include "ListenReport.h"
#include "ReportFiles.h"
#include "RunSeries.h"
#include "Sdp.h"
#include "Udp.h"

#include <CLI/CLI.hpp>
#include <fmt/format.h>

#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <unistd.h>

namespace lab
{

namespace
{

constexpr uint32 c_dwLineEverySeconds = 5;

// Can the file be written when the call is over? Asked before it begins; what is there stays as it is.
bool CanWrite(const std::string& strPath, std::string& strError)
{
    if (strPath.empty() || strPath == "-")
        return true;
    const bool bThere = access(strPath.c_str(), F_OK) == 0;
    const int nFd = open(strPath.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0666);
    if (nFd < 0)
    {
        strError = fmt::format("{}: cannot be written: {}", strPath, strerror(errno));
        return false;
    }
    close(nFd);
    if (!bThere)
        unlink(strPath.c_str());
    return true;
}

// "HOST:PORT" for every medium, "audio=HOST:PORT" for one.
bool ParseMediumEndpoint(const std::string& strText, std::string& strMedium, tagRtpAddr& stAddr,
                         std::string& strError)
{
    const size_t nEquals = strText.find('=');
    strMedium = nEquals == std::string::npos ? "" : strText.substr(0, nEquals);
    if (!strMedium.empty() && strMedium != "audio" && strMedium != "video")
    {
        strError = fmt::format(
            "\"{}\" is not a medium (expected HOST:PORT, audio=HOST:PORT or video=HOST:PORT)", strMedium);
        return false;
    }
    return ParseEndpoint(nEquals == std::string::npos ? strText : strText.substr(nEquals + 1), stAddr,
                         strError);
}

} // namespace

struct CListenCommand::tagArgs
{
    CLI::App* pApp = nullptr;
    tagListenOptions st;
    int nAudio = -1;
    int nVideo = -1;
    std::string strSdp;
    std::vector<std::string> vecMaps;
    std::vector<std::string> vecRtcpTo;
    std::vector<std::string> vecForward;
    std::string strDrop;
    std::string strDelay;
    std::string strReorder;
    std::string strMode = "default";
    double dDuration = 0;
    std::string strJson;
    std::string strStats;
    tagReportFiles stFiles;
    bool bQuiet = false;
    bool bUsersByCname = false;
};

CListenCommand::CListenCommand(CLI::App& app) : m_pArgs(std::make_unique<tagArgs>())
{
    tagArgs& args = *m_pArgs;
    args.st.dwFlightSeconds = 30;
    CLI::App* p = args.pApp =
        app.add_subcommand("listen", "Receive live RTP, ask for what is lost, and show how it plays");
    p->add_option("--audio", args.nAudio, "UDP port that audio comes in on (0: any free one)")
        ->check(CLI::Range(0, 65535))
        ->type_name("PORT");
    p->add_option("--video", args.nVideo, "UDP port that video comes in on; may be the same")
        ->check(CLI::Range(0, 65535))
        ->type_name("PORT");
    p->add_option("--sdp", args.strSdp,
                  "session description: payload types, RTX pairs, ports where none are given")
        ->type_name("FILE");
    p->add_option("--map", args.vecMaps,
                  "what a payload type means: PT=codec/clock, or PT=rtx:APT; may be given again")
        ->allow_extra_args(false)
        ->multi_option_policy(CLI::MultiOptionPolicy::TakeAll)
        ->type_name("PT=CODEC/CLOCK");
    p->add_option("--bind", args.st.strBind, "address to listen on")->type_name("ADDRESS");
    p->add_flag("--rtcp-mux", args.st.bRtcpMux, "RTCP on the ports of RTP, not on the ones above");
    p->add_option("--rtcp-to", args.vecRtcpTo,
                  "where RTCP goes: [audio=|video=]HOST:PORT; else where the sender's RTCP comes from")
        ->allow_extra_args(false)
        ->multi_option_policy(CLI::MultiOptionPolicy::TakeAll)
        ->type_name("HOST:PORT");
    p->add_flag("--rtcp-rsize", args.st.bReducedSize, "NACKs and PLIs without a report in front (RFC 5506)");
    p->add_flag("--any-source", args.st.bAnySource,
                "senders of several addresses on one port; each SSRC is held to its own");
    p->add_flag(
        "--users-by-cname", args.bUsersByCname,
        "a stream that begins before its CNAME was heard is a user of its own; else one host is one user");
    p->add_flag("--no-requests", args.st.bNoRequests, "send reports, but neither NACKs nor PLIs");
    p->add_option("--duration", args.dDuration, "stop after this long; else at SIGINT or SIGTERM")
        ->check(CLI::Range(0.1, 1000000.0))
        ->type_name("S");
    p->add_option("--forward", args.vecForward, "send what is played as RTP to [audio=|video=]HOST:PORT")
        ->allow_extra_args(false)
        ->multi_option_policy(CLI::MultiOptionPolicy::TakeAll)
        ->type_name("HOST:PORT");
    p->add_option("--out", args.st.strOut, "write what was played, when it was played, as pcap")
        ->type_name("FILE");
    p->add_option("--json", args.strJson, "write all figures as JSON (-: to stdout, instead of the tables)")
        ->type_name("FILE");
    p->add_option("--stats", args.strStats, c_pszStatsHelp)->type_name("FILE");
    p->add_option("--html", args.stFiles.strHtml, c_pszHtmlHelp)->type_name("FILE");
    p->add_option("--report", args.stFiles.strReport, c_pszReportHelp)->type_name("FILE");
    p->add_option("--web", args.st.nWebPort,
                  "serve a live page, /metrics and /stats.json on this port (0: any free one)")
        ->check(CLI::Range(0, 65535))
        ->type_name("PORT");
    p->add_option("--web-bind", args.st.strWebBind, "address of --web; whoever reaches it sees the call")
        ->type_name("ADDRESS");
    p->add_option("--flight", args.st.dwFlightSeconds,
                  "seconds that the flight recorder keeps (packet heads and decisions); 0: none")
        ->check(CLI::Range(0, 3600))
        ->type_name("S")
        ->capture_default_str();
    p->add_option("--flight-dir", args.st.strFlightDir,
                  "folder that it is written to: on SIGUSR1, when a stall is over, on the page's request")
        ->type_name("FOLDER");
    p->add_option("--mode", args.strMode, "the receiver's mode: default or low-latency")
        ->check(CLI::IsMember({"default", "low-latency"}))
        ->type_name("MODE");
    p->add_option("--play-delay", args.st.uPlayDelayMs,
                  "the audio device's delay that the owner reports; audio leaves that much earlier")
        ->check(CLI::Range(0, 10000))
        ->type_name("MS");
    p->add_option("--log-level", args.st.nLogLevel,
                  "print the receiver's log lines up to this level on stderr (4: events, 5: every packet)")
        ->check(CLI::Range(0, 5))
        ->type_name("N");
    p->add_flag("--end-report", args.st.bEndReport, "end with the receiver's own end report");
    p->add_flag("--quiet", args.bQuiet, "say nothing until the end");

    p->add_option("--drop", args.strDrop, "drop this share of the RTP packets on arrival, for example 5%")
        ->type_name("SHARE")
        ->group("A bad network inside the tool");
    p->add_option("--delay", args.strDelay,
                  "delay everything that comes in, for example 40+-20ms; the order stays")
        ->type_name("MS")
        ->group("A bad network inside the tool");
    p->add_option("--reorder", args.strReorder, "let this share of the RTP packets come 20 ms late")
        ->type_name("SHARE")
        ->group("A bad network inside the tool");
    p->add_option("--seed", args.st.stImpair.ullSeed, "of the dice of these")
        ->type_name("N")
        ->group("A bad network inside the tool");

    p->add_option("--hold-off", args.st.stShaper.dwReorderHoldMs,
                  "ask for a missing packet this much later, as it may only be out of order")
        ->check(CLI::Range(0, 10000))
        ->type_name("MS")
        ->group("Fewer requests");
    p->add_flag("--once-per-rtt", args.st.stShaper.bOncePerRtt,
                "do not ask again for a packet before an answer could have come")
        ->group("Fewer requests");
    p->add_option("--max-rate", args.st.stShaper.dwMaxSeqsPerSecond,
                  "ask for so many packets in any second at most")
        ->check(CLI::Range(1, 1000000))
        ->type_name("N")
        ->group("Fewer requests");
    p->add_option("--max-tries", args.st.stShaper.dwMaxTries, "ask for a packet so many times at most")
        ->check(CLI::Range(1, 1000))
        ->type_name("N")
        ->group("Fewer requests");
    p->add_flag("--give-up-pli", args.st.stShaper.bGiveUpPli,
                "when a packet of video is out of tries, send a PLI")
        ->group("Fewer requests");
}

CListenCommand::~CListenCommand() = default;

int CListenCommand::Run()
{
    tagArgs& args = *m_pArgs;
    tagListenOptions& st = args.st;
    std::string strError;
    tagSdp stSdp;
    if (!args.strSdp.empty() && !ReadSdp(args.strSdp, stSdp, strError))
        return Complain(strError);
    st.stRtp.mapFormats = stSdp.mapFormats;
    st.stRtp.mapRtxSsrc = stSdp.mapRtxSsrc;
    st.mapCnames = stSdp.mapCnames;
    st.stRtp.nTransportSeqId = stSdp.nTransportSeqId;
    st.bRtcpMux = st.bRtcpMux || stSdp.bRtcpMux;
    st.bReducedSize = st.bReducedSize || stSdp.bReducedSize;
    for (const std::string& strMap : args.vecMaps)
        if (!ParseRtpMap(strMap, st.stRtp.mapFormats, strError))
            return Complain(fmt::format("--map {}: {}", strMap, strError));
    if (args.nAudio < 0 && args.nVideo < 0)
    {
        args.nAudio = stSdp.wAudioPort != 0 ? stSdp.wAudioPort : -1;
        args.nVideo = stSdp.wVideoPort != 0 ? stSdp.wVideoPort : -1;
    }
    if (args.nAudio < 0 && args.nVideo < 0)
        return Complain(
            "no port to listen on (expected --audio PORT, --video PORT, or an --sdp FILE that names them)");
    if (args.nAudio > 0 && args.nAudio == args.nVideo)
    {
        st.vecPorts.push_back({"media", (uint16)args.nAudio, {}});
        args.nAudio = args.nVideo = -1;
    }
    if (args.nAudio >= 0)
        st.vecPorts.push_back({"audio", (uint16)args.nAudio, {}});
    if (args.nVideo >= 0)
        st.vecPorts.push_back({"video", (uint16)args.nVideo, {}});
    for (const std::string& strTo : args.vecRtcpTo)
    {
        std::string strMedium;
        tagRtpAddr stAddr;
        if (!ParseMediumEndpoint(strTo, strMedium, stAddr, strError))
            return Complain("--rtcp-to: " + strError);
        for (tagListenPort& stPort : st.vecPorts)
            if (strMedium.empty() || stPort.strMedium == strMedium || stPort.strMedium == "media")
                stPort.stRtcpTo = stAddr;
    }
    for (const std::string& strTo : args.vecForward)
    {
        std::string strMedium;
        tagRtpAddr stAddr;
        if (!ParseMediumEndpoint(strTo, strMedium, stAddr, strError))
            return Complain("--forward: " + strError);
        st.vecForward.emplace_back(strMedium, stAddr);
    }
    if (!args.strDrop.empty() && !ParseShare(args.strDrop, st.stImpair.dDrop, strError))
        return Complain("--drop: " + strError);
    if (!args.strReorder.empty() && !ParseShare(args.strReorder, st.stImpair.dReorder, strError))
        return Complain("--reorder: " + strError);
    if (!args.strDelay.empty() &&
        !ParseDelay(args.strDelay, st.stImpair.dwDelayMs, st.stImpair.dwSpreadMs, strError))
        return Complain("--delay: " + strError);
    for (const std::string& strPath :
         {args.strJson, args.strStats, st.strOut, args.stFiles.strHtml, args.stFiles.strReport})
        if (!CanWrite(strPath, strError))
            return Complain(strError);
    if (st.dwFlightSeconds != 0 && access(st.strFlightDir.c_str(), W_OK | X_OK) != 0)
        return Complain(
            fmt::format("--flight-dir {}: cannot be written to: {}", st.strFlightDir, strerror(errno)));
    st.bLowLatency = args.strMode == "low-latency";
    st.dwDurationMs = (uint32)std::lround(args.dDuration * 1000);
    st.fnLog = [](const std::string& strLine) { fmt::print(stderr, "{}\n", strLine); };
    st.bSignals = true;
    st.bOneUser = !args.bUsersByCname;

    tagSeriesOptions stSeries;
    stSeries.ullWindowMs = st.nWebPort >= 0 ? 120000 : 0;
    CRunSeries series(stSeries);
    if (args.stFiles.Wanted() || st.nWebPort >= 0)
        st.pSeries = &series;

    // Progress goes to stderr: stdout is for the tables, or the JSON.
    const bool bTty = isatty(STDERR_FILENO) && st.nLogLevel == 0;
    size_t nShown = 0;
    uint32 dwSeconds = 0;
    tagListenHooks stHooks;
    if (!args.bQuiet)
    {
        stHooks.fnReady = [](const std::vector<tagListenSource>& vecSources, const std::string& strWeb)
        {
            for (const tagListenSource& stSource : vecSources)
                fmt::print(stderr, "{}: RTP on {}, RTCP on {}\n", stSource.strMedium, stSource.strListens,
                           stSource.strRtcp);
            if (!strWeb.empty())
                fmt::print(stderr, "live page: {}\n", strWeb);
        };
        stHooks.fnFlight = [](const std::string& strFile, const std::string& strWhy) {
            fmt::print(stderr, "{}{}\n",
                       strWhy.empty() ? "" : "flight recording (" + strWhy + "): ", strFile);
        };
        stHooks.fnSecond = [&](const tagListenNow& stNow)
        {
            dwSeconds++;
            if (!bTty)
            {
                if (dwSeconds % c_dwLineEverySeconds == 0)
                    fmt::print(stderr, "{}\n", ListenLine(stNow));
                return;
            }
            std::string strScreen = nShown ? fmt::format("\033[{}A", nShown) : "";
            const std::vector<std::string> vecLines = ListenLiveTable(stNow);
            for (const std::string& strLine : vecLines)
                strScreen += "\r\033[K" + strLine.substr(0, 119) + "\n";
            nShown = vecLines.size();
            fmt::print(stderr, "{}", strScreen);
        };
    }
    const tagListenResult stResult = RunListen(st, stHooks);
    if (!stResult.strError.empty())
        return Complain(stResult.strError);

    int nExit = stResult.st.ExitCode();
    if (!stResult.st.strOutputError.empty())
        Complain(stResult.st.strOutputError);
    if (args.strJson != "-" && !args.stFiles.ToStdout())
    {
        const bool bColours = isatty(STDOUT_FILENO) && !getenv("NO_COLOR");
        fmt::print("{}", ListenTable(stResult, bColours));
        fflush(stdout);
    }
    if (!args.strJson.empty())
    {
        const std::string strText =
            ListenJson(stResult).dump(2, ' ', false, nlohmann::json::error_handler_t::replace) + "\n";
        if (!WriteText(args.strJson, strText, strError))
            nExit = std::max(nExit, Complain(strError));
    }
    if (!args.strStats.empty() &&
        !WriteText(args.strStats, StatsText(args.strStats, stResult.st.stStats), strError))
        nExit = std::max(nExit, Complain(strError));
    if (args.stFiles.Wanted() && !WriteReport(args.stFiles, ListenRunReport(stResult, series), strError))
        nExit = std::max(nExit, Complain(strError));
    if (stResult.st.ullBroken)
        fmt::print(stderr, "udtlab: {} checks of the receiver's behaviour were broken; the first: {}\n",
                   stResult.st.ullBroken, stResult.st.vecViolations.front());
    return nExit;
}

} // namespace lab
