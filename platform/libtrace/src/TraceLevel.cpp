#include "TraceLevel.h"

// As the device's trace library lays it out: the level comes first.
struct TraceObject {
    int* level;
};

namespace {

int currentLevel = trace::trace_off;
TraceObject traceObject = {&currentLevel};

} // namespace

extern TraceObject* g_traceObject;
TraceObject* g_traceObject = &traceObject;

namespace trace {

void setLevel(int level)
{
    currentLevel = level;
}

int level()
{
    return currentLevel;
}

} // namespace trace
