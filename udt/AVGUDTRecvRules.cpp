#include "AVGUDTRecvRules.h"

#include <algorithm>

namespace
{

// Marks on the 16-bit transport clock: a fall from the high mark or above to below the low one is a wrap, and a
// value between the two marks says that the wrap lies behind us.
constexpr uint32 c_dwRingSpan = 65536;
constexpr uint16 c_wRingLowBelow = 10000; // a wrap lands below
constexpr uint16 c_wRingMiddleFirst = 10001;
constexpr uint16 c_wRingMiddleLast = 49999;
constexpr uint16 c_wRingHighFirst = 50001; // a wrap starts here or above

constexpr uint32 c_dwMinIntervalCap = 400; // ms, the least interval that a long configured one is cut to

// Divisors of the extra wait: hundredths of a percent of loss per step, and ms per step.
constexpr uint32 c_dwWaitLossStep = 2000;
constexpr uint32 c_dwWaitStep = 1000;
constexpr uint32 c_dwWaitLossStepLow = 300;
constexpr uint32 c_dwWaitStepLow = 100;
constexpr uint32 c_dwWaitLossStepLowAudio = 750;

constexpr int64 c_llSlowDivisor = 8; // a step of -2 eighths is a quarter slower

} // namespace

uint32 UnwrapTimeStamp(tagPkgRingParam& stPkgRingParam, uint16 wTimeStamp)
{
    const uint16 wLast = stPkgRingParam.wTimeStampLast;
    stPkgRingParam.wTimeStampLast = wTimeStamp;

    if (stPkgRingParam.bSwitch)
    {
        if (wTimeStamp >= c_wRingMiddleFirst && wTimeStamp <= c_wRingMiddleLast)
            stPkgRingParam.bSwitch = FALSE;
        else if (wTimeStamp >= c_wRingHighFirst)
            return stPkgRingParam.dwTimeStampBase + wTimeStamp - c_dwRingSpan; // from before the wrap
    }
    else if (wTimeStamp < c_wRingLowBelow && wLast >= c_wRingHighFirst)
    {
        stPkgRingParam.bSwitch = TRUE;
        stPkgRingParam.dwTimeStampBase += c_dwRingSpan;
    }
    return stPkgRingParam.dwTimeStampBase + wTimeStamp;
}

uint32 ResetBandMax(uint32 dwMin, uint32 dwTimeLine, bool bLowLatency)
{
    constexpr uint32 c_dwFreshBand = 1000;
    constexpr uint32 c_dwFreshBandLow = 300;
    if (dwTimeLine > dwMin)
        return dwTimeLine;
    return dwMin + (bLowLatency ? c_dwFreshBandLow : c_dwFreshBand);
}

uint32 LossExtraWait(bool bLowLatency, uint32 dwDownLoss100)
{
    if (bLowLatency)
        return dwDownLoss100 / c_dwWaitLossStepLow * c_dwWaitStepLow + c_dwWaitStepLow;
    return dwDownLoss100 / c_dwWaitLossStep * c_dwWaitStep + c_dwWaitStep;
}

uint32 AudioLossExtraWait(bool bLowLatency, uint32 dwDownLoss100)
{
    if (bLowLatency)
        return dwDownLoss100 / c_dwWaitLossStepLowAudio * c_dwWaitStepLow;
    return LossExtraWait(false, dwDownLoss100);
}

uint32 PlayoutTarget(uint32 dwBandWidth, uint32 dwExtraWait, uint32 dwDelta, uint32 dwDeltaMax)
{
    const uint32 dwTarget = dwBandWidth * 12 / 10 + dwExtraWait;
    return std::min(std::max(dwTarget, dwDelta), dwDeltaMax);
}

int32 PlayoutStep(uint32 dwDataLen, uint32 dwTarget, uint32 dwExtSmall, uint32 dwExtBig)
{
    // The big tolerance is asked first: near the top of 32 bits the two sums may wrap apart.
    if (dwDataLen > dwTarget + dwExtBig || dwDataLen > dwTarget + dwExtSmall)
        return 1;
    return dwDataLen < dwTarget ? -2 : 0;
}

uint32 AdvanceClock(uint32 dwTimelineOut, int32 nStep, uint32 dwTickDiff, uint32 dwFastFactor)
{
    const int64 llAddValue = (int64)nStep * (int64)dwTickDiff;
    const int64 llDivisor = nStep >= 1 ? (int64)std::max<uint32>(dwFastFactor, 1) : c_llSlowDivisor;
    return (uint32)((int64)dwTimelineOut + llAddValue / llDivisor + (int64)dwTickDiff);
}

uint32 RequestInterval(uint32 dwRTT, uint32 dwConfigured)
{
    const uint32 dwMinInterval = std::min(dwConfigured, c_dwMinIntervalCap);
    return std::max(std::min(dwRTT, dwConfigured), dwMinInterval);
}
