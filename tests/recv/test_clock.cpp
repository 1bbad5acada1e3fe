// The playout clock of a user: how far it goes per turn, and when it jumps.

#include "RecvTest.h"

#include <vector>

using ::testing::ElementsAre;
using ::testing::IsEmpty;

namespace
{

constexpr uint32 c_dwMediaClock = 100000;

// A user whose clock stands at 100000 since tick 1000; the band is empty, so the target is 1000 ms.
struct CClock
{
    explicit CClock(uint64 ullTick = 1000) : m_rig(ullTick), m_stInfo(m_rig.m_mapUinDataInfo()[7])
    {
        m_stInfo.dwTimelineOut = c_dwMediaClock;
        m_stInfo.dwTimelineIn = c_dwMediaClock + 1090; // real time, for as long as these tests look
        m_stInfo.dwTimelineMin = 5000;
        m_stInfo.dwTimelineMax = 5000;
        m_stInfo.dwLastCheckDeltaTime = m_rig.Now();
    }

    /// How far the clock goes in one turn `dwMs` after the last.
    uint32 Advance(uint32 dwMs)
    {
        const uint32 dwBefore = m_stInfo.dwTimelineOut;
        m_rig.Advance(dwMs);
        m_rig.CalcTimelineOutNew(7u, m_stInfo);
        return m_stInfo.dwTimelineOut - dwBefore;
    }

    /// The step in force with so much media ahead of the clock: read from an advance of 48 ms.
    int StepWith(uint32 dwDataLen)
    {
        m_stInfo.dwTimelineIn = m_stInfo.dwTimelineOut + dwDataLen;
        switch (Advance(48))
        {
        case 52: return 1;
        case 48: return 0;
        case 36: return -2;
        default: return 99;
        }
    }

    CRecvRig m_rig;
    tagUinDataInfo& m_stInfo;
};

} // namespace

// ---- Advancing -----------------------------------------------------------------------------------------------------------------------

TEST(Clock, AStoppedOneStaysAtZero)
{
    CClock clock;
    clock.m_stInfo.dwTimelineOut = 0;
    EXPECT_EQ(clock.Advance(1000), 0u);
    EXPECT_EQ(clock.m_stInfo.dwLastCheckDeltaTime, 1000u);
}

TEST(Clock, OneWithoutATickIsArmedFirst)
{
    CClock clock;
    clock.m_stInfo.dwLastCheckDeltaTime = 0;
    EXPECT_EQ(clock.Advance(1000), 0u);
    EXPECT_EQ(clock.m_stInfo.dwLastCheckDeltaTime, 2000u);
    EXPECT_EQ(clock.Advance(20), 20u);
}

TEST(Clock, ShortTurnsAddUpToTwelveMilliseconds)
{
    CClock clock;
    clock.m_stInfo.dwExWaitTick = 5;
    clock.m_stInfo.dwLogPrintFlag = 0xFFFFFFFF;
    EXPECT_EQ(clock.Advance(11), 0u);
    EXPECT_EQ(clock.m_stInfo.dwLastCheckDeltaTime, 1000u); // nothing was touched
    EXPECT_EQ(clock.m_stInfo.dwExWaitTick, 5u);
    EXPECT_EQ(clock.m_stInfo.dwLogPrintFlag, 0xFFFFFFFFu);
    clock.m_stInfo.dwExWaitTick = 0;
    EXPECT_EQ(clock.Advance(1), 12u);
    EXPECT_EQ(clock.m_stInfo.dwLastCheckDeltaTime, 1012u);
    EXPECT_EQ(clock.Advance(11), 0u);
    EXPECT_EQ(clock.Advance(11), 22u);
}

TEST(Clock, RunsOnAcrossTheTicksWrap)
{
    CClock clock(0xFFFFFFF0);
    EXPECT_EQ(clock.Advance(30), 30u);
    EXPECT_EQ(clock.m_stInfo.dwLastCheckDeltaTime, 14u);
}

TEST(Clock, SpeedsAreRealTimeATwelfthFasterAndAQuarterSlower)
{
    struct tagRow
    {
        uint32 dwTickDiff;
        uint32 dwSlow;
        uint32 dwFast;
    };
    const tagRow aRows[] = {{12, 9, 13},
                            {13, 10, 14},
                            {14, 11, 15},
                            {15, 12, 16},
                            {16, 12, 17},
                            {23, 18, 24},
                            {24, 18, 26},
                            {25, 19, 27},
                            {100, 75, 108},
                            {1000, 750, 1083},
                            {600000, 450000, 650000}};
    for (const tagRow& stRow : aRows)
    {
        CClock slow;
        slow.m_stInfo.dwTimelineIn = c_dwMediaClock;
        EXPECT_EQ(slow.Advance(stRow.dwTickDiff), stRow.dwSlow) << stRow.dwTickDiff;
        CClock fast;
        fast.m_stInfo.dwTimelineIn = c_dwMediaClock + 1101;
        EXPECT_EQ(fast.Advance(stRow.dwTickDiff), stRow.dwFast) << stRow.dwTickDiff;
        CClock even;
        even.m_stInfo.dwTimelineIn = c_dwMediaClock + 1050;
        EXPECT_EQ(even.Advance(stRow.dwTickDiff), stRow.dwTickDiff);
    }
}

