#include "UDTLog.h"
#include "xpevent.h"
#include "xptypes.h"
#include <atomic>
#include <cerrno>
#include <gtest/gtest.h>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

namespace
{
struct tagLine
{
    UDT_LOG_LEVEL eLevel;
    std::string strTag, strFile, strFunc, strText;
    int nLine;
    std::thread::id idThread;
};

// Collects lines while it lives, and leaves the log as it was by default.
class CLogCatcher
{
public:
    explicit CLogCatcher(UDT_LOG_LEVEL eLevel = LOG_LEVEL_ERROR)
    {
        LogSetLevel(eLevel);
        LogSetSink(Sink, this);
    }
    ~CLogCatcher()
    {
        LogSetSink(nullptr, nullptr);
        LogSetLevel(LOG_LEVEL_ERROR);
    }
    std::vector<tagLine> m_listLine;

private:
    static void Sink(void* pCtx, UDT_LOG_LEVEL eLevel, const char* pTag, const char* pFile, int nLine,
                     const char* pFunc, const char* pText)
    {
        ((CLogCatcher*)pCtx)
            ->m_listLine.push_back({eLevel, pTag, pFile, pFunc, pText, nLine, std::this_thread::get_id()});
    }
};

#define WRITE(eLevel, ...) LogWrite(eLevel, "CmdCode", "AVGUDTRecv", __LINE__, "Test", __VA_ARGS__)

int CountingArgument(int& nCalls)
{
    ++nCalls;
    return nCalls;
}
} // namespace

TEST(Log, DropsEverythingUntilThereIsASink)
{
    EXPECT_FALSE(LogIsOn(LOG_LEVEL_SDK_INTERFACE));
    WRITE(LOG_LEVEL_SDK_INTERFACE, "nobody hears this %d", 1);
    CLogCatcher log;
    EXPECT_TRUE(LogIsOn(LOG_LEVEL_SDK_INTERFACE));
    EXPECT_TRUE(log.m_listLine.empty());
}

TEST(Log, DeliversEveryPartOfALineOnTheCallersThread)
{
    CLogCatcher log;
    LogWrite(LOG_LEVEL_FAULT, "CmdCode", "AVGUDTRecv", 77, "ClearRecvChn",
             "ClearRecvChn: uin %llu IsClearAll %d", 18446744073709551615ull, -3);
    ASSERT_EQ(log.m_listLine.size(), 1u);
    const tagLine& stLine = log.m_listLine[0];
    EXPECT_EQ(stLine.eLevel, LOG_LEVEL_FAULT);
    EXPECT_EQ(stLine.strTag, "CmdCode");
    EXPECT_EQ(stLine.strFile, "AVGUDTRecv");
    EXPECT_EQ(stLine.nLine, 77);
    EXPECT_EQ(stLine.strFunc, "ClearRecvChn");
    EXPECT_EQ(stLine.strText, "ClearRecvChn: uin 18446744073709551615 IsClearAll -3");
    EXPECT_EQ(stLine.idThread, std::this_thread::get_id());
}

TEST(Log, LetsThroughWhatIsNotAboveTheLevel)
{
    const UDT_LOG_LEVEL arrLevel[] = {LOG_LEVEL_SDK_INTERFACE, LOG_LEVEL_FAULT, LOG_LEVEL_AUDIO_ENGINE,
                                      LOG_LEVEL_ERROR, LOG_LEVEL_DEBUG};
    for (UDT_LOG_LEVEL eSet : arrLevel)
        for (UDT_LOG_LEVEL eLine : arrLevel)
        {
            CLogCatcher log(eSet);
            EXPECT_EQ(LogIsOn(eLine), eLine <= eSet);
            WRITE(eLine, "line");
            EXPECT_EQ(log.m_listLine.size(), eLine <= eSet ? 1u : 0u) << eLine << " under " << eSet;
        }
    CLogCatcher log; // the default
    WRITE(LOG_LEVEL_ERROR, "in");
    WRITE(LOG_LEVEL_DEBUG, "out");
    EXPECT_EQ(log.m_listLine.size(), 1u);
}

