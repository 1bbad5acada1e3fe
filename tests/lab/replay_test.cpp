// Whole replays: real captures against their known figures, and captures made by hand for one effect each.

#include "LabBytes.h"

#include "CaptureReader.h"
#include "Replay.h"
#include "ReplayReport.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <set>
#include <sstream>

using namespace labtest;
using lab::RunReplay;
using lab::tagReplayOptions;
using lab::tagReplayResult;
using testing::HasSubstr;

namespace
{

tagReplayOptions Options(const std::string& strCapture)
{
    tagReplayOptions st;
    st.vecCaptures = {strCapture};
    return st;
}

struct tagFigures
{
    uint32 dwSsrc;
    uint64 ullPackets, ullUnique, ullLost, ullReordered, ullDuplicates;
};

struct tagKnownCapture
{
    const char* pszFile;
    bool bBundled;
    std::vector<tagFigures> vecStreams;
};

void PrintTo(const tagKnownCapture& st, std::ostream* pOut) { *pOut << st.pszFile; }

const tagKnownCapture c_aKnown[] = {
    {"amr-lte-duplicates.pcap",
     true,
     {{0x0025b105, 1052, 526, 11, 0, 526},
      {0x710006b8, 246, 246, 0, 0, 0},
      {0x00612603, 528, 264, 3, 0, 264},
      {0x71008205, 279, 279, 0, 0, 0},
      {0x40c1b512, 118, 59, 1, 0, 59},
      {0x401dd106, 240, 120, 1, 0, 120}}},
    {"h264-opus-rtx-lab-31s.pcapng",
     true,
     {{0x170e043b, 1529, 1529, 45, 18, 0},
      {0xf24b7ac6, 2407, 2407, 51, 17, 0},
      {0x9b39f783, 77, 77, 2, 1, 0},
      {0x2d4ae8e2, 54, 54, 0, 0, 0}}},
    {"pcmu-twoway-12s.pcap", true, {{0xd2c7ada6, 593, 592, 0, 0, 1}, {0xdb0db55b, 591, 591, 0, 0, 0}}},
    {"pcmu-stereo-reorder-41s.rtpdump", true, {{0x49a2e558, 2009, 2009, 53, 468, 0}}},
    {"av-pcma-vp8-call-24s.pcapng",
     false,
     {{0x59ace107, 1493, 1493, 2, 0, 0}, {0x281a0aeb, 2134, 2134, 1, 0, 0}}},
    {"av-pcma-vp8-collapse-36s.pcapng",
     false,
     {{0x2e4216b4, 862, 862, 730, 0, 0}, {0x1bc08c28, 125, 125, 1134, 0, 0}}},
    {"opus-clean-70s.pcapng", false, {{0xaebb2a64, 3501, 3501, 0, 0, 0}}},
    {"opus-fec-1pct-dropped-60s.pcapng", false, {{0x3760bfaa, 2971, 2971, 29, 0, 0}}},
    {"opus-mobile-loss-reorder-142s.pcapng", false, {{0xa9733981, 7108, 7108, 24, 30, 0}}},
    {"pcma-congestion-12pct-loss-66s.pcapng", false, {{0xc647c3f8, 1737, 1737, 240, 0, 0}}},
};

class KnownCapture : public testing::TestWithParam<tagKnownCapture>
{
protected:
    std::string Path() const
    {
        return GetParam().bBundled ? Bundled(GetParam().pszFile) : Shared(GetParam().pszFile);
    }
};

// An audio call made by hand: 20 ms PCMU packets from one SSRC.
class CHandCall
{
public:
    void Packet(uint64_t ullArrivalMs, uint16_t wSeq)
    {
        m_pcap.Add(1700000000000000ull + ullArrivalMs * 1000,
                   Ipv4(Udp(Rtp(0, (uint16_t)(wSeq + 1000), wSeq * 160u, 0xCA11, 160))));
    }
    // In time, from the first to before the last.
    void Packets(uint16_t wFirst, uint16_t wEnd)
    {
        for (uint16_t w = wFirst; w < wEnd; w++)
            Packet(w * 20u, w);
    }
    tagReplayResult Play(tagReplayOptions st = tagReplayOptions())
    {
        st.vecCaptures = {m_dir.Write("call.pcap", m_pcap.m_bytes)};
        return RunReplay(st);
    }

    CTempDir m_dir;
    CPcapBytes m_pcap{101};
};

} // namespace

