// What a fresh receiver, stream and user hold, and how the maps are ordered.

#include "RecvTest.h"

#include <memory>
#include <new>
#include <type_traits>

using ::testing::Each;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

namespace
{

// Memory that held other things before. Volatile, so that no compiler finds these writes useless.
void Poison(volatile unsigned char* pRoom, size_t nSize)
{
    for (size_t i = 0; i < nSize; ++i)
        pRoom[i] = 0xA5;
}

// A rig in such memory: a member that its constructor forgets shows.
class CPoisonedRig
{
public:
    CPoisonedRig()
    {
        Poison(m_aRoom, sizeof(m_aRoom));
        m_pRig = new (m_aRoom) CRecvRig;
    }
    ~CPoisonedRig() { m_pRig->~CRecvRig(); }
    CPoisonedRig(const CPoisonedRig&) = delete;
    CPoisonedRig& operator=(const CPoisonedRig&) = delete;

    CRecvRig& operator*() { return *m_pRig; }

private:
    alignas(CRecvRig) unsigned char m_aRoom[sizeof(CRecvRig)];
    CRecvRig* m_pRig;
};

// A record in such memory.
template <class T>
class CPoisoned
{
public:
    CPoisoned()
    {
        Poison(m_aRoom, sizeof(m_aRoom));
        m_p = new (m_aRoom) T;
    }
    ~CPoisoned() { m_p->~T(); }
    CPoisoned(const CPoisoned&) = delete;
    CPoisoned& operator=(const CPoisoned&) = delete;

    const T& operator*() const { return *m_p; }

private:
    alignas(T) unsigned char m_aRoom[sizeof(T)];
    T* m_p;
};

} // namespace

static_assert(c_dwUdtlossDataRequestInterval == 200 && c_dwTimelineDeltaMax == 6000 &&
                  c_dwDefaultFirstGetTime == 300 && c_dwCheckDataTimeout == 2000 &&
                  c_dwClearUinTimeOut == 6000 && c_dwMapUinSyncTimeOut == 2500 && c_dwServerPushGopNum == 2 &&
                  c_dwPkgDuplicatedInterval == 6000,
              "spans that others plan with");
static_assert(std::is_same<decltype(c_dwTimelineDeltaMax), const uint32>::value, "32 bits wide");

static_assert(std::is_same<MapUinInPkt::key_type, tagInPktKey>::value &&
                  std::is_same<MapUinInPkt::mapped_type, tagUinDataBuf>::value &&
                  std::is_same<MapUinPkgRingParam::key_type, tagInPktKey>::value &&
                  std::is_same<MapUinPkgRingParam::mapped_type, tagPkgRingParam>::value &&
                  std::is_same<MapUinSeq::key_type, tagInPktKey>::value &&
                  std::is_same<MapUinSeq::mapped_type, std::vector<uint32>>::value &&
                  std::is_same<MapUinDataInfo::key_type, uint64>::value &&
                  std::is_same<MapUinDataInfo::mapped_type, tagUinDataInfo>::value &&
                  std::is_same<MapUinSeqInfo::key_type, uint64>::value &&
                  std::is_same<MapUinSeqInfo::mapped_type, std::map<uint32, tagDownUpSeq>>::value &&
                  std::is_same<MapUdtPacket::key_type, uint32>::value &&
                  std::is_same<MapUdtPacket::mapped_type, tagDataPacket>::value,
              "keys and values of the maps");
static_assert(sizeof(tagPkgRingParam) == 8 && sizeof(tagDownUpSeq) == 12 && sizeof(tagUinDataInfo) == 40 &&
                  sizeof(tagUinBufStatInfo) == 80 && sizeof(tagInPktKey) == 16,
              "no stray members");

// ---- Keys --------------------------------------------------------------------------------------------------------

TEST(StreamKey, OrdersByAccountThenBySubTypeBothUnsigned)
{
    const tagInPktKey aRising[] = {{0, 0},
                                   {0, 255},
                                   {5, 1},
                                   {5, 2},
                                   {5, 0x7F},
                                   {5, 0x80},
                                   {6, 1},
                                   {0x7FFFFFFFFFFFFFFFull, 255},
                                   {0x8000000000000000ull, 0},
                                   {0xFFFFFFFFFFFFFFFFull, 0}};
    const size_t nKeys = sizeof(aRising) / sizeof(aRising[0]);
    for (size_t i = 0; i < nKeys; ++i)
    {
        for (size_t j = 0; j < nKeys; ++j)
            EXPECT_EQ(aRising[i] < aRising[j], i < j) << i << " and " << j;
    }
}

