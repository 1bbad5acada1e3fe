/// What is found out about one SSRC from its packets: is it a stream, what does it carry, whom does it repeat.
/// Fixed memory.
#ifndef RTP_LEARN_H
#define RTP_LEARN_H

#include <array>
#include <string>

#include "RtpPacket.h"
#include "RtpPayload.h"
#include "RtpUnwrap.h"

/// An SSRC on its way to one destination. The same SSRC to two places is two streams.
struct tagRtpKey
{
    uint32 dwSsrc = 0;
    tagRtpAddr stDst;
    bool operator<(const tagRtpKey& stOther) const
    {
        return dwSsrc != stOther.dwSsrc ? dwSsrc < stOther.dwSsrc : stDst < stOther.stDst;
    }
};

class CRtpLearn
{
public:
    void OnPacket(const tagRtpHeader& stHeader, const uint8* pPayload, uint64 ullArrivalUs);

    /// Two packets that go together came: same payload type, sequences near each other, not one packet twice.
    bool Alive() const { return m_bAlive; }
    uint64 Packets() const { return m_ullPackets; }
    uint8 MainPt() const; ///< the type of most packets
    uint16 HighestSeq() const { return (uint16)m_seq.Highest(); }
    uint32 LastTs() const { return m_dwLastTs; }
    uint64 FirstUs() const { return m_ullFirstUs; } ///< arrival of its first packet
    uint64 LastUs() const { return m_ullLastUs; }   ///< and of its last

    /// Kind, codec and clock of the main payload type by what was seen; strWhy says by what.
    tagRtpFormat Guess(std::string& strWhy) const;

    /// Its payloads say what it is, so no pattern needs to be waited for.
    bool KnownByPayload() const { return LooksH264() || LooksVp8(); }

    /// RTX: tests a payload's first two bytes and timestamp against a stream that may be the original.
    void TestRtx(const tagRtpHeader& stHeader, const uint8* pPayload, uint32 dwOriginalSsrc,
                 const CRtpLearn& original);
    void CountRtxTest() { m_dwRtxTests++; }
    uint32 RtxTests() const { return m_dwRtxTests; }
    /// @return true with the SSRC it repeats when nearly every packet tested fitted that stream
    bool RtxOriginal(uint32& dwSsrc, std::string& strWhy) const;

    static const uint32 c_dwRtxTests = 256; ///< packets tested, then it is known

private:
    struct tagPtCount
    {
        uint8 cPt = 0;
        uint32 dwCount = 0;
    };
    struct tagRtxMatch
    {
        uint32 dwSsrc = 0;
        uint32 dwCount = 0;
    };
    bool LooksH264() const { return m_dwH264Strong > 0 && m_dwH264 * 20ull >= m_dwPayloads * 19ull; }
    bool LooksVp8() const { return m_dwVp8Strong > 0 && m_dwVp8 * 20ull >= m_dwPayloads * 19ull; }
    void LearnSlope(uint64 ullArrivalUs, int64_t llTs);

    uint64 m_ullPackets = 0;
    bool m_bAlive = false;
    uint8 m_cLastPt = 0;
    uint16 m_wLastSeq = 0;
    uint32 m_dwLastTs = 0;
    CRtpSeqUnwrap m_seq;
    CRtpTsUnwrap m_ts;
    std::array<tagPtCount, 8> m_aPt{};

    // Slope: votes of spans of a few seconds, and the whole
    uint64 m_ullFirstUs = 0;
    uint64 m_ullLastUs = 0;
    int64_t m_llLastTs = 0;
    uint64 m_ullSpanUs = 0;
    int64_t m_llSpanTs = 0;
    std::array<uint32, 7> m_aVotes{};

    // Pattern
    uint32 m_dwPairs = 0;  // packets after their predecessor, same type
    uint32 m_dwSameTs = 0; // of these with its timestamp
    uint32 m_dwMarkers = 0;
    int64_t m_llStepTicks = 0; // the commonest step between neighbours, by majority vote
    uint32 m_dwStepWeight = 0;

    // Payload
    uint32 m_dwPayloads = 0;
    uint32 m_dwH264 = 0;
    uint32 m_dwH264Strong = 0;
    uint32 m_dwVp8 = 0;
    uint32 m_dwVp8Strong = 0;

    // RTX
    uint32 m_dwRtxTests = 0;
    std::array<tagRtxMatch, 8> m_aRtx{};
};

#endif // RTP_LEARN_H
