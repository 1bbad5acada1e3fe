// The way of a datagram: told apart (STUN and the like, RTCP, RTP), filed under its SSRC, numbered, placed on its
// user's timeline, and held until its frame is known. In: Scan and Push. Out: Pop and PopEvent. One thread at a
// time; nothing here reads a clock.
#include "RtpIntake.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <deque>
#include <map>
#include <set>

#include "RtpContinuity.h"
#include "RtpDownlink.h"
#include "RtpFrames.h"
#include "RtpLearn.h"
#include "RtpPacket.h"
#include "RtpPayload.h"
#include "RtpStat.h"
#include "RtpUnwrap.h"

namespace
{
// Media time of a user's first packet. Large enough that media from before it, which comes late or was sent earlier
// by the other stream, still has a time above 0.
const int64_t c_llFirstMediaMs = 100000;
// Sender reports that would put two streams of a user further apart than their arrivals by this much come from two
// clocks: arrival places better then.
const int64_t c_llMaxSrSkewUs = 10000000;
// Live: how long a packet that says nothing about its frame's type waits for one that does.
const uint64 c_ullTypeWaitUs = 5000;
const size_t c_nMaxHeard = 4096;      // SSRCs of which RTCP is remembered
const size_t c_nMaxTransports = 64;   // address pairs looked at for the transport-wide sequence
const size_t c_nMaxRtxOriginals = 64; // streams an RTX candidate is tested against
const uint32 c_dwTransportSeqLeast = 20;
const size_t c_nGuessPackets = 10; // a guess by pattern needs as many
const size_t c_nMaxHeldBytes = 32768;
// A new SSRC goes on with the stream of one that the same source has stopped to send: when that one was silent so long
// (BYE: at once), and, where no CNAME tells that they are one, no longer than this ago.
const uint64 c_ullReplacedUs = 200000;
const uint64 c_ullReplacedLatestUs = 10000000;
const uint64 c_ullReplacedReorderUs =
    50000; // an old packet that came this late does not show that it goes on
// A sender that begins anew after so long: what the receiver had of the old was played, even with a long delay, and what
// it still knows of it (gaps, frames, duplicates) is of no use.
const int64_t c_llClearUs = 2000000;
const size_t c_nMaxReplacedBytes = 262144; // held while it is not clear
// A user from whom nothing comes: the receiver's clock runs at three quarters of real time while it has nothing to
// play, until it forgets him. A sender that begins anew is placed where that clock will be, a little early.
const int64_t c_llAwayUs = 1000000;
const int64_t c_llForgottenUs = 6000000;
const int64_t c_llAheadUs = 350000;
const size_t c_nMaxGuesses = 4096;

// What RTCP told about an SSRC.
struct tagHeard
{
    std::string strCname;
    bool bSr = false;
    int64_t llNtpUs = 0; // of the first sender report (offline), of the latest before the stream began (live)
    uint32 dwSrTs = 0;
    bool bBye = false;
};

// A user's timeline: the first of his streams lays it, the others are placed on it.
struct tagUser
{
    uint64 ullFirstUs = 0; // arrival of his first packet, at media time 0 us
    bool bSr = false;      // a stream with sender reports was placed
    int64_t llNtpUs = 0;   // wall clock at media time llSrUs
    int64_t llSrUs = 0;
    std::set<uint8> setSubTypes;
    int64_t llLastUs = 0; // arrival of his newest packet, on his timeline
    int64_t llBackUs = 0; // he was away until then, for so long
    int64_t llAwayUs = 0;
};

// What the receiver knows as one stream: an SSRC's packets, and those of the SSRC that follows it.
struct tagTrack
{
    CRtpContinuity continuity;
    CRtpSeqWindow window;                // handed out, RTX answers too
    std::unique_ptr<CRtpFrames> pFrames; // video
    tagUser* pUser = nullptr;
    uint32 dwClock = 0;
    uint32 dwFirstTs = 0;
    uint32 dwStream = 0;                              // the SSRC that sends now
    std::deque<std::pair<uint32, uint32>> dequeSsrcs; // from which restart on which SSRC
};

// A packet that waits for the next of its stream: it may begin a new numbering.
struct tagHeld
{
    tagRtpDatagram stDatagram;
    std::vector<uint8> vecBytes;
};

struct tagStream
{
    tagRtpStreamInfo stInfo;
    tagRtpKey stKey;
    uint32 dwIndex = 0;
    emRtpPayloadForm eForm = RTP_FORM_OTHER;
    uint32 dwClock = 0;
    CRtpStat stat;
    CRtpDownlink::CLane lane;
    // Media streams
    std::shared_ptr<tagTrack> pTrack;
    std::unique_ptr<tagHeld> pHeld;
    bool bFollows = false;    // its first packet is the first of a new numbering
    int64_t llFollowedUs = 0; // then: when the other's last packet came
    bool bSpokeAgain = false; // replaced, and yet a packet came that is not late
    // RTX
    bool bOriginalKnown = false;
    uint32 dwOriginalSsrc = 0;
};

// A packet that waits for its frame.
struct tagWaiting
{
    tagRtpMedia stMedia;
    int64_t llSeq = 0;
    std::shared_ptr<tagRtpFrame> pFrame; // null: nothing to wait for
    CRtpFrames* pFrames = nullptr;
};

// An SSRC that was seen but is not a stream yet, with the packets that wait for it to become one.
struct tagCandidate
{
    CRtpLearn learn;
    uint64 ullOrder = 0; // of its first packet among all candidates
    std::vector<tagHeld> vecHeld;
};

struct tagTransport
{
    tagRtpAddr stSrc;
    tagRtpAddr stDst;
    bool operator<(const tagTransport& stOther) const
    {
        return !(stSrc == stOther.stSrc) ? stSrc < stOther.stSrc : stDst < stOther.stDst;
    }
};

// How an extension element of two bytes goes on from packet to packet of one transport.
struct tagExtCount
{
    bool bSeen = false;
    uint16 wLast = 0;
    uint32 dwPairs = 0;
    uint32 dwSteps = 0; // pairs a little forward or back, as a count of packets goes
};

size_t HeldBytes(const tagCandidate& stCandidate)
{
    size_t nBytes = 0;
    for (const tagHeld& stHeld : stCandidate.vecHeld)
        nBytes += stHeld.vecBytes.size();
    return nBytes;
}

int64_t NtpToUs(uint64 ullNtp)
{
    return (int64_t)(ullNtp >> 32) * 1000000 + (int64_t)(((ullNtp & 0xFFFFFFFF) * 1000000) >> 32);
}
} // namespace

class CRtpIntakeImpl
{
public:
    explicit CRtpIntakeImpl(const tagRtpOptions& stOptions);

    void Scan(const tagRtpDatagram& stDatagram);
    void EndScan();
    void Push(const tagRtpDatagram& stDatagram);
    bool Pop(tagRtpMedia& stMedia);
    void Advance(uint64 ullNowUs) { m_ullNewestUs = std::max(m_ullNewestUs, ullNowUs); }
    void Flush();
    bool PopEvent(tagRtpEvent& stEvent);
    tagRtpStreamInfo Stream(uint32 dwStream) const;
    bool RtpSequence(uint32 dwStream, uint32 dwSendSeq, uint32& dwSsrc, uint16& wSeq) const;

    std::vector<std::unique_ptr<tagStream>> m_vecStreams;
    tagRtpTotals m_stTotals;
    std::vector<std::string> m_vecGuesses;

private:
    // Telling datagrams apart
    bool TellApart(const tagRtpDatagram& stDatagram, tagRtpHeader& stHeader, bool& bRtcp,
                   tagRtpTotals& stTotals) const;
    void Drop(emRtpDrop eReason) { m_stTotals.aDrops[eReason]++; }

    // Learning
    tagCandidate* Candidate(const tagRtpKey& stKey);
    void Learn(tagCandidate& stCandidate, const tagRtpDatagram& stDatagram, const tagRtpHeader& stHeader);
    void LearnTransportSeq(const tagRtpDatagram& stDatagram, const tagRtpHeader& stHeader);
    void Hear(const tagRtpEvent& stEvent, bool bFirstSr);
    void Guessed(const std::string& strLine);

