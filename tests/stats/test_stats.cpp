/**
 * What the collector counts of a call, and the two texts of it. The calls are short scripts on a virtual clock, so
 * every figure below can be counted by hand.
 */

#include "RecvRig.h"
#include "UdtStats.h"
#include "UdtStatsCollector.h"
#include "VirtualClock.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <map>
#include <regex>
#include <set>
#include <sstream>
#include <string>
#include <vector>

namespace
{

using testing::DoubleNear;
using testing::HasSubstr;
using testing::Not;
using testing::Optional;

constexpr uint64 c_ullUin = 7;

// A receiver that is stepped by hand, the collector before and behind it, and an owner that records.
struct tagCall
{
    explicit tagCall(uint64 ullTick = 1000) : clock(ullTick), collector(&owner), recv(&collector)
    {
        recv.SetOwnerDriven(TRUE);
        collector.Attach(&recv);
        recv.Start();
        recv.SetRoomState(c_dwRoomStatePlaying);
    }
    ~tagCall()
    {
        recv.Stop();
        collector.Attach(nullptr);
    }

    void Feed(tagRigPacket stPacket, const tagUdtArrival& stArrival = tagUdtArrival())
    {
        CScopePtr<CRigPacket> p(new CRigPacket(stPacket.Down(dwDown++)));
        collector.UDTReceiveNetData(stPacket.dwSendSeq, stPacket.ullUin, stPacket.dwDownSeq, 0,
                                    stPacket.cSubType, p.p, stArrival);
    }
    void Turns(uint32 dwMs)
    {
        for (uint32 dw = 0; dw < dwMs; dw += 10)
        {
            clock.JumpTo(clock.Tick() + 10);
            recv.RunTurn();
        }
    }
    tagUdtStats Snapshot()
    {
        tagUdtStats st;
        collector.Snapshot(st);
        return st;
    }
    tagUdtStreamStats Stream(uint8 cSubType)
    {
        for (const tagUdtStreamStats& st : Snapshot().vecStreams)
            if (st.llAccount == c_ullUin && st.dwSubType == cSubType)
                return st;
        ADD_FAILURE() << "no such stream";
        return tagUdtStreamStats();
    }

