// What is missing before each buffered video packet, what of its frame, and what is asked for at once.

#include "RecvTest.h"

using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

namespace
{

constexpr uint8 c_cI = def_FrameType_I;
constexpr uint8 c_cP = def_FrameType_P;

// One packet of a row: sequence, frame type, GOP, frame, index and counts inside the frame.
struct tagVid
{
    uint32 dwSeq;
    uint8 cFrmType;
    uint8 cGop;
    uint8 cFrm;
    uint8 cIdx;
    uint8 cNum;
    uint8 cFec = 0;
};

class VideoLoss : public testing::Test
{
protected:
    // Behind the push and behind the first run of P frames, so that every gap counts.
    void SetUp() override { Fresh(); }
    void Fresh(uint32 dwGopCnt = 3, uint32 dwPFrmCnt = 2)
    {
        Stream() = tagUinDataBuf();
        Stream().dwVidGopCnt = dwGopCnt;
        Stream().dwPFrmCnt = dwPFrmCnt;
        m_rig.m_mapUinDataInfo()[c_ullUin];
        m_rig.m_owner.Forget();
        m_log.Forget();
    }
    tagDataPacket& Put(const tagVid& st, uint8 cSubType = MEAVMaxVideo)
    {
        return m_rig.Put(VideoPacket(c_ullUin, st.dwSeq, 5000 + st.cFrm * 40u, st.cFrmType, st.cGop, st.cFrm,
                                     st.cIdx, st.cNum, cSubType)
                             .Fec(st.cFec));
    }
    void PutAll(std::initializer_list<tagVid> lst)
    {
        for (const tagVid& st : lst)
            Put(st);
    }
    tagUinDataBuf& Stream() { return m_rig.m_mapUinInPkt()[tagInPktKey(c_ullUin, MEAVMaxVideo)]; }
    uint32 Walk() { return m_rig.CalcVidLostInfo(Stream()); }
    tagDataPacket& At(uint32 dwSeq) { return Stream().mapUdtPacket.at(dwSeq); }
    void Leave(uint32 dwSeq) { ASSERT_EQ(1u, Stream().mapUdtPacket.erase(dwSeq)); }
    std::vector<int> Lost()
    {
        std::vector<int> vec;
        for (const MapUdtPacket::value_type& stPacket : Stream().mapUdtPacket)
            vec.push_back(stPacket.second.cPrePkgLost);
        return vec;
    }
    std::vector<int> FrmLost()
    {
        std::vector<int> vec;
        for (const MapUdtPacket::value_type& stPacket : Stream().mapUdtPacket)
            vec.push_back(stPacket.second.cFrmLostNum);
        return vec;
    }
    // The sequences of each request made so far.
    std::vector<std::vector<uint32>> Asked()
    {
        std::vector<std::vector<uint32>> vecAsked;
        for (const tagRequest& stRequest : m_rig.m_owner.m_vecRequests)
        {
            vecAsked.emplace_back();
            for (const tagReplyData& stData : stRequest.vecData)
                vecAsked.back().push_back(stData.dwUserSeq);
        }
        return vecAsked;
    }
    void ExpectLine(const char* pszText)
    {
        const tagLogLine stLine = m_log.FirstLine(pszText);
        EXPECT_EQ(pszText, stLine.strText);
        EXPECT_EQ(LOG_LEVEL_ERROR, stLine.eLevel);
        EXPECT_EQ("CmdCode", stLine.strTag);
        EXPECT_EQ("AVGUDTRecv", stLine.strFile);
        EXPECT_EQ("CalcVidLostInfo", stLine.strFunc);
    }

