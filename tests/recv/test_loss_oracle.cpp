/**
 * The receiver's loss detection, loss requests and failure counts beside the plain walks, in lock-step on
 * random material. Every comparison looks at all fields of every buffered packet, at what the streams
 * remember, at the lines written and at the requests made.
 *
 * UDT_ORACLE_STEPS sets the steps of each test (100,000; 20,000 under a sanitizer), UDT_ORACLE_SEED the seed (a
 * new one per run). The seed is printed; a failing case prints it with its step, and the same seed runs the same
 * way up to there.
 */

#include "PlainLoss.h"
#include "RecvTest.h"
#include "Slow.h"

#include <algorithm>
#include <cinttypes>
#include <deque>
#include <random>

namespace
{

#ifdef UDT_TESTS_SLOW
constexpr uint32 c_dwSteps = 20000;
#else
constexpr uint32 c_dwSteps = 100000;
#endif

// ---- Chance ------------------------------------------------------------------------------------------------

class COracleChance
{
public:
    explicit COracleChance(uint64 ullSeed) : m_rng(ullSeed) {}

    uint64 Word() { return m_rng(); }
    uint32 Below(uint32 dwEnd) { return dwEnd != 0 ? (uint32)(m_rng() % dwEnd) : 0; }
    uint32 Between(uint32 dwFirst, uint32 dwLast) { return dwFirst + Below(dwLast - dwFirst + 1); }
    bool OneIn(uint32 dwN) { return Below(dwN) == 0; }
    uint32 Of(std::initializer_list<uint32> lst) { return *(lst.begin() + Below((uint32)lst.size())); }

private:
    std::mt19937_64 m_rng;
};

struct tagRun
{
    uint64 ullSeed;
    uint32 dwSteps;
};

tagRun NewRun()
{
    std::random_device device;
    const uint64 ullFresh = (uint64)device() << 32 | device();
    const tagRun stRun = {FromEnv("UDT_ORACLE_SEED", ullFresh),
                          (uint32)FromEnv("UDT_ORACLE_STEPS", c_dwSteps)};
    printf("seed %" PRIu64 ", %u steps (UDT_ORACLE_SEED, UDT_ORACLE_STEPS)\n", (uint64_t)stRun.ullSeed,
           stRun.dwSteps);
    return stRun;
}

// ---- Lines -------------------------------------------------------------------------------------------------

// Keeps the lines of the operations that have a plain twin. Level, operation and text are compared; a wrong
// tag or file shows as a text that no twin has.
class CTwinLines
{
public:
    CTwinLines()
    {
        LogSetLevel(LOG_LEVEL_DEBUG);
        LogSetSink(&CTwinLines::Sink, this);
    }
    ~CTwinLines()
    {
        LogSetSink(nullptr, nullptr);
        LogSetLevel(LOG_LEVEL_ERROR);
    }

