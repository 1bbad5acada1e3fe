#include "xpmap.h"
#include <algorithm>
#include <cmath>
#include <cstddef>
#include <cstdlib>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <iostream>
#include <iterator>
#include <map>
#include <memory>
#include <random>
#include <stdexcept>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

using ::testing::ElementsAre;
using ::testing::IsEmpty;

namespace
{
typedef xpstl::map<int, unsigned int> IntMap;
typedef xpstl::RBTree<int, unsigned int> IntNode;

// A key with nothing but `<` and copying.
class COnlyLess
{
public:
    explicit COnlyLess(int n) : m_n(n) {}
    bool operator<(const COnlyLess& other) const { return m_n < other.m_n; }
    int Get() const { return m_n; }

private:
    int m_n;
};

// A value that knows how many of its kind live, and what its assignments overwrote.
struct tagCounted
{
    tagCounted(int nTheValue = 0) : nValue(nTheValue) { ++s_nLive; }
    tagCounted(const tagCounted& other) : nValue(other.nValue)
    {
        if (s_nCopiesUntilThrow > 0 && --s_nCopiesUntilThrow == 0)
            throw std::runtime_error("no more copies");
        ++s_nLive;
    }
    tagCounted& operator=(const tagCounted& other)
    {
        s_listOverwritten.push_back(nValue);
        nValue = other.nValue;
        return *this;
    }
    ~tagCounted()
    {
        --s_nLive;
        s_listGone.push_back(nValue);
    }

    static void Forget()
    {
        s_listOverwritten.clear();
        s_listGone.clear();
        s_nCopiesUntilThrow = 0;
    }

    int nValue;
    static int s_nLive;
    static int s_nCopiesUntilThrow; // 0: never
    static std::vector<int> s_listOverwritten;
    static std::vector<int> s_listGone;
};
int tagCounted::s_nLive = 0;
int tagCounted::s_nCopiesUntilThrow = 0;
std::vector<int> tagCounted::s_listOverwritten;
std::vector<int> tagCounted::s_listGone;

typedef xpstl::map<int, tagCounted> CountedMap;

// Marks the map whose nodes are counted below.
struct tagNodeCount
{
    int nValue = 0;
    static int s_nNews;
    static int s_nDeletes;
};
int tagNodeCount::s_nNews = 0;
int tagNodeCount::s_nDeletes = 0;

class CDerivedMap : public IntMap
{
};
} // namespace

// The same node, but its allocations are counted.
template <>
struct xpstl::RBTree<int, tagNodeCount>
{
    RBTree(const int& key, const tagNodeCount& value)
        : first(key), second(value), LeftChild(nullptr), RightChild(nullptr), Parent(nullptr), IsRed(true)
    {
    }

    static void* operator new(std::size_t nSize)
    {
        ++tagNodeCount::s_nNews;
        return ::operator new(nSize);
    }

    static void operator delete(void* p)
    {
        ++tagNodeCount::s_nDeletes;
        ::operator delete(p);
    }

    int first;
    tagNodeCount second;
    RBTree* LeftChild;
    RBTree* RightChild;
    RBTree* Parent;
    bool IsRed;
};

// Every member compiles: for the plain map, for a key that can only be compared, and for values that own something.
template class xpstl::map<int, unsigned int>;
template class xpstl::map<COnlyLess, std::vector<int>>;
template class xpstl::map<std::string, std::shared_ptr<int>>;
template class xpstl::map<const char*, bool>;

static_assert(std::is_same<IntMap::Node, IntNode>::value, "a map's node");
static_assert(std::is_same<IntMap::value_type, std::pair<int, unsigned int>>::value, "what insert takes");
static_assert(std::is_same<decltype(IntNode::first), int>::value, "the key");
static_assert(std::is_same<decltype(IntNode::second), unsigned int>::value, "the value");
static_assert(std::is_standard_layout<IntNode>::value, "so offsets mean something");
static_assert(offsetof(IntNode, first) == 0 && offsetof(IntNode, first) < offsetof(IntNode, second) &&
                  offsetof(IntNode, second) < offsetof(IntNode, LeftChild) &&
                  offsetof(IntNode, LeftChild) < offsetof(IntNode, RightChild) &&
                  offsetof(IntNode, RightChild) < offsetof(IntNode, Parent) &&
                  offsetof(IntNode, Parent) < offsetof(IntNode, IsRed),
              "the node's fields in their order");
static_assert(std::is_same<decltype(IntMap::Root), IntNode*>::value, "the root");
static_assert(std::is_same<decltype(IntMap::Size), uint32>::value, "the size");
static_assert(std::is_convertible<IntMap::iterator, IntMap::const_iterator>::value,
              "reading is always allowed");
static_assert(!std::is_convertible<IntMap::const_iterator, IntMap::iterator>::value, "writing is not");
static_assert(!std::is_convertible<IntMap::const_ParentLastiterator, IntMap::ParentLastiterator>::value,
              "nor here");

