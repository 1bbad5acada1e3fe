#include "VirtualClock.h"

#include "xpmess.h"

#include <chrono>

namespace
{

thread_local CVirtualClock* t_pClock = nullptr;

uint64 TickOfThisThread(void*)
{
    if (t_pClock != nullptr)
        return t_pClock->Tick();
    using namespace std::chrono;
    return (uint64)duration_cast<milliseconds>(steady_clock::now().time_since_epoch()).count();
}

} // namespace

CVirtualClock::CVirtualClock(uint64 ullTick) : m_ullTick(ullTick), m_pOuter(t_pClock)
{
    t_pClock = this;
    // Left in place for good: a thread without a virtual clock reads the real one through it.
    xp_settickcountsource(TickOfThisThread, nullptr);
}

CVirtualClock::~CVirtualClock() { t_pClock = m_pOuter; }