    std::vector<tagPlainLine> m_vecLines;

private:
    static void Sink(void* pCtx, UDT_LOG_LEVEL eLevel, const char* pTag, const char* pFile, int,
                     const char* pFunc, const char* pText)
    {
        const std::string strFunc = pFunc;
        if (strFunc != "CalcAudLostInfo" && strFunc != "CalcVidLostInfo" && strFunc != "CheckTimeOutNew" &&
            strFunc != "CheckPkgRequestFail")
            return;
        std::string strText = pText;
        if (strText.compare(0, 18, "CheckTimeOut Erase") == 0)
            return; // housekeeping
        if (std::string(pTag) != "CmdCode" || std::string(pFile) != "AVGUDTRecv")
            strText = std::string("[") + pTag + " " + pFile + "] " + strText;
        static_cast<CTwinLines*>(pCtx)->m_vecLines.push_back({(int)eLevel, strFunc, strText});
    }
};

// ---- Comparison ----------------------------------------------------------------------------------------------

testing::AssertionResult SameLines(const std::vector<tagPlainLine>& vecReal,
                                   const std::vector<tagPlainLine>& vecPlain)
{
    if (vecReal == vecPlain)
        return testing::AssertionSuccess();
    testing::AssertionResult result = testing::AssertionFailure();
    result << "lines differ; receiver " << vecReal.size() << ", plain " << vecPlain.size();
    for (size_t i = 0; i < std::max(vecReal.size(), vecPlain.size()); ++i)
    {
        if (i < vecReal.size() && i < vecPlain.size() && vecReal[i] == vecPlain[i])
            continue;
        if (i < vecReal.size())
            result << "\n receiver " << vecReal[i].nLevel << " " << vecReal[i].strFunc << ": "
                   << vecReal[i].strText;
        if (i < vecPlain.size())
            result << "\n plain    " << vecPlain[i].nLevel << " " << vecPlain[i].strFunc << ": "
                   << vecPlain[i].strText;
        break;
    }
    return result;
}

testing::AssertionResult SameRequests(const std::vector<tagRequest>& vecReal,
                                      const std::vector<std::vector<tagPlainAsked>>& vecPlain)
{
    if (vecReal.size() != vecPlain.size())
    {
        return testing::AssertionFailure()
               << "receiver made " << vecReal.size() << " requests, plain " << vecPlain.size();
    }
    for (size_t i = 0; i < vecReal.size(); ++i)
    {
        const tagRequest& stReal = vecReal[i];
        if (stReal.wType != 0 || stReal.nSendCount != 1 || stReal.nUdtV2 != 1)
            return testing::AssertionFailure() << "the event's arguments are wrong";
        if (stReal.vecData.size() != vecPlain[i].size())
        {
            return testing::AssertionFailure()
                   << "request " << i << ": receiver asks for " << stReal.vecData.size() << ", plain for "
                   << vecPlain[i].size();
        }
        for (size_t k = 0; k < stReal.vecData.size(); ++k)
        {
            const tagReplyData& st = stReal.vecData[k];
            if (st.cResult != 0 ||
                !(tagPlainAsked{st.ullUserAccount, st.cSubType, st.dwUserSeq} == vecPlain[i][k]))
            {
                return testing::AssertionFailure()
                       << "request " << i << " entry " << k << ": receiver " << st.ullUserAccount << "/"
                       << (int)st.cSubType << " " << st.dwUserSeq << ", plain " << vecPlain[i][k].ullUin
                       << "/" << (int)vecPlain[i][k].cSubType << " " << vecPlain[i][k].dwSeq;
            }
        }
    }
    return testing::AssertionSuccess();
}

testing::AssertionResult SameStream(const tagUinDataBuf& stReal, const tagPlainStream& stPlain)
{
    if (stReal.dwTimeStampDelta != stPlain.dwTimeStampDelta)
    {
        return testing::AssertionFailure() << "learned step: receiver " << stReal.dwTimeStampDelta
                                           << ", plain " << stPlain.dwTimeStampDelta;
    }
    if (stReal.dwPFrmCnt != stPlain.dwPFrmCnt)
    {
        return testing::AssertionFailure()
               << "P phase: receiver " << stReal.dwPFrmCnt << ", plain " << stPlain.dwPFrmCnt;
    }
    if (stReal.mapRequestSeq != stPlain.mapRequestSeq)
        return testing::AssertionFailure() << "asked-for sequences differ";
    if (stReal.stStatInfo.dwTotalReqFailNum != stPlain.dwTotalReqFailNum)
        return testing::AssertionFailure() << "failed requests differ";
    if (stReal.mapUdtPacket.size() != stPlain.vecPackets.size())
        return testing::AssertionFailure() << "the buffers are not the same size";
    size_t i = 0;
    for (const MapUdtPacket::value_type& stPacket : stReal.mapUdtPacket)
    {
        const tagPlainPacket stCopy = PlainPacket(stPacket.second);
        const tagPlainPacket& stTwin = stPlain.vecPackets[i++];
        if (stPacket.first != stCopy.dwSenderSeq || !(stCopy == stTwin))
            return testing::AssertionFailure()
                   << "\n receiver " << stCopy.Text() << "\n plain    " << stTwin.Text();
    }
    return testing::AssertionSuccess();
}

testing::AssertionResult SameStreams(CRecvRig& rig, const CPlainLoss& plain)
{
    if (rig.m_mapUinInPkt().size() != plain.m_vecStreams.size())
    {
        return testing::AssertionFailure() << "receiver has " << rig.m_mapUinInPkt().size()
                                           << " streams, plain " << plain.m_vecStreams.size();
    }
    size_t i = 0;
    for (const MapUinInPkt::value_type& stStream : rig.m_mapUinInPkt())
    {
        const tagPlainStream& stTwin = plain.m_vecStreams[i++];
        if (stStream.first.ullUserAccount != stTwin.ullUin || stStream.first.cSubType != stTwin.cSubType)
            return testing::AssertionFailure() << "the streams are not the same";
        const testing::AssertionResult result = SameStream(stStream.second, stTwin);
        if (!result)
            return testing::AssertionFailure()
                   << "stream " << stTwin.ullUin << "/" << (int)stTwin.cSubType << ": " << result.message();
    }
    return testing::AssertionSuccess();
}

// Receiver and twin, their lines and requests, compared and emptied together.
struct tagPair
{
    CRecvRig& rig;
    CTwinLines& lines;
    CPlainLoss& plain;

