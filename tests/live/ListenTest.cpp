// udtlab listen against a sender of our own, on loopback: what it sends when, and what it takes from whom.
#include "Listen.h"
#include "FlightRecorder.h"
#include "ListenReport.h"
#include "LivePeers.h"
#include "MachineWatch.h"
#include "RtpFeedback.h"
#include "RtpPacket.h"
#include "RunSeries.h"
#include "Udp.h"

#include <gmock/gmock.h>
#include <httplib.h>

#include <atomic>
#include <map>
#include <mutex>
#include <poll.h>
#include <set>
#include <thread>

namespace
{
using namespace lab;
using namespace live;
using testing::EndsWith;
using testing::HasSubstr;

uint64 NowUs() { return LiveNowUs(); }

struct tagScript
{
    enum EAnswer
    {
        Nothing,
        Rtx,
        Same
    } eAnswer = Nothing;
    bool bKeyAtStart = true;  // else a key frame comes only when it is asked for
    bool bForeign = false;    // somebody else sends under the video's SSRC, too
    bool bPause = false;      // after 3 s nothing is sent for 4 s, and then what would have been sent
    uint32 dwDlrrAfterMs = 0; // answers reference times this much later; 0: never
    std::string strFrom = "127.0.0.1"; // and to
    bool bMux = false;                 // RTCP goes and comes where RTP does
    uint32 dwOther = 0;                // told apart from another sender: added to its SSRCs, and in its CNAME
    uint32 dwNewSsrcAtMs = 0;          // from then on both streams have other SSRCs; 0: never
    uint32 dwLateMs = 0;               // before, there is sound alone, and no RTCP
};

// Audio every 20 ms and a picture of three packets every 40 ms.
class CScriptedSender
{
public:
    explicit CScriptedSender(const tagScript& stScript) : m_stScript(stScript) {}
    ~CScriptedSender() { Stop(); }

    void Start(uint16 wAudio, uint16 wVideo)
    {
        m_a[0].Open(m_stScript, wAudio, 0x0A0A0A0A, 97, 48000);
        m_a[1].Open(m_stScript, wVideo, 0x0B0B0B0B, 96, 90000);
        m_thread = std::thread([this]() { Run(); });
    }
    void Stop()
    {
        m_bStop = true;
        if (m_thread.joinable())
            m_thread.join();
    }

    // After Stop
    struct tagMedium
    {
        CFd fdRtp;
        CFd fdRtcpOwn; // not open: with RTP
        tagRtpAddr stTo;
        tagRtpAddr stRtcpTo;
        std::string strCname;
        uint32 dwSsrc = 0;
        uint8 cPt = 0;
        uint32 dwClock = 0;
        uint16 wSeq = 65500; // across the wrap soon
        uint16 wRtxSeq = 7;
        std::map<uint16, std::vector<uint8>> mapSent;
        uint64 ullSent = 0;
        uint64 ullAnswered = 0;
        std::vector<uint64> vecPliUs;
        uint64 ullReports = 0;      // about our SSRC
        uint64 ullReportsOfNew = 0; // since it is another
        uint64 ullAskedOfOthers = 0;
        bool bNewSsrc = false;
        bool bBye = false;

