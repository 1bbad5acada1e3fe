#include "RtpPayload.h"

#include <gmock/gmock.h>

#include "RtpMaker.h"

using testing::HasSubstr;

namespace
{
std::string Marks(emRtpPayloadForm eForm, const Bytes& bytes)
{
    const tagRtpMark st = ReadRtpMark(eForm, bytes.data(), (uint32)bytes.size());
    return std::string(st.bKey ? "K" : "") + (st.bStart ? "S" : "") + (st.bContinuation ? "C" : "") +
           (st.bUndecided ? "U" : "");
}
} // namespace

TEST(RtpPayload, H264MarksOfSingleUnitsAggregatesAndFragments)
{
    struct tagRow
    {
        const char* pszWhat;
        Bytes bytes;
        const char* pszWant; // K key, S start, C continuation, U undecided
    };
    const tagRow aRows[] = {
        {"IDR slice", {0x65, 0x88}, "K"},
        {"other slice", {0x41, 0x9A}, ""},
        {"slice of no reference", {0x01, 0x9A}, ""},
        {"SPS", {0x67, 66, 0xC0, 30}, "K"},
        {"PPS", {0x68, 0xCE}, "U"},
        {"SEI", {0x06, 0x05}, "U"},
        {"access unit delimiter", {0x09, 0x10}, "SU"},
        {"STAP-A of SPS, PPS", {0x78, 0, 2, 0x67, 66, 0, 1, 0x68}, "K"},
        {"STAP-A of AUD, slice", {0x18, 0, 2, 0x09, 0x10, 0, 1, 0x41}, "S"},
        {"STAP-A of SEI, IDR", {0x78, 0, 1, 0x06, 0, 1, 0x65}, "K"},
        {"STAP-A whose second size lies", {0x78, 0, 1, 0x41, 0xFF, 0xFF, 0x65}, "K"},
        {"STAP-A of nothing", {0x78, 0, 0, 0, 0}, "U"},
        {"STAP-A cut in a size", {0x78, 0}, "U"},
        {"FU-A start of IDR", {0x7C, 0x85, 1}, "K"},
        {"FU-A middle of IDR", {0x7C, 0x05, 1}, "KC"},
        {"FU-A end of IDR", {0x7C, 0x45, 1}, "KC"},
        {"FU-A start of other", {0x5C, 0x81, 1}, ""},
        {"FU-A end of other", {0x5C, 0x41, 1}, "C"},
        {"FU-A cut", {0x7C}, "U"},
        {"nothing", {}, "U"},
    };
    for (const tagRow& row : aRows)
        EXPECT_EQ(row.pszWant, Marks(RTP_FORM_H264, row.bytes)) << row.pszWhat;
}

TEST(RtpPayload, Vp8MarksBehindEveryFormOfDescriptor)
{
    struct tagRow
    {
        const char* pszWhat;
        Bytes bytes;
        const char* pszWant;
    };
    const tagRow aRows[] = {
        {"key", {0x10, 0x00}, "KS"},
        {"inter", {0x10, 0x01}, "S"},
        {"not the start", {0x00, 0x00}, "C"},
        {"second partition's start", {0x11, 0x00}, "C"},
        {"N bit", {0x30, 0x00}, "KS"},
        {"X alone", {0x90, 0x00, 0x00}, "KS"},
        {"7-bit picture id", {0x90, 0x80, 0x7F, 0x00}, "KS"},
        {"15-bit picture id", {0x90, 0x80, 0xFF, 0xFF, 0x01}, "S"},
        {"TL0PICIDX", {0x90, 0x40, 0x01, 0x00}, "KS"},
        {"T only", {0x90, 0x20, 0x01, 0x00}, "KS"},
        {"K only", {0x90, 0x10, 0x01, 0x00}, "KS"},
        {"everything", {0x90, 0xF0, 0x81, 0x01, 0x01, 0x01, 0x00}, "KS"},
        {"descriptor alone", {0x10}, "U"},
        {"cut in the picture id", {0x90, 0x80}, "U"},
        {"cut before the payload", {0x90, 0xF0, 0x81, 0x01, 0x01, 0x01}, "U"},
        {"nothing", {}, "U"},
    };
    for (const tagRow& row : aRows)
        EXPECT_EQ(row.pszWant, Marks(RTP_FORM_VP8, row.bytes)) << row.pszWhat;
    EXPECT_EQ("", Marks(RTP_FORM_OTHER, {0x65}));
}

TEST(RtpPayload, StaticTypesAreThoseOfTheProfile)
{
    ASSERT_NE(nullptr, RtpStaticFormat(0));
    EXPECT_EQ("PCMU", RtpStaticFormat(0)->strCodec);
    EXPECT_EQ(8000u, RtpStaticFormat(9)->dwClock);
    EXPECT_EQ(90000u, RtpStaticFormat(14)->dwClock);
    EXPECT_EQ(RTP_KIND_AUDIO, RtpStaticFormat(14)->eKind);
    EXPECT_EQ(RTP_KIND_VIDEO, RtpStaticFormat(34)->eKind);
    EXPECT_EQ(nullptr, RtpStaticFormat(19));
    EXPECT_EQ(nullptr, RtpStaticFormat(96));
}

