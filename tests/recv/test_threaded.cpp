// The receiver with its own worker and the real clock: starts, stops and everybody calling at once. Stops take
// 200 ms each, so there are few of them.

#include "RecvTest.h"

#include "UDTInsideParam.h"
#include "xpmess.h"

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <memory>
#include <thread>
#include <vector>

namespace
{

constexpr int c_nNetThreads = 4;
constexpr uint32 c_dwPatienceMs = 20000; // only a broken receiver waits this long

// Waits until something has become true. False: it never did.
bool Await(const std::function<bool()>& fnDone)
{
    for (uint32 dwWaited = 0; dwWaited < c_dwPatienceMs; dwWaited += 2)
    {
        if (fnDone())
            return true;
        xp_msleep(2);
    }
    return false;
}

// Counts what it is given; any thread may look. What to do in a callback is set before the start.
class CCountingOwner : public IUDTRecvEventCallBack
{
public:
    void OnUDTRecvOutData(UDTCodecBaseDecode_V2* pPacket, int* pnDelay) override
    {
        if (pPacket != nullptr && pPacket->iRefs < 1)
            m_bDead = true;
        *pnDelay = 10;
        ++m_nReleases;
        if (m_fnOnRelease)
            m_fnOnRelease();
    }
    int UdtRecvHandleEvent(WORD, uint8*, uint32, uint32, uint32) override
    {
        ++m_nRequests;
        if (m_fnOnRequest)
            m_fnOnRequest();
        return 0;
    }
    int UdtParsePacketHeadInfo(uint8* pBuf, UdtPacketHeadInfo& stHead) override
    {
        memcpy(&stHead, pBuf, sizeof(stHead));
        if (m_fnOnParse)
            m_fnOnParse();
        return 0;
    }

    std::atomic<int> m_nReleases{0};
    std::atomic<int> m_nRequests{0};
    std::atomic<bool> m_bDead{false};
    std::function<void()> m_fnOnRelease;
    std::function<void()> m_fnOnRequest;
    std::function<void()> m_fnOnParse;
};

void Feed(CAVGUdtRecv& recv, const tagRigPacket& stPacket, uint32 dwDownSeq = 1)
{
    CScopePtr<UDTCodecBaseDecode_V2> pPacket(new CRigPacket(stPacket));
    EXPECT_EQ(recv.UDTReceiveNetData(stPacket.dwSendSeq, stPacket.ullUin, dwDownSeq, stPacket.wTimeStamp,
                                     stPacket.cSubType, pPacket),
              TRUE);
}

// Network threads: streams of several users, with gaps, repeats and users that come and go.
class CNetwork
{
public:
    CNetwork(CAVGUdtRecv& recv, uint32 dwPackets) : m_rRecv(recv)
    {
        for (int nThread = 0; nThread < c_nNetThreads; ++nThread)
            m_vecThreads.emplace_back([this, nThread, dwPackets] { Run((uint32)nThread, dwPackets); });
    }
    ~CNetwork() { Join(); }

    void Join()
    {
        for (std::thread& thread : m_vecThreads)
        {
            if (thread.joinable())
                thread.join();
        }
    }
    bool IsDone() const { return m_nDone == c_nNetThreads; }

private:
    void Run(uint32 dwThread, uint32 dwPackets)
    {
        for (uint32 dwSeq = 1; dwSeq <= dwPackets; ++dwSeq)
        {
            if (dwSeq % 17 == dwThread)
                continue;                                           // lost
            const uint64 ullUin = 7 + (dwSeq / 200 + dwThread) % 5; // shared with the other threads
            const uint32 dwMedia = 5000 + dwSeq * 4;
            switch (dwSeq % 3)
            {
            case 0: Feed(m_rRecv, AudioPacket(ullUin, dwSeq).At(dwMedia), dwSeq * 4 + dwThread); break;
            case 1:
                Feed(m_rRecv,
                     VideoPacket(ullUin, dwSeq, dwMedia, dwSeq % 30 == 1 ? def_FrameType_I : def_FrameType_P,
                                 (uint8)(dwSeq / 30), (uint8)(dwSeq % 30)),
                     dwSeq * 4 + dwThread);
                break;
            default:
                Feed(m_rRecv,
                     VideoPacket(ullUin + 100 * dwThread, dwSeq, dwMedia, def_FrameType_P, 0, 0, 0, 1,
                                 (uint8)(dwSeq % 11)),
                     dwSeq * 4 + dwThread);
            }
            if (dwSeq % 40 == 0)
                xp_msleep(1);
        }
        ++m_nDone;
    }

