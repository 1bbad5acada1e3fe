/**
 * What the receiver takes at most when its owner says so: each guard by itself on both sides of its edge, then a
 * sender that does its worst beside two good ones. The program's heap is counted while that runs.
 */

#include "RecvTest.h"

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <deque>
#include <malloc.h>
#include <map>
#include <new>
#include <random>
#include <set>

using ::testing::ElementsAre;
using ::testing::IsEmpty;

// ---- The heap, counted ---------------------------------------------------------------------------------------

namespace
{
std::atomic<long long> g_llHeapBytes{0};        // of all that is allocated, as the heap rounds it
std::atomic<unsigned long long> g_ullAllocs{0}; // so far

__attribute__((noinline)) void* CountedNew(size_t nBytes) noexcept
{
    void* const p = malloc(nBytes != 0 ? nBytes : 1);
    if (p != nullptr)
    {
        g_llHeapBytes.fetch_add((long long)malloc_usable_size(p), std::memory_order_relaxed);
        g_ullAllocs.fetch_add(1, std::memory_order_relaxed);
    }
    return p;
}
__attribute__((noinline)) void CountedDelete(void* p) noexcept
{
    if (p == nullptr)
        return;
    g_llHeapBytes.fetch_sub((long long)malloc_usable_size(p), std::memory_order_relaxed);
    free(p);
}
void* CountedNewOrThrow(size_t nBytes)
{
    void* const p = CountedNew(nBytes);
    if (p == nullptr)
        throw std::bad_alloc();
    return p;
}
} // namespace

void* operator new(size_t nBytes) { return CountedNewOrThrow(nBytes); }
void* operator new[](size_t nBytes) { return CountedNewOrThrow(nBytes); }
void* operator new(size_t nBytes, const std::nothrow_t&) noexcept { return CountedNew(nBytes); }
void* operator new[](size_t nBytes, const std::nothrow_t&) noexcept { return CountedNew(nBytes); }
void operator delete(void* p) noexcept { CountedDelete(p); }
void operator delete[](void* p) noexcept { CountedDelete(p); }
void operator delete(void* p, size_t) noexcept { CountedDelete(p); }
void operator delete[](void* p, size_t) noexcept { CountedDelete(p); }
void operator delete(void* p, const std::nothrow_t&) noexcept { CountedDelete(p); }
void operator delete[](void* p, const std::nothrow_t&) noexcept { CountedDelete(p); }

