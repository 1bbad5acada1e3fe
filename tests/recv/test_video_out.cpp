// When video leaves, and what is told about the first picture.

#include "RecvTest.h"

#include <vector>

using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::Key;
using ::testing::SizeIs;

namespace
{

// A playing room with user 7, whose clock stands at 50000 and whose stream may leave.
struct CVideoOut
{
    explicit CVideoOut(uint8 cSubType = MEAVMaxVideo)
        : m_rig(1000), m_cSubType(cSubType), m_stInfo(m_rig.m_mapUinDataInfo()[7]),
          m_stStream(m_rig.m_mapUinInPkt()[tagInPktKey(7, cSubType)])
    {
        m_rig.m_dwRoomLogicState() = 3;
        m_stInfo.dwTimelineOut = c_dwClock;
        m_stStream.dwOutPutDelayFlag = 1;
        m_stStream.dwRecvFirstPkgTime = 900;
    }

    tagDataPacket& Put(uint32 dwSeq, uint32 dwMedia, uint8 cFrmType = P)
    {
        return m_rig.Put(VideoPacket(7, dwSeq, dwMedia, cFrmType, 2, 3, 0, 4, m_cSubType));
    }
    uint32 Out() { return m_rig.OutPacketVideoNew(m_stStream); }
    std::vector<uint32> Released() const { return m_rig.m_owner.Sequences(7, m_cSubType); }

    CRecvRig m_rig;
    uint8 m_cSubType;
    tagUinDataInfo& m_stInfo;
    tagUinDataBuf& m_stStream;
};

// Runs packets through the first-picture statistics alone.
struct CPicture
{
    CPicture() : m_rig(2000) { m_stStream.dwRecvFirstPkgTime = 1700; }

    void Frame(uint8 cFrmType, uint8 cPkgs, uint8 cFec = 0, uint8 cLost = 0)
    {
        for (uint8 cIdx = 0; cIdx < cPkgs; ++cIdx)
        {
            tagDataPacket st = CRecvRig::Record(VideoPacket(7, 1, 5000, cFrmType, 8, 9, cIdx, cPkgs), 0);
            st.cFecNum = cFec;
            st.cFrmLostNum = cLost;
            st.cIsFrmLastPkg = cIdx + 1 == cPkgs ? 1 : 0;
            m_rig.OutVideoStatInfo(m_stStream, st);
        }
    }
    tagUinBufStatInfo& Stat() { return m_stStream.stStatInfo; }

    CRecvRig m_rig;
    tagUinDataBuf m_stStream;
};

} // namespace

// ---- What keeps video in -----------------------------------------------------------------------------------------------------------

TEST(VideoOut, NothingLeavesInAnyOtherRoomStateAndThatIsTold)
{
    for (const uint32 dwState : {0u, 1u, 2u, 4u, 0xFFFFFFFFu})
    {
        CVideoOut out;
        out.Put(1, 0);
        out.m_rig.m_dwRoomLogicState() = dwState;
        CLogRecorder log;
        EXPECT_EQ(out.Out(), 0u);
        EXPECT_THAT(out.Released(), IsEmpty());
        EXPECT_THAT(LinesOf(log),
                    ElementsAre(ErrorLine("OutPacketVideoNew", "OutPacketVideoNew RoomState:" +
                                                                   std::to_string(dwState) + " is Wrong!")));
    }
}

TEST(VideoOut, AClosedGateWithoutPacketsOrUserKeepsStill)
{
    CVideoOut out;
    CLogRecorder log;
    EXPECT_EQ(out.Out(), 0u);
    out.Put(1, 0);
    out.m_stStream.dwOutPutDelayFlag = 0;
    EXPECT_EQ(out.Out(), 0u);
    out.m_stStream.dwOutPutDelayFlag = 1;
    out.m_rig.m_mapUinDataInfo().clear();
    EXPECT_EQ(out.Out(), 0u);
    EXPECT_THAT(out.m_stStream.mapUdtPacket, SizeIs(1));
    EXPECT_THAT(LinesOf(log), IsEmpty());
}

