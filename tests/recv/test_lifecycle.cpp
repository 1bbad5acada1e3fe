// Start, stop, turns and clearing on an owner-driven receiver, and what callbacks may do to it.

#include "RecvTest.h"

#include "UDTInsideParam.h"

#include <cstring>
#include <vector>

using ::testing::Each;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::Not;
using ::testing::SizeIs;

namespace
{

const emSpeedType c_eMeters[] = {TOTAL_RECV_SPEED, TOTAL_AUDIO_RECV_SPEED, TOTAL_VIDEO_RECV_SPEED};

std::vector<bool> MetersRegistered()
{
    std::vector<bool> vecRegistered;
    for (const emSpeedType eType : c_eMeters)
        vecRegistered.push_back(CUDTInsideParam::GetInstance()->HasSpeed(eType) != FALSE);
    return vecRegistered;
}

const tagLine c_stClear = ErrorLine("Clear", "CAVGUdtRecv:: Clear.");
const tagLine c_stStart = ErrorLine("Start", "CAVGUdtRecv:: thread start... ver 1911");
const tagLine c_stStop = ErrorLine("Stop", "CAVGUdtRecv:: thread stop... ver 1911");
const tagLine c_stRunStop = ErrorLine("Run", "CAVGUdtRecv:: run stop...");

// The lines of the lifecycle alone, in order; the end report stands between them.
std::vector<tagLine> LifeLines(const CLogRecorder& log)
{
    std::vector<tagLine> vecLines;
    for (const tagLogLine& stLine : log.Lines())
    {
        if (stLine.strFunc == "Clear" || stLine.strFunc == "Start" || stLine.strFunc == "Stop" ||
            stLine.strFunc == "Run")
            vecLines.push_back(stLine);
    }
    return vecLines;
}

// An I frame opens the gate of its stream on sight and starts its user's clock, so it leaves in the next turn.
} // namespace

// ---- Start and stop ------------------------------------------------------------------------------------------------

TEST(Lifecycle, StoppingAReceiverThatNeverRanDoesNothingAndWritesNothing)
{
    CLogRecorder log;
    {
        CRecvRig rig;
        rig.m_bEnableReGetPkg() = 0;
        rig.m_dwTotalLossTime() = 5;
        rig.m_recv.Stop();
        EXPECT_EQ(rig.m_bStop(), 1);
        EXPECT_EQ(rig.m_bEnableReGetPkg(), 0);
        EXPECT_EQ(rig.m_dwTotalLossTime(), 5u);
        EXPECT_THAT(LinesOf(log), IsEmpty());
    }
    EXPECT_THAT(LinesOf(log), IsEmpty()); // the destructor stops it once more
}

TEST(Lifecycle, StartClearsTakesTheTickAndThenSaysSo)
{
    CRecvRig rig(0x5000012345ull);
    rig.Put(AudioPacket(7, 1));
    CLogRecorder log;
    rig.Start();
    EXPECT_THAT(LinesOf(log), ElementsAre(c_stClear, c_stStart));
    EXPECT_EQ(rig.m_bStop(), 0);
    EXPECT_NE(rig.m_hRecvEvent(), nullptr);
    EXPECT_EQ(rig.m_dwRecvChnStartTime(), 0x12345u); // 32 bits of the tick
    EXPECT_EQ(rig.m_dwLastCalcRecvLoss(), 0x12345u);
    EXPECT_THAT(rig.m_mapUinInPkt(), IsEmpty());
}

