// What the simulated network does to packets, against formulas and hand-made tables; and the readers of recordings.

#include "LabBytes.h"

#include "SimNet.h"
#include "SimScenario.h"
#include "SimTrace.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cmath>
#include <fstream>

using namespace lab;
using testing::ElementsAre;
using testing::HasSubstr;

namespace
{

class CDrops : public ISimDropWatch
{
public:
    void OnDropped(emSimWay, const tagSimPacket& stPacket, emSimDrop eWhy) override
    {
        m_vec.emplace_back(stPacket.uIndex, eWhy);
    }
    std::vector<std::pair<uint32, emSimDrop>> m_vec;
};

struct tagGone
{
    uint32 uIndex;
    int64 llUs;
    bool operator==(const tagGone& st) const { return uIndex == st.uIndex && llUs == st.llUs; }
};
void PrintTo(const tagGone& st, std::ostream* pOut) { *pOut << "{" << st.uIndex << ", " << st.llUs << "}"; }

// Sends packets of one size at these times and tells which came out when.
std::vector<tagGone> Through(const tagSimPath& stPath, const std::vector<int64>& vecAtUs, CDrops& drops,
                             uint16 wBytes = 1000, uint64 ullSeed = 1)
{
    auto pInbox = std::make_unique<CSimInbox>();
    for (size_t i = 0; i < vecAtUs.size(); i++)
    {
        tagSimPacket st;
        st.uIndex = (uint32)i;
        st.wBytes = wBytes;
        pInbox->Push(vecAtUs[i], st);
    }
    const SimSourcePtr p = Impair(std::move(pInbox), stPath, SIM_DOWN, ullSeed, 0, drops);
    std::vector<tagGone> vec;
    int64 llLastUs = 0;
    while (p->NextUs() != c_llNever)
    {
        const int64 llUs = p->NextUs();
        EXPECT_GE(llUs, llLastUs) << "time ran back";
        llLastUs = llUs;
        tagSimPacket st;
        if (p->Take(st))
            vec.push_back({st.uIndex, llUs});
    }
    return vec;
}

std::vector<int64> Every(int64 llStepUs, size_t n)
{
    std::vector<int64> vec;
    for (size_t i = 0; i < n; i++)
        vec.push_back((int64)i * llStepUs);
    return vec;
}

std::string Written(const labtest::CTempDir& dir, const char* pszName, const std::string& strText)
{
    std::ofstream(dir.Path(pszName)) << strText;
    return dir.Path(pszName);
}

} // namespace

TEST(SimNet, APathWithNothingInItChangesNothing)
{
    CDrops drops;
    EXPECT_THAT(Through(tagSimPath(), {0, 5, 5, 9}, drops),
                ElementsAre(tagGone{0, 0}, tagGone{1, 5}, tagGone{2, 5}, tagGone{3, 9}));
    EXPECT_TRUE(drops.m_vec.empty());
}

// The deviation of a share p over n independent packets is sqrt(p (1 - p) / n); with bursts of mean length b the
// packets of a burst are one decision, and it is about sqrt(2 b) times that. Five deviations.
TEST(SimNet, LossAndBurstsAgreeWithTheirFormulas)
{
    struct
    {
        double dPercent;
        double dBurst;
    } const aRows[] = {{1, 0}, {5, 0}, {30, 0}, {5, 2}, {5, 8}, {30, 4}, {50, 1.5}, {0.5, 20}};
    constexpr size_t c_n = 400000;
    for (const auto& row : aRows)
    {
        SCOPED_TRACE(testing::Message() << row.dPercent << " % in bursts of " << row.dBurst);
        tagSimPath st;
        st.dLossPercent = row.dPercent;
        st.dBurst = row.dBurst;
        CSimLoss loss(st, CSimRandom(7, "test"));
        size_t nLost = 0;
        size_t nBursts = 0;
        bool bBefore = false;
        for (size_t i = 0; i < c_n; i++)
        {
            emSimDrop eWhy;
            const bool bLost = loss.Loses((int64)i, eWhy);
            nLost += bLost;
            nBursts += bLost && !bBefore;
            bBefore = bLost;
        }
        const double p = row.dPercent / 100;
        const double b =
            row.dBurst > 0 ? row.dBurst : 1 / (1 - p); // independent losses make such runs by chance
        const double dDeviation = std::sqrt(p * (1 - p) / c_n * 2 * b);
        EXPECT_NEAR((double)nLost / c_n, p, 5 * dDeviation);
        EXPECT_NEAR((double)nLost / (double)nBursts, b, 5 * b / std::sqrt((double)nBursts));
    }
}

