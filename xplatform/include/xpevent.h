// A waitable event.
#ifndef XPEVENT_H
#define XPEVENT_H

#include "xptypes.h"

typedef struct tagXPEvent* hxpevent;

// For xpevent_wait: no time-out.
const uint32 c_dwWaitForever = 0xFFFFFFFF;

// Creates an event. Both arguments 0 make the usual one: auto-reset (a signal lets exactly one waiter through and is
// then gone) and not signalled. With `nManualReset` a signal stays until xpevent_reset; with `nSignaled` it starts
// signalled. Null only when memory is exhausted; every function below tolerates a null event.
hxpevent xpevent_create(int nManualReset, int nSignaled);

// Signals the event. Signals do not add up: several before a wait are one. Any thread.
void xpevent_signal(hxpevent hEvent);

// Takes back a signal that nobody has waited for yet.
void xpevent_reset(hxpevent hEvent);

// Waits until the event is signalled or `dwMs` real milliseconds have gone by (0 only looks). TRUE when it was
// signalled. A null event is never signalled: FALSE at once.
boolean xpevent_wait(hxpevent hEvent, uint32 dwMs);

// Destroys the event; nobody may be waiting for it. The spelling is the platform's own.
void xpevent_destory(hxpevent hEvent);

#endif
