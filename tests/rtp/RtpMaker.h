/// Makes RTP and RTCP bytes, and drives an intake with them.
#ifndef TESTS_RTP_MAKER_H
#define TESTS_RTP_MAKER_H

#include <string>
#include <vector>

#include "RtpIntake.h"

typedef std::vector<uint8> Bytes;

inline void Put16(Bytes& b, uint32 dw)
{
    b.push_back((uint8)(dw >> 8));
    b.push_back((uint8)dw);
}
inline void Put32(Bytes& b, uint32 dw)
{
    Put16(b, dw >> 16);
    Put16(b, dw);
}

struct tagMake
{
    uint8 cPt = 0;
    uint16 wSeq = 0;
    uint32 dwTs = 0;
    uint32 dwSsrc = 1;
    bool bMarker = false;
    Bytes payload = Bytes(20, 0xD5);
    int nTransportSeq = -1; ///< with extension id 5
    uint32 dwPadding = 0;
    uint32 dwCsrcs = 0;
};

inline Bytes MakeRtp(const tagMake& st)
{
    Bytes b;
    const bool bExt = st.nTransportSeq >= 0;
    b.push_back((uint8)(0x80 | (st.dwPadding > 0 ? 0x20 : 0) | (bExt ? 0x10 : 0) | st.dwCsrcs));
    b.push_back((uint8)((st.bMarker ? 0x80 : 0) | st.cPt));
    Put16(b, st.wSeq);
    Put32(b, st.dwTs);
    Put32(b, st.dwSsrc);
    for (uint32 i = 0; i < st.dwCsrcs; i++)
        Put32(b, 0xC0000000 + i);
    if (bExt)
    {
        Put16(b, 0xBEDE);
        Put16(b, 2);
        b.push_back(0x30); // id 3, one byte
        b.push_back(0x7F);
        b.push_back(0); // padding between elements
        b.push_back(0x51);
        Put16(b, (uint32)st.nTransportSeq);
        b.push_back(0);
        b.push_back(0);
    }
    b.insert(b.end(), st.payload.begin(), st.payload.end());
    for (uint32 i = 0; i < st.dwPadding; i++)
        b.push_back(i + 1 == st.dwPadding ? (uint8)st.dwPadding : 0);
    return b;
}

inline void FixRtcpLength(Bytes& b, size_t nAt)
{
    const size_t nWords = (b.size() - nAt) / 4 - 1;
    b[nAt + 2] = (uint8)(nWords >> 8);
    b[nAt + 3] = (uint8)nWords;
}

inline Bytes MakeSr(uint32 dwSsrc, uint32 dwNtpSec, uint32 dwNtpFrac, uint32 dwTs)
{
    Bytes b = {0x80, 200, 0, 6};
    for (uint32 dw : {dwSsrc, dwNtpSec, dwNtpFrac, dwTs, 10u, 1000u})
        Put32(b, dw);
    return b;
}

inline Bytes MakeRr(uint32 dwSsrc, uint32 dwAbout)
{
    Bytes b = {0x81, 201, 0, 7};
    for (uint32 dw : {dwSsrc, dwAbout, 0x40FFFFFEu, 70000u, 90u, 0x11112222u, 0x8000u})
        Put32(b, dw);
    return b;
}

inline Bytes MakeSdes(uint32 dwSsrc, const std::string& strCname)
{
    Bytes b = {0x81, 202, 0, 0};
    Put32(b, dwSsrc);
    b.push_back(1);
    b.push_back((uint8)strCname.size());
    b.insert(b.end(), strCname.begin(), strCname.end());
    do
        b.push_back(0);
    while (b.size() % 4 != 0);
    FixRtcpLength(b, 0);
    return b;
}

inline Bytes MakeBye(uint32 dwSsrc)
{
    Bytes b = {0x81, 203, 0, 1};
    Put32(b, dwSsrc);
    return b;
}

inline Bytes MakeNack(uint32 dwSender, uint32 dwMedia,
                      const std::vector<std::pair<uint16, uint16>>& vecPidBlp)
{
    Bytes b = {0x81, 205, 0, 0};
    Put32(b, dwSender);
    Put32(b, dwMedia);
    for (const auto& it : vecPidBlp)
    {
        Put16(b, it.first);
        Put16(b, it.second);
    }
    FixRtcpLength(b, 0);
    return b;
}