TEST(Lifecycle, StartingARunningReceiverDoesNothingAndWritesNothing)
{
    CRecvRig rig(1000);
    CLogRecorder log;
    rig.Start();
    rig.Feed(AudioPacket(7, 1));
    CAVGSpeed* const pMeter = rig.m_pSpeed()[0];
    const hxpevent hEvent = rig.m_hRecvEvent();
    rig.Advance(500);
    rig.Start();
    EXPECT_EQ(log.Count("thread start"), 1u);
    EXPECT_EQ(log.Count("Clear."), 1u);
    EXPECT_EQ(rig.m_dwRecvChnStartTime(), 1000u);
    EXPECT_EQ(rig.m_pSpeed()[0], pMeter);
    EXPECT_EQ(rig.m_hRecvEvent(), hEvent);
    EXPECT_THAT(rig.m_listRawData(), SizeIs(1));
}

TEST(Lifecycle, AnyValueButZeroMeansStopped)
{
    CRecvRig rig;
    rig.m_bStop() = 2;
    CLogRecorder log;
    rig.m_recv.Stop();
    EXPECT_THAT(LinesOf(log), IsEmpty());
    rig.Feed(AudioPacket(7, 1));
    EXPECT_THAT(rig.m_listRawData(), IsEmpty());
    rig.Start();
    EXPECT_EQ(rig.m_bStop(), 0);
}

TEST(Lifecycle, StopEndsTheRunFirstAndSaysSoLast)
{
    CRecvRig rig;
    rig.Start();
    rig.Feed(AudioPacket(7, 1));
    rig.Turn();
    rig.Feed(AudioPacket(7, 2));
    CLogRecorder log;
    rig.m_recv.Stop();
    EXPECT_THAT(LifeLines(log), ElementsAre(c_stClear, c_stRunStop, c_stStop));
    EXPECT_EQ(LinesOf(log).back(), c_stStop);
    EXPECT_EQ(rig.m_bStop(), 1);
    EXPECT_EQ(rig.m_hRecvEvent(), nullptr);
    EXPECT_THAT(rig.m_mapUinInPkt(), IsEmpty());
    EXPECT_THAT(rig.m_listRawData(), IsEmpty());

    log.Forget();
    rig.m_recv.Stop();
    EXPECT_THAT(LinesOf(log), IsEmpty()); // the second finds it stopped
}

TEST(Lifecycle, StopAllowsRequestsAgainAndForgetsTheLossCounters)
{
    CRecvRig rig;
    rig.Start();
    rig.m_recv.UDTEnableReGetPkg(FALSE);
    rig.m_dwLastCheckTimeout() = 1;
    rig.m_dwExpectRecvPkgNum() = 2;
    rig.m_dwRealRecvPkgNum() = 3;
    rig.m_dwTotalLossTime() = 4;
    rig.m_recv.Stop();
    EXPECT_EQ(rig.m_bEnableReGetPkg(), 1);
    EXPECT_EQ(rig.m_dwLastCheckTimeout(), 0u);
    EXPECT_EQ(rig.m_dwExpectRecvPkgNum(), 0u);
    EXPECT_EQ(rig.m_dwRealRecvPkgNum(), 0u);
    EXPECT_EQ(rig.m_dwTotalLossTime(), 0u);
}

