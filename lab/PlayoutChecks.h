// What must hold of the receiver's timing, checked from inside while it runs.
//
//  - Nothing is released before its time: at release a packet's media time is not above its user's playout clock,
//    for audio plus the play delay that the owner had reported by then.
//  - The loss scan asks for nothing at or behind the playout point: the packet behind each gap that it asks for
//    still lies ahead of its user's clock, and it does announce that gap. The requests that loss detection makes
//    at once for I frames do not look at the clock; they are told apart by the scan's own stamps.
#ifndef LAB_PLAYOUTCHECKS_H
#define LAB_PLAYOUTCHECKS_H

#include "AVGUDTRecv.h"
#include "MediaPacket.h"

#include <functional>
#include <map>
#include <string>

namespace lab
{

class CPlayoutChecks
{
public:
    typedef std::function<void(const std::string& strWhat)> FnBroken;
    explicit CPlayoutChecks(FnBroken fnBroken) : m_fnBroken(std::move(fnBroken)) {}

    void TurnBegins(uint32 dwTick)
    {
        m_bClockStood = m_ullTurn != 0 && dwTick == m_dwTurnTick;
        m_dwTurnTick = dwTick;
        m_ullTurn++;
    }
    // Inside the release callback. nPlayDelay is what the owner answers to this release.
    void Released(const CAVGUdtRecv& recv, const CMediaPacket& packet, int nPlayDelay);
    // Inside the event callback.
    void Requested(const CAVGUdtRecv& recv, const tagReplyData* pReply, uint32 uCount, uint32 dwTick);

    // Has playout come past a packet with this media time, if it arrived now?
    bool IsDue(const CAVGUdtRecv& recv, uint64 ullUin, uint8 cSubType, uint32 dwMediaMs) const;

    uint64 ScanRequests() const { return m_ullScanRequests; }           // entries asked for by the loss scan
    uint64 ImmediateRequests() const { return m_ullImmediateRequests; } // at once, for I frames

private:
    // A user's play delay as the receiver reads it: once per turn, before that turn's first release.
    struct tagPlayDelay
    {
        uint32 dwInForce = 0;
        uint32 dwReported = 0;
        uint64 ullTurn = 0; // of the last release
    };

    FnBroken m_fnBroken;
    std::map<uint64, tagPlayDelay> m_mapDelays; // by account: a user has one stream of audio
    uint64 m_ullTurn = 0;
    uint32 m_dwTurnTick = 0;
    bool m_bClockStood = false; // since the turn before
    uint64 m_ullScanRequests = 0;
    uint64 m_ullImmediateRequests = 0;
};

} // namespace lab

#endif