namespace
{

// ---- One guard at a time -------------------------------------------------------------------------------------

typedef uint32 tagUDTRecvGuards::*PMOST;

void SetGuard(CRecvRig& rig, PMOST pMost, uint32 dwMost)
{
    tagUDTRecvGuards stGuards;
    stGuards.*pMost = dwMost;
    rig.m_recv.SetGuards(stGuards);
}

tagUDTRecvGuardInfo Info(CRecvRig& rig)
{
    tagUDTRecvGuardInfo stInfo;
    rig.m_recv.GetGuardInfo(stInfo);
    return stInfo;
}

TEST(Guards, ThereAreNoneUnlessSomebodySetsThem)
{
    CRecvRig rig;
    rig.Start();
    for (uint32 dwSeq = 0; dwSeq < 5000; ++dwSeq)
        rig.Feed(AudioPacket(dwSeq % 500, dwSeq));
    rig.Turn();
    EXPECT_EQ(rig.m_mapUinInPkt().size(), 500u);
    const tagUDTRecvGuardInfo stInfo = Info(rig);
    for (size_t i = 0; i < sizeof(stInfo) / sizeof(uint32); ++i)
        EXPECT_EQ(((const uint32*)&stInfo)[i], 0u);
}

TEST(Guards, AFullIntakeListTakesNoMoreUntilTheNextTurn)
{
    CRecvRig rig;
    rig.Start();
    rig.Feed(AudioPacket(7, 0));
    rig.Turn(); // the stream is there
    const int nBefore = CRigPacket::Live();
    SetGuard(rig, &tagUDTRecvGuards::dwMaxIntakePackets, 4);
    for (uint32 dwSeq = 1; dwSeq <= 4; ++dwSeq)
        rig.Feed(AudioPacket(7, dwSeq));
    EXPECT_EQ(Info(rig).dwIntakePackets, 0u);

    EXPECT_EQ(rig.Feed(AudioPacket(7, 5)), TRUE) << "as for every packet that is dropped";
    EXPECT_EQ(Info(rig).dwIntakePackets, 1u);
    EXPECT_EQ(rig.m_listRawData().size(), 4u);
    EXPECT_EQ(CRigPacket::Live(), nBefore + 4) << "the reference was given back at once";
    EXPECT_EQ(rig.m_dwPacketRecvCnt(), 6u) << "the downlink did bring it";

    rig.Turn();
    rig.Feed(AudioPacket(7, 5));
    rig.Turn();
    EXPECT_EQ(rig.Stream(7, MEAVAudio)->mapUdtPacket.size(), 6u);
    EXPECT_EQ(Info(rig).dwIntakePackets, 1u);

    SetGuard(rig, &tagUDTRecvGuards::dwMaxIntakePackets, 0);
    for (uint32 dwSeq = 10; dwSeq < 30; ++dwSeq)
        rig.Feed(AudioPacket(7, dwSeq));
    EXPECT_EQ(rig.m_listRawData().size(), 20u);
    EXPECT_EQ(Info(rig).dwIntakePackets, 1u) << "the counter stays";
}

// Limit 8: four packets of anybody; then the streams 1 and 2, which are there, have two packets each.
TEST(Guards, TheSecondHalfOfTheIntakeListIsForStreamsThatAreThereInEqualParts)
{
    CRecvRig rig;
    rig.Start();
    rig.FeedAll({AudioPacket(1, 0), AudioPacket(2, 0)});
    rig.Turn();
    SetGuard(rig, &tagUDTRecvGuards::dwMaxIntakePackets, 8);
    for (uint32 dwSeq = 0; dwSeq < 10; ++dwSeq)
        rig.Feed(AudioPacket(100 + dwSeq, 0));
    EXPECT_EQ(rig.m_listRawData().size(), 4u);
    for (uint32 dwSeq = 1; dwSeq < 10; ++dwSeq)
        rig.Feed(AudioPacket(1, dwSeq));
    EXPECT_EQ(rig.m_listRawData().size(), 6u);
    for (uint32 dwSeq = 1; dwSeq < 10; ++dwSeq)
        rig.Feed(AudioPacket(2, dwSeq));
    EXPECT_EQ(rig.m_listRawData().size(), 8u);
    EXPECT_EQ(Info(rig).dwIntakePackets, 6u + 7 + 7);

    rig.Turn();
    for (uint32 dwSeq = 3; dwSeq < 8; ++dwSeq)
        rig.Feed(AudioPacket(1, dwSeq));
    EXPECT_EQ(rig.m_listRawData().size(), 5u) << "a new turn, a new part: of six streams now, so one packet";
}

TEST(Guards, BytesOfTheIntakeListAreCountedByTheirLengthAndThoseThatWaitAlreadyToo)
{
    CRecvRig rig;
    rig.Start();
    rig.Feed(AudioPacket(7, 0));
    rig.Turn();
    rig.FeedAll({AudioPacket(7, 1).Len(100), AudioPacket(7, 2).Len(100)});
    SetGuard(rig, &tagUDTRecvGuards::dwMaxIntakeBytes, 250);
    rig.Feed(AudioPacket(7, 3).Len(51));
    EXPECT_EQ(Info(rig).dwIntakeBytes, 1u) << "one byte over";
    rig.Feed(AudioPacket(7, 3).Len(50));
    EXPECT_EQ(Info(rig).dwIntakeBytes, 1u) << "to the byte";
    tagRigPacket stNull = AudioPacket(7, 4);
    stNull.bNull = true;
    rig.Feed(stNull);
    EXPECT_EQ(rig.m_listRawData().size(), 4u) << "a null packet has no bytes";
    EXPECT_EQ(Info(rig).dwIntakePackets, 0u);

    rig.Turn();
    rig.Feed(AudioPacket(7, 5).Len(125));
    EXPECT_EQ(Info(rig).dwIntakeBytes, 1u) << "the list is empty again";

    // What is cleared out of the list makes room.
    rig.Turn();
    rig.Feed(VideoPacket(8, 1, 5000, def_FrameType_I, 0, 0).Len(100));
    rig.Turn();
    rig.Feed(VideoPacket(8, 2, 5000, def_FrameType_P, 0, 0).Len(125));
    rig.m_dwClearRequest() = c_dwClearAllButAudio;
    rig.ClearChnParam();
    rig.m_dwClearRequest() = 0;
    rig.Feed(AudioPacket(9, 6).Len(125));
    EXPECT_EQ(Info(rig).dwIntakeBytes, 1u);
    EXPECT_EQ(rig.m_listRawData().size(), 1u);
}

TEST(Guards, AFurtherStreamBeginsOnlyWhenAnotherHasGone)
{
    CRecvRig rig;
    rig.StartPlaying();
    SetGuard(rig, &tagUDTRecvGuards::dwMaxStreams, 2);
    rig.FeedAll({AudioPacket(1, 0), AudioPacket(2, 0)});
    rig.Turn();
    EXPECT_EQ(Info(rig).dwStreams, 0u);
    const int nBefore = CRigPacket::Live();
    rig.FeedAll({AudioPacket(3, 0), AudioPacket(3, 1), AudioPacket(1, 1)});
    rig.Turn();
    EXPECT_EQ(Info(rig).dwStreams, 2u) << "every packet of it is counted";
    EXPECT_EQ(CRigPacket::Live(), nBefore + 1);
    EXPECT_EQ(rig.Stream(3, MEAVAudio), nullptr);
    EXPECT_EQ(rig.User(3), nullptr);
    EXPECT_EQ(rig.m_dwUinNum(), 2u);
    EXPECT_EQ(rig.Stream(1, MEAVAudio)->stStatInfo.dwTotalRecvPkgNum, 2u);

    // Stream 2 falls silent and goes.
    for (uint32 dwSeq = 2; rig.Stream(2, MEAVAudio) != nullptr && dwSeq < 2000; ++dwSeq)
    {
        rig.Feed(AudioPacket(1, dwSeq));
        rig.TurnsUntil(rig.Now() + 20);
    }
    rig.Feed(AudioPacket(3, 2));
    rig.Turn();
    EXPECT_NE(rig.Stream(3, MEAVAudio), nullptr);
    EXPECT_EQ(Info(rig).dwStreams, 2u);

    SetGuard(rig, &tagUDTRecvGuards::dwMaxStreams, 1);
    rig.FeedAll({AudioPacket(3, 3), AudioPacket(4, 0)});
    rig.Turn();
    EXPECT_EQ(rig.Stream(3, MEAVAudio)->stStatInfo.dwTotalRecvPkgNum, 2u) << "who is in stays in";
    EXPECT_EQ(Info(rig).dwStreams, 3u);
    SetGuard(rig, &tagUDTRecvGuards::dwMaxStreams, 0);
    rig.Feed(AudioPacket(4, 0));
    rig.Turn();
    EXPECT_NE(rig.Stream(4, MEAVAudio), nullptr);
}

TEST(Guards, AFurtherAccountIsRememberedInPlaceOfOneThatHasNoStream)
{
    CRecvRig rig;
    rig.StartPlaying();
    SetGuard(rig, &tagUDTRecvGuards::dwMaxAccounts, 2);
    rig.FeedAll({AudioPacket(1, 0), AudioPacket(2, 0), VideoPacket(2, 0, 5000, def_FrameType_I, 0, 0)});
    rig.Turn();
    EXPECT_EQ(Info(rig).dwAccounts, 0u);
    EXPECT_EQ(Info(rig).dwAccountsForgot, 0u) << "two streams of one account are one account";
    rig.Feed(AudioPacket(3, 0));
    rig.Turn();
    EXPECT_EQ(Info(rig).dwAccounts, 1u) << "both have a stream";
    EXPECT_EQ(rig.m_mapUinDataInfo().size(), 2u);

    rig.m_recv.ClearRecvChn(1, MEAVAudio);
    rig.Turn();
    EXPECT_NE(rig.User(1), nullptr) << "a cleared stream leaves its user's timeline";
    rig.FeedAll({AudioPacket(3, 1), AudioPacket(4, 0)});
    rig.Turn();
    EXPECT_EQ(rig.User(1), nullptr);
    EXPECT_NE(rig.User(3), nullptr);
    EXPECT_EQ(rig.User(4), nullptr);
    EXPECT_EQ(Info(rig).dwAccounts, 2u);

    SetGuard(rig, &tagUDTRecvGuards::dwMaxAccounts, 0);
    rig.Feed(AudioPacket(4, 1));
    rig.Turn();
    EXPECT_NE(rig.User(4), nullptr);
}

TEST(Guards, TwentyThousandAccountsThatComeAndGoLeaveNoMoreThanAreAllowed)
{
    CRecvRig rig;
    rig.StartPlaying();
    SetGuard(rig, &tagUDTRecvGuards::dwMaxAccounts, 100);
    for (uint64 ullUin = 1; ullUin <= 20000; ++ullUin)
    {
        rig.Feed(AudioPacket(ullUin * 0x9E3779B97F4A7C15ull, 0));
        if (ullUin % 100 != 0)
            continue;
        rig.Turn();
        rig.Advance(9000); // played, silent, gone
        rig.Turn();
        rig.Advance(10);
    }
    EXPECT_LE(rig.m_mapUinPkgRingParam().size(), 100u);
    EXPECT_EQ(Info(rig).dwAccountsForgot, 20000u - 100u);
    EXPECT_EQ(Info(rig).dwAccounts, 0u);
}

TEST(Guards, SubTypesOfOneAccountAreRememberedSixteenAtMostOnAverage)
{
    CRecvRig rig;
    rig.Start();
    SetGuard(rig, &tagUDTRecvGuards::dwMaxAccounts, 2);
    for (uint32 dwSubType = 0; dwSubType < 256; ++dwSubType)
    {
        tagRigPacket stPacket = AudioPacket(7, 0);
        stPacket.cSubType = (uint8)dwSubType;
        rig.Feed(stPacket);
        EXPECT_LE(rig.m_mapUinPkgRingParam().size(), 32u);
    }
}

TEST(Guards, AFullStreamTakesAPacketAgainOnceOneHasLeft)
{
    CRecvRig rig;
    rig.StartPlaying();
    SetGuard(rig, &tagUDTRecvGuards::dwMaxStreamPackets, 3);
    const uint32 dwBase = c_dwRigMediaBase;
    for (uint32 dwSeq = 0; dwSeq < 3; ++dwSeq)
        rig.Feed(AudioPacket(7, dwSeq).At(dwBase + dwSeq * 1000));
    rig.Turn();
    EXPECT_EQ(Info(rig).dwStreamPackets, 0u);
    rig.FeedAll({AudioPacket(7, 3).At(dwBase + 3000), AudioPacket(8, 0)});
    rig.Turn();
    EXPECT_EQ(Info(rig).dwStreamPackets, 1u);
    EXPECT_EQ(rig.Stream(7, MEAVAudio)->mapUdtPacket.size(), 3u);
    EXPECT_EQ(rig.Stream(7, MEAVAudio)->mapRecvSeq.count(3), 0u) << "it is no duplicate when it comes again";
    EXPECT_EQ(rig.Stream(8, MEAVAudio)->mapUdtPacket.size(), 1u) << "every stream has its own";

    rig.TurnsUntil(rig.Now() + 600); // the first one leaves
    rig.Feed(AudioPacket(7, 3).At(dwBase + 3000));
    rig.TurnsUntil(rig.Now() + 8000);
    EXPECT_THAT(rig.m_owner.Sequences(7, MEAVAudio), ElementsAre(0, 1, 2, 3));
    EXPECT_EQ(Info(rig).dwStreamPackets, 1u);
}

// The duplicate history is purged from its lowest sequence up to the first young one. Descending sequences keep a young
// one at its front for ever.
TEST(Guards, DescendingSequencesFillTheDuplicateHistoryToItsLimitAndThenWaitForItsEntriesToAge)
{
    CRecvRig rig(10000);
    rig.StartPlaying();
    SetGuard(rig, &tagUDTRecvGuards::dwMaxStreamHistory, 50);
    uint32 dwSeq = 1000000;
    size_t nMost = 0;
    for (; rig.Now() < 15000; rig.Advance(10))
    {
        rig.Feed(AudioPacket(7, dwSeq--).At(5000));
        rig.Turn();
        nMost = std::max(nMost, rig.Stream(7, MEAVAudio)->mapRecvSeq.size());
    }
    EXPECT_EQ(nMost, 50u);
    EXPECT_EQ(Info(rig).dwStreamHistory, 450u);
    rig.ClockAt(10490 + c_dwPkgDuplicatedInterval);
    rig.Feed(AudioPacket(7, dwSeq--).At(5000));
    rig.Turn();
    EXPECT_EQ(Info(rig).dwStreamHistory, 450u) << "6 s on there is room";
}

TEST(Guards, EarlyPacketsPullAClockBackSoManyTimesASecondAndNoMore)
{
    CRecvRig rig(10000);
    rig.StartPlaying();
    SetGuard(rig, &tagUDTRecvGuards::dwMaxPullBacks, 2);
    rig.Feed(AudioPacket(7, 1).At(900000));
    rig.TurnsUntil(10600);
    uint32 dwMedia = 800000;
    uint32 dwSeq = 2;
    const auto early = [&]
    {
        dwMedia -= 5000;
        rig.Feed(AudioPacket(7, dwSeq++).At(dwMedia)); // further back each time
        rig.Turn();
        return (uint32)rig.User(7)->dwTimelineOut;
    };
    for (int i = 0; i < 4; ++i)
        early();
    EXPECT_LT(early(), 800000u);
    EXPECT_LT(early(), 800000u - 25000);
    const uint32 dwOut = rig.User(7)->dwTimelineOut;
    EXPECT_EQ(Info(rig).dwPullBacks, 0u);
    EXPECT_EQ(early(), dwOut) << "the third in this second";
    EXPECT_EQ(Info(rig).dwPullBacks, 1u);
    rig.Advance(1000);
    EXPECT_LT(early(), dwOut) << "the next second";
    EXPECT_EQ(Info(rig).dwPullBacks, 1u);
}

TEST(Guards, AClockWithTooMuchAheadLeapsToTheLiveEdgeAndAllBehindItLeavesInOrder)
{
    for (const uint32 dwAhead : {2000u, 2001u})
    {
        CRecvRig rig(10000);
        rig.StartPlaying();
        tagUDTRecvParams params;
        params.wQueuePeriod = params.wTimelineDelta = 1000; // what the clock aims at, whatever the jitter
        rig.m_recv.UDTSetRecvParams(params);
        rig.Feed(AudioPacket(7, 1).At(50000));
        rig.TurnsUntil(10600);
        const uint32 dwOut = rig.User(7)->dwTimelineOut;
        SetGuard(rig, &tagUDTRecvGuards::dwMaxLatency, 2000);
        for (uint32 i = 0; i <= 20; ++i)
            rig.Feed(AudioPacket(7, 2 + i).At(dwOut + dwAhead - 2000 + i * 100));
        rig.Deliver();
        const bool bOver = dwAhead > 2000;
        EXPECT_EQ(Info(rig).dwLatency, bOver ? 1u : 0u);
        EXPECT_EQ(rig.User(7)->dwTimelineOut, bOver ? dwOut + dwAhead - 1000 : dwOut)
            << "to where the clock aims";
        rig.m_owner.Forget();
        rig.OutPacket();
        if (bOver)
        {
            EXPECT_THAT(rig.m_owner.Sequences(7, MEAVAudio), ElementsAre(2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12));
        }
    }
}

TEST(Guards, ATightLatencyIsKeptEvenBelowTheConfiguredBuffering)
{
    CRecvRig rig(10000);
    rig.StartPlaying();
    SetGuard(rig, &tagUDTRecvGuards::dwMaxLatency, 300);
    for (uint32 dwSeq = 0; dwSeq < 200; ++dwSeq)
    {
        rig.Feed(AudioPacket(7, dwSeq));
        rig.TurnsUntil(rig.Now() + 20);
        if (rig.User(7)->dwTimelineOut != 0)
        {
            EXPECT_LE(rig.User(7)->dwTimelineIn - rig.User(7)->dwTimelineOut, 300u + 20);
        }
    }
    EXPECT_GT(Info(rig).dwLatency, 0u);
}

TEST(Guards, CountersWrap)
{
    CRecvRig rig;
    rig.Start();
    rig.m_stGuardCounts().dwIntakePackets = 0xFFFFFFFF;
    rig.m_stGuardCounts().dwAccountsForgot = 0xFFFFFFFF;
    tagUDTRecvGuards stGuards;
    stGuards.dwMaxIntakePackets = 1;
    stGuards.dwMaxAccounts = 1;
    rig.m_recv.SetGuards(stGuards);
    rig.FeedAll({AudioPacket(7, 0), AudioPacket(8, 0)});
    EXPECT_EQ(Info(rig).dwIntakePackets, 0u);
    EXPECT_EQ(Info(rig).dwAccountsForgot, 0u);
}

TEST(Guards, GuardsAndCountersOutliveStopAndStart)
{
    CRecvRig rig;
    rig.Start();
    SetGuard(rig, &tagUDTRecvGuards::dwMaxStreams, 1);
    rig.FeedAll({AudioPacket(7, 0), AudioPacket(8, 0)});
    rig.Turn();
    rig.m_recv.Stop();
    rig.Start();
    rig.FeedAll({AudioPacket(8, 0), AudioPacket(7, 0)});
    rig.Turn();
    EXPECT_EQ(Info(rig).dwStreams, 2u);
    EXPECT_NE(rig.Stream(8, MEAVAudio), nullptr);
}

TEST(Guards, AnOwnerMaySetThemFromInsideACallback)
{
    CRecvRig rig;
    rig.StartPlaying();
    tagUDTRecvGuards stGuards;
    stGuards.dwMaxIntakePackets = 1;
    rig.m_owner.m_fnOnRelease = [&](const tagRelease&) { rig.m_recv.SetGuards(stGuards); };
    rig.m_owner.m_fnOnParse = [&] { rig.m_recv.SetGuards(stGuards); };
    rig.FeedAll({AudioPacket(7, 0), AudioPacket(7, 1)});
    EXPECT_EQ(Info(rig).dwIntakePackets, 1u);
    rig.TurnsUntil(rig.Now() + 600);
    EXPECT_THAT(rig.m_owner.Sequences(7, MEAVAudio), ElementsAre(0));
}

// ---- Requests ------------------------------------------------------------------------------------------------

// The most that was asked for in any 1000 ms, by a window that begins at every request.
size_t MostInASecond(const std::vector<tagRequest>& vecRequests)
{
    size_t nMost = 0;
    size_t nIn = 0;
    for (size_t i = 0, j = 0; j < vecRequests.size(); ++j)
    {
        nIn += vecRequests[j].vecData.size();
        for (; vecRequests[j].dwTick - vecRequests[i].dwTick >= 1000; ++i)
            nIn -= vecRequests[i].vecData.size();
        nMost = std::max(nMost, nIn);
    }
    return nMost;
}

TEST(Guards, NoSecondSeesMoreRequestsThanAllowedAndASteadyDemandHasThreeQuartersOfThem)
{
    for (const uint32 dwMost : {1u, 2u, 3u, 4u, 5u, 7u, 10u, 100u, 1000u})
    {
        for (const uint64 ullTick : {1000ull, 0xFFFFFFFFull - 5000})
        {
            CRecvRig rig(ullTick);
            rig.Start();
            SetGuard(rig, &tagUDTRecvGuards::dwMaxRequestsPerSecond, dwMost);
            // Every other packet of sound is missing, and every other of every I frame: both kinds of requests.
            for (uint32 dwSeq = 0; dwSeq < 600; ++dwSeq)
            {
                for (uint32 i = 0; i < 4; ++i)
                {
                    const uint32 dwPkg = dwSeq * 4 + i;
                    rig.Feed(AudioPacket(7, dwPkg * 2));
                    rig.Feed(VideoPacket(8, dwPkg * 2, 5000 + dwPkg * 20,
                                         i != 3 ? def_FrameType_I : def_FrameType_P, (uint8)dwSeq, 0,
                                         (uint8)(i * 2), 8));
                }
                rig.TurnsUntil(rig.m_clock.Tick() + 10);
                rig.Advance(10);
            }
            size_t nAll = 0;
            for (const tagRequest& stRequest : rig.m_owner.m_vecRequests)
                nAll += stRequest.vecData.size();
            EXPECT_LE(MostInASecond(rig.m_owner.m_vecRequests), dwMost);
            EXPECT_GE(nAll, dwMost * 12 * 5 / 8) << dwMost << " per second, over 12 s";
            EXPECT_GT(Info(rig).dwRequests, 0u);
        }
    }
}

TEST(Guards, TheRequestsThatWereAskedForAreThoseThatWouldHaveBeenWhileThereAreEnough)
{
    std::vector<std::vector<uint32>> vecAsked;
    for (const uint32 dwMost : {0u, 1000u})
    {
        CRecvRig rig;
        rig.Start();
        SetGuard(rig, &tagUDTRecvGuards::dwMaxRequestsPerSecond, dwMost);
        std::vector<uint32> vecWhat;
        for (uint32 dwSeq = 0; dwSeq < 200; ++dwSeq)
        {
            if (dwSeq % 10 != 3)
                rig.Feed(AudioPacket(7, dwSeq));
            rig.TurnsUntil(rig.Now() + 20);
        }
        for (const tagRequest& stRequest : rig.m_owner.m_vecRequests)
        {
            vecWhat.push_back(stRequest.dwTick);
            for (const tagReplyData& stData : stRequest.vecData)
                vecWhat.push_back(stData.dwUserSeq);
        }
        vecAsked.push_back(vecWhat);
        EXPECT_EQ(Info(rig).dwRequests, 0u);
    }
    EXPECT_THAT(vecAsked[0], testing::Not(IsEmpty()));
    EXPECT_EQ(vecAsked[0], vecAsked[1]);
}

TEST(Guards, AStreamThatLostLittleIsNotKeptWaitingByOnesThatSayTheyLostEverything)
{
    CRecvRig rig;
    rig.Start();
    SetGuard(rig, &tagUDTRecvGuards::dwMaxRequestsPerSecond, 200);
    uint32 dwGood = 0;
    size_t nLost = 0;
    for (uint32 dwTurn = 0; dwTurn < 1000; ++dwTurn)
    {
        for (uint64 ullUin = 1; ullUin <= 20; ++ullUin) // lower accounts than the good one's
            rig.Feed(VideoPacket(ullUin, dwTurn * 100, 5000 + dwTurn * 20, def_FrameType_I, (uint8)dwTurn, 0,
                                 0, 200));
        if (dwTurn % 2 == 0 && ++dwGood % 50 == 0)
            ++nLost;
        else if (dwTurn % 2 == 0)
            rig.Feed(AudioPacket(77, dwGood));
        rig.TurnsUntil(rig.Now());
        rig.Advance(10);
    }
    std::set<uint32> setAsked;
    for (const tagRequest& stRequest : rig.m_owner.m_vecRequests)
    {
        for (const tagReplyData& stData : stRequest.vecData)
        {
            if (stData.ullUserAccount == 77 && setAsked.insert(stData.dwUserSeq).second)
            {
                EXPECT_LE(stRequest.dwTick - (1000 + (stData.dwUserSeq - 1) * 20), 80u)
                    << stData.dwUserSeq << " on sight";
            }
        }
    }
    EXPECT_GE(setAsked.size(), nLost - 1) << "the last one may have no packet behind it";
    EXPECT_GT(Info(rig).dwRequests, 1000u);
    EXPECT_LE(MostInASecond(rig.m_owner.m_vecRequests), 200u);
}

// ---- The hostile sender --------------------------------------------------------------------------------------

constexpr uint64 c_ullGoodAudio = 0x8000000000000001ull;
constexpr uint64 c_ullGoodVideo = 0x8000000000000002ull;

/// Keeps what the good senders' streams did, and a count of everything else.
class CHostOwner : public IUDTRecvEventCallBack
{
public:
    void OnUDTRecvOutData(UDTCodecBaseDecode_V2* pPacket, int*) override
    {
        const tagRigPacket& st = static_cast<CRigPacket*>(pPacket)->m_stPacket;
        if (st.ullUin == c_ullGoodAudio || st.ullUin == c_ullGoodVideo)
            m_vecGood[st.ullUin == c_ullGoodVideo].push_back(st.dwSendSeq);
        else
            ++m_ullOthers;
    }
    int UdtRecvHandleEvent(WORD, uint8* pBuffer, uint32 nBufSize, uint32, uint32) override
    {
        m_ullAsked += nBufSize;
        const tagReplyData* const pData = (const tagReplyData*)pBuffer;
        for (uint32 i = 0; i < nBufSize; ++i)
        {
            if (pData[i].ullUserAccount == c_ullGoodAudio || pData[i].ullUserAccount == c_ullGoodVideo)
                m_setGoodAsked.insert(std::make_pair(pData[i].ullUserAccount, pData[i].dwUserSeq));
        }
        return 0;
    }
    int UdtParsePacketHeadInfo(uint8* pBuf, UdtPacketHeadInfo& stHead) override
    {
        memcpy(&stHead, pBuf, sizeof(stHead));
        return 0;
    }