    // Streams
    tagStream* FindStream(uint32 dwSsrc, const tagRtpAddr& stDst);
    tagStream* FindOriginal(tagStream& stRtx);
    int StreamOf(uint32 dwSsrc) const;
    tagStream& Begin(const tagRtpKey& stKey, const CRtpLearn& learn, const tagRtpDatagram& stDatagram,
                     const tagRtpHeader& stHeader, tagStream* pFollowed);
    void Format(tagStream& stStream, const CRtpLearn& learn);
    void Settle(tagStream& stStream, const tagRtpDatagram& stDatagram, uint32 dwFirstTs);
    enum emFollows
    {
        FOLLOWS_NONE,
        FOLLOWS_PERHAPS, // to be seen from what comes next
        FOLLOWS
    };
    emFollows Followed(const tagRtpKey& stKey, const tagCandidate& stCandidate,
                       const tagRtpDatagram& stDatagram, uint8 cPt, tagStream*& pFollowed) const;
    void Follow(tagStream& stStream, tagStream& stFollowed, const tagRtpDatagram& stDatagram,
                const tagRtpHeader& stHeader);

    // Packets
    void OnRtcp(const tagRtpDatagram& stDatagram);
    void OnRtp(const tagRtpDatagram& stDatagram, const tagRtpHeader& stHeader);
    void OnStreamPacket(tagStream& stStream, const tagRtpDatagram& stDatagram, const tagRtpHeader& stHeader);
    bool UnwrapRtx(tagStream& stRtx, const tagRtpDatagram& stDatagram, const tagRtpHeader& stHeader,
                   tagStream*& pOriginal, tagRtpHeader& stOriginal, CRtpContinuity::tagPlace& stPlace);
    CRtpDownlink::CLane& Lane(tagStream& stStream, const tagRtpDatagram& stDatagram,
                              const tagRtpHeader& stHeader, uint16& wSeq);
    void OnMediaPacket(tagStream& stStream, const tagRtpDatagram& stDatagram, const tagRtpHeader& stHeader);
    bool OnReplaced(tagStream& stStream, const CRtpContinuity::tagWire& stWire,
                    const tagRtpDatagram& stDatagram, const tagRtpHeader& stHeader);
    void DropStray(tagStream& stStream, const tagRtpDatagram& stDatagram, const tagRtpHeader& stHeader);
    void DropHeld(tagStream& stStream);
    CRtpContinuity::tagWire Wire(const tagStream& stStream, const tagRtpDatagram& stDatagram,
                                 const tagRtpHeader& stHeader) const;
    static void NoteArrival(tagUser& stUser, int64_t llArrivalUs);
    static int64_t Lag(const tagTrack& track);
    void PlaceHeld(tagStream& stStream, emRtpRestart eRestart, int64_t llLastUs);
    bool Restarted(tagStream& stStream, emRtpRestart eRestart, int64_t llLastUs,
                   const CRtpContinuity::tagWire& stWire);
    void PlaceMedia(tagStream& stStream, const tagRtpDatagram& stDatagram, const tagRtpHeader& stHeader,
                    const CRtpContinuity::tagPlace& stPlace, emRtpRestart eRestart, bool bClear);
    void Place(tagStream& stStream, const tagRtpDatagram& stDatagram, const tagRtpHeader& stHeader,
               std::vector<uint8> vecRtp, bool bByRtx, uint32 dwDownSeq,
               const CRtpContinuity::tagPlace& stPlace, emRtpRestart eRestart, bool bClear);
    bool IsConfirmed(const tagCandidate& stCandidate, uint8 cPt) const;
    bool IsReady(const tagWaiting& stWaiting) const;

    const tagRtpOptions m_stOptions;
    bool m_bScanned = false;
    bool m_bFlushed = false;
    uint64 m_ullNewestUs = 0;

    std::map<tagRtpKey, tagCandidate> m_mapCandidates;
    uint64 m_ullCandidates = 0;
    size_t m_nUnconfirmed = 0;
    std::map<uint32, tagHeard> m_mapHeard;
    std::map<tagTransport, std::map<uint32, tagExtCount>> m_mapExtCounts;
    int m_nTransportSeqId = 0; // 0: not used

    std::map<tagRtpKey, uint32> m_mapStreams;
    std::map<uint32, uint32> m_mapStreamOfSsrc; // the first stream of an SSRC
    std::map<uint64, tagUser> m_mapUsers;
    CRtpDownlink m_downlink;
    std::map<tagTransport, CRtpDownlink::CLane> m_mapTransportLanes;
    std::deque<tagWaiting> m_dequeOut;
    std::deque<tagRtpEvent> m_dequeEvents;
    CRtcpReader m_rtcp;
    std::vector<tagRtpEvent> m_vecEvents; // of one datagram
};

CRtpIntakeImpl::CRtpIntakeImpl(const tagRtpOptions& stOptions)
    : m_stOptions(stOptions), m_nTransportSeqId(std::max(stOptions.nTransportSeqId, 0))
{
}

// ---- Telling datagrams apart ----

// RFC 7983 for what may share the port, RFC 5761 for RTCP.
bool CRtpIntakeImpl::TellApart(const tagRtpDatagram& stDatagram, tagRtpHeader& stHeader, bool& bRtcp,
                               tagRtpTotals& stTotals) const
{
    stTotals.ullDatagrams++;
    bRtcp = false;
    if (stDatagram.pData == nullptr || stDatagram.dwCaptured == 0)
    {
        stTotals.aDrops[RTP_DROP_EMPTY]++;
        return false;
    }
    const uint8 cFirst = stDatagram.pData[0];
    if ((cFirst >> 6) != 2)
    {
        const emRtpDrop eReason = cFirst <= 3                    ? RTP_DROP_STUN
                                  : cFirst >= 20 && cFirst <= 63 ? RTP_DROP_DTLS
                                  : cFirst >= 64 && cFirst <= 79 ? RTP_DROP_TURN_CHANNEL
                                                                 : RTP_DROP_NOT_RTP;
        stTotals.aDrops[eReason]++;
        return false;
    }
    if (IsRtcp(stDatagram.pData, stDatagram.dwCaptured))
    {
        bRtcp = true;
        return true;
    }
    emRtpDrop eReason = RTP_DROP_NOT_RTP;
    if (!ParseRtp(stDatagram.pData, stDatagram.dwCaptured, stDatagram.dwWire, stHeader, eReason))
    {
        stTotals.aDrops[eReason]++;
        return false;
    }
    return true;
}

// ---- Learning ----

void CRtpIntakeImpl::Scan(const tagRtpDatagram& stDatagram)
{
    m_bScanned = true;
    tagRtpTotals stIgnored;
    tagRtpHeader stHeader;
    bool bRtcp = false;
    if (!TellApart(stDatagram, stHeader, bRtcp, stIgnored))
        return;
    if (bRtcp)
    {
        m_vecEvents.clear();
        m_rtcp.Read(stDatagram.pData, stDatagram.dwCaptured, m_vecEvents, stIgnored);
        for (const tagRtpEvent& stEvent : m_vecEvents)
            Hear(stEvent, true);
        return;
    }
    const tagRtpKey stKey{stHeader.dwSsrc, stDatagram.stDst};
    if (tagCandidate* pCandidate = Candidate(stKey))
        Learn(*pCandidate, stDatagram, stHeader);
    if (m_stOptions.nTransportSeqId < 0)
        LearnTransportSeq(stDatagram, stHeader);
}

void CRtpIntakeImpl::EndScan()
{
    m_bScanned = true;
    std::map<uint32, tagExtCount> mapSum;
    for (const auto& itTransport : m_mapExtCounts)
    {
        for (const auto& itId : itTransport.second)
        {
            mapSum[itId.first].dwPairs += itId.second.dwPairs;
            mapSum[itId.first].dwSteps += itId.second.dwSteps;
        }
    }
    uint32 dwBest = 0;
    for (const auto& itId : mapSum)
    {
        const tagExtCount& st = itId.second;
        if (st.dwPairs >= c_dwTransportSeqLeast && st.dwSteps * 20ull >= st.dwPairs * 19ull &&
            st.dwSteps > dwBest)
        {
            dwBest = st.dwSteps;
            m_nTransportSeqId = (int)itId.first;
        }
    }
    if (dwBest > 0)
    {
        char szText[160];
        std::snprintf(szText, sizeof(szText),
                      "extension id %d: detected as transport-wide sequence (%u of %u steps count packets)",
                      m_nTransportSeqId, dwBest, mapSum[(uint32)m_nTransportSeqId].dwPairs);
        Guessed(szText);
    }
    m_mapExtCounts.clear();
}

