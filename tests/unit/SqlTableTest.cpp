#include "SqlTable.h"

#include "Columns.h"
#include "Declarations.h"
#include "Diagnostics.h"
#include "Environment.h"
#include "Rows.h"
#include "Sqlite.h"
#include "Wording.h"

#include <gmock/gmock.h>

#include <initializer_list>
#include <limits>
#include <ostream>
#include <string>
#include <type_traits>
#include <vector>

namespace {

using sql::Field;
using sql::FieldSet;
using sql::integer;
using sql::Record;
using sql::string;
using sql::Table;
using test::declared;
using test::held;
using test::visibleAt;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::ValuesIn;

typedef std::vector<std::string> Texts;

static_assert(!std::is_copy_constructible<Table>::value, "rows point into their table");
static_assert(!std::is_copy_assignable<Table>::value, "rows point into their table");
static_assert(!std::is_polymorphic<Table>::value, "a plain class");

// The declarations, as users compile against them.
static_assert(std::is_constructible<Table, const string&>::value);
static_assert(std::is_constructible<Table, sqlite3*, const string&, const Field*>::value);
static_assert(std::is_constructible<Table, sqlite3*, const string&, const FieldSet&>::value);
static_assert(declared<bool (Table::*)(sqlite3*, const Field*)>(&Table::initTable));
static_assert(declared<string (Table::*)() const>(&Table::name));
static_assert(declared<const FieldSet* (Table::*)() const>(&Table::fields));
static_assert(declared<sqlite3* (Table::*)()>(&Table::getHandle));
static_assert(declared<bool (Table::*)()>(&Table::exists));
static_assert(declared<bool (Table::*)()>(&Table::create));
static_assert(declared<bool (Table::*)()>(&Table::remove));
static_assert(declared<bool (Table::*)()>(&Table::truncate));
static_assert(declared<int (Table::*)() const>(&Table::totalRecordCount));
static_assert(declared<string (Table::*)() const>(&Table::getDefinition));
static_assert(declared<string (Table::*)() const>(&Table::toString));
static_assert(declared<bool (Table::*)()>(&Table::open));
static_assert(declared<bool (Table::*)(const string&)>(&Table::open));
static_assert(declared<bool (Table::*)(const string&, const string&)>(&Table::open));
static_assert(declared<bool (Table::*)(const string&)>(&Table::query));
static_assert(declared<int (Table::*)() const>(&Table::recordCount));
static_assert(declared<Record* (Table::*)(int)>(&Table::getRecord));
static_assert(declared<Record* (Table::*)()>(&Table::getTopRecord));
static_assert(declared<Record* (Table::*)(string)>(&Table::getRecordByKeyId));
static_assert(declared<Record* (Table::*)(integer)>(&Table::getRecordByKeyId));
static_assert(declared<bool (Table::*)(string)>(&Table::hasRecordWithKeyId));
static_assert(declared<bool (Table::*)(integer)>(&Table::hasRecordWithKeyId));
static_assert(declared<bool (Table::*)(const Record&)>(&Table::addRecord));
static_assert(declared<bool (Table::*)(const Record&)>(&Table::updateRecord));
static_assert(declared<bool (Table::*)(string, const Record&)>(&Table::addOrUpdateRecord));
static_assert(declared<bool (Table::*)(integer, const Record&)>(&Table::addOrUpdateRecord));
static_assert(declared<bool (Table::*)(string)>(&Table::deleteRecord));
static_assert(declared<bool (Table::*)(integer)>(&Table::deleteRecord));
static_assert(declared<bool (Table::*)(const string&)>(&Table::deleteRecords));
static_assert(declared<bool (Table::*)(Table&)>(&Table::copyRecords));
static_assert(declared<bool (Table::*)(Table&)>(&Table::backup));

// --- What the library reports, whole

const char no_connection[] =
    "assert '_db' in SqlRecordSet.cpp (bool sql::RecordSet::query(const string&))";
const char nothing_to_count_on[] =
    "assert 'db' in SqlCommon.cpp (int sql::queryNumber(sqlite3*, const string&))";

Texts joined(std::initializer_list<Texts> parts)
{
    Texts all;
    for (const Texts& part : parts)
        all.insert(all.end(), part.begin(), part.end());
    return all;
}

// A statement that went through a record set, and one through the counting of rows.
Texts ran(const std::string& statement)
{
    return {"[DEBUG2] SqlRecordSet.cpp (query) - stmt='" + statement + "'"};
}

Texts counted(const std::string& statement, const std::string& number)
{
    return {"[DEBUG2] SqlCommon.cpp (queryNumber) - stmt='" + statement + "'",
            "[DEBUG2] SqlCommon.cpp (queryNumber) - SQLite returned number=" + number};
}

std::string rowRead(const std::string& dump)
{
    return "[DEBUG3] SqlRecordSet.cpp (on_next_record) - " + dump;
}

// The same two when SQLite refuses, for a reason such as "1=SQLITE_ERROR: no such table: product".
Texts refused(const std::string& statement, const std::string& reason)
{
    return {"[DEBUG2] SqlRecordSet.cpp (query) - stmt='" + statement + "'",
            "[ERROR] SqlRecordSet.cpp (query) - Failed to run the SQL stmt '" + statement + "'",
            "[ERROR] SqlRecordSet.cpp (query) -   rc=" + reason};
}

Texts notCounted(const std::string& statement, const std::string& reason)
{
    return {"[DEBUG2] SqlCommon.cpp (queryNumber) - stmt='" + statement + "'",
            "[ERROR] SqlCommon.cpp (queryNumber) - Failed to prepare the SQL query '" + statement
                + "': ",
            "[ERROR] SqlCommon.cpp (queryNumber) -   rc=" + reason};
}

const Texts no_key_name = {
    "[ERROR] SqlFieldSet.cpp (getKeyIdName) - Failed to get name of PRIMARY KEY column",
    "assert 'false' in SqlFieldSet.cpp (sql::string sql::FieldSet::getKeyIdName() const)"};

Texts missingKeyTwice(const std::string& function, const std::string& signature)
{
    return joined(
        {no_key_name,
         {"[ERROR] SqlTable.cpp (" + function + ") - Failed to get name of PRIMARY KEY column",
          "assert 'false' in SqlTable.cpp (" + signature + ")"}});
}

Texts noDefinition(const std::string& table)
{
    return {
        "[ERROR] SqlTable.cpp (getDefinition) - Failed to build SQL CREATE TABLE stmt for table "
            + table,
        "assert 'false' in SqlTable.cpp (sql::string sql::Table::getDefinition() const)"};
}

Texts noCreation(const std::string& table)
{
    return {"[ERROR] SqlTable.cpp (create) - Failed to build SQL CREATE TABLE stmt for table "
                + table,
            "assert 'false' in SqlTable.cpp (bool sql::Table::create())"};
}

const std::string no_insert =
    "assert 'false' in SqlRecord.cpp (sql::string sql::Record::toSqlInsert(const string&) const)";
const std::string no_update =
    "assert 'false' in SqlRecord.cpp (sql::string sql::Record::toSqlUpdate(const string&) const)";

std::string existenceOf(const std::string& name)
{
    return "select count(*) from sqlite_master where type = 'table' and name = '" + name + "'";
}

// Those without a level come last, since there is no way back from them.
const int without_level = -1;
const int without_trace_object = -2;
const int levels[] = {0, 2, 3, 6, 7, 8, 9, without_level, without_trace_object};

void setLevel(test::Diagnostics& diagnostics, int level)
{
    if (level == without_level)
        diagnostics.removeLevel();
    else if (level == without_trace_object)
        diagnostics.removeTraceObject();
    else
        diagnostics.setLevel(level);
}

// --- Rows to write and rows in the database

Record product(const Table& table, const std::string& name, double price)
{
    Record record(*table.fields());
    record.setString("name", name);
    record.setDouble("price", price);
    return record;
}

Record product(const Table& table, integer id, const std::string& name, double price)
{
    Record record = product(table, name, price);
    record.setInteger("id", id);
    return record;
}

bool updateOfATextKeyFails(Table& table)
{
    Record record(*table.fields());
    record.setString("code", "A1");
    record.setString("name", "rum");
    return !table.updateRecord(record);
}

void fillProducts(test::Connection& db)
{
    db.run("CREATE TABLE product (id INTEGER PRIMARY KEY, name TEXT, price REAL);"
           "insert into product select 1, 'tea', 2.5 union all select 2, 'coffee', 4.5"
           " union all select 3, 'milk', 1.25");
}

const char three_products[] = "1|tea|2.5\n2|coffee|4.5\n3|milk|1.25";

std::string products(test::Connection& db, const std::string& name = "product")
{
    return db.rows("select * from " + name);
}

// SQLite refuses one kind of action while this object lives.
class Denied {
public:
    Denied(sqlite3* db, int action) : _db(db), _action(action)
    {
        sqlite3_set_authorizer(_db, answer, &_action);
    }
    ~Denied()
    {
        sqlite3_set_authorizer(_db, nullptr, nullptr);
    }
    Denied(const Denied&) = delete;
    Denied& operator=(const Denied&) = delete;

private:
    static int answer(void* denied, int action, const char*, const char*, const char*, const char*)
    {
        return action == *static_cast<int*>(denied) ? SQLITE_DENY : SQLITE_OK;
    }

