#include "Contestant.h"
#include "SqlTypedTable.h"

namespace bench {

namespace {

constexpr auto mapped = sql::mapping<Row>(
    "item", sql::autoKey<&Row::id>("id"), sql::column<&Row::name>("name"),
    sql::column<&Row::place>("place"), sql::column<&Row::price>("price"),
    sql::column<&Row::active>("active"), sql::column<&Row::changed>("changed"),
    sql::column<&Row::note>("note"));

// The rows themselves in a typed table of sqlprepared.
class Typed : public Contestant {
public:
    void open(const std::string& file) override
    {
        require(_database.open(file, sql::Database::access_create, false, 1000), "open");
    }
    void prepare() override
    {
        _table.emplace(_database, mapped);
    }
    void close() override
    {
        _rows = std::vector<Row>();
        _table.reset();
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
    void insert(const Row& row) override
    {
        require(_table->add(row), "insert");
    }
    void makeReady(const std::vector<Row>& rows) override
    {
        _ready = &rows;
    }
    void insertReady(int index) override
    {
        insert((*_ready)[index]);
    }
    void insertTogether(int count) override
    {
        require(_table->add(_ready->begin(), _ready->begin() + count), "insert");
    }
    void update(const Row& row) override
    {
        require(_table->update(row), "update");
    }
    void addOrUpdate(const Row& row) override
    {
        require(_table->addOrUpdate(row), "add or update");
    }
    void remove(long long key) override
    {
        require(_table->remove(key), "delete");
    }
    bool lookup(long long key) override
    {
        return static_cast<bool>(_table->find(key));
    }
    bool exists(long long key) override
    {
        return _table->has(key) == sql::Presence::present;
    }
    long long count() override
    {
        return *_table->count();
    }
    long long load() override
    {
        require(_table->load(_rows), "load");
        return static_cast<long long>(_rows.size());
    }
    void readByIndex(Digest& digest) override
    {
        sql::ObjectCursor<Row> rows = _table->select();
        while (rows.next(_row))
            digest.add(_row);
        require(rows.finished(), "read");
    }
    void readByName(Digest& digest) override
    {
        auto rows = sql::query<Row>(_database, mapped, statements[select_rows]);
        while (rows.next(_row))
            digest.add(_row);
        require(rows.finished(), "read");
    }
    void copyFrom(Contestant& source) override
    {
        sql::ObjectCursor<Row> rows = static_cast<Typed&>(source)._table->select();
        require(_table->add(rows.begin(), rows.end()) && rows.finished(), "copy");
    }

private:
    sql::Database _database;
    std::optional<sql::Transaction> _transaction;
    std::optional<sql::TypedTable<Row, long long>> _table;
    const std::vector<Row>* _ready = nullptr;
    std::vector<Row> _rows;
    Row _row;
};

} // namespace

std::unique_ptr<Contestant> makeTyped()
{
    return std::make_unique<Typed>();
}

} // namespace bench
