#include "RtpSource.h"

#include <algorithm>

namespace lab
{

CRtpSource::CRtpSource(ICaptureReader& reader, CRtpIntake& intake, bool bKeepBytes)
    : m_reader(reader), m_intake(intake), m_bKeepBytes(bKeepBytes)
{
}

bool CRtpSource::FetchMedia()
{
    while (!m_intake.Pop(m_stMedia))
    {
        if (m_bFlushed)
            return false;
        tagDatagram stDatagram;
        if (m_reader.Next(stDatagram) == EReadResult::Datagram)
            m_intake.Push(stDatagram);
        else // a broken file ends like a whole one; what came before still plays
        {
            m_intake.Flush();
            m_bFlushed = true;
        }
        DrainEvents();
    }
    return true;
}

void CRtpSource::DrainEvents()
{
    tagRtpEvent stEvent;
    while (m_intake.PopEvent(stEvent))
        if (m_fnEvent)
            m_fnEvent(stEvent);
}

bool CRtpSource::Peek(int64& llTimeUs)
{
    if (!m_bThere)
    {
        if (!FetchMedia())
            return false;
        m_bThere = true;
        if (!m_bStarted)
        {
            m_bStarted = true;
            m_ullStartUs = m_stMedia.ullArrivalUs;
        }
        m_llTimeUs = std::max(m_llTimeUs, (int64)(m_stMedia.ullArrivalUs - m_ullStartUs));
    }
    llTimeUs = m_llTimeUs;
    return true;
}

void CRtpSource::Fire(CLabRun& run)
{
    m_bThere = false;
    if (m_stMedia.bClear)
        run.ClearStream(m_stMedia.llAccount, m_stMedia.cSubType, m_llTimeUs);
    CMediaPacket* pPacket = run.NewPacket(m_stMedia.stHead);
    pPacket->Take(m_stMedia, m_bKeepBytes);
    if (m_fnFeed)
        m_fnFeed(m_stMedia, *pPacket, m_llTimeUs);
    run.Feed(pPacket, m_llTimeUs);
}

} // namespace lab
