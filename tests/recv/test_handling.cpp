// One packet at a time: into the buffer of its stream, or out again as a duplicate.

#include "RecvTest.h"

#include <vector>

using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::Key;
using ::testing::SizeIs;

namespace
{

void Handle(CRecvRig& rig, const tagRigPacket& stPacket)
{
    tagDataPacket stRecord = CRecvRig::Record(stPacket, rig.Now());
    rig.OnDataHandleNew(stRecord);
}

tagRigPacket Video(uint32 dwSeq, uint32 dwMedia = 5000, uint8 cSubType = MEAVMaxVideo)
{
    return VideoPacket(7, dwSeq, dwMedia, def_FrameType_P, 0, 0, 0, 2, cSubType);
}

} // namespace

// ---- New streams and users -----------------------------------------------------------------------------------------------------

TEST(NewStream, StartsWithItsTicksItsDeltaAndTheSettingsInForce)
{
    for (const uint8 cSubType : {MEAVAudio, MEAVMaxVideo, MEAVPPTShare})
    {
        CRecvRig rig(4711);
        rig.m_dwTimelineDelta() = 1234;
        rig.m_dwTimelineDeltaMax() = 5678;
        Handle(rig, Video(1, 5000, cSubType));
        const tagUinDataBuf& st = *rig.Stream(7, cSubType);
        EXPECT_EQ(st.dwTimelineMin, c_dwNone);
        EXPECT_EQ(st.dwTimelineMax, 0u);
        EXPECT_EQ(st.dwTimelineDelta, 100u);
        EXPECT_EQ(st.dwTimelineOut, c_dwNone);
        EXPECT_EQ(st.dwLastRecvPackTime, 4711u);
        EXPECT_EQ(st.dwLastCheckDeltaTime, 4711u);
        EXPECT_EQ(st.dwRecvFirstPkgTime, 4711u);
        EXPECT_EQ(st.dwConfigTimelineDelta, 1234u);
        EXPECT_EQ(st.dwAVStampSync, 1u);
        EXPECT_EQ(st.dwOutputSwitch, 1u);
        EXPECT_EQ(st.stStatInfo.dwConfgMinDelay, 1234u);
        EXPECT_EQ(st.stStatInfo.dwConfgMaxDelay, 5678u);
        EXPECT_EQ(st.stStatInfo.dwTotalRecvPkgNum, 1u);
        EXPECT_EQ(st.dwOutSendSeq, c_dwNone);
    }
}

TEST(NewStream, AUserIsCountedWithTheFirstOfTheirStreams)
{
    CRecvRig rig;
    Handle(rig, AudioPacket(7, 1));
    EXPECT_EQ(rig.m_dwUinNum(), 1u);
    Handle(rig, Video(1));
    EXPECT_EQ(rig.m_dwUinNum(), 1u);
    EXPECT_THAT(rig.m_mapUinDataInfo(), SizeIs(1));
    Handle(rig, AudioPacket(8, 1));
    EXPECT_EQ(rig.m_dwUinNum(), 2u);
    Handle(rig, AudioPacket(8, 2));
    EXPECT_EQ(rig.m_dwUinNum(), 2u);
    EXPECT_THAT(rig.m_mapUinInPkt(), SizeIs(3));
}

TEST(NewStream, OnlySubTypes2And3And7MakeAUserOneWithVideo)
{
    for (int nSubType = 0; nSubType <= 10; ++nSubType)
    {
        CRecvRig rig;
        Handle(rig, Video(1, 5000, (uint8)nSubType));
        const bool bVideo = nSubType == 2 || nSubType == 3 || nSubType == 7;
        EXPECT_EQ(rig.User(7)->dwHasVideo, bVideo ? 1u : 0u) << nSubType;
        EXPECT_EQ(rig.m_dwOutDelayDone(), bVideo ? 1u : 0u) << nSubType;
        EXPECT_EQ(rig.Stream(7, (uint8)nSubType)->dwPrePkgSeq, bVideo ? 1u : c_dwNone) << nSubType;
    }
}

