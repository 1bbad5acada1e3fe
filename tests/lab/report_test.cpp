// Reports: what is told over time against what was counted by others, its verdict in words, its page.

#include "LabBytes.h"
#include "ReportDoc.h"

#include "BinTable.h"
#include "LabRun.h"
#include "RecvRig.h"
#include "Replay.h"
#include "ReplayReport.h"
#include "ReportFiles.h"
#include "ReportPage.h"
#include "RunSeries.h"
#include "SimReport.h"
#include "SimScenario.h"
#include "Simulate.h"
#include "Verdict.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cmath>
#include <map>
#include <random>
#include <set>

using namespace lab;
using labtest::Bundled;
using labtest::CTempDir;
using labtest::Doc;
using labtest::ExpectWellFormed;
using labtest::SeriesOf;
using labtest::Sum;
using labtest::TotalsOf;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::Not;

namespace
{

std::vector<Doc> EventsOf(const Doc& j, const char* pszKind)
{
    std::vector<Doc> vec;
    for (const Doc& jEvent : j["events"])
        if (jEvent["kind"] == pszKind)
            vec.push_back(jEvent);
    return vec;
}

// A scenario in the words of its document.
tagScenario Scenario(const char* pszJson)
{
    Doc j = DefaultScenario();
    j.merge_patch(Doc::parse(pszJson));
    tagScenario stScenario;
    std::string strError;
    EXPECT_TRUE(ParseScenario(j, "", stScenario, strError)) << strError;
    return stScenario;
}

struct tagSimReport
{
    tagSimResult stResult;
    Doc j;
};

tagSimReport Simulated(const char* pszJson, const tagSeriesOptions& stOptions = tagSeriesOptions())
{
    tagSimReport st;
    CRunSeries series(stOptions);
    tagSimHooks stHooks;
    stHooks.pSeries = &series;
    st.stResult = RunSimulation(Scenario(pszJson), stHooks);
    st.j = SimRunReport(st.stResult, series, {});
    return st;
}

} // namespace

// ---- Bins ---------------------------------------------------------------------------------------------------------------

TEST(BinTable, MergedBinsHoldTheSumsAndExtremesOfWhatWasPutIn)
{
    for (uint32 uSeed = 1; uSeed <= 30; uSeed++)
    {
        std::mt19937 random(uSeed);
        const size_t nMax = 2 + random() % 40;
        CBinTable table(10, nMax);
        const size_t n = table.AddColumns(2);
        const uint64 ullSpan = 1 + random() % 100000;
        int64 llCount = 0, llSum = 0;
        int32 nLow = INT32_MAX, nHigh = INT32_MIN;
        std::vector<std::pair<uint64, int64>> vecPut;
        for (int i = 0; i < 500; i++)
        {
            const uint64 ullMs = random() % ullSpan;
            const int32 nValue = (int32)(random() % 2001) - 1000;
            table.Count(n, ullMs, nValue);
            table.Value(n + 1, ullMs, nValue);
            vecPut.emplace_back(ullMs, nValue);
            llCount += nValue;
            llSum += nValue;
            nLow = std::min(nLow, nValue);
            nHigh = std::max(nHigh, nValue);
        }
        if (uSeed % 3 == 0)
            table.SetMaxBins(2);
        EXPECT_LE(table.Bins(), nMax);
        EXPECT_EQ(table.FirstMs(), 0u);
        int64 llCounted = 0, llSummed = 0;
        uint32 uValues = 0;
        int32 nSeenLow = INT32_MAX, nSeenHigh = INT32_MIN;
        for (size_t i = 0; i < table.Bins(); i++)
        {
            // Each bin holds what belongs to its time, and nothing else.
            int64 llHere = 0;
            for (const auto& st : vecPut)
                if (st.first / table.BinMs() == i)
                    llHere += st.second;
            EXPECT_EQ(table.At(n, i).llSum, llHere);
            const tagBin& st = table.At(n + 1, i);
            llCounted += table.At(n, i).llSum;
            llSummed += st.llSum;
            uValues += st.uCount;
            if (st.uCount == 0)
                continue;
            nSeenLow = std::min(nSeenLow, st.nLow);
            nSeenHigh = std::max(nSeenHigh, st.nHigh);
        }
        EXPECT_EQ(llCounted, llCount);
        EXPECT_EQ(llSummed, llSum);
        EXPECT_EQ(uValues, 500u);
        EXPECT_EQ(nSeenLow, nLow);
        EXPECT_EQ(nSeenHigh, nHigh);
    }
}

TEST(BinTable, AWindowKeepsItsSpanInFineBinsAndForgetsTheRest)
{
    CBinTable table(100, 20, 1000);
    const size_t n = table.AddColumns(1);
    for (uint64 ull = 0; ull < 50000; ull += 50)
    {
        table.Count(n, ull, 1);
        ASSERT_EQ(table.BinMs(), 100u);
        ASSERT_LE(table.FirstMs(), ull > 1000 ? ull - 1000 : 0);
        for (size_t i = 0; i + 1 < table.Bins(); i++)
            ASSERT_EQ(table.At(n, i).llSum, 2);
    }
    EXPECT_LE(table.Cells(), 100u);
    table.Count(n, 0, 1); // long forgotten
    table.Count(n, 1000000000, 1);
    EXPECT_LE(table.Bins(), 22u);
    EXPECT_EQ(table.At(n, table.Bins() - 1).llSum, 1);
}

TEST(BinTable, AWindowOfFewBinsMakesThemWider)
{
    CBinTable table(100, 1200, 120000);
    const size_t n = table.AddColumns(1);
    for (uint64 ull = 0; ull < 200000; ull += 100)
        table.Count(n, ull, 1);
    table.SetMaxBins(100);
    EXPECT_EQ(table.BinMs(), 1600u);
    EXPECT_LE(table.FirstMs(), 80000u);
    EXPECT_EQ(table.At(n, table.Bins() - 2).llSum, 16);
}

