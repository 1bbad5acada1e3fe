#include "RtpFrames.h"

#include <gmock/gmock.h>

#include "RtpMaker.h"

using testing::ElementsAre;

namespace
{
const Bytes c_aud = {0x09, 0x10};
const Bytes c_sps = {0x67, 66, 0xC0, 30};
const Bytes c_idr = {0x65, 0x88, 1, 2};
const Bytes c_p = {0x41, 0x9A, 1, 2};
const Bytes c_pStart = {0x5C, 0x81, 1, 2};
const Bytes c_pMiddle = {0x5C, 0x01, 1, 2};
const Bytes c_pEnd = {0x5C, 0x41, 1, 2};

// Frames of H.264 every 40 ms; a packet's place on the wire can be changed before the call is played.
struct tagPacket
{
    uint16 wSeq;
    int nFrame;
    bool bMarker;
    Bytes payload;
};

std::vector<tagRtpMedia> PlayPackets(const std::vector<tagPacket>& vecPackets, bool bLive = false,
                                     uint8 cPt = 96)
{
    CCall call;
    uint64 ullMs = 1000;
    for (const tagPacket& st : vecPackets)
    {
        tagMake stMake;
        stMake.cPt = cPt;
        stMake.wSeq = st.wSeq;
        stMake.dwTs = 5000 + (uint32)st.nFrame * 3600;
        stMake.bMarker = st.bMarker;
        stMake.payload = st.payload;
        call.Add(ullMs, MakeRtp(stMake));
        ullMs += 10;
    }
    tagRtpOptions stOptions = MappedOptions();
    stOptions.bLive = bLive;
    CRtpIntake intake(stOptions);
    return call.Play(intake, !bLive);
}

// "type gop.frame index/count" of each packet.
std::vector<std::string> Heads(const std::vector<tagRtpMedia>& vec)
{
    std::vector<std::string> vecOut;
    for (const tagRtpMedia& st : vec)
    {
        EXPECT_LT(st.stHead.cPkgIndex, st.stHead.cTotalPkgCount + st.stHead.cFecPkgCount);
        vecOut.push_back((st.stHead.cFrmType == def_FrameType_I ? "I " : "P ") +
                         std::to_string(st.stHead.cGopIndex) + "." + std::to_string(st.stHead.cFrameIndex) +
                         " " + std::to_string(st.stHead.cPkgIndex) + "/" +
                         std::to_string(st.stHead.cTotalPkgCount));
    }
    return vecOut;
}
} // namespace

TEST(RtpFrames, FramesAndGopsAreCountedFromKeyFrameToKeyFrame)
{
    const auto vec = PlayPackets({{10, 0, false, c_sps},
                                  {11, 0, true, c_idr},
                                  {12, 1, true, c_p},
                                  {13, 2, false, c_pStart},
                                  {14, 2, false, c_pMiddle},
                                  {15, 2, true, c_pEnd},
                                  {16, 3, true, c_idr},
                                  {17, 4, true, c_p}});
    EXPECT_THAT(Heads(vec), ElementsAre("I 0.0 0/2", "I 0.0 1/2", "P 0.1 0/1", "P 0.2 0/3", "P 0.2 1/3",
                                        "P 0.2 2/3", "I 1.0 0/1", "P 1.1 0/1"));
}

TEST(RtpFrames, TheFirstPacketOfAKeyFrameIsOneEvenWhenItDoesNotShowIt)
{
    const auto vec =
        PlayPackets({{10, 0, true, c_p}, {11, 1, false, c_aud}, {12, 1, false, c_sps}, {13, 1, true, c_idr}});
    EXPECT_THAT(Heads(vec), ElementsAre("P 0.0 0/1", "I 1.0 0/3", "I 1.0 1/3", "I 1.0 2/3"));
}

