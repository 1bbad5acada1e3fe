// When audio leaves, what is skipped at the beginning, and what a release leaves behind.

#include "RecvTest.h"

#include <vector>

using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::Key;
using ::testing::SizeIs;

namespace
{

// A playing room with user 7, whose clock stands at 50000 and whose audio may leave.
struct CAudioOut
{
    CAudioOut() : m_rig(1000), m_stInfo(m_rig.m_mapUinDataInfo()[7]), m_stStream(Open(MEAVAudio))
    {
        m_rig.m_dwRoomLogicState() = 3;
        m_stInfo.dwTimelineOut = c_dwClock;
        m_stInfo.dwTimelineIn = c_dwClock;
    }

    tagUinDataBuf& Open(uint8 cSubType)
    {
        tagUinDataBuf& stStream = m_rig.m_mapUinInPkt()[tagInPktKey(7, cSubType)];
        stStream.dwOutPutDelayFlag = 1;
        return stStream;
    }

    tagDataPacket& Put(uint32 dwSeq, uint32 dwMedia) { return m_rig.Put(AudioPacket(7, dwSeq).At(dwMedia)); }
    uint32 Out() { return m_rig.OutPacketAudioNew(m_stStream); }
    std::vector<uint32> Released() const { return m_rig.m_owner.Sequences(7, MEAVAudio); }

    CRecvRig m_rig;
    tagUinDataInfo& m_stInfo;
    tagUinDataBuf& m_stStream;
};

} // namespace

// ---- What keeps audio in -----------------------------------------------------------------------------------------------------------

TEST(AudioOut, NothingLeavesInAnyOtherRoomStateAndThatIsTold)
{
    for (const uint32 dwState : {0u, 1u, 2u, 4u, 0xFFFFFFFFu})
    {
        CAudioOut out;
        out.Put(1, 0);
        out.m_rig.m_dwRoomLogicState() = dwState;
        CLogRecorder log;
        EXPECT_EQ(out.Out(), 0u);
        EXPECT_THAT(out.Released(), IsEmpty());
        EXPECT_THAT(LinesOf(log),
                    ElementsAre(ErrorLine("OutPacketAudioNew", "OutPacketAudioNew RoomState:" +
                                                                   std::to_string(dwState) + " is Wrong!")));
    }
}

TEST(AudioOut, AClosedGateIsAskedAnOpenOneIsNot)
{
    CAudioOut out;
    out.Put(1, c_dwClock);
    out.m_stStream.dwOutPutDelayFlag = 0;
    out.m_stStream.dwRecvFirstPkgTime = 900;
    EXPECT_EQ(out.Out(), 0u);
    out.m_stStream.dwOutPutDelayFlag = 2; // anything but 0 is open
    EXPECT_EQ(out.Out(), 1u);
    EXPECT_EQ(out.m_stStream.dwRecvIFlag, 0u);
}

TEST(AudioOut, WithoutPacketsOrWithoutItsUserNothingHappensAndNothingIsTold)
{
    CAudioOut out;
    CLogRecorder log;
    EXPECT_EQ(out.Out(), 0u);
    out.Put(1, 0);
    out.m_rig.m_mapUinDataInfo().clear();
    EXPECT_EQ(out.Out(), 0u);
    EXPECT_THAT(out.m_stStream.mapUdtPacket, SizeIs(1));
    EXPECT_THAT(out.m_rig.m_mapUinDataInfo(), IsEmpty());
    EXPECT_THAT(LinesOf(log), IsEmpty());
}

TEST(AudioOut, TheFirstPacketStartsAStoppedClock)
{
    CAudioOut out;
    out.m_stInfo.dwTimelineOut = 0;
    out.Put(5, 70000);
    out.Put(6, 70001);
    CLogRecorder log(LOG_LEVEL_ERROR);
    EXPECT_EQ(out.Out(), 1u);
    EXPECT_EQ(out.m_stInfo.dwTimelineOut, 70000u);
    EXPECT_EQ(out.m_stInfo.dwLastCheckDeltaTime, 1000u);
    EXPECT_THAT(LinesOf(log), ElementsAre(ErrorLine("OutPacketAudioNew",
                                                    "TimelineOut Init 70000 Uin:7 OutPacketAudioNew")));
}

