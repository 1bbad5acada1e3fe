// Every option of the command line is the short name of an option of the scenario's document; what is given is
// written into the document, and that is then read as if it had come from the file.

#include "SimCommand.h"

#include "Files.h"
#include "Progress.h"
#include "ReportFiles.h"
#include "SimReport.h"
#include "Simulate.h"

#include <CLI/CLI.hpp>
#include <fmt/format.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>

namespace lab
{

namespace
{

constexpr size_t c_nManyStreams = 24; // beyond this the tables are per user unless asked otherwise

// "5%" is 5 where percents are meant; traces on the command line are relative to where one stands, not to the
// scenario.
struct tagShort
{
    const char* pszName; // without the dashes
    const char* pszPath; // in the document
    const char* pszWhat;
    const char* pszUnit;
};

const tagShort c_aCall[] = {
    {"seconds", "seconds", "length of the call", "S"},
    {"seed", "seed", "the number from which all chance comes", "N"},
    {"mode", "receiver.mode", "the receiver's mode: default or low-latency", "MODE"},
    {"play-delay", "receiver.play_delay_ms", "the audio device's delay that the owner reports", "MS"},
    {"join", "receiver.join_s", "when the receiver joins the call", "S"},
    {"push-gops", "relay.push_gops", "GOPs that the relay pushes to the joining receiver", "N"},
    {"history", "relay.history_ms", "how long relay and senders can answer requests for a packet", "MS"},
};
const tagShort c_aMedia[] = {
    {"audio", "users.audio.kbps", "audio of every user", "KBPS"},
    {"video", "users.video.kbps", "big video of every user, 0 for none", "KBPS"},
    {"small", "users.small.kbps", "small video of every user, 0 for none", "KBPS"},
    {"sub", "users.sub.kbps", "sub video of every user, 0 for none", "KBPS"},
    {"share", "users.share.kbps", "screen share of every user, 0 for none", "KBPS"},
    {"fps", "users.video.fps", "frames per second of the big video", "N"},
    {"gop", "users.video.gop", "frames per GOP of the big video", "N"},
    {"i-ratio", "users.video.i_ratio", "I frame over P frame of the big video, in bytes", "X"},
    {"mtu", "users.video.mtu", "largest packet of the big video", "BYTES"},
    {"fec", "users.video.fec", "FEC packets per frame of the big video", "N"},
    {"skew", "users.skew_ppm", "how fast the senders' clocks run", "PPM"},
};
const tagShort c_aFirst[] = {
    {"first-seq", "users.first.seq", "first sender sequence of every stream", "N"},
    {"first-gop", "users.first.gop", "first GOP index", "N"},
    {"first-media", "users.first.media_ms", "media time at the start of the call", "MS"},
    {"first-transport", "users.first.transport_ms", "16-bit transport time at the start of the call", "MS"},
    {"first-tick", "receiver.first_tick", "tick of the receiver's clock at the start of the call", "MS"},
    {"first-down-seq", "relay.first_down_seq", "first downlink sequence", "N"},
};
const tagShort c_aNet[] = {
    {"loss", "loss_percent", "packets lost", "PERCENT"},
    {"burst", "burst", "mean packets per loss burst (Gilbert-Elliott)", "N"},
    {"loss-trace", "loss_trace", "losses as recorded", "FILE"},
    {"delay", "delay_ms", "one way", "MS"},
    {"jitter", "jitter_ms", "standard deviation of the delay", "MS"},
    {"delay-trace", "delay_trace", "delay as recorded by ping", "FILE"},
    {"reorder", "reorder_percent", "packets held back and overtaken", "PERCENT"},
    {"reorder-by", "reorder_ms", "for up to this long", "MS"},
    {"duplicate", "duplicate_percent", "packets that come twice", "PERCENT"},
    {"rate", "rate_kbps", "rate of the bottleneck", "KBPS"},
    {"rate-trace", "rate_trace", "rate as recorded (mahimahi or the 5G table)", "FILE"},
    {"queue", "queue_ms", "depth of the bottleneck's queue", "MS"},
    {"queue-bytes", "queue_bytes", "the same in bytes", "BYTES"},
};
const char* const c_aWays[][3] = {
    {"", "down", "Relay to receiver"},
    {"up-", "up", "Senders to relay"},
    {"request-", "request", "Receiver to relay"},
};

bool EndsWith(const std::string& str, const char* pszEnd)
{
    const size_t n = strlen(pszEnd);
    return str.size() >= n && str.compare(str.size() - n, n, pszEnd) == 0;
}

} // namespace

struct CSimCommand::tagArgs
{
    struct tagGiven
    {
        std::string strPath;
        std::string strValue;
        CLI::Option* pOption = nullptr;
    };
    std::deque<tagGiven> listGiven; // addresses must stay: the parser writes into them
    std::string strScenario;
    std::string strUsers;
    std::string strRtt;
    std::vector<std::string> vecSet;
    std::string strJson;
    std::string strStats;
    tagReportFiles stFiles;
    int nLogLevel = 0;
    bool bSpeed = false;
    bool bStreams = false;
    bool bEndReport = false;
    bool bPrint = false;

