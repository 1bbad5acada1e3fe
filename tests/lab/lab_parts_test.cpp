// The small parts of the lab: histogram, sequence window, checks, the writer of played packets.

#include "Files.h"
#include "LabBytes.h"

#include "CaptureReader.h"
#include "Histogram.h"
#include "LabRun.h"
#include "PlayedWriter.h"
#include "ReplayReport.h"
#include "RunLoop.h"
#include "SeqWindow.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

using namespace lab;
using labtest::Bytes;
using testing::ElementsAre;
using testing::HasSubstr;

TEST(MsHistogram, QuantilesAreExactToTheMillisecond)
{
    CMsHistogram h;
    EXPECT_EQ(h.Quantile(0.5), 0u);
    EXPECT_EQ(h.Min(), 0u);
    for (uint32 u = 1; u <= 100; u++)
        h.Add(101 - u);
    EXPECT_EQ(h.Count(), 100u);
    EXPECT_EQ(h.Min(), 1u);
    EXPECT_EQ(h.Quantile(0.0), 1u);
    EXPECT_EQ(h.Quantile(0.5), 50u);
    EXPECT_EQ(h.Quantile(0.95), 95u);
    EXPECT_EQ(h.Quantile(1.0), 100u);
    EXPECT_EQ(h.Max(), 100u);
    EXPECT_DOUBLE_EQ(h.Mean(), 50.5);
}

TEST(MsHistogram, BeyondAMinuteOnlyTheLargestIsKept)
{
    CMsHistogram h;
    h.Add(59999);
    h.Add(4000000000u);
    h.Add(70000);
    EXPECT_EQ(h.Quantile(0.3), 59999u);
    EXPECT_EQ(h.Quantile(0.5), 4000000000u);
    EXPECT_EQ(h.Max(), 4000000000u);
}

TEST(SeqWindow, TellsAheadBehindAndAgainFromAnyStart)
{
    for (const uint32 uStart : {0u, 1u, 0x7FFFu, 0xFFFFFFFEu})
    {
        SCOPED_TRACE(uStart);
        CSeqWindow w;
        EXPECT_EQ(w.Expected(), 0u);
        EXPECT_EQ(w.Insert(uStart), CSeqWindow::ESeen::Ahead);
        EXPECT_EQ(w.Insert(uStart), CSeqWindow::ESeen::Again);
        EXPECT_EQ(w.Insert(uStart + 4), CSeqWindow::ESeen::Ahead);
        EXPECT_EQ(w.Insert(uStart + 2), CSeqWindow::ESeen::Behind);
        EXPECT_EQ(w.Insert(uStart + 2), CSeqWindow::ESeen::Again);
        EXPECT_EQ(w.Insert(uStart - 1), CSeqWindow::ESeen::Behind);
        EXPECT_TRUE(w.Contains(uStart - 1));
        EXPECT_FALSE(w.Contains(uStart + 1));
        EXPECT_EQ(w.Highest(), uStart + 4);
        EXPECT_EQ(w.Unique(), 4u);
        EXPECT_EQ(w.Expected(), 6u);
        EXPECT_EQ(w.Missing(), 2u);
    }
}

TEST(SeqWindow, ForgetsWhatIsAWholeSpanBack)
{
    CSeqWindow w;
    w.Insert(100);
    w.Insert(100 + CSeqWindow::c_uSpan - 1);
    EXPECT_TRUE(w.Contains(100));
    w.Insert(100 + CSeqWindow::c_uSpan);
    EXPECT_FALSE(w.Contains(100));
    EXPECT_FALSE(w.Contains(101)) << "a bit left from the round before would be seen here";
    w.Insert(100 + 5 * CSeqWindow::c_uSpan);
    EXPECT_FALSE(w.Contains(100 + CSeqWindow::c_uSpan));
    EXPECT_EQ(w.Unique(), 4u);
}

namespace
{

// Packets for the checks without a receiver; the test plays the receiver.
class CheckedPackets : public testing::Test, public IPacketKeeper
{
protected:
    void OnPacketGone(CMediaPacket& packet) override { m_checks.Gone(packet); }

    CMediaPacket* Fed(uint32 dwSeq, uint32 dwTick)
    {
        CMediaPacket* p = new CMediaPacket(tagUdtPacketHeadInfo(), this);
        p->AddRef();
        p->dwSenderSeq = dwSeq;
        m_checks.Fed(*p, dwTick);
        return p;
    }
    void Play(CMediaPacket* p)
    {
        m_checks.Released(*p);
        p->Release();
    }
    void Turn(uint32 dwTick, std::initializer_list<CMediaPacket*> list)
    {
        m_checks.TurnBegins(dwTick);
        for (CMediaPacket* p : list)
            Play(p);
        m_checks.TurnEnds();
    }
    std::string Lines()
    {
        m_checks.Finish();
        std::string str;
        for (const std::string& strLine : m_checks.Violations())
            str += strLine + "\n";
        return str;
    }