namespace
{
// A tree as text: a node is its key, with an "r" when red, and its two sides when it has any; "." is a missing side.
template <class Node>
std::string Shape(const Node* pNode)
{
    if (pNode == nullptr)
        return ".";
    std::string strShape = std::to_string(pNode->first) + (pNode->IsRed ? "r" : "");
    if (pNode->LeftChild != nullptr || pNode->RightChild != nullptr)
        strShape += "(" + Shape(pNode->LeftChild) + " " + Shape(pNode->RightChild) + ")";
    return strShape;
}

IntMap MapOf(const std::vector<int>& listKeys)
{
    IntMap mapOut;
    for (int nKey : listKeys)
        EXPECT_TRUE(mapOut.insert(nKey, (unsigned int)nKey * 10u));
    return mapOut;
}

std::vector<int> Range(int nFirst, int nLast)
{
    std::vector<int> listOut;
    for (int n = nFirst; nFirst <= nLast ? n <= nLast : n >= nLast; n += nFirst <= nLast ? 1 : -1)
        listOut.push_back(n);
    return listOut;
}

// The keys an iterator passes from where it stands to its end.
template <class It>
std::vector<int> Keys(It it)
{
    std::vector<int> listKeys;
    for (; it.Cur != nullptr; it.inc())
        listKeys.push_back(it.Cur->first);
    return listKeys;
}

template <class It>
std::vector<int> KeysBackwards(It it)
{
    std::vector<int> listKeys;
    for (; it.Cur != nullptr; it.dec())
        listKeys.push_back(it.Cur->first);
    return listKeys;
}

enum emOrder
{
    PRE,
    IN,
    POST
};

template <class Node>
void Walk(const Node* pNode, emOrder eOrder, std::vector<int>& listKeys)
{
    if (pNode == nullptr)
        return;
    if (eOrder == PRE)
        listKeys.push_back(pNode->first);
    Walk(pNode->LeftChild, eOrder, listKeys);
    if (eOrder == IN)
        listKeys.push_back(pNode->first);
    Walk(pNode->RightChild, eOrder, listKeys);
    if (eOrder == POST)
        listKeys.push_back(pNode->first);
}

template <class Map>
std::vector<int> Walked(const Map& mapIn, emOrder eOrder)
{
    std::vector<int> listKeys;
    Walk(mapIn.getRoot(), eOrder, listKeys);
    return listKeys;
}

struct tagTreeFacts
{
    int nNodes = 0;
    int nHeight = 0;      // nodes on the longest way down
    int nBlackHeight = 0; // black nodes on every way down, or -1 where the ways differ
    bool bRedUnderRed = false;
    bool bLinksAgree = true; // every child names its parent
};

template <class Node>
tagTreeFacts Facts(const Node* pNode)
{
    tagTreeFacts stFacts;
    if (pNode == nullptr)
        return stFacts;
    const tagTreeFacts stLeft = Facts(pNode->LeftChild);
    const tagTreeFacts stRight = Facts(pNode->RightChild);
    stFacts.nNodes = 1 + stLeft.nNodes + stRight.nNodes;
    stFacts.nHeight = 1 + std::max(stLeft.nHeight, stRight.nHeight);
    stFacts.nBlackHeight = stLeft.nBlackHeight == stRight.nBlackHeight && stLeft.nBlackHeight >= 0
                               ? stLeft.nBlackHeight + (pNode->IsRed ? 0 : 1)
                               : -1;
    stFacts.bRedUnderRed = stLeft.bRedUnderRed || stRight.bRedUnderRed;
    stFacts.bLinksAgree = stLeft.bLinksAgree && stRight.bLinksAgree;
    for (const Node* pChild : {pNode->LeftChild, pNode->RightChild})
    {
        if (pChild == nullptr)
            continue;
        stFacts.bRedUnderRed = stFacts.bRedUnderRed || (pNode->IsRed && pChild->IsRed);
        stFacts.bLinksAgree = stFacts.bLinksAgree && pChild->Parent == pNode;
    }
    return stFacts;
}

// What holds for every tree, whatever was done to it.
template <class Map>
void ExpectSearchTree(const Map& mapIn)
{
    const tagTreeFacts stFacts = Facts(mapIn.getRoot());
    EXPECT_EQ((uint32)stFacts.nNodes, mapIn.size());
    EXPECT_TRUE(stFacts.bLinksAgree);
    const std::vector<int> listKeys = Walked(mapIn, IN);
    EXPECT_TRUE(std::is_sorted(listKeys.begin(), listKeys.end()));
    EXPECT_EQ(std::adjacent_find(listKeys.begin(), listKeys.end()), listKeys.end());
    if (mapIn.getRoot() != nullptr)
    {
        EXPECT_EQ(mapIn.getRoot()->Parent, nullptr);
        EXPECT_FALSE(mapIn.getRoot()->IsRed);
    }
}

// What holds as long as nothing was erased.
template <class Map>
void ExpectRedBlackTree(const Map& mapIn)
{
    ExpectSearchTree(mapIn);
    const tagTreeFacts stFacts = Facts(mapIn.getRoot());
    EXPECT_FALSE(stFacts.bRedUnderRed);
    EXPECT_GE(stFacts.nBlackHeight, 0);
    EXPECT_LE(stFacts.nHeight, 2.0 * std::log2(mapIn.size() + 1.0));
}

// Random tests are the same on every run; UDT_TEST_SEED asks for others. The seed is always told.
uint32 Seed()
{
    const char* pszSeed = std::getenv("UDT_TEST_SEED");
    const uint32 dwSeed = pszSeed != nullptr ? (uint32)std::strtoul(pszSeed, nullptr, 10) : 20240711u;
    std::cout << "seed " << dwSeed << " (UDT_TEST_SEED)\n";
    return dwSeed;
}

int Below(std::mt19937& random, int nLimit) { return (int)(random() % (uint32)nLimit); }
} // namespace

// --- nodes and the empty map --------------------------------------------------------------------------

TEST(XpMapNode, IsRedWithoutLinksWhenNew)
{
    const IntNode stNode(5, 50);
    EXPECT_EQ(stNode.first, 5);
    EXPECT_EQ(stNode.second, 50u);
    EXPECT_EQ(stNode.LeftChild, nullptr);
    EXPECT_EQ(stNode.RightChild, nullptr);
    EXPECT_EQ(stNode.Parent, nullptr);
    EXPECT_TRUE(stNode.IsRed);

    const IntNode stZero;
    EXPECT_EQ(stZero.first, 0);
    EXPECT_EQ(stZero.second, 0u);
    EXPECT_TRUE(stZero.IsRed);
}

TEST(XpMap, AnEmptyMapHasNoRootNoEntryAndNothingToIterate)
{
    IntMap mapEmpty;
    EXPECT_EQ(mapEmpty.Root, nullptr);
    EXPECT_EQ(mapEmpty.Size, 0u);
    EXPECT_EQ(mapEmpty.getRoot(), nullptr);
    EXPECT_EQ(mapEmpty.size(), 0u);
    EXPECT_TRUE(mapEmpty.empty());
    EXPECT_TRUE(mapEmpty.isEmpty());
    EXPECT_TRUE(mapEmpty.begin() == mapEmpty.end());
    EXPECT_EQ(mapEmpty.begin().Cur, nullptr);
    EXPECT_EQ(mapEmpty.getiterator().Cur, nullptr);
    EXPECT_EQ(mapEmpty.getParentFirstiterator().Cur, nullptr);
    EXPECT_EQ(mapEmpty.getParentLastiterator().Cur, nullptr);
    EXPECT_EQ(mapEmpty.findnode(1), nullptr);
    EXPECT_EQ(mapEmpty.find(1).Cur, nullptr);
    EXPECT_EQ(mapEmpty.lower_bound(1).Cur, nullptr);
    EXPECT_EQ(mapEmpty.upper_bound(1).Cur, nullptr);
    EXPECT_EQ(mapEmpty.delink(1), nullptr);
    EXPECT_FALSE(mapEmpty.erase(1));
    EXPECT_FALSE(mapEmpty.erase(mapEmpty.end()));
    mapEmpty.clear();
    EXPECT_TRUE(mapEmpty.empty());
}

