// Bytes become calls on a map of this tree and on a std::map; both must hold and answer the same all the time.

#include "AVGUDTPktMap.h"
#include "AVGUDTSeqMap.h"
#include "FuzzDoors.h"
#include "xpmap.h"

#include <map>
#include <memory>

namespace
{

typedef std::map<uint32, uint32> StdMap;

// Few keys, so that they meet; on both ends of the number space and in its middle.
uint32 Key(CFuzzInput& in)
{
    const uint8 c = in.Byte();
    switch (c >> 6)
    {
    case 0:
    case 1: return c;
    case 2: return 0xFFFFFFFFu - (c & 0x3Fu);
    default: return 0x7FFFFFE0u + (c & 0x3Fu);
    }
}

template <class MAP>
void SameEntries(const MAP& map, const StdMap& mapStd)
{
    FuzzExpect(map.size() == mapStd.size() && map.empty() == mapStd.empty(), "sizes differ");
    auto it = map.begin();
    for (const auto& st : mapStd)
    {
        FuzzExpect(it != map.end() && it->first == st.first && it->second == st.second, "entries differ");
        ++it;
    }
    FuzzExpect(it == map.end(), "the walk goes on");
}

template <class MAP, class IT>
bool SamePlace(const MAP& map, IT it, const StdMap& mapStd, StdMap::const_iterator itStd)
{
    if (itStd == mapStd.end() || it == map.end())
        return itStd == mapStd.end() && it == map.end();
    return it->first == itStd->first;
}

template <class MAP>
void SameAnswers(const MAP& map, const StdMap& mapStd, uint32 dwKey)
{
    FuzzExpect(SamePlace(map, map.find(dwKey), mapStd, mapStd.find(dwKey)), "find differs");
    FuzzExpect(SamePlace(map, map.lower_bound(dwKey), mapStd, mapStd.lower_bound(dwKey)),
               "lower_bound differs");
    FuzzExpect(SamePlace(map, map.upper_bound(dwKey), mapStd, mapStd.upper_bound(dwKey)),
               "upper_bound differs");
}

// A tree's nodes know their parents, and every child lies on its side.
template <class NODE>
size_t CheckTree(const NODE* pNode)
{
    if (pNode == nullptr)
        return 0;
    for (const NODE* pChild : {pNode->LeftChild, pNode->RightChild})
        FuzzExpect(pChild == nullptr || pChild->Parent == pNode, "a child knows another parent");
    FuzzExpect(pNode->LeftChild == nullptr || pNode->LeftChild->first < pNode->first,
               "a left child is not less");
    FuzzExpect(pNode->RightChild == nullptr || pNode->first < pNode->RightChild->first,
               "a right child is not greater");
    return 1 + CheckTree(pNode->LeftChild) + CheckTree(pNode->RightChild);
}

// Black nodes on every way down. No red node is under a red one.
template <class NODE>
size_t CheckColours(const NODE* pNode, bool bUnderRed)
{
    if (pNode == nullptr)
        return 0;
    FuzzExpect(!(bUnderRed && pNode->IsRed), "a red node under a red one");
    const size_t nBlack = CheckColours(pNode->LeftChild, pNode->IsRed);
    FuzzExpect(nBlack == CheckColours(pNode->RightChild, pNode->IsRed), "one side is blacker");
    return nBlack + (pNode->IsRed ? 0 : 1);
}

} // namespace

