// A receiver's state as bytes, and recordings that begin in the middle of a call.
#include "FlightRecorder.h"
#include "RecvRig.h"
#include "RecvState.h"
#include "Slow.h"

#include <gmock/gmock.h>

#include <random>

namespace
{
using namespace lab;
using testing::HasSubstr;

// A call with losses, repeats, reordering, answers that come or not, and settings that change.
class CWorld
{
public:
    explicit CWorld(uint32 dwSeed) : m_random(dwSeed) {}

    // What happens in the 10 ms up to a turn.
    template <typename FnFeed, typename FnRtt, typename FnPoll>
    void Step(uint32 dwStep, const std::vector<tagReplyData>& vecAsked, FnFeed fnFeed, FnRtt fnRtt,
              FnPoll fnPoll)
    {
        for (const tagReplyData& st : vecAsked)
            if (m_random() % 3 != 0)
                m_vecLater.push_back({dwStep + 2 + (uint32)m_random() % 20, Make(st.cSubType, st.dwUserSeq)});
        if (dwStep % 2 == 0)
            Send(dwStep, Make(MEAVAudio, m_dwAudio++));
        if (dwStep % 4 == 0)
            for (uint32 i = 0; i < 3; i++)
                Send(dwStep, Make(MEAVMaxVideo, m_dwVideo++));
        for (size_t i = 0; i < m_vecLater.size();)
        {
            if (m_vecLater[i].first > dwStep)
            {
                i++;
                continue;
            }
            fnFeed(m_vecLater[i].second);
            m_vecLater.erase(m_vecLater.begin() + (std::ptrdiff_t)i);
        }
        if (m_random() % 300 == 0)
            fnRtt((uint32)m_random() % 200);
        if (dwStep % 200 == 0)
            fnPoll();
    }

private:
    tagRigPacket Make(uint8 cSubType, uint32 dwSeq)
    {
        if (cSubType == MEAVAudio)
            return AudioPacket(7, dwSeq).At(100000 + dwSeq * 20).Down(++m_dwDown);
        const uint32 dwFrame = dwSeq / 3;
        return VideoPacket(7, dwSeq, 100000 + dwFrame * 40,
                           dwFrame % 30 == 0 ? def_FrameType_I : def_FrameType_P, (uint8)(dwFrame / 30),
                           (uint8)(dwFrame % 30), (uint8)(dwSeq % 3), 3)
            .Down(++m_dwDown);
    }
    void Send(uint32 dwStep, const tagRigPacket& st)
    {
        const uint32 dwDice = (uint32)m_random() % 100;
        if (dwDice < 8)
            return;
        m_vecLater.push_back({dwStep + (dwDice < 16 ? 3u : 0u), st});
        if (dwDice == 99)
            m_vecLater.push_back({dwStep + 5, st});
    }