    testing::AssertionResult Same()
    {
        testing::AssertionResult result = SameLines(lines.m_vecLines, plain.m_vecLines);
        if (result)
            result = SameRequests(rig.m_owner.m_vecRequests, plain.m_vecRequests);
        if (result)
            result = SameStreams(rig, plain);
        Forget();
        return result;
    }
    void Forget()
    {
        lines.m_vecLines.clear();
        plain.m_vecLines.clear();
        plain.m_vecRequests.clear();
        rig.m_owner.Forget();
    }
};

// What a run met; a run that never met something proves nothing about it.
struct tagOracleMet
{
    uint64 ullLines[6] = {};
    uint64 ullRequests = 0;
    uint64 ullAsked = 0;

    void Take(const CPlainLoss& plain)
    {
        static const char* const s_aTexts[] = {"Err! pkg",         "audio pkg",
                                               "Pkg num error",    "is bigger than 100",
                                               "There should not", "is larger than 100"};
        for (const tagPlainLine& stLine : plain.m_vecLines)
        {
            for (size_t i = 0; i < 6; ++i)
                ullLines[i] += stLine.strText.find(s_aTexts[i]) != std::string::npos ? 1 : 0;
        }
        ullRequests += plain.m_vecRequests.size();
        for (const std::vector<tagPlainAsked>& vecAsked : plain.m_vecRequests)
            ullAsked += vecAsked.size();
    }
    void Print() const
    {
        printf("met: %llu requests for %llu packets; out of order %llu, steps learned %llu, bad counts %llu, "
               "over "
               "100 across frames %llu, missing users %llu, over 100 in a scan %llu\n",
               ullRequests, ullAsked, ullLines[0], ullLines[1], ullLines[2], ullLines[3], ullLines[4],
               ullLines[5]);
    }
    bool All() const
    {
        return ullRequests != 0 && std::all_of(ullLines, ullLines + 6, [](uint64 n) { return n != 0; });
    }
};

constexpr uint32 c_dwEnoughToMeetAll = 100000; // steps

// ---- Any state -----------------------------------------------------------------------------------------------

uint32 AnySeq(COracleChance& chance)
{
    const uint32 dwNear = chance.Of({0, 1, 0x7FFF, 0x8000, 0xFFFF, 0x7FFFFFFF, 0xFFFFFFFE, 500});
    return chance.OneIn(4) ? (uint32)chance.Word() : dwNear + chance.Below(40) - 20;
}

uint32 AnySeqStep(COracleChance& chance)
{
    if (chance.Below(10) < 6)
        return 1;
    if (chance.Below(10) < 7)
        return chance.Between(2, 9);
    return chance.Of(
        {30, 31, 32, 33, 100, 101, 102, 103, 255, 256, 257, 258, 511, 513, 0x7FFF, 0x8000, 0x8001});
}

// A packet with any fields at all, plausible ones more often.
tagDataPacket AnyPacket(COracleChance& chance, uint64 ullUin, uint8 cSubType, uint32 dwSeq,
                        const tagDataPacket& stPre, uint32 dwNow)
{
    tagDataPacket st = stPre;
    st.dwSenderSeq = dwSeq;
    st.llAccount = ullUin;
    st.cSubType = cSubType;
    st.dwSeq = (uint32)chance.Word();
    st.dwTimeStamp +=
        chance.OneIn(20) ? (uint32)chance.Word() : chance.Of({20, 20, 20, 40, 0, 5, 84, 85, 36});
    st.dwMETimeStamp = chance.OneIn(3) ? 1000 : 990 + chance.Below(21);
    st.dwRecvTime = dwNow - chance.Of({0, 1, 100, 199, 200, 201, 299, 300, 301, 302, 999, 1000, 1001, 5000});
    st.dwLastReqLostTime =
        dwNow - chance.Of({0, 50, 199, 200, 201, 249, 250, 251, 399, 400, 401, 599, 600, 601, 4000});
    if (chance.OneIn(2)) // the next packet of the frame
    {
        st.cPkgIndex = (uint8)(st.cPkgIndex + 1);
    }
    else
    {
        st.cPkgIndex = (uint8)(chance.OneIn(3) ? chance.Below(6) : 0);
        st.cFrmIdx = (uint8)(st.cFrmIdx + chance.Below(3));
        st.cGopIdx = (uint8)(st.cGopIdx + (chance.OneIn(4) ? 1 : 0));
        st.cFrmType = (uint8)chance.Of({0, 0, 0, 1, 1, 2, 3, 4, 5, 6, 255});
        st.cPkgNum = (uint8)(chance.OneIn(20) ? chance.Word() : chance.Between(1, 6));
        st.cFecNum = (uint8)(chance.OneIn(20) ? chance.Word() : chance.Below(3));
    }
    if (chance.OneIn(30))
        st.cPkgIndex = (uint8)chance.Word();
    st.cIsCalcLost = (uint8)(chance.OneIn(3) ? 1 : 0);
    st.cPrePkgLost = (uint8)(chance.OneIn(2) ? 0 : chance.OneIn(5) ? chance.Word() : chance.Below(12));
    st.cFrmLostNum = (uint8)(chance.OneIn(2) ? 0 : chance.Word());
    st.wVidPkgIdxLeft = (uint16)chance.Below(8);
    st.wLostReqCnt = (uint16)(chance.OneIn(20) ? 65535 : chance.Below(5));
    return st;
}

void AnyStream(COracleChance& chance, tagUinDataBuf& stReal, tagPlainStream& stPlain, uint32 dwNow)
{
    stReal.dwTimeStampDelta = stPlain.dwTimeStampDelta = chance.Of({0, 0, 20, 40, 60, 84, 0xFFFFFFFA});
    stReal.dwPFrmCnt = stPlain.dwPFrmCnt = chance.Of({0, 0, 1, 2, 2, 2});
    stReal.dwVidGopCnt = stPlain.dwVidGopCnt = chance.Of({0, 1, 2, 3, 4});

    tagDataPacket st;
    st.dwTimeStamp = chance.OneIn(4) ? (uint32)0 - chance.Below(100) : chance.Below(5000);
    uint32 dwSeq = AnySeq(chance);
    for (uint32 i = chance.Below(chance.OneIn(3) ? 4 : 24); i != 0; --i)
    {
        st = AnyPacket(chance, stPlain.ullUin, stPlain.cSubType, dwSeq, st, dwNow);
        if (stReal.mapUdtPacket.emplace(dwSeq, st).second)
            stPlain.File(PlainPacket(st));
        dwSeq += AnySeqStep(chance);
    }
    for (uint32 i = chance.Below(4); i != 0; --i)
    {
        const uint32 dwAsked = chance.OneIn(4) ? 0 : dwSeq - chance.Below(30);
        const uint32 dwTick = dwNow - chance.Of({0, 1, 2999, 3000, 3001, 5999, 6000, 6001});
        stReal.mapRequestSeq[dwAsked] = stPlain.mapRequestSeq[dwAsked] = dwTick;
    }
}

TEST(LossOracle, FromAnyStateOneWalkOneScanAndOneFailureCheckEqualThePlainOnes)
{
    const tagRun stRun = NewRun();
    COracleChance chance(stRun.ullSeed);
    CRecvRig rig;
    CTwinLines lines;
    tagOracleMet stMet;

    for (uint32 dwStep = 0; dwStep < stRun.dwSteps; ++dwStep)
    {
        SCOPED_TRACE(testing::Message() << "seed " << stRun.ullSeed << " step " << dwStep);
        CPlainLoss plain;
        tagPair pair = {rig, lines, plain};
        rig.m_mapUinInPkt().clear();
        rig.m_mapUinDataInfo().clear();
        rig.ClockAt(chance.OneIn(3) ? chance.Below(3000) : chance.Word() & 0xFFFFFFFF);
        const uint32 dwNow = rig.Now();

        // Settings and the scan's own ticks.
        rig.m_dwServPushGopNum() = plain.m_dwServPushGopNum = chance.Of({0, 1, 2, 2, 2, 3});
        rig.m_dwUdtFirstReGetTime() = plain.m_dwFirstGetTime = chance.Of({200, 300, 300, 1000});
        rig.m_dwUdtlossDataRequestInterval() = plain.m_dwRequestInterval =
            chance.Of({100, 200, 250, 400, 600, 1000});
        rig.m_dwRTT() = plain.m_dwRTT = chance.Of({0, 50, 200, 399, 400, 401, 600, 5000});
        rig.m_dwTimelineDeltaMax() = plain.m_dwTimelineDeltaMax = chance.Of({3000, 6000});
        plain.m_bRequestsOn = !chance.OneIn(8);
        rig.m_bEnableReGetPkg() = (boolean)(plain.m_bRequestsOn ? 1 : 0);
        rig.m_dwLastCheckPkgTimeoutTime() = plain.m_dwLastScan =
            chance.OneIn(10) ? 0 : dwNow - chance.Of({49, 50, 50, 50, 51, 5000});
        rig.m_dwCheckLossParamTime() = plain.m_dwWarmUpStart =
            chance.OneIn(10) ? 0 : dwNow - chance.Of({0, 1999, 2000, 2001});
        rig.m_dwLossParamSetFlag() = plain.m_dwWarmUpOver = chance.Below(2);
        rig.m_dwLastCheckPkgRqFailTime() = plain.m_dwLastFailCheck =
            chance.OneIn(10) ? 0 : dwNow - chance.Of({4000, 4001, 4001, 4002});
        rig.m_dwLastCheckTimeout() = dwNow; // no housekeeping

        // Streams and buffers.
        for (uint32 i = chance.Between(1, 4); i != 0; --i)
        {
            const uint64 ullUin = chance.Of({7, 8, 9});
            const uint8 cSubType = (uint8)chance.Of({1, 1, 2, 2, 3, 7, 6, 4});
            if (rig.Stream(ullUin, cSubType) != nullptr)
                continue;
            AnyStream(chance, rig.m_mapUinInPkt()[tagInPktKey(ullUin, cSubType)],
                      plain.Stream(ullUin, cSubType), dwNow);
            if (!chance.OneIn(20))
            {
                rig.m_mapUinDataInfo()[ullUin].dwTimelineOut = 1000;
                plain.m_mapTimelineOut[ullUin] = 1000;
            }
        }
        ASSERT_TRUE(SameStreams(rig, plain)) << "the copies differ to begin with";

        // The walks: what they return counts as well.
        for (tagPlainStream& stTwin : plain.m_vecStreams)
        {
            tagUinDataBuf& stReal = *rig.Stream(stTwin.ullUin, stTwin.cSubType);
            if (stTwin.cSubType == MEAVAudio)
            {
                ASSERT_EQ(rig.CalcAudLostInfo(stReal), plain.WalkAudio(stTwin));
            }
            else if (stTwin.cSubType == MEAVMaxVideo || stTwin.cSubType == MEAVMinVideo ||
                     stTwin.cSubType == MEAVSubVideo)
            {
                ASSERT_EQ(rig.CalcVidLostInfo(stReal), plain.WalkVideo(stTwin));
            }
        }
        stMet.Take(plain);
        ASSERT_TRUE(pair.Same()) << "after the walks";

        rig.CheckTimeOutNew();
        plain.Scan(dwNow);
        stMet.Take(plain);
        ASSERT_TRUE(pair.Same()) << "after the scan";
        ASSERT_EQ(rig.m_dwLastCheckPkgTimeoutTime(), plain.m_dwLastScan);
        ASSERT_EQ(rig.m_dwCheckLossParamTime(), plain.m_dwWarmUpStart);
        ASSERT_EQ(rig.m_dwLossParamSetFlag(), plain.m_dwWarmUpOver);

        rig.CheckPkgRequestFail(dwNow);
        plain.CheckFailed(dwNow);
        ASSERT_TRUE(pair.Same()) << "after the failure check";
        ASSERT_EQ(rig.m_dwLastCheckPkgRqFailTime(), plain.m_dwLastFailCheck);
    }
    stMet.Print();
    EXPECT_TRUE(stMet.All() || stRun.dwSteps < c_dwEnoughToMeetAll)
        << "seed " << stRun.ullSeed << ": the material was too tame";
}

// ---- Calls ---------------------------------------------------------------------------------------------------

// One sender's stream: numbers packets and frames, now and then with a hiccup.
struct tagWildSender
{
    uint64 ullUin = 0;
    uint8 cSubType = 0;
    uint32 dwSeq = 0;
    uint32 dwMediaMs = 0;
    uint8 cGopIdx = 0;
    uint8 cFrmIdx = 0;
    uint32 dwFramesLeft = 0; ///< of the GOP
    uint64 ullNextTick = 0;
    uint32 dwBurst = 0; ///< packets still to be lost in a row
};

struct tagInFlight
{
    uint64 ullTick;
    tagRigPacket stPacket;
};

// A call over a bad network: random streams, losses in bursts, delay, repeats, answers to requests, and packets
// that no sane sender would send.
class CWildCall
{
public:
    CWildCall(COracleChance& chance, uint64 ullTick) : m_chance(chance)
    {
        m_dwLossPercent = chance.Of({0, 1, 5, 20, 50});
        m_dwDelayMs = chance.Of({0, 20, 150, 600});
        m_dwAnswerPercent = chance.Of({0, 60, 100});
        m_bHiccups = !chance.OneIn(3);
        const uint32 dwUsers = chance.Between(1, 3);
        for (uint32 i = 0; i < dwUsers; ++i)
        {
            const uint32 dwMedia =
                chance.OneIn(4) ? 0xFFFFFFFF - chance.Below(20000) : 60000 + chance.Below(1000);
            for (uint8 cSubType : {1, 2, 3, 7, 6})
            {
                if (!chance.OneIn(cSubType <= 2 ? 2 : 5))
                    continue;
                tagWildSender stSender;
                stSender.ullUin = 7 + i * 5000000000ull;
                stSender.cSubType = cSubType;
                stSender.dwSeq = AnySeq(chance);
                stSender.dwMediaMs = dwMedia;
                stSender.ullNextTick = ullTick + chance.Below(200);
                m_vecSenders.push_back(stSender);
            }
        }
    }

