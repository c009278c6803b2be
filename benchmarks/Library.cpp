#include "Contestant.h"
#include "LibraryRow.h"
#include "SqlDatabase.h"

namespace bench {

namespace {

class Library : public Contestant {
public:
    void open(const std::string& file) override
    {
        require(_database.open(file, sql::Database::access_create, false, 1000), "open");
    }
    void prepare() override
    {
        _table = std::make_unique<sql::Table>(_database.getHandle(), "item", declaration);
    }
    void close() override
    {
        _ready.clear();
        _table.reset();
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
        require(_table->addRecord(recordOf(row)), "insert");
    }
    void insertByName(const Row& row) override
    {
        require(_table->addRecord(bench::recordOf(row, *_table->fields(), column_names)), "insert");
    }
    void makeReady(const std::vector<Row>& rows) override
    {
        for (const Row& row : rows)
            _ready.push_back(recordOf(row));
    }
    void insertReady(int index) override
    {
        require(_table->addRecord(_ready[index]), "insert");
    }
    void update(const Row& row) override
    {
        require(_table->updateRecord(recordOf(row)), "update");
    }
    void addOrUpdate(const Row& row) override
    {
        require(_table->addOrUpdateRecord(row.id, recordOf(row)), "add or update");
    }
    void remove(long long key) override
    {
        require(_table->deleteRecord(key), "delete");
    }
    bool lookup(long long key) override
    {
        return _table->getRecordByKeyId(key) != nullptr;
    }
    bool exists(long long key) override
    {
        return _table->hasRecordWithKeyId(key);
    }
    long long count() override
    {
        return _table->totalRecordCount();
    }
    long long load() override
    {
        require(_table->open(), "load");
        return _table->recordCount();
    }
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
        sql::Table& from = *static_cast<Library&>(source)._table;
        require(from.open(), "load");
        require(_table->copyRecords(from), "copy");
    }

private:
    sql::Record recordOf(const Row& row) const
    {
        return bench::recordOf(row, *_table->fields(), column_indexes);
    }
    template <typename Column>
    void digestRows(Digest& digest, const Column (&columns)[column_count])
    {
        load();
        for (int i = 0; i < _table->recordCount(); ++i) {
            readRecord(*_table->getRecord(i), _row, columns);
            digest.add(_row);
        }
    }

    sql::Database _database;
    std::unique_ptr<sql::Table> _table;
    std::vector<sql::Record> _ready;
    Row _row;
};

} // namespace

std::unique_ptr<Contestant> makeLibrary()
{
    return std::make_unique<Library>();
}

} // namespace bench
