#include "MatrixCommand.h"

#include "Files.h"
#include "Matrix.h"
#include "Progress.h"
#include "SimScenario.h"

#include <CLI/CLI.hpp>
#include <fmt/format.h>

#include <algorithm>
#include <thread>

namespace lab
{

struct CMatrixCommand::tagArgs
{
    std::string aLists[MATRIX_AXES] = {"5", "100", "20", "0"};
    std::string strScenario;
    std::string strUsers;
    std::string strSeconds;
    std::vector<std::string> vecSet;
    uint64 ullSeed = 1;
    uint32 uJobs = 0;
    std::string strShard;
    std::string strCsv;
    std::vector<std::string> vecMerge;

    bool MakeMatrix(tagMatrix& stMatrix, std::string& strError) const;
    int Merge() const;
};

CMatrixCommand::CMatrixCommand(CLI::App& app) : m_pArgs(std::make_unique<tagArgs>())
{
    static const char* const c_aAxes[MATRIX_AXES][2] = {
        {"--loss", "packets lost between relay and receiver, percent"},
        {"--rtt", "round trip between relay and receiver, ms"},
        {"--jitter", "standard deviation of the delay, ms"},
        {"--reorder", "packets held back and overtaken, percent"},
    };
    tagArgs& args = *m_pArgs;
    CLI::App& sub = *app.add_subcommand("matrix", "A grid of simulated calls, on all cores or in shards");
    for (int i = 0; i < MATRIX_AXES; i++)
        sub.add_option(c_aAxes[i][0], args.aLists[i], c_aAxes[i][1])
            ->type_name("LIST")
            ->capture_default_str()
            ->group("Grid: each LIST is numbers and START:STOP:STEP, separated by commas");
    sub.add_option("--scenario", args.strScenario, "what every cell starts from, see docs/simulate.md")
        ->type_name("FILE.json");
    sub.add_option("--users", args.strUsers, "number of users")->type_name("N");
    sub.add_option("--seconds", args.strSeconds, "length of each call")->type_name("S");
    sub.add_option("--set", args.vecSet, "any option of the scenario; may be given again")
        ->allow_extra_args(false)
        ->multi_option_policy(CLI::MultiOptionPolicy::TakeAll)
        ->type_name("PATH=VALUE");
    sub.add_option("--seed", args.ullSeed, "the number from which all cells' seeds come")->type_name("N");
    sub.add_option("--jobs", args.uJobs, "threads; all cores when not given")
        ->check(CLI::Range(1, 1024))
        ->type_name("N");
    sub.add_option("--shard", args.strShard, "run only every M-th cell, from the K-th on")->type_name("K/M");
    sub.add_option("--csv", args.strCsv, "write one row per cell (-: to stdout, instead of the table)")
        ->type_name("FILE");
    sub.add_option("--merge", args.vecMerge, "put the CSVs of all shards of one grid together, run nothing")
        ->type_name("FILES");
}

CMatrixCommand::~CMatrixCommand() = default;

bool CMatrixCommand::tagArgs::MakeMatrix(tagMatrix& stMatrix, std::string& strError) const
{
    nlohmann::ordered_json& j = stMatrix.jScenario;
    j = DefaultScenario();
    if (!strScenario.empty() && !ReadScenarioFile(strScenario, j, strError))
        return false;
    stMatrix.strFolder = FolderOf(strScenario);
    stMatrix.ullSeed = ullSeed;

    std::vector<std::string> vecAll;
    if (!strUsers.empty())
        vecAll.push_back("users.count=" + strUsers);
    if (!strSeconds.empty())
        vecAll.push_back("seconds=" + strSeconds);
    vecAll.insert(vecAll.end(), vecSet.begin(), vecSet.end());
    for (const std::string& strSet : vecAll)
    {
        const size_t nEquals = strSet.find('=');
        if (nEquals == std::string::npos)
        {
            strError = fmt::format("--set: expected PATH=VALUE, got \"{}\"", strSet);
            return false;
        }
        const std::string strPath = strSet.substr(0, nEquals);
        if (!SetScenarioOption(j, strPath, strSet.substr(nEquals + 1), strError))
        {
            strError = fmt::format("{}: {}", strPath, strError);
            return false;
        }
    }
    static const char* const c_aNames[MATRIX_AXES] = {"--loss", "--rtt", "--jitter", "--reorder"};
    for (int i = 0; i < MATRIX_AXES; i++)
    {
        if (!ParseMatrixList(aLists[i], stMatrix.aAxes[i], strError))
        {
            strError = fmt::format("{}: {}", c_aNames[i], strError);
            return false;
        }
    }
    return CheckMatrix(stMatrix, strError);
}

int CMatrixCommand::tagArgs::Merge() const
{
    std::string strAll;
    std::string strError;
    if (!MergeMatrix(vecMerge, strAll, strError))
        return Complain(strError);
    if (strCsv != "-")
        fmt::print("{}", MatrixTable(strAll));
    // The shards' own exit codes are often lost in a batch engine: the merge tells again.
    int nExit = 0;
    for (const size_t uCell : BrokenCells(strAll))
    {
        nExit = 3;
        fmt::print(stderr, "udtlab: cell {}: a check of the receiver's behaviour was broken\n", uCell);
    }
    if (!strCsv.empty() && !WriteText(strCsv, strAll, strError))
        nExit = std::max(nExit, Complain(strError));
    return nExit;
}

int CMatrixCommand::Run()
{
    const tagArgs& args = *m_pArgs;
    if (!args.vecMerge.empty())
        return args.Merge();

    std::string strError;
    tagMatrix stMatrix;
    if (!args.MakeMatrix(stMatrix, strError))
        return Complain(strError);
    uint32 uShard = 1;
    uint32 uShards = 1;
    if (!args.strShard.empty() && !ParseMatrixShard(args.strShard, uShard, uShards, strError))
        return Complain("--shard: " + strError);

    std::vector<tagMatrixRow> vecRows;
    {
        CProgress progress(true);
        const uint32 uJobs = args.uJobs ? args.uJobs : std::max(1u, std::thread::hardware_concurrency());
        vecRows = RunMatrix(stMatrix, uShard, uShards, uJobs,
                            [&progress](double dShare) { progress.Show(dShare, "matrix"); });
    }
    const std::string strAll = MatrixCsv(stMatrix, vecRows);
    if (args.strCsv != "-")
        fmt::print("{}", MatrixTable(strAll));
    int nExit = 0;
    for (const tagMatrixRow& stRow : vecRows)
    {
        if (stRow.bOk)
            continue;
        nExit = 3;
        fmt::print(stderr, "udtlab: cell {}: a check of the receiver's behaviour was broken: {}\n",
                   stRow.uCell, stRow.strFirstViolation);
    }
    if (!args.strCsv.empty() && !WriteText(args.strCsv, strAll, strError))
        nExit = std::max(nExit, Complain(strError));
    return nExit;
}

} // namespace lab
