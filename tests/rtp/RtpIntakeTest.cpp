#include "RtpIntake.h"

#include <gmock/gmock.h>

#include "RtpMaker.h"

using testing::ElementsAre;
using testing::HasSubstr;

namespace
{
// Adds nCount audio packets of 20 ms.
void AddAudio(CCall& call, uint32 dwSsrc, uint64 ullMs, int nCount, uint16 wSeq = 100, uint32 dwTs = 7000,
              uint8 cPt = 0)
{
    for (int i = 0; i < nCount; i++)
    {
        tagMake st;
        st.cPt = cPt;
        st.dwSsrc = dwSsrc;
        st.wSeq = (uint16)(wSeq + i);
        st.dwTs = dwTs + (uint32)i * (cPt == 111 ? 960 : 160);
        call.Add(ullMs + (uint64)i * 20, MakeRtp(st));
    }
}

void AddVideo(CCall& call, uint32 dwSsrc, uint64 ullMs, int nCount, uint16 wSeq = 500, uint32 dwTs = 90000)
{
    for (int i = 0; i < nCount; i++)
    {
        tagMake st;
        st.cPt = 96;
        st.dwSsrc = dwSsrc;
        st.wSeq = (uint16)(wSeq + i);
        st.dwTs = dwTs + (uint32)i * 3600;
        st.bMarker = true;
        st.payload = {(uint8)(i == 0 ? 0x65 : 0x41), 0x9A, 1, 2};
        call.Add(ullMs + (uint64)i * 40, MakeRtp(st));
    }
}

const tagRtpMedia* FirstOf(const std::vector<tagRtpMedia>& vec, uint32 dwSsrc)
{
    for (const tagRtpMedia& st : vec)
    {
        if (st.dwSsrc == dwSsrc)
            return &st;
    }
    return nullptr;
}

uint64 Dropped(const CRtpIntake& intake, emRtpDrop eReason) { return intake.Totals().aDrops[eReason]; }
} // namespace

TEST(RtpIntake, AnAudioPacketCarriesAllThatTheReceiverWants)
{
    CCall call;
    AddAudio(call, 0xABCD, 5000, 3);
    CRtpIntake intake;
    const auto vec = call.Play(intake);
    ASSERT_EQ(3u, vec.size());
    const tagRtpMedia& st = vec[1];
    EXPECT_EQ(65536u + 101, st.dwSendSeq);
    EXPECT_EQ(0xABCDu, st.llAccount);
    EXPECT_EQ(3u, st.dwSeq);
    EXPECT_EQ(100020u, st.stHead.uTimeStamp);
    EXPECT_EQ((uint16)100020u, st.wTimeStamp);
    EXPECT_EQ(MEAVAudio, st.cSubType);
    EXPECT_EQ(MEAVAudio, st.stHead.cSubType);
    EXPECT_EQ(12, st.stHead.cHeadLen);
    EXPECT_EQ(0, st.stHead.cPkgIndex);
    EXPECT_EQ(1, st.stHead.cTotalPkgCount);
    EXPECT_EQ(20, st.wLen);
    EXPECT_EQ(5020000u, st.ullArrivalUs);
    EXPECT_EQ(101, st.wRtpSeq);
    EXPECT_EQ(7160u, st.dwRtpTs);
    EXPECT_EQ(32u, st.vecRtp.size());
    EXPECT_EQ(12, st.wHeadLen);
    EXPECT_EQ(32u, st.dwWireLen);
    EXPECT_EQ(Addr(1, 4000), st.stSrc);
    EXPECT_FALSE(st.bByRtx);
}

TEST(RtpIntake, ACnameMakesOneUserOfAudioAndVideoEvenWhenItComesLast)
{
    CCall call;
    AddAudio(call, 1, 1000, 10);
    AddVideo(call, 2, 1000, 5);
    AddAudio(call, 3, 1000, 5);
    call.Add(2000, MakeRr(1, 9) + MakeSdes(1, "ann@host"));
    call.Add(2000, MakeRr(2, 9) + MakeSdes(2, "ann@host"));
    CRtpIntake intake(MappedOptions());
    const auto vec = call.Play(intake);
    EXPECT_EQ(RtpAccountOfCname("ann@host"), FirstOf(vec, 1)->llAccount);
    EXPECT_EQ(RtpAccountOfCname("ann@host"), FirstOf(vec, 2)->llAccount);
    EXPECT_EQ(3u, FirstOf(vec, 3)->llAccount);
    EXPECT_EQ(MEAVAudio, FirstOf(vec, 1)->cSubType);
    EXPECT_EQ(MEAVMaxVideo, FirstOf(vec, 2)->cSubType);
}

TEST(RtpIntake, TheAccountOfACnameIsFnv1aAndNever0)
{
    EXPECT_EQ(0xCBF29CE484222325ull, RtpAccountOfCname(""));
    EXPECT_EQ(0xAF63DC4C8601EC8Cull, RtpAccountOfCname("a"));
    EXPECT_EQ(0x85944171F73967E8ull, RtpAccountOfCname("foobar"));
}

