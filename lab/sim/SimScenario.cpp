// From a document to a call. Every option is checked here, so that nothing behind has to.

#include "SimScenario.h"

#include "IUDT.h"

#include <fmt/format.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstring>
#include <fstream>
#include <iterator>
#include <set>
#include <stdexcept>

namespace lab
{

namespace
{

typedef nlohmann::ordered_json Json;

const char* const c_aStreamNames[SIM_STREAMS] = {"audio", "video", "small", "sub", "share"};
const uint8 c_aSubTypes[SIM_STREAMS] = {MEAVAudio, MEAVMaxVideo, MEAVMinVideo, MEAVSubVideo, MEAVPPTShare};

constexpr double c_dLongest = 30 * 24 * 3600.0; // seconds
constexpr uint32 c_uMostUsers = 1000;

struct tagWrong : std::runtime_error
{
    using std::runtime_error::runtime_error;
};

[[noreturn]] void Wrong(const std::string& strWhere, const std::string& strWhat)
{
    throw tagWrong(fmt::format("{}: {}", strWhere, strWhat));
}

// One object of the document. What nobody asked for is an error: a misspelt option must not go unnoticed.
class CSection
{
public:
    CSection(const Json& j, std::string strPath) : m_j(j), m_strPath(std::move(strPath))
    {
        if (!j.is_object())
            Wrong(m_strPath.empty() ? "the scenario" : m_strPath,
                  fmt::format("expected {{...}}, got {}", j.dump()));
    }

