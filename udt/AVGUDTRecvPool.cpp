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

} // namespace

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
    if (pRecv == nullptr)
        return FALSE;
    CMembers lstNew(1);
    tagMember& stNew = lstNew.front();
    stNew.pRecv = pRecv;
    stNew.bRemoved = false;

    std::lock_guard<std::mutex> lock(m_lock);
    if (m_vecThreads.empty() || Find(m_lstWaiting, pRecv) != m_lstWaiting.end() ||
        Find(m_lstStepping, pRecv) != m_lstStepping.end())
        return FALSE;

    // First turns spread over the slots of a cycle, so that receivers that are made together do not all want the
    // same moment ever after.
    const uint32 dwSlots = c_dwRecvPoolTurnUs / c_dwRecvPoolSlotUs;
    stNew.tDue = ToSlot(CClock::now()) + c_tSlot * (m_stInfo.dwReceivers % dwSlots);
    const CMembers::iterator itBehind =
        std::find_if(m_lstWaiting.begin(), m_lstWaiting.end(),
                     [&stNew](const tagMember& stMember) { return stMember.tDue > stNew.tDue; });
    m_lstWaiting.splice(itBehind, lstNew);
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
    const CMembers::iterator it = Find(m_lstWaiting, pRecv);
    if (it != m_lstWaiting.end())
    {
        m_lstWaiting.erase(it);
        m_stInfo.dwReceivers -= 1;
        return TRUE;
    }
    const CMembers::iterator itStepping = Find(m_lstStepping, pRecv);
    if (itStepping == m_lstStepping.end())
        return FALSE;

    if (!itStepping->bRemoved)
    {
        itStepping->bRemoved = true;
        m_stInfo.dwReceivers -= 1;
    }
    if (itStepping->idStepper != std::this_thread::get_id())
        m_cvDone.wait(lock, [this, pRecv] { return Find(m_lstStepping, pRecv) == m_lstStepping.end(); });
    return TRUE;
}

void CAVGUdtRecvPool::GetInfo(tagRecvPoolInfo& stInfo)
{
    std::lock_guard<std::mutex> lock(m_lock);
    stInfo = m_stInfo;
}

CAVGUdtRecvPool::CMembers::iterator CAVGUdtRecvPool::Find(CMembers& lstMembers, const CAVGUdtRecv* pRecv)
{
    return std::find_if(lstMembers.begin(), lstMembers.end(),
                        [pRecv](const tagMember& stMember) { return stMember.pRecv == pRecv; });
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
    std::unique_lock<std::mutex> lock(m_lock);
    while (!m_bEnd)
    {
        if (m_lstWaiting.empty() || m_bTimed)
        {
            m_dwIdle += 1;
            m_cvWork.wait(lock);
            m_dwIdle -= 1;
            m_bCalled = false;
            continue;
        }
        const CClock::time_point tDue = m_lstWaiting.front().tDue;
        if (tDue > CClock::now())
        {
            m_bTimed = true;
            m_cvWork.wait_until(lock, tDue);
            m_bTimed = false;
            continue;
        }
        Step(lock);
    }
}

// Makes the turn that is due first. The lock is held before and after, not during it.
void CAVGUdtRecvPool::Step(std::unique_lock<std::mutex>& lock)
{
    const CMembers::iterator it = m_lstWaiting.begin();
    m_lstStepping.splice(m_lstStepping.begin(), m_lstWaiting, it);
    it->idStepper = std::this_thread::get_id();

    const CClock::time_point tBegin = CClock::now();
    const uint32 dwLateUs =
        (uint32)std::chrono::duration_cast<std::chrono::microseconds>(tBegin - it->tDue).count();
    m_stInfo.ullTurns += 1;
    m_stInfo.ullLateTurns += dwLateUs > c_dwRecvPoolLateUs ? 1 : 0;
    m_stInfo.ullLatenessSum += dwLateUs;
    m_stInfo.dwLatenessMax = std::max(m_stInfo.dwLatenessMax, dwLateUs);
    it->tDue = NextDue(it->tDue, tBegin);
    if (!m_bTimed && !m_bCalled && m_dwIdle != 0)
    {
        m_bCalled = true; // somebody has to make the next turn, or to wait for its time
        m_cvWork.notify_one();
    }

    lock.unlock();
    it->pRecv->RunTurn();
    lock.lock();

    if (it->bRemoved)
    {
        m_lstStepping.erase(it);
        m_cvDone.notify_all();
        return;
    }
    it->idStepper = std::thread::id();
    CMembers::iterator itBehind = m_lstWaiting.end();
    while (itBehind != m_lstWaiting.begin() && std::prev(itBehind)->tDue > it->tDue)
        --itBehind;
    m_lstWaiting.splice(itBehind, m_lstStepping, it);
}
