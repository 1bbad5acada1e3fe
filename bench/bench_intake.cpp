/**
 * What does UDTReceiveNetData cost the network threads, and does it get faster with more of them?
 *
 *   Intake/threads:N    N network threads, each feeding a stream of its own as fast as it can, against a worker that
 *                       makes turns all the while: 5 times as often as in earnest, every 2 ms, so that every batch
 *                       meets some
 *
 * An iteration is a batch of 30,000 calls on each thread, from a common start to the last one's end. Before it, untimed,
 * the receiver is started and takes as many packets once, so that it has the memory that it uses again and again; it
 * is stopped after it, since the 6 s of sequences that it remembers would be tens of millions at this rate. Each thread
 * has 512 packet objects in turn, as a decoder with a pool has. Time is what a clock on the wall says. The clock of the
 * receiver is the machine's.
 *
 *   cpu_ns/call   processor time of a network thread per call, bench_ns taken off; what it spends waiting asleep is
 *                 not in it
 *   bench_ns/call what each call's packet costs the bench: its head is written anew right before the call, as a
 *                 decoder would, which fetches its memory from wherever the worker left it. Measured by a second pass
 *                 that writes the heads and calls nobody.
 *   calls/s       of all threads together, by the wall clock: what more threads are for. On a machine that does other
 *                 things, or has fewer cores than threads, this tells more about the machine.
 *   turns         that the worker made per batch
 */

#include "AVGUDTRecv.h"
#include "UDTLog.h"

#include <benchmark/benchmark.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <ctime>
#include <memory>
#include <thread>
#include <vector>

namespace
{

constexpr uint32 c_dwCalls = 30000; // per thread and batch
constexpr uint32 c_dwPackets = 512; // objects of a thread, used in turn

class CIntakeOwner : public IUDTRecvEventCallBack
{
public:
    void OnUDTRecvOutData(UDTCodecBaseDecode_V2*, int*) override { ++m_ullReleased; }
    int UdtRecvHandleEvent(WORD, uint8*, uint32, uint32, uint32) override { return 0; }
    int UdtParsePacketHeadInfo(uint8* pBuf, UdtPacketHeadInfo& stHead) override
    {
        stHead = *(const tagUdtPacketHeadInfo*)pBuf;
        return 0;
    }
    uint64 m_ullReleased = 0; // worker
};

struct CIntakePacket : public UDTCodecBaseDecode_V2
{
    tagUdtPacketHeadInfo m_stHead;
};

double ThreadSeconds()
{
    timespec st;
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &st);
    return (double)st.tv_sec + (double)st.tv_nsec * 1e-9;
}

double WallSeconds()
{
    using namespace std::chrono;
    return duration<double>(steady_clock::now().time_since_epoch()).count();
}

// A packet that is due at once.
void WriteHead(CIntakePacket& packet, uint32 dwSeq)
{
    packet.wLen = 1000;
    packet.dwSenderSeq = dwSeq;
    packet.m_stHead.cSubType = MEAVMaxVideo;
    packet.m_stHead.cFrmType = def_FrameType_I;
    packet.m_stHead.cTotalPkgCount = 1;
    packet.m_stHead.uTimeStamp = 100000;
}

struct tagFeeder
{
    uint64 ullUin = 0;
    std::vector<CScopePtr<CIntakePacket>> vecPackets;
    double dCpu = 0;   // of the calls and the heads
    double dHeads = 0; // of the heads alone
    double dEnd = 0;
};