    CAVGUdtRecv& m_rRecv;
    std::atomic<int> m_nDone{0};
    std::vector<std::thread> m_vecThreads;
};

} // namespace

TEST(ThreadedLifecycle, TheWorkerPlaysAndStopWaitsForItsEnd)
{
    const int nLiveBefore = CRigPacket::Live();
    CLogRecorder log(LOG_LEVEL_ERROR);
    CCountingOwner owner;
    {
        CAVGUdtRecv recv(&owner);
        recv.SetRoomState(3);
        recv.Start();
        EXPECT_TRUE(recv.HasThread());
        Feed(recv, KeyFrame(7, 1));
        Feed(recv, VideoPacket(7, 2, 0xFFFFFF, def_FrameType_P, 0, 1)); // never due
        EXPECT_TRUE(Await([&] { return owner.m_nReleases == 1; }));
        const uint64 ullBefore = xp_gettickcount();
        recv.Stop();
        EXPECT_GE(xp_gettickcount() - ullBefore, 195u); // the grace given to the worker
        EXPECT_FALSE(recv.HasThread());
        EXPECT_EQ(CRigPacket::Live(), nLiveBefore); // the worker cleared on its way out
        EXPECT_EQ(log.Count("run stop"), 1u);
        EXPECT_EQ(log.Lines().back().strText, "CAVGUdtRecv:: thread stop... ver 1911");
        const size_t nLines = log.Lines().size();
        recv.Stop(); // at once and without a line
        EXPECT_EQ(log.Lines().size(), nLines);
    }
    EXPECT_EQ(log.Count("thread stop"), 1u);
}

TEST(ThreadedLifecycle, StartStopStartPlaysInBothRuns)
{
    CCountingOwner owner;
    CAVGUdtRecv recv(&owner);
    recv.SetRoomState(3);
    recv.Start();
    recv.Start(); // running already
    Feed(recv, KeyFrame(7, 1));
    EXPECT_TRUE(Await([&] { return owner.m_nReleases == 1; }));
    recv.Stop();
    Feed(recv, KeyFrame(7, 2)); // dropped
    recv.Start();
    Feed(recv, KeyFrame(7, 1)); // a sequence of the first run is new again
    EXPECT_TRUE(Await([&] { return owner.m_nReleases == 2; }));
    recv.Stop();
    EXPECT_EQ(owner.m_nReleases, 2);
}

TEST(ThreadedLifecycle, TheDestructorStopsARunningWorker)
{
    const int nLiveBefore = CRigPacket::Live();
    {
        CAVGUdtRecv recv(nullptr); // no callbacks at all
        recv.SetRoomState(3);
        recv.Start();
        for (uint32 dwSeq = 1; dwSeq <= 50; ++dwSeq)
            Feed(recv, AudioPacket(7, dwSeq));
    }
    EXPECT_EQ(CRigPacket::Live(), nLiveBefore);
    EXPECT_FALSE(CUDTInsideParam::GetInstance()->HasSpeed(TOTAL_RECV_SPEED));
}

