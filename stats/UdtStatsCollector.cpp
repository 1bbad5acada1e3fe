/**
 * What passes a receiver, counted by stream.
 *
 * In come packets on the network threads, releases and requests on the worker, and questions on any thread. The head
 * parser is told nothing but bytes, so the door leaves a note for it on its thread: which stream and sequence the
 * bytes belong to.
 */

#include "UdtStatsCollector.h"

#include "UdtStreamCounts.h"
#include "xpmess.h"

#include <algorithm>

namespace
{

constexpr double c_dSecond = 1000.0;   // ms
constexpr double c_dRateScale = 10000; // loss rates are in 1/10000
constexpr double c_dBurstScale = 100;  // mean burst in hundredths of a packet

double Seconds(uint32 dwMs) { return dwMs / c_dSecond; }

void FillRecord(tagUdtStreamStats& st, const tagRecvChnStatInfo& stInfo, bool bKeySeen)
{
    st.packetsHandled = stInfo.dwTotalRecvPkgNum;
    if (!st.packetsReceived)
        st.packetsReceived = stInfo.dwTotalRecvPkgNum;
    st.packetsMissingAtRelease = stInfo.dwTotalLossPkgNum;
    st.requestedPacketsFailed = stInfo.dwTotalReqFailNum;
    st.packetsFarBehindPlayout = stInfo.dwSkipPkgNum;
    st.configuredMinimumDelay = Seconds(stInfo.dwConfgMinDelay);
    st.configuredMaximumDelay = Seconds(stInfo.dwConfgMaxDelay);
    st.timelineDelta = Seconds(stInfo.dwCurCalcTLDelta);
    // A 0 in the following is not a measurement, but in the first of them where a key frame was seen.
    if (stInfo.dwFirstIFrmRecvTime != 0 || bKeySeen)
        st.firstKeyFrameReceiveTime = Seconds(stInfo.dwFirstIFrmRecvTime);
    if (stInfo.dwFrmNumBeforeFristFrm != 0)
        st.framesBeforeFirstKeyFrame = stInfo.dwFrmNumBeforeFristFrm;
    if (stInfo.dwFirstFrmCanDec != c_dwNone32)
        st.firstKeyFrameDecodable = stInfo.dwFirstFrmCanDec != 0;
    if (stInfo.dwCanDecIFrmElpTime != 0)
        st.firstDecodableKeyFrameTime = Seconds(stInfo.dwCanDecIFrmElpTime);
    if (stInfo.dwRealMinDelay != c_dwNone32)
        st.measuredMinimumDelay = Seconds(stInfo.dwRealMinDelay);
    if (stInfo.dwRealMaxDelay != 0)
        st.measuredMaximumDelay = Seconds(stInfo.dwRealMaxDelay);
    if (stInfo.dwRealDelayAvg != 0)
        st.measuredAverageDelay = Seconds(stInfo.dwRealDelayAvg);
    if (stInfo.dwStampErrCnt != 0)
        st.timestampErrors = stInfo.dwStampErrCnt;
}

void FillPlayout(tagUdtStreamStats& st, const tagPlayoutInfo& stInfo)
{
    st.playoutTargetDelay = Seconds(stInfo.dwTarget);
    st.playoutBufferedTime = Seconds(stInfo.dwDataLen);
    st.transitBandWidth = Seconds(stInfo.dwBandWidth);
    if (stInfo.dwExWaitTick != 0)
        st.lossExtraWait = Seconds(stInfo.dwExWaitTick);
    if (stInfo.dwTimelineOut != 0)
        st.playoutClock = Seconds(stInfo.dwTimelineOut);
}

} // namespace

// The note that the door leaves on its thread. Notes of other collectors may lie below: a parser may hand a packet to
// another receiver.
struct CUdtStatsCollector::tagInFlight
{
    const CUdtStatsCollector* pCollector;
    tagInPktKey stKey;
    uint32 dwSeq;
    const UDTCodecBaseDecode_V2* pData;
    const tagUdtArrival* pstArrival;
    tagInFlight* pOuter;

    static thread_local tagInFlight* s_pTop;

