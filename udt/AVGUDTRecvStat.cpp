/**
 * What is counted and reported.
 */

#include "AVGUDTRecv.h"

namespace
{

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

// Measures nothing yet.
void CAVGUdtRecv::GetDownPacketRecvInfo(uint32& dwExpectRecv, uint32& dwRealRecv, uint32& dwBytesRecv,
                                        uint32& dwIFrmLostInfo)
{
    dwExpectRecv = 0;
    dwRealRecv = 0;
    dwBytesRecv = 0;
    dwIFrmLostInfo = m_dwIFrmPkgLostInfo;
}

// Counts nothing yet.
void CAVGUdtRecv::CalcDownPacketLoss(uint32, uint8, uint32) {}

// Counts nothing yet.
void CAVGUdtRecv::CalcStatInfo() {}

// Reports nothing yet.
void CAVGUdtRecv::PrintStatInfo() {}
