#ifndef RECVTEST_H
#define RECVTEST_H

/** What the receiver's tests share: log lines as values, the order of members, settings from outside. */

#include "RecvRig.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <initializer_list>
#include <ostream>
#include <string>
#include <vector>

constexpr uint64 c_ullUin = 7;          ///< whoever it is
constexpr uint32 c_dwNone = 0xFFFFFFFF; ///< a tick, sequence or rate that is not there yet
constexpr uint32 c_dwClock = 50000;     ///< where a user's clock is put
constexpr uint8 I = def_FrameType_I;
constexpr uint8 P = def_FrameType_P;

/// A picture of one packet that can be shown without any other.
inline tagRigPacket KeyFrame(uint64 ullUin, uint32 dwSendSeq, uint32 dwMediaMs = 5000)
{
    return VideoPacket(ullUin, dwSendSeq, dwMediaMs, def_FrameType_I, 0, 0);
}

/// A number that whoever runs the test may set in the environment.
inline uint64 FromEnv(const char* pszName, uint64 ullElse)
{
    const char* pszValue = getenv(pszName);
    return pszValue != nullptr && *pszValue != 0 ? strtoull(pszValue, nullptr, 0) : ullElse;
}

/// A log line as a value. A type of its own, so that every test program prints it alike.
struct tagLine
{
    UDT_LOG_LEVEL eLevel;
    std::string strTag;
    std::string strFile;
    std::string strFunc;
    std::string strText;

    tagLine(UDT_LOG_LEVEL eLineLevel, const char* pszFunc, const std::string& strLineText)
        : eLevel(eLineLevel), strTag("CmdCode"), strFile("AVGUDTRecv"), strFunc(pszFunc), strText(strLineText)
    {
    }
    tagLine(const tagLogLine& st)
        : eLevel(st.eLevel), strTag(st.strTag), strFile(st.strFile), strFunc(st.strFunc), strText(st.strText)
    {
    }
};

inline bool operator==(const tagLine& stLeft, const tagLine& stRight)
{
    return stLeft.eLevel == stRight.eLevel && stLeft.strTag == stRight.strTag &&
           stLeft.strFile == stRight.strFile && stLeft.strFunc == stRight.strFunc &&
           stLeft.strText == stRight.strText;
}

inline void PrintTo(const tagLine& stLine, std::ostream* pOut)
{
    *pOut << stLine.eLevel << ' ' << stLine.strTag << ' ' << stLine.strFile << ' ' << stLine.strFunc << ": \""
          << stLine.strText << '"';
}

/// A line of the receiver as an operator finds it: level 4, the tag and the file that never change.
inline tagLine ErrorLine(const char* pszFunc, const std::string& strText)
{
    return tagLine(LOG_LEVEL_ERROR, pszFunc, strText);
}

/// The same at level 5.
inline tagLine DebugLine(const char* pszFunc, const std::string& strText)
{
    return tagLine(LOG_LEVEL_DEBUG, pszFunc, strText);
}

/// All lines, in order.
inline std::vector<tagLine> LinesOf(const CLogRecorder& log)
{
    const std::vector<tagLogLine> vecLines = log.Lines();
    return std::vector<tagLine>(vecLines.begin(), vecLines.end());
}

/// The lines that one operation wrote, in order.
inline std::vector<tagLine> LinesOf(const CLogRecorder& log, const std::string& strFunc)
{
    std::vector<tagLine> vecLines;
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
