// Clear requests: recorded by the owner, carried out by the worker.

#include "RecvTest.h"

#include <vector>

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::SizeIs;

namespace
{

tagRigPacket Packet(uint64 ullUin, uint8 cSubType, uint32 dwSeq = 1)
{
    return VideoPacket(ullUin, dwSeq, 5000, def_FrameType_P, 0, 0, 0, 1, cSubType);
}

std::vector<std::pair<uint64, int>> Streams(CRecvRig& rig)
{
    std::vector<std::pair<uint64, int>> vecStreams;
    for (const auto& stStream : rig.m_mapUinInPkt())
        vecStreams.emplace_back(stStream.first.ullUserAccount, stStream.first.cSubType);
    return vecStreams;
}

std::vector<std::pair<uint64, int>> Pending(CRecvRig& rig)
{
    std::vector<std::pair<uint64, int>> vecPending;
    for (const tagDataPacket& stPacket : rig.m_listRawData())
        vecPending.emplace_back(stPacket.llAccount, stPacket.cSubType);
    return vecPending;
}

typedef std::pair<uint64, int> Chn;

} // namespace

// ---- The request ---------------------------------------------------------------------------------------------------------

TEST(ClearRequest, IsRecordedUntilTheNextTurnTheLastValueWins)
{
    CRecvRig rig;
    CLogRecorder log;
    rig.m_recv.ClearRecvChn(7, 2);
    rig.m_recv.ClearRecvChn(0, 0xFF);
    rig.m_recv.ClearRecvChn(7, 3);
    rig.m_recv.ClearRecvChn(0xFFFFFFFFFFFFFFFFull, 0xFFFFFFFF);
    EXPECT_EQ(rig.m_dwClearRequest(), 0xFFFFFFFFu);
    EXPECT_THAT(rig.m_listClearUin(), ElementsAre(7, 7, 0xFFFFFFFFFFFFFFFFull));
    EXPECT_THAT(LinesOf(log), ElementsAre(ErrorLine("ClearRecvChn", "ClearRecvChn: uin 7 IsClearAll 2"),
                                          ErrorLine("ClearRecvChn", "ClearRecvChn: uin 0 IsClearAll 255"),
                                          ErrorLine("ClearRecvChn", "ClearRecvChn: uin 7 IsClearAll 3"),
                                          ErrorLine("ClearRecvChn",
                                                    "ClearRecvChn: uin 18446744073709551615 IsClearAll -1")));
}

TEST(ClearRequest, OfAccountZeroQueuesNobody)
{
    CRecvRig rig;
    rig.Put(Packet(7, 2));
    rig.Put(Packet(0, 2));
    rig.m_recv.ClearRecvChn(0, 2);
    EXPECT_THAT(rig.m_listClearUin(), IsEmpty());
    EXPECT_EQ(rig.m_dwClearRequest(), 2u);
    rig.Deliver();
    EXPECT_THAT(Streams(rig), ElementsAre(Chn(0, 2), Chn(7, 2)));
    EXPECT_EQ(rig.m_dwClearRequest(), 0u);
}

TEST(ClearRequest, OfValueZeroWaitsForALaterOne)
{
    CRecvRig rig;
    rig.Put(Packet(7, 2));
    rig.m_recv.ClearRecvChn(7, 0);
    rig.Deliver();
    rig.Deliver();
    EXPECT_THAT(Streams(rig), SizeIs(1));
    EXPECT_THAT(rig.m_listClearUin(), ElementsAre(7));

    rig.m_recv.ClearRecvChn(0, 2); // names nobody, but user 7 is still queued
    rig.Deliver();
    EXPECT_THAT(Streams(rig), IsEmpty());
    EXPECT_THAT(rig.m_listClearUin(), IsEmpty());
}

TEST(ClearRequest, OfValueZeroTakesBackTheOneBefore)
{
    CRecvRig rig;
    rig.Put(Packet(7, 2));
    rig.m_recv.ClearRecvChn(7, 2);
    rig.m_recv.ClearRecvChn(0, 0);
    rig.Deliver();
    EXPECT_THAT(Streams(rig), SizeIs(1));
}

TEST(ClearRequest, OutlivesAStopAndIsCarriedOutByTheNextRun)
{
    CRecvRig rig;
    rig.Start();
    rig.m_recv.ClearRecvChn(7, 2);
    rig.m_recv.Stop();
    rig.Start();
    rig.FeedAll({Packet(7, 2), Packet(7, 1)});
    rig.Turn();
    EXPECT_THAT(Streams(rig), ElementsAre(Chn(7, 1)));
}

