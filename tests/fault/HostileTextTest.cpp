#include "Columns.h"
#include "Diagnostics.h"
#include "Environment.h"
#include "HostileTexts.h"
#include "PlainNumbers.h"
#include "Reports.h"
#include "Rows.h"
#include "Shop.h"
#include "Sqlite.h"
#include "Twin.h"

#include "SqlDatabase.h"
#include "SqlRecord.h"
#include "SqlTable.h"
#include "SqlValue.h"

#include <gmock/gmock.h>

#include <algorithm>
#include <cctype>
#include <cmath>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <limits>
#include <set>
#include <string>
#include <vector>

namespace {

namespace report = test::report;
using sql::Database;
using sql::Field;
using sql::FieldSet;
using sql::Record;
using sql::Table;
using sql::Value;
using test::held;
using test::hostileTexts;
using test::quoted;
using test::result;
using test::shown;
using test::Texts;
using testing::ElementsAre;
using testing::IsEmpty;

bool hasZeroByte(const std::string& text)
{
    return text.find('\0') != std::string::npos;
}

// Compares texts of which a person only wants to see the start.
testing::AssertionResult same(const std::string& given, const std::string& expected)
{
    if (given == expected)
        return testing::AssertionSuccess();
    return testing::AssertionFailure()
           << test::printable(given) << " instead of " << test::printable(expected);
}

testing::AssertionResult same(const Texts& given, const Texts& expected)
{
    for (std::size_t i = 0; i < std::min(given.size(), expected.size()); ++i) {
        if (given[i] != expected[i])
            return same(given[i], expected[i]) << ", number " << i;
    }
    if (given.size() == expected.size())
        return testing::AssertionSuccess();
    return testing::AssertionFailure() << given.size() << " instead of " << expected.size();
}

std::string withoutBlanksAround(const std::string& text)
{
    std::size_t start = 0;
    std::size_t end = text.size();
    while (start < end && std::isspace(static_cast<unsigned char>(text[start])) != 0)
        ++start;
    while (end > start && std::isspace(static_cast<unsigned char>(text[end - 1])) != 0)
        --end;
    return text.substr(start, end - start);
}

// With the trace level that is captured.
class HostileTextTest : public testing::TestWithParam<int> {
protected:
    HostileTextTest()
    {
        _diagnostics.setLevel(GetParam());
    }

    // Calls `check` for each text, with nothing captured yet. Where most lines are hidden a part of
    // the texts will do.
    void forEach(const std::function<void(const std::string&)>& check)
    {
        const std::size_t step = test::stride(GetParam() > 8 ? 1 : 8);
        RecordProperty("texts", static_cast<int>((hostileTexts().size() - 1) / step + 1));
        for (std::size_t i = 0; i < hostileTexts().size(); i += step) {
            SCOPED_TRACE(test::printable(hostileTexts()[i]));
            _diagnostics.clear();
            check(hostileTexts()[i]);
        }
    }

    // Names: an empty one is refused as such, or closes a column declaration.
    void forEachName(const std::function<void(const std::string&)>& check)
    {
        forEach([&](const std::string& name) {
            if (!name.empty())
                check(name);
        });
    }

    void expectEvents(const Texts& events) const
    {
        EXPECT_TRUE(same(_diagnostics.events(), test::visibleAt(GetParam(), events)));
    }

