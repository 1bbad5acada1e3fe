#include "PathHarness.h"

#include "RecvRig.h"
#include "xpmess.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <dlfcn.h>
#include <stdexcept>
#include <string>
#include <time.h>

// ---- Arrivals --------------------------------------------------------------------------------------------------

namespace
{

constexpr uint32 c_dwTurnMs = 10;
constexpr uint32 c_dwMediaBase = 100000;
constexpr uint32 c_dwFirstSeq = 1000;
constexpr uint64 c_ullFirstUin = 10001;
constexpr uint32 c_dwAudioMs = 20;

/// How a second of video is made: a GOP of one I frame and P frames, each paced over its own span.
struct tagVideoShape
{
    uint32 dwRate; // packets/s
    uint32 dwFrames;
    uint32 dwIPackets;
    uint32 dwPPackets;
};

constexpr tagVideoShape c_aShapes[] = {{312, 25, 48, 11}, {1000, 25, 136, 36}, {10000, 100, 199, 99}};

const tagVideoShape& ShapeOf(uint32 dwRate)
{
    for (const tagVideoShape& stShape : c_aShapes)
    {
        if (stShape.dwRate == dwRate)
            return stShape;
    }
    throw std::invalid_argument("no video of that rate");
}

/// Packet `dwSeq` of a video stream that began at its cycle's start.
tagArrival VideoPacket(const tagVideoShape& stShape, uint32 dwSeq)
{
    const uint32 dwSecond = dwSeq / stShape.dwRate;
    const uint32 dwInGop = dwSeq % stShape.dwRate;
    const uint32 dwFrameMs = 1000 / stShape.dwFrames;
    const bool bIFrm = dwInGop < stShape.dwIPackets;
    const uint32 dwFrame = bIFrm ? 0 : 1 + (dwInGop - stShape.dwIPackets) / stShape.dwPPackets;
    const uint32 dwPkg = bIFrm ? dwInGop : (dwInGop - stShape.dwIPackets) % stShape.dwPPackets;
    const uint32 dwPkgNum = bIFrm ? stShape.dwIPackets : stShape.dwPPackets;

    tagArrival st = {};
    st.dwSeq = dwSeq;
    st.dwMediaMs = dwSecond * 1000 + dwFrame * dwFrameMs;
    st.dwMs = st.dwMediaMs + dwPkg * dwFrameMs / dwPkgNum;
    st.cGopIdx = (uint8)dwSecond;
    st.cFrmIdx = (uint8)dwFrame;
    st.cPkgIdx = (uint8)dwPkg;
    st.cPkgNum = (uint8)dwPkgNum;
    st.cFrmType = bIFrm ? def_FrameType_I : def_FrameType_P;
    return st;
}

// The same numbers on every machine and with every library.
class CChance
{
public:
    uint32 Below(uint32 dwLimit)
    {
        m_ullState = m_ullState * 6364136223846793005ull + 1442695040888963407ull;
        return (uint32)(m_ullState >> 33) % dwLimit;
    }

private:
    uint64 m_ullState = 20240229;
};

} // namespace

bool IsPathRate(uint32 dwRate)
{
    return std::any_of(std::begin(c_aShapes), std::end(c_aShapes),
                       [dwRate](const tagVideoShape& stShape) { return stShape.dwRate == dwRate; });
}

uint32 PatternDepth(char cPattern, uint32 dwRate)
{
    // A packet is due with its frame, so what plays in order must hold a frame, what is displaced into the next
    // one, and the 20 ms by which the playout clock moves.
    const uint32 dwFrames = ShapeOf(dwRate).dwFrames;
    switch (cPattern)
    {
    case 'a': return 1;
    case 'b': return dwRate * (dwFrames < 50 ? 80 : 40) / 1000;
    case 'c':
    case 'e': return 500;
    case 'd':
    case 'f': return 2000;
    default: throw std::invalid_argument("patterns are a to f");
    }
}

