// Payload types, the user's map of them, and key-frame marks. Free functions on bytes and texts; any thread.
#include "RtpPayload.h"

#include <algorithm>
#include <cctype>
#include <cstring>

namespace
{
struct tagStaticType
{
    uint8 cPt;
    emRtpKind eKind;
    const char* pszCodec;
    uint32 dwClock;
};

// RFC 3551 tables 4 and 5. G722 is 8000 by an old mistake that everybody keeps.
const tagStaticType c_aStatic[] = {
    {0, RTP_KIND_AUDIO, "PCMU", 8000},   {3, RTP_KIND_AUDIO, "GSM", 8000},
    {4, RTP_KIND_AUDIO, "G723", 8000},   {5, RTP_KIND_AUDIO, "DVI4", 8000},
    {6, RTP_KIND_AUDIO, "DVI4", 16000},  {7, RTP_KIND_AUDIO, "LPC", 8000},
    {8, RTP_KIND_AUDIO, "PCMA", 8000},   {9, RTP_KIND_AUDIO, "G722", 8000},
    {10, RTP_KIND_AUDIO, "L16", 44100},  {11, RTP_KIND_AUDIO, "L16", 44100},
    {12, RTP_KIND_AUDIO, "QCELP", 8000}, {13, RTP_KIND_AUDIO, "CN", 8000},
    {14, RTP_KIND_AUDIO, "MPA", 90000},  {15, RTP_KIND_AUDIO, "G728", 8000},
    {16, RTP_KIND_AUDIO, "DVI4", 11025}, {17, RTP_KIND_AUDIO, "DVI4", 22050},
    {18, RTP_KIND_AUDIO, "G729", 8000},  {25, RTP_KIND_VIDEO, "CelB", 90000},
    {26, RTP_KIND_VIDEO, "JPEG", 90000}, {28, RTP_KIND_VIDEO, "nv", 90000},
    {31, RTP_KIND_VIDEO, "H261", 90000}, {32, RTP_KIND_VIDEO, "MPV", 90000},
    {33, RTP_KIND_VIDEO, "MP2T", 90000}, {34, RTP_KIND_VIDEO, "H263", 90000},
};

std::string Lower(std::string strText)
{
    std::transform(strText.begin(), strText.end(), strText.begin(),
                   [](unsigned char c) { return (char)std::tolower(c); });
    return strText;
}

// A decimal number of one to nine digits and nothing else.
bool ReadNumber(const std::string& strText, uint32& dwValue)
{
    if (strText.empty() || strText.size() > 9)
        return false;
    dwValue = 0;
    for (char c : strText)
    {
        if (c < '0' || c > '9')
            return false;
        dwValue = dwValue * 10 + (uint32)(c - '0');
    }
    return true;
}

bool ReadPayloadType(const std::string& strText, uint32& dwPt)
{
    return ReadNumber(strText, dwPt) && dwPt <= 127;
}
} // namespace

const tagRtpFormat* RtpStaticFormat(uint8 cPt)
{
    static const std::map<uint8, tagRtpFormat> c_mapFormats = []
    {
        std::map<uint8, tagRtpFormat> mapFormats;
        for (const tagStaticType& st : c_aStatic)
            mapFormats[st.cPt] = tagRtpFormat{st.eKind, st.pszCodec, st.dwClock, -1};
        return mapFormats;
    }();
    const auto it = c_mapFormats.find(cPt);
    return it == c_mapFormats.end() ? nullptr : &it->second;
}

emRtpKind RtpCodecKind(const std::string& strCodec)
{
    const std::string strName = Lower(strCodec);
    for (const char* psz :
         {"video", "h261", "h263", "h263-1998", "h263-2000", "h264", "h264-svc", "h265", "h266", "vp8",
          "vp9",   "av1",  "av1x", "jpeg",      "mpv",       "mp2t", "mp4v-es",  "celb", "nv",   "raw"})
    {
        if (strName == psz)
            return RTP_KIND_VIDEO;
    }
    for (const char* psz : {"audio", "opus",  "pcmu",   "pcma",      "g722",
                            "g723",  "g728",  "g729",   "gsm",       "gsm-efr",
                            "ilbc",  "isac",  "amr",    "amr-wb",    "evs",
                            "speex", "l8",    "l16",    "l24",       "lpc",
                            "dvi4",  "qcelp", "mpa",    "mp4a-latm", "mpeg4-generic",
                            "ac3",   "eac3",  "vorbis", "cn",        "telephone-event",
                            "red"})
    {
        if (strName == psz)
            return RTP_KIND_AUDIO;
    }
    if (strName == "rtx")
        return RTP_KIND_RTX;
    if (strName == "ulpfec" || strName == "flexfec" || strName == "flexfec-03" || strName == "parityfec")
        return RTP_KIND_FEC;
    return RTP_KIND_UNKNOWN;
}