// ---- Everything but audio ----------------------------------------------------------------------------------------------------

TEST(ClearAll, RemovesEveryStreamAndPendingPacketButAudio)
{
    const int nLiveBefore = CRigPacket::Live();
    CRecvRig rig;
    rig.Start();
    for (const uint8 cSubType : {0, 1, 2, 3, 6, 7, 255})
    {
        rig.Put(Packet(7, cSubType));
        rig.Put(Packet(8, cSubType));
        rig.Feed(Packet(9, cSubType));
    }
    rig.Stream(7, MEAVAudio)->dwOutSendSeq = 55;
    rig.Stream(7, MEAVAudio)->mapRecvSeq[1] = 1000;
    rig.m_recv.ClearRecvChn(8, 0xFF);
    rig.ClearChnParam();
    EXPECT_THAT(Streams(rig), ElementsAre(Chn(7, 1), Chn(8, 1)));
    EXPECT_THAT(Pending(rig), ElementsAre(Chn(9, 1)));
    EXPECT_EQ(rig.Stream(7, MEAVAudio)->dwOutSendSeq, 55u);
    EXPECT_THAT(rig.Stream(7, MEAVAudio)->mapRecvSeq, SizeIs(1));
    EXPECT_THAT(rig.Stream(7, MEAVAudio)->mapUdtPacket, SizeIs(1));
    EXPECT_THAT(rig.m_listClearUin(), ElementsAre(8)); // left to the caller

    rig.Deliver();
    EXPECT_THAT(rig.m_listClearUin(), IsEmpty());
    EXPECT_EQ(rig.m_dwClearRequest(), 0u);
    EXPECT_EQ(CRigPacket::Live(), nLiveBefore + 3); // the references of all the others were given back
}

TEST(ClearAll, IsTheValue255AndNoOther)
{
    // 0x1FF names the stream of sub-type 255 of the users queued, no more.
    CRecvRig rig;
    rig.Put(Packet(7, 2));
    rig.Put(Packet(7, 255));
    rig.Put(Packet(8, 255));
    rig.m_recv.ClearRecvChn(7, 0x1FF);
    rig.Deliver();
    EXPECT_THAT(Streams(rig), ElementsAre(Chn(7, 2), Chn(8, 255)));
}

TEST(ClearAll, KeepsUsersUnwrapStatesAndTheCountOfUsers)
{
    CRecvRig rig;
    rig.Start();
    rig.Feed(Packet(7, 2));
    rig.Turn();
    rig.m_mapUinSeqInfo()[7];
    EXPECT_EQ(rig.m_dwUinNum(), 1u);
    rig.User(7)->dwTimelineOut = 4321;

    rig.m_recv.ClearRecvChn(0, 0xFF);
    rig.Turn();
    EXPECT_THAT(Streams(rig), IsEmpty());
    EXPECT_EQ(rig.User(7)->dwTimelineOut, 4321u);
    EXPECT_THAT(rig.m_mapUinPkgRingParam(), SizeIs(1));
    EXPECT_THAT(rig.m_mapUinSeqInfo(), SizeIs(1));
    EXPECT_EQ(rig.m_dwUinNum(), 1u);

    rig.Feed(Packet(7, 2, 2)); // the user's only stream begins anew and is counted once more
    rig.Turn();
    EXPECT_EQ(rig.m_dwUinNum(), 2u);
    EXPECT_EQ(rig.Stream(7, 2)->stStatInfo.dwTotalRecvPkgNum, 1u);
}

// ---- One sub-type ------------------------------------------------------------------------------------------------------------

TEST(ClearOne, BigVideoLosesItsStreamAndItsPendingPackets)
{
    CRecvRig rig;
    rig.Start();
    for (const uint8 cSubType : {1, 2, 3})
    {
        rig.Put(Packet(7, cSubType));
        rig.Put(Packet(8, cSubType));
        rig.Feed(Packet(7, cSubType));
        rig.Feed(Packet(8, cSubType));
    }
    rig.m_recv.ClearRecvChn(7, 2);
    rig.ClearChnParam();
    EXPECT_THAT(Streams(rig), ElementsAre(Chn(7, 1), Chn(7, 3), Chn(8, 1), Chn(8, 2), Chn(8, 3)));
    EXPECT_THAT(Pending(rig), ElementsAre(Chn(7, 1), Chn(8, 1), Chn(8, 2), Chn(7, 3), Chn(8, 3)));
    EXPECT_THAT(rig.m_listClearUin(), IsEmpty()); // taken one by one
}

