/**
 * The receiver and the plain one in lock-step on random calls. After every call all that the owners were told is
 * the same: callbacks, requests record by record, released packets with their whole record, log lines, returned
 * values; so are the receiver's own words and the packets it holds. After every turn everything else is as well:
 * streams, users, packets, histories, meters and getters. In one run of three that is looked at after every n-th
 * turn only, n up to 40, so that a receiver which puts something off is not made to catch up each time. In every other
 * run the receiver has all its guards, none of which is ever reached: the plain one has none and is still its equal.
 *
 * UDT_LOCKSTEP_TURNS sets the turns of the random test (20,000; 5,000 under the address sanitizer),
 * UDT_LOCKSTEP_SEED the seed (a new one per run). The seed is printed; a program of the same compiler runs the
 * same way with it. A failing run is made again with ever fewer calls, and the few that are left are printed;
 * UDT_LOCKSTEP_SHRINK seconds (30) go into that.
 */

#include "LockstepWorld.h"
#include "RecvTest.h"
#include "Slow.h"

#include <algorithm>
#include <cinttypes>

namespace
{

#ifdef UDT_TESTS_SLOW
constexpr uint64 c_ullTurns = 5000;
#else
constexpr uint64 c_ullTurns = 20000;
#endif

std::string FewCalls(const std::vector<tagTwinCall>& vecCalls)
{
    constexpr size_t c_nEnds = 60;
    std::string str;
    for (size_t i = 0; i < vecCalls.size(); ++i)
    {
        if (i >= c_nEnds && i + c_nEnds < vecCalls.size())
        {
            if (i == c_nEnds)
                str += "  ...\n";
            continue;
        }
        str += "  " + vecCalls[i].Text() + "\n";
    }
    return str;
}

// What the runs met.
struct tagMet
{
    uint64 ullRuns = 0;
    uint64 ullTurns = 0;
    uint64 ullCalls = 0;
    uint64 ullReleases = 0;
    uint64 ullLines = 0;
    size_t nDeepest = 0;
    uint64 ullDeepTurns = 0; // with 500 packets or more in one stream
};

void OneRun(CLockstepChance& chance, uint32 dwTurns, tagMet& stMet)
{
    tagTwinSetup stSetup;
    stSetup.ullTick = chance.OneIn(3) ? 0x100000000ull - chance.Below(30000) // the tick wraps soon
                                      : chance.Of({0, 0, 1, 1000, 5000, 0x7FFFFFFF, 0xFFFFFFFF});
    stSetup.nLogLevel = (int)chance.Of({5, 5, 5, 4, 4, 1});
    stSetup.bWithOwner = !chance.OneIn(25);
    stSetup.bGuards = chance.OneIn(2);
    stSetup.dwCompareEvery = chance.OneIn(3) ? chance.Between(2, 40) : 1;

    std::vector<tagTwinCall> vecCalls;
    bool bSame = true;
    std::string strWhat;
    {
        CTwins twins(stSetup);
        CLockstepWorld world(chance, stSetup.ullTick,
                             [&twins](uint64 ullUin, uint8 cSubType) -> size_t
                             {
                                 const auto& mapStreams = twins.Plain().m_mapUinInPkt();
                                 const auto it = mapStreams.find(plain::tagInPktKey(ullUin, cSubType));
                                 return it != mapStreams.end() ? it->second.mapUdtPacket.size() : 0;
                             });
        const auto make = [&](std::vector<tagTwinCall> vecNew)
        {
            for (size_t i = 0; i < vecNew.size() && bSame; ++i)
            {
                vecCalls.push_back(vecNew[i]);
                bSame = twins.Do(vecNew[i]);
            }
        };
        make(world.Begin());
        for (uint32 dwTurn = 0; dwTurn < dwTurns && bSame; ++dwTurn)
        {
            make(world.Turn());
            world.Asked(twins.TakeAsked());
            size_t nDeep = 0;
            for (const auto& stStream : twins.Plain().m_mapUinInPkt())
                nDeep = std::max(nDeep, stStream.second.mapUdtPacket.size());
            stMet.nDeepest = std::max(stMet.nDeepest, nDeep);
            stMet.ullDeepTurns += nDeep >= 500 ? 1 : 0;
            ++stMet.ullTurns;
        }
        tagTwinCall stStop;
        stStop.eCall = CALL_STOP;
        make({stStop});
        bSame = bSame && twins.CompareAll();
        strWhat = twins.What();
        stMet.ullReleases += twins.Releases();
        stMet.ullLines += twins.Lines();
        ++stMet.ullRuns;
        stMet.ullCalls += vecCalls.size();
    }
    if (bSame)
        return;
    const std::vector<tagTwinCall> vecFew =
        Shrink(stSetup, vecCalls, (uint32)FromEnv("UDT_LOCKSTEP_SHRINK", 30));
    std::string strFew = strWhat;
    Replay(stSetup, vecFew, strFew);
    ADD_FAILURE() << "turn " << stMet.ullTurns << ", call " << vecCalls.size() << " of the run: " << strWhat
                  << "\nsmaller: tick " << stSetup.ullTick << ", log level " << stSetup.nLogLevel
                  << ", compared every " << stSetup.dwCompareEvery << " turns"
                  << (stSetup.bWithOwner ? "" : ", no owner") << (stSetup.bGuards ? ", guards" : "") << ", "
                  << vecFew.size() << " calls: " << strFew << "\n"
                  << FewCalls(vecFew);
}

TEST(Lockstep, EveryCallbackLineMemberAndFieldIsThePlainReceivers)
{
    std::random_device device;
    const uint64 ullSeed = FromEnv("UDT_LOCKSTEP_SEED", (uint64)device() << 32 | device());
    const uint64 ullTurns = FromEnv("UDT_LOCKSTEP_TURNS", c_ullTurns);
    printf("seed %" PRIu64 ", %" PRIu64 " turns (UDT_LOCKSTEP_SEED, UDT_LOCKSTEP_TURNS)\n", (uint64_t)ullSeed,
           (uint64_t)ullTurns);
    SCOPED_TRACE(testing::Message() << "UDT_LOCKSTEP_SEED=" << ullSeed);

    CLockstepChance chance(ullSeed);
    tagMet stMet;
    while (stMet.ullTurns < ullTurns && !HasFailure())
    {
        const uint32 dwTurns = chance.OneIn(3) ? chance.Between(20, 300) : chance.Between(300, 3000);
        OneRun(chance, (uint32)std::min<uint64>(dwTurns, ullTurns - stMet.ullTurns), stMet);
    }
    printf("met: %llu runs, %llu turns, %llu calls, %llu releases, %llu lines; deepest buffer %zu, %llu "
           "turns with "
           "500 or more\n",
           stMet.ullRuns, stMet.ullTurns, stMet.ullCalls, stMet.ullReleases, stMet.ullLines, stMet.nDeepest,
           stMet.ullDeepTurns);
}

// More gaps in one interval of the flow count than it keeps apart: every other packet of 40,000, released at once.
TEST(Lockstep, ACombOfMoreGapsThanTheFlowCountKeepsEndsAlike)
{
    for (uint32 dwFirst : {1000u, 0xFFFFFFFFu - 30000})
    {
        std::vector<tagTwinCall> vecCalls(2);
        vecCalls[0].eCall = CALL_START;
        vecCalls[1].eCall = CALL_ROOM;
        vecCalls[1].llValue = 3;
        tagTwinCall stCall;
        stCall.eCall = CALL_FEED;
        const auto feed = [&](uint32 dwSeq)
        {
            stCall.stPacket = AudioPacket(7, dwSeq).At(5000).Down(1);
            vecCalls.push_back(stCall);
        };
        const auto turns = [&](int nTurns)
        {
            tagTwinCall stClock;
            stClock.eCall = CALL_CLOCK;
            stClock.llValue = 300;
            while (nTurns-- > 0)
            {
                vecCalls.push_back(stClock);
                vecCalls.push_back(tagTwinCall());
            }
        };
        for (uint32 i = 0; i < 40000; i += 2)
        {
            feed(dwFirst + i);
            if (i % 10000 == 0)
                turns(1);
        }
        turns(3);
        for (uint32 i = 1; i < 40000; i += 501)
            feed(dwFirst + i);
        turns(12);
        tagTwinSetup stSetup;
        stSetup.nLogLevel = LOG_LEVEL_SDK_INTERFACE;
        std::string strWhat;
        EXPECT_EQ(c_nNoDifference, Replay(stSetup, vecCalls, strWhat)) << strWhat;
    }
}

// ---- Small worlds ----------------------------------------------------------------------------------------------
// A dozen packets of one stream that nobody plays, some of them late, a turn behind every one or two. Every way in
// which a late packet can fall among few others comes up in thousands of them.

tagTwinCall CallOf(emTwinCall eCall, int64 llValue = 0)
{
    tagTwinCall stCall;
    stCall.eCall = eCall;
    stCall.llValue = llValue;
    return stCall;
}

std::vector<tagRigPacket> SmallAudio(CLockstepChance& chance)
{
    std::vector<tagRigPacket> vecPackets;
    uint32 dwSeq = (uint32)chance.Of({1000, 1000, 0xFFFFFFF0});
    uint32 dwMs = 5000;
    const uint32 dwUsual = (uint32)chance.Of({20, 20, 60});
    for (uint32 i = 0; i < 12; ++i)
    {
        vecPackets.push_back(AudioPacket(7, dwSeq).At(dwMs));
        dwSeq += (uint32)chance.Of({1, 1, 1, 1, 1, 2, 3, 256, 257, 512, 513});
        dwMs += chance.OneIn(2) ? dwUsual : (uint32)chance.Of({20, 60, 60, 60, 90, 0, 1, 40});
    }
    return vecPackets;
}

std::vector<tagRigPacket> SmallVideo(CLockstepChance& chance)
{
    std::vector<tagRigPacket> vecPackets;
    uint32 dwSeq = (uint32)chance.Of({1000, 1000, 0xFFFFFFF0});
    uint8 cGopIdx = 0;
    uint8 cFrmIdx = 0;
    while (vecPackets.size() < 18)
    {
        const uint8 cFrmType = (uint8)(chance.OneIn(3) ? def_FrameType_I : def_FrameType_P);
        if (cFrmType == def_FrameType_I && !chance.OneIn(4))
            ++cGopIdx;
        const uint8 cPkgNum = (uint8)chance.Between(1, 7);
        for (uint8 cPkgIdx = 0; cPkgIdx < cPkgNum; ++cPkgIdx)
        {
            vecPackets.push_back(VideoPacket(7, dwSeq, 5000 + cFrmIdx * 40u, cFrmType, cGopIdx, cFrmIdx,
                                             cPkgIdx, chance.OneIn(60) ? 0 : cPkgNum));
            dwSeq += chance.OneIn(40) ? (uint32)chance.Of({2, 5, 102, 256, 300}) : 1;
        }
        ++cFrmIdx;
    }
    return vecPackets;
}

std::vector<tagTwinCall> SmallWorld(CLockstepChance& chance)
{
    std::vector<tagTwinCall> vecCalls = {CallOf(CALL_START), CallOf(CALL_ROOM, 1)};
    tagTwinCall stParams = CallOf(CALL_PARAMS);
    stParams.params.wPushGopNum = (uint16)chance.Below(3);
    vecCalls.push_back(stParams);
    // An owner who sets another push while he is asked for packets, in the middle of a walk.
    for (uint32 dwTimes = (uint32)chance.Of({0, 0, 1, 2, 4}); dwTimes != 0; --dwTimes)
    {
        stParams.eDoor = DOOR_REQUEST;
        stParams.dwDoorCount = chance.Between(1, 5);
        stParams.params.wPushGopNum = (uint16)chance.Below(3);
        vecCalls.push_back(stParams);
    }

    // Each packet comes in its turn, or some places later, or never.
    std::vector<tagRigPacket> vecPackets = chance.OneIn(2) ? SmallAudio(chance) : SmallVideo(chance);
    std::vector<std::pair<uint32, size_t>> vecOrder;
    for (size_t i = 0; i < vecPackets.size(); ++i)
    {
        if (chance.OneIn(12))
            continue;
        vecOrder.emplace_back((uint32)i * 2 + (chance.OneIn(3) ? chance.Below(24) : 0), i);
    }
    std::sort(vecOrder.begin(), vecOrder.end());
    uint32 dwDown = 2;
    for (const std::pair<uint32, size_t>& stPlace : vecOrder)
    {
        tagTwinCall stFeed = CallOf(CALL_FEED);
        stFeed.stPacket = vecPackets[stPlace.second].Down(dwDown++);
        vecCalls.push_back(stFeed);
        for (uint32 dwTurns = (uint32)chance.Of({0, 1, 1, 1, 2, 3}); dwTurns != 0; --dwTurns)
        {
            vecCalls.push_back(CallOf(CALL_CLOCK, 10));
            vecCalls.push_back(CallOf(CALL_TURN));
        }
    }
    for (int nTurns = 0; nTurns < 3; ++nTurns)
        vecCalls.push_back(CallOf(CALL_TURN));
    return vecCalls;
}

TEST(Lockstep, AFewPacketsInEveryOrderEndAlike)
{
    std::random_device device;
    const uint64 ullSeed = FromEnv("UDT_LOCKSTEP_SEED", (uint64)device() << 32 | device());
    const uint64 ullWorlds = FromEnv("UDT_LOCKSTEP_WORLDS", 3000);
    printf("seed %" PRIu64 ", %" PRIu64 " small worlds (UDT_LOCKSTEP_SEED, UDT_LOCKSTEP_WORLDS)\n",
           (uint64_t)ullSeed, (uint64_t)ullWorlds);
    CLockstepChance chance(ullSeed);
    for (uint64 ullWorld = 0; ullWorld < ullWorlds; ++ullWorld)
    {
        const std::vector<tagTwinCall> vecCalls = SmallWorld(chance);
        std::string strWhat;
        if (Replay(tagTwinSetup(), vecCalls, strWhat) == c_nNoDifference)
            continue;
        const std::vector<tagTwinCall> vecFew = Shrink(tagTwinSetup(), vecCalls, 10);
        Replay(tagTwinSetup(), vecFew, strWhat);
        FAIL() << "world " << ullWorld << " of seed " << ullSeed << ": " << strWhat << "\n"
               << FewCalls(vecFew);
    }
}

TEST(Lockstep, TheComparisonSeesEveryFieldOfEveryRecord)
{
    EXPECT_THAT(FieldsNobodyCompares(), testing::IsEmpty());
}

} // namespace
