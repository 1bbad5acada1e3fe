#include "LockstepWorld.h"

#include <algorithm>

namespace
{

constexpr size_t c_nSentKept = 6000;
constexpr size_t c_nWireMost = 4000;
constexpr size_t c_nDeepEnough = 2000; // packets in one buffer; more of them show nothing new and cost turns

tagTwinCall Call(emTwinCall eCall, int64 llValue = 0, uint64 ullUin = 0)
{
    tagTwinCall st;
    st.eCall = eCall;
    st.llValue = llValue;
    st.ullUin = ullUin;
    return st;
}

} // namespace

CLockstepWorld::CLockstepWorld(CLockstepChance& chance, uint64 ullTick, const FnDepth& fnDepth)
    : m_chance(chance), m_ullNow(ullTick), m_fnDepth(fnDepth),
      m_dwDownSeq(chance.Of({1, 2, 1000, 0xFFFFFF00})), m_dwUsers(chance.Of({1, 1, 2, 3})),
      m_bCalm(!chance.OneIn(3))
{
}

std::vector<tagTwinCall> CLockstepWorld::Begin()
{
    std::vector<tagTwinCall> vecCalls;
    if (m_chance.OneIn(20))
        vecCalls.push_back(Call(CALL_TURN)); // stopped
    if (m_chance.OneIn(3))
    {
        tagTwinCall st = Call(CALL_PARAMS);
        st.params = AnyParams();
        vecCalls.push_back(st);
    }
    vecCalls.push_back(Call(CALL_START));
    if (!m_chance.OneIn(5))
    {
        tagTwinCall st = Call(CALL_PARAMS);
        st.params.wUdtMode = (uint16)m_chance.Below(2);
        st.params.wQueuePeriod = (uint16)m_chance.Of({2000, 6000, 6000, 20000});
        st.params.wTimelineDelta = (uint16)m_chance.Of({50, 200, 1000, 2000});
        st.params.wFirstGetTime = (uint16)m_chance.Of({0, 200, 300, 1000});
        st.params.wNextGetTime = (uint16)m_chance.Of({0, 100, 200, 600});
        st.params.wPushGopNum = (uint16)m_chance.Of({0, 1, 2, 2, 3});
        vecCalls.push_back(st);
    }
    if (!m_chance.OneIn(4))
        vecCalls.push_back(Call(CALL_ROOM, 3));
    if (m_chance.OneIn(2))
        vecCalls.push_back(Call(CALL_RTT, m_chance.Of({20, 80, 200, 600})));
    for (uint32 n = m_chance.Between(1, 4); n != 0; --n)
        NewSender();
    return vecCalls;
}

uint32 CLockstepWorld::AnySeq()
{
    if (m_chance.OneIn(3))
        return (uint32)m_chance.Word();
    return m_chance.Of({0, 1, 100, 0x7FFF, 0x8000, 0xFFFF, 0x7FFFFFFF, 0xFFFFFFFE, 0xFFFFFFFF, 0xFFFFFF00,
                        0xFFFFF000}) -
           m_chance.Below(40);
}

uint64 CLockstepWorld::AnyUin()
{
    if (m_vecSenders.empty() || m_chance.OneIn(10))
        return m_chance.Of({0, 1, 7, 12345});
    return m_vecSenders[m_chance.Below((uint32)m_vecSenders.size())].ullUin;
}

// ---- Phases --------------------------------------------------------------------------------------------------------