TEST(ClearOne, SmallVideoLosesItsStreamButBigVideosPendingPackets)
{
    CRecvRig rig;
    rig.Start();
    rig.Feed(Packet(7, 3, 1));
    rig.Turn();
    rig.m_recv.ClearRecvChn(7, 3);
    rig.Feed(Packet(7, 3, 2));
    rig.Feed(Packet(7, 2, 2));
    rig.ClearChnParam();
    EXPECT_THAT(Streams(rig), IsEmpty());
    EXPECT_THAT(Pending(rig), ElementsAre(Chn(7, 3)));

    // So the small video comes back from defaults as soon as its pending packet is handled.
    rig.m_dwClearRequest() = 0;
    rig.Turn();
    EXPECT_THAT(Streams(rig), ElementsAre(Chn(7, 3)));
    EXPECT_EQ(rig.Stream(7, 3)->stStatInfo.dwTotalRecvPkgNum, 1u);
}

TEST(ClearOne, AudioCanBeNamedToo)
{
    CRecvRig rig;
    rig.Start();
    rig.Put(Packet(7, 1));
    rig.Put(Packet(7, 2));
    rig.m_recv.ClearRecvChn(7, 1);
    rig.Deliver();
    EXPECT_THAT(Streams(rig), ElementsAre(Chn(7, 2)));
}

TEST(ClearOne, TheSubTypeIsTheValueModulo256)
{
    CRecvRig rig;
    rig.Put(Packet(7, 2));
    rig.Put(Packet(7, 0));
    rig.m_recv.ClearRecvChn(7, 0x302);
    rig.Deliver();
    EXPECT_THAT(Streams(rig), ElementsAre(Chn(7, 0)));
    rig.m_recv.ClearRecvChn(7, 0x100); // not 0, so it is a request: for sub-type 0
    rig.Deliver();
    EXPECT_THAT(Streams(rig), IsEmpty());
}

TEST(ClearOne, UsersOfTwoCallsAreBothClearedByTheLastValue)
{
    CRecvRig rig;
    for (const uint64 ullUin : {7ull, 8ull, 9ull})
    {
        rig.Put(Packet(ullUin, 2));
        rig.Put(Packet(ullUin, 3));
    }
    rig.m_recv.ClearRecvChn(7, 2);
    rig.m_recv.ClearRecvChn(8, 3);
    rig.Deliver();
    EXPECT_THAT(Streams(rig), ElementsAre(Chn(7, 2), Chn(8, 2), Chn(9, 2), Chn(9, 3)));
}

TEST(ClearOne, ForAnUnknownUserOrStreamDoesNothingAndSaysNothing)
{
    CRecvRig rig;
    rig.Put(Packet(7, 2));
    rig.m_recv.ClearRecvChn(99, 2);
    rig.m_recv.ClearRecvChn(7, 3);
    CLogRecorder log;
    rig.Deliver();
    EXPECT_THAT(Streams(rig), ElementsAre(Chn(7, 2)));
    EXPECT_THAT(LinesOf(log), IsEmpty());
}

TEST(ClearOne, HappensAfterTheTurnsPacketsWereHandled)
{
    const int nLiveBefore = CRigPacket::Live();
    CRecvRig rig;
    rig.Start();
    rig.Feed(Packet(7, 2));
    rig.m_recv.ClearRecvChn(7, 2);
    rig.Turn();
    EXPECT_THAT(Streams(rig), IsEmpty());
    EXPECT_NE(rig.User(7), nullptr);
    EXPECT_EQ(CRigPacket::Live(), nLiveBefore);
}