TEST(VideoOut, TheFirstPacketStartsAStoppedClock)
{
    CVideoOut out;
    out.m_stInfo.dwTimelineOut = 0;
    out.Put(5, 70000);
    out.Put(6, 70001);
    CLogRecorder log(LOG_LEVEL_ERROR);
    EXPECT_EQ(out.Out(), 1u);
    EXPECT_EQ(out.m_stInfo.dwTimelineOut, 70000u);
    EXPECT_EQ(out.m_stInfo.dwLastCheckDeltaTime, 1000u);
    EXPECT_THAT(LinesOf(log), ElementsAre(ErrorLine("OutPacketVideoNew",
                                                    "TimelineOut Init 70000 Uin:7 OutPacketVideoNew")));
}

TEST(VideoOut, LeavesAtTheBareClockWhateverDelayTheOwnerTold)
{
    CVideoOut out;
    out.m_rig.m_owner.m_nPlayDelay = 80;
    out.m_stStream.dwAudPlayDelayRTS = 80;
    out.Put(1, c_dwClock - 1);
    out.Put(2, c_dwClock);
    out.Put(3, c_dwClock + 1);
    EXPECT_EQ(out.Out(), 2u);
    EXPECT_THAT(out.Released(), ElementsAre(1, 2));
    EXPECT_EQ(out.m_stStream.dwAudPlayDelayRTS, 80u); // kept, though nobody reads it here
    EXPECT_EQ(out.Out(), 0u);
}

TEST(VideoOut, NothingIsSkippedAtTheBeginning)
{
    CVideoOut out;
    out.m_rig.m_mapUinInPkt()[tagInPktKey(7, MEAVAudio)].dwStartTimeStamp = 40000;
    out.Put(1, 39999);
    EXPECT_EQ(out.Out(), 1u);
}

TEST(VideoOut, AnEarlierSequenceOfLaterMediaBlocksTheRest)
{
    CVideoOut out;
    out.Put(2, c_dwClock + 500);
    out.Put(3, c_dwClock - 500);
    EXPECT_EQ(out.Out(), 0u);
    EXPECT_THAT(out.m_stStream.mapUdtPacket, ElementsAre(Key(2), Key(3)));
}

TEST(VideoOut, PartialFramesLeaveWhenTheyAreDue)
{
    CVideoOut out;
    out.m_rig.Put(VideoPacket(7, 5, c_dwClock, P, 0, 1, 2, 9));
    out.m_rig.Put(VideoPacket(7, 7, c_dwClock, P, 0, 1, 4, 9));
    EXPECT_EQ(out.Out(), 2u);
}

// ---- What a release leaves behind ----------------------------------------------------------------------------------------------------

TEST(VideoBook, AReleaseIsWrittenDown)
{
    CVideoOut out;
    tagUinDataBuf& st = out.m_stStream;
    st.dwOutOfOrderCnt = 9;
    st.dwCurTotalLost = 10;
    st.stStatInfo.dwTotalLossPkgNum = 20;
    tagDataPacket& stPacket = out.Put(5, c_dwClock - 10);
    stPacket.dwTimeStamp = 777;
    stPacket.cPrePkgLost = 3;
    out.m_rig.m_owner.m_fnOnRelease = [&](const tagRelease&) { out.m_rig.Advance(5000); };
    CLogRecorder log;
    EXPECT_EQ(out.Out(), 1u);
    EXPECT_EQ(st.dwOutOfOrderCnt, 0u);
    EXPECT_EQ(st.dwLastOutPkgMETimeStamp, c_dwClock - 10);
    EXPECT_EQ(st.dwLastOutPkgHeadTS, 777u);
    EXPECT_EQ(st.dwAudPlayDelayRTS, 0u);
    EXPECT_EQ(st.dwLastOutPkgTick, 6000u);
    EXPECT_EQ(st.dwCurTotalLost, 13u);
    EXPECT_EQ(st.stStatInfo.dwTotalLossPkgNum, 23u);
    EXPECT_EQ(st.stUinRecvPkgStat.m_uLast, 5u);
    EXPECT_EQ(st.dwStartTimeStamp, c_dwClock - 10);
    EXPECT_EQ(st.dwOutSendSeq, 5u);
    EXPECT_EQ(log.Count("more than 100ms"), 0u); // a slow callback is not looked at here
}

