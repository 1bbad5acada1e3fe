// The grid: lists of values in, one simulated call per cell, rows of CSV out. Nothing is printed here.
#include "Matrix.h"

#include "SimScenario.h"
#include "Simulate.h"

#include <fmt/format.h>

#include <algorithm>
#include <atomic>
#include <cmath>
#include <condition_variable>
#include <cstdlib>
#include <fstream>
#include <map>
#include <mutex>
#include <sstream>
#include <thread>

namespace lab
{

namespace
{

constexpr size_t c_uMaxCells = 100000;
constexpr const char* c_aAxisNames[MATRIX_AXES] = {"loss_percent", "rtt_ms", "jitter_ms", "reorder_percent"};
constexpr const char* c_pszMagic = "# udtlab-matrix 1";

// What one medium's streams came to, all users together.
struct tagMediaSum
{
    tagSimStreamCounts st;
    CMsHistogram delay;
};

tagMediaSum SumUp(const tagSimResult& stResult, bool bAudio)
{
    tagMediaSum stSum;
    for (const tagSimStreamResult& stStream : stResult.vecStreams)
    {
        if ((stStream.nKind == SIM_AUDIO) != bAudio)
            continue;
        stSum.st.Add(stStream.st);
        stSum.st.dwLongestStallMs = std::max(stSum.st.dwLongestStallMs, stStream.st.dwLongestStallMs);
        stSum.delay.Merge(stStream.st.delay);
    }
    return stSum;
}

std::string Columns(const char* pszMedia)
{
    std::string str;
    for (const char* pszName : {"sent", "lost", "asked", "in_time", "late", "unrecovered", "in_time_percent",
                                "request_entries", "requests_per_lost", "wasted_entries", "wasted_percent",
                                "delay_median_ms", "delay_p95_ms", "longest_stall_ms"})
        str += fmt::format(",{}_{}", pszMedia, pszName);
    return str;
}

// A share or ratio of nothing is an empty field.
std::string Ratio(uint64 ullOf, uint64 ullAll, double dScale)
{
    return ullAll ? fmt::format("{:.3f}", dScale * (double)ullOf / (double)ullAll) : "";
}

std::string Fields(const tagMediaSum& stSum)
{
    const tagSimStreamCounts& st = stSum.st;
    return fmt::format(",{},{},{},{},{},{},{},{},{},{},{},{},{},{}", st.ullSent, st.ullLost, st.ullAsked,
                       st.ullInTime, st.ullRecoveredLate, st.ullUnrecovered,
                       Ratio(st.ullInTime, st.ullLost, 100), st.ullAskedSeqs,
                       Ratio(st.ullAskedLostSeqs, st.ullLost, 1), st.ullWastedSeqs,
                       Ratio(st.ullWastedSeqs, st.ullAskedSeqs, 100), stSum.delay.Quantile(0.5),
                       stSum.delay.Quantile(0.95), st.dwLongestStallMs);
}

uint64 Mix(uint64 ull)
{
    ull += 0x9E3779B97F4A7C15ull; // splitmix64
    ull = (ull ^ ull >> 30) * 0xBF58476D1CE4E5B9ull;
    ull = (ull ^ ull >> 27) * 0x94D049BB133111EBull;
    return ull ^ ull >> 31;
}

uint64 MixText(uint64 ull, const std::string& strText)
{
    for (const char c : strText)
        ull = Mix(ull ^ (unsigned char)c);
    return ull;
}

bool CellScenario(const tagMatrix& stMatrix, size_t uCell, tagScenario& stScenario, std::string& strError)
{
    nlohmann::ordered_json j = stMatrix.jScenario;
    const auto Set = [&](const char* pszPath, double dValue)
    { return SetScenarioOption(j, pszPath, fmt::format("{}", dValue), strError); };
    return Set("down.loss_percent", stMatrix.Value(uCell, MATRIX_LOSS)) &&
           Set("down.delay_ms", stMatrix.Value(uCell, MATRIX_RTT) / 2) &&
           Set("request.delay_ms", stMatrix.Value(uCell, MATRIX_RTT) / 2) &&
           Set("down.jitter_ms", stMatrix.Value(uCell, MATRIX_JITTER)) &&
           Set("down.reorder_percent", stMatrix.Value(uCell, MATRIX_REORDER)) &&
           SetScenarioOption(j, "seed", fmt::format("{}", stMatrix.CellSeed(uCell)), strError) &&
           ParseScenario(j, stMatrix.strFolder, stScenario, strError);
}

tagMatrixRow RunCell(const tagMatrix& stMatrix, size_t uCell)
{
    tagMatrixRow stRow;
    stRow.uCell = uCell;
    tagScenario stScenario;
    if (!CellScenario(stMatrix, uCell, stScenario, stRow.strFirstViolation))
        return stRow; // CheckMatrix has seen to it that this does not happen
    const tagSimResult stResult = RunSimulation(stScenario);
    stRow.bOk = stResult.ullBroken == 0;
    if (!stRow.bOk)
        stRow.strFirstViolation = stResult.vecViolations.front();
    stRow.strCsv = fmt::format("{}", uCell);
    for (int i = 0; i < MATRIX_AXES; i++)
        stRow.strCsv += fmt::format(",{}", stMatrix.Value(uCell, (emMatrixAxis)i));
    stRow.strCsv += fmt::format(",{}{}{},{}", stMatrix.CellSeed(uCell), Fields(SumUp(stResult, true)),
                                Fields(SumUp(stResult, false)), stRow.bOk ? "ok" : "broken");
    return stRow;
}

bool ParseNumber(const std::string& strText, double& d)
{
    char* pEnd = nullptr;
    d = strtod(strText.c_str(), &pEnd);
    return !strText.empty() && *pEnd == 0 && std::isfinite(d) && d >= 0;
}

std::vector<std::string> Split(const std::string& strText, char cAt)
{
    std::vector<std::string> vec(1);
    for (const char c : strText)
    {
        if (c == cAt)
            vec.emplace_back();
        else
            vec.back() += c;
    }
    return vec;
}

} // namespace

size_t tagMatrix::Cells() const
{
    size_t uCells = 1;
    for (const std::vector<double>& vec : aAxes)
        uCells *= vec.size();
    return uCells;
}

double tagMatrix::Value(size_t uCell, emMatrixAxis eAxis) const
{
    for (int i = MATRIX_AXES - 1; i > eAxis; i--)
        uCell /= aAxes[i].size();
    return aAxes[eAxis][uCell % aAxes[eAxis].size()];
}

uint64 tagMatrix::CellSeed(size_t uCell) const
{
    uint64 ull = Mix(ullSeed);
    for (int i = 0; i < MATRIX_AXES; i++)
        ull = MixText(ull, fmt::format("{}={};", c_aAxisNames[i], Value(uCell, (emMatrixAxis)i)));
    return ull & 0x7FFFFFFF; // read back as a whole number by everything that reads CSV
}

bool ParseMatrixList(const std::string& strText, std::vector<double>& vec, std::string& strError)
{
    vec.clear();
    for (std::string strItem : Split(strText, ','))
    {
        if (!strItem.empty() && strItem.back() == '%')
            strItem.pop_back();
        const std::vector<std::string> vecParts = Split(strItem, ':');
        double dFrom = 0;
        double dTo = 0;
        double dStep = 0;
        if (vecParts.size() == 1 && ParseNumber(vecParts[0], dFrom))
        {
            vec.push_back(dFrom);
            continue;
        }
        if (vecParts.size() != 3 || !ParseNumber(vecParts[0], dFrom) || !ParseNumber(vecParts[1], dTo) ||
            !ParseNumber(vecParts[2], dStep) || dStep <= 0 || dTo < dFrom ||
            (dTo - dFrom) / dStep > (double)c_uMaxCells)
        {
            strError =
                fmt::format("expected numbers and START:STOP:STEP, separated by commas, got \"{}\"", strItem);
            return false;
        }
        // Counted, not added up: the last value must not be missed by a rounding.
        const size_t uSteps = (size_t)std::floor((dTo - dFrom) / dStep + 1e-9);
        for (size_t i = 0; i <= uSteps; i++)
            vec.push_back(dFrom + (double)i * dStep);
    }
    std::vector<double> vecSorted = vec;
    std::sort(vecSorted.begin(), vecSorted.end());
    const auto itTwice = std::adjacent_find(vecSorted.begin(), vecSorted.end());
    if (itTwice != vecSorted.end())
    {
        strError = fmt::format("{} stands in the list twice", *itTwice);
        return false;
    }
    return true;
}

bool ParseMatrixShard(const std::string& strText, uint32& uShard, uint32& uShards, std::string& strError)
{
    const std::vector<std::string> vecParts = Split(strText, '/');
    double dShard = 0;
    double dShards = 0;
    if (vecParts.size() != 2 || !ParseNumber(vecParts[0], dShard) || !ParseNumber(vecParts[1], dShards) ||
        dShard != std::floor(dShard) || dShards != std::floor(dShards) || dShard < 1 || dShard > dShards ||
        dShards > (double)c_uMaxCells)
    {
        strError = fmt::format("expected K/M with K from 1 to M, got \"{}\"", strText);
        return false;
    }
    uShard = (uint32)dShard;
    uShards = (uint32)dShards;
    return true;
}

bool CheckMatrix(const tagMatrix& stMatrix, std::string& strError)
{
    double dCells = 1;
    for (const std::vector<double>& vec : stMatrix.aAxes)
        dCells *= (double)vec.size();
    if (dCells > (double)c_uMaxCells)
    {
        strError = fmt::format("{:.0f} cells, {} at most", dCells, c_uMaxCells);
        return false;
    }
    for (size_t i = 0; i < stMatrix.Cells(); i++)
    {
        tagScenario stScenario;
        if (!CellScenario(stMatrix, i, stScenario, strError))
            return false;
    }
    return true;
}

std::vector<tagMatrixRow> RunMatrix(const tagMatrix& stMatrix, uint32 uShard, uint32 uShards, uint32 uJobs,
                                    const std::function<void(double)>& fnProgress)
{
    std::vector<tagMatrixRow> vecRows;
    for (size_t i = uShard - 1; i < stMatrix.Cells(); i += uShards)
    {
        vecRows.emplace_back();
        vecRows.back().uCell = i;
    }
    std::atomic<size_t> uNext{0};
    std::mutex lock;
    std::condition_variable condDone;
    size_t uDone = 0;
    const auto Work = [&]()
    {
        for (size_t i = uNext++; i < vecRows.size(); i = uNext++)
        {
            tagMatrixRow stRow = RunCell(stMatrix, vecRows[i].uCell);
            std::lock_guard<std::mutex> guard(lock);
            vecRows[i] = std::move(stRow);
            uDone++;
            condDone.notify_one();
        }
    };
    std::vector<std::thread> vecThreads;
    for (size_t i = 0; i < std::min<size_t>(std::max<uint32>(uJobs, 1), vecRows.size()); i++)
        vecThreads.emplace_back(Work);
    {
        std::unique_lock<std::mutex> guard(lock);
        while (uDone < vecRows.size())
        {
            condDone.wait(guard);
            const double dShare = (double)uDone / (double)vecRows.size();
            guard.unlock();
            if (fnProgress)
                fnProgress(dShare);
            guard.lock();
        }
    }
    for (std::thread& thread : vecThreads)
        thread.join();
    return vecRows;
}

std::string MatrixHead(const tagMatrix& stMatrix)
{
    std::string str = fmt::format("{} cells={} seed={}", c_pszMagic, stMatrix.Cells(), stMatrix.ullSeed);
    for (int i = 0; i < MATRIX_AXES; i++)
        str += fmt::format(" {}={}", c_aAxisNames[i], fmt::join(stMatrix.aAxes[i], ";"));
    str += fmt::format(" scenario={:016x}\n", MixText(0, stMatrix.jScenario.dump()));
    str += "cell";
    for (const char* pszName : c_aAxisNames)
        str += fmt::format(",{}", pszName);
    return str + ",seed" + Columns("audio") + Columns("video") + ",checks\n";
}

std::string MatrixCsv(const tagMatrix& stMatrix, const std::vector<tagMatrixRow>& vecRows)
{
    std::string str = MatrixHead(stMatrix);
    for (const tagMatrixRow& stRow : vecRows)
        str += stRow.strCsv + "\n";
    return str;
}

std::string MatrixTable(const std::string& strCsv)
{
    const std::vector<std::string> vecLines = Split(strCsv, '\n');
    const std::vector<std::string> vecNames = Split(vecLines.size() > 1 ? vecLines[1] : "", ',');
    std::string str = fmt::format("{:>31}  {:^44}  {:^44}\n{:>6} {:>7} {:>7} {:>8}", "", "audio", "video",
                                  "loss %", "rtt ms", "jitter", "reorder");
    for (int i = 0; i < 2; i++)
        str += fmt::format("  {:>8} {:>9} {:>8} {:>8} {:>7}", "lost", "in time %", "req/lost", "wasted",
                           "delay");
    str += "  checks\n";
    for (size_t i = 2; i < vecLines.size(); i++)
    {
        const std::vector<std::string> vecFields = Split(vecLines[i], ',');
        if (vecFields.size() != vecNames.size())
            continue;
        const auto Field = [&](const std::string& strName)
        {
            const auto it = std::find(vecNames.begin(), vecNames.end(), strName);
            const std::string strField =
                it == vecNames.end() ? "" : vecFields[(size_t)(it - vecNames.begin())];
            return strField.empty() ? std::string("-") : strField;
        };
        str += fmt::format("{:>6} {:>7} {:>7} {:>8}", Field("loss_percent"), Field("rtt_ms"),
                           Field("jitter_ms"), Field("reorder_percent"));
        for (const char* pszMedia : {"audio_", "video_"})
            str += fmt::format("  {:>8} {:>9} {:>8} {:>8} {:>7}", Field(std::string(pszMedia) + "lost"),
                               Field(std::string(pszMedia) + "in_time_percent"),
                               Field(std::string(pszMedia) + "requests_per_lost"),
                               Field(std::string(pszMedia) + "wasted_entries"),
                               Field(std::string(pszMedia) + "delay_median_ms"));
        str += "  " + Field("checks") + "\n";
    }
    return str;
}

std::vector<size_t> BrokenCells(const std::string& strCsv)
{
    std::vector<size_t> vecCells;
    for (const std::string& strRow : Split(strCsv, '\n'))
        if (const size_t nComma = strRow.rfind(',');
            nComma != std::string::npos && strRow.substr(nComma) == ",broken")
            vecCells.push_back((size_t)strtoull(strRow.c_str(), nullptr, 10));
    return vecCells;
}

bool MergeMatrix(const std::vector<std::string>& vecFiles, std::string& strCsv, std::string& strError)
{
    std::string strHead;
    std::string strFirst;
    std::map<size_t, std::pair<std::string, std::string>> mapRows; // cell to row and file
    for (const std::string& strFile : vecFiles)
    {
        std::ifstream in(strFile, std::ios::binary);
        std::string strGrid;
        std::string strColumns;
        if (!in || !std::getline(in, strGrid) || !std::getline(in, strColumns) ||
            strGrid.rfind(c_pszMagic, 0) != 0)
        {
            strError = fmt::format("{}: line 1: not a grid (expected \"{} ...\", as --csv writes it)",
                                   strFile, c_pszMagic);
            return false;
        }
        const std::string strThisHead = fmt::format("{}\n{}\n", strGrid, strColumns);
        if (strHead.empty())
        {
            strHead = strThisHead;
            strFirst = strFile;
        }
        if (strHead != strThisHead)
        {
            strError = fmt::format("{}: line 1: another grid than that of {}", strFile, strFirst);
            return false;
        }
        size_t uLine = 2;
        for (std::string strRow; std::getline(in, strRow);)
        {
            uLine++;
            char* pEnd = nullptr;
            const size_t uCell = strtoull(strRow.c_str(), &pEnd, 10);
            if (pEnd == strRow.c_str() || *pEnd != ',' ||
                std::count(strRow.begin(), strRow.end(), ',') !=
                    std::count(strColumns.begin(), strColumns.end(), ','))
            {
                strError = fmt::format("{}: line {}: not a row of this grid (cut?)", strFile, uLine);
                return false;
            }
            const auto stPut = mapRows.insert({uCell, {strRow, strFile}});
            if (!stPut.second)
            {
                strError = fmt::format("{}: line {}: cell {} stands in {} already", strFile, uLine, uCell,
                                       stPut.first->second.second);
                return false;
            }
        }
    }
    const size_t nAt = strHead.find("cells=");
    const size_t uCells = nAt == std::string::npos ? 0 : strtoull(strHead.c_str() + nAt + 6, nullptr, 10);
    strCsv = strHead;
    for (size_t i = 0; i < uCells; i++)
    {
        const auto it = mapRows.find(i);
        if (it == mapRows.end())
        {
            strError = fmt::format("cell {} of {} is in none of the files: a shard is missing", i, uCells);
            return false;
        }
        strCsv += it->second.first + "\n";
    }
    if (mapRows.size() != uCells)
    {
        strError = fmt::format("{}: cell {} is not of a grid of {} cells", mapRows.rbegin()->second.second,
                               mapRows.rbegin()->first, uCells);
        return false;
    }
    return true;
}

} // namespace lab
