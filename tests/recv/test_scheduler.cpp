// One output step: all clocks first, then every stream to the routine of its kind.

#include "RecvTest.h"

#include <vector>

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::SizeIs;

namespace
{

void Open(CRecvRig& rig, uint64 ullUin, uint8 cSubType, uint32 dwMedia)
{
    rig.Put(VideoPacket(ullUin, 1, dwMedia, def_FrameType_P, 0, 0, 0, 1, cSubType));
    rig.Stream(ullUin, cSubType)->dwOutPutDelayFlag = 1;
}

} // namespace

TEST(Scheduler, NothingMovesInAnyRoomStateButThree)
{
    for (const uint32 dwState : {0u, 1u, 2u, 4u, 0x103u, 0xFFFFFFFFu})
    {
        CRecvRig rig(1000);
        Open(rig, 7, MEAVAudio, 5000);
        Open(rig, 7, MEAVMaxVideo, 5000);
        rig.User(7)->dwTimelineOut = 5000;
        rig.User(7)->dwLastCheckDeltaTime = 900;
        rig.m_dwRoomLogicState() = dwState;
        CLogRecorder log;
        rig.OutPacket();
        EXPECT_THAT(LinesOf(log), IsEmpty()); // not even the complaint of the routines
        EXPECT_EQ(rig.User(7)->dwTimelineOut, 5000u);
        EXPECT_THAT(rig.m_owner.m_vecReleases, IsEmpty());
        EXPECT_THAT(rig.Stream(7, MEAVAudio)->mapUdtPacket, SizeIs(1));
    }
}

TEST(Scheduler, BuffersGrowUntilTheRoomPlays)
{
    CRecvRig rig(1000);
    rig.Start();
    for (uint32 dwSeq = 1; dwSeq <= 5; ++dwSeq)
        rig.Feed(VideoPacket(7, dwSeq, 5000, def_FrameType_I, 0, 0, (uint8)(dwSeq - 1), 5));
    rig.TurnsUntil(1500);
    EXPECT_THAT(rig.Stream(7, MEAVMaxVideo)->mapUdtPacket, SizeIs(5));
    rig.m_recv.SetRoomState(3);
    rig.Turn();
    EXPECT_THAT(rig.m_owner.Sequences(7, MEAVMaxVideo), ElementsAre(1, 2, 3, 4, 5));
}

TEST(Scheduler, EveryClockIsAdvancedBeforeAnyStreamIsOffered)
{
    // Each user's stream waits for the very last millisecond of its clock's advance.
    CRecvRig rig(1000);
    rig.m_dwRoomLogicState() = 3;
    for (const uint64 ullUin : {9ull, 7ull, 8ull})
    {
        Open(rig, ullUin, MEAVMaxVideo, 5012);
        rig.User(ullUin)->dwTimelineOut = 5000;
        rig.User(ullUin)->dwTimelineIn = 6050;
        rig.User(ullUin)->dwTimelineMin = 0;
        rig.User(ullUin)->dwLastCheckDeltaTime = 988;
    }
    std::vector<uint64> vecOrder;
    rig.m_owner.m_fnOnRelease = [&](const tagRelease& stRelease)
    {
        vecOrder.push_back(stRelease.ullUin);
        for (const uint64 ullUin : {7ull, 8ull, 9ull})
            EXPECT_EQ(rig.User(ullUin)->dwTimelineOut, 5012u);
    };
    rig.OutPacket();
    EXPECT_THAT(vecOrder, ElementsAre(7, 8, 9));
}

