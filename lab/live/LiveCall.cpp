#include "LiveCall.h"

#include "RecvRig.h"
#include "RunSeries.h"

#include <fmt/format.h>

#include <chrono>
#include <cstdlib>
#include <cstring>
#include <unistd.h>

namespace lab
{

namespace
{

constexpr uint32 c_dwTurnSleepUs = 10000;
constexpr size_t c_nStallsKept = 1000;
constexpr int c_nClearWaitMs = 200; // for the worker's next turn

} // namespace

uint64 LiveTick()
{
    using namespace std::chrono;
    return (uint64)duration_cast<milliseconds>(steady_clock::now().time_since_epoch()).count();
}

uint64 LiveNowUs()
{
    using namespace std::chrono;
    static const int64 s_llOffset =
        (int64)duration_cast<microseconds>(system_clock::now().time_since_epoch()).count() -
        (int64)duration_cast<microseconds>(steady_clock::now().time_since_epoch()).count();
    return (uint64)((int64)duration_cast<microseconds>(steady_clock::now().time_since_epoch()).count() +
                    s_llOffset);
}

// The receiver with its own thread; only who makes the turns is told first.
class CLiveCall::CReceiver : public CAVGUdtRecv
{
public:
    CReceiver(IUDTRecvEventCallBack* pCB, CLiveCall& call) : CAVGUdtRecv(pCB), m_call(call) {}
    ~CReceiver() override { Stop(); } // the worker must be gone before its Run is