inline Bytes MakePli(uint32 dwSender, uint32 dwMedia)
{
    Bytes b = {0x81, 206, 0, 2};
    Put32(b, dwSender);
    Put32(b, dwMedia);
    return b;
}

inline Bytes operator+(Bytes a, const Bytes& b)
{
    a.insert(a.end(), b.begin(), b.end());
    return a;
}

inline tagRtpAddr Addr(uint8 cLast, uint16 wPort)
{
    tagRtpAddr st;
    st.cFamily = 4;
    st.aAddr = {10, 0, 0, cLast};
    st.wPort = wPort;
    return st;
}

/// A call as a list of datagrams that can be read twice.
class CCall
{
public:
    void Add(uint64 ullMs, const Bytes& bytes, uint32 dwWire = 0)
    {
        AddFrom(ullMs, bytes, Addr(1, 4000), dwWire);
    }
    void AddFrom(uint64 ullMs, const Bytes& bytes, const tagRtpAddr& stSrc, uint32 dwWire = 0)
    {
        m_vec.push_back(
            {ullMs * 1000, stSrc, Addr(2, 5000), bytes, dwWire == 0 ? (uint32)bytes.size() : dwWire});
    }
    void To(const tagRtpAddr& stDst) { m_vec.back().stDst = stDst; }

    /// Scans (unless told not to), plays and gives what came out.
    std::vector<tagRtpMedia> Play(CRtpIntake& intake, bool bScan = true) const
    {
        for (size_t i = 0; bScan && i < m_vec.size(); i++)
            intake.Scan(Datagram(i));
        if (bScan)
            intake.EndScan();
        std::vector<tagRtpMedia> vecOut;
        for (size_t i = 0; i < m_vec.size(); i++)
        {
            intake.Push(Datagram(i));
            Take(intake, vecOut);
        }
        intake.Flush();
        Take(intake, vecOut);
        return vecOut;
    }

    static void Take(CRtpIntake& intake, std::vector<tagRtpMedia>& vecOut)
    {
        tagRtpMedia stMedia;
        while (intake.Pop(stMedia))
            vecOut.push_back(stMedia);
    }

    tagRtpDatagram Datagram(size_t i) const
    {
        tagRtpDatagram st;
        st.ullArrivalUs = m_vec[i].ullUs;
        st.stSrc = m_vec[i].stSrc;
        st.stDst = m_vec[i].stDst;
        st.pData = m_vec[i].bytes.data();
        st.dwCaptured = (uint32)m_vec[i].bytes.size();
        st.dwWire = m_vec[i].dwWire;
        return st;
    }

private:
    struct tagEntry
    {
        uint64 ullUs;
        tagRtpAddr stSrc;
        tagRtpAddr stDst;
        Bytes bytes;
        uint32 dwWire;
    };
    std::vector<tagEntry> m_vec;
};

/// Options with H264 as 96, VP8 as 97, opus as 111, RTX 99 of 96.
inline tagRtpOptions MappedOptions()
{
    tagRtpOptions stOptions;
    std::string strError;
    for (const char* psz : {"96=H264/90000", "97=VP8/90000", "111=opus/48000", "99=rtx:96", "98=VP9/90000"})
        ParseRtpMap(psz, stOptions.mapFormats, strError);
    return stOptions;
}

/// One member of every packet, for comparing with a list.
template <typename T>
std::vector<T> Each(const std::vector<tagRtpMedia>& vec, T tagRtpMedia::*pMember)
{
    std::vector<T> vecOut;
    for (const tagRtpMedia& st : vec)
        vecOut.push_back(st.*pMember);
    return vecOut;
}
template <typename T>
std::vector<int> EachHead(const std::vector<tagRtpMedia>& vec, T tagUdtPacketHeadInfo::*pMember)
{
    std::vector<int> vecOut;
    for (const tagRtpMedia& st : vec)
        vecOut.push_back((int)(st.stHead.*pMember));
    return vecOut;
}

#endif // TESTS_RTP_MAKER_H