// ---- The book of a stream --------------------------------------------------------------------------------------------------

namespace
{

// Books into plain sums.
class CSums : public ISeriesSink
{
public:
    void Count(emSeries eSeries, uint64 ullMs, int64 n) override { m_map[eSeries][ullMs] += n; }
    void Value(emSeries, uint64, int32) override {}
    void Still(const char* pszKind, uint64 ullFromMs, uint64 ullMs) override
    {
        m_strStills +=
            std::string(pszKind) + " " + std::to_string(ullFromMs) + "+" + std::to_string(ullMs) + " ";
    }
    int64 At(emSeries eSeries, uint64 ullMs) { return m_map[eSeries][ullMs]; }
    int64 All(emSeries eSeries)
    {
        int64 ll = 0;
        for (const auto& st : m_map[eSeries])
            ll += st.second;
        return ll;
    }

    std::map<int, std::map<uint64, int64>> m_map;
    std::string m_strStills;
};

struct tagBook
{
    CSeriesStream book;
    CSums sums;

    bool Came(uint32 dwSeq, uint64 ullMs, std::optional<bool> bRetransmitted = {})
    {
        CSeriesStream::tagCame st;
        st.dwSeq = dwSeq;
        st.dwMediaMs = dwSeq * 20;
        st.dwBytes = 100;
        st.bRetransmitted = bRetransmitted;
        return book.Came(st, ullMs, sums);
    }
    void Left(uint32 dwSeq, uint64 ullMs, uint32 dwMediaMs)
    {
        CSeriesStream::tagLeft st;
        st.dwSeq = dwSeq;
        st.dwMediaMs = dwMediaMs;
        book.Released(st, ullMs, sums);
    }
    void Left(uint32 dwSeq, uint64 ullMs) { Left(dwSeq, ullMs, dwSeq * 20); }
    void Asked(uint32 dwSeq, uint64 ullMs) { book.Asked(dwSeq, ullMs, sums); }
    // lost = in time + late + never
    std::vector<uint64> Fates()
    {
        const tagSeriesTotals& st = book.Totals();
        return {st.ullLost, st.ullInTime, st.ullLate, st.ullUnrepaired};
    }
};

} // namespace

TEST(SeriesStream, EveryLostPacketEndsRepairedInTimeOrLateOrNever)
{
    for (const uint32 dwFirst : {0u, 1u, 0x7FFFFFFFu, 0xFFFFFFFEu})
    {
        tagBook st;
        const auto S = [dwFirst](uint32 dw) { return dwFirst + dw; };
        st.Came(S(0), 1000);
        st.Came(S(1), 1020);
        st.Came(S(6), 1120); // 2, 3, 4 and 5 are missing
        for (uint32 dw = 2; dw < 6; dw++)
            st.Asked(S(dw), 1130);
        st.Came(S(2), 1200); // in time
        st.Left(S(0), 1500);
        st.Left(S(1), 1520);
        st.Left(S(2), 1540);
        st.Left(S(6), 1620);
        st.Came(S(3), 1700); // too late
        st.Left(S(3), 1710);
        EXPECT_THAT(st.Fates(), ElementsAre(4, 1, 1, 2));
        EXPECT_EQ(st.sums.At(SERIES_LOST, 1120), 4) << "a loss belongs to where it was noticed";
        EXPECT_EQ(st.sums.At(SERIES_UNREPAIRED, 1120), 2);
        EXPECT_EQ(st.book.Totals().ullAnswered, 2u);
        EXPECT_EQ(st.book.Totals().ullExpected, 7u);
    }
}

TEST(SeriesStream, AnOvertakenPacketIsTakenBackFromTheLost)
{
    tagBook st;
    st.Came(10, 100);
    st.Came(12, 140);
    EXPECT_EQ(st.sums.At(SERIES_LOST, 140), 1);
    st.Came(11, 150);
    EXPECT_EQ(st.sums.At(SERIES_LOST, 140), 0);
    EXPECT_THAT(st.Fates(), ElementsAre(0, 0, 0, 0));
}

TEST(SeriesStream, ARequestForWhatComesByItselfIsWastedWhereTheDoorTells)
{
    tagBook st;
    st.Came(10, 100, false);
    st.Came(12, 140, false);
    st.Asked(11, 150);
    st.Asked(11, 200);
    st.Came(11, 210, true); // the answer
    EXPECT_EQ(st.book.Totals().ullWasted, 0u);
    EXPECT_THAT(st.Fates(), ElementsAre(1, 0, 0, 0));
    st.Came(11, 220, false); // and the packet itself
    EXPECT_EQ(st.book.Totals().ullWasted, 2u);
    EXPECT_EQ(st.book.Totals().ullDuplicates, 1u);
    EXPECT_THAT(st.Fates(), ElementsAre(0, 0, 0, 0));

    tagBook stUntold;
    stUntold.Came(10, 100);
    stUntold.Came(12, 140);
    stUntold.Asked(11, 150);
    stUntold.Came(11, 210);
    EXPECT_FALSE(stUntold.book.Totals().bWastedKnown) << "nobody can tell an answer from a late original";
    EXPECT_THAT(stUntold.Fates(), ElementsAre(1, 0, 0, 0));
}

TEST(SeriesStream, WhatIsOpenAtTheEndOrForgottenWasNeverPlayed)
{
    tagBook st;
    st.Came(10, 100);
    st.Came(13, 160);
    EXPECT_THAT(st.Fates(), ElementsAre(2, 0, 0, 0));
    st.book.Finish(st.sums);
    EXPECT_THAT(st.Fates(), ElementsAre(2, 0, 0, 2));
    EXPECT_EQ(st.sums.At(SERIES_UNREPAIRED, 160), 2);

    tagBook stLong;
    stLong.Came(0, 0);
    stLong.Came(2, 40);
    for (uint32 dw = 3; dw < 3 + 2 * CSeriesStream::c_dwSpan; dw++)
        stLong.Came(dw, dw * 20);
    EXPECT_THAT(stLong.Fates(), ElementsAre(1, 0, 0, 1));
    EXPECT_EQ(stLong.sums.At(SERIES_UNREPAIRED, 40), 1);
}