        const CFd& Rtcp() const { return fdRtcpOwn.IsOpen() ? fdRtcpOwn : fdRtp; }
        void Open(const tagScript& stScript, uint16 wPort, uint32 dwOwnSsrc, uint8 cOwnPt, uint32 dwOwnClock)
        {
            std::string strError;
            tagRtpAddr stOwn;
            EXPECT_TRUE(ParseAddress(stScript.strFrom, stOwn, strError)) << strError;
            stTo = stRtcpTo = stOwn;
            stTo.wPort = stRtcpTo.wPort = wPort;
            EXPECT_TRUE(BindUdp(stOwn, fdRtp, strError)) << strError;
            stOwn.wPort = 0;
            if (!stScript.bMux)
            {
                EXPECT_TRUE(BindUdp(stOwn, fdRtcpOwn, strError)) << strError;
                stRtcpTo.wPort++;
            }
            strCname = "sender@script" + std::to_string(stScript.dwOther);
            dwSsrc = dwOwnSsrc + stScript.dwOther;
            cPt = cOwnPt;
            dwClock = dwOwnClock;
        }
        static void Put(std::vector<uint8>& vec, uint32 dw, int nBytes)
        {
            for (int i = nBytes - 1; i >= 0; i--)
                vec.push_back((uint8)(dw >> (8 * i)));
        }
        void Send(uint32 dwMs, bool bMarker, const std::vector<uint8>& vecPayload)
        {
            std::vector<uint8> vec = {0x80, (uint8)(cPt | (bMarker ? 0x80 : 0))};
            Put(vec, wSeq, 2);
            Put(vec, dwMs * (dwClock / 1000), 4);
            Put(vec, dwSsrc, 4);
            vec.insert(vec.end(), vecPayload.begin(), vecPayload.end());
            SendUdp(fdRtp, stTo, vec.data(), vec.size());
            mapSent[wSeq++] = vec;
            ullSent++;
        }
        // The packet again: as it was, or RFC 4588.
        void Answer(uint16 wAsked, bool bRtx)
        {
            const auto it = mapSent.find(wAsked);
            if (it == mapSent.end())
                return;
            ullAnswered++;
            std::vector<uint8> vec = it->second;
            if (bRtx)
            {
                const uint8 aSeq[2] = {vec[2], vec[3]};
                vec[1] = (uint8)((vec[1] & 0x80) | (cPt == 96 ? 99 : 100));
                vec[2] = (uint8)(wRtxSeq >> 8);
                vec[3] = (uint8)wRtxSeq++;
                vec[8] = 0xEE;
                vec.insert(vec.begin() + 12, aSeq, aSeq + 2);
            }
            SendUdp(fdRtp, stTo, vec.data(), vec.size());
        }
        void SenderReport(uint64 ullNowUs, uint32 dwMs)
        {
            std::vector<uint8> vec = {0x80, 200, 0, 6};
            const uint64 ullNtp = UnixUsToNtp(ullNowUs);
            Put(vec, dwSsrc, 4);
            Put(vec, (uint32)(ullNtp >> 32), 4);
            Put(vec, (uint32)ullNtp, 4);
            Put(vec, dwMs * (dwClock / 1000), 4);
            Put(vec, (uint32)ullSent, 4);
            Put(vec, 0, 4);
            std::vector<uint8> vecName = {0x81, 202, 0, 0};
            Put(vecName, dwSsrc, 4);
            vecName.push_back(1);
            vecName.push_back((uint8)strCname.size());
            vecName.insert(vecName.end(), strCname.begin(), strCname.end());
            vecName.push_back(0);
            while (vecName.size() % 4 != 0)
                vecName.push_back(0);
            vecName[3] = (uint8)(vecName.size() / 4 - 1);
            vec.insert(vec.end(), vecName.begin(), vecName.end());
            SendUdp(Rtcp(), stRtcpTo, vec.data(), vec.size());
        }
    } m_a[2];
    uint64 m_ullForeign = 0;

private:
    struct tagDlrr
    {
        uint64 ullDueUs;
        int nMedium;
        uint32 dwTo;
        uint32 dwLrr;
        uint64 ullGotUs;
    };

    void Run()
    {
        uint64 ullStartUs = NowUs();
        bool bPaused = !m_stScript.bPause;
        uint32 dwMs = 0; // of the media that is next
        bool bKey = m_stScript.bKeyAtStart;
        while (!m_bStop)
        {
            if (!bPaused && NowUs() - ullStartUs > 3000000)
            {
                bPaused = true;
                ullStartUs += 4000000;
                std::this_thread::sleep_for(std::chrono::seconds(4));
            }
            const uint32 dwNowMs = (uint32)((NowUs() - ullStartUs) / 1000);
            for (; dwMs <= dwNowMs; dwMs += 20)
            {
                if (dwMs != 0 && dwMs == m_stScript.dwNewSsrcAtMs)
                    for (tagMedium& st : m_a)
                    {
                        st.dwSsrc += 0x100;
                        st.bNewSsrc = true;
                    }
                if (dwMs % 500 == 0 && dwMs >= m_stScript.dwLateMs)
                    for (tagMedium& st : m_a)
                        st.SenderReport(NowUs(), dwMs);
                m_a[0].Send(dwMs, false, std::vector<uint8>(80, 0x78));
                if (dwMs % 40 != 0 || dwMs < m_stScript.dwLateMs)
                    continue;
                bKey = bKey || (m_stScript.bKeyAtStart && dwMs % 2000 == 0) || m_bKeyAsked;
                m_bKeyAsked = false;
                for (int i = 0; i < 3; i++) // FU-A
                {
                    std::vector<uint8> vec(400, 0x55);
                    vec[0] = 0x7C;
                    vec[1] = (uint8)((bKey ? 5 : 1) | (i == 0 ? 0x80 : 0) | (i == 2 ? 0x40 : 0));
                    m_a[1].Send(dwMs, i == 2, vec);
                }
                bKey = false;
                if (m_stScript.bForeign && dwMs > 1000)
                    SendForeign();
            }
            Listen();
        }
    }