TEST(Clock, WrapsWithTheMediaTime)
{
    CClock clock;
    clock.m_stInfo.dwTimelineOut = 0xFFFFFFF8;
    clock.m_stInfo.dwTimelineIn = 0xFFFFFFFF; // 7 ms ahead: slow
    EXPECT_EQ(clock.Advance(16), 12u);
    EXPECT_EQ(clock.m_stInfo.dwTimelineOut, 4u);
}

TEST(Clock, AZeroFastFactorDividesNothing)
{
    CClock clock;
    clock.m_stInfo.dwFastFactor = 0;
    clock.m_stInfo.dwTimelineIn = c_dwMediaClock + 5000;
    clock.Advance(12);
    EXPECT_GT(clock.m_stInfo.dwTimelineOut, c_dwMediaClock);
}

// ---- The step ------------------------------------------------------------------------------------------------------------------------

TEST(ClockStep, IsFastPastTheToleranceAndSlowBelowTheTarget)
{
    CClock clock; // target 1000, tolerance 100
    EXPECT_EQ(clock.StepWith(1101), 1);
    EXPECT_EQ(clock.StepWith(1100), 0);
    EXPECT_EQ(clock.StepWith(1000), 0);
    EXPECT_EQ(clock.StepWith(999), -2);
    EXPECT_EQ(clock.StepWith(0), -2);
    EXPECT_EQ(clock.StepWith(4000), 1);
    EXPECT_EQ(clock.StepWith(4001), 1);
    clock.m_stInfo.dwTimelineIn = 5; // the clock is ahead of all media
    EXPECT_EQ(clock.Advance(48), 36u);
}

TEST(ClockStep, LowLatencyToleratesTenMilliseconds)
{
    CClock clock;
    clock.m_rig.m_dwUdtRecvMode() = 7;
    EXPECT_EQ(clock.StepWith(1011), 1);
    EXPECT_EQ(clock.StepWith(1010), 0);
    clock.m_rig.m_dwUdtRecvMode() = 6; // bit 0 alone decides
    EXPECT_EQ(clock.StepWith(1011), 0);
}

TEST(ClockStep, AUserWithVideoKeepsRealTimeUntilTheBandWasResetForVideo)
{
    for (const uint32 dwReset : {0u, 1u, 3u})
    {
        CClock clock;
        clock.m_stInfo.dwHasVideo = 1;
        clock.m_stInfo.dwVidResetTimelineMin = dwReset;
        EXPECT_EQ(clock.StepWith(9000), 0);
        EXPECT_EQ(clock.StepWith(0), 0);
        clock.m_stInfo.dwHasVideo = 0;
        EXPECT_EQ(clock.StepWith(9000), 1);
    }
    CClock clock;
    clock.m_stInfo.dwHasVideo = 1;
    clock.m_stInfo.dwVidResetTimelineMin = 2;
    EXPECT_EQ(clock.StepWith(9000), 1);
    EXPECT_EQ(clock.StepWith(0), -2);
}

// ---- The target ----------------------------------------------------------------------------------------------------------------------

