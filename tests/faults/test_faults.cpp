// What may go wrong around the receiver: the clock, the owner, the heap, the log. After each it goes on.

#include "LabRun.h"
#include "RecvRig.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <map>
#include <new>

// ---- A heap that fails when asked to -----------------------------------------------------------------------------

namespace
{

struct tagHeap
{
    bool bArmed = false;  // counting, and failing when it is time
    uint64 ullCalls = 0;  // counted
    uint64 ullFailAt = 0; // this call fails; 0: none
    uint64 ullEvery = 0;  // every so manieth fails; 0: none
    uint64 ullFailed = 0;
};
thread_local tagHeap t_heap;

bool HeapFails()
{
    if (!t_heap.bArmed)
        return false;
    ++t_heap.ullCalls;
    const bool bFails = t_heap.ullCalls == t_heap.ullFailAt ||
                        (t_heap.ullEvery != 0 && t_heap.ullCalls % t_heap.ullEvery == 0);
    t_heap.ullFailed += bFails;
    return bFails;
}

} // namespace

void* operator new(size_t nBytes)
{
    if (HeapFails())
        throw std::bad_alloc();
    if (void* const p = malloc(nBytes != 0 ? nBytes : 1))
        return p;
    throw std::bad_alloc();
}
void* operator new(size_t nBytes, const std::nothrow_t&) noexcept
{
    return HeapFails() ? nullptr : malloc(nBytes != 0 ? nBytes : 1);
}
void* operator new[](size_t nBytes) { return operator new(nBytes); }
void* operator new[](size_t nBytes, const std::nothrow_t& stNo) noexcept
{
    return operator new(nBytes, stNo);
}
// Not inlined: a compiler that sees a block from new go to free takes it for a mistake.
__attribute__((noinline)) void operator delete(void* p) noexcept { free(p); }
void operator delete(void* p, size_t) noexcept { operator delete(p); }
void operator delete(void* p, const std::nothrow_t&) noexcept { operator delete(p); }
void operator delete[](void* p) noexcept { operator delete(p); }
void operator delete[](void* p, size_t) noexcept { operator delete(p); }
void operator delete[](void* p, const std::nothrow_t&) noexcept { operator delete(p); }

namespace
{

// ---- The heap --------------------------------------------------------------------------------------------------------

// Allocates nothing, and whatever it does is none of the receiver's failures.
class CFrugalOwner : public IUDTRecvEventCallBack
{
public:
    void OnUDTRecvOutData(UDTCodecBaseDecode_V2* pPacket, int* pnDelay) override
    {
        const bool bArmed = std::exchange(t_heap.bArmed, false);
        const tagRigPacket& st = static_cast<CRigPacket*>(pPacket)->m_stPacket;
        tagLast& stLast = m_aLast[st.ullUin % 8][st.cSubType % 8];
        if (stLast.bAny && st.dwSendSeq < stLast.dwSeq)
            ++m_nOutOfOrder;
        if (stLast.bAny && st.dwSendSeq == stLast.dwSeq)
            ++m_nTwice;
        stLast.bAny = true;
        stLast.dwSeq = st.dwSendSeq;
        ++m_nReleases;
        *pnDelay = 20;
        t_heap.bArmed = bArmed;
    }
    int UdtRecvHandleEvent(WORD, uint8*, uint32 nBufSize, uint32, uint32) override
    {
        m_nAsked += (int)nBufSize;
        return 0;
    }
    int UdtParsePacketHeadInfo(uint8* pBuf, UdtPacketHeadInfo& stHead) override
    {
        memcpy(&stHead, pBuf, sizeof(stHead));
        return 0;
    }
    static void Sink(void*, UDT_LOG_LEVEL, const char*, const char*, int, const char*, const char*) {}

