#include "PlayedWriter.h"

#include <fmt/format.h>
#include <pcap/pcap.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

namespace lab
{

namespace
{

constexpr int c_nSnapLen = 262144;
constexpr size_t c_nIpv4Head = 20;
constexpr size_t c_nIpv6Head = 40;
constexpr size_t c_nUdpHead = 8;
constexpr uint8 c_cUdp = 17;
constexpr uint8 c_cTtl = 64;

void Put16(uint8* p, size_t n)
{
    p[0] = (uint8)(n >> 8);
    p[1] = (uint8)n;
}

// RFC 1071, unfolded; an odd last byte counts as the high one.
uint32 Sum(const uint8* p, size_t n, uint32 uSum)
{
    for (size_t i = 0; i + 1 < n; i += 2)
        uSum += (uint32)(p[i] << 8 | p[i + 1]);
    if (n & 1)
        uSum += (uint32)(p[n - 1] << 8);
    return uSum;
}

uint16 Fold(uint32 uSum)
{
    while (uSum >> 16)
        uSum = (uSum & 0xFFFF) + (uSum >> 16);
    return (uint16)~uSum;
}

} // namespace

std::unique_ptr<CPlayedWriter> CPlayedWriter::Open(const std::string& strPath, std::string& strError)
{
    std::unique_ptr<CPlayedWriter> pWriter(new CPlayedWriter(strPath));
    FILE* pFile = fopen(strPath.c_str(), "wb");
    if (!pFile)
    {
        strError = fmt::format("{}: cannot be written: {}", strPath, strerror(errno));
        return nullptr;
    }
    pWriter->m_pPcap = pcap_open_dead(DLT_RAW, c_nSnapLen);
    pWriter->m_pDumper = pWriter->m_pPcap ? pcap_dump_fopen(pWriter->m_pPcap, pFile) : nullptr;
    if (!pWriter->m_pDumper)
    {
        strError = fmt::format("{}: cannot be written: {}", strPath,
                               pWriter->m_pPcap ? pcap_geterr(pWriter->m_pPcap) : "no memory");
        fclose(pFile);
        return nullptr;
    }
    return pWriter;
}

CPlayedWriter::~CPlayedWriter()
{
    std::string strIgnored;
    Close(strIgnored);
    if (m_pPcap)
        pcap_close(m_pPcap);
}

bool CPlayedWriter::Close(std::string& strError)
{
    if (!m_pDumper)
        return true;
    const bool bOk = pcap_dump_flush(m_pDumper) == 0 && !ferror(pcap_dump_file(m_pDumper));
    if (!bOk)
        strError = fmt::format("{}: cannot be written: {}", m_strPath, strerror(errno));
    pcap_dump_close(m_pDumper);
    m_pDumper = nullptr;
    return bOk;
}

void CPlayedWriter::Write(const CMediaPacket& packet, uint64 ullTimeUs)
{
    const bool bIpv6 = packet.m_stSrc.cFamily == 6;
    const size_t nIpHead = bIpv6 ? c_nIpv6Head : c_nIpv4Head;
    const size_t nHeads = nIpHead + c_nUdpHead;
    const size_t nBytes = packet.m_vecBytes.size();
    const size_t nUdp =
        std::min<size_t>(c_nUdpHead + std::max<size_t>(nBytes, packet.m_dwWireLen), 65535 - nIpHead);
    const size_t nKept = std::min(nBytes, nUdp - c_nUdpHead);

    m_vecFrame.assign(nHeads + nKept, 0);
    uint8* pIp = m_vecFrame.data();
    uint8* pUdp = pIp + nIpHead;
    const uint8* pAddresses;
    size_t nAddresses;
    if (bIpv6)
    {
        pIp[0] = 0x60;
        Put16(pIp + 4, nUdp);
        pIp[6] = c_cUdp;
        pIp[7] = c_cTtl;
        std::copy_n(packet.m_stSrc.aAddr.begin(), 16, pIp + 8);
        std::copy_n(packet.m_stDst.aAddr.begin(), 16, pIp + 24);
        pAddresses = pIp + 8;
        nAddresses = 32;
    }
    else
    {
        pIp[0] = 0x45;
        Put16(pIp + 2, nIpHead + nUdp);
        pIp[6] = 0x40; // do not fragment, so no identification is needed (RFC 6864)
        pIp[8] = c_cTtl;
        pIp[9] = c_cUdp;
        std::copy_n(packet.m_stSrc.aAddr.begin(), 4, pIp + 12);
        std::copy_n(packet.m_stDst.aAddr.begin(), 4, pIp + 16);
        Put16(pIp + 10, Fold(Sum(pIp, nIpHead, 0)));
        pAddresses = pIp + 12;
        nAddresses = 8;
    }
    Put16(pUdp, packet.m_stSrc.wPort);
    Put16(pUdp + 2, packet.m_stDst.wPort);
    Put16(pUdp + 4, nUdp);
    std::copy_n(packet.m_vecBytes.begin(), nKept, pUdp + c_nUdpHead);
    if (nKept + c_nUdpHead == nUdp) // the checksum of a cut packet is not known
    {
        const uint32 uPseudo = Sum(pAddresses, nAddresses, (uint32)(c_cUdp + nUdp));
        const uint16 wSum = Fold(Sum(pUdp, nUdp, uPseudo));
        Put16(pUdp + 6, wSum ? wSum : 0xFFFF);
    }

    pcap_pkthdr stHead = {};
    stHead.ts.tv_sec = (time_t)(ullTimeUs / 1000000);
    stHead.ts.tv_usec = (suseconds_t)(ullTimeUs % 1000000);
    stHead.caplen = (bpf_u_int32)m_vecFrame.size();
    stHead.len = (bpf_u_int32)(nIpHead + nUdp);
    pcap_dump(reinterpret_cast<u_char*>(m_pDumper), &stHead, m_vecFrame.data());
    m_ullPackets++;
}

} // namespace lab
