// The plain C interface: records in and out, callbacks, ticks. Everything is decided in CAVGUdtRecv; here is only
// translation. No exception leaves: what the receiver tolerates it tolerates itself, and what is left is memory.
#include "udtrecv.h"

#include "AVGUDTRecv.h"
#include "UDTLog.h"
#include "xplock.h"
#include "xpmess.h"

#include <chrono>
#include <cstring>
#include <exception>
#include <list>
#include <new>
#include <type_traits>
#include <vector>

// What a binding of the first version relies on. New fields go behind the last of these.
static_assert(sizeof(udt_request) == 16, "elements of an array never grow");
static_assert(sizeof(udt_packet) == 64 || sizeof(void*) != 8, "first version of udt_packet");
static_assert(sizeof(udt_output) == 72 || sizeof(void*) != 8, "first version of udt_output");
static_assert(sizeof(udt_params) == 24, "first version of udt_params");
static_assert(sizeof(udt_info) == 24, "first version of udt_info");
static_assert(sizeof(udt_stream) == 80, "first version of udt_stream");
static_assert(sizeof(udt_playout) == 28, "first version of udt_playout");
static_assert(sizeof(udt_downlink) == 20, "first version of udt_downlink");
static_assert(sizeof(udt_loss) == 20, "first version of udt_loss");
static_assert(sizeof(udt_guards) == 40, "first version of udt_guards");
static_assert(sizeof(udt_guard_info) == 44, "first version of udt_guard_info");

namespace
{
// A packet with its own copy of the bytes. The receiver hands `bufBody.pbuf` back for parsing: it points at the head.
struct CCPacket : UDTCodecBaseDecode_V2
{
    udt_packet m_stIn;
    tagUdtPacketHeadInfo m_stHead;
    std::vector<uint8> m_bufData;
};

// The bytes of a record that caller and library both know are taken; the rest stays as it is.
template <class T>
T KnownPart(const T* pstIn)
{
    static_assert(std::is_trivially_copyable<T>::value, "records are plain");
    T stOut = {};
    std::memcpy(&stOut, pstIn, pstIn->size < sizeof(T) ? pstIn->size : sizeof(T));
    return stOut;
}

// Fills the caller's record, which begins at `pOut` and is `dwSize` bytes long.
template <class T>
void Fill(void* pOut, uint32 dwSize, T stIn)
{
    stIn.size = dwSize;
    std::memcpy(pOut, &stIn, dwSize < sizeof(T) ? dwSize : sizeof(T));
    if (dwSize > sizeof(T))
        std::memset((uint8*)pOut + sizeof(T), 0, dwSize - sizeof(T));
}

// Every record of the first version is the record of today; once fields are added, this holds the old sizes.
template <class T>
bool IsTooSmall(const T* pstRecord)
{
    return pstRecord->size < sizeof(T);
}
} // namespace

struct udt_recv : private IUDTRecvEventCallBack
{
    udt_recv(const udt_callbacks& stCalls, void* pContext)
        : m_stCalls(stCalls), m_pContext(pContext), m_recv(this)
    {
    }
    virtual ~udt_recv() = default;

