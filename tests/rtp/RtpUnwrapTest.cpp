#include "RtpUnwrap.h"

#include <gmock/gmock.h>

#include "RtpDownlink.h"
#include "RtpStat.h"

using testing::ElementsAre;

TEST(RtpUnwrap, SequencesCountOnAcrossWrapsReorderingAndDuplicates)
{
    struct tagRow
    {
        uint16 wSeq;
        int64_t llWant;
    };
    const std::vector<std::vector<tagRow>> vecTables = {
        {{0, 65536}, {1, 65537}, {1, 65537}, {3, 65539}, {2, 65538}},
        {{1, 65537}, {0, 65536}, {65535, 65535}, {65534, 65534}, {2, 65538}},
        {{65534, 131070}, {65535, 131071}, {0, 131072}, {65533, 131069}, {1, 131073}, {65535, 131071}},
        {{0x7FFF, 65536 + 0x7FFF}, {0xFFFE, 65536 + 0xFFFE}, {0x8000, 65536 + 0x8000}},
        {{0, 65536}, {32767, 65536 + 32767}, {65534, 65536 + 65534}, {32765, 65536 + 65536 + 32765}},
        {{0, 65536}, {32768, 65536 - 32768}}, // half way counts as behind
    };
    for (const auto& vecTable : vecTables)
    {
        CRtpSeqUnwrap unwrap;
        for (const tagRow& row : vecTable)
        {
            EXPECT_EQ(row.llWant, unwrap.Peek(row.wSeq));
            EXPECT_EQ(row.llWant, unwrap.Take(row.wSeq)) << row.wSeq;
        }
    }
}

TEST(RtpUnwrap, AMillionSequencesInARowStayInARow)
{
    CRtpSeqUnwrap unwrap;
    for (int64_t i = 0; i < 1000000; i++)
        ASSERT_EQ(65536 + 777 + i, unwrap.Take((uint16)(777 + i)));
}

TEST(RtpUnwrap, TimestampsCountFromTheFirstAcrossTheWrap)
{
    CRtpTsUnwrap unwrap;
    EXPECT_EQ(0, unwrap.Take(0xFFFFFF00));
    EXPECT_EQ(0x200, unwrap.Take(0x100));
    EXPECT_EQ(-0x100, unwrap.Take(0xFFFFFE00)); // reordered, from before the first
    EXPECT_EQ(0x80000000ll - 1 + 0x200, unwrap.Take(0x800000FF));
}

TEST(RtpUnwrap, ADayOfTicksIsExactlyADay)
{
    for (uint32 dwClock : {8000u, 11025u, 44100u, 48000u, 90000u})
    {
        EXPECT_EQ(86400ll * 1000000, TicksToUs(86400ll * dwClock, dwClock));
        EXPECT_EQ(-86400ll * 1000000, TicksToUs(-86400ll * dwClock, dwClock));
        EXPECT_EQ(86400ll * 365 * 1000 * 1000000, TicksToUs(86400ll * 365 * 1000 * dwClock, dwClock));
    }
    EXPECT_EQ(11, TicksToUs(1, 90000));
    EXPECT_EQ(-12, TicksToUs(-1, 90000)); // towards the past, so that steps stay even around 0
}

TEST(RtpDownlink, EachMissingPacketKeepsANumberThatItUsesWhenItComesLate)
{
    CRtpDownlink downlink;
    CRtpDownlink::CLane lane;
    std::vector<uint32> vecGot;
    for (uint16 wSeq : {65534, 65535, 2, 1, 3, 3, 0})
        vecGot.push_back(downlink.Number(lane, wSeq));
    EXPECT_THAT(vecGot, ElementsAre(2, 3, 6, 5, 7, 7, 4));
}

TEST(RtpDownlink, LanesShareOneNumberingAndLeaveOutOnlyWhatIsLost)
{
    CRtpDownlink downlink;
    CRtpDownlink::CLane audio;
    CRtpDownlink::CLane video;
    EXPECT_EQ(2u, downlink.Number(audio, 10));
    EXPECT_EQ(3u, downlink.Number(video, 500));
    EXPECT_EQ(5u, downlink.Number(audio, 12)); // 11 has 4
    EXPECT_EQ(6u, downlink.Number(video, 501));
    EXPECT_EQ(4u, downlink.Number(audio, 11));
    EXPECT_EQ(7u, downlink.Number(video, 502));
}

TEST(RtpDownlink, APacketFromBeforeTheFirstIsNotLostEither)
{
    CRtpDownlink downlink;
    CRtpDownlink::CLane lane;
    EXPECT_EQ(2u, downlink.Number(lane, 100));
    EXPECT_EQ(3u, downlink.Number(lane, 99));
    EXPECT_EQ(3u, downlink.Number(lane, 99));
    EXPECT_EQ(4u, downlink.Number(lane, 101));
}

