// What a capture file gives: UDP datagrams with their arrival time, ends and place in the file.
#ifndef LAB_CAPTURE_DATAGRAM_H
#define LAB_CAPTURE_DATAGRAM_H

#include "RtpTypes.h"

namespace lab
{

// A datagram as a reader lends it: pData is valid until the reader's next call, the arrival time counts from
// 1970. Addresses that a format does not keep have family 0.
struct tagDatagram : tagRtpDatagram
{
    uint64 ullOffset = 0; // of its record in the file
    uint32 uFile = 0;     // which capture of several, 0 first
};

} // namespace lab

#endif
