#include "LogTap.h"

#include <algorithm>

namespace lab
{

namespace
{
thread_local CLogTap* t_pTap = nullptr;
}

CLogTap::CLogTap(int nLevel, FnLine fnLine) : m_fnLine(std::move(fnLine)), m_pOuter(t_pTap)
{
    t_pTap = this;
    LogSetSink(&CLogTap::Sink, nullptr);
    LogSetLevel((UDT_LOG_LEVEL)std::clamp(nLevel, (int)LOG_LEVEL_ERROR, (int)LOG_LEVEL_DEBUG));
}

CLogTap::~CLogTap() { t_pTap = m_pOuter; }

void CLogTap::Sink(void*, UDT_LOG_LEVEL eLevel, const char*, const char*, int, const char* pFunc,
                   const char* pText)
{
    if (t_pTap)
        t_pTap->m_fnLine(eLevel, pFunc, pText);
}

} // namespace lab
