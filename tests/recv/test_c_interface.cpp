// The C interface: records that grow, errors, the clock of a thread, and that it is the same receiver.
#include "udtrecv.h"

#include "RecvTest.h"
#include "xpmess.h"

#include <cstring>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace
{
constexpr uint64 c_ullAccount = 7;

udt_packet AudioOfC(uint32 dwSeq, uint32 dwMediaMs)
{
    udt_packet stPacket = {};
    stPacket.size = sizeof(stPacket);
    stPacket.sub_type = UDT_AUDIO;
    stPacket.account = c_ullAccount;
    stPacket.sender_seq = dwSeq;
    stPacket.down_seq = dwSeq + 1;
    stPacket.media_ms = dwMediaMs;
    stPacket.transport_ms = (uint16_t)dwMediaMs;
    return stPacket;
}

// What came out and what was asked for, in order.
struct tagRecorder
{
    struct tagOut
    {
        uint32 dwTick, dwSeq, dwLostBefore, dwArrival;
        std::string strData;
        uint64 ullUser;
    };
    std::vector<tagOut> vecOut;
    std::vector<std::pair<uint32, uint32>> vecRequest; // tick, sequence
    int nPlayDelay = 0;

    static void Output(void* pContext, const udt_output* pstOut, int32_t* pnPlayDelay)
    {
        tagRecorder* p = (tagRecorder*)pContext;
        p->vecOut.push_back({pstOut->release_tick, pstOut->sender_seq, pstOut->lost_before,
                             pstOut->arrival_tick, std::string((const char*)pstOut->data, pstOut->bytes),
                             pstOut->user});
        *pnPlayDelay = p->nPlayDelay;
    }
    static void Request(void* pContext, const udt_request* pstRequest, uint32_t dwCount)
    {
        for (uint32 i = 0; i < dwCount; ++i)
            ((tagRecorder*)pContext)->vecRequest.push_back({(uint32)udt_clock_now(), pstRequest[i].user_seq});
    }
    udt_callbacks Calls() const
    {
        udt_callbacks stCalls = {};
        stCalls.size = sizeof(stCalls);
        stCalls.output = Output;
        stCalls.request = Request;
        return stCalls;
    }
};

// An owner-driven receiver by the C interface. The thread's clock is the real one again when it goes.
struct CCRig
{
    tagRecorder m_recorder;
    udt_recv* m_pRecv;

    explicit CCRig(uint64 ullTick)
    {
        udt_clock_set(ullTick);
        const udt_callbacks stCalls = m_recorder.Calls();
        m_pRecv = udt_recv_create(&stCalls, &m_recorder, UDT_OWNER_DRIVEN);
        udt_recv_set_room_state(m_pRecv, UDT_ROOM_PLAYS);
        udt_recv_start(m_pRecv);
    }
    ~CCRig()
    {
        udt_recv_destroy(m_pRecv);
        udt_clock_real();
        xp_settickcountsource(nullptr, nullptr);
    }
    CCRig(const CCRig&) = delete;
    CCRig& operator=(const CCRig&) = delete;
};
} // namespace

TEST(CInterface, ReleasesAndRequestsAreThoseOfTheReceiver)
{
    const std::vector<uint32> vecSeq = {10, 11, 12, 15, 16, 17, 18, 19}; // 13 and 14 are lost
    std::vector<std::pair<uint32, uint32>> vecWantOut, vecWantRequest, vecGotOut;
    {
        CRecvRig rig(1000);
        rig.StartPlaying();
        for (const uint32 dwSeq : vecSeq)
        {
            rig.Feed(AudioPacket(c_ullAccount, dwSeq));
            rig.TurnsUntil(rig.Now() + 10);
            rig.Advance(10);
        }
        rig.TurnsUntil(4000);
        for (const tagRelease& stRelease : rig.m_owner.m_vecReleases)
            vecWantOut.push_back({stRelease.dwTick, stRelease.dwSendSeq});
        for (const tagRequest& stRequest : rig.m_owner.m_vecRequests)
            for (const tagReplyData& stData : stRequest.vecData)
                vecWantRequest.push_back({stRequest.dwTick, stData.dwUserSeq});
    }

    CCRig rig(1000);
    size_t nNext = 0;
    for (uint64 ullTick = 1000; ullTick <= 4000; ullTick += 10)
    {
        udt_clock_set(ullTick);
        if (ullTick % 20 == 0 && nNext < vecSeq.size())
        {
            const udt_packet stPacket =
                AudioOfC(vecSeq[nNext], c_dwRigMediaBase + c_dwRigAudioStep * vecSeq[nNext]);
            ++nNext;
            EXPECT_EQ(UDT_OK, udt_recv_feed(rig.m_pRecv, &stPacket));
        }
        EXPECT_EQ(UDT_OK, udt_recv_run_turn(rig.m_pRecv));
    }
    for (const tagRecorder::tagOut& stOut : rig.m_recorder.vecOut)
        vecGotOut.push_back({stOut.dwTick, stOut.dwSeq});

    EXPECT_EQ(8u, vecGotOut.size());
    EXPECT_EQ(vecWantOut, vecGotOut);
    EXPECT_FALSE(vecWantRequest.empty());
    EXPECT_EQ(vecWantRequest, rig.m_recorder.vecRequest);
    EXPECT_EQ(2u, rig.m_recorder.vecOut[3].dwLostBefore) << "13 and 14 never came";
    EXPECT_EQ(1060u, rig.m_recorder.vecOut[3].dwArrival);
}