TEST(ThreadedCalledBack, StopOnTheWorkerReturnsAtOnceAndStartAfterItWorks)
{
    const int nLiveBefore = CRigPacket::Live();
    CLogRecorder log(LOG_LEVEL_ERROR);
    CCountingOwner owner;
    CAVGUdtRecv recv(&owner);
    std::atomic<bool> bStopped{false};
    std::atomic<bool> bStopFromInside{true};
    owner.m_fnOnRelease = [&]
    {
        if (!bStopFromInside.exchange(false))
            return;
        recv.Stop();
        recv.Stop(); // finds it stopped
        bStopped = true;
    };
    recv.SetRoomState(3);
    recv.Start();
    Feed(recv, KeyFrame(7, 1));
    ASSERT_TRUE(Await([&] { return bStopped.load(); }));
    recv.Start(); // waits for the old worker, then makes a new one
    EXPECT_EQ(log.Count("run stop"), 1u);
    EXPECT_EQ(log.Count("thread start"), 2u);
    Feed(recv, KeyFrame(7, 2));
    EXPECT_TRUE(Await([&] { return owner.m_nReleases == 2; }));
    recv.Stop();
    EXPECT_EQ(log.Count("thread stop"), 2u);
    EXPECT_EQ(log.Count("run stop"), 2u);
    EXPECT_EQ(CRigPacket::Live(), nLiveBefore);
}

TEST(ThreadedCalledBack, TheNextStopAndTheDestructorWaitForAWorkerThatStoppedItself)
{
    for (const bool bByDestructor : {false, true})
    {
        const int nLiveBefore = CRigPacket::Live();
        CCountingOwner owner;
        std::atomic<bool> bStopped{false};
        std::unique_ptr<CAVGUdtRecv> pRecv(new CAVGUdtRecv(&owner));
        CAVGUdtRecv* const pInside = pRecv.get();
        owner.m_fnOnRelease = [&bStopped, pInside]
        {
            pInside->Stop();
            bStopped = true;
            xp_msleep(30); // the turn takes its time
        };
        pRecv->SetRoomState(3);
        pRecv->Start();
        Feed(*pRecv, KeyFrame(7, 1));
        ASSERT_TRUE(Await([&] { return bStopped.load(); }));
        if (!bByDestructor)
        {
            pRecv->Stop();
            EXPECT_FALSE(pRecv->HasThread());
            EXPECT_EQ(CRigPacket::Live(), nLiveBefore);
        }
        pRecv.reset();
        EXPECT_EQ(CRigPacket::Live(), nLiveBefore);
    }
}

TEST(ThreadedCalledBack, StopAndStartInOneCallbackBreakNothing)
{
    const int nLiveBefore = CRigPacket::Live();
    {
        CCountingOwner owner;
        CAVGUdtRecv recv(&owner);
        std::atomic<bool> bDone{false};
        owner.m_fnOnRelease = [&]
        {
            recv.Stop();
            recv.Start();
            bDone = true;
        };
        recv.SetRoomState(3);
        recv.Start();
        Feed(recv, KeyFrame(7, 1));
        EXPECT_TRUE(Await([&] { return bDone.load(); }));
    }
    EXPECT_EQ(CRigPacket::Live(), nLiveBefore);
}

TEST(ThreadedCalledBack, StopFromTheHeadParserOnANetworkThreadWaitsForTheWorker)
{
    const int nLiveBefore = CRigPacket::Live();
    CCountingOwner owner;
    CAVGUdtRecv recv(&owner);
    owner.m_fnOnParse = [&] { recv.Stop(); };
    recv.Start();
    std::thread network([&] { Feed(recv, AudioPacket(7, 1)); });
    network.join();
    EXPECT_FALSE(recv.HasThread());
    EXPECT_EQ(CRigPacket::Live(), nLiveBefore);
}

