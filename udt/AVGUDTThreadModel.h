/** @file
 * Base of everything that owns one worker thread.
 */
#ifndef AVGUDTTHREADMODEL_H
#define AVGUDTTHREADMODEL_H

#include "xpatomic.h"
#include "xpevent.h"
#include "xplock.h"
#include "xpthread.h"
#include "xptypes.h"
#include <string>

/// What StartThread and StopThread return.
enum emThreadResult
{
    THREAD_OK = 0,        ///< done, or nothing to do
    THREAD_ON_WORKER = 1, ///< asked for on the worker itself: StartThread refused, StopThread did not wait
    THREAD_RUNNING = 2,   ///< StartThread: a thread is running that nobody has asked to stop
    THREAD_CREATE_FAILED = 3, ///< StartThread: the system made no thread
    THREAD_NO_EVENT = 4       ///< ForceTimeOut: there is no event to signal
};

/// Runs the virtual Run of the object on a thread of its own, once per start. Telling Run to end is the derived class's
/// business: do so before StopThread, and call StopThread before the derived part is destroyed.
///
/// Start, stop, start again, from any threads; calls wait for one another. On the worker itself:
// - StopThread does not wait: it marks the thread as ending and returns. Somebody else's StopThread, StartThread or the
///   destructor waits for it.
// - StartThread refuses, since the old thread cannot wait for itself.
class CAVGThreadModel
{
public:
    CAVGThreadModel();

    /// Waits for a thread that somebody forgot; Run of the derived class must be ending by then. On the worker itself it
    /// lets the thread go instead.
    virtual ~CAVGThreadModel();

    /// The thread's work. Once per StartThread.
    virtual void Run();

    CAVGThreadModel(const CAVGThreadModel&) = delete;
    CAVGThreadModel& operator=(const CAVGThreadModel&) = delete;

    /// Starts the thread. A thread that has ended, or has been asked to by StopThread on itself, is waited for first.
    /// Owner-driven: makes no thread and succeeds. Returns an emThreadResult.
    uint32 StartThread();

    /// Waits until the thread has ended; at once when there is none. Returns an emThreadResult.
    uint32 StopThread();

    /// Ends a WaitTimeOut of the worker early. Any thread. Returns an emThreadResult.
    uint32 ForceTimeOut();

    /// When set, StartThread makes no thread: the owner does the worker's turns itself. Set it before StartThread.
    void SetOwnerDriven(boolean bOwnerDriven) { m_bOwnerDriven = (boolean)(bOwnerDriven ? TRUE : FALSE); }
    /// Does the owner make the turns?
    boolean IsOwnerDriven() const { return m_bOwnerDriven; }

    /// Is the caller on this object's worker thread?
    boolean IsWorkerThread() const;

    /// Is there a thread that nobody has waited for yet, running or not?
    boolean HasThread() const { return m_hThread.Get() != nullptr ? TRUE : FALSE; }

    /// Entry of the thread: calls Run on the CAVGThreadModel that pParam points to. Returns null.
    static void* Thread(void* pParam);

protected:
    /// The worker's pause: m_dwWaitTime real milliseconds, or less when ForceTimeOut or StopThread ends it. TRUE when one
    /// did.
    boolean WaitTimeOut();

    CXPLock m_lock;  ///< makes starting and stopping wait for one another; the worker never takes it
    hxpevent m_hEvt; ///< ends WaitTimeOut
    CXPShared<hxpthread> m_hThread;  ///< changed under m_lock; null: no thread
    CXPShared<uint64> m_u64ThreadId; ///< the system's number of the running thread, told by itself; 0: none
    CXPShared<uint32> m_dwWaitTime;  ///< ms, see WaitTimeOut
    std::string m_strName;           ///< UTF-8 name of the thread; set it before StartThread

private:
    /// Caller holds m_lock and is not the worker.
    void JoinThread();

    CXPShared<boolean> m_bOwnerDriven;
    CXPShared<boolean> m_bEnding; ///< the thread has left Run, or was asked by itself to
};

#endif
