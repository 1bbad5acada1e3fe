/// Numbers that wrap on the wire, made into numbers that do not. No clock, no allocation.
#ifndef RTP_UNWRAP_H
#define RTP_UNWRAP_H

#include <cstdint>

#include "xptypes.h"

/// From one 32-bit count to another the short way round; half way counts as back. Modulo 2^32 by intent.
inline int32_t Step32(uint32 dwFrom, uint32 dwTo)
{
    return (int32_t)(uint32)((uint64_t)dwTo + 0x100000000ull - dwFrom);
}

/// A 32-bit count so many further on or back, modulo 2^32.
inline uint32 Add32(uint32 dwCount, int64_t llStep) { return (uint32)((uint64_t)dwCount + (uint32)llStep); }

/// A 16-bit sequence as a 64-bit one. The highest seen is the reference: a value up to 32767 ahead of it moves it,
/// anything else lies behind (exactly half way, 32768, counts as behind).
///
/// The first value becomes 65536 + itself, so packets that left before the first one but arrive after it have a
/// place below it instead of a huge number after an underflow.
class CRtpSeqUnwrap
{
public:
    bool Started() const { return m_bStarted; }
    int64_t Highest() const { return m_llHighest; }

    /// Where the value lies, without taking it.
    int64_t Peek(uint16 wSeq) const
    {
        if (!m_bStarted)
            return c_llStart + wSeq;
        return m_llHighest + (int16_t)(uint16)(wSeq - (uint16)m_llHighest);
    }

    int64_t Take(uint16 wSeq)
    {
        const int64_t llSeq = Peek(wSeq);
        if (!m_bStarted || llSeq > m_llHighest)
            m_llHighest = llSeq;
        m_bStarted = true;
        return llSeq;
    }

    static const int64_t c_llStart = 65536;

private:
    bool m_bStarted = false;
    int64_t m_llHighest = 0;
};

/// A 32-bit RTP timestamp as ticks since the stream's first packet (which is 0; earlier media is negative).
class CRtpTsUnwrap
{
public:
    bool Started() const { return m_bStarted; }
    uint32 First() const { return m_dwFirst; }

    /// Where the value lies, without taking it.
    int64_t Peek(uint32 dwTs) const { return m_bStarted ? m_llHighest + Step32(m_dwHighest, dwTs) : 0; }

    int64_t Take(uint32 dwTs)
    {
        if (!m_bStarted)
        {
            m_bStarted = true;
            m_dwFirst = dwTs;
            m_dwHighest = dwTs;
            m_llHighest = 0;
            return 0;
        }
        const int64_t llTs = Peek(dwTs);
        if (llTs > m_llHighest)
        {
            m_llHighest = llTs;
            m_dwHighest = dwTs;
        }
        return llTs;
    }

private:
    bool m_bStarted = false;
    uint32 m_dwFirst = 0;
    uint32 m_dwHighest = 0;
    int64_t m_llHighest = 0;
};

/// Floor division: rounds towards minus infinity, so media before the first packet is not folded onto it.
inline int64_t FloorDiv(int64_t llValue, int64_t llBy)
{
    return llValue / llBy - (llValue % llBy != 0 && (llValue < 0) != (llBy < 0) ? 1 : 0);
}

/// Ticks of a clock in microseconds, from the whole count each time: nothing accumulates, so nothing drifts.
/// Whole seconds and the rest are taken apart, so no product overflows in any stream's life.
inline int64_t TicksToUs(int64_t llTicks, uint32 dwClock)
{
    const int64_t llSeconds = FloorDiv(llTicks, dwClock);
    const int64_t llRest = llTicks - llSeconds * (int64_t)dwClock;
    return llSeconds * 1000000 + llRest * 1000000 / (int64_t)dwClock;
}

#endif // RTP_UNWRAP_H
