// The receiver's log lines, as a run sees them.
#ifndef LAB_LOGTAP_H
#define LAB_LOGTAP_H

#include "UDTLog.h"

#include <functional>

namespace lab
{

// While one exists, every log line written on its thread goes to its function. The log entry point knows one
// sink for the whole process; this hands each line to the run of the thread that wrote it.
class CLogTap
{
public:
    typedef std::function<void(UDT_LOG_LEVEL eLevel, const char* pszFunc, const char* pszText)> FnLine;

    // Lines up to nLevel are formatted and delivered (4, LOG_LEVEL_ERROR, at least).
    CLogTap(int nLevel, FnLine fnLine);
    ~CLogTap();
    CLogTap(const CLogTap&) = delete;
    CLogTap& operator=(const CLogTap&) = delete;

private:
    static void Sink(void* pCtx, UDT_LOG_LEVEL eLevel, const char* pTag, const char* pFile, int nLine,
                     const char* pFunc, const char* pText);

    FnLine m_fnLine;
    CLogTap* m_pOuter;
};

} // namespace lab

#endif