// --- inserting ----------------------------------------------------------------------------------------

TEST(XpMap, InsertAddsAnEntryAndADuplicateChangesNothing)
{
    IntMap mapInt;
    EXPECT_TRUE(mapInt.insert(5, 50u));
    EXPECT_FALSE(mapInt.insert(5, 51u));
    EXPECT_EQ(mapInt.size(), 1u);
    EXPECT_EQ(mapInt.find(5)->second, 50u);
    EXPECT_FALSE(mapInt.empty());
    EXPECT_FALSE(mapInt.isEmpty());
}

TEST(XpMap, InsertOfAPairAlsoTellsWhereTheEntryIs)
{
    IntMap mapInt;
    const std::pair<IntMap::iterator, bool> added = mapInt.insert(IntMap::value_type(5, 50u));
    EXPECT_TRUE(added.second);
    EXPECT_EQ(added.first.Cur, mapInt.findnode(5));
    EXPECT_EQ(added.first.Root, mapInt.getRoot());

    const std::pair<IntMap::iterator, bool> refused = mapInt.insert(std::make_pair(5, 51u));
    EXPECT_FALSE(refused.second);
    EXPECT_EQ(refused.first.Cur, mapInt.findnode(5));
    EXPECT_EQ(refused.first->second, 50u);
    EXPECT_EQ(mapInt.size(), 1u);

    EXPECT_TRUE(mapInt.insert({6, 60u}).second);

    // The third entry turns the tree round: the iterator knows the new root.
    const std::pair<IntMap::iterator, bool> third = mapInt.insert({7, 70u});
    EXPECT_EQ(third.first.Root->first, 6);
    EXPECT_EQ(third.first->first, 7);
}

TEST(XpMap, SetOverwritesOrInserts)
{
    IntMap mapInt;
    mapInt.set(5, 50u);
    EXPECT_EQ(mapInt.size(), 1u);
    EXPECT_EQ(mapInt.find(5)->second, 50u);
    IntNode* pNode = mapInt.findnode(5);
    mapInt.set(5, 51u);
    EXPECT_EQ(mapInt.size(), 1u);
    EXPECT_EQ(mapInt.find(5)->second, 51u);
    EXPECT_EQ(mapInt.findnode(5), pNode);
}

TEST(XpMap, TakesItsOwnEntriesAsArguments)
{
    IntMap mapInt = MapOf({1, 2, 3});
    mapInt.set(1, mapInt.findnode(3)->second);
    mapInt.set(9, mapInt.findnode(1)->second);
    EXPECT_EQ(mapInt.findnode(9)->second, 30u);
    EXPECT_TRUE(mapInt.erase(mapInt.findnode(2)->first)); // the key goes with the node
    EXPECT_THAT(Keys(mapInt.begin()), ElementsAre(1, 3, 9));
}

TEST(XpMap, InsertionBuildsTheseTrees)
{
    const struct
    {
        const char* pszCase;
        std::vector<int> listKeys;
        const char* pszWant;
    } arrCases[] = {
        {"the first is a black root", {1}, "1"},
        {"the second hangs red", {1, 2}, "1(. 2r)"},
        {"balanced as it came", {2, 1, 3}, "2(1r 3r)"},
        {"outer right", {1, 2, 3}, "2(1r 3r)"},
        {"outer left", {3, 2, 1}, "2(1r 3r)"},
        {"inner left", {3, 1, 2}, "2(1r 3r)"},
        {"inner right", {1, 3, 2}, "2(1r 3r)"},
        {"a red uncle on the left", {2, 1, 3, 4}, "2(1 3(. 4r))"},
        {"a red uncle on the right", {3, 2, 4, 1}, "3(2(1r .) 4)"},
        {"rising to seven", Range(1, 7), "2(1 4r(3 6(5r 7r)))"},
        {"falling from seven", Range(7, 1), "6(4r(2(1r 3r) 5) 7)"},
        {"a red uncle, then a turn at the root", Range(1, 8), "4(2r(1 3) 6r(5 7(. 8r)))"},
    };
    for (const auto& stCase : arrCases)
        EXPECT_EQ(Shape(MapOf(stCase.listKeys).getRoot()), stCase.pszWant) << stCase.pszCase;
}

TEST(XpMap, ATreeOfAThousandRisingKeysStaysLow)
{
    for (const std::vector<int>& listKeys : {Range(1, 1000), Range(1000, 1)})
    {
        IntMap mapInt = MapOf(listKeys);
        EXPECT_EQ(mapInt.size(), 1000u);
        EXPECT_LE(Facts(mapInt.getRoot()).nHeight, 2.0 * std::log2(1000.0));
        ExpectRedBlackTree(mapInt);
        EXPECT_FALSE(mapInt.insert(500, 1u));
        EXPECT_EQ(mapInt.find(500)->second, 5000u);
        EXPECT_EQ(Keys(mapInt.begin()), Range(1, 1000));
    }
}

TEST(XpMap, RandomInsertionsKeepTheRedBlackRules)
{
    std::mt19937 random(Seed());
    for (int nTree = 0; nTree < 40; ++nTree)
    {
        SCOPED_TRACE("tree " + std::to_string(nTree));
        IntMap mapInt;
        const int nInsertions = 1 + Below(random, 400);
        for (int i = 0; i < nInsertions; ++i)
        {
            mapInt.insert(Below(random, 1000) - 500, (unsigned int)i);
            ExpectRedBlackTree(mapInt);
            if (HasFailure())
                return;
        }
    }
}

// --- looking up ---------------------------------------------------------------------------------------

TEST(XpMap, FindsExactKeysOnly)
{
    IntMap mapInt = MapOf({10, 20, 30});
    const IntMap& mapRead = mapInt;
    for (int nKey : {10, 20, 30})
    {
        ASSERT_NE(mapInt.findnode(nKey), nullptr);
        EXPECT_EQ(mapInt.findnode(nKey)->first, nKey);
        EXPECT_EQ(mapInt.find(nKey).Cur, mapInt.findnode(nKey));
        EXPECT_EQ(mapInt.find(nKey).Root, mapInt.getRoot());
        EXPECT_EQ(mapRead.findnode(nKey), mapInt.findnode(nKey));
        EXPECT_EQ(mapRead.find(nKey), IntMap::const_iterator(mapInt.find(nKey)));
    }
    for (int nKey : {-1, 9, 11, 19, 21, 29, 31})
    {
        EXPECT_EQ(mapInt.findnode(nKey), nullptr) << nKey;
        EXPECT_TRUE(mapInt.find(nKey) == mapInt.end()) << nKey;
        EXPECT_EQ(mapRead.findnode(nKey), nullptr) << nKey;
        EXPECT_TRUE(mapRead.find(nKey) == mapRead.end()) << nKey;
    }
}

