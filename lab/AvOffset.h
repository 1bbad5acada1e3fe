// How far apart users' picture and sound were released: see tagUserResult.
#ifndef LAB_AVOFFSET_H
#define LAB_AVOFFSET_H

#include "Histogram.h"
#include "MediaPacket.h"

#include <cstdlib>
#include <map>
#include <vector>

namespace lab
{

struct tagAvOffset
{
    CMsHistogram absolute;
    int64 llSumMs = 0; // signed; positive: the picture is later than the sound
    bool bAudio = false;
    uint32 dwAudioLag = 0; // release tick minus media time, of the audio released last
};

class CAvOffsets
{
public:
    // uPlayDelayMs: what the owner reports as its audio play delay.
    explicit CAvOffsets(uint32 uPlayDelayMs) : m_uPlayDelayMs(uPlayDelayMs) {}

    void Released(const CMediaPacket& packet, uint32 dwTick)
    {
        tagAvOffset& stUser = m_mapUsers[packet.u64Uin];
        const uint32 dwMediaTs = packet.Head().uTimeStamp;
        const uint32 dwLag = dwTick - dwMediaTs;
        if (packet.m_cSubType == MEAVAudio)
        {
            stUser.bAudio = true;
            stUser.dwAudioLag = dwLag + m_uPlayDelayMs;
            return;
        }
        if (!IsNewFrame(packet.m_uStream, dwMediaTs) || !stUser.bAudio)
            return;
        const int32 nOffset = (int32)(dwLag - stUser.dwAudioLag);
        stUser.absolute.Add((uint32)std::abs((int64)nOffset));
        stUser.llSumMs += nOffset;
    }

    const tagAvOffset& Of(uint64 ullAccount) { return m_mapUsers[ullAccount]; }

private:
    struct tagFrame
    {
        bool bAny = false;
        uint32 dwMediaTs = 0;
    };

    bool IsNewFrame(uint32 uStream, uint32 dwMediaTs)
    {
        if (uStream >= m_vecLastFrames.size())
            m_vecLastFrames.resize(uStream + 1);
        tagFrame& st = m_vecLastFrames[uStream];
        const bool bNew = !st.bAny || dwMediaTs != st.dwMediaTs;
        st.bAny = true;
        st.dwMediaTs = dwMediaTs;
        return bNew;
    }

    const uint32 m_uPlayDelayMs;
    std::map<uint64, tagAvOffset> m_mapUsers;
    std::vector<tagFrame> m_vecLastFrames; // by stream
};

} // namespace lab

#endif
