/**
 * What does a packet cost in other buffers, on the same bench?
 *
 *   Peer/NAME/pattern:P        arrivals of PathHarness.h at 312 packets/s; put, and get while more than the pattern's
 *                              depth is held (a 1, b 8, c and e 500, d and f 2000); those that play by a clock hold
 *                              for b what their clock needs, 24
 *   Peer/udtrecv/pattern:P     the receiver, for a comparison within one run: turns every 10 ms and all
 *   Peer/udtrecv-RATE/...      at 1000 and 10000 packets/s, where there are more packets to a turn
 *
 * Time is processor time per packet of the whole process, since some have threads. Every figure contains the bench
 * itself, which is what `nobody` tells. Which peers there are depends on the Debian packages found when this was
 * configured. A case ends with an error when a packet did not come out, came out of order, or was
 * dropped as late (one in 100 is let pass and shown), or where the peer's own count of lost packets is not what the schedule left out.
 */

#include "Peers.h"
#include "UDTLog.h"

#include <algorithm>
#include <benchmark/benchmark.h>
#include <string>

namespace
{

void Measure(benchmark::State& state, const tagPeer& stPeer, char cPattern, uint32 dwRate)
{
    const tagArrivals arrivals = StreamArrivals(cPattern, dwRate);
    tagPathConfig stConfig;
    stConfig.pArrivals = &arrivals;
    stConfig.dDepth = cPattern == 'b' && !stPeer.bTimed ? 8 : PatternDepth(cPattern, dwRate);
    if (stPeer.dwDepth != 0)
        stConfig.dDepth = std::min<double>(stConfig.dDepth, stPeer.dwDepth);
    stConfig.pfnMake = stPeer.pfnMake;
    CPathRun run(stConfig);
    const tagPathMark stBegin = run.Mark();
    for (auto _ : state)
        run.Turns(1);
    const std::string strWrong = run.CheckSince(stBegin);
    if (!strWrong.empty())
        state.SkipWithError(strWrong.c_str());
    const tagPathMark stEnd = run.Mark();
    const double dFed = (double)(stEnd.ullFed - stBegin.ullFed);
    state.counters["per_pkt"] = benchmark::Counter(
        dFed, benchmark::Counter::Flags(benchmark::Counter::kIsRate | benchmark::Counter::kInvert));
    state.counters["depth"] = run.Depth();
    if (stEnd.ullLate != stBegin.ullLate)
        state.counters["late_pct"] = 100.0 * (double)(stEnd.ullLate - stBegin.ullLate) / dFed;
    state.counters["asked/pkt"] = (double)(stEnd.ullAsked - stBegin.ullAsked) / dFed;
}

} // namespace

int main(int argc, char** argv)
{
    LogSetLevel(LOG_LEVEL_ERROR);
    std::vector<tagPeer> vecPeers;
    AddFloors(vecPeers);
#ifdef UDT_PEER_RE
    AddRe(vecPeers);
#endif
#ifdef UDT_PEER_ORTP
    AddOrtp(vecPeers);
#endif
#ifdef UDT_PEER_SPEEX
    AddSpeex(vecPeers);
#endif
#ifdef UDT_PEER_GST
    AddGst(vecPeers);
#endif
    const auto add = [](const tagPeer& stPeer, uint32 dwRate)
    {
        for (const char cPattern : stPeer.strPatterns)
        {
            const std::string strName = "Peer/" + stPeer.strName + "/pattern:" + cPattern;
            benchmark::RegisterBenchmark(strName.c_str(), [stPeer, cPattern, dwRate](benchmark::State& state)
                                         { Measure(state, stPeer, cPattern, dwRate); })
                ->MeasureProcessCPUTime();
        }
    };
    for (const uint32 dwRate : {312u, 1000u, 10000u})
    {
        const std::string strName = dwRate == 312 ? "udtrecv" : "udtrecv-" + std::to_string(dwRate);
        add({strName, "abcdef", MakeReceiver, true, 0}, dwRate);
    }
    for (const tagPeer& stPeer : vecPeers)
        add(stPeer, 312);
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv))
        return 1;
    return benchmark::RunSpecifiedBenchmarks() != 0 ? 0 : 1;
}
