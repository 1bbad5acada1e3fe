#include "TestClock.h"
#include "xpmess.h"
#include <atomic>
#include <gtest/gtest.h>
#include <thread>
#include <vector>

namespace
{
struct tagPair
{
    uint64 ullWant;
    std::atomic<uint32>* pdwTorn;
};

// Two sources that each know which context is theirs.
uint64 SourceOne(void* pCtx)
{
    tagPair* pPair = (tagPair*)pCtx;
    if (pPair->ullWant != 1)
        ++*pPair->pdwTorn;
    return 1;
}

uint64 SourceTwo(void* pCtx)
{
    tagPair* pPair = (tagPair*)pCtx;
    if (pPair->ullWant != 2)
        ++*pPair->pdwTorn;
    return 2;
}
} // namespace

TEST(TickClock, NeverGoesBack)
{
    uint64 ullLast = xp_gettickcount();
    for (int i = 0; i < 10000; ++i)
    {
        const uint64 ullNow = xp_gettickcount();
        ASSERT_GE(ullNow, ullLast);
        ullLast = ullNow;
    }
}

TEST(TickClock, CountsRealMillisecondsAndASleepLastsAtLeastWhatItSays)
{
    const uint64 ullBegin = xp_gettickcount();
    xp_msleep(30);
    const uint64 ullSpan = xp_gettickcount() - ullBegin;
    EXPECT_GE(ullSpan, 29u); // both ends are cut to whole milliseconds
    EXPECT_LT(ullSpan, 10000u);
    xp_msleep(0);
}

TEST(TickClock, AReplacedSourceRulesUntilNullBringsTheMonotonicClockBack)
{
    const uint64 ullReal = xp_gettickcount();
    {
        CTestClock clock(7);
        EXPECT_EQ(xp_gettickcount(), 7u);
        clock.m_ullNow = 0x1FFFFFFFFull; // the source is 64 bits wide
        EXPECT_EQ(xp_gettickcount(), 0x1FFFFFFFFull);
        EXPECT_EQ((uint32)xp_gettickcount(), 0xFFFFFFFFu);
    }
    EXPECT_GE(xp_gettickcount(), ullReal);
    EXPECT_LT(xp_gettickcount(), ullReal + 600000);
}

TEST(TickClock, AReaderNeverSeesOneSourceWithTheOthersContext)
{
    std::atomic<uint32> dwTorn{0};
    std::atomic<bool> bStop{false};
    tagPair stOne = {1, &dwTorn};
    tagPair stTwo = {2, &dwTorn};
    xp_settickcountsource(SourceOne, &stOne);

    std::vector<std::thread> readers;
    std::atomic<uint32> dwOther{0};
    std::atomic<uint32> dwReads{0};
    for (int i = 0; i < 3; ++i)
        readers.emplace_back(
            [&]
            {
                while (!bStop)
                {
                    const uint64 ullTick = xp_gettickcount();
                    if (ullTick != 1 && ullTick != 2)
                        ++dwOther;
                    ++dwReads;
                }
            });
    // Until the readers have read often enough between two switches, however late they came to run.
    for (int i = 0; i < 20000 || dwReads < 200000; ++i)
        xp_settickcountsource(i % 2 != 0 ? SourceOne : SourceTwo, i % 2 != 0 ? &stOne : &stTwo);
    bStop = true;
    for (std::thread& reader : readers)
        reader.join();
    xp_settickcountsource(nullptr, nullptr);

    EXPECT_EQ(dwTorn, 0u);
    EXPECT_EQ(dwOther, 0u);
}
