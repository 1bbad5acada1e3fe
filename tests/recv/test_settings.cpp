// The owner's settings: what is taken, what is ignored, and how the worker comes to know.

#include "RecvTest.h"

#include <string>
#include <vector>

using ::testing::ElementsAre;
using ::testing::IsEmpty;

namespace
{

constexpr uint32 c_dwDeltaFlag = 0x1;
constexpr uint32 c_dwOutputFlag = 0x100;
constexpr uint32 c_dwModeFlag = 0x10000;

// Parameters that ask for nothing: the fields that take a 0 repeat what is in force.
tagUDTRecvParams NoChange(CRecvRig& rig)
{
    tagUDTRecvParams stParams;
    stParams.wOutPutDelay = (uint16)rig.m_dwOutputDelay();
    stParams.wUdtMode = (uint16)rig.m_dwUdtRecvMode();
    stParams.wPushGopNum = (uint16)rig.m_dwServPushGopNum();
    return stParams;
}

} // namespace

// ---- UDTSetRecvParams --------------------------------------------------------------------------------------------------

TEST(RecvParams, ParametersThatAskForNothingChangeNothing)
{
    CRecvRig rig;
    rig.m_recv.UDTSetRecvParams(NoChange(rig));
    EXPECT_EQ(rig.m_dwUdtFirstReGetTime(), 300u);
    EXPECT_EQ(rig.m_dwUdtlossDataRequestInterval(), 200u);
    EXPECT_EQ(rig.m_dwTimelineDeltaMax(), 6000u);
    EXPECT_EQ(rig.m_dwCalcTimer(), 2000u);
    EXPECT_EQ(rig.m_dwTimelineDelta(), 1000u);
    EXPECT_EQ(rig.m_dwOutputDelay(), 200u);
    EXPECT_EQ(rig.m_dwMinDelayFromServ(), 500u);
    EXPECT_EQ(rig.m_dwUdtRecvMode(), 0u);
    EXPECT_EQ(rig.m_dwServPushGopNum(), 2u);
    EXPECT_EQ(rig.m_dwUdtParamsChanged(), 0u);
}

TEST(RecvParams, RequestTimesHaveAFloorAndZeroKeepsThem)
{
    struct tagRow
    {
        uint16 wAsked;
        uint32 dwFirst;
        uint32 dwNext;
    };
    // in force: 333 and 222
    const tagRow aRows[] = {{0, 333, 222},   {1, 200, 100},   {50, 200, 100},       {99, 200, 100},
                            {100, 200, 100}, {101, 200, 101}, {150, 200, 150},      {199, 200, 199},
                            {200, 200, 200}, {201, 201, 201}, {65535, 65535, 65535}};
    for (const tagRow& stRow : aRows)
    {
        CRecvRig rig;
        rig.m_dwUdtFirstReGetTime() = 333;
        rig.m_dwUdtlossDataRequestInterval() = 222;
        tagUDTRecvParams stParams = NoChange(rig);
        stParams.wFirstGetTime = stRow.wAsked;
        stParams.wNextGetTime = stRow.wAsked;
        rig.m_recv.UDTSetRecvParams(stParams);
        EXPECT_EQ(rig.m_dwUdtFirstReGetTime(), stRow.dwFirst) << stRow.wAsked;
        EXPECT_EQ(rig.m_dwUdtlossDataRequestInterval(), stRow.dwNext) << stRow.wAsked;
    }
}

