#ifndef PEERS_H
#define PEERS_H

/**
 * Other buffers on the same bench: the same arrivals, the same packets, the same owner that they come back to.
 *
 * Most of them know no time: they are given a packet, and asked for one while they hold more than the case's depth.
 * None of them does what the receiver does beside holding and ordering, but for what its name says.
 */

#include "PathHarness.h"

#include <string>
#include <vector>

struct tagPeer
{
    std::string strName;
    std::string strPatterns; ///< those that it can hold
    PFN_MakeTaker pfnMake;
    bool bTimed;    ///< plays by a clock, and so has a frame's packets to wait for
    uint32 dwDepth; ///< holds that many at most; 0: as many as the pattern asks for
};

/// Each file adds what it has; a library that was not found adds nothing.
void AddFloors(std::vector<tagPeer>& vecPeers);
void AddRe(std::vector<tagPeer>& vecPeers);
void AddOrtp(std::vector<tagPeer>& vecPeers);
void AddSpeex(std::vector<tagPeer>& vecPeers);
void AddGst(std::vector<tagPeer>& vecPeers);

#endif // PEERS_H