TEST(StreamKey, IsEmptyByDefault)
{
    EXPECT_EQ(tagInPktKey().ullUserAccount, 0u);
    EXPECT_EQ(tagInPktKey().cSubType, 0);
    EXPECT_EQ(tagInPktKey(9, 7).ullUserAccount, 9u);
    EXPECT_EQ(tagInPktKey(9, 7).cSubType, 7);
}

// ---- Records -------------------------------------------------------------------------------------------------------

TEST(Records, AFreshPacketRecordKnowsNeitherFrameNorType)
{
    const CPoisoned<tagDataPacket> packet;
    const tagDataPacket& st = *packet;
    EXPECT_EQ(st.cFrmIdx, 255);
    EXPECT_EQ(st.cFrmType, 255);
    EXPECT_EQ(st.pRawData.p, nullptr);
    EXPECT_EQ(st.llAccount, 0u);
    EXPECT_THAT(
        (std::vector<uint32>{st.dwSenderSeq, st.dwTimeStamp, st.dwSeq, st.dwRecvTime, st.cSubType,
                             st.cPrePkgLost, st.cIsFrmLastPkg, st.cGopIdx, st.cPkgIndex, st.cPkgNum,
                             st.cFecNum, st.cFrmLostNum, st.cIsCalcLost, st.cIsOutOfOrderSeq,
                             st.wVidPkgIdxLeft, st.wLostReqCnt, st.dwMETimeStamp, st.dwLastReqLostTime}),
        Each(0u));
    EXPECT_TRUE(InOrder({&st.dwSenderSeq,   &st.dwTimeStamp,      &st.llAccount,      &st.dwSeq,
                         &st.pRawData,      &st.dwRecvTime,       &st.cSubType,       &st.cPrePkgLost,
                         &st.cIsFrmLastPkg, &st.cGopIdx,          &st.cFrmIdx,        &st.cPkgIndex,
                         &st.cFrmType,      &st.cPkgNum,          &st.cFecNum,        &st.cFrmLostNum,
                         &st.cIsCalcLost,   &st.cIsOutOfOrderSeq, &st.wVidPkgIdxLeft, &st.wLostReqCnt,
                         &st.dwMETimeStamp, &st.dwLastReqLostTime}));
}

