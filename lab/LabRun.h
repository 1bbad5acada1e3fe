// One receiver in virtual time: clock, owner, log and checks around it.
#ifndef LAB_LABRUN_H
#define LAB_LABRUN_H

#include "AVGUDTRecv.h"
#include "LogTap.h"
#include "MediaPacket.h"
#include "PlayoutChecks.h"
#include "RunChecks.h"
#include "UdtStatsCollector.h"
#include "VirtualClock.h"

#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace lab
{

class CRunSeries;

// What a run tells whoever counts it.
class IRunObserver
{
public:
    // A packet is released at this tick. @return the owner's audio play delay in ms; read for audio only.
    virtual int OnReleased(CMediaPacket& packet, uint32 dwTick) = 0;
    // The receiver asks for missing packets.
    virtual void OnLossRequest(const tagReplyData* pReply, uint32 uCount, uint32 dwTick) = 0;
    // A log line of the receiver, at this many ms since the run began.
    virtual void OnLogLine(UDT_LOG_LEVEL, const char* /*pszFunc*/, const char* /*pszText*/, uint32 /*dwMs*/)
    {
    }

protected:
    ~IRunObserver() = default;
};

struct tagRunOptions
{
    uint64 ullStartTick = 1000000; // of the virtual clock
    bool bLowLatency = false;
    int nLogLevel = LOG_LEVEL_ERROR; // lines up to this level reach the observer
    CRunSeries* pSeries = nullptr;   // is told what happens, for a report
};

// Drives a receiver without a thread. Times are microseconds since the run began; the clock stands at the
// millisecond they lie in.
class CLabRun : private IUDTRecvEventCallBack, private IPacketKeeper
{
public:
    CLabRun(const tagRunOptions& stOptions, IRunObserver& observer);
    ~CLabRun();
    CLabRun(const CLabRun&) = delete;
    CLabRun& operator=(const CLabRun&) = delete;

    // A packet for this run; it belongs to the caller until Feed.
    CMediaPacket* NewPacket(const tagUdtPacketHeadInfo& stHead);
    // Hands it to the receiver. dwSenderSeq, dwSeq, u64Uin, wTimeStamp, wLen, m_uStream and m_cSubType are
    // the caller's to set.
    void Feed(CMediaPacket* pPacket, int64 llTimeUs);
    void Turn(int64 llTimeUs);
    // A stream begins afresh: what of it is buffered is dropped and what was known of it forgotten, before the next
    // packet is fed. A turn is made for it.
    void ClearStream(uint64 ullUin, uint8 cSubType, int64 llTimeUs);
    // Ends the run: the receiver stops and is destroyed, the last checks are made.
    void Stop();

    // Packets fed and not let go yet. 0 after a turn: every buffer is empty.
    uint64 Live() const { return m_checks.Live(); }
    // Streams that the receiver knows.
    uint32 LiveStreams();
    uint32 TickAt(int64 llTimeUs) const { return (uint32)(m_ullStartTick + (uint64)(llTimeUs / 1000)); }
    uint32 MsSinceStart(uint32 dwTick) const { return dwTick - (uint32)m_ullStartTick; }
    CRunChecks& Checks() { return m_checks; }
    CPlayoutChecks& Playout() { return m_playout; }
    CAVGUdtRecv& Receiver() { return *m_pRecv; }
    // What was counted between receiver and owner; after Stop as it stood just before.
    void Snapshot(tagUdtStats& stStats);
    // The time of day at which the run begins, microseconds since 1970.
    void SetStartOfDay(uint64 ullUnixUs)
    {
        m_collector.SetTimeAtTick((double)ullUnixUs / 1000.0, m_ullStartTick);
    }
    // The owner polled the downlink loss.
    void PollDownlink();
    // After Stop: the receiver's own report, line by line.
    const std::vector<std::string>& EndReport() const { return m_vecEndReport; }

private:
    // IUDTRecvEventCallBack
    void OnUDTRecvOutData(UDTCodecBaseDecode_V2* pPacket, int* pnDelay) override;
    int UdtRecvHandleEvent(WORD wType, uint8* pBuffer, uint32 nBufSize, uint32 nSendCount,
                           uint32 nUdtV2) override;
    int UdtParsePacketHeadInfo(uint8* pBuf, UdtPacketHeadInfo& stHead) override;
    // IPacketKeeper
    void OnPacketGone(CMediaPacket& packet) override;

    const uint64 m_ullStartTick;
    IRunObserver& m_observer;
    CRunSeries* const m_pSeries;
    CRunChecks m_checks;
    CPlayoutChecks m_playout{[this](const std::string& strWhat) { m_checks.Report(strWhat); }};
    std::vector<std::string> m_vecEndReport;
    CVirtualClock m_clock;
    CLogTap m_tap;
    CUdtStatsCollector m_collector;
    std::unique_ptr<CAVGUdtRecv> m_pRecv;
    tagUdtStats m_stLastStats; // taken when the receiver went
};

} // namespace lab

#endif
