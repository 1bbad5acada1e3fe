// Bytes become datagrams for udtrtp: each a length, an arrival and a payload of any kind.

#include "FuzzDoors.h"
#include "RtpIntake.h"
#include "RtpPacket.h"
#include "RtpPayload.h"

namespace
{

constexpr size_t c_nMostDatagrams = 400;

struct tagBytes
{
    uint64 ullArrivalUs;
    const uint8* pData;
    uint32 dwCaptured;
    uint32 dwWire;
    uint16 wPort;
};

// A copy of exactly this length, so that a byte read behind it is seen.
std::vector<uint8> Exactly(const uint8* pData, size_t nLen)
{
    return std::vector<uint8>(pData, pData + nLen);
}

void LookAt(const tagBytes& st)
{
    const std::vector<uint8> vec = Exactly(st.pData, st.dwCaptured);
    tagRtpHeader stHeader;
    emRtpDrop eReason = RTP_DROP_COUNT;
    IsRtcp(vec.data(), (uint32)vec.size());
    if (!ParseRtp(vec.data(), (uint32)vec.size(), st.dwWire, stHeader, eReason))
    {
        FuzzExpect(eReason < RTP_DROP_COUNT, "refused without a reason");
        return;
    }
    FuzzExpect(stHeader.dwHeadLen + stHeader.dwCaptured <= vec.size(), "more payload than bytes");
    FuzzExpect(stHeader.dwCaptured <= stHeader.dwPayload, "more captured than there was");
    uint32 dwSum = 0;
    ForEachExtension(vec.data(), stHeader,
                     [&](uint32 dwId, const uint8* p, uint32 dwLen)
                     {
                         FuzzExpect(dwId != 0, "padding is no element");
                         for (uint32 i = 0; i < dwLen; ++i)
                             dwSum += p[i];
                     });
    const std::vector<uint8> vecPayload = Exactly(vec.data() + stHeader.dwHeadLen, stHeader.dwCaptured);
    const uint32 dwLen = (uint32)vecPayload.size();
    for (emRtpPayloadForm eForm : {RTP_FORM_OTHER, RTP_FORM_H264, RTP_FORM_VP8})
    {
        const tagRtpMark stMark = ReadRtpMark(eForm, vecPayload.data(), dwLen);
        FuzzExpect(!(stMark.bStart && stMark.bContinuation), "first and not first");
    }
    bool bStrong = false;
    LooksLikeH264(vecPayload.data(), dwLen, bStrong);
    LooksLikeVp8(vecPayload.data(), dwLen, bStrong);
}

} // namespace

void FuzzRtp(const uint8* pData, size_t nLen)
{
    CFuzzInput in(pData, nLen);
    const uint8 cSetup = in.Byte();
    std::vector<tagBytes> vec;
    uint64 ullNowUs = 1000000;
    while (!in.Empty() && vec.size() < c_nMostDatagrams)
    {
        const uint16 wHead = in.Word16(); // 11 bits of length, a cut, two bits of time, two of port
        tagBytes st;
        size_t nBytes = wHead & 0x7FF;
        st.pData = in.Take(nBytes);
        st.dwCaptured = (uint32)nBytes;
        st.dwWire = st.dwCaptured + (wHead & 0x800 ? 100 : 0);
        static constexpr uint32 s_aUs[] = {20000, 0, 1000, 700000};
        ullNowUs += s_aUs[wHead >> 12 & 3];
        st.ullArrivalUs = ullNowUs;
        st.wPort = (uint16)(5004 + (wHead >> 14));
        vec.push_back(st);
        LookAt(st);
    }

    tagRtpOptions stOptions;
    stOptions.bLive = (cSetup & 1) != 0;
    if (cSetup & 2)
    {
        stOptions.dwLookAheadPackets = 8;
        stOptions.dwLookAheadMs = 100;
    }
    if (cSetup & 4)
    {
        stOptions.dwMaxStreams = 4;
        stOptions.dwMaxCandidates = 3;
        stOptions.dwMaxEvents = 8;
    }
    if (cSetup & 8)
        stOptions.nTransportSeqId = cSetup >> 5;
    CRtpIntake intake(stOptions);
    const auto datagram = [](const tagBytes& st)
    {
        tagRtpDatagram stDatagram;
        stDatagram.ullArrivalUs = st.ullArrivalUs;
        stDatagram.stSrc.cFamily = stDatagram.stDst.cFamily = 4;
        stDatagram.stSrc.wPort = st.wPort;
        stDatagram.stDst.wPort = 6000;
        stDatagram.pData = st.pData;
        stDatagram.dwCaptured = st.dwCaptured;
        stDatagram.dwWire = st.dwWire;
        return stDatagram;
    };
    if (!(cSetup & 16))
    {
        for (const tagBytes& st : vec)
            intake.Scan(datagram(st));
        intake.EndScan();
    }

    uint64 ullMedia = 0;
    const auto pop = [&]
    {
        tagRtpMedia stMedia;
        while (intake.Pop(stMedia))
        {
            ++ullMedia;
            FuzzExpect(stMedia.llAccount != 0, "media of nobody");
            FuzzExpect(stMedia.dwSeq >= 2, "a downlink number below the first");
            FuzzExpect(stMedia.wTimeStamp == (uint16)stMedia.stHead.uTimeStamp, "two media times");
            FuzzExpect(stMedia.dwStream < intake.StreamCount(), "media of an unknown stream");
            FuzzExpect(stMedia.wHeadLen <= stMedia.vecRtp.size(), "a head longer than its packet");
            FuzzExpect(stMedia.cSubType == stMedia.stHead.cSubType, "two sub-types");
        }
        tagRtpEvent stEvent;
        while (intake.PopEvent(stEvent))
            FuzzExpect(stEvent.nStream < (int)intake.StreamCount(), "a report about an unknown stream");
    };
    for (const tagBytes& st : vec)
    {
        intake.Push(datagram(st));
        if (stOptions.bLive)
            intake.Advance(st.ullArrivalUs);
        if (!(cSetup & 4))
            pop();
    }
    intake.Flush();
    pop();
    FuzzExpect(intake.Totals().ullMedia == ullMedia, "media not counted");
    FuzzExpect(intake.Totals().ullDatagrams == vec.size(), "datagrams not counted");
    for (uint32 i = 0; i < intake.StreamCount(); ++i)
        intake.Stream(i);
    intake.Guesses();
}
