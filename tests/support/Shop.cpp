#include "Shop.h"

#include "Columns.h"
#include "SqlRecordSet.h"
#include "Sqlite.h"

#include <gtest/gtest.h>

#include <sstream>

// Whether a file outlives a power cut is not asked here, and waiting for the disk takes most of the
// time. Found before the C library's own.
extern "C" {

int fsync(int)
{
    return 0;
}

int fdatasync(int)
{
    return 0;
}

} // extern "C"

namespace test {

using sql::Field;

const Field goods_columns[] = {
    Field("id", sql::type_int, sql::flag_primary_key),
    Field("name", sql::type_text, sql::flag_not_null),
    Field("price", sql::type_float, sql::flag_none),
    Field("sold", sql::type_bool, sql::flag_none),
    Field("code", sql::type_text, sql::flag_unique),
    Field(),
};

const sql::FieldSet& goods()
{
    static const sql::FieldSet fields(goods_columns);
    return fields;
}

const sql::FieldSet& vendors()
{
    static const sql::FieldSet fields(text_key_columns);
    return fields;
}

sql::Record good(sql::integer id, const std::string& name)
{
    sql::Record record(goods());
    record.setInteger("id", id);
    record.setString("name", name);
    record.setDouble("price", static_cast<double>(id) * 0.5);
    record.setBool("sold", id % 2 == 0);
    record.setString("code", "c" + std::to_string(id));
    return record;
}

Shop::Shop(std::string file) : _file(std::move(file))
{
}

bool Shop::open(sql::Database::AccessMode mode, int busyTimeout)
{
    const bool opened = database.open(_file, mode, false, busyTimeout);
    for (sql::Table* const table : {&product, &supplier, &archive})
        table->initTable(handle(), nullptr); // it has its columns
    return opened;
}

void Shop::close()
{
    database.close();
}

int Shop::getUserVersion()
{
    return database.getUserVersion();
}

bool Shop::setUserVersion(unsigned int version)
{
    return database.setUserVersion(version);
}

bool Shop::transact(const std::string& word)
{
    if (word == "BEGIN")
        return database.transactionBegin();
    return word == "COMMIT" ? database.transactionCommit() : database.transactionRollback();
}

bool Shop::query(const std::string& statement)
{
    return sql::RecordSet(handle()).query(statement);
}

bool Shop::inTransaction()
{
    return handle() != nullptr && sqlite3_get_autocommit(handle()) == 0;
}

sqlite3* Shop::handle()
{
    return database.getHandle();
}

namespace {

std::string literal(sqlite3_stmt* row, int column)
{
    const auto* const text = reinterpret_cast<const char*>(sqlite3_column_text(row, column));
    if (text == nullptr)
        return "null";
    return sqlite3_column_type(row, column) == SQLITE_TEXT ? "'" + sql::quoteStr(text) + "'" : text;
}

std::string insertStatements(sqlite3* db, const std::string& table)
{
    sqlite3_stmt* row = nullptr;
    sqlite3_prepare_v2(db, ("select * from " + table).c_str(), -1, &row, nullptr);
    std::string text;
    while (sqlite3_step(row) == SQLITE_ROW) {
        text += "\ninsert into " + table + " values (";
        for (int i = 0; i < sqlite3_column_count(row); ++i)
            text += (i > 0 ? ", " : "") + literal(row, i);
        text += ");";
    }
    EXPECT_EQ(sqlite3_finalize(row), SQLITE_OK) << table << ": " << sqlite3_errmsg(db);
    return text;
}

} // namespace

std::string contents(Connection& db)
{
    std::string text = "pragma user_version = " + db.rows("pragma user_version") + ";";
    std::istringstream tables(db.rows("select name, sql from sqlite_master where type = 'table'"));
    for (std::string name, sql; std::getline(tables, name, '|') && std::getline(tables, sql);)
        text += "\n" + sql + ";" + insertStatements(db, name);
    return text;
}

std::string contents(const std::string& file)
{
    Connection db(file);
    db.run("pragma synchronous = off"); // the power stays
    EXPECT_EQ(db.rows("pragma integrity_check"), "ok");
    return contents(db);
}

} // namespace test
