/**
 * What the task takes at least: bare containers, with nothing around them.
 */

#include "Peers.h"

#include <map>

namespace
{

class CMapTaker : public IPathTaker
{
public:
    CMapTaker(CBenchOwner& owner, const tagPathConfig& stConfig)
        : m_owner(owner), m_nDepth((size_t)stConfig.dDepth)
    {
    }
    void Take(const tagArrivalStream&, uint32 dwSeq, uint32, CBenchPacket* pPacket) override
    {
        if (m_vecNodes.empty())
        {
            m_mapPackets.emplace_hint(m_mapPackets.end(), dwSeq, pPacket);
        }
        else
        {
            Map::node_type node = std::move(m_vecNodes.back());
            m_vecNodes.pop_back();
            node.key() = dwSeq;
            node.mapped() = pPacket;
            m_mapPackets.insert(m_mapPackets.end(), std::move(node));
        }
        while (m_mapPackets.size() > m_nDepth)
        {
            int nDelay = 0;
            m_vecNodes.push_back(m_mapPackets.extract(m_mapPackets.begin()));
            m_owner.OnUDTRecvOutData(m_vecNodes.back().mapped(), &nDelay);
        }
    }
    void Turn() override {}
    size_t Held() const override { return m_mapPackets.size(); }
    uint64 Lost() const override { return 0; }

private:
    typedef std::map<uint32, CBenchPacket*> Map;
    CBenchOwner& m_owner;
    size_t m_nDepth;
    Map m_mapPackets;
    std::vector<Map::node_type> m_vecNodes; // taken out, to be put in again
};

class CRingTaker : public IPathTaker
{
public:
    CRingTaker(CBenchOwner& owner, const tagPathConfig& stConfig)
        : m_owner(owner), m_nDepth((size_t)stConfig.dDepth), m_vecSlots(4096, nullptr)
    {
    }
    void Take(const tagArrivalStream&, uint32 dwSeq, uint32, CBenchPacket* pPacket) override
    {
        if (m_nHeld == 0)
            m_dwFirst = dwSeq;
        if ((int32)(dwSeq - m_dwFirst) < 0)
            m_dwFirst = dwSeq;
        m_vecSlots[dwSeq & c_dwMask] = pPacket;
        ++m_nHeld;
        while (m_nHeld > m_nDepth)
        {
            CBenchPacket*& pSlot = m_vecSlots[m_dwFirst++ & c_dwMask];
            if (pSlot == nullptr)
                continue;
            int nDelay = 0;
            m_owner.OnUDTRecvOutData(pSlot, &nDelay);
            pSlot = nullptr;
            --m_nHeld;
        }
    }
    void Turn() override {}
    size_t Held() const override { return m_nHeld; }
    uint64 Lost() const override { return 0; }

private:
    static constexpr uint32 c_dwMask = 4095;
    CBenchOwner& m_owner;
    size_t m_nDepth;
    std::vector<CBenchPacket*> m_vecSlots;
    uint32 m_dwFirst = 0;
    size_t m_nHeld = 0;
};

/// Remembers what is missing, asks for it once on sight and then every 200 ms, forgets it with the pattern's depth.
/// Holds no packets.
class CNackTaker : public IPathTaker
{
public:
    CNackTaker(CBenchOwner& owner, const tagPathConfig& stConfig)
        : m_owner(owner), m_dwDepth((uint32)stConfig.dDepth)
    {
    }
    void Take(const tagArrivalStream&, uint32 dwSeq, uint32, CBenchPacket* pPacket) override
    {
        if (m_dwNext == 0 || dwSeq == m_dwNext)
        {
            m_dwNext = dwSeq + 1;
        }
        else if ((int32)(dwSeq - m_dwNext) > 0)
        {
            for (; m_dwNext != dwSeq; ++m_dwNext)
                m_mapMissing.emplace_hint(m_mapMissing.end(), m_dwNext, 0u);
            ++m_dwNext;
        }
        else
        {
            m_mapMissing.erase(dwSeq);
        }
        int nDelay = 0;
        m_owner.OnUDTRecvOutData(pPacket, &nDelay);
    }
    void Turn() override
    {
        ++m_dwTurn;
        if (m_dwTurn % 5 != 0) // 50 ms
            return;
        while (!m_mapMissing.empty() && m_dwNext - m_mapMissing.begin()->first > m_dwDepth)
        {
            m_mapMissing.erase(m_mapMissing.begin());
            ++m_ullLost;
        }
        m_vecAsk.clear();
        for (std::map<uint32, uint32>::value_type& stMissing : m_mapMissing)
        {
            if (stMissing.second != 0 && m_dwTurn - stMissing.second < 20)
                continue;
            stMissing.second = m_dwTurn;
            m_vecAsk.push_back(stMissing.first);
        }
        if (!m_vecAsk.empty())
            m_owner.UdtRecvHandleEvent(0, (uint8*)m_vecAsk.data(), (uint32)m_vecAsk.size(), 1, 1);
    }
    size_t Held() const override { return 0; }
    bool CountsLost() const override { return true; }
    uint64 Lost() const override { return m_ullLost; }
    bool Orders() const override { return false; }

private:
    CBenchOwner& m_owner;
    uint32 m_dwDepth;
    uint32 m_dwNext = 0;
    uint32 m_dwTurn = 0;
    uint64 m_ullLost = 0;
    std::map<uint32, uint32> m_mapMissing; // sequence to the turn of its last request
    std::vector<uint32> m_vecAsk;
};

template <class Taker>
std::unique_ptr<IPathTaker> Make(CBenchOwner& owner, const tagPathConfig& stConfig)
{
    return std::make_unique<Taker>(owner, stConfig);
}

} // namespace

void AddFloors(std::vector<tagPeer>& vecPeers)
{
    vecPeers.push_back({"nobody", "abcdef", MakeNobody, false, 0});
    vecPeers.push_back({"ring", "abcdef", Make<CRingTaker>, false, 0});
    vecPeers.push_back({"map-pool", "abcdef", Make<CMapTaker>, false, 0});
    vecPeers.push_back({"nack-alone", "abcdef", Make<CNackTaker>, false, 0});
}
