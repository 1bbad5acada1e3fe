// rtpdump files. A record's plen is the packet's length on the wire; 0 marks RTCP, whose length is then what
// was captured. The format keeps no addresses per packet, so every datagram comes from the one source that
// the head names, RTCP from the port after it.

#include "BigEndian.h"
#include "Readers.h"

#include <arpa/inet.h>
#include <fmt/format.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>

namespace lab
{

namespace
{

constexpr char c_szMagic[] = "#!rtpplay1.0";
constexpr size_t c_nMaxLine = 128;
constexpr size_t c_nHead = 16;
constexpr size_t c_nRecordHead = 8;

// "#!rtpplay1.0 a.b.c.d/port\n"; false when it is anything else. Some writers leave the address out, or give a
// host name: then it stays unknown.
bool ParseLine(const char* pszLine, tagRtpAddr& stSource)
{
    const size_t nMagic = sizeof(c_szMagic) - 1;
    const char* pszEnd = strchr(pszLine, '\n');
    if (strncmp(pszLine, c_szMagic, nMagic) != 0 || !pszEnd)
        return false;
    const std::string strRest(pszLine + nMagic, pszEnd);
    const size_t nSlash = strRest.find('/');
    if (nSlash == std::string::npos)
        return strRest.find_first_not_of(" \t\r") == std::string::npos;
    const std::string strPort = strRest.substr(nSlash + 1);
    char* pszAfter = nullptr;
    const unsigned long ulPort = strtoul(strPort.c_str(), &pszAfter, 10);
    if (pszAfter == strPort.c_str() || ulPort > 65535)
        return false;
    const std::string strHost = strRest.substr(0, nSlash);
    const size_t nHost = strHost.find_first_not_of(' ');
    if (nHost != std::string::npos && inet_pton(AF_INET, strHost.c_str() + nHost, stSource.aAddr.data()) == 1)
        stSource.cFamily = 4;
    stSource.wPort = (uint16)ulPort;
    return true;
}

} // namespace

std::unique_ptr<CRtpdumpReader> CRtpdumpReader::Open(FILE* pFile, const std::string& strPath, uint64 ullSize,
                                                     std::string& strError)
{
    std::unique_ptr<CRtpdumpReader> pReader(new CRtpdumpReader(strPath, ullSize));
    pReader->m_pFile = pFile;

    char szLine[c_nMaxLine + 1];
    if (!fgets(szLine, sizeof(szLine), pFile) || !ParseLine(szLine, pReader->m_stSource))
    {
        strError = fmt::format(
            "{}: offset 0: bad rtpdump head (expected \"#!rtpplay1.0 address/port\" and a newline)", strPath);
        return nullptr;
    }
    uint8 aHead[c_nHead];
    const long lAt = ftell(pFile);
    const size_t nGot = fread(aHead, 1, sizeof(aHead), pFile);
    if (nGot != sizeof(aHead))
    {
        strError = fmt::format("{}: offset {}: the rtpdump head is cut off (expected {} bytes, found {})",
                               strPath, lAt, c_nHead, nGot);
        return nullptr;
    }
    pReader->m_ullStartUs = (uint64)Be32(aHead) * 1000000 + Be32(aHead + 4);
    pReader->m_ullPosition = (uint64)lAt + c_nHead;
    return pReader;
}

CRtpdumpReader::~CRtpdumpReader()
{
    if (m_pFile)
        fclose(m_pFile);
}

EReadResult CRtpdumpReader::Next(tagDatagram& stOut)
{
    if (m_bEnded)
        return EReadResult::End;

    const uint64 ullAt = m_ullPosition;
    uint8 aHead[c_nRecordHead];
    const size_t nHead = fread(aHead, 1, sizeof(aHead), m_pFile);
    if (nHead == 0 && feof(m_pFile))
    {
        m_bEnded = true;
        return EReadResult::End;
    }
    if (nHead != sizeof(aHead))
        return Fail(ullAt, fmt::format("the file is cut off in a record's head (expected {} bytes, found {})",
                                       sizeof(aHead), nHead));
    const uint32 uRecord = Be16(aHead);
    const uint32 uWire = Be16(aHead + 2);
    if (uRecord < c_nRecordHead)
        return Fail(ullAt,
                    fmt::format("a record of {} bytes (expected at least {})", uRecord, c_nRecordHead));
    m_vecBody.resize(uRecord - c_nRecordHead);
    const size_t nBody = fread(m_vecBody.data(), 1, m_vecBody.size(), m_pFile);
    if (nBody != m_vecBody.size())
        return Fail(ullAt, fmt::format("the file is cut off in a packet (expected {} bytes, found {})",
                                       m_vecBody.size(), nBody));

    m_ullPosition = ullAt + uRecord;
    m_stStats.ullRecords++;
    const bool bRtcp = uWire == 0;
    stOut.ullOffset = ullAt;
    stOut.ullArrivalUs = m_ullStartUs + (uint64)Be32(aHead + 4) * 1000;
    stOut.stSrc = m_stSource;
    stOut.stSrc.wPort = (uint16)(m_stSource.wPort + (bRtcp ? 1 : 0));
    stOut.stDst = tagRtpAddr();
    stOut.stDst.cFamily = m_stSource.cFamily;
    stOut.stDst.wPort = stOut.stSrc.wPort;
    stOut.pData = m_vecBody.data();
    // A record may be longer than the packet it holds; what is behind the packet is no part of it.
    stOut.dwCaptured = (uint32)m_vecBody.size();
    if (!bRtcp)
        stOut.dwCaptured = std::min(stOut.dwCaptured, uWire);
    stOut.dwWire = bRtcp ? stOut.dwCaptured : uWire;
    return Deliver(stOut);
}

} // namespace lab