    void Add(CLI::App& app, const std::string& strName, const std::string& strPath, const tagShort& st,
             const std::string& strGroup)
    {
        listGiven.emplace_back();
        tagGiven& stGiven = listGiven.back();
        stGiven.strPath = strPath;
        stGiven.pOption = app.add_option("--" + strName, stGiven.strValue, st.pszWhat)
                              ->type_name(st.pszUnit)
                              ->group(strGroup);
    }
    // What was set on the command line, for the head of a report.
    std::vector<std::pair<std::string, std::string>> Given() const;
    bool MakeScenario(tagScenario& stScenario, nlohmann::ordered_json& j, std::string& strError) const;
};

CSimCommand::CSimCommand(CLI::App& app) : m_pArgs(std::make_unique<tagArgs>())
{
    tagArgs& args = *m_pArgs;
    CLI::App& sub =
        *app.add_subcommand("simulate", "A whole call in virtual time: senders, network, relay, receiver");
    sub.add_option("--scenario", args.strScenario,
                   "what to simulate, see docs/simulate.md; options given here override it")
        ->type_name("FILE.json");
    sub.add_option("--json", args.strJson, "write all figures as JSON (-: to stdout, instead of the tables)")
        ->type_name("FILE");
    sub.add_option("--html", args.stFiles.strHtml, c_pszHtmlHelp)->type_name("FILE");
    sub.add_option("--report", args.stFiles.strReport, c_pszReportHelp)->type_name("FILE");
    sub.add_flag("--streams", args.bStreams, "the tables per stream also for a large room");
    sub.add_option("--stats", args.strStats, c_pszStatsHelp)->type_name("FILE");
    sub.add_flag("--end-report", args.bEndReport, "end with the receiver's own end report");
    sub.add_flag("--speed", args.bSpeed,
                 "put speed and memory into the JSON too; they differ from run to run");
    sub.add_option("--log-level", args.nLogLevel,
                   "print the receiver's log lines up to this level on stderr (4: events, 5: every packet)")
        ->check(CLI::Range(0, 5))
        ->type_name("N");
    sub.add_option("--set", args.vecSet,
                   "any option of the scenario: down.steps=[[10,80]]; may be given again")
        ->allow_extra_args(false)
        ->multi_option_policy(CLI::MultiOptionPolicy::TakeAll)
        ->type_name("PATH=VALUE");
    sub.add_flag("--print", args.bPrint, "print the scenario with all that was set, and do not run it");

    sub.add_option("--users", args.strUsers, "number of users")->type_name("N")->group("Call");
    for (const tagShort& st : c_aCall)
        args.Add(sub, st.pszName, st.pszPath, st, "Call");
    for (const tagShort& st : c_aMedia)
        args.Add(sub, st.pszName, st.pszPath, st, "Media");
    for (const tagShort& st : c_aFirst)
        args.Add(sub, st.pszName, st.pszPath, st, "First numbers");
    sub.add_option("--rtt", args.strRtt, "round trip between relay and receiver, half of it each way")
        ->type_name("MS")
        ->group(c_aWays[0][2]);
    for (const auto& aWay : c_aWays)
        for (const tagShort& st : c_aNet)
            args.Add(sub, fmt::format("{}{}", aWay[0], st.pszName), fmt::format("{}.{}", aWay[1], st.pszPath),
                     st, aWay[2]);
}

CSimCommand::~CSimCommand() = default;

std::vector<std::pair<std::string, std::string>> CSimCommand::tagArgs::Given() const
{
    std::vector<std::pair<std::string, std::string>> vec;
    if (!strRtt.empty())
        vec.emplace_back("rtt", strRtt);
    for (const tagGiven& st : listGiven)
        if (st.pOption->count() != 0)
            vec.emplace_back(st.pOption->get_name().substr(2), st.strValue);
    for (const std::string& strSet : vecSet)
        vec.emplace_back(strSet.substr(0, strSet.find('=')), strSet.substr(strSet.find('=') + 1));
    return vec;
}

bool CSimCommand::tagArgs::MakeScenario(tagScenario& stScenario, nlohmann::ordered_json& j,
                                        std::string& strError) const
{
    std::string strFolder;
    j = DefaultScenario();
    if (!strScenario.empty())
    {
        if (!ReadScenarioFile(strScenario, j, strError))
            return false;
        strFolder = FolderOf(strScenario);
    }
    const auto Set = [&](const std::string& strPath, const std::string& strValue)
    {
        if (SetScenarioOption(j, strPath, strValue, strError))
            return true;
        strError = fmt::format("{}: {}", strPath, strError);
        return false;
    };
    if (!strUsers.empty())
    {
        // One group of that many; of a scenario with several groups the first stands for all.
        if (j.contains("users") && j["users"].is_array() && j["users"].size() > 1)
            j["users"] = nlohmann::ordered_json::array({j["users"][0]});
        if (!Set("users.count", strUsers))
            return false;
    }
    if (!strRtt.empty())
    {
        char* pEnd = nullptr;
        const double dRtt = strtod(strRtt.c_str(), &pEnd);
        if (*pEnd != 0 || !(dRtt >= 0))
        {
            strError = fmt::format("--rtt: expected milliseconds, got \"{}\"", strRtt);
            return false;
        }
        if (!Set("down.delay_ms", fmt::format("{}", dRtt / 2)) ||
            !Set("request.delay_ms", fmt::format("{}", dRtt / 2)))
            return false;
    }
    for (const tagGiven& st : listGiven)
    {
        if (st.pOption->count() == 0)
            continue;
        std::string strValue = st.strValue;
        if (EndsWith(st.strPath, "_percent") && EndsWith(strValue, "%"))
            strValue.pop_back();
        if (EndsWith(st.strPath, "_trace") && !strValue.empty() && strValue[0] != '/' && !strFolder.empty())
        {
            char* pszReal = realpath(strValue.c_str(), nullptr);
            if (pszReal)
                strValue = pszReal;
            free(pszReal);
        }
        // A rate takes the place of a recorded one, and the other way round.
        if (EndsWith(st.strPath, ".rate_kbps"))
            Set(st.strPath.substr(0, st.strPath.size() - 9) + "rate_trace", "null");
        if (EndsWith(st.strPath, ".rate_trace"))
            Set(st.strPath.substr(0, st.strPath.size() - 10) + "rate_kbps", "null");
        if (!Set(st.strPath, strValue))
            return false;
    }
    for (const std::string& strSet : vecSet)
    {
        const size_t nEquals = strSet.find('=');
        if (nEquals == std::string::npos)
        {
            strError = fmt::format("--set: expected PATH=VALUE, got \"{}\"", strSet);
            return false;
        }
        if (!Set(strSet.substr(0, nEquals), strSet.substr(nEquals + 1)))
            return false;
    }
    if (ParseScenario(j, strFolder, stScenario, strError))
        return true;
    if (!strScenario.empty())
        strError = fmt::format("{}: {}", strScenario, strError);
    return false;
}

int CSimCommand::Run()
{
    const tagArgs& args = *m_pArgs;
    std::string strError;
    tagScenario stScenario;
    nlohmann::ordered_json j;
    if (!args.MakeScenario(stScenario, j, strError))
        return Complain(strError);
    if (args.bPrint)
    {
        fmt::print("{}\n", j.dump(2));
        return 0;
    }

    tagSimResult stResult;
    CRunSeries series;
    {
        CProgress progress(args.nLogLevel == 0);
        tagSimHooks stHooks;
        stHooks.nLogLevel = args.nLogLevel;
        stHooks.pSeries = args.stFiles.Wanted() ? &series : nullptr;
        stHooks.fnLog = [](const std::string& strLine) { fmt::print(stderr, "{}\n", strLine); };
        stHooks.fnProgress = [&progress](double dShare) { progress.Show(dShare, "simulate"); };
        stResult = RunSimulation(stScenario, stHooks);
    }

    int nExit = stResult.ExitCode();
    if (args.strJson != "-" && !args.stFiles.ToStdout())
    {
        const bool bColours = isatty(STDOUT_FILENO) && !getenv("NO_COLOR");
        const bool bStreams = args.bStreams || stResult.vecStreams.size() <= c_nManyStreams;
        fmt::print("{}", SimTable(stResult, bStreams, bColours));
        if (args.bEndReport)
            fmt::print("\n{}\n", fmt::join(stResult.vecEndReport, "\n"));
        fflush(stdout);
    }
    if (!args.strJson.empty())
    {
        nlohmann::ordered_json jOut = SimJson(stResult);
        if (args.bEndReport)
            jOut["end_report"] = stResult.vecEndReport;
        if (args.bSpeed)
            jOut["speed"] = SimSpeedJson(stResult);
        if (!WriteText(args.strJson,
                       jOut.dump(2, ' ', false, nlohmann::json::error_handler_t::replace) + "\n", strError))
        {
            Complain(strError);
            nExit = std::max(nExit, c_nExitBad);
        }
    }
    if (!args.strStats.empty() &&
        !WriteText(args.strStats, StatsText(args.strStats, stResult.stStats), strError))
        nExit = std::max(nExit, Complain(strError));
    if (args.stFiles.Wanted() &&
        !WriteReport(args.stFiles, SimRunReport(stResult, series, args.Given()), strError))
        nExit = std::max(nExit, Complain(strError));
    fmt::print(stderr, "{}\n", SimSpeedLine(stResult));
    if (stResult.ullBroken)
        fmt::print(stderr, "udtlab: {} checks of the receiver's behaviour were broken; the first: {}\n",
                   stResult.ullBroken, stResult.vecViolations.front());
    return nExit;
}

} // namespace lab