    CRunChecks m_checks;
};

} // namespace

TEST_F(CheckedPackets, InOrderAndLatePacketsAreFine)
{
    CMediaPacket* p1 = Fed(1, 0);
    CMediaPacket* p3 = Fed(3, 0);
    Turn(10, {p1, p3});
    CMediaPacket* p2 = Fed(2, 15);
    Turn(20, {p2});
    EXPECT_EQ(Lines(), "");
    EXPECT_EQ(m_checks.Account(0).ullPlayed, 3u);
    EXPECT_EQ(m_checks.Account(0).ullLate, 1u);
}

TEST_F(CheckedPackets, DescendingInOneTurnIsBroken)
{
    CMediaPacket* p1 = Fed(1, 0);
    CMediaPacket* p2 = Fed(2, 0);
    Turn(10, {p2, p1});
    EXPECT_THAT(Lines(), HasSubstr("sequence 1 left after a higher sequence in the same turn"));
}

TEST_F(CheckedPackets, OrderGoesAcrossTheWrap)
{
    CMediaPacket* p1 = Fed(0xFFFFFFFF, 0);
    CMediaPacket* p2 = Fed(0, 0);
    Turn(10, {p1, p2});
    EXPECT_EQ(Lines(), "");
}

TEST_F(CheckedPackets, OutOfOrderThoughInTimeIsBroken)
{
    CMediaPacket* p1 = Fed(1, 0);
    CMediaPacket* p2 = Fed(2, 0);
    Turn(10, {p2});
    Turn(20, {p1});
    EXPECT_THAT(Lines(),
                HasSubstr("sequence 1 left out of order, though it had come before its place was played"));
}

TEST_F(CheckedPackets, PlayedTwiceWithinTheHistoryIsBrokenLaterOrAfterAPullBackItIsNot)
{
    CMediaPacket* pFirst = Fed(1, 0);
    Turn(10, {pFirst});
    CMediaPacket* pAfterForgotten = Fed(1, 6000);
    Turn(6010, {pAfterForgotten});
    EXPECT_TRUE(m_checks.Ok());
    CMediaPacket* pPulled = Fed(1, 6020);
    m_checks.TurnBegins(6030);
    m_checks.LogLine("Server Push Early Packet Make TimelineOut From 1 Back to 2");
    Play(pPulled);
    m_checks.TurnEnds();
    EXPECT_TRUE(m_checks.Ok());
    EXPECT_EQ(m_checks.Account(0).ullReplayed, 2u);
    // The pull-back may have come between taking and releasing it, so that it was forgotten as well.
    CMediaPacket* pAfterPullBack = Fed(1, 6040);
    Turn(6050, {pAfterPullBack});
    EXPECT_TRUE(m_checks.Ok());
    CMediaPacket* pTwice = Fed(1, 6060);
    Turn(6070, {pTwice});
    EXPECT_THAT(Lines(), HasSubstr("sequence 1 played twice"));
}

TEST_F(CheckedPackets, PlayedTwiceIsJudgedByTheTurnThatTookIt)
{
    CMediaPacket* pFirst = Fed(1, 0);
    Turn(10, {pFirst});
    CMediaPacket* pWaited = Fed(1, 20); // then nobody makes a turn for a minute
    Turn(60000, {pWaited});
    EXPECT_TRUE(m_checks.Ok());
    m_checks.ClearAsked();
    CMediaPacket* pAfterClearing = Fed(1, 60010);
    Turn(60020, {pAfterClearing});
    EXPECT_TRUE(m_checks.Ok());
}

TEST_F(CheckedPackets, ARepeatFromFurtherBackThanTheWindowHasAName)
{
    CMediaPacket* pHighest = Fed(100000, 0);
    CMediaPacket* pOld = Fed(1, 0);
    CMediaPacket* pAgain = Fed(1, 0);
    m_checks.TurnBegins(10);
    pAgain->Release(); // intake refuses the repeat, which nothing here knows for one
    Play(pOld);
    Play(pHighest);
    m_checks.TurnEnds();
    EXPECT_TRUE(m_checks.Ok());
    EXPECT_EQ(m_checks.Account(0).ullFirst, 2u);
    EXPECT_EQ(m_checks.Account(0).ullRepeats, 1u);
}

