// How long does an hour of a call take to replay, and how much memory?
//
// Writes a capture of a call (Opus 50 packets/s, H.264 30 frames/s in about 300 packets/s with 1000-byte
// payloads, a key frame every 2 s, sender reports with a CNAME every 5 s; 1 % lost, jitter to 20 ms in a
// queue that keeps the order, but for 0.2 % that overtake) and replays it in this process.
//
//     udtlab_bench_hour [--minutes N] [--keep FILE.pcap] [--out]
//
// --out also writes the played capture. Prints packets, wall seconds, virtual seconds per wall second and
// the peak of memory. The same capture every time.

#include "Replay.h"

#include <CLI/CLI.hpp>
#include <fmt/format.h>
#include <pcap/pcap.h>
#include <sys/resource.h>
#include <unistd.h>

#include <chrono>
#include <map>
#include <random>

namespace
{

void Put16(uint8_t* p, uint32_t u)
{
    p[0] = (uint8_t)(u >> 8);
    p[1] = (uint8_t)u;
}
void Put32(uint8_t* p, uint32_t u)
{
    Put16(p, u >> 16);
    Put16(p + 2, u & 0xFFFF);
}

// Packets leave in sending order and are written in the order in which they arrive.
class CCallWriter
{
public:
    explicit CCallWriter(const std::string& strPath)
        : m_pPcap(pcap_open_dead(DLT_RAW, 65535)), m_pDumper(pcap_dump_open(m_pPcap, strPath.c_str()))
    {
    }
    ~CCallWriter()
    {
        Drain(UINT64_MAX);
        pcap_dump_close(m_pDumper);
        pcap_close(m_pPcap);
    }

    void Send(uint64_t ullUs, uint16_t wPort, std::vector<uint8_t> payload, bool bMayBeLost)
    {
        if (bMayBeLost && m_random() % 100 == 0)
            return;
        uint64_t ullArrival = ullUs + 20000 + m_random() % 20000;
        if (m_random() % 500 == 0)
            ullArrival = ullUs + 15000;
        else
            ullArrival = m_ullQueue = std::max(m_ullQueue + 20, ullArrival);
        m_mapFlight.emplace(ullArrival, std::make_pair(wPort, std::move(payload)));
        Drain(ullUs);
    }

private:
    void Drain(uint64_t ullUs)
    {
        for (auto it = m_mapFlight.begin(); it != m_mapFlight.end() && it->first <= ullUs;
             it = m_mapFlight.erase(it))
        {
            const std::vector<uint8_t>& payload = it->second.second;
            std::vector<uint8_t> frame(28, 0);
            frame[0] = 0x45;
            Put16(&frame[2], (uint32_t)payload.size() + 28);
            frame[8] = 64;
            frame[9] = 17;
            Put32(&frame[12], 0x0A000001);
            Put32(&frame[16], 0x0A000002);
            Put16(&frame[20], it->second.first);
            Put16(&frame[22], it->second.first);
            Put16(&frame[24], (uint32_t)payload.size() + 8);
            frame.insert(frame.end(), payload.begin(), payload.end());
            const uint64_t ullAt = 1700000000000000ull + it->first;
            pcap_pkthdr stHead = {};
            stHead.ts.tv_sec = (time_t)(ullAt / 1000000);
            stHead.ts.tv_usec = (suseconds_t)(ullAt % 1000000);
            stHead.caplen = stHead.len = (bpf_u_int32)frame.size();
            pcap_dump(reinterpret_cast<u_char*>(m_pDumper), &stHead, frame.data());
        }
    }

