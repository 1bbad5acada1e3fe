// What a simulated call is made of. docs/simulate.md tells every option with its unit and default.
#ifndef LAB_SIMSCENARIO_H
#define LAB_SIMSCENARIO_H

#include "SimTrace.h"
#include "xptypes.h"

#include <nlohmann/json.hpp>

#include <array>
#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace lab
{

// ---- Network ---------------------------------------------------------------------------------------------------

// One direction. Packets meet, in this order: outages and loss, the bottleneck's queue, delay with jitter and
// reordering, duplication.
struct tagSimPath
{
    double dLossPercent = 0;
    double dBurst =
        0; // mean packets per loss burst (Gilbert-Elliott); 0: every packet for itself (Bernoulli)
    std::vector<std::pair<int64, int64>> vecOutages; // from, for: microseconds
    int64 llOutageEveryUs = 0; // besides: one of llOutageForUs at the end of every such span
    int64 llOutageForUs = 0;
    std::string strLossTrace;

    int64 llDelayUs = 0;
    int64 llJitterUs = 0;           // standard deviation of a normal distribution; a delay is never below 0
    int64 llJitterMemoryUs = 50000; // how long a delay that has wandered off stays away
    bool bJitterReorders = false;   // true: every packet for itself, overtaking; false: as in a queue
    std::vector<std::pair<int64, int64>> vecSteps; // from, delay from then on: microseconds
    std::string strDelayTrace;                     // replaces delay and steps

    double dReorderPercent = 0; // held back and overtaken
    int64 llReorderUs = 20000;  // for up to this long
    double dDuplicatePercent = 0;
    int64 llDuplicateUs = 0; // the copy comes up to this much later

    double dRateKbps = 0; // 0: no bottleneck
    std::string strRateTrace;
    int64 llQueueUs = 300000; // depth of its queue, in time at the (mean) rate
    uint32 uQueueBytes = 0;   // not 0: in bytes instead

    // The recordings that the names above stand for.
    std::shared_ptr<const tagLossTrace> pLossTrace;
    std::shared_ptr<const tagSimTrace> pDelayTrace;
    std::shared_ptr<const tagRateTrace> pRateTrace;
};

// ---- Senders ---------------------------------------------------------------------------------------------------

struct tagSimAudio
{
    bool bOn = true;
    uint32 uKbps = 40;
    int64 llPacketUs = 20000;
};

struct tagSimVideo
{
    bool bOn = false;
    uint32 uKbps = 1000;
    double dFps = 15;
    uint32 uGop = 30;     // frames from one I frame to the next
    double dIRatio = 6;   // bytes of an I frame over those of a P frame
    double dSpread = 20;  // frame sizes vary evenly by up to this many percent
    uint32 uMtu = 1200;   // largest packet, bytes on the wire
    uint32 uFec = 0;      // packets added to each frame
    int64 llPaceUs = 300; // between the packets of a frame
};

// The streams of a user, in the order of this list everywhere.
enum emSimStream
{
    SIM_AUDIO,
    SIM_BIG,
    SIM_SMALL,
    SIM_SUB,
    SIM_SHARE,
    SIM_STREAMS
};
const char* SimStreamName(int nStream); // "audio", "video", "small", "sub", "share"
uint8 SimStreamSubType(int nStream);    // emUDTAVType

enum emSimDeed
{
    SIM_JOIN,
    SIM_LEAVE,
    SIM_MUTE,
    SIM_UNMUTE
};

struct tagSimDeed
{
    int64 llAtUs = 0;
    emSimDeed eDeed = SIM_JOIN;
    uint32 uStreams = (1u << SIM_STREAMS) - 1; // which streams are muted or unmuted, a bit each
};

// Where a sender's numbers begin, so that a wrap can be put where one wants it.
struct tagSimFirst
{
    uint32 dwSeq = 1;
    uint8 cGop = 0;
    uint32 dwMediaMs = 100000;
    uint16 wTransportMs = 0;
};

struct tagSimUsers
{
    uint32 uCount = 1;
    std::string strName = "user";
    double dSkewPpm = 0;       // of the sender's clock; positive: it runs fast
    double dSkewSpreadPpm = 0; // spread evenly over the group, from -spread to +spread around it
    int64 llJoinUs = 0;
    int64 llJoinEveryUs = 0; // each further user of the group joins this much later
    int64 llLeaveUs = -1;    // -1: stays
    bool bRestart = false;   // a rejoin starts sequences anew instead of going on
    tagSimAudio stAudio;
    std::array<tagSimVideo, SIM_STREAMS> aVideo; // by emSimStream; the audio's place is not used
    tagSimFirst stFirst;
    std::vector<tagSimDeed> vecDeeds; // by time
};

// ---- The rest ----------------------------------------------------------------------------------------------------

struct tagSimReceiver
{
    bool bLowLatency = false;
    uint32 uPlayDelayMs = 0;
    int64 llTurnUs = 10000;
    int64 llJoinUs = -1;    // -1: at once, or when there are enough GOPs to be pushed
    uint32 uTimelineMs = 0; // 0 leaves the receiver's default, as do the next three
    uint32 uTimelineMaxMs = 0;
    uint32 uFirstRequestMs = 0;
    uint32 uNextRequestMs = 0;
    bool bRequests = true;
    int64 llRttEveryUs = 2000000;  // measured and told this often; 0: never
    int64 llPollEveryUs = 2000000; // the downlink loss is read this often; 0: never
    uint64 ullFirstTick = 1000000;
};

struct tagSimRelay
{
    uint32 uPushGops = 0;
    double dPushKbps = 10000; // 0: all at once
    int64 llHistoryUs = 5000000;
    bool bAnswer = true;
    bool bPassOn = true;       // asks the sender for what it never had itself
    uint32 dwFirstDownSeq = 2; // a first downlink sequence of 1 does not count for the receiver
    uint32 uRecords = 50;      // most entries of a loss request per datagram
};

struct tagScenario
{
    std::string strName = "call";
    std::string strAbout;
    uint64 ullSeed = 1;
    int64 llDurationUs = 60000000;
    int64 llCountFromUs = 0; // packets sent before are not counted
    tagSimReceiver stReceiver;
    tagSimRelay stRelay;
    std::vector<tagSimUsers> vecUsers;
    tagSimPath stUp;      // sender to relay, one link for each sender
    tagSimPath stDown;    // relay to receiver
    tagSimPath stRequest; // receiver to relay
    tagSimPath stBack;    // relay to sender
};

// ---- Reading -----------------------------------------------------------------------------------------------------

// The document of a call with nothing special: four users with audio and a 1 Mbit/s video over a clean network.
nlohmann::ordered_json DefaultScenario();

// Reads a file as JSON. strError is one line with file, line and column.
bool ReadScenarioFile(const std::string& strPath, nlohmann::ordered_json& j, std::string& strError);

// Sets one option in a document: "down.loss_percent", "users.video.kbps" (every group), "users.0.count". The value
// is JSON; what is not JSON is taken as text.
bool SetScenarioOption(nlohmann::ordered_json& j, const std::string& strPath, const std::string& strValue,
                       std::string& strError);

// Makes sense of a document. Names of recordings are relative to strFolder. strError is one line that names the
// option and tells what was expected.
bool ParseScenario(const nlohmann::ordered_json& j, const std::string& strFolder, tagScenario& stScenario,
                   std::string& strError);

} // namespace lab

#endif
