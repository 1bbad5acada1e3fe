// From the network thread into the intake list, and from there to the worker in one swap.

#include "RecvTest.h"

#include <string>
#include <vector>

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::SizeIs;

namespace
{

// The unwrapped time stands in the trace line alone, behind "dataTS".
uint32 UnwrappedOf(const CLogRecorder& log)
{
    const std::string strLine = log.Lines().back().strText;
    const size_t nAt = strLine.find("dataTS ");
    return nAt != std::string::npos ? (uint32)std::stoul(strLine.substr(nAt + 7)) : 0;
}

struct tagUnwrapStep
{
    uint16 wStamp;
    uint32 dwWant;
    uint32 dwBase;
    int nSwitch;
};

void CheckUnwrap(std::initializer_list<tagUnwrapStep> lstSteps)
{
    CRecvRig rig;
    rig.Start();
    CLogRecorder log;
    uint32 dwSeq = 0;
    for (const tagUnwrapStep& stStep : lstSteps)
    {
        rig.Feed(AudioPacket(7, ++dwSeq).Stamp(stStep.wStamp));
        const tagPkgRingParam& stRing = rig.m_mapUinPkgRingParam()[tagInPktKey(7, MEAVAudio)];
        EXPECT_EQ(UnwrappedOf(log), stStep.dwWant) << "step " << dwSeq;
        EXPECT_EQ(stRing.dwTimeStampBase, stStep.dwBase) << "step " << dwSeq;
        EXPECT_EQ(stRing.bSwitch, stStep.nSwitch) << "step " << dwSeq;
        EXPECT_EQ(stRing.wTimeStampLast, stStep.wStamp) << "step " << dwSeq;
    }
}

} // namespace

// ---- The 16-bit transport time -----------------------------------------------------------------------------------------------

TEST(Unwrap, AWrapRaisesTheBaseLatePacketsStillCountBeforeItAndTheMiddleEndsIt)
{
    CheckUnwrap({{65000, 65000, 0, 0},
                 {65500, 65500, 0, 0},
                 {100, 65636, 65536, 1},
                 {65400, 65400, 65536, 1}, // late, against the old base
                 {200, 65736, 65536, 1},
                 {20000, 85536, 65536, 0},
                 {65400, 130936, 65536, 0},
                 {0, 131072, 131072, 1}});
}

TEST(Unwrap, AWrapIsAFallFrom50001OrMoreToBelow10000)
{
    CheckUnwrap({{50001, 50001, 0, 0}, {9999, 75535, 65536, 1}});
    CheckUnwrap({{50000, 50000, 0, 0}, {9999, 9999, 0, 0}});
    CheckUnwrap({{50001, 50001, 0, 0}, {10000, 10000, 0, 0}});
    CheckUnwrap({{40000, 40000, 0, 0}, {100, 100, 0, 0}});
    CheckUnwrap({{65535, 65535, 0, 0}, {0, 65536, 65536, 1}});
    CheckUnwrap({{100, 100, 0, 0}}); // a fresh stream has not wrapped
}

TEST(Unwrap, TheLastTimeCountsEvenWhenItCameLate)
{
    // 30000 in between: the fall to 100 is then no wrap, although 60000 was seen before.
    CheckUnwrap({{60000, 60000, 0, 0}, {30000, 30000, 0, 0}, {100, 100, 0, 0}});
}

TEST(Unwrap, TheEdgesOfTheMiddleWhileAWrapIsFresh)
{
    CheckUnwrap(
        {{60000, 60000, 0, 0}, {5, 65541, 65536, 1}, {10000, 75536, 65536, 1}, {10001, 75537, 65536, 0}});
    CheckUnwrap(
        {{60000, 60000, 0, 0}, {5, 65541, 65536, 1}, {50000, 115536, 65536, 1}, {49999, 115535, 65536, 0}});
    CheckUnwrap(
        {{60000, 60000, 0, 0}, {5, 65541, 65536, 1}, {50001, 50001, 65536, 1}, {65535, 65535, 65536, 1}});
}

TEST(Unwrap, WhileAWrapIsFreshASecondOneIsNotSeen)
{
    CheckUnwrap({{60000, 60000, 0, 0}, {5, 65541, 65536, 1}, {65530, 65530, 65536, 1}, {6, 65542, 65536, 1}});
}

