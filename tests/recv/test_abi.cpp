// The binary interface: slots, bases, widths and offsets that an owner built elsewhere relies on.

#include "RecvTest.h"

#include "AVGUDTCodec.h"
#include "AVGUDTRecv.h"
#include "IUDT.h"
#include "IUDTInside.h"

#include <cstddef>
#include <cstring>
#include <new>
#include <string>
#include <type_traits>

using ::testing::ElementsAre;

namespace
{

// A receiver that only tells which operation was reached, on which object and with what.
class CTellingRecv : public CAVGUdtRecv
{
public:
    CTellingRecv() : CAVGUdtRecv(nullptr) {}

    void Run() override { Told("Run"); }
    void Stop() override { Told("Stop"); }
    void Start() override { Told("Start"); }
    void UDTSetRecvRTT(uint32 dwRTT) override { Told("UDTSetRecvRTT", dwRTT); }
    void UDTSetRecvParams(const tagUDTRecvParams& params) override
    {
        Told("UDTSetRecvParams", params.wPushGopNum);
    }
    void UDTCalcRecvLoss(uint32& dwLoss100, uint32& dwTotalNum, uint32& dwRealNum,
                         uint32& dwAvgLossMode) override
    {
        Told("UDTCalcRecvLoss");
        dwLoss100 = 1;
        dwTotalNum = 2;
        dwRealNum = 3;
        dwAvgLossMode = 4;
    }
    void GetDownPacketRecvInfo(uint32& dwExpectRecv, uint32& dwRealRecv, uint32& dwBytesRecv,
                               uint32& dwIFrmLostInfo) override
    {
        Told("GetDownPacketRecvInfo");
        dwExpectRecv = 5;
        dwRealRecv = 6;
        dwBytesRecv = 7;
        dwIFrmLostInfo = 8;
    }
    void UDTEnableReGetPkg(boolean bEnable) override { Told("UDTEnableReGetPkg", bEnable); }
    void SetRoomState(uint32 dwRoomState) override { Told("SetRoomState", dwRoomState); }
    boolean UDTReceiveNetData(uint32 dwSendSeq, uint64 llAccount, uint32 dwSeq, WORD wTimeStamp,
                              uint8 cSubType, UDTCodecBaseDecode_V2* pData) override
    {
        Told("UDTReceiveNetData", dwSendSeq + llAccount + dwSeq + wTimeStamp + cSubType);
        m_pData = pData;
        return 0x5A;
    }
    void ClearRecvChn(uint64 llAccount, uint32 dwIsClearAll) override
    {
        Told("ClearRecvChn", llAccount + dwIsClearAll);
    }
    void GetRecvInfo(tagRecvInfo& stRecvInfo) override
    {
        Told("GetRecvInfo");
        stRecvInfo.dwChnNum = 9;
    }
    uint32 GetRecvChnInfo(tagRecvChnStatInfo*, uint32 dwNum) override
    {
        Told("GetRecvChnInfo", dwNum);
        return dwNum + 1;
    }

