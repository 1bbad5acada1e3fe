#include "AVGUDTThreadModel.h"
#include "xpmess.h"
#include <atomic>
#include <cstddef>
#include <cstring>
#include <gtest/gtest.h>
#include <string>
#include <thread>
#include <type_traits>
#include <vector>

namespace
{
class CWorker : public CAVGThreadModel
{
public:
    ~CWorker() override { Stop(); }

    uint32 Start()
    {
        m_bStop = false;
        return StartThread();
    }

    uint32 Stop()
    {
        m_bStop = true;
        return StopThread();
    }

    void Run() override
    {
        ++m_nRuns;
        m_bOnWorker = IsWorkerThread() != FALSE;
        m_ullIdInside = m_u64ThreadId;
#if defined(__linux__)
        char szName[16] = "";
        pthread_getname_np(pthread_self(), szName, sizeof(szName));
        m_strSeenName = szName;
#endif
        if (m_bStopItself)
        {
            m_uSelfStart = StartThread();
            m_bStop = true;
            m_uSelfStop = StopThread();
            m_uSelfStartAfterStop = StartThread();
        }
        while (!m_bStop)
            if (WaitTimeOut())
                ++m_nForced;
        m_bLeft = true;
    }

    using CAVGThreadModel::m_dwWaitTime;
    using CAVGThreadModel::m_strName;
    using CAVGThreadModel::m_u64ThreadId;

    std::atomic<bool> m_bStop{true};
    std::atomic<bool> m_bLeft{false};
    std::atomic<int> m_nRuns{0};
    std::atomic<int> m_nForced{0};
    std::atomic<bool> m_bOnWorker{false};
    std::atomic<uint64> m_ullIdInside{0};
    std::string m_strSeenName; // read after the join
    bool m_bStopItself = false;
    std::atomic<uint32> m_uSelfStart{99}, m_uSelfStop{99}, m_uSelfStartAfterStop{99};
};

void WaitUntil(const std::atomic<bool>& bFlag)
{
    while (!bFlag)
        std::this_thread::yield();
}

// Where the fields lie: the table first, then in their fixed order.
struct tagPlainModel
{
    void* pTable;
    xplock_t stLock;
    void* hEvt;
    void* hThread;
    uint64 u64ThreadId;
    uint32 dwWaitTime;
    std::string strName;
};

class CLayout : public CAVGThreadModel
{
public:
    template <class M>
    size_t At(const M& member) const
    {
        return (size_t)((const char*)&member - (const char*)static_cast<const CAVGThreadModel*>(this));
    }
    void Check() const
    {
        EXPECT_EQ(At(m_lock), offsetof(tagPlainModel, stLock));
        EXPECT_EQ(At(m_hEvt), offsetof(tagPlainModel, hEvt));
        EXPECT_EQ(At(m_hThread), offsetof(tagPlainModel, hThread));
        EXPECT_EQ(At(m_u64ThreadId), offsetof(tagPlainModel, u64ThreadId));
        EXPECT_EQ(At(m_dwWaitTime), offsetof(tagPlainModel, dwWaitTime));
        EXPECT_EQ(At(m_strName), offsetof(tagPlainModel, strName));
    }
};
} // namespace

TEST(ThreadModel, KeepsItsFieldsInOrder) { CLayout().Check(); }

TEST(ThreadModel, RunIsTheSlotBehindTheTwoDestructors)
{
#if defined(__GXX_ABI_VERSION)
    CWorker worker;
    worker.m_bStop = true;
    void** pTable;
    memcpy(&pTable, (void*)static_cast<CAVGThreadModel*>(&worker), sizeof(pTable));
    void (*pfnRun)(CAVGThreadModel*);
    memcpy(&pfnRun, &pTable[2], sizeof(pfnRun));
    pfnRun(&worker);
    EXPECT_EQ(worker.m_nRuns, 1);
#endif
}

TEST(ThreadModel, RunsOncePerStartOnItsOwnNamedThread)
{
    CWorker worker;
    worker.m_strName = "udt-worker";
    EXPECT_FALSE(worker.HasThread());
    EXPECT_EQ(worker.Start(), (uint32)THREAD_OK);
    EXPECT_TRUE(worker.HasThread());
    EXPECT_FALSE(worker.IsWorkerThread());
    EXPECT_EQ(worker.Start(), (uint32)THREAD_RUNNING); // not a second one
    EXPECT_EQ(worker.Stop(), (uint32)THREAD_OK);
    EXPECT_TRUE(worker.m_bLeft);
    EXPECT_FALSE(worker.HasThread());
    EXPECT_EQ(worker.m_u64ThreadId, 0u);
#if defined(__linux__)
    EXPECT_EQ(worker.m_nRuns == 1 ? worker.m_strSeenName : "udt-worker", "udt-worker");
#endif
}

TEST(ThreadModel, StopIsIdempotentAndTheThreadCanBeStartedAgain)
{
    CWorker worker;
    EXPECT_EQ(worker.Stop(), (uint32)THREAD_OK); // never started
    for (int i = 1; i <= 20; ++i)
    {
        worker.m_bLeft = false;
        EXPECT_EQ(worker.Start(), (uint32)THREAD_OK);
        EXPECT_EQ(worker.Stop(), (uint32)THREAD_OK);
        EXPECT_EQ(worker.Stop(), (uint32)THREAD_OK);
        EXPECT_EQ(worker.m_nRuns, i);
        EXPECT_TRUE(worker.m_bLeft);
    }
    EXPECT_TRUE(worker.m_bOnWorker);
    EXPECT_NE(worker.m_ullIdInside, 0u);
}