TEST(RtpIntake, StreamsOfOneUserNeverShareAReceiverStream)
{
    CCall call;
    for (uint32 dwSsrc : {1u, 2u, 3u, 4u})
    {
        AddVideo(call, dwSsrc, 1000 + dwSsrc, 3);
        call.Add(2000, MakeRr(dwSsrc, 9) + MakeSdes(dwSsrc, "x"));
    }
    for (uint32 dwSsrc : {11u, 12u})
    {
        AddAudio(call, dwSsrc, 1000 + dwSsrc, 3);
        call.Add(2000, MakeRr(dwSsrc, 9) + MakeSdes(dwSsrc, "x"));
    }
    CRtpIntake intake(MappedOptions());
    const auto vec = call.Play(intake);
    const uint64 llUser = RtpAccountOfCname("x");
    const auto Key = [&vec](uint32 dwSsrc)
    { return std::make_pair(FirstOf(vec, dwSsrc)->llAccount, (int)FirstOf(vec, dwSsrc)->cSubType); };
    EXPECT_EQ(std::make_pair(llUser, (int)MEAVMaxVideo), Key(1));
    EXPECT_EQ(std::make_pair(llUser, (int)MEAVSubVideo), Key(2));
    EXPECT_EQ(std::make_pair(llUser, (int)MEAVMinVideo), Key(3));
    EXPECT_EQ(std::make_pair(uint64{4}, (int)MEAVMaxVideo), Key(4));
    EXPECT_EQ(std::make_pair(llUser, (int)MEAVAudio), Key(11));
    EXPECT_EQ(std::make_pair(uint64{12}, (int)MEAVAudio), Key(12));
}

TEST(RtpIntake, OneSsrcToTwoPlacesIsTwoStreams)
{
    CCall call;
    for (int i = 0; i < 6; i++)
    {
        tagMake st;
        st.dwSsrc = 0; // a phone that does not bother
        st.wSeq = (uint16)(i / 2 + (i % 2) * 1000);
        st.dwTs = (uint32)i * 80;
        call.Add(1000 + (uint64)i * 10, MakeRtp(st));
        if (i % 2 == 1)
            call.To(Addr(3, 6000));
    }
    CRtpIntake intake;
    const auto vec = call.Play(intake);
    ASSERT_EQ(2u, intake.StreamCount());
    EXPECT_EQ(0u, intake.Stream(0).stStat.ullLost);
    EXPECT_EQ(0u, intake.Stream(1).stStat.ullLost);
    EXPECT_NE(0u, intake.Stream(0).llAccount);
    EXPECT_NE(0u, intake.Stream(1).llAccount);
    EXPECT_NE(intake.Stream(0).llAccount, intake.Stream(1).llAccount);
    EXPECT_EQ(6u, vec.size());
}

// Audio is sampled at 10.000 s of the sender's clock, video 250 ms later; video arrives 40 ms after audio.
//
//   arrival   1000 audio   1040 video
//   sampled  10000 audio  10250 video
TEST(RtpIntake, SenderReportsPlaceAUsersStreamsByWhenTheyWereSampled)
{
    CCall call;
    AddAudio(call, 1, 1000, 30, 100, 7000);
    AddVideo(call, 2, 1040, 10, 500, 90000);
    // Reports of 1 s later: 10 s + 1 s, and 10.25 s + 1 s.
    call.Add(2000, MakeSr(1, 11, 0, 7000 + 8000) + MakeSdes(1, "u"));
    call.Add(2000, MakeSr(2, 11, 0x40000000, 90000 + 90000) + MakeSdes(2, "u"));
    CRtpIntake intake(MappedOptions());
    const auto vec = call.Play(intake);
    EXPECT_EQ(100000u, FirstOf(vec, 1)->stHead.uTimeStamp);
    EXPECT_EQ(100250u, FirstOf(vec, 2)->stHead.uTimeStamp);
    EXPECT_TRUE(intake.Stream(0).bPlacedBySr);
    EXPECT_TRUE(intake.Stream(1).bPlacedBySr);
}

TEST(RtpIntake, WithoutReportsOfBothStreamsTheyArePlacedByArrival)
{
    for (int nCase = 0; nCase < 3; nCase++)
    {
        CCall call;
        AddAudio(call, 1, 1000, 30);
        AddVideo(call, 2, 1040, 10);
        // one report missing; one without a wall clock; one from another clock, an hour away
        call.Add(2000, MakeSr(1, 11, 0, 15000) + MakeSdes(1, "u"));
        if (nCase == 0)
            call.Add(2000, MakeRr(2, 1) + MakeSdes(2, "u"));
        else
            call.Add(2000, MakeSr(2, nCase == 1 ? 0 : 3611, 0, 180000) + MakeSdes(2, "u"));
        CRtpIntake intake(MappedOptions());
        const auto vec = call.Play(intake);
        EXPECT_EQ(100000u, FirstOf(vec, 1)->stHead.uTimeStamp) << nCase;
        EXPECT_EQ(100040u, FirstOf(vec, 2)->stHead.uTimeStamp) << nCase;
        EXPECT_FALSE(intake.Stream(1).bPlacedBySr) << nCase;
    }
}

TEST(RtpIntake, MediaFromBeforeAUsersFirstPacketHasATimeBelowItsBase)
{
    CCall call;
    AddAudio(call, 1, 1000, 3, 100, 7000);
    tagMake st;
    st.wSeq = 99;
    st.dwTs = 7000 - 160;
    call.Add(1010, MakeRtp(st));
    CRtpIntake intake;
    const auto vec = call.Play(intake);
    EXPECT_EQ(99980u, vec[3].stHead.uTimeStamp);
    EXPECT_EQ(65536u + 99, vec[3].dwSendSeq);
}