TEST(Lifecycle, WhatStopDoesNotNameSurvivesItAndTheNextStart)
{
    CRecvRig rig;
    rig.Start();
    uint32 dwNext = 1000;
    std::vector<uint32> vecWant;
    const auto values = [&rig]() -> std::vector<uint32>
    {
        return {rig.m_dwUdtlossDataRequestInterval(),
                rig.m_dwUdtFirstReGetTime(),
                rig.m_dwTimelineDeltaMax(),
                rig.m_dwRTT(),
                rig.m_dwAddDelay(),
                rig.m_dwCalcLossCnt(),
                rig.m_dwLoss100(),
                rig.m_dwTotalNum(),
                rig.m_dwRealNum(),
                rig.m_dwAvgLossMode(),
                rig.m_dwDownLoss100(),
                rig.m_dwCalcTimer(),
                rig.m_dwTimelineDelta(),
                rig.m_dwUdtRecvMode(),
                rig.m_dwOutputDelay(),
                rig.m_dwUdtParamsChanged(),
                rig.m_dwClearRequest(),
                rig.m_dwRoomLogicState(),
                rig.m_dwLastCheckPkgTimeoutTime(),
                rig.m_dwLastCheckPkgRqFailTime(),
                rig.m_dwCheckLossParamTime(),
                rig.m_dwLossParamSetFlag(),
                rig.m_dwPacketRecvCnt(),
                rig.m_dwBytesRecvCnt(),
                rig.m_dwSeqFirstRecv(),
                rig.m_dwSeqLastRecv(),
                rig.m_dwMaxLossRate(),
                rig.m_dwMinLossRate(),
                rig.m_dwCurLossRate(),
                rig.m_dwLossRateAccNum(),
                rig.m_dwLossRateAccCnt(),
                rig.m_dwServPushGopNum(),
                rig.m_dwMinDelayFromServ(),
                rig.m_dwIFrmPkgLostInfo(),
                rig.m_dwAVSyncAdjSwitch(),
                rig.m_LogPrintFlag(),
                rig.m_dwOutDelayDone(),
                rig.m_dwChnClearNum(),
                rig.m_dwUinNum(),
                rig.m_dwMultiUinAVSync(),
                rig.m_dwLogPrintTimer()};
    };
    rig.m_dwUdtlossDataRequestInterval() = dwNext++;
    rig.m_dwUdtFirstReGetTime() = dwNext++;
    rig.m_dwTimelineDeltaMax() = dwNext++;
    rig.m_dwRTT() = dwNext++;
    rig.m_dwAddDelay() = dwNext++;
    rig.m_dwCalcLossCnt() = dwNext++;
    rig.m_dwLoss100() = dwNext++;
    rig.m_dwTotalNum() = dwNext++;
    rig.m_dwRealNum() = dwNext++;
    rig.m_dwAvgLossMode() = dwNext++;
    rig.m_dwDownLoss100() = dwNext++;
    rig.m_dwCalcTimer() = dwNext++;
    rig.m_dwTimelineDelta() = dwNext++;
    rig.m_dwUdtRecvMode() = dwNext++;
    rig.m_dwOutputDelay() = dwNext++;
    rig.m_dwUdtParamsChanged() = dwNext++;
    rig.m_dwClearRequest() = dwNext++;
    rig.m_dwRoomLogicState() = dwNext++;
    rig.m_dwLastCheckPkgTimeoutTime() = dwNext++;
    rig.m_dwLastCheckPkgRqFailTime() = dwNext++;
    rig.m_dwCheckLossParamTime() = dwNext++;
    rig.m_dwLossParamSetFlag() = dwNext++;
    rig.m_dwPacketRecvCnt() = dwNext++;
    rig.m_dwBytesRecvCnt() = dwNext++;
    rig.m_dwSeqFirstRecv() = dwNext++;
    rig.m_dwSeqLastRecv() = dwNext++;
    rig.m_dwMaxLossRate() = dwNext++;
    rig.m_dwMinLossRate() = dwNext++;
    rig.m_dwCurLossRate() = dwNext++;
    rig.m_dwLossRateAccNum() = dwNext++;
    rig.m_dwLossRateAccCnt() = dwNext++;
    rig.m_dwServPushGopNum() = dwNext++;
    rig.m_dwMinDelayFromServ() = dwNext++;
    rig.m_dwIFrmPkgLostInfo() = dwNext++;
    rig.m_dwAVSyncAdjSwitch() = dwNext++;
    rig.m_LogPrintFlag() = dwNext++;
    rig.m_dwOutDelayDone() = dwNext++;
    rig.m_dwChnClearNum() = dwNext++;
    rig.m_dwUinNum() = dwNext++;
    rig.m_dwMultiUinAVSync() = dwNext++;
    rig.m_dwLogPrintTimer() = dwNext++;
    for (uint32 dw = 1000; dw < dwNext; ++dw)
        vecWant.push_back(dw);
    rig.m_listClearUin() = {7, 8};
    rig.m_mapUinSeqInfo()[7][3].dwSenderSeq = 3;
    ASSERT_EQ(values(), vecWant);

    rig.m_recv.Stop();
    EXPECT_EQ(values(), vecWant);
    EXPECT_THAT(rig.m_listClearUin(), ElementsAre(7, 8));
    EXPECT_THAT(rig.m_mapUinSeqInfo(), SizeIs(1));

    rig.Start();
    EXPECT_EQ(values(), vecWant);
    EXPECT_THAT(rig.m_listClearUin(), ElementsAre(7, 8));
    EXPECT_THAT(rig.m_mapUinSeqInfo(), SizeIs(1));
}