    std::vector<uint32> m_vecGood[2];
    std::set<std::pair<uint64, uint32>> m_setGoodAsked;
    uint64 m_ullOthers = 0;
    uint64 m_ullAsked = 0;
};

/// Sound and picture that lose one packet in 41, which is sent again 40 ms after it was first asked for.
class CGoodSenders
{
public:
    explicit CGoodSenders(CRecvRig& rig, CHostOwner& owner) : m_rig(rig), m_owner(owner) {}

    void Turn()
    {
        const uint32 dwNow = m_rig.Now();
        for (const std::pair<uint64, uint32>& stAsked : m_owner.m_setGoodAsked)
            m_mapAnswers.emplace(dwNow + 40, stAsked);
        m_owner.m_setGoodAsked.clear();
        while (!m_mapAnswers.empty() && m_mapAnswers.begin()->first <= dwNow)
        {
            const auto it = m_mapLost.find(m_mapAnswers.begin()->second);
            if (it != m_mapLost.end())
            {
                m_rig.Feed(it->second);
                m_mapLost.erase(it);
            }
            m_mapAnswers.erase(m_mapAnswers.begin());
        }
        if (dwNow % 20 == 0)
            Send(AudioPacket(c_ullGoodAudio, m_dwAudio++).At(dwNow));
        if (dwNow % 40 == 0)
        {
            const uint8 cPkgNum = m_cFrm == 0 ? 6 : 2;
            for (uint8 cPkg = 0; cPkg < cPkgNum; ++cPkg)
                Send(VideoPacket(c_ullGoodVideo, m_dwVideo++, dwNow,
                                 m_cFrm == 0 ? def_FrameType_I : def_FrameType_P, m_cGop, m_cFrm, cPkg,
                                 cPkgNum));
            m_cFrm = (uint8)((m_cFrm + 1) % 25);
            m_cGop = (uint8)(m_cGop + (m_cFrm == 0 ? 1 : 0));
        }
    }
    uint32 m_dwAudio = 1;
    uint32 m_dwVideo = 1;

private:
    void Send(const tagRigPacket& stPacket)
    {
        if (stPacket.dwSendSeq % 41 == 7)
            m_mapLost.emplace(std::make_pair(stPacket.ullUin, stPacket.dwSendSeq), stPacket);
        else
            m_rig.Feed(stPacket);
    }

