#include "Contestant.h"

#include <SQLiteCpp/SQLiteCpp.h>

namespace bench {

namespace {

// Values bound without a copy, columns read from the statement by number or by name.
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

class SqliteCpp : public ReadingContestant {
public:
    void open(const std::string& file) override
    {
        _db.emplace(file, SQLite::OPEN_READWRITE | SQLite::OPEN_CREATE, 1000);
    }
    void close() override
    {
        _rows = std::vector<Row>();
        for (std::optional<SQLite::Statement>& statement : _statements)
            statement.reset();
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
    long long count() override
    {
        SQLite::Statement& counted = statement(count_rows);
        counted.executeStep();
        return counted.getColumn(0).getInt64();
    }
    void readByName(Digest& digest) override
    {
        SQLite::Statement& selected = statement(select_rows);
        while (selected.executeStep()) {
            readRow(selected, _row, column_names);
            digest.add(_row);
        }
    }

protected:
    void write(Work work, const Row& row) override
    {
        SQLite::Statement& written = statement(work);
        written.bind(1, std::int64_t{row.id});
        written.bindNoCopy(2, row.name);
        written.bindNoCopy(3, row.place);
        written.bind(4, row.price);
        written.bind(5, row.active ? 1 : 0);
        written.bind(6, std::int64_t{row.changed});
        if (row.note)
            written.bindNoCopy(7, *row.note);
        else
            written.bind(7);
        written.exec();
    }
    bool find(Work work, long long key) override
    {
        SQLite::Statement& found = statement(work);
        found.bind(1, std::int64_t{key});
        const bool exists = found.executeStep();
        if (exists && work == look_up)
            readRow(found, _row, column_indexes);
        return exists;
    }
    void select() override
    {
        statement(select_rows);
    }
    bool next(Row& row) override
    {
        const bool more = _statements[select_rows]->executeStep();
        if (more)
            readRow(*_statements[select_rows], row, column_indexes);
        return more;
    }

private:
    SQLite::Statement& statement(Work work)
    {
        std::optional<SQLite::Statement>& kept = _statements[work];
        if (kept)
            kept->reset();
        else
            kept.emplace(*_db, statements[work]);
        return *kept;
    }

    std::optional<SQLite::Database> _db;
    std::optional<SQLite::Transaction> _transaction;
    std::optional<SQLite::Statement> _statements[work_count];
};

} // namespace

std::unique_ptr<Contestant> makeSqliteCpp()
{
    return std::make_unique<SqliteCpp>();
}

} // namespace bench