TEST(SeriesStream, ASenderThatNumbersAnewIsARestartAndNoLoss)
{
    tagBook st;
    EXPECT_FALSE(st.Came(5000000, 0));
    EXPECT_FALSE(st.Came(5000001, 20));
    EXPECT_FALSE(st.Came(7, 40)); // a stray, until the next one follows it
    EXPECT_TRUE(st.Came(8, 60));
    EXPECT_FALSE(st.Came(9, 80));
    EXPECT_EQ(st.book.Totals().ullLost, 0u);
    EXPECT_EQ(st.book.Totals().ullIn, 5u);
}

TEST(SeriesStream, PacketsOlderThanTheFirstOneAreNoRestart)
{
    tagBook st;
    st.Came(100, 0);
    st.Left(100, 10);
    EXPECT_FALSE(st.Came(97, 20));
    EXPECT_FALSE(st.Came(98, 30));
    EXPECT_FALSE(st.Came(101, 40));
    EXPECT_EQ(st.book.Totals().ullExpected, 5u);
    EXPECT_THAT(st.Fates(), ElementsAre(1, 0, 0, 1)); // 99, whose place is behind playout
}

TEST(SeriesStream, AStallIsALatePacketAndAHoleIsOneThatNeverCame)
{
    tagBook st;
    uint64 ullMs = 1000;
    for (uint32 dw = 0; dw < 50; dw++, ullMs += 20)
    {
        st.Came(dw, ullMs);
        st.Left(dw, ullMs);
    }
    // 1980: the last one. The next comes 500 ms later than its pace.
    st.Came(50, 2500);
    st.Left(50, 2500);
    EXPECT_EQ(st.sums.m_strStills, "stall 2000+500 ");
    // 20 packets are lost: the one behind them comes at its time.
    st.Came(71, 2920);
    st.Left(71, 2920);
    EXPECT_EQ(st.sums.m_strStills, "stall 2000+500 hole 2520+400 ");
    EXPECT_EQ(st.sums.All(SERIES_STALL_MS), 900);
    EXPECT_EQ(st.sums.At(SERIES_STALL_MS, 2100), 100) << "spread over the bins that it covers";
    // The sender is silent for 3 s, as discontinuous transmission is, and loses a packet besides.
    st.Came(73, 6000);
    st.Left(73, 6000, 71 * 20 + 3080);
    EXPECT_EQ(st.book.Totals().stHoles.ullCount, 1u);
    EXPECT_EQ(st.book.Totals().stStalls.ullCount, 1u);
    // 200 ms are filled by any decoder, 201 are not.
    tagBook stEdge;
    stEdge.Left(0, 0);
    stEdge.Came(1, 0);
    stEdge.Left(1, 0);
    stEdge.Came(2, 0);
    stEdge.Left(2, 220);
    EXPECT_EQ(stEdge.book.Totals().stStalls.ullCount, 0u);
    stEdge.Came(3, 300);
    stEdge.Left(3, 441);
    EXPECT_EQ(stEdge.book.Totals().stStalls.ullCount, 1u);
}

// ---- A whole run against what others counted ----------------------------------------------------------------------------------

TEST(RunSeries, AReplayTellsWhatItsTablesTell)
{
    for (const char* psz :
         {"h264-opus-rtx-lab-31s.pcapng", "pcmu-twoway-12s.pcap", "amr-lte-duplicates.pcap"})
    {
        SCOPED_TRACE(psz);
        CRunSeries series;
        tagReplayOptions stOptions;
        stOptions.vecCaptures = {Bundled(psz)};
        stOptions.pSeries = &series;
        const tagReplayResult stResult = RunReplay(stOptions);
        ASSERT_EQ(stResult.ExitCode(), 0);
        const Doc j = ReplayRunReport(stResult, series);
        ExpectWellFormed(j);
        EXPECT_EQ(j["run"]["title"], psz);
        size_t n = 0;
        for (const tagStreamResult& st : stResult.vecStreams)
        {
            if (!st.bFed)
                continue;
            const std::string strId = "s" + std::to_string(n++);
            const Doc& t = TotalsOf(j, strId);
            EXPECT_EQ(t["packetsIn"], st.stPackets.ullFed);
            EXPECT_EQ(t["packetsOut"], st.stPackets.ullPlayed + st.stPackets.ullReplayed);
            EXPECT_EQ(t["duplicates"], st.stStats.packetsDuplicated.value());
            EXPECT_EQ(t["lost"], st.stInfo.stStat.ullLost) << "as the capture's own figures have it";
            EXPECT_EQ(t["requested"], st.stStats.packetsRequested.value());
            EXPECT_EQ(t["requestedPackets"], st.stStats.packetsRequestedUnique.value());
            EXPECT_EQ(t["answered"], st.stStats.requestedPacketsReceived.value());
            if (st.stStats.bLive) // the receiver's own record goes with the stream
            {
                EXPECT_EQ(t["requestsFailed"], st.stStats.requestedPacketsFailed.value());
                EXPECT_EQ(t["gaps"], st.stStats.packetsMissingAtRelease.value());
            }
            EXPECT_EQ(t["firstIn"], st.dwFirstArrivalMs);
            EXPECT_EQ(t["firstOut"], st.dwFirstOutMs);
            EXPECT_EQ(t["playoutDelayMin"], st.delay.Min());
            EXPECT_EQ(t["playoutDelayMax"], st.delay.Max());
            EXPECT_NEAR(t["playoutDelayMean"].get<double>(), st.delay.Mean(), 0.11);
            const uint64 ullFate = t["repairedInTime"].get<uint64>() + t["repairedLate"].get<uint64>() +
                                   t["unrepaired"].get<uint64>();
            EXPECT_EQ(t["lost"], ullFate);
        }
        EXPECT_EQ(n, j["streams"].size());
        EXPECT_EQ(j["users"].size(), stResult.vecUsers.size());
    }
}

