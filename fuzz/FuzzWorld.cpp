#include "FuzzWorld.h"

namespace
{

// Two users with sound, big and small picture each; their sub-types by sender.
constexpr uint8 c_aSubTypes[] = {MEAVAudio, MEAVMaxVideo, MEAVSubVideo,
                                 MEAVAudio, MEAVMaxVideo, MEAVPPTShare};

} // namespace

// The first byte: sender in the low bits; the high bits say what is unusual about this packet.
tagRigPacket CFuzzSenders::Packet(CFuzzInput& in)
{
    const uint8 cHow = in.Byte();
    const size_t nSender = (cHow & 0x1F) % c_nSenders;
    tagSender& st = m_aSenders[nSender];
    const bool bVideo = c_aSubTypes[nSender] != MEAVAudio;
    if (!st.bBegun)
    {
        st.bBegun = true;
        static constexpr uint32 s_aFirst[] = {1, 0, 100, 0x7FFFFFF0, 0xFFFFFFF0, 0xFFFFFFFF, 65530, 2};
        st.dwSeq = s_aFirst[in.Below(8)];
        static constexpr uint32 s_aMedia[] = {100000, 1, 0, 5000, 0xFFFFFF00, 0x7FFFFF00};
        st.dwMedia = s_aMedia[in.Below(6)];
    }

    tagRigPacket stPacket;
    stPacket.ullUin = 1 + nSender / 3;
    stPacket.cSubType = c_aSubTypes[nSender];
    stPacket.wLen = (uint16)(bVideo ? 1000 : 80);
    tagUdtPacketHeadInfo& stHead = stPacket.stHead;
    stHead.cSubType = stPacket.cSubType;
    if (bVideo)
    {
        // A GOP of ten frames, an I frame of three packets, then frames of one.
        const uint8 cPkgNum = st.cFrm == 0 ? 3 : 1;
        stHead.cFrmType = st.cFrm == 0 ? def_FrameType_I : def_FrameType_P;
        stHead.cTotalPkgCount = cPkgNum;
        stHead.cPkgIndex = st.cPkg;
        stHead.cFrameIndex = st.cFrm;
        stHead.cGopIndex = st.cGop;
        stHead.uTimeStamp = st.dwMedia;
        if (++st.cPkg >= cPkgNum)
        {
            st.cPkg = 0;
            st.dwMedia += 40;
            if (++st.cFrm == 10)
            {
                st.cFrm = 0;
                ++st.cGop;
            }
        }
    }
    else
    {
        stHead.cFrmType = def_FrameType_P;
        stHead.cTotalPkgCount = 1;
        stHead.uTimeStamp = st.dwMedia;
        st.dwMedia += 20;
    }
    stPacket.dwSendSeq = st.dwSeq++;
    stPacket.dwDownSeq = ++m_dwDownSeq;
    stPacket.wTimeStamp = m_wStamp = (uint16)(m_wStamp + 10);

    if (cHow & 0x20) // the sequence leaps, or this packet comes again or late
    {
        const uint8 cLeap = in.Byte();
        if (cLeap < 0x60)
        {
            stPacket.dwSendSeq += cLeap & 0x1F;
            st.dwSeq = stPacket.dwSendSeq + 1;
        }
        else if (cLeap < 0xC0)
            stPacket.dwSendSeq -= cLeap & 0x1F; // the stream itself goes on
        else
        {
            stPacket.dwSendSeq += (uint32)(int32)(int16)in.Word16();
            if (cLeap & 1)
                st.dwSeq = stPacket.dwSendSeq + 1;
        }
    }
    if (cHow & 0x40) // the media time leaps or the head is odd
    {
        const uint8 cOdd = in.Byte();
        switch (cOdd & 7)
        {
        case 0: st.dwMedia += (uint32)(int32)(int16)in.Word16(); break;
        case 1: stHead.uTimeStamp += (uint32)(int32)(int16)in.Word16(); break;
        case 2: st.dwMedia = in.Word32(); break;
        case 3: stHead.cFrmType = in.Byte(); break;
        case 4: stHead.cFecPkgCount = in.Byte(); break;
        case 5:
            st.cGop = stHead.cGopIndex = in.Byte();
            st.cFrm = stHead.cFrameIndex = in.Byte();
            break;
        case 6:
            stHead.cPkgIndex = in.Byte();
            stHead.cTotalPkgCount = in.Byte();
            break;
        default:
            m_dwDownSeq += (uint32)(int32)(int8)in.Byte();
            m_wStamp = (uint16)(m_wStamp + in.Word16());
            stPacket.wLen = in.Word16();
            break;
        }
    }
    if (cHow & 0x80) // anything at all
    {
        const uint8 cWild = in.Byte();
        if (cWild & 1)
            stPacket.ullUin = cWild & 2 ? in.Word64() : in.Byte();
        if (cWild & 4)
            stPacket.cSubType = in.Byte();
        if (cWild & 8)
            stPacket.dwSendSeq = in.Word32();
        if (cWild & 16)
            stHead.uTimeStamp = in.Word32();
        if (cWild & 32)
            stHead.cSubType = in.Byte();
        stPacket.bNull = (cWild & 0xC0) == 0xC0;
    }
    return stPacket;
}
