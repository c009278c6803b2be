#ifndef SQLWRAPPER_TRACELEVEL_H
#define SQLWRAPPER_TRACELEVEL_H

/// The switch for diagnostics, where the device brings no trace library of its own. The level holds
/// for the whole process and starts at trace_off. An int is read and written without a lock: set it
/// before other threads run, or accept that they notice a change late.
namespace trace {

constexpr int trace_off = 0;    ///< nothing is written
constexpr int trace_errors = 3; ///< the ERROR lines
constexpr int trace_debug1 = 7; ///< also a line for every file that is opened
constexpr int trace_debug2 = 8; ///< also every statement and number
constexpr int trace_debug3 = 9; ///< also every row that is read, and every time that is made

/// Lets through the system log lines of this level and of all lower ones.
void setLevel(int level);

/// The level set last, or trace_off.
int level();

} // namespace trace

#endif
