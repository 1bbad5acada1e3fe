// Capture files as one stream of UDP datagrams: pcap and pcapng (through libpcap) and rtpdump.
//
// A reader holds one record at a time, so an hour of capture costs no more memory than a second. It never
// throws: a file that cannot be opened gives no reader and a one-line error, a file that breaks off in the
// middle gives every datagram before the break and then a one-line error. Both lines name the file, the
// offset and what was expected there.
#ifndef LAB_CAPTURE_CAPTUREREADER_H
#define LAB_CAPTURE_CAPTUREREADER_H

#include "Datagram.h"

#include <memory>
#include <string>
#include <vector>

namespace lab
{

// What a capture held, datagrams and the records that were none.
struct tagCaptureStats
{
    uint64 ullRecords = 0;    // all records read
    uint64 ullDatagrams = 0;  // UDP datagrams handed out
    uint64 ullNotIp = 0;      // ARP, LLDP, IPv4 in an unknown frame, ...
    uint64 ullNotUdp = 0;     // IP, but TCP, ICMP, ...
    uint64 ullFragments = 0;  // IP fragments: skipped, never reassembled
    uint64 ullCutHeaders = 0; // captured too short to hold its own headers
    uint64 ullTimeBack = 0;   // stamped earlier than the datagram before it

    void Add(const tagCaptureStats& o);
};

enum class EReadResult
{
    Datagram, // the out-argument holds the next one
    End,      // the file ended where a record would have begun
    Error     // the file is broken here; Error() has the line, and every later call says End
};

class ICaptureReader
{
public:
    virtual ~ICaptureReader() = default;
    virtual EReadResult Next(tagDatagram& stOut) = 0;
    // The one-line error, empty when there was none.
    virtual const std::string& Error() const = 0;
    virtual const tagCaptureStats& Stats() const = 0;
    // Bytes read and bytes there are, for a progress bar.
    virtual uint64 Position() const = 0;
    virtual uint64 Size() const = 0;
};

// Opens one capture by what its first bytes say it is; null and a one-line strError when it cannot be played.
std::unique_ptr<ICaptureReader> OpenCapture(const std::string& strPath, std::string& strError);

// Opens several and merges them by arrival time (equal times: the order of the paths). One capture that
// breaks does not stop the others; Error() then has the first line.
std::unique_ptr<ICaptureReader> OpenCaptures(const std::vector<std::string>& vecPaths, std::string& strError);

} // namespace lab

#endif
