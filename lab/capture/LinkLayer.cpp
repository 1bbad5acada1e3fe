// Frame in, UDP datagram out. Every read is checked against what was captured; lengths that the packet
// states only ever shorten what is looked at, so a hostile header cannot lead outside of the frame.

#include "LinkLayer.h"

#include "BigEndian.h"

#include <pcap/dlt.h>

#include <algorithm>

namespace lab
{

namespace
{

// Raw IP has had several numbers over the years and systems; a file may carry any of them.
constexpr int c_nDltRawBsd = 14;
constexpr int c_nLinkTypeRaw = 101;

constexpr uint16 c_wEtherIpv4 = 0x0800;
constexpr uint16 c_wEtherIpv6 = 0x86DD;

constexpr uint8 c_cProtoHopByHop = 0;
constexpr uint8 c_cProtoUdp = 17;
constexpr uint8 c_cProtoRouting = 43;
constexpr uint8 c_cProtoFragment = 44;
constexpr uint8 c_cProtoAuth = 51;
constexpr uint8 c_cProtoDestOptions = 60;

// What is left of the frame: captured bytes and the bytes the wire had.
struct tagView
{
    const uint8* p;
    uint32 uCap;
    uint32 uLen;

    bool Has(uint32 n) const { return uCap >= n; }
    void Skip(uint32 n)
    {
        p += n;
        uCap -= n;
        uLen -= std::min(n, uLen);
    }
    // The packet says that it is n bytes long: what follows is padding.
    void Limit(uint32 n)
    {
        uLen = std::min(uLen, n);
        uCap = std::min(uCap, uLen);
    }
};

EUnwrap UnwrapUdp(tagView v, tagDatagram& stOut)
{
    if (!v.Has(8))
        return EUnwrap::CutHeader;
    stOut.stSrc.wPort = Be16(v.p);
    stOut.stDst.wPort = Be16(v.p + 2);
    const uint32 uUdpLen = Be16(v.p + 4);
    if (uUdpLen != 0) // 0: longer than 16 bits can say, or not filled in yet where it was captured
    {
        if (uUdpLen < 8)
            return EUnwrap::CutHeader;
        v.Limit(uUdpLen);
    }
    v.Skip(8);
    stOut.pData = v.p;
    stOut.dwCaptured = v.uCap;
    stOut.dwWire = v.uLen;
    return EUnwrap::Udp;
}

void SetAddresses(tagDatagram& stOut, uint8 cFamily, const uint8* pSrc, const uint8* pDst)
{
    const size_t n = cFamily == 4 ? 4 : 16;
    stOut.stSrc = tagRtpAddr();
    stOut.stDst = tagRtpAddr();
    stOut.stSrc.cFamily = stOut.stDst.cFamily = cFamily;
    std::copy_n(pSrc, n, stOut.stSrc.aAddr.begin());
    std::copy_n(pDst, n, stOut.stDst.aAddr.begin());
}

EUnwrap UnwrapIpv4(tagView v, tagDatagram& stOut)
{
    if (!v.Has(20))
        return EUnwrap::CutHeader;
    const uint32 uHead = (v.p[0] & 0x0F) * 4u;
    const uint32 uTotal = Be16(v.p + 2);
    const uint16 wFrag = Be16(v.p + 6);
    const uint8 cProto = v.p[9];
    if (uHead < 20 || (uTotal != 0 && uTotal < uHead)) // 0: left to segmentation offload
        return EUnwrap::CutHeader;
    if (cProto != c_cProtoUdp)
        return EUnwrap::NotUdp;
    if (wFrag & 0x3FFF) // more fragments, or not the first
        return EUnwrap::Fragment;
    SetAddresses(stOut, 4, v.p + 12, v.p + 16);
    if (uTotal != 0)
        v.Limit(uTotal);
    if (!v.Has(uHead))
        return EUnwrap::CutHeader;
    v.Skip(uHead);
    return UnwrapUdp(v, stOut);
}

EUnwrap UnwrapIpv6(tagView v, tagDatagram& stOut)
{
    if (!v.Has(40))
        return EUnwrap::CutHeader;
    const uint32 uPayload = Be16(v.p + 4);
    uint8 cNext = v.p[6];
    SetAddresses(stOut, 6, v.p + 8, v.p + 24);
    v.Skip(40);
    if (uPayload != 0)
        v.Limit(uPayload);
    for (;;)
    {
        switch (cNext)
        {
        case c_cProtoUdp: return UnwrapUdp(v, stOut);
        case c_cProtoHopByHop:
        case c_cProtoRouting:
        case c_cProtoDestOptions:
        case c_cProtoAuth:
        {
            if (!v.Has(8))
                return EUnwrap::CutHeader;
            const uint32 uExt = cNext == c_cProtoAuth ? (v.p[1] + 2u) * 4 : (v.p[1] + 1u) * 8;
            if (!v.Has(uExt))
                return EUnwrap::CutHeader;
            cNext = v.p[0];
            v.Skip(uExt);
            break;
        }
        case c_cProtoFragment:
            if (!v.Has(8))
                return EUnwrap::CutHeader;
            // Offset and more-flag both 0: a whole datagram that merely carries the header.
            if (Be16(v.p + 2) & 0xFFF9)
                return EUnwrap::Fragment;
            cNext = v.p[0];
            v.Skip(8);
            break;
        default: return EUnwrap::NotUdp;
        }
    }
}

EUnwrap UnwrapIp(const tagView& v, tagDatagram& stOut)
{
    if (!v.Has(1))
        return EUnwrap::CutHeader;
    switch (v.p[0] >> 4)
    {
    case 4: return UnwrapIpv4(v, stOut);
    case 6: return UnwrapIpv6(v, stOut);
    default: return EUnwrap::NotIp;
    }
}

EUnwrap UnwrapEtherType(uint16 wType, tagView v, tagDatagram& stOut)
{
    // 802.1Q, 802.1ad and the older stacked tag, in any depth.
    while (wType == 0x8100 || wType == 0x88A8 || wType == 0x9100)
    {
        if (!v.Has(4))
            return EUnwrap::CutHeader;
        wType = Be16(v.p + 2);
        v.Skip(4);
    }
    if (wType == c_wEtherIpv4 || wType == c_wEtherIpv6)
        return UnwrapIp(v, stOut);
    return EUnwrap::NotIp;
}

// BSD loopback: an address family in the byte order of the machine that captured it.
EUnwrap UnwrapLoopback(tagView v, tagDatagram& stOut)
{
    if (!v.Has(4))
        return EUnwrap::CutHeader;
    uint32 uFamily = (uint32)v.p[0] << 24 | (uint32)v.p[1] << 16 | (uint32)v.p[2] << 8 | v.p[3];
    if (uFamily > 0xFFFF)
        uFamily = __builtin_bswap32(uFamily);
    v.Skip(4);
    // 2 is AF_INET everywhere; AF_INET6 is 10, 24, 28 or 30, depending on the system.
    if (uFamily == 2 || uFamily == 10 || uFamily == 24 || uFamily == 28 || uFamily == 30)
        return UnwrapIp(v, stOut);
    return EUnwrap::NotIp;
}

} // namespace

bool IsKnownLinkType(int nDlt)
{
    switch (nDlt)
    {
    case DLT_EN10MB:
    case DLT_RAW:
    case c_nDltRawBsd:
    case c_nLinkTypeRaw:
    case DLT_IPV4:
    case DLT_IPV6:
    case DLT_LINUX_SLL:
    case DLT_LINUX_SLL2:
    case DLT_NULL:
    case DLT_LOOP: return true;
    default: return false;
    }
}

EUnwrap UnwrapFrame(int nDlt, const uint8* pFrame, uint32 dwCaptured, uint32 dwWire, tagDatagram& stOut)
{
    tagView v{pFrame, dwCaptured, std::max(dwCaptured, dwWire)};
    switch (nDlt)
    {
    case DLT_EN10MB:
    {
        if (!v.Has(14))
            return EUnwrap::CutHeader;
        const uint16 wType = Be16(v.p + 12);
        v.Skip(14);
        return UnwrapEtherType(wType, v, stOut);
    }
    case DLT_LINUX_SLL:
    {
        if (!v.Has(16))
            return EUnwrap::CutHeader;
        const uint16 wType = Be16(v.p + 14);
        v.Skip(16);
        return UnwrapEtherType(wType, v, stOut);
    }
    case DLT_LINUX_SLL2:
    {
        if (!v.Has(20))
            return EUnwrap::CutHeader;
        const uint16 wType = Be16(v.p);
        v.Skip(20);
        return UnwrapEtherType(wType, v, stOut);
    }
    case DLT_NULL:
    case DLT_LOOP: return UnwrapLoopback(v, stOut);
    case DLT_RAW:
    case c_nDltRawBsd:
    case c_nLinkTypeRaw:
    case DLT_IPV4:
    case DLT_IPV6: return UnwrapIp(v, stOut);
    default: return EUnwrap::NotIp;
    }
}

} // namespace lab
