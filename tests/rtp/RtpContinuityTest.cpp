/// Restarts of a sender's numbering: each kind found, nothing else taken for one.
#include <gmock/gmock.h>

#include <algorithm>
#include <cstdlib>
#include <map>

#include "RtpIntake.h"
#include "RtpMaker.h"
#include "Slow.h"

namespace
{
class CRandom
{
public:
    explicit CRandom(uint64 ullSeed) : m_ull(ullSeed * 2654435761u + 88172645463325252ull) {}
    uint32 Next()
    {
        m_ull ^= m_ull << 13;
        m_ull ^= m_ull >> 7;
        m_ull ^= m_ull << 17;
        return (uint32)(m_ull >> 16);
    }
    int64_t In(int64_t llFrom, int64_t llTo)
    {
        return llFrom + (int64_t)(Next() % (uint64)(llTo - llFrom + 1));
    }
    bool Once(uint32 dwIn) { return Next() % dwIn == 0; }

private:
    uint64 m_ull;
};

// What is known of a packet by whoever made it.
struct tagTruth
{
    int64_t llIndex = 0; // in the order of sending
    int64_t llMadeMs = 0;
    int nPart = 0; // how many restarts lay before it
};

struct tagSent
{
    int64_t llArrivalUs = 0;
    Bytes bytes;
};

// One sender for a while, the network between, and what a receiver's RTP side is to make of it.
struct tagWorld
{
    bool bVideo = false;
    int nRestarts = 0;
    int nOvertaking = 0; // packets that one packet may overtake
    std::vector<tagSent> vecSent;
    std::vector<tagTruth> vecTruth;
};

const uint32 c_dwSsrc = 0x5EED;
const uint32 c_dwRtx = 0x5EED0001;

tagWorld MakeWorld(uint64 ullSeed)
{
    CRandom random(ullSeed);
    tagWorld world;
    world.bVideo = random.Once(2);
    const uint32 dwClock = world.bVideo ? 90000 : 48000;
    const int64_t llStepMs = world.bVideo ? random.In(20, 100) : 10 * random.In(1, 6);
    uint32 dwSeq = random.Next() & 0xFFFF;
    int64_t llTsShift = random.Next();
    const double dDrift = 1 + (double)random.In(-500, 500) / 1e6;
    const uint32 dwLoss = (uint32)(random.Once(3) ? 0 : random.In(0, 300)); // per mille
    const int64_t llJitterMs = random.Once(3) ? 0 : random.In(0, 150); // not in order, if more than a step
    const bool bInOrder = random.Once(2);
    world.nOvertaking = bInOrder ? 0 : (int)(llJitterMs / llStepMs) * (world.bVideo ? 12 : 1);
    const uint32 dwDup = (uint32)random.In(0, 100);
    const uint32 dwLate = (uint32)random.In(0, 150); // sent again: by RTX, or with the sequence it had
    const bool bTroubles = random.Once(2);           // silence, stalls, outages, steps of delay
    world.nRestarts = random.Once(2) ? 0 : (int)random.In(1, 2);

    const int nFrames = 120 * (world.nRestarts + 1);
    int64_t llNowMs = 0;
    int64_t llDelayMs = random.In(0, 300);
    int64_t llStallUntilMs = 0;
    int64_t llOutageUntilMs = 0;
    int64_t llLastUs = 0;
    int nPart = 0;
    uint32 dwRtxSeq = random.Next() & 0xFFFF;
    for (int i = 0; i < nFrames; i++, llNowMs += llStepMs)
    {
        const int nOfPart = i % 120;
        if (i > 0 && nOfPart == 0)
        {
            nPart++;
            const uint32 dwKind = random.Next() % 3;
            // Ahead by more than any network loses, or behind by more than it reorders.
            if (dwKind != 0)
                dwSeq += (uint32)(random.Once(2) ? random.In(world.bVideo ? 8000 : 3000, 32000)
                                                 : random.In(33000, 64900));
            if (dwKind == 1)
                llTsShift += random.Next();
            if (dwKind == 0)
                llTsShift += random.In(2000, 3600000) * (dwClock / 1000) * (random.Once(2) ? 1 : -1);
        }
        if (bTroubles && nOfPart > 60 && nOfPart < 100) // a true restart stands by itself
        {
            const int64_t llLeftMs = (110 - nOfPart) * llStepMs;
            if (random.Once(40))
                llNowMs += random.In(200, 20000); // silence: timestamps go on, sequences do not
            if (random.Once(40))
                llStallUntilMs = llNowMs + std::min<int64_t>(random.In(100, 3000), llLeftMs);
            if (random.Once(40))
                llOutageUntilMs = llNowMs + std::min<int64_t>(random.In(100, 3000), llLeftMs);
            if (random.Once(40))
                llDelayMs = random.In(0, 400);
        }
        const int nPackets = world.bVideo ? (int)(i % 40 == 0 ? random.In(1, 12) : random.In(1, 4)) : 1;
        for (int k = 0; k < nPackets; k++)
        {
            tagMake st;
            st.cPt = world.bVideo ? 96 : 111;
            st.dwSsrc = c_dwSsrc;
            st.wSeq = (uint16)dwSeq++;
            st.dwTs = (uint32)(llTsShift + (int64_t)((double)llNowMs * dDrift * dwClock / 1000));
            st.bMarker = world.bVideo && k + 1 == nPackets;
            const int64_t llIndex = (int64_t)world.vecTruth.size();
            world.vecTruth.push_back({llIndex, llNowMs, nPart});
            st.payload = {0x41, 0x9A, (uint8)(llIndex >> 8), (uint8)llIndex, 7};
            const bool bLost = llNowMs < llOutageUntilMs || random.Next() % 1000 < dwLoss;
            int64_t llUs =
                (std::max(llNowMs, llStallUntilMs) + llDelayMs) * 1000 + random.In(0, llJitterMs * 1000) + k;
            if (bInOrder || llNowMs < llStallUntilMs)
                llUs = llLastUs = std::max(llUs, llLastUs + 1);
            if (!bLost)
                world.vecSent.push_back({llUs, MakeRtp(st)});
            if (random.Next() % 1000 < dwDup)
                world.vecSent.push_back({llUs + random.In(0, 1000000), MakeRtp(st)});
            if (random.Next() % 1000 < dwLate)
            {
                const int64_t llAgainUs = llUs + random.In(20000, 6000000);
                if (world.bVideo && random.Once(2))
                {
                    tagMake stRtx = st;
                    stRtx.cPt = 99;
                    stRtx.dwSsrc = c_dwRtx;
                    stRtx.wSeq = (uint16)dwRtxSeq++;
                    stRtx.payload.insert(stRtx.payload.begin(), {(uint8)(st.wSeq >> 8), (uint8)st.wSeq});
                    world.vecSent.push_back({llAgainUs, MakeRtp(stRtx)});
                }
                else
                    world.vecSent.push_back({llAgainUs, MakeRtp(st)});
            }
        }
    }
    std::stable_sort(world.vecSent.begin(), world.vecSent.end(),
                     [](const tagSent& a, const tagSent& b) { return a.llArrivalUs < b.llArrivalUs; });
    return world;
}

// @return what is wrong, empty when nothing is
std::string Judge(uint64 ullSeed, bool bShow)
{
    const tagWorld world = MakeWorld(ullSeed);
    tagRtpOptions stOptions = MappedOptions();
    stOptions.bLive = true;
    stOptions.mapRtxSsrc[c_dwRtx] = c_dwSsrc;
    CRtpIntake intake(stOptions);
    std::vector<tagRtpMedia> vecOut;
    for (const tagSent& st : world.vecSent)
    {
        tagRtpDatagram stDatagram;
        stDatagram.ullArrivalUs = 1000000000 + (uint64)st.llArrivalUs;
        stDatagram.stSrc = Addr(1, 4000);
        stDatagram.stDst = Addr(2, 5000);
        stDatagram.pData = st.bytes.data();
        stDatagram.dwCaptured = stDatagram.dwWire = (uint32)st.bytes.size();
        intake.Push(stDatagram);
        CCall::Take(intake, vecOut);
    }
    intake.Flush();
    CCall::Take(intake, vecOut);

    std::string strWrong;
    const auto Wrong = [&](const std::string& str)
    {
        if (strWrong.empty())
            strWrong = "seed " + std::to_string(ullSeed) + ": " + str;
    };
    const int nFound = intake.StreamCount() == 0 ? 0 : (int)intake.Stream(0).dwRestarts;
    if (nFound != world.nRestarts)
        Wrong(std::to_string(nFound) + " restarts found of " + std::to_string(world.nRestarts));

    // Within one numbering of the sender, the intake's sequence and media time go along with the truth, late ones too.
    std::map<int, std::pair<int64_t, int64_t>> mapParts;
    std::map<int64_t, bool> mapPlayed;
    for (const tagRtpMedia& st : vecOut)
    {
        const uint8* p = st.vecRtp.data() + st.wHeadLen;
        const tagTruth& stTruth = world.vecTruth[(size_t)p[2] << 8 | p[3]];
        mapPlayed[stTruth.llIndex] = true;
        const int64_t llSeq = (int64_t)st.dwSendSeq - stTruth.llIndex;
        const int64_t llMs = (int64_t)st.stHead.uTimeStamp - stTruth.llMadeMs;
        if (bShow && std::getenv("UDT_FROM") != nullptr &&
            std::llabs(stTruth.llIndex - std::atoi(std::getenv("UDT_FROM"))) < 12)
            std::printf("packet %lld part %d rtp %u ts %u: seq %lld ms %lld at %llu made %lld%s\n",
                        (long long)stTruth.llIndex, stTruth.nPart, st.wRtpSeq, st.dwRtpTs, (long long)llSeq,
                        (long long)llMs, (unsigned long long)st.ullArrivalUs / 1000 - 1000000,
                        (long long)stTruth.llMadeMs, st.bByRtx ? " rtx" : "");
        const auto it = mapParts.emplace(stTruth.nPart, std::make_pair(llSeq, llMs)).first;
        if (it->second.first != llSeq)
            Wrong("packet " + std::to_string(stTruth.llIndex) + " got a sequence " +
                  std::to_string(llSeq - it->second.first) + " off");
        if (std::llabs(it->second.second - llMs) > 35) // drift
            Wrong("packet " + std::to_string(stTruth.llIndex) + " got a media time " +
                  std::to_string(llMs - it->second.second) + " ms off");
        uint32 dwSsrc = 0;
        uint16 wSeq = 0;
        if (!intake.RtpSequence(0, st.dwSendSeq, dwSsrc, wSeq) || wSeq != st.wRtpSeq || dwSsrc != c_dwSsrc)
            Wrong("packet " + std::to_string(stTruth.llIndex) + " cannot be asked for by its sequence");
    }
    // What arrived and is not there. Around a restart a few may be strays.
    std::map<int64_t, bool> mapArrived;
    for (const tagSent& st : world.vecSent)
        mapArrived[(int64_t)st.bytes[st.bytes.size() - 3] << 8 | st.bytes[st.bytes.size() - 2]] = true;
    const size_t nMissing = mapArrived.size() - mapPlayed.size();
    if (nMissing > (size_t)world.nRestarts * (size_t)(12 + 2 * world.nOvertaking))
        Wrong(std::to_string(nMissing) + " packets were refused");
    if (bShow)
    {
        for (const std::string& str : intake.Guesses())
            std::printf("%s\n", str.c_str());
    }
    return strWrong;
}
} // namespace

TEST(RtpContinuity, InTenThousandWorldsEveryRestartIsFoundAndNothingElseIsTakenForOne)
{
    if (const char* psz = std::getenv("UDT_SEED"))
    {
        EXPECT_EQ("", Judge(std::strtoull(psz, nullptr, 10), true));
        return;
    }
#ifdef UDT_TESTS_SLOW
    const uint64 ullWorlds = 1000;
#else
    const uint64 ullWorlds = 10000;
#endif
    int nWrong = 0;
    for (uint64 ullSeed = 1; ullSeed <= ullWorlds; ullSeed++)
    {
        const std::string strWrong = Judge(ullSeed, false);
        if (!strWrong.empty() && nWrong++ < 40)
            ADD_FAILURE() << strWrong;
    }
    EXPECT_EQ(0, nWrong);
}
