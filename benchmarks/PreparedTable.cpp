#include "Contestant.h"
#include "LibraryRow.h"
#include "SqlPreparedTable.h"

namespace bench {

namespace {

// The records of the library by statements that are compiled once.
class PreparedTable : public Contestant {
public:
    void open(const std::string& file) override
    {
        require(_database.open(file, sql::Database::access_create, false, 1000), "open");
    }
    void prepare() override
    {
        _columns = std::make_unique<sql::Table>(_database.getHandle(), "item", declaration);
        _table = std::make_unique<sql::PreparedTable>(_database, *_columns);
        _record = std::make_unique<sql::Record>(*_columns->fields());
    }
    void close() override
    {
        _ready.clear();
        _loaded.clear();
        _count.reset();
        _record.reset();
        _table.reset();
        _columns.reset();
        _database.close();
    }
    sqlite3* handle() override
    {
        return _database.getHandle();
    }
    void begin() override
    {
        require(_database.transactionBegin(), "begin");
    }
    void commit() override
    {
        require(_database.transactionCommit(), "commit");
    }
    void insert(const Row& row) override
    {
        fillRecord(*_record, row, column_indexes);
        require(_table->addRecord(*_record), "insert");
    }
    void insertByName(const Row& row) override
    {
        fillRecord(*_record, row, column_names);
        require(_table->addRecord(*_record), "insert");
    }
    void makeReady(const std::vector<Row>& rows) override
    {
        for (const Row& row : rows) {
            _ready.emplace_back(*_columns->fields());
            fillRecord(_ready.back(), row, column_indexes);
        }
    }
    void insertReady(int index) override
    {
        require(_table->addRecord(_ready[index]), "insert");
    }
    void insertTogether(int) override
    {
        require(_table->addRecords(_ready.begin(), _ready.end()), "insert");
    }
    void update(const Row& row) override
    {
        fillRecord(*_record, row, column_indexes);
        require(_table->updateRecord(*_record), "update");
    }
    void addOrUpdate(const Row& row) override
    {
        fillRecord(*_record, row, column_indexes);
        require(_table->addOrUpdateRecord(*_record), "add or update");
    }
    void remove(long long key) override
    {
        require(_table->deleteRecord(key), "delete");
    }
    bool lookup(long long key) override
    {
        return static_cast<bool>(_table->readRecord(key, *_record));
    }
    bool exists(long long key) override
    {
        return _table->hasRecordWithKeyId(key) == sql::Presence::present;
    }
    long long count() override
    {
        if (_count == nullptr) // compiled when it is first needed, as the others' statements
            _count = std::make_unique<sql::Statement>(_database, statements[count_rows]);
        return *_count->one<long long>();
    }
    long long load() override;
    void readByIndex(Digest& digest) override
    {
        digestRows(digest, column_indexes);
    }
    void readByName(Digest& digest) override
    {
        digestRows(digest, column_names);
    }
    void copyFrom(Contestant& source) override
    {
        require(_table->copyRecords(*static_cast<PreparedTable&>(source)._table), "copy");
    }

private:
    template <typename Column>
    void digestRows(Digest& digest, const Column (&columns)[column_count])
    {
        sql::RecordCursor rows = _table->select();
        while (rows.next(*_record)) {
            readRecord(*_record, _row, columns);
            digest.add(_row);
        }
        require(rows.finished(), "read");
    }

    sql::Database _database;
    std::unique_ptr<sql::Table> _columns;
    std::unique_ptr<sql::PreparedTable> _table;
    std::unique_ptr<sql::Statement> _count;
    std::unique_ptr<sql::Record> _record;
    std::vector<sql::Record> _ready;
    std::vector<sql::Record> _loaded;
    Row _row;
};

long long PreparedTable::load()
{
    _loaded.clear();
    sql::RecordCursor rows = _table->select();
    for (const sql::Record& record : rows)
        _loaded.push_back(record);
    require(rows.finished(), "load");
    return static_cast<long long>(_loaded.size());
}

} // namespace

std::unique_ptr<Contestant> makePreparedTable()
{
    return std::make_unique<PreparedTable>();
}

} // namespace bench