// ---- Due -----------------------------------------------------------------------------------------------------------------------------

TEST(AudioDue, AtTheClockNotOneMillisecondLater)
{
    CAudioOut out;
    out.Put(1, c_dwClock - 5);
    out.Put(2, c_dwClock);
    out.Put(3, c_dwClock + 1);
    EXPECT_EQ(out.Out(), 2u);
    EXPECT_THAT(out.Released(), ElementsAre(1, 2));
    EXPECT_THAT(out.m_stStream.mapUdtPacket, ElementsAre(Key(3)));
}

TEST(AudioDue, AheadByThePlayDelayTheOwnerLastTold)
{
    CAudioOut out;
    out.m_stStream.dwAudPlayDelayRTS = 80;
    out.Put(1, c_dwClock + 80);
    out.Put(2, c_dwClock + 81);
    EXPECT_EQ(out.Out(), 1u);
    EXPECT_EQ(out.m_stStream.dwAudPlayDelayRTS, 0u); // this owner told nothing
    out.m_stInfo.dwTimelineOut = c_dwClock + 80;
    EXPECT_EQ(out.Out(), 0u); // so the next call goes by the bare clock
    out.m_stInfo.dwTimelineOut = c_dwClock + 81;
    EXPECT_EQ(out.Out(), 1u);
}

TEST(AudioDue, OneCallGoesByTheDelayThatStoodBeforeIt)
{
    CAudioOut out;
    out.m_rig.m_owner.m_nPlayDelay = 100;
    out.Put(1, c_dwClock);
    out.Put(2, c_dwClock + 1);
    EXPECT_EQ(out.Out(), 1u);
    EXPECT_EQ(out.m_stStream.dwAudPlayDelayRTS, 100u);
    EXPECT_EQ(out.Out(), 1u);
}

TEST(AudioDue, ANegativeDelayHoldsAudioBack)
{
    CAudioOut out;
    out.m_rig.m_owner.m_nPlayDelay = -50;
    out.Put(1, c_dwClock - 200);
    out.Put(2, c_dwClock - 50);
    out.Put(3, c_dwClock - 49);
    EXPECT_EQ(out.Out(), 3u);
    EXPECT_EQ(out.m_stStream.dwAudPlayDelayRTS, 0xFFFFFFCEu);
    out.Put(4, c_dwClock - 50);
    out.Put(5, c_dwClock - 49);
    EXPECT_EQ(out.Out(), 1u); // the unsigned sum comes out 50 below the clock
    EXPECT_EQ(out.Released().back(), 4u);
}

TEST(AudioDue, TheSumWraps)
{
    CAudioOut out;
    out.m_stInfo.dwTimelineOut = 0xFFFFFFFF;
    out.m_stStream.dwAudPlayDelayRTS = 11;
    out.Put(1, 10);
    out.Put(2, 11);
    EXPECT_EQ(out.Out(), 1u);
}

TEST(AudioDue, SequencesDecideTheOrderAndAnEarlyOneBlocksTheRest)
{
    CAudioOut out;
    out.Put(2, c_dwClock + 500);
    out.Put(3, c_dwClock - 500);
    EXPECT_EQ(out.Out(), 0u);
    out.Put(1, c_dwClock);
    EXPECT_EQ(out.Out(), 1u);
    EXPECT_THAT(out.Released(), ElementsAre(1));
}

TEST(AudioDue, AReleaseGivesTheReferenceBack)
{
    const int nLiveBefore = CRigPacket::Live();
    CAudioOut out;
    out.Put(1, c_dwClock);
    out.m_rig.m_owner.m_fnOnRelease = [&](const tagRelease&)
    {
        EXPECT_EQ(CRigPacket::Live(), nLiveBefore + 1); // lent for the call
    };
    EXPECT_EQ(out.Out(), 1u);
    EXPECT_EQ(CRigPacket::Live(), nLiveBefore);
    EXPECT_THAT(out.m_stStream.mapUdtPacket, IsEmpty());
}