TEST(Records, AFreshStreamHasNothingPlayedNothingSeenAndItsOutputOn)
{
    const CPoisoned<tagUinDataBuf> stream;
    const tagUinDataBuf& st = *stream;
    EXPECT_THAT((std::vector<uint32>{st.dwOutSendSeq, st.dwPrePkgSeq, st.dwVidPreGopIdx, st.dwVidPreFrmIdx,
                                     st.stStatInfo.dwFirstFrmCanDec, st.stStatInfo.dwRealMinDelay,
                                     st.stStatInfo.dwPreFrmType}),
                Each(c_dwNone));
    EXPECT_EQ(st.dwOutputSwitch, 1u);
    EXPECT_FALSE(st.bPushStmDone);
    EXPECT_THAT((std::vector<uint32>{st.dwTimelineMin,
                                     st.dwTimelineMax,
                                     st.dwTimelineDelta,
                                     st.dwTimelineOut,
                                     st.dwLastRecvPackTime,
                                     st.dwRecvFirstPkgTime,
                                     st.dwLastCheckDeltaTime,
                                     st.dwTargetTimelineDelta,
                                     st.dwNoAdjustDeltaCounter,
                                     st.dwConfigTimelineDelta,
                                     st.dwOutOfOrderCnt,
                                     st.dwLastOutPkgMETimeStamp,
                                     st.dwLastOutPkgHeadTS,
                                     st.dwAVSyncAddDelay,
                                     st.dwLastOutPkgTick,
                                     st.dwTimeStampDelta,
                                     st.dwCurTotalLost,
                                     st.dwDelayTimelineMax,
                                     st.dwStartTimeStamp,
                                     st.dwStartTick,
                                     st.dwOutPutDelayFlag,
                                     st.dwFirstIFOutFlag,
                                     st.dwVidGopCnt,
                                     st.dwAVStampSync,
                                     st.dwPFrmCnt,
                                     st.dwAudPushDone,
                                     st.dwAudPlayDelayRTS,
                                     st.dwLogPrintFlag,
                                     st.dwRecvIFlag,
                                     st.dwQuickOut}),
                Each(0u));
    EXPECT_THAT(st.mapUdtPacket, IsEmpty());
    EXPECT_THAT(st.mapRecvSeq, IsEmpty());
    EXPECT_THAT(st.mapRequestSeq, IsEmpty());
    EXPECT_EQ(st.stUinRecvPkgStat.m_bInit, FALSE);

    EXPECT_TRUE(InOrder({&st.dwTimelineMin,
                         &st.dwTimelineMax,
                         &st.dwTimelineDelta,
                         &st.dwTimelineOut,
                         &st.dwLastRecvPackTime,
                         &st.dwRecvFirstPkgTime,
                         &st.mapUdtPacket,
                         &st.stUinRecvPkgStat,
                         &st.dwLastCheckDeltaTime,
                         &st.dwTargetTimelineDelta,
                         &st.dwNoAdjustDeltaCounter,
                         &st.dwConfigTimelineDelta,
                         &st.dwOutSendSeq,
                         &st.dwOutOfOrderCnt,
                         &st.dwLastOutPkgMETimeStamp,
                         &st.dwLastOutPkgHeadTS,
                         &st.dwAVSyncAddDelay,
                         &st.dwLastOutPkgTick,
                         &st.dwTimeStampDelta,
                         &st.dwCurTotalLost,
                         &st.dwOutputSwitch,
                         &st.dwDelayTimelineMax,
                         &st.dwStartTimeStamp,
                         &st.dwStartTick,
                         &st.dwOutPutDelayFlag,
                         &st.mapRecvSeq,
                         &st.mapRequestSeq,
                         &st.dwFirstIFOutFlag,
                         &st.dwPrePkgSeq,
                         &st.dwVidPreGopIdx,
                         &st.dwVidPreFrmIdx,
                         &st.dwVidGopCnt,
                         &st.dwAVStampSync,
                         &st.dwPFrmCnt,
                         &st.dwAudPushDone,
                         &st.dwAudPlayDelayRTS,
                         &st.stStatInfo,
                         &st.dwLogPrintFlag,
                         &st.dwRecvIFlag,
                         &st.dwQuickOut,
                         &st.bPushStmDone}));
}

TEST(Records, FreshStatisticsHaveNoDecodableFrameNoMinimumAndNoFrameType)
{
    const CPoisoned<tagUinBufStatInfo> stat;
    const tagUinBufStatInfo& st = *stat;
    EXPECT_EQ(st.dwFirstFrmCanDec, c_dwNone);
    EXPECT_EQ(st.dwRealMinDelay, c_dwNone);
    EXPECT_EQ(st.dwPreFrmType, c_dwNone);
    EXPECT_THAT(
        (std::vector<uint32>{st.dwFirstIFrmRecvTime, st.dwFrmNumBeforeFristFrm, st.dwCanDecIFrmElpTime,
                             st.dwConfgMinDelay, st.dwConfgMaxDelay, st.dwRealMaxDelay, st.dwRealDelayAccNum,
                             st.dwRealDelayAccCnt, st.dwCurCalcTLDelta, st.dwSkipPkgNum, st.dwStampErrCnt,
                             st.dwTotalRecvPkgNum, st.dwTotalLossPkgNum, st.dwTotalReqFailNum, st.dwOutFrmCnt,
                             st.dwOutIFrmNum, st.dwCurIFrmCanDec}),
        Each(0u));
    EXPECT_TRUE(InOrder({&st.dwFirstIFrmRecvTime, &st.dwFrmNumBeforeFristFrm, &st.dwFirstFrmCanDec,
                         &st.dwCanDecIFrmElpTime, &st.dwConfgMinDelay,        &st.dwConfgMaxDelay,
                         &st.dwRealMinDelay,      &st.dwRealMaxDelay,         &st.dwRealDelayAccNum,
                         &st.dwRealDelayAccCnt,   &st.dwCurCalcTLDelta,       &st.dwSkipPkgNum,
                         &st.dwStampErrCnt,       &st.dwTotalRecvPkgNum,      &st.dwTotalLossPkgNum,
                         &st.dwTotalReqFailNum,   &st.dwPreFrmType,           &st.dwOutFrmCnt,
                         &st.dwOutIFrmNum,        &st.dwCurIFrmCanDec}));
}

