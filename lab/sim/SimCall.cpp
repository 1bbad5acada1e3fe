// The call itself: who sends what to whom, and what is written down about it. Time moves by the earliest of all that
// is pending; of things at the same microsecond, those nearer to the senders go first.

#include "SimCall.h"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>

namespace lab
{

namespace
{

constexpr size_t c_nMessages = 8192;   // loss requests on their way at the same time
constexpr int64 c_llTailUs = 15000000; // after the senders stopped: what is still on its way or buffered
constexpr int64 c_llTailStepUs = 100000;
constexpr uint16 c_wRequestBytes = 40; // of a request without its entries
constexpr uint16 c_wPingBytes = 64;
constexpr double c_dRecordSeconds = 40; // a packet's record is kept at least this long

uint64 AccountOf(uint32 uUser) { return (uint64)uUser + 1; }

int KindOf(uint8 cSubType)
{
    for (int i = 0; i < SIM_STREAMS; i++)
        if (SimStreamSubType(i) == cSubType)
            return i;
    return -1;
}

} // namespace

CSimCall::CSimCall(const tagScenario& stScenario, const tagSimHooks& stHooks)
    : m_stScenario(stScenario), m_stHooks(stHooks), m_vecMessages(c_nMessages)
{
    for (const tagSimUsers& stUsers : stScenario.vecUsers)
        for (uint32 i = 0; i < stUsers.uCount; i++)
        {
            const uint32 uUser = (uint32)m_vecUsers.size();
            m_vecUsers.emplace_back();
            auto pSender =
                std::make_unique<CSimSender>(stUsers, uUser, i, stScenario.llDurationUs, stScenario.ullSeed,
                                             static_cast<ISimStreamMaker&>(*this));
            m_vecUsers.back().strName =
                stUsers.uCount > 1 ? fmt::format("{} {}", stUsers.strName, i + 1) : stUsers.strName;
            m_vecUsers.back().dSkewPpm = pSender->SkewPpm();
            m_vecSenders.push_back(pSender.get());
            m_vecUp.push_back(
                Impair(std::move(pSender), stScenario.stUp, SIM_UP, stScenario.ullSeed, uUser, *this));
            m_vecUpNext.push_back(m_vecUp.back()->NextUs());
        }
    const auto Way = [&](CSimInbox*& pIn, const tagSimPath& stPath, emSimWay eWay)
    {
        auto p = std::make_unique<CSimInbox>();
        pIn = p.get();
        return Impair(std::move(p), stPath, eWay, stScenario.ullSeed, 0, *this);
    };
    m_pDown = Way(m_pDownIn, stScenario.stDown, SIM_DOWN);
    m_pRequest = Way(m_pRequestIn, stScenario.stRequest, SIM_REQUESTS);
    m_pBack = Way(m_pBackIn, stScenario.stBack, SIM_BACK);

    m_dwDownSeq = stScenario.stRelay.dwFirstDownSeq;
    m_aTimers.fill(c_llNever);
    m_aTimers[TIMER_JOIN] = JoinUs();
    m_aTimers[TIMER_END] = stScenario.llDurationUs;
    if (stScenario.stReceiver.llRttEveryUs > 0)
        m_aTimers[TIMER_RTT] = m_aTimers[TIMER_JOIN];
    if (stScenario.stReceiver.llPollEveryUs > 0)
        m_aTimers[TIMER_POLL] = m_aTimers[TIMER_JOIN] + stScenario.stReceiver.llPollEveryUs;
}

CSimCall::~CSimCall() = default;

// A push needs GOPs to push: unless told otherwise the receiver joins when the slowest picture has enough of them.
int64 CSimCall::JoinUs() const
{
    if (m_stScenario.stReceiver.llJoinUs >= 0)
        return m_stScenario.stReceiver.llJoinUs;
    int64 llJoinUs = 0;
    for (const tagSimUsers& stUsers : m_stScenario.vecUsers)
        for (int i = SIM_BIG; i < SIM_SHARE; i++)
        {
            const tagSimVideo& st = stUsers.aVideo[(size_t)i];
            if (st.bOn && m_stScenario.stRelay.uPushGops > 0)
                llJoinUs = std::max(
                    llJoinUs, llround((m_stScenario.stRelay.uPushGops - 0.5) * st.uGop / st.dFps * 1e6) +
                                  llround(1e6 / st.dFps));
        }
    return llJoinUs;
}

void CSimCall::Begin(CLabRun& run)
{
    m_pRun = &run;
    const tagSimReceiver& st = m_stScenario.stReceiver;
    tagUDTRecvParams stParams;
    stParams.wUdtMode = st.bLowLatency ? 1 : 0;
    stParams.wOutPutDelay = 200; // a 0 would be taken, so the default is repeated
    stParams.wPushGopNum = (uint16)m_stScenario.stRelay.uPushGops;
    stParams.wQueuePeriod = (uint16)st.uTimelineMaxMs;
    stParams.wTimelineDelta = (uint16)st.uTimelineMs;
    stParams.wFirstGetTime = (uint16)st.uFirstRequestMs;
    stParams.wNextGetTime = (uint16)st.uNextRequestMs;
    run.Receiver().UDTSetRecvParams(stParams);
    if (!st.bRequests)
        run.Receiver().UDTEnableReGetPkg(FALSE);
}

CSimStream& CSimCall::NewStream(uint32 uUser, int nKind, uint32 uEpoch, const tagSimFirst& stFirst,
                                double dPacketsPerSecond)
{
    const auto WaitUs = [](const tagSimPath& st)
    { return st.llDelayUs + (st.dRateKbps > 0 || st.pRateTrace ? st.llQueueUs : 0); };
    const double dSeconds =
        c_dRecordSeconds + (double)(WaitUs(m_stScenario.stUp) + WaitUs(m_stScenario.stDown)) / 1e6;
    const uint32 uNumber = (uint32)m_vecStreams.size();
    m_vecStreams.push_back(std::make_unique<CSimStream>(uNumber, uUser, nKind, uEpoch, stFirst,
                                                        (size_t)(dPacketsPerSecond * dSeconds),
                                                        m_stScenario.llCountFromUs));
    m_vecUsers[uUser].aStreams[(size_t)nKind] = m_vecStreams.back().get();
    return *m_vecStreams.back();
}

// ---- The earliest event ------------------------------------------------------------------------------------------

bool CSimCall::Peek(int64& llTimeUs)
{
    if (!m_pRun->Checks().Ok())
        return false;
    m_eNext = FROM_NOTHING;
    m_llNextUs = c_llNever;
    const auto Consider = [this](int64 llUs, emWhat eWhat, size_t n)
    {
        if (llUs >= m_llNextUs)
            return;
        m_llNextUs = llUs;
        m_eNext = eWhat;
        m_nNext = n;
    };
    for (size_t i = 0; i < m_vecUpNext.size(); i++)
        Consider(m_vecUpNext[i], FROM_UP, i);
    Consider(m_pBack->NextUs(), FROM_BACK, 0);
    Consider(m_pRequest->NextUs(), FROM_REQUEST, 0);
    Consider(m_pDown->NextUs(), FROM_DOWN, 0);
    // After the end the receiver is given time for what is still to come, as long as there is something.
    if (m_bEnded && m_llNextUs == c_llNever && m_pRun->Live() == 0)
        return false;
    for (size_t i = 0; i < TIMERS; i++)
        Consider(m_aTimers[i], FROM_TIMER, i);
    llTimeUs = m_llNextUs;
    return m_eNext != FROM_NOTHING && m_llNextUs <= m_stScenario.llDurationUs + c_llTailUs;
}

void CSimCall::Fire(CLabRun& run)
{
    const int64 llNowUs = m_llNextUs;
    tagSimPacket stPacket;
    switch (m_eNext)
    {
    case FROM_UP:
    {
        ISimSource& up = *m_vecUp[m_nNext];
        if (up.Take(stPacket))
            AtRelay(llNowUs, stPacket);
        m_vecUpNext[m_nNext] = up.NextUs();
        break;
    }
    case FROM_BACK:
        if (m_pBack->Take(stPacket))
            AtSender(llNowUs, stPacket);
        break;
    case FROM_REQUEST:
        if (m_pRequest->Take(stPacket))
            Asked(llNowUs, stPacket);
        break;
    case FROM_DOWN:
        if (m_pDown->Take(stPacket))
            AtReceiver(run, llNowUs, stPacket);
        break;
    case FROM_TIMER: OnTimer(run, (emTimer)m_nNext, llNowUs); break;
    case FROM_NOTHING: break;
    }
}

void CSimCall::OnTimer(CLabRun& run, emTimer eTimer, int64 llNowUs)
{
    const tagSimReceiver& st = m_stScenario.stReceiver;
    switch (eTimer)
    {
    case TIMER_JOIN:
        m_aTimers[TIMER_JOIN] = c_llNever;
        m_bJoined = true;
        PushToJoiner(llNowUs);
        break;
    case TIMER_RTT:
    {
        tagSimPacket stPing;
        stPing.cKind = SIM_PING;
        stPing.wBytes = c_wPingBytes;
        stPing.uStream = (uint32)((uint64)llNowUs >> 32);
        stPing.uIndex = (uint32)llNowUs;
        m_pRequestIn->Push(llNowUs, stPing);
        m_aTimers[TIMER_RTT] += st.llRttEveryUs;
        break;
    }
    case TIMER_POLL:
    {
        run.PollDownlink();
        m_aTimers[TIMER_POLL] += st.llPollEveryUs;
        if (m_stHooks.fnProgress)
            m_stHooks.fnProgress((double)llNowUs / (double)m_stScenario.llDurationUs);
        break;
    }
    case TIMER_END:
        m_bEnded = true;
        m_aTimers[TIMER_RTT] = c_llNever;
        m_aTimers[TIMER_END] = llNowUs + c_llTailStepUs;
        break;
    case TIMERS: break;
    }
}

// ---- Relay -------------------------------------------------------------------------------------------------------

void CSimCall::AtRelay(int64 llNowUs, const tagSimPacket& stPacket)
{
    m_stTraffic.ullUpPackets++;
    tagSimRecord* p = Stream(stPacket.uStream).Find(stPacket.uIndex);
    if (!p)
        return;
    const bool bFirst = (p->wMarks & SIM_MARK_AT_RELAY) == 0;
    if (bFirst)
    {
        p->wMarks |= SIM_MARK_AT_RELAY;
        p->llAtRelayUs = llNowUs;
    }
    if (!m_bJoined)
        return;
    if (stPacket.cKind == SIM_MEDIA)
    {
        // The relay passes on what comes, copies too.
        p->wMarks |= SIM_MARK_FORWARDED;
        Stream(stPacket.uStream).Begin(stPacket.uIndex);
    }
    else
        Stream(stPacket.uStream).m_st.ullAnswers++;
    Forward(llNowUs, stPacket);
}

void CSimCall::Forward(int64 llNowUs, const tagSimPacket& stPacket)
{
    tagSimPacket st = stPacket;
    st.dwDownSeq = m_dwDownSeq++;
    m_stTraffic.ullDownPackets++;
    m_stTraffic.ullDownBytes += st.wBytes;
    int64 llAtUs = llNowUs;
    if (llNowUs < m_llPushEndUs)
    {
        llAtUs = m_llPushEndUs;
        m_llPushEndUs += llround(st.wBytes * 8000.0 / m_stScenario.stRelay.dPushKbps);
    }
    m_pDownIn->Push(llAtUs, st);
}

// The joiner gets the latest GOPs of every picture, the unfinished one included, and the sound that belongs to them,
// in the order in which they were sent. What comes meanwhile waits behind.
void CSimCall::PushToJoiner(int64 llNowUs)
{
    if (m_stScenario.stRelay.uPushGops == 0)
        return;
    std::vector<std::pair<int64, std::pair<uint32, uint32>>> vecPush; // sent at; stream, index
    for (tagUser& stUser : m_vecUsers)
    {
        int64 llSinceUs = c_llNever;
        for (int i = SIM_STREAMS - 1; i >= 0; i--)
        {
            CSimStream* pStream = stUser.aStreams[(size_t)i];
            if (!pStream)
                continue;
            uint32 uFrom = pStream->Next();
            if (i == SIM_AUDIO)
            {
                while (uFrom > 0)
                {
                    const tagSimRecord* p = pStream->Find(uFrom - 1);
                    if (!p || p->llSentUs < llSinceUs)
                        break;
                    uFrom--;
                }
            }
            else if (pStream->Gops() > 0)
            {
                uFrom = pStream->GopBegin(std::min(m_stScenario.stRelay.uPushGops, pStream->Gops()) - 1);
                if (const tagSimRecord* p = pStream->Find(uFrom))
                    llSinceUs = std::min(llSinceUs, p->llSentUs);
            }
            bool bAny = false;
            for (uint32 u = uFrom; u != pStream->Next(); u++)
            {
                tagSimRecord* p = pStream->Find(u);
                if (!p || (p->wMarks & SIM_MARK_AT_RELAY) == 0)
                    continue; // lost before the relay, or still on its way to it
                if (!bAny)
                    pStream->Begin(u);
                bAny = true;
                p->wMarks |= SIM_MARK_FORWARDED;
                vecPush.push_back({p->llSentUs, {pStream->m_uNumber, u}});
            }
        }
    }
    std::sort(vecPush.begin(), vecPush.end());
    if (m_stScenario.stRelay.dPushKbps > 0)
        m_llPushEndUs = llNowUs + 1;
    for (const auto& stItem : vecPush)
    {
        tagSimPacket st;
        st.uStream = stItem.second.first;
        st.uIndex = stItem.second.second;
        st.wBytes = Stream(st.uStream).Find(st.uIndex)->wBytes;
        m_stTraffic.ullPushed++;
        Forward(llNowUs, st);
    }
}

void CSimCall::Asked(int64 llNowUs, const tagSimPacket& stPacket)
{
    if (stPacket.cKind == SIM_PING)
    {
        m_pDownIn->Push(llNowUs, stPacket);
        return;
    }
    const tagMessage& stMessage = m_vecMessages[stPacket.uIndex % c_nMessages];
    if (stMessage.uNumber != stPacket.uIndex || !m_stScenario.stRelay.bAnswer)
        return;
    for (const auto& stAsked : stMessage.vecAsked)
    {
        CSimStream& stream = Stream(stAsked.first);
        const tagSimRecord* p = stream.Find(stAsked.second);
        if (!p)
            continue;
        tagSimPacket st;
        st.cKind = SIM_ANSWER;
        st.uStream = stAsked.first;
        st.uIndex = stAsked.second;
        st.wBytes = p->wBytes;
        if ((p->wMarks & SIM_MARK_AT_RELAY) != 0)
        {
            if (llNowUs - p->llAtRelayUs > m_stScenario.stRelay.llHistoryUs)
                continue;
            stream.m_st.ullAnswers++;
            Forward(llNowUs, st);
        }
        else if (m_stScenario.stRelay.bPassOn)
        {
            m_stTraffic.ullPassedOn++;
            st.cKind = SIM_REQUEST;
            st.wBytes = c_wRequestBytes;
            m_pBackIn->Push(llNowUs, st);
        }
    }
}

// ---- Sender ------------------------------------------------------------------------------------------------------

void CSimCall::AtSender(int64 llNowUs, const tagSimPacket& stPacket)
{
    const CSimStream& stream = Stream(stPacket.uStream);
    const tagSimRecord* p = Stream(stPacket.uStream).Find(stPacket.uIndex);
    if (!p || llNowUs - p->llSentUs > m_stScenario.stRelay.llHistoryUs)
        return;
    tagSimPacket st = stPacket;
    st.cKind = SIM_ANSWER;
    st.wBytes = p->wBytes;
    m_vecSenders[stream.m_uUser]->Resend(llNowUs, st);
    m_vecUpNext[stream.m_uUser] = m_vecUp[stream.m_uUser]->NextUs();
}

void CSimCall::OnDropped(emSimWay eWay, const tagSimPacket& stPacket, emSimDrop eWhy)
{
    m_stTraffic.aDrops[eWay][eWhy]++;
    if (stPacket.cKind != SIM_MEDIA || stPacket.bCopy)
        return;
    tagSimRecord* p = Stream(stPacket.uStream).Find(stPacket.uIndex);
    if (!p)
        return;
    p->wMarks |= eWay == SIM_UP ? SIM_MARK_LOST_UP : SIM_MARK_LOST_DOWN;
    if (eWhy == SIM_DROP_QUEUE)
        p->wMarks |= SIM_MARK_QUEUE;
    if (eWhy == SIM_DROP_OUTAGE)
        p->wMarks |= SIM_MARK_OUTAGE;
}

// ---- Receiver ----------------------------------------------------------------------------------------------------

void CSimCall::AtReceiver(CLabRun& run, int64 llNowUs, const tagSimPacket& stPacket)
{
    if (stPacket.cKind == SIM_PING)
    {
        if (stPacket.bCopy)
            return; // an echo that came before
        const int64 llSentUs = (int64)((uint64)stPacket.uStream << 32 | stPacket.uIndex);
        const uint32 dwRtt = (uint32)((llNowUs - llSentUs + 500) / 1000);
        m_rtt.Add(dwRtt);
        run.Receiver().UDTSetRecvRTT(dwRtt);
        return;
    }
    CSimStream& stream = Stream(stPacket.uStream);
    tagSimRecord* p = stream.Find(stPacket.uIndex);
    if (!p)
        return; // longer on its way than anything is remembered
    const uint64 ullUin = AccountOf(stream.m_uUser);
    const uint8 cSubType = SimStreamSubType(stream.m_nKind);

    if ((p->wMarks & (SIM_MARK_CAME | SIM_MARK_ANSWER_CAME)) == 0)
    {
        if (!run.Playout().IsDue(run.Receiver(), ullUin, cSubType, p->dwMediaMs))
            p->wMarks |= SIM_MARK_IN_TIME;
        if (stPacket.cKind == SIM_ANSWER)
            stream.m_st.repair.Add((uint32)(llNowUs / 1000) - p->dwAskedMs);
    }
    else if (stPacket.cKind == SIM_ANSWER)
        stream.m_st.ullNeedlessAnswers++;
    if (stPacket.bCopy)
        stream.m_st.ullCopies++;
    p->wMarks |= stPacket.cKind == SIM_ANSWER ? SIM_MARK_ANSWER_CAME : SIM_MARK_CAME;

    tagUdtPacketHeadInfo stHead;
    stHead.cHeadLen = sizeof(stHead);
    stHead.cSubType = cSubType;
    stHead.cFrmType = p->cFrmType;
    stHead.cPkgIndex = p->cPkgIndex;
    stHead.cTotalPkgCount = p->cPkgNum;
    stHead.cFecPkgCount = p->cFecNum;
    stHead.cFrameIndex = p->cFrmIdx;
    stHead.cGopIndex = p->cGopIdx;
    stHead.uTimeStamp = p->dwMediaMs;
    CMediaPacket* pPacket = run.NewPacket(stHead);
    pPacket->m_uStream = stream.m_uNumber;
    pPacket->m_cSubType = cSubType;
    pPacket->m_uEpoch = stream.m_uEpoch;
    pPacket->uCustomId = stPacket.uIndex;
    pPacket->dwSenderSeq = stream.Seq(stPacket.uIndex);
    pPacket->dwSeq = stPacket.dwDownSeq;
    pPacket->u64Uin = ullUin;
    pPacket->wTimeStamp = (uint16)(stream.m_stFirst.wTransportMs + p->llSentUs / 1000);
    pPacket->wLen = p->wBytes;
    pPacket->m_stArrival.bRetransmitted = stPacket.cKind == SIM_ANSWER;
    if (m_stHooks.fnFeed)
        m_stHooks.fnFeed(*pPacket);
    run.Feed(pPacket, llNowUs);
}

int CSimCall::OnReleased(CMediaPacket& packet, uint32 dwTick)
{
    const int nPlayDelay = (int)m_stScenario.stReceiver.uPlayDelayMs;
    CSimStream& stream = Stream(packet.m_uStream);
    if (AccountOf(stream.m_uUser) != packet.u64Uin || SimStreamSubType(stream.m_nKind) != packet.m_cSubType)
        m_pRun->Checks().Report(fmt::format("stream {}: sequence {} is booked there and belongs to another",
                                            packet.m_uStream, packet.dwSenderSeq));
    const uint32 uIndex = (uint32)packet.uCustomId;
    const uint32 dwMediaMs = packet.Head().uTimeStamp;
    tagSimRecord* p = stream.Find(uIndex);
    if (p)
        p->wMarks |= SIM_MARK_RELEASED;
    stream.Released(p, uIndex, dwMediaMs, m_pRun->MsSinceStart(dwTick), dwTick - packet.m_dwFedTick);
    MeasureAvOffset(m_vecUsers[stream.m_uUser], stream, dwMediaMs, dwTick);
    if (m_stHooks.fnReleased)
        m_stHooks.fnReleased(packet);
    return nPlayDelay;
}

void CSimCall::MeasureAvOffset(tagUser& stUser, const CSimStream& stream, uint32 dwMediaMs, uint32 dwTick)
{
    const uint32 dwLag = dwTick - dwMediaMs;
    if (stream.m_nKind == SIM_AUDIO)
    {
        stUser.bAudioOut = true;
        stUser.dwAudioLag = dwLag + m_stScenario.stReceiver.uPlayDelayMs;
        return;
    }
    const size_t nKind = (size_t)stream.m_nKind;
    const bool bNewFrame = !stUser.aFrame[nKind] || dwMediaMs != stUser.aLastFrameMs[nKind];
    stUser.aFrame[nKind] = true;
    stUser.aLastFrameMs[nKind] = dwMediaMs;
    if (!bNewFrame || !stUser.bAudioOut)
        return;
    const int32 nOffset = (int32)(dwLag - stUser.dwAudioLag);
    stUser.avOffset.Add((uint32)std::abs((int64)nOffset));
    stUser.llAvSumMs += nOffset;
}

void CSimCall::OnLossRequest(const tagReplyData* pReply, uint32 uCount, uint32 dwTick)
{
    const uint32 dwNowMs = m_pRun->MsSinceStart(dwTick);
    const uint32 uRecords = m_stScenario.stRelay.uRecords;
    for (uint32 i = 0; i < uCount;)
    {
        tagMessage& stMessage = m_vecMessages[++m_uMessage % c_nMessages];
        stMessage.uNumber = m_uMessage;
        stMessage.vecAsked.clear();
        const uint32 uEnd = std::min(uCount, i + uRecords);
        tagSimPacket stPacket;
        stPacket.cKind = SIM_REQUEST;
        stPacket.uIndex = m_uMessage;
        stPacket.wBytes = (uint16)(c_wRequestBytes + (uEnd - i) * sizeof(tagReplyData));
        for (; i < uEnd; i++)
        {
            const uint32 uUser = (uint32)(pReply[i].ullUserAccount - 1);
            const int nKind = KindOf(pReply[i].cSubType);
            if (uUser >= m_vecUsers.size() || nKind < 0 || !m_vecUsers[uUser].aStreams[(size_t)nKind])
                continue; // the checks have said so already
            CSimStream& stream = *m_vecUsers[uUser].aStreams[(size_t)nKind];
            const uint32 uIndex = stream.Index(pReply[i].dwUserSeq);
            tagSimRecord* p = stream.Find(uIndex);
            if (!p)
            {
                stream.m_st.ullUnknownSeqs++;
                continue;
            }
            if (p->wAsks == 0)
                p->dwAskedMs = dwNowMs;
            if (p->wAsks < 0xFFFF)
                p->wAsks++;
            stMessage.vecAsked.emplace_back(stream.m_uNumber, uIndex);
        }
        m_stTraffic.ullMessages++;
        m_pRequestIn->Push((int64)dwNowMs * 1000, stPacket);
    }
}

void CSimCall::OnLogLine(UDT_LOG_LEVEL eLevel, const char* pszFunc, const char* pszText, uint32 dwMs)
{
    if (m_stHooks.fnLog && (int)eLevel <= m_stHooks.nLogLevel)
        m_stHooks.fnLog(fmt::format("{:10.3f} {} {}: {}", dwMs / 1000.0, (int)eLevel, pszFunc, pszText));
}

// ---- Results -----------------------------------------------------------------------------------------------------

void CSimCall::Gather(tagSimResult& stResult)
{
    for (size_t i = 0; i < m_vecUsers.size(); i++)
    {
        tagSimUserResult st;
        st.strName = m_vecUsers[i].strName;
        st.llAccount = AccountOf((uint32)i);
        st.dSkewPpm = m_vecUsers[i].dSkewPpm;
        st.avOffset = m_vecUsers[i].avOffset;
        st.llAvSumMs = m_vecUsers[i].llAvSumMs;
        stResult.vecUsers.push_back(st);
    }
    for (const auto& pStream : m_vecStreams)
    {
        pStream->CloseAll();
        tagSimStreamResult st;
        st.uUser = pStream->m_uUser;
        st.nKind = pStream->m_nKind;
        st.uEpoch = pStream->m_uEpoch;
        st.st = pStream->m_st;
        st.stPackets = m_pRun->Checks().Account(pStream->m_uNumber);
        tagSimUserResult& stUser = stResult.vecUsers[st.uUser];
        stUser.vecStreams.push_back(pStream->m_uNumber);
        stUser.stSum.Add(st.st);
        stResult.stSum.Add(st.st);
        stResult.vecStreams.push_back(st);
    }
    stResult.stTraffic = m_stTraffic;
    stResult.rtt = m_rtt;
    stResult.ullPullBacks = m_pRun->Checks().PullBacks();
    stResult.ullScanRequests = m_pRun->Playout().ScanRequests();
    stResult.ullImmediateRequests = m_pRun->Playout().ImmediateRequests();
}

} // namespace lab