TEST(RunSeries, ASimulatedCallTellsWhatTheSimulatorKnows)
{
    const tagSimReport st = Simulated(
        R"({"seconds": 60, "seed": 5, "users": [{"count": 3, "video": {"kbps": 400}}], "down": {"loss_percent": 6, "burst": 2, "delay_ms": 40, "jitter_ms": 12,
            "reorder_percent": 2, "reorder_ms": 60}, "request": {"delay_ms": 40, "loss_percent": 2}})");
    ASSERT_EQ(st.stResult.ExitCode(), 0);
    ExpectWellFormed(st.j);
    uint64 ullLost = 0, ullWasted = 0, ullInTime = 0, ullNever = 0;
    for (size_t i = 0; i < st.stResult.vecStreams.size(); i++)
    {
        // Streams are numbered in the order of their first packet; found again by user and kind.
        const tagSimStreamResult& stSim = st.stResult.vecStreams[i];
        std::string strId;
        for (const Doc& s : st.j["streams"])
            for (const Doc& u : st.j["users"])
                if (u["id"] == s["user"] && u["account"] == std::to_string(stSim.uUser + 1) &&
                    s["subType"] == SimStreamSubType(stSim.nKind))
                    strId = s["id"];
        SCOPED_TRACE(strId);
        const Doc& t = TotalsOf(st.j, strId);
        EXPECT_EQ(t["packetsIn"], stSim.stPackets.ullFed);
        EXPECT_EQ(t["packetsOut"], stSim.stPackets.ullPlayed + stSim.stPackets.ullReplayed);
        EXPECT_EQ(t["requested"], stSim.st.ullAskedSeqs);
        EXPECT_EQ(t["stalls"], stSim.st.ullStalls);
        EXPECT_EQ(t["longestStallMs"].get<uint64>(), stSim.st.ullStalls ? stSim.st.dwLongestStallMs : 0);
        // What is lost behind the last packet that came can be known at the sender only.
        EXPECT_LE(t["lost"], stSim.st.ullLost);
        EXPECT_GE(t["lost"].get<uint64>() + 12, stSim.st.ullLost);
        EXPECT_EQ(t["requestsWasted"], stSim.st.ullWastedSeqs);
        ullLost += t["lost"].get<uint64>();
        ullWasted += t["requestsWasted"].get<uint64>();
        ullInTime += t["repairedInTime"].get<uint64>();
        ullNever += t["unrepaired"].get<uint64>();
    }
    EXPECT_GT(ullLost, 500u);
    EXPECT_GT(ullWasted, 50u);
    EXPECT_NEAR((double)ullInTime, (double)st.stResult.stSum.ullInTime, 30);
    EXPECT_NEAR((double)ullNever, (double)st.stResult.stSum.ullUnrecovered, 40);
    // The polls, once a second by default, are of the run.
    EXPECT_TRUE(SeriesOf(st.j, "run", "downlinkLoss").is_object());
    for (size_t i = 0; i < st.stResult.vecUsers.size(); i++)
    {
        const tagSimUserResult& stUser = st.stResult.vecUsers[i];
        for (const Doc& u : st.j["users"])
        {
            if (u["account"] != std::to_string(stUser.llAccount))
                continue;
            EXPECT_EQ(u["name"], stUser.strName);
            EXPECT_TRUE(SeriesOf(st.j, u["id"], "avOffset").is_object());
            EXPECT_TRUE(SeriesOf(st.j, u["id"], "target").is_object());
        }
    }
}

TEST(RunSeries, TheSameCallTellsTheSameBytes)
{
    const char* psz = R"({"seconds": 15, "down": {"loss_percent": 5, "jitter_ms": 10}})";
    EXPECT_EQ(Simulated(psz).j.dump(), Simulated(psz).j.dump());
}

