// The tick clock. The source is two words that must be read as a pair, on every thread and at every tick, so readers
// take no lock: a counter tells them when the pair changed under their eyes, and they read again.
#include "xpmess.h"

#include "xplock.h"
#include <atomic>
#include <cerrno>
#include <sched.h>
#include <time.h>
#if defined(__APPLE__)
#include <mach/mach_time.h>
#endif

namespace
{
#if defined(__APPLE__)
uint64 MonotonicMs()
{
    static mach_timebase_info_data_t info;
    static const kern_return_t nResult = mach_timebase_info(&info);
    static const double r = (double)info.numer / (double)((uint64)info.denom * 1000000);
    (void)nResult;
    return (uint64)((double)mach_absolute_time() * r);
}
#else
uint64 MonotonicMs()
{
    timespec stNow;
    clock_gettime(CLOCK_MONOTONIC, &stNow);
    return (uint64)stNow.tv_sec * 1000 + (uint64)stNow.tv_nsec / 1000000;
}
#endif

pthread_mutex_t s_lockSource = PTHREAD_MUTEX_INITIALIZER; // makes the writers wait for one another
std::atomic<uint32> s_dwVersion{0};                       // odd while the pair is being changed
std::atomic<PFN_TickSource> s_pfnSource{nullptr};
std::atomic<void*> s_pCtx{nullptr};
} // namespace

uint64 xp_gettickcount()
{
    for (;;)
    {
        const uint32 dwVersion = s_dwVersion.load(std::memory_order_acquire);
        // Whoever sees a half of a new pair here also sees, below, that the version has moved: the halves are
        // released after it became odd.
        PFN_TickSource pfnSource = s_pfnSource.load(std::memory_order_acquire);
        void* pCtx = s_pCtx.load(std::memory_order_acquire);
        if (dwVersion % 2 == 0 && s_dwVersion.load(std::memory_order_relaxed) == dwVersion)
            return pfnSource != nullptr ? pfnSource(pCtx) : MonotonicMs();
        sched_yield(); // the writer may be waiting for this very processor
    }
}

void xp_settickcountsource(PFN_TickSource pfnSource, void* pCtx)
{
    xplock_lock(&s_lockSource);
    const uint32 dwVersion = s_dwVersion.load(std::memory_order_relaxed);
    s_dwVersion.store(dwVersion + 1, std::memory_order_relaxed);
    s_pfnSource.store(pfnSource, std::memory_order_release);
    s_pCtx.store(pCtx, std::memory_order_release);
    s_dwVersion.store(dwVersion + 2, std::memory_order_release);
    xplock_unlock(&s_lockSource);
}

void xp_msleep(uint32 dwMs)
{
    timespec stLeft;
    stLeft.tv_sec = (time_t)(dwMs / 1000);
    stLeft.tv_nsec = (long)(dwMs % 1000) * 1000000;
    if (dwMs == 0)
        sched_yield();
    else
        while (nanosleep(&stLeft, &stLeft) != 0 && errno == EINTR)
        {
        }
}