TEST(RtpFrames, LiveHoldsAnUndecidedPacketOnlyForTheNextOfItsFrame)
{
    CRtpIntake intake(
        []
        {
            tagRtpOptions stOptions = MappedOptions();
            stOptions.bLive = true;
            return stOptions;
        }());
    CCall call;
    tagMake stMake;
    stMake.cPt = 96;
    stMake.payload = c_aud;
    call.Add(1000, MakeRtp(stMake));
    stMake.wSeq = 1;
    stMake.payload = c_idr;
    stMake.bMarker = true;
    call.Add(1004, MakeRtp(stMake));
    tagRtpMedia stMedia;
    intake.Push(call.Datagram(0));
    EXPECT_FALSE(intake.Pop(stMedia));
    intake.Push(call.Datagram(1));
    ASSERT_TRUE(intake.Pop(stMedia));
    EXPECT_EQ(def_FrameType_I, stMedia.stHead.cFrmType);
    ASSERT_TRUE(intake.Pop(stMedia));

    stMake.wSeq = 2;
    stMake.dwTs = 3600;
    stMake.payload = c_aud;
    call.Add(1040, MakeRtp(stMake));
    intake.Push(call.Datagram(2));
    intake.Advance(1044999);
    EXPECT_FALSE(intake.Pop(stMedia));
    intake.Advance(1045000);
    EXPECT_TRUE(intake.Pop(stMedia));
}

TEST(RtpFrames, LiveCountsOneMoreThanSeenUntilTheMarker)
{
    const auto vec = PlayPackets(
        {{10, 0, true, c_idr}, {11, 1, false, c_pStart}, {12, 1, false, c_pMiddle}, {13, 1, true, c_pEnd}},
        true);
    EXPECT_THAT(Heads(vec), ElementsAre("I 0.0 0/1", "P 0.1 0/2", "P 0.1 1/3", "P 0.1 2/3"));
}

TEST(RtpFrames, APacketLostInsideAFrameLeavesAHoleInItsIndices)
{
    const auto vec = PlayPackets({{10, 0, true, c_idr},
                                  {11, 1, false, c_pStart},
                                  {13, 1, false, c_pMiddle},
                                  {14, 1, true, c_pEnd},
                                  {15, 2, true, c_p}});
    EXPECT_THAT(Heads(vec), ElementsAre("I 0.0 0/1", "P 0.1 0/4", "P 0.1 2/4", "P 0.1 3/4", "P 0.2 0/1"));
}

TEST(RtpFrames, ALostMarkerStillEndsItsFrame)
{
    const auto vec = PlayPackets({{10, 0, true, c_idr},
                                  {11, 1, false, c_pStart}, // 12 carried the marker
                                  {13, 2, false, c_pStart},
                                  {14, 2, true, c_pEnd}});
    EXPECT_THAT(Heads(vec), ElementsAre("I 0.0 0/1", "P 0.1 0/2", "P 0.2 0/2", "P 0.2 1/2"));
}

TEST(RtpFrames, ALostFirstPacketCountsInItsFrame)
{
    const auto vec = PlayPackets({{10, 0, true, c_idr}, // 11 opened the next frame
                                  {12, 1, false, c_pMiddle},
                                  {13, 1, true, c_pEnd}});
    EXPECT_THAT(Heads(vec), ElementsAre("I 0.0 0/1", "P 0.1 1/3", "P 0.1 2/3"));
}

TEST(RtpFrames, LossAcrossABorderIsSharedByBothFrames)
{
    const auto vec = PlayPackets({{10, 0, true, c_idr},
                                  {11, 1, false, c_pStart}, // 12 had the marker, 13 the next start
                                  {14, 2, true, c_pEnd}});
    EXPECT_THAT(Heads(vec), ElementsAre("I 0.0 0/1", "P 0.1 0/2", "P 0.2 1/2"));
}

TEST(RtpFrames, LostFramesLeaveHolesNoMoreThanPacketsAreMissing)
{
    const auto vecOne =
        PlayPackets({{10, 0, true, c_idr}, {11, 1, true, c_p}, {13, 3, true, c_p}, {14, 4, true, c_p}});
    EXPECT_THAT(Heads(vecOne), ElementsAre("I 0.0 0/1", "P 0.1 0/1", "P 0.3 0/1", "P 0.4 0/1"));
    // A sender that paused for ten frames lost nothing.
    const auto vecPause = PlayPackets({{10, 0, true, c_idr}, {11, 1, true, c_p}, {12, 12, true, c_p}});
    EXPECT_THAT(Heads(vecPause), ElementsAre("I 0.0 0/1", "P 0.1 0/1", "P 0.2 0/1"));
    // Ten frames' time, but only two packets are missing.
    const auto vecTwo = PlayPackets({{10, 0, true, c_idr}, {11, 1, true, c_p}, {14, 12, true, c_p}});
    EXPECT_THAT(Heads(vecTwo), ElementsAre("I 0.0 0/1", "P 0.1 0/1", "P 0.4 0/1"));
}

