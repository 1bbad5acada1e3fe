#include "xpevent.h"

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <new>

struct tagXPEvent
{
    std::mutex lock;
    std::condition_variable cond;
    bool bManualReset = false;
    bool bSignaled = false; // under lock
};

hxpevent xpevent_create(int nManualReset, int nSignaled)
{
    hxpevent hEvent = new (std::nothrow) tagXPEvent;
    if (hEvent != nullptr)
    {
        hEvent->bManualReset = nManualReset != 0;
        hEvent->bSignaled = nSignaled != 0;
    }
    return hEvent;
}

void xpevent_signal(hxpevent hEvent)
{
    if (hEvent == nullptr)
        return;
    // Notify under the lock: a waiter that is let through may destroy the event as soon as it has the lock.
    std::lock_guard<std::mutex> guard(hEvent->lock);
    hEvent->bSignaled = true;
    if (hEvent->bManualReset)
        hEvent->cond.notify_all();
    else
        hEvent->cond.notify_one();
}

void xpevent_reset(hxpevent hEvent)
{
    if (hEvent == nullptr)
        return;
    std::lock_guard<std::mutex> guard(hEvent->lock);
    hEvent->bSignaled = false;
}

boolean xpevent_wait(hxpevent hEvent, uint32 dwMs)
{
    if (hEvent == nullptr)
        return FALSE;
    std::unique_lock<std::mutex> guard(hEvent->lock);
    const auto isSignaled = [hEvent] { return hEvent->bSignaled; };
    if (dwMs == c_dwWaitForever)
        hEvent->cond.wait(guard, isSignaled);
    else if (!hEvent->cond.wait_for(guard, std::chrono::milliseconds(dwMs), isSignaled))
        return FALSE;
    if (!hEvent->bManualReset)
        hEvent->bSignaled = false;
    return TRUE;
}

void xpevent_destory(hxpevent hEvent) { delete hEvent; }
