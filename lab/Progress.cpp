#include "Progress.h"

#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>

namespace lab
{

CProgress::CProgress(bool bWanted)
    : m_bWanted(bWanted && isatty(STDERR_FILENO)),
      m_tNext(std::chrono::steady_clock::now() + std::chrono::seconds(1))
{
}

CProgress::~CProgress()
{
    if (m_bDrawn)
        fputs("\r\033[K", stderr);
}

void CProgress::Show(double dShare, const char* pszWhat)
{
    if (!m_bWanted)
        return;
    const auto tNow = std::chrono::steady_clock::now();
    if (tNow < m_tNext)
        return;
    m_tNext = tNow + std::chrono::milliseconds(100);
    constexpr int c_nWidth = 40;
    const double d = std::clamp(dShare, 0.0, 1.0);
    const int nFull = (int)(d * c_nWidth);
    fmt::print(stderr, "\r{:<8} [{:#<{}}{:.<{}}] {:3.0f} %\033[K", pszWhat, "", nFull, "", c_nWidth - nFull,
               d * 100);
    fflush(stderr);
    m_bDrawn = true;
}

} // namespace lab
