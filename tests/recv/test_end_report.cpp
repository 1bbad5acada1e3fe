// The report that a run ends with, line by line.

#include "RecvRig.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::SizeIs;

namespace
{

// Every line of the report has the same level, tag, file and operation.
void ExpectReportLines(const CLogRecorder& log)
{
    for (const tagLogLine& stLine : log.Lines())
    {
        if (stLine.strFunc != "PrintStatInfo")
            continue;
        EXPECT_EQ(LOG_LEVEL_ERROR, stLine.eLevel) << stLine.strText;
        EXPECT_EQ("CmdCode", stLine.strTag) << stLine.strText;
        EXPECT_EQ("AVGUDTRecv", stLine.strFile) << stLine.strText;
    }
}

TEST(EndReport, WithoutStreamsItHasFourLinesAndAMinimumOfMinus1)
{
    CRecvRig rig;
    CLogRecorder log;
    rig.PrintStatInfo();
    EXPECT_THAT(log.Texts("PrintStatInfo"),
                ElementsAre("--------- UdtRecvEndStatInfo ---------", "ChnInfo: ChnClearCnt 0",
                            "DownLoss: min -1 max 0 AccVal 0 AccCnt 0 Avg 0", "--------- end ---------"));
    EXPECT_THAT(log.Lines(), SizeIs(4));
    ExpectReportLines(log);
}

TEST(EndReport, EveryFigureStandsInItsPlace)
{
    CRecvRig rig;
    rig.m_dwChnClearNum() = 21;
    rig.m_dwMinLossRate() = 22;
    rig.m_dwMaxLossRate() = 2300;
    rig.m_dwLossRateAccNum() = 5000;
    rig.m_dwLossRateAccCnt() = 3;
    rig.m_mapUinInPkt()[tagInPktKey(0xFFFFFFFFFFFFFFFFull, 7)];
    tagUinBufStatInfo& st = rig.m_mapUinInPkt()[tagInPktKey(0x100000007ull, 2)].stStatInfo;
    st.dwSkipPkgNum = 1;
    st.dwStampErrCnt = 2;
    st.dwFirstIFrmRecvTime = 3;
    st.dwFrmNumBeforeFristFrm = 4;
    st.dwFirstFrmCanDec = 1;
    st.dwCanDecIFrmElpTime = 6;
    st.dwConfgMinDelay = 7;
    st.dwConfgMaxDelay = 8;
    st.dwRealMinDelay = 9;
    st.dwRealMaxDelay = 10;
    st.dwRealDelayAccNum = 1100;
    st.dwRealDelayAccCnt = 12;
    st.dwTotalRecvPkgNum = 13;
    st.dwTotalLossPkgNum = 14;
    st.dwTotalReqFailNum = 15;

    CLogRecorder log;
    rig.PrintStatInfo();
    const char* const aWant[] = {
        "--------- UdtRecvEndStatInfo ---------",
        "ChnInfo: ChnClearCnt 21",
        "DownLoss: min 22 max 2300 AccVal 5000 AccCnt 3 Avg 1666",
        "--- SubType 2 Uin 4294967303 --- ",
        "  StmInfo: SkipNum 1 StampErrCnt 2",
        "  First I-Frm Info: RecvTimeElp 3 FrmElp 4 FirstCanDec 1 CanDecodedTimeElp 6",
        "  DelayInfo: ConfMin 7 ConfMax 8 RealMin 9 RealMax 10 RealAccNum 1100 RealAccCnt 12 RealAvg 91",
        "  PkgInfo: TotalRecv 13 TotalLoss 14 TotalReqFail 15",
        "--- SubType 7 Uin 18446744073709551615 --- ",
        "  StmInfo: SkipNum 0 StampErrCnt 0",
        "  First I-Frm Info: RecvTimeElp 0 FrmElp 0 FirstCanDec -1 CanDecodedTimeElp 0",
        "  DelayInfo: ConfMin 0 ConfMax 0 RealMin -1 RealMax 0 RealAccNum 0 RealAccCnt 0 RealAvg 0",
        "  PkgInfo: TotalRecv 0 TotalLoss 0 TotalReqFail 0",
        "--------- end ---------",
    };
    EXPECT_THAT(log.Texts("PrintStatInfo"), ElementsAreArray(aWant));
    ExpectReportLines(log);
}

// A small call of one user: one audio packet never comes, everything else does.
//
//   1000    audio 10 .. 259 every 20 ms, 60 missing; video 100 .. 224 every 40 ms from 1010, GOPs of 25
//   2000    the room plays: the first I frame leaves 990 ms behind its arrival
//   6000    the senders are done      7000  the owner polls the downlink, 1 of 375 missing
//   9020    60, asked for until about 3000, has failed       11000  stop, before the streams expire
TEST(EndReport, ACallEndsWithItsReport)
{
    CRecvRig rig(1000);
    rig.Start();
    uint32 dwDown = 5000;
    for (uint32 dwMs = 0; dwMs < 5000; dwMs += 10)
    {
        rig.ClockAt(1000 + dwMs);
        if (dwMs == 1000)
            rig.m_recv.SetRoomState(3);
        if (dwMs % 20 == 0)
        {
            ++dwDown;
            if (dwMs != 1000)
                rig.Feed(AudioPacket(7, 10 + dwMs / 20).At(50000 + dwMs).Down(dwDown));
        }
        if (dwMs % 40 == 10)
        {
            const uint32 dwFrame = dwMs / 40;
            const uint8 cFrmType = dwFrame % 25 == 0 ? def_FrameType_I : def_FrameType_P;
            rig.Feed(VideoPacket(7, 100 + dwFrame, 50000 + dwFrame * 40, cFrmType, (uint8)(dwFrame / 25),
                                 (uint8)(dwFrame % 25))
                         .Down(++dwDown));
        }
        rig.Turn();
    }
    rig.TurnsUntil(7000);
    uint32 dwExpect, dwReal, dwBytes, dwIFrmLostInfo;
    rig.m_recv.GetDownPacketRecvInfo(dwExpect, dwReal, dwBytes, dwIFrmLostInfo);
    EXPECT_EQ(375u, dwExpect);
    EXPECT_EQ(374u, dwReal);
    rig.TurnsUntil(11000);
    ASSERT_THAT(rig.m_owner.Sequences(7, MEAVAudio), SizeIs(249));
    ASSERT_THAT(rig.m_owner.Sequences(7, MEAVMaxVideo), SizeIs(125));

    CLogRecorder log;
    rig.m_recv.Stop();
    const char* const aWant[] = {
        "--------- UdtRecvEndStatInfo ---------",
        "ChnInfo: ChnClearCnt 0",
        "DownLoss: min 26 max 26 AccVal 26 AccCnt 1 Avg 26",
        "--- SubType 1 Uin 7 --- ",
        "  StmInfo: SkipNum 0 StampErrCnt 0",
        "  First I-Frm Info: RecvTimeElp 0 FrmElp 0 FirstCanDec -1 CanDecodedTimeElp 0",
        "  DelayInfo: ConfMin 1000 ConfMax 6000 RealMin -1 RealMax 0 RealAccNum 0 RealAccCnt 4 RealAvg 0",
        "  PkgInfo: TotalRecv 249 TotalLoss 1 TotalReqFail 1",
        "--- SubType 2 Uin 7 --- ",
        "  StmInfo: SkipNum 0 StampErrCnt 0",
        "  First I-Frm Info: RecvTimeElp 0 FrmElp 0 FirstCanDec 1 CanDecodedTimeElp 990",
        "  DelayInfo: ConfMin 1000 ConfMax 6000 RealMin -1 RealMax 0 RealAccNum 0 RealAccCnt 4 RealAvg 0",
        "  PkgInfo: TotalRecv 125 TotalLoss 0 TotalReqFail 0",
        "--------- end ---------",
    };
    EXPECT_THAT(log.Texts("PrintStatInfo"), ElementsAreArray(aWant));
    ExpectReportLines(log);
}

TEST(EndReport, ItIsWrittenOncePerRunBeforeTheBuffersAreCleared)
{
    CRecvRig rig;
    rig.Start();
    rig.Feed(AudioPacket(7, 10));
    rig.Turn();
    CLogRecorder log;
    rig.m_recv.Stop();
    rig.m_recv.Stop();
    EXPECT_EQ(1u, log.Count("UdtRecvEndStatInfo"));
    EXPECT_EQ(1u, log.Count("--- SubType 1 Uin 7 --- "));
    std::vector<std::string> vecOrder;
    for (const tagLogLine& stLine : log.Lines())
    {
        if (vecOrder.empty() || vecOrder.back() != stLine.strFunc)
            vecOrder.push_back(stLine.strFunc);
    }
    EXPECT_THAT(vecOrder, ElementsAre("PrintStatInfo", "Clear", "Run", "Stop"));
}

} // namespace