    struct tagLast
    {
        bool bAny = false;
        uint32 dwSeq = 0;
    };
    tagLast m_aLast[8][8];
    int m_nReleases = 0;
    int m_nOutOfOrder = 0;
    int m_nTwice = 0;
    int m_nAsked = 0;
};

struct tagScriptResult
{
    uint64 ullCalls = 0;  // of the heap, by the receiver
    uint64 ullFailed = 0; // of these
    int nReleases = 0;
};

// A call of two users with sound and picture, losses, repeats, a clearing and every getter, while the heap fails; then
// a third user on a heap that is well again.
tagScriptResult PlayScript(uint64 ullFailAt, uint64 ullEvery)
{
    SCOPED_TRACE(testing::Message() << "fails at call " << ullFailAt << ", every " << ullEvery);
    const int nLiveBefore = CRigPacket::Live();
    tagScriptResult stResult;
    CFrugalOwner owner;
    CVirtualClock clock(1000);
    LogSetSink(&CFrugalOwner::Sink, nullptr);
    LogSetLevel(LOG_LEVEL_DEBUG);
    t_heap = tagHeap();
    t_heap.ullFailAt = ullFailAt;
    t_heap.ullEvery = ullEvery;
    const auto call = [](const char* pszWhat, auto&& fn)
    {
        t_heap.bArmed = true;
        try
        {
            fn();
            t_heap.bArmed = false;
        }
        catch (...)
        {
            t_heap.bArmed = false;
            ADD_FAILURE() << pszWhat << " threw";
        }
    };
    {
        std::unique_ptr<CAVGUdtRecv> pRecv(new CAVGUdtRecv(&owner));
        CAVGUdtRecv& recv = *pRecv;
        recv.SetOwnerDriven(TRUE);
        const auto feed = [&](const tagRigPacket& st, uint32 dwDown)
        {
            const CScopePtr<UDTCodecBaseDecode_V2> pPacket(new CRigPacket(st));
            call("UDTReceiveNetData",
                 [&] {
                     recv.UDTReceiveNetData(st.dwSendSeq, st.ullUin, dwDown, (uint16)dwDown, st.cSubType,
                                            pPacket.p);
                 });
        };
        call("Start", [&] { recv.Start(); });
        call("SetRoomState", [&] { recv.SetRoomState(3); });
        uint32 dwDown = 2;
        for (uint32 i = 0; i < 60; ++i)
        {
            for (uint64 ullUin = 1; ullUin <= 2; ++ullUin)
            {
                if (i % 7 != 3) // lost
                    feed(AudioPacket(ullUin, 100 + i), ++dwDown);
                if (i % 11 != 5)
                    feed(VideoPacket(ullUin, 500 + i, c_dwRigMediaBase + 2000 + i * 20,
                                     i % 20 == 0 ? def_FrameType_I : def_FrameType_P, (uint8)(i / 20),
                                     (uint8)(i % 20)),
                         ++dwDown);
                if (i % 13 == 6) // again
                    feed(AudioPacket(ullUin, 100 + i), ++dwDown);
            }
            clock.JumpTo(clock.Tick() + 20);
            call("RunTurn", [&] { recv.RunTurn(); });
            if (i % 10 == 9)
            {
                uint32 dw[4];
                tagRecvInfo stInfo;
                tagRecvChnStatInfo aInfo[8];
                tagPlayoutInfo stPlayout;
                tagUDTRecvParams params;
                params.wTimelineDelta = (uint16)(100 + i);
                call("the getters and setters",
                     [&]
                     {
                         recv.GetDownPacketRecvInfo(dw[0], dw[1], dw[2], dw[3]);
                         recv.UDTCalcRecvLoss(dw[0], dw[1], dw[2], dw[3]);
                         recv.GetRecvInfo(stInfo);
                         recv.GetRecvChnInfo(aInfo, 8);
                         recv.GetPlayoutInfo(1, stPlayout);
                         recv.UDTSetRecvParams(params);
                         recv.UDTSetRecvRTT(50 + i);
                         recv.UDTEnableReGetPkg(TRUE);
                     });
            }
            if (i == 45)
                call("ClearRecvChn", [&] { recv.ClearRecvChn(2, MEAVMaxVideo); });
        }
        stResult.ullCalls = t_heap.ullCalls;
        stResult.ullFailed = t_heap.ullFailed;
        t_heap.ullFailAt = t_heap.ullEvery = 0;

        const int nBefore = owner.m_nReleases;
        for (uint32 i = 0; i < 20; ++i)
        {
            feed(VideoPacket(3, 1 + i, 900000 + i * 20, i == 0 ? def_FrameType_I : def_FrameType_P, 0,
                             (uint8)i),
                 ++dwDown);
            clock.JumpTo(clock.Tick() + 20);
            call("RunTurn", [&] { recv.RunTurn(); });
        }
        for (uint32 i = 0; i < 300; ++i)
        {
            clock.JumpTo(clock.Tick() + 20);
            call("RunTurn", [&] { recv.RunTurn(); });
        }
        EXPECT_GE(owner.m_nReleases, nBefore + 20) << "it does not go on";
        t_heap.ullFailAt = ullFailAt != 0 ? t_heap.ullCalls + 1 : 0; // and once more, at the end
        call("Stop", [&] { recv.Stop(); });
        EXPECT_EQ(CRigPacket::Live(), nLiveBefore) << "a stopped receiver holds packets";
    }
    t_heap = tagHeap();
    EXPECT_EQ(owner.m_nOutOfOrder, 0);
    // A packet that was buffered, but for whose note in the duplicate history there was no memory, is not known again.
    EXPECT_LE(owner.m_nTwice, (int)stResult.ullFailed);
    EXPECT_EQ(CRigPacket::Live(), nLiveBefore);
    LogSetSink(nullptr, nullptr);
    LogSetLevel(LOG_LEVEL_ERROR);
    stResult.nReleases = owner.m_nReleases;
    return stResult;
}

TEST(FaultHeap, AFailureOfAnySingleAllocationIsSurvived)
{
    const tagScriptResult stWhole = PlayScript(0, 0);
    ASSERT_GT(stWhole.ullCalls, 50u);
    EXPECT_GT(stWhole.nReleases, 200);
    uint64 ullFailures = 0;
    for (uint64 ullAt = 1; ullAt <= stWhole.ullCalls && !HasFailure(); ++ullAt)
        ullFailures += PlayScript(ullAt, 0).ullFailed;
    EXPECT_GE(ullFailures, stWhole.ullCalls);
    printf("%llu allocations in the script, each failed once\n", stWhole.ullCalls);
}

TEST(FaultHeap, AHeapThatFailsAgainAndAgainIsSurvived)
{
    for (uint64 ullEvery : {1, 2, 3, 5, 7, 13, 29})
    {
        const tagScriptResult st = PlayScript(0, ullEvery);
        EXPECT_GT(st.ullFailed, 0u);
    }
}

TEST(FaultHeap, AReceiverThatCannotBeMadeLeavesNothingBehind)
{
    for (uint64 ullAt = 1; ullAt < 50; ++ullAt)
    {
        t_heap = tagHeap();
        t_heap.ullFailAt = ullAt;
        bool bMade = false;
        try
        {
            t_heap.bArmed = true;
            CAVGUdtRecv recv(nullptr);
            recv.SetOwnerDriven(TRUE);
            recv.Start();
            recv.RunTurn();
            recv.Stop();
            bMade = true;
        }
        catch (const std::bad_alloc&)
        {
            // a constructor has no other way to tell
        }
        const bool bOver = t_heap.ullFailed == 0;
        t_heap = tagHeap();
        if (bOver)
        {
            EXPECT_TRUE(bMade);
            break;
        }
    }
}

// ---- The clock -------------------------------------------------------------------------------------------------------

class CCall : public lab::IRunObserver
{
public:
    explicit CCall(uint64 ullStartTick = 1000000) : m_run(Options(ullStartTick), *this) {}

