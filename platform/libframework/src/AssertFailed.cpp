#include <syslog.h>

extern "C" void logAssertFailed(const char* expression, const char* path, int line,
                                const char* function);

// The assertion reporter where the device brings none: one line in the system log, whatever the
// trace level, and on with the program.
void logAssertFailed(const char* expression, const char* path, int line, const char* function)
{
    ::syslog(LOG_ERR, "[ASSERT] %s:%d (%s) - assertion '%s' failed", path, line, function,
             expression);
}