TEST(RtpIntake, ADayOf44100HzEndsOnTheMillisecond)
{
    CRtpIntake intake(
        []
        {
            tagRtpOptions stOptions;
            std::string strError;
            ParseRtpMap("100=L16/44100", stOptions.mapFormats, strError);
            return stOptions;
        }());
    CCall call;
    tagMake st;
    st.cPt = 100;
    for (uint32 i = 0; i <= 1440; i++) // a packet a minute, across the timestamp's wrap at 27 h
    {
        st.wSeq = (uint16)i;
        st.dwTs = 0xF0000000 + i * 44100 * 60;
        call.Add(1000 + (uint64)i * 60000, MakeRtp(st));
    }
    const auto vec = call.Play(intake);
    for (uint32 i = 0; i <= 1440; i++)
        ASSERT_EQ(100000 + i * 60000, vec[i].stHead.uTimeStamp);
}

TEST(RtpIntake, RtxAnswersComeBackAsTheirOriginals)
{
    // 102 and 105 are lost and come by RTX; 103 is asked for needlessly; the last RTX packet is padding alone.
    CCall call;
    uint32 dwRtx = 0;
    const auto AddRtx = [&](uint64 ullMs, int nOriginal, uint32 dwPadding)
    {
        tagMake st;
        st.cPt = 99;
        st.dwSsrc = 0xEE;
        st.wSeq = (uint16)(9000 + dwRtx++);
        st.dwTs = 90000 + (uint32)(nOriginal - 100) * 3600;
        st.bMarker = true;
        st.dwPadding = dwPadding;
        st.payload = {};
        if (nOriginal > 0)
            st.payload = {(uint8)(nOriginal >> 8), (uint8)nOriginal, 0x41, 0x9A, (uint8)nOriginal};
        call.Add(ullMs, MakeRtp(st));
    };
    for (int i = 0; i < 10; i++)
    {
        tagMake st;
        st.cPt = 96;
        st.dwSsrc = 0xAA;
        st.wSeq = (uint16)(100 + i);
        st.dwTs = 90000 + (uint32)i * 3600;
        st.bMarker = true;
        st.payload = {0x41, 0x9A, (uint8)(100 + i)};
        if (i != 2 && i != 5)
            call.Add(1000 + (uint64)i * 40, MakeRtp(st));
        if (i == 4)
            AddRtx(1165, 102, 0);
        if (i == 7)
        {
            AddRtx(1285, 105, 4);
            AddRtx(1286, 103, 0);
            AddRtx(1287, 0, 8);
        }
    }
    for (bool bMapped : {true, false}) // by the user's map, and learned
    {
        CRtpIntake intake(bMapped ? MappedOptions() : tagRtpOptions());
        const auto vec = call.Play(intake);
        ASSERT_EQ(11u, vec.size()) << bMapped;
        const tagRtpMedia* pRepaired = nullptr;
        for (const tagRtpMedia& st : vec)
        {
            EXPECT_EQ(0xAAu, st.dwSsrc);
            EXPECT_EQ(96, st.cPt);
            EXPECT_EQ(st.bByRtx && st.wRtpSeq == 103, st.bDuplicate);
            EXPECT_EQ((uint8)st.wRtpSeq, st.vecRtp.back());
            EXPECT_EQ(3, st.wLen);
            EXPECT_EQ(15u, st.vecRtp.size());
            EXPECT_EQ(15u, st.dwWireLen);
            if (st.wRtpSeq == 105)
                pRepaired = &st;
        }
        ASSERT_NE(nullptr, pRepaired);
        EXPECT_TRUE(pRepaired->bByRtx);
        EXPECT_EQ(65536u + 105, pRepaired->dwSendSeq);
        EXPECT_EQ(1285000u, pRepaired->ullArrivalUs);
        tagMake stWant;
        stWant.cPt = 96;
        stWant.dwSsrc = 0xAA;
        stWant.wSeq = 105;
        stWant.dwTs = 90000 + 5 * 3600;
        stWant.bMarker = true;
        stWant.payload = {0x41, 0x9A, 105};
        EXPECT_EQ(MakeRtp(stWant), pRepaired->vecRtp);

        ASSERT_EQ(2u, intake.StreamCount());
        EXPECT_EQ(2u, intake.Stream(0).stStat.ullLost); // of the capture, repaired or not
        EXPECT_EQ(3u, intake.Stream(0).ullRtxPackets);
        EXPECT_EQ(2u, intake.Stream(0).ullRtxRepaired);
        EXPECT_EQ(0, intake.Stream(1).nRtxOf);
        EXPECT_EQ(4u, intake.Stream(1).stStat.ullPackets);
        EXPECT_EQ(0u, intake.Stream(1).llAccount);
        EXPECT_EQ(90000u, intake.Stream(1).stFormat.dwClock);
        EXPECT_EQ(1u, Dropped(intake, RTP_DROP_RTX_PADDING));
        // Two are lost, none of what came is: 14 datagrams less the padding, in numbers from 2 to 14.
        uint32 dwHighest = 0;
        for (const tagRtpMedia& st : vec)
            dwHighest = std::max(dwHighest, st.dwSeq);
        EXPECT_EQ(14u, dwHighest);
    }
}

TEST(RtpIntake, RtxOfAStreamThatNobodyKnowsIsCountedAndSkipped)
{
    CCall call;
    AddAudio(call, 1, 1000, 3, 100, 7000, 99);
    CRtpIntake intake(MappedOptions());
    EXPECT_TRUE(call.Play(intake).empty());
    EXPECT_EQ(3u, Dropped(intake, RTP_DROP_RTX_UNKNOWN));
}

