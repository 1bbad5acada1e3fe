#include "AVGPktFlowStatic.h"
#include <gtest/gtest.h>
#include <ostream>
#include <random>
#include <set>
#include <string>
#include <vector>

namespace
{
const uint32 c_arrStart[] = {0, 1, 0x7FFF, 0x80000000, 0xFFFFFFFE, 0xFFFFFFFF};

struct tagCounts
{
    uint32 dwTotal, dwRecv, dwLossTimes;
    bool operator==(const tagCounts& o) const
    {
        return dwTotal == o.dwTotal && dwRecv == o.dwRecv && dwLossTimes == o.dwLossTimes;
    }
};

std::ostream& operator<<(std::ostream& os, const tagCounts& st)
{
    return os << "total " << st.dwTotal << " recv " << st.dwRecv << " times " << st.dwLossTimes;
}

tagCounts Close(tagCPktFlowStat& stStat)
{
    stStat.UpdateStat();
    return {stStat.GetTotalPkt(), stStat.GetRecvPkt(), stStat.GetLossTimes()};
}

void Feed(tagCPktFlowStat& stStat, uint32 dwStart, const std::vector<uint32>& listSeq)
{
    for (uint32 dwSeq : listSeq)
        stStat.RecvData(dwStart + dwSeq);
}

// The slow truth: every sequence of the interval, in a set, by its 64-bit distance from the beginning.
class COracle
{
public:
    void Recv(uint32 dwSeq)
    {
        if (!m_bInit)
        {
            m_bInit = true;
            m_llBase = -1;
            m_llLast = 0;
            m_dwFirst = dwSeq;
            m_setSeen.insert(0);
            return;
        }
        const uint32 dwAhead = dwSeq - (m_dwFirst + (uint32)m_llLast);
        const int64 llSeq = m_llLast + (int32)dwAhead;
        if (dwAhead >= 1 && dwAhead <= 0x7FFF)
            m_llLast = llSeq;
        else if (llSeq <= m_llBase || llSeq > m_llLast)
            return;
        m_setSeen.insert(llSeq);
    }

    tagCounts Close()
    {
        tagCounts st = {(uint32)(m_llLast - m_llBase), (uint32)m_setSeen.size(), 0};
        bool bMissing = false;
        for (int64 ll = m_llBase + 1; ll <= m_llLast; ++ll)
        {
            const bool bSeen = m_setSeen.count(ll) != 0;
            if (!bSeen && !bMissing)
                ++st.dwLossTimes;
            bMissing = !bSeen;
        }
        m_llBase = m_llLast;
        m_setSeen.clear();
        return st;
    }

private:
    bool m_bInit = false;
    uint32 m_dwFirst = 0;
    int64 m_llBase = 0;
    int64 m_llLast = 0;
    std::set<int64> m_setSeen;
};
} // namespace

TEST(SeqOrder, NewIsOneTo7FFFAheadAcrossTheWrap)
{
    struct tagRow
    {
        uint32 dwAhead;
        boolean bWant;
    };
    for (const tagRow& stRow :
         {tagRow{0, FALSE}, tagRow{1, TRUE}, tagRow{2, TRUE}, tagRow{0x7FFE, TRUE}, tagRow{0x7FFF, TRUE},
          tagRow{0x8000, FALSE}, tagRow{0x8001, FALSE}, tagRow{0x7FFFFFFF, FALSE}, tagRow{0x80000000, FALSE},
          tagRow{0xFFFF8000, FALSE}, tagRow{0xFFFFFFFF, FALSE}})
        for (uint32 dwStart : c_arrStart)
            EXPECT_EQ(IsNewSeqNum(dwStart + stRow.dwAhead, dwStart), stRow.bWant)
                << stRow.dwAhead << " ahead of " << dwStart;
}

