// From a captured frame to the UDP datagram inside it.
#ifndef LAB_CAPTURE_LINKLAYER_H
#define LAB_CAPTURE_LINKLAYER_H

#include "Datagram.h"

namespace lab
{

enum class EUnwrap
{
    Udp,      // stOut has the ends, the payload and its length
    NotIp,    // another protocol in the frame
    NotUdp,   // IP, but not UDP
    Fragment, // part of a datagram
    CutHeader // captured too short for its own headers, or headers that contradict themselves
};

// The link types understood, by libpcap's DLT numbers: Ethernet (with VLAN tags), raw IP in its several
// numbers, Linux cooked SLL and SLL2, BSD loopback NULL and LOOP.
bool IsKnownLinkType(int nDlt);

// Fills the ends, pData, dwCaptured and dwWire of stOut. pFrame holds dwCaptured of dwWire bytes.
EUnwrap UnwrapFrame(int nDlt, const uint8* pFrame, uint32 dwCaptured, uint32 dwWire, tagDatagram& stOut);

} // namespace lab

#endif
