// Which sequences of a stream were seen, in bounded memory.
#ifndef LAB_SEQWINDOW_H
#define LAB_SEQWINDOW_H

#include <cstdint>
#include <vector>

namespace lab
{

// A ring of bits over the last 32768 sequences, right across the 32-bit wrap. That is all the order a 16-bit
// RTP sequence can tell; a sequence further back than that counts as new.
class CSeqWindow
{
public:
    static constexpr uint32_t c_uSpan = 32768;

    enum class ESeen
    {
        Ahead,  // above everything so far
        Behind, // below the highest, for the first time
        Again   // seen before
    };

    ESeen Insert(uint32_t uSeq);
    bool Contains(uint32_t uSeq) const;

    bool Empty() const { return m_vecBits.empty(); }
    uint32_t Highest() const { return m_uHighest; }
    uint64_t Unique() const { return m_ullUnique; }
    // Highest minus lowest plus one, followed over any number of wraps; 0 before the first.
    uint64_t Expected() const { return m_vecBits.empty() ? 0 : (uint64_t)(m_llHigh - m_llLow) + 1; }
    // Never seen of those expected, so far.
    uint64_t Missing() const { return Expected() > m_ullUnique ? Expected() - m_ullUnique : 0; }

private:
    bool Bit(uint32_t uSeq) const { return m_vecBits[(uSeq % c_uSpan) / 64] >> (uSeq % 64) & 1; }
    void Set(uint32_t uSeq) { m_vecBits[(uSeq % c_uSpan) / 64] |= 1ull << (uSeq % 64); }
    void Reset(uint32_t uSeq) { m_vecBits[(uSeq % c_uSpan) / 64] &= ~(1ull << (uSeq % 64)); }

    std::vector<uint64_t> m_vecBits; // made with the first sequence
    uint32_t m_uHighest = 0;
    int64_t m_llHigh = 0; // the same, unwrapped, from 0 at the first sequence
    int64_t m_llLow = 0;
    uint64_t m_ullUnique = 0;
};

} // namespace lab

#endif