TEST(Lifecycle, ASecondRunStartsEmptyAtItsOwnTickAndPlays)
{
    const int nLiveBefore = CRigPacket::Live();
    CRecvRig rig(1000);
    rig.StartPlaying();
    rig.FeedAll({KeyFrame(7, 1), VideoPacket(7, 2, 90000, def_FrameType_P, 0, 1)});
    rig.Turn();
    EXPECT_THAT(rig.m_owner.Sequences(7, MEAVMaxVideo), ElementsAre(1));
    rig.Feed(AudioPacket(7, 1));
    EXPECT_EQ(CRigPacket::Live(), nLiveBefore + 2); // one buffered, one not yet taken

    rig.m_recv.Stop();
    EXPECT_EQ(CRigPacket::Live(), nLiveBefore);
    EXPECT_THAT(rig.m_mapUinDataInfo(), IsEmpty());
    EXPECT_THAT(rig.m_mapUinPkgRingParam(), IsEmpty());

    rig.ClockAt(9000);
    rig.Start();
    EXPECT_EQ(rig.m_dwRecvChnStartTime(), 9000u);
    rig.Feed(KeyFrame(7, 1));
    rig.Turn();
    EXPECT_THAT(rig.m_owner.Sequences(7, MEAVMaxVideo), ElementsAre(1, 1));
    EXPECT_THAT(rig.m_owner.ReleaseTicks(7, MEAVMaxVideo), ElementsAre(1000, 9000));
}

TEST(Lifecycle, TheDestructorStopsARunningReceiverAndGivesEverythingBack)
{
    const int nLiveBefore = CRigPacket::Live();
    CLogRecorder log;
    {
        CRecvRig rig;
        rig.Start();
        rig.Feed(AudioPacket(7, 1));
        rig.Turn();
        rig.Feed(AudioPacket(7, 2));
        EXPECT_EQ(CRigPacket::Live(), nLiveBefore + 2);
        log.Forget();
    }
    EXPECT_THAT(LifeLines(log), ElementsAre(c_stClear, c_stRunStop, c_stStop));
    EXPECT_EQ(CRigPacket::Live(), nLiveBefore);
    EXPECT_THAT(MetersRegistered(), Each(false));
}

// ---- Clear -----------------------------------------------------------------------------------------------------------

TEST(Clear, EmptiesFourContainersAndKeepsTheRest)
{
    const int nLiveBefore = CRigPacket::Live();
    CRecvRig rig;
    rig.Start();
    rig.Feed(AudioPacket(7, 1));
    rig.Turn();
    rig.Feed(AudioPacket(7, 2));
    rig.m_mapUinSeqInfo()[7];
    rig.m_listClearUin().push_back(7);
    rig.m_dwClearRequest() = 2;
    rig.m_dwUinNum() = 4;
    ASSERT_THAT(rig.m_mapUinInPkt(), Not(IsEmpty()));
    ASSERT_THAT(rig.m_mapUinPkgRingParam(), Not(IsEmpty()));

    CLogRecorder log;
    rig.Clear();
    EXPECT_THAT(LinesOf(log), ElementsAre(c_stClear));
    EXPECT_THAT(rig.m_listRawData(), IsEmpty());
    EXPECT_THAT(rig.m_mapUinInPkt(), IsEmpty());
    EXPECT_THAT(rig.m_mapUinPkgRingParam(), IsEmpty());
    EXPECT_THAT(rig.m_mapUinDataInfo(), IsEmpty());
    EXPECT_THAT(rig.m_mapUinSeqInfo(), SizeIs(1));
    EXPECT_THAT(rig.m_listClearUin(), ElementsAre(7));
    EXPECT_EQ(rig.m_dwClearRequest(), 2u);
    EXPECT_EQ(rig.m_dwUinNum(), 4u);
    EXPECT_EQ(CRigPacket::Live(), nLiveBefore);
}

