/**
 * What is counted of one stream as its packets and requests pass. One thread at a time; fixed memory, nothing is
 * allocated per packet.
 */
#ifndef UDTSTREAMCOUNTS_H
#define UDTSTREAMCOUNTS_H

#include "AVGUDTRecvData.h"
#include "UdtStats.h"

#include <array>
#include <memory>

/** What is remembered of each of a stream's latest sequences, right across the 32-bit wrap. */
class CUdtSeqMarks
{
public:
    static constexpr uint32 c_dwSpan = 8192;     ///< sequences remembered, from the highest one down
    static constexpr uint32 c_dwMaxJump = 65536; ///< a longer way forward is another numbering, not a loss

    enum emMark : uint8
    {
        MARK_CAME = 1,
        MARK_RELEASED = 2,
        MARK_ASKED = 4
    };
    enum emPlace
    {
        PLACE_HERE,      ///< at or behind the highest sequence, and remembered
        PLACE_AHEAD,     ///< the new highest
        PLACE_RESTARTED, ///< the numbering began anew: this and the sequence before it are the new ones
        PLACE_OUTSIDE    ///< too far away to be remembered
    };

    /// Finds a sequence, moving up to it when it lies ahead. `bLeads`: a packet of the stream itself; two in a row
    /// of another numbering begin a new one (RFC 3550, A.1).
    emPlace Reach(uint32 dwSeq, bool bLeads);
    /// The marks of a sequence that `Reach` has just placed, unless outside.
    uint8& At(uint32 dwSeq) { return m_aMarks[dwSeq % c_dwSpan]; }
    bool IsRemembered(uint32 dwSeq) const { return m_bAny && m_dwTop - dwSeq < c_dwSpan; }
    uint32 Top() const { return m_dwTop; }

private:
    void Restart(uint32 dwSeq);

    std::array<uint8, c_dwSpan> m_aMarks{};
    uint32 m_dwTop = 0;
    uint32 m_dwNextStray = 0; // what would follow the last sequence from far away
    bool m_bAny = false;
    bool m_bStray = false;
};

/** One video frame being put together from its data packets. */
struct tagFrameParts
{
    uint32 dwTimeStamp = 0;
    uint8 cTotal = 0; ///< data packets, the most that a packet told
    uint16 wHave = 0;
    bool bDone = false;
    std::array<uint32, 8> aBits{};

    /// Adds a packet. @return true when the frame is complete now and was not before
    bool Add(uint8 cPkgIndex, uint8 cPkgNum);
};

class CUdtStreamCounts
{
public:
    explicit CUdtStreamCounts(uint8 cSubType);

    /// What is known of a packet at the door.
    struct tagCame
    {
        uint32 dwSeq = 0;
        uint32 dwBytes = 0;
        std::optional<uint32> dwPayloadBytes;
        std::optional<bool> bRetransmitted;
        tagUdtPacketHeadInfo stHead;
        uint64 ullTick = 0;
    };
    void Came(const tagCame& stCame);
    /// `pstPlayout`: where the user stood; null when that is not known.
    void Released(const tagDataPacket& stPacket, uint64 ullTick, const tagPlayoutInfo* pstPlayout);
    /// `ullMessage` tells one request message from the next.
    void Requested(uint32 dwSeq, uint64 ullMessage, uint64 ullTick);
    void PlayDelay(int nMs) { m_nPlayDelay = nMs; }
    std::optional<int> PlayDelay() const { return m_nPlayDelay; }

    /// `bReleasesSeen`: releases could be told apart by stream, so that none counted means none.
    void Fill(tagUdtStreamStats& st, bool bReleasesSeen) const;
    bool HasSeenKeyFrame() const { return m_bKeySeen; }
    uint64 LastTick() const { return m_ullLastTick; }

private:
    typedef std::array<tagFrameParts, 256> FrameRing;

    void CountSequence(uint32 dwSeq, bool bFirst, CUdtSeqMarks::emPlace ePlace);
    void CountJitter(const tagCame& stCame);
    void CountFrameIn(const tagUdtPacketHeadInfo& stHead);
    void CountFrameOut(const tagDataPacket& stPacket, uint64 ullTick, uint32 dwTargetMs, uint32 dwMinimumMs);
    void EmitFrame();
    void PassDiscarded(uint32 dwSeq);
    void FillReleases(tagUdtStreamStats& st) const;

    const bool m_bVideo;
    const bool m_bAudio;
    CUdtSeqMarks m_marks;
    uint64 m_ullLastTick = 0; // of anything
    bool m_bKeySeen = false;

    // Door.
    uint64 m_ullCame = 0;
    uint64 m_ullBytes = 0;
    uint64 m_ullPayload = 0;
    bool m_bPayloadKnown = true;
    uint32 m_dwHighestCame = 0;
    int64_t m_llExpected = 0; // by the sequences that count
    int64_t m_llCounted = 0;  // packets whose sequence counts
    uint64 m_ullRepeats = 0;
    uint64 m_ullToldRetransmitted = 0;
    bool m_bRetransmittedTold = false;
    uint64 m_ullCameTick = 0;
    uint64 m_ullFecCame = 0;
    uint64 m_ullFramesCame = 0;
    std::unique_ptr<FrameRing> m_pFrames; // made with the first video packet
    uint64 m_ullFrames = 0;               // begun so far
    uint32 m_dwNewestFrame = 0;           // timestamp
    uint32 m_dwLastTransit = 0;
    bool m_bTransit = false;
    bool m_bJitter = false; // two packets were compared
    double m_dJitterMs = 0;

    // Release.
    uint64 m_ullReleased = 0;
    uint64 m_ullLate = 0;
    uint64 m_ullDelayMs = 0;
    uint64 m_ullTargetMs = 0;
    uint64 m_ullMinimumMs = 0;
    bool m_bTargetsKnown = true; // of every release
    uint32 m_dwHighestOut = 0;
    bool m_bAnyOut = false;
    uint32 m_dwNextDecided = 0; // sequences below it are decided: discarded or not
    bool m_bDeciding = false;
    uint64 m_ullDiscarded = 0;
    std::optional<int> m_nPlayDelay;

    tagFrameParts m_stOut; // the frame that is leaving
    bool m_bOutOpen = false;
    bool m_bOutKey = false;
    uint32 m_dwOutFirstCame = 0;
    uint32 m_dwOutLastTick = 0;
    uint32 m_dwOutTargetMs = 0;
    uint32 m_dwOutMinimumMs = 0;
    uint64 m_ullFramesOut = 0;
    uint64 m_ullFramesWhole = 0;
    uint64 m_ullKeysOut = 0;
    uint64 m_ullKeysWhole = 0;
    uint64 m_ullEmitted = 0;
    uint64 m_ullFrameDelayMs = 0;
    uint64 m_ullFrameTargetMs = 0;
    uint64 m_ullFrameMinimumMs = 0;

    // Request.
    uint64 m_ullMessages = 0;
    uint64 m_ullLastMessage = 0;
    uint64 m_ullAsked = 0;
    uint64 m_ullAskedOnce = 0;
    uint64 m_ullAskedCame = 0; // that came after they were asked for
};

#endif // UDTSTREAMCOUNTS_H