TEST(NewStream, AcceptingAPacketKeepsItsMarksItsTickAndAReference)
{
    CRecvRig rig(1000);
    Handle(rig, Video(1));
    rig.ClockAt(1500);
    tagDataPacket stRecord = CRecvRig::Record(Video(2, 6000), 1400);
    rig.OnDataHandleNew(stRecord);
    const tagDataPacket* pstKept = rig.Buffered(7, MEAVMaxVideo, 2);
    ASSERT_NE(pstKept, nullptr);
    EXPECT_EQ(pstKept->dwMETimeStamp, 6000u);
    EXPECT_EQ(pstKept->dwRecvTime, 1400u);
    EXPECT_EQ(pstKept->pRawData.p, stRecord.pRawData.p);
    EXPECT_EQ(stRecord.pRawData->iRefs, 2); // the caller's element is left as it was
    EXPECT_EQ(rig.Stream(7, MEAVMaxVideo)->dwLastRecvPackTime, 1500u);
    EXPECT_EQ(rig.Stream(7, MEAVMaxVideo)->mapRecvSeq[2], 1500u);
    EXPECT_EQ(rig.Stream(7, MEAVMaxVideo)->dwRecvFirstPkgTime, 1000u);
}

TEST(NewStream, GopMarksAreMadeBeforeThePacketIsFiled)
{
    CRecvRig rig;
    Handle(rig, VideoPacket(7, 5, 5000, def_FrameType_P, 0, 0, 1, 2));
    Handle(rig, VideoPacket(7, 4, 5000, def_FrameType_P, 0, 0, 0, 2));
    EXPECT_EQ(rig.Buffered(7, MEAVMaxVideo, 5)->cIsFrmLastPkg, 1);
    EXPECT_EQ(rig.Buffered(7, MEAVMaxVideo, 4)->cIsFrmLastPkg, 0);
    EXPECT_EQ(rig.Buffered(7, MEAVMaxVideo, 4)->cIsOutOfOrderSeq, 1);
}

// ---- The receive trace ---------------------------------------------------------------------------------------------------------

TEST(ReceiveTrace, IsWrittenOnceWhenTheStreamWasAskedForIt)
{
    CRecvRig rig;
    Handle(rig, Video(1));
    rig.Stream(7, MEAVMaxVideo)->dwLogPrintFlag = 0xFFFFFFFF;
    rig.Stream(7, MEAVMaxVideo)->dwAudPlayDelayRTS = 44;
    CLogRecorder log(LOG_LEVEL_ERROR);
    tagDataPacket stRecord =
        CRecvRig::Record(VideoPacket(7, 2, 4000000000u, def_FrameType_P, 9, 8, 3, 6).Fec(2), 1);
    stRecord.dwSeq = 12345678;
    rig.OnDataHandleNew(stRecord);
    Handle(rig, Video(3));
    // The new GOP index has taken the receiver-wide request back before; the stream's own stands.
    EXPECT_THAT(
        LinesOf(log, "OnDataHandleNew"),
        ElementsAre(ErrorLine("OnDataHandleNew",
                              "OnDataHandle: SubType 2 seq     2 12345678 FT 1 PkgIdx  3 TotalPkgCnt  6 "
                              "fecN  2 FrmIdx  8 GopIdx  9 dataTS 4000000000 AudPlayDelay 44 Uin 7")));
    EXPECT_EQ(rig.Stream(7, MEAVMaxVideo)->dwLogPrintFlag, 0xFFFFFFFEu); // its own bit alone
}

TEST(ReceiveTrace, OtherBitsAskForNothingHere)
{
    CRecvRig rig;
    Handle(rig, AudioPacket(7, 1));
    rig.Stream(7, MEAVAudio)->dwLogPrintFlag = LOG_OUT | LOG_TIME_PARAM;
    CLogRecorder log;
    Handle(rig, AudioPacket(7, 2));
    EXPECT_EQ(log.Count("OnDataHandle:"), 0u);
    EXPECT_EQ(rig.Stream(7, MEAVAudio)->dwLogPrintFlag, (uint32)(LOG_OUT | LOG_TIME_PARAM));
}