    CRecvRig& m_rig;
    CHostOwner& m_owner;
    uint8 m_cGop = 0;
    uint8 m_cFrm = 0;
    std::map<std::pair<uint64, uint32>, tagRigPacket> m_mapLost;
    std::multimap<uint32, std::pair<uint64, uint32>> m_mapAnswers;
};

/// Whatever hurts: accounts without end, or few with sequences, media times and counts of all kinds.
class CHostileSender
{
public:
    tagRigPacket Packet()
    {
        const uint64 ullWord = m_rng();
        tagRigPacket st;
        const bool bRandom = (ullWord & 7) == 0;
        st.ullUin = bRandom ? m_rng() >> 1 : 1 + (ullWord >> 8) % 10;
        st.cSubType = bRandom ? (uint8)(ullWord >> 16) : (uint8)(1 + ((ullWord >> 16) & 1));
        st.wLen = (uint16)((ullWord >> 48) % (++m_ullPackets / 20000 % 2 != 0 ? 1400 : 100));
        const uint32 dwRandom = (uint32)m_rng();
        switch (st.ullUin % 5)
        {
        case 0: st.dwSendSeq = dwRandom; break;
        case 1: st.dwSendSeq = m_dwDown--; break;               // a history that is never purged
        case 2: st.dwSendSeq = m_dwUp += dwRandom & 511; break; // gaps everywhere
        case 3: st.dwSendSeq = dwRandom & 0x3FFF; break;        // late ones
        default: st.dwSendSeq = m_dwUp += 2; break;
        }
        st.stHead.uTimeStamp = (uint32)m_rng();
        if (st.ullUin % 3 == 1) // now ahead of the clock and now behind it
            st.stHead.uTimeStamp =
                (m_bFlip = !m_bFlip) ? 0x70000000 - m_dwStep : 0x70000000 + (m_dwStep += 7000);
        else if (st.ullUin % 3 == 2) // what nobody plays for hours
            st.stHead.uTimeStamp = 10000000 + (dwRandom & 0xFFFFFF);
        st.stHead.cFrmType = (uint8)((ullWord >> 24) & 1);
        st.stHead.cPkgIndex = (uint8)(ullWord >> 32);
        st.stHead.cTotalPkgCount = 255;
        st.stHead.cFecPkgCount = (uint8)(ullWord >> 40);
        st.stHead.cFrameIndex = (uint8)dwRandom;
        st.stHead.cGopIndex = (uint8)(dwRandom >> 8);
        st.stHead.cSubType = st.cSubType;
        return st;
    }

private:
    std::mt19937_64 m_rng{12345};
    uint64 m_ullPackets = 0;
    uint32 m_dwDown = 0x40000000;
    uint32 m_dwUp = 1;
    uint32 m_dwStep = 0;
    bool m_bFlip = false;
};

constexpr uint32 c_dwHostilePerTurn = 500;          // 50,000 packets/s
constexpr long long c_llMostGuardedBytes = 2000000; // of the whole heap, packets of the owner included

tagUDTRecvGuards AllGuards()
{
    tagUDTRecvGuards st;
    st.dwMaxIntakePackets = 400;
    st.dwMaxIntakeBytes = 200000;
    st.dwMaxStreams = 16;
    st.dwMaxAccounts = 64;
    st.dwMaxStreamPackets = 256;
    st.dwMaxStreamHistory = 2048;
    st.dwMaxRequestsPerSecond = 400;
    st.dwMaxPullBacks = 4;
    st.dwMaxLatency = 4000;
    return st;
}

struct tagOutcome
{
    std::vector<uint32> vecGood[2];
    long long llMostBytes = 0;
    uint64 ullMostAllocs = 0; // in one turn
    uint64 ullAllocs = 0;     // in all turns under attack
    double dMostTurnMs = 0;
    double dTurnsMs = 0;
    uint32 dwTurns = 0;      // under attack
    uint64 ullMostAsked = 0; // in one second
    uint64 ullAsked = 0;
    size_t nMostIntake = 0;
    size_t nMostStreams = 0;
    size_t nMostUsers = 0;
    size_t nMostRings = 0;
    size_t nMostBuffered = 0;  // in one stream
    size_t nMostHistory = 0;   // in one stream
    size_t nMostRequested = 0; // remembered in one stream
    tagUDTRecvGuardInfo stInfo;
};

double CpuMs()
{
    timespec st;
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &st);
    return (double)st.tv_sec * 1e3 + (double)st.tv_nsec / 1e6;
}

