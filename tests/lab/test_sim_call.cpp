// Whole simulated calls: repeatable, repaired, checked while they run.

#include "LabBytes.h"

#include "Commands.h"
#include "PlayoutChecks.h"
#include "RecvRig.h"
#include "SimReport.h"
#include "SimScenario.h"
#include "Simulate.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fstream>

using namespace lab;
using testing::HasSubstr;

namespace
{

typedef std::vector<std::pair<const char*, const char*>> Settings;

tagScenario Scenario(const Settings& vecOptions, nlohmann::ordered_json j = DefaultScenario(),
                     const std::string& strFolder = "")
{
    std::string strError;
    for (const auto& stOption : vecOptions)
        EXPECT_TRUE(SetScenarioOption(j, stOption.first, stOption.second, strError)) << strError;
    tagScenario st;
    EXPECT_TRUE(ParseScenario(j, strFolder, st, strError)) << strError;
    return st;
}

void ExpectBooksBalance(const tagSimResult& stResult)
{
    for (const tagSimStreamResult& st : stResult.vecStreams)
    {
        const tagSimStreamCounts& c = st.st;
        EXPECT_EQ(c.ullSent, c.ullReceived + c.ullLost);
        EXPECT_EQ(c.ullLost, c.ullInTime + c.ullRecoveredLate + c.ullUnrecovered);
        EXPECT_EQ(c.ullLost, c.ullLostUp + c.ullLostDown);
        EXPECT_EQ(c.ullAskedSeqs, c.ullAskedLostSeqs + c.ullWastedSeqs);
        EXPECT_LE(c.ullAnswered, c.ullLost);
        EXPECT_EQ(c.ullReleased, st.stPackets.ullPlayed + st.stPackets.ullReplayed);
    }
}

int Udtlab(std::vector<std::string> vecArgs, std::string& strOut, std::string& strErr)
{
    vecArgs.insert(vecArgs.begin(), "udtlab");
    std::vector<char*> vec;
    for (std::string& str : vecArgs)
        vec.push_back(str.data());
    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
    const int n = Main((int)vec.size(), vec.data());
    strOut = testing::internal::GetCapturedStdout();
    strErr = testing::internal::GetCapturedStderr();
    return n;
}

} // namespace

TEST(Simulate, ACleanCallLosesAndAsksForNothing)
{
    const tagSimResult st = RunSimulation(Scenario({{"seconds", "20"}, {"users.count", "2"}}));
    EXPECT_TRUE(st.vecViolations.empty()) << st.vecViolations.front();
    EXPECT_EQ(st.stSum.ullLost, 0u);
    EXPECT_EQ(st.stSum.ullAskedSeqs, 0u);
    EXPECT_EQ(st.stSum.ullGaps, 0u);
    ASSERT_EQ(st.vecStreams.size(), 4u);
    EXPECT_EQ(st.vecStreams[0].st.ullSent, 1000u); // 20 s of 20 ms packets
    EXPECT_EQ(st.rtt.Quantile(0.5), 40u);
    ExpectBooksBalance(st);
}

TEST(Simulate, TheSameSeedMakesTheSameReportToTheByteAndAnotherDoesNot)
{
    const Settings vec = {
        {"seconds", "15"},        {"down.loss_percent", "5"},    {"down.burst", "2"},
        {"down.jitter_ms", "20"}, {"down.reorder_percent", "2"}, {"down.duplicate_percent", "2"},
        {"up.loss_percent", "1"}, {"down.rate_kbps", "6000"}};
    const tagScenario stScenario = Scenario(vec);
    const tagSimResult stA = RunSimulation(stScenario);
    const tagSimResult stB = RunSimulation(stScenario);
    EXPECT_EQ(SimJson(stA).dump(), SimJson(stB).dump());
    EXPECT_EQ(SimTable(stA, true, false), SimTable(stB, true, false));
    tagScenario stOther = stScenario;
    stOther.ullSeed = 2;
    EXPECT_NE(SimJson(stA)["all"].dump(), SimJson(RunSimulation(stOther))["all"].dump());
    ExpectBooksBalance(stA);
}

// The first seconds, while the buffer fills and pictures are in their first run of P frames, are in it.
TEST(Simulate, AtFivePercentLossAndAHundredMillisecondsNinetyNineOfAHundredComeBackInTime)
{
    const tagSimResult st = RunSimulation(Scenario({{"seconds", "400"},
                                                    {"down.loss_percent", "5"},
                                                    {"down.delay_ms", "50"},
                                                    {"request.delay_ms", "50"},
                                                    {"down.jitter_ms", "20"}}));
    EXPECT_TRUE(st.vecViolations.empty()) << st.vecViolations.front();
    EXPECT_GT(st.stSum.ullLost, 10000u);
    EXPECT_GE((double)st.stSum.ullInTime, 0.99 * (double)st.stSum.ullLost);
    ExpectBooksBalance(st);
}