TEST(XpMap, BoundsAreTheFirstKeyNotLessAndTheFirstKeyGreater)
{
    IntMap mapInt = MapOf({10, 20, 30, 40, 50});
    const IntMap& mapRead = mapInt;
    const int c_nEnd = 0;
    const struct
    {
        int nKey, nLower, nUpper;
    } arrRows[] = {
        {-5, 10, 10}, {9, 10, 10},      {10, 10, 20},         {11, 20, 20}, {19, 20, 20},
        {20, 20, 30}, {21, 30, 30},     {30, 30, 40},         {31, 40, 40}, {40, 40, 50},
        {49, 50, 50}, {50, 50, c_nEnd}, {51, c_nEnd, c_nEnd},
    };
    auto KeyOf = [](const IntMap::const_iterator& it) { return it.Cur != nullptr ? it->first : c_nEnd; };
    for (const auto& stRow : arrRows)
    {
        EXPECT_EQ(KeyOf(mapInt.lower_bound(stRow.nKey)), stRow.nLower) << stRow.nKey;
        EXPECT_EQ(KeyOf(mapInt.upper_bound(stRow.nKey)), stRow.nUpper) << stRow.nKey;
        EXPECT_EQ(KeyOf(mapRead.lower_bound(stRow.nKey)), stRow.nLower) << stRow.nKey;
        EXPECT_EQ(KeyOf(mapRead.upper_bound(stRow.nKey)), stRow.nUpper) << stRow.nKey;
    }
    EXPECT_TRUE(mapInt.upper_bound(50) == mapInt.end());
    EXPECT_TRUE(mapInt.lower_bound(51) == mapInt.end());
}

TEST(XpMap, ABoundCanBeIteratedFrom)
{
    IntMap mapInt = MapOf(Range(1, 9));
    EXPECT_THAT(Keys(mapInt.lower_bound(7)), ElementsAre(7, 8, 9));
    EXPECT_THAT(Keys(mapInt.upper_bound(7)), ElementsAre(8, 9));
    EXPECT_THAT(KeysBackwards(mapInt.lower_bound(3)), ElementsAre(3, 2, 1));
}

// --- operator[] ---------------------------------------------------------------------------------------

TEST(XpMapAccess, AssigningInsertsOrOverwritesAndReadingReads)
{
    IntMap mapInt;
    mapInt[5] = 50u;
    EXPECT_EQ(mapInt.size(), 1u);
    EXPECT_EQ(mapInt.findnode(5)->second, 50u);
    mapInt[5] = 51u;
    EXPECT_EQ(mapInt.size(), 1u);
    const unsigned int nRead = mapInt[5];
    EXPECT_EQ(nRead, 51u);
    EXPECT_EQ(mapInt[5] + 1u, 52u);
}

TEST(XpMapAccess, AskingForAMissingKeyInsertsNothingUntilAssigned)
{
    IntMap mapInt;
    IntMap::AccessClass access = mapInt[5];
    EXPECT_TRUE(mapInt.empty());
    access = 50u;
    EXPECT_EQ(mapInt.findnode(5)->second, 50u);
}

TEST(XpMapAccess, AssigningOneProxyToAnotherCopiesTheValue)
{
    IntMap mapInt = MapOf({1, 2});
    IntMap mapOther = MapOf({7});
    mapInt[1] = mapInt[2];
    mapInt[3] = mapOther[7];
    mapInt[5] = mapInt[4] = 44u;
    mapInt[2] = 22u; // and the copies stay as they are
    EXPECT_EQ(mapInt.findnode(1)->second, 20u);
    EXPECT_EQ(mapInt.findnode(3)->second, 70u);
    EXPECT_EQ(mapInt.findnode(4)->second, 44u);
    EXPECT_EQ(mapInt.findnode(5)->second, 44u);
    EXPECT_EQ(mapOther.size(), 1u);
}

TEST(XpMapAccess, AProxyKeepsItsOwnCopyOfTheKey)
{
    xpstl::map<std::string, std::string> mapText;
    std::string strKey(100, 'a');
    auto access = mapText[strKey];
    auto same = access; // a copy is a proxy of the same entry
    strKey = "something else";
    access = std::string("one");
    EXPECT_EQ(mapText.findnode(std::string(100, 'a'))->second, "one");
    EXPECT_EQ(std::string(same), "one");
}

TEST(XpMapAccess, AValueInsertedBeforeItsAssignmentIsValueInitialised)
{
    CountedMap mapCounted;
    tagCounted::Forget();
    mapCounted[5] = tagCounted(50);
    EXPECT_THAT(tagCounted::s_listOverwritten, ElementsAre(0)); // a new entry: the assignment found a 0
    mapCounted[5] = tagCounted(51);
    EXPECT_THAT(tagCounted::s_listOverwritten, ElementsAre(0, 50));
    EXPECT_EQ(mapCounted.size(), 1u);
    EXPECT_EQ(mapCounted.findnode(5)->second.nValue, 51);
}

#ifdef NDEBUG
TEST(XpMapAccess, ReadingAMissingKeyYieldsZeroAndInsertsNothing)
{
    IntMap mapInt = MapOf({1});
    EXPECT_EQ((unsigned int)mapInt[2], 0u);
    EXPECT_EQ(mapInt.size(), 1u);
    xpstl::map<int, std::string> mapText;
    EXPECT_EQ(std::string(mapText[2]), "");
    EXPECT_TRUE(mapText.empty());
}
#else
TEST(XpMapAccessDeathTest, ReadingAMissingKeyIsAnAssertion)
{
    IntMap mapInt = MapOf({1});
    EXPECT_EQ((unsigned int)mapInt[1], 10u);
    EXPECT_DEATH(std::cout << (unsigned int)mapInt[2], "a missing key was read");
}
#endif

// --- erasing ------------------------------------------------------------------------------------------