TEST(CInterface, BytesAreCopiedAndComeBackWithTheOwnersWord)
{
    CCRig rig(1000);
    {
        std::string strData = "sound";
        udt_packet stPacket = AudioOfC(1, 5000);
        stPacket.data = strData.data();
        stPacket.bytes = (uint32)strData.size();
        stPacket.user = 0x123456789ABCDEFull;
        EXPECT_EQ(UDT_OK, udt_recv_feed(rig.m_pRecv, &stPacket));
        strData.assign("gone!");
    }
    for (uint64 ullTick = 1000; ullTick < 2000; ullTick += 10)
        udt_recv_run_turn_at(rig.m_pRecv, ullTick);
    ASSERT_EQ(1u, rig.m_recorder.vecOut.size());
    EXPECT_EQ("sound", rig.m_recorder.vecOut[0].strData);
    EXPECT_EQ(0x123456789ABCDEFull, rig.m_recorder.vecOut[0].ullUser);
}

TEST(CInterface, ThePlayDelayReachesTheReceiver)
{
    uint32 dwLast[2] = {};
    for (const int nDelay : {0, 100})
    {
        CCRig rig(1000);
        rig.m_recorder.nPlayDelay = nDelay;
        for (uint64 ullTick = 1000; ullTick < 4000; ullTick += 10)
        {
            udt_clock_set(ullTick);
            if (ullTick % 20 == 0 && ullTick < 2000)
            {
                const udt_packet stPacket = AudioOfC((uint32)(ullTick / 20), (uint32)ullTick);
                udt_recv_feed(rig.m_pRecv, &stPacket);
            }
            udt_recv_run_turn(rig.m_pRecv);
        }
        ASSERT_EQ(50u, rig.m_recorder.vecOut.size());
        dwLast[nDelay != 0 ? 1 : 0] = rig.m_recorder.vecOut.back().dwTick;
    }
    EXPECT_LE(dwLast[1] + 100, dwLast[0]) << "100 ms of media earlier";
}

// A caller that was compiled with a larger record than the library knows: its head is filled, its tail is zeroed.
TEST(CInterface, ALargerRecordOfALaterHeaderIsFilledAsFarAsItIsKnown)
{
    CCRig rig(1000);
    const udt_packet stPacket = AudioOfC(1, 5000);
    udt_recv_feed(rig.m_pRecv, &stPacket);
    udt_recv_run_turn(rig.m_pRecv);

    struct
    {
        udt_info stInfo;
        uint32 dwLater;
    } stLater;
    std::memset(&stLater, 0xAA, sizeof(stLater));
    stLater.stInfo.size = sizeof(stLater);
    EXPECT_EQ(UDT_OK, udt_recv_get_info(rig.m_pRecv, &stLater.stInfo));
    EXPECT_EQ(sizeof(stLater), stLater.stInfo.size);
    EXPECT_EQ(1u, stLater.stInfo.streams);
    EXPECT_EQ(0u, stLater.dwLater);

    struct tagLaterStream
    {
        udt_stream stStream;
        uint64 ullLater;
    } aLater[2];
    std::memset(aLater, 0xAA, sizeof(aLater));
    aLater[0].stStream.size = sizeof(tagLaterStream);
    udt_packet stVideo = AudioOfC(1, 5000);
    stVideo.sub_type = UDT_BIG_VIDEO;
    udt_recv_feed(rig.m_pRecv, &stVideo);
    udt_recv_run_turn(rig.m_pRecv);
    uint32 dwFilled = 0;
    EXPECT_EQ(UDT_OK, udt_recv_get_streams(rig.m_pRecv, &aLater[0].stStream, 2, &dwFilled));
    ASSERT_EQ(2u, dwFilled);
    EXPECT_EQ((uint32)UDT_AUDIO, aLater[0].stStream.sub_type);
    EXPECT_EQ((uint32)UDT_BIG_VIDEO, aLater[1].stStream.sub_type);
    EXPECT_EQ(c_ullAccount, aLater[1].stStream.account);
    EXPECT_EQ(0u, aLater[0].ullLater);
    EXPECT_EQ(0u, aLater[1].ullLater);
}