    std::string Where(const char* pszKey) const
    {
        return m_strPath.empty() ? pszKey : fmt::format("{}.{}", m_strPath, pszKey);
    }
    const Json* Find(const char* pszKey)
    {
        m_setKnown.insert(pszKey);
        const auto it = m_j.find(pszKey);
        return it == m_j.end() || it->is_null() ? nullptr : &*it;
    }
    void Number(const char* pszKey, double& d, double dMin, double dMax)
    {
        const Json* p = Find(pszKey);
        if (!p)
            return;
        if (!p->is_number() || p->get<double>() < dMin || p->get<double>() > dMax)
            Wrong(Where(pszKey),
                  fmt::format("expected a number from {} to {}, got {}", dMin, dMax, p->dump()));
        d = p->get<double>();
    }
    template <class T>
    void Whole(const char* pszKey, T& n, uint64 ullMin, uint64 ullMax)
    {
        const Json* p = Find(pszKey);
        if (!p)
            return;
        if (!p->is_number_unsigned() || p->get<uint64>() < ullMin || p->get<uint64>() > ullMax)
            Wrong(Where(pszKey),
                  fmt::format("expected a whole number from {} to {}, got {}", ullMin, ullMax, p->dump()));
        n = (T)p->get<uint64>();
    }
    // Milliseconds or seconds in the document, microseconds here.
    void Ms(const char* pszKey, int64& llUs, double dMinMs, double dMaxMs)
    {
        double d = (double)llUs / 1000;
        Number(pszKey, d, dMinMs, dMaxMs);
        if (Find(pszKey))
            llUs = llround(d * 1000);
    }
    void Seconds(const char* pszKey, int64& llUs, double dMin, double dMax)
    {
        double d = 0;
        Number(pszKey, d, dMin, dMax);
        if (Find(pszKey))
            llUs = llround(d * 1000000);
    }
    void Flag(const char* pszKey, bool& b)
    {
        const Json* p = Find(pszKey);
        if (!p)
            return;
        if (!p->is_boolean())
            Wrong(Where(pszKey), fmt::format("expected true or false, got {}", p->dump()));
        b = p->get<bool>();
    }
    void Text(const char* pszKey, std::string& str)
    {
        const Json* p = Find(pszKey);
        if (!p)
            return;
        if (!p->is_string())
            Wrong(Where(pszKey), fmt::format("expected a text, got {}", p->dump()));
        str = p->get<std::string>();
    }
    // [[at_s, second], ...]; the second number is in units of llUnitUs.
    void Pairs(const char* pszKey, std::vector<std::pair<int64, int64>>& vec, int64 llUnitUs,
               const char* pszForm)
    {
        const Json* p = Find(pszKey);
        if (!p)
            return;
        const std::string strExpected = fmt::format("expected {}, times rising", pszForm);
        if (!p->is_array())
            Wrong(Where(pszKey), fmt::format("{}, got {}", strExpected, p->dump()));
        for (const Json& jPair : *p)
        {
            if (!jPair.is_array() || jPair.size() != 2 || !jPair[0].is_number() || !jPair[1].is_number() ||
                jPair[0] < 0 || jPair[1] < 0 || jPair[0] > c_dLongest || jPair[1] > c_dLongest * 1000)
                Wrong(Where(pszKey), fmt::format("{}, got {}", strExpected, jPair.dump()));
            const int64 llAt = llround(jPair[0].get<double>() * 1e6);
            if (!vec.empty() && llAt <= vec.back().first)
                Wrong(Where(pszKey), fmt::format("{}, got {}", strExpected, jPair.dump()));
            vec.emplace_back(llAt, llround(jPair[1].get<double>() * (double)llUnitUs));
        }
    }
    void NothingElse() const
    {
        for (const auto& item : m_j.items())
            if (m_setKnown.count(item.key()) == 0)
                Wrong(Where(item.key().c_str()),
                      fmt::format("no such option; there are {}", fmt::join(m_setKnown, ", ")));
    }

private:
    const Json& m_j;
    std::string m_strPath;
    std::set<std::string> m_setKnown;
};

std::string InFolder(const std::string& strFolder, const std::string& strName)
{
    return strFolder.empty() || strName.empty() || strName[0] == '/' ? strName : strFolder + "/" + strName;
}

template <class T, class F>
void ReadTrace(CSection& section, const char* pszKey, const std::string& strPath,
               std::shared_ptr<const T>& pTrace, F fnRead)
{
    if (strPath.empty())
        return;
    auto p = std::make_shared<T>();
    std::string strError;
    if (!fnRead(strPath, *p, strError))
        Wrong(section.Where(pszKey), strError);
    pTrace = p;
}

void ParsePath(const Json* pJson, const char* pszName, emTraceWay eWay, const std::string& strFolder,
               tagSimPath& st)
{
    if (!pJson)
        return;
    CSection s(*pJson, pszName);
    s.Number("loss_percent", st.dLossPercent, 0, 100);
    s.Number("burst", st.dBurst, 0, 10000);
    // In the good state packets may not be lost often enough for such short bursts.
    if (st.dBurst > 0 && st.dLossPercent >= 100)
        Wrong(s.Where("burst"), "expected a loss below 100 percent beside it");
    const double dShare = st.dLossPercent / 100;
    if (st.dBurst > 0 && dShare > st.dBurst * (1 - dShare))
        Wrong(s.Where("burst"), fmt::format("expected at least {:.2f} at {} percent loss, got {}",
                                            dShare / (1 - dShare), st.dLossPercent, st.dBurst));
    s.Pairs("outages", st.vecOutages, 1000000, "[[at_s, for_s], ...]");
    s.Seconds("outage_every_s", st.llOutageEveryUs, 0.1, c_dLongest);
    s.Seconds("outage_for_s", st.llOutageForUs, 0, c_dLongest);
    if (st.llOutageForUs > 0 && st.llOutageEveryUs <= st.llOutageForUs)
        Wrong(s.Where("outage_every_s"), "expected more than outage_for_s");
    s.Text("loss_trace", st.strLossTrace);
    s.Ms("delay_ms", st.llDelayUs, 0, 60000);
    s.Ms("jitter_ms", st.llJitterUs, 0, 10000);
    s.Ms("jitter_memory_ms", st.llJitterMemoryUs, 1, 60000);
    s.Flag("jitter_reorders", st.bJitterReorders);
    s.Pairs("steps", st.vecSteps, 1000, "[[at_s, delay_ms], ...]");
    s.Text("delay_trace", st.strDelayTrace);
    s.Number("reorder_percent", st.dReorderPercent, 0, 100);
    s.Ms("reorder_ms", st.llReorderUs, 0, 10000);
    s.Number("duplicate_percent", st.dDuplicatePercent, 0, 100);
    s.Ms("duplicate_ms", st.llDuplicateUs, 0, 60000);
    s.Number("rate_kbps", st.dRateKbps, 1, 1e8);
    s.Text("rate_trace", st.strRateTrace);
    if (st.dRateKbps > 0 && !st.strRateTrace.empty())
        Wrong(s.Where("rate_kbps"), "expected either a rate or a rate_trace");
    s.Ms("queue_ms", st.llQueueUs, 1, 60000);
    s.Whole("queue_bytes", st.uQueueBytes, 1500, 1000000000);
    s.NothingElse();

    ReadTrace(s, "loss_trace", InFolder(strFolder, st.strLossTrace), st.pLossTrace, ReadLossTrace);
    ReadTrace(s, "delay_trace", InFolder(strFolder, st.strDelayTrace), st.pDelayTrace, ReadDelayTrace);
    ReadTrace(s, "rate_trace", InFolder(strFolder, st.strRateTrace), st.pRateTrace,
              [eWay](const std::string& strPath, tagRateTrace& stTrace, std::string& strError)
              { return ReadRateTrace(strPath, eWay, stTrace, strError); });
}

void ParseAudio(const Json* pJson, const std::string& strPath, tagSimAudio& st)
{
    if (!pJson)
        return;
    if (pJson->is_boolean())
    {
        st.bOn = pJson->get<bool>();
        return;
    }
    CSection s(*pJson, strPath);
    s.Whole("kbps", st.uKbps, 1, 10000);
    s.Ms("packet_ms", st.llPacketUs, 1, 1000);
    s.NothingElse();
}

void ParseVideo(const Json* pJson, const std::string& strPath, tagSimVideo& st)
{
    if (!pJson)
        return;
    if (pJson->is_boolean())
    {
        st.bOn = pJson->get<bool>();
        return;
    }
    CSection s(*pJson, strPath);
    st.bOn = true;
    s.Whole("kbps", st.uKbps, 0, 100000);
    if (st.uKbps == 0)
        st.bOn = false; // a stream is switched off by its rate
    s.Number("fps", st.dFps, 0.1, 240);
    s.Whole("gop", st.uGop, 1, 100000);
    s.Number("i_ratio", st.dIRatio, 1, 100);
    s.Number("spread_percent", st.dSpread, 0, 90);
    s.Whole("mtu", st.uMtu, 100, 65000);
    s.Whole("fec", st.uFec, 0, 100);
    s.Ms("pace_ms", st.llPaceUs, 0, 1000);
    s.NothingElse();
    if (!st.bOn)
        return;
    // A frame's packets are counted in eight bits.
    const double dP = st.uKbps * 125.0 / st.dFps * st.uGop / (st.uGop - 1 + st.dIRatio);
    const double dPackets = dP * st.dIRatio * (1 + st.dSpread / 100) / st.uMtu + st.uFec;
    if (dPackets > 250)
        Wrong(strPath,
              fmt::format("expected I frames of at most 250 packets, this makes {:.0f}: raise mtu or fps, "
                          "lower kbps, i_ratio, gop or fec",
                          dPackets));
}

uint32 StreamsNamed(CSection& s)
{
    const Json* p = s.Find("streams");
    if (!p)
        return (1u << SIM_STREAMS) - 1;
    uint32 uStreams = 0;
    const Json jList = p->is_array() ? *p : Json::array({*p});
    for (const Json& jName : jList)
    {
        const auto it =
            std::find_if(std::begin(c_aStreamNames), std::end(c_aStreamNames),
                         [&](const char* pszName) { return jName.is_string() && jName == pszName; });
        if (it == std::end(c_aStreamNames))
            Wrong(s.Where("streams"),
                  fmt::format("expected {}, got {}", fmt::join(c_aStreamNames, ", "), jName.dump()));
        uStreams |= 1u << (it - std::begin(c_aStreamNames));
    }
    return uStreams;
}

tagSimDeed ParseDeed(const Json& j, const std::string& strPath)
{
    static const char* const c_aDeeds[] = {"join", "leave", "mute", "unmute"};
    CSection s(j, strPath);
    tagSimDeed st;
    std::string strDeed;
    st.llAtUs = -1;
    s.Seconds("at_s", st.llAtUs, 0, c_dLongest);
    s.Text("do", strDeed);
    st.uStreams = StreamsNamed(s);
    s.NothingElse();
    const auto it = std::find(std::begin(c_aDeeds), std::end(c_aDeeds), strDeed);
    if (it == std::end(c_aDeeds))
        Wrong(s.Where("do"), fmt::format("expected join, leave, mute or unmute, got \"{}\"", strDeed));
    if (st.llAtUs < 0)
        Wrong(s.Where("at_s"), "expected the second at which it happens");
    st.eDeed = (emSimDeed)(it - std::begin(c_aDeeds));
    return st;
}

tagSimUsers ParseUsers(const Json& j, const std::string& strPath)
{
    CSection s(j, strPath);
    tagSimUsers st;
    s.Whole("count", st.uCount, 1, c_uMostUsers);
    s.Text("name", st.strName);
    s.Number("skew_ppm", st.dSkewPpm, -10000, 10000);
    s.Number("skew_spread_ppm", st.dSkewSpreadPpm, 0, 10000);
    s.Seconds("join_s", st.llJoinUs, 0, c_dLongest);
    s.Seconds("join_every_s", st.llJoinEveryUs, 0, c_dLongest);
    s.Seconds("leave_s", st.llLeaveUs, 0, c_dLongest);
    s.Flag("restart", st.bRestart);
    ParseAudio(s.Find("audio"), s.Where("audio"), st.stAudio);

    // What is usual for each kind of picture.
    st.aVideo[SIM_SMALL].uKbps = 150;
    st.aVideo[SIM_SUB].uKbps = 500;
    st.aVideo[SIM_SHARE].uKbps = 300;
    st.aVideo[SIM_SHARE].dFps = 5;
    st.aVideo[SIM_SHARE].uGop = 50;
    for (int i = SIM_BIG; i < SIM_STREAMS; i++)
        ParseVideo(s.Find(c_aStreamNames[i]), s.Where(c_aStreamNames[i]), st.aVideo[(size_t)i]);

    if (const Json* p = s.Find("first"))
    {
        CSection f(*p, s.Where("first"));
        f.Whole("seq", st.stFirst.dwSeq, 0, 0xFFFFFFFFu);
        f.Whole("gop", st.stFirst.cGop, 0, 255);
        f.Whole("media_ms", st.stFirst.dwMediaMs, 0, 0xFFFFFFFFu);
        f.Whole("transport_ms", st.stFirst.wTransportMs, 0, 65535);
        f.NothingElse();
    }
    if (const Json* p = s.Find("events"))
    {
        if (!p->is_array())
            Wrong(s.Where("events"), "expected [{\"at_s\": ..., \"do\": ...}, ...]");
        for (size_t i = 0; i < p->size(); i++)
            st.vecDeeds.push_back(ParseDeed((*p)[i], fmt::format("{}.events.{}", strPath, i)));
        std::stable_sort(st.vecDeeds.begin(), st.vecDeeds.end(),
                         [](const tagSimDeed& a, const tagSimDeed& b) { return a.llAtUs < b.llAtUs; });
    }
    s.NothingElse();
    return st;
}

void ParseReceiver(const Json* pJson, tagSimReceiver& st)
{
    if (!pJson)
        return;
    CSection s(*pJson, "receiver");
    std::string strMode = "default";
    s.Text("mode", strMode);
    if (strMode != "default" && strMode != "low-latency")
        Wrong(s.Where("mode"), fmt::format("expected default or low-latency, got \"{}\"", strMode));
    st.bLowLatency = strMode == "low-latency";
    s.Whole("play_delay_ms", st.uPlayDelayMs, 0, 10000);
    s.Ms("turn_ms", st.llTurnUs, 1, 1000);
    s.Seconds("join_s", st.llJoinUs, 0, c_dLongest);
    s.Whole("timeline_ms", st.uTimelineMs, 1, 65535);
    s.Whole("timeline_max_ms", st.uTimelineMaxMs, 1, 65535);
    s.Whole("first_request_ms", st.uFirstRequestMs, 1, 65535);
    s.Whole("next_request_ms", st.uNextRequestMs, 1, 65535);
    s.Flag("requests", st.bRequests);
    s.Ms("rtt_every_ms", st.llRttEveryUs, 0, 1e6);
    s.Ms("poll_every_ms", st.llPollEveryUs, 0, 1e6);
    s.Whole("first_tick", st.ullFirstTick, 0, 0xFFFFFFFFFFFFull);
    s.NothingElse();
}

void ParseRelay(const Json* pJson, tagSimRelay& st)
{
    if (!pJson)
        return;
    CSection s(*pJson, "relay");
    s.Whole("push_gops", st.uPushGops, 0, 30);
    s.Number("push_kbps", st.dPushKbps, 0, 1e8);
    s.Ms("history_ms", st.llHistoryUs, 0, 30000);
    s.Flag("answer", st.bAnswer);
    s.Flag("pass_on", st.bPassOn);
    s.Whole("first_down_seq", st.dwFirstDownSeq, 0, 0xFFFFFFFFu);
    s.Whole("request_records", st.uRecords, 1, 1000);
    s.NothingElse();
}

} // namespace

const char* SimStreamName(int nStream) { return c_aStreamNames[nStream]; }
uint8 SimStreamSubType(int nStream) { return c_aSubTypes[nStream]; }

Json DefaultScenario()
{
    return Json::parse(R"({"users": [{"count": 4, "audio": {"kbps": 40}, "video": {"kbps": 1000}}],
                           "up": {"delay_ms": 10}, "down": {"delay_ms": 20},
                           "request": {"delay_ms": 20}, "back": {"delay_ms": 10}})");
}

