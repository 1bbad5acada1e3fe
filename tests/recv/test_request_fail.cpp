// Requests that were never answered, and the owner's switch for requests.

#include "RecvTest.h"

using testing::ElementsAre;
using testing::IsEmpty;
using testing::Pair;
using testing::SizeIs;

namespace
{

class RequestFail : public testing::Test
{
protected:
    RequestFail() : m_rig(20000) { m_rig.m_dwLastCheckPkgRqFailTime() = 20000 - 4001; }

    tagUinDataBuf& Stream(uint64 ullUin = c_ullUin, uint8 cSubType = MEAVAudio)
    {
        return m_rig.m_mapUinInPkt()[tagInPktKey(ullUin, cSubType)];
    }
    uint32 Failed(uint64 ullUin = c_ullUin, uint8 cSubType = MEAVAudio)
    {
        return Stream(ullUin, cSubType).stStatInfo.dwTotalReqFailNum;
    }

    CRecvRig m_rig;
    CLogRecorder m_log;
};

TEST_F(RequestFail, TheFirstCallNeverChecksAndTheNextChecksAre4001MsApart)
{
    Stream().mapRequestSeq[11] = 1;
    m_rig.m_dwLastCheckPkgRqFailTime() = 0;
    m_rig.CheckPkgRequestFail(20000u);
    EXPECT_EQ(20000u, m_rig.m_dwLastCheckPkgRqFailTime());
    EXPECT_EQ(0u, Failed());
    m_rig.CheckPkgRequestFail(24000u);
    EXPECT_EQ(20000u, m_rig.m_dwLastCheckPkgRqFailTime());
    EXPECT_EQ(0u, Failed());
    m_rig.CheckPkgRequestFail(24001u);
    EXPECT_EQ(24001u, m_rig.m_dwLastCheckPkgRqFailTime());
    EXPECT_EQ(1u, Failed());
}

TEST_F(RequestFail, TheGateHoldsAcrossTheWrapOfTheTick)
{
    Stream().mapRequestSeq[11] = 0x80000000;
    m_rig.m_dwLastCheckPkgRqFailTime() = 0xFFFFFFFF - 1999; // 2000 ms before the wrap
    m_rig.CheckPkgRequestFail(2000u);
    EXPECT_EQ(0u, Failed());
    m_rig.CheckPkgRequestFail(2001u);
    EXPECT_EQ(1u, Failed());
}

TEST_F(RequestFail, ARequestFailsOneMillisecondPastTheUpperBoundOfBuffering)
{
    struct
    {
        uint32 dwDeltaMax, dwNow, dwAsked;
        bool bFailed;
    } const aRows[] = {
        {6000, 20000, 14001, false},
        {6000, 20000, 14000, false},
        {6000, 20000, 13999, true},
        {6000, 20000, 20000, false},
        {2000, 20000, 18000, false},
        {2000, 20000, 17999, true},
        {0, 20000, 20000, false},
        {0, 20000, 19999, true},
        {6000, 1000, 0xFFFFFFFF - 4999, false},
        {6000, 1001, 0xFFFFFFFF - 4999, true}, // across the wrap
    };
    for (const auto& stRow : aRows)
    {
        Stream() = tagUinDataBuf();
        m_rig.m_dwTimelineDeltaMax() = stRow.dwDeltaMax;
        m_rig.m_dwLastCheckPkgRqFailTime() = stRow.dwNow - 4001;
        Stream().mapRequestSeq[11] = stRow.dwAsked;
        m_rig.CheckPkgRequestFail(stRow.dwNow);
        EXPECT_EQ(stRow.bFailed ? 1u : 0u, Failed())
            << stRow.dwDeltaMax << " " << stRow.dwNow << " " << stRow.dwAsked;
        EXPECT_EQ(stRow.bFailed, Stream().mapRequestSeq.empty());
    }
}

TEST_F(RequestFail, FailedOnesAreCountedToldAndForgottenTheOthersStay)
{
    Stream(0x100000007ull, MEAVMaxVideo).mapRequestSeq = {
        {5, 1}, {6, 15000}, {7, 2}, {90000, 3}, {90001, 20000}};
    Stream(0x100000007ull, MEAVMaxVideo).stStatInfo.dwTotalReqFailNum = 40;
    m_rig.CheckPkgRequestFail(20000u);
    EXPECT_EQ(43u, Failed(0x100000007ull, MEAVMaxVideo));
    EXPECT_THAT(Stream(0x100000007ull, MEAVMaxVideo).mapRequestSeq,
                ElementsAre(Pair(6, 15000), Pair(90001, 20000)));

    ASSERT_THAT(m_log.Lines(), SizeIs(1));
    const tagLogLine stLine = m_log.Lines()[0];
    EXPECT_EQ("CheckPkgRequestFail: subtype 2 curNum   3 totalNum    43 stSeq     5 endSeq 90000 curSize   2 "
              "Uin 4294967303",
              stLine.strText);
    EXPECT_EQ(LOG_LEVEL_ERROR, stLine.eLevel);
    EXPECT_EQ("CmdCode", stLine.strTag);
    EXPECT_EQ("AVGUDTRecv", stLine.strFile);
    EXPECT_EQ("CheckPkgRequestFail", stLine.strFunc);
}

TEST_F(RequestFail, AFailedSequence0GivesItsPlaceAsTheStartToTheNextOne)
{
    struct
    {
        std::map<uint32, uint32> mapAsked;
        const char* pszWant;
    } const aRows[] = {
        {{{0, 1}, {5, 1}}, "curNum   2 totalNum     2 stSeq     5 endSeq     5 curSize   0 "},
        {{{0, 1}}, "curNum   1 totalNum     1 stSeq     0 endSeq     0 curSize   0 "},
        {{{0, 1}, {5, 20000}, {9, 1}}, "curNum   2 totalNum     2 stSeq     9 endSeq     9 curSize   1 "},
        {{{1, 1}, {5, 1}}, "curNum   2 totalNum     2 stSeq     1 endSeq     5 curSize   0 "},
        {{{0, 1}, {0xFFFFFFFF, 1}}, "curNum   2 totalNum     2 stSeq    -1 endSeq    -1 curSize   0 "},
    };
    for (const auto& stRow : aRows)
    {
        Stream() = tagUinDataBuf();
        Stream().mapRequestSeq = stRow.mapAsked;
        m_rig.m_dwLastCheckPkgRqFailTime() = 20000 - 4001;
        m_log.Forget();
        m_rig.CheckPkgRequestFail(20000u);
        EXPECT_EQ(1u, m_log.Count(stRow.pszWant)) << m_log.First("CheckPkgRequestFail");
    }
}

TEST_F(RequestFail, EveryStreamIsCheckedInKeyOrderAndToldOnlyWhenSomethingFailed)
{
    Stream(8, MEAVAudio).mapRequestSeq = {{1, 1}};
    Stream(7, MEAVPPTShare).mapRequestSeq = {{2, 1}};
    Stream(7, MEAVAudio).mapRequestSeq = {{3, 20000}};
    Stream(6, MEAVAudio);
    m_rig.CheckPkgRequestFail(20000u);
    EXPECT_THAT(m_log.Texts("CheckPkgRequestFail"),
                ElementsAre("CheckPkgRequestFail: subtype 6 curNum   1 totalNum     1 stSeq     2 endSeq     "
                            "2 curSize   0 Uin 7",
                            "CheckPkgRequestFail: subtype 1 curNum   1 totalNum     1 stSeq     1 endSeq     "
                            "1 curSize   0 Uin 8"));
}

// 11 is asked for every 200 ms until playout has passed it; from the last request on its time runs.
TEST(RequestFailTurn, ASequenceFailsOnceItIsGivenUpAndNotWhileItIsAskedFor)
{
    CRecvRig rig(1000);
    rig.Start(); // no playout: the gap stays ahead, and is asked for again and again
    rig.Turn();
    rig.FeedAll({AudioPacket(c_ullUin, 10), AudioPacket(c_ullUin, 12)});
    rig.TurnsUntil(30000);
    EXPECT_EQ(0u, rig.Stream(c_ullUin, MEAVAudio)->stStatInfo.dwTotalReqFailNum);
    EXPECT_THAT(rig.Stream(c_ullUin, MEAVAudio)->mapRequestSeq, SizeIs(1));
    EXPECT_THAT(rig.m_owner.RequestTicks(c_ullUin, MEAVAudio, 11), SizeIs(testing::Gt(100u)));

    const uint32 dwGivenUp = rig.m_owner.RequestTicks(c_ullUin, MEAVAudio, 11).back();
    rig.User(c_ullUin)->dwTimelineOut = 0xFFFFFFFE; // playout has gone past it
    rig.TurnsUntil(dwGivenUp + 6000);
    EXPECT_EQ(0u, rig.Stream(c_ullUin, MEAVAudio)->stStatInfo.dwTotalReqFailNum);
    rig.TurnsUntil(dwGivenUp + 6000 + 4010); // the next check at the latest
    EXPECT_EQ(1u, rig.Stream(c_ullUin, MEAVAudio)->stStatInfo.dwTotalReqFailNum);
    EXPECT_EQ(dwGivenUp,
              rig.m_owner.RequestTicks(c_ullUin, MEAVAudio, 11).back()); // counting asks for nothing
}

// ---- The switch -----------------------------------------------------------------------------------------------

TEST(RequestSwitch, AChangeIsToldAndTheValueInForceIsNot)
{
    CRecvRig rig;
    CLogRecorder log;
    rig.m_recv.UDTEnableReGetPkg(1); // as constructed
    EXPECT_THAT(log.Lines(), IsEmpty());
    rig.m_recv.UDTEnableReGetPkg(0);
    rig.m_recv.UDTEnableReGetPkg(0);
    EXPECT_EQ(0, rig.m_bEnableReGetPkg());
    rig.m_recv.UDTEnableReGetPkg(1);
    EXPECT_EQ(1, rig.m_bEnableReGetPkg());
    EXPECT_THAT(log.Texts("UDTEnableReGetPkg"),
                ElementsAre("UDTR EnableReGetPkg bEnable[0]", "UDTR EnableReGetPkg bEnable[1]"));
    const tagLogLine stLine = log.Lines()[0];
    EXPECT_EQ(LOG_LEVEL_ERROR, stLine.eLevel);
    EXPECT_EQ("CmdCode", stLine.strTag);
    EXPECT_EQ("AVGUDTRecv", stLine.strFile);
}

TEST(RequestSwitch, AnyOtherByteIsAnotherValue)
{
    CRecvRig rig;
    CLogRecorder log;
    rig.m_recv.UDTEnableReGetPkg(255);
    EXPECT_EQ(255, rig.m_bEnableReGetPkg());
    EXPECT_EQ("UDTR EnableReGetPkg bEnable[255]", log.First("EnableReGetPkg"));
}

TEST(RequestSwitch, WhileItIsOffGapsAreFoundStampedAndFailAndNothingIsAskedFor)
{
    CRecvRig rig(1000);
    rig.Start();
    rig.m_recv.UDTEnableReGetPkg(0);
    rig.Turn();
    rig.FeedAll({AudioPacket(c_ullUin, 10), AudioPacket(c_ullUin, 12)});
    rig.TurnsUntil(1500);
    EXPECT_THAT(rig.m_owner.m_vecRequests, IsEmpty());
    EXPECT_EQ(3, rig.Buffered(c_ullUin, MEAVAudio, 12)->wLostReqCnt);
    rig.User(c_ullUin)->dwTimelineOut = 0xFFFFFFFE;
    rig.TurnsUntil(1500 + 6000 + 4020);
    EXPECT_EQ(1u, rig.Stream(c_ullUin, MEAVAudio)->stStatInfo.dwTotalReqFailNum);
}

TEST(RequestSwitch, SwitchedOnAgainTheScheduleGoesOnWhereItStands)
{
    CRecvRig rig(1000);
    rig.Start();
    rig.m_recv.UDTEnableReGetPkg(0);
    rig.Turn();
    rig.FeedAll({AudioPacket(c_ullUin, 10), AudioPacket(c_ullUin, 12)});
    rig.TurnsUntil(1360); // stamped at 1050 and 1350
    rig.m_recv.UDTEnableReGetPkg(1);
    rig.TurnsUntil(1800);
    EXPECT_THAT(rig.m_owner.RequestTicks(c_ullUin, MEAVAudio, 11), ElementsAre(1400, 1600, 1800));
}

} // namespace