TEST(CInterface, ErrorsAreResultsWithAText)
{
    CCRig rig(1000);
    udt_packet stPacket = AudioOfC(1, 5000);
    EXPECT_EQ(UDT_E_ARGUMENT, udt_recv_feed(nullptr, &stPacket));
    EXPECT_EQ(UDT_E_ARGUMENT, udt_recv_feed(rig.m_pRecv, nullptr));
    stPacket.bytes = 1; // and no data
    EXPECT_EQ(UDT_E_ARGUMENT, udt_recv_feed(rig.m_pRecv, &stPacket));
    stPacket.bytes = 0;
    stPacket.sub_type = 256;
    EXPECT_EQ(UDT_E_ARGUMENT, udt_recv_feed(rig.m_pRecv, &stPacket));
    stPacket.size = 0;
    EXPECT_EQ(UDT_E_SIZE, udt_recv_feed(rig.m_pRecv, &stPacket));

    udt_info stInfo = {};
    EXPECT_EQ(UDT_E_SIZE, udt_recv_get_info(rig.m_pRecv, &stInfo));
    udt_playout stPlayout = {};
    stPlayout.size = sizeof(stPlayout);
    EXPECT_EQ(UDT_E_NOT_FOUND, udt_recv_get_playout(rig.m_pRecv, 99, &stPlayout));
    EXPECT_EQ(UDT_E_ARGUMENT, udt_recv_get_streams(rig.m_pRecv, nullptr, 1, nullptr));
    EXPECT_EQ(UDT_OK, udt_recv_get_streams(rig.m_pRecv, nullptr, 0, nullptr));
    EXPECT_EQ(UDT_E_ARGUMENT, udt_recv_start(nullptr));
    EXPECT_EQ(UDT_E_ARGUMENT, udt_log_set(nullptr, nullptr, -1));
    udt_recv_destroy(nullptr);

    udt_callbacks stCalls = {}; // no size
    EXPECT_EQ(nullptr, udt_recv_create(&stCalls, nullptr, 0));
    EXPECT_EQ(nullptr, udt_recv_create(nullptr, nullptr, 2)) << "a flag of a later library";

    udt_recv* pThreaded = udt_recv_create(nullptr, nullptr, 0);
    EXPECT_EQ(UDT_E_STATE, udt_recv_run_turn(pThreaded));
    udt_recv_destroy(pThreaded);

    for (int nResult = UDT_E_NOT_FOUND; nResult <= UDT_OK; ++nResult)
        EXPECT_NE(std::string("not a result of udtrecv"), udt_result_text(nResult));
}

