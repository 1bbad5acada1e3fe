#include "FlightRecorder.h"

#include "LogTap.h"
#include "MediaPacket.h"
#include "RecvRig.h"
#include "RecvState.h"
#include "RunSeries.h"

#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <fstream>
#include <sstream>

namespace lab
{

namespace
{

constexpr char c_szFlightMagic[] = "udtlab-flight 1\n";
constexpr uint32 c_dwSegmentMs = 5000; // at most: a call's beginning is forgotten in steps of this

enum emRecord : uint8
{
    RECORD_STATE = 'S',  // tick, length, bytes
    RECORD_STREAM = 'N', // account, sub-type; numbered from 0 in each segment
    RECORD_FED = 'F',    // then: ticks since the record before, ...
    RECORD_TURN = 'T',
    RECORD_RTT = 'R',
    RECORD_POLL = 'D',
    RECORD_CLEARED = 'C',
    RECORD_RELEASED = 'o', // of the turn before
    RECORD_REQUESTED = 'q'
};

} // namespace

// ---- Recording ----

void CFlightRecorder::AfterTurn(CAVGUdtRecv& recv, uint32 dwTick)
{
    const uint32 dwEvery = std::clamp(m_dwKeepMs / 6, 500u, c_dwSegmentMs);
    if (!m_dequeSegments.empty() && dwTick - m_dequeSegments.back().dwTick < dwEvery)
        return;
    while (m_dequeSegments.size() >= 2 && dwTick - m_dequeSegments[1].dwTick >= m_dwKeepMs)
        m_dequeSegments.pop_front();
    m_dequeSegments.emplace_back();
    m_dequeSegments.back().dwTick = m_dwTick = dwTick;
    std::vector<uint8> vecState;
    CRecvRig::SaveState(recv, vecState);
    std::vector<uint8>& vec = m_dequeSegments.back().vecBytes;
    vec.push_back(RECORD_STATE);
    Put(dwTick);
    Put(vecState.size());
    vec.insert(vec.end(), vecState.begin(), vecState.end());
}

void CFlightRecorder::Put(uint64 ull) { CStateWriter(m_dequeSegments.back().vecBytes).Put(ull); }

void CFlightRecorder::Begin(uint8 cType, uint32 dwTick)
{
    m_dequeSegments.back().vecBytes.push_back(cType);
    Put(dwTick - m_dwTick);
    m_dwTick = dwTick;
}

uint32 CFlightRecorder::Key(uint64 ullAccount, uint8 cSubType)
{
    tagSegment& st = m_dequeSegments.back();
    const auto itNew = st.mapKeys.emplace(std::make_pair(ullAccount, cSubType), (uint32)st.mapKeys.size());
    if (itNew.second)
    {
        st.vecBytes.push_back(RECORD_STREAM);
        Put(ullAccount);
        Put(cSubType);
    }
    return itNew.first->second;
}

void CFlightRecorder::Turn(uint32 dwTick)
{
    if (!m_dequeSegments.empty())
        Begin(RECORD_TURN, dwTick);
}

void CFlightRecorder::Fed(const tagRtpMedia& stMedia, uint16 wLen, uint32 dwTick)
{
    if (m_dequeSegments.empty())
        return;
    const uint32 dwKey = Key(stMedia.llAccount, stMedia.cSubType);
    Begin(RECORD_FED, dwTick);
    Put(dwKey);
    Put(stMedia.dwSendSeq);
    Put(stMedia.dwSeq);
    Put(stMedia.wTimeStamp);
    Put(wLen);
    const tagUdtPacketHeadInfo& stHead = stMedia.stHead;
    for (const uint8 c : {stHead.cHeadLen, stHead.cSubType, stHead.cFrmType, stHead.cPkgIndex,
                          stHead.cTotalPkgCount, stHead.cFecPkgCount, stHead.cFrameIndex, stHead.cGopIndex})
        Put(c);
    Put(stHead.uTimeStamp);
    // What it was on the wire, for whoever reads the recording.
    Put(stMedia.dwSsrc);
    Put(stMedia.dwRtpTs);
    Put((uint64)stMedia.cPt << 3 | (stMedia.bMarker ? 4u : 0) | (stMedia.bByRtx ? 2u : 0) |
        (stMedia.bDuplicate ? 1u : 0));
}

void CFlightRecorder::Rtt(uint32 dwMs, uint32 dwTick)
{
    if (m_dequeSegments.empty())
        return;
    Begin(RECORD_RTT, dwTick);
    Put(dwMs);
}

void CFlightRecorder::Cleared(uint64 ullAccount, uint8 cSubType, uint32 dwTick)
{
    if (m_dequeSegments.empty())
        return;
    const uint32 dwKey = Key(ullAccount, cSubType);
    Begin(RECORD_CLEARED, dwTick);
    Put(dwKey);
}

void CFlightRecorder::DownlinkPolled(uint32 dwTick)
{
    if (!m_dequeSegments.empty())
        Begin(RECORD_POLL, dwTick);
}

void CFlightRecorder::Released(uint64 ullAccount, uint8 cSubType, uint32 dwSeq)
{
    if (m_dequeSegments.empty())
        return;
    const uint32 dwKey = Key(ullAccount, cSubType);
    m_dequeSegments.back().vecBytes.push_back(RECORD_RELEASED);
    Put(dwKey);
    Put(dwSeq);
}

void CFlightRecorder::Requested(const tagReplyData* pReply, uint32 uCount)
{
    if (m_dequeSegments.empty())
        return;
    for (uint32 i = 0; i < uCount; i++)
    {
        const uint32 dwKey = Key(pReply[i].ullUserAccount, pReply[i].cSubType);
        m_dequeSegments.back().vecBytes.push_back(RECORD_REQUESTED);
        Put(dwKey);
        Put(pReply[i].dwUserSeq);
    }
}

std::vector<uint8> CFlightRecorder::Bytes(const std::string& strWhy) const
{
    nlohmann::ordered_json j;
    j["why"] = strWhy;
    j["written_unix_s"] = (int64)time(nullptr);
    j["span_ms"] = SpanMs();
    j["play_delay_ms"] = m_dwPlayDelayMs;
    const std::string strHead =
        c_szFlightMagic + j.dump(-1, ' ', false, nlohmann::ordered_json::error_handler_t::replace) + "\n";
    std::vector<uint8> vec(strHead.begin(), strHead.end());
    vec.reserve(vec.size() + Memory());
    for (const tagSegment& st : m_dequeSegments)
        vec.insert(vec.end(), st.vecBytes.begin(), st.vecBytes.end());
    return vec;
}

size_t CFlightRecorder::Memory() const
{
    size_t n = 0;
    for (const tagSegment& st : m_dequeSegments)
        n += st.vecBytes.size();
    return n;
}

// ---- Playing back ----

namespace
{

struct tagDecision
{
    char cType = 0;
    uint64 ullAccount = 0;
    uint8 cSubType = 0;
    uint32 dwSeq = 0;

