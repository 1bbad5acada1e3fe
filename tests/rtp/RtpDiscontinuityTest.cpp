/// Senders that break their own continuity, through the RTP intake and a receiver in virtual time: how long is
/// nothing heard or seen after the sender is back, what is lost, and does everything come back to what it was?
///
/// A user sends Opus (20 ms) and H.264-like video (25 pictures a second, a key frame every 2 s) for 30 s, the event
/// happens, and he goes on for 30 s. Every packet carries the instant at which it was made, so delay and picture
/// against sound are measured by the truth and not by what the intake made of timestamps.
#include <gmock/gmock.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <sstream>

#include "CaptureReader.h"
#include "LabRun.h"
#include "RtpIntake.h"
#include "RtpMaker.h"
#include "RtpSource.h"
#include "RunLoop.h"

namespace
{
const int64_t c_llEventMs = 30000;
const int64_t c_llBeyondMs = 30000; // after the event's own length
const int64_t c_llWatchMs = 20000;  // mute is looked for this long after the sender is back

// A little more than a network does when it does nothing: 40 ms, and up to 8 ms of jitter.
uint32 Noise(uint32 dwSeed)
{
    dwSeed = (dwSeed ^ 61) ^ (dwSeed >> 16);
    dwSeed *= 9;
    dwSeed ^= dwSeed >> 4;
    dwSeed *= 0x27d4eb2d;
    return dwSeed ^ (dwSeed >> 15);
}

// How a sender numbers what it sends. An event changes it.
struct tagSender
{
    bool bVideo = false;
    uint32 dwSsrc = 0;
    uint8 cPt = 0;
    uint32 dwClock = 0;
    uint32 dwSeq = 0;
    int64_t llTsShiftMs = 0;
    double dPpm = 0;
};

struct tagRow
{
    const char* pszName;
    std::function<void(tagSender&)> fnEvent; // at c_llEventMs
    int64_t llAbsentMs;                      // sends nothing for so long
    std::function<int64_t(int64_t)> fnDelay; // more delay for what is sent at this time
    // Limits, of both modes.
    int64_t llMuteMs;   // without a release after the sender is back
    uint64 ullUnplayed; // packets that arrived and were never played, of audio and of video
    double dDelayMs;    // audio's delay at the end against that before the event, either way; 0: anything
    double dAvMs;       // the same of picture against sound
    int nRestarts;      // that the intake tells, of audio and video together
};

struct tagMeasured
{
    int64_t llMuteMs[2] = {0, 0}; // audio, video
    double dDelayBefore[2] = {0, 0};
    double dDelayAfter[2] = {0, 0};
    double dAvBefore = 0;
    double dAvAfter = 0;
    uint64 ullUnplayed[2] = {0, 0};
    uint64 ullRestarts = 0;
    std::vector<std::string> vecBroken;
};

struct tagPacketTruth
{
    int64_t llMadeMs = 0;
    int64_t llArrivalUs = 0;
    bool bVideo = false;
    Bytes bytes;
};

int64_t Arrival(const tagRow& row, int64_t llMadeMs, uint32 dwNoise, int64_t llLast)
{
    const int64_t llExtra = row.fnDelay ? row.fnDelay(llMadeMs) : 0;
    const int64_t llUs = (llMadeMs + 40 + llExtra) * 1000 + dwNoise % 8000;
    return std::max(llUs, llLast + 20); // in order, as one path delivers
}

// All that is sent, in order of arrival.
std::vector<tagPacketTruth> MakeCall(const tagRow& row)
{
    std::vector<tagPacketTruth> vec;
    tagSender audio{false, 0xA0D10, 111, 48000, 4000, 1000, 0};
    tagSender video{true, 0x71DE0, 96, 90000, 9000, 5000, 0};
    const int64_t llEndMs = c_llEventMs + row.llAbsentMs + c_llBeyondMs;
    bool bHappened = false;
    int64_t llLastUs[2] = {0, 0};
    uint32 dwNoise = 1;
    uint32 dwTag = 0;
    for (int64_t llMs = 0; llMs < llEndMs; llMs += 20)
    {
        if (!bHappened && llMs >= c_llEventMs)
        {
            bHappened = true;
            if (row.fnEvent)
            {
                row.fnEvent(audio);
                row.fnEvent(video);
            }
        }
        if (llMs >= c_llEventMs && llMs < c_llEventMs + row.llAbsentMs)
            continue;
        for (tagSender* p : {&audio, &video})
        {
            if (p->bVideo && llMs % 40 != 0)
                continue;
            const int64_t llFrame = llMs / 40;
            // The first picture after a break is a key frame, as an encoder begins with one.
            const bool bKey = p->bVideo && (llFrame % 50 == 0 || llMs == c_llEventMs + row.llAbsentMs);
            const int nPackets = !p->bVideo ? 1 : bKey ? 12 : 3;
            const double dClockMs = (double)llMs + (double)(llMs - c_llEventMs) * p->dPpm / 1e6;
            for (int i = 0; i < nPackets; i++)
            {
                tagMake st;
                st.cPt = p->cPt;
                st.dwSsrc = p->dwSsrc;
                st.wSeq = (uint16)p->dwSeq++;
                st.dwTs =
                    (uint32)((int64_t)(dClockMs * p->dwClock / 1000) + p->llTsShiftMs * (p->dwClock / 1000));
                st.bMarker = p->bVideo && i + 1 == nPackets;
                st.payload = Bytes(p->bVideo ? 200 : 60, 0x55);
                if (p->bVideo) // FU-A of an IDR or another slice
                {
                    st.payload[0] = 0x7C;
                    st.payload[1] = (uint8)((i == 0 ? 0x80 : 0) | (st.bMarker ? 0x40 : 0) | (bKey ? 5 : 1));
                }
                st.payload[8] = (uint8)(llMs >> 16);
                st.payload[9] = (uint8)(llMs >> 8);
                st.payload[10] = (uint8)llMs;
                st.payload[11] = (uint8)++dwTag; // no two packets are alike
                tagPacketTruth stTruth;
                stTruth.llMadeMs = llMs;
                stTruth.bVideo = p->bVideo;
                dwNoise = Noise(dwNoise + 77);
                stTruth.llArrivalUs = Arrival(row, llMs, dwNoise, llLastUs[p->bVideo]);
                llLastUs[p->bVideo] = stTruth.llArrivalUs;
                stTruth.bytes = MakeRtp(st);
                vec.push_back(stTruth);
            }
        }
        if (llMs % 5000 == 0)
        {
            for (const tagSender* p : {&audio, &video})
            {
                tagPacketTruth stTruth;
                stTruth.llMadeMs = -1;
                stTruth.llArrivalUs = llMs * 1000;
                const uint32 dwTs = (uint32)((int64_t)((double)llMs * p->dwClock / 1000) +
                                             p->llTsShiftMs * (p->dwClock / 1000));
                stTruth.bytes = MakeSr(p->dwSsrc, 1000 + (uint32)(llMs / 1000), 0, dwTs) +
                                MakeSdes(p->dwSsrc, "ann@host");
                vec.push_back(stTruth);
            }
        }
    }
    std::stable_sort(vec.begin(), vec.end(),
                     [](const tagPacketTruth& a, const tagPacketTruth& b)
                     { return a.llArrivalUs < b.llArrivalUs; });
    return vec;
}

class CCallReader : public lab::ICaptureReader
{
public:
    explicit CCallReader(const std::vector<tagPacketTruth>& vec) : m_vec(vec) {}
    lab::EReadResult Next(lab::tagDatagram& st) override
    {
        if (m_nAt == m_vec.size())
            return lab::EReadResult::End;
        st.ullArrivalUs = 1000000000 + (uint64)m_vec[m_nAt].llArrivalUs;
        st.stSrc = Addr(1, 4000);
        st.stDst = Addr(2, 5000);
        st.pData = m_vec[m_nAt].bytes.data();
        st.dwCaptured = st.dwWire = (uint32)m_vec[m_nAt].bytes.size();
        m_nAt++;
        return lab::EReadResult::Datagram;
    }
    const std::string& Error() const override { return m_strError; }
    const lab::tagCaptureStats& Stats() const override { return m_stStats; }
    uint64 Position() const override { return m_nAt; }
    uint64 Size() const override { return m_vec.size(); }

private:
    const std::vector<tagPacketTruth>& m_vec;
    size_t m_nAt = 0;
    std::string m_strError;
    lab::tagCaptureStats m_stStats;
};

struct tagPlayed
{
    int64_t llMs = 0; // of the run
    int64_t llMadeMs = 0;
    int64_t llFedMs = 0;
};

class CWatcher : public lab::IRunObserver
{
public:
    void Begin(const lab::CLabRun& run) { m_pRun = &run; }
    int OnReleased(lab::CMediaPacket& packet, uint32 dwTick) override
    {
        const uint8* p = packet.m_vecBytes.data() + 12 + 8;
        const int64_t llMade = (int64_t)p[0] << 16 | p[1] << 8 | p[2];
        m_vec[packet.m_cSubType != MEAVAudio].push_back(
            {m_pRun->MsSinceStart(dwTick), llMade, m_pRun->MsSinceStart(packet.m_dwFedTick)});
        return 0;
    }
    void OnLossRequest(const tagReplyData*, uint32, uint32) override {}
    std::vector<tagPlayed> m_vec[2]; // audio, video

private:
    const lab::CLabRun* m_pRun = nullptr;
};

double Median(std::vector<double> vec)
{
    if (vec.empty())
        return -1;
    std::nth_element(vec.begin(), vec.begin() + (std::ptrdiff_t)(vec.size() / 2), vec.end());
    return vec[vec.size() / 2];
}

// Release minus making, of what was released between two times.
double DelayOver(const std::vector<tagPlayed>& vec, int64_t llFromMs, int64_t llToMs)
{
    std::vector<double> vecDelays;
    for (const tagPlayed& st : vec)
    {
        if (st.llMs >= llFromMs && st.llMs < llToMs)
            vecDelays.push_back((double)(st.llMs - st.llMadeMs));
    }
    return Median(vecDelays);
}

tagMeasured Measure(const tagRow& row, bool bLowLatency)
{
    const std::vector<tagPacketTruth> vecCall = MakeCall(row);
    tagRtpOptions stOptions = MappedOptions();
    stOptions.bLive = true;
    CRtpIntake intake(stOptions);
    CCallReader reader(vecCall);
    lab::CRtpSource source(reader, intake, true);
    CWatcher watcher;
    lab::tagRunOptions stRun;
    stRun.bLowLatency = bLowLatency;
    lab::CLabRun run(stRun, watcher);
    watcher.Begin(run);
    lab::RunLoop(run, source, lab::tagLoopOptions());

    tagMeasured st;
    st.vecBroken = run.Checks().Violations();
    for (uint32 i = 0; i < intake.StreamCount(); i++)
        st.ullRestarts += intake.Stream(i).dwRestarts;
    // The run's clock begins at the first media packet.
    int64_t llFirstUs = -1;
    for (const tagPacketTruth& stTruth : vecCall)
    {
        if (stTruth.llMadeMs >= 0 && (llFirstUs < 0 || stTruth.llArrivalUs < llFirstUs))
            llFirstUs = stTruth.llArrivalUs;
    }
    const auto OfRun = [llFirstUs](int64_t llUs) { return (llUs - llFirstUs) / 1000; };
    for (int i = 0; i < 2; i++)
    {
        // Back: the first packet sent from the event on has arrived.
        int64_t llBack = -1;
        int64_t llLast = 0;
        uint64 ullArrived = 0;
        for (const tagPacketTruth& stTruth : vecCall)
        {
            if (stTruth.llMadeMs < 0 || stTruth.bVideo != (i == 1))
                continue;
            ullArrived++;
            llLast = OfRun(stTruth.llArrivalUs);
            if (llBack < 0 && stTruth.llMadeMs >= c_llEventMs)
                llBack = OfRun(stTruth.llArrivalUs);
        }
        const std::vector<tagPlayed>& vec = watcher.m_vec[i];
        int64_t llQuietSince = llBack;
        const int64_t llUntil = std::min(llBack + c_llWatchMs, llLast);
        for (const tagPlayed& stRelease : vec)
        {
            if (stRelease.llMs < llBack)
                continue;
            st.llMuteMs[i] = std::max(st.llMuteMs[i], std::min(stRelease.llMs, llUntil) - llQuietSince);
            if (stRelease.llMs >= llUntil)
                break;
            llQuietSince = stRelease.llMs;
        }
        if (vec.empty() || vec.back().llMs < llUntil)
            st.llMuteMs[i] = std::max(st.llMuteMs[i], llUntil - llQuietSince);
        st.dDelayBefore[i] = DelayOver(vec, 20000, c_llEventMs);
        st.dDelayAfter[i] = DelayOver(vec, llLast - 5000, llLast);
        st.ullUnplayed[i] = ullArrived - std::min<uint64>(ullArrived, vec.size());
    }
    st.dAvBefore = st.dDelayBefore[1] - st.dDelayBefore[0];
    st.dAvAfter = st.dDelayAfter[1] - st.dDelayAfter[0];
    return st;
}

std::function<void(tagSender&)> Sequence(int nBy)
{
    return [nBy](tagSender& st) { st.dwSeq += (uint32)nBy; };
}
std::function<void(tagSender&)> Timestamp(int64_t llMs)
{
    return [llMs](tagSender& st) { st.llTsShiftMs += llMs; };
}

const std::vector<tagRow>& Rows()
{
    const auto NewSsrc = [](tagSender& st) { st.dwSsrc += 7; };
    const auto NewSsrcAll = [](tagSender& st)
    {
        st.dwSsrc += 7;
        st.dwSeq += 20000;
        st.llTsShiftMs += 7654321;
    };
    const auto Anew = [](uint32 dwSeq)
    {
        return [dwSeq](tagSender& st)
        {
            st.dwSeq = dwSeq + (st.bVideo ? 300 : 0);
            st.llTsShiftMs += 7654321;
        };
    };
    const auto Switch = [](tagSender& st) { st.cPt = st.bVideo ? 97 : 112; };
    const auto To8kHz = [](tagSender& st)
    {
        st.cPt = st.bVideo ? st.cPt : 0;
        st.dwClock = st.bVideo ? st.dwClock : 8000;
    };
    const auto Drift = [](double dPpm) { return [dPpm](tagSender& st) { st.dPpm = dPpm; }; };
    const auto Step = [](int64_t ll) { return ll >= c_llEventMs && ll < c_llEventMs + 10000 ? 350 : 0; };
    const auto Stall = [](int64_t ll)
    { return ll >= c_llEventMs && ll < c_llEventMs + 10000 ? c_llEventMs + 10000 - ll : 0; };
    // A turn is 10 ms and the clock advances every second turn; a picture lasts 40 ms: 60 ms without a picture is no
    // gap at all. The receiver's delay is 1 s in this network.
    static const std::vector<tagRow> c_vecRows = {
        {"nothing", nullptr, 0, nullptr, 60, 0, 20, 20, 0},
        {"SSRC changes", NewSsrc, 0, nullptr, 60, 0, 40, 20, 2},
        {"SSRC, sequence and timestamp change", NewSsrcAll, 0, nullptr, 60, 0, 40, 20, 2},
        {"sequence and timestamp begin anew, low", Anew(0), 0, nullptr, 60, 0, 40, 20, 2},
        {"sequence and timestamp begin anew, high", Anew(65000), 0, nullptr, 60, 0, 40, 20, 2},
        {"begin anew after 0.9 s", Anew(20), 900, nullptr, 1000, 0, 100, 40, 2},
        {"begin anew after 1.5 s", Anew(20), 1500, nullptr, 1000, 0, 100, 40, 2},
        {"begin anew after 3 s", Anew(20), 3000, nullptr, 1000, 0, 300, 40, 2},
        {"begin anew after 5.5 s", Anew(20), 5500, nullptr, 1000, 0, 400, 40, 2},
        {"begin anew after 12 s", Anew(20), 12000, nullptr, 1000, 2, 40, 40, 2},
        {"SSRC changes, 3 s between", NewSsrcAll, 3000, nullptr, 1000, 0, 300, 40, 2},
        {"sequence +100", Sequence(100), 0, nullptr, 60, 0, 40, 20, 1},
        {"sequence -100", Sequence(-100), 0, nullptr, 60, 0, 40, 20, 2},
        {"sequence +3000", Sequence(3000), 0, nullptr, 60, 0, 40, 20, 2},
        {"sequence -3000", Sequence(-3000), 0, nullptr, 60, 0, 40, 20, 2},
        {"sequence +30000", Sequence(30000), 0, nullptr, 60, 0, 40, 20, 2},
        {"sequence -30000", Sequence(-30000), 0, nullptr, 60, 0, 40, 20, 2},
        {"timestamp +1 s", Timestamp(1000), 0, nullptr, 60, 0, 40, 20, 2},
        {"timestamp -1 s", Timestamp(-1000), 0, nullptr, 60, 0, 40, 20, 2},
        {"timestamp +16 s", Timestamp(16000), 0, nullptr, 60, 0, 40, 20, 2},
        {"timestamp -16 s", Timestamp(-16000), 0, nullptr, 60, 0, 40, 20, 2},
        {"timestamp +1 h", Timestamp(3600000), 0, nullptr, 60, 0, 40, 20, 2},
        {"timestamp -1 h", Timestamp(-3600000), 0, nullptr, 60, 0, 40, 20, 2},
        {"silence of 0.9 s", nullptr, 900, nullptr, 1000, 0, 100, 40, 0},
        {"silence of 3 s", nullptr, 3000, nullptr, 1700, 0, 100, 40, 0},
        {"silence of 5.5 s", nullptr, 5500, nullptr, 2350, 0, 400, 40, 0},
        {"silence of 12 s", nullptr, 12000, nullptr, 1000, 2, 40, 40, 0},
        {"payload type switches, same clock", Switch, 0, nullptr, 60, 0, 40, 20, 0},
        {"payload type of audio switches to 8 kHz", To8kHz, 0, nullptr, 60, 0, 40, 20, 1},
        {"sender's clock +500 ppm", Drift(500), 0, nullptr, 60, 0, 60, 20, 0},
        {"sender's clock -500 ppm", Drift(-500), 0, nullptr, 60, 0, 60, 20, 0},
        {"delay +350 ms for 10 s", nullptr, 0, Step, 60, 0, 100, 20, 0},
        {"stall of 10 s, then the burst", nullptr, 0, Stall, 60, 0, 0, 20, 0},
    };
    return c_vecRows;
}

std::string Both(const char* pszFormat, double dDefault, double dLow)
{
    char sz[2][32];
    std::snprintf(sz[0], sizeof(sz[0]), pszFormat, dDefault);
    std::snprintf(sz[1], sizeof(sz[1]), pszFormat, dLow);
    return std::string(sz[0]) == sz[1] ? sz[0] : std::string(sz[0]) + " / " + sz[1];
}

// A line of the table in docs/discontinuities.md: default mode / low latency, one value where they are the same.
std::string Line(const tagRow& row, const tagMeasured& stDefault, const tagMeasured& stLow)
{
    std::string str = std::string("| ") + row.pszName;
    str += " | " + std::to_string(row.llMuteMs);
    for (int i = 0; i < 2; i++)
        str += " | " + Both("%.0f", (double)stDefault.llMuteMs[i], (double)stLow.llMuteMs[i]);
    str += " | " + Both("%+.0f", stDefault.dDelayAfter[0] - stDefault.dDelayBefore[0],
                        stLow.dDelayAfter[0] - stLow.dDelayBefore[0]);
    str += " | " + Both("%+.0f", stDefault.dAvAfter - stDefault.dAvBefore, stLow.dAvAfter - stLow.dAvBefore);
    str += " | " + Both("%.0f", (double)(stDefault.ullUnplayed[0] + stDefault.ullUnplayed[1]),
                        (double)(stLow.ullUnplayed[0] + stLow.ullUnplayed[1]));
    str += " | " + Both("%.0f", (double)stDefault.ullRestarts, (double)stLow.ullRestarts);
    return str + " |";
}
} // namespace

