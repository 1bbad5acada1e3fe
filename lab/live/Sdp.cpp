// Only the lines that a listener acts on are read closely; the rest has to look like SDP and is passed over.
#include "Sdp.h"

#include "RtpPacket.h"

#include <fmt/format.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>

namespace lab
{

namespace
{

constexpr const char* c_pszTransportSeq =
    "http://www.ietf.org/id/draft-holmer-rmcat-transport-wide-cc-extensions-01";

std::vector<std::string> Words(const std::string& strText)
{
    std::istringstream in(strText);
    std::vector<std::string> vec;
    std::string str;
    while (in >> str)
        vec.push_back(str);
    return vec;
}

bool Number(const std::string& strText, uint64 ullMost, uint64& ullValue)
{
    if (strText.empty() || strText.size() > 10 ||
        !std::all_of(strText.begin(), strText.end(), [](unsigned char c) { return isdigit(c); }))
        return false;
    ullValue = strtoull(strText.c_str(), nullptr, 10);
    return ullValue <= ullMost;
}

class CSdpReader
{
public:
    explicit CSdpReader(tagSdp& stSdp) : m_stSdp(stSdp) {}

    // False with the reason, without the line's number.
    bool Line(const std::string& strLine, std::string& strError)
    {
        if (strLine.size() < 2 || strLine[1] != '=' || strLine[0] < 'a' || strLine[0] > 'z')
            return Expected("a line like v=0 or m=audio 5004 RTP/AVPF 97", strLine, strError);
        const std::string strValue = strLine.substr(2);
        if (strLine[0] == 'm')
            return Media(strValue, strError);
        if (strLine[0] != 'a')
            return true;
        const size_t nColon = strValue.find(':');
        const std::string strName = strValue.substr(0, nColon);
        const std::string strRest = nColon == std::string::npos ? "" : strValue.substr(nColon + 1);
        if (strName == "rtpmap")
            return RtpMap(strRest, strError);
        if (strName == "fmtp")
            return Fmtp(strRest, strError);
        if (strName == "ssrc-group")
            return SsrcGroup(strRest, strError);
        if (strName == "ssrc")
            return Ssrc(strRest, strError);
        if (strName == "extmap")
            return ExtMap(strRest, strError);
        if (strName == "rtcp-mux")
            m_stSdp.bRtcpMux = true;
        else if (strName == "rtcp-rsize")
            m_stSdp.bReducedSize = true;
        return true;
    }

    bool HasMedia() const { return m_bMedia; }

private:
    static bool Expected(const std::string& strWhat, const std::string& strLine, std::string& strError)
    {
        std::string strShown = strLine.substr(0, 60);
        for (char& c : strShown)
            c = (unsigned char)c < 0x20 || (unsigned char)c > 0x7E ? '?' : c;
        strError = fmt::format("expected {}, found \"{}\"", strWhat, strShown);
        return false;
    }

    bool Media(const std::string& strValue, std::string& strError)
    {
        const std::vector<std::string> vec = Words(strValue);
        uint64 ullPort = 0;
        if (vec.size() < 4 || !Number(vec[1].substr(0, vec[1].find('/')), 65535, ullPort))
            return Expected("m=MEDIUM PORT PROTOCOL FORMAT...", "m=" + strValue, strError);
        m_eKind = vec[0] == "audio" ? RTP_KIND_AUDIO : vec[0] == "video" ? RTP_KIND_VIDEO : RTP_KIND_UNKNOWN;
        if (vec[2].find("RTP/") == std::string::npos)
            m_eKind = RTP_KIND_UNKNOWN;
        if (vec[2].find("SAVP") != std::string::npos)
            return Expected("a medium that is not encrypted (RTP/AVP or RTP/AVPF)", "m=" + strValue,
                            strError);
        m_bMedia = m_bMedia || m_eKind != RTP_KIND_UNKNOWN;
        uint16& wPort = m_eKind == RTP_KIND_AUDIO ? m_stSdp.wAudioPort : m_stSdp.wVideoPort;
        if (m_eKind != RTP_KIND_UNKNOWN && wPort == 0)
            wPort = (uint16)ullPort;
        return true;
    }

    bool RtpMap(const std::string& strRest, std::string& strError)
    {
        const std::vector<std::string> vec = Words(strRest);
        uint64 ullPt = 0;
        uint64 ullClock = 0;
        const size_t nSlash = vec.size() == 2 ? vec[1].find('/') : std::string::npos;
        if (nSlash == std::string::npos || nSlash == 0 || !Number(vec[0], 127, ullPt) ||
            !Number(vec[1].substr(nSlash + 1, vec[1].find('/', nSlash + 1) - nSlash - 1), 10000000,
                    ullClock) ||
            ullClock == 0)
            return Expected("a=rtpmap:PT CODEC/CLOCK", "a=rtpmap:" + strRest, strError);
        if (m_eKind == RTP_KIND_UNKNOWN)
            return true; // of a medium that is not listened to
        tagRtpFormat& st = m_stSdp.mapFormats[(uint8)ullPt];
        st.strCodec = vec[1].substr(0, nSlash);
        st.dwClock = (uint32)ullClock;
        std::string strLower = st.strCodec;
        std::transform(strLower.begin(), strLower.end(), strLower.begin(),
                       [](unsigned char c) { return (char)tolower(c); });
        st.eKind = m_eKind;
        if (strLower == "rtx")
        {
            st.eKind = RTP_KIND_RTX;
            st.strCodec = "rtx";
        }
        else if (strLower.find("fec") != std::string::npos && strLower != "red")
            st.eKind = RTP_KIND_FEC;
        return true;
    }

