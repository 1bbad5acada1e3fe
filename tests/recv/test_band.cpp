// The transit band: how far the packets' offsets reach, per user.

#include "RecvTest.h"

#include <vector>

using ::testing::ElementsAre;
using ::testing::IsEmpty;

namespace
{

constexpr uint32 c_dwTurned = 0x80000000; // offsets live in a space whose top bit is turned

// A user whose packet arrives with a given offset: the clock is set so that tick and media time give it.
struct CBand
{
    CBand() : m_stInfo(m_rig.m_mapUinDataInfo()[7]) {}

    void Offset(uint32 dwOffset, uint32 dwMedia = 5000, uint8 cSubType = MEAVAudio)
    {
        m_rig.ClockAt((dwOffset + dwMedia) ^ c_dwTurned);
        tagDataPacket stPacket =
            CRecvRig::Record(VideoPacket(7, 41, dwMedia, def_FrameType_P, 0, 0, 0, 1, cSubType), m_rig.Now());
        stPacket.dwSeq = 42;
        m_rig.CalcTimelineMaxMin(stPacket);
    }

    CRecvRig m_rig;
    tagUinDataInfo& m_stInfo;
};

} // namespace

TEST(Band, TheFirstPacketSetsBothBounds)
{
    CRecvRig rig(1000);
    CLogRecorder log;
    tagDataPacket stPacket = CRecvRig::Record(AudioPacket(7, 41).At(400), 1000);
    stPacket.dwSeq = 42;
    rig.CalcTimelineMaxMin(stPacket);
    ASSERT_NE(rig.User(7), nullptr); // the user comes with it
    const tagUinDataInfo& st = *rig.User(7);
    EXPECT_EQ(st.dwTimelineMin, c_dwTurned + 600);
    EXPECT_EQ(st.dwTimelineMax, c_dwTurned + 600);
    EXPECT_EQ(st.dwTimelineIn, 400u);
    EXPECT_EQ(st.dwFastFactor, 12u);
    EXPECT_THAT(LinesOf(log), ElementsAre(DebugLine(
                                  "CalcTimelineMaxMin",
                                  "AdjustLimit Max: SubType 1 Old-TimelineMax 0 dwTimeLine 2147484248 Delta "
                                  "-2147483048 new-Max-Min 0 Seq    41    42 UIN 7")));
}

TEST(Band, TheTopBitOfTheTickIsTurned)
{
    struct tagRow
    {
        uint32 dwTick;
        uint32 dwMedia;
        uint32 dwWant;
    };
    const tagRow aRows[] = {{0, 0, 0x80000000},          {0, 1, 0x7FFFFFFF},
                            {0x80000000, 0, 0},          {0x80000000, 1, 0xFFFFFFFF},
                            {0xFFFFFFFF, 0, 0x7FFFFFFF}, {0x7FFFFFFF, 0, 0xFFFFFFFF},
                            {5, 0x80000005, 0}};
    for (const tagRow& stRow : aRows)
    {
        CRecvRig rig(stRow.dwTick);
        tagDataPacket stPacket = CRecvRig::Record(AudioPacket(7, 1).At(stRow.dwMedia), 0);
        rig.CalcTimelineMaxMin(stPacket);
        EXPECT_EQ(rig.User(7)->dwTimelineMax, stRow.dwWant) << stRow.dwTick << ", " << stRow.dwMedia;
    }
}

TEST(Band, ALowerBoundFollowsDownAtOnceAndCreepsUpByOne)
{
    struct tagRow
    {
        uint32 dwMode;
        uint32 dwMin;
        uint32 dwOffset;
        uint32 dwWant;
    };
    const tagRow aRows[] = {
        {0, 5000, 4999, 4999},
        {0, 5000, 1, 1},
        {0, 5000, 5000, 5000},
        {0, 5000, 6000, 5000},
        {0, 5000, 6001, 5001},
        {0, 5000, 9999, 5001},
        {1, 5000, 4999, 4999},
        {1, 5000, 5020, 5000},
        {1, 5000, 5021, 5001},
        {3, 5000, 5021, 5001},
        {2, 5000, 5021, 5000},
        {0, 0xFFFFFFFF, 5000, 5000},
        {0, 0xFFFFFE00, 0xFFFFFFFF, 0xFFFFFE01}, // the sum wraps, so this counts as far inside
        {1, 0xFFFFFE00, 0xFFFFFE14, 0xFFFFFE00},
    };
    for (const tagRow& stRow : aRows)
    {
        CBand band;
        band.m_rig.m_dwUdtRecvMode() = stRow.dwMode;
        band.m_stInfo.dwTimelineMin = stRow.dwMin;
        band.m_stInfo.dwTimelineMax = 0xFFFFFFFF;
        band.Offset(stRow.dwOffset);
        EXPECT_EQ(band.m_stInfo.dwTimelineMin, stRow.dwWant)
            << stRow.dwMode << ", " << stRow.dwMin << ", " << stRow.dwOffset;
    }
}