// ---- Meters ------------------------------------------------------------------------------------------------------------

TEST(Meters, LiveFromStartToStopAndAreKnownToTheProcessMeanwhile)
{
    CRecvRig rig;
    EXPECT_THAT(rig.m_pSpeed(), Each(nullptr));
    EXPECT_THAT(MetersRegistered(), Each(false));

    rig.Start();
    for (const size_t nUsed : {0u, 2u, 4u})
        EXPECT_NE(rig.m_pSpeed()[nUsed], nullptr);
    for (const size_t nUnused : {1u, 3u, 5u})
        EXPECT_EQ(rig.m_pSpeed()[nUnused], nullptr);
    EXPECT_THAT(MetersRegistered(), Each(true));
    EXPECT_FALSE(CUDTInsideParam::GetInstance()->HasSpeed(RAW_RECV_SPEED));
    EXPECT_FALSE(CUDTInsideParam::GetInstance()->HasSpeed(TOTAL_SEND_SPEED));

    rig.m_recv.Stop();
    EXPECT_THAT(rig.m_pSpeed(), Each(nullptr));
    EXPECT_THAT(MetersRegistered(), Each(false));
}

TEST(Meters, EachOneStandsUnderItsOwnType)
{
    CRecvRig rig(1000);
    rig.Start();
    rig.m_pSpeed()[0]->AddSample(1000);
    rig.m_pSpeed()[2]->AddSample(200);
    rig.m_pSpeed()[4]->AddSample(30);
    rig.Advance(1000);
    EXPECT_EQ(CUDTInsideParam::GetInstance()->GetSpeed(TOTAL_RECV_SPEED), 1000u);
    EXPECT_EQ(CUDTInsideParam::GetInstance()->GetSpeed(TOTAL_AUDIO_RECV_SPEED), 200u);
    EXPECT_EQ(CUDTInsideParam::GetInstance()->GetSpeed(TOTAL_VIDEO_RECV_SPEED), 30u);
}

// ---- Turns -------------------------------------------------------------------------------------------------------------

TEST(Turn, TakesTheIntakeBeforeItReleases)
{
    CRecvRig rig(1000);
    rig.StartPlaying();
    rig.Feed(KeyFrame(7, 1));
    EXPECT_THAT(rig.m_owner.m_vecReleases, IsEmpty()); // not on the feeding thread
    rig.Turn();
    EXPECT_THAT(rig.m_owner.ReleaseTicks(7, MEAVMaxVideo), ElementsAre(1000));
}

TEST(Turn, WithoutPacketsDoesNothingVisible)
{
    CRecvRig rig;
    rig.StartPlaying();
    rig.TurnsUntil(1200);
    EXPECT_THAT(rig.m_owner.m_vecReleases, IsEmpty());
    EXPECT_THAT(rig.m_owner.m_vecRequests, IsEmpty());
}

// ---- Callbacks that call back in ---------------------------------------------------------------------------------------