// The target is read from the trace line of an advance.
TEST(ClockTarget, IsTheBandAndAFifthPlusTheWaitWithinTheBoundsTheUpperOneWins)
{
    struct tagRow
    {
        uint32 dwBand;
        uint32 dwDelta;
        uint32 dwDeltaMax;
        uint32 dwWant;
    };
    const tagRow aRows[] = {
        {0, 1000, 6000, 1000},
        {833, 1000, 6000, 1000},                   // 999
        {834, 1000, 6000, 1000},                   // 1000
        {835, 1000, 6000, 1002},                   //
        {839, 1000, 6000, 1006},                   // 1006.8 is cut
        {5000, 1000, 6000, 6000},                  //
        {4999, 1000, 6000, 5998},                  //
        {5001, 1000, 6000, 6000},                  // 6001 is cut
        {0, 7000, 6000, 6000},                     // a lower bound above the upper one
        {9000, 0, 0, 0},                           //
        {0x15555555, 10, 0xFFFFFFFF, 0x19999999},  // the last band whose product fits
        {0x15555556, 10, 0xFFFFFFFF, 10},          // the product wraps to 8
        {0xFFFFFFFF, 10, 0xFFFFFFFF, 0x19999998u}, // an inverted band: 0xFFFFFFF4 / 10
    };
    for (const tagRow& stRow : aRows)
    {
        CClock clock;
        clock.m_stInfo.dwTimelineMin = 0;
        clock.m_stInfo.dwTimelineMax = stRow.dwBand;
        clock.m_rig.m_dwTimelineDelta() = stRow.dwDelta;
        clock.m_rig.m_dwTimelineDeltaMax() = stRow.dwDeltaMax;
        clock.m_stInfo.dwLogPrintFlag = LOG_TIME_PARAM;
        CLogRecorder log(LOG_LEVEL_ERROR);
        clock.Advance(12);
        EXPECT_EQ(log.Count(("Target:" + std::to_string(stRow.dwWant) + " ").c_str()), 1u)
            << stRow.dwBand << ": " << log.First("Target");
    }
}

TEST(ClockTarget, OnceALossWasReportedTheWaitFollowsTheDownlink)
{
    struct tagRow
    {
        uint32 dwMode;
        uint32 dwLoss;
        uint32 dwWant;
    };
    const tagRow aRows[] = {{0, 0, 1000},     {0, 1999, 1000},  {0, 2000, 2000}, {0, 3999, 2000},
                            {0, 10000, 6000}, {1, 0, 100},      {1, 299, 100},   {1, 300, 200},
                            {1, 1500, 600},   {1, 10000, 3400}, {2, 2000, 2000}};
    for (const tagRow& stRow : aRows)
    {
        CClock clock;
        clock.m_rig.m_dwUdtRecvMode() = stRow.dwMode;
        clock.m_rig.m_dwDownLoss100() = stRow.dwLoss;
        clock.Advance(12);
        EXPECT_EQ(clock.m_stInfo.dwExWaitTick, 0u); // no loss so far: no wait
        clock.m_stInfo.dwExWaitTick = 1;
        clock.Advance(12);
        EXPECT_EQ(clock.m_stInfo.dwExWaitTick, stRow.dwWant) << stRow.dwMode << ", " << stRow.dwLoss;
    }
}

TEST(ClockTarget, TheWaitRaisesIt)
{
    CClock clock;
    clock.m_stInfo.dwTimelineMax = 6000; // a band of 1000: 1200
    clock.m_stInfo.dwExWaitTick = 1;     // and 1000 more
    EXPECT_EQ(clock.StepWith(2301), 1);
    EXPECT_EQ(clock.StepWith(2300), 0);
    EXPECT_EQ(clock.StepWith(2200), 0);
    EXPECT_EQ(clock.StepWith(2199), -2);
}

// ---- The trace -----------------------------------------------------------------------------------------------------------------------

TEST(ClockTrace, IsWrittenOnceOnRequest)
{
    CClock clock;
    clock.m_stInfo.dwLogPrintFlag = 0xFFFFFFFF;
    clock.m_stInfo.dwExWaitTick = 1;
    clock.m_stInfo.dwTimelineIn = c_dwMediaClock + 500;
    CLogRecorder log;
    clock.Advance(13);
    EXPECT_THAT(
        LinesOf(log),
        ElementsAre(ErrorLine("CalcTimelineOutNew",
                              "CalcTimelineOutNew dwTimelineOut:100010 TickDiff:13 Step:-2 FastFactor:12 "
                              "ExWaitTick:1000 Target:1000 DataLen:500 ExtBig:3000 ExtSmall:100 TinyID:7")));
    EXPECT_EQ(clock.m_stInfo.dwLogPrintFlag, 0xFFFFFFFBu);
    clock.Advance(13);
    EXPECT_EQ(log.Lines().size(), 1u);
}

TEST(ClockTrace, OtherBitsAskForNothingHere)
{
    CClock clock;
    clock.m_stInfo.dwLogPrintFlag = 0xFFFFFFFB;
    CLogRecorder log;
    clock.Advance(13);
    EXPECT_THAT(LinesOf(log), IsEmpty());
    EXPECT_EQ(clock.m_stInfo.dwLogPrintFlag, 0xFFFFFFFBu);
}