    // The packets that arrive now.
    std::vector<tagRigPacket> Arrivals(uint64 ullTick)
    {
        for (tagWildSender& stSender : m_vecSenders)
        {
            while (stSender.ullNextTick <= ullTick)
                Send(stSender);
        }
        std::vector<tagRigPacket> vecArrived;
        for (size_t i = 0; i < m_vecInFlight.size();)
        {
            if (m_vecInFlight[i].ullTick > ullTick)
            {
                ++i;
                continue;
            }
            vecArrived.push_back(m_vecInFlight[i].stPacket);
            m_vecInFlight[i] = m_vecInFlight.back();
            m_vecInFlight.pop_back();
        }
        if (m_chance.OneIn(2))
        {
            for (size_t i = vecArrived.size(); i > 1; --i)
                std::swap(vecArrived[i - 1], vecArrived[m_chance.Below((uint32)i)]);
        }
        return vecArrived;
    }

    void Answer(uint64 ullTick, const tagRequest& stRequest)
    {
        for (const tagReplyData& stData : stRequest.vecData)
        {
            if (m_chance.Below(100) >= m_dwAnswerPercent)
                continue;
            for (size_t i = 0; i < m_deqLost.size(); ++i)
            {
                const tagRigPacket& stLost = m_deqLost[i];
                if (stLost.ullUin != stData.ullUserAccount || stLost.cSubType != stData.cSubType ||
                    stLost.dwSendSeq != stData.dwUserSeq)
                    continue;
                m_vecInFlight.push_back({ullTick + m_chance.Below(200), stLost});
                if (m_chance.OneIn(2)) // else a second request has a second answer
                    m_deqLost.erase(m_deqLost.begin() + (long)i);
                break;
            }
        }
    }

private:
    void Send(tagWildSender& stSender)
    {
        if (stSender.cSubType == MEAVAudio)
        {
            tagRigPacket stPacket = AudioPacket(stSender.ullUin, stSender.dwSeq++).At(stSender.dwMediaMs);
            stSender.dwMediaMs += 20;
            stSender.ullNextTick += 20;
            Launch(stSender, stPacket);
        }
        else
        {
            SendFrame(stSender);
        }
        if (!m_bHiccups)
            return;
        if (m_chance.OneIn(400))
            stSender.dwBurst = m_chance.Of({3, 30, 120, 300}); // an outage
        if (m_chance.OneIn(1500))
            stSender.dwSeq += m_chance.Of({2, 90, 150, 260, 0x7FFE, 0x7FFF, 0x8000, 40000});
        if (m_chance.OneIn(1500))
            stSender.dwMediaMs += m_chance.Of({1000, 7000, (uint32)-3000, 40000});
    }