    const FieldSet _fields{test::product_columns};
    const FieldSet _codes{test::text_key_columns};
    test::TimeZone _zone;
    test::Diagnostics _diagnostics;
};

std::string levelName(const testing::TestParamInfo<int>& level)
{
    return "Level" + std::to_string(level.param);
}

Value cell(sql::field_type type, const std::string& text)
{
    Value value(type);
    value.setString(text);
    return value;
}

sql::integer integerIn(const std::string& text)
{
    return std::strtoll(text.c_str(), nullptr, 10);
}

// Cells and rows in memory.
class HostileCellTest : public HostileTextTest {};

INSTANTIATE_TEST_SUITE_P(Levels, HostileCellTest, testing::Values(3, 9), levelName);

TEST_P(HostileCellTest, TextIsHeldUnchangedAndIsEqualByteForByte)
{
    forEach([this](const std::string& text) {
        const Value value = cell(sql::type_text, text);
        EXPECT_FALSE(value.isNull());
        EXPECT_TRUE(same(value.asString(), text));
        EXPECT_TRUE(same(value.toString(), text));
        EXPECT_TRUE(same(value.dump(false), text));
        EXPECT_TRUE(same(value.dump(true), text + " (text)"));
        EXPECT_TRUE(value.equals(cell(sql::type_text, text)));
        EXPECT_FALSE(value.equals(cell(sql::type_text, text + '\0')));
        expectEvents({});
    });
}

TEST_P(HostileCellTest, RawTextEndsAtAZeroByte)
{
    forEach([this](const std::string& text) {
        Value value(sql::type_int);
        value.setValue(text.c_str(), sql::type_text);
        EXPECT_FALSE(value.isNull());
        EXPECT_TRUE(same(value.asString(), shown(text)));
        expectEvents({});
    });
}

TEST_P(HostileCellTest, TextIsQuotedForATextColumnAndVerbatimForOthers)
{
    forEach([this](const std::string& text) {
        const Value value = cell(sql::type_text, text);
        EXPECT_TRUE(same("'" + sql::quoteStr(text) + "'", quoted(text)));
        EXPECT_TRUE(same(value.toSql(sql::type_text), quoted(text)));
        for (const sql::field_type type :
             {sql::type_int, sql::type_float, sql::type_bool, sql::type_time})
            EXPECT_TRUE(same(value.toSql(type), text));
        expectEvents({});
    });
}

TEST_P(HostileCellTest, TextIsReadAsANumberAsFarAsItIsOne)
{
    forEach([this](const std::string& text) {
        const Value value = cell(sql::type_text, text);
        EXPECT_EQ(value.asInteger(), integerIn(text));
        EXPECT_THAT(value.asDouble(), testing::NanSensitiveDoubleEq(test::readDouble(text)));
        EXPECT_EQ(value.asBool(), text == "1");
        expectEvents({});
    });
}

TEST_P(HostileCellTest, TextOfATimeIsItsSeconds)
{
    forEach([](const std::string& text) {
        const Value value = cell(sql::type_time, text);
        EXPECT_EQ(value.asTime().getTime(), static_cast<time_t>(integerIn(text)));
        EXPECT_EQ(value.toSql(sql::type_time), std::to_string(integerIn(text)));
        EXPECT_EQ(value.asString(), sql::Time(integerIn(text)).asString());
    });
}

TEST_P(HostileCellTest, SettersByPositionAndByNameStoreTheText)
{
    const FieldSet fields(test::all_type_columns);
    forEach([&](const std::string& text) {
        Record byPosition(fields);
        Record byName(fields);
        for (int i = 0; i < fields.count(); ++i) {
            byPosition.setString(i, text);
            byName.setString(fields.getByIndex(i)->getName(), text);
        }
        for (const Record* const record : {&byPosition, &byName}) {
            for (int i = 0; i < 4; ++i)
                EXPECT_TRUE(same(record->getValue(i)->asString(), text));
            EXPECT_EQ(record->getValue("at")->asInteger(), integerIn(text));
        }
        expectEvents({});
    });
}

TEST_P(HostileCellTest, StatementsAndDumpsAreWhole)
{
    forEach([this](const std::string& text) {
        Record record(_fields);
        record.setInteger("id", 7);
        record.setString("name", text);
        record.setString("price", text);
        const std::string literal = quoted(text);
        EXPECT_TRUE(same(record.toString(), "7|" + text + "|" + text));
        EXPECT_TRUE(same(record.dump(false), "id = 7|name = " + text + "|price = " + text));
        EXPECT_TRUE(same(record.toSql(), "7, " + literal + ", " + text));
        EXPECT_TRUE(
            same(record.toSqlInsert("product"), "insert into product (id, name, price) values (7, "
                                                    + literal + ", " + text + ")"));
        EXPECT_TRUE(same(record.toSqlUpdate("product"), "update product set name=" + literal
                                                            + ", price=" + text + " where id = 7"));
        expectEvents({});
    });
}

TEST_P(HostileCellTest, TableNameStandsVerbatimInStatements)
{
    Record record(_fields);
    record.setInteger("id", 7);
    forEachName([&](const std::string& name) {
        EXPECT_TRUE(same(record.toSqlInsert(name),
                         "insert into " + name + " (id, name, price) values (7, null, null)"));
        EXPECT_TRUE(same(record.toSqlUpdate(name),
                         "update " + name + " set name=null, price=null where id = 7"));
        expectEvents({});
    });
    _diagnostics.clear();
    EXPECT_EQ(record.toSqlInsert(""), "");
    EXPECT_EQ(record.toSqlUpdate(""), "");
    expectEvents(test::joined(
        {report::noInsert("No table name given"), report::noUpdate("No table name given")}));
}

TEST_P(HostileCellTest, TableNameIsReportedWhole)
{
    const FieldSet none(nullptr);
    forEachName([&](const std::string& name) {
        EXPECT_EQ(Record(none).toSqlInsert(name), "");
        EXPECT_EQ(Record(none).toSqlUpdate(name), "");
        expectEvents(test::joined({report::noFieldsToInsert(shown(name)), report::noKeyName(),
                                   report::noKeyNameToUpdate(shown(name))}));
    });
}

TEST_P(HostileCellTest, UnknownColumnNameIsReportedWholeAndNothingIsSet)
{
    forEach([this](const std::string& name) {
        if (_fields.getByName(name) != nullptr)
            return;
        Record record(_fields);
        const Record& constant = record;
        EXPECT_EQ(record.getValue(name), nullptr);
        EXPECT_EQ(constant.getValue(name), nullptr);
        EXPECT_EQ(record.fieldByName(name), nullptr);
        expectEvents(test::joined({report::noValueToChange(shown(name)),
                                   report::noValue(shown(name)), report::noField(shown(name))}));
        _diagnostics.clear();
        record.setNull(name);
        record.setString(name, name);
        record.setInteger(name, 7);
        record.setDouble(name, 2.5);
        record.setBool(name, true);
        record.setTime(name, sql::Time(0));
        EXPECT_EQ(record.toString(), "null|null|null");
        EXPECT_TRUE(
            same(_diagnostics.errors(), Texts(6, test::errorsOf(report::noField(shown(name)))[0])));
        EXPECT_EQ(_diagnostics.assertions(), Texts(6, "false"));
    });
}

TEST_P(HostileCellTest, ColumnNameIsFoundByAllItsBytes)
{
    forEachName([this](const std::string& text) {
        const std::string name = "\x01" + text;
        const Field columns[] = {Field("id", sql::type_int, sql::flag_primary_key),
                                 Field(name, sql::type_text, sql::flag_none), Field()};
        const FieldSet fields(columns);
        Record record(fields);
        record.setString(name, "tea");
        EXPECT_EQ(fields.getByName(name), fields.getByIndex(1));
        EXPECT_EQ(record.toString(), "null|tea");
        EXPECT_EQ(fields.getByName(name + '\0'), nullptr);
        EXPECT_TRUE(same(fields.toSql(), "id, " + name));
        EXPECT_TRUE(same(fields.getDefinition(), "id INTEGER PRIMARY KEY, " + name + " TEXT"));
        EXPECT_TRUE(same(columns[1].dump(), "-1: name=" + name + ", type=text, flags:"));
        expectEvents({});
    });
}

TEST_P(HostileCellTest, DefinitionOfAColumnHasNoBlanksAround)
{
    forEachName([this](const std::string& name) {
        EXPECT_TRUE(same(Field(name, sql::type_float, sql::flag_unique).getDefinition(),
                         withoutBlanksAround(name + " REAL UNIQUE")));
        expectEvents({});
    });
}

TEST_P(HostileCellTest, KeyColumnOfAWrongTypeIsReportedWhole)
{
    forEachName([this](const std::string& name) {
        const Field columns[] = {Field(name, sql::type_float, sql::flag_primary_key), Field()};
        EXPECT_EQ(FieldSet(columns).count(), 0);
        expectEvents(report::wrongKeyType(shown(name), "float"));
    });
}

// What an application stores in a file and reads back.
class HostileRoundTripTest : public HostileTextTest {
protected:
    HostileRoundTripTest()
    {
        reopen();
        for (Table* const table : {&_products, &_vendors})
            table->create();
        _db.transactionBegin();
    }