TEST(XpMap, ErasureLeavesTheseTrees)
{
    const struct
    {
        std::vector<int> listInsert, listErase;
        const char* pszWant;
    } arrCases[] = {
        {{1}, {1}, "."},
        {{2, 1}, {2}, "1"}, // a red left child that becomes root turns black
        {{2, 1}, {1}, "2"},
        {{1, 2}, {1}, "2"},
        {{2, 1, 3}, {1}, "2(. 3r)"},
        {{2, 1, 3}, {3}, "2(1r .)"},
        {{2, 1, 3}, {2}, "3(1r .)"},
        {{2, 1, 3}, {2, 3}, "1"},
        {Range(1, 7), {4}, "2(1 6(5r(3 .) 7r))"},
        {Range(1, 7), {2}, "4(3(1 .) 6(5r 7r))"},
        {Range(1, 7), {6}, "2(1 4r(3 7r(5r .)))"}, // red under red under red, and it stays
        {Range(1, 7), {1}, "2(. 4r(3 6(5r 7r)))"},
        {Range(1, 7), {7, 5, 6, 3, 4, 1}, "2"},
    };
    for (const auto& stCase : arrCases)
    {
        IntMap mapErased = MapOf(stCase.listInsert);
        IntMap mapDelinked = MapOf(stCase.listInsert);
        IntMap mapByIterator = MapOf(stCase.listInsert);
        for (int nKey : stCase.listErase)
        {
            EXPECT_TRUE(mapErased.erase(nKey));
            EXPECT_TRUE(mapByIterator.erase(mapByIterator.find(nKey)));
            delete mapDelinked.delink(nKey);
        }
        EXPECT_EQ(Shape(mapErased.getRoot()), stCase.pszWant);
        EXPECT_EQ(Shape(mapDelinked.getRoot()), stCase.pszWant);
        EXPECT_EQ(Shape(mapByIterator.getRoot()), stCase.pszWant);
        ExpectSearchTree(mapErased);
        ExpectSearchTree(mapDelinked);
        ExpectSearchTree(mapByIterator);
    }
}

TEST(XpMap, InsertionIntoATreeThatErasureLeftLopsidedStillTurnsIt)
{
    IntMap mapOuter = MapOf(Range(1, 7));
    mapOuter.erase(6); // 2(1 4r(3 7r(5r .)))
    mapOuter.insert(8, 80u);
    EXPECT_EQ(Shape(mapOuter.getRoot()), "2(1 7(4r(3 5r) 8r))");

    IntMap mapInner = MapOf(Range(1, 7));
    mapInner.erase(6);
    mapInner.insert(6, 60u);
    EXPECT_EQ(Shape(mapInner.getRoot()), "2(1 4r(3 6(5r 7r)))");
}

TEST(XpMap, AfterErasingTheRootOfThreeTheOthersAreFoundAndIterateInOrder)
{
    IntMap mapInt = MapOf({2, 1, 3});
    EXPECT_TRUE(mapInt.erase(2));
    EXPECT_EQ(mapInt.size(), 2u);
    EXPECT_EQ(mapInt.find(1)->second, 10u);
    EXPECT_EQ(mapInt.find(3)->second, 30u);
    EXPECT_EQ(mapInt.findnode(2), nullptr);
    EXPECT_THAT(Keys(mapInt.begin()), ElementsAre(1, 3));
}

TEST(XpMap, ErasingAnAbsentKeyOrTheEndChangesNothing)
{
    IntMap mapInt = MapOf(Range(1, 7));
    const std::string strBefore = Shape(mapInt.getRoot());
    EXPECT_FALSE(mapInt.erase(0));
    EXPECT_FALSE(mapInt.erase(8));
    EXPECT_FALSE(mapInt.erase(mapInt.end()));
    EXPECT_FALSE(mapInt.erase(IntMap::iterator()));
    EXPECT_EQ(mapInt.delink(8), nullptr);
    EXPECT_EQ(mapInt.size(), 7u);
    EXPECT_EQ(Shape(mapInt.getRoot()), strBefore);
}

TEST(XpMap, AnIteratorOfAnotherMapErasesByItsKey)
{
    IntMap mapInt = MapOf({1, 2, 3});
    IntMap mapOther = MapOf({2, 4});
    EXPECT_TRUE(mapInt.erase(mapOther.find(2)));
    EXPECT_FALSE(mapInt.erase(mapOther.find(4)));
    EXPECT_THAT(Keys(mapInt.begin()), ElementsAre(1, 3));
    EXPECT_THAT(Keys(mapOther.begin()), ElementsAre(2, 4));
}

TEST(XpMap, ADelinkedNodeKeepsItsEntryLosesItsLinksAndBelongsToTheCaller)
{
    const int nLive = tagCounted::s_nLive;
    {
        CountedMap mapCounted;
        for (int nKey : Range(1, 7))
            mapCounted.insert(nKey, tagCounted(nKey * 10));
        CountedMap::Node* pBefore = mapCounted.findnode(4);
        CountedMap::Node* pNode = mapCounted.delink(4);
        EXPECT_EQ(pNode, pBefore);
        EXPECT_EQ(mapCounted.size(), 6u);
        EXPECT_EQ(mapCounted.findnode(4), nullptr);
        mapCounted.clear();

        ASSERT_NE(pNode, nullptr); // outlives what it came from
        EXPECT_EQ(tagCounted::s_nLive, nLive + 1);
        EXPECT_EQ(pNode->first, 4);
        EXPECT_EQ(pNode->second.nValue, 40);
        EXPECT_EQ(pNode->LeftChild, nullptr);
        EXPECT_EQ(pNode->RightChild, nullptr);
        EXPECT_EQ(pNode->Parent, nullptr);
        delete pNode;
    }
    EXPECT_EQ(tagCounted::s_nLive, nLive);
}

TEST(XpMap, IteratorsOfOtherEntriesOutliveInsertionsAndErasures)
{
    IntMap mapInt = MapOf({10, 20, 30});
    IntMap::iterator it = mapInt.find(20);
    for (int nKey : Range(11, 19))
        mapInt.insert(nKey, 0u);
    mapInt.erase(10);
    mapInt.erase(30);
    for (int nKey : Range(40, 50))
        mapInt.insert(nKey, 0u);
    EXPECT_EQ(it->first, 20);
    EXPECT_EQ((++it)->first, 40);
}

// --- clearing and copying -----------------------------------------------------------------------------