emRtpPayloadForm RtpPayloadForm(const std::string& strCodec)
{
    const std::string strName = Lower(strCodec);
    if (strName == "h264")
        return RTP_FORM_H264;
    return strName == "vp8" ? RTP_FORM_VP8 : RTP_FORM_OTHER;
}

bool ParseRtpMap(const std::string& strText, std::map<uint8, tagRtpFormat>& mapFormats, std::string& strError)
{
    const std::string strWhere = "payload map \"" + strText + "\": ";
    const size_t nEqual = strText.find('=');
    if (nEqual == std::string::npos)
    {
        strError = strWhere + "expected PT=codec/clock (96=H264/90000) or PT=rtx:PT (99=rtx:96)";
        return false;
    }
    uint32 dwPt = 0;
    if (!ReadPayloadType(strText.substr(0, nEqual), dwPt))
    {
        strError =
            strWhere + "payload type \"" + strText.substr(0, nEqual) + "\" is not a number from 0 to 127";
        return false;
    }

    const std::string strFormat = strText.substr(nEqual + 1);
    tagRtpFormat stFormat;
    if (Lower(strFormat.substr(0, 4)) == "rtx:")
    {
        uint32 dwApt = 0;
        if (!ReadPayloadType(strFormat.substr(4), dwApt))
        {
            strError = strWhere + "\"" + strFormat.substr(4) +
                       "\" is not a payload type that rtx can repeat (0 to 127)";
            return false;
        }
        if (dwApt == dwPt)
        {
            strError = strWhere + "rtx cannot repeat its own payload type";
            return false;
        }
        stFormat.eKind = RTP_KIND_RTX;
        stFormat.strCodec = "rtx";
        stFormat.nApt = (int)dwApt;
        mapFormats[(uint8)dwPt] = stFormat;
        return true;
    }

    const size_t nSlash = strFormat.find('/');
    stFormat.strCodec = strFormat.substr(0, nSlash);
    const bool bNamed =
        !stFormat.strCodec.empty() &&
        std::all_of(stFormat.strCodec.begin(), stFormat.strCodec.end(),
                    [](unsigned char c)
                    { return std::isalnum(c) != 0 || c == '-' || c == '_' || c == '.' || c == '+'; });
    if (!bNamed)
    {
        strError = strWhere + "\"" + stFormat.strCodec + "\" is not a codec name";
        return false;
    }
    if (nSlash == std::string::npos)
    {
        strError = strWhere + "the clock rate is missing, expected PT=codec/clock (96=H264/90000)";
        return false;
    }
    std::string strClock = strFormat.substr(nSlash + 1);
    const size_t nChannels = strClock.find('/'); // "opus/48000/2" as in SDP: channels do not matter here
    uint32 dwChannels = 0;
    if (nChannels != std::string::npos)
    {
        if (!ReadNumber(strClock.substr(nChannels + 1), dwChannels) || dwChannels == 0)
        {
            strError = strWhere + "\"" + strClock.substr(nChannels + 1) + "\" is not a number of channels";
            return false;
        }
        strClock.resize(nChannels);
    }
    if (!ReadNumber(strClock, stFormat.dwClock) || stFormat.dwClock < 1000 || stFormat.dwClock > 1000000)
    {
        strError = strWhere + "clock rate \"" + strClock + "\" is not a number from 1000 to 1000000";
        return false;
    }
    stFormat.eKind = RtpCodecKind(stFormat.strCodec);
    if (stFormat.eKind == RTP_KIND_UNKNOWN)
        stFormat.eKind = stFormat.dwClock == 90000 ? RTP_KIND_VIDEO : RTP_KIND_AUDIO;
    mapFormats[(uint8)dwPt] = stFormat;
    return true;
}