    pcap_t* m_pPcap;
    pcap_dumper_t* m_pDumper;
    std::multimap<uint64_t, std::pair<uint16_t, std::vector<uint8_t>>> m_mapFlight;
    std::minstd_rand m_random{1}; // NOLINT(cert-msc32-c,cert-msc51-cpp): the same capture every time
    uint64_t m_ullQueue = 0;
};

std::vector<uint8_t> Rtp(uint8_t cPt, bool bMarker, uint16_t wSeq, uint32_t dwTs, uint32_t dwSsrc,
                         size_t nPayload)
{
    std::vector<uint8_t> v(12 + nPayload, 0x5A);
    v[0] = 0x80;
    v[1] = (uint8_t)(cPt | (bMarker ? 0x80 : 0));
    Put16(&v[2], wSeq);
    Put32(&v[4], dwTs);
    Put32(&v[8], dwSsrc);
    return v;
}

// SR and SDES with the one CNAME of the call.
std::vector<uint8_t> SenderReport(uint64_t ullUs, uint32_t dwTs, uint32_t dwSsrc, uint32_t dwPackets)
{
    std::vector<uint8_t> v(28 + 20, 0);
    v[0] = 0x80;
    v[1] = 200;
    Put16(&v[2], 6);
    Put32(&v[4], dwSsrc);
    Put32(&v[8], (uint32_t)(3900000000u + ullUs / 1000000));
    Put32(&v[12], (uint32_t)(((ullUs % 1000000) << 32) / 1000000));
    Put32(&v[16], dwTs);
    Put32(&v[20], dwPackets);
    v[28] = 0x81;
    v[29] = 202;
    Put16(&v[30], 4);
    Put32(&v[32], dwSsrc);
    v[36] = 1;
    v[37] = 9;
    memcpy(&v[38], "bench@lab", 9);
    return v;
}

void WriteCall(const std::string& strPath, uint64_t ullSeconds)
{
    CCallWriter writer(strPath);
    uint16_t wAudio = 60000, wVideo = 65000; // both wrap
    uint32_t dwAudioSent = 0, dwVideoSent = 0;
    for (uint64_t ullMs = 0; ullMs < ullSeconds * 1000; ullMs++)
    {
        const uint64_t ullUs = ullMs * 1000;
        const uint32_t dwAudioTs = (uint32_t)(ullMs * 48), dwVideoTs = (uint32_t)(ullMs * 90);
        if (ullMs % 5000 == 0)
        {
            writer.Send(ullUs, 5005, SenderReport(ullUs, dwAudioTs, 0xA0D10, dwAudioSent), false);
            writer.Send(ullUs, 5007, SenderReport(ullUs, dwVideoTs, 0x71DE0, dwVideoSent), false);
        }
        if (ullMs % 20 == 0)
        {
            writer.Send(ullUs, 5004, Rtp(111, false, wAudio++, dwAudioTs, 0xA0D10, 80), true);
            dwAudioSent++;
        }
        const uint64_t ullFrame = ullMs * 30 / 1000;
        if (ullMs == 0 || ullFrame != (ullMs - 1) * 30 / 1000)
        {
            const bool bKey = ullFrame % 60 == 0;
            const int nPackets = bKey ? 40 : 9;
            for (int i = 0; i < nPackets; i++)
            {
                std::vector<uint8_t> v = Rtp(96, i + 1 == nPackets, wVideo++, dwVideoTs, 0x71DE0, 1000);
                v[12] = 0x7C; // FU-A
                v[13] = (uint8_t)((bKey ? 5 : 1) | (i == 0 ? 0x80 : 0) | (i + 1 == nPackets ? 0x40 : 0));
                writer.Send(ullUs + (uint64_t)i * 50, 5006, std::move(v), true);
                dwVideoSent++;
            }
        }
    }
}

} // namespace

// NOLINTNEXTLINE(bugprone-exception-escape): a benchmark without memory may end like that
int main(int argc, char** argv)
{
    CLI::App app("replays an hour of a call and says what it cost");
    unsigned uMinutes = 60;
    std::string strKeep;
    bool bOut = false;
    app.add_option("--minutes", uMinutes, "length of the call");
    app.add_option("--keep", strKeep, "write the capture here and leave it");
    app.add_flag("--out", bOut, "also write the played capture");
    CLI11_PARSE(app, argc, argv);

    const std::string strPath =
        strKeep.empty() ? fmt::format("/tmp/udtlab-bench-{}.pcap", getpid()) : strKeep;
    WriteCall(strPath, uMinutes * 60ull);

    lab::tagReplayOptions stOptions;
    stOptions.vecCaptures = {strPath};
    if (bOut)
        stOptions.strOut = strPath + ".played";
    const auto tStart = std::chrono::steady_clock::now();
    const lab::tagReplayResult stResult = lab::RunReplay(stOptions);
    const double dSeconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - tStart).count();
    if (strKeep.empty())
        unlink(strPath.c_str());
    if (bOut)
        unlink(stOptions.strOut.c_str());
    if (!stResult.strInputError.empty() || stResult.ullBroken)
    {
        fmt::print(stderr, "{} {} checks broken\n", stResult.strInputError, stResult.ullBroken);
        return 1;
    }
    rusage stUsage = {};
    getrusage(RUSAGE_SELF, &stUsage);
    fmt::print("{} RTP packets, {:.1f} s of call, replayed in {:.2f} s: {:.0f} times real time, {:.1f} MiB "
               "at most\n",
               stResult.stTotals.ullRtp, stResult.dwDurationMs / 1000.0, dSeconds,
               stResult.dwDurationMs / 1000.0 / dSeconds, (double)stUsage.ru_maxrss / 1024.0);
    return 0;
}
