#ifndef PLAINLOSS_H
#define PLAINLOSS_H

/**
 * Loss detection and loss requests a second time: slow, literal walks over copied buffers, written to be read
 * beside the rules and not to be fast. They share no code and no record with the receiver, so that a property
 * test, or a quicker version of the walks, can be compared with them in lock-step: fields, lines and requests.
 *
 * A caller keeps the buffers in step (what was filed, what left), tells where playout stands, and runs the
 * walks where the receiver runs its own.
 */

#include "xptypes.h"

#include <map>
#include <string>
#include <vector>

struct tagDataPacket; // the receiver's; for PlainPacket alone

/// One buffered packet, as far as losses are concerned.
struct tagPlainPacket
{
    // As it came.
    uint32 dwId = 0; ///< the downlink sequence; tells a packet from a later one with the same sequence
    uint32 dwSenderSeq = 0;
    uint32 dwTimeStamp = 0;
    uint32 dwMETimeStamp = 0;
    uint64 ullUin = 0;
    uint8 cSubType = 0;
    uint32 dwRecvTime = 0;
    uint8 cGopIdx = 0;
    uint8 cFrmIdx = 255;
    uint8 cPkgIndex = 0;
    uint8 cFrmType = 255;
    uint8 cPkgNum = 0;
    uint8 cFecNum = 0;

    // What the walks write.
    uint8 cPrePkgLost = 0;
    uint8 cFrmLostNum = 0;
    uint8 cIsCalcLost = 0;
    uint16 wVidPkgIdxLeft = 0;
    uint16 wLostReqCnt = 0;
    uint32 dwLastReqLostTime = 0;

    bool operator==(const tagPlainPacket& stOther) const;
    std::string Text() const; ///< every field, for a failing test
};

/// Copies the receiver's record of a packet.
tagPlainPacket PlainPacket(const tagDataPacket& stPacket);

/// One stream's buffer and what the walks remember of it.
struct tagPlainStream
{
    uint64 ullUin = 0;
    uint8 cSubType = 0;
    std::vector<tagPlainPacket> vecPackets; ///< by ascending sequence, as numbers
    uint32 dwTimeStampDelta = 0;
    uint32 dwVidGopCnt = 0; ///< told by the caller before a walk
    uint32 dwPFrmCnt = 0;
    std::map<uint32, uint32> mapRequestSeq; ///< asked-for sequence to tick
    uint32 dwTotalReqFailNum = 0;

    void File(const tagPlainPacket& stPacket); ///< keeps the order
};

struct tagPlainLine
{
    int nLevel;
    std::string strFunc;
    std::string strText;

    bool operator==(const tagPlainLine& stOther) const
    {
        return nLevel == stOther.nLevel && strFunc == stOther.strFunc && strText == stOther.strText;
    }
};

struct tagPlainAsked
{
    uint64 ullUin;
    uint8 cSubType;
    uint32 dwSeq;

    bool operator==(const tagPlainAsked& stOther) const
    {
        return ullUin == stOther.ullUin && cSubType == stOther.cSubType && dwSeq == stOther.dwSeq;
    }
};

class CPlainLoss
{
public:
    // ---- Settings ----
    uint32 m_dwServPushGopNum = 2;
    uint32 m_dwFirstGetTime = 300;
    uint32 m_dwRequestInterval = 200;
    uint32 m_dwRTT = 0;
    uint32 m_dwTimelineDeltaMax = 6000;
    bool m_bRequestsOn = true;

    // ---- State ----
    std::vector<tagPlainStream> m_vecStreams;  ///< by ascending account, then sub-type
    std::map<uint64, uint32> m_mapTimelineOut; ///< where each user's playout stands
    uint32 m_dwWarmUpStart = 0;                ///< of the first-request delay; 0: not started
    uint32 m_dwWarmUpOver = 0;                 ///< 1: the configured delay is in force
    uint32 m_dwLastScan = 0;                   ///< 0: not started
    uint32 m_dwLastFailCheck = 0;              ///< 0: not started

    // ---- What came out, until the caller empties it ----
    std::vector<tagPlainLine> m_vecLines;
    std::vector<std::vector<tagPlainAsked>> m_vecRequests; ///< one per event

    /// The stream, made when it is not there.
    tagPlainStream& Stream(uint64 ullUin, uint8 cSubType);
    /// Sub-types 2, 3, 7 and 1 of every stream, in order.
    void WalkAll();
    uint32 WalkAudio(tagPlainStream& stStream);
    uint32 WalkVideo(tagPlainStream& stStream);
    /// The timed scan, without its housekeeping.
    void Scan(uint32 dwNow);
    /// Counts and forgets requests that were never answered.
    void CheckFailed(uint32 dwNow);

private:
    void Line(int nLevel, const char* pszFunc, const char* pszFormat, ...)
        __attribute__((format(printf, 4, 5)));
    void Ask(const std::vector<tagPlainAsked>& vecAsked);
    void ScanStream(tagPlainStream& stStream, uint32 dwTimelineOut, uint32 dwNow, uint32 dwFirstDelay,
                    uint32 dwInterval, std::vector<tagPlainAsked>& vecAsked);
};

#endif // PLAINLOSS_H
