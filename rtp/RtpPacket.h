/// Reading the bytes of RTP and RTCP. Every function takes any bytes.
#ifndef RTP_PACKET_H
#define RTP_PACKET_H

#include <memory>
#include <vector>

#include "RtpTypes.h"

/// An RTP header and where its parts lie.
struct tagRtpHeader
{
    bool bMarker = false;
    uint8 cPt = 0;
    uint16 wSeq = 0;
    uint32 dwTs = 0;
    uint32 dwSsrc = 0;
    uint16 wExtProfile = 0; ///< of the header extension
    uint32 dwExtAt = 0;     ///< offset of the extension's data; 0 without one
    uint32 dwExtLen = 0;    ///< bytes of it
    uint32 dwHeadLen = 0;   ///< offset of the payload
    uint32 dwPayload = 0;   ///< payload bytes as on the wire, padding left out
    uint32 dwCaptured = 0;  ///< payload bytes that are there
};

/// Tells RTP from RTCP on one port (RFC 5761 4): second byte 192 to 223.
bool IsRtcp(const uint8* pData, uint32 dwLen);

/// @return false with the reason when it is no RTP packet. Padding of a cut capture cannot be seen and counts as
/// payload.
bool ParseRtp(const uint8* pData, uint32 dwCaptured, uint32 dwWire, tagRtpHeader& stHeader,
              emRtpDrop& eReason);

/// Walks the elements of an RFC 8285 header extension (one-byte and two-byte form): fn(id, data, length).
template <typename Fn>
void ForEachExtension(const uint8* pData, const tagRtpHeader& stHeader, Fn fn)
{
    const bool bOneByte = stHeader.wExtProfile == 0xBEDE;
    if (stHeader.dwExtLen == 0 || (!bOneByte && (stHeader.wExtProfile & 0xFFF0) != 0x1000))
        return;
    const uint8* p = pData + stHeader.dwExtAt;
    const uint8* pEnd = p + stHeader.dwExtLen;
    while (p < pEnd)
    {
        if (*p == 0) // padding between elements
        {
            p++;
            continue;
        }
        uint32 dwId = 0;
        uint32 dwLen = 0;
        if (bOneByte)
        {
            dwId = *p >> 4;
            dwLen = (*p & 0x0F) + 1u;
            p++;
            if (dwId == 15) // reserved: the rest is not to be read
                return;
        }
        else
        {
            if (pEnd - p < 2)
                return;
            dwId = p[0];
            dwLen = p[1];
            p += 2;
        }
        if ((uint32)(pEnd - p) < dwLen)
            return;
        fn(dwId, p, dwLen);
        p += dwLen;
    }
}

/// Reads compound RTCP. Keeps one buffer, so it is not for two threads at once.
class CRtcpReader
{
public:
    CRtcpReader();
    ~CRtcpReader();
    CRtcpReader(const CRtcpReader&) = delete;
    CRtcpReader& operator=(const CRtcpReader&) = delete;

    /// Appends what is of use (SR and their report blocks, RR, CNAME, BYE, generic NACK, PLI), times and streams
    /// left empty; counts every part by type and every refused part by reason. What came before a bad part counts.
    void Read(const uint8* pData, uint32 dwLen, std::vector<tagRtpEvent>& vecEvents, tagRtpTotals& stTotals);

private:
    struct tagBuffer;
    bool ReadPart(const uint8* pPart, uint32 dwLen, std::vector<tagRtpEvent>& vecEvents);

    std::unique_ptr<tagBuffer> m_pBuffer;
};

#endif // RTP_PACKET_H