    sqlite3* _db;
    int _action;
};

// --- Every operation that succeeds: its statements, its route and the rows held afterwards

typedef bool (*Act)(Table&); // whether the result is the expected one

struct Operation {
    const char* name;
    Act act;
    Texts statements;
    Texts report; // at level 9
    Texts rowsHeld;
};

void PrintTo(const Operation& operation, std::ostream* out)
{
    *out << operation.name;
}

// A row as it is traced and as it is held.
struct Row {
    const char* dump;
    const char* text;
};

const Row tea = {"id = 1|name = tea|price = 2.5", "1|tea|2.5"};
const Row coffee = {"id = 2|name = coffee|price = 4.5", "2|coffee|4.5"};
const Row milk = {"id = 3|name = milk|price = 1.25", "3|milk|1.25"};
const Row selected = {"id = 9|name = rum|price = 8", "9|rum|8"};

const Texts all_held = {tea.text, coffee.text, milk.text};

// The three products, of which the first was marked in memory after they were loaded.
const Texts kept = {"1|marked|2.5", "2|coffee|4.5", "3|milk|1.25"};

// The three routes: the table's own record set, counting, and a record set beside the own one.
Operation loads(const char* name, Act act, const char* statement,
                std::initializer_list<Row> rows = {})
{
    Operation operation = {name, act, {statement}, ran(statement), {}};
    for (const Row& row : rows) {
        operation.report.push_back(rowRead(row.dump));
        operation.rowsHeld.push_back(row.text);
    }
    return operation;
}

Operation counts(const char* name, Act act, const char* statement, const char* number)
{
    return {name, act, {statement}, counted(statement, number), kept};
}

Operation writes(const char* name, Act act, const char* statement)
{
    return {name, act, {statement}, ran(statement), kept};
}

Operation runsNothing(const char* name, Act act)
{
    return {name, act, {}, {}, kept};
}

Operation finds(const char* name, Act act)
{
    const std::string statement =
        "select count(*) from sqlite_master where type = 'table' and name = 'product'";
    const std::string line = "[DEBUG2] SqlTable.cpp (exists) - Table 'product' exists";
    return {name, act, {statement}, joined({counted(statement, "1"), {line}}), kept};
}

Operation chooses(const char* name, Act act, const char* count, const char* number,
                  const char* line, const char* write)
{
    const std::string choice = std::string("[DEBUG2] SqlTable.cpp (addOrUpdateRecord) - ") + line;
    return {
        name, act, {count, write}, joined({counted(count, number), {choice}, ran(write)}), kept};
}

const Operation operations[] = {
    finds("ExistsCounts", [](Table& t) { return t.exists(); }),
    finds("CreateOfAnExistingTableRunsNothing", [](Table& t) { return t.create(); }),
    loads(
        "RemoveDropsTheTable", [](Table& t) { return t.remove(); }, "drop table product"),
    loads(
        "TruncateDeletesAllRows", [](Table& t) { return t.truncate(); }, "delete from product"),
    counts(
        "TotalRecordCountCounts", [](Table& t) { return t.totalRecordCount() == 3; },
        "select count(*) from product", "3"),

    loads("OpenLoadsAllRows", [](Table& t) { return t.open(); }, "select * from product",
          {tea, coffee, milk}),
    loads("OpenWithAnEmptyConditionLoadsAllRows", [](Table& t) { return t.open(""); },
          "select * from product", {tea, coffee, milk}),
    loads("OpenWithAnEmptyConditionAndOrderLoadsAllRows", [](Table& t) { return t.open("", ""); },
          "select * from product", {tea, coffee, milk}),
    loads("OpenWithACondition", [](Table& t) { return t.open("price > 2"); },
          "select * from product where price > 2", {tea, coffee}),
    loads("OpenWithAConditionAsItStands", [](Table& t) { return t.open(" name = 'tea' "); },
          "select * from product where  name = 'tea' ", {tea}),
    loads("OpenWithAConditionAndAnOrderAsTheyStand",
          [](Table& t) { return t.open(" id = 2 ", " 'name' "); },
          "select * from product where  id = 2  order by  'name' ", {coffee}),
    loads("OpenWithAConditionAndAnEmptyOrder", [](Table& t) { return t.open("price > 2", ""); },
          "select * from product where price > 2", {tea, coffee}),
    loads("OpenWithAnOrderAlone", [](Table& t) { return t.open("", "name"); },
          "select * from product order by name", {coffee, milk, tea}),
    loads("OpenWithAConditionAndAnOrder", [](Table& t) { return t.open("price > 2", "name"); },
          "select * from product where price > 2 order by name", {coffee, tea}),
    loads(
        "OpenWithAConditionThatNoRowFulfils", [](Table& t) { return t.open("price > 9"); },
        "select * from product where price > 9"),
    loads("QueryRunsTheTextUnchanged",
          [](Table& t) { return t.query(" select 9, 'rum', 8 -- x;"); },
          " select 9, 'rum', 8 -- x;", {selected}),
    loads(
        "QueryOfAStatementWithoutRows",
        [](Table& t) { return t.query("delete from product where id = 1"); },
        "delete from product where id = 1"),

    loads("GetRecordByAnIntegerKey",
          [](Table& t) { return t.getRecordByKeyId(2) == t.getRecord(0) && t.getRecord(0); },
          "select * from product where id = 2", {coffee}),
    loads("GetRecordByAStringKey",
          [](Table& t) { return t.getRecordByKeyId("2") == t.getRecord(0) && t.getRecord(0); },
          "select * from product where id = \"2\"", {coffee}),
    loads(
        "GetRecordByAMissingIntegerKeyIsNullAndEmptiesTheRowsHeld",
        [](Table& t) { return t.getRecordByKeyId(7) == nullptr; },
        "select * from product where id = 7"),
    loads(
        "GetRecordByAMissingStringKeyIsNullAndEmptiesTheRowsHeld",
        [](Table& t) { return t.getRecordByKeyId("seven") == nullptr; },
        "select * from product where id = \"seven\""),
    loads(
        "GetRecordByAnEmptyStringKeyIsNull",
        [](Table& t) { return t.getRecordByKeyId("") == nullptr; },
        "select * from product where id = \"\""),
    counts(
        "HasRecordWithAnIntegerKey", [](Table& t) { return t.hasRecordWithKeyId(2); },
        "select count(*) from product where id = 2", "1"),
    counts(
        "HasRecordWithAStringKey", [](Table& t) { return t.hasRecordWithKeyId("2"); },
        "select count(*) from product where id = \"2\"", "1"),
    counts(
        "HasNoRecordWithAMissingIntegerKey", [](Table& t) { return !t.hasRecordWithKeyId(7); },
        "select count(*) from product where id = 7", "0"),
    counts(
        "HasNoRecordWithAMissingStringKey", [](Table& t) { return !t.hasRecordWithKeyId("seven"); },
        "select count(*) from product where id = \"seven\"", "0"),

    writes(
        "AddRecordInserts", [](Table& t) { return t.addRecord(product(t, 7, "rum", 8)); },
        "insert into product (id, name, price) values (7, 'rum', 8.00000000)"),
    writes(
        "AddRecordWithoutAKeyLetsSqliteChooseIt",
        [](Table& t) { return t.addRecord(product(t, "O'Brien tea", 2.5)); },
        "insert into product (id, name, price) values (null, 'O''Brien tea', 2.50000000)"),
    writes(
        "UpdateRecordUpdatesTheRowOfItsKey",
        [](Table& t) { return t.updateRecord(product(t, 2, "cocoa", 3)); },
        "update product set name='cocoa', price=3.00000000 where id = 2"),
    writes(
        "UpdateRecordOfAMissingKeySucceeds",
        [](Table& t) { return t.updateRecord(product(t, 7, "cocoa", 3)); },
        "update product set name='cocoa', price=3.00000000 where id = 7"),
    chooses(
        "AddOrUpdateRecordUpdatesByAnIntegerKey",
        [](Table& t) { return t.addOrUpdateRecord(2, product(t, 2, "cocoa", 3)); },
        "select count(*) from product where id = 2", "1", "update record for key=2",
        "update product set name='cocoa', price=3.00000000 where id = 2"),
    chooses(
        "AddOrUpdateRecordAddsByAnIntegerKey",
        [](Table& t) { return t.addOrUpdateRecord(7, product(t, 7, "rum", 8)); },
        "select count(*) from product where id = 7", "0", "add record for key=7",
        "insert into product (id, name, price) values (7, 'rum', 8.00000000)"),
    chooses(
        "AddOrUpdateRecordUpdatesByAStringKey",
        [](Table& t) { return t.addOrUpdateRecord("2", product(t, 2, "cocoa", 3)); },
        "select count(*) from product where id = \"2\"", "1", "update record for key=2",
        "update product set name='cocoa', price=3.00000000 where id = 2"),
    chooses(
        "AddOrUpdateRecordAddsByAStringKey",
        [](Table& t) { return t.addOrUpdateRecord("seven", product(t, 7, "rum", 8)); },
        "select count(*) from product where id = \"seven\"", "0", "add record for key=seven",
        "insert into product (id, name, price) values (7, 'rum', 8.00000000)"),
    writes(
        "DeleteRecordByAnIntegerKey", [](Table& t) { return t.deleteRecord(1); },
        "delete from product where id = 1"),
    writes(
        "DeleteRecordByAStringKey", [](Table& t) { return t.deleteRecord("1"); },
        "delete from product where id = \"1\""),
    writes(
        "DeleteRecordOfAMissingIntegerKeySucceeds", [](Table& t) { return t.deleteRecord(7); },
        "delete from product where id = 7"),
    writes(
        "DeleteRecordOfAMissingStringKeySucceeds", [](Table& t) { return t.deleteRecord("seven"); },
        "delete from product where id = \"seven\""),
    writes(
        "DeleteRecordsWithACondition", [](Table& t) { return t.deleteRecords("price > 2"); },
        "delete from product where price > 2"),
    writes(
        "DeleteRecordsWithAConditionAsItStands",
        [](Table& t) { return t.deleteRecords(" name = 'tea' "); },
        "delete from product where  name = 'tea' "),
    writes(
        "DeleteRecordsWithAnEmptyCondition", [](Table& t) { return t.deleteRecords(""); },
        "delete from product"),

    {"InitTableDiscardsTheRowsHeld",
     [](Table& t) { return t.initTable(t.getHandle(), test::text_key_columns); },
     {},
     {},
     {}},
    runsNothing("NameIsThatOfTheTable", [](Table& t) { return t.name() == "product"; }),
    runsNothing("FieldsAreTheColumns", [](Table& t) { return t.fields()->count() == 3; }),
    runsNothing("GetHandleIsTheConnection", [](Table& t) { return t.getHandle() != nullptr; }),
    runsNothing(
        "GetDefinitionIsTheStatementThatCreates",
        [](Table& t) {
            return t.getDefinition()
                   == "CREATE TABLE product (id INTEGER PRIMARY KEY, name TEXT, price REAL)";
        }),
    runsNothing("ToStringIsTheColumns",
                [](Table& t) {
                    return t.toString()
                           == "1. id INTEGER PRIMARY KEY\r\n2. name TEXT\r\n3. price REAL";
                }),
    runsNothing("RecordCountIsThatOfTheRowsHeld", [](Table& t) { return t.recordCount() == 3; }),
    runsNothing("GetRecordBehindTheRowsHeldIsNull",
                [](Table& t) { return t.getRecord(3) == nullptr; }),
    runsNothing("GetRecordInFrontOfTheRowsHeldIsNull",
                [](Table& t) { return t.getRecord(-1) == nullptr; }),
    runsNothing("GetTopRecordIsTheFirstRowHeld",
                [](Table& t) { return t.getTopRecord() == t.getRecord(0) && t.getRecord(0); }),
};

// A table that holds three rows, the first of them changed in memory.
struct OpenedTable {
    OpenedTable() : table(db, "product", test::product_columns)
    {
        fillProducts(db);
        table.open();
        table.getTopRecord()->setString("name", "marked");
    }