TEST(RtpDownlink, ASkippedPacketLeavesNoHole)
{
    CRtpDownlink downlink;
    CRtpDownlink::CLane lane;
    EXPECT_EQ(2u, downlink.Number(lane, 1));
    downlink.Skip(lane, 2);
    EXPECT_EQ(3u, downlink.Number(lane, 3));
    downlink.Skip(lane, 5); // 4 is missing
    EXPECT_EQ(5u, downlink.Number(lane, 6));
    EXPECT_EQ(4u, downlink.Number(lane, 4));
}

TEST(RtpDownlink, AJumpOfASenderThatStartsAnewIsNoLoss)
{
    CRtpDownlink downlink;
    CRtpDownlink::CLane lane;
    EXPECT_EQ(2u, downlink.Number(lane, 0));
    EXPECT_EQ(2u + 3000, downlink.Number(lane, 3000)); // 2999 missing
    EXPECT_EQ(2u + 3001, downlink.Number(lane, 6001)); // one more than a loss can be
}

namespace
{
tagRtpStat StatOf(const std::vector<uint16>& vecSeqs)
{
    CRtpStat stat;
    uint64 ullUs = 0;
    for (uint16 wSeq : vecSeqs)
        stat.OnPacket(ullUs += 20000, wSeq, (uint32)wSeq * 160, 100, 8000);
    return stat.Get();
}
} // namespace

TEST(RtpStat, LossRunsAreCountedAfterLatePacketsFilledTheirPlaces)
{
    //                          1 lost   3 then 2 late       6..8 lost
    const tagRtpStat st = StatOf({65535, 1, 4, 3, 2, 5, 9, 9, 10});
    EXPECT_EQ(9u, st.ullPackets);
    EXPECT_EQ(8u, st.ullUnique);
    EXPECT_EQ(12u, st.ullExpected); // 65535, 0 to 10
    EXPECT_EQ(4u, st.ullLost);      // 0, 6, 7, 8
    EXPECT_EQ(2u, st.ullLossBursts);
    EXPECT_EQ(3u, st.ullLongestBurst);
    EXPECT_EQ(1u, st.ullDuplicates);
    EXPECT_EQ(2u, st.ullReordered);
    EXPECT_EQ(2u, st.dwReorderDepth);
}

TEST(RtpStat, PacketsFromBeforeTheFirstWidenWhatIsExpected)
{
    const tagRtpStat st = StatOf({10, 8, 11});
    EXPECT_EQ(4u, st.ullExpected);
    EXPECT_EQ(1u, st.ullLost);
    EXPECT_EQ(1u, st.ullReordered);
}

TEST(RtpStat, LossIsExactOverManyWraps)
{
    // Every 10th packet is lost, in a row of 500,000.
    CRtpStat stat;
    uint64 ullLost = 0;
    for (uint32 i = 0; i < 500000; i++)
    {
        if (i % 10 == 5)
        {
            ullLost++;
            continue;
        }
        stat.OnPacket(i * 20000ull, (uint16)i, i * 160, 100, 8000);
    }
    const tagRtpStat st = stat.Get();
    EXPECT_EQ(ullLost, st.ullLost);
    EXPECT_EQ(ullLost, st.ullLossBursts);
    EXPECT_EQ(1u, st.ullLongestBurst);
    EXPECT_EQ(500000u, st.ullExpected);
    EXPECT_EQ(0u, st.ullDuplicates);
    EXPECT_DOUBLE_EQ(0, st.dJitterMaxMs);
}

TEST(RtpStat, JitterAndDelayFollowTheArrivals)
{
    // Every second packet is 16 ms late: |D| is 16 ms for each, J goes there by a sixteenth of the rest.
    CRtpStat stat;
    double dJitter = 0;
    for (uint32 i = 0; i < 100; i++)
    {
        stat.OnPacket(1000000 + i * 20000ull + (i % 2) * 16000, (uint16)i, i * 160, 100, 8000);
        if (i > 0)
            dJitter += (16 - dJitter) / 16;
    }
    const tagRtpStat st = stat.Get();
    EXPECT_NEAR(dJitter, st.dJitterMs, 1e-9);
    EXPECT_NEAR(dJitter, st.dJitterMaxMs, 1e-9);
    EXPECT_EQ(16u, st.dwDelayP50Ms);
    EXPECT_EQ(16u, st.dwDelayMaxMs);
    EXPECT_EQ(36000u, st.ullLongestGapUs);
    EXPECT_EQ(100u, st.ullFrames);
}

TEST(RtpUnwrap, StepsOf32BitsGoTheShortWayAndHalfWayIsBack)
{
    EXPECT_EQ(1, Step32(0xFFFFFFFF, 0));
    EXPECT_EQ(-1, Step32(0, 0xFFFFFFFF));
    EXPECT_EQ(0x7FFFFFFF, Step32(5, 0x80000004));
    EXPECT_EQ(INT32_MIN, Step32(5, 0x80000005));
    EXPECT_EQ(0, Step32(7, 7));
    EXPECT_EQ(4u, Add32(0xFFFFFFFE, 6));
    EXPECT_EQ(0xFFFFFFFEu, Add32(4, -6));
    EXPECT_EQ(4u, Add32(4, 0x300000000));
}