TEST(SimNet, OutagesLoseAllAndNothingElse)
{
    tagSimPath st;
    st.vecOutages = {{20, 10}, {50, 5}};
    CDrops drops;
    EXPECT_THAT(Through(st, {19, 20, 29, 30, 49, 50, 54, 55}, drops),
                ElementsAre(tagGone{0, 19}, tagGone{3, 30}, tagGone{4, 49}, tagGone{7, 55}));
    EXPECT_THAT(drops.m_vec, ElementsAre(std::pair(1u, SIM_DROP_OUTAGE), std::pair(2u, SIM_DROP_OUTAGE),
                                         std::pair(5u, SIM_DROP_OUTAGE), std::pair(6u, SIM_DROP_OUTAGE)));
}

// 800 kbit/s serve 1000 bytes in 10 ms. The queue holds 3000 bytes, the packet in service included.
//
//   at ms    0    1    2    3    12   100
//   packet   0    1    2    3    4    5
//   leaves   10   20   30   -    40   110      3 finds the queue full; 0 is gone when 4 comes
TEST(SimNet, AQueueDelaysByWhatIsBeforeAndDropsWhatDoesNotFit)
{
    tagSimPath st;
    st.dRateKbps = 800;
    st.uQueueBytes = 3000;
    CDrops drops;
    EXPECT_THAT(Through(st, {0, 1000, 2000, 3000, 12000, 100000}, drops),
                ElementsAre(tagGone{0, 10000}, tagGone{1, 20000}, tagGone{2, 30000}, tagGone{4, 40000},
                            tagGone{5, 110000}));
    EXPECT_THAT(drops.m_vec, ElementsAre(std::pair(3u, SIM_DROP_QUEUE)));
}

TEST(SimNet, AQueueInMillisecondsHoldsThatMuchAtItsRate)
{
    tagSimPath st;
    st.dRateKbps = 800;
    st.llQueueUs = 50000; // 5000 bytes
    CDrops drops;
    EXPECT_EQ(Through(st, std::vector<int64>(9, 0), drops).size(), 5u);
    EXPECT_EQ(drops.m_vec.size(), 4u);
}

// 600-byte packets: an opportunity takes two and a half of them, the rest of the third goes with the next. What an
// opportunity finds nothing for is gone; the recording begins again after its last line.
//
//   opportunities 10 20 30 | 40 50 60 | 70 80 90
//   at ms         0 0 0 0 0                25     61
//   leaves        10 10 20 20 20           30     70
TEST(SimNet, DeliveryOpportunitiesServe1500BytesEach)
{
    auto pTrace = std::make_shared<tagRateTrace>();
    pTrace->vecOpportunityUs = {10000, 20000, 30000};
    pTrace->llPeriodUs = 30000;
    pTrace->dMeanKbps = 1200;
    tagSimPath st;
    st.pRateTrace = pTrace;
    st.uQueueBytes = 100000;
    CDrops drops;
    EXPECT_THAT(Through(st, {0, 0, 0, 0, 0, 25000, 61000}, drops, 600),
                ElementsAre(tagGone{0, 10000}, tagGone{1, 10000}, tagGone{2, 20000}, tagGone{3, 20000},
                            tagGone{4, 20000}, tagGone{5, 30000}, tagGone{6, 70000}));
}

// 800 kbit/s for 15 ms, nothing for 10 ms, then 1600: a packet of 10 ms, one across the hole, one in 5 ms.
TEST(SimNet, ARateThatChangesInStepsServesEachStepAtItsOwnRate)
{
    auto pTrace = std::make_shared<tagRateTrace>();
    pTrace->stRateKbps.vecPoints = {{0, 800}, {15000, 0}, {25000, 1600}};
    pTrace->stRateKbps.llPeriodUs = 1000000;
    pTrace->dMeanKbps = 1000;
    tagSimPath st;
    st.pRateTrace = pTrace;
    st.uQueueBytes = 100000;
    CDrops drops;
    EXPECT_THAT(Through(st, {0, 0, 0}, drops),
                ElementsAre(tagGone{0, 10000}, tagGone{1, 27500}, tagGone{2, 32500}));
}

TEST(SimNet, StepsOfDelayHoldFromTheirTimeOnAndNeverReorder)
{
    tagSimPath st;
    st.llDelayUs = 25000;
    st.vecSteps = {{10000, 60000}, {20000, 5000}};
    CDrops drops;
    EXPECT_THAT(Through(st, {0, 9999, 10000, 20000, 70000}, drops),
                ElementsAre(tagGone{0, 25000}, tagGone{1, 34999}, tagGone{2, 70000}, tagGone{3, 70000},
                            tagGone{4, 75000}));
}

