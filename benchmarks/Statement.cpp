#include "Contestant.h"
#include "SqlStatement.h"
#include "SqlTransaction.h"

#include <optional>

namespace bench {

namespace {

// Statements of sqlprepared, in the form that its pages advise: values given to the run, rows read into
// variables.
class Statement : public ReadingContestant {
public:
    void open(const std::string& file) override
    {
        require(_database.open(file, sql::Database::access_create, false, 1000), "open");
    }
    void close() override
    {
        _rows = std::vector<Row>();
        for (std::optional<sql::Statement>& statement : _statements)
            statement.reset();
        _database.close();
    }
    sqlite3* handle() override
    {
        return _database.getHandle();
    }
    void begin() override
    {
        _transaction.emplace(_database, sql::begin_deferred);
        require(_transaction->isOpen(), "begin");
    }
    void commit() override
    {
        require(_transaction->commit(), "commit");
        _transaction.reset();
    }
    long long count() override
    {
        return *statement(count_rows).one<long long>();
    }
    void readByName(Digest& digest) override;

protected:
    void write(Work work, const Row& row) override
    {
        require(statement(work).run(row.id, row.name, row.place, row.price, row.active, row.changed,
                                    row.note),
                statements[work]);
    }
    bool find(Work work, long long key) override;
    void select() override
    {
        require(statement(select_rows).reset(), statements[select_rows]);
    }
    bool next(Row& row) override
    {
        return nextRow(*_statements[select_rows], row);
    }

private:
    sql::Statement& statement(Work work)
    {
        std::optional<sql::Statement>& kept = _statements[work];
        if (!kept)
            kept.emplace(_database, statements[work]);
        return *kept;
    }
    static bool nextRow(sql::Statement& statement, Row& row)
    {
        return statement.next(row.id, row.name, row.place, row.price, row.active, row.changed,
                              row.note);
    }

    sql::Database _database;
    std::optional<sql::Transaction> _transaction;
    std::optional<sql::Statement> _statements[work_count];
};

bool Statement::find(Work work, long long key)
{
    sql::Statement& found = statement(work);
    if (work == look_up)
        return nextRow(found.bind(1, key), _row) && found.reset();
    if (work == test_existence)
        return found.bind(1, key).next() && found.reset();
    require(found.run(key), statements[work]);
    return true;
}

void Statement::readByName(Digest& digest)
{
    select();
    sql::Statement& selected = *_statements[select_rows];
    while (selected.next()) {
        _row.id = selected.column("id").asInteger();
        _row.name = selected.column("name").asText();
        _row.place = selected.column("place").asText();
        _row.price = selected.column("price").asDouble();
        _row.active = selected.column("active").asBool();
        _row.changed = selected.column("changed").asInteger();
        const sql::Column note = selected.column("note");
        if (note.isNull())
            _row.note.reset();
        else
            _row.note = note.asText();
        digest.add(_row);
    }
}

} // namespace

std::unique_ptr<Contestant> makeStatement()
{
    return std::make_unique<Statement>();
}

} // namespace bench