TEST(XpMap, ClearFreesEveryEntryInPostOrderAndTheMapCanBeUsedAgain)
{
    CountedMap mapCounted;
    for (int nKey : Range(1, 8)) // 4(2(1 3) 6(5 7(. 8)))
        mapCounted.insert(nKey, tagCounted(nKey));
    const int nLive = tagCounted::s_nLive;
    tagCounted::Forget();
    mapCounted.clear();
    EXPECT_THAT(tagCounted::s_listGone, ElementsAre(1, 3, 2, 5, 8, 7, 6, 4));
    EXPECT_EQ(tagCounted::s_nLive, nLive - 8);
    EXPECT_EQ(mapCounted.Root, nullptr);
    EXPECT_EQ(mapCounted.Size, 0u);
    mapCounted.clear();
    EXPECT_TRUE(mapCounted.insert(3, tagCounted(33)));
    EXPECT_EQ(mapCounted.find(3)->second.nValue, 33);
}

TEST(XpMap, ACopyHoldsTheSameEntriesInATreeOfItsOwn)
{
    IntMap mapSource = MapOf(Range(7, 1));
    const std::string strSource = Shape(mapSource.getRoot());
    IntMap mapCopy(mapSource);
    EXPECT_EQ(Shape(mapCopy.getRoot()), "2(1 4r(3 6(5r 7r)))"); // as if inserted in key order
    EXPECT_EQ(mapCopy.size(), 7u);

    mapCopy[1] = 11u;
    mapCopy.erase(2);
    EXPECT_EQ(Shape(mapSource.getRoot()), strSource);
    EXPECT_EQ(mapSource.find(1)->second, 10u);
    EXPECT_EQ(mapCopy.find(7)->second, 70u);
}

TEST(XpMap, AssignmentReplacesWhatWasHeld)
{
    IntMap mapSource = MapOf({1, 2});
    IntMap mapTarget = MapOf({5, 6, 7});
    IntMap& mapReturned = (mapTarget = mapSource);
    EXPECT_EQ(&mapReturned, &mapTarget);
    EXPECT_THAT(Keys(mapTarget.begin()), ElementsAre(1, 2));
    EXPECT_EQ(mapTarget.size(), 2u);
    EXPECT_EQ(mapTarget.find(2)->second, 20u);

    mapTarget = IntMap();
    EXPECT_TRUE(mapTarget.empty());
    EXPECT_EQ(mapSource.size(), 2u);
}

TEST(XpMap, AMapAssignedToItselfIsEmpty)
{
    IntMap mapInt = MapOf({1, 2, 3});
    const IntMap& mapSame = mapInt;
    mapInt = mapSame;
    EXPECT_TRUE(mapInt.empty());
    EXPECT_EQ(mapInt.Root, nullptr);
    EXPECT_TRUE(mapInt.insert(1, 1u));
}

// --- iterating ----------------------------------------------------------------------------------------

TEST(XpMapIterator, TwoOneThreeInItsThreeOrders)
{
    IntMap mapInt = MapOf({2, 1, 3});
    EXPECT_THAT(Keys(mapInt.getParentFirstiterator()), ElementsAre(2, 1, 3));
    EXPECT_THAT(Keys(mapInt.getParentLastiterator()), ElementsAre(1, 3, 2));
    EXPECT_THAT(Keys(mapInt.getiterator()), ElementsAre(1, 2, 3));
}

TEST(XpMapIterator, ThreeOrdersOfALopsidedTree)
{
    IntMap mapInt = MapOf(Range(1, 7));
    mapInt.erase(6); // 2(1 4(3 7(5 .)))
    EXPECT_THAT(Keys(mapInt.getParentFirstiterator()), ElementsAre(2, 1, 4, 3, 7, 5));
    EXPECT_THAT(Keys(mapInt.getParentLastiterator()), ElementsAre(1, 3, 5, 7, 4, 2));
    EXPECT_THAT(Keys(mapInt.getiterator()), ElementsAre(1, 2, 3, 4, 5, 7));
    EXPECT_THAT(Keys(MapOf({1, 2}).getParentLastiterator()), ElementsAre(2, 1)); // a first leaf to the right
}

TEST(XpMapIterator, StandsNowherePastEitherEndUntilItIsReset)
{
    IntMap mapInt = MapOf({1, 2, 3});
    IntMap::iterator it = mapInt.getiterator();
    it.dec();
    EXPECT_EQ(it.Cur, nullptr);
    it.dec();
    it.inc();
    EXPECT_EQ(it.Cur, nullptr);

    it.reset(false);
    EXPECT_EQ(it.Cur->first, 3);
    EXPECT_THAT(KeysBackwards(it), ElementsAre(3, 2, 1));
    it.inc();
    EXPECT_EQ(it.Cur, nullptr);
    it.dec();
    EXPECT_EQ(it.Cur, nullptr);
    it.reset(true);
    EXPECT_EQ(it.Cur->first, 1);
    EXPECT_THAT(Keys(it), ElementsAre(1, 2, 3));

    IntMap::iterator itEnd = mapInt.end();
    itEnd.reset(false);
    EXPECT_EQ(itEnd.Cur->first, 3);

    IntMap::ParentFirstiterator itFirst = mapInt.getParentFirstiterator();
    IntMap::ParentLastiterator itLast = mapInt.getParentLastiterator();
    for (int i = 0; i < 4; ++i) // one step more than there are ways to go
    {
        itFirst.inc();
        itLast.inc();
    }
    EXPECT_EQ(itFirst.Cur, nullptr);
    EXPECT_EQ(itLast.Cur, nullptr);

    IntMap::iterator itNowhere;
    itNowhere.reset(true);
    itNowhere.inc();
    EXPECT_EQ(itNowhere.Cur, nullptr);
}

TEST(XpMapIterator, ResetsFromTheRootItWasMadeWith)
{
    IntMap mapInt = MapOf({1, 2});
    IntMap::iterator it = mapInt.begin();
    mapInt.insert(3, 30u); // 2 becomes the root, 1 a leaf
    EXPECT_EQ(it.Root->first, 1);
    EXPECT_EQ(mapInt.begin().Root->first, 2);
    it.reset(false);
    EXPECT_EQ(it->first, 1); // the greatest below the old root
    EXPECT_THAT(Keys(it), ElementsAre(1, 2, 3));
}