tagArrivals StreamArrivals(char cPattern, uint32 dwRate)
{
    const tagVideoShape& stShape = ShapeOf(dwRate);
    const uint32 dwSeconds = (65536 + dwRate - 1) / dwRate; // enough for the chances to even out
    const uint32 dwPackets = dwSeconds * dwRate;

    // When a packet is late it comes right behind the packet that it is late by.
    CChance chance;
    std::vector<std::vector<uint32>> vecAt(dwPackets);
    std::vector<bool> vecLost(dwPackets, false);
    for (uint32 i = 0; i < dwPackets; ++i)
    {
        uint32 dwLate = 0;
        if (cPattern == 'b' && chance.Below(100) < 5)
            dwLate = 1 + chance.Below(5);
        else if (cPattern != 'a' && cPattern != 'b' && chance.Below(100) < 2)
        {
            dwLate = cPattern == 'e' ? 250 : 1000;
            vecLost[i] = cPattern == 'c' || cPattern == 'd';
        }
        if (vecLost[i])
            continue;
        // Lateness ends with the cycle: the next one begins in order, so nothing has to be carried over.
        vecAt[std::min(i + dwLate, dwPackets - 1)].push_back(i);
    }

    tagArrivals st;
    st.dwMs = dwSeconds * 1000;
    st.vecStreams.push_back({c_ullFirstUin, MEAVMaxVideo, 1000, dwPackets});
    uint32 dwLost = 0;
    for (uint32 i = 0; i < dwPackets; ++i)
    {
        dwLost += vecLost[i] ? 1 : 0;
        std::sort(vecAt[i].rbegin(), vecAt[i].rend()); // the one that is on time first
        for (uint32 dwSeq : vecAt[i])
        {
            tagArrival stArrival = VideoPacket(stShape, dwSeq);
            stArrival.dwMs = VideoPacket(stShape, i).dwMs;
            stArrival.dwLost = dwLost;
            dwLost = 0;
            st.vecArrivals.push_back(stArrival);
        }
    }
    st.vecArrivals.front().dwLost += dwLost;
    return st;
}

tagArrivals RoomArrivals(uint32 dwUsers)
{
    constexpr uint32 c_dwSeconds = 8; // GOP indices wrap with the cycles
    const tagVideoShape& stShape = ShapeOf(312);
    tagArrivals st;
    st.dwMs = c_dwSeconds * 1000;
    for (uint32 dwUser = 0; dwUser < dwUsers; ++dwUser)
    {
        // Spread over the second, so that neither frames nor GOPs of two users begin together.
        const uint32 dwShift = dwUser * 617 % 1000;
        const auto add = [&](uint8 cSubType, uint16 wLen, uint32 dwSeqs, auto&& makePacket)
        {
            const uint16 wStream = (uint16)st.vecStreams.size();
            st.vecStreams.push_back({c_ullFirstUin + dwUser, cSubType, wLen, dwSeqs});
            for (uint32 dwSeq = 0; dwSeq < dwSeqs; ++dwSeq)
            {
                tagArrival stArrival = makePacket(dwSeq);
                stArrival.wStream = wStream;
                stArrival.dwMs += dwShift;
                if (stArrival.dwMs >= st.dwMs)
                {
                    // Sent in this cycle, here in the next: so each begins with the end of the one before.
                    stArrival.dwMs -= st.dwMs;
                    stArrival.dwSeq -= dwSeqs;
                    stArrival.dwMediaMs -= st.dwMs;
                    stArrival.cGopIdx = (uint8)(stArrival.cGopIdx - c_dwSeconds);
                }
                st.vecArrivals.push_back(stArrival);
            }
        };
        add(MEAVAudio, 100, c_dwSeconds * 1000 / c_dwAudioMs,
            [](uint32 dwSeq)
            {
                tagArrival stArrival = {};
                stArrival.dwSeq = dwSeq;
                stArrival.dwMs = stArrival.dwMediaMs = dwSeq * c_dwAudioMs;
                stArrival.cPkgNum = 1;
                stArrival.cFrmType = def_FrameType_P;
                return stArrival;
            });
        add(MEAVMaxVideo, 1000, c_dwSeconds * stShape.dwRate,
            [&stShape](uint32 dwSeq) { return VideoPacket(stShape, dwSeq); });
    }
    std::stable_sort(st.vecArrivals.begin(), st.vecArrivals.end(),
                     [](const tagArrival& a, const tagArrival& b) { return a.dwMs < b.dwMs; });
    return st;
}

// ---- Packets ---------------------------------------------------------------------------------------------------