// The record of an SSRC that is no stream yet. When too many are on probation, the oldest gives way: noise makes
// many SSRCs of one packet each, a stream soon has a second.
tagCandidate* CRtpIntakeImpl::Candidate(const tagRtpKey& stKey)
{
    const auto it = m_mapCandidates.find(stKey);
    if (it != m_mapCandidates.end())
        return &it->second;
    if (m_nUnconfirmed >= std::max<size_t>(m_stOptions.dwMaxCandidates, 1))
    {
        auto itOldest = m_mapCandidates.end();
        for (auto itCandidate = m_mapCandidates.begin(); itCandidate != m_mapCandidates.end(); ++itCandidate)
        {
            if (!itCandidate->second.learn.Alive() &&
                (itOldest == m_mapCandidates.end() ||
                 itCandidate->second.ullOrder < itOldest->second.ullOrder))
                itOldest = itCandidate;
        }
        if (itOldest != m_mapCandidates.end())
        {
            m_stTotals.aDrops[RTP_DROP_SSRC_UNCONFIRMED] += itOldest->second.vecHeld.size();
            m_mapCandidates.erase(itOldest);
            m_nUnconfirmed--;
        }
    }
    if (m_mapCandidates.size() >= (size_t)m_stOptions.dwMaxStreams + m_stOptions.dwMaxCandidates)
        return nullptr;
    tagCandidate& stNew = m_mapCandidates[stKey];
    stNew.ullOrder = m_ullCandidates++;
    m_nUnconfirmed++;
    return &stNew;
}

void CRtpIntakeImpl::Learn(tagCandidate& stCandidate, const tagRtpDatagram& stDatagram,
                           const tagRtpHeader& stHeader)
{
    const uint8* pPayload = stDatagram.pData + stHeader.dwHeadLen;
    const bool bWasAlive = stCandidate.learn.Alive();
    stCandidate.learn.OnPacket(stHeader, pPayload, stDatagram.ullArrivalUs);
    if (!bWasAlive && stCandidate.learn.Alive())
        m_nUnconfirmed--;

    if (stHeader.dwCaptured < 2 || stCandidate.learn.RtxTests() >= CRtpLearn::c_dwRtxTests ||
        RtpStaticFormat(stHeader.cPt) != nullptr)
        return;
    stCandidate.learn.CountRtxTest();
    size_t nTested = 0;
    for (const auto& itOther : m_mapCandidates)
    {
        if (&itOther.second == &stCandidate || !itOther.second.learn.Alive())
            continue;
        stCandidate.learn.TestRtx(stHeader, pPayload, itOther.first.dwSsrc, itOther.second.learn);
        if (++nTested == c_nMaxRtxOriginals)
            break;
    }
}

void CRtpIntakeImpl::LearnTransportSeq(const tagRtpDatagram& stDatagram, const tagRtpHeader& stHeader)
{
    if (stHeader.dwExtLen == 0)
        return;
    const tagTransport stTransport{stDatagram.stSrc, stDatagram.stDst};
    if (m_mapExtCounts.size() >= c_nMaxTransports && m_mapExtCounts.count(stTransport) == 0)
        return;
    std::map<uint32, tagExtCount>& mapCounts = m_mapExtCounts[stTransport];
    ForEachExtension(stDatagram.pData, stHeader,
                     [&mapCounts](uint32 dwId, const uint8* pData, uint32 dwLen)
                     {
                         if (dwLen != 2)
                             return;
                         tagExtCount& st = mapCounts[dwId];
                         const uint16 wValue = (uint16)(pData[0] << 8 | pData[1]);
                         const int16_t nStep = (int16_t)(uint16)(wValue - st.wLast);
                         if (st.bSeen)
                         {
                             st.dwPairs++;
                             st.dwSteps += nStep != 0 && nStep > -64 && nStep < 64 ? 1 : 0;
                         }
                         st.bSeen = true;
                         st.wLast = wValue;
                     });
}

void CRtpIntakeImpl::Hear(const tagRtpEvent& stEvent, bool bFirstSr)
{
    if (stEvent.eType != RTP_EVENT_SR && stEvent.eType != RTP_EVENT_CNAME && stEvent.eType != RTP_EVENT_BYE)
        return;
    auto it = m_mapHeard.find(stEvent.dwSenderSsrc);
    if (it == m_mapHeard.end())
    {
        if (m_mapHeard.size() >= c_nMaxHeard)
            return;
        it = m_mapHeard.emplace(stEvent.dwSenderSsrc, tagHeard()).first;
    }
    tagHeard& stHeard = it->second;
    if (stEvent.eType == RTP_EVENT_CNAME && (stHeard.strCname.empty() || !bFirstSr))
        stHeard.strCname = stEvent.strCname;
    // NTP 0 says that the sender has no wall clock.
    if (stEvent.eType == RTP_EVENT_SR && stEvent.ullNtp != 0 && (!stHeard.bSr || !bFirstSr))
    {
        stHeard.bSr = true;
        stHeard.llNtpUs = NtpToUs(stEvent.ullNtp);
        stHeard.dwSrTs = stEvent.dwRtpTs;
    }
}

void CRtpIntakeImpl::Guessed(const std::string& strLine)
{
    if (m_vecGuesses.size() < c_nMaxGuesses)
        m_vecGuesses.push_back(strLine);
}

// ---- Streams ----

tagStream* CRtpIntakeImpl::FindStream(uint32 dwSsrc, const tagRtpAddr& stDst)
{
    const auto it = m_mapStreams.find(tagRtpKey{dwSsrc, stDst});
    return it == m_mapStreams.end() ? nullptr : m_vecStreams[it->second].get();
}

int CRtpIntakeImpl::StreamOf(uint32 dwSsrc) const
{
    const auto it = m_mapStreamOfSsrc.find(dwSsrc);
    return it == m_mapStreamOfSsrc.end() ? -1 : (int)it->second;
}

// The stream that an RTX stream repeats: the SSRC it was seen to repeat (on the same destination if it is there), else
// the one stream of the same sender that carries the payload type it is said to repeat.
tagStream* CRtpIntakeImpl::FindOriginal(tagStream& stRtx)
{
    if (!stRtx.bOriginalKnown)
    {
        const auto it = m_mapCandidates.find(stRtx.stKey);
        std::string strWhy;
        if (it != m_mapCandidates.end() && it->second.learn.RtxOriginal(stRtx.dwOriginalSsrc, strWhy))
            stRtx.bOriginalKnown = true;
    }
    tagStream* pFound = nullptr;
    for (const auto& pStream : m_vecStreams)
    {
        const tagRtpStreamInfo& stInfo = pStream->stInfo;
        if (stInfo.llAccount == 0)
            continue;
        if (stRtx.bOriginalKnown)
        {
            if (stInfo.dwSsrc != stRtx.dwOriginalSsrc)
                continue;
            if (stInfo.stDst == stRtx.stInfo.stDst)
                return pStream.get();
            if (pFound == nullptr)
                pFound = pStream.get();
        }
        else if (stInfo.cPt == stRtx.stInfo.stFormat.nApt && stInfo.stSrc == stRtx.stInfo.stSrc)
        {
            if (pFound != nullptr)
                return nullptr; // two could be meant; their packets will tell
            pFound = pStream.get();
        }
    }
    return pFound;
}

// Kind, codec and clock: the user's word, RTX by what it repeats, RFC 3551, then what the packets look like.
void CRtpIntakeImpl::Format(tagStream& stStream, const CRtpLearn& learn)
{
    tagRtpStreamInfo& stInfo = stStream.stInfo;
    char szText[128];
    std::snprintf(szText, sizeof(szText), "SSRC %08x PT %u: ", stInfo.dwSsrc, (unsigned)stInfo.cPt);
    const std::string strWho = szText;
    std::string strWhy;

    const auto itMapped = m_stOptions.mapFormats.find(stInfo.cPt);
    const auto itRtx = m_stOptions.mapRtxSsrc.find(stInfo.dwSsrc);
    if (itMapped != m_stOptions.mapFormats.end())
        stInfo.stFormat = itMapped->second;
    if (itRtx != m_stOptions.mapRtxSsrc.end())
    {
        stInfo.stFormat.eKind = RTP_KIND_RTX;
        stInfo.stFormat.strCodec = "rtx";
        stStream.bOriginalKnown = true;
        stStream.dwOriginalSsrc = itRtx->second;
        return;
    }
    if (stInfo.stFormat.eKind == RTP_KIND_RTX || stInfo.stFormat.eKind == RTP_KIND_UNKNOWN)
    {
        if (learn.RtxOriginal(stStream.dwOriginalSsrc, strWhy))
        {
            stStream.bOriginalKnown = true;
            stInfo.bGuessed = stInfo.stFormat.eKind == RTP_KIND_UNKNOWN;
            stInfo.stFormat.eKind = RTP_KIND_RTX;
            stInfo.stFormat.strCodec = "rtx";
            Guessed(strWho + "guessed RTX (" + strWhy + ")");
        }
        if (stInfo.stFormat.eKind == RTP_KIND_RTX)
            return;
    }
    if (stInfo.stFormat.eKind != RTP_KIND_UNKNOWN)
        return;
    if (const tagRtpFormat* pStatic = RtpStaticFormat(stInfo.cPt))
    {
        stInfo.stFormat = *pStatic;
        return;
    }
    stInfo.stFormat = learn.Guess(strWhy);
    stInfo.bGuessed = true;
    std::snprintf(szText, sizeof(szText), "guessed %s/%u (", stInfo.stFormat.strCodec.c_str(),
                  stInfo.stFormat.dwClock);
    Guessed(strWho + szText + strWhy + ")");
}

