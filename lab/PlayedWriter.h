// Writes what was played, when it was played, as a capture.
#ifndef LAB_PLAYEDWRITER_H
#define LAB_PLAYEDWRITER_H

#include "MediaPacket.h"

#include <memory>
#include <string>

struct pcap;
struct pcap_dumper;

namespace lab
{

// A pcap of raw IP packets: UDP over IPv4 or IPv6 between the original ends, or 0.0.0.0 where the input named
// none. A packet whose payload was cut when it was captured is as long here as it was on the wire, and cut.
class CPlayedWriter
{
public:
    // Null and a one-line strError when the file cannot be written.
    static std::unique_ptr<CPlayedWriter> Open(const std::string& strPath, std::string& strError);
    ~CPlayedWriter();
    CPlayedWriter(const CPlayedWriter&) = delete;
    CPlayedWriter& operator=(const CPlayedWriter&) = delete;

    // At this time, microseconds since 1970.
    void Write(const CMediaPacket& packet, uint64 ullTimeUs);
    // Everything is on the disk, or strError says why not.
    bool Close(std::string& strError);
    uint64 Packets() const { return m_ullPackets; }

private:
    explicit CPlayedWriter(std::string strPath) : m_strPath(std::move(strPath)) {}

    std::string m_strPath;
    pcap* m_pPcap = nullptr;
    pcap_dumper* m_pDumper = nullptr;
    std::vector<uint8> m_vecFrame;
    uint64 m_ullPackets = 0;
};

} // namespace lab

#endif