TEST(XpMapIterator, WorksAsAForwardIteratorOfTheStandardLibrary)
{
    IntMap mapInt = MapOf({3, 1, 2});
    for (auto& stNode : mapInt)
        stNode.second += 1u;
    EXPECT_EQ(mapInt.find(2)->second, 21u);

    IntMap::iterator it = mapInt.begin();
    EXPECT_EQ((it++)->first, 1);
    EXPECT_EQ((*it).first, 2);
    EXPECT_EQ((++it)->first, 3);
    EXPECT_TRUE(it == mapInt.find(3));
    EXPECT_TRUE(it != mapInt.end());
    EXPECT_TRUE(++it == mapInt.end());

    EXPECT_EQ(std::distance(mapInt.begin(), mapInt.end()), 3);
    EXPECT_EQ(
        std::find_if(mapInt.begin(), mapInt.end(), [](const IntNode& st) { return st.second == 31u; })->first,
        3);
    EXPECT_EQ(std::next(mapInt.getParentFirstiterator())->first, 1);
    EXPECT_TRUE(std::next(mapInt.getParentLastiterator(), 3) == IntMap::ParentLastiterator());
    EXPECT_TRUE(mapInt.getParentFirstiterator()++ == mapInt.getParentFirstiterator());
}

TEST(XpMapIterator, AMapThatMayOnlyBeReadIteratesInAllOrders)
{
    IntMap mapInt = MapOf({2, 1, 3});
    const IntMap& mapRead = mapInt;
    static_assert(std::is_same<decltype(*mapRead.begin()), const IntNode&>::value, "reads only");
    static_assert(std::is_same<decltype(mapRead.getRoot()), const IntNode*>::value, "reads only");
    EXPECT_THAT(Keys(mapRead.begin()), ElementsAre(1, 2, 3));
    EXPECT_THAT(Keys(mapRead.getiterator()), ElementsAre(1, 2, 3));
    EXPECT_THAT(Keys(mapRead.getParentFirstiterator()), ElementsAre(2, 1, 3));
    EXPECT_THAT(Keys(mapRead.getParentLastiterator()), ElementsAre(1, 3, 2));
    EXPECT_TRUE(mapRead.begin() == mapInt.begin());
    EXPECT_TRUE(mapInt.end() != mapRead.begin());

    IntMap::const_ParentFirstiterator itFirst = mapInt.getParentFirstiterator();
    IntMap::const_ParentLastiterator itLast = mapInt.getParentLastiterator();
    EXPECT_EQ(itFirst->first, 2);
    EXPECT_EQ(itLast->first, 1);
}

TEST(XpMapIterator, OrdersAgreeWithARecursiveWalkOfRandomTreesAfterErasures)
{
    std::mt19937 random(Seed());
    for (int nTree = 0; nTree < 300; ++nTree)
    {
        SCOPED_TRACE("tree " + std::to_string(nTree));
        IntMap mapInt;
        const int nSteps = Below(random, 300);
        for (int i = 0; i < nSteps; ++i)
        {
            const int nKey = Below(random, 200);
            if (Below(random, 3) == 0)
                mapInt.erase(nKey);
            else
                mapInt.insert(nKey, 0u);
        }
        ExpectSearchTree(mapInt);
        EXPECT_EQ(Keys(mapInt.getParentFirstiterator()), Walked(mapInt, PRE));
        EXPECT_EQ(Keys(mapInt.getParentLastiterator()), Walked(mapInt, POST));
        EXPECT_EQ(Keys(mapInt.getiterator()), Walked(mapInt, IN));
        IntMap::iterator it = mapInt.end();
        it.reset(false);
        std::vector<int> listBackwards = KeysBackwards(it);
        std::reverse(listBackwards.begin(), listBackwards.end());
        EXPECT_EQ(listBackwards, Walked(mapInt, IN));
        if (HasFailure())
            return;
    }
}

// --- as a whole ---------------------------------------------------------------------------------------

TEST(XpMap, AHundredThousandRandomOperationsAgreeWithTheStandardMap)
{
    std::mt19937 random(Seed());
    IntMap mapOurs;
    std::map<int, unsigned int> mapTheirs;
    const int c_nKeys = 700;
    for (int i = 0; i < 100000 && !HasFailure(); ++i)
    {
        SCOPED_TRACE("operation " + std::to_string(i));
        const int nKey = Below(random, c_nKeys) - c_nKeys / 2;
        const unsigned int nValue = random();
        const auto itTheirs = mapTheirs.find(nKey);
        const bool bHeld = itTheirs != mapTheirs.end();
        auto ExpectSame = [&](IntMap::iterator itOurs, std::map<int, unsigned int>::iterator itWant)
        {
            ASSERT_EQ(itOurs != mapOurs.end(), itWant != mapTheirs.end());
            if (itWant == mapTheirs.end())
                return;
            EXPECT_EQ(itOurs->first, itWant->first);
            EXPECT_EQ(itOurs->second, itWant->second);
        };

        switch (Below(random, 12))
        {
        case 0:
        case 1: EXPECT_EQ(mapOurs.insert(nKey, nValue), mapTheirs.insert({nKey, nValue}).second); break;
        case 2:
        {
            const auto ours = mapOurs.insert(IntMap::value_type(nKey, nValue));
            const auto theirs = mapTheirs.insert({nKey, nValue});
            EXPECT_EQ(ours.second, theirs.second);
            ExpectSame(ours.first, theirs.first);
            break;
        }
        case 3:
            mapOurs.set(nKey, nValue);
            mapTheirs[nKey] = nValue;
            break;
        case 4:
            mapOurs[nKey] = nValue;
            mapTheirs[nKey] = nValue;
            break;
        case 5: EXPECT_EQ(mapOurs.erase(nKey), mapTheirs.erase(nKey) == 1); break;
        case 6: EXPECT_EQ(mapOurs.erase(mapOurs.find(nKey)), mapTheirs.erase(nKey) == 1); break;
        case 7:
        {
            const std::unique_ptr<IntNode> pNode(mapOurs.delink(nKey));
            ASSERT_EQ(pNode != nullptr, bHeld);
            if (bHeld)
            {
                EXPECT_EQ(pNode->first, nKey);
                EXPECT_EQ(pNode->second, itTheirs->second);
                mapTheirs.erase(itTheirs);
            }
            break;
        }
        case 8: ExpectSame(mapOurs.lower_bound(nKey), mapTheirs.lower_bound(nKey)); break;
        case 9: ExpectSame(mapOurs.upper_bound(nKey), mapTheirs.upper_bound(nKey)); break;
        case 10:
            ExpectSame(mapOurs.find(nKey), itTheirs);
            EXPECT_EQ(mapOurs.findnode(nKey), mapOurs.find(nKey).Cur);
            break;
        case 11:
            if (bHeld)
            {
                EXPECT_EQ((unsigned int)mapOurs[nKey], itTheirs->second);
            }
            break;
        }

        EXPECT_EQ(mapOurs.size(), mapTheirs.size());
        if (i % 500 == 0)
        {
            ExpectSearchTree(mapOurs);
            EXPECT_TRUE(
                std::equal(mapOurs.begin(), mapOurs.end(), mapTheirs.begin(), mapTheirs.end(),
                           [](const IntNode& stOurs, const std::pair<const int, unsigned int>& stTheirs)
                           { return stOurs.first == stTheirs.first && stOurs.second == stTheirs.second; }));
        }
        if (i % 25000 == 24999)
        {
            const IntMap mapCopy(mapOurs);
            ExpectRedBlackTree(mapCopy); // a copy is balanced, whatever its source was
            EXPECT_EQ(Keys(mapCopy.begin()), Keys(mapOurs.begin()));
            mapOurs.clear();
            mapTheirs.clear();
        }
    }
}

