#include "SqlFailure.h"

#include "SqlStop.h"
#include "SqlTrace.h"

#include <sqlite3.h>

namespace sql {

namespace {

bool isOf(int code, int extendedCode)
{
    return (code & 0xff) == (extendedCode & 0xff);
}

bool endsWith(std::string_view text, std::string_view end)
{
    return text.size() >= end.size() && text.substr(text.size() - end.size()) == end;
}

// A wait for another connection that a stop has ended is a stop. So is what fails of one in a
// statement of SQLite's own: it tells that as an error, such as "error in table t: interrupted".
bool isStopped(sqlite3* db, int rc)
{
    if (!isStopRequested(db))
        return false;
    return isOf(rc, SQLITE_BUSY)
           || (rc == SQLITE_ERROR
               && endsWith(sqlite3_errmsg(db), sqlite3_errstr(SQLITE_INTERRUPT)));
}

// None where SQLite is too old to tell it, or the failure is not SQLite's.
int offsetOf([[maybe_unused]] sqlite3* db, [[maybe_unused]] int rc)
{
#if SQLITE_VERSION_NUMBER >= 3038000
    if (db != nullptr && sqlite3_extended_errcode(db) == rc)
        return sqlite3_error_offset(db);
#endif
    return -1;
}

} // namespace

string joined(std::initializer_list<std::string_view> parts)
{
    string text;
    for (const std::string_view part : parts)
        text += part;
    return text;
}

int extendedCodeOf(sqlite3* db, int rc)
{
    if (isStopped(db, rc))
        return SQLITE_INTERRUPT;
    const int extended = sqlite3_extended_errcode(db);
    return isOf(rc, extended) ? extended : rc;
}

const char* reasonOf(sqlite3* db, int rc)
{
    if (isStopped(db, rc))
        return sqlite3_errstr(SQLITE_INTERRUPT);
    return isOf(rc, sqlite3_errcode(db)) ? sqlite3_errmsg(db) : sqlite3_errstr(rc);
}

void reportFailure(const char* operation, const char* statement, int rc, const char* why)
{
    TRACE_ERROR_AS(operation, "SQL statement '%s' failed: ", statement);
    TRACE_ERROR_AS(operation, "  rc=%d=%s: %s", rc, Error(rc, string()).name(), why);
}

Error errorOf(sqlite3* db, int rc, const string& why, const char* statement)
{
    if (isOf(rc, SQLITE_NOMEM))
        return Error(rc, why);
    return Error(rc, why, statement, offsetOf(db, rc));
}

} // namespace sql