TEST(Unwrap, SumsWrapAt32Bits)
{
    CRecvRig rig;
    rig.Start();
    tagPkgRingParam& stRing = rig.m_mapUinPkgRingParam()[tagInPktKey(7, MEAVAudio)];
    stRing.dwTimeStampBase = 0xFFFF0000;
    stRing.wTimeStampLast = 60000;
    CLogRecorder log;
    rig.Feed(AudioPacket(7, 1).Stamp(5));
    EXPECT_EQ(stRing.dwTimeStampBase, 0u);
    EXPECT_EQ(UnwrappedOf(log), 5u);
    rig.Feed(AudioPacket(7, 2).Stamp(65535)); // from before the wrap of the base
    EXPECT_EQ(UnwrappedOf(log), 0xFFFFFFFFu);
}

TEST(Unwrap, EveryStreamHasItsOwnState)
{
    CRecvRig rig;
    rig.Start();
    rig.Feed(AudioPacket(7, 1).Stamp(60000));
    rig.Feed(VideoPacket(7, 1, 0, def_FrameType_I, 0, 0).Stamp(5));
    rig.Feed(AudioPacket(7, 2).Stamp(5));
    rig.Feed(AudioPacket(8, 1).Stamp(6));
    EXPECT_THAT(rig.m_mapUinPkgRingParam(), SizeIs(3));
    EXPECT_EQ(rig.m_mapUinPkgRingParam()[tagInPktKey(7, MEAVAudio)].dwTimeStampBase, 65536u);
    EXPECT_EQ(rig.m_mapUinPkgRingParam()[tagInPktKey(7, MEAVMaxVideo)].dwTimeStampBase, 0u);
    EXPECT_EQ(rig.m_mapUinPkgRingParam()[tagInPktKey(8, MEAVAudio)].wTimeStampLast, 6);
}

// ---- What is queued ----------------------------------------------------------------------------------------------------------

TEST(Intake, FillsThePacketFromItsArgumentsAndItsHead)
{
    CRecvRig rig(0x700001234ull);
    rig.Start();
    tagRigPacket stPacket = VideoPacket(0xFFFFFFFFFFFFull, 41, 987654321, def_FrameType_GF, 5, 6, 3, 9);
    stPacket.stHead.cHeadLen = 77;
    stPacket.Fec(4).Down(42).Stamp(1000);
    EXPECT_EQ(rig.Feed(stPacket), TRUE);

    ASSERT_THAT(rig.m_listRawData(), SizeIs(1));
    const tagDataPacket& st = rig.m_listRawData().front();
    EXPECT_EQ(st.dwSenderSeq, 41u);
    EXPECT_EQ(st.dwTimeStamp, 987654321u);
    EXPECT_EQ(st.dwMETimeStamp, 987654321u); // the head's time again, not the unwrapped one
    EXPECT_EQ(st.llAccount, 0xFFFFFFFFFFFFull);
    EXPECT_EQ(st.dwSeq, 42u);
    EXPECT_EQ(st.dwRecvTime, 0x1234u);
    EXPECT_EQ(st.cSubType, MEAVMaxVideo);
    EXPECT_EQ(st.cFrmType, def_FrameType_GF);
    EXPECT_EQ(st.cGopIdx, 5);
    EXPECT_EQ(st.cFrmIdx, 6);
    EXPECT_EQ(st.cPkgIndex, 3);
    EXPECT_EQ(st.cPkgNum, 9);
    EXPECT_EQ(st.cFecNum, 4);
    ASSERT_NE(st.pRawData.p, nullptr);
    EXPECT_EQ(st.pRawData->iRefs, 1); // the feeder's own reference is gone
    EXPECT_THAT(
        (std::vector<uint32>{st.cPrePkgLost, st.cIsFrmLastPkg, st.cFrmLostNum, st.cIsCalcLost,
                             st.cIsOutOfOrderSeq, st.wVidPkgIdxLeft, st.wLostReqCnt, st.dwLastReqLostTime}),
        ::testing::Each(0u));
}

