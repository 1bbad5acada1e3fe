/**
 * What the receiver takes at most, when its owner says so.
 *
 * In goes what comes too much; out come packets that are turned away, requests that wait and clocks that leap, each
 * counted. Every guard is asked where the thing it bounds would grow, by the thread that would make it grow; none takes
 * anything away from a stream that keeps within its bounds. Nothing in here is reached while there are no guards.
 */

#include "AVGUDTRecv.h"

#include "AVGUDTRecvInner.h"
#include "AVGUDTRecvRules.h"

#include <algorithm>

namespace
{

constexpr uint32 c_dwPullBackSpan = 1000;      // ms over which pull-backs of a user are counted
constexpr size_t c_nRingParamsPerAccount = 16; // streams per remembered account, on average

bool IsOver(uint64 ullHeld, uint32 dwMost) { return dwMost != 0 && ullHeld >= dwMost; }

uint32 BytesOf(const UDTCodecBaseDecode_V2* pData) { return pData != nullptr ? pData->wLen : 0; }

} // namespace

// ---- Any thread --------------------------------------------------------------------------------------------

void CAVGUdtRecv::SetGuards(const tagUDTRecvGuards& stGuards)
{
    CXPAutoLock lock(m_paramlock);
    m_stGuards.dwMaxIntakePackets = stGuards.dwMaxIntakePackets;
    m_stGuards.dwMaxIntakeBytes = stGuards.dwMaxIntakeBytes;
    m_stGuards.dwMaxStreams = stGuards.dwMaxStreams;
    m_stGuards.dwMaxAccounts = stGuards.dwMaxAccounts;
    m_stGuards.dwMaxStreamPackets = stGuards.dwMaxStreamPackets;
    m_stGuards.dwMaxStreamHistory = stGuards.dwMaxStreamHistory;
    m_stGuards.dwMaxRequestsPerSecond = stGuards.dwMaxRequestsPerSecond;
    m_stGuards.dwMaxPullBacks = stGuards.dwMaxPullBacks;
    m_stGuards.dwMaxLatency = stGuards.dwMaxLatency;
    m_stGuards.bStream = stGuards.dwMaxStreamPackets != 0 || stGuards.dwMaxStreamHistory != 0;

    // The bytes that wait already count as well.
    CXPAutoLock lockData(m_dataLock);
    m_stGuards.bIntake = stGuards.dwMaxIntakePackets != 0 || stGuards.dwMaxIntakeBytes != 0;
    if (m_stGuards.bIntake != FALSE)
        CountIntakeAnew();
}

void CAVGUdtRecv::GetGuardInfo(tagUDTRecvGuardInfo& stInfo)
{
    stInfo.dwIntakePackets = m_stGuardCounts.dwIntakePackets;
    stInfo.dwIntakeBytes = m_stGuardCounts.dwIntakeBytes;
    stInfo.dwStreams = m_stGuardCounts.dwStreams;
    stInfo.dwAccounts = m_stGuardCounts.dwAccounts;
    stInfo.dwAccountsForgot = m_stGuardCounts.dwAccountsForgot;
    stInfo.dwStreamPackets = m_stGuardCounts.dwStreamPackets;
    stInfo.dwStreamHistory = m_stGuardCounts.dwStreamHistory;
    stInfo.dwRequests = m_stGuardCounts.dwRequests;
    stInfo.dwPullBacks = m_stGuardCounts.dwPullBacks;
    stInfo.dwLatency = m_stGuardCounts.dwLatency;
}

// ---- Network threads ---------------------------------------------------------------------------------------

