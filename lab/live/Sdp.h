// What a session description tells a listener: payload formats, RTX pairs, RTCP's ways.
#ifndef LAB_SDP_H
#define LAB_SDP_H

#include "RtpTypes.h"

#include <map>
#include <string>

namespace lab
{

struct tagSdp
{
    std::map<uint8, tagRtpFormat> mapFormats;
    std::map<uint32, uint32> mapRtxSsrc;     // RTX SSRC to the one it repairs (ssrc-group FID)
    std::map<uint32, std::string> mapCnames; // of SSRCs
    int nTransportSeqId = 0;                 // 0: none is described
    bool bRtcpMux = false;
    bool bReducedSize = false;
    uint16 wAudioPort = 0; // of the m= lines
    uint16 wVideoPort = 0;
};

// False with a reason "line N: ... (expected ...)".
bool ParseSdp(const std::string& strText, tagSdp& stSdp, std::string& strError);
// The same of a file; the reason begins with its name.
bool ReadSdp(const std::string& strPath, tagSdp& stSdp, std::string& strError);

} // namespace lab

#endif