TEST(CalledBack, StopInAReleaseEndsTheRunAfterTheTurn)
{
    const int nLiveBefore = CRigPacket::Live();
    CRecvRig rig;
    rig.StartPlaying();
    CLogRecorder log;
    bool bStopped = false;
    rig.m_owner.m_fnOnRelease = [&](const tagRelease&)
    {
        rig.m_recv.Stop();
        bStopped = true;
        EXPECT_EQ(rig.m_bStop(), 1);
        EXPECT_EQ(log.Count("thread stop"), 1u);
        EXPECT_EQ(log.Count("run stop"), 0u);             // the turn is still under way
        EXPECT_THAT(rig.m_mapUinInPkt(), Not(IsEmpty())); // and its walk needs its stream
        EXPECT_EQ(rig.Feed(AudioPacket(9, 1)), TRUE);     // dropped
        EXPECT_THAT(rig.m_listRawData(), IsEmpty());
    };
    rig.Feed(KeyFrame(7, 1));
    rig.Turn();
    EXPECT_TRUE(bStopped);
    EXPECT_THAT(LifeLines(log), ElementsAre(c_stStop, c_stClear, c_stRunStop));
    EXPECT_THAT(rig.m_mapUinInPkt(), IsEmpty());
    EXPECT_EQ(rig.m_hRecvEvent(), nullptr);
    EXPECT_THAT(rig.m_pSpeed(), Each(nullptr));
    EXPECT_EQ(rig.m_dwLastCheckTimeout(), 0u);
    EXPECT_EQ(CRigPacket::Live(), nLiveBefore);
}

TEST(CalledBack, WhatIsDueInTheStoppingTurnStillLeaves)
{
    CRecvRig rig;
    rig.StartPlaying();
    rig.m_owner.m_fnOnRelease = [&rig](const tagRelease&) { rig.m_recv.Stop(); };
    rig.FeedAll({KeyFrame(7, 1), VideoPacket(7, 2, 5000, def_FrameType_P, 0, 1), KeyFrame(8, 1)});
    CLogRecorder log;
    rig.Turn();
    EXPECT_THAT(rig.m_owner.Sequences(7, MEAVMaxVideo), ElementsAre(1, 2));
    EXPECT_THAT(rig.m_owner.Sequences(8, MEAVMaxVideo), ElementsAre(1));
    EXPECT_EQ(log.Count("thread stop"), 1u); // later calls find it stopped
    EXPECT_EQ(log.Count("run stop"), 1u);
}

TEST(CalledBack, StartAfterAStopInACallbackWorks)
{
    CRecvRig rig(1000);
    rig.StartPlaying();
    rig.m_owner.m_fnOnRelease = [&rig](const tagRelease&) { rig.m_recv.Stop(); };
    rig.Feed(KeyFrame(7, 1));
    rig.Turn();
    ASSERT_EQ(rig.m_bStop(), 1);

    rig.m_owner.m_fnOnRelease = nullptr;
    rig.ClockAt(2000);
    rig.Start();
    EXPECT_EQ(rig.m_bStop(), 0);
    EXPECT_EQ(rig.m_dwRecvChnStartTime(), 2000u);
    rig.Feed(KeyFrame(7, 5));
    rig.Turn();
    rig.Turn();
    EXPECT_EQ(rig.m_bStop(), 0); // the old stop is forgotten
    EXPECT_THAT(rig.m_owner.Sequences(7, MEAVMaxVideo), ElementsAre(1, 5));
}

TEST(CalledBack, StopAndStartInOneCallbackBreakNothing)
{
    // The turn that is under way cannot be cleared beneath itself, so the start in it is refused and said so.
    const int nLiveBefore = CRigPacket::Live();
    CRecvRig rig;
    rig.StartPlaying();
    rig.m_owner.m_fnOnRelease = [&rig](const tagRelease&)
    {
        rig.m_recv.Stop();
        rig.m_recv.Start();
        rig.m_recv.Stop();
    };
    rig.FeedAll({KeyFrame(7, 1), KeyFrame(8, 1)});
    CLogRecorder log;
    rig.Turn();
    EXPECT_EQ(rig.m_bStop(), 1);
    EXPECT_EQ(log.Count("run stop"), 1u);
    EXPECT_EQ(CRigPacket::Live(), nLiveBefore);

    rig.m_owner.m_fnOnRelease = nullptr;
    rig.Start();
    rig.Feed(KeyFrame(7, 2));
    rig.Turn();
    EXPECT_EQ(rig.m_owner.Sequences(7, MEAVMaxVideo).back(), 2u);
}