TEST(Log, TheGateLetsACallerSkipItsArguments)
{
    CLogCatcher log;
    int nCalls = 0;
    for (UDT_LOG_LEVEL eLevel : {LOG_LEVEL_ERROR, LOG_LEVEL_DEBUG})
        if (LogIsOn(eLevel))
            WRITE(eLevel, "%d", CountingArgument(nCalls));
    EXPECT_EQ(nCalls, 1);
}

TEST(Log, LinesOfAnyLengthArriveWhole)
{
    CLogCatcher log;
    for (size_t nLen : {0u, 1u, 1022u, 1023u, 1024u, 1025u, 100000u})
    {
        const std::string strLong(nLen, 'x');
        WRITE(LOG_LEVEL_ERROR, "%s", strLong.c_str());
        ASSERT_EQ(log.m_listLine.back().strText, strLong);
    }
}

TEST(Log, ToleratesANullFormatAndLeavesErrnoAlone)
{
    CLogCatcher log;
    const char* volatile pNull = nullptr;
    errno = ENOENT;
    WRITE(LOG_LEVEL_ERROR, pNull, 0);
    EXPECT_EQ(errno, ENOENT);
    ASSERT_EQ(log.m_listLine.size(), 1u);
    EXPECT_EQ(log.m_listLine[0].strText, "");
}

TEST(Log, AnExceptionFromASinkStaysThere)
{
    LogSetSink([](void*, UDT_LOG_LEVEL, const char*, const char*, int, const char*, const char*)
               { throw std::runtime_error("disk full"); },
               nullptr);
    EXPECT_NO_THROW(WRITE(LOG_LEVEL_ERROR, "line"));
    LogSetSink(nullptr, nullptr); // would wait forever if the delivery had been left open
}

TEST(Log, ASinkMayLogAndEndlessLoggingOfItsOwnWorkEnds)
{
    static int s_nLines;
    s_nLines = 0;
    LogSetSink(
        [](void*, UDT_LOG_LEVEL, const char*, const char*, int, const char*, const char*)
        {
            ++s_nLines;
            WRITE(LOG_LEVEL_ERROR, "again");
        },
        nullptr);
    WRITE(LOG_LEVEL_ERROR, "first");
    EXPECT_EQ(s_nLines, 8);
    WRITE(LOG_LEVEL_ERROR, "second");
    EXPECT_EQ(s_nLines, 16);
    LogSetSink(nullptr, nullptr);
}

TEST(Log, ASinkMayReplaceItself)
{
    static int s_nLines;
    s_nLines = 0;
    LogSetSink(
        [](void*, UDT_LOG_LEVEL, const char*, const char*, int, const char*, const char*)
        {
            ++s_nLines;
            LogSetSink(nullptr, nullptr);
        },
        nullptr);
    WRITE(LOG_LEVEL_ERROR, "one");
    WRITE(LOG_LEVEL_ERROR, "two");
    EXPECT_EQ(s_nLines, 1);
}

// The sink of a file log: it serialises its lines with a lock of its own, and unplugs itself when the disk is full. While
// the first thread does so inside the lock, the second is inside the sink, too, waiting for that lock: to wait for it
// there would be forever.
TEST(Log, ASinkThatUnplugsItselfUnderItsOwnLockDoesNotWaitForThoseBehindIt)
{
    struct tagFile
    {
        std::mutex lock;
        std::atomic<int> nInside{0};
    } stFile;
    LogSetSink(
        [](void* pCtx, UDT_LOG_LEVEL, const char*, const char*, int, const char*, const char*)
        {
            tagFile* pFile = (tagFile*)pCtx;
            ++pFile->nInside;
            std::lock_guard<std::mutex> guard(pFile->lock);
            while (pFile->nInside < 2)
                std::this_thread::yield();
            LogSetSink(nullptr, nullptr);
        },
        &stFile);
    std::thread one([] { WRITE(LOG_LEVEL_ERROR, "one"); });
    std::thread two([] { WRITE(LOG_LEVEL_ERROR, "two"); });
    one.join();
    two.join();
    EXPECT_EQ(stFile.nInside, 2);
}