TEST(AudioDue, TheOwnersWordIsZeroBeforeEveryCall)
{
    struct CLookingOwner : public CRigOwner
    {
        void OnUDTRecvOutData(UDTCodecBaseDecode_V2*, int* pnDelay) override
        {
            m_vecSeen.push_back(*pnDelay);
            *pnDelay = 33;
        }
        std::vector<int> m_vecSeen;
    };
    CLookingOwner owner;
    CAudioOut out;
    out.m_rig.m_pCB() = &owner;
    out.Put(1, c_dwClock);
    out.Put(2, c_dwClock);
    out.Out();
    EXPECT_THAT(owner.m_vecSeen, ElementsAre(0, 0));
}

// ---- Skipping at the beginning ---------------------------------------------------------------------------------------------------------

TEST(AudioSkip, WhatIsOlderThanTheVideosBeginningIsDropped)
{
    const int nLiveBefore = CRigPacket::Live();
    CAudioOut out;
    out.Open(MEAVMaxVideo).dwStartTimeStamp = 40000;
    out.Put(1, 39998);
    out.Put(2, 39999);
    out.Put(3, 40000);
    out.Put(4, 30000); // behind the first that stays, nothing is skipped
    CLogRecorder log(LOG_LEVEL_ERROR);
    EXPECT_EQ(out.Out(), 2u); // skipped ones are not counted
    EXPECT_THAT(out.Released(), ElementsAre(3, 4));
    EXPECT_THAT(LinesOf(log),
                ElementsAre(ErrorLine("OutPacketAudioNew",
                                      "OutPacketAudioNew skip packet at beginning StartStamp:40000 "
                                      "PacketStamp:39998"),
                            ErrorLine("OutPacketAudioNew",
                                      "OutPacketAudioNew skip packet at beginning StartStamp:40000 "
                                      "PacketStamp:39999")));
    EXPECT_EQ(out.m_stStream.stUinRecvPkgStat.m_uBase, 2u); // the statistics begin with 3
    EXPECT_EQ(CRigPacket::Live(), nLiveBefore);
}

TEST(AudioSkip, ABufferOfOldAudioRunsEmpty)
{
    CAudioOut out;
    out.Open(MEAVMaxVideo).dwStartTimeStamp = 40000;
    out.Put(1, 1).cPrePkgLost = 9;
    out.Put(2, 2);
    EXPECT_EQ(out.Out(), 0u);
    EXPECT_THAT(out.m_stStream.mapUdtPacket, IsEmpty());
    EXPECT_THAT(out.Released(), IsEmpty());
    EXPECT_EQ(out.m_stStream.dwOutSendSeq, c_dwNone);
    EXPECT_EQ(out.m_stStream.dwCurTotalLost, 0u); // skipped packets touch no statistic
    EXPECT_EQ(out.m_stInfo.dwExWaitTick, 0u);
}

TEST(AudioSkip, SkipsEvenWhatIsNotYetDue)
{
    CAudioOut out;
    out.Open(MEAVMaxVideo).dwStartTimeStamp = c_dwClock + 900;
    out.Put(1, c_dwClock + 899);
    out.Put(2, c_dwClock + 900);
    EXPECT_EQ(out.Out(), 0u);
    EXPECT_THAT(out.m_stStream.mapUdtPacket, ElementsAre(Key(2)));
}

TEST(AudioSkip, NothingIsSkippedWithoutVideoBeforeItsOutputOrAfterTheFirstRelease)
{
    {
        CAudioOut out; // no video at all
        out.Put(1, 5);
        EXPECT_EQ(out.Out(), 1u);
    }
    {
        CAudioOut out; // video that has not begun
        out.Open(MEAVMaxVideo);
        out.Put(1, 5);
        EXPECT_EQ(out.Out(), 1u);
    }
    {
        CAudioOut out; // audio plays already
        out.Open(MEAVMaxVideo).dwStartTimeStamp = 40000;
        out.m_stStream.dwOutSendSeq = 0;
        out.Put(1, 5);
        EXPECT_EQ(out.Out(), 1u);
    }
    {
        CAudioOut out; // small video is nobody's pair
        out.Open(MEAVMinVideo).dwStartTimeStamp = 40000;
        out.Put(1, 5);
        EXPECT_EQ(out.Out(), 1u);
    }
}

