/**
 * Threads share one queue of receivers in order of the times they are due. One of them waits for the first of those
 * times and the others for work; who finds something due takes it, wakes the next one if there is more, and makes the
 * turn outside the lock. So a callback that takes long holds up its own receiver and nobody else, as long as there
 * are threads left.
 */

#include "AVGUDTRecvPool.h"

#include <algorithm>
#include <new>
#include <system_error>

namespace
{

constexpr std::chrono::microseconds c_tTurn(c_dwRecvPoolTurnUs);
constexpr std::chrono::microseconds c_tSlot(c_dwRecvPoolSlotUs);

// Times are rounded up to whole slots, so that a thread wakes for many receivers at once.
std::chrono::steady_clock::time_point ToSlot(std::chrono::steady_clock::time_point t)
{
    const std::chrono::steady_clock::duration tOver = t.time_since_epoch() % c_tSlot;
    return tOver.count() == 0 ? t : t + (c_tSlot - tOver);
}

// The receiver that comes next: with hundreds of them each one's record has left the near caches since its last turn.
void FetchAhead(const CAVGUdtRecv* pRecv)
{
#if defined(__GNUC__)
    const char* const pBytes = reinterpret_cast<const char*>(pRecv);
    for (size_t nAt = 0; nAt < sizeof(CAVGUdtRecv); nAt += 64)
        __builtin_prefetch(pBytes + nAt);
#else
    (void)pRecv;
#endif
}

uint32 LateClass(uint32 dwLateUs)
{
    uint32 dwClass = 0;
    for (; dwLateUs != 0 && dwClass + 1 < c_dwRecvPoolLateClasses; dwLateUs >>= 1)
        ++dwClass;
    return dwClass;
}

} // namespace

uint32 tagRecvPoolInfo::LatenessOf(uint32 dwShare) const
{
    uint64 ullSeen = 0;
    for (uint32 dwClass = 0; dwClass < c_dwRecvPoolLateClasses; ++dwClass)
    {
        ullSeen += aullLateness[dwClass];
        if (ullTurns != 0 && ullSeen * 10000 >= ullTurns * dwShare)
            return 1u << dwClass;
    }
    return 0;
}

CAVGUdtRecvPool::CAVGUdtRecvPool(uint32 dwThreads)
    : m_bTimed(false), m_dwIdle(0), m_bCalled(false), m_bEnd(false)
{
    if (dwThreads == 0)
        dwThreads = std::max(1u, std::thread::hardware_concurrency());
    try
    {
        m_vecThreads.reserve(dwThreads);
        while (m_vecThreads.size() < dwThreads)
            m_vecThreads.emplace_back(&CAVGUdtRecvPool::Work, this);
    }
    catch (const std::system_error&)
    {
        // The system gives no more.
    }
    catch (const std::bad_alloc&)
    {
    }
    std::lock_guard<std::mutex> lock(m_lock);
    m_stInfo.dwThreads = (uint32)m_vecThreads.size();
}

CAVGUdtRecvPool::~CAVGUdtRecvPool()
{
    {
        std::lock_guard<std::mutex> lock(m_lock);
        m_bEnd = true;
    }
    m_cvWork.notify_all();
    for (std::thread& thread : m_vecThreads)
        thread.join();
}

boolean CAVGUdtRecvPool::Add(CAVGUdtRecv* pRecv)
try
{
    std::lock_guard<std::mutex> lock(m_lock);
    if (pRecv == nullptr || m_vecThreads.empty() || FindWaiting(pRecv) != m_deqWaiting.end() ||
        FindStepping(pRecv) != m_lstStepping.end())
        return FALSE;

    // First turns spread over the slots of a cycle, so that receivers that are made together do not all want the
    // same moment ever after.
    const uint32 dwSlots = c_dwRecvPoolTurnUs / c_dwRecvPoolSlotUs;
    tagMember stMember;
    stMember.pRecv = pRecv;
    stMember.tDue = ToSlot(CClock::now()) + c_tSlot * (m_stInfo.dwReceivers % dwSlots);
    Enqueue(stMember);
    m_stInfo.dwReceivers += 1;
    m_cvWork.notify_all();
    return TRUE;
}
catch (const std::bad_alloc&)
{
    return FALSE;
}

boolean CAVGUdtRecvPool::Remove(CAVGUdtRecv* pRecv)
{
    std::unique_lock<std::mutex> lock(m_lock);
    const CWaiting::iterator it = FindWaiting(pRecv);
    if (pRecv != nullptr && it != m_deqWaiting.end())
    {
        m_deqWaiting.erase(it);
        m_stInfo.dwReceivers -= 1;
        return TRUE;
    }
    const CStepping::iterator itStepping = FindStepping(pRecv);
    if (pRecv == nullptr || itStepping == m_lstStepping.end())
        return FALSE;

    if (!itStepping->bRemoved)
    {
        itStepping->bRemoved = true;
        m_stInfo.dwReceivers -= 1;
    }
    if (itStepping->idStepper != std::this_thread::get_id())
        m_cvDone.wait(lock, [this, pRecv] { return FindStepping(pRecv) == m_lstStepping.end(); });
    return TRUE;
}

