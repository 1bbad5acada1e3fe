// When a gap is asked for, how often, what the request looks like, and the housekeeping beside it.

#include "AVGUDTRecvRules.h"
#include "RecvTest.h"

#include <cstddef>
#include <cstring>

using testing::AllOf;
using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

namespace
{

// ---- Rules ----------------------------------------------------------------------------------------------------

TEST(LossRequestRules, AGapIsDueOnSightThenTwiceBehindTheFirstDelayThenPaced)
{
    tagRequestTiming stTiming;
    stTiming.dwFirstDelay = 300;
    stTiming.dwInterval = 200;
    struct
    {
        uint16 wLostReqCnt;
        uint32 dwSinceArrival, dwSinceRequest;
        bool bWant;
    } const aRows[] = {
        {0, 0, 5000, true},      {0, 300, 0, true},     {0, 301, 0, true},     {1, 0, 5000, false},
        {1, 300, 300, false},    {1, 301, 1, true},     {2, 300, 5000, false}, {2, 301, 0, true},
        {2, 90000, 0, true},     {3, 300, 5000, false}, {3, 301, 199, false},  {3, 301, 200, true},
        {3, 90000, 199, false},  {3, 90000, 200, true}, {4, 90000, 201, true}, {65535, 301, 199, false},
        {65535, 301, 200, true},
    };
    for (const auto& stRow : aRows)
    {
        EXPECT_EQ(stRow.bWant,
                  IsRequestDue(stRow.wLostReqCnt, stRow.dwSinceArrival, stRow.dwSinceRequest, stTiming))
            << stRow.wLostReqCnt << " requests, arrived " << stRow.dwSinceArrival << ", asked "
            << stRow.dwSinceRequest;
    }
}

TEST(LossRequestRules, TheIntervalIsTheRoundTripBetweenTheLesserOf400AndTheConfiguredOne)
{
    struct
    {
        uint32 dwConfigured, dwRTT, dwWant;
    } const aRows[] = {
        {200, 0, 200},      {200, 199, 200},  {200, 5000, 200},     {100, 0, 100},
        {100, 300, 100},    {400, 0, 400},    {400, 5000, 400},     {401, 400, 400},
        {401, 401, 401},    {401, 402, 401},  {1000, 0, 400},       {1000, 100, 400},
        {1000, 400, 400},   {1000, 401, 401}, {1000, 600, 600},     {1000, 1000, 1000},
        {1000, 2000, 1000}, {0, 500, 0},      {0xFFFFFFFF, 0, 400}, {0xFFFFFFFF, 0xFFFFFFFF, 0xFFFFFFFF},
    };
    for (const auto& stRow : aRows)
    {
        EXPECT_EQ(stRow.dwWant, RequestInterval(stRow.dwRTT, stRow.dwConfigured))
            << stRow.dwConfigured << " with RTT " << stRow.dwRTT;
    }
}

// ---- The schedule of one gap, turn by turn -----------------------------------------------------------------------

//   1000    1060      1100        1360       1400  1450        1650   1850
//   armed   10, 12    1st ask     300 ms     2nd   3rd ask     4th    5th
//           arrive    on sight    reached    one per scan      every 200 ms
TEST(LossRequestSchedule, AGapIsAskedForOnSightTwiceAfterTheFirstDelayThenPaced)
{
    CRecvRig rig(1000);
    rig.Start();
    rig.TurnsUntil(1050);
    rig.ClockAt(1060);
    rig.FeedAll({AudioPacket(c_ullUin, 10), AudioPacket(c_ullUin, 12)});
    rig.TurnsUntil(1900);
    EXPECT_THAT(rig.m_owner.RequestTicks(c_ullUin, MEAVAudio, 11), ElementsAre(1100, 1400, 1450, 1650, 1850));
}

TEST(LossRequestSchedule, ItIsTheSameAcrossTheWrapOfTheTick)
{
    const uint64 ullWrap = 0x100000000ull;
    CRecvRig rig(ullWrap - 105);
    rig.Start();
    rig.TurnsUntil(ullWrap - 55);
    rig.ClockAt(ullWrap - 45);
    rig.FeedAll({AudioPacket(c_ullUin, 10), AudioPacket(c_ullUin, 12)});
    rig.TurnsUntil(ullWrap + 795);
    EXPECT_THAT(rig.m_owner.RequestTicks(c_ullUin, MEAVAudio, 11),
                ElementsAre(0xFFFFFFFB, 295, 345, 545, 745));
}

// A scan at tick 0 leaves a 0 behind, which reads as not started: the next turn arms and is no scan.
TEST(LossRequestSchedule, AScanAtTick0MovesTheNextOnesByATurn)
{
    const uint64 ullWrap = 0x100000000ull;
    CRecvRig rig(ullWrap - 100);
    rig.Start();
    rig.TurnsUntil(ullWrap - 50);
    rig.ClockAt(ullWrap - 40);
    rig.FeedAll({AudioPacket(c_ullUin, 10), AudioPacket(c_ullUin, 12)});
    rig.TurnsUntil(ullWrap + 800);
    EXPECT_THAT(rig.m_owner.RequestTicks(c_ullUin, MEAVAudio, 11), ElementsAre(0, 310, 360, 560, 760));
}

// The warm-up: 300 ms whatever is configured, for two seconds from the first turn.
TEST(LossRequestSchedule, AConfiguredFirstDelayHoldsFromTwoSecondsOn)
{
    struct
    {
        uint32 dwFeedAt;
        uint16 wFirstGetTime;
        std::vector<uint32> vecWant; // up to 1200 ms later
    } const aRows[] = {
        {1060, 1000, {1100, 1400, 1450, 1650, 1850, 2050, 2250}},
        {1060, 200, {1100, 1400, 1450, 1650, 1850, 2050, 2250}}, // not earlier either
        // The 300 ms pass before the warm-up does; the third request waits for the configured delay.
        {2620, 1000, {2650, 2950, 3650}},
        {2700, 1000, {2700, 3750, 3800}},
        {3100, 1000, {3100, 4150, 4200}},
        {3100, 200, {3100, 3350, 3400, 3600, 3800, 4000, 4200}},
    };
    for (const auto& stRow : aRows)
    {
        CRecvRig rig(1000);
        rig.Start();
        tagUDTRecvParams params;
        params.wFirstGetTime = stRow.wFirstGetTime;
        rig.m_recv.UDTSetRecvParams(params);
        rig.TurnsUntil(stRow.dwFeedAt - 10);
        rig.ClockAt(stRow.dwFeedAt);
        rig.FeedAll({AudioPacket(c_ullUin, 10), AudioPacket(c_ullUin, 12)});
        rig.TurnsUntil(stRow.dwFeedAt + 1200);
        EXPECT_EQ(stRow.vecWant, rig.m_owner.RequestTicks(c_ullUin, MEAVAudio, 11))
            << "at " << stRow.dwFeedAt << " with " << stRow.wFirstGetTime;
    }
}

TEST(LossRequestSchedule, AGapThatShrinksKeepsItsCountAndIsAskedForInPart)
{
    CRecvRig rig(1000);
    rig.Start();
    rig.TurnsUntil(1050);
    rig.ClockAt(1060);
    rig.FeedAll({AudioPacket(c_ullUin, 10), AudioPacket(c_ullUin, 13)});
    rig.TurnsUntil(1200);
    rig.Feed(AudioPacket(c_ullUin, 11)); // one of two answers
    rig.TurnsUntil(1500);
    EXPECT_THAT(rig.m_owner.RequestTicks(c_ullUin, MEAVAudio, 11), ElementsAre(1100));
    EXPECT_THAT(rig.m_owner.RequestTicks(c_ullUin, MEAVAudio, 12), ElementsAre(1100, 1400, 1450));
    EXPECT_EQ(3, rig.Buffered(c_ullUin, MEAVAudio, 13)->wLostReqCnt);
    rig.Feed(AudioPacket(c_ullUin, 12));
    rig.TurnsUntil(2500);
    EXPECT_THAT(rig.m_owner.RequestTicks(c_ullUin, MEAVAudio, 12), SizeIs(3));
}

TEST(LossRequestSchedule, AnAnswerIsNamedAndLeavesTheBook)
{
    CRecvRig rig(1000);
    CLogRecorder log;
    rig.Start();
    rig.Turn();
    rig.FeedAll({AudioPacket(c_ullUin, 10), AudioPacket(c_ullUin, 13)});
    rig.ClockAt(1050);
    rig.Turn();
    EXPECT_THAT(
        rig.Stream(c_ullUin, MEAVAudio)->mapRequestSeq,
        ElementsAre(std::pair<const uint32, uint32>(11, 1050), std::pair<const uint32, uint32>(12, 1050)));
    rig.Feed(AudioPacket(c_ullUin, 12).Down(900));
    rig.Turn();
    EXPECT_THAT(rig.Stream(c_ullUin, MEAVAudio)->mapRequestSeq,
                ElementsAre(std::pair<const uint32, uint32>(11, 1050)));
    const tagLogLine stLine = log.FirstLine("recv_request_pkg");
    EXPECT_EQ("recv_request_pkg: subtype 1 seq    12   900 Uin 7", stLine.strText);
    EXPECT_EQ(LOG_LEVEL_DEBUG, stLine.eLevel);
}

//  clock of playout reaches the packet behind the gap: never again
TEST(LossRequestSchedule, AskingStopsWhenPlayoutReachesThePacketBehindTheGap)
{
    CRecvRig rig(1000);
    rig.StartPlaying();
    rig.TurnsUntil(1050);
    rig.FeedAll({AudioPacket(c_ullUin, 10), AudioPacket(c_ullUin, 12)});
    rig.TurnsUntil(4000);
    const std::vector<uint32> vecOut = rig.m_owner.ReleaseTicks(c_ullUin, MEAVAudio);
    ASSERT_THAT(vecOut, SizeIs(2));
    const std::vector<uint32> vecAsked = rig.m_owner.RequestTicks(c_ullUin, MEAVAudio, 11);
    ASSERT_FALSE(vecAsked.empty());
    EXPECT_LT(vecAsked.back(), vecOut.back());
}

// ---- One scan -----------------------------------------------------------------------------------------------------

class LossScan : public testing::Test
{
protected:
    LossScan() : m_rig(10000) {}

