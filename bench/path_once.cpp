/**
 * Drives packets over the path a fixed number of times, for tools that count instead of clock:
 *
 *   path_once PATTERN [RATE [SECONDS [nobody]]]     one stream
 *   path_once room USERS BUFFER_MS [SECONDS]        a room of audio and 2.5 Mbit/s video
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

namespace
{

int Usage()
{
    fprintf(stderr, "usage: path_once a|b|c|d|e|f [312|1000|10000 [SECONDS [nobody]]]\n"
                    "       path_once room USERS BUFFER_MS [SECONDS]\n");
    return 2;
}

uint32 Number(int argc, char** argv, int nAt, uint32 dwDefault)
{
    return nAt < argc ? (uint32)atoi(argv[nAt]) : dwDefault;
}

} // namespace

int main(int argc, char** argv)
{
    tagArrivals arrivals;
    tagPathConfig stConfig;
    stConfig.pArrivals = &arrivals;
    uint32 dwSeconds = 0;
    if (argc > 3 && strcmp(argv[1], "room") == 0)
    {
        const uint32 dwUsers = Number(argc, argv, 2, 0);
        const uint32 dwBufferMs = Number(argc, argv, 3, 0);
        dwSeconds = Number(argc, argv, 4, 5);
        if (dwUsers == 0 || dwUsers > 1000 || dwBufferMs == 0 || dwBufferMs > 30000)
            return Usage();
        arrivals = RoomArrivals(dwUsers);
        stConfig.dDepth = (double)arrivals.vecArrivals.size() * dwBufferMs / arrivals.dwMs;
    }
    else if (argc > 1 && strlen(argv[1]) == 1 && argv[1][0] >= 'a' && argv[1][0] <= 'f')
    {
        const uint32 dwRate = Number(argc, argv, 2, 312);
        const bool bNobody = argc > 4 && strcmp(argv[4], "nobody") == 0;
        dwSeconds = Number(argc, argv, 3, 20);
        if (!IsPathRate(dwRate))
            return Usage();
        arrivals = StreamArrivals(argv[1][0], dwRate);
        stConfig.dDepth = bNobody ? 0 : PatternDepth(argv[1][0], dwRate);
        if (bNobody)
            stConfig.pfnMake = MakeNobody;
    }
    if (dwSeconds == 0)
        return Usage();

    LogSetLevel(LOG_LEVEL_ERROR); // and no sink: no line is due
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
