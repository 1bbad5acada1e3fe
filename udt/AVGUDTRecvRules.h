#ifndef AVGUDTRECVRULES_H
#define AVGUDTRECVRULES_H

/**
 * The receiver's arithmetic: free functions that see no member, no clock and no map. All of it is unsigned
 * 32-bit and wraps unless a function says otherwise.
 */

#include "AVGUDTRecvData.h"
#include "xptypes.h"

// ---- Ticks ---------------------------------------------------------------------------------------------

// Ticks are 32-bit milliseconds; the unsigned difference is right across the wrap. A span is reached at its
// last millisecond and passed one later.
inline bool TickReached(uint32 dwNow, uint32 dwThen, uint32 dwSpan) { return dwNow - dwThen >= dwSpan; }
inline bool TickPassed(uint32 dwNow, uint32 dwThen, uint32 dwSpan) { return dwNow - dwThen > dwSpan; }

// A tick of 0 is not started yet: the first call arms it, so the first call never fires.
inline void ArmTick(uint32& dwTick, uint32 dwNow)
{
    if (dwTick == 0)
        dwTick = dwNow;
}

/// Media ahead of the playout clock, ms; 0 when the clock is ahead.
inline uint32 DataLenAhead(uint32 dwTimelineIn, uint32 dwTimelineOut)
{
    return dwTimelineIn > dwTimelineOut ? dwTimelineIn - dwTimelineOut : 0;
}

// ---- Change flags: one per byte, each taken without touching the others -------------------------------

inline bool ChangeRaised(uint32 dwFlags, emParamChange eByte) { return (dwFlags >> (8 * eByte) & 0xFF) != 0; }
inline uint32 WithoutChange(uint32 dwFlags, emParamChange eByte) { return dwFlags & ~(0xFFu << (8 * eByte)); }
inline uint32 WithChange(uint32 dwFlags, emParamChange eByte)
{
    return WithoutChange(dwFlags, eByte) | 1u << (8 * eByte);
}

// ---- Intake --------------------------------------------------------------------------------------------

/// Unwraps the 16-bit transport timestamp. A wrap is a fall from 50001 or above to below 10000; until a value
/// between the two is seen, late packets from before the wrap are taken against the old base.
uint32 UnwrapTimeStamp(tagPkgRingParam& stPkgRingParam, uint16 wTimeStamp);

// ---- Transit band --------------------------------------------------------------------------------------

/// Tick minus media timestamp. The top bit is turned so that a user whose media clock runs a little ahead of
/// the tick clock does not sit on the wrap of the offset; every bound lives in this shifted space.
inline uint32 TransitOffset(uint32 dwTick, uint32 dwTimeStamp)
{
    return (dwTick ^ 0x80000000u) - dwTimeStamp;
}

/// How far inside the band an offset must lie before the bound creeps towards it, ms.
inline uint32 BandChangeRange(bool bLowLatency) { return bLowLatency ? 20 : 1000; }

/// The bound after one more packet: it follows a new extreme at once and creeps back 1 ms per packet.
inline uint32 FollowBandMin(uint32 dwMin, uint32 dwTimeLine, uint32 dwChangeRange)
{
    if (dwTimeLine < dwMin)
        return dwTimeLine;
    return dwTimeLine > dwMin + dwChangeRange ? dwMin + 1 : dwMin;
}
inline uint32 FollowBandMax(uint32 dwMax, uint32 dwTimeLine, uint32 dwChangeRange)
{
    if (dwTimeLine > dwMax)
        return dwTimeLine;
    return dwTimeLine + dwChangeRange < dwMax ? dwMax - 1 : dwMax;
}

/// The upper bound after a reset: the offset itself when it lies above the lower bound, else a fresh band.
uint32 ResetBandMax(uint32 dwMin, uint32 dwTimeLine, bool bLowLatency);

// ---- Playout clock ---------------------------------------------------------------------------------------

constexpr uint32 c_dwClockMinAdvance = 12; ///< ms, shorter cycles add up to one advance
constexpr uint32 c_dwClockJumpLag = 15000; ///< ms behind the newest media before a jump is looked for
constexpr uint32 c_dwClockJumpGap = 5000;  ///< ms from the clock to the earliest packet that makes a jump
constexpr uint32 c_dwFastFactor = 12;      ///< the clock speeds up to 13/12 of real time

/// Tolerances above the target before the clock speeds up, ms.
inline uint32 ClockExtSmall(bool bLowLatency) { return bLowLatency ? 10 : 100; }
inline uint32 ClockExtBig(bool bLowLatency) { return bLowLatency ? 500 : 3000; }

/// Extra wait that a loss adds to the target, ms. @param dwDownLoss100 downlink loss, 1/10000.
uint32 LossExtraWait(bool bLowLatency, uint32 dwDownLoss100);

