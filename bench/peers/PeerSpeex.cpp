/**
 * The jitter buffer of speexdsp (libspeexdsp-dev): a table of 200 places that is searched. It holds no more than
 * 150 here, so pattern c has that depth and the late packets of d to f would be too late for it. Its delay is not
 * adapted: it is asked by depth, as the others are.
 */

#include "Peers.h"

#include <speex/speex_jitter.h>

namespace
{

constexpr spx_uint32_t c_nSpan = 20;

void Keep(void*) {} // packets are not its own

class CSpeexTaker : public IPathTaker
{
public:
    CSpeexTaker(CBenchOwner& owner, const tagPathConfig& stConfig)
        : m_owner(owner), m_nDepth((size_t)stConfig.dDepth), m_pBuffer(jitter_buffer_init((int)c_nSpan))
    {
        jitter_buffer_ctl(m_pBuffer, JITTER_BUFFER_SET_DESTROY_CALLBACK, (void*)&Keep);
    }
    ~CSpeexTaker() override { jitter_buffer_destroy(m_pBuffer); }
    void Take(const tagArrivalStream&, uint32 dwSeq, uint32, CBenchPacket* pPacket) override
    {
        JitterBufferPacket stPacket = {};
        stPacket.data = (char*)pPacket;
        stPacket.len = 1;
        stPacket.timestamp = dwSeq * c_nSpan;
        stPacket.span = c_nSpan;
        stPacket.sequence = (spx_uint16_t)dwSeq;
        jitter_buffer_put(m_pBuffer, &stPacket);
        ++m_nHeld;
        while (m_nHeld > m_nDepth)
        {
            spx_int32_t nOffset = 0;
            JitterBufferPacket stOut = {};
            if (jitter_buffer_get(m_pBuffer, &stOut, (spx_int32_t)c_nSpan, &nOffset) != JITTER_BUFFER_OK)
            {
                ++m_ullLost;
                continue;
            }
            --m_nHeld;
            int nDelay = 0;
            m_owner.OnUDTRecvOutData((CBenchPacket*)(void*)stOut.data, &nDelay);
        }
    }
    void Turn() override {}
    size_t Held() const override { return m_nHeld; }
    bool CountsLost() const override { return true; }
    uint64 Lost() const override { return m_ullLost; }

private:
    CBenchOwner& m_owner;
    size_t m_nDepth;
    JitterBuffer* m_pBuffer;
    size_t m_nHeld = 0;
    uint64 m_ullLost = 0;
};

} // namespace

void AddSpeex(std::vector<tagPeer>& vecPeers)
{
    vecPeers.push_back({"speexdsp", "abc",
                        [](CBenchOwner& owner, const tagPathConfig& stConfig) -> std::unique_ptr<IPathTaker>
                        { return std::make_unique<CSpeexTaker>(owner, stConfig); },
                        false, 150});
}
