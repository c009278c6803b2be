// Any series of operations: a PreparedTable, plain SQL with bound values, and a Table where it does the
// same, end with the same rows, and each operation with the same result.

#include "SqlDatabase.h"
#include "SqlPreparedTable.h"
#include "SqlTable.h"

#include "Cases.h"
#include "Environment.h"
#include "HostileTexts.h"
#include "PlainNumbers.h"
#include "PlainTable.h"
#include "ReportTest.h"
#include "Reports.h"
#include "Sqlite.h"

#include <gmock/gmock.h>

#include <algorithm>
#include <cmath>
#include <functional>
#include <limits>
#include <memory>
#include <optional>
#include <random>
#include <string>
#include <variant>
#include <vector>

namespace {

namespace report = test::report;

using sql::Field;
using sql::field_type;
using sql::flag_none;
using sql::flag_not_null;
using sql::flag_primary_key;
using sql::flag_unique;
using sql::integer;
using sql::Record;
using sql::type_bool;
using sql::type_float;
using sql::type_int;
using sql::type_text;
using sql::type_time;
using test::Block;
using test::Cell;
using test::Cells;
using test::isCanonical;
using test::isNumber;
using test::joinedBy;
using test::mismatch;
using test::numberIn;
using test::Outcome;
using test::PlainTable;
using test::quotedName;
using test::Stored;

// The same numbers on every target.
class Random {
public:
    explicit Random(unsigned seed = 0) : _engine(seed)
    {
    }
    unsigned operator()()
    {
        return static_cast<unsigned>(_engine());
    }

private:
    std::mt19937 _engine;
};

const field_type type_any = static_cast<field_type>(77);

// --- Shapes of tables

struct Shape : test::Case {
    std::vector<Field> fields;
    std::string definition; // of the file's columns; empty if they are as declared
    bool hostile = false;   // the names are others with every series
};

const Field id_key("id", type_int, flag_primary_key);
const Field code_key("code", type_text, flag_primary_key);
const Field a_name("name", type_text, flag_none);
const Field a_price("price", type_float, flag_none);
const Field a_truth("sold", type_bool, flag_none);
const Field a_time("at", type_time, flag_none);
const Field any_type("any", type_any, flag_none);

const Shape shapes[] = {
    {"EveryType", {id_key, a_name, a_price, a_truth, a_time}, "", false},
    {"KeyInTheMiddle", {a_name, id_key, a_price}, "", false},
    {"KeyInTheLastColumn", {a_name, a_time, id_key}, "", false},
    {"KeyAlone", {id_key}, "", false},
    {"TextKey", {code_key, a_name, a_price}, "", false},
    {"TextKeyInTheLastColumn", {a_price, a_name, code_key}, "", false},
    {"TextKeyAlone", {code_key}, "", false},
    {"TruthKey", {Field("id", type_bool, flag_primary_key), a_name}, "", false},
    {"TimeKey", {a_name, Field("id", type_time, flag_primary_key)}, "", false},
    {"RealKey", {Field("id", type_float, flag_primary_key), a_name}, "", false},
    {"NoKey", {a_name, a_price, a_time}, "", false},
    {"Constraints",
     {id_key, Field("name", type_text, flag_not_null | flag_unique),
      Field("price", type_float, flag_not_null), a_truth},
     "",
     false},
    {"TwoKeys",
     {Field("row", type_int, flag_primary_key), a_name,
      Field("place", type_text, flag_primary_key)},
     "(`row` integer, name text, place text, primary key (`row`, place))",
     false},
    {"NoAffinity",
     {id_key, a_name, a_price, a_truth, a_time, any_type},
     "(id integer primary key, name, price, sold, at, any)",
     false},
    {"OtherAffinities",
     {id_key, a_name, a_price, a_truth, any_type},
     "(id integer primary key, name integer, price text, sold text, any real)",
     false},
    {"OtherOrderAndMoreColumns",
     {id_key, a_name, a_price},
     "(more text default 'x', price real, id integer primary key, name text, extra default 7)",
     false},
    {"WithoutRowid",
     {code_key, a_name, a_price},
     "(code text primary key, name text, price real) without rowid",
     false},
    {"RepeatedNames",
     {id_key, a_name, a_price, a_name},
     "(id integer primary key, name text, price real)",
     false},
    {"HostileNames", {id_key, a_name, a_price, a_time}, "", true},
    {"HostileNamesAndTextKey", {a_price, code_key, a_name}, "", true},
};

// --- What an application might do

template <typename T> const T& one(Random& random, const std::vector<T>& all)
{
    return all[random() % all.size()];
}

std::string hostileText(Random& random)
{
    for (;;) {
        const std::string& text = one(random, test::hostileTexts());
        if (text.size() < 3000)
            return text;
    }
}

// No number near the highest key, behind which SQLite chooses keys at random.
std::string hostileKey(Random& random)
{
    for (;;) {
        const std::string text = hostileText(random);
        const std::optional<Stored> number = numberIn(text, true);
        if (!number || std::fabs(std::get<double>(*number)) < 1e15)
            return text;
    }
}

double anyReal(Random& random)
{
    switch (random() % 6) {
    case 0:
        return one(random,
                   std::vector<double>{0.0, -0.0, 1e20, 5e-324, 1.7976931348623157e308, 1e15});
    case 1:
        return static_cast<double>(static_cast<int>(random()));
    case 2:
        return static_cast<double>(static_cast<int>(random())) / 100;
    case 3:
        return 0.1 * (random() % 100);
    default:
        const double real = std::ldexp(static_cast<double>(random()) + random() / 4294967296.0,
                                       static_cast<int>(random() % 400) - 200);
        return random() % 2 == 0 ? real : -real;
    }
}

std::string numberText(Random& random)
{
    static const std::vector<std::string> odd = {"+7",
                                                 "007",
                                                 "-0",
                                                 ".5",
                                                 "7.",
                                                 "1e3",
                                                 "1E2",
                                                 "7.0",
                                                 "0.5e1",
                                                 "-1e-3",
                                                 "+2.5",
                                                 "9223372036854775807",
                                                 "-9223372036854775808",
                                                 "9223372036854775808",
                                                 "0.1",
                                                 "0.30000000000000004"};
    switch (random() % 4) {
    case 0:
        return one(random, odd);
    case 1:
        return std::to_string(static_cast<int>(random() % 200) - 100) + ".25";
    default:
        return std::to_string(static_cast<int>(random() % 20) - 5);
    }
}

const std::vector<std::string> key_texts = {"1",
                                            "2",
                                            "3",
                                            "4",
                                            "5",
                                            "0",
                                            "-1",
                                            "tea",
                                            "a",
                                            "b",
                                            "",
                                            "7.0",
                                            " 7",
                                            "name",
                                            "07",
                                            "null",
                                            "it's \"quoted\"",
                                            std::string("a\0b", 3)};

Cell anyKeyCell(Random& random, const Field& field)
{
    const unsigned choice = random() % 20;
    if (choice == 0)
        return std::nullopt;
    if (choice == 1)
        return hostileKey(random);
    if (isNumber(field.getType()) && choice < 18)
        return std::to_string(random() % 7);
    return one(random, key_texts);
}

Cell anyCell(Random& random, const Field& field)
{
    if (field.isPrimaryKey())
        return anyKeyCell(random, field);
    const unsigned choice = random() % 20;
    if (choice == 0)
        return std::nullopt;
    if (choice == 1)
        return hostileText(random);
    if (isNumber(field.getType()))
        return numberText(random);
    return choice < 8 ? one(random, key_texts) : "text " + std::to_string(random() % 1000);
}

// As others may have written it.
Stored anyStored(Random& random, const Field& field)
{
    switch (random() % 8) {
    case 0:
        return nullptr;
    case 1:
        return Block{hostileText(random)};
    case 2:
        return field.isPrimaryKey() ? 2.0 : anyReal(random);
    case 3:
        return hostileKey(random);
    case 4:
        return std::string("1); drop table shelf; --");
    default:
        if (isNumber(field.getType()))
            return integer(random() % 10);
        return one(random, key_texts);
    }
}

Stored anyKey(Random& random)
{
    switch (random() % 10) {
    case 0:
        return one(random, std::vector<Stored>{nullptr, 7.0, 2.5, Block{"1"},
                                               std::numeric_limits<integer>::min(),
                                               std::numeric_limits<integer>::max()});
    case 1:
        return hostileText(random);
    case 2:
    case 3:
    case 4:
        return one(random, key_texts);
    default:
        return integer(random() % 7);
    }
}

class PreparedModelTest : public test::ReportTest, public testing::WithParamInterface<Shape> {
protected:
    // Works through a series that the seed determines.
    void work(unsigned seed);

private:
    void begin(unsigned seed);
    void end();
    void copyTo(sql::Database& database, const std::string& name);
    void step();
    void nameAnew();

