// How many sequences are missing before each buffered audio packet, and what step the stream keeps.

#include "RecvTest.h"

#include <cstdio>

using testing::ElementsAre;
using testing::IsEmpty;
using testing::StartsWith;

namespace
{

// A stream's buffer, put together packet by packet, and its marks.
class AudioLoss : public testing::Test
{
protected:
    // Media time follows the sequence, 20 ms each, unless the test says otherwise.
    tagDataPacket& Put(uint32 dwSeq) { return m_rig.Put(AudioPacket(c_ullUin, dwSeq)); }
    tagDataPacket& PutAt(uint32 dwSeq, uint32 dwMediaMs)
    {
        return m_rig.Put(AudioPacket(c_ullUin, dwSeq).At(dwMediaMs));
    }
    void PutAll(std::initializer_list<uint32> lstSeq)
    {
        for (uint32 dwSeq : lstSeq)
            Put(dwSeq);
    }
    tagUinDataBuf& Stream() { return m_rig.m_mapUinInPkt()[tagInPktKey(c_ullUin, MEAVAudio)]; }
    uint32 Walk() { return m_rig.CalcAudLostInfo(Stream()); }
    tagDataPacket& At(uint32 dwSeq) { return Stream().mapUdtPacket.at(dwSeq); }
    void Leave(uint32 dwSeq) { ASSERT_EQ(1u, Stream().mapUdtPacket.erase(dwSeq)); }
    std::vector<int> Lost()
    {
        std::vector<int> vecLost;
        for (const MapUdtPacket::value_type& stPacket : Stream().mapUdtPacket)
            vecLost.push_back(stPacket.second.cPrePkgLost);
        return vecLost;
    }