TEST(RtpIntake, TheTransportSequenceNumbersTheDownlinkOfAllItsStreams)
{
    for (bool bDetect : {false, true})
    {
        CCall call;
        uint16 wTransport = 65500;
        for (int i = 0; i < 100; i++, wTransport++)
        {
            tagMake st;
            st.dwSsrc = 1 + (uint32)(i % 2);
            st.wSeq = (uint16)(i / 2);
            st.dwTs = (uint32)(i / 2) * 160;
            st.nTransportSeq = wTransport;
            if (i != 7 && i != 70 && i != 71)
                call.Add(1000 + (uint64)i * 10, MakeRtp(st));
        }
        tagRtpOptions stOptions;
        stOptions.nTransportSeqId = bDetect ? -1 : 5;
        CRtpIntake intake(stOptions);
        const auto vec = call.Play(intake);
        ASSERT_EQ(97u, vec.size());
        EXPECT_EQ(2u, vec[0].dwSeq);
        EXPECT_EQ(8u, vec[6].dwSeq);
        EXPECT_EQ(10u, vec[7].dwSeq); // 9 is lost
        EXPECT_EQ(101u, vec[96].dwSeq);
        EXPECT_EQ(bDetect, !intake.Guesses().empty());
        if (bDetect)
        {
            EXPECT_THAT(intake.Guesses()[0], HasSubstr("extension id 5"));
        }
    }
}

TEST(RtpIntake, TheCountOfACaptureLeavesOutWhatIsKnownLost)
{
    CCall call;
    for (int i = 0; i < 8; i++)
    {
        for (uint32 dwSsrc : {1u, 2u})
        {
            tagMake st;
            st.dwSsrc = dwSsrc;
            st.wSeq = (uint16)(65533 + i);
            st.dwTs = (uint32)i * 160;
            if (!(dwSsrc == 1 && i == 3) && !(dwSsrc == 2 && i == 6))
                call.Add(1000 + (uint64)i * 20, MakeRtp(st));
        }
    }
    CRtpIntake intake;
    const auto vec = call.Play(intake);
    EXPECT_THAT(Each(vec, &tagRtpMedia::dwSeq), ElementsAre(2, 3, 4, 5, 6, 7, 8, 10, 11, 12, 13, 14, 15, 17));
}

TEST(RtpIntake, NacksAndPlisAreHandedOutWithTimesAndUnwrappedSequences)
{
    CCall call;
    AddAudio(call, 1, 1000, 4, 65534);
    call.Add(1090, MakeRr(9, 1) + MakeNack(9, 1, {{65533, 0x8001}, {1, 0}}));
    call.Add(1095, MakePli(9, 1) + MakeBye(1));
    CRtpIntake intake;
    call.Play(intake);
    std::vector<tagRtpEvent> vec;
    tagRtpEvent stEvent;
    while (intake.PopEvent(stEvent))
        vec.push_back(stEvent);
    ASSERT_EQ(4u, vec.size());
    EXPECT_EQ(RTP_EVENT_RR, vec[0].eType);
    EXPECT_EQ(0x40, vec[0].cFraction);
    EXPECT_EQ(-2, vec[0].nLost);
    EXPECT_EQ(70000u, vec[0].dwHighSeq);
    EXPECT_EQ(90u, vec[0].dwJitter);
    EXPECT_EQ(0x11112222u, vec[0].dwLsr);
    EXPECT_EQ(0x8000u, vec[0].dwDlsr);
    EXPECT_EQ(RTP_EVENT_NACK, vec[1].eType);
    EXPECT_EQ(1090000u, vec[1].ullArrivalUs);
    EXPECT_EQ(0, vec[1].nStream);
    EXPECT_THAT(vec[1].vecRtpSeq, ElementsAre(65533, 65534, 13, 1));
    EXPECT_THAT(vec[1].vecSendSeq, ElementsAre(131069u, 131070u, 131085u, 131073u));
    EXPECT_EQ(RTP_EVENT_PLI, vec[2].eType);
    EXPECT_EQ(RTP_EVENT_BYE, vec[3].eType);
    const tagRtpStreamInfo st = intake.Stream(0);
    EXPECT_EQ(1u, st.ullNacks);
    EXPECT_EQ(4u, st.ullNackedSeqs);
    EXPECT_EQ(1u, st.ullPlis);
    EXPECT_EQ(1u, st.ullReceiverReports);
    EXPECT_TRUE(st.bBye);
}

TEST(RtpIntake, EventsThatNobodyTakesAreDroppedOldestFirst)
{
    tagRtpOptions stOptions;
    stOptions.dwMaxEvents = 3;
    CRtpIntake intake(stOptions);
    CCall call;
    for (uint32 i = 0; i < 10; i++)
        call.Add(1000 + i, MakePli(9, i));
    call.Play(intake);
    tagRtpEvent stEvent;
    ASSERT_TRUE(intake.PopEvent(stEvent));
    EXPECT_EQ(7u, stEvent.dwMediaSsrc);
    EXPECT_EQ(7u, intake.Totals().ullEventsDropped);
}

