// An event log with times that keeps what is recent.
//
//     events DATABASE

#include "SqlDatabase.h"
#include "SqlTable.h"

#include <cstdio>

namespace {

constexpr int busy_timeout_ms = 2000;
constexpr int days_kept = 30;

// Rows are ordered by their key, not by their time: a device's clock jumps when it is set.
const sql::Field columns[] = {
    sql::Field("id", sql::type_int, sql::flag_primary_key),
    sql::Field("happened", sql::type_time, sql::flag_not_null),
    sql::Field("text", sql::type_text, sql::flag_not_null),
    sql::Field(),
};

bool add(sql::Table& events, const sql::Time& happened, const char* text)
{
    sql::Record event(*events.fields());
    event.setTime("happened", happened);
    event.setString("text", text);
    return events.addRecord(event);
}

// Times are stored as seconds since the epoch, so a condition compares them as numbers.
bool openSince(sql::Table& events, const sql::Time& since)
{
    return events.open("happened >= " + sql::intToStr(since.asInteger()), "id");
}

bool deleteOld(sql::Table& events, sql::Time now)
{
    now.addDays(-days_kept);
    return events.deleteRecords("happened < " + sql::intToStr(now.asInteger()));
}

void print(sql::Table& events)
{
    sql::integer before = 0;
    for (int i = 0; i < events.recordCount(); ++i) {
        const sql::Record& event = *events.getRecord(i);
        const sql::Time happened = event.getValue("happened")->asTime();
        std::printf("%s  %s", happened.asString().c_str(),
                    event.getValue("text")->asString().c_str());
        // Compared as numbers: operator== holds for any two times.
        if (i > 0)
            std::printf(" (%lld s later)", happened.asInteger() - before);
        std::printf("\n");
        before = happened.asInteger();
    }
}

int fail(const char* what)
{
    std::fprintf(stderr, "events: %s\n", what);
    return 1;
}

} // namespace

int main(int argc, char** argv)
{
    if (argc != 2) {
        std::fputs("usage: events DATABASE\n", stderr);
        return 2;
    }
    sql::Database database;
    if (!database.open(argv[1], sql::Database::access_create, false, busy_timeout_ms))
        return fail("cannot open the database");
    sql::Table events(database.getHandle(), "event", columns);
    if (database.getUserVersion() < 0 || !events.create())
        return fail("cannot read the database, or make the table");

    // A device asks sql::Time::now(); with a fixed time this program always prints the same.
    sql::Time now(1262304000); // 1 January 2010, 00:00:00 UTC
    sql::Time longAgo = now;
    longAgo.addDays(-days_kept - 1);
    sql::Time hourAgo = now;
    hourAgo.addHours(-1);
    if (!add(events, longAgo, "started") || !add(events, hourAgo, "door opened")
        || !add(events, now, "door shut"))
        return fail("cannot write an event");

    if (!deleteOld(events, now) || !openSince(events, hourAgo))
        return fail("cannot read the events");
    print(events);
    std::printf("%d kept, the last one at %s\n", events.totalRecordCount(),
                now.format("%Y-%m-%d %H:%M %z").c_str());
    return 0;
}