TEST(RecvParams, TheBoundsOfBufferingAreJudgedAgainstEachOtherInOrder)
{
    struct tagRow
    {
        uint16 wQueuePeriod;
        uint16 wTimelineDelta;
        uint32 dwMax;
        uint32 dwDelta;
        bool bFlag;
        const char* pszWhy;
    };
    // in force: 6000 and 1000
    const tagRow aRows[] = {
        {0, 0, 6000, 1000, false, "nothing asked"},
        {3000, 0, 3000, 1000, false, "a period alone"},
        {500, 0, 500, 1000, false, "a period below the delta in force is taken all the same"},
        {0, 2000, 6000, 2000, true, "a delta alone"},
        {0, 6000, 6000, 6000, true, "a delta at the bound"},
        {0, 6001, 6000, 1000, false, "a delta past the bound"},
        {0, 1000, 6000, 1000, false, "the delta in force again"},
        {3000, 3000, 3000, 3000, true, "both alike"},
        {3000, 2999, 3000, 2999, true, "period above delta"},
        {2999, 3000, 6000, 3000, true, "period below delta: ignored, delta fits the old bound"},
        {65535, 65535, 65535, 65535, true, "the bound is raised before the delta is judged"},
        {7000, 6500, 7000, 6500, true, "a delta above the old bound, below the new one"},
        {6400, 6500, 6000, 1000, false, "neither"},
    };
    for (const tagRow& stRow : aRows)
    {
        CRecvRig rig;
        tagUDTRecvParams stParams = NoChange(rig);
        stParams.wQueuePeriod = stRow.wQueuePeriod;
        stParams.wTimelineDelta = stRow.wTimelineDelta;
        rig.m_recv.UDTSetRecvParams(stParams);
        EXPECT_EQ(rig.m_dwTimelineDeltaMax(), stRow.dwMax) << stRow.pszWhy;
        EXPECT_EQ(rig.m_dwTimelineDelta(), stRow.dwDelta) << stRow.pszWhy;
        EXPECT_EQ(rig.m_dwUdtParamsChanged(), stRow.bFlag ? c_dwDeltaFlag : 0) << stRow.pszWhy;
    }
}

TEST(RecvParams, TheOutputDelayMayBeZeroAndIsJudgedAgainstTheNewDelta)
{
    struct tagRow
    {
        uint16 wOutPutDelay;
        uint16 wTimelineDelta;
        uint32 dwWant;
        bool bFlag;
    };
    // in force: 200, delta 1000
    const tagRow aRows[] = {{0, 0, 0, true},        {200, 0, 200, false},  {999, 0, 999, true},
                            {1000, 0, 1000, true},  {1001, 0, 200, false}, {1001, 1001, 1001, true},
                            {500, 499, 200, false}, {500, 500, 500, true}};
    for (const tagRow& stRow : aRows)
    {
        CRecvRig rig;
        tagUDTRecvParams stParams = NoChange(rig);
        stParams.wOutPutDelay = stRow.wOutPutDelay;
        stParams.wTimelineDelta = stRow.wTimelineDelta;
        rig.m_recv.UDTSetRecvParams(stParams);
        EXPECT_EQ(rig.m_dwOutputDelay(), stRow.dwWant) << stRow.wOutPutDelay << ", " << stRow.wTimelineDelta;
        EXPECT_EQ(rig.m_dwUdtParamsChanged() & c_dwOutputFlag, stRow.bFlag ? c_dwOutputFlag : 0)
            << stRow.wOutPutDelay << ", " << stRow.wTimelineDelta;
    }
}

TEST(RecvParams, PlainFieldsAreTakenAsTheyCome)
{
    CRecvRig rig;
    tagUDTRecvParams stParams = NoChange(rig);
    stParams.wCalcRecvLossTime = 1;
    stParams.wPeriodMinDelay = 65535;
    stParams.wPushGopNum = 0;
    stParams.wGetPkgTimeout = 4321; // nobody reads it
    rig.m_recv.UDTSetRecvParams(stParams);
    EXPECT_EQ(rig.m_dwCalcTimer(), 1u);
    EXPECT_EQ(rig.m_dwMinDelayFromServ(), 65535u);
    EXPECT_EQ(rig.m_dwServPushGopNum(), 0u);
    EXPECT_EQ(rig.m_dwUdtParamsChanged(), 0u);

    rig.m_recv.UDTSetRecvParams(NoChange(rig)); // 0 keeps both
    EXPECT_EQ(rig.m_dwCalcTimer(), 1u);
    EXPECT_EQ(rig.m_dwMinDelayFromServ(), 65535u);
}