TEST(ThreadedCalledBack, ACallbackMayCallEverything)
{
    CCountingOwner owner;
    CAVGUdtRecv recv(&owner);
    owner.m_fnOnRelease = [&]
    {
        tagRecvInfo stInfo;
        recv.GetRecvInfo(stInfo);
        EXPECT_EQ(stInfo.dwChnNum, 1u);
        tagRecvChnStatInfo aInfo[2];
        EXPECT_EQ(recv.GetRecvChnInfo(aInfo, 2), 1u);
        recv.UDTSetRecvParams(tagUDTRecvParams());
        recv.UDTSetRecvRTT(50);
        recv.UDTEnableReGetPkg(FALSE);
        recv.SetRoomState(3);
        recv.ClearRecvChn(7, MEAVMaxVideo);
        uint32 dw[4];
        recv.UDTCalcRecvLoss(dw[0], dw[1], dw[2], dw[3]);
        recv.GetDownPacketRecvInfo(dw[0], dw[1], dw[2], dw[3]);
    };
    recv.SetRoomState(3);
    recv.Start();
    Feed(recv, KeyFrame(7, 1));
    EXPECT_TRUE(Await([&] { return owner.m_nReleases == 1; }));
    const auto streams = [&recv]
    {
        tagRecvInfo stInfo;
        recv.GetRecvInfo(stInfo);
        return stInfo.dwChnNum;
    };
    EXPECT_TRUE(Await([&] { return streams() == 0; })); // cleared by a later turn
    recv.Stop();
}

TEST(ThreadedRace, NetworkAndControlThreadsLeaveNothingBehind)
{
    const int nLiveBefore = CRigPacket::Live();
    CLogRecorder log(LOG_LEVEL_ERROR);
    CCountingOwner owner;
    {
        CAVGUdtRecv recv(&owner);
        recv.SetRoomState(3);
        recv.Start();
        std::atomic<bool> bEnd{false};
        std::thread reader(
            [&]
            {
                std::vector<tagRecvChnStatInfo> vecInfo(64);
                while (!bEnd)
                {
                    tagRecvInfo stInfo;
                    recv.GetRecvInfo(stInfo);
                    const uint32 dwNum = recv.GetRecvChnInfo(vecInfo.data(), 64);
                    for (uint32 i = 1; i < dwNum; ++i)
                    {
                        // Whole records, in key order, whatever the worker does meanwhile.
                        EXPECT_TRUE(tagInPktKey(vecInfo[i - 1].llAccount, (uint8)vecInfo[i - 1].dwSubType) <
                                    tagInPktKey(vecInfo[i].llAccount, (uint8)vecInfo[i].dwSubType));
                    }
                    CUDTInsideParam::GetInstance()->GetSpeed(TOTAL_RECV_SPEED);
                    std::this_thread::yield();
                }
            });
        CNetwork network(recv, 3000);
        uint32 dwRound = 0;
        int nRestarts = 0;
        while (!network.IsDone())
        {
            ++dwRound;
            tagUDTRecvParams stParams;
            stParams.wTimelineDelta = (uint16)(200 + dwRound % 500);
            stParams.wQueuePeriod = (uint16)(800 + dwRound % 300);
            stParams.wUdtMode = (uint16)(dwRound % 2);
            stParams.wPushGopNum = (uint16)(dwRound % 3);
            recv.UDTSetRecvParams(stParams);
            recv.UDTSetRecvRTT(dwRound % 300);
            recv.UDTEnableReGetPkg((boolean)(dwRound % 4 != 0));
            recv.SetRoomState(3);
            if (dwRound % 8 == 0)
                recv.ClearRecvChn(7 + dwRound % 5, MEAVMaxVideo);
            if (dwRound % 16 == 0)
                recv.ClearRecvChn(0, 0xFF);
            uint32 dw[4];
            recv.UDTCalcRecvLoss(dw[0], dw[1], dw[2], dw[3]);
            recv.GetDownPacketRecvInfo(dw[0], dw[1], dw[2], dw[3]);
            if (dwRound % 20 == 0 && nRestarts < 3)
            {
                recv.Stop();
                recv.Start();
                ++nRestarts;
            }
            xp_msleep(1);
        }
        network.Join();
        recv.SetRoomState(3);
        // It still plays. The last clear request may take the first frames with it.
        const int nBefore = owner.m_nReleases;
        uint32 dwSeq = 0;
        EXPECT_TRUE(Await(
            [&]
            {
                Feed(recv, KeyFrame(999, ++dwSeq));
                return owner.m_nReleases > nBefore;
            }));
        recv.Stop();
        bEnd = true;
        reader.join();
    }
    EXPECT_FALSE(owner.m_bDead);
    EXPECT_EQ(CRigPacket::Live(), nLiveBefore);
    EXPECT_EQ(log.Count("thread start"), log.Count("thread stop"));
}