    test::Connection db;
    Table table;
};

class TableOperationTest : public testing::TestWithParam<Operation> {
protected:
    test::Diagnostics _diagnostics;
};

TEST_P(TableOperationTest, RunsItsStatementsAndNoOthers)
{
    OpenedTable opened;
    const test::Statements statements(opened.db);
    EXPECT_TRUE(GetParam().act(opened.table));
    EXPECT_EQ(statements.texts(), GetParam().statements);
}

TEST_P(TableOperationTest, ShowsItsRouteAtDebugLevelsAlone)
{
    for (const int level : levels) {
        SCOPED_TRACE(level);
        OpenedTable opened;
        setLevel(_diagnostics, level);
        _diagnostics.clear();
        EXPECT_TRUE(GetParam().act(opened.table));
        EXPECT_EQ(_diagnostics.events(), visibleAt(level, GetParam().report));
    }
}

TEST_P(TableOperationTest, ReplacesOrLeavesTheRowsHeld)
{
    OpenedTable opened;
    Record* const top = opened.table.getTopRecord();
    EXPECT_TRUE(GetParam().act(opened.table));
    EXPECT_EQ(held(opened.table), GetParam().rowsHeld);
    if (GetParam().rowsHeld == kept) {
        EXPECT_EQ(opened.table.getTopRecord(), top);
        EXPECT_EQ(top->toString(), "1|marked|2.5");
    }
}

INSTANTIATE_TEST_SUITE_P(All, TableOperationTest, ValuesIn(operations));

// --- Every operation that fails: its result, its report and the rows held afterwards

enum Place { filled_database, empty_database, without_connection };

struct Setup {
    Place place;
    const char* table;
    const Field* columns;
};

struct Failure {
    std::string name;
    Setup setup;
    Act act;
    Texts report; // at level 9
    int rowsHeld; // of the one that was held before, or of none without a connection
};

void PrintTo(const Failure& failure, std::ostream* out)
{
    *out << failure.name;
}

const Setup filled = {filled_database, "product", test::product_columns};
const Setup missing = {empty_database, "product", test::product_columns};
const Setup unconnected = {without_connection, "product", test::product_columns};

// Operations that run one statement: they fail alike without a table and without a connection.
struct Form {
    const char* name;
    Act act; // whether the operation has failed
    const char* statement;
};

const Form loading_forms[] = {
    {"Remove", [](Table& t) { return !t.remove(); }, "drop table product"},
    {"Truncate", [](Table& t) { return !t.truncate(); }, "delete from product"},
    {"Open", [](Table& t) { return !t.open(); }, "select * from product"},
    {"OpenWithACondition", [](Table& t) { return !t.open("price > 2"); },
     "select * from product where price > 2"},
    {"OpenWithAnOrder", [](Table& t) { return !t.open("price > 2", "name"); },
     "select * from product where price > 2 order by name"},
    {"Query", [](Table& t) { return !t.query("select name from product"); },
     "select name from product"},
    {"GetRecordByIntegerKey", [](Table& t) { return t.getRecordByKeyId(7) == nullptr; },
     "select * from product where id = 7"},
    {"GetRecordByStringKey", [](Table& t) { return t.getRecordByKeyId("7") == nullptr; },
     "select * from product where id = \"7\""},
};

const Form key_test_forms[] = {
    {"HasRecordWithIntegerKey", [](Table& t) { return !t.hasRecordWithKeyId(7); },
     "select count(*) from product where id = 7"},
    {"HasRecordWithStringKey", [](Table& t) { return !t.hasRecordWithKeyId("7"); },
     "select count(*) from product where id = \"7\""},
};

const Form choosing_forms[] = {
    {"AddOrUpdateRecordByIntegerKey",
     [](Table& t) { return !t.addOrUpdateRecord(7, product(t, 1, "rum", 8)); },
     "select count(*) from product where id = 7"},
    {"AddOrUpdateRecordByStringKey",
     [](Table& t) { return !t.addOrUpdateRecord("7", product(t, 1, "rum", 8)); },
     "select count(*) from product where id = \"7\""},
};

const char inserted[] = "insert into product (id, name, price) values (1, 'rum', 8.00000000)";

const Form writing_forms[] = {
    {"AddRecord", [](Table& t) { return !t.addRecord(product(t, 1, "rum", 8)); }, inserted},
    {"UpdateRecord", [](Table& t) { return !t.updateRecord(product(t, 1, "rum", 8)); },
     "update product set name='rum', price=8.00000000 where id = 1"},
    {"DeleteRecordByIntegerKey", [](Table& t) { return !t.deleteRecord(7); },
     "delete from product where id = 7"},
    {"DeleteRecordByStringKey", [](Table& t) { return !t.deleteRecord("7"); },
     "delete from product where id = \"7\""},
    {"DeleteRecords", [](Table& t) { return !t.deleteRecords("price > 2"); },
     "delete from product where price > 2"},
    {"DeleteRecordsWithAnEmptyCondition", [](Table& t) { return !t.deleteRecords(""); },
     "delete from product"},
};

const std::string adding = "[DEBUG2] SqlTable.cpp (addOrUpdateRecord) - add record for key=7";

std::vector<Failure> failuresWithoutATable()
{
    const std::string reason = "1=SQLITE_ERROR: no such table: product";
    const auto named = [](const Form& form) {
        return form.name + std::string("OfAMissingTable");
    };
    std::vector<Failure> all = {{"TotalRecordCountOfAMissingTable", missing,
                                 [](Table& t) { return t.totalRecordCount() == -1; },
                                 notCounted("select count(*) from product", reason), 1}};
    for (const Form& form : loading_forms)
        all.push_back({named(form), missing, form.act, refused(form.statement, reason), 0});
    for (const Form& form : writing_forms)
        all.push_back({named(form), missing, form.act, refused(form.statement, reason), 1});
    for (const Form& form : key_test_forms)
        all.push_back({named(form), missing, form.act, notCounted(form.statement, reason), 1});
    for (const Form& form : choosing_forms)
        all.push_back(
            {named(form), missing, form.act,
             joined({notCounted(form.statement, reason), {adding}, refused(inserted, reason)}), 1});
    return all;
}

std::vector<Failure> failuresWithoutAConnection()
{
    const auto named = [](const Form& form) {
        return form.name + std::string("WithoutConnection");
    };
    std::vector<Failure> all = {
        {"ExistsWithoutConnection",
         unconnected,
         [](Table& t) { return !t.exists(); },
         {"assert '_db' in SqlTable.cpp (bool sql::Table::exists())"},
         0},
        {"CreateWithoutConnection",
         unconnected,
         [](Table& t) { return !t.create(); },
         {"assert '_db' in SqlTable.cpp (bool sql::Table::exists())", no_connection},
         0},
        {"TotalRecordCountWithoutConnection",
         unconnected,
         [](Table& t) { return t.totalRecordCount() == -1; },
         {"assert '_db' in SqlTable.cpp (int sql::Table::totalRecordCount() const)"},
         0}};
    for (const Form& form : loading_forms)
        all.push_back({named(form), unconnected, form.act, {no_connection}, 0});
    for (const Form& form : writing_forms)
        all.push_back({named(form), unconnected, form.act, {no_connection}, 0});
    for (const Form& form : key_test_forms)
        all.push_back({named(form), unconnected, form.act, {nothing_to_count_on}, 0});
    for (const Form& form : choosing_forms)
        all.push_back(
            {named(form), unconnected, form.act, {nothing_to_count_on, adding, no_connection}, 0});
    return all;
}

Failure failure(const char* name, const Setup& setup, Act act, const Texts& report, int rowsHeld)
{
    return {name, setup, act, report, rowsHeld};
}

const Setup without_columns = {filled_database, "product", test::no_columns};
const Setup missing_without_columns = {empty_database, "product", test::no_columns};
const Setup without_key = {filled_database, "product", test::without_key_columns};
const Setup without_name = {filled_database, "", test::product_columns};
const Setup key_last = {filled_database, "product", test::key_last_columns};
const Setup text_key = {filled_database, "product", test::text_key_columns};
const Setup other_letter_case = {filled_database, "Product", test::product_columns};
const Setup name_with_quote = {filled_database, "o'clock", test::product_columns};

const char near_b[] = "1=SQLITE_ERROR: near \"b\": syntax error";
const char incomplete[] = "1=SQLITE_ERROR: incomplete input";
const char no_column[] = "1=SQLITE_ERROR: no such column: colour";
const char key_taken[] = "19=SQLITE_CONSTRAINT: UNIQUE constraint failed: product.id";

const Texts undetermined = joined(
    {notCounted("select count(*) from sqlite_master where type = 'table' and name = 'o'clock'",
                "1=SQLITE_ERROR: near \"clock\": syntax error"),
     {"[ERROR] SqlTable.cpp (exists) - Failed to determine if table 'o'clock' exists"}});

// Without columns, key column or name.
const Failure schema_failures[] = {
    failure(
        "GetDefinitionWithoutColumns", without_columns,
        [](Table& t) { return t.getDefinition().empty(); }, noDefinition("product"), 1),
    failure(
        "CreateWithoutColumnsReportsTwiceDeliberately", missing_without_columns,
        [](Table& t) { return !t.create(); },
        joined({counted(existenceOf("product"), "0"),
                {"[DEBUG2] SqlTable.cpp (exists) - Table 'product' does not exist"},
                noDefinition("product"),
                noCreation("product")}),
        1),
    failure(
        "GetRecordByIntegerKeyWithoutKeyColumnReportsTwiceDeliberately", without_key,
        [](Table& t) { return t.getRecordByKeyId(7) == nullptr; },
        missingKeyTwice("getRecordByKeyId",
                        "sql::Record* sql::Table::getRecordByKeyId(sql::integer)"),
        1),
    failure(
        "GetRecordByStringKeyWithoutKeyColumnReportsTwiceDeliberately", without_key,
        [](Table& t) { return t.getRecordByKeyId("7") == nullptr; },
        missingKeyTwice("getRecordByKeyId",
                        "sql::Record* sql::Table::getRecordByKeyId(sql::string)"),
        1),
    failure(
        "HasRecordWithIntegerKeyWithoutKeyColumnReportsTwiceDeliberately", without_key,
        [](Table& t) { return !t.hasRecordWithKeyId(7); },
        missingKeyTwice("hasRecordWithKeyId", "bool sql::Table::hasRecordWithKeyId(sql::integer)"),
        1),
    failure(
        "HasRecordWithStringKeyWithoutKeyColumnReportsTwiceDeliberately", without_key,
        [](Table& t) { return !t.hasRecordWithKeyId("7"); },
        missingKeyTwice("hasRecordWithKeyId", "bool sql::Table::hasRecordWithKeyId(sql::string)"),
        1),
    failure(
        "DeleteRecordByIntegerKeyWithoutKeyColumnReportsTwiceDeliberately", without_key,
        [](Table& t) { return !t.deleteRecord(7); },
        missingKeyTwice("deleteRecord", "bool sql::Table::deleteRecord(sql::integer)"), 1),
    failure(
        "DeleteRecordByStringKeyWithoutKeyColumnReportsTwiceDeliberately", without_key,
        [](Table& t) { return !t.deleteRecord("7"); },
        missingKeyTwice("deleteRecord", "bool sql::Table::deleteRecord(sql::string)"), 1),
    failure(
        "UpdateRecordWithoutKeyColumn", without_key,
        [](Table& t) { return !t.updateRecord(product(t, "rum", 8)); },
        joined(
            {no_key_name,
             {"[ERROR] SqlRecord.cpp (toSqlUpdate) - Failed to get name of PRIMARY KEY column for table product",
              no_update,
              "[ERROR] SqlTable.cpp (updateRecord) - Failed to build SQL UPDATE statement for table 'product'"}}),
        1),
    failure(
        "AddRecordWithoutColumns", without_columns,
        [](Table& t) { return !t.addRecord(Record(*t.fields())); },
        {"[ERROR] SqlRecord.cpp (toSqlInsert) - No fields to insert in table 'product'", no_insert,
         "[ERROR] SqlTable.cpp (addRecord) - Failed to build SQL INSERT statement for table 'product'"},
        1),
    failure(
        "AddRecordWithoutTableName", without_name,
        [](Table& t) { return !t.addRecord(product(t, "rum", 8)); },
        {"[ERROR] SqlRecord.cpp (toSqlInsert) - No table name given", no_insert,
         "[ERROR] SqlTable.cpp (addRecord) - Failed to build SQL INSERT statement for table ''"},
        1),
    failure(
        "UpdateRecordWithoutTableName", without_name,
        [](Table& t) { return !t.updateRecord(product(t, "rum", 8)); },
        {"[ERROR] SqlRecord.cpp (toSqlUpdate) - No table name given", no_update,
         "[ERROR] SqlTable.cpp (updateRecord) - Failed to build SQL UPDATE statement for table ''"},
        1),
};

const Failure refusals[] = {
    failure(
        "CreateUnderAnotherLetterCaseOfAnExistingName", other_letter_case,
        [](Table& t) { return !t.create(); },
        joined({counted(existenceOf("Product"), "0"),
                {"[DEBUG2] SqlTable.cpp (exists) - Table 'Product' does not exist"},
                refused("CREATE TABLE Product (id INTEGER PRIMARY KEY, name TEXT, price REAL)",
                        "1=SQLITE_ERROR: table Product already exists")}),
        0),
    failure(
        "ExistsIsTrueWhenTheCountFailsDeliberately", name_with_quote,
        [](Table& t) { return t.exists(); }, undetermined, 1),
    failure(
        "CreateIsTrueAndRunsNothingWhenTheCountFailsDeliberately", name_with_quote,
        [](Table& t) { return t.create(); }, undetermined, 1),
    failure(
        "OpenWithAnUnknownColumn", filled, [](Table& t) { return !t.open("colour = 1"); },
        refused("select * from product where colour = 1", no_column), 0),
    failure(
        "OpenWithAnUnknownOrder", filled, [](Table& t) { return !t.open("", "colour"); },
        refused("select * from product order by colour", no_column), 0),
    failure(
        "OpenWithABlankForACondition", filled, [](Table& t) { return !t.open(" "); },
        refused("select * from product where  ", incomplete), 0),
    failure(
        "OpenWithABlankForAnOrder", filled, [](Table& t) { return !t.open("", " "); },
        refused("select * from product order by  ", incomplete), 0),
    failure(
        "QueryOfABrokenStatement", filled, [](Table& t) { return !t.query("selekt"); },
        refused("selekt", "1=SQLITE_ERROR: near \"selekt\": syntax error"), 0),
    failure(
        "GetRecordByAKeyWithADoubleQuoteBreaksTheStatementDeliberately", filled,
        [](Table& t) { return t.getRecordByKeyId("a\"b") == nullptr; },
        refused("select * from product where id = \"a\"b\"", near_b), 0),
    failure(
        "HasRecordWithAKeyWithADoubleQuoteBreaksTheStatementDeliberately", filled,
        [](Table& t) { return !t.hasRecordWithKeyId("a\"b"); },
        notCounted("select count(*) from product where id = \"a\"b\"", near_b), 1),
    failure(
        "DeleteRecordOfAKeyWithADoubleQuoteBreaksTheStatementDeliberately", filled,
        [](Table& t) { return !t.deleteRecord("a\"b"); },
        refused("delete from product where id = \"a\"b\"", near_b), 1),
    failure(
        "AddRecordOfAnExistingKey", filled,
        [](Table& t) { return !t.addRecord(product(t, 1, "rum", 8)); },
        refused(inserted, key_taken), 1),
    failure(
        "AddOrUpdateRecordInsertsTheRecordsOwnKeyDeliberately", filled,
        [](Table& t) { return !t.addOrUpdateRecord(7, product(t, 1, "rum", 8)); },
        joined({counted("select count(*) from product where id = 7", "0"),
                {adding},
                refused(inserted, key_taken)}),
        1),
    failure(
        "UpdateRecordWithTheKeyInTheLastColumnLeavesACommaDeliberately", key_last,
        [](Table& t) { return !t.updateRecord(product(t, 1, "rum", 8)); },
        refused("update product set name='rum', price=8.00000000,  where id = 1",
                "1=SQLITE_ERROR: near \"where\": syntax error"),
        1),
    failure(
        "UpdateRecordOfATextKeyIsReportedAndUnquotedDeliberately", text_key, updateOfATextKeyFails,
        joined(
            {{"assert 'value->getType() == type_int' in SqlRecord.cpp (sql::string sql::Record::toSqlUpdate(const string&) const)"},
             refused("update product set name='rum' where code = A1",
                     "1=SQLITE_ERROR: no such column: code")}),
        1),
    failure(
        "AddRecordOfInfinity", filled,
        [](Table& t) {
            return !t.addRecord(product(t, 7, "rum", std::numeric_limits<double>::infinity()));
        },
        refused("insert into product (id, name, price) values (7, 'rum', inf)",
                "1=SQLITE_ERROR: no such column: inf"),
        1),
    failure(
        "UpdateRecordWithNotANumber", filled,
        [](Table& t) {
            return !t.updateRecord(product(t, 1, "tea", std::numeric_limits<double>::quiet_NaN()));
        },
        refused("update product set name='tea', price=nan where id = 1",
                "1=SQLITE_ERROR: no such column: nan"),
        1),
    failure(
        "DeleteRecordsWithABlankForACondition", filled,
        [](Table& t) { return !t.deleteRecords(" "); },
        refused("delete from product where  ", incomplete), 1),
    failure(
        "DeleteRecordOfAKeyWithAZeroByteEndsTheStatementThere", filled,
        [](Table& t) { return !t.deleteRecord(string("1\0", 2)); },
        refused("delete from product where id = \"1",
                "1=SQLITE_ERROR: unrecognized token: \"\"1\""),
        1),
    failure(
        "DeleteRecordsWithAnUnknownColumn", filled,
        [](Table& t) { return !t.deleteRecords("colour = 1"); },
        refused("delete from product where colour = 1", no_column), 1),
};

// The place that a failure needs, with one row held where there is a connection.
struct FailingTable {
    explicit FailingTable(const Setup& setup)
        : table(setup.place == without_connection ? nullptr : db.get(), setup.table, setup.columns)
    {
        if (setup.place == filled_database)
            fillProducts(db);
        if (setup.place != without_connection)
            table.query("select 1, 'tea', 2.5");
    }

