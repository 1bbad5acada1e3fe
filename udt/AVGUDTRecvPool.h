#ifndef AVGUDTRECVPOOL_H
#define AVGUDTRECVPOOL_H

/**
 * @file
 * Steps many owner-driven receivers with few threads.
 *
 * A receiver of its own thread wakes that thread a hundred times a second, whether anything came or not. Where a
 * process holds hundreds of receivers, as a recorder or a gateway does, waking costs more than the work. A pool
 * makes the same turns, 10 ms apart, from a handful of threads.
 */

#include "AVGUDTRecv.h"
#include "xptypes.h"

#include <chrono>
#include <condition_variable>
#include <deque>
#include <list>
#include <mutex>
#include <thread>
#include <vector>

/// Places of `tagRecvPoolInfo::aullLateness`.
constexpr uint32 c_dwRecvPoolLateClasses = 24;

/** What a pool has done since it was made. */
struct tagRecvPoolInfo
{
    uint32 dwThreads;      ///< that step receivers
    uint32 dwReceivers;    ///< in the pool now
    uint64 ullTurns;       ///< turns made
    uint64 ullLateTurns;   ///< of those, begun more than `c_dwRecvPoolLateUs` after they were due
    uint64 ullLatenessSum; ///< us, of all turns; divided by `ullTurns` the mean
    uint32 dwLatenessMax;  ///< us, of the latest turn
    uint64 aullLateness
        [c_dwRecvPoolLateClasses]; ///< turns by lateness: [0] below 1 us, [n] below 2^n us, the last all else

    tagRecvPoolInfo()
        : dwThreads(0), dwReceivers(0), ullTurns(0), ullLateTurns(0), ullLatenessSum(0), dwLatenessMax(0),
          aullLateness()
    {
    }

    /// us that a share of the turns, in 1/10000, was not later than; rounded up to a power of two. 0 without turns.
    uint32 LatenessOf(uint32 dwShare) const;
};

constexpr uint32 c_dwRecvPoolTurnUs = 10000; ///< between the turns of a receiver
constexpr uint32 c_dwRecvPoolSlotUs = 5000;  ///< turns that are due within one slot are made at one waking
constexpr uint32 c_dwRecvPoolLateUs = 5000;  ///< a turn this much behind its time counts as late

/** Threads that make the turns of owner-driven receivers; see the head of this file. */
class CAVGUdtRecvPool
{
public:
    /// @param dwThreads threads that step; 0: one per processor. Where the system gives fewer, the pool has fewer;
    ///                  see `tagRecvPoolInfo::dwThreads`.
    explicit CAVGUdtRecvPool(uint32 dwThreads = 0);

    /// Ends the threads. Receivers still in the pool are not stepped any more, and otherwise left alone. Not to be
    /// called from a receiver's callback.
    ~CAVGUdtRecvPool();

    CAVGUdtRecvPool(const CAVGUdtRecvPool&) = delete;
    CAVGUdtRecvPool& operator=(const CAVGUdtRecvPool&) = delete;

    /**
     * Has a receiver stepped from now on: 10 ms apart, by one thread at a time, not always the same. Any thread.
     * @param pRecv borrowed: it must be owner-driven (`SetOwnerDriven(TRUE)`), its owner starts and stops it, and it
     *              must stay alive until `Remove` has returned
     * @return FALSE when it is null, in this pool already, or there is no memory or no thread to step it
     */
    boolean Add(CAVGUdtRecv* pRecv);

    /**
     * Has a receiver stepped no more. When it returns no turn of it is under way and none will come; called from
     * inside one of that receiver's own callbacks it returns at once, and that turn is the last. Any thread.
     * @return FALSE when it was not in the pool
     */
    boolean Remove(CAVGUdtRecv* pRecv);

    /// Any thread.
    void GetInfo(tagRecvPoolInfo& stInfo);

private:
    typedef std::chrono::steady_clock CClock;

    struct tagMember
    {
        CAVGUdtRecv* pRecv;
        CClock::time_point tDue;
    };
    struct tagStepping // a member out at a thread
    {
        tagMember stMember;
        std::thread::id idStepper;
        bool bRemoved; // does not come back
    };
    typedef std::deque<tagMember> CWaiting;
    typedef std::list<tagStepping> CStepping;

    void Work();
    CClock::time_point Step(std::unique_lock<std::mutex>& lock, tagStepping& stStepping,
                            CClock::time_point tNow);
    void Enqueue(const tagMember& stMember);
    CWaiting::iterator FindWaiting(const CAVGUdtRecv* pRecv);
    CStepping::iterator FindStepping(const CAVGUdtRecv* pRecv);
    void CountTurn(uint32 dwLateUs);
    static CClock::time_point NextDue(CClock::time_point tDue, CClock::time_point tNow);

    std::mutex m_lock;                // guards all below
    std::condition_variable m_cvWork; // the first waiting member changed, or the end came
    std::condition_variable m_cvDone; // a member that was removed meanwhile has ended its turn
    CWaiting m_deqWaiting;            // by tDue
    CStepping m_lstStepping;          // one per thread; null receiver: that thread steps nobody
    bool m_bTimed;                    // some thread waits until the first member is due
    uint32 m_dwIdle;                  // threads that wait to be called
    bool m_bCalled;                   // one of them was called and is on its way
    bool m_bEnd;
    tagRecvPoolInfo m_stInfo;
    std::vector<std::thread> m_vecThreads; // constant between construction and destruction
};

#endif // AVGUDTRECVPOOL_H