TEST(RtpFrames, ReorderedPacketsKeepTheirOrderOfArrivalAndGetTheirTrueNumbers)
{
    const auto vec = PlayPackets({{10, 0, true, c_idr},
                                  {12, 1, true, c_pEnd},
                                  {13, 2, true, c_p},
                                  {11, 1, false, c_pStart},
                                  {15, 4, true, c_idr},
                                  {14, 3, true, c_p}});
    EXPECT_THAT(Each(vec, &tagRtpMedia::wRtpSeq), ElementsAre(10, 12, 13, 11, 15, 14));
    EXPECT_THAT(Heads(vec),
                ElementsAre("I 0.0 0/1", "P 0.1 1/2", "P 0.2 0/1", "P 0.1 0/2", "I 1.0 0/1", "P 0.3 0/1"));
}

TEST(RtpFrames, DuplicatesChangeNothingAndAreNamed)
{
    const auto vec = PlayPackets({{10, 0, true, c_idr},
                                  {11, 1, false, c_pStart},
                                  {11, 1, false, c_pStart},
                                  {12, 1, true, c_pEnd},
                                  {12, 1, true, c_pEnd}});
    EXPECT_THAT(Heads(vec), ElementsAre("I 0.0 0/1", "P 0.1 0/2", "P 0.1 0/2", "P 0.1 1/2", "P 0.1 1/2"));
    EXPECT_THAT(Each(vec, &tagRtpMedia::bDuplicate), ElementsAre(false, false, true, false, true));
}

TEST(RtpFrames, AWrapInTheMiddleOfAFrameIsNoBorder)
{
    const auto vec = PlayPackets({{65534, 0, true, c_idr},
                                  {65535, 1, false, c_pStart},
                                  {0, 1, false, c_pMiddle},
                                  {1, 1, true, c_pEnd}});
    EXPECT_THAT(Heads(vec), ElementsAre("I 0.0 0/1", "P 0.1 0/3", "P 0.1 1/3", "P 0.1 2/3"));
    EXPECT_THAT(Each(vec, &tagRtpMedia::dwSendSeq), ElementsAre(131070u, 131071u, 131072u, 131073u));
}

TEST(RtpFrames, MoreThan255PacketsShareTheLastIndexBelowTheCount)
{
    std::vector<tagPacket> vecPackets;
    for (int i = 0; i < 400; i++)
        vecPackets.push_back({(uint16)i, 0, i == 399, i == 0 ? c_idr : c_pMiddle});
    const auto vec = PlayPackets(vecPackets);
    ASSERT_EQ(400u, vec.size());
    EXPECT_EQ(253, vec[253].stHead.cPkgIndex);
    EXPECT_EQ(254, vec[254].stHead.cPkgIndex);
    EXPECT_EQ(254, vec[399].stHead.cPkgIndex);
    for (const tagRtpMedia& st : vec)
        EXPECT_LT(st.stHead.cPkgIndex, st.stHead.cTotalPkgCount);
}

TEST(RtpFrames, IndicesOfFramesAndGopsWrapAtEightBits)
{
    std::vector<tagPacket> vecPackets;
    for (int i = 0; i < 300; i++)
        vecPackets.push_back({(uint16)i, i, true, i == 0 ? c_idr : c_p});
    for (int i = 300; i < 600; i++)
        vecPackets.push_back({(uint16)i, i, true, c_idr});
    const auto vec = PlayPackets(vecPackets);
    EXPECT_EQ(255, vec[255].stHead.cFrameIndex);
    EXPECT_EQ(0, vec[256].stHead.cFrameIndex);
    EXPECT_EQ(255, vec[554].stHead.cGopIndex);
    EXPECT_EQ(0, vec[555].stHead.cGopIndex);
}

TEST(RtpFrames, ACodecWithoutMarksIsAllPFramesInOneGop)
{
    const auto vec =
        PlayPackets({{10, 0, false, c_idr}, {11, 0, true, c_idr}, {12, 1, true, c_idr}}, false, 98);
    EXPECT_THAT(Heads(vec), ElementsAre("P 0.0 0/2", "P 0.0 1/2", "P 0.1 0/1"));
}

