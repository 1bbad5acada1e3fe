/**
 * What is counted and reported.
 *
 * Two measures of loss, both in 1/10000: the downlink's, from the relay's per-receiver sequence, counted on the
 * network threads and polled by the owner; and the streams', from the released sequences, calculated on the
 * worker. Beside them the read-outs for any thread and the report at the end of a run.
 */

#include "PlainRecv.h"

#include "PlainRecvInner.h"
#include "PlainRecvRules.h"

#include <algorithm>

namespace plain
{

namespace
{

constexpr uint32 c_dwRateScale = 10000;  // loss rates are in 1/10000
constexpr uint32 c_dwBurstScale = 100;   // mean burst in hundredths of a packet
constexpr uint32 c_dwLogRearmGap = 2001; // ms after which every flag-gated trace may be written once more
constexpr uint32 c_dwAllLogFlags = 0xFFFFFFFF;

constexpr int c_nSpeedAll = TOTAL_RECV_SPEED - TOTAL_RECV_SPEED;
constexpr int c_nSpeedAudio = TOTAL_AUDIO_RECV_SPEED - TOTAL_RECV_SPEED;
constexpr int c_nSpeedVideo = TOTAL_VIDEO_RECV_SPEED - TOTAL_RECV_SPEED;

void FeedSpeed(CAVGSpeed* pSpeed, uint32 dwBytes)
{
    if (pSpeed != nullptr)
        pSpeed->AddSample(dwBytes);
}

// Mean of the delay samples, ms; 0 without samples. The two words are read once each: the worker may be
// adding to them.
uint32 RealDelayAvg(const tagUinBufStatInfo& stStatInfo)
{
    const uint32 dwAccCnt = stStatInfo.dwRealDelayAccCnt;
    return dwAccCnt != 0 ? stStatInfo.dwRealDelayAccNum / dwAccCnt : 0;
}

void FillChnInfo(tagRecvChnStatInfo& stInfo, const tagInPktKey& stKey, const tagUinDataBuf& stUinDataBuf)
{
    const tagUinBufStatInfo& stStat = stUinDataBuf.stStatInfo;
    stInfo.llAccount = stKey.ullUserAccount;
    stInfo.dwSubType = stKey.cSubType;
    stInfo.dwFirstIFrmRecvTime = stStat.dwFirstIFrmRecvTime;
    stInfo.dwFrmNumBeforeFristFrm = stStat.dwFrmNumBeforeFristFrm;
    stInfo.dwFirstFrmCanDec = stStat.dwFirstFrmCanDec;
    stInfo.dwCanDecIFrmElpTime = stStat.dwCanDecIFrmElpTime;
    stInfo.dwConfgMinDelay = stStat.dwConfgMinDelay;
    stInfo.dwConfgMaxDelay = stStat.dwConfgMaxDelay;
    stInfo.dwRealMinDelay = stStat.dwRealMinDelay;
    stInfo.dwRealMaxDelay = stStat.dwRealMaxDelay;
    stInfo.dwRealDelayAvg = RealDelayAvg(stStat);
    // What the buffer works with, not what the statistics last sampled.
    stInfo.dwCurCalcTLDelta = stUinDataBuf.dwTimelineDelta;
    stInfo.dwSkipPkgNum = stStat.dwSkipPkgNum;
    stInfo.dwStampErrCnt = stStat.dwStampErrCnt;
    stInfo.dwTotalRecvPkgNum = stStat.dwTotalRecvPkgNum;
    stInfo.dwTotalLossPkgNum = stStat.dwTotalLossPkgNum;
    stInfo.dwTotalReqFailNum = stStat.dwTotalReqFailNum;
}

} // namespace

// ---- Downlink loss: network threads and the owner's poll -------------------------------------------------------

void CAVGUdtRecv::CalcDownPacketLoss(uint32 dwCurDownSeq, uint8 cSubType, uint32 dwPacketLen)
{
    CXPAutoLock lock(m_lockRevcLoss);
    if (m_dwSeqFirstRecv == 0)
    {
        // The sequence before the first one; for a first sequence of 1 that is 0 again, and the next packet
        // starts the interval once more.
        m_dwSeqFirstRecv = dwCurDownSeq - 1;
        m_dwSeqLastRecv = dwCurDownSeq;
    }
    else if (dwCurDownSeq > m_dwSeqLastRecv)
    {
        m_dwSeqLastRecv = dwCurDownSeq; // late and repeated ones leave it
    }
    m_dwPacketRecvCnt += 1;
    m_dwBytesRecvCnt += dwPacketLen;

    // Fed under the lock as well: Stop takes the meters away under it while packets may still come in.
    FeedSpeed(m_pSpeed[c_nSpeedAll], dwPacketLen);
    FeedSpeed(m_pSpeed[cSubType == MEAVAudio ? c_nSpeedAudio : c_nSpeedVideo], dwPacketLen);
}

void CAVGUdtRecv::GetDownPacketRecvInfo(uint32& dwExpectRecv, uint32& dwRealRecv, uint32& dwBytesRecv,
                                        uint32& dwIFrmLostInfo)
{
    uint32 dwLastDownLoss100 = 0;
    {
        CXPAutoLock lock(m_lockRevcLoss);
        // More packets than the sequence spans: duplicates, or a jump backwards.
        dwExpectRecv = m_dwSeqLastRecv > m_dwSeqFirstRecv ? m_dwSeqLastRecv - m_dwSeqFirstRecv : 0;
        dwExpectRecv = std::max(dwExpectRecv, m_dwPacketRecvCnt);
        dwRealRecv = m_dwPacketRecvCnt;
        dwBytesRecv = m_dwBytesRecvCnt;
        dwIFrmLostInfo = m_dwIFrmPkgLostInfo;

        uint32 dwDownLoss100 = 0;
        if (dwExpectRecv != 0)
        {
            dwDownLoss100 = ScaledShare(dwExpectRecv - dwRealRecv, c_dwRateScale, dwExpectRecv);
            m_dwDownLoss100 = dwDownLoss100;
        }
        if (dwDownLoss100 != 0)
        {
            // Loss-free intervals neither lower the minimum nor enter the mean.
            m_dwMinLossRate = std::min(m_dwMinLossRate.Get(), dwDownLoss100);
            m_dwMaxLossRate = std::max(m_dwMaxLossRate.Get(), dwDownLoss100);
            m_dwLossRateAccNum += dwDownLoss100;
            m_dwLossRateAccCnt += 1;
        }
        m_dwCurLossRate = dwDownLoss100;
        dwLastDownLoss100 = m_dwDownLoss100;

        // The next interval begins with its own first packet: the gap in between is never counted.
        m_dwPacketRecvCnt = 0;
        m_dwBytesRecvCnt = 0;
        m_dwSeqFirstRecv = 0;
        m_dwSeqLastRecv = 0;
    }
    if (dwExpectRecv != dwRealRecv)
    {
        RECV_LOG(LOG_LEVEL_ERROR, "GetDownPacketRecvInfo",
                 "UDTR CalcDownLoss Total:%6u Real:%6u LossRate:%5u", dwExpectRecv, dwRealRecv,
                 dwLastDownLoss100);
    }
}

// ---- Stream loss and periodic statistics: worker ---------------------------------------------------------------

void CAVGUdtRecv::CalcStatInfo()
{
    const uint32 dwNow = TickNow();
    if (TickPassed(dwNow, m_dwLastCalcRecvLoss, m_dwCalcTimer))
    {
        InternalUDTCalcRecvLoss();
        m_dwLastCalcRecvLoss = dwNow;
        for (MapUinInPkt::value_type& stStream : m_mapUinInPkt)
        {
            tagUinBufStatInfo& stStat = stStream.second.stStatInfo;
            stStat.dwRealDelayAccNum += stStat.dwCurCalcTLDelta.Get();
            stStat.dwRealDelayAccCnt += 1;
        }
    }

    if (m_dwLogPrintTimer == 0)
    {
        m_dwLogPrintTimer = dwNow;
    }
    else if (TickReached(dwNow, m_dwLogPrintTimer, c_dwLogRearmGap))
    {
        m_dwLogPrintTimer = dwNow;
        for (MapUinInPkt::value_type& stStream : m_mapUinInPkt)
            stStream.second.dwLogPrintFlag = c_dwAllLogFlags;
        for (MapUinDataInfo::value_type& stUser : m_mapUinDataInfo)
            stUser.second.dwLogPrintFlag = c_dwAllLogFlags;
    }
    CheckPkgRequestFail(dwNow);
}

void CAVGUdtRecv::InternalUDTCalcRecvLoss()
{
    const uint32 dwExpect = m_dwExpectRecvPkgNum;
    const uint32 dwReal = m_dwRealRecvPkgNum;
    const uint32 dwLossTimes = m_dwTotalLossTime;
    const uint32 dwLost = dwExpect - dwReal; // wraps when more came than was expected
    m_dwTotalNum = dwExpect;
    m_dwRealNum = dwReal;
    m_dwLoss100 = ScaledShare(dwLost, c_dwRateScale, dwExpect);
    m_dwAvgLossMode = ScaledShare(dwLost, c_dwBurstScale, dwLossTimes);

    m_dwExpectRecvPkgNum = 0;
    m_dwRealRecvPkgNum = 0;
    m_dwTotalLossTime = 0;
    if (dwLost != 0)
    {
        RECV_LOG(LOG_LEVEL_ERROR, "InternalUDTCalcRecvLoss",
                 "UDTR CalcRecvLoss Total:%u Real:%u LossRate:%u LossMode:%u LossTimes %d", dwExpect, dwReal,
                 m_dwLoss100.Get(), m_dwAvgLossMode.Get(), dwLossTimes);
    }
}

// ---- Read-outs: any thread -----------------------------------------------------------------------------------

void CAVGUdtRecv::UDTCalcRecvLoss(uint32& dwLoss100, uint32& dwTotalNum, uint32& dwRealNum,
                                  uint32& dwAvgLossMode)
{
    dwLoss100 = m_dwLoss100;
    dwTotalNum = m_dwTotalNum;
    dwRealNum = m_dwRealNum;
    dwAvgLossMode = m_dwAvgLossMode;
}

void CAVGUdtRecv::GetRecvInfo(tagRecvInfo& stRecvInfo)
{
    {
        CXPAutoLock lock(m_lockStreams);
        stRecvInfo.dwChnNum = (uint32)m_mapUinInPkt.size();
    }
    stRecvInfo.dwMaxLossRate = m_dwMaxLossRate;
    stRecvInfo.dwMinLossRate = m_dwMinLossRate;
    stRecvInfo.dwCurLossRate = m_dwCurLossRate;
    stRecvInfo.dwChnClearNum = m_dwChnClearNum;
}

uint32 CAVGUdtRecv::GetRecvChnInfo(tagRecvChnStatInfo* pstRecvInfo, uint32 dwNum)
{
    if (pstRecvInfo == nullptr)
        return 0;

    uint32 dwChnCnt = 0;
    CXPAutoLock lock(m_lockStreams);
    for (const MapUinInPkt::value_type& stStream : m_mapUinInPkt)
    {
        if (dwChnCnt >= dwNum)
            break;
        FillChnInfo(pstRecvInfo[dwChnCnt++], stStream.first, stStream.second);
    }
    return dwChnCnt;
}

boolean CAVGUdtRecv::GetPlayoutInfo(uint64 llAccount, tagPlayoutInfo& stInfo)
{
    CXPAutoLock lock(m_lockStreams);
    const MapUinDataInfo::const_iterator it = m_mapUinDataInfo.find(llAccount);
    if (it == m_mapUinDataInfo.end())
        return FALSE;
    const tagUinDataInfo& stUser = it->second;
    stInfo.dwTimelineOut = stUser.dwTimelineOut;
    stInfo.dwTimelineIn = stUser.dwTimelineIn;
    stInfo.dwDataLen = DataLenAhead(stInfo.dwTimelineIn, stInfo.dwTimelineOut);
    stInfo.dwBandWidth = stUser.dwTimelineMax - stUser.dwTimelineMin;
    stInfo.dwExWaitTick = stUser.dwExWaitTick;
    stInfo.dwTarget =
        PlayoutTarget(stInfo.dwBandWidth, stInfo.dwExWaitTick, m_dwTimelineDelta, m_dwTimelineDeltaMax);
    return TRUE;
}

// ---- End report: worker, behind its last turn --------------------------------------------------------------------

void CAVGUdtRecv::PrintStatInfo()
{
    const uint32 dwAccCnt = m_dwLossRateAccCnt;
    const uint32 dwAccNum = m_dwLossRateAccNum;
    RECV_LOG(LOG_LEVEL_ERROR, "PrintStatInfo", "%s", "--------- UdtRecvEndStatInfo ---------");
    RECV_LOG(LOG_LEVEL_ERROR, "PrintStatInfo", "ChnInfo: ChnClearCnt %d", m_dwChnClearNum.Get());
    RECV_LOG(LOG_LEVEL_ERROR, "PrintStatInfo", "DownLoss: min %d max %d AccVal %d AccCnt %d Avg %d",
             m_dwMinLossRate.Get(), m_dwMaxLossRate.Get(), dwAccNum, dwAccCnt,
             dwAccCnt != 0 ? dwAccNum / dwAccCnt : 0);
    for (const MapUinInPkt::value_type& stStream : m_mapUinInPkt)
    {
        const tagUinBufStatInfo& stStat = stStream.second.stStatInfo;
        RECV_LOG(LOG_LEVEL_ERROR, "PrintStatInfo", "--- SubType %1d Uin %llu --- ", stStream.first.cSubType,
                 stStream.first.ullUserAccount);
        RECV_LOG(LOG_LEVEL_ERROR, "PrintStatInfo", "  StmInfo: SkipNum %d StampErrCnt %d",
                 stStat.dwSkipPkgNum.Get(), stStat.dwStampErrCnt.Get());
        RECV_LOG(LOG_LEVEL_ERROR, "PrintStatInfo",
                 "  First I-Frm Info: RecvTimeElp %d FrmElp %d FirstCanDec %d CanDecodedTimeElp %d",
                 stStat.dwFirstIFrmRecvTime.Get(), stStat.dwFrmNumBeforeFristFrm.Get(),
                 stStat.dwFirstFrmCanDec.Get(), stStat.dwCanDecIFrmElpTime.Get());
        RECV_LOG(
            LOG_LEVEL_ERROR, "PrintStatInfo",
            "  DelayInfo: ConfMin %d ConfMax %d RealMin %d RealMax %d RealAccNum %d RealAccCnt %d RealAvg %d",
            stStat.dwConfgMinDelay.Get(), stStat.dwConfgMaxDelay.Get(), stStat.dwRealMinDelay.Get(),
            stStat.dwRealMaxDelay.Get(), stStat.dwRealDelayAccNum.Get(), stStat.dwRealDelayAccCnt.Get(),
            RealDelayAvg(stStat));
        RECV_LOG(LOG_LEVEL_ERROR, "PrintStatInfo", "  PkgInfo: TotalRecv %d TotalLoss %d TotalReqFail %d",
                 stStat.dwTotalRecvPkgNum.Get(), stStat.dwTotalLossPkgNum.Get(),
                 stStat.dwTotalReqFailNum.Get());
    }
    RECV_LOG(LOG_LEVEL_ERROR, "PrintStatInfo", "%s", "--------- end ---------");
}

} // namespace plain