TEST(AudioSkip, GoesByBigVideoAndBySubVideoOnlyWhereThereIsNoBigOne)
{
    CAudioOut out;
    out.Open(MEAVMaxVideo);
    out.Open(MEAVSubVideo).dwStartTimeStamp = 40000;
    out.Put(1, 39999);
    EXPECT_EQ(out.Out(), 1u); // big video has not begun, sub video does not count
    CAudioOut sub;
    sub.Open(MEAVSubVideo).dwStartTimeStamp = 40000;
    sub.Put(1, 39999);
    EXPECT_EQ(sub.Out(), 0u);
}

TEST(AudioSkip, SequenceFFFFFFFFReleasedLastLooksLikeNothingReleased)
{
    CAudioOut out;
    out.Put(0xFFFFFFFF, 30000);
    EXPECT_EQ(out.Out(), 1u);
    EXPECT_EQ(out.m_stStream.dwOutSendSeq, c_dwNone);
    out.Open(MEAVMaxVideo).dwStartTimeStamp = 40000;
    out.Put(0, 30020);
    EXPECT_EQ(out.Out(), 0u);
    EXPECT_THAT(out.m_stStream.mapUdtPacket, IsEmpty()); // skipped
}

// ---- Pairs -----------------------------------------------------------------------------------------------------------------------------

TEST(AvPair, AudioGoesWithBigThenSubVideoAndTheyWithAudio)
{
    CRecvRig rig;
    MapUinInPkt& mapStreams = rig.m_mapUinInPkt();
    const auto pairOf = [&rig, &mapStreams](uint64 ullUin, uint32 dwSubType)
    {
        const MapUinInPkt::iterator it = rig.GetAVMapUinPair(ullUin, dwSubType);
        return it != mapStreams.end() ? (int)it->first.cSubType : -1;
    };
    EXPECT_EQ(pairOf(7, 1), -1);
    for (const uint8 cSubType : {0, 1, 3, 4, 5, 6, 7, 8, 9})
    {
        mapStreams[tagInPktKey(7, cSubType)];
        mapStreams[tagInPktKey(8, cSubType)];
    }
    EXPECT_EQ(pairOf(7, 1), 7);
    mapStreams[tagInPktKey(7, 2)];
    EXPECT_EQ(pairOf(7, 1), 2);
    EXPECT_EQ(pairOf(8, 1), 7);
    EXPECT_EQ(pairOf(7, 2), 1);
    EXPECT_EQ(pairOf(7, 7), 1);
    EXPECT_EQ(pairOf(9, 2), -1);
    for (const uint32 dwSubType : {0u, 3u, 4u, 5u, 6u, 8u, 9u, 255u, 257u, 258u})
        EXPECT_EQ(pairOf(7, dwSubType), -1) << dwSubType;
    EXPECT_EQ(rig.GetAVMapUinPair(7u, 1u)->first.ullUserAccount, 7u);
    EXPECT_THAT(mapStreams, SizeIs(19)); // looked up, never inserted
}

// ---- What a release leaves behind --------------------------------------------------------------------------------------------------------

TEST(AudioBook, AReleaseIsWrittenDown)
{
    CAudioOut out;
    tagUinDataBuf& st = out.m_stStream;
    st.dwOutOfOrderCnt = 9;
    st.dwCurTotalLost = 10;
    st.stStatInfo.dwTotalLossPkgNum = 20;
    out.m_rig.m_owner.m_nPlayDelay = 70;
    tagDataPacket& stPacket = out.Put(5, c_dwClock - 10);
    stPacket.dwTimeStamp = 777; // the head's time and the playout time are two fields
    stPacket.cPrePkgLost = 3;
    out.m_rig.ClockAt(2000);
    EXPECT_EQ(out.Out(), 1u);
    EXPECT_EQ(st.dwOutOfOrderCnt, 0u);
    EXPECT_EQ(st.dwLastOutPkgMETimeStamp, c_dwClock - 10);
    EXPECT_EQ(st.dwLastOutPkgHeadTS, 777u);
    EXPECT_EQ(st.dwAudPlayDelayRTS, 70u);
    EXPECT_EQ(st.dwLastOutPkgTick, 2000u);
    EXPECT_EQ(st.dwCurTotalLost, 13u);
    EXPECT_EQ(st.stStatInfo.dwTotalLossPkgNum, 23u);
    EXPECT_EQ(st.stUinRecvPkgStat.m_uLast, 5u);
    EXPECT_EQ(st.dwStartTimeStamp, c_dwClock - 10);
    EXPECT_EQ(st.dwOutSendSeq, 5u);
}