TEST_P(KnownCapture, HasItsKnownFiguresAndEveryUniquePacketIsAccountedFor)
{
    if (Path().empty())
        GTEST_SKIP() << "no capture folder beside the checkout (UDT_SHARED_DATA): " << GetParam().pszFile;
    for (const bool bLowLatency : {false, true})
    {
        tagReplayOptions stOptions = Options(Path());
        stOptions.bLowLatency = bLowLatency;
        const tagReplayResult st = RunReplay(stOptions);
        EXPECT_EQ(st.ExitCode(), 0) << st.strInputError;
        EXPECT_THAT(st.vecViolations, testing::IsEmpty());
        ASSERT_EQ(st.vecStreams.size(), GetParam().vecStreams.size());
        for (const tagFigures& stWant : GetParam().vecStreams)
        {
            const auto it = std::find_if(st.vecStreams.begin(), st.vecStreams.end(),
                                         [&](const auto& s) { return s.stInfo.dwSsrc == stWant.dwSsrc; });
            ASSERT_NE(it, st.vecStreams.end());
            SCOPED_TRACE(testing::Message() << std::hex << stWant.dwSsrc);
            const tagRtpStat& stat = it->stInfo.stStat;
            EXPECT_EQ(stat.ullPackets, stWant.ullPackets);
            EXPECT_EQ(stat.ullUnique, stWant.ullUnique);
            EXPECT_EQ(stat.ullLost, stWant.ullLost);
            EXPECT_EQ(stat.ullReordered, stWant.ullReordered);
            EXPECT_EQ(stat.ullDuplicates, stWant.ullDuplicates);
            if (it->stInfo.stFormat.eKind == RTP_KIND_RTX)
                continue;
            const lab::tagPacketAccount& stPackets = it->stPackets;
            EXPECT_EQ(stPackets.ullFirst, stWant.ullUnique + it->stInfo.ullRtxRepaired);
            EXPECT_EQ(stPackets.ullFirst,
                      stPackets.ullPlayed + stPackets.ullSkipped + stPackets.ullCleared + stPackets.ullLeft);
            EXPECT_GT(stPackets.ullPlayed, 0u);
            EXPECT_EQ(it->delay.Count(), stPackets.ullPlayed + stPackets.ullReplayed);
        }
    }
}

INSTANTIATE_TEST_SUITE_P(All, KnownCapture, testing::ValuesIn(c_aKnown),
                         [](const auto& stCase)
                         {
                             std::string str = stCase.param.pszFile;
                             for (char& c : str)
                                 c = isalnum((unsigned char)c) ? c : '_';
                             return str;
                         });

TEST(Replay, ACleanCallIsPlayedWholeAndInOrder)
{
    CHandCall call;
    call.Packets(0, 500);
    const tagReplayResult st = call.Play();
    ASSERT_EQ(st.vecStreams.size(), 1u);
    EXPECT_EQ(st.vecStreams[0].stPackets.ullPlayed, 500u);
    EXPECT_EQ(st.vecStreams[0].stPackets.ullLate, 0u);
    EXPECT_EQ(st.dwDurationMs, 499u * 20);
    EXPECT_EQ(st.vecStreams[0].dwFirstOutMs, 510u)
        << "a stream without video is held for 500 ms, to the next turn";
    EXPECT_EQ(st.ExitCode(), 0);
}

TEST(Replay, APacketAfterItsPlaceWasPlayedLeavesAtOnceAndCountsAsLate)
{
    CHandCall call;
    for (uint16_t w = 0; w < 500; w++)
        if (w != 100)
            call.Packet(w * 20u, w);
    CHandCall late;
    for (uint16_t w = 0; w < 500; w++)
    {
        if (w != 100)
            late.Packet(w * 20u, w);
        if (w == 300)
            late.Packet(w * 20u + 3, 100); // 4 s late: the place is long played
    }
    const tagReplayResult stWithout = call.Play();
    const tagReplayResult st = late.Play();
    EXPECT_EQ(stWithout.vecStreams[0].stInfo.stStat.ullLost, 1u);
    EXPECT_EQ(st.vecStreams[0].stInfo.stStat.ullLost, 0u);
    EXPECT_EQ(st.vecStreams[0].stPackets.ullPlayed, 500u);
    EXPECT_EQ(st.vecStreams[0].stPackets.ullLate, 1u);
    EXPECT_EQ(st.vecStreams[0].delay.Min(), 7u) << "released by the next turn";
    EXPECT_EQ(st.ExitCode(), 0);
}

