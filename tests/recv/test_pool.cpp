/**
 * Many receivers stepped by a pool's few threads. Real threads and the real clock, so bounds are wide: what is
 * pinned is who is stepped and by how many at a time, not how punctually.
 */

#include "AVGUDTRecvPool.h"
#include "RecvRig.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <iterator>
#include <memory>
#include <numeric>
#include <thread>
#include <vector>

namespace
{

using namespace std::chrono_literals;

constexpr auto c_tPatience = 20s; // before a test gives up on something that takes milliseconds

// Counts how often its receiver hands it something, and whether two threads ever did so at once.
class CPoolOwner : public IUDTRecvEventCallBack
{
public:
    void OnUDTRecvOutData(UDTCodecBaseDecode_V2*, int*) override
    {
        m_bTwice = m_bTwice || m_nInside.fetch_add(1) != 0;
        if (m_fnOnRelease)
            m_fnOnRelease();
        m_nInside -= 1;
        m_nReleased += 1;
    }
    int UdtRecvHandleEvent(WORD, uint8*, uint32, uint32, uint32) override { return 0; }
    int UdtParsePacketHeadInfo(uint8*, UdtPacketHeadInfo& stHead) override
    {
        stHead.cSubType = MEAVAudio;
        stHead.uTimeStamp = 1000;
        return 0;
    }

    std::atomic<int> m_nInside{0};
    std::atomic<int> m_nReleased{0};
    std::atomic<bool> m_bTwice{false};
    std::function<void()> m_fnOnRelease;
};

// A receiver that plays whatever comes at once.
struct tagPooled
{
    tagPooled() : recv(&owner)
    {
        recv.SetOwnerDriven(TRUE);
        recv.Start();
        recv.SetRoomState(3);
    }

    // All packets carry one media time: the first waits for the gate of a new stream, the rest are due at once.
    void Feed()
    {
        tagRigPacket stPacket = AudioPacket(7, ++dwSeq);
        CScopePtr<CRigPacket> p(new CRigPacket(stPacket));
        recv.UDTReceiveNetData(dwSeq, 7, dwSeq, 0, MEAVAudio, p.p);
    }
    bool AwaitReleases(int nWanted)
    {
        const auto tEnd = std::chrono::steady_clock::now() + c_tPatience;
        while (owner.m_nReleased < nWanted && std::chrono::steady_clock::now() < tEnd)
            std::this_thread::sleep_for(1ms);
        return owner.m_nReleased >= nWanted;
    }