CPacketPool::CPacketPool(size_t nPackets)
{
    m_vecPackets.reserve(nPackets * 2);
    for (size_t i = 0; i < nPackets; ++i)
        Give(Grow());
}

CBenchPacket* CPacketPool::Grow()
{
    CBenchPacket* p = new CBenchPacket;
    m_vecPackets.emplace_back(p);
    p->bufBody.pbuf = (uint8*)&p->m_stHead;
    p->bufBody.ulen = sizeof(p->m_stHead);
    ++m_nOut;
    return p;
}

// ---- Clock -----------------------------------------------------------------------------------------------------

namespace
{

const uint64* g_pullScheduleTick = nullptr; // while set, monotonic clocks of this program tell this, ms

uint64 TickOf(void* pullTick) { return *(const uint64*)pullTick; }

typedef int (*PFN_ClockGetTime)(clockid_t, timespec*);

PFN_ClockGetTime MachineClock()
{
    static const PFN_ClockGetTime s_pfn = (PFN_ClockGetTime)dlsym(RTLD_NEXT, "clock_gettime");
    return s_pfn;
}

} // namespace

// The system library's clock is reached through this one. With a schedule set, the machine's clock is still read,
// so that the caller pays for it, and the schedule's time returned: a library without a tick source lives through
// an hour in a second and does with its clock what it does in real time.
extern "C" int clock_gettime(clockid_t nClock, timespec* pst) noexcept
{
    const int nResult = MachineClock()(nClock, pst);
    if (g_pullScheduleTick != nullptr && nClock != CLOCK_PROCESS_CPUTIME_ID &&
        nClock != CLOCK_THREAD_CPUTIME_ID)
    {
        const uint64 ullTick = *g_pullScheduleTick;
        pst->tv_sec = (time_t)(ullTick / 1000);
        pst->tv_nsec = (long)(ullTick % 1000) * 1000000;
    }
    return nResult;
}

// ---- Takers ----------------------------------------------------------------------------------------------------

namespace
{

class CReceiverTaker : public IPathTaker
{
public:
    CReceiverTaker(CBenchOwner& owner, const tagPathConfig& stConfig) : m_recv(&owner)
    {
        m_recv.SetOwnerDriven(TRUE);
        m_recv.Start();

        // Both bounds alike: the target stays where it is, whatever losses and jitter ask for. The clock runs
        // evenly while 0 to 100 ms more than that are buffered; halfway in between nothing disturbs it.
        tagUDTRecvParams params;
        params.wTimelineDelta = (uint16)std::max<int>(1, (int)stConfig.DepthMs() - 50);
        params.wQueuePeriod = params.wTimelineDelta;
        params.wPushGopNum = 2;
        m_recv.UDTSetRecvParams(params);
        m_recv.SetRoomState(1); // any but 0, which is taken for playing after 2.5 s
    }
    ~CReceiverTaker() override { m_recv.Stop(); }

    void Take(const tagArrivalStream& stStream, uint32 dwSeq, uint32 dwDownSeq,
              CBenchPacket* pPacket) override
    {
        m_recv.UDTReceiveNetData(dwSeq, stStream.ullUin, dwDownSeq, 0, stStream.cSubType, pPacket);
    }
    void Turn() override { m_recv.RunTurn(); }
    void Play() override { m_recv.SetRoomState(c_dwRoomStatePlaying); }
    size_t Held() const override
    {
        size_t nHeld = 0;
        for (const MapUinInPkt::value_type& stStream : CRecvRig::StreamsOf(m_recv))
            nHeld += stStream.second.mapUdtPacket.size();
        return nHeld;
    }
    uint64 Lost() const override
    {
        uint64 ullLost = 0;
        for (const MapUinInPkt::value_type& stStream : CRecvRig::StreamsOf(m_recv))
            ullLost += stStream.second.stStatInfo.dwTotalLossPkgNum;
        return ullLost;
    }
    bool CountsLost() const override { return true; }

private:
    CAVGUdtRecv m_recv;
};

class CNobodyTaker : public IPathTaker
{
public:
    explicit CNobodyTaker(CBenchOwner& owner) : m_pOwner(&owner) {}
    void Take(const tagArrivalStream&, uint32, uint32, CBenchPacket* pPacket) override
    {
        tagUdtPacketHeadInfo stHead;
        int nDelay = 0;
        m_pOwner->UdtParsePacketHeadInfo(pPacket->bufBody.pbuf, stHead);
        m_pOwner->OnUDTRecvOutData(pPacket, &nDelay);
    }
    void Turn() override {}
    size_t Held() const override { return 0; }
    uint64 Lost() const override { return 0; }
    bool Orders() const override { return false; }

private:
    IUDTRecvEventCallBack* m_pOwner;
};

} // namespace