TEST(RtpDiscontinuity, NoSenderStaysMuteBeyondItsLimit)
{
    std::ifstream page(UDT_SOURCE_DIR "/docs/discontinuities.md");
    std::stringstream text;
    text << page.rdbuf();
    for (const tagRow& row : Rows())
    {
        tagMeasured aMeasured[2];
        for (const bool bLow : {false, true})
        {
            SCOPED_TRACE(std::string(row.pszName) + (bLow ? ", low latency" : ", default mode"));
            tagMeasured& st = aMeasured[bLow];
            st = Measure(row, bLow);
            for (int i = 0; i < 2; i++)
            {
                EXPECT_LE(st.llMuteMs[i], row.llMuteMs) << (i == 0 ? "audio" : "video");
                EXPECT_LE(st.ullUnplayed[i], row.ullUnplayed) << (i == 0 ? "audio" : "video");
            }
            if (row.dDelayMs > 0)
            {
                EXPECT_LE(std::fabs(st.dDelayAfter[0] - st.dDelayBefore[0]), row.dDelayMs);
            }
            EXPECT_LE(std::fabs(st.dAvAfter - st.dAvBefore), row.dAvMs);
            EXPECT_EQ((uint64)row.nRestarts, st.ullRestarts);
            EXPECT_THAT(st.vecBroken, testing::IsEmpty());
        }
        const std::string strLine = Line(row, aMeasured[0], aMeasured[1]);
        EXPECT_NE(text.str().find(strLine), std::string::npos)
            << "docs/discontinuities.md does not have the line\n"
            << strLine;
        if (std::getenv("UDT_SHOW_TABLE") != nullptr)
            std::printf("%s\n", strLine.c_str());
    }
}