TEST(Records, AFreshUserHasAStoppedClockAndAnInvertedBand)
{
    const CPoisoned<tagUinDataInfo> info;
    const tagUinDataInfo& st = *info;
    EXPECT_EQ(st.dwTimelineMin, c_dwNone);
    EXPECT_EQ(st.dwFastFactor, 12u);
    EXPECT_THAT(
        (std::vector<uint32>{st.dwTimelineOut, st.dwTimelineIn, st.dwTimelineMax, st.dwVidResetTimelineMin,
                             st.dwLastCheckDeltaTime, st.dwHasVideo, st.dwExWaitTick, st.dwLogPrintFlag}),
        Each(0u));
    EXPECT_TRUE(InOrder({&st.dwTimelineOut, &st.dwTimelineIn, &st.dwTimelineMin, &st.dwTimelineMax,
                         &st.dwVidResetTimelineMin, &st.dwLastCheckDeltaTime, &st.dwHasVideo,
                         &st.dwFastFactor, &st.dwExWaitTick, &st.dwLogPrintFlag}));
}

TEST(Records, FreshUnwrapAndSequenceRecordsAreZero)
{
    const CPoisoned<tagPkgRingParam> ring;
    EXPECT_THAT((std::vector<uint32>{(*ring).dwTimeStampBase, (*ring).wTimeStampLast, (*ring).bSwitch}),
                Each(0u));
    EXPECT_TRUE(InOrder({&(*ring).dwTimeStampBase, &(*ring).wTimeStampLast, &(*ring).bSwitch}));
    const CPoisoned<tagDownUpSeq> seq;
    EXPECT_THAT((std::vector<uint32>{(*seq).dwSubType, (*seq).dwSenderSeq, (*seq).dwLastLostReqTime}),
                Each(0u));
    EXPECT_TRUE(InOrder({&(*seq).dwSubType, &(*seq).dwSenderSeq, &(*seq).dwLastLostReqTime}));
}

TEST(Records, ACopyOfAStreamSharesItsPacketsAndOwnsEverythingElse)
{
    const int nLiveBefore = CRigPacket::Live();
    {
        tagUinDataBuf stStream;
        stStream.mapUdtPacket[4] = CRecvRig::Record(AudioPacket(7, 4), 1000);
        stStream.mapRecvSeq[4] = 1000;
        stStream.mapRequestSeq[3] = 990;
        stStream.stUinRecvPkgStat.RecvData(4);
        stStream.stUinRecvPkgStat.RecvData(6);
        stStream.stStatInfo.dwSkipPkgNum = 3;
        stStream.dwTimelineDelta = 100;
        stStream.dwQuickOut = 5;
        stStream.bPushStmDone = true;
        UDTCodecBaseDecode_V2* pRaw = stStream.mapUdtPacket[4].pRawData.p;
        EXPECT_EQ(pRaw->iRefs, 1);

        tagUinDataBuf stCopy(stStream);
        EXPECT_EQ(pRaw->iRefs, 2);
        EXPECT_EQ(CRigPacket::Live(), nLiveBefore + 1);
        EXPECT_EQ(stCopy.mapRecvSeq, stStream.mapRecvSeq);
        EXPECT_EQ(stCopy.mapRequestSeq, stStream.mapRequestSeq);
        EXPECT_EQ(stCopy.stUinRecvPkgStat.m_uLast, 6u);
        EXPECT_EQ(stCopy.stUinRecvPkgStat.m_mapLoss, stStream.stUinRecvPkgStat.m_mapLoss);
        EXPECT_EQ(stCopy.stStatInfo.dwSkipPkgNum, 3u);
        EXPECT_EQ(stCopy.dwTimelineDelta, 100u);
        EXPECT_EQ(stCopy.dwQuickOut, 5u);
        EXPECT_TRUE(stCopy.bPushStmDone);

        stStream.mapUdtPacket.clear();
        stStream.mapRecvSeq.clear();
        EXPECT_EQ(pRaw->iRefs, 1);
        EXPECT_EQ(stCopy.mapRecvSeq.size(), 1u);
    }
    EXPECT_EQ(CRigPacket::Live(), nLiveBefore);
}

