// One receiver with its own worker thread, on the real clock: what feeds it, what it plays, what it asks for.
#ifndef LAB_LIVECALL_H
#define LAB_LIVECALL_H

#include "AVGUDTRecv.h"
#include "AvOffset.h"
#include "FlightRecorder.h"
#include "Histogram.h"
#include "Impair.h"
#include "LogTap.h"
#include "MediaPacket.h"
#include "PlayoutChecks.h"
#include "Replay.h"
#include "RtpTypes.h"
#include "RunChecks.h"
#include "UdtStatsCollector.h"
#include "VirtualClock.h"

#include <condition_variable>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace lab
{

// Microseconds since 1970 that never run back: read once from the wall, then from the monotonic clock.
uint64 LiveNowUs();
// The receiver's clock at this moment: milliseconds of the same monotonic clock.
uint64 LiveTick();

class CLivePacket : public CMediaPacket
{
public:
    using CMediaPacket::CMediaPacket;
    uint32 m_dwSsrc = 0;
    uint16 m_wRtpSeq = 0; // the sender's own; after a restart of his not the low half of dwSenderSeq
    bool m_bMarker = false;
};

class CRunSeries;

struct tagLiveOptions
{
    CRunSeries* pSeries = nullptr; // is told what happens, for a report
    bool bLowLatency = false;
    uint32 uPlayDelayMs = 0;
    uint32 dwFlightSeconds = 0; // recorded for playback; 0: nothing
    bool bKeepBytes = false;    // somebody wants the bytes of what is played
    int nLogLevel = 0;
    std::function<void(const std::string& strLine)> fnLog; // worker thread
    // Worker thread, the call's lock held.
    std::function<void(CLivePacket& packet, uint32 dwTick)> fnReleased;
    std::function<void()> fnTurnEnds;
    std::function<void()> fnWake; // there is something to send
};

// The receiver asks for this packet.
struct tagLiveAsk
{
    uint32 uStream = 0;
    uint32 dwSendSeq = 0;
};

// A picture is wanted anew.
struct tagLivePli
{
    uint32 uStream = 0;
    bool bLost = false; // a key frame was lost; else the stream began without one
};

// How many milliseconds longer than its media lasts a stream said nothing.
struct tagLiveStall
{
    uint32 uStream = 0;
    uint32 dwAtMs = 0; // run time of the release that ended it
    uint32 dwMs = 0;
};

// The worker makes its turns, and the network thread hands packets in, under one lock, each with the clock standing
// still: so what happened has an order, and a recording of it can be played back to the same decisions. The worker
// is the receiver's own thread.
class CLiveCall : private IUDTRecvEventCallBack, private IPacketKeeper
{
public:
    explicit CLiveCall(const tagLiveOptions& stOptions);
    virtual ~CLiveCall();
    CLiveCall(const CLiveCall&) = delete;
    CLiveCall& operator=(const CLiveCall&) = delete;

    void Start();
    // The worker ends, the receiver writes its end report and goes.
    void Stop();

    // ---- Network thread ----
    void Feed(tagRtpMedia& stMedia);
    void SetRtt(uint32 dwMs);
    void PollDownlink();
    void Take(std::vector<tagLiveAsk>& vecAsks, std::vector<tagLivePli>& vecPlis);
    void Dropped(const tagDropped& st);

    // ---- Any thread ----
    // The flight recording; empty when nothing is recorded.
    std::vector<uint8> Flight(const std::string& strWhy);
    void Snapshot(tagUdtStats& stStats);
    uint32 RunMs();   // since the first packet, or the start
    uint64 StartUs(); // arrival of the first media packet; 0: none came

    // Stalls that ended so far.
    uint64 StallsNow();

    // ---- After Stop, or with the lock held ----
    CRunChecks& Checks() { return m_checks; }
    const CDropList& Drops() const { return m_drops; }
    tagStreamResult StreamResult(uint32 uStream);
    void PutAvOffset(tagUserResult& stUser);
    const std::vector<tagLiveStall>& Stalls() const { return m_vecStalls; }
    uint64 StallCount() const { return m_ullStalls; }
    uint32 Rtt() const { return m_dwRtt; }
    const std::vector<std::string>& EndReport() const { return m_vecEndReport; }
    uint32 FirstMs(uint32 uStream); // run time of a stream's first packet

    static constexpr uint32 c_dwStallMs = 500; // from when on silence is called a stall

private:
    class CReceiver;
    struct tagStream
    {
        tagStreamResult st;
        uint32 dwSsrc = 0;
        uint8 cSubType = 0;
        bool bKeySeen = false; // since the start, or since one was lost
        bool bKeyLost = false;
        uint32 dwKeyMediaMs = 0; // of the newest key frame that came
        // Of the last release
        uint32 dwLastSeq = 0;
        uint32 dwLastMediaMs = 0;
        uint32 dwLastTick = 0;
        uint8 cLastFrmType = 0;
        bool bLastMarker = false;
    };

    // Network thread
    void ClearStream(uint64 llAccount, uint8 cSubType);

    // The worker's
    void Work(CReceiver& recv);
    void MakeTurn(CVirtualClock& clock);
    void OnLogLine(UDT_LOG_LEVEL eLevel, const char* pszFunc, const char* pszText);

    // IUDTRecvEventCallBack
    void OnUDTRecvOutData(UDTCodecBaseDecode_V2* pPacket, int* pnDelay) override;
    int UdtRecvHandleEvent(WORD wType, uint8* pBuffer, uint32 nBufSize, uint32 nSendCount,
                           uint32 nUdtV2) override;
    int UdtParsePacketHeadInfo(uint8* pBuf, UdtPacketHeadInfo& stHead) override;
    // IPacketKeeper
    void OnPacketGone(CMediaPacket& packet) override { m_checks.Gone(packet); }

    tagStream& Stream(uint32 uStream);
    void WatchKeyFrames(tagStream& stStream, uint32 uStream, const CLivePacket& packet, uint32 dwGap);
    void WatchStalls(tagStream& stStream, uint32 uStream, const CLivePacket& packet, uint32 dwTick);

    const tagLiveOptions m_stOptions;
    const uint64 m_ullStartTick;
    std::mutex m_lock; // guards all below
    CRunChecks m_checks;
    CPlayoutChecks m_playout{[this](const std::string& strWhat) { m_checks.Report(strWhat); }};
    CDropList m_drops;
    std::unique_ptr<CFlightRecorder> m_pFlight;
    std::vector<tagStream> m_vecStreams;
    CAvOffsets m_offsets;
    std::map<std::pair<uint64, uint8>, uint32> m_mapKeys;
    std::vector<tagLiveAsk> m_vecAsks;
    std::vector<tagLivePli> m_vecPlis;
    std::vector<tagLiveStall> m_vecStalls; // the first ones
    uint64 m_ullStalls = 0;
    uint32 m_dwRtt = 0;
    uint64 m_ullStartUs = 0;
    uint32 m_dwStartTick = 0;         // of the first packet
    std::condition_variable m_cvTurn; // a turn was made
    uint64 m_ullTurns = 0;
    uint64 m_ullNowTick = 0; // of the turn being made
    uint32 m_dwNowTick = 0;  // the same
    std::vector<std::string> m_vecEndReport;
    tagUdtStats m_stLastStats;

    CVirtualClock m_clock; // of the network thread, which makes this object
    CUdtStatsCollector m_collector;
    std::unique_ptr<CReceiver> m_pRecv;
};

} // namespace lab

#endif
