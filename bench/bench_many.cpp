/**
 * What do many receivers in one process cost?
 *
 *   Many/receivers:N/load:L/drive:D    N receivers for 3 s of real time on the machine's clock. L = 0: started and
 *                                      idle. L = 1: each takes and plays one audio stream, 50 packets/s. D = 0: a
 *                                      thread of its own each, as Start makes it; D = 1: owner-driven, all of
 *                                      them by one bare loop that sleeps until the next 10 ms are over
 *
 * Time per iteration is the 3 s; what counts is
 *
 *   cpu_pct        processor time of the process in percent of one core, the feeding thread's not counted
 *   us/recv/s      the same per receiver and second
 *   rss_kB/recv    resident memory that came with a receiver, threads' stacks included; memory that an earlier case left
 *                  behind is used again, so look at it with one case per process
 *   late_us_p99    how long after the 10 ms were over the last receiver's turn was made, of 100 turns the 99th (D = 1);
 *                  for D = 2 of each receiver's turn, rounded up to a power of two
 *   played_pct     packets played of those that were due; above 100 while buffers settle, below 99 the machine did
 *                  not keep up
 */

#include "AVGUDTRecv.h"
#if defined(__has_include) && __has_include("AVGUDTRecvPool.h") // not in the version this is compared with
#include "AVGUDTRecvPool.h"
#define UDT_HAVE_POOL 1
#endif
#include "UDTLog.h"