    int OnReleased(lab::CMediaPacket& packet, uint32 dwTick) override
    {
        ++m_nReleases;
        m_dwLastRelease = dwTick;
        if (packet.m_cSubType != MEAVAudio)
            ++m_nVideo;
        return 20;
    }
    void OnLossRequest(const tagReplyData*, uint32, uint32) override {}

    // Sound every 20 ms and a picture every 40, each packet at its own time; a turn every 10 ms of the receiver's clock.
    void Talk(uint32 dwMs, bool bClockMoves = true)
    {
        for (uint32 dw = 0; dw < dwMs; dw += 10)
        {
            if (m_dwMedia % 20 == 0)
                Feed(MEAVAudio, ++m_dwAudioSeq, 0, 0);
            if (m_dwMedia % 40 == 0)
            {
                Feed(MEAVMaxVideo, ++m_dwVideoSeq, (uint8)(m_nFrame / 25), (uint8)(m_nFrame % 25));
                ++m_nFrame;
            }
            m_dwMedia += 10;
            if (bClockMoves)
                m_llNowUs += 10000;
            m_run.Turn(m_llNowUs);
        }
    }
    void Leap(uint32 dwMs) { m_llNowUs += dwMs * 1000ll; }
    void Finish()
    {
        for (int i = 0; i < 1000 && m_run.Live() != 0; ++i)
        {
            m_llNowUs += 10000;
            m_run.Turn(m_llNowUs);
        }
        m_run.Stop();
        EXPECT_THAT(m_run.Checks().Violations(), testing::IsEmpty());
    }