// Two good senders for 3 s, then the hostile one beside them, then 4 s without it.
tagOutcome Attack(uint32 dwAttackMs, uint32 dwPerTurn, bool bGuards)
{
    tagOutcome stOut;
    {
        CRecvRig rig(10000);
        CHostOwner owner;
        owner.m_vecGood[0].reserve(100000);
        owner.m_vecGood[1].reserve(100000);
        rig.m_pCB() = &owner;
        if (bGuards)
            rig.m_recv.SetGuards(AllGuards());
        rig.StartPlaying();
        CGoodSenders good(rig, owner);
        CHostileSender hostile;
        std::deque<uint64> queAsked;
        const uint32 dwEnd = 13000 + dwAttackMs + 4000;
        const long long llBefore = g_llHeapBytes;
        for (; rig.Now() < dwEnd; rig.Advance(10))
        {
            const bool bAttack = rig.Now() >= 13000 && rig.Now() < 13000 + dwAttackMs;
            for (uint32 i = 0; bAttack && i < dwPerTurn; ++i)
                rig.Feed(hostile.Packet());
            if (rig.Now() < dwEnd - 3000)
                good.Turn();
            stOut.nMostIntake = std::max(stOut.nMostIntake, rig.m_listRawData().size());
            stOut.llMostBytes = std::max(stOut.llMostBytes, g_llHeapBytes - llBefore);
            const double dBefore = CpuMs();
            const uint64 ullBefore = g_ullAllocs;
            rig.Turn();
            const double dMs = CpuMs() - dBefore;
            if (bAttack)
            {
                stOut.dMostTurnMs = std::max(stOut.dMostTurnMs, dMs);
                stOut.dTurnsMs += dMs;
                stOut.ullMostAllocs = std::max<uint64>(stOut.ullMostAllocs, g_ullAllocs - ullBefore);
                stOut.ullAllocs += g_ullAllocs - ullBefore;
                ++stOut.dwTurns;
            }
            queAsked.push_back(owner.m_ullAsked);
            if (queAsked.size() > 100)
                queAsked.pop_front();
            stOut.ullMostAsked = std::max(stOut.ullMostAsked, queAsked.back() - queAsked.front());
            stOut.nMostStreams = std::max(stOut.nMostStreams, rig.m_mapUinInPkt().size());
            stOut.nMostUsers = std::max(stOut.nMostUsers, rig.m_mapUinDataInfo().size());
            stOut.nMostRings = std::max(stOut.nMostRings, rig.m_mapUinPkgRingParam().size());
            if (rig.Now() % 100 == 0)
            {
                for (const MapUinInPkt::value_type& stStream : rig.m_mapUinInPkt())
                {
                    const tagUinDataBuf& st = stStream.second;
                    stOut.nMostBuffered = std::max(stOut.nMostBuffered, st.mapUdtPacket.size());
                    stOut.nMostHistory = std::max(stOut.nMostHistory, st.mapRecvSeq.size());
                    stOut.nMostRequested = std::max(stOut.nMostRequested, st.mapRequestSeq.size());
                }
            }
        }
        stOut.ullAsked = owner.m_ullAsked;
        stOut.vecGood[0] = owner.m_vecGood[0];
        stOut.vecGood[1] = owner.m_vecGood[1];
        stOut.stInfo = Info(rig);
        rig.m_recv.Stop();
        rig.m_pCB() = &rig.m_owner;
    }
    EXPECT_EQ(CRigPacket::Live(), 0) << "every packet was given back";
    printf("%u packets/s%s: heap %.1f MB, turn %.2f ms of CPU on average, %.2f at most, %llu allocations at "
           "most, asked "
           "for %llu in a second; %zu streams, %zu users, %zu unwraps, %zu buffered, %zu in history, %zu "
           "requested\n",
           dwPerTurn * 100, bGuards ? ", guarded" : "", (double)stOut.llMostBytes / 1e6,
           stOut.dTurnsMs / std::max(1u, stOut.dwTurns), stOut.dMostTurnMs, stOut.ullMostAllocs,
           stOut.ullMostAsked, stOut.nMostStreams, stOut.nMostUsers, stOut.nMostRings, stOut.nMostBuffered,
           stOut.nMostHistory, stOut.nMostRequested);
    return stOut;
}

