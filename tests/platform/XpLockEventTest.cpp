#include "xpevent.h"
#include "xplock.h"
#include "xpmess.h"
#include "xpthread.h"
#include "xptypes.h"
#include <atomic>
#include <gtest/gtest.h>
#include <string>
#include <thread>
#include <type_traits>
#include <vector>

static_assert(std::is_same<uint64, unsigned long long>::value, "%llu prints it");
static_assert(std::is_same<boolean, unsigned char>::value && TRUE == 1 && FALSE == 0, "a byte");
static_assert(std::is_same<WORD, uint16>::value, "a word");
static_assert(!std::is_copy_constructible<CXPLock>::value && !std::is_copy_assignable<CXPLock>::value,
              "its own");

TEST(Lock, TryByTheHolderIsFalseAndByAnybodyAfterItIsTrue)
{
    CXPLock lock;
    lock.Lock();
    EXPECT_EQ(lock.Try(), FALSE);
    lock.Unlock();
    EXPECT_EQ(lock.Try(), TRUE);
    lock.Unlock();
}

TEST(Lock, TryWhileAnotherThreadHoldsItIsFalse)
{
    CXPLock lock;
    boolean bOther = TRUE;
    {
        CXPAutoLock guard(lock);
        std::thread([&] { bOther = lock.Try(); }).join();
    }
    EXPECT_EQ(bOther, FALSE);
    EXPECT_EQ(lock.Try(), TRUE); // the guard let go
    lock.Unlock();
}

TEST(Lock, LetsOneThreadInAtATime)
{
    xplock_t stLock;
    xplock_init(&stLock);
    uint32 dwCount = 0;
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i)
        threads.emplace_back(
            [&]
            {
                for (int k = 0; k < 10000; ++k)
                {
                    xplock_lock(&stLock);
                    ++dwCount;
                    xplock_unlock(&stLock);
                }
            });
    for (std::thread& thread : threads)
        thread.join();
    xplock_destroy(&stLock);
    EXPECT_EQ(dwCount, 40000u);
}

TEST(Event, ASignalLetsOneWaitThroughAndSignalsDoNotAddUp)
{
    hxpevent hEvent = xpevent_create(0, 0);
    ASSERT_NE(hEvent, nullptr);
    EXPECT_EQ(xpevent_wait(hEvent, 0), FALSE);
    xpevent_signal(hEvent);
    xpevent_signal(hEvent);
    EXPECT_EQ(xpevent_wait(hEvent, 0), TRUE);
    EXPECT_EQ(xpevent_wait(hEvent, 0), FALSE);
    xpevent_signal(hEvent);
    xpevent_reset(hEvent);
    EXPECT_EQ(xpevent_wait(hEvent, 1), FALSE);
    xpevent_destory(hEvent);
}

TEST(Event, AManualOneStaysSignalledUntilReset)
{
    hxpevent hEvent = xpevent_create(1, 1);
    EXPECT_EQ(xpevent_wait(hEvent, 0), TRUE);
    EXPECT_EQ(xpevent_wait(hEvent, c_dwWaitForever), TRUE);
    xpevent_reset(hEvent);
    EXPECT_EQ(xpevent_wait(hEvent, 0), FALSE);
    xpevent_destory(hEvent);
}

TEST(Event, WakesAThreadThatWaitsForever)
{
    hxpevent hEvent = xpevent_create(0, 0);
    hxpevent hBack = xpevent_create(0, 0);
    std::thread waiter(
        [&]
        {
            EXPECT_EQ(xpevent_wait(hEvent, c_dwWaitForever), TRUE);
            xpevent_signal(hBack);
        });
    xpevent_signal(hEvent);
    EXPECT_EQ(xpevent_wait(hBack, 60000), TRUE);
    waiter.join();
    xpevent_destory(hEvent);
    xpevent_destory(hBack);
}

TEST(Event, ANullHandleIsToleratedEverywhere)
{
    xpevent_signal(nullptr);
    xpevent_reset(nullptr);
    EXPECT_EQ(xpevent_wait(nullptr, c_dwWaitForever), FALSE);
    xpevent_destory(nullptr);
}

namespace
{
struct tagNamed
{
    const char* pszName = nullptr;
    char szSeen[64] = "";
    uint64 ullId = 0;
};

void* NameYourself(void* pArg)
{
    tagNamed* pNamed = (tagNamed*)pArg;
    xpthread_setname(pNamed->pszName);
    pthread_getname_np(pthread_self(), pNamed->szSeen, sizeof(pNamed->szSeen));
    pNamed->ullId = xpthread_selfid();
    return nullptr;
}

std::string NameSeen(const char* pszName)
{
    tagNamed stNamed;
    stNamed.pszName = pszName;
    hxpthread hThread = xpthread_create(NameYourself, &stNamed);
    EXPECT_NE(hThread, nullptr);
    xpthread_join(hThread);
    EXPECT_NE(stNamed.ullId, 0u);
    EXPECT_NE(stNamed.ullId, xpthread_selfid());
    return stNamed.szSeen;
}
} // namespace

TEST(ThreadHandle, AThreadIsMadeJoinedAndKnownByItsName)
{
    EXPECT_EQ(NameSeen("udt-recv"), "udt-recv");
    EXPECT_EQ(NameSeen("fifteen-bytes-x"), "fifteen-bytes-x");
    EXPECT_EQ(NameSeen("sixteen-bytes-xy"), "sixteen-bytes-x");
}

TEST(ThreadHandle, ALongNameIsNeverCutInsideACharacter)
{
    EXPECT_EQ(NameSeen("thirteen-byte\xE2\x82\xAC"), "thirteen-byte"); // the sign would need bytes 14 to 16
    EXPECT_EQ(NameSeen("twelve-bytes\xE2\x82\xAC-"), "twelve-bytes\xE2\x82\xAC");
}

TEST(ThreadHandle, NullIsTolerated)
{
    xpthread_join(nullptr);
    xpthread_detach(nullptr);
    xpthread_setname(nullptr);
    xpthread_setname("");
}
