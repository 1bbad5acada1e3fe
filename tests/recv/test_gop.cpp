// Which packet is newest, which GOP runs, which packet ends its frame.

#include "RecvTest.h"

#include <vector>

using ::testing::ElementsAre;
using ::testing::IsEmpty;

namespace
{

// A stream that the tracker alone has seen, and its user.
struct CTracked
{
    explicit CTracked(uint32 dwTick = 1000) : m_rig(dwTick)
    {
        m_rig.m_mapUinDataInfo()[7];
        m_stStream.dwRecvFirstPkgTime = dwTick;
    }

    tagDataPacket Track(uint32 dwSeq, uint8 cFrmType, uint8 cGopIdx, uint8 cPkgIdx = 0, uint8 cPkgNum = 2)
    {
        tagDataPacket stPacket = CRecvRig::Record(
            VideoPacket(7, dwSeq, 5000, cFrmType, cGopIdx, 3, cPkgIdx, cPkgNum), m_rig.Now());
        EXPECT_EQ(m_rig.CalcVidGopInfo(m_stStream, stPacket), 0);
        return stPacket;
    }

    CRecvRig m_rig;
    tagUinDataBuf m_stStream;
};

} // namespace

// ---- The order of sequences ------------------------------------------------------------------------------------------------------

TEST(SequenceOrder, NewIsOneTo7FFFAheadAcrossTheWrapToo)
{
    for (const uint32 dwPrev :
         {0u, 1u, 0x7FFFu, 0x12345678u, 0x7FFFFFFFu, 0xFFFF8000u, 0xFFFFFFFEu, 0xFFFFFFFFu})
    {
        EXPECT_FALSE(IsNewSeqNum(dwPrev, dwPrev));
        EXPECT_TRUE(IsNewSeqNum(dwPrev + 1, dwPrev));
        EXPECT_TRUE(IsNewSeqNum(dwPrev + 0x7FFF, dwPrev));
        EXPECT_FALSE(IsNewSeqNum(dwPrev + 0x8000, dwPrev));
        EXPECT_FALSE(IsNewSeqNum(dwPrev + 0x10001, dwPrev)); // 32 bits count, not 16
        EXPECT_FALSE(IsNewSeqNum(dwPrev + 0x80000000, dwPrev));
        EXPECT_FALSE(IsNewSeqNum(dwPrev - 1, dwPrev));
        EXPECT_FALSE(IsNewSeqNum(dwPrev - 0x7FFF, dwPrev));
    }
    EXPECT_EQ(IsNewSeqNum(1, 0xFFFFFFFE), TRUE);
}

// ---- The first packet --------------------------------------------------------------------------------------------------------------

TEST(GopFirst, AnIFrameBeginsTheFirstGop)
{
    CTracked t(0xFFFFFFF0);
    t.m_rig.m_dwRecvChnStartTime() = 0xFFFFFFFE;
    t.m_rig.ClockAt(0x100000010ull);
    t.m_rig.m_LogPrintFlag() = 5;
    CLogRecorder log;
    const tagDataPacket stPacket = t.Track(10, I, 4);
    EXPECT_EQ(t.m_stStream.dwPrePkgSeq, 10u);
    EXPECT_EQ(t.m_stStream.dwVidPreGopIdx, 4u);
    EXPECT_EQ(t.m_stStream.dwVidGopCnt, 1u);
    EXPECT_EQ(t.m_stStream.stStatInfo.dwFirstIFrmRecvTime, 32u); // across the wrap
    EXPECT_EQ(stPacket.cIsOutOfOrderSeq, 0);
    EXPECT_EQ(t.m_rig.m_LogPrintFlag(), 5u); // not a change of GOP
    EXPECT_THAT(LinesOf(log),
                ElementsAre(ErrorLine("CalcVidGopInfo", "FirstIFrmRecv: time 32 cur 16 chn_start -2")));
}

