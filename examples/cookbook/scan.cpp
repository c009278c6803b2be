// A big table read page by page, by its key: one row is in memory, and no page costs more than the
// first. Between two pages others may write.
//
//     scan DATABASE [ROWS]
//
// A table that is still empty gets so many rows first, a million if none are named.

#include "SqlPreparedTable.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>

namespace {

constexpr int busy_timeout_ms = 2000;
constexpr int page_size = 1000;

const sql::Field columns[] = {
    sql::Field("id", sql::type_int, sql::flag_primary_key),
    sql::Field("celsius", sql::type_float, sql::flag_not_null),
    sql::Field(),
};

bool fail(const char* what, const sql::Error& error)
{
    std::fprintf(stderr, "scan: cannot %s: %s\n", what, error.text().c_str());
    return false;
}

// What has been read so far.
struct Sum {
    int rows = 0;
    double highest = -273.15;
    sql::integer lastKey = 0; // comes before every key that SQLite chooses
};

// The condition goes straight to the rows behind the page before. False when they cannot be read.
bool readPage(sql::PreparedTable& readings, sql::Record& row, Sum& sum)
{
    sql::RecordCursor page = readings.select("where id > ? order by id limit ?", sum.lastKey,
                                             page_size);
    while (page.next(row)) {
        ++sum.rows;
        sum.highest = std::max(sum.highest, row.getValue("celsius")->asDouble());
        sum.lastKey = row.getKeyIdValue()->asInteger();
    }
    return page.finished() || fail("read a page", page.error());
}

bool readAll(sql::PreparedTable& readings, sql::Record& row)
{
    Sum sum;
    int pages = -1; // the one behind the last is empty
    for (int before = -1; before < sum.rows; ++pages) {
        before = sum.rows;
        if (!readPage(readings, row, sum))
            return false;
    }
    std::printf("%d rows in %d pages, up to %.1f degrees\n", sum.rows, pages, sum.highest);
    return true;
}

bool fill(sql::Database& database, long rows)
{
    sql::Statement add(
        database, "with recursive number(n) as"
                  " (select 1 union all select n + 1 from number where n < ?)"
                  " insert into reading (id, celsius) select n, 15 + n % 101 / 10.0 from number");
    return add.run(rows) || fail("fill the table", add.error());
}

} // namespace

int main(int argc, char** argv)
{
    const long rows = argc == 3 ? std::strtol(argv[2], nullptr, 10) : 1000000;
    if (argc < 2 || argc > 3 || rows < 1) {
        std::fputs("usage: scan DATABASE [ROWS]\n", stderr);
        return 2;
    }
    sql::Database database;
    if (!database.open(argv[1], sql::Database::access_create, false, busy_timeout_ms)) {
        fail("open the database", sql::lastError(database));
        return 1;
    }
    sql::Table table(database.getHandle(), "reading", columns);
    if (database.getUserVersion() < 0 || !table.create()) {
        fail("read the database, or make the table", sql::lastError(database));
        return 1;
    }
    if (table.totalRecordCount() == 0 && !fill(database, rows))
        return 1;
    sql::PreparedTable readings(database, table);
    sql::Record row(*table.fields());
    return readAll(readings, row) ? 0 : 1;
}