    test::Connection db;
    Table table;
};

class TableFailureTest : public testing::TestWithParam<Failure> {
protected:
    test::Diagnostics _diagnostics;
};

TEST_P(TableFailureTest, ReportsInOrderAndKeepsItsResultAtEveryLevel)
{
    for (const int level : levels) {
        SCOPED_TRACE(level);
        FailingTable failing(GetParam().setup);
        setLevel(_diagnostics, level);
        _diagnostics.clear();
        EXPECT_TRUE(GetParam().act(failing.table));
        EXPECT_EQ(_diagnostics.events(), visibleAt(level, GetParam().report));
    }
}

TEST_P(TableFailureTest, ChangesNeitherTheDatabaseNorTheTableItself)
{
    FailingTable failing(GetParam().setup);
    const std::string schema = failing.db.rows("select sql from sqlite_master");
    const std::string columns = failing.table.fields()->dump();
    sqlite3* const handle = failing.table.getHandle();
    EXPECT_TRUE(GetParam().act(failing.table));
    EXPECT_EQ(failing.db.rows("select sql from sqlite_master"), schema);
    if (!schema.empty()) {
        EXPECT_EQ(products(failing.db), three_products);
    }
    EXPECT_EQ(failing.table.name(), GetParam().setup.table);
    EXPECT_EQ(failing.table.getHandle(), handle);
    EXPECT_EQ(failing.table.fields()->dump(), columns);
}

TEST_P(TableFailureTest, LeavesTheRowsHeldUnlessItLoads)
{
    FailingTable failing(GetParam().setup);
    Record* const top = failing.table.getTopRecord();
    EXPECT_TRUE(GetParam().act(failing.table));
    EXPECT_EQ(failing.table.recordCount(), GetParam().rowsHeld);
    EXPECT_EQ(failing.table.getTopRecord(), GetParam().rowsHeld == 1 ? top : nullptr);
}

INSTANTIATE_TEST_SUITE_P(Schema, TableFailureTest, ValuesIn(schema_failures));
INSTANTIATE_TEST_SUITE_P(Refusal, TableFailureTest, ValuesIn(refusals));
INSTANTIATE_TEST_SUITE_P(MissingTable, TableFailureTest, ValuesIn(failuresWithoutATable()));
INSTANTIATE_TEST_SUITE_P(NoConnection, TableFailureTest, ValuesIn(failuresWithoutAConnection()));

// --- Single behaviours

class TableTest : public testing::Test {
protected:
    TableTest()
    {
        fillProducts(_db);
    }

    test::Diagnostics _diagnostics;
    test::Connection _db;
};

const Field constrained_columns[] = {
    Field("id", sql::type_int, sql::flag_primary_key | sql::flag_not_null),
    Field("name", sql::type_text, sql::flag_not_null | sql::flag_unique),
    Field("price", sql::type_float, sql::flag_none),
    Field(),
};

const Field two_key_columns[] = {
    Field("name", sql::type_text, sql::flag_none),
    Field("first", sql::type_int, sql::flag_primary_key),
    Field("second", sql::type_int, sql::flag_primary_key),
    Field(),
};

const Field float_key_columns[] = {
    Field("name", sql::type_text, sql::flag_none),
    Field("price", sql::type_float, sql::flag_primary_key),
    Field(),
};

const Field one_column[] = {
    Field("id", sql::type_int, sql::flag_primary_key),
    Field(),
};

// --- Construction and identity

TEST_F(TableTest, NameOnlyTableHasNoConnectionColumnsOrRows)
{
    _diagnostics.setLevel(9);
    Table table("product");
    EXPECT_EQ(table.name(), "product");
    EXPECT_EQ(table.getHandle(), nullptr);
    ASSERT_NE(table.fields(), nullptr);
    EXPECT_EQ(table.fields()->count(), 0);
    EXPECT_EQ(table.recordCount(), 0);
    EXPECT_EQ(table.getTopRecord(), nullptr);
    EXPECT_THAT(_diagnostics.events(), IsEmpty());
}

TEST_F(TableTest, TableTakesConnectionNameAndColumnArray)
{
    _diagnostics.setLevel(9);
    Table table(_db, "product", test::product_columns);
    EXPECT_EQ(table.name(), "product");
    EXPECT_EQ(table.getHandle(), _db.get());
    EXPECT_EQ(table.fields()->dump(), FieldSet(test::product_columns).dump());
    EXPECT_EQ(table.recordCount(), 0);
    EXPECT_THAT(_diagnostics.events(), IsEmpty());
}

TEST_F(TableTest, TableTakesACopyOfAFieldSet)
{
    _diagnostics.setLevel(9);
    FieldSet columns(test::product_columns);
    Table table(_db, "product", columns);
    columns = FieldSet(test::text_key_columns);
    EXPECT_EQ(table.name(), "product");
    EXPECT_EQ(table.getHandle(), _db.get());
    EXPECT_NE(table.fields(), &columns);
    EXPECT_EQ(table.fields()->toSql(), "id, name, price");
    EXPECT_THAT(_diagnostics.events(), IsEmpty());
}

TEST_F(TableTest, ColumnArrayWithoutKeyIsReportedAndKept)
{
    _diagnostics.setLevel(9);
    const Table table(_db, "product", test::without_key_columns);
    EXPECT_EQ(table.fields()->toSql(), "name, price");
    EXPECT_THAT(
        _diagnostics.events(),
        ElementsAre(
            "assert 'false' in SqlFieldSet.cpp (bool sql::FieldSet::initFieldSet(const sql::Field*))"));
}

TEST_F(TableTest, NullColumnArrayMakesATableWithoutColumns)
{
    _diagnostics.setLevel(9);
    const Table table(_db, "product", static_cast<const Field*>(nullptr));
    EXPECT_EQ(table.fields()->count(), 0);
    EXPECT_THAT(_diagnostics.events(), IsEmpty());
}

TEST_F(TableTest, InitTableMakesANameOnlyTableUsable)
{
    Table table("product");
    EXPECT_TRUE(table.initTable(_db, test::product_columns));
    EXPECT_EQ(table.name(), "product");
    EXPECT_EQ(table.getHandle(), _db.get());
    EXPECT_TRUE(table.exists());
    EXPECT_TRUE(table.addRecord(product(table, 7, "rum", 8)));
    ASSERT_NE(table.getRecordByKeyId(7), nullptr);
    EXPECT_THAT(held(table), ElementsAre("7|rum|8.0"));
    EXPECT_EQ(table.totalRecordCount(), 4);
    EXPECT_THAT(_diagnostics.events(), IsEmpty());
}

TEST_F(TableTest, InitTableWithoutColumnsSucceedsAndDiscardsTheRowsHeld)
{
    const test::Connection other;
    Table table(_db, "product", test::product_columns);
    table.open();
    EXPECT_TRUE(table.initTable(other, nullptr));
    EXPECT_EQ(table.recordCount(), 0);
    EXPECT_EQ(table.getHandle(), other.get());
    EXPECT_EQ(table.fields()->toSql(), "id, name, price");
}

TEST_F(TableTest, InitTableGivesReadsAndCountsTheSameConnection)
{
    test::Connection other;
    other.run("create table product (id INTEGER PRIMARY KEY, name TEXT, price REAL);"
              "insert into product values (9, 'gin', 6.5)");
    Table table(_db, "product", test::product_columns);
    table.initTable(other, nullptr);
    EXPECT_TRUE(table.open());
    EXPECT_THAT(held(table), ElementsAre("9|gin|6.5"));
    EXPECT_EQ(table.totalRecordCount(), 1);
    EXPECT_TRUE(table.deleteRecord(9));
    EXPECT_EQ(products(other), "");
    EXPECT_EQ(products(_db), three_products);
}

TEST_F(TableTest, InitTableWithoutKeyColumnFailsAndKeepsColumnsAndConnection)
{
    _diagnostics.setLevel(9);
    Table table("product");
    EXPECT_FALSE(table.initTable(_db, test::without_key_columns));
    EXPECT_EQ(table.getHandle(), _db.get());
    EXPECT_EQ(table.fields()->toSql(), "name, price");
    EXPECT_THAT(
        _diagnostics.events(),
        ElementsAre(
            "assert 'false' in SqlFieldSet.cpp (bool sql::FieldSet::initFieldSet(const sql::Field*))"));
}

TEST_F(TableTest, InitTableWithAKeyOfAnotherTypeFailsAndLeavesNoColumns)
{
    _diagnostics.setLevel(9);
    Table table("product");
    EXPECT_FALSE(table.initTable(_db, float_key_columns));
    EXPECT_EQ(table.fields()->count(), 0);
    EXPECT_THAT(
        _diagnostics.events(),
        ElementsAre(
            "[ERROR] SqlFieldSet.cpp (initFieldSet) - PRIMARY KEY column 'price' must be of type 'integer' or 'text' instead of type 'float'",
            "assert 'false' in SqlFieldSet.cpp (bool sql::FieldSet::initFieldSet(const sql::Field*))"));
}

TEST_F(TableTest, InitTableAppendsToTheColumnsThereAreDeliberately)
{
    Table table(_db, "product", test::product_columns);
    EXPECT_TRUE(table.initTable(_db, test::text_key_columns));
    EXPECT_EQ(table.fields()->toSql(), "id, name, price, code, name");
}

TEST_F(TableTest, NameOnlyTableReportsItsMissingConnection)
{
    Table table("product");
    EXPECT_FALSE(table.exists());
    EXPECT_FALSE(table.open());
    EXPECT_EQ(table.totalRecordCount(), -1);
    EXPECT_FALSE(table.deleteRecords(""));
    EXPECT_THAT(
        _diagnostics.events(),
        ElementsAre("assert '_db' in SqlTable.cpp (bool sql::Table::exists())", no_connection,
                    "assert '_db' in SqlTable.cpp (int sql::Table::totalRecordCount() const)",
                    no_connection));
}

TEST_F(TableTest, CreateOfANameOnlyTableReportsItsMissingColumnsTwiceDeliberately)
{
    Table table("product");
    EXPECT_FALSE(table.create());
    EXPECT_EQ(_diagnostics.events(),
              joined({{"assert '_db' in SqlTable.cpp (bool sql::Table::exists())"},
                      noDefinition("product"),
                      noCreation("product")}));
}

TEST_F(TableTest, DestroyedTableLeavesTheConnectionOpen)
{
    const test::SqliteCalls calls;
    {
        Table table(_db, "product", test::product_columns);
        table.open();
    }
    EXPECT_THAT(calls.order, ElementsAre("exec"));
    EXPECT_EQ(products(_db), three_products);
}

// A name that is a table's as it stands alone, not with its quotes doubled, removed or put within
// others.
const char odd_name[] = "\"it''s my product\"";

struct NamedOperation {
    const char* name;
    Act act;
    Texts statements; // with the name in place of %
};

void PrintTo(const NamedOperation& operation, std::ostream* out)
{
    *out << operation.name;
}

const NamedOperation named_operations[] = {
    {"Remove", [](Table& t) { return t.remove(); }, {"drop table %"}},
    {"Truncate", [](Table& t) { return t.truncate(); }, {"delete from %"}},
    {"TotalRecordCount",
     [](Table& t) { return t.totalRecordCount() == 0; },
     {"select count(*) from %"}},
    {"GetDefinition",
     [](Table& t) {
         return t.getDefinition()
                == string("CREATE TABLE ") + odd_name
                       + " (id INTEGER PRIMARY KEY, name TEXT, price REAL)";
     },
     {}},
    {"Open", [](Table& t) { return t.open(); }, {"select * from %"}},
    {"OpenWithACondition",
     [](Table& t) { return t.open("id > 2"); },
     {"select * from % where id > 2"}},
    {"OpenWithAnOrder",
     [](Table& t) { return t.open("id > 2", "name"); },
     {"select * from % where id > 2 order by name"}},
    {"GetRecordByIntegerKey",
     [](Table& t) { return t.getRecordByKeyId(7) == nullptr; },
     {"select * from % where id = 7"}},
    {"GetRecordByStringKey",
     [](Table& t) { return t.getRecordByKeyId("7") == nullptr; },
     {"select * from % where id = \"7\""}},
    {"HasRecordWithIntegerKey",
     [](Table& t) { return !t.hasRecordWithKeyId(7); },
     {"select count(*) from % where id = 7"}},
    {"HasRecordWithStringKey",
     [](Table& t) { return !t.hasRecordWithKeyId("7"); },
     {"select count(*) from % where id = \"7\""}},
    {"AddRecord",
     [](Table& t) { return t.addRecord(product(t, 7, "rum", 8)); },
     {"insert into % (id, name, price) values (7, 'rum', 8.00000000)"}},
    {"UpdateRecord",
     [](Table& t) { return t.updateRecord(product(t, 7, "rum", 8)); },
     {"update % set name='rum', price=8.00000000 where id = 7"}},
    {"AddOrUpdateRecordByIntegerKey",
     [](Table& t) { return t.addOrUpdateRecord(7, product(t, 7, "rum", 8)); },
     {"select count(*) from % where id = 7",
      "insert into % (id, name, price) values (7, 'rum', 8.00000000)"}},
    {"AddOrUpdateRecordByStringKey",
     [](Table& t) { return t.addOrUpdateRecord("7", product(t, 7, "rum", 8)); },
     {"select count(*) from % where id = \"7\"",
      "insert into % (id, name, price) values (7, 'rum', 8.00000000)"}},
    {"DeleteRecordByIntegerKey",
     [](Table& t) { return t.deleteRecord(7); },
     {"delete from % where id = 7"}},
    {"DeleteRecordByStringKey",
     [](Table& t) { return t.deleteRecord("7"); },
     {"delete from % where id = \"7\""}},
    {"DeleteRecords",
     [](Table& t) { return t.deleteRecords("id > 2"); },
     {"delete from % where id > 2"}},
    {"DeleteRecordsWithAnEmptyCondition",
     [](Table& t) { return t.deleteRecords(""); },
     {"delete from %"}},
};

class TableNameTest : public TableTest, public testing::WithParamInterface<NamedOperation> {
protected:
    TableNameTest() : _table(_db, odd_name, test::product_columns)
    {
        _db.run(string("CREATE TABLE ") + odd_name + " (id INTEGER PRIMARY KEY, name, price)");
    }

