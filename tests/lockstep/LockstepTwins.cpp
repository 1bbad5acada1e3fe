#include "LockstepTwins.h"

#include "AVGSpeed.h"
#include "RecvFields.h"
#include "xpmess.h"

#include <algorithm>
#include <chrono>
#include <cinttypes>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <set>
#include <type_traits>

namespace
{

// ---- What is compared --------------------------------------------------------------------------------------------
//
// Every field of every record, by name. FieldsNobodyCompares walks the bytes of the plain records and names what
// these lists forget.
// They stand in RecvFields.h.

// ---- Packets -----------------------------------------------------------------------------------------------------

// Each receiver is handed an object of its own, so that references held can be compared as well.
class CTwinPacket : public UDTCodecBaseDecode_V2
{
public:
    CTwinPacket(const tagRigPacket& stPacket, bool bNoHead, uint32 dwId, int& nLive)
        : m_dwId(dwId), m_bNoHead(bNoHead), m_nLive(nLive)
    {
        memcpy(m_aHead, &stPacket.stHead, sizeof(m_aHead));
        m_aHead[sizeof(tagUdtPacketHeadInfo)] = bNoHead ? 1 : 0;
        wLen = stPacket.wLen;
        bufBody.pbuf = m_aHead;
        bufBody.ulen = sizeof(m_aHead);
        ++m_nLive;
    }
    ~CTwinPacket() override { --m_nLive; }

    const uint32 m_dwId;
    const bool m_bNoHead;

private:
    int& m_nLive;
    uint8 m_aHead[sizeof(tagUdtPacketHeadInfo) + 1];
};

// ---- Comparison --------------------------------------------------------------------------------------------------

// Remembers the first difference with the path to it.
class CDiff
{
public:
    bool Found() const { return m_bFound; }
    const std::string& Text() const { return m_strText; }