void CAVGUdtRecvPool::GetInfo(tagRecvPoolInfo& stInfo)
{
    std::lock_guard<std::mutex> lock(m_lock);
    stInfo = m_stInfo;
}

CAVGUdtRecvPool::CWaiting::iterator CAVGUdtRecvPool::FindWaiting(const CAVGUdtRecv* pRecv)
{
    return std::find_if(m_deqWaiting.begin(), m_deqWaiting.end(),
                        [pRecv](const tagMember& stMember) { return stMember.pRecv == pRecv; });
}

CAVGUdtRecvPool::CStepping::iterator CAVGUdtRecvPool::FindStepping(const CAVGUdtRecv* pRecv)
{
    return std::find_if(m_lstStepping.begin(), m_lstStepping.end(),
                        [pRecv](const tagStepping& stStepping)
                        { return stStepping.stMember.pRecv == pRecv; });
}

// Behind all that are due no later; mostly that is the end.
void CAVGUdtRecvPool::Enqueue(const tagMember& stMember)
{
    CWaiting::iterator itBehind = m_deqWaiting.end();
    while (itBehind != m_deqWaiting.begin() && std::prev(itBehind)->tDue > stMember.tDue)
        --itBehind;
    m_deqWaiting.insert(itBehind, stMember);
}

void CAVGUdtRecvPool::CountTurn(uint32 dwLateUs)
{
    m_stInfo.ullTurns += 1;
    m_stInfo.ullLateTurns += dwLateUs > c_dwRecvPoolLateUs ? 1 : 0;
    m_stInfo.ullLatenessSum += dwLateUs;
    m_stInfo.aullLateness[LateClass(dwLateUs)] += 1;
    m_stInfo.dwLatenessMax = std::max(m_stInfo.dwLatenessMax, dwLateUs);
}

// A turn that came late does not move the ones after it, unless they are due already.
CAVGUdtRecvPool::CClock::time_point CAVGUdtRecvPool::NextDue(CClock::time_point tDue, CClock::time_point tNow)
{
    tDue += c_tTurn;
    return tDue > tNow ? tDue : ToSlot(tNow);
}

// The body of each thread.
void CAVGUdtRecvPool::Work()
{
    CStepping lstOwn(1);
    std::unique_lock<std::mutex> lock(m_lock);
    tagStepping& stStepping = lstOwn.front();
    stStepping.stMember.pRecv = nullptr;
    stStepping.idStepper = std::this_thread::get_id();
    m_lstStepping.splice(m_lstStepping.end(), lstOwn);

    CClock::time_point tNow = CClock::now();
    while (!m_bEnd)
    {
        if (m_deqWaiting.empty() || m_bTimed)
        {
            m_dwIdle += 1;
            m_cvWork.wait(lock);
            m_dwIdle -= 1;
            m_bCalled = false;
            tNow = CClock::now();
        }
        else if (m_deqWaiting.front().tDue > tNow)
        {
            const CClock::time_point tDue = m_deqWaiting.front().tDue; // the member may go meanwhile
            m_bTimed = true;
            m_cvWork.wait_until(lock, tDue);
            m_bTimed = false;
            tNow = CClock::now();
        }
        else
        {
            tNow = Step(lock, stStepping, tNow);
        }
    }
}

// Makes the turn that is due first. The lock is held before and after, not during it. Returns when it was over.
CAVGUdtRecvPool::CClock::time_point CAVGUdtRecvPool::Step(std::unique_lock<std::mutex>& lock,
                                                          tagStepping& stStepping, CClock::time_point tNow)
{
    tagMember& stMember = stStepping.stMember;
    stMember = m_deqWaiting.front();
    m_deqWaiting.pop_front();
    if (!m_deqWaiting.empty())
        FetchAhead(m_deqWaiting.front().pRecv);
    stStepping.bRemoved = false;
    CountTurn((uint32)std::chrono::duration_cast<std::chrono::microseconds>(tNow - stMember.tDue).count());
    stMember.tDue = NextDue(stMember.tDue, tNow);
    if (!m_bTimed && !m_bCalled && m_dwIdle != 0)
    {
        m_bCalled = true; // somebody has to make the next turn, or to wait for its time
        m_cvWork.notify_one();
    }

    lock.unlock();
    stMember.pRecv->RunTurn();
    const CClock::time_point tOver = CClock::now();
    lock.lock();

    if (stStepping.bRemoved)
        m_cvDone.notify_all();
    else
        Enqueue(stMember);
    stMember.pRecv = nullptr;
    return tOver;
}