// ---- The receiver --------------------------------------------------------------------------------------------------

TEST(FreshReceiver, EveryMemberHasItsDefaultWhateverLayThereBefore)
{
    CPoisonedRig poisoned;
    CRecvRig& rig = *poisoned;
    EXPECT_EQ(rig.m_pCB(), &rig.m_owner);
    EXPECT_THAT(rig.m_listRawData(), IsEmpty());
    EXPECT_THAT(rig.m_mapUinInPkt(), IsEmpty());
    EXPECT_THAT(rig.m_mapUinSeqInfo(), IsEmpty());
    EXPECT_THAT(rig.m_mapUinPkgRingParam(), IsEmpty());
    EXPECT_THAT(rig.m_mapUinDataInfo(), IsEmpty());
    EXPECT_THAT(rig.m_listClearUin(), IsEmpty());
    EXPECT_EQ(rig.m_hRecvEvent(), nullptr);
    EXPECT_EQ(rig.m_bStop(), 1);
    EXPECT_EQ(rig.m_bEnableReGetPkg(), 1);
    EXPECT_THAT(rig.m_pSpeed(), Each(nullptr));

    struct tagRow
    {
        const char* pszName;
        uint32 dwHas;
        uint32 dwWant;
    };
    const tagRow aRows[] = {
        {"m_dwRecvChnStartTime", rig.m_dwRecvChnStartTime(), 0},
        {"m_dwLastCheckPkgTimeoutTime", rig.m_dwLastCheckPkgTimeoutTime(), 0},
        {"m_dwUdtlossDataRequestInterval", rig.m_dwUdtlossDataRequestInterval(), 200},
        {"m_dwUdtFirstReGetTime", rig.m_dwUdtFirstReGetTime(), 300},
        {"m_dwLastCheckPkgRqFailTime", rig.m_dwLastCheckPkgRqFailTime(), 0},
        {"m_dwTimelineDeltaMax", rig.m_dwTimelineDeltaMax(), 6000},
        {"m_dwRTT", rig.m_dwRTT(), 0},
        {"m_dwAddDelay", rig.m_dwAddDelay(), 0},
        {"m_dwLastCheckTimeout", rig.m_dwLastCheckTimeout(), 0},
        {"m_dwExpectRecvPkgNum", rig.m_dwExpectRecvPkgNum(), 0},
        {"m_dwRealRecvPkgNum", rig.m_dwRealRecvPkgNum(), 0},
        {"m_dwTotalLossTime", rig.m_dwTotalLossTime(), 0},
        {"m_dwCalcLossCnt", rig.m_dwCalcLossCnt(), 0},
        {"m_dwLastCalcRecvLoss", rig.m_dwLastCalcRecvLoss(), 0},
        {"m_dwLoss100", rig.m_dwLoss100(), 0},
        {"m_dwTotalNum", rig.m_dwTotalNum(), 0},
        {"m_dwRealNum", rig.m_dwRealNum(), 0},
        {"m_dwAvgLossMode", rig.m_dwAvgLossMode(), 0},
        {"m_dwDownLoss100", rig.m_dwDownLoss100(), 0},
        {"m_dwCalcTimer", rig.m_dwCalcTimer(), 2000},
        {"m_dwTimelineDelta", rig.m_dwTimelineDelta(), 1000},
        {"m_dwUdtRecvMode", rig.m_dwUdtRecvMode(), 0},
        {"m_dwOutputDelay", rig.m_dwOutputDelay(), 200},
        {"m_dwUdtParamsChanged", rig.m_dwUdtParamsChanged(), 0},
        {"m_dwClearRequest", rig.m_dwClearRequest(), 0},
        {"m_dwRoomLogicState", rig.m_dwRoomLogicState(), 0},
        {"m_dwCheckLossParamTime", rig.m_dwCheckLossParamTime(), 0},
        {"m_dwLossParamSetFlag", rig.m_dwLossParamSetFlag(), 0},
        {"m_dwPacketRecvCnt", rig.m_dwPacketRecvCnt(), 0},
        {"m_dwBytesRecvCnt", rig.m_dwBytesRecvCnt(), 0},
        {"m_dwSeqFirstRecv", rig.m_dwSeqFirstRecv(), 0},
        {"m_dwSeqLastRecv", rig.m_dwSeqLastRecv(), 0},
        {"m_dwMaxLossRate", rig.m_dwMaxLossRate(), 0},
        {"m_dwMinLossRate", rig.m_dwMinLossRate(), c_dwNone},
        {"m_dwCurLossRate", rig.m_dwCurLossRate(), 0},
        {"m_dwLossRateAccNum", rig.m_dwLossRateAccNum(), 0},
        {"m_dwLossRateAccCnt", rig.m_dwLossRateAccCnt(), 0},
        {"m_dwServPushGopNum", rig.m_dwServPushGopNum(), 2},
        {"m_dwMinDelayFromServ", rig.m_dwMinDelayFromServ(), 500},
        {"m_dwIFrmPkgLostInfo", rig.m_dwIFrmPkgLostInfo(), 0},
        {"m_dwPushStmDone", rig.m_dwPushStmDone(), 0},
        {"m_dwAVSyncAdjSwitch", rig.m_dwAVSyncAdjSwitch(), 1},
        {"m_LogPrintFlag", rig.m_LogPrintFlag(), 0},
        {"m_dwOutDelayDone", rig.m_dwOutDelayDone(), 0},
        {"m_dwChnClearNum", rig.m_dwChnClearNum(), 0},
        {"m_dwUinNum", rig.m_dwUinNum(), 0},
        {"m_dwMultiUinAVSync", rig.m_dwMultiUinAVSync(), 0},
        {"m_dwLogPrintTimer", rig.m_dwLogPrintTimer(), 0},
        {"m_dwLastPrintTick", rig.m_dwLastPrintTick(), 0},
    };
    for (const tagRow& stRow : aRows)
        EXPECT_EQ(stRow.dwHas, stRow.dwWant) << stRow.pszName;
}

