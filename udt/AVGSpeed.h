// The rate meter.
#ifndef AVGSPEED_H
#define AVGSPEED_H

#include "xpatomic.h"
#include "xptypes.h"

// Measures bytes per second over the time between calls of CalculateSpeed, and smooths what it measures:
//
//   rate  = bytes since the last call * 1000 / ms since the last call
//   speed = rate                                  when the speed was 0: start-up shows the true rate at once
//   speed = speed + (rate - speed) / factor       otherwise
//
// It is the exponential moving average with weight 1/factor. The step is rounded away from zero, so that a steady rate
// is reached exactly and silence ends at 0. Rates from 2^32 B/s on are held at 2^32 - 1.
//
// Several threads may add samples while one at a time calculates. The byte count is 32 bits wide: read the meter more
// often than once per 4 GiB.
class CAVGSpeed
{
public:
    // `factor` 1 does not smooth; 0 is taken as 1. The first interval begins here.
    explicit CAVGSpeed(uint32 factor);
    ~CAVGSpeed() = default;

    // Counts one packet of `bytes` bytes. Several threads at once.
    void AddSample(uint32 bytes);

    // Closes the interval and returns the smoothed speed in bytes per second. Within the millisecond of the last call
    // there is nothing to divide by: it returns the last speed and leaves the bytes to the interval.
    uint32 CalculateSpeed();

    // Samples since the last CalculateSpeed.
    uint32 GetPacketCount() const { return m_uPacketCount; }

private:
    CXPShared<uint32> m_uSendSize;      // bytes of the open interval
    CXPShared<uint32> m_uLastSpeedTick; // ms tick at which the interval began
    CXPShared<uint32> m_uSendSpeed;     // bytes per second, as last calculated
    CXPShared<uint32> m_uFactor;        // weight of the past, at least 1
    CXPShared<uint32> m_uPacketCount;   // samples of the open interval
};

static_assert(sizeof(CAVGSpeed) == 20, "five words");

#endif