TEST(Simulate, WithoutRequestsOrAnswersNothingComesBack)
{
    for (const char* pszOff : {"receiver.requests", "relay.answer"})
    {
        SCOPED_TRACE(pszOff);
        const tagSimResult st =
            RunSimulation(Scenario({{"seconds", "15"}, {"down.loss_percent", "5"}, {pszOff, "false"}}));
        EXPECT_GT(st.stSum.ullLost, 300u);
        EXPECT_EQ(st.stSum.ullUnrecovered, st.stSum.ullLost);
        EXPECT_EQ(st.stSum.ullAskedSeqs == 0, std::string(pszOff) == "receiver.requests");
        EXPECT_EQ(st.stSum.ullGapPackets > 0, true);
    }
}

TEST(Simulate, WhatIsLostBeforeTheRelayIsFetchedFromTheSender)
{
    const Settings vec = {{"seconds", "30"}, {"up.loss_percent", "5"}, {"count_from_s", "8"}};
    const tagSimResult st = RunSimulation(Scenario(vec));
    EXPECT_EQ(st.stSum.ullLostUp, st.stSum.ullLost);
    EXPECT_GT(st.stTraffic.ullPassedOn, 300u);
    EXPECT_GE((double)st.stSum.ullInTime, 0.99 * (double)st.stSum.ullLost);
    Settings vecNot = vec;
    vecNot.emplace_back("relay.pass_on", "false");
    EXPECT_EQ(RunSimulation(Scenario(vecNot)).stSum.ullInTime, 0u);
}

TEST(Simulate, ReorderingWithoutLossWastesEveryRequest)
{
    const tagSimResult st = RunSimulation(
        Scenario({{"seconds", "20"}, {"down.reorder_percent", "8"}, {"down.reorder_ms", "60"}}));
    EXPECT_EQ(st.stSum.ullLost, 0u);
    EXPECT_GT(st.stSum.ullWastedSeqs, 100u);
    EXPECT_EQ(st.stSum.ullWastedSeqs, st.stSum.ullAskedSeqs);
}

TEST(Simulate, AJoinerIsPushedWholeGopsFromAnIFrameOn)
{
    bool bFirst = true;
    tagSimHooks stHooks;
    stHooks.fnFeed = [&](CMediaPacket& packet)
    {
        if (packet.m_cSubType != MEAVMaxVideo || !bFirst)
            return;
        bFirst = false;
        EXPECT_EQ(packet.Head().cFrmType, def_FrameType_I);
        EXPECT_EQ(packet.Head().cPkgIndex, 0);
        EXPECT_EQ(packet.Head().cGopIndex, 0);
    };
    const tagSimResult st =
        RunSimulation(Scenario({{"seconds", "15"}, {"users.count", "1"}, {"relay.push_gops", "2"}}), stHooks);
    EXPECT_FALSE(bFirst);
    EXPECT_GT(st.stTraffic.ullPushed, 300u); // three seconds of picture and sound
    EXPECT_EQ(st.stSum.ullLost, 0u);
    EXPECT_GT(st.vecStreams[1].st.latency.Max(), 2500u); // playout began that far behind
}

TEST(Simulate, UsersJoinMuteLeaveAndComeBackAsScheduled)
{
    const tagSimResult st = RunSimulation(Scenario(
        {{"seconds", "40"},
         {"users",
          R"([{"audio": {"kbps": 40}, "video": {"kbps": 300}, "join_s": 2, "restart": true, "events": [
                        {"at_s": 6, "do": "mute", "streams": "audio"}, {"at_s": 9, "do": "unmute", "streams": "audio"},
                        {"at_s": 12, "do": "leave"}, {"at_s": 25, "do": "join"}]}])"}}));
    EXPECT_TRUE(st.vecViolations.empty()) << st.vecViolations.front();
    ASSERT_EQ(st.vecStreams.size(), 4u);          // a rejoin that begins anew is a stream of its own
    EXPECT_EQ(st.vecStreams[0].st.ullSent, 350u); // 2 to 6 s and 9 to 12 s
    EXPECT_EQ(st.vecStreams[2].st.ullSent, 750u);
    EXPECT_EQ(st.vecStreams[2].uEpoch, 1u);
    // It counts from where the first one did, and none of its packets is taken for one of those.
    EXPECT_EQ(st.vecStreams[2].stPackets.ullFirst, st.vecStreams[2].stPackets.ullFed);
    EXPECT_GT(st.vecStreams[2].stPackets.ullPlayed, 700u);
    EXPECT_EQ(st.stSum.ullUnrecovered, 0u);
}