std::vector<uint32> Missing(const std::vector<uint32>& vecReleased)
{
    std::vector<uint32> vecMissing;
    for (size_t i = 1; i < vecReleased.size(); ++i)
    {
        for (uint32 dwSeq = vecReleased[i - 1] + 1; dwSeq < vecReleased[i]; ++dwSeq)
            vecMissing.push_back(dwSeq);
    }
    return vecMissing;
}

TEST(HostileSender, CannotPushMemoryNorWorkPastTheGuardsAndGoodStreamsPlayOnWithoutAGap)
{
    constexpr uint32 c_dwAttackMs = 10000;
    const tagOutcome stAlone = Attack(c_dwAttackMs, 0, true);
    const tagOutcome stOut = Attack(c_dwAttackMs, c_dwHostilePerTurn, true);
    const tagUDTRecvGuards stGuards = AllGuards();

    // The good ones: the same packets, in the same order, none missing.
    for (int i : {0, 1})
    {
        EXPECT_GT(stOut.vecGood[i].size(), 500u);
        EXPECT_EQ(stOut.vecGood[i], stAlone.vecGood[i]);
        // What is lost before the receiver counts losses, while a server would still push, is never asked for.
        EXPECT_THAT(Missing(std::vector<uint32>(stOut.vecGood[i].begin() + 100, stOut.vecGood[i].end())),
                    IsEmpty());
    }

    // What each guard bounds.
    EXPECT_LE(stOut.nMostIntake, stGuards.dwMaxIntakePackets);
    EXPECT_LE(stOut.nMostStreams, stGuards.dwMaxStreams);
    EXPECT_LE(stOut.nMostUsers, stGuards.dwMaxAccounts);
    EXPECT_LE(stOut.nMostRings, stGuards.dwMaxAccounts * 16u);
    EXPECT_LE(stOut.nMostBuffered, stGuards.dwMaxStreamPackets);
    EXPECT_LE(stOut.nMostHistory, stGuards.dwMaxStreamHistory);
    EXPECT_LE(stOut.ullMostAsked, stGuards.dwMaxRequestsPerSecond);
    EXPECT_LE(stOut.nMostRequested, stGuards.dwMaxRequestsPerSecond * 10u) << "for 6 s, looked at every 4";

    // And so the whole: memory, and what a turn allocates.
    EXPECT_LT(stOut.llMostBytes, c_llMostGuardedBytes);
    EXPECT_LT(stOut.ullMostAllocs, 2u * stGuards.dwMaxIntakePackets);

    // It did reach them.
    EXPECT_GT(stOut.stInfo.dwIntakePackets, 0u);
    EXPECT_GT(stOut.stInfo.dwIntakeBytes, 0u);
    EXPECT_GT(stOut.stInfo.dwStreams, 0u);
    EXPECT_GT(stOut.stInfo.dwAccountsForgot, 0u);
    EXPECT_GT(stOut.stInfo.dwStreamPackets, 0u);
    EXPECT_GT(stOut.stInfo.dwStreamHistory, 0u);
    EXPECT_GT(stOut.stInfo.dwRequests, 0u);
    EXPECT_GT(stOut.stInfo.dwPullBacks, 0u);
    EXPECT_GT(stOut.stInfo.dwLatency, 0u);
}

TEST(HostileSender, PushesMemoryAsFarAsItLikesWithoutGuards)
{
    const tagOutcome stShort = Attack(500, c_dwHostilePerTurn, false);
    const tagOutcome stLong = Attack(1000, c_dwHostilePerTurn, false);
    EXPECT_GT(stLong.llMostBytes, 2 * c_llMostGuardedBytes) << "in a tenth of the time";
    EXPECT_GT(stLong.llMostBytes, stShort.llMostBytes * 4 / 3);
    EXPECT_GT(stLong.ullMostAsked, 20000u);
}

} // namespace