    tagInFlight(const CUdtStatsCollector* pOf, const tagInPktKey& stOf, uint32 dwOf,
                const UDTCodecBaseDecode_V2* pPacket, const tagUdtArrival& stArrival)
        : pCollector(pOf), stKey(stOf), dwSeq(dwOf), pData(pPacket), pstArrival(&stArrival), pOuter(s_pTop)
    {
        s_pTop = this;
    }
    ~tagInFlight() { s_pTop = pOuter; }
    tagInFlight(const tagInFlight&) = delete;
    tagInFlight& operator=(const tagInFlight&) = delete;
};

thread_local CUdtStatsCollector::tagInFlight* CUdtStatsCollector::tagInFlight::s_pTop = nullptr;

// What the receiver says of itself at one moment.
struct CUdtStatsCollector::tagSeen
{
    bool bThere = false;
    tagRecvInfo stRecv;
    std::vector<tagRecvChnStatInfo> vecStreams;
    std::map<uint64, tagPlayoutInfo> mapPlayout;
    uint32 dwLoss100 = 0;
    uint32 dwTotalNum = 0;
    uint32 dwRealNum = 0;
    uint32 dwAvgLossMode = 0;
};

CUdtStatsCollector::CUdtStatsCollector(IUDTRecvEventCallBack* pOwner) : m_pOwner(pOwner) {}

CUdtStatsCollector::~CUdtStatsCollector() = default;

void CUdtStatsCollector::Attach(CAVGUdtRecv* pRecv)
{
    {
        CXPAutoLock lock(m_lockRecv);
        m_pRecv = pRecv;
        m_bPlayout = false;
    }
    CXPAutoLock lock(m_lock);
    m_bReleasesSeen = m_bReleasesSeen || pRecv != nullptr;
}

void CUdtStatsCollector::SetTimeAtTick(double dUnixMs, uint64 ullTick)
{
    CXPAutoLock lock(m_lock);
    m_dUnixMsAtTick0 = dUnixMs - (double)ullTick;
}

void CUdtStatsCollector::SetForgetAfter(uint32 dwMs)
{
    CXPAutoLock lock(m_lock);
    m_dwForgetAfter = dwMs;
}

void CUdtStatsCollector::Reset()
{
    MapCounts mapGone; // freed behind the lock
    CXPAutoLock lock(m_lock);
    mapGone.swap(m_mapCounts);
    m_pLastCounts = nullptr;
    m_ullParsed = 0;
    m_ullReleased = 0;
    m_ullMessages = 0;
    m_ullAsked = 0;
    m_bPolled = false;
    m_ullDownExpected = 0;
    m_ullDownReceived = 0;
    m_ullDownBytes = 0;
    m_dwIFrmLostInfo = 0;
    m_bLossKnown = false;
}

// ---- Streams ---------------------------------------------------------------------------------------------------

CUdtStreamCounts& CUdtStatsCollector::Counts(const tagInPktKey& stKey, uint64 ullTick)
{
    if (m_pLastCounts != nullptr && m_stLastKey.cSubType == stKey.cSubType &&
        m_stLastKey.ullUserAccount == stKey.ullUserAccount)
        return *m_pLastCounts;
    MapCounts::iterator it = m_mapCounts.lower_bound(stKey);
    if (it == m_mapCounts.end() || stKey < it->first)
    {
        // Streams come seldom: the time to look for those that left. Where they do not, somebody makes accounts up.
        Forget(ullTick);
        if (m_mapCounts.size() >= c_dwUdtStatsMaxStreams)
            ForgetSilentLongest();
        it = m_mapCounts.emplace(stKey, std::make_unique<CUdtStreamCounts>(stKey.cSubType)).first;
    }
    m_stLastKey = stKey;
    m_pLastCounts = it->second.get();
    return *m_pLastCounts;
}

void CUdtStatsCollector::Forget(uint64 ullTick)
{
    if (m_dwForgetAfter == 0)
        return;
    for (MapCounts::iterator it = m_mapCounts.begin(); it != m_mapCounts.end();)
    {
        const uint64 ullLast = it->second->LastTick();
        if (ullTick <= ullLast || ullTick - ullLast <= m_dwForgetAfter)
        {
            ++it;
            continue;
        }
        if (it->second.get() == m_pLastCounts)
            m_pLastCounts = nullptr;
        it = m_mapCounts.erase(it);
    }
}