TEST(RunSeries, BufferAndClockAndBandAreWhatTheReceiverHolds)
{
    struct tagNobody : IRunObserver
    {
        int OnReleased(CMediaPacket&, uint32) override { return 0; }
        void OnLossRequest(const tagReplyData*, uint32, uint32) override {}
    } nobody;
    CRunSeries series;
    tagRunOptions stOptions;
    stOptions.pSeries = &series;
    CLabRun run(stOptions, nobody);
    tagPlayoutInfo stInfo;
    size_t nChecked = 0;
    for (uint32 dw = 0; dw < 500; dw++)
    {
        tagUdtPacketHeadInfo stHead;
        stHead.cSubType = MEAVAudio;
        stHead.uTimeStamp = 50000 + dw * 20;
        CMediaPacket* p = run.NewPacket(stHead);
        p->dwSenderSeq = dw;
        p->dwSeq = dw + 2;
        p->u64Uin = 9;
        p->m_cSubType = MEAVAudio;
        p->wLen = 80;
        run.Feed(p, (int64)dw * 20000 + (dw % 3) * 4000);
        run.Turn((int64)dw * 20000 + 10000);
        if (dw == 0 || dw % 100 != 0 || !run.Receiver().GetPlayoutInfo(9, stInfo))
            continue;
        const Doc j = series.Json();
        const size_t nBin = j["bins"]["count"].get<size_t>() - 1;
        const Doc& jTarget = SeriesOf(j, "u0", "target");
        EXPECT_EQ(jTarget["v"][nBin], stInfo.dwTarget);
        EXPECT_EQ(SeriesOf(j, "u0", "bandMax")["v"][nBin].get<int64>() -
                      SeriesOf(j, "u0", "bandMin")["v"][nBin].get<int64>(),
                  stInfo.dwBandWidth);
        // Transit counts from the fastest packet's arrival, the receiver's band from the turn that took it.
        EXPECT_GE(SeriesOf(j, "u0", "bandMin")["v"][nBin], 0);
        EXPECT_LE(SeriesOf(j, "u0", "bandMin")["v"][nBin], 10);
        EXPECT_LE(SeriesOf(j, "s0", "arrivalDelay")["hi"][nBin], 8);
        const CAVGUdtRecv& recv = run.Receiver();
        EXPECT_EQ(SeriesOf(j, "s0", "bufferPackets")["v"][nBin],
                  CRecvRig::StreamsOf(recv).begin()->second.mapUdtPacket.size());
        EXPECT_EQ(SeriesOf(j, "s0", "bufferMs")["v"][nBin], stInfo.dwDataLen);
        nChecked++;
    }
    EXPECT_EQ(nChecked, 4u);
    // The clock builds up its buffer at 3/4 of real time.
    const Doc j = series.Json();
    EXPECT_EQ(SeriesOf(j, "u0", "clockSpeed")["v"][15], -1.0);
    const MapUinInPkt& map = CRecvRig::StreamsOf(run.Receiver());
    EXPECT_EQ(series.Totals(9, MEAVAudio).ullIn - series.Totals(9, MEAVAudio).ullOut,
              map.begin()->second.mapUdtPacket.size());
}

TEST(RunSeries, WhatHappensToAReceiverIsMarked)
{
    const tagSimReport st =
        Simulated(R"({"seconds": 20, "receiver": {"mode": "low-latency"}, "down": {"loss_percent": 1}})");
    ASSERT_EQ(st.stResult.ExitCode(), 0);
    const auto vecMode = EventsOf(st.j, "modeChange");
    ASSERT_EQ(vecMode.size(), 1u);
    EXPECT_EQ(vecMode[0]["text"], "low-latency mode");
    EXPECT_EQ(EventsOf(st.j, "roomState").size(), 1u);
    const auto vecKey = EventsOf(st.j, "firstKeyFrame");
    ASSERT_FALSE(vecKey.empty());
    EXPECT_EQ(vecKey[0]["of"].get<std::string>()[0], 's');
    EXPECT_TRUE(vecKey[0]["ms"].is_number());

    CRunSeries series;
    series.Begin(1000);
    tagSeriesPacket stPacket;
    stPacket.ullAccount = 7;
    stPacket.cSubType = MEAVMaxVideo;
    series.PacketIn(stPacket, 1000);
    const auto Line = [&series](const char* pszFunc, const char* pszText, uint64 ullTick)
    { series.LogLine(LOG_LEVEL_ERROR, pszFunc, pszText, ullTick); };
    Line("ClearRecvChn", "ClearRecvChn: uin 7 IsClearAll 2", 1100);
    Line("FindTimeStampJump", "FindTimeStampJump ullAcount:7,uTimelineOut:1000,uMinTimeStamp:9000", 1200);
    Line("CheckTimeOutNew", "CheckTimeOut Erase UIN:7 subType  2 time_out 6000", 1300);
    Line("OnDataHandleNew",
         "m_dwRoomLogicState didn't set to be true for a long time(2.5s)! force to be true.", 1400);
    Line(
        "CheckPkgRequestFail",
        "CheckPkgRequestFail: subtype 2 curNum   3 totalNum     9 stSeq     5 endSeq     7 curSize   0 Uin 7",
        1500);
    Line("OnDataHandleNew", "Server Push Early Packet Make TimelineOut From 9000 Back to 5000", 1600);
    series.LogLine(LOG_LEVEL_DEBUG, "SetRoomState", "UDTR SetRoomState 3", 1700); // traces are not looked at
    const Doc j = series.Json();
    std::vector<std::string> vec;
    for (const Doc& jEvent : j["events"])
        vec.push_back(jEvent["kind"].get<std::string>() + " " + jEvent["of"].get<std::string>() + " " +
                      std::to_string(jEvent["t"].get<int>()));
    EXPECT_THAT(vec, ElementsAre("clear s0 100", "jump u0 200", "expired s0 300", "roomState run 400"));
    EXPECT_EQ(TotalsOf(j, "s0")["requestsFailed"], 3);
}

TEST(RunSeries, APullBackIsMarkedAtItsUser)
{
    // Two senders of the same account's numbering, one of which begins its media time far behind, as a restart does.
    CRunSeries series;
    CRecvRig rig(1000);
    series.Begin(1000);
    rig.StartPlaying();
    const auto Feed = [&](uint64 ullUin, uint32 dwSeq, uint32 dwMedia)
    {
        tagSeriesPacket st;
        st.ullAccount = ullUin;
        st.cSubType = MEAVAudio;
        st.dwSeq = dwSeq;
        st.dwMediaMs = dwMedia;
        series.PacketIn(st, rig.Now());
        rig.Feed(AudioPacket(ullUin, dwSeq).At(dwMedia));
    };
    CLogTap tap(LOG_LEVEL_ERROR, [&](UDT_LOG_LEVEL eLevel, const char* pszFunc, const char* pszText)
                { series.LogLine(eLevel, pszFunc, pszText, rig.Now()); });
    for (uint32 dw = 0; dw < 400; dw++)
    {
        Feed(3, dw, 100000 + dw * 20);
        Feed(4, dw, dw < 200 ? 100000 + dw * 20 : 50000 + dw * 20);
        rig.Turn();
        if (series.SampleDue(rig.Now()))
            series.Sample(rig.m_recv, rig.Now(), true);
        rig.Advance(20);
    }
    const Doc j = series.Json();
    const auto vec = EventsOf(j, "pullBack");
    ASSERT_FALSE(vec.empty());
    EXPECT_EQ(vec[0]["of"], "u1");
    EXPECT_GE(vec[0]["ms"], 40000);
    EXPECT_THAT(VerdictText(j), HasSubstr("playout was pulled back"));
}