    void SendFrame(tagWildSender& stSender)
    {
        uint8 cFrmType = def_FrameType_P;
        if (stSender.dwFramesLeft == 0)
        {
            stSender.dwFramesLeft = m_chance.Between(3, 40);
            stSender.cGopIdx = (uint8)(stSender.cGopIdx + 1);
            stSender.cFrmIdx = 0;
            cFrmType = (uint8)(m_chance.OneIn(10) ? def_FrameType_GF : def_FrameType_I);
        }
        else if (m_chance.OneIn(8))
        {
            cFrmType = (uint8)m_chance.Of({2, 3, 5, 6});
        }
        stSender.dwFramesLeft -= 1;
        const uint8 cPkgNum =
            (uint8)(cFrmType == def_FrameType_I ? m_chance.Between(2, 12) : m_chance.Between(1, 4));
        const uint8 cFecNum = (uint8)(m_chance.OneIn(3) ? m_chance.Between(1, 3) : 0);
        for (uint8 i = 0; i < cPkgNum + cFecNum; ++i)
        {
            tagRigPacket stPacket =
                VideoPacket(stSender.ullUin, stSender.dwSeq++, stSender.dwMediaMs, cFrmType, stSender.cGopIdx,
                            stSender.cFrmIdx, i, cPkgNum, stSender.cSubType)
                    .Fec(cFecNum);
            if (m_bHiccups && m_chance.OneIn(700))
                stPacket.stHead.cTotalPkgCount = (uint8)m_chance.Of({0, 1, 255});
            Launch(stSender, stPacket);
        }
        stSender.cFrmIdx = (uint8)(stSender.cFrmIdx + 1);
        stSender.dwMediaMs += 40;
        stSender.ullNextTick += 40;
    }

