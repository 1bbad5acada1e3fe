// The last seconds of a live call: every packet's head (never its payload) and every decision, in a form that plays
// back to the same decisions.
//
// The recording is a chain of segments. Each begins with the receiver's whole state between two turns, so any of them
// can be the first; what came before may be forgotten. In a segment stand, in the order they happened and with their
// ticks: packets handed in, turns, what the owner told (round trip, a poll of the downlink), and behind each turn what
// it decided: releases and requests.
#ifndef LAB_FLIGHTRECORDER_H
#define LAB_FLIGHTRECORDER_H

#include "AVGUDTRecv.h"
#include "RtpTypes.h"

#include <deque>
#include <functional>
#include <map>
#include <string>
#include <utility>
#include <vector>

namespace lab
{

class CRunSeries;

// Not thread-safe: whoever orders packets and turns calls it under that lock.
class CFlightRecorder
{
public:
    // Keeps at least the last so many seconds, once the call is that old.
    explicit CFlightRecorder(uint32 dwSeconds) : m_dwKeepMs(dwSeconds * 1000) {}

    void SetPlayDelay(uint32 dwMs) { m_dwPlayDelayMs = dwMs; }
    // After each turn, and once before the first: begins a new segment when it is time for one.
    void AfterTurn(CAVGUdtRecv& recv, uint32 dwTick);

    void Turn(uint32 dwTick);
    // nLen: what the receiver is told of the packet's length.
    void Fed(const tagRtpMedia& stMedia, uint16 wLen, uint32 dwTick);
    void Rtt(uint32 dwMs, uint32 dwTick);
    void Cleared(uint64 ullAccount, uint8 cSubType, uint32 dwTick);
    void DownlinkPolled(uint32 dwTick);
    void Released(uint64 ullAccount, uint8 cSubType, uint32 dwSeq);
    void Requested(const tagReplyData* pReply, uint32 uCount);

    // The file's bytes. strWhy: one word or a few.
    std::vector<uint8> Bytes(const std::string& strWhy) const;
    size_t Memory() const;
    uint32 SpanMs() const { return m_dequeSegments.empty() ? 0 : m_dwTick - m_dequeSegments.front().dwTick; }

private:
    struct tagSegment
    {
        uint32 dwTick = 0; // of its state
        std::vector<uint8> vecBytes;
        std::map<std::pair<uint64, uint8>, uint32> mapKeys; // streams named in it
    };

    void Begin(uint8 cType, uint32 dwTick);
    uint32 Key(uint64 ullAccount, uint8 cSubType);
    void Put(uint64 ull);

    const uint32 m_dwKeepMs;
    uint32 m_dwPlayDelayMs = 0;
    uint32 m_dwTick = 0; // of the newest record
    std::deque<tagSegment> m_dequeSegments;
};

// What a playback found.
struct tagFlightResult
{
    std::string strError;  // one line: not a flight file, or broken
    std::string strHeader; // the file's own words: JSON
    uint32 dwFirstTick = 0;
    uint32 dwSpanMs = 0;
    uint64 ullPackets = 0;
    uint64 ullTurns = 0;
    uint64 ullReleases = 0; // recorded
    uint64 ullRequests = 0;
    uint64 ullStates = 0;      // segments after the first, whose state was compared whole
    std::string strDifference; // the first one; empty: everything was decided as it was then
};

bool IsFlightFile(const std::string& strPath);
tagFlightResult ReplayFlight(const std::string& strPath, CRunSeries* pSeries);
tagFlightResult ReplayFlightBytes(const std::vector<uint8>& vecBytes, CRunSeries* pSeries);

} // namespace lab

#endif
