#include "AVGUDTRecvData.h"

#include <algorithm>
#include <new>

void tagUinTrack::NoteGapChange(tagPktNode* pNode)
try
{
    if (pNode->Pkt().cPrePkgLost != 0)
        mapGaps.emplace(pNode->Seq(), &pNode->Pkt());
    else
        mapGaps.erase(pNode->Seq());
}
catch (const std::bad_alloc&)
{
    bGapsKnown = false;
    mapGaps.clear();
}

void tagUinTrack::NoteLate(tagPktNode* pNode)
try
{
    vecLate.push_back(pNode);
}
catch (const std::bad_alloc&)
{
    ForgetWalk();
}

namespace
{
constexpr uint32 c_dwMsPerSecond = 1000;
} // namespace

// In any second at most: a full budget, and what the second brings, is (1/4 + 3/4) of the setting. Under four per second
// the budget holds one whole packet, and the rest of the sum makes up for less than one.
uint64 CUdtRequestBudget::Most() const
{
    return std::max<uint64>((uint64)m_dwPerSecond * c_dwMsPerSecond, c_dwParts);
}

void CUdtRequestBudget::Refill(uint32 dwPerSecond, uint32 dwNow)
{
    if (m_dwPerSecond == 0)
    {
        m_dwPerSecond = dwPerSecond;
        m_ullParts = Most(); // just set: nothing was asked for under it yet
    }
    else
    {
        m_ullParts += 3ull * m_dwPerSecond * std::min(dwNow - m_dwTick, c_dwMsPerSecond);
        m_dwPerSecond = dwPerSecond;
        m_ullParts = std::min(m_ullParts, Most());
    }
    m_dwTick = dwNow;
}

uint64 CUdtRequestBudget::LeftAtOnce() const
{
    const uint64 ullKept = Most() / 2;
    return m_ullParts > ullKept ? (m_ullParts - ullKept) / c_dwParts : 0;
}

void CUdtRequestBudget::Spend(uint64 ullPackets)
{
    m_ullParts -= std::min(m_ullParts, ullPackets * c_dwParts);
}