void CLockstepWorld::NewPhase()
{
    tagPhase st;
    for (tagSender& stSender : m_vecSenders)
        stSender.bMuted = false;

    // What fills the buffers is mostly followed by a quiet stretch or an even one, so that they stay full.
    uint32 dwKind = m_chance.Below(100);
    if (m_dwLastKind >= 40 && m_dwLastKind < 55 && !m_chance.OneIn(3))
        dwKind = m_chance.OneIn(2) ? 55 : m_chance.Below(20);
    m_dwLastKind = dwKind;
    st.dwTurns = m_chance.Between(30, 400);
    st.dwAnswer = m_chance.Of({0, 300, 800, 1000});
    st.dwAnswerMs = m_chance.Of({5, 40, 120, 400, 1500});
    st.dwTwice = m_chance.Of({0, 0, 100});
    st.dwStep = m_chance.Of({10, 10, 10, 5, 20});
    if (dwKind < 20) // a good network
    {
        st.dwLoss = m_chance.Of({0, 0, 2, 10});
        st.dwJitter = m_chance.Of({0, 0, 5, 30});
        st.dwTurns *= 2;
    }
    else if (dwKind < 40) // a bad one
    {
        st.dwLoss = m_chance.Of({20, 50, 200, 500});
        st.dwBurst = m_chance.Of({1, 1, 3, 10, 40});
        st.dwJitter = m_chance.Of({0, 20, 100, 600});
        st.dwDouble = m_chance.Of({0, 10, 100, 500});
        st.dwHold = m_chance.Of({0, 0, 20});
        st.dwHoldMs = m_chance.Between(100, 7000);
    }
    else if (dwKind < 55) // the buffers fill far ahead, with a few gaps
    {
        st.dwTurns = m_chance.Between(5, 60);
        st.dwPace = m_chance.Of({1000, 3000, 8000});
        st.dwLoss = m_chance.Of({0, 1, 3, 10});
        st.dwBurst = m_chance.Of({1, 2, 30});
        st.dwHold = m_chance.Of({0, 2, 10});
        st.dwHoldMs = m_chance.Between(500, 9000);
        st.dwAnswer = m_chance.Of({0, 300, 1000});
    }
    else if (dwKind < 67) // nothing arrives but answers and what was held back
    {
        st.dwTurns = m_chance.Between(100, 900);
        st.dwPace = 0;
        st.dwKnobs = m_chance.Of({0, 0, 0, 30});
    }
    else if (dwKind < 72) // some are silent
    {
        for (tagSender& stSender : m_vecSenders)
            stSender.bMuted = m_chance.OneIn(2);
        st.dwLoss = m_chance.Of({0, 10, 50});
        st.dwTurns *= 2;
    }
    else if (dwKind < 82) // sequences and media time leap
    {
        st.dwSeqLeap = m_chance.Of({0, 5, 30});
        st.dwMediaLeap = m_chance.Of({0, 2, 10});
        st.dwJitter = m_chance.Of({0, 50});
    }
    else if (dwKind < 85) // heads of any kind
    {
        st.dwWild = m_chance.Of({5, 50, 500});
        st.dwLoss = m_chance.Of({0, 30});
        st.dwJitter = m_chance.Of({0, 40});
        st.dwSeqLeap = m_chance.Of({0, 0, 20});
    }
    else if (dwKind < 94) // streams come and go
    {
        st.dwNewStreams = m_chance.Of({30, 100, 200});
        st.dwClears = m_chance.Of({0, 20, 60});
        st.dwLoss = m_chance.Of({0, 20, 100});
        st.dwJitter = m_chance.Of({0, 40});
    }
    else // the owner plays with everything
    {
        st.dwKnobs = m_bCalm ? 40 : 250;
        st.dwDoors = m_bCalm ? 40 : 150;
        st.dwNewStreams = 20;
        st.dwLoss = m_chance.Of({30, 200});
        st.dwModes = m_chance.Of({0, 20, 300});
        st.dwOddClock = 50;
    }
    st.dwKnobs += m_bCalm ? 1 : 10;
    st.dwModes += 2;
    st.dwNewStreams += 1;
    st.dwOddClock += m_chance.Of({0, 0, 0, 5, 100});
    if (!m_bCalm)
        st.dwDoors += m_chance.Of({0, 0, 10});
    m_stPhase = st;
}

