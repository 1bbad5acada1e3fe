/**
 * What does a worker turn cost, and what does a packet cost on its way through?
 *
 * A room of 1, 10 or 50 users in steady state. Each sends audio (50 packets/s of 100 bytes) and big video of
 * 2.5 Mbit/s: 25 frames/s, a GOP of one second, an I frame of 40 packets and P frames of 9, 1220 bytes each,
 * paced over the 40 ms of the frame. Users are not in step, neither by frame nor by GOP. Virtual time, a turn every 10 ms.
 *
 *   Turn/users:U/buffer_ms:B/loss_pct:L        RunTurn alone, an iteration is a turn
 *   Way/users:U/buffer_ms:B/loss_pct:L         UDTReceiveNetData of all that arrives in 10 ms, then RunTurn;
 *                                              an iteration is such a step
 *
 * Buffers hold 0.5, 2 and 6 seconds: the lower and the upper bound of the playout target are both set to the
 * length, and the room starts playing when that much has arrived. The case is thrown out when the measured
 * buffer is off by more than 150 ms. With a loss, that share of the packets never comes and no request is
 * answered.
 *
 * Measured: intake with its locks and its copy of the head, filing, duplicate history (6 s of sequences per
 * stream, whatever the buffer), GOP tracking, loss walks, clocks, release, loss scan, housekeeping,
 * statistics; and an owner that copies a 16-byte head, counts releases and drops requests. Not measured: the
 * making of packets (each is an object from a ring, its head rewritten before the clock is read) and logging
 * (nobody listens). All times are CPU time of the thread, so that a busy machine does not spoil them; reading
 * that clock costs about 0.3 us of each iteration.
 *
 *   ns_per_pkt      measured time per released packet
 *   allocs_per_pkt  calls of operator new per released packet, in what is measured
 *   allocs_per_iter the same per iteration
 *   pkts_per_iter   released packets per iteration
 *   buf_ms          media between playout and the newest packet, mean over users
 *   buf_pkts        buffered packets, all streams
 */

#include "AVGUDTRecv.h"
#include "RecvRig.h"
#include "VirtualClock.h"

#include <benchmark/benchmark.h>

#include <cstdlib>
#include <cstring>
#include <ctime>
#include <memory>
#include <new>
#include <vector>

// ---- Allocations -------------------------------------------------------------------------------------------

namespace
{
uint64 g_ullAllocs = 0; // this program has one thread
}

// Not inlined: seen side by side with malloc and free, the compiler warns of a pair that does not match.
__attribute__((noinline)) void* operator new(size_t nSize)
{
    ++g_ullAllocs;
    void* p = malloc(nSize != 0 ? nSize : 1);
    if (p == nullptr)
        throw std::bad_alloc();
    return p;
}
void* operator new[](size_t nSize) { return operator new(nSize); }
__attribute__((noinline)) void operator delete(void* p) noexcept { free(p); }
void operator delete[](void* p) noexcept { operator delete(p); }
void operator delete(void* p, size_t) noexcept { operator delete(p); }
void operator delete[](void* p, size_t) noexcept { operator delete(p); }

namespace
{

// ---- Owner -------------------------------------------------------------------------------------------------

struct CBenchPacket : public UDTCodecBaseDecode_V2
{
    tagUdtPacketHeadInfo m_stHead;
    bool m_bInside = false; // fed and not released
};

class CBenchOwner : public IUDTRecvEventCallBack
{
public:
    void OnUDTRecvOutData(UDTCodecBaseDecode_V2* pPacket, int*) override
    {
        static_cast<CBenchPacket*>(pPacket)->m_bInside = false;
        ++m_ullReleased;
    }
    int UdtRecvHandleEvent(WORD, uint8*, uint32 nBufSize, uint32, uint32) override
    {
        m_ullAsked += nBufSize;
        return 0;
    }
    int UdtParsePacketHeadInfo(uint8* pBuf, UdtPacketHeadInfo& stHead) override
    {
        memcpy(&stHead, pBuf, sizeof(stHead));
        return 0;
    }

