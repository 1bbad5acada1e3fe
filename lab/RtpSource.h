// A capture as a source of events: reader and RTP side joined, media packets out in arrival order.
#ifndef LAB_RTPSOURCE_H
#define LAB_RTPSOURCE_H

#include "CaptureReader.h"
#include "RtpIntake.h"
#include "RunLoop.h"

#include <functional>

namespace lab
{

// Feeds every media packet of a scanned capture to a run. The run's time 0 is the first packet's arrival.
class CRtpSource : public IEventSource
{
public:
    // Called with each packet right before it is fed.
    typedef std::function<void(const tagRtpMedia& stMedia, CMediaPacket& packet, int64 llTimeUs)> FnFeed;
    typedef std::function<void(const tagRtpEvent& stEvent)> FnEvent;

    CRtpSource(ICaptureReader& reader, CRtpIntake& intake, bool bKeepBytes);

    void OnFeed(FnFeed fnFeed) { m_fnFeed = std::move(fnFeed); }
    void OnEvent(FnEvent fnEvent) { m_fnEvent = std::move(fnEvent); }

    bool Peek(int64& llTimeUs) override;
    void Fire(CLabRun& run) override;

    // Arrival of the first media packet, microseconds since 1970; 0 while there was none.
    uint64 StartUs() const { return m_ullStartUs; }
    // Of the last media packet, since the start.
    int64 LastUs() const { return m_llTimeUs; }

private:
    bool FetchMedia();
    void DrainEvents();

    ICaptureReader& m_reader;
    CRtpIntake& m_intake;
    const bool m_bKeepBytes;
    FnFeed m_fnFeed;
    FnEvent m_fnEvent;
    tagRtpMedia m_stMedia;
    bool m_bThere = false;
    bool m_bStarted = false;
    bool m_bFlushed = false;
    uint64 m_ullStartUs = 0;
    int64 m_llTimeUs = 0; // of m_stMedia, never running back
};

} // namespace lab

#endif