TEST(ReceiveTrace, TheReceiverWideFlagAsksForEveryPacketAndStays)
{
    CRecvRig rig;
    Handle(rig, AudioPacket(7, 1));
    rig.m_LogPrintFlag() = LOG_TIME_PARAM; // any bit
    rig.Stream(7, MEAVAudio)->dwLogPrintFlag = LOG_RECV;
    CLogRecorder log;
    Handle(rig, AudioPacket(7, 2));
    Handle(rig, AudioPacket(7, 2)); // a duplicate is traced too
    EXPECT_EQ(log.Count("OnDataHandle:"), 2u);
    EXPECT_EQ(rig.m_LogPrintFlag(), (uint32)LOG_TIME_PARAM);
    EXPECT_EQ(rig.Stream(7, MEAVAudio)->dwLogPrintFlag, 0u);
}

// ---- Synchronisation time-out ----------------------------------------------------------------------------------------------------

TEST(SyncTimeOut, FiresOnTheFirstPacketMoreThan2500AfterTheStreamsFirst)
{
    for (const uint32 dwStart : {1u, 1000u, 0xFFFFFFFFu - 2499u, 0xFFFFFFFFu})
    {
        CRecvRig rig(dwStart);
        Handle(rig, AudioPacket(7, 1));
        rig.m_LogPrintFlag() = 0;
        CLogRecorder log(LOG_LEVEL_ERROR);
        rig.ClockAt((uint64)dwStart + 2500);
        Handle(rig, AudioPacket(7, 2));
        EXPECT_FALSE(rig.Stream(7, MEAVAudio)->bPushStmDone);
        EXPECT_EQ(rig.m_dwRoomLogicState(), 0u);

        rig.ClockAt((uint64)dwStart + 2501);
        rig.m_dwOutDelayDone() = 0;
        Handle(rig, AudioPacket(7, 3));
        EXPECT_TRUE(rig.Stream(7, MEAVAudio)->bPushStmDone);
        EXPECT_EQ(rig.m_dwRoomLogicState(), 3u);
        EXPECT_EQ(rig.m_dwOutDelayDone(), 1u);
        EXPECT_EQ(rig.Stream(7, MEAVAudio)->dwAudPushDone, 1u);
        EXPECT_EQ(rig.Stream(7, MEAVAudio)->dwOutputSwitch, 0u); // no video here
        EXPECT_EQ(rig.User(7)->dwVidResetTimelineMin, 0u);
        EXPECT_THAT(
            LinesOf(log, "OnDataHandleNew"),
            ElementsAre(ErrorLine("OnDataHandleNew",
                                  "m_dwRoomLogicState didn't set to be true for a long time(2.5s)! force to "
                                  "be true.")));
    }
}

TEST(SyncTimeOut, FiresOncePerPushPhase)
{
    CRecvRig rig(1000);
    Handle(rig, AudioPacket(7, 1));
    rig.ClockAt(3501);
    Handle(rig, AudioPacket(7, 2));
    rig.m_dwRoomLogicState() = 0;
    rig.m_LogPrintFlag() = 1;
    rig.Stream(7, MEAVAudio)->dwOutputSwitch = 1;
    rig.ClockAt(9000);
    Handle(rig, AudioPacket(7, 3));
    EXPECT_EQ(rig.m_dwRoomLogicState(), 0u);
    EXPECT_EQ(rig.m_LogPrintFlag(), 1u);
    EXPECT_EQ(rig.Stream(7, MEAVAudio)->dwOutputSwitch, 1u);
}

