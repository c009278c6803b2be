// Two tables of a database in memory, beside what plain SQLite makes of the same statements: any
// sequence of operations.

#include "Fuzz.h"

#include "Columns.h"
#include "SqlDatabase.h"
#include "SqlRecord.h"
#include "SqlTable.h"
#include "Sqlite.h"
#include "Twin.h"

#include <optional>
#include <string>
#include <vector>

namespace {

using fuzz::expectEqual;
using fuzz::Input;
using sql::integer;
using sql::Record;
using test::result;

const int level = 8; // statements too

const char* const names[] = {"first", "second"};

struct Library {
    Library()
    {
        expectEqual("whether a database can be opened in memory",
                    database.open(":memory:", sql::Database::access_create, false, 0), true);
        for (sql::Table& table : tables)
            table.initTable(database.getHandle(), test::all_type_columns);
    }

    bool transact(const std::string& word)
    {
        if (word == "BEGIN")
            return database.transactionBegin();
        return word == "COMMIT" ? database.transactionCommit() : database.transactionRollback();
    }

    int getUserVersion()
    {
        return database.getUserVersion();
    }

    bool setUserVersion(unsigned version)
    {
        return database.setUserVersion(version);
    }

    sql::Database database;
    sql::Table tables[2] = {sql::Table(names[0]), sql::Table(names[1])};
};

struct Plain : test::Twin {
    Plain()
    {
        use(db);
    }

    test::Connection db;
    test::TwinTable tables[2] = {{*this, names[0], test::all_type_columns},
                                 {*this, names[1], test::all_type_columns}};
};

bool found(const Record* record)
{
    return record != nullptr;
}

bool found(const std::optional<std::string>& record)
{
    return record.has_value();
}

class Run {
public:
    explicit Run(Input& input) : _input(input)
    {
        _diagnostics.setLevel(level);
        for (_chosen = 0; _chosen < 2; ++_chosen)
            create();
    }

    // One operation on one of the tables.
    void step()
    {
        typedef void (Run::*Operation)();
        static const Operation operations[] = {
            &Run::add,      &Run::update,  &Run::addOrUpdate, &Run::deleteOne, &Run::getByKey,
            &Run::hasKey,   &Run::open,    &Run::deleteSome,  &Run::truncate,  &Run::remove,
            &Run::create,   &Run::backup,  &Run::copy,        &Run::begin,     &Run::commit,
            &Run::rollback, &Run::version, &Run::add,         &Run::add,       &Run::open,
        };
        _chosen = _input.below(2);
        const int count = sizeof operations / sizeof operations[0];
        (this->*operations[_input.below(count)])();
        checkAll();
    }

private:
    // Does it on both sides: the same results, reports and rows held.
    template <typename Generic> void expectSame(const char* what, Generic operation)
    {
        _diagnostics.clear();
        _plain.clear();
        const std::string given = operation(_library);
        const std::string expected = operation(_plain);
        expectEqual(what, given, expected);
        expectEqual(what, _diagnostics.events(), test::visibleAt(level, _plain.events()));
        for (int i = 0; i < 2; ++i) {
            sql::Table& table = _library.tables[i];
            expectEqual("what is held", test::rowsOf(table), _plain.tables[i].rows());
            expectEqual("the record after the last", table.getRecord(table.recordCount()),
                        static_cast<Record*>(nullptr));
        }
    }

    template <typename Generic> void expectSameOfTable(const char* what, Generic operation)
    {
        expectSame(what, [&](auto& side) { return result(operation(side.tables[_chosen])); });
    }

    // Few keys, so that operations meet; and any.
    integer chosenKey()
    {
        return _input.below(4) == 0 ? _input.integer() : _input.below(8);
    }

    Record chosenRecord()
    {
        Record record(*_library.tables[0].fields());
        if (_input.below(8) != 0)
            record.setInteger("id", chosenKey());
        const int present = _input.byte();
        if ((present & 1) != 0)
            record.setString("name", _input.word());
        if ((present & 2) != 0)
            record.setDouble("price", static_cast<std::int16_t>(_input.bits(2)) / 8.0);
        if ((present & 4) != 0)
            record.setBool("sold", _input.flip());
        if ((present & 8) != 0)
            record.setTime("at", sql::Time(_input.integer()));
        return record;
    }

    // A key without a value behind the last one is chosen at random.
    bool isChosenAtRandom(const Record& record)
    {
        const std::string name = names[_chosen];
        return record.getKeyIdValue()->isNull()
               && _plain.db.rows("select count(*) from sqlite_master where name = '" + name + "'")
                      != "0"
               && _plain.db.rows("select count(*) from " + name + " where id = 9223372036854775807")
                      != "0";
    }

    void add()
    {
        const Record record = chosenRecord();
        if (!isChosenAtRandom(record))
            expectSameOfTable("addRecord", [&](auto& table) { return table.addRecord(record); });
    }