void CLockstepWorld::NewSender()
{
    if (m_vecSenders.size() >= 10)
        m_vecSenders.erase(m_vecSenders.begin() + m_chance.Below((uint32)m_vecSenders.size()));
    tagSender st;
    st.ullUin = m_chance.OneIn(30) ? m_chance.Word() : m_chance.Between(1, m_dwUsers);
    st.cSubType =
        (uint8)m_chance.Of({MEAVAudio, MEAVAudio, MEAVAudio, MEAVMaxVideo, MEAVMaxVideo, MEAVMaxVideo,
                            MEAVMinVideo, MEAVSubVideo, MEAVSubVideo, MEAVPPTShare, 0, 9, 10, 255});
    // Media of one user lies on one timeline, mostly.
    const tagSender* pstOfUser = nullptr;
    for (const tagSender& stOther : m_vecSenders)
    {
        if (stOther.ullUin == st.ullUin)
            pstOfUser = &stOther;
    }
    st.dwSeq = AnySeq();
    st.dwMedia = m_chance.OneIn(4)   ? 0u - m_chance.Below(5000)
                 : m_chance.OneIn(4) ? (uint32)m_ullNow - m_chance.Below(1000)
                                     : m_chance.Of({0, 1, 100000, 0x7FFFFF00, 3000000});
    if (pstOfUser != nullptr && !m_chance.OneIn(8))
        st.dwMedia = pstOfUser->dwMedia - m_chance.Of({0, 0, 100, 600});
    st.dwStep = IsVideo(st) ? m_chance.Of({10, 33, 40, 66, 100})
                            : m_chance.Of({5, 10, 20, 20, 20, 40, 60, 84, 85, 90});
    st.cGop = (uint8)m_chance.Of({0, 1, 100, 254, 255});
    st.cFrm = (uint8)(m_chance.OneIn(3) ? m_chance.Below(256) : 0);
    st.dwGopStep = m_chance.OneIn(6) ? m_chance.Of({0, 2, 255}) : 1;
    st.dwGopLen = m_chance.Of({1, 2, 8, 15, 30, 50, 300});
    st.dwPattern = m_chance.Below(7);
    st.dwFec = m_chance.Of({0, 0, 1, 3});
    st.dwPkgs = m_chance.Of({1, 2, 4, 9});
    st.dwInGop = m_chance.OneIn(3) ? m_chance.Below(st.dwGopLen) : 0;
    st.dwRagged = m_chance.Of({0, 2, 4, 12, 40});
    st.dwRaggedMs = m_chance.Of({15, 60, 300});
    m_vecSenders.push_back(st);
    if (m_chance.OneIn(2))
        Push(m_vecSenders.back());
}

// The server begins a stream with what it has: some GOPs at once, whole or cut short at the front.
void CLockstepWorld::Push(tagSender& st)
{
    const uint32 dwFrames = std::min(m_chance.Of({1, 2, 3}) * st.dwGopLen, 120u);
    st.dwMedia -= dwFrames * st.dwStep + m_chance.Of({0, 0, 500, 2500, 6000});
    for (uint32 i = 0; i < dwFrames; ++i)
        SendFrame(st);
}

// ---- Senders and the network -----------------------------------------------------------------------------------------

uint8 CLockstepWorld::FrameType(const tagSender& st)
{
    if (st.dwPattern == 6)
        return (uint8)m_chance.Below(7);
    if (st.dwInGop == 0 && st.dwPattern != 5)
        return def_FrameType_I;
    switch (st.dwPattern)
    {
    case 0: return def_FrameType_P;
    case 1: return (uint8)(st.dwInGop % 3 == 0 ? def_FrameType_P : def_FrameType_B);
    case 2: return (uint8)(st.dwInGop % 4 == 0 ? def_FrameType_SP : def_FrameType_P_WITHSP);
    case 3: return (uint8)(st.dwInGop % 5 == 0 ? def_FrameType_GF : def_FrameType_P_WITHB);
    case 4: return def_FrameType_I;
    default: return def_FrameType_P;
    }
}

