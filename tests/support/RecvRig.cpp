#include "RecvRig.h"

#include "xpmess.h"

#include <cstring>

namespace
{

std::atomic<int> s_nLivePackets{0};

uint32 Tick() { return (uint32)xp_gettickcount(); }

} // namespace

// ---- Packets -------------------------------------------------------------------------------------------------

tagRigPacket AudioPacket(uint64 ullUin, uint32 dwSendSeq)
{
    tagRigPacket stPacket;
    stPacket.ullUin = ullUin;
    stPacket.cSubType = MEAVAudio;
    stPacket.dwSendSeq = dwSendSeq;
    stPacket.stHead.cSubType = MEAVAudio;
    stPacket.stHead.cFrmType = def_FrameType_P;
    stPacket.stHead.cTotalPkgCount = 1;
    stPacket.stHead.uTimeStamp = c_dwRigMediaBase + dwSendSeq * c_dwRigAudioStep;
    return stPacket;
}

tagRigPacket VideoPacket(uint64 ullUin, uint32 dwSendSeq, uint32 dwMediaMs, uint8 cFrmType, uint8 cGopIdx,
                         uint8 cFrmIdx, uint8 cPkgIdx, uint8 cPkgNum, uint8 cSubType)
{
    tagRigPacket stPacket;
    stPacket.ullUin = ullUin;
    stPacket.cSubType = cSubType;
    stPacket.dwSendSeq = dwSendSeq;
    stPacket.wLen = 1000;
    stPacket.stHead.cSubType = cSubType;
    stPacket.stHead.cFrmType = cFrmType;
    stPacket.stHead.cGopIndex = cGopIdx;
    stPacket.stHead.cFrameIndex = cFrmIdx;
    stPacket.stHead.cPkgIndex = cPkgIdx;
    stPacket.stHead.cTotalPkgCount = cPkgNum;
    stPacket.stHead.uTimeStamp = dwMediaMs;
    return stPacket;
}

CRigPacket::CRigPacket(const tagRigPacket& stPacket) : m_stPacket(stPacket)
{
    memcpy(m_aHead, &stPacket.stHead, sizeof(m_aHead));
    wLen = stPacket.wLen;
    u64Uin = stPacket.ullUin;
    dwSenderSeq = stPacket.dwSendSeq;
    bufBody.pbuf = m_aHead;
    bufBody.ulen = sizeof(m_aHead);
    ++s_nLivePackets;
}

CRigPacket::~CRigPacket() { --s_nLivePackets; }

int CRigPacket::Live() { return s_nLivePackets; }

// ---- Owner -----------------------------------------------------------------------------------------------------

void CRigOwner::OnUDTRecvOutData(UDTCodecBaseDecode_V2* pPacket, int* pnDelay)
{
    tagRelease stRelease;
    stRelease.dwTick = Tick();
    stRelease.bNull = pPacket == nullptr;
    if (pPacket != nullptr)
    {
        const tagRigPacket& stPacket = static_cast<CRigPacket*>(pPacket)->m_stPacket;
        stRelease.ullUin = stPacket.ullUin;
        stRelease.cSubType = stPacket.cSubType;
        stRelease.dwSendSeq = stPacket.dwSendSeq;
        stRelease.dwMediaMs = stPacket.stHead.uTimeStamp;
    }
    m_vecReleases.push_back(stRelease);
    if (m_nPlayDelay != 0)
        *pnDelay = m_nPlayDelay;
    if (m_fnOnRelease)
        m_fnOnRelease(stRelease);
}

int CRigOwner::UdtRecvHandleEvent(WORD wType, uint8* pBuffer, uint32 nBufSize, uint32 nSendCount,
                                  uint32 nUdtV2)
{
    tagRequest stRequest;
    stRequest.dwTick = Tick();
    stRequest.wType = wType;
    stRequest.nSendCount = nSendCount;
    stRequest.nUdtV2 = nUdtV2;
    stRequest.vecData.resize(nBufSize);
    for (uint32 i = 0; i < nBufSize; ++i)
        memcpy(&stRequest.vecData[i], pBuffer + i * sizeof(tagReplyData), sizeof(tagReplyData));
    m_vecRequests.push_back(stRequest);
    if (m_fnOnRequest)
        m_fnOnRequest(m_vecRequests.back());
    return -1; // nobody looks at it
}

