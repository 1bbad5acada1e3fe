// The one loop of every run in virtual time: the earliest event, then turns, then the next.
#ifndef LAB_RUNLOOP_H
#define LAB_RUNLOOP_H

#include "LabRun.h"

#include <functional>

namespace lab
{

// Something that happens at known times, in ascending order: a capture, a sender, a relay. One may wrap
// another and move, drop or repeat its events.
class IEventSource
{
public:
    virtual ~IEventSource() = default;
    // When the next event is, in microseconds since the run began; false when there is none left.
    virtual bool Peek(int64& llTimeUs) = 0;
    // Lets it happen.
    virtual void Fire(CLabRun& run) = 0;
};

struct tagLoopOptions
{
    int64 llTurnUs = 10000;       // between turns
    int64 llDrainUs = 10000000;   // turns go on this long after the last event while packets are buffered
    double dSpeed = 0;            // virtual seconds per real second; 0: as fast as it goes
    std::function<void()> fnBeat; // called now and then, for a progress bar
};

// Runs it to the end, Stop included. @return virtual microseconds from the start to the last turn.
int64 RunLoop(CLabRun& run, IEventSource& source, const tagLoopOptions& stOptions);

} // namespace lab

#endif