namespace
{
// H.264 NAL unit types that matter here.
enum
{
    NAL_SLICE_LAST = 5, // 1 to 5 carry slices, 5 those of an IDR picture
    NAL_IDR = 5,
    NAL_SEI = 6,
    NAL_SPS = 7,
    NAL_PPS = 8,
    NAL_AUD = 9,
    NAL_STAP_A = 24,
    NAL_FU_A = 28
};

void MarkNal(uint8 cType, tagRtpMark& stMark)
{
    if (cType == NAL_IDR || cType == NAL_SPS)
        stMark.bKey = true;
    if (cType != NAL_SEI && cType != NAL_PPS && cType != NAL_AUD)
        stMark.bUndecided = false;
}

tagRtpMark MarkH264(const uint8* p, uint32 dwLen)
{
    tagRtpMark stMark;
    stMark.bUndecided = true;
    if (dwLen == 0)
        return stMark;
    const uint8 cType = p[0] & 0x1F;
    if (cType == NAL_STAP_A)
    {
        uint32 dwAt = 1;
        while (dwAt + 2 < dwLen)
        {
            const uint32 dwNal = (uint32)p[dwAt] << 8 | p[dwAt + 1];
            dwAt += 2;
            if (dwNal == 0)
                continue;
            const uint8 cInner = p[dwAt] & 0x1F;
            if (dwAt == 3 && cInner == NAL_AUD)
                stMark.bStart = true;
            MarkNal(cInner, stMark);
            dwAt += dwNal;
        }
    }
    else if (cType == NAL_FU_A)
    {
        if (dwLen < 2)
            return stMark;
        MarkNal(p[1] & 0x1F, stMark);
        stMark.bContinuation = (p[1] & 0x80) == 0;
    }
    else
    {
        MarkNal(cType, stMark);
        stMark.bStart = cType == NAL_AUD;
    }
    return stMark;
}

// Length of a VP8 payload descriptor, 0 when it does not fit.
uint32 Vp8Descriptor(const uint8* p, uint32 dwLen)
{
    if (dwLen == 0)
        return 0;
    uint32 dwHead = 1;
    if ((p[0] & 0x80) != 0) // X: extended
    {
        if (dwLen < 2)
            return 0;
        dwHead = 2;
        if ((p[1] & 0x80) != 0) // I: picture id, one or two bytes
        {
            if (dwLen < 3)
                return 0;
            dwHead += (p[2] & 0x80) != 0 ? 2 : 1;
        }
        if ((p[1] & 0x40) != 0) // L: TL0PICIDX
            dwHead++;
        if ((p[1] & 0x30) != 0) // T or K: one byte for both
            dwHead++;
    }
    return dwHead < dwLen ? dwHead : 0;
}

tagRtpMark MarkVp8(const uint8* p, uint32 dwLen)
{
    tagRtpMark stMark;
    stMark.bUndecided = true;
    const uint32 dwHead = Vp8Descriptor(p, dwLen);
    if (dwHead == 0)
        return stMark;
    // S set and partition 0: the payload header follows, whose lowest bit is 0 for a key frame.
    stMark.bStart = (p[0] & 0x17) == 0x10;
    stMark.bContinuation = !stMark.bStart;
    stMark.bKey = stMark.bStart && (p[dwHead] & 0x01) == 0;
    stMark.bUndecided = false;
    return stMark;
}
} // namespace

tagRtpMark ReadRtpMark(emRtpPayloadForm eForm, const uint8* pPayload, uint32 dwLen)
{
    switch (eForm)
    {
    case RTP_FORM_H264: return MarkH264(pPayload, dwLen);
    case RTP_FORM_VP8: return MarkVp8(pPayload, dwLen);
    case RTP_FORM_OTHER: break;
    }
    return tagRtpMark();
}

bool LooksLikeH264(const uint8* p, uint32 dwLen, bool& bStrong)
{
    bStrong = false;
    if (dwLen < 2 || (p[0] & 0x80) != 0)
        return false;
    const uint8 cType = p[0] & 0x1F;
    const bool bRef = (p[0] & 0x60) != 0;
    if (cType >= 1 && cType <= NAL_SLICE_LAST)
        return cType != NAL_IDR || bRef;
    switch (cType)
    {
    case NAL_SEI:
    case NAL_AUD:
    case 10:
    case 11:
    case 12: return !bRef;
    case NAL_SPS:
        // profile_idc of the profiles in use
        bStrong = dwLen >= 4 && bRef &&
                  (p[1] == 66 || p[1] == 77 || p[1] == 88 || p[1] == 100 || p[1] == 110 || p[1] == 122 ||
                   p[1] == 244);
        return bStrong;
    case NAL_PPS: return bRef;
    case NAL_STAP_A:
    {
        uint32 dwAt = 1;
        while (dwAt + 2 < dwLen)
            dwAt += 2 + ((uint32)p[dwAt] << 8 | p[dwAt + 1]);
        bStrong = dwAt == dwLen;
        return bStrong;
    }
    case NAL_FU_A:
    {
        const uint8 cInner = p[1] & 0x1F;
        // S and E never together, R clear, and a slice inside (SPS and the like are too small to be cut up)
        bStrong = (p[1] & 0xC0) != 0xC0 && (p[1] & 0x20) == 0 && cInner >= 1 && cInner <= NAL_SEI;
        return bStrong;
    }
    default: return false;
    }
}

bool LooksLikeVp8(const uint8* p, uint32 dwLen, bool& bStrong)
{
    bStrong = false;
    const uint32 dwHead = Vp8Descriptor(p, dwLen);
    if (dwHead == 0 || (p[0] & 0x48) != 0) // reserved bits
        return false;
    if ((p[0] & 0x80) != 0 && (p[1] & 0x0F) != 0 && (p[1] & 0x10) == 0) // more reserved bits
        return false;
    if ((p[0] & 0x17) != 0x10)
        return true;
    const uint8* pHead = p + dwHead;
    if ((pHead[0] & 0x0E) > 6) // version 0 to 3
        return false;
    if ((pHead[0] & 0x01) != 0)
        return true;
    bStrong = dwLen - dwHead >= 6 && pHead[3] == 0x9D && pHead[4] == 0x01 && pHead[5] == 0x2A;
    return bStrong;
}