    void reopen()
    {
        _db.open(_file, Database::access_create, false, 0);
        for (Table* const table : {&_products, &_vendors})
            table->initTable(_db.getHandle(), nullptr);
    }

    // Past SQLite's own conversions: what a program that does not end texts at zero bytes sees.
    std::string storedName()
    {
        sqlite3_stmt* statement = nullptr;
        sqlite3_prepare_v2(_db.getHandle(), "select name from product where id = 1", -1, &statement,
                           nullptr);
        std::string bytes = "no row";
        if (sqlite3_step(statement) == SQLITE_ROW)
            bytes.assign(reinterpret_cast<const char*>(sqlite3_column_text(statement, 0)),
                         static_cast<std::size_t>(sqlite3_column_bytes(statement, 0)));
        sqlite3_finalize(statement);
        return bytes;
    }

    Record product(sql::integer id, const std::string& name) const
    {
        Record record(_fields);
        record.setInteger("id", id);
        record.setString("name", name);
        return record;
    }

    // Adds a row of each text that can be stored; gives what the table then holds.
    Texts addAll()
    {
        Texts rows;
        for (const std::string& text : hostileTexts()) {
            if (hasZeroByte(text))
                continue;
            const auto id = static_cast<sql::integer>(rows.size() + 1);
            EXPECT_TRUE(_products.addOrUpdateRecord(id, product(id, text)));
            rows.push_back(std::to_string(id) + "|" + text + "|null");
        }
        return rows;
    }

    // What comes of a write: SQLite ends a statement at a zero byte, in the midst of the literal.
    void expectStored(bool written, const std::string& text, const std::string& former,
                      const std::string& statement)
    {
        EXPECT_EQ(written, !hasZeroByte(text));
        EXPECT_TRUE(same(storedName(), written ? text : former));
        if (written) {
            EXPECT_THAT(_diagnostics.errors(), IsEmpty());
            return;
        }
        const std::string literal = statement.substr(statement.find('\''));
        expectEvents(report::refused(shown(statement), "1=SQLITE_ERROR: unrecognized token: \""
                                                           + shown(literal) + "\""));
    }

