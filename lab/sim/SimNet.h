// Packets on their way: the sources they come from and what a network does to them.
#ifndef LAB_SIMNET_H
#define LAB_SIMNET_H

#include "SimRandom.h"
#include "SimScenario.h"
#include "xptypes.h"

#include <array>
#include <deque>
#include <memory>
#include <vector>

namespace lab
{

enum emSimKind
{
    SIM_MEDIA,   // a media packet on its first way
    SIM_ANSWER,  // a media packet that was asked for
    SIM_REQUEST, // uIndex: the message, see CSimCall
    SIM_PING     // uIndex: the measurement, on its way to the relay or back
};

// One datagram on its way. What it carries is in the books of the run.
struct tagSimPacket
{
    uint32 uStream = 0;
    uint32 uIndex = 0; // of the packet in its stream, from 0
    uint32 dwDownSeq = 0;
    uint16 wBytes = 0; // on the wire
    uint8 cKind = SIM_MEDIA;
    bool bCopy = false; // the network made it
};

constexpr int64 c_llNever = INT64_MAX;

// Something that gives packets at known times: a sender, a relay, or an impairment around another source.
class ISimSource
{
public:
    virtual ~ISimSource() = default;
    // When something happens here next, in microseconds since the run began; c_llNever when nothing does. It may
    // become earlier when somebody puts something in.
    virtual int64 NextUs() const = 0;
    // Lets it happen; call it at NextUs. True: a packet came out. False: only something inside moved on.
    virtual bool Take(tagSimPacket& stPacket) = 0;
};
typedef std::unique_ptr<ISimSource> SimSourcePtr;

enum emSimDrop
{
    SIM_DROP_LOSS,   // on the way
    SIM_DROP_OUTAGE, // nothing gets through at the moment
    SIM_DROP_QUEUE,  // the bottleneck's queue was full
    SIM_DROPS
};

enum emSimWay
{
    SIM_UP,
    SIM_DOWN,
    SIM_REQUESTS,
    SIM_BACK,
    SIM_WAYS
};

// Is told what did not get through.
class ISimDropWatch
{
public:
    virtual void OnDropped(emSimWay eWay, const tagSimPacket& stPacket, emSimDrop eWhy) = 0;

protected:
    ~ISimDropWatch() = default;
};

// Packets by time; of the same time, those put in first come out first.
class CSimHeap
{
public:
    void Push(int64 llTimeUs, const tagSimPacket& stPacket);
    int64 NextUs() const { return m_vec.empty() ? c_llNever : m_vec.front().llTimeUs; }
    tagSimPacket Pop();
    bool Empty() const { return m_vec.empty(); }

private:
    struct tagItem
    {
        int64 llTimeUs;
        uint64 ullOrder;
        tagSimPacket stPacket;
        bool operator<(const tagItem& st) const
        {
            return llTimeUs != st.llTimeUs ? llTimeUs > st.llTimeUs : ullOrder > st.ullOrder;
        }
    };
    std::vector<tagItem> m_vec;
    uint64 m_ullOrder = 0;
};

// What others put in comes out at its time.
class CSimInbox : public ISimSource
{
public:
    void Push(int64 llTimeUs, const tagSimPacket& stPacket) { m_heap.Push(llTimeUs, stPacket); }
    int64 NextUs() const override { return m_heap.NextUs(); }
    bool Take(tagSimPacket& stPacket) override
    {
        stPacket = m_heap.Pop();
        return true;
    }

private:
    CSimHeap m_heap;
};

// Two sources as one. The first goes first when both have something at the same time.
class CSimMerge : public ISimSource
{
public:
    CSimMerge(SimSourcePtr pA, SimSourcePtr pB) : m_pA(std::move(pA)), m_pB(std::move(pB)) {}
    int64 NextUs() const override { return std::min(m_pA->NextUs(), m_pB->NextUs()); }
    bool Take(tagSimPacket& stPacket) override
    {
        return m_pA->NextUs() <= m_pB->NextUs() ? m_pA->Take(stPacket) : m_pB->Take(stPacket);
    }

private:
    SimSourcePtr m_pA;
    SimSourcePtr m_pB;
};

// ---- Impairments -------------------------------------------------------------------------------------------------

// Decides packet by packet what is lost. Bernoulli: each with the same chance. Gilbert-Elliott: nothing is lost in
// the good state and everything in the bad one; with p = chance of good to bad and q = bad to good per packet, the
// mean burst is 1/q packets and the loss p/(p+q).
class CSimLoss
{
public:
    CSimLoss(const tagSimPath& stPath, CSimRandom random);
    // True: lost. eWhy tells by what.
    bool Loses(int64 llTimeUs, emSimDrop& eWhy);

private:
    bool InOutage(int64 llTimeUs);

