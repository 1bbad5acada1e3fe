#include "Impair.h"

#include "RtpPacket.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>

namespace lab
{

namespace
{

// A sequence comes around: an entry this old speaks of another packet of that number.
constexpr uint64 c_ullEntryLivesUs = 60 * 1000000ull;

void SkipBlanks(const char*& p)
{
    while (*p == ' ')
        p++;
}

// A number that is not negative, written the plain way.
bool ReadNumber(const char*& p, double& d)
{
    SkipBlanks(p);
    if (*p < '0' || *p > '9')
        return false;
    char* pEnd = nullptr;
    d = strtod(p, &pEnd);
    p = pEnd;
    SkipBlanks(p);
    return std::isfinite(d);
}

bool Skip(const char*& p, const std::string& strWhat)
{
    if (std::string(p).compare(0, strWhat.size(), strWhat) != 0)
        return false;
    p += strWhat.size();
    SkipBlanks(p);
    return true;
}

uint64 Key(uint32 dwSsrc, uint16 wSeq) { return (uint64)dwSsrc << 16 | wSeq; }

} // namespace

bool ParseShare(const std::string& strText, double& dShare, std::string& strError)
{
    const char* p = strText.c_str();
    double d = 0;
    if (!ReadNumber(p, d) || !Skip(p, "%") || *p != 0 || d > 100)
    {
        strError = "\"" + strText + "\" is not a share (expected 0% to 100%, for example 5%)";
        return false;
    }
    dShare = d / 100;
    return true;
}

bool ParseDelay(const std::string& strText, uint32& dwMs, uint32& dwSpreadMs, std::string& strError)
{
    const char* p = strText.c_str();
    double dMs = 0;
    double dSpread = 0;
    bool bGood = ReadNumber(p, dMs);
    Skip(p, "ms");
    if (Skip(p, "\xC2\xB1") || Skip(p, "+-")) // ±
    {
        bGood = bGood && ReadNumber(p, dSpread);
        Skip(p, "ms");
    }
    if (!bGood || *p != 0 || dMs > 10000 || dSpread > dMs)
    {
        strError =
            "\"" + strText +
            "\" is not a delay (expected for example 40ms or 40+-20ms, up to 10000, the second no larger "
            "than the first)";
        return false;
    }
    dwMs = (uint32)std::lround(dMs);
    dwSpreadMs = (uint32)std::lround(dSpread);
    return true;
}

// ---- The network ----

CImpair::CImpair(const tagImpairOptions& stOptions)
    : m_stOptions(stOptions), m_randDrop(stOptions.ullSeed, "drop"), m_randDelay(stOptions.ullSeed, "delay"),
      m_randReorder(stOptions.ullSeed, "reorder")
{
}

bool CImpair::Put(const tagRtpDatagram& stDatagram, uint32 uDoor, tagDropped& stDropped)
{
    tagRtpHeader stHeader;
    emRtpDrop eReason = RTP_DROP_NOT_RTP;
    const bool bRtp = !IsRtcp(stDatagram.pData, stDatagram.dwCaptured) &&
                      ParseRtp(stDatagram.pData, stDatagram.dwCaptured, stDatagram.dwWire, stHeader, eReason);
    // One draw each per packet, so that one knob does not change what another one hits.
    bool bLate = false;
    if (bRtp)
    {
        m_ullRtp++;
        const bool bDrop = m_randDrop.Chance(m_stOptions.dDrop);
        bLate = m_randReorder.Chance(m_stOptions.dReorder);
        if (bDrop)
        {
            m_ullDropped++;
            stDropped = {stHeader.dwSsrc, stHeader.wSeq};
            return false;
        }
    }
    const double dSpread = m_stOptions.dwSpreadMs * 1000.0 * (2 * m_randDelay.Uniform() - 1);
    uint64 ullDueUs =
        stDatagram.ullArrivalUs + (uint64)std::max(0.0, m_stOptions.dwDelayMs * 1000.0 + dSpread);
    if (bLate)
    {
        m_ullReordered++;
        ullDueUs += m_stOptions.dwReorderMs * 1000ull;
    }
    else // a queue: what is behind does not come first
        ullDueUs = m_ullLastDueUs = std::max(ullDueUs, m_ullLastDueUs);

    tagOnWay stOnWay;
    stOnWay.ullDueUs = ullDueUs;
    stOnWay.ullOrder = m_ullOrder++;
    stOnWay.stHeld.st = stDatagram;
    stOnWay.stHeld.vecBytes.assign(stDatagram.pData, stDatagram.pData + stDatagram.dwCaptured);
    stOnWay.stHeld.uDoor = uDoor;
    m_queue.push(std::move(stOnWay));
    return true;
}

bool CImpair::Take(uint64 ullNowUs, tagHeldDatagram& stHeld)
{
    if (m_queue.empty() || m_queue.top().ullDueUs > ullNowUs)
        return false;
    stHeld = m_queue.top().stHeld;
    stHeld.st.ullArrivalUs = m_queue.top().ullDueUs;
    stHeld.st.pData = stHeld.vecBytes.data();
    m_queue.pop();
    return true;
}

bool CImpair::NextUs(uint64& ullWhenUs) const
{
    if (m_queue.empty())
        return false;
    ullWhenUs = m_queue.top().ullDueUs;
    return true;
}

// ---- The drop list ----

void CDropList::Dropped(const tagDropped& st, uint64 ullNowUs)
{
    if (tagEntry* pEntry = Find(st.dwSsrc, st.wSeq, ullNowUs))
    {
        pEntry->dwTimes++;
        return;
    }
    tagEntry stEntry;
    stEntry.dwSsrc = st.dwSsrc;
    stEntry.wSeq = st.wSeq;
    stEntry.ullDroppedUs = ullNowUs;
    if (m_vecEntries.size() < c_nKept)
        m_vecEntries.push_back(stEntry);
    else
    {
        FoldOldest();
        m_vecEntries[m_ullEntries % c_nKept] = stEntry;
    }
    m_mapNewest[Key(st.dwSsrc, st.wSeq)] = m_ullEntries++;
}

void CDropList::Came(uint32 dwSsrc, uint16 wSeq, uint64 ullNowUs)
{
    tagEntry* pEntry = Find(dwSsrc, wSeq, ullNowUs);
    if (pEntry != nullptr && pEntry->eState == Open)
        pEntry->eState = Back;
}

void CDropList::Played(uint32 dwSsrc, uint16 wSeq, bool bLate, uint64 ullNowUs)
{
    tagEntry* pEntry = Find(dwSsrc, wSeq, ullNowUs);
    if (pEntry != nullptr && pEntry->eState == Back)
        pEntry->eState = bLate ? Late : InTime;
}

CDropList::tagEntry* CDropList::Find(uint32 dwSsrc, uint16 wSeq, uint64 ullNowUs)
{
    const auto it = m_mapNewest.find(Key(dwSsrc, wSeq));
    if (it == m_mapNewest.end())
        return nullptr;
    tagEntry& stEntry = m_vecEntries[it->second % c_nKept];
    return ullNowUs - stEntry.ullDroppedUs <= c_ullEntryLivesUs ? &stEntry : nullptr;
}

namespace
{
void Count(tagDropFate& st, CDropList::EState eState)
{
    st.ullDropped++;
    st.ullNever += eState == CDropList::Open ? 1 : 0;
    st.ullBack += eState != CDropList::Open ? 1 : 0;
    st.ullInTime += eState == CDropList::InTime ? 1 : 0;
    st.ullLate += eState == CDropList::Late ? 1 : 0;
}
} // namespace

void CDropList::FoldOldest()
{
    const tagEntry& stOldest = m_vecEntries[m_ullEntries % c_nKept];
    Count(m_mapFolded[stOldest.dwSsrc], stOldest.eState);
    const auto it = m_mapNewest.find(Key(stOldest.dwSsrc, stOldest.wSeq));
    if (it != m_mapNewest.end() && it->second == m_ullEntries - c_nKept)
        m_mapNewest.erase(it);
}

std::map<uint32, tagDropFate> CDropList::Fates(uint64 ullSinceUs, uint64 ullBeforeUs) const
{
    std::map<uint32, tagDropFate> map;
    if (ullSinceUs == 0) // what was folded is long ago
        map = m_mapFolded;
    for (const tagEntry& stEntry : m_vecEntries)
        if (stEntry.ullDroppedUs >= ullSinceUs && stEntry.ullDroppedUs < ullBeforeUs)
            Count(map[stEntry.dwSsrc], stEntry.eState);
    return map;
}

std::vector<CDropList::tagEntry> CDropList::Entries() const
{
    std::vector<tagEntry> vec = m_vecEntries;
    if (m_vecEntries.size() == c_nKept)
        std::rotate(vec.begin(), vec.begin() + (std::ptrdiff_t)(m_ullEntries % c_nKept), vec.end());
    return vec;
}

} // namespace lab