TEST(RecvParams, TheModeIsTakenWholeAndZeroSwitchesItOff)
{
    CRecvRig rig;
    tagUDTRecvParams stParams = NoChange(rig);
    stParams.wUdtMode = 0xFFFE;
    rig.m_recv.UDTSetRecvParams(stParams);
    EXPECT_EQ(rig.m_dwUdtRecvMode(), 0xFFFEu);
    EXPECT_EQ(rig.m_dwUdtParamsChanged(), c_dwModeFlag);

    rig.m_dwUdtParamsChanged() = 0;
    rig.m_recv.UDTSetRecvParams(stParams); // the same again
    EXPECT_EQ(rig.m_dwUdtParamsChanged(), 0u);

    stParams.wUdtMode = 0;
    rig.m_recv.UDTSetRecvParams(stParams);
    EXPECT_EQ(rig.m_dwUdtRecvMode(), 0u);
    EXPECT_EQ(rig.m_dwUdtParamsChanged(), c_dwModeFlag);
}

TEST(RecvParams, EachFlagIsAByteOfItsOwn)
{
    CRecvRig rig;
    tagUDTRecvParams stParams = NoChange(rig);
    stParams.wTimelineDelta = 900;
    stParams.wOutPutDelay = 100;
    stParams.wUdtMode = 1;
    rig.m_dwUdtParamsChanged() = 0xAB000000;
    rig.m_recv.UDTSetRecvParams(stParams);
    EXPECT_EQ(rig.m_dwUdtParamsChanged(), 0xAB010101u);

    rig.m_dwUdtParamsChanged() = 0xFFFFFFFF; // a raised byte is written as 1
    stParams.wTimelineDelta = 901;
    rig.m_recv.UDTSetRecvParams(stParams);
    EXPECT_EQ(rig.m_dwUdtParamsChanged(), 0xFFFFFF01u);
}

TEST(RecvParams, TheLineTellsWhatIsInForceAndWhatWasAsked)
{
    CRecvRig rig;
    rig.m_dwRTT() = 0xFFFFFFFF;
    tagUDTRecvParams stParams;
    stParams.wFirstGetTime = 150;
    stParams.wNextGetTime = 50;
    stParams.wQueuePeriod = 400; // below the delta: ignored
    stParams.wTimelineDelta = 500;
    stParams.wCalcRecvLossTime = 2500;
    stParams.wOutPutDelay = 600; // above the delta: ignored
    stParams.wPeriodMinDelay = 700;
    stParams.wUdtMode = 9;
    stParams.wPushGopNum = 4;
    CLogRecorder log;
    rig.m_recv.UDTSetRecvParams(stParams);
    EXPECT_THAT(
        LinesOf(log),
        ElementsAre(ErrorLine(
            "UDTSetRecvParams",
            "UDTRSetRecvParams FirstReGetTime 200 150 RequestInterval 100 50 TimelineDeltaMax 6000 400 "
            "TimelineDelta 500 500 RTT -1 CalcTimer 2500 2500 OutDelay 200 600 MinDelay 700 700 Mode "
            "9 9 PushGopN 4 4")));
}

// ---- UDTSetRecvRTT -----------------------------------------------------------------------------------------------------