    uint64 m_ullReleased = 0;
    uint64 m_ullAsked = 0;
};

// ---- Senders -------------------------------------------------------------------------------------------------

constexpr uint32 c_dwStepMs = 10;
constexpr uint32 c_dwAudioStepMs = 20;
constexpr uint32 c_dwFrameMs = 40;
constexpr uint32 c_dwGopFrames = 25;
constexpr uint32 c_dwIPackets = 40;
constexpr uint32 c_dwPPackets = 9;
constexpr uint32 c_dwVideoPacketsPerSecond = c_dwIPackets + (c_dwGopFrames - 1) * c_dwPPackets; // 256
constexpr uint16 c_wVideoBytes = 1220;                                                          // 2.5 Mbit/s
constexpr uint16 c_wAudioBytes = 100;
constexpr uint32 c_dwMediaBase = 100000;

// Packet objects that are used again and again; the ring is longer than the buffer.
class CPacketRing
{
public:
    CPacketRing(uint64 ullUin, uint8 cSubType, uint16 wLen, size_t nPackets) : m_vecPackets(nPackets)
    {
        for (CScopePtr<CBenchPacket>& pPacket : m_vecPackets)
        {
            pPacket = new CBenchPacket;
            pPacket->wLen = wLen;
            pPacket->u64Uin = ullUin;
            pPacket->m_stHead.cSubType = cSubType;
            pPacket->bufBody.pbuf = (uint8*)&pPacket->m_stHead;
            pPacket->bufBody.ulen = sizeof(pPacket->m_stHead);
        }
    }
    CBenchPacket* Next()
    {
        CBenchPacket* pPacket = m_vecPackets[m_nNext].p;
        m_nNext = (m_nNext + 1) % m_vecPackets.size();
        return pPacket->m_bInside ? nullptr : pPacket;
    }

private:
    std::vector<CScopePtr<CBenchPacket>> m_vecPackets;
    size_t m_nNext = 0;
};

struct tagArrival
{
    CBenchPacket* pPacket;
    uint64 ullUin;
    uint32 dwSendSeq;
    uint32 dwDownSeq;
    uint8 cSubType;
};

struct tagBenchUser
{
    tagBenchUser(uint64 ullAccount, uint32 dwBufferMs)
        : ullUin(ullAccount), dwDelayMs((uint32)ullAccount * 7 % 10 * c_dwStepMs),
          dwFirstFrame((uint32)ullAccount * 7 % c_dwGopFrames),
          ringAudio(ullAccount, MEAVAudio, c_wAudioBytes, (dwBufferMs + 3000) / c_dwAudioStepMs),
          ringVideo(ullAccount, MEAVMaxVideo, c_wVideoBytes,
                    (size_t)(dwBufferMs + 3000) * c_dwVideoPacketsPerSecond / 1000)
    {
    }

    uint64 ullUin;
    uint32 dwDelayMs;    // a multiple of the step: users do not send in step
    uint32 dwFirstFrame; // of its GOP, nor have they their I frames at the same time
    CPacketRing ringAudio;
    CPacketRing ringVideo;
    uint32 dwAudioSeq = 1000;
    uint32 dwVideoSeq = 1000;
};

// ---- A room in steady state ------------------------------------------------------------------------------------

class CRoom
{
public:
    CRoom(uint32 dwUsers, uint32 dwBufferMs, uint32 dwLossPct)
        : m_clock(1000), m_recv(&m_owner), m_dwBufferMs(dwBufferMs), m_dwLossPct(dwLossPct)
    {
        for (uint32 i = 0; i < dwUsers; ++i)
            m_vecUsers.emplace_back(new tagBenchUser(1000 + i, dwBufferMs));
        m_vecArrivals.reserve(dwUsers * 32);

        m_recv.SetOwnerDriven(TRUE);
        m_recv.Start();
        tagUDTRecvParams params;
        params.wTimelineDelta = (uint16)dwBufferMs;
        params.wQueuePeriod = (uint16)dwBufferMs;
        params.wPushGopNum = 2;
        m_recv.UDTSetRecvParams(params);
        m_recv.SetRoomState(1); // any but 0, which is forced to playing after 2.5 s

        // The room plays when the last user has a buffer. Then on until the duplicate history is full and the
        // push is long over.
        const uint32 dwFill = dwBufferMs + 100;
        for (uint32 dwMs = 0; dwMs < dwFill + 8000; dwMs += c_dwStepMs)
        {
            if (dwMs == dwFill)
                m_recv.SetRoomState(c_dwRoomStatePlaying);
            Prepare();
            Feed();
            m_recv.RunTurn();
        }
    }
    ~CRoom() { m_recv.Stop(); }

