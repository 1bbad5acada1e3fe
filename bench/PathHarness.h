#ifndef PATHHARNESS_H
#define PATHHARNESS_H

/**
 * The bench that packets are driven over: arrivals, packet objects, an owner that counts, and a receiver that is
 * stepped every 10 ms of virtual time. Benchmarks, the instruction counter and the peers use the same arrivals.
 *
 * Nothing is measured here. `CPathRun::Turns` is the loop to measure; `CheckSince` says whether it did the work
 * that its case promises.
 */

#include "AVGUDTRecv.h"

#include <memory>
#include <string>
#include <vector>

// ---- Arrivals --------------------------------------------------------------------------------------------------

/// One packet that reaches the receiver. Sequence, GOP and media time count from the beginning of the cycle.
struct tagArrival
{
    uint32 dwMs; ///< since the cycle began
    uint32 dwSeq;
    uint32 dwMediaMs;
    uint32 dwLost; ///< packets that this arrival finds missing for good since the last one of its stream
    uint16 wStream;
    uint8 cGopIdx;
    uint8 cFrmIdx;
    uint8 cPkgIdx;
    uint8 cPkgNum;
    uint8 cFrmType;
};

struct tagArrivalStream
{
    uint64 ullUin;
    uint8 cSubType;
    uint16 wLen;
    uint32 dwSeqsPerCycle;
};

/// What arrives, again and again: after `dwMs` the same comes with sequences, GOPs and media times moved on.
struct tagArrivals
{
    uint32 dwMs = 0; ///< length of the cycle, whole seconds
    std::vector<tagArrivalStream> vecStreams;
    std::vector<tagArrival> vecArrivals; ///< by time
};

/// The rates that a single video stream comes in. 312/s are 2.5 Mbit/s in packets of 1000 bytes, 25 frames/s;
/// 1000/s are 8 Mbit/s likewise; 10000/s are 80 Mbit/s at 100 frames/s. A GOP takes a second.
bool IsPathRate(uint32 dwRate);

/// One video stream under a pattern:
///   a  in order                          b  5 % displaced by 1 to 5 packets
///   c  2 % lost, buffer of 500 packets   d  2 % lost, buffer of 2000
///   e  the 2 % come 250 packets late     f  the 2 % come 1000 packets late, buffer of 2000
tagArrivals StreamArrivals(char cPattern, uint32 dwRate);

/// The packets that a pattern's buffer shall hold on average. For a the least there is, for b the least that plays
/// every packet in order.
uint32 PatternDepth(char cPattern, uint32 dwRate);

/// A room: every user sends audio (50 packets/s of 100 bytes) and video of 2.5 Mbit/s (312 packets/s of 1000
/// bytes), nobody in step with anybody, in order and without loss.
tagArrivals RoomArrivals(uint32 dwUsers);

// ---- Packets ---------------------------------------------------------------------------------------------------

struct CBenchPacket : public UDTCodecBaseDecode_V2
{
    tagUdtPacketHeadInfo m_stHead;
    uint16 m_wStream = 0;
    CBenchPacket* m_pNext = nullptr; ///< in the pool
};

/// Packet objects that come and go without the heap. The pool keeps a reference to each.
class CPacketPool
{
public:
    explicit CPacketPool(size_t nPackets);
    CBenchPacket* Take()
    {
        CBenchPacket* p = m_pFree;
        if (p == nullptr)
            return Grow();
        m_pFree = p->m_pNext;
        ++m_nOut;
        return p;
    }
    void Give(CBenchPacket* p)
    {
        p->m_pNext = m_pFree;
        m_pFree = p;
        --m_nOut;
    }
    size_t Out() const { return m_nOut; }

private:
    CBenchPacket* Grow();

    std::vector<CScopePtr<CBenchPacket>> m_vecPackets;
    CBenchPacket* m_pFree = nullptr;
    size_t m_nOut = 0;
};

// ---- Owner -----------------------------------------------------------------------------------------------------

/// Reads the head, takes back what is played, counts what is asked for.
class CBenchOwner : public IUDTRecvEventCallBack
{
public:
    virtual ~CBenchOwner() = default;
    CBenchOwner(CPacketPool& pool, size_t nStreams) : m_pool(pool), m_vecLastSeq(nStreams, 0) {}
    void OnUDTRecvOutData(UDTCodecBaseDecode_V2* pPacket, int*) override
    {
        CBenchPacket* p = static_cast<CBenchPacket*>(pPacket);
        ++m_ullReleased;
        m_ullBackwards += (uint32)((int32)(p->dwSenderSeq - m_vecLastSeq[p->m_wStream]) <= 0);
        m_vecLastSeq[p->m_wStream] = p->dwSenderSeq;
        m_pool.Give(p);
    }
    int UdtRecvHandleEvent(WORD, uint8*, uint32 nBufSize, uint32, uint32) override
    {
        m_ullAsked += nBufSize;
        return 0;
    }
    int UdtParsePacketHeadInfo(uint8* pBuf, UdtPacketHeadInfo& stHead) override
    {
        stHead = *(const tagUdtPacketHeadInfo*)pBuf;
        return 0;
    }

