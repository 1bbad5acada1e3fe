// In: a report. Out: sentences. Limits of what is worth a word stand at the top; they are those at which a listener
// notices, not those at which a figure moves.

#include "Verdict.h"

#include "Files.h"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <optional>
#include <vector>

namespace lab
{

namespace
{

typedef nlohmann::ordered_json Json;

constexpr double c_dFewUnplayed = 0.005;     // share of all packets: concealment hides it
constexpr uint64_t c_ullLongStall = 1000;    // ms
constexpr uint64_t c_ullLateStart = 3000;    // ms from a stream's first packet to its first release
constexpr int64_t c_llSettle = 5000;         // ms in which playout builds its buffer
constexpr int64_t c_llLeastGrowth = 500;     // ms of latency
constexpr int64_t c_llMuchGrowth = 2000;     // ms of latency
constexpr int64_t c_llOutOfStep = 60;        // ms between picture and sound, on average
constexpr int64_t c_llBadlyOutOfStep = 125;  // likewise
constexpr int64_t c_llMomentOutOfStep = 300; // ms, for a moment
constexpr size_t c_nUsersNamed = 3;          // for one kind of finding

uint64_t Number(const Json& j, const char* pszName)
{
    const auto it = j.find(pszName);
    return it != j.end() && it->is_number() && it->get<double>() > 0 ? it->get<uint64_t>() : 0;
}

std::optional<uint64_t> Known(const Json& j, const char* pszName)
{
    const auto it = j.find(pszName);
    if (it == j.end() || !it->is_number() || it->get<double>() < 0)
        return {};
    return it->get<uint64_t>();
}

std::string Text(const Json& j, const char* pszName)
{
    const auto it = j.find(pszName);
    return it != j.end() && it->is_string() ? it->get<std::string>() : std::string();
}

const Json& Part(const Json& j, const char* pszName)
{
    static const Json c_jNone = Json::array();
    const auto it = j.find(pszName);
    return it != j.end() && it->is_array() ? *it : c_jNone;
}

// Never "0 %" of something and never "100 %" of less than all.
std::string Portion(uint64_t ullPart, uint64_t ullWhole)
{
    const double d = ullWhole != 0 ? 100.0 * (double)ullPart / (double)ullWhole : 0;
    if (ullPart != 0 && d < 0.1)
        return "less than 0.1 %";
    if (ullPart != ullWhole && d > 99.9)
        return "more than 99.9 %";
    if (ullPart == ullWhole)
        return "100 %";
    return d < 10 || d > 99 ? fmt::format("{:.1f} %", d) : fmt::format("{:.0f} %", d);
}

std::string Times(uint64_t ull)
{
    return ull == 1 ? "once" : ull == 2 ? "twice" : fmt::format("{} times", ull);
}

struct tagStills
{
    uint64_t ullCount = 0;
    uint64_t ullLongest = 0;
    std::optional<uint64_t> ullLongestAt;
};

struct tagStreamTotals
{
    std::string strUser;  // its id
    std::string strLabel; // "alice, audio"
    uint64_t ullIn, ullOut, ullExpected, ullLost, ullInTime, ullLate, ullNever, ullAsked, ullAskedOnce,
        ullAnswered;
    std::optional<uint64_t> ullWasted, ullFirstIn, ullFirstOut;
    tagStills stStalls, stHoles;
};

class CVerdict
{
public:
    explicit CVerdict(const Json& jReport) : m_j(jReport) { Gather(); }
    Json Make();

private:
    void Gather();
    void Say(const char* pszLevel, const std::string& strText, std::optional<uint64_t> ullAt = {},
             const std::string& strUser = "");
    void SayLoss();
    void SayUserLoss(uint64_t ullLost, uint64_t ullExpected);
    void SayStills(const char* pszOne, const char* pszMany, const char* pszOf,
                   tagStills tagStreamTotals::*pStills);
    void SayStart();
    void SayLatency();
    void SayStep();
    void SayRequests();
    void SayEvents();
    std::string UserName(const std::string& strId) const;
    std::string WithUser(const std::string& strId) const
    {
        return Part(m_j, "users").size() > 1 ? fmt::format(" ({})", UserName(strId)) : std::string();
    }
    std::vector<std::optional<double>> Series(const std::string& strOf, const char* pszName) const;
    size_t BinsWithPackets(const Json& jUser) const;
    uint64_t BinAt(size_t n) const { return m_ullStart + n * m_ullBin; }

