#include "AVGSpeed.h"

#include "xpmess.h"

CAVGSpeed::CAVGSpeed(uint32 factor)
    : m_uLastSpeedTick((uint32)xp_gettickcount()), m_uFactor(factor != 0 ? factor : 1)
{
}

void CAVGSpeed::AddSample(uint32 bytes)
{
    m_uSendSize.Add(bytes);
    m_uPacketCount.Add(1);
}

uint32 CAVGSpeed::CalculateSpeed()
{
    const uint32 uNow = (uint32)xp_gettickcount();
    const uint32 uElapsedMs = uNow - m_uLastSpeedTick;
    m_uPacketCount.Exchange(0);
    if (uElapsedMs == 0)
        return m_uSendSpeed;

    m_uLastSpeedTick = uNow;
    uint64 ullRate = (uint64)m_uSendSize.Exchange(0) * 1000 / uElapsedMs;
    if (ullRate > 0xFFFFFFFF)
        ullRate = 0xFFFFFFFF;

    const int64 llSpeed = (int64)m_uSendSpeed.Get();
    const int64 llFactor = (int64)m_uFactor.Get();
    const int64 llDiff = (int64)ullRate - llSpeed;
    // Rounded away from zero: rounding towards it would stop up to `factor` - 1 B/s short of a steady rate.
    const int64 llStep = (llDiff + (llDiff > 0 ? llFactor - 1 : 1 - llFactor)) / llFactor;
    m_uSendSpeed = llSpeed == 0 ? (uint32)ullRate : (uint32)(llSpeed + llStep);
    return m_uSendSpeed;
}