TEST(GopFirst, AnyOtherFrameBeginsNone)
{
    for (const uint8 cFrmType : {(uint8)1, (uint8)6, (uint8)255})
    {
        CTracked t;
        CLogRecorder log;
        t.Track(0x80000000, cFrmType, 200, 7, 9);
        EXPECT_EQ(t.m_stStream.dwPrePkgSeq, 0x80000000u);
        EXPECT_EQ(t.m_stStream.dwVidPreGopIdx, 200u);
        EXPECT_EQ(t.m_stStream.dwVidGopCnt, 0u);
        EXPECT_EQ(t.m_stStream.stStatInfo.dwFirstIFrmRecvTime, 0u);
        EXPECT_THAT(LinesOf(log),
                    ElementsAre(ErrorLine("CalcVidGopInfo",
                                          "First pkg isn't I frame, ft " + std::to_string((int)cFrmType) +
                                              " gIdx 200 fIdx  3 pIdx  7 seq -2147483648")));
    }
}

TEST(GopFirst, SequenceFFFFFFFFLeavesNoTraceSoTheNextPacketIsFirstAgain)
{
    // "None yet" and that sequence are one value. A stream that wraps counts from its next packet anew.
    CTracked t;
    t.Track(0xFFFFFFFE, I, 0);
    t.m_stStream.dwVidGopCnt = 6;
    t.Track(0xFFFFFFFF, P, 0);
    EXPECT_EQ(t.m_stStream.dwPrePkgSeq, c_dwNone);
    CLogRecorder log;
    t.Track(0, P, 0);
    EXPECT_EQ(t.m_stStream.dwPrePkgSeq, 0u);
    EXPECT_EQ(t.m_stStream.dwVidGopCnt, 6u);
    EXPECT_EQ(log.Count("First pkg isn't I frame"), 1u);
    t.Track(0xFFFFFFFF, P, 0); // older now
    EXPECT_EQ(t.m_stStream.dwPrePkgSeq, 0u);

    CTracked t2;
    t2.Track(0xFFFFFFFF, P, 0);
    t2.m_stStream.dwVidGopCnt = 6;
    t2.Track(0xFFFFFFF0, I, 1); // not told to be out of order either
    EXPECT_EQ(t2.m_stStream.dwPrePkgSeq, 0xFFFFFFF0u);
    EXPECT_EQ(t2.m_stStream.dwVidGopCnt, 1u);
}

// ---- Newer and older packets ---------------------------------------------------------------------------------------------------------

TEST(GopOrder, OnlyNewerPacketsMoveTheNewest)
{
    for (const uint32 dwStart : {0u, 1u, 0x7FFFu, 0xFFFFFFFEu})
    {
        CTracked t;
        t.Track(dwStart, P, 0);
        EXPECT_EQ(t.Track(dwStart + 0x8000, P, 1).cIsOutOfOrderSeq, 1);
        EXPECT_EQ(t.m_stStream.dwPrePkgSeq, dwStart);
        EXPECT_EQ(t.Track(dwStart, P, 1).cIsOutOfOrderSeq, 1); // a duplicate of the newest
        EXPECT_EQ(t.Track(dwStart - 1, P, 1).cIsOutOfOrderSeq, 1);
        EXPECT_EQ(t.m_stStream.dwPrePkgSeq, dwStart);
        EXPECT_EQ(t.m_stStream.dwVidPreGopIdx, 0u);
        EXPECT_EQ(t.m_stStream.dwVidGopCnt, 0u);
        EXPECT_EQ(t.Track(dwStart + 3, P, 0).cIsOutOfOrderSeq, 0);
        EXPECT_EQ(t.m_stStream.dwPrePkgSeq, dwStart + 3);
        EXPECT_EQ(t.Track(dwStart + 3 + 0x7FFF, P, 0).cIsOutOfOrderSeq, 0);
        EXPECT_EQ(t.m_stStream.dwPrePkgSeq, dwStart + 3 + 0x7FFF);
    }
}

TEST(GopOrder, TheMarkIsSetHereNeverTakenBack)
{
    CTracked t;
    t.Track(5, P, 0);
    tagDataPacket stPacket = CRecvRig::Record(VideoPacket(7, 6, 5000, P, 0, 0), 1000);
    stPacket.cIsOutOfOrderSeq = 1;
    t.m_rig.CalcVidGopInfo(t.m_stStream, stPacket);
    EXPECT_EQ(stPacket.cIsOutOfOrderSeq, 1);
}