TEST(ClockTrace, TellsTheLowLatencyTolerances)
{
    CClock clock;
    clock.m_rig.m_dwUdtRecvMode() = 1;
    clock.m_stInfo.dwLogPrintFlag = LOG_TIME_PARAM;
    clock.m_stInfo.dwTimelineIn = c_dwMediaClock + 1011;
    CLogRecorder log;
    clock.Advance(12);
    EXPECT_EQ(
        log.First("CalcTimelineOutNew"),
        "CalcTimelineOutNew dwTimelineOut:100013 TickDiff:12 Step:1 FastFactor:12 ExWaitTick:0 Target:1000 "
        "DataLen:1011 ExtBig:500 ExtSmall:10 TinyID:7");
}

// ---- Jumps ---------------------------------------------------------------------------------------------------------------------------

TEST(ClockJump, NeedsMoreThan15SecondsToTheNewestAndMoreThan5ToTheEarliest)
{
    struct tagRow
    {
        uint32 dwIn;       // ahead of the clock
        uint32 dwEarliest; // ahead of the clock
        bool bJumps;
    };
    const tagRow aRows[] = {{15000, 14000, false}, {15001, 14000, true}, {15001, 5001, true},
                            {15001, 5000, false},  {15001, 0, false},    {90000, 90000, true}};
    for (const tagRow& stRow : aRows)
    {
        CClock clock;
        clock.m_rig.Put(AudioPacket(7, 1).At(c_dwMediaClock + stRow.dwEarliest));
        clock.m_stInfo.dwTimelineIn = c_dwMediaClock + stRow.dwIn;
        const uint32 dwAdvance = clock.Advance(48);
        // Much is buffered, so the clock runs fast; the advance comes on top of the jump.
        EXPECT_EQ(dwAdvance, stRow.bJumps ? stRow.dwEarliest + 52 : 52)
            << stRow.dwIn << ", " << stRow.dwEarliest;
    }
}

TEST(ClockJump, TheStepIsThatOfBeforeTheJump)
{
    CClock clock;
    clock.m_rig.Put(AudioPacket(7, 1).At(c_dwMediaClock + 90000));
    clock.m_stInfo.dwTimelineIn = c_dwMediaClock + 90000;
    clock.m_stInfo.dwLogPrintFlag = LOG_TIME_PARAM;
    CLogRecorder log(LOG_LEVEL_ERROR);
    clock.Advance(48);
    EXPECT_EQ(log.Count("dwTimelineOut:190052 TickDiff:48 Step:1"), 1u);
    EXPECT_EQ(log.Count("DataLen:90000"), 1u);
}

TEST(ClockJump, LandsOnTheEarliestFirstPacketOfTheUsersStreams)
{
    CRecvRig rig;
    CLogRecorder log;
    EXPECT_EQ(rig.FindTimeStampJump(7u, 1000u), 0u); // nothing buffered
    rig.Put(VideoPacket(7, 10, 30000, def_FrameType_P, 0, 0));
    rig.Put(VideoPacket(7, 11, 2000, def_FrameType_P, 0, 0)); // not the first of its stream
    rig.Put(VideoPacket(7, 1, 40000, def_FrameType_P, 0, 0, 0, 1, MEAVPPTShare));
    rig.Put(AudioPacket(8, 1).At(7000)); // somebody else's
    rig.m_mapUinInPkt()[tagInPktKey(7, MEAVAudio)];
    EXPECT_EQ(rig.FindTimeStampJump(7u, 1000u), 30000u);
    EXPECT_THAT(LinesOf(log), ElementsAre(ErrorLine(
                                  "FindTimeStampJump",
                                  "FindTimeStampJump ullAcount:7,uTimelineOut:1000,uMinTimeStamp:30000")));
    log.Forget();
    EXPECT_EQ(rig.FindTimeStampJump(7u, 24999u), 30000u);
    EXPECT_EQ(rig.FindTimeStampJump(7u, 25000u), 0u);
    EXPECT_EQ(rig.FindTimeStampJump(9u, 0u), 0u);
    EXPECT_EQ(log.Lines().size(), 1u);
}

TEST(ClockJump, SumsWrapAndTheLargestTimeCountsAsNone)
{
    CRecvRig rig;
    rig.Put(AudioPacket(7, 1).At(0xFFFFFFFF));
    EXPECT_EQ(rig.FindTimeStampJump(7u, 1000u), 0u);
    rig.Put(AudioPacket(7, 1).At(0xFFFFFFFE));
    EXPECT_EQ(rig.FindTimeStampJump(7u, 1000u), 0xFFFFFFFEu);
    EXPECT_EQ(rig.FindTimeStampJump(7u, 0xFFFFFFFFu - 4999), 0xFFFFFFFEu); // clock + 5000 wraps to 0
    EXPECT_EQ(rig.FindTimeStampJump(7u, 0xFFFFFFFFu - 5000), 0u);
}