    Table _table;
};

TEST_P(TableNameTest, IsInsertedAsItStands)
{
    Texts expected = GetParam().statements;
    for (std::string& statement : expected)
        statement.replace(statement.find('%'), 1, odd_name);
    const test::Statements statements(_db);
    EXPECT_TRUE(GetParam().act(_table));
    EXPECT_EQ(statements.texts(), expected);
    EXPECT_THAT(_diagnostics.events(), IsEmpty());
}

INSTANTIATE_TEST_SUITE_P(All, TableNameTest, ValuesIn(named_operations));

TEST_F(TableTest, NameIsCreatedAsItStands)
{
    Table table(_db, odd_name, one_column);
    const test::Statements statements(_db);
    EXPECT_TRUE(table.create());
    EXPECT_THAT(statements.texts(),
                ElementsAre(existenceOf(odd_name),
                            string("CREATE TABLE ") + odd_name + " (id INTEGER PRIMARY KEY)"));
    EXPECT_EQ(_db.rows("select name from sqlite_master where name like 'it%'"), "it''s my product");
    EXPECT_THAT(_diagnostics.events(), IsEmpty());
}

TEST_F(TableTest, NameWithASchemaIsInsertedAsItStands)
{
    Table table(_db, "main.\"my product\"", one_column);
    const test::Statements statements(_db);
    EXPECT_TRUE(table.create());
    EXPECT_TRUE(table.open());
    EXPECT_TRUE(table.remove());
    EXPECT_THAT(statements.texts(),
                ElementsAre(existenceOf("main.\"my product\""),
                            "CREATE TABLE main.\"my product\" (id INTEGER PRIMARY KEY)",
                            "select * from main.\"my product\"", "drop table main.\"my product\""));
}

// --- The table as a whole

TEST_F(TableTest, MissingTableDoesNotExist)
{
    _diagnostics.setLevel(9);
    Table table(_db, "order_line", test::product_columns);
    EXPECT_FALSE(table.exists());
    EXPECT_EQ(_diagnostics.events(),
              joined({counted(existenceOf("order_line"), "0"),
                      {"[DEBUG2] SqlTable.cpp (exists) - Table 'order_line' does not exist"}}));
}

TEST_F(TableTest, ViewOfTheNameIsNoTable)
{
    _db.run("create view dear as select * from product where price > 2");
    Table table(_db, "dear", test::product_columns);
    EXPECT_FALSE(table.exists());
}

TEST_F(TableTest, TableCountedTwiceCannotBeDeterminedAndExists)
{
    _db.run("pragma writable_schema = on; insert into sqlite_master"
            " select type, name, tbl_name, rootpage, sql from sqlite_master");
    _diagnostics.setLevel(9);
    Table table(_db, "product", test::product_columns);
    EXPECT_TRUE(table.exists());
    EXPECT_EQ(
        _diagnostics.events(),
        joined(
            {counted(existenceOf("product"), "2"),
             {"[ERROR] SqlTable.cpp (exists) - Failed to determine if table 'product' exists"}}));
}

TEST_F(TableTest, TableOfAnUnreadableFileExistsAndIsNotCreatedDeliberately)
{
    const test::TemporaryDirectory directory;
    test::writeFile(directory.file("notes.txt"), std::string(4096, 'x'));
    test::Connection unreadable(directory.file("notes.txt"));
    Table table(unreadable, "product", test::product_columns);
    EXPECT_TRUE(table.create());
    EXPECT_THAT(
        _diagnostics.events(),
        ElementsAre(
            "[ERROR] SqlCommon.cpp (queryNumber) - Failed to prepare the SQL query 'select count(*) from sqlite_master where type = 'table' and name = 'product'': ",
            test::worded(
                "[ERROR] SqlCommon.cpp (queryNumber) -   rc=26=SQLITE_NOTADB: file is not a database"),
            "[ERROR] SqlTable.cpp (exists) - Failed to determine if table 'product' exists"));
    EXPECT_EQ(test::readFile(directory.file("notes.txt")), std::string(4096, 'x'));
}

TEST_F(TableTest, CreateOfAMissingTableRunsItsDefinitionAndDiscardsTheRowsHeld)
{
    Table table(_db, "copy", test::product_columns);
    table.query("select 1, 'tea', 2.5");
    const test::Statements statements(_db);
    EXPECT_TRUE(table.create());
    EXPECT_THAT(statements.texts(),
                ElementsAre(existenceOf("copy"),
                            "CREATE TABLE copy (id INTEGER PRIMARY KEY, name TEXT, price REAL)"));
    EXPECT_EQ(table.recordCount(), 0);
    EXPECT_EQ(_db.rows("select sql from sqlite_master where name = 'copy'"),
              "CREATE TABLE copy (id INTEGER PRIMARY KEY, name TEXT, price REAL)");
    EXPECT_THAT(_diagnostics.events(), IsEmpty());
}

TEST_F(TableTest, CreateRunsItsDefinitionThroughTheRecordSet)
{
    _diagnostics.setLevel(9);
    Table table(_db, "copy", test::product_columns);
    EXPECT_TRUE(table.create());
    EXPECT_EQ(_diagnostics.events(),
              joined({counted(existenceOf("copy"), "0"),
                      {"[DEBUG2] SqlTable.cpp (exists) - Table 'copy' does not exist"},
                      ran("CREATE TABLE copy (id INTEGER PRIMARY KEY, name TEXT, price REAL)")}));
}

TEST_F(TableTest, CreateDoesNotCompareTheColumnsOfAnExistingTable)
{
    Table table(_db, "product", test::all_type_columns);
    EXPECT_TRUE(table.create());
    EXPECT_EQ(_db.rows("select sql from sqlite_master"),
              "CREATE TABLE product (id INTEGER PRIMARY KEY, name TEXT, price REAL)");
    EXPECT_THAT(_diagnostics.events(), IsEmpty());
}

TEST_F(TableTest, RemovedTableIsGone)
{
    Table table(_db, "product", test::product_columns);
    EXPECT_TRUE(table.remove());
    EXPECT_EQ(_db.rows("select * from sqlite_master"), "");
    EXPECT_FALSE(table.exists());
}

TEST_F(TableTest, TruncatedTableIsEmptyButExists)
{
    Table table(_db, "product", test::product_columns);
    EXPECT_TRUE(table.truncate());
    EXPECT_EQ(products(_db), "");
    EXPECT_EQ(table.totalRecordCount(), 0);
    EXPECT_TRUE(table.exists());
}

TEST_F(TableTest, TotalRecordCountIsNotTheNumberOfRowsHeld)
{
    Table table(_db, "product", test::product_columns);
    table.open("id = 1");
    EXPECT_EQ(table.recordCount(), 1);
    EXPECT_EQ(table.totalRecordCount(), 3);
}

// --- Columns as text

struct Schema {
    const char* name;
    const Field* columns;
    const char* definition;
    const char* list;
};

void PrintTo(const Schema& schema, std::ostream* out)
{
    *out << schema.name;
}

const Schema schemas[] = {
    {"Product", test::product_columns,
     "CREATE TABLE product (id INTEGER PRIMARY KEY, name TEXT, price REAL)",
     "1. id INTEGER PRIMARY KEY\r\n2. name TEXT\r\n3. price REAL"},
    {"AllTypes", test::all_type_columns,
     "CREATE TABLE product (id INTEGER PRIMARY KEY, name TEXT, price REAL, sold INTEGER, at INTEGER)",
     "1. id INTEGER PRIMARY KEY\r\n2. name TEXT\r\n3. price REAL\r\n4. sold INTEGER\r\n5. at INTEGER"},
    {"Constraints", constrained_columns,
     "CREATE TABLE product (id INTEGER PRIMARY KEY NOT NULL, name TEXT NOT NULL UNIQUE, price REAL)",
     "1. id INTEGER PRIMARY KEY NOT NULL\r\n2. name TEXT NOT NULL UNIQUE\r\n3. price REAL"},
    {"OneColumn", one_column, "CREATE TABLE product (id INTEGER PRIMARY KEY)",
     "1. id INTEGER PRIMARY KEY"},
};

class TableSchemaTest : public testing::TestWithParam<Schema> {
protected:
    test::Diagnostics _diagnostics;
    test::Connection _db;
};

TEST_P(TableSchemaTest, DefinitionCreatesTheTable)
{
    _diagnostics.setLevel(9);
    const Table table(_db, "product", GetParam().columns);
    EXPECT_EQ(table.getDefinition(), GetParam().definition);
    EXPECT_THAT(_diagnostics.events(), IsEmpty());
}

TEST_P(TableSchemaTest, ToStringNumbersTheColumnsWithoutALineBreakAtTheEnd)
{
    _diagnostics.setLevel(9);
    const Table table(_db, "product", GetParam().columns);
    EXPECT_EQ(table.toString(), GetParam().list);
    EXPECT_THAT(_diagnostics.events(), IsEmpty());
}

INSTANTIATE_TEST_SUITE_P(All, TableSchemaTest, ValuesIn(schemas));

TEST_F(TableTest, ToStringWithoutColumnsIsEmpty)
{
    const Table table("product");
    EXPECT_EQ(table.toString(), "");
    EXPECT_THAT(_diagnostics.events(), IsEmpty());
}

TEST_F(TableTest, ToStringShowsNoRows)
{
    Table table(_db, "product", one_column);
    table.open();
    EXPECT_EQ(table.toString(), "1. id INTEGER PRIMARY KEY");
}

TEST_F(TableTest, NumbersOfTheTextsDoNotDependOnTheLocale)
{
    const test::CommaLocale locale;
    Table table(_db, "product", test::product_columns);
    const test::Statements statements(_db);
    EXPECT_TRUE(table.addRecord(product(table, 1234567, "rum", 8.5)));
    EXPECT_NE(table.getRecordByKeyId(1234567), nullptr);
    EXPECT_THAT(
        statements.texts(),
        ElementsAre("insert into product (id, name, price) values (1234567, 'rum', 8.50000000)",
                    "select * from product where id = 1234567"));
    EXPECT_EQ(table.getTopRecord()->getValue("price")->asDouble(), 8.5);
}

// --- Reads

TEST_F(TableTest, RowsHeldAreTypedAfterTheColumns)
{
    Table table(_db, "product", test::product_columns);
    table.open("id = 2");
    EXPECT_EQ(table.getTopRecord()->dump(true),
              "id = 2 (integer)|name = coffee (text)|price = 4.5 (float)");
    EXPECT_EQ(table.getTopRecord()->fields(), table.fields());
}

TEST_F(TableTest, QueryFillsColumnsByPosition)
{
    Table table(_db, "product", test::product_columns);
    EXPECT_TRUE(table.query("select price, id from product where id = 2"));
    EXPECT_EQ(table.getTopRecord()->dump(true),
              "id = 4.5 (integer)|name = 2 (text)|price = null (float)");
}

TEST_F(TableTest, LoadThatFailsOnTheWayKeepsTheRowsDelivered)
{
    Table table(_db, "product", test::product_columns);
    table.open("id = 3");
    const std::string condition = "abs(case id when 3 then -9223372036854775808 else id end) > 0";
    EXPECT_FALSE(table.open(condition));
    EXPECT_THAT(held(table), ElementsAre("1|tea|2.5", "2|coffee|4.5"));
    EXPECT_EQ(table.getTopRecord(), table.getRecord(0));
    EXPECT_EQ(_diagnostics.events(),
              visibleAt(3, refused("select * from product where " + condition,
                                   "1=SQLITE_ERROR: integer overflow")));
}

TEST_F(TableTest, KeyLookupThatFailsOnTheWayIsNullAndKeepsTheRowsDelivered)
{
    _db.run(
        "create table log (id INTEGER, name TEXT, price REAL);"
        "insert into log select 7, 'first', 1 union all select 7, 'second', -9223372036854775808;"
        "create view checked as select id, name, abs(cast(price as integer)) from log");
    Table table(_db, "checked", test::product_columns);
    EXPECT_EQ(table.getRecordByKeyId(7), nullptr);
    EXPECT_THAT(held(table), ElementsAre("7|first|1"));
    table.query("select 1");
    EXPECT_EQ(table.getRecordByKeyId("7"), nullptr);
    EXPECT_THAT(held(table), ElementsAre("7|first|1"));
    EXPECT_EQ(_diagnostics.events(),
              visibleAt(3, joined({refused("select * from checked where id = 7",
                                           "1=SQLITE_ERROR: integer overflow"),
                                   refused("select * from checked where id = \"7\"",
                                           "1=SQLITE_ERROR: integer overflow")})));
}

TEST_F(TableTest, KeyTextFindsTheIntegerKeyDeliberately)
{
    Table table(_db, "product", test::product_columns);
    table.addRecord(product(table, 7, "rum", 8));
    ASSERT_NE(table.getRecordByKeyId("7"), nullptr);
    EXPECT_THAT(held(table), ElementsAre("7|rum|8.0"));
    EXPECT_TRUE(table.hasRecordWithKeyId("7"));
}

TEST_F(TableTest, StringKeyIsNotEscapedDeliberately)
{
    const std::string key = "x\" or \"1\" = \"1";
    Table table(_db, "product", test::product_columns);
    const test::Statements statements(_db);
    EXPECT_NE(table.getRecordByKeyId(key), nullptr);
    EXPECT_EQ(table.recordCount(), 3);
    EXPECT_TRUE(table.hasRecordWithKeyId(key));
    EXPECT_TRUE(table.deleteRecord(key));
    EXPECT_THAT(statements.texts(),
                ElementsAre("select * from product where id = \"x\" or \"1\" = \"1\"",
                            "select count(*) from product where id = \"x\" or \"1\" = \"1\"",
                            "delete from product where id = \"x\" or \"1\" = \"1\""));
    EXPECT_EQ(products(_db), "");
    EXPECT_THAT(_diagnostics.events(), IsEmpty());
}

TEST_F(TableTest, StringKeyThatNamesAColumnIsThatColumnDeliberately)
{
    _db.run("update product set name = id where id = 2");
    Table table(_db, "product", test::product_columns);
    ASSERT_NE(table.getRecordByKeyId("name"), nullptr);
    EXPECT_THAT(held(table), ElementsAre("2|2|4.5"));
}

TEST_F(TableTest, StringKeyMayContainSingleQuotesAndUtf8)
{
    _db.run("create table label (code TEXT PRIMARY KEY, name TEXT);"
            "insert into label values ('O''Brien ☕', 'found')");
    Table table(_db, "label", test::text_key_columns);
    ASSERT_NE(table.getRecordByKeyId("O'Brien ☕"), nullptr);
    EXPECT_THAT(held(table), ElementsAre("O'Brien ☕|found"));
    EXPECT_TRUE(table.hasRecordWithKeyId("O'Brien ☕"));
    EXPECT_TRUE(table.deleteRecord("O'Brien ☕"));
    EXPECT_EQ(products(_db, "label"), "");
}

TEST_F(TableTest, StringKeyKeepsItsBlanks)
{
    _db.run("create table label (code TEXT PRIMARY KEY, name TEXT);"
            "insert into label select ' 7 ', 'found' union all select '7', 'other'");
    Table table(_db, "label", test::text_key_columns);
    const test::Statements statements(_db);
    ASSERT_NE(table.getRecordByKeyId(" 7 "), nullptr);
    EXPECT_THAT(held(table), ElementsAre(" 7 |found"));
    EXPECT_TRUE(table.hasRecordWithKeyId(" 7 "));
    EXPECT_TRUE(table.deleteRecord(" 7 "));
    EXPECT_THAT(statements.texts(), ElementsAre("select * from label where code = \" 7 \"",
                                                "select count(*) from label where code = \" 7 \"",
                                                "delete from label where code = \" 7 \""));
    EXPECT_EQ(products(_db, "label"), "7|other");
}

TEST_F(TableTest, BlankIsATableName)
{
    Table table(_db, " ", test::product_columns);
    _diagnostics.setLevel(9);
    EXPECT_FALSE(table.addRecord(product(table, 7, "rum", 8)));
    EXPECT_EQ(_diagnostics.events(),
              refused("insert into   (id, name, price) values (7, 'rum', 8.00000000)",
                      "1=SQLITE_ERROR: near \"(\": syntax error"));
}

TEST_F(TableTest, FirstOfTwoKeyColumnsIsTheKey)
{
    _db.run("create table pair (name TEXT, first INTEGER, second INTEGER)");
    Table table(_db, "pair", two_key_columns);
    const test::Statements statements(_db);
    EXPECT_EQ(table.getRecordByKeyId(7), nullptr);
    EXPECT_FALSE(table.hasRecordWithKeyId("7"));
    EXPECT_TRUE(table.deleteRecord(7));
    EXPECT_THAT(statements.texts(), ElementsAre("select * from pair where first = 7",
                                                "select count(*) from pair where first = \"7\"",
                                                "delete from pair where first = 7"));
}

TEST_F(TableTest, SeveralRowsOfOneKeyAreARecordWithThatKey)
{
    _db.run("create table log (id INTEGER, name TEXT, price REAL);"
            "insert into log select 7, 'first', 1 union all select 7, 'second', 2");
    Table table(_db, "log", test::product_columns);
    EXPECT_TRUE(table.hasRecordWithKeyId(7));
    EXPECT_TRUE(table.hasRecordWithKeyId("7"));
    ASSERT_NE(table.getRecordByKeyId(7), nullptr);
    EXPECT_EQ(table.getTopRecord()->toString(), "7|first|1.0");
    EXPECT_EQ(table.recordCount(), 2);
}

// --- Writes

TEST_F(TableTest, AddedRecordIsStoredWhileTheRowsHeldStay)
{
    Table table(_db, "product", test::product_columns);
    table.open();
    EXPECT_TRUE(table.addRecord(product(table, 7, "O'Brien", 8)));
    EXPECT_EQ(products(_db), "1|tea|2.5\n2|coffee|4.5\n3|milk|1.25\n7|O'Brien|8.0");
    EXPECT_EQ(table.recordCount(), 3);
    EXPECT_EQ(table.totalRecordCount(), 4);
}

TEST_F(TableTest, AddedRecordWithoutAKeyGetsTheNextOne)
{
    Table table(_db, "product", test::product_columns);
    EXPECT_TRUE(table.addRecord(product(table, "rum", 8)));
    EXPECT_EQ(products(_db), "1|tea|2.5\n2|coffee|4.5\n3|milk|1.25\n4|rum|8.0");
}

TEST_F(TableTest, RowOfTheTableItselfIsWrittenBack)
{
    Table table(_db, "product", test::product_columns);
    table.open();
    table.getRecord(1)->setNull("name");
    EXPECT_TRUE(table.updateRecord(*table.getRecord(1)));
    EXPECT_EQ(products(_db), "1|tea|2.5\n2|NULL|4.5\n3|milk|1.25");
    EXPECT_THAT(held(table), ElementsAre("1|tea|2.5", "2|null|4.5", "3|milk|1.25"));
}

TEST_F(TableTest, UpdateOfAMissingKeyChangesNothing)
{
    Table table(_db, "product", test::product_columns);
    EXPECT_TRUE(table.updateRecord(product(table, 7, "rum", 8)));
    EXPECT_EQ(products(_db), three_products);
}

TEST_F(TableTest, AllTypesAreWrittenAndReadBack)
{
    const test::TimeZone zone;
    Table table(_db, "sale", test::all_type_columns);
    table.create();
    Record record(*table.fields());
    record.setInteger("id", 7);
    record.setString("name", "O'Brien");
    record.setDouble("price", 2.5);
    record.setBool("sold", true);
    record.setTime("at", sql::Time(1616893200));
    const test::Statements statements(_db);
    EXPECT_TRUE(table.addRecord(record));
    ASSERT_NE(table.getRecordByKeyId(7), nullptr);
    EXPECT_THAT(
        statements.texts(),
        ElementsAre(
            "insert into sale (id, name, price, sold, at) values (7, 'O''Brien', 2.50000000, 1, 1616893200)",
            "select * from sale where id = 7"));
    EXPECT_EQ(table.getTopRecord()->toString(), "7|O'Brien|2.5|1|28-03-2021 03:00:00, Sun");
}

TEST_F(TableTest, RecordOfOtherColumnsIsWrittenWithThoseColumns)
{
    const FieldSet columns(test::key_last_columns);
    Record record(columns);
    record.setString("name", "rum");
    record.setInteger("id", 7);
    Table table(_db, "product", test::product_columns);
    const test::Statements statements(_db);
    EXPECT_TRUE(table.addRecord(record));
    EXPECT_THAT(statements.texts(),
                ElementsAre("insert into product (name, price, id) values ('rum', null, 7)"));
}

TEST_F(TableTest, RecordWithUnnumberedColumnsCannotBeAdded)
{
    const FieldSet columns(std::vector<Field>{Field("id", sql::type_int, sql::flag_primary_key)});
    Table table(_db, "product", test::product_columns);
    EXPECT_FALSE(table.addRecord(Record(columns)));
    EXPECT_THAT(
        _diagnostics.events(),
        ElementsAre(
            "[ERROR] SqlRecord.cpp (getValue) - No value for column with index -1",
            "assert 'false' in SqlRecord.cpp (const sql::Value* sql::Record::getValue(int) const)",
            "[ERROR] SqlRecord.cpp (toSql) - field with index 0 does not have value",
            "assert 'false' in SqlRecord.cpp (sql::string sql::Record::toSql() const)",
            "[ERROR] SqlRecord.cpp (toSqlInsert) - No values to insert in table 'product'",
            "assert 'false' in SqlRecord.cpp (sql::string sql::Record::toSqlInsert(const string&) const)",
            "[ERROR] SqlTable.cpp (addRecord) - Failed to build SQL INSERT statement for table 'product'"));
}

#if SQLITE_VERSION_NUMBER >= 3035000 // writes return no rows before

TEST_F(TableTest, WriteReadsRowsThatSqliteReturnsWithTheTablesColumnsAndDropsThem)
{
    Table table(_db, "product", test::product_columns);
    table.open("id = 1");
    _diagnostics.setLevel(9);
    EXPECT_TRUE(table.deleteRecords("id = 2 returning *"));
    EXPECT_EQ(_diagnostics.events(), joined({ran("delete from product where id = 2 returning *"),
                                             {rowRead(coffee.dump)}}));
    EXPECT_THAT(held(table), ElementsAre("1|tea|2.5"));
}

#endif

TEST_F(TableTest, KeyArgumentOnlyChoosesTheUpdateDeliberately)
{
    Table table(_db, "product", test::product_columns);
    EXPECT_TRUE(table.addOrUpdateRecord(1, product(table, 3, "cocoa", 3)));
    EXPECT_EQ(products(_db), "1|tea|2.5\n2|coffee|4.5\n3|cocoa|3.0");
}

TEST_F(TableTest, KeyArgumentOnlyChoosesTheInsertDeliberately)
{
    Table table(_db, "product", test::product_columns);
    EXPECT_TRUE(table.addOrUpdateRecord("9", product(table, 7, "rum", 8)));
    EXPECT_EQ(products(_db), "1|tea|2.5\n2|coffee|4.5\n3|milk|1.25\n7|rum|8.0");
}

TEST_F(TableTest, FailedExistenceTestLeadsToAnInsertDeliberately)
{
    Table table(_db, "product", test::product_columns);
    _diagnostics.setLevel(9);
    EXPECT_TRUE(table.addOrUpdateRecord("a\"b", product(table, 7, "rum", 8)));
    EXPECT_EQ(_diagnostics.events(),
              joined({notCounted("select count(*) from product where id = \"a\"b\"", near_b),
                      {"[DEBUG2] SqlTable.cpp (addOrUpdateRecord) - add record for key=a\"b"},
                      ran("insert into product (id, name, price) values (7, 'rum', 8.00000000)")}));
    EXPECT_EQ(products(_db), "1|tea|2.5\n2|coffee|4.5\n3|milk|1.25\n7|rum|8.0");
}

TEST_F(TableTest, AddOrUpdateByIntegerKeyWithoutKeyColumnInsertsDeliberately)
{
    Table table(_db, "product", test::without_key_columns);
    _diagnostics.clear();
    _diagnostics.setLevel(9);
    EXPECT_TRUE(table.addOrUpdateRecord(1, product(table, "rum", 8)));
    EXPECT_EQ(_diagnostics.events(),
              joined({missingKeyTwice("hasRecordWithKeyId",
                                      "bool sql::Table::hasRecordWithKeyId(sql::integer)"),
                      {"[DEBUG2] SqlTable.cpp (addOrUpdateRecord) - add record for key=1"},
                      ran("insert into product (name, price) values ('rum', 8.00000000)")}));
    EXPECT_EQ(products(_db), "1|tea|2.5\n2|coffee|4.5\n3|milk|1.25\n4|rum|8.0");
}

TEST_F(TableTest, AddOrUpdateByStringKeyWithoutKeyColumnInsertsDeliberately)
{
    Table table(_db, "product", test::without_key_columns);
    _diagnostics.clear();
    _diagnostics.setLevel(9);
    EXPECT_TRUE(table.addOrUpdateRecord("1", product(table, "rum", 8)));
    EXPECT_EQ(_diagnostics.events(),
              joined({missingKeyTwice("hasRecordWithKeyId",
                                      "bool sql::Table::hasRecordWithKeyId(sql::string)"),
                      {"[DEBUG2] SqlTable.cpp (addOrUpdateRecord) - add record for key=1"},
                      ran("insert into product (name, price) values ('rum', 8.00000000)")}));
}

TEST_F(TableTest, BothFormsOfAKeyDeleteTheSameRow)
{
    Table table(_db, "product", test::product_columns);
    EXPECT_TRUE(table.deleteRecord("1"));
    EXPECT_EQ(products(_db), "2|coffee|4.5\n3|milk|1.25");
    EXPECT_TRUE(table.deleteRecord(2));
    EXPECT_EQ(products(_db), "3|milk|1.25");
}

TEST_F(TableTest, DeleteOfAMissingKeyChangesNothing)
{
    Table table(_db, "product", test::product_columns);
    EXPECT_TRUE(table.deleteRecord(7));
    EXPECT_TRUE(table.deleteRecord("7"));
    EXPECT_EQ(products(_db), three_products);
}

TEST_F(TableTest, DeleteRecordsTakesTheRowsOfTheConditionAlone)
{
    Table table(_db, "product", test::product_columns);
    EXPECT_TRUE(table.deleteRecords("price > 2"));
    EXPECT_EQ(products(_db), "3|milk|1.25");
}

TEST_F(TableTest, DeleteRecordsWithAnEmptyConditionEmptiesTheTable)
{
    Table table(_db, "product", test::product_columns);
    EXPECT_TRUE(table.deleteRecords(""));
    EXPECT_EQ(products(_db), "");
    EXPECT_TRUE(table.exists());
}

TEST_F(TableTest, ZeroByteInACellCutsTheKeyOffTheUpdateWhichIsAHazard)
{
    Table table(_db, "product", test::product_columns);
    Record record = product(table, 1, "tea", 2.5);
    record.setString("price", string("5\0", 2));
    const test::Statements statements(_db);
    EXPECT_TRUE(table.updateRecord(record));
    EXPECT_THAT(statements.texts(), ElementsAre("update product set name='tea', price=5"));
    EXPECT_EQ(products(_db), "1|tea|5.0\n2|tea|5.0\n3|tea|5.0");
    EXPECT_THAT(_diagnostics.events(), IsEmpty());
}

TEST_F(TableTest, ZeroByteInAConditionCutsItsRestOffWhichIsAHazard)
{
    Table table(_db, "product", test::product_columns);
    const test::Statements statements(_db);
    EXPECT_TRUE(table.deleteRecords(string("id > 1\0 and id < 3", 18)));
    EXPECT_THAT(statements.texts(), ElementsAre("delete from product where id > 1"));
    EXPECT_EQ(products(_db), "1|tea|2.5");
    EXPECT_THAT(_diagnostics.events(), IsEmpty());
}

TEST_F(TableTest, RecordIsRefusedByAFullDatabaseWhichWorksAfterwards)
{
    Table table(_db, "product", test::product_columns);
    table.open();
    const std::string pages = _db.rows("pragma page_count");
    _db.run("pragma max_page_count = " + pages);
    const std::string longName(100000, 'x');
    _diagnostics.setLevel(9);
    EXPECT_FALSE(table.addRecord(product(table, 7, longName, 8)));
    EXPECT_EQ(_diagnostics.events(), refused("insert into product (id, name, price) values (7, '"
                                                 + longName + "', 8.00000000)",
                                             "13=SQLITE_FULL: database or disk is full"));
    EXPECT_EQ(held(table), all_held);
    EXPECT_EQ(products(_db), three_products);
    EXPECT_TRUE(table.updateRecord(product(table, 2, "cocoa", 3)));
    EXPECT_EQ(products(_db), "1|tea|2.5\n2|cocoa|3.0\n3|milk|1.25");
    _db.run("pragma max_page_count = 1000");
    EXPECT_TRUE(table.addRecord(product(table, 7, longName, 8)));
    EXPECT_EQ(table.totalRecordCount(), 4);
}

TEST_F(TableTest, WritesJoinTheTransactionOfTheConnection)
{
    Table table(_db, "product", test::product_columns);
    _db.run("begin");
    EXPECT_TRUE(table.addRecord(product(table, 7, "rum", 8)));
    EXPECT_TRUE(table.deleteRecord(1));
    EXPECT_TRUE(table.updateRecord(product(table, 2, "cocoa", 3)));
    _db.run("rollback");
    EXPECT_EQ(products(_db), three_products);
}

// --- Keys of 64 bits

struct WideKey {
    integer key;
    const char* text;
};

void PrintTo(const WideKey& key, std::ostream* out)
{
    *out << key.text;
}

class TableWideKeyTest : public testing::TestWithParam<WideKey> {
protected:
    test::Diagnostics _diagnostics;
    test::Connection _db;
};

TEST_P(TableWideKeyTest, IsWrittenInFullByEveryOperation)
{
    const std::string text = GetParam().text;
    fillProducts(_db);
    Table table(_db, "product", test::product_columns);
    const test::Statements statements(_db);
    EXPECT_TRUE(table.addOrUpdateRecord(GetParam().key, product(table, GetParam().key, "rum", 8)));
    EXPECT_TRUE(table.addOrUpdateRecord(GetParam().key, product(table, GetParam().key, "gin", 8)));
    ASSERT_NE(table.getRecordByKeyId(GetParam().key), nullptr);
    EXPECT_EQ(table.getTopRecord()->getValue("id")->asInteger(), GetParam().key);
    EXPECT_TRUE(table.deleteRecord(GetParam().key));
    EXPECT_THAT(statements.texts(),
                ElementsAre("select count(*) from product where id = " + text,
                            "insert into product (id, name, price) values (" + text
                                + ", 'rum', 8.00000000)",
                            "select count(*) from product where id = " + text,
                            "update product set name='gin', price=8.00000000 where id = " + text,
                            "select * from product where id = " + text,
                            "delete from product where id = " + text));
    EXPECT_EQ(products(_db), three_products);
}

TEST_P(TableWideKeyTest, IsTracedInFull)
{
    const std::string text = GetParam().text;
    const std::string count = "select count(*) from product where id = " + text;
    const std::string line = "[DEBUG2] SqlTable.cpp (addOrUpdateRecord) - ";
    fillProducts(_db);
    Table table(_db, "product", test::product_columns);
    _diagnostics.setLevel(8);
    table.addOrUpdateRecord(GetParam().key, product(table, GetParam().key, "rum", 8));
    table.addOrUpdateRecord(GetParam().key, product(table, GetParam().key, "gin", 8));
    EXPECT_EQ(_diagnostics.events(),
              joined({counted(count, "0"),
                      {line + "add record for key=" + text},
                      ran("insert into product (id, name, price) values (" + text
                          + ", 'rum', 8.00000000)"),
                      counted(count, "1"),
                      {line + "update record for key=" + text},
                      ran("update product set name='gin', price=8.00000000 where id = " + text)}));
}

INSTANTIATE_TEST_SUITE_P(
    All, TableWideKeyTest,
    testing::Values(WideKey{std::numeric_limits<integer>::max(), "9223372036854775807"},
                    WideKey{std::numeric_limits<integer>::min(), "-9223372036854775808"},
                    WideKey{4294967299, "4294967299"}, WideKey{0, "0"}, WideKey{-1, "-1"}));

// --- The lines of this class themselves

TEST_F(TableTest, LinesNameTheirFormatPriorityAndSource)
{
    _diagnostics.setLevel(9);
    Table table(_db, "product", test::product_columns);
    table.exists();
    const test::LogLine debug = _diagnostics.lines().back();
    EXPECT_EQ(debug.priority, 7);
    EXPECT_EQ(debug.format, "[DEBUG2] %s:%d (%s) - Table '%s' exists");
    Table("copy").getDefinition();
    const test::LogLine error = _diagnostics.lines().back();
    EXPECT_EQ(error.priority, 3);
    EXPECT_EQ(error.format,
              "[ERROR] %s:%d (%s) - Failed to build SQL CREATE TABLE stmt for table %s");
    EXPECT_EQ(_diagnostics.failedAssertions().back().path,
              "components/sql/sqlwrapper/src/SqlTable.cpp");
}

TEST_F(TableTest, AddOrUpdateHasAFormatOfItsOwnForEveryFormOfKey)
{
    _diagnostics.setLevel(8);
    Table table(_db, "product", test::product_columns);
    table.addOrUpdateRecord(7, product(table, 7, "rum", 8));
    table.addOrUpdateRecord(7, product(table, 7, "rum", 8));
    table.addOrUpdateRecord("8", product(table, 8, "gin", 8));
    table.addOrUpdateRecord("8", product(table, 8, "gin", 8));
    Texts formats;
    for (const test::LogLine& line : _diagnostics.lines()) {
        if (line.file == "SqlTable.cpp")
            formats.push_back(line.format);
    }
    EXPECT_THAT(formats, ElementsAre("[DEBUG2] %s:%d (%s) - add record for key=%lld",
                                     "[DEBUG2] %s:%d (%s) - update record for key=%lld",
                                     "[DEBUG2] %s:%d (%s) - add record for key=%s",
                                     "[DEBUG2] %s:%d (%s) - update record for key=%s"));
}

// --- Copy and backup: from "product" to "copy"

class TableCopyTest : public TableTest {
protected:
    TableCopyTest()
        : _source(_db, "product", test::product_columns), _copy(_db, "copy", test::product_columns)
    {
    }