TEST(VideoBook, TheBeginningIsWrittenAtTheFirstReleaseAndWheneverItIsZero)
{
    CVideoOut out;
    out.m_stStream.dwStartTimeStamp = 123;
    out.Put(1, 0);
    out.Out();
    EXPECT_EQ(out.m_stStream.dwStartTimeStamp, 0u);
    out.Put(2, 30000);
    out.Put(3, 30020);
    out.Out();
    EXPECT_EQ(out.m_stStream.dwStartTimeStamp, 30000u);
}

TEST(VideoBook, ALossWidensTheUsersTarget)
{
    struct tagRow
    {
        uint32 dwMode;
        uint32 dwLoss;
        uint32 dwWant;
    };
    const tagRow aRows[] = {{0, 0, 1000},  {0, 1999, 1000}, {0, 2000, 2000}, {2, 10000, 6000}, {1, 0, 100},
                            {1, 299, 100}, {1, 300, 200},   {1, 1500, 600},  {3, 10000, 3400}};
    for (const tagRow& stRow : aRows)
    {
        CVideoOut out;
        out.m_rig.m_dwUdtRecvMode() = stRow.dwMode;
        out.m_rig.m_dwDownLoss100() = stRow.dwLoss;
        out.m_stInfo.dwFastFactor = 40;
        out.Put(8, c_dwClock).cPrePkgLost = 255;
        CLogRecorder log(LOG_LEVEL_ERROR);
        out.Out();
        EXPECT_EQ(out.m_stInfo.dwExWaitTick, stRow.dwWant) << stRow.dwMode << ", " << stRow.dwLoss;
        EXPECT_EQ(out.m_stInfo.dwFastFactor, 12u);
        EXPECT_THAT(LinesOf(log),
                    ElementsAre(ErrorLine("OutPacketVideoNew",
                                          "OutPacketVideoNew lost 255 Packets Before 8 ExWaitTick " +
                                              std::to_string(stRow.dwWant))));
    }
}

TEST(VideoBook, AGapThatNobodyAnnouncedIsToldAndPlayed)
{
    CVideoOut out;
    out.Put(10, c_dwClock);
    out.Put(11, c_dwClock);
    out.Put(13, c_dwClock);
    out.Put(15, c_dwClock).cPrePkgLost = 1;
    CLogRecorder log;
    EXPECT_EQ(out.Out(), 4u);
    EXPECT_EQ(log.Count("PrePkgLost is Error!"), 1u);
    EXPECT_THAT(LinesOf(log), Contains(DebugLine("OutPacketVideoNew", "PrePkgLost is Error! 13,2")));
    out.Put(2, c_dwClock);
    EXPECT_EQ(out.Out(), 1u);
    EXPECT_EQ(log.Count("PrePkgLost is Error! 2,4294967283"), 1u);
}

