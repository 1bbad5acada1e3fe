// In: what the receiver misses. Out: what is to be sent, when. Nothing here knows RTCP or reads a clock.
#include "RtpShaper.h"

#include <algorithm>

namespace
{
const uint64 c_ullSecondUs = 1000000;
// The receiver no longer counts on a packet that it first asked for this long ago.
const uint64 c_ullForgetUs = 10 * c_ullSecondUs;
// Over the rate for this long: the receiver has asked again since, or has given up.
const uint64 c_ullWaitMostUs = 2 * c_ullSecondUs;
} // namespace

CRtpShaper::CRtpShaper(const tagRtpShaperOptions& stOptions) : m_stOptions(stOptions) {}

void CRtpShaper::Ask(uint32 dwSsrc, uint32 dwSeq, uint64 ullNowUs)
{
    m_stTotals.ullAsked++;
    Forget(ullNowUs);
    const tagRtpAsk stAsk{dwSsrc, dwSeq};
    const auto itNew = m_mapMissing.emplace(stAsk, tagMissing());
    tagMissing& st = itNew.first->second;
    if (itNew.second)
        st.ullFirstUs = ullNowUs;
    st.ullLastUs = ullNowUs;
    if (st.bWaiting)
    {
        m_stTotals.ullSpared++; // it goes out once
        return;
    }
    if (m_stOptions.dwMaxTries != 0 && st.dwTries >= m_stOptions.dwMaxTries)
    {
        m_stTotals.ullTriesUsedUp++;
        if (m_stOptions.bGiveUpPli && !st.bGivenUp)
        {
            st.bGivenUp = true;
            m_stTotals.ullGaveUp++;
            if (std::find(m_vecPlis.begin(), m_vecPlis.end(), dwSsrc) == m_vecPlis.end())
                m_vecPlis.push_back(dwSsrc);
        }
        return;
    }
    if (m_stOptions.bOncePerRtt && st.dwTries > 0 && ullNowUs - st.ullSentUs < m_ullRttUs)
    {
        m_stTotals.ullTooSoon++;
        return;
    }
    st.bWaiting = true;
    // Only the first request is held off: by the second, out of order is lost.
    const uint64 ullHoldUs = st.dwTries == 0 ? m_stOptions.dwReorderHoldMs * 1000ull : 0;
    const tagWaiting stWaiting{stAsk, ullNowUs + ullHoldUs, ullNowUs};
    const auto itPlace = std::upper_bound(m_dequeWaiting.begin(), m_dequeWaiting.end(), stWaiting,
                                          [](const tagWaiting& stA, const tagWaiting& stB)
                                          { return stA.ullDueUs < stB.ullDueUs; });
    m_dequeWaiting.insert(itPlace, stWaiting);
}

void CRtpShaper::Arrived(uint32 dwSsrc, uint32 dwSeq)
{
    const auto it = m_mapMissing.find(tagRtpAsk{dwSsrc, dwSeq});
    if (it == m_mapMissing.end())
        return;
    if (it->second.bWaiting)
    {
        m_stTotals.ullSpared++;
        const auto itWaiting =
            std::find_if(m_dequeWaiting.begin(), m_dequeWaiting.end(),
                         [&](const tagWaiting& stWaiting) { return stWaiting.stAsk == it->first; });
        if (itWaiting != m_dequeWaiting.end())
            m_dequeWaiting.erase(itWaiting);
    }
    m_mapMissing.erase(it);
}

void CRtpShaper::Take(uint64 ullNowUs, std::vector<tagRtpAsk>& vecNacks, std::vector<uint32>& vecPlis)
{
    vecNacks.clear();
    vecPlis.swap(m_vecPlis);
    m_vecPlis.clear();
    while (!m_dequeWaiting.empty() && m_dequeWaiting.front().ullDueUs <= ullNowUs)
    {
        const tagWaiting stWaiting = m_dequeWaiting.front();
        tagMissing& st = m_mapMissing[stWaiting.stAsk];
        if (ullNowUs - stWaiting.ullDueUs > c_ullWaitMostUs)
        {
            m_stTotals.ullTooLate++;
            st.bWaiting = false;
            m_dequeWaiting.pop_front();
            continue;
        }
        if (!RateAllows(ullNowUs))
            return;
        if (ullNowUs > stWaiting.ullDueUs && m_stOptions.dwMaxSeqsPerSecond != 0)
            m_stTotals.ullDelayed++;
        m_dequeWaiting.pop_front();
        st.bWaiting = false;
        st.dwTries++;
        st.ullSentUs = ullNowUs;
        m_stTotals.ullSent++;
        if (m_stOptions.dwMaxSeqsPerSecond != 0)
            m_dequeSent.push_back(ullNowUs);
        vecNacks.push_back(stWaiting.stAsk);
    }
}

bool CRtpShaper::NextUs(uint64& ullWhenUs) const
{
    if (!m_vecPlis.empty())
    {
        ullWhenUs = 0;
        return true;
    }
    if (m_dequeWaiting.empty())
        return false;
    ullWhenUs = m_dequeWaiting.front().ullDueUs;
    if (m_stOptions.dwMaxSeqsPerSecond != 0 && m_dequeSent.size() >= m_stOptions.dwMaxSeqsPerSecond)
        ullWhenUs = std::max(ullWhenUs, m_dequeSent.front() + c_ullSecondUs);
    return true;
}

// In any second: what was sent a second ago to the microsecond is out of it.
bool CRtpShaper::RateAllows(uint64 ullNowUs)
{
    if (m_stOptions.dwMaxSeqsPerSecond == 0)
        return true;
    while (!m_dequeSent.empty() && ullNowUs - m_dequeSent.front() >= c_ullSecondUs)
        m_dequeSent.pop_front();
    return m_dequeSent.size() < m_stOptions.dwMaxSeqsPerSecond;
}

// Packets that never came are not remembered for good.
void CRtpShaper::Forget(uint64 ullNowUs)
{
    if (ullNowUs - m_ullForgotUs < c_ullSecondUs)
        return;
    m_ullForgotUs = ullNowUs;
    for (auto it = m_mapMissing.begin(); it != m_mapMissing.end();)
    {
        const tagMissing& st = it->second;
        it = !st.bWaiting && ullNowUs - st.ullLastUs > c_ullForgetUs ? m_mapMissing.erase(it) : std::next(it);
    }
}
