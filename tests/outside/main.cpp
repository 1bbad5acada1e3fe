// Includes the way an owner does, by bare names, and links: a receiver that is made, started and stopped.

#include "AVGUDTRecv.h"
#include "IUDT.h"

#include <cstdio>

int main()
{
    tagUDTRecvParams params;
    params.wTimelineDelta = 200;

    CAVGUdtRecv receiver(nullptr);
    receiver.UDTSetRecvParams(params);
    receiver.Start();
    receiver.Stop();

    std::puts("outside: built, linked and ran");
    return 0;
}
