#include "Contestant.h"

#include <sqlite3.h>

namespace bench {

namespace {

// What a program can do at best with SQLite's own interface: every statement prepared once and
// used again, values bound, cells read as what they are.
class Statement {
public:
    Statement() = default;
    Statement(const Statement&) = delete;
    Statement& operator=(const Statement&) = delete;
    ~Statement()
    {
        sqlite3_finalize(_statement);
    }

    void prepare(sqlite3* db, const char* sql)
    {
        if (_statement == nullptr)
            require(sqlite3_prepare_v3(db, sql, -1, SQLITE_PREPARE_PERSISTENT, &_statement, nullptr)
                        == SQLITE_OK,
                    sql);
    }
    void finalize()
    {
        sqlite3_finalize(_statement);
        _statement = nullptr;
    }
    bool step()
    {
        const int rc = sqlite3_step(_statement);
        require(rc == SQLITE_ROW || rc == SQLITE_DONE, sqlite3_sql(_statement));
        return rc == SQLITE_ROW;
    }
    void run()
    {
        step();
        sqlite3_reset(_statement);
    }
    operator sqlite3_stmt*()
    {
        return _statement;
    }

private:
    sqlite3_stmt* _statement = nullptr;
};

void bindText(sqlite3_stmt* statement, int index, const std::string& text)
{
    sqlite3_bind_text(statement, index, text.data(), static_cast<int>(text.size()), SQLITE_STATIC);
}

void bind(sqlite3_stmt* statement, const Row& row)
{
    sqlite3_bind_int64(statement, 1, row.id);
    bindText(statement, 2, row.name);
    bindText(statement, 3, row.place);
    sqlite3_bind_double(statement, 4, row.price);
    sqlite3_bind_int(statement, 5, row.active);
    sqlite3_bind_int64(statement, 6, row.changed);
    if (row.note)
        bindText(statement, 7, *row.note);
    else
        sqlite3_bind_null(statement, 7);
}

void readText(sqlite3_stmt* statement, int index, std::string& text)
{
    const unsigned char* const bytes = sqlite3_column_text(statement, index);
    text.assign(reinterpret_cast<const char*>(bytes), sqlite3_column_bytes(statement, index));
}

void read(sqlite3_stmt* statement, Row& row)
{
    row.id = sqlite3_column_int64(statement, 0);
    readText(statement, 1, row.name);
    readText(statement, 2, row.place);
    row.price = sqlite3_column_double(statement, 3);
    row.active = sqlite3_column_int(statement, 4) != 0;
    row.changed = sqlite3_column_int64(statement, 5);
    if (sqlite3_column_type(statement, 6) == SQLITE_NULL)
        row.note.reset();
    else
        readText(statement, 6, row.note ? *row.note : row.note.emplace());
}

class Prepared : public Contestant {
public:
    void open(const std::string& file) override
    {
        require(
            sqlite3_open_v2(file.c_str(), &_db, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE, nullptr)
                == SQLITE_OK,
            "open");
        sqlite3_busy_timeout(_db, 1000);
    }
    void close() override;
    sqlite3* handle() override
    {
        return _db;
    }
    void begin() override
    {
        require(sqlite3_exec(_db, "BEGIN TRANSACTION", nullptr, nullptr, nullptr) == SQLITE_OK,
                "begin");
    }
    void commit() override
    {
        require(sqlite3_exec(_db, "COMMIT TRANSACTION", nullptr, nullptr, nullptr) == SQLITE_OK,
                "commit");
    }
    void insert(const Row& row) override
    {
        _insert.prepare(_db, "insert into item values (?1, ?2, ?3, ?4, ?5, ?6, ?7)");
        bind(_insert, row);
        _insert.run();
    }
    void update(const Row& row) override
    {
        _update.prepare(
            _db,
            "update item set name=?2, place=?3, price=?4, active=?5, changed=?6, note=?7 where id = ?1");
        bind(_update, row);
        _update.run();
    }
    // One statement does both.
    void addOrUpdate(const Row& row) override
    {
        _addOrUpdate.prepare(
            _db,
            "insert into item values (?1, ?2, ?3, ?4, ?5, ?6, ?7) on conflict(id) do update set name=?2, place=?3, price=?4, active=?5, changed=?6, note=?7");
        bind(_addOrUpdate, row);
        _addOrUpdate.run();
    }
    void remove(long long key) override
    {
        _remove.prepare(_db, "delete from item where id = ?1");
        sqlite3_bind_int64(_remove, 1, key);
        _remove.run();
    }
    bool lookup(long long key) override;
    bool exists(long long key) override;
    long long count() override;
    long long load() override;
    void readByIndex(Digest& digest) override;
    // Columns have numbers in a prepared statement; their names are a matter of preparing it.
    void readByName(Digest& digest) override
    {
        readByIndex(digest);
    }
    void copyFrom(Contestant& source) override;

private:
    void prepareSelect()
    {
        _select.prepare(_db, "select * from item");
    }

    sqlite3* _db = nullptr;
    Statement _insert;
    Statement _update;
    Statement _addOrUpdate;
    Statement _remove;
    Statement _lookup;
    Statement _exists;
    Statement _count;
    Statement _select;
    std::vector<Row> _rows;
    Row _row;
};

void Prepared::close()
{
    for (Statement* const statement :
         {&_insert, &_update, &_addOrUpdate, &_remove, &_lookup, &_exists, &_count, &_select})
        statement->finalize();
    _rows = std::vector<Row>();
    require(sqlite3_close(_db) == SQLITE_OK, "close");
    _db = nullptr;
}

bool Prepared::lookup(long long key)
{
    _lookup.prepare(_db, "select * from item where id = ?1");
    sqlite3_bind_int64(_lookup, 1, key);
    const bool found = _lookup.step();
    if (found)
        read(_lookup, _row);
    sqlite3_reset(_lookup);
    return found;
}

bool Prepared::exists(long long key)
{
    _exists.prepare(_db, "select 1 from item where id = ?1");
    sqlite3_bind_int64(_exists, 1, key);
    const bool found = _exists.step();
    sqlite3_reset(_exists);
    return found;
}

long long Prepared::count()
{
    _count.prepare(_db, "select count(*) from item");
    _count.step();
    const long long count = sqlite3_column_int64(_count, 0);
    sqlite3_reset(_count);
    return count;
}

long long Prepared::load()
{
    _rows.clear();
    prepareSelect();
    while (_select.step())
        read(_select, _rows.emplace_back());
    sqlite3_reset(_select);
    return static_cast<long long>(_rows.size());
}

void Prepared::readByIndex(Digest& digest)
{
    prepareSelect();
    while (_select.step()) {
        read(_select, _row);
        digest.add(_row);
    }
    sqlite3_reset(_select);
}

void Prepared::copyFrom(Contestant& source)
{
    Prepared& from = static_cast<Prepared&>(source);
    from.prepareSelect();
    while (from._select.step()) {
        read(from._select, _row);
        insert(_row);
    }
    sqlite3_reset(from._select);
}

} // namespace

std::unique_ptr<Contestant> makePrepared()
{
    return std::make_unique<Prepared>();
}

} // namespace bench
