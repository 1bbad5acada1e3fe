// Listening to live senders: options in, sockets and the call in between, figures out.
#ifndef LAB_LISTEN_H
#define LAB_LISTEN_H

#include "Impair.h"
#include "LiveCall.h"
#include "Replay.h"
#include "RtpShaper.h"
#include "UdtStats.h"

#include <atomic>
#include <functional>
#include <map>
#include <string>
#include <vector>

namespace lab
{

// One port that media comes in on.
struct tagListenPort
{
    std::string strMedium; // "audio", "video", for people
    uint16 wPort = 0;      // 0: any free one
    tagRtpAddr stRtcpTo;   // family 0: where the sender's RTCP comes from
};

struct tagListenOptions
{
    std::vector<tagListenPort> vecPorts;
    std::string strBind = "0.0.0.0";
    bool bRtcpMux = false;
    bool bReducedSize = false; // NACKs and PLIs without a report in front
    bool bAnySource = false;   // each SSRC is held to its own source, else each port
    uint32 dwDurationMs = 0;   // 0: until told to stop
    tagRtpOptions stRtp;       // bLive is set
    tagImpairOptions stImpair;
    tagRtpShaperOptions stShaper;
    bool bNoRequests = false;                                   // sends reports only
    std::vector<std::pair<std::string, tagRtpAddr>> vecForward; // medium ("" all), where to
    std::string strOut;
    bool bLowLatency = false;
    uint32 uPlayDelayMs = 0;
    int nLogLevel = 0;
    std::function<void(const std::string& strLine)> fnLog; // any thread
    bool bEndReport = false;
    CRunSeries* pSeries = nullptr; // is told what happens, for a report
    bool bOneUser = true;          // audio and video of one host are one user's until a CNAME says otherwise
    std::map<uint32, std::string> mapCnames; // of SSRCs, where they are known before
    uint32 dwFlightSeconds = 0;              // recorded for playback; 0: nothing
    std::string strFlightDir = ".";
    int nWebPort = -1; // -1: none, 0: any free one
    std::string strWebBind = "127.0.0.1";
    std::atomic<bool>* pStop = nullptr; // looked at now and then
    bool bSignals = false;              // SIGINT and SIGTERM stop
    uint32 dwWarmUpMs = 5000;           // losses this soon after their stream began are counted apart
};

struct tagListenSource
{
    std::string strMedium;
    std::string strListens;  // address of RTP
    std::string strRtcp;     // address of RTCP
    std::string strLockedTo; // "-" while none
    std::string strRtcpTo;   // "-" while not known
    uint64 ullDatagrams = 0; // that were taken
    uint64 ullForeign = 0;   // from elsewhere while the port was locked
    uint64 ullForeignRtcp = 0;
    uint64 ullRelocked = 0; // times that a silent source was given up for another
};

struct tagListenFeedback
{
    uint64 ullReports = 0; // datagrams with report blocks
    uint64 ullNacks = 0;   // NACK datagrams
    uint64 ullNackedSeqs = 0;
    uint64 ullPlisNoKey = 0;   // sent because a stream began without a key frame
    uint64 ullPlisLostKey = 0; // because one was lost
    uint64 ullPlisGaveUp = 0;  // because a packet was given up
    uint64 ullUnsent = 0;      // datagrams that had nowhere to go
    bool bRtt = false;
    double dRttMs = 0;      // smoothed
    std::string strRttFrom; // "XR" or "answers"
    tagRtpShaperTotals stShaper;
};

// What became of what the tool dropped, of one stream.
struct tagListenDrops
{
    uint32 dwSsrc = 0;
    int nStream = -1;      // -1: never became a stream
    bool bAnswers = false; // an RTX stream: what was dropped were answers
    tagDropFate stAll;
    tagDropFate stCounted; // without warm-up and end
};

// How things stand, for whoever shows them while it runs.
struct tagListenNow
{
    uint32 dwRunMs = 0;
    uint64 ullDropped = 0;
    tagListenFeedback stFeedback;
    std::vector<tagRtpStreamInfo> vecStreams;
    tagUdtStats stStats;
};

struct tagListenResult
{
    tagReplayResult st;
    std::vector<tagListenSource> vecSources;
    tagListenFeedback stFeedback;
    tagImpairOptions stImpair;
    uint64 ullImpairSeen = 0;
    uint64 ullReordered = 0;
    std::vector<tagListenDrops> vecDrops;
    std::vector<CDropList::tagEntry> vecDropList;
    uint32 dwWarmUpMs = 0;
    uint32 dwTailMs = 0;
    std::vector<tagLiveStall> vecStalls;
    uint64 ullStalls = 0;
    uint64 ullForwarded = 0;
    std::vector<std::string> vecFlights; // files written
    std::string strError;                // one line; the call did not begin
};

struct tagListenHooks
{
    std::function<void(const std::vector<tagListenSource>&, const std::string& strWeb)>
        fnReady; // all is open
    std::function<void(const std::string& strFile, const std::string& strWhy)>
        fnFlight;                                      // was written; any thread
    std::function<void(const tagListenNow&)> fnSecond; // about once a second
};

tagListenResult RunListen(const tagListenOptions& stOptions, const tagListenHooks& stHooks);

} // namespace lab

#endif