// Is there room in the intake list? Counts the packet in. Its first half is for whoever comes. The second is kept for
// streams that are there already, an equal part for each: a flood does not keep the others' packets out.
UDT_SELDOM bool CAVGUdtRecv::AdmitToIntake(uint64 ullAccount, uint8 cSubType,
                                           const UDTCodecBaseDecode_V2* pData)
{
    const uint32 dwMaxPackets = m_stGuards.dwMaxIntakePackets;
    const uint32 dwMaxBytes = m_stGuards.dwMaxIntakeBytes;
    const uint32 dwBytes = BytesOf(pData);
    const uint64 ullPackets = m_listRawData.size() + 1;
    const uint64 ullBytes = m_ullIntakeBytes + dwBytes;
    const bool bManyPackets = dwMaxPackets != 0 && ullPackets > (dwMaxPackets + 1ull) / 2;
    const bool bManyBytes = dwMaxBytes != 0 && ullBytes > dwMaxBytes / 2;
    if ((dwMaxPackets != 0 && ullPackets > dwMaxPackets) || (dwMaxBytes != 0 && ullBytes > dwMaxBytes) ||
        ((bManyPackets || bManyBytes) &&
         !AdmitToShare(tagInPktKey(ullAccount, cSubType), bManyPackets ? dwMaxPackets / 2 : c_dwNone32,
                       bManyBytes ? dwMaxBytes / 2 : c_dwNone32, dwBytes)))
    {
        (bManyPackets ? m_stGuardCounts.dwIntakePackets : m_stGuardCounts.dwIntakeBytes) += 1;
        return false;
    }
    m_ullIntakeBytes += dwBytes;
    return true;
}

// At least one packet is every stream's.
bool CAVGUdtRecv::AdmitToShare(const tagInPktKey& stKey, uint64 ullMostPackets, uint64 ullMostBytes,
                               uint32 dwBytes)
{
    size_t nStreams = 0;
    {
        CXPAutoLock lock(m_lockStreams);
        if (m_mapUinInPkt.count(stKey) == 0)
            return false;
        nStreams = m_mapUinInPkt.size();
    }
    tagIntakeShare& stShare = m_mapIntakeShares[stKey];
    if (stShare.dwPackets != 0 && (stShare.dwPackets >= ullMostPackets / nStreams ||
                                   stShare.ullBytes + dwBytes > ullMostBytes / nStreams))
        return false;
    stShare.dwPackets += 1;
    stShare.ullBytes += dwBytes;
    return true;
}

UDT_SELDOM void CAVGUdtRecv::CountIntakeAnew()
{
    m_mapIntakeShares.clear();
    CountIntakeBytes();
}

UDT_SELDOM void CAVGUdtRecv::CountIntakeBytes()
{
    m_ullIntakeBytes = 0;
    for (const tagDataPacket& dataPacket : m_listRawData)
        m_ullIntakeBytes += BytesOf(dataPacket.pRawData.p);
}

// Makes room for one more stream of an account. The unwrapped time goes into a trace and nowhere else, so whoever is
// forgotten loses nothing but its number of wraps there: the next accounts behind the one that comes will do.
void CAVGUdtRecv::ForgetRingParams(uint64 ullAccount, size_t nMostAccounts)
{
    MapUinPkgRingParam& mapParams = m_mapUinPkgRingParam;
    const size_t nMostParams = nMostAccounts * c_nRingParamsPerAccount;
    MapUinPkgRingParam::const_iterator it = mapParams.lower_bound(tagInPktKey(ullAccount, 0));
    const bool bKnown = it != mapParams.end() && it->first.ullUserAccount == ullAccount;
    while (!mapParams.empty() &&
           ((!bKnown && m_nRingAccounts >= nMostAccounts) || mapParams.size() >= nMostParams))
    {
        it = mapParams.upper_bound(tagInPktKey(ullAccount, 0xFF));
        if (it == mapParams.end())
            it = mapParams.begin();
        const uint64 ullForgot = it->first.ullUserAccount;
        mapParams.erase(it, mapParams.upper_bound(tagInPktKey(ullForgot, 0xFF)));
        m_nRingAccounts -= 1;
        m_stGuardCounts.dwAccountsForgot.Add(1);
        if (ullForgot == ullAccount)
            break; // the only one there is, with more streams than belong to one
    }
}

// ---- Worker: streams and users -----------------------------------------------------------------------------

// May a stream that is not there yet begin?
UDT_SELDOM bool CAVGUdtRecv::AdmitStream(uint64 ullAccount)
{
    if (IsOver(m_mapUinInPkt.size(), m_stGuards.dwMaxStreams))
    {
        m_stGuardCounts.dwStreams += 1;
        return false;
    }
    const uint32 dwMaxAccounts = m_stGuards.dwMaxAccounts;
    if (dwMaxAccounts != 0 && !AdmitUser(ullAccount, dwMaxAccounts))
    {
        m_stGuardCounts.dwAccounts += 1;
        return false;
    }
    return true;
}