    // The path is put together only once something differs, from the innermost name outwards.
    void Note(const std::string& strWhat)
    {
        if (!m_bFound)
            m_strText = strWhat;
        m_bFound = true;
    }
    bool Outer(const std::string& strName)
    {
        if (m_bFound)
            m_strText = strName + "." + m_strText;
        return !m_bFound;
    }

private:
    bool m_bFound = false;
    std::string m_strText;
};

template <class T>
struct tagIsShared : std::false_type
{
};
template <class T>
struct tagIsShared<CXPShared<T>> : std::true_type
{
};

template <class T>
uint64 Word(const T& value)
{
    if constexpr (tagIsShared<T>::value)
        return (uint64)value.Get();
    else
        return (uint64)value;
}

template <class V, class W>
void CompareWord(CDiff& diff, const char* pszName, const V& fast, const W& plain)
{
    if (Word(fast) != Word(plain))
    {
        diff.Note(std::string(pszName) + ": receiver " + std::to_string(Word(fast)) + ", plain " +
                  std::to_string(Word(plain)));
    }
}

template <class V, class W>
std::enable_if_t<std::is_integral_v<W> || tagIsShared<W>::value> Compare(CDiff& diff, const char* pszName,
                                                                         const V& fast, const W& plain)
{
    CompareWord(diff, pszName, fast, plain);
}

template <class P>
void Compare(CDiff& diff, const char* pszName, const P& fast, const CScopePtr<UDTCodecBaseDecode_V2>& plain)
{
    const CTwinPacket* pFast = static_cast<const CTwinPacket*>((const UDTCodecBaseDecode_V2*)fast);
    const CTwinPacket* pPlain = static_cast<const CTwinPacket*>(plain.p);
    if ((pFast == nullptr) != (pPlain == nullptr))
        diff.Note(std::string(pszName) + ": one is null");
    if (pFast == nullptr || pPlain == nullptr)
        return;
    CompareWord(diff, "pRawData id", pFast->m_dwId, pPlain->m_dwId);
    CompareWord(diff, "pRawData references", xpatomic_get(&pFast->iRefs), xpatomic_get(&pPlain->iRefs));
}

template <class K>
std::string KeyText(const K& stKey)
{
    if constexpr (std::is_integral_v<K>)
        return std::to_string(stKey);
    else
        return std::to_string(stKey.ullUserAccount) + "/" + std::to_string(stKey.cSubType);
}

template <class K>
std::pair<uint64, uint64> KeyWord(const K& stKey)
{
    if constexpr (std::is_integral_v<K>)
        return std::make_pair((uint64)stKey, (uint64)0);
    else
        return std::make_pair((uint64)stKey.ullUserAccount, (uint64)stKey.cSubType);
}

// Key by key, in the order in which the two are walked.
template <class M, class N, class F>
void CompareMaps(CDiff& diff, const char* pszName, const M& fast, const N& plain, F&& compareValue)
{
    if (fast.size() != plain.size())
    {
        diff.Note(std::string(pszName) + ": receiver holds " + std::to_string(fast.size()) + ", plain " +
                  std::to_string(plain.size()));
        return;
    }
    if (fast.empty() != plain.empty())
        diff.Note(std::string(pszName) + ": empty() differs");
    auto itFast = fast.begin();
    for (auto itPlain = plain.begin(); itPlain != plain.end(); ++itPlain, ++itFast)
    {
        if (itFast == fast.end())
        {
            diff.Note(std::string(pszName) + ": the receiver's walk ends early");
            return;
        }
        if (KeyWord(itFast->first) != KeyWord(itPlain->first))
        {
            diff.Note(std::string(pszName) + ": receiver's key " + KeyText(itFast->first) + ", plain " +
                      KeyText(itPlain->first));
            return;
        }
        compareValue(diff, itFast->second, itPlain->second);
        if (diff.Found())
        {
            diff.Outer(std::string(pszName) + "[" + KeyText(itPlain->first) + "]");
            return;
        }
    }
    if (itFast != fast.end())
        diff.Note(std::string(pszName) + ": the receiver's walk goes on");
}

template <class M>
void Compare(CDiff& diff, const char* pszName, const M& fast, const std::map<uint32, uint32>& plain)
{
    CompareMaps(diff, pszName, fast, plain,
                [](CDiff& inner, uint32 dwFast, uint32 dwPlain)
                { CompareWord(inner, "value", dwFast, dwPlain); });
}

#define COMPARE_FIELD(name) \
    if (!diff.Found())      \
        Compare(diff, #name, fast.name, plain.name);

#define COMPARE_RECORD(function, fields)                      \
    template <class A, class B>                               \
    void function(CDiff& diff, const A& fast, const B& plain) \
    {                                                         \
        fields(COMPARE_FIELD)                                 \
    }

COMPARE_RECORD(CompareFlowStat, FLOW_STAT_FIELDS)
template <class A>
void Compare(CDiff& diff, const char* pszName, const A& fast, const plain::tagPktStat& plain)
{
    CompareFlowStat(diff, fast, plain);
    diff.Outer(pszName);
}

COMPARE_RECORD(CompareFlow, FLOW_FIELDS)
template <class A>
void Compare(CDiff& diff, const char* pszName, const A& fast, const plain::tagCPktFlowStat& plain)
{
    CompareFlow(diff, fast, plain);
    diff.Outer(pszName);
}

COMPARE_RECORD(CompareStat, STAT_FIELDS)
template <class A>
void Compare(CDiff& diff, const char* pszName, const A& fast, const plain::tagUinBufStatInfo& plain)
{
    CompareStat(diff, fast, plain);
    diff.Outer(pszName);
}

COMPARE_RECORD(ComparePacket, PACKET_FIELDS)
template <class M>
void Compare(CDiff& diff, const char* pszName, const M& fast, const plain::MapUdtPacket& plain)
{
    CompareMaps(diff, pszName, fast, plain,
                [](CDiff& inner, const auto& stFast, const auto& stPlain)
                { ComparePacket(inner, stFast, stPlain); });
}

COMPARE_RECORD(CompareStream, STREAM_FIELDS)
COMPARE_RECORD(CompareUser, USER_FIELDS)
COMPARE_RECORD(CompareRing, RING_FIELDS)
COMPARE_RECORD(CompareDownUp, DOWNUP_FIELDS)
COMPARE_RECORD(ComparePlayout, PLAYOUT_FIELDS)

template <class A, class B>
void CompareWords(CDiff& diff, A& fast, B& plain)
{
#define COMPARE_MEMBER(name) \
    if (!diff.Found())       \
        Compare(diff, #name, fast.name(), plain.name());
    MEMBER_WORDS(COMPARE_MEMBER)
#undef COMPARE_MEMBER
    if ((fast.m_hRecvEvent() == nullptr) != (plain.m_hRecvEvent() == nullptr))
        diff.Note("m_hRecvEvent: one is null");
}

template <class A, class B>
void CompareContainers(CDiff& diff, A& fast, B& plain)
{
    const auto compareAll = [&](const char* pszName, auto& mapFast, auto& mapPlain, auto&& compareValue)
    {
        if (!diff.Found())
            CompareMaps(diff, pszName, mapFast, mapPlain, compareValue);
    };
    compareAll("m_mapUinInPkt", fast.m_mapUinInPkt(), plain.m_mapUinInPkt(),
               [](CDiff& inner, const auto& a, const auto& b) { CompareStream(inner, a, b); });
    compareAll("m_mapUinDataInfo", fast.m_mapUinDataInfo(), plain.m_mapUinDataInfo(),
               [](CDiff& inner, const auto& a, const auto& b) { CompareUser(inner, a, b); });
    compareAll("m_mapUinPkgRingParam", fast.m_mapUinPkgRingParam(), plain.m_mapUinPkgRingParam(),
               [](CDiff& inner, const auto& a, const auto& b) { CompareRing(inner, a, b); });
    compareAll("m_mapUinSeqInfo", fast.m_mapUinSeqInfo(), plain.m_mapUinSeqInfo(),
               [](CDiff& inner, const auto& a, const auto& b)
               {
                   CompareMaps(inner, "downlink", a, b,
                               [](CDiff& deep, const auto& c, const auto& d) { CompareDownUp(deep, c, d); });
               });

    const auto compareLists = [&](const char* pszName, auto& listFast, auto& listPlain, auto&& compareValue)
    {
        if (diff.Found())
            return;
        if (listFast.size() != listPlain.size())
        {
            diff.Note(std::string(pszName) + ": receiver holds " + std::to_string(listFast.size()) +
                      ", plain " + std::to_string(listPlain.size()));
            return;
        }
        auto itFast = listFast.begin();
        for (auto itPlain = listPlain.begin(); itPlain != listPlain.end() && !diff.Found();
             ++itPlain, ++itFast)
            compareValue(*itFast, *itPlain);
        diff.Outer(pszName);
    };
    compareLists("m_listRawData", fast.m_listRawData(), plain.m_listRawData(),
                 [&](const auto& a, const auto& b) { ComparePacket(diff, a, b); });
    compareLists("m_listClearUin", fast.m_listClearUin(), plain.m_listClearUin(),
                 [&](const uint64& a, const uint64& b) { CompareWord(diff, "account", a, b); });

    for (int i = 0; i < 6 && !diff.Found(); ++i)
    {
        const CAVGSpeed* pFast = fast.m_pSpeed()[i];
        const CAVGSpeed* pPlain = plain.m_pSpeed()[i];
        if ((pFast == nullptr) != (pPlain == nullptr))
            diff.Note("m_pSpeed: one is null");
        else if (pFast != nullptr && memcmp((const void*)pFast, (const void*)pPlain, sizeof(CAVGSpeed)) != 0)
            diff.Note("m_pSpeed[" + std::to_string(i) + "]: the meters differ");
    }
}

} // namespace

// ---- Calls -------------------------------------------------------------------------------------------------------

std::string tagTwinCall::Text() const
{
    char szText[512];
    const tagUdtPacketHeadInfo& st = stPacket.stHead;
    switch (eCall)
    {
    case CALL_FEED:
        snprintf(szText, sizeof(szText),
                 "feed %llu/%d seq %u down %u stamp %u len %u%s%s | head sub %d type %d pkg %d of %d+%d "
                 "frame %d gop "
                 "%d media %u",
                 stPacket.ullUin, stPacket.cSubType, stPacket.dwSendSeq, stPacket.dwDownSeq,
                 stPacket.wTimeStamp, stPacket.wLen, stPacket.bNull ? " null" : "",
                 bNoHead ? " headless" : "", st.cSubType, st.cFrmType, st.cPkgIndex, st.cTotalPkgCount,
                 st.cFecPkgCount, st.cFrameIndex, st.cGopIndex, st.uTimeStamp);
        break;
    case CALL_TURN: snprintf(szText, sizeof(szText), "turn"); break;
    case CALL_CLOCK: snprintf(szText, sizeof(szText), "clock %+" PRId64 " ms", (int64_t)llValue); break;
    case CALL_PARAMS:
        snprintf(
            szText, sizeof(szText),
            "params queue %u first %u next %u timeout %u calc %u delta %u outdelay %u mindelay %u mode %u "
            "push %u",
            params.wQueuePeriod, params.wFirstGetTime, params.wNextGetTime, params.wGetPkgTimeout,
            params.wCalcRecvLossTime, params.wTimelineDelta, params.wOutPutDelay, params.wPeriodMinDelay,
            params.wUdtMode, params.wPushGopNum);
        break;
    case CALL_RTT: snprintf(szText, sizeof(szText), "rtt %u", (uint32)llValue); break;
    case CALL_REGET: snprintf(szText, sizeof(szText), "requests %d", (int)llValue); break;
    case CALL_ROOM: snprintf(szText, sizeof(szText), "room %u", (uint32)llValue); break;
    case CALL_CLEAR:
        snprintf(szText, sizeof(szText), "clear account %llu what %u", ullUin, (uint32)llValue);
        break;
    case CALL_DOWNLOSS: snprintf(szText, sizeof(szText), "read downlink"); break;
    case CALL_SPEED: snprintf(szText, sizeof(szText), "read meters"); break;
    case CALL_DELAY: snprintf(szText, sizeof(szText), "play delay %d", (int)llValue); break;
    case CALL_STOP: snprintf(szText, sizeof(szText), "stop"); break;
    case CALL_START: snprintf(szText, sizeof(szText), "start"); break;
    case CALL_LOG_LEVEL: snprintf(szText, sizeof(szText), "log level %d", (int)llValue); break;
    case CALL_LOSE_USER: snprintf(szText, sizeof(szText), "lose user %llu", ullUin); break;
    case CALL_GUARDS: snprintf(szText, sizeof(szText), "guards %d", (int)llValue); break;
    }
    static const char* const s_aDoors[] = {"", "release", "request", "parse"};
    if (eDoor == DOOR_NONE)
        return szText;
    return "at " + std::string(s_aDoors[eDoor]) + " " + std::to_string(dwDoorCount) + ": " + szText;
}

// ---- Owner -------------------------------------------------------------------------------------------------------

void CTwinOwner::Tell(const char* pszFormat, ...)
{
    char szText[1024];
    va_list args;
    va_start(args, pszFormat);
    const int nLen = vsnprintf(szText, sizeof(szText), pszFormat, args);
    va_end(args);
    m_strTold.append(szText, (size_t)std::min<int>(nLen, (int)sizeof(szText) - 1));
    m_strTold += '\n';
}

void CTwinOwner::Sink(void* pCtx, UDT_LOG_LEVEL eLevel, const char* pTag, const char* pFile, int,
                      const char* pFunc, const char* pText)
{
    CTwinOwner& owner = *static_cast<CTwinOwner*>(pCtx);
    ++owner.m_ullLines;
    std::string& str = owner.m_strTold;
    str += (char)('0' + (int)eLevel);
    for (const char* psz : {pTag, pFile, pFunc, pText})
    {
        str += ' ';
        str += psz;
    }
    str += '\n';
}

// Counts the callbacks down and makes the calls that are due.
void CTwinOwner::Pass(emTwinDoor eDoor)
{
    for (size_t i = 0; i < m_vecArmed.size();)
    {
        if (m_vecArmed[i].eDoor != eDoor || --m_vecArmed[i].dwDoorCount != 0)
        {
            ++i;
            continue;
        }
        tagTwinCall stCall = m_vecArmed[i];
        m_vecArmed.erase(m_vecArmed.begin() + (long)i);
        stCall.eDoor = DOOR_NONE;
        Do(stCall);
        i = 0;
    }
}

void CTwinOwner::OnUDTRecvOutData(UDTCodecBaseDecode_V2* pPacket, int* pnDelay)
{
    ++m_ullReleases;
    Tell("out at %u id %d delay %d", (uint32)xp_gettickcount(),
         pPacket != nullptr ? (int)static_cast<CTwinPacket*>(pPacket)->m_dwId : -1, *pnDelay);
    TellReleasing();
    if (m_nPlayDelay != 0)
        *pnDelay = m_nPlayDelay;
    Pass(DOOR_RELEASE);
}

int CTwinOwner::UdtRecvHandleEvent(WORD wType, uint8* pBuffer, uint32 nBufSize, uint32 nSendCount,
                                   uint32 nUdtV2)
{
    Tell("event at %u type %u records %u count %u v2 %u", (uint32)xp_gettickcount(), wType, nBufSize,
         nSendCount, nUdtV2);
    for (uint32 i = 0; i < nBufSize; ++i)
    {
        tagReplyData stReply;
        memcpy((void*)&stReply, pBuffer + i * sizeof(tagReplyData), sizeof(tagReplyData));
        Tell(" %llu/%d %u result %d", stReply.ullUserAccount, stReply.cSubType, stReply.dwUserSeq,
             stReply.cResult);
        m_vecAsked.push_back(stReply);
    }
    Pass(DOOR_REQUEST);
    return -1;
}

int CTwinOwner::UdtParsePacketHeadInfo(uint8* pBuf, UdtPacketHeadInfo& stHead)
{
    const tagUdtPacketHeadInfo stZero;
    Tell("parse, head zeroed %d", (int)(memcmp(&stHead, &stZero, sizeof(stZero)) == 0));
    if (pBuf[sizeof(stHead)] == 0)
        memcpy(&stHead, pBuf, sizeof(stHead));
    Pass(DOOR_PARSE);
    return -1;
}

template <class RIG>
void CTwin<RIG>::TellReleasing()
{
    const auto* pst = m_rig.m_recv.GetReleasing();
    if (pst == nullptr)
    {
        Tell(" nothing is releasing");
        return;
    }
    Tell(" seq %u ts %u uin %llu down %u id %d refs %d recv %u sub %d lost %d last %d gop %d frm %d pkg %d "
         "type %d num "
         "%d fec %d frmlost %d calc %d late %d left %d asked %d mets %u askedat %u",
         pst->dwSenderSeq, pst->dwTimeStamp, pst->llAccount, pst->dwSeq,
         pst->pRawData.p != nullptr ? (int)static_cast<CTwinPacket*>(pst->pRawData.p)->m_dwId : -1,
         pst->pRawData.p != nullptr ? (int)xpatomic_get(&pst->pRawData.p->iRefs) : -1, pst->dwRecvTime,
         pst->cSubType, pst->cPrePkgLost, pst->cIsFrmLastPkg, pst->cGopIdx, pst->cFrmIdx, pst->cPkgIndex,
         pst->cFrmType, pst->cPkgNum, pst->cFecNum, pst->cFrmLostNum, pst->cIsCalcLost, pst->cIsOutOfOrderSeq,
         pst->wVidPkgIdxLeft, pst->wLostReqCnt, pst->dwMETimeStamp, pst->dwLastReqLostTime);
}

// Every guard stands, and none is in anybody's way: whatever comes, the receiver is to do what it does without.
static void SetWideGuards(CAVGUdtRecv& recv, bool bOn)
{
    tagUDTRecvGuards stGuards;
    if (bOn)
    {
        for (uint32* pdwMost :
             {&stGuards.dwMaxIntakePackets, &stGuards.dwMaxIntakeBytes, &stGuards.dwMaxStreams,
              &stGuards.dwMaxAccounts, &stGuards.dwMaxStreamPackets, &stGuards.dwMaxStreamHistory,
              &stGuards.dwMaxRequestsPerSecond, &stGuards.dwMaxPullBacks, &stGuards.dwMaxLatency})
            *pdwMost = 0xFFFFFFFF;
    }
    recv.SetGuards(stGuards);
}
static void SetWideGuards(plain::CAVGUdtRecv&, bool) {}

template <class RIG>
void CTwin<RIG>::Do(const tagTwinCall& stCall)
{
    if (stCall.eDoor != DOOR_NONE)
    {
        Arm(stCall);
        return;
    }
    auto& recv = m_rig.m_recv;
    switch (stCall.eCall)
    {
    case CALL_FEED:
    {
        const tagRigPacket& st = stCall.stPacket;
        CScopePtr<UDTCodecBaseDecode_V2> pData;
        if (!st.bNull)
            pData = new CTwinPacket(st, stCall.bNoHead, m_dwFed, m_nLivePackets);
        ++m_dwFed;
        const boolean bTaken = recv.UDTReceiveNetData(st.dwSendSeq, st.ullUin, st.dwDownSeq, st.wTimeStamp,
                                                      st.cSubType, pData.p);
        Tell("fed %d", (int)bTaken);
        break;
    }
    case CALL_TURN: recv.RunTurn(); break;
    case CALL_CLOCK: m_pClock->JumpTo(m_pClock->Tick() + (uint64)stCall.llValue); break;
    case CALL_PARAMS: recv.UDTSetRecvParams(stCall.params); break;
    case CALL_RTT: recv.UDTSetRecvRTT((uint32)stCall.llValue); break;
    case CALL_REGET: recv.UDTEnableReGetPkg((boolean)stCall.llValue); break;
    case CALL_ROOM: recv.SetRoomState((uint32)stCall.llValue); break;
    case CALL_CLEAR: recv.ClearRecvChn(stCall.ullUin, (uint32)stCall.llValue); break;
    case CALL_DOWNLOSS:
    {
        uint32 dwExpect = 1, dwReal = 2, dwBytes = 3, dwIFrm = 4;
        recv.GetDownPacketRecvInfo(dwExpect, dwReal, dwBytes, dwIFrm);
        Tell("downlink %u %u %u %u", dwExpect, dwReal, dwBytes, dwIFrm);
        break;
    }
    case CALL_SPEED:
        for (CAVGSpeed* pSpeed : m_rig.m_pSpeed())
            Tell("meter %u", pSpeed != nullptr ? pSpeed->CalculateSpeed() : 0xFFFFFFFF);
        break;
    case CALL_DELAY: m_nPlayDelay = (int)stCall.llValue; break;
    case CALL_STOP: recv.Stop(); break;
    case CALL_START: recv.Start(); break;
    case CALL_LOG_LEVEL: LogSetLevel((UDT_LOG_LEVEL)stCall.llValue); break;
    case CALL_LOSE_USER: m_rig.EraseUser(stCall.ullUin); break;
    case CALL_GUARDS: SetWideGuards(recv, stCall.llValue != 0); break;
    }
}

// ---- Both --------------------------------------------------------------------------------------------------------

CTwins::CTwins(const tagTwinSetup& stSetup)
    : m_stSetup(stSetup), m_fast(stSetup.ullTick), m_nLogLevel(stSetup.nLogLevel)
{
    m_fast.m_rig.m_pCB() = stSetup.bWithOwner ? &m_fast : nullptr;
    m_plain.m_rig.m_pCB() = stSetup.bWithOwner ? &m_plain : nullptr;
    m_fast.m_pClock = m_plain.m_pClock = &m_fast.m_rig.m_clock;
    if (stSetup.bGuards)
        SetWideGuards(m_fast.m_rig.m_recv, true);
    LogSetLevel((UDT_LOG_LEVEL)m_nLogLevel);
}

CTwins::~CTwins()
{
    m_fast.m_rig.m_pCB() = nullptr;
    m_plain.m_rig.m_pCB() = nullptr;
    LogSetSink(nullptr, nullptr);
    LogSetLevel(LOG_LEVEL_ERROR);
}

bool CTwins::Do(const tagTwinCall& stCall)
{
    CVirtualClock& clock = m_fast.m_rig.m_clock;
    if (stCall.eCall == CALL_CLOCK && stCall.eDoor == DOOR_NONE)
    {
        clock.JumpTo(clock.Tick() + (uint64)stCall.llValue);
        return true;
    }

    // An owner may take its time inside a callback: both begin at the same tick and must end at the same one.
    const uint64 ullBefore = clock.Tick();
    LogSetSink(&CTwinOwner::Sink, static_cast<CTwinOwner*>(&m_fast));
    m_fast.Do(stCall);
    const uint64 ullAfter = clock.Tick();
    clock.JumpTo(ullBefore);
    LogSetLevel((UDT_LOG_LEVEL)m_nLogLevel);
    LogSetSink(&CTwinOwner::Sink, static_cast<CTwinOwner*>(&m_plain));
    m_plain.Do(stCall);
    m_nLogLevel = g_nLogGate.load();
    if (clock.Tick() != ullAfter)
        m_strWhat = "the owners' clocks differ";

    if (!CompareTold() || !CompareMembers())
        return false;
    if (stCall.eCall == CALL_TURN && ++m_dwTurnsUnseen < m_stSetup.dwCompareEvery)
        return true;
    return stCall.eCall == CALL_FEED || CompareAll();
}

bool CTwins::CompareAll()
{
    m_dwTurnsUnseen = 0;
    CDiff diff;
    CompareWords(diff, m_fast.m_rig, m_plain.m_rig);
    CompareContainers(diff, m_fast.m_rig, m_plain.m_rig);
    if (diff.Found())
        m_strWhat = diff.Text();
    return !diff.Found() && CompareGetters();
}

bool CTwins::CompareTold()
{
    const std::string& strFast = m_fast.m_strTold;
    const std::string& strPlain = m_plain.m_strTold;
    if (m_strWhat.empty() && strFast != strPlain)
    {
        const size_t nEnd = std::min(strFast.size(), strPlain.size());
        size_t nAt =
            (size_t)(std::mismatch(strFast.begin(), strFast.begin() + (long)nEnd, strPlain.begin()).first -
                     strFast.begin());
        nAt = nAt == 0 ? 0 : strFast.rfind('\n', nAt - 1) + 1; // npos + 1 is 0
        const auto lineAt = [nAt](const std::string& str)
        { return nAt < str.size() ? str.substr(nAt, str.find('\n', nAt) - nAt) : std::string("(nothing)"); };
        m_strWhat = "told otherwise:\n  receiver " + lineAt(strFast) + "\n  plain    " + lineAt(strPlain);
    }
    m_fast.m_strTold.clear();
    m_plain.m_strTold.clear();
    return m_strWhat.empty();
}

// What every call may move: the receiver's own words, the packets held, the newest of the intake.
bool CTwins::CompareMembers()
{
    CDiff diff;
    CompareWords(diff, m_fast.m_rig, m_plain.m_rig);
    if (!diff.Found())
        CompareWord(diff, "packets held", m_fast.m_nLivePackets, m_plain.m_nLivePackets);
    const auto& listFast = m_fast.m_rig.m_listRawData();
    const auto& listPlain = m_plain.m_rig.m_listRawData();
    if (!diff.Found())
        CompareWord(diff, "m_listRawData.size()", listFast.size(), listPlain.size());
    if (!diff.Found() && !listPlain.empty())
        ComparePacket(diff, listFast.back(), listPlain.back());
    if (diff.Found())
        m_strWhat = diff.Text();
    return !diff.Found();
}

bool CTwins::CompareGetters()
{
    CDiff diff;
    auto& fast = m_fast.m_rig.m_recv;
    auto& plain = m_plain.m_rig.m_recv;

    uint32 aFast[4] = {};
    uint32 aPlain[4] = {};
    fast.UDTCalcRecvLoss(aFast[0], aFast[1], aFast[2], aFast[3]);
    plain.UDTCalcRecvLoss(aPlain[0], aPlain[1], aPlain[2], aPlain[3]);
    for (int i = 0; i < 4 && !diff.Found(); ++i)
        CompareWord(diff, "UDTCalcRecvLoss", aFast[i], aPlain[i]);

    tagRecvInfo stFast, stPlain;
    fast.GetRecvInfo(stFast);
    plain.GetRecvInfo(stPlain);
    if (memcmp(&stFast, &stPlain, sizeof(stFast)) != 0)
        diff.Note("GetRecvInfo differs");

    static tagRecvChnStatInfo s_aFast[64], s_aPlain[64];
    const uint32 dwFast = fast.GetRecvChnInfo(s_aFast, 64);
    const uint32 dwPlain = plain.GetRecvChnInfo(s_aPlain, 64);
    if (dwFast != dwPlain ||
        memcmp((const void*)s_aFast, (const void*)s_aPlain, dwPlain * sizeof(s_aPlain[0])) != 0)
        diff.Note("GetRecvChnInfo differs");
    if (fast.GetRecvChnInfo(s_aFast, 1) != plain.GetRecvChnInfo(s_aPlain, 1) ||
        fast.GetRecvChnInfo(nullptr, 1) != plain.GetRecvChnInfo(nullptr, 1))
        diff.Note("GetRecvChnInfo for one or nobody differs");

    const auto comparePlayout = [&](uint64 ullUin)
    {
        tagPlayoutInfo stInfoFast;
        plain::tagPlayoutInfo stInfoPlain;
        const boolean bFast = fast.GetPlayoutInfo(ullUin, stInfoFast);
        const boolean bPlain = plain.GetPlayoutInfo(ullUin, stInfoPlain);
        CompareWord(diff, "GetPlayoutInfo", bFast, bPlain);
        ComparePlayout(diff, stInfoFast, stInfoPlain);
    };
    for (const auto& stUser : m_plain.m_rig.m_mapUinDataInfo())
        comparePlayout(stUser.first);
    comparePlayout(0xABCDEF);
    if ((fast.GetReleasing() == nullptr) != (plain.GetReleasing() == nullptr))
        diff.Note("GetReleasing differs");
    if (diff.Found())
        m_strWhat = diff.Text();
    return !diff.Found();
}

std::vector<tagReplyData> CTwins::TakeAsked()
{
    std::vector<tagReplyData> vecAsked;
    vecAsked.swap(m_plain.m_vecAsked);
    m_fast.m_vecAsked.clear();
    return vecAsked;
}

// ---- Replaying and shrinking ---------------------------------------------------------------------------------------

size_t Replay(const tagTwinSetup& stSetup, const std::vector<tagTwinCall>& vecCalls, std::string& strWhat)
{
    CTwins twins(stSetup);
    size_t nDone = 0;
    bool bSame = true;
    while (nDone < vecCalls.size() && bSame)
        bSame = twins.Do(vecCalls[nDone++]);
    if (bSame)
        bSame = twins.CompareAll();
    if (!bSame)
        strWhat = twins.What();
    return bSame ? c_nNoDifference : nDone;
}

std::vector<tagTwinCall> Shrink(const tagTwinSetup& stSetup, std::vector<tagTwinCall> vecCalls,
                                uint32 dwSeconds)
{
    using namespace std::chrono;
    const steady_clock::time_point tEnd = steady_clock::now() + seconds(dwSeconds);
    tagTwinSetup stEager = stSetup; // a difference is found where it arises
    std::string strWhat;
    stEager.dwCompareEvery = 1;
    if (Replay(stEager, vecCalls, strWhat) == c_nNoDifference)
        stEager = stSetup; // looking more often makes it go away
    const auto fails = [&](std::vector<tagTwinCall>& vecTry)
    {
        const size_t nDone = Replay(stEager, vecTry, strWhat);
        if (nDone == c_nNoDifference)
            return false;
        vecTry.resize(nDone);
        return true;
    };
    if (!fails(vecCalls))
        return vecCalls;

    // Whole streams first: a difference lies in one or two of them, and a replay without the others is quick.
    std::set<std::pair<uint64, uint8>> setStreams;
    for (const tagTwinCall& stCall : vecCalls)
    {
        if (stCall.eCall == CALL_FEED)
            setStreams.emplace(stCall.stPacket.ullUin, stCall.stPacket.cSubType);
    }
    for (const std::pair<uint64, uint8>& stStream : setStreams)
    {
        std::vector<tagTwinCall> vecTry;
        for (const tagTwinCall& stCall : vecCalls)
        {
            if (stCall.eCall != CALL_FEED || stCall.stPacket.ullUin != stStream.first ||
                stCall.stPacket.cSubType != stStream.second)
                vecTry.push_back(stCall);
        }
        if (steady_clock::now() < tEnd && fails(vecTry))
            vecCalls.swap(vecTry);
    }

    for (size_t nChunk = vecCalls.size() / 2; nChunk != 0;)
    {
        bool bDropped = false;
        // From the end: what happened long before matters least often, but what is left moves least.
        for (size_t nAt = vecCalls.size(); nAt != 0 && steady_clock::now() < tEnd;)
        {
            nAt = nAt > nChunk ? nAt - nChunk : 0;
            if (nAt >= vecCalls.size())
                continue;
            std::vector<tagTwinCall> vecTry(vecCalls.begin(), vecCalls.begin() + (long)nAt);
            const size_t nRest = std::min(nAt + nChunk, vecCalls.size());
            vecTry.insert(vecTry.end(), vecCalls.begin() + (long)nRest, vecCalls.end());
            if (fails(vecTry))
            {
                vecCalls.swap(vecTry);
                bDropped = true;
            }
        }
        if (steady_clock::now() >= tEnd)
            break;
        if (nChunk > 1)
            nChunk = std::max<size_t>(nChunk / 2, 1);
        else if (!bDropped)
            break;
    }

    // What is left of the clock's steps, in one step where nothing lies between.
    std::vector<tagTwinCall> vecFewer;
    for (const tagTwinCall& stCall : vecCalls)
    {
        if (!vecFewer.empty() && stCall.eCall == CALL_CLOCK && stCall.eDoor == DOOR_NONE &&
            vecFewer.back().eCall == CALL_CLOCK && vecFewer.back().eDoor == DOOR_NONE)
            vecFewer.back().llValue += stCall.llValue;
        else
            vecFewer.push_back(stCall);
    }
    return fails(vecFewer) ? vecFewer : vecCalls;
}

// ---- Does the comparison see everything? ------------------------------------------------------------------------

namespace
{

// Follows the fields of one record through its bytes: each must begin where the one before it ends.
class CLayout
{
public:
    CLayout(const void* pFirst, std::vector<std::string>& vecMissing)
        : m_pEnd((const char*)pFirst), m_vecMissing(vecMissing)
    {
    }
    template <class T>
    void Field(const char* pszName, const T& field)
    {
        if (Up(alignof(T)) != (const char*)&field)
            m_vecMissing.push_back("behind " + m_strBefore);
        m_pEnd = (const char*)&field + sizeof(T);
        m_strBefore = pszName;
    }
    void End(const void* pEnd, size_t nAlign)
    {
        if (Up(nAlign) != (const char*)pEnd)
            m_vecMissing.push_back("behind " + m_strBefore);
    }

private:
    const char* Up(size_t nAlign) const
    {
        return (const char*)(((uintptr_t)m_pEnd + nAlign - 1) / nAlign * nAlign);
    }
    const char* m_pEnd;
    std::vector<std::string>& m_vecMissing;
    std::string m_strBefore = "the beginning";
};

// One off in a word, one more in a map: the comparison must notice.
template <class T>
bool Change(T& field)
{
    if constexpr (std::is_same_v<T, bool>)
        field = !field;
    else if constexpr (std::is_integral_v<T>)
        field = (T)(field + 1);
    else if constexpr (tagIsShared<T>::value)
        field += 1;
    else if constexpr (std::is_same_v<T, std::map<uint32, uint32>> || std::is_same_v<T, plain::MapUdtPacket>)
        field[5];
    else
        return false; // a record of its own, looked at apart
    return true;
}

template <class R, class CMP, class... NAMES>
void CheckRecord(std::vector<std::string>& vecMissing, CMP&& compare, NAMES&&... fieldsOf)
{
    R stLayout;
    CLayout layout(&stLayout, vecMissing);
    (fieldsOf([&](const char* pszName, auto& field) { layout.Field(pszName, field); }, stLayout), ...);
    layout.End(&stLayout + 1, alignof(R));

    const R stOther;
    const auto changeAndLook = [&](size_t nField)
    {
        R stChanged;
        size_t n = 0;
        bool bChanged = false;
        std::string strName;
        const auto visit = [&](const char* pszName, auto& field)
        {
            if (n++ != nField)
                return;
            bChanged = Change(field);
            strName = pszName;
        };
        (fieldsOf(visit, stChanged), ...);
        CDiff diff;
        compare(diff, stChanged, stOther);
        if (bChanged && !diff.Found())
            vecMissing.push_back(strName);
        return nField < n;
    };
    for (size_t nField = 0; changeAndLook(nField); ++nField)
    {
    }
}

} // namespace

std::vector<std::string> FieldsNobodyCompares()
{
    std::vector<std::string> vecMissing;
#define VISIT_FIELD(name) visit(#name, st.name);
#define CHECK_RECORD(type, function, fields)                                                 \
    CheckRecord<plain::type>(                                                                \
        vecMissing, [](CDiff& diff, const auto& a, const auto& b) { function(diff, a, b); }, \
        [](auto&& visit, plain::type& st) { fields(VISIT_FIELD) });
    CHECK_RECORD(tagDataPacket, ComparePacket, PACKET_FIELDS)
    CHECK_RECORD(tagUinBufStatInfo, CompareStat, STAT_FIELDS)
    CHECK_RECORD(tagCPktFlowStat, CompareFlow, FLOW_FIELDS)
    CHECK_RECORD(tagPktStat, CompareFlowStat, FLOW_STAT_FIELDS)
    CHECK_RECORD(tagUinDataBuf, CompareStream, STREAM_FIELDS)
    CHECK_RECORD(tagUinDataInfo, CompareUser, USER_FIELDS)
    CHECK_RECORD(tagPkgRingParam, CompareRing, RING_FIELDS)
    CHECK_RECORD(tagDownUpSeq, CompareDownUp, DOWNUP_FIELDS)
    CHECK_RECORD(tagPlayoutInfo, ComparePlayout, PLAYOUT_FIELDS)
#undef CHECK_RECORD
#undef VISIT_FIELD

    // The words of the receiver itself: change one, look, change it back.
    plain::CPlainInside left, right;
#define CHECK_MEMBER(name)                                 \
    {                                                      \
        const auto before = Word(left.name());             \
        Change(left.name());                               \
        CDiff diff;                                        \
        CompareWords(diff, left, right);                   \
        if (!diff.Found())                                 \
            vecMissing.push_back(#name);                   \
        left.name() = (decltype(Word(left.name())))before; \
    }
    MEMBER_WORDS(CHECK_MEMBER)
#undef CHECK_MEMBER
    return vecMissing;
}