void Intake(benchmark::State& state)
{
    const size_t nThreads = (size_t)state.range(0);
    CIntakeOwner owner;
    CAVGUdtRecv recv(&owner);
    recv.SetOwnerDriven(TRUE);

    std::vector<tagFeeder> vecFeeders(nThreads);
    for (size_t i = 0; i < nThreads; ++i)
    {
        vecFeeders[i].ullUin = 1000 + i;
        for (uint32 n = 0; n < c_dwPackets; ++n)
        {
            CScopePtr<CIntakePacket> p(new CIntakePacket);
            p->bufBody.pbuf = (uint8*)&p->m_stHead;
            p->bufBody.ulen = sizeof(p->m_stHead);
            vecFeeders[i].vecPackets.push_back(p);
        }
    }

    double dCpu = 0;
    double dHeads = 0;
    double dWall = 0;
    uint64 ullTurns = 0;
    uint64 ullBatches = 0;
    bool bAllCame = true;
    for (auto _ : state)
    {
        recv.Start();
        recv.SetRoomState(c_dwRoomStatePlaying);
        for (uint32 dwSeq = 1000; dwSeq < 1000 + nThreads * c_dwCalls; ++dwSeq)
        {
            CIntakePacket& packet = *vecFeeders[0].vecPackets[dwSeq % c_dwPackets];
            WriteHead(packet, dwSeq);
            recv.UDTReceiveNetData(dwSeq, 1, dwSeq, 0, MEAVMaxVideo, &packet);
        }
        recv.RunTurn();
        recv.RunTurn();
        owner.m_ullReleased = 0;
        std::atomic<size_t> nReady{0};
        std::atomic<bool> bGo{false};
        std::atomic<bool> bStop{false};
        std::vector<std::thread> vecThreads;
        for (tagFeeder& stFeeder : vecFeeders)
        {
            vecThreads.emplace_back(
                [&recv, &stFeeder, &nReady, &bGo]
                {
                    ++nReady;
                    while (!bGo)
                        std::this_thread::yield();
                    const double dBegin = ThreadSeconds();
                    for (uint32 dwSeq = 1000; dwSeq < 1000 + c_dwCalls; ++dwSeq)
                    {
                        CIntakePacket& packet = *stFeeder.vecPackets[dwSeq % c_dwPackets];
                        WriteHead(packet, dwSeq);
                        recv.UDTReceiveNetData(dwSeq, stFeeder.ullUin, dwSeq, 0, MEAVMaxVideo, &packet);
                    }
                    stFeeder.dCpu = ThreadSeconds() - dBegin;
                    stFeeder.dEnd = WallSeconds();

                    const double dBeginHeads = ThreadSeconds();
                    for (uint32 dwSeq = 0; dwSeq < c_dwCalls; ++dwSeq)
                        WriteHead(*stFeeder.vecPackets[dwSeq % c_dwPackets], dwSeq);
                    stFeeder.dHeads = ThreadSeconds() - dBeginHeads;
                });
        }
        std::thread worker(
            [&recv, &bStop, &ullTurns]
            {
                while (!bStop)
                {
                    recv.RunTurn();
                    ++ullTurns;
                    std::this_thread::sleep_for(std::chrono::milliseconds(2));
                }
                recv.RunTurn(); // what came last
            });
        while (nReady < nThreads)
            std::this_thread::yield();
        const double dBegin = WallSeconds();
        bGo = true;
        for (std::thread& thread : vecThreads)
            thread.join();
        bStop = true;
        worker.join();

        double dEnd = 0;
        for (const tagFeeder& stFeeder : vecFeeders)
        {
            dCpu += stFeeder.dCpu;
            dHeads += stFeeder.dHeads;
            dEnd = std::max(dEnd, stFeeder.dEnd);
        }
        state.SetIterationTime(dEnd - dBegin);
        dWall += dEnd - dBegin;
        ++ullBatches;
        bAllCame = bAllCame && owner.m_ullReleased == nThreads * c_dwCalls;
        recv.Stop();
    }
    if (!bAllCame)
        state.SkipWithError("not every packet came out");
    const double dCalls = (double)(ullBatches * nThreads * c_dwCalls);
    state.counters["cpu_ns/call"] = (dCpu - dHeads) * 1e9 / dCalls;
    state.counters["bench_ns/call"] = dHeads * 1e9 / dCalls;
    state.counters["calls/s"] = dCalls / dWall;
    state.counters["turns"] = (double)ullTurns / (double)ullBatches;
}
BENCHMARK(Intake)->ArgName("threads")->Arg(1)->Arg(2)->Arg(4)->UseManualTime()->Unit(benchmark::kMillisecond);

} // namespace

BENCHMARK_MAIN();
