/**
 * The receiver's two containers against std::map: whatever is done to both, both hold the same. And what they are
 * there for: no allocation in steady state, entries that stay where they are, a mark for hands from outside.
 */

#include "AVGUDTPktMap.h"
#include "AVGUDTSeqMap.h"
#include "RecvTest.h"

#include <map>
#include <memory>
#include <new>
#include <random>
#include <string>
#include <vector>

namespace
{

using testing::ElementsAre;
using testing::Pair;

typedef std::map<uint32, uint32> Plain;
typedef CUdtSeqMap<uint32> SeqMap;
typedef CUdtPktMap<std::shared_ptr<uint32>> PktMap; // a packet is something with a reference to give back

class CChance
{
public:
    explicit CChance(uint64 ullSeed) : m_engine(ullSeed) {}
    uint32 Below(uint32 dwBelow) { return (uint32)(m_engine() % dwBelow); }

    // Mostly near the end, as packets come; else anywhere around, the ends of the numbers included.
    uint32 Seq(uint32 dwNewest)
    {
        switch (Below(8))
        {
        case 0: return Below(5);
        case 1: return 0xFFFFFFFF - Below(5);
        case 2: return dwNewest - Below(2000);
        case 3: return dwNewest + 1 + Below(300);
        default: return dwNewest + 1 - Below(8);
        }
    }

private:
    std::mt19937_64 m_engine;
};

uint64 Seed() { return FromEnv("UDT_TEST_SEED", std::random_device()()); }

std::shared_ptr<uint32> Packet(uint32 dw) { return std::make_shared<uint32>(dw); }

// ---- CUdtSeqMap ------------------------------------------------------------------------------------------------

void ExpectSame(const SeqMap& map, const Plain& plain)
{
    ASSERT_EQ(map.size(), plain.size());
    ASSERT_EQ(map.empty(), plain.empty());
    ASSERT_TRUE(map == plain);
    ASSERT_TRUE(plain == map);
    ASSERT_FALSE(map != plain);
    ASSERT_TRUE(std::equal(map.rbegin(), map.rend(), plain.rbegin()));
}

TEST(SeqMap, HoldsWhatAPlainMapHoldsWhateverIsDone)
{
    const uint64 ullSeed = Seed();
    SCOPED_TRACE(testing::Message() << "UDT_TEST_SEED=" << ullSeed);
    CChance chance(ullSeed);
    for (int nRun = 0; nRun < 60; ++nRun)
    {
        SeqMap map;
        Plain plain;
        uint32 dwNewest = chance.Below(2) != 0 ? 1000 : 0xFFFFFF00;
        for (uint32 dwStep = 0; dwStep < 600; ++dwStep)
        {
            const uint32 dwSeq = chance.Seq(dwNewest);
            switch (chance.Below(16))
            {
            case 0: map[dwSeq] = dwStep, plain[dwSeq] = dwStep; break;
            case 1:
            {
                const auto stPlace = map.emplace(dwSeq, dwStep);
                ASSERT_EQ(stPlace.second, plain.emplace(dwSeq, dwStep).second);
                ASSERT_EQ(stPlace.first->first, dwSeq);
                break;
            }
            case 2: map.insert({dwSeq, dwStep}), plain.insert({dwSeq, dwStep}); break;
            case 3: ASSERT_EQ(map.erase(dwSeq), plain.erase(dwSeq)); break;
            case 4:
                if (!plain.empty())
                {
                    const uint32 dwAt = chance.Below((uint32)plain.size());
                    const SeqMap::iterator itNext = map.erase(map.begin() + dwAt);
                    const Plain::iterator itPlain = plain.erase(std::next(plain.begin(), dwAt));
                    ASSERT_EQ(itNext - map.begin(), std::distance(plain.begin(), itPlain));
                }
                break;
            case 5:
                if (map.IsBehindAll(dwSeq))
                    map.push_back(dwSeq, dwStep), plain[dwSeq] = dwStep;
                break;
            case 6:
            case 7:
                if (!plain.empty())
                    map.pop_front(), plain.erase(plain.begin());
                break;
            case 8:
            {
                const uint32 dwNear = chance.Below((uint32)map.size() + 1);
                ASSERT_EQ(map.SetNear(map.begin() + dwNear, dwSeq, dwStep)->second, dwStep);
                plain[dwSeq] = dwStep;
                break;
            }
            case 9:
            {
                SeqMap copy(map);
                ASSERT_TRUE(copy == map);
                copy[dwSeq] = 0xFFFFFFFF;
                SeqMap moved(std::move(copy));
                moved.erase(dwSeq);
                Plain plainCopy(plain);
                plainCopy.erase(dwSeq);
                ASSERT_TRUE(moved == plainCopy);
                moved.swap(map);
                moved.swap(map);
                break;
            }
            case 10:
                if (chance.Below(40) == 0)
                    map.clear(), plain.clear();
                break;
            default: map.Set(dwSeq, dwStep), plain[dwSeq] = dwStep; break;
            }
            dwNewest += chance.Below(3);

            const uint32 dwAsk = chance.Seq(dwNewest);
            ASSERT_EQ(map.count(dwAsk), plain.count(dwAsk));
            ASSERT_EQ(map.find(dwAsk) - map.begin(), plain.count(dwAsk) != 0
                                                         ? std::distance(plain.begin(), plain.find(dwAsk))
                                                         : (ptrdiff_t)plain.size());
            ASSERT_EQ(map.lower_bound(dwAsk) - map.begin(),
                      std::distance(plain.begin(), plain.lower_bound(dwAsk)));
            ASSERT_EQ(map.upper_bound(dwAsk) - map.begin(),
                      std::distance(plain.begin(), plain.upper_bound(dwAsk)));
            ASSERT_EQ(map.IsBehindAll(dwAsk), plain.lower_bound(dwAsk) == plain.end());
            ExpectSame(map, plain);
        }
    }
}

TEST(SeqMap, IsFilledFromAListAndFromAMapAndReadLikeOne)
{
    const SeqMap map = {{7, 70}, {3, 30}, {7, 71}};
    EXPECT_THAT(map, ElementsAre(Pair(3u, 30u), Pair(7u, 70u)));
    EXPECT_TRUE(SeqMap(Plain{{3, 30}, {7, 70}}) == map);
    EXPECT_EQ(map.at(7), 70u);
    EXPECT_THROW(map.at(8), std::out_of_range);
}

TEST(SeqMap, AQueueThatKeepsItsLengthTakesNoMemory)
{
    SeqMap map;
    uint32 dwSeq = 0;
    while (dwSeq < 5000)
        map.push_back(dwSeq++, 1);
    const SeqMap::value_type* pLow = nullptr;
    const SeqMap::value_type* pHigh = nullptr;
    for (int n = 0; n < 50000; ++n)
    {
        map.pop_front();
        map.push_back(dwSeq++, 1);
        if (n == 20000)
            pLow = pHigh = map.begin();
        if (n > 20000) // it wanders within one array
        {
            pLow = std::min<const SeqMap::value_type*>(pLow, map.begin());
            pHigh = std::max<const SeqMap::value_type*>(pHigh, map.end());
        }
    }
    EXPECT_LE(pHigh - pLow, 2 * 5000 + 8);
}

// A queue: the newest entry comes, the oldest leave until so many are left.
void Queue(SeqMap& map, uint32& dwSeq, size_t nLeave)
{
    map.push_back(dwSeq, dwSeq);
    ++dwSeq;
    while (map.size() > nLeave)
        map.pop_front();
}

TEST(SeqMap, WhatABurstTookIsGivenBack)
{
    SeqMap map;
    uint32 dwSeq = 0;
    for (int n = 0; n < 5000; ++n)
        Queue(map, dwSeq, 100);
    const size_t nBefore = map.capacity();
    EXPECT_LE(nBefore, 330u);
    for (int n = 0; n < 3000; ++n)
        Queue(map, dwSeq, 2000);
    EXPECT_GE(map.capacity(), 2000u);
    for (int n = 0; n < 20000; ++n)
        Queue(map, dwSeq, 100);
    EXPECT_LE(map.capacity(), 330u);
    ASSERT_EQ(map.size(), 100u);
    for (const SeqMap::value_type& st : map)
        ASSERT_EQ(st.first, st.second);

    // The same where all come before one that stays: such entries are put in, not appended.
    SeqMap tail = {{0xFFFFFFFF, 1}};
    for (dwSeq = 0; dwSeq < 30000; ++dwSeq)
    {
        tail.emplace(dwSeq, dwSeq);
        while (tail.size() > (dwSeq < 3000 ? 2000u : 100u))
            tail.pop_front();
    }
    EXPECT_LE(tail.capacity(), 330u);
    EXPECT_EQ(tail.size(), 100u);
    EXPECT_EQ(tail.begin()->first, 29901u);
    EXPECT_EQ(tail.rbegin()->first, 0xFFFFFFFFu);
}

TEST(SeqMap, AQueueThatBreathesKeepsItsArray)
{
    for (const uint32 dwGulp : {2u, 10u, 60u, 100u, 500u, 1000u})
    {
        SeqMap gulps; // all leave together
        SeqMap waves; // half of them
        for (uint32 dwSeq = 0, dwBefore = 0; dwSeq < 50000; ++dwSeq)
        {
            gulps.push_back(dwSeq, 1);
            waves.push_back(dwSeq, 1);
            const size_t nLeave = dwSeq % dwGulp == dwGulp - 1 ? 0 : dwGulp;
            while (gulps.size() > nLeave)
                gulps.pop_front();
            while (waves.size() > std::max<size_t>(nLeave, dwGulp / 2))
                waves.pop_front();
            const uint32 dwNow = (uint32)(gulps.capacity() + waves.capacity());
            if (dwSeq > 5000)
            {
                ASSERT_EQ(dwNow, dwBefore) << dwGulp << " at " << dwSeq;
            }
            dwBefore = dwNow;
        }
        EXPECT_LE(gulps.capacity(), std::max(64u, 5 * (dwGulp + 32) / 2));
        EXPECT_LE(waves.capacity(), std::max(64u, 5 * (dwGulp + 32) / 2));
    }
}

// ---- CUdtPktMap ------------------------------------------------------------------------------------------------

typedef std::map<uint32, std::shared_ptr<uint32>> PlainPackets;

void ExpectSame(const PktMap& map, const PlainPackets& plain)
{
    ASSERT_EQ(map.size(), plain.size());
    ASSERT_EQ(map.empty(), plain.empty());
    ASSERT_TRUE(std::equal(map.begin(), map.end(), plain.begin(), plain.end()));
    ASSERT_TRUE(std::equal(map.rbegin(), map.rend(), plain.rbegin(), plain.rend()));
    const PktMap::tagNode* pNode = map.Head();
    for (const auto& stPlain : plain)
    {
        ASSERT_EQ(pNode->Seq(), stPlain.first);
        pNode = pNode->pNext;
    }
    ASSERT_EQ(pNode, nullptr);
    ASSERT_EQ(map.Tail() != nullptr ? map.Tail()->Seq() : 0, plain.empty() ? 0 : plain.rbegin()->first);
}

TEST(PktMap, HoldsWhatAPlainMapHoldsWhateverIsDone)
{
    const uint64 ullSeed = Seed();
    SCOPED_TRACE(testing::Message() << "UDT_TEST_SEED=" << ullSeed);
    CChance chance(ullSeed);
    for (int nRun = 0; nRun < 60; ++nRun)
    {
        PktMap map;
        PlainPackets plain;
        uint32 dwNewest = chance.Below(2) != 0 ? 1000 : 0xFFFFFF00;
        for (uint32 dwStep = 0; dwStep < 600; ++dwStep)
        {
            const uint32 dwSeq = chance.Seq(dwNewest);
            const std::shared_ptr<uint32> pkt = Packet(dwStep);
            switch (chance.Below(16))
            {
            case 0: map[dwSeq] = pkt, plain[dwSeq] = pkt; break;
            case 1: ASSERT_EQ(map.emplace(dwSeq, pkt).second, plain.emplace(dwSeq, pkt).second); break;
            case 2: map.emplace_hint(map.begin(), dwSeq, pkt), plain.emplace(dwSeq, pkt); break;
            case 3: ASSERT_EQ(map.erase(dwSeq), plain.erase(dwSeq)); break;
            case 4:
                if (!plain.empty())
                {
                    const uint32 dwAt = chance.Below((uint32)plain.size());
                    const PktMap::iterator itNext = map.erase(std::next(map.begin(), dwAt));
                    const PlainPackets::iterator itPlain = plain.erase(std::next(plain.begin(), dwAt));
                    ASSERT_EQ(std::distance(map.begin(), itNext), std::distance(plain.begin(), itPlain));
                }
                break;
            case 5:
                if (map.Tail() == nullptr || map.Tail()->Seq() < dwSeq)
                    map.Append(dwSeq, pkt), plain[dwSeq] = pkt;
                break;
            case 6:
            case 7:
                if (!plain.empty())
                    map.Remove(map.Head()), plain.erase(plain.begin());
                break;
            case 8:
            {
                PktMap::tagNode* const pAt = map.FindFrom(dwSeq);
                if (pAt == nullptr || pAt->Seq() != dwSeq)
                    map.Insert(pAt, dwSeq, pkt), plain[dwSeq] = pkt;
                break;
            }
            case 9:
            {
                PktMap copy(map);
                ExpectSame(copy, plain);
                copy[dwSeq] = nullptr;
                PktMap moved(std::move(copy));
                copy = moved;
                moved.swap(map);
                moved.swap(map);
                break;
            }
            case 10:
                if (chance.Below(40) == 0)
                    map.clear(), plain.clear();
                break;
            case 11: map.insert_or_assign(dwSeq, pkt), plain.insert_or_assign(dwSeq, pkt); break;
            case 12:
            {
                const auto stRange = map.equal_range(dwSeq);
                map.erase(stRange.first, stRange.second);
                plain.erase(dwSeq);
                break;
            }
            default: map.insert({dwSeq, pkt}), plain.insert({dwSeq, pkt}); break;
            }
            dwNewest += chance.Below(3);

            const uint32 dwAsk = chance.Seq(dwNewest);
            const PktMap& constMap = map;
            ASSERT_EQ(constMap.count(dwAsk), plain.count(dwAsk));
            ASSERT_EQ(constMap.find(dwAsk) != constMap.end(), plain.count(dwAsk) != 0);
            ASSERT_EQ(std::distance(constMap.begin(), constMap.lower_bound(dwAsk)),
                      std::distance(plain.begin(), plain.lower_bound(dwAsk)));
            ASSERT_EQ(std::distance(constMap.begin(), constMap.upper_bound(dwAsk)),
                      std::distance(plain.begin(), plain.upper_bound(dwAsk)));
            ExpectSame(map, plain);
        }
        // Every packet that left gave its reference back: the rest are held here, there and in nothing else.
        for (const auto& stPlain : plain)
            ASSERT_LE(stPlain.second.use_count(), 2);
    }
}

TEST(PktMap, AnEntryStaysWhereItIsWhileOthersComeAndGo)
{
    PktMap map;
    map[500] = Packet(1);
    const PktMap::iterator it = map.find(500);
    const auto* const pEntry = &*it;
    for (uint32 dwSeq = 0; dwSeq < 1000; ++dwSeq)
        map.emplace(dwSeq * 7 % 1000, Packet(dwSeq));
    for (uint32 dwSeq = 0; dwSeq < 1000; dwSeq += 3)
        map.erase(dwSeq);
    EXPECT_EQ(&*map.find(500), pEntry);
    EXPECT_EQ(std::next(it)->first, 502u);
    EXPECT_EQ(std::prev(it)->first, 499u);
    EXPECT_EQ(*it->second, 1u);
}

TEST(PktMap, TheEndLeadsBackToTheLastEntry)
{
    PktMap map = {{3, nullptr}, {1, nullptr}};
    EXPECT_EQ(std::prev(map.end())->first, 3u);
    PktMap::const_iterator it = map.cend();
    EXPECT_EQ((it--, it)->first, 3u);
    EXPECT_EQ((it--)->first, 3u);
    EXPECT_EQ((it++)->first, 1u);
    EXPECT_TRUE(map.begin() == map.cbegin());
    EXPECT_THROW(map.at(2), std::out_of_range);
    EXPECT_EQ(map.at(1), nullptr);
}

TEST(PktMap, EveryWayInThatCouldChangeAnEntryMarksIt)
{
    PktMap map = {{1, nullptr}, {2, nullptr}, {3, nullptr}};
    const PktMap& constMap = map;
    PktMap other;
    EXPECT_TRUE(map.TakeTouched()) << "new";
    EXPECT_FALSE(map.TakeTouched());
#define EXPECT_TOUCHES(what)                   \
    {                                          \
        map.TakeTouched();                     \
        (void)(what);                          \
        EXPECT_TRUE(map.IsTouched()) << #what; \
    }
#define EXPECT_LEAVES_ALONE(what)               \
    {                                           \
        map.TakeTouched();                      \
        (void)(what);                           \
        EXPECT_FALSE(map.IsTouched()) << #what; \
    }
    EXPECT_TOUCHES(map.begin())
    EXPECT_TOUCHES(map.end())
    EXPECT_TOUCHES(map.rbegin())
    EXPECT_TOUCHES(map.rend())
    EXPECT_TOUCHES(map.find(1))
    EXPECT_TOUCHES(map.lower_bound(1))
    EXPECT_TOUCHES(map.upper_bound(1))
    EXPECT_TOUCHES(map.equal_range(1))
    EXPECT_TOUCHES(map[1])
    EXPECT_TOUCHES(map.at(1))
    EXPECT_TOUCHES(map.try_emplace(1))
    EXPECT_TOUCHES(map.emplace(4, nullptr))
    EXPECT_TOUCHES(map.insert({5, nullptr}))
    EXPECT_TOUCHES(map.insert_or_assign(5, nullptr))
    EXPECT_TOUCHES(map.erase(5))
    EXPECT_TOUCHES(map.erase(map.cbegin()))
    EXPECT_TOUCHES((map.swap(other), map.swap(other), 0))
    EXPECT_TOUCHES(map = PktMap({{1, nullptr}, {2, nullptr}}))
    EXPECT_TOUCHES((map.clear(), 0))
    EXPECT_TOUCHES((map.Touch(), 0))
    EXPECT_LEAVES_ALONE(map.Append(8, nullptr))
    EXPECT_LEAVES_ALONE(map.Insert(map.Head(), 7, nullptr))
    EXPECT_LEAVES_ALONE(map.FindFrom(7))
    EXPECT_LEAVES_ALONE(map.Tail())
    EXPECT_LEAVES_ALONE(map.Remove(map.Head()))
    EXPECT_LEAVES_ALONE(map.size())
    EXPECT_LEAVES_ALONE(constMap.begin())
    EXPECT_LEAVES_ALONE(constMap.end())
    EXPECT_LEAVES_ALONE(constMap.find(8))
    EXPECT_LEAVES_ALONE(constMap.at(8))
    EXPECT_LEAVES_ALONE(constMap.count(8))
    EXPECT_LEAVES_ALONE(map.cbegin())
#undef EXPECT_TOUCHES
#undef EXPECT_LEAVES_ALONE
}

TEST(PktMap, AQueueThatKeepsItsLengthUsesItsNodesAgain)
{
    PktMap map;
    uint32 dwSeq = 0;
    while (dwSeq < 300)
        map.Append(dwSeq++, nullptr);
    std::map<const void*, int> mapNodes;
    for (int n = 0; n < 5000; ++n)
    {
        for (int i = 0; i < 10; ++i)
            map.Remove(map.Head());
        for (int i = 0; i < 10; ++i)
            mapNodes[map.Append(dwSeq++, nullptr)] += 1;
    }
    EXPECT_LE(mapNodes.size(), 300u);
}

} // namespace