TEST(Replay, RepeatsAreDroppedAndCounted)
{
    CHandCall call;
    for (uint16_t w = 0; w < 200; w++)
        for (int i = 0; i < 3; i++)
            call.Packet(w * 20u, w);
    const tagReplayResult st = call.Play();
    EXPECT_EQ(st.vecStreams[0].stInfo.stStat.ullDuplicates, 400u);
    EXPECT_EQ(st.vecStreams[0].stPackets.ullPlayed, 200u);
    EXPECT_EQ(st.vecStreams[0].stPackets.ullRepeats, 400u);
    EXPECT_EQ(st.ExitCode(), 0);
}

TEST(Replay, TheReportedPlayDelayReleasesAudioThatMuchEarlier)
{
    CHandCall call;
    call.Packets(0, 1000);
    tagReplayOptions stDelay;
    stDelay.uPlayDelayMs = 200;
    const uint32 uBare = call.Play().vecStreams[0].delay.Quantile(0.5);
    const uint32 uAhead = call.Play(stDelay).vecStreams[0].delay.Quantile(0.5);
    EXPECT_NEAR((double)uBare - uAhead, 200, 20);
}

TEST(Replay, LowLatencyModePlaysWithLessDelayOnAJitteryCall)
{
    CHandCall call;
    for (uint16_t w = 0; w < 2000; w++)
        call.Packet(w * 20u + (w < 50 ? 0 : (w % 10) * 15), w); // a jitter of 135 ms
    tagReplayOptions stLow;
    stLow.bLowLatency = true;
    const tagReplayResult stDefault = call.Play(), stLowLatency = call.Play(stLow);
    EXPECT_LE(stLowLatency.vecStreams[0].delay.Quantile(0.5), stDefault.vecStreams[0].delay.Quantile(0.5));
    EXPECT_EQ(stLowLatency.ExitCode(), 0);
}

TEST(Replay, AHoleOfADayIsNotWalkedTurnByTurn)
{
    CHandCall call;
    call.Packets(0, 100);
    for (uint16_t w = 100; w < 200; w++)
        call.Packet(86400000ull + w * 20u, w);
    const tagReplayResult st = call.Play();
    EXPECT_EQ(st.vecStreams[0].stPackets.ullPlayed, 200u);
    EXPECT_EQ(st.dwDurationMs, 86400000u + 199 * 20);
    EXPECT_EQ(st.ExitCode(), 0);
}

TEST(Replay, WhatCameBeforeACutIsPlayedAndTheCutIsReported)
{
    CHandCall call;
    call.Packets(0, 100);
    const size_t nCutRecord = call.m_pcap.m_bytes.size();
    call.Packet(2000, 100);
    call.m_pcap.m_bytes.resize(nCutRecord + 50);
    const tagReplayResult st = call.Play();
    EXPECT_EQ(st.vecStreams[0].stPackets.ullPlayed, 100u);
    EXPECT_THAT(st.strInputError, HasSubstr("call.pcap: offset " + std::to_string(nCutRecord) + ": "));
    EXPECT_EQ(st.ExitCode(), 2);
}

TEST(Replay, ACaptureWithoutRtpIsAnErrorThatSaysWhatWasThere)
{
    CTempDir dir;
    CPcapBytes pcap(101);
    for (int i = 0; i < 5; i++)
        pcap.Add(1000 + (uint64_t)i, Ipv4(Udp({0, 1, 0, 0})));
    const tagReplayResult st = RunReplay(Options(dir.Write("dns.pcap", pcap.m_bytes)));
    EXPECT_FALSE(st.bPlayed);
    EXPECT_EQ(st.ExitCode(), 2);
    EXPECT_THAT(st.strInputError,
                HasSubstr("dns.pcap: offset " + std::to_string(pcap.m_bytes.size()) + ": no RTP found"));
    EXPECT_THAT(st.strInputError, HasSubstr("5 UDP datagrams"));
}

TEST(Replay, TwoCapturesOfOneCallAreOneReplay)
{
    CHandCall even, odd;
    for (uint16_t w = 0; w < 200; w++)
        (w % 2 ? odd : even).Packet(w * 20u, w);
    tagReplayOptions stOptions;
    stOptions.vecCaptures = {even.m_dir.Write("even.pcap", even.m_pcap.m_bytes),
                             odd.m_dir.Write("odd.pcap", odd.m_pcap.m_bytes)};
    const tagReplayResult st = RunReplay(stOptions);
    ASSERT_EQ(st.vecStreams.size(), 1u);
    EXPECT_EQ(st.vecStreams[0].stPackets.ullPlayed, 200u);
    EXPECT_EQ(st.vecStreams[0].stInfo.stStat.ullLost, 0u);
}