TEST(Log, ReplacingTheSinkWaitsForTheLineThatIsBeingDelivered)
{
    struct tagSlow
    {
        hxpevent hInside = xpevent_create(0, 0);
        hxpevent hGo = xpevent_create(0, 0);
        std::atomic<bool> bLeft{false};
    } stSlow;
    LogSetSink(
        [](void* pCtx, UDT_LOG_LEVEL, const char*, const char*, int, const char*, const char*)
        {
            tagSlow* pSlow = (tagSlow*)pCtx;
            xpevent_signal(pSlow->hInside);
            xpevent_wait(pSlow->hGo, 60000);
            pSlow->bLeft = true;
        },
        &stSlow);
    std::thread writer([] { WRITE(LOG_LEVEL_ERROR, "slow"); });
    ASSERT_EQ(xpevent_wait(stSlow.hInside, 60000), TRUE);

    bool bLeftAtReturn = false;
    std::thread replacer(
        [&]
        {
            LogSetSink(nullptr, nullptr);
            bLeftAtReturn = stSlow.bLeft;
        });
    // The gate shuts before the wait begins; only then is the old sink let go.
    while (LogIsOn(LOG_LEVEL_ERROR))
        std::this_thread::yield();
    xpevent_signal(stSlow.hGo);
    replacer.join();
    writer.join();
    EXPECT_TRUE(bLeftAtReturn);
    xpevent_destory(stSlow.hInside);
    xpevent_destory(stSlow.hGo);
}

TEST(Log, SinksMayBeFreedTheMomentTheyAreReplacedWhileThreadsWrite)
{
    struct tagSinkBody
    {
        std::atomic<uint32> dwLines{0};
        uint32 dwMagic = 0xC0FFEE;
        ~tagSinkBody() { dwMagic = 0; }
    };
    static std::atomic<uint32> s_dwBad;
    static std::atomic<uint32> s_dwLines;
    s_dwBad = 0;
    s_dwLines = 0;
    const PFN_LogSink pfnSink =
        [](void* pCtx, UDT_LOG_LEVEL, const char*, const char*, int, const char*, const char* pText)
    {
        tagSinkBody* pBody = (tagSinkBody*)pCtx;
        ++pBody->dwLines;
        ++s_dwLines;
        if (pBody->dwMagic != 0xC0FFEE || std::string(pText).compare(0, 5, "line ") != 0)
            ++s_dwBad;
    };

    std::atomic<bool> bStop{false};
    std::vector<std::thread> writers;
    for (int i = 0; i < 3; ++i)
        writers.emplace_back(
            [&bStop]
            {
                for (uint32 k = 0; !bStop; ++k)
                    WRITE(LOG_LEVEL_ERROR, "line %u", k);
            });
    for (int i = 0; i < 500; ++i)
    {
        std::unique_ptr<tagSinkBody> pBody(new tagSinkBody);
        LogSetSink(pfnSink, pBody.get());
        while (i % 50 == 0 && pBody->dwLines == 0)
            std::this_thread::yield();
        LogSetLevel(i % 3 != 0 ? LOG_LEVEL_DEBUG : LOG_LEVEL_ERROR);
        LogSetSink(nullptr, nullptr);
    }
    bStop = true;
    for (std::thread& writer : writers)
        writer.join();
    LogSetLevel(LOG_LEVEL_ERROR);
    EXPECT_EQ(s_dwBad, 0u);
    EXPECT_GE(s_dwLines, 10u);
}
