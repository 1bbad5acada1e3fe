#include "LabBytes.h"

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>

namespace labtest
{

Bytes Join(std::initializer_list<Bytes> list)
{
    Bytes out;
    for (const Bytes& b : list)
        out.insert(out.end(), b.begin(), b.end());
    return out;
}
Bytes Be16(uint32_t u) { return {(uint8_t)(u >> 8), (uint8_t)u}; }
Bytes Be32(uint32_t u) { return {(uint8_t)(u >> 24), (uint8_t)(u >> 16), (uint8_t)(u >> 8), (uint8_t)u}; }
Bytes Le16(uint32_t u) { return {(uint8_t)u, (uint8_t)(u >> 8)}; }
Bytes Le32(uint32_t u) { return {(uint8_t)u, (uint8_t)(u >> 8), (uint8_t)(u >> 16), (uint8_t)(u >> 24)}; }
Bytes Fill(size_t n, uint8_t c) { return Bytes(n, c); }

Bytes Udp(const Bytes& payload)
{
    return Join({Be16(5004), Be16(6004), Be16((uint32_t)payload.size() + 8), Be16(0), payload});
}

Bytes Ipv4(const Bytes& udp, uint16_t wFragment, uint8_t cProto)
{
    return Join({{0x45, 0},
                 Be16((uint32_t)udp.size() + 20),
                 Be16(0),
                 Be16(wFragment),
                 {64, cProto},
                 Be16(0),
                 {10, 0, 0, 1, 10, 0, 0, 2},
                 udp});
}

Bytes Ipv6(const Bytes& next, uint8_t cNext)
{
    Bytes src = Fill(16, 0), dst = Fill(16, 0);
    src[0] = dst[0] = 0xFD;
    src[15] = 1;
    dst[15] = 2;
    return Join({{0x60, 0, 0, 0}, Be16((uint32_t)next.size()), {cNext, 64}, src, dst, next});
}

Bytes EthernetHead(uint16_t wType) { return Join({Fill(12, 0x02), Be16(wType)}); }

Bytes Rtp(uint8_t cPt, uint16_t wSeq, uint32_t dwTs, uint32_t dwSsrc, size_t nPayload, bool bMarker)
{
    return Join({{0x80, (uint8_t)(cPt | (bMarker ? 0x80 : 0))},
                 Be16(wSeq),
                 Be32(dwTs),
                 Be32(dwSsrc),
                 Fill(nPayload, 0x55)});
}

CPcapBytes::CPcapBytes(uint32_t uLinkType)
{
    m_bytes = Join({Le32(0xA1B2C3D4), Le16(2), Le16(4), Le32(0), Le32(0), Le32(65535), Le32(uLinkType)});
}

void CPcapBytes::Add(uint64_t ullTimeUs, const Bytes& frame, uint32_t uWire)
{
    const uint32_t uCaptured = (uint32_t)frame.size();
    m_bytes = Join({m_bytes, Le32((uint32_t)(ullTimeUs / 1000000)), Le32((uint32_t)(ullTimeUs % 1000000)),
                    Le32(uCaptured), Le32(uWire ? uWire : uCaptured), frame});
}

CPcapngBytes::CPcapngBytes(uint16_t wLinkType)
{
    Block(0x0A0D0D0A, Join({Le32(0x1A2B3C4D), Le16(1), Le16(0), Fill(8, 0xFF)}));
    Block(1, Join({Le16(wLinkType), Le16(0), Le32(65535)}));
}

void CPcapngBytes::Add(uint64_t ullTimeUs, const Bytes& frame)
{
    const uint32_t u = (uint32_t)frame.size();
    Block(6, Join({Le32(0), Le32((uint32_t)(ullTimeUs >> 32)), Le32((uint32_t)ullTimeUs), Le32(u), Le32(u),
                   frame, Fill((4 - u % 4) % 4, 0)}));
}

void CPcapngBytes::Block(uint32_t uType, const Bytes& body)
{
    const Bytes len = Le32((uint32_t)body.size() + 12);
    m_bytes = Join({m_bytes, Le32(uType), len, body, len});
}

Bytes RtpdumpHead(uint32_t uSec)
{
    const std::string strLine = "#!rtpplay1.0 10.0.0.9/5004\n";
    return Join({Bytes(strLine.begin(), strLine.end()),
                 Be32(uSec),
                 Be32(250000),
                 {10, 0, 0, 9},
                 Be16(5004),
                 Be16(0)});
}

Bytes RtpdumpRecord(uint32_t uOffsetMs, const Bytes& packet, bool bRtcp)
{
    const uint32_t n = (uint32_t)packet.size();
    return Join({Be16(n + 8), Be16(bRtcp ? 0 : n), Be32(uOffsetMs), packet});
}

CTempDir::CTempDir()
{
    std::string strTemplate = (std::filesystem::temp_directory_path() / "udtlab-XXXXXX").string();
    m_strPath = mkdtemp(strTemplate.data()) ? strTemplate : ".";
}

CTempDir::~CTempDir()
{
    std::error_code ignored;
    if (m_strPath != ".")
        std::filesystem::remove_all(m_strPath, ignored);
}

std::string CTempDir::Write(const std::string& strName, const Bytes& bytes) const
{
    std::ofstream out(Path(strName), std::ios::binary);
    out.write(reinterpret_cast<const char*>(bytes.data()), (std::streamsize)bytes.size());
    return Path(strName);
}

Bytes ReadFile(const std::string& strPath)
{
    std::ifstream in(strPath, std::ios::binary);
    return Bytes(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

std::string Bundled(const std::string& strName)
{
    return std::string(UDT_SOURCE_DIR) + "/data/rtp/" + strName;
}

std::string Shared(const std::string& strName)
{
    const char* pszFolder = getenv("UDT_SHARED_DATA");
    const std::string strFolder = pszFolder ? pszFolder : std::string(UDT_SOURCE_DIR) + "/../shared/data";
    const std::string strPath = strFolder + "/rtp/" + strName;
    return std::filesystem::exists(strPath) ? strPath : "";
}

} // namespace labtest
