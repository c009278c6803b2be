#include "Wide.h"

#include "Floor.h"
#include "SqlDatabase.h"
#include "SqlTable.h"

#include <sqlite3.h>

#include <cstdio>
#include <cstdlib>

namespace bench {

std::string textOf(int row, int column)
{
    return "it's " + std::to_string(row * column);
}

namespace {

constexpr int wide_rows = 20;

std::vector<std::string> namesOf(int columns)
{
    std::vector<std::string> names = {"id"};
    for (int i = 1; i < columns; ++i)
        names.push_back("column" + std::to_string(i));
    return names;
}

long long lengthOf(const std::string& text)
{
    return static_cast<long long>(text.size());
}

// The table through the library.
class WideLibrary : public Wide {
public:
    WideLibrary(const std::string& file, const std::vector<std::string>& names)
        : _columns(static_cast<int>(names.size())), _names(names)
    {
        require(_database.open(file, sql::Database::access_create, false, 1000), "open");
        std::vector<sql::Field> fields;
        for (int i = 0; i < _columns; ++i)
            fields.push_back(sql::Field(names[i], isText(i) ? sql::type_text : sql::type_int,
                                        i == 0 ? sql::flag_primary_key : sql::flag_none));
        fields.push_back(sql::Field());
        _table = std::make_unique<sql::Table>(_database.getHandle(), "item", fields.data());
        require(_table->create() && _database.transactionBegin(), "create");
    }
    void insert(int row) override
    {
        require(_table->addRecord(recordOf(row, row)), "insert");
    }
    void update(int row) override
    {
        require(_table->updateRecord(recordOf(row, row + 1)), "update");
    }
    void load() override
    {
        require(_table->open(), "load");
    }
    long long read(bool byName) override
    {
        long long sum = 0;
        for (int row = 0; row < _table->recordCount(); ++row) {
            const sql::Record& record = *_table->getRecord(row);
            for (int i = 0; i < _columns; ++i) {
                const sql::Value* const cell = byName ? record.getValue(_names[i])
                                                      : record.getValue(i);
                sum += isText(i) ? lengthOf(cell->asString()) : cell->asInteger();
            }
        }
        return sum;
    }

private:
    sql::Record recordOf(int key, int row) const
    {
        sql::Record record(*_table->fields());
        record.setInteger(0, key);
        for (int i = 1; i < _columns; ++i) {
            if (isText(i))
                record.setString(i, textOf(row, i));
            else
                record.setInteger(i, row * i);
        }
        return record;
    }

    sql::Database _database;
    std::unique_ptr<sql::Table> _table;
    int _columns;
    std::vector<std::string> _names;
};

// The table through text put together by hand.
class WideFloor : public Wide {
public:
    WideFloor(const std::string& file, const std::vector<std::string>& names)
        : _columns(static_cast<int>(names.size())), _names(names)
    {
        _db = connect(file);
        std::string sql = "CREATE TABLE item (id INTEGER PRIMARY KEY";
        for (int i = 1; i < _columns; ++i)
            sql += ", " + names[i] + (isText(i) ? " TEXT" : " INTEGER");
        run(sql + ")");
        run("BEGIN TRANSACTION");
    }
    ~WideFloor() override
    {
        sqlite3_close(_db);
    }
    WideFloor(const WideFloor&) = delete;
    WideFloor& operator=(const WideFloor&) = delete;

    void insert(int row) override
    {
        std::string sql = "insert into item (id";
        for (int i = 1; i < _columns; ++i)
            (sql += ", ") += _names[i];
        (sql += ") values (") += std::to_string(row);
        for (int i = 1; i < _columns; ++i) {
            sql += ", ";
            appendCell(sql, row, i);
        }
        run(sql + ")");
    }
    void update(int row) override
    {
        std::string sql = "update item set ";
        for (int i = 1; i < _columns; ++i) {
            if (i > 1)
                sql += ", ";
            (sql += _names[i]) += "=";
            appendCell(sql, row + 1, i);
        }
        run(sql + " where id = " + std::to_string(row));
    }
    void load() override
    {
        _rows.clear();
        run("select * from item");
    }
    long long read(bool byName) override
    {
        long long sum = 0;
        for (const Cells& cells : _rows) {
            for (int i = 0; i < _columns; ++i)
                sum += valueOf(cells[byName ? indexOf(_names[i]) : i], i);
        }
        return sum;
    }

private:
    static void appendCell(std::string& sql, int row, int column)
    {
        if (isText(column))
            appendQuoted(sql, textOf(row, column));
        else
            sql += std::to_string(row * column);
    }
    static long long valueOf(const std::optional<std::string>& cell, int column)
    {
        if (isText(column))
            return lengthOf(std::string(*cell));
        return std::strtoll(cell->c_str(), nullptr, 10);
    }
    int indexOf(const std::string& name) const
    {
        int i = 0;
        while (_names[i] != name)
            ++i;
        return i;
    }
    void run(const std::string& sql)
    {
        require(sqlite3_exec(_db, sql.c_str(), keepRow, &_rows, nullptr) == SQLITE_OK, "run");
    }

    sqlite3* _db = nullptr;
    int _columns;
    std::vector<std::string> _names;
    Rows _rows;
};

std::unique_ptr<Wide> make(const std::string& contestant, const std::string& file, int columns)
{
    if (contestant == "library")
        return std::make_unique<WideLibrary>(file, namesOf(columns));
    if (contestant == "typed")
        return makeWideTyped(file, columns);
    if (contestant == "prepared")
        return makeWidePrepared(file, columns);
    return std::make_unique<WideFloor>(file, namesOf(columns));
}

} // namespace

int runWide(const std::string& contestant, const std::string& operation, const std::string& folder,
            int columns, Meter& meter)
{
    const std::string file = folder + "/wide.db";
    std::remove(file.c_str());
    const std::unique_ptr<Wide> table = make(contestant, file, columns);
    Wide& wide = *table;
    const bool inserts = operation == "insert";
    long long sum = 1;
    for (int row = 1; row <= (inserts ? 1 : wide_rows); ++row)
        wide.insert(row); // the first one reads the schema
    meter.start();
    if (inserts || operation == "update") {
        for (int row = 1; row <= wide_rows; ++row)
            inserts ? wide.insert(row + 1) : wide.update(row);
    } else {
        wide.load();
        if (operation != "load")
            sum = wide.read(operation == "read by name");
    }
    meter.stop();
    require(sum > 0, "cells are read");
    return wide_rows;
}

} // namespace bench
