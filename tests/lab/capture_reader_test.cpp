// The capture readers, on bytes made by hand: every link type, what is skipped and counted, cut and broken files.

#include "LabBytes.h"

#include "CaptureReader.h"
#include "LinkLayer.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

using namespace labtest;
using lab::EReadResult;
using lab::EUnwrap;
using lab::OpenCapture;
using testing::HasSubstr;
using testing::StartsWith;

namespace
{

const Bytes c_payload = {'h', 'e', 'l', 'l', 'o'};

std::string PayloadOf(const lab::tagDatagram& st) { return std::string(st.pData, st.pData + st.dwCaptured); }

// All datagrams of a file, then how it ended.
struct tagRead
{
    std::string strOpenError;
    std::string strError;
    std::vector<std::string> vecPayloads;
    std::vector<uint64> vecTimes;
    std::vector<uint64> vecOffsets;
    lab::tagCaptureStats stStats;
};

tagRead ReadAll(const std::string& strPath)
{
    tagRead stRead;
    const auto pReader = OpenCapture(strPath, stRead.strOpenError);
    if (!pReader)
        return stRead;
    lab::tagDatagram st;
    EReadResult eResult;
    while ((eResult = pReader->Next(st)) == EReadResult::Datagram)
    {
        stRead.vecPayloads.push_back(PayloadOf(st));
        stRead.vecTimes.push_back(st.ullArrivalUs);
        stRead.vecOffsets.push_back(st.ullOffset);
    }
    EXPECT_EQ(eResult == EReadResult::Error, !pReader->Error().empty());
    EXPECT_EQ(pReader->Next(st), EReadResult::End) << "the end is told again";
    stRead.strError = pReader->Error();
    stRead.stStats = pReader->Stats();
    return stRead;
}

struct tagLinkCase
{
    const char* pszName;
    uint32_t uLinkType; // as the file has it
    Bytes head;
    bool bIpv6;
};

void PrintTo(const tagLinkCase& st, std::ostream* pOut) { *pOut << st.pszName; }

class LinkType : public testing::TestWithParam<tagLinkCase>
{
};

} // namespace

TEST_P(LinkType, AUdpDatagramComesOutWithItsEndsTimeAndPlaceInTheFile)
{
    const tagLinkCase& st = GetParam();
    const Bytes ip = st.bIpv6 ? Ipv6(Udp(c_payload)) : Ipv4(Udp(c_payload));
    CPcapBytes pcap(st.uLinkType);
    pcap.Add(1700000000123456, Join({st.head, ip, Fill(7, 0)})); // with padding behind it
    CTempDir dir;
    std::string strError;
    const auto pReader = OpenCapture(dir.Write("a.pcap", pcap.m_bytes), strError);
    ASSERT_TRUE(pReader) << strError;
    lab::tagDatagram d;
    ASSERT_EQ(pReader->Next(d), EReadResult::Datagram);
    EXPECT_EQ(PayloadOf(d), "hello");
    EXPECT_EQ(d.dwWire, 5u);
    EXPECT_EQ(d.ullArrivalUs, 1700000000123456ull);
    EXPECT_EQ(d.ullOffset, 24u);
    EXPECT_EQ(d.stSrc.Text(), st.bIpv6 ? "[fd00::1]:5004" : "10.0.0.1:5004");
    EXPECT_EQ(d.stDst.Text(), st.bIpv6 ? "[fd00::2]:6004" : "10.0.0.2:6004");
    EXPECT_EQ(pReader->Next(d), EReadResult::End);
    EXPECT_EQ(pReader->Position(), pcap.m_bytes.size());
}