TEST(RtpFrames, ASenderWithoutMarkersEndsAFrameWithTheNextTimestamp)
{
    const auto vec =
        PlayPackets({{10, 0, false, c_idr}, {11, 0, false, c_idr}, {12, 1, false, c_p}, {13, 2, false, c_p}});
    EXPECT_THAT(Heads(vec), ElementsAre("I 0.0 0/2", "I 0.0 1/2", "P 0.1 0/1", "P 0.2 0/1"));
}

TEST(RtpFrames, AStreamThatIsJoinedInAFrameStartsBehindItsMissingHead)
{
    const auto vec = PlayPackets({{10, 0, false, c_pMiddle}, {11, 0, true, c_pEnd}, {12, 1, true, c_p}});
    EXPECT_THAT(Heads(vec), ElementsAre("P 0.0 1/3", "P 0.0 2/3", "P 0.1 0/1"));
}

TEST(RtpFrames, Vp8KeyFramesOpenGops)
{
    const auto vec = PlayPackets({{10, 0, false, {0x10, 0x00, 1}},
                                  {11, 0, true, {0x00, 0x33}},
                                  {12, 1, true, {0x10, 0x01, 1}},
                                  {13, 2, true, {0x90, 0x80, 0x05, 0x00}}},
                                 false, 97);
    EXPECT_THAT(Heads(vec), ElementsAre("I 0.0 0/2", "I 0.0 1/2", "P 0.1 0/1", "I 1.0 0/1"));
}

TEST(RtpFrames, LookAheadEndsAtItsTimeAndAtItsPackets)
{
    // A frame that never ends: its packets wait 1000 ms, or until 512 wait.
    CRtpIntake intake(MappedOptions());
    tagRtpMedia stMedia;
    tagMake stMake;
    stMake.cPt = 96;
    stMake.payload = c_pStart;
    CCall call;
    call.Add(1000, MakeRtp(stMake));
    stMake.wSeq = 1;
    call.Add(1999, MakeRtp(stMake));
    stMake.wSeq = 2;
    call.Add(2000, MakeRtp(stMake));
    intake.Push(call.Datagram(0));
    intake.Push(call.Datagram(1));
    EXPECT_FALSE(intake.Pop(stMedia));
    intake.Push(call.Datagram(2));
    EXPECT_TRUE(intake.Pop(stMedia));
    EXPECT_FALSE(intake.Pop(stMedia));

    CRtpIntake crowd(MappedOptions());
    size_t nOut = 0;
    for (uint32 i = 0; i < 2000; i++)
    {
        stMake.wSeq = (uint16)i;
        const Bytes bytes = MakeRtp(stMake);
        tagRtpDatagram stDatagram = call.Datagram(0);
        stDatagram.pData = bytes.data();
        crowd.Push(stDatagram);
        while (crowd.Pop(stMedia))
            nOut++;
        EXPECT_LE(i + 1 - nOut, 512u);
    }
}

TEST(RtpFrames, MemoryOfFramesIsBounded)
{
    CRtpFrames frames(100);
    tagRtpMark stMark;
    for (int64_t i = 0; i < 100000; i++)
    {
        tagUdtPacketHeadInfo stHead;
        auto pFrame = frames.Add(i * 2, i * 3000, true, stMark, false);
        frames.Number(*pFrame, i * 2, false, stHead);
        ASSERT_LE(frames.Kept(), 100u);
    }
}

TEST(RtpFrames, AnyOrderOfPacketsKeepsTheIndexBelowTheCount)
{
    uint64 ullSeed = 12345;
    const auto Next = [&ullSeed](uint32 dwBelow)
    {
        ullSeed = ullSeed * 6364136223846793005ull + 1442695040888963407ull;
        return (uint32)(ullSeed >> 33) % dwBelow;
    };
    for (int nRun = 0; nRun < 20; nRun++)
    {
        CRtpFrames frames(64);
        for (int i = 0; i < 2000; i++)
        {
            tagRtpMark stMark;
            stMark.bKey = Next(20) == 0;
            stMark.bStart = Next(3) == 0;
            stMark.bContinuation = !stMark.bStart && Next(3) == 0;
            const int64_t llSeq = 70000 + i + (int64_t)Next(400) - 200;
            auto pFrame = frames.Add(llSeq, llSeq / (1 + Next(5)) * 3000, Next(4) == 0, stMark, false);
            tagUdtPacketHeadInfo stHead;
            frames.Number(*pFrame, llSeq, Next(2) == 0, stHead);
            ASSERT_LT(stHead.cPkgIndex, stHead.cTotalPkgCount);
        }
    }
}