tagRigPacket CLockstepWorld::Packet(tagSender& st)
{
    tagRigPacket stPacket;
    stPacket.ullUin = st.ullUin;
    stPacket.cSubType = st.cSubType;
    stPacket.dwSendSeq = st.dwSeq++;
    stPacket.wTimeStamp = (uint16)(m_chance.OneIn(500) ? m_chance.Word() : st.dwMedia);
    stPacket.wLen = (uint16)m_chance.Between(40, 1200);
    stPacket.stHead.cSubType = m_chance.OneIn(100) ? (uint8)m_chance.Below(11) : st.cSubType;
    stPacket.stHead.uTimeStamp = st.dwMedia;
    return stPacket;
}

void CLockstepWorld::SendFrame(tagSender& st)
{
    if (m_chance.PerMille(m_stPhase.dwMediaLeap))
        st.dwMedia += m_chance.Of({100, 2001, 4999, 5001, 15001, 20000, 60000, 1u << 31, 0u - 100, 0u - 1999,
                                   0u - 2000, 0u - 4600, 0u - 20000, (uint32)m_chance.Word()});
    if (!IsVideo(st))
    {
        tagRigPacket stPacket = Packet(st);
        stPacket.stHead.cFrmType = def_FrameType_P;
        stPacket.stHead.cTotalPkgCount = 1;
        Send(st, stPacket);
        st.dwMedia += m_chance.OneIn(400) ? m_chance.Of({0, 40, 84, 85, 200}) : st.dwStep;
        // Steps are learned anew when they are off by more than 15 ms.
        const uint32 dwOther = st.dwStep + m_chance.Of({14, 15, 16, 0u - 14, 0u - 15, 0u - 16});
        if (m_chance.OneIn(400) && dwOther - 1 < 120)
            st.dwStep = dwOther;
        return;
    }
    const uint8 cType = FrameType(st);
    const uint32 dwPkgs = m_chance.Between(1, cType == def_FrameType_I ? st.dwPkgs * 3 : st.dwPkgs);
    const uint32 dwFec = m_chance.Below(st.dwFec + 1);
    const bool bNoHead = m_chance.PerMille(m_stPhase.dwLoss / 8); // the frame's first packets never were
    for (uint32 i = 0; i < dwPkgs + dwFec; ++i)
    {
        tagRigPacket stPacket = Packet(st);
        tagUdtPacketHeadInfo& stHead = stPacket.stHead;
        stHead.cFrmType = cType;
        stHead.cPkgIndex = (uint8)i;
        stHead.cTotalPkgCount = (uint8)dwPkgs;
        stHead.cFecPkgCount = (uint8)dwFec;
        stHead.cFrameIndex = st.cFrm;
        stHead.cGopIndex = st.cGop;
        if (!(bNoHead && i < dwPkgs / 2))
            Send(st, stPacket);
    }
    st.dwMedia += st.dwStep;
    st.cFrm = (uint8)(st.cFrm + 1);
    if (++st.dwInGop >= st.dwGopLen)
    {
        st.dwInGop = 0;
        st.cGop = (uint8)(st.cGop + st.dwGopStep);
        st.cFrm = m_chance.OneIn(20) ? st.cFrm : (uint8)0;
        if (m_chance.OneIn(20))
            st.dwGopLen = m_chance.Of({1, 2, 8, 15, 30, 50, 300});
    }
}