    std::mt19937 m_random;
    uint32 m_dwAudio = 0;
    uint32 m_dwVideo = 0;
    uint32 m_dwDown = 2;
    std::vector<std::pair<uint32, tagRigPacket>> m_vecLater;
};

std::vector<tagReplyData> AskedSince(CRecvRig& rig, size_t& nSeen)
{
    std::vector<tagReplyData> vec;
    for (; nSeen < rig.m_owner.m_vecRequests.size(); nSeen++)
        vec.insert(vec.end(), rig.m_owner.m_vecRequests[nSeen].vecData.begin(),
                   rig.m_owner.m_vecRequests[nSeen].vecData.end());
    return vec;
}

void Poll(CRecvRig& rig)
{
    uint32 dwExpect = 0;
    uint32 dwReal = 0;
    uint32 dwBytes = 0;
    uint32 dwInfo = 0;
    rig.m_recv.GetDownPacketRecvInfo(dwExpect, dwReal, dwBytes, dwInfo);
}

UDTCodecBaseDecode_V2* RigPacketOf(const tagDataPacket& st)
{
    tagRigPacket stPacket;
    stPacket.ullUin = st.llAccount;
    stPacket.cSubType = st.cSubType;
    stPacket.dwSendSeq = st.dwSenderSeq;
    stPacket.stHead.uTimeStamp = st.dwTimeStamp;
    return new CRigPacket(stPacket);
}

// Lost, late and repeated: at a moment of each run the state goes into another receiver, and from there on both do
// the same and stay the same to the last byte.
TEST(RecvState, AReceiverGoesOnFromAnothersBytesAsThatOneWould)
{
    CLogRecorder log(LOG_LEVEL_FAULT);
    uint64 ullRequests = 0;
    uint64 ullReleases = 0;
#ifdef UDT_TESTS_SLOW
    constexpr uint32 c_dwSeeds = 5;
    constexpr uint64 c_ullLeastReleases = 4000;
#else
    constexpr uint32 c_dwSeeds = 20;
    constexpr uint64 c_ullLeastReleases = 20000;
#endif
    for (uint32 dwSeed = 1; dwSeed <= c_dwSeeds; dwSeed++)
    {
        CWorld world(dwSeed);
        CRecvRig first(1000 + dwSeed * 0x10000000ull);
        first.StartPlaying();
        if (dwSeed % 3 == 0)
        {
            tagUDTRecvParams stParams;
            stParams.wUdtMode = 1;
            stParams.wOutPutDelay = 200;
            first.m_recv.UDTSetRecvParams(stParams);
        }
        first.m_owner.m_nPlayDelay = dwSeed % 2 ? 30 : 0;
        size_t nSeen = 0;
        const uint32 dwMoment = 100 + dwSeed * 37;
        uint64 ullTick = first.m_clock.Tick();
        uint32 dwStep = 0;
        for (; dwStep < dwMoment; dwStep++)
        {
            first.ClockAt(ullTick += 10);
            world.Step(
                dwStep, AskedSince(first, nSeen), [&](const tagRigPacket& st) { first.Feed(st); },
                [&](uint32 dwMs) { first.m_recv.UDTSetRecvRTT(dwMs); }, []() {});
            first.Turn();
        }
        std::vector<uint8> vecState;
        CRecvRig::SaveState(first.m_recv, vecState);
        AskedSince(first, nSeen);
        first.m_owner.Forget();
        nSeen = 0;

        CRecvRig second(ullTick); // its clock is the one that is read from here on
        second.m_owner.m_nPlayDelay = first.m_owner.m_nPlayDelay;
        second.Start();
        ASSERT_TRUE(CRecvRig::LoadState(second.m_recv, vecState.data(), vecState.size(), RigPacketOf));
        for (; dwStep < dwMoment + 1000; dwStep++)
        {
            second.ClockAt(ullTick += 10);
            world.Step(
                dwStep, AskedSince(first, nSeen),
                [&](const tagRigPacket& st)
                {
                    first.Feed(st);
                    second.Feed(st);
                },
                [&](uint32 dwMs)
                {
                    first.m_recv.UDTSetRecvRTT(dwMs);
                    second.m_recv.UDTSetRecvRTT(dwMs);
                },
                [&]()
                {
                    Poll(first);
                    Poll(second);
                });
            first.Turn();
            second.Turn();
            std::vector<uint8> vecFirst;
            std::vector<uint8> vecSecond;
            CRecvRig::SaveState(first.m_recv, vecFirst);
            CRecvRig::SaveState(second.m_recv, vecSecond);
            ASSERT_EQ(vecFirst, vecSecond) << "seed " << dwSeed << ", step " << dwStep;
        }
        ASSERT_EQ(first.m_owner.m_vecReleases.size(), second.m_owner.m_vecReleases.size());
        for (size_t i = 0; i < first.m_owner.m_vecReleases.size(); i++)
            ASSERT_EQ(first.m_owner.m_vecReleases[i].dwSendSeq, second.m_owner.m_vecReleases[i].dwSendSeq);
        ASSERT_EQ(first.m_owner.m_vecRequests.size(), second.m_owner.m_vecRequests.size());
        ullRequests += first.m_owner.m_vecRequests.size();
        ullReleases += first.m_owner.m_vecReleases.size();
    }
    EXPECT_GT(ullRequests, 50u * c_dwSeeds);
    EXPECT_GT(ullReleases, c_ullLeastReleases);
}

// ---- Recordings ----

// A recording of a world's call that is longer than what is kept.
std::vector<uint8> Recording(uint32 dwSeed, uint32 dwSeconds, uint32 dwKeep)
{
    CWorld world(dwSeed);
    CRecvRig rig(5000);
    CFlightRecorder recorder(dwKeep);
    rig.StartPlaying();
    rig.m_owner.m_fnOnRelease = [&](const tagRelease& st)
    { recorder.Released(st.ullUin, st.cSubType, st.dwSendSeq); };
    rig.m_owner.m_fnOnRequest = [&](const tagRequest& st)
    { recorder.Requested(st.vecData.data(), (uint32)st.vecData.size()); };
    size_t nSeen = 0;
    for (uint32 dwStep = 0; dwStep < dwSeconds * 100; dwStep++)
    {
        rig.Advance(10);
        world.Step(
            dwStep, AskedSince(rig, nSeen),
            [&](const tagRigPacket& st)
            {
                tagRtpMedia stMedia;
                stMedia.llAccount = st.ullUin;
                stMedia.cSubType = st.cSubType;
                stMedia.dwSendSeq = st.dwSendSeq;
                stMedia.dwSeq = st.dwDownSeq;
                stMedia.wTimeStamp = st.wTimeStamp;
                stMedia.stHead = st.stHead;
                recorder.Fed(stMedia, st.wLen, rig.Now());
                rig.Feed(st);
            },
            [&](uint32 dwMs)
            {
                recorder.Rtt(dwMs, rig.Now());
                rig.m_recv.UDTSetRecvRTT(dwMs);
            },
            [&]()
            {
                recorder.DownlinkPolled(rig.Now());
                Poll(rig);
            });
        recorder.Turn(rig.Now());
        rig.Turn();
        recorder.AfterTurn(rig.m_recv, rig.Now());
    }
    EXPECT_GE(recorder.SpanMs() + 10, std::min(dwSeconds, dwKeep) * 1000);
    EXPECT_LE(recorder.SpanMs(), dwKeep * 1000 + 2 * 5000);
    return recorder.Bytes("test");
}

TEST(FlightRecorder, ARecordingThatBeginsInMidCallPlaysBackToTheSameDecisions)
{
    CLogRecorder log(LOG_LEVEL_FAULT);
    for (uint32 dwSeed = 1; dwSeed <= 5; dwSeed++)
    {
        const tagFlightResult st = ReplayFlightBytes(Recording(dwSeed, 30, 12), nullptr);
        EXPECT_EQ(st.strError, "");
        EXPECT_EQ(st.strDifference, "");
        EXPECT_GE(st.ullReleases, 500u);
        EXPECT_GE(st.ullRequests, 50u);
        EXPECT_GE(st.ullStates, 5u);
    }
}

TEST(FlightRecorder, TheRingForgetsTheBeginningAndNothingElse)
{
    CLogRecorder log(LOG_LEVEL_FAULT);
    const size_t nShort = Recording(1, 20, 6).size();
    const size_t nLong = Recording(1, 120, 6).size();
    EXPECT_LT((double)nLong, 1.5 * (double)nShort);
    const tagFlightResult st = ReplayFlightBytes(Recording(1, 3, 60), nullptr);
    EXPECT_GE(st.dwSpanMs, 2900u) << "what fits is kept from the start";
}

TEST(FlightRecorder, OneDecisionChangedIsFoundAndNamed)
{
    CLogRecorder log(LOG_LEVEL_FAULT);
    const std::vector<uint8> vecGood = Recording(3, 12, 6);
    size_t nFound = 0;
    size_t nBroken = 0;
    std::mt19937 random(1);
    for (int i = 0; i < 300; i++)
    {
        std::vector<uint8> vec = vecGood;
        const size_t nAt = vec.size() / 2 + random() % (vec.size() / 2);
        vec[nAt] = (uint8)(vec[nAt] ^ (1 << random() % 7));
        const tagFlightResult st = ReplayFlightBytes(vec, nullptr);
        nBroken += st.strError.empty() ? 0 : 1;
        if (!st.strDifference.empty())
        {
            nFound++;
            EXPECT_EQ(st.strDifference.compare(0, 3, "at "), 0);
        }
    }
    // Some bytes decide nothing: heads that nobody looks at any more.
    EXPECT_GT(nFound, 100u);
    EXPECT_GT(nFound + nBroken, 150u);
}

TEST(FlightRecorder, AnyCutAndAnyNoiseIsRefusedInOneLineWithItsOffset)
{
    CLogRecorder log(LOG_LEVEL_FAULT);
    const std::vector<uint8> vecGood = Recording(2, 8, 6);
    std::mt19937 random(2);
    for (int i = 0; i < 200; i++)
    {
        std::vector<uint8> vec(vecGood.begin(),
                               vecGood.begin() + (std::ptrdiff_t)(random() % vecGood.size()));
        const tagFlightResult st = ReplayFlightBytes(vec, nullptr);
        EXPECT_TRUE(st.strError.empty() || st.strError.find("expected") != std::string::npos) << st.strError;
        for (int k = 0; k < 30; k++)
            vec.push_back((uint8)random());
        ReplayFlightBytes(vec, nullptr);
        vec = vecGood;
        for (int k = 0; k < 20; k++)
            vec[60 + random() % (vec.size() - 60)] = (uint8)random();
        ReplayFlightBytes(vec, nullptr);
    }
    EXPECT_THAT(ReplayFlightBytes({}, nullptr).strError, HasSubstr("offset 0: not a flight recording"));
}

} // namespace