void CUdtStatsCollector::ForgetSilentLongest()
{
    const MapCounts::iterator it =
        std::min_element(m_mapCounts.begin(), m_mapCounts.end(),
                         [](const MapCounts::value_type& a, const MapCounts::value_type& b)
                         { return a.second->LastTick() < b.second->LastTick(); });
    if (it->second.get() == m_pLastCounts)
        m_pLastCounts = nullptr;
    m_mapCounts.erase(it);
}

// ---- Network threads -------------------------------------------------------------------------------------------

boolean CUdtStatsCollector::UDTReceiveNetData(uint32 dwSendSeq, uint64 llAccount, uint32 dwSeq,
                                              WORD wTimeStamp, uint8 cSubType, UDTCodecBaseDecode_V2* pData,
                                              const tagUdtArrival& stArrival)
{
    CAVGUdtRecv* const pRecv = m_pRecv;
    if (pRecv == nullptr)
        return TRUE;
    const tagInFlight stNote(this, tagInPktKey(llAccount, cSubType), dwSendSeq, pData, stArrival);
    return pRecv->UDTReceiveNetData(dwSendSeq, llAccount, dwSeq, wTimeStamp, cSubType, pData);
}

int CUdtStatsCollector::UdtParsePacketHeadInfo(uint8* pBuf, UdtPacketHeadInfo& stHead)
{
    const int nResult = m_pOwner != nullptr ? m_pOwner->UdtParsePacketHeadInfo(pBuf, stHead) : 0;

    const tagInFlight* const pNote = tagInFlight::s_pTop;
    if (pNote == nullptr || pNote->pCollector != this || pNote->pData == nullptr)
    {
        CXPAutoLock lock(m_lock);
        ++m_ullParsed; // came in past the door
        return nResult;
    }
    const UDTCodecBaseDecode_V2& packet = *pNote->pData;
    CUdtStreamCounts::tagCame stCame;
    stCame.dwSeq = pNote->dwSeq;
    stCame.dwBytes = packet.wLen;
    stCame.dwPayloadBytes = pNote->pstArrival->dwPayloadBytes;
    if (!stCame.dwPayloadBytes && stHead.cHeadLen != 0 && packet.bufBody.ulen > stHead.cHeadLen)
        stCame.dwPayloadBytes = packet.bufBody.ulen - stHead.cHeadLen;
    stCame.bRetransmitted = pNote->pstArrival->bRetransmitted;
    stCame.stHead = stHead;
    stCame.ullTick = xp_gettickcount();

    CXPAutoLock lock(m_lock);
    ++m_ullParsed;
    Counts(pNote->stKey, stCame.ullTick).Came(stCame);
    return nResult;
}

// ---- Worker ----------------------------------------------------------------------------------------------------

// Asked once per user and millisecond: what is released in one go is released against one clock.
const tagPlayoutInfo* CUdtStatsCollector::PlayoutOf(CAVGUdtRecv& recv, uint64 llAccount, uint32 dwTick)
{
    if (!m_bPlayout || m_ullPlayoutAccount != llAccount || m_dwPlayoutTick != dwTick)
    {
        m_ullPlayoutAccount = llAccount;
        m_dwPlayoutTick = dwTick;
        m_bPlayout = recv.GetPlayoutInfo(llAccount, m_stPlayout) != FALSE;
    }
    return m_bPlayout ? &m_stPlayout : nullptr;
}