TEST(Band, AnUpperBoundFollowsUpAtOnceAndCreepsDownByOne)
{
    struct tagRow
    {
        uint32 dwMode;
        uint32 dwMax;
        uint32 dwOffset;
        uint32 dwWant;
    };
    const tagRow aRows[] = {
        {0, 5000, 5001, 5001},
        {0, 5000, 9000, 9000},
        {0, 5000, 5000, 5000},
        {0, 5000, 4000, 5000},
        {0, 5000, 3999, 4999},
        {0, 5000, 0, 4999},
        {1, 5000, 5001, 5001},
        {1, 5000, 4980, 5000},
        {1, 5000, 4979, 4999},
        {2, 5000, 4979, 5000},
        {5, 5000, 4979, 4999},
        {0, 0xFFFFFFFF, 0xFFFFFFF0, 0xFFFFFFFE}, // the sum wraps to far below
        {0, 0xFFFFFFFF, 0xFFFFFC17, 0xFFFFFFFF}, // here it just does not
    };
    for (const tagRow& stRow : aRows)
    {
        CBand band;
        band.m_rig.m_dwUdtRecvMode() = stRow.dwMode;
        band.m_stInfo.dwTimelineMin = 0;
        band.m_stInfo.dwTimelineMax = stRow.dwMax;
        band.Offset(stRow.dwOffset);
        EXPECT_EQ(band.m_stInfo.dwTimelineMax, stRow.dwWant)
            << stRow.dwMode << ", " << stRow.dwMax << ", " << stRow.dwOffset;
    }
}

TEST(Band, NarrowsByOneMillisecondPerPacketFromBothSides)
{
    CBand band;
    band.m_stInfo.dwTimelineMin = 10000;
    band.m_stInfo.dwTimelineMax = 14000;
    for (int i = 0; i < 100; ++i)
        band.Offset(12000);
    EXPECT_EQ(band.m_stInfo.dwTimelineMin, 10100u);
    EXPECT_EQ(band.m_stInfo.dwTimelineMax, 13900u);
    for (int i = 0; i < 2000; ++i)
        band.Offset(12000);
    EXPECT_EQ(band.m_stInfo.dwTimelineMin, 11000u); // it stops at the creep band
    EXPECT_EQ(band.m_stInfo.dwTimelineMax, 13000u);
}

TEST(Band, AnUpperBoundThatRisesIsTold)
{
    CBand band;
    band.m_stInfo.dwTimelineMin = 1000;
    band.m_stInfo.dwTimelineMax = 5000;
    CLogRecorder log;
    band.Offset(5000);
    EXPECT_THAT(LinesOf(log), IsEmpty());
    band.Offset(5250, 4000, MEAVMaxVideo);
    EXPECT_THAT(
        LinesOf(log),
        ElementsAre(DebugLine("CalcTimelineMaxMin",
                              "AdjustLimit Max: SubType 2 Old-TimelineMax 5000 dwTimeLine 5250 Delta  250 "
                              "new-Max-Min 4248 Seq    41    42 UIN 7")));
}

TEST(BandReset, TakesTheOffsetOrAFreshBandAboveTheMinimum)
{
    // The packet that resets the bound then moves it like any other: in low latency the fresh 300 ms lie more
    // than the creep band above it, so they are 299 at once.
    struct tagRow
    {
        uint32 dwMode;
        uint32 dwMin;
        uint32 dwOffset;
        uint32 dwWant;
    };
    const tagRow aRows[] = {
        {0, 5000, 5000, 6000},
        {1, 5000, 5000, 5299},
        {2, 5000, 5000, 6000},
        {0, 5000, 5001, 5001},
        {1, 5000, 5001, 5001},
        {0, 5000, 5999, 5999},
        {0, 5000, 4000, 5000}, // the minimum moves first, and the fresh band stands on it
        {1, 5000, 4000, 4299},
        {0, 5000, 7000, 7000},                   // min creeps to 5001 first
        {0, 0xFFFFFFFF, 0xFFFFFFFF, 0xFFFFFFFE}, // at the very top both bounds step over the wrap
    };
    for (const tagRow& stRow : aRows)
    {
        CBand band;
        band.m_rig.m_dwUdtRecvMode() = stRow.dwMode;
        band.m_stInfo.dwTimelineMin = stRow.dwMin;
        band.m_stInfo.dwTimelineMax = 0xFFFFFFF0;
        band.m_stInfo.dwVidResetTimelineMin = 1;
        band.Offset(stRow.dwOffset);
        EXPECT_EQ(band.m_stInfo.dwTimelineMax, stRow.dwWant)
            << stRow.dwMode << ", " << stRow.dwMin << ", " << stRow.dwOffset;
        EXPECT_EQ(band.m_stInfo.dwVidResetTimelineMin, 2u);
    }
}