    CRecvRig m_rig;
    CLogRecorder m_log;
};

TEST_F(AudioLoss, AnEmptyBufferCountsNothing)
{
    EXPECT_EQ(0u, Walk());
    EXPECT_THAT(m_log.Lines(), IsEmpty());
}

TEST_F(AudioLoss, APacketAloneIsNotMarkedAsComputed)
{
    Put(10);
    EXPECT_EQ(0u, Walk());
    EXPECT_EQ(0, At(10).cIsCalcLost);
    EXPECT_EQ(0u, Stream().dwTimeStampDelta);
}

TEST_F(AudioLoss, EveryPacketBehindTheFirstTellsWhatIsMissingBeforeIt)
{
    PutAll({10, 11, 14});
    EXPECT_EQ(2u, Walk());
    EXPECT_THAT(Lost(), ElementsAre(0, 0, 2));
    for (uint32 dwSeq : {10u, 11u, 14u})
        EXPECT_EQ(1, At(dwSeq).cIsCalcLost) << dwSeq;
}

TEST_F(AudioLoss, TheFrameCountOfAudioIsClearedBehindTheFirstPacketOnly)
{
    PutAll({10, 11, 14});
    for (uint32 dwSeq : {10u, 11u, 14u})
        At(dwSeq).cFrmLostNum = 9;
    Walk();
    EXPECT_EQ(9, At(10).cFrmLostNum); // the head rule did not apply
    EXPECT_EQ(0, At(11).cFrmLostNum);
    EXPECT_EQ(0, At(14).cFrmLostNum);
}

TEST_F(AudioLoss, AnAnswerShrinksTheGapBehindItAndTheLastOneClosesItForGood)
{
    PutAll({10, 14});
    Walk();
    EXPECT_THAT(Lost(), ElementsAre(0, 3));
    Put(12);
    Walk();
    EXPECT_THAT(Lost(), ElementsAre(0, 1, 1)); // 10 12 14
    Put(13);
    Walk();
    EXPECT_THAT(Lost(), ElementsAre(0, 1, 0, 0)); // 10 12 13 14
    Leave(13);
    Walk();
    EXPECT_THAT(Lost(), ElementsAre(0, 1, 0)); // 14 was found without loss once
}

// ---- Gaps as numbers -----------------------------------------------------------------------------------------

TEST_F(AudioLoss, TheStoredCountIsTheGapModulo256)
{
    struct
    {
        uint32 dwPre, dwCur;
        int nWant;
    } const aRows[] = {
        {100, 101, 0},
        {100, 355, 254},
        {100, 356, 255},
        {100, 357, 0},
        {100, 358, 1},
        {100, 400, 43},
        {0, 1, 0},
        {0, 0x7FFF, 254},
        {1, 0x8000, 254},
        {0x7FFE, 0x8001, 2},
        {0x7FFFFFFF, 0x80000000, 0},
        {0x7FFFFFFE, 0x80000001, 2},
        {0xFFFFFFF0, 0xFFFFFFFF, 14},
    };
    for (const auto& stRow : aRows)
    {
        Stream() = tagUinDataBuf();
        PutAll({stRow.dwPre, stRow.dwCur});
        EXPECT_EQ(1u, Walk());
        EXPECT_THAT(Lost(), ElementsAre(0, stRow.nWant)) << stRow.dwPre << " " << stRow.dwCur;
    }
    EXPECT_EQ(0u, m_log.Count("out of order"));
}

TEST_F(AudioLoss, ACutCountIsComputedAnewOnEveryWalkAsLongAsItIsNot0)
{
    PutAll({100, 400}); // 299 missing
    for (int i = 0; i < 3; ++i)
    {
        Walk();
        EXPECT_THAT(Lost(), ElementsAre(0, 43));
    }
    Put(200); // 199 missing behind it
    Walk();
    EXPECT_THAT(Lost(), ElementsAre(0, 99, 199));
}

// A gap of 256 reads as none: from the second walk on the packet is one without loss, and its step counts.
TEST_F(AudioLoss, AGapOf256IsTakenForNoneFromTheSecondWalkOn)
{
    PutAt(100, 5000);
    PutAt(357, 5060);
    Walk();
    EXPECT_THAT(Lost(), ElementsAre(0, 0));
    EXPECT_EQ(0u, Stream().dwTimeStampDelta);
    Walk();
    EXPECT_EQ(60u, Stream().dwTimeStampDelta);
    Put(200); // what a gap of 256 hid is hidden for good
    Walk();
    EXPECT_THAT(Lost(), ElementsAre(0, 99, 0));
}

// ---- Order ----------------------------------------------------------------------------------------------------

TEST_F(AudioLoss, APacket32768AheadIsOutOfOrderAndKeepsItsMarks)
{
    PutAll({0, 0x8000});
    At(0x8000).cPrePkgLost = 5;
    At(0x8000).cFrmLostNum = 6;
    EXPECT_EQ(1u, Walk()); // it was visited
    EXPECT_EQ(5, At(0x8000).cPrePkgLost);
    EXPECT_EQ(6, At(0x8000).cFrmLostNum);
    EXPECT_EQ(0, At(0x8000).cIsCalcLost);
    EXPECT_EQ(1, At(0).cIsCalcLost); // the head is marked all the same

    const tagLogLine stLine = m_log.FirstLine("out of order");
    EXPECT_EQ("Err! pkg is out of order: subType 1 preSeq     0 nextSeq 32768Uin 7", stLine.strText);
    EXPECT_EQ(LOG_LEVEL_ERROR, stLine.eLevel);
    EXPECT_EQ("CmdCode", stLine.strTag);
    EXPECT_EQ("AVGUDTRecv", stLine.strFile);
    EXPECT_EQ("CalcAudLostInfo", stLine.strFunc);
}

TEST_F(AudioLoss, TheLineIsWrittenOnEveryWalkWhileThePairIsBuffered)
{
    PutAll({0, 0x8000});
    for (size_t nWalks = 1; nWalks <= 3; ++nWalks)
    {
        Walk();
        EXPECT_EQ(nWalks, m_log.Count("out of order"));
    }
    Leave(0);
    Walk();
    EXPECT_EQ(3u, m_log.Count("out of order"));
}

// As numbers 0 and 1 come first although they are the newest: the one pair across the wrap is out of order.
TEST_F(AudioLoss, AcrossTheWrapTheOldPacketsFollowTheNewOnesAndOnlyTheirFirstIsOutOfOrder)
{
    PutAll({0xFFFFFFFC, 0xFFFFFFFE, 0xFFFFFFFF, 0, 1, 4});
    EXPECT_EQ(5u, Walk());
    EXPECT_THAT(Lost(), ElementsAre(0, 0, 2, 0, 1, 0)); // 0 1 4 | FC FE FF
    EXPECT_EQ(0, At(0xFFFFFFFC).cIsCalcLost);
    EXPECT_THAT(m_log.Texts("CalcAudLostInfo"),
                ElementsAre("Err! pkg is out of order: subType 1 preSeq     4 nextSeq    -4Uin 7",
                            StartsWith("audio pkg timestamp delta: ")));
}

TEST_F(AudioLoss, TheNextPacketIsMeasuredFromTheOutOfOrderOne)
{
    PutAll({0, 0x10000, 0x10003});
    Walk();
    EXPECT_EQ(2, At(0x10003).cPrePkgLost);
}

// ---- Head -----------------------------------------------------------------------------------------------------

//  14 .. .. .. .. .. 20     20 counts 5 before it
//           17       20     14 was played, 17 came: 15 and 16 are missing before it, 18 and 19 behind
TEST_F(AudioLoss, APacketThatComesIntoTheCountedGapAtTheHeadTakesItsShare)
{
    PutAll({14, 20});
    Walk();
    Leave(14);
    Put(17).cFrmLostNum = 9;
    Walk();
    EXPECT_THAT(Lost(), ElementsAre(2, 2));
    EXPECT_EQ(0, At(17).cFrmLostNum);
    EXPECT_EQ(1, At(17).cIsCalcLost);
}

TEST_F(AudioLoss, TheHeadRuleNeedsACountThatReachesTheFirstPacket)
{
    struct
    {
        uint32 dwFirst, dwSecond;
        uint8 cCounted;    // before the second
        uint8 cIsCalcLost; // of the first
        uint8 cPrePkgLost; // of the first
        int nWantFirst;
        int nWantSecond;
    } const aRows[] = {
        {17, 20, 5, 0, 0, 2, 2}, // the count reaches over the first
        {17, 20, 3, 0, 9, 0, 2}, // ends right behind it: nothing left before it
        {17, 20, 2, 0, 9, 9, 2}, // does not reach it: kept
        {17, 20, 5, 1, 1, 1, 2}, // computed before: kept
        {19, 20, 1, 0, 0, 0, 0}, // the gap is closed
        {19, 20, 255, 0, 0, 254, 0},
        {19, 20, 0, 0, 9, 9, 0},
        {0, 1, 3, 0, 0, 2, 0},
        {0x7FFF, 0x8001, 9, 0, 0, 7, 1},
        {0xFFFFFFFC, 0xFFFFFFFF, 4, 0, 0, 1, 2},
        {100, 355, 255, 0, 9, 0, 254},
        {100, 356, 255, 0, 9, 9, 255}, // too far apart for a count of 8 bits
    };
    for (const auto& stRow : aRows)
    {
        Stream() = tagUinDataBuf();
        PutAll({stRow.dwFirst, stRow.dwSecond});
        At(stRow.dwFirst).cIsCalcLost = stRow.cIsCalcLost;
        At(stRow.dwFirst).cPrePkgLost = stRow.cPrePkgLost;
        At(stRow.dwSecond).cIsCalcLost = 1;
        At(stRow.dwSecond).cPrePkgLost = stRow.cCounted;
        // A second that was computed and holds 0 stays 0; every other row has a count.
        Walk();
        EXPECT_THAT(Lost(), ElementsAre(stRow.nWantFirst, stRow.nWantSecond))
            << stRow.dwFirst << " " << stRow.dwSecond << " counted " << (int)stRow.cCounted;
        EXPECT_EQ(1, At(stRow.dwFirst).cIsCalcLost);
    }
}

// The count before the second was cut to 8 bits, so the head rule works with the rest.
TEST_F(AudioLoss, TheHeadRuleWorksWithTheCutCount)
{
    PutAll({100, 400}); // 299 missing, stored 43
    Walk();
    Leave(100);
    Put(398);
    Walk();
    EXPECT_THAT(Lost(), ElementsAre(41, 1)); // of 297 that are missing
}

TEST_F(AudioLoss, AHeadThatWasComputedWithoutLossStaysSoBehindALaterArrival)
{
    PutAll({17, 20});
    Walk(); // 17 is marked as computed, nothing before it
    Put(15);
    Walk();
    EXPECT_THAT(Lost(), ElementsAre(0, 0, 2)); // 15 17 20: 16 is missing and nobody says so
}

// ---- Step -----------------------------------------------------------------------------------------------------

TEST_F(AudioLoss, TheStepIsLearnedFromTrailingGapFreePairs)
{
    struct
    {
        const char* pszCase;
        uint32 dwLearned;
        std::vector<uint32> vecSteps; // media ms from packet to packet
        uint32 dwWant;
    } const aRows[] = {
        {"nothing learned: 1 is the least", 0, {1}, 1},
        {"nothing learned: 0 is none", 0, {0}, 0},
        {"nothing learned: 84 is the most", 0, {84}, 84},
        {"nothing learned: 85 is too much", 0, {85}, 0},
        {"nothing learned: the last step counts", 0, {20, 30}, 30},
        {"nothing learned: the last step is no good", 0, {20, 85}, 0},
        {"two longer ones do not relearn", 20, {20, 40, 40}, 20},
        {"three longer ones do", 20, {20, 40, 40, 40}, 40},
        {"longer means more than 15 ms", 20, {35, 35, 35, 35}, 20},
        {"16 ms is longer", 20, {36, 36, 36}, 36},
        {"longer ones need not agree; the last is taken", 20, {40, 84, 50}, 50},
        {"longer ones must trail", 20, {40, 40, 40, 20}, 20},
        {"one between starts anew", 20, {40, 40, 20, 40, 40}, 20},
        {"too long to be learned", 20, {85, 85, 85}, 20},
        {"the last decides whether it can be learned", 20, {85, 85, 84}, 84},
        {"two shorter ones do not relearn", 40, {20, 20}, 40},
        {"three shorter ones do", 40, {20, 20, 20}, 20},
        {"shorter means more than 15 ms", 40, {25, 25, 25, 25}, 40},
        {"16 ms is shorter", 40, {24, 24, 24}, 24},
        {"a pause of the sender is not learned", 40, {0, 0, 0}, 40},
        {"longer and shorter count apart", 40, {20, 20, 80, 80}, 40},
        {"relearning the same changes nothing", 20, {20, 20, 20}, 20},
    };
    for (const auto& stRow : aRows)
    {
        Stream() = tagUinDataBuf();
        Stream().dwTimeStampDelta = stRow.dwLearned;
        uint32 dwSeq = 10;
        uint32 dwMedia = 5000;
        PutAt(dwSeq, dwMedia);
        for (uint32 dwStep : stRow.vecSteps)
            PutAt(++dwSeq, dwMedia += dwStep);
        m_log.Forget();
        Walk();
        EXPECT_EQ(stRow.dwWant, Stream().dwTimeStampDelta) << stRow.pszCase;
        EXPECT_EQ(stRow.dwWant != stRow.dwLearned ? 1u : 0u, m_log.Count("audio pkg")) << stRow.pszCase;
    }
}

TEST_F(AudioLoss, PairsWithAGapNeitherCountNorBreakARow)
{
    Stream().dwTimeStampDelta = 20;
    PutAt(10, 1000);
    PutAt(11, 1040); // 40
    PutAt(13, 1050); // a gap, whatever its step
    PutAt(14, 1090); // 40
    PutAt(15, 1130); // 40
    PutAt(18, 1131); // and a gap at the end
    Walk();
    EXPECT_EQ(40u, Stream().dwTimeStampDelta);
    EXPECT_EQ("audio pkg timestamp delta: preSeq 18 preTSDelta 20, curTSDelta 40 BigCnt 3 SmallCnt 0",
              m_log.First("audio pkg"));
}

TEST_F(AudioLoss, AStepAcrossTheWrapOfTheMediaClockIsOneShort)
{
    PutAt(10, 0xFFFFFFF0);
    PutAt(11, 0x00000004);
    Walk();
    EXPECT_EQ(19u, Stream().dwTimeStampDelta);
}

TEST_F(AudioLoss, AMediaClockThatStepsBackIsNotLearned)
{
    PutAt(10, 1000);
    PutAt(11, 990);
    Walk();
    EXPECT_EQ(0u, Stream().dwTimeStampDelta);
}

TEST_F(AudioLoss, ALearnedStepIsToldWithBothCounts)
{
    struct
    {
        uint32 dwLearned, dwStep;
        const char* pszWant;
    } const aRows[] = {
        {0, 20, "audio pkg timestamp delta: preSeq 13 preTSDelta 0, curTSDelta 20 BigCnt 3 SmallCnt 0"},
        {0, 15, "audio pkg timestamp delta: preSeq 13 preTSDelta 0, curTSDelta 15 BigCnt 0 SmallCnt 0"},
        {20, 60, "audio pkg timestamp delta: preSeq 13 preTSDelta 20, curTSDelta 60 BigCnt 3 SmallCnt 0"},
        {60, 20, "audio pkg timestamp delta: preSeq 13 preTSDelta 60, curTSDelta 20 BigCnt 0 SmallCnt 3"},
    };
    for (const auto& stRow : aRows)
    {
        Stream() = tagUinDataBuf();
        Stream().dwTimeStampDelta = stRow.dwLearned;
        for (uint32 i = 0; i < 4; ++i)
            PutAt(10 + i, 5000 + i * stRow.dwStep);
        m_log.Forget();
        Walk();
        const tagLogLine stLine = m_log.FirstLine("audio pkg");
        EXPECT_EQ(stRow.pszWant, stLine.strText);
        EXPECT_EQ(LOG_LEVEL_ERROR, stLine.eLevel);
        EXPECT_EQ("CmdCode", stLine.strTag);
        EXPECT_EQ("AVGUDTRecv", stLine.strFile);
        EXPECT_EQ("CalcAudLostInfo", stLine.strFunc);
    }
}

// A packet that keeps its 0 over a gap that opened before it counts as gap-free for the step as well.
TEST_F(AudioLoss, AnOpenedGapThatIsNotCountedMakesAStep)
{
    PutAll({10, 11, 12});
    Walk();
    ASSERT_EQ(20u, Stream().dwTimeStampDelta);
    Leave(11);
    Stream().dwTimeStampDelta = 0;
    Walk();
    EXPECT_EQ(40u, Stream().dwTimeStampDelta);
}

// ---- From the receiver's turn ---------------------------------------------------------------------------------

TEST(AudioLossTurn, GapsAreLookedForInAudioOncePerTurnAfterAllPacketsOfTheTurnWereFiled)
{
    CRecvRig rig;
    rig.Start();
    for (uint8 cSubType :
         {MEAVAudio, MEAVVideoSingal, MEAVVideoSingalEx, MEAVPPTShare, MEAVCheckSpeed, MEAVPPTWBoardData})
    {
        for (uint32 dwSeq : {14, 10, 11})
        {
            tagRigPacket stPacket = AudioPacket(c_ullUin, dwSeq);
            stPacket.cSubType = cSubType;
            rig.Feed(stPacket);
        }
    }
    EXPECT_EQ(nullptr, rig.Stream(c_ullUin, MEAVAudio));
    rig.Turn();
    EXPECT_EQ(2, rig.Buffered(c_ullUin, MEAVAudio, 14)->cPrePkgLost);
    EXPECT_EQ(0, rig.Buffered(c_ullUin, MEAVAudio, 11)->cPrePkgLost);
    for (uint8 cSubType :
         {MEAVVideoSingal, MEAVVideoSingalEx, MEAVPPTShare, MEAVCheckSpeed, MEAVPPTWBoardData})
    {
        EXPECT_EQ(0, rig.Buffered(c_ullUin, cSubType, 14)->cPrePkgLost) << (int)cSubType;
        EXPECT_EQ(0, rig.Buffered(c_ullUin, cSubType, 14)->cIsCalcLost) << (int)cSubType;
    }
}

} // namespace
