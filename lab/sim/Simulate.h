// A simulated call from a scenario to figures.
#ifndef LAB_SIMULATE_H
#define LAB_SIMULATE_H

#include "AVGUDTRecv.h"
#include "Histogram.h"
#include "MediaPacket.h"
#include "RunChecks.h"
#include "SimScenario.h"
#include "SimStream.h"
#include "UdtStats.h"

#include <functional>
#include <string>
#include <vector>

namespace lab
{

class CRunSeries;

// For whoever looks over the shoulder of a run. None of them changes what happens, unless it means to.
struct tagSimHooks
{
    std::function<void(CAVGUdtRecv& recv)> fnReady;        // before the first packet
    std::function<void(double dShare)> fnProgress;         // 0 to 1, now and then
    std::function<void(const std::string& strLine)> fnLog; // the receiver's log lines up to nLogLevel
    int nLogLevel = 0;                                     // 0: none
    std::function<void(CMediaPacket& packet)> fnReleased;  // inside the release callback
    std::function<void(CMediaPacket& packet)> fnFeed;      // right before a packet is handed to the receiver
    CRunSeries* pSeries = nullptr;                         // is told what happens, for a report
};

struct tagSimStreamResult
{
    uint32 uUser = 0;
    int nKind = 0;     // emSimStream
    uint32 uEpoch = 0; // not 0: a rejoin that began anew
    tagSimStreamCounts st;
    tagPacketAccount stPackets; // how the packets that were handed to the receiver ended
};

// How far apart a user's picture and sound were released: at the release of each frame's first packet, (release -
// media time) of the picture less the same of the audio released last, that taken as later by the play delay.
struct tagSimUserResult
{
    std::string strName;
    uint64 llAccount = 0;
    double dSkewPpm = 0;
    std::vector<uint32> vecStreams;
    tagSimStreamCounts stSum;
    CMsHistogram avOffset; // absolute
    int64 llAvSumMs = 0;   // signed; positive: the picture is later than the sound
};

struct tagSimTraffic
{
    uint64 ullUpPackets = 0; // that reached the relay
    uint64 ullDownPackets = 0;
    uint64 ullDownBytes = 0; // sent towards the receiver
    uint64 ullPushed = 0;    // packets of the push to the joiner
    uint64 ullMessages = 0;  // loss-request datagrams
    uint64 ullPassedOn = 0;  // requests that the relay passed on to senders
    std::array<std::array<uint64, SIM_DROPS>, SIM_WAYS> aDrops{};
};

struct tagSimResult
{
    tagScenario stScenario;
    std::vector<tagSimStreamResult> vecStreams;
    std::vector<tagSimUserResult> vecUsers;
    tagSimStreamCounts stSum;
    tagSimTraffic stTraffic;
    CMsHistogram rtt; // as measured for the receiver
    uint64 ullPullBacks = 0;
    uint64 ullScanRequests = 0;
    uint64 ullImmediateRequests = 0;
    uint32 dwRunMs = 0;                    // virtual, to the last turn
    std::vector<std::string> vecEndReport; // the receiver's own, line by line
    tagUdtStats stStats;                   // what was counted at the receiver
    uint64 ullBroken = 0;
    std::vector<std::string> vecViolations;

    // Not part of what a seed decides.
    double dWallSeconds = 0;

    int ExitCode() const { return ullBroken != 0 ? 3 : 0; }
};

// Runs the call to its end, or to the first broken check. Any number of threads may do so at once: a run keeps
// nothing outside of itself but the clock and the log tap of its thread.
tagSimResult RunSimulation(const tagScenario& stScenario, const tagSimHooks& stHooks = tagSimHooks());

} // namespace lab

#endif