TEST(SimNet, JitterHasItsDeviationAndKeepsOrderUnlessToldOtherwise)
{
    for (const bool bReorders : {false, true})
    {
        SCOPED_TRACE(bReorders);
        tagSimPath st;
        st.llDelayUs = 200000;
        st.llJitterUs = 20000;
        st.bJitterReorders = bReorders;
        CDrops drops;
        const auto vec = Through(st, Every(10000, 50000), drops);
        ASSERT_EQ(vec.size(), 50000u);
        double dSum = 0, dSquares = 0;
        size_t nOvertaken = 0;
        for (size_t i = 0; i < vec.size(); i++)
        {
            const double d = (double)(vec[i].llUs - (int64)vec[i].uIndex * 10000);
            dSum += d;
            dSquares += d * d;
            nOvertaken += i > 0 && vec[i].uIndex < vec[i - 1].uIndex;
        }
        const double dMean = dSum / (double)vec.size();
        const double dDeviation = std::sqrt(dSquares / (double)vec.size() - dMean * dMean);
        EXPECT_NEAR(dMean, 200000, 4000);
        EXPECT_NEAR(dDeviation, 20000, 1500);
        if (bReorders)
            EXPECT_GT(nOvertaken, 5000u);
        else
            EXPECT_EQ(nOvertaken, 0u);
    }
}

TEST(SimNet, ReorderingHoldsItsShareBackForNoLongerThanTold)
{
    tagSimPath st;
    st.dReorderPercent = 10;
    st.llReorderUs = 30000;
    CDrops drops;
    const auto vec = Through(st, Every(5000, 20000), drops);
    ASSERT_EQ(vec.size(), 20000u);
    size_t nHeld = 0;
    for (const tagGone& stGone : vec)
    {
        const int64 llDelayUs = stGone.llUs - (int64)stGone.uIndex * 5000;
        EXPECT_LE(llDelayUs, 30000);
        nHeld += llDelayUs > 0;
    }
    EXPECT_NEAR((double)nHeld, 2000, 220);
}

TEST(SimNet, DuplicatesComeOnceMoreAndNotBeforeTheOriginal)
{
    tagSimPath st;
    st.dDuplicatePercent = 25;
    st.llDuplicateUs = 40000;
    CDrops drops;
    const auto vec = Through(st, Every(1000, 20000), drops);
    EXPECT_NEAR((double)vec.size(), 25000, 320);
    std::vector<int> vecCount(20000);
    for (const tagGone& stGone : vec)
    {
        vecCount[stGone.uIndex]++;
        EXPECT_GE(stGone.llUs, (int64)stGone.uIndex * 1000);
        EXPECT_LT(stGone.llUs, (int64)stGone.uIndex * 1000 + 40000);
    }
    for (const int n : vecCount)
        EXPECT_TRUE(n == 1 || n == 2);
}

// ---- Recordings --------------------------------------------------------------------------------------------------

TEST(SimTrace, MahimahiIsALineForEachOpportunity)
{
    labtest::CTempDir dir;
    tagRateTrace st;
    std::string strError;
    ASSERT_TRUE(ReadRateTrace(Written(dir, "t", "0\n0\n5\r\n12\n"), TRACE_DOWNLINK, st, strError))
        << strError;
    EXPECT_THAT(st.vecOpportunityUs, ElementsAre(0, 0, 5000, 12000));
    EXPECT_EQ(st.llPeriodUs, 12000);
    EXPECT_DOUBLE_EQ(st.dMeanKbps, 4 * 12000.0 / 12);
}

