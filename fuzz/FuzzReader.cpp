// Bytes are a capture file. Those that begin like no capture at all go to the link layers as one frame.

#include "CaptureReader.h"
#include "FuzzFile.h"
#include "LinkLayer.h"

namespace
{

uint32 s_dwSeen; // so that the bytes are really read

void Touch(const lab::tagDatagram& st)
{
    FuzzExpect(st.dwCaptured <= st.dwWire, "more captured than there was");
    for (uint32 i = 0; i < st.dwCaptured; ++i)
        s_dwSeen += st.pData[i];
}

} // namespace

void FuzzReader(const uint8* pData, size_t nLen)
{
    if (nLen >= 4 && pData[0] < 8)
    {
        static constexpr int s_aLinks[] = {1, 0, 12, 14, 101, 108, 113, 276, 228, 229, 9999};
        const std::vector<uint8> vecFrame(pData + 4, pData + nLen);
        lab::tagDatagram st;
        const int nLink = s_aLinks[pData[1] % 11];
        const uint32 dwLen = (uint32)vecFrame.size();
        lab::IsKnownLinkType(nLink);
        if (lab::UnwrapFrame(nLink, vecFrame.data(), dwLen, dwLen + pData[2], st) == lab::EUnwrap::Udp)
            Touch(st);
        return;
    }
    const CFuzzFile file(pData, nLen);
    std::string strError;
    const auto pReader = lab::OpenCapture(file.Path(), strError);
    if (!pReader)
    {
        FuzzExpect(strError.find(file.Path() + ": offset ") == 0, "refused without the place");
        FuzzExpect(strError.find('\n') == std::string::npos, "a complaint of more than one line");
        return;
    }
    lab::tagDatagram st;
    uint64 ullLastUs = 0;
    lab::EReadResult eResult;
    while ((eResult = pReader->Next(st)) == lab::EReadResult::Datagram)
    {
        Touch(st);
        FuzzExpect(st.ullArrivalUs >= ullLastUs, "time runs backwards");
        FuzzExpect(st.ullOffset < nLen, "a record behind the end");
        ullLastUs = st.ullArrivalUs;
    }
    FuzzExpect((eResult == lab::EReadResult::Error) == !pReader->Error().empty(),
               "a break without a complaint");
    FuzzExpect(pReader->Error().empty() || pReader->Error().find(file.Path() + ": offset ") == 0,
               "a complaint without the place");
    FuzzExpect(pReader->Next(st) == lab::EReadResult::End, "it goes on behind its end");
    const lab::tagCaptureStats& stats = pReader->Stats();
    FuzzExpect(stats.ullRecords == stats.ullDatagrams + stats.ullNotIp + stats.ullNotUdp +
                                       stats.ullFragments + stats.ullCutHeaders,
               "records that ended nowhere");
}
