// The wire format that nack_sender and nack_receiver share. It is theirs alone: the receiver library never sees it.
//
//   every datagram   kind (1 byte), then
//     'M' media      sub-type (1), sender sequence (4), downlink sequence (4), transport time (2), and the body:
//                    media head = frame type, packet index, packets of the frame, frame index, GOP index (1 each),
//                    media time (4); then the payload
//     'N' nack       count (1), then sub-type (1) and sender sequence (4) of each missing packet
//     'B' bye        packets sent (4)
// Numbers are big-endian.
#ifndef NACK_WIRE_H
#define NACK_WIRE_H

#include "IUDT.h"

#include <cstddef>
#include <vector>

typedef std::vector<uint8> Bytes;

enum emWire
{
    WIRE_MEDIA_BEGIN = 12, // bytes before the body
    WIRE_HEAD = 9,         // bytes of the media head
    WIRE_NACK_MOST = 100   // packets asked for by one datagram
};

inline void Put(Bytes& buf, uint32 dwValue, uint32 dwBytes)
{
    while (dwBytes-- > 0)
        buf.push_back((uint8)(dwValue >> 8 * dwBytes));
}

inline uint32 Get(const uint8* p, uint32 dwBytes)
{
    uint32 dwValue = 0;
    while (dwBytes-- > 0)
        dwValue = dwValue << 8 | *p++;
    return dwValue;
}

inline void PutHead(Bytes& buf, const UdtPacketHeadInfo& stHead)
{
    Put(buf, stHead.cFrmType, 1);
    Put(buf, stHead.cPkgIndex, 1);
    Put(buf, stHead.cTotalPkgCount, 1);
    Put(buf, stHead.cFrameIndex, 1);
    Put(buf, stHead.cGopIndex, 1);
    Put(buf, stHead.uTimeStamp, 4);
}

inline void GetHead(const uint8* p, UdtPacketHeadInfo& stHead)
{
    stHead.cHeadLen = WIRE_HEAD;
    stHead.cFrmType = p[0];
    stHead.cPkgIndex = p[1];
    stHead.cTotalPkgCount = p[2];
    stHead.cFrameIndex = p[3];
    stHead.cGopIndex = p[4];
    stHead.uTimeStamp = Get(p + 5, 4);
}

#endif