TEST(ThreadedRace, AStopAmidPacketsLosesNoReferenceAndUsesNoFreedMeter)
{
    const int nLiveBefore = CRigPacket::Live();
    CCountingOwner owner;
    {
        CAVGUdtRecv recv(&owner);
        std::atomic<bool> bEnd{false};
        std::vector<std::thread> vecThreads;
        for (int nThread = 0; nThread < c_nNetThreads; ++nThread)
        {
            vecThreads.emplace_back(
                [&, nThread]
                {
                    for (uint32 dwSeq = 1; !bEnd; ++dwSeq)
                    {
                        Feed(recv, AudioPacket(7 + (uint64)nThread, dwSeq), dwSeq);
                        if (dwSeq % 50 == 0)
                            xp_msleep(1);
                    }
                });
        }
        for (int nRun = 0; nRun < 3; ++nRun)
        {
            recv.Start();
            xp_msleep(15);
            recv.Stop();
            tagRecvInfo stInfo;
            recv.GetRecvInfo(stInfo);
            EXPECT_EQ(stInfo.dwChnNum, 0u); // nothing slipped in behind the clearing
        }
        bEnd = true;
        for (std::thread& thread : vecThreads)
            thread.join();
        EXPECT_EQ(CRigPacket::Live(), nLiveBefore); // before the receiver is gone
    }
}

TEST(ThreadedRace, TwoThreadsMayStopAtOnce)
{
    CLogRecorder log(LOG_LEVEL_ERROR);
    CCountingOwner owner;
    CAVGUdtRecv recv(&owner);
    recv.Start();
    std::thread other([&] { recv.Stop(); });
    recv.Stop();
    other.join();
    EXPECT_EQ(log.Count("thread stop"), 1u);
    EXPECT_EQ(log.Count("run stop"), 1u);
    EXPECT_FALSE(recv.HasThread());
}

// Everything at once: four network threads, a control thread that calls whatever there is, one that reads statistics,
// callbacks that call back in, and Start and Stop amid all of it. UDT_RACE_RESTARTS sets how often (10 with a thread of
// its own, which takes 200 ms each; 200 owner-driven, where a thread of ours makes the turns).
namespace
{

uint32 Restarts(uint32 dwElse) { return (uint32)FromEnv("UDT_RACE_RESTARTS", dwElse); }

class CWholeLoad
{
public:
    CWholeLoad(CAVGUdtRecv& recv, CCountingOwner& owner, bool bTurns) : m_recv(recv)
    {
        owner.m_fnOnRelease = [this] { CallBackIn(m_dwReleases++); };
        owner.m_fnOnRequest = [this] { CallBackIn(m_dwRequests++); };
        for (uint32 dwThread = 0; dwThread < (uint32)c_nNetThreads; ++dwThread)
            Begin([this, dwThread] { FeedOn(dwThread); });
        Begin(
            [this]
            {
                for (uint32 dwRound = 1; !m_bEnd; ++dwRound)
                    Control(dwRound);
            });
        Begin(
            [this]
            {
                while (!m_bEnd)
                    Read();
            });
        if (bTurns)
        {
            Begin(
                [this]
                {
                    while (!m_bEnd)
                    {
                        m_recv.RunTurn();
                        std::this_thread::yield();
                    }
                });
        }
    }
    ~CWholeLoad() { End(); }
    void End()
    {
        m_bEnd = true;
        for (std::thread& thread : m_vecThreads)
        {
            if (thread.joinable())
                thread.join();
        }
    }

private:
    void Begin(const std::function<void()>& fn) { m_vecThreads.emplace_back(fn); }

