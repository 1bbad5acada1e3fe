// Frame bookkeeping of one video stream. Packets come in arrival order; numbers go out when the look-ahead allows.
#include "RtpFrames.h"

#include <algorithm>

namespace
{
// A packet this far behind the stream's newest is taken for lost.
const int64_t c_llReorderSlack = 16;
// Frames looked through for a packet's timestamp.
const size_t c_nSearch = 256;
} // namespace

std::shared_ptr<tagRtpFrame> CRtpFrames::Add(int64_t llSeq, int64_t llTs, bool bMarker,
                                             const tagRtpMark& stMark, bool bAgain)
{
    m_llHighest = m_deque.empty() ? llSeq : std::max(m_llHighest, llSeq);
    m_bMarkers = m_bMarkers || bMarker;

    size_t nAt = m_deque.size();
    const size_t nStop = m_deque.size() > c_nSearch ? m_deque.size() - c_nSearch : 0;
    while (nAt > nStop && m_deque[nAt - 1]->llTs != llTs)
        nAt--;
    std::shared_ptr<tagRtpFrame> pFrame;
    if (nAt > nStop)
    {
        nAt--;
        pFrame = m_deque[nAt];
    }
    else
    {
        pFrame = std::make_shared<tagRtpFrame>();
        pFrame->llTs = llTs;
        pFrame->llFirst = pFrame->llLast = llSeq;
        pFrame->bStart = stMark.bStart;
        pFrame->bContinuation = stMark.bContinuation;
        nAt = m_deque.size();
        m_deque.push_back(pFrame);
    }
    if (llSeq < pFrame->llFirst)
    {
        pFrame->llFirst = llSeq;
        pFrame->bStart = stMark.bStart;
        pFrame->bContinuation = stMark.bContinuation;
    }
    for (; nAt > 0 && m_deque[nAt - 1]->llFirst > pFrame->llFirst; nAt--)
        std::swap(m_deque[nAt - 1], m_deque[nAt]);

    pFrame->llLast = std::max(pFrame->llLast, llSeq);
    if (!bAgain)
        pFrame->dwSeen++;
    if (bMarker && (!pFrame->bMarker || llSeq > pFrame->llMarker))
    {
        pFrame->bMarker = true;
        pFrame->llMarker = llSeq;
    }
    pFrame->bDecided = pFrame->bDecided || !stMark.bUndecided;
    if (stMark.bKey && !pFrame->bKey)
    {
        pFrame->bKey = true;
        // Its first packets left before the mark came. While no later frame has numbers, the rest of it still opens
        // the GOP; otherwise the numbers behind it stand and it stays inside its GOP.
        if (pFrame->bNumbered && nAt + 1 == m_deque.size() && pFrame->dwIndex > 0)
        {
            pFrame->dwGop++;
            pFrame->dwIndex = 0;
        }
    }

    if (nAt > 0 && m_deque[nAt - 1]->llLast + 1 == pFrame->llFirst && llTs > m_deque[nAt - 1]->llTs)
        m_llFrameTicks = llTs - m_deque[nAt - 1]->llTs;

    while (m_deque.size() > m_dwKeep)
        m_deque.pop_front();
    return pFrame;
}

CRtpFrames::tagBorder CRtpFrames::Border(const tagRtpFrame& stBefore, const tagRtpFrame& stBehind) const
{
    tagBorder st;
    st.llEnd = stBefore.bMarker ? std::max(stBefore.llMarker, stBefore.llLast) : stBefore.llLast;
    st.llStart = stBehind.llFirst;
    int64_t llMissing = st.llStart - st.llEnd - 1;
    if (llMissing <= 0)
        return st;

    // The packet with the marker belongs to the frame before.
    if (!stBefore.bMarker && m_bMarkers && (llMissing > 1 || !stBehind.bContinuation))
    {
        st.llEnd++;
        llMissing--;
    }
    int64_t llFrames = 0;
    if (m_llFrameTicks > 0 && stBehind.llTs > stBefore.llTs)
        llFrames = (stBehind.llTs - stBefore.llTs + m_llFrameTicks / 2) / m_llFrameTicks - 1;
    if (stBehind.bContinuation && llMissing > 0)
    {
        st.llStart--;
        llMissing--;
    }
    st.dwLost = (uint32)std::min(std::max<int64_t>(llFrames, 0), llMissing);
    // A start that is surely one has nothing missing before it: what the frame before cannot take was a frame.
    if (stBehind.bStart && stBefore.bMarker && llMissing > 0 && st.dwLost == 0)
        st.dwLost = 1;
    if (st.dwLost > 0 || llMissing == 0)
        return st;
    if (stBehind.bStart || !stBefore.bMarker)
        st.llEnd += llMissing;
    else
        st.llStart -= llMissing;
    return st;
}