TEST(CInterface, SettingsReachTheReceiverAndItsGetters)
{
    CLogRecorder log;
    CCRig rig(1000);
    udt_params stParams = {};
    stParams.size = sizeof(stParams);
    stParams.buffer_max_ms = 2000;
    stParams.buffer_min_ms = 300;
    stParams.first_request_ms = 250;
    stParams.next_request_ms = 150;
    stParams.loss_period_ms = 7000;
    stParams.output_delay_ms = 40;
    stParams.server_delay_ms = 60;
    stParams.mode = UDT_MODE_LOW_LATENCY;
    stParams.push_gops = 3;
    EXPECT_EQ(UDT_OK, udt_recv_set_params(rig.m_pRecv, &stParams));
    EXPECT_EQ(
        "UDTRSetRecvParams FirstReGetTime 250 250 RequestInterval 150 150 TimelineDeltaMax 2000 2000 "
        "TimelineDelta 300 300 RTT 0 CalcTimer 7000 7000 OutDelay 40 40 MinDelay 60 60 Mode 1 1 PushGopN 3 3",
        log.First("UDTRSetRecvParams"));
    EXPECT_EQ(UDT_OK, udt_recv_set_rtt(rig.m_pRecv, 400));
    EXPECT_EQ(1u, log.Count("SetRecvRTT dwRTT:400"));
    EXPECT_EQ(UDT_OK, udt_recv_enable_requests(rig.m_pRecv, 0));
    EXPECT_EQ(1u, log.Count("UDTR EnableReGetPkg bEnable[0]"));
    EXPECT_EQ(UDT_OK, udt_recv_clear(rig.m_pRecv, 7, UDT_AUDIO));
    EXPECT_EQ(1u, log.Count("ClearRecvChn: uin 7 IsClearAll 1"));

    udt_downlink stDownlink = {};
    stDownlink.size = sizeof(stDownlink);
    for (const uint32 dwSeq : {10u, 11u, 13u})
    {
        const udt_packet stPacket = AudioOfC(dwSeq, 5000 + 20 * dwSeq);
        udt_recv_feed(rig.m_pRecv, &stPacket);
    }
    EXPECT_EQ(UDT_OK, udt_recv_get_downlink(rig.m_pRecv, &stDownlink));
    EXPECT_EQ(4u, stDownlink.expected);
    EXPECT_EQ(3u, stDownlink.received);
    udt_info stInfo = {};
    stInfo.size = sizeof(stInfo);
    EXPECT_EQ(UDT_OK, udt_recv_get_info(rig.m_pRecv, &stInfo));
    EXPECT_EQ(2500u, stInfo.loss);
    udt_loss stLoss = {};
    stLoss.size = sizeof(stLoss);
    EXPECT_EQ(UDT_OK, udt_recv_get_loss(rig.m_pRecv, &stLoss));
}

