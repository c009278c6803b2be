#include "Contestant.h"

#include <sqlite3.h>

namespace bench {

namespace {

// What a program can do at best with SQLite's own interface: every statement prepared once and
// used again, values bound, cells read as what they are.
void bindText(sqlite3_stmt* statement, int index, const std::string& text)
{
    sqlite3_bind_text(statement, index, text.data(), static_cast<int>(text.size()), SQLITE_STATIC);
}

void readText(sqlite3_stmt* statement, int index, std::string& text)
{
    const unsigned char* const bytes = sqlite3_column_text(statement, index);
    text.assign(reinterpret_cast<const char*>(bytes), sqlite3_column_bytes(statement, index));
}

bool step(sqlite3_stmt* statement)
{
    const int rc = sqlite3_step(statement);
    require(rc == SQLITE_ROW || rc == SQLITE_DONE, sqlite3_sql(statement));
    return rc == SQLITE_ROW;
}

class Prepared : public ReadingContestant {
public:
    void open(const std::string& file) override
    {
        _db = connect(file);
    }
    void close() override
    {
        for (sqlite3_stmt*& statement : _statements) {
            sqlite3_finalize(statement);
            statement = nullptr;
        }
        _rows = std::vector<Row>();
        require(sqlite3_close(_db) == SQLITE_OK, "close");
        _db = nullptr;
    }
    sqlite3* handle() override
    {
        return _db;
    }
    void begin() override
    {
        execute(_db, "BEGIN TRANSACTION");
    }
    void commit() override
    {
        execute(_db, "COMMIT TRANSACTION");
    }
    long long count() override
    {
        step(statement(count_rows));
        const long long count = sqlite3_column_int64(_statements[count_rows], 0);
        sqlite3_reset(_statements[count_rows]);
        return count;
    }
    // Columns have numbers in a prepared statement; their names are a matter of preparing it.
    void readByName(Digest& digest) override
    {
        readByIndex(digest);
    }

protected:
    void write(Work work, const Row& row) override;
    bool find(Work work, long long key) override
    {
        sqlite3_stmt* const found = statement(work);
        sqlite3_bind_int64(found, 1, key);
        const bool exists = step(found);
        if (exists && work == look_up)
            readRow(found, _row);
        sqlite3_reset(found);
        return exists;
    }
    void select() override
    {
        statement(select_rows);
    }
    bool next(Row& row) override
    {
        sqlite3_stmt* const selected = _statements[select_rows];
        const bool more = step(selected);
        if (more)
            readRow(selected, row);
        else
            sqlite3_reset(selected);
        return more;
    }

private:
    sqlite3_stmt* statement(Work work)
    {
        sqlite3_stmt*& kept = _statements[work];
        if (kept == nullptr)
            sqlite3_prepare_v3(_db, statements[work], -1, SQLITE_PREPARE_PERSISTENT, &kept,
                               nullptr);
        require(kept != nullptr, statements[work]);
        return kept;
    }
    static void readRow(sqlite3_stmt* statement, Row& row);

    sqlite3* _db = nullptr;
    sqlite3_stmt* _statements[work_count] = {};
};

void Prepared::write(Work work, const Row& row)
{
    sqlite3_stmt* const written = statement(work);
    sqlite3_bind_int64(written, 1, row.id);
    bindText(written, 2, row.name);
    bindText(written, 3, row.place);
    sqlite3_bind_double(written, 4, row.price);
    sqlite3_bind_int(written, 5, row.active);
    sqlite3_bind_int64(written, 6, row.changed);
    if (row.note)
        bindText(written, 7, *row.note);
    else
        sqlite3_bind_null(written, 7);
    step(written);
    sqlite3_reset(written);
}

void Prepared::readRow(sqlite3_stmt* statement, Row& row)
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

} // namespace

std::unique_ptr<Contestant> makePrepared()
{
    return std::make_unique<Prepared>();
}

} // namespace bench