    std::string m_strTold;
    uint64 m_ullArgument = 0;
    const UDTCodecBaseDecode_V2* m_pData = nullptr;
    const void* m_pThis = nullptr;

private:
    void Told(const char* pszWhat, uint64 ullArgument = 0)
    {
        m_strTold = pszWhat;
        m_ullArgument = ullArgument;
        m_pThis = this;
    }
};

// Calls what lies in a slot of an object's virtual table, as foreign code does that knows numbers, not names.
// References travel as pointers.
template <class R, class... Args>
R CallSlot(void* pObject, size_t nSlot, Args... args)
{
    typedef R (*PFN_Slot)(void*, Args...);
    void** pTable = *static_cast<void***>(pObject);
    return reinterpret_cast<PFN_Slot>(pTable[nSlot])(pObject, args...);
}

// Runs all twelve operations by their slots and checks which one was reached.
void CheckSlots(CTellingRecv& recv, void* pObject, std::initializer_list<size_t> lstSlots)
{
    const size_t* pSlot = lstSlots.begin();
    const auto expectTold = [&recv](const char* pszWhat, uint64 ullArgument)
    {
        EXPECT_EQ(recv.m_strTold, pszWhat);
        EXPECT_EQ(recv.m_ullArgument, ullArgument) << pszWhat;
        EXPECT_EQ(recv.m_pThis, &recv) << pszWhat;
    };
    CallSlot<void>(pObject, *pSlot++);
    expectTold("Stop", 0);
    CallSlot<void>(pObject, *pSlot++);
    expectTold("Start", 0);
    CallSlot<void, uint32>(pObject, *pSlot++, 77);
    expectTold("UDTSetRecvRTT", 77);
    tagUDTRecvParams stParams;
    stParams.wPushGopNum = 11;
    CallSlot<void, const tagUDTRecvParams*>(pObject, *pSlot++, &stParams);
    expectTold("UDTSetRecvParams", 11);
    uint32 dw[4] = {};
    CallSlot<void>(pObject, *pSlot++, dw, dw + 1, dw + 2, dw + 3);
    expectTold("UDTCalcRecvLoss", 0);
    EXPECT_THAT(dw, ElementsAre(1, 2, 3, 4));
    CallSlot<void>(pObject, *pSlot++, dw, dw + 1, dw + 2, dw + 3);
    expectTold("GetDownPacketRecvInfo", 0);
    EXPECT_THAT(dw, ElementsAre(5, 6, 7, 8));
    CallSlot<void, boolean>(pObject, *pSlot++, 200);
    expectTold("UDTEnableReGetPkg", 200);
    CallSlot<void, uint32>(pObject, *pSlot++, 0xFFFFFFFF);
    expectTold("SetRoomState", 0xFFFFFFFF);
    UDTCodecBaseDecode_V2 packet;
    EXPECT_EQ((CallSlot<boolean, uint32, uint64, uint32, WORD, uint8, UDTCodecBaseDecode_V2*>(
                  pObject, *pSlot++, 1, 0x123456789000ull, 10, 100, 200, &packet)),
              0x5A);
    expectTold("UDTReceiveNetData", 0x123456789000ull + 311);
    EXPECT_EQ(recv.m_pData, &packet);
    CallSlot<void, uint64, uint32>(pObject, *pSlot++, 0xABCDEF0123ull, 0xFF);
    expectTold("ClearRecvChn", 0xABCDEF0123ull + 0xFF);
    tagRecvInfo stInfo;
    CallSlot<void, tagRecvInfo*>(pObject, *pSlot++, &stInfo);
    expectTold("GetRecvInfo", 0);
    EXPECT_EQ(stInfo.dwChnNum, 9u);
    EXPECT_EQ((CallSlot<uint32, tagRecvChnStatInfo*, uint32>(pObject, *pSlot++, nullptr, 41)), 42u);
    expectTold("GetRecvChnInfo", 41);
    EXPECT_EQ(pSlot, lstSlots.end());
}

#if defined(__x86_64__)
// Where the Itanium ABI keeps it: the pointer to a virtual member is its table offset plus one.
template <class PMF>
size_t SlotOf(PMF pMember)
{
    size_t aWords[2];
    static_assert(sizeof(pMember) == sizeof(aWords), "a pointer and an adjustment");
    memcpy(aWords, &pMember, sizeof(aWords));
    EXPECT_EQ(aWords[0] % sizeof(void*), 1u) << "not virtual";
    return (aWords[0] - 1) / sizeof(void*);
}
#endif

} // namespace

// ---- Slots -----------------------------------------------------------------------------------------------------

TEST(Abi, EverySlotOfTheInterfaceReachesItsOperationOnTheWholeObject)
{
    CTellingRecv recv;
    IUDTRecv* pInterface = &recv;
    CheckSlots(recv, pInterface, {0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11});
}

TEST(Abi, EverySlotOfTheReceiversOwnTableReachesItsOperation)
{
    // destructor, deleting destructor, Run, UDTReceiveNetData, Stop, Start, UDTSetRecvParams, UDTSetRecvRTT,
    // UDTCalcRecvLoss, UDTEnableReGetPkg, ClearRecvChn, SetRoomState, GetDownPacketRecvInfo, GetRecvInfo,
    // GetRecvChnInfo
    CTellingRecv recv;
    CheckSlots(recv, &recv, {4, 5, 7, 6, 8, 12, 9, 11, 3, 10, 13, 14});
    CallSlot<void>(&recv, 2);
    EXPECT_EQ(recv.m_strTold, "Run");
}

