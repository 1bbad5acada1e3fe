// What is counted at the receiver against what the simulation knows to have happened.

#include "SimScenario.h"
#include "Simulate.h"
#include "UdtStats.h"

#include <gtest/gtest.h>

#include <initializer_list>
#include <utility>

using namespace lab;

namespace
{

// Sums over all streams; a stream that does not know counts as none, so absence shows as a difference.
template <class T>
uint64 Sum(const tagUdtStats& stStats, std::optional<T> tagUdtStreamStats::*pField)
{
    uint64 ullSum = 0;
    for (const tagUdtStreamStats& st : stStats.vecStreams)
        ullSum += (uint64)(st.*pField).value_or(0);
    return ullSum;
}

TEST(SimStats, AgreeWithWhatTheNetworkDid)
{
    nlohmann::ordered_json j = DefaultScenario();
    std::string strError;
    for (const auto& stOption :
         std::initializer_list<std::pair<const char*, const char*>>{{"seconds", "40"},
                                                                    {"users.count", "3"},
                                                                    {"seed", "5"},
                                                                    {"down.loss_percent", "4"},
                                                                    {"down.jitter_ms", "15"},
                                                                    {"down.duplicate_percent", "1"}})
        ASSERT_TRUE(SetScenarioOption(j, stOption.first, stOption.second, strError)) << strError;
    tagScenario stScenario;
    ASSERT_TRUE(ParseScenario(j, "", stScenario, strError)) << strError;
    const tagSimResult stResult = RunSimulation(stScenario);
    ASSERT_EQ(stResult.ullBroken, 0u);
    const tagSimStreamCounts& stTruth = stResult.stSum;
    const tagUdtStats& st = stResult.stStats;

    ASSERT_EQ(st.vecStreams.size(), stResult.vecStreams.size());
    uint64 ullHandedIn = 0;
    uint64 ullRepeats = 0;
    for (const tagSimStreamResult& stStream : stResult.vecStreams)
    {
        ullHandedIn += stStream.stPackets.ullFed;
        ullRepeats += stStream.stPackets.ullRepeats + stStream.stPackets.ullReplayed;
    }
    EXPECT_EQ(Sum(st, &tagUdtStreamStats::packetsReceived), ullHandedIn);
    EXPECT_EQ(Sum(st, &tagUdtStreamStats::packetsDuplicated), ullRepeats);
    EXPECT_EQ(Sum(st, &tagUdtStreamStats::packetsReleased), stTruth.ullReleased);
    EXPECT_EQ(Sum(st, &tagUdtStreamStats::packetsRequested), stTruth.ullAskedSeqs);
    EXPECT_EQ(st.stReceiver.packetsParsed.value_or(0), ullHandedIn);
    EXPECT_GT(stTruth.ullAskedSeqs, 100u);
    for (const tagUdtStreamStats& stStream : st.vecStreams)
    {
        EXPECT_FALSE(stStream.strUser.empty());
        EXPECT_TRUE(stStream.jitter.has_value());
    }
}

} // namespace