TEST(SimTrace, PingGivesHalfTheRoundTripPerSecondAndItsGapsAreLosses)
{
    labtest::CTempDir dir;
    const std::string strPath = Written(dir, "p",
                                        "PING host (192.0.2.1) 56(84) bytes of data.\n"
                                        "64 bytes from 192.0.2.1: icmp_seq=3 ttl=57 time=22.4 ms\n"
                                        "64 bytes from 192.0.2.1: icmp_seq=6 ttl=57 time=10 ms\n"
                                        "From 192.0.2.9 icmp_seq=7 Destination Host Unreachable\n\n"
                                        "--- host ping statistics ---\n4 packets transmitted\n");
    tagSimTrace stDelay;
    std::string strError;
    ASSERT_TRUE(ReadDelayTrace(strPath, stDelay, strError)) << strError;
    size_t nCursor = 0;
    EXPECT_DOUBLE_EQ(stDelay.At(2999999, nCursor), 11.2);
    EXPECT_DOUBLE_EQ(stDelay.At(3000000, nCursor), 5.0);
    EXPECT_DOUBLE_EQ(stDelay.At(5000000, nCursor), 11.2); // from the beginning again after 5 s
    tagLossTrace stLoss;
    ASSERT_TRUE(ReadLossTrace(strPath, stLoss, strError)) << strError;
    const double aShare[] = {0, 1, 1, 0, 1};
    for (int i = 0; i < 5; i++)
        EXPECT_DOUBLE_EQ(stLoss.stShare.At(i * 1000000ll + 500000, nCursor), aShare[i]) << i;
}

TEST(SimTrace, TheTableGivesRatePingAndLossByColumn)
{
    labtest::CTempDir dir;
    const std::string strPath = Written(dir, "t.csv",
                                        "Timestamp,DL_bitrate,UL_bitrate,PINGAVG,PINGLOSS\n"
                                        "2020.02.29_23.59.59,1000,10,-,-\n"
                                        "2020.03.01_00.00.01,3000,30,80,25\n");
    tagRateTrace stDown, stUp;
    std::string strError;
    ASSERT_TRUE(ReadRateTrace(strPath, TRACE_DOWNLINK, stDown, strError)) << strError;
    ASSERT_TRUE(ReadRateTrace(strPath, TRACE_UPLINK, stUp, strError)) << strError;
    EXPECT_EQ(stDown.llPeriodUs, 3000000); // 2 s across a leap day, and a second for the last row
    EXPECT_DOUBLE_EQ(stDown.dMeanKbps, (1000 * 2 + 3000) / 3.0);
    EXPECT_DOUBLE_EQ(stUp.dMeanKbps, (10 * 2 + 30) / 3.0);
    tagSimTrace stDelay;
    tagLossTrace stLoss;
    size_t nCursor = 0;
    ASSERT_TRUE(ReadDelayTrace(strPath, stDelay, strError)) << strError;
    EXPECT_DOUBLE_EQ(stDelay.At(0, nCursor), 40);
    ASSERT_TRUE(ReadLossTrace(strPath, stLoss, strError)) << strError;
    EXPECT_DOUBLE_EQ(stLoss.stShare.At(2500000, nCursor), 0.25);
}

TEST(SimTrace, APatternIsAMarkPerPacketInALoop)
{
    labtest::CTempDir dir;
    auto pTrace = std::make_shared<tagLossTrace>();
    std::string strError;
    ASSERT_TRUE(ReadLossTrace(Written(dir, "l", "0\n1\n0\n"), *pTrace, strError)) << strError;
    tagSimPath st;
    st.pLossTrace = pTrace;
    CDrops drops;
    EXPECT_THAT(Through(st, {0, 1, 2, 3, 4, 5}, drops),
                ElementsAre(tagGone{0, 0}, tagGone{2, 2}, tagGone{3, 3}, tagGone{5, 5}));
}