TEST(SyncTimeOut, AsksForAFreshBandOfAUserWithVideoAndTurnsTraceOff)
{
    CRecvRig rig(1000);
    Handle(rig, Video(1));
    rig.ClockAt(3501);
    rig.m_LogPrintFlag() = 0xFFFFFFFF;
    CLogRecorder log(LOG_LEVEL_ERROR);
    Handle(rig, Video(2));
    EXPECT_EQ(log.Count("OnDataHandle:"), 1u); // the trace came before
    EXPECT_EQ(rig.m_LogPrintFlag(), 0u);
    EXPECT_EQ(rig.Stream(7, MEAVMaxVideo)->dwOutputSwitch, 1u);
    EXPECT_THAT(LinesOf(log, "OnDataHandleNew"),
                Contains(ErrorLine("OnDataHandleNew", "TimelineMinReset: old-dwVidResetTimelineMin 1")));
    EXPECT_EQ(rig.User(7)->dwVidResetTimelineMin, 2u); // asked for here, done by this very packet
}

TEST(SyncTimeOut, AsksNoSecondTimeAndForcesNoOtherRoomState)
{
    for (const uint32 dwReset : {1u, 2u})
    {
        CRecvRig rig(1000);
        Handle(rig, Video(1));
        rig.User(7)->dwVidResetTimelineMin = dwReset;
        rig.m_dwRoomLogicState() = 2;
        rig.ClockAt(3501);
        CLogRecorder log(LOG_LEVEL_ERROR);
        Handle(rig, Video(2));
        EXPECT_EQ(log.Count("TimelineMinReset"), 0u);
        EXPECT_EQ(log.Count("m_dwRoomLogicState"), 0u);
        EXPECT_EQ(rig.m_dwRoomLogicState(), 2u);
        EXPECT_TRUE(rig.Stream(7, MEAVMaxVideo)->bPushStmDone);
    }
}

TEST(SyncTimeOut, OfAudioAsksForTheBandWhenTheUserHasVideo)
{
    CRecvRig rig(1000);
    Handle(rig, AudioPacket(7, 1));
    rig.ClockAt(3400);
    Handle(rig, Video(1));
    rig.ClockAt(3501);
    CLogRecorder log(LOG_LEVEL_ERROR);
    Handle(rig, AudioPacket(7, 2));
    EXPECT_EQ(log.Count("TimelineMinReset: old-dwVidResetTimelineMin 1"), 1u);
    EXPECT_EQ(rig.Stream(7, MEAVAudio)->dwOutputSwitch, 1u);
    EXPECT_FALSE(rig.Stream(7, MEAVMaxVideo)->bPushStmDone); // each stream has its own wait
}

TEST(SyncTimeOut, ADuplicateFiresItToo)
{
    CRecvRig rig(1000);
    Handle(rig, AudioPacket(7, 1));
    rig.ClockAt(3501);
    Handle(rig, AudioPacket(7, 1));
    EXPECT_TRUE(rig.Stream(7, MEAVAudio)->bPushStmDone);
    EXPECT_EQ(rig.m_dwRoomLogicState(), 3u);
}

// ---- Answers and duplicates --------------------------------------------------------------------------------------------------------

TEST(RequestAnswer, ClosesItsRequestEvenAsADuplicate)
{
    CRecvRig rig;
    Handle(rig, AudioPacket(7, 5));
    rig.Stream(7, MEAVAudio)->mapRequestSeq = {{4, 900}, {5, 900}, {6, 900}};
    CLogRecorder log;
    tagDataPacket stRecord = CRecvRig::Record(AudioPacket(7, 4), 1);
    stRecord.dwSeq = 77;
    rig.OnDataHandleNew(stRecord);
    EXPECT_NE(rig.Buffered(7, MEAVAudio, 4), nullptr);
    Handle(rig, AudioPacket(7, 5));
    EXPECT_THAT(rig.Stream(7, MEAVAudio)->mapRequestSeq, ElementsAre(Key(6)));
    EXPECT_EQ(log.Count("recv_request_pkg"), 2u);
    EXPECT_EQ(tagLine(log.FirstLine("recv_request_pkg")),
              DebugLine("OnDataHandleNew", "recv_request_pkg: subtype 1 seq     4    77 Uin 7"));
}

