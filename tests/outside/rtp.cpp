// Links the RTP side alone: PCMU datagrams in, packets for the receiver out.

#include "RtpIntake.h"

#include <cstdio>

int main()
{
    tagRtpOptions stOptions;
    stOptions.bLive = true;
    CRtpIntake intake(stOptions);

    uint32 dwMedia = 0;
    uint8 bufPacket[12 + 160] = {0x80, 0};
    bufPacket[11] = 77; // SSRC
    for (uint32 dwSeq = 1; dwSeq <= 50; ++dwSeq)
    {
        bufPacket[3] = (uint8)dwSeq;
        bufPacket[6] = (uint8)(dwSeq * 160 >> 8);
        bufPacket[7] = (uint8)(dwSeq * 160);

        tagRtpDatagram stDatagram;
        stDatagram.ullArrivalUs = 1000000 + 20000 * dwSeq;
        stDatagram.pData = bufPacket;
        stDatagram.dwCaptured = stDatagram.dwWire = sizeof(bufPacket);
        intake.Push(stDatagram);

        tagRtpMedia stMedia;
        while (intake.Pop(stMedia))
            ++dwMedia;
    }
    std::printf("outside: %u packets, %u stream\n", dwMedia, intake.StreamCount());
    return dwMedia == 50 && intake.StreamCount() == 1 ? 0 : 1;
}
