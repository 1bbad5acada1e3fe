#include "PlainLoss.h"

#include "AVGUDTRecvData.h" // the record that PlainPacket copies; nothing else of it is used here

#include <cstdarg>
#include <cstdio>

namespace
{

// Newer: 1 to 32767 ahead, going round at 2^32.
bool PlainIsNewer(uint32 dwSeq, uint32 dwThan)
{
    const uint64 ullAhead = ((uint64)dwSeq + 4294967296ull - dwThan) % 4294967296ull;
    return ullAhead >= 1 && ullAhead <= 32767;
}

const int c_nPlainError = 4;
const int c_nPlainDebug = 5;

} // namespace

bool tagPlainPacket::operator==(const tagPlainPacket& o) const
{
    return dwId == o.dwId && dwSenderSeq == o.dwSenderSeq && dwTimeStamp == o.dwTimeStamp &&
           dwMETimeStamp == o.dwMETimeStamp && ullUin == o.ullUin && cSubType == o.cSubType &&
           dwRecvTime == o.dwRecvTime && cGopIdx == o.cGopIdx && cFrmIdx == o.cFrmIdx &&
           cPkgIndex == o.cPkgIndex && cFrmType == o.cFrmType && cPkgNum == o.cPkgNum &&
           cFecNum == o.cFecNum && cPrePkgLost == o.cPrePkgLost && cFrmLostNum == o.cFrmLostNum &&
           cIsCalcLost == o.cIsCalcLost && wVidPkgIdxLeft == o.wVidPkgIdxLeft &&
           wLostReqCnt == o.wLostReqCnt && dwLastReqLostTime == o.dwLastReqLostTime;
}

std::string tagPlainPacket::Text() const
{
    char szText[512];
    snprintf(szText, sizeof(szText),
             "id %u seq %u ts %u mets %u uin %llu sub %d recv %u gop %d frm %d pkg %d ft %d num %d fec %d | "
             "lost %d frmlost %d calc %d left %d reqcnt %d lastreq %u",
             dwId, dwSenderSeq, dwTimeStamp, dwMETimeStamp, ullUin, cSubType, dwRecvTime, cGopIdx, cFrmIdx,
             cPkgIndex, cFrmType, cPkgNum, cFecNum, cPrePkgLost, cFrmLostNum, cIsCalcLost, wVidPkgIdxLeft,
             wLostReqCnt, dwLastReqLostTime);
    return szText;
}

tagPlainPacket PlainPacket(const tagDataPacket& stPacket)
{
    tagPlainPacket stPlain;
    stPlain.dwId = stPacket.dwSeq;
    stPlain.dwSenderSeq = stPacket.dwSenderSeq;
    stPlain.dwTimeStamp = stPacket.dwTimeStamp;
    stPlain.dwMETimeStamp = stPacket.dwMETimeStamp;
    stPlain.ullUin = stPacket.llAccount;
    stPlain.cSubType = stPacket.cSubType;
    stPlain.dwRecvTime = stPacket.dwRecvTime;
    stPlain.cGopIdx = stPacket.cGopIdx;
    stPlain.cFrmIdx = stPacket.cFrmIdx;
    stPlain.cPkgIndex = stPacket.cPkgIndex;
    stPlain.cFrmType = stPacket.cFrmType;
    stPlain.cPkgNum = stPacket.cPkgNum;
    stPlain.cFecNum = stPacket.cFecNum;
    stPlain.cPrePkgLost = stPacket.cPrePkgLost;
    stPlain.cFrmLostNum = stPacket.cFrmLostNum;
    stPlain.cIsCalcLost = stPacket.cIsCalcLost;
    stPlain.wVidPkgIdxLeft = stPacket.wVidPkgIdxLeft;
    stPlain.wLostReqCnt = stPacket.wLostReqCnt;
    stPlain.dwLastReqLostTime = stPacket.dwLastReqLostTime;
    return stPlain;
}

void tagPlainStream::File(const tagPlainPacket& stPacket)
{
    size_t i = 0;
    while (i < vecPackets.size() && vecPackets[i].dwSenderSeq < stPacket.dwSenderSeq)
        ++i;
    vecPackets.insert(vecPackets.begin() + (long)i, stPacket);
}

