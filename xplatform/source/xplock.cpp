#include "xplock.h"

void xplock_init(xplock_t* pLock) { pthread_mutex_init(pLock, nullptr); }
void xplock_destroy(xplock_t* pLock) { pthread_mutex_destroy(pLock); }
void xplock_lock(xplock_t* pLock) { pthread_mutex_lock(pLock); }
void xplock_unlock(xplock_t* pLock) { pthread_mutex_unlock(pLock); }
boolean xplock_trylock(xplock_t* pLock) { return pthread_mutex_trylock(pLock) == 0 ? TRUE : FALSE; }