    Cells anyCells()
    {
        Cells cells;
        for (const Field& field : _fields)
            cells.push_back(anyCell(_random, field));
        return cells;
    }

    Record record(const Cells& cells) const
    {
        return filled(Record(*_table->fields()), cells);
    }

    static Record filled(Record made, const Cells& cells)
    {
        for (std::size_t i = 0; i < cells.size(); ++i) {
            if (cells[i])
                made.setString(static_cast<int>(i), *cells[i]);
        }
        return made;
    }

    // Calls what takes a key with one of its type.
    template <typename Use> static auto withKey(const Stored& key, Use use)
    {
        return std::visit(
            [&](const auto& value) {
                if constexpr (std::is_same_v<std::decay_t<decltype(value)>, Block>)
                    return use(sql::Bytes{value.bytes.data(), value.bytes.size()});
                else
                    return use(value);
            },
            key);
    }

    void add();
    void update();
    void addOrUpdate();
    void remove();
    void has();
    void read();
    void addAll();
    void readAll();
    void rewrite();
    void writeByOthers();

    // The operation of the library's has come to the same.
    void expectSame(const char* operation, bool succeeded, Outcome plain)
    {
        EXPECT_EQ(succeeded, plain.why.empty()) << operation << ": " << plain.why;
        const sql::Error& error = _fast->error();
        const std::string why = error ? test::codeOf(error.extendedCode()) + ": " + error.text()
                                      : "";
        if (std::count(plain.whyElse.begin(), plain.whyElse.end(), why) > 0)
            plain.why = why;
        EXPECT_EQ(why, plain.why) << operation;
        EXPECT_EQ(_fast->changes(), plain.why.empty() ? plain.changes : 0) << operation;
        if (plain.why.empty())
            expectReport({});
        else
            expectReport(report::statementFailed(operation, error.statement(), plain.why));
    }