    int m_nReleases = 0;
    int m_nVideo = 0;
    uint32 m_dwLastRelease = 0;
    uint32 m_dwAudioSeq = 0;
    uint32 m_dwVideoSeq = 0;
    lab::CLabRun m_run;

private:
    static lab::tagRunOptions Options(uint64 ullStartTick)
    {
        lab::tagRunOptions st;
        st.ullStartTick = ullStartTick;
        return st;
    }
    void Feed(uint8 cSubType, uint32 dwSeq, uint8 cGop, uint8 cFrm)
    {
        tagUdtPacketHeadInfo stHead;
        stHead.cSubType = cSubType;
        stHead.cTotalPkgCount = 1;
        stHead.cGopIndex = cGop;
        stHead.cFrameIndex = cFrm;
        stHead.cFrmType = cSubType == MEAVAudio || cFrm != 0 ? def_FrameType_P : def_FrameType_I;
        stHead.uTimeStamp = 50000 + m_dwMedia;
        lab::CMediaPacket* const pPacket = m_run.NewPacket(stHead);
        pPacket->u64Uin = 7;
        pPacket->dwSenderSeq = dwSeq;
        pPacket->dwSeq = ++m_dwDown;
        pPacket->wTimeStamp = (uint16)m_dwMedia;
        pPacket->wLen = 100;
        pPacket->m_cSubType = cSubType;
        pPacket->m_uStream = cSubType == MEAVAudio ? 0 : 1;
        m_run.Feed(pPacket, m_llNowUs);
    }

    int64 m_llNowUs = 0;
    uint32 m_dwMedia = 0;
    uint32 m_dwDown = 1;
    int m_nFrame = 0;
};

TEST(FaultClock, WhileItStandsStillNothingIsLostAndThenAllIsPlayed)
{
    for (uint64 ullStart : {1000000ull, 0xFFFFFFFFull - 4000})
    {
        CCall call(ullStart);
        call.Talk(5000);
        call.Talk(3000, false); // three seconds of media at one tick
        const int nThen = call.m_nReleases;
        call.Talk(5000);
        call.Finish();
        EXPECT_GT(call.m_nReleases, nThen);
        EXPECT_EQ(call.m_nReleases, (int)(call.m_dwAudioSeq + call.m_dwVideoSeq));
    }
}

TEST(FaultClock, AMinuteForwardCostsNoPacketAndPlayoutGoesOnAtOnce)
{
    for (uint64 ullStart : {1000000ull, 0xFFFFFFFFull - 30000})
    {
        CCall call(ullStart);
        call.Talk(5000);
        call.Leap(60000);
        const int nThen = call.m_nReleases;
        call.Talk(2000);
        EXPECT_GT(call.m_nReleases, nThen + 50); // of 150 packets in these two seconds
        call.Talk(8000);
        call.Finish();
        EXPECT_EQ(call.m_nReleases, (int)(call.m_dwAudioSeq + call.m_dwVideoSeq));
    }
}

// ---- The owner -------------------------------------------------------------------------------------------------------

TEST(FaultOwner, ACallbackOfThreeSecondsDelaysAndLosesNothing)
{
    CRecvRig rig(1000);
    rig.StartPlaying();
    bool bBlocks = false;
    uint32 dwSeq = 0;
    const auto talk = [&](uint32 dwMs)
    {
        for (uint32 dw = 0; dw < dwMs; dw += 20)
        {
            ++dwSeq;
            rig.Feed(AudioPacket(7, dwSeq));
            rig.Advance(20);
            rig.Turn();
        }
    };
    rig.m_owner.m_fnOnRelease = [&](const tagRelease&)
    {
        if (!std::exchange(bBlocks, false))
            return;
        // The network does not wait.
        for (int i = 0; i < 150; ++i)
        {
            rig.Advance(20);
            ++dwSeq;
            rig.Feed(AudioPacket(7, dwSeq));
        }
    };
    talk(3000);
    bBlocks = true;
    talk(3000);
    EXPECT_FALSE(bBlocks);
    rig.TurnsUntil(rig.Now() + 10000);
    const std::vector<uint32> vecSeq = rig.m_owner.Sequences(7, MEAVAudio);
    ASSERT_EQ(vecSeq.size(), dwSeq);
    for (uint32 i = 0; i < dwSeq; ++i)
        ASSERT_EQ(vecSeq[i], i + 1);
}

// ---- The log ---------------------------------------------------------------------------------------------------------

struct tagOddSink
{
    CRecvRig* pRig = nullptr;
    uint32 dwSlowMs = 0;
    bool bCallsBack = false;
    bool bThrows = false;
    uint64 ullLines = 0;
    int nDepth = 0;