tagStream& CRtpIntakeImpl::Begin(const tagRtpKey& stKey, const CRtpLearn& learn,
                                 const tagRtpDatagram& stDatagram, const tagRtpHeader& stHeader,
                                 tagStream* pFollowed)
{
    std::unique_ptr<tagStream> pStream(new tagStream);
    tagStream& stStream = *pStream;
    stStream.stKey = stKey;
    tagRtpStreamInfo& stInfo = stStream.stInfo;
    stInfo.dwSsrc = stKey.dwSsrc;
    stInfo.stSrc = stDatagram.stSrc;
    stInfo.stDst = stDatagram.stDst;
    stInfo.cPt = learn.Packets() > 0 ? learn.MainPt() : stHeader.cPt;
    Format(stStream, learn);
    stStream.dwClock = stInfo.stFormat.dwClock;
    stStream.eForm = RtpPayloadForm(stInfo.stFormat.strCodec);

    stStream.dwIndex = (uint32)m_vecStreams.size();
    m_vecStreams.push_back(std::move(pStream));
    m_mapStreams[stKey] = stStream.dwIndex;
    m_mapStreamOfSsrc.emplace(stKey.dwSsrc, stStream.dwIndex);

    if (stInfo.stFormat.eKind == RTP_KIND_RTX)
    {
        if (const tagStream* pOriginal = FindOriginal(stStream))
        {
            stInfo.nRtxOf = (int)pOriginal->dwIndex;
            if (stStream.dwClock == 0)
                stStream.dwClock = stInfo.stFormat.dwClock = pOriginal->dwClock;
        }
    }
    else if (stInfo.stFormat.eKind == RTP_KIND_FEC)
        return stStream;
    else if (pFollowed != nullptr && stInfo.stFormat.eKind == pFollowed->stInfo.stFormat.eKind)
        Follow(stStream, *pFollowed, stDatagram, stHeader);
    else
        Settle(stStream, stDatagram, stHeader.dwTs);
    return stStream;
}

// Does a new SSRC carry on what another one sent? They come from and go to the same place with the same payload type,
// the other has stopped, and they are one source by CNAME. Where CNAMEs are not known, the other is the only one
// of its kind there: behind a mixer or a forwarding server there are several, and one may go while another comes.
CRtpIntakeImpl::emFollows CRtpIntakeImpl::Followed(const tagRtpKey& stKey, const tagCandidate& stCandidate,
                                                   const tagRtpDatagram& stDatagram, uint8 cPt,
                                                   tagStream*& pFollowed) const
{
    pFollowed = nullptr;
    if (stDatagram.stSrc.cFamily == 0)
        return FOLLOWS_NONE;
    const auto itHeard = m_mapHeard.find(stKey.dwSsrc);
    const std::string strCname = itHeard == m_mapHeard.end() ? std::string() : itHeard->second.strCname;
    const uint64 ullNowUs = stDatagram.ullArrivalUs;
    const uint64 ullBeganUs = stCandidate.learn.FirstUs();
    size_t nThere = 0;
    bool bSame = false;
    bool bPerhaps = false;
    for (const auto& pStream : m_vecStreams)
    {
        const tagRtpStreamInfo& stInfo = pStream->stInfo;
        if (!pStream->pTrack || !(stInfo.stSrc == stDatagram.stSrc) || !(stInfo.stDst == stDatagram.stDst) ||
            stInfo.cPt != cPt || pStream->pTrack->dwStream != pStream->dwIndex)
            continue;
        const uint64 ullLastUs = pStream->stat.LastUs();
        if (ullNowUs <= ullLastUs + c_ullReplacedLatestUs)
            nThere++;
        const auto itOther = m_mapHeard.find(stInfo.dwSsrc);
        const std::string& strOther = !stInfo.strCname.empty() || itOther == m_mapHeard.end()
                                          ? stInfo.strCname
                                          : itOther->second.strCname;
        const bool bBothKnown = !strCname.empty() && !strOther.empty();
        if (bBothKnown && strCname != strOther)
            continue;
        if (!bBothKnown && ullNowUs > ullLastUs + c_ullReplacedLatestUs)
            continue;
        bool bStopped = false;
        bool bUnclear = false;
        if (m_bScanned)
        {
            const auto it = m_mapCandidates.find(pStream->stKey);
            bStopped = it != m_mapCandidates.end() && it->second.learn.LastUs() < ullBeganUs;
        }
        else if (ullLastUs <= ullBeganUs + c_ullReplacedReorderUs)
        {
            bStopped = stInfo.bBye || ullNowUs >= ullLastUs + c_ullReplacedUs;
            bUnclear = !bStopped;
        }
        bPerhaps = bPerhaps || bUnclear;
        if (bStopped && (pFollowed == nullptr || ullLastUs > pFollowed->stat.LastUs()))
        {
            pFollowed = pStream.get();
            bSame = bBothKnown;
        }
    }
    if (bPerhaps)
        return FOLLOWS_PERHAPS;
    if (pFollowed == nullptr || (!bSame && nThere != 1))
        return FOLLOWS_NONE;
    return stCandidate.learn.Alive() ? FOLLOWS : FOLLOWS_PERHAPS;
}

// The stream is the receiver's stream of the one that it follows.
void CRtpIntakeImpl::Follow(tagStream& stStream, tagStream& stFollowed, const tagRtpDatagram& stDatagram,
                            const tagRtpHeader& stHeader)
{
    tagRtpStreamInfo& stInfo = stStream.stInfo;
    const auto itHeard = m_mapHeard.find(stInfo.dwSsrc);
    if (itHeard != m_mapHeard.end())
        stInfo.strCname = itHeard->second.strCname;
    DropHeld(stFollowed);
    stInfo.llAccount = stFollowed.stInfo.llAccount;
    stInfo.cSubType = stFollowed.stInfo.cSubType;
    stInfo.bPlacedBySr = stFollowed.stInfo.bPlacedBySr;
    stInfo.nFollows = (int)stFollowed.dwIndex;
    stStream.pTrack = stFollowed.pTrack;
    tagTrack& track = *stStream.pTrack;
    track.dwStream = stStream.dwIndex;
    const CRtpContinuity::tagWire stWire = Wire(stStream, stDatagram, stHeader);
    NoteArrival(*track.pUser, stWire.llArrivalUs);
    stStream.llFollowedUs = track.continuity.LastArrivalUs();
    track.continuity.RestartAt(stWire, Lag(track));
    stStream.bFollows = true;
}