void CLockstepWorld::MakeWild(tagRigPacket& stPacket)
{
    tagUdtPacketHeadInfo& stHead = stPacket.stHead;
    switch (m_chance.Below(12))
    {
    case 0: stHead.cPkgIndex = (uint8)m_chance.Word(); break;
    case 1: stHead.cTotalPkgCount = (uint8)m_chance.Of({0, 1, 255}); break;
    case 2: stHead.cFecPkgCount = (uint8)m_chance.Of({0, 255}); break;
    case 3: stHead.cFrameIndex = (uint8)m_chance.Word(); break;
    case 4: stHead.cGopIndex = (uint8)m_chance.Word(); break;
    case 5: stHead.cFrmType = (uint8)m_chance.Of({0, 0, 1, 2, 3, 4, 5, 6, 7, 255}); break;
    case 6: stHead.uTimeStamp += m_chance.Below(4000) - 2000; break;
    case 7: stHead.uTimeStamp = (uint32)m_chance.Word(); break;
    case 8: stPacket.bNull = true; break;
    case 9: stPacket.dwSendSeq += m_chance.Of({0u - 1, 0u - 2, 1, 2, 256, 0u - 256, 0x8000}); break;
    case 10:
        stPacket.wTimeStamp = (uint16)m_chance.Of({0, 9999, 10000, 10001, 49999, 50000, 50001, 65535});
        break;
    default: stPacket.cSubType = (uint8)m_chance.Below(11); break;
    }
}

void CLockstepWorld::Send(tagSender& st, tagRigPacket stPacket)
{
    if (m_chance.PerMille(m_stPhase.dwSeqLeap))
    {
        const uint32 dwLast = st.dwSeq - 1;
        st.dwSeq += m_chance.Of({1,    2,      29,     30,     31,     98,     99,     100,     101, 102,
                                 254,  255,    256,    256,    256,    257,    511,    512,     513, 768,
                                 1024, 0x7FFD, 0x7FFE, 0x7FFF, 0x8000, 0u - 1, 0u - 3, 0u - 300});
        if (m_chance.OneIn(30))
            st.dwSeq = AnySeq();
        else if (m_chance.OneIn(2))
            FillGap(st, dwLast, st.dwSeq - dwLast - 1);
    }
    if (m_chance.PerMille(m_stPhase.dwWild))
        MakeWild(stPacket);

    if (st.mapSent.emplace(stPacket.dwSendSeq, stPacket).second)
        st.queSent.push_back(stPacket.dwSendSeq);
    if (st.queSent.size() > c_nSentKept)
    {
        st.mapSent.erase(st.queSent.front());
        st.queSent.pop_front();
    }

    if (st.dwRunLost == 0 && m_chance.PerMille(m_stPhase.dwLoss))
        st.dwRunLost = m_chance.Between(1, m_stPhase.dwBurst);
    const bool bHeld = m_chance.PerMille(m_stPhase.dwHold);
    if (st.dwRunLost != 0)
    {
        --st.dwRunLost;
        return;
    }
    uint64 ullArrival = m_ullNow + m_chance.Below(m_stPhase.dwJitter + 1);
    if (st.dwRagged != 0)
    {
        --st.dwRagged;
        ullArrival += m_chance.Below(st.dwRaggedMs + 1);
    }
    if (bHeld)
        ullArrival += m_chance.Below(m_stPhase.dwHoldMs + 1);
    OnWire(ullArrival, stPacket);
    if (m_chance.PerMille(m_stPhase.dwDouble))
        OnWire(ullArrival + m_chance.Of({0, 1, 30, 500, 6100}), stPacket);
}

// Some packets from inside a leap come later, so that it falls into parts.
void CLockstepWorld::FillGap(tagSender& st, uint32 dwLast, uint32 dwLost)
{
    if (dwLost == 0 || dwLost > 2000)
        return;
    for (uint32 n = m_chance.Between(1, 4); n != 0; --n)
    {
        const uint32 dwSeq = st.dwSeq;
        tagRigPacket stPacket = Packet(st);
        st.dwSeq = dwSeq;
        stPacket.dwSendSeq = dwLast + m_chance.Of({1, 1, dwLost, dwLost, 1 + m_chance.Below(dwLost)});
        stPacket.stHead.cTotalPkgCount = 1;
        stPacket.stHead.cFrmType = (uint8)m_chance.Below(2);
        stPacket.stHead.cFrameIndex = st.cFrm;
        stPacket.stHead.cGopIndex = st.cGop;
        OnWire(m_ullNow + m_chance.Of({0, 10, 60, 200, 500, 1500}), stPacket);
    }
}

