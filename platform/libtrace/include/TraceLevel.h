#ifndef SQLWRAPPER_TRACELEVEL_H
#define SQLWRAPPER_TRACELEVEL_H

// The switch for diagnostics, where the device brings no trace library of its own. The level holds
// for the whole process and starts at trace_off. An int is read and written without a lock: set it
// before other threads run, or accept that they notice a change late.
namespace trace {

constexpr int trace_off = 0;
constexpr int trace_errors = 3;
constexpr int trace_debug1 = 7;
constexpr int trace_debug2 = 8;
constexpr int trace_debug3 = 9;

// Lets through the system log lines of this level and of all lower ones.
void setLevel(int level);

int level();

} // namespace trace

#endif