int CRigOwner::UdtParsePacketHeadInfo(uint8* pBuf, UdtPacketHeadInfo& stHead)
{
    if (m_bReadHead && pBuf != nullptr)
        memcpy(&stHead, pBuf, sizeof(stHead));
    if (m_fnOnParse)
        m_fnOnParse();
    return -1; // nobody looks at it
}

std::vector<uint32> CRigOwner::Sequences(uint64 ullUin, uint8 cSubType) const
{
    std::vector<uint32> vecSeq;
    for (const tagRelease& stRelease : m_vecReleases)
    {
        if (stRelease.ullUin == ullUin && stRelease.cSubType == cSubType)
            vecSeq.push_back(stRelease.dwSendSeq);
    }
    return vecSeq;
}

std::vector<uint32> CRigOwner::ReleaseTicks(uint64 ullUin, uint8 cSubType) const
{
    std::vector<uint32> vecTick;
    for (const tagRelease& stRelease : m_vecReleases)
    {
        if (stRelease.ullUin == ullUin && stRelease.cSubType == cSubType)
            vecTick.push_back(stRelease.dwTick);
    }
    return vecTick;
}

std::vector<uint32> CRigOwner::RequestTicks(uint64 ullUin, uint8 cSubType, uint32 dwSeq) const
{
    std::vector<uint32> vecTick;
    for (const tagRequest& stRequest : m_vecRequests)
    {
        for (const tagReplyData& stData : stRequest.vecData)
        {
            if (stData.ullUserAccount == ullUin && stData.cSubType == cSubType && stData.dwUserSeq == dwSeq)
                vecTick.push_back(stRequest.dwTick);
        }
    }
    return vecTick;
}

void CRigOwner::Forget()
{
    m_vecReleases.clear();
    m_vecRequests.clear();
}

// ---- Log -------------------------------------------------------------------------------------------------------

CLogRecorder::CLogRecorder(UDT_LOG_LEVEL eLevel)
{
    LogSetLevel(eLevel);
    LogSetSink(&CLogRecorder::Sink, this);
}

CLogRecorder::~CLogRecorder()
{
    LogSetSink(nullptr, nullptr);
    LogSetLevel(LOG_LEVEL_ERROR);
}

void CLogRecorder::Sink(void* pCtx, UDT_LOG_LEVEL eLevel, const char* pTag, const char* pFile, int,
                        const char* pFunc, const char* pText)
{
    CLogRecorder& recorder = *static_cast<CLogRecorder*>(pCtx);
    std::lock_guard<std::mutex> lock(recorder.m_lock);
    recorder.m_vecLines.push_back({eLevel, pTag, pFile, pFunc, pText});
}

std::vector<tagLogLine> CLogRecorder::Lines() const
{
    std::lock_guard<std::mutex> lock(m_lock);
    return m_vecLines;
}

std::vector<std::string> CLogRecorder::Texts(const char* pszFunc) const
{
    std::vector<std::string> vecTexts;
    for (const tagLogLine& stLine : Lines())
    {
        if (stLine.strFunc == pszFunc)
            vecTexts.push_back(stLine.strText);
    }
    return vecTexts;
}

size_t CLogRecorder::Count(const char* pszContains) const
{
    size_t nCount = 0;
    for (const tagLogLine& stLine : Lines())
        nCount += stLine.strText.find(pszContains) != std::string::npos ? 1 : 0;
    return nCount;
}

std::string CLogRecorder::First(const char* pszContains) const { return FirstLine(pszContains).strText; }

tagLogLine CLogRecorder::FirstLine(const char* pszContains) const
{
    for (const tagLogLine& stLine : Lines())
    {
        if (stLine.strText.find(pszContains) != std::string::npos)
            return stLine;
    }
    return tagLogLine();
}

void CLogRecorder::Forget()
{
    std::lock_guard<std::mutex> lock(m_lock);
    m_vecLines.clear();
}

// ---- Rig -------------------------------------------------------------------------------------------------------