TEST(FlowStat, CountsWhatAnIntervalSpansWhatCameAndHowOftenSomethingWasMissing)
{
    struct tagRow
    {
        const char* pszCase;
        std::vector<uint32> listSeq;
        tagCounts stWant;
    };
    const std::vector<tagRow> listRow = {
        {"one packet", {0}, {1, 1, 0}},
        {"in order", {0, 1, 2, 3}, {4, 4, 0}},
        {"one gap of two", {0, 3}, {4, 2, 1}},
        {"two gaps", {0, 2, 4}, {5, 3, 2}},
        {"repeated", {0, 0, 1, 1, 0}, {2, 2, 0}},
        {"late fills a single", {0, 2, 1}, {3, 3, 0}},
        {"late twice", {0, 2, 1, 1}, {3, 3, 0}},
        {"late from the front", {0, 4, 1}, {5, 3, 1}},
        {"late from the back", {0, 4, 3}, {5, 3, 1}},
        {"late splits", {0, 4, 2}, {5, 3, 2}},
        {"split, then both filled", {0, 4, 2, 3, 1}, {5, 5, 0}},
        {"before the first packet", {10, 9, 11}, {2, 2, 0}},
        {"furthest leap", {0, 0x7FFF}, {0x8000, 2, 1}},
        {"one beyond it counts nothing", {0, 0x8000}, {1, 1, 0}},
        {"and does not move the end", {0, 0x8000, 1}, {2, 2, 0}},
    };
    for (const tagRow& stRow : listRow)
        for (uint32 dwStart : c_arrStart)
        {
            tagCPktFlowStat stStat;
            Feed(stStat, dwStart, stRow.listSeq);
            EXPECT_EQ(Close(stStat), stRow.stWant) << stRow.pszCase << " from " << dwStart;
        }
}

TEST(FlowStat, TheNextIntervalStartsEmptyBehindTheHighestSeen)
{
    for (uint32 dwStart : c_arrStart)
    {
        tagCPktFlowStat stStat;
        Feed(stStat, dwStart, {0, 1, 3});
        EXPECT_EQ(Close(stStat), (tagCounts{4, 3, 1}));
        EXPECT_EQ(Close(stStat), (tagCounts{0, 0, 0}));
        Feed(stStat, dwStart, {2, 3, 1}); // from before the interval, or repeated
        EXPECT_EQ(Close(stStat), (tagCounts{0, 0, 0}));
        Feed(stStat, dwStart, {6, 7}); // a gap right at the border belongs to the new interval
        EXPECT_EQ(Close(stStat), (tagCounts{4, 2, 1}));
    }
}

TEST(FlowStat, BeforeTheFirstPacketAndAfterResetThereIsNothing)
{
    tagCPktFlowStat stStat;
    EXPECT_EQ(stStat.m_bInit, FALSE);
    EXPECT_EQ(Close(stStat), (tagCounts{0, 0, 0}));
    Feed(stStat, 100, {0, 5});
    EXPECT_EQ(Close(stStat), (tagCounts{6, 2, 1}));
    Feed(stStat, 100, {9});
    stStat.Reset();
    EXPECT_EQ(stStat.GetTotalPkt() + stStat.GetRecvPkt() + stStat.GetLossTimes(), 0u);
    EXPECT_EQ(stStat.m_bInit, FALSE);
    Feed(stStat, 5, {0, 1}); // elsewhere: no gap between
    EXPECT_EQ(Close(stStat), (tagCounts{2, 2, 0}));
}

TEST(FlowStat, TheGettersTellTheClosedIntervalWhileTheNextRuns)
{
    tagCPktFlowStat stStat;
    Feed(stStat, 0, {0, 2});
    EXPECT_EQ(stStat.GetTotalPkt(), 0u);
    stStat.UpdateStat();
    Feed(stStat, 0, {3, 4, 9});
    EXPECT_EQ(stStat.GetTotalPkt(), 3u);
    EXPECT_EQ(stStat.GetRecvPkt(), 2u);
    EXPECT_EQ(stStat.GetLossTimes(), 1u);
}

