// The network thread: sockets, impairment, the RTP side, feedback and timers, all in one poll loop. It hands packets
// to the call and takes requests from it; the call's own worker does the rest.
#include "Listen.h"

#include "ListenReport.h"
#include "PlayedWriter.h"
#include "RtpFeedback.h"
#include "RtpIntake.h"
#include "RtpPacket.h"
#include "RunSeries.h"
#include "Udp.h"
#include "WebServer.h"

#include <fmt/format.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <csignal>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <poll.h>
#include <random>
#include <set>
#include <sys/eventfd.h>
#include <sys/signalfd.h>
#include <unistd.h>

namespace lab
{

namespace
{

constexpr uint64 c_ullSecondUs = 1000000;
constexpr uint64 c_ullUnlockUs = 5 * c_ullSecondUs; // silence after which a port's source may be another one
constexpr uint64 c_ullPliEveryUs = c_ullSecondUs;   // per stream
constexpr uint64 c_ullPollDownlinkUs = 2 * c_ullSecondUs;
constexpr uint32 c_dwTailMs = 3000; // what was dropped this late may come back or be played after the end
constexpr int c_nIdleMs = 5;        // between looks at what was held for its frame
constexpr int c_nDatagramsAtOnce = 64;
constexpr size_t c_nMostUnheard = 4096; // SSRCs that only RTCP told of

bool SameHost(const tagRtpAddr& stA, const tagRtpAddr& stB)
{
    return stA.cFamily == stB.cFamily && stA.aAddr == stB.aAddr;
}

struct tagLock
{
    tagRtpAddr stSrc; // family 0: open
    uint64 ullLastUs = 0;
};

// A port of RTP with its RTCP.
struct tagDoor
{
    std::string strMedium;
    tagRtpAddr stRtp;
    tagRtpAddr stRtcp;
    CFd fdRtp;
    CFd fdRtcp; // not open: on the same port
    tagLock stLock;
    std::map<uint32, tagLock> mapLocks;       // by SSRC, where sources may be many
    std::map<uint32, tagRtpAddr> mapRtcpFrom; // of them, and of some whose first packet has not come
    tagRtpAddr stRtcpTo;                      // the last that sent any
    bool bRtcpToFixed = false;
    std::map<uint32, CRtpReportSource> mapReports;
    tagListenSource st;

    const CFd& RtcpFd() const { return fdRtcp.IsOpen() ? fdRtcp : fdRtp; }
};

// The round trip, from the best that answers.
class CRtt
{
public:
    // The sender answered our reference time.
    void Exact(double dMs)
    {
        if (!m_bExact)
            m_bAny = false; // what answers told was with the sender's own delay
        m_bExact = true;
        Take(dMs);
    }
    // An answer to a request came this much later.
    void Answer(double dMs)
    {
        if (!m_bExact)
            Take(dMs);
    }
    bool Known() const { return m_bAny; }
    bool IsExact() const { return m_bExact; }
    double Ms() const { return m_dMs; }

private:
    void Take(double dMs)
    {
        m_dMs = m_bAny ? m_dMs + (dMs - m_dMs) / 8 : dMs;
        m_bAny = true;
    }
    bool m_bAny = false;
    bool m_bExact = false;
    double m_dMs = 0;
};

class CListen
{
public:
    CListen(const tagListenOptions& stOptions, const tagListenHooks& stHooks);
    bool Open();
    void Run();
    tagListenResult Finish();
    tagListenResult m_stResult;

private:
    // What came in
    void Receive(tagDoor& door, const CFd& fd, uint32 uDoor, bool bRtcpPort);
    void ReceiveRtcp();
    bool IsKnown(const tagRtpDatagram& st) const;
    bool IsWelcome(tagDoor& door, const tagRtpDatagram& st, bool bRtcp);
    bool IsRtcpWelcome(tagDoor& door, const tagRtpDatagram& st);
    void Deliver(const tagRtpDatagram& st, uint32 uDoor);
    std::string UserOf(const tagRtpDatagram& st, uint32 dwSsrc) const;
    void NameSource(const tagRtpDatagram& st, uint32 dwSsrc);
    void LockNewStreams();
    void Drain();
    void OnEvent(const tagRtpEvent& stEvent);

    // What goes out
    void SendRequests();
    void SendReports(bool bBye);
    tagRtpAddr RtcpTo(const tagDoor& door, uint32 dwSsrc) const;
    void Send(tagDoor& door, const tagRtpAddr& stTo, const tagRtcpFeedback& stFeedback);
    void WantPli(uint32 uStream, uint64& ullCount, uint64 ullNowUs);
    void TellRtt();
    void OnReleased(CLivePacket& packet);
    void ForwardTurn();

    // Time
    int PollTimeout(uint64 ullNowUs);
    void Timers(uint64 ullNowUs);
    tagListenFeedback FeedbackNow() const;
    tagRtpStreamInfo Named(tagRtpStreamInfo stInfo) const;
    tagUdtStats StatsNow();
    std::string LiveReport();
    bool WriteFlight(const std::string& strWhy, std::string& strText);
    void LookForStalls(uint64 ullNowUs);
    void GatherStreams();
    void GatherDrops(uint64 ullEndUs);

    struct tagKnown // of a stream of the intake
    {
        tagRtpStreamInfo stInfo; // as it began
        uint32 uDoor = 0;
        uint64 ullLastPliUs = 0;
    };
    struct tagAsked
    {
        uint64 ullUs;
        uint32 dwTimes;
    };
    struct tagForward
    {
        uint32 dwMediaMs;
        uint8 cSubType;
        std::vector<uint8> vecBytes;
    };

