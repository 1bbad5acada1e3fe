#include "Sdp.h"

#include <gmock/gmock.h>

namespace
{
using namespace lab;
using testing::HasSubstr;
using testing::StartsWith;

const char* const c_pszGood =
    "v=0\r\n"
    "o=- 1 1 IN IP4 127.0.0.1\r\n"
    "s=call\r\n"
    "t=0 0\r\n"
    "m=audio 5004 RTP/AVPF 97 0\r\n"
    "a=rtpmap:97 opus/48000/2\r\n"
    "a=rtcp-mux\r\n"
    "m=video 5006/2 RTP/AVPF 96 99 116\r\n"
    "a=rtpmap:96 H264/90000\r\n"
    "a=fmtp:96 packetization-mode=1\r\n"
    "a=rtpmap:99 rtx/90000\r\n"
    "a=fmtp:99 apt=96;rtx-time=3000\r\n"
    "a=rtpmap:116 ulpfec/90000\r\n"
    "a=ssrc-group:FID 111 222\r\n"
    "a=ssrc:111 cname:alice@example\r\n"
    "a=extmap:5 http://www.ietf.org/id/draft-holmer-rmcat-transport-wide-cc-extensions-01\r\n";

TEST(Sdp, FormatsPairsAndRtcpsWayAreRead)
{
    tagSdp st;
    std::string strError;
    ASSERT_TRUE(ParseSdp(c_pszGood, st, strError)) << strError;
    EXPECT_EQ(st.mapFormats.size(), 4u);
    EXPECT_EQ(st.mapFormats[97].eKind, RTP_KIND_AUDIO);
    EXPECT_EQ(st.mapFormats[97].strCodec, "opus");
    EXPECT_EQ(st.mapFormats[97].dwClock, 48000u);
    EXPECT_EQ(st.mapFormats[96].eKind, RTP_KIND_VIDEO);
    EXPECT_EQ(st.mapFormats[99].eKind, RTP_KIND_RTX);
    EXPECT_EQ(st.mapFormats[99].nApt, 96);
    EXPECT_EQ(st.mapFormats[116].eKind, RTP_KIND_FEC);
    EXPECT_EQ(st.mapRtxSsrc[222], 111u);
    EXPECT_EQ(st.mapCnames[111], "alice@example");
    EXPECT_EQ(st.nTransportSeqId, 5);
    EXPECT_TRUE(st.bRtcpMux);
    EXPECT_FALSE(st.bReducedSize);
    EXPECT_EQ(st.wAudioPort, 5004);
    EXPECT_EQ(st.wVideoPort, 5006);
}

TEST(Sdp, WhatIsWrongIsNamedWithItsLineAndWhatWasExpected)
{
    struct
    {
        const char* pszText;
        const char* pszWant;
    } const aCases[] = {
        {"", "line 1: expected an m=audio or m=video line"},
        {"hello\n", "line 1: expected a line like v=0"},
        {"v=0\nm=audio\n", "line 2: expected m=MEDIUM PORT"},
        {"v=0\nm=audio 70000 RTP/AVP 0\n", "line 2: expected m=MEDIUM PORT"},
        {"v=0\nm=audio 5004 UDP/TLS/RTP/SAVPF 97\n", "line 2: expected a medium that is not encrypted"},
        {"v=0\nm=audio 5004 RTP/AVP 97\na=rtpmap:97 opus\n", "line 3: expected a=rtpmap:PT CODEC/CLOCK"},
        {"v=0\nm=audio 5004 RTP/AVP 97\na=rtpmap:300 opus/48000\n", "line 3: expected a=rtpmap"},
        {"v=0\nm=audio 5004 RTP/AVP 97\na=rtpmap:97 opus/0\n", "line 3: expected a=rtpmap"},
        {"v=0\nm=video 5004 RTP/AVP 99\na=rtpmap:99 rtx/90000\n", "expected a=fmtp:99 apt=PT"},
        {"v=0\nm=video 5004 RTP/AVP 99\na=fmtp:99 apt=x\n", "line 3: expected a=fmtp:PT apt=PT"},
        {"v=0\nm=video 5004 RTP/AVP 99\na=ssrc-group:FID 1\n", "line 3: expected a=ssrc-group:FID SSRC SSRC"},
        {"v=0\nm=video 5004 RTP/AVP 99\na=extmap:x y\n", "line 3: expected a=extmap:ID URI"},
        {"v=0\nm=application 9 DTLS/SCTP 5000\n", "expected an m=audio or m=video line"},
    };
    for (const auto& stCase : aCases)
    {
        tagSdp st;
        std::string strError;
        EXPECT_FALSE(ParseSdp(stCase.pszText, st, strError)) << stCase.pszText;
        EXPECT_THAT(strError, HasSubstr(stCase.pszWant));
    }
    tagSdp st;
    std::string strError;
    EXPECT_FALSE(ReadSdp("/nowhere/call.sdp", st, strError));
    EXPECT_THAT(strError, StartsWith("/nowhere/call.sdp: cannot be read"));
}

TEST(Sdp, AnyCutOfAGoodOneIsTakenOrRefusedInOneLine)
{
    const std::string strGood = c_pszGood;
    for (size_t n = 0; n < strGood.size(); n++)
    {
        tagSdp st;
        std::string strError;
        EXPECT_TRUE(ParseSdp(strGood.substr(0, n), st, strError) || strError.compare(0, 5, "line ") == 0);
        EXPECT_EQ(strError.find('\n'), std::string::npos);
    }
}
} // namespace