// Used to read the item's type as an enum that has no such value.
TEST(Replay, AnRtcpDescriptionItemOfNoKnownTypeIsPassedOver)
{
    CHandCall call;
    call.Packets(0, 50);
    const Bytes cname = {1, 5, 'a', '@', 'l', 'a', 'b', 0};
    const Bytes sdes = Join({{0x81, 202}, Be16(4), Be32(0xCA11), {253, 2, 'x', 'y'}, cname});
    call.m_pcap.Add(1700000001000000ull, Ipv4(Udp(sdes)));
    call.m_pcap.Add(1700000001000000ull, Ipv4(Udp(Join({{0x80, 201},
                                                        Be16(1),
                                                        Be32(0xCA11),
                                                        {0x81, 202},
                                                        Be16(4),
                                                        Be32(0xCA11),
                                                        {253, 2, 'x', 'y'},
                                                        cname}))));
    const tagReplayResult st = call.Play();
    EXPECT_EQ(st.ExitCode(), 0);
    EXPECT_EQ(st.vecUsers.at(0).strName, "a@lab");
}

TEST(Replay, ThePlayedCaptureHoldsEveryPlayedPacketAtItsTime)
{
    CTempDir dir;
    tagReplayOptions stOptions = Options(Bundled("h264-opus-rtx-lab-31s.pcapng"));
    stOptions.strOut = dir.Path("played.pcap");
    const tagReplayResult st = RunReplay(stOptions);
    ASSERT_EQ(st.ExitCode(), 0) << st.strInputError << st.strOutputError;
    uint64 ullPlayed = 0, ullRepaired = 0;
    for (const auto& stStream : st.vecStreams)
    {
        ullPlayed += stStream.stPackets.ullPlayed;
        ullRepaired += stStream.stInfo.ullRtxRepaired;
    }
    EXPECT_EQ(st.ullWritten, ullPlayed);
    EXPECT_GT(ullRepaired, 0u);

    // Played again, it has no RTX stream any more, what RTX repaired is there, and nothing is reordered but
    // what came late.
    const tagReplayResult stAgain = RunReplay(Options(stOptions.strOut));
    EXPECT_EQ(stAgain.ExitCode(), 0) << stAgain.strInputError;
    ASSERT_EQ(stAgain.vecStreams.size(), 2u);
    uint64 ullUnique = 0;
    for (const auto& stStream : stAgain.vecStreams)
    {
        ullUnique += stStream.stInfo.stStat.ullUnique;
        for (const auto& stBefore : st.vecStreams)
            if (stBefore.stInfo.dwSsrc == stStream.stInfo.dwSsrc)
            {
                EXPECT_EQ(stStream.stInfo.stStat.ullReordered, stBefore.stPackets.ullLate);
                EXPECT_EQ(stStream.stInfo.stStat.ullFirstUs, st.ullStartUs + stBefore.dwFirstOutMs * 1000ull);
                EXPECT_EQ(stStream.stInfo.stSrc.Text(), stBefore.stInfo.stSrc.Text());
            }
    }
    EXPECT_EQ(ullUnique, ullPlayed);
}

TEST(Replay, EveryJsonNameIsInTheManual)
{
    const tagReplayResult st = RunReplay(Options(Bundled("h264-opus-rtx-lab-31s.pcapng")));
    std::ifstream in(std::string(UDT_SOURCE_DIR) + "/docs/replay.md");
    std::stringstream strManual;
    strManual << in.rdbuf();
    std::set<std::string> setNames;
    std::vector<nlohmann::ordered_json> vecTodo = {ReplayJson(st)};
    while (!vecTodo.empty())
    {
        const nlohmann::ordered_json j = vecTodo.back();
        vecTodo.pop_back();
        for (const auto& item : j.items())
        {
            if (j.is_object())
                setNames.insert(item.key());
            if (item.value().is_structured() && item.key() != "stats") // has a page of its own
                vecTodo.push_back(item.value());
        }
    }
    EXPECT_GT(setNames.size(), 60u);
    for (const std::string& strName : setNames)
        EXPECT_THAT(strManual.str(), HasSubstr("`" + strName + "`"));
}

