// The periodic statistics step and the read-outs for the owner.

#include "RecvRig.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>

using testing::Each;
using testing::ElementsAre;

namespace
{

class StatStep : public testing::Test
{
protected:
    StatStep() : m_rig(10000) {}

    tagUinDataBuf& Stream(uint64 ullUin, uint8 cSubType)
    {
        return m_rig.m_mapUinInPkt()[tagInPktKey(ullUin, cSubType)];
    }
    void At(uint64 ullTick)
    {
        m_rig.ClockAt(ullTick);
        m_rig.CalcStatInfo();
    }

    CRecvRig m_rig;
    CLogRecorder m_log;
};

// ---- Calculation period -----------------------------------------------------------------------------------------

TEST_F(StatStep, StreamLossIsCalculatedOneMillisecondPastThePeriod)
{
    struct
    {
        uint32 dwTimer, dwSince;
        bool bCalculates;
    } const aRows[] = {{2000, 0, false}, {2000, 2000, false}, {2000, 2001, true}, {500, 500, false},
                       {500, 501, true}, {0, 0, false},       {0, 1, true}};
    for (const uint64 ullNow : {10000ull, 0x100000000ull + 100}) // and across the wrap
    {
        for (const auto& stRow : aRows)
        {
            m_rig.m_dwCalcTimer() = stRow.dwTimer;
            m_rig.m_dwLastCalcRecvLoss() = (uint32)ullNow - stRow.dwSince;
            m_rig.m_dwExpectRecvPkgNum() = 10;
            m_rig.m_dwTotalNum() = 0;
            At(ullNow);
            EXPECT_EQ(stRow.bCalculates ? 10u : 0u, m_rig.m_dwTotalNum())
                << stRow.dwTimer << " " << stRow.dwSince;
            EXPECT_EQ((uint32)ullNow - (stRow.bCalculates ? 0 : stRow.dwSince), m_rig.m_dwLastCalcRecvLoss());
        }
    }
}

TEST_F(StatStep, AReceiverThatWasNeverStartedCalculatesAtItsFirstStep)
{
    m_rig.m_dwExpectRecvPkgNum() = 10;
    At(10000);
    EXPECT_EQ(10u, m_rig.m_dwTotalNum());
}

TEST_F(StatStep, AStartBeginsThePeriod)
{
    m_rig.Start();
    m_rig.m_dwExpectRecvPkgNum() = 10;
    At(12000);
    EXPECT_EQ(0u, m_rig.m_dwTotalNum());
    At(12001);
    EXPECT_EQ(10u, m_rig.m_dwTotalNum());
}

TEST_F(StatStep, EachCalculationTakesOneDelaySamplePerStream)
{
    Stream(7, MEAVAudio).stStatInfo.dwCurCalcTLDelta = 300;
    Stream(7, MEAVMaxVideo).stStatInfo.dwCurCalcTLDelta = 0;
    m_rig.m_dwLastCalcRecvLoss() = 10000;
    At(12000); // none yet
    EXPECT_EQ(0u, Stream(7, MEAVAudio).stStatInfo.dwRealDelayAccCnt);
    At(12001);
    Stream(7, MEAVAudio).stStatInfo.dwCurCalcTLDelta = 500;
    At(14002);
    EXPECT_EQ(800u, Stream(7, MEAVAudio).stStatInfo.dwRealDelayAccNum);
    EXPECT_EQ(2u, Stream(7, MEAVAudio).stStatInfo.dwRealDelayAccCnt);
    EXPECT_EQ(0u, Stream(7, MEAVMaxVideo).stStatInfo.dwRealDelayAccNum);
    EXPECT_EQ(2u, Stream(7, MEAVMaxVideo).stStatInfo.dwRealDelayAccCnt);
}

// ---- Trace flags ----------------------------------------------------------------------------------------------------

TEST_F(StatStep, TraceFlagsOfStreamsAndUsersAreSetAgain2001MsApart)
{
    tagUinDataBuf& stAudio = Stream(7, MEAVAudio);
    tagUinDataBuf& stVideo = Stream(8, MEAVMaxVideo);
    tagUinDataInfo& stUser = m_rig.m_mapUinDataInfo()[7];
    const auto flags = [&] {
        return std::vector<uint32>{stAudio.dwLogPrintFlag, stVideo.dwLogPrintFlag, stUser.dwLogPrintFlag};
    };

    At(10000); // the first step arms
    EXPECT_EQ(10000u, m_rig.m_dwLogPrintTimer());
    EXPECT_THAT(flags(), Each(0u));
    At(12000);
    EXPECT_THAT(flags(), Each(0u));
    At(12001);
    EXPECT_THAT(flags(), Each(0xFFFFFFFF));
    EXPECT_EQ(12001u, m_rig.m_dwLogPrintTimer());
    EXPECT_EQ(0u, m_rig.m_LogPrintFlag()); // the receiver's own stays as it is

    stAudio.dwLogPrintFlag = 0; // taken by a trace
    At(14001);
    EXPECT_EQ(0u, stAudio.dwLogPrintFlag);
    At(14002);
    EXPECT_EQ(0xFFFFFFFF, stAudio.dwLogPrintFlag);
}

TEST_F(StatStep, TraceFlagsKeepTheirPaceAcrossTheWrapOfTheTick)
{
    m_rig.m_dwLogPrintTimer() = 0xFFFFFFFF - 999; // 1000 ms before the wrap
    At(0x100000000ull + 1000);
    EXPECT_EQ(0u, Stream(7, MEAVAudio).dwLogPrintFlag);
    At(0x100000000ull + 1001);
    EXPECT_EQ(0xFFFFFFFF, Stream(7, MEAVAudio).dwLogPrintFlag);
}

TEST_F(StatStep, FailedRequestsAreCheckedOnEveryStepAtItsTick)
{
    Stream(7, MEAVAudio).mapRequestSeq[11] = 1;
    At(10000);
    EXPECT_EQ(10000u, m_rig.m_dwLastCheckPkgRqFailTime());
    At(14001);
    EXPECT_EQ(1u, Stream(7, MEAVAudio).stStatInfo.dwTotalReqFailNum);
}

// ---- Read-outs ------------------------------------------------------------------------------------------------------

TEST(RecvInfo, AReceiverThatSawNothingTellsNoLossAndNoMinimum)
{
    CRecvRig rig;
    tagRecvInfo st;
    memset((void*)&st, 0x77, sizeof(st));
    rig.m_recv.GetRecvInfo(st);
    EXPECT_EQ(0u, st.dwChnNum);
    EXPECT_EQ(0u, st.dwMaxLossRate);
    EXPECT_EQ(0xFFFFFFFF, st.dwMinLossRate);
    EXPECT_EQ(0u, st.dwCurLossRate);
    EXPECT_EQ(0u, st.dwChnClearNum);
}

TEST(RecvInfo, EveryFigureComesFromItsOwnCounter)
{
    CRecvRig rig;
    rig.m_mapUinInPkt()[tagInPktKey(7, 1)];
    rig.m_mapUinInPkt()[tagInPktKey(7, 2)];
    rig.m_mapUinInPkt()[tagInPktKey(8, 6)];
    rig.m_dwMaxLossRate() = 11;
    rig.m_dwMinLossRate() = 12;
    rig.m_dwCurLossRate() = 13;
    rig.m_dwChnClearNum() = 14;
    tagRecvInfo st;
    rig.m_recv.GetRecvInfo(st);
    EXPECT_EQ(3u, st.dwChnNum);
    EXPECT_EQ(11u, st.dwMaxLossRate);
    EXPECT_EQ(12u, st.dwMinLossRate);
    EXPECT_EQ(13u, st.dwCurLossRate);
    EXPECT_EQ(14u, st.dwChnClearNum);
}

TEST(RecvChnInfo, EveryFigureComesFromItsOwnCounterAndTheBufferingFromTheStreamItself)
{
    CRecvRig rig;
    tagUinDataBuf& stStream = rig.m_mapUinInPkt()[tagInPktKey(0x100000007ull, 2)];
    tagUinBufStatInfo& stStat = stStream.stStatInfo;
    stStat.dwFirstIFrmRecvTime = 1;
    stStat.dwFrmNumBeforeFristFrm = 2;
    stStat.dwFirstFrmCanDec = 3;
    stStat.dwCanDecIFrmElpTime = 4;
    stStat.dwConfgMinDelay = 5;
    stStat.dwConfgMaxDelay = 6;
    stStat.dwRealMinDelay = 7;
    stStat.dwRealMaxDelay = 8;
    stStat.dwRealDelayAccNum = 100;
    stStat.dwRealDelayAccCnt = 7; // 14, cut
    stStat.dwCurCalcTLDelta = 9999;
    stStream.dwTimelineDelta = 10;
    stStat.dwSkipPkgNum = 11;
    stStat.dwStampErrCnt = 12;
    stStat.dwTotalRecvPkgNum = 13;
    stStat.dwTotalLossPkgNum = 15;
    stStat.dwTotalReqFailNum = 16;

    tagRecvChnStatInfo st;
    memset((void*)&st, 0x77, sizeof(st));
    ASSERT_EQ(1u, rig.m_recv.GetRecvChnInfo(&st, 1));
    EXPECT_EQ(0x100000007ull, st.llAccount);
    EXPECT_EQ(2u, st.dwSubType);
    const std::vector<uint32> vecGot = {
        st.dwFirstIFrmRecvTime, st.dwFrmNumBeforeFristFrm, st.dwFirstFrmCanDec, st.dwCanDecIFrmElpTime,
        st.dwConfgMinDelay,     st.dwConfgMaxDelay,        st.dwRealMinDelay,   st.dwRealMaxDelay,
        st.dwCurCalcTLDelta,    st.dwSkipPkgNum,           st.dwStampErrCnt,    st.dwTotalRecvPkgNum,
        st.dwRealDelayAvg,      st.dwTotalLossPkgNum,      st.dwTotalReqFailNum};
    EXPECT_THAT(vecGot, ElementsAre(1, 2, 3, 4, 5, 6, 7, 8, 10, 11, 12, 13, 14, 15, 16));
}

TEST(RecvChnInfo, AStreamWithoutSamplesHasAMeanDelayOf0)
{
    CRecvRig rig;
    rig.m_mapUinInPkt()[tagInPktKey(7, 1)].stStatInfo.dwRealDelayAccNum = 500;
    tagRecvChnStatInfo st;
    ASSERT_EQ(1u, rig.m_recv.GetRecvChnInfo(&st, 1));
    EXPECT_EQ(0u, st.dwRealDelayAvg);
    EXPECT_EQ(0xFFFFFFFF, st.dwRealMinDelay);
    EXPECT_EQ(0xFFFFFFFF, st.dwFirstFrmCanDec);
}

TEST(RecvChnInfo, ItFillsAsManyAsAreAskedForInKeyOrder)
{
    CRecvRig rig;
    for (const tagInPktKey& stKey : {tagInPktKey(9, 1), tagInPktKey(8, 7), tagInPktKey(8, 2),
                                     tagInPktKey(0xFFFFFFFFFFFFFFFFull, 1), tagInPktKey(7, 2)})
        rig.m_mapUinInPkt()[stKey];
    for (uint32 dwNum = 0; dwNum <= 6; ++dwNum)
    {
        tagRecvChnStatInfo aInfo[6];
        for (tagRecvChnStatInfo& st : aInfo)
            st.dwSubType = 99;
        const uint32 dwFilled = std::min<uint32>(dwNum, 5);
        EXPECT_EQ(dwFilled, rig.m_recv.GetRecvChnInfo(aInfo, dwNum));
        const uint64 aUin[] = {7, 8, 8, 9, 0xFFFFFFFFFFFFFFFFull};
        const uint32 aSubType[] = {2, 2, 7, 1, 1};
        for (uint32 i = 0; i < 6; ++i)
        {
            EXPECT_EQ(i < dwFilled ? aSubType[i] : 99u, aInfo[i].dwSubType) << dwNum << " " << i;
            EXPECT_EQ(i < dwFilled ? aUin[i] : 0u, aInfo[i].llAccount) << dwNum << " " << i;
        }
    }
}

TEST(RecvChnInfo, NoArrayNoStreamsOrNoRoomFillNothing)
{
    CRecvRig rig;
    tagRecvChnStatInfo st;
    st.dwSubType = 99;
    EXPECT_EQ(0u, rig.m_recv.GetRecvChnInfo(&st, 5));
    rig.m_mapUinInPkt()[tagInPktKey(7, 1)];
    EXPECT_EQ(0u, rig.m_recv.GetRecvChnInfo(nullptr, 5));
    EXPECT_EQ(0u, rig.m_recv.GetRecvChnInfo(&st, 0));
    EXPECT_EQ(99u, st.dwSubType);
}

} // namespace
