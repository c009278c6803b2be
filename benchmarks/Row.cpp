#include "Row.h"

#include <sqlite3.h>

#include <cstdio>
#include <cstdlib>

namespace bench {

namespace {

const char* const places[] = {"Aarhus", "Bergen", "Land's End", "Tampere", "Uppsala"};

// Times of the year 2009 on, a few minutes apart.
constexpr long long first_change = 1230768000;

} // namespace

const char* const column_names[column_count] = {"id",     "name",    "place", "price",
                                                "active", "changed", "note"};

std::string definition(const std::string& table)
{
    return "CREATE TABLE " + table
           + " (id INTEGER PRIMARY KEY NOT NULL, name TEXT NOT NULL, place TEXT, price REAL, active INTEGER, changed INTEGER, note TEXT)";
}

Row makeRow(long long id)
{
    Row row;
    row.id = id;
    row.name = "Item " + std::to_string(id);
    row.place = places[id % 5];
    row.price = static_cast<double>(id % 4000) * 0.25 + 0.5;
    row.active = id % 3 != 0;
    row.changed = first_change + id * 211;
    if (id % 3 == 1)
        row.note = "Delivered late; asked to call before the next one, " + row.name;
    return row;
}

std::vector<Row> makeRows(long long first, int count)
{
    std::vector<Row> rows;
    rows.reserve(count);
    for (int i = 0; i < count; ++i)
        rows.push_back(makeRow(first + i));
    return rows;
}

void require(bool holds, const char* what)
{
    if (holds)
        return;
    std::fprintf(stderr, "Failed: %s\n", what);
    std::exit(EXIT_FAILURE);
}

sqlite3* connect(const std::string& file)
{
    sqlite3* db = nullptr;
    const int rc = sqlite3_open_v2(file.c_str(), &db, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE,
                                   nullptr);
    require(rc == SQLITE_OK, file.c_str());
    sqlite3_busy_timeout(db, 1000);
    return db;
}

void execute(sqlite3* db, const std::string& sql)
{
    require(sqlite3_exec(db, sql.c_str(), nullptr, nullptr, nullptr) == SQLITE_OK, sql.c_str());
}

} // namespace bench
