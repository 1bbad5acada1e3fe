// Texts of the plain records. Any thread; no state.
#include "RtpTypes.h"

#include <cstdio>
#include <tuple>

bool tagRtpAddr::operator<(const tagRtpAddr& stOther) const
{
    return std::tie(cFamily, aAddr, wPort) < std::tie(stOther.cFamily, stOther.aAddr, stOther.wPort);
}

std::string tagRtpAddr::Text() const
{
    char szText[64];
    if (cFamily == 4)
    {
        std::snprintf(szText, sizeof(szText), "%u.%u.%u.%u:%u", (unsigned)aAddr[0], (unsigned)aAddr[1],
                      (unsigned)aAddr[2], (unsigned)aAddr[3], (unsigned)wPort);
        return szText;
    }
    if (cFamily != 6)
        return "-";

    // RFC 5952: the longest run of zero groups, two or more, is written as "::".
    unsigned auGroup[8];
    for (int i = 0; i < 8; i++)
        auGroup[i] = (unsigned)aAddr[2 * (size_t)i] << 8 | aAddr[2 * (size_t)i + 1];
    int nRun = -1;
    int nRunLen = 1;
    for (int i = 0; i < 8; i++)
    {
        int nLen = 0;
        while (i + nLen < 8 && auGroup[i + nLen] == 0)
            nLen++;
        if (nLen > nRunLen)
        {
            nRun = i;
            nRunLen = nLen;
        }
    }
    std::string strText = "[";
    for (int i = 0; i < 8; i++)
    {
        if (i == nRun)
        {
            strText += "::";
            i += nRunLen - 1;
            continue;
        }
        if (i > 0 && strText.back() != ':')
            strText += ':';
        std::snprintf(szText, sizeof(szText), "%x", auGroup[i]);
        strText += szText;
    }
    std::snprintf(szText, sizeof(szText), "]:%u", (unsigned)wPort);
    return strText + szText;
}

const char* RtpDropText(emRtpDrop eReason)
{
    switch (eReason)
    {
    case RTP_DROP_EMPTY: return "empty";
    case RTP_DROP_STUN: return "stun";
    case RTP_DROP_DTLS: return "dtls";
    case RTP_DROP_TURN_CHANNEL: return "turn-channel";
    case RTP_DROP_NOT_RTP: return "not-rtp";
    case RTP_DROP_RTP_SHORT: return "rtp-short";
    case RTP_DROP_RTP_CUT: return "rtp-cut";
    case RTP_DROP_RTP_PADDING: return "rtp-padding";
    case RTP_DROP_SSRC_UNCONFIRMED: return "ssrc-unconfirmed";
    case RTP_DROP_SSRC_TOO_MANY: return "ssrc-too-many";
    case RTP_DROP_RTCP_SHORT: return "rtcp-short";
    case RTP_DROP_RTCP_VERSION: return "rtcp-version";
    case RTP_DROP_RTCP_MALFORMED: return "rtcp-malformed";
    case RTP_DROP_RTX_PADDING: return "rtx-padding";
    case RTP_DROP_RTX_UNKNOWN: return "rtx-unknown";
    case RTP_DROP_FEC: return "fec";
    case RTP_DROP_RTP_STRAY: return "rtp-stray";
    case RTP_DROP_COUNT: break;
    }
    return "unknown";
}

const char* RtpRestartText(emRtpRestart eRestart)
{
    switch (eRestart)
    {
    case RTP_RESTART_NONE: return "none";
    case RTP_RESTART_SEQUENCE: return "sequence";
    case RTP_RESTART_TIMESTAMP: return "timestamp";
    case RTP_RESTART_PAYLOAD: return "payload-type";
    case RTP_RESTART_SSRC: return "ssrc";
    }
    return "unknown";
}
