#ifndef SQLWRAPPER_SQLCOMMON_H
#define SQLWRAPPER_SQLCOMMON_H

#include <time.h>

#include <cstdint>
#include <string>
#include <vector>

struct sqlite3;

// A private operation that programs cannot link to.
#define SQLWRAPPER_LOCAL __attribute__((visibility("hidden")))

#pragma GCC visibility push(default)

/// A small object layer over SQLite. Declare a table's columns once, then work with Database, Table
/// and Record instead of SQL. Free functions help with conditions and counts:
///
///     const sql::string name = sql::quoteStr("Captain's tea");
///     const int length = sql::queryNumber(
///         database.getHandle(), "select length('" + name + "')");
///     std::printf("%d\n", length); // 13
///     std::vector<sql::string> items;
///     sql::listToVector("tea; rum ;pie", items, ";");
///     std::printf("%s\n", items[1].c_str()); // rum
///
/// An operation that fails returns false, null, -1 or an empty text and reports why to the system
/// log; nothing throws but std::bad_alloc. A row or field looked for by position and not there is
/// no failure. Use a connection, and all that is built on it, in one thread at a time.
namespace sql {

typedef std::string string; ///< A text: bytes, which nothing checks to be UTF-8.
typedef long long integer;  ///< Keys and integer cells: 64 bits on every target.

/// What a column holds. The numbers are fixed.
enum field_type : std::int32_t {
    type_int = 0,      ///< an integer of 64 bits
    type_text = 1,     ///< a text
    type_float = 2,    ///< a real, written with eight decimals
    type_bool = 3,     ///< 1 or 0
    type_time = 4,     ///< whole seconds since the epoch
    type_undefined = 5 ///< stands for every other number
};

/// Returns "integer", "text", "float", "bool" or "time". Reports any other type and returns
/// "undefined".
string type2Str(field_type type);

/// Doubles every single quote. Put the result between single quotes to use a text without zero
/// bytes in a condition.
string quoteStr(const string& text);

string& trimleft(string& text);  ///< Removes the blanks at the start of `text`, and returns it.
string& trimright(string& text); ///< Removes the blanks at the end of `text`, and returns it.
string& trim(string& text);      ///< Removes the blanks at both ends of `text`, and returns it.
string trim(const string& text); ///< Returns a copy without the blanks at both ends.

/// Splits `list` at every run of `delimiters` and replaces `out` by the trimmed items. Uses
/// strtok(): call it neither beside another thread's strtok() nor inside a loop over strtok().
void listToVector(string list, std::vector<string>& out, const char* delimiters);

string intToStr(int value);     ///< Returns the number in decimal digits, whatever the locale.
string intToStr(integer value); ///< Returns the number in decimal digits, whatever the locale.

/// A calendar time in whole seconds since the epoch, as wide as the platform's time_t. Sums that
/// leave its range wrap around.
///
///     sql::Time start(86399); // a second before the second day
///     sql::Time end = start;
///     end.addMinutes(1);
///     std::printf("%.0f s later: %s\n", end.diff(start),
///                 end.asTimeString().c_str()); // 60 s later: 00:00:59
///
/// A plain value. Texts are in local time, after the process's TZ and locale.
class Time {
public:
    Time();                             ///< Takes the current time; -1 without a clock.
    Time(integer t);                    ///< Takes the seconds since the epoch.
    Time(const Time& other);            ///< Copies the seconds.
    Time& operator=(const Time& other); ///< Copies the seconds.
    static Time now();                  ///< Returns the current time.

    /// Always true, whatever the two times are. Compare asInteger() instead.
    bool operator==(const Time& other);

    /// Returns the seconds from `other` to this time, positive if this one is later.
    double diff(Time& other);

    integer asInteger() const; ///< Returns the seconds since the epoch.
    time_t getTime() const;    ///< Returns the seconds since the epoch.

    /// Formats the local time as strftime() does, up to 127 characters. Returns an empty text if
    /// the result is longer. Reports a time that has no local time and returns an empty text.
    string format(const char* fmt) const;

    string asString() const;     ///< Formats as "31-12-2009 23:59:59, Thu".
    string asTimeString() const; ///< Formats as "23:59:59".
    string asDateString() const; ///< Formats as "31-12-2009".

    void addValue(integer s);   ///< Adds seconds, which may be negative.
    void addMinutes(integer m); ///< Adds 60 seconds each.
    void addHours(integer h);   ///< Adds 3600 seconds each.
    void addDays(integer d);    ///< Adds 86400 seconds each, whatever the daylight-saving time.

private:
    time_t _time;
};

/// Returns the name of an SQLite result code, a constant text; "unknown" for all others.
const char* sqliteRc2Str(int rc);

/// Runs the first statement of a text and returns the number in the only column of its first row,
/// narrowed to 32 bits. Returns -1 if the query fails, yields no row or several columns, or if the
/// number is negative, and reports which.
int queryNumber(sqlite3* db, const string& stmt);

/// Runs the first statement of a text, which has to finish in one step. Returns false, and reports
/// why, if it fails or yields a row.
bool runOneStepSqlStmt(sqlite3* db, const string& stmt);

} // namespace sql

#pragma GCC visibility pop

#endif
