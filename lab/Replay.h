// A replay from captures to figures: two readings of the files, one receiver, virtual time.
#ifndef LAB_REPLAY_H
#define LAB_REPLAY_H

#include "CaptureReader.h"
#include "Histogram.h"
#include "RtpTypes.h"
#include "RunChecks.h"
#include "UdtStats.h"

#include <functional>
#include <map>
#include <string>
#include <vector>

namespace lab
{

class CRunSeries;

struct tagReplayOptions
{
    std::vector<std::string> vecCaptures;
    std::string strOut; // what was played, as pcap; empty: not written
    bool bLowLatency = false;
    int nLogLevel = 0;       // receiver log lines up to this level go to fnLog; 0: none
    uint32 uPlayDelayMs = 0; // what the owner reports as its audio play delay
    double dSpeed = 0;       // times real time; 0: as fast as it goes
    std::map<uint8, tagRtpFormat> mapFormats;
    std::function<void(const std::string& strLine)> fnLog;
    CRunSeries* pSeries = nullptr; // is told what happens, for a report
    bool bProgress = false;
    bool bEndReport = false; // show the receiver's own end report
};

// What became of one stream. Times are milliseconds, "run time" counts from the first media packet's arrival.
struct tagStreamResult
{
    tagRtpStreamInfo stInfo;    // who, what, and the capture's own figures
    tagPacketAccount stPackets; // how its packets ended; nothing for an RTX or FEC stream
    CMsHistogram delay;         // playout delay: arrival to release
    bool bFed = false;
    bool bPlayed = false;
    uint32 dwFirstArrivalMs = 0; // run time
    uint32 dwFirstOutMs = 0;
    uint32 dwLastOutMs = 0;
    tagUdtStreamStats stStats;   // what was counted at the receiver; nothing for a stream that was not fed
    uint64 ullNackedPackets = 0; // distinct sequences that the capture's own receiver asked for (RTCP NACK)
    uint64 ullAskedByBoth = 0;   // asked for by it and by ours
    int64 llLeadSumMs = 0;       // over these: its first request less our first; positive: ours was earlier
};

// How far apart a user's picture and sound were released.
//
// At the release of each video frame's first packet: (release - media time) of the video less the same of
// the audio packet released last, the audio's release taken as later by the play delay that the owner
// reported. 0: in step. Positive: the picture is later than the sound.
struct tagUserResult
{
    uint64 llAccount = 0;
    std::string strName; // CNAME, else "SSRC xxxxxxxx"
    std::vector<uint32> vecStreams;
    CMsHistogram avOffset; // absolute
    int64 llAvSumMs = 0;   // signed
};

struct tagReplayResult
{
    tagReplayOptions stOptions;
    uint64 ullStartUs = 0;   // arrival of the first media packet, since 1970
    uint32 dwDurationMs = 0; // first to last media packet
    uint32 dwRunMs = 0;      // first packet to the last turn
    tagCaptureStats stCapture;
    tagRtpTotals stTotals;
    std::vector<std::string> vecGuesses;
    std::vector<tagStreamResult> vecStreams; // by number
    std::vector<tagUserResult> vecUsers;     // in the order of their first stream
    uint64 ullPullBacks = 0;                 // times the receiver pulled playout back
    uint64 ullWritten = 0;                   // packets in the --out capture
    bool bPlayed = false;                    // there was something to play
    std::string strInputError;               // one line; what came before it was played
    std::string strOutputError;              // one line
    std::vector<std::string> vecEndReport;   // the receiver's own, line by line
    tagUdtStats stStats;                     // what was counted at the receiver, all of it
    uint64 ullBroken = 0;                    // broken checks
    std::vector<std::string> vecViolations;

    // 0, 2 (input or output) or 3 (a check was broken).
    int ExitCode() const;
};

tagReplayResult RunReplay(const tagReplayOptions& stOptions);

} // namespace lab

#endif
