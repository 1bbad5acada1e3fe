#include "AVGSpeed.h"
#include "TestClock.h"
#include "UDTInsideParam.h"
#include <atomic>
#include <gtest/gtest.h>
#include <memory>
#include <thread>
#include <vector>

TEST(Speed, TheFirstReadingIsTheTrueRateSinceConstruction)
{
    CTestClock clock(1000);
    CAVGSpeed speed(10);
    speed.AddSample(300);
    speed.AddSample(700);
    EXPECT_EQ(speed.GetPacketCount(), 2u);
    clock.m_ullNow = 1500;
    EXPECT_EQ(speed.CalculateSpeed(), 2000u);
    EXPECT_EQ(speed.GetPacketCount(), 0u);
}

TEST(Speed, LaterReadingsMoveOneFactorthOfTheWayRoundedAwayFromZero)
{
    struct tagRow
    {
        uint32 dwBytes; // in one second
        uint32 dwWant;
    };
    CTestClock clock(0);
    CAVGSpeed speed(10);
    for (const tagRow& stRow :
         {tagRow{1000, 1000}, tagRow{2000, 1100}, tagRow{2000, 1190}, tagRow{1191, 1191}, tagRow{1190, 1190},
          tagRow{0, 1071}, tagRow{1071, 1071}, tagRow{1082, 1073}})
    {
        speed.AddSample(stRow.dwBytes);
        clock.m_ullNow += 1000;
        EXPECT_EQ(speed.CalculateSpeed(), stRow.dwWant);
    }
}

TEST(Speed, SilenceEndsAtZeroAndASteadyRateIsReachedExactly)
{
    CTestClock clock(0);
    CAVGSpeed speed(10);
    speed.AddSample(50000);
    clock.m_ullNow += 1000;
    EXPECT_EQ(speed.CalculateSpeed(), 50000u);
    for (int i = 0; i < 200; ++i)
    {
        clock.m_ullNow += 1000;
        speed.CalculateSpeed();
    }
    EXPECT_EQ(speed.CalculateSpeed(), 0u);
    for (int i = 0; i < 200; ++i)
    {
        speed.AddSample(i == 0 ? 1 : 777);
        clock.m_ullNow += 1000;
        speed.CalculateSpeed();
    }
    EXPECT_EQ(speed.CalculateSpeed(), 777u);
}

TEST(Speed, WithinTheSameMillisecondTheLastValueStandsAndTheBytesWait)
{
    CTestClock clock(5);
    CAVGSpeed speed(1);
    speed.AddSample(100);
    EXPECT_EQ(speed.CalculateSpeed(), 0u);
    EXPECT_EQ(speed.GetPacketCount(), 0u); // counted since the last call, whatever it returned
    clock.m_ullNow = 105;
    EXPECT_EQ(speed.CalculateSpeed(), 1000u);
    EXPECT_EQ(speed.CalculateSpeed(), 1000u);
}

TEST(Speed, AFactorOfZeroIsTakenAsOneAndOneDoesNotSmooth)
{
    for (uint32 dwFactor : {0u, 1u})
    {
        CTestClock clock(0);
        CAVGSpeed speed(dwFactor);
        for (uint32 dwBytes : {10u, 5000u, 0u, 3u})
        {
            speed.AddSample(dwBytes);
            clock.m_ullNow += 1000;
            EXPECT_EQ(speed.CalculateSpeed(), dwBytes);
        }
    }
}

TEST(Speed, MeasuresAcrossTheWrapOfTheTickAndBeyond32BitsOfProduct)
{
    CTestClock clock(0xFFFFFF00u);
    CAVGSpeed speed(10);
    speed.AddSample(4000000000u);
    clock.m_ullNow += 2000;
    EXPECT_EQ(speed.CalculateSpeed(), 2000000000u);

    CAVGSpeed fast(10);
    fast.AddSample(4000000000u);
    clock.m_ullNow += 1;
    EXPECT_EQ(fast.CalculateSpeed(), 0xFFFFFFFFu);
}

TEST(Speed, AHugeFactorStillMoves)
{
    CTestClock clock(0);
    CAVGSpeed speed(0xFFFFFFFF);
    speed.AddSample(100);
    clock.m_ullNow = 1000;
    EXPECT_EQ(speed.CalculateSpeed(), 100u);
    clock.m_ullNow = 2000;
    EXPECT_EQ(speed.CalculateSpeed(), 99u);
}

TEST(Speed, SamplesFromSeveralThreadsAllCount)
{
    CTestClock clock(0);
    CAVGSpeed speed(1);
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i)
        threads.emplace_back(
            [&speed]
            {
                for (int k = 0; k < 10000; ++k)
                    speed.AddSample(3);
            });
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(speed.GetPacketCount(), 40000u);
    clock.m_ullNow = 1000;
    EXPECT_EQ(speed.CalculateSpeed(), 120000u);
}

TEST(InsideParam, KeepsOneMeterPerTypeAndForgetsItOnNull)
{
    CUDTInsideParam* pParam = CUDTInsideParam::GetInstance();
    ASSERT_NE(pParam, nullptr);
    EXPECT_EQ(pParam, CUDTInsideParam::GetInstance());

    CTestClock clock(0);
    for (int nType = 0; nType < SPEED_TYPE_MAX; ++nType)
    {
        CAVGSpeed speed(1);
        EXPECT_FALSE(pParam->HasSpeed((emSpeedType)nType));
        pParam->SetSpeed(&speed, (emSpeedType)nType);
        EXPECT_TRUE(pParam->HasSpeed((emSpeedType)nType));
        speed.AddSample(50);
        clock.m_ullNow += 100;
        EXPECT_EQ(pParam->GetSpeed((emSpeedType)nType), 500u);
        pParam->SetSpeed(nullptr, (emSpeedType)nType);
        EXPECT_FALSE(pParam->HasSpeed((emSpeedType)nType));
        EXPECT_EQ(pParam->GetSpeed((emSpeedType)nType), 0u);
    }
}

TEST(InsideParam, IgnoresTypesOutOfRange)
{
    CUDTInsideParam* pParam = CUDTInsideParam::GetInstance();
    CAVGSpeed speed(1);
    for (int nType : {12, 13, 15})
    {
        pParam->SetSpeed(&speed, (emSpeedType)nType);
        EXPECT_EQ(pParam->GetSpeed((emSpeedType)nType), 0u);
        EXPECT_FALSE(pParam->HasSpeed((emSpeedType)nType));
    }
    for (int nType = 0; nType < SPEED_TYPE_MAX; ++nType)
        EXPECT_FALSE(pParam->HasSpeed((emSpeedType)nType));
}

TEST(InsideParam, AMeterMayBeDeletedTheMomentItIsUnregisteredWhileOthersRead)
{
    CUDTInsideParam* pParam = CUDTInsideParam::GetInstance();
    std::atomic<bool> bStop{false};
    std::vector<std::thread> readers;
    for (int i = 0; i < 3; ++i)
        readers.emplace_back(
            [&]
            {
                while (!bStop)
                    pParam->GetSpeed(TOTAL_RECV_SPEED);
            });
    for (int i = 0; i < 2000; ++i)
    {
        std::unique_ptr<CAVGSpeed> pSpeed(new CAVGSpeed(10));
        pParam->SetSpeed(pSpeed.get(), TOTAL_RECV_SPEED);
        pSpeed->AddSample(100);
        pParam->SetSpeed(nullptr, TOTAL_RECV_SPEED);
    }
    bStop = true;
    for (std::thread& reader : readers)
        reader.join();
    EXPECT_FALSE(pParam->HasSpeed(TOTAL_RECV_SPEED));
}