    // The next call of CheckTimeOutNew scans.
    void Armed()
    {
        m_rig.m_dwLastCheckPkgTimeoutTime() = m_rig.Now() - 50;
        m_rig.m_dwLastCheckTimeout() = m_rig.Now();
    }
    void Scan()
    {
        Armed();
        m_rig.CheckTimeOutNew();
    }
    // A packet with so many missing before it, ahead of playout.
    tagDataPacket& Gap(uint64 ullUin, uint32 dwSeq, uint8 cLost, uint8 cSubType = MEAVAudio)
    {
        tagRigPacket stPacket = AudioPacket(ullUin, dwSeq).At(5000);
        stPacket.cSubType = cSubType;
        tagDataPacket& st = m_rig.Put(stPacket);
        st.cPrePkgLost = cLost;
        st.cIsCalcLost = 1;
        return st;
    }
    std::vector<uint32> Asked()
    {
        std::vector<uint32> vec;
        for (const tagRequest& stRequest : m_rig.m_owner.m_vecRequests)
        {
            for (const tagReplyData& stData : stRequest.vecData)
                vec.push_back(stData.dwUserSeq);
        }
        m_rig.m_owner.Forget();
        return vec;
    }

    CRecvRig m_rig;
    CLogRecorder m_log;
};

TEST_F(LossScan, TheFirstCallArmsAndTheScanComes50MsLater)
{
    Gap(c_ullUin, 12, 1);
    m_rig.CheckTimeOutNew();
    EXPECT_EQ(10000u, m_rig.m_dwLastCheckPkgTimeoutTime());
    EXPECT_THAT(Asked(), IsEmpty());
    m_rig.ClockAt(10049);
    m_rig.CheckTimeOutNew();
    EXPECT_THAT(Asked(), IsEmpty());
    EXPECT_EQ(10000u, m_rig.m_dwLastCheckPkgTimeoutTime());
    m_rig.ClockAt(10050);
    m_rig.CheckTimeOutNew();
    EXPECT_THAT(Asked(), ElementsAre(11));
    EXPECT_EQ(10050u, m_rig.m_dwLastCheckPkgTimeoutTime());
}

TEST_F(LossScan, TheNextScanIs50MsFromTheLastOneHoweverLateThatWas)
{
    for (const auto& stRow : std::vector<std::pair<uint64, bool>>{{10000, false},
                                                                  {10120, true},
                                                                  {10169, false},
                                                                  {10170, true},
                                                                  {10219, false},
                                                                  {10221, true},
                                                                  {10270, false},
                                                                  {10271, true}})
    {
        Gap(c_ullUin, 12, 1); // as new
        m_rig.ClockAt(stRow.first);
        m_rig.m_dwLastCheckTimeout() = m_rig.Now();
        m_rig.CheckTimeOutNew();
        EXPECT_EQ(stRow.second, !Asked().empty()) << stRow.first;
    }
}

TEST_F(LossScan, ATickOf0ArmsNothing)
{
    Gap(c_ullUin, 12, 1);
    m_rig.ClockAt(0x100000000ull); // the 32-bit tick is 0
    m_rig.CheckTimeOutNew();
    EXPECT_EQ(0u, m_rig.m_dwLastCheckPkgTimeoutTime());
    m_rig.ClockAt(0x100000000ull + 50);
    m_rig.CheckTimeOutNew();
    EXPECT_THAT(Asked(), IsEmpty());
    EXPECT_EQ(50u, m_rig.m_dwLastCheckPkgTimeoutTime());
    m_rig.ClockAt(0x100000000ull + 100);
    m_rig.CheckTimeOutNew();
    EXPECT_THAT(Asked(), ElementsAre(11));
}

// ---- Warm-up of the first-request delay ------------------------------------------------------------------------------

TEST_F(LossScan, TheWarmUpEnds2000MsFromTheFirstCall)
{
    struct
    {
        uint32 dwSince;
        uint32 dwElapsed; // since the arrival of the packet behind the gap, asked for once
        bool bAsked;
        uint32 dwFlag;
    } const aRows[] = {
        {0, 300, false, 0},    {0, 301, true, 0},      {1999, 300, false, 0}, {1999, 301, true, 0},
        {2000, 301, false, 1}, {2000, 1000, false, 1}, {2000, 1001, true, 1}, {5000, 1000, false, 1},
    };
    m_rig.m_dwUdtFirstReGetTime() = 1000;
    for (const auto& stRow : aRows)
    {
        m_rig.m_dwLossParamSetFlag() = 0;
        m_rig.m_dwCheckLossParamTime() = m_rig.Now() - stRow.dwSince;
        tagDataPacket& st = Gap(c_ullUin, 12, 1);
        st.wLostReqCnt = 1;
        st.dwRecvTime = m_rig.Now() - stRow.dwElapsed;
        Scan();
        EXPECT_EQ(stRow.bAsked, !Asked().empty()) << stRow.dwSince << " " << stRow.dwElapsed;
        EXPECT_EQ(stRow.dwFlag, m_rig.m_dwLossParamSetFlag()) << stRow.dwSince;
        EXPECT_EQ(stRow.dwFlag != 0 ? m_rig.Now() : m_rig.Now() - stRow.dwSince,
                  m_rig.m_dwCheckLossParamTime())
            << stRow.dwSince;
    }
}

TEST_F(LossScan, TheWarmUpRunsOnEveryCallAndNotOnlyWithAScan)
{
    m_rig.CheckTimeOutNew();
    EXPECT_EQ(10000u, m_rig.m_dwCheckLossParamTime());
    m_rig.m_dwLastCheckPkgTimeoutTime() = 12000;
    m_rig.ClockAt(12000);
    m_rig.CheckTimeOutNew();
    EXPECT_EQ(1u, m_rig.m_dwLossParamSetFlag());
    m_rig.ClockAt(12007);
    m_rig.CheckTimeOutNew();
    EXPECT_EQ(12007u, m_rig.m_dwCheckLossParamTime());
    EXPECT_EQ(12000u, m_rig.m_dwLastCheckPkgTimeoutTime()); // no scan in between
}

TEST_F(LossScan, AStopDoesNotBringTheWarmUpBack)
{
    m_rig.Start();
    m_rig.TurnsUntil(12100);
    ASSERT_EQ(1u, m_rig.m_dwLossParamSetFlag());
    m_rig.m_recv.Stop();
    m_rig.Start();
    m_rig.Turn();
    EXPECT_EQ(1u, m_rig.m_dwLossParamSetFlag());
}

// ---- What is asked for -----------------------------------------------------------------------------------------------

TEST_F(LossScan, AGapIsAskedForOnSightHoweverYoung)
{
    Gap(c_ullUin, 12, 1);
    Scan();
    EXPECT_THAT(Asked(), ElementsAre(11));
    const tagDataPacket& st = *m_rig.Buffered(c_ullUin, MEAVAudio, 12);
    EXPECT_EQ(1, st.wLostReqCnt);
    EXPECT_EQ(10000u, st.dwLastReqLostTime);
}

TEST_F(LossScan, APacketThatPlayoutHasReachedIsLeftAlone)
{
    struct
    {
        uint32 dwMedia, dwTimelineOut;
        bool bAsked;
    } const aRows[] = {
        {5000, 4999, true},
        {5000, 5000, false},
        {5000, 5001, false},
        {1, 0, true},
        {0, 0, false},
        {0x80000000, 0x7FFFFFFF, true},
        {0xFFFFFFFF, 0xFFFFFFFE, true},
        {5, 0xFFFFFFF0, false}, // media time does not wrap
    };
    for (const auto& stRow : aRows)
    {
        tagDataPacket& st = Gap(c_ullUin, 12, 1);
        st.dwMETimeStamp = stRow.dwMedia;
        m_rig.User(c_ullUin)->dwTimelineOut = stRow.dwTimelineOut;
        m_rig.Stream(c_ullUin, MEAVAudio)->mapRequestSeq.clear();
        Scan();
        EXPECT_EQ(stRow.bAsked, !Asked().empty()) << stRow.dwMedia << " at " << stRow.dwTimelineOut;
        EXPECT_EQ(stRow.bAsked ? 1 : 0, st.wLostReqCnt);
        EXPECT_EQ(stRow.bAsked ? 10000u : 0u, st.dwLastReqLostTime);
        EXPECT_EQ(stRow.bAsked ? 1u : 0u, m_rig.Stream(c_ullUin, MEAVAudio)->mapRequestSeq.size());
    }
}

TEST_F(LossScan, APacketThatIsNotDueIsLeftAlone)
{
    tagDataPacket& st = Gap(c_ullUin, 12, 1);
    st.wLostReqCnt = 1;
    st.dwLastReqLostTime = 9950;
    Scan();
    EXPECT_THAT(Asked(), IsEmpty());
    EXPECT_EQ(1, st.wLostReqCnt);
    EXPECT_EQ(9950u, st.dwLastReqLostTime);
    EXPECT_THAT(m_rig.Stream(c_ullUin, MEAVAudio)->mapRequestSeq, IsEmpty());
}

TEST_F(LossScan, APacketWithoutAGapAsksForNothing)
{
    Gap(c_ullUin, 12, 0);
    Scan();
    EXPECT_THAT(Asked(), IsEmpty());
    EXPECT_EQ(0, m_rig.Buffered(c_ullUin, MEAVAudio, 12)->wLostReqCnt);
}

TEST_F(LossScan, AGapIsAskedForFromItsFirstSequenceOnAcrossTheWrap)
{
    Gap(c_ullUin, 10, 255);
    Scan();
    const std::vector<uint32> vecAsked = Asked();
    ASSERT_THAT(vecAsked, SizeIs(255));
    EXPECT_EQ((uint32)(0x100000000ull - 245), vecAsked.front());
    EXPECT_EQ(9u, vecAsked.back());
    for (size_t i = 1; i < vecAsked.size(); ++i)
        EXPECT_EQ(vecAsked[i - 1] + 1, vecAsked[i]);
    EXPECT_THAT(m_rig.Stream(c_ullUin, MEAVAudio)->mapRequestSeq, SizeIs(255));
}

TEST_F(LossScan, AskingAgainMovesTheTickOfEverySequence)
{
    Gap(c_ullUin, 12, 2);
    m_rig.Stream(c_ullUin, MEAVAudio)->mapRequestSeq[10] = 5000;
    Scan();
    EXPECT_THAT(
        m_rig.Stream(c_ullUin, MEAVAudio)->mapRequestSeq,
        ElementsAre(std::pair<const uint32, uint32>(10, 10000), std::pair<const uint32, uint32>(11, 10000)));
}

TEST_F(LossScan, TheCountOfRequestsGoesRoundAt16Bits)
{
    tagDataPacket& st = Gap(c_ullUin, 12, 1);
    st.wLostReqCnt = 65535;
    st.dwRecvTime = 10000 - 301;
    st.dwLastReqLostTime = 9800;
    Scan();
    EXPECT_THAT(Asked(), ElementsAre(11));
    EXPECT_EQ(0, st.wLostReqCnt);
    m_rig.Advance(50);
    Scan(); // and begins again, one per scan
    EXPECT_THAT(Asked(), ElementsAre(11));
    EXPECT_EQ(1, st.wLostReqCnt);
}

TEST_F(LossScan, EverySubTypeIsScanned)
{
    for (uint8 cSubType = 0; cSubType < MEAVMAX; ++cSubType)
        Gap(c_ullUin, 12, 1, cSubType);
    Scan();
    EXPECT_THAT(Asked(), SizeIs(MEAVMAX));
}

TEST_F(LossScan, EachRequestIsTraced)
{
    tagRigPacket stPacket = VideoPacket(c_ullUin, 12, 5000, def_FrameType_B, 33, 22, 4, 9).Fec(3);
    tagDataPacket& st = m_rig.Put(stPacket);
    st.cPrePkgLost = 2;
    st.wVidPkgIdxLeft = 7;
    st.wLostReqCnt = 2;
    st.dwRecvTime = 9000;
    Scan();
    const tagLogLine stLine = m_log.FirstLine("request: ");
    EXPECT_EQ(
        "request: subtype 2 preLost  2 LostStartSeq    10 curSeq    12 pkgN  9 fecN  3 ft 6 fidx 22 gidx 33 "
        "PkgIdxLeft  7 ReqCnt  2",
        stLine.strText);
    EXPECT_EQ(LOG_LEVEL_DEBUG, stLine.eLevel);
    EXPECT_EQ("CmdCode", stLine.strTag);
    EXPECT_EQ("AVGUDTRecv", stLine.strFile);
    EXPECT_EQ("CheckTimeOutNew", stLine.strFunc);
}

// ---- Limits ----------------------------------------------------------------------------------------------------------

TEST_F(LossScan, AStreamsWalkEndsBehindThePacketThatBringsItsListTo31)
{
    struct
    {
        std::vector<uint8> vecGaps; // of packets 1000, 2000, ...
        std::vector<uint16> vecReqCnt;
    } const aRows[] = {
        {{30, 1, 1}, {1, 1, 0}}, // 30, then 31: enough
        {{29, 1, 1, 1}, {1, 1, 1, 0}},
        {{31, 1}, {1, 0}},
        {{30, 255, 1}, {1, 1, 0}}, // the gap that passes 31 goes in whole
        {{255, 1}, {1, 0}},
        {{10, 10, 10, 10, 10}, {1, 1, 1, 1, 0}},
        {{30, 0, 0, 1, 1}, {1, 0, 0, 1, 0}},
    };
    for (const auto& stRow : aRows)
    {
        m_rig.m_mapUinInPkt().clear();
        for (size_t i = 0; i < stRow.vecGaps.size(); ++i)
            Gap(c_ullUin, (uint32)(1000 * (i + 1)), stRow.vecGaps[i]);
        Scan();
        std::vector<uint16> vecReqCnt;
        size_t nWant = 0;
        for (size_t i = 0; i < stRow.vecGaps.size(); ++i)
        {
            vecReqCnt.push_back(m_rig.Buffered(c_ullUin, MEAVAudio, (uint32)(1000 * (i + 1)))->wLostReqCnt);
            nWant += vecReqCnt.back() != 0 ? stRow.vecGaps[i] : 0u;
        }
        EXPECT_EQ(stRow.vecReqCnt, vecReqCnt);
        EXPECT_THAT(Asked(), SizeIs(nWant));
    }
}

TEST_F(LossScan, WhatWasLeftWaitsForTheNextScan)
{
    Gap(c_ullUin, 1000, 31);
    Gap(c_ullUin, 2000, 31);
    Scan();
    EXPECT_THAT(Asked(), AllOf(SizeIs(31), Contains(969)));
    m_rig.Advance(50);
    Scan(); // the first gap is young and asked for: the second has its turn
    EXPECT_THAT(Asked(), AllOf(SizeIs(31), Contains(1969)));
}

TEST_F(LossScan, TheLimitIsPerStream)
{
    Gap(c_ullUin, 1000, 31);
    Gap(c_ullUin, 1000, 31, MEAVMaxVideo);
    Gap(8, 1000, 31);
    Scan();
    EXPECT_THAT(Asked(), SizeIs(93));
}

TEST_F(LossScan, AListOf100IsTold)
{
    struct
    {
        std::vector<uint8> vecGaps;
        std::vector<const char*> vecWant;
    } const aRows[] = {
        {{99}, {}},
        {{100}, {"lossSeqVector subtype 1 size 100 is larger than 100"}},
        {{30, 69}, {}},
        {{30, 70}, {"lossSeqVector subtype 1 size 100 is larger than 100"}},
        {{30, 255, 1}, {"lossSeqVector subtype 1 size 285 is larger than 100"}}, // the longest there is
    };
    for (const auto& stRow : aRows)
    {
        m_rig.m_mapUinInPkt().clear();
        m_log.Forget();
        for (size_t i = 0; i < stRow.vecGaps.size(); ++i)
            Gap(c_ullUin, (uint32)(1000 * (i + 1)), stRow.vecGaps[i]);
        Scan();
        std::vector<std::string> vecTold;
        for (const tagLogLine& stLine : m_log.Lines())
        {
            if (stLine.strText.find("lossSeqVector") == std::string::npos)
                continue;
            vecTold.push_back(stLine.strText);
            EXPECT_EQ(LOG_LEVEL_ERROR, stLine.eLevel);
            EXPECT_EQ("CheckTimeOutNew", stLine.strFunc);
        }
        EXPECT_EQ(std::vector<std::string>(stRow.vecWant.begin(), stRow.vecWant.end()), vecTold);
    }
}

// ---- A user without a timeline ------------------------------------------------------------------------------------------

TEST_F(LossScan, AUserWithoutATimelineEndsTheScanAndWhatWasGatheredGoesOut)
{
    Gap(6, 12, 1);
    Gap(7, 12, 1);
    Gap(7, 12, 1, MEAVMaxVideo);
    Gap(8, 12, 1);
    m_rig.m_mapUinDataInfo().erase(7);
    Scan();
    ASSERT_THAT(m_rig.m_owner.m_vecRequests, SizeIs(1));
    ASSERT_THAT(m_rig.m_owner.m_vecRequests[0].vecData, SizeIs(1));
    EXPECT_EQ(6u, m_rig.m_owner.m_vecRequests[0].vecData[0].ullUserAccount);
    EXPECT_EQ(0, m_rig.Buffered(8, MEAVAudio, 12)->wLostReqCnt);
    EXPECT_EQ(nullptr, m_rig.User(7)); // looked for, not made

    EXPECT_EQ(1u, m_log.Count("There should not reach"));
    const tagLogLine stLine = m_log.FirstLine("There should not reach");
    EXPECT_EQ("There should not reach unless before close!", stLine.strText);
    EXPECT_EQ(LOG_LEVEL_ERROR, stLine.eLevel);
    EXPECT_EQ("CmdCode", stLine.strTag);
    EXPECT_EQ("AVGUDTRecv", stLine.strFile);
    EXPECT_EQ("CheckTimeOutNew", stLine.strFunc);
}

TEST_F(LossScan, AnEmptyStreamOfAUserWithoutATimelineEndsTheScanAsWell)
{
    m_rig.m_mapUinInPkt()[tagInPktKey(6, MEAVAudio)];
    Gap(7, 12, 1);
    Scan();
    EXPECT_THAT(Asked(), IsEmpty());
    EXPECT_EQ(1u, m_log.Count("There should not reach"));
}

TEST_F(LossScan, TheHousekeepingStillRunsBehindAScanThatEndedEarly)
{
    Gap(7, 12, 1);
    m_rig.m_mapUinDataInfo().clear();
    Armed();
    m_rig.m_dwLastCheckTimeout() = m_rig.Now() - 2001;
    m_rig.CheckTimeOutNew();
    EXPECT_EQ(1u, m_rig.m_dwCalcLossCnt());
}

// ---- The message -------------------------------------------------------------------------------------------------------

TEST_F(LossScan, OneScanIsOneMessageStreamsInKeyOrderSequencesAsGathered)
{
    Gap(8, 12, 1);
    Gap(7, 20, 2, MEAVMaxVideo);
    Gap(7, 30, 1, MEAVMaxVideo);
    Gap(7, 12, 1);
    Scan();
    ASSERT_THAT(m_rig.m_owner.m_vecRequests, SizeIs(1));
    const tagRequest& st = m_rig.m_owner.m_vecRequests[0];
    EXPECT_EQ(0, st.wType);
    EXPECT_EQ(1u, st.nSendCount);
    EXPECT_EQ(1u, st.nUdtV2);
    std::vector<std::string> vecText;
    for (const tagReplyData& stData : st.vecData)
    {
        vecText.push_back(std::to_string(stData.ullUserAccount) + "/" + std::to_string(stData.cSubType) +
                          " " + std::to_string(stData.dwUserSeq) + " " + std::to_string(stData.cResult));
    }
    EXPECT_THAT(vecText, ElementsAre("7/1 11 0", "7/2 18 0", "7/2 19 0", "7/2 29 0", "8/1 11 0"));
}

TEST(LossRequestMessage, ARecordIs24BytesWithItsFieldsInPlace)
{
    EXPECT_EQ(24u, sizeof(tagReplyData));
    EXPECT_EQ(0u, offsetof(tagReplyData, ullUserAccount));
    EXPECT_EQ(8u, offsetof(tagReplyData, cSubType));
    EXPECT_EQ(12u, offsetof(tagReplyData, dwUserSeq));
    EXPECT_EQ(16u, offsetof(tagReplyData, cResult));
    tagReplyData stData;
    EXPECT_EQ(0u, stData.dwUserSeq);
    EXPECT_EQ(0, stData.cResult);
}

// Takes the raw arguments, as an owner would.
class CRawOwner : public IUDTRecvEventCallBack
{
public:
    void OnUDTRecvOutData(UDTCodecBaseDecode_V2*, int*) override {}
    int UdtRecvHandleEvent(WORD wType, uint8* pBuffer, uint32 nBufSize, uint32 nSendCount,
                           uint32 nUdtV2) override
    {
        ++nCalls;
        vecArgs = {wType, nBufSize, nSendCount, nUdtV2};
        if (pBuffer != nullptr && nBufSize != 0 && wType == 0)
            vecBytes.assign(pBuffer, pBuffer + 24u * nBufSize);
        pLastBuffer = pBuffer;
        return 0;
    }
    int UdtParsePacketHeadInfo(uint8*, UdtPacketHeadInfo&) override { return 0; }