tagPlainStream& CPlainLoss::Stream(uint64 ullUin, uint8 cSubType)
{
    size_t i = 0;
    for (; i < m_vecStreams.size(); ++i)
    {
        const tagPlainStream& st = m_vecStreams[i];
        if (st.ullUin == ullUin && st.cSubType == cSubType)
            return m_vecStreams[i];
        if (st.ullUin > ullUin || (st.ullUin == ullUin && st.cSubType > cSubType))
            break;
    }
    tagPlainStream stNew;
    stNew.ullUin = ullUin;
    stNew.cSubType = cSubType;
    return *m_vecStreams.insert(m_vecStreams.begin() + (long)i, stNew);
}

void CPlainLoss::Line(int nLevel, const char* pszFunc, const char* pszFormat, ...)
{
    char szText[1024];
    va_list args;
    va_start(args, pszFormat);
    vsnprintf(szText, sizeof(szText), pszFormat, args);
    va_end(args);
    m_vecLines.push_back({nLevel, pszFunc, szText});
}

// ---- Detection -------------------------------------------------------------------------------------------------

void CPlainLoss::WalkAll()
{
    for (size_t i = 0; i < m_vecStreams.size(); ++i)
    {
        switch (m_vecStreams[i].cSubType)
        {
        case 1: WalkAudio(m_vecStreams[i]); break;
        case 2:
        case 3:
        case 7: WalkVideo(m_vecStreams[i]); break;
        default: break;
        }
    }
}

uint32 CPlainLoss::WalkAudio(tagPlainStream& stStream)
{
    std::vector<tagPlainPacket>& v = stStream.vecPackets;
    if (v.size() == 0)
        return 0;

    uint32 dwPkgCnt = 0;
    uint32 dwCurTSDelta = 0;
    uint32 dwBigCnt = 0;
    uint32 dwSmallCnt = 0;
    const uint32 dwCalcTSDelta = stStream.dwTimeStampDelta;

    if (v.size() > 1)
    {
        // The head: the second was counted against somebody older, and the first arrived into that gap later.
        const int64 llApart = (int64)v[1].dwSenderSeq - (int64)v[0].dwSenderSeq;
        if ((int64)v[1].cPrePkgLost > llApart - 1 && v[0].cIsCalcLost == 0)
        {
            v[0].cPrePkgLost = (uint8)(((int64)v[1].cPrePkgLost - llApart + 256) % 256);
            v[0].cFrmLostNum = 0;
        }
        v[0].cIsCalcLost = 1;

        for (size_t i = 1; i < v.size(); ++i)
        {
            tagPlainPacket& p = v[i - 1];
            tagPlainPacket& n = v[i];
            dwPkgCnt = dwPkgCnt + 1;
            if (!PlainIsNewer(n.dwSenderSeq, p.dwSenderSeq))
            {
                Line(c_nPlainError, "CalcAudLostInfo",
                     "Err! pkg is out of order: subType %1d preSeq %5d nextSeq %5dUin %llu", n.cSubType,
                     (int)p.dwSenderSeq, (int)n.dwSenderSeq, n.ullUin);
                continue;
            }
            int nLostNum = (int)(n.dwSenderSeq - p.dwSenderSeq) - 1;
            if (nLostNum < 0)
                nLostNum = 0;
            if (n.cIsCalcLost == 1 && n.cPrePkgLost == 0)
                nLostNum = 0;
            n.cPrePkgLost = (uint8)(nLostNum % 256);
            n.cFrmLostNum = 0;
            n.cIsCalcLost = 1;
            if (nLostNum != 0)
                continue;

            if (n.dwTimeStamp >= p.dwTimeStamp)
                dwCurTSDelta = n.dwTimeStamp - p.dwTimeStamp;
            else
                dwCurTSDelta = n.dwTimeStamp + (0xFFFFFFFFu - p.dwTimeStamp);

            if (dwCurTSDelta > dwCalcTSDelta + 15u)
                dwBigCnt = dwBigCnt + 1;
            else
                dwBigCnt = 0;
            if (dwCurTSDelta + 15u < dwCalcTSDelta)
                dwSmallCnt = dwSmallCnt + 1;
            else
                dwSmallCnt = 0;
        }
    }

    if (dwCurTSDelta > 0 && dwCurTSDelta < 85)
    {
        if (dwCalcTSDelta == 0 || dwBigCnt > 2 || dwSmallCnt > 2)
        {
            stStream.dwTimeStampDelta = dwCurTSDelta;
            Line(c_nPlainError, "CalcAudLostInfo",
                 "audio pkg timestamp delta: preSeq %d preTSDelta %d, curTSDelta %d BigCnt %d SmallCnt %d",
                 (int)v.back().dwSenderSeq, (int)dwCalcTSDelta, (int)dwCurTSDelta, (int)dwBigCnt,
                 (int)dwSmallCnt);
        }
    }
    return dwPkgCnt;
}