    const test::TemporaryDirectory _directory;
    const std::string _file = _directory.file("shop.db");
    Database _db;
    Table _products{nullptr, "product", _fields};
    Table _vendors{nullptr, "vendor", _codes};
};

INSTANTIATE_TEST_SUITE_P(Levels, HostileRoundTripTest, testing::Values(3, 9), levelName);

TEST_P(HostileRoundTripTest, AddedTextComesBackUnchangedUnlessItHasAZeroByte)
{
    forEach([this](const std::string& text) {
        _products.truncate();
        _diagnostics.clear();
        const bool added = _products.addRecord(product(1, text));
        expectStored(added, text, "no row",
                     "insert into product (id, name, price) values (1, " + quoted(text)
                         + ", null)");
        if (!added)
            return;
        ASSERT_NE(_products.getRecordByKeyId(1), nullptr);
        EXPECT_TRUE(same(_products.getTopRecord()->getValue("name")->asString(), text));
    });
}

TEST_P(HostileRoundTripTest, UpdatedTextComesBackUnchangedUnlessItHasAZeroByte)
{
    _products.addRecord(product(1, "tea"));
    forEach([this](const std::string& text) {
        const std::string former = storedName();
        expectStored(_products.updateRecord(product(1, text)), text, former,
                     "update product set name=" + quoted(text) + ", price=null where id = 1");
    });
}

TEST_P(HostileRoundTripTest, AllTextsOfATableOutliveItsConnection)
{
    const Texts rows = addAll();
    _db.transactionCommit();
    reopen();
    EXPECT_TRUE(_products.open("", "id"));
    EXPECT_TRUE(same(held(_products), rows));
    EXPECT_THAT(_diagnostics.errors(), IsEmpty());
}

TEST_P(HostileRoundTripTest, TextsAreCopiedToAnotherTable)
{
    const Texts rows = addAll();
    Table copy(_db.getHandle(), "archive", _fields);
    EXPECT_TRUE(copy.backup(_products));
    EXPECT_TRUE(copy.open("", "id"));
    EXPECT_TRUE(same(held(copy), rows));
    EXPECT_THAT(_diagnostics.errors(), IsEmpty());
}

TEST_P(HostileRoundTripTest, QuotedTextInAConditionFindsItsRowOnly)
{
    forEach([this](const std::string& text) {
        const int found = hasZeroByte(text) ? 0 : 1;
        const std::string condition = "name = '" + sql::quoteStr(text) + "'";
        _products.truncate();
        _products.addRecord(product(1, text));
        _products.addRecord(product(2, "x" + text + "x"));
        EXPECT_EQ(_products.open(condition), found == 1);
        EXPECT_EQ(_products.recordCount(), found);
        EXPECT_EQ(_products.deleteRecords(condition), found == 1);
        EXPECT_EQ(_products.totalRecordCount(), found);
    });
}

// Keys that end within their quotes, or are taken for a column, do otherwise: see HostileKeyTest.
TEST_P(HostileRoundTripTest, TextKeyFindsItsRowOnly)
{
    const std::set<std::string> columns = {"code", "name", "rowid", "oid", "_rowid_"};
    forEach([this, &columns](const std::string& key) {
        if (hasZeroByte(key) || key.find('"') != std::string::npos || columns.count(key) != 0)
            return;
        _vendors.truncate();
        Record record(_codes);
        record.setString("code", "x" + key + "x");
        EXPECT_TRUE(_vendors.addRecord(record));
        EXPECT_FALSE(_vendors.hasRecordWithKeyId(key));
        record.setString("code", key);
        EXPECT_TRUE(_vendors.addOrUpdateRecord(key, record));
        EXPECT_TRUE(_vendors.hasRecordWithKeyId(key));
        ASSERT_NE(_vendors.getRecordByKeyId(key), nullptr);
        EXPECT_TRUE(same(_vendors.getTopRecord()->getKeyIdValue()->asString(), key));
        EXPECT_TRUE(_vendors.deleteRecord(key));
        EXPECT_EQ(_vendors.totalRecordCount(), 1);
        EXPECT_THAT(_diagnostics.errors(), IsEmpty());
    });
}

TEST_P(HostileRoundTripTest, TextStoredWithAZeroByteByOthersIsReadUpToIt)
{
    EXPECT_TRUE(_products.query("insert into product values (1, 'tea' || char(0) || 'pot', null)"));
    EXPECT_EQ(storedName(), std::string("tea\0pot", 7));
    EXPECT_TRUE(_products.open());
    EXPECT_THAT(held(_products), ElementsAre("1|tea|null"));
    EXPECT_THAT(_diagnostics.errors(), IsEmpty());
}

TEST_P(HostileRoundTripTest, IntegersAtEveryLimitComeBack)
{
    for (int bit = 0; bit < 64; ++bit) {
        for (const unsigned less : {0, 1}) {
            const auto number = static_cast<sql::integer>((1ULL << bit) - less);
            Record record = product(number, "tea");
            record.setInteger("name", number);
            EXPECT_TRUE(_products.addOrUpdateRecord(number, record)) << number;
            ASSERT_NE(_products.getRecordByKeyId(number), nullptr) << number;
            const std::string text = std::to_string(number);
            EXPECT_THAT(held(_products), ElementsAre(text + "|" + text + "|null"));
            EXPECT_EQ(_products.getTopRecord()->getKeyIdValue()->asInteger(), number);
            EXPECT_TRUE(_products.deleteRecord(number));
            EXPECT_EQ(_products.totalRecordCount(), 0);
        }
    }
    EXPECT_THAT(_diagnostics.errors(), IsEmpty());
}

TEST_P(HostileRoundTripTest, TimesAtEveryLimitComeBack)
{
    const FieldSet fields(test::all_type_columns);
    Table table(_db.getHandle(), "event", fields);
    table.create();
    for (const time_t seconds :
         {std::numeric_limits<time_t>::min(), std::numeric_limits<time_t>::max(),
          static_cast<time_t>(-1), static_cast<time_t>(0)}) {
        Record record(fields);
        record.setInteger("id", 1);
        record.setTime("at", sql::Time(seconds));
        EXPECT_TRUE(table.addOrUpdateRecord(1, record));
        EXPECT_TRUE(table.open("at = " + std::to_string(seconds)));
        ASSERT_EQ(table.recordCount(), 1);
        EXPECT_EQ(table.getTopRecord()->getValue("at")->asTime().getTime(), seconds);
    }
}

// SQLite has no literals for them: the names are taken for columns.
TEST_P(HostileRoundTripTest, NumbersThatAreNoneAreRefusedByName)
{
    for (const double number :
         {std::numeric_limits<double>::quiet_NaN(), std::numeric_limits<double>::infinity(),
          -std::numeric_limits<double>::infinity()}) {
        const std::string text = test::fixedText(number);
        const std::string name = text.substr(text[0] == '-' ? 1 : 0);
        Record record = product(1, "tea");
        record.setDouble("price", number);
        _diagnostics.clear();
        EXPECT_FALSE(_products.addRecord(record));
        EXPECT_EQ(_diagnostics.errors(),
                  test::errorsOf(report::refused(record.toSqlInsert("product"),
                                                 "1=SQLITE_ERROR: no such column: " + name)));
    }
    EXPECT_EQ(_products.totalRecordCount(), 0);
}

TEST_P(HostileRoundTripTest, RealsComeBackAsFarAsTheirTextHoldsThem)
{
    for (int exponent = -1074; exponent <= 1023; ++exponent) {
        for (const double sign : {1.0, -1.0}) {
            const double number = std::ldexp(sign, exponent);
            const std::string text = test::fixedText(number);
            Record record = product(1, "tea");
            record.setDouble("price", number);
            record.setDouble("name", number);
            ASSERT_TRUE(_products.addOrUpdateRecord(1, record)) << number;
            ASSERT_NE(_products.getRecordByKeyId(1), nullptr);
            const Record& row = *_products.getTopRecord();
            EXPECT_EQ(row.getValue("name")->asString(), text);
            // SQLite gives 15 digits of a real.
            const double expected = test::readDouble(text);
            EXPECT_NEAR(row.getValue("price")->asDouble(), expected, std::fabs(expected) * 1e-14);
        }
    }
    EXPECT_THAT(_diagnostics.errors(), IsEmpty());
}

// The same result, rows, reports and contents as plain SQLite gives with the statements that the
// library has to build: a text that stands in them verbatim does what SQL makes of it.
const char* const shop =
    "create table product (id integer primary key, name text, price real);"
    "create table vendor (code text primary key, name text);"
    "insert into product values (1, 'tea', 2.5), (2, 'O''Brien', null), (7, '', 0),"
    " (-1, 'x', -1e300);"
    "insert into vendor values ('tea', 'one'), ('7', 'two'), ('', 'three'), ('vendor', 'vendor'),"
    " ('%s', '%n');"
    "pragma user_version = 7";

// All that a database holds, byte for byte.
std::string image(sqlite3* db)
{
    sqlite3_int64 size = 0;
    unsigned char* const bytes = sqlite3_serialize(db, "main", &size, 0);
    std::string text(reinterpret_cast<const char*>(bytes),
                     bytes != nullptr ? static_cast<std::size_t>(size) : 0);
    sqlite3_free(bytes);
    return text;
}

// Replaces it in memory.
void load(sqlite3* db, const std::string& image)
{
    auto* const bytes = static_cast<unsigned char*>(sqlite3_malloc64(image.size()));
    std::copy(image.begin(), image.end(), bytes);
    const auto size = static_cast<sqlite3_int64>(image.size());
    sqlite3_deserialize(db, "main", bytes, size, size,
                        SQLITE_DESERIALIZE_FREEONCLOSE | SQLITE_DESERIALIZE_RESIZEABLE);
}

const std::string& shopImage()
{
    static const std::string bytes = [] {
        test::Connection db;
        db.run(std::string("pragma page_size = 512;") + shop);
        return image(db);
    }();
    return bytes;
}

// Two connections with the same contents.
struct Pair {
    Pair()
    {
        load(library, shopImage());
        load(plain, shopImage());
    }

