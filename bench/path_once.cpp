/**
 * Drives packets over the path a fixed number of times, for tools that count instead of clock:
 *
 *   path_once PATTERN [RATE [SECONDS [nobody]]]
 *
 * Prints "packets N depth D"; everything to be counted happens inside MeasuredLoop. Exit 1 when the work was not
 * what the pattern promises.
 */

#include "PathHarness.h"

#include "UDTLog.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

// Its name is what the counter is switched on by.
extern "C" __attribute__((noinline)) void MeasuredLoop(CPathRun* pRun, uint32 dwTurns)
{
    pRun->Turns(dwTurns);
}

int main(int argc, char** argv)
{
    const char cPattern = argc > 1 && strlen(argv[1]) == 1 ? argv[1][0] : '?';
    const uint32 dwRate = argc > 2 ? (uint32)atoi(argv[2]) : 312;
    const uint32 dwSeconds = argc > 3 ? (uint32)atoi(argv[3]) : 20;
    const bool bNobody = argc > 4 && strcmp(argv[4], "nobody") == 0;
    if (cPattern < 'a' || cPattern > 'f' || !IsPathRate(dwRate) || dwSeconds == 0)
    {
        fprintf(stderr, "usage: path_once a|b|c|d|e|f [312|1000|10000 [SECONDS [nobody]]]\n");
        return 2;
    }

    LogSetLevel(LOG_LEVEL_ERROR); // and no sink: no line is due
    const tagArrivals arrivals = StreamArrivals(cPattern, dwRate);
    tagPathConfig stConfig;
    stConfig.pArrivals = &arrivals;
    stConfig.dDepth = bNobody ? 0 : PatternDepth(cPattern, dwRate);
    if (bNobody)
        stConfig.pfnMake = MakeNobody;
    CPathRun run(stConfig);
    const tagPathMark stBegin = run.Mark();
    MeasuredLoop(&run, dwSeconds * 100);

    const std::string strWrong = run.CheckSince(stBegin);
    if (!strWrong.empty())
    {
        fprintf(stderr, "path_once: %s\n", strWrong.c_str());
        return 1;
    }
    printf("packets %llu depth %.1f\n", run.Mark().ullFed - stBegin.ullFed, run.Depth());
    return 0;
}
