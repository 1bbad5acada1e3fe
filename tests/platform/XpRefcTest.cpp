#include "xprefc.h"
#include <gtest/gtest.h>
#include <list>
#include <thread>
#include <type_traits>
#include <utility>
#include <vector>

namespace
{
struct tagSelfCounted : st_obj
{
    explicit tagSelfCounted(int& nGoneRef) : nGone(nGoneRef) {}
    tagSelfCounted(const tagSelfCounted&) = default;
    ~tagSelfCounted() override { ++nGone; }
    int& nGone;
    CScopePtr<tagSelfCounted> pNext;
};

// Anything with the two operations will do; no base, no virtual.
struct tagForeign
{
    int nRefs = 0;
    void AddRef() { ++nRefs; }
    void Release() { --nRefs; }
};

static_assert(sizeof(CScopePtr<tagForeign>) == sizeof(void*), "one pointer");
static_assert(std::is_same<st_obj, tag_st_obj>::value, "two names of one");
static_assert(std::has_virtual_destructor<st_obj>::value, "the one virtual");
static_assert(sizeof(st_obj) == 3 * sizeof(void*), "table, internal pointer, count");
static_assert(std::is_nothrow_move_constructible<CScopePtr<st_obj>>::value, "containers may move it");
} // namespace

TEST(RefCount, AFreshObjectHoldsNoReferenceAndTheLastReleaseDeletesIt)
{
    int nGone = 0;
    tagSelfCounted* pObj = new tagSelfCounted(nGone);
    EXPECT_EQ(pObj->iRefs, 0);
    EXPECT_EQ(pObj->AddRef(), 1);
    EXPECT_EQ(pObj->AddRef(), 2);
    EXPECT_EQ(pObj->Release(), FALSE);
    EXPECT_EQ(nGone, 0);
    EXPECT_EQ(pObj->Release(), TRUE);
    EXPECT_EQ(nGone, 1);
}

TEST(RefCount, ACopiedObjectStartsWithoutReferencesAndKeepsItsOwnWhenAssigned)
{
    int nGone = 0;
    CScopePtr<tagSelfCounted> pOne(new tagSelfCounted(nGone));
    CScopePtr<tagSelfCounted> pTwo(new tagSelfCounted(*pOne));
    EXPECT_EQ(pTwo->iRefs, 1);
    static_cast<st_obj&>(*pTwo) = *pOne;
    EXPECT_EQ(pTwo->iRefs, 1);
    EXPECT_EQ(pOne->iRefs, 1);
}

TEST(ScopePtr, OwnsFromTheFirstPointerToTheLast)
{
    int nGone = 0;
    {
        CScopePtr<tagSelfCounted> pOne(new tagSelfCounted(nGone));
        EXPECT_EQ(pOne.p->iRefs, 1);
        CScopePtr<tagSelfCounted> pTwo(pOne);
        EXPECT_EQ(pOne->iRefs, 2);
        CScopePtr<tagSelfCounted> pThree;
        EXPECT_EQ(pThree.p, nullptr);
        pThree = pTwo;
        EXPECT_EQ((*pOne).iRefs, 3);
        pTwo = nullptr;
        EXPECT_EQ(pOne->iRefs, 2);
        pThree = (tagSelfCounted*)nullptr;
        EXPECT_EQ(pOne->iRefs, 1);
        EXPECT_EQ(nGone, 0);
        EXPECT_TRUE(pOne);
        EXPECT_TRUE(!pTwo);
        EXPECT_EQ(pOne, pOne.p);
    }
    EXPECT_EQ(nGone, 1);
}

TEST(ScopePtr, AssigningWhatItHoldsKeepsIt)
{
    int nGone = 0;
    CScopePtr<tagSelfCounted> pOne(new tagSelfCounted(nGone));
    CScopePtr<tagSelfCounted>& pSame = pOne;
    pOne = pSame;
    EXPECT_EQ(pOne->iRefs, 1);
    pOne = pOne.p;
    EXPECT_EQ(pOne->iRefs, 1);
    pOne = std::move(pSame);
    ASSERT_NE(pOne.p, nullptr);
    EXPECT_EQ(pOne->iRefs, 1);
    EXPECT_EQ(nGone, 0);
}

TEST(ScopePtr, WalkingAlongAChainSurvivesTheReleaseOfTheHead)
{
    // pHead is all that keeps the first, and the first all that keeps the second.
    int nGone = 0;
    CScopePtr<tagSelfCounted> pHead(new tagSelfCounted(nGone));
    pHead->pNext = new tagSelfCounted(nGone);
    pHead = pHead->pNext;
    EXPECT_EQ(nGone, 1);
    EXPECT_EQ(pHead->iRefs, 1);
    pHead->pNext = new tagSelfCounted(nGone);
    pHead = std::move(pHead->pNext);
    EXPECT_EQ(nGone, 2);
    EXPECT_EQ(pHead->iRefs, 1);
}

TEST(ScopePtr, MovingHandsTheReferenceOver)
{
    tagForeign stObj;
    {
        CScopePtr<tagForeign> pOne(&stObj);
        CScopePtr<tagForeign> pTwo(std::move(pOne));
        EXPECT_EQ(pOne.p, nullptr);
        EXPECT_EQ(stObj.nRefs, 1);
        pOne = std::move(pTwo);
        EXPECT_EQ(pTwo.p, nullptr);
        EXPECT_EQ(stObj.nRefs, 1);
        std::list<CScopePtr<tagForeign>> list(3, pOne);
        EXPECT_EQ(stObj.nRefs, 4);
    }
    EXPECT_EQ(stObj.nRefs, 0);
}

TEST(ScopePtr, APointerToADerivedObjectFillsAPointerToItsBase)
{
    int nGone = 0;
    {
        CScopePtr<tagSelfCounted> pDerived(new tagSelfCounted(nGone));
        CScopePtr<st_obj> pBase(pDerived);
        EXPECT_EQ(pDerived->iRefs, 2);
        pBase = pDerived;
        EXPECT_EQ(pDerived->iRefs, 2);
        pDerived = nullptr;
        EXPECT_EQ(nGone, 0);
    }
    EXPECT_EQ(nGone, 1);
}

TEST(RefCount, ThreadsThatShareAnObjectDeleteItOnce)
{
    int nGone = 0;
    CScopePtr<tagSelfCounted> pShared(new tagSelfCounted(nGone));
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i)
        threads.emplace_back(
            [pMine = pShared]() mutable
            {
                for (int k = 0; k < 10000; ++k)
                {
                    CScopePtr<tagSelfCounted> pCopy(pMine);
                    CScopePtr<tagSelfCounted> pOther;
                    pOther = pCopy;
                }
                pMine = nullptr;
            });
    pShared = nullptr;
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(nGone, 1);
}
