// Loss on the downlink, from the relay's numbering, and loss of the streams, from what they released.

#include "AVGUDTRecvRules.h"
#include "RecvRig.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

namespace
{

// What GetDownPacketRecvInfo tells.
struct tagDown
{
    uint32 dwExpect = 77, dwReal = 77, dwBytes = 77, dwIFrmLostInfo = 77;
};

class DownlinkLoss : public testing::Test
{
protected:
    void Count(std::initializer_list<uint32> lstSeq, uint32 dwBytes = 100)
    {
        for (uint32 dwSeq : lstSeq)
            m_rig.CalcDownPacketLoss(dwSeq, (uint8)MEAVAudio, dwBytes);
    }
    tagDown Poll()
    {
        tagDown st;
        m_rig.m_recv.GetDownPacketRecvInfo(st.dwExpect, st.dwReal, st.dwBytes, st.dwIFrmLostInfo);
        return st;
    }
    std::vector<uint32> Rates() // min, max, sum, count, current, last
    {
        return {m_rig.m_dwMinLossRate(),    m_rig.m_dwMaxLossRate(), m_rig.m_dwLossRateAccNum(),
                m_rig.m_dwLossRateAccCnt(), m_rig.m_dwCurLossRate(), m_rig.m_dwDownLoss100()};
    }