TEST(VideoTrace, IsADebugLinePerReleaseAndOneToSeeOnRequest)
{
    CVideoOut out(MEAVPPTShare);
    out.m_rig.ClockAt(3000);
    out.m_stInfo.dwTimelineIn = 1; // behind the clock: nothing ahead
    out.m_stInfo.dwTimelineMin = 1000;
    out.m_stInfo.dwTimelineMax = 999; // an inverted band
    out.m_stStream.dwLogPrintFlag = 0xFFFFFFFF;
    for (uint32 dwSeq = 5; dwSeq < 7; ++dwSeq)
    {
        tagDataPacket& st = out.Put(dwSeq, 49000);
        st.dwSeq = 99;
        st.dwRecvTime = 3001; // after now: the difference wraps
    }
    const auto text = [](int nSeq)
    {
        return "OutPacketNew Subtype:6 Seq:" + std::to_string(nSeq) +
               " 99 TimelineOut:50000 METimeStamp:49000 DataLen:0 Jitter:4294967295 Tickout:4294967295 "
               "FrameType:1 GOP:2 FrameIdx:3 TotalPkg:4 Uin:7 OutStamp:3000";
    };
    CLogRecorder log;
    EXPECT_EQ(out.Out(), 2u);
    EXPECT_THAT(LinesOf(log), ElementsAre(ErrorLine("OutPacketVideoNew", text(5)),
                                          DebugLine("OutPacketVideoNew", text(6))));
    EXPECT_EQ(out.m_stStream.dwLogPrintFlag, 0xFFFFFFFDu);

    out.m_rig.m_LogPrintFlag() = 8;
    out.Put(7, 49000);
    log.Forget();
    out.Out();
    EXPECT_EQ(log.Lines()[0].eLevel, LOG_LEVEL_ERROR);
}

// ---- The first picture ---------------------------------------------------------------------------------------------------------------

TEST(FirstPicture, AnIFrameWhoseLossesExceedItsFecIsCountedUndecodableBehindIt)
{
    CPicture pic;
    CLogRecorder log;
    pic.Frame(I, 5, 1, 2);
    EXPECT_EQ(pic.Stat().dwCurIFrmCanDec, 0u);
    EXPECT_EQ(pic.Stat().dwOutIFrmNum, 0u);
    EXPECT_EQ(pic.m_stStream.dwFirstIFOutFlag, (uint32)VID_IFRM_OUT);
    EXPECT_EQ(pic.m_rig.m_dwIFrmPkgLostInfo(), (300u << 16) + (1u << 8) + 2u);
    log.Forget();
    pic.m_stStream.dwVidGopCnt = 6;
    pic.Frame(P, 1);
    EXPECT_EQ(pic.Stat().dwOutIFrmNum, 1u);
    EXPECT_EQ(pic.Stat().dwFirstFrmCanDec, 0u);
    EXPECT_EQ(pic.Stat().dwCanDecIFrmElpTime, 0u);
    EXPECT_EQ(pic.Stat().dwPreFrmType, (uint32)P);
    EXPECT_THAT(LinesOf(log),
                ElementsAre(ErrorLine("OutVideoStatInfo",
                                      "first I-frm IsDecoded 0, cur-gIdx  8 gCnt  6 cur-fIdx  9 Uin 7")));
}

TEST(FirstPicture, ADecodableIFrameIsCountedAtItsLastPacketAndOnceMoreBehindIt)
{
    CPicture pic;
    pic.m_rig.m_dwRecvChnStartTime() = 0xFFFFFFFE;
    CLogRecorder log;
    pic.Frame(I, 5, 2, 2);
    EXPECT_EQ(pic.Stat().dwOutIFrmNum, 1u);
    EXPECT_EQ(pic.Stat().dwFirstFrmCanDec, 1u);
    EXPECT_EQ(pic.Stat().dwCanDecIFrmElpTime, 300u);
    EXPECT_EQ(pic.Stat().dwCurIFrmCanDec, 0u);
    EXPECT_EQ(pic.Stat().dwPreFrmType, (uint32)I);
    EXPECT_THAT(
        LinesOf(log),
        ElementsAre(
            ErrorLine("OutVideoStatInfo", "I-frame last pkg is out, tickTime   300 fecN 2 Lost 2 gIdx  8 "
                                          "gCnt  0 fIdx  9 pIdx  4 Account 7"),
            ErrorLine("OutVideoStatInfo", "first I-frm IsDecoded 1, cur-gIdx  8 gCnt  0 cur-fIdx  9 Uin 7"),
            ErrorLine("OutVideoStatInfo", "first I-frm can be decoded, Elp time 300 RecvStartTime -2 "
                                          "cur-gIdx  8 gCnt  0 cur-fIdx  9 Uin 7.")));
    log.Forget();
    pic.Frame(P, 3);
    EXPECT_EQ(pic.Stat().dwOutIFrmNum, 2u);
    EXPECT_EQ(pic.Stat().dwFirstFrmCanDec, 1u);
    EXPECT_EQ(pic.Stat().dwCanDecIFrmElpTime, 300u);
    EXPECT_THAT(LinesOf(log), IsEmpty());
}