    bool operator==(const tagDecision& st) const
    {
        return cType == st.cType && ullAccount == st.ullAccount && cSubType == st.cSubType &&
               dwSeq == st.dwSeq;
    }
    std::string Text() const
    {
        return fmt::format("{} of {} (account {:016x}, sub-type {})",
                           cType == RECORD_RELEASED ? "release" : "request", dwSeq, ullAccount, cSubType);
    }
};

// A receiver in virtual time that is given what the recording has.
class CFlightPlayer : private IUDTRecvEventCallBack
{
public:
    CFlightPlayer(const uint8* pData, size_t nLen, size_t nOffset, uint32 dwPlayDelayMs, CRunSeries* pSeries,
                  tagFlightResult& stResult)
        : m_in(pData, nLen), m_nOffset(nOffset), m_dwPlayDelayMs(dwPlayDelayMs), m_pSeries(pSeries),
          m_stResult(stResult), m_clock(0),
          m_tap(0,
                [this](UDT_LOG_LEVEL eLevel, const char* pszFunc, const char* pszText)
                {
                    if (m_pSeries && m_bBegun)
                        m_pSeries->LogLine(eLevel, pszFunc, pszText, m_clock.Tick());
                }),
          m_recv(this)
    {
        m_recv.SetOwnerDriven(TRUE);
    }

