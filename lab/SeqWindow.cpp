#include "SeqWindow.h"

#include <algorithm>

namespace lab
{

CSeqWindow::ESeen CSeqWindow::Insert(uint32_t uSeq)
{
    if (m_vecBits.empty())
    {
        m_vecBits.assign(c_uSpan / 64, 0);
        m_uHighest = uSeq;
        m_ullUnique = 1;
        Set(uSeq);
        return ESeen::Ahead;
    }
    const int32_t nAhead = (int32_t)(uSeq - m_uHighest);
    if (nAhead > 0)
    {
        if ((uint32_t)nAhead >= c_uSpan)
            std::fill(m_vecBits.begin(), m_vecBits.end(), 0);
        else
            for (uint32_t u = m_uHighest + 1; u != uSeq; u++)
                Reset(u);
        Set(uSeq);
        m_uHighest = uSeq;
        m_llHigh += nAhead;
        m_ullUnique++;
        return ESeen::Ahead;
    }
    if (Contains(uSeq))
        return ESeen::Again;
    m_llLow = std::min(m_llLow, m_llHigh + nAhead);
    if ((uint32_t) - (int64_t)nAhead < c_uSpan)
        Set(uSeq);
    m_ullUnique++;
    return ESeen::Behind;
}

bool CSeqWindow::Contains(uint32_t uSeq) const
{
    if (m_vecBits.empty())
        return false;
    const uint32_t uBehind = m_uHighest - uSeq;
    return uBehind < c_uSpan && Bit(uSeq);
}

} // namespace lab
