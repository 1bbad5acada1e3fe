#ifndef VIRTUALCLOCK_H
#define VIRTUALCLOCK_H

#include "xptypes.h"

/**
 * Ticks that move only when somebody says so. While one exists, `xp_gettickcount` answers with its tick on the
 * thread that made it; other threads keep their own, or the real one, so several runs go on side by side.
 * Clocks of one thread nest.
 */
class CVirtualClock
{
public:
    explicit CVirtualClock(uint64 ullTick);
    ~CVirtualClock();
    CVirtualClock(const CVirtualClock&) = delete;
    CVirtualClock& operator=(const CVirtualClock&) = delete;

    uint64 Tick() const { return m_ullTick; }

    /// Forwards only: an earlier tick is ignored.
    void MoveTo(uint64 ullTick)
    {
        if (ullTick > m_ullTick)
            m_ullTick = ullTick;
    }

    /// Anywhere, for cases about clocks that misbehave.
    void JumpTo(uint64 ullTick) { m_ullTick = ullTick; }

private:
    uint64 m_ullTick;
    CVirtualClock* m_pOuter;
};

#endif // VIRTUALCLOCK_H