    void Play()
    {
        while (m_in.Good() && !m_in.AtEnd() && m_stResult.strError.empty() &&
               m_stResult.strDifference.empty())
        {
            m_nRecord = m_in.Position();
            const uint8 cType = *m_in.Skip(1);
            if (!m_bBegun && cType != RECORD_STATE)
                return Broken("the receiver's state");
            // A turn's decisions stand behind it, streams that they name in between.
            if (m_bTurnOpen && cType != RECORD_RELEASED && cType != RECORD_REQUESTED &&
                cType != RECORD_STREAM)
                CloseTurn();
            if (!m_stResult.strDifference.empty())
                return;
            Record(cType);
        }
        if (!m_in.Good())
            return Broken("a whole record");
        if (m_bTurnOpen && m_stResult.strError.empty() && m_stResult.strDifference.empty())
            CloseTurn();
        m_stResult.dwSpanMs = (uint32)m_clock.Tick() - m_stResult.dwFirstTick;
        m_recv.Stop();
        if (m_pSeries)
            m_pSeries->Finish();
    }

private:
    void Broken(const char* pszExpected)
    {
        if (m_stResult.strError.empty())
            m_stResult.strError = fmt::format("offset {}: broken flight recording (expected {})",
                                              m_nOffset + m_nRecord, pszExpected);
    }

    void Record(uint8 cType)
    {
        switch (cType)
        {
        case RECORD_STATE: State(); break;
        case RECORD_STREAM:
        {
            const uint64 ullAccount = m_in.Get();
            m_vecKeys.emplace_back(ullAccount, (uint8)m_in.Get());
            break;
        }
        case RECORD_FED:
            Tick();
            Fed();
            break;
        case RECORD_TURN:
            Tick();
            m_vecDecided.clear();
            m_nChecked = 0;
            m_recv.RunTurn();
            m_bTurnOpen = true;
            m_stResult.ullTurns++;
            if (m_pSeries && m_pSeries->SampleDue(m_clock.Tick()))
                m_pSeries->Sample(m_recv, m_clock.Tick(), true);
            break;
        case RECORD_RTT:
            Tick();
            m_recv.UDTSetRecvRTT((uint32)m_in.Get());
            break;
        case RECORD_CLEARED:
        {
            Tick();
            uint64 ullAccount = 0;
            uint8 cSubType = 0;
            if (KeyAt(m_in.Get(), ullAccount, cSubType))
                m_recv.ClearRecvChn(ullAccount, cSubType);
            break;
        }
        case RECORD_POLL:
        {
            Tick();
            uint32 dwExpect = 0;
            uint32 dwReal = 0;
            uint32 dwBytes = 0;
            uint32 dwInfo = 0;
            m_recv.GetDownPacketRecvInfo(dwExpect, dwReal, dwBytes, dwInfo);
            tagRecvInfo stInfo;
            m_recv.GetRecvInfo(stInfo);
            if (m_pSeries)
                m_pSeries->Downlink(stInfo.dwCurLossRate, m_clock.Tick());
            break;
        }
        case RECORD_RELEASED:
        case RECORD_REQUESTED: Decision(cType); break;
        default: Broken("a record"); break;
        }
    }

    void Tick()
    {
        const uint64 ullSince = m_in.Get();
        if (ullSince > 0x7FFFFFFF)
            return Broken("a tick that does not run back");
        m_clock.MoveTo(m_clock.Tick() + ullSince);
    }

    void State()
    {
        const uint32 dwTick = (uint32)m_in.Get();
        const size_t nLen = m_in.GetCount();
        const uint8* p = m_in.Skip(nLen);
        if (p == nullptr)
            return Broken("a receiver's state as long as it says");
        m_vecKeys.clear();
        if (m_bBegun)
        {
            std::vector<uint8> vecHere;
            CRecvRig::SaveState(m_recv, vecHere);
            m_stResult.ullStates++;
            if (vecHere.size() != nLen || memcmp(vecHere.data(), p, nLen) != 0)
            {
                CStateReader then(p, nLen);
                CStateReader now(vecHere.data(), vecHere.size());
                size_t nWord = 0;
                uint64 ullThen = 0;
                uint64 ullNow = 0;
                for (; ullThen == ullNow && !then.AtEnd() && !now.AtEnd(); nWord++)
                {
                    ullThen = then.Get();
                    ullNow = now.Get();
                }
                Differs(fmt::format("the receiver's state is another: word {} of it was {} and is {}", nWord,
                                    ullThen, ullNow));
            }
            return;
        }
        m_clock.JumpTo(dwTick);
        m_stResult.dwFirstTick = dwTick;
        m_recv.Start();
        const auto packet = [](const tagDataPacket& st) -> UDTCodecBaseDecode_V2*
        {
            CMediaPacket* pPacket = new CMediaPacket(tagUdtPacketHeadInfo(), nullptr);
            pPacket->dwSenderSeq = st.dwSenderSeq;
            pPacket->u64Uin = st.llAccount;
            pPacket->m_cSubType = st.cSubType;
            return pPacket;
        };
        if (!CRecvRig::LoadState(m_recv, p, nLen, packet))
            return Broken("a receiver's state of this version of udtlab");
        if (m_pSeries)
            m_pSeries->Begin(dwTick);
        m_bBegun = true;
    }