    test::Connection library;
    test::Connection plain;
};

typedef test::Both<Table, test::TwinTable> Step;

// Steps that are taken one after the other on a table of new databases.
struct Trial {
    std::string table;
    FieldSet fields;
    std::vector<Step> steps;
};

// A place where a text stands in statements as it is.
struct Place {
    const char* name;
    bool canBeEmpty;
    std::vector<Trial> (*trials)(const std::string& text);
};

const FieldSet& products()
{
    static const FieldSet fields(test::product_columns);
    return fields;
}

Record product(sql::integer id, const std::string& name)
{
    Record record(products());
    record.setInteger("id", id);
    record.setString("name", name);
    return record;
}

Step update(const Record& record)
{
    return [=](auto& table) {
        return table.updateRecord(record);
    };
}

Step add(const Record& record)
{
    return [=](auto& table) {
        return table.addRecord(record);
    };
}

Step load(const std::string& condition, const std::string& order)
{
    return [=](auto& table) {
        return table.open(condition, order);
    };
}

const Step load_all = [](auto& table) {
    return table.open();
};

const Step create = [](auto& table) {
    return table.create();
};

std::vector<Step> withKey(const std::string& key, const Record& record)
{
    return {[=](auto& table) { return table.hasRecordWithKeyId(key); },
            [=](auto& table) { return table.getRecordByKeyId(key); },
            [=](auto& table) { return table.addOrUpdateRecord(key, record); },
            [=](auto& table) {
                return table.deleteRecord(key);
            }};
}

std::vector<Trial> numberColumn(const std::string& text)
{
    Record there = product(1, "new");
    Record missing = product(50, "new");
    there.setString("price", text);
    missing.setString("price", text);
    return {{"product", products(), {update(there)}}, {"product", products(), {add(missing)}}};
}

std::vector<Trial> keyCell(const std::string& text)
{
    Record record = product(1, "new");
    record.setString("id", text);
    Record coded(test::vendors());
    coded.setString("code", text);
    return {{"product", products(), {update(record)}},
            {"product", products(), {add(record)}},
            {"vendor", test::vendors(), {update(coded)}}};
}

std::vector<Trial> textKey(const std::string& key)
{
    Record record(test::vendors());
    record.setString("code", "new");
    record.setString("name", "changed");
    return {{"vendor", test::vendors(), withKey(key, record)},
            {"product", products(), withKey(key, product(1, key))}};
}

std::vector<Trial> columnName(const std::string& name)
{
    const Field columns[] = {Field("id", sql::type_int, sql::flag_primary_key),
                             Field(name, sql::type_text, sql::flag_unique), Field()};
    static FieldSet fields(nullptr); // until the next text
    fields = FieldSet(columns);
    Record record(fields);
    record.setInteger("id", 3);
    if (name != "id")
        record.setString(name, name);
    return {{"goods", fields, {create, add(record), update(record), load_all}}};
}

std::vector<Trial> keyColumnName(const std::string& name)
{
    const Field columns[] = {Field(name, sql::type_int, sql::flag_primary_key), Field()};
    return {{"product",
             FieldSet(columns),
             {[](auto& table) { return table.getRecordByKeyId(7); },
              [](auto& table) { return table.hasRecordWithKeyId("7"); },
              [](auto& table) {
                  return table.deleteRecord(7);
              }}}};
}

std::vector<Trial> tableName(const std::string& name)
{
    const Record record = product(50, name);
    return {{name,
             products(),
             {[](auto& table) { return table.exists(); }, create, add(record), update(record),
              load_all, load("id = 50", "id"), [](auto& table) { return table.totalRecordCount(); },
              [](auto& table) {
                  return table.deleteRecord(50);
              }}},
            {name, products(), {[](auto& table) {
                 return table.truncate();
             }}},
            {name, products(), {[](auto& table) {
                 return table.remove();
             }}}};
}

std::vector<Trial> condition(const std::string& text)
{
    return {{"product", products(), {load(text, "")}},
            {"product", products(), {load(text, "id desc")}},
            {"product", products(), {[=](auto& table) {
                 return table.deleteRecords(text);
             }}}};
}

std::vector<Trial> order(const std::string& text)
{
    return {{"product", products(), {load("", text)}},
            {"product", products(), {load("id > 0", text)}}};
}

std::vector<Trial> statement(const std::string& text)
{
    return {{"product", products(), {[=](auto& table) { return table.query(text); }, load_all}}};
}

const Place places[] = {
    {"NumberColumn", true, numberColumn},
    {"KeyCell", true, keyCell},
    {"TextKey", true, textKey},
    {"ColumnName", false, columnName},
    {"KeyColumnName", false, keyColumnName},
    {"TableName", false, tableName}, // makes no INSERT
    {"Condition", true, condition},
    {"Order", true, order},
    {"Statement", true, statement},
};

class HostileStatementTest : public HostileTextTest {
protected:
    void expectSame(const Trial& trial)
    {
        const Pair pair;
        test::Twin twin(pair.plain);
        Table table(pair.library, trial.table, trial.fields);
        test::TwinTable expected(twin, trial.table, trial.fields);
        _diagnostics.clear();
        for (const Step& step : trial.steps) {
            EXPECT_TRUE(same(step.library(table), step.plain(expected)));
            EXPECT_TRUE(same(held(table), held(expected)));
        }
        expectSame(pair, twin);
    }