TEST(BandReset, IsToldWithWhatStoodBefore)
{
    CBand band;
    band.m_stInfo.dwTimelineMin = 5000;
    band.m_stInfo.dwTimelineMax = 0xFFFFFFF0;
    band.m_stInfo.dwVidResetTimelineMin = 1;
    CLogRecorder log;
    band.Offset(6001, 3000, MEAVSubVideo);
    EXPECT_THAT(
        LinesOf(log),
        ElementsAre(ErrorLine("CalcTimelineMaxMin",
                              "Reset_TimelineMax: subtype 7 seq    41    42 oldmin 5001 oldmax 4294967280 "
                              "dwTimeLine 6001 delta 1000")));
}

TEST(BandReset, HappensOnRequestAlone)
{
    for (const uint32 dwState : {0u, 2u, 3u})
    {
        CBand band;
        band.m_stInfo.dwTimelineMin = 5000;
        band.m_stInfo.dwTimelineMax = 9000;
        band.m_stInfo.dwVidResetTimelineMin = dwState;
        CLogRecorder log;
        band.Offset(8500);
        EXPECT_EQ(band.m_stInfo.dwTimelineMax, 9000u);
        EXPECT_EQ(band.m_stInfo.dwVidResetTimelineMin, dwState);
        EXPECT_THAT(LinesOf(log), IsEmpty());
    }
}

TEST(Band, TheNewestMediaNeverGoesBack)
{
    CBand band;
    band.Offset(5000, 300);
    EXPECT_EQ(band.m_stInfo.dwTimelineIn, 300u);
    band.Offset(5000, 299);
    EXPECT_EQ(band.m_stInfo.dwTimelineIn, 300u);
    band.Offset(5000, 301);
    EXPECT_EQ(band.m_stInfo.dwTimelineIn, 301u);
    band.Offset(5000, 0xFFFFFFFF);
    band.Offset(5000, 5); // wrapped media is old media
    EXPECT_EQ(band.m_stInfo.dwTimelineIn, 0xFFFFFFFFu);
}

TEST(Band, GoesByTheHeadsTimeWhileTheNewestMediaGoesByThePlayoutTime)
{
    CRecvRig rig(10000);
    tagDataPacket stPacket = CRecvRig::Record(AudioPacket(7, 1).At(4000), 10000);
    stPacket.dwMETimeStamp = 9000;
    rig.CalcTimelineMaxMin(stPacket);
    EXPECT_EQ(rig.User(7)->dwTimelineMin, c_dwTurned + 6000);
    EXPECT_EQ(rig.User(7)->dwTimelineIn, 9000u);
}

TEST(Band, AUsersAudioAndVideoShareOneBandOtherUsersHaveTheirOwn)
{
    CRecvRig rig(10000);
    tagDataPacket stAudio = CRecvRig::Record(AudioPacket(7, 1).At(4000), 0);
    tagDataPacket stVideo = CRecvRig::Record(VideoPacket(7, 1, 3000, def_FrameType_I, 0, 0), 0);
    tagDataPacket stOther = CRecvRig::Record(AudioPacket(8, 1).At(1000), 0);
    rig.CalcTimelineMaxMin(stAudio);
    rig.CalcTimelineMaxMin(stVideo);
    rig.CalcTimelineMaxMin(stOther);
    EXPECT_EQ(rig.User(7)->dwTimelineMin, c_dwTurned + 6000);
    EXPECT_EQ(rig.User(7)->dwTimelineMax, c_dwTurned + 7000);
    EXPECT_EQ(rig.User(8)->dwTimelineMin, c_dwTurned + 9000);
}