    bool KeyAt(uint64 ullKey, uint64& ullAccount, uint8& cSubType)
    {
        if (ullKey >= m_vecKeys.size())
        {
            Broken("a stream that was named before");
            return false;
        }
        ullAccount = m_vecKeys[(size_t)ullKey].first;
        cSubType = m_vecKeys[(size_t)ullKey].second;
        return true;
    }

    void Fed()
    {
        uint64 ullAccount = 0;
        uint8 cSubType = 0;
        if (!KeyAt(m_in.Get(), ullAccount, cSubType))
            return;
        const uint32 dwSendSeq = (uint32)m_in.Get();
        const uint32 dwSeq = (uint32)m_in.Get();
        const uint16 wTimeStamp = (uint16)m_in.Get();
        const uint16 wLen = (uint16)m_in.Get();
        tagUdtPacketHeadInfo stHead;
        for (uint8* p :
             {&stHead.cHeadLen, &stHead.cSubType, &stHead.cFrmType, &stHead.cPkgIndex, &stHead.cTotalPkgCount,
              &stHead.cFecPkgCount, &stHead.cFrameIndex, &stHead.cGopIndex})
            *p = (uint8)m_in.Get();
        stHead.uTimeStamp = (uint32)m_in.Get();
        m_in.Get();
        m_in.Get();
        const uint64 ullFlags = m_in.Get();
        if (!m_in.Good())
            return;
        CMediaPacket* pPacket = new CMediaPacket(stHead, nullptr);
        CScopePtr<UDTCodecBaseDecode_V2> pHeld(pPacket);
        pPacket->dwSenderSeq = dwSendSeq;
        pPacket->dwSeq = dwSeq;
        pPacket->u64Uin = ullAccount;
        pPacket->wTimeStamp = wTimeStamp;
        pPacket->wLen = wLen;
        pPacket->m_cSubType = cSubType;
        m_stResult.ullPackets++;
        if (m_pSeries)
        {
            tagSeriesPacket st;
            st.ullAccount = ullAccount;
            st.cSubType = cSubType;
            st.dwSeq = dwSendSeq;
            st.dwMediaMs = stHead.uTimeStamp;
            st.dwBytes = wLen;
            if ((ullFlags & 2) != 0)
                st.bRetransmitted = true;
            m_pSeries->PacketIn(st, m_clock.Tick());
        }
        m_recv.UDTReceiveNetData(dwSendSeq, ullAccount, dwSeq, wTimeStamp, cSubType, pPacket);
    }

    void Decision(uint8 cType)
    {
        tagDecision st;
        st.cType = (char)cType;
        if (!KeyAt(m_in.Get(), st.ullAccount, st.cSubType))
            return;
        st.dwSeq = (uint32)m_in.Get();
        if (!m_in.Good())
            return;
        if (!m_bTurnOpen)
            return Broken("a turn before its decisions");
        (cType == RECORD_RELEASED ? m_stResult.ullReleases : m_stResult.ullRequests)++;
        if (m_nChecked >= m_vecDecided.size())
            Differs("recorded: " + st.Text() + ", now nothing more in this turn");
        else if (!(m_vecDecided[m_nChecked] == st))
            Differs("recorded: " + st.Text() + ", now: " + m_vecDecided[m_nChecked].Text());
        m_nChecked++;
    }

    void CloseTurn()
    {
        m_bTurnOpen = false;
        if (m_nChecked < m_vecDecided.size())
            Differs("recorded: nothing more in this turn, now: " + m_vecDecided[m_nChecked].Text());
    }

    void Differs(const std::string& strWhat)
    {
        if (m_stResult.strDifference.empty())
            m_stResult.strDifference = fmt::format(
                "at {:.3f} s: {}", ((uint32)m_clock.Tick() - m_stResult.dwFirstTick) / 1000.0, strWhat);
    }

