// The grid: lists, shards, threads and merging all lead to the same bytes.

#include "LabBytes.h"

#include "Matrix.h"
#include "SimScenario.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <sys/wait.h>

#include <algorithm>
#include <cstdlib>
#include <set>

using namespace lab;
using namespace labtest;
using testing::ElementsAre;
using testing::HasSubstr;

namespace
{

// Six short calls of one user.
tagMatrix SmallGrid()
{
    tagMatrix st;
    std::string strError;
    st.jScenario = DefaultScenario();
    EXPECT_TRUE(SetScenarioOption(st.jScenario, "users.count", "1", strError)) << strError;
    EXPECT_TRUE(SetScenarioOption(st.jScenario, "seconds", "5", strError)) << strError;
    st.aAxes[MATRIX_LOSS] = {0, 2, 5};
    st.aAxes[MATRIX_RTT] = {20, 100};
    st.aAxes[MATRIX_JITTER] = {10};
    st.aAxes[MATRIX_REORDER] = {0};
    EXPECT_TRUE(CheckMatrix(st, strError)) << strError;
    return st;
}

std::string Csv(const tagMatrix& st, uint32 uShard, uint32 uShards, uint32 uJobs)
{
    return MatrixCsv(st, RunMatrix(st, uShard, uShards, uJobs, nullptr));
}

std::string WriteCsv(const CTempDir& dir, const std::string& strName, const std::string& strCsv)
{
    return dir.Write(strName, Bytes(strCsv.begin(), strCsv.end()));
}

std::string MergeError(const std::vector<std::string>& vecFiles)
{
    std::string strCsv;
    std::string strError;
    EXPECT_FALSE(MergeMatrix(vecFiles, strCsv, strError));
    return strError;
}

} // namespace

TEST(Matrix, ListsAreNumbersAndRangesWithBothEnds)
{
    std::vector<double> vec;
    std::string strError;
    ASSERT_TRUE(ParseMatrixList("1,5%,10", vec, strError));
    EXPECT_THAT(vec, ElementsAre(1, 5, 10));
    ASSERT_TRUE(ParseMatrixList("0:0.3:0.1", vec, strError));
    EXPECT_EQ(vec.size(), 4u);
    ASSERT_TRUE(ParseMatrixList("7,0:100:40", vec, strError));
    EXPECT_THAT(vec, ElementsAre(7, 0, 40, 80));
    for (const char* psz : {"", "1,", "x", "-1", "1:2", "5:1:1", "1:2:0", "nan", "inf", "0:1e9:1", "1:2:3:4"})
    {
        strError.clear();
        EXPECT_FALSE(ParseMatrixList(psz, vec, strError)) << psz;
        EXPECT_THAT(strError, HasSubstr("expected numbers")) << psz;
    }
    EXPECT_FALSE(ParseMatrixList("5,0:10:5", vec, strError));
    EXPECT_EQ(strError, "5 stands in the list twice");
}

TEST(Matrix, ShardsAreCountedFromOne)
{
    uint32 uShard = 0;
    uint32 uShards = 0;
    std::string strError;
    ASSERT_TRUE(ParseMatrixShard("2/5", uShard, uShards, strError));
    EXPECT_EQ(uShard, 2u);
    EXPECT_EQ(uShards, 5u);
    for (const char* psz : {"", "1", "0/5", "6/5", "1/0", "1.5/2", "a/b", "1/2/3"})
        EXPECT_FALSE(ParseMatrixShard(psz, uShard, uShards, strError)) << psz;
}

TEST(Matrix, CellsAreNumberedWithTheLastAxisFastest)
{
    const tagMatrix st = SmallGrid();
    ASSERT_EQ(st.Cells(), 6u);
    EXPECT_EQ(st.Value(0, MATRIX_LOSS), 0);
    EXPECT_EQ(st.Value(1, MATRIX_RTT), 100);
    EXPECT_EQ(st.Value(4, MATRIX_LOSS), 5);
    EXPECT_EQ(st.Value(4, MATRIX_RTT), 20);
}

TEST(Matrix, ACellsSeedDependsOnItsValuesAndTheRunsSeedAlone)
{
    tagMatrix st = SmallGrid();
    std::set<uint64> setSeeds;
    for (size_t i = 0; i < st.Cells(); i++)
        setSeeds.insert(st.CellSeed(i));
    EXPECT_EQ(setSeeds.size(), 6u);

    const uint64 ullSeed = st.CellSeed(5); // 5 %, 100 ms
    st.aAxes[MATRIX_LOSS] = {5};
    st.aAxes[MATRIX_RTT] = {100};
    EXPECT_EQ(st.CellSeed(0), ullSeed);
    st.ullSeed = 2;
    EXPECT_NE(st.CellSeed(0), ullSeed);
}

TEST(Matrix, ThreadsAndShardsChangeNoByte)
{
    const tagMatrix st = SmallGrid();
    const std::string strWhole = Csv(st, 1, 1, 1);
    EXPECT_EQ(std::count(strWhole.begin(), strWhole.end(), '\n'), 2 + 6);
    EXPECT_EQ(Csv(st, 1, 1, 3), strWhole);

    const CTempDir dir;
    const std::vector<std::string> vecFiles = {
        WriteCsv(dir, "4.csv", Csv(st, 4, 4, 1)), WriteCsv(dir, "1.csv", Csv(st, 1, 4, 2)),
        WriteCsv(dir, "3.csv", Csv(st, 3, 4, 1)), WriteCsv(dir, "2.csv", Csv(st, 2, 4, 1))};
    std::string strMerged;
    std::string strError;
    ASSERT_TRUE(MergeMatrix(vecFiles, strMerged, strError)) << strError;
    EXPECT_EQ(strMerged, strWhole);
}

