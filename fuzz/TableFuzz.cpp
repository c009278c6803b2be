// Two tables of a database in memory, beside a model of their rows: any sequence of operations.

#include "Cell.h"
#include "Fuzz.h"

#include "Columns.h"
#include "SqlDatabase.h"
#include "SqlRecord.h"
#include "SqlTable.h"

#include <algorithm>
#include <array>
#include <limits>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace {

using fuzz::Events;
using fuzz::expectEqual;
using fuzz::Input;
using fuzz::Reports;
using sql::integer;
using sql::Record;

struct Row {
    std::optional<std::string> name;
    std::optional<double> price;
    std::optional<bool> sold;
    std::optional<integer> at;
};

typedef std::map<integer, Row> Rows;
typedef std::vector<std::pair<integer, Row>> RowList;

// What a database holds, and gets back when a transaction is rolled back.
struct Contents {
    std::array<std::optional<Rows>, 2> tables;
    int userVersion = 0;
};

// A table object, and what it has to hold.
struct Handle {
    Handle(sqlite3* db, const std::string& name) : table(db, name, test::all_type_columns)
    {
    }

    sql::Table table;
    RowList held;
};

const char* const names[] = {"first", "second"};

void checkRow(const Record& record, integer key, const Row& row)
{
    expectEqual("a row's key", record.getValue("id")->asInteger(), key);
    const sql::Value& name = *record.getValue("name");
    const sql::Value& price = *record.getValue("price");
    const sql::Value& sold = *record.getValue("sold");
    const sql::Value& at = *record.getValue("at");
    expectEqual("whether the name is null", name.isNull(), !row.name.has_value());
    expectEqual("a row's name", name.asString(), row.name.value_or(""));
    expectEqual("whether the price is null", price.isNull(), !row.price.has_value());
    expectEqual("a row's price", price.asDouble(), row.price.value_or(0));
    expectEqual("whether sold is null", sold.isNull(), !row.sold.has_value());
    expectEqual("a row's sold", sold.asBool(), row.sold.value_or(false));
    expectEqual("whether the time is null", at.isNull(), !row.at.has_value());
    expectEqual("a row's time", at.asInteger(), row.at.value_or(0));
}

RowList listed(const Rows& rows)
{
    return RowList(rows.begin(), rows.end());
}