    // Moves time on by a step and makes what arrives in it.
    void Prepare()
    {
        m_clock.MoveTo(m_clock.Tick() + c_dwStepMs);
        m_dwMs += c_dwStepMs;
        m_vecArrivals.clear();
        for (const std::unique_ptr<tagBenchUser>& pUser : m_vecUsers)
        {
            if (m_dwMs >= pUser->dwDelayMs)
                Send(*pUser, m_dwMs - pUser->dwDelayMs);
        }
    }
    void Feed()
    {
        for (const tagArrival& st : m_vecArrivals)
        {
            m_recv.UDTReceiveNetData(st.dwSendSeq, st.ullUin, st.dwDownSeq, (WORD)m_dwMs, st.cSubType,
                                     st.pPacket);
        }
    }
    void Turn() { m_recv.RunTurn(); }

    uint64 Released() const { return m_owner.m_ullReleased; }
    bool RingWasTooShort() const { return m_bRingWasTooShort; }
    uint32 BufferWanted() const { return m_dwBufferMs; }
    double BufferedMs() const
    {
        double dSum = 0;
        for (const MapUinDataInfo::value_type& stUser : CRecvRig::UsersOf(m_recv))
            dSum += (double)(int32)(stUser.second.dwTimelineIn - stUser.second.dwTimelineOut);
        return dSum / (double)CRecvRig::UsersOf(m_recv).size();
    }
    double BufferedPackets() const
    {
        size_t nPackets = 0;
        for (const MapUinInPkt::value_type& stStream : CRecvRig::StreamsOf(m_recv))
            nPackets += stStream.second.mapUdtPacket.size();
        return (double)nPackets;
    }

private:
    void Send(tagBenchUser& stUser, uint32 dwMs)
    {
        if (dwMs % c_dwAudioStepMs == 0)
        {
            if (CBenchPacket* pPacket = Take(stUser.ringAudio))
            {
                pPacket->m_stHead.cFrmType = def_FrameType_P;
                pPacket->m_stHead.cTotalPkgCount = 1;
                pPacket->m_stHead.uTimeStamp = c_dwMediaBase + dwMs;
                Arrive(stUser.ullUin, MEAVAudio, stUser.dwAudioSeq, pPacket);
            }
            ++stUser.dwAudioSeq;
        }

        // The part of the frame that is sent in this step.
        const uint32 dwFrame = dwMs / c_dwFrameMs;
        const uint32 dwInGop = (dwFrame + stUser.dwFirstFrame) % c_dwGopFrames;
        const uint32 dwPackets = dwInGop == 0 ? c_dwIPackets : c_dwPPackets;
        const uint32 dwFrom = dwMs % c_dwFrameMs * dwPackets / c_dwFrameMs;
        const uint32 dwTo = (dwMs % c_dwFrameMs + c_dwStepMs) * dwPackets / c_dwFrameMs;
        for (uint32 i = dwFrom; i < dwTo; ++i, ++stUser.dwVideoSeq)
        {
            CBenchPacket* pPacket = Take(stUser.ringVideo);
            if (pPacket == nullptr)
                continue;
            tagUdtPacketHeadInfo& stHead = pPacket->m_stHead;
            stHead.cFrmType = dwInGop == 0 ? def_FrameType_I : def_FrameType_P;
            stHead.cGopIndex = (uint8)((dwFrame + stUser.dwFirstFrame) / c_dwGopFrames);
            stHead.cFrameIndex = (uint8)dwInGop;
            stHead.cPkgIndex = (uint8)i;
            stHead.cTotalPkgCount = (uint8)dwPackets;
            stHead.uTimeStamp = c_dwMediaBase + dwFrame * c_dwFrameMs;
            Arrive(stUser.ullUin, MEAVMaxVideo, stUser.dwVideoSeq, pPacket);
        }
    }
    CBenchPacket* Take(CPacketRing& ring)
    {
        ++m_dwDownSeq;
        m_dwChance = m_dwChance * 1664525 + 1013904223;
        if ((m_dwChance >> 16) % 100 < m_dwLossPct)
            return nullptr;
        CBenchPacket* pPacket = ring.Next();
        if (pPacket == nullptr)
            m_bRingWasTooShort = true;
        return pPacket;
    }
    void Arrive(uint64 ullUin, uint8 cSubType, uint32 dwSeq, CBenchPacket* pPacket)
    {
        pPacket->m_bInside = true;
        m_vecArrivals.push_back({pPacket, ullUin, dwSeq, m_dwDownSeq, cSubType});
    }

