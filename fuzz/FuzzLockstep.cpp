// Bytes become calls on two receivers: the receiver and the plain one must tell and be the same after every call, and
// give every packet back at the end.

#include "FuzzWorld.h"
#include "LockstepTwins.h"

#include <cstdio>

namespace
{

constexpr uint32 c_dwMostCalls = 2000;
constexpr uint32 c_dwMostLockstepTurns = 1000;
constexpr size_t c_nMostStreams = 60; // the comparison reads so many at once

tagUDTRecvParams Params(CFuzzInput& in)
{
    tagUDTRecvParams params;
    static constexpr uint16 s_aTimes[] = {0,   1,    50,   99,   100,  199,   200,   300,
                                          800, 1000, 2000, 3000, 6000, 20000, 0xFFFF};
    const auto time = [&in] { return s_aTimes[in.Below(15)]; };
    const uint8 cWhich = in.Byte();
    if (cWhich & 1)
        params.wQueuePeriod = time();
    if (cWhich & 2)
        params.wFirstGetTime = time();
    if (cWhich & 4)
        params.wNextGetTime = time();
    if (cWhich & 8)
        params.wCalcRecvLossTime = time();
    if (cWhich & 16)
        params.wTimelineDelta = time();
    if (cWhich & 32)
        params.wOutPutDelay = time();
    if (cWhich & 64)
        params.wPeriodMinDelay = time();
    params.wUdtMode = cWhich >> 7;
    params.wPushGopNum = (uint16)in.Below(4);
    return params;
}

class CCalls
{
public:
    explicit CCalls(CFuzzInput& in) : m_in(in) {}

    tagTwinCall Next()
    {
        tagTwinCall st;
        const uint8 cWhat = m_in.Byte();
        if ((cWhat & 0x80) == 0) // half of all
        {
            st.eCall = CALL_FEED;
            st.bNoHead = cWhat == 0x7F;
            Feed(st);
        }
        else if ((cWhat & 0x40) == 0) // a step of the clock; the turn is the next call
        {
            st.eCall = CALL_CLOCK;
            static constexpr uint32 s_aSteps[] = {10,  0,   1,    11,   50,   51,   100,   200,
                                                  300, 501, 1000, 2001, 4001, 6001, 12001, 16000};
            st.llValue = s_aSteps[cWhat & 15];
            if ((cWhat & 0x30) == 0x30)
                st.llValue = (int32)m_in.Word32() >> m_in.Below(32);
            else
                m_bTurn = true;
        }
        else
            Owner(st, cWhat & 0x1F);
        if ((cWhat & 0xE0) == 0xE0 && st.eCall != CALL_LOSE_USER) // no walk survives that from inside
        {
            const uint8 cDoor = m_in.Byte();
            st.eDoor = (emTwinDoor)(1 + cDoor % 3);
            st.dwDoorCount = 1 + (cDoor >> 4);
            m_bTurn = false;
        }
        return st;
    }
    bool TakeTurn()
    {
        const bool bTurn = m_bTurn;
        m_bTurn = false;
        return bTurn;
    }

private:
    void Feed(tagTwinCall& st)
    {
        st.stPacket = m_senders.Packet(m_in);
        // Few streams, so that there is something in each.
        st.stPacket.ullUin = m_nUins < c_nMostStreams / 4 ? st.stPacket.ullUin : st.stPacket.ullUin % 4;
        m_nUins += st.stPacket.ullUin > 2;
        st.stPacket.cSubType = st.stPacket.cSubType % 11;
    }