TEST(RtpIntake, NoiseMakesNoStream)
{
    CCall call;
    AddAudio(call, 1, 1000, 5);
    for (uint32 i = 0; i < 500; i++) // looks like RTP, each from another SSRC
    {
        tagMake st;
        st.dwSsrc = 0x10000 + i;
        st.wSeq = (uint16)(i * 7919);
        call.Add(1100 + i, MakeRtp(st));
    }
    // A name server's questions: version 2 now and then, the same words where the SSRC would be.
    for (uint32 i = 0; i < 50; i++)
        call.Add(1700 + i, {(uint8)(0x80 + i % 64),
                            (uint8)(i % 64),
                            1,
                            0,
                            0,
                            1,
                            0,
                            0,
                            0,
                            0,
                            0,
                            0,
                            3,
                            'w',
                            'w',
                            'w',
                            0,
                            0,
                            1,
                            0,
                            1});
    for (bool bScan : {true, false})
    {
        CRtpIntake intake;
        EXPECT_EQ(5u, call.Play(intake, bScan).size());
        EXPECT_EQ(1u, intake.StreamCount());
        EXPECT_LE(500u, Dropped(intake, RTP_DROP_SSRC_UNCONFIRMED));
        uint64 ullDropped = 0;
        for (uint64 ull : intake.Totals().aDrops)
            ullDropped += ull;
        EXPECT_EQ(550u, ullDropped);
    }
}

TEST(RtpIntake, DatagramsThatAreNotRtpAreCountedByReason)
{
    CCall call;
    tagMake st;
    const Bytes good = MakeRtp(st);
    call.Add(1, {});
    call.Add(2, {0x00, 0x01, 0, 0});
    call.Add(3, {0x16, 0xFE, 0xFD});
    call.Add(4, {0x40, 0, 0, 0});
    call.Add(5, {0x10, 0, 0, 0});
    call.Add(6, {0xC0, 0, 0, 0});
    call.Add(7, Bytes(good.begin(), good.begin() + 11));
    call.Add(8, Bytes(good.begin(), good.begin() + 11), 32);
    st.dwPadding = 4;
    Bytes padding = MakeRtp(st);
    padding.back() = 0;
    call.Add(9, padding);
    padding.back() = 200;
    call.Add(10, padding);
    Bytes rtcp = MakeRr(1, 2) + MakePli(1, 2);
    rtcp[32] = 0x41;
    call.Add(11, rtcp);
    rtcp = MakeRr(1, 2);
    rtcp[3] = 100;
    call.Add(12, rtcp);
    rtcp[3] = 1;
    rtcp.resize(8);
    call.Add(13, rtcp); // says one block, holds none
    CRtpIntake intake;
    EXPECT_TRUE(call.Play(intake).empty());
    EXPECT_EQ(1u, Dropped(intake, RTP_DROP_EMPTY));
    EXPECT_EQ(1u, Dropped(intake, RTP_DROP_STUN));
    EXPECT_EQ(1u, Dropped(intake, RTP_DROP_DTLS));
    EXPECT_EQ(1u, Dropped(intake, RTP_DROP_TURN_CHANNEL));
    EXPECT_EQ(2u, Dropped(intake, RTP_DROP_NOT_RTP));
    EXPECT_EQ(1u, Dropped(intake, RTP_DROP_RTP_SHORT));
    EXPECT_EQ(1u, Dropped(intake, RTP_DROP_RTP_CUT));
    EXPECT_EQ(2u, Dropped(intake, RTP_DROP_RTP_PADDING));
    EXPECT_EQ(1u, Dropped(intake, RTP_DROP_RTCP_VERSION));
    EXPECT_EQ(1u, Dropped(intake, RTP_DROP_RTCP_SHORT));
    EXPECT_EQ(1u, Dropped(intake, RTP_DROP_RTCP_MALFORMED));
    EXPECT_EQ(13u, intake.Totals().ullDatagrams);
    for (int i = 0; i < RTP_DROP_COUNT; i++)
        EXPECT_STRNE("unknown", RtpDropText((emRtpDrop)i));
}

TEST(RtpIntake, EveryPrefixOfAValidPacketIsTakenOrRefusedWithoutHarm)
{
    tagMake st;
    st.cPt = 96;
    st.nTransportSeq = 7;
    st.dwCsrcs = 3;
    st.dwPadding = 5;
    st.payload = {0x78, 0, 4, 0x67, 66, 0xC0, 30, 0, 2, 0x65, 0x88};
    tagMake stRtx = st;
    stRtx.cPt = 99;
    stRtx.dwSsrc = 2;
    stRtx.payload.insert(stRtx.payload.begin(), {0, 0});
    const std::vector<Bytes> vecWhole = {MakeRtp(st), MakeRtp(stRtx),
                                         MakeSr(1, 1, 2, 3) + MakeRr(1, 2) +
                                             MakeSdes(1, "somebody@somewhere") +
                                             MakeNack(1, 2, {{1, 2}, {3, 4}}) + MakePli(1, 2) + MakeBye(1)};
    for (bool bLive : {false, true})
    {
        tagRtpOptions stOptions = MappedOptions();
        stOptions.bLive = bLive;
        stOptions.nTransportSeqId = 5;
        CRtpIntake intake(stOptions);
        std::vector<tagRtpMedia> vecOut;
        uint64 ullCount = 0;
        for (const Bytes& bytes : vecWhole)
        {
            for (size_t nLen = 0; nLen <= bytes.size(); nLen++)
            {
                for (bool bCut : {false, true})
                {
                    const std::unique_ptr<uint8[]> pExact(
                        new uint8[nLen + 1]); // a heap block: a read past it is seen
                    std::copy(bytes.begin(), bytes.begin() + (std::ptrdiff_t)nLen, pExact.get() + 1);
                    tagRtpDatagram stDatagram;
                    stDatagram.ullArrivalUs = ++ullCount * 1000;
                    stDatagram.pData = pExact.get() + 1;
                    stDatagram.dwCaptured = (uint32)nLen;
                    stDatagram.dwWire = bCut ? (uint32)bytes.size() : (uint32)nLen;
                    intake.Push(stDatagram);
                    CCall::Take(intake, vecOut);
                }
            }
        }
        intake.Flush();
        CCall::Take(intake, vecOut);
        EXPECT_FALSE(vecOut.empty());
        for (const tagRtpMedia& stMedia : vecOut)
            EXPECT_LT(stMedia.stHead.cPkgIndex, stMedia.stHead.cTotalPkgCount);
    }
}