TEST(Abi, TheFirstTwoSlotsOfTheReceiversTableDestroyAndDelete)
{
    bool bGone = false;
    struct CGoingRecv : public CAVGUdtRecv
    {
        explicit CGoingRecv(bool& bGoneOut) : CAVGUdtRecv(nullptr), m_rGone(bGoneOut) {}
        ~CGoingRecv() override { m_rGone = true; }
        bool& m_rGone;
    };
    alignas(CGoingRecv) unsigned char aRoom[sizeof(CGoingRecv)];
    CallSlot<void>(new (aRoom) CGoingRecv(bGone), 0);
    EXPECT_TRUE(bGone);

    bGone = false;
    CallSlot<void>(new CGoingRecv(bGone), 1); // a leak checker tells whether it was deleted
    EXPECT_TRUE(bGone);
}

TEST(Abi, TheSamePlacesByTheCompilersOwnAccount)
{
#if defined(__x86_64__)
    EXPECT_EQ(SlotOf(&IUDTRecv::Stop), 0u);
    EXPECT_EQ(SlotOf(&IUDTRecv::Start), 1u);
    EXPECT_EQ(SlotOf(&IUDTRecv::UDTSetRecvRTT), 2u);
    EXPECT_EQ(SlotOf(&IUDTRecv::UDTSetRecvParams), 3u);
    EXPECT_EQ(SlotOf(&IUDTRecv::UDTCalcRecvLoss), 4u);
    EXPECT_EQ(SlotOf(&IUDTRecv::GetDownPacketRecvInfo), 5u);
    EXPECT_EQ(SlotOf(&IUDTRecv::UDTEnableReGetPkg), 6u);
    EXPECT_EQ(SlotOf(&IUDTRecv::SetRoomState), 7u);
    EXPECT_EQ(SlotOf(&IUDTRecv::UDTReceiveNetData), 8u);
    EXPECT_EQ(SlotOf(&IUDTRecv::ClearRecvChn), 9u);
    EXPECT_EQ(SlotOf(&IUDTRecv::GetRecvInfo), 10u);
    EXPECT_EQ(SlotOf(&IUDTRecv::GetRecvChnInfo), 11u);

    EXPECT_EQ(SlotOf(&CAVGThreadModel::Run), 2u);
    EXPECT_EQ(SlotOf(&CAVGUdtRecv::Run), 2u);
    EXPECT_EQ(SlotOf(&CAVGUdtRecv::UDTReceiveNetData), 3u);
    EXPECT_EQ(SlotOf(&CAVGUdtRecv::Stop), 4u);
    EXPECT_EQ(SlotOf(&CAVGUdtRecv::Start), 5u);
    EXPECT_EQ(SlotOf(&CAVGUdtRecv::UDTSetRecvParams), 6u);
    EXPECT_EQ(SlotOf(&CAVGUdtRecv::UDTSetRecvRTT), 7u);
    EXPECT_EQ(SlotOf(&CAVGUdtRecv::UDTCalcRecvLoss), 8u);
    EXPECT_EQ(SlotOf(&CAVGUdtRecv::UDTEnableReGetPkg), 9u);
    EXPECT_EQ(SlotOf(&CAVGUdtRecv::ClearRecvChn), 10u);
    EXPECT_EQ(SlotOf(&CAVGUdtRecv::SetRoomState), 11u);
    EXPECT_EQ(SlotOf(&CAVGUdtRecv::GetDownPacketRecvInfo), 12u);
    EXPECT_EQ(SlotOf(&CAVGUdtRecv::GetRecvInfo), 13u);
    EXPECT_EQ(SlotOf(&CAVGUdtRecv::GetRecvChnInfo), 14u);

    EXPECT_EQ(SlotOf(&IUDTRecvEventCallBack::OnUDTRecvOutData), 0u);
    EXPECT_EQ(SlotOf(&IUDTRecvEventCallBack::UdtRecvHandleEvent), 1u);
    EXPECT_EQ(SlotOf(&IUDTRecvEventCallBack::UdtParsePacketHeadInfo), 2u);
#else
    GTEST_SKIP() << "pointers to members are laid out otherwise on this machine";
#endif
}