void CLockstepWorld::OnWire(uint64 ullTick, const tagRigPacket& stPacket)
{
    if (m_mapWire.size() < c_nWireMost)
        m_mapWire.emplace(ullTick, stPacket);
}

void CLockstepWorld::Asked(const std::vector<tagReplyData>& vecAsked)
{
    for (const tagReplyData& stAsked : vecAsked)
    {
        if (!m_chance.PerMille(m_stPhase.dwAnswer))
            continue;
        for (tagSender& st : m_vecSenders)
        {
            if (st.ullUin != stAsked.ullUserAccount || st.cSubType != stAsked.cSubType || st.mapSent.empty())
                continue;
            std::map<uint32, tagRigPacket>::const_iterator it = st.mapSent.lower_bound(stAsked.dwUserSeq);
            const bool bSent = it != st.mapSent.end() && it->first == stAsked.dwUserSeq;
            if (!bSent && !m_chance.OneIn(4))
                continue; // it never was
            if (it == st.mapSent.end())
                --it;
            tagRigPacket stPacket = it->second; // one that never was looks like its neighbour
            stPacket.dwSendSeq = stAsked.dwUserSeq;
            const uint64 ullArrival =
                m_ullNow + m_stPhase.dwAnswerMs + m_chance.Below(m_stPhase.dwJitter + 1);
            OnWire(ullArrival, stPacket);
            if (m_chance.PerMille(m_stPhase.dwTwice))
                OnWire(ullArrival + m_chance.Of({0, 20, 7000}), stPacket);
        }
    }
}

// ---- The owner -------------------------------------------------------------------------------------------------------

tagUDTRecvParams CLockstepWorld::AnyParams()
{
    const auto border = [this]
    {
        return (uint16)m_chance.Of({0,    0,    0,    1,    10,   99,   100,   101,  199,  200,
                                    201,  299,  300,  301,  399,  400,  401,   500,  1000, 1999,
                                    2000, 2001, 4000, 5999, 6000, 6001, 20000, 65535});
    };
    tagUDTRecvParams st;
    st.wQueuePeriod = border();
    st.wFirstGetTime = border();
    st.wNextGetTime = border();
    st.wGetPkgTimeout = border();
    st.wCalcRecvLossTime = border();
    st.wTimelineDelta = border();
    st.wOutPutDelay = border();
    st.wPeriodMinDelay = border();
    st.wUdtMode = (uint16)m_chance.Of({0, 0, 1, 1, 2, 3, 0xFFFF});
    st.wPushGopNum = (uint16)m_chance.Of({0, 1, 2, 2, 3, 10, 65535});
    return st;
}

tagTwinCall CLockstepWorld::Knob()
{
    switch (m_chance.Below(m_bCalm ? 14 : 19))
    {
    case 0:
    case 1:
    {
        tagTwinCall st = Call(CALL_PARAMS);
        st.params = AnyParams();
        return st;
    }
    case 2:
    case 3:
        return Call(CALL_RTT,
                    m_chance.Of({0, 1, 30, 149, 150, 151, 300, 349, 350, 351, 900, 7000, 0xFFFFFFFF}));
    case 4: return Call(CALL_REGET, m_chance.Of({0, 1, 1, 1, 2}));
    case 5:
    case 6: return Call(CALL_DOWNLOSS);
    case 7: return Call(CALL_SPEED);
    case 8:
        return Call(CALL_DELAY,
                    m_chance.OneIn(8) ? (int32)m_chance.Word() : (int32)m_chance.Of({0, 0, 20, 60, 200}));
    case 9: return Call(CALL_CLEAR, m_chance.Of({0, 1, 2, 2, 3, 6, 7, 0xFF, 0x102}), AnyUin());
    case 10: return Call(CALL_ROOM, m_chance.Of({3, 3, 3, 3, 0, 1, 2, 4, 0xFFFFFFFF}));
    case 11: return Call(CALL_ROOM, 3);
    case 12: return Call(CALL_LOG_LEVEL, m_chance.Of({1, 4, 5, 5}));
    case 13: return Call(CALL_GUARDS, m_chance.Of({0, 1, 1}));
    case 14: return Call(CALL_CLEAR, m_chance.Of({0, 1, 2, 7, 0xFF}), AnyUin());
    case 15: return Call(CALL_ROOM, 3);
    case 16: return Call(CALL_LOSE_USER, 0, AnyUin());
    case 17: return m_chance.OneIn(2) ? Call(CALL_STOP) : Call(CALL_ROOM, 3);
    default: return Call(CALL_START);
    }
}