INSTANTIATE_TEST_SUITE_P(
    All, LinkType,
    testing::Values(
        tagLinkCase{"Ethernet4", 1, EthernetHead(0x0800), false},
        tagLinkCase{"Ethernet6", 1, EthernetHead(0x86DD), true},
        tagLinkCase{"OneVlanTag", 1, Join({EthernetHead(0x8100), Be16(5), Be16(0x0800)}), false},
        tagLinkCase{"TwoVlanTags", 1,
                    Join({EthernetHead(0x88A8), Be16(5), Be16(0x8100), Be16(6), Be16(0x86DD)}), true},
        tagLinkCase{"Raw101With4", 101, {}, false}, tagLinkCase{"Raw101With6", 101, {}, true},
        tagLinkCase{"Raw12", 12, {}, false}, tagLinkCase{"Ipv4Only", 228, {}, false},
        tagLinkCase{"Ipv6Only", 229, {}, true},
        tagLinkCase{"Sll", 113, Join({Be16(0), Be16(1), Be16(6), Fill(8, 2), Be16(0x0800)}), false},
        tagLinkCase{"Sll6", 113, Join({Be16(0), Be16(1), Be16(6), Fill(8, 2), Be16(0x86DD)}), true},
        tagLinkCase{"Sll2", 276, Join({Be16(0x0800), Be16(0), Be32(1), Be16(1), {0, 6}, Fill(8, 2)}), false},
        tagLinkCase{"NullLittle", 0, Le32(2), false}, tagLinkCase{"NullBig", 0, Be32(2), false},
        tagLinkCase{"Null6OfDarwin", 0, Le32(30), true}, tagLinkCase{"Loop", 108, Be32(2), false}),
    [](const auto& stCase) { return std::string(stCase.param.pszName); });

TEST(CaptureReader, PcapngIsReadLikePcap)
{
    CPcapngBytes pcapng(1);
    pcapng.Add(1700000000000001, Join({EthernetHead(0x0800), Ipv4(Udp(c_payload))}));
    pcapng.Add(1700000000020001, Join({EthernetHead(0x86DD), Ipv6(Udp({'x'}))}));
    CTempDir dir;
    const tagRead st = ReadAll(dir.Write("a.pcapng", pcapng.m_bytes));
    EXPECT_THAT(st.vecPayloads, testing::ElementsAre("hello", "x"));
    EXPECT_THAT(st.vecTimes, testing::ElementsAre(1700000000000001ull, 1700000000020001ull));
    EXPECT_THAT(st.vecOffsets, testing::ElementsAre(48u, 48u + 80));
    EXPECT_EQ(st.strError, "");
}

TEST(CaptureReader, WhatIsNoWholeUdpDatagramIsCountedByKindAndSkipped)
{
    CPcapBytes pcap(1);
    const Bytes e4 = EthernetHead(0x0800), e6 = EthernetHead(0x86DD);
    pcap.Add(1, Join({EthernetHead(0x0806), Fill(28, 0)})); // ARP
    pcap.Add(2, Join({e4, Ipv4(Fill(20, 0), 0, 6)}));       // TCP
    pcap.Add(3, Join({e6, Ipv6(Fill(8, 0), 58)}));          // ICMPv6
    pcap.Add(4, Join({e4, Ipv4(Udp(c_payload), 0x2000)}));  // first fragment
    pcap.Add(5, Join({e4, Ipv4(Fill(16, 1), 0x0002)}));     // a later one
    pcap.Add(6,
             Join({e6, Ipv6(Join({{17, 0}, Be16(0x0001), Be32(7), Udp(c_payload)}), 44)})); // IPv6 fragment
    pcap.Add(7, Join({e4, {0x45, 0, 0}}));                                     // cut in the IP head
    pcap.Add(8, Join({e4, Ipv4(Join({Be16(1), Be16(2), Be16(3), Be16(0)}))})); // UDP length 3
    pcap.Add(9, Fill(9, 0));                                                   // cut in the Ethernet head
    pcap.Add(10, Join({e4, Ipv4(Udp(c_payload), 0x4000)}));                    // do not fragment: whole
    pcap.Add(11,
             Join({e6, Ipv6(Join({{17, 0}, Be16(0), Be32(7), Udp({'w'})}), 44)})); // whole, with the header
    pcap.Add(12, Join({e6, Ipv6(Join({{17, 0}, Fill(6, 0), Udp({'o'})}), 0)}));    // hop-by-hop options
    CTempDir dir;
    const tagRead st = ReadAll(dir.Write("a.pcap", pcap.m_bytes));
    EXPECT_THAT(st.vecPayloads, testing::ElementsAre("hello", "w", "o"));
    EXPECT_EQ(st.stStats.ullRecords, 12u);
    EXPECT_EQ(st.stStats.ullDatagrams, 3u);
    EXPECT_EQ(st.stStats.ullNotIp, 1u);
    EXPECT_EQ(st.stStats.ullNotUdp, 2u);
    EXPECT_EQ(st.stStats.ullFragments, 3u);
    EXPECT_EQ(st.stStats.ullCutHeaders, 3u);
}