TEST(FreshReceiver, ItsMembersLieInTheirFixedOrder)
{
    CRecvRig rig;
    EXPECT_TRUE(InOrder({&rig.m_pCB(),
                         &rig.m_listRawData(),
                         &rig.m_mapUinInPkt(),
                         &rig.m_mapUinSeqInfo(),
                         &rig.m_mapUinPkgRingParam(),
                         &rig.m_bStop(),
                         &rig.m_hRecvEvent(),
                         &rig.m_dwRecvChnStartTime(),
                         &rig.m_dwLastCheckPkgTimeoutTime(),
                         &rig.m_dwUdtlossDataRequestInterval(),
                         &rig.m_dwUdtFirstReGetTime(),
                         &rig.m_dwLastCheckPkgRqFailTime(),
                         &rig.m_dwTimelineDeltaMax(),
                         &rig.m_dwRTT(),
                         &rig.m_dwAddDelay(),
                         &rig.m_dwLastCheckTimeout(),
                         &rig.m_dwExpectRecvPkgNum(),
                         &rig.m_dwRealRecvPkgNum(),
                         &rig.m_dwTotalLossTime(),
                         &rig.m_dwCalcLossCnt(),
                         &rig.m_bEnableReGetPkg(),
                         &rig.m_dwLastCalcRecvLoss(),
                         &rig.m_dwLoss100(),
                         &rig.m_dwTotalNum(),
                         &rig.m_dwRealNum(),
                         &rig.m_dwAvgLossMode(),
                         &rig.m_dwDownLoss100(),
                         &rig.m_dwCalcTimer(),
                         &rig.m_dwTimelineDelta(),
                         &rig.m_dwUdtRecvMode(),
                         &rig.m_dwOutputDelay(),
                         &rig.m_dwUdtParamsChanged(),
                         &rig.m_dwClearRequest(),
                         &rig.m_listClearUin(),
                         &rig.m_dwRoomLogicState(),
                         &rig.m_mapUinDataInfo(),
                         &rig.m_dwCheckLossParamTime(),
                         &rig.m_dwLossParamSetFlag(),
                         &rig.m_dwPacketRecvCnt(),
                         &rig.m_dwBytesRecvCnt(),
                         &rig.m_pSpeed(),
                         &rig.m_dwSeqFirstRecv(),
                         &rig.m_dwSeqLastRecv(),
                         &rig.m_dwMaxLossRate(),
                         &rig.m_dwMinLossRate(),
                         &rig.m_dwCurLossRate(),
                         &rig.m_dwLossRateAccNum(),
                         &rig.m_dwLossRateAccCnt(),
                         &rig.m_dwServPushGopNum(),
                         &rig.m_dwMinDelayFromServ(),
                         &rig.m_dwIFrmPkgLostInfo(),
                         &rig.m_dwPushStmDone(),
                         &rig.m_dwAVSyncAdjSwitch(),
                         &rig.m_LogPrintFlag(),
                         &rig.m_dwOutDelayDone(),
                         &rig.m_dwChnClearNum(),
                         &rig.m_dwUinNum(),
                         &rig.m_dwMultiUinAVSync(),
                         &rig.m_dwLogPrintTimer(),
                         &rig.m_dwLastPrintTick()}));
}