TEST(GopOrder, ALateIFrameBeginsTheFirstGopOfAStreamThatHasNone)
{
    CTracked t(1000);
    t.Track(10, P, 4);
    t.m_rig.ClockAt(1300);
    t.m_rig.m_dwRecvChnStartTime() = 900;
    CLogRecorder log;
    t.Track(9, I, 3);
    EXPECT_EQ(t.m_stStream.dwVidGopCnt, 1u);
    EXPECT_EQ(t.m_stStream.stStatInfo.dwFirstIFrmRecvTime, 300u);
    EXPECT_EQ(t.m_stStream.dwPrePkgSeq, 10u);
    EXPECT_EQ(t.m_stStream.dwVidPreGopIdx, 4u);
    EXPECT_THAT(LinesOf(log),
                ElementsAre(ErrorLine("CalcVidGopInfo",
                                      "FirstIFrmRecv: out of order, time 300 cur 1300 chn_start 900")));

    t.m_rig.ClockAt(1400);
    t.Track(8, I, 3); // once
    EXPECT_EQ(t.m_stStream.stStatInfo.dwFirstIFrmRecvTime, 300u);
    EXPECT_EQ(log.Count("out of order"), 1u);
}

TEST(GopOrder, ANewerIFrameOfTheSameIndexDoesNotBeginTheFirstGop)
{
    CTracked t;
    t.Track(10, P, 4);
    t.Track(11, I, 4);
    EXPECT_EQ(t.m_stStream.dwVidGopCnt, 0u);
    EXPECT_EQ(t.m_stStream.stStatInfo.dwFirstIFrmRecvTime, 0u);
}

// ---- Changes of GOP ----------------------------------------------------------------------------------------------------------------------

TEST(GopChange, IsToldByTheIndexAloneAndTurnsTheTraceOff)
{
    CTracked t;
    t.Track(1, P, 255);
    t.m_rig.m_LogPrintFlag() = 0xFFFFFFFF;
    t.Track(2, P, 255);
    EXPECT_EQ(t.m_rig.m_LogPrintFlag(), 0xFFFFFFFFu);
    t.Track(3, P, 0); // 255 to 0 is a change like any other
    EXPECT_EQ(t.m_stStream.dwVidGopCnt, 1u);
    EXPECT_EQ(t.m_rig.m_LogPrintFlag(), 0u);
    t.Track(4, P, 255); // and so is a step back
    EXPECT_EQ(t.m_stStream.dwVidGopCnt, 2u);
    EXPECT_EQ(t.m_stStream.dwVidPreGopIdx, 255u);
}

TEST(GopChange, TheThirdGopAfterAnIFrameAsksForAFreshBand)
{
    CTracked t;
    CLogRecorder log;
    t.Track(1, I, 0);
    t.Track(2, I, 1);
    EXPECT_EQ(log.Count("TimelineMinReset"), 0u);
    EXPECT_EQ(t.m_rig.User(7)->dwVidResetTimelineMin, 0u);
    log.Forget();
    t.Track(3, P, 2); // whatever it begins with
    EXPECT_THAT(
        LinesOf(log),
        ElementsAre(ErrorLine("CalcVidGopInfo", "TimelineMinReset: old-dwVidResetTimelineMin 0, GopCnt 3")));
    EXPECT_EQ(t.m_rig.User(7)->dwVidResetTimelineMin, 1u);
    t.Track(4, P, 3); // only when the count passes the push
    EXPECT_EQ(log.Count("TimelineMinReset"), 1u);
}

TEST(GopChange, ABandAskedForOrDoneIsToldButNotAskedForAgain)
{
    for (const uint32 dwReset : {1u, 2u})
    {
        CTracked t;
        t.m_rig.User(7)->dwVidResetTimelineMin = dwReset;
        t.m_stStream.dwVidGopCnt = 2;
        t.m_stStream.dwPrePkgSeq = 1;
        t.m_stStream.dwVidPreGopIdx = 1;
        CLogRecorder log;
        t.Track(2, I, 2);
        EXPECT_EQ(log.First("TimelineMinReset"),
                  "TimelineMinReset: old-dwVidResetTimelineMin " + std::to_string(dwReset) + ", GopCnt 3");
        EXPECT_EQ(t.m_rig.User(7)->dwVidResetTimelineMin, dwReset);
    }
}