class Run {
public:
    explicit Run(Input& input) : _input(input), _reports(3)
    {
        expectEqual("whether a database can be opened in memory",
                    _database.open(":memory:", sql::Database::access_create, false, 0), true);
        for (int i = 0; i < 2; ++i)
            _handles[i] = std::make_unique<Handle>(_database.getHandle(), names[i]);
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
    sql::Table& table()
    {
        return _handles[_chosen]->table;
    }

    RowList& held()
    {
        return _handles[_chosen]->held;
    }

    std::optional<Rows>& rows()
    {
        return _contents.tables[_chosen];
    }

    std::string name() const
    {
        return names[_chosen];
    }

    // Few keys, so that operations meet; and any.
    integer chosenKey()
    {
        return _input.below(4) == 0 ? _input.integer() : _input.below(8);
    }

    Record chosenRecord(std::optional<integer>& key, Row& row)
    {
        Record record(*table().fields());
        key.reset();
        if (_input.below(8) != 0)
            record.setInteger("id", *(key = chosenKey()));
        const int present = _input.byte();
        if ((present & 1) != 0)
            record.setString("name", *(row.name = _input.word()));
        if ((present & 2) != 0) {
            const int eighths = static_cast<std::int16_t>(_input.bits(2));
            record.setDouble("price", *(row.price = eighths / 8.0));
        }
        if ((present & 4) != 0)
            record.setBool("sold", *(row.sold = _input.flip()));
        if ((present & 8) != 0) {
            const sql::Time time(_input.integer());
            record.setTime("at", time);
            row.at = time.asInteger();
        }
        return record;
    }

    // The end of an operation that runs one statement: done, or refused by SQLite with its reason.
    void expectRun(bool done, bool expected, const char* code)
    {
        expectEqual("whether SQLite takes the statement", done, expected);
        expectLines(expected ? Events() : Events{"Failed to run the SQL stmt '", code});
    }

    // The lines' beginnings.
    void expectLines(const Events& starts)
    {
        const Events lines = _reports.take();
        if (lines.size() != starts.size())
            expectEqual("what is reported", lines, starts);
        for (std::size_t i = 0; i < lines.size(); ++i) {
            const std::string start = "[ERROR] " + starts[i];
            expectEqual("the start of a report", lines[i].substr(0, start.size()), start);
        }
    }

    void expectCount(bool counted)
    {
        expectLines(counted ? Events() : Events{"Failed to prepare the SQL query '", missing});
    }

    // Whether the model takes the row, as an INSERT statement would have it.
    bool takes(std::optional<integer> key, const Row& row)
    {
        if (!rows() || (key && rows()->count(*key) != 0))
            return false;
        if (!key)
            key = rows()->empty() ? 1 : rows()->rbegin()->first + 1;
        (*rows())[*key] = row;
        return true;
    }

    // SQLite chooses at random then.
    bool isAtTheLastKey() const
    {
        const std::optional<Rows>& rows = _contents.tables[_chosen];
        return rows && !rows->empty()
               && rows->rbegin()->first == std::numeric_limits<integer>::max();
    }

    void add()
    {
        std::optional<integer> key;
        Row row;
        const Record record = chosenRecord(key, row);
        if (!key && isAtTheLastKey())
            return;
        const char* const code = rows() ? constraint : missing;
        const bool expected = takes(key, row);
        expectRun(table().addRecord(record), expected, code);
    }

    void change(std::optional<integer> key, const Row& row)
    {
        if (rows() && key && rows()->count(*key) != 0)
            (*rows())[*key] = row;
    }

    void update()
    {
        std::optional<integer> key;
        Row row;
        const Record record = chosenRecord(key, row);
        change(key, row);
        expectRun(table().updateRecord(record), rows().has_value(), missing);
    }

    // The key only chooses what is done with the record's own.
    void addOrUpdate()
    {
        const integer asked = chosenKey();
        std::optional<integer> key;
        Row row;
        const Record record = chosenRecord(key, row);
        if (!key && isAtTheLastKey())
            return;
        bool expected = false;
        const char* code = constraint;
        if (rows() && rows()->count(asked) != 0) {
            change(key, row);
            expected = true;
        } else {
            expected = takes(key, row);
        }
        const bool done = _input.flip() ? table().addOrUpdateRecord(asked, record)
                                        : table().addOrUpdateRecord(std::to_string(asked), record);
        if (rows())
            return expectRun(done, expected, code);
        expectEqual("addOrUpdateRecord without a table", done, false);
        expectLines({"Failed to prepare the SQL query '", missing, "Failed to run the SQL stmt '",
                     missing});
    }

    // The rows that a key finds, and the key as a text; not set for a key given as a number. The
    // name of a column is taken for that column, so that all rows have it.
    RowList found(integer key, std::optional<std::string>& text)
    {
        const int form = _input.below(8);
        if (form >= 4)
            text = form == 4 ? "id" : form == 5 ? "x" + std::to_string(key) : std::to_string(key);
        if (!rows() || form == 5)
            return RowList();
        if (form == 4)
            return listed(*rows());
        const Rows::const_iterator row = rows()->find(key);
        return row == rows()->end() ? RowList() : RowList{*row};
    }

    void deleteOne()
    {
        const integer key = chosenKey();
        std::optional<std::string> text;
        for (const auto& row : found(key, text))
            rows()->erase(row.first);
        expectRun(text ? table().deleteRecord(*text) : table().deleteRecord(key),
                  rows().has_value(), missing);
    }

    void getByKey()
    {
        const integer key = chosenKey();
        std::optional<std::string> text;
        held() = found(key, text);
        const Record* const record = text ? table().getRecordByKeyId(*text)
                                          : table().getRecordByKeyId(key);
        expectEqual("the record of the key", record, table().getTopRecord());
        expectRun(rows().has_value(), rows().has_value(), missing);
    }

    void hasKey()
    {
        const integer key = chosenKey();
        std::optional<std::string> text;
        const bool expected = !found(key, text).empty();
        expectEqual("hasRecordWithKeyId",
                    text ? table().hasRecordWithKeyId(*text) : table().hasRecordWithKeyId(key),
                    expected);
        expectCount(rows().has_value());
    }

    // A condition and the rows that fulfil it.
    std::string chosenCondition(RowList& fulfilling)
    {
        const int kind = _input.below(4);
        const integer limit = chosenKey();
        const std::string name = kind == 1 ? _input.word() : std::string();
        const auto fulfils = [&](const std::pair<integer, Row>& row) {
            switch (kind) {
            case 0:
                return row.first > limit;
            case 1:
                return row.second.name == name;
            case 2:
                return row.second.sold == true;
            default:
                return true;
            }
        };
        fulfilling.clear();
        const RowList all = rows() ? listed(*rows()) : RowList();
        std::copy_if(all.begin(), all.end(), std::back_inserter(fulfilling), fulfils);
        const std::string conditions[] = {"id > " + std::to_string(limit),
                                          "name = '" + sql::quoteStr(name) + "'", "sold = 1", ""};
        return conditions[kind];
    }

    void open()
    {
        RowList fulfilling;
        const std::string condition = chosenCondition(fulfilling);
        const bool isBackwards = _input.flip();
        if (isBackwards)
            std::reverse(fulfilling.begin(), fulfilling.end());
        held() = fulfilling;
        expectRun(table().open(condition, isBackwards ? "id desc" : "id"), rows().has_value(),
                  missing);
    }

    void deleteSome()
    {
        RowList fulfilling;
        const std::string condition = chosenCondition(fulfilling);
        for (const auto& row : fulfilling)
            rows()->erase(row.first);
        expectRun(table().deleteRecords(condition), rows().has_value(), missing);
    }

    void truncate()
    {
        if (rows())
            rows()->clear();
        held().clear();
        expectRun(table().truncate(), rows().has_value(), missing);
    }

    void remove()
    {
        const bool expected = rows().has_value();
        rows().reset();
        held().clear();
        expectRun(table().remove(), expected, missing);
    }

    void create()
    {
        if (!rows()) {
            rows().emplace();
            held().clear();
        }
        expectRun(table().create(), true, "");
    }

    // Adds the rows that the source holds; whether none was refused.
    bool takesAll(const RowList& source)
    {
        return std::all_of(source.begin(), source.end(),
                           [this](const auto& row) { return takes(row.first, row.second); });
    }

    void copy()
    {
        Handle& source = *_handles[_input.below(2)];
        const char* const code = rows() ? constraint : missing;
        const bool expected = takesAll(source.held);
        expectRun(table().copyRecords(source.table), expected, code);
    }

    // Onto itself as well: the rows are then gone before they are read.
    void backup()
    {
        const int from = _input.below(2);
        Handle& source = *_handles[from];
        rows().emplace();
        held().clear();
        const std::optional<Rows>& all = _contents.tables[from];
        source.held = all ? listed(*all) : RowList();
        const bool expected = all.has_value() && takesAll(source.held);
        expectRun(table().backup(source.table), expected, missing);
    }

    void begin()
    {
        const bool expected = !_before.has_value();
        if (expected)
            _before = _contents;
        expectRun(_database.transactionBegin(), expected, "  rc=1=SQLITE_ERROR: ");
    }

    void commit()
    {
        const bool expected = _before.has_value();
        _before.reset();
        expectRun(_database.transactionCommit(), expected, "  rc=1=SQLITE_ERROR: ");
    }

    void rollback()
    {
        const bool expected = _before.has_value();
        if (expected)
            _contents = *_before;
        _before.reset();
        expectRun(_database.transactionRollback(), expected, "  rc=1=SQLITE_ERROR: ");
    }

    void version()
    {
        const std::uint32_t limit = 2147483647;
        const std::uint32_t version = _input.flip()
                                          ? limit - 1 + static_cast<unsigned>(_input.below(4))
                                          : static_cast<std::uint32_t>(_input.number());
        const bool expected = version <= limit;
        if (expected)
            _contents.userVersion = static_cast<int>(version);
        expectEqual("setUserVersion", _database.setUserVersion(version), expected);
        expectLines(expected ? Events() : Events{"User version of a "});
    }

    void checkAll()
    {
        expectEqual("getUserVersion", _database.getUserVersion(), _contents.userVersion);
        for (_chosen = 0; _chosen < 2; ++_chosen) {
            expectEqual("exists", table().exists(), rows().has_value());
            expectLines({});
            const int count = rows() ? static_cast<int>(rows()->size()) : -1;
            expectEqual("totalRecordCount", table().totalRecordCount(), count);
            expectCount(rows().has_value());
            checkHeld();
        }
    }

    void checkHeld()
    {
        const int count = static_cast<int>(held().size());
        expectEqual("recordCount", table().recordCount(), count);
        for (int i = 0; i < count; ++i) {
            const auto& [key, row] = held()[static_cast<std::size_t>(i)];
            checkRow(*table().getRecord(i), key, row);
        }
        expectEqual("the record after the last", table().getRecord(count) == nullptr, true);
        expectLines({});
    }

    static constexpr const char* missing = "  rc=1=SQLITE_ERROR: no such table: ";
    static constexpr const char* constraint =
        "  rc=19=SQLITE_CONSTRAINT: UNIQUE constraint failed: ";

    Input& _input;
    Reports _reports;
    sql::Database _database;
    std::unique_ptr<Handle> _handles[2];
    Contents _contents;
    std::optional<Contents> _before;
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