    void update()
    {
        const Record record = chosenRecord();
        expectSameOfTable("updateRecord", [&](auto& table) { return table.updateRecord(record); });
    }

    // The key only chooses what is done with the record's own.
    void addOrUpdate()
    {
        const integer key = chosenKey();
        const Record record = chosenRecord();
        if (isChosenAtRandom(record))
            return;
        const bool byNumber = _input.flip();
        expectSameOfTable("addOrUpdateRecord", [&](auto& table) {
            return byNumber ? table.addOrUpdateRecord(key, record)
                            : table.addOrUpdateRecord(std::to_string(key), record);
        });
    }

    // A number, or a text. The name of a column is taken for that column, so that all rows have it.
    template <typename Generic> void withKey(const char* what, Generic operation)
    {
        const integer key = chosenKey();
        const int form = _input.below(8);
        if (form < 4)
            return expectSameOfTable(what, [&](auto& table) { return operation(table, key); });
        const std::string text = form == 4 ? "id" : (form == 5 ? "x" : "") + std::to_string(key);
        expectSameOfTable(what, [&](auto& table) { return operation(table, text); });
    }

    void deleteOne()
    {
        withKey("deleteRecord", [](auto& table, auto key) { return table.deleteRecord(key); });
    }

    void getByKey()
    {
        withKey("getRecordByKeyId",
                [](auto& table, auto key) { return found(table.getRecordByKeyId(key)); });
    }

    void hasKey()
    {
        withKey("hasRecordWithKeyId",
                [](auto& table, auto key) { return table.hasRecordWithKeyId(key); });
    }

    std::string chosenCondition()
    {
        const int kind = _input.below(4);
        const integer limit = chosenKey();
        const std::string name = kind == 1 ? _input.word() : std::string();
        const std::string conditions[] = {"id > " + std::to_string(limit),
                                          "name = '" + sql::quoteStr(name) + "'", "sold = 1", ""};
        return conditions[kind];
    }

    void open()
    {
        const std::string condition = chosenCondition();
        const std::string order = _input.flip() ? "id desc" : "id";
        expectSameOfTable("open", [&](auto& table) { return table.open(condition, order); });
    }

    void deleteSome()
    {
        const std::string condition = chosenCondition();
        expectSameOfTable("deleteRecords",
                          [&](auto& table) { return table.deleteRecords(condition); });
    }

    void truncate()
    {
        expectSameOfTable("truncate", [](auto& table) { return table.truncate(); });
    }

    void remove()
    {
        expectSameOfTable("remove", [](auto& table) { return table.remove(); });
    }

    void create()
    {
        expectSameOfTable("create", [](auto& table) { return table.create(); });
    }

    void copy()
    {
        const int from = _input.below(2);
        expectSame("copyRecords", [&](auto& side) {
            return result(side.tables[_chosen].copyRecords(side.tables[from]));
        });
    }

    // Onto itself as well: the rows are then gone before they are read.
    void backup()
    {
        const int from = _input.below(2);
        expectSame("backup", [&](auto& side) {
            return result(side.tables[_chosen].backup(side.tables[from]));
        });
    }

    void begin()
    {
        transact("BEGIN");
    }

    void commit()
    {
        transact("COMMIT");
    }

    void rollback()
    {
        transact("ROLLBACK");
    }

    void transact(const char* word)
    {
        expectSame(word, [&](auto& side) { return result(side.transact(word)); });
    }

    void version()
    {
        const std::uint32_t limit = 2147483647;
        const std::uint32_t version = _input.flip()
                                          ? limit - 1 + static_cast<unsigned>(_input.below(4))
                                          : static_cast<std::uint32_t>(_input.number());
        if (version <= limit)
            return expectSame("setUserVersion",
                              [&](auto& side) { return result(side.setUserVersion(version)); });
        _diagnostics.clear();
        expectEqual("setUserVersion", _library.setUserVersion(version), false);
        expectEqual("the lines", _diagnostics.events().size(), 1U);
        const std::string start = "User version of a ";
        expectEqual("the start of a report", _diagnostics.errors().at(0).substr(0, start.size()),
                    start);
    }

    void checkAll()
    {
        expectSame("getUserVersion", [](auto& side) { return result(side.getUserVersion()); });
        for (_chosen = 0; _chosen < 2; ++_chosen) {
            expectSameOfTable("exists", [](auto& table) { return table.exists(); });
            expectSameOfTable("totalRecordCount",
                              [](auto& table) { return table.totalRecordCount(); });
        }
    }

    Input& _input;
    test::Diagnostics _diagnostics;
    Library _library;
    Plain _plain;
    int _chosen = 0;
};

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    Input input(data, size);
    Run run(input);
    for (int steps = 0; steps < 100 && !input.isUsedUp(); ++steps)
        run.step();
    return 0;
}
