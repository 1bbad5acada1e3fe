#include "LabRun.h"

#include "Border.h"
#include "RunSeries.h"

#include <cstring>

namespace lab
{

CLabRun::CLabRun(const tagRunOptions& stOptions, IRunObserver& observer)
    : m_ullStartTick(stOptions.ullStartTick), m_observer(observer), m_pSeries(stOptions.pSeries),
      m_clock(stOptions.ullStartTick),
      m_tap(
          stOptions.nLogLevel,
          [this, nLevel = stOptions.nLogLevel](UDT_LOG_LEVEL eLevel, const char* pszFunc, const char* pszText)
          {
              const CBorder border(CBorder::AT_OWNER);
              m_checks.LogLine(pszText);
              if (strcmp(pszFunc, "PrintStatInfo") == 0)
                  m_vecEndReport.push_back(pszText);
              if (m_pSeries)
                  m_pSeries->LogLine(eLevel, pszFunc, pszText, m_clock.Tick());
              if ((int)eLevel <= nLevel)
                  m_observer.OnLogLine(eLevel, pszFunc, pszText, MsSinceStart((uint32)m_clock.Tick()));
          }),
      m_collector(static_cast<IUDTRecvEventCallBack*>(this)),
      m_pRecv(std::make_unique<CAVGUdtRecv>(&m_collector))
{
    if (m_pSeries)
        m_pSeries->Begin(m_ullStartTick);
    m_collector.SetForgetAfter(0); // a run ends
    m_collector.Attach(m_pRecv.get());
    m_checks.SetStartTick((uint32)m_ullStartTick);
    if (stOptions.bLowLatency)
    {
        // A 0 is taken for these two, so the values in force are repeated.
        tagUDTRecvParams stParams;
        stParams.wUdtMode = 1;
        stParams.wOutPutDelay = 200;
        stParams.wPushGopNum = 2;
        m_pRecv->UDTSetRecvParams(stParams);
    }
    m_pRecv->SetOwnerDriven(TRUE);
    m_pRecv->Start();
    m_pRecv->SetRoomState(3);
    // A mode takes effect at the end of a turn's intake. Were the first packet in that turn, its user's playout,
    // not started yet, would count as far behind and begin the whole buffering bound late: so the mode has a
    // turn of its own before there is any user.
    if (stOptions.bLowLatency)
        m_pRecv->RunTurn();
}

CLabRun::~CLabRun() { Stop(); }

CMediaPacket* CLabRun::NewPacket(const tagUdtPacketHeadInfo& stHead)
{
    return new CMediaPacket(stHead, this);
}

void CLabRun::Feed(CMediaPacket* pPacket, int64 llTimeUs)
{
    CScopePtr<UDTCodecBaseDecode_V2> pHeld(pPacket);
    m_clock.MoveTo(m_ullStartTick + (uint64)(llTimeUs / 1000));
    m_checks.Fed(*pPacket, (uint32)m_clock.Tick());
    if (m_pSeries)
    {
        tagSeriesPacket st;
        st.ullAccount = pPacket->u64Uin;
        st.cSubType = pPacket->m_cSubType;
        st.dwSeq = pPacket->dwSenderSeq;
        st.dwMediaMs = pPacket->Head().uTimeStamp;
        st.dwBytes = pPacket->wLen;
        st.bRetransmitted = pPacket->m_stArrival.bRetransmitted;
        m_pSeries->PacketIn(st, m_clock.Tick());
    }
    const CBorder border(CBorder::IN_RECEIVER);
    m_collector.UDTReceiveNetData(pPacket->dwSenderSeq, pPacket->u64Uin, pPacket->dwSeq, pPacket->wTimeStamp,
                                  pPacket->m_cSubType, pPacket, pPacket->m_stArrival);
}

void CLabRun::Turn(int64 llTimeUs)
{
    m_clock.MoveTo(m_ullStartTick + (uint64)(llTimeUs / 1000));
    m_checks.TurnBegins((uint32)m_clock.Tick());
    m_playout.TurnBegins((uint32)m_clock.Tick());
    {
        const CBorder border(CBorder::IN_RECEIVER);
        m_pRecv->RunTurn();
    }
    m_checks.TurnEnds();
    if (m_pSeries && m_pSeries->SampleDue(m_clock.Tick()))
        m_pSeries->Sample(*m_pRecv, m_clock.Tick(), true);
}

void CLabRun::ClearStream(uint64 ullUin, uint8 cSubType, int64 llTimeUs)
{
    m_checks.ClearAsked();
    m_pRecv->ClearRecvChn(ullUin, cSubType);
    // The receiver carries it out after it took what was fed: a packet of the new numbering must not be there yet.
    Turn(llTimeUs);
}

void CLabRun::Stop()
{
    if (!m_pRecv)
        return;
    m_collector.Snapshot(m_stLastStats);
    m_checks.StopBegins();
    m_pRecv->Stop();
    m_collector.Attach(nullptr);
    m_pRecv.reset();
    m_checks.Finish();
    if (m_pSeries)
        m_pSeries->Finish();
}

void CLabRun::Snapshot(tagUdtStats& stStats)
{
    if (m_pRecv)
        m_collector.Snapshot(stStats);
    else
        stStats = m_stLastStats;
}

void CLabRun::PollDownlink()
{
    uint32 dwExpect = 0;
    uint32 dwReal = 0;
    uint32 dwBytes = 0;
    uint32 dwIFrmLostInfo = 0;
    m_pRecv->GetDownPacketRecvInfo(dwExpect, dwReal, dwBytes, dwIFrmLostInfo);
    m_collector.DownlinkPolled(dwExpect, dwReal, dwBytes, dwIFrmLostInfo);
    if (!m_pSeries)
        return;
    tagRecvInfo stInfo;
    m_pRecv->GetRecvInfo(stInfo);
    m_pSeries->Downlink(stInfo.dwCurLossRate, m_clock.Tick());
}

uint32 CLabRun::LiveStreams()
{
    tagRecvInfo stInfo;
    m_pRecv->GetRecvInfo(stInfo);
    return stInfo.dwChnNum;
}

void CLabRun::OnUDTRecvOutData(UDTCodecBaseDecode_V2* pPacket, int* pnDelay)
{
    const CBorder border(CBorder::AT_OWNER);
    CMediaPacket& packet = static_cast<CMediaPacket&>(*pPacket); // nothing else was ever fed
    m_checks.Released(packet);
    *pnDelay = m_observer.OnReleased(packet, (uint32)m_clock.Tick());
    m_playout.Released(*m_pRecv, packet, *pnDelay);
    if (m_pSeries)
        m_pSeries->PacketOut(*m_pRecv->GetReleasing(), *pnDelay, m_clock.Tick());
}

int CLabRun::UdtRecvHandleEvent(WORD wType, uint8* pBuffer, uint32 nBufSize, uint32, uint32)
{
    const CBorder border(CBorder::AT_OWNER);
    if (wType != AVGUdtRecvPacketEvent_LossRequest)
        return 0;
    const tagReplyData* pReply = reinterpret_cast<const tagReplyData*>(pBuffer);
    m_playout.Requested(*m_pRecv, pReply, nBufSize, (uint32)m_clock.Tick());
    m_observer.OnLossRequest(pReply, nBufSize, (uint32)m_clock.Tick());
    if (m_pSeries)
        m_pSeries->Requested(pReply, nBufSize, m_clock.Tick());
    return 0;
}

int CLabRun::UdtParsePacketHeadInfo(uint8* pBuf, UdtPacketHeadInfo& stHead)
{
    memcpy(&stHead, pBuf, sizeof(stHead));
    return 0;
}

void CLabRun::OnPacketGone(CMediaPacket& packet)
{
    const CBorder border(CBorder::AT_OWNER);
    m_checks.Gone(packet);
}

} // namespace lab
