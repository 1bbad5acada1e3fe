#ifndef RECVFIELDS_H
#define RECVFIELDS_H

// Every field of the receiver's records and every word of its own, by name: for whoever compares receivers, and for
// whoever writes one down. The lock-step tests name what these lists forget.

// It would move the backslashes of what follows anew at each pass.
// clang-format off
#define PACKET_FIELDS(X) \
    X(dwSenderSeq) \
    X(dwTimeStamp) \
    X(llAccount) \
    X(dwSeq) \
    X(pRawData) \
    X(dwRecvTime) \
    X(cSubType) \
    X(cPrePkgLost) \
    X(cIsFrmLastPkg) \
    X(cGopIdx) \
    X(cFrmIdx) \
    X(cPkgIndex) \
    X(cFrmType) \
    X(cPkgNum) \
    X(cFecNum) X(cFrmLostNum) X(cIsCalcLost) X(cIsOutOfOrderSeq) X(wVidPkgIdxLeft) X(wLostReqCnt) \
        X(dwMETimeStamp) X(dwLastReqLostTime)

#define STAT_FIELDS(X) \
    X(dwFirstIFrmRecvTime) \
    X(dwFrmNumBeforeFristFrm) \
    X(dwFirstFrmCanDec) \
    X(dwCanDecIFrmElpTime) \
    X(dwConfgMinDelay) \
    X(dwConfgMaxDelay) \
    X(dwRealMinDelay) \
    X(dwRealMaxDelay) \
    X(dwRealDelayAccNum) \
    X(dwRealDelayAccCnt) \
    X(dwCurCalcTLDelta) \
    X(dwSkipPkgNum) \
    X(dwStampErrCnt) \
    X(dwTotalRecvPkgNum) \
    X(dwTotalLossPkgNum) X(dwTotalReqFailNum) X(dwPreFrmType) X(dwOutFrmCnt) X(dwOutIFrmNum) \
        X(dwCurIFrmCanDec)

#define FLOW_FIELDS(X)      X(m_bInit) X(m_wRunsFixed) X(m_mapLoss) X(m_uBase) X(m_uLast) X(m_uPktRecv) X(m_stat)
#define FLOW_STAT_FIELDS(X) X(uLossTimes) X(uTotalPkt) X(uRecvPkt)

#define STREAM_FIELDS(X) \
    X(dwTimelineMin) \
    X(dwTimelineMax) \
    X(dwTimelineDelta) \
    X(dwTimelineOut) \
    X(dwLastRecvPackTime) \
    X(dwRecvFirstPkgTime) \
    X(mapUdtPacket) \
    X(stUinRecvPkgStat) \
    X(dwLastCheckDeltaTime) \
    X(dwTargetTimelineDelta) \
    X(dwNoAdjustDeltaCounter) \
    X(dwConfigTimelineDelta) \
    X(dwOutSendSeq) \
    X(dwOutOfOrderCnt) \
    X(dwLastOutPkgMETimeStamp) X(dwLastOutPkgHeadTS) X(dwAVSyncAddDelay) X(dwLastOutPkgTick) \
        X(dwTimeStampDelta) X(dwCurTotalLost) X(dwOutputSwitch) X(dwDelayTimelineMax) X(dwStartTimeStamp) \
            X(dwStartTick) X(dwOutPutDelayFlag) X(mapRecvSeq) X(mapRequestSeq) X(dwFirstIFOutFlag) \
                X(dwPrePkgSeq) X(dwVidPreGopIdx) X(dwVidPreFrmIdx) X(dwVidGopCnt) X(dwAVStampSync) \
                    X(dwPFrmCnt) X(dwAudPushDone) X(dwAudPlayDelayRTS) X(stStatInfo) X(dwLogPrintFlag) \
                        X(dwRecvIFlag) X(dwQuickOut) X(bPushStmDone)

#define USER_FIELDS(X) \
    X(dwTimelineOut) \
    X(dwTimelineIn) \
    X(dwTimelineMin) \
    X(dwTimelineMax) \
    X(dwVidResetTimelineMin) \
    X(dwLastCheckDeltaTime) X(dwHasVideo) X(dwFastFactor) X(dwExWaitTick) X(dwLogPrintFlag)

#define RING_FIELDS(X)   X(dwTimeStampBase) X(wTimeStampLast) X(bSwitch)
#define DOWNUP_FIELDS(X) X(dwSubType) X(dwSenderSeq) X(dwLastLostReqTime)
#define PLAYOUT_FIELDS(X) \
    X(dwTimelineOut) X(dwTimelineIn) X(dwDataLen) X(dwBandWidth) X(dwExWaitTick) X(dwTarget)

// The receiver's own words. The containers and the meters are compared apart.
#define MEMBER_WORDS(X) \
    X(m_bStop) \
    X(m_dwRecvChnStartTime) \
    X(m_dwLastCheckPkgTimeoutTime) \
    X(m_dwUdtlossDataRequestInterval) \
    X(m_dwUdtFirstReGetTime) \
    X(m_dwLastCheckPkgRqFailTime) \
    X(m_dwTimelineDeltaMax) \
    X(m_dwRTT) \
    X(m_dwAddDelay) \
    X(m_dwLastCheckTimeout) \
    X(m_dwExpectRecvPkgNum) \
    X(m_dwRealRecvPkgNum) \
    X(m_dwTotalLossTime) \
    X(m_dwCalcLossCnt) \
    X(m_bEnableReGetPkg) X(m_dwLastCalcRecvLoss) X(m_dwLoss100) X(m_dwTotalNum) X(m_dwRealNum) \
        X(m_dwAvgLossMode) X(m_dwDownLoss100) X(m_dwCalcTimer) X(m_dwTimelineDelta) X(m_dwUdtRecvMode) \
            X(m_dwOutputDelay) X(m_dwUdtParamsChanged) X(m_dwClearRequest) X(m_dwRoomLogicState) \
                X(m_dwCheckLossParamTime) X(m_dwLossParamSetFlag) X(m_dwPacketRecvCnt) X(m_dwBytesRecvCnt) \
                    X(m_dwSeqFirstRecv) X(m_dwSeqLastRecv) X(m_dwMaxLossRate) X(m_dwMinLossRate) \
                        X(m_dwCurLossRate) X(m_dwLossRateAccNum) X(m_dwLossRateAccCnt) X(m_dwServPushGopNum) \
                            X(m_dwMinDelayFromServ) X(m_dwIFrmPkgLostInfo) X(m_dwPushStmDone) \
                                X(m_dwAVSyncAdjSwitch) X(m_LogPrintFlag) X(m_dwOutDelayDone) \
                                    X(m_dwChnClearNum) X(m_dwUinNum) X(m_dwMultiUinAVSync) \
                                        X(m_dwLogPrintTimer) X(m_dwLastPrintTick)
// clang-format on

#endif // RECVFIELDS_H
