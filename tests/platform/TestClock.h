// A virtual clock for the length of a scope.
#ifndef TESTCLOCK_H
#define TESTCLOCK_H

#include "xpmess.h"

class CTestClock
{
public:
    explicit CTestClock(uint64 ullNow) : m_ullNow(ullNow) { xp_settickcountsource(Tick, this); }
    ~CTestClock() { xp_settickcountsource(nullptr, nullptr); }
    CTestClock(const CTestClock&) = delete;
    CTestClock& operator=(const CTestClock&) = delete;

    uint64 m_ullNow;

private:
    static uint64 Tick(void* pCtx) { return ((CTestClock*)pCtx)->m_ullNow; }
};

#endif
