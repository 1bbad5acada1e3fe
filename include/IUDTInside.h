/** @file
 * Enums that the parts of the transport share among themselves.
 */
#ifndef IUDTINSIDE_H
#define IUDTINSIDE_H

/// Which rate a meter measures: the index under which CUDTInsideParam keeps it. "Total" counts every byte, "raw"
/// leaves out what the transport added (repeats, redundancy).
enum emSpeedType
{
    TOTAL_SEND_SPEED = 0,        ///< all bytes, sent
    RAW_SEND_SPEED = 1,          ///< bytes without repeats and redundancy, sent
    TOTAL_AUDIO_SEND_SPEED = 2,  ///< all bytes of audio, sent
    RAW_AUDIO_SEND_SPEED = 3,    ///< bytes without repeats and redundancy of audio, sent
    TOTAL_VIDEO_SEND_SPEED = 4,  ///< all bytes of video, sent
    RAW_VIDEO_SEND_SPEED = 5,    ///< bytes without repeats and redundancy of video, sent
    TOTAL_RECV_SPEED = 6,        ///< all bytes, received
    RAW_RECV_SPEED = 7,          ///< bytes without repeats and redundancy, received
    TOTAL_AUDIO_RECV_SPEED = 8,  ///< all bytes of audio, received
    RAW_AUDIO_RECV_SPEED = 9,    ///< bytes without repeats and redundancy of audio, received
    TOTAL_VIDEO_RECV_SPEED = 10, ///< all bytes of video, received
    RAW_VIDEO_RECV_SPEED = 11,   ///< bytes without repeats and redundancy of video, received
    SPEED_TYPE_MAX = 12          ///< number of types
};

/// Bits of a log-print flag. A set bit asks for one trace line at that place; the place clears it.
enum enLogPrintPos
{
    LOG_RECV = 1,      ///< at intake
    LOG_OUT = 2,       ///< at release
    LOG_TIME_PARAM = 4 ///< at the next advance of the playout clock
};

/// How far a stream's key frame has come, as bits.
enum enVidIFrmState
{
    VID_IFRM_RECV = 1, ///< its first packet has come
    VID_IFRM_OUT = 2   ///< its last packet was released
};

#endif