TEST(CalledBack, StopInTheHeadParserDropsThatPacket)
{
    const int nLiveBefore = CRigPacket::Live();
    CRecvRig rig;
    rig.StartPlaying();
    rig.m_owner.m_fnOnParse = [&rig] { rig.m_recv.Stop(); };
    CLogRecorder log;
    EXPECT_EQ(rig.Feed(AudioPacket(7, 1)), TRUE);
    EXPECT_EQ(rig.m_bStop(), 1);
    EXPECT_THAT(rig.m_listRawData(), IsEmpty());
    EXPECT_EQ(log.Count("ReceiveNetData"), 0u);
    EXPECT_EQ(CRigPacket::Live(), nLiveBefore);

    rig.m_owner.m_fnOnParse = nullptr;
    rig.Start();
    rig.Feed(AudioPacket(7, 1));
    EXPECT_THAT(rig.m_listRawData(), SizeIs(1));
}

TEST(CalledBack, SettersGettersClearsAndIntakeWorkFromARelease)
{
    CRecvRig rig;
    rig.StartPlaying();
    tagRecvChnStatInfo aInfo[4];
    rig.m_owner.m_fnOnRelease = [&](const tagRelease&)
    {
        tagUDTRecvParams stParams;
        stParams.wTimelineDelta = 700;
        rig.m_recv.UDTSetRecvParams(stParams);
        rig.m_recv.UDTSetRecvRTT(90);
        rig.m_recv.UDTEnableReGetPkg(FALSE);
        rig.m_recv.ClearRecvChn(7, MEAVMaxVideo);
        tagRecvInfo stInfo;
        rig.m_recv.GetRecvInfo(stInfo);
        EXPECT_EQ(stInfo.dwChnNum, 1u);
        EXPECT_EQ(rig.m_recv.GetRecvChnInfo(aInfo, 4), 1u);
        rig.Feed(AudioPacket(7, 1));
    };
    rig.Feed(KeyFrame(7, 1));
    rig.Turn();
    EXPECT_THAT(rig.m_listRawData(), SizeIs(1));
    rig.Turn();
    EXPECT_EQ(rig.Stream(7, MEAVMaxVideo), nullptr); // cleared a turn later
    EXPECT_NE(rig.Stream(7, MEAVAudio), nullptr);
}

TEST(CalledBack, ALogSinkMayStopTheReceiver)
{
    CRecvRig rig;
    rig.StartPlaying();
    LogSetSink(
        [](void* pCtx, UDT_LOG_LEVEL, const char*, const char*, int, const char*, const char* pText)
        {
            if (strstr(pText, "TimelineOut Init") != nullptr)
                static_cast<CRecvRig*>(pCtx)->m_recv.Stop();
        },
        &rig);
    rig.Feed(KeyFrame(7, 1));
    rig.Turn();
    LogSetSink(nullptr, nullptr);
    EXPECT_EQ(rig.m_bStop(), 1);
    EXPECT_THAT(rig.m_mapUinInPkt(), IsEmpty());
}

// ---- Owners that answer badly ------------------------------------------------------------------------------------------