// Each guard through its own field, told by the counter that is its own. A stream that is not there yet has the first
// half of the intake.
TEST(CInterface, EveryGuardAndItsCounterHasItsField)
{
    const auto stPacket = [](uint32 dwSeq, uint32 dwMediaMs, uint64 ullAccount = c_ullAccount)
    {
        udt_packet st = AudioOfC(dwSeq, dwMediaMs);
        st.account = ullAccount;
        st.wire_bytes = 100;
        return st;
    };
    struct tagRow
    {
        uint32_t udt_guards::*pGuard;
        uint32_t udt_guard_info::*pCount;
        uint32 dwMost;
        std::vector<udt_packet> vecFeed;
        uint32 dwWant;
    };
    const std::vector<tagRow> vecRows = {
        {&udt_guards::intake_packets,
         &udt_guard_info::intake_packets,
         2,
         {stPacket(1, 5000), stPacket(2, 5020), stPacket(3, 5040)},
         2},
        {&udt_guards::intake_bytes,
         &udt_guard_info::intake_bytes,
         250,
         {stPacket(1, 5000), stPacket(2, 5020), stPacket(3, 5040), stPacket(4, 5060)},
         3},
        {&udt_guards::streams, &udt_guard_info::streams, 1, {stPacket(1, 5000), stPacket(1, 5000, 8)}, 1},
        {&udt_guards::accounts, &udt_guard_info::accounts, 1, {stPacket(1, 5000), stPacket(1, 5000, 8)}, 1},
        {&udt_guards::accounts,
         &udt_guard_info::accounts_forgot,
         1,
         {stPacket(1, 5000), stPacket(1, 5000, 8)},
         1},
        {&udt_guards::stream_packets,
         &udt_guard_info::stream_packets,
         1,
         {stPacket(1, 5000), stPacket(2, 9000), stPacket(3, 9020)},
         1},
        {&udt_guards::stream_history,
         &udt_guard_info::stream_history,
         1,
         {stPacket(1, 5000), stPacket(2, 9000)},
         1},
        {&udt_guards::requests_per_second,
         &udt_guard_info::requests,
         1,
         {stPacket(1, 5000), stPacket(2, 9000), stPacket(6, 9080)},
         2},
        {&udt_guards::latency_ms, &udt_guard_info::latency, 500, {stPacket(1, 5000), stPacket(2, 9000)}, 1},
        {&udt_guards::pull_backs,
         &udt_guard_info::pull_backs,
         1,
         {stPacket(1, 50000), stPacket(11, 20000), stPacket(12, 20000), stPacket(13, 20000),
          stPacket(14, 20000), stPacket(15, 20000), stPacket(16, 1000)},
         1},
    };
    for (const tagRow& stRow : vecRows)
    {
        SCOPED_TRACE(&stRow - vecRows.data());
        CCRig rig(10000);
        udt_guards stGuards = {};
        stGuards.size = sizeof(stGuards);
        stGuards.*stRow.pGuard = stRow.dwMost;
        EXPECT_EQ(UDT_OK, udt_recv_set_guards(rig.m_pRecv, &stGuards));
        uint64 ullTick = 10000;
        for (const udt_packet& st : stRow.vecFeed)
        {
            udt_recv_feed(rig.m_pRecv, &st);
            if (stRow.pGuard == &udt_guards::intake_packets || stRow.pGuard == &udt_guards::intake_bytes)
                continue;
            for (int i = 0; i < 60 && st.sender_seq == 1; ++i) // the first one starts the clock
                udt_recv_run_turn_at(rig.m_pRecv, ullTick += 10);
        }
        for (int i = 0; i < 6; ++i)
            udt_recv_run_turn_at(rig.m_pRecv, ullTick += 10);
        udt_guard_info stInfo = {};
        stInfo.size = sizeof(stInfo);
        EXPECT_EQ(UDT_OK, udt_recv_get_guard_info(rig.m_pRecv, &stInfo));
        EXPECT_EQ(stRow.dwWant, stInfo.*stRow.pCount);
    }
    EXPECT_EQ(UDT_E_ARGUMENT, udt_recv_set_guards(nullptr, nullptr));
    EXPECT_EQ(UDT_E_ARGUMENT, udt_recv_get_guard_info(nullptr, nullptr));
    CCRig rig(1000);
    udt_guards stGuards = {};
    udt_guard_info stInfo = {};
    EXPECT_EQ(UDT_E_SIZE, udt_recv_set_guards(rig.m_pRecv, &stGuards));
    EXPECT_EQ(UDT_E_SIZE, udt_recv_get_guard_info(rig.m_pRecv, &stInfo));
}

TEST(CInterface, TheClockOfOneThreadIsNotThatOfAnother)
{
    udt_clock_set(5000);
    uint64 ullOther = 5000;
    uint64 ullOwn = 0;
    std::thread other(
        [&]
        {
            ullOther = udt_clock_now();
            udt_clock_set(77);
            ullOwn = udt_clock_now();
        });
    other.join();
    EXPECT_EQ(5000u, udt_clock_now());
    EXPECT_NE(5000u, ullOther) << "a thread that set nothing has the real clock";
    EXPECT_EQ(77u, ullOwn);
    udt_clock_real();
    EXPECT_GE(udt_clock_now(), ullOther);
    xp_settickcountsource(nullptr, nullptr);
}

TEST(CInterface, LogLinesComeUpToTheLevelAskedFor)
{
    std::vector<std::string> vecText;
    const auto Take = [](void* pContext, int nLevel, const char* pszFunction, const char* pszText)
    {
        ((std::vector<std::string>*)pContext)
            ->push_back(std::to_string(nLevel) + " " + pszFunction + ": " + pszText);
    };
    EXPECT_EQ(UDT_OK, udt_log_set(Take, &vecText, 4));
    LogWrite(LOG_LEVEL_ERROR, "CmdCode", "AVGUDTRecv", 1, "Run", "turn %d", 3);
    LogWrite(LOG_LEVEL_DEBUG, "CmdCode", "AVGUDTRecv", 1, "Run", "packet");
    EXPECT_EQ(UDT_OK, udt_log_set(nullptr, nullptr, 4));
    LogWrite(LOG_LEVEL_ERROR, "CmdCode", "AVGUDTRecv", 1, "Run", "nobody listens");
    EXPECT_THAT(vecText, ::testing::ElementsAre("4 Run: turn 3"));
}

TEST(CInterface, TheLibraryTellsItsVersion)
{
    EXPECT_STREQ(UDT_VERSION, udt_version());
    EXPECT_EQ((uint32)UDT_API_VERSION, udt_api_version());
}