uint32 CPlainLoss::WalkVideo(tagPlainStream& stStream)
{
    std::vector<tagPlainPacket>& v = stStream.vecPackets;
    if (v.size() == 0)
        return 0;

    tagPlainPacket& first = v[0];
    const int nFirstLeft = (int)first.cPkgNum + (int)first.cFecNum - (int)first.cPkgIndex;
    if (nFirstLeft <= 0)
    {
        Line(c_nPlainError, "CalcVidLostInfo",
             "Pkg num error 1, seq %d p_pkg %d p_fec %d p_pkgidx %d ft %1d fidx %3d gidx %3d",
             (int)first.dwSenderSeq, first.cPkgNum, first.cFecNum, first.cPkgIndex, first.cFrmType,
             first.cFrmIdx, first.cGopIdx);
        return 0xFFFFFFFFu;
    }
    first.wVidPkgIdxLeft = (uint16)(nFirstLeft - 1);
    if (v.size() == 1)
        return 0;

    const int64 llApart = (int64)v[1].dwSenderSeq - (int64)first.dwSenderSeq;
    if ((int64)v[1].cPrePkgLost > llApart - 1 && first.cIsCalcLost == 0)
    {
        const uint8 cStill = (uint8)(((int64)v[1].cPrePkgLost - llApart + 256) % 256);
        first.cPrePkgLost = cStill;
        first.cFrmLostNum = cStill;
    }
    first.cIsCalcLost = 1;

    uint32 dwFrmLostNum = first.cFrmLostNum;
    uint32 dwPreSeq = first.dwSenderSeq;
    int nPreGopIdx = first.cGopIdx;
    int nPreFrmIdx = first.cFrmIdx;
    int nPrePkgIdxLeft = nFirstLeft - 1;
    uint32 dwPkgCnt = 0;
    std::vector<uint32> vecLossSeq;

    for (size_t i = 1; i < v.size(); ++i)
    {
        tagPlainPacket& n = v[i];

        // Count check.
        const int nLeft = (int)n.cPkgNum + (int)n.cFecNum - (int)n.cPkgIndex;
        if (nLeft <= 0)
        {
            Line(c_nPlainError, "CalcVidLostInfo",
                 "Pkg num error 2, seq %d p_pkg %d p_fec %d p_pkgidx %d ft %1d fidx %3d gidx %3d",
                 (int)n.dwSenderSeq, n.cPkgNum, n.cFecNum, n.cPkgIndex, n.cFrmType, n.cFrmIdx, n.cGopIdx);
            continue;
        }
        n.wVidPkgIdxLeft = (uint16)(nLeft - 1);

        // Order check.
        if (!PlainIsNewer(n.dwSenderSeq, dwPreSeq))
        {
            Line(c_nPlainError, "CalcVidLostInfo",
                 "Err! pkg is out of order: subType %1d preSeq %5d nextSeq %5d ft %1d gIdx %2d fIdx %2d pIdx "
                 "%2d Uin %llu",
                 n.cSubType, (int)dwPreSeq, (int)n.dwSenderSeq, n.cFrmType, n.cGopIdx, n.cFrmIdx, n.cPkgIndex,
                 n.ullUin);
        }
        else
        {
            const int nLost = (int)(n.dwSenderSeq - dwPreSeq) - 1;
            const bool bFrmIdxChanged = n.cFrmIdx != nPreFrmIdx || n.cGopIdx != nPreGopIdx;

            // To be treated as lost.
            int nLostNum = 0;
            if (nLost > 0 && bFrmIdxChanged)
            {
                if (nPrePkgIdxLeft == 0 && m_dwServPushGopNum >= stStream.dwVidGopCnt)
                {
                    nLostNum = n.cPkgIndex;
                }
                else if (nLost >= 101)
                {
                    nLostNum = 100;
                    Line(c_nPlainError, "CalcVidLostInfo",
                         "Lost %3d is bigger than 100, curSeq %5d preSeq %5d preGIdx %2d preFIdx %2d curGIdx "
                         "%2d curFIdx %2d",
                         nLost, (int)n.dwSenderSeq, (int)dwPreSeq, nPreGopIdx, nPreFrmIdx, n.cGopIdx,
                         n.cFrmIdx);
                }
                else
                {
                    nLostNum = nLost;
                }
            }
            else
            {
                nLostNum = nLost;
                if (nLostNum > 255)
                    nLostNum = 255;
                if (nLostNum < 0)
                    nLostNum = 0;
            }

            // The first run of P frames.
            if (n.cFrmType == 1 || n.cFrmType == 2)
            {
                if (stStream.dwPFrmCnt == 0)
                    stStream.dwPFrmCnt = 1;
            }
            else
            {
                if (stStream.dwPFrmCnt == 1)
                    stStream.dwPFrmCnt = 2;
            }
            if (stStream.dwPFrmCnt == 1)
                nLostNum = 0;

            // Once found without loss.
            if (n.cIsCalcLost == 1 && n.cPrePkgLost == 0)
                nLostNum = 0;

            // Of its frame.
            if (bFrmIdxChanged)
                dwFrmLostNum = n.cPkgIndex;
            else
                dwFrmLostNum = dwFrmLostNum + (uint32)nLostNum;
            n.cPrePkgLost = (uint8)nLostNum;
            n.cFrmLostNum = (uint8)(dwFrmLostNum % 256);
            n.cIsCalcLost = 1;

            // Gather for an I frame.
            if (nLostNum > 0 && n.cFrmType == 0 && n.wLostReqCnt == 0)
            {
                for (int nBack = 1; nBack <= nLostNum; ++nBack)
                    vecLossSeq.push_back(n.dwSenderSeq - (uint32)nBack);
                n.wLostReqCnt = (uint16)(n.wLostReqCnt + 1);
            }
        }

        // Flush.
        if (n.cFrmType != 0 && vecLossSeq.size() != 0)
        {
            std::vector<tagPlainAsked> vecAsked;
            for (size_t k = 0; k < vecLossSeq.size(); ++k)
                vecAsked.push_back({n.ullUin, n.cSubType, vecLossSeq[k]});
            Ask(vecAsked);
            vecLossSeq.clear();
        }

        dwPkgCnt = dwPkgCnt + 1;
        dwPreSeq = n.dwSenderSeq;
        nPreGopIdx = n.cGopIdx;
        nPreFrmIdx = n.cFrmIdx;
        nPrePkgIdxLeft = nLeft - 1;
    }
    return dwPkgCnt;
}