TEST(Scheduler, StreamsAreOfferedInKeyOrderSubTypeOneAloneAsAudio)
{
    CRecvRig rig(1000);
    rig.m_dwRoomLogicState() = 3;
    for (const uint8 cSubType : {9, 8, 2, 1, 0, 255})
    {
        Open(rig, 8, cSubType, 5000);
        Open(rig, 7, cSubType, 5000);
    }
    CLogRecorder log;
    rig.OutPacket();
    std::vector<std::pair<uint64, int>> vecOrder;
    for (const tagRelease& stRelease : rig.m_owner.m_vecReleases)
        vecOrder.emplace_back(stRelease.ullUin, stRelease.cSubType);
    typedef std::pair<uint64, int> Key;
    EXPECT_THAT(vecOrder, ElementsAre(Key(7, 0), Key(7, 1), Key(7, 2), Key(7, 8), Key(7, 9), Key(7, 255),
                                      Key(8, 0), Key(8, 1), Key(8, 2), Key(8, 8), Key(8, 9), Key(8, 255)));
    size_t nAsAudio = 0;
    for (const tagLine& stLine : LinesOf(log, "OutPacketAudioNew"))
        nAsAudio += stLine.strText.find("OutPacketNew Subtype:1 ") == 0 ? 1 : 0;
    EXPECT_EQ(nAsAudio, 2u);
}

TEST(Scheduler, AUserWithoutTimelineGetsNoClockAndItsStreamsKeepTheirPackets)
{
    CRecvRig rig(1000);
    rig.m_dwRoomLogicState() = 3;
    Open(rig, 7, MEAVAudio, 5000);
    Open(rig, 7, MEAVMaxVideo, 5000);
    Open(rig, 8, MEAVMaxVideo, 5000);
    rig.m_mapUinDataInfo().erase(7);
    rig.OutPacket();
    EXPECT_EQ(rig.User(7), nullptr);
    EXPECT_THAT(rig.m_owner.Sequences(7, MEAVAudio), IsEmpty());
    EXPECT_THAT(rig.m_owner.Sequences(7, MEAVMaxVideo), IsEmpty());
    EXPECT_THAT(rig.m_owner.Sequences(8, MEAVMaxVideo), ElementsAre(1)); // the walk goes on
    EXPECT_THAT(rig.Stream(7, MEAVAudio)->mapUdtPacket, SizeIs(1));
}

TEST(Scheduler, AUsersClockIsStartedByWhicheverStreamOutputsFirst)
{
    CRecvRig rig(1000);
    rig.m_dwRoomLogicState() = 3;
    Open(rig, 7, MEAVAudio, 5000);
    Open(rig, 7, MEAVMaxVideo, 4000);
    rig.OutPacket();
    EXPECT_EQ(rig.User(7)->dwTimelineOut, 5000u); // audio comes first in key order
    EXPECT_THAT(rig.m_owner.Sequences(7, MEAVMaxVideo), ElementsAre(1));
}

TEST(Scheduler, AudioAndVideoOfOneMediaTimeLeaveInOneTurn)
{
    //   1000..1300   both arrive every 20 ms; from 1600 on both must leave in the turn their time is due
    CRecvRig rig(1000);
    rig.StartPlaying();
    for (uint32 dwSeq = 1; dwSeq <= 30; ++dwSeq)
    {
        rig.Feed(AudioPacket(7, dwSeq).At(5000 + dwSeq * 20));
        rig.Feed(VideoPacket(7, dwSeq, 5000 + dwSeq * 20, dwSeq == 1 ? def_FrameType_I : def_FrameType_P, 0,
                             (uint8)dwSeq));
        rig.TurnsUntil(rig.m_clock.Tick() + 20);
    }
    rig.TurnsUntil(2500);
    const std::vector<uint32> vecAudio = rig.m_owner.ReleaseTicks(7, MEAVAudio);
    const std::vector<uint32> vecVideo = rig.m_owner.ReleaseTicks(7, MEAVMaxVideo);
    ASSERT_THAT(vecAudio, SizeIs(30));
    ASSERT_THAT(vecVideo, SizeIs(30));
    for (size_t i = 1; i < 30; ++i) // the first audio waits a turn for its video
        EXPECT_EQ(vecAudio[i], vecVideo[i]) << i;
}
