// Bytes become calls on the receiver; what must hold in every run is checked while it runs.

#include "FuzzWorld.h"
#include "LabRun.h"

#include <cstdio>
#include <map>

namespace
{

constexpr uint32 c_dwMostTurns = 1000;

class CFuzzOwner : public lab::IRunObserver
{
public:
    int OnReleased(lab::CMediaPacket& packet, uint32) override
    {
        if (FuzzShows())
            fprintf(stderr, "       out #%u: seq %u\n", packet.m_uStream, packet.dwSenderSeq);
        return m_nPlayDelay;
    }
    void OnLogLine(UDT_LOG_LEVEL, const char* pszFunc, const char* pszText, uint32) override
    {
        if (FuzzShows())
            fprintf(stderr, "       %s: %s\n", pszFunc, pszText);
    }
    void OnLossRequest(const tagReplyData*, uint32, uint32) override {}
    int m_nPlayDelay = 0;
};

} // namespace

void FuzzReceiver(const uint8* pData, size_t nLen)
{
    CFuzzInput in(pData, nLen);
    static constexpr uint64 s_aTicks[] = {1000000, 1, 0xFFFFFC00, 0x7FFFFFFF};
    const uint8 cSetup = in.Byte();
    lab::tagRunOptions stOptions;
    stOptions.ullStartTick = s_aTicks[cSetup & 3];
    stOptions.bLowLatency = (cSetup & 4) != 0;
    stOptions.nLogLevel = FuzzShows() ? LOG_LEVEL_DEBUG : LOG_LEVEL_ERROR;
    CFuzzOwner owner;
    lab::CLabRun run(stOptions, owner);
    CAVGUdtRecv& recv = run.Receiver();
    CFuzzSenders senders;
    std::map<std::pair<uint64, uint8>, uint32> mapStreams;

    int64 llNowUs = 0;
    uint32 dwTurns = 0;
    bool bGuards = false; // were there any yet?
    while (!in.Empty() && dwTurns < c_dwMostTurns)
    {
        const uint8 cWhat = in.Byte();
        if (cWhat < 0x90)
        {
            const tagRigPacket st = senders.Packet(in);
            lab::CMediaPacket* const pPacket = run.NewPacket(st.stHead);
            pPacket->u64Uin = st.ullUin;
            pPacket->dwSenderSeq = st.dwSendSeq;
            pPacket->dwSeq = st.dwDownSeq;
            pPacket->wTimeStamp = st.wTimeStamp;
            pPacket->wLen = st.wLen;
            pPacket->m_cSubType = st.cSubType;
            pPacket->m_uStream =
                mapStreams.emplace(std::make_pair(st.ullUin, st.cSubType), (uint32)mapStreams.size())
                    .first->second;
            if (FuzzShows())
                fprintf(stderr, "%6lld feed %llu/%d #%u: seq %u media %u\n", llNowUs / 1000, st.ullUin,
                        st.cSubType, pPacket->m_uStream, st.dwSendSeq, st.stHead.uTimeStamp);
            run.Feed(pPacket, llNowUs);
        }
        else if (cWhat < 0xE0)
        {
            static constexpr uint32 s_aStepsMs[] = {10,  10,  10,   1,    0,    20,    50, 100,
                                                    200, 500, 1000, 3000, 6001, 60000, 10, 10};
            llNowUs += s_aStepsMs[cWhat & 15] * 1000ll;
            if (bGuards)
                run.Checks().ClearAsked(); // packets may be turned away in any turn
            run.Turn(llNowUs);
            ++dwTurns;
            if (FuzzShows())
                fprintf(stderr, "%6lld turn, %llu packets held\n", llNowUs / 1000, run.Live());
        }
        else
        {
            uint32 dw[4];
            if (FuzzShows())
                fprintf(stderr, "%6lld call %d\n", llNowUs / 1000, cWhat & 15);
            switch (cWhat & 15)
            {
            case 0: owner.m_nPlayDelay = in.Byte() * 4; break;
            case 1: recv.UDTSetRecvRTT(in.Word16() >> in.Below(16)); break;
            case 2: recv.UDTEnableReGetPkg((boolean)in.Below(2)); break;
            case 3: recv.SetRoomState(in.Below(5)); break;
            case 4:
                recv.ClearRecvChn(senders.Uin(in), in.Below(4) == 0 ? 0xFF : in.Below(8));
                run.Checks().ClearAsked();
                break;
            case 5: recv.GetDownPacketRecvInfo(dw[0], dw[1], dw[2], dw[3]); break;
            case 6:
            {
                tagUDTRecvParams params;
                params.wQueuePeriod = (uint16)(in.Byte() * 40);
                params.wTimelineDelta = (uint16)(in.Byte() * 10);
                params.wOutPutDelay = (uint16)(in.Byte() * 4);
                params.wUdtMode = cSetup >> 2 & 1;
                params.wPushGopNum = (uint16)in.Below(4);
                recv.UDTSetRecvParams(params);
                break;
            }
            case 7:
            {
                // Small enough to be reached; every other one is none.
                tagUDTRecvGuards stGuards;
                for (uint32* pdwMost :
                     {&stGuards.dwMaxIntakePackets, &stGuards.dwMaxIntakeBytes, &stGuards.dwMaxStreams,
                      &stGuards.dwMaxAccounts, &stGuards.dwMaxStreamPackets, &stGuards.dwMaxStreamHistory,
                      &stGuards.dwMaxRequestsPerSecond, &stGuards.dwMaxPullBacks, &stGuards.dwMaxLatency})
                {
                    const uint8 cMost = in.Byte();
                    *pdwMost = cMost < 0x80 ? cMost : 0;
                }
                stGuards.dwMaxIntakeBytes *= 100;
                stGuards.dwMaxLatency *= 20;
                recv.SetGuards(stGuards);
                bGuards = true;
                break;
            }
            default: recv.SetRoomState(3); break;
            }
        }
    }
    if (bGuards)
        run.Checks().ClearAsked(); // what was turned away since the last turn
    run.Stop();
    if (!run.Checks().Ok())
        throw CFuzzBroken(run.Checks().Violations().front());
}