    void expectSame(const Pair& pair, const test::Twin& twin)
    {
        expectEvents(twin.events());
        EXPECT_TRUE(image(pair.library) == image(pair.plain));
        EXPECT_EQ(sqlite3_get_autocommit(pair.library), sqlite3_get_autocommit(pair.plain));
    }
};

INSTANTIATE_TEST_SUITE_P(Levels, HostileStatementTest, testing::Values(3, 9), levelName);

TEST_P(HostileStatementTest, TextStandsVerbatimOrUnescapedDeliberately)
{
    for (const Place& place : places) {
        SCOPED_TRACE(place.name);
        forEach([&](const std::string& text) {
            if (text.empty() && !place.canBeEmpty)
                return;
            for (const Trial& trial : place.trials(text))
                expectSame(trial);
        });
    }
}

TEST_P(HostileStatementTest, QueryForANumberAndOneStepStatementRunAsTheyStand)
{
    forEach([this](const std::string& statement) {
        const Pair counting;
        test::Twin twin(counting.plain);
        EXPECT_EQ(sql::queryNumber(counting.library, statement), twin.number(statement));
        expectSame(counting, twin);
        _diagnostics.clear();
        const Pair stepping;
        twin.use(stepping.plain);
        twin.clear();
        EXPECT_EQ(sql::runOneStepSqlStmt(stepping.library, statement), twin.oneStep(statement));
        expectSame(stepping, twin);
    });
}

// Names of database files, in two directories with paths of the same length. They are deep enough
// for a name that leads upwards.
class HostileFileNameTest : public HostileTextTest {
protected:
    HostileFileNameTest() : _library(deep("a")), _plain(deep("b"))
    {
    }

