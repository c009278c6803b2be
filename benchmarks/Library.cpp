#include "Contestant.h"
#include "SqlDatabase.h"
#include "SqlTable.h"

namespace bench {

namespace {

const sql::Field columns[] = {
    sql::Field("id", sql::type_int, sql::flag_primary_key | sql::flag_not_null),
    sql::Field("name", sql::type_text, sql::flag_not_null),
    sql::Field("place", sql::type_text, sql::flag_none),
    sql::Field("price", sql::type_float, sql::flag_none),
    sql::Field("active", sql::type_bool, sql::flag_none),
    sql::Field("changed", sql::type_time, sql::flag_none),
    sql::Field("note", sql::type_text, sql::flag_none),
    sql::Field(),
};

sql::Record recordOf(const Row& row, const sql::FieldSet& fields)
{
    sql::Record record(fields);
    record.setInteger(0, row.id);
    record.setString(1, row.name);
    record.setString(2, row.place);
    record.setDouble(3, row.price);
    record.setBool(4, row.active);
    record.setTime(5, sql::Time(row.changed));
    if (row.note)
        record.setString(6, *row.note);
    return record;
}

sql::Record recordByName(const Row& row, const sql::FieldSet& fields)
{
    sql::Record record(fields);
    record.setInteger("id", row.id);
    record.setString("name", row.name);
    record.setString("place", row.place);
    record.setDouble("price", row.price);
    record.setBool("active", row.active);
    record.setTime("changed", sql::Time(row.changed));
    if (row.note)
        record.setString("note", *row.note);
    return record;
}

void readByIndex(const sql::Record& record, Row& row)
{
    row.id = record.getValue(0)->asInteger();
    row.name = record.getValue(1)->asString();
    row.place = record.getValue(2)->asString();
    row.price = record.getValue(3)->asDouble();
    row.active = record.getValue(4)->asBool();
    row.changed = record.getValue(5)->asTime().asInteger();
    const sql::Value* const note = record.getValue(6);
    if (note->isNull())
        row.note.reset();
    else
        row.note = note->asString();
}

void readByName(const sql::Record& record, Row& row)
{
    row.id = record.getValue("id")->asInteger();
    row.name = record.getValue("name")->asString();
    row.place = record.getValue("place")->asString();
    row.price = record.getValue("price")->asDouble();
    row.active = record.getValue("active")->asBool();
    row.changed = record.getValue("changed")->asTime().asInteger();
    const sql::Value* const note = record.getValue("note");
    if (note->isNull())
        row.note.reset();
    else
        row.note = note->asString();
}

class Library : public Contestant {
public:
    void open(const std::string& file) override
    {
        require(_database.open(file, sql::Database::access_create, false, 1000), "open");
    }
    void prepare() override
    {
        _table = std::make_unique<sql::Table>(_database.getHandle(), "item", columns);
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
        require(_table->addRecord(recordOf(row, *_table->fields())), "insert");
    }
    void insertByName(const Row& row) override
    {
        require(_table->addRecord(recordByName(row, *_table->fields())), "insert");
    }
    void makeReady(const std::vector<Row>& rows) override
    {
        for (const Row& row : rows)
            _ready.push_back(recordOf(row, *_table->fields()));
    }
    void insertReady(int index) override
    {
        require(_table->addRecord(_ready[index]), "insert");
    }
    void update(const Row& row) override
    {
        require(_table->updateRecord(recordOf(row, *_table->fields())), "update");
    }
    void addOrUpdate(const Row& row) override
    {
        require(_table->addOrUpdateRecord(row.id, recordOf(row, *_table->fields())),
                "add or update");
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
    void readByIndex(Digest& digest) override;
    void readByName(Digest& digest) override;
    void copyFrom(Contestant& source) override
    {
        sql::Table& from = *static_cast<Library&>(source)._table;
        require(from.open(), "load");
        require(_table->copyRecords(from), "copy");
    }

private:
    sql::Database _database;
    std::unique_ptr<sql::Table> _table;
    std::vector<sql::Record> _ready;
    Row _row;
};

void Library::readByIndex(Digest& digest)
{
    load();
    for (int i = 0; i < _table->recordCount(); ++i) {
        bench::readByIndex(*_table->getRecord(i), _row);
        digest.add(_row);
    }
}

void Library::readByName(Digest& digest)
{
    load();
    for (int i = 0; i < _table->recordCount(); ++i) {
        bench::readByName(*_table->getRecord(i), _row);
        digest.add(_row);
    }
}

} // namespace

std::unique_ptr<Contestant> makeLibrary()
{
    return std::make_unique<Library>();
}

} // namespace bench