TEST(Simulate, ASkewedClockSendsThatMuchMoreOrLess)
{
    for (const char* pszPpm : {"-1000", "1000"})
    {
        const tagSimResult st = RunSimulation(Scenario({{"seconds", "200"},
                                                        {"users.count", "1"},
                                                        {"users.video", "false"},
                                                        {"users.skew_ppm", pszPpm}}));
        EXPECT_NEAR((double)st.vecStreams[0].st.ullSent, 10000 * (1 + atof(pszPpm) / 1e6), 1) << pszPpm;
        EXPECT_TRUE(st.vecViolations.empty());
    }
}

TEST(Simulate, EveryShippedScenarioRunsGreen)
{
    // Short here; from a tenth to a half of what they are for.
    for (const char* pszName : {"clean-office", "cafe-wifi", "lte-driving", "train-outages", "satellite",
                                "burst-loss-30", "reorder-only", "duplicates-only", "handover-step",
                                "large-room-50", "clock-skew", "wrap-of-everything"})
    {
        SCOPED_TRACE(pszName);
        const std::string strFolder = UDT_SOURCE_DIR "/lab/scenarios";
        nlohmann::ordered_json j;
        std::string strError;
        ASSERT_TRUE(ReadScenarioFile(strFolder + "/" + pszName + ".json", j, strError)) << strError;
        const bool bRoom = std::string(pszName) == "large-room-50";
        const bool bWrap = std::string(pszName) == "wrap-of-everything";
        const tagSimResult st = RunSimulation(Scenario({{"seconds", bRoom   ? "16"
                                                                    : bWrap ? "90"
                                                                            : "25"}},
                                                       j, strFolder));
        EXPECT_TRUE(st.vecViolations.empty()) << st.vecViolations.front();
        EXPECT_GT(st.stSum.ullReleased, 1000u);
        ExpectBooksBalance(st);
    }
}

// ---- Broken checks -------------------------------------------------------------------------------------------------

TEST(SimulateBroken, AnOwnerThatKeepsAPacketIsNamedAndEndsWithThree)
{
    CScopePtr<CMediaPacket> pKept;
    tagSimHooks stHooks;
    stHooks.fnReleased = [&](CMediaPacket& packet)
    {
        if (!pKept.p)
            pKept = &packet;
    };
    const tagSimResult st = RunSimulation(Scenario({{"seconds", "3"}, {"users.count", "1"}}), stHooks);
    EXPECT_EQ(st.ExitCode(), 3);
    ASSERT_FALSE(st.vecViolations.empty());
    EXPECT_THAT(st.vecViolations.front(), HasSubstr("1 packet objects outlived the run"));
    EXPECT_THAT(SimTable(st, true, false), HasSubstr("BROKEN: "));
    EXPECT_EQ(SimJson(st)["checks"]["ok"], false);
    pKept->Abandon(); // the run is over, it is not to be told of the packet's end
}

// A feeder that mixes streams up.
TEST(SimulateBroken, AFeederThatBooksAPacketOnAnotherStreamEndsTheRunThere)
{
    tagSimHooks stHooks;
    stHooks.fnFeed = [&](CMediaPacket& packet)
    {
        if (packet.dwSenderSeq == 200 && packet.m_cSubType == MEAVAudio)
            packet.m_uStream = 1 - packet.m_uStream; // booked on the other stream
    };
    const tagSimResult st = RunSimulation(
        Scenario({{"seconds", "20"}, {"users.count", "1"}, {"users.video.kbps", "100"}}), stHooks);
    EXPECT_EQ(st.ExitCode(), 3);
    EXPECT_LT(st.dwRunMs, 8000u); // it ended there
    EXPECT_THAT(SimTable(st, true, false), HasSubstr("the run ended there"));
}

