#include "RtpFeedback.h"
#include "RtpPacket.h"

#include <gmock/gmock.h>

#include <algorithm>

namespace
{
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;
using testing::UnorderedElementsAreArray;

// What another end reads out of the datagrams: the tree's own reader, which refuses what is malformed.
struct tagRead
{
    std::vector<tagRtpEvent> vecEvents;
    tagRtpTotals stTotals;

    std::vector<uint16> Nacked(uint32 dwSsrc) const
    {
        std::vector<uint16> vec;
        for (const tagRtpEvent& st : vecEvents)
            if (st.eType == RTP_EVENT_NACK && st.dwMediaSsrc == dwSsrc)
                vec.insert(vec.end(), st.vecRtpSeq.begin(), st.vecRtpSeq.end());
        return vec;
    }
    size_t Count(emRtpEvent eType) const
    {
        return (size_t)std::count_if(vecEvents.begin(), vecEvents.end(),
                                     [eType](const tagRtpEvent& st) { return st.eType == eType; });
    }
};

tagRead ReadAll(const std::vector<std::vector<uint8>>& vecDatagrams)
{
    tagRead stRead;
    CRtcpReader reader;
    for (const auto& vec : vecDatagrams)
        reader.Read(vec.data(), (uint32)vec.size(), stRead.vecEvents, stRead.stTotals);
    for (int i = 0; i < RTP_DROP_COUNT; i++)
        EXPECT_EQ(stRead.stTotals.aDrops[(size_t)i], 0u) << RtpDropText((emRtpDrop)i);
    return stRead;
}

tagRtcpFeedback From(uint32 dwSsrc)
{
    tagRtcpFeedback st;
    st.dwSsrc = dwSsrc;
    st.strCname = "me@here";
    return st;
}

TEST(RtpFeedback, ANackNamesExactlyTheSequencesAcrossTheWrap)
{
    const std::vector<std::vector<uint16>> vecCases = {{5},        {5, 6},     {5, 21},
                                                       {5, 22},    {65535, 0}, {65530, 65535, 3, 9, 100},
                                                       {0, 32768}, {7, 7, 7},  {10, 9, 8}};
    for (const std::vector<uint16>& vecSeqs : vecCases)
    {
        tagRtcpFeedback st = From(0xAABBCCDD);
        st.vecNacks.emplace_back(0x01020304, vecSeqs);
        const tagRead stRead = ReadAll(BuildRtcp(st));
        std::vector<uint16> vecWant = vecSeqs;
        std::sort(vecWant.begin(), vecWant.end());
        vecWant.erase(std::unique(vecWant.begin(), vecWant.end()), vecWant.end());
        EXPECT_THAT(stRead.Nacked(0x01020304), UnorderedElementsAreArray(vecWant));
        EXPECT_EQ(stRead.vecEvents.back().dwSenderSsrc, 0xAABBCCDDu);
    }
}

TEST(RtpFeedback, SixteenFollowersShareAnEntryAlsoAcrossTheWrap)
{
    tagRtcpFeedback st = From(1);
    st.bReducedSize = true;
    st.vecNacks.push_back({2, {65530, 65531, 0, 10}}); // 10 is 16 behind 65530
    EXPECT_THAT(BuildRtcp(st), ElementsAre(SizeIs(16)));
    st.vecNacks[0].second.push_back(11);
    EXPECT_THAT(BuildRtcp(st), ElementsAre(SizeIs(20)));
}

TEST(RtpFeedback, FeedbackHasAReportAndTheNameInFrontUnlessReduced)
{
    tagRtcpFeedback st = From(1);
    st.vecPlis = {9};
    tagRead stRead = ReadAll(BuildRtcp(st));
    EXPECT_EQ(stRead.stTotals.aRtcpTypes[201], 1u);
    EXPECT_EQ(stRead.Count(RTP_EVENT_CNAME), 1u);
    EXPECT_EQ(stRead.Count(RTP_EVENT_PLI), 1u);
    st.bReducedSize = true;
    stRead = ReadAll(BuildRtcp(st));
    EXPECT_EQ(stRead.stTotals.aRtcpTypes[201], 0u);
    EXPECT_EQ(stRead.Count(RTP_EVENT_CNAME), 0u);
    EXPECT_EQ(stRead.Count(RTP_EVENT_PLI), 1u);
}

TEST(RtpFeedback, ABurstOfLossesBecomesDatagramsThatFitThePath)
{
    tagRtcpFeedback st = From(1);
    std::vector<uint16> vecSeqs;
    for (uint32 i = 0; i < 2000; i++)
        vecSeqs.push_back((uint16)(i * 20)); // none shares an entry with another
    st.vecNacks.emplace_back(5, vecSeqs);
    for (uint32 i = 0; i < 70; i++)
    {
        tagRtpReportBlock stBlock;
        stBlock.dwSsrc = 100 + i;
        st.vecBlocks.push_back(stBlock);
    }
    const auto vecDatagrams = BuildRtcp(st);
    for (const auto& vec : vecDatagrams)
        EXPECT_LE(vec.size(), 1400u);
    const tagRead stRead = ReadAll(vecDatagrams);
    EXPECT_THAT(stRead.Nacked(5), UnorderedElementsAreArray(vecSeqs));
    EXPECT_EQ(stRead.Count(RTP_EVENT_RR), 70u);
}

TEST(RtpFeedback, AReportBlockSaysWhatTheRfcAsksFor)
{
    CRtpReportSource source;
    // 65534 .. 65535, 0 .. 7 with 1 and 2 missing, 3 twice: 10 expected, 9 received.
    uint64 ullUs = 1000000;
    for (uint16 wSeq : {65534, 65535, 0, 3, 3, 4, 5, 6, 7})
    {
        source.OnPacket(wSeq, 0, ullUs, 0);
        ullUs += 20000;
    }
    source.OnSenderReport(0x1122334455667788ull, 2000000);
    const tagRtpReportBlock st = source.Report(42, 2500000);
    EXPECT_EQ(st.dwSsrc, 42u);
    EXPECT_EQ(st.dwHighSeq, 0x10007u);
    EXPECT_EQ(st.nLost, 1);
    EXPECT_EQ(st.cFraction, 1 * 256 / 10);
    EXPECT_EQ(st.dwLsr, 0x33445566u);
    EXPECT_EQ(st.dwDlsr, 32768u);

    tagRtcpFeedback stFeedback = From(1);
    stFeedback.vecBlocks = {st};
    const tagRead stRead = ReadAll(BuildRtcp(stFeedback));
    ASSERT_EQ(stRead.Count(RTP_EVENT_RR), 1u);
    const tagRtpEvent& stEvent = stRead.vecEvents.front();
    EXPECT_EQ(stEvent.dwMediaSsrc, 42u);
    EXPECT_EQ(stEvent.nLost, 1);
    EXPECT_EQ(stEvent.cFraction, 25);
    EXPECT_EQ(stEvent.dwHighSeq, 0x10007u);
    EXPECT_EQ(stEvent.dwLsr, 0x33445566u);
    EXPECT_EQ(stEvent.dwDlsr, 32768u);
}

TEST(RtpFeedback, TheFractionCountsFromTheReportBeforeAndRepairsCannotMakeItNegative)
{
    CRtpReportSource source;
    for (uint16 wSeq : {10, 11, 14})
        source.OnPacket(wSeq, 0, 0, 0);
    EXPECT_TRUE(source.IsActive());
    EXPECT_EQ(source.Report(1, 0).cFraction, 2 * 256 / 5);
    EXPECT_FALSE(source.IsActive());
    for (uint16 wSeq : {12, 13, 15})
        source.OnPacket(wSeq, 0, 0, 0);
    const tagRtpReportBlock st = source.Report(1, 0);
    EXPECT_EQ(st.cFraction, 0);
    EXPECT_EQ(st.nLost, 0);
}

TEST(RtpFeedback, JitterIsThatOfTheRfcAlsoAcrossTheTimestampsWrap)
{
    CRtpReportSource source;
    // Every packet 20 ms after the one before, its timestamp by 160 of 8000 Hz, every second one 4 ms late.
    uint32 dwTs = 0xFFFFFF00;
    double dJitter = 0;
    for (int i = 0; i < 200; i++, dwTs += 160)
    {
        source.OnPacket((uint16)i, dwTs, 1000000 + (uint64)i * 20000 + (i % 2) * 4000, 8000);
        if (i > 0)
            dJitter += (32 - dJitter) / 16;
    }
    EXPECT_NEAR(source.Report(1, 0).dwJitter, dJitter, 1.0);
}

TEST(RtpFeedback, ABlockOfASenderThatJumpedBeginsAnew)
{
    CRtpReportSource source;
    source.OnPacket(100, 0, 0, 0);
    source.OnPacket(20100, 0, 0, 0);
    const tagRtpReportBlock st = source.Report(1, 0);
    EXPECT_EQ(st.nLost, 0);
    EXPECT_EQ(st.dwHighSeq, 20100u);
}

TEST(RtpFeedback, WhoADatagramIsFromIsItsFirstPartsSsrcWhereItIsLongEnough)
{
    const uint8 aBytes[] = {0x80, 201, 0, 1, 0x12, 0x34, 0x56, 0x78};
    uint32 dwSsrc = 0;
    for (uint32 dwLen = 0; dwLen < sizeof(aBytes); dwLen++)
        EXPECT_FALSE(RtcpSender(aBytes, dwLen, dwSsrc)) << dwLen;
    ASSERT_TRUE(RtcpSender(aBytes, sizeof(aBytes), dwSsrc));
    EXPECT_EQ(dwSsrc, 0x12345678u);
}

TEST(RtpFeedback, TheRoundTripIsReadFromTheBlockAboutUs)
{
    // XR of SSRC 9 with a receiver reference time and a DLRR of two sub-blocks.
    const std::vector<uint8> vec = {0x80, 201, 0, 1,  0, 0, 0,   9,                   // RR without blocks
                                    0x80, 207, 0, 11, 0, 0, 0,   9,                   // XR
                                    4,    0,   0, 2,  0, 0, 0,   1,   0,   0,   0, 2, // reference time
                                    5,    0,   0, 6,  0, 0, 0,   7,   1,   1,   1, 1, 2, 2,
                                    2,    2,   0, 0,  0, 8, 0xA, 0xB, 0xC, 0xD, 0, 1, 0, 0};
    uint32 dwLrr = 0;
    uint32 dwDlrr = 0;
    ASSERT_TRUE(FindDlrr(vec.data(), (uint32)vec.size(), 8, dwLrr, dwDlrr));
    EXPECT_EQ(dwLrr, 0x0A0B0C0Du);
    EXPECT_EQ(dwDlrr, 65536u);
    EXPECT_EQ(NtpSpanToUs(dwDlrr), 1000000u);
    EXPECT_FALSE(FindDlrr(vec.data(), (uint32)vec.size(), 6, dwLrr, dwDlrr));
    for (size_t nCut = 0; nCut < vec.size(); nCut++)
        EXPECT_FALSE(FindDlrr(vec.data(), (uint32)nCut, 8, dwLrr, dwDlrr));
}

TEST(RtpFeedback, OurReferenceTimeHasTheLengthsOfTheRfc)
{
    tagRtcpFeedback st = From(0x01020304);
    st.bReferenceTime = true;
    st.ullNtp = UnixUsToNtp(1500000);
    EXPECT_EQ(st.ullNtp, (2208988801ull << 32) + 0x80000000ull);
    const auto vecDatagrams = BuildRtcp(st);
    ASSERT_THAT(vecDatagrams, SizeIs(1));
    const std::vector<uint8> vecTail(vecDatagrams[0].end() - 20, vecDatagrams[0].end());
    EXPECT_THAT(vecTail,
                ElementsAre(0x80, 207, 0, 4, 1, 2, 3, 4, 4, 0, 0, 2, 0x83, 0xAA, 0x7E, 0x81, 0x80, 0, 0, 0));
}

TEST(RtpFeedback, AByeEndsTheLastDatagram)
{
    tagRtcpFeedback st = From(7);
    st.bBye = true;
    const tagRead stRead = ReadAll(BuildRtcp(st));
    EXPECT_EQ(stRead.Count(RTP_EVENT_BYE), 1u);
    EXPECT_EQ(stRead.vecEvents.back().dwSenderSsrc, 7u);
}

TEST(RtpFeedback, NothingToSayIsStillAReportAndAName)
{
    const tagRead stRead = ReadAll(BuildRtcp(From(7)));
    EXPECT_EQ(stRead.stTotals.aRtcpTypes[201], 1u);
    EXPECT_EQ(stRead.Count(RTP_EVENT_CNAME), 1u);
    EXPECT_THAT(stRead.Nacked(0), IsEmpty());
}
} // namespace
