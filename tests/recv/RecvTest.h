#ifndef RECVTEST_H
#define RECVTEST_H

/** What the receiver's tests share: log lines as values, and packets of media time near the tick's wrap. */

#include "RecvRig.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <initializer_list>
#include <ostream>
#include <string>
#include <vector>

inline bool operator==(const tagLogLine& stLeft, const tagLogLine& stRight)
{
    return stLeft.eLevel == stRight.eLevel && stLeft.strTag == stRight.strTag &&
           stLeft.strFile == stRight.strFile && stLeft.strFunc == stRight.strFunc &&
           stLeft.strText == stRight.strText;
}

inline void PrintTo(const tagLogLine& stLine, std::ostream* pOut)
{
    *pOut << stLine.eLevel << ' ' << stLine.strTag << ' ' << stLine.strFile << ' ' << stLine.strFunc << ": \""
          << stLine.strText << '"';
}

/// A line of the receiver as an operator finds it: level 4, the tag and the file that never change.
inline tagLogLine ErrorLine(const char* pszFunc, const std::string& strText)
{
    return {LOG_LEVEL_ERROR, "CmdCode", "AVGUDTRecv", pszFunc, strText};
}

/// The same at level 5.
inline tagLogLine DebugLine(const char* pszFunc, const std::string& strText)
{
    return {LOG_LEVEL_DEBUG, "CmdCode", "AVGUDTRecv", pszFunc, strText};
}

/// The lines that one operation wrote, in order.
inline std::vector<tagLogLine> LinesOf(const CLogRecorder& log, const std::string& strFunc)
{
    std::vector<tagLogLine> vecLines;
    for (const tagLogLine& stLine : log.Lines())
    {
        if (stLine.strFunc == strFunc)
            vecLines.push_back(stLine);
    }
    return vecLines;
}

/// Do the addresses rise strictly, as members do that are declared in this order?
inline ::testing::AssertionResult InOrder(std::initializer_list<const volatile void*> lstMembers)
{
    const volatile char* pBefore = nullptr;
    size_t nPlace = 0;
    for (const volatile void* pMember : lstMembers)
    {
        const volatile char* pHere = static_cast<const volatile char*>(pMember);
        if (pBefore != nullptr && pHere <= pBefore)
            return ::testing::AssertionFailure() << "member " << nPlace << " lies before the one above it";
        pBefore = pHere;
        ++nPlace;
    }
    return ::testing::AssertionSuccess();
}

#endif // RECVTEST_H
