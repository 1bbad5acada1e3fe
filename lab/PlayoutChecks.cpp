#include "PlayoutChecks.h"

#include "RecvRig.h"

#include <fmt/format.h>

namespace lab
{

namespace
{

const tagUinDataInfo* UserOf(const CAVGUdtRecv& recv, uint64 ullUin)
{
    const MapUinDataInfo& map = CRecvRig::UsersOf(recv);
    const auto it = map.find(ullUin);
    return it == map.end() ? nullptr : &it->second;
}

// The buffered packet on whose account the scan asked for a sequence in this turn; null when there is none.
const tagDataPacket* BehindGap(const MapUdtPacket& map, uint32 dwSeq, uint32 dwTick)
{
    // The gap before a packet is at most 255 sequences wide. It may lie across the end of the number space.
    MapUdtPacket::const_iterator it = map.upper_bound(dwSeq);
    for (size_t i = 0; i < 256 && i < map.size(); ++i, ++it)
    {
        if (it == map.end())
            it = map.begin();
        const tagDataPacket& st = it->second;
        const uint32 dwBehind = it->first - dwSeq;
        if (dwBehind >= 1 && dwBehind <= st.cPrePkgLost && st.dwLastReqLostTime == dwTick)
            return &st;
    }
    return nullptr;
}

} // namespace

void CPlayoutChecks::Released(const CAVGUdtRecv& recv, const CMediaPacket& packet, int nPlayDelay)
{
    uint32 dwPlayDelay = 0;
    if (packet.m_cSubType == MEAVAudio)
    {
        tagPlayDelay& st = m_mapDelays[packet.u64Uin];
        if (st.ullTurn != m_ullTurn)
            st.dwInForce = st.dwReported;
        st.ullTurn = m_ullTurn;
        st.dwReported = (uint32)nPlayDelay;
        dwPlayDelay = st.dwInForce;
    }
    const tagUinDataInfo* pInfo = UserOf(recv, packet.u64Uin);
    const uint32 dwMediaMs = packet.Head().uTimeStamp;
    if (!pInfo)
        m_fnBroken(fmt::format("stream {}: sequence {} left though its user has no clock", packet.m_uStream,
                               packet.dwSenderSeq));
    // What is due without a play delay is due: a stream that came anew has none yet, and the sum may wrap.
    else if (dwMediaMs > pInfo->dwTimelineOut && dwMediaMs > pInfo->dwTimelineOut + dwPlayDelay)
        m_fnBroken(
            fmt::format("stream {}: sequence {} left before its time: media time {} ms, clock {} ms, play "
                        "delay {} ms",
                        packet.m_uStream, packet.dwSenderSeq, dwMediaMs, pInfo->dwTimelineOut, dwPlayDelay));
}

void CPlayoutChecks::Requested(const CAVGUdtRecv& recv, const tagReplyData* pReply, uint32 uCount,
                               uint32 dwTick)
{
    const MapUinInPkt& mapStreams = CRecvRig::StreamsOf(recv);
    for (uint32 i = 0; i < uCount; i++)
    {
        const tagReplyData& st = pReply[i];
        const auto itStream = mapStreams.find(tagInPktKey(st.ullUserAccount, st.cSubType));
        if (itStream == mapStreams.end())
        {
            m_fnBroken(
                fmt::format("user {} sub-type {}: sequence {} was asked for though there is no such stream",
                            st.ullUserAccount, st.cSubType, st.dwUserSeq));
            continue;
        }
        // The scan notes when it asked for what; the immediate requests leave no note.
        const tagUinDataBuf& stBuf = itStream->second;
        const auto itAsked = stBuf.mapRequestSeq.find(st.dwUserSeq);
        if (itAsked == stBuf.mapRequestSeq.end() || itAsked->second != dwTick)
        {
            m_ullImmediateRequests++;
            continue;
        }
        const tagDataPacket* pBehind = BehindGap(stBuf.mapUdtPacket, st.dwUserSeq, dwTick);
        if (!pBehind && m_bClockStood)
        {
            m_ullImmediateRequests++; // the note may be of the scan of a turn at the same tick
            continue;
        }
        m_ullScanRequests++;
        const tagUinDataInfo* pInfo = UserOf(recv, st.ullUserAccount);
        if (!pBehind || !pInfo)
            m_fnBroken(
                fmt::format("user {} sub-type {}: sequence {} was asked for, but no buffered packet has it "
                            "in the gap before it",
                            st.ullUserAccount, st.cSubType, st.dwUserSeq));
        else if (pBehind->dwMETimeStamp <= pInfo->dwTimelineOut)
            m_fnBroken(fmt::format(
                "user {} sub-type {}: sequence {} was asked for behind the playout point: media "
                "time {} ms, clock {} ms",
                st.ullUserAccount, st.cSubType, st.dwUserSeq, pBehind->dwMETimeStamp, pInfo->dwTimelineOut));
    }
}

bool CPlayoutChecks::IsDue(const CAVGUdtRecv& recv, uint64 ullUin, uint8 cSubType, uint32 dwMediaMs) const
{
    const tagUinDataInfo* pInfo = UserOf(recv, ullUin);
    if (!pInfo || pInfo->dwTimelineOut == 0)
        return false;
    uint32 dwPlayDelay = 0;
    const auto it = m_mapDelays.find(ullUin);
    if (cSubType == MEAVAudio && it != m_mapDelays.end())
        dwPlayDelay = it->second.dwReported;
    return dwMediaMs <= pInfo->dwTimelineOut + dwPlayDelay;
}

} // namespace lab