    // IUDTRecvEventCallBack
    void OnUDTRecvOutData(UDTCodecBaseDecode_V2* pPacket, int* pnDelay) override
    {
        const CMediaPacket& packet = static_cast<const CMediaPacket&>(*pPacket);
        *pnDelay = (int)m_dwPlayDelayMs;
        m_vecDecided.push_back({(char)RECORD_RELEASED, packet.u64Uin, packet.m_cSubType, packet.dwSenderSeq});
        if (m_pSeries)
            m_pSeries->PacketOut(*m_recv.GetReleasing(), *pnDelay, m_clock.Tick());
    }
    int UdtRecvHandleEvent(WORD wType, uint8* pBuffer, uint32 nBufSize, uint32, uint32) override
    {
        if (wType != AVGUdtRecvPacketEvent_LossRequest)
            return 0;
        const tagReplyData* pReply = reinterpret_cast<const tagReplyData*>(pBuffer);
        for (uint32 i = 0; i < nBufSize; i++)
            m_vecDecided.push_back(
                {(char)RECORD_REQUESTED, pReply[i].ullUserAccount, pReply[i].cSubType, pReply[i].dwUserSeq});
        if (m_pSeries)
            m_pSeries->Requested(pReply, nBufSize, m_clock.Tick());
        return 0;
    }
    int UdtParsePacketHeadInfo(uint8* pBuf, UdtPacketHeadInfo& stHead) override
    {
        memcpy(&stHead, pBuf, sizeof(stHead));
        return 0;
    }

    CStateReader m_in;
    const size_t m_nOffset;
    const uint32 m_dwPlayDelayMs;
    CRunSeries* const m_pSeries;
    tagFlightResult& m_stResult;
    CVirtualClock m_clock;
    CLogTap m_tap;
    CAVGUdtRecv m_recv;
    bool m_bBegun = false;
    bool m_bTurnOpen = false;
    size_t m_nRecord = 0;
    std::vector<std::pair<uint64, uint8>> m_vecKeys;
    std::vector<tagDecision> m_vecDecided; // in the turn that is open
    size_t m_nChecked = 0;
};

} // namespace

bool IsFlightFile(const std::string& strPath)
{
    std::ifstream in(strPath, std::ios::binary);
    char szHead[sizeof(c_szFlightMagic)] = {};
    in.read(szHead, sizeof(c_szFlightMagic) - 1);
    return in && memcmp(szHead, c_szFlightMagic, sizeof(c_szFlightMagic) - 1) == 0;
}

tagFlightResult ReplayFlight(const std::string& strPath, CRunSeries* pSeries)
{
    std::ifstream in(strPath, std::ios::binary);
    std::ostringstream text;
    tagFlightResult stResult;
    if (!in || !(text << in.rdbuf()))
    {
        stResult.strError = fmt::format("{}: cannot be read: {}", strPath, strerror(errno ? errno : EIO));
        return stResult;
    }
    const std::string str = text.str();
    stResult = ReplayFlightBytes(std::vector<uint8>(str.begin(), str.end()), pSeries);
    if (!stResult.strError.empty())
        stResult.strError = strPath + ": " + stResult.strError;
    return stResult;
}

tagFlightResult ReplayFlightBytes(const std::vector<uint8>& vecBytes, CRunSeries* pSeries)
{
    tagFlightResult stResult;
    const size_t nMagic = sizeof(c_szFlightMagic) - 1;
    const auto itLine =
        vecBytes.size() < nMagic || memcmp(vecBytes.data(), c_szFlightMagic, nMagic) != 0
            ? vecBytes.end()
            : std::find(vecBytes.begin() + (std::ptrdiff_t)nMagic, vecBytes.end(), (uint8)'\n');
    if (itLine == vecBytes.end())
    {
        stResult.strError =
            "offset 0: not a flight recording (expected \"udtlab-flight 1\" and a line of JSON)";
        return stResult;
    }
    stResult.strHeader.assign(vecBytes.begin() + (std::ptrdiff_t)nMagic, itLine);
    const nlohmann::json j = nlohmann::json::parse(stResult.strHeader, nullptr, false);
    if (!j.is_object() || !j.contains("play_delay_ms") || !j["play_delay_ms"].is_number_unsigned())
    {
        stResult.strError =
            fmt::format("offset {}: broken flight recording (expected a line of JSON)", nMagic);
        return stResult;
    }
    const size_t nAt = (size_t)(itLine - vecBytes.begin()) + 1;
    CFlightPlayer player(vecBytes.data() + nAt, vecBytes.size() - nAt, nAt, j["play_delay_ms"].get<uint32>(),
                         pSeries, stResult);
    player.Play();
    if (stResult.strError.empty() && stResult.ullTurns == 0)
        stResult.strError =
            fmt::format("offset {}: the flight recording is empty (expected at least one turn)", nAt);
    return stResult;
}

} // namespace lab