    std::string deep(const std::string& name) const
    {
        const std::string path = _directory.file(name + "/1/2/3/4/5/6");
        std::filesystem::create_directories(path);
        return path + "/";
    }

    std::vector<std::string> files(const std::string& top) const
    {
        std::vector<std::string> names;
        const std::string start = _directory.file(top);
        for (const auto& entry : std::filesystem::recursive_directory_iterator(start)) {
            if (entry.is_regular_file())
                names.push_back(entry.path().string().substr(start.size()));
        }
        std::sort(names.begin(), names.end());
        return names;
    }

    void removeFiles(const std::string& top) const
    {
        for (const std::string& name : files(top))
            std::filesystem::remove(_directory.file(top) + name);
    }

    test::TemporaryDirectory _directory;
    std::string _library;
    std::string _plain;
};

INSTANTIATE_TEST_SUITE_P(Levels, HostileFileNameTest, testing::Values(3, 9), levelName);

TEST_P(HostileFileNameTest, FileHasThatNameOrIsRefused)
{
    forEach([this](const std::string& name) {
        sqlite3* plain = nullptr;
        const int rc = sqlite3_open_v2((_plain + name).c_str(), &plain,
                                       SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE, nullptr);
        Database db;
        EXPECT_EQ(db.open(_library + name, Database::access_create, false, 0), rc == SQLITE_OK);
        const std::string file = shown(_library + name);
        expectEvents(rc == SQLITE_OK
                         ? report::opening(file)
                         : report::notOpened(file, test::reasonOf(rc, sqlite3_errmsg(plain))));
        EXPECT_EQ(db.setUserVersion(7),
                  rc == SQLITE_OK
                      && sqlite3_exec(plain, "pragma user_version = 7", nullptr, nullptr, nullptr)
                             == SQLITE_OK);
        sqlite3_close(plain);
        db.close();
        EXPECT_EQ(files("a"), files("b"));
        EXPECT_THAT(_diagnostics.assertions(), IsEmpty());
        removeFiles("a");
        removeFiles("b");
    });
}

TEST_P(HostileFileNameTest, FileIsFoundAgainByItsName)
{
    forEach([this](const std::string& name) {
        Database db;
        if (!db.open(_library + name, Database::access_create, false, 0) || !db.setUserVersion(7))
            return;
        EXPECT_EQ(files("a").size(), 1U);
        EXPECT_TRUE(db.open(_library + name, Database::access_read_only, false, 0));
        EXPECT_EQ(db.getUserVersion(), 7);
        EXPECT_THAT(_diagnostics.errors(), IsEmpty());
        db.close();
        removeFiles("a");
    });
}

TEST_P(HostileFileNameTest, NameEndsAtAZeroByte)
{
    Database db;
    EXPECT_TRUE(db.open(_library + "shop\0.db" + std::string("x\0y", 3), Database::access_create,
                        false, 0));
    EXPECT_TRUE(db.setUserVersion(7));
    EXPECT_THAT(files("a"), ElementsAre("/1/2/3/4/5/6/shopx"));
}

// What follows from names, conditions and keys that stand in statements as they are. Applications
// have to keep foreign texts out of these places.
class HostileKeyTest : public testing::Test {
protected:
    HostileKeyTest()
    {
        _db.run(shop);
    }

