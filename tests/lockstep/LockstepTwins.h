#ifndef LOCKSTEPTWINS_H
#define LOCKSTEPTWINS_H

/**
 * Two receivers in lock-step: the receiver and the plain one take the same calls at the same ticks. Whatever
 * they tell their owners is compared after every call; what they are, after every turn.
 */

#include "PlainRig.h"
#include "RecvRig.h"

#include <cstddef>
#include <memory>
#include <string>
#include <vector>

// ---- Calls -----------------------------------------------------------------------------------------------------

enum emTwinCall
{
    CALL_FEED,     ///< UDTReceiveNetData
    CALL_TURN,     ///< RunTurn
    CALL_CLOCK,    ///< the clock moves by llValue ms
    CALL_PARAMS,   ///< UDTSetRecvParams
    CALL_RTT,      ///< UDTSetRecvRTT
    CALL_REGET,    ///< UDTEnableReGetPkg
    CALL_ROOM,     ///< SetRoomState
    CALL_CLEAR,    ///< ClearRecvChn: account and sub-type
    CALL_DOWNLOSS, ///< GetDownPacketRecvInfo
    CALL_SPEED,    ///< the rate meters are read
    CALL_DELAY,    ///< the owner's play delay from now on
    CALL_STOP,
    CALL_START,
    CALL_LOG_LEVEL, ///< LogSetLevel: which lines are written changes, what the receivers are does not
    CALL_LOSE_USER, ///< a user's timeline goes while the streams stay
    CALL_GUARDS     ///< SetGuards on the one that has it, with limits that nobody reaches, or 0 for none
};

/// A call from inside a callback: at the `dwDoorCount`-th callback of that kind from now on.
enum emTwinDoor
{
    DOOR_NONE, ///< at once
    DOOR_RELEASE,
    DOOR_REQUEST,
    DOOR_PARSE
};

struct tagTwinCall
{
    emTwinCall eCall = CALL_TURN;
    emTwinDoor eDoor = DOOR_NONE;
    uint32 dwDoorCount = 0;
    int64 llValue = 0;
    uint64 ullUin = 0;
    bool bNoHead = false; ///< the owner leaves the head of the fed packet zeroed
    tagRigPacket stPacket;
    tagUDTRecvParams params;

    std::string Text() const;
};

/// How a pair begins.
struct tagTwinSetup
{
    uint64 ullTick = 1000;
    int nLogLevel = LOG_LEVEL_DEBUG;
    bool bWithOwner = true;
    bool bGuards = false;      ///< the receiver has guards that nobody reaches, the plain one has none
    uint32 dwCompareEvery = 1; ///< turns between two comparisons of everything
};

// ---- One of the two ----------------------------------------------------------------------------------------------

/// What one receiver's owner was told, as lines.
class CTwinOwner : public IUDTRecvEventCallBack
{
public:
    std::string m_strTold;                ///< callbacks, log lines and returned values, in order
    std::vector<tagReplyData> m_vecAsked; ///< what was asked for since it was last emptied
    int m_nLivePackets = 0;               ///< packets handed in and not given back
    CVirtualClock* m_pClock = nullptr;
    uint64 m_ullReleases = 0;
    uint64 m_ullLines = 0;

    void Disarm() { m_vecArmed.clear(); }
    void Tell(const char* pszFormat, ...) __attribute__((format(printf, 2, 3)));
    static void Sink(void* pCtx, UDT_LOG_LEVEL eLevel, const char* pTag, const char* pFile, int nLine,
                     const char* pFunc, const char* pText);

protected:
    void OnUDTRecvOutData(UDTCodecBaseDecode_V2* pPacket, int* pnDelay) override;
    int UdtRecvHandleEvent(WORD wType, uint8* pBuffer, uint32 nBufSize, uint32 nSendCount,
                           uint32 nUdtV2) override;
    int UdtParsePacketHeadInfo(uint8* pBuf, UdtPacketHeadInfo& stHead) override;
    ~CTwinOwner() = default;

    virtual void TellReleasing() = 0;
    virtual void Do(const tagTwinCall& stCall) = 0;
    void Arm(const tagTwinCall& stCall) { m_vecArmed.push_back(stCall); }

    int m_nPlayDelay = 0;
    uint32 m_dwFed = 0;

private:
    void Pass(emTwinDoor eDoor);
    std::vector<tagTwinCall> m_vecArmed;
};

template <class RIG>
class CTwin : public CTwinOwner
{
public:
    template <class... Args>
    explicit CTwin(Args&&... args) : m_rig(args...)
    {
    }
    RIG m_rig;

    void Do(const tagTwinCall& stCall) override;
    void TellReleasing() override;
};

// ---- Both --------------------------------------------------------------------------------------------------------

class CTwins
{
public:
    explicit CTwins(const tagTwinSetup& stSetup);
    ~CTwins();
    CTwins(const CTwins&) = delete;
    CTwins& operator=(const CTwins&) = delete;

    /// Makes one call on both. False: they differ, see What().
    bool Do(const tagTwinCall& stCall);
    /// Everything, now.
    bool CompareAll();
    const std::string& What() const { return m_strWhat; }

    uint64 Tick() const { return m_fast.m_rig.m_clock.Tick(); }
    plain::CPlainInside& Plain() { return m_plain.m_rig; }
    CRecvRig& Fast() { return m_fast.m_rig; }
    /// What was asked for since the last call of this.
    std::vector<tagReplyData> TakeAsked();
    uint64 Releases() const { return m_plain.m_ullReleases; }
    uint64 Lines() const { return m_plain.m_ullLines; }
    /// Packets that either holds.
    int Held() const { return m_fast.m_nLivePackets + m_plain.m_nLivePackets; }
    /// No call waits for a callback any more.
    void Disarm()
    {
        m_fast.Disarm();
        m_plain.Disarm();
    }

private:
    bool CompareTold();
    bool CompareMembers();
    bool CompareGetters();

    const tagTwinSetup m_stSetup;
    CTwin<CRecvRig> m_fast;
    CTwin<plain::CPlainInside> m_plain;
    int m_nLogLevel; ///< both begin a call at the same one, whatever it makes of it
    uint32 m_dwTurnsUnseen = 0;
    std::string m_strWhat;
};

/// Makes the calls on a fresh pair, then stops it. Returns how many calls were made up to the first difference,
/// with what differs, or `c_nNoDifference`.
constexpr size_t c_nNoDifference = (size_t)-1;
size_t Replay(const tagTwinSetup& stSetup, const std::vector<tagTwinCall>& vecCalls, std::string& strWhat);

/// Drops calls as long as the pair still differs, for at most `dwSeconds`.
std::vector<tagTwinCall> Shrink(const tagTwinSetup& stSetup, std::vector<tagTwinCall> vecCalls,
                                uint32 dwSeconds);

/// What of the plain receiver's records and members no comparison looks at, by the name before it.
std::vector<std::string> FieldsNobodyCompares();

#endif // LOCKSTEPTWINS_H