#include <benchmark/benchmark.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <ctime>
#include <memory>
#include <string>
#include <sys/resource.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace
{

using namespace std::chrono;

constexpr int c_nSeconds = 3;
constexpr uint32 c_dwAudioMs = 20;

class CManyOwner : public IUDTRecvEventCallBack
{
public:
    void OnUDTRecvOutData(UDTCodecBaseDecode_V2*, int*) override
    {
        m_ullReleased.fetch_add(1, std::memory_order_relaxed);
    }
    int UdtRecvHandleEvent(WORD, uint8*, uint32, uint32, uint32) override { return 0; }
    int UdtParsePacketHeadInfo(uint8* pBuf, UdtPacketHeadInfo& stHead) override
    {
        stHead = *(const tagUdtPacketHeadInfo*)pBuf;
        return 0;
    }
    std::atomic<uint64> m_ullReleased{0};
};

struct CManyPacket : public UDTCodecBaseDecode_V2
{
    tagUdtPacketHeadInfo m_stHead;
};

double Clock(clockid_t nClock)
{
    timespec st;
    clock_gettime(nClock, &st);
    return (double)st.tv_sec + (double)st.tv_nsec * 1e-9;
}

double ResidentBytes()
{
    long nTotal = 0;
    long nResident = 0;
    if (FILE* pFile = fopen("/proc/self/statm", "r"))
    {
        if (fscanf(pFile, "%ld %ld", &nTotal, &nResident) != 2)
            nResident = 0;
        fclose(pFile);
    }
    return (double)nResident * (double)sysconf(_SC_PAGESIZE);
}

struct tagMember
{
    explicit tagMember(IUDTRecvEventCallBack* pOwner) : recv(pOwner) {}
    CAVGUdtRecv recv;
    uint32 dwSeq = 1000;
};

// ---- Drives ----------------------------------------------------------------------------------------------------

/// Who makes the receivers' turns.
class IDrive
{
public:
    virtual ~IDrive() = default;
    virtual void Start(std::vector<std::unique_ptr<tagMember>>& vecMembers) = 0;
    virtual void Stop(std::vector<std::unique_ptr<tagMember>>& vecMembers) = 0;
    virtual void Tell(benchmark::State&) {} ///< what else there is to know, after the stop
};

class COwnThreads : public IDrive
{
public:
    void Start(std::vector<std::unique_ptr<tagMember>>& vecMembers) override
    {
        for (const std::unique_ptr<tagMember>& pMember : vecMembers)
            pMember->recv.Start();
    }
    void Stop(std::vector<std::unique_ptr<tagMember>>& vecMembers) override
    {
        // Each takes 200 ms: many at once.
        constexpr size_t c_nStoppers = 50;
        std::vector<std::thread> vecStoppers;
        for (size_t nStopper = 0; nStopper < c_nStoppers; ++nStopper)
        {
            vecStoppers.emplace_back(
                [&vecMembers, nStopper]
                {
                    for (size_t i = nStopper; i < vecMembers.size(); i += c_nStoppers)
                        vecMembers[i]->recv.Stop();
                });
        }
        for (std::thread& thread : vecStoppers)
            thread.join();
    }
};

class CBareLoop : public IDrive
{
public:
    void Start(std::vector<std::unique_ptr<tagMember>>& vecMembers) override
    {
        for (const std::unique_ptr<tagMember>& pMember : vecMembers)
        {
            pMember->recv.SetOwnerDriven(TRUE);
            pMember->recv.Start();
        }
        m_thread = std::thread(
            [this, &vecMembers]
            {
                const steady_clock::time_point stBegin = steady_clock::now();
                for (int nTurn = 0; !m_bStop; ++nTurn)
                {
                    const steady_clock::time_point stDue = stBegin + milliseconds(10 * nTurn);
                    std::this_thread::sleep_until(stDue);
                    for (const std::unique_ptr<tagMember>& pMember : vecMembers)
                        pMember->recv.RunTurn();
                    // The last receiver's turn was made so long after it was due.
                    m_vecLateUs.push_back(duration<double, std::micro>(steady_clock::now() - stDue).count());
                }
            });
    }
    void Stop(std::vector<std::unique_ptr<tagMember>>& vecMembers) override
    {
        m_bStop = true;
        m_thread.join();
        for (const std::unique_ptr<tagMember>& pMember : vecMembers)
            pMember->recv.Stop();
    }
    void Tell(benchmark::State& state) override
    {
        std::sort(m_vecLateUs.begin(), m_vecLateUs.end());
        state.counters["late_us_p50"] = m_vecLateUs[m_vecLateUs.size() / 2];
        state.counters["late_us_p99"] = m_vecLateUs[m_vecLateUs.size() * 99 / 100];
    }

private:
    std::thread m_thread;
    std::atomic<bool> m_bStop{false};
    std::vector<double> m_vecLateUs;
};

#if UDT_HAVE_POOL
class CPool : public IDrive
{
public:
    void Start(std::vector<std::unique_ptr<tagMember>>& vecMembers) override
    {
        for (const std::unique_ptr<tagMember>& pMember : vecMembers)
        {
            pMember->recv.SetOwnerDriven(TRUE);
            pMember->recv.Start();
            m_pool.Add(&pMember->recv);
        }
    }
    void Stop(std::vector<std::unique_ptr<tagMember>>& vecMembers) override
    {
        m_pool.GetInfo(m_stInfo);
        for (const std::unique_ptr<tagMember>& pMember : vecMembers)
        {
            m_pool.Remove(&pMember->recv);
            pMember->recv.Stop();
        }
    }
    void Tell(benchmark::State& state) override
    {
        state.counters["late_us_p99"] = m_stInfo.LatenessOf(9900);
        state.counters["turns/recv/s"] =
            (double)m_stInfo.ullTurns / (double)std::max(1u, m_stInfo.dwReceivers) / (1 + c_nSeconds);
    }

private:
    CAVGUdtRecvPool m_pool{1};
    tagRecvPoolInfo m_stInfo;
};
#endif

struct tagDrive
{
    int nDrive; // as the case's name has it
    std::unique_ptr<IDrive> (*pfnMake)();
};

template <class Drive>
std::unique_ptr<IDrive> Make()
{
    return std::make_unique<Drive>();
}

constexpr tagDrive c_aDrives[] = {{0, Make<COwnThreads>},
                                  {1, Make<CBareLoop>},
#if UDT_HAVE_POOL
                                  {2, Make<CPool>}
#endif
};

// ---- Cases -----------------------------------------------------------------------------------------------------

void Many(benchmark::State& state, size_t nReceivers, bool bLoaded, const tagDrive& stDrive)
{
    for (auto _ : state)
    {
        const double dResident = ResidentBytes();
        CManyOwner owner;
        std::vector<std::unique_ptr<tagMember>> vecMembers;
        for (size_t i = 0; i < nReceivers; ++i)
        {
            vecMembers.push_back(std::make_unique<tagMember>(&owner));
            tagUDTRecvParams params;
            params.wTimelineDelta = 200;
            vecMembers.back()->recv.UDTSetRecvParams(params);
            vecMembers.back()->recv.SetRoomState(c_dwRoomStatePlaying);
        }
        const std::unique_ptr<IDrive> pDrive = stDrive.pfnMake();
        pDrive->Start(vecMembers);

        // One second to settle, then the measured ones. Half of the receivers get a packet every 10 ms.
        double dFed = 0;
        uint64 ullPlayed = 0;
        double dFedBegin = 0;
        const steady_clock::time_point stBegin = steady_clock::now();
        double dBegin = 0;
        double dFeederBegin = 0;
        double dWallBegin = 0;
        for (int nStep = 0; nStep < (1 + c_nSeconds) * 100; ++nStep)
        {
            std::this_thread::sleep_until(stBegin + milliseconds(10 * nStep));
            if (nStep == 100)
            {
                dBegin = Clock(CLOCK_PROCESS_CPUTIME_ID);
                dFeederBegin = Clock(CLOCK_THREAD_CPUTIME_ID);
                dWallBegin = Clock(CLOCK_MONOTONIC);
                dFedBegin = dFed;
                ullPlayed = owner.m_ullReleased;
            }
            for (size_t i = (size_t)nStep % 2; bLoaded && i < nReceivers; i += 2)
            {
                CScopePtr<CManyPacket> p(new CManyPacket);
                p->wLen = 100;
                p->bufBody.pbuf = (uint8*)&p->m_stHead;
                p->bufBody.ulen = sizeof(p->m_stHead);
                p->m_stHead.cSubType = MEAVAudio;
                p->m_stHead.cFrmType = def_FrameType_P;
                p->m_stHead.cTotalPkgCount = 1;
                tagMember& stMember = *vecMembers[i];
                p->m_stHead.uTimeStamp = 100000 + stMember.dwSeq * c_dwAudioMs;
                stMember.recv.UDTReceiveNetData(stMember.dwSeq, 1000 + i, stMember.dwSeq, 0, MEAVAudio, p.p);
                ++stMember.dwSeq;
                dFed += 1;
            }
        }
        const double dWall = Clock(CLOCK_MONOTONIC) - dWallBegin;
        const double dCpu =
            Clock(CLOCK_PROCESS_CPUTIME_ID) - dBegin - (Clock(CLOCK_THREAD_CPUTIME_ID) - dFeederBegin);
        dFed -= dFedBegin;
        ullPlayed = owner.m_ullReleased - ullPlayed;
        const double dMemory = ResidentBytes() - dResident;

        pDrive->Stop(vecMembers);

        state.SetIterationTime(dWall);
        state.counters["cpu_pct"] = 100 * dCpu / dWall;
        state.counters["us/recv/s"] = dCpu * 1e6 / dWall / (double)nReceivers;
        state.counters["rss_kB/recv"] = dMemory / 1024 / (double)nReceivers;
        if (bLoaded)
            state.counters["played_pct"] = 100 * (double)ullPlayed / dFed;
        pDrive->Tell(state);
    }
}

} // namespace

int main(int argc, char** argv)
{
    LogSetLevel(LOG_LEVEL_ERROR);
    for (const size_t nReceivers : {(size_t)100, (size_t)1000})
    {
        for (const bool bLoaded : {false, true})
        {
            for (const tagDrive& stDrive : c_aDrives)
            {
                const std::string strName = "Many/receivers:" + std::to_string(nReceivers) +
                                            "/load:" + std::to_string((int)bLoaded) +
                                            "/drive:" + std::to_string(stDrive.nDrive);
                benchmark::RegisterBenchmark(strName.c_str(),
                                             [nReceivers, bLoaded, stDrive](benchmark::State& state)
                                             { Many(state, nReceivers, bLoaded, stDrive); })
                    ->UseManualTime()
                    ->Iterations(1)
                    ->Unit(benchmark::kSecond);
            }
        }
    }
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv))
        return 1;
    return benchmark::RunSpecifiedBenchmarks() != 0 ? 0 : 1;
}