// Whose stream it is, and where its first packet stands on that user's timeline.
//
// A user is a CNAME. His first audio is sub-type 1, his videos are 2, 7 and 3; what has no sub-type left, like
// a second microphone, is a user of its own, as two streams under one key would be one stream to the receiver.
void CRtpIntakeImpl::Settle(tagStream& stStream, const tagRtpDatagram& stDatagram, uint32 dwFirstTs)
{
    tagRtpStreamInfo& stInfo = stStream.stInfo;
    const auto itHeard = m_mapHeard.find(stInfo.dwSsrc);
    if (itHeard != m_mapHeard.end())
        stInfo.strCname = itHeard->second.strCname;

    const bool bAudio = stInfo.stFormat.eKind == RTP_KIND_AUDIO;
    const std::vector<uint8> vecSubTypes =
        bAudio ? std::vector<uint8>{MEAVAudio} : std::vector<uint8>{MEAVMaxVideo, MEAVSubVideo, MEAVMinVideo};
    // Accounts in order of preference; the last cannot be taken, as each stream has its own index in it.
    std::vector<uint64> vecAccounts;
    if (!stInfo.strCname.empty())
        vecAccounts.push_back(RtpAccountOfCname(stInfo.strCname));
    if (stInfo.dwSsrc != 0)
        vecAccounts.push_back(stInfo.dwSsrc);
    vecAccounts.push_back((uint64)m_vecStreams.size() << 32 | stInfo.dwSsrc);
    for (uint64 llAccount : vecAccounts)
    {
        const tagUser& stTaken = m_mapUsers[llAccount];
        const auto itFree = std::find_if(vecSubTypes.begin(), vecSubTypes.end(),
                                         [&](uint8 c) { return stTaken.setSubTypes.count(c) == 0; });
        stInfo.llAccount = llAccount;
        stInfo.cSubType = itFree == vecSubTypes.end() ? vecSubTypes.front() : *itFree;
        if (itFree != vecSubTypes.end())
            break;
    }

    tagUser& stUser = m_mapUsers[stInfo.llAccount];
    const bool bFirst = stUser.setSubTypes.empty();
    stUser.setSubTypes.insert(stInfo.cSubType);
    if (bFirst)
        stUser.ullFirstUs = stDatagram.ullArrivalUs;
    int64_t llBaseUs = (int64_t)stDatagram.ullArrivalUs - (int64_t)stUser.ullFirstUs;
    if (itHeard != m_mapHeard.end() && itHeard->second.bSr && stStream.dwClock != 0)
    {
        const int64_t llNtpUs =
            itHeard->second.llNtpUs + TicksToUs(Step32(itHeard->second.dwSrTs, dwFirstTs), stStream.dwClock);
        if (!stUser.bSr)
        {
            stUser.bSr = true;
            stUser.llNtpUs = llNtpUs;
            stUser.llSrUs = llBaseUs;
            stInfo.bPlacedBySr = bFirst;
        }
        else
        {
            const int64_t llSrUs = stUser.llSrUs + llNtpUs - stUser.llNtpUs;
            if (std::llabs(llSrUs - llBaseUs) <= c_llMaxSrSkewUs)
            {
                llBaseUs = llSrUs;
                stInfo.bPlacedBySr = true;
            }
        }
    }
    stStream.pTrack = std::make_shared<tagTrack>();
    tagTrack& track = *stStream.pTrack;
    track.pUser = &stUser;
    track.dwClock = stStream.dwClock;
    track.dwFirstTs = dwFirstTs;
    track.dwStream = stStream.dwIndex;
    track.dequeSsrcs.push_back({0, stInfo.dwSsrc});
    track.continuity.Begin(llBaseUs, stStream.dwClock, !bAudio);
    if (!bAudio)
        track.pFrames.reset(new CRtpFrames(m_stOptions.dwLookAheadPackets + 256));
}

// ---- Packets ----

void CRtpIntakeImpl::Push(const tagRtpDatagram& stDatagram)
{
    m_ullNewestUs = std::max(m_ullNewestUs, stDatagram.ullArrivalUs);
    tagRtpHeader stHeader;
    bool bRtcp = false;
    if (!TellApart(stDatagram, stHeader, bRtcp, m_stTotals))
        return;
    if (bRtcp)
    {
        m_stTotals.ullRtcp++;
        OnRtcp(stDatagram);
        return;
    }
    m_stTotals.ullRtp++;
    OnRtp(stDatagram, stHeader);
}

void CRtpIntakeImpl::OnRtcp(const tagRtpDatagram& stDatagram)
{
    m_vecEvents.clear();
    m_rtcp.Read(stDatagram.pData, stDatagram.dwCaptured, m_vecEvents, m_stTotals);
    for (tagRtpEvent& stEvent : m_vecEvents)
    {
        stEvent.ullArrivalUs = stDatagram.ullArrivalUs;
        stEvent.nStream = StreamOf(stEvent.dwMediaSsrc);
        if (!m_bScanned)
            Hear(stEvent, false);
        tagStream* pStream = stEvent.nStream < 0 ? nullptr : m_vecStreams[(size_t)stEvent.nStream].get();
        if (pStream != nullptr)
        {
            tagRtpStreamInfo& stInfo = pStream->stInfo;
            switch (stEvent.eType)
            {
            case RTP_EVENT_SR: stInfo.ullSenderReports++; break;
            case RTP_EVENT_RR: stInfo.ullReceiverReports++; break;
            case RTP_EVENT_CNAME:
                if (stInfo.strCname.empty())
                    stInfo.strCname = stEvent.strCname;
                break;
            case RTP_EVENT_BYE: stInfo.bBye = true; break;
            case RTP_EVENT_NACK:
                stInfo.ullNacks++;
                stInfo.ullNackedSeqs += stEvent.vecRtpSeq.size();
                for (uint16 wSeq : stEvent.vecRtpSeq)
                    stEvent.vecSendSeq.push_back(
                        pStream->pTrack ? (uint32)pStream->pTrack->continuity.PeekSeq(wSeq) : wSeq);
                break;
            case RTP_EVENT_PLI: stInfo.ullPlis++; break;
            }
        }
        if (m_dequeEvents.size() >= std::max<size_t>(m_stOptions.dwMaxEvents, 1))
        {
            m_dequeEvents.pop_front();
            m_stTotals.ullEventsDropped++;
        }
        m_dequeEvents.push_back(stEvent);
    }
}

void CRtpIntakeImpl::OnRtp(const tagRtpDatagram& stDatagram, const tagRtpHeader& stHeader)
{
    const tagRtpKey stKey{stHeader.dwSsrc, stDatagram.stDst};
    if (tagStream* pStream = FindStream(stKey.dwSsrc, stKey.stDst))
    {
        if (!m_bScanned) // an RTX stream that begins later is told by this stream's newest sequence
        {
            const auto it = m_mapCandidates.find(stKey);
            if (it != m_mapCandidates.end())
                Learn(it->second, stDatagram, stHeader);
        }
        OnStreamPacket(*pStream, stDatagram, stHeader);
        return;
    }
    if (m_vecStreams.size() >= m_stOptions.dwMaxStreams)
    {
        Drop(RTP_DROP_SSRC_TOO_MANY);
        return;
    }
    const bool bMapped = m_stOptions.mapFormats.count(stHeader.cPt) > 0;
    tagCandidate* pCandidate = nullptr;
    tagStream* pFollowed = nullptr;
    if (m_bScanned)
    {
        const auto it = m_mapCandidates.find(stKey);
        if (it == m_mapCandidates.end() || !(it->second.learn.Alive() || bMapped))
        {
            Drop(RTP_DROP_SSRC_UNCONFIRMED);
            return;
        }
        pCandidate = &it->second;
        if (Followed(stKey, *pCandidate, stDatagram, stHeader.cPt, pFollowed) != FOLLOWS)
            pFollowed = nullptr;
    }
    else
    {
        pCandidate = Candidate(stKey);
        if (pCandidate == nullptr)
        {
            Drop(RTP_DROP_SSRC_TOO_MANY);
            return;
        }
        Learn(*pCandidate, stDatagram, stHeader);
        const emFollows eFollows = Followed(stKey, *pCandidate, stDatagram, stHeader.cPt, pFollowed);
        if (eFollows != FOLLOWS)
            pFollowed = nullptr;
        if ((eFollows == FOLLOWS_NONE && !bMapped && !IsConfirmed(*pCandidate, stHeader.cPt)) ||
            (eFollows == FOLLOWS_PERHAPS && HeldBytes(*pCandidate) <= c_nMaxReplacedBytes))
        {
            // Not lost: what is held goes ahead of the packet that confirms it.
            if (!pCandidate->learn.Alive() && !pCandidate->vecHeld.empty())
            {
                m_stTotals.aDrops[RTP_DROP_SSRC_UNCONFIRMED] += pCandidate->vecHeld.size();
                pCandidate->vecHeld.clear();
            }
            pCandidate->vecHeld.push_back(
                {stDatagram, std::vector<uint8>(stDatagram.pData, stDatagram.pData + stDatagram.dwCaptured)});
            return;
        }
    }

    tagStream* pBegun = nullptr;
    const std::vector<tagHeld> vecHeld = std::move(pCandidate->vecHeld);
    pCandidate->vecHeld.clear();
    for (const tagHeld& stHeld : vecHeld)
    {
        tagRtpDatagram stEarlier = stHeld.stDatagram;
        stEarlier.pData = stHeld.vecBytes.data();
        tagRtpHeader stEarlierHeader;
        emRtpDrop eReason = RTP_DROP_NOT_RTP;
        if (!ParseRtp(stEarlier.pData, stEarlier.dwCaptured, stEarlier.dwWire, stEarlierHeader, eReason))
            continue; // cannot be: it was read when it was held
        if (pBegun == nullptr)
            pBegun = &Begin(stKey, pCandidate->learn, stEarlier, stEarlierHeader, pFollowed);
        OnStreamPacket(*pBegun, stEarlier, stEarlierHeader);
    }
    if (pBegun == nullptr)
        pBegun = &Begin(stKey, pCandidate->learn, stDatagram, stHeader, pFollowed);
    OnStreamPacket(*pBegun, stDatagram, stHeader);
}

