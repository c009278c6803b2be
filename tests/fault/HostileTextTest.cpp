#include "Columns.h"
#include "Diagnostics.h"
#include "Environment.h"
#include "HostileTexts.h"
#include "Rows.h"
#include "Sqlite.h"
#include "Twin.h"

#include "SqlDatabase.h"
#include "SqlField.h"
#include "SqlFieldSet.h"
#include "SqlRecord.h"
#include "SqlTable.h"
#include "SqlValue.h"

#include <gmock/gmock.h>

#include <algorithm>
#include <cctype>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <limits>
#include <set>
#include <string>
#include <vector>

#include <locale.h>

namespace {

using sql::Database;
using sql::Field;
using sql::FieldSet;
using sql::Record;
using sql::Table;
using sql::Value;
using test::held;
using test::hostileTexts;
using test::result;
using test::shown;
using test::TwinTable;
using testing::ElementsAre;
using testing::IsEmpty;

typedef std::vector<std::string> Texts;

} // namespace

// Found before the C library's own functions of the same names: here no power fails, and waiting for
// the disk is most of the time.
extern "C" int fsync(int)
{
    return 0;
}

extern "C" int fdatasync(int)
{
    return 0;
}

namespace {

// Every message that takes a text from outside, and those that surround them. No other text may ever
// be a format.
const std::set<std::string> formats = {
    "[DEBUG1] %s:%d (%s) - Opening database '%s'",
    "[DEBUG2] %s:%d (%s) - SQLite returned number=%d",
    "[DEBUG2] %s:%d (%s) - Table '%s' does not exist",
    "[DEBUG2] %s:%d (%s) - Table '%s' exists",
    "[DEBUG2] %s:%d (%s) - add record for key=%lld",
    "[DEBUG2] %s:%d (%s) - add record for key=%s",
    "[DEBUG2] %s:%d (%s) - stmt='%s'",
    "[DEBUG2] %s:%d (%s) - update record for key=%lld",
    "[DEBUG2] %s:%d (%s) - update record for key=%s",
    "[DEBUG3] %s:%d (%s) - %s",
    "[DEBUG3] %s:%d (%s) - Time ctor: time = %ld = '%s'",
    "[ERROR] %s:%d (%s) -   SQLite returned %d=%s instead of SQLITE_DONE: %s",
    "[ERROR] %s:%d (%s) -   SQLite returned returned number = %d < 0",
    "[ERROR] %s:%d (%s) -    the query returned %d=%s instead of SQLITE_ROW: %s",
    "[ERROR] %s:%d (%s) -   rc=%d=%s",
    "[ERROR] %s:%d (%s) -   rc=%d=%s: %s",
    "[ERROR] %s:%d (%s) -  rc=%d=%s: %s",
    "[ERROR] %s:%d (%s) - Failed to build SQL CREATE TABLE stmt for table %s",
    "[ERROR] %s:%d (%s) - Failed to build SQL INSERT statement for table '%s'",
    "[ERROR] %s:%d (%s) - Failed to build SQL UPDATE statement for table '%s'",
    "[ERROR] %s:%d (%s) - Failed to convert calendar time to local time",
    "[ERROR] %s:%d (%s) - Failed to determine if table '%s' exists",
    "[ERROR] %s:%d (%s) - Failed to get name of PRIMARY KEY column",
    "[ERROR] %s:%d (%s) - Failed to get name of PRIMARY KEY column for table %s",
    "[ERROR] %s:%d (%s) - Failed to open the database %s: rc=%d=%s: %s",
    "[ERROR] %s:%d (%s) - Failed to prepare the SQL query '%s': ",
    "[ERROR] %s:%d (%s) - Failed to prepare the SQL statement '%s': ",
    "[ERROR] %s:%d (%s) - Failed to run the SQL stmt '%s'",
    "[ERROR] %s:%d (%s) - Field/column '%s' not found",
    "[ERROR] %s:%d (%s) - No fields to insert in table '%s'",
    "[ERROR] %s:%d (%s) - No table name given",
    "[ERROR] %s:%d (%s) - No value for column with index=%d (and name=%s) of table %s",
    "[ERROR] %s:%d (%s) - No value for column with name '%s'",
    "[ERROR] %s:%d (%s) - PRIMARY KEY column '%s' must be of type 'integer' or 'text' instead of type '%s'",
    "[ERROR] %s:%d (%s) - Running the SQL stmt '%s' failed",
    "[ERROR] %s:%d (%s) - The SQL query '%s' failed",
    "[ERROR] %s:%d (%s) - The SQL query '%s' failed: query returned %d columns in result while 1 is expected",
};

bool hasZeroByte(const std::string& text)
{
    return text.find('\0') != std::string::npos;
}

// What a text literal has to look like.
std::string quoted(const std::string& text)
{
    std::string literal = "'";
    for (const char byte : text)
        literal += byte == '\'' ? "''" : std::string(1, byte);
    return literal + "'";
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

// The C library's numbers, in a locale that says nothing about them.
class PlainLocale {
public:
    PlainLocale() : _plain(::newlocale(LC_ALL_MASK, "C", nullptr)), _former(::uselocale(_plain))
    {
    }
    ~PlainLocale()
    {
        ::uselocale(_former);
        ::freelocale(_plain);
    }
    PlainLocale(const PlainLocale&) = delete;
    PlainLocale& operator=(const PlainLocale&) = delete;

private:
    locale_t _plain;
    locale_t _former;
};

double real(const std::string& text)
{
    const PlainLocale locale;
    return std::strtod(text.c_str(), nullptr);
}

std::string fixedPoint(double number)
{
    const PlainLocale locale;
    char text[128];
    std::snprintf(text, sizeof text, "%0.8f", number);
    return text;
}

// With the trace level that is captured.
class HostileTextTest : public testing::TestWithParam<int> {
protected:
    HostileTextTest()
    {
        _diagnostics.setLevel(GetParam());
    }

    // Calls `check` for each text, with nothing captured yet. Where most lines are hidden a part of the
    // texts will do.
    void forEach(const std::function<void(const std::string&)>& check)
    {
        const std::size_t step = test::stride(GetParam() > 8 ? 1 : 8);
        RecordProperty("texts", static_cast<int>((hostileTexts().size() - 1) / step + 1));
        for (std::size_t i = 0; i < hostileTexts().size(); i += step) {
            const std::string& text = hostileTexts()[i];
            SCOPED_TRACE(test::printable(text));
            _diagnostics.clear();
            check(text);
            for (const test::LogLine& line : _diagnostics.lines())
                EXPECT_EQ(formats.count(line.format), 1U) << line.format;
        }
    }

    void expectEvents(const Texts& events) const
    {
        EXPECT_TRUE(_diagnostics.events() == test::visibleAt(GetParam(), events))
            << testing::PrintToString(_diagnostics.events()) << "\ninstead of\n"
            << testing::PrintToString(test::visibleAt(GetParam(), events));
    }

    test::TimeZone _zone;
    test::Diagnostics _diagnostics;
};

std::string levelName(const testing::TestParamInfo<int>& level)
{
    return "Level" + std::to_string(level.param);
}

// Cells and rows in memory.
class HostileCellTest : public HostileTextTest {
protected:
    HostileCellTest() : _fields(test::all_type_columns), _products(test::product_columns)
    {
    }

    FieldSet _fields;
    FieldSet _products;
};

INSTANTIATE_TEST_SUITE_P(Levels, HostileCellTest, testing::Values(3, 9), levelName);

TEST_P(HostileCellTest, TextIsHeldUnchanged)
{
    forEach([this](const std::string& text) {
        Value value(sql::type_text);
        value.setString(text);
        EXPECT_FALSE(value.isNull());
        EXPECT_TRUE(value.asString() == text);
        EXPECT_TRUE(value.toString() == text);
        EXPECT_TRUE(value.dump(false) == text);
        EXPECT_TRUE(value.dump(true) == text + " (text)");
        EXPECT_TRUE(value.equals(Value(value)));
        expectEvents({});
    });
}

TEST_P(HostileCellTest, RawTextEndsAtAZeroByte)
{
    forEach([this](const std::string& text) {
        Value value(sql::type_int);
        value.setValue(text.c_str(), sql::type_text);
        EXPECT_FALSE(value.isNull());
        EXPECT_TRUE(value.asString() == shown(text));
        expectEvents({});
    });
}

TEST_P(HostileCellTest, TextIsQuotedForATextColumnAndVerbatimForOthers)
{
    forEach([this](const std::string& text) {
        Value value(sql::type_text);
        value.setString(text);
        EXPECT_TRUE(sql::quoteStr(text) == quoted(text).substr(1, quoted(text).size() - 2));
        EXPECT_TRUE(value.toSql(sql::type_text) == quoted(text));
        for (const sql::field_type type :
             {sql::type_int, sql::type_float, sql::type_bool, sql::type_time})
            EXPECT_TRUE(value.toSql(type) == text);
        expectEvents({});
    });
}

TEST_P(HostileCellTest, TextIsReadAsANumberAsFarAsItIsOne)
{
    forEach([this](const std::string& text) {
        Value value(sql::type_text);
        value.setString(text);
        const double number = real(text);
        EXPECT_EQ(value.asInteger(), std::strtoll(text.c_str(), nullptr, 10));
        EXPECT_TRUE(value.asDouble() == number
                    || (std::isnan(value.asDouble()) && std::isnan(number)));
        EXPECT_EQ(value.asBool(), text == "1");
        expectEvents({});
    });
}

TEST_P(HostileCellTest, TextOfATimeIsItsSeconds)
{
    forEach([](const std::string& text) {
        Value value(sql::type_time);
        value.setString(text);
        const sql::integer seconds = std::strtoll(text.c_str(), nullptr, 10);
        EXPECT_EQ(value.asTime().getTime(), static_cast<time_t>(seconds));
        EXPECT_EQ(value.toSql(sql::type_time), std::to_string(seconds));
        EXPECT_TRUE(value.asString() == sql::Time(seconds).asString());
    });
}

TEST_P(HostileCellTest, TextsAreEqualByteForByte)
{
    forEach([this](const std::string& text) {
        Value value(sql::type_text);
        value.setString(text);
        Value longer(sql::type_text);
        longer.setString(text + std::string(1, '\0'));
        EXPECT_TRUE(value.equals(Value(value)));
        EXPECT_FALSE(value.equals(longer));
        expectEvents({});
    });
}

TEST_P(HostileCellTest, SettersByPositionAndByNameStoreTheText)
{
    forEach([this](const std::string& text) {
        Record byPosition(_fields);
        Record byName(_fields);
        for (int i = 0; i < byPosition.columnCount(); ++i) {
            byPosition.setString(i, text);
            byName.setString(_fields.getByIndex(i)->getName(), text);
        }
        for (int i = 0; i < 4; ++i) {
            EXPECT_TRUE(byPosition.getValue(i)->asString() == text);
            EXPECT_TRUE(byName.getValue(i)->asString() == text);
        }
        EXPECT_EQ(byPosition.getValue("at")->asInteger(), std::strtoll(text.c_str(), nullptr, 10));
        EXPECT_EQ(byName.getValue("at")->asInteger(), std::strtoll(text.c_str(), nullptr, 10));
        expectEvents({});
    });
}

TEST_P(HostileCellTest, StatementsAndDumpsAreWhole)
{
    forEach([this](const std::string& text) {
        Record record(_products);
        record.setInteger("id", 7);
        record.setString("name", text);
        record.setString("price", text);
        const std::string literal = quoted(text);
        EXPECT_TRUE(record.toString() == "7|" + text + "|" + text);
        EXPECT_TRUE(record.dump(false) == "id = 7|name = " + text + "|price = " + text);
        EXPECT_TRUE(record.toSql() == "7, " + literal + ", " + text);
        EXPECT_TRUE(record.toSqlInsert("product")
                    == "insert into product (id, name, price) values (7, " + literal + ", " + text
                           + ")");
        EXPECT_TRUE(record.toSqlUpdate("product")
                    == "update product set name=" + literal + ", price=" + text + " where id = 7");
        expectEvents({});
    });
}

TEST_P(HostileCellTest, TableNameStandsVerbatimInStatements)
{
    forEach([this](const std::string& name) {
        Record record(_products);
        record.setInteger("id", 7);
        const std::string insert = record.toSqlInsert(name);
        const std::string update = record.toSqlUpdate(name);
        if (name.empty()) {
            EXPECT_EQ(insert + update, "");
            EXPECT_THAT(_diagnostics.errors(),
                        ElementsAre("No table name given", "No table name given"));
            return;
        }
        EXPECT_TRUE(insert == "insert into " + name + " (id, name, price) values (7, null, null)");
        EXPECT_TRUE(update == "update " + name + " set name=null, price=null where id = 7");
        expectEvents({});
    });
}

TEST_P(HostileCellTest, TableNameIsReportedWhole)
{
    forEach([this](const std::string& name) {
        if (name.empty())
            return; // is refused as such
        const FieldSet none(nullptr);
        const std::string where = " in SqlRecord.cpp (sql::string sql::Record::";
        EXPECT_EQ(Record(none).toSqlInsert(name), "");
        expectEvents({"[ERROR] SqlRecord.cpp (toSqlInsert) - No fields to insert in table '"
                          + shown(name) + "'",
                      "assert 'false'" + where + "toSqlInsert(const string&) const)"});
        _diagnostics.clear();
        EXPECT_EQ(Record(none).toSqlUpdate(name), "");
        expectEvents(
            {"[ERROR] SqlFieldSet.cpp (getKeyIdName) - Failed to get name of PRIMARY KEY column",
             "assert 'false' in SqlFieldSet.cpp (sql::string sql::FieldSet::getKeyIdName() const)",
             "[ERROR] SqlRecord.cpp (toSqlUpdate) - Failed to get name of PRIMARY KEY column for table "
                 + shown(name),
             "assert 'false'" + where + "toSqlUpdate(const string&) const)"});
    });
}

TEST_P(HostileCellTest, UnknownColumnNameIsReportedWhole)
{
    forEach([this](const std::string& name) {
        if (_products.getByName(name) != nullptr)
            return;
        Record record(_products);
        const Record& constant = record;
        const std::string line =
            "[ERROR] SqlRecord.cpp (getValue) - No value for column with name '" + shown(name)
            + "'";
        EXPECT_EQ(record.getValue(name), nullptr);
        EXPECT_EQ(constant.getValue(name), nullptr);
        EXPECT_EQ(record.fieldByName(name), nullptr);
        expectEvents(
            {line,
             "assert 'false' in SqlRecord.cpp (sql::Value* sql::Record::getValue(const string&))",
             line,
             "assert 'false' in SqlRecord.cpp (const sql::Value* sql::Record::getValue(const string&) const)",
             "[ERROR] SqlRecord.cpp (fieldByName) - Field/column '" + shown(name) + "' not found",
             "assert 'false' in SqlRecord.cpp (const sql::Field* sql::Record::fieldByName(const string&) const)"});
    });
}

TEST_P(HostileCellTest, SettersOfAnUnknownColumnChangeNothing)
{
    forEach([this](const std::string& name) {
        if (_products.getByName(name) != nullptr)
            return;
        Record record(_products);
        record.setNull(name);
        record.setString(name, name);
        record.setInteger(name, 7);
        record.setDouble(name, 2.5);
        record.setBool(name, true);
        record.setTime(name, sql::Time(0));
        EXPECT_EQ(record.toString(), "null|null|null");
        const Texts expected(6, "Field/column '" + shown(name) + "' not found");
        EXPECT_TRUE(_diagnostics.errors() == expected);
        EXPECT_EQ(_diagnostics.assertions(), Texts(6, "false"));
    });
}

TEST_P(HostileCellTest, ColumnNameIsFoundByAllItsBytes)
{
    forEach([this](const std::string& name) {
        if (name.empty())
            return; // closes a column declaration
        const Field columns[] = {Field("id", sql::type_int, sql::flag_primary_key),
                                 Field("\x01" + name, sql::type_text, sql::flag_none), Field()};
        const FieldSet fields(columns);
        Record record(fields);
        record.setString("\x01" + name, "tea");
        ASSERT_NE(fields.getByName("\x01" + name), nullptr);
        EXPECT_EQ(record.toString(), "null|tea");
        EXPECT_EQ(fields.getByName("\x01" + name + '\0'), nullptr);
        EXPECT_TRUE(fields.toSql() == "id, \x01" + name);
        EXPECT_TRUE(fields.getDefinition() == "id INTEGER PRIMARY KEY, \x01" + name + " TEXT");
        EXPECT_TRUE(columns[1].dump() == "-1: name=\x01" + name + ", type=text, flags:");
        expectEvents({});
    });
}

TEST_P(HostileCellTest, DefinitionOfAColumnHasNoBlanksAround)
{
    forEach([this](const std::string& name) {
        if (name.empty())
            return;
        EXPECT_TRUE(Field(name, sql::type_float, sql::flag_unique).getDefinition()
                    == withoutBlanksAround(name + " REAL UNIQUE"));
        expectEvents({});
    });
}

TEST_P(HostileCellTest, KeyColumnOfAWrongTypeIsReportedWhole)
{
    forEach([this](const std::string& name) {
        if (name.empty())
            return;
        const Field columns[] = {Field(name, sql::type_float, sql::flag_primary_key), Field()};
        EXPECT_EQ(FieldSet(columns).count(), 0);
        expectEvents({"[ERROR] SqlFieldSet.cpp (initFieldSet) - PRIMARY KEY column '" + shown(name)
                          + "' must be of type 'integer' or 'text' instead of type 'float'",
                      "assert 'false' in SqlFieldSet.cpp (bool sql::FieldSet::initFieldSet(const "
                      "sql::Field*))"});
    });
}

// What an application stores in a file and reads back.
class HostileRoundTripTest : public HostileTextTest {
protected:
    HostileRoundTripTest()
        : _file(_directory.file("shop.db")), _fields(test::product_columns),
          _codes(test::text_key_columns)
    {
        reopen();
        Table(_db.getHandle(), "product", _fields).create();
        Table(_db.getHandle(), "vendor", _codes).create();
        _db.transactionBegin();
    }

    void reopen()
    {
        _db.open(_file, Database::access_create, false, 0);
    }

    // Past SQLite's own conversions: what a program that does not end texts at zero bytes sees.
    std::string stored(const std::string& expression)
    {
        sqlite3_stmt* statement = nullptr;
        const std::string sql = "select " + expression + " from product where id = 1";
        sqlite3_prepare_v2(_db.getHandle(), sql.c_str(), -1, &statement, nullptr);
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

    // SQLite ends a statement at a zero byte, in the midst of the literal.
    static Texts refusal(const std::string& statement)
    {
        const std::string literal = statement.substr(statement.find('\''));
        return {"[DEBUG2] SqlRecordSet.cpp (query) - stmt='" + shown(statement) + "'",
                "[ERROR] SqlRecordSet.cpp (query) - Failed to run the SQL stmt '" + shown(statement)
                    + "'",
                "[ERROR] SqlRecordSet.cpp (query) -   rc=1=SQLITE_ERROR: unrecognized token: \""
                    + shown(literal) + "\""};
    }

    test::TemporaryDirectory _directory;
    std::string _file;
    FieldSet _fields;
    FieldSet _codes;
    Database _db;
};

INSTANTIATE_TEST_SUITE_P(Levels, HostileRoundTripTest, testing::Values(3, 9), levelName);

TEST_P(HostileRoundTripTest, AddedTextComesBackUnchangedUnlessItHasAZeroByte)
{
    forEach([this](const std::string& text) {
        Table table(_db.getHandle(), "product", _fields);
        table.truncate();
        _diagnostics.clear();
        const bool added = table.addRecord(product(1, text));
        if (hasZeroByte(text)) {
            EXPECT_FALSE(added);
            expectEvents(refusal("insert into product (id, name, price) values (1, " + quoted(text)
                                 + ", null)"));
            EXPECT_EQ(table.totalRecordCount(), 0);
            return;
        }
        EXPECT_TRUE(added);
        ASSERT_NE(table.getRecordByKeyId(1), nullptr);
        EXPECT_TRUE(table.getTopRecord()->getValue("name")->asString() == text);
        EXPECT_TRUE(stored("name") == text);
        EXPECT_THAT(_diagnostics.errors(), IsEmpty());
    });
}

TEST_P(HostileRoundTripTest, UpdatedTextComesBackUnchangedUnlessItHasAZeroByte)
{
    Table table(_db.getHandle(), "product", _fields);
    table.addRecord(product(1, "tea"));
    forEach([this, &table](const std::string& text) {
        const std::string former = stored("name");
        _diagnostics.clear();
        const bool updated = table.updateRecord(product(1, text));
        if (hasZeroByte(text)) {
            EXPECT_FALSE(updated);
            expectEvents(
                refusal("update product set name=" + quoted(text) + ", price=null where id = 1"));
            EXPECT_TRUE(stored("name") == former);
            return;
        }
        EXPECT_TRUE(updated);
        EXPECT_TRUE(stored("name") == text);
        EXPECT_THAT(_diagnostics.errors(), IsEmpty());
    });
}

TEST_P(HostileRoundTripTest, AllTextsOfATableOutliveItsConnection)
{
    Texts expected;
    Table table(_db.getHandle(), "product", _fields);
    for (const std::string& text : hostileTexts()) {
        if (!hasZeroByte(text)) {
            expected.push_back(std::to_string(expected.size() + 1) + "|" + text + "|null");
            ASSERT_TRUE(
                table.addOrUpdateRecord(static_cast<sql::integer>(expected.size()),
                                        product(static_cast<sql::integer>(expected.size()), text)));
        }
    }
    _db.transactionCommit();
    reopen();
    Table again(_db.getHandle(), "product", _fields);
    EXPECT_TRUE(again.open("", "id"));
    EXPECT_TRUE(held(again) == expected);
    EXPECT_THAT(_diagnostics.errors(), IsEmpty());
}

TEST_P(HostileRoundTripTest, TextsAreCopiedToAnotherTable)
{
    Table table(_db.getHandle(), "product", _fields);
    sql::integer id = 0;
    for (const std::string& text : hostileTexts()) {
        if (!hasZeroByte(text))
            table.addRecord(product(++id, text));
    }
    Table copy(_db.getHandle(), "archive", _fields);
    EXPECT_TRUE(copy.backup(table));
    EXPECT_TRUE(copy.open("", "id"));
    EXPECT_TRUE(held(copy) == held(table));
    EXPECT_EQ(copy.recordCount(), id);
    EXPECT_THAT(_diagnostics.errors(), IsEmpty());
}

TEST_P(HostileRoundTripTest, QuotedTextInAConditionFindsItsRowOnly)
{
    forEach([this](const std::string& text) {
        Table table(_db.getHandle(), "product", _fields);
        table.truncate();
        table.addRecord(product(1, text));
        table.addRecord(product(2, "x" + text + "x"));
        const bool loaded = table.open("name = '" + sql::quoteStr(text) + "'");
        EXPECT_EQ(loaded, !hasZeroByte(text));
        EXPECT_EQ(table.recordCount(), loaded ? 1 : 0);
        EXPECT_TRUE(table.deleteRecords("name = '" + sql::quoteStr(text) + "'") == loaded);
        EXPECT_EQ(table.totalRecordCount(), loaded ? 1 : 0);
    });
}

// Keys that end within their quotes, or are taken for a column, do otherwise: see HostileKeyTest.
TEST_P(HostileRoundTripTest, TextKeyFindsItsRowOnly)
{
    const std::set<std::string> columns = {"code", "name", "rowid", "oid", "_rowid_"};
    forEach([this, &columns](const std::string& key) {
        if (hasZeroByte(key) || key.find('"') != std::string::npos || columns.count(key) != 0)
            return;
        Table table(_db.getHandle(), "vendor", _codes);
        table.truncate();
        Record record(_codes);
        record.setString("code", "x" + key + "x");
        EXPECT_TRUE(table.addRecord(record));
        EXPECT_FALSE(table.hasRecordWithKeyId(key));
        record.setString("code", key);
        EXPECT_TRUE(table.addOrUpdateRecord(key, record));
        EXPECT_TRUE(table.hasRecordWithKeyId(key));
        ASSERT_NE(table.getRecordByKeyId(key), nullptr);
        EXPECT_TRUE(table.getTopRecord()->getKeyIdValue()->asString() == key);
        EXPECT_TRUE(table.deleteRecord(key));
        EXPECT_EQ(table.totalRecordCount(), 1);
        EXPECT_THAT(_diagnostics.errors(), IsEmpty());
    });
}

TEST_P(HostileRoundTripTest, TextStoredWithAZeroByteByOthersIsReadUpToIt)
{
    Table table(_db.getHandle(), "product", _fields);
    EXPECT_TRUE(table.query("insert into product values (1, 'tea' || char(0) || 'pot', null)"));
    EXPECT_EQ(stored("name"), std::string("tea\0pot", 7));
    EXPECT_TRUE(table.open());
    EXPECT_THAT(held(table), ElementsAre("1|tea|null"));
    EXPECT_THAT(_diagnostics.errors(), IsEmpty());
}

TEST_P(HostileRoundTripTest, IntegersAtEveryLimitComeBack)
{
    for (int bit = 0; bit < 64; ++bit) {
        for (const long long less : {0, 1}) {
            const auto number = static_cast<sql::integer>((1ULL << bit)
                                                          - static_cast<unsigned>(less));
            Record record = product(number, "tea");
            record.setInteger("name", number);
            Table table(_db.getHandle(), "product", _fields);
            EXPECT_TRUE(table.addOrUpdateRecord(number, record)) << number;
            ASSERT_NE(table.getRecordByKeyId(number), nullptr) << number;
            EXPECT_EQ(table.getTopRecord()->getValue("id")->asInteger(), number);
            EXPECT_EQ(table.getTopRecord()->getValue("name")->asString(), std::to_string(number));
            EXPECT_TRUE(table.deleteRecord(number));
            EXPECT_EQ(table.totalRecordCount(), 0);
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
    Table table(_db.getHandle(), "product", _fields);
    for (const double number :
         {std::numeric_limits<double>::quiet_NaN(), std::numeric_limits<double>::infinity(),
          -std::numeric_limits<double>::infinity()}) {
        const std::string text = fixedPoint(number);
        const std::string name = text.substr(text[0] == '-' ? 1 : 0);
        Record record = product(1, "tea");
        record.setDouble("price", number);
        _diagnostics.clear();
        EXPECT_FALSE(table.addRecord(record));
        EXPECT_THAT(
            _diagnostics.errors(),
            ElementsAre(std::string("Failed to run the SQL stmt 'insert into product (id, name, "
                                    "price) values (1, 'tea', ")
                            + text + ")'",
                        "  rc=1=SQLITE_ERROR: no such column: " + name));
    }
    EXPECT_EQ(table.totalRecordCount(), 0);
}

TEST_P(HostileRoundTripTest, RealsComeBackAsFarAsTheirTextHoldsThem)
{
    Table table(_db.getHandle(), "product", _fields);
    for (int exponent = -1074; exponent <= 1023; ++exponent) {
        for (const double sign : {1.0, -1.0}) {
            const double number = std::ldexp(sign, exponent);
            const std::string text = fixedPoint(number);
            Record record = product(1, "tea");
            record.setDouble("price", number);
            record.setDouble("name", number);
            ASSERT_TRUE(table.addOrUpdateRecord(1, record)) << number;
            ASSERT_NE(table.getRecordByKeyId(1), nullptr);
            const Record& row = *table.getTopRecord();
            EXPECT_EQ(row.getValue("name")->asString(), text);
            // SQLite gives 15 digits of a real.
            const double expected = real(text);
            EXPECT_NEAR(row.getValue("price")->asDouble(), expected, std::fabs(expected) * 1e-14);
        }
    }
    EXPECT_THAT(_diagnostics.errors(), IsEmpty());
}

// The same result, rows, reports and contents as plain SQLite gives with the statements that the
// library has to build: a text that stands in them verbatim does what SQL makes of it.
struct Step {
    template <typename Generic> Step(Generic run) : library(run), plain(run)
    {
    }

    std::function<std::string(Table&)> library;
    std::function<std::string(TwinTable&)> plain;
};

const char* const shop =
    "create table product (id integer primary key, name text, price real);"
    "create table vendor (code text primary key, name text);"
    "insert into product values (1, 'tea', 2.5), (2, 'O''Brien', null), (7, '', 0), (-1, 'x', -1e300);"
    "insert into vendor values ('tea', 'one'), ('7', 'two'), ('', 'three'), ('vendor', 'vendor'), ('%s', '%n');"
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

class HostileStatementTest : public HostileTextTest {
protected:
    HostileStatementTest() : _fields(test::product_columns), _codes(test::text_key_columns)
    {
    }

    // Runs the steps on a table of new databases, each after the other.
    void expectSame(const std::string& name, const FieldSet& fields, const std::vector<Step>& steps)
    {
        const Pair pair;
        test::Twin twin(pair.plain);
        Table table(pair.library, name, fields);
        TwinTable expected(twin, name, fields);
        _diagnostics.clear();
        for (const Step& step : steps) {
            EXPECT_TRUE(step.library(table) == step.plain(expected));
            EXPECT_TRUE(held(table) == held(expected));
        }
        expectSame(pair, twin);
    }

    void expectSame(const Pair& pair, const test::Twin& twin)
    {
        expectEvents(twin.events());
        EXPECT_TRUE(image(pair.library) == image(pair.plain));
        EXPECT_EQ(sqlite3_get_autocommit(pair.library), sqlite3_get_autocommit(pair.plain));
    }

    FieldSet _fields;
    FieldSet _codes;
};

INSTANTIATE_TEST_SUITE_P(Levels, HostileStatementTest, testing::Values(3, 9), levelName);

TEST_P(HostileStatementTest, TextInANumberColumnIsWrittenVerbatim)
{
    forEach([this](const std::string& text) {
        Record record(_fields);
        record.setInteger("id", 1);
        record.setString("name", "new");
        record.setString("price", text);
        expectSame("product", _fields, {[&](auto& table) {
                       return result(table.updateRecord(record));
                   }});
        record.setInteger("id", 50);
        expectSame("product", _fields, {[&](auto& table) {
                       return result(table.addRecord(record));
                   }});
    });
}

TEST_P(HostileStatementTest, TextInTheKeyCellIsWrittenVerbatim)
{
    forEach([this](const std::string& text) {
        Record record(_fields);
        record.setString("id", text);
        record.setString("name", "new");
        expectSame("product", _fields, {[&](auto& table) {
                       return result(table.updateRecord(record));
                   }});
        expectSame("product", _fields, {[&](auto& table) {
                       return result(table.addRecord(record));
                   }});
        Record coded(_codes);
        coded.setString("code", text);
        expectSame("vendor", _codes, {[&](auto& table) {
                       return result(table.updateRecord(coded));
                   }});
    });
}

TEST_P(HostileStatementTest, TextKeyStandsUnescapedBetweenDoubleQuotesDeliberately)
{
    forEach([this](const std::string& key) {
        Record record(_codes);
        record.setString("code", "new");
        record.setString("name", "changed");
        const std::vector<Step> steps = {
            [&](auto& table) { return result(table.hasRecordWithKeyId(key)); },
            [&](auto& table) { return result(table.getRecordByKeyId(key)); },
            [&](auto& table) { return result(table.addOrUpdateRecord(key, record)); },
            [&](auto& table) { return result(table.deleteRecord(key)); },
        };
        expectSame("vendor", _codes, steps);
    });
}

TEST_P(HostileStatementTest, TextKeyOfANumberColumnStandsUnescapedToo)
{
    forEach([this](const std::string& key) {
        Record record(_fields);
        record.setInteger("id", 1);
        record.setString("name", key);
        const std::vector<Step> steps = {
            [&](auto& table) { return result(table.hasRecordWithKeyId(key)); },
            [&](auto& table) { return result(table.getRecordByKeyId(key)); },
            [&](auto& table) { return result(table.addOrUpdateRecord(key, record)); },
            [&](auto& table) { return result(table.deleteRecord(key)); },
        };
        expectSame("product", _fields, steps);
    });
}

TEST_P(HostileStatementTest, ColumnNameStandsVerbatim)
{
    forEach([this](const std::string& name) {
        if (name.empty())
            return;
        const Field columns[] = {Field("id", sql::type_int, sql::flag_primary_key),
                                 Field(name, sql::type_text, sql::flag_unique), Field()};
        const FieldSet fields(columns);
        Record record(fields);
        record.setInteger("id", 3);
        if (name != "id")
            record.setString(name, name);
        const std::vector<Step> steps = {
            [&](auto& table) { return result(table.create()); },
            [&](auto& table) { return result(table.addRecord(record)); },
            [&](auto& table) { return result(table.updateRecord(record)); },
            [&](auto& table) { return result(table.open()); },
        };
        expectSame("goods", fields, steps);
    });
}

TEST_P(HostileStatementTest, KeyColumnNameStandsVerbatim)
{
    forEach([this](const std::string& name) {
        if (name.empty())
            return;
        const Field columns[] = {Field(name, sql::type_int, sql::flag_primary_key), Field()};
        const std::vector<Step> steps = {
            [](auto& table) { return result(table.getRecordByKeyId(7)); },
            [](auto& table) { return result(table.hasRecordWithKeyId("7")); },
            [](auto& table) { return result(table.deleteRecord(7)); },
        };
        expectSame("product", FieldSet(columns), steps);
    });
}

TEST_P(HostileStatementTest, TableNameStandsVerbatim)
{
    forEach([this](const std::string& name) {
        if (name.empty())
            return; // makes no INSERT
        Record record(_fields);
        record.setInteger("id", 50);
        record.setString("name", name);
        const std::vector<Step> steps = {
            [](auto& table) { return result(table.exists()); },
            [](auto& table) { return result(table.create()); },
            [&](auto& table) { return result(table.addRecord(record)); },
            [&](auto& table) { return result(table.updateRecord(record)); },
            [](auto& table) { return result(table.open()); },
            [](auto& table) { return result(table.open("id = 50", "id")); },
            [](auto& table) { return result(table.totalRecordCount()); },
            [](auto& table) { return result(table.deleteRecord(50)); },
        };
        expectSame(name, _fields, steps);
        expectSame(name, _fields, {[](auto& table) {
                       return result(table.truncate());
                   }});
        expectSame(name, _fields, {[](auto& table) {
                       return result(table.remove());
                   }});
    });
}

TEST_P(HostileStatementTest, ConditionStandsVerbatim)
{
    forEach([this](const std::string& condition) {
        expectSame("product", _fields, {[&](auto& table) {
                       return result(table.open(condition));
                   }});
        expectSame("product", _fields, {[&](auto& table) {
                       return result(table.open(condition, "id desc"));
                   }});
        expectSame("product", _fields, {[&](auto& table) {
                       return result(table.deleteRecords(condition));
                   }});
    });
}

TEST_P(HostileStatementTest, OrderStandsVerbatim)
{
    forEach([this](const std::string& order) {
        expectSame("product", _fields, {[&](auto& table) {
                       return result(table.open("", order));
                   }});
        expectSame("product", _fields, {[&](auto& table) {
                       return result(table.open("id > 0", order));
                   }});
    });
}

TEST_P(HostileStatementTest, StatementRunsAsItStands)
{
    forEach([this](const std::string& statement) {
        const std::vector<Step> steps = {
            [&](auto& table) { return result(table.query(statement)); },
            [](auto& table) { return result(table.open()); },
        };
        expectSame("product", _fields, steps);
    });
}

TEST_P(HostileStatementTest, QueryForANumberRunsAsItStands)
{
    forEach([this](const std::string& statement) {
        const Pair pair;
        test::Twin twin(pair.plain);
        EXPECT_EQ(sql::queryNumber(pair.library, statement), twin.number(statement));
        expectSame(pair, twin);
    });
}

TEST_P(HostileStatementTest, OneStepStatementRunsAsItStands)
{
    forEach([this](const std::string& statement) {
        const Pair pair;
        test::Twin twin(pair.plain);
        EXPECT_EQ(sql::runOneStepSqlStmt(pair.library, statement), twin.oneStep(statement));
        expectSame(pair, twin);
    });
}

// Names of database files, in two directories with paths of the same length. They are deep enough for
// a name that leads upwards.
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
        Texts expected = {"[DEBUG1] SqlDatabase.cpp (open) - Opening database '"
                          + shown(_library + name) + "'"};
        if (rc != SQLITE_OK)
            expected.push_back("[ERROR] SqlDatabase.cpp (open) - Failed to open the database "
                               + shown(_library + name) + ": rc=" + std::to_string(rc) + "="
                               + sql::sqliteRc2Str(rc) + ": " + sqlite3_errmsg(plain));
        expectEvents(expected);
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
        : _fields(test::product_columns), _codes(test::text_key_columns),
          _vendors(_db, "vendor", _codes), _products(_db, "product", _fields)
    {
        _db.run(shop);
    }

    std::string tables()
    {
        return _db.rows("select name from sqlite_master where type = 'table' order by name");
    }

    test::Diagnostics _diagnostics;
    test::Connection _db;
    FieldSet _fields;
    FieldSet _codes;
    Table _vendors;
    Table _products;
};

const std::string dropping_key = "\"; drop table vendor; --";

TEST_F(HostileKeyTest, KeyToLoadCanDropTheTableDeliberately)
{
    EXPECT_EQ(_vendors.getRecordByKeyId(dropping_key)->toString(), "|three");
    EXPECT_EQ(tables(), "product");
    EXPECT_THAT(_diagnostics.events(), IsEmpty());
}

TEST_F(HostileKeyTest, KeyToDeleteCanDropTheTableDeliberately)
{
    EXPECT_TRUE(_vendors.deleteRecord(dropping_key));
    EXPECT_EQ(tables(), "product");
    EXPECT_THAT(_diagnostics.events(), IsEmpty());
}

// Only the first statement of the text is run there.
TEST_F(HostileKeyTest, KeyToTestForCannotDropTheTable)
{
    EXPECT_TRUE(_vendors.hasRecordWithKeyId(dropping_key));
    EXPECT_EQ(tables(), "product\nvendor");
    EXPECT_THAT(_diagnostics.events(), IsEmpty());
}

TEST_F(HostileKeyTest, KeyWithACommentFindsAnyRowDeliberately)
{
    EXPECT_EQ(_vendors.getRecordByKeyId("\" or 1 = 1 --")->toString(), "tea|one");
    EXPECT_EQ(_vendors.recordCount(), 5);
    EXPECT_THAT(_diagnostics.events(), IsEmpty());
}

// A double-quoted word is a column's name first.
TEST_F(HostileKeyTest, KeyNamedLikeAColumnIsComparedWithItDeliberately)
{
    EXPECT_EQ(_vendors.getRecordByKeyId("name")->toString(), "vendor|vendor");
    EXPECT_EQ(_vendors.recordCount(), 1);
    EXPECT_EQ(_vendors.getRecordByKeyId("CODE")->toString(), "tea|one");
    EXPECT_EQ(_vendors.recordCount(), 5);
    EXPECT_EQ(_products.getRecordByKeyId("rowid")->toString(), "-1|x|-1.0e+300");
    EXPECT_EQ(_products.recordCount(), 4);
    EXPECT_THAT(_diagnostics.events(), IsEmpty());
}

TEST_F(HostileKeyTest, KeyWithADoubleQuoteIsRefused)
{
    EXPECT_EQ(_vendors.getRecordByKeyId("5\" disc"), nullptr);
    EXPECT_THAT(
        _diagnostics.errors(),
        ElementsAre("Failed to run the SQL stmt 'select * from vendor where code = \"5\" disc\"'",
                    "  rc=1=SQLITE_ERROR: near \"disc\": syntax error"));
}

TEST_F(HostileKeyTest, KeyWithAZeroByteIsRefused)
{
    EXPECT_FALSE(_vendors.hasRecordWithKeyId(std::string("tea\0", 4)));
    EXPECT_THAT(
        _diagnostics.errors(),
        ElementsAre("Failed to prepare the SQL query 'select count(*) from vendor where code = "
                    "\"tea': ",
                    "  rc=1=SQLITE_ERROR: unrecognized token: \"\"tea\""));
}

TEST_F(HostileKeyTest, TextInANumberColumnCanDropTheTableDeliberately)
{
    Record record(_fields);
    record.setString("price", "1); drop table product; --");
    EXPECT_TRUE(_products.addRecord(record));
    EXPECT_EQ(tables(), "vendor");
    EXPECT_THAT(_diagnostics.events(), IsEmpty());
}

TEST_F(HostileKeyTest, TextInATextColumnCannotDropTheTable)
{
    Record record(_fields);
    record.setString("name", "1'); drop table product; --");
    EXPECT_TRUE(_products.addRecord(record));
    EXPECT_EQ(_db.rows("select name from product where id = 8"), "1'); drop table product; --");
    EXPECT_THAT(_diagnostics.events(), IsEmpty());
}

TEST_F(HostileKeyTest, ConditionOrderAndNameCanDropTheTableDeliberately)
{
    EXPECT_TRUE(_products.open("id = 1; drop table product"));
    EXPECT_EQ(tables(), "vendor");
    EXPECT_TRUE(_vendors.open("", "code; create table product (id)"));
    EXPECT_EQ(tables(), "product\nvendor");
    EXPECT_TRUE(Table(_db, "product; drop table product", _fields).open());
    EXPECT_EQ(tables(), "vendor");
    EXPECT_THAT(_diagnostics.events(), IsEmpty());
}

TEST(HostileTextsTest, AreManyAndDifferent)
{
    EXPECT_GT(hostileTexts().size(), 600U);
    EXPECT_EQ(std::set<std::string>(hostileTexts().begin(), hostileTexts().end()).size(),
              hostileTexts().size());
}

} // namespace