TEST(CaptureReader, ACutPayloadKeepsItsLengthOnTheWire)
{
    const Bytes frame = Join({EthernetHead(0x0800), Ipv4(Udp(Fill(100, 'a')))});
    CPcapBytes pcap(1);
    pcap.Add(1, Bytes(frame.begin(), frame.begin() + 60), (uint32_t)frame.size());
    CTempDir dir;
    std::string strError;
    const auto pReader = OpenCapture(dir.Write("a.pcap", pcap.m_bytes), strError);
    lab::tagDatagram d;
    ASSERT_EQ(pReader->Next(d), EReadResult::Datagram);
    EXPECT_EQ(d.dwCaptured, 60u - 14 - 20 - 8);
    EXPECT_EQ(d.dwWire, 100u);
}

TEST(CaptureReader, ArrivalTimesNeverRunBackwards)
{
    CPcapBytes pcap(101);
    for (const uint64_t ull : {5000000, 4000000, 4500000, 6000000})
        pcap.Add(ull, Ipv4(Udp(c_payload)));
    CTempDir dir;
    const tagRead st = ReadAll(dir.Write("a.pcap", pcap.m_bytes));
    EXPECT_THAT(st.vecTimes, testing::ElementsAre(5000000u, 5000000u, 5000000u, 6000000u));
    EXPECT_EQ(st.stStats.ullTimeBack, 2u);
}

TEST(CaptureReader, AnyFrameCutAnywhereIsRefusedWithoutReadingBeyondIt)
{
    const Bytes ext = Join({{43, 0},
                            Fill(6, 0),
                            {60, 1},
                            Fill(14, 0),
                            {51, 0},
                            Fill(6, 0),
                            {17, 1},
                            Fill(10, 0),
                            Udp(c_payload)});
    const std::vector<std::pair<int, Bytes>> vecFrames = {
        {1, Join({EthernetHead(0x8100), Be16(1), Be16(0x0800), Ipv4(Udp(c_payload))})},
        {1, Join({EthernetHead(0x86DD), Ipv6(ext, 0)})},
        {113, Join({Fill(14, 0), Be16(0x0800), Ipv4(Udp(c_payload))})},
        {276, Join({Be16(0x86DD), Fill(18, 0), Ipv6(Udp(c_payload))})},
        {0, Join({Le32(2), Ipv4(Udp(c_payload))})},
        {12, Ipv6(Udp(c_payload))}};
    for (const auto& [nDlt, frame] : vecFrames)
    {
        lab::tagDatagram d;
        EXPECT_EQ(lab::UnwrapFrame(nDlt, frame.data(), (uint32)frame.size(), (uint32)frame.size(), d),
                  EUnwrap::Udp);
        EXPECT_EQ(PayloadOf(d), "hello");
        for (size_t n = 0; n < frame.size(); n++)
        {
            const Bytes cut(frame.begin(),
                            frame.begin() + (long)n); // its own heap block: a sanitizer sees its end
            const EUnwrap e = lab::UnwrapFrame(nDlt, cut.data(), (uint32)n, (uint32)frame.size(), d);
            if (e == EUnwrap::Udp)
            {
                EXPECT_GE(n, frame.size() - c_payload.size());
                EXPECT_EQ(d.dwWire, c_payload.size());
            }
            else
                EXPECT_EQ(e, EUnwrap::CutHeader) << nDlt << " cut at " << n;
        }
    }
}

TEST(Rtpdump, RtpAndRtcpComeWithSourceTimeAndLength)
{
    CTempDir dir;
    Bytes snapped = RtpdumpRecord(40, {'c', 'u', 't'});
    snapped[3] = 160; // plen: it was longer on the wire
    const std::string strPath =
        dir.Write("a.rtpdump", Join({RtpdumpHead(1700000000), RtpdumpRecord(0, c_payload),
                                     RtpdumpRecord(20, {'r', 'r'}, true), snapped}));
    std::string strError;
    const auto pReader = OpenCapture(strPath, strError);
    ASSERT_TRUE(pReader) << strError;
    lab::tagDatagram d;
    ASSERT_EQ(pReader->Next(d), EReadResult::Datagram);
    EXPECT_EQ(PayloadOf(d), "hello");
    EXPECT_EQ(d.stSrc.Text(), "10.0.0.9:5004");
    EXPECT_EQ(d.ullArrivalUs, 1700000000250000ull);
    EXPECT_EQ(d.ullOffset, 27u + 16);
    ASSERT_EQ(pReader->Next(d), EReadResult::Datagram);
    EXPECT_EQ(PayloadOf(d), "rr");
    EXPECT_EQ(d.stSrc.wPort, 5005);
    EXPECT_EQ(d.ullArrivalUs, 1700000000270000ull);
    ASSERT_EQ(pReader->Next(d), EReadResult::Datagram);
    EXPECT_EQ(d.dwCaptured, 3u);
    EXPECT_EQ(d.dwWire, 160u);
    EXPECT_EQ(pReader->Next(d), EReadResult::End);
}

