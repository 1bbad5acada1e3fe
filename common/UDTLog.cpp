// Log lines come in from any thread, are formatted there, and go out to the owner's sink on the same thread. A sink
// never runs under a lock. Every delivery under way is a record on its own thread's stack, chained to the others, so
// that whoever replaces the sink knows whom to wait for, and nothing is allocated for a line of common length.
#include "UDTLog.h"

#include <cerrno>
#include <climits>
#include <condition_variable>
#include <cstdarg>
#include <cstdio>
#include <memory>
#include <mutex>
#include <new>

namespace
{
const int c_nGateShut = INT_MIN; // below every level
const int c_nMaxDepth = 8;       // lines that a sink writes while it delivers one, and so on
const size_t c_nInlineText = 1024;

// One line on its way through a sink.
struct tagDelivery
{
    unsigned long long ullSinkNo = 0;
    PFN_LogSink pfnSink = nullptr;
    void* pCtx = nullptr;
    tagDelivery* pPrev = nullptr;
    tagDelivery* pNext = nullptr;
};

struct tagLogState
{
    std::mutex lock;
    std::condition_variable condLeft; // a delivery ended
    int nWaiting = 0;                 // threads in LogSetSink that wait for that
    PFN_LogSink pfnSink = nullptr;
    void* pCtx = nullptr;
    unsigned long long ullSinkNo = 0; // counts the sinks, to tell the old ones' deliveries from the new one's
    int nLevel = LOG_LEVEL_ERROR;
    tagDelivery* pFirst = nullptr;
};

// Lines may be written before main and until the last destructor of the process, so the state is made at first use and
// never destroyed.
tagLogState& State()
{
    union tagForever
    {
        tagForever() : stState() {}
        ~tagForever() {}
        tagLogState stState;
    };
    static tagForever s_forever;
    return s_forever.stState;
}

thread_local int t_nDepth = 0; // sinks that this thread is inside of

// Caller holds the lock.
void UpdateGate(const tagLogState& stState)
{
    g_nLogGate.store(stState.pfnSink != nullptr ? stState.nLevel : c_nGateShut, std::memory_order_relaxed);
}

void Enter(tagDelivery& stDelivery)
{
    tagLogState& stState = State();
    std::lock_guard<std::mutex> guard(stState.lock);
    stDelivery.ullSinkNo = stState.ullSinkNo;
    stDelivery.pfnSink = stState.pfnSink;
    stDelivery.pCtx = stState.pCtx;
    stDelivery.pNext = stState.pFirst;
    if (stState.pFirst != nullptr)
        stState.pFirst->pPrev = &stDelivery;
    stState.pFirst = &stDelivery;
    ++t_nDepth;
}

void Leave(tagDelivery& stDelivery)
{
    tagLogState& stState = State();
    std::lock_guard<std::mutex> guard(stState.lock);
    --t_nDepth;
    if (stDelivery.pNext != nullptr)
        stDelivery.pNext->pPrev = stDelivery.pPrev;
    if (stDelivery.pPrev != nullptr)
        stDelivery.pPrev->pNext = stDelivery.pNext;
    else
        stState.pFirst = stDelivery.pNext;
    if (stState.nWaiting != 0)
        stState.condLeft.notify_all();
}

// Caller holds the lock.
bool IsInsideBefore(const tagLogState& stState, unsigned long long ullSinkNo)
{
    for (const tagDelivery* p = stState.pFirst; p != nullptr; p = p->pNext)
        if (p->ullSinkNo < ullSinkNo)
            return true;
    return false;
}

void Deliver(UDT_LOG_LEVEL eLevel, const char* pTag, const char* pFile, int nLine, const char* pFunc,
             const char* pText)
{
    tagDelivery stDelivery;
    Enter(stDelivery);
    try
    {
        if (stDelivery.pfnSink != nullptr)
            stDelivery.pfnSink(stDelivery.pCtx, eLevel, pTag, pFile, nLine, pFunc, pText);
    }
    catch (...)
    {
        // The sink's trouble must not end the worker, nor leave this delivery in the chain.
    }
    Leave(stDelivery);
}
} // namespace

std::atomic<int> g_nLogGate{c_nGateShut};

// NOLINTNEXTLINE(cert-dcl50-cpp): callers have always written printf's formats, and the compiler checks them
void LogWrite(UDT_LOG_LEVEL eLevel, const char* pTag, const char* pFile, int nLine, const char* pFunc,
              const char* pFormat, ...)
{
    if (!LogIsOn(eLevel) || t_nDepth >= c_nMaxDepth)
        return;
    const int nErrno = errno; // a line in front of a look at errno must not change it

    char szText[c_nInlineText];
    const char* pText = szText;
    std::unique_ptr<char[]> pLong;

    va_list args;
    va_start(args, pFormat);
    va_list argsAgain;
    va_copy(argsAgain, args);
    const int nLen = pFormat != nullptr ? vsnprintf(szText, sizeof(szText), pFormat, args) : 0;
    if (pFormat == nullptr)
        szText[0] = 0;
    else if (nLen < 0)
        pText = pFormat; // arguments that cannot be printed: the bare text is still a trace
    else if ((size_t)nLen >= sizeof(szText))
    {
        pLong.reset(new (std::nothrow) char[(size_t)nLen + 1]);
        if (pLong != nullptr)
        {
            (void)vsnprintf(pLong.get(), (size_t)nLen + 1, pFormat, argsAgain);
            pText = pLong.get();
        }
    }
    va_end(argsAgain);
    va_end(args);

    Deliver(eLevel, pTag, pFile, nLine, pFunc, pText);
    errno = nErrno;
}

void LogSetSink(PFN_LogSink pfnSink, void* pCtx)
{
    tagLogState& stState = State();
    std::unique_lock<std::mutex> guard(stState.lock);
    stState.pfnSink = pfnSink;
    stState.pCtx = pCtx;
    const unsigned long long ullSinkNo = ++stState.ullSinkNo;
    UpdateGate(stState);
    if (t_nDepth != 0)
        return; // within a sink: see the declaration

    ++stState.nWaiting;
    while (IsInsideBefore(stState, ullSinkNo))
        stState.condLeft.wait(guard);
    --stState.nWaiting;
}

void LogSetLevel(UDT_LOG_LEVEL eLevel)
{
    tagLogState& stState = State();
    std::lock_guard<std::mutex> guard(stState.lock);
    stState.nLevel = (int)eLevel;
    UpdateGate(stState);
}