TEST_F(CheckedPackets, EveryEndHasAName)
{
    CMediaPacket* pRepeat = Fed(1, 0);
    CMediaPacket* pDup = Fed(1, 0);
    CMediaPacket* pSkipped = Fed(2, 0);
    CMediaPacket* pCleared = Fed(3, 0);
    CMediaPacket* pVanished = Fed(4, 0);
    CMediaPacket* pLeft = Fed(5, 0);

    m_checks.TurnBegins(10);
    pDup->Release(); // intake refuses the repeat
    Play(pRepeat);
    pSkipped->Release();
    m_checks.LogLine("OutPacketAudioNew skip packet at beginning StartStamp:9 PacketStamp:8");
    m_checks.TurnEnds();
    m_checks.TurnBegins(20);
    m_checks.LogLine("Server Push Early Packet Make TimelineOut From 1 Back to 2");
    pCleared->Release();
    m_checks.TurnEnds();
    EXPECT_TRUE(m_checks.Ok());

    m_checks.TurnBegins(30);
    pVanished->Release();
    m_checks.TurnEnds();
    m_checks.StopBegins();
    pLeft->Release();
    const std::string strLines = Lines();
    const tagPacketAccount& st = m_checks.Account(0);
    EXPECT_EQ(st.ullFed, 6u);
    EXPECT_EQ(st.ullFirst, 5u);
    EXPECT_EQ(st.ullPlayed, 1u);
    EXPECT_EQ(st.ullRepeats, 1u);
    EXPECT_EQ(st.ullSkipped, 1u);
    EXPECT_EQ(st.ullCleared, 1u);
    EXPECT_EQ(st.ullLeft, 1u);
    EXPECT_EQ(st.ullVanished, 1u);
    EXPECT_EQ(m_checks.Broken(), 1u);
    EXPECT_THAT(strLines, HasSubstr("sequence 4 was let go unplayed and without a reason"));
}

TEST_F(CheckedPackets, APacketThatOutlivesTheRunIsALeak)
{
    CMediaPacket* pHeld = Fed(1, 0);
    pHeld->AddRef();
    Turn(10, {pHeld});
    EXPECT_THAT(Lines(), HasSubstr("1 packet objects outlived the run"));
    pHeld->Release();
}

TEST(PlayedWriter, WritesUdpOverIpv4AndIpv6WithGoodChecksums)
{
    labtest::CTempDir dir;
    std::string strError;
    {
        auto pWriter = CPlayedWriter::Open(dir.Path("out.pcap"), strError);
        ASSERT_TRUE(pWriter) << strError;
        CMediaPacket packet(tagUdtPacketHeadInfo(), nullptr);
        packet.m_vecBytes = labtest::Rtp(0, 1, 2, 3, 5);
        packet.m_dwWireLen = (uint32)packet.m_vecBytes.size();
        packet.m_stSrc = tagRtpAddr{4, {10, 0, 0, 1}, 5004};
        packet.m_stDst = tagRtpAddr{4, {10, 0, 0, 2}, 6004};
        pWriter->Write(packet, 1700000000000010);
        packet.m_stSrc = tagRtpAddr{6, {0xFD, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1}, 5004};
        packet.m_stDst = tagRtpAddr{6, {0xFD, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 2}, 6004};
        packet.m_dwWireLen += 100; // cut when it was captured
        pWriter->Write(packet, 1700000000000020);
        EXPECT_TRUE(pWriter->Close(strError));
    }
    const Bytes bytes = labtest::ReadFile(dir.Path("out.pcap"));
    ASSERT_GT(bytes.size(), 24u + 16 + 20 + 8 + 17);
    auto SumTo = [&bytes](size_t nFrom, size_t nTo, uint32 u)
    {
        for (size_t i = nFrom; i < nTo; i += 2)
            u += (uint32)(bytes[i] << 8 | (i + 1 < nTo ? bytes[i + 1] : 0));
        while (u >> 16)
            u = (u & 0xFFFF) + (u >> 16);
        return u;
    };
    EXPECT_EQ(SumTo(40, 60, 0), 0xFFFFu) << "IPv4 head";
    EXPECT_EQ(SumTo(52, 60 + 8 + 17, 17 + 8 + 17), 0xFFFFu) << "UDP with its pseudo head";

    const auto pReader = OpenCapture(dir.Path("out.pcap"), strError);
    ASSERT_TRUE(pReader) << strError;
    tagDatagram d;
    ASSERT_EQ(pReader->Next(d), EReadResult::Datagram);
    EXPECT_EQ(d.stSrc.Text(), "10.0.0.1:5004");
    EXPECT_EQ(d.ullArrivalUs, 1700000000000010ull);
    EXPECT_EQ(Bytes(d.pData, d.pData + d.dwCaptured), labtest::Rtp(0, 1, 2, 3, 5));
    ASSERT_EQ(pReader->Next(d), EReadResult::Datagram);
    EXPECT_EQ(d.stDst.Text(), "[fd00::2]:6004");
    EXPECT_EQ(d.dwCaptured, 17u);
    EXPECT_EQ(d.dwWire, 117u);
    EXPECT_EQ(pReader->Next(d), EReadResult::End);

    EXPECT_FALSE(CPlayedWriter::Open(dir.Path("no/such/folder.pcap"), strError));
    EXPECT_THAT(strError, HasSubstr("folder.pcap: cannot be written"));
}

TEST(Printable, KeepsATerminalSafeAndATableAligned)
{
    EXPECT_EQ(Printable("alice@host", 24), "alice@host");
    EXPECT_EQ(Printable("a\033[31mb\n\xC3\xA9", 24), "a?[31mb???");
    EXPECT_EQ(Printable("0123456789", 8), "012345..");
}