std::unique_ptr<IPathTaker> MakeReceiver(CBenchOwner& owner, const tagPathConfig& stConfig)
{
    return std::make_unique<CReceiverTaker>(owner, stConfig);
}

std::unique_ptr<IPathTaker> MakeNobody(CBenchOwner& owner, const tagPathConfig&)
{
    return std::make_unique<CNobodyTaker>(owner);
}

// ---- Run -------------------------------------------------------------------------------------------------------

uint32 tagPathConfig::DepthMs() const
{
    return (uint32)std::lround(dDepth * pArrivals->dwMs / (double)pArrivals->vecArrivals.size());
}

CPathRun::CPathRun(const tagPathConfig& stConfig) : m_stConfig(stConfig)
{
    // A buffer begins to play when so much has come. How much it then holds on average depends on how frames and
    // turns fall together; so the first try is measured and the second one begins that much earlier or later.
    double dPlayMs = stConfig.DepthMs() + 1;
    for (int nTry = 0; nTry < 3; ++nTry)
    {
        Build((uint32)std::max<long>(0, std::lround(dPlayMs)));
        const double dOffMs = (m_dDepth - stConfig.dDepth) * stConfig.pArrivals->dwMs /
                              (double)stConfig.pArrivals->vecArrivals.size();
        if (std::abs(dOffMs) < 3)
            break;
        dPlayMs -= dOffMs;
    }
}

CPathRun::~CPathRun()
{
    m_pTaker.reset();
    g_pullScheduleTick = nullptr;
    xp_settickcountsource(nullptr, nullptr);
}

void CPathRun::Build(uint32 dwPlayMs)
{
    constexpr uint32 c_dwMeasureMs = 4000;
    const uint32 dwWarmUpMs = dwPlayMs + 12000;

    m_pTaker.reset();
    m_ullTick = m_dwTurnTick = m_dwCycleTick = 1000;
    m_dwCycle = 0;
    m_nNext = 0;
    m_dwDownSeq = 1000;
    m_ullFed = m_ullLost = m_ullTurns = 0;
    xp_settickcountsource(TickOf, &m_ullTick);
    m_pPool = std::make_unique<CPacketPool>((size_t)(m_stConfig.dDepth * 1.25) + 1000);
    m_pOwner = std::make_unique<CBenchOwner>(*m_pPool, m_stConfig.pArrivals->vecStreams.size());
    m_pTaker = m_stConfig.pfnMake(*m_pOwner, m_stConfig);

    double dHeld = 0;
    for (uint32 dwMs = 0; dwMs < dwWarmUpMs; dwMs += c_dwTurnMs)
    {
        if (dwMs / c_dwTurnMs == dwPlayMs / c_dwTurnMs)
            m_pTaker->Play();
        Turns(1);
        if (dwMs + c_dwMeasureMs >= dwWarmUpMs)
            dHeld += (double)m_pTaker->Held();
    }
    m_dDepth = dHeld * c_dwTurnMs / c_dwMeasureMs;
}

void CPathRun::Turns(uint32 dwTurns)
{
    const bool bReal = m_stConfig.eClock == PATH_CLOCK_REAL;
    if (bReal)
    {
        g_pullScheduleTick = &m_ullTick;
        xp_settickcountsource(nullptr, nullptr);
    }
    if (m_stConfig.bTurnPerPacket)
        TurnsOf<true>(dwTurns);
    else
        TurnsOf<false>(dwTurns);
    if (bReal)
    {
        g_pullScheduleTick = nullptr;
        xp_settickcountsource(TickOf, &m_ullTick);
    }
}

