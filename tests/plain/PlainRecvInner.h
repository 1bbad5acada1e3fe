#ifndef PLAINRECVINNER_H
#define PLAINRECVINNER_H

/** What the receiver's own source files share: the log macro and the tick. */

#include "UDTLog.h"
#include "xpmess.h"
#include "xptypes.h"

namespace plain
{

/**
 * Writes one line. Operators search for these lines, so text, level, operation and argument order stay put:
 * the operation is spelled out and the file is always the receiver's. Arguments are not evaluated while
 * nobody listens at that level. Never use it while a lock is held: a sink may call back in.
 */
#define RECV_LOG(eLevel, pszOper, ...)                                                 \
    do                                                                                 \
    {                                                                                  \
        if (LogIsOn(eLevel))                                                           \
            LogWrite(eLevel, "CmdCode", "AVGUDTRecv", __LINE__, pszOper, __VA_ARGS__); \
    } while (0)

/// The tick clock as the receiver keeps it: 32-bit milliseconds that wrap.
inline uint32 TickNow() { return (uint32)xp_gettickcount(); }

} // namespace plain

#endif // PLAINRECVINNER_H