TEST(RunSeries, MemoryAndReportOfALongRunHaveABound)
{
    tagSeriesOptions stOptions;
    stOptions.ullWindowMs = 120000;
    CRunSeries series(stOptions);
    tagSeriesPacket st;
    st.cSubType = MEAVAudio;
    size_t nCells = 0;
    // A week, a packet every 5 s from each of two users.
    for (uint64 ull = 0; ull < 7 * 86400ull * 1000; ull += 5000)
    {
        for (st.ullAccount = 1; st.ullAccount <= 2; st.ullAccount++)
            series.PacketIn(st, ull);
        st.dwSeq++;
        st.dwMediaMs += 5000;
        if (ull == 3600 * 1000)
            nCells = series.Cells();
    }
    EXPECT_LE(series.Cells(), 2 * nCells);
    const Doc j = series.Json();
    ExpectWellFormed(j);
    EXPECT_LE(j["bins"]["count"], 2000);
    EXPECT_GT(j["bins"]["count"], 900);
    const Doc jLast = series.Json(120000);
    EXPECT_EQ(jLast["bins"]["ms"], 100);
    EXPECT_LE(jLast["bins"]["count"], 1202);
    EXPECT_EQ(jLast["bins"]["start"].get<uint64>() + jLast["bins"]["count"].get<uint64>() * 100,
              j["run"]["durationMs"].get<uint64>() / 100 * 100 + 100);
    EXPECT_EQ(Sum(jLast, "s0", "packetsIn"), 25);
}

TEST(RunSeries, StreamsBeyondTheLimitAndTooManyEventsAreCountedNotKept)
{
    tagSeriesOptions stOptions;
    stOptions.uMaxStreams = 3;
    CRunSeries series(stOptions);
    tagSeriesPacket st;
    for (st.ullAccount = 1; st.ullAccount <= 5; st.ullAccount++)
        series.PacketIn(st, 100);
    for (int i = 0; i < 3000; i++)
        series.Event("note", 1, "text", 100 + (uint64)i);
    const Doc j = series.Json();
    EXPECT_EQ(j["streams"].size(), 3u);
    EXPECT_EQ(j["run"]["packetsOfStreamsLeftOut"], 2);
    EXPECT_EQ(j["events"].size(), 1000u);
    EXPECT_EQ(j["eventsLeftOut"], 2000);
    EXPECT_EQ(j["events"].back()["t"], 2999); // the first and the latest are kept
}

TEST(RunSeries, FiftyUsersMakeAReportUnderFiveMegabytes)
{
    const tagSimReport st = Simulated(
        R"({"seconds": 30, "users": [{"count": 50, "video": {"kbps": 60}}], "down": {"loss_percent": 2}})");
    ExpectWellFormed(st.j);
    EXPECT_EQ(st.j["users"].size(), 50u);
    // Grown to its full number of bins, at five bytes a value, it stays below.
    size_t nArrays = 0;
    for (const Doc& j : st.j["series"])
        nArrays += 1 + j.contains("lo") + j.contains("hi");
    const size_t nBins = st.j["bins"]["count"];
    EXPECT_LE(nArrays * nBins, 900000u);
    EXPECT_LT(RenderReport(st.j).size(), 5000000u);
    EXPECT_GT(nBins, 60u);
}

TEST(RunSeries, OnePacketNoPictureAndNothingAtAllAreReportsToo)
{
    CRunSeries none;
    Doc j = none.Json();
    ExpectWellFormed(j);
    EXPECT_EQ(j["bins"]["count"], 1);
    EXPECT_THAT(VerdictText(j), HasSubstr("no packet came"));

    CRunSeries one;
    tagSeriesPacket st;
    st.ullAccount = 0xFFFFFFFFFFFFFFFFull;
    st.cSubType = MEAVAudio;
    one.PacketIn(st, 777);
    one.Finish();
    j = one.Json();
    ExpectWellFormed(j);
    EXPECT_EQ(j["users"][0]["account"], "18446744073709551615");
    EXPECT_EQ(Sum(j, "s0", "packetsIn"), 1);
    EXPECT_THAT(VerdictText(j), HasSubstr("nothing was played of audio"));

    CTempDir dir;
    std::string strError;
    const std::string strPath = dir.Path("one.json");
    ASSERT_TRUE(WriteReport({strPath, dir.Path("one.html")}, j, strError)) << strError;
    Doc jBack;
    ASSERT_TRUE(ReadReport(strPath, jBack, strError)) << strError;
    EXPECT_EQ(j, jBack);
}

// ---- The verdict ------------------------------------------------------------------------------------------------------------

namespace
{

// A small report: one user with audio, a minute of bins of 1 s.
Doc Small(const char* pszTotals = "{}", const char* pszMore = "{}")
{
    Doc j = Doc::parse(R"({"format": "udtlab-report", "version": 1, "run": {"kind": "simulate"},
        "users": [{"id": "u0", "name": "alice", "streams": ["s0"]}],
        "streams": [{"id": "s0", "user": "u0", "kind": "audio", "name": "audio"}],
        "totals": [{"of": "s0", "packetsIn": 1000, "packetsOut": 1000, "expected": 1000, "firstIn": 0, "firstOut": 20}],
        "bins": {"ms": 1000, "count": 60}, "series": [], "events": []})");
    j["totals"][0].update(Doc::parse(pszTotals));
    j.update(Doc::parse(pszMore));
    return j;
}

