// A whole call: senders, the relay between, and the receiver's end of the wire.
#ifndef LAB_SIMCALL_H
#define LAB_SIMCALL_H

#include "LabRun.h"
#include "RunLoop.h"
#include "SimNet.h"
#include "SimScenario.h"
#include "SimSender.h"
#include "SimStream.h"
#include "Simulate.h"

#include <map>
#include <memory>
#include <vector>

namespace lab
{

// The source of everything that happens in a simulated run, and the owner of the receiver in it.
//
//   senders --up--> relay --down--> receiver --request--> relay --back--> senders
//
// Nothing here knows the real clock, and every random number comes from the seed.
class CSimCall : public IEventSource, public IRunObserver, private ISimDropWatch, private ISimStreamMaker
{
public:
    CSimCall(const tagScenario& stScenario, const tagSimHooks& stHooks);
    ~CSimCall() override;

    void Begin(CLabRun& run);

    // IEventSource
    bool Peek(int64& llTimeUs) override;
    void Fire(CLabRun& run) override;
    // IRunObserver
    int OnReleased(CMediaPacket& packet, uint32 dwTick) override;
    void OnLossRequest(const tagReplyData* pReply, uint32 uCount, uint32 dwTick) override;
    void OnLogLine(UDT_LOG_LEVEL eLevel, const char* pszFunc, const char* pszText, uint32 dwMs) override;

    // After the run.
    void Gather(tagSimResult& stResult);

private:
    enum emWhat
    {
        FROM_UP,
        FROM_BACK,
        FROM_REQUEST,
        FROM_DOWN,
        FROM_TIMER,
        FROM_NOTHING
    };
    enum emTimer
    {
        TIMER_JOIN,
        TIMER_RTT,
        TIMER_POLL,
        TIMER_END,
        TIMERS
    };
    struct tagUser
    {
        std::string strName;
        double dSkewPpm = 0;
        std::array<CSimStream*, SIM_STREAMS> aStreams{}; // the present ones
        bool bAudioOut = false;
        uint32 dwAudioLag = 0; // release tick minus media time, of the audio released last
        CMsHistogram avOffset;
        int64 llAvSumMs = 0;
        std::array<uint32, SIM_STREAMS> aLastFrameMs{};
        std::array<bool, SIM_STREAMS> aFrame{};
    };
    struct tagMessage
    {
        uint32 uNumber = 0;
        std::vector<std::pair<uint32, uint32>> vecAsked; // stream, index
    };

    // ISimDropWatch
    void OnDropped(emSimWay eWay, const tagSimPacket& stPacket, emSimDrop eWhy) override;
    // ISimStreamMaker
    CSimStream& NewStream(uint32 uUser, int nKind, uint32 uEpoch, const tagSimFirst& stFirst,
                          double dPacketsPerSecond) override;

    int64 JoinUs() const;
    void OnTimer(CLabRun& run, emTimer eTimer, int64 llNowUs);
    void AtRelay(int64 llNowUs, const tagSimPacket& stPacket);
    void AtSender(int64 llNowUs, const tagSimPacket& stPacket);
    void Asked(int64 llNowUs, const tagSimPacket& stPacket);
    void AtReceiver(CLabRun& run, int64 llNowUs, const tagSimPacket& stPacket);
    void PushToJoiner(int64 llNowUs);
    void Forward(int64 llNowUs, const tagSimPacket& stPacket);
    void MeasureAvOffset(tagUser& stUser, const CSimStream& stream, uint32 dwMediaMs, uint32 dwTick);
    CSimStream& Stream(uint32 uNumber) { return *m_vecStreams[uNumber]; }

    const tagScenario& m_stScenario;
    const tagSimHooks& m_stHooks;
    CLabRun* m_pRun = nullptr;

    std::vector<std::unique_ptr<CSimStream>> m_vecStreams;
    std::vector<tagUser> m_vecUsers;
    std::vector<CSimSender*> m_vecSenders; // inside of m_vecUp
    std::vector<SimSourcePtr> m_vecUp;     // one link for each sender
    std::vector<int64> m_vecUpNext;        // what their NextUs says
    CSimInbox* m_pDownIn = nullptr;        // inside of m_pDown, and so on
    CSimInbox* m_pRequestIn = nullptr;
    CSimInbox* m_pBackIn = nullptr;
    SimSourcePtr m_pDown;
    SimSourcePtr m_pRequest;
    SimSourcePtr m_pBack;

    std::array<int64, TIMERS> m_aTimers;
    emWhat m_eNext = FROM_NOTHING; // found by Peek
    size_t m_nNext = 0;            // sender or timer
    int64 m_llNextUs = 0;

    bool m_bJoined = false;
    uint32 m_dwDownSeq = 0;
    int64 m_llPushEndUs = 0; // until then what is sent on waits behind the push
    uint32 m_uMessage = 0;
    std::vector<tagMessage> m_vecMessages; // ring by number
    bool m_bEnded = false;
    tagSimTraffic m_stTraffic;
    CMsHistogram m_rtt;
};

} // namespace lab

#endif
