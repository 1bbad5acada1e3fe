/**
 * libre's jitter buffer (libre-dev): a sorted list.
 */

#include "Peers.h"

#include <re.h>

namespace
{

class CReTaker : public IPathTaker
{
public:
    CReTaker(CBenchOwner& owner, const tagPathConfig& stConfig) : m_owner(owner)
    {
        const uint32_t nDepth = (uint32_t)stConfig.dDepth;
        jbuf_alloc(&m_pBuffer, nDepth, nDepth * 2 + 16);
    }
    ~CReTaker() override
    {
        mem_deref(m_pBuffer);
        for (tagShell* p : m_vecFree)
            mem_deref(p);
    }
    void Take(const tagArrivalStream&, uint32 dwSeq, uint32, CBenchPacket* pPacket) override
    {
        // The buffer holds memory of its library; a shell around the packet, used again and again.
        tagShell* pShell = nullptr;
        if (m_vecFree.empty())
        {
            pShell = (tagShell*)mem_alloc(sizeof(tagShell), nullptr);
        }
        else
        {
            pShell = m_vecFree.back();
            m_vecFree.pop_back();
        }
        pShell->pPacket = pPacket;
        m_stHead.seq = (uint16_t)dwSeq;
        m_stHead.ts = pPacket->m_stHead.uTimeStamp * 90;
        if (jbuf_put(m_pBuffer, &m_stHead, pShell) == 0)
            ++m_nHeld;

        void* pMem = nullptr;
        struct rtp_header stHead;
        while (jbuf_get(m_pBuffer, &stHead, &pMem) == 0)
        {
            --m_nHeld;
            tagShell* pOut = (tagShell*)pMem;
            mem_deref(pOut); // the reference that came with it; the first one stays ours
            int nDelay = 0;
            m_owner.OnUDTRecvOutData(pOut->pPacket, &nDelay);
            m_vecFree.push_back(pOut);
        }
    }
    void Turn() override {}
    size_t Held() const override { return m_nHeld; }
    uint64 Lost() const override
    {
        struct jbuf_stat stStat;
        return jbuf_stats(m_pBuffer, &stStat) == 0 ? stStat.n_lost : 0;
    }

private:
    struct tagShell
    {
        CBenchPacket* pPacket;
    };
    CBenchOwner& m_owner;
    struct jbuf* m_pBuffer = nullptr;
    struct rtp_header m_stHead = {};
    std::vector<tagShell*> m_vecFree;
    size_t m_nHeld = 0;
};

} // namespace

void AddRe(std::vector<tagPeer>& vecPeers)
{
    vecPeers.push_back({"libre-jbuf", "abcdef",
                        [](CBenchOwner& owner, const tagPathConfig& stConfig) -> std::unique_ptr<IPathTaker>
                        { return std::make_unique<CReTaker>(owner, stConfig); },
                        false, 0});
}