    CRecvRig m_rig;
    CLogRecorder m_log;
};

// ---- Counts of a frame --------------------------------------------------------------------------------------

TEST_F(VideoLoss, AnEmptyBufferCountsNothing)
{
    EXPECT_EQ(0u, Walk());
    EXPECT_THAT(m_log.Lines(), IsEmpty());
}

TEST_F(VideoLoss, APacketAloneIsToldHowManyFollowAndNothingElse)
{
    Put({10, c_cP, 1, 1, 0, 5, 2});
    EXPECT_EQ(0u, Walk());
    EXPECT_EQ(6, At(10).wVidPkgIdxLeft);
    EXPECT_EQ(0, At(10).cIsCalcLost);
}

TEST_F(VideoLoss, ForwardErrorCorrectionPacketsFollowTheDataPackets)
{
    for (uint8 i = 0; i < 7; ++i)
        Put({10u + i, c_cP, 1, 1, i, 5, 2});
    EXPECT_EQ(6u, Walk());
    for (uint8 i = 0; i < 7; ++i)
        EXPECT_EQ(6 - i, At(10 + i).wVidPkgIdxLeft);
}

TEST_F(VideoLoss, TheLargestCountsLeaveMoreThan8Bits)
{
    PutAll({{10, c_cP, 1, 1, 0, 255, 255}, {11, c_cP, 1, 1, 1, 255, 255}});
    Walk();
    EXPECT_EQ(509, At(10).wVidPkgIdxLeft);
    EXPECT_EQ(508, At(11).wVidPkgIdxLeft);
}

TEST_F(VideoLoss, AFirstPacketWhoseCountsContradictItStopsTheWalk)
{
    for (const tagVid& stFirst : {tagVid{10, c_cP, 3, 1, 5, 4, 1}, tagVid{10, c_cP, 3, 1, 6, 4, 1},
                                  tagVid{10, c_cP, 3, 1, 0, 0, 0}, tagVid{10, c_cP, 3, 1, 255, 0, 0}})
    {
        Fresh();
        Put(stFirst).wVidPkgIdxLeft = 77;
        Put({14, c_cI, 4, 1, 0, 3});
        Put({15, c_cI, 4, 1, 1, 3});
        EXPECT_EQ(0xFFFFFFFFu, Walk());
        EXPECT_EQ(77, At(10).wVidPkgIdxLeft);
        for (uint32 dwSeq : {10u, 14u, 15u})
        {
            EXPECT_EQ(0, At(dwSeq).cIsCalcLost) << dwSeq;
            EXPECT_EQ(0, At(dwSeq).cPrePkgLost) << dwSeq;
        }
        EXPECT_EQ(0, At(15).wVidPkgIdxLeft);
        EXPECT_EQ(1u, m_log.Lines().size());
        Walk();
        EXPECT_EQ(2u, m_log.Count("Pkg num error 1"));

        Leave(10); // and with it the obstacle
        EXPECT_EQ(1u, Walk());
        EXPECT_EQ(1, At(15).cIsCalcLost);
    }
}

TEST_F(VideoLoss, AContradictionInTheFirstPacketIsToldFieldByField)
{
    Put({10, def_FrameType_SP, 33, 22, 5, 4, 1});
    Walk();
    ExpectLine("Pkg num error 1, seq 10 p_pkg 4 p_fec 1 p_pkgidx 5 ft 3 fidx  22 gidx  33");
}

TEST_F(VideoLoss, TheLastPacketOfAFrameIsNoContradiction)
{
    PutAll({{10, c_cP, 1, 1, 4, 4, 1}, {11, c_cP, 1, 2, 0, 1}});
    EXPECT_EQ(1u, Walk());
    EXPECT_EQ(0, At(10).wVidPkgIdxLeft);
    EXPECT_THAT(m_log.Lines(), IsEmpty());
}

TEST_F(VideoLoss, ALaterPacketWhoseCountsContradictItIsSkippedAsIfItWereNotThere)
{
    Put({10, c_cP, 1, 1, 0, 6});
    Put({12, c_cP, 1, 1, 2, 2}).wVidPkgIdxLeft = 77; // says: third of two
    Put({14, c_cP, 1, 1, 4, 6});
    EXPECT_EQ(1u, Walk()); // it is not counted
    EXPECT_EQ(77, At(12).wVidPkgIdxLeft);
    EXPECT_EQ(0, At(12).cIsCalcLost);
    EXPECT_EQ(3, At(14).cPrePkgLost); // measured from 10
    ExpectLine("Pkg num error 2, seq 12 p_pkg 2 p_fec 0 p_pkgidx 2 ft 1 fidx   1 gidx   1");
}

// ---- Head ----------------------------------------------------------------------------------------------------

TEST_F(VideoLoss, APacketThatComesIntoTheCountedGapAtTheHeadTakesItsShareAndTheFramesCountWithIt)
{
    Put({17, c_cP, 1, 1, 3, 8});
    tagDataPacket& stSecond = Put({20, c_cP, 1, 1, 6, 8});
    stSecond.cIsCalcLost = 1;
    stSecond.cPrePkgLost = 5; // against 14
    Walk();
    EXPECT_THAT(Lost(), ElementsAre(2, 2));
    EXPECT_THAT(FrmLost(), ElementsAre(2, 4)); // goes on from the head's
}

TEST_F(VideoLoss, TheHeadRuleNeedsACountThatReachesTheFirstPacket)
{
    struct
    {
        uint8 cCounted, cIsCalcLost, cPrePkgLost, cFrmLostNum; // of second; of first
        std::vector<int> vecLost, vecFrmLost;
    } const aRows[] = {
        {5, 0, 0, 0, {2, 2}, {2, 4}},         {3, 0, 9, 8, {0, 2}, {0, 2}},
        {2, 0, 9, 8, {9, 2}, {8, 10}},        {5, 1, 9, 8, {9, 2}, {8, 10}},
        {255, 0, 0, 0, {252, 2}, {252, 254}}, {255, 0, 9, 255, {252, 2}, {252, 254}},
    };
    for (const auto& stRow : aRows)
    {
        Fresh();
        tagDataPacket& stFirst = Put({17, c_cP, 1, 1, 3, 8});
        stFirst.cIsCalcLost = stRow.cIsCalcLost;
        stFirst.cPrePkgLost = stRow.cPrePkgLost;
        stFirst.cFrmLostNum = stRow.cFrmLostNum;
        tagDataPacket& stSecond = Put({20, c_cP, 1, 1, 6, 8});
        stSecond.cIsCalcLost = 1;
        stSecond.cPrePkgLost = stRow.cCounted;
        Walk();
        EXPECT_EQ(stRow.vecLost, Lost()) << (int)stRow.cCounted;
        EXPECT_EQ(stRow.vecFrmLost, FrmLost()) << (int)stRow.cCounted;
        EXPECT_EQ(1, At(17).cIsCalcLost);
    }
}

// The head rule looks at the second packet as it is, even when the walk then skips that one for its counts.
TEST_F(VideoLoss, TheHeadRuleLooksAtASecondPacketThatTheWalkSkips)
{
    Put({17, c_cP, 1, 1, 3, 8});
    Put({20, c_cP, 1, 1, 6, 0}).cPrePkgLost = 5;
    EXPECT_EQ(0u, Walk());
    EXPECT_THAT(Lost(), ElementsAre(2, 5));
    EXPECT_EQ(0, At(20).cIsCalcLost);
}

// ---- Gaps inside one frame -----------------------------------------------------------------------------------

TEST_F(VideoLoss, AGapInsideAFrameCountsForPacketAndFrame)
{
    PutAll({{10, c_cP, 1, 1, 0, 9}, {13, c_cP, 1, 1, 3, 9}, {14, c_cP, 1, 1, 4, 9}, {16, c_cP, 1, 1, 6, 9}});
    EXPECT_EQ(3u, Walk());
    EXPECT_THAT(Lost(), ElementsAre(0, 2, 0, 1));
    EXPECT_THAT(FrmLost(), ElementsAre(0, 2, 2, 3));
}

TEST_F(VideoLoss, TheFramesCountGoesOnFromTheFirstPackets)
{
    Put({10, c_cP, 1, 1, 3, 9}).cFrmLostNum = 3;
    PutAll({{13, c_cP, 1, 1, 6, 9}});
    Walk();
    EXPECT_THAT(FrmLost(), ElementsAre(3, 5));
}

TEST_F(VideoLoss, AGapInsideAFrameIsCappedAt255AndTheFramesCountIsCutTo8Bits)
{
    struct
    {
        uint32 dwGap;
        int nWant;
    } const aRows[] = {{0, 0},     {100, 100}, {101, 101}, {254, 254},
                       {255, 255}, {256, 255}, {257, 255}, {32766, 255}};
    for (const auto& stRow : aRows)
    {
        Fresh();
        const uint32 dwNext = 11 + stRow.dwGap;
        PutAll({{10, c_cP, 1, 1, 0, 255, 255},
                {dwNext, c_cP, 1, 1, 1, 255, 255},
                {dwNext + 2, c_cP, 1, 1, 2, 255, 255}});
        Walk();
        EXPECT_THAT(Lost(), ElementsAre(0, stRow.nWant, 1)) << stRow.dwGap;
        EXPECT_THAT(FrmLost(), ElementsAre(0, stRow.nWant, (stRow.nWant + 1) & 255)) << stRow.dwGap;
        EXPECT_THAT(m_log.Lines(), IsEmpty()) << stRow.dwGap;
    }
}

TEST_F(VideoLoss, NoGapToANewFrameStillStartsTheFramesCountAtThePacketsIndex)
{
    PutAll({{10, c_cP, 1, 1, 0, 3}, {11, c_cP, 1, 2, 4, 6}, {12, c_cP, 1, 2, 5, 6}});
    Walk();
    EXPECT_THAT(Lost(), ElementsAre(0, 0, 0));
    EXPECT_THAT(FrmLost(), ElementsAre(0, 4, 4));
}

// ---- Gaps across frames --------------------------------------------------------------------------------------

TEST_F(VideoLoss, BehindThePushAGapAcrossFramesCountsUpTo100)
{
    struct
    {
        uint32 dwGap;
        int nWant;
        size_t nLines;
    } const aRows[] = {{1, 1, 0},     {40, 40, 0},   {99, 99, 0},    {100, 100, 0},
                       {101, 100, 1}, {150, 100, 1}, {32766, 100, 1}};
    for (const auto& stRow : aRows)
    {
        Fresh();
        PutAll({{10, c_cP, 1, 1, 0, 1}, {11 + stRow.dwGap, c_cP, 1, 5, 2, 4}});
        Walk();
        EXPECT_THAT(Lost(), ElementsAre(0, stRow.nWant)) << stRow.dwGap;
        EXPECT_THAT(FrmLost(), ElementsAre(0, 2)) << stRow.dwGap; // its frame misses 0 and 1
        EXPECT_EQ(stRow.nLines, m_log.Lines().size()) << stRow.dwGap;
        Walk();
        EXPECT_EQ(stRow.nLines * 2, m_log.Lines().size()) << stRow.dwGap; // again on every walk
    }
}

TEST_F(VideoLoss, AGapOfMoreThan100AcrossFramesIsTold)
{
    PutAll({{10, c_cP, 5, 6, 0, 1}, {161, c_cP, 12, 13, 2, 4}});
    Walk();
    ExpectLine(
        "Lost 150 is bigger than 100, curSeq   161 preSeq    10 preGIdx  5 preFIdx  6 curGIdx 12 curFIdx 13");
}

TEST_F(VideoLoss, AnotherFrameIsOneThatDiffersInFrameOrInGop)
{
    struct
    {
        uint8 cGop, cFrm;
        std::vector<int> vecFrmLost;
    } const aRows[] = {
        {1, 1, {0, 3}}, // the same: what is missing adds up
        {1, 2, {0, 4}}, // another: all before index 4
        {2, 1, {0, 4}}, {2, 2, {0, 4}}, {1, 255, {0, 4}},
    };
    for (const auto& stRow : aRows)
    {
        Fresh();
        PutAll({{10, c_cP, 1, 1, 0, 9}, {14, c_cP, stRow.cGop, stRow.cFrm, 4, 9}});
        Walk();
        EXPECT_EQ(stRow.vecFrmLost, FrmLost()) << (int)stRow.cGop << " " << (int)stRow.cFrm;
        EXPECT_THAT(Lost(), ElementsAre(0, 3));
    }
}

// ---- The server's push ---------------------------------------------------------------------------------------

TEST_F(VideoLoss, DuringThePushWholeFramesThatAreMissingDoNotCount)
{
    struct
    {
        const char* pszCase;
        uint32 dwGopCnt;
        uint32 dwPushGopNum;
        uint8 cPreNum; // packets of the frame before, of which index 0 came
        uint8 cIdx;    // of the packet behind the gap of 40
        int nWant;
    } const aRows[] = {
        {"the missing head of the present frame counts", 2, 2, 1, 2, 2},
        {"and nothing when the frame came from its start", 2, 2, 1, 0, 0},
        {"the first GOPs", 0, 2, 1, 2, 2},
        {"the last GOP of the push", 2, 2, 1, 3, 3},
        {"one GOP later", 3, 2, 1, 3, 40},
        {"a frame that was still open", 2, 2, 2, 2, 40},
        {"no push: GOP 0", 0, 0, 1, 2, 2},
        {"no push: GOP 1", 1, 0, 1, 2, 40},
        {"a longer push", 5, 5, 1, 2, 2},
    };
    for (const auto& stRow : aRows)
    {
        Fresh(stRow.dwGopCnt);
        m_rig.m_dwServPushGopNum() = stRow.dwPushGopNum;
        PutAll({{10, c_cP, 1, 1, 0, stRow.cPreNum}, {51, c_cP, 1, 5, stRow.cIdx, 9}});
        Walk();
        EXPECT_THAT(Lost(), ElementsAre(0, stRow.nWant)) << stRow.pszCase;
        EXPECT_THAT(FrmLost(), ElementsAre(0, stRow.cIdx)) << stRow.pszCase;
    }
}

TEST_F(VideoLoss, DuringThePushALongGapIsNotTold)
{
    Fresh(2);
    PutAll({{10, c_cP, 1, 1, 0, 1}, {300, c_cP, 1, 5, 2, 9}});
    Walk();
    EXPECT_THAT(Lost(), ElementsAre(0, 2));
    EXPECT_THAT(m_log.Lines(), IsEmpty());
}

TEST_F(VideoLoss, FecPacketsBelongToTheFrameThatThePushMustHaveClosed)
{
    Fresh(2);
    PutAll({{10, c_cP, 1, 1, 1, 2, 1}, {51, c_cP, 1, 5, 2, 9}}); // the last data packet, its FEC is missing
    Walk();
    EXPECT_THAT(Lost(), ElementsAre(0, 40));
}

// The index may say more than the gap holds: it is taken as it is.
TEST_F(VideoLoss, DuringThePushTheIndexCountsEvenBeyondTheGap)
{
    Fresh(2);
    PutAll({{10, c_cP, 1, 1, 0, 1}, {12, c_cP, 1, 5, 6, 9}});
    Walk();
    EXPECT_THAT(Lost(), ElementsAre(0, 6));
}

TEST_F(VideoLoss, DuringThePushAGapInsideAFrameCounts)
{
    Fresh(2);
    PutAll({{10, c_cP, 1, 1, 0, 9}, {13, c_cP, 1, 1, 3, 9}});
    Walk();
    EXPECT_THAT(Lost(), ElementsAre(0, 2));
}

// The stream's count is the present one: when the push ends, a packet that is still buffered counts in full.
TEST_F(VideoLoss, ABufferedPacketsCountChangesWhenThePushEnds)
{
    Fresh(2);
    PutAll({{10, c_cP, 1, 1, 0, 1}, {51, c_cP, 1, 5, 2, 9}});
    Walk();
    EXPECT_THAT(Lost(), ElementsAre(0, 2));
    Stream().dwVidGopCnt = 3;
    Walk();
    EXPECT_THAT(Lost(), ElementsAre(0, 40));
}

// ---- The first run of P frames ---------------------------------------------------------------------------------

TEST_F(VideoLoss, FromTheFirstPFrameToTheFirstOtherOneNothingCounts)
{
    Fresh(3, 0);
    PutAll({{10, c_cI, 1, 1, 0, 1}, {15, c_cP, 1, 2, 1, 9}, {18, c_cP, 1, 2, 4, 9}, {150, c_cP, 1, 9, 2, 9}});
    Walk();
    EXPECT_THAT(Lost(), ElementsAre(0, 0, 0, 0));
    EXPECT_THAT(FrmLost(), ElementsAre(0, 1, 1, 2)); // a new frame's index is taken all the same
    EXPECT_EQ(1u, Stream().dwPFrmCnt);
    EXPECT_EQ(1u, m_log.Count("is bigger than 100")); // told before it is dropped
}

TEST_F(VideoLoss, OnlyPFramesBeginTheRunAndEveryOtherTypeEndsIt)
{
    struct
    {
        uint32 dwBefore;
        uint8 cFrmType;
        uint32 dwAfter;
        int nLost; // of the packet behind a gap of 2
    } const aRows[] = {
        {0, def_FrameType_I, 0, 2},        {0, def_FrameType_P, 1, 0},
        {0, def_FrameType_P_WITHSP, 1, 0}, {0, def_FrameType_SP, 0, 2},
        {0, def_FrameType_GF, 0, 2},       {0, def_FrameType_P_WITHB, 0, 2},
        {0, def_FrameType_B, 0, 2},        {0, 255, 0, 2},
        {1, def_FrameType_I, 2, 2},        {1, def_FrameType_P, 1, 0},
        {1, def_FrameType_P_WITHSP, 1, 0}, {1, def_FrameType_SP, 2, 2},
        {1, def_FrameType_GF, 2, 2},       {1, def_FrameType_P_WITHB, 2, 2},
        {1, def_FrameType_B, 2, 2},        {1, 255, 2, 2},
        {2, def_FrameType_I, 2, 2},        {2, def_FrameType_P, 2, 2},
        {2, def_FrameType_P_WITHSP, 2, 2}, {2, def_FrameType_SP, 2, 2},
        {2, def_FrameType_GF, 2, 2},       {2, def_FrameType_P_WITHB, 2, 2},
        {2, def_FrameType_B, 2, 2},        {2, 255, 2, 2},
    };
    for (const auto& stRow : aRows)
    {
        Fresh(3, stRow.dwBefore);
        PutAll({{10, c_cP, 1, 1, 0, 9}, {13, stRow.cFrmType, 1, 1, 3, 9}});
        Walk();
        EXPECT_EQ(stRow.dwAfter, Stream().dwPFrmCnt) << stRow.dwBefore << " type " << (int)stRow.cFrmType;
        EXPECT_THAT(Lost(), ElementsAre(0, stRow.nLost)) << stRow.dwBefore << " type " << (int)stRow.cFrmType;
    }
}

TEST_F(VideoLoss, TheBuffersFirstPacketTakesNoPartInTheRun)
{
    Fresh(3, 0);
    Put({10, c_cP, 1, 1, 0, 9});
    Walk();
    EXPECT_EQ(0u, Stream().dwPFrmCnt);
    Put({13, c_cI, 2, 0, 3, 9});
    Walk();
    EXPECT_EQ(0u, Stream().dwPFrmCnt);
    EXPECT_THAT(Lost(), ElementsAre(0, 2));
    Fresh(3, 1);
    Put({10, c_cI, 1, 1, 0, 9});
    Put({11, c_cP, 1, 2, 0, 9});
    Walk();
    EXPECT_EQ(1u, Stream().dwPFrmCnt);
}

//  1st walk  I10 I11 P12 ....... P15     the run begins at P12: 13 and 14 do not count
//  2nd walk  I10 I11                     I11, still buffered, ends it
//                    P12 ....... P15     found without loss: stays so
//                                    . P17  counts
TEST_F(VideoLoss, AnIPacketStillBufferedBeforeTheRunEndsItAtTheNextWalk)
{
    Fresh(3, 0);
    PutAll({{10, c_cI, 1, 0, 0, 2}, {11, c_cI, 1, 0, 1, 2}, {12, c_cP, 1, 1, 0, 9}, {15, c_cP, 1, 1, 3, 9}});
    Walk();
    EXPECT_EQ(1u, Stream().dwPFrmCnt);
    EXPECT_THAT(Lost(), ElementsAre(0, 0, 0, 0));
    Put({17, c_cP, 1, 1, 5, 9});
    Walk();
    EXPECT_EQ(2u, Stream().dwPFrmCnt);
    EXPECT_THAT(Lost(), ElementsAre(0, 0, 0, 0, 1));
}

TEST_F(VideoLoss, APacketThatComesIntoTheRunBeforeTheEndIsWalkedIsLossFreeForGood)
{
    Fresh(3, 1);
    PutAll({{10, c_cP, 1, 1, 0, 9}, {13, c_cP, 1, 1, 3, 9}});
    Walk();
    Put({16, c_cI, 2, 0, 2, 9}); // another type: the run is over, and this one counts
    Walk();
    EXPECT_THAT(Lost(), ElementsAre(0, 0, 2));
    Walk();
    EXPECT_THAT(Lost(), ElementsAre(0, 0, 2));
}

// An out-of-order packet is not looked at for the run.
TEST_F(VideoLoss, AnOutOfOrderPacketNeitherBeginsNorEndsTheRun)
{
    Fresh(3, 0);
    PutAll({{0, c_cI, 1, 0, 0, 1}, {0x8000, c_cP, 1, 1, 0, 1}});
    Walk();
    EXPECT_EQ(0u, Stream().dwPFrmCnt);
    Fresh(3, 1);
    PutAll({{0, c_cP, 1, 0, 0, 1}, {0x8000, c_cI, 1, 1, 0, 1}});
    Walk();
    EXPECT_EQ(1u, Stream().dwPFrmCnt);
}

// ---- Once without loss -----------------------------------------------------------------------------------------

TEST_F(VideoLoss, APacketOnceFoundWithoutLossStaysSo)
{
    PutAll({{10, c_cP, 1, 1, 0, 1}, {11, c_cP, 1, 2, 0, 1}, {12, c_cP, 1, 3, 0, 1}});
    Walk();
    Leave(11);
    Walk();
    EXPECT_THAT(Lost(), ElementsAre(0, 0));
    At(12).cIsCalcLost = 0; // never computed: counts
    Walk();
    EXPECT_THAT(Lost(), ElementsAre(0, 1));
}

TEST_F(VideoLoss, AGapThatShrinksIsCountedAnewAndOneThatIsClosedIsClosedForGood)
{
    PutAll({{10, c_cP, 1, 1, 0, 9}, {14, c_cP, 1, 1, 4, 9}});
    Walk();
    EXPECT_THAT(Lost(), ElementsAre(0, 3));
    Put({12, c_cP, 1, 1, 2, 9});
    Walk();
    EXPECT_THAT(Lost(), ElementsAre(0, 1, 1));
    EXPECT_THAT(FrmLost(), ElementsAre(0, 1, 2));
    Put({13, c_cP, 1, 1, 3, 9});
    Walk();
    EXPECT_THAT(Lost(), ElementsAre(0, 1, 0, 0));
    Leave(13);
    Walk();
    EXPECT_THAT(Lost(), ElementsAre(0, 1, 0));
}

// ---- Order -------------------------------------------------------------------------------------------------------

TEST_F(VideoLoss, APacket32768AheadIsOutOfOrderAndOneLessIsAGap)
{
    PutAll({{0, c_cP, 1, 1, 0, 1}, {0x7FFF, c_cP, 1, 2, 0, 1}});
    Walk();
    EXPECT_EQ(0u, m_log.Count("out of order"));
    EXPECT_THAT(Lost(), ElementsAre(0, 100));

    Fresh();
    Put({0, c_cP, 1, 1, 0, 1});
    tagDataPacket& st = Put({0x8000, def_FrameType_B, 22, 11, 3, 9});
    st.cPrePkgLost = 5;
    st.cFrmLostNum = 6;
    EXPECT_EQ(1u, Walk()); // counted
    EXPECT_EQ(5, st.cPrePkgLost);
    EXPECT_EQ(6, st.cFrmLostNum);
    EXPECT_EQ(0, st.cIsCalcLost);
    EXPECT_EQ(5, st.wVidPkgIdxLeft); // written before the order is looked at
    ExpectLine(
        "Err! pkg is out of order: subType 2 preSeq     0 nextSeq 32768 ft 6 gIdx 22 fIdx 11 pIdx  3 Uin 7");
}

TEST_F(VideoLoss, TheWalkGoesOnFromAnOutOfOrderPacket)
{
    // The frame's count stands as it was before: the out-of-order packet opened another frame without telling.
    PutAll({{0, c_cP, 1, 1, 0, 9},
            {2, c_cP, 1, 1, 2, 9},
            {0x10000, c_cP, 2, 7, 1, 9},
            {0x10002, c_cP, 2, 7, 3, 9}});
    EXPECT_EQ(3u, Walk());
    EXPECT_THAT(Lost(), ElementsAre(0, 1, 0, 1));
    EXPECT_THAT(FrmLost(), ElementsAre(0, 1, 0, 2));
}

TEST_F(VideoLoss, AcrossTheWrapOnlyTheFirstOldPacketIsOutOfOrder)
{
    for (uint32 dwSeq : {0xFFFFFFFDu, 0xFFFFFFFFu, 0u, 2u})
        Put({dwSeq, c_cP, 1, 1, 0, 9});
    EXPECT_EQ(3u, Walk());
    EXPECT_THAT(Lost(), ElementsAre(0, 1, 0, 1)); // 0 2 | FD FF
    EXPECT_EQ(1u, m_log.Count("Err! pkg is out of order: subType 2 preSeq     2 nextSeq    -3 "));
    EXPECT_EQ(1u, m_log.Lines().size());
}

// ---- Asked for at once -------------------------------------------------------------------------------------------

//  I10  .  I12  .  .  .  I16 | P17    11, 13, 14, 15 in one request, made at P17
TEST_F(VideoLoss, AnIFramesGapsGoOutAsOneRequestAtTheFirstPacketBehindTheFrame)
{
    PutAll({{10, c_cI, 1, 0, 0, 7}, {12, c_cI, 1, 0, 2, 7}, {16, c_cI, 1, 0, 6, 7}, {17, c_cP, 1, 1, 0, 1}});
    Walk();
    EXPECT_THAT(Asked(), ElementsAre(ElementsAre(11, 15, 14, 13)));
    const tagRequest& stRequest = m_rig.m_owner.m_vecRequests[0];
    EXPECT_EQ(AVGUdtRecvPacketEvent_LossRequest, stRequest.wType);
    EXPECT_EQ(1u, stRequest.nSendCount);
    EXPECT_EQ(1u, stRequest.nUdtV2);
    for (const tagReplyData& stData : stRequest.vecData)
    {
        EXPECT_EQ(c_ullUin, stData.ullUserAccount);
        EXPECT_EQ(MEAVMaxVideo, stData.cSubType);
        EXPECT_EQ(0, stData.cResult);
    }
    EXPECT_EQ(0, At(10).wLostReqCnt);
    EXPECT_EQ(1, At(12).wLostReqCnt);
    EXPECT_EQ(1, At(16).wLostReqCnt);
    EXPECT_THAT(Stream().mapRequestSeq, IsEmpty()); // no answer is booked, none can fail
    EXPECT_EQ(0u, At(12).dwLastReqLostTime);

    Walk(); // the counts are up: not again
    EXPECT_THAT(Asked(), SizeIs(1));
}

TEST_F(VideoLoss, AnIFrameThatEndsTheBufferIsNotAskedForAndNotGatheredAgain)
{
    PutAll({{10, c_cI, 1, 0, 0, 7}, {12, c_cI, 1, 0, 2, 7}});
    Walk();
    EXPECT_EQ(1, At(12).wLostReqCnt); // raised all the same
    EXPECT_THAT(Asked(), IsEmpty());
    PutAll({{14, c_cI, 1, 0, 4, 7}, {17, c_cP, 1, 1, 0, 1}});
    Walk();
    EXPECT_THAT(Asked(), ElementsAre(ElementsAre(13))); // 11 was dropped; the timed scan asks for it
}

TEST_F(VideoLoss, OnlyWhatIsMissingInAnIFrameIsAskedForAtOnce)
{
    PutAll({{10, c_cP, 1, 0, 0, 9}, {12, c_cP, 1, 0, 2, 9}, {14, def_FrameType_GF, 1, 1, 0, 1}});
    Walk();
    EXPECT_THAT(Lost(), ElementsAre(0, 1, 1));
    EXPECT_THAT(Asked(), IsEmpty());
    EXPECT_EQ(0, At(12).wLostReqCnt);
}

TEST_F(VideoLoss, EveryOtherFrameTypeFlushesWhatWasGathered)
{
    for (uint8 cFrmType : {1, 2, 3, 4, 5, 6, 255})
    {
        Fresh();
        PutAll({{10, c_cI, 1, 0, 0, 7}, {12, c_cI, 1, 0, 2, 7}, {13, cFrmType, 1, 1, 0, 1}});
        Walk();
        EXPECT_THAT(Asked(), ElementsAre(ElementsAre(11))) << (int)cFrmType;
    }
}

TEST_F(VideoLoss, TwoIFramesInARowShareARequestAndTwoApartDoNot)
{
    PutAll({{10, c_cI, 1, 0, 0, 3},
            {12, c_cI, 1, 0, 2, 3},
            {14, c_cI, 2, 0, 1, 3},
            {16, c_cP, 2, 1, 0, 1},
            {18, c_cI, 3, 0, 0, 3},
            {20, c_cI, 3, 0, 2, 3},
            {21, c_cP, 3, 1, 0, 1}});
    Walk();
    EXPECT_THAT(Asked(), ElementsAre(ElementsAre(11, 13), ElementsAre(17, 19)));
}

TEST_F(VideoLoss, AnOutOfOrderPacketThatIsNotOfAnIFrameFlushesAndOneOfAnIFrameDoesNot)
{
    PutAll({{0, c_cI, 1, 0, 0, 7}, {2, c_cI, 1, 0, 2, 7}, {0x10000, c_cP, 5, 0, 0, 1}});
    Walk();
    EXPECT_EQ(1u, m_log.Count("out of order"));
    EXPECT_THAT(Asked(), ElementsAre(ElementsAre(1)));

    Fresh();
    PutAll({{0, c_cI, 1, 0, 0, 7}, {2, c_cI, 1, 0, 2, 7}, {0x10000, c_cI, 5, 0, 0, 1}});
    Walk();
    EXPECT_EQ(1u, m_log.Count("out of order"));
    EXPECT_THAT(Asked(), IsEmpty());
}

TEST_F(VideoLoss, ASkippedPacketDoesNotFlush)
{
    PutAll({{10, c_cI, 1, 0, 0, 7}, {12, c_cI, 1, 0, 2, 7}, {13, c_cP, 1, 1, 0, 0}});
    Walk();
    EXPECT_EQ(1u, m_log.Count("Pkg num error 2"));
    EXPECT_THAT(Asked(), IsEmpty());
}

TEST_F(VideoLoss, APacketThatWasAskedForIsNotGatheredAtOnceEvenWhenItsGapGrew)
{
    PutAll({{10, c_cI, 1, 0, 0, 7}, {12, c_cI, 1, 0, 2, 7}, {17, c_cP, 1, 1, 0, 1}});
    At(12).wLostReqCnt = 3;
    Walk();
    EXPECT_THAT(Asked(), IsEmpty());
    EXPECT_EQ(3, At(12).wLostReqCnt);
}

TEST_F(VideoLoss, AnIFrameEndsTheFirstRunOfPFramesAndIsAskedForAtOnce)
{
    Fresh(3, 1);
    PutAll({{10, c_cP, 1, 0, 0, 1}, {13, c_cI, 2, 0, 2, 7}, {14, c_cP, 2, 1, 0, 1}});
    Walk();
    EXPECT_THAT(Asked(), ElementsAre(ElementsAre(12, 11)));
}

TEST_F(VideoLoss, AnIFrameAcrossAGapOfMoreThan100IsAskedForBackTo100)
{
    PutAll({{10, c_cP, 1, 0, 0, 1}, {161, c_cI, 2, 0, 0, 7}, {162, c_cP, 2, 1, 0, 1}});
    Walk();
    ASSERT_THAT(Asked(), ElementsAre(SizeIs(100)));
    EXPECT_EQ(160u, Asked()[0].front());
    EXPECT_EQ(61u, Asked()[0].back());
}

// During the push the index may reach back over what is buffered, and over the wrap.
TEST_F(VideoLoss, DuringThePushTheIndexIsAskedForAsItIs)
{
    Fresh(2);
    PutAll({{1, c_cP, 1, 0, 0, 1}, {3, c_cI, 2, 0, 5, 7}, {4, c_cP, 2, 1, 0, 1}});
    Walk();
    EXPECT_THAT(Asked(), ElementsAre(ElementsAre(2, 1, 0, 0xFFFFFFFF, 0xFFFFFFFE)));
}

TEST_F(VideoLoss, WithRequestsSwitchedOffTheCountsAreRaisedAndNothingGoesOut)
{
    m_rig.m_bEnableReGetPkg() = FALSE;
    PutAll({{10, c_cI, 1, 0, 0, 7}, {12, c_cI, 1, 0, 2, 7}, {17, c_cP, 1, 1, 0, 1}});
    Walk();
    EXPECT_THAT(Asked(), IsEmpty());
    EXPECT_EQ(1, At(12).wLostReqCnt);
    m_rig.m_bEnableReGetPkg() = TRUE;
    Walk();
    EXPECT_THAT(Asked(), IsEmpty());
}

TEST_F(VideoLoss, TheImmediateRequestDoesNotLookAtPlayout)
{
    m_rig.User(c_ullUin)->dwTimelineOut = 0xFFFFFFFF;
    PutAll({{10, c_cI, 1, 0, 0, 7}, {12, c_cI, 1, 0, 2, 7}, {17, c_cP, 1, 1, 0, 1}});
    Walk();
    EXPECT_THAT(Asked(), SizeIs(1));
}

// ---- From the receiver's turn -------------------------------------------------------------------------------------

TEST(VideoLossTurn, BigSmallAndSubVideoAreWalkedInKeyOrderAndEachAsksUnderItsOwnKey)
{
    CRecvRig rig;
    rig.Start();
    for (uint8 cSubType : {MEAVSubVideo, MEAVMinVideo, MEAVMaxVideo, MEAVPPTShare})
    {
        rig.FeedAll({VideoPacket(c_ullUin, 10, 5000, c_cI, 1, 0, 0, 3, cSubType),
                     VideoPacket(c_ullUin, 12, 5000, c_cI, 1, 0, 2, 3, cSubType),
                     VideoPacket(c_ullUin, 13, 5040, c_cP, 1, 1, 0, 1, cSubType)});
    }
    rig.Turn();
    std::vector<int> vecSubTypes;
    for (const tagRequest& stRequest : rig.m_owner.m_vecRequests)
    {
        ASSERT_THAT(stRequest.vecData, SizeIs(1));
        EXPECT_EQ(11u, stRequest.vecData[0].dwUserSeq);
        vecSubTypes.push_back(stRequest.vecData[0].cSubType);
    }
    EXPECT_THAT(vecSubTypes, ElementsAre(MEAVMaxVideo, MEAVMinVideo, MEAVSubVideo));
    EXPECT_EQ(0, rig.Buffered(c_ullUin, MEAVPPTShare, 12)->cPrePkgLost);
}

// The request is made on the turn that files the packet behind the frame, long before any timed scan.
TEST(VideoLossTurn, AnIFrameIsAskedForOnTheTurnThatBringsThePacketBehindIt)
{
    CRecvRig rig(1000);
    rig.Start();
    rig.FeedAll({VideoPacket(c_ullUin, 10, 5000, c_cI, 1, 0, 0, 3),
                 VideoPacket(c_ullUin, 12, 5000, c_cI, 1, 0, 2, 3)});
    rig.Turn(); // arms the scan; the frame ends the buffer: gathered and dropped
    EXPECT_THAT(rig.m_owner.m_vecRequests, IsEmpty());
    rig.ClockAt(1010);
    rig.FeedAll({VideoPacket(c_ullUin, 15, 5040, c_cI, 2, 0, 1, 3),
                 VideoPacket(c_ullUin, 17, 5080, c_cP, 2, 1, 0, 1)});
    rig.Turn();
    // 12 ended its frame and the push is on, so of 13 and 14 the missing head of the second frame counts alone.
    EXPECT_THAT(rig.m_owner.RequestTicks(c_ullUin, MEAVMaxVideo, 14), ElementsAre(1010));
    EXPECT_THAT(rig.m_owner.RequestTicks(c_ullUin, MEAVMaxVideo, 13), IsEmpty());
    EXPECT_THAT(rig.m_owner.RequestTicks(c_ullUin, MEAVMaxVideo, 11), IsEmpty());
    // 11 was dropped. The timed scan takes its count of 1 for a request and waits for the first delay, 300 ms.
    rig.TurnsUntil(1400);
    EXPECT_THAT(rig.m_owner.RequestTicks(c_ullUin, MEAVMaxVideo, 11), ElementsAre(1350, 1400));
}

// Behind the first run of P frames, in the push, and found as it is by the walk of its turn.
class PushEnds : public testing::Test
{
protected:
    PushEnds()
    {
        m_rig.Start();
        m_rig.FeedAll({VideoPacket(c_ullUin, 7, 4920, c_cP, 0, 8, 0, 1),
                       VideoPacket(c_ullUin, 8, 4960, c_cP, 0, 9, 0, 1),
                       VideoPacket(c_ullUin, 9, 5000, c_cI, 1, 0, 0, 3)});
        m_rig.Turn();
        m_rig.ClockAt(1010);
    }
    void EndWhenAsked()
    {
        m_rig.m_owner.m_fnOnRequest = [this](const tagRequest&) { m_rig.m_dwServPushGopNum() = 0; };
    }
    // For the end of a test: a buffer that was looked into is walked over whole.
    int Lost(uint32 dwSeq) { return m_rig.Buffered(c_ullUin, MEAVMaxVideo, dwSeq)->cPrePkgLost; }

