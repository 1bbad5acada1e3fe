// Includes the way an owner does, by bare names, and calls every operation, so that it links only when the library
// offers them all.

#include "AVGUDTRecv.h"
#include "IUDT.h"
#include "UDTLog.h"
#include "xpmess.h"

#include <cstdio>

namespace
{
uint32 s_dwLines = 0;

void CountLine(void*, UDT_LOG_LEVEL, const char*, const char*, int, const char*, const char*) { ++s_dwLines; }

struct COwner : IUDTRecvEventCallBack
{
    uint32 m_dwOut = 0;

    void OnUDTRecvOutData(UDTCodecBaseDecode_V2*, int*) override { ++m_dwOut; }
    int UdtRecvHandleEvent(WORD, uint8*, uint32, uint32, uint32) override { return 0; }
    int UdtParsePacketHeadInfo(uint8*, UdtPacketHeadInfo& stHead) override
    {
        stHead.cSubType = MEAVAudio;
        stHead.uTimeStamp = 1000;
        return 0;
    }
};

uint64 TickOf(void* pTick) { return *(uint64*)pTick; }
} // namespace

int main()
{
    uint64 ullTick = 1000;
    xp_settickcountsource(TickOf, &ullTick);
    LogSetSink(CountLine, nullptr);

    COwner owner;
    CAVGUdtRecv receiver(&owner);
    receiver.SetOwnerDriven(TRUE);

    tagUDTRecvParams params;
    params.wTimelineDelta = 200;
    receiver.UDTSetRecvParams(params);
    receiver.UDTSetRecvRTT(40);
    receiver.UDTEnableReGetPkg(TRUE);
    receiver.SetRoomState(3);
    receiver.Start();

    CScopePtr<UDTCodecBaseDecode_V2> pPacket(new UDTCodecBaseDecode_V2);
    receiver.UDTReceiveNetData(1, 4711, 1, 0, MEAVAudio, pPacket.p);
    for (; ullTick <= 2000; ullTick += 10)
        receiver.RunTurn();

    tagRecvInfo stInfo;
    receiver.GetRecvInfo(stInfo);
    tagRecvChnStatInfo stStream;
    const uint32 dwStreams = receiver.GetRecvChnInfo(&stStream, 1);
    tagPlayoutInfo stPlayout;
    const boolean bPlays = receiver.GetPlayoutInfo(4711, stPlayout);
    uint32 dwWord[4];
    receiver.UDTCalcRecvLoss(dwWord[0], dwWord[1], dwWord[2], dwWord[3]);
    receiver.GetDownPacketRecvInfo(dwWord[0], dwWord[1], dwWord[2], dwWord[3]);
    receiver.ClearRecvChn(4711, 0);
    receiver.Stop();
    LogSetSink(nullptr, nullptr);

    if (owner.m_dwOut != 1 || stInfo.dwChnNum != 1 || dwStreams != 1 || !bPlays || s_dwLines == 0)
    {
        std::printf("outside: %u out, %u streams, %u lines\n", owner.m_dwOut, dwStreams, s_dwLines);
        return 1;
    }
    std::puts("outside: built, linked and ran");
    return 0;
}
