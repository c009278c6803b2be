// Two tables of a database in memory, beside what plain SQLite makes of the same statements: any
// sequence of operations.

#include "Sides.h"

#include <string>

namespace {

using fuzz::expectEqual;
using fuzz::Input;
using sql::integer;
using sql::Record;

class Run {
public:
    explicit Run(Input& input) : _input(input)
    {
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
    template <typename Generic> void expectSameOfTable(const char* what, Generic operation)
    {
        _sides.expectSame(what, [&](auto& side) { return operation(side.tables[_chosen]); });
    }

    // Few keys, so that operations meet; and any.
    integer chosenKey()
    {
        return _input.below(4) == 0 ? _input.integer() : _input.below(8);
    }

    Record chosenRecord()
    {
        Record record(*_sides.library.tables[0].fields());
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
        const std::string name = _sides.library.tables[_chosen].name();
        return record.getKeyIdValue()->isNull()
               && _sides.plain.db.rows("select count(*) from sqlite_master where name = '" + name
                                       + "'")
                      != "0"
               && _sides.plain.db.rows("select count(*) from " + name
                                       + " where id = 9223372036854775807")
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
                [](auto& table, auto key) { return fuzz::found(table.getRecordByKeyId(key)); });
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
        _sides.expectSame("copyRecords", [&](auto& side) {
            return side.tables[_chosen].copyRecords(side.tables[from]);
        });
    }

    // Onto itself as well: the rows are then gone before they are read.
    void backup()
    {
        const int from = _input.below(2);
        _sides.expectSame(
            "backup", [&](auto& side) { return side.tables[_chosen].backup(side.tables[from]); });
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
        _sides.expectSame(word, [&](auto& side) { return side.transact(word); });
    }

    void version()
    {
        const std::uint32_t limit = 2147483647;
        const std::uint32_t version = _input.flip()
                                          ? limit - 1 + static_cast<unsigned>(_input.below(4))
                                          : static_cast<std::uint32_t>(_input.number());
        if (version <= limit)
            return _sides.expectSame("setUserVersion",
                                     [&](auto& side) { return side.setUserVersion(version); });
        _sides.diagnostics.clear();
        expectEqual("setUserVersion", _sides.library.setUserVersion(version), false);
        expectEqual("the lines", _sides.diagnostics.events().size(), 1U);
        const std::string start = "User version of a ";
        expectEqual("the start of a report",
                    _sides.diagnostics.errors().at(0).substr(0, start.size()), start);
    }

    void checkAll()
    {
        _sides.expectSame("getUserVersion", [](auto& side) { return side.getUserVersion(); });
        for (_chosen = 0; _chosen < 2; ++_chosen) {
            expectSameOfTable("exists", [](auto& table) { return table.exists(); });
            expectSameOfTable("totalRecordCount",
                              [](auto& table) { return table.totalRecordCount(); });
        }
    }

    Input& _input;
    fuzz::Sides _sides{"first", "second"};
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
