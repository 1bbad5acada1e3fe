// Hand-made bytes for the lab's tests: frames, datagrams, RTP, captures, and a folder that goes away.
#ifndef TESTS_LAB_LABBYTES_H
#define TESTS_LAB_LABBYTES_H

#include <cstdint>
#include <string>
#include <vector>

namespace labtest
{

typedef std::vector<uint8_t> Bytes;

Bytes Join(std::initializer_list<Bytes> list);
Bytes Be16(uint32_t u);
Bytes Be32(uint32_t u);
Bytes Le16(uint32_t u);
Bytes Le32(uint32_t u);
Bytes Fill(size_t n, uint8_t c);

// UDP datagrams 10.0.0.1:5004 -> 10.0.0.2:6004, or fd00::1 -> fd00::2 with the same ports.
Bytes Udp(const Bytes& payload);
Bytes Ipv4(const Bytes& udp, uint16_t wFragment = 0, uint8_t cProto = 17);
Bytes Ipv6(const Bytes& next, uint8_t cNext = 17);

Bytes EthernetHead(uint16_t wType);
Bytes Rtp(uint8_t cPt, uint16_t wSeq, uint32_t dwTs, uint32_t dwSsrc, size_t nPayload, bool bMarker = false);

// A capture under construction. Times are microseconds since 1970.
class CPcapBytes
{
public:
    explicit CPcapBytes(uint32_t uLinkType);
    void Add(uint64_t ullTimeUs, const Bytes& frame, uint32_t uWire = 0);
    Bytes m_bytes;
};

class CPcapngBytes
{
public:
    explicit CPcapngBytes(uint16_t wLinkType);
    void Add(uint64_t ullTimeUs, const Bytes& frame);
    Bytes m_bytes;

private:
    void Block(uint32_t uType, const Bytes& body);
};

// "#!rtpplay1.0 10.0.0.9/5004\n" and its head, started at this second.
Bytes RtpdumpHead(uint32_t uSec);
Bytes RtpdumpRecord(uint32_t uOffsetMs, const Bytes& packet, bool bRtcp = false);

class CTempDir
{
public:
    CTempDir();
    ~CTempDir();
    std::string Path(const std::string& strName) const { return m_strPath + "/" + strName; }
    std::string Write(const std::string& strName, const Bytes& bytes) const;

private:
    std::string m_strPath;
};

Bytes ReadFile(const std::string& strPath);

// A bundled capture, one in the folder beside the checkout (empty where there is none).
std::string Bundled(const std::string& strName);
std::string Shared(const std::string& strName);

} // namespace labtest

#endif
