// The two things that a device gives the library, here in the program itself: what its libtrace and
// libframework define. As docs/integration.md shows it.
//
//     device

#include "SqlTable.h"

#include <syslog.h>

#include <cstdio>

// libtrace: an object whose first member points at the level.
struct TraceObject {
    int* level;
};
static int level = 3; // errors; above 6, 7 and 8 come the three kinds of debug lines
static TraceObject object = {&level};
extern TraceObject* g_traceObject;
TraceObject* g_traceObject = &object;

// libframework: told of an assertion that failed. It returns: the library goes on, and fails.
extern "C" void logAssertFailed(const char* expression, const char* path, int line,
                                const char* function);
void logAssertFailed(const char* expression, const char* path, int line, const char* function)
{
    std::printf("%s:%d: '%s' in %s\n", path, line, expression, function);
}

int main()
{
    ::openlog("device", LOG_PERROR, LOG_USER);
    std::setvbuf(stdout, nullptr, _IOLBF, BUFSIZ);
    sql::Table unconnected("product");
    std::printf("%s\n", unconnected.exists() ? "there" : "not there");
    unconnected.fields()->getKeyIdName(); // of a table without columns
    level = 0;                            // silence, but for assertions
    std::printf("%s\n", unconnected.open() ? "opened" : "not opened");
    return 0;
}
