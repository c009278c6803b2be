// What docs/faq.md and docs/integration.md show of SQLite's side: settings, prepared statements, keys.
//
//     questions DATABASE

#include "SqlDatabase.h"
#include "SqlTable.h"

#include <sqlite3.h>

#include <cstdio>
#include <vector>

namespace {

constexpr int busy_timeout_ms = 2000;

const sql::Field columns[] = {
    sql::Field("id", sql::type_int, sql::flag_primary_key),
    sql::Field("room", sql::type_int, sql::flag_none),
    sql::Field("value", sql::type_int, sql::flag_none),
    sql::Field(),
};

// One cell, as text; empty also when the query fails.
sql::string ask(sqlite3* db, const sql::string& query)
{
    const std::vector<sql::Field> fields = {sql::Field("answer", sql::type_text, sql::flag_none)};
    sql::RecordSet answer(db, fields);
    if (!answer.query(query) || answer.count() == 0)
        return sql::string();
    return answer.getTopRecordFirstValue()->asString();
}

// The first is kept in the file, the second belongs to the connection: set both after each open().
// SQLite ignores a setting that it cannot have, so the answer is looked at.
bool keepLog(sqlite3* db)
{
    return ask(db, "pragma journal_mode = wal") == "wal"
           && sql::RecordSet(db).query("pragma synchronous = full");
}

bool keepReferences(sqlite3* db)
{
    return sql::RecordSet(db).query("pragma foreign_keys = on")
           && ask(db, "pragma foreign_keys") == "1";
}

bool create(sqlite3* db)
{
    sql::RecordSet statements(db);
    return statements.query("create table if not exists room (id integer primary key, name text);"
                            "create table if not exists reading (id integer primary key"
                            " autoincrement, room integer references room (id), value integer)");
}

// Thousands of rows, in a transaction of the caller's.
bool addMany(sqlite3* db, const std::vector<sql::integer>& values)
{
    sqlite3_stmt* statement = nullptr;
    const char* const text = "insert into reading (room, value) values (1, ?)";
    if (sqlite3_prepare_v2(db, text, -1, &statement, nullptr) != SQLITE_OK)
        return false;
    bool done = true;
    for (const sql::integer value : values) {
        sqlite3_bind_int64(statement, 1, value);
        done = done && sqlite3_step(statement) == SQLITE_DONE;
        sqlite3_reset(statement);
    }
    return sqlite3_finalize(statement) == SQLITE_OK && done;
}

bool addRoom(sqlite3* db, sql::integer& key)
{
    if (!sql::RecordSet(db).query("insert into room (name) values ('hall')"))
        return false;
    key = sqlite3_last_insert_rowid(db);
    return true;
}

bool listReadings(sqlite3* db)
{
    const std::vector<sql::Field> both = {sql::Field("name", sql::type_text, sql::flag_none),
                                          sql::Field("value", sql::type_int, sql::flag_none)};
    sql::RecordSet rows(db, both);
    if (!rows.query("select room.name, reading.value from reading"
                    " join room on room.id = reading.room order by reading.id"))
        return false;
    for (int i = 0; i < rows.count(); ++i)
        std::printf("%s\n", rows.getRecord(i)->toString().c_str());
    return true;
}

bool addReadings(sql::Database& database)
{
    const std::vector<sql::integer> values = {20, 21, 9223372036854775807LL};
    if (!database.transactionBegin())
        return false;
    if (addMany(database.getHandle(), values) && database.transactionCommit())
        return true;
    database.transactionRollback();
    return false;
}

// A reading of a room that there is not.
bool refuse(sql::Database& database)
{
    sql::Table readings(database.getHandle(), "reading", columns);
    sql::Record stray(*readings.fields());
    stray.setInteger("room", 99);
    const bool added = readings.addRecord(stray);
    std::printf("stray reading: %s\n", added ? "added" : "refused");
    return !added;
}

bool shrink(sqlite3* db)
{
    return sql::RecordSet(db).query("delete from reading") && sql::RecordSet(db).query("vacuum");
}

bool run(sql::Database& database)
{
    sqlite3* const db = database.getHandle();
    sql::integer key = 0;
    if (!keepLog(db) || !keepReferences(db) || !create(db) || !addRoom(db, key))
        return false;
    std::printf("room %lld\n", key);
    return addReadings(database) && listReadings(db) && refuse(database) && shrink(db);
}

} // namespace

int main(int argc, char** argv)
{
    if (argc != 2) {
        std::fputs("usage: questions DATABASE\n", stderr);
        return 2;
    }
    std::setvbuf(stdout, nullptr, _IOLBF, BUFSIZ); // in order with standard error
    sql::Database database;
    if (database.open(argv[1], sql::Database::access_create, false, busy_timeout_ms)
        && run(database))
        return 0;
    std::fputs("questions: failed\n", stderr);
    return 1;
}
