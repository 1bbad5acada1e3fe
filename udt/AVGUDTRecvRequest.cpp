/**
 * When a missing packet is asked for.
 */

#include "AVGUDTRecv.h"

#include "AVGUDTRecvInner.h"

// Asks for nothing and expires nothing yet.
void CAVGUdtRecv::CheckTimeOutNew() {}

void CAVGUdtRecv::UDTEnableReGetPkg(boolean bEnable)
{
    if (bEnable == m_bEnableReGetPkg)
        return;
    m_bEnableReGetPkg = bEnable;
    RECV_LOG(LOG_LEVEL_ERROR, "UDTEnableReGetPkg", "UDTR EnableReGetPkg bEnable[%d]", bEnable);
}

// The single exit for events. The owner's answer changes nothing here.
boolean CAVGUdtRecv::RecvDataEvent(uint16 wType, uint8* pBuffer, uint32 nBufSize, uint32 nSendCount,
                                   uint32 nUdtV2)
{
    if (m_pCB != nullptr)
        m_pCB->UdtRecvHandleEvent(wType, pBuffer, nBufSize, nSendCount, nUdtV2);
    return TRUE;
}
