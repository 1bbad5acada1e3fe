/// Which packets make a frame, where the frame stands in its GOP: one video stream, any order of arrival.
///
/// A frame is the packets of one RTP timestamp. Frames are ordered by sequence (timestamps of reordered pictures
/// are not in sending order). What was lost between two frames is shared out by what is known: a frame that has
/// shown its marker ends there; a payload that is surely a frame's first packet, or surely not, says on which side
/// of the border the missing packets lie; a timestamp step of several frames with packets missing means whole
/// frames were lost, which leave holes in the frame index, never more than packets are missing.
#ifndef RTP_FRAMES_H
#define RTP_FRAMES_H

#include <deque>
#include <memory>

#include "RtpPayload.h"

struct tagRtpFrame
{
    int64_t llTs = 0;
    int64_t llFirst = 0; ///< lowest and highest sequence seen
    int64_t llLast = 0;
    uint32 dwSeen = 0; ///< packets, duplicates not counted
    bool bMarker = false;
    int64_t llMarker = 0;
    bool bKey = false;
    bool bDecided = false;      ///< its type is settled by a packet that tells
    bool bStart = false;        ///< llFirst is surely its first packet
    bool bContinuation = false; ///< llFirst is surely not its first packet

    bool bNumbered = false;
    uint32 dwGop = 0;
    uint32 dwIndex = 0;
    int64_t llBase = 0; ///< sequence of packet index 0, fixed with the numbers
};

class CRtpFrames
{
public:
    /// @param dwKeep frames remembered; at least as many as packets can wait for their numbers
    explicit CRtpFrames(uint32 dwKeep) : m_dwKeep(dwKeep) {}

    /// Files a packet. @param bAgain the packet was filed before: nothing is counted.
    std::shared_ptr<tagRtpFrame> Add(int64_t llSeq, int64_t llTs, bool bMarker, const tagRtpMark& stMark,
                                     bool bAgain);

    /// Nothing that may still come within a usual reordering can change the frame's count or type.
    bool IsSettled(const tagRtpFrame& stFrame) const;

    /// Writes frame type, packet index and count, frame and GOP index. The first call for a frame fixes its numbers.
    /// @param bLive an unfinished frame counts one packet more than seen
    void Number(tagRtpFrame& stFrame, int64_t llSeq, bool bLive, tagUdtPacketHeadInfo& stHead);

    size_t Kept() const { return m_deque.size(); }

private:
    typedef std::deque<std::shared_ptr<tagRtpFrame>> Deque;

    struct tagBorder
    {
        int64_t llEnd = 0;   // last packet of the frame before
        int64_t llStart = 0; // first packet of the frame behind
        uint32 dwLost = 0;   // whole frames between them
    };
    tagBorder Border(const tagRtpFrame& stBefore, const tagRtpFrame& stBehind) const;
    size_t Find(const tagRtpFrame& stFrame) const;
    void NumberUpTo(size_t nAt);
    void NumberOne(size_t nAt);

    const uint32 m_dwKeep;
    Deque m_deque; // by llFirst
    int64_t m_llHighest = 0;
    int64_t m_llFrameTicks = 0; // of two frames with nothing missing between them, the latest such step
    bool m_bMarkers = false;    // this sender sets markers
};

#endif // RTP_FRAMES_H
