// A grid of simulated calls: every combination of some losses, round trips, jitters and reorderings.
#ifndef LAB_MATRIX_H
#define LAB_MATRIX_H

#include "xptypes.h"

#include <nlohmann/json.hpp>

#include <functional>
#include <string>
#include <vector>

namespace lab
{

// The axes, in the order in which cells are numbered: the last one runs fastest.
enum emMatrixAxis
{
    MATRIX_LOSS = 0, // percent, relay to receiver
    MATRIX_RTT,      // ms, half of it each way between relay and receiver
    MATRIX_JITTER,   // ms, standard deviation of the delay
    MATRIX_REORDER,  // percent
    MATRIX_AXES
};

// NOLINTNEXTLINE(bugprone-exception-escape): a fresh JSON value is null and allocates nothing
struct tagMatrix
{
    nlohmann::ordered_json jScenario; // what all cells share
    std::string strFolder;            // recordings in it are relative to this
    std::vector<double> aAxes[MATRIX_AXES];
    uint64 ullSeed = 1;

    size_t Cells() const;
    double Value(size_t uCell, emMatrixAxis eAxis) const;
    // From the run's seed and the cell's own values, so neither shards, threads nor other cells change it.
    uint64 CellSeed(size_t uCell) const;
};

struct tagMatrixRow
{
    size_t uCell = 0;
    std::string strCsv; // without a line end
    bool bOk = false;   // all checks held
    std::string strFirstViolation;
};

// "1,5,10" and "0:100:25" (both ends included), mixed: "1,5:20:5". False with a one-line reason.
bool ParseMatrixList(const std::string& strText, std::vector<double>& vec, std::string& strError);
// "2/5": the second of five shards. False with a one-line reason.
bool ParseMatrixShard(const std::string& strText, uint32& uShard, uint32& uShards, std::string& strError);

// Does every cell make sense as a call? False with a one-line reason. Before RunMatrix.
bool CheckMatrix(const tagMatrix& stMatrix, std::string& strError);

// Runs the cells of one shard (uShard of uShards, from 1) on that many threads. The rows come in cell order,
// whatever the threads do. fnProgress gets a share from 0 to 1 now and then, on the caller's thread.
std::vector<tagMatrixRow> RunMatrix(const tagMatrix& stMatrix, uint32 uShard, uint32 uShards, uint32 uJobs,
                                    const std::function<void(double)>& fnProgress);

// The CSV's first two lines: what the grid is, and the columns. Shards of one grid share them.
std::string MatrixHead(const tagMatrix& stMatrix);
std::string MatrixCsv(const tagMatrix& stMatrix, const std::vector<tagMatrixRow>& vecRows);
// The same for people.
std::string MatrixTable(const std::string& strCsv);

// The cells in which a check of the receiver's behaviour was broken.
std::vector<size_t> BrokenCells(const std::string& strCsv);

// Puts the CSVs of all shards of one grid together. False with a one-line reason that names the file: another
// grid, a cell twice, a cell missing.
bool MergeMatrix(const std::vector<std::string>& vecFiles, std::string& strCsv, std::string& strError);

} // namespace lab

#endif