void CUdtStatsCollector::OnUDTRecvOutData(UDTCodecBaseDecode_V2* pPacket, int* pnDelay)
{
    CAVGUdtRecv* const pRecv = m_pRecv;
    const tagDataPacket* const pstPacket = pRecv != nullptr ? pRecv->GetReleasing() : nullptr;
    if (pstPacket == nullptr)
    {
        {
            CXPAutoLock lock(m_lock);
            ++m_ullReleased;
        }
        if (m_pOwner != nullptr)
            m_pOwner->OnUDTRecvOutData(pPacket, pnDelay);
        return;
    }

    // Counted before the owner is called, so that the owner's own snapshot holds this packet.
    const tagInPktKey stKey(pstPacket->llAccount, pstPacket->cSubType);
    const uint64 ullTick = xp_gettickcount();
    const tagPlayoutInfo* const pstPlayout = PlayoutOf(*pRecv, stKey.ullUserAccount, (uint32)ullTick);
    std::optional<int> nKnownDelay;
    {
        CXPAutoLock lock(m_lock);
        ++m_ullReleased;
        CUdtStreamCounts& counts = Counts(stKey, ullTick);
        counts.Released(*pstPacket, ullTick, pstPlayout);
        nKnownDelay = counts.PlayDelay();
    }
    if (m_pOwner != nullptr)
        m_pOwner->OnUDTRecvOutData(pPacket, pnDelay);
    if (stKey.cSubType == MEAVAudio && pnDelay != nullptr && nKnownDelay != *pnDelay)
    {
        CXPAutoLock lock(m_lock);
        Counts(stKey, ullTick).PlayDelay(*pnDelay);
    }
}

int CUdtStatsCollector::UdtRecvHandleEvent(WORD wType, uint8* pBuffer, uint32 nBufSize, uint32 nSendCount,
                                           uint32 nUdtV2)
{
    if (wType == AVGUdtRecvPacketEvent_LossRequest && pBuffer != nullptr)
    {
        const tagReplyData* const pstReply = reinterpret_cast<const tagReplyData*>(pBuffer);
        const uint64 ullTick = xp_gettickcount();
        CXPAutoLock lock(m_lock);
        ++m_ullMessages;
        m_ullAsked += nBufSize;
        for (uint32 n = 0; n < nBufSize; ++n)
        {
            const tagInPktKey stKey(pstReply[n].ullUserAccount, pstReply[n].cSubType);
            Counts(stKey, ullTick).Requested(pstReply[n].dwUserSeq, m_ullMessages, ullTick);
        }
    }
    return m_pOwner != nullptr ? m_pOwner->UdtRecvHandleEvent(wType, pBuffer, nBufSize, nSendCount, nUdtV2)
                               : 0;
}

// ---- Readers ---------------------------------------------------------------------------------------------------

void CUdtStatsCollector::DownlinkPolled(uint32 dwExpectRecv, uint32 dwRealRecv, uint32 dwBytesRecv,
                                        uint32 dwIFrmLostInfo)
{
    CXPAutoLock lock(m_lock);
    m_bPolled = true;
    m_bLossKnown = dwExpectRecv != 0; // of an interval without packets the rate is not known
    m_ullDownExpected += dwExpectRecv;
    m_ullDownReceived += dwRealRecv;
    m_ullDownBytes += dwBytesRecv;
    m_dwIFrmLostInfo = dwIFrmLostInfo;
}

void CUdtStatsCollector::AskReceiver(tagSeen& stSeen)
{
    CXPAutoLock lock(m_lockRecv);
    CAVGUdtRecv* const pRecv = m_pRecv;
    if (pRecv == nullptr)
        return;
    stSeen.bThere = true;
    pRecv->UDTCalcRecvLoss(stSeen.dwLoss100, stSeen.dwTotalNum, stSeen.dwRealNum, stSeen.dwAvgLossMode);
    pRecv->GetRecvInfo(stSeen.stRecv);
    uint32 dwRoom = stSeen.stRecv.dwChnNum;
    uint32 dwFilled = 0;
    do
    {
        dwRoom += 16; // a record left over tells that these were all
        stSeen.vecStreams.resize(dwRoom);
        dwFilled = pRecv->GetRecvChnInfo(stSeen.vecStreams.data(), dwRoom);
    } while (dwFilled == dwRoom);
    stSeen.vecStreams.resize(dwFilled);
    for (const tagRecvChnStatInfo& stInfo : stSeen.vecStreams)
    {
        tagPlayoutInfo stPlayout;
        if (stSeen.mapPlayout.count(stInfo.llAccount) == 0 &&
            pRecv->GetPlayoutInfo(stInfo.llAccount, stPlayout) != FALSE)
            stSeen.mapPlayout[stInfo.llAccount] = stPlayout;
    }
}