TEST(Duplicate, OfABufferedPacketIsCountedToldAndDropped)
{
    CRecvRig rig(1000);
    Handle(rig, VideoPacket(7, 5, 5000, def_FrameType_I, 3, 4, 1, 6));
    const UDTCodecBaseDecode_V2* const pFirst = rig.Buffered(7, MEAVMaxVideo, 5)->pRawData.p;
    const uint32 dwMax = rig.User(7)->dwTimelineMax;
    rig.ClockAt(1700);
    CLogRecorder log;
    tagDataPacket stRecord = CRecvRig::Record(VideoPacket(7, 5, 5000, def_FrameType_I, 3, 4, 1, 6), 1700);
    stRecord.dwSeq = 123;
    rig.OnDataHandleNew(stRecord);
    const tagUinDataBuf& st = *rig.Stream(7, MEAVMaxVideo);
    EXPECT_EQ(st.mapUdtPacket.at(5).pRawData.p, pFirst);
    EXPECT_EQ(st.stStatInfo.dwTotalRecvPkgNum, 2u);
    EXPECT_EQ(st.dwLastRecvPackTime, 1000u);
    EXPECT_EQ(st.mapRecvSeq.at(5), 1000u);
    EXPECT_EQ(rig.User(7)->dwTimelineMax, dwMax); // it did not feed the band
    EXPECT_THAT(
        LinesOf(log, "OnDataHandleNew"),
        ElementsAre(DebugLine("OnDataHandleNew",
                              "Pkg is duplicated: SubType 2 SendSeq     5   123 Duplicate 1 TimeStamp 5000 "
                              "TLMin 4294967295 gI  3 fI  4 pI  1 ft 0 GopC  1 Uin 7")));
}

TEST(Duplicate, OfABufferedPacketThatLeftTheHistoryFeedsTheBandAndIsThenDropped)
{
    CRecvRig rig(1000);
    Handle(rig, AudioPacket(7, 5).At(5000));
    rig.Stream(7, MEAVAudio)->mapRecvSeq.clear();
    const uint32 dwMax = rig.User(7)->dwTimelineMax;
    rig.ClockAt(1700);
    CLogRecorder log;
    Handle(rig, AudioPacket(7, 5).At(5000));
    EXPECT_EQ(rig.User(7)->dwTimelineMax, dwMax + 700);
    EXPECT_EQ(log.Count("Duplicate 0"), 1u);
    EXPECT_EQ(log.Count("Pkg is duplicated"), 1u);
    EXPECT_THAT(rig.Stream(7, MEAVAudio)->mapRecvSeq, IsEmpty()); // it did not re-enter
    EXPECT_EQ(rig.Stream(7, MEAVAudio)->dwLastRecvPackTime, 1000u);
}

TEST(Duplicate, OfAPacketThatWasPlayedIsDroppedWithoutFeedingTheBand)
{
    CRecvRig rig(1000);
    Handle(rig, AudioPacket(7, 5).At(5000));
    rig.Stream(7, MEAVAudio)->mapUdtPacket.clear();
    const uint32 dwMax = rig.User(7)->dwTimelineMax;
    rig.ClockAt(1700);
    CLogRecorder log;
    Handle(rig, AudioPacket(7, 5).At(5000));
    EXPECT_EQ(log.Count("Duplicate 1"), 1u);
    EXPECT_EQ(rig.User(7)->dwTimelineMax, dwMax);
    EXPECT_EQ(rig.Buffered(7, MEAVAudio, 5), nullptr);
}

TEST(Duplicate, OfAVideoPacketStillPassesTheGopTracker)
{
    CRecvRig rig;
    Handle(rig, VideoPacket(7, 5, 5000, def_FrameType_P, 0, 0));
    EXPECT_EQ(rig.Stream(7, MEAVMaxVideo)->dwVidGopCnt, 0u);
    Handle(rig, VideoPacket(7, 5, 5000, def_FrameType_I, 0, 0)); // same sequence, now an I frame
    EXPECT_EQ(rig.Stream(7, MEAVMaxVideo)->dwVidGopCnt, 1u);
    EXPECT_EQ(rig.Buffered(7, MEAVMaxVideo, 5)->cFrmType, def_FrameType_P);
}

