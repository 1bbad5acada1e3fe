// A non-recursive mutex, as functions and as a class.
#ifndef XPLOCK_H
#define XPLOCK_H

#include "xptypes.h"
#include <pthread.h>

typedef pthread_mutex_t xplock_t;

// All four take a pointer to a caller-owned lock. Locking one lock twice on a thread is a programming error
// (the thread waits for itself); so is destroying a lock that is held.
void xplock_init(xplock_t* pLock);
void xplock_destroy(xplock_t* pLock);
void xplock_lock(xplock_t* pLock);
void xplock_unlock(xplock_t* pLock);

// Takes the lock if nobody holds it. FALSE when it is held, by the calling thread too.
boolean xplock_trylock(xplock_t* pLock);

class CXPLock
{
public:
    CXPLock() { xplock_init(&m_lock); }
    ~CXPLock() { xplock_destroy(&m_lock); }

    // A lock belongs to the one object it guards; a copied record needs a lock of its own.
    CXPLock(const CXPLock&) = delete;
    CXPLock& operator=(const CXPLock&) = delete;

    void Lock() { xplock_lock(&m_lock); }
    void Unlock() { xplock_unlock(&m_lock); }
    boolean Try() { return xplock_trylock(&m_lock); }

    xplock_t m_lock;
};

// Holds a lock for the length of a scope.
class CXPAutoLock
{
public:
    explicit CXPAutoLock(CXPLock& lock) : m_rLock(lock) { m_rLock.Lock(); }
    ~CXPAutoLock() { m_rLock.Unlock(); }

    CXPAutoLock(const CXPAutoLock&) = delete;
    CXPAutoLock& operator=(const CXPAutoLock&) = delete;

private:
    CXPLock& m_rLock;
};

#endif