    void Owner(tagTwinCall& st, uint8 cWhat)
    {
        switch (cWhat)
        {
        default: st.eCall = CALL_TURN; break;
        case 0:
        case 1:
        case 2: Feed(st), st.eCall = CALL_FEED; break;
        case 3:
        case 4:
            st.eCall = CALL_PARAMS;
            st.params = Params(m_in);
            break;
        case 5:
        case 6:
            st.eCall = CALL_RTT;
            st.llValue = m_in.Word16() >> m_in.Below(16);
            break;
        case 7:
            st.eCall = CALL_REGET;
            st.llValue = m_in.Below(3);
            break;
        case 8:
        case 9:
            st.eCall = CALL_ROOM;
            st.llValue = 3;
            break;
        case 10:
            st.eCall = CALL_ROOM;
            st.llValue = m_in.Below(5);
            break;
        case 11:
        case 12:
        {
            static constexpr uint32 s_aWhat[] = {0, 1, 2, 3, 6, 7, 0xFF, 0x102};
            st.eCall = CALL_CLEAR;
            st.llValue = s_aWhat[m_in.Below(8)];
            st.ullUin = m_senders.Uin(m_in);
            break;
        }
        case 13: st.eCall = CALL_DOWNLOSS; break;
        case 14: st.eCall = CALL_SPEED; break;
        case 15:
            st.eCall = CALL_DELAY;
            st.llValue = (int32)m_in.Word16() >> m_in.Below(16);
            break;
        case 16: st.eCall = CALL_STOP; break;
        case 17:
        case 18: st.eCall = CALL_START; break;
        case 19:
            st.eCall = CALL_LOG_LEVEL;
            st.llValue = m_in.Below(2) ? LOG_LEVEL_DEBUG : LOG_LEVEL_ERROR;
            break;
        case 21:
            st.eCall = CALL_GUARDS;
            st.llValue = m_in.Below(3);
            break;
        case 20:
            st.eCall = CALL_LOSE_USER;
            st.ullUin = m_senders.Uin(m_in);
            break;
        }
    }

    CFuzzInput& m_in;
    CFuzzSenders m_senders;
    size_t m_nUins = 0;
    bool m_bTurn = false;
};

} // namespace

void FuzzLockstep(const uint8* pData, size_t nLen)
{
    CFuzzInput in(pData, nLen);
    tagTwinSetup stSetup;
    static constexpr uint64 s_aTicks[] = {1000, 0, 1, 0xFFFFFC00, 0xFFFFFFFF, 0x7FFFFFFF, 5000, 0xFFFFE000};
    const uint8 cSetup = in.Byte();
    stSetup.ullTick = s_aTicks[cSetup & 7];
    stSetup.nLogLevel = cSetup & 8 ? LOG_LEVEL_ERROR : LOG_LEVEL_DEBUG;
    stSetup.bWithOwner = (cSetup & 0x70) != 0x70;
    stSetup.dwCompareEvery = cSetup & 0x80 ? 7 : 1;

    CTwins twins(stSetup);
    CCalls calls(in);
    const auto make = [&](const tagTwinCall& stCall)
    {
        if (FuzzShows())
            fprintf(stderr, "%s\n", stCall.Text().c_str());
        if (!twins.Do(stCall))
            throw CFuzzBroken("at \"" + stCall.Text() + "\": " + twins.What());
    };
    tagTwinCall stCall;
    stCall.eCall = CALL_START;
    make(stCall);
    stCall.eCall = CALL_ROOM;
    stCall.llValue = 3;
    make(stCall);
    uint32 dwTurns = 0;
    for (uint32 dwCalls = 0; !in.Empty() && dwCalls < c_dwMostCalls && dwTurns < c_dwMostLockstepTurns;
         ++dwCalls)
    {
        const tagTwinCall stNext = calls.Next();
        make(stNext);
        dwTurns += stNext.eCall == CALL_TURN;
        if (calls.TakeTurn())
        {
            make(tagTwinCall());
            ++dwTurns;
        }
        twins.TakeAsked();
    }
    // What a callback was still to do could feed it again while it stops.
    twins.Disarm();
    stCall = tagTwinCall();
    stCall.eCall = CALL_STOP;
    make(stCall);
    if (!twins.CompareAll())
        throw CFuzzBroken("at the end: " + twins.What());
    FuzzExpect(twins.Held() == 0, "a stopped receiver holds packets");
}
