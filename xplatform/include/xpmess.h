/** @file
 * The millisecond tick clock and sleeping.
 */
#ifndef XPMESS_H
#define XPMESS_H

#include "xptypes.h"

/// Monotonic milliseconds since an arbitrary start; not wall time. Any thread, any time.
/// Callers that keep ticks in a uint32 let them wrap every 2^32 ms (49.7 days) and only ever look at unsigned
/// differences, now minus then.
uint64 xp_gettickcount();

/// Sleeps the calling thread for at least `dwMs` real milliseconds; 0 only gives up the rest of the time slice.
/// The tick source below has no influence on it. Interrupting signals do not shorten it.
void xp_msleep(uint32 dwMs);

/// A replacement for the monotonic clock: returns milliseconds. It may be called from several threads at once,
/// must not throw, and must not itself call xp_gettickcount.
typedef uint64 (*PFN_TickSource)(void* pCtx);

/// Makes xp_gettickcount return pfnSource(pCtx) for the whole process; null brings the monotonic clock back.
/// Any thread may call it while others read the clock: a reader sees the old pair or the new one, never a mix.
/// A reader that already took the old pair may still be inside the old source when this returns, so what its
/// `pCtx` points to must outlive the readers (tests switch it while no worker runs).
void xp_settickcountsource(PFN_TickSource pfnSource, void* pCtx);

#endif