bool CRtpFrames::IsSettled(const tagRtpFrame& stFrame) const
{
    if (m_llHighest - stFrame.llLast >= c_llReorderSlack)
        return true;
    if (!stFrame.bMarker || stFrame.llMarker - stFrame.llFirst + 1 != (int64_t)stFrame.dwSeen)
        return false;
    if (stFrame.bStart)
        return true;
    const size_t nAt = Find(stFrame);
    return nAt > 0 && nAt < m_deque.size() && m_deque[nAt - 1]->llLast + 1 == stFrame.llFirst;
}

size_t CRtpFrames::Find(const tagRtpFrame& stFrame) const
{
    size_t nAt = m_deque.size();
    while (nAt > 0 && m_deque[nAt - 1].get() != &stFrame)
        nAt--;
    return nAt > 0 ? nAt - 1 : m_deque.size();
}

void CRtpFrames::NumberUpTo(size_t nAt)
{
    size_t nFrom = nAt;
    while (nFrom > 0 && !m_deque[nFrom - 1]->bNumbered)
        nFrom--;
    for (; nFrom <= nAt; nFrom++)
        NumberOne(nFrom);
}

void CRtpFrames::NumberOne(size_t nAt)
{
    tagRtpFrame& stFrame = *m_deque[nAt];
    stFrame.bNumbered = true;
    if (nAt == 0)
    {
        stFrame.llBase = stFrame.llFirst - (stFrame.bContinuation ? 1 : 0);
        return;
    }
    const tagRtpFrame& stBefore = *m_deque[nAt - 1];
    const tagBorder stBorder = Border(stBefore, stFrame);
    stFrame.llBase = stBorder.llStart;
    stFrame.dwGop = stBefore.dwGop;
    stFrame.dwIndex = stBefore.dwIndex + stBorder.dwLost + 1;

    const tagRtpFrame* pBehind = nAt + 1 < m_deque.size() ? m_deque[nAt + 1].get() : nullptr;
    if (pBehind != nullptr && pBehind->bNumbered)
    {
        // It came after a later frame got its numbers: it takes a hole that was left for it, or shares.
        if (pBehind->dwGop == stBefore.dwGop)
            stFrame.dwIndex = std::min(stBefore.dwIndex + 1, std::max(pBehind->dwIndex, 1u) - 1);
    }
    else if (stFrame.bKey)
    {
        stFrame.dwGop++;
        stFrame.dwIndex = 0;
    }
}

void CRtpFrames::Number(tagRtpFrame& stFrame, int64_t llSeq, bool bLive, tagUdtPacketHeadInfo& stHead)
{
    const size_t nAt = Find(stFrame);
    if (!stFrame.bNumbered && nAt < m_deque.size())
        NumberUpTo(nAt);
    else if (!stFrame.bNumbered)
    {
        stFrame.bNumbered = true;
        stFrame.llBase = stFrame.llFirst;
    }

    int64_t llEnd = stFrame.llLast;
    bool bFinished = stFrame.bMarker;
    if (stFrame.bMarker)
        llEnd = std::max(llEnd, stFrame.llMarker);
    else if (nAt + 1 < m_deque.size())
    {
        llEnd = Border(stFrame, *m_deque[nAt + 1]).llEnd;
        bFinished = true;
    }
    else if (!bLive)
        bFinished = !m_bMarkers;
    const int64_t llIndex = std::max<int64_t>(llSeq - stFrame.llBase, 0);
    int64_t llTotal = std::max(llEnd - stFrame.llBase, llIndex) + (bFinished ? 1 : 2);

    // Eight bits hold 255 packets. The packets beyond share the last index, so that every index stays below the count.
    llTotal = std::min<int64_t>(llTotal, 255);
    stHead.cPkgIndex = (uint8)std::min<int64_t>(llIndex, 254);
    stHead.cTotalPkgCount = (uint8)std::max<int64_t>(llTotal, stHead.cPkgIndex + 1);
    stHead.cFecPkgCount = 0;
    stHead.cFrmType = stFrame.bKey ? def_FrameType_I : def_FrameType_P;
    stHead.cFrameIndex = (uint8)stFrame.dwIndex; // modulo 256
    stHead.cGopIndex = (uint8)stFrame.dwGop;     // modulo 256
}
