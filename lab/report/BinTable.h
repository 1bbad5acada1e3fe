// Figures over time in bounded memory: columns of bins that grow coarser, or forget, as time goes on.
#ifndef LAB_BINTABLE_H
#define LAB_BINTABLE_H

#include "xptypes.h"

#include <cstddef>
#include <vector>

namespace lab
{

// One bin of one column. Counts use llSum alone, measured values all of it.
struct tagBin
{
    int64 llSum = 0;
    uint32 uCount = 0; // values; 0: nothing known
    int32 nLow = 0;    // of the values, with uCount only
    int32 nHigh = 0;

    void Add(int32 nValue);
    void Merge(const tagBin& st);
};

// All columns share one time axis. Bin i covers [FirstMs + i * BinMs, FirstMs + (i + 1) * BinMs). When the axis is
// full, a table of the whole run merges neighbouring bins, whose width doubles; one of a window forgets what lies before it.
// Sums, counts and extremes are exact either way.
class CBinTable
{
public:
    // uBinMs: the finest width. ullWindowMs 0: the whole run, at most nMaxBins bins. Else at least the last
    // ullWindowMs, which themselves are at most nMaxBins bins.
    CBinTable(uint32 uBinMs, size_t nMaxBins, uint64 ullWindowMs = 0);

    // @return the number of the first of n new columns
    size_t AddColumns(size_t n);
    size_t Columns() const { return m_vecColumns.size(); }
    // Fewer bins from now on.
    void SetMaxBins(size_t nMaxBins);

    // n things happened at that time. n may be negative, for what had been counted there by mistake.
    void Count(size_t nColumn, uint64 ullMs, int64 n);
    void Value(size_t nColumn, uint64 ullMs, int32 nValue);
    // The axis reaches this far, whether anything is known there or not.
    void ReachTo(uint64 ullMs);

    uint64 BinMs() const { return m_ullBinMs; }
    uint64 FirstMs() const { return m_ullFirstBin * m_ullBinMs; }
    size_t Bins() const { return m_nBins; }
    // An empty bin where nothing is known.
    const tagBin& At(size_t nColumn, size_t nBin) const;
    // Bins and columns in memory: what grows with streams, never with time.
    size_t Cells() const;

private:
    bool Find(uint64 ullMs, size_t& nBin);
    tagBin& Cell(size_t nColumn, size_t nBin);
    void MergePairs();
    void Forget(uint64 ullBins);
    bool IsFull(uint64 ullBin) const;

    const uint64 m_ullWindowMs;
    uint64 m_ullBinMs;
    size_t m_nMaxBins;
    uint64 m_ullFirstBin = 0; // number of bin 0, counted from run time 0
    size_t m_nBins = 0;
    std::vector<std::vector<tagBin>> m_vecColumns; // each as long as it was used
};

} // namespace lab

#endif