    int nCalls = 0;
    std::vector<uint32> vecArgs;
    std::vector<uint8> vecBytes;
    uint8* pLastBuffer = nullptr;
};

TEST(LossRequestMessage, TheBufferIsAnArrayOfRecordsCountedInRecords)
{
    CRecvRig rig;
    CRawOwner owner;
    rig.m_pCB() = &owner;
    MapUinSeq map;
    map[tagInPktKey(7, 2)] = {5, 6};
    map[tagInPktKey(7, 1)] = {9};
    map[tagInPktKey(0x0102030405060708ull, 3)] = {};
    rig.RequestLossPacket(map);
    EXPECT_EQ(1, owner.nCalls);
    EXPECT_THAT(owner.vecArgs, ElementsAre(0, 3, 1, 1));
    ASSERT_THAT(owner.vecBytes, SizeIs(72));
    struct
    {
        uint64 ullUin;
        uint8 cSubType;
        uint32 dwSeq;
    } const aWant[] = {{7, 1, 9}, {7, 2, 5}, {7, 2, 6}};
    for (size_t i = 0; i < 3; ++i)
    {
        uint64 ullUin;
        uint32 dwSeq;
        memcpy(&ullUin, &owner.vecBytes[24 * i], 8);
        memcpy(&dwSeq, &owner.vecBytes[24 * i + 12], 4);
        EXPECT_EQ(aWant[i].ullUin, ullUin);
        EXPECT_EQ(aWant[i].cSubType, owner.vecBytes[24 * i + 8]);
        EXPECT_EQ(aWant[i].dwSeq, dwSeq);
        EXPECT_EQ(0, owner.vecBytes[24 * i + 16]);
    }
    EXPECT_THAT(map, SizeIs(3)); // left as it was
    EXPECT_THAT(map[tagInPktKey(7, 2)], ElementsAre(5, 6));
}

TEST(LossRequestMessage, RepeatedAndUnorderedSequencesGoOutAsTheyAre)
{
    CRecvRig rig;
    MapUinSeq map;
    map[tagInPktKey(7, 2)] = {6, 5, 6, 0xFFFFFFFF};
    rig.RequestLossPacket(map);
    EXPECT_THAT(rig.m_owner.RequestTicks(7, 2, 6), SizeIs(2));
    EXPECT_EQ(0xFFFFFFFFu, rig.m_owner.m_vecRequests[0].vecData[3].dwUserSeq);
}

TEST(LossRequestMessage, NothingToAskForIsNoMessage)
{
    CRecvRig rig;
    MapUinSeq map;
    rig.RequestLossPacket(map);
    map[tagInPktKey(7, 1)];
    map[tagInPktKey(7, 2)];
    rig.RequestLossPacket(map);
    EXPECT_THAT(rig.m_owner.m_vecRequests, IsEmpty());
}

TEST(LossRequestMessage, AListOf10000TravelsInOneMessage)
{
    CRecvRig rig;
    MapUinSeq map;
    for (uint32 i = 0; i < 10000; ++i)
    {
        map[tagInPktKey(7, 1)].push_back(i);
        map[tagInPktKey(7, 2)].push_back(i);
    }
    rig.RequestLossPacket(map);
    ASSERT_THAT(rig.m_owner.m_vecRequests, SizeIs(1));
    EXPECT_THAT(rig.m_owner.m_vecRequests[0].vecData, SizeIs(20000));
}

TEST(LossRequestMessage, SwitchedOffOrWithoutAnOwnerItIsDropped)
{
    MapUinSeq map;
    map[tagInPktKey(7, 1)] = {5};
    CRecvRig rig;
    rig.m_bEnableReGetPkg() = FALSE;
    rig.RequestLossPacket(map);
    EXPECT_THAT(rig.m_owner.m_vecRequests, IsEmpty());

    CRecvRig rigAlone(1000, false);
    rigAlone.RequestLossPacket(map); // nothing to see but that it comes back
    EXPECT_THAT(rigAlone.m_owner.m_vecRequests, IsEmpty());
}

TEST(LossRequestMessage, TheExitForEventsPassesEverythingOnAndIsAlwaysContent)
{
    CRecvRig rig;
    CRawOwner owner;
    uint8 cByte = 0;
    rig.m_pCB() = &owner;
    EXPECT_EQ(1, rig.RecvDataEvent((uint16)4321, &cByte, 11u, 22u, 33u));
    EXPECT_THAT(owner.vecArgs, ElementsAre(4321, 11, 22, 33));
    EXPECT_EQ(&cByte, owner.pLastBuffer);
    rig.m_pCB() = nullptr;
    EXPECT_EQ(1, rig.RecvDataEvent((uint16)0, &cByte, 1u, 1u, 1u));
    EXPECT_EQ(1, owner.nCalls);
}

TEST_F(LossScan, WithRequestsSwitchedOffEveryAttemptIsStampedAllTheSame)
{
    m_rig.m_bEnableReGetPkg() = FALSE;
    Gap(c_ullUin, 12, 2);
    Scan();
    EXPECT_THAT(Asked(), IsEmpty());
    const tagDataPacket& st = *m_rig.Buffered(c_ullUin, MEAVAudio, 12);
    EXPECT_EQ(1, st.wLostReqCnt);
    EXPECT_EQ(10000u, st.dwLastReqLostTime);
    EXPECT_THAT(m_rig.Stream(c_ullUin, MEAVAudio)->mapRequestSeq, SizeIs(2));
    EXPECT_EQ(1u, m_log.Count("request: "));
}

// ---- Housekeeping ------------------------------------------------------------------------------------------------------

class Housekeeping : public testing::Test
{
protected:
    Housekeeping() : m_rig(10000) {}

