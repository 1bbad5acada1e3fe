// What a network does to packets. In: a source. Out: a source. Each piece keeps only what is on its way through it.

#include "SimNet.h"

#include <algorithm>
#include <cmath>

namespace lab
{

// ---- By time -----------------------------------------------------------------------------------------------------

void CSimHeap::Push(int64 llTimeUs, const tagSimPacket& stPacket)
{
    m_vec.push_back({llTimeUs, m_ullOrder++, stPacket});
    std::push_heap(m_vec.begin(), m_vec.end());
}

tagSimPacket CSimHeap::Pop()
{
    std::pop_heap(m_vec.begin(), m_vec.end());
    const tagSimPacket stPacket = m_vec.back().stPacket;
    m_vec.pop_back();
    return stPacket;
}

// ---- Loss --------------------------------------------------------------------------------------------------------

CSimLoss::CSimLoss(const tagSimPath& stPath, CSimRandom random) : m_stPath(stPath), m_random(random)
{
    const double dShare = stPath.dLossPercent / 100;
    if (stPath.dBurst > 0)
    {
        m_dToGood = std::min(1.0, 1 / stPath.dBurst);
        m_dToBad = dShare * m_dToGood / (1 - dShare);
    }
}

bool CSimLoss::InOutage(int64 llTimeUs)
{
    const auto& vec = m_stPath.vecOutages;
    while (m_nOutage < vec.size() && vec[m_nOutage].first + vec[m_nOutage].second <= llTimeUs)
        m_nOutage++;
    if (m_nOutage < vec.size() && vec[m_nOutage].first <= llTimeUs)
        return true;
    return m_stPath.llOutageForUs > 0 &&
           llTimeUs % m_stPath.llOutageEveryUs >= m_stPath.llOutageEveryUs - m_stPath.llOutageForUs;
}

bool CSimLoss::Loses(int64 llTimeUs, emSimDrop& eWhy)
{
    eWhy = SIM_DROP_OUTAGE;
    if (InOutage(llTimeUs))
        return true;
    eWhy = SIM_DROP_LOSS;
    bool bLost = false;
    if (m_stPath.dBurst > 0)
    {
        m_bBad = m_bBad ? !m_random.Chance(m_dToGood) : m_random.Chance(m_dToBad);
        bLost = m_bBad;
    }
    else
        bLost = m_random.Chance(m_stPath.dLossPercent / 100);
    if (const tagLossTrace* p = m_stPath.pLossTrace.get())
    {
        if (p->vecPattern.empty())
            bLost = m_random.Chance(p->stShare.At(llTimeUs, m_nCursor)) || bLost;
        else
            bLost = p->vecPattern[m_nPattern++ % p->vecPattern.size()] != 0 || bLost;
    }
    return bLost;
}

bool CSimLossy::Take(tagSimPacket& stPacket)
{
    const int64 llNowUs = m_pInner->NextUs();
    if (!m_pInner->Take(stPacket))
        return false;
    emSimDrop eWhy;
    if (!m_loss.Loses(llNowUs, eWhy))
        return true;
    m_watch.OnDropped(m_eWay, stPacket, eWhy);
    return false;
}

// ---- Bottleneck --------------------------------------------------------------------------------------------------

CSimBottleneck::CSimBottleneck(SimSourcePtr pInner, const tagSimPath& stPath, emSimWay eWay,
                               ISimDropWatch& watch)
    : m_pInner(std::move(pInner)), m_stPath(stPath), m_eWay(eWay), m_watch(watch)
{
    const double dKbps = stPath.pRateTrace ? stPath.pRateTrace->dMeanKbps : stPath.dRateKbps;
    m_ullLimit = stPath.uQueueBytes ? stPath.uQueueBytes
                                    : (uint64)llround(dKbps * 125.0 * (double)stPath.llQueueUs / 1000000.0);
    m_ullLimit = std::max<uint64>(m_ullLimit, 1500); // one packet at least, or nothing would ever pass
}

int64 CSimBottleneck::NextUs() const { return std::min(m_pInner->NextUs(), m_llDoneUs); }

bool CSimBottleneck::Take(tagSimPacket& stPacket)
{
    // What leaves makes room for what comes at the same time.
    const int64 llNowUs = m_pInner->NextUs();
    if (llNowUs < m_llDoneUs)
    {
        if (m_pInner->Take(stPacket))
            Admit(llNowUs, stPacket);
        return false;
    }
    const int64 llDoneUs = m_llDoneUs;
    stPacket = m_queue.front();
    m_queue.pop_front();
    m_ullQueued -= stPacket.wBytes;
    m_llDoneUs = c_llNever;
    if (!m_queue.empty())
        StartService(llDoneUs);
    else
        m_dCarry = 0;
    return true;
}

void CSimBottleneck::Admit(int64 llNowUs, const tagSimPacket& stPacket)
{
    if (m_ullQueued + stPacket.wBytes > m_ullLimit && !m_queue.empty())
    {
        m_watch.OnDropped(m_eWay, stPacket, SIM_DROP_QUEUE);
        return;
    }
    m_queue.push_back(stPacket);
    m_ullQueued += stPacket.wBytes;
    if (m_queue.size() == 1)
    {
        // An idle link: opportunities that passed meanwhile were wasted, one at this very moment is not.
        if (m_stPath.pRateTrace && !m_stPath.pRateTrace->vecOpportunityUs.empty() &&
            OpportunityUs() < llNowUs)
            NextOpportunity(llNowUs);
        StartService(llNowUs);
    }
}

void CSimBottleneck::StartService(int64 llNowUs)
{
    const uint32 uBytes = m_queue.front().wBytes;
    const tagRateTrace* pTrace = m_stPath.pRateTrace.get();
    if (!pTrace || pTrace->vecOpportunityUs.empty())
    {
        m_llDoneUs = ServedByRate(llNowUs, uBytes * 8.0);
        return;
    }
    uint32 uLeft = uBytes;
    while (uLeft > m_uCredit)
    {
        uLeft -= m_uCredit;
        NextOpportunity(OpportunityUs());
    }
    m_uCredit -= uLeft;
    m_llDoneUs = std::max(llNowUs, OpportunityUs());
    if (m_uCredit == 0)
        NextOpportunity(OpportunityUs());
}

// When so many bits are through that begin at this moment. Parts of a microsecond are carried on, so that the rate
// is exact over any number of packets.
int64 CSimBottleneck::ServedByRate(int64 llNowUs, double dBits)
{
    const tagRateTrace* pTrace = m_stPath.pRateTrace.get();
    double dAtUs = (double)llNowUs + m_dCarry;
    if (!pTrace)
        dAtUs += dBits * 1000.0 / m_stPath.dRateKbps;
    else
    {
        const tagSimTrace& st = pTrace->stRateKbps;
        for (;;)
        {
            const int64 llAt = (int64)dAtUs;
            const double dKbps = st.At(llAt, m_nCursor);
            const int64 llInRound = llAt % st.llPeriodUs;
            int64 llEnd = st.llPeriodUs;
            for (size_t i = m_nCursor; i < st.vecPoints.size(); i++)
                if (st.vecPoints[i].llAtUs > llInRound)
                {
                    llEnd = st.vecPoints[i].llAtUs;
                    break;
                }
            const double dStepEndUs = (double)(llAt - llInRound + llEnd);
            const double dFits = (dStepEndUs - dAtUs) * dKbps / 1000.0;
            if (dFits >= dBits)
            {
                dAtUs += dBits * 1000.0 / dKbps;
                break;
            }
            dBits -= dFits;
            dAtUs = dStepEndUs;
        }
    }
    const int64 llDoneUs = (int64)dAtUs;
    m_dCarry = dAtUs - (double)llDoneUs;
    return llDoneUs;
}

int64 CSimBottleneck::OpportunityUs() const
{
    return m_llRoundUs + m_stPath.pRateTrace->vecOpportunityUs[m_nOpportunity];
}

// To the next opportunity that is not before that time: at least one further.
void CSimBottleneck::NextOpportunity(int64 llNotBeforeUs)
{
    const tagRateTrace& st = *m_stPath.pRateTrace;
    m_uCredit = 1500;
    if (llNotBeforeUs - m_llRoundUs > st.llPeriodUs)
    {
        const int64 llRounds = (llNotBeforeUs - m_llRoundUs) / st.llPeriodUs;
        if (llRounds > 1) // a long idle time: not opportunity by opportunity
        {
            m_llRoundUs += (llRounds - 1) * st.llPeriodUs;
            m_nOpportunity = 0;
        }
    }
    do
    {
        if (++m_nOpportunity == st.vecOpportunityUs.size())
        {
            m_nOpportunity = 0;
            m_llRoundUs += st.llPeriodUs;
        }
    } while (OpportunityUs() < llNotBeforeUs);
}

// ---- Delay -------------------------------------------------------------------------------------------------------

CSimDelay::CSimDelay(SimSourcePtr pInner, const tagSimPath& stPath, CSimRandom random)
    : m_pInner(std::move(pInner)), m_stPath(stPath), m_random(random)
{
}

int64 CSimDelay::BaseUs(int64 llNowUs)
{
    if (m_stPath.pDelayTrace)
        return llround(m_stPath.pDelayTrace->At(llNowUs, m_nCursor) * 1000.0);
    const auto& vec = m_stPath.vecSteps;
    while (m_nStep < vec.size() && vec[m_nStep].first <= llNowUs)
        m_nStep++;
    return m_nStep == 0 ? m_stPath.llDelayUs : vec[m_nStep - 1].second;
}

int64 CSimDelay::JitterUs(int64 llNowUs)
{
    if (m_stPath.bJitterReorders || m_llWanderUs < 0)
        m_dWander = m_random.Normal();
    else
    {
        const double dKept = 1 / (1 + (double)(llNowUs - m_llWanderUs) / (double)m_stPath.llJitterMemoryUs);
        m_dWander = m_dWander * dKept + m_random.Normal() * std::sqrt(1 - dKept * dKept);
    }
    m_llWanderUs = llNowUs;
    return llround(m_dWander * (double)m_stPath.llJitterUs);
}

bool CSimDelay::Take(tagSimPacket& stPacket)
{
    const int64 llNowUs = m_pInner->NextUs();
    if (llNowUs >= m_heap.NextUs())
    {
        stPacket = m_heap.Pop();
        return true;
    }
    if (!m_pInner->Take(stPacket))
        return false;
    int64 llDelayUs = BaseUs(llNowUs);
    if (m_stPath.llJitterUs > 0)
        llDelayUs += JitterUs(llNowUs);
    int64 llOutUs = llNowUs + std::max<int64>(0, llDelayUs);
    if (!m_stPath.bJitterReorders)
        llOutUs = std::max(llOutUs, m_llLastUs);
    if (m_random.Chance(m_stPath.dReorderPercent / 100))
        llOutUs +=
            1 + (int64)m_random.Below((uint64)m_stPath.llReorderUs); // the ones behind do not wait for it
    else
        m_llLastUs = std::max(m_llLastUs, llOutUs);
    m_heap.Push(llOutUs, stPacket);
    return false;
}

// ---- Duplication -------------------------------------------------------------------------------------------------

bool CSimDuplicate::Take(tagSimPacket& stPacket)
{
    const int64 llNowUs = m_pInner->NextUs();
    if (m_heap.NextUs() < llNowUs)
    {
        stPacket = m_heap.Pop();
        return true;
    }
    if (!m_pInner->Take(stPacket))
        return false;
    if (m_random.Chance(m_stPath.dDuplicatePercent / 100))
    {
        tagSimPacket stCopy = stPacket;
        stCopy.bCopy = true;
        m_heap.Push(llNowUs + (int64)m_random.Below((uint64)m_stPath.llDuplicateUs), stCopy);
    }
    return true;
}

// ---- All of a direction --------------------------------------------------------------------------------------------

SimSourcePtr Impair(SimSourcePtr pInner, const tagSimPath& stPath, emSimWay eWay, uint64 ullSeed,
                    uint64 ullLink, ISimDropWatch& watch)
{
    const uint64 ullNumber = (uint64)eWay << 32 | ullLink;
    if (stPath.dLossPercent > 0 || !stPath.vecOutages.empty() || stPath.llOutageForUs > 0 ||
        stPath.pLossTrace)
        pInner = std::make_unique<CSimLossy>(std::move(pInner), stPath,
                                             CSimRandom(ullSeed, "loss", ullNumber), eWay, watch);
    if (stPath.dRateKbps > 0 || stPath.pRateTrace)
        pInner = std::make_unique<CSimBottleneck>(std::move(pInner), stPath, eWay, watch);
    if (stPath.llDelayUs > 0 || stPath.llJitterUs > 0 || !stPath.vecSteps.empty() || stPath.pDelayTrace ||
        stPath.dReorderPercent > 0)
        pInner =
            std::make_unique<CSimDelay>(std::move(pInner), stPath, CSimRandom(ullSeed, "delay", ullNumber));
    if (stPath.dDuplicatePercent > 0)
        pInner = std::make_unique<CSimDuplicate>(std::move(pInner), stPath,
                                                 CSimRandom(ullSeed, "duplicate", ullNumber));
    return pInner;
}

} // namespace lab
