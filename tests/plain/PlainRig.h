#ifndef PLAINRIG_H
#define PLAINRIG_H

/**
 * The plain receiver on the bench: owner-driven, its inside open by the same names that `CRecvRig` uses for the
 * receiver, so that one comparer reads both. It has no clock of its own; it lives on the one that is there.
 */

#include "PlainRecv.h"

namespace plain
{

class CPlainInside
{
public:
    CPlainInside() : m_recv(nullptr) { m_recv.SetOwnerDriven(TRUE); }

    CAVGUdtRecv m_recv;

#define PLAIN_MEMBER(name) \
    decltype(CAVGUdtRecv::name)& name() { return m_recv.name; }
    PLAIN_MEMBER(m_pCB)
    PLAIN_MEMBER(m_dataLock)
    PLAIN_MEMBER(m_listRawData)
    PLAIN_MEMBER(m_mapUinInPkt)
    PLAIN_MEMBER(m_mapUinSeqInfo)
    PLAIN_MEMBER(m_mapUinPkgRingParam)
    PLAIN_MEMBER(m_bStop)
    PLAIN_MEMBER(m_hRecvEvent)
    PLAIN_MEMBER(m_dwRecvChnStartTime)
    PLAIN_MEMBER(m_dwLastCheckPkgTimeoutTime)
    PLAIN_MEMBER(m_dwUdtlossDataRequestInterval)
    PLAIN_MEMBER(m_dwUdtFirstReGetTime)
    PLAIN_MEMBER(m_dwLastCheckPkgRqFailTime)
    PLAIN_MEMBER(m_dwTimelineDeltaMax)
    PLAIN_MEMBER(m_dwRTT)
    PLAIN_MEMBER(m_dwAddDelay)
    PLAIN_MEMBER(m_dwLastCheckTimeout)
    PLAIN_MEMBER(m_dwExpectRecvPkgNum)
    PLAIN_MEMBER(m_dwRealRecvPkgNum)
    PLAIN_MEMBER(m_dwTotalLossTime)
    PLAIN_MEMBER(m_dwCalcLossCnt)
    PLAIN_MEMBER(m_bEnableReGetPkg)
    PLAIN_MEMBER(m_dwLastCalcRecvLoss)
    PLAIN_MEMBER(m_dwLoss100)
    PLAIN_MEMBER(m_dwTotalNum)
    PLAIN_MEMBER(m_dwRealNum)
    PLAIN_MEMBER(m_dwAvgLossMode)
    PLAIN_MEMBER(m_dwDownLoss100)
    PLAIN_MEMBER(m_dwCalcTimer)
    PLAIN_MEMBER(m_dwTimelineDelta)
    PLAIN_MEMBER(m_dwUdtRecvMode)
    PLAIN_MEMBER(m_dwOutputDelay)
    PLAIN_MEMBER(m_dwUdtParamsChanged)
    PLAIN_MEMBER(m_paramlock)
    PLAIN_MEMBER(m_dwClearRequest)
    PLAIN_MEMBER(m_listClearUin)
    PLAIN_MEMBER(m_dwRoomLogicState)
    PLAIN_MEMBER(m_mapUinDataInfo)
    PLAIN_MEMBER(m_dwCheckLossParamTime)
    PLAIN_MEMBER(m_dwLossParamSetFlag)
    PLAIN_MEMBER(m_dwPacketRecvCnt)
    PLAIN_MEMBER(m_dwBytesRecvCnt)
    PLAIN_MEMBER(m_pSpeed)
    PLAIN_MEMBER(m_dwSeqFirstRecv)
    PLAIN_MEMBER(m_dwSeqLastRecv)
    PLAIN_MEMBER(m_dwMaxLossRate)
    PLAIN_MEMBER(m_dwMinLossRate)
    PLAIN_MEMBER(m_dwCurLossRate)
    PLAIN_MEMBER(m_dwLossRateAccNum)
    PLAIN_MEMBER(m_dwLossRateAccCnt)
    PLAIN_MEMBER(m_lockRevcLoss)
    PLAIN_MEMBER(m_dwServPushGopNum)
    PLAIN_MEMBER(m_dwMinDelayFromServ)
    PLAIN_MEMBER(m_dwIFrmPkgLostInfo)
    PLAIN_MEMBER(m_dwPushStmDone)
    PLAIN_MEMBER(m_dwAVSyncAdjSwitch)
    PLAIN_MEMBER(m_LogPrintFlag)
    PLAIN_MEMBER(m_dwOutDelayDone)
    PLAIN_MEMBER(m_dwChnClearNum)
    PLAIN_MEMBER(m_dwUinNum)
    PLAIN_MEMBER(m_dwMultiUinAVSync)
    PLAIN_MEMBER(m_dwLogPrintTimer)
    PLAIN_MEMBER(m_dwLastPrintTick)
#undef PLAIN_MEMBER

    void EraseUser(uint64 ullAccount) { m_recv.EraseUser(ullAccount); }
};

} // namespace plain

#endif // PLAINRIG_H
