#include "RtpShaper.h"

#include <gmock/gmock.h>

#include <map>
#include <utility>
#include <vector>

namespace
{
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Pair;

const uint32 c_dwAskedSsrc = 0x1111;

// Ticks through a schedule of requests and arrivals, 1 ms at a time, and writes down what went out when.
class CSchedule
{
public:
    explicit CSchedule(const tagRtpShaperOptions& stOptions) : m_shaper(stOptions) {}

    CSchedule& Ask(uint32 dwMs, uint32 dwSeq, uint32 dwSsrc = c_dwAskedSsrc)
    {
        m_mapAsks.emplace(dwMs, tagRtpAsk{dwSsrc, dwSeq});
        return *this;
    }
    CSchedule& Come(uint32 dwMs, uint32 dwSeq, uint32 dwSsrc = c_dwAskedSsrc)
    {
        m_mapArrivals.emplace(dwMs, tagRtpAsk{dwSsrc, dwSeq});
        return *this;
    }
    CSchedule& Rtt(uint32 dwMs)
    {
        m_shaper.SetRtt(dwMs);
        return *this;
    }
    // Sequence and ms of each request that went out.
    std::vector<std::pair<uint32, uint32>> Run(uint32 dwUntilMs)
    {
        std::vector<std::pair<uint32, uint32>> vecSent;
        std::vector<tagRtpAsk> vecNacks;
        std::vector<uint32> vecPlis;
        for (uint32 dwMs = 0; dwMs <= dwUntilMs; dwMs++)
        {
            const uint64 ullUs = dwMs * 1000ull;
            for (auto it = m_mapArrivals.lower_bound(dwMs); it != m_mapArrivals.upper_bound(dwMs); ++it)
                m_shaper.Arrived(it->second.dwSsrc, it->second.dwSeq);
            for (auto it = m_mapAsks.lower_bound(dwMs); it != m_mapAsks.upper_bound(dwMs); ++it)
                m_shaper.Ask(it->second.dwSsrc, it->second.dwSeq, ullUs);
            uint64 ullNextUs = 0;
            const bool bNext = m_shaper.NextUs(ullNextUs) && ullNextUs <= ullUs;
            m_shaper.Take(ullUs, vecNacks, vecPlis);
            // Who sleeps until NextUs misses nothing and is not woken for nothing.
            EXPECT_EQ(bNext, !vecNacks.empty() || !vecPlis.empty()) << "at " << dwMs << " ms";
            for (const tagRtpAsk& st : vecNacks)
                vecSent.emplace_back(st.dwSeq, dwMs);
            for (uint32 dwSsrc : vecPlis)
                m_vecPlis.emplace_back(dwSsrc, dwMs);
        }
        return vecSent;
    }