// A series of one value everywhere but in a span of bins.
Doc Values(const char* pszName, double dUsual, int nFrom = 0, int nTo = 0, double dThere = 0)
{
    Doc j;
    j["of"] = "u0";
    j["name"] = pszName;
    for (int i = 0; i < 60; i++)
        j["v"].push_back(i >= nFrom && i < nTo ? dThere : dUsual);
    return j;
}

Doc With(Doc j, const Doc& jSeries)
{
    j["series"].push_back(jSeries);
    return j;
}

} // namespace

TEST(Verdict, SaysInWordsWhatAReportShows)
{
    const struct
    {
        Doc j;
        const char* pszWant;
    } aRows[] = {
        {Small(), "  nothing wrong: no stall or hole over 200 ms, latency steady\n  nothing lost\n"},
        {Small(R"({"lost": 41, "repairedInTime": 41})"),
         "  nothing wrong: no stall or hole over 200 ms, latency steady\n  4.1 % lost, all of it repaired in "
         "time\n"},
        {Small(
             R"({"expected": 10000, "lost": 410, "repairedInTime": 398, "repairedLate": 4, "unrepaired": 8})"),
         "~ 4.1 % lost, 97 % of it repaired in time, 1.0 % too late, 2.0 % never\n"},
        {Small(R"({"lost": 41, "unrepaired": 41})"), "! 4.1 % lost, none of it repaired\n"},
        {Small(R"({"lost": 41, "repairedLate": 1, "unrepaired": 40})"),
         "! 4.1 % lost, none of it repaired in time, 2.4 % too late, 98 % never\n"},
        {Small(R"({"expected": 100000, "lost": 1, "repairedInTime": 1})"),
         "  nothing wrong: no stall or hole over 200 ms, latency steady\n"
         "  less than 0.1 % lost, all of it repaired in time\n"},
        {Small(R"({"stalls": 3, "longestStallMs": 1200, "longestStallAt": 41000})"),
         "  nothing lost\n! 3 stalls over 200 ms, the longest 1.2 s at 00:41 (audio)\n"},
        {Small(R"({"stalls": 1, "longestStallMs": 350, "longestStallAt": 3661000})"),
         "  nothing lost\n~ 1 stall over 200 ms: 350 ms at 1:01:01 (audio)\n"},
        {Small(R"({"holes": 2, "longestHoleMs": 35400, "longestHoleAt": 5000})"),
         "  nothing lost\n! 2 holes over 200 ms where packets never came, the longest 35 s at 00:05 "
         "(audio)\n"},
        {With(Small(), Values("latency", 1000, 20, 40, 2900)),
         "  nothing lost\n~ latency grew from 1.0 s to 2.9 s at 00:20 and needed 20 s to come back\n"},
        {With(Small(), Values("latency", 1000, 20, 40, 4900)),
         "  nothing lost\n! latency grew from 1.0 s to 4.9 s at 00:20 and needed 20 s to come back\n"},
        {With(Small(), Values("latency", 1000, 20, 60, 2900)),
         "  nothing lost\n~ latency grew from 1.0 s to 2.9 s at 00:20 and did not come back\n"},
        {With(Small(), Values("latency", 1000, 0, 5, 9000)), // while the buffer is being built
         "  nothing wrong: no stall or hole over 200 ms, latency steady\n  nothing lost\n"},
        {With(Small(), Values("latency", 1000, 20, 40, 1500)),
         "  nothing wrong: no stall or hole over 200 ms, latency steady\n  nothing lost\n"},
        {With(Small(), Values("avOffset", 3)), "  nothing wrong: no stall or hole over 200 ms, latency "
                                               "steady, picture and sound in step\n  nothing lost\n"},
        {With(Small(), Values("avOffset", -140)),
         "  nothing lost\n! picture 140 ms ahead of the sound on average\n"},
        {With(Small(), Values("avOffset", 61)),
         "  nothing lost\n~ picture 61 ms behind the sound on average\n"},
        {With(Small(), Values("avOffset", 0, 30, 31, 1339)),
         "  nothing lost\n~ picture up to 1.3 s behind the sound at 00:30\n"},
        {Small(R"({"requested": 355, "requestedPackets": 100, "answered": 90, "requestsWasted": 38})"),
         "  nothing lost\n~ 38 of 355 loss requests (11 %) were for packets that came by themselves\n"},
        {Small(R"({"requested": 355, "requestedPackets": 100, "answered": 90, "requestsWasted": null})"),
         "  nothing wrong: no stall or hole over 200 ms, latency steady\n  nothing lost\n"},
        {Small(R"({"requested": 355, "requestedPackets": 100, "answered": 49})"),
         "  nothing lost\n~ only 49 of the 100 packets asked for came\n"},
        {Small(R"({"requested": 355, "requestedPackets": 100, "answered": 0})"),
         "  nothing lost\n~ none of the 100 packets asked for came\n"},
        {Small(R"({"packetsOut": 0, "firstOut": null})"), "  nothing lost\n! nothing was played of audio\n"},
        {Small(R"({"firstOut": 4200})"),
         "  nothing lost\n~ playout began 4.2 s after the first packet (audio)\n"},
        {Small(
             "{}",
             R"({"events": [{"t": 12000, "of": "u0", "kind": "pullBack"}, {"t": 13000, "of": "u0", "kind": "pullBack"},
                                    {"t": 14000, "of": "s0", "kind": "restart"}]})"),
         "  nothing lost\n~ playout was pulled back twice, first at 00:12\n~ a sender began to number anew "
         "once, at 00:14\n"},
        {Small(R"({"packetsIn": 0})"), "! no packet came\n"},
    };
    for (const auto& stRow : aRows)
    {
        Doc j = stRow.j;
        j["verdict"] = MakeVerdict(j);
        EXPECT_EQ(VerdictText(j), stRow.pszWant);
    }
}