    CPoolOwner owner;
    CAVGUdtRecv recv;
    uint32 dwSeq = 100;
};

uint64 TurnsOf(CAVGUdtRecvPool& pool)
{
    tagRecvPoolInfo stInfo;
    pool.GetInfo(stInfo);
    return stInfo.ullTurns;
}

TEST(ThreadedPool, EveryReceiverIsSteppedByOneThreadAtATime)
{
    std::vector<std::unique_ptr<tagPooled>> vecPooled;
    CAVGUdtRecvPool pool(3);
    for (int i = 0; i < 40; ++i)
    {
        vecPooled.emplace_back(new tagPooled);
        ASSERT_TRUE(pool.Add(&vecPooled.back()->recv));
    }
    for (int n = 0; n < 20; ++n)
    {
        for (const std::unique_ptr<tagPooled>& pPooled : vecPooled)
            pPooled->Feed();
        std::this_thread::sleep_for(3ms);
    }
    for (const std::unique_ptr<tagPooled>& pPooled : vecPooled)
    {
        EXPECT_TRUE(pPooled->AwaitReleases(20)) << pPooled->owner.m_nReleased;
        EXPECT_FALSE(pPooled->owner.m_bTwice);
    }
    tagRecvPoolInfo stInfo;
    pool.GetInfo(stInfo);
    EXPECT_EQ(stInfo.dwThreads, 3u);
    EXPECT_EQ(stInfo.dwReceivers, 40u);
    EXPECT_LE(stInfo.ullLateTurns, stInfo.ullTurns);
    EXPECT_LE(stInfo.dwLatenessMax, stInfo.ullLatenessSum);
    EXPECT_EQ(std::accumulate(std::begin(stInfo.aullLateness), std::end(stInfo.aullLateness), (uint64)0),
              stInfo.ullTurns);
    EXPECT_GE(stInfo.LatenessOf(10000), stInfo.dwLatenessMax);
    EXPECT_LE(stInfo.LatenessOf(5000), stInfo.LatenessOf(9900));
    for (const std::unique_ptr<tagPooled>& pPooled : vecPooled)
        EXPECT_TRUE(pool.Remove(&pPooled->recv));
    pool.GetInfo(stInfo);
    EXPECT_EQ(stInfo.dwReceivers, 0u);
}

TEST(ThreadedPool, TurnsAreTenMillisecondsApart)
{
    tagPooled pooled;
    CAVGUdtRecvPool pool(1);
    ASSERT_TRUE(pool.Add(&pooled.recv));
    const auto tBegin = std::chrono::steady_clock::now();
    while (TurnsOf(pool) < 30 && std::chrono::steady_clock::now() < tBegin + c_tPatience)
        std::this_thread::sleep_for(1ms);
    const auto tTook = std::chrono::steady_clock::now() - tBegin;
    EXPECT_GE(TurnsOf(pool), 30u);
    EXPECT_GE(tTook, 280ms); // 29 spaces; a busy machine may take longer, none may take less
    pool.Remove(&pooled.recv);
}

TEST(ThreadedPool, ABlockedCallbackHoldsUpNobodyElse)
{
    tagPooled blocked;
    tagPooled other;
    std::atomic<bool> bGo{false};
    std::atomic<bool> bIn{false};
    blocked.owner.m_fnOnRelease = [&]
    {
        bIn = true;
        while (!bGo)
            std::this_thread::sleep_for(1ms);
    };
    CAVGUdtRecvPool pool(2);
    ASSERT_TRUE(pool.Add(&blocked.recv));
    ASSERT_TRUE(pool.Add(&other.recv));
    blocked.Feed();
    const auto tEnd = std::chrono::steady_clock::now() + c_tPatience;
    while (!bIn && std::chrono::steady_clock::now() < tEnd)
        std::this_thread::sleep_for(1ms);
    ASSERT_TRUE(bIn);
    for (int n = 1; n <= 5; ++n)
    {
        other.Feed();
        EXPECT_TRUE(other.AwaitReleases(n));
    }
    bGo = true;
    EXPECT_TRUE(blocked.AwaitReleases(1));
    pool.Remove(&blocked.recv);
    pool.Remove(&other.recv);
}

TEST(ThreadedPool, AfterRemoveNoTurnComes)
{
    CAVGUdtRecvPool pool(2);
    for (int n = 0; n < 50; ++n)
    {
        // Gone at the end of each round: a turn that came later would meet freed memory.
        tagPooled pooled;
        ASSERT_TRUE(pool.Add(&pooled.recv));
        pooled.Feed();
        if (n % 5 == 0)
            std::this_thread::sleep_for(12ms);
        ASSERT_TRUE(pool.Remove(&pooled.recv));
        EXPECT_EQ(pooled.owner.m_nInside, 0);
    }
}

TEST(ThreadedPool, RemoveFromTheReceiversOwnCallbackMakesThatTurnTheLast)
{
    tagPooled pooled;
    CAVGUdtRecvPool pool(2);
    std::atomic<int> nRemoved{0};
    pooled.owner.m_fnOnRelease = [&] { nRemoved += pool.Remove(&pooled.recv) ? 1 : 0; };
    ASSERT_TRUE(pool.Add(&pooled.recv));
    pooled.Feed();
    ASSERT_TRUE(pooled.AwaitReleases(1));
    EXPECT_EQ(nRemoved, 1);
    // From here it waits for the end of that turn, if it is still under way.
    pool.Remove(&pooled.recv);
    pooled.Feed();
    std::this_thread::sleep_for(30ms);
    EXPECT_EQ(pooled.owner.m_nReleased, 1);
}

TEST(RecvPoolInfo, LatenessOfAShareIsThePowerOfTwoAboveIt)
{
    tagRecvPoolInfo stInfo;
    EXPECT_EQ(stInfo.LatenessOf(9900), 0u);
    stInfo.ullTurns = 100;
    stInfo.aullLateness[0] = 50; // below 1 us
    stInfo.aullLateness[7] = 49; // 64 to 127 us
    stInfo.aullLateness[12] = 1; // 2048 to 4095 us
    EXPECT_EQ(stInfo.LatenessOf(5000), 1u);
    EXPECT_EQ(stInfo.LatenessOf(5001), 128u);
    EXPECT_EQ(stInfo.LatenessOf(9900), 128u);
    EXPECT_EQ(stInfo.LatenessOf(9901), 4096u);
}

TEST(ThreadedPool, RefusesNullTwiceAndStrangers)
{
    tagPooled pooled;
    CAVGUdtRecvPool pool(1);
    EXPECT_FALSE(pool.Add(nullptr));
    EXPECT_FALSE(pool.Remove(&pooled.recv));
    EXPECT_TRUE(pool.Add(&pooled.recv));
    EXPECT_FALSE(pool.Add(&pooled.recv));
    EXPECT_TRUE(pool.Remove(&pooled.recv));
    EXPECT_FALSE(pool.Remove(&pooled.recv));
}

TEST(ThreadedPool, DiesWithReceiversInIt)
{
    tagPooled pooled;
    {
        CAVGUdtRecvPool pool;
        ASSERT_TRUE(pool.Add(&pooled.recv));
        while (TurnsOf(pool) < 2)
            std::this_thread::sleep_for(1ms);
    }
    pooled.Feed(); // nobody steps it; it is still whole
    pooled.recv.Stop();
}

} // namespace
