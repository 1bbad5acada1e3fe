// Recorded networks, read from the forms in which they are published.
#ifndef LAB_SIMTRACE_H
#define LAB_SIMTRACE_H

#include "xptypes.h"

#include <string>
#include <vector>

namespace lab
{

constexpr int64 c_llSecondUs = 1000000;

// A value that holds from one time on until the next point. Times are microseconds from 0.
struct tagTracePoint
{
    int64 llAtUs;
    double dValue;
};

// A recording played in a loop.
struct tagSimTrace
{
    std::vector<tagTracePoint> vecPoints; // ascending
    int64 llPeriodUs = 0;                 // the first point comes round again after this long

    // The value at a time, looping. llCursor is the caller's place in the recording, to be kept between calls.
    double At(int64 llTimeUs, size_t& nCursor) const;
};

// What a link could carry. Either delivery opportunities of 1500 bytes or a rate that changes in steps.
struct tagRateTrace
{
    std::vector<int64> vecOpportunityUs; // ascending; empty: stRateKbps holds
    tagSimTrace stRateKbps;
    int64 llPeriodUs = 0;
    double dMeanKbps = 0;
};

// When packets were lost: a share of packets over time, or one mark per packet.
struct tagLossTrace
{
    tagSimTrace stShare;           // 0 to 1
    std::vector<uint8> vecPattern; // 1: this packet is lost; empty: stShare holds
};

// Which column of a table with both directions is meant.
enum emTraceWay
{
    TRACE_DOWNLINK,
    TRACE_UPLINK
};

// Each reads one file. False: strError is one line with file, line and what was expected there.
//
//  - rate: mahimahi (one line per delivery opportunity, milliseconds from the start, never falling), or the
//    table of the 5G data set (columns Timestamp and DL_bitrate or UL_bitrate in kbit/s);
//  - delay: the text of ping (one echo per second, half its round trip is one way), or that table (PINGAVG);
//  - loss: the text of ping (a second whose echo is missing loses everything), that table (PINGLOSS, percent),
//    or one 0 or 1 per line, 1 for a lost packet.
bool ReadRateTrace(const std::string& strPath, emTraceWay eWay, tagRateTrace& stTrace, std::string& strError);
bool ReadDelayTrace(const std::string& strPath, tagSimTrace& stOneWayMs, std::string& strError);
bool ReadLossTrace(const std::string& strPath, tagLossTrace& stTrace, std::string& strError);

} // namespace lab

#endif