    void SendForeign()
    {
        static const std::vector<uint8> s_vec = {0x80, 96,   0x12, 0x34, 0,    0, 0, 0,
                                                 0x0B, 0x0B, 0x0B, 0x0B, 0x65, 1, 2};
        if (!m_fdForeign.IsOpen())
        {
            std::string strError;
            tagRtpAddr stOwn = m_a[1].stTo;
            stOwn.wPort = 0;
            EXPECT_TRUE(BindUdp(stOwn, m_fdForeign, strError)) << strError;
        }
        SendUdp(m_fdForeign, m_a[1].stTo, s_vec.data(), s_vec.size());
        m_ullForeign++;
    }

    void Listen()
    {
        pollfd aPoll[2] = {{m_a[0].Rtcp().Get(), POLLIN, 0}, {m_a[1].Rtcp().Get(), POLLIN, 0}};
        poll(aPoll, 2, 2);
        for (int i = 0; i < 2; i++)
        {
            uint8 aBytes[2048];
            ssize_t nGot = 0;
            while ((nGot = recv(m_a[i].Rtcp().Get(), aBytes, sizeof(aBytes), MSG_DONTWAIT)) > 0)
                Heard(i, aBytes, (uint32)nGot);
        }
        while (!m_vecDlrr.empty() && m_vecDlrr.front().ullDueUs <= NowUs())
        {
            const tagDlrr st = m_vecDlrr.front();
            m_vecDlrr.erase(m_vecDlrr.begin());
            std::vector<uint8> vec = {0x80, 201, 0, 1};
            tagMedium::Put(vec, m_a[st.nMedium].dwSsrc, 4);
            vec.insert(vec.end(), {0x80, 207, 0, 5});
            tagMedium::Put(vec, m_a[st.nMedium].dwSsrc, 4);
            vec.insert(vec.end(), {5, 0, 0, 3});
            tagMedium::Put(vec, st.dwTo, 4);
            tagMedium::Put(vec, st.dwLrr, 4);
            tagMedium::Put(vec, (uint32)((NowUs() - st.ullGotUs) * 65536 / 1000000), 4);
            SendUdp(m_a[st.nMedium].Rtcp(), m_a[st.nMedium].stRtcpTo, vec.data(), vec.size());
        }
    }

    void Heard(int nMedium, const uint8* pBytes, uint32 dwLen)
    {
        tagMedium& st = m_a[nMedium];
        std::vector<tagRtpEvent> vecEvents;
        tagRtpTotals stTotals;
        m_rtcp.Read(pBytes, dwLen, vecEvents, stTotals);
        for (const tagRtpEvent& stEvent : vecEvents)
        {
            if (stEvent.eType == RTP_EVENT_BYE)
                st.bBye = true;
            const bool bAsks = stEvent.eType == RTP_EVENT_NACK || stEvent.eType == RTP_EVENT_PLI;
            if (stEvent.dwMediaSsrc != st.dwSsrc)
            {
                st.ullAskedOfOthers += bAsks ? 1 : 0;
                continue;
            }
            if (stEvent.eType == RTP_EVENT_RR)
            {
                st.ullReports++;
                st.ullReportsOfNew += st.bNewSsrc ? 1 : 0;
            }
            if (stEvent.eType == RTP_EVENT_NACK && m_stScript.eAnswer != tagScript::Nothing)
                for (const uint16 wSeq : stEvent.vecRtpSeq)
                    st.Answer(wSeq, m_stScript.eAnswer == tagScript::Rtx);
            if (stEvent.eType == RTP_EVENT_PLI)
            {
                st.vecPliUs.push_back(NowUs());
                m_bKeyAsked = st.vecPliUs.size() >= 3; // as if the first two had been lost
            }
        }
        // A reference time: XR of one block, last in the datagram.
        if (m_stScript.dwDlrrAfterMs != 0 && dwLen >= 20 && pBytes[dwLen - 19] == 207 &&
            pBytes[dwLen - 12] == 4)
        {
            const auto read = [&](uint32 dwBack)
            {
                const uint8* p = pBytes + dwLen - dwBack;
                return (uint32)p[0] << 24 | (uint32)p[1] << 16 | (uint32)p[2] << 8 | p[3];
            };
            m_vecDlrr.push_back({NowUs() + m_stScript.dwDlrrAfterMs * 1000ull, nMedium, read(16),
                                 read(8) << 16 | read(4) >> 16, NowUs()});
        }
    }

