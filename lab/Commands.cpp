#include "Commands.h"

#include "Files.h"
#include "FlightRecorder.h"
#include "ListenCommand.h"
#include "MatrixCommand.h"
#include "Replay.h"
#include "ReplayReport.h"
#include "ReportCommand.h"
#include "ReportFiles.h"
#include "SimCommand.h"

#include <CLI/CLI.hpp>
#include <fmt/format.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>

namespace lab
{

namespace
{

struct tagReplayArgs
{
    tagReplayOptions st;
    std::string strJson;
    std::string strStats;
    tagReportFiles stFiles;
    std::string strMode = "default";
    std::vector<std::string> vecMaps;
};

void AddReplay(CLI::App& app, tagReplayArgs& args)
{
    CLI::App* p = app.add_subcommand("replay", "Play RTP captures through the receiver, in virtual time");
    p->add_option(
         "captures", args.st.vecCaptures,
         "pcap, pcapng or rtpdump files, several are merged by time; or one flight recording of listen")
        ->required()
        ->type_name("CAPTURE");
    p->add_option("--json", args.strJson, "write all figures as JSON (-: to stdout, instead of the tables)")
        ->type_name("FILE");
    p->add_option("--stats", args.strStats, c_pszStatsHelp)->type_name("FILE");
    p->add_option("--html", args.stFiles.strHtml, c_pszHtmlHelp)->type_name("FILE");
    p->add_option("--report", args.stFiles.strReport, c_pszReportHelp)->type_name("FILE");
    p->add_option("--out", args.st.strOut, "write what was played, when it was played, as pcap")
        ->type_name("FILE");
    p->add_option("--mode", args.strMode, "the receiver's mode: default or low-latency")
        ->check(CLI::IsMember({"default", "low-latency"}))
        ->type_name("MODE");
    p->add_option("--log-level", args.st.nLogLevel,
                  "print the receiver's log lines up to this level on stderr (4: events, 5: every packet)")
        ->check(CLI::Range(0, 5))
        ->type_name("N");
    p->add_option("--play-delay", args.st.uPlayDelayMs,
                  "the audio device's delay that the owner reports; audio leaves that much earlier")
        ->check(CLI::Range(0, 10000))
        ->type_name("MS");
    p->add_option("--speed", args.st.dSpeed, "play at N times real time instead of as fast as possible")
        ->check(CLI::Range(0.001, 1000000.0))
        ->type_name("N");
    p->add_flag("--end-report", args.st.bEndReport, "end with the receiver's own end report");
    p->add_option("--map", args.vecMaps,
                  "what a payload type means: PT=codec/clock, or PT=rtx:APT; may be given again")
        ->allow_extra_args(false)
        ->multi_option_policy(CLI::MultiOptionPolicy::TakeAll)
        ->type_name("PT=CODEC/CLOCK");
}

bool WriteJson(const std::string& strPath, const tagReplayResult& stResult, std::string& strError)
{
    // A CNAME is whatever bytes the peer sent: what is not UTF-8 is replaced.
    const std::string strText =
        ReplayJson(stResult).dump(2, ' ', false, nlohmann::json::error_handler_t::replace) + "\n";
    return WriteText(strPath, strText, strError);
}

// A flight recording of `udtlab listen`: are the decisions those that were made then?
int ReplayFlightFile(const tagReplayArgs& args)
{
    CRunSeries series;
    const std::string& strPath = args.st.vecCaptures.front();
    const tagFlightResult st = ReplayFlight(strPath, args.stFiles.Wanted() ? &series : nullptr);
    if (!st.strError.empty())
        return Complain(st.strError);
    nlohmann::ordered_json j;
    j["format"] = "udtlab-flight-replay";
    j["version"] = 1;
    j["recording"] = nlohmann::ordered_json::parse(st.strHeader, nullptr, false);
    j["span_ms"] = st.dwSpanMs;
    j["packets"] = st.ullPackets;
    j["turns"] = st.ullTurns;
    j["releases"] = st.ullReleases;
    j["requests"] = st.ullRequests;
    j["states_compared"] = st.ullStates;
    j["equal"] = st.strDifference.empty();
    j["first_difference"] =
        st.strDifference.empty() ? nlohmann::ordered_json() : nlohmann::ordered_json(st.strDifference);
    if (args.strJson != "-" && !args.stFiles.ToStdout())
        fmt::print("{}: {:.1f} s, {} packets in, {} turns, {} releases, {} requests\n{}\n", strPath,
                   st.dwSpanMs / 1000.0, st.ullPackets, st.ullTurns, st.ullReleases, st.ullRequests,
                   st.strDifference.empty()
                       ? fmt::format(
                             "every release and request as it was then, and the receiver's state at {} times",
                             st.ullStates)
                       : "DIFFERENT " + st.strDifference);
    std::string strError;
    int nExit = st.strDifference.empty() ? 0 : 3;
    if (!args.strJson.empty() && !WriteText(args.strJson, j.dump(2) + "\n", strError))
        nExit = std::max(nExit, Complain(strError));
    if (args.stFiles.Wanted())
    {
        tagSeriesRun stRun;
        stRun.strKind = "listen";
        stRun.strTitle = strPath.substr(strPath.rfind('/') + 1);
        series.SetRun(stRun);
        if (!WriteReport(args.stFiles, series.Json(), strError))
            nExit = std::max(nExit, Complain(strError));
    }
    return nExit;
}

int Replay(tagReplayArgs& args)
{
    std::string strError;
    if (args.st.vecCaptures.size() == 1 && IsFlightFile(args.st.vecCaptures.front()))
        return ReplayFlightFile(args);
    for (const std::string& strMap : args.vecMaps)
        if (!ParseRtpMap(strMap, args.st.mapFormats, strError))
            return Complain(fmt::format("--map {}: {}", strMap, strError));
    for (const std::string& strCapture : args.st.vecCaptures)
        for (const std::string& strFile :
             {args.st.strOut, args.strJson, args.strStats, args.stFiles.strReport, args.stFiles.strHtml})
            if (SameFile(strCapture, strFile))
                return Complain(fmt::format("{}: is a capture to be read, it is not overwritten", strFile));
    args.st.bLowLatency = args.strMode == "low-latency";
    args.st.bProgress = args.st.nLogLevel == 0;
    args.st.fnLog = [](const std::string& strLine) { fmt::print(stderr, "{}\n", strLine); };

    CRunSeries series;
    if (args.stFiles.Wanted())
        args.st.pSeries = &series;
    const tagReplayResult stResult = RunReplay(args.st);

    const bool bJsonOnly = args.strJson == "-" || args.stFiles.ToStdout();
    if (stResult.bPlayed && !bJsonOnly)
    {
        const bool bColours = isatty(STDOUT_FILENO) && !getenv("NO_COLOR");
        fmt::print("{}", ReplayTable(stResult, bColours));
        fflush(stdout);
    }
    int nExit = stResult.ExitCode();
    for (const std::string& strLine : {stResult.strInputError, stResult.strOutputError})
        if (!strLine.empty())
            Complain(strLine);
    if (stResult.bPlayed && !args.strJson.empty() && !WriteJson(args.strJson, stResult, strError))
    {
        Complain(strError);
        nExit = std::max(nExit, c_nExitBad);
    }
    if (stResult.bPlayed && !args.strStats.empty() &&
        !WriteText(args.strStats, StatsText(args.strStats, stResult.stStats), strError))
        nExit = std::max(nExit, Complain(strError));
    if (stResult.bPlayed && args.stFiles.Wanted() &&
        !WriteReport(args.stFiles, ReplayRunReport(stResult, series), strError))
        nExit = std::max(nExit, Complain(strError));
    if (stResult.ullBroken)
        fmt::print(stderr, "udtlab: {} checks of the receiver's behaviour were broken; the first: {}\n",
                   stResult.ullBroken, stResult.vecViolations.front());
    return nExit;
}

} // namespace

int Main(int argc, char** argv)
{
    CLI::App app("udtlab: a laboratory for the receiver of real-time calls");
    app.require_subcommand(1);
    tagReplayArgs replay;
    AddReplay(app, replay);
    CSimCommand simulate(app);
    CMatrixCommand matrix(app);
    CListenCommand listen(app);
    CReportCommand report(app);
    try
    {
        app.parse(argc, argv);
        if (app.got_subcommand("replay"))
            return Replay(replay);
        if (app.got_subcommand("simulate"))
            return simulate.Run();
        if (app.got_subcommand("matrix"))
            return matrix.Run();
        if (app.got_subcommand("listen"))
            return listen.Run();
        if (app.got_subcommand("report"))
            return report.Run();
    }
    catch (const CLI::ParseError& e)
    {
        if (e.get_exit_code() == 0) // --help
            return app.exit(e);
        // A word that is no command is reported as if nothing had been asked for.
        if (argc > 1 && argv[1][0] != '-' && app.get_subcommands().empty())
            return Complain(
                fmt::format("\"{}\" is not a command (expected: replay, simulate, matrix, listen or report)",
                            Printable(argv[1], 40)));
        return Complain(e.what());
    }
    catch (const std::exception& e)
    {
        return Complain(e.what());
    }
    return 0;
}

} // namespace lab
