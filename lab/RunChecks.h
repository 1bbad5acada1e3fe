// What must hold in every run of a receiver, checked while it runs.
//
//  - Every packet handed in ends in exactly one way that has a name: played, skipped at the beginning,
//    cleared, still buffered at the end, or dropped as a repeat.
//  - What leaves a stream in one turn leaves in ascending sequence (modulo 2^32).
//  - A packet that leaves out of order was handed in after its place had been played. One that was overtaken at
//    the end of the 32-bit sequences is counted by name: the buffer is sorted by plain number.
//  - Nothing is played twice while the receiver remembers having had it, unless playout was pulled back.
//  - No packet object outlives the run.
//
// The receiver tells no reason when it lets go of a packet. The reason follows from when the packet object
// dies and from the receiver's log lines: each skip at the beginning has its line, right after the packet was
// erased, and a pull-back of playout has one before it clears what lies too far ahead.
#ifndef LAB_RUNCHECKS_H
#define LAB_RUNCHECKS_H

#include "MediaPacket.h"
#include "SeqWindow.h"

#include <cstdint>
#include <map>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

namespace lab
{

// How the packets of one stream ended. "First" counts a sequence's first packet, "repeat" any later one.
struct tagPacketAccount
{
    uint64 ullFed = 0;      // all handed in
    uint64 ullFirst = 0;    // of these, distinct sequences
    uint64 ullPlayed = 0;   // firsts given to the owner
    uint64 ullLate = 0;     // of the played, handed in after their place was played
    uint64 ullStranded = 0; // played out of order, overtaken at the end of the 32-bit sequences
    uint64 ullSkipped = 0;  // firsts dropped at the beginning, older than the user's first video
    uint64 ullCleared = 0;  // firsts dropped because playout was pulled back or the stream was cleared
    uint64 ullLeft = 0;     // firsts still buffered when the run stopped
    uint64 ullVanished = 0; // firsts that ended without a name: always a broken check
    uint64 ullRepeats = 0;  // repeats dropped
    uint64 ullReplayed = 0; // repeats played: their first was forgotten or cleared
};

class CRunChecks
{
public:
    // Just before a packet is handed to the receiver. Sets its marks.
    void Fed(CMediaPacket& packet, uint32 dwTick);
    void TurnBegins(uint32 dwTick);
    void TurnEnds();
    void Released(CMediaPacket& packet);
    void LogLine(const char* pszText);
    // The owner asked for streams to be cleared: the next turn may drop packets, and forget that it had them.
    void ClearAsked()
    {
        m_bClearAsked = true;
        m_ullForgets++;
    }
    // From here on what is let go was left in a buffer.
    void StopBegins()
    {
        TurnEnds(); // guards turn packets away between turns, too
        m_bStopping = true;
    }
    void Gone(CMediaPacket& packet);
    // After the receiver is gone: the last checks.
    void Finish();
    // A check made elsewhere was broken.
    void Report(const std::string& strWhat) { Violation(strWhat); }

    const tagPacketAccount& Account(uint32 uStream);
    uint64 Live() const { return m_ullLive; }
    uint64 PullBacks() const { return m_ullPullBacks; }

    bool Ok() const { return m_ullBroken == 0; }
    uint64 Broken() const { return m_ullBroken; }
    // One line each, the first few of them.
    const std::vector<std::string>& Violations() const { return m_vecViolations; }

    // How ticks are shown in those lines: milliseconds since this one.
    void SetStartTick(uint32 dwTick) { m_dwStartTick = dwTick; }

private:
    struct tagPlayed
    {
        uint32 dwSeq = 0;
        uint32 dwFedTick = 0;
        uint64 ullForgets = 0;
        bool bSet = false;
    };
    // A stream as the receiver files it. Not the same as a stream of the wire: two may follow each other in one, and
    // one that was followed may speak again as another. A sender of a simulation that begins anew is another one, too.
    struct tagFiled
    {
        CSeqWindow seen;
        bool bUnsure = false; // a sequence may have come that `seen` does not remember
        bool bPlayed = false;
        uint32 dwHighest = 0; // of all played
        uint64 ullLastTurn = 0;
        uint32 dwLastInTurn = 0;
        std::vector<tagPlayed> vecPlayed; // ring by sequence
    };
    struct tagDrop
    {
        uint32 uStream;
        uint32 dwSeq;
        bool bFirst;
        bool bUnsure;
    };

    tagPacketAccount& Stream(uint32 uStream);
    tagFiled& FiledOf(CMediaPacket& packet);
    uint32 TakenTick(const CMediaPacket& packet) const;
    void CheckOrder(tagFiled& stFiled, const CMediaPacket& packet);
    void CheckTwice(tagFiled& stFiled, const CMediaPacket& packet);
    void Violation(const std::string& strWhat);
    void PacketViolation(uint32 uStream, uint32 dwSeq, const char* pszWhat);

    std::vector<tagPacketAccount> m_vecStreams;
    std::vector<tagFiled> m_vecFiled;
    std::map<std::tuple<uint64, uint8, uint32>, uint32> m_mapFiled; // by account, sub-type and epoch
    std::vector<tagDrop> m_vecDrops; // let go unplayed in this turn, not named yet
    uint64 m_ullLive = 0;
    uint64 m_ullTurn = 0;
    std::vector<uint32> m_vecTurnTicks; // ring of the last turns
    uint64 m_ullSkipLines = 0;          // in this turn
    uint64 m_ullPullBacks = 0;
    uint64 m_ullForgets = 0; // pull-backs and clearings
    uint32 m_dwTick = 0;
    uint32 m_dwStartTick = 0;
    bool m_bPulledBack = false; // in this turn
    bool m_bClearAsked = false;
    bool m_bStopping = false;

    uint64 m_ullBroken = 0;
    std::vector<std::string> m_vecViolations;
};

} // namespace lab

#endif