    // With the database as it was made, what the call gives; then the tables that are left.
    void expectDeliberately(const std::string& given, const std::string& expected,
                            const std::string& tables)
    {
        EXPECT_EQ(given, expected);
        EXPECT_EQ(_db.rows("select name from sqlite_master where type = 'table' order by name"),
                  tables);
        EXPECT_THAT(_diagnostics.events(), IsEmpty());
    }

    test::Diagnostics _diagnostics;
    test::Connection _db;
    Table _vendors{_db, "vendor", test::vendors()};
    Table _products{_db, "product", products()};
};

const char both_tables[] = "product\nvendor";
const std::string dropping_key = "\"; drop table vendor; --";

TEST_F(HostileKeyTest, KeyToLoadCanDropTheTableDeliberately)
{
    expectDeliberately(result(_vendors.getRecordByKeyId(dropping_key)), "|three", "product");
}

TEST_F(HostileKeyTest, KeyToDeleteCanDropTheTableDeliberately)
{
    expectDeliberately(result(_vendors.deleteRecord(dropping_key)), "true", "product");
}

// Only the first statement of the text is run there.
TEST_F(HostileKeyTest, KeyToTestForCannotDropTheTable)
{
    expectDeliberately(result(_vendors.hasRecordWithKeyId(dropping_key)), "true", both_tables);
}

TEST_F(HostileKeyTest, KeyWithACommentFindsAnyRowDeliberately)
{
    expectDeliberately(result(_vendors.getRecordByKeyId("\" or 1 = 1 --")), "tea|one", both_tables);
    EXPECT_EQ(_vendors.recordCount(), 5);
}

// A double-quoted word is a column's name first.
TEST_F(HostileKeyTest, KeyNamedLikeAColumnIsComparedWithItDeliberately)
{
    expectDeliberately(result(_vendors.getRecordByKeyId("name")), "vendor|vendor", both_tables);
    EXPECT_EQ(_vendors.recordCount(), 1);
    expectDeliberately(result(_vendors.getRecordByKeyId("CODE")), "tea|one", both_tables);
    EXPECT_EQ(_vendors.recordCount(), 5);
    expectDeliberately(result(_products.getRecordByKeyId("rowid")), "-1|x|-1.0e+300", both_tables);
    EXPECT_EQ(_products.recordCount(), 4);
}

TEST_F(HostileKeyTest, KeyWithADoubleQuoteOrAZeroByteIsRefused)
{
    EXPECT_EQ(_vendors.getRecordByKeyId("5\" disc"), nullptr);
    EXPECT_FALSE(_vendors.hasRecordWithKeyId(std::string("tea\0", 4)));
    EXPECT_EQ(_diagnostics.events(),
              test::visibleAt(
                  3, test::joined(
                         {report::refused("select * from vendor where code = \"5\" disc\"",
                                          "1=SQLITE_ERROR: near \"disc\": syntax error"),
                          report::notPrepared("select count(*) from vendor where code = \"tea",
                                              "1=SQLITE_ERROR: unrecognized token: \"\"tea\"")})));
}

TEST_F(HostileKeyTest, TextInANumberColumnCanDropTheTableDeliberately)
{
    Record record(products());
    record.setString("price", "1); drop table product; --");
    expectDeliberately(result(_products.addRecord(record)), "true", "vendor");
}

TEST_F(HostileKeyTest, TextInATextColumnCannotDropTheTable)
{
    Record record(products());
    record.setString("name", "1'); drop table product; --");
    expectDeliberately(result(_products.addRecord(record)), "true", both_tables);
    EXPECT_EQ(_db.rows("select name from product where id = 8"), "1'); drop table product; --");
}

TEST_F(HostileKeyTest, ConditionOrderAndNameCanDropTheTableDeliberately)
{
    expectDeliberately(result(_products.open("id = 1; drop table product")), "true", "vendor");
    expectDeliberately(result(_vendors.open("", "code; create table product (id)")), "true",
                       both_tables);
    expectDeliberately(result(Table(_db, "product; drop table product", products()).open()), "true",
                       "vendor");
}

TEST(HostileTextsTest, AreManyAndDifferent)
{
    EXPECT_GT(hostileTexts().size(), 600U);
    EXPECT_EQ(std::set<std::string>(hostileTexts().begin(), hostileTexts().end()).size(),
              hostileTexts().size());
}

} // namespace