TEST(GopChange, WithoutItsUserNothingIsAskedFor)
{
    CTracked t;
    t.m_rig.m_mapUinDataInfo().clear();
    t.Track(1, I, 0);
    t.Track(2, I, 1);
    CLogRecorder log;
    t.Track(3, I, 2);
    EXPECT_THAT(LinesOf(log), IsEmpty());
    EXPECT_THAT(t.m_rig.m_mapUinDataInfo(), IsEmpty());
    EXPECT_EQ(t.m_stStream.dwVidGopCnt, 3u);
}

TEST(GopChange, ThePushDepthDecidesWhichGopAsks)
{
    struct tagRow
    {
        uint32 dwPushGops;
        uint8 cFirstType;
        uint32 dwAskedAtGop; // 0: never
    };
    const tagRow aRows[] = {{0, P, 1}, {0, I, 0}, {1, P, 2}, {1, I, 2}, {2, P, 3}, {2, I, 3}, {4, I, 5}};
    for (const tagRow& stRow : aRows)
    {
        CTracked t;
        t.m_rig.m_dwServPushGopNum() = stRow.dwPushGops;
        uint32 dwAskedAt = 0;
        t.Track(1, stRow.cFirstType, 0);
        for (uint32 dwSeq = 2; dwSeq < 10; ++dwSeq)
        {
            t.Track(dwSeq, I, (uint8)dwSeq);
            if (t.m_rig.User(7)->dwVidResetTimelineMin == 1 && dwAskedAt == 0)
                dwAskedAt = t.m_stStream.dwVidGopCnt;
        }
        EXPECT_EQ(dwAskedAt, stRow.dwAskedAtGop) << stRow.dwPushGops << ", " << (int)stRow.cFirstType;
    }
}

// ---- Ends of frames ----------------------------------------------------------------------------------------------------------------------

TEST(FrameEnd, IsTheLastIndexAndNoOther)
{
    struct tagRow
    {
        uint8 cPkgIdx;
        uint8 cPkgNum;
        int nLast;
    };
    const tagRow aRows[] = {{0, 1, 1}, {0, 2, 0},     {1, 2, 1},   {2, 2, 0},
                            {3, 2, 0}, {254, 255, 1}, {255, 0, 0}, {0, 0, 0}}; // 255 + 1 does not wrap to 0
    for (const tagRow& stRow : aRows)
    {
        CTracked t;
        // In all three cases of the order: first, newer, older.
        for (const uint32 dwSeq : {10u, 11u, 9u})
        {
            tagDataPacket stPacket =
                CRecvRig::Record(VideoPacket(7, dwSeq, 5000, P, 0, 0, stRow.cPkgIdx, stRow.cPkgNum), 1000);
            stPacket.cIsFrmLastPkg = 9; // written on every call
            t.m_rig.CalcVidGopInfo(t.m_stStream, stPacket);
            EXPECT_EQ(stPacket.cIsFrmLastPkg, stRow.nLast)
                << (int)stRow.cPkgIdx << " of " << (int)stRow.cPkgNum;
        }
    }
}

TEST(FrameEnd, OfTheFirstIFrameIsToldOnce)
{
    CTracked t;
    CLogRecorder log;
    t.Track(1, I, 0, 0, 2);
    EXPECT_EQ(t.m_stStream.dwFirstIFOutFlag, 0u);
    t.Track(3, P, 0, 0, 1);
    EXPECT_EQ(t.m_stStream.dwFirstIFOutFlag, 0u);
    log.Forget();
    t.Track(2, I, 0, 1, 2); // late
    EXPECT_EQ(t.m_stStream.dwFirstIFOutFlag, (uint32)VID_IFRM_RECV);
    EXPECT_THAT(LinesOf(log), ElementsAre(DebugLine("CalcVidGopInfo", "Recv I Frame!")));
    t.Track(4, I, 1, 0, 1);
    EXPECT_EQ(log.Count("Recv I Frame!"), 1u);
    t.m_stStream.dwFirstIFOutFlag = VID_IFRM_OUT;
    t.Track(5, I, 2, 0, 1);
    EXPECT_EQ(t.m_stStream.dwFirstIFOutFlag, (uint32)VID_IFRM_OUT);
    EXPECT_EQ(log.Count("Recv I Frame!"), 1u);
}