void FuzzXpMap(const uint8* pData, size_t nLen)
{
    typedef xpstl::map<uint32, uint32> Map;
    CFuzzInput in(pData, nLen);
    Map map;
    StdMap mapStd;
    size_t nBefore = 0;
    bool bOnlyGrew = true; // what is taken out may leave the tree unbalanced, on purpose
    uint32 dwValue = 0;
    while (!in.Empty())
    {
        const uint8 cWhat = in.Byte();
        const uint32 dwKey = Key(in);
        ++dwValue;
        switch (cWhat % 12)
        {
        case 0:
        case 1:
            FuzzExpect(map.insert(dwKey, dwValue) == mapStd.emplace(dwKey, dwValue).second, "insert differs");
            break;
        case 2:
        {
            const auto st = map.insert(Map::value_type(dwKey, dwValue));
            const auto stStd = mapStd.emplace(dwKey, dwValue);
            FuzzExpect(st.second == stStd.second && st.first->second == stStd.first->second,
                       "insert differs");
            break;
        }
        case 3:
            map.set(dwKey, dwValue);
            mapStd[dwKey] = dwValue;
            break;
        case 4: map[dwKey] = mapStd[dwKey] = dwValue; break;
        case 5:
        case 6: FuzzExpect(map.erase(dwKey) == (mapStd.erase(dwKey) != 0), "erase differs"); break;
        case 7:
            FuzzExpect(map.erase(map.lower_bound(dwKey)) == (mapStd.lower_bound(dwKey) != mapStd.end()),
                       "erase at differs");
            if (mapStd.lower_bound(dwKey) != mapStd.end())
                mapStd.erase(mapStd.lower_bound(dwKey));
            break;
        case 8:
        {
            const std::unique_ptr<Map::Node> pNode(map.delink(dwKey));
            FuzzExpect((pNode != nullptr) == (mapStd.erase(dwKey) != 0), "delink differs");
            FuzzExpect(pNode == nullptr || (pNode->first == dwKey && !pNode->Parent && !pNode->LeftChild &&
                                            !pNode->RightChild),
                       "a delinked node hangs on");
            break;
        }
        case 9:
        {
            Map copy(map);
            SameEntries(copy, mapStd);
            map = copy;
            break;
        }
        case 10:
            if (dwKey == 0)
            {
                map.clear();
                mapStd.clear();
            }
            break;
        default:
        {
            size_t nFirst = 0, nLast = 0;
            for (auto it = map.getParentFirstiterator(); it.Cur != nullptr; it.inc())
                ++nFirst;
            for (auto it = map.getParentLastiterator(); it.Cur != nullptr; it.inc())
                ++nLast;
            FuzzExpect(nFirst == mapStd.size() && nLast == mapStd.size(), "a walk misses entries");
            auto it = map.begin();
            it.reset(false);
            for (auto itStd = mapStd.rbegin(); itStd != mapStd.rend(); ++itStd, it.dec())
                FuzzExpect(it.Cur != nullptr && it->first == itStd->first, "the walk back differs");
            FuzzExpect(it.Cur == nullptr, "the walk back goes on");
            break;
        }
        }
        SameAnswers(map, mapStd, dwKey);
        FuzzExpect(map.size() == mapStd.size(), "sizes differ");
        FuzzExpect(map.getRoot() == nullptr || !map.getRoot()->IsRed, "the root is red");
        bOnlyGrew = mapStd.empty() || (bOnlyGrew && mapStd.size() >= nBefore);
        nBefore = mapStd.size();
        if (cWhat & 0x40)
        {
            SameEntries(map, mapStd);
            FuzzExpect(CheckTree(map.getRoot()) == mapStd.size(), "the tree has lost entries");
            if (bOnlyGrew)
                CheckColours(map.getRoot(), false);
        }
    }
    SameEntries(map, mapStd);
    FuzzExpect(CheckTree(map.getRoot()) == mapStd.size(), "the tree has lost entries");
}

void FuzzSeqMap(const uint8* pData, size_t nLen)
{
    typedef CUdtSeqMap<uint32> Map;
    CFuzzInput in(pData, nLen);
    Map map;
    StdMap mapStd;
    uint32 dwValue = 0;
    while (!in.Empty())
    {
        const uint8 cWhat = in.Byte();
        uint32 dwKey = Key(in);
        ++dwValue;
        FuzzExpect(map.IsBehindAll(dwKey) ==
                       (mapStd.upper_bound(dwKey) == mapStd.end() && mapStd.count(dwKey) == 0),
                   "IsBehindAll differs");
        switch (cWhat % 16)
        {
        case 0:
        case 1:
        {
            const auto st = map.emplace(dwKey, dwValue);
            FuzzExpect(st.second == mapStd.emplace(dwKey, dwValue).second, "emplace differs");
            FuzzExpect(st.first->first == dwKey, "emplace tells another place");
            break;
        }
        case 2: // a run, as a stream brings it
            for (uint32 i = 0; i < (cWhat >> 4) * 4u; ++i, ++dwKey)
            {
                map.Set(dwKey, dwValue);
                mapStd[dwKey] = dwValue;
            }
            break;
        case 3:
        case 4:
            map.Set(dwKey, dwValue);
            mapStd[dwKey] = dwValue;
            break;
        case 5: map[dwKey] = mapStd[dwKey] = dwValue; break;
        case 6:
        {
            auto it = map.lower_bound(dwKey - std::min(dwKey, (uint32)in.Byte()));
            it = map.SetNear(it, dwKey, dwValue);
            FuzzExpect(it->first == dwKey && it->second == dwValue, "SetNear tells another place");
            mapStd[dwKey] = dwValue;
            break;
        }
        case 7:
            if (map.IsBehindAll(dwKey))
            {
                map.push_back(dwKey, dwValue);
                mapStd[dwKey] = dwValue;
            }
            break;
        case 8: // what has aged falls out
            for (uint32 i = 0; i < cWhat / 4u && !mapStd.empty(); ++i)
            {
                map.pop_front();
                mapStd.erase(mapStd.begin());
            }
            break;
        case 9: FuzzExpect(map.erase(dwKey) == mapStd.erase(dwKey), "erase differs"); break;
        case 10:
        case 11:
            if (const auto it = mapStd.lower_bound(dwKey); it != mapStd.end())
                FuzzExpect(SamePlace(map, map.erase(map.lower_bound(dwKey)), mapStd, mapStd.erase(it)),
                           "erase goes on elsewhere");
            break;
        case 12:
        {
            Map copy(map);
            FuzzExpect(copy == mapStd, "a copy differs");
            Map moved(std::move(copy));
            map = moved;
            break;
        }
        case 13:
            if (dwKey == 0)
            {
                map.clear();
                mapStd.clear();
            }
            break;
        case 14:
        {
            auto it = map.rbegin();
            for (auto itStd = mapStd.rbegin(); itStd != mapStd.rend(); ++itStd, ++it)
                FuzzExpect(it->first == itStd->first && it->second == itStd->second, "the walk back differs");
            break;
        }
        default:
            FuzzExpect(map.count(dwKey) == mapStd.count(dwKey), "count differs");
            if (mapStd.count(dwKey))
                FuzzExpect(map.at(dwKey) == mapStd.at(dwKey), "at differs");
            break;
        }
        SameAnswers(map, mapStd, dwKey);
        if (cWhat & 0x10)
            SameEntries(map, mapStd);
    }
    SameEntries(map, mapStd);
}