bool ReadScenarioFile(const std::string& strPath, Json& j, std::string& strError)
{
    std::ifstream file(strPath);
    const std::string strText((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
    if (!file || file.bad())
    {
        strError = fmt::format("{}: cannot be read: {}", strPath, strerror(errno ? errno : EIO));
        return false;
    }
    try
    {
        j = Json::parse(strText, nullptr, true, true); // comments are welcome
        return true;
    }
    catch (const Json::parse_error& e)
    {
        const size_t nEnd = std::min<size_t>(e.byte, strText.size());
        const size_t nLine =
            1 + (size_t)std::count(strText.begin(), strText.begin() + (long)(nEnd ? nEnd - 1 : 0), '\n');
        std::string strWhat = e.what();
        const size_t nColon = strWhat.rfind(": syntax error");
        if (nColon != std::string::npos)
            strWhat = strWhat.substr(nColon + 2);
        std::replace(strWhat.begin(), strWhat.end(), '\n', ' ');
        strError = fmt::format("{}:{}: {}", strPath, nLine, strWhat);
        return false;
    }
}

bool SetScenarioOption(Json& j, const std::string& strPath, const std::string& strValue,
                       std::string& strError)
{
    Json jValue = Json::parse(strValue, nullptr, false);
    if (jValue.is_discarded())
        jValue = strValue;
    const size_t nDot = strPath.find('.');
    const std::string strKey = strPath.substr(0, nDot);
    if (strKey.empty())
    {
        strError = fmt::format("expected names with dots between them, got \"{}\"", strPath);
        return false;
    }
    if (j.is_array())
    {
        if (strKey.find_first_not_of("0123456789") != std::string::npos)
        {
            bool bOk = true; // a name: every element
            for (Json& jElement : j)
                bOk = bOk && SetScenarioOption(jElement, strPath, strValue, strError);
            return bOk;
        }
        const size_t n = strKey.size() < 6 ? (size_t)std::stoul(strKey) : j.size();
        if (n >= j.size())
        {
            strError = fmt::format("there are {} elements, got \"{}\"", j.size(), strKey);
            return false;
        }
        if (nDot != std::string::npos)
            return SetScenarioOption(j[n], strPath.substr(nDot + 1), strValue, strError);
        j[n] = jValue;
        return true;
    }
    // "video": true and the like give way to their options.
    if (!j.is_object())
        j = Json::object();
    if (nDot != std::string::npos)
        return SetScenarioOption(j[strKey], strPath.substr(nDot + 1), strValue, strError);
    j[strKey] = jValue;
    return true;
}

bool ParseScenario(const Json& j, const std::string& strFolder, tagScenario& st, std::string& strError)
try
{
    CSection s(j, "");
    s.Text("name", st.strName);
    s.Text("about", st.strAbout);
    s.Whole("seed", st.ullSeed, 0, UINT64_MAX);
    s.Seconds("seconds", st.llDurationUs, 0.1, c_dLongest);
    s.Seconds("count_from_s", st.llCountFromUs, 0, c_dLongest);
    ParseReceiver(s.Find("receiver"), st.stReceiver);
    ParseRelay(s.Find("relay"), st.stRelay);
    ParsePath(s.Find("up"), "up", TRACE_UPLINK, strFolder, st.stUp);
    ParsePath(s.Find("down"), "down", TRACE_DOWNLINK, strFolder, st.stDown);
    ParsePath(s.Find("request"), "request", TRACE_UPLINK, strFolder, st.stRequest);
    ParsePath(s.Find("back"), "back", TRACE_DOWNLINK, strFolder, st.stBack);
    const Json* pUsers = s.Find("users");
    if (!pUsers || !pUsers->is_array() || pUsers->empty())
        Wrong("users", "expected [{...}, ...], one group of users at least");
    uint32 uCount = 0;
    for (size_t i = 0; i < pUsers->size(); i++)
    {
        st.vecUsers.push_back(ParseUsers((*pUsers)[i], fmt::format("users.{}", i)));
        uCount += st.vecUsers.back().uCount;
    }
    if (uCount > c_uMostUsers)
        Wrong("users", fmt::format("expected at most {} users in all, got {}", c_uMostUsers, uCount));
    s.NothingElse();
    return true;
}
catch (const tagWrong& e)
{
    strError = e.what();
    return false;
}
catch (const Json::exception& e)
{
    strError = fmt::format("the scenario: {}", e.what());
    return false;
}

} // namespace lab
