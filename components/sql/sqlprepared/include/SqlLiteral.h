#ifndef SQLPREPARED_SQLLITERAL_H
#define SQLPREPARED_SQLLITERAL_H

#include "SqlCommon.h"

#include <chrono>
#include <string_view>

#pragma GCC visibility push(default)

namespace sql {

/// Returns the text with a backslash before each `%`, `_` and backslash. Bind the result to the
/// pattern of a `like` with a backslash as its `escape`, to look for the text as it stands.
string escapeLike(std::string_view text);

/// Returns the name between backticks, those in it doubled: one that SQL takes for a name, whatever
/// it holds but a zero byte. In double quotes an unknown name would be taken for a text.
string quoteIdentifier(std::string_view name);

/// Returns the time in UTC as "2009-12-31T23:59:59Z"; empty for years before 0 and after 9999.
string toIso8601(const Time& time);

/// Returns the time in UTC, rounded down to whole seconds, in the same form.
string toIso8601(std::chrono::system_clock::time_point time);

/// Reads a date, or a date and a time of day, as ISO 8601 and SQLite's own functions write them:
/// "2009-12-31", "2009-12-31 23:59", "2009-12-31T23:59:59.25+01:00". Without an offset from UTC
/// it is in UTC. Leaves fractions of a second out. Returns false, and leaves `time` as it is, for
/// other texts, for days that no calendar has, and for times out of its range.
[[nodiscard]] bool fromIso8601(std::string_view text, Time& time);

/// Reads the same texts into a time of the C++ library's clock.
[[nodiscard]] bool fromIso8601(std::string_view text, std::chrono::system_clock::time_point& time);

} // namespace sql

#pragma GCC visibility pop

#endif