TEST(Abi, TheReceiverItselfBehavesAlikeThroughBothTables)
{
    CRecvRig rig;
    CAVGUdtRecv* pRecv = &rig.m_recv;
    IUDTRecv* pInterface = pRecv;

    CallSlot<void, uint32>(pInterface, 7, 3);
    EXPECT_EQ(rig.m_dwRoomLogicState(), 3u);
    CallSlot<void, uint32>(pRecv, 11, 4);
    EXPECT_EQ(rig.m_dwRoomLogicState(), 4u);

    CallSlot<void, uint64, uint32>(pInterface, 9, 5, 2);
    CallSlot<void, uint64, uint32>(pRecv, 10, 6, 3);
    EXPECT_THAT(rig.m_listClearUin(), ElementsAre(5, 6));
    EXPECT_EQ(rig.m_dwClearRequest(), 3u);
}

TEST(Abi, TheCallbacksAreReachedInSlotOrder)
{
    struct CTellingOwner : public IUDTRecvEventCallBack
    {
        void OnUDTRecvOutData(UDTCodecBaseDecode_V2*, int* pnDelay) override { *pnDelay = 10; }
        int UdtRecvHandleEvent(WORD wType, uint8*, uint32 nBufSize, uint32 nSendCount, uint32 nUdtV2) override
        {
            return (int)(wType + nBufSize + nSendCount + nUdtV2);
        }
        int UdtParsePacketHeadInfo(uint8*, UdtPacketHeadInfo& stHead) override
        {
            stHead.cFrmType = 6;
            return 12;
        }
    };
    CTellingOwner owner;
    int nDelay = 0;
    CallSlot<void, UDTCodecBaseDecode_V2*, int*>(&owner, 0, nullptr, &nDelay);
    EXPECT_EQ(nDelay, 10);
    EXPECT_EQ((CallSlot<int, WORD, uint8*, uint32, uint32, uint32>(&owner, 1, 1000, nullptr, 100, 10, 1)),
              1111);
    tagUdtPacketHeadInfo stHead;
    EXPECT_EQ((CallSlot<int, uint8*, UdtPacketHeadInfo*>(&owner, 2, nullptr, &stHead)), 12);
    EXPECT_EQ(stHead.cFrmType, 6);
}

// ---- Bases -----------------------------------------------------------------------------------------------------

static_assert(!std::has_virtual_destructor<IUDTRecv>::value,
              "the owner destroys the receiver through its concrete type");
static_assert(!std::has_virtual_destructor<IUDTRecvEventCallBack>::value, "three slots and no more");
static_assert(std::has_virtual_destructor<CAVGUdtRecv>::value, "the first two slots");
static_assert(sizeof(IUDTRecv) == sizeof(void*) && sizeof(IUDTRecvEventCallBack) == sizeof(void*),
              "interfaces hold nothing");
static_assert(std::is_abstract<IUDTRecv>::value && std::is_abstract<IUDTRecvEventCallBack>::value,
              "every slot is pure");
static_assert(!std::is_final<CAVGUdtRecv>::value, "an owner may derive");
static_assert(std::is_convertible<CAVGUdtRecv*, CAVGThreadModel*>::value &&
                  std::is_convertible<CAVGUdtRecv*, IUDTRecv*>::value,
              "public bases");
static_assert(std::is_constructible<CAVGUdtRecv, IUDTRecvEventCallBack*>::value, "one argument: the owner");

TEST(Abi, TheThreadBaseComesFirstThenTheInterfaceThenTheOwnersPointer)
{
    CRecvRig rig;
    CAVGUdtRecv* pRecv = &rig.m_recv;
    EXPECT_EQ((void*)static_cast<CAVGThreadModel*>(pRecv), (void*)pRecv);
    const char* pInterface = (const char*)static_cast<IUDTRecv*>(pRecv);
    EXPECT_EQ(pInterface, (const char*)pRecv + sizeof(CAVGThreadModel));
    EXPECT_EQ((const char*)&rig.m_pCB(), pInterface + sizeof(void*));
}