TEST(BadOwner, WithoutCallbacksPacketsAreTakenPlayedAndDropped)
{
    const int nLiveBefore = CRigPacket::Live();
    CRecvRig rig(1000, false);
    rig.StartPlaying();
    for (uint32 dwSeq = 1; dwSeq <= 20; ++dwSeq)
    {
        EXPECT_EQ(rig.Feed(AudioPacket(7, dwSeq)), TRUE);
        EXPECT_EQ(rig.Feed(VideoPacket(7, dwSeq, 0, def_FrameType_I, 0, 0)), TRUE);
        EXPECT_EQ(rig.Feed(VideoPacket(8, dwSeq, 0, def_FrameType_I, 0, 0, 0, 1, MEAVPPTShare)), TRUE);
    }
    // Nobody parses the heads: all media times are 0, every packet is of an I frame, all is due at once.
    rig.TurnsUntil(1600);
    EXPECT_EQ(CRigPacket::Live(), nLiveBefore);
    rig.m_recv.Stop();
}

TEST(BadOwner, GarbageInTheHeadsBreaksNothing)
{
    const int nLiveBefore = CRigPacket::Live();
    {
        CRecvRig rig(0xFFFFFF00u);
        rig.StartPlaying();
        uint32 dwNoise = 12345;
        const auto noise = [&dwNoise] { return dwNoise = dwNoise * 1664525 + 1013904223; };
        for (int nTurn = 0; nTurn < 300; ++nTurn)
        {
            for (int i = 0; i < 8; ++i)
            {
                tagRigPacket stPacket;
                stPacket.ullUin = noise() >> 30;
                stPacket.cSubType = (uint8)((noise() >> 20) % 12);
                stPacket.dwSendSeq = noise() >> (noise() >> 27);
                stPacket.wTimeStamp = (uint16)(noise() >> 16);
                uint8* pHead = reinterpret_cast<uint8*>(&stPacket.stHead);
                for (size_t n = 0; n < sizeof(stPacket.stHead); ++n)
                    pHead[n] = (uint8)(noise() >> 24);
                stPacket.bNull = noise() >> 28 == 0;
                EXPECT_EQ(rig.Feed(stPacket), TRUE);
            }
            rig.m_owner.m_nPlayDelay = (int)noise();
            rig.Turn();
            rig.Advance(10);
        }
        rig.m_recv.Stop();
    }
    EXPECT_EQ(CRigPacket::Live(), nLiveBefore);
}

TEST(BadOwner, ANullPacketTravelsLikeAnyOther)
{
    CRecvRig rig;
    rig.StartPlaying();
    tagRigPacket stPacket = VideoPacket(7, 1, 5000, def_FrameType_P, 0, 0);
    stPacket.bNull = true;
    rig.Feed(stPacket);
    rig.Turn(); // its head is all zero: an I frame of media time 0, due at once
    ASSERT_THAT(rig.m_owner.m_vecReleases, SizeIs(1));
    EXPECT_TRUE(rig.m_owner.m_vecReleases[0].bNull);
}

TEST(BadOwner, OnesThatKeepAReferenceMayKeepThePacket)
{
    const int nLiveBefore = CRigPacket::Live();
    CScopePtr<UDTCodecBaseDecode_V2> pKept;
    struct CKeepingOwner : public CRigOwner
    {
        explicit CKeepingOwner(CScopePtr<UDTCodecBaseDecode_V2>& pKeptOut) : m_rKept(pKeptOut) {}
        void OnUDTRecvOutData(UDTCodecBaseDecode_V2* pPacket, int*) override { m_rKept = pPacket; }
        CScopePtr<UDTCodecBaseDecode_V2>& m_rKept;
    };
    {
        CKeepingOwner owner(pKept);
        CRecvRig rig;
        rig.m_pCB() = &owner;
        rig.StartPlaying();
        rig.Feed(KeyFrame(7, 1));
        rig.Turn();
        rig.m_recv.Stop();
    }
    ASSERT_NE(pKept.p, nullptr);
    EXPECT_EQ(pKept->iRefs, 1);
    EXPECT_EQ(CRigPacket::Live(), nLiveBefore + 1);
    pKept = nullptr;
    EXPECT_EQ(CRigPacket::Live(), nLiveBefore);
}
