// The gate that holds a new stream back until an I frame, its pair, or half a second.

#include "RecvTest.h"

#include <vector>

using ::testing::ElementsAre;
using ::testing::IsEmpty;

namespace
{

// A stream with one buffered packet that came first at tick 1000.
tagUinDataBuf& Waiting(CRecvRig& rig, uint8 cSubType, uint8 cFrmType, uint32 dwFirstTick = 1000)
{
    rig.Put(VideoPacket(7, 1, 5000, cFrmType, 0, 0, 0, 1, cSubType));
    tagUinDataBuf& stStream = *rig.Stream(7, cSubType);
    stStream.dwRecvFirstPkgTime = dwFirstTick;
    return stStream;
}

} // namespace

TEST(Gate, HoldsAStreamFor500MillisecondsAndOpensAfterOneMore)
{
    for (const uint8 cSubType : {MEAVAudio, MEAVMaxVideo, MEAVMinVideo, MEAVPPTShare})
    {
        CRecvRig rig(1000);
        tagUinDataBuf& st = Waiting(rig, cSubType, P);
        st.dwVidGopCnt = 3;
        CLogRecorder log;
        EXPECT_EQ(rig.OutPutDelay(st), 1u);
        rig.ClockAt(1500);
        EXPECT_EQ(rig.OutPutDelay(st), 1u);
        EXPECT_EQ(st.dwOutPutDelayFlag, 0u);
        EXPECT_EQ(st.dwRecvIFlag, 0u);
        EXPECT_THAT(LinesOf(log), IsEmpty());
        rig.ClockAt(1501);
        EXPECT_EQ(rig.OutPutDelay(st), 0u);
        EXPECT_EQ(st.dwOutPutDelayFlag, 1u);
        EXPECT_EQ(st.dwRecvIFlag, 1u);
        EXPECT_THAT(
            LinesOf(log),
            ElementsAre(ErrorLine("OutPutDelay", "Chn waiting for output is done, DelayTime 501 GopCnt 3")));
    }
}

TEST(Gate, AnIFrameInFrontOpensItAtOnceForItselfAndItsAudio)
{
    for (const uint8 cSubType : {MEAVMaxVideo, MEAVSubVideo})
    {
        CRecvRig rig(1000);
        tagUinDataBuf& stAudio = Waiting(rig, MEAVAudio, P);
        tagUinDataBuf& stVideo = Waiting(rig, cSubType, I);
        CLogRecorder log;
        EXPECT_EQ(rig.OutPutDelay(stVideo), 0u);
        EXPECT_EQ(stVideo.dwOutPutDelayFlag, 1u);
        EXPECT_EQ(stVideo.dwRecvIFlag, 1u);
        EXPECT_EQ(stAudio.dwOutPutDelayFlag, 1u);
        EXPECT_EQ(stAudio.dwRecvIFlag, 1u);
        EXPECT_EQ(log.First("Chn waiting"), "Chn waiting for output is done, DelayTime 0 GopCnt 0");
    }
}

TEST(Gate, AnIFrameOfAnUnpairedSubTypeOpensItsOwnAlone)
{
    for (const uint8 cSubType : {MEAVMinVideo, MEAVPPTShare})
    {
        CRecvRig rig(1000);
        tagUinDataBuf& stAudio = Waiting(rig, MEAVAudio, P);
        tagUinDataBuf& stVideo = Waiting(rig, cSubType, I);
        EXPECT_EQ(rig.OutPutDelay(stVideo), 0u);
        EXPECT_EQ(stAudio.dwOutPutDelayFlag, 0u);
        EXPECT_EQ(stAudio.dwRecvIFlag, 0u);
    }
}

TEST(Gate, LooksAtTheFirstBufferedPacketAlone)
{
    CRecvRig rig(1000);
    tagUinDataBuf& st = Waiting(rig, MEAVMaxVideo, P);
    rig.Put(VideoPacket(7, 2, 5000, I, 0, 0));
    EXPECT_EQ(rig.OutPutDelay(st), 1u);
    st.mapUdtPacket.erase(1);
    EXPECT_EQ(rig.OutPutDelay(st), 0u);
}

TEST(Gate, AnAudioPacketOfTypeIOpensNothing)
{
    CRecvRig rig(1000);
    tagUinDataBuf& st = Waiting(rig, MEAVAudio, I);
    EXPECT_EQ(rig.OutPutDelay(st), 1u);
}

TEST(Gate, AudioOpensBehindItsVideo)
{
    CRecvRig rig(1000);
    tagUinDataBuf& stAudio = Waiting(rig, MEAVAudio, P);
    tagUinDataBuf& stVideo = Waiting(rig, MEAVMaxVideo, P);
    EXPECT_EQ(rig.OutPutDelay(stAudio), 1u);
    stVideo.dwRecvIFlag = 1; // not what counts
    EXPECT_EQ(rig.OutPutDelay(stAudio), 1u);
    stVideo.dwOutPutDelayFlag = 1;
    EXPECT_EQ(rig.OutPutDelay(stAudio), 0u);
    EXPECT_EQ(stAudio.dwRecvIFlag, 1u);
}