    CPacketPool& m_pool;
    uint64 m_ullReleased = 0;
    uint64 m_ullBackwards = 0; ///< released behind a later one of their stream
    uint64 m_ullAsked = 0;     ///< sequences in loss requests
    std::vector<uint32> m_vecLastSeq;
};

// ---- Clock -----------------------------------------------------------------------------------------------------

enum emPathClock
{
    PATH_CLOCK_VIRTUAL = 0, ///< a tick source that returns a variable
    PATH_CLOCK_REAL =
        1 ///< no tick source: the library reads the machine's clock itself, every time. What the
          ///< clock says is read and dropped, and the schedule's time given instead.
};

// ---- Run -------------------------------------------------------------------------------------------------------

/// The one that takes the packets: the receiver, a peer, or nobody.
class IPathTaker
{
public:
    virtual ~IPathTaker() = default;
    virtual void Take(const tagArrivalStream& stStream, uint32 dwSeq, uint32 dwDownSeq,
                      CBenchPacket* pPacket) = 0;
    virtual void Turn() = 0;
    virtual void Play() {}                            ///< the buffer is full, playing may begin
    virtual size_t Held() const = 0;                  ///< packets in its buffers
    virtual uint64 Lost() const = 0;                  ///< packets that it counts as lost
    virtual bool CountsLost() const { return false; } ///< its count must be the schedule's
    virtual bool Orders() const { return true; }      ///< packets must come out in order
    virtual uint64 Late() const { return 0; } ///< packets that it dropped for being late: one in 100 at most
    virtual void Settle() {}                  ///< waits for what its other threads have in hand
};

struct tagPathConfig;
typedef std::unique_ptr<IPathTaker> (*PFN_MakeTaker)(CBenchOwner& owner, const tagPathConfig& stConfig);

/// The receiver under test, stepped by the bench.
std::unique_ptr<IPathTaker> MakeReceiver(CBenchOwner& owner, const tagPathConfig& stConfig);
/// Nobody: packets come back at once. What the bench itself costs.
std::unique_ptr<IPathTaker> MakeNobody(CBenchOwner& owner, const tagPathConfig& stConfig);

struct tagPathConfig
{
    const tagArrivals* pArrivals = nullptr;
    double dDepth = 0; ///< packets of all streams that the buffers hold on average
    emPathClock eClock = PATH_CLOCK_VIRTUAL;
    bool bTurnPerPacket = false; ///< a turn behind every packet, beside those every 10 ms
    PFN_MakeTaker pfnMake = MakeReceiver;

    /// Media in the buffers, ms.
    uint32 DepthMs() const;
};

/// What a run has counted so far.
struct tagPathMark
{
    uint64 ullFed = 0;
    uint64 ullReleased = 0;
    uint64 ullBackwards = 0;
    uint64 ullLate = 0;
    uint64 ullLost = 0;     ///< by the schedule
    uint64 ullLostSeen = 0; ///< by the taker
    uint64 ullAsked = 0;
    uint64 ullTurns = 0;
};

class CPathRun
{
public:
    /// Makes a run in steady state: buffers as deep as asked for, duplicate history full, push phase over.
    explicit CPathRun(const tagPathConfig& stConfig);
    ~CPathRun();
    CPathRun(const CPathRun&) = delete;
    CPathRun& operator=(const CPathRun&) = delete;

    /// The loop to measure: that many times 10 ms of arrivals and a turn.
    void Turns(uint32 dwTurns);

    tagPathMark Mark();
    /// Empty, or what is wrong: not all that came was played, the wrong number was lost, or the order is wrong.
    std::string CheckSince(const tagPathMark& stMark);

    double Depth() const { return m_dDepth; } ///< packets held, mean of the last seconds of the warm-up
    IPathTaker& Taker() { return *m_pTaker; }

private:
    void Build(uint32 dwPlayMs);
    template <bool bTurnPerPacket>
    void TurnsOf(uint32 dwTurns);

    tagPathConfig m_stConfig;
    double m_dDepth = 0;
    std::unique_ptr<CPacketPool> m_pPool;
    std::unique_ptr<CBenchOwner> m_pOwner;
    std::unique_ptr<IPathTaker> m_pTaker;
    uint64 m_ullTick = 0;     // the clock
    uint32 m_dwTurnTick = 0;  // of the last turn
    size_t m_nNext = 0;       // arrival
    uint32 m_dwCycleTick = 0; // of the present cycle's beginning
    uint32 m_dwCycle = 0;     // which
    uint32 m_dwDownSeq = 1000;
    uint64 m_ullFed = 0;
    uint64 m_ullLost = 0;
    uint64 m_ullTurns = 0;
};

#endif // PATHHARNESS_H
