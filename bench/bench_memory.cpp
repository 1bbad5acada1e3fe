/**
 * What does the receiver take from the heap?
 *
 *   Memory/pattern:P/rate:R              one video stream, patterns of PathHarness.h
 *   Memory/users:U/buffer_ms:B           a room of audio and 2.5 Mbit/s video
 *
 * An iteration is 10 ms of arrivals and a turn, in steady state. Every allocation of the program is seen, by whatever
 * way it asks for memory; packet objects belong to the bench and are there before the receiver is.
 *
 *   mallocs/pkt   allocations per packet fed, in the measured turns
 *   held          packets in the buffers, mean
 *   bytes/pkt     what the receiver holds at the end per packet held, duplicate history and all, less its
 *                 tagDataPacket; the allocator's own 8 bytes per block are counted
 *   peak_MB       the most that the receiver has held at any time, tagDataPackets included
 */

#include "PathHarness.h"
#include "UDTLog.h"

#include <benchmark/benchmark.h>

#include <atomic>
#include <malloc.h>
#include <string>

// ---- Allocations -----------------------------------------------------------------------------------------------

namespace
{

std::atomic<uint64> g_ullAllocs{0};
std::atomic<int64> g_llLive{0}; // bytes
std::atomic<int64> g_llPeak{0};

constexpr int64 c_llBlockHead = 8;

void* Taken(void* p)
{
    if (p == nullptr)
        return p;
    g_ullAllocs.fetch_add(1, std::memory_order_relaxed);
    const int64 llBytes = (int64)malloc_usable_size(p) + c_llBlockHead;
    const int64 llLive = g_llLive.fetch_add(llBytes, std::memory_order_relaxed) + llBytes;
    if (llLive > g_llPeak.load(std::memory_order_relaxed))
        g_llPeak.store(llLive, std::memory_order_relaxed);
    return p;
}

void Given(void* p)
{
    if (p != nullptr)
        g_llLive.fetch_sub((int64)malloc_usable_size(p) + c_llBlockHead, std::memory_order_relaxed);
}

} // namespace

// The C library's own, under these names behind the ones that everybody calls. All of C++ ends here as well.
extern "C"
{
    void* __libc_malloc(size_t nSize);
    void __libc_free(void* p);
    void* __libc_calloc(size_t nCount, size_t nSize);
    void* __libc_realloc(void* p, size_t nSize);
    void* __libc_memalign(size_t nAlign, size_t nSize);

    void* malloc(size_t nSize) { return Taken(__libc_malloc(nSize)); }
    void free(void* p)
    {
        Given(p);
        __libc_free(p);
    }
    void* calloc(size_t nCount, size_t nSize) { return Taken(__libc_calloc(nCount, nSize)); }
    void* realloc(void* p, size_t nSize)
    {
        Given(p);
        return Taken(__libc_realloc(p, nSize));
    }
    void* memalign(size_t nAlign, size_t nSize) { return Taken(__libc_memalign(nAlign, nSize)); }
    void* aligned_alloc(size_t nAlign, size_t nSize) { return Taken(__libc_memalign(nAlign, nSize)); }
    int posix_memalign(void** pp, size_t nAlign, size_t nSize)
    {
        *pp = Taken(__libc_memalign(nAlign, nSize));
        return *pp != nullptr ? 0 : 12; // ENOMEM
    }
}

// ---- Cases -----------------------------------------------------------------------------------------------------

namespace
{

int64 g_llBefore = 0; // live bytes right before the receiver is made

std::unique_ptr<IPathTaker> MakeAndNote(CBenchOwner& owner, const tagPathConfig& stConfig)
{
    g_llBefore = g_llLive;
    g_llPeak = g_llBefore;
    return MakeReceiver(owner, stConfig);
}

void Measure(benchmark::State& state, tagPathConfig stConfig)
{
    stConfig.pfnMake = MakeAndNote;
    CPathRun run(stConfig);
    const int64 llPeak = g_llPeak - g_llBefore;
    const tagPathMark stBegin = run.Mark();
    uint64 ullAllocs = 0;
    double dHeld = 0;
    double dBytes = 0;
    for (auto _ : state)
    {
        const uint64 ullBefore = g_ullAllocs;
        run.Turns(1);
        ullAllocs += g_ullAllocs - ullBefore;
        dHeld += (double)run.Taker().Held();
        dBytes += (double)(g_llLive - g_llBefore);
    }
    const std::string strWrong = run.CheckSince(stBegin);
    if (!strWrong.empty())
        state.SkipWithError(strWrong.c_str());
    const double dFed = (double)(run.Mark().ullFed - stBegin.ullFed);
    state.counters["mallocs/pkt"] = (double)ullAllocs / dFed;
    state.counters["held"] = dHeld / (double)state.iterations();
    state.counters["bytes/pkt"] = dBytes / dHeld - (double)sizeof(tagDataPacket);
    state.counters["peak_MB"] = (double)llPeak / 1e6;
}

void Stream(benchmark::State& state, char cPattern, uint32 dwRate)
{
    const tagArrivals arrivals = StreamArrivals(cPattern, dwRate);
    tagPathConfig stConfig;
    stConfig.pArrivals = &arrivals;
    stConfig.dDepth = PatternDepth(cPattern, dwRate);
    Measure(state, stConfig);
}

void Room(benchmark::State& state, uint32 dwUsers, uint32 dwBufferMs)
{
    const tagArrivals arrivals = RoomArrivals(dwUsers);
    tagPathConfig stConfig;
    stConfig.pArrivals = &arrivals;
    stConfig.dDepth = (double)arrivals.vecArrivals.size() * dwBufferMs / arrivals.dwMs;
    Measure(state, stConfig);
}

void Register()
{
    for (char cPattern = 'a'; cPattern <= 'f'; ++cPattern)
    {
        const std::string strName = std::string("Memory/pattern:") + cPattern + "/rate:312";
        benchmark::RegisterBenchmark(strName.c_str(),
                                     [cPattern](benchmark::State& state) { Stream(state, cPattern, 312); })
            ->Iterations(3000);
    }
    struct tagRoom
    {
        uint32 dwUsers;
        uint32 dwBufferMs;
    };
    for (const tagRoom& stRoom : {tagRoom{1, 2000}, tagRoom{10, 2000}, tagRoom{50, 6000}})
    {
        const std::string strName = "Memory/users:" + std::to_string(stRoom.dwUsers) +
                                    "/buffer_ms:" + std::to_string(stRoom.dwBufferMs);
        benchmark::RegisterBenchmark(strName.c_str(), [stRoom](benchmark::State& state)
                                     { Room(state, stRoom.dwUsers, stRoom.dwBufferMs); })
            ->Iterations(stRoom.dwUsers > 10 ? 100 : 1000);
    }
}

} // namespace

int main(int argc, char** argv)
{
    LogSetLevel(LOG_LEVEL_ERROR);
    Register();
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv))
        return 1;
    return benchmark::RunSpecifiedBenchmarks() != 0 ? 0 : 1;
}
