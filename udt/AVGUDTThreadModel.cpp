// One worker thread: made, named, waited for. Control threads come in by StartThread and StopThread and wait for one
// another under m_lock; the worker itself never takes that lock, so it may be waited for with the lock held.
#include "AVGUDTThreadModel.h"

namespace
{
const uint32 c_dwDefaultWaitTime = 10; // ms, one turn

// The object whose thread this is. It tells the worker from everybody else without a lock, and unlike a thread number it
// is never given to another thread afterwards.
thread_local const CAVGThreadModel* t_pWorkerOf = nullptr;
} // namespace

CAVGThreadModel::CAVGThreadModel() : m_hEvt(xpevent_create(0, 0)), m_dwWaitTime(c_dwDefaultWaitTime) {}

CAVGThreadModel::~CAVGThreadModel()
{
    if (IsWorkerThread())
    {
        t_pWorkerOf = nullptr; // the thread's entry sees that the object is gone
        xpthread_detach(m_hThread);
    }
    else
        StopThread();
    xpevent_destory(m_hEvt);
}

void CAVGThreadModel::Run() {}

uint32 CAVGThreadModel::StartThread()
{
    if (IsWorkerThread())
        return THREAD_ON_WORKER;

    CXPAutoLock guard(m_lock);
    if (HasThread())
    {
        if (!m_bEnding.GetAcquire())
            return THREAD_RUNNING;
        JoinThread();
    }
    if (m_bOwnerDriven)
        return THREAD_OK;

    xpevent_reset(m_hEvt); // whom it was meant for is gone
    m_bEnding = (boolean)FALSE;
    m_hThread = xpthread_create(Thread, this);
    return HasThread() ? THREAD_OK : THREAD_CREATE_FAILED;
}

uint32 CAVGThreadModel::StopThread()
{
    if (IsWorkerThread())
    {
        m_bEnding.SetRelease(TRUE);
        return THREAD_ON_WORKER;
    }

    CXPAutoLock guard(m_lock);
    if (HasThread())
    {
        ForceTimeOut();
        JoinThread();
    }
    return THREAD_OK;
}

void CAVGThreadModel::JoinThread()
{
    xpthread_join(m_hThread);
    m_hThread = nullptr;
    m_u64ThreadId = 0;
}

uint32 CAVGThreadModel::ForceTimeOut()
{
    if (m_hEvt == nullptr)
        return THREAD_NO_EVENT;
    xpevent_signal(m_hEvt);
    return THREAD_OK;
}

boolean CAVGThreadModel::WaitTimeOut() { return xpevent_wait(m_hEvt, m_dwWaitTime); }

boolean CAVGThreadModel::IsWorkerThread() const { return t_pWorkerOf == this ? TRUE : FALSE; }

void* CAVGThreadModel::Thread(void* pParam)
{
    CAVGThreadModel* pModel = (CAVGThreadModel*)pParam;
    const CAVGThreadModel* pOuter = t_pWorkerOf;
    t_pWorkerOf = pModel;
    pModel->m_u64ThreadId = xpthread_selfid();
    xpthread_setname(pModel->m_strName.c_str());

    pModel->Run();

    // An object that was destroyed from within its own Run took its name off this thread.
    if (t_pWorkerOf == pModel)
        pModel->m_bEnding.SetRelease(TRUE);
    t_pWorkerOf = pOuter;
    return nullptr;
}
