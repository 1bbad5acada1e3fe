#ifndef LOCKSTEPWORLD_H
#define LOCKSTEPWORLD_H

/**
 * Makes up what a pair of receivers goes through: senders, a network that loses, delays, repeats and turns
 * around, answers to what was really asked for, and an owner who turns every knob. All of it comes as calls
 * with their arguments spelled out, so that any part of a run can be made again without it.
 *
 * A run is a row of phases. A phase holds for some tens to thousands of turns and picks its own weights: calm
 * ones reach deep and steady states, wild ones reach odd ones.
 */

#include "LockstepTwins.h"

#include <deque>
#include <functional>
#include <map>
#include <random>
#include <vector>

class CLockstepChance
{
public:
    explicit CLockstepChance(uint64 ullSeed) : m_rng(ullSeed) {}

    uint64 Word() { return m_rng(); }
    uint32 Below(uint32 dwEnd) { return dwEnd != 0 ? (uint32)(m_rng() % dwEnd) : 0; }
    uint32 Between(uint32 dwFirst, uint32 dwLast) { return dwFirst + Below(dwLast - dwFirst + 1); }
    bool OneIn(uint32 dwN) { return Below(dwN) == 0; }
    bool PerMille(uint32 dwShare) { return Below(1000) < dwShare; }
    uint32 Of(std::initializer_list<uint32> lst) { return *(lst.begin() + Below((uint32)lst.size())); }

private:
    std::mt19937_64 m_rng;
};

class CLockstepWorld
{
public:
    /// How many packets a stream's buffer holds.
    typedef std::function<size_t(uint64 ullUin, uint8 cSubType)> FnDepth;
    CLockstepWorld(CLockstepChance& chance, uint64 ullTick, const FnDepth& fnDepth);

    /// The calls that begin a run.
    std::vector<tagTwinCall> Begin();
    /// The calls of one turn, `CALL_TURN` last.
    std::vector<tagTwinCall> Turn();
    /// What the receivers asked for in the last turn.
    void Asked(const std::vector<tagReplyData>& vecAsked);

private:
    struct tagPhase
    {
        uint32 dwTurns = 0;
        uint32 dwLoss = 0;   ///< per mille of packets that begin a lost run
        uint32 dwBurst = 1;  ///< packets that such a run takes
        uint32 dwJitter = 0; ///< ms
        uint32 dwDouble = 0; ///< per mille that arrive twice
        uint32 dwHold = 0;   ///< per mille held back until much later
        uint32 dwHoldMs = 0;
        uint32 dwAnswer = 0;     ///< per mille of asked packets that are sent again
        uint32 dwAnswerMs = 0;   ///< round trip, ms
        uint32 dwTwice = 0;      ///< per mille of answers that come twice
        uint32 dwPace = 100;     ///< media per real time, percent
        uint32 dwSeqLeap = 0;    ///< per mille of packets before which the sequence leaps
        uint32 dwMediaLeap = 0;  ///< per mille of frames before which the media time leaps
        uint32 dwWild = 0;       ///< per mille of packets with a head of any kind
        uint32 dwKnobs = 0;      ///< per mille of turns with an owner's call
        uint32 dwModes = 0;      ///< per mille of turns that set mode and push count anew
        uint32 dwDoors = 0;      ///< per mille of turns with an owner's call from inside a callback
        uint32 dwOddClock = 0;   ///< per mille of turns whose step is odd
        uint32 dwStep = 10;      ///< ms between turns
        uint32 dwNewStreams = 0; ///< per mille of turns that bring a new sender
        uint32 dwClears = 0;     ///< per mille of turns that clear a stream
    };

    struct tagSender
    {
        uint64 ullUin = 0;
        uint8 cSubType = 0;
        uint32 dwSeq = 0;
        uint32 dwMedia = 0;
        uint32 dwStep = 20;    ///< ms of media per frame
        uint32 dwCarry = 0;    ///< hundredths of ms of media not yet sent
        uint32 dwRunLost = 0;  ///< packets of the lost run still to come
        uint32 dwRagged = 0;   ///< first packets that come in any order
        uint32 dwRaggedMs = 0; ///< within so many ms
        bool bMuted = false;   ///< sends nothing this phase
        uint8 cGop = 0;
        uint8 cFrm = 0;
        uint32 dwGopStep = 1;
        uint32 dwGopLen = 30; ///< frames per GOP
        uint32 dwPattern = 0; ///< of frame types
        uint32 dwFec = 0;
        uint32 dwPkgs = 3; ///< most packets per frame
        uint32 dwInGop = 0;
        std::map<uint32, tagRigPacket> mapSent; ///< what may be asked for again
        std::deque<uint32> queSent;
    };

    void NewPhase();
    void NewSender();
    void Push(tagSender& st);
    void SendFrame(tagSender& st);
    void Send(tagSender& st, tagRigPacket stPacket);
    void OnWire(uint64 ullTick, const tagRigPacket& stPacket);
    bool IsVideo(const tagSender& st) const { return st.cSubType != MEAVAudio; }
    uint8 FrameType(const tagSender& st);
    tagRigPacket Packet(tagSender& st);
    void MakeWild(tagRigPacket& stPacket);
    void FillGap(tagSender& st, uint32 dwLast, uint32 dwLost);
    void OwnersCalls(std::vector<tagTwinCall>& vecCalls);
    tagTwinCall Knob();
    tagTwinCall DoorCall();
    tagTwinCall FeedNow();
    tagUDTRecvParams AnyParams();
    uint32 AnySeq();
    uint64 AnyUin();

    CLockstepChance& m_chance;
    uint64 m_ullNow;
    FnDepth m_fnDepth;
    tagPhase m_stPhase;
    uint32 m_dwLastKind = 0;
    uint32 m_dwTurnsToStart = 0; ///< of a stopped receiver
    std::vector<tagSender> m_vecSenders;
    std::multimap<uint64, tagRigPacket> m_mapWire;
    uint32 m_dwDownSeq;
    uint32 m_dwUsers;
    bool m_bReopen = false; ///< the room is to be opened on the next turn
    bool m_bCalm;           ///< the owner of this run turns few knobs
};

#endif // LOCKSTEPWORLD_H