    const tagListenOptions& m_stOptions;
    const tagListenHooks& m_stHooks;
    std::vector<std::unique_ptr<tagDoor>> m_vecDoors;
    CFd m_fdWake;
    CFd m_fdSignal;
    CFd m_fdForward4;
    CFd m_fdForward6;
    std::unique_ptr<CPlayedWriter> m_pWriter;
    CRtpIntake m_intake;
    CImpair m_impair;
    CRtpShaper m_shaper;
    std::unique_ptr<CLiveCall> m_pCall;
    std::vector<tagKnown> m_vecKnown;
    std::set<uint32> m_setNamed; // SSRCs whose user was told to the intake before their first packet
    std::map<uint32, std::string> m_mapCnames; // heard
    std::unique_ptr<CWebServer> m_pWeb;
    std::mutex m_lockStatus; // guards what follows: the web's threads read it
    std::vector<tagRtpStreamInfo> m_vecStatus;
    tagListenFeedback m_stStatus;
    std::vector<tagForward> m_vecForward; // of the turn being made; worker, call's lock
    uint64 m_ullForwarded = 0;
    CRtt m_rtt;
    uint32 m_dwRttTold = 0;
    std::map<tagRtpAsk, tagAsked> m_mapAsked; // for the round trip
    tagListenFeedback m_stFeedback;
    uint32 m_dwSsrc = 0;
    std::string m_strCname;
    std::mt19937 m_random;
    uint64 m_ullNextReportUs = 0;
    uint64 m_ullNextSecondUs = 0;
    uint64 m_ullNextPollUs = 0;
    uint64 m_ullBeganUs = 0;
    uint64 m_ullLastMediaUs = 0;
    bool m_bStop = false;
    uint64 m_ullNamed = 0;
    uint64 m_ullStallsSeen = 0;
    uint64 m_ullStallFlightUs = 0;
    std::vector<uint8> m_vecBuffer;
    std::vector<uint8> m_vecRtcpBuffer; // RTCP is read while a packet of RTP waits in the other
};

tagRtpOptions LiveRtp(const tagListenOptions& stOptions)
{
    tagRtpOptions st = stOptions.stRtp;
    st.bLive = true;
    return st;
}

CListen::CListen(const tagListenOptions& stOptions, const tagListenHooks& stHooks)
    : m_stOptions(stOptions), m_stHooks(stHooks), m_intake(LiveRtp(stOptions)), m_impair(stOptions.stImpair),
      m_shaper(stOptions.stShaper), m_random(std::random_device()()), m_vecBuffer(65536),
      m_vecRtcpBuffer(65536)
{
    m_dwSsrc = (uint32)m_random();
    m_strCname = fmt::format("udtlab-{:08x}{:08x}", (uint32)m_random(), (uint32)m_random());
}

// ---- Opening ----

bool CListen::Open()
{
    std::string& strError = m_stResult.strError;
    tagRtpAddr stBind;
    if (!ParseAddress(m_stOptions.strBind, stBind, strError))
        return false;
    for (const tagListenPort& stPort : m_stOptions.vecPorts)
    {
        auto pDoor = std::make_unique<tagDoor>();
        pDoor->strMedium = stPort.strMedium;
        pDoor->bRtcpToFixed = stPort.stRtcpTo.cFamily != 0;
        pDoor->stRtcpTo = stPort.stRtcpTo;
        // A pair of free ports may need some tries: the one above a free port is not always free.
        for (int nTry = 0;; nTry++)
        {
            const bool bTryAgain = stPort.wPort == 0 && nTry < 50;
            pDoor->stRtp = stBind;
            pDoor->stRtp.wPort = stPort.wPort;
            if (!BindUdp(pDoor->stRtp, pDoor->fdRtp, strError))
                return false;
            pDoor->stRtcp = pDoor->stRtp;
            if (m_stOptions.bRtcpMux)
                break;
            pDoor->stRtcp.wPort = (uint16)(pDoor->stRtp.wPort + 1);
            if (pDoor->stRtcp.wPort != 0 && BindUdp(pDoor->stRtcp, pDoor->fdRtcp, strError))
                break;
            if (!bTryAgain)
                return false;
            strError.clear();
        }
        strError.clear();
        pDoor->st.strMedium = pDoor->strMedium;
        pDoor->st.strListens = pDoor->stRtp.Text();
        pDoor->st.strRtcp = pDoor->stRtcp.Text();
        m_vecDoors.push_back(std::move(pDoor));
    }
    if (!m_stOptions.strOut.empty() && !(m_pWriter = CPlayedWriter::Open(m_stOptions.strOut, strError)))
        return false;
    m_fdWake = CFd(eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC));
    if (m_stOptions.bSignals)
    {
        sigset_t set;
        sigemptyset(&set);
        sigaddset(&set, SIGINT);
        sigaddset(&set, SIGTERM);
        sigaddset(&set, SIGUSR1);
        pthread_sigmask(SIG_BLOCK, &set, nullptr); // threads made later inherit it
        m_fdSignal = CFd(signalfd(-1, &set, SFD_NONBLOCK | SFD_CLOEXEC));
    }
    if (!m_stOptions.vecForward.empty())
    {
        m_fdForward4 = CFd(socket(AF_INET, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
        m_fdForward6 = CFd(socket(AF_INET6, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
    }

    tagLiveOptions stLive;
    stLive.bLowLatency = m_stOptions.bLowLatency;
    stLive.uPlayDelayMs = m_stOptions.uPlayDelayMs;
    stLive.nLogLevel = m_stOptions.nLogLevel;
    stLive.fnLog = m_stOptions.fnLog;
    stLive.bKeepBytes = m_pWriter != nullptr || !m_stOptions.vecForward.empty();
    if (stLive.bKeepBytes)
        stLive.fnReleased = [this](CLivePacket& packet, uint32) { OnReleased(packet); };
    if (!m_stOptions.vecForward.empty())
        stLive.fnTurnEnds = [this]() { ForwardTurn(); };
    stLive.fnWake = [this]()
    {
        const uint64_t ullOne = 1;
        (void)!write(m_fdWake.Get(), &ullOne, sizeof(ullOne));
    };
    stLive.dwFlightSeconds = m_stOptions.dwFlightSeconds;
    stLive.pSeries = m_stOptions.pSeries;
    m_pCall = std::make_unique<CLiveCall>(stLive);
    if (m_stOptions.nWebPort < 0)
        return true;
    tagWebHooks stWeb;
    stWeb.fnReport = [this]() { return LiveReport(); };
    stWeb.fnMetrics = [this]() { return UdtStatsOpenMetrics(StatsNow()); };
    stWeb.fnFlight = [this](std::string& strText) { return WriteFlight("request", strText); };
    stWeb.fnStats = [this]() { return UdtStatsJson(StatsNow()) + "\n"; };
    m_pWeb = std::make_unique<CWebServer>(stWeb);
    return m_pWeb->Start(m_stOptions.strWebBind, (uint16)m_stOptions.nWebPort, strError);
}

// ---- The loop ----

void CListen::Run()
{
    m_ullBeganUs = LiveNowUs();
    m_ullNextSecondUs = m_ullBeganUs + c_ullSecondUs;
    m_ullNextReportUs = m_ullBeganUs + c_ullSecondUs / 2;
    m_ullNextPollUs = m_ullBeganUs + c_ullPollDownlinkUs;
    m_pCall->Start();
    if (m_stHooks.fnReady)
    {
        std::vector<tagListenSource> vec;
        for (const auto& pDoor : m_vecDoors)
            vec.push_back(pDoor->st);
        m_stHooks.fnReady(vec, m_pWeb ? fmt::format("http://{}:{}/",
                                                    m_stOptions.strWebBind.find(':') == std::string::npos
                                                        ? m_stOptions.strWebBind
                                                        : "[" + m_stOptions.strWebBind + "]",
                                                    m_pWeb->Port())
                                      : "");
    }

    std::vector<pollfd> vecPoll;
    const auto add = [&vecPoll](const CFd& fd) { vecPoll.push_back({fd.Get(), POLLIN, 0}); };
    for (const auto& pDoor : m_vecDoors)
    {
        add(pDoor->fdRtp);
        add(pDoor->fdRtcp); // negative where there is none: poll passes it over
    }
    add(m_fdWake);
    add(m_fdSignal);
    while (!m_bStop)
    {
        if (poll(vecPoll.data(), vecPoll.size(), PollTimeout(LiveNowUs())) < 0 && errno != EINTR)
            break;
        ReceiveRtcp();
        for (size_t i = 0; i < m_vecDoors.size(); i++)
            if (vecPoll[2 * i].revents != 0)
                Receive(*m_vecDoors[i], m_vecDoors[i]->fdRtp, (uint32)i, false);
        uint64_t ullCount = 0;
        if (vecPoll[2 * m_vecDoors.size()].revents != 0)
            (void)!read(m_fdWake.Get(), &ullCount, sizeof(ullCount));
        if (vecPoll.back().revents != 0)
        {
            signalfd_siginfo stSignal;
            if (read(m_fdSignal.Get(), &stSignal, sizeof(stSignal)) == sizeof(stSignal))
            {
                std::string strText;
                if (stSignal.ssi_signo != SIGUSR1)
                    m_bStop = true;
                else
                    WriteFlight("signal", strText);
            }
        }
        const uint64 ullNowUs = LiveNowUs();
        tagHeldDatagram stHeld;
        while (m_impair.Take(ullNowUs, stHeld))
            Deliver(stHeld.st, stHeld.uDoor);
        m_intake.Advance(ullNowUs);
        Drain();
        SendRequests();
        Timers(ullNowUs);
    }
    SendReports(true);
}

int CListen::PollTimeout(uint64 ullNowUs)
{
    // Packets held a few ms for their frame leave when time moves on.
    uint64 ullWhenUs = ullNowUs + (ullNowUs - m_ullLastMediaUs < c_ullSecondUs ? c_nIdleMs : 50) * 1000ull;
    uint64 ullOther = 0;
    if (m_impair.NextUs(ullOther))
        ullWhenUs = std::min(ullWhenUs, ullOther);
    if (m_shaper.NextUs(ullOther))
        ullWhenUs = std::min(ullWhenUs, ullOther);
    ullWhenUs = std::min({ullWhenUs, m_ullNextReportUs, m_ullNextSecondUs});
    return ullWhenUs <= ullNowUs ? 0 : (int)((ullWhenUs - ullNowUs + 999) / 1000);
}

void CListen::Timers(uint64 ullNowUs)
{
    if (ullNowUs >= m_ullNextReportUs)
    {
        SendReports(false);
        // RFC 3550 6.3.5: half to one and a half times the interval, so that many receivers do not fall into step.
        m_ullNextReportUs = ullNowUs + c_ullSecondUs / 2 + m_random() % c_ullSecondUs;
    }
    if (ullNowUs >= m_ullNextPollUs)
    {
        m_ullNextPollUs = ullNowUs + c_ullPollDownlinkUs;
        m_pCall->PollDownlink();
    }
    if (ullNowUs >= m_ullNextSecondUs)
    {
        m_ullNextSecondUs += c_ullSecondUs;
        TellRtt();
        LookForStalls(ullNowUs);
        if (m_stHooks.fnSecond || m_pWeb)
        {
            tagListenNow stNow;
            stNow.dwRunMs = m_pCall->StartUs() == 0 ? 0 : m_pCall->RunMs();
            stNow.ullDropped = m_impair.Dropped();
            stNow.stFeedback = FeedbackNow();
            for (uint32 i = 0; i < m_intake.StreamCount(); i++)
                stNow.vecStreams.push_back(Named(m_intake.Stream(i)));
            {
                std::lock_guard<std::mutex> lock(m_lockStatus);
                m_vecStatus = stNow.vecStreams;
                m_stStatus = stNow.stFeedback;
            }
            if (m_stHooks.fnSecond)
            {
                m_pCall->Snapshot(stNow.stStats);
                m_stHooks.fnSecond(stNow);
            }
        }
    }
    if (m_stOptions.dwDurationMs != 0 && ullNowUs - m_ullBeganUs >= m_stOptions.dwDurationMs * 1000ull)
        m_bStop = true;
    if (m_stOptions.pStop != nullptr && *m_stOptions.pStop)
        m_bStop = true;
}

// ---- What comes in ----

void CListen::Receive(tagDoor& door, const CFd& fd, uint32 uDoor, bool bRtcpPort)
{
    for (int i = 0; i < c_nDatagramsAtOnce; i++)
    {
        std::vector<uint8>& vecBuffer = bRtcpPort ? m_vecRtcpBuffer : m_vecBuffer;
        sockaddr_storage stFrom = {};
        socklen_t nFrom = sizeof(stFrom);
        const ssize_t nGot = recvfrom(fd.Get(), vecBuffer.data(), vecBuffer.size(), 0,
                                      reinterpret_cast<sockaddr*>(&stFrom), &nFrom);
        if (nGot < 0)
            return;
        tagRtpDatagram st;
        st.ullArrivalUs = LiveNowUs();
        st.stSrc = FromSockaddr(stFrom);
        st.stDst = bRtcpPort ? door.stRtcp : door.stRtp;
        st.pData = vecBuffer.data();
        st.dwCaptured = st.dwWire = (uint32)nGot;
        if (!bRtcpPort && !IsKnown(st))
        {
            ReceiveRtcp();
            st.ullArrivalUs = LiveNowUs(); // behind what was just read: locks count from there
        }
        if (!IsWelcome(door, st, bRtcpPort || IsRtcp(st.pData, st.dwCaptured)))
            continue;
        door.st.ullDatagrams++;
        if (!m_stOptions.stImpair.Any())
        {
            Deliver(st, uDoor);
            continue;
        }
        tagDropped stDropped;
        if (!m_impair.Put(st, uDoor, stDropped))
            m_pCall->Dropped(stDropped);
    }
}

// RTCP of all ports is read before a stream begins, also what came since the loop woke up: whose the stream is, nobody
// takes in later.
void CListen::ReceiveRtcp()
{
    for (size_t i = 0; i < m_vecDoors.size(); i++)
        if (m_vecDoors[i]->fdRtcp.IsOpen())
            Receive(*m_vecDoors[i], m_vecDoors[i]->fdRtcp, (uint32)i, true);
}

// A packet of a stream that began.
bool CListen::IsKnown(const tagRtpDatagram& st) const
{
    tagRtpHeader stHeader;
    emRtpDrop eReason = RTP_DROP_NOT_RTP;
    return ParseRtp(st.pData, st.dwCaptured, st.dwWire, stHeader, eReason) &&
           std::any_of(m_vecKnown.begin(), m_vecKnown.end(),
                       [&](const tagKnown& stKnown) { return stKnown.stInfo.dwSsrc == stHeader.dwSsrc; });
}

// A port is held to the source of its stream: whoever else sends there is counted and not listened to. RTCP may come
// from another port of the same host. A source that fell silent gives way.
bool CListen::IsWelcome(tagDoor& door, const tagRtpDatagram& st, bool bRtcp)
{
    if (bRtcp)
        return IsRtcpWelcome(door, st);
    tagLock* pLock = &door.stLock;
    if (m_stOptions.bAnySource)
    {
        tagRtpHeader stHeader;
        emRtpDrop eReason = RTP_DROP_NOT_RTP;
        if (!ParseRtp(st.pData, st.dwCaptured, st.dwWire, stHeader, eReason))
            return true; // the intake says why not
        const auto it = door.mapLocks.find(stHeader.dwSsrc);
        if (it == door.mapLocks.end())
            return true;
        pLock = &it->second;
    }
    if (pLock->stSrc.cFamily == 0)
        return true;
    if (!(pLock->stSrc == st.stSrc))
    {
        if (st.ullArrivalUs - pLock->ullLastUs < c_ullUnlockUs)
        {
            door.st.ullForeign++;
            return false;
        }
        *pLock = tagLock();
        door.st.ullRelocked++;
        if (!m_stOptions.bAnySource && !door.bRtcpToFixed)
            door.stRtcpTo = tagRtpAddr();
        // Its streams are still the intake's, so the one who goes on with them is taken for the sender from here.
        if (IsKnown(st))
            *pLock = {st.stSrc, st.ullArrivalUs};
        return true;
    }
    pLock->ullLastUs = st.ullArrivalUs;
    return true;
}

bool CListen::IsRtcpWelcome(tagDoor& door, const tagRtpDatagram& st)
{
    // Where sources may be many, who speaks for an SSRC has to be its own.
    uint32 dwSender = 0;
    const bool bSender = m_stOptions.bAnySource && RtcpSender(st.pData, st.dwCaptured, dwSender);
    const auto it = bSender ? door.mapLocks.find(dwSender) : door.mapLocks.end();
    const bool bOurs = it != door.mapLocks.end();
    const tagRtpAddr stHeldTo = !m_stOptions.bAnySource ? door.stLock.stSrc
                                : bOurs                 ? it->second.stSrc
                                                        : tagRtpAddr();
    if (stHeldTo.cFamily != 0 && !SameHost(stHeldTo, st.stSrc))
    {
        door.st.ullForeignRtcp++;
        return false;
    }
    if (door.bRtcpToFixed)
        return true;
    door.stRtcpTo = st.stSrc;
    if (bOurs || (bSender && door.mapRtcpFrom.size() < c_nMostUnheard))
        door.mapRtcpFrom[dwSender] = st.stSrc;
    return true;
}

void CListen::Deliver(const tagRtpDatagram& st, uint32 uDoor)
{
    tagDoor& door = *m_vecDoors[uDoor];
    if (IsRtcp(st.pData, st.dwCaptured))
    {
        uint32 dwLrr = 0;
        uint32 dwDlrr = 0;
        if (FindDlrr(st.pData, st.dwCaptured, m_dwSsrc, dwLrr, dwDlrr))
        {
            const int32 nSpan = (int32)(NtpMiddle(UnixUsToNtp(st.ullArrivalUs)) - dwLrr - dwDlrr);
            m_rtt.Exact(nSpan < 0 ? 0 : (double)NtpSpanToUs((uint32)nSpan) / 1000.0);
        }
    }
    else
    {
        m_ullLastMediaUs = st.ullArrivalUs;
        tagRtpHeader stHeader;
        emRtpDrop eReason = RTP_DROP_NOT_RTP;
        if (ParseRtp(st.pData, st.dwCaptured, st.dwWire, stHeader, eReason))
        {
            const auto it = std::find_if(m_vecKnown.begin(), m_vecKnown.end(),
                                         [&](const tagKnown& stKnown)
                                         { return stKnown.stInfo.dwSsrc == stHeader.dwSsrc; });
            if (it == m_vecKnown.end())
                NameSource(st, stHeader.dwSsrc);
            else
                door.mapReports[stHeader.dwSsrc].OnPacket(stHeader.wSeq, stHeader.dwTs, st.ullArrivalUs,
                                                          it->stInfo.stFormat.dwClock);
        }
    }
    m_intake.Push(st);
    LockNewStreams();
    Drain();
}

// Whose an SSRC is. Where no CNAME is known yet, a sender that uses several ports of ours is taken for one user, so that
// his picture and sound are kept in step. What he is called by then stays his name: a stream that comes once his CNAME is
// known goes to the others.
std::string CListen::UserOf(const tagRtpDatagram& st, uint32 dwSsrc) const
{
    const auto itHeard = m_mapCnames.find(dwSsrc);
    std::string strHeard = itHeard == m_mapCnames.end() ? "" : itHeard->second;
    const auto itTold = m_stOptions.mapCnames.find(dwSsrc);
    if (strHeard.empty() && itTold != m_stOptions.mapCnames.end())
        return itTold->second;
    if (!m_stOptions.bOneUser)
        return strHeard;
    std::string strUser = strHeard;
    if (strUser.empty())
    {
        tagRtpAddr stHost = st.stSrc;
        stHost.wPort = 0;
        strUser = stHost.Text();
        strUser.resize(strUser.rfind(':'));
    }
    for (const tagKnown& stKnown : m_vecKnown)
    {
        if (!SameHost(stKnown.stInfo.stSrc, st.stSrc) || stKnown.stInfo.strCname.empty())
            continue;
        const auto itOther = m_mapCnames.find(stKnown.stInfo.dwSsrc);
        if (strHeard.empty() || itOther == m_mapCnames.end() || itOther->second == strHeard)
            strUser = stKnown.stInfo.strCname;
    }
    return strUser;
}

// The intake must have heard it before the first packet: what it hears later moves no stream.
void CListen::NameSource(const tagRtpDatagram& st, uint32 dwSsrc)
{
    if (m_setNamed.size() > c_nMostUnheard || !m_setNamed.insert(dwSsrc).second)
        return;
    const auto itHeard = m_mapCnames.find(dwSsrc);
    const std::string strCname = UserOf(st, dwSsrc);
    if (strCname.empty() || (itHeard != m_mapCnames.end() && itHeard->second == strCname))
        return;
    tagRtcpFeedback stName; // a report without blocks, and the name
    stName.dwSsrc = dwSsrc;
    stName.strCname = strCname;
    const std::vector<uint8> vec = BuildRtcp(stName).front();
    tagRtpDatagram stDatagram = st;
    stDatagram.pData = vec.data();
    stDatagram.dwCaptured = stDatagram.dwWire = (uint32)vec.size();
    m_intake.Push(stDatagram);
    m_ullNamed++;
    tagRtpEvent stEvent; // not heard from the network
    while (m_intake.PopEvent(stEvent))
        continue;
}

tagRtpStreamInfo CListen::Named(tagRtpStreamInfo stInfo) const
{
    const auto it = m_mapCnames.find(stInfo.dwSsrc);
    if (it != m_mapCnames.end())
        stInfo.strCname = it->second;
    return stInfo;
}

void CListen::LockNewStreams()
{
    for (uint32 i = (uint32)m_vecKnown.size(); i < m_intake.StreamCount(); i++)
    {
        tagKnown stKnown;
        stKnown.stInfo = m_intake.Stream(i);
        for (size_t nDoor = 0; nDoor < m_vecDoors.size(); nDoor++)
        {
            tagDoor& door = *m_vecDoors[nDoor];
            if (!(door.stRtp == stKnown.stInfo.stDst))
                continue;
            stKnown.uDoor = (uint32)nDoor;
            const tagLock stLock{stKnown.stInfo.stSrc, LiveNowUs()};
            if (door.stLock.stSrc.cFamily == 0)
                door.stLock = stLock;
            if (m_stOptions.bAnySource)
                door.mapLocks[stKnown.stInfo.dwSsrc] = stLock;
            if (m_stOptions.bRtcpMux && !door.bRtcpToFixed && door.stRtcpTo.cFamily == 0)
                door.stRtcpTo = stKnown.stInfo.stSrc;
        }
        m_vecKnown.push_back(stKnown);
    }
}

void CListen::Drain()
{
    tagRtpMedia stMedia;
    while (m_intake.Pop(stMedia))
    {
        const uint32 dwSsrc = m_vecKnown[stMedia.dwStream].stInfo.dwSsrc;
        m_shaper.Arrived(dwSsrc, stMedia.dwSendSeq);
        const auto it = m_mapAsked.find({dwSsrc, stMedia.dwSendSeq});
        if (it != m_mapAsked.end())
        {
            // Asked twice, nobody knows which of the two was answered.
            if (it->second.dwTimes == 1)
                m_rtt.Answer((double)(stMedia.ullArrivalUs - it->second.ullUs) / 1000.0);
            m_mapAsked.erase(it);
        }
        m_pCall->Feed(stMedia);
    }
    tagRtpEvent stEvent;
    while (m_intake.PopEvent(stEvent))
        OnEvent(stEvent);
}

void CListen::OnEvent(const tagRtpEvent& stEvent)
{
    if (stEvent.eType == RTP_EVENT_CNAME && m_mapCnames.size() < c_nMostUnheard)
        m_mapCnames[stEvent.dwSenderSsrc] = stEvent.strCname;
    if (stEvent.eType != RTP_EVENT_SR)
        return;
    for (const auto& pDoor : m_vecDoors)
    {
        const auto it = pDoor->mapReports.find(stEvent.dwSenderSsrc);
        if (it != pDoor->mapReports.end())
            it->second.OnSenderReport(stEvent.ullNtp, stEvent.ullArrivalUs);
    }
}

// ---- What goes out ----

void CListen::WantPli(uint32 uStream, uint64& ullCount, uint64 ullNowUs)
{
    if (uStream >= m_vecKnown.size() || m_stOptions.bNoRequests)
        return;
    tagKnown& stKnown = m_vecKnown[uStream];
    if (stKnown.ullLastPliUs != 0 && ullNowUs - stKnown.ullLastPliUs < c_ullPliEveryUs)
        return;
    tagDoor& door = *m_vecDoors[stKnown.uDoor];
    const tagRtpAddr stTo = RtcpTo(door, stKnown.stInfo.dwSsrc);
    if (stTo.cFamily == 0)
        return; // asked again with the next packet
    stKnown.ullLastPliUs = ullNowUs;
    ullCount++;
    tagRtcpFeedback stFeedback;
    stFeedback.vecPlis.push_back(stKnown.stInfo.dwSsrc);
    Send(door, stTo, stFeedback);
}

void CListen::SendRequests()
{
    const uint64 ullNowUs = LiveNowUs();
    std::vector<tagLiveAsk> vecAsks;
    std::vector<tagLivePli> vecPlis;
    m_pCall->Take(vecAsks, vecPlis);
    for (const tagLivePli& st : vecPlis)
        WantPli(st.uStream, st.bLost ? m_stFeedback.ullPlisLostKey : m_stFeedback.ullPlisNoKey, ullNowUs);
    if (m_stOptions.bNoRequests)
        return;
    if (m_rtt.Known())
        m_shaper.SetRtt((uint32)std::lround(m_rtt.Ms()));
    for (const tagLiveAsk& st : vecAsks)
        m_shaper.Ask(m_vecKnown[st.uStream].stInfo.dwSsrc, st.dwSendSeq, ullNowUs);

    std::vector<tagRtpAsk> vecNacks;
    std::vector<uint32> vecGivenUp;
    m_shaper.Take(ullNowUs, vecNacks, vecGivenUp);
    std::map<std::pair<uint32, tagRtpAddr>, std::map<uint32, std::vector<uint16>>> mapByPeer;
    for (const tagRtpAsk& st : vecNacks)
    {
        for (uint32 i = 0; i < m_vecKnown.size(); i++)
        {
            if (m_vecKnown[i].stInfo.dwSsrc != st.dwSsrc)
                continue;
            // After a restart the sender's own numbers are not ours.
            uint32 dwSsrc = 0;
            uint16 wSeq = 0;
            if (m_intake.RtpSequence(i, st.dwSeq, dwSsrc, wSeq))
            {
                const uint32 uDoor = m_vecKnown[i].uDoor;
                const tagRtpAddr stTo = RtcpTo(*m_vecDoors[uDoor], m_vecKnown[i].stInfo.dwSsrc);
                mapByPeer[{uDoor, stTo}][dwSsrc].push_back(wSeq);
            }
            break;
        }
        tagAsked& stAsked = m_mapAsked.emplace(st, tagAsked{ullNowUs, 0}).first->second;
        stAsked.dwTimes++;
    }
    for (const auto& itPeer : mapByPeer)
    {
        tagRtcpFeedback stFeedback;
        for (const auto& itSsrc : itPeer.second)
        {
            stFeedback.vecNacks.emplace_back(itSsrc.first, itSsrc.second);
            m_stFeedback.ullNackedSeqs += itSsrc.second.size();
        }
        m_stFeedback.ullNacks++;
        Send(*m_vecDoors[itPeer.first.first], itPeer.first.second, stFeedback);
    }
    for (const uint32 dwSsrc : vecGivenUp)
        for (uint32 i = 0; i < m_vecKnown.size(); i++)
            if (m_vecKnown[i].stInfo.dwSsrc == dwSsrc &&
                m_vecKnown[i].stInfo.stFormat.eKind == RTP_KIND_VIDEO)
                WantPli(i, m_stFeedback.ullPlisGaveUp, ullNowUs);
}

void CListen::SendReports(bool bBye)
{
    const uint64 ullNowUs = LiveNowUs();
    for (const auto& pDoor : m_vecDoors)
    {
        std::map<tagRtpAddr, tagRtcpFeedback> mapByPeer;
        for (auto& itSource : pDoor->mapReports)
        {
            tagRtcpFeedback& stFeedback = mapByPeer[RtcpTo(*pDoor, itSource.first)];
            if (itSource.second.IsActive())
                stFeedback.vecBlocks.push_back(itSource.second.Report(itSource.first, ullNowUs));
        }
        for (auto& itPeer : mapByPeer)
        {
            itPeer.second.bReferenceTime = !bBye;
            itPeer.second.ullNtp = UnixUsToNtp(ullNowUs);
            itPeer.second.bBye = bBye;
            m_stFeedback.ullReports++;
            Send(*pDoor, itPeer.first, itPeer.second);
        }
    }
    // Packets that never came.
    for (auto it = m_mapAsked.begin(); it != m_mapAsked.end();)
        it = ullNowUs - it->second.ullUs > 10 * c_ullSecondUs ? m_mapAsked.erase(it) : std::next(it);
}

// Family 0 while nobody knows. An SSRC of which no RTCP was heard (RTX often has none) takes its neighbour's.
tagRtpAddr CListen::RtcpTo(const tagDoor& door, uint32 dwSsrc) const
{
    const auto itLock = door.mapLocks.find(dwSsrc);
    if (door.bRtcpToFixed || itLock == door.mapLocks.end())
        return door.stRtcpTo;
    const tagRtpAddr& stSrc = itLock->second.stSrc;
    const auto heard = [&](uint32 dwOf, tagRtpAddr& stTo)
    {
        const auto it = door.mapRtcpFrom.find(dwOf);
        const bool bHeard = it != door.mapRtcpFrom.end() && SameHost(it->second, stSrc);
        stTo = bHeard ? it->second : tagRtpAddr();
        return bHeard;
    };
    tagRtpAddr stTo;
    if (heard(dwSsrc, stTo))
        return stTo;
    for (const auto& itOther : door.mapLocks)
        if (itOther.second.stSrc == stSrc && heard(itOther.first, stTo))
            return stTo;
    if (m_stOptions.bRtcpMux)
        return stSrc;
    return SameHost(door.stRtcpTo, stSrc) ? door.stRtcpTo : tagRtpAddr();
}

void CListen::Send(tagDoor& door, const tagRtpAddr& stTo, const tagRtcpFeedback& stAsked)
{
    if (stTo.cFamily == 0)
    {
        m_stFeedback.ullUnsent++;
        return;
    }
    tagRtcpFeedback stFeedback = stAsked;
    stFeedback.dwSsrc = m_dwSsrc;
    stFeedback.strCname = m_strCname;
    stFeedback.bReducedSize = m_stOptions.bReducedSize;
    for (const std::vector<uint8>& vecDatagram : BuildRtcp(stFeedback))
        SendUdp(door.RtcpFd(), stTo, vecDatagram.data(), vecDatagram.size());
}

// The receiver paces its requests by it and never takes back what it adds to its delay: small changes are not told.
void CListen::TellRtt()
{
    if (!m_rtt.Known())
        return;
    const double dMs = m_rtt.Ms();
    const double dStep = std::max(5.0, 0.1 * m_dwRttTold);
    if (m_dwRttTold != 0 && std::abs(dMs - m_dwRttTold) < dStep)
        return;
    m_dwRttTold = std::max(1u, (uint32)std::lround(dMs));
    m_pCall->SetRtt(m_dwRttTold);
}

// Worker, the call's lock held.
void CListen::OnReleased(CLivePacket& packet)
{
    if (m_pWriter)
        m_pWriter->Write(packet, LiveNowUs());
    if (!m_stOptions.vecForward.empty())
        m_vecForward.push_back({packet.Head().uTimeStamp, packet.m_cSubType, packet.m_vecBytes});
}

// A turn plays stream by stream; whoever listens behind us gets it in the order of the media.
void CListen::ForwardTurn()
{
    std::stable_sort(m_vecForward.begin(), m_vecForward.end(),
                     [](const tagForward& stA, const tagForward& stB)
                     { return (int32)(stA.dwMediaMs - stB.dwMediaMs) < 0; });
    for (const tagForward& st : m_vecForward)
    {
        const char* pszMedium = st.cSubType == MEAVAudio ? "audio" : "video";
        for (const auto& itTo : m_stOptions.vecForward)
        {
            if (!itTo.first.empty() && itTo.first != pszMedium)
                continue;
            SendUdp(itTo.second.cFamily == 4 ? m_fdForward4 : m_fdForward6, itTo.second, st.vecBytes.data(),
                    st.vecBytes.size());
            m_ullForwarded++;
        }
    }
    m_vecForward.clear();
}

// ---- Figures ----

// Any thread.
tagUdtStats CListen::StatsNow()
{
    tagUdtStats st;
    m_pCall->Snapshot(st);
    std::lock_guard<std::mutex> lock(m_lockStatus);
    for (tagUdtStreamStats& stStats : st.vecStreams)
        for (const tagRtpStreamInfo& stInfo : m_vecStatus)
            if (stInfo.llAccount == stStats.llAccount && stInfo.cSubType == stStats.dwSubType)
                stStats.strUser = stInfo.strCname;
    return st;
}

// Any thread. True: strText is the file's name, else it says why there is none.
bool CListen::WriteFlight(const std::string& strWhy, std::string& strText)
{
    const std::vector<uint8> vecBytes = m_pCall->Flight(strWhy);
    if (vecBytes.empty())
    {
        strText = "nothing is recorded";
        return false;
    }
    const time_t t = (time_t)(LiveNowUs() / c_ullSecondUs);
    struct tm stTm = {};
    gmtime_r(&t, &stTm);
    char szTime[32];
    strftime(szTime, sizeof(szTime), "%Y%m%d-%H%M%S", &stTm);
    CFd fd;
    std::string strFile;
    for (int i = 0; i < 1000 && !fd.IsOpen(); i++) // never over an older one
    {
        strFile = fmt::format("{}/udtlab-{}-{}{}.flight", m_stOptions.strFlightDir, szTime, strWhy,
                              i ? fmt::format("-{}", i) : "");
        fd = CFd(open(strFile.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0666));
        if (!fd.IsOpen() && errno != EEXIST)
            break;
    }
    size_t nDone = 0;
    while (fd.IsOpen() && nDone < vecBytes.size())
    {
        const ssize_t n = write(fd.Get(), vecBytes.data() + nDone, vecBytes.size() - nDone);
        if (n <= 0)
            break;
        nDone += (size_t)n;
    }
    const bool bGood = nDone == vecBytes.size();
    strText = bGood ? strFile : fmt::format("{}: cannot be written: {}", strFile, strerror(errno));
    if (bGood)
    {
        std::lock_guard<std::mutex> lock(m_lockStatus);
        m_stResult.vecFlights.push_back(strFile);
    }
    if (m_stHooks.fnFlight)
        m_stHooks.fnFlight(strText, bGood ? strWhy : "");
    return bGood;
}

// What led to a stall is written down when it is over, or the pictures that ended it would be missing; and not again
// before all of the recording is new.
void CListen::LookForStalls(uint64 ullNowUs)
{
    if (m_stOptions.dwFlightSeconds == 0)
        return;
    const uint64 ullStalls = m_pCall->StallsNow();
    if (ullStalls == m_ullStallsSeen)
        return;
    m_ullStallsSeen = ullStalls;
    if (m_ullStallFlightUs != 0 &&
        ullNowUs - m_ullStallFlightUs < m_stOptions.dwFlightSeconds * c_ullSecondUs)
        return;
    m_ullStallFlightUs = ullNowUs;
    std::string strText;
    WriteFlight("stall", strText);
}

// A thread of the web server's.
std::string CListen::LiveReport()
{
    if (m_stOptions.pSeries == nullptr)
        return "{}";
    tagListenNow stNow;
    stNow.dwRunMs = m_pCall->RunMs();
    m_pCall->Snapshot(stNow.stStats);
    {
        std::lock_guard<std::mutex> lock(m_lockStatus);
        stNow.vecStreams = m_vecStatus;
        stNow.stFeedback = m_stStatus;
    }
    return ListenLiveReport(stNow, *m_stOptions.pSeries)
        .dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
}

tagListenFeedback CListen::FeedbackNow() const
{
    tagListenFeedback st = m_stFeedback;
    st.bRtt = m_rtt.Known();
    st.dRttMs = m_rtt.Ms();
    st.strRttFrom = !st.bRtt ? "" : m_rtt.IsExact() ? "XR" : "answers";
    st.stShaper = m_shaper.Totals();
    return st;
}

void CListen::GatherStreams()
{
    tagReplayResult& stResult = m_stResult.st;
    for (uint32 i = 0; i < m_intake.StreamCount(); i++)
    {
        tagStreamResult st = m_pCall->StreamResult(i);
        st.stInfo = Named(m_intake.Stream(i));
        const std::string strName =
            st.stInfo.strCname.empty() ? fmt::format("SSRC {:08x}", st.stInfo.dwSsrc) : st.stInfo.strCname;
        for (tagUdtStreamStats& stStats : stResult.stStats.vecStreams)
        {
            if (!st.bFed || stStats.llAccount != st.stInfo.llAccount ||
                stStats.dwSubType != st.stInfo.cSubType)
                continue;
            stStats.strUser = strName;
            st.stStats = stStats;
        }
        stResult.vecStreams.push_back(st);
        if (!st.bFed)
            continue;
        const uint64 llAccount = st.stInfo.llAccount;
        auto it =
            std::find_if(stResult.vecUsers.begin(), stResult.vecUsers.end(),
                         [llAccount](const tagUserResult& stUser) { return stUser.llAccount == llAccount; });
        if (it == stResult.vecUsers.end())
        {
            tagUserResult stUser;
            stUser.llAccount = llAccount;
            stUser.strName = strName;
            m_pCall->PutAvOffset(stUser);
            it = stResult.vecUsers.insert(stResult.vecUsers.end(), stUser);
        }
        it->vecStreams.push_back(i);
    }
}

void CListen::GatherDrops(uint64 ullEndUs)
{
    const CDropList& drops = m_pCall->Drops();
    const uint64 ullStartUs = m_pCall->StartUs();
    for (const auto& itAll : drops.Fates())
    {
        tagListenDrops st;
        st.dwSsrc = itAll.first;
        st.stAll = itAll.second;
        uint64 ullSinceUs = ullStartUs + m_stOptions.dwWarmUpMs * 1000ull;
        for (uint32 i = 0; i < m_vecKnown.size(); i++)
        {
            if (m_vecKnown[i].stInfo.dwSsrc != st.dwSsrc)
                continue;
            st.nStream = (int)i;
            st.bAnswers = m_vecKnown[i].stInfo.stFormat.eKind == RTP_KIND_RTX;
            if (!st.bAnswers)
                ullSinceUs += m_pCall->FirstMs(i) * 1000ull;
            break;
        }
        const auto mapCounted = drops.Fates(ullSinceUs, ullEndUs - c_dwTailMs * 1000ull);
        const auto itCounted = mapCounted.find(st.dwSsrc);
        if (itCounted != mapCounted.end())
            st.stCounted = itCounted->second;
        m_stResult.vecDrops.push_back(st);
    }
    m_stResult.vecDropList = drops.Entries();
}

tagListenResult CListen::Finish()
{
    tagReplayResult& st = m_stResult.st;
    const uint32 dwRunMs = m_pCall->StartUs() == 0 ? 0 : m_pCall->RunMs();
    const uint64 ullEndUs = LiveNowUs();
    if (m_pWeb)
        m_pWeb->Stop();
    m_pCall->Stop();
    GatherDrops(ullEndUs);
    for (const auto& pDoor : m_vecDoors)
    {
        pDoor->st.strLockedTo = pDoor->stLock.stSrc.Text();
        pDoor->st.strRtcpTo = pDoor->stRtcpTo.Text();
        m_stResult.vecSources.push_back(pDoor->st);
        st.stOptions.vecCaptures.push_back(fmt::format("{} on {}", pDoor->strMedium, pDoor->st.strListens));
    }
    st.stOptions.bLowLatency = m_stOptions.bLowLatency;
    st.stOptions.uPlayDelayMs = m_stOptions.uPlayDelayMs;
    st.stOptions.bEndReport = m_stOptions.bEndReport;
    st.ullStartUs = m_pCall->StartUs();
    st.bPlayed = st.ullStartUs != 0;
    st.dwRunMs = dwRunMs;
    st.dwDurationMs = st.bPlayed && m_ullLastMediaUs > st.ullStartUs
                          ? (uint32)((m_ullLastMediaUs - st.ullStartUs) / 1000)
                          : 0;
    m_pCall->Snapshot(st.stStats);
    GatherStreams();
    st.stTotals = m_intake.Totals();
    st.stTotals.ullDatagrams -= m_ullNamed; // those were ours
    st.stTotals.ullRtcp -= m_ullNamed;
    st.stTotals.aRtcpTypes[201] -= m_ullNamed;
    st.stTotals.aRtcpTypes[202] -= m_ullNamed;
    st.vecGuesses = m_intake.Guesses();
    st.ullPullBacks = m_pCall->Checks().PullBacks();
    st.vecEndReport = m_pCall->EndReport();
    st.ullBroken = m_pCall->Checks().Broken();
    st.vecViolations = m_pCall->Checks().Violations();
    if (m_pWriter)
    {
        st.ullWritten = m_pWriter->Packets();
        m_pWriter->Close(st.strOutputError);
    }
    m_stResult.stFeedback = FeedbackNow();
    m_stResult.stImpair = m_stOptions.stImpair;
    m_stResult.ullImpairSeen = m_impair.Rtp();
    m_stResult.ullReordered = m_impair.Reordered();
    m_stResult.dwWarmUpMs = m_stOptions.dwWarmUpMs;
    m_stResult.dwTailMs = c_dwTailMs;
    m_stResult.vecStalls = m_pCall->Stalls();
    m_stResult.ullStalls = m_pCall->StallCount();
    m_stResult.ullForwarded = m_ullForwarded;
    return std::move(m_stResult);
}

} // namespace

tagListenResult RunListen(const tagListenOptions& stOptions, const tagListenHooks& stHooks)
{
    CListen listen(stOptions, stHooks);
    if (!listen.Open())
        return std::move(listen.m_stResult);
    listen.Run();
    return listen.Finish();
}

} // namespace lab