TEST(ThreadModel, OnTheWorkerItselfStopDoesNotWaitAndStartRefuses)
{
    CWorker worker;
    worker.m_bStopItself = true;
    for (int i = 1; i <= 5; ++i)
    {
        worker.m_bLeft = false;
        EXPECT_EQ(worker.Start(), (uint32)THREAD_OK);
        WaitUntil(worker.m_bLeft);
        EXPECT_EQ(worker.m_uSelfStart, (uint32)THREAD_ON_WORKER);
        EXPECT_EQ(worker.m_uSelfStop, (uint32)THREAD_ON_WORKER);
        EXPECT_EQ(worker.m_uSelfStartAfterStop, (uint32)THREAD_ON_WORKER);
        EXPECT_TRUE(
            worker.HasThread()); // nobody has waited for it yet; the next start does, every other time
        if (i % 2 != 0)
        {
            EXPECT_EQ(worker.StopThread(), (uint32)THREAD_OK);
            EXPECT_FALSE(worker.HasThread());
        }
        EXPECT_EQ(worker.m_nRuns, i);
    }
}

TEST(ThreadModel, AThreadThatEndedByItselfIsWaitedForByTheNextStart)
{
    CAVGThreadModel model; // its Run returns at once
    int nStarted = 0;
    for (int i = 0; i < 10000 && nStarted < 5; ++i)
    {
        const uint32 uResult = model.StartThread();
        if (uResult == THREAD_OK)
            ++nStarted;
        else
            ASSERT_EQ(uResult, (uint32)THREAD_RUNNING); // not ended yet
        xp_msleep(uResult == THREAD_OK ? 0 : 1);
    }
    EXPECT_EQ(nStarted, 5);
    // The destructor waits for the last one.
}

TEST(ThreadModel, OwnerDrivenMakesNoThread)
{
    CWorker worker;
    EXPECT_FALSE(worker.IsOwnerDriven());
    worker.SetOwnerDriven(2); // any byte but 0
    EXPECT_EQ(worker.IsOwnerDriven(), TRUE);
    EXPECT_EQ(worker.Start(), (uint32)THREAD_OK);
    EXPECT_EQ(worker.Start(), (uint32)THREAD_OK);
    EXPECT_FALSE(worker.HasThread());
    EXPECT_FALSE(worker.IsWorkerThread());
    EXPECT_EQ(worker.Stop(), (uint32)THREAD_OK);
    EXPECT_EQ(worker.m_nRuns, 0);

    worker.SetOwnerDriven(FALSE);
    EXPECT_EQ(worker.Start(), (uint32)THREAD_OK);
    EXPECT_TRUE(worker.HasThread());
    EXPECT_EQ(worker.Stop(), (uint32)THREAD_OK);
    EXPECT_EQ(worker.m_nRuns, 1);
}

TEST(ThreadModel, ForceTimeOutAndStopEndAWaitEarly)
{
    CWorker worker;
    worker.m_dwWaitTime = 3600000; // an hour, unless ended
    EXPECT_EQ(worker.Start(), (uint32)THREAD_OK);
    EXPECT_EQ(worker.ForceTimeOut(), (uint32)THREAD_OK);
    while (worker.m_nForced == 0)
        std::this_thread::yield();
    EXPECT_EQ(worker.Stop(), (uint32)THREAD_OK);
    EXPECT_TRUE(worker.m_bLeft);
}

TEST(ThreadModel, TheEntryRunsTheObjectItIsGiven)
{
    CWorker worker;
    EXPECT_EQ(CAVGThreadModel::Thread(static_cast<CAVGThreadModel*>(&worker)), nullptr);
    EXPECT_EQ(worker.m_nRuns, 1);
    EXPECT_TRUE(worker.m_bOnWorker);
    EXPECT_FALSE(worker.IsWorkerThread()); // the calling thread is its own again
}

TEST(ThreadModel, AnObjectDestroyedOnItsOwnThreadLetsTheThreadGo)
{
    class CSuicide : public CAVGThreadModel
    {
    public:
        explicit CSuicide(std::atomic<bool>& bGone) : m_rGone(bGone) {}
        void Run() override
        {
            std::atomic<bool>& bGone = m_rGone;
            while (!HasThread()) // the starter has not stored the handle yet
                std::this_thread::yield();
            m_lock.Lock(); // nor left StartThread
            m_lock.Unlock();
            delete this;
            bGone = true;
        }
        std::atomic<bool>& m_rGone;
    };
    std::atomic<bool> bGone{false};
    CAVGThreadModel* pModel = new CSuicide(bGone);
    pModel->StartThread();
    WaitUntil(bGone);
}

TEST(ThreadModel, StartsAndStopsFromSeveralThreadsWaitForOneAnother)
{
    CWorker worker;
    worker.m_bStop = true; // every Run ends at once
    std::vector<std::thread> threads;
    std::atomic<int> nStarted{0};
    for (int i = 0; i < 4; ++i)
        threads.emplace_back(
            [&]
            {
                for (int k = 0; k < 100; ++k)
                {
                    if (worker.StartThread() == THREAD_OK)
                        ++nStarted;
                    worker.StopThread();
                }
            });
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_FALSE(worker.HasThread());
    EXPECT_EQ(worker.m_nRuns, nStarted);
    EXPECT_GE(nStarted, 100);
}
