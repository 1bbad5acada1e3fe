// Quantiles of milliseconds in bounded memory.
#ifndef LAB_HISTOGRAM_H
#define LAB_HISTOGRAM_H

#include <cstdint>
#include <vector>

namespace lab
{

// Counts per millisecond up to a minute; longer spans share one last place and are reported as the largest
// of them. Exact below that, however long the run. The table grows with the largest value seen.
class CMsHistogram
{
public:
    static constexpr uint32_t c_uLimit = 60000;

    void Add(uint32_t uMs);
    void Merge(const CMsHistogram& other);
    uint64_t Count() const { return m_ullCount; }
    uint32_t Min() const { return m_ullCount ? m_uMin : 0; }
    uint32_t Max() const { return m_uMax; }
    // The smallest value that at least this share (0 to 1) of the samples does not exceed; 0 without samples.
    uint32_t Quantile(double dShare) const;
    double Mean() const { return m_ullCount ? (double)m_ullSum / (double)m_ullCount : 0.0; }

private:
    std::vector<uint64_t> m_vecCounts;
    uint64_t m_ullCount = 0;
    uint64_t m_ullSum = 0;
    uint32_t m_uMin = UINT32_MAX;
    uint32_t m_uMax = 0;
};

} // namespace lab

#endif