    void Pass() // exactly one, now
    {
        m_rig.m_dwLastCheckPkgTimeoutTime() = m_rig.Now(); // no scan
        m_rig.m_dwLastCheckTimeout() = m_rig.Now() - 2001;
        m_rig.CheckTimeOutNew();
    }
    // A stream that was heard just now.
    tagUinDataBuf& MakeStream(uint64 ullUin, uint8 cSubType)
    {
        m_rig.m_mapUinDataInfo()[ullUin];
        tagUinDataBuf& st = m_rig.m_mapUinInPkt()[tagInPktKey(ullUin, cSubType)];
        st.dwLastRecvPackTime = m_rig.Now();
        return st;
    }
    static void Release(tagUinDataBuf& st, std::initializer_list<uint32> lstSeq)
    {
        for (uint32 dwSeq : lstSeq)
            st.stUinRecvPkgStat.RecvData(dwSeq);
    }

    CRecvRig m_rig;
    CLogRecorder m_log;
};

TEST_F(Housekeeping, TheFirstCallArmsAndThePassComes2001MsLater)
{
    m_rig.CheckTimeOutNew();
    EXPECT_EQ(10000u, m_rig.m_dwLastCheckTimeout());
    m_rig.ClockAt(12000);
    m_rig.CheckTimeOutNew();
    EXPECT_EQ(0u, m_rig.m_dwCalcLossCnt());
    m_rig.ClockAt(12001);
    m_rig.CheckTimeOutNew();
    EXPECT_EQ(1u, m_rig.m_dwCalcLossCnt());
    EXPECT_EQ(12001u, m_rig.m_dwLastCheckTimeout());
    m_rig.ClockAt(14001);
    m_rig.CheckTimeOutNew();
    EXPECT_EQ(1u, m_rig.m_dwCalcLossCnt());
    m_rig.ClockAt(14002);
    m_rig.CheckTimeOutNew();
    EXPECT_EQ(2u, m_rig.m_dwCalcLossCnt());
}

TEST_F(Housekeeping, ItKeepsItsPaceAcrossTheWrapOfTheTick)
{
    m_rig.ClockAt(0xFFFFFFFF - 1000);
    m_rig.CheckTimeOutNew();
    m_rig.ClockAt(0x100000000ull + 999); // 2000 ms
    m_rig.CheckTimeOutNew();
    EXPECT_EQ(0u, m_rig.m_dwCalcLossCnt());
    m_rig.ClockAt(0x100000000ull + 1000);
    m_rig.CheckTimeOutNew();
    EXPECT_EQ(1u, m_rig.m_dwCalcLossCnt());
}

// Released 10 11 14 15 18: 9 spanned, 5 received, 2 runs missing; 3 marked as lost.
TEST_F(Housekeeping, TwoPassesOfALifeCountMarkedLossesOfWhatIsNotAudio)
{
    struct
    {
        uint8 cSubType;
        uint32 dwPassesBefore;
        uint32 dwWantExpect;
        bool bFlowBegunAnew;
    } const aRows[] = {
        {MEAVAudio, 0, 9, false},
        {MEAVAudio, 1, 9, false},
        {MEAVAudio, 2, 9, false},
        {MEAVMaxVideo, 0, 8, true},
        {MEAVMaxVideo, 1, 8, true},
        {MEAVMaxVideo, 2, 9, false},
        {MEAVMinVideo, 0, 8, true},
        {MEAVSubVideo, 1, 8, true},
        {MEAVPPTShare, 0, 8, true},
        {MEAVPPTShare, 2, 9, false},
        {0, 0, 8, true},
        {MEAVMaxVideo, 1000000, 9, false},
    };
    for (const auto& stRow : aRows)
    {
        m_rig.m_mapUinInPkt().clear();
        m_rig.m_dwExpectRecvPkgNum() = m_rig.m_dwRealRecvPkgNum() = m_rig.m_dwTotalLossTime() = 0;
        m_rig.m_dwCalcLossCnt() = stRow.dwPassesBefore;
        tagUinDataBuf& st = MakeStream(c_ullUin, stRow.cSubType);
        st.dwCurTotalLost = 3;
        Release(st, {10, 11, 14, 15, 18});
        Pass();
        EXPECT_EQ(stRow.dwWantExpect, m_rig.m_dwExpectRecvPkgNum())
            << (int)stRow.cSubType << " " << stRow.dwPassesBefore;
        EXPECT_EQ(5u, m_rig.m_dwRealRecvPkgNum());
        EXPECT_EQ(2u, m_rig.m_dwTotalLossTime());
        EXPECT_EQ(stRow.bFlowBegunAnew ? 0u : 3u, st.dwCurTotalLost); // never cleared by the other branch
        EXPECT_EQ(stRow.bFlowBegunAnew ? 0u : 9u, st.stUinRecvPkgStat.GetTotalPkt());
        EXPECT_EQ(stRow.bFlowBegunAnew, st.stUinRecvPkgStat.m_bInit == FALSE);
    }
}

TEST_F(Housekeeping, StreamsAndPassesAddUp)
{
    Release(MakeStream(7, MEAVAudio), {10, 12});
    Release(MakeStream(8, MEAVAudio), {20, 23});
    Pass();
    EXPECT_EQ(7u, m_rig.m_dwExpectRecvPkgNum());
    EXPECT_EQ(4u, m_rig.m_dwRealRecvPkgNum());
    EXPECT_EQ(2u, m_rig.m_dwTotalLossTime());
    Release(*m_rig.Stream(7, MEAVAudio), {13, 14});
    Pass();
    EXPECT_EQ(9u, m_rig.m_dwExpectRecvPkgNum());
    EXPECT_EQ(6u, m_rig.m_dwRealRecvPkgNum());
}

// Nothing but the object's end begins the count of passes again: not a calculation, not a stop.
TEST_F(Housekeeping, ThePassesOfALifeAreCountedThroughCalculationsAndRestarts)
{
    m_rig.Start();
    for (int i = 0; i < 3; ++i)
        Pass();
    m_rig.InternalUDTCalcRecvLoss();
    m_rig.m_recv.Stop();
    m_rig.Start();
    EXPECT_EQ(3u, m_rig.m_dwCalcLossCnt());
    tagUinDataBuf& st = MakeStream(c_ullUin, MEAVMaxVideo);
    st.dwCurTotalLost = 100;
    Release(st, {10, 12});
    Pass();
    EXPECT_EQ(3u, m_rig.m_dwExpectRecvPkgNum());
}

TEST_F(Housekeeping, AStreamThatIsSilentFor6001MsAndEmptyIsRemoved)
{
    struct
    {
        uint32 dwSilent;
        bool bBuffered;
        bool bRemoved;
    } const aRows[] = {{5999, false, false}, {6000, false, false},  {6001, false, true},
                       {6001, true, false},  {900000, true, false}, {0xFFFFFFFF, false, true}};
    for (const auto& stRow : aRows)
    {
        m_log.Forget();
        m_rig.m_dwChnClearNum() = 0;
        m_rig.m_dwUinNum() = 5;
        MakeStream(c_ullUin, MEAVMaxVideo).dwLastRecvPackTime = m_rig.Now() - stRow.dwSilent;
        if (stRow.bBuffered)
            m_rig.Put(VideoPacket(c_ullUin, 10, 5000, def_FrameType_P, 1, 1));
        m_rig.m_mapUinSeqInfo()[c_ullUin];
        m_rig.m_mapUinPkgRingParam()[tagInPktKey(c_ullUin, MEAVMaxVideo)];
        Pass();
        EXPECT_EQ(stRow.bRemoved, m_rig.Stream(c_ullUin, MEAVMaxVideo) == nullptr) << stRow.dwSilent;
        EXPECT_EQ(stRow.bRemoved, m_rig.User(c_ullUin) == nullptr) << stRow.dwSilent;
        EXPECT_EQ(stRow.bRemoved ? 1u : 0u, m_rig.m_dwChnClearNum());
        EXPECT_EQ(stRow.bRemoved ? 4u : 5u, m_rig.m_dwUinNum());
        EXPECT_THAT(m_rig.m_mapUinSeqInfo(), SizeIs(1)); // these stay
        EXPECT_THAT(m_rig.m_mapUinPkgRingParam(), SizeIs(1));
        if (stRow.bRemoved)
        {
            const tagLogLine stLine = m_log.FirstLine("CheckTimeOut");
            EXPECT_EQ("CheckTimeOut Erase UIN:7 subType  2 time_out 6000", stLine.strText);
            EXPECT_EQ(LOG_LEVEL_ERROR, stLine.eLevel);
            EXPECT_EQ("CmdCode", stLine.strTag);
            EXPECT_EQ("AVGUDTRecv", stLine.strFile);
            EXPECT_EQ("CheckTimeOutNew", stLine.strFunc);
        }
        m_rig.m_mapUinInPkt().clear();
    }
}

TEST_F(Housekeeping, AStreamsLastIntervalIsCountedBeforeItGoes)
{
    tagUinDataBuf& st = MakeStream(c_ullUin, MEAVAudio);
    st.dwLastRecvPackTime = m_rig.Now() - 6001;
    Release(st, {10, 12});
    Pass();
    EXPECT_THAT(m_rig.m_mapUinInPkt(), IsEmpty());
    EXPECT_EQ(3u, m_rig.m_dwExpectRecvPkgNum());
}

TEST_F(Housekeeping, AUserGoesWithTheLastOfItsStreams)
{
    m_rig.m_dwUinNum() = 2;
    MakeStream(7, MEAVAudio).dwLastRecvPackTime = m_rig.Now() - 6001;
    MakeStream(7, MEAVMaxVideo);
    MakeStream(8, MEAVAudio);
    Pass();
    EXPECT_EQ(nullptr, m_rig.Stream(7, MEAVAudio));
    EXPECT_NE(nullptr, m_rig.User(7));
    EXPECT_EQ(2u, m_rig.m_dwUinNum());
    m_rig.Stream(7, MEAVMaxVideo)->dwLastRecvPackTime = m_rig.Now() - 6001;
    Pass();
    EXPECT_EQ(nullptr, m_rig.User(7));
    EXPECT_NE(nullptr, m_rig.User(8));
    EXPECT_EQ(1u, m_rig.m_dwUinNum());
    EXPECT_EQ(2u, m_rig.m_dwChnClearNum());
}

TEST_F(Housekeeping, AllStreamsOfARoomMayGoInOnePassAndTheUserCountStopsAt0)
{
    m_rig.m_dwUinNum() = 1; // less than there are
    for (uint64 ullUin : {7, 8, 9})
    {
        MakeStream(ullUin, MEAVAudio).dwLastRecvPackTime = m_rig.Now() - 6001;
        MakeStream(ullUin, MEAVMaxVideo).dwLastRecvPackTime = m_rig.Now() - 6001;
    }
    Pass();
    EXPECT_THAT(m_rig.m_mapUinInPkt(), IsEmpty());
    EXPECT_THAT(m_rig.m_mapUinDataInfo(), IsEmpty());
    EXPECT_EQ(6u, m_rig.m_dwChnClearNum());
    EXPECT_EQ(0u, m_rig.m_dwUinNum());
    std::vector<std::string> vecWant;
    for (const char* pszUin : {"7", "8", "9"})
    {
        for (const char* pszSubType : {"1", "2"})
            vecWant.push_back(std::string("CheckTimeOut Erase UIN:") + pszUin + " subType  " + pszSubType +
                              " time_out 6000");
    }
    EXPECT_EQ(vecWant, m_log.Texts("CheckTimeOutNew"));
}

TEST_F(Housekeeping, TheScanComesBeforeThePassAndBothGoByOneTick)
{
    tagDataPacket& st = m_rig.Put(AudioPacket(c_ullUin, 12));
    st.cPrePkgLost = 1;
    m_rig.m_owner.m_fnOnRequest = [this](const tagRequest&) { m_rig.Advance(10000); }; // a slow owner
    m_rig.m_dwLastCheckPkgTimeoutTime() = m_rig.Now() - 50;
    m_rig.m_dwLastCheckTimeout() = m_rig.Now() - 2000;
    m_rig.CheckTimeOutNew();
    EXPECT_THAT(m_rig.m_owner.m_vecRequests, SizeIs(1));
    EXPECT_EQ(0u, m_rig.m_dwCalcLossCnt()); // 2000 ms by the tick at entry
}

} // namespace