// ---- Requests ----------------------------------------------------------------------------------------------------

void CPlainLoss::Ask(const std::vector<tagPlainAsked>& vecAsked)
{
    if (!m_bRequestsOn)
        return;
    if (vecAsked.size() == 0)
        return;
    m_vecRequests.push_back(vecAsked);
}

void CPlainLoss::Scan(uint32 dwNow)
{
    // The first-request delay in force.
    uint32 dwFirstDelay = 0;
    if (m_dwWarmUpStart == 0)
        m_dwWarmUpStart = dwNow;
    if (m_dwWarmUpOver == 0)
    {
        if ((uint32)(dwNow - m_dwWarmUpStart) < 2000u)
        {
            dwFirstDelay = 300;
        }
        else
        {
            dwFirstDelay = m_dwFirstGetTime;
            m_dwWarmUpOver = 1;
            m_dwWarmUpStart = dwNow;
        }
    }
    else
    {
        dwFirstDelay = m_dwFirstGetTime;
        m_dwWarmUpOver = 1;
        m_dwWarmUpStart = dwNow;
    }

    // The gate.
    if (m_dwLastScan == 0)
        m_dwLastScan = dwNow;
    if ((uint32)(dwNow - m_dwLastScan) < 50u)
        return;
    m_dwLastScan = dwNow;

    // The interval in force.
    const uint32 dwMinInterval = m_dwRequestInterval < 400u ? m_dwRequestInterval : 400u;
    uint32 dwInterval = m_dwRTT < m_dwRequestInterval ? m_dwRTT : m_dwRequestInterval;
    if (dwInterval < dwMinInterval)
        dwInterval = dwMinInterval;

    std::vector<tagPlainAsked> vecAll;
    for (size_t i = 0; i < m_vecStreams.size(); ++i)
    {
        tagPlainStream& stStream = m_vecStreams[i];
        if (m_mapTimelineOut.count(stStream.ullUin) == 0)
        {
            Line(c_nPlainError, "CheckTimeOutNew", "There should not reach unless before close!");
            break;
        }
        std::vector<tagPlainAsked> vecOfStream;
        ScanStream(stStream, m_mapTimelineOut[stStream.ullUin], dwNow, dwFirstDelay, dwInterval, vecOfStream);
        for (size_t k = 0; k < vecOfStream.size(); ++k)
            vecAll.push_back(vecOfStream[k]);
    }
    Ask(vecAll);
}