template <bool bTurnPerPacket>
void CPathRun::TurnsOf(uint32 dwTurns)
{
    const tagArrivals& arrivals = *m_stConfig.pArrivals;
    const tagArrival* const pArrivals = arrivals.vecArrivals.data();
    const size_t nArrivals = arrivals.vecArrivals.size();
    CPacketPool& pool = *m_pPool;
    IPathTaker& taker = *m_pTaker;
    for (; dwTurns > 0; --dwTurns)
    {
        m_dwTurnTick += c_dwTurnMs;
        for (;;)
        {
            const tagArrival& st = pArrivals[m_nNext];
            const uint32 dwAt = m_dwCycleTick + st.dwMs;
            if ((int32)(dwAt - m_dwTurnTick) >= 0)
                break;
            m_ullTick = dwAt;

            const tagArrivalStream& stStream = arrivals.vecStreams[st.wStream];
            CBenchPacket* p = pool.Take();
            p->m_wStream = st.wStream;
            p->u64Uin = stStream.ullUin;
            p->wLen = stStream.wLen;
            p->dwSenderSeq = c_dwFirstSeq + m_dwCycle * stStream.dwSeqsPerCycle + st.dwSeq;
            tagUdtPacketHeadInfo& stHead = p->m_stHead;
            stHead.cSubType = stStream.cSubType;
            stHead.cFrmType = st.cFrmType;
            stHead.cPkgIndex = st.cPkgIdx;
            stHead.cTotalPkgCount = st.cPkgNum;
            stHead.cFrameIndex = st.cFrmIdx;
            stHead.cGopIndex = (uint8)(m_dwCycle * (arrivals.dwMs / 1000) + st.cGopIdx);
            stHead.uTimeStamp = c_dwMediaBase + m_dwCycle * arrivals.dwMs + st.dwMediaMs;
            taker.Take(stStream, p->dwSenderSeq, ++m_dwDownSeq, p);
            ++m_ullFed;
            m_ullLost += st.dwLost;
            if (++m_nNext == nArrivals)
            {
                m_nNext = 0;
                ++m_dwCycle;
                m_dwCycleTick += arrivals.dwMs;
            }
            if (bTurnPerPacket)
                taker.Turn();
        }
        m_ullTick = m_dwTurnTick;
        taker.Turn();
        ++m_ullTurns;
    }
}

tagPathMark CPathRun::Mark()
{
    m_pTaker->Settle();
    tagPathMark st;
    st.ullFed = m_ullFed;
    st.ullReleased = m_pOwner->m_ullReleased;
    st.ullBackwards = m_pOwner->m_ullBackwards;
    st.ullLate = m_pTaker->Late();
    st.ullLost = m_ullLost;
    st.ullLostSeen = m_pTaker->Lost();
    st.ullAsked = m_pOwner->m_ullAsked;
    st.ullTurns = m_ullTurns;
    return st;
}

std::string CPathRun::CheckSince(const tagPathMark& stThen)
{
    const tagPathMark stNow = Mark();
    const auto number = [](double d) { return std::to_string((long long)d); };

    const uint64 ullHeld = m_pTaker->Held();
    if (stNow.ullFed - stNow.ullReleased != ullHeld + stNow.ullLate ||
        m_pPool->Out() != ullHeld + stNow.ullLate)
        return "fed " + number((double)stNow.ullFed) + ", played " + number((double)stNow.ullReleased) +
               ", held " + number((double)ullHeld) + ": something was dropped";
    if ((stNow.ullLate - stThen.ullLate) * 100 > stNow.ullFed - stThen.ullFed)
        return number((double)(stNow.ullLate - stThen.ullLate)) + " packets were dropped for being late";
    if ((double)ullHeld > 2 * m_stConfig.dDepth + 1000)
        return number((double)ullHeld) + " packets held, more than the case has";
    if (m_pTaker->Orders() && stNow.ullBackwards != stThen.ullBackwards)
        return number((double)(stNow.ullBackwards - stThen.ullBackwards)) + " packets played out of order";

    // The buffer shifts what is seen against what was sent.
    const double dLost = (double)(stNow.ullLost - stThen.ullLost);
    const double dSeen = (double)(uint32)(stNow.ullLostSeen - stThen.ullLostSeen);
    if (m_pTaker->CountsLost() && std::abs(dLost - dSeen) > 5 + m_stConfig.dDepth * 0.03)
        return "lost " + number(dLost) + ", but the count is " + number(dSeen);
    return "";
}