void FuzzPktMap(const uint8* pData, size_t nLen)
{
    // A packet is a counted reference: none may be left when the map is gone.
    struct tagPkt
    {
        std::shared_ptr<uint32> p;
        bool operator==(uint32 dw) const { return p && *p == dw; }
    };
    typedef CUdtPktMap<tagPkt> Map;
    const auto pkt = [](uint32 dw) { return tagPkt{std::make_shared<uint32>(dw)}; };
    std::weak_ptr<uint32> pLast;
    {
        CFuzzInput in(pData, nLen);
        Map map;
        StdMap mapStd;
        uint32 dwValue = 0;
        while (!in.Empty())
        {
            const uint8 cWhat = in.Byte();
            uint32 dwKey = Key(in);
            ++dwValue;
            map.TakeTouched();
            bool bTouched = true;
            switch (cWhat % 14)
            {
            case 0:
            case 1: // the receiver's way
            case 2:
            {
                bTouched = false;
                uint32 dwRun = cWhat % 14 == 2 ? (cWhat >> 4) * 8u : 1;
                for (; dwRun != 0; --dwRun, ++dwKey)
                {
                    Map::tagNode* const pAt = map.FindFrom(dwKey);
                    if (pAt != nullptr && pAt->Seq() == dwKey)
                        continue;
                    const tagPkt stPkt = pkt(dwValue);
                    pLast = stPkt.p;
                    FuzzExpect(map.Insert(pAt, dwKey, stPkt)->Seq() == dwKey, "another node");
                    mapStd[dwKey] = dwValue;
                }
                break;
            }
            case 3: // playout takes from the front
                bTouched = false;
                for (uint32 i = 0; i < cWhat / 8u && map.Head() != nullptr; ++i)
                {
                    map.Remove(map.Head());
                    mapStd.erase(mapStd.begin());
                }
                break;
            case 4:
                bTouched = false;
                if (Map::tagNode* const p = map.FindFrom(dwKey))
                {
                    const Map::tagNode* const pNext = map.Remove(p);
                    const auto it = mapStd.erase(mapStd.lower_bound(dwKey));
                    FuzzExpect((pNext == nullptr) == (it == mapStd.end()) &&
                                   (!pNext || pNext->Seq() == it->first),
                               "Remove goes on elsewhere");
                }
                break;
            case 5:
                FuzzExpect(map.try_emplace(dwKey, pkt(dwValue)).second ==
                               mapStd.emplace(dwKey, dwValue).second,
                           "try_emplace differs");
                break;
            case 6:
                map[dwKey] = pkt(dwValue);
                mapStd[dwKey] = dwValue;
                break;
            case 7: FuzzExpect(map.erase(dwKey) == mapStd.erase(dwKey), "erase differs"); break;
            case 8:
            {
                const uint32 dwOther = Key(in);
                map.erase(map.lower_bound(std::min(dwKey, dwOther)),
                          map.lower_bound(std::max(dwKey, dwOther)));
                mapStd.erase(mapStd.lower_bound(std::min(dwKey, dwOther)),
                             mapStd.lower_bound(std::max(dwKey, dwOther)));
                break;
            }
            case 9:
            {
                Map copy(map);
                Map moved(std::move(copy));
                map = moved;
                break;
            }
            case 10:
                if (dwKey == 0)
                    mapStd.clear(), map.clear();
                else
                    bTouched = false;
                break;
            case 11:
                map.insert_or_assign(dwKey, pkt(dwValue));
                mapStd[dwKey] = dwValue;
                break;
            case 12:
            {
                bTouched = false;
                const Map::tagNode* p = map.Tail();
                for (auto it = mapStd.rbegin(); it != mapStd.rend(); ++it, p = p->pPrev)
                    FuzzExpect(p != nullptr && p->Seq() == it->first, "the chain back differs");
                FuzzExpect(p == nullptr, "the chain back goes on");
                break;
            }
            default:
                bTouched = false;
                FuzzExpect(((const Map&)map).count(dwKey) == mapStd.count(dwKey), "count differs");
                break;
            }
            FuzzExpect(map.IsTouched() == bTouched, "the mark is wrong");
            SameAnswers((const Map&)map, mapStd, dwKey);
            if (cWhat & 0x10)
                SameEntries((const Map&)map, mapStd);
        }
        SameEntries((const Map&)map, mapStd);
    }
    FuzzExpect(pLast.expired(), "a packet outlived its map");
}