    CRecvRig m_rig;
    CLogRecorder m_log;
};

TEST_F(DownlinkLoss, AnIntervalSpansFromItsFirstToItsHighestSequence)
{
    struct
    {
        const char* pszCase;
        std::vector<uint32> vecSeq;
        uint32 dwExpect;
        uint32 dwRate; // of the interval
    } const aRows[] = {
        {"one missing", {100, 101, 103, 104}, 5, 2000},
        {"none missing", {100, 101, 102}, 3, 0},
        {"out of order", {100, 103, 101, 102}, 4, 0},
        {"late from before the interval", {100, 99, 101}, 3, 0},
        {"duplicates alone", {10, 10, 10}, 3, 0},
        {"a duplicate hides a loss", {10, 12, 12}, 3, 0},
        {"one packet", {100}, 1, 0},
        {"two far apart", {100, 200}, 101, 9801},
        {"a first sequence of 1 starts over with the next packet", {1, 5, 6}, 3, 0},
        {"a first sequence of 1 alone", {1}, 1, 0},
        {"twice 1, then on", {1, 1, 2}, 3, 0},
        {"a first sequence of 0 lies before nothing", {0, 1, 5}, 3, 0},
        {"2 is the first one that counts", {2, 6}, 5, 6000},
        {"across the wrap the interval stands still", {0xFFFFFFFE, 0xFFFFFFFF, 0, 1, 2}, 5, 0},
        {"a wrap hides a loss before it", {0xFFFFFFFA, 0xFFFFFFFE, 0, 1}, 5, 2000},
        {"half the numbers", {0x7FFFFFFF, 0x80000001}, 3, 3333},
        {"rates are cut, not rounded", {100, 101, 102, 103, 104, 106}, 7, 1428},
    };
    for (const auto& stRow : aRows)
    {
        for (uint32 dwSeq : stRow.vecSeq)
            Count({dwSeq});
        const tagDown st = Poll();
        EXPECT_EQ(stRow.dwExpect, st.dwExpect) << stRow.pszCase;
        EXPECT_EQ(stRow.vecSeq.size(), st.dwReal) << stRow.pszCase;
        EXPECT_EQ(100u * stRow.vecSeq.size(), st.dwBytes) << stRow.pszCase;
        EXPECT_EQ(stRow.dwRate, m_rig.m_dwCurLossRate()) << stRow.pszCase;
        EXPECT_EQ(stRow.dwRate, m_rig.m_dwDownLoss100()) << stRow.pszCase;
    }
}

TEST_F(DownlinkLoss, TheFirstPacketOfAnIntervalSetsBothEnds)
{
    Count({100});
    EXPECT_EQ(99u, m_rig.m_dwSeqFirstRecv());
    EXPECT_EQ(100u, m_rig.m_dwSeqLastRecv());
    Poll();
    EXPECT_EQ(0u, m_rig.m_dwSeqFirstRecv());
    EXPECT_EQ(0u, m_rig.m_dwSeqLastRecv());
    EXPECT_EQ(0u, m_rig.m_dwPacketRecvCnt());
    EXPECT_EQ(0u, m_rig.m_dwBytesRecvCnt());
    Count({0});
    EXPECT_EQ(0xFFFFFFFFu, m_rig.m_dwSeqFirstRecv());
    EXPECT_EQ(0u, m_rig.m_dwSeqLastRecv());
}

TEST_F(DownlinkLoss, WhatIsMissingBetweenTwoIntervalsIsNotCounted)
{
    Count({100, 101});
    Poll();
    Count({200, 201});
    EXPECT_EQ(2u, Poll().dwExpect);
}

TEST_F(DownlinkLoss, LossyIntervalsEnterMinimumMaximumAndSumAndLossFreeOnesDoNot)
{
    EXPECT_THAT(Rates(), ElementsAre(0xFFFFFFFF, 0, 0, 0, 0, 0));
    Count({100, 101, 103, 104});
    Poll();
    EXPECT_THAT(Rates(), ElementsAre(2000, 2000, 2000, 1, 2000, 2000));
    Count({100, 103});
    Poll();
    EXPECT_THAT(Rates(), ElementsAre(2000, 5000, 7000, 2, 5000, 5000));
    Count({100, 101});
    Poll();
    EXPECT_THAT(Rates(), ElementsAre(2000, 5000, 7000, 2, 0, 0));
    Count({100, 101, 102, 103, 104, 105, 106, 107, 109}); // 1 of 10
    Poll();
    EXPECT_THAT(Rates(), ElementsAre(1000, 5000, 8000, 3, 1000, 1000));
}

// An empty interval has no rate; the last one that had stays in force for playout.
TEST_F(DownlinkLoss, AnEmptyIntervalKeepsTheLastRateForPlayoutAndTellsNothing)
{
    Count({100, 101, 103, 104});
    Poll();
    m_log.Forget();
    const tagDown st = Poll();
    EXPECT_EQ(0u, st.dwExpect);
    EXPECT_EQ(0u, st.dwReal);
    EXPECT_EQ(0u, st.dwBytes);
    EXPECT_THAT(Rates(), ElementsAre(2000, 2000, 2000, 1, 0, 2000));
    EXPECT_THAT(m_log.Lines(), IsEmpty());
}

TEST_F(DownlinkLoss, OnlyALossyIntervalIsTold)
{
    Count({100, 101});
    Poll();
    EXPECT_THAT(m_log.Lines(), IsEmpty());
    Count({100, 101, 103, 104});
    Poll();
    ASSERT_THAT(m_log.Lines(), SizeIs(1));
    const tagLogLine stLine = m_log.Lines()[0];
    EXPECT_EQ("UDTR CalcDownLoss Total:     5 Real:     4 LossRate: 2000", stLine.strText);
    EXPECT_EQ(LOG_LEVEL_ERROR, stLine.eLevel);
    EXPECT_EQ("CmdCode", stLine.strTag);
    EXPECT_EQ("AVGUDTRecv", stLine.strFile);
    EXPECT_EQ("GetDownPacketRecvInfo", stLine.strFunc);
}

// A rate below one ten-thousandth is 0: told, but no lossy interval.
TEST_F(DownlinkLoss, ALossTooSmallForARateIsToldWithRate0AndDoesNotCount)
{
    for (uint32 dwSeq = 100; dwSeq < 10101; ++dwSeq)
        Count({dwSeq});
    Count({10102}); // 1 of 10003
    EXPECT_EQ(10003u, Poll().dwExpect);
    EXPECT_EQ("UDTR CalcDownLoss Total: 10003 Real: 10002 LossRate:    0", m_log.First("CalcDownLoss"));
    EXPECT_THAT(Rates(), ElementsAre(0xFFFFFFFF, 0, 0, 0, 0, 0));
}

TEST_F(DownlinkLoss, TheProductOfTheRateWrapsAbove429496MissingPackets)
{
    struct
    {
        uint32 dwMissing;
        uint32 dwWant;
    } const aRows[] = {{429496, 9999},
                       {429497, (uint32)(4294970000ull - 4294967296ull) / 429499},
                       {0x7FFFFFFF, (uint32)(0x7FFFFFFFull * 10000) / 0x80000001u}};
    for (const auto& stRow : aRows)
    {
        Count({1000, 1001 + stRow.dwMissing});
        EXPECT_EQ(stRow.dwMissing + 2, Poll().dwExpect);
        EXPECT_EQ(stRow.dwWant, m_rig.m_dwCurLossRate()) << stRow.dwMissing;
    }
}

TEST_F(DownlinkLoss, TheFirstIFramesLossIsPassedThrough)
{
    m_rig.m_dwIFrmPkgLostInfo() = 0x12345678;
    EXPECT_EQ(0x12345678u, Poll().dwIFrmLostInfo);
    EXPECT_EQ(0x12345678u, Poll().dwIFrmLostInfo); // and stays
}

TEST_F(DownlinkLoss, TheMetersAreFedByTheSubTypeOfTheMediaHead)
{
    m_rig.Start();
    const auto meter = [this](int nIndex) { return m_rig.m_pSpeed()[nIndex]->GetPacketCount(); };
    for (uint8 cSubType : {1, 1, 1, 2, 3, 6, 0})
        m_rig.CalcDownPacketLoss(5u, cSubType, 100u);
    EXPECT_EQ(7u, meter(0));
    EXPECT_EQ(3u, meter(2));
    EXPECT_EQ(4u, meter(4)); // everything but audio
    EXPECT_EQ(nullptr, m_rig.m_pSpeed()[1]);
    EXPECT_EQ(nullptr, m_rig.m_pSpeed()[3]);
    EXPECT_EQ(nullptr, m_rig.m_pSpeed()[5]);

    // Filed as video, but its head says audio.
    tagRigPacket stPacket = VideoPacket(7, 10, 5000, def_FrameType_P, 1, 1);
    stPacket.stHead.cSubType = MEAVAudio;
    m_rig.Feed(stPacket);
    EXPECT_EQ(4u, meter(2));

    m_rig.Advance(1000);
    EXPECT_EQ(1700u, m_rig.m_pSpeed()[0]->CalculateSpeed()); // 7 x 100 and 1000 bytes in a second
}

TEST_F(DownlinkLoss, WithoutMetersItCountsAllTheSame)
{
    ASSERT_EQ(nullptr, m_rig.m_pSpeed()[0]); // never started
    Count({100, 102});
    EXPECT_EQ(3u, Poll().dwExpect);
}

TEST_F(DownlinkLoss, APacketWithoutAnObjectIsNotCounted)
{
    m_rig.Start();
    tagRigPacket stPacket = AudioPacket(7, 10);
    stPacket.bNull = true;
    m_rig.Feed(stPacket);
    EXPECT_EQ(0u, Poll().dwReal);
    m_rig.Feed(AudioPacket(7, 11).Len(80));
    const tagDown st = Poll();
    EXPECT_EQ(1u, st.dwReal);
    EXPECT_EQ(80u, st.dwBytes);
}

// ---- Loss of the streams ------------------------------------------------------------------------------------------

TEST(StreamLoss, TheCountersOfTheIntervalBecomeRateAndMeanBurst)
{
    struct
    {
        uint32 dwExpect, dwReal, dwTimes;
        uint32 dwLoss100, dwAvgLossMode;
        const char* pszLine; // null: nothing is told
    } const aRows[] = {
        {0, 0, 0, 0, 0, nullptr},
        {100, 100, 0, 0, 0, nullptr},
        {100, 100, 3, 0, 0, nullptr},
        {100, 90, 4, 1000, 250, "UDTR CalcRecvLoss Total:100 Real:90 LossRate:1000 LossMode:250 LossTimes 4"},
        {3, 2, 1, 3333, 100, "UDTR CalcRecvLoss Total:3 Real:2 LossRate:3333 LossMode:100 LossTimes 1"},
        {7, 0, 2, 10000, 350, "UDTR CalcRecvLoss Total:7 Real:0 LossRate:10000 LossMode:350 LossTimes 2"},
        {10, 5, 0, 5000, 0, "UDTR CalcRecvLoss Total:10 Real:5 LossRate:5000 LossMode:0 LossTimes 0"},
        // More came than was expected: 2^32 - 10 lost. The products wrap.
        {90, 100, 1, (uint32)-100000 / 90, (uint32)-1000,
         "UDTR CalcRecvLoss Total:90 Real:100 LossRate:47720747 LossMode:4294966296 LossTimes 1"},
        {0, 5, 0, 0, 0, "UDTR CalcRecvLoss Total:0 Real:5 LossRate:0 LossMode:0 LossTimes 0"},
    };
    CRecvRig rig;
    CLogRecorder log;
    for (const auto& stRow : aRows)
    {
        log.Forget();
        rig.m_dwExpectRecvPkgNum() = stRow.dwExpect;
        rig.m_dwRealRecvPkgNum() = stRow.dwReal;
        rig.m_dwTotalLossTime() = stRow.dwTimes;
        rig.InternalUDTCalcRecvLoss();

        uint32 dwLoss100, dwTotalNum, dwRealNum, dwAvgLossMode;
        for (int i = 0; i < 2; ++i) // reading changes nothing
        {
            rig.m_recv.UDTCalcRecvLoss(dwLoss100, dwTotalNum, dwRealNum, dwAvgLossMode);
            EXPECT_EQ(stRow.dwLoss100, dwLoss100) << stRow.dwExpect << " " << stRow.dwReal;
            EXPECT_EQ(stRow.dwExpect, dwTotalNum);
            EXPECT_EQ(stRow.dwReal, dwRealNum);
            EXPECT_EQ(stRow.dwAvgLossMode, dwAvgLossMode);
        }
        EXPECT_EQ(0u, rig.m_dwExpectRecvPkgNum());
        EXPECT_EQ(0u, rig.m_dwRealRecvPkgNum());
        EXPECT_EQ(0u, rig.m_dwTotalLossTime());

        ASSERT_THAT(log.Lines(), SizeIs(stRow.pszLine != nullptr ? 1 : 0));
        if (stRow.pszLine == nullptr)
            continue;
        const tagLogLine stLine = log.Lines()[0];
        EXPECT_EQ(stRow.pszLine, stLine.strText);
        EXPECT_EQ(LOG_LEVEL_ERROR, stLine.eLevel);
        EXPECT_EQ("CmdCode", stLine.strTag);
        EXPECT_EQ("AVGUDTRecv", stLine.strFile);
        EXPECT_EQ("InternalUDTCalcRecvLoss", stLine.strFunc);
    }
}

TEST(StreamLoss, ShareIs32BitsWide)
{
    EXPECT_EQ(0u, ScaledShare(5, 10000, 0));
    EXPECT_EQ(5000u, ScaledShare(5, 10000, 10));
    EXPECT_EQ(4294960000u, ScaledShare(429496, 10000, 1));
    EXPECT_EQ(2704u, ScaledShare(429497, 10000, 1)); // wrapped
}

} // namespace
