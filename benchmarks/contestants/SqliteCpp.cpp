#include "Contestant.h"

#include <SQLiteCpp/SQLiteCpp.h>

namespace bench {

namespace {

// Statements prepared once and kept, values bound without a copy, columns read from the statement.
using Cached = std::optional<SQLite::Statement>;

class SqliteCpp : public Contestant {
public:
    void open(const std::string& file) override
    {
        _db.emplace(file, SQLite::OPEN_READWRITE | SQLite::OPEN_CREATE, 1000);
    }
    void close() override
    {
        _rows = std::vector<Row>();
        for (Cached* const statement :
             {&_insert, &_update, &_addOrUpdate, &_remove, &_lookup, &_exists, &_count, &_select})
            statement->reset();
        _db.reset();
    }
    sqlite3* handle() override
    {
        return _db->getHandle();
    }
    void begin() override
    {
        _transaction.emplace(*_db);
    }
    void commit() override
    {
        _transaction->commit();
        _transaction.reset();
    }
    void insert(const Row& row) override
    {
        write(_insert, "insert into item values (?1, ?2, ?3, ?4, ?5, ?6, ?7)", row);
    }
    void update(const Row& row) override
    {
        write(
            _update,
            "update item set name=?2, place=?3, price=?4, active=?5, changed=?6, note=?7 where id = ?1",
            row);
    }
    void addOrUpdate(const Row& row) override
    {
        write(
            _addOrUpdate,
            "insert into item values (?1, ?2, ?3, ?4, ?5, ?6, ?7) on conflict(id) do update set name=?2, place=?3, price=?4, active=?5, changed=?6, note=?7",
            row);
    }
    void remove(long long key) override
    {
        SQLite::Statement& statement = prepared(_remove, "delete from item where id = ?1");
        statement.bind(1, std::int64_t{key});
        statement.exec();
    }
    bool lookup(long long key) override;
    bool exists(long long key) override
    {
        SQLite::Statement& statement = prepared(_exists, "select 1 from item where id = ?1");
        statement.bind(1, std::int64_t{key});
        return statement.executeStep();
    }
    long long count() override
    {
        SQLite::Statement& statement = prepared(_count, "select count(*) from item");
        statement.executeStep();
        return statement.getColumn(0).getInt64();
    }
    long long load() override;
    void readByIndex(Digest& digest) override;
    void readByName(Digest& digest) override;
    void copyFrom(Contestant& source) override;

private:
    SQLite::Statement& prepared(Cached& statement, const char* sql)
    {
        if (statement)
            statement->reset();
        else
            statement.emplace(*_db, sql);
        return *statement;
    }
    void write(Cached& cached, const char* sql, const Row& row)
    {
        SQLite::Statement& statement = prepared(cached, sql);
        statement.bind(1, std::int64_t{row.id});
        statement.bindNoCopy(2, row.name);
        statement.bindNoCopy(3, row.place);
        statement.bind(4, row.price);
        statement.bind(5, row.active ? 1 : 0);
        statement.bind(6, std::int64_t{row.changed});
        if (row.note)
            statement.bindNoCopy(7, *row.note);
        else
            statement.bind(7);
        statement.exec();
    }

    std::optional<SQLite::Database> _db;
    std::optional<SQLite::Transaction> _transaction;
    Cached _insert;
    Cached _update;
    Cached _addOrUpdate;
    Cached _remove;
    Cached _lookup;
    Cached _exists;
    Cached _count;
    Cached _select;
    std::vector<Row> _rows;
    Row _row;
};

// The columns are given by number or by name.
template <typename Column>
void readRow(SQLite::Statement& statement, Row& row, const Column (&columns)[column_count])
{
    row.id = statement.getColumn(columns[0]).getInt64();
    row.name = statement.getColumn(columns[1]).getString();
    row.place = statement.getColumn(columns[2]).getString();
    row.price = statement.getColumn(columns[3]).getDouble();
    row.active = statement.getColumn(columns[4]).getInt() != 0;
    row.changed = statement.getColumn(columns[5]).getInt64();
    const SQLite::Column note = statement.getColumn(columns[6]);
    if (note.isNull())
        row.note.reset();
    else
        row.note = note.getString();
}

const int indexes[column_count] = {0, 1, 2, 3, 4, 5, 6};

bool SqliteCpp::lookup(long long key)
{
    SQLite::Statement& statement = prepared(_lookup, "select * from item where id = ?1");
    statement.bind(1, std::int64_t{key});
    if (!statement.executeStep())
        return false;
    readRow(statement, _row, indexes);
    return true;
}

long long SqliteCpp::load()
{
    _rows.clear();
    SQLite::Statement& statement = prepared(_select, "select * from item");
    while (statement.executeStep())
        readRow(statement, _rows.emplace_back(), indexes);
    return static_cast<long long>(_rows.size());
}

void SqliteCpp::readByIndex(Digest& digest)
{
    SQLite::Statement& statement = prepared(_select, "select * from item");
    while (statement.executeStep()) {
        readRow(statement, _row, indexes);
        digest.add(_row);
    }
}

void SqliteCpp::readByName(Digest& digest)
{
    SQLite::Statement& statement = prepared(_select, "select * from item");
    while (statement.executeStep()) {
        readRow(statement, _row, column_names);
        digest.add(_row);
    }
}

void SqliteCpp::copyFrom(Contestant& source)
{
    SqliteCpp& from = static_cast<SqliteCpp&>(source);
    SQLite::Statement& statement = from.prepared(from._select, "select * from item");
    while (statement.executeStep()) {
        readRow(statement, _row, indexes);
        insert(_row);
    }
}

} // namespace

std::unique_ptr<Contestant> makeSqliteCpp()
{
    return std::make_unique<SqliteCpp>();
}

} // namespace bench
