/** @file
 * The one way by which the transport speaks to whoever runs it.
 */
#ifndef UDTLOG_H
#define UDTLOG_H

#include <atomic>

/// How much a line matters; smaller numbers matter more. The receiver writes `LOG_LEVEL_FAULT`, `LOG_LEVEL_ERROR` and
/// `LOG_LEVEL_DEBUG`.
enum UDT_LOG_LEVEL
{
    LOG_LEVEL_SDK_INTERFACE = 1, ///< calls of an interface
    LOG_LEVEL_FAULT = 2,         ///< something failed that should not, memory above all
    LOG_LEVEL_AUDIO_ENGINE = 3,  ///< the audio engine
    LOG_LEVEL_ERROR = 4,         ///< lifecycle events and anomalies
    LOG_LEVEL_DEBUG = 5          ///< per-packet traces
};

/// @cond
#if defined(__GNUC__)
#define UDT_PRINTF_CHECKED(nFormat, nFirst) __attribute__((format(printf, nFormat, nFirst)))
#else
#define UDT_PRINTF_CHECKED(nFormat, nFirst)
#endif
/// @endcond

/// Takes one finished line. Called on the thread that wrote the line, from several threads at once, with no lock of the
/// log held. All strings are valid during the call only; `pText` is the whole line, without a line end. It may call
/// LogWrite, LogSetSink and LogSetLevel. An exception that it lets out is swallowed.
typedef void (*PFN_LogSink)(void* pCtx, UDT_LOG_LEVEL eLevel, const char* pTag, const char* pFile, int nLine,
                            const char* pFunc, const char* pText);

/// Formats a line and hands it to the sink, if there is one and the level is let through. Any thread. Never throws; a
/// line of any length arrives whole (cut to what fits a small buffer only when memory is exhausted). Lines that a sink
/// writes from within itself are delivered too, down to eight deep, so that a sink which logs its own work ends.
void LogWrite(UDT_LOG_LEVEL eLevel, const char* pTag, const char* pFile, int nLine, const char* pFunc,
              const char* pFormat, ...) UDT_PRINTF_CHECKED(6, 7);

/// Sets the sink for the whole process; null, the default, drops every line: a library does not write to its owner's
/// terminal unasked. Any thread. When it returns, no other thread is inside an earlier sink, nor ever will be, so the
/// owner may free what the old `pCtx` points to; do not hold a lock that the old sink takes while calling. Called from
/// within a sink it does not wait (the sink may hold a lock that the others are waiting for): lines that other threads
/// are delivering right then still end in the old sink.
void LogSetSink(PFN_LogSink pfnSink, void* pCtx);

/// Lets lines through whose level number is not above `eLevel`; the others are dropped before anything is formatted.
/// Default LOG_LEVEL_ERROR. Any thread.
void LogSetLevel(UDT_LOG_LEVEL eLevel);

/// The highest level number let through at the moment; below every level while there is no sink. Read it by LogIsOn.
extern std::atomic<int> g_nLogGate;

/// Would a line of this level reach a sink right now? One relaxed load: ask before working out costly arguments.
inline bool LogIsOn(UDT_LOG_LEVEL eLevel)
{
    return (int)eLevel <= g_nLogGate.load(std::memory_order_relaxed);
}

#endif