tagTwinCall CLockstepWorld::FeedNow()
{
    tagTwinCall st = Call(CALL_FEED);
    st.stPacket = Packet(m_vecSenders[m_chance.Below((uint32)m_vecSenders.size())]);
    st.stPacket.dwDownSeq = ++m_dwDownSeq;
    return st;
}

// What an owner does from inside a callback.
tagTwinCall CLockstepWorld::DoorCall()
{
    tagTwinCall st;
    switch (m_chance.Below(12))
    {
    case 0: st = Call(CALL_TURN); break;
    case 1:
    case 2: st = Call(CALL_CLOCK, m_chance.Of({1, 20, 100, 101, 102, 600})); break;
    case 3:
    case 4: st = FeedNow(); break;
    case 5: st = Call(CALL_ROOM, m_chance.Of({0, 1, 2, 4})); break;
    case 6: st = Call(CALL_STOP); break;
    case 7: st = Call(CALL_START); break;
    default: st = Knob(); break;
    }
    if (st.eCall == CALL_LOSE_USER)
        st = Call(CALL_ROOM, 3); // no walk survives that from inside
    st.eDoor = (emTwinDoor)m_chance.Of({DOOR_RELEASE, DOOR_RELEASE, DOOR_REQUEST, DOOR_PARSE});
    st.dwDoorCount = m_chance.Between(1, m_chance.Of({2, 12}));
    return st;
}

void CLockstepWorld::OwnersCalls(std::vector<tagTwinCall>& vecCalls)
{
    const auto make = [&](const tagTwinCall& st)
    {
        vecCalls.push_back(st);
        if (st.eCall == CALL_STOP && m_dwTurnsToStart == 0)
            m_dwTurnsToStart = m_chance.Of({1, 3, 30, 200});
        // An owner who closed the room opens it again, or the run is over for the buffers.
        if (st.eCall == CALL_ROOM && st.llValue != 3 && m_chance.OneIn(2))
        {
            vecCalls.push_back(Call(CALL_ROOM, 3));
            vecCalls.back().eDoor = DOOR_PARSE;
            vecCalls.back().dwDoorCount = m_chance.Of({20, 100, 1000});
        }
    };
    if (m_dwTurnsToStart != 0 && --m_dwTurnsToStart == 0)
    {
        make(Call(CALL_START));
        make(Call(CALL_ROOM, 3));
    }
    if (m_bReopen)
        make(Call(CALL_ROOM, 3));
    m_bReopen = m_chance.PerMille(m_stPhase.dwDoors / 2);
    if (m_bReopen) // the room closes between two releases of one turn
    {
        tagTwinCall st = Call(CALL_ROOM, m_chance.Below(3));
        st.eDoor = DOOR_RELEASE;
        st.dwDoorCount = m_chance.Between(1, 3);
        vecCalls.push_back(st);
    }
    if (m_chance.PerMille(m_stPhase.dwKnobs))
        make(Knob());
    if (m_chance.PerMille(m_stPhase.dwModes))
    {
        tagTwinCall st = Call(CALL_PARAMS); // 0 leaves every other field but the output delay alone
        st.params.wUdtMode = (uint16)m_chance.Below(2);
        st.params.wPushGopNum = (uint16)m_chance.Below(4);
        make(st);
    }
    if (m_chance.PerMille(m_stPhase.dwClears))
    {
        const tagSender& st = m_vecSenders[m_chance.Below((uint32)m_vecSenders.size())];
        make(Call(CALL_CLEAR, st.cSubType, st.ullUin));
    }
    if (m_chance.PerMille(m_stPhase.dwDoors))
        make(DoorCall());

    // Packets that come in while the worker files others, and a clearing that finds them there.
    if (m_chance.PerMille(m_stPhase.dwDoors))
    {
        make(Call(CALL_CLEAR, m_chance.Of({1, 2, 2, 3, 7, 0xFF}), AnyUin()));
        for (uint32 n = m_chance.Between(1, 6); n != 0; --n)
        {
            tagTwinCall st = FeedNow();
            st.eDoor = DOOR_REQUEST;
            st.dwDoorCount = 1;
            make(st);
        }
    }
}