    void Launch(tagWildSender& stSender, const tagRigPacket& stPacket)
    {
        const bool bBurst = stSender.dwBurst != 0;
        if (bBurst)
            --stSender.dwBurst;
        if (bBurst || m_chance.Below(100) < m_dwLossPercent)
        {
            m_deqLost.push_back(stPacket);
            if (m_deqLost.size() > 200)
                m_deqLost.pop_front();
            return;
        }
        for (int i = m_chance.OneIn(50) ? 2 : 1; i != 0; --i)
            m_vecInFlight.push_back({stSender.ullNextTick + m_chance.Below(m_dwDelayMs + 1), stPacket});
    }

    COracleChance& m_chance;
    uint32 m_dwLossPercent;
    uint32 m_dwDelayMs;
    uint32 m_dwAnswerPercent;
    bool m_bHiccups;
    std::vector<tagWildSender> m_vecSenders;
    std::vector<tagInFlight> m_vecInFlight;
    std::deque<tagRigPacket> m_deqLost;
};

// Files in the twin what the receiver has filed, and takes out what has left it. A packet is told by its downlink
// sequence, its content is what was fed. False: the receiver holds what nobody fed.
bool FollowBuffers(CRecvRig& rig, CPlainLoss& plain, const std::map<uint32, tagPlainPacket>& mapFed)
{
    for (size_t i = 0; i < plain.m_vecStreams.size();)
    {
        const tagPlainStream& st = plain.m_vecStreams[i];
        if (rig.Stream(st.ullUin, st.cSubType) == nullptr)
            plain.m_vecStreams.erase(plain.m_vecStreams.begin() + (long)i);
        else
            ++i;
    }
    for (const MapUinInPkt::value_type& stStream : rig.m_mapUinInPkt())
    {
        const MapUdtPacket& mapReal = stStream.second.mapUdtPacket;
        tagPlainStream& stTwin = plain.Stream(stStream.first.ullUserAccount, stStream.first.cSubType);
        std::vector<tagPlainPacket> vecNow;
        vecNow.reserve(mapReal.size());
        std::vector<tagPlainPacket>::const_iterator itTwin = stTwin.vecPackets.begin();
        for (const MapUdtPacket::value_type& stPacket : mapReal)
        {
            while (itTwin != stTwin.vecPackets.end() && itTwin->dwSenderSeq < stPacket.first)
                ++itTwin;
            if (itTwin != stTwin.vecPackets.end() && itTwin->dwId == stPacket.second.dwSeq)
            {
                vecNow.push_back(*itTwin);
                continue;
            }
            const std::map<uint32, tagPlainPacket>::const_iterator itFed = mapFed.find(stPacket.second.dwSeq);
            if (itFed == mapFed.end() || itFed->second.dwSenderSeq != stPacket.first)
                return false;
            vecNow.push_back(itFed->second);
        }
        stTwin.vecPackets.swap(vecNow);
        stTwin.dwVidGopCnt = stStream.second.dwVidGopCnt;
    }
    return true;
}

tagPlainPacket AsFed(const tagRigPacket& stPacket, uint32 dwId, uint32 dwNow)
{
    tagPlainPacket st;
    st.dwId = dwId;
    st.dwSenderSeq = stPacket.dwSendSeq;
    st.dwTimeStamp = stPacket.stHead.uTimeStamp;
    st.dwMETimeStamp = stPacket.stHead.uTimeStamp;
    st.ullUin = stPacket.ullUin;
    st.cSubType = stPacket.cSubType;
    st.dwRecvTime = dwNow;
    st.cGopIdx = stPacket.stHead.cGopIndex;
    st.cFrmIdx = stPacket.stHead.cFrameIndex;
    st.cPkgIndex = stPacket.stHead.cPkgIndex;
    st.cFrmType = stPacket.stHead.cFrmType;
    st.cPkgNum = stPacket.stHead.cTotalPkgCount;
    st.cFecNum = stPacket.stHead.cFecPkgCount;
    return st;
}

// One call from Start to end, turn by turn. Returns the steps made; stops at the first difference.
void RunCall(COracleChance& chance, uint64 ullSeed, uint32 dwFirstStep, uint32 dwSteps, tagOracleMet& stMet)
{
    const uint64 ullStart = chance.OneIn(2) ? 1000 + chance.Below(5000)
                                            : 0x100000000ull - chance.Below(3000); // the tick wraps soon
    CRecvRig rig(ullStart);
    CTwinLines lines;
    CPlainLoss plain;
    tagPair pair = {rig, lines, plain};

    tagUDTRecvParams params;
    params.wFirstGetTime = (uint16)chance.Of({0, 200, 300, 1000});
    params.wNextGetTime = (uint16)chance.Of({0, 100, 200, 600});
    params.wQueuePeriod = (uint16)chance.Of({0, 2000, 6000});
    params.wTimelineDelta = (uint16)chance.Of({0, 100, 1000});
    params.wPushGopNum = (uint16)chance.Of({0, 1, 2, 2, 2, 3});
    params.wUdtMode = (uint16)chance.Below(2);
    rig.Start();
    rig.m_recv.UDTSetRecvParams(params);
    if (!chance.OneIn(3))
        rig.m_recv.SetRoomState(3);

    CWildCall call(chance, ullStart);
    std::map<uint32, tagPlainPacket> mapFed; // by downlink sequence, of the last turn
    uint32 dwNextId = 2;
    for (uint32 dwStep = 0; dwStep < dwSteps; ++dwStep)
    {
        SCOPED_TRACE(testing::Message() << "seed " << ullSeed << " step " << dwFirstStep + dwStep);
        rig.Advance(chance.OneIn(50) ? chance.Of({1, 49, 50, 51, 120, 400, 2001, 4001})
                                     : chance.Of({10, 10, 10, 11, 13, 5}));
        const uint32 dwNow = rig.Now();

        // The owner turns a knob now and then.
        if (chance.OneIn(300))
            rig.m_recv.UDTSetRecvRTT(chance.Of({0, 30, 300, 900}));
        if (chance.OneIn(300))
            rig.m_recv.UDTEnableReGetPkg((boolean)chance.Of({0, 1, 1}));
        plain.m_dwServPushGopNum = rig.m_dwServPushGopNum();
        plain.m_dwFirstGetTime = rig.m_dwUdtFirstReGetTime();
        plain.m_dwRequestInterval = rig.m_dwUdtlossDataRequestInterval();
        plain.m_dwRTT = rig.m_dwRTT();
        plain.m_dwTimelineDeltaMax = rig.m_dwTimelineDeltaMax();
        plain.m_bRequestsOn = rig.m_bEnableReGetPkg() != 0;
        pair.Forget();

        // Intake and walks. Clearing comes behind the walks; a turn that clears is fed nothing, so what the
        // walks see is what was there before.
        mapFed.clear();
        const bool bClears = chance.OneIn(1500);
        if (bClears)
        {
            rig.m_recv.ClearRecvChn(chance.Of({0, 7}), chance.Of({1, 2, 3, 0xFF}));
        }
        else
        {
            for (tagRigPacket& stPacket : call.Arrivals(rig.m_clock.Tick()))
            {
                rig.Feed(stPacket.Down(dwNextId));
                mapFed[dwNextId] = AsFed(stPacket, dwNextId, dwNow);
                ++dwNextId;
                plain.Stream(stPacket.ullUin, stPacket.cSubType).mapRequestSeq.erase(stPacket.dwSendSeq);
            }
        }
        rig.Deliver();
        if (bClears)
            plain.WalkAll();
        ASSERT_TRUE(FollowBuffers(rig, plain, mapFed));
        if (!bClears)
            plain.WalkAll();
        stMet.Take(plain);
        for (const tagRequest& stRequest : rig.m_owner.m_vecRequests)
            call.Answer(rig.m_clock.Tick(), stRequest);
        ASSERT_TRUE(pair.Same()) << "after the walks";

        rig.OutPacket();
        ASSERT_TRUE(FollowBuffers(rig, plain, mapFed));

        // A user in the middle of being torn down.
        if (chance.OneIn(500) && !rig.m_mapUinDataInfo().empty())
            rig.m_mapUinDataInfo().erase(rig.m_mapUinDataInfo().begin());
        plain.m_mapTimelineOut.clear();
        for (const MapUinDataInfo::value_type& stUser : rig.m_mapUinDataInfo())
            plain.m_mapTimelineOut[stUser.first] = stUser.second.dwTimelineOut;
        rig.CheckTimeOutNew();
        plain.Scan(dwNow);
        ASSERT_TRUE(FollowBuffers(rig, plain, mapFed)); // streams that fell silent
        stMet.Take(plain);
        for (const tagRequest& stRequest : rig.m_owner.m_vecRequests)
            call.Answer(rig.m_clock.Tick(), stRequest);
        ASSERT_TRUE(pair.Same()) << "after the scan";

        rig.CalcStatInfo();
        plain.CheckFailed(dwNow);
        ASSERT_TRUE(pair.Same()) << "after the failure check";
    }
}

TEST(LossOracle, EveryTurnOfWildCallsMarksAsksAndWritesLikeThePlainWalks)
{
    const tagRun stRun = NewRun();
    COracleChance chance(stRun.ullSeed);
    tagOracleMet stMet;
    for (uint32 dwStep = 0; dwStep < stRun.dwSteps;)
    {
        const uint32 dwSteps = std::min(chance.Between(200, 2000), stRun.dwSteps - dwStep);
        RunCall(chance, stRun.ullSeed, dwStep, dwSteps, stMet);
        if (HasFatalFailure())
            return;
        dwStep += dwSteps;
    }
    stMet.Print();
    EXPECT_TRUE(stMet.All() || stRun.dwSteps < c_dwEnoughToMeetAll)
        << "seed " << stRun.ullSeed << ": the calls were too tame";
}

} // namespace