// ---- Records that cross the interface ------------------------------------------------------------------------

#define AT(record, field, offset, type)                                                   \
    static_assert(offsetof(record, field) == (offset), #record "::" #field " has moved"); \
    static_assert(std::is_same<decltype(record::field), type>::value, #record "::" #field " is a " #type)

AT(tagUDTRecvParams, wQueuePeriod, 0, uint16);
AT(tagUDTRecvParams, wFirstGetTime, 2, uint16);
AT(tagUDTRecvParams, wNextGetTime, 4, uint16);
AT(tagUDTRecvParams, wGetPkgTimeout, 6, uint16);
AT(tagUDTRecvParams, wCalcRecvLossTime, 8, uint16);
AT(tagUDTRecvParams, wTimelineDelta, 10, uint16);
AT(tagUDTRecvParams, wOutPutDelay, 12, uint16);
AT(tagUDTRecvParams, wPeriodMinDelay, 14, uint16);
AT(tagUDTRecvParams, wUdtMode, 16, uint16);
AT(tagUDTRecvParams, wPushGopNum, 18, uint16);
static_assert(sizeof(tagUDTRecvParams) == 20, "nothing behind");

AT(tagRecvInfo, dwChnNum, 0, uint32);
AT(tagRecvInfo, dwMaxLossRate, 4, uint32);
AT(tagRecvInfo, dwMinLossRate, 8, uint32);
AT(tagRecvInfo, dwCurLossRate, 12, uint32);
AT(tagRecvInfo, dwChnClearNum, 16, uint32);
static_assert(sizeof(tagRecvInfo) == 20, "nothing behind");

AT(tagRecvChnStatInfo, llAccount, 0, uint64);
AT(tagRecvChnStatInfo, dwSubType, 8, uint32);
AT(tagRecvChnStatInfo, dwFirstIFrmRecvTime, 12, uint32);
AT(tagRecvChnStatInfo, dwFrmNumBeforeFristFrm, 16, uint32);
AT(tagRecvChnStatInfo, dwFirstFrmCanDec, 20, uint32);
AT(tagRecvChnStatInfo, dwCanDecIFrmElpTime, 24, uint32);
AT(tagRecvChnStatInfo, dwConfgMinDelay, 28, uint32);
AT(tagRecvChnStatInfo, dwConfgMaxDelay, 32, uint32);
AT(tagRecvChnStatInfo, dwRealMinDelay, 36, uint32);
AT(tagRecvChnStatInfo, dwRealMaxDelay, 40, uint32);
AT(tagRecvChnStatInfo, dwRealDelayAvg, 44, uint32);
AT(tagRecvChnStatInfo, dwCurCalcTLDelta, 48, uint32);
AT(tagRecvChnStatInfo, dwSkipPkgNum, 52, uint32);
AT(tagRecvChnStatInfo, dwStampErrCnt, 56, uint32);
AT(tagRecvChnStatInfo, dwTotalRecvPkgNum, 60, uint32);
AT(tagRecvChnStatInfo, dwTotalLossPkgNum, 64, uint32);
AT(tagRecvChnStatInfo, dwTotalReqFailNum, 68, uint32);
static_assert(sizeof(tagRecvChnStatInfo) == 72, "nothing behind");

AT(tagUDTRecvGuards, dwMaxIntakePackets, 0, uint32);
AT(tagUDTRecvGuards, dwMaxIntakeBytes, 4, uint32);
AT(tagUDTRecvGuards, dwMaxStreams, 8, uint32);
AT(tagUDTRecvGuards, dwMaxAccounts, 12, uint32);
AT(tagUDTRecvGuards, dwMaxStreamPackets, 16, uint32);
AT(tagUDTRecvGuards, dwMaxStreamHistory, 20, uint32);
AT(tagUDTRecvGuards, dwMaxRequestsPerSecond, 24, uint32);
AT(tagUDTRecvGuards, dwMaxPullBacks, 28, uint32);
AT(tagUDTRecvGuards, dwMaxLatency, 32, uint32);
static_assert(sizeof(tagUDTRecvGuards) == 36, "nothing behind");

AT(tagUDTRecvGuardInfo, dwIntakePackets, 0, uint32);
AT(tagUDTRecvGuardInfo, dwIntakeBytes, 4, uint32);
AT(tagUDTRecvGuardInfo, dwStreams, 8, uint32);
AT(tagUDTRecvGuardInfo, dwAccounts, 12, uint32);
AT(tagUDTRecvGuardInfo, dwAccountsForgot, 16, uint32);
AT(tagUDTRecvGuardInfo, dwStreamPackets, 20, uint32);
AT(tagUDTRecvGuardInfo, dwStreamHistory, 24, uint32);
AT(tagUDTRecvGuardInfo, dwRequests, 28, uint32);
AT(tagUDTRecvGuardInfo, dwPullBacks, 32, uint32);
AT(tagUDTRecvGuardInfo, dwLatency, 36, uint32);
static_assert(sizeof(tagUDTRecvGuardInfo) == 40, "nothing behind");

AT(tagUdtPacketHeadInfo, cHeadLen, 0, uint8);
AT(tagUdtPacketHeadInfo, cSubType, 1, uint8);
AT(tagUdtPacketHeadInfo, cFrmType, 2, uint8);
AT(tagUdtPacketHeadInfo, cPkgIndex, 3, uint8);
AT(tagUdtPacketHeadInfo, cTotalPkgCount, 4, uint8);
AT(tagUdtPacketHeadInfo, cFecPkgCount, 5, uint8);
AT(tagUdtPacketHeadInfo, cFrameIndex, 6, uint8);
AT(tagUdtPacketHeadInfo, cGopIndex, 7, uint8);
AT(tagUdtPacketHeadInfo, uTimeStamp, 8, uint32);
static_assert(sizeof(tagUdtPacketHeadInfo) == 12, "nothing behind");
static_assert(std::is_same<UdtPacketHeadInfo, tagUdtPacketHeadInfo>::value, "two names, one record");

AT(tagReplyData, ullUserAccount, 0, uint64);
AT(tagReplyData, cSubType, 8, uint8);
AT(tagReplyData, dwUserSeq, 12, uint32);
AT(tagReplyData, cResult, 16, uint8);
static_assert(sizeof(tagReplyData) == 24, "the stride of a loss request");

AT(tag_bi_buf, ulen, 0, uint32);
AT(tag_bi_buf, pbuf, sizeof(void*), uint8*);
static_assert(std::is_same<bi_buf, tag_bi_buf>::value && std::is_same<pt_obj, tag_pt_obj>::value &&
                  std::is_same<st_obj, tag_st_obj>::value,
              "each under both its names");
#undef AT

static_assert(MEAVAudio == 1 && MEAVMaxVideo == 2 && MEAVMinVideo == 3 && MEAVVideoSingal == 4 &&
                  MEAVVideoSingalEx == 5 && MEAVPPTShare == 6 && MEAVSubVideo == 7 && MEAVCheckSpeed == 8 &&
                  MEAVPPTWBoardData == 9 && MEAVMAX == 10,
              "sub-types travel on the wire");
static_assert(def_FrameType_I == 0 && def_FrameType_P == 1 && def_FrameType_P_WITHSP == 2 &&
                  def_FrameType_SP == 3 && def_FrameType_GF == 4 && def_FrameType_P_WITHB == 5 &&
                  def_FrameType_B == 6,
              "frame types travel on the wire");
static_assert(AVGUdtRecvPacketEvent_LossRequest == 0, "the only event");
static_assert(LOG_RECV == 1 && LOG_OUT == 2 && LOG_TIME_PARAM == 4, "masks of a log-print flag");
static_assert(VID_IFRM_RECV == 1 && VID_IFRM_OUT == 2, "states of a stream's first I frame");
static_assert(std::is_convertible<emUDTAVType, int>::value, "enumerations are unscoped");

template <class T>
class AbiRecordDefaults : public ::testing::Test
{
};
typedef ::testing::Types<tagUDTRecvParams, tagRecvInfo, tagRecvChnStatInfo, tagUDTRecvGuards,
                         tagUDTRecvGuardInfo, tagUdtPacketHeadInfo>
    DenseRecords;
TYPED_TEST_SUITE(AbiRecordDefaults, DenseRecords, );

TYPED_TEST(AbiRecordDefaults, EveryFieldIsZeroWhateverLayThereBefore)
{
    alignas(TypeParam) unsigned char aRoom[sizeof(TypeParam)];
    memset(aRoom, 0xA5, sizeof(aRoom));
    new (aRoom) TypeParam;
    for (size_t i = 0; i < sizeof(aRoom); ++i)
        EXPECT_EQ(aRoom[i], 0) << "byte " << i;
}

TEST(Abi, AFreshReplyRecordHasItsFourFieldsZero)
{
    alignas(tagReplyData) unsigned char aRoom[sizeof(tagReplyData)];
    memset(aRoom, 0xA5, sizeof(aRoom));
    const tagReplyData& stData = *new (aRoom) tagReplyData;
    EXPECT_EQ(stData.ullUserAccount, 0u);
    EXPECT_EQ(stData.cSubType, 0);
    EXPECT_EQ(stData.dwUserSeq, 0u);
    EXPECT_EQ(stData.cResult, 0);
}

// ---- The packet object -----------------------------------------------------------------------------------------

static_assert(std::is_base_of<UDTCodecBaseEncode_V2, UDTCodecBaseDecode_V2>::value &&
                  std::is_base_of<tag_pt_obj, UDTCodecBaseEncode_V2>::value &&
                  std::is_base_of<tag_st_obj, tag_pt_obj>::value,
              "the chain of the packet object");
static_assert(std::has_virtual_destructor<tag_st_obj>::value, "the last reference deletes through the base");
static_assert(std::is_same<decltype(UDTCodecBaseEncode_V2::wLen), uint16>::value &&
                  std::is_same<decltype(UDTCodecBaseEncode_V2::u64Uin), uint64>::value &&
                  std::is_same<decltype(UDTCodecBaseEncode_V2::bufBody), bi_buf>::value &&
                  std::is_same<decltype(UDTCodecBaseDecode_V2::dwSenderDeq), uint32>::value &&
                  std::is_same<decltype(tag_pt_obj::pCustomObj), CScopePtr<tag_st_obj>>::value,
              "widths of the packet object");

TEST(Abi, ThePacketObjectsFieldsLieInOrderAndStartEmpty)
{
    CScopePtr<UDTCodecBaseDecode_V2> pPacket(new UDTCodecBaseDecode_V2);
    UDTCodecBaseDecode_V2& packet = *pPacket;
    EXPECT_TRUE(InOrder({&packet.pInternal,   &packet.iRefs,      &packet.pCustomObj, &packet.uCustomId,
                         &packet.cCustomFlag, &packet.cSTX,       &packet.wLen,       &packet.dwSeq,
                         &packet.wSubCmd,     &packet.u64Uin,     &packet.dwRoomID,   &packet.dwLocation,
                         &packet.wTimeStamp,  &packet.u64Reverse, &packet.cSeqType,   &packet.dwSenderSeq,
                         &packet.wTLVLen,     &packet.bufTLV,     &packet.bufBody,    &packet.cETX,
                         &packet.dwSenderDeq}));
    EXPECT_EQ(packet.wLen, 0);
    EXPECT_EQ(packet.bufBody.pbuf, nullptr);
    EXPECT_EQ(packet.bufBody.ulen, 0u);
    EXPECT_EQ(packet.bufTLV.pbuf, nullptr);
    EXPECT_EQ(packet.pCustomObj.p, nullptr);
    EXPECT_EQ(packet.iRefs, 1);
}

TEST(Abi, APacketObjectNeverFreesTheBytesItPointsAt)
{
    static uint8 s_aBytes[4] = {};
    CScopePtr<UDTCodecBaseDecode_V2> pPacket(new UDTCodecBaseDecode_V2);
    pPacket->bufBody.pbuf = s_aBytes; // freeing these would not go unnoticed
    pPacket->bufTLV.pbuf = s_aBytes + 2;
    pPacket = nullptr;
    EXPECT_EQ(s_aBytes[0], 0);
}