    udt_callbacks m_stCalls;
    void* m_pContext;
    CAVGUdtRecv m_recv;

private:
    void OnUDTRecvOutData(UDTCodecBaseDecode_V2* pPacket, int* pnDelay) override
    {
        if (m_stCalls.output == nullptr || pPacket == nullptr)
            return;
        const CCPacket& stPacket = *static_cast<CCPacket*>(pPacket);
        const udt_packet& stIn = stPacket.m_stIn;
        const tagDataPacket* pstReleasing = m_recv.GetReleasing();

        udt_output stOut = {};
        stOut.size = sizeof(stOut);
        stOut.sub_type = stIn.sub_type;
        stOut.account = stIn.account;
        stOut.sender_seq = stIn.sender_seq;
        stOut.down_seq = stIn.down_seq;
        stOut.media_ms = stIn.media_ms;
        stOut.transport_ms = stIn.transport_ms;
        stOut.frame_type = stIn.frame_type;
        stOut.packet_index = stIn.packet_index;
        stOut.data_packets = stIn.data_packets;
        stOut.fec_packets = stIn.fec_packets;
        stOut.frame_index = stIn.frame_index;
        stOut.gop_index = stIn.gop_index;
        stOut.bytes = stIn.bytes;
        stOut.data = stPacket.m_bufData.data();
        stOut.user = stIn.user;
        stOut.release_tick = (uint32)xp_gettickcount();
        stOut.arrival_tick = stOut.release_tick;
        if (pstReleasing != nullptr)
        {
            stOut.lost_before = pstReleasing->cPrePkgLost;
            stOut.arrival_tick = pstReleasing->dwRecvTime;
        }

        int32_t nPlayDelay = 0;
        m_stCalls.output(m_pContext, &stOut, &nPlayDelay);
        *pnDelay = nPlayDelay;
    }

    int UdtRecvHandleEvent(WORD wType, uint8* pBuffer, uint32 nBufSize, uint32, uint32) override
    {
        if (m_stCalls.request == nullptr || wType != AVGUdtRecvPacketEvent_LossRequest)
            return 0;
        // A request that finds no memory is not sent; the gap is due again on a later scan.
        const tagReplyData* pstReply = (const tagReplyData*)pBuffer;
        std::vector<udt_request> vecRequest(nBufSize);
        for (uint32 i = 0; i < nBufSize; ++i)
        {
            vecRequest[i].account = pstReply[i].ullUserAccount;
            vecRequest[i].user_seq = pstReply[i].dwUserSeq;
            vecRequest[i].sub_type = pstReply[i].cSubType;
        }
        m_stCalls.request(m_pContext, vecRequest.data(), nBufSize);
        return 0;
    }

    int UdtParsePacketHeadInfo(uint8* pBuf, UdtPacketHeadInfo& stHead) override
    {
        std::memcpy(&stHead, pBuf, sizeof(stHead));
        return 0;
    }
};

