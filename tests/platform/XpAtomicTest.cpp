#include "xpatomic.h"
#include <algorithm>
#include <gtest/gtest.h>
#include <thread>
#include <vector>

namespace
{
enum emColour
{
    COLOUR_RED = 1,
    COLOUR_BLUE = 2
};

struct tagRecord
{
    CXPShared<uint32> dwCount;
    CXPShared<boolean> bOn{TRUE};
};
} // namespace

TEST(SharedWord, HasTheSizeOfItsWordAndStartsAtZero)
{
    static_assert(sizeof(CXPShared<uint64>) == 8 && sizeof(CXPShared<uint16>) == 2, "widths");
    static_assert(sizeof(tagRecord) == 8, "no padding of its own");
    tagRecord stRecord;
    EXPECT_EQ(stRecord.dwCount, 0u);
    EXPECT_EQ(stRecord.bOn, TRUE);
    EXPECT_EQ(CXPShared<void*>().Get(), nullptr);
}

TEST(SharedWord, ReadsAndIsAssignedLikeThePlainWord)
{
    CXPShared<uint32> dwField;
    EXPECT_TRUE(!dwField);
    dwField = 5;
    if (!dwField)
        ADD_FAILURE();
    EXPECT_EQ(dwField, 5u);
    EXPECT_LT(dwField, 6u);
    EXPECT_EQ(dwField + 1, 6u);
    EXPECT_EQ(std::max(dwField.Get(), 9u), 9u);
    EXPECT_EQ(true ? dwField : 0u, 5u);
    const uint32 dwPlain = dwField;
    EXPECT_EQ(dwPlain, 5u);
    switch (dwField)
    {
    case 5: break;
    default: ADD_FAILURE();
    }

    CXPShared<emColour> eColour(COLOUR_RED);
    eColour = COLOUR_BLUE;
    EXPECT_EQ(eColour, COLOUR_BLUE);
}

TEST(SharedWord, CountsAndWrapsAsItsWidthDoes)
{
    CXPShared<uint8> cField(254);
    EXPECT_EQ(cField++, 254);
    EXPECT_EQ((int)++cField, 0);
    EXPECT_EQ(cField--, 0);
    EXPECT_EQ((int)--cField, 254);
    cField += 4;
    EXPECT_EQ(cField, 2);
    cField -= 3;
    EXPECT_EQ(cField, 255);
    CXPShared<uint32> dwField(0xFFFFFFFF);
    dwField += 2;
    EXPECT_EQ(dwField, 1u);
    EXPECT_EQ(dwField.Add(0xFFFFFFFE), 0xFFFFFFFFu);
}

TEST(SharedWord, ExchangesComparesAndKeepsFlags)
{
    CXPShared<uint32> dwField(6);
    dwField |= 1;
    EXPECT_EQ(dwField, 7u);
    dwField &= ~2u;
    EXPECT_EQ(dwField, 5u);
    EXPECT_EQ(dwField.Exchange(9), 5u);
    EXPECT_FALSE(dwField.CompareExchange(5, 1));
    EXPECT_TRUE(dwField.CompareExchange(9, 1));
    EXPECT_EQ(dwField.Get(), 1u);
}

TEST(SharedWord, IsCopiedByValueInsideARecord)
{
    tagRecord stOne;
    stOne.dwCount = 3;
    tagRecord stTwo = stOne;
    stOne.dwCount = 4;
    EXPECT_EQ(stTwo.dwCount, 3u);
    stTwo = stOne;
    EXPECT_EQ(stTwo.dwCount, 4u);
}

TEST(SharedWord, AddAndTheFlagOperatorsLoseNothingBetweenThreads)
{
    CXPShared<uint32> dwSum;
    CXPShared<uint32> dwFlags;
    std::vector<std::thread> threads;
    for (uint32 i = 0; i < 4; ++i)
        threads.emplace_back(
            [&, i]
            {
                for (int k = 0; k < 10000; ++k)
                {
                    dwSum.Add(2);
                    dwFlags |= 1u << i;
                    if (k + 1 < 10000)
                        dwFlags &= ~(1u << i);
                }
            });
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(dwSum, 80000u);
    EXPECT_EQ(dwFlags, 15u);
}

TEST(SharedWord, WhatIsWrittenBeforeAReleaseIsSeenAfterTheAcquire)
{
    int nPlain = 0;
    CXPShared<boolean> bReady;
    std::thread writer(
        [&]
        {
            nPlain = 42;
            bReady.SetRelease(TRUE);
        });
    while (!bReady.GetAcquire())
        std::this_thread::yield();
    EXPECT_EQ(nPlain, 42);
    writer.join();
}

TEST(AtomicCounter, EveryStepTellsTheNewValue)
{
    xpatomic32_t iValue(0);
    EXPECT_EQ(xpatomic_inc(&iValue), 1);
    EXPECT_EQ(xpatomic_add(&iValue, 9), 10);
    EXPECT_EQ(xpatomic_dec(&iValue), 9);
    EXPECT_EQ(xpatomic_cas(&iValue, 8, 1), FALSE);
    EXPECT_EQ(xpatomic_cas(&iValue, 9, 1), TRUE);
    EXPECT_EQ(xpatomic_get(&iValue), 1);
    xpatomic_set(&iValue, -3);
    EXPECT_EQ(xpatomic_get(&iValue), -3);
}