TEST(Matrix, ALossyCellCountsItsLossesAndALossFreeOneHasNoShare)
{
    const tagMatrix st = SmallGrid();
    const std::vector<tagMatrixRow> vecRows = RunMatrix(st, 1, 1, 2, nullptr);
    ASSERT_EQ(vecRows.size(), 6u);
    for (const tagMatrixRow& stRow : vecRows)
        EXPECT_TRUE(stRow.bOk) << stRow.strFirstViolation;
    EXPECT_THAT(vecRows[0].strCsv, HasSubstr(",0,0,0,0,0,,0,,0,")); // nothing lost: no share, no ratio
    EXPECT_THAT(vecRows[4].strCsv, testing::Not(HasSubstr(",,")));
    EXPECT_THAT(MatrixTable(MatrixCsv(st, vecRows)), HasSubstr("in time %"));
}

TEST(Matrix, ShardsThatDoNotFitTogetherAreNamed)
{
    tagMatrix st = SmallGrid();
    const CTempDir dir;
    const std::string str1 = WriteCsv(dir, "one.csv", Csv(st, 1, 2, 2));
    const std::string str2 = WriteCsv(dir, "two.csv", Csv(st, 2, 2, 2));
    EXPECT_THAT(MergeError({str1}), HasSubstr("cell 1 of 6 is in none of the files"));
    EXPECT_THAT(MergeError({str1, str2, str1}), HasSubstr("one.csv: line 3: cell 0 stands in"));
    EXPECT_THAT(MergeError({str1, dir.Path("none.csv")}), HasSubstr("none.csv: line 1: not a grid"));

    Bytes bytes = ReadFile(str2);
    bytes.resize(bytes.size() - 20);
    EXPECT_THAT(MergeError({str1, dir.Write("cut.csv", bytes)}), HasSubstr("cut.csv: line 5: not a row"));

    st.ullSeed = 7;
    EXPECT_THAT(MergeError({str1, WriteCsv(dir, "seed7.csv", Csv(st, 2, 2, 2))}),
                HasSubstr("seed7.csv: line 1: another grid"));
}

// A batch engine may lose the exit code of a shard; the merge used to report such a grid as done.
TEST(Matrix, ABrokenCellIsToldAgainByTheMerge)
{
    const CTempDir dir;
    std::string strCsv = Csv(SmallGrid(), 1, 1, 2);
    EXPECT_TRUE(BrokenCells(strCsv).empty());
    const std::string strMerge = "'" UDT_LAB_PROGRAM "' matrix --csv " + dir.Path("merged.csv") + " --merge ";
    const auto Run = [&](const std::string& strFile)
    {
        const int nStatus = system((strMerge + strFile + " >/dev/null 2>" + dir.Path("err")).c_str());
        return WIFEXITED(nStatus) ? WEXITSTATUS(nStatus) : -1;
    };
    EXPECT_EQ(Run(WriteCsv(dir, "good.csv", strCsv)), 0);

    const size_t nRow = strCsv.find("\n4,");
    ASSERT_NE(nRow, std::string::npos);
    const size_t nOk = strCsv.find(",ok\n", nRow);
    ASSERT_NE(nOk, std::string::npos);
    strCsv.replace(nOk, 3, ",broken");
    EXPECT_THAT(BrokenCells(strCsv), ElementsAre(4u));
    EXPECT_EQ(Run(WriteCsv(dir, "bad.csv", strCsv)), 3);
    const Bytes err = ReadFile(dir.Path("err"));
    EXPECT_EQ(std::string(err.begin(), err.end()),
              "udtlab: cell 4: a check of the receiver's behaviour was broken\n");
    const Bytes merged = ReadFile(dir.Path("merged.csv"));
    EXPECT_EQ(std::string(merged.begin(), merged.end()), strCsv);
}

TEST(Matrix, ACellThatIsNoCallIsAnErrorBeforeAnythingRuns)
{
    tagMatrix st = SmallGrid();
    st.aAxes[MATRIX_LOSS] = {5, 120};
    std::string strError;
    EXPECT_FALSE(CheckMatrix(st, strError));
    EXPECT_THAT(strError, HasSubstr("down.loss_percent"));
}

TEST(Matrix, ShardsUnderGnuParallelMergeToTheBytesOfTheWholeGrid)
{
    if (system("parallel --version 2>/dev/null | grep -q '^GNU parallel'") != 0)
        GTEST_SKIP() << "GNU parallel is not installed";
    const CTempDir dir;
    const std::string strGrid = "matrix --loss 1,5 --rtt 20,100 --users 1 --seconds 5";
    const auto Run = [](const std::string& strCommand)
    { return system((strCommand + " >/dev/null").c_str()); };
    const std::string strProgram = "'" UDT_LAB_PROGRAM "' ";
    ASSERT_EQ(Run(strProgram + strGrid + " --csv " + dir.Path("whole.csv")), 0);
    ASSERT_EQ(Run("parallel --will-cite -j 2 " + strProgram + strGrid + " --jobs 1 --shard {}/3 --csv " +
                  dir.Path("m-{}.csv") + " ::: 1 2 3"),
              0);
    ASSERT_EQ(Run(strProgram + "matrix --merge " + dir.Path("m-*.csv") + " --csv " + dir.Path("merged.csv")),
              0);
    EXPECT_EQ(ReadFile(dir.Path("merged.csv")), ReadFile(dir.Path("whole.csv")));
    EXPECT_GT(ReadFile(dir.Path("whole.csv")).size(), 500u);
}