TEST(FirstPicture, ADecodableOneAfterAnUndecodableOneIsTheFirstThatCanBeDecoded)
{
    CPicture pic;
    pic.Frame(I, 2, 0, 1);
    pic.Frame(P, 1);
    pic.m_rig.ClockAt(5000);
    CLogRecorder log;
    pic.Frame(I, 2, 0, 0);
    EXPECT_EQ(pic.Stat().dwFirstFrmCanDec, 0u);
    EXPECT_EQ(pic.Stat().dwCanDecIFrmElpTime, 3300u);
    EXPECT_EQ(log.Count("I-frame last pkg is out"), 0u); // only the first
    EXPECT_EQ(log.Count("IsDecoded"), 0u);
    EXPECT_EQ(log.Count("can be decoded, Elp time 3300"), 1u);
    EXPECT_EQ(pic.m_rig.m_dwIFrmPkgLostInfo(), (300u << 16) + 1u);
}

TEST(FirstPicture, OneDecodedInNoTimeLooksLikeNone)
{
    // 0 means "not yet", so a first picture in the very millisecond of the first packet is told again.
    CPicture pic;
    pic.m_stStream.dwRecvFirstPkgTime = 2000;
    CLogRecorder log;
    pic.Frame(I, 1);
    pic.Frame(I, 1);
    EXPECT_EQ(log.Count("can be decoded, Elp time 0 "), 2u);
    EXPECT_EQ(log.Count("IsDecoded"), 1u);
    EXPECT_EQ(pic.Stat().dwOutIFrmNum, 2u);
}

TEST(FirstPicture, APacketIndexAtOrPastTheCountAlsoEndsTheFrame)
{
    struct tagRow
    {
        uint8 cIdx;
        uint8 cNum;
        uint8 cLast;
        bool bEnds;
    };
    const tagRow aRows[] = {{0, 0, 0, true}, {1, 1, 0, true}, {2, 1, 0, true},  {0, 1, 0, false},
                            {0, 1, 1, true}, {0, 5, 1, true}, {3, 5, 0, false}, {255, 255, 0, true}};
    for (const tagRow& stRow : aRows)
    {
        CPicture pic;
        tagDataPacket st = CRecvRig::Record(VideoPacket(7, 1, 5000, I, 0, 0, stRow.cIdx, stRow.cNum), 0);
        st.cIsFrmLastPkg = stRow.cLast;
        pic.m_rig.OutVideoStatInfo(pic.m_stStream, st);
        EXPECT_EQ(pic.m_stStream.dwFirstIFOutFlag == VID_IFRM_OUT, stRow.bEnds)
            << (int)stRow.cIdx << " of " << (int)stRow.cNum;
        st.cFrmType = P; // no other frame type ends an I frame
        CPicture other;
        other.m_rig.OutVideoStatInfo(other.m_stStream, st);
        EXPECT_EQ(other.m_stStream.dwFirstIFOutFlag, 0u);
    }
}

TEST(FirstPicture, TheElapsedTimeIsPackedAndToldInSixteenBits)
{
    CPicture pic;
    pic.m_stStream.dwRecvFirstPkgTime = 0xFFFFFF00;
    pic.m_rig.ClockAt(0x10001FF00ull + 5); // 0x20005 ms later, across the wrap
    CLogRecorder log;
    pic.Frame(I, 1, 255, 254);
    EXPECT_EQ(pic.m_rig.m_dwIFrmPkgLostInfo(), 0x0005FFFEu);
    EXPECT_EQ(log.Count("tickTime     5 fecN 255 Lost 254"), 1u);
}

