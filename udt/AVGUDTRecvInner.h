#ifndef AVGUDTRECVINNER_H
#define AVGUDTRECVINNER_H

/** What the receiver's own source files share: the log macro, the tick and the way out of a buffer. */

#include "AVGUDTRecvData.h"
#include "UDTLog.h"
#include "xpmess.h"
#include "xptypes.h"

/// For the compiler: the condition is mostly false, keep what follows out of the way.
#if defined(__GNUC__)
#define UDT_RARELY(condition) __builtin_expect(!!(condition), 0)
#else
#define UDT_RARELY(condition) (condition)
#endif

/// Before a function that every packet goes through: what it calls is put into it, as far as the compiler sees it.
#if defined(__GNUC__)
#define UDT_PER_PACKET __attribute__((flatten))
#else
#define UDT_PER_PACKET
#endif

/// Before a function that few packets come to: it stays out of those that every packet goes through.
#if defined(__GNUC__)
#define UDT_SELDOM __attribute__((noinline, cold))
#else
#define UDT_SELDOM
#endif

/**
 * Writes one line. Operators search for these lines, so text, level, operation and argument order stay put:
 * the operation is spelled out and the file is always the receiver's. Arguments are not evaluated while
 * nobody listens at that level. Never use it while a lock is held: a sink may call back in.
 */
#define RECV_LOG(eLevel, pszOper, ...)                                                 \
    do                                                                                 \
    {                                                                                  \
        if (UDT_RARELY(LogIsOn(eLevel)))                                               \
            LogWrite(eLevel, "CmdCode", "AVGUDTRecv", __LINE__, pszOper, __VA_ARGS__); \
    } while (0)

/// The tick clock as the receiver keeps it: 32-bit milliseconds that wrap.
inline uint32 TickNow() { return (uint32)xp_gettickcount(); }

/// Takes a packet out of its stream's buffer and lets go of it. Returns the next one.
inline tagPktNode* UnbufferPacket(tagUinDataBuf& stUinDataBuf, tagPktNode* pNode)
{
    stUinDataBuf.stTrack.NoteRemoval(pNode);
    return stUinDataBuf.mapUdtPacket.Remove(pNode);
}

#endif // AVGUDTRECVINNER_H
