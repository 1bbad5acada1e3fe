// The captures against their known figures, and against what must hold for any capture.
#include <gmock/gmock.h>

#include <cctype>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <map>
#include <ostream>
#include <set>

#include "CaptureReader.h"
#include "RtpIntake.h"
#include "RtpMaker.h"

namespace
{
struct tagWant
{
    uint32 dwSsrc;
    uint8 cPt;
    uint32 dwClock;
    uint64 ullPackets, ullFrames, ullLost, ullExpected, ullBursts, ullLongest, ullDup, ullReordered;
    uint32 dwDepth;
    double dJitter, dJitterMax;
    uint32 dwP50, dwP95, dwP99, dwMax;
    uint32 dwGap;
};

struct tagCapture
{
    const char* pszFile;
    std::vector<tagWant> vecStreams;
};

void PrintTo(const tagCapture& stCapture, std::ostream* pOut) { *pOut << stCapture.pszFile; }

const std::vector<tagCapture> c_vecCaptures = {
    {"amr-lte-duplicates.pcap",
     {{0x0025b105, 118, 8000, 1052, 526, 11, 537, 2, 10, 526, 0, 0, 0.8, 35.1, 3, 162, 426, 519, 735},
      {0x710006b8, 118, 8000, 246, 246, 0, 246, 0, 0, 0, 0, 0, 2.2, 3.8, 3, 6, 42, 70, 162},
      {0x00612603, 113, 8000, 528, 264, 3, 267, 3, 1, 264, 0, 0, 0.9, 4.5, 4, 21, 33, 62, 220},
      {0x71008205, 113, 8000, 279, 279, 0, 279, 0, 0, 0, 0, 0, 2.3, 11.8, 166, 169, 172, 175, 195},
      {0x40c1b512, 118, 8000, 118, 59, 1, 60, 1, 1, 59, 0, 0, 0.7, 1.4, 2, 5, 9, 9, 40},
      {0x401dd106, 118, 8000, 240, 120, 1, 121, 1, 1, 120, 0, 0, 3.9, 6.6, 6, 23, 33, 35, 74}}},
    {"av-pcma-vp8-call-24s.pcapng",
     {{0x59ace107, 8, 8000, 1493, 1493, 2, 1495, 2, 1, 0, 0, 0, 12.8, 28.8, 361, 380, 389, 418, 146},
      {0x281a0aeb, 96, 90000, 2134, 581, 1, 2135, 1, 1, 0, 0, 0, 14.4, 19.1, 485, 999, 1067, 1134, 118}}},
    {"av-pcma-vp8-collapse-36s.pcapng",
     {{0x2e4216b4, 8, 8000, 862, 862, 730, 1592, 172, 21, 0, 0, 0, 78.2, 118.3, 2715, 3394, 4485, 4540, 812},
      {0x1bc08c28, 96, 90000, 125, 67, 1134, 1259, 53, 108, 0, 0, 0, 170.8, 252.5, 13936, 16763, 16967, 17093,
       1059}}},
    {"h264-opus-rtx-lab-31s.pcapng",
     {{0x170e043b, 111, 48000, 1529, 1529, 45, 1574, 33, 5, 0, 18, 2, 5.0, 19.3, 6, 127, 138, 181, 138},
      {0xf24b7ac6, 96, 90000, 2407, 783, 51, 2458, 35, 6, 0, 17, 7, 4.9, 11.8, 10, 131, 145, 157, 153},
      {0x9b39f783, 112, 48000, 77, 77, 2, 79, 2, 1, 0, 1, 4, 51.4, 76.6, 69, 372, 402, 402, 1634},
      {0x2d4ae8e2, 99, 90000, 54, 50, 0, 54, 0, 0, 0, 0, 0, 47.4, 65.9, 86, 389, 415, 415, 3016}}},
    {"opus-clean-70s.pcapng",
     {{0xaebb2a64, 124, 48000, 3501, 3501, 0, 3501, 0, 0, 0, 0, 0, 3.3, 6.4, 11, 12, 12, 22, 32}}},
    {"opus-fec-1pct-dropped-60s.pcapng",
     {{0x3760bfaa, 107, 48000, 2971, 2971, 29, 3000, 29, 1, 0, 0, 0, 0.0, 0.1, 2, 3, 3, 3, 40}}},
    {"opus-mobile-loss-reorder-142s.pcapng",
     {{0xa9733981, 124, 48000, 7108, 7108, 24, 7132, 15, 3, 0, 30, 38, 30.2, 193.8, 92, 560, 912, 1225,
       680}}},
    {"pcma-congestion-12pct-loss-66s.pcapng",
     {{0xc647c3f8, 8, 8000, 1737, 1737, 240, 1977, 183, 9, 0, 0, 0, 8.9, 30.0, 3019, 5738, 5841, 5886, 282}}},
    {"pcmu-stereo-reorder-41s.rtpdump",
     {{0x49a2e558, 125, 8000, 2009, 2009, 53, 2062, 42, 3, 0, 468, 4, 15.8, 33.9, 65, 99, 111, 134, 123}}},
    {"pcmu-twoway-12s.pcap",
     {{0xd2c7ada6, 0, 8000, 593, 592, 0, 592, 0, 0, 1, 0, 0, 3.5, 7.2, 2, 12, 34, 55, 74},
      {0xdb0db55b, 0, 8000, 591, 591, 0, 591, 0, 0, 0, 0, 0, 3.7, 7.4, 6, 13, 40, 57, 73}}},
};

// The bundled one, else the one in the folder of captures that is not shipped; empty when neither is there.
std::string FindCapture(const std::string& strFile)
{
    const std::string strBundled = std::string(UDT_SOURCE_DIR) + "/data/rtp/" + strFile;
    if (std::filesystem::exists(strBundled))
        return strBundled;
    const char* pszShared = std::getenv("UDT_SHARED_DATA");
    const std::string strShared =
        (pszShared != nullptr ? std::string(pszShared) : std::string(UDT_SOURCE_DIR) + "/../shared/data") +
        "/rtp/" + strFile;
    return std::filesystem::exists(strShared) ? strShared : std::string();
}

template <typename Fn>
void ForEachDatagram(const std::string& strPath, Fn fn)
{
    std::string strError;
    const auto pReader = lab::OpenCapture(strPath, strError);
    ASSERT_NE(nullptr, pReader) << strError;
    lab::tagDatagram stDatagram;
    while (pReader->Next(stDatagram) == lab::EReadResult::Datagram)
        fn(stDatagram);
    ASSERT_EQ("", pReader->Error());
}

std::vector<tagRtpMedia> PlayCapture(const std::string& strPath, CRtpIntake& intake)
{
    std::vector<tagRtpMedia> vec;
    ForEachDatagram(strPath, [&](const tagRtpDatagram& st) { intake.Scan(st); });
    intake.EndScan();
    ForEachDatagram(strPath,
                    [&](const tagRtpDatagram& st)
                    {
                        intake.Push(st);
                        CCall::Take(intake, vec);
                    });
    intake.Flush();
    CCall::Take(intake, vec);
    return vec;
}

void CompareStream(const tagWant& want, const tagRtpStreamInfo& info)
{
    const tagRtpStat& st = info.stStat;
    EXPECT_EQ(want.cPt, info.cPt);
    EXPECT_EQ(want.dwClock, info.stFormat.dwClock);
    EXPECT_EQ(want.ullPackets, st.ullPackets);
    EXPECT_EQ(want.ullFrames, st.ullFrames);
    EXPECT_EQ(want.ullLost, st.ullLost);
    EXPECT_EQ(want.ullExpected, st.ullExpected);
    EXPECT_EQ(want.ullExpected - want.ullLost, st.ullUnique);
    EXPECT_EQ(want.ullBursts, st.ullLossBursts);
    EXPECT_EQ(want.ullLongest, st.ullLongestBurst);
    EXPECT_EQ(want.ullDup, st.ullDuplicates);
    EXPECT_EQ(want.ullReordered, st.ullReordered);
    EXPECT_EQ(want.dwDepth, st.dwReorderDepth);
    EXPECT_NEAR(want.dJitter, st.dJitterMs, 0.0501);
    EXPECT_NEAR(want.dJitterMax, st.dJitterMaxMs, 0.0501);
    EXPECT_NEAR(want.dwP50, st.dwDelayP50Ms, 1);
    EXPECT_NEAR(want.dwP95, st.dwDelayP95Ms, 1);
    EXPECT_NEAR(want.dwP99, st.dwDelayP99Ms, 1);
    EXPECT_NEAR(want.dwMax, st.dwDelayMaxMs, 1);
    EXPECT_NEAR(want.dwGap, (double)st.ullLongestGapUs / 1000, 0.51);
}

class RtpCaptures : public testing::TestWithParam<tagCapture>
{
};
} // namespace