TEST(Intake, FilesUnderTheArgumentsSubTypeWhateverTheHeadSays)
{
    CRecvRig rig;
    rig.Start();
    tagRigPacket stPacket = AudioPacket(7, 1);
    stPacket.stHead.cSubType = MEAVMaxVideo;
    rig.Feed(stPacket);
    EXPECT_EQ(rig.m_listRawData().front().cSubType, MEAVAudio);
    EXPECT_EQ(rig.m_mapUinPkgRingParam().count(tagInPktKey(7, MEAVAudio)), 1u);
}

TEST(Intake, TheOwnerParsesOnceIntoAZeroedHead)
{
    struct CLookingOwner : public CRigOwner
    {
        int UdtParsePacketHeadInfo(uint8* pBuf, UdtPacketHeadInfo& stHead) override
        {
            ++m_nParsed;
            m_pBuf = pBuf;
            const uint8* pHead = reinterpret_cast<const uint8*>(&stHead);
            for (size_t i = 0; i < sizeof(stHead); ++i)
                EXPECT_EQ(pHead[i], 0);
            return -1;
        }
        int m_nParsed = 0;
        const uint8* m_pBuf = nullptr;
    };
    CLookingOwner owner;
    CRecvRig rig;
    rig.m_pCB() = &owner;
    rig.Start();
    CScopePtr<UDTCodecBaseDecode_V2> pPacket(new CRigPacket(AudioPacket(7, 1)));
    rig.m_recv.UDTReceiveNetData(1, 7, 1, 0, MEAVAudio, pPacket);
    EXPECT_EQ(owner.m_nParsed, 1);
    EXPECT_EQ(owner.m_pBuf, pPacket->bufBody.pbuf);
    // A head that the owner leaves alone stays zero.
    const tagDataPacket& st = rig.m_listRawData().front();
    EXPECT_EQ(st.cFrmType, 0);
    EXPECT_EQ(st.cFrmIdx, 0);
    EXPECT_EQ(st.dwTimeStamp, 0u);
}

TEST(Intake, ANullPacketIsQueuedWithAnEmptyReferenceAndIsNotParsed)
{
    CRecvRig rig;
    rig.Start();
    int nParsed = 0;
    rig.m_owner.m_fnOnParse = [&nParsed] { ++nParsed; };
    tagRigPacket stPacket = AudioPacket(7, 9);
    stPacket.bNull = true;
    EXPECT_EQ(rig.Feed(stPacket), TRUE);
    EXPECT_EQ(nParsed, 0);
    ASSERT_THAT(rig.m_listRawData(), SizeIs(1));
    const tagDataPacket& st = rig.m_listRawData().front();
    EXPECT_EQ(st.pRawData.p, nullptr);
    EXPECT_EQ(st.dwSenderSeq, 9u);
    EXPECT_EQ(st.cFrmType, 0);
    EXPECT_EQ(st.cFrmIdx, 0);
    EXPECT_EQ(st.dwTimeStamp, 0u);
    EXPECT_EQ(rig.m_dwPacketRecvCnt(), 0u); // not counted for the downlink
}

TEST(Intake, AStoppedReceiverDropsEverythingUnseen)
{
    const int nLiveBefore = CRigPacket::Live();
    CRecvRig rig;
    int nParsed = 0;
    rig.m_owner.m_fnOnParse = [&nParsed] { ++nParsed; };
    CLogRecorder log;
    EXPECT_EQ(rig.Feed(AudioPacket(7, 1)), TRUE); // never started
    EXPECT_THAT(LinesOf(log), IsEmpty());
    rig.Start();
    rig.m_recv.Stop();
    log.Forget();
    EXPECT_EQ(rig.Feed(AudioPacket(7, 1)), TRUE);
    EXPECT_THAT(LinesOf(log), IsEmpty());
    EXPECT_THAT(rig.m_listRawData(), IsEmpty());
    EXPECT_THAT(rig.m_mapUinPkgRingParam(), IsEmpty());
    EXPECT_EQ(nParsed, 0);
    EXPECT_EQ(CRigPacket::Live(), nLiveBefore);
}