TEST(Rtpdump, AHeadLineWithoutAddressIsTaken)
{
    CTempDir dir;
    const std::string strLine = "#!rtpplay1.0 \n";
    const tagRead st = ReadAll(dir.Write("a.rtpdump", Join({Bytes(strLine.begin(), strLine.end()),
                                                            Fill(16, 0), RtpdumpRecord(7, c_payload)})));
    EXPECT_THAT(st.vecPayloads, testing::ElementsAre("hello"));
    EXPECT_THAT(st.vecTimes, testing::ElementsAre(7000u));
}

TEST(Rtpdump, BadHeadsAndRecordsAreErrorsThatNameFileAndOffset)
{
    const std::vector<std::pair<Bytes, const char*>> vecCases = {
        {{'#', '!'}, "a.rtpdump: offset 0: bad rtpdump head"},
        {{'#', '!', 'r', 't', 'p', 'p', 'l', 'a', 'y', '2', '\n'}, "a.rtpdump: offset 0: "},
        {Join({{'#', '!'}, Bytes(200, 'x')}), "a.rtpdump: offset 0: bad rtpdump head"},
        {Join({RtpdumpHead(1), Be16(7), Be16(0), Be32(0)}), "a.rtpdump: offset 43: a record of 7 bytes"},
        {Join({RtpdumpHead(1), RtpdumpRecord(0, c_payload), {0}}),
         "a.rtpdump: offset 56: the file is cut off"},
        {Join({RtpdumpHead(1), Be16(20), Be16(12), Be32(0), {1, 2}}),
         "a.rtpdump: offset 43: the file is cut off"}};
    for (const auto& [bytes, pszWant] : vecCases)
    {
        CTempDir dir;
        const tagRead st = ReadAll(dir.Write("a.rtpdump", bytes));
        EXPECT_THAT(st.strOpenError + st.strError, HasSubstr(pszWant));
    }
}

// A cut at every byte of a file: what lies before it is read, and every cut inside a record is an error that
// names the record's offset. A cut between records cannot be told from a shorter file.
class CutFile : public testing::TestWithParam<const char*>
{
protected:
    // The file and where its records begin.
    static std::pair<Bytes, std::vector<size_t>> Make(const std::string& strKind)
    {
        std::pair<Bytes, std::vector<size_t>> out;
        const Bytes frame = Ipv4(Udp(c_payload));
        if (strKind == "pcap")
        {
            CPcapBytes pcap(101);
            for (int i = 0; i < 3; i++)
            {
                out.second.push_back(pcap.m_bytes.size());
                pcap.Add(1000 + (uint64_t)i, frame);
            }
            out.first = pcap.m_bytes;
        }
        else if (strKind == "pcapng")
        {
            CPcapngBytes pcapng(101);
            for (int i = 0; i < 3; i++)
            {
                out.second.push_back(pcapng.m_bytes.size());
                pcapng.Add(1000 + (uint64_t)i, frame);
            }
            out.first = pcapng.m_bytes;
        }
        else
        {
            out.first = RtpdumpHead(1);
            for (int i = 0; i < 3; i++)
            {
                out.second.push_back(out.first.size());
                out.first = Join({out.first, RtpdumpRecord((uint32_t)i, c_payload)});
            }
        }
        return out;
    }
};