TEST_P(RtpCaptures, EveryFigureIsTheKnownOne)
{
    const std::string strPath = FindCapture(GetParam().pszFile);
    if (strPath.empty())
        GTEST_SKIP() << GetParam().pszFile
                     << " is not bundled and no folder of captures is here (UDT_SHARED_DATA)";
    CRtpIntake intake;
    PlayCapture(strPath, intake);
    ASSERT_EQ(GetParam().vecStreams.size(), intake.StreamCount());
    for (const tagWant& want : GetParam().vecStreams)
    {
        SCOPED_TRACE(testing::Message() << GetParam().pszFile << " SSRC " << std::hex << want.dwSsrc);
        bool bFound = false;
        for (uint32 i = 0; i < intake.StreamCount(); i++)
        {
            if (intake.Stream(i).dwSsrc != want.dwSsrc)
                continue;
            bFound = true;
            CompareStream(want, intake.Stream(i));
        }
        EXPECT_TRUE(bFound);
    }
}

// Order and times of arrival untouched; numbers right; every frame's packets tell the same story.
TEST_P(RtpCaptures, WhatComesOutHoldsTogether)
{
    const std::string strPath = FindCapture(GetParam().pszFile);
    if (strPath.empty())
        GTEST_SKIP() << GetParam().pszFile
                     << " is not bundled and no folder of captures is here (UDT_SHARED_DATA)";
    CRtpIntake intake;
    const auto vec = PlayCapture(strPath, intake);

    uint64 ullPackets = 0;
    uint64 ullLost = 0;
    for (uint32 i = 0; i < intake.StreamCount(); i++)
    {
        ullPackets += intake.Stream(i).stStat.ullPackets;
        ullLost += intake.Stream(i).stStat.ullLost;
    }
    ASSERT_EQ(ullPackets, vec.size()); // RTX packets are answers, so they come out too

    uint64 ullLastUs = 0;
    std::set<uint32> setDown;
    struct tagTold
    {
        std::set<int> setTotals; // counts and types
        uint64 ullFirstUs = 0;
        uint64 ullLastUs = 0;
    };
    std::map<std::pair<uint32, uint32>, tagTold> mapTold; // by stream and timestamp
    std::map<uint32, std::map<uint32, const tagRtpMedia*>> mapBySeq;
    for (const tagRtpMedia& st : vec)
    {
        EXPECT_GE(st.ullArrivalUs, ullLastUs);
        ullLastUs = st.ullArrivalUs;
        setDown.insert(st.dwSeq);
        ASSERT_LT(st.stHead.cPkgIndex, st.stHead.cTotalPkgCount);
        ASSERT_GT(st.stHead.uTimeStamp, 90000u);
        ASSERT_LT(st.stHead.uTimeStamp, 300000u);
        EXPECT_EQ((uint16)st.dwSendSeq, st.wRtpSeq);
        if (!st.bByRtx)
        {
            tagTold& stTold = mapTold[{st.dwStream, st.dwRtpTs}];
            if (stTold.setTotals.empty())
                stTold.ullFirstUs = st.ullArrivalUs;
            stTold.ullLastUs = st.ullArrivalUs;
            stTold.setTotals.insert(st.stHead.cTotalPkgCount * 256 + st.stHead.cFrmType);
        }
        mapBySeq[st.dwStream][st.dwSendSeq] = &st;
    }
    for (const auto& it :
         mapTold) // a frame that takes longer than the look-ahead cannot be known at its beginning
    {
        if (it.second.ullLastUs - it.second.ullFirstUs < 1000000)
        {
            EXPECT_EQ(1u, it.second.setTotals.size())
                << "stream " << it.first.first << " timestamp " << it.first.second;
        }
    }

    // The downlink's numbers: from 2 on, holes for what is lost and for nothing else.
    EXPECT_EQ(2u, *setDown.begin());
    EXPECT_EQ(ullLost, *setDown.rbegin() - 1 - setDown.size());

    // In order of sequence, indices go up inside a frame, frames inside a GOP, GOPs at key frames.
    for (const auto& itStream : mapBySeq)
    {
        const tagRtpMedia* pLast = nullptr;
        for (const auto& it : itStream.second)
        {
            const tagRtpMedia& st = *it.second;
            if (pLast != nullptr && st.cSubType != MEAVAudio && !st.bByRtx && !pLast->bByRtx)
            {
                if (st.dwRtpTs == pLast->dwRtpTs)
                {
                    EXPECT_EQ(st.dwSendSeq - pLast->dwSendSeq,
                              (uint32)(st.stHead.cPkgIndex - pLast->stHead.cPkgIndex));
                    EXPECT_EQ(st.stHead.cFrameIndex, pLast->stHead.cFrameIndex);
                    EXPECT_EQ(st.stHead.cGopIndex, pLast->stHead.cGopIndex);
                }
                else if (st.stHead.cFrmType == def_FrameType_I)
                {
                    EXPECT_EQ((uint8)(pLast->stHead.cGopIndex + 1), st.stHead.cGopIndex);
                    EXPECT_EQ(0, st.stHead.cFrameIndex);
                }
                else
                {
                    EXPECT_EQ(pLast->stHead.cGopIndex, st.stHead.cGopIndex);
                    EXPECT_NE(pLast->stHead.cFrameIndex, st.stHead.cFrameIndex);
                }
            }
            pLast = &st;
        }
    }
}