TEST(RecvRtt, TheRequestIntervalFollowsItUpwardAndFallsToTwoHundred)
{
    struct tagRow
    {
        uint32 dwBefore;
        uint32 dwRTT;
        uint32 dwAfter;
    };
    const tagRow aRows[] = {
        {300, 100, 200},        // 150: neither above the interval nor above 200
        {300, 400, 450},        // upward
        {120, 100, 150},        // above the interval, though below 200
        {150, 100, 200},        // 150 against 150: not above
        {149, 100, 150},        // one more is
        {1000, 150, 200},       // 200 exactly
        {1000, 151, 201},       // any value above 200 is taken, downward too
        {200, 0, 200},          // 50
        {49, 0, 50},            //
        {50, 0, 200},           //
        {200, 0xFFFFFFFF, 200}, // the sum wraps to 49
        {200, 0xFFFFFFCD, 0xFFFFFFFF},
        {200, 0xFFFFFFCE, 200}, // and here to 0
        {0, 0xFFFFFFCE, 200},
        {0, 0xFFFFFFCF, 1},
    };
    for (const tagRow& stRow : aRows)
    {
        CRecvRig rig;
        rig.m_dwUdtlossDataRequestInterval() = stRow.dwBefore;
        rig.m_recv.UDTSetRecvRTT(stRow.dwRTT);
        EXPECT_EQ(rig.m_dwUdtlossDataRequestInterval(), stRow.dwAfter)
            << stRow.dwBefore << ", " << stRow.dwRTT;
        EXPECT_EQ(rig.m_dwRTT(), stRow.dwRTT);
    }
}

TEST(RecvRtt, TheExtraDelayKeepsTheLargestUpToTheBoundOfBuffering)
{
    CRecvRig rig;
    const auto addDelayAfter = [&rig](uint32 dwRTT)
    {
        rig.m_recv.UDTSetRecvRTT(dwRTT);
        return (uint32)rig.m_dwAddDelay();
    };
    EXPECT_EQ(addDelayAfter(100), 100u);
    EXPECT_EQ(addDelayAfter(99), 100u);
    EXPECT_EQ(addDelayAfter(5999), 5999u);
    EXPECT_EQ(addDelayAfter(6000), 6000u);
    EXPECT_EQ(addDelayAfter(6001), 6000u);
    rig.m_dwTimelineDeltaMax() = 500;
    EXPECT_EQ(addDelayAfter(9000), 6000u); // a lower bound does not take it back
}

TEST(RecvRtt, LowLatencyHasNoExtraDelay)
{
    CRecvRig rig;
    rig.m_recv.UDTSetRecvRTT(300);
    rig.m_dwUdtRecvMode() = 2; // bit 0 alone decides
    rig.m_recv.UDTSetRecvRTT(310);
    EXPECT_EQ(rig.m_dwAddDelay(), 310u);
    rig.m_dwUdtRecvMode() = 3;
    rig.m_recv.UDTSetRecvRTT(320);
    EXPECT_EQ(rig.m_dwAddDelay(), 0u);
    EXPECT_EQ(rig.m_dwUdtlossDataRequestInterval(), 370u); // as in any mode
    rig.m_dwUdtRecvMode() = 0;
    rig.m_recv.UDTSetRecvRTT(20);
    EXPECT_EQ(rig.m_dwAddDelay(), 20u); // grows again from nothing
}

TEST(RecvRtt, TheLineTellsTheNewValues)
{
    CRecvRig rig;
    CLogRecorder log;
    rig.m_recv.UDTSetRecvRTT(400);
    rig.m_recv.UDTSetRecvRTT(0xFFFFFFFF);
    EXPECT_THAT(
        LinesOf(log),
        ElementsAre(
            ErrorLine("UDTSetRecvRTT",
                      "SetRecvRTT dwRTT:400 m_dwUdtlossDataRequestInterval:450 m_dwAddDelay 400"),
            ErrorLine("UDTSetRecvRTT",
                      "SetRecvRTT dwRTT:4294967295 m_dwUdtlossDataRequestInterval:200 m_dwAddDelay 6000")));
}

// ---- Room state and the request switch ---------------------------------------------------------------------------------

TEST(RoomState, AnyStateIsStoredAndTold)
{
    CRecvRig rig;
    CLogRecorder log;
    rig.m_recv.SetRoomState(3);
    EXPECT_EQ(rig.m_dwRoomLogicState(), 3u);
    rig.m_recv.SetRoomState(3); // told again
    rig.m_recv.SetRoomState(0xFFFFFFFF);
    EXPECT_EQ(rig.m_dwRoomLogicState(), 0xFFFFFFFFu);
    EXPECT_THAT(LinesOf(log), ElementsAre(ErrorLine("SetRoomState", "UDTR SetRoomState 3"),
                                          ErrorLine("SetRoomState", "UDTR SetRoomState 3"),
                                          ErrorLine("SetRoomState", "UDTR SetRoomState -1")));
}