TEST(RtpIntake, RandomBytesAndBrokenBitsDoNoHarm)
{
    uint64 ullSeed = 42;
    const auto Next = [&ullSeed](uint32 dwBelow)
    {
        ullSeed = ullSeed * 6364136223846793005ull + 1442695040888963407ull;
        return (uint32)(ullSeed >> 33) % dwBelow;
    };
    tagMake st;
    st.cPt = 96;
    st.nTransportSeq = 7;
    st.dwCsrcs = 1;
    st.payload = {0x78, 0, 4, 0x67, 66, 0xC0, 30, 0, 2, 0x65, 0x88};
    const std::vector<Bytes> vecSeeds = {MakeRtp(st), MakeSr(1, 1, 2, 3) + MakeSdes(1, "somebody@somewhere"),
                                         MakeRr(1, 2) + MakeNack(1, 2, {{1, 2}, {3, 4}}),
                                         MakePli(1, 2) + MakeBye(1), Bytes(64, 0x80)};
    for (bool bScan : {false, true})
    {
        CCall call;
        for (uint32 i = 0; i < 20000; i++)
        {
            Bytes bytes = vecSeeds[Next((uint32)vecSeeds.size())];
            for (uint32 n = Next(4); n > 0; n--)
                bytes[Next((uint32)bytes.size())] = (uint8)Next(256);
            if (Next(8) == 0)
                bytes.resize(Next((uint32)bytes.size() + 1));
            call.Add(i, bytes, Next(10) == 0 ? (uint32)bytes.size() + Next(100) : 0);
        }
        CRtpIntake intake(MappedOptions());
        const auto vec = call.Play(intake, bScan);
        uint64 ullDropped = 0;
        for (uint64 ull : intake.Totals().aDrops)
            ullDropped += ull;
        EXPECT_GT(ullDropped, 0u);
        EXPECT_EQ(vec.size(), intake.Totals().ullMedia);
        for (const tagRtpMedia& stMedia : vec)
        {
            ASSERT_LT(stMedia.stHead.cPkgIndex, stMedia.stHead.cTotalPkgCount);
            ASSERT_NE(0u, stMedia.llAccount);
            ASSERT_NE(0u, stMedia.stHead.uTimeStamp);
            ASSERT_GE(stMedia.dwSeq, 2u);
        }
    }
}

TEST(RtpIntake, AFirstPacketThatWaitsForItsSecondIsNotLost)
{
    tagRtpOptions stOptions;
    stOptions.bLive = true;
    CRtpIntake intake(stOptions);
    CCall call;
    AddAudio(call, 1, 1000, 2);
    tagRtpMedia stMedia;
    intake.Push(call.Datagram(0));
    EXPECT_FALSE(intake.Pop(stMedia));
    intake.Push(call.Datagram(1));
    ASSERT_TRUE(intake.Pop(stMedia));
    EXPECT_EQ(100, stMedia.wRtpSeq);
    EXPECT_EQ(1000000u, stMedia.ullArrivalUs);
    ASSERT_TRUE(intake.Pop(stMedia));
    EXPECT_EQ(101, stMedia.wRtpSeq);
}

TEST(RtpIntake, LiveKeepsAStreamsAccountWhenItsCnameComesLater)
{
    tagRtpOptions stOptions = MappedOptions();
    stOptions.bLive = true;
    CRtpIntake intake(stOptions);
    CCall call;
    AddAudio(call, 1, 1000, 5, 100, 7000, 111);
    call.Add(1100, MakeRr(1, 9) + MakeSdes(1, "u"));
    AddAudio(call, 1, 1120, 5, 105, 7000 + 5 * 960, 111);
    call.Add(1300, MakeRr(2, 9) + MakeSdes(2, "u"));
    AddVideo(call, 2, 1400, 3);
    const auto vec = call.Play(intake, false);
    ASSERT_EQ(13u, vec.size());
    for (size_t i = 0; i < 10; i++)
        EXPECT_EQ(1u, vec[i].llAccount);
    EXPECT_EQ(RtpAccountOfCname("u"), vec[10].llAccount);
    EXPECT_EQ("u", intake.Stream(0).strCname);
}

TEST(RtpIntake, ACutPacketKeepsItsLengthOnTheWire)
{
    CCall call;
    tagMake st;
    st.payload = Bytes(1000, 0xD5);
    for (uint16 i = 0; i < 3; i++)
    {
        st.wSeq = i;
        Bytes bytes = MakeRtp(st);
        bytes.resize(60);
        call.Add(1000 + i * 20u, bytes, 1012);
    }
    CRtpIntake intake;
    const auto vec = call.Play(intake);
    ASSERT_EQ(3u, vec.size());
    EXPECT_EQ(1000, vec[0].wLen);
    EXPECT_EQ(1012u, vec[0].dwWireLen);
    EXPECT_EQ(60u, vec[0].vecRtp.size());
    EXPECT_EQ(3 * 1012u, intake.Stream(0).stStat.ullBytes);
}

