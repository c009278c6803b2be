// Diagnostics on and off: what the library tells the system log, and how much of it.
//
//     diagnostics

#include "SqlDatabase.h"
#include "SqlTable.h"
#include "TraceLevel.h"

#include <syslog.h>

#include <cstdio>

namespace {

constexpr int busy_timeout_ms = 2000;

const sql::Field columns[] = {
    sql::Field("id", sql::type_int, sql::flag_primary_key),
    sql::Field("name", sql::type_text, sql::flag_none),
    sql::Field(),
};

// Turns diagnostics up for a while: a field engineer's button, or the one job that goes wrong.
class TraceLevel {
public:
    explicit TraceLevel(int level) : _former(trace::level())
    {
        trace::setLevel(level);
    }

    ~TraceLevel()
    {
        trace::setLevel(_former);
    }

    TraceLevel(const TraceLevel&) = delete;
    TraceLevel& operator=(const TraceLevel&) = delete;

private:
    const int _former;
};

void count(sql::Table& table, const char* when)
{
    std::fprintf(stderr, "-- %s\n", when);
    if (table.totalRecordCount() < 0)
        std::fputs("diagnostics: cannot count the rows\n", stderr);
}

} // namespace

int main()
{
    // Lines go to standard error as well; on a device the system log alone will do.
    ::openlog("diagnostics", LOG_PERROR, LOG_USER);

    sql::Database database;
    if (!database.open(":memory:", sql::Database::access_create, false, busy_timeout_ms)) {
        std::fputs("diagnostics: cannot open a database\n", stderr);
        return 1;
    }
    sql::Table table(database.getHandle(), "missing", columns);
    count(table, "off, as a program starts");
    {
        const TraceLevel errors(trace::trace_errors);
        count(table, "errors");
    }
    {
        const TraceLevel statements(trace::trace_debug2);
        count(table, "errors and statements");
    }
    count(table, "off again");
    return 0;
}