    CVirtualClock m_clock;
    CBenchOwner m_owner;
    std::vector<std::unique_ptr<tagBenchUser>> m_vecUsers; // outlives the receiver
    CAVGUdtRecv m_recv;
    uint32 m_dwBufferMs;
    uint32 m_dwLossPct;
    uint32 m_dwMs = (uint32)0 - c_dwStepMs;
    uint32 m_dwDownSeq = 1000;
    uint32 m_dwChance = 1;
    bool m_bRingWasTooShort = false;
    std::vector<tagArrival> m_vecArrivals;
};

// The library calls a benchmark several times with the same arguments; the room goes on from where it stands.
CRoom& RoomOf(const benchmark::State& state)
{
    static std::unique_ptr<CRoom> s_pRoom;
    static int64_t s_aArgs[3] = {};
    const int64_t aArgs[3] = {state.range(0), state.range(1), state.range(2)};
    if (s_pRoom == nullptr || memcmp(aArgs, s_aArgs, sizeof(aArgs)) != 0)
    {
        s_pRoom.reset(); // before the next one: their clocks nest
        s_pRoom.reset(new CRoom((uint32)aArgs[0], (uint32)aArgs[1], (uint32)aArgs[2]));
        memcpy(s_aArgs, aArgs, sizeof(aArgs));
    }
    return *s_pRoom;
}

double CpuSeconds()
{
    timespec st;
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &st);
    return (double)st.tv_sec + (double)st.tv_nsec * 1e-9;
}

void Measure(benchmark::State& state, bool bWithIntake)
{
    CRoom& room = RoomOf(state);
    uint64 ullAllocs = 0;
    double dSeconds = 0;
    double dBufferedMs = 0;
    double dBufferedPackets = 0;
    uint64 ullLooks = 0;
    const uint64 ullReleased = room.Released();
    for (auto _ : state)
    {
        room.Prepare();
        if (!bWithIntake)
            room.Feed();
        const uint64 ullAllocsBefore = g_ullAllocs;
        const double dBegin = CpuSeconds();
        if (bWithIntake)
            room.Feed();
        room.Turn();
        const double dTurn = CpuSeconds() - dBegin;
        ullAllocs += g_ullAllocs - ullAllocsBefore;
        dSeconds += dTurn;
        state.SetIterationTime(dTurn);
        if (ullLooks == 0 || (uint64)state.iterations() / 97 > ullLooks) // not in step with the GOPs
        {
            dBufferedMs += room.BufferedMs();
            dBufferedPackets += room.BufferedPackets();
            ++ullLooks;
        }
    }
    const double dReleased = (double)(room.Released() - ullReleased);
    const double dIterations = (double)state.iterations();
    dBufferedMs /= (double)ullLooks;
    if (room.RingWasTooShort())
        state.SkipWithError("a packet was needed again before it was released");
    else if (dBufferedMs < (double)room.BufferWanted() - 150 ||
             dBufferedMs > (double)room.BufferWanted() + 150)
        state.SkipWithError("the buffer does not hold what the case says");
    state.counters["ns_per_pkt"] = dSeconds * 1e9 / dReleased;
    state.counters["allocs_per_pkt"] = (double)ullAllocs / dReleased;
    state.counters["allocs_per_iter"] = (double)ullAllocs / dIterations;
    state.counters["pkts_per_iter"] = dReleased / dIterations;
    state.counters["buf_ms"] = dBufferedMs;
    state.counters["buf_pkts"] = dBufferedPackets / (double)ullLooks;
}

void Turn(benchmark::State& state) { Measure(state, false); }
void Way(benchmark::State& state) { Measure(state, true); }

void Cases(benchmark::internal::Benchmark* pBenchmark)
{
    pBenchmark->ArgNames({"users", "buffer_ms", "loss_pct"})->UseManualTime()->Unit(benchmark::kMicrosecond);
    for (int64_t nUsers : {1, 10, 50})
    {
        for (int64_t nBufferMs : {500, 2000, 6000})
            pBenchmark->Args({nUsers, nBufferMs, 0});
    }
    pBenchmark->Args({10, 2000, 5});
}

BENCHMARK(Turn)->Apply(Cases);
BENCHMARK(Way)->Apply(Cases);

} // namespace

BENCHMARK_MAIN();
