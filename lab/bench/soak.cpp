// Does memory stay where it was, and does every check hold, when a call lasts for days or people come and go for ever?
//
//     udtlab_soak room [--hours 72] [--wraps] [--guards]
//                                               a room of 50; the tick wraps, and all that the senders count if asked for
//     udtlab_soak churn [--accounts 1000000]    accounts that join, talk for half a second, and never come back
//
// Both run in virtual time and print a line per hour, or per twentieth of the accounts: bytes that the receiver holds, the
// mean of a sample a minute, and packets among them, beside the bytes of the whole program, whose simulation has books of
// its own. Packets themselves are the owner's; of each that is buffered the receiver has a record and a place in an index.
// How many are buffered is not for the receiver to choose: clocks that go at other speeds than ours take a user's delay to
// one end of its band, over hours. Exit code 0: every check held, every packet was given back, and what the receiver held
// beside the records of buffered packets grew by 1 % at most from the second hour to the last. What it keeps of an account
// for ever is printed by churn, not judged.

#include "Border.h"
#include "RecvRig.h"
#include "Simulate.h"

#include <CLI/CLI.hpp>
#include <fmt/format.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <new>
#include <stdexcept>

namespace
{

constexpr double c_dAllowedGrowth = 0.01;

// Before every block: how long it is, and whose.
struct alignas(16) tagBlockHead
{
    size_t nBytes;
    bool bReceivers;
};
uint64 g_ullHeld;       // bytes, one thread
uint64 g_ullOfReceiver; // of these
int64 g_llPackets;      // alive, which nearly all are that the receiver holds: others live for one call

constexpr uint64 c_ullBytesOfPacket = sizeof(tagPktNode) + sizeof(std::pair<const uint32, tagPktNode*>);

double Seconds()
{
    return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

// The number that wraps once so many hours have been sent at this pace.
uint32 WrapsAfter(double dHours, double dPerSecond)
{
    return (uint32)(0x100000000ull - (uint64)std::llround(dHours * 3600 * dPerSecond));
}

// ---- Room --------------------------------------------------------------------------------------------------------

// Two speakers, one who shares, 37 listeners who mute and unmute, ten guests who leave and come back every hour.
nlohmann::ordered_json RoomScenario(uint32 uHours, bool bWraps)
{
    typedef nlohmann::ordered_json Json;
    Json jMutes = Json::array();
    Json jVisits = Json::array();
    for (uint32 uHour = 0; uHour < uHours; ++uHour)
    {
        const uint32 uAt = uHour * 3600;
        jMutes.push_back({{"at_s", uAt + 900}, {"do", "mute"}, {"streams", "audio"}});
        jMutes.push_back({{"at_s", uAt + 1100}, {"do", "unmute"}, {"streams", "audio"}});
        jVisits.push_back({{"at_s", uAt + 2000}, {"do", "leave"}});
        jVisits.push_back({{"at_s", uAt + 2400}, {"do", "join"}});
    }
    const Json jSmall = {{"kbps", 60}, {"fps", 5}, {"gop", 10}};
    // Sound is sent 50 times a second; whatever else a user sends wraps some hours sooner or later.
    Json jFirst = Json::object();
    if (bWraps)
        jFirst = {{"seq", WrapsAfter(uHours * 0.25, 50)}, {"media_ms", WrapsAfter(uHours * 0.5, 1000)}};
    return {{"name", "soak"},
            {"seconds", uHours * 3600},
            {"receiver", {{"first_tick", WrapsAfter(uHours * 0.75, 1000)}}},
            {"relay",
             {{"push_gops", 1}, {"push_kbps", 50000}, {"first_down_seq", WrapsAfter(uHours * 0.6, 3500)}}},
            {"users",
             {{{"name", "speaker"},
               {"count", 2},
               {"audio", {{"kbps", 40}}},
               {"video", {{"kbps", 600}}},
               {"first", jFirst}},
              {{"name", "sharer"}, {"audio", {{"kbps", 40}}}, {"share", {{"kbps", 300}}}, {"first", jFirst}},
              {{"name", "listener"},
               {"count", 37},
               {"audio", {{"kbps", 24}}},
               {"small", jSmall},
               {"first", jFirst},
               {"skew_spread_ppm", 100},
               {"events", jMutes}},
              {{"name", "guest"},
               {"count", 10},
               {"audio", {{"kbps", 24}}},
               {"small", jSmall},
               {"events", jVisits}}}},
            {"up", {{"delay_ms", 15}, {"jitter_ms", 3}, {"loss_percent", 0.2}}},
            {"down", {{"delay_ms", 25}, {"jitter_ms", 5}, {"loss_percent", 0.8}, {"burst", 2}}},
            {"request", {{"delay_ms", 25}}},
            {"back", {{"delay_ms", 15}}}};
}

// The mean of each hour's samples of something.
class CHours
{
public:
    void Sample(uint32 uHour, double dBytes)
    {
        if (uHour >= m_vecHours.size())
            m_vecHours.resize(uHour + 1);
        m_vecHours[uHour].dSum += dBytes;
        ++m_vecHours[uHour].uCount;
    }
    size_t Count() const { return m_vecHours.size(); }
    double Mean(size_t nHour) const
    {
        return m_vecHours[nHour].dSum / std::max(1u, m_vecHours[nHour].uCount);
    }
    // The straight line through the hours after the first, from its beginning to its end, over the mean. A call breathes:
    // single hours differ by more than what would be a leak.
    double Growth() const
    {
        const size_t nHours = Count() - 1;
        if (Count() < 3)
            return 0;
        double dX = 0, dY = 0, dXX = 0, dXY = 0;
        for (size_t n = 1; n < Count(); ++n)
        {
            dX += (double)n;
            dY += Mean(n);
            dXX += (double)n * (double)n;
            dXY += (double)n * Mean(n);
        }
        const double dSlope = ((double)nHours * dXY - dX * dY) / ((double)nHours * dXX - dX * dX);
        return dSlope * (double)(nHours - 1) / (dY / (double)nHours);
    }
    double Most() const // of an hour after the first, over the mean of these
    {
        double dMost = 0, dSum = 0;
        for (size_t n = 1; n < Count(); ++n)
        {
            dMost = std::max(dMost, Mean(n));
            dSum += Mean(n);
        }
        return Count() < 2 ? 0 : dMost / (dSum / (double)(Count() - 1)) - 1;
    }

private:
    struct tagHour
    {
        double dSum = 0;
        uint32 uCount = 0;
    };
    std::vector<tagHour> m_vecHours;
};

// What docs/guards.md proposes to a call client.
tagUDTRecvGuards ClientGuards()
{
    tagUDTRecvGuards st;
    st.dwMaxIntakePackets = 4000;
    st.dwMaxIntakeBytes = 6000000;
    st.dwMaxStreams = 150;
    st.dwMaxAccounts = 500;
    st.dwMaxStreamPackets = 1000;
    st.dwMaxStreamHistory = 4000;
    st.dwMaxRequestsPerSecond = 500;
    st.dwMaxPullBacks = 4;
    st.dwMaxLatency = 5000;
    return st;
}

std::string GuardText(const tagUDTRecvGuardInfo& st)
{
    return fmt::format(
        "intake {} + {}, streams {}, accounts {} + {} forgotten, stream packets {}, history {}, requests {}, "
        "pull-backs {}, latency {}",
        st.dwIntakePackets, st.dwIntakeBytes, st.dwStreams, st.dwAccounts, st.dwAccountsForgot,
        st.dwStreamPackets, st.dwStreamHistory, st.dwRequests, st.dwPullBacks, st.dwLatency);
}

int Room(uint32 uHours, bool bWraps, bool bGuards)
{
    lab::tagScenario stScenario;
    std::string strError;
    if (!lab::ParseScenario(nlohmann::ordered_json::parse(RoomScenario(uHours, bWraps).dump()), ".",
                            stScenario, strError))
        throw std::runtime_error(strError);

    const double dStart = Seconds();
    CHours hours;   // all that the receiver holds
    CHours packets; // how many of them
    CHours rest;    // bytes without their records
    uint64 ullFed = 0;
    uint64 ullPlayed = 0;
    uint32 uMinute = 0;
    lab::tagSimHooks stHooks;
    CAVGUdtRecv* pRecv = nullptr;
    tagUDTRecvGuardInfo stGuards;
    stHooks.fnReady = [&](CAVGUdtRecv& recv)
    {
        pRecv = &recv;
        if (bGuards)
            recv.SetGuards(ClientGuards());
    };
    stHooks.fnFeed = [&ullFed](lab::CMediaPacket&) { ++ullFed; };
    stHooks.fnReleased = [&ullPlayed](lab::CMediaPacket&) { ++ullPlayed; };
    stHooks.fnProgress = [&](double dShare)
    {
        const uint32 uNow = (uint32)(dShare * uHours * 60);
        if (uNow == uMinute)
            return;
        uMinute = uNow;
        pRecv->GetGuardInfo(stGuards);
        const uint32 uHour = (uNow - 1) / 60;
        hours.Sample(uHour, (double)g_ullOfReceiver);
        packets.Sample(uHour, (double)g_llPackets);
        rest.Sample(uHour, (double)g_ullOfReceiver - (double)g_llPackets * c_ullBytesOfPacket);
        if (uNow % 60 == 0)
            fmt::print("{:3} h  receiver {:9.0f} bytes, {:5.0f} packets, without them {:9.0f}  all {:10}  "
                       "fed {:11}  "
                       "played {:11}  {:6.0f} s\n",
                       uNow / 60, hours.Mean(uHour), packets.Mean(uHour), rest.Mean(uHour), g_ullHeld, ullFed,
                       ullPlayed, Seconds() - dStart);
        fflush(stdout);
    };
    const lab::tagSimResult stResult = lab::RunSimulation(stScenario, stHooks);

    const lab::tagSimStreamCounts& stSum = stResult.stSum;
    fmt::print("{} h, {} packets fed, {} played, {} pull-backs\n", uHours, ullFed, ullPlayed,
               stResult.ullPullBacks);
    fmt::print("from the second hour to the last: receiver {:+.2f} %, packets {:+.2f} %, receiver without "
               "them {:+.2f} % "
               "(its fullest hour {:+.2f} %)\n",
               hours.Growth() * 100, packets.Growth() * 100, rest.Growth() * 100, rest.Most() * 100);
    fmt::print("lost {}, asked for {}, recovered in time {}\n", stSum.ullLost, stSum.ullAsked,
               stSum.ullInTime);
    for (const std::string& strLine : stResult.vecViolations)
        fmt::print("BROKEN: {}\n", strLine);
    fmt::print("guards: {}\n", GuardText(stGuards));
    fmt::print("checks: {}\n", stResult.ullBroken == 0 ? "all held" : "broken");
    return stResult.ullBroken == 0 && rest.Growth() <= c_dAllowedGrowth ? 0 : 1;
}

// ---- Churn -------------------------------------------------------------------------------------------------------

constexpr uint32 c_dwPackets = 25;      // of each
constexpr uint32 c_dwAccountMs = 10;    // a new one this often
constexpr uint32 c_dwDrainSteps = 1000; // after the last one came

int Churn(uint32 dwAccounts)
{
    const double dStart = Seconds();
    CVirtualClock clock(1000000);
    CRigOwner owner;
    uint64 ullPlayed = 0;
    owner.m_fnOnRelease = [&](const tagRelease&)
    {
        ++ullPlayed;
        owner.Forget();
    };
    {
        CAVGUdtRecv recv(&owner);
        recv.SetOwnerDriven(TRUE);
        recv.SetRoomState(3);
        recv.Start();
        uint32 dwDown = 0;
        uint64 ullBefore = 0;
        uint64 ullMost = 0;
        uint32 dwFirst = 0;
        // Account n begins at n x 10 ms and sends a packet every 20 ms.
        for (uint32 dwStep = 0; dwStep < dwAccounts + c_dwDrainSteps; ++dwStep)
        {
            clock.MoveTo(clock.Tick() + c_dwAccountMs);
            const uint32 dwOldest = dwStep < c_dwPackets * 2 ? 0 : dwStep - c_dwPackets * 2 + 2;
            for (uint32 dw = dwOldest + (dwStep - dwOldest) % 2; dw <= dwStep && dw < dwAccounts; dw += 2)
            {
                tagRigPacket st = AudioPacket(1000000 + dw, 1 + (dwStep - dw) / 2);
                st.dwDownSeq = ++dwDown;
                CRigPacket* const p = new CRigPacket(st);
                const lab::CBorder border(lab::CBorder::IN_RECEIVER);
                recv.UDTReceiveNetData(st.dwSendSeq, st.ullUin, st.dwDownSeq, st.wTimeStamp, st.cSubType, p);
                p->Release();
            }
            {
                const lab::CBorder border(lab::CBorder::IN_RECEIVER);
                recv.RunTurn();
            }
            ullMost = std::max(ullMost, g_ullOfReceiver);
            if (dwStep % std::max(1u, dwAccounts / 20) == 0)
            {
                std::vector<tagRecvChnStatInfo> vecInfo(10000);
                fmt::print("{:8} accounts  receiver {:9} bytes  {} streams  {:6.0f} s\n", dwStep,
                           g_ullOfReceiver, recv.GetRecvChnInfo(vecInfo.data(), (uint32)vecInfo.size()),
                           Seconds() - dStart);
                fflush(stdout);
            }
            if (dwStep == dwAccounts / 10)
            {
                ullBefore = g_ullOfReceiver;
                dwFirst = dwStep;
            }
        }
        fmt::print(
            "{} accounts, {} packets played; {:.1f} bytes kept for ever of each; most at any time {} bytes\n",
            dwAccounts, ullPlayed, ((double)g_ullOfReceiver - (double)ullBefore) / (dwAccounts - dwFirst),
            ullMost);
        recv.Stop();
    }
    fmt::print("packets not given back: {}\n", CRigPacket::Live());
    return CRigPacket::Live() == 0 ? 0 : 1;
}

} // namespace

void* operator new(size_t nBytes)
{
    tagBlockHead* const p = (tagBlockHead*)malloc(sizeof(tagBlockHead) + nBytes);
    if (p == nullptr)
        throw std::bad_alloc();
    *p = {nBytes, lab::t_bInReceiver};
    g_ullHeld += nBytes;
    g_ullOfReceiver += p->bReceivers ? nBytes : 0;
    g_llPackets += nBytes == sizeof(lab::CMediaPacket);
    return p + 1;
}
// Not inlined: a compiler that sees a block from new go to free takes it for a mistake.
__attribute__((noinline)) static void GiveBack(void* p) noexcept
{
    if (p == nullptr)
        return;
    tagBlockHead* const pHead = (tagBlockHead*)p - 1;
    g_ullHeld -= pHead->nBytes;
    g_ullOfReceiver -= pHead->bReceivers ? pHead->nBytes : 0;
    g_llPackets -= pHead->nBytes == sizeof(lab::CMediaPacket);
    free(pHead);
}
void operator delete(void* p) noexcept { GiveBack(p); }
void operator delete(void* p, size_t) noexcept { GiveBack(p); }

static int Main(int argc, char** argv)
{
    CLI::App app{"Days of a call, and a million accounts, in virtual time"};
    app.require_subcommand(1);
    uint32 uHours = 72;
    uint32 dwAccounts = 1000000;
    CLI::App* const pRoom = app.add_subcommand("room", "a room of 50");
    pRoom->add_option("--hours", uHours, "how long")->check(CLI::Range(1, 720));
    bool bWraps = false;
    pRoom->add_flag("--wraps", bWraps,
                    "sender sequences and media time wrap too, after a quarter and a half of the call");
    bool bGuards = false;
    pRoom->add_flag("--guards", bGuards, "with the guards of a call client");
    CLI::App* const pChurn = app.add_subcommand("churn", "accounts that come once");
    pChurn->add_option("--accounts", dwAccounts, "how many")->check(CLI::Range(100, 100000000));
    CLI11_PARSE(app, argc, argv);
    return pRoom->parsed() ? Room(uHours, bWraps, bGuards) : Churn(dwAccounts);
}

int main(int argc, char** argv)
{
    try
    {
        return Main(argc, argv);
    }
    catch (const std::exception& e)
    {
        fprintf(stderr, "udtlab_soak: %s\n", e.what());
        return 2;
    }
}