TEST(AudioBook, TheBeginningIsWrittenAtTheFirstReleaseAndWheneverItIsZero)
{
    CAudioOut out;
    out.m_stStream.dwStartTimeStamp = 123; // nothing released yet: overwritten
    out.Put(1, 0);
    out.Out();
    EXPECT_EQ(out.m_stStream.dwStartTimeStamp, 0u);
    out.Put(2, 30000);
    out.Out();
    EXPECT_EQ(out.m_stStream.dwStartTimeStamp, 30000u);
    out.Put(3, 30020);
    out.Out();
    EXPECT_EQ(out.m_stStream.dwStartTimeStamp, 30000u);
}

TEST(AudioBook, ALossWidensTheUsersTarget)
{
    struct tagRow
    {
        uint32 dwMode;
        uint32 dwLoss;
        uint32 dwWant;
    };
    const tagRow aRows[] = {{0, 0, 1000},   {0, 1999, 1000}, {0, 2000, 2000}, {2, 10000, 6000},
                            {1, 0, 0},      {1, 749, 0},     {1, 750, 100},   {1, 1499, 100},
                            {1, 1500, 200}, {3, 10000, 1300}};
    for (const tagRow& stRow : aRows)
    {
        CAudioOut out;
        out.m_rig.m_dwUdtRecvMode() = stRow.dwMode;
        out.m_rig.m_dwDownLoss100() = stRow.dwLoss;
        out.m_stInfo.dwFastFactor = 40;
        out.m_stInfo.dwExWaitTick = 77;
        out.Put(4, c_dwClock);
        out.Out();
        EXPECT_EQ(out.m_stInfo.dwExWaitTick, 77u); // no loss before it
        EXPECT_EQ(out.m_stInfo.dwFastFactor, 40u);
        out.Put(8, c_dwClock).cPrePkgLost = 3;
        CLogRecorder log(LOG_LEVEL_ERROR);
        out.Out();
        EXPECT_EQ(out.m_stInfo.dwExWaitTick, stRow.dwWant) << stRow.dwMode << ", " << stRow.dwLoss;
        EXPECT_EQ(out.m_stInfo.dwFastFactor, 12u);
        EXPECT_THAT(LinesOf(log),
                    ElementsAre(ErrorLine("OutPacketAudioNew",
                                          "OutPacketAudioNew lost 3 Packets Before 8 ExWaitTick " +
                                              std::to_string(stRow.dwWant))));
    }
}

TEST(AudioBook, AGapThatNobodyAnnouncedIsToldAndPlayed)
{
    struct tagRow
    {
        uint32 dwBefore;
        uint32 dwSeq;
        uint8 cLost;
        const char* pszWant; // null: nothing
    };
    const tagRow aRows[] = {
        {c_dwNone, 50, 0, nullptr}, // nothing released before
        {10, 11, 0, nullptr},
        {10, 12, 0, "PrePkgLost is Error! 12,2"},
        {10, 12, 1, nullptr}, // any count will do
        {10, 90, 1, nullptr},
        {10, 10, 0, nullptr},
        {10, 9, 0, "PrePkgLost is Error! 9,4294967295"}, // backwards
        {0xFFFFFFFE, 0, 0, "PrePkgLost is Error! 0,2"},
        {0xFFFFFFFE, 0xFFFFFFFF, 0, nullptr},
    };
    for (const tagRow& stRow : aRows)
    {
        CAudioOut out;
        out.m_stStream.dwOutSendSeq = stRow.dwBefore;
        out.Put(stRow.dwSeq, c_dwClock).cPrePkgLost = stRow.cLost;
        CLogRecorder log;
        EXPECT_EQ(out.Out(), 1u);
        EXPECT_EQ(log.Count("PrePkgLost is Error!"), stRow.pszWant != nullptr ? 1u : 0u)
            << stRow.dwBefore << ", " << stRow.dwSeq;
        if (stRow.pszWant != nullptr)
        {
            EXPECT_THAT(LinesOf(log), Contains(DebugLine("OutPacketAudioNew", stRow.pszWant)));
        }
    }
}

