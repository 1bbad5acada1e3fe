// A progress bar for people who wait.
#ifndef LAB_PROGRESS_H
#define LAB_PROGRESS_H

#include <chrono>
#include <string>

namespace lab
{

// Draws on stderr, only when that is a terminal and only once a second has passed; gone when done.
class CProgress
{
public:
    explicit CProgress(bool bWanted);
    ~CProgress();
    // Share of the work that is done, 0 to 1, and what is being done.
    void Show(double dShare, const char* pszWhat);

private:
    bool m_bWanted;
    bool m_bDrawn = false;
    std::chrono::steady_clock::time_point m_tNext;
};

} // namespace lab

#endif