TEST(Gate, AudioDoesNotLookAtSubVideoWhileThereIsBigVideo)
{
    CRecvRig rig(1000);
    tagUinDataBuf& stAudio = Waiting(rig, MEAVAudio, P);
    Waiting(rig, MEAVMaxVideo, P);
    Waiting(rig, MEAVSubVideo, P).dwOutPutDelayFlag = 1;
    EXPECT_EQ(rig.OutPutDelay(stAudio), 1u);
}

TEST(Gate, WithoutAFirstTickItWaitsForAFlagOnly)
{
    CRecvRig rig(90000);
    tagUinDataBuf& st = Waiting(rig, MEAVMaxVideo, I, 0); // not even the I frame is looked at
    EXPECT_EQ(rig.OutPutDelay(st), 1u);
    st.dwRecvIFlag = 2; // exactly 1 opens
    EXPECT_EQ(rig.OutPutDelay(st), 1u);
    st.dwRecvIFlag = 1;
    CLogRecorder log;
    EXPECT_EQ(rig.OutPutDelay(st), 0u);
    EXPECT_EQ(log.First("Chn"), "Chn waiting for output is done, DelayTime 0 GopCnt 0");
}

TEST(Gate, AnEmptyStreamOpensByTimeToo)
{
    CRecvRig rig(1000);
    tagUinDataBuf& st = Waiting(rig, MEAVMaxVideo, P);
    st.mapUdtPacket.clear();
    EXPECT_EQ(rig.OutPutDelay(st), 1u);
    rig.ClockAt(1501);
    EXPECT_EQ(rig.OutPutDelay(st), 0u);
}

TEST(Gate, AWrappedTickHoldsOnceMoreAndLeavesItOpen)
{
    CRecvRig rig(0x100000005ull);
    tagUinDataBuf& st = Waiting(rig, MEAVMaxVideo, P, 0xFFFFFFFE);
    CLogRecorder log;
    EXPECT_EQ(rig.OutPutDelay(st), 1u);
    EXPECT_EQ(st.dwOutPutDelayFlag, 1u);
    EXPECT_EQ(st.dwRecvIFlag, 0u);
    EXPECT_THAT(LinesOf(log),
                ElementsAre(ErrorLine("OutPutDelay",
                                      "OutPutDelay, tick overturn happened! tick 5 dwRecvFirstPkgTime -2")));
    // The flag is what output asks first, so the gate is not asked again.
    rig.m_dwRoomLogicState() = 3;
    EXPECT_EQ(rig.OutPacketVideoNew(st), 1u);
    EXPECT_EQ(log.Count("tick overturn"), 1u);
}

TEST(Gate, AWrappedTickWithAnIFrameOpensAtOnce)
{
    CRecvRig rig(0x100000005ull);
    tagUinDataBuf& st = Waiting(rig, MEAVMaxVideo, I, 0xFFFFFFFE);
    CLogRecorder log;
    EXPECT_EQ(rig.OutPutDelay(st), 0u);
    EXPECT_EQ(log.Count("tick overturn"), 1u);
    EXPECT_EQ(log.Count("DelayTime 0 "), 1u);
}

TEST(Gate, ALongWaitIsToldWithItsLength)
{
    CRecvRig rig(0xFFFFFFFF);
    tagUinDataBuf& st = Waiting(rig, MEAVMaxVideo, P, 1);
    CLogRecorder log;
    EXPECT_EQ(rig.OutPutDelay(st), 0u);
    EXPECT_EQ(log.First("Chn"), "Chn waiting for output is done, DelayTime -2 GopCnt 0"); // printed signed
}

TEST(Gate, OnAPlayingRoomAPStreamBeginsHalfASecondAfterItsFirstPacket)
{
    //   1000            1500     1510
    //   first packet    held     out
    CRecvRig rig(1000);
    rig.StartPlaying();
    rig.Feed(VideoPacket(7, 1, 5000, P, 0, 0, 0, 2));
    rig.TurnsUntil(1600);
    EXPECT_THAT(rig.m_owner.ReleaseTicks(7, MEAVMaxVideo), ElementsAre(1510));
}

TEST(Gate, AudioLeavesOneTurnAfterTheVideoThatOpensItsGate)
{
    // Audio is offered first, so an I frame opens its gate for the same user's next turn.
    CRecvRig rig(1000);
    rig.StartPlaying();
    rig.Feed(AudioPacket(7, 1).At(5000));
    rig.TurnsUntil(1100);
    rig.Feed(VideoPacket(7, 1, 5000, I, 0, 0));
    rig.TurnsUntil(1130);
    EXPECT_THAT(rig.m_owner.ReleaseTicks(7, MEAVMaxVideo), ElementsAre(1100));
    EXPECT_THAT(rig.m_owner.ReleaseTicks(7, MEAVAudio), ElementsAre(1110));
}