TEST(RequestSwitch, OnlyAChangeIsStoredAndTold)
{
    CRecvRig rig;
    CLogRecorder log;
    rig.m_recv.UDTEnableReGetPkg(1);
    EXPECT_THAT(LinesOf(log), IsEmpty());
    rig.m_recv.UDTEnableReGetPkg(0);
    EXPECT_EQ(rig.m_bEnableReGetPkg(), 0);
    rig.m_recv.UDTEnableReGetPkg(0);
    rig.m_recv.UDTEnableReGetPkg(2); // a byte, not a truth value
    EXPECT_EQ(rig.m_bEnableReGetPkg(), 2);
    rig.m_recv.UDTEnableReGetPkg(1);
    EXPECT_EQ(rig.m_bEnableReGetPkg(), 1);
    EXPECT_THAT(LinesOf(log), ElementsAre(ErrorLine("UDTEnableReGetPkg", "UDTR EnableReGetPkg bEnable[0]"),
                                          ErrorLine("UDTEnableReGetPkg", "UDTR EnableReGetPkg bEnable[2]"),
                                          ErrorLine("UDTEnableReGetPkg", "UDTR EnableReGetPkg bEnable[1]")));
}

// ---- What the worker takes over ----------------------------------------------------------------------------------------

TEST(TakeOver, ANewDeltaReachesEveryStreamOnTheNextTurnAndItsFlagAloneIsCleared)
{
    CRecvRig rig;
    rig.Put(AudioPacket(7, 1));
    rig.Put(VideoPacket(8, 1, 1000, def_FrameType_I, 0, 0));
    tagUDTRecvParams stParams = NoChange(rig);
    stParams.wTimelineDelta = 1500;
    stParams.wOutPutDelay = 100;
    rig.m_recv.UDTSetRecvParams(stParams);
    rig.m_dwUdtParamsChanged() |= 0xAA00AA00 & 0xFF00FF00;
    const uint32 dwFlags = rig.m_dwUdtParamsChanged();
    EXPECT_EQ(rig.Stream(7, MEAVAudio)->dwConfigTimelineDelta, 0u);

    rig.Deliver();
    for (const tagUinDataBuf* pstStream : {rig.Stream(7, MEAVAudio), rig.Stream(8, MEAVMaxVideo)})
    {
        EXPECT_EQ(pstStream->dwConfigTimelineDelta, 1500u);
        EXPECT_EQ(pstStream->stStatInfo.dwConfgMinDelay, 1500u);
        EXPECT_EQ(pstStream->stStatInfo.dwConfgMaxDelay, 0u);
    }
    EXPECT_EQ(rig.m_dwUdtParamsChanged(), dwFlags & 0xFFFFFF00);
}

TEST(TakeOver, WithoutItsFlagADeltaStaysWhereItIs)
{
    CRecvRig rig;
    rig.Put(AudioPacket(7, 1));
    rig.m_dwTimelineDelta() = 1500;
    rig.m_dwUdtParamsChanged() = 0x0100;
    rig.Deliver();
    EXPECT_EQ(rig.Stream(7, MEAVAudio)->dwConfigTimelineDelta, 0u);
    EXPECT_EQ(rig.m_dwUdtParamsChanged(), 0x0100u); // nobody takes this one
    rig.m_dwUdtParamsChanged() = 0x80;              // any bit of the byte will do
    rig.Deliver();
    EXPECT_EQ(rig.Stream(7, MEAVAudio)->dwConfigTimelineDelta, 1500u);
    EXPECT_EQ(rig.m_dwUdtParamsChanged(), 0u);
}