    void expectCells(const Record& record, const std::vector<Stored>& row);

    // A Table does the same, or plain SQL does it in its place.
    void alsoByTable(bool can, const std::function<bool(sql::Table&)>& byTable,
                     const std::function<Outcome(PlainTable&)>& plain, const Outcome& outcome)
    {
        if (!can || !_tableIsSound) {
            plain(*_third);
            return;
        }
        EXPECT_EQ(byTable(*_byTable), outcome.why.empty()) << outcome.why;
        _diagnostics.clear();
        ++_byTables;
    }

    bool hasKeyForATable() const;
    bool tableCanWrite(const Cells& cells, const Outcome& outcome) const;
    bool tableCanUpdate(const Cells& cells) const;
    bool tableCanFind(const Stored& key) const;

    Random _random;
    std::vector<Field> _fields;
    std::string _name;
    std::string _definition;
    sql::Database _database;
    std::unique_ptr<sql::Table> _table;
    std::unique_ptr<sql::FieldSet> _texts; // the columns, all of texts: as they are, times too
    std::unique_ptr<sql::PreparedTable> _fast;
    std::unique_ptr<PlainTable> _plain;
    std::unique_ptr<PlainTable> _third; // where a Table works
    std::unique_ptr<sql::Table> _byTable;

protected:
    bool _tableIsSound = false; // its names need no quotes, and the file is as it is declared
    int _byTables = 0;
};

// --- A series

bool isDistinct(const std::string& name, const std::vector<Field>& fields)
{
    return std::none_of(fields.begin(), fields.end(), [&](const Field& field) {
        return sqlite3_stricmp(field.getName().c_str(), name.c_str()) == 0;
    });
}

void PreparedModelTest::nameAnew()
{
    const auto isNone = [](const std::string& name) {
        return name.empty() || name.size() > 100 || name.find('\0') != std::string::npos
               || sqlite3_strnicmp(name.c_str(), "sqlite_", 7) == 0;
    };
    std::vector<Field> renamed;
    while (renamed.size() < _fields.size()) {
        const std::string text = hostileText(_random);
        const Field& field = _fields[renamed.size()];
        if (!isNone(text) && isDistinct(text, renamed))
            renamed.emplace_back(text, field.getType(),
                                 field.isPrimaryKey() ? flag_primary_key : flag_none);
    }
    _fields = renamed;
    do {
        _name = hostileText(_random);
    } while (isNone(_name));
}

// A Table has an integer or a text for it, or none.
bool PreparedModelTest::hasKeyForATable() const
{
    return std::none_of(_fields.begin(), _fields.end(), [](const Field& field) {
        return field.isPrimaryKey() && field.getType() != type_int && field.getType() != type_text;
    });
}

void PreparedModelTest::begin(unsigned seed)
{
    _random = Random(seed);
    _name = "shelf";
    _fields = GetParam().fields;
    if (GetParam().hostile)
        nameAnew();
    _plain = std::make_unique<PlainTable>(_name, _fields);
    _third = std::make_unique<PlainTable>(_name, _fields);
    _tableIsSound = !GetParam().hostile && GetParam().definition.empty() && hasKeyForATable();
    ASSERT_TRUE(_database.open(":memory:", sql::Database::access_create, false, 0));
    std::vector<Field> closed = _fields;
    closed.emplace_back();
    _byTable = std::make_unique<sql::Table>(_third->connection(), _name, closed.data());
    _diagnostics.clear(); // of columns that are none for a Table
    if (_tableIsSound)
        _table = std::make_unique<sql::Table>(nullptr, _name, *_byTable->fields());
    else
        _table = std::make_unique<sql::Table>(nullptr, _name, sql::FieldSet(_fields));
    std::vector<Field> texts;
    for (const Field& field : _fields)
        texts.emplace_back(field.getName(), type_text, flag_none);
    _texts = std::make_unique<sql::FieldSet>(texts);
    _fast = std::make_unique<sql::PreparedTable>(_database, *_table);
    std::vector<std::string> columns;
    for (const Field& field : GetParam().definition.empty() ? _fields : std::vector<Field>())
        columns.push_back(quotedName(field.getName()) + " " + field.getTypeStr()
                          + field.getFlags());
    _definition = columns.empty() ? GetParam().definition : "(" + joinedBy(", ", columns) + ")";
    for (sqlite3* const db : {_database.getHandle(), _plain->connection(), _third->connection()})
        test::run(db, "create table " + quotedName(_name) + " " + _definition);
}

// The rows are the same in another table that they are copied to, those of others included.
void PreparedModelTest::copyTo(sql::Database& database, const std::string& name)
{
    test::run(database.getHandle(), "create table " + quotedName(name) + " " + _definition);
    const sql::Table table(nullptr, name, *_table->fields());
    sql::PreparedTable copy(database, table);
    EXPECT_TRUE(copy.copyRecords(*_fast));
    EXPECT_EQ(test::typedRows(database.getHandle(), "select * from " + quotedName(name)),
              _plain->rows());
}

void PreparedModelTest::end()
{
    if (GetParam().definition.empty()) {
        const sql::Result<std::vector<sql::string>> found = _fast->checkDeclaration();
        EXPECT_THAT(found.valueOr({"failed"}), testing::IsEmpty());
    }
    sql::Database other;
    ASSERT_TRUE(other.open(":memory:", sql::Database::access_create, false, 0));
    copyTo(other, _name);
    copyTo(_database, _name + " copied");
    EXPECT_EQ(test::rows(_database.getHandle(),
                         "select count(*) from sqlite_master where type = 'table'"),
              "2");
    _fast->release();
    _database.close();
    expectReport({});
}

void PreparedModelTest::step()
{
    static constexpr void (PreparedModelTest::*all[])() = {
        &PreparedModelTest::add,          &PreparedModelTest::add,
        &PreparedModelTest::update,       &PreparedModelTest::update,
        &PreparedModelTest::addOrUpdate,  &PreparedModelTest::addOrUpdate,
        &PreparedModelTest::remove,       &PreparedModelTest::has,
        &PreparedModelTest::read,         &PreparedModelTest::addAll,
        &PreparedModelTest::readAll,      &PreparedModelTest::rewrite,
        &PreparedModelTest::writeByOthers};
    (this->*all[_random() % std::size(all)])();
    const std::string stored = _plain->rows();
    ASSERT_EQ(test::typedRows(_database.getHandle(), "select * from " + quotedName(_name)), stored);
    ASSERT_EQ(_third->rows(), stored) << "by Table";
}

void PreparedModelTest::work(unsigned seed)
{
    ASSERT_NO_FATAL_FAILURE(begin(seed));
    for (int i = 0; i < 60 && !HasFailure(); ++i) {
        SCOPED_TRACE("seed " + std::to_string(seed) + ", step " + std::to_string(i));
        step();
    }
    end();
}

// --- What a Table does as well

// SQLite reads no more digits of a literal for sure, and a Table no more than an integer of a time.
bool isPlainNumber(const std::string& text, field_type type)
{
    return isCanonical(text) || (text.size() <= 15 && type != type_time);
}

bool isPlain(const Cell& cell, field_type type)
{
    if (!cell)
        return true;
    return isNumber(type) ? isPlainNumber(*cell, type) : cell->find('\0') == std::string::npos;
}

bool PreparedModelTest::tableCanWrite(const Cells& cells, const Outcome& outcome) const
{
    if (outcome.why.find("SQLITE_MISMATCH") == 3 || outcome.why.find("SQLITE_MISUSE") == 3)
        return false;
    for (std::size_t i = 0; i < cells.size(); ++i) {
        if (!isPlain(cells[i], _fields[i].getType()))
            return false;
    }
    return true;
}

// An integer key, not in the last column and not alone.
bool PreparedModelTest::tableCanUpdate(const Cells& cells) const
{
    for (std::size_t i = 0; i + 1 < _fields.size(); ++i) {
        if (_fields[i].isPrimaryKey())
            return _fields[i].getType() == type_int && cells[i] && isCanonical(*cells[i]);
    }
    return false;
}

// In double quotes, SQL takes the name of a column for the column.
bool PreparedModelTest::tableCanFind(const Stored& key) const
{
    if (_plain->keys().size() != 1)
        return false;
    if (isNumber(_fields[_plain->keys()[0]].getType()))
        return std::holds_alternative<integer>(key);
    const std::string* const text = std::get_if<std::string>(&key);
    return text != nullptr && text->find_first_of(std::string("\"\0", 2)) == std::string::npos
           && isDistinct(*text, _fields) && *text != "rowid" && *text != "oid"
           && *text != "_rowid_";
}

// --- Operations

void PreparedModelTest::add()
{
    const Cells cells = anyCells();
    const Outcome plain = _plain->add(cells);
    const bool added = _fast->addRecord(record(cells));
    expectSame("addRecord", added, plain);
    if (added && GetParam().name != "WithoutRowid") {
        EXPECT_EQ(_fast->lastKey(), sqlite3_last_insert_rowid(_plain->connection()));
    }
    alsoByTable(
        tableCanWrite(cells, plain),
        [&](sql::Table& table) { return table.addRecord(record(cells)); },
        [&](PlainTable& third) { return third.add(cells); }, plain);
}

void PreparedModelTest::update()
{
    const Cells cells = anyCells();
    const Outcome plain = _plain->update(cells);
    expectSame("updateRecord", _fast->updateRecord(record(cells)), plain);
    alsoByTable(
        tableCanWrite(cells, plain) && tableCanUpdate(cells),
        [&](sql::Table& table) { return table.updateRecord(record(cells)); },
        [&](PlainTable& third) { return third.update(cells); }, plain);
}

void PreparedModelTest::addOrUpdate()
{
    const Cells cells = anyCells();
    const Outcome plain = _plain->addOrUpdate(cells);
    expectSame("addOrUpdateRecord", _fast->addOrUpdateRecord(record(cells)), plain);
    const auto key = std::find_if(_fields.begin(), _fields.end(),
                                  [](const Field& field) { return field.isPrimaryKey(); });
    alsoByTable(
        tableCanWrite(cells, plain) && tableCanUpdate(cells),
        [&](sql::Table& table) {
            const integer number = std::strtoll(cells[key - _fields.begin()]->c_str(), nullptr, 10);
            return table.addOrUpdateRecord(number, record(cells));
        },
        [&](PlainTable& third) { return third.addOrUpdate(cells); }, plain);
}

void PreparedModelTest::remove()
{
    const Stored key = anyKey(_random);
    const Outcome plain = _plain->remove(key);
    const bool removed = withKey(key,
                                 [this](const auto& value) { return _fast->deleteRecord(value); });
    expectSame("deleteRecord", removed, plain);
    alsoByTable(
        tableCanFind(key) && plain.why.empty(),
        [&](sql::Table& table) {
            const integer* const number = std::get_if<integer>(&key);
            return number != nullptr ? table.deleteRecord(*number)
                                     : table.deleteRecord(std::get<std::string>(key));
        },
        [&](PlainTable& third) { return third.remove(key); }, plain);
}

void PreparedModelTest::has()
{
    const Stored key = anyKey(_random);
    const Outcome plain = _plain->has(key);
    const sql::Presence found = withKey(
        key, [this](const auto& value) { return _fast->hasRecordWithKeyId(value); });
    expectSame("hasRecordWithKeyId", found != sql::Presence::unknown, plain);
    EXPECT_EQ(found == sql::Presence::present, !plain.rows.empty());
    if (plain.why.empty() && tableCanFind(key) && _tableIsSound) {
        const integer* const number = std::get_if<integer>(&key);
        EXPECT_EQ(number != nullptr ? _byTable->hasRecordWithKeyId(*number)
                                    : _byTable->hasRecordWithKeyId(std::get<std::string>(key)),
                  !plain.rows.empty());
    }
}

// A real as Table holds it is its text where that is all of it, and has no exponent.
bool isHeldWhole(double real)
{
    const double size = std::fabs(real);
    char* const text = sqlite3_mprintf("%!.15g", real);
    const bool whole = test::readDouble(text) == real;
    sqlite3_free(text);
    return whole && (size == 0 ? !std::signbit(real) : size >= 1e-4 && size < 1e15);
}

void PreparedModelTest::expectCells(const Record& record, const std::vector<Stored>& row)
{
    ASSERT_EQ(record.columnCount(), static_cast<int>(row.size()));
    for (int i = 0; i < record.columnCount(); ++i) {
        const sql::Value* const cell = record.getValue(i);
        ASSERT_EQ(cell->isNull(), std::holds_alternative<std::nullptr_t>(row[i]));
        const std::string text = cell->asString();
        if (const std::string* const stored = std::get_if<std::string>(&row[i])) {
            EXPECT_EQ(text, *stored);
        } else if (const integer* const number = std::get_if<integer>(&row[i])) {
            EXPECT_EQ(text, std::to_string(*number));
        } else if (const double* const real = std::get_if<double>(&row[i])) {
            EXPECT_EQ(test::readDouble(text), *real) << text;
            EXPECT_EQ(std::signbit(test::readDouble(text)), std::signbit(*real)) << text;
            EXPECT_NE(text.find_first_of(".eI"), std::string::npos) << text;
            char* const held = sqlite3_mprintf("%!.15g", *real);
            if (isHeldWhole(*real)) {
                EXPECT_EQ(text, held);
            }
            sqlite3_free(held);
        }
    }
}

void PreparedModelTest::read()
{
    const Stored key = anyKey(_random);
    Outcome plain = _plain->find(key);
    const bool found = plain.why.empty() && !plain.rows.empty();
    if (found)
        hasBlock(_fields, plain.rows[0], plain.why);
    const Record before = filled(Record(*_texts), anyCells());
    Record read = before;
    const sql::Result<bool> result = withKey(
        key, [&](const auto& value) { return _fast->readRecord(value, read); });
    expectSame("readRecord", !result.failed(), plain);
    EXPECT_EQ(static_cast<bool>(result), found && plain.why.empty());
    if (result)
        expectCells(read, plain.rows[0]);
    else
        EXPECT_EQ(read.toString(), before.toString());
}

void PreparedModelTest::addAll()
{
    std::vector<Cells> all;
    std::vector<Record> records;
    for (int i = static_cast<int>(_random() % 5); i > 0; --i) {
        all.push_back(anyCells());
        records.push_back(record(all.back()));
    }
    const Outcome plain = _plain->addAll(all);
    expectSame("addRecords", _fast->addRecords(records.begin(), records.end()), plain);
    _third->addAll(all);
}

void PreparedModelTest::readAll()
{
    const Outcome plain = _plain->all();
    sql::RecordCursor rows = _fast->select();
    Record record(*_texts);
    std::string why;
    for (const std::vector<Stored>& row : plain.rows) {
        if (hasBlock(_fields, row, why))
            break;
        ASSERT_TRUE(rows.next(record));
        expectCells(record, row);
    }
    EXPECT_FALSE(rows.next(record));
    EXPECT_EQ(rows.finished(), why.empty());
    if (why.empty())
        expectReport({});
    else
        expectReport(report::statementFailed("next", rows.error().statement(), why));
}

// What was read is written back the same, unless others have stored it as what its column does not hold.
void PreparedModelTest::rewrite()
{
    const Stored key = anyKey(_random);
    Record record(*_texts);
    const sql::Result<bool> read = withKey(
        key, [&](const auto& value) { return _fast->readRecord(value, record); });
    _diagnostics.clear();
    if (!read)
        return;
    const std::vector<Stored> row = _plain->find(key).rows[0];
    Cells cells(_fields.size());
    for (std::size_t i = 0; i < row.size(); ++i) {
        const bool isText = std::holds_alternative<std::string>(row[i]);
        const bool fits = isText != isNumber(_fields[i].getType());
        if (!fits)
            record.setNull(static_cast<int>(i));
        else if (!record.getValue(static_cast<int>(i))->isNull())
            cells[i] = record.getValue(static_cast<int>(i))->asString();
    }
    const Outcome plain = _plain->addOrUpdate(cells);
    expectSame("addOrUpdateRecord", _fast->addOrUpdateRecord(record), plain);
    _third->addOrUpdate(cells);
}

void PreparedModelTest::writeByOthers()
{
    std::vector<Stored> values;
    for (const Field& field : _fields)
        values.push_back(anyStored(_random, field));
    for (sqlite3* const db : {_database.getHandle(), _plain->connection(), _third->connection()})
        _plain->insertStored(db, values);
}

TEST_P(PreparedModelTest, SeriesEndWithTheSameRows)
{
    const int step = test::stride(25);
    for (unsigned seed = 1; seed <= 250 && !HasFailure(); seed += step)
        work(seed);
    EXPECT_EQ(_byTables > 0, _tableIsSound);
}

INSTANTIATE_TEST_SUITE_P(Shapes, PreparedModelTest, testing::ValuesIn(shapes), test::NameOfCase());

} // namespace
