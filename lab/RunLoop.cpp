// A packet that comes at the very microsecond of a turn is in time for it. Turns lie on a fixed grid from the
// start of the run, events move the clock between them.

#include "RunLoop.h"

#include <chrono>
#include <thread>

namespace lab
{

namespace
{

// A hole in the input longer than this is not walked turn by turn once the receiver has forgotten every
// stream: nothing is left that a turn could change. Captures that are years apart can so be played in one go.
constexpr int64 c_llHoleUs = 20 * 1000000LL;

class CPacer
{
public:
    explicit CPacer(double dSpeed) : m_dSpeed(dSpeed), m_tStart(std::chrono::steady_clock::now()) {}
    void WaitFor(int64 llTimeUs)
    {
        if (m_dSpeed > 0)
            std::this_thread::sleep_until(m_tStart +
                                          std::chrono::microseconds((int64)((double)llTimeUs / m_dSpeed)));
    }

private:
    double m_dSpeed;
    std::chrono::steady_clock::time_point m_tStart;
};

} // namespace

int64 RunLoop(CLabRun& run, IEventSource& source, const tagLoopOptions& stOptions)
{
    CPacer pacer(stOptions.dSpeed);
    const int64 llTurnUs = stOptions.llTurnUs;
    int64 llNextTurn = 0;
    int64 llLastTurn = 0;
    int64 llLastEvent = 0;
    uint32 uBeat = 0;

    auto Turn = [&]()
    {
        pacer.WaitFor(llNextTurn);
        run.Turn(llNextTurn);
        llLastTurn = llNextTurn;
        llNextTurn += llTurnUs;
        if (++uBeat % 64 == 0 && stOptions.fnBeat)
            stOptions.fnBeat();
    };

    int64 llEvent = 0;
    while (source.Peek(llEvent))
    {
        while (llNextTurn < llEvent)
        {
            Turn();
            const bool bHole = llEvent - llNextTurn > c_llHoleUs && llNextTurn - llLastEvent > c_llHoleUs;
            if (bHole && uBeat % 128 == 0 && run.Live() == 0 && run.LiveStreams() == 0)
                llNextTurn += (llEvent - llNextTurn) / llTurnUs * llTurnUs;
        }
        pacer.WaitFor(llEvent);
        source.Fire(run);
        llLastEvent = llEvent;
    }
    do
        Turn();
    while (run.Live() != 0 && llNextTurn - llLastEvent <= stOptions.llDrainUs);

    run.Stop();
    return llLastTurn;
}

} // namespace lab
