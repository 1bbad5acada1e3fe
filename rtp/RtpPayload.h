/// Payload formats and the marks their payloads carry.
#ifndef RTP_PAYLOAD_H
#define RTP_PAYLOAD_H

#include "RtpTypes.h"

/// The static payload types of RFC 3551; null for any other.
const tagRtpFormat* RtpStaticFormat(uint8 cPt);

/// The kind that a codec's name means ("H264", "opus", "rtx", "ulpfec"...), unknown for other names.
emRtpKind RtpCodecKind(const std::string& strCodec);

/// How a payload is to be read for marks.
enum emRtpPayloadForm
{
    RTP_FORM_OTHER = 0, ///< no marks known: every frame is a P frame
    RTP_FORM_H264,      ///< RFC 6184
    RTP_FORM_VP8        ///< RFC 7741
};
emRtpPayloadForm RtpPayloadForm(const std::string& strCodec);

/// What one payload tells about its frame.
struct tagRtpMark
{
    bool bKey = false;          ///< part of a key frame (H.264: IDR slice or SPS; VP8: P bit clear)
    bool bStart = false;        ///< surely the frame's first packet
    bool bContinuation = false; ///< surely not the frame's first packet
    bool bUndecided = false; ///< says nothing about the frame's type (H.264 AUD, SEI, PPS only; no payload)
};
tagRtpMark ReadRtpMark(emRtpPayloadForm eForm, const uint8* pPayload, uint32 dwLen);

/// Could this be such a payload? Strict: for telling formats apart, not for playing.
/// @param bStrong set when it holds what chance hardly makes (an SPS or a fragment start; a VP8 start code)
bool LooksLikeH264(const uint8* pPayload, uint32 dwLen, bool& bStrong);
bool LooksLikeVp8(const uint8* pPayload, uint32 dwLen, bool& bStrong);

#endif // RTP_PAYLOAD_H