void CUdtStatsCollector::Snapshot(tagUdtStats& st)
{
    st = tagUdtStats();
    st.ullTick = xp_gettickcount();
    tagSeen stSeen;
    AskReceiver(stSeen);

    std::map<tagInPktKey, std::pair<tagUdtStreamStats, bool>> mapStreams; // with: a key frame was seen
    tagUdtReceiverStats& stAll = st.stReceiver;
    bool bLossKnown = false;
    {
        CXPAutoLock lock(m_lock);
        Forget(st.ullTick);
        if (m_dUnixMsAtTick0)
            st.timestamp = *m_dUnixMsAtTick0 + (double)st.ullTick;
        for (const MapCounts::value_type& stCounts : m_mapCounts)
        {
            std::pair<tagUdtStreamStats, bool>& stStream = mapStreams[stCounts.first];
            stCounts.second->Fill(stStream.first, m_bReleasesSeen);
            stStream.second = stCounts.second->HasSeenKeyFrame();
            if (m_dUnixMsAtTick0 && stStream.first.lastPacketReceivedTick)
                stStream.first.lastPacketReceivedTimestamp =
                    *m_dUnixMsAtTick0 + (double)*stStream.first.lastPacketReceivedTick;
        }
        stAll.packetsParsed = m_ullParsed;
        stAll.packetsReleased = m_ullReleased;
        stAll.requestMessages = m_ullMessages;
        stAll.packetsRequested = m_ullAsked;
        if (m_bPolled)
        {
            stAll.downlinkPacketsExpected = m_ullDownExpected;
            stAll.downlinkPacketsReceived = m_ullDownReceived;
            stAll.downlinkBytesReceived = m_ullDownBytes;
        }
        if (m_dwIFrmLostInfo != 0)
        {
            stAll.firstKeyFrameReleaseTime = Seconds(m_dwIFrmLostInfo >> 16);
            stAll.firstKeyFrameFecPackets = m_dwIFrmLostInfo >> 8 & 0xFF;
            stAll.firstKeyFramePacketsLost = m_dwIFrmLostInfo & 0xFF;
        }
        bLossKnown = m_bLossKnown;
    }

    if (stSeen.bThere)
    {
        stAll.streams = stSeen.stRecv.dwChnNum;
        stAll.streamsExpired = stSeen.stRecv.dwChnClearNum;
        if (bLossKnown || stSeen.stRecv.dwCurLossRate != 0)
            stAll.downlinkLossRatio = stSeen.stRecv.dwCurLossRate / c_dRateScale;
        if (stSeen.stRecv.dwMinLossRate != c_dwNone32)
            stAll.downlinkLossRatioMin = stSeen.stRecv.dwMinLossRate / c_dRateScale;
        if (stSeen.stRecv.dwMaxLossRate != 0)
            stAll.downlinkLossRatioMax = stSeen.stRecv.dwMaxLossRate / c_dRateScale;
        if (stSeen.dwTotalNum != 0)
        {
            stAll.streamPacketsExpected = stSeen.dwTotalNum;
            stAll.streamPacketsReceived = stSeen.dwRealNum;
            if (stSeen.dwRealNum <= stSeen.dwTotalNum)
                stAll.streamLossRatio = stSeen.dwLoss100 / c_dRateScale;
            if (stSeen.dwRealNum < stSeen.dwTotalNum && stSeen.dwAvgLossMode != 0)
                stAll.streamLossBurst = stSeen.dwAvgLossMode / c_dBurstScale;
        }
    }
    for (const tagRecvChnStatInfo& stInfo : stSeen.vecStreams)
    {
        std::pair<tagUdtStreamStats, bool>& stStream =
            mapStreams[tagInPktKey(stInfo.llAccount, (uint8)stInfo.dwSubType)];
        stStream.first.bLive = true;
        FillRecord(stStream.first, stInfo, stStream.second);
        const std::map<uint64, tagPlayoutInfo>::const_iterator itPlayout =
            stSeen.mapPlayout.find(stInfo.llAccount);
        if (itPlayout != stSeen.mapPlayout.end())
            FillPlayout(stStream.first, itPlayout->second);
    }
    st.vecStreams.reserve(mapStreams.size());
    for (auto& stStream : mapStreams)
    {
        stStream.second.first.llAccount = stStream.first.ullUserAccount;
        stStream.second.first.dwSubType = stStream.first.cSubType;
        st.vecStreams.push_back(std::move(stStream.second.first));
    }
}