// ---- Read-outs -------------------------------------------------------------------------------------------------------

TEST(ReadOut, TheStreamLossComesOutInOrder)
{
    CRecvRig rig;
    rig.m_dwLoss100() = 11;
    rig.m_dwTotalNum() = 22;
    rig.m_dwRealNum() = 33;
    rig.m_dwAvgLossMode() = 44;
    uint32 dw[4] = {};
    rig.m_recv.UDTCalcRecvLoss(dw[0], dw[1], dw[2], dw[3]);
    EXPECT_THAT(dw, ElementsAre(11, 22, 33, 44));
}

TEST(ReadOut, TheReceiverWideRecordCopiesItsFiveFigures)
{
    CRecvRig rig;
    tagRecvInfo stInfo;
    rig.m_recv.GetRecvInfo(stInfo);
    EXPECT_EQ(stInfo.dwChnNum, 0u);
    EXPECT_EQ(stInfo.dwMinLossRate, c_dwNone);

    rig.Put(AudioPacket(7, 1));
    rig.Put(VideoPacket(7, 1, 1000, def_FrameType_I, 0, 0));
    rig.m_dwMaxLossRate() = 900;
    rig.m_dwMinLossRate() = 100;
    rig.m_dwCurLossRate() = 500;
    rig.m_dwChnClearNum() = 3;
    rig.m_recv.GetRecvInfo(stInfo);
    EXPECT_EQ(stInfo.dwChnNum, 2u);
    EXPECT_EQ(stInfo.dwMaxLossRate, 900u);
    EXPECT_EQ(stInfo.dwMinLossRate, 100u);
    EXPECT_EQ(stInfo.dwCurLossRate, 500u);
    EXPECT_EQ(stInfo.dwChnClearNum, 3u);
}

TEST(ReadOut, StreamsComeInKeyOrderAsManyAsThereIsRoomFor)
{
    CRecvRig rig;
    tagRecvChnStatInfo aInfo[6];
    EXPECT_EQ(rig.m_recv.GetRecvChnInfo(aInfo, 6), 0u); // no stream
    rig.Put(VideoPacket(6, 1, 1000, def_FrameType_P, 0, 0, 0, 1, MEAVSubVideo));
    rig.Put(VideoPacket(6, 1, 1000, def_FrameType_P, 0, 0));
    rig.Put(AudioPacket(0xFFFFFFFFFFull, 1));
    rig.Put(AudioPacket(6, 1));
    rig.Put(AudioPacket(5, 1));

    EXPECT_EQ(rig.m_recv.GetRecvChnInfo(nullptr, 6), 0u);
    EXPECT_EQ(rig.m_recv.GetRecvChnInfo(aInfo, 0), 0u);
    EXPECT_EQ(aInfo[0].llAccount, 0u); // untouched so far

    EXPECT_EQ(rig.m_recv.GetRecvChnInfo(aInfo, 3), 3u);
    EXPECT_EQ(aInfo[0].llAccount, 5u);
    EXPECT_EQ(aInfo[0].dwSubType, 1u);
    EXPECT_EQ(aInfo[1].llAccount, 6u);
    EXPECT_EQ(aInfo[1].dwSubType, 1u);
    EXPECT_EQ(aInfo[2].llAccount, 6u);
    EXPECT_EQ(aInfo[2].dwSubType, 2u);
    EXPECT_EQ(aInfo[3].llAccount, 0u); // behind the room given

    EXPECT_EQ(rig.m_recv.GetRecvChnInfo(aInfo, 5), 5u);
    EXPECT_EQ(rig.m_recv.GetRecvChnInfo(aInfo, 6), 5u);
    EXPECT_EQ(aInfo[3].dwSubType, 7u);
    EXPECT_EQ(aInfo[4].llAccount, 0xFFFFFFFFFFull);
}