    void FeedOn(uint32 dwThread)
    {
        for (uint32 dwSeq = 1; !m_bEnd; ++dwSeq)
        {
            if (dwSeq % 13 == dwThread)
                continue; // lost
            const uint64 ullUin = 1 + (dwSeq / 100 + dwThread) % 4;
            const uint32 dwMedia = 5000 + dwSeq * 5;
            if (dwSeq % 2 == 0)
                Feed(m_recv, AudioPacket(ullUin, dwSeq).At(dwMedia), dwSeq * 4 + dwThread);
            else
                Feed(m_recv,
                     VideoPacket(ullUin, dwSeq, dwMedia, dwSeq % 30 == 1 ? def_FrameType_I : def_FrameType_P,
                                 (uint8)(dwSeq / 30), (uint8)(dwSeq % 30)),
                     dwSeq * 4 + dwThread);
            if (dwSeq % 25 == 0)
                xp_msleep(1);
        }
    }

    void Control(uint32 dwRound)
    {
        tagUDTRecvParams params;
        params.wTimelineDelta = (uint16)(50 + dwRound % 400);
        params.wQueuePeriod = (uint16)(500 + dwRound % 900);
        params.wUdtMode = (uint16)(dwRound / 16 % 2);
        params.wPushGopNum = (uint16)(dwRound % 3);
        params.wCalcRecvLossTime = (uint16)(1 + dwRound % 50);
        m_recv.UDTSetRecvParams(params);
        tagUDTRecvGuards stGuards;
        stGuards.dwMaxIntakePackets = dwRound % 4 * 200;
        stGuards.dwMaxStreamPackets = dwRound % 3 * 100;
        stGuards.dwMaxRequestsPerSecond = dwRound % 5 * 50;
        m_recv.SetGuards(stGuards);
        m_recv.UDTSetRecvRTT(dwRound % 500);
        m_recv.UDTEnableReGetPkg((boolean)(dwRound % 8 != 0));
        m_recv.SetRoomState(dwRound % 10 == 0 ? 1 : 3);
        m_recv.SetRoomState(3);
        if (dwRound % 5 == 0)
            m_recv.ClearRecvChn(1 + dwRound % 4, dwRound % 2 ? MEAVAudio : MEAVMaxVideo);
        if (dwRound % 50 == 0)
            m_recv.ClearRecvChn(0, 0xFF);
        xp_msleep(1);
    }

    void Read()
    {
        uint32 dw[4];
        tagRecvInfo stInfo;
        tagRecvChnStatInfo aInfo[16];
        tagPlayoutInfo stPlayout;
        m_recv.GetRecvInfo(stInfo);
        const uint32 dwNum = m_recv.GetRecvChnInfo(aInfo, 16);
        for (uint32 i = 1; i < dwNum; ++i)
        {
            EXPECT_TRUE(tagInPktKey(aInfo[i - 1].llAccount, (uint8)aInfo[i - 1].dwSubType) <
                        tagInPktKey(aInfo[i].llAccount, (uint8)aInfo[i].dwSubType));
        }
        m_recv.GetPlayoutInfo(1, stPlayout);
        tagUDTRecvGuardInfo stGuardInfo;
        m_recv.GetGuardInfo(stGuardInfo);
        m_recv.UDTCalcRecvLoss(dw[0], dw[1], dw[2], dw[3]);
        m_recv.GetDownPacketRecvInfo(dw[0], dw[1], dw[2], dw[3]);
        m_recv.HasThread();
        std::this_thread::yield();
    }

