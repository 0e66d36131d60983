/*
 * Tracing, error log and error trace.
 *
 * Three channels:
 *  - trace:       leveled diagnostics of a domain ("default"), one line each on
 *                 standard error: timestamp, level, file:line, text (the
 *                 texts name their function themselves).
 *  - error log:   failures worth keeping; standard error and syslog (LOG_ERR).
 *  - error trace: a per-thread list of pending lines that a failing call chain
 *                 leaves behind; the caller that gives up dumps it to the error
 *                 log, a caller that recovers clears it.
 *
 * The location functions remember the source location (per thread) for the
 * next Add/Always call; the macros below do both in one go and are what the
 * modules use.  Every text is formatted into a bounded buffer: a long message
 * is cut, never overrun.
 */
#ifndef ZFL_MTRACE_H
#define ZFL_MTRACE_H

#include <stddef.h>

#define MTRACE_FMT(a, b) __attribute__((format(printf, a, b)))

#ifdef __cplusplus
extern "C" {
#endif

enum {
    MTRACE_LEVEL_MIN = 0,
    MTRACE_LEVEL_MAX = 5,
    MTRACE_LEVEL_DEFAULT = 3,
    MTRACE_LINE_MAX = 1024 /* longest formatted message text, bytes */
};

/* Trace */
int _MTrace_TestLevel(const char* domain, int level);
int _MTrace_SetLevel(const char* domain, int level);
int _MTrace_GetLevel(const char* domain);
void _MTrace_Location(const char* domain, int level, const char* file, int line, const char* func);
void _MTrace_Always(const char* fmt, ...) MTRACE_FMT(1, 2);

/* Error log */
void _MErrLog_Location(const char* file, int line, const char* func);
void _MErrLog_Add(const char* fmt, ...) MTRACE_FMT(1, 2);

/* Error trace (pending lines of the calling thread) */
void _MErrTrace_Location(const char* file, int line, const char* func);
void _MErrTrace_Add(const char* fmt, ...) MTRACE_FMT(1, 2);
void _MErrTrace_DumpContextToMErrLog(void);
void MErrTrace_BeginContext(void);
void MErrTrace_EndContext(void);   /* drops the lines added since the matching Begin */
void MErrTrace_ClearContext(void); /* drops the lines of the innermost context (all without one) */
/* Number of pending lines, and a copy of line i (0 = oldest); for callers that
 * want to show or check what failed. Returns 0 when i is out of range. */
size_t MErrTrace_GetCount(void);
int MErrTrace_GetLine(size_t i, char* buf, size_t size);

#ifdef __cplusplus
}
#endif

#define MTRACE_DOMAIN "default"

/* Trace at a level of the "default" domain; nothing is formatted when the
 * level is not enabled. */
#define MTRACE(level, ...)                                                       \
    do {                                                                         \
        if (_MTrace_TestLevel(MTRACE_DOMAIN, (level))) {                         \
            _MTrace_Location(MTRACE_DOMAIN, (level), __FILE__, __LINE__, __func__); \
            _MTrace_Always(__VA_ARGS__);                                         \
        }                                                                        \
    } while (0)

/* Trace whatever the level is. */
#define MTRACE_ALWAYS(...)                                                       \
    do {                                                                         \
        _MTrace_Location(MTRACE_DOMAIN, -1, __FILE__, __LINE__, __func__);       \
        _MTrace_Always(__VA_ARGS__);                                             \
    } while (0)

#define MERRLOG(...)                                                             \
    do {                                                                         \
        _MErrLog_Location(__FILE__, __LINE__, __func__);                         \
        _MErrLog_Add(__VA_ARGS__);                                               \
    } while (0)

#define MERRTRACE(...)                                                           \
    do {                                                                         \
        _MErrTrace_Location(__FILE__, __LINE__, __func__);                       \
        _MErrTrace_Add(__VA_ARGS__);                                             \
    } while (0)

#endif