TEST(Intake, TheTraceTellsEverythingAboutThePacket)
{
    CRecvRig rig;
    rig.Start();
    tagPkgRingParam& stRing = rig.m_mapUinPkgRingParam()[tagInPktKey(123456789012345ull, MEAVMaxVideo)];
    stRing.wTimeStampLast = 60000;
    tagRigPacket stPacket = VideoPacket(123456789012345ull, 7, 4000000000u, def_FrameType_P, 250, 4, 2, 12)
                                .Fec(3)
                                .Down(9)
                                .Stamp(17);
    stPacket.stHead.cSubType = MEAVSubVideo;
    CLogRecorder log;
    rig.Feed(stPacket);
    EXPECT_THAT(LinesOf(log), ElementsAre(DebugLine(
                                  "UDTReceiveNetData",
                                  "ReceiveNetData: SubType 2 7 seq     7     9 FT 1 PkgIdx  2 TotalPkgCnt 12 "
                                  "fecN  3 FrmIdx  4 GopIdx 250 dataTS 65553    17 METS 4000000000 tsBase "
                                  "65536 tsSwitch 1 Uin 123456789012345")));
}

TEST(Intake, TheTracePrintsLargeSequencesSigned)
{
    CRecvRig rig;
    rig.Start();
    CLogRecorder log;
    rig.Feed(AudioPacket(7, 0xFFFFFFFE).Down(0x80000000).At(5).Stamp(65535));
    EXPECT_EQ(
        log.Lines().back().strText,
        "ReceiveNetData: SubType 1 1 seq    -2 -2147483648 FT 1 PkgIdx  0 TotalPkgCnt  1 fecN  0 FrmIdx  0 "
        "GopIdx  0 dataTS 65535 65535 METS     5 tsBase 0 tsSwitch 0 Uin 7");
}

// ---- The hand-over -------------------------------------------------------------------------------------------------------------

TEST(HandOver, AllPacketsQueuedBetweenTwoTurnsAreHandledInArrivalOrder)
{
    CRecvRig rig;
    rig.Start();
    rig.m_LogPrintFlag() = 1; // a receive trace per packet
    CLogRecorder log(LOG_LEVEL_ERROR);
    rig.FeedAll({AudioPacket(7, 3), AudioPacket(9, 1), AudioPacket(7, 1), AudioPacket(7, 3)});
    EXPECT_THAT(rig.m_listRawData(), SizeIs(4));
    rig.Deliver();
    EXPECT_THAT(rig.m_listRawData(), IsEmpty());
    std::vector<std::string> vecSeq;
    for (const std::string& strText : log.Texts("OnDataHandleNew"))
        vecSeq.push_back(strText.substr(strText.find("seq"), 9));
    EXPECT_THAT(vecSeq, ElementsAre("seq     3", "seq     1", "seq     1", "seq     3"));
    EXPECT_EQ(rig.Stream(7, MEAVAudio)->stStatInfo.dwTotalRecvPkgNum, 3u);
}

TEST(HandOver, PacketsThatStayAreHeldOnceTheOthersAreLetGo)
{
    const int nLiveBefore = CRigPacket::Live();
    CRecvRig rig;
    rig.Start();
    rig.FeedAll({AudioPacket(7, 1), AudioPacket(7, 1), AudioPacket(7, 2)});
    EXPECT_EQ(CRigPacket::Live(), nLiveBefore + 3);
    rig.Deliver();
    EXPECT_EQ(CRigPacket::Live(), nLiveBefore + 2); // the duplicate is gone
    EXPECT_EQ(rig.Buffered(7, MEAVAudio, 1)->pRawData->iRefs, 1);
}

TEST(HandOver, ADeltaToldBeforeTheTurnReachesTheStreamsThatExistAndTheNewOnesAlike)
{
    CRecvRig rig;
    rig.Start();
    rig.Feed(AudioPacket(7, 1));
    rig.Deliver();
    EXPECT_EQ(rig.Stream(7, MEAVAudio)->dwConfigTimelineDelta, 1000u);
    tagUDTRecvParams stParams;
    stParams.wTimelineDelta = 1700;
    rig.m_recv.UDTSetRecvParams(stParams);
    rig.Feed(AudioPacket(8, 1));
    rig.Deliver();
    EXPECT_EQ(rig.Stream(7, MEAVAudio)->dwConfigTimelineDelta, 1700u);
    EXPECT_EQ(rig.Stream(8, MEAVAudio)->dwConfigTimelineDelta, 1700u);
}