bool CAVGUdtRecv::AdmitUser(uint64 ullAccount, size_t nMostAccounts)
{
    if (m_mapUinDataInfo.count(ullAccount) != 0)
        return true;
    while (m_mapUinDataInfo.size() >= nMostAccounts)
    {
        if (!ForgetIdleUser())
            return false;
    }
    return true;
}

// Forgets the timeline of one user whose streams were all cleared. Looked for once per turn, however many packets ask.
bool CAVGUdtRecv::ForgetIdleUser()
{
    if (!m_bIdleUsersKnown)
    {
        m_vecIdleUsers.clear();
        for (const MapUinDataInfo::value_type& stUser : m_mapUinDataInfo)
        {
            if (UpdateUinNum(stUser.first) != 0)
                m_vecIdleUsers.push_back(stUser.first);
        }
        m_bIdleUsersKnown = true;
    }
    while (!m_vecIdleUsers.empty())
    {
        const uint64 ullAccount = m_vecIdleUsers.back();
        m_vecIdleUsers.pop_back();
        if (UpdateUinNum(ullAccount) == 0)
            continue; // came back in this very turn
        EraseUser(ullAccount);
        m_stGuardCounts.dwAccountsForgot.Add(1);
        return true;
    }
    return false;
}

// Is there room for one more packet in a stream's buffer, and in its memory of duplicates?
UDT_SELDOM bool CAVGUdtRecv::AdmitToStream(const tagUinDataBuf& stUinDataBuf)
{
    if (IsOver(stUinDataBuf.mapUdtPacket.size(), m_stGuards.dwMaxStreamPackets))
    {
        m_stGuardCounts.dwStreamPackets += 1;
        return false;
    }
    if (IsOver(stUinDataBuf.mapRecvSeq.size(), m_stGuards.dwMaxStreamHistory))
    {
        m_stGuardCounts.dwStreamHistory += 1;
        return false;
    }
    return true;
}

// A pull-back looks at every packet of its user. Whoever sends now ahead of the clock and now behind it would have
// that done for every other packet.
UDT_SELDOM bool CAVGUdtRecv::AdmitPullBack(uint64 ullAccount, uint32 dwNow)
{
    const uint32 dwMaxPullBacks = m_stGuards.dwMaxPullBacks;
    if (dwMaxPullBacks == 0)
        return true;
    if (TickReached(dwNow, m_dwPullBackTick, c_dwPullBackSpan))
    {
        m_dwPullBackTick = dwNow;
        m_mapPullBacks.clear();
    }
    uint32& dwPullBacks = m_mapPullBacks[ullAccount];
    if (dwPullBacks >= dwMaxPullBacks)
    {
        m_stGuardCounts.dwPullBacks += 1;
        return false;
    }
    dwPullBacks += 1;
    return true;
}

// ---- Worker: requests and clocks ---------------------------------------------------------------------------

// May so many packets of an I frame be asked for without waiting for the scan, beside those gathered already?
UDT_SELDOM bool CAVGUdtRecv::MayAskAtOnce(uint32 dwPackets)
{
    const uint32 dwPerSecond = m_stGuards.dwMaxRequestsPerSecond;
    if (dwPerSecond == 0)
        return true;
    m_requestBudget.Refill(dwPerSecond, TickNow());
    return m_vecIFrmLost.size() + dwPackets <= m_requestBudget.LeftAtOnce();
}

// The same leap as a switch into low latency makes: what lies behind the clock leaves in this turn, in order.
UDT_SELDOM void CAVGUdtRecv::DropBacklogs()
{
    const uint32 dwMaxLatency = m_stGuards.dwMaxLatency;
    if (dwMaxLatency == 0)
        return;
    for (MapUinDataInfo::value_type& stUser : m_mapUinDataInfo)
    {
        tagUinDataInfo& stInfo = stUser.second;
        if (stInfo.dwTimelineOut == 0 ||
            DataLenAhead(stInfo.dwTimelineIn, stInfo.dwTimelineOut) <= dwMaxLatency)
            continue;
        // To where the clock aims anyway, so that one leap is enough.
        const uint32 dwTarget = PlayoutTarget(stInfo.dwTimelineMax - stInfo.dwTimelineMin,
                                              stInfo.dwExWaitTick, m_dwTimelineDelta, m_dwTimelineDeltaMax);
        stInfo.dwTimelineOut = stInfo.dwTimelineIn - std::min(dwMaxLatency, dwTarget);
        m_stGuardCounts.dwLatency += 1;
    }
}