std::vector<tagTwinCall> CLockstepWorld::Turn()
{
    std::vector<tagTwinCall> vecCalls;
    if (m_stPhase.dwTurns == 0)
        NewPhase();
    --m_stPhase.dwTurns;

    uint32 dwMs = m_stPhase.dwStep;
    if (m_chance.PerMille(m_stPhase.dwOddClock))
        dwMs = m_chance.Of(
            {0, 0, 1, 3, 11, 12, 13, 49, 50, 51, 100, 300, 501, 2001, 2501, 4001, 6001, 12000, 16000});
    // The tick 0 means "not yet" in many places, so turns are made at it.
    const uint32 dwToWrap = 0u - (uint32)m_ullNow;
    if (dwToWrap <= dwMs && m_chance.OneIn(2))
        dwMs = dwToWrap;
    if (m_chance.PerMille(m_stPhase.dwNewStreams))
        NewSender();

    for (tagSender& st : m_vecSenders)
    {
        if (st.bMuted)
            continue;
        if (m_fnDepth(st.ullUin, st.cSubType) >= c_nDeepEnough)
        {
            // Full. One that never drains (its first packet lies far in the future) is cleared in the end.
            if (m_chance.OneIn(400))
                vecCalls.push_back(Call(CALL_CLEAR, st.cSubType, st.ullUin));
            continue;
        }
        st.dwCarry += std::min(dwMs, 300u) * m_stPhase.dwPace;
        for (; st.dwCarry >= st.dwStep * 100; st.dwCarry -= st.dwStep * 100)
            SendFrame(st);
    }
    OwnersCalls(vecCalls);

    // What is on the wire arrives at its own tick, the turn comes last.
    const uint64 ullTurn = m_ullNow + dwMs;
    uint64 ullClock = m_ullNow;
    while (!m_mapWire.empty() && m_mapWire.begin()->first <= ullTurn)
    {
        const uint64 ullArrival = std::max(m_mapWire.begin()->first, ullClock);
        if (ullArrival != ullClock)
            vecCalls.push_back(Call(CALL_CLOCK, (int64)(ullArrival - ullClock)));
        ullClock = ullArrival;

        tagTwinCall st = Call(CALL_FEED);
        st.stPacket = m_mapWire.begin()->second;
        st.bNoHead = m_chance.PerMille(m_stPhase.dwWild / 20);
        m_dwDownSeq += m_chance.OneIn(50) ? m_chance.Of({0, 2, 3, 0u - 1, 50}) : 1;
        st.stPacket.dwDownSeq = m_dwDownSeq;
        vecCalls.push_back(st);
        m_mapWire.erase(m_mapWire.begin());
    }
    if (ullTurn != ullClock)
        vecCalls.push_back(Call(CALL_CLOCK, (int64)(ullTurn - ullClock)));
    m_ullNow = ullTurn;
    vecCalls.push_back(Call(CALL_TURN));
    return vecCalls;
}