TEST(ReadOut, AStreamsRecordCopiesItsStatisticsButTakesTheBuffersOwnDelta)
{
    CRecvRig rig;
    rig.Put(AudioPacket(7, 1));
    tagUinDataBuf& stStream = *rig.Stream(7, MEAVAudio);
    tagUinBufStatInfo& st = stStream.stStatInfo;
    st.dwFirstIFrmRecvTime = 1;
    st.dwFrmNumBeforeFristFrm = 2;
    st.dwFirstFrmCanDec = 3;
    st.dwCanDecIFrmElpTime = 4;
    st.dwConfgMinDelay = 5;
    st.dwConfgMaxDelay = 6;
    st.dwRealMinDelay = 7;
    st.dwRealMaxDelay = 8;
    st.dwRealDelayAccNum = 29;
    st.dwRealDelayAccCnt = 3;
    st.dwCurCalcTLDelta = 1234; // not this one
    stStream.dwTimelineDelta = 10;
    st.dwSkipPkgNum = 11;
    st.dwStampErrCnt = 12;
    st.dwTotalRecvPkgNum = 13;
    st.dwTotalLossPkgNum = 14;
    st.dwTotalReqFailNum = 15;

    tagRecvChnStatInfo stInfo;
    ASSERT_EQ(rig.m_recv.GetRecvChnInfo(&stInfo, 1), 1u);
    EXPECT_EQ(stInfo.llAccount, 7u);
    EXPECT_EQ(stInfo.dwSubType, 1u);
    EXPECT_THAT((std::vector<uint32>{stInfo.dwFirstIFrmRecvTime, stInfo.dwFrmNumBeforeFristFrm,
                                     stInfo.dwFirstFrmCanDec, stInfo.dwCanDecIFrmElpTime,
                                     stInfo.dwConfgMinDelay, stInfo.dwConfgMaxDelay, stInfo.dwRealMinDelay,
                                     stInfo.dwRealMaxDelay, stInfo.dwRealDelayAvg, stInfo.dwCurCalcTLDelta,
                                     stInfo.dwSkipPkgNum, stInfo.dwStampErrCnt, stInfo.dwTotalRecvPkgNum,
                                     stInfo.dwTotalLossPkgNum, stInfo.dwTotalReqFailNum}),
                ElementsAre(1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15));

    st.dwRealDelayAccCnt = 0; // no sample: no average, whatever the sum
    rig.m_recv.GetRecvChnInfo(&stInfo, 1);
    EXPECT_EQ(stInfo.dwRealDelayAvg, 0u);
}

TEST(ReadOut, AnEventGoesToTheOwnerUnchangedAndItsAnswerIsIgnored)
{
    CRecvRig rig;
    tagReplyData aData[2];
    aData[0].dwUserSeq = 5;
    aData[1].dwUserSeq = 6;
    EXPECT_EQ(rig.RecvDataEvent((uint16)513, (uint8*)aData, 2u, 3u, 4u), TRUE); // the rig's owner answers -1
    ASSERT_EQ(rig.m_owner.m_vecRequests.size(), 1u);
    const tagRequest& stRequest = rig.m_owner.m_vecRequests[0];
    EXPECT_EQ(stRequest.wType, 513);
    EXPECT_EQ(stRequest.nSendCount, 3u);
    EXPECT_EQ(stRequest.nUdtV2, 4u);
    ASSERT_EQ(stRequest.vecData.size(), 2u);
    EXPECT_EQ(stRequest.vecData[1].dwUserSeq, 6u);

    CRecvRig ownerless(1000, false);
    EXPECT_EQ(ownerless.RecvDataEvent((uint16)0, (uint8*)aData, 2u, 1u, 1u), TRUE);
    EXPECT_EQ(ownerless.RecvDataEvent((uint16)0, (uint8*)nullptr, 0u, 1u, 1u), TRUE);
}
