// From a scenario to figures: a receiver, a call around it, the loop. Prints nothing.

#include "Simulate.h"

#include "SimCall.h"

#include <chrono>

namespace lab
{

tagSimResult RunSimulation(const tagScenario& stScenario, const tagSimHooks& stHooks)
{
    const auto tStart = std::chrono::steady_clock::now();
    tagSimResult stResult;
    stResult.stScenario = stScenario;
    {
        CSimCall call(stResult.stScenario, stHooks);
        tagRunOptions stRun;
        stRun.ullStartTick = stScenario.stReceiver.ullFirstTick;
        stRun.bLowLatency = stScenario.stReceiver.bLowLatency;
        stRun.nLogLevel = stHooks.nLogLevel;
        stRun.pSeries = stHooks.pSeries;
        CLabRun run(stRun, call);
        call.Begin(run);
        if (stHooks.fnReady)
            stHooks.fnReady(run.Receiver());

        tagLoopOptions stLoop;
        stLoop.llTurnUs = stScenario.stReceiver.llTurnUs;
        stLoop.llDrainUs = 0; // the call itself waits for what is still to come
        stResult.dwRunMs = (uint32)(RunLoop(run, call, stLoop) / 1000);

        call.Gather(stResult);
        stResult.vecEndReport = run.EndReport();
        run.Snapshot(stResult.stStats);
        for (tagUdtStreamStats& st : stResult.stStats.vecStreams)
            for (const tagSimUserResult& stUser : stResult.vecUsers)
                if (stUser.llAccount == st.llAccount)
                    st.strUser = stUser.strName;
        stResult.ullBroken = run.Checks().Broken();
        stResult.vecViolations = run.Checks().Violations();
    }
    stResult.dWallSeconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - tStart).count();
    return stResult;
}

} // namespace lab
