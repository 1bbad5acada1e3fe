/**
 * oRTP's packet queue (libortp-dev): a sorted list of messages, searched from its end. The queue alone, without the
 * session around it.
 */

#include "Peers.h"

#include <cstring>
#include <ortp/rtp.h>
#include <ortp/str_utils.h>

// Exported by the library, declared in none of its installed headers.
extern "C" bool_t rtp_putq(queue_t* pQueue, mblk_t* pMessage);

namespace
{

class COrtpTaker : public IPathTaker
{
public:
    COrtpTaker(CBenchOwner& owner, const tagPathConfig& stConfig)
        : m_owner(owner), m_nDepth((int)stConfig.dDepth)
    {
        qinit(&m_queue);
    }
    ~COrtpTaker() override { flushq(&m_queue, 0); }
    void Take(const tagArrivalStream&, uint32 dwSeq, uint32, CBenchPacket* pPacket) override
    {
        // A head as it comes from the network, and behind it where the packet is.
        mblk_t* pMessage = allocb(sizeof(rtp_header_t) + sizeof(pPacket), 0);
        rtp_header_t* pHead = (rtp_header_t*)pMessage->b_wptr;
        pHead->version = 2;
        pHead->cc = 0;
        pHead->markbit = 0;
        pHead->seq_number = (uint16_t)dwSeq;
        pHead->timestamp = pPacket->m_stHead.uTimeStamp * 90;
        memcpy(pMessage->b_wptr + sizeof(rtp_header_t), &pPacket, sizeof(pPacket));
        pMessage->b_wptr += sizeof(rtp_header_t) + sizeof(pPacket);
        rtp_putq(&m_queue, pMessage);
        while (m_queue.q_mcount > m_nDepth)
        {
            mblk_t* pOut = getq(&m_queue);
            CBenchPacket* p = nullptr;
            memcpy(&p, pOut->b_rptr + sizeof(rtp_header_t), sizeof(p));
            freemsg(pOut);
            int nDelay = 0;
            m_owner.OnUDTRecvOutData(p, &nDelay);
        }
    }
    void Turn() override {}
    size_t Held() const override { return (size_t)m_queue.q_mcount; }
    uint64 Lost() const override { return 0; }

private:
    CBenchOwner& m_owner;
    int m_nDepth;
    queue_t m_queue;
};

} // namespace

void AddOrtp(std::vector<tagPeer>& vecPeers)
{
    vecPeers.push_back({"ortp-queue", "abcdef",
                        [](CBenchOwner& owner, const tagPathConfig& stConfig) -> std::unique_ptr<IPathTaker>
                        { return std::make_unique<COrtpTaker>(owner, stConfig); },
                        false, 0});
}