TEST(FlowStat, ACopyGoesItsOwnWay)
{
    tagCPktFlowStat stOne;
    Feed(stOne, 0, {0, 3});
    tagCPktFlowStat stTwo = stOne;
    stTwo.RecvData(1);
    EXPECT_EQ(Close(stOne), (tagCounts{4, 2, 1}));
    EXPECT_EQ(Close(stTwo), (tagCounts{4, 3, 1}));
}

TEST(FlowStat, TheMapHoldsTheMissingRuns)
{
    tagCPktFlowStat stStat;
    Feed(stStat, 0xFFFFFFFE, {0, 5, 7});
    EXPECT_EQ(stStat.m_mapLoss, (tagCPktFlowStat::SeqMap{{0xFFFFFFFF, 4}, {4, 1}}));
    stStat.RecvData(1);
    EXPECT_EQ(stStat.m_mapLoss, (SeqMap{{0xFFFFFFFF, 2}, {2, 1}, {4, 1}}));
    EXPECT_EQ(stStat.m_uBase, 0xFFFFFFFDu);
    EXPECT_EQ(stStat.m_uLast, 5u);
    EXPECT_EQ(stStat.m_uPktRecv, 4u);
}

TEST(FlowStat, AgreesWithCountingEverySequenceOnRandomStreams)
{
    for (uint32 dwSeed = 1; dwSeed <= 60; ++dwSeed)
    {
        std::mt19937 random(dwSeed);
        tagCPktFlowStat stStat;
        COracle oracle;
        // Loss, reordering and repeats of a depth that changes with the seed, over several intervals.
        const uint32 dwDepth = 1 + dwSeed % 40;
        uint32 dwNext = c_arrStart[dwSeed % 6] - 200;
        std::vector<uint32> listHeld;
        for (int nInterval = 0; nInterval < 8; ++nInterval)
        {
            const uint32 dwPackets = random() % 400;
            for (uint32 i = 0; i < dwPackets; ++i)
            {
                dwNext += random() % 10 == 0 ? 1 + random() % 30 : 1;
                if (random() % 200 == 0)
                    dwNext += 0x3000; // and two such leaps still lie within reach of one another
                listHeld.push_back(dwNext);
                if (random() % 20 == 0)
                    listHeld.push_back(dwNext - random() % 60);
                while (listHeld.size() > dwDepth)
                {
                    const size_t nPick = random() % listHeld.size();
                    stStat.RecvData(listHeld[nPick]);
                    oracle.Recv(listHeld[nPick]);
                    listHeld.erase(listHeld.begin() + (long)nPick);
                }
            }
            ASSERT_EQ(Close(stStat), oracle.Close()) << "seed " << dwSeed << " interval " << nInterval;
        }
    }
}

TEST(FlowStat, NumbersOutOfReachCountNothingHoweverManyCome)
{
    // 0x7FFF ahead is the last that is newer; from there on a number reads as one from before the interval.
    for (uint32 dwJump : {0x8000u, 0x12345678u, 0x80000000u, 0xF0000000u})
    {
        tagCPktFlowStat stStat;
        Feed(stStat, 1000, {0, 1, 3});
        for (uint32 i = 0; i < 1000; ++i)
            stStat.RecvData(1003 + dwJump + i);
        EXPECT_EQ(stStat.m_uLast, 1003u) << dwJump;
        Feed(stStat, 1000, {2, 4});
        EXPECT_EQ(Close(stStat), (tagCounts{5, 5, 0})) << dwJump;
    }
}

TEST(FlowStat, PacketsFromBeforeTheIntervalCountNothingHoweverManyCome)
{
    tagCPktFlowStat stStat;
    Feed(stStat, 5000, {0});
    stStat.UpdateStat();
    for (uint32 i = 0; i < 1000; ++i)
    {
        stStat.RecvData(4000 + i);
        if (i % 100 == 99)
            stStat.RecvData(5001 + i / 100);
    }
    EXPECT_EQ(Close(stStat), (tagCounts{10, 10, 0}));
}