    void makeCopy(const std::string& rows = "")
    {
        _db.run("create table copy (id INTEGER PRIMARY KEY, name TEXT, price REAL)");
        if (!rows.empty())
            _db.run("insert into copy values " + rows);
    }

    Table _source;
    Table _copy;
};

const Texts three_inserts = {"insert into copy (id, name, price) values (1, 'tea', 2.5)",
                             "insert into copy (id, name, price) values (2, 'coffee', 4.5)",
                             "insert into copy (id, name, price) values (3, 'milk', 1.25)"};

const char copy_definition[] = "CREATE TABLE copy (id INTEGER PRIMARY KEY, name TEXT, price REAL)";

TEST_F(TableCopyTest, CopyAddsEveryRowThatTheSourceHolds)
{
    makeCopy("(9, 'gin', 6.5)");
    _source.open();
    _copy.open();
    const test::Statements statements(_db);
    EXPECT_TRUE(_copy.copyRecords(_source));
    EXPECT_EQ(statements.texts(), three_inserts);
    EXPECT_EQ(products(_db, "copy"), std::string(three_products) + "\n9|gin|6.5");
    EXPECT_THAT(held(_copy), ElementsAre("9|gin|6.5"));
    EXPECT_EQ(held(_source), all_held);
    EXPECT_THAT(_diagnostics.events(), IsEmpty());
}

TEST_F(TableCopyTest, CopyShowsTheRouteOfWrites)
{
    makeCopy();
    _source.open("id = 1");
    _diagnostics.setLevel(9);
    EXPECT_TRUE(_copy.copyRecords(_source));
    EXPECT_EQ(_diagnostics.events(), ran(three_inserts[0]));
}

TEST_F(TableCopyTest, CopyTakesTheRowsHeldNotThoseOfTheDatabase)
{
    makeCopy();
    _source.open("id < 3");
    _source.getRecord(0)->setString("name", "changed");
    _source.truncate();
    _source.query("select 1, 'changed', null");
    EXPECT_TRUE(_copy.copyRecords(_source));
    EXPECT_EQ(products(_db, "copy"), "1|changed|NULL");
}

TEST_F(TableCopyTest, CopyOfASourceNeverReadAddsNothing)
{
    makeCopy();
    EXPECT_TRUE(_copy.copyRecords(_source));
    EXPECT_EQ(products(_db, "copy"), "");
    EXPECT_THAT(_diagnostics.events(), IsEmpty());
}

TEST_F(TableCopyTest, CopyUsesTheSourcesColumnsUnderItsOwnNameDeliberately)
{
    makeCopy();
    Table source(_db, "product", test::key_last_columns);
    source.query("select name, price, id from product where id = 2");
    const test::Statements statements(_db);
    EXPECT_TRUE(_copy.copyRecords(source));
    EXPECT_THAT(statements.texts(),
                ElementsAre("insert into copy (name, price, id) values ('coffee', 4.5, 2)"));
    EXPECT_EQ(products(_db, "copy"), "2|coffee|4.5");
}

TEST_F(TableCopyTest, CopyOfAnExistingKeyFailsAndKeepsTheRowsBeforeIt)
{
    makeCopy("(2, 'gin', 6.5)");
    _source.open();
    const test::Statements statements(_db);
    EXPECT_FALSE(_copy.copyRecords(_source));
    EXPECT_THAT(statements.texts(), ElementsAre(three_inserts[0], three_inserts[1]));
    EXPECT_EQ(products(_db, "copy"), "1|tea|2.5\n2|gin|6.5");
    EXPECT_THAT(
        _diagnostics.events(),
        ElementsAre(
            "[ERROR] SqlRecordSet.cpp (query) - Failed to run the SQL stmt 'insert into copy (id, name, price) values (2, 'coffee', 4.5)'",
            test::worded(
                "[ERROR] SqlRecordSet.cpp (query) -   rc=19=SQLITE_CONSTRAINT: UNIQUE constraint failed: copy.id")));
}

TEST_F(TableCopyTest, CopyToATableWithoutConnectionFails)
{
    Table copy("copy");
    _source.open();
    EXPECT_FALSE(copy.copyRecords(_source));
    EXPECT_THAT(_diagnostics.events(), ElementsAre(no_connection));
}

TEST_F(TableCopyTest, CopyGoesFromOneConnectionToAnother)
{
    test::Connection other;
    Table copy(other, "copy", test::product_columns);
    copy.create();
    _source.open();
    EXPECT_TRUE(copy.copyRecords(_source));
    EXPECT_EQ(products(other, "copy"), three_products);
}

TEST_F(TableCopyTest, BackupRebuildsAnExistingCopyAndCountsTheSourceFirst)
{
    makeCopy("(9, 'gin', 6.5)");
    _copy.open();
    const test::Statements statements(_db);
    EXPECT_TRUE(_copy.backup(_source));
    EXPECT_EQ(statements.texts(),
              joined({{existenceOf("copy"), "drop table copy", existenceOf("copy"), copy_definition,
                       "select * from product"},
                      three_inserts,
                      {"select count(*) from product", "select count(*) from copy"}}));
    EXPECT_EQ(products(_db, "copy"), three_products);
    EXPECT_EQ(products(_db), three_products);
    EXPECT_EQ(_copy.recordCount(), 0);
    EXPECT_EQ(held(_source), all_held);
    EXPECT_THAT(_diagnostics.events(), IsEmpty());
}

TEST_F(TableCopyTest, BackupReportsTheRouteOfEveryStep)
{
    makeCopy();
    _diagnostics.setLevel(9);
    EXPECT_TRUE(_copy.backup(_source));
    EXPECT_EQ(_diagnostics.events(),
              joined({counted(existenceOf("copy"), "1"),
                      {"[DEBUG2] SqlTable.cpp (exists) - Table 'copy' exists"},
                      ran("drop table copy"),
                      counted(existenceOf("copy"), "0"),
                      {"[DEBUG2] SqlTable.cpp (exists) - Table 'copy' does not exist"},
                      ran(copy_definition),
                      ran("select * from product"),
                      {rowRead(tea.dump), rowRead(coffee.dump), rowRead(milk.dump)},
                      ran(three_inserts[0]),
                      ran(three_inserts[1]),
                      ran(three_inserts[2]),
                      counted("select count(*) from product", "3"),
                      counted("select count(*) from copy", "3")}));
}

TEST_F(TableCopyTest, BackupCreatesAMissingCopyWithoutDropping)
{
    _db.run("delete from product");
    const test::Statements statements(_db);
    EXPECT_TRUE(_copy.backup(_source));
    EXPECT_THAT(statements.texts(),
                ElementsAre(existenceOf("copy"), existenceOf("copy"), copy_definition,
                            "select * from product", "select count(*) from product",
                            "select count(*) from copy"));
    EXPECT_EQ(_db.rows("select sql from sqlite_master where name = 'copy'"), copy_definition);
    EXPECT_EQ(products(_db, "copy"), "");
}

TEST_F(TableCopyTest, BackupLoadsAllRowsOfTheSourceWhateverItHeld)
{
    _source.open("id = 1");
    EXPECT_TRUE(_copy.backup(_source));
    EXPECT_EQ(products(_db, "copy"), three_products);
    EXPECT_EQ(held(_source), all_held);
}

TEST_F(TableCopyTest, BackupOfATableOntoItselfLosesItsRowsDeliberately)
{
    Table& same = _source;
    EXPECT_TRUE(_source.backup(same));
    EXPECT_EQ(products(_db), "");
    EXPECT_THAT(_diagnostics.events(), IsEmpty());
}

TEST_F(TableCopyTest, BackupOfATableOntoAnotherObjectForItLosesItsRowsDeliberately)
{
    Table twin(_db, "product", test::product_columns);
    twin.open();
    const test::Statements statements(_db);
    EXPECT_TRUE(twin.backup(_source));
    EXPECT_THAT(statements.texts(),
                ElementsAre(existenceOf("product"), "drop table product", existenceOf("product"),
                            "CREATE TABLE product (id INTEGER PRIMARY KEY, name TEXT, price REAL)",
                            "select * from product", "select count(*) from product",
                            "select count(*) from product"));
    EXPECT_EQ(products(_db), "");
    EXPECT_THAT(_diagnostics.events(), IsEmpty());
}

TEST_F(TableCopyTest, BackupIgnoresAFailedRemoveDeliberately)
{
    makeCopy();
    const Denied denied(_db, SQLITE_DROP_TABLE);
    EXPECT_TRUE(_copy.backup(_source));
    EXPECT_EQ(products(_db, "copy"), three_products);
    EXPECT_THAT(
        _diagnostics.events(),
        ElementsAre(
            "[ERROR] SqlRecordSet.cpp (query) - Failed to run the SQL stmt 'drop table copy'",
            "[ERROR] SqlRecordSet.cpp (query) -   rc=23=SQLITE_AUTH: not authorized"));
}

TEST_F(TableCopyTest, BackupWithDifferentCountsFailsWithoutAReport)
{
    makeCopy("(9, 'gin', 6.5)");
    const Denied denied(_db, SQLITE_DROP_TABLE);
    EXPECT_FALSE(_copy.backup(_source));
    EXPECT_EQ(products(_db, "copy"), std::string(three_products) + "\n9|gin|6.5");
    EXPECT_EQ(_diagnostics.events(),
              visibleAt(3, refused("drop table copy", "23=SQLITE_AUTH: not authorized")));
}

TEST_F(TableCopyTest, BackupWithTwoFailedCountsSucceedsDeliberately)
{
    _db.run("delete from product");
    const Denied denied(_db, SQLITE_FUNCTION); // no count(), so every table seems to exist
    EXPECT_TRUE(_copy.backup(_source));
    EXPECT_EQ(_db.rows("select name from sqlite_master"), "product");
    const std::string reason = "1=SQLITE_ERROR: not authorized to use function: count";
    const std::string missing_copy = "1=SQLITE_ERROR: no such table: copy";
    const Texts seems_to_exist = joined(
        {notCounted(existenceOf("copy"), reason),
         {"[ERROR] SqlTable.cpp (exists) - Failed to determine if table 'copy' exists"}});
    EXPECT_EQ(
        _diagnostics.events(),
        visibleAt(3, joined({seems_to_exist, refused("drop table copy", missing_copy),
                             seems_to_exist, notCounted("select count(*) from product", reason),
                             notCounted("select count(*) from copy", missing_copy)})));
}

TEST_F(TableCopyTest, BackupWithoutColumnsFailsAtCreateAndLoadsNothing)
{
    Table copy(_db, "copy", FieldSet(nullptr));
    const test::Statements statements(_db);
    EXPECT_FALSE(copy.backup(_source));
    EXPECT_THAT(statements.texts(), ElementsAre(existenceOf("copy"), existenceOf("copy")));
    EXPECT_EQ(_source.recordCount(), 0);
    EXPECT_EQ(_diagnostics.events(), joined({noDefinition("copy"), noCreation("copy")}));
}

TEST_F(TableCopyTest, BackupOfAMissingSourceFailsAndLeavesAnEmptyCopy)
{
    makeCopy("(9, 'gin', 6.5)");
    Table source(_db, "order_line", test::product_columns);
    const test::Statements statements(_db);
    EXPECT_FALSE(_copy.backup(source));
    EXPECT_THAT(statements.texts(), ElementsAre(existenceOf("copy"), "drop table copy",
                                                existenceOf("copy"), copy_definition));
    EXPECT_EQ(products(_db, "copy"), "");
    EXPECT_EQ(_diagnostics.events(),
              visibleAt(3, refused("select * from order_line",
                                   "1=SQLITE_ERROR: no such table: order_line")));
}

TEST_F(TableCopyTest, BackupKeepsAPartlyFilledCopyDeliberately)
{
    _db.run("update product set name = null where id = 2");
    Table copy(_db, "copy", constrained_columns);
    const test::Statements statements(_db);
    EXPECT_FALSE(copy.backup(_source));
    EXPECT_THAT(
        statements.texts(),
        ElementsAre(
            existenceOf("copy"), existenceOf("copy"),
            "CREATE TABLE copy (id INTEGER PRIMARY KEY NOT NULL, name TEXT NOT NULL UNIQUE, price REAL)",
            "select * from product", three_inserts[0],
            "insert into copy (id, name, price) values (2, null, 4.5)"));
    EXPECT_EQ(products(_db, "copy"), "1|tea|2.5");
    EXPECT_EQ(_diagnostics.events(),
              visibleAt(3, refused("insert into copy (id, name, price) values (2, null, 4.5)",
                                   "19=SQLITE_CONSTRAINT: NOT NULL constraint failed: copy.name")));
}

TEST_F(TableCopyTest, BackupWithoutConnectionFailsAtCreate)
{
    Table copy(nullptr, "copy", test::product_columns);
    const test::Statements statements(_db);
    EXPECT_FALSE(copy.backup(_source));
    EXPECT_THAT(statements.texts(), IsEmpty());
    EXPECT_THAT(_diagnostics.events(),
                ElementsAre("assert '_db' in SqlTable.cpp (bool sql::Table::exists())",
                            "assert '_db' in SqlTable.cpp (bool sql::Table::exists())",
                            no_connection));
}

TEST_F(TableCopyTest, BackupOfASourceWithoutConnectionFailsAndLeavesAnEmptyCopy)
{
    Table source("product");
    EXPECT_FALSE(_copy.backup(source));
    EXPECT_EQ(products(_db, "copy"), "");
    EXPECT_THAT(_diagnostics.events(), ElementsAre(no_connection));
}

} // namespace