INSTANTIATE_TEST_SUITE_P(All, RtpCaptures, testing::ValuesIn(c_vecCaptures),
                         [](const testing::TestParamInfo<tagCapture>& param)
                         {
                             std::string strName = param.param.pszFile;
                             for (char& c : strName)
                             {
                                 if (std::isalnum((unsigned char)c) == 0)
                                     c = '_';
                             }
                             return strName;
                         });

// A call with everything: two streams of one user, RTX, reports, NACKs.
TEST(RtpLabCapture, UsersRtxAndFeedbackAreKnown)
{
    const std::string strPath = FindCapture("h264-opus-rtx-lab-31s.pcapng");
    ASSERT_FALSE(strPath.empty());
    CRtpIntake intake;
    const auto vec = PlayCapture(strPath, intake);
    std::map<uint32, tagRtpStreamInfo> map;
    for (uint32 i = 0; i < intake.StreamCount(); i++)
        map[intake.Stream(i).dwSsrc] = intake.Stream(i);
    const tagRtpStreamInfo& audio = map[0x170e043b];
    const tagRtpStreamInfo& video = map[0xf24b7ac6];
    EXPECT_EQ("user991955299@host-8e2c3c7b", audio.strCname);
    EXPECT_EQ(audio.llAccount, video.llAccount);
    EXPECT_EQ(MEAVAudio, audio.cSubType);
    EXPECT_EQ(MEAVMaxVideo, video.cSubType);
    EXPECT_TRUE(video.bPlacedBySr);
    EXPECT_EQ("H264", video.stFormat.strCodec);
    EXPECT_EQ("opus", audio.stFormat.strCodec);
    EXPECT_EQ(77u, audio.ullRtxPackets);
    EXPECT_EQ(54u, video.ullRtxPackets);
    EXPECT_EQ(14u, audio.ullRtxRepaired);
    EXPECT_EQ(21u, video.ullRtxRepaired);
    EXPECT_EQ("rtx", map[0x9b39f783].stFormat.strCodec);
    EXPECT_EQ("rtx", map[0x2d4ae8e2].stFormat.strCodec);
    EXPECT_EQ(98u, intake.Totals().aRtcpTypes[205]);
    EXPECT_EQ(27u, intake.Totals().aRtcpTypes[200]);
    EXPECT_EQ(111u, intake.Totals().aRtcpTypes[201]);
    EXPECT_EQ(98u, audio.ullNacks + video.ullNacks);
    EXPECT_EQ(4u, intake.Guesses().size());

    int nKeys = 0;
    for (const tagRtpMedia& st : vec)
        nKeys +=
            st.cSubType == MEAVMaxVideo && st.stHead.cFrmType == def_FrameType_I && st.stHead.cPkgIndex == 0
                ? 1
                : 0;
    EXPECT_GT(nKeys, 5);

    tagRtpEvent stEvent;
    uint64 ullSeqs = 0;
    while (intake.PopEvent(stEvent))
        ullSeqs += stEvent.vecSendSeq.size();
    EXPECT_EQ(audio.ullNackedSeqs + video.ullNackedSeqs, ullSeqs);
}

TEST(RtpLabCapture, TwoRunsGiveTheSame)
{
    const std::string strPath = FindCapture("h264-opus-rtx-lab-31s.pcapng");
    ASSERT_FALSE(strPath.empty());
    CRtpIntake one;
    CRtpIntake two;
    const auto vecOne = PlayCapture(strPath, one);
    const auto vecTwo = PlayCapture(strPath, two);
    ASSERT_EQ(vecOne.size(), vecTwo.size());
    for (size_t i = 0; i < vecOne.size(); i++)
    {
        ASSERT_EQ(0, std::memcmp(&vecOne[i].stHead, &vecTwo[i].stHead, sizeof(tagUdtPacketHeadInfo)));
        ASSERT_EQ(vecOne[i].dwSeq, vecTwo[i].dwSeq);
        ASSERT_EQ(vecOne[i].vecRtp, vecTwo[i].vecRtp);
    }
    EXPECT_EQ(one.Guesses(), two.Guesses());
}
