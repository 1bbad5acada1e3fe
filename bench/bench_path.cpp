/**
 * What does a packet cost on its whole way, from UDTReceiveNetData to OnUDTRecvOutData, turns included?
 *
 *   Path/pattern:P/rate:R/clock:C/turns:T    one video stream; P from a to f are arrival patterns (PathHarness.h)
 *   Room/users:U/buffer_ms:B/clock:C         a room of audio and 2.5 Mbit/s video
 *   Floor/pattern:P/rate:R                   the same arrivals with nobody to take them: what the bench itself costs
 *                                            and what is contained in every other figure
 *
 * Time is the CPU time per packet fed. It contains the bench's packet pool, the writing of a 12-byte head, the
 * owner's callbacks and the schedule; Floor tells how much that is.
 *
 * The receiver is stepped every 10 ms of its clock, as its own worker would, so the work of a turn is spread over
 * the packets of 10 ms: 3 at 312 packets/s (2.5 Mbit/s), 10 at 1000/s, 100 at 10000/s. A jitter buffer without a
 * notion of time, timed as put and get per packet, has no such work; the faster the stream, the closer the two ways
 * of counting come. 312/s is what one stream really is, it holds 500 and 2000 packets in 1.6 and 6.4 s, which are
 * lengths that the receiver is made for, and it is the rate that favours us least: it is the one to compare and to
 * set limits by. T = 1 makes a turn behind every packet as well, which nobody would do in earnest: get after put,
 * with all that a turn is beyond a get.
 *
 * C = 0 is a tick source that returns a variable; C = 1 is no tick source, so that the library reads the machine's
 * clock as it always does (the value is then replaced by the schedule's, see PathHarness.cpp).
 *
 * The log is at level 4 without a sink, as it is unless an owner sets one: no line is due anywhere. With a sink, a
 * packet played behind a loss has its line, and every stream writes two traces every 2 s; SINK=1 in the environment
 * sets one that drops what it gets, and `lines/pkt` then tells how many it got.
 *
 *   depth      packets held, mean of 4 s before the measurement
 *   lost_pct   by the receiver's own count; must be what the schedule left out
 *   asked/pkt  sequences asked for per packet fed
 *
 * A case ends with an error when not every packet came out, in order, or the count of losses is wrong.
 */

#include "PathHarness.h"

#include "UDTLog.h"

#include <benchmark/benchmark.h>

#include <cstdlib>
#include <memory>
#include <string>

