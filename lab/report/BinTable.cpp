#include "BinTable.h"

#include <algorithm>

namespace lab
{

namespace
{
const tagBin c_stEmpty;
}

void tagBin::Add(int32 nValue)
{
    nLow = uCount == 0 ? nValue : std::min(nLow, nValue);
    nHigh = uCount == 0 ? nValue : std::max(nHigh, nValue);
    llSum += nValue;
    uCount++;
}

void tagBin::Merge(const tagBin& st)
{
    if (st.uCount != 0)
    {
        nLow = uCount == 0 ? st.nLow : std::min(nLow, st.nLow);
        nHigh = uCount == 0 ? st.nHigh : std::max(nHigh, st.nHigh);
    }
    llSum += st.llSum;
    uCount += st.uCount;
}

CBinTable::CBinTable(uint32 uBinMs, size_t nMaxBins, uint64 ullWindowMs)
    : m_ullWindowMs(ullWindowMs), m_ullBinMs(std::max<uint32>(1, uBinMs)), m_nMaxBins(0)
{
    SetMaxBins(nMaxBins);
}

size_t CBinTable::AddColumns(size_t n)
{
    m_vecColumns.resize(m_vecColumns.size() + n);
    return m_vecColumns.size() - n;
}

void CBinTable::SetMaxBins(size_t nMaxBins)
{
    m_nMaxBins = std::max<size_t>(2, nMaxBins);
    while (m_ullWindowMs != 0 ? m_ullWindowMs > m_nMaxBins * m_ullBinMs : m_nBins > m_nMaxBins)
        MergePairs();
}

bool CBinTable::IsFull(uint64 ullBin) const
{
    // A window is kept twice over, so that it is moved now and then instead of at every bin.
    const size_t nMost = m_ullWindowMs != 0 ? (size_t)(2 * (m_ullWindowMs / m_ullBinMs + 1)) : m_nMaxBins;
    return ullBin - m_ullFirstBin >= nMost;
}

bool CBinTable::Find(uint64 ullMs, size_t& nBin)
{
    while (ullMs / m_ullBinMs >= m_ullFirstBin && IsFull(ullMs / m_ullBinMs))
    {
        if (m_ullWindowMs == 0)
            MergePairs();
        else
            Forget(ullMs / m_ullBinMs - m_ullFirstBin - m_ullWindowMs / m_ullBinMs);
    }
    const uint64 ullBin = ullMs / m_ullBinMs;
    if (ullBin < m_ullFirstBin)
        return false; // forgotten
    nBin = (size_t)(ullBin - m_ullFirstBin);
    m_nBins = std::max(m_nBins, nBin + 1);
    return true;
}

tagBin& CBinTable::Cell(size_t nColumn, size_t nBin)
{
    std::vector<tagBin>& vec = m_vecColumns[nColumn];
    if (vec.size() <= nBin)
        vec.resize(nBin + 1);
    return vec[nBin];
}

void CBinTable::Count(size_t nColumn, uint64 ullMs, int64 n)
{
    size_t nBin = 0;
    if (Find(ullMs, nBin))
        Cell(nColumn, nBin).llSum += n;
}

void CBinTable::Value(size_t nColumn, uint64 ullMs, int32 nValue)
{
    size_t nBin = 0;
    if (Find(ullMs, nBin))
        Cell(nColumn, nBin).Add(nValue);
}

void CBinTable::ReachTo(uint64 ullMs)
{
    size_t nBin = 0;
    Find(ullMs, nBin);
}

void CBinTable::MergePairs()
{
    const uint64 ullFirst = m_ullFirstBin / 2;
    for (std::vector<tagBin>& vec : m_vecColumns)
    {
        std::vector<tagBin> vecMerged;
        for (size_t i = 0; i < vec.size(); i++)
        {
            const size_t nTo = (size_t)((m_ullFirstBin + i) / 2 - ullFirst);
            vecMerged.resize(nTo + 1);
            vecMerged[nTo].Merge(vec[i]);
        }
        vec.swap(vecMerged);
    }
    if (m_nBins != 0)
        m_nBins = (size_t)((m_ullFirstBin + m_nBins - 1) / 2 - ullFirst) + 1;
    m_ullFirstBin = ullFirst;
    m_ullBinMs *= 2;
}

void CBinTable::Forget(uint64 ullBins)
{
    for (std::vector<tagBin>& vec : m_vecColumns)
        vec.erase(vec.begin(), vec.begin() + (ptrdiff_t)std::min<uint64>(ullBins, vec.size()));
    m_nBins -= (size_t)std::min<uint64>(ullBins, m_nBins);
    m_ullFirstBin += ullBins;
}

const tagBin& CBinTable::At(size_t nColumn, size_t nBin) const
{
    const std::vector<tagBin>& vec = m_vecColumns[nColumn];
    return nBin < vec.size() ? vec[nBin] : c_stEmpty;
}

size_t CBinTable::Cells() const
{
    size_t n = 0;
    for (const std::vector<tagBin>& vec : m_vecColumns)
        n += vec.capacity();
    return n;
}

} // namespace lab
