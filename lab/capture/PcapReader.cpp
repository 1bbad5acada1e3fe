// pcap and pcapng through libpcap. libpcap's own errors do not say where the file broke, so the position is
// taken from its FILE before every record.

#include "LinkLayer.h"
#include "Readers.h"

#include <fmt/format.h>
#include <pcap/pcap.h>

#include <algorithm>

namespace lab
{

namespace
{

// Where the file states its link type, for the error line: fixed in pcap, in the first Interface
// Description Block in pcapng.
uint64 LinkTypeOffset(const std::string& strPath)
{
    constexpr uint64 c_ullPcap = 20;
    FILE* pFile = fopen(strPath.c_str(), "rb");
    if (!pFile)
        return c_ullPcap;
    uint64 ullOffset = c_ullPcap;
    uint8 aHead[12];
    if (fread(aHead, 1, sizeof(aHead), pFile) == sizeof(aHead) && aHead[0] == 0x0A && aHead[1] == 0x0D)
    {
        const bool bBig = aHead[8] == 0x1A;
        auto get32 = [bBig](const uint8* p)
        {
            return bBig ? (uint32)p[0] << 24 | (uint32)p[1] << 16 | (uint32)p[2] << 8 | p[3]
                        : (uint32)p[3] << 24 | (uint32)p[2] << 16 | (uint32)p[1] << 8 | p[0];
        };
        uint64 ullBlock = 0;
        uint32 uLen = get32(aHead + 4);
        while (uLen >= 12)
        {
            ullBlock += uLen;
            if (fseek(pFile, (long)ullBlock, SEEK_SET) != 0 || fread(aHead, 1, 8, pFile) != 8)
                break;
            if (get32(aHead) == 1)
            {
                ullOffset = ullBlock + 8;
                break;
            }
            uLen = get32(aHead + 4);
        }
    }
    fclose(pFile);
    return ullOffset;
}

std::string LinkTypeName(int nDlt)
{
    const char* pszName = pcap_datalink_val_to_name(nDlt);
    return pszName ? fmt::format("{} ({})", nDlt, pszName) : fmt::format("{}", nDlt);
}

// libpcap's texts are one line already, but for a stray newline in a comment it quotes.
std::string OneLine(std::string strText)
{
    std::replace(strText.begin(), strText.end(), '\n', ' ');
    return strText;
}

} // namespace

std::unique_ptr<CPcapReader> CPcapReader::Open(FILE* pFile, const std::string& strPath, uint64 ullSize,
                                               std::string& strError)
{
    char szError[PCAP_ERRBUF_SIZE] = "";
    std::unique_ptr<CPcapReader> pReader(new CPcapReader(strPath, ullSize));
    pReader->m_pPcap = pcap_fopen_offline_with_tstamp_precision(pFile, PCAP_TSTAMP_PRECISION_NANO, szError);
    if (!pReader->m_pPcap)
    {
        const long lAt = ftell(pFile);
        fclose(pFile);
        // A file too short to say what it is and a file that is something else both stop at the head.
        strError = fmt::format("{}: offset {}: {} (expected a pcap, pcapng or rtpdump file)", strPath,
                               ullSize < 4 ? 0 : std::max(0L, lAt), OneLine(szError));
        return nullptr;
    }
    pReader->m_pFile = pFile;
    pReader->m_nDlt = pcap_datalink(pReader->m_pPcap);
    if (!IsKnownLinkType(pReader->m_nDlt))
    {
        strError = fmt::format("{}: offset {}: link type {} is not understood (expected Ethernet, raw IP, "
                               "Linux cooked or loopback)",
                               strPath, LinkTypeOffset(strPath), LinkTypeName(pReader->m_nDlt));
        return nullptr;
    }
    return pReader;
}

CPcapReader::~CPcapReader()
{
    if (m_pPcap)
        pcap_close(m_pPcap); // closes the FILE too
}

EReadResult CPcapReader::Next(tagDatagram& stOut)
{
    while (!m_bEnded)
    {
        const long lAt = ftell(m_pFile);
        pcap_pkthdr* pHead = nullptr;
        const u_char* pFrame = nullptr;
        const int nResult = pcap_next_ex(m_pPcap, &pHead, &pFrame);
        if (nResult == PCAP_ERROR_BREAK)
        {
            m_bEnded = true;
            m_ullPosition = (uint64)std::max(0L, ftell(m_pFile));
            break;
        }
        if (nResult != 1)
            return Fail((uint64)std::max(0L, lAt), OneLine(pcap_geterr(m_pPcap)));

        m_stStats.ullRecords++;
        m_ullPosition = (uint64)std::max(0L, ftell(m_pFile));
        stOut.ullOffset = (uint64)std::max(0L, lAt);
        stOut.ullArrivalUs = (uint64)pHead->ts.tv_sec * 1000000 + pHead->ts.tv_usec / 1000; // nanoseconds
        switch (UnwrapFrame(m_nDlt, pFrame, pHead->caplen, pHead->len, stOut))
        {
        case EUnwrap::Udp: return Deliver(stOut);
        case EUnwrap::NotIp: m_stStats.ullNotIp++; break;
        case EUnwrap::NotUdp: m_stStats.ullNotUdp++; break;
        case EUnwrap::Fragment: m_stStats.ullFragments++; break;
        case EUnwrap::CutHeader: m_stStats.ullCutHeaders++; break;
        }
    }
    return EReadResult::End;
}

} // namespace lab