    CRtpShaper m_shaper;
    std::vector<std::pair<uint32, uint32>> m_vecPlis;

private:
    std::multimap<uint32, tagRtpAsk> m_mapAsks;
    std::multimap<uint32, tagRtpAsk> m_mapArrivals;
};

TEST(RtpShaper, WithEveryKnobOffEverythingGoesOutAtOnceInTheOrderAskedFor)
{
    CSchedule schedule{tagRtpShaperOptions()};
    schedule.Rtt(500).Ask(10, 7).Ask(10, 5).Ask(11, 5).Ask(12, 5).Ask(13, 0xFFFFFFFF).Ask(13, 0);
    EXPECT_THAT(schedule.Run(100), ElementsAre(Pair(7, 10), Pair(5, 10), Pair(5, 11), Pair(5, 12),
                                               Pair(0xFFFFFFFF, 13), Pair(0, 13)));
    EXPECT_EQ(schedule.m_shaper.Totals().ullAsked, 6u);
    EXPECT_EQ(schedule.m_shaper.Totals().ullSent, 6u);
}

//   0        20        30       50
//   5, 6, 7  5 comes   7 again  6 and 7 go, once each
TEST(RtpShaper, WhatComesWithinTheHoldOffIsNotAskedForAndWhatIsAskedAgainGoesOnce)
{
    tagRtpShaperOptions st;
    st.dwReorderHoldMs = 50;
    CSchedule schedule(st);
    schedule.Ask(0, 5).Ask(0, 6).Ask(0, 7).Come(20, 5).Ask(30, 7);
    EXPECT_THAT(schedule.Run(300), ElementsAre(Pair(6, 50), Pair(7, 50)));
    EXPECT_EQ(schedule.m_shaper.Totals().ullSpared, 2u);
}

TEST(RtpShaper, APacketThatComesAtTheVeryEndOfTheHoldOffIsStillSpared)
{
    tagRtpShaperOptions st;
    st.dwReorderHoldMs = 50;
    CSchedule schedule(st);
    schedule.Ask(0, 5).Come(50, 5).Ask(1, 6).Come(52, 6);
    EXPECT_THAT(schedule.Run(300), ElementsAre(Pair(6, 51)));
}

TEST(RtpShaper, OnlyTheFirstRequestIsHeldOff)
{
    tagRtpShaperOptions st;
    st.dwReorderHoldMs = 50;
    CSchedule schedule(st);
    schedule.Ask(0, 5).Ask(200, 5).Ask(400, 5);
    EXPECT_THAT(schedule.Run(500), ElementsAre(Pair(5, 50), Pair(5, 200), Pair(5, 400)));
}

TEST(RtpShaper, ARequestIsRepeatedNoSoonerThanARoundTripAfterTheLastThatWent)
{
    tagRtpShaperOptions st;
    st.bOncePerRtt = true;
    CSchedule schedule(st);
    schedule.Rtt(100).Ask(0, 5).Ask(50, 5).Ask(99, 5).Ask(100, 5).Ask(199, 5).Ask(200, 5).Ask(200, 6);
    EXPECT_THAT(schedule.Run(500), ElementsAre(Pair(5, 0), Pair(5, 100), Pair(5, 200), Pair(6, 200)));
    EXPECT_EQ(schedule.m_shaper.Totals().ullTooSoon, 3u);
}

TEST(RtpShaper, WithoutAMeasuredRoundTripNothingIsTooSoon)
{
    tagRtpShaperOptions st;
    st.bOncePerRtt = true;
    CSchedule schedule(st);
    schedule.Ask(0, 5).Ask(1, 5);
    EXPECT_THAT(schedule.Run(10), ElementsAre(Pair(5, 0), Pair(5, 1)));
}

TEST(RtpShaper, NoMoreThanTheRateGoesInAnySecondAndTheRestFollowsInOrder)
{
    tagRtpShaperOptions st;
    st.dwMaxSeqsPerSecond = 2;
    CSchedule schedule(st);
    schedule.Ask(0, 1).Ask(500, 2).Ask(600, 3).Ask(600, 4).Ask(600, 5).Come(700, 4);
    EXPECT_THAT(schedule.Run(3000), ElementsAre(Pair(1, 0), Pair(2, 500), Pair(3, 1000), Pair(5, 1500)));
    EXPECT_EQ(schedule.m_shaper.Totals().ullDelayed, 2u);
}

TEST(RtpShaper, WhatWaitedTwoSecondsForTheRateIsLeftOut)
{
    tagRtpShaperOptions st;
    st.dwMaxSeqsPerSecond = 1;
    CSchedule schedule(st);
    schedule.Ask(0, 1).Ask(0, 2).Ask(0, 3).Ask(0, 4).Ask(0, 5);
    EXPECT_THAT(schedule.Run(6000), ElementsAre(Pair(1, 0), Pair(2, 1000), Pair(3, 2000)));
    EXPECT_EQ(schedule.m_shaper.Totals().ullTooLate, 2u);
}

TEST(RtpShaper, TheRateIsSharedByAllStreams)
{
    tagRtpShaperOptions st;
    st.dwMaxSeqsPerSecond = 1;
    CSchedule schedule(st);
    schedule.Ask(0, 1, 10).Ask(0, 1, 11);
    EXPECT_THAT(schedule.Run(2000), ElementsAre(Pair(1, 0), Pair(1, 1000)));
}

TEST(RtpShaper, APacketIsAskedForAsOftenAsAllowedAndThenGivenUpWithOnePli)
{
    tagRtpShaperOptions st;
    st.dwMaxTries = 2;
    st.bGiveUpPli = true;
    CSchedule schedule(st);
    schedule.Ask(0, 5).Ask(100, 5).Ask(200, 5).Ask(300, 5).Ask(300, 6);
    EXPECT_THAT(schedule.Run(500), ElementsAre(Pair(5, 0), Pair(5, 100), Pair(6, 300)));
    EXPECT_THAT(schedule.m_vecPlis, ElementsAre(Pair(c_dwAskedSsrc, 200)));
    EXPECT_EQ(schedule.m_shaper.Totals().ullTriesUsedUp, 2u);
    EXPECT_EQ(schedule.m_shaper.Totals().ullGaveUp, 1u);
}

TEST(RtpShaper, WithoutTheWishForItGivingUpSendsNothing)
{
    tagRtpShaperOptions st;
    st.dwMaxTries = 1;
    CSchedule schedule(st);
    schedule.Ask(0, 5).Ask(100, 5);
    EXPECT_THAT(schedule.Run(500), ElementsAre(Pair(5, 0)));
    EXPECT_THAT(schedule.m_vecPlis, IsEmpty());
}

TEST(RtpShaper, APacketThatCameAndIsMissedAgainStartsAnew)
{
    tagRtpShaperOptions st;
    st.dwMaxTries = 1;
    CSchedule schedule(st);
    schedule.Ask(0, 5).Come(10, 5).Ask(70000, 5);
    EXPECT_THAT(schedule.Run(70100), ElementsAre(Pair(5, 0), Pair(5, 70000)));
}

TEST(RtpShaper, KnobsWorkTogether)
{
    tagRtpShaperOptions st;
    st.dwReorderHoldMs = 20;
    st.bOncePerRtt = true;
    st.dwMaxTries = 2;
    st.dwMaxSeqsPerSecond = 10;
    CSchedule schedule(st);
    schedule.Rtt(60).Ask(0, 5).Ask(10, 5).Ask(50, 5).Ask(80, 5).Ask(200, 5);
    //                held     held    too soon   2nd try  out of tries
    EXPECT_THAT(schedule.Run(500), ElementsAre(Pair(5, 20), Pair(5, 80)));
}
} // namespace