TEST(FirstPicture, TheReceiverKeepsTheLastStreamsFirst)
{
    CPicture pic;
    pic.Frame(I, 1, 1, 0);
    tagUinDataBuf stOther;
    stOther.dwRecvFirstPkgTime = 1990;
    tagDataPacket st = CRecvRig::Record(VideoPacket(8, 1, 5000, I, 0, 0), 0);
    st.cIsFrmLastPkg = 1;
    st.cFecNum = 7;
    pic.m_rig.OutVideoStatInfo(stOther, st);
    EXPECT_EQ(pic.m_rig.m_dwIFrmPkgLostInfo(), (10u << 16) + (7u << 8));
    uint32 dw[4] = {};
    pic.m_rig.m_recv.GetDownPacketRecvInfo(dw[0], dw[1], dw[2], dw[3]);
    EXPECT_EQ(dw[3], (10u << 16) + (7u << 8));
}

TEST(FirstPicture, RunsOfOtherFramesCountNothing)
{
    CPicture pic;
    pic.Frame(P, 2);
    EXPECT_EQ(pic.Stat().dwPreFrmType, (uint32)P);
    pic.Frame(def_FrameType_B, 2);
    pic.Frame(P, 1);
    EXPECT_EQ(pic.Stat().dwOutIFrmNum, 0u);
    EXPECT_EQ(pic.Stat().dwFirstFrmCanDec, c_dwNone);
    pic.Frame(255, 1);
    EXPECT_EQ(pic.Stat().dwPreFrmType, 255u);
}

TEST(FirstPicture, AnIFrameThatNeverEndsIsCountedUndecodableOnlyByTheFigureOfItsLastPacket)
{
    // Decodable so far, but its end never left: behind it it is counted with what its last packet said.
    CPicture pic;
    tagDataPacket st = CRecvRig::Record(VideoPacket(7, 1, 5000, I, 0, 0, 0, 3), 0);
    pic.m_rig.OutVideoStatInfo(pic.m_stStream, st);
    EXPECT_EQ(pic.Stat().dwCurIFrmCanDec, 1u);
    EXPECT_EQ(pic.Stat().dwOutIFrmNum, 0u);
    pic.Frame(P, 1);
    EXPECT_EQ(pic.Stat().dwOutIFrmNum, 1u);
    EXPECT_EQ(pic.Stat().dwFirstFrmCanDec, 1u);
    EXPECT_EQ(pic.Stat().dwCanDecIFrmElpTime, 300u);
    EXPECT_EQ(pic.Stat().dwCurIFrmCanDec, 0u);
}

TEST(FirstPicture, AnIRunBehindAPRunIsNotCountedAtItsFirstPacket)
{
    CPicture pic;
    pic.Frame(P, 1);
    tagDataPacket st = CRecvRig::Record(VideoPacket(7, 2, 5000, I, 1, 0, 0, 3), 0);
    pic.m_rig.OutVideoStatInfo(pic.m_stStream, st);
    EXPECT_EQ(pic.Stat().dwOutIFrmNum, 0u);
    EXPECT_EQ(pic.Stat().dwPreFrmType, (uint32)I);
    EXPECT_EQ(pic.Stat().dwCurIFrmCanDec, 0u); // the change of type forgets it
}

TEST(FirstPicture, EveryReleaseOfEverySubTypeButAudioPassesThroughIt)
{
    for (const uint8 cSubType : {0, 2, 3, 6, 7, 9})
    {
        CVideoOut out(cSubType);
        out.Put(1, c_dwClock, I).cIsFrmLastPkg = 1;
        EXPECT_EQ(out.Out(), 1u);
        EXPECT_EQ(out.m_stStream.stStatInfo.dwOutIFrmNum, 1u);
    }
}
