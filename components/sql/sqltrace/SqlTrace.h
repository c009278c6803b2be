#ifndef SQLTRACE_SQLTRACE_H
#define SQLTRACE_SQLTRACE_H

// How the libraries report: one system log line per event, behind the trace level of the device's
// trace library, and broken preconditions through the device's assertion reporter.

#include <syslog.h>

// Owned by libtrace, ours only to read. Either pointer may be null, which silences the library.
struct TraceObject {
    int* level;
};
extern TraceObject* g_traceObject;

// Owned by libframework, with C linkage unless the device's has the other. It returns, and the
// caller then takes its failure path.
#ifndef SQLWRAPPER_FRAMEWORK_LINKAGE
#define SQLWRAPPER_FRAMEWORK_LINKAGE "C"
#endif
extern SQLWRAPPER_FRAMEWORK_LINKAGE void logAssertFailed(const char* expression, const char* path,
                                                         int line, const char* function);

namespace sql {

static_assert(sizeof(int) == 4, "the trace library's level has 32 bits");

// Read afresh for every line: the level may change between the two lines of one report, by another
// thread too.
inline bool traceLevelAbove(int limit)
{
    const TraceObject* const trace = __atomic_load_n(&g_traceObject, __ATOMIC_RELAXED);
    if (trace == nullptr)
        return false;
    const int* const level = __atomic_load_n(&trace->level, __ATOMIC_RELAXED);
    return level != nullptr && __atomic_load_n(level, __ATOMIC_RELAXED) > limit;
}

inline bool checked(bool holds, const char* text, const char* path, int line, const char* function)
{
    if (!holds)
        ::logAssertFailed(text, path, line, function);
    return holds;
}

} // namespace sql

// The messages are an interface, byte for byte: log filters know their blanks and doubled words.
#define TRACE_ERROR(text, ...) TRACE_ERROR_AS(__func__, text, ##__VA_ARGS__)
#define TRACE_DEBUG1(text, ...) TRACE_DEBUG1_AS(__func__, text, ##__VA_ARGS__)
#define TRACE_DEBUG2(text, ...) TRACE_DEBUG2_AS(__func__, text, ##__VA_ARGS__)
#define TRACE_DEBUG3(text, ...) TRACE_DEBUG3_AS(__func__, text, ##__VA_ARGS__)

// For a helper that reports for its callers: `operation` is the name of the one that called.
#define TRACE_ERROR_AS(operation, text, ...)                                                       \
    SQL_TRACE(2, LOG_ERR, "[ERROR]", operation, text, ##__VA_ARGS__)
#define TRACE_DEBUG1_AS(operation, text, ...)                                                      \
    SQL_TRACE(6, LOG_DEBUG, "[DEBUG1]", operation, text, ##__VA_ARGS__)
#define TRACE_DEBUG2_AS(operation, text, ...)                                                      \
    SQL_TRACE(7, LOG_DEBUG, "[DEBUG2]", operation, text, ##__VA_ARGS__)
#define TRACE_DEBUG3_AS(operation, text, ...)                                                      \
    SQL_TRACE(8, LOG_DEBUG, "[DEBUG3]", operation, text, ##__VA_ARGS__)

#define SQL_TRACE(limit, priority, tag, operation, text, ...)                                      \
    do {                                                                                           \
        if (::sql::traceLevelAbove(limit))                                                         \
            ::syslog(priority, tag " %s:%d (%s) - " text, __FILE_NAME__, __LINE__, operation,      \
                     ##__VA_ARGS__);                                                               \
    } while (false)

// True when the condition holds; otherwise reports its text exactly as written at the call. The
// function's signature is given as a literal, since compilers print it differently; the path is
// each library's own.
#define SQL_ASSERT(condition, function)                                                            \
    ::sql::checked(static_cast<bool>(condition), #condition, SQL_SOURCE_FOLDER __FILE_NAME__,      \
                   __LINE__, function)

#endif