TEST(RtpPayload, AMapOfFormatsIsRead)
{
    std::map<uint8, tagRtpFormat> map;
    std::string strError;
    ASSERT_TRUE(ParseRtpMap("96=H264/90000", map, strError));
    ASSERT_TRUE(ParseRtpMap("111=opus/48000/2", map, strError));
    ASSERT_TRUE(ParseRtpMap("100=mystery/16000", map, strError));
    ASSERT_TRUE(ParseRtpMap("101=mystery/90000", map, strError));
    ASSERT_TRUE(ParseRtpMap("99=RTX:96", map, strError));
    ASSERT_TRUE(ParseRtpMap("98=rtx/90000", map, strError));
    EXPECT_EQ(RTP_KIND_VIDEO, map[96].eKind);
    EXPECT_EQ(RTP_KIND_AUDIO, map[111].eKind);
    EXPECT_EQ(48000u, map[111].dwClock);
    EXPECT_EQ(RTP_KIND_AUDIO, map[100].eKind);
    EXPECT_EQ(RTP_KIND_VIDEO, map[101].eKind);
    EXPECT_EQ(RTP_KIND_RTX, map[99].eKind);
    EXPECT_EQ(96, map[99].nApt);
    EXPECT_EQ(RTP_KIND_RTX, map[98].eKind);
    EXPECT_EQ(-1, map[98].nApt);
}

TEST(RtpPayload, ABadMapSaysWhatIsWrongAndChangesNothing)
{
    struct tagRow
    {
        const char* pszText;
        const char* pszWhy;
    };
    const tagRow aRows[] = {
        {"", "expected PT=codec/clock"},
        {"96", "expected PT=codec/clock"},
        {"=H264/90000", "payload type \"\""},
        {"128=H264/90000", "payload type \"128\""},
        {"9x=H264/90000", "payload type \"9x\""},
        {"-1=H264/90000", "payload type \"-1\""},
        {"96=/90000", "\"\" is not a codec name"},
        {"96=H 264/90000", "\"H 264\" is not a codec name"},
        {"96=H264", "the clock rate is missing"},
        {"96=H264/", "clock rate \"\""},
        {"96=H264/fast", "clock rate \"fast\""},
        {"96=H264/0", "clock rate \"0\""},
        {"96=H264/99999999999", "clock rate \"99999999999\""},
        {"96=opus/48000/0", "\"0\" is not a number of channels"},
        {"99=rtx:", "\"\" is not a payload type that rtx can repeat"},
        {"99=rtx:200", "\"200\" is not a payload type that rtx can repeat"},
        {"99=rtx:99", "its own payload type"},
    };
    for (const tagRow& row : aRows)
    {
        std::map<uint8, tagRtpFormat> map;
        std::string strError;
        EXPECT_FALSE(ParseRtpMap(row.pszText, map, strError)) << row.pszText;
        EXPECT_THAT(strError, HasSubstr(row.pszWhy));
        EXPECT_EQ(std::string::npos, strError.find('\n'));
        EXPECT_TRUE(map.empty());
    }
}

TEST(RtpPayload, TheSameBytesDoNotLookLikeBothFormats)
{
    bool bStrong = false;
    const Bytes bytesKey = {0x90, 0x80, 0x12, 0x50, 0x01, 0x00, 0x9D, 0x01, 0x2A, 0x40};
    EXPECT_TRUE(LooksLikeVp8(bytesKey.data(), (uint32)bytesKey.size(), bStrong));
    EXPECT_TRUE(bStrong);
    EXPECT_FALSE(LooksLikeH264(bytesKey.data(), (uint32)bytesKey.size(), bStrong));
    for (const Bytes& bytes :
         {Bytes{0x67, 66, 0xC0, 30}, Bytes{0x7C, 0x85, 1}, Bytes{0x41, 0x9A}, Bytes{0x68, 0xCE}})
    {
        EXPECT_TRUE(LooksLikeH264(bytes.data(), (uint32)bytes.size(), bStrong));
        EXPECT_FALSE(LooksLikeVp8(bytes.data(), (uint32)bytes.size(), bStrong));
    }
}

TEST(RtpTypes, AddressesReadAsPeopleWriteThem)
{
    EXPECT_EQ("-", tagRtpAddr().Text());
    EXPECT_EQ("10.0.0.7:5004", Addr(7, 5004).Text());
    tagRtpAddr st;
    st.cFamily = 6;
    st.wPort = 1;
    EXPECT_EQ("[::]:1", st.Text());
    st.aAddr[15] = 1;
    EXPECT_EQ("[::1]:1", st.Text());
    st.aAddr[0] = 0xFE;
    st.aAddr[1] = 0x80;
    EXPECT_EQ("[fe80::1]:1", st.Text());
    st.aAddr[2] = 1;
    st.aAddr[5] = 2;
    st.aAddr[9] = 3;
    EXPECT_EQ("[fe80:100:2:0:3::1]:1", st.Text());
}