    CRecvRig m_rig{1000};
};

// Asked amid the walk, the owner ends the push. What the walk counted before that stands until the next one, which
// counts it anew although no packet came.
TEST_F(PushEnds, WhileTheOwnerIsAskedItEndsForWhatWasCountedBeforeToo)
{
    m_rig.FeedAll({VideoPacket(c_ullUin, 10, 5000, c_cI, 1, 0, 1, 3),
                   VideoPacket(c_ullUin, 11, 5000, c_cI, 1, 0, 2, 3),
                   VideoPacket(c_ullUin, 15, 5040, c_cI, 1, 1, 1, 3),
                   VideoPacket(c_ullUin, 16, 5080, c_cP, 1, 2, 0, 1)});
    m_rig.Turn();
    EndWhenAsked();
    m_rig.ClockAt(1020);
    m_rig.FeedAll({VideoPacket(c_ullUin, 20, 5120, c_cI, 1, 3, 1, 3),
                   VideoPacket(c_ullUin, 21, 5160, c_cP, 1, 4, 0, 1)});
    m_rig.Turn();
    // Of 17 to 19 and 12 to 14 the heads of their frames counted alone.
    EXPECT_THAT(m_rig.m_owner.RequestTicks(c_ullUin, MEAVMaxVideo, 14), ElementsAre(1010));
    EXPECT_THAT(m_rig.m_owner.RequestTicks(c_ullUin, MEAVMaxVideo, 19), ElementsAre(1020));
    EXPECT_THAT(m_rig.m_owner.RequestTicks(c_ullUin, MEAVMaxVideo, 18), IsEmpty());
    m_rig.ClockAt(1030);
    m_rig.Turn();
    EXPECT_EQ(3, Lost(15));
    EXPECT_EQ(3, Lost(20));
}

// A late packet has only its surroundings walked over again; but if the push ends there, the walk goes on to the end.
TEST_F(PushEnds, AmidTheWalkOfALatePacketItEndsForAllBehindItAtOnce)
{
    m_rig.FeedAll({VideoPacket(c_ullUin, 13, 5040, c_cP, 1, 1, 0, 1),
                   VideoPacket(c_ullUin, 17, 5080, c_cP, 1, 2, 2, 3),
                   VideoPacket(c_ullUin, 25, 5120, c_cP, 1, 3, 1, 2)});
    m_rig.Turn();
    EndWhenAsked();
    m_rig.ClockAt(1020);
    m_rig.FeedAll({VideoPacket(c_ullUin, 11, 5000, c_cI, 1, 0, 2, 3)});
    m_rig.Turn();
    EXPECT_THAT(m_rig.m_owner.RequestTicks(c_ullUin, MEAVMaxVideo, 10), ElementsAre(1020)); // before 13
    EXPECT_EQ(7, Lost(25));
}

} // namespace