TEST(XpMap, EveryEntryIsOneAllocationFreedOnce)
{
    tagNodeCount::s_nNews = 0;
    tagNodeCount::s_nDeletes = 0;
    {
        xpstl::map<int, tagNodeCount> mapCounted;
        for (int nKey : Range(1, 100))
            mapCounted.insert(nKey, tagNodeCount());
        EXPECT_EQ(tagNodeCount::s_nNews, 100);

        mapCounted.insert(50, tagNodeCount()); // refused and overwritten: no node is made
        mapCounted.insert({50, tagNodeCount()});
        mapCounted.set(50, tagNodeCount());
        mapCounted[50] = tagNodeCount();
        EXPECT_EQ(tagNodeCount::s_nNews, 100);
        mapCounted[101] = tagNodeCount();
        EXPECT_EQ(tagNodeCount::s_nNews, 101);
        EXPECT_EQ(tagNodeCount::s_nDeletes, 0);

        mapCounted.erase(50);
        mapCounted.erase(mapCounted.begin());
        EXPECT_EQ(tagNodeCount::s_nDeletes, 2);
        xpstl::map<int, tagNodeCount>::Node* pNode = mapCounted.delink(60);
        EXPECT_EQ(tagNodeCount::s_nDeletes, 2);
        delete pNode;
        EXPECT_EQ(tagNodeCount::s_nDeletes, 3);

        xpstl::map<int, tagNodeCount> mapCopy(mapCounted);
        EXPECT_EQ(tagNodeCount::s_nNews, 101 + 98);
        mapCopy = mapCounted;
        EXPECT_EQ(tagNodeCount::s_nNews, 101 + 2 * 98);
        EXPECT_EQ(tagNodeCount::s_nDeletes, 3 + 98);
    }
    EXPECT_EQ(tagNodeCount::s_nDeletes, tagNodeCount::s_nNews);
}

TEST(XpMap, RandomUseLeavesNoValueBehind)
{
    const int nLive = tagCounted::s_nLive;
    std::mt19937 random(Seed());
    {
        CountedMap mapCounted;
        for (int i = 0; i < 20000; ++i)
        {
            const int nKey = Below(random, 200);
            switch (Below(random, 6))
            {
            case 0: mapCounted.insert(nKey, tagCounted(i)); break;
            case 1: mapCounted.set(nKey, tagCounted(i)); break;
            case 2: mapCounted[nKey] = tagCounted(i); break;
            case 3: mapCounted.erase(nKey); break;
            case 4: delete mapCounted.delink(nKey); break;
            case 5:
                if (i % 100 == 0)
                    mapCounted = CountedMap(mapCounted);
                break;
            }
            ASSERT_EQ(tagCounted::s_nLive, nLive + (int)mapCounted.size()) << "operation " << i;
        }
        EXPECT_FALSE(mapCounted.empty());
    }
    EXPECT_EQ(tagCounted::s_nLive, nLive);
    tagCounted::Forget();
}

TEST(XpMap, AThrowingCopyLeavesTheMapAsItWasAndNothingBehind)
{
    const int nLive = tagCounted::s_nLive;
    {
        CountedMap mapCounted;
        for (int nKey : Range(1, 7))
            mapCounted.insert(nKey, tagCounted(nKey));
        const std::string strBefore = Shape(mapCounted.getRoot());

        const tagCounted stValue(8);
        tagCounted::s_nCopiesUntilThrow = 1;
        EXPECT_THROW(mapCounted.insert(8, stValue), std::runtime_error);
        EXPECT_EQ(Shape(mapCounted.getRoot()), strBefore);
        EXPECT_EQ(mapCounted.size(), 7u);

        tagCounted::s_nCopiesUntilThrow = 4;
        EXPECT_THROW(CountedMap mapCopy(mapCounted), std::runtime_error);
        EXPECT_EQ(tagCounted::s_nLive, nLive + 8);
    }
    EXPECT_EQ(tagCounted::s_nLive, nLive);
    tagCounted::Forget();
}

TEST(XpMap, TakesAnyKeyThatCanBeComparedAndAnyValueThatCanBeCopied)
{
    xpstl::map<COnlyLess, std::vector<int>> mapAny;
    for (int n : {5, 3, 9, 1})
        EXPECT_TRUE(mapAny.insert(COnlyLess(n), std::vector<int>((size_t)n, n)));
    EXPECT_FALSE(mapAny.insert(COnlyLess(3), {}));
    mapAny[COnlyLess(7)] = {7};
    EXPECT_EQ(mapAny.lower_bound(COnlyLess(6))->first.Get(), 7);
    EXPECT_THAT(mapAny.find(COnlyLess(3))->second, ElementsAre(3, 3, 3));
    EXPECT_THAT((std::vector<int>)mapAny[COnlyLess(7)], ElementsAre(7));
    EXPECT_TRUE(mapAny.erase(COnlyLess(5)));
    mapAny[COnlyLess(1)] = {};
    EXPECT_THAT(mapAny.findnode(COnlyLess(1))->second, IsEmpty());
    EXPECT_EQ(mapAny.size(), 4u);
}

TEST(XpMap, CanBeABaseClass)
{
    CDerivedMap mapDerived;
    mapDerived.insert(1, 10u);
    const CDerivedMap mapCopy(mapDerived);
    EXPECT_EQ(mapCopy.find(1)->second, 10u);
}