// The receiver read the sequence long ago and plays on in order; what the owner gets is not in order.
TEST(SimulateBroken, AFeederThatRenumbersAPacketItHandedInEndsTheRunThere)
{
    CMediaPacket* pHandedIn = nullptr;
    tagSimHooks stHooks;
    stHooks.fnFeed = [&](CMediaPacket& packet)
    {
        if (packet.m_cSubType == MEAVAudio && packet.dwSenderSeq == 190)
            pHandedIn = &packet;
        if (packet.m_cSubType == MEAVAudio && packet.dwSenderSeq == 200)
            pHandedIn->dwSenderSeq += 1000;
    };
    const tagSimResult st = RunSimulation(
        Scenario({{"seconds", "20"}, {"users.count", "1"}, {"users.video.kbps", "100"}}), stHooks);
    EXPECT_EQ(st.ExitCode(), 3);
    EXPECT_LT(st.dwRunMs, 8000u); // it ended there
    EXPECT_THAT(SimTable(st, true, false), HasSubstr("the run ended there"));
}

TEST(SimulateBroken, APacketThatLeavesBeforeItsTimeIsNamed)
{
    std::vector<std::string> vecBroken;
    CPlayoutChecks checks([&](const std::string& str) { vecBroken.push_back(str); });

    CRecvRig rig(1000);
    rig.StartPlaying();
    tagRigPacket stPacket = AudioPacket(7, 10);
    rig.Put(stPacket);
    tagUdtPacketHeadInfo stHead = stPacket.stHead;
    CScopePtr<CMediaPacket> pPacket(new CMediaPacket(stHead, nullptr));
    pPacket->u64Uin = 7;
    pPacket->m_cSubType = MEAVAudio;
    pPacket->dwSenderSeq = 10;
    rig.User(7)->dwTimelineOut = stHead.uTimeStamp;
    checks.TurnBegins(10);
    checks.Released(rig.m_recv, *pPacket, 0);
    EXPECT_TRUE(vecBroken.empty()); // just in time
    rig.User(7)->dwTimelineOut = stHead.uTimeStamp - 1;
    checks.TurnBegins(20);
    checks.Released(rig.m_recv, *pPacket, 30);
    ASSERT_EQ(vecBroken.size(), 1u);
    EXPECT_THAT(vecBroken[0], HasSubstr("sequence 10 left before its time"));
    // The play delay reported at one turn's release is in force in the next.
    rig.User(7)->dwTimelineOut = stHead.uTimeStamp - 30;
    checks.TurnBegins(30);
    checks.Released(rig.m_recv, *pPacket, 0);
    EXPECT_EQ(vecBroken.size(), 1u);
    checks.TurnBegins(40);
    checks.Released(rig.m_recv, *pPacket, 0);
    EXPECT_EQ(vecBroken.size(), 2u);
}

TEST(SimulateBroken, ARequestBehindThePlayoutPointIsNamedAndAnImmediateOneIsNot)
{
    std::vector<std::string> vecBroken;
    CPlayoutChecks checks([&](const std::string& str) { vecBroken.push_back(str); });
    CRecvRig rig(1000);
    rig.StartPlaying();
    tagDataPacket& st = rig.Put(AudioPacket(7, 12));
    st.cPrePkgLost = 1;
    tagReplyData stReply;
    stReply.ullUserAccount = 7;
    stReply.cSubType = MEAVAudio;
    stReply.dwUserSeq = 11;

    rig.User(7)->dwTimelineOut = st.dwMETimeStamp;
    checks.Requested(rig.m_recv, &stReply, 1, 1000); // no stamp of the scan: at once, for an I frame
    EXPECT_EQ(checks.ImmediateRequests(), 1u);
    EXPECT_TRUE(vecBroken.empty());

    rig.Stream(7, MEAVAudio)->mapRequestSeq[11] = 1000;
    st.dwLastReqLostTime = 1000;
    checks.Requested(rig.m_recv, &stReply, 1, 1000);
    ASSERT_EQ(vecBroken.size(), 1u);
    EXPECT_THAT(vecBroken[0], HasSubstr("asked for behind the playout point"));

    rig.User(7)->dwTimelineOut = st.dwMETimeStamp - 1;
    checks.Requested(rig.m_recv, &stReply, 1, 1000);
    EXPECT_EQ(vecBroken.size(), 1u);
    EXPECT_EQ(checks.ScanRequests(), 2u);

    stReply.dwUserSeq = 10; // not in the gap of any packet
    rig.Stream(7, MEAVAudio)->mapRequestSeq[10] = 1000;
    checks.Requested(rig.m_recv, &stReply, 1, 1000);
    ASSERT_EQ(vecBroken.size(), 2u);
    EXPECT_THAT(vecBroken[1], HasSubstr("no buffered packet has it"));
}