TEST(DuplicateHistory, LastsTheBoundOfBufferingButSixSecondsAtLeast)
{
    struct tagRow
    {
        uint32 dwDeltaMax;
        uint32 dwLasts;
    };
    for (const tagRow& stRow : {tagRow{0, 6000}, tagRow{500, 6000}, tagRow{5999, 6000}, tagRow{6000, 6000},
                                tagRow{6001, 6001}, tagRow{65535, 65535}})
    {
        for (const uint32 dwStart : {5u, 0xFFFFFFF0u})
        {
            CRecvRig rig(dwStart);
            rig.m_dwTimelineDeltaMax() = stRow.dwDeltaMax;
            tagUinDataBuf stStream;
            stStream.mapRecvSeq[8] = dwStart;
            rig.ClockAt((uint64)dwStart + stRow.dwLasts - 1);
            EXPECT_TRUE(rig.CheckDuplicate(stStream, 8u));
            EXPECT_THAT(stStream.mapRecvSeq, SizeIs(1));
            rig.ClockAt((uint64)dwStart + stRow.dwLasts);
            EXPECT_TRUE(rig.CheckDuplicate(stStream, 8u)); // found, then purged by the same call
            EXPECT_THAT(stStream.mapRecvSeq, IsEmpty());
            EXPECT_FALSE(rig.CheckDuplicate(stStream, 8u));
        }
    }
}

TEST(DuplicateHistory, IsPurgedFromTheLowestSequenceUpToTheFirstYoungOne)
{
    CRecvRig rig(10000);
    tagUinDataBuf stStream;
    stStream.mapRecvSeq = {{1, 3000}, {2, 4000}, {3, 4001}, {4, 100}, {0xFFFFFFFE, 100}};
    EXPECT_FALSE(rig.CheckDuplicate(stStream, 9u)); // any look-up purges
    EXPECT_THAT(stStream.mapRecvSeq, ElementsAre(Key(3), Key(4), Key(0xFFFFFFFE)));
    EXPECT_TRUE(rig.CheckDuplicate(stStream, 4u)); // old, but behind a younger one
    rig.ClockAt(10001);
    EXPECT_TRUE(rig.CheckDuplicate(stStream, 0xFFFFFFFEu));
    EXPECT_THAT(stStream.mapRecvSeq, IsEmpty());
}

TEST(DuplicateHistory, ASequenceIsTakenAgainOnceForgotten)
{
    CRecvRig rig(1000);
    Handle(rig, AudioPacket(7, 5));
    rig.Stream(7, MEAVAudio)->mapUdtPacket.clear();
    rig.ClockAt(7000);
    Handle(rig, AudioPacket(7, 5)); // purged by this call, still a duplicate
    EXPECT_EQ(rig.Buffered(7, MEAVAudio, 5), nullptr);
    Handle(rig, AudioPacket(7, 5));
    EXPECT_NE(rig.Buffered(7, MEAVAudio, 5), nullptr);
}

// ---- Early push ----------------------------------------------------------------------------------------------------------------------