TEST(AudioBook, ACallbackOf101MillisecondsIsTold)
{
    for (const uint32 dwTakes : {0u, 100u, 101u, 5000u})
    {
        CAudioOut out;
        out.m_rig.ClockAt(0xFFFFFFD0);
        out.m_rig.m_owner.m_fnOnRelease = [&](const tagRelease&) { out.m_rig.Advance(dwTakes); };
        out.Put(1, c_dwClock);
        CLogRecorder log(LOG_LEVEL_ERROR);
        EXPECT_EQ(out.Out(), 1u);
        std::vector<tagLine> vecWant;
        if (dwTakes >= 101)
            vecWant.push_back(ErrorLine("OutPacketAudioNew", "OutPacketAudioNew CallBack Take " +
                                                                 std::to_string(dwTakes) +
                                                                 ", more than 100ms"));
        EXPECT_EQ(LinesOf(log), vecWant);
        EXPECT_EQ(out.m_stStream.dwLastOutPkgTick, 0xFFFFFFD0u + dwTakes);
    }
}

TEST(AudioTrace, IsADebugLinePerReleaseAndOneToSeeOnRequest)
{
    CAudioOut out;
    out.m_rig.ClockAt(3000);
    out.m_stInfo.dwTimelineIn = c_dwClock + 400;
    out.m_stInfo.dwTimelineMin = 1000;
    out.m_stInfo.dwTimelineMax = 1250;
    out.m_stStream.dwAudPlayDelayRTS = 60;
    out.m_stStream.dwLogPrintFlag = 0xFFFFFFFF;
    out.m_rig.m_owner.m_nPlayDelay = 90; // printed is the delay that decided
    for (uint32 dwSeq = 5; dwSeq < 7; ++dwSeq)
    {
        tagDataPacket& st = out.Put(dwSeq, c_dwClock + 50);
        st.dwSeq = 0xFFFFFFFF;
        st.dwRecvTime = 2900;
        st.cFrmType = 255;
        st.cGopIdx = 2;
        st.cFrmIdx = 3;
        st.cPkgNum = 4;
    }
    const auto text = [](int nSeq)
    {
        return "OutPacketNew Subtype:1 Seq:" + std::to_string(nSeq) +
               " 4294967295 TimelineOut:50000 METimeStamp:50050 DataLen:400 Jitter:250 Tickout:100 "
               "FrameType:255 "
               "GOP:2 FrameIdx:3 TotalPkg:4 AudPlayDelay:60 Uin:7 OutStamp:3000";
    };
    CLogRecorder log;
    EXPECT_EQ(out.Out(), 2u);
    EXPECT_THAT(LinesOf(log), ElementsAre(ErrorLine("OutPacketAudioNew", text(5)),
                                          DebugLine("OutPacketAudioNew", text(6))));
    EXPECT_EQ(out.m_stStream.dwLogPrintFlag, 0xFFFFFFFDu);
}

TEST(AudioTrace, TheReceiverWideFlagShowsEveryReleaseAndTakesTheStreamsRequestBack)
{
    CAudioOut out;
    out.m_rig.m_LogPrintFlag() = LOG_RECV; // any bit
    out.m_stStream.dwLogPrintFlag = LOG_OUT | LOG_RECV;
    out.Put(1, c_dwClock);
    out.Put(2, c_dwClock);
    CLogRecorder log(LOG_LEVEL_ERROR);
    out.Out();
    EXPECT_EQ(log.Count("OutPacketNew"), 2u);
    EXPECT_EQ(out.m_stStream.dwLogPrintFlag, (uint32)LOG_RECV);
    EXPECT_EQ(out.m_rig.m_LogPrintFlag(), (uint32)LOG_RECV);
}
