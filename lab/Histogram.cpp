#include "Histogram.h"

#include <algorithm>
#include <cmath>

namespace lab
{

void CMsHistogram::Add(uint32_t uMs)
{
    const uint32_t uPlace = std::min(uMs, c_uLimit);
    if (uPlace >= m_vecCounts.size())
        m_vecCounts.resize(uPlace + 1);
    m_vecCounts[uPlace]++;
    m_ullCount++;
    m_ullSum += uMs;
    m_uMin = std::min(m_uMin, uMs);
    m_uMax = std::max(m_uMax, uMs);
}

void CMsHistogram::Merge(const CMsHistogram& other)
{
    if (other.m_vecCounts.size() > m_vecCounts.size())
        m_vecCounts.resize(other.m_vecCounts.size());
    for (size_t i = 0; i < other.m_vecCounts.size(); i++)
        m_vecCounts[i] += other.m_vecCounts[i];
    m_ullCount += other.m_ullCount;
    m_ullSum += other.m_ullSum;
    m_uMin = std::min(m_uMin, other.m_uMin);
    m_uMax = std::max(m_uMax, other.m_uMax);
}

uint32_t CMsHistogram::Quantile(double dShare) const
{
    if (m_ullCount == 0)
        return 0;
    const uint64_t ullRank = std::max<uint64_t>(1, (uint64_t)std::ceil(dShare * (double)m_ullCount));
    uint64_t ullBelow = 0;
    for (size_t i = 0; i < m_vecCounts.size(); i++)
    {
        ullBelow += m_vecCounts[i];
        if (ullBelow >= ullRank)
            return i == c_uLimit ? m_uMax : (uint32_t)i;
    }
    return m_uMax;
}

} // namespace lab