    const tagScript m_stScript;
    CRtcpReader m_rtcp;
    std::atomic<bool> m_bStop{false};
    std::thread m_thread;
    bool m_bKeyAsked = false;
    CFd m_fdForeign;
    std::vector<tagDlrr> m_vecDlrr;
};

tagListenOptions Options(uint32 dwMs)
{
    tagListenOptions st;
    st.strBind = "127.0.0.1";
    st.vecPorts = {{"audio", 0, {}}, {"video", 0, {}}};
    st.dwDurationMs = dwMs;
    st.dwWarmUpMs = 5000;
    std::string strError;
    for (const char* psz : {"96=H264/90000", "97=opus/48000", "99=rtx:96", "100=rtx:97"})
        EXPECT_TRUE(ParseRtpMap(psz, st.stRtp.mapFormats, strError));
    return st;
}

uint16 PortIn(const std::string& strAddress)
{
    return (uint16)std::stoi(strAddress.substr(strAddress.rfind(':') + 1));
}

// A call with the scripted sender, or with two; fnMeanwhile runs beside it once all is open.
tagListenResult Call(const tagListenOptions& st, CScriptedSender& sender,
                     const std::function<void(const std::string& strWeb)>& fnMeanwhile = {},
                     CScriptedSender* pOther = nullptr)
{
    std::thread threadMeanwhile;
    tagListenHooks stHooks;
    stHooks.fnReady = [&](const std::vector<tagListenSource>& vec, const std::string& strWeb)
    {
        sender.Start(PortIn(vec[0].strListens), PortIn(vec[1].strListens));
        if (pOther != nullptr)
            pOther->Start(PortIn(vec[0].strListens), PortIn(vec[1].strListens));
        if (fnMeanwhile)
            threadMeanwhile = std::thread([&fnMeanwhile, strWeb]() { fnMeanwhile(strWeb); });
    };
    tagListenResult stResult = RunListen(st, stHooks);
    EXPECT_EQ(stResult.strError, "");
    sender.Stop();
    if (pOther != nullptr)
        pOther->Stop();
    if (threadMeanwhile.joinable())
        threadMeanwhile.join();
    return stResult;
}

const tagRtpStreamInfo& StreamOf(const tagListenResult& st, uint32 dwSsrc)
{
    for (const tagStreamResult& stStream : st.st.vecStreams)
        if (stStream.stInfo.dwSsrc == dwSsrc)
            return stStream.stInfo;
    static const tagRtpStreamInfo s_stNone;
    ADD_FAILURE() << "no such stream";
    return s_stNone;
}

TEST(ThreadedListen, WhatIsDroppedIsAskedForAnsweredPlayedInTimeAndForwarded)
{
    CFolder folder;
    uint16_t wForward = 0;
    const int nForward = Udp(wForward);
    tagListenOptions st = Options(13000);
    st.stImpair.dDrop = 0.1;
    st.stImpair.ullSeed = 3;
    st.nWebPort = 0;
    st.dwFlightSeconds = 3;
    st.strFlightDir = folder / "";
    CRunSeries series(
        []()
        {
            tagSeriesOptions stSeries;
            stSeries.ullWindowMs = 120000;
            return stSeries;
        }());
    st.pSeries = &series;
    std::string strError;
    tagRtpAddr stForward;
    stForward.cFamily = 4;
    stForward.aAddr = {127, 0, 0, 1};
    stForward.wPort = wForward;
    st.vecForward = {{"", stForward}};
    tagScript stScript;
    stScript.eAnswer = tagScript::Rtx;
    stScript.dwDlrrAfterMs = 100;
    stScript.bForeign = true;
    CScriptedSender sender(stScript);

    std::string strFlight;
    std::map<uint32, std::vector<uint16>> mapForwarded;
    std::atomic<bool> bListens{true};
    std::thread threadForward(
        [&]()
        {
            uint8 aBytes[2048];
            pollfd stPoll = {nForward, POLLIN, 0};
            while (bListens)
            {
                if (poll(&stPoll, 1, 50) <= 0)
                    continue;
                while (recv(nForward, aBytes, sizeof(aBytes), MSG_DONTWAIT) > 0)
                    mapForwarded[(uint32)aBytes[8] << 24 | (uint32)aBytes[9] << 16 | (uint32)aBytes[10] << 8 |
                                 aBytes[11]]
                        .push_back((uint16)(aBytes[2] << 8 | aBytes[3]));
            }
        });
    CMachineWatch watch;
    const tagListenResult stResult = Call(
        st, sender,
        [&](const std::string& strWeb)
        {
            httplib::Client client(strWeb.substr(0, strWeb.size() - 1));
            client.set_read_timeout(10);
            std::this_thread::sleep_for(std::chrono::seconds(6));
            auto res = client.Get("/");
            ASSERT_TRUE(res);
            EXPECT_THAT(res->body, HasSubstr("udtlab-live"));
            res = client.Get("/metrics");
            ASSERT_TRUE(res);
            EXPECT_THAT(res->body, EndsWith("# EOF\n"));
            EXPECT_THAT(res->get_header_value("Content-Type"), HasSubstr("application/openmetrics-text"));
            res = client.Get("/stats.json");
            ASSERT_TRUE(res);
            EXPECT_EQ(nlohmann::json::parse(res->body)["streams"].size(), 2u);
            std::string strEvents;
            client.Get("/events",
                       [&](const char* p, size_t n)
                       {
                           strEvents.append(p, n);
                           return strEvents.find("\n\n", strEvents.find("\n\n") + 1) == std::string::npos;
                       });
            ASSERT_EQ(strEvents.compare(0, 6, "data: "), 0);
            const auto j = nlohmann::json::parse(strEvents.substr(6, strEvents.find("\n\n") - 6));
            EXPECT_EQ(j["format"], "udtlab-report");
            EXPECT_EQ(j["streams"].size(), 2u);
            EXPECT_GT(j["series"].size(), 10u);
            res = client.Post("/flight", {{"Origin", "http://elsewhere.example"}}, "", "text/plain");
            ASSERT_TRUE(res);
            EXPECT_EQ(res->status, 403);
            res = client.Post("/flight");
            ASSERT_TRUE(res);
            EXPECT_EQ(res->status, 200);
            strFlight = res->body.substr(0, res->body.find('\n'));
        });
    bListens = false;
    threadForward.join();
    close(nForward);
    SCOPED_TRACE(watch.Said());

    tagDropFate stCounted;
    for (const tagListenDrops& stDrops : stResult.vecDrops)
    {
        if (stDrops.bAnswers)
            continue;
        stCounted.ullDropped += stDrops.stCounted.ullDropped;
        stCounted.ullInTime += stDrops.stCounted.ullInTime;
        // Packets that we know were sent and did not come by themselves.
        EXPECT_LE(StreamOf(stResult, stDrops.dwSsrc).stStat.ullLost, stDrops.stAll.ullDropped);
        EXPECT_GE(StreamOf(stResult, stDrops.dwSsrc).stStat.ullLost + 5, stDrops.stAll.ullDropped);
    }
    EXPECT_GE(stCounted.ullDropped, 20u);
    EXPECT_GE((double)stCounted.ullInTime, 0.99 * (double)stCounted.ullDropped)
        << ListenTable(stResult, false) << ListenJson(stResult)["impairment"]["drop_list"];

    EXPECT_EQ(stResult.stFeedback.strRttFrom, "XR");
    EXPECT_LT(stResult.stFeedback.dRttMs, 80) << "the 100 ms that the sender took are not the path's";
    EXPECT_LE(stResult.vecSources[1].ullForeign, sender.m_ullForeign); // it sent on for a moment
    EXPECT_GE(stResult.vecSources[1].ullForeign + 30, sender.m_ullForeign);
    EXPECT_GT(sender.m_ullForeign, 100u);
    for (const auto& stMedium : sender.m_a)
    {
        EXPECT_GE(stMedium.ullReports, 6u) << "about one a second";
        EXPECT_TRUE(stMedium.bBye);
        const tagRtpStat& stat = StreamOf(stResult, stMedium.dwSsrc).stStat;
        EXPECT_LE(stat.ullExpected, stMedium.ullSent)
            << "nothing of the foreign source's was taken for the stream's";
        EXPECT_GE(stat.ullExpected + 50, stMedium.ullSent);
    }
    EXPECT_EQ(stResult.st.vecUsers.size(), 1u);
    EXPECT_EQ(stResult.st.ullBroken, 0u)
        << (stResult.st.vecViolations.empty() ? "" : stResult.st.vecViolations[0]);

    // Whoever plays behind us gets each stream in order, repaired.
    ASSERT_EQ(mapForwarded.size(), 2u);
    for (const auto& it : mapForwarded)
    {
        size_t nBack = 0;
        size_t nMissing = 0;
        for (size_t i = it.second.size() / 2; i < it.second.size(); i++)
        {
            const uint16 wStep = (uint16)(it.second[i] - it.second[i - 1]);
            nBack += wStep > 0x8000 ? 1 : 0;
            nMissing += wStep > 1 && wStep < 0x8000 ? wStep - 1u : 0;
        }
        EXPECT_EQ(nBack, 0u);
        EXPECT_LE(nMissing, 1u);
    }

    ASSERT_THAT(strFlight, EndsWith(".flight"));
    const tagFlightResult stFlight = ReplayFlight(strFlight, nullptr);
    EXPECT_EQ(stFlight.strError, "");
    EXPECT_EQ(stFlight.strDifference, "");
    EXPECT_GE(stFlight.ullReleases, 100u);
    EXPECT_GE(stFlight.ullRequests, 5u);
    EXPECT_GE(stFlight.ullStates, 3u);
    EXPECT_LT(stFlight.dwSpanMs, 5000u) << "the beginning was forgotten";
}

TEST(ThreadedListen, AStreamWithoutAKeyFrameIsAskedForOneOnceASecondUntilItComes)
{
    tagListenOptions st = Options(5000);
    tagScript stScript;
    stScript.bKeyAtStart = false;
    CScriptedSender sender(stScript);
    CMachineWatch watch;
    const tagListenResult stResult = Call(st, sender);
    SCOPED_TRACE(watch.Said());
    const std::vector<uint64>& vecUs = sender.m_a[1].vecPliUs;
    ASSERT_EQ(vecUs.size(), 3u) << "the third was answered";
    for (size_t i = 1; i < vecUs.size(); i++)
        EXPECT_GE(vecUs[i] - vecUs[i - 1], 950000u);
    EXPECT_EQ(stResult.stFeedback.ullPlisNoKey, 3u);
    EXPECT_TRUE(sender.m_a[0].vecPliUs.empty());
}

TEST(ThreadedListen, APictureThatComesWhenTheNameIsKnownBelongsToTheSoundThatCameBefore)
{
    tagListenOptions st = Options(3000);
    tagScript stScript;
    stScript.dwLateMs = 1000;
    CScriptedSender sender(stScript);
    CMachineWatch watch;
    const tagListenResult stResult = Call(st, sender);
    SCOPED_TRACE(watch.Said());
    ASSERT_EQ(stResult.st.vecUsers.size(), 1u);
    EXPECT_EQ(stResult.st.vecUsers[0].vecStreams.size(), 2u);
    EXPECT_EQ(StreamOf(stResult, sender.m_a[0].dwSsrc).strCname, "sender@script0");
    EXPECT_EQ(StreamOf(stResult, sender.m_a[1].dwSsrc).strCname, "sender@script0");
}

// More reports than are read at once stand before the names, and sound and picture are there already. Both were begun
// without a name, and stayed two users.
TEST(ThreadedListen, NamesThatCameBeforeSoundAndPictureAreKnownBehindMoreReportsThanAreReadAtOnce)
{
    tagListenOptions st = Options(1000);
    st.bAnySource = true;
    st.bOneUser = false;
    const tagScript stScript;
    CScriptedSender::tagMedium aMedia[2];
    tagListenHooks stHooks;
    stHooks.fnReady = [&](const std::vector<tagListenSource>& vec, const std::string&)
    {
        aMedia[0].Open(stScript, PortIn(vec[0].strListens), 0x0A0A0A0A, 97, 48000);
        aMedia[1].Open(stScript, PortIn(vec[1].strListens), 0x0B0B0B0B, 96, 90000);
        const uint8 aReport[] = {0x80, 201, 0, 1, 0, 0, 0, 1};
        for (int i = 0; i < 70; i++)
            for (const auto& stMedium : aMedia)
                SendUdp(stMedium.Rtcp(), stMedium.stRtcpTo, aReport, sizeof(aReport));
        for (auto& stMedium : aMedia)
            stMedium.SenderReport(NowUs(), 0);
        for (uint32 dwMs = 0; dwMs < 400; dwMs += 20)
        {
            aMedia[0].Send(dwMs, false, std::vector<uint8>(80, 0x78));
            aMedia[1].Send(dwMs, true, {0x65, 1, 2});
        }
    };
    const tagListenResult stResult = RunListen(st, stHooks);
    EXPECT_EQ(stResult.strError, "");
    ASSERT_EQ(stResult.st.vecUsers.size(), 1u);
    EXPECT_EQ(stResult.st.vecUsers[0].vecStreams.size(), 2u);
}

TEST(ThreadedListen, OverIpv6WithRtcpOnThePortsOfRtpASenderThatTakesOtherSsrcsIsAskedAndToldAsBefore)
{
    std::string strError;
    tagRtpAddr stAny;
    CFd fdAny;
    ASSERT_TRUE(ParseAddress("::1", stAny, strError)) << strError;
    if (!BindUdp(stAny, fdAny, strError))
        GTEST_SKIP() << "no IPv6 here: " << strError;
    tagListenOptions st = Options(6000);
    st.strBind = "::1";
    st.bRtcpMux = true;
    st.stImpair.dDrop = 0.1;
    st.stImpair.ullSeed = 5;
    tagScript stScript;
    stScript.strFrom = "::1";
    stScript.bMux = true;
    stScript.eAnswer = tagScript::Rtx;
    stScript.dwNewSsrcAtMs = 2000;
    CScriptedSender sender(stScript);
    CMachineWatch watch;
    const tagListenResult stResult = Call(st, sender);
    SCOPED_TRACE(watch.Said());
    ASSERT_EQ(stResult.vecSources.size(), 2u);
    for (const tagListenSource& stSource : stResult.vecSources)
    {
        EXPECT_EQ(stSource.strListens.compare(0, 6, "[::1]:"), 0) << stSource.strListens;
        EXPECT_EQ(stSource.strRtcp, stSource.strListens);
        EXPECT_EQ(stSource.strRtcpTo, stSource.strLockedTo);
        EXPECT_EQ(stSource.ullForeign, 0u);
        EXPECT_EQ(stSource.ullForeignRtcp, 0u);
    }
    for (const auto& stMedium : sender.m_a)
    {
        EXPECT_GE(stMedium.ullReports, 3u);
        EXPECT_GE(stMedium.ullReportsOfNew, 2u) << "the SSRC that went on is reported on";
        EXPECT_GE(stMedium.ullAnswered, 5u);
        EXPECT_TRUE(stMedium.bBye);
    }
    EXPECT_EQ(stResult.st.ullBroken, 0u);
}

TEST(ThreadedListen, OfManySourcesOnOnePortEachIsAskedForItsOwnAndNobodySpeaksForAnother)
{
    tagListenOptions st = Options(6000);
    st.bAnySource = true;
    st.bOneUser = false;
    st.stImpair.dDrop = 0.1;
    st.stImpair.ullSeed = 7;
    tagScript stScript;
    stScript.eAnswer = tagScript::Rtx;
    stScript.bForeign = true;
    CScriptedSender first(stScript);
    stScript.dwOther = 1;
    stScript.bForeign = false;
    CScriptedSender second(stScript);
    CMachineWatch watch;
    // From another host, in the name of the first one's sound.
    const auto speak = [&first](const std::string&)
    {
        std::string strError;
        tagRtpAddr stOther;
        CFd fd;
        EXPECT_TRUE(ParseAddress("127.0.0.2", stOther, strError) && BindUdp(stOther, fd, strError))
            << strError;
        std::this_thread::sleep_for(std::chrono::seconds(2));
        const uint8 aReport[] = {0x80, 201, 0, 1, 0x0A, 0x0A, 0x0A, 0x0A};
        SendUdp(fd, first.m_a[0].stRtcpTo, aReport, sizeof(aReport));
    };
    const tagListenResult stResult = Call(st, first, speak, &second);
    SCOPED_TRACE(watch.Said());
    for (CScriptedSender* pSender : {&first, &second})
        for (const auto& stMedium : pSender->m_a)
        {
            EXPECT_EQ(stMedium.ullAskedOfOthers, 0u);
            EXPECT_GE(stMedium.ullAnswered, 5u);
            EXPECT_GE(stMedium.ullReports, 3u);
            EXPECT_TRUE(stMedium.bBye);
            EXPECT_LE(StreamOf(stResult, stMedium.dwSsrc).stStat.ullExpected, stMedium.ullSent);
            EXPECT_GE(StreamOf(stResult, stMedium.dwSsrc).stStat.ullExpected + 50, stMedium.ullSent);
        }
    EXPECT_EQ(stResult.st.vecUsers.size(), 2u);
    EXPECT_EQ(stResult.vecSources[0].ullForeignRtcp, 1u);
    EXPECT_EQ(stResult.vecSources[0].ullForeign, 0u);
    EXPECT_GT(stResult.vecSources[1].ullForeign, 100u);
    EXPECT_LE(stResult.vecSources[1].ullForeign, first.m_ullForeign);
    EXPECT_EQ(stResult.st.ullBroken, 0u);
}

TEST(ThreadedListen, AStallIsCountedAndWhatLedToItIsWrittenDownAndPlaysBack)
{
    CFolder folder;
    tagListenOptions st = Options(10000);
    st.dwFlightSeconds = 20;
    st.strFlightDir = folder / "";
    tagScript stScript;
    stScript.bPause = true;
    CScriptedSender sender(stScript);
    CMachineWatch watch;
    const tagListenResult stResult = Call(st, sender);
    SCOPED_TRACE(watch.Said());
    ASSERT_GE(stResult.ullStalls, 1u);
    EXPECT_GE(stResult.vecStalls[0].dwMs, 1000u);
    EXPECT_LE(stResult.vecStalls[0].dwMs, 5000u);
    ASSERT_EQ(stResult.vecFlights.size(), 1u) << "one for all streams";
    EXPECT_THAT(stResult.vecFlights[0], HasSubstr("-stall"));
    const tagFlightResult stFlight = ReplayFlight(stResult.vecFlights[0], nullptr);
    EXPECT_EQ(stFlight.strError, "");
    EXPECT_EQ(stFlight.strDifference, "");
    EXPECT_GE(stFlight.dwSpanMs, 6000u) << "from the call's beginning";
}

// ---- What goes wrong ----

class ListenProgram : public testing::Test
{
protected:
    // Exit code and all that it said.
    int Run(const std::string& strArguments, std::string& strSaid)
    {
        const std::string strOut = m_folder / "said.txt";
        CChild child(std::string(UDT_LAB_PROGRAM) + " listen --bind 127.0.0.1 " + strArguments, strOut);
        const int nExit = child.Wait();
        strSaid = ReadText(strOut);
        return nExit;
    }
    void IsOneLine(const std::string& strArguments, const std::string& strWant)
    {
        std::string strSaid;
        EXPECT_EQ(Run(strArguments, strSaid), 2) << strSaid;
        EXPECT_THAT(strSaid, HasSubstr(strWant));
        EXPECT_EQ(std::count(strSaid.begin(), strSaid.end(), '\n'), 1) << strSaid;
    }
    CFolder m_folder;
};

TEST_F(ListenProgram, WhatCannotBeginSaysSoInOneLineAndExitsWithTwo)
{
    uint16_t wTaken = 0;
    const int nTaken = Udp(wTaken);
    IsOneLine("--audio " + std::to_string(wTaken), "cannot be listened on: Address already in use");
    close(nTaken);
    std::ofstream(m_folder / "bad.sdp") << "v=0\nm=audio 5004 RTP/AVP 97\na=rtpmap:97 opus\n";
    IsOneLine("--audio 0 --sdp " + m_folder / "bad.sdp", "bad.sdp: line 3: expected a=rtpmap:PT CODEC/CLOCK");
    IsOneLine("--audio 0 --sdp /nowhere.sdp", "/nowhere.sdp: cannot be read");
    for (const char* psz : {"--json", "--html", "--report", "--stats", "--out"})
        IsOneLine(std::string("--audio 0 ") + psz + " /nowhere/file", "/nowhere/file: cannot be written");
    IsOneLine("--audio 0 --flight-dir /nowhere", "--flight-dir /nowhere: cannot be written to");
    IsOneLine("", "no port to listen on");
    IsOneLine("--audio 0 --drop 5", "--drop: \"5\" is not a share");
    IsOneLine("--audio 0 --delay x", "--delay: \"x\" is not a delay");
    IsOneLine("--audio 0 --rtcp-to nowhere", "--rtcp-to: \"nowhere\" is not an address");
    IsOneLine("--audio 0 --forward sound=127.0.0.1:5004", "\"sound\" is not a medium");
    IsOneLine("--audio 0 --web 0 --web-bind 192.0.2.1", "cannot be listened on");
}

TEST_F(ListenProgram, SignalsStopItWithItsReportWrittenAndARecordingOnRequest)
{
    for (const int nSignal : {SIGINT, SIGTERM})
    {
        const std::string strJson = m_folder / "call.json";
        const std::string strSaid = m_folder / "said.txt";
        std::remove(strJson.c_str());
        CChild child(std::string(UDT_LAB_PROGRAM) + " listen --bind 127.0.0.1 --audio 0 --json " + strJson +
                         " --html " + m_folder / "call.html" + " --flight-dir " + m_folder / "",
                     strSaid);
        ASSERT_TRUE(Eventually([&]() { return PortOf(ReadText(strSaid), "audio") != 0; }))
            << ReadText(strSaid);
        child.Signal(SIGUSR1);
        EXPECT_TRUE(Eventually([&]() { return ReadText(strSaid).find(".flight") != std::string::npos; }));
        child.Signal(nSignal);
        EXPECT_EQ(child.Wait(), 0) << ReadText(strSaid);
        const auto j = nlohmann::json::parse(ReadText(strJson), nullptr, false);
        EXPECT_EQ(j["format"], "udtlab-listen");
        EXPECT_EQ(j["flights"].size(), 1u);
        EXPECT_GT(ReadText(m_folder / "call.html").size(), 1000u);
    }
}

} // namespace