    // On the thread of a turn.
    void CallBackIn(uint32 dwCount)
    {
        if (dwCount % 7 == 0)
            Read();
        if (dwCount % 11 == 0)
            Feed(m_recv, AudioPacket(9, dwCount + 1).At(5000 + dwCount * 20), 7 + dwCount);
        if (dwCount % 500 == 499)
            m_recv.Stop(); // somebody starts it again
    }

    CAVGUdtRecv& m_recv;
    std::atomic<bool> m_bEnd{false};
    std::atomic<uint32> m_dwReleases{0};
    std::atomic<uint32> m_dwRequests{0};
    std::vector<std::thread> m_vecThreads;
};

} // namespace

TEST(ThreadedRace, TheWholeLoadAtOnceWithStartsAndStopsLeavesNothingBehind)
{
    for (const bool bOwnerDriven : {true, false})
    {
        const int nLiveBefore = CRigPacket::Live();
        const uint32 dwRestarts = Restarts(bOwnerDriven ? 200 : 10);
        CCountingOwner owner;
        {
            CAVGUdtRecv recv(&owner);
            recv.SetOwnerDriven((boolean)bOwnerDriven);
            recv.SetRoomState(3);
            recv.Start();
            CWholeLoad load(recv, owner, bOwnerDriven);
            for (uint32 dwRun = 0; dwRun < dwRestarts; ++dwRun)
            {
                xp_msleep(dwRun % 4);
                recv.Stop();
                recv.Start();
                recv.SetRoomState(3);
            }
            recv.Start();
            const int nThen = owner.m_nReleases;
            EXPECT_TRUE(Await(
                [&]
                {
                    recv.Start(); // a callback may have stopped it
                    return owner.m_nReleases > nThen;
                }));
            load.End();
            recv.Stop();
            EXPECT_EQ(CRigPacket::Live(), nLiveBefore); // before the receiver is gone
            printf("%s: %u restarts, %d releases, %d requests\n", bOwnerDriven ? "owner-driven" : "threaded",
                   dwRestarts, (int)owner.m_nReleases, (int)owner.m_nRequests);
        }
        EXPECT_FALSE(owner.m_bDead);
        EXPECT_EQ(CRigPacket::Live(), nLiveBefore);
    }
}

TEST(ThreadedRace, DestructionUnderLoadWaitsForTheTurnAndGivesEverythingBack)
{
    const uint32 dwTimes = Restarts(40) / 4;
    for (uint32 dwTime = 0; dwTime < dwTimes; ++dwTime)
    {
        const int nLiveBefore = CRigPacket::Live();
        CCountingOwner owner;
        std::atomic<int> nInside{0};
        owner.m_fnOnRelease = [&nInside]
        {
            ++nInside;
            xp_msleep(1); // so that the end comes in the middle of a callback
            --nInside;
        };
        {
            CAVGUdtRecv recv(&owner);
            recv.SetRoomState(3);
            recv.Start();
            std::atomic<bool> bEnd{false};
            std::vector<std::thread> vecThreads;
            for (uint32 dwThread = 0; dwThread < (uint32)c_nNetThreads; ++dwThread)
            {
                vecThreads.emplace_back(
                    [&recv, &bEnd, dwThread]
                    {
                        for (uint32 dwSeq = 1; !bEnd; ++dwSeq)
                        {
                            Feed(recv, KeyFrame(1 + dwThread, dwSeq, 5000 + dwSeq), dwSeq);
                            if (dwSeq % 20 == 0)
                                xp_msleep(1);
                        }
                    });
            }
            EXPECT_TRUE(Await([&] { return owner.m_nReleases > 5; }));
            // Nobody may call what is being destroyed. The buffers are full, and the worker is at it.
            bEnd = true;
            for (std::thread& thread : vecThreads)
                thread.join();
        }
        EXPECT_EQ(nInside, 0);
        EXPECT_EQ(CRigPacket::Live(), nLiveBefore);
    }
}