    CVirtualClock clock;
    CRigOwner owner;
    CUdtStatsCollector collector;
    CAVGUdtRecv recv;
    uint32 dwDown = 2;
};

// ---- Counts ----------------------------------------------------------------------------------------------------

TEST(StatsLost, IsExpectedMinusReceivedAndGoesBelowZero)
{
    tagCall call;
    for (const uint32 dwSeq : {10u, 11u, 14u})
        call.Feed(AudioPacket(c_ullUin, dwSeq));
    EXPECT_THAT(call.Stream(MEAVAudio).packetsLost, Optional(2)); // 12 and 13
    for (const uint32 dwSeq : {12u, 13u})
        call.Feed(AudioPacket(c_ullUin, dwSeq));
    EXPECT_THAT(call.Stream(MEAVAudio).packetsLost, Optional(0));
    for (int n = 0; n < 3; ++n)
        call.Feed(AudioPacket(c_ullUin, 12));
    const tagUdtStreamStats st = call.Stream(MEAVAudio);
    EXPECT_THAT(st.packetsLost, Optional(-3));
    EXPECT_THAT(st.packetsDuplicated, Optional(3u));
    EXPECT_THAT(st.packetsReceived, Optional(8u));
}

TEST(StatsLost, HoldsAcrossTheWrapOfTheSequence)
{
    tagCall call;
    for (const uint32 dwSeq : {0xFFFFFFFDu, 0xFFFFFFFEu, 1u, 2u})
        call.Feed(AudioPacket(c_ullUin, dwSeq));
    EXPECT_THAT(call.Stream(MEAVAudio).packetsLost, Optional(2)); // 0xFFFFFFFF and 0
    call.Feed(AudioPacket(c_ullUin, 0xFFFFFFFF));
    EXPECT_THAT(call.Stream(MEAVAudio).packetsLost, Optional(1));
}

TEST(StatsLost, ASenderThatCountsAnewIsNotALoss)
{
    tagCall call;
    for (const uint32 dwSeq : {1000u, 1001u, 4000000u, 4000001u, 4000002u})
        call.Feed(AudioPacket(c_ullUin, dwSeq));
    EXPECT_THAT(call.Stream(MEAVAudio).packetsLost, Optional(0));
}

TEST(StatsJitter, FollowsTheFormulaOfRfc3550)
{
    // Arrival and media time; transit; |D|; J += (|D| - J) / 16, in ms.
    struct
    {
        uint32 dwWait;
        uint32 dwMedia;
        double dJitterMs;
    } const aSteps[] = {
        {0, 5000, -1}, // the first has no other to be compared with
        {20, 5020, 0}, // D = 0
        {36, 5040, 1}, // D = 16: 16/16
        {4, 5060, 1 + (16 - 1) / 16.0},
        {20, 5080, 1.9375 * 15 / 16}, // D = 0: a sixteenth off
    };
    tagCall call;
    uint32 dwSeq = 100;
    for (const auto& stStep : aSteps)
    {
        call.clock.JumpTo(call.clock.Tick() + stStep.dwWait);
        call.Feed(AudioPacket(c_ullUin, dwSeq++).At(stStep.dwMedia));
        const std::optional<double> dJitter = call.Stream(MEAVAudio).jitter;
        if (stStep.dJitterMs < 0)
        {
            EXPECT_FALSE(dJitter.has_value());
        }
        else
        {
            EXPECT_THAT(dJitter, Optional(DoubleNear(stStep.dJitterMs / 1000, 1e-9)));
        }
    }
}

TEST(StatsJitter, IsBlindToTheWrapOfTheTickAndToRepairs)
{
    tagCall call(0xFFFFFFF0);
    for (uint32 i = 0; i < 5; ++i)
    {
        call.Feed(AudioPacket(c_ullUin, 100 + i).At(5000 + 20 * i));
        call.clock.JumpTo(call.clock.Tick() + 20);
    }
    EXPECT_THAT(call.Stream(MEAVAudio).jitter, Optional(0.0));
    tagUdtArrival stAnswer;
    stAnswer.bRetransmitted = true;
    call.Feed(AudioPacket(c_ullUin, 99).At(1000), stAnswer); // seconds late
    EXPECT_THAT(call.Stream(MEAVAudio).jitter, Optional(0.0));
}

// A sender that begins anew has new sequences and, as a rule, a new media clock. The step between the two clocks is no
// jitter; it used to enter as one, of hours.
TEST(StatsJitter, IsBlindToASenderThatBeginsAnew)
{
    tagCall call;
    const auto Send = [&](uint32 dwSeq, uint32 dwMedia)
    {
        call.Feed(AudioPacket(c_ullUin, dwSeq).At(dwMedia));
        call.clock.JumpTo(call.clock.Tick() + 20);
    };
    for (uint32 i = 0; i < 5; ++i)
        Send(100 + i, 5000 + 20 * i);
    for (uint32 i = 0; i < 5; ++i)
        Send(4000000 + i, 90000000 + 20 * i);
    EXPECT_THAT(call.Stream(MEAVAudio).jitter, Optional(0.0));
}

TEST(StatsRequests, AreCountedByMessageBySequenceAndByWhatCame)
{
    tagCall call;
    for (uint32 dwSeq = 100; dwSeq < 110; ++dwSeq)
    {
        if (dwSeq != 104 && dwSeq != 105)
            call.Feed(AudioPacket(c_ullUin, dwSeq));
        call.Turns(20);
    }
    std::set<uint32> setAsked;
    uint64 ullAsked = 0;
    for (const tagRequest& stRequest : call.owner.m_vecRequests)
    {
        ullAsked += stRequest.vecData.size();
        for (const tagReplyData& stReply : stRequest.vecData)
            setAsked.insert(stReply.dwUserSeq);
    }
    ASSERT_THAT(setAsked, testing::ElementsAre(104, 105));
    tagUdtStreamStats st = call.Stream(MEAVAudio);
    EXPECT_THAT(st.nackCount, Optional(call.owner.m_vecRequests.size()));
    EXPECT_THAT(st.packetsRequested, Optional(ullAsked));
    EXPECT_THAT(st.packetsRequestedUnique, Optional(2u));
    EXPECT_THAT(st.requestedPacketsReceived, Optional(0u));

    call.Feed(AudioPacket(c_ullUin, 104));
    call.Feed(AudioPacket(c_ullUin, 104)); // answered twice
    st = call.Stream(MEAVAudio);
    EXPECT_THAT(st.requestedPacketsReceived, Optional(1u));
    // Nobody told which were sent again, and an original that is merely late looks just like an answer.
    EXPECT_FALSE(st.retransmittedPacketsReceived.has_value());
    tagUdtArrival stTold;
    stTold.bRetransmitted = false;
    call.Feed(AudioPacket(c_ullUin, 110), stTold);
    EXPECT_THAT(call.Stream(MEAVAudio).retransmittedPacketsReceived, Optional(0u)); // known to be none
    stTold.bRetransmitted = true;
    call.Feed(AudioPacket(c_ullUin, 105), stTold);
    EXPECT_THAT(call.Stream(MEAVAudio).retransmittedPacketsReceived, Optional(1u));
}

TEST(StatsFrames, AreCountedWhenTheirLastDataPacketComesAndWhenTheyLeave)
{
    tagCall call;
    uint32 dwSeq = 100;
    for (uint8 cFrm = 0; cFrm < 10; ++cFrm)
    {
        const uint8 cType = cFrm == 0 ? def_FrameType_I : def_FrameType_P;
        for (uint8 cPkg = 0; cPkg < 3; ++cPkg, ++dwSeq)
        {
            if (cFrm != 5 || cPkg != 1) // one packet of frame 5 never comes
                call.Feed(VideoPacket(c_ullUin, dwSeq, 5000 + cFrm * 40u, cType, 0, cFrm, cPkg, 3));
        }
        call.Turns(40);
    }
    call.Turns(8000);
    const tagUdtStreamStats st = call.Stream(MEAVMaxVideo);
    EXPECT_THAT(st.framesReceived, Optional(9u));
    EXPECT_THAT(st.framesReleased, Optional(10u));
    EXPECT_THAT(st.framesReleasedComplete, Optional(9u));
    EXPECT_THAT(st.keyFramesReleased, Optional(1u));
    EXPECT_THAT(st.packetsReleased, Optional(29u));
    ASSERT_TRUE(st.jitterBufferEmittedCount.has_value());
    EXPECT_EQ(*st.jitterBufferEmittedCount, 10u);

    // Each frame's way through the buffer, from what the owner saw.
    double dDelay = 0;
    for (uint8 cFrm = 0; cFrm < 10; ++cFrm)
    {
        uint32 dwLeft = 0;
        for (const tagRelease& stRelease : call.owner.m_vecReleases)
            dwLeft = stRelease.dwMediaMs == 5000 + cFrm * 40u ? stRelease.dwTick : dwLeft;
        dDelay += (dwLeft - (1000 + cFrm * 40u)) / 1000.0;
    }
    EXPECT_THAT(st.jitterBufferDelay, Optional(DoubleNear(dDelay, 1e-6)));
    EXPECT_GT(st.jitterBufferTargetDelay.value_or(0), 0);
}

TEST(StatsAbsence, WhatIsNotKnownIsAbsentNotZero)
{
    tagCall call;
    EXPECT_TRUE(call.Snapshot().vecStreams.empty());
    EXPECT_FALSE(call.Snapshot().stReceiver.downlinkLossRatio.has_value());
    EXPECT_FALSE(call.Snapshot().stReceiver.streamLossRatio.has_value());
    EXPECT_FALSE(call.Snapshot().timestamp.has_value());

    call.Feed(AudioPacket(c_ullUin, 100));
    call.Turns(20);
    const tagUdtStreamStats st = call.Stream(MEAVAudio);
    EXPECT_FALSE(st.jitter.has_value());
    EXPECT_FALSE(st.framesReceived.has_value());
    EXPECT_FALSE(st.jitterBufferDelay.has_value());
    EXPECT_FALSE(st.firstKeyFrameReceiveTime.has_value());
    EXPECT_FALSE(st.bytesReceived.has_value()); // nobody told the payload's length
    EXPECT_FALSE(st.lastPacketReceivedTimestamp.has_value());
    EXPECT_FALSE(st.measuredMinimumDelay.has_value());
    EXPECT_FALSE(st.timestampErrors.has_value());
    const std::string strJson = UdtStreamStatsJson(st);
    EXPECT_THAT(strJson, Not(HasSubstr("framesReceived")));
    EXPECT_THAT(strJson, Not(HasSubstr("keyFramesDecoded")));
    EXPECT_THAT(strJson, Not(HasSubstr("null")));
}

TEST(StatsAbsence, APacketThatCameInPastTheCollectorIsKnownByTheReceiversRecord)
{
    tagCall call;
    CScopePtr<CRigPacket> p(new CRigPacket(AudioPacket(c_ullUin, 100)));
    call.recv.UDTReceiveNetData(100, c_ullUin, 2, 0, MEAVAudio, p.p);
    call.Turns(20);
    const tagUdtStreamStats st = call.Stream(MEAVAudio);
    EXPECT_THAT(st.packetsReceived, Optional(1u));
    EXPECT_FALSE(st.packetsLost.has_value());
}

TEST(StatsTold, BytesAndTimeAreThoseThatTheOwnerTells)
{
    tagCall call;
    call.collector.SetTimeAtTick(1000000.0, 1000);
    tagUdtArrival stArrival;
    stArrival.dwPayloadBytes = 60;
    call.Feed(AudioPacket(c_ullUin, 100).Len(100), stArrival);
    call.clock.JumpTo(1020);
    call.Feed(AudioPacket(c_ullUin, 101).Len(90), stArrival);
    const tagUdtStreamStats st = call.Stream(MEAVAudio);
    EXPECT_THAT(st.bytesReceived, Optional(120u));
    EXPECT_THAT(st.packetBytesReceived, Optional(190u));
    EXPECT_THAT(st.lastPacketReceivedTimestamp, Optional(1000020.0));
    EXPECT_THAT(call.Snapshot().timestamp, Optional(1000020.0));

    uint32 dwExpect = 0, dwReal = 0, dwBytes = 0, dwIFrm = 0;
    call.recv.GetDownPacketRecvInfo(dwExpect, dwReal, dwBytes, dwIFrm);
    call.collector.DownlinkPolled(dwExpect, dwReal, dwBytes, dwIFrm);
    const tagUdtReceiverStats stAll = call.Snapshot().stReceiver;
    EXPECT_THAT(stAll.downlinkPacketsReceived, Optional(2u));
    EXPECT_THAT(stAll.downlinkLossRatio, Optional(0.0)); // known to be none
}

TEST(StatsCollector, PassesEverythingOnUnchanged)
{
    // The same call with and without a collector in between.
    std::vector<tagRelease> aReleases[2];
    std::vector<tagRequest> aRequests[2];
    for (int n = 0; n < 2; ++n)
    {
        CVirtualClock clock(1000);
        CRigOwner owner;
        owner.m_nPlayDelay = 70;
        CUdtStatsCollector collector(&owner);
        CAVGUdtRecv recv(n == 0 ? static_cast<IUDTRecvEventCallBack*>(&owner) : &collector);
        recv.SetOwnerDriven(TRUE);
        if (n == 1)
            collector.Attach(&recv);
        recv.Start();
        recv.SetRoomState(c_dwRoomStatePlaying);
        for (uint32 i = 0; i < 400; ++i)
        {
            clock.JumpTo(clock.Tick() + 10);
            if (i % 2 == 0 && i % 14 != 0)
            {
                const tagRigPacket stPacket = AudioPacket(c_ullUin, 1000 + i / 2).Down(i + 2);
                CScopePtr<CRigPacket> p(new CRigPacket(stPacket));
                if (n == 0)
                    recv.UDTReceiveNetData(stPacket.dwSendSeq, c_ullUin, i + 2, 0, MEAVAudio, p.p);
                else
                    collector.UDTReceiveNetData(stPacket.dwSendSeq, c_ullUin, i + 2, 0, MEAVAudio, p.p);
            }
            recv.RunTurn();
        }
        aReleases[n] = owner.m_vecReleases;
        aRequests[n] = owner.m_vecRequests;
        recv.Stop();
        collector.Attach(nullptr);
    }
    ASSERT_FALSE(aReleases[0].empty());
    ASSERT_EQ(aReleases[0].size(), aReleases[1].size());
    for (size_t i = 0; i < aReleases[0].size(); ++i)
    {
        EXPECT_EQ(aReleases[0][i].dwTick, aReleases[1][i].dwTick);
        EXPECT_EQ(aReleases[0][i].dwSendSeq, aReleases[1][i].dwSendSeq);
    }
    ASSERT_FALSE(aRequests[0].empty());
    ASSERT_EQ(aRequests[0].size(), aRequests[1].size());
}

TEST(StatsCollector, ForgetsStreamsThatLeftAndCountsFromAReset)
{
    tagCall call;
    call.collector.SetForgetAfter(10000);
    call.Feed(AudioPacket(c_ullUin, 100));
    call.Turns(9000);
    EXPECT_EQ(call.Snapshot().vecStreams.size(), 1u);
    call.Turns(2000);
    EXPECT_EQ(call.Snapshot().vecStreams.size(), 0u);
    call.Feed(AudioPacket(c_ullUin, 200));
    call.Feed(AudioPacket(c_ullUin, 201));
    call.collector.Reset();
    call.Feed(AudioPacket(c_ullUin, 202));
    EXPECT_THAT(call.Stream(MEAVAudio).packetsReceived, Optional(1u));
}

TEST(StatsCollector, RemembersNoMoreStreamsThanItsLimitAndForgetsTheOneSilentLongest)
{
    tagCall call;
    call.collector.SetForgetAfter(0);
    call.recv.SetRoomState(1);
    for (uint32 i = 0; i < c_dwUdtStatsMaxStreams + 3; ++i)
    {
        if (i == c_dwUdtStatsMaxStreams)
            call.Feed(AudioPacket(1000, 101)); // the first stream speaks again
        call.Feed(AudioPacket(1000 + i, 100));
        call.clock.JumpTo(call.clock.Tick() + 1);
    }
    const std::vector<tagUdtStreamStats> vec = call.Snapshot().vecStreams;
    ASSERT_EQ(vec.size(), c_dwUdtStatsMaxStreams);
    EXPECT_EQ(vec[0].llAccount, 1000u);
    EXPECT_EQ(vec[1].llAccount, 1004u); // 1001 to 1003 made place
    EXPECT_EQ(vec.back().llAccount, 1000u + c_dwUdtStatsMaxStreams + 2);
}

// ---- The two texts -----------------------------------------------------------------------------------------------

std::string Slurp(const std::string& strPath)
{
    std::ifstream file(strPath, std::ios::binary);
    std::stringstream text;
    text << file.rdbuf();
    return text.str();
}

// A call of two seconds, played from its second one on: sound with a loss that is repaired, picture with one that is
// not.
tagUdtStats GoldenCall()
{
    tagCall call;
    call.collector.SetTimeAtTick(1700000000000.0, 0);
    call.recv.SetRoomState(1);
    uint32 dwVideoSeq = 500;
    for (uint32 i = 0; i < 100; ++i)
    {
        if (i == 50)
            call.recv.SetRoomState(c_dwRoomStatePlaying);
        tagUdtArrival stArrival; // of sound the owner knows more
        stArrival.dwPayloadBytes = 60;
        stArrival.bRetransmitted = false;
        if (i != 20)
            call.Feed(AudioPacket(c_ullUin, 100 + i).At(5000 + i * 20).Len(80), stArrival);
        stArrival.bRetransmitted = true;
        if (i == 26)
            call.Feed(AudioPacket(c_ullUin, 120).At(5400).Len(80), stArrival);
        if (i % 2 == 0)
        {
            const uint8 cFrm = (uint8)(i / 2);
            for (uint8 cPkg = 0; cPkg < 2; ++cPkg, ++dwVideoSeq)
            {
                if (dwVideoSeq != 560)
                    call.Feed(VideoPacket(c_ullUin, dwVideoSeq, 5000 + i * 20,
                                          cFrm % 25 == 0 ? def_FrameType_I : def_FrameType_P,
                                          (uint8)(cFrm / 25), cFrm, cPkg, 2)
                                  .Len(1000));
            }
        }
        call.Turns(20);
    }
    call.Turns(3000);
    tagUdtStats st = call.Snapshot();
    for (tagUdtStreamStats& stStream : st.vecStreams)
        stStream.strUser = "a \"quoted\" \\ name";
    return st;
}

void ExpectGolden(const std::string& strName, const std::string& strText)
{
    const std::string strPath = UDT_SOURCE_DIR "/tests/stats/" + strName;
    if (getenv("UDT_RENEW_GOLDEN") != nullptr)
        std::ofstream(strPath, std::ios::binary) << strText;
    EXPECT_EQ(Slurp(strPath), strText)
        << strName << " differs; UDT_RENEW_GOLDEN=1 writes it anew, to be looked through";
}

TEST(StatsText, JsonIsTheGoldenOne) { ExpectGolden("golden.json", UdtStatsJson(GoldenCall()) + "\n"); }
TEST(StatsText, OpenMetricsIsTheGoldenOne) { ExpectGolden("golden.om", UdtStatsOpenMetrics(GoldenCall())); }

// A reader of OpenMetrics 1.0 that believes nothing. Returns what is wrong with a text, empty: nothing.
std::string OpenMetricsFault(const std::string& strText)
{
    static const std::regex reMeta("# (TYPE|UNIT|HELP) ([a-zA-Z_:][a-zA-Z0-9_:]*) (.+)");
    static const std::regex reSample(
        "([a-zA-Z_:][a-zA-Z0-9_:]*)(\\{[a-zA-Z_][a-zA-Z0-9_]*=\"(?:[^\"\\\\\n]|\\\\[\\\\\"n])*\"(?:,[a-zA-Z_]"
        "[a-zA-Z0-9_]*="
        "\"(?:[^\"\\\\\n]|\\\\[\\\\\"n])*\")*\\})? (-?[0-9]+(?:\\.[0-9]+)?(?:e[-+]?[0-9]+)?)");
    if (strText.size() < 6 || strText.substr(strText.size() - 6) != "# EOF\n")
        return "no # EOF at the end";
    std::set<std::string> setFamilies;
    std::set<std::string> setSamples;
    std::string strFamily, strType;
    bool bSamples = false;
    std::istringstream lines(strText.substr(0, strText.size() - 6));
    for (std::string strLine; std::getline(lines, strLine);)
    {
        std::smatch match;
        if (std::regex_match(strLine, match, reMeta))
        {
            if (match[1] == "TYPE")
            {
                strFamily = match[2];
                strType = match[3];
                bSamples = false;
                if (!setFamilies.insert(strFamily).second)
                    return "family twice: " + strLine;
                if (strType != "counter" && strType != "gauge")
                    return "unknown type: " + strLine;
                if (strType == "counter" && strFamily.size() > 6 &&
                    strFamily.substr(strFamily.size() - 6) == "_total")
                    return "a counter's family has no _total: " + strLine;
            }
            else if (match[2] != strFamily || bSamples)
                return "metadata out of place: " + strLine;
            else if (match[1] == "UNIT")
            {
                const std::string strEnd = "_" + match[3].str();
                if (strFamily.size() < strEnd.size() ||
                    strFamily.substr(strFamily.size() - strEnd.size()) != strEnd)
                    return "the name does not end in its unit: " + strLine;
            }
            continue;
        }
        if (!std::regex_match(strLine, match, reSample))
            return "no sample: " + strLine;
        bSamples = true;
        if (match[1] != strFamily + (strType == "counter" ? "_total" : ""))
            return "a sample of another family: " + strLine;
        if (!setSamples.insert(match[1].str() + match[2].str()).second)
            return "sample twice: " + strLine;
        if (strType == "counter" && match[3].str()[0] == '-')
            return "a counter below zero: " + strLine;
    }
    return "";
}

TEST(StatsText, OpenMetricsIsReadByAStrictReader)
{
    EXPECT_EQ(OpenMetricsFault(UdtStatsOpenMetrics(GoldenCall())), "");
    EXPECT_EQ(OpenMetricsFault(UdtStatsOpenMetrics(tagUdtStats())), "");
}

TEST(StatsText, TheStrictReaderIsStrict)
{
    const char* const aBad[] = {
        "# TYPE a gauge\na 1\n",
        "# TYPE a counter\na 1\n# EOF\n",
        "# TYPE a_total counter\na_total 1\n# EOF\n",
        "# TYPE a gauge\n# UNIT a seconds\na 1\n# EOF\n",
        "# TYPE a gauge\na 1\na 2\n# EOF\n",
        "# TYPE a gauge\na 1\n# TYPE b gauge\nb 1\n# TYPE a gauge\na{x=\"y\"} 1\n# EOF\n",
        "# TYPE a gauge\na{x=\"y\"z\"} 1\n# EOF\n",
        "# TYPE a gauge\na\n# EOF\n",
        "# TYPE a counter\na_total -1\n# EOF\n",
    };
    for (const char* pszBad : aBad)
        EXPECT_NE(OpenMetricsFault(pszBad), "") << pszBad;
    EXPECT_EQ(
        OpenMetricsFault("# TYPE a_seconds counter\n# UNIT a_seconds seconds\n# HELP a_seconds How long.\n"
                         "a_seconds_total{x=\"y\\\"z\",w=\"\"} 1.5e-05\n# EOF\n"),
        "");
}

// ---- The page ----------------------------------------------------------------------------------------------------

TEST(StatsPage, HasALineForEveryFieldAndNoOther)
{
    std::multimap<std::string, std::string> mapRows; // name, "metric type, unit"
    std::istringstream lines(Slurp(UDT_SOURCE_DIR "/docs/statistics.md"));
    static const std::regex reRow("\\| `(\\w+)`<br>`(\\w+)` \\| ([a-z, ]+) \\| .+<br>\\*.+ · .+\\* \\|");
    for (std::string strLine; std::getline(lines, strLine);)
    {
        std::smatch match;
        if (std::regex_match(strLine, match, reRow))
            mapRows.emplace(match[1], match[2].str() + " " + match[3].str());
    }
    std::multimap<std::string, std::string> mapFields;
    for (const std::vector<tagUdtStatsField>& vec : {UdtStreamStatsFields(), UdtReceiverStatsFields()})
    {
        for (const tagUdtStatsField& st : vec)
        {
            const std::string strType = st.pszType;
            mapFields.emplace(st.pszName, st.pszMetric + std::string(strType == "counter" ? "_total " : " ") +
                                              strType +
                                              (*st.pszUnit != 0 ? std::string(", ") + st.pszUnit : ""));
        }
    }
    EXPECT_THAT(mapRows, testing::UnorderedElementsAreArray(mapFields));
}

} // namespace