TEST(EarlyPush, TheFifthEarlyPacketPullsTheTimelineBackToTheFirstBufferedOne)
{
    //   clock 50000; packets of 48000 and before are early
    //   1: 48000   2: 48001 (not early)   3..5: early   6: the fifth early one
    CRecvRig rig(1000);
    Handle(rig, Video(20, 49000));
    rig.User(7)->dwTimelineOut = 50000;
    tagUinDataBuf& st = *rig.Stream(7, MEAVMaxVideo);
    Handle(rig, Video(21, 48000));
    EXPECT_EQ(st.stStatInfo.dwSkipPkgNum, 1u);
    Handle(rig, Video(22, 48001));
    EXPECT_EQ(st.stStatInfo.dwSkipPkgNum, 1u);
    Handle(rig, Video(15, 40000));
    Handle(rig, Video(16, 40000));
    Handle(rig, Video(17, 0));
    EXPECT_EQ(st.stStatInfo.dwSkipPkgNum, 4u);
    EXPECT_EQ(rig.User(7)->dwTimelineOut, 50000u);

    Handle(rig, AudioPacket(7, 1).At(44500));
    Handle(rig, AudioPacket(7, 2).At(44501)); // both early for audio, which counts by itself
    EXPECT_EQ(st.stStatInfo.dwSkipPkgNum, 4u);
    ASSERT_EQ(rig.Stream(7, MEAVAudio)->stStatInfo.dwSkipPkgNum, 2u);
    rig.User(7)->dwVidResetTimelineMin = 2;
    rig.User(7)->dwTimelineIn = 60000;
    st.bPushStmDone = true;
    const uint64 ullOther = 8;
    Handle(rig, AudioPacket(ullOther, 1).At(90000));

    rig.ClockAt(1234);
    CLogRecorder log(LOG_LEVEL_ERROR);
    Handle(rig, Video(18, 41000));
    EXPECT_THAT(LinesOf(log, "OnDataHandleNew"),
                ElementsAre(ErrorLine("OnDataHandleNew",
                                      "Server Push Early Packet Make TimelineOut From 50000 Back to 40000")));
    EXPECT_EQ(rig.User(7)->dwTimelineOut, 40000u); // sequence 15, the lowest
    EXPECT_EQ(rig.User(7)->dwTimelineIn, 41000u);  // lowered to this packet
    EXPECT_EQ(rig.User(7)->dwVidResetTimelineMin, 0u);
    EXPECT_EQ(st.dwRecvFirstPkgTime, 1234u);
    EXPECT_FALSE(st.bPushStmDone);
    EXPECT_THAT(st.mapRecvSeq, IsEmpty());
    EXPECT_THAT(st.mapUdtPacket, ElementsAre(Key(15), Key(16), Key(17), Key(18))); // past 44500: dropped
    EXPECT_THAT(rig.Stream(7, MEAVAudio)->mapUdtPacket, ElementsAre(Key(1)));      // and of audio too
    EXPECT_THAT(rig.Stream(7, MEAVAudio)->mapRecvSeq, IsEmpty());
    EXPECT_THAT(rig.Stream(ullOther, MEAVAudio)->mapUdtPacket, SizeIs(1));
    EXPECT_THAT(rig.Stream(ullOther, MEAVAudio)->mapRecvSeq, SizeIs(1));
}

TEST(EarlyPush, EveryLaterEarlyPacketPullsAtOnce)
{
    CRecvRig rig;
    Handle(rig, Video(10, 40000));
    rig.Stream(7, MEAVMaxVideo)->stStatInfo.dwSkipPkgNum = 5;
    rig.User(7)->dwTimelineOut = 50000;
    Handle(rig, Video(11, 48001));
    EXPECT_EQ(rig.User(7)->dwTimelineOut, 50000u); // not early
    Handle(rig, Video(12, 48000));
    EXPECT_EQ(rig.User(7)->dwTimelineOut, 40000u);
    EXPECT_EQ(rig.Stream(7, MEAVMaxVideo)->stStatInfo.dwSkipPkgNum, 6u);
}

TEST(EarlyPush, OfAudioKeepsTheHistoryOfVideo)
{
    CRecvRig rig;
    Handle(rig, Video(10, 49000));
    Handle(rig, AudioPacket(7, 1).At(40000));
    rig.Stream(7, MEAVAudio)->stStatInfo.dwSkipPkgNum = 4;
    rig.User(7)->dwTimelineOut = 50000;
    Handle(rig, AudioPacket(7, 2).At(40020));
    EXPECT_EQ(rig.User(7)->dwTimelineOut, 40000u);
    EXPECT_THAT(rig.Stream(7, MEAVAudio)->mapRecvSeq, IsEmpty());
    EXPECT_THAT(rig.Stream(7, MEAVMaxVideo)->mapRecvSeq, ElementsAre(Key(10)));
}