TEST(Verdict, NamesWhoFaredWorseThanTheRest)
{
    Doc j = Small();
    j["users"].push_back({{"id", "u1"}, {"name", "bob"}, {"streams", {"s1"}}});
    j["streams"].push_back({{"id", "s1"}, {"user", "u1"}, {"name", "big-video"}});
    j["totals"].push_back({{"of", "s1"},
                           {"packetsIn", 190},
                           {"packetsOut", 180},
                           {"expected", 200},
                           {"lost", 20},
                           {"repairedInTime", 10},
                           {"unrepaired", 10},
                           {"stalls", 1},
                           {"longestStallMs", 300}});
    j["verdict"] = MakeVerdict(j);
    EXPECT_EQ(VerdictText(j), "! 1.7 % lost, 50 % of it repaired in time, 50 % never\n"
                              "~ bob: 10 % lost, 50 % of it repaired in time, 50 % never\n"
                              "~ 1 stall over 200 ms: 300 ms (bob, big-video)\n");
    EXPECT_EQ(j["verdict"][1]["user"], "u1");
}

TEST(Verdict, ToleratesAnythingThatIsJson)
{
    for (const char* psz :
         {"{}", R"({"totals": 5})", R"({"totals": [5, null, {}], "users": [3], "streams": ["x"]})",
          R"({"totals": [{"of": "s0", "packetsIn": -4}], "bins": 7})",
          R"({"totals": [{"packetsIn": 5}], "bins": {"ms": 0}, "users": [{"id": "u0"}],
                                "series": [1, {"of": "u0", "name": "latency", "v": "no"}], "events": [{}, 2]})"})
        MakeVerdict(Doc::parse(psz));
}

// ---- The page and the files -----------------------------------------------------------------------------------------------------

TEST(ReportPage, NoNameCanEndTheScriptThatHoldsTheData)
{
    Doc j = Small();
    const std::string strEvil = "</script><script>alert(1)</script><!-- \xE2\x80\xA8 \"\\";
    j["users"][0]["name"] = strEvil;
    const std::string strPage = RenderReport(j);
    EXPECT_THAT(strPage, Not(HasSubstr("</script><script>alert")));
    EXPECT_THAT(strPage, HasSubstr("\\u003c/script>"));
    // What stands in the page is the report again.
    const size_t nBegin = strPage.find('>', strPage.find("id=\"report-data\"")) + 1;
    const Doc jBack = Doc::parse(strPage.substr(nBegin, strPage.find("</script>", nBegin) - nBegin));
    EXPECT_EQ(jBack, j);
    EXPECT_EQ(jBack["users"][0]["name"], strEvil);
}

TEST(ReportPage, BytesThatAreNoTextAreReplaced)
{
    Doc j = Small();
    j["users"][0]["name"] = "a\xFF\xC3z";
    EXPECT_THAT(RenderReport(j), HasSubstr("a\xEF\xBF\xBD"));
}

TEST(ReportPage, AComparisonHoldsBothRunsAndALivePageNone)
{
    const std::string strPage = RenderComparison(Small(), Small(R"({"lost": 5})"));
    EXPECT_THAT(strPage,
                HasSubstr(R"({"format":"udtlab-comparison","version":1,"runs":[{"format":"udtlab-report")"));
    EXPECT_THAT(RenderLivePage(), HasSubstr(R"({"format":"udtlab-live","version":1})"));
    EXPECT_THAT(RenderLivePage(), Not(HasSubstr("<!--UDT:")));
}

TEST(ReportFiles, ABrokenReportIsOneLineWithFileOffsetAndWhatWasExpected)
{
    CTempDir dir;
    const std::string strGood = With(Small(), Values("latency", 1)).dump();
    const struct
    {
        std::string strText;
        const char* pszWant;
    } aRows[] = {
        {"", "offset 0: expected JSON, got the end of the file"},
        {strGood.substr(0, strGood.size() / 2), "expected JSON, got the end of the file"},
        {"{!" + strGood.substr(1), "offset 2: expected JSON, got something else"},
        {"{}", "offset 0: expected a report (\"format\": \"udtlab-report\")"},
        {"[]", "offset 0: expected a report"},
        {R"({"format": "udtlab-replay", "version": 1})", "offset 0: expected a report"},
        {R"({"format": "udtlab-report", "version": 9})", "offset 0: expected \"version\": 1"},
        {R"({"format": "udtlab-report", "version": 1, "run": {}, "series": []})", "expected \"bins\""},
        {R"({"format": "udtlab-report", "version": 1, "run": {}, "bins": {"ms": 100, "count": 2}, "series": [{"of": "s0", "name": "lost", "v": [1]}]})",
         "expected 2 values in \"v\" of series 0"},
        {R"({"format": "udtlab-report", "version": 1, "run": {}, "bins": {"ms": 100, "count": 1}, "series": [{"of": "s0", "name": "lost", "v": ["1"]}]})",
         "expected numbers and null in \"v\" of series 0"},
    };
    Doc j;
    std::string strError;
    for (const auto& stRow : aRows)
    {
        const std::string strPath =
            dir.Write("r.json", labtest::Bytes(stRow.strText.begin(), stRow.strText.end()));
        EXPECT_FALSE(ReadReport(strPath, j, strError));
        EXPECT_THAT(strError, HasSubstr(strPath + ": offset "));
        EXPECT_THAT(strError, HasSubstr(stRow.pszWant));
        EXPECT_THAT(strError, Not(HasSubstr("\n")));
    }
    EXPECT_FALSE(ReadReport(dir.Path("none.json"), j, strError));
    EXPECT_THAT(strError, HasSubstr("none.json: offset 0: cannot be read: "));
    EXPECT_FALSE(ReadReport(dir.Path(""), j, strError)); // a folder
    EXPECT_TRUE(ReadReport(dir.Write("g.json", labtest::Bytes(strGood.begin(), strGood.end())), j, strError));
}