    const tagSimPath& m_stPath;
    CSimRandom m_random;
    double m_dToBad = 0;
    double m_dToGood = 1;
    bool m_bBad = false;
    size_t m_nOutage = 0;
    size_t m_nCursor = 0;
    size_t m_nPattern = 0;
};

class CSimLossy : public ISimSource
{
public:
    CSimLossy(SimSourcePtr pInner, const tagSimPath& stPath, CSimRandom random, emSimWay eWay,
              ISimDropWatch& watch)
        : m_pInner(std::move(pInner)), m_loss(stPath, random), m_eWay(eWay), m_watch(watch)
    {
    }
    int64 NextUs() const override { return m_pInner->NextUs(); }
    bool Take(tagSimPacket& stPacket) override;

private:
    SimSourcePtr m_pInner;
    CSimLoss m_loss;
    const emSimWay m_eWay;
    ISimDropWatch& m_watch;
};

// A link of limited rate with a queue in front that drops what does not fit in (drop tail). A packet leaves when its
// last byte has been served. With delivery opportunities each serves up to 1500 bytes of what waits at that moment;
// what an opportunity does not use is gone.
class CSimBottleneck : public ISimSource
{
public:
    CSimBottleneck(SimSourcePtr pInner, const tagSimPath& stPath, emSimWay eWay, ISimDropWatch& watch);
    int64 NextUs() const override;
    bool Take(tagSimPacket& stPacket) override;

    uint64 LimitBytes() const { return m_ullLimit; }

private:
    void Admit(int64 llNowUs, const tagSimPacket& stPacket);
    void StartService(int64 llNowUs);
    int64 ServedByRate(int64 llNowUs, double dBits);
    void NextOpportunity(int64 llNotBeforeUs);
    int64 OpportunityUs() const;

    SimSourcePtr m_pInner;
    const tagSimPath& m_stPath;
    const emSimWay m_eWay;
    ISimDropWatch& m_watch;
    uint64 m_ullLimit = 0;
    uint64 m_ullQueued = 0; // bytes
    std::deque<tagSimPacket> m_queue;
    int64 m_llDoneUs = c_llNever; // of the packet at the front
    // Rate in steps
    size_t m_nCursor = 0;
    double m_dCarry = 0; // part of a microsecond that the last service left over
    // Opportunities
    int64 m_llRoundUs = 0;
    size_t m_nOpportunity = 0;
    uint32 m_uCredit = 1500; // bytes that the present opportunity can still serve
};

// Delay: constant or in steps or recorded, plus a normal jitter, plus a hold for packets that are to be overtaken.
// Jitter wanders: it is a first-order autoregressive process in time, as the filling of queues along a way is, and
// no packet overtakes another. (Every packet for itself would make each wait for the slowest just before it, which
// is a longer delay and hardly any jitter.) With bJitterReorders every packet is for itself and may overtake.
class CSimDelay : public ISimSource
{
public:
    CSimDelay(SimSourcePtr pInner, const tagSimPath& stPath, CSimRandom random);
    int64 NextUs() const override { return std::min(m_pInner->NextUs(), m_heap.NextUs()); }
    bool Take(tagSimPacket& stPacket) override;

private:
    int64 BaseUs(int64 llNowUs);
    int64 JitterUs(int64 llNowUs);

    SimSourcePtr m_pInner;
    const tagSimPath& m_stPath;
    CSimRandom m_random;
    CSimHeap m_heap;
    int64 m_llLastUs = 0;
    double m_dWander = 0;    // the jitter in force, in deviations
    int64 m_llWanderUs = -1; // since when; -1: not yet
    size_t m_nStep = 0;
    size_t m_nCursor = 0;
};

class CSimDuplicate : public ISimSource
{
public:
    CSimDuplicate(SimSourcePtr pInner, const tagSimPath& stPath, CSimRandom random)
        : m_pInner(std::move(pInner)), m_stPath(stPath), m_random(random)
    {
    }
    int64 NextUs() const override { return std::min(m_pInner->NextUs(), m_heap.NextUs()); }
    bool Take(tagSimPacket& stPacket) override;

private:
    SimSourcePtr m_pInner;
    const tagSimPath& m_stPath;
    CSimRandom m_random;
    CSimHeap m_heap;
};

// The source with all impairments of a direction around it, and no more than it has. stPath and watch must outlive
// the result.
SimSourcePtr Impair(SimSourcePtr pInner, const tagSimPath& stPath, emSimWay eWay, uint64 ullSeed,
                    uint64 ullLink, ISimDropWatch& watch);

} // namespace lab

#endif