TEST(FlowStat, ManyGapsAreCountedExactlyWhileTheMapStaysBounded)
{
    tagCPktFlowStat stStat;
    const uint32 dwGaps = 50000;
    for (uint32 i = 0; i <= dwGaps; ++i)
        stStat.RecvData(0xFFFF0000 + 3 * i);
    EXPECT_EQ(stStat.m_mapLoss.size(), 16384u);
    stStat.RecvData(0xFFFF0000 + 3 * dwGaps - 1); // the newest run can still be shortened,
    stStat.RecvData(0xFFFF0001);                  // the oldest cannot
    EXPECT_EQ(Close(stStat), (tagCounts{3 * dwGaps + 1, dwGaps + 2, dwGaps}));
    EXPECT_EQ(stStat.m_mapLoss.size(), 0u);
}

TEST(FlowStat, SplittingAFullMapStaysBoundedAndExact)
{
    tagCPktFlowStat stStat;
    for (uint32 i = 0; i <= 16384; ++i)
        stStat.RecvData(10 * i);
    EXPECT_EQ(stStat.m_mapLoss.size(), 16384u);
    for (uint32 i = 16000; i < 16384; ++i)
        stStat.RecvData(10 * i + 5);
    EXPECT_EQ(stStat.m_mapLoss.size(), 16384u);
    EXPECT_EQ(Close(stStat), (tagCounts{163841, 16385 + 384, 16384 + 384}));
}

TEST(FlowStat, NumbersThatComeRoundInOneIntervalDoNotMeetTheirOldRuns)
{
    tagCPktFlowStat stStat;
    Feed(stStat, 0, {0, 2});
    stStat.m_uLast = 0xFFFFFFFD; // as if four thousand million packets had come in order
    stStat.RecvData(4);          // missing: 0xFFFFFFFE to 3, a second time round
    stStat.RecvData(1);          // late: splits the new run, not the old one
    EXPECT_EQ(stStat.m_mapLoss, (SeqMap{{0xFFFFFFFE, 3}, {2, 2}}));
    EXPECT_EQ(Close(stStat), (tagCounts{0xFFFFFFFF, 4, 3}));
}

TEST(FlowStat, NoInputBreaksItsBounds)
{
    for (uint32 dwSeed = 1; dwSeed <= 6; ++dwSeed)
    {
        std::mt19937 random(dwSeed);
        tagCPktFlowStat stStat;
        uint32 dwSeq = random();
        uint32 dwFed = 0;
        for (int i = 0; i < 300000; ++i)
        {
            switch (dwSeed)
            {
            case 1: dwSeq += 0x7FFF; break;                                // round the numbers in 131078
            case 2: dwSeq += i % 2 != 0 ? 0x7FFF : (uint32)-0x7FFE; break; // to and fro
            case 3: dwSeq = random(); break;                               // noise
            case 4: dwSeq += i % 2 != 0 ? 1 : 0x40000000; break;           // half of it out of reach
            case 5: dwSeq += random() % 4 != 0 ? 2 : (uint32) - (int)(random() % 9000); break; // mostly gaps
            default: dwSeq += i % 3 != 0 ? 0x7FFF : random() % 3 - 1; break;
            }
            stStat.RecvData(dwSeq);
            ++dwFed;
            ASSERT_LE(stStat.m_mapLoss.size(), 16384u);
            ASSERT_LE(stStat.m_uPktRecv, stStat.m_uLast - stStat.m_uBase);
            ASSERT_LE(stStat.m_uPktRecv, dwFed);
        }
        stStat.UpdateStat();
        EXPECT_LE(stStat.GetRecvPkt(), stStat.GetTotalPkt());
        EXPECT_LE(stStat.GetLossTimes(), 0xFFFFu + 16384u);
        if (dwSeed == 1)
        {
            EXPECT_EQ(stStat.GetTotalPkt(), 0xFFFFFFFFu);
        }
        // And it still works.
        stStat.Reset();
        Feed(stStat, 7, {0, 2});
        EXPECT_EQ(Close(stStat), (tagCounts{3, 2, 1}));
    }
}