TEST(RtpIntake, ClocksAndKindsAreGuessedFromSlopeAndPattern)
{
    struct tagRow
    {
        uint32 dwClock;
        uint32 dwFrameMs;
        uint32 dwPackets; // of a frame
        emRtpKind eWant;
    };
    for (const tagRow& row : {tagRow{8000, 20, 1, RTP_KIND_AUDIO}, tagRow{8000, 160, 1, RTP_KIND_AUDIO},
                              tagRow{16000, 20, 1, RTP_KIND_AUDIO}, tagRow{24000, 20, 1, RTP_KIND_AUDIO},
                              tagRow{32000, 20, 1, RTP_KIND_AUDIO}, tagRow{44100, 20, 1, RTP_KIND_AUDIO},
                              tagRow{48000, 10, 1, RTP_KIND_AUDIO}, tagRow{48000, 60, 1, RTP_KIND_AUDIO},
                              tagRow{90000, 40, 1, RTP_KIND_VIDEO}, tagRow{90000, 40, 5, RTP_KIND_VIDEO},
                              tagRow{90000, 100, 2, RTP_KIND_VIDEO}})
    {
        CCall call;
        uint32 dwSeq = 65000;
        uint32 dwJitter = 1;
        for (uint32 i = 0; i < 20000 / row.dwFrameMs; i++)
        {
            for (uint32 k = 0; k < row.dwPackets; k++)
            {
                dwJitter = dwJitter * 1103515245 + 12345;
                tagMake st;
                st.cPt = 120;
                st.wSeq = (uint16)dwSeq++;
                st.dwTs = 0xFFFF0000 + (uint32)((uint64)i * row.dwFrameMs * row.dwClock / 1000);
                st.payload = Bytes(40, (uint8)(dwJitter >> 20));
                call.Add(1000 + (uint64)i * row.dwFrameMs + (dwJitter >> 16) % 9, MakeRtp(st));
            }
        }
        CRtpIntake intake;
        call.Play(intake);
        ASSERT_EQ(1u, intake.StreamCount());
        const tagRtpStreamInfo st = intake.Stream(0);
        EXPECT_EQ(row.eWant, st.stFormat.eKind) << row.dwClock << " " << row.dwFrameMs;
        EXPECT_EQ(row.dwClock, st.stFormat.dwClock) << row.dwFrameMs;
        EXPECT_TRUE(st.bGuessed);
        ASSERT_EQ(1u, intake.Guesses().size());
        EXPECT_THAT(intake.Guesses()[0], HasSubstr("SSRC 00000001 PT 120: guessed"));
    }
}

TEST(RtpIntake, TheUsersMapGoesBeforeEveryGuess)
{
    CCall call;
    AddAudio(call, 1, 1000, 100, 100, 7000, 0);
    tagRtpOptions stOptions;
    std::string strError;
    ASSERT_TRUE(ParseRtpMap("0=speex/16000", stOptions.mapFormats, strError));
    CRtpIntake intake(stOptions);
    call.Play(intake);
    EXPECT_EQ("speex", intake.Stream(0).stFormat.strCodec);
    EXPECT_EQ(16000u, intake.Stream(0).stFormat.dwClock);
    EXPECT_FALSE(intake.Stream(0).bGuessed);
    EXPECT_TRUE(intake.Guesses().empty());
}

TEST(RtpIntake, StreamsAndCandidatesAreBounded)
{
    tagRtpOptions stOptions;
    stOptions.dwMaxStreams = 10;
    stOptions.dwMaxCandidates = 5;
    for (bool bScan : {true, false})
    {
        CRtpIntake intake(stOptions);
        CCall call;
        for (uint32 dwSsrc = 1; dwSsrc <= 100; dwSsrc++)
        {
            for (uint32 i = 0; i < 3; i++) // each from elsewhere: none goes on with another one's stream
            {
                tagMake st;
                st.dwSsrc = dwSsrc;
                st.wSeq = (uint16)(100 + i);
                st.dwTs = 7000 + i * 160;
                call.AddFrom(1000 + dwSsrc * 100 + i * 20, MakeRtp(st), Addr((uint8)dwSsrc, 4000));
            }
        }
        const auto vec = call.Play(intake, bScan);
        EXPECT_EQ(10u, intake.StreamCount());
        EXPECT_EQ(30u, vec.size());
        EXPECT_EQ(270u, Dropped(intake, RTP_DROP_SSRC_TOO_MANY) + Dropped(intake, RTP_DROP_SSRC_UNCONFIRMED));
    }
}

// 5000 ... 5009 | 20 ...: the numbers go on, and what is asked for is asked for by the sender's own.
TEST(RtpIntake, AfterARestartNumbersAndTimeGoOnAndRequestsFindTheRtpSequence)
{
    CCall call;
    AddAudio(call, 1, 1000, 100, 5000, 7000);
    AddAudio(call, 1, 3000, 100, 20, 0xFFFFFF00);
    CRtpIntake intake;
    const auto vec = call.Play(intake);
    ASSERT_EQ(200u, vec.size());
    for (size_t i = 0; i < vec.size(); i++)
    {
        EXPECT_EQ(65536u + 5000 + i, vec[i].dwSendSeq);
        EXPECT_EQ(100000u + 20 * i, vec[i].stHead.uTimeStamp);
        EXPECT_EQ(i == 100 ? RTP_RESTART_SEQUENCE : RTP_RESTART_NONE, vec[i].eRestart);
        EXPECT_FALSE(vec[i].bClear);
        uint32 dwSsrc = 0;
        uint16 wSeq = 0;
        ASSERT_TRUE(intake.RtpSequence(0, vec[i].dwSendSeq, dwSsrc, wSeq));
        EXPECT_EQ(vec[i].wRtpSeq, wSeq);
        EXPECT_EQ(1u, dwSsrc);
    }
    EXPECT_EQ(1u, intake.Stream(0).dwRestarts);
    EXPECT_EQ(0u, intake.Stream(0).stStat.ullLost);
    uint32 dwSsrc = 0;
    uint16 wSeq = 0;
    EXPECT_FALSE(intake.RtpSequence(1, 0, dwSsrc, wSeq));
}