TEST(Replay, TheSampleInTheManualIsWhatItPrints)
{
    tagReplayResult st = RunReplay(Options(Bundled("h264-opus-rtx-lab-31s.pcapng")));
    st.stOptions.vecCaptures = {"data/rtp/h264-opus-rtx-lab-31s.pcapng"};
    const Bytes manual = ReadFile(std::string(UDT_SOURCE_DIR) + "/docs/replay.md");
    const std::string strManual(manual.begin(), manual.end());
    std::istringstream strTable(ReplayTable(st, false));
    std::string strWant;
    for (std::string strLine; std::getline(strTable, strLine);)
        strWant += strLine.empty() ? "\n" : "    " + strLine + "\n";
    EXPECT_NE(strManual.find(strWant), std::string::npos) << "docs/replay.md should show:\n" << strWant;
}

// The NACKs of the bundled call: 79 distinct packets of the audio and 54 of the video, counted from the capture
// by another program. What both receivers asked for can be no more than either did.
TEST(Replay, OurLossRequestsStandBesideThoseInTheCapture)
{
    const tagReplayResult st = RunReplay(Options(Bundled("h264-opus-rtx-lab-31s.pcapng")));
    ASSERT_GE(st.vecStreams.size(), 2u);
    EXPECT_EQ(st.vecStreams[0].ullNackedPackets, 79u);
    EXPECT_EQ(st.vecStreams[1].ullNackedPackets, 54u);
    for (const auto& stStream : {st.vecStreams[0], st.vecStreams[1]})
    {
        EXPECT_GT(stStream.ullAskedByBoth, 0u);
        EXPECT_LE(stStream.ullAskedByBoth, stStream.stStats.packetsRequestedUnique.value_or(0));
        EXPECT_LE(stStream.ullAskedByBoth, stStream.ullNackedPackets);
        EXPECT_LE(stStream.stStats.requestedPacketsReceived.value_or(0),
                  stStream.stStats.packetsRequestedUnique.value_or(0));
        EXPECT_GE(stStream.stStats.packetsRequested.value_or(0),
                  stStream.stStats.packetsRequestedUnique.value_or(0));
        // Both saw the same losses at the same time: half a second apart would be another clock.
        EXPECT_LT(std::abs(stStream.llLeadSumMs), 500 * (int64)stStream.ullAskedByBoth);
    }
}

TEST(Replay, ACaptureWithoutFeedbackHasNothingToCompareWith)
{
    CHandCall call;
    call.Packets(0, 50);
    call.Packets(55, 200);
    const tagReplayResult st = call.Play();
    ASSERT_EQ(st.vecStreams.size(), 1u);
    EXPECT_EQ(st.vecStreams[0].stStats.packetsRequestedUnique.value_or(0), 5u);
    EXPECT_EQ(st.vecStreams[0].stStats.requestedPacketsReceived.value_or(0), 0u);
    EXPECT_EQ(st.vecStreams[0].ullNackedPackets, 0u);
    EXPECT_EQ(st.vecStreams[0].ullAskedByBoth, 0u);
}

TEST(Replay, TheReceiversOwnEndReportIsKeptAndShownOnRequest)
{
    CHandCall call;
    call.Packets(0, 100);
    tagReplayOptions stOptions;
    tagReplayResult st = call.Play(stOptions);
    ASSERT_EQ(st.vecEndReport.size(), 3u + 5u + 1u); // head, one stream, end
    EXPECT_EQ(st.vecEndReport.front(), "--------- UdtRecvEndStatInfo ---------");
    EXPECT_EQ(st.vecEndReport[7], "  PkgInfo: TotalRecv 100 TotalLoss 0 TotalReqFail 0");
    EXPECT_EQ(st.vecEndReport.back(), "--------- end ---------");
    EXPECT_EQ(ReplayTable(st, false).find("UdtRecvEndStatInfo"), std::string::npos);
    EXPECT_FALSE(ReplayJson(st).contains("end_report"));

    stOptions.bEndReport = true;
    st = call.Play(stOptions);
    EXPECT_NE(ReplayTable(st, false).find("--------- end ---------\n"), std::string::npos);
    EXPECT_EQ(ReplayJson(st)["end_report"].size(), 9u);
}

TEST(Replay, LogLinesCarryVirtualTime)
{
    CHandCall call;
    call.Packets(0, 50);
    tagReplayOptions stOptions;
    stOptions.nLogLevel = 4;
    std::vector<std::string> vecLines;
    stOptions.fnLog = [&vecLines](const std::string& strLine) { vecLines.push_back(strLine); };
    call.Play(stOptions);
    EXPECT_THAT(vecLines,
                testing::Contains(HasSubstr("     0.510 4 OutPutDelay: Chn waiting for output is done")));
    for (const std::string& strLine : vecLines)
        EXPECT_THAT(strLine, testing::Not(HasSubstr("\n")));
}