TEST(SimTrace, BadLinesAreErrorsThatNameFileLineAndWhatWasExpected)
{
    enum emForm
    {
        RATE,
        DELAY,
        LOSS
    };
    const std::string strHead = "Timestamp,DL_bitrate,PINGAVG\n";
    const struct
    {
        emForm eForm;
        std::string strText;
        const char* pszWant;
    } aRows[] = {
        {RATE, "", "expected a trace, the file is empty"},
        {RATE, "1\n2\nx\n", ":3: expected the milliseconds of a delivery opportunity (mahimahi), got \"x\""},
        {RATE, "1\n-2\n", ":2: expected the milliseconds"},
        {RATE, "5\n4\n", ":2: expected 5 or more, times never fall, got 4"},
        {RATE, "0\n0\n", "expected delivery opportunities beyond 0 ms"},
        {RATE, strHead + "2020.02.13_13.03.24,12,9\n2020.02.13_13.03.25,9\n",
         ":3: expected 3 columns, got 2"},
        {RATE, strHead + "yesterday,12,9\n", ":2: expected a time YYYY.MM.DD_HH.MM.SS, got \"yesterday\""},
        {RATE, strHead + "2020.02.13_13.03.24,fast,9\n", ":2: expected a number or - in column DL_bitrate"},
        {RATE, strHead + "2020.02.13_13.03.24,0,9\n", "expected a rate above 0 in column DL_bitrate"},
        {RATE, "Timestamp,Speed\n2020.02.13_13.03.24,3\n", ":1: expected a column DL_bitrate"},
        {DELAY, strHead + "2020.02.13_13.03.25,1,9\n2020.02.13_13.03.24,1,9\n",
         ":3: expected times that never fall"},
        {DELAY, strHead + "2020.02.13_13.03.24,12,-\n", "expected a row with a value in column PINGAVG"},
        {DELAY, "PING x\nhello\n", ":2: expected an echo with icmp_seq=N (ping), got \"hello\""},
        {DELAY, "PING x\nfrom y: icmp_seq=1 time=soon ms\n", ":2: expected a round trip in ms after time="},
        {DELAY, "PING x\nfrom y: icmp_seq=1 ttl=3\n", ":2: expected time=MS or a lost echo (ping)"},
        {DELAY, "PING x\n", "expected at least one echo (ping)"},
        {LOSS, "0\n2\n", ":2: expected 0 (kept) or 1 (lost), the text of ping or a table, got \"2\""},
    };
    labtest::CTempDir dir;
    for (const auto& row : aRows)
    {
        SCOPED_TRACE(row.strText);
        const std::string strPath = Written(dir, "trace", row.strText);
        tagRateTrace stRate;
        tagSimTrace stDelay;
        tagLossTrace stLoss;
        std::string strError;
        const bool bOk = row.eForm == RATE    ? ReadRateTrace(strPath, TRACE_DOWNLINK, stRate, strError)
                         : row.eForm == DELAY ? ReadDelayTrace(strPath, stDelay, strError)
                                              : ReadLossTrace(strPath, stLoss, strError);
        EXPECT_FALSE(bOk);
        EXPECT_EQ(strError.rfind(strPath, 0), 0u) << strError;
        EXPECT_THAT(strError, HasSubstr(row.pszWant));
        EXPECT_EQ(strError.find('\n'), std::string::npos);
    }
    tagRateTrace stRate;
    std::string strError;
    EXPECT_FALSE(ReadRateTrace(dir.Path("none"), TRACE_DOWNLINK, stRate, strError));
    EXPECT_THAT(strError, HasSubstr("cannot be read"));
}

TEST(SimTrace, ThePublishedRecordingsAreRead)
{
    const char* pszEnv = getenv("UDT_SHARED_DATA");
    const std::string strFolder =
        std::string(pszEnv ? pszEnv : UDT_SOURCE_DIR "/../shared/data") + "/traces/";
    if (!std::ifstream(strFolder + "mahimahi-ATT-LTE-driving-2016.down"))
        GTEST_SKIP() << "no recordings in " << strFolder;
    std::string strError;
    tagRateTrace stAtt, stVerizon, st5g;
    ASSERT_TRUE(
        ReadRateTrace(strFolder + "mahimahi-ATT-LTE-driving-2016.down", TRACE_DOWNLINK, stAtt, strError));
    EXPECT_NEAR(stAtt.dMeanKbps, 4560, 10);
    EXPECT_NEAR((double)stAtt.llPeriodUs / 1e6, 120, 1);
    ASSERT_TRUE(
        ReadRateTrace(strFolder + "mahimahi-Verizon-LTE-short.up", TRACE_UPLINK, stVerizon, strError));
    EXPECT_NEAR(stVerizon.dMeanKbps, 5950, 10);
    const std::string str5g = strFolder + "5g-driving-B_2020.02.13_13.03.24.csv";
    ASSERT_TRUE(ReadRateTrace(str5g, TRACE_DOWNLINK, st5g, strError)) << strError;
    EXPECT_EQ(st5g.llPeriodUs / 1000000, 2668); // by its clock; it has 2468 rows, some seconds have none
    tagSimTrace stPing, stOran, stTable;
    tagLossTrace stLoss;
    ASSERT_TRUE(ReadDelayTrace(str5g, stTable, strError)) << strError;
    EXPECT_EQ(stTable.vecPoints.size(), 185u);
    ASSERT_TRUE(ReadDelayTrace(strFolder + "ping-5g-cmwave-cloud.txt", stPing, strError)) << strError;
    EXPECT_EQ(stPing.vecPoints.size(), 985u);
    ASSERT_TRUE(ReadDelayTrace(strFolder + "ping-5g-oran-cloud-upd.txt", stOran, strError)) << strError;
    EXPECT_EQ(stOran.vecPoints.size(), 1772u);
    ASSERT_TRUE(ReadLossTrace(str5g, stLoss, strError)) << strError;
}