// Without a scan: may this SSRC begin as a stream? Its format stays what it is guessed at the beginning, so where
// nothing but the pattern tells it, a few more packets are waited for.
bool CRtpIntakeImpl::IsConfirmed(const tagCandidate& stCandidate, uint8 cPt) const
{
    if (!stCandidate.learn.Alive())
        return false;
    uint32 dwSsrc = 0;
    std::string strWhy;
    return HeldBytes(stCandidate) > c_nMaxHeldBytes || RtpStaticFormat(cPt) != nullptr ||
           stCandidate.learn.KnownByPayload() || stCandidate.learn.RtxOriginal(dwSsrc, strWhy) ||
           stCandidate.vecHeld.size() + 1 >= c_nGuessPackets;
}

// The lane whose count the packet carries on the downlink; wSeq is replaced where that is the transport's.
CRtpDownlink::CLane& CRtpIntakeImpl::Lane(tagStream& stStream, const tagRtpDatagram& stDatagram,
                                          const tagRtpHeader& stHeader, uint16& wSeq)
{
    bool bTransport = false;
    if (m_nTransportSeqId > 0)
    {
        ForEachExtension(stDatagram.pData, stHeader,
                         [&](uint32 dwId, const uint8* pData, uint32 dwLen)
                         {
                             if (dwId != (uint32)m_nTransportSeqId || dwLen != 2)
                                 return;
                             bTransport = true;
                             wSeq = (uint16)(pData[0] << 8 | pData[1]);
                         });
    }
    if (bTransport)
    {
        const tagTransport stTransport{stDatagram.stSrc, stDatagram.stDst};
        if (m_mapTransportLanes.size() < m_stOptions.dwMaxStreams ||
            m_mapTransportLanes.count(stTransport) > 0)
            return m_mapTransportLanes[stTransport];
    }
    return stStream.lane;
}

void CRtpIntakeImpl::OnStreamPacket(tagStream& stStream, const tagRtpDatagram& stDatagram,
                                    const tagRtpHeader& stHeader)
{
    if (stStream.pTrack)
    {
        OnMediaPacket(stStream, stDatagram, stHeader);
        return;
    }
    // The wire's own figures, whatever becomes of the packet.
    const uint32 dwWire = std::max(stDatagram.dwWire, stDatagram.dwCaptured);
    stStream.stat.OnPacket(stDatagram.ullArrivalUs, stHeader.wSeq, stHeader.dwTs, dwWire, stStream.dwClock);

    uint16 wLaneSeq = stHeader.wSeq;
    CRtpDownlink::CLane& lane = Lane(stStream, stDatagram, stHeader, wLaneSeq);

    // FEC that shares a media stream's sequences goes on with it: left out, it would look lost.
    if (stStream.stInfo.stFormat.eKind == RTP_KIND_FEC)
    {
        m_downlink.Skip(lane, wLaneSeq);
        Drop(RTP_DROP_FEC);
        return;
    }
    tagStream* pOriginal = nullptr;
    tagRtpHeader stOriginal;
    CRtpContinuity::tagPlace stPlace;
    if (!UnwrapRtx(stStream, stDatagram, stHeader, pOriginal, stOriginal, stPlace))
    {
        m_downlink.Skip(lane, wLaneSeq);
        return;
    }
    // The original packet again: its head with its own sequence, type and SSRC, the two bytes taken out.
    std::vector<uint8> vecRtp(stDatagram.pData, stDatagram.pData + stHeader.dwHeadLen);
    vecRtp[0] = (uint8)(vecRtp[0] & ~0x20); // padding, if any, was left behind
    vecRtp[1] = (uint8)((vecRtp[1] & 0x80) | stOriginal.cPt);
    vecRtp[2] = (uint8)(stOriginal.wSeq >> 8);
    vecRtp[3] = (uint8)stOriginal.wSeq;
    for (int i = 0; i < 4; i++)
        vecRtp[8 + (size_t)i] = (uint8)(stOriginal.dwSsrc >> (24 - 8 * i));
    const uint8* pPayload = stDatagram.pData + stHeader.dwHeadLen + 2;
    vecRtp.insert(vecRtp.end(), pPayload, pPayload + stOriginal.dwCaptured);
    Place(*pOriginal, stDatagram, stOriginal, std::move(vecRtp), true, m_downlink.Number(lane, wLaneSeq),
          stPlace, RTP_RESTART_NONE, false);
}

CRtpContinuity::tagWire CRtpIntakeImpl::Wire(const tagStream& stStream, const tagRtpDatagram& stDatagram,
                                             const tagRtpHeader& stHeader) const
{
    CRtpContinuity::tagWire st;
    st.llArrivalUs = (int64_t)stDatagram.ullArrivalUs - (int64_t)stStream.pTrack->pUser->ullFirstUs;
    st.wSeq = stHeader.wSeq;
    st.dwTs = stHeader.dwTs;
    st.cPt = stHeader.cPt;
    if (stHeader.cPt == stStream.stInfo.cPt)
    {
        st.dwClock = stStream.dwClock;
        return st;
    }
    // Another payload type may count another clock, if it is the same kind of media. Tones and comfort noise are not:
    // they stand between its packets and on its clock.
    const auto it = m_stOptions.mapFormats.find(stHeader.cPt);
    const tagRtpFormat* pFormat =
        it != m_stOptions.mapFormats.end() ? &it->second : RtpStaticFormat(stHeader.cPt);
    if (pFormat != nullptr && pFormat->eKind == stStream.stInfo.stFormat.eKind && pFormat->strCodec != "CN" &&
        pFormat->strCodec != "telephone-event")
        st.dwClock = pFormat->dwClock;
    return st;
}

void CRtpIntakeImpl::NoteArrival(tagUser& stUser, int64_t llArrivalUs)
{
    if (stUser.llLastUs > 0 && llArrivalUs - stUser.llLastUs >= c_llAwayUs)
    {
        stUser.llBackUs = llArrivalUs;
        stUser.llAwayUs = llArrivalUs - stUser.llLastUs;
    }
    stUser.llLastUs = std::max(stUser.llLastUs, llArrivalUs);
}

// How far the receiver's clock stands behind real time when a user comes back after a while.
int64_t CRtpIntakeImpl::Lag(const tagTrack& track)
{
    const tagUser& stUser = *track.pUser;
    if (track.continuity.LastArrivalUs() >= stUser.llBackUs || stUser.llAwayUs >= c_llForgottenUs)
        return 0;
    return stUser.llAwayUs / 4 + c_llAheadUs;
}

// A packet of audio or video, judged by how it goes on with its stream.
void CRtpIntakeImpl::OnMediaPacket(tagStream& stStream, const tagRtpDatagram& stDatagram,
                                   const tagRtpHeader& stHeader)
{
    tagTrack& track = *stStream.pTrack;
    const CRtpContinuity::tagWire stWire = Wire(stStream, stDatagram, stHeader);
    NoteArrival(*track.pUser, stWire.llArrivalUs);

    if (track.dwStream != stStream.dwIndex)
    {
        if (OnReplaced(stStream, stWire, stDatagram, stHeader))
            PlaceMedia(stStream, stDatagram, stHeader, track.continuity.Take(stWire), RTP_RESTART_NONE,
                       false);
        return;
    }
    if (stStream.bFollows)
    {
        stStream.bFollows = false;
        const bool bClear = Restarted(stStream, RTP_RESTART_SSRC, stStream.llFollowedUs, stWire);
        PlaceMedia(stStream, stDatagram, stHeader, track.continuity.Take(stWire), RTP_RESTART_SSRC, bClear);
        return;
    }

    CRtpContinuity::emHeld eHeld = CRtpContinuity::HELD_KEEP;
    const int64_t llLastUs = track.continuity.LastArrivalUs();
    const CRtpContinuity::emVerdict eVerdict = track.continuity.Judge(stWire, eHeld);
    if (eHeld == CRtpContinuity::HELD_DROP)
        DropHeld(stStream);
    if (eHeld == CRtpContinuity::HELD_PLACE)
        PlaceHeld(stStream, RTP_RESTART_NONE, 0);
    if (eVerdict == CRtpContinuity::RESTART)
        PlaceHeld(stStream, track.continuity.Restart(stWire, Lag(track)), llLastUs);
    switch (eVerdict)
    {
    case CRtpContinuity::TAKE:
    case CRtpContinuity::RESTART:
        PlaceMedia(stStream, stDatagram, stHeader, track.continuity.Take(stWire), RTP_RESTART_NONE, false);
        break;
    case CRtpContinuity::HOLD:
        stStream.pHeld.reset(new tagHeld{
            stDatagram, std::vector<uint8>(stDatagram.pData, stDatagram.pData + stDatagram.dwCaptured)});
        break;
    case CRtpContinuity::REFUSE: DropStray(stStream, stDatagram, stHeader); break;
    }
}