    void Run() override { m_call.Work(*this); }
    // A stopped receiver makes no more turns here; what follows the last one does.
    void EndOfRun() { CAVGUdtRecv::Run(); }

private:
    CLiveCall& m_call;
};

// ---- Lifecycle ----

CLiveCall::CLiveCall(const tagLiveOptions& stOptions)
    : m_stOptions(stOptions), m_ullStartTick(LiveTick()), m_offsets(stOptions.uPlayDelayMs),
      m_clock(m_ullStartTick), m_collector(static_cast<IUDTRecvEventCallBack*>(this)),
      m_pRecv(std::make_unique<CReceiver>(&m_collector, *this))
{
    m_dwStartTick = (uint32)m_ullStartTick;
    if (stOptions.dwFlightSeconds != 0)
    {
        m_pFlight = std::make_unique<CFlightRecorder>(stOptions.dwFlightSeconds);
        m_pFlight->SetPlayDelay(stOptions.uPlayDelayMs);
    }
    m_checks.SetStartTick(m_dwStartTick);
    m_collector.Attach(m_pRecv.get());
    m_collector.SetTimeAtTick((double)LiveNowUs() / 1000.0, m_ullStartTick);
    if (stOptions.bLowLatency)
    {
        // A 0 is taken for these two, so the values in force are repeated.
        tagUDTRecvParams stParams;
        stParams.wUdtMode = 1;
        stParams.wOutPutDelay = 200;
        stParams.wPushGopNum = 2;
        m_pRecv->UDTSetRecvParams(stParams);
    }
}

CLiveCall::~CLiveCall() { Stop(); }

void CLiveCall::Start()
{
    m_pRecv->SetRoomState(3);
    m_pRecv->Start();
}

void CLiveCall::Stop()
{
    if (!m_pRecv)
        return;
    {
        std::lock_guard<std::mutex> lock(m_lock);
        m_clock.MoveTo(LiveTick());
        m_collector.Snapshot(m_stLastStats);
    }
    m_pRecv->Stop();
    m_collector.Attach(nullptr);
    std::lock_guard<std::mutex> lock(m_lock);
    m_pRecv.reset();
    m_checks.Finish();
    if (m_stOptions.pSeries)
        m_stOptions.pSeries->Finish();
}

// ---- The worker ----

void CLiveCall::Work(CReceiver& recv)
{
    CVirtualClock clock(LiveTick());
    CLogTap tap(m_stOptions.nLogLevel, [this](UDT_LOG_LEVEL eLevel, const char* pszFunc, const char* pszText)
                { OnLogLine(eLevel, pszFunc, pszText); });
    while (!CRecvRig::IsStopped(recv))
    {
        MakeTurn(clock);
        usleep(c_dwTurnSleepUs);
    }
    std::lock_guard<std::mutex> lock(m_lock);
    clock.MoveTo(LiveTick());
    m_checks.StopBegins();
    recv.EndOfRun();
}

void CLiveCall::MakeTurn(CVirtualClock& clock)
{
    std::lock_guard<std::mutex> lock(m_lock);
    clock.MoveTo(LiveTick());
    m_ullNowTick = clock.Tick();
    m_dwNowTick = (uint32)m_ullNowTick;
    m_checks.TurnBegins(m_dwNowTick);
    m_playout.TurnBegins(m_dwNowTick);
    if (m_pFlight)
        m_pFlight->Turn(m_dwNowTick);
    m_pRecv->RunTurn();
    m_checks.TurnEnds();
    m_ullTurns++;
    m_cvTurn.notify_all();
    if (m_pFlight)
        m_pFlight->AfterTurn(*m_pRecv, m_dwNowTick);
    if (m_stOptions.pSeries && m_ullStartUs != 0 && m_stOptions.pSeries->SampleDue(clock.Tick()))
        m_stOptions.pSeries->Sample(*m_pRecv, clock.Tick(), true);
    if (m_stOptions.fnTurnEnds)
        m_stOptions.fnTurnEnds();
    if (m_stOptions.fnWake && !(m_vecAsks.empty() && m_vecPlis.empty()))
        m_stOptions.fnWake();
}

void CLiveCall::OnLogLine(UDT_LOG_LEVEL eLevel, const char* pszFunc, const char* pszText)
{
    m_checks.LogLine(pszText);
    if (strcmp(pszFunc, "PrintStatInfo") == 0)
        m_vecEndReport.push_back(pszText);
    if (m_stOptions.pSeries)
        m_stOptions.pSeries->LogLine(eLevel, pszFunc, pszText, m_ullNowTick);
    if (m_stOptions.fnLog && (int)eLevel <= m_stOptions.nLogLevel)
        m_stOptions.fnLog(fmt::format("{:10.3f} {} {}: {}", (m_dwNowTick - (uint32)m_ullStartTick) / 1000.0,
                                      (int)eLevel, pszFunc, pszText));
}

void CLiveCall::OnUDTRecvOutData(UDTCodecBaseDecode_V2* pPacket, int* pnDelay)
{
    CLivePacket& packet = static_cast<CLivePacket&>(*pPacket); // nothing else was ever fed
    m_checks.Released(packet);
    if (m_pFlight)
        m_pFlight->Released(packet.u64Uin, packet.m_cSubType, packet.dwSenderSeq);
    *pnDelay = (int)m_stOptions.uPlayDelayMs;
    m_playout.Released(*m_pRecv, packet, *pnDelay);

    tagStream& stStream = Stream(packet.m_uStream);
    const uint32 dwNowMs = m_dwNowTick - m_dwStartTick;
    const uint32 dwGap = stStream.st.bPlayed ? packet.dwSenderSeq - stStream.dwLastSeq - 1 : 0;
    if (packet.m_cSubType != MEAVAudio)
        WatchKeyFrames(stStream, packet.m_uStream, packet, packet.m_bLate ? 0 : dwGap);
    if (stStream.st.bPlayed)
        WatchStalls(stStream, packet.m_uStream, packet, m_dwNowTick);
    else
        stStream.st.dwFirstOutMs = dwNowMs;
    stStream.st.bPlayed = true;
    stStream.st.dwLastOutMs = dwNowMs;
    stStream.st.delay.Add(m_dwNowTick - packet.m_dwFedTick);
    m_offsets.Released(packet, m_dwNowTick);
    if (!packet.m_bLate)
    {
        stStream.dwLastSeq = packet.dwSenderSeq;
        stStream.cLastFrmType = packet.Head().cFrmType;
        stStream.bLastMarker = packet.m_bMarker;
    }
    stStream.dwLastMediaMs = packet.Head().uTimeStamp;
    stStream.dwLastTick = m_dwNowTick;
    if (m_stOptions.pSeries)
        m_stOptions.pSeries->PacketOut(*m_pRecv->GetReleasing(), *pnDelay, m_ullNowTick);
    m_drops.Played(packet.m_dwSsrc, packet.m_wRtpSeq, packet.m_bLate, LiveNowUs());
    if (m_stOptions.fnReleased)
        m_stOptions.fnReleased(packet, m_dwNowTick);
}

// A gap that was never filled and touches a key frame: nothing that follows can be decoded. Which frame a missing
// packet belonged to is known from its neighbours.
void CLiveCall::WatchKeyFrames(tagStream& stStream, uint32 uStream, const CLivePacket& packet, uint32 dwGap)
{
    if (dwGap == 0 || dwGap > 0x7FFF)
        return;
    const tagUdtPacketHeadInfo stHead = packet.Head();
    const bool bInside =
        stHead.cFrmType == def_FrameType_I && (stHead.cPkgIndex != 0 || stStream.bLastMarker);
    const bool bItsEnd = stStream.cLastFrmType == def_FrameType_I && !stStream.bLastMarker;
    const uint32 dwLostMediaMs = bInside ? stHead.uTimeStamp : stStream.dwLastMediaMs;
    // A newer key frame that waits already makes it good soon enough.
    if ((!bInside && !bItsEnd) || (int32)(stStream.dwKeyMediaMs - dwLostMediaMs) > 0)
        return;
    stStream.bKeySeen = false;
    stStream.bKeyLost = true;
    m_vecPlis.push_back({uStream, true});
}

void CLiveCall::WatchStalls(tagStream& stStream, uint32 uStream, const CLivePacket& packet, uint32 dwTick)
{
    const uint32 dwSilence = dwTick - stStream.dwLastTick;
    const int32 nMedia = (int32)(packet.Head().uTimeStamp - stStream.dwLastMediaMs);
    const uint32 dwMedia = nMedia > 0 ? (uint32)nMedia : 0;
    // Silence that the sender made (a pause, discontinuous transmission) shows in the media time, too.
    if (dwSilence < dwMedia + c_dwStallMs)
        return;
    m_ullStalls++;
    if (m_vecStalls.size() < c_nStallsKept)
        m_vecStalls.push_back({uStream, dwTick - m_dwStartTick, dwSilence - dwMedia});
}

int CLiveCall::UdtRecvHandleEvent(WORD wType, uint8* pBuffer, uint32 nBufSize, uint32, uint32)
{
    if (wType != AVGUdtRecvPacketEvent_LossRequest)
        return 0;
    const tagReplyData* pReply = reinterpret_cast<const tagReplyData*>(pBuffer);
    if (m_pFlight)
        m_pFlight->Requested(pReply, nBufSize);
    m_playout.Requested(*m_pRecv, pReply, nBufSize, m_dwNowTick);
    if (m_stOptions.pSeries)
        m_stOptions.pSeries->Requested(pReply, nBufSize, m_ullNowTick);
    for (uint32 i = 0; i < nBufSize; i++)
    {
        const auto it = m_mapKeys.find({pReply[i].ullUserAccount, pReply[i].cSubType});
        if (it != m_mapKeys.end())
            m_vecAsks.push_back({it->second, pReply[i].dwUserSeq});
    }
    return 0;
}

int CLiveCall::UdtParsePacketHeadInfo(uint8* pBuf, UdtPacketHeadInfo& stHead)
{
    memcpy(&stHead, pBuf, sizeof(stHead));
    return 0;
}

// ---- The network thread ----

// A stream begins afresh: the receiver drops what it has of it in a turn, and only then may new packets come.
void CLiveCall::ClearStream(uint64 llAccount, uint8 cSubType)
{
    std::unique_lock<std::mutex> lock(m_lock);
    m_clock.MoveTo(LiveTick());
    if (m_pFlight)
        m_pFlight->Cleared(llAccount, cSubType, (uint32)m_clock.Tick());
    m_checks.ClearAsked();
    m_pRecv->ClearRecvChn(llAccount, cSubType);
    const uint64 ullTurns = m_ullTurns;
    m_cvTurn.wait_for(lock, std::chrono::milliseconds(c_nClearWaitMs),
                      [&]() { return m_ullTurns != ullTurns; });
}

void CLiveCall::Feed(tagRtpMedia& stMedia)
{
    if (stMedia.bClear)
        ClearStream(stMedia.llAccount, stMedia.cSubType);
    const uint32 dwSsrc = stMedia.dwSsrc;
    CLivePacket* pPacket = new CLivePacket(stMedia.stHead, this);
    CScopePtr<UDTCodecBaseDecode_V2> pHeld(pPacket);
    pPacket->m_dwSsrc = dwSsrc;
    pPacket->m_bMarker = stMedia.bMarker;
    pPacket->m_wRtpSeq = stMedia.wRtpSeq;
    pPacket->Take(stMedia, m_stOptions.bKeepBytes);

    std::lock_guard<std::mutex> lock(m_lock);
    m_clock.MoveTo(LiveTick());
    const uint32 dwNow = (uint32)m_clock.Tick();
    if (m_ullStartUs == 0)
    {
        m_ullStartUs = stMedia.ullArrivalUs;
        m_dwStartTick = dwNow;
        m_checks.SetStartTick(dwNow);
        if (m_stOptions.pSeries)
            m_stOptions.pSeries->Begin(m_clock.Tick());
    }
    tagStream& stStream = Stream(stMedia.dwStream);
    if (!stStream.st.bFed)
    {
        stStream.st.bFed = true;
        stStream.st.dwFirstArrivalMs = dwNow - m_dwStartTick;
        stStream.dwSsrc = dwSsrc;
        stStream.cSubType = stMedia.cSubType;
        m_mapKeys[{stMedia.llAccount, stMedia.cSubType}] = stMedia.dwStream;
    }
    // Without a key frame nothing can be decoded: it is asked for until one comes.
    if (stMedia.cSubType != MEAVAudio)
    {
        const uint32 dwMediaMs = stMedia.stHead.uTimeStamp;
        const bool bKey = stMedia.stHead.cFrmType == def_FrameType_I;
        if (bKey && (!stStream.bKeySeen || (int32)(dwMediaMs - stStream.dwKeyMediaMs) > 0))
        {
            // What is repaired of the lost one itself is no new one.
            stStream.bKeySeen = !stStream.bKeyLost || dwMediaMs != stStream.dwKeyMediaMs;
            stStream.dwKeyMediaMs = dwMediaMs;
        }
        if (!stStream.bKeySeen)
            m_vecPlis.push_back({stMedia.dwStream, stStream.bKeyLost});
    }
    m_drops.Came(stMedia.dwSsrc, stMedia.wRtpSeq, LiveNowUs());
    m_checks.Fed(*pPacket, dwNow);
    if (m_pFlight)
        m_pFlight->Fed(stMedia, pPacket->wLen, dwNow);
    if (m_stOptions.pSeries)
    {
        tagSeriesPacket st;
        st.ullAccount = pPacket->u64Uin;
        st.cSubType = pPacket->m_cSubType;
        st.dwSeq = pPacket->dwSenderSeq;
        st.dwMediaMs = pPacket->Head().uTimeStamp;
        st.dwBytes = pPacket->wLen;
        st.bRetransmitted = pPacket->m_stArrival.bRetransmitted;
        m_stOptions.pSeries->PacketIn(st, m_clock.Tick());
    }
    m_collector.UDTReceiveNetData(pPacket->dwSenderSeq, pPacket->u64Uin, pPacket->dwSeq, pPacket->wTimeStamp,
                                  pPacket->m_cSubType, pPacket, pPacket->m_stArrival);
    pHeld = nullptr; // what the receiver did not keep goes with the lock held
}

void CLiveCall::SetRtt(uint32 dwMs)
{
    std::lock_guard<std::mutex> lock(m_lock);
    m_clock.MoveTo(LiveTick());
    m_dwRtt = dwMs;
    if (m_pFlight)
        m_pFlight->Rtt(dwMs, (uint32)m_clock.Tick());
    m_pRecv->UDTSetRecvRTT(dwMs);
}

void CLiveCall::PollDownlink()
{
    std::lock_guard<std::mutex> lock(m_lock);
    m_clock.MoveTo(LiveTick());
    if (m_pFlight)
        m_pFlight->DownlinkPolled((uint32)m_clock.Tick());
    uint32 dwExpect = 0;
    uint32 dwReal = 0;
    uint32 dwBytes = 0;
    uint32 dwIFrmLostInfo = 0;
    m_pRecv->GetDownPacketRecvInfo(dwExpect, dwReal, dwBytes, dwIFrmLostInfo);
    m_collector.DownlinkPolled(dwExpect, dwReal, dwBytes, dwIFrmLostInfo);
    if (!m_stOptions.pSeries || m_ullStartUs == 0)
        return;
    tagRecvInfo stInfo;
    m_pRecv->GetRecvInfo(stInfo);
    m_stOptions.pSeries->Downlink(stInfo.dwCurLossRate, m_clock.Tick());
}

void CLiveCall::Take(std::vector<tagLiveAsk>& vecAsks, std::vector<tagLivePli>& vecPlis)
{
    vecAsks.clear();
    vecPlis.clear();
    std::lock_guard<std::mutex> lock(m_lock);
    vecAsks.swap(m_vecAsks);
    vecPlis.swap(m_vecPlis);
}

std::vector<uint8> CLiveCall::Flight(const std::string& strWhy)
{
    std::lock_guard<std::mutex> lock(m_lock);
    return m_pFlight && m_pRecv ? m_pFlight->Bytes(strWhy) : std::vector<uint8>();
}

uint64 CLiveCall::StallsNow()
{
    std::lock_guard<std::mutex> lock(m_lock);
    return m_ullStalls;
}

void CLiveCall::Dropped(const tagDropped& st)
{
    std::lock_guard<std::mutex> lock(m_lock);
    m_drops.Dropped(st, LiveNowUs());
}

// ---- Figures ----

CLiveCall::tagStream& CLiveCall::Stream(uint32 uStream)
{
    if (uStream >= m_vecStreams.size())
        m_vecStreams.resize(uStream + 1);
    return m_vecStreams[uStream];
}

void CLiveCall::Snapshot(tagUdtStats& stStats)
{
    std::lock_guard<std::mutex> lock(m_lock);
    if (m_pRecv)
        m_collector.Snapshot(stStats);
    else
        stStats = m_stLastStats;
}

uint32 CLiveCall::RunMs()
{
    std::lock_guard<std::mutex> lock(m_lock);
    return (uint32)LiveTick() - m_dwStartTick;
}

uint64 CLiveCall::StartUs()
{
    std::lock_guard<std::mutex> lock(m_lock);
    return m_ullStartUs;
}

tagStreamResult CLiveCall::StreamResult(uint32 uStream)
{
    tagStreamResult st = Stream(uStream).st;
    st.stPackets = m_checks.Account(uStream);
    return st;
}

uint32 CLiveCall::FirstMs(uint32 uStream) { return Stream(uStream).st.dwFirstArrivalMs; }

void CLiveCall::PutAvOffset(tagUserResult& stUser)
{
    const tagAvOffset& st = m_offsets.Of(stUser.llAccount);
    stUser.avOffset = st.absolute;
    stUser.llAvSumMs = st.llSumMs;
}

} // namespace lab
