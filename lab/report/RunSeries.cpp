// In: what happens to a run's packets, and where the receiver stands. Out: the report's data. Transit is kept relative to a
// user's first packet and told relative to the smallest one, which is known only later.

#include "RunSeries.h"

#include "RecvRig.h"
#include "UdtStats.h"
#include "Verdict.h"
#include "udtrecv.h"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <tuple>

namespace lab
{

namespace
{

typedef nlohmann::ordered_json Doc;

constexpr size_t c_nValueBudget = 900000;    // of a whole run's report: under 5 MB, at up to 5 bytes each
constexpr size_t c_nWindowBudget = 120000;   // of a live one, which is sent twice a second
constexpr size_t c_nLeastBins = 60;          // below this a plot tells nothing
constexpr size_t c_nEventsKept = 500;        // the first ones, and as many of the latest
constexpr int32 c_nTransitLeap = 10000;      // ms; more is another media time, not a delay
constexpr uint64 c_ullPullBackWaitMs = 1000; // until a pull-back shows in a clock
constexpr double c_dSlow = 0.9,
                 c_dFast = 1.03; // of real time: 0.75, 1 and 1.04 to 1.08 are what the clock runs at

struct tagSeriesName
{
    const char* pszName;
    enum
    {
        SUM,
        MEAN,
        RANGE, // mean with the extremes
        SPEED  // mean of hundredths
    } eKind;
};

const tagSeriesName c_aNames[SERIES_END_OF_RUN] = {
    {"arrivalDelay", tagSeriesName::RANGE}, {"playoutDelay", tagSeriesName::RANGE},
    {"bufferMs", tagSeriesName::MEAN},      {"bufferPackets", tagSeriesName::MEAN},
    {"packetsIn", tagSeriesName::SUM},      {"packetsOut", tagSeriesName::SUM},
    {"bytesIn", tagSeriesName::SUM},        {"bytesOut", tagSeriesName::SUM},
    {"lost", tagSeriesName::SUM},           {"unrepaired", tagSeriesName::SUM},
    {"requested", tagSeriesName::SUM},      {"answered", tagSeriesName::SUM},
    {"requestsFailed", tagSeriesName::SUM}, {"requestsWasted", tagSeriesName::SUM},
    {"gaps", tagSeriesName::SUM},           {"stallMs", tagSeriesName::SUM},
    {"bandMin", tagSeriesName::MEAN},       {"bandMax", tagSeriesName::MEAN},
    {"target", tagSeriesName::MEAN},        {"clockSpeed", tagSeriesName::SPEED},
    {"avOffset", tagSeriesName::MEAN},      {"latency", tagSeriesName::MEAN},
    {"downlinkLoss", tagSeriesName::MEAN},  {"liveStreams", tagSeriesName::MEAN},
};
constexpr size_t c_nArraysOfStream = SERIES_OF_STREAM + 4; // two have three
constexpr size_t c_nArraysOfUser = c_nSeriesOfUser;

Doc OrNull(const std::optional<uint64>& ull) { return ull ? Doc(*ull) : Doc(); }

// The receiver's own text in our words. False: no such line.
bool Scan(const char* pszText, const char* pszForm, unsigned long long& a, unsigned& b, unsigned& c)
{
    return sscanf(pszText, pszForm, &a, &b, &c) == 3;
}

} // namespace

struct CRunSeries::tagUser
{
    uint64 ullAccount = 0;
    std::string strId;
    size_t nColumns = 0;
    size_t Column(size_t nSeries) const { return nColumns + (nSeries - SERIES_OF_STREAM); }
    std::vector<tagStream*> vecStreams;
    bool bTransit = false;
    uint32 dwBase = 0;   // tick minus media time that counts as transit 0
    int32 nSmallest = 0; // of all transits
    bool bAudioOut = false;
    uint32 dwAudioLag = 0; // release tick minus media time, of the audio released last
    bool bClock = false;   // at ullClockMs the clock stood at dwClock
    uint32 dwClock = 0;
    uint64 ullClockMs = 0;
    uint32 dwSeenClock = 0; // at the last look
};

struct CRunSeries::tagStream
{
    CSeriesStream book;
    tagUser* pUser = nullptr;
    uint8 cSubType = 0;
    std::string strId;
    size_t nColumns = 0;
    bool bFrame = false; // dwFrameMs is of the video frame released last
    uint32 dwFrameMs = 0;
};

class CRunSeries::CSink : public ISeriesSink
{
public:
    CSink(CRunSeries& series, const tagStream& stStream) : m_series(series), m_stStream(stStream) {}
    void Count(emSeries eSeries, uint64 ullMs, int64 n) override
    {
        m_series.Count(m_stStream.nColumns + eSeries, ullMs, n);
    }
    void Value(emSeries eSeries, uint64 ullMs, int32 nValue) override
    {
        m_series.Value(m_stStream.nColumns + eSeries, ullMs, nValue);
    }
    void Still(const char* pszKind, uint64 ullFromMs, uint64 ullMs) override
    {
        const bool bHole = strcmp(pszKind, "hole") == 0;
        m_series.Mark(pszKind, m_stStream.strId, ullFromMs,
                      fmt::format("nothing played for {} ms: the packets {}", ullMs,
                                  bHole ? "never came" : "came late"),
                      ullMs);
    }

private:
    CRunSeries& m_series;
    const tagStream& m_stStream;
};

CRunSeries::CRunSeries(const tagSeriesOptions& stOptions)
    : m_stOptions(stOptions), m_whole(stOptions.uBinMs, stOptions.uMaxBins)
{
    if (stOptions.ullWindowMs != 0)
        m_pWindow = std::make_unique<CBinTable>(
            stOptions.uBinMs, (size_t)(stOptions.ullWindowMs / stOptions.uBinMs + 1), stOptions.ullWindowMs);
    m_nRunColumns = AddColumns(c_nSeriesOfRun);
}

CRunSeries::~CRunSeries() = default;

// ---- Who, and when -----------------------------------------------------------------------------------------------------

void CRunSeries::Begin(uint64 ullTick)
{
    std::lock_guard<std::mutex> lock(m_lock);
    m_ullStartTick = ullTick;
}

void CRunSeries::SetRun(const tagSeriesRun& stRun)
{
    std::lock_guard<std::mutex> lock(m_lock);
    m_stRun = stRun;
}

void CRunSeries::NameUser(uint64 ullAccount, const std::string& strName)
{
    std::lock_guard<std::mutex> lock(m_lock);
    if (m_mapNames.size() < m_stOptions.uMaxStreams || m_mapNames.count(ullAccount) != 0)
        m_mapNames[ullAccount] = strName;
}

// What comes before the start counts as at the start.
uint64 CRunSeries::RunMs(uint64 ullTick)
{
    const uint64 ullMs = m_ullStartTick && ullTick > *m_ullStartTick ? ullTick - *m_ullStartTick : 0;
    m_ullLastMs = std::max(m_ullLastMs, ullMs);
    return ullMs;
}

size_t CRunSeries::AddColumns(size_t n)
{
    if (m_pWindow)
        m_pWindow->AddColumns(n);
    return m_whole.AddColumns(n);
}

// More streams, coarser bins: a report's size has a bound.
void CRunSeries::FitBins()
{
    const size_t nArrays =
        m_vecStreams.size() * c_nArraysOfStream + m_vecUsers.size() * c_nArraysOfUser + c_nSeriesOfRun;
    m_whole.SetMaxBins(std::clamp<size_t>(c_nValueBudget / nArrays, c_nLeastBins, m_stOptions.uMaxBins));
    if (m_pWindow)
        m_pWindow->SetMaxBins(std::max(c_nWindowBudget / nArrays, c_nLeastBins));
}

CRunSeries::tagUser& CRunSeries::User(uint64 ullAccount)
{
    std::unique_ptr<tagUser>& pUser = m_mapUsers[ullAccount];
    if (!pUser)
    {
        pUser = std::make_unique<tagUser>();
        pUser->ullAccount = ullAccount;
        pUser->strId = fmt::format("u{}", m_vecUsers.size());
        pUser->nColumns = AddColumns(c_nSeriesOfUser);
        m_vecUsers.push_back(pUser.get());
    }
    return *pUser;
}

CRunSeries::tagStream* CRunSeries::KnownStream(uint64 ullAccount, uint8 cSubType)
{
    const auto it = m_mapStreams.find({ullAccount, cSubType});
    return it == m_mapStreams.end() ? nullptr : it->second.get();
}

CRunSeries::tagStream* CRunSeries::Stream(uint64 ullAccount, uint8 cSubType)
{
    if (tagStream* pKnown = KnownStream(ullAccount, cSubType))
        return pKnown;
    if (m_vecStreams.size() >= m_stOptions.uMaxStreams)
    {
        m_ullStreamsLeftOut++;
        return nullptr;
    }
    std::unique_ptr<tagStream>& pStream = m_mapStreams[{ullAccount, cSubType}];
    pStream = std::make_unique<tagStream>();
    pStream->pUser = &User(ullAccount);
    pStream->cSubType = cSubType;
    pStream->strId = fmt::format("s{}", m_vecStreams.size());
    pStream->nColumns = AddColumns(SERIES_OF_STREAM);
    pStream->pUser->vecStreams.push_back(pStream.get());
    m_vecStreams.push_back(pStream.get());
    FitBins();
    return pStream.get();
}

void CRunSeries::Count(size_t nColumn, uint64 ullMs, int64 n)
{
    m_whole.Count(nColumn, ullMs, n);
    if (m_pWindow)
        m_pWindow->Count(nColumn, ullMs, n);
}

void CRunSeries::Value(size_t nColumn, uint64 ullMs, int32 nValue)
{
    m_whole.Value(nColumn, ullMs, nValue);
    if (m_pWindow)
        m_pWindow->Value(nColumn, ullMs, nValue);
}

void CRunSeries::Mark(const char* pszKind, const std::string& strOf, uint64 ullMs, const std::string& strText,
                      std::optional<uint64> ullSpanMs)
{
    tagEvent st;
    st.ullMs = ullMs;
    st.strOf = strOf;
    st.pszKind = pszKind;
    st.ullSpanMs = ullSpanMs;
    st.strText = strText;
    if (m_vecEvents.size() < c_nEventsKept)
    {
        m_vecEvents.push_back(st);
        return;
    }
    m_listEvents.push_back(st);
    if (m_listEvents.size() <= c_nEventsKept)
        return;
    m_listEvents.pop_front();
    m_ullEventsLeftOut++;
}

// ---- Packets -------------------------------------------------------------------------------------------------------------

// A packet's time on its way, relative to the user's first one. A leap means that the sender's media time leapt: it goes
// on from the smallest.
int32 CRunSeries::Transit(tagUser& stUser, uint32 dwTick, uint32 dwMediaMs)
{
    if (!stUser.bTransit)
        stUser.dwBase = dwTick - dwMediaMs;
    int32 nTransit = (int32)(dwTick - dwMediaMs - stUser.dwBase);
    if (std::abs((int64)nTransit - stUser.nSmallest) > c_nTransitLeap)
    {
        stUser.dwBase = dwTick - dwMediaMs - (uint32)stUser.nSmallest;
        nTransit = stUser.nSmallest;
        stUser.bClock = false;
    }
    stUser.bTransit = true;
    stUser.nSmallest = std::min(stUser.nSmallest, nTransit);
    return nTransit;
}

void CRunSeries::PacketIn(const tagSeriesPacket& stPacket, uint64 ullTick)
{
    std::lock_guard<std::mutex> lock(m_lock);
    if (!m_ullStartTick)
        m_ullStartTick = ullTick;
    const uint64 ullMs = RunMs(ullTick);
    tagStream* pStream = Stream(stPacket.ullAccount, stPacket.cSubType);
    if (!pStream)
        return;
    CSink sink(*this, *pStream);
    CSeriesStream::tagCame stCame;
    stCame.dwSeq = stPacket.dwSeq;
    stCame.dwMediaMs = stPacket.dwMediaMs;
    stCame.dwBytes = stPacket.dwBytes;
    stCame.bRetransmitted = stPacket.bRetransmitted;
    if (pStream->book.Came(stCame, ullMs, sink))
        Mark("restart", pStream->strId, ullMs,
             fmt::format("the sender began to number anew, at {}", stPacket.dwSeq));
    sink.Value(SERIES_ARRIVAL_DELAY, ullMs, Transit(*pStream->pUser, (uint32)ullTick, stPacket.dwMediaMs));
}

void CRunSeries::PacketOut(const tagDataPacket& stReleasing, int nPlayDelayMs, uint64 ullTick)
{
    std::lock_guard<std::mutex> lock(m_lock);
    const uint64 ullMs = RunMs(ullTick);
    tagStream* pStream = KnownStream(stReleasing.llAccount, stReleasing.cSubType);
    if (!pStream)
        return;
    m_pLastOut = pStream;
    CSink sink(*this, *pStream);
    CSeriesStream::tagLeft stLeft;
    stLeft.dwSeq = stReleasing.dwSenderSeq;
    stLeft.dwMediaMs = stReleasing.dwTimeStamp;
    stLeft.dwBytes = stReleasing.pRawData.p ? stReleasing.pRawData.p->wLen : 0;
    stLeft.dwDelayMs = (uint32)ullTick - stReleasing.dwRecvTime;
    stLeft.dwGap = stReleasing.cPrePkgLost;
    pStream->book.Released(stLeft, ullMs, sink);
    MeasureAvOffset(*pStream->pUser, *pStream, stReleasing, nPlayDelayMs, ullTick);
}

// At the release of each video frame's first packet: its release less its media time, less the same of the audio
// released last, which is heard later by the play delay.
void CRunSeries::MeasureAvOffset(tagUser& stUser, tagStream& stStream, const tagDataPacket& stPkt,
                                 int nPlayDelayMs, uint64 ullTick)
{
    const uint32 dwLag = (uint32)ullTick - stPkt.dwTimeStamp;
    if (stStream.cSubType == MEAVAudio)
    {
        stUser.bAudioOut = true;
        stUser.dwAudioLag = dwLag + (uint32)nPlayDelayMs;
        return;
    }
    const bool bNewFrame = !stStream.bFrame || stStream.dwFrameMs != stPkt.dwTimeStamp;
    stStream.bFrame = true;
    stStream.dwFrameMs = stPkt.dwTimeStamp;
    if (bNewFrame && stUser.bAudioOut)
        Value(stUser.Column(SERIES_AV_OFFSET), RunMs(ullTick), (int32)(dwLag - stUser.dwAudioLag));
}

void CRunSeries::Requested(const tagReplyData* pReply, uint32 uCount, uint64 ullTick)
{
    std::lock_guard<std::mutex> lock(m_lock);
    const uint64 ullMs = RunMs(ullTick);
    for (uint32 i = 0; i < uCount; i++)
    {
        tagStream* pStream = KnownStream(pReply[i].ullUserAccount, pReply[i].cSubType);
        if (!pStream)
            continue;
        CSink sink(*this, *pStream);
        pStream->book.Asked(pReply[i].dwUserSeq, ullMs, sink);
    }
}

void CRunSeries::Finish()
{
    std::lock_guard<std::mutex> lock(m_lock);
    for (tagStream* pStream : m_vecStreams)
    {
        CSink sink(*this, *pStream);
        pStream->book.Finish(sink);
    }
}

// ---- Events ---------------------------------------------------------------------------------------------------------------

void CRunSeries::Event(const char* pszKind, uint64 ullAccount, const std::string& strText, uint64 ullTick,
                       std::optional<uint64> ullMs)
{
    std::lock_guard<std::mutex> lock(m_lock);
    const auto it = m_mapUsers.find(ullAccount);
    Mark(pszKind, it == m_mapUsers.end() ? "run" : it->second->strId, RunMs(ullTick), strText, ullMs);
}

void CRunSeries::LogLine(UDT_LOG_LEVEL eLevel, const char* pszFunc, const char* pszText, uint64 ullTick)
{
    if (eLevel > LOG_LEVEL_ERROR)
        return; // traces of every packet
    const auto Is = [pszFunc](const char* psz) { return strcmp(pszFunc, psz) == 0; };
    unsigned long long ull = 0;
    unsigned a = 0;
    unsigned b = 0;
    std::lock_guard<std::mutex> lock(m_lock);
    const uint64 ullMs = RunMs(ullTick);
    const auto OfUser = [this](uint64 ullAccount)
    {
        const auto it = m_mapUsers.find(ullAccount);
        return it == m_mapUsers.end() ? std::string("run") : it->second->strId;
    };
    const auto OfStream = [&](uint64 ullAccount, unsigned uSubType)
    {
        const tagStream* p = KnownStream(ullAccount, (uint8)uSubType);
        return p ? p->strId : OfUser(ullAccount);
    };

    if (Is("SetRoomState") && sscanf(pszText, "UDTR SetRoomState %u", &a) == 1)
        Mark("roomState", "run", ullMs,
             fmt::format("room state {}{}", a, a == 3 ? "" : ": nothing is played"));
    else if (Is("OnDataHandleNew") && strstr(pszText, "force to be true"))
        Mark("roomState", "run", ullMs, "room state 3, since nobody had set one for 2.5 s");
    else if (Is("OnDataHandleNew") &&
             sscanf(pszText, "Server Push Early Packet Make TimelineOut From %u Back to %u", &a, &b) == 2)
    {
        m_vecPullBacks.push_back({ullMs, a, b});
    }
    else if (Is("UDTSetRecvParams"))
    {
        const char* pszMode = strstr(pszText, " Mode ");
        if (!pszMode || sscanf(pszMode, " Mode %u", &a) != 1 || (m_dwMode ? *m_dwMode == a : a == 0))
            return;
        m_dwMode = a;
        Mark("modeChange", "run", ullMs, (a & 1) != 0 ? "low-latency mode" : "default mode");
    }
    else if (Is("ClearRecvChn") && sscanf(pszText, "ClearRecvChn: uin %llu IsClearAll %u", &ull, &a) == 2)
        Mark("clear", ull == 0 ? "run" : OfStream(ull, a), ullMs,
             a == 0xFF ? "all streams but audio cleared" : fmt::format("sub-type {} cleared", a));
    else if (Is("CheckTimeOutNew") &&
             Scan(pszText, "CheckTimeOut Erase UIN:%llu subType %u time_out %u", ull, a, b))
        Mark("expired", OfStream(ull, a), ullMs, fmt::format("silent for {} ms: removed", b), b);
    else if (Is("FindTimeStampJump") &&
             Scan(pszText, "FindTimeStampJump ullAcount:%llu,uTimelineOut:%u,uMinTimeStamp:%u", ull, a, b))
        Mark("jump", OfUser(ull), ullMs, fmt::format("playout jumped over {} ms without media", b - a),
             b - a);
    else if (Is("CheckPkgRequestFail"))
    {
        const char* pszUin = strstr(pszText, " Uin ");
        if (sscanf(pszText, "CheckPkgRequestFail: subtype %u curNum %u", &a, &b) != 2 || !pszUin ||
            sscanf(pszUin, " Uin %llu", &ull) != 1)
            return;
        if (tagStream* pStream = KnownStream(ull, (uint8)a))
        {
            CSink sink(*this, *pStream);
            pStream->book.Failed(b, ullMs, sink);
        }
    }
    else if (Is("OutVideoStatInfo"))
    {
        // Written while the stream's packet is being released, and names the user only.
        unsigned uFec = 0;
        const char* pszAccount = strstr(pszText, " Account ");
        if (sscanf(pszText, "I-frame last pkg is out, tickTime %u fecN %u Lost %u", &a, &uFec, &b) != 3 ||
            !pszAccount || sscanf(pszAccount, " Account %llu", &ull) != 1)
            return;
        const bool bOurs = m_pLastOut && m_pLastOut->pUser->ullAccount == ull;
        Mark("firstKeyFrame", bOurs ? m_pLastOut->strId : OfUser(ull), ullMs,
             fmt::format("first key frame played {} ms after the stream's first packet{}", a,
                         b == 0 ? std::string() : fmt::format(", {} of its packets missing", b)),
             a);
    }
}

// ---- The receiver's own words ------------------------------------------------------------------------------------------------

void CRunSeries::Downlink(uint32 dwLossRate, uint64 ullTick)
{
    std::lock_guard<std::mutex> lock(m_lock);
    Value(m_nRunColumns, RunMs(ullTick), (int32)dwLossRate);
}

bool CRunSeries::SampleDue(uint64 ullTick)
{
    std::lock_guard<std::mutex> lock(m_lock);
    if (!m_ullStartTick)
        return false;
    const uint64 ullMs = RunMs(ullTick);
    return !m_ullSampledMs || ullMs / m_stOptions.uBinMs != *m_ullSampledMs / m_stOptions.uBinMs;
}

void CRunSeries::Sample(CAVGUdtRecv& recv, uint64 ullTick, bool bMakesTurns)
{
    struct tagSeen
    {
        tagPlayoutInfo stInfo;
        std::optional<uint32> dwBandLow;
    };
    std::vector<std::pair<uint64, tagSeen>> vecSeen;
    {
        std::lock_guard<std::mutex> lock(m_lock);
        m_ullSampledMs = RunMs(ullTick);
        for (const tagUser* pUser : m_vecUsers)
            vecSeen.emplace_back(pUser->ullAccount, tagSeen());
    }
    size_t nLive = 0;
    for (auto& st : vecSeen)
    {
        if (!recv.GetPlayoutInfo(st.first, st.second.stInfo))
            continue;
        std::swap(vecSeen[nLive], st);
        nLive++;
    }
    vecSeen.resize(nLive);
    for (auto& st : vecSeen)
    {
        if (!bMakesTurns)
            break;
        const MapUinDataInfo& map = CRecvRig::UsersOf(recv);
        const auto it = map.find(st.first);
        if (it != map.end())
            st.second.dwBandLow = it->second.dwTimelineMin - TransitOffset(0, 0);
    }
    tagRecvInfo stInfo;
    recv.GetRecvInfo(stInfo);

    std::lock_guard<std::mutex> lock(m_lock);
    const uint64 ullMs = RunMs(ullTick);
    Value(m_nRunColumns + 1, ullMs, (int32)stInfo.dwChnNum);
    for (const auto& st : vecSeen)
        TakePlayout(User(st.first), st.second.stInfo, st.second.dwBandLow, ullTick);
    // Nobody's clock shows them: the user is gone.
    while (!m_vecPullBacks.empty() && ullMs - m_vecPullBacks.front().ullMs > c_ullPullBackWaitMs)
    {
        const tagPullBack& stFirst = m_vecPullBacks.front();
        Mark("pullBack", "run", stFirst.ullMs, "playout was pulled back", stFirst.dwFrom - stFirst.dwTo);
        m_vecPullBacks.erase(m_vecPullBacks.begin());
    }
}

// The receiver's line does not say whose playout was pulled back. Once it is that easy to pull, every late packet does it
// again: between two looks they are one.
void CRunSeries::TakePullBacks(tagUser& stUser, uint32 dwClock)
{
    const auto IsOurs = [&stUser](const tagPullBack& st)
    { return std::abs((int64)(int32)(st.dwFrom - stUser.dwSeenClock)) <= (int64)c_ullPullBackWaitMs; };
    const auto it = std::find_if(m_vecPullBacks.begin(), m_vecPullBacks.end(), IsOurs);
    if (stUser.dwSeenClock == 0 || it == m_vecPullBacks.end() ||
        (int32)(dwClock - stUser.dwSeenClock) >= -(int32)m_stOptions.uBinMs)
        return;
    Mark("pullBack", stUser.strId, it->ullMs, "playout was pulled back to packets that came late",
         it->dwFrom - it->dwTo);
    const tagPullBack stFirst = *it;
    m_vecPullBacks.erase(std::remove_if(m_vecPullBacks.begin(), m_vecPullBacks.end(),
                                        [&](const tagPullBack& st)
                                        {
                                            const int64 llNear = (int64)c_ullPullBackWaitMs;
                                            return IsOurs(st) ||
                                                   std::abs((int64)(int32)(st.dwFrom - dwClock)) <= llNear ||
                                                   std::abs((int64)(int32)(st.dwTo - stFirst.dwTo)) <= llNear;
                                        }),
                         m_vecPullBacks.end());
}

void CRunSeries::TakePlayout(tagUser& stUser, const tagPlayoutInfo& stInfo, std::optional<uint32> dwBandLow,
                             uint64 ullTick)
{
    const uint64 ullMs = RunMs(ullTick);
    if (dwBandLow && stUser.bTransit)
    {
        const int32 nLow = (int32)(*dwBandLow - stUser.dwBase);
        const int64 llHigh = (int64)nLow + stInfo.dwBandWidth;
        if (std::abs((int64)nLow) <= c_nTransitLeap && llHigh <= 6LL * c_nTransitLeap)
        {
            Value(stUser.Column(SERIES_BAND_MIN), ullMs, nLow);
            Value(stUser.Column(SERIES_BAND_MAX), ullMs, (int32)llHigh);
        }
    }
    Value(stUser.Column(SERIES_TARGET), ullMs, (int32)std::min<uint32>(stInfo.dwTarget, INT32_MAX));
    for (const tagStream* pStream : stUser.vecStreams)
    {
        if (!pStream->book.HasCome())
            continue;
        Value(pStream->nColumns + SERIES_BUFFER_PACKETS, ullMs, (int32)pStream->book.Ahead());
        if (stInfo.dwTimelineOut == 0)
            continue;
        const int32 nAhead = (int32)(pStream->book.NewestMediaMs() - stInfo.dwTimelineOut);
        Value(pStream->nColumns + SERIES_BUFFER_MS, ullMs, std::max(0, nAhead));
    }
    if (stInfo.dwTimelineOut == 0)
    {
        stUser.bClock = false;
        return;
    }
    TakePullBacks(stUser, stInfo.dwTimelineOut);
    stUser.dwSeenClock = stInfo.dwTimelineOut;
    TakeClock(stUser, stInfo.dwTimelineOut, ullMs);
    const int32 nLatency = (int32)((uint32)ullTick - stInfo.dwTimelineOut - stUser.dwBase);
    if (stUser.bTransit && std::abs((int64)nLatency) <= 6LL * c_nTransitLeap)
        Value(stUser.Column(SERIES_LATENCY), ullMs, nLatency);
}

void CRunSeries::TakeClock(tagUser& stUser, uint32 dwClock, uint64 ullMs)
{
    const uint64 ullSpan = ullMs - stUser.ullClockMs;
    if (stUser.bClock && ullSpan < m_stOptions.uClockSpanMs)
        return;
    const double dSpeed = stUser.bClock ? (double)(int32)(dwClock - stUser.dwClock) / (double)ullSpan : 1;
    // A leap is no speed: it has its own mark.
    if (stUser.bClock && dSpeed > 0 && dSpeed < 2)
        Value(stUser.Column(SERIES_CLOCK_SPEED), ullMs, dSpeed < c_dSlow ? -100 : dSpeed > c_dFast ? 100 : 0);
    stUser.bClock = true;
    stUser.dwClock = dwClock;
    stUser.ullClockMs = ullMs;
}

// ---- The report ----------------------------------------------------------------------------------------------------------------

nlohmann::ordered_json CRunSeries::SeriesJson(const CBinTable& table, uint64 ullFromMs, size_t& nBins,
                                              uint64& ullStartMs)
{
    const uint64 ullBinMs = table.BinMs();
    const size_t nSkip = ullFromMs > table.FirstMs() ? (size_t)((ullFromMs - table.FirstMs()) / ullBinMs) : 0;
    const size_t nEnd = std::max(nSkip, table.Bins());
    nBins = nEnd - nSkip;
    ullStartMs = table.FirstMs() + nSkip * ullBinMs;

    Doc jAll = Doc::array();
    // llShift: of values that are kept relative to something. ullSinceMs: before it counts are not known.
    const auto Add = [&](const std::string& strOf, size_t nColumns, size_t nFirst, size_t nLast,
                         int64 llShift, const std::optional<uint64>& ullSinceMs)
    {
        for (size_t n = nFirst; n < nLast; n++)
        {
            const tagSeriesName& stName = c_aNames[n];
            if (stName.eKind == tagSeriesName::SUM && !ullSinceMs)
                continue;
            const bool bShifted = n == SERIES_ARRIVAL_DELAY || n == SERIES_BAND_MIN || n == SERIES_BAND_MAX ||
                                  n == SERIES_LATENCY;
            const int64 llLess = bShifted ? llShift : 0;
            Doc jV = Doc::array();
            Doc jLow = Doc::array();
            Doc jHigh = Doc::array();
            bool bAny = false;
            for (size_t i = nSkip; i < nEnd; i++)
            {
                const tagBin& st = table.At(nColumns + n - nFirst, i);
                const uint64 ullEndMs = table.FirstMs() + (i + 1) * ullBinMs;
                if (stName.eKind == tagSeriesName::SUM)
                {
                    const bool bKnown = ullEndMs > *ullSinceMs;
                    bAny = bAny || bKnown;
                    jV.push_back(bKnown ? Doc(st.llSum) : Doc());
                    continue;
                }
                if (st.uCount == 0)
                {
                    jV.push_back(nullptr);
                    if (stName.eKind == tagSeriesName::RANGE)
                    {
                        jLow.push_back(nullptr);
                        jHigh.push_back(nullptr);
                    }
                    continue;
                }
                bAny = true;
                const double dMean = (double)st.llSum / st.uCount;
                if (stName.eKind == tagSeriesName::SPEED)
                {
                    jV.push_back((double)std::llround(dMean) / 100.0);
                    continue;
                }
                jV.push_back((int64)std::llround(dMean) - llLess);
                if (stName.eKind == tagSeriesName::RANGE)
                {
                    jLow.push_back(st.nLow - llLess);
                    jHigh.push_back(st.nHigh - llLess);
                }
            }
            if (!bAny)
                continue;
            Doc j;
            j["of"] = strOf;
            j["name"] = stName.pszName;
            j["v"] = std::move(jV);
            if (stName.eKind == tagSeriesName::RANGE)
            {
                j["lo"] = std::move(jLow);
                j["hi"] = std::move(jHigh);
            }
            jAll.push_back(std::move(j));
        }
    };
    for (const tagUser* p : m_vecUsers)
        Add(p->strId, p->nColumns, SERIES_OF_STREAM, SERIES_END_OF_USER, p->nSmallest, {});
    for (const tagStream* p : m_vecStreams)
    {
        const tagSeriesTotals& st = p->book.Totals();
        Add(p->strId, p->nColumns, 0, SERIES_REQUESTS_WASTED, p->pUser->nSmallest, st.ullFirstIn);
        Add(p->strId, p->nColumns + SERIES_REQUESTS_WASTED, SERIES_REQUESTS_WASTED,
            SERIES_REQUESTS_WASTED + 1, 0, st.bWastedKnown ? st.ullFirstIn : std::optional<uint64>());
        Add(p->strId, p->nColumns + SERIES_GAPS, SERIES_GAPS, SERIES_OF_STREAM, 0, st.ullFirstIn);
    }
    Add("run", m_nRunColumns, SERIES_END_OF_USER, SERIES_END_OF_RUN, 0, {});
    return jAll;
}

nlohmann::ordered_json CRunSeries::Json(uint32 dwLastMs)
{
    std::lock_guard<std::mutex> lock(m_lock);
    m_whole.ReachTo(m_ullLastMs);
    if (m_pWindow)
        m_pWindow->ReachTo(m_ullLastMs);
    Doc j;
    j["format"] = "udtlab-report";
    j["version"] = 1;
    Doc& jRun = j["run"];
    jRun["kind"] = m_stRun.strKind;
    jRun["title"] = m_stRun.strTitle;
    jRun["program"] = "udtlab " UDT_VERSION;
    jRun["startUnixMs"] = OrNull(m_stRun.ullStartUnixMs);
    jRun["durationMs"] = m_ullLastMs;
    jRun["options"] = Doc::array();
    for (const auto& st : m_stRun.vecOptions)
        jRun["options"].push_back({st.first, st.second});
    if (m_ullStreamsLeftOut != 0)
        jRun["packetsOfStreamsLeftOut"] = m_ullStreamsLeftOut;
    j["verdict"] = Doc::array();
    j["tables"] = Doc::array();

    j["users"] = Doc::array();
    for (const tagUser* p : m_vecUsers)
    {
        const auto itName = m_mapNames.find(p->ullAccount);
        Doc u;
        u["id"] = p->strId;
        u["account"] = fmt::format("{}", p->ullAccount);
        u["name"] = itName == m_mapNames.end() ? fmt::format("user {}", p->ullAccount) : itName->second;
        u["streams"] = Doc::array();
        for (const tagStream* pStream : p->vecStreams)
            u["streams"].push_back(pStream->strId);
        j["users"].push_back(std::move(u));
    }
    j["streams"] = Doc::array();
    j["totals"] = Doc::array();
    for (const tagStream* p : m_vecStreams)
    {
        Doc s;
        s["id"] = p->strId;
        s["user"] = p->pUser->strId;
        s["kind"] = p->cSubType == MEAVAudio ? "audio" : "video";
        s["subType"] = p->cSubType;
        const std::string strMedia = UdtStatsMedia(p->cSubType);
        s["name"] = strMedia != "other" ? strMedia : fmt::format("sub-type {}", p->cSubType);
        j["streams"].push_back(std::move(s));

        const tagSeriesTotals& st = p->book.Totals();
        Doc t;
        t["of"] = p->strId;
        t["packetsIn"] = st.ullIn;
        t["packetsOut"] = st.ullOut;
        t["bytesIn"] = st.ullBytesIn;
        t["bytesOut"] = st.ullBytesOut;
        t["duplicates"] = st.ullDuplicates;
        t["expected"] = st.ullExpected;
        t["lost"] = st.ullLost;
        t["repairedInTime"] = st.ullInTime;
        t["repairedLate"] = st.ullLate;
        t["unrepaired"] = st.ullUnrepaired;
        t["requested"] = st.ullRequested;
        t["requestedPackets"] = st.ullRequestedOnce;
        t["answered"] = st.ullAnswered;
        t["requestsFailed"] = st.ullFailed;
        t["requestsWasted"] = st.bWastedKnown ? Doc(st.ullWasted) : Doc();
        t["gaps"] = st.ullGaps;
        for (const auto& [pszOne, pszMany, stStills] :
             {std::make_tuple("Stall", "stalls", st.stStalls), std::make_tuple("Hole", "holes", st.stHoles)})
        {
            const std::string strOne = pszOne;
            t[pszMany] = stStills.ullCount;
            t[strOne == "Stall" ? "stalledMs" : "holesMs"] = stStills.ullMs;
            t["longest" + strOne + "Ms"] = stStills.ullLongestMs;
            t["longest" + strOne + "At"] = stStills.ullCount != 0 ? Doc(stStills.ullLongestAt) : Doc();
        }
        t["firstIn"] = OrNull(st.ullFirstIn);
        t["firstOut"] = OrNull(st.ullFirstOut);
        const bool bOut = st.ullOut != 0;
        t["playoutDelayMean"] =
            bOut ? Doc(std::floor((double)st.ullPlayoutMs * 10 / (double)st.ullOut) / 10) : Doc();
        t["playoutDelayMin"] = bOut ? Doc(st.dwPlayoutLow) : Doc();
        t["playoutDelayMax"] = bOut ? Doc(st.dwPlayoutHigh) : Doc();
        j["totals"].push_back(std::move(t));
    }

    const uint64 ullFromMs = dwLastMs != 0 && m_ullLastMs > dwLastMs ? m_ullLastMs - dwLastMs : 0;
    // The window where it holds all that is asked for.
    const bool bWindow = m_pWindow && dwLastMs != 0 && m_pWindow->FirstMs() <= ullFromMs;
    const CBinTable& table = bWindow ? *m_pWindow : m_whole;
    size_t nBins = 0;
    uint64 ullStartMs = 0;
    Doc jSeries = SeriesJson(table, ullFromMs, nBins, ullStartMs);
    j["bins"]["ms"] = table.BinMs();
    j["bins"]["count"] = nBins;
    j["bins"]["start"] = ullStartMs;
    j["series"] = std::move(jSeries);

    std::vector<const tagEvent*> vecEvents;
    for (const tagEvent& st : m_vecEvents)
        vecEvents.push_back(&st);
    for (const tagEvent& st : m_listEvents)
        vecEvents.push_back(&st);
    std::stable_sort(vecEvents.begin(), vecEvents.end(),
                     [](const tagEvent* a, const tagEvent* b) { return a->ullMs < b->ullMs; });
    j["events"] = Doc::array();
    for (const tagEvent* p : vecEvents)
    {
        if (p->ullMs < ullStartMs)
            continue;
        Doc e;
        e["t"] = p->ullMs;
        e["of"] = p->strOf;
        e["kind"] = p->pszKind;
        e["ms"] = OrNull(p->ullSpanMs);
        e["text"] = p->strText;
        j["events"].push_back(std::move(e));
    }
    j["eventsLeftOut"] = m_ullEventsLeftOut;
    j["verdict"] = MakeVerdict(j);
    return j;
}

tagSeriesTotals CRunSeries::Totals(uint64 ullAccount, uint8 cSubType)
{
    std::lock_guard<std::mutex> lock(m_lock);
    const tagStream* p = KnownStream(ullAccount, cSubType);
    return p ? p->book.Totals() : tagSeriesTotals();
}

size_t CRunSeries::Cells()
{
    std::lock_guard<std::mutex> lock(m_lock);
    return m_whole.Cells() + (m_pWindow ? m_pWindow->Cells() : 0);
}

} // namespace lab