TEST(TakeOver, LowLatencyDropsEachUsersBacklogToTheBound)
{
    struct tagRow
    {
        uint32 dwIn;
        uint32 dwOut;
        uint32 dwWant;
    };
    // bound: 6000
    const tagRow aRows[] = {
        {50000, 44000, 44000},                // 6000 ahead
        {50000, 43999, 44000},                // 6001
        {50000, 1000, 44000},                 //
        {50000, 50000, 50000},                //
        {40000, 50000, 50000},                // the clock is ahead
        {50000, 0, 44000},                    // a clock that was not started is started by it
        {5000, 0, 0},                         //
        {0, 0, 0},                            //
        {0xFFFFFFFF, 0xFFFFE88F, 0xFFFFE88F}, // 6000 ahead below the top
        {0xFFFFFFFF, 0xFFFFE88E, 0xFFFFE88F}, //
        {10, 0xFFFFFFF0, 0xFFFFFFF0},         // behind the wrap nothing counts as ahead
    };
    for (const tagRow& stRow : aRows)
    {
        CRecvRig rig;
        tagUinDataInfo& stInfo = rig.m_mapUinDataInfo()[7];
        stInfo.dwTimelineIn = stRow.dwIn;
        stInfo.dwTimelineOut = stRow.dwOut;
        rig.m_dwUdtRecvMode() = 1;
        rig.m_dwUdtParamsChanged() = 0xFFFFFFFF;
        rig.UdtModeProcessNew();
        EXPECT_EQ(stInfo.dwTimelineOut, stRow.dwWant) << stRow.dwIn << ", " << stRow.dwOut;
        EXPECT_EQ(stInfo.dwTimelineIn, stRow.dwIn);
        EXPECT_EQ(rig.m_dwUdtParamsChanged(), 0xFF00FFFFu);
    }
}

TEST(TakeOver, TheBacklogIsDroppedOnceForAllUsersAndOnlyOnASwitchIntoLowLatency)
{
    CRecvRig rig;
    const auto backlog = [&rig](uint64 ullUin)
    {
        tagUinDataInfo& stInfo = rig.m_mapUinDataInfo()[ullUin];
        stInfo.dwTimelineIn = 20000;
        stInfo.dwTimelineOut = 1000;
    };
    backlog(7);
    backlog(8);
    rig.m_dwUdtRecvMode() = 1;
    rig.UdtModeProcessNew(); // not told
    EXPECT_EQ(rig.User(7)->dwTimelineOut, 1000u);

    rig.m_dwUdtRecvMode() = 6; // told, but bit 0 is clear: the flag is used up all the same
    rig.m_dwUdtParamsChanged() = c_dwModeFlag;
    rig.UdtModeProcessNew();
    EXPECT_EQ(rig.User(7)->dwTimelineOut, 1000u);
    EXPECT_EQ(rig.m_dwUdtParamsChanged(), 0u);

    rig.m_dwUdtRecvMode() = 5;
    rig.m_dwUdtParamsChanged() = c_dwModeFlag;
    rig.Deliver();
    EXPECT_EQ(rig.User(7)->dwTimelineOut, 14000u);
    EXPECT_EQ(rig.User(8)->dwTimelineOut, 14000u);
    EXPECT_EQ(rig.m_dwUdtParamsChanged(), 0u);

    backlog(7);
    rig.Deliver(); // used up
    EXPECT_EQ(rig.User(7)->dwTimelineOut, 1000u);
}

TEST(TakeOver, TheModeIsAppliedAfterTheTurnsPackets)
{
    // The packet of this very turn moves the newest media, and the backlog is cut to it.
    CRecvRig rig;
    rig.Start();
    rig.Feed(VideoPacket(7, 1, 50000, def_FrameType_P, 0, 0));
    rig.m_mapUinDataInfo()[7].dwTimelineOut = 1000;
    rig.m_dwUdtRecvMode() = 1;
    rig.m_dwUdtParamsChanged() = c_dwModeFlag;
    rig.Deliver();
    EXPECT_EQ(rig.User(7)->dwTimelineOut, 44000u);
}
