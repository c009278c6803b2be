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

/// A small object layer over SQLite. Nothing in it throws on its own account or aborts: an
/// operation that fails says so by its result (false, null, -1 or an empty text) and leaves lines
/// in the system log, as far as the device's trace level lets them through: "[ERROR]" above 2,
/// "[DEBUG1]" above 6, "[DEBUG2]" above 7, "[DEBUG3]" above 8. A broken precondition goes to the
/// device's assertion reporter, whatever the level, and the operation then fails as documented.
///
/// @snippet text.cpp text
///
/// The library starts no threads, takes no locks and keeps no state of its own. A connection and
/// all that is built on it belong to one thread at a time. The free functions below may be called
/// by any number of threads at once, but for listToVector(), and for those that take a connection.
///
/// When SQLite runs out of memory the operation fails, with SQLITE_NOMEM in its lines. When the
/// caller's own memory runs out, the operation passes on std::bad_alloc, where exceptions are
/// enabled, without a line, and the statement that it was building has not run; the exception never
/// passes through SQLite. In both cases the objects and the connection can still be used, but
/// SQLite may have rolled back a transaction: begin it anew.
namespace sql {

/// A text: bytes, which nothing checks to be UTF-8.
typedef std::string string;

/// Keys and integer cells: 64 bits on every target.
typedef long long integer;

/// What a column holds. The numbers are fixed.
enum field_type : std::int32_t {
    type_int = 0,      ///< an integer of 64 bits
    type_text = 1,     ///< a text
    type_float = 2,    ///< a real, written with eight decimals
    type_bool = 3,     ///< 1 or 0
    type_time = 4,     ///< whole seconds since the epoch
    type_undefined = 5 ///< stands for every other number
};

/// The name of a type for diagnostics and dumps: "integer", "text", "float", "bool" or "time".
/// Any other number gives "undefined" and reports the assertion "false".
string type2Str(field_type type);

/// A copy of `text` with every single quote doubled and no other byte changed: put between single
/// quotes it is an SQL text literal, so this is how a text from outside gets into a condition. A
/// zero byte would end the statement there.
string quoteStr(const string& text);

/// @{
/// Remove the blanks (what isspace() takes for one) at the start, at the end or at both ends of
/// `text` itself, and return it.
string& trimleft(string& text);
string& trimright(string& text);
string& trim(string& text);
/// @}

/// A copy of `text` without the blanks at both ends.
string trim(const string& text);

/// Replaces the contents of `out` by the items of `list`, each trimmed. Any run of bytes out of
/// `delimiters` separates two items, so there are no empty items but those that trimming makes. A
/// zero byte ends the list. `delimiters` is not null. Uses strtok(), whose position the whole
/// process shares: neither call it while another thread uses strtok(), nor from within a loop over
/// strtok().
void listToVector(string list, std::vector<string>& out, const char* delimiters);

/// @{
/// Plain decimal digits, after a minus sign for negative numbers, whatever the locale.
string intToStr(int value);
string intToStr(integer value);
/// @}

/// A calendar time: whole seconds since the epoch, in the width of the platform's time_t. Arguments
/// wider than that are narrowed, and sums that leave its range wrap around.
///
/// @snippet time.cpp time
///
/// A plain value: one thread at a time may change it. Its size is that of time_t: library and
/// application agree on the width. Texts are in local time, as the process's TZ and locale have it.
class Time {
public:
    /// The current time; -1 second if the clock cannot be read. A time read or made from a number
    /// is traced at DEBUG3, and that line uses ctime(), whose buffer the process shares.
    Time();

    /// The time `t` seconds after the epoch, traced likewise.
    Time(integer t);

    /// The current time, as Time() takes it.
    static Time now();

    /// Always true, whatever the two times are: compare asInteger() to tell times apart.
    bool operator==(const Time& other);

    /// The seconds from `other` to this time: positive when this one is later.
    double diff(Time& other);

    /// @{
    /// The seconds since the epoch, as 64 bits or in the platform's own type.
    integer asInteger() const;
    time_t getTime() const;
    /// @}

    /// The local time as strftime() expands `fmt`, which is not null: at most 127 characters. Empty
    /// when the expansion is longer, and when the time cannot be converted to local time, which
    /// leaves an ERROR line: "Failed to convert calendar time to local time".
    string format(const char* fmt) const;

    /// Day, time and weekday: "31-12-2009 23:59:59, Thu". Fails as format() does.
    string asString() const;

    /// The time of day: "23:59:59". Fails as format() does.
    string asTimeString() const;

    /// The day: "31-12-2009". Fails as format() does.
    string asDateString() const;

    /// @{
    /// Move the time by so many seconds, or minutes, hours and days of 60, 3600 and 86400 seconds
    /// (also across daylight-saving changes). A negative number moves it back.
    void addValue(integer s);
    void addMinutes(integer m);
    void addHours(integer h);
    void addDays(integer d);
    /// @}

private:
    time_t _time;
};

/// The name of an SQLite result code, such as "SQLITE_BUSY"; "unknown" for extended codes, for
/// SQLITE_NOTICE and SQLITE_WARNING, and for any other number. A constant text that lives as long
/// as the library is loaded.
const char* sqliteRc2Str(int rc);

/// Runs a query that yields one number, such as a count, and returns it: the single column of the
/// first row, narrowed to 32 bits; further rows are ignored, and so are further statements in the
/// text. Text and number are traced at DEBUG2.
///
/// -1 on failure, with ERROR lines:
/// - the query cannot be prepared: "Failed to prepare the SQL query '...': " and
///   "  rc=1=SQLITE_ERROR: ...";
/// - it fails or yields no row: "The SQL query '...' failed" and "   the query returned
///   101=SQLITE_DONE instead of SQLITE_ROW: ...";
/// - it yields not one column: "The SQL query '...' failed: query returned 2 columns in result
///   while 1 is expected";
/// - the number is negative: "The SQL query '...' failed" and "  SQLite returned returned number =
///   -3 < 0".
///
/// With a null `db`: the assertion "db" and -1.
int queryNumber(sqlite3* db, const string& stmt);

/// Runs a statement, the first one in the text, that has to finish in one step. True when it did.
/// The text is traced at DEBUG2.
///
/// False on failure, with two ERROR lines:
/// - it cannot be prepared: "Failed to prepare the SQL statement '...': " and
///   " rc=1=SQLITE_ERROR: ...";
/// - it fails or yields a row: "Running the SQL stmt '...' failed" and "  SQLite returned
///   100=SQLITE_ROW instead of SQLITE_DONE: ...".
///
/// With a null `db`: the assertion "db" and false.
bool runOneStepSqlStmt(sqlite3* db, const string& stmt);

} // namespace sql

#pragma GCC visibility pop

#endif