TEST(EarlyPush, RestartsTheWaitForTheRoomState)
{
    CRecvRig rig(1000);
    Handle(rig, Video(10, 40000));
    rig.ClockAt(3501);
    Handle(rig, Video(11, 40000));
    EXPECT_TRUE(rig.Stream(7, MEAVMaxVideo)->bPushStmDone);
    rig.Stream(7, MEAVMaxVideo)->stStatInfo.dwSkipPkgNum = 4;
    rig.User(7)->dwTimelineOut = 50000;
    Handle(rig, Video(12, 40000));
    EXPECT_FALSE(rig.Stream(7, MEAVMaxVideo)->bPushStmDone);
    rig.ClockAt(6001);
    Handle(rig, Video(13, 40000));
    EXPECT_FALSE(rig.Stream(7, MEAVMaxVideo)->bPushStmDone);
    rig.ClockAt(6002);
    Handle(rig, Video(14, 40000));
    EXPECT_TRUE(rig.Stream(7, MEAVMaxVideo)->bPushStmDone);
}

TEST(EarlyPush, SubTypeZeroIsNeverEarly)
{
    CRecvRig rig;
    Handle(rig, Video(1, 40000, 0));
    rig.User(7)->dwTimelineOut = 50000;
    for (uint32 dwSeq = 2; dwSeq < 12; ++dwSeq)
        Handle(rig, Video(dwSeq, 40000, 0));
    EXPECT_EQ(rig.Stream(7, 0)->stStatInfo.dwSkipPkgNum, 0u);
    EXPECT_EQ(rig.User(7)->dwTimelineOut, 50000u);
}

TEST(EarlyPush, BeforeTheClockStartedOnlyAnOverflowingSumIsEarly)
{
    CRecvRig rig;
    Handle(rig, Video(1, 0));
    EXPECT_EQ(rig.Stream(7, MEAVMaxVideo)->stStatInfo.dwSkipPkgNum, 0u);
    Handle(rig, Video(2, 0xFFFFF82F)); // the sum is 0xFFFFFFFF
    EXPECT_EQ(rig.Stream(7, MEAVMaxVideo)->stStatInfo.dwSkipPkgNum, 0u);
    Handle(rig, Video(3, 0xFFFFF830)); // the sum is 0: at the clock
    EXPECT_EQ(rig.Stream(7, MEAVMaxVideo)->stStatInfo.dwSkipPkgNum, 1u);
    Handle(rig, Video(4, 0xFFFFF831)); // the sum is 1
    EXPECT_EQ(rig.Stream(7, MEAVMaxVideo)->stStatInfo.dwSkipPkgNum, 1u);
}

TEST(EarlyPush, TheLimitOfWhatStaysWrapsWithTheSum)
{
    // The new point + 4500 wraps to 499: what lies above goes, the pulling packet itself included.
    CRecvRig rig;
    Handle(rig, Video(1, 0xFFFFF05F));
    Handle(rig, Video(2, 499));
    Handle(rig, Video(3, 500));
    rig.Stream(7, MEAVMaxVideo)->stStatInfo.dwSkipPkgNum = 4;
    rig.User(7)->dwTimelineOut = 0xFFFFFFFF;
    Handle(rig, Video(4, 0xFFFFF000));
    EXPECT_EQ(rig.User(7)->dwTimelineOut, 0xFFFFF05Fu);
    EXPECT_THAT(rig.Stream(7, MEAVMaxVideo)->mapUdtPacket, ElementsAre(Key(2)));
}

TEST(EarlyPush, ADroppedDuplicateIsNotCounted)
{
    CRecvRig rig;
    Handle(rig, Video(1, 40000));
    rig.User(7)->dwTimelineOut = 50000;
    Handle(rig, Video(1, 40000));
    EXPECT_EQ(rig.Stream(7, MEAVMaxVideo)->stStatInfo.dwSkipPkgNum, 0u);
}