/// The same as audio output reports it: in low latency it waits less and starts from nothing. The clock's
/// next advance replaces it by the formula above.
uint32 AudioLossExtraWait(bool bLowLatency, uint32 dwDownLoss100);

/// Media to keep ahead of the clock, ms: 1.2 times the width of the transit band plus the extra wait, at
/// least `dwDelta`, at most `dwDeltaMax`; the upper clamp comes last and wins.
uint32 PlayoutTarget(uint32 dwBandWidth, uint32 dwExtraWait, uint32 dwDelta, uint32 dwDeltaMax);

/// 1: more than the tolerance above the target, run fast. -2: below it, run slow. 0: real time.
int32 PlayoutStep(uint32 dwDataLen, uint32 dwTarget, uint32 dwExtSmall, uint32 dwExtBig);

/// The clock `dwTickDiff` ms later: (1 + 1/`dwFastFactor`), 1 or 3/4 of real time for steps 1, 0 and -2.
/// Signed 64-bit, divisions truncate towards zero, the sum is kept to 32 bits.
uint32 AdvanceClock(uint32 dwTimelineOut, int32 nStep, uint32 dwTickDiff, uint32 dwFastFactor);

// ---- Loss requests -----------------------------------------------------------------------------------------

/// The timing in force for one loss scan, ms.
struct tagRequestTiming
{
    uint32 dwFirstDelay; ///< after the arrival of the packet behind the gap, before the second request
    uint32 dwInterval;   ///< between requests from the fourth on

    tagRequestTiming() : dwFirstDelay(0), dwInterval(0) {}
};

constexpr uint16 c_wQuickRequests = 3; ///< requests of one gap before they are paced

/// The round-trip time clamped into [min(interval, 400), interval]. ms
uint32 RequestInterval(uint32 dwRTT, uint32 dwConfigured);

/// Is the gap before a packet due to be asked for (again)?
inline bool IsRequestDue(uint16 wLostReqCnt, uint32 dwSinceArrival, uint32 dwSinceRequest,
                         const tagRequestTiming& stTiming)
{
    if (dwSinceArrival <= stTiming.dwFirstDelay)
        return wLostReqCnt == 0; // once, on sight
    if (wLostReqCnt < c_wQuickRequests)
        return true;                              // then one per scan, in case the first was lost too
    return dwSinceRequest >= stTiming.dwInterval; // then paced, so a dead sender is not flooded
}

// ---- Loss detection ----------------------------------------------------------------------------------------

/// A first packet that arrived into a gap already counted for the second: what remains missing before it is
/// the old count minus the distance. @return true and the count (8-bit) when the rule applies.
inline bool HeadLost(const tagDataPacket& stFirst, const tagDataPacket& stSecond, uint8& cLost)
{
    const uint32 dwLost = stSecond.dwSenderSeq - stFirst.dwSenderSeq;
    if (stFirst.cIsCalcLost != 0 || stSecond.cPrePkgLost <= dwLost - 1)
        return false;
    cLost = (uint8)(stSecond.cPrePkgLost - dwLost); // modulo 256
    return true;
}

/// The video loss walk: what it knows of the packet before the present one.
struct tagVidWalk
{
    uint32 m_dwPreSeq;
    uint32 m_dwPreGopIdx;
    uint32 m_dwPreFrmIdx;
    int m_nPrePkgIdxLeft;  ///< 0: it ended its frame
    uint32 m_dwFrmLostNum; ///< missing packets of the present frame so far

    explicit tagVidWalk(const tagDataPacket& stFirst) : m_dwFrmLostNum(stFirst.cFrmLostNum)
    {
        StepTo(stFirst);
    }

    void StepTo(const tagDataPacket& stPkt)
    {
        m_dwPreSeq = stPkt.dwSenderSeq;
        m_dwPreGopIdx = stPkt.cGopIdx;
        m_dwPreFrmIdx = stPkt.cFrmIdx;
        m_nPrePkgIdxLeft = stPkt.wVidPkgIdxLeft;
    }
    bool IsOtherFrame(const tagDataPacket& stPkt) const
    {
        return stPkt.cFrmIdx != m_dwPreFrmIdx || stPkt.cGopIdx != m_dwPreGopIdx;
    }
};

// ---- Rates -------------------------------------------------------------------------------------------------

/// lost x dwScale / expected in 32-bit arithmetic, the product wraps; 0 when nothing was expected.
inline uint32 ScaledShare(uint32 dwLost, uint32 dwScale, uint32 dwOf)
{
    return dwOf != 0 ? dwLost * dwScale / dwOf : 0;
}

#endif // AVGUDTRECVRULES_H
