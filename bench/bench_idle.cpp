/**
 * What does a worker turn cost when there is nothing to do?
 *
 *   IdleTurn/gaps:G    100 streams (50 users with audio and video) of 500 buffered packets each. Nothing arrives,
 *                      nothing is due for playing, nothing is due to be asked for. G = 1: every 50th packet is
 *                      missing, its requests are out and the next ones are a minute away.
 *
 * The clock moves by 10 ms per turn, so playout clocks advance and loss scans, housekeeping and statistics run at
 * their usual intervals; the room is playing. The buffers stand for 8 s of turns, then they are made anew, untimed.
 * The case ends with an error when a packet was played or asked for in a measured turn. `held` and `gaps` tell how
 * many packets there are, and how many with a gap before them.
 */

#include "AVGUDTRecv.h"
#include "PathHarness.h"
#include "RecvRig.h"
#include "UDTLog.h"
#include "xpmess.h"

#include <benchmark/benchmark.h>

#include <memory>

namespace
{

constexpr uint32 c_dwUsers = 50;
constexpr uint32 c_dwPackets = 500; // of each stream
constexpr uint32 c_dwWarmUpTurns = 150;
constexpr uint32 c_dwTurns = 800;

uint64 g_ullTick = 0;
uint64 TickOf(void*) { return g_ullTick; }

class CIdleRoom
{
public:
    explicit CIdleRoom(bool bGaps)
        : m_pool(2 * c_dwUsers * c_dwPackets), m_owner(m_pool, 2 * c_dwUsers), m_recv(&m_owner)
    {
        m_recv.SetOwnerDriven(TRUE);
        m_recv.Start();
        tagUDTRecvParams params;
        params.wTimelineDelta = params.wQueuePeriod = 15000; // the clocks never run fast
        m_recv.UDTSetRecvParams(params);
        m_recv.UDTSetRecvRTT(60000); // from the fourth on requests are so far apart
        m_recv.SetRoomState(c_dwRoomStatePlaying);
        for (uint32 dwUser = 0; dwUser < c_dwUsers; ++dwUser)
        {
            Fill(1000 + dwUser, MEAVMaxVideo, (uint16)(2 * dwUser), bGaps);
            Fill(1000 + dwUser, MEAVAudio, (uint16)(2 * dwUser + 1), bGaps);
        }
        Turns(c_dwWarmUpTurns);
        m_ullQuietReleased = m_owner.m_ullReleased;
        m_ullQuietAsked = m_owner.m_ullAsked;
    }
    ~CIdleRoom() { m_recv.Stop(); }

    void Turns(uint32 dwTurns)
    {
        for (; dwTurns > 0; --dwTurns)
        {
            g_ullTick += 10;
            m_recv.RunTurn();
        }
    }
    bool WasIdle() const
    {
        return m_owner.m_ullReleased == m_ullQuietReleased && m_owner.m_ullAsked == m_ullQuietAsked;
    }
    void Look(benchmark::State& state) const
    {
        size_t nHeld = 0;
        size_t nGaps = 0;
        for (const MapUinInPkt::value_type& stStream : CRecvRig::StreamsOf(m_recv))
        {
            nHeld += stStream.second.mapUdtPacket.size();
            for (const MapUdtPacket::value_type& stPacket : stStream.second.mapUdtPacket)
                nGaps += stPacket.second.cPrePkgLost != 0 ? 1 : 0;
        }
        state.counters["held"] = (double)nHeld;
        state.counters["gaps"] = (double)nGaps;
    }

private:
    // The first frame plays at once and starts the clock; the rest lies 10 s ahead. GOPs of five frames.
    void Fill(uint64 ullUin, uint8 cSubType, uint16 wStream, bool bGaps)
    {
        constexpr uint32 c_dwOfFrame = 10;
        const bool bVideo = cSubType == MEAVMaxVideo;
        uint32 dwSeq = 1000;
        for (uint32 i = 0; i < c_dwPackets + c_dwOfFrame; ++i, ++dwSeq)
        {
            if (bGaps && i > 100 && i % 50 == 25)
                ++dwSeq;
            const uint32 dwIndex = dwSeq - 1000;
            const uint32 dwFrame = dwIndex / c_dwOfFrame;
            CBenchPacket* p = m_pool.Take();
            p->m_wStream = wStream;
            p->wLen = bVideo ? 1000 : 100;
            p->dwSenderSeq = dwSeq;
            tagUdtPacketHeadInfo& stHead = p->m_stHead;
            stHead.cSubType = cSubType;
            stHead.cFrmType = bVideo && dwFrame % 5 == 0 ? def_FrameType_I : def_FrameType_P;
            stHead.cPkgIndex = (uint8)(bVideo ? dwIndex % c_dwOfFrame : 0);
            stHead.cTotalPkgCount = (uint8)(bVideo ? c_dwOfFrame : 1);
            stHead.cFrameIndex = (uint8)(bVideo ? dwFrame % 5 : 0);
            stHead.cGopIndex = (uint8)(bVideo ? dwFrame / 5 : 0);
            stHead.uTimeStamp = 100000 + (dwFrame == 0 ? 0 : 10000 + dwIndex * 3);
            m_recv.UDTReceiveNetData(dwSeq, ullUin, ++m_dwDownSeq, 0, cSubType, p);
        }
    }

    CPacketPool m_pool;
    CBenchOwner m_owner;
    CAVGUdtRecv m_recv;
    uint32 m_dwDownSeq = 1000;
    uint64 m_ullQuietReleased = 0;
    uint64 m_ullQuietAsked = 0;
};

void IdleTurn(benchmark::State& state)
{
    g_ullTick = 1000;
    xp_settickcountsource(TickOf, nullptr);
    std::unique_ptr<CIdleRoom> pRoom;
    uint32 dwLeft = 0;
    bool bIdle = true;
    for (auto _ : state)
    {
        if (dwLeft == 0)
        {
            state.PauseTiming();
            bIdle = bIdle && (pRoom == nullptr || pRoom->WasIdle());
            pRoom.reset();
            pRoom = std::make_unique<CIdleRoom>(state.range(0) != 0);
            dwLeft = c_dwTurns;
            state.ResumeTiming();
        }
        pRoom->Turns(1);
        --dwLeft;
    }
    if (!bIdle || !pRoom->WasIdle())
        state.SkipWithError("something was played or asked for");
    pRoom->Look(state);
    pRoom.reset();
    xp_settickcountsource(nullptr, nullptr);
}
BENCHMARK(IdleTurn)->ArgName("gaps")->Arg(0)->Arg(1)->Unit(benchmark::kMicrosecond);

} // namespace

BENCHMARK_MAIN();