namespace
{

uint64 g_ullLines = 0;

void DropLine(void*, UDT_LOG_LEVEL, const char*, const char*, int, const char*, const char*) { ++g_ullLines; }

/// A run and what arrives in it.
struct tagCase
{
    tagArrivals arrivals;
    std::unique_ptr<CPathRun> pRun;
};

// The library calls a case several times until it has run long enough; the run goes on from where it stands, since
// filling a large room takes longer than measuring it.
CPathRun& RunOf(const std::string& strCase, tagArrivals (*pfnArrivals)(uint32, uint32), uint32 dwFirst,
                uint32 dwSecond, tagPathConfig stConfig, double dDepthOrMs, bool bIsMs)
{
    static tagCase s_stCase;
    static std::string s_strCase;
    if (s_strCase != strCase)
    {
        s_stCase.pRun.reset(); // its clock before the next one's
        s_stCase.arrivals = pfnArrivals(dwFirst, dwSecond);
        stConfig.pArrivals = &s_stCase.arrivals;
        stConfig.dDepth =
            bIsMs ? (double)s_stCase.arrivals.vecArrivals.size() * dDepthOrMs / s_stCase.arrivals.dwMs
                  : dDepthOrMs;
        s_stCase.pRun = std::make_unique<CPathRun>(stConfig);
        s_strCase = strCase;
    }
    return *s_stCase.pRun;
}

void Measure(benchmark::State& state, CPathRun& run)
{
    const tagPathMark stBegin = run.Mark();
    const uint64 ullLines = g_ullLines;
    for (auto _ : state)
        run.Turns(1);

    const tagPathMark stEnd = run.Mark();
    const std::string strWrong = run.CheckSince(stBegin);
    if (!strWrong.empty())
        state.SkipWithError(strWrong.c_str());
    const double dFed = (double)(stEnd.ullFed - stBegin.ullFed);
    state.counters["per_pkt"] = benchmark::Counter(
        dFed, benchmark::Counter::Flags(benchmark::Counter::kIsRate | benchmark::Counter::kInvert));
    state.counters["depth"] = run.Depth();
    state.counters["lost_pct"] = 100.0 * (double)(uint32)(stEnd.ullLostSeen - stBegin.ullLostSeen) / dFed;
    state.counters["asked/pkt"] = (double)(stEnd.ullAsked - stBegin.ullAsked) / dFed;
    if (g_ullLines != ullLines)
        state.counters["lines/pkt"] = (double)(g_ullLines - ullLines) / dFed;
}

tagArrivals OneStream(uint32 dwPattern, uint32 dwRate) { return StreamArrivals((char)dwPattern, dwRate); }
tagArrivals OneRoom(uint32 dwUsers, uint32) { return RoomArrivals(dwUsers); }

void Path(benchmark::State& state, const std::string& strCase, char cPattern, uint32 dwRate,
          emPathClock eClock, bool bTurnPerPacket)
{
    tagPathConfig stConfig;
    stConfig.eClock = eClock;
    stConfig.bTurnPerPacket = bTurnPerPacket;
    Measure(state, RunOf(strCase, OneStream, (uint32)cPattern, dwRate, stConfig,
                         PatternDepth(cPattern, dwRate), false));
}

void Floor(benchmark::State& state, const std::string& strCase, char cPattern, uint32 dwRate)
{
    tagPathConfig stConfig;
    stConfig.pfnMake = MakeNobody;
    Measure(state, RunOf(strCase, OneStream, (uint32)cPattern, dwRate, stConfig, 0, false));
}

void Room(benchmark::State& state, const std::string& strCase, uint32 dwUsers, uint32 dwBufferMs,
          emPathClock eClock)
{
    tagPathConfig stConfig;
    stConfig.eClock = eClock;
    Measure(state, RunOf(strCase, OneRoom, dwUsers, 0, stConfig, dwBufferMs, true));
}

void Register()
{
    const auto add = [](const std::string& strName, auto&& fn, auto... args)
    {
        benchmark::RegisterBenchmark(strName.c_str(), [strName, fn, args...](benchmark::State& state)
                                     { fn(state, strName, args...); });
    };
    const emPathClock aClocks[] = {PATH_CLOCK_VIRTUAL, PATH_CLOCK_REAL};
    for (const uint32 dwRate : {312u, 1000u, 10000u})
    {
        const std::string strRate = "/rate:" + std::to_string(dwRate);
        add("Floor/pattern:c" + strRate, Floor, 'c', dwRate);
        for (const emPathClock eClock : aClocks)
        {
            for (char cPattern = 'a'; cPattern <= 'f'; ++cPattern)
            {
                add(std::string("Path/pattern:") + cPattern + strRate + "/clock:" + std::to_string(eClock) +
                        "/turns:0",
                    Path, cPattern, dwRate, eClock, false);
            }
        }
    }
    for (char cPattern = 'a'; cPattern <= 'f'; ++cPattern)
        add(std::string("Path/pattern:") + cPattern + "/rate:312/clock:0/turns:1", Path, cPattern, 312u,
            PATH_CLOCK_VIRTUAL, true);
    for (const uint32 dwUsers : {1u, 10u, 50u})
    {
        for (const uint32 dwBufferMs : {500u, 2000u, 6000u})
        {
            for (const emPathClock eClock : aClocks)
            {
                add("Room/users:" + std::to_string(dwUsers) + "/buffer_ms:" + std::to_string(dwBufferMs) +
                        "/clock:" + std::to_string(eClock),
                    Room, dwUsers, dwBufferMs, eClock);
            }
        }
    }
}

} // namespace

int main(int argc, char** argv)
{
    LogSetLevel(LOG_LEVEL_ERROR);
    if (getenv("SINK") != nullptr)
        LogSetSink(DropLine, nullptr);
    Register();
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv))
        return 1;
    return benchmark::RunSpecifiedBenchmarks() != 0 ? 0 : 1;
}
