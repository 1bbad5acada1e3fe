// Enums that the parts of the transport share among themselves.
#ifndef IUDTINSIDE_H
#define IUDTINSIDE_H

// Which rate a meter measures: the index under which CUDTInsideParam keeps it. "Total" counts every byte, "raw"
// leaves out what the transport added (repeats, redundancy).
enum emSpeedType
{
    TOTAL_SEND_SPEED = 0,
    RAW_SEND_SPEED = 1,
    TOTAL_AUDIO_SEND_SPEED = 2,
    RAW_AUDIO_SEND_SPEED = 3,
    TOTAL_VIDEO_SEND_SPEED = 4,
    RAW_VIDEO_SEND_SPEED = 5,
    TOTAL_RECV_SPEED = 6,
    RAW_RECV_SPEED = 7,
    TOTAL_AUDIO_RECV_SPEED = 8,
    RAW_AUDIO_RECV_SPEED = 9,
    TOTAL_VIDEO_RECV_SPEED = 10,
    RAW_VIDEO_RECV_SPEED = 11,
    SPEED_TYPE_MAX = 12
};

// Bits of a log-print flag. A set bit asks for one trace line at that place; the place clears it.
enum enLogPrintPos
{
    LOG_RECV = 1,
    LOG_OUT = 2,
    LOG_TIME_PARAM = 4
};

// How far a stream's key frame has come, as bits.
enum enVidIFrmState
{
    VID_IFRM_RECV = 1,
    VID_IFRM_OUT = 2
};

#endif