// A packet of an SSRC that another one follows. A late one is taken. When more come, both speak: this one gets a stream
// of its own.
// @return true: it is a late one
bool CRtpIntakeImpl::OnReplaced(tagStream& stStream, const CRtpContinuity::tagWire& stWire,
                                const tagRtpDatagram& stDatagram, const tagRtpHeader& stHeader)
{
    if (stStream.pTrack->continuity.IsLate(stWire))
        return true;
    if (!stStream.bSpokeAgain)
    {
        stStream.bSpokeAgain = true;
        DropStray(stStream, stDatagram, stHeader);
        return false;
    }
    Settle(stStream, stDatagram, stHeader.dwTs);
    char szText[96];
    std::snprintf(szText, sizeof(szText), "SSRC %08x: speaks again beside the one that seemed to follow it",
                  stStream.stInfo.dwSsrc);
    Guessed(szText);
    OnMediaPacket(stStream, stDatagram, stHeader);
    return false;
}

void CRtpIntakeImpl::DropStray(tagStream& stStream, const tagRtpDatagram& stDatagram,
                               const tagRtpHeader& stHeader)
{
    uint16 wLaneSeq = 0;
    CRtpDownlink::CLane& lane = Lane(stStream, stDatagram, stHeader, wLaneSeq);
    if (&lane != &stStream.lane)
        m_downlink.Skip(lane, wLaneSeq);
    Drop(RTP_DROP_RTP_STRAY);
}

void CRtpIntakeImpl::DropHeld(tagStream& stStream)
{
    if (!stStream.pHeld)
        return;
    const std::unique_ptr<tagHeld> pHeld = std::move(stStream.pHeld);
    pHeld->stDatagram.pData = pHeld->vecBytes.data();
    tagRtpHeader stHeader;
    emRtpDrop eReason = RTP_DROP_NOT_RTP;
    if (ParseRtp(pHeld->stDatagram.pData, pHeld->stDatagram.dwCaptured, pHeld->stDatagram.dwWire, stHeader,
                 eReason))
        DropStray(stStream, pHeld->stDatagram, stHeader);
}

// The held packet leaves: as the first of a new numbering, else as one whose timestamp nobody confirmed.
void CRtpIntakeImpl::PlaceHeld(tagStream& stStream, emRtpRestart eRestart, int64_t llLastUs)
{
    if (!stStream.pHeld)
        return;
    const std::unique_ptr<tagHeld> pHeld = std::move(stStream.pHeld);
    pHeld->stDatagram.pData = pHeld->vecBytes.data();
    tagRtpHeader stHeader;
    emRtpDrop eReason = RTP_DROP_NOT_RTP;
    if (!ParseRtp(pHeld->stDatagram.pData, pHeld->stDatagram.dwCaptured, pHeld->stDatagram.dwWire, stHeader,
                  eReason))
        return; // cannot be: it was read when it was held
    CRtpContinuity& continuity = stStream.pTrack->continuity;
    const CRtpContinuity::tagWire stWire = Wire(stStream, pHeld->stDatagram, stHeader);
    const bool bRestart = eRestart != RTP_RESTART_NONE;
    const bool bClear = bRestart && Restarted(stStream, eRestart, llLastUs, stWire);
    PlaceMedia(stStream, pHeld->stDatagram, stHeader,
               bRestart ? continuity.Take(stWire) : continuity.TakeAlone(stWire), eRestart, bClear);
}

// Counts and notes it. @return the receiver's stream is to be cleared: what it had was played or is of no use
bool CRtpIntakeImpl::Restarted(tagStream& stStream, emRtpRestart eRestart, int64_t llLastUs,
                               const CRtpContinuity::tagWire& stWire)
{
    tagTrack& track = *stStream.pTrack;
    stStream.stInfo.dwRestarts++;
    if (eRestart == RTP_RESTART_SSRC)
    {
        track.dequeSsrcs.push_back({track.continuity.Restarts(), stStream.stInfo.dwSsrc});
        if (track.dequeSsrcs.size() > 8)
            track.dequeSsrcs.pop_front();
    }
    char szText[160];
    std::snprintf(
        szText, sizeof(szText),
        "SSRC %08x PT %u: numbering began anew by its %s, %.3f s after its user's first packet (now sequence "
        "%u, timestamp %u)",
        stStream.stInfo.dwSsrc, (unsigned)stWire.cPt, RtpRestartText(eRestart),
        (double)stWire.llArrivalUs / 1e6, (unsigned)stWire.wSeq, stWire.dwTs);
    Guessed(szText);
    return stWire.llArrivalUs - llLastUs >= c_llClearUs;
}

void CRtpIntakeImpl::PlaceMedia(tagStream& stStream, const tagRtpDatagram& stDatagram,
                                const tagRtpHeader& stHeader, const CRtpContinuity::tagPlace& stPlace,
                                emRtpRestart eRestart, bool bClear)
{
    const uint32 dwWire = std::max(stDatagram.dwWire, stDatagram.dwCaptured);
    const uint32 dwTs = Add32(stStream.pTrack->dwFirstTs, stPlace.llTicks);
    stStream.stat.OnPacket(stDatagram.ullArrivalUs, (uint16)stPlace.llSeq, dwTs, dwWire, stStream.dwClock);

    uint16 wLaneSeq = (uint16)stPlace.llSeq; // modulo 65536
    CRtpDownlink::CLane& lane = Lane(stStream, stDatagram, stHeader, wLaneSeq);
    Place(stStream, stDatagram, stHeader,
          std::vector<uint8>(stDatagram.pData, stDatagram.pData + stDatagram.dwCaptured), false,
          m_downlink.Number(lane, wLaneSeq), stPlace, eRestart, bClear);
}

bool CRtpIntakeImpl::UnwrapRtx(tagStream& stRtx, const tagRtpDatagram& stDatagram,
                               const tagRtpHeader& stHeader, tagStream*& pOriginal, tagRtpHeader& stOriginal,
                               CRtpContinuity::tagPlace& stPlace)
{
    if (stHeader.dwPayload < 2)
    {
        Drop(RTP_DROP_RTX_PADDING);
        return false;
    }
    if (stHeader.dwCaptured < 2)
    {
        Drop(RTP_DROP_RTP_CUT);
        return false;
    }
    pOriginal = FindOriginal(stRtx);
    if (pOriginal == nullptr || !pOriginal->pTrack)
    {
        Drop(RTP_DROP_RTX_UNKNOWN);
        return false;
    }
    stRtx.stInfo.nRtxOf = (int)pOriginal->dwIndex;
    if (stRtx.dwClock == 0)
        stRtx.dwClock = stRtx.stInfo.stFormat.dwClock = pOriginal->dwClock;

    const uint8* pPayload = stDatagram.pData + stHeader.dwHeadLen;
    stOriginal = stHeader;
    stOriginal.wSeq = (uint16)(pPayload[0] << 8 | pPayload[1]);
    stOriginal.dwSsrc = pOriginal->stInfo.dwSsrc;
    stOriginal.cPt =
        stRtx.stInfo.stFormat.nApt >= 0 ? (uint8)stRtx.stInfo.stFormat.nApt : pOriginal->stInfo.cPt;
    stOriginal.dwPayload -= 2;
    stOriginal.dwCaptured -= 2;
    if (!pOriginal->pTrack->continuity.TakeRepeated(Wire(*pOriginal, stDatagram, stOriginal), stPlace))
    {
        Drop(RTP_DROP_RTX_UNKNOWN);
        return false;
    }
    pOriginal->stInfo.ullRtxPackets++;
    return true;
}