    const Json& m_j;
    Json m_jOut = Json::array();
    std::vector<tagStreamTotals> m_vec;
    uint64_t m_ullBin = 100;
    uint64_t m_ullStart = 0;
    bool m_bWrong = false;
    bool m_bStep = false; // picture and sound were compared, and are in step
};

void CVerdict::Say(const char* pszLevel, const std::string& strText, std::optional<uint64_t> ullAt,
                   const std::string& strUser)
{
    Json j;
    j["level"] = pszLevel;
    j["text"] = strText;
    j["t"] = ullAt ? Json(*ullAt) : Json();
    j["user"] = strUser.empty() ? Json() : Json(strUser);
    m_jOut.push_back(std::move(j));
    m_bWrong = m_bWrong || std::string(pszLevel) != "good";
}

std::string CVerdict::UserName(const std::string& strId) const
{
    for (const Json& j : Part(m_j, "users"))
        if (Text(j, "id") == strId)
            return Text(j, "name").empty() ? strId : Text(j, "name");
    return strId;
}

std::vector<std::optional<double>> CVerdict::Series(const std::string& strOf, const char* pszName) const
{
    std::vector<std::optional<double>> vec;
    for (const Json& j : Part(m_j, "series"))
    {
        if (Text(j, "of") != strOf || Text(j, "name") != pszName)
            continue;
        for (const Json& jV : Part(j, "v"))
            vec.push_back(jV.is_number() ? std::optional<double>(jV.get<double>()) : std::nullopt);
        break;
    }
    return vec;
}

// Up to the last bin in which a packet of the user came.
size_t CVerdict::BinsWithPackets(const Json& jUser) const
{
    size_t nLast = 0;
    bool bKnown = false;
    for (const Json& jStream : Part(jUser, "streams"))
    {
        const auto vec = Series(jStream.is_string() ? jStream.get<std::string>() : "", "packetsIn");
        bKnown = bKnown || !vec.empty();
        for (size_t i = 0; i < vec.size(); i++)
            if (vec[i] && *vec[i] > 0)
                nLast = std::max(nLast, i + 1);
    }
    return bKnown ? nLast : SIZE_MAX;
}

void CVerdict::Gather()
{
    if (const auto it = m_j.find("bins"); it != m_j.end() && it->is_object())
    {
        m_ullBin = std::max<uint64_t>(1, Number(*it, "ms"));
        m_ullStart = Number(*it, "start");
    }
    const bool bOne = Part(m_j, "users").size() <= 1;
    for (const Json& j : Part(m_j, "totals"))
    {
        tagStreamTotals st;
        for (const Json& jStream : Part(m_j, "streams"))
        {
            if (Text(jStream, "id") != Text(j, "of"))
                continue;
            st.strUser = Text(jStream, "user");
            st.strLabel = bOne ? Text(jStream, "name") : UserName(st.strUser) + ", " + Text(jStream, "name");
        }
        st.ullIn = Number(j, "packetsIn");
        st.ullOut = Number(j, "packetsOut");
        st.ullExpected = Number(j, "expected");
        st.ullLost = Number(j, "lost");
        st.ullInTime = Number(j, "repairedInTime");
        st.ullLate = Number(j, "repairedLate");
        st.ullNever = Number(j, "unrepaired");
        st.stStalls = {Number(j, "stalls"), Number(j, "longestStallMs"), Known(j, "longestStallAt")};
        st.stHoles = {Number(j, "holes"), Number(j, "longestHoleMs"), Known(j, "longestHoleAt")};
        st.ullAsked = Number(j, "requested");
        st.ullAskedOnce = Number(j, "requestedPackets");
        st.ullAnswered = Number(j, "answered");
        st.ullWasted = Known(j, "requestsWasted");
        st.ullFirstIn = Known(j, "firstIn");
        st.ullFirstOut = Known(j, "firstOut");
        m_vec.push_back(st);
    }
}

// "4.1 % lost, 97 % of it repaired in time, 1.0 % too late, 2.0 % never"
std::string LossText(uint64_t ullExpected, uint64_t ullLost, uint64_t ullInTime, uint64_t ullLate,
                     uint64_t ullNever)
{
    std::string str = Portion(ullLost, ullExpected) + " lost, ";
    if (ullInTime == ullLost)
        return str + "all of it repaired in time";
    if (ullInTime == 0 && ullLate == 0)
        return str + "none of it repaired";
    str += (ullInTime == 0 ? std::string("none") : Portion(ullInTime, ullLost)) + " of it repaired in time";
    if (ullLate != 0)
        str += ", " + Portion(ullLate, ullLost) + " too late";
    if (ullNever != 0)
        str += ", " + Portion(ullNever, ullLost) + " never";
    return str;
}

void CVerdict::SayLoss()
{
    uint64_t ullExpected = 0, ullLost = 0, ullInTime = 0, ullLate = 0, ullNever = 0;
    for (const tagStreamTotals& st : m_vec)
    {
        ullExpected += st.ullExpected;
        ullLost += st.ullLost;
        ullInTime += st.ullInTime;
        ullLate += st.ullLate;
        ullNever += st.ullNever;
    }
    if (ullLost == 0)
        return Say("good", "nothing lost");
    const uint64_t ullUnplayed = ullLate + ullNever;
    const bool bFew = (double)ullUnplayed <= c_dFewUnplayed * (double)ullExpected;
    Say(ullUnplayed == 0 ? "good"
        : bFew           ? "note"
                         : "bad",
        LossText(ullExpected, ullLost, ullInTime, ullLate, ullNever));
    SayUserLoss(ullLost, ullExpected);
}

// A user who fared much worse than the rest is named.
void CVerdict::SayUserLoss(uint64_t ullLost, uint64_t ullExpected)
{
    if (Part(m_j, "users").size() < 2)
        return;
    struct tagWorst
    {
        double dShare;
        std::string strUser, strText;
    };
    std::vector<tagWorst> vec;
    for (const Json& jUser : Part(m_j, "users"))
    {
        uint64_t e = 0, l = 0, i = 0, late = 0, n = 0;
        for (const tagStreamTotals& st : m_vec)
        {
            if (st.strUser != Text(jUser, "id"))
                continue;
            e += st.ullExpected, l += st.ullLost, i += st.ullInTime, late += st.ullLate, n += st.ullNever;
        }
        const double dShare = e != 0 ? (double)l / (double)e : 0;
        if (dShare >= 0.01 && dShare >= 2 * (double)ullLost / (double)ullExpected)
            vec.push_back({dShare, Text(jUser, "id"), LossText(e, l, i, late, n)});
    }
    std::stable_sort(vec.begin(), vec.end(),
                     [](const tagWorst& a, const tagWorst& b) { return a.dShare > b.dShare; });
    for (size_t n = 0; n < vec.size() && n < c_nUsersNamed; n++)
        Say("note", fmt::format("{}: {}", UserName(vec[n].strUser), vec[n].strText), {}, vec[n].strUser);
}

// "3 stalls over 200 ms, the longest 1.2 s at 00:41 (alice, audio)"
void CVerdict::SayStills(const char* pszOne, const char* pszMany, const char* pszOf,
                         tagStills tagStreamTotals::*pStills)
{
    uint64_t ullCount = 0;
    const tagStreamTotals* pLongest = nullptr;
    for (const tagStreamTotals& st : m_vec)
    {
        ullCount += (st.*pStills).ullCount;
        if ((st.*pStills).ullCount != 0 &&
            (!pLongest || (st.*pStills).ullLongest > (pLongest->*pStills).ullLongest))
            pLongest = &st;
    }
    if (!pLongest)
        return;
    const tagStills& stStills = pLongest->*pStills;
    const std::string strWhere = (stStills.ullLongestAt ? " at " + ClockText(*stStills.ullLongestAt) : "") +
                                 (pLongest->strLabel.empty() ? "" : fmt::format(" ({})", pLongest->strLabel));
    const std::string strLongest = SpanText(stStills.ullLongest) + strWhere;
    Say(stStills.ullLongest >= c_ullLongStall ? "bad" : "note",
        ullCount == 1
            ? fmt::format("1 {} over 200 ms{}: {}", pszOne, pszOf, strLongest)
            : fmt::format("{} {} over 200 ms{}, the longest {}", ullCount, pszMany, pszOf, strLongest),
        stStills.ullLongestAt, pLongest->strUser);
}

void CVerdict::SayStart()
{
    std::vector<const tagStreamTotals*> vecSilent;
    const tagStreamTotals* pLatest = nullptr;
    for (const tagStreamTotals& st : m_vec)
    {
        if (st.ullIn != 0 && st.ullOut == 0)
            vecSilent.push_back(&st);
        if (!st.ullFirstIn || !st.ullFirstOut || *st.ullFirstOut < *st.ullFirstIn + c_ullLateStart)
            continue;
        if (!pLatest || *st.ullFirstOut - *st.ullFirstIn > *pLatest->ullFirstOut - *pLatest->ullFirstIn)
            pLatest = &st;
    }
    if (vecSilent.size() > c_nUsersNamed)
        Say("bad", fmt::format("nothing was played of {} streams", vecSilent.size()));
    else
        for (const tagStreamTotals* p : vecSilent)
            Say("bad",
                p->strLabel.empty() ? "nothing was played"
                                    : fmt::format("nothing was played of {}", p->strLabel),
                p->ullFirstIn, p->strUser);
    if (pLatest)
        Say("note",
            fmt::format("playout began {} after the first packet{}",
                        SpanText(*pLatest->ullFirstOut - *pLatest->ullFirstIn),
                        pLatest->strLabel.empty() ? "" : fmt::format(" ({})", pLatest->strLabel)),
            pLatest->ullFirstOut, pLatest->strUser);
}

// Above what it settled at: the lower quartile, once playout has built its buffer.
void CVerdict::SayLatency()
{
    struct tagGrowth
    {
        int64_t llGrowth;
        uint64_t ullAt;
        std::string strUser, strText;
    };
    std::vector<tagGrowth> vec;
    for (const Json& jUser : Part(m_j, "users"))
    {
        const std::string strUser = Text(jUser, "id");
        auto vecV = Series(strUser, "latency");
        vecV.resize(std::min(vecV.size(), BinsWithPackets(jUser))); // then the clock runs on alone
        std::vector<std::pair<uint64_t, int64_t>> vecKnown;         // settled
        std::optional<uint64_t> ullFirst;
        for (size_t i = 0; i < vecV.size(); i++)
        {
            if (!vecV[i])
                continue;
            ullFirst = ullFirst.value_or(BinAt(i));
            if (BinAt(i) >= *ullFirst + (uint64_t)c_llSettle)
                vecKnown.emplace_back(BinAt(i), std::llround(*vecV[i]));
        }
        if (vecKnown.size() * m_ullBin < 3000)
            continue;
        std::vector<int64_t> vecSorted;
        vecSorted.reserve(vecKnown.size());
        for (const auto& st : vecKnown)
            vecSorted.push_back(st.second);
        std::nth_element(vecSorted.begin(), vecSorted.begin() + (ptrdiff_t)(vecSorted.size() / 4),
                         vecSorted.end());
        const int64_t llUsual = vecSorted[vecSorted.size() / 4];
        const auto itPeak =
            std::max_element(vecKnown.begin(), vecKnown.end(),
                             [](const auto& a, const auto& b) { return a.second < b.second; });
        const int64_t llGrowth = itPeak->second - llUsual;
        if (llGrowth <= std::max(c_llLeastGrowth, llUsual / 2))
            continue;
        const int64_t llCalm = llUsual + std::max<int64_t>(c_llLeastGrowth / 2, llUsual / 4);
        const auto itBack =
            std::find_if(itPeak, vecKnown.end(), [llCalm](const auto& st) { return st.second <= llCalm; });
        const std::string strBack =
            itBack == vecKnown.end()
                ? std::string(vecKnown.back().first - itPeak->first > 2 * m_ullBin
                                  ? "did not come back"
                                  : "was still growing at the end")
                : fmt::format("needed {} to come back", SpanText(itBack->first - itPeak->first));
        vec.push_back({llGrowth, itPeak->first, strUser,
                       fmt::format("latency grew from {} to {} at {} and {}{}",
                                   SpanText((uint64_t)std::max<int64_t>(0, llUsual)),
                                   SpanText((uint64_t)std::max<int64_t>(0, itPeak->second)),
                                   ClockText(itPeak->first), strBack, WithUser(strUser))});
    }
    std::stable_sort(vec.begin(), vec.end(),
                     [](const tagGrowth& a, const tagGrowth& b) { return a.llGrowth > b.llGrowth; });
    for (size_t i = 0; i < vec.size() && i < c_nUsersNamed; i++)
        Say(vec[i].llGrowth >= c_llMuchGrowth ? "bad" : "note", vec[i].strText, vec[i].ullAt, vec[i].strUser);
    if (vec.size() > c_nUsersNamed)
        Say("note", fmt::format("latency grew for {} more users", vec.size() - c_nUsersNamed));
}

void CVerdict::SayStep()
{
    struct tagOff
    {
        int64_t llMs; // how far, for the order
        const char* pszLevel;
        std::string strUser, strText;
        std::optional<uint64_t> ullAt;
    };
    std::vector<tagOff> vec;
    for (const Json& jUser : Part(m_j, "users"))
    {
        const std::string strUser = Text(jUser, "id");
        const auto vecV = Series(strUser, "avOffset");
        double dSum = 0;
        size_t nKnown = 0;
        size_t nWorst = 0;
        for (size_t i = 0; i < vecV.size(); i++)
        {
            if (!vecV[i])
                continue;
            if (nKnown == 0 || std::fabs(*vecV[i]) > std::fabs(*vecV[nWorst]))
                nWorst = i;
            dSum += *vecV[i];
            nKnown++;
        }
        if (nKnown == 0)
            continue;
        m_bStep = true;
        const int64_t llMean = std::llround(dSum / (double)nKnown);
        const int64_t llWorst = std::llround(*vecV[nWorst]);
        const auto Side = [](int64_t ll) { return ll > 0 ? "behind" : "ahead of"; };
        if (std::abs(llMean) > c_llOutOfStep)
            vec.push_back({std::abs(llMean),
                           std::abs(llMean) > c_llBadlyOutOfStep ? "bad" : "note",
                           strUser,
                           fmt::format("picture {} {} the sound on average{}",
                                       SpanText((uint64_t)std::abs(llMean)), Side(llMean), WithUser(strUser)),
                           {}});
        else if (std::abs(llWorst) > c_llMomentOutOfStep)
            vec.push_back(
                {std::abs(llWorst) / 10, "note", strUser,
                 fmt::format("picture up to {} {} the sound at {}{}", SpanText((uint64_t)std::abs(llWorst)),
                             Side(llWorst), ClockText(BinAt(nWorst)), WithUser(strUser)),
                 BinAt(nWorst)});
    }
    std::stable_sort(vec.begin(), vec.end(),
                     [](const tagOff& a, const tagOff& b) { return a.llMs > b.llMs; });
    for (size_t i = 0; i < vec.size() && i < c_nUsersNamed; i++)
        Say(vec[i].pszLevel, vec[i].strText, vec[i].ullAt, vec[i].strUser);
    if (vec.size() > c_nUsersNamed)
        Say("note",
            fmt::format("picture and sound were apart for {} more users", vec.size() - c_nUsersNamed));
    m_bStep = m_bStep && vec.empty();
}

void CVerdict::SayRequests()
{
    uint64_t ullAsked = 0, ullWasted = 0, ullOnce = 0, ullAnswered = 0;
    for (const tagStreamTotals& st : m_vec)
    {
        ullOnce += st.ullAskedOnce;
        ullAnswered += st.ullAnswered;
        if (!st.ullWasted)
            continue;
        ullAsked += st.ullAsked;
        ullWasted += *st.ullWasted;
    }
    if (ullWasted >= 10 && ullWasted * 10 > ullAsked)
        Say("note", fmt::format("{} of {} loss requests ({}) were for packets that came by themselves",
                                ullWasted, ullAsked, Portion(ullWasted, ullAsked)));
    if (ullOnce < 10 || ullAnswered * 2 >= ullOnce)
        return;
    const auto itRun = m_j.find("run");
    const bool bReplay = itRun != m_j.end() && Text(*itRun, "kind") == "replay";
    Say("note",
        fmt::format("{} of the {} packets asked for came{}",
                    ullAnswered == 0 ? std::string("none") : fmt::format("only {}", ullAnswered), ullOnce,
                    bReplay ? ": a capture cannot answer, it holds the answers of its own time" : ""));
}

void CVerdict::SayEvents()
{
    const struct
    {
        const char* pszKind;
        const char* pszText;
    } aKinds[] = {
        {"pullBack", "playout was pulled back"},
        {"jump", "playout jumped over a hole in the media time"},
        {"restart", "a sender began to number anew"},
    };
    for (const auto& stKind : aKinds)
    {
        uint64_t ullCount = 0;
        const Json* pFirst = nullptr;
        for (const Json& j : Part(m_j, "events"))
        {
            if (Text(j, "kind") != stKind.pszKind)
                continue;
            pFirst = pFirst ? pFirst : &j;
            ullCount++;
        }
        if (!pFirst)
            continue;
        const uint64_t ullAt = Number(*pFirst, "t");
        Say("note",
            fmt::format("{} {}, {}at {}", stKind.pszText, Times(ullCount), ullCount > 1 ? "first " : "",
                        ClockText(ullAt)),
            ullAt);
    }
}

Json CVerdict::Make()
{
    uint64_t ullIn = 0;
    for (const tagStreamTotals& st : m_vec)
        ullIn += st.ullIn;
    if (ullIn == 0)
    {
        Say("bad", "no packet came");
        return m_jOut;
    }
    SayLoss();
    SayStills("stall", "stalls", "", &tagStreamTotals::stStalls);
    SayStills("hole", "holes", " where packets never came", &tagStreamTotals::stHoles);
    SayStart();
    SayLatency();
    SayStep();
    SayRequests();
    SayEvents();
    if (!m_bWrong)
    {
        Json j = std::move(m_jOut);
        m_jOut = Json::array();
        Say("good", fmt::format("nothing wrong: no stall or hole over 200 ms, latency steady{}",
                                m_bStep ? ", picture and sound in step" : ""));
        for (Json& jSaid : j)
            m_jOut.push_back(std::move(jSaid));
    }
    return m_jOut;
}

} // namespace

std::string ClockText(uint64_t ullMs)
{
    const uint64_t s = ullMs / 1000;
    return s < 3600 ? fmt::format("{:02}:{:02}", s / 60, s % 60)
                    : fmt::format("{}:{:02}:{:02}", s / 3600, s / 60 % 60, s % 60);
}

std::string SpanText(uint64_t ullMs)
{
    if (ullMs < 1000)
        return fmt::format("{} ms", ullMs);
    if (ullMs < 9950)
        return fmt::format("{:.1f} s", (double)ullMs / 1000.0);
    return ullMs < 180000 ? fmt::format("{} s", (ullMs + 500) / 1000)
                          : fmt::format("{} min", (ullMs + 30000) / 60000);
}

void AddBrokenChecks(Json& jReport, uint64_t ullBroken, const std::vector<std::string>& vecViolations)
{
    Json j;
    j["level"] = "bad";
    j["text"] = fmt::format("{} checks of the receiver's behaviour were broken; the first: {}", ullBroken,
                            vecViolations.empty() ? "?" : vecViolations.front());
    j["t"] = nullptr;
    j["user"] = nullptr;
    jReport["verdict"].insert(jReport["verdict"].begin(), std::move(j));
}

std::string VerdictText(const nlohmann::ordered_json& jReport)
{
    std::string str;
    for (const Json& j : Part(jReport, "verdict"))
    {
        const std::string strLevel = Text(j, "level");
        str += strLevel == "bad" ? "! " : strLevel == "note" ? "~ " : "  ";
        str += Printable(Text(j, "text"), 400) + "\n";
    }
    return str;
}

nlohmann::ordered_json MakeVerdict(const nlohmann::ordered_json& jReport) { return CVerdict(jReport).Make(); }

} // namespace lab
