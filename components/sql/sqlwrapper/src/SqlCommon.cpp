#include "SqlCommon.h"

#include "SqlText.h"
#include "SqlTrace.h"

#include <sqlite3.h>

#include <time.h>

#include <cctype>
#include <cstring>
#include <type_traits>

namespace sql {

namespace {

bool isBlank(char byte)
{
    return std::isspace(static_cast<unsigned char>(byte)) != 0;
}

// The C library has no text for years that overflow an int.
const char* calendarText(const time_t& time)
{
    const char* const text = ::ctime(&time);
    return text != nullptr ? text : "(null)";
}

// Computed in time_t's own width through its unsigned type, so that overflow wraps.
time_t shifted(time_t time, integer count, integer unit)
{
    typedef std::make_unsigned<time_t>::type Bits;
    return static_cast<time_t>(static_cast<Bits>(time)
                               + static_cast<Bits>(count) * static_cast<Bits>(unit));
}

// What the first step of a query gave.
struct FirstRow {
    int rc;
    int columns;
    int number;
};

// Finalizes the query, so that a report after it has the connection's text and not the step's.
FirstRow takeFirstRow(sqlite3_stmt* query)
{
    FirstRow row = {sqlite3_step(query), 0, 0};
    if (row.rc == SQLITE_ROW)
        row.columns = sqlite3_column_count(query);
    if (row.columns == 1)
        row.number = sqlite3_column_int(query, 0);
    sqlite3_finalize(query);
    return row;
}

} // namespace

string type2Str(field_type type)
{
    switch (type) {
    case type_int:
        return "integer";
    case type_text:
        return "text";
    case type_float:
        return "float";
    case type_bool:
        return "bool";
    case type_time:
        return "time";
    case type_undefined:
        break;
    }
    SQL_ASSERT(false, "sql::string sql::type2Str(sql::field_type)");
    return "undefined";
}

string quoteStr(const string& text)
{
    string quoted;
    appendQuoted(quoted, text);
    return quoted;
}

string& trimleft(string& text)
{
    string::size_type blanks = 0;
    while (blanks < text.size() && isBlank(text[blanks]))
        ++blanks;
    return text.erase(0, blanks);
}

string& trimright(string& text)
{
    while (!text.empty() && isBlank(text.back()))
        text.pop_back();
    return text;
}

string& trim(string& text)
{
    return trimright(trimleft(text));
}

string trim(const string& text)
{
    string trimmed(text);
    trim(trimmed);
    return trimmed;
}

void listToVector(string list, std::vector<string>& out, const char* delimiters)
{
    out.clear();
    for (char* item = std::strtok(list.data(), delimiters); item != nullptr;
         item = std::strtok(nullptr, delimiters))
        out.push_back(trim(string(item)));
}

string intToStr(int value)
{
    return std::to_string(value);
}

string intToStr(integer value)
{
    return std::to_string(value);
}

Time::Time() : _time(-1)
{
    if (::time(&_time) != static_cast<time_t>(-1))
        TRACE_DEBUG3("Time ctor: time = %ld = '%s'", static_cast<long>(_time), calendarText(_time));
}

Time::Time(integer t) : _time(static_cast<time_t>(t))
{
    TRACE_DEBUG3("Time ctor: time = %ld = '%s'", static_cast<long>(_time), calendarText(_time));
}

Time::Time(const Time&) = default;
Time& Time::operator=(const Time&) = default;

Time Time::now()
{
    return Time();
}

// Records compare times as equal by this rule, and callers rely on it: only the other columns
// decide whether two rows differ.
bool Time::operator==(const Time&)
{
    return true;
}

double Time::diff(Time& other)
{
    return ::difftime(_time, other._time);
}

integer Time::asInteger() const
{
    return _time;
}

time_t Time::getTime() const
{
    return _time;
}

// The format is the caller's, so no compiler can check it here.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
string Time::format(const char* fmt) const
{
    struct tm local;
    if (::localtime_r(&_time, &local) == nullptr) {
        TRACE_ERROR("Failed to convert calendar time to local time");
        return string();
    }
    char text[128];
    return string(text, ::strftime(text, sizeof text, fmt, &local));
}
#pragma GCC diagnostic pop

string Time::asString() const
{
    return format("%d-%m-%Y %H:%M:%S, %a");
}

string Time::asTimeString() const
{
    return format("%H:%M:%S");
}

string Time::asDateString() const
{
    return format("%d-%m-%Y");
}

void Time::addValue(integer s)
{
    _time = shifted(_time, s, 1);
}

void Time::addMinutes(integer m)
{
    _time = shifted(_time, m, 60);
}

void Time::addHours(integer h)
{
    _time = shifted(_time, h, 3600);
}

void Time::addDays(integer d)
{
    _time = shifted(_time, d, 86400);
}

// SQLITE_NOTICE and SQLITE_WARNING are no results of a call, and so have no name here.
const char* sqliteRc2Str(int rc)
{
#define RC_NAME(code)                                                                              \
    case code:                                                                                     \
        return #code
    switch (rc) {
        RC_NAME(SQLITE_OK);
        RC_NAME(SQLITE_ERROR);
        RC_NAME(SQLITE_INTERNAL);
        RC_NAME(SQLITE_PERM);
        RC_NAME(SQLITE_ABORT);
        RC_NAME(SQLITE_BUSY);
        RC_NAME(SQLITE_LOCKED);
        RC_NAME(SQLITE_NOMEM);
        RC_NAME(SQLITE_READONLY);
        RC_NAME(SQLITE_INTERRUPT);
        RC_NAME(SQLITE_IOERR);
        RC_NAME(SQLITE_CORRUPT);
        RC_NAME(SQLITE_NOTFOUND);
        RC_NAME(SQLITE_FULL);
        RC_NAME(SQLITE_CANTOPEN);
        RC_NAME(SQLITE_PROTOCOL);
        RC_NAME(SQLITE_EMPTY);
        RC_NAME(SQLITE_SCHEMA);
        RC_NAME(SQLITE_TOOBIG);
        RC_NAME(SQLITE_CONSTRAINT);
        RC_NAME(SQLITE_MISMATCH);
        RC_NAME(SQLITE_MISUSE);
        RC_NAME(SQLITE_NOLFS);
        RC_NAME(SQLITE_AUTH);
        RC_NAME(SQLITE_FORMAT);
        RC_NAME(SQLITE_RANGE);
        RC_NAME(SQLITE_NOTADB);
        RC_NAME(SQLITE_ROW);
        RC_NAME(SQLITE_DONE);
    default:
        return "unknown";
    }
#undef RC_NAME
}

int queryNumber(sqlite3* db, const string& stmt)
{
    if (!SQL_ASSERT(db, "int sql::queryNumber(sqlite3*, const string&)"))
        return -1;
    TRACE_DEBUG2("stmt='%s'", stmt.c_str());

    sqlite3_stmt* query = nullptr;
    const int rc = sqlite3_prepare_v2(db, stmt.c_str(), -1, &query, nullptr);
    if (rc != SQLITE_OK) {
        TRACE_ERROR("Failed to prepare the SQL query '%s': ", stmt.c_str());
        TRACE_ERROR("  rc=%d=%s: %s", rc, sqliteRc2Str(rc), sqlite3_errmsg(db));
        return -1;
    }

    const FirstRow row = takeFirstRow(query);
    if (row.rc != SQLITE_ROW) {
        TRACE_ERROR("The SQL query '%s' failed", stmt.c_str());
        TRACE_ERROR("   the query returned %d=%s instead of SQLITE_ROW: %s", row.rc,
                    sqliteRc2Str(row.rc), sqlite3_errmsg(db));
        return -1;
    }
    if (row.columns != 1) {
        TRACE_ERROR(
            "The SQL query '%s' failed: query returned %d columns in result while 1 is expected",
            stmt.c_str(), row.columns);
        return -1;
    }
    if (row.number < 0) {
        TRACE_ERROR("The SQL query '%s' failed", stmt.c_str());
        TRACE_ERROR("  SQLite returned returned number = %d < 0", row.number);
        return -1;
    }
    TRACE_DEBUG2("SQLite returned number=%d", row.number);
    return row.number;
}

bool runOneStepSqlStmt(sqlite3* db, const string& stmt)
{
    if (!SQL_ASSERT(db, "bool sql::runOneStepSqlStmt(sqlite3*, const string&)"))
        return false;
    TRACE_DEBUG2("stmt='%s'", stmt.c_str());

    sqlite3_stmt* statement = nullptr;
    int rc = sqlite3_prepare_v2(db, stmt.c_str(), -1, &statement, nullptr);
    if (rc != SQLITE_OK) {
        TRACE_ERROR("Failed to prepare the SQL statement '%s': ", stmt.c_str());
        TRACE_ERROR(" rc=%d=%s: %s", rc, sqliteRc2Str(rc), sqlite3_errmsg(db));
        return false;
    }

    // A row is a failure too: what yields rows was not meant to run in one step. Reported before
    // the finalization: the text is that of the step.
    rc = sqlite3_step(statement);
    if (rc != SQLITE_DONE) {
        TRACE_ERROR("Running the SQL stmt '%s' failed", stmt.c_str());
        TRACE_ERROR("  SQLite returned %d=%s instead of SQLITE_DONE: %s", rc, sqliteRc2Str(rc),
                    sqlite3_errmsg(db));
    }
    sqlite3_finalize(statement);
    return rc == SQLITE_DONE;
}

} // namespace sql