// Queues a packet that has its number and its place on its user's timeline.
void CRtpIntakeImpl::Place(tagStream& stStream, const tagRtpDatagram& stDatagram,
                           const tagRtpHeader& stHeader, std::vector<uint8> vecRtp, bool bByRtx,
                           uint32 dwDownSeq, const CRtpContinuity::tagPlace& stPlace, emRtpRestart eRestart,
                           bool bClear)
{
    const tagRtpStreamInfo& stInfo = stStream.stInfo;
    tagTrack& track = *stStream.pTrack;
    m_dequeOut.emplace_back();
    tagWaiting& stWaiting = m_dequeOut.back();
    tagRtpMedia& st = stWaiting.stMedia;
    stWaiting.llSeq = stPlace.llSeq;
    const bool bNew = track.window.Mark(stWaiting.llSeq);
    if (bByRtx && bNew)
        stStream.stInfo.ullRtxRepaired++;

    const int64_t llMs = std::max<int64_t>(c_llFirstMediaMs + FloorDiv(stPlace.llMediaUs, 1000), 1);

    st.eRestart = eRestart;
    st.bClear = bClear;
    st.dwSendSeq = (uint32)stWaiting.llSeq;
    st.llAccount = stInfo.llAccount;
    st.dwSeq = dwDownSeq;
    st.cSubType = stInfo.cSubType;
    st.wLen = (uint16)std::min<uint32>(stHeader.dwPayload, 0xFFFF);
    st.stHead.cHeadLen = (uint8)std::min<uint32>(stHeader.dwHeadLen, 0xFF);
    st.stHead.cSubType = stInfo.cSubType;
    st.stHead.uTimeStamp = (uint32)llMs; // modulo 2^32
    st.wTimeStamp = (uint16)llMs;        // modulo 65536

    st.dwStream = stStream.dwIndex;
    st.ullArrivalUs = stDatagram.ullArrivalUs;
    st.stSrc = stDatagram.stSrc;
    st.stDst = stDatagram.stDst;
    st.dwSsrc = stHeader.dwSsrc;
    st.cPt = stHeader.cPt;
    st.wRtpSeq = stHeader.wSeq;
    st.dwRtpTs = stHeader.dwTs;
    st.bMarker = stHeader.bMarker;
    st.bByRtx = bByRtx;
    st.bDuplicate = !bNew;
    st.wHeadLen = (uint16)std::min<uint32>(stHeader.dwHeadLen, 0xFFFF);
    st.dwWireLen = stHeader.dwHeadLen + stHeader.dwPayload;
    st.vecRtp = std::move(vecRtp);
    if (!bByRtx)
        st.dwWireLen = std::max(stDatagram.dwWire, stDatagram.dwCaptured);

    if (track.pFrames == nullptr)
    {
        // Audio: every packet is a frame that can be played by itself.
        st.stHead.cFrmType = def_FrameType_I;
        st.stHead.cTotalPkgCount = 1;
        st.stHead.cFrameIndex = (uint8)st.dwSendSeq; // modulo 256
        return;
    }
    const uint8* pPayload = st.vecRtp.data() + stHeader.dwHeadLen;
    emRtpPayloadForm eForm = stStream.eForm;
    if (stHeader.cPt != stInfo.cPt)
    {
        const auto it = m_stOptions.mapFormats.find(stHeader.cPt);
        if (it != m_stOptions.mapFormats.end() && it->second.eKind == RTP_KIND_VIDEO)
            eForm = RtpPayloadForm(it->second.strCodec);
    }
    const tagRtpMark stMark = ReadRtpMark(eForm, pPayload, stHeader.dwCaptured);
    st.bKeyMark = stMark.bKey;
    stWaiting.pFrames = track.pFrames.get();
    stWaiting.pFrame = track.pFrames->Add(stWaiting.llSeq, stPlace.llTicks, stHeader.bMarker, stMark, !bNew);
}

bool CRtpIntakeImpl::IsReady(const tagWaiting& stWaiting) const
{
    if (m_bFlushed || stWaiting.pFrame == nullptr)
        return true;
    const uint64 ullArrivalUs = stWaiting.stMedia.ullArrivalUs;
    const uint64 ullAgeUs = m_ullNewestUs > ullArrivalUs ? m_ullNewestUs - ullArrivalUs : 0;
    if (m_stOptions.bLive)
        return stWaiting.pFrame->bDecided || stWaiting.pFrame->bKey || ullAgeUs >= c_ullTypeWaitUs ||
               m_dequeOut.size() > m_stOptions.dwLookAheadPackets;
    return m_dequeOut.size() > m_stOptions.dwLookAheadPackets ||
           ullAgeUs >= (uint64)m_stOptions.dwLookAheadMs * 1000 ||
           stWaiting.pFrames->IsSettled(*stWaiting.pFrame);
}

bool CRtpIntakeImpl::Pop(tagRtpMedia& stMedia)
{
    if (m_dequeOut.empty() || !IsReady(m_dequeOut.front()))
        return false;
    tagWaiting& stWaiting = m_dequeOut.front();
    if (stWaiting.pFrame != nullptr)
        stWaiting.pFrames->Number(*stWaiting.pFrame, stWaiting.llSeq, m_stOptions.bLive,
                                  stWaiting.stMedia.stHead);
    stMedia = std::move(stWaiting.stMedia);
    m_dequeOut.pop_front();
    m_stTotals.ullMedia++;
    return true;
}

void CRtpIntakeImpl::Flush()
{
    m_bFlushed = true;
    for (auto& it : m_mapCandidates)
    {
        m_stTotals.aDrops[RTP_DROP_SSRC_UNCONFIRMED] += it.second.vecHeld.size();
        it.second.vecHeld.clear();
    }
    for (const auto& pStream : m_vecStreams)
    {
        if (pStream->pHeld && pStream->pTrack->continuity.HeldFitsSequence())
            PlaceHeld(*pStream, RTP_RESTART_NONE, 0);
        DropHeld(*pStream);
    }
}

bool CRtpIntakeImpl::PopEvent(tagRtpEvent& stEvent)
{
    if (m_dequeEvents.empty())
        return false;
    stEvent = std::move(m_dequeEvents.front());
    m_dequeEvents.pop_front();
    return true;
}

bool CRtpIntakeImpl::RtpSequence(uint32 dwStream, uint32 dwSendSeq, uint32& dwSsrc, uint16& wSeq) const
{
    if (dwStream >= m_vecStreams.size() || !m_vecStreams[dwStream]->pTrack)
        return false;
    const tagTrack& track = *m_vecStreams[dwStream]->pTrack;
    const int64_t llHighest = track.continuity.Highest();
    const int64_t llSeq = llHighest + Step32((uint32)llHighest, dwSendSeq);
    uint32 dwRestart = 0;
    wSeq = track.continuity.RtpSeq(llSeq, dwRestart);
    size_t n = track.dequeSsrcs.size();
    while (n > 1 && track.dequeSsrcs[n - 1].first > dwRestart)
        n--;
    dwSsrc = track.dequeSsrcs[n - 1].second;
    return true;
}

tagRtpStreamInfo CRtpIntakeImpl::Stream(uint32 dwStream) const
{
    if (dwStream >= m_vecStreams.size())
        return tagRtpStreamInfo();
    tagRtpStreamInfo stInfo = m_vecStreams[dwStream]->stInfo;
    stInfo.stStat = m_vecStreams[dwStream]->stat.Get();
    return stInfo;
}

// ---- The outside ----

CRtpIntake::CRtpIntake(const tagRtpOptions& stOptions) : m_pImpl(new CRtpIntakeImpl(stOptions)) {}
CRtpIntake::~CRtpIntake() = default;
void CRtpIntake::Scan(const tagRtpDatagram& stDatagram) { m_pImpl->Scan(stDatagram); }
void CRtpIntake::EndScan() { m_pImpl->EndScan(); }
void CRtpIntake::Push(const tagRtpDatagram& stDatagram) { m_pImpl->Push(stDatagram); }
bool CRtpIntake::Pop(tagRtpMedia& stMedia) { return m_pImpl->Pop(stMedia); }
void CRtpIntake::Advance(uint64 ullNowUs) { m_pImpl->Advance(ullNowUs); }
void CRtpIntake::Flush() { m_pImpl->Flush(); }
bool CRtpIntake::PopEvent(tagRtpEvent& stEvent) { return m_pImpl->PopEvent(stEvent); }
uint32 CRtpIntake::StreamCount() const { return (uint32)m_pImpl->m_vecStreams.size(); }
tagRtpStreamInfo CRtpIntake::Stream(uint32 dwStream) const { return m_pImpl->Stream(dwStream); }
const tagRtpTotals& CRtpIntake::Totals() const { return m_pImpl->m_stTotals; }
bool CRtpIntake::RtpSequence(uint32 dwStream, uint32 dwSendSeq, uint32& dwSsrc, uint16& wSeq) const
{
    return m_pImpl->RtpSequence(dwStream, dwSendSeq, dwSsrc, wSeq);
}
std::vector<std::string> CRtpIntake::Guesses() const { return m_pImpl->m_vecGuesses; }

uint64 RtpAccountOfCname(const std::string& strCname)
{
    uint64 ullHash = 14695981039346656037ull;
    for (const char c : strCname)
    {
        ullHash ^= (uint8)c;
        ullHash *= 1099511628211ull; // modulo 2^64 by intent
    }
    return ullHash == 0 ? 1 : ullHash;
}
