#include "Impair.h"

#include <gmock/gmock.h>

#include <set>

namespace
{
using namespace lab;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::Pair;

std::vector<uint8> Rtp(uint16 wSeq, uint32 dwSsrc = 0x11223344)
{
    std::vector<uint8> vec = {0x80, 96, (uint8)(wSeq >> 8), (uint8)wSeq, 0, 0, 0, 0};
    for (int nShift = 24; nShift >= 0; nShift -= 8)
        vec.push_back((uint8)(dwSsrc >> nShift));
    vec.push_back(0x55);
    return vec;
}

tagRtpDatagram At(uint64 ullUs, const std::vector<uint8>& vecBytes)
{
    tagRtpDatagram st;
    st.ullArrivalUs = ullUs;
    st.pData = vecBytes.data();
    st.dwCaptured = st.dwWire = (uint32)vecBytes.size();
    return st;
}

// Puts in a packet every ms and takes out at every ms: sequence and ms of each that came through.
struct tagThrough
{
    std::vector<std::pair<uint16, uint32>> vecCame;
    std::set<uint16> setDropped;
};
tagThrough Through(const tagImpairOptions& stOptions, uint32 dwPackets)
{
    CImpair impair(stOptions);
    tagThrough st;
    for (uint32 dwMs = 0; dwMs < dwPackets + 20000; dwMs++)
    {
        if (dwMs < dwPackets)
        {
            const std::vector<uint8> vec = Rtp((uint16)dwMs);
            tagDropped stDropped;
            if (!impair.Put(At(dwMs * 1000ull, vec), 0, stDropped))
            {
                EXPECT_EQ(stDropped.dwSsrc, 0x11223344u);
                EXPECT_EQ(stDropped.wSeq, (uint16)dwMs);
                st.setDropped.insert(stDropped.wSeq);
            }
        }
        tagHeldDatagram stHeld;
        while (impair.Take(dwMs * 1000ull, stHeld))
        {
            EXPECT_LE(stHeld.st.ullArrivalUs, dwMs * 1000ull);
            st.vecCame.emplace_back((uint16)(stHeld.st.pData[2] << 8 | stHeld.st.pData[3]), dwMs);
        }
        uint64 ullNextUs = 0;
        EXPECT_TRUE(!impair.NextUs(ullNextUs) || ullNextUs > dwMs * 1000ull);
    }
    EXPECT_EQ(impair.Rtp(), dwPackets);
    EXPECT_EQ(impair.Dropped(), st.setDropped.size());
    return st;
}

TEST(Impair, EverythingIsDroppedOrComesThroughOnce)
{
    tagImpairOptions stOptions;
    stOptions.dDrop = 0.05;
    const tagThrough st = Through(stOptions, 10000);
    EXPECT_NEAR((double)st.setDropped.size(), 500, 80);
    EXPECT_EQ(st.vecCame.size() + st.setDropped.size(), 10000u);
    for (const auto& it : st.vecCame)
        EXPECT_EQ(st.setDropped.count(it.first), 0u);
}

TEST(Impair, TheSameSeedDropsTheSameAndAnotherKnobDoesNotChangeThat)
{
    tagImpairOptions stOptions;
    stOptions.dDrop = 0.1;
    const tagThrough stPlain = Through(stOptions, 1000);
    stOptions.dReorder = 0.2;
    stOptions.dwDelayMs = 40;
    stOptions.dwSpreadMs = 20;
    EXPECT_EQ(Through(stOptions, 1000).setDropped, stPlain.setDropped);
    stOptions.ullSeed = 2;
    EXPECT_NE(Through(stOptions, 1000).setDropped, stPlain.setDropped);
}

TEST(Impair, ADelayIsWithinItsBoundsAndKeepsTheOrder)
{
    tagImpairOptions stOptions;
    stOptions.dwDelayMs = 40;
    stOptions.dwSpreadMs = 20;
    const tagThrough st = Through(stOptions, 2000);
    ASSERT_EQ(st.vecCame.size(), 2000u);
    for (size_t i = 0; i < st.vecCame.size(); i++)
    {
        EXPECT_EQ(st.vecCame[i].first, i);
        EXPECT_GE(st.vecCame[i].second, i + 20);
        EXPECT_LE(st.vecCame[i].second, i + 61);
    }
}

TEST(Impair, AReorderedPacketComesTwentyMillisecondsLateAndHoldsNobodyUp)
{
    tagImpairOptions stOptions;
    stOptions.dReorder = 0.02;
    const tagThrough st = Through(stOptions, 5000);
    ASSERT_EQ(st.vecCame.size(), 5000u);
    size_t nLate = 0;
    for (const auto& it : st.vecCame)
    {
        const uint32 dwLate = it.second - it.first;
        EXPECT_TRUE(dwLate == 0 || dwLate == 20) << it.first;
        nLate += dwLate != 0 ? 1 : 0;
    }
    EXPECT_NEAR((double)nLate, 100, 40);
}

TEST(Impair, RtcpIsDelayedButNeverDropped)
{
    tagImpairOptions stOptions;
    stOptions.dDrop = 1;
    stOptions.dwDelayMs = 10;
    CImpair impair(stOptions);
    const std::vector<uint8> vecRtcp = {0x80, 201, 0, 1, 0, 0, 0, 1};
    tagDropped stDropped;
    EXPECT_TRUE(impair.Put(At(5000, vecRtcp), 3, stDropped));
    EXPECT_FALSE(impair.Put(At(5000, Rtp(1)), 3, stDropped));
    tagHeldDatagram stHeld;
    EXPECT_FALSE(impair.Take(14999, stHeld));
    ASSERT_TRUE(impair.Take(15000, stHeld));
    EXPECT_EQ(stHeld.uDoor, 3u);
    EXPECT_EQ(stHeld.vecBytes, vecRtcp);
}

TEST(Impair, SharesAndDelaysAreReadAsPeopleWriteThem)
{
    double d = 0;
    std::string strError;
    EXPECT_TRUE(ParseShare("5%", d, strError));
    EXPECT_DOUBLE_EQ(d, 0.05);
    EXPECT_TRUE(ParseShare("0.5 %", d, strError));
    EXPECT_DOUBLE_EQ(d, 0.005);
    for (const char* psz : {"", "5", "%", "101%", "-1%", "5%x", "nan%", "five%"})
    {
        EXPECT_FALSE(ParseShare(psz, d, strError)) << psz;
        EXPECT_THAT(strError, HasSubstr("expected"));
    }
    struct
    {
        const char* psz;
        uint32 dwMs;
        uint32 dwSpread;
    } const aGood[] = {{"40", 40, 0},
                       {"40ms", 40, 0},
                       {"40 ms", 40, 0},
                       {"40+-20ms", 40, 20},
                       {"40ms+-20ms", 40, 20},
                       {"40\xC2\xB1"
                        "20ms",
                        40, 20}};
    for (const auto& st : aGood)
    {
        uint32 dwMs = 0;
        uint32 dwSpread = 0;
        EXPECT_TRUE(ParseDelay(st.psz, dwMs, dwSpread, strError)) << st.psz;
        EXPECT_EQ(dwMs, st.dwMs);
        EXPECT_EQ(dwSpread, st.dwSpread);
    }
    for (const char* psz : {"", "ms", "40s", "20+-40ms", "40+-", "99999", "-5", "40+-20msx"})
    {
        uint32 dwMs = 0;
        uint32 dwSpread = 0;
        EXPECT_FALSE(ParseDelay(psz, dwMs, dwSpread, strError)) << psz;
    }
}

TEST(DropList, EveryDroppedPacketHasOneFate)
{
    CDropList list;
    for (uint16 wSeq = 0; wSeq < 5; wSeq++)
        list.Dropped({7, wSeq}, 1000);
    list.Dropped({7, 1}, 2000); // its answer, under the same number
    list.Came(7, 1, 3000);
    list.Played(7, 1, false, 4000);
    list.Came(7, 2, 3000);
    list.Played(7, 2, true, 4000);
    list.Came(7, 3, 3000);
    list.Played(7, 4, false, 4000); // never came: another packet of that number cannot be meant
    list.Came(7, 99, 3000);         // was not dropped
    const tagDropFate st = list.Fates()[7];
    EXPECT_EQ(st.ullDropped, 5u);
    EXPECT_EQ(st.ullBack, 3u);
    EXPECT_EQ(st.ullInTime, 1u);
    EXPECT_EQ(st.ullLate, 1u);
    EXPECT_EQ(st.ullNever, 2u);
    EXPECT_EQ(list.Entries()[1].dwTimes, 2u);
}

TEST(DropList, ASequenceThatComesAroundIsAnotherPacket)
{
    CDropList list;
    list.Dropped({7, 5}, 0);
    list.Came(7, 5, 60000001); // 60 s on: too late to be that one
    list.Dropped({7, 5}, 70000000);
    list.Came(7, 5, 70000001);
    const tagDropFate st = list.Fates()[7];
    EXPECT_EQ(st.ullDropped, 2u);
    EXPECT_EQ(st.ullBack, 1u);
}

TEST(DropList, APartOfTheTimeCanBeCountedAndAnEndlessCallIsNotForgotten)
{
    CDropList list;
    const uint64 ullAll = CDropList::c_nKept + 1000;
    for (uint64 i = 0; i < ullAll; i++)
    {
        const tagDropped st{(uint32)(i >> 16), (uint16)i};
        list.Dropped(st, i);
        if (i % 2 == 0)
            list.Came(st.dwSsrc, st.wSeq, i);
    }
    uint64 ullDropped = 0;
    uint64 ullBack = 0;
    for (const auto& it : list.Fates())
    {
        ullDropped += it.second.ullDropped;
        ullBack += it.second.ullBack;
    }
    EXPECT_EQ(ullDropped, ullAll);
    EXPECT_EQ(ullBack, ullAll / 2);
    const auto vecEntries = list.Entries();
    ASSERT_EQ(vecEntries.size(), CDropList::c_nKept);
    EXPECT_EQ(vecEntries.front().ullDroppedUs, 1000u);
    EXPECT_EQ(vecEntries.back().ullDroppedUs, ullAll - 1);
    uint64 ullPart = 0;
    for (const auto& it : list.Fates(50000, 50010))
        ullPart += it.second.ullDropped;
    EXPECT_EQ(ullPart, 10u);
}
} // namespace