TEST_P(CutFile, GivesWhatCameBeforeAndNamesTheOffset)
{
    const auto [bytes, vecStarts] = Make(GetParam());
    CTempDir dir;
    for (size_t n = 0; n <= bytes.size(); n++)
    {
        SCOPED_TRACE(testing::Message() << GetParam() << " cut at " << n);
        const tagRead st = ReadAll(dir.Write("cut", Bytes(bytes.begin(), bytes.begin() + (long)n)));
        if (n < vecStarts[0])
        {
            EXPECT_THAT(st.strOpenError, HasSubstr("/cut: offset "));
            EXPECT_THAT(st.strOpenError, testing::Not(HasSubstr("\n")));
            continue;
        }
        EXPECT_EQ(st.strOpenError, "");
        size_t nWhole = 0;
        while (nWhole < 3 && n >= (nWhole + 1 < 3 ? vecStarts[nWhole + 1] : bytes.size()))
            nWhole++;
        EXPECT_EQ(st.vecPayloads.size(), nWhole);
        const bool bBetween = n == bytes.size() || n == vecStarts[nWhole];
        if (bBetween)
            EXPECT_EQ(st.strError, "");
        else
            EXPECT_THAT(st.strError, HasSubstr("/cut: offset " + std::to_string(vecStarts[nWhole]) + ": "));
    }
}

INSTANTIATE_TEST_SUITE_P(All, CutFile, testing::Values("pcap", "pcapng", "rtpdump"),
                         [](const auto& stCase) { return std::string(stCase.param); });

TEST(CaptureReader, AMissingFileAFolderAndAForeignFileAreOneLineErrors)
{
    CTempDir dir;
    std::string strError;
    EXPECT_FALSE(OpenCapture(dir.Path("none.pcap"), strError));
    EXPECT_THAT(strError, HasSubstr("none.pcap: offset 0: cannot be opened: No such file"));
    EXPECT_FALSE(OpenCapture(dir.Path(""), strError));
    EXPECT_THAT(strError, HasSubstr("offset 0: not a file"));
    EXPECT_FALSE(OpenCapture(dir.Write("text", Bytes(100, 'x')), strError));
    EXPECT_THAT(strError, HasSubstr("text: offset "));
    EXPECT_THAT(strError, HasSubstr("expected a pcap, pcapng or rtpdump file"));
    EXPECT_FALSE(OpenCapture(dir.Write("empty", {}), strError));
    EXPECT_THAT(strError, HasSubstr("empty: offset 0: "));
}

TEST(CaptureReader, AnUnknownLinkTypeIsAnErrorAtTheBytesThatStateIt)
{
    CTempDir dir;
    std::string strError;
    EXPECT_FALSE(OpenCapture(dir.Write("a.pcap", CPcapBytes(105).m_bytes), strError)); // 802.11
    EXPECT_THAT(strError, HasSubstr("a.pcap: offset 20: link type 105 (IEEE802_11) is not understood"));
    EXPECT_FALSE(OpenCapture(dir.Write("a.pcapng", CPcapngBytes(105).m_bytes), strError));
    EXPECT_THAT(strError, HasSubstr("a.pcapng: offset 36: link type 105"));
}

TEST(CaptureReader, SeveralCapturesAreMergedByTimeEqualTimesInTheOrderGiven)
{
    CTempDir dir;
    CPcapBytes a(101), b(101);
    a.Add(10, Ipv4(Udp({'a', '1'})));
    a.Add(30, Ipv4(Udp({'a', '3'})));
    a.Add(50, Ipv4(Udp({'a', '5'})));
    b.Add(20, Ipv4(Udp({'b', '2'})));
    b.Add(30, Ipv4(Udp({'b', '3'})));
    Bytes cut = b.m_bytes;
    cut.push_back(0);
    std::string strError;
    const auto pReader = lab::OpenCaptures({dir.Write("a", a.m_bytes), dir.Write("b", cut)}, strError);
    ASSERT_TRUE(pReader) << strError;
    std::vector<std::string> vec;
    lab::tagDatagram d;
    EReadResult e;
    while ((e = pReader->Next(d)) == EReadResult::Datagram)
        vec.push_back(PayloadOf(d) + "@" + std::to_string(d.uFile));
    EXPECT_THAT(vec, testing::ElementsAre("a1@0", "b2@1", "a3@0", "b3@1", "a5@0"));
    EXPECT_EQ(e, EReadResult::Error) << "the cut of one is told when all are read";
    EXPECT_THAT(pReader->Error(), HasSubstr("/b: offset " + std::to_string(b.m_bytes.size())));
    EXPECT_EQ(pReader->Next(d), EReadResult::End);
    EXPECT_EQ(pReader->Stats().ullDatagrams, 5u);

    EXPECT_FALSE(lab::OpenCaptures({dir.Path("a"), dir.Path("none")}, strError));
    EXPECT_THAT(strError, HasSubstr("/none: "));
}