    static void Sink(void* pCtx, UDT_LOG_LEVEL, const char*, const char*, int, const char*, const char*)
    {
        tagOddSink& st = *static_cast<tagOddSink*>(pCtx);
        ++st.ullLines;
        if (st.dwSlowMs != 0)
            st.pRig->Advance(st.dwSlowMs);
        if (st.bCallsBack && st.nDepth == 0)
        {
            ++st.nDepth;
            uint32 dw[4];
            tagRecvInfo stInfo;
            tagRecvChnStatInfo aInfo[4];
            st.pRig->m_recv.GetRecvInfo(stInfo);
            st.pRig->m_recv.GetRecvChnInfo(aInfo, 4);
            st.pRig->m_recv.GetDownPacketRecvInfo(dw[0], dw[1], dw[2], dw[3]);
            st.pRig->m_recv.UDTSetRecvRTT(60);
            st.pRig->m_recv.UDTSetRecvParams(tagUDTRecvParams());
            st.pRig->m_recv.SetRoomState(3);
            --st.nDepth;
        }
        if (st.bThrows)
            throw 1;
    }
};

TEST(FaultLog, ASinkThatIsSlowOrCallsBackOrThrowsBreaksNothing)
{
    const struct
    {
        uint32 dwSlowMs;
        bool bCallsBack;
        bool bThrows;
    } aCases[] = {{30, false, false}, {0, true, false}, {0, false, true}, {5, true, true}};
    for (const auto& stCase : aCases)
    {
        const int nLiveBefore = CRigPacket::Live();
        {
            CRecvRig rig(1000);
            tagOddSink st;
            st.pRig = &rig;
            st.dwSlowMs = stCase.dwSlowMs;
            st.bCallsBack = stCase.bCallsBack;
            st.bThrows = stCase.bThrows;
            LogSetLevel(LOG_LEVEL_DEBUG);
            LogSetSink(&tagOddSink::Sink, &st);
            rig.StartPlaying();
            uint32 dwSeq = 0;
            for (int i = 0; i < 300; ++i)
            {
                rig.Feed(AudioPacket(7, ++dwSeq));
                rig.Advance(20);
                rig.Turn();
            }
            for (int i = 0; i < 300; ++i)
            {
                rig.Advance(20);
                rig.Turn();
            }
            rig.m_recv.Stop();
            LogSetSink(nullptr, nullptr);
            LogSetLevel(LOG_LEVEL_ERROR);
            EXPECT_GT(st.ullLines, 600u);
            EXPECT_EQ(rig.m_owner.Sequences(7, MEAVAudio).size(), dwSeq);
        }
        EXPECT_EQ(CRigPacket::Live(), nLiveBefore);
    }
}

} // namespace