void CPlainLoss::ScanStream(tagPlainStream& stStream, uint32 dwTimelineOut, uint32 dwNow, uint32 dwFirstDelay,
                            uint32 dwInterval, std::vector<tagPlainAsked>& vecAsked)
{
    size_t i = 0;
    while (i < stStream.vecPackets.size())
    {
        tagPlainPacket& a = stStream.vecPackets[i];
        const uint32 dwCurSeq = a.dwSenderSeq;
        if (a.cPrePkgLost != 0)
        {
            int nInRequestFlag = 0;
            const uint32 dwElapsed = dwNow - a.dwRecvTime;
            if (dwElapsed <= dwFirstDelay)
            {
                if (a.wLostReqCnt == 0)
                    nInRequestFlag = 1;
            }
            else
            {
                if (a.wLostReqCnt < 3)
                    nInRequestFlag = 1;
                else if ((uint32)(dwNow - a.dwLastReqLostTime) >= dwInterval)
                    nInRequestFlag = 1;
            }
            if (nInRequestFlag == 1 && a.dwMETimeStamp > dwTimelineOut)
            {
                uint32 seq = dwCurSeq - a.cPrePkgLost;
                Line(c_nPlainDebug, "CheckTimeOutNew",
                     "request: subtype %1d preLost %2d LostStartSeq %5d curSeq %5d pkgN %2d fecN %2d ft %1d "
                     "fidx %2d gidx %2d PkgIdxLeft %2d ReqCnt %2d",
                     a.cSubType, a.cPrePkgLost, (int)seq, (int)dwCurSeq, a.cPkgNum, a.cFecNum, a.cFrmType,
                     a.cFrmIdx, a.cGopIdx, a.wVidPkgIdxLeft, a.wLostReqCnt);
                for (int nCnt = 0; nCnt < a.cPrePkgLost; ++nCnt)
                {
                    if (vecAsked.size() > 9999)
                        break;
                    vecAsked.push_back({stStream.ullUin, stStream.cSubType, seq});
                    stStream.mapRequestSeq[seq] = dwNow;
                    seq = seq + 1;
                }
                a.wLostReqCnt = (uint16)(a.wLostReqCnt + 1);
                a.dwLastReqLostTime = dwNow;
            }
        }
        if (vecAsked.size() >= 100)
        {
            Line(c_nPlainError, "CheckTimeOutNew", "lossSeqVector subtype %1d size %d is larger than 100",
                 a.cSubType, (int)vecAsked.size());
        }
        i = i + 1;
        if (i < stStream.vecPackets.size() && vecAsked.size() >= 31)
            break;
    }
}

void CPlainLoss::CheckFailed(uint32 dwNow)
{
    if (m_dwLastFailCheck == 0)
    {
        m_dwLastFailCheck = dwNow;
        return;
    }
    if ((uint32)(dwNow - m_dwLastFailCheck) < 4001u)
        return;
    m_dwLastFailCheck = dwNow;

    for (size_t i = 0; i < m_vecStreams.size(); ++i)
    {
        tagPlainStream& stStream = m_vecStreams[i];
        uint32 dwStartSeq = 0;
        uint32 dwEndSeq = 0;
        uint32 dwPkgNum = 0;
        std::map<uint32, uint32> mapLeft;
        for (const auto& stAsked : stStream.mapRequestSeq)
        {
            if ((uint32)(dwNow - stAsked.second) > m_dwTimelineDeltaMax)
            {
                dwEndSeq = stAsked.first;
                if (dwStartSeq == 0)
                    dwStartSeq = stAsked.first;
                dwPkgNum = dwPkgNum + 1;
            }
            else
            {
                mapLeft.insert(stAsked);
            }
        }
        stStream.mapRequestSeq = mapLeft;
        if (dwPkgNum > 0)
        {
            stStream.dwTotalReqFailNum = stStream.dwTotalReqFailNum + dwPkgNum;
            Line(c_nPlainError, "CheckPkgRequestFail",
                 "CheckPkgRequestFail: subtype %1d curNum %3d totalNum %5d stSeq %5d endSeq %5d curSize %3d "
                 "Uin %llu",
                 stStream.cSubType, (int)dwPkgNum, (int)stStream.dwTotalReqFailNum, (int)dwStartSeq,
                 (int)dwEndSeq, (int)mapLeft.size(), stStream.ullUin);
        }
    }
}