    bool Fmtp(const std::string& strRest, std::string& strError)
    {
        const size_t nApt = strRest.find("apt=");
        if (nApt == std::string::npos)
            return true;
        uint64 ullPt = 0;
        uint64 ullApt = 0;
        size_t nEnd = nApt + 4;
        while (nEnd < strRest.size() && isdigit((unsigned char)strRest[nEnd]))
            nEnd++;
        if (!Number(strRest.substr(0, strRest.find(' ')), 127, ullPt) ||
            !Number(strRest.substr(nApt + 4, nEnd - nApt - 4), 127, ullApt))
            return Expected("a=fmtp:PT apt=PT", "a=fmtp:" + strRest, strError);
        m_stSdp.mapFormats[(uint8)ullPt].nApt = (int)ullApt;
        return true;
    }

    bool SsrcGroup(const std::string& strRest, std::string& strError)
    {
        const std::vector<std::string> vec = Words(strRest);
        if (vec.empty() || vec[0] != "FID")
            return true;
        uint64 ullMedia = 0;
        uint64 ullRtx = 0;
        if (vec.size() != 3 || !Number(vec[1], 0xFFFFFFFF, ullMedia) || !Number(vec[2], 0xFFFFFFFF, ullRtx))
            return Expected("a=ssrc-group:FID SSRC SSRC", "a=ssrc-group:" + strRest, strError);
        m_stSdp.mapRtxSsrc[(uint32)ullRtx] = (uint32)ullMedia;
        return true;
    }

    bool Ssrc(const std::string& strRest, std::string& strError)
    {
        const size_t nBlank = strRest.find(' ');
        uint64 ullSsrc = 0;
        if (!Number(strRest.substr(0, nBlank), 0xFFFFFFFF, ullSsrc))
            return Expected("a=ssrc:SSRC ATTRIBUTE", "a=ssrc:" + strRest, strError);
        if (nBlank != std::string::npos && strRest.compare(nBlank + 1, 6, "cname:") == 0 &&
            strRest.size() > nBlank + 7)
            m_stSdp.mapCnames[(uint32)ullSsrc] = strRest.substr(nBlank + 7);
        return true;
    }

    bool ExtMap(const std::string& strRest, std::string& strError)
    {
        const std::vector<std::string> vec = Words(strRest);
        uint64 ullId = 0;
        if (vec.size() < 2 || !Number(vec[0].substr(0, vec[0].find('/')), 255, ullId))
            return Expected("a=extmap:ID URI", "a=extmap:" + strRest, strError);
        if (vec[1] == c_pszTransportSeq)
            m_stSdp.nTransportSeqId = (int)ullId;
        return true;
    }

    tagSdp& m_stSdp;
    emRtpKind m_eKind = RTP_KIND_UNKNOWN;
    bool m_bMedia = false;
};

} // namespace

bool ParseSdp(const std::string& strText, tagSdp& stSdp, std::string& strError)
{
    CSdpReader reader(stSdp);
    std::istringstream in(strText);
    std::string strLine;
    int nLine = 0;
    while (std::getline(in, strLine))
    {
        nLine++;
        while (!strLine.empty() && (strLine.back() == '\r' || strLine.back() == ' '))
            strLine.pop_back();
        if (strLine.empty())
            continue;
        std::string strWhy;
        if (!reader.Line(strLine, strWhy))
        {
            strError = fmt::format("line {}: {}", nLine, strWhy);
            return false;
        }
    }
    if (!reader.HasMedia())
    {
        strError =
            fmt::format("line {}: expected an m=audio or m=video line of RTP, found the end", nLine + 1);
        return false;
    }
    for (auto it = stSdp.mapFormats.begin(); it != stSdp.mapFormats.end();)
    {
        if (it->second.eKind == RTP_KIND_UNKNOWN) // an apt without its rtpmap says nothing
        {
            it = stSdp.mapFormats.erase(it);
            continue;
        }
        const auto& itFormat = *it++;
        if (itFormat.second.eKind == RTP_KIND_RTX && itFormat.second.nApt < 0)
        {
            strError = fmt::format(
                "line {}: expected a=fmtp:{} apt=PT for the payload type that is rtx, found the end",
                nLine + 1, itFormat.first);
            return false;
        }
    }
    return true;
}

bool ReadSdp(const std::string& strPath, tagSdp& stSdp, std::string& strError)
{
    std::ifstream in(strPath, std::ios::binary);
    std::ostringstream text;
    if (!in || !(text << in.rdbuf()))
    {
        strError = fmt::format("{}: cannot be read: {}", strPath, strerror(errno ? errno : EIO));
        return false;
    }
    if (ParseSdp(text.str(), stSdp, strError))
        return true;
    strError = strPath + ": " + strError;
    return false;
}

} // namespace lab