TEST(RtpIntake, ARestartAfterTwoSecondsOfSilenceAsksForTheStreamToBeCleared)
{
    for (const uint64 ullSilenceMs : {1990u, 2000u})
    {
        CCall call;
        AddAudio(call, 1, 1000, 100, 5000, 7000);
        AddAudio(call, 1, 1000 + 99 * 20 + ullSilenceMs, 100, 20, 1);
        CRtpIntake intake;
        const auto vec = call.Play(intake);
        ASSERT_EQ(200u, vec.size());
        EXPECT_EQ(RTP_RESTART_SEQUENCE, vec[100].eRestart);
        EXPECT_EQ(ullSilenceMs >= 2000, vec[100].bClear);
    }
}

// One packet that belongs to nothing used to move a stream's numbering by half of all sequences.
TEST(RtpIntake, AStraySequenceIsRefusedAndAStrayTimestampPlaysWithItsNeighbour)
{
    CCall call;
    AddAudio(call, 1, 1000, 100, 5000, 7000);
    AddAudio(call, 1, 3000, 1, 30000, 7000 + 100 * 160); // a sequence from nowhere
    AddAudio(call, 1, 3010, 1, 5100, 0x70000000);        // a timestamp from nowhere
    AddAudio(call, 1, 3020, 100, 5101, 7000 + 101 * 160);
    CRtpIntake intake;
    const auto vec = call.Play(intake);
    ASSERT_EQ(201u, vec.size());
    EXPECT_EQ(1u, Dropped(intake, RTP_DROP_RTP_STRAY));
    EXPECT_EQ(65536u + 5100, vec[100].dwSendSeq);
    EXPECT_EQ(vec[99].stHead.uTimeStamp, vec[100].stHead.uTimeStamp);
    EXPECT_EQ(vec[99].stHead.uTimeStamp + 40, vec[101].stHead.uTimeStamp);
    EXPECT_EQ(0u, intake.Stream(0).dwRestarts);
    EXPECT_EQ(0u, intake.Stream(0).stStat.ullLost);
}

TEST(RtpIntake, ANewSsrcOfTheSameSourceGoesOnWithItsStream)
{
    for (const bool bScan : {true, false})
    {
        CCall call;
        AddAudio(call, 1, 1000, 100, 5000, 7000);
        AddAudio(call, 2, 3000, 100, 60000, 1);
        tagRtpOptions stOptions;
        stOptions.bLive = !bScan;
        CRtpIntake intake(stOptions);
        const auto vec = call.Play(intake, bScan);
        ASSERT_EQ(200u, vec.size());
        ASSERT_EQ(2u, intake.StreamCount());
        EXPECT_EQ(0, intake.Stream(1).nFollows);
        EXPECT_EQ(100u, intake.Stream(1).stStat.ullPackets);
        for (size_t i = 0; i < vec.size(); i++)
        {
            EXPECT_EQ(1u, vec[i].llAccount);
            EXPECT_EQ(i / 100, vec[i].dwStream);
            EXPECT_EQ(65536u + 5000 + i, vec[i].dwSendSeq);
            EXPECT_EQ(100000u + 20 * i, vec[i].stHead.uTimeStamp);
            uint32 dwSsrc = 0;
            uint16 wSeq = 0;
            ASSERT_TRUE(intake.RtpSequence(0, vec[i].dwSendSeq, dwSsrc, wSeq));
            EXPECT_EQ(vec[i].dwSsrc, dwSsrc);
            EXPECT_EQ(vec[i].wRtpSeq, wSeq);
        }
        EXPECT_EQ(RTP_RESTART_SSRC, vec[100].eRestart);
    }
}

TEST(RtpIntake, ASecondSsrcBesideAnotherOneIsItsOwnAndSoIsOneOfAnotherCname)
{
    for (const bool bCnames : {true, false})
    {
        CCall call;
        if (bCnames) // one after the other
        {
            call.Add(900, MakeRr(1, 9) + MakeSdes(1, "a"));
            call.Add(900, MakeRr(2, 9) + MakeSdes(2, "b"));
            AddAudio(call, 1, 1000, 50);
            AddAudio(call, 2, 2500, 50);
        }
        else // by turns, and the first speaks on
        {
            AddAudio(call, 1, 1000, 50);
            AddAudio(call, 2, 2500, 25);
            AddAudio(call, 1, 3000, 25, 150, 7000 + 100 * 160);
        }
        tagRtpOptions stOptions;
        stOptions.bLive = true;
        CRtpIntake intake(stOptions);
        const auto vec = call.Play(intake, false);
        ASSERT_EQ(2u, intake.StreamCount());
        if (bCnames)
        {
            EXPECT_NE(FirstOf(vec, 1)->llAccount, FirstOf(vec, 2)->llAccount);
            EXPECT_EQ(100u, vec.size());
        }
        else
        {
            EXPECT_EQ(99u, vec.size()); // the first packet of the second turn showed that it speaks again
            EXPECT_NE(vec.back().llAccount, FirstOf(vec, 2)->llAccount);
        }
    }
}