TEST(ClearOne, APacketWhoseDestructorCallsTheReceiverFindsNoLockHeld)
{
    struct CCallingPacket : public CRigPacket
    {
        CCallingPacket(CRecvRig& rig, int& nCalls)
            : CRigPacket(VideoPacket(7, 1, 5000, def_FrameType_P, 0, 0)), m_rRig(rig), m_rCalls(nCalls)
        {
        }
        ~CCallingPacket() override
        {
            ++m_rCalls;
            m_rRig.m_recv.ClearRecvChn(0, 0);
            tagRecvInfo stInfo;
            m_rRig.m_recv.GetRecvInfo(stInfo);
            m_rRig.Feed(AudioPacket(8, (uint32)m_rCalls));
        }
        CRecvRig& m_rRig;
        int& m_rCalls;
    };
    CRecvRig rig;
    rig.Start();
    int nCalls = 0;
    const auto feed = [&rig, &nCalls](uint32 dwSeq)
    {
        CScopePtr<UDTCodecBaseDecode_V2> pPacket(new CCallingPacket(rig, nCalls));
        rig.m_recv.UDTReceiveNetData(dwSeq, 7, dwSeq, 0, MEAVMaxVideo, pPacket);
    };
    feed(1);
    rig.Turn();
    feed(2);
    rig.m_recv.ClearRecvChn(7, 2);
    rig.Turn(); // takes both
    EXPECT_EQ(nCalls, 2);
    feed(3);
    rig.m_recv.ClearRecvChn(0, 0xFF);
    rig.Turn();
    EXPECT_EQ(nCalls, 3);
    feed(4);
    rig.m_recv.Stop();
    EXPECT_EQ(nCalls, 4);
}

// ---- Small steps -------------------------------------------------------------------------------------------------------------

TEST(UinNum, AUserIsNewWhileNoStreamIsTheirs)
{
    CRecvRig rig;
    EXPECT_EQ(rig.UpdateUinNum(7u), 1u);
    rig.Put(Packet(7, 1));
    EXPECT_EQ(rig.UpdateUinNum(7u), 0u);
    EXPECT_EQ(rig.UpdateUinNum(6u), 1u);
    EXPECT_EQ(rig.UpdateUinNum(8u), 1u);
    EXPECT_EQ(rig.UpdateUinNum(0x100000007ull), 1u); // all 64 bits count
    rig.Put(Packet(0x100000007ull, 7));
    EXPECT_EQ(rig.UpdateUinNum(0x100000007ull), 0u);
}

TEST(UselessData, WhatLiesPastTheLimitIsDroppedFromEveryStreamOfTheUser)
{
    const int nLiveBefore = CRigPacket::Live();
    CRecvRig rig;
    for (const uint8 cSubType : {1, 2, 6})
    {
        uint32 dwSeq = 1;
        for (const uint32 dwMedia : {9501u, 9500u, 9499u, 9501u, 0u, 0xFFFFFFFFu})
        {
            rig.Put(Packet(7, cSubType, dwSeq).At(dwMedia));
            rig.Put(Packet(8, cSubType, dwSeq++).At(dwMedia));
        }
    }
    rig.ClearUselessData(7u, 9500u);
    for (const uint8 cSubType : {1, 2, 6})
    {
        std::vector<uint32> vecLeft;
        for (const auto& stPacket : rig.Stream(7, cSubType)->mapUdtPacket)
            vecLeft.push_back(stPacket.first);
        EXPECT_THAT(vecLeft, ElementsAre(2, 3, 5));
        EXPECT_THAT(rig.Stream(8, cSubType)->mapUdtPacket, SizeIs(6));
    }
    EXPECT_EQ(CRigPacket::Live(), nLiveBefore + 3 * 3 + 3 * 6);
}

TEST(AudioHistory, IsEmptiedForTheUsersAudioAlone)
{
    CRecvRig rig;
    rig.ClearAudioRecvSeq(7u); // no such stream
    EXPECT_THAT(Streams(rig), IsEmpty());
    for (const Chn& key : {Chn(7, 1), Chn(7, 2), Chn(8, 1)})
    {
        rig.Put(Packet(key.first, (uint8)key.second));
        rig.Stream(key.first, (uint8)key.second)->mapRecvSeq[1] = 1000;
    }
    rig.ClearAudioRecvSeq(7u);
    EXPECT_THAT(rig.Stream(7, 1)->mapRecvSeq, IsEmpty());
    EXPECT_THAT(rig.Stream(7, 1)->mapUdtPacket, SizeIs(1));
    EXPECT_THAT(rig.Stream(7, 2)->mapRecvSeq, SizeIs(1));
    EXPECT_THAT(rig.Stream(8, 1)->mapRecvSeq, SizeIs(1));
}