// ---- Scenario and command line -----------------------------------------------------------------------------------

TEST(SimScenario, WrongOptionsAreOneLineThatNamesThemAndTellsWhatWasExpected)
{
    const struct
    {
        const char* pszPath;
        const char* pszValue;
        const char* pszWant;
    } aRows[] = {
        {"down.los_percent", "5", "down.los_percent: no such option; there are burst, delay_ms"},
        {"down.loss_percent", "101", "down.loss_percent: expected a number from 0 to 100, got 101"},
        {"down.loss_percent", "much", "down.loss_percent: expected a number from 0 to 100, got \"much\""},
        {"seconds", "-1", "seconds: expected a number from 0.1"},
        {"users.count", "0", "users.0.count: expected a whole number from 1 to 1000, got 0"},
        {"users", "[]", "users: expected [{...}, ...]"},
        {"users.video.kbps", "90000", "users.0.video: expected I frames of at most 250 packets"},
        {"users.events", R"([{"at_s": 1, "do": "sing"}])",
         "users.0.events.0.do: expected join, leave, mute or unmute"},
        {"receiver.mode", "fast", "receiver.mode: expected default or low-latency, got \"fast\""},
        {"down.steps", "[[5,10],[4,10]]",
         "down.steps: expected [[at_s, delay_ms], ...], times rising, got [4,10]"},
        {"down.rate_trace", "nowhere", "down.rate_trace: nowhere: cannot be read"},
    };
    for (const auto& row : aRows)
    {
        nlohmann::ordered_json j = DefaultScenario();
        std::string strError;
        ASSERT_TRUE(SetScenarioOption(j, row.pszPath, row.pszValue, strError));
        tagScenario st;
        EXPECT_FALSE(ParseScenario(j, "", st, strError));
        EXPECT_THAT(strError, HasSubstr(row.pszWant));
        EXPECT_EQ(strError.find('\n'), std::string::npos);
    }
}

TEST(SimProgram, OptionsOverrideTheScenarioAndJsonIsTheSameEveryRun)
{
    labtest::CTempDir dir;
    std::ofstream(dir.Path("s.json")) << R"({"name": "mine", "seconds": 30, "users": [{"count": 2}],
                                            "down": {"loss_percent": 50}})";
    std::string strOut, strErr, strAgain;
    const std::vector<std::string> vec = {"simulate", "--scenario", dir.Path("s.json"), "--seconds", "5",
                                          "--loss",   "10%",        "--json",           "-"};
    ASSERT_EQ(Udtlab(vec, strOut, strErr), 0) << strErr;
    const auto j = nlohmann::json::parse(strOut);
    EXPECT_EQ(j["name"], "mine");
    EXPECT_EQ(j["seconds"], 5);
    EXPECT_EQ(j["streams"].size(), 2u); // audio only: the file says nothing of pictures
    EXPECT_NEAR(j["all"]["lost_share"].get<double>(), 0.1, 0.06);
    EXPECT_EQ(j.count("speed"), 0u);
    EXPECT_THAT(strErr, HasSubstr("times real time"));
    ASSERT_EQ(Udtlab(vec, strAgain, strErr), 0);
    EXPECT_EQ(strOut, strAgain);
}

TEST(SimProgram, BadInputIsOneLineAndExitCodeTwo)
{
    labtest::CTempDir dir;
    std::ofstream(dir.Path("bad.json")) << "{\n \"seconds\": 5,\n \"users\": [,]\n}";
    const std::vector<std::pair<std::vector<std::string>, const char*>> aRows = {
        {{"--scenario", dir.Path("none.json")}, "none.json: cannot be read"},
        {{"--scenario", dir.Path("bad.json")}, "bad.json:3: syntax error"},
        {{"--loss", "lots"}, "down.loss_percent: expected a number"},
        {{"--set", "down"}, "--set: expected PATH=VALUE"},
        {{"--rate-trace", dir.Path("none")}, "cannot be read"},
        {{"--no-such-thing"}, "--no-such-thing"},
        {{"--seconds", "1", "--json", "/nowhere/x.json"}, "/nowhere/x.json: cannot be written"},
    };
    for (const auto& row : aRows)
    {
        std::vector<std::string> vec = {"simulate"};
        vec.insert(vec.end(), row.first.begin(), row.first.end());
        std::string strOut, strErr;
        EXPECT_EQ(Udtlab(vec, strOut, strErr), 2) << strErr;
        EXPECT_THAT(strErr, HasSubstr(row.second));
    }
}