namespace
{
// Runs what may throw, and turns it into a result.
template <class F>
int Guarded(F&& pfnWork)
{
    try
    {
        return pfnWork();
    }
    catch (const std::exception&)
    {
        return UDT_E_MEMORY;
    }
}

// ---- The calling thread's clock ---------------------------------------------------------------------------

thread_local bool t_bClockSet = false;
thread_local uint64 t_ullTick = 0;

uint64 TickOfThisThread(void*)
{
    if (t_bClockSet)
        return t_ullTick;
    // The monotonic clock that xp_gettickcount reads when nobody replaced it.
    return (uint64)std::chrono::duration_cast<std::chrono::milliseconds>(
               std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

// ---- The log ----------------------------------------------------------------------------------------------

struct tagLogTarget
{
    udt_log_function pfnFunction;
    void* pContext;
};

void ToLogTarget(void* pCtx, UDT_LOG_LEVEL eLevel, const char*, const char*, int, const char* pFunc,
                 const char* pText)
{
    const tagLogTarget* pTarget = (const tagLogTarget*)pCtx;
    pTarget->pfnFunction(pTarget->pContext, (int)eLevel, pFunc, pText);
}

// Targets stay: a line that is being delivered while another target is set from inside a sink still reads its own.
CXPLock& LogTargetLock()
{
    static CXPLock s_lock;
    return s_lock;
}

std::list<tagLogTarget>& LogTargets()
{
    static std::list<tagLogTarget>* s_pTargets =
        new std::list<tagLogTarget>; // lines may come until the very end
    return *s_pTargets;
}
} // namespace

uint32_t udt_api_version(void) { return UDT_API_VERSION; }

const char* udt_version(void) { return UDT_VERSION; }

const char* udt_result_text(int result)
{
    switch (result)
    {
    case UDT_OK: return "done";
    case UDT_E_ARGUMENT: return "a null pointer or a value out of range";
    case UDT_E_SIZE: return "the size of a record is not set or too small";
    case UDT_E_MEMORY: return "no memory";
    case UDT_E_STATE: return "not in this state";
    case UDT_E_NOT_FOUND: return "no such user";
    default: return "not a result of udtrecv";
    }
}

udt_recv* udt_recv_create(const udt_callbacks* calls, void* context, uint32_t flags)
{
    udt_callbacks stCalls = {};
    if (calls != nullptr)
    {
        if (IsTooSmall(calls))
            return nullptr;
        stCalls = KnownPart(calls);
    }
    if ((flags & ~UDT_OWNER_DRIVEN) != 0)
        return nullptr;
    try
    {
        udt_recv* pRecv = new udt_recv(stCalls, context);
        pRecv->m_recv.SetOwnerDriven((flags & UDT_OWNER_DRIVEN) != 0 ? TRUE : FALSE);
        return pRecv;
    }
    catch (const std::exception&)
    {
        return nullptr;
    }
}

void udt_recv_destroy(udt_recv* recv) { delete recv; }

int udt_recv_start(udt_recv* recv)
{
    if (recv == nullptr)
        return UDT_E_ARGUMENT;
    return Guarded(
        [&]
        {
            recv->m_recv.Start();
            return UDT_OK;
        });
}

int udt_recv_stop(udt_recv* recv)
{
    if (recv == nullptr)
        return UDT_E_ARGUMENT;
    return Guarded(
        [&]
        {
            recv->m_recv.Stop();
            return UDT_OK;
        });
}

int udt_recv_set_params(udt_recv* recv, const udt_params* params)
{
    if (recv == nullptr || params == nullptr)
        return UDT_E_ARGUMENT;
    if (IsTooSmall(params))
        return UDT_E_SIZE;
    const udt_params stIn = KnownPart(params);
    tagUDTRecvParams stParams;
    stParams.wQueuePeriod = stIn.buffer_max_ms;
    stParams.wTimelineDelta = stIn.buffer_min_ms;
    stParams.wFirstGetTime = stIn.first_request_ms;
    stParams.wNextGetTime = stIn.next_request_ms;
    stParams.wCalcRecvLossTime = stIn.loss_period_ms;
    stParams.wOutPutDelay = stIn.output_delay_ms;
    stParams.wPeriodMinDelay = stIn.server_delay_ms;
    stParams.wUdtMode = stIn.mode;
    stParams.wPushGopNum = stIn.push_gops;
    return Guarded(
        [&]
        {
            recv->m_recv.UDTSetRecvParams(stParams);
            return UDT_OK;
        });
}

int udt_recv_set_guards(udt_recv* recv, const udt_guards* guards)
{
    if (recv == nullptr || guards == nullptr)
        return UDT_E_ARGUMENT;
    if (IsTooSmall(guards))
        return UDT_E_SIZE;
    const udt_guards stIn = KnownPart(guards);
    tagUDTRecvGuards stGuards;
    stGuards.dwMaxIntakePackets = stIn.intake_packets;
    stGuards.dwMaxIntakeBytes = stIn.intake_bytes;
    stGuards.dwMaxStreams = stIn.streams;
    stGuards.dwMaxAccounts = stIn.accounts;
    stGuards.dwMaxStreamPackets = stIn.stream_packets;
    stGuards.dwMaxStreamHistory = stIn.stream_history;
    stGuards.dwMaxRequestsPerSecond = stIn.requests_per_second;
    stGuards.dwMaxPullBacks = stIn.pull_backs;
    stGuards.dwMaxLatency = stIn.latency_ms;
    return Guarded(
        [&]
        {
            recv->m_recv.SetGuards(stGuards);
            return UDT_OK;
        });
}

int udt_recv_get_guard_info(udt_recv* recv, udt_guard_info* info)
{
    if (recv == nullptr || info == nullptr)
        return UDT_E_ARGUMENT;
    if (IsTooSmall(info))
        return UDT_E_SIZE;
    return Guarded(
        [&]
        {
            tagUDTRecvGuardInfo stIn;
            recv->m_recv.GetGuardInfo(stIn);
            udt_guard_info stOut = {};
            stOut.intake_packets = stIn.dwIntakePackets;
            stOut.intake_bytes = stIn.dwIntakeBytes;
            stOut.streams = stIn.dwStreams;
            stOut.accounts = stIn.dwAccounts;
            stOut.accounts_forgot = stIn.dwAccountsForgot;
            stOut.stream_packets = stIn.dwStreamPackets;
            stOut.stream_history = stIn.dwStreamHistory;
            stOut.requests = stIn.dwRequests;
            stOut.pull_backs = stIn.dwPullBacks;
            stOut.latency = stIn.dwLatency;
            Fill(info, info->size, stOut);
            return UDT_OK;
        });
}

int udt_recv_set_rtt(udt_recv* recv, uint32_t rtt_ms)
{
    if (recv == nullptr)
        return UDT_E_ARGUMENT;
    return Guarded(
        [&]
        {
            recv->m_recv.UDTSetRecvRTT(rtt_ms);
            return UDT_OK;
        });
}

int udt_recv_enable_requests(udt_recv* recv, int enable)
{
    if (recv == nullptr)
        return UDT_E_ARGUMENT;
    return Guarded(
        [&]
        {
            recv->m_recv.UDTEnableReGetPkg(enable != 0 ? TRUE : FALSE);
            return UDT_OK;
        });
}

int udt_recv_set_room_state(udt_recv* recv, uint32_t state)
{
    if (recv == nullptr)
        return UDT_E_ARGUMENT;
    return Guarded(
        [&]
        {
            recv->m_recv.SetRoomState(state);
            return UDT_OK;
        });
}

int udt_recv_feed(udt_recv* recv, const udt_packet* packet)
{
    if (recv == nullptr || packet == nullptr)
        return UDT_E_ARGUMENT;
    if (IsTooSmall(packet))
        return UDT_E_SIZE;
    if (packet->sub_type > 0xFF || (packet->data == nullptr && packet->bytes != 0))
        return UDT_E_ARGUMENT;
    return Guarded(
        [&]
        {
            CScopePtr<CCPacket> pPacket(new CCPacket);
            CCPacket& stPacket = *pPacket;
            stPacket.m_stIn = KnownPart(packet);
            const udt_packet& stIn = stPacket.m_stIn;
            const uint8* pData = (const uint8*)stIn.data;
            if (stIn.bytes != 0)
                stPacket.m_bufData.assign(pData, pData + stIn.bytes);

            stPacket.m_stHead.cSubType = (uint8)stIn.sub_type;
            stPacket.m_stHead.cFrmType = stIn.frame_type;
            stPacket.m_stHead.cPkgIndex = stIn.packet_index;
            stPacket.m_stHead.cTotalPkgCount = stIn.data_packets;
            stPacket.m_stHead.cFecPkgCount = stIn.fec_packets;
            stPacket.m_stHead.cFrameIndex = stIn.frame_index;
            stPacket.m_stHead.cGopIndex = stIn.gop_index;
            stPacket.m_stHead.uTimeStamp = stIn.media_ms;

            stPacket.u64Uin = stIn.account;
            stPacket.dwSenderSeq = stIn.sender_seq;
            stPacket.dwSeq = stIn.down_seq;
            stPacket.wTimeStamp = stIn.transport_ms;
            const uint32 dwWire = stIn.wire_bytes != 0 ? stIn.wire_bytes : stIn.bytes;
            stPacket.wLen = (uint16)(dwWire < 0xFFFF ? dwWire : 0xFFFF); // no datagram is longer
            stPacket.bufBody.pbuf = (uint8*)&stPacket.m_stHead;
            stPacket.bufBody.ulen = sizeof(stPacket.m_stHead);

            recv->m_recv.UDTReceiveNetData(stIn.sender_seq, stIn.account, stIn.down_seq, stIn.transport_ms,
                                           (uint8)stIn.sub_type, pPacket.p);
            return UDT_OK;
        });
}

int udt_recv_clear(udt_recv* recv, uint64_t account, uint32_t sub_type)
{
    if (recv == nullptr)
        return UDT_E_ARGUMENT;
    return Guarded(
        [&]
        {
            recv->m_recv.ClearRecvChn(account, sub_type);
            return UDT_OK;
        });
}

int udt_recv_run_turn(udt_recv* recv)
{
    if (recv == nullptr)
        return UDT_E_ARGUMENT;
    if (!recv->m_recv.IsOwnerDriven())
        return UDT_E_STATE;
    return Guarded(
        [&]
        {
            recv->m_recv.RunTurn();
            return UDT_OK;
        });
}

int udt_recv_run_turn_at(udt_recv* recv, uint64_t tick_ms)
{
    if (recv == nullptr)
        return UDT_E_ARGUMENT;
    if (!recv->m_recv.IsOwnerDriven())
        return UDT_E_STATE;
    udt_clock_set(tick_ms);
    return udt_recv_run_turn(recv);
}

int udt_recv_get_info(udt_recv* recv, udt_info* info)
{
    if (recv == nullptr || info == nullptr)
        return UDT_E_ARGUMENT;
    if (IsTooSmall(info))
        return UDT_E_SIZE;
    return Guarded(
        [&]
        {
            tagRecvInfo stIn;
            recv->m_recv.GetRecvInfo(stIn);
            udt_info stOut = {};
            stOut.streams = stIn.dwChnNum;
            stOut.max_loss = stIn.dwMaxLossRate;
            stOut.min_loss = stIn.dwMinLossRate;
            stOut.loss = stIn.dwCurLossRate;
            stOut.streams_removed = stIn.dwChnClearNum;
            Fill(info, info->size, stOut);
            return UDT_OK;
        });
}

int udt_recv_get_streams(udt_recv* recv, udt_stream* streams, uint32_t capacity, uint32_t* filled)
{
    if (filled != nullptr)
        *filled = 0;
    if (recv == nullptr || (streams == nullptr && capacity != 0))
        return UDT_E_ARGUMENT;
    if (capacity == 0)
        return UDT_OK;
    if (IsTooSmall(streams))
        return UDT_E_SIZE;
    return Guarded(
        [&]
        {
            // A caller may offer room for more streams than there are; only those that there are need memory here.
            tagRecvInfo stInfo;
            recv->m_recv.GetRecvInfo(stInfo);
            std::vector<tagRecvChnStatInfo> vecIn(stInfo.dwChnNum < capacity ? stInfo.dwChnNum : capacity);
            const uint32 dwNum = recv->m_recv.GetRecvChnInfo(vecIn.data(), (uint32)vecIn.size());
            const uint32 dwSize = streams->size;
            for (uint32 i = 0; i < dwNum; ++i)
            {
                const tagRecvChnStatInfo& stIn = vecIn[i];
                udt_stream stOut = {};
                stOut.sub_type = stIn.dwSubType;
                stOut.account = stIn.llAccount;
                stOut.first_i_ms = stIn.dwFirstIFrmRecvTime;
                stOut.frames_before_i = stIn.dwFrmNumBeforeFristFrm;
                stOut.first_i_decodable = stIn.dwFirstFrmCanDec;
                stOut.decodable_i_ms = stIn.dwCanDecIFrmElpTime;
                stOut.buffer_min_ms = stIn.dwConfgMinDelay;
                stOut.buffer_max_ms = stIn.dwConfgMaxDelay;
                stOut.delay_min_ms = stIn.dwRealMinDelay;
                stOut.delay_max_ms = stIn.dwRealMaxDelay;
                stOut.delay_mean_ms = stIn.dwRealDelayAvg;
                stOut.buffer_ms = stIn.dwCurCalcTLDelta;
                stOut.skipped = stIn.dwSkipPkgNum;
                stOut.stamp_errors = stIn.dwStampErrCnt;
                stOut.received = stIn.dwTotalRecvPkgNum;
                stOut.lost = stIn.dwTotalLossPkgNum;
                stOut.requests_failed = stIn.dwTotalReqFailNum;
                Fill((uint8*)streams + (size_t)i * dwSize, dwSize, stOut);
            }
            if (filled != nullptr)
                *filled = dwNum;
            return UDT_OK;
        });
}

int udt_recv_get_playout(udt_recv* recv, uint64_t account, udt_playout* playout)
{
    if (recv == nullptr || playout == nullptr)
        return UDT_E_ARGUMENT;
    if (IsTooSmall(playout))
        return UDT_E_SIZE;
    return Guarded(
        [&]
        {
            tagPlayoutInfo stIn;
            if (!recv->m_recv.GetPlayoutInfo(account, stIn))
                return UDT_E_NOT_FOUND;
            udt_playout stOut = {};
            stOut.clock_ms = stIn.dwTimelineOut;
            stOut.newest_ms = stIn.dwTimelineIn;
            stOut.buffered_ms = stIn.dwDataLen;
            stOut.band_ms = stIn.dwBandWidth;
            stOut.extra_ms = stIn.dwExWaitTick;
            stOut.target_ms = stIn.dwTarget;
            Fill(playout, playout->size, stOut);
            return UDT_OK;
        });
}

int udt_recv_get_downlink(udt_recv* recv, udt_downlink* downlink)
{
    if (recv == nullptr || downlink == nullptr)
        return UDT_E_ARGUMENT;
    if (IsTooSmall(downlink))
        return UDT_E_SIZE;
    return Guarded(
        [&]
        {
            udt_downlink stOut = {};
            recv->m_recv.GetDownPacketRecvInfo(stOut.expected, stOut.received, stOut.bytes, stOut.first_i);
            Fill(downlink, downlink->size, stOut);
            return UDT_OK;
        });
}

int udt_recv_get_loss(udt_recv* recv, udt_loss* loss)
{
    if (recv == nullptr || loss == nullptr)
        return UDT_E_ARGUMENT;
    if (IsTooSmall(loss))
        return UDT_E_SIZE;
    return Guarded(
        [&]
        {
            udt_loss stOut = {};
            recv->m_recv.UDTCalcRecvLoss(stOut.loss, stOut.expected, stOut.received, stOut.mean_burst_100);
            Fill(loss, loss->size, stOut);
            return UDT_OK;
        });
}

void udt_clock_set(uint64_t tick_ms)
{
    t_ullTick = tick_ms;
    if (t_bClockSet)
        return;
    t_bClockSet = true;
    // Left in place for good: a thread without a tick of its own reads the real clock through it.
    xp_settickcountsource(TickOfThisThread, nullptr);
}

void udt_clock_real(void) { t_bClockSet = false; }

uint64_t udt_clock_now(void) { return xp_gettickcount(); }

int udt_log_set(udt_log_function function, void* context, int level)
{
    if (level < 0)
        return UDT_E_ARGUMENT;
    return Guarded(
        [&]
        {
            LogSetLevel((UDT_LOG_LEVEL)(level < LOG_LEVEL_DEBUG ? level : LOG_LEVEL_DEBUG));
            if (function == nullptr)
            {
                LogSetSink(nullptr, nullptr);
                return UDT_OK;
            }
            tagLogTarget* pTarget = nullptr;
            {
                CXPAutoLock lock(LogTargetLock());
                for (tagLogTarget& stTarget : LogTargets())
                    if (stTarget.pfnFunction == function && stTarget.pContext == context)
                        pTarget = &stTarget;
                if (pTarget == nullptr)
                {
                    LogTargets().push_back({function, context});
                    pTarget = &LogTargets().back();
                }
            }
            LogSetSink(ToLogTarget, pTarget);
            return UDT_OK;
        });
}