CRecvRig::CRecvRig(uint64 ullTick, bool bWithOwner)
    : m_clock(ullTick), m_recv(bWithOwner ? &m_owner : nullptr)
{
    m_recv.SetOwnerDriven(TRUE);
}

void CRecvRig::StartPlaying()
{
    m_recv.Start();
    m_recv.SetRoomState(c_dwRoomStatePlaying);
}

void CRecvRig::TurnsUntil(uint64 ullTick, uint32 dwStep)
{
    for (; m_clock.Tick() <= ullTick; m_clock.JumpTo(m_clock.Tick() + dwStep))
        Turn();
    m_clock.JumpTo(ullTick);
}

boolean CRecvRig::Feed(const tagRigPacket& stPacket)
{
    const uint32 dwDownSeq = stPacket.dwDownSeq != 0 ? stPacket.dwDownSeq : m_dwNextDownSeq++;
    CScopePtr<UDTCodecBaseDecode_V2> pData;
    if (!stPacket.bNull)
        pData = new CRigPacket(stPacket);
    return m_recv.UDTReceiveNetData(stPacket.dwSendSeq, stPacket.ullUin, dwDownSeq, stPacket.wTimeStamp,
                                    stPacket.cSubType, pData.p);
}

void CRecvRig::FeedAll(std::initializer_list<tagRigPacket> lstPackets)
{
    for (const tagRigPacket& stPacket : lstPackets)
        Feed(stPacket);
}

tagUinDataBuf* CRecvRig::Stream(uint64 ullUin, uint8 cSubType)
{
    const MapUinInPkt::iterator it = m_recv.m_mapUinInPkt.find(tagInPktKey(ullUin, cSubType));
    return it != m_recv.m_mapUinInPkt.end() ? &it->second : nullptr;
}

tagUinDataInfo* CRecvRig::User(uint64 ullUin)
{
    const MapUinDataInfo::iterator it = m_recv.m_mapUinDataInfo.find(ullUin);
    return it != m_recv.m_mapUinDataInfo.end() ? &it->second : nullptr;
}

tagDataPacket* CRecvRig::Buffered(uint64 ullUin, uint8 cSubType, uint32 dwSendSeq)
{
    tagUinDataBuf* pstStream = Stream(ullUin, cSubType);
    if (pstStream == nullptr)
        return nullptr;
    const MapUdtPacket::iterator it = pstStream->mapUdtPacket.find(dwSendSeq);
    return it != pstStream->mapUdtPacket.end() ? &it->second : nullptr;
}

tagDataPacket& CRecvRig::Put(const tagRigPacket& stPacket)
{
    m_recv.m_mapUinDataInfo[stPacket.ullUin];
    tagUinDataBuf& stStream = m_recv.m_mapUinInPkt[tagInPktKey(stPacket.ullUin, stPacket.cSubType)];
    return stStream.mapUdtPacket[stPacket.dwSendSeq] = Record(stPacket, Now());
}

tagDataPacket CRecvRig::Record(const tagRigPacket& stPacket, uint32 dwRecvTime)
{
    tagDataPacket stRecord;
    stRecord.dwSenderSeq = stPacket.dwSendSeq;
    stRecord.dwTimeStamp = stPacket.stHead.uTimeStamp;
    stRecord.llAccount = stPacket.ullUin;
    stRecord.dwSeq = stPacket.dwDownSeq;
    stRecord.pRawData = new CRigPacket(stPacket);
    stRecord.dwRecvTime = dwRecvTime;
    stRecord.cSubType = stPacket.cSubType;
    stRecord.cGopIdx = stPacket.stHead.cGopIndex;
    stRecord.cFrmIdx = stPacket.stHead.cFrameIndex;
    stRecord.cPkgIndex = stPacket.stHead.cPkgIndex;
    stRecord.cFrmType = stPacket.stHead.cFrmType;
    stRecord.cPkgNum = stPacket.stHead.cTotalPkgCount;
    stRecord.cFecNum = stPacket.stHead.cFecPkgCount;
    stRecord.dwMETimeStamp = stPacket.stHead.uTimeStamp;
    return stRecord;
}
