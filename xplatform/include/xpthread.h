// POSIX threads behind a handle.
#ifndef XPTHREAD_H
#define XPTHREAD_H

#include "xptypes.h"
#include <pthread.h>

// Points to the handle of a thread that was started and not yet joined or detached; null: no thread.
typedef pthread_t* hxpthread;

// Starts a thread that runs pfnEntry(pArg). Null when the system refuses.
hxpthread xpthread_create(void* (*pfnEntry)(void*), void* pArg);

// Waits for the thread to end and frees the handle. Null is tolerated. Never on the thread itself.
void xpthread_join(hxpthread hThread);

// Lets the thread end on its own and frees the handle. Null is tolerated.
void xpthread_detach(hxpthread hThread);

// The system's number of the calling thread, as debuggers show it; never 0.
uint64 xpthread_selfid();

// Names the calling thread for debuggers and top, where the system can. Cut to 15 bytes, never inside a UTF-8
// character. Null or empty changes nothing.
void xpthread_setname(const char* pszName);

#endif
