/**
 * The receiver and the plain one in lock-step on random calls. After every call all that the owners were told is
 * the same: callbacks, requests byte for byte, released packets with their whole record, log lines, returned
 * values. After every turn (in some runs after every n-th, at most 40) so is every member, stream, user, packet
 * and getter.
 *
 * UDT_LOCKSTEP_TURNS sets the turns of the random test (20,000), UDT_LOCKSTEP_SEED the seed (a new one per run).
 * The seed is printed; a failing run is made again with ever fewer calls, and the few that are left are printed.
 */

#include "LockstepWorld.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cinttypes>
#include <cstdlib>

namespace
{

uint64 FromEnv(const char* pszName, uint64 ullElse)
{
    const char* pszValue = getenv(pszName);
    return pszValue != nullptr && *pszValue != 0 ? strtoull(pszValue, nullptr, 0) : ullElse;
}

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
    stSetup.ullTick = chance.Of({1000, 5000, 0, 1, 0xFFFFFFFF}) + chance.Of({0, 0, 3000, 100000}) +
                      (chance.OneIn(4) ? 0xFFFF0000ull : 0);
    stSetup.nLogLevel = (int)chance.Of({5, 5, 5, 4, 4, 1});
    stSetup.bWithOwner = !chance.OneIn(25);
    stSetup.dwCompareEvery = chance.OneIn(3) ? chance.Between(2, 40) : 1;

    std::vector<tagTwinCall> vecCalls;
    bool bSame = true;
    std::string strWhat;
    {
        CTwins twins(stSetup);
        CLockstepWorld world(chance, stSetup.ullTick);
        const auto make = [&](std::vector<tagTwinCall> vecNew)
        {
            for (size_t i = 0; i < vecNew.size() && bSame; ++i)
            {
                vecCalls.push_back(vecNew[i]);
                bSame = twins.Do(vecNew[i]);
            }
        };
        make(world.Begin());
        size_t nDeep = 0;
        for (uint32 dwTurn = 0; dwTurn < dwTurns && bSame; ++dwTurn)
        {
            make(world.Turn(nDeep));
            world.Asked(twins.TakeAsked());
            nDeep = 0;
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
    const std::vector<tagTwinCall> vecFew = Shrink(stSetup, vecCalls, 60);
    std::string strFew = strWhat;
    Replay(stSetup, vecFew, strFew);
    ADD_FAILURE() << "turn " << stMet.ullTurns << ", call " << vecCalls.size() << " of the run: " << strWhat
                  << "\nsmaller: tick " << stSetup.ullTick << ", log level " << stSetup.nLogLevel
                  << ", compared every " << stSetup.dwCompareEvery << " turns"
                  << (stSetup.bWithOwner ? "" : ", no owner") << ", " << vecFew.size() << " calls: " << strFew
                  << "\n"
                  << FewCalls(vecFew);
}

TEST(Lockstep, EveryCallbackLineMemberAndFieldIsThePlainReceivers)
{
    std::random_device device;
    const uint64 ullSeed = FromEnv("UDT_LOCKSTEP_SEED", (uint64)device() << 32 | device());
    const uint64 ullTurns = FromEnv("UDT_LOCKSTEP_TURNS", 20000);
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

TEST(Lockstep, TheComparisonSeesEveryFieldOfEveryRecord)
{
    EXPECT_THAT(FieldsNobodyCompares(), testing::IsEmpty());
}

} // namespace
