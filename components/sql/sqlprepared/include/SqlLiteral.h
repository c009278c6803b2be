#ifndef SQLPREPARED_SQLLITERAL_H
#define SQLPREPARED_SQLLITERAL_H

#include "SqlCommon.h"

#include <chrono>
#include <string_view>

#pragma GCC visibility push(default)

namespace sql {

/// Returns the text with a backslash before each `%`, `_` and backslash. As the pattern of a `like`
/// whose `escape` is a backslash, it stands for the text itself.
string escapeLike(std::string_view text);

/// Returns the name between backticks, those in it doubled. SQL takes that for a name, whatever is
/// in it but a zero byte; an unknown name in double quotes it would take for a text.
string quoteIdentifier(std::string_view name);

/// Returns the time in UTC as "2009-12-31T23:59:59Z", empty for years before 0 and after 9999.
string toIso8601(const Time& time);

/// Returns the time in UTC, rounded down to whole seconds, in the same form.
string toIso8601(std::chrono::system_clock::time_point time);

/// Reads a date, or a date and a time of day, as ISO 8601 and SQLite's own functions write them:
/// "2009-12-31", "2009-12-31 23:59", "2009-12-31T23:59:59.25+01:00". Takes it for UTC without an
/// offset, and leaves out fractions of a second. Returns false, and leaves `time` as it is, for
/// other texts, days that no calendar has, and times that it cannot hold.
[[nodiscard]] bool fromIso8601(std::string_view text, Time& time);

/// Reads the same texts into a time of the C++ library's clock.
[[nodiscard]] bool fromIso8601(std::string_view text, std::chrono::system_clock::time_point& time);

} // namespace sql

#pragma GCC visibility pop

#endif
