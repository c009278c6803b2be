#include "SqlTable.h"

#include "Cases.h"
#include "ProductTest.h"

#include <functional>
#include <limits>
#include <type_traits>
#include <vector>

// Every operation of a table: its result, its statements, its reports and the rows held afterwards.

namespace {

namespace report = test::report;

using sql::Field;
using sql::Record;
using sql::string;
using sql::Table;
using test::joined;
using test::product;
using test::Texts;
using testing::ValuesIn;

static_assert(!std::is_copy_constructible<Table>::value, "rows point into their table");
static_assert(!std::is_copy_assignable<Table>::value, "rows point into their table");
static_assert(!std::is_polymorphic<Table>::value, "a plain class");

// --- An operation with its arguments, which tells what it gave back

std::string told(Table&, bool result)
{
    return result ? "true" : "false";
}

std::string told(Table&, int number)
{
    return std::to_string(number);
}

std::string told(Table&, const std::string& text)
{
    return text;
}

// A row by its place among those held.
std::string told(Table& table, const Record* record)
{
    for (int i = 0; i < table.recordCount(); ++i) {
        if (record == table.getRecord(i))
            return "row " + std::to_string(i);
    }
    return record == nullptr ? "null" : "a row that is not held";
}

struct Act {
    template <typename Operation>
    Act(Operation operation) : run([operation](Table& t) { return told(t, operation(t)); })
    {
    }

    std::function<std::string(Table&)> run;
};

// --- A case: one operation on a table that holds one row, unless it has no connection

struct Setup {
    std::string stored; // the table of three products in the database, if any
    std::string table;
    const Field* columns;
    bool isConnected = true;
};

const Setup filled = {"product", "product", test::product_columns};
const Setup missing = {"", "product", test::product_columns};
const Setup unconnected = {"", "product", test::product_columns, false};
const Setup without_columns = {"product", "product", test::no_columns};
const Setup missing_without_columns = {"", "product", test::no_columns};
const Setup without_key = {"product", "product", test::without_key_columns};
const Setup without_name = {"product", "", test::product_columns};
const Setup key_last = {"product", "product", test::key_last_columns};
const Setup text_key = {"product", "product", test::text_key_columns};
const Setup other_letter_case = {"product", "Product", test::product_columns};
const Setup name_with_quote = {"product", "o'clock", test::product_columns};

// A name that is a table's as it stands alone, not with its quotes doubled, removed or put within
// others.
const Setup oddly_named = {"\"it''s my product\"", "\"it''s my product\"", test::product_columns};

struct TableCase : test::Case {
    Setup setup;
    Act act;
    std::string result;
    Texts report; // at level 9
    bool loads;   // replaces the rows held
    Texts rowsRead;
    std::string rowsStored;
};

struct Fixture {
    explicit Fixture(const Setup& setup)
        : stored(setup.stored),
          table(setup.isConnected ? db.get() : nullptr, setup.table, setup.columns)
    {
        if (!stored.empty())
            test::fillProducts(db, stored);
        if (setup.isConnected)
            table.query("select 1, 'marked', 2.5");
        held = test::held(table);
    }

    std::string rowsStored()
    {
        if (db.rows("select count(*) from sqlite_master") == "0")
            return "no table";
        return test::products(db, stored);
    }

    test::Connection db;
    std::string stored;
    Table table;
    Texts held;
};

class TableCaseTest : public testing::TestWithParam<TableCase> {
protected:
    test::Diagnostics _diagnostics;
};

TEST_P(TableCaseTest, GivesItsResultAtEveryLevelAndReportsWhatTheLevelShows)
{
    for (const int level : test::trace_levels) {
        SCOPED_TRACE(level);
        Fixture fixture(GetParam().setup);
        _diagnostics.setLevel(level);
        _diagnostics.clear();
        EXPECT_EQ(GetParam().act.run(fixture.table), GetParam().result);
        EXPECT_EQ(_diagnostics.take(), test::visibleAt(level, GetParam().report));
    }
}

TEST_P(TableCaseTest, LeavesTheRowsHeldUnlessItLoads)
{
    Fixture fixture(GetParam().setup);
    const Record* const top = fixture.table.getTopRecord();
    GetParam().act.run(fixture.table);
    EXPECT_EQ(test::held(fixture.table), GetParam().loads ? GetParam().rowsRead : fixture.held);
    if (!GetParam().loads) {
        EXPECT_EQ(fixture.table.getTopRecord(), top);
    }
}

TEST_P(TableCaseTest, ChangesTheRowsStoredAndNotTheTableItself)
{
    Fixture fixture(GetParam().setup);
    const std::string columns = fixture.table.fields()->dump();
    sqlite3* const handle = fixture.table.getHandle();
    GetParam().act.run(fixture.table);
    EXPECT_EQ(fixture.rowsStored(), GetParam().rowsStored);
    EXPECT_EQ(fixture.table.name(), GetParam().setup.table);
    EXPECT_EQ(fixture.table.getHandle(), handle);
    EXPECT_EQ(fixture.table.fields()->dump(), columns);
}

// Those that succeed.
class TableSuccessTest : public TableCaseTest {};

// The statements that a report shows.
Texts statementsOf(const Texts& report)
{
    const std::string start = " - stmt='";
    Texts statements;
    for (const std::string& event : report) {
        const std::size_t at = event.find(start);
        if (at != std::string::npos)
            statements.push_back(
                event.substr(at + start.size(), event.size() - at - start.size() - 1));
    }
    return statements;
}

TEST_P(TableSuccessTest, RunsItsStatementsAndNoOthers)
{
    Fixture fixture(GetParam().setup);
    const test::Statements statements(fixture.db);
    GetParam().act.run(fixture.table);
    EXPECT_EQ(statements.texts(), statementsOf(GetParam().report));
}

// --- The operations that run a statement

// A row as it is traced and as it is held.
struct Row {
    const char* dump;
    const char* text;
};

const Row tea = {"id = 1|name = tea|price = 2.5", "1|tea|2.5"};
const Row coffee = {"id = 2|name = coffee|price = 4.5", "2|coffee|4.5"};
const Row milk = {"id = 3|name = milk|price = 1.25", "3|milk|1.25"};
const Row selected = {"id = 9|name = rum|price = 8", "9|rum|8"};

const std::string rows_stored = test::three_products;

// The routes: the table's own record set, counting, a record set beside the own one, and counting
// that chooses the statement for the latter.
enum Route { route_load, route_count, route_write, route_choose };

struct Operation {
    std::string name;
    Act act;
    Route route;
    std::string statement; // with % for the table's name
    std::string result = "true";
    std::string failure = "false"; // the result when the statement cannot run
    std::string rowsStored = rows_stored;
    std::vector<Row> rowsRead = {};
    std::string number = ""; // that was counted
    std::string key = "";    // to choose by
    std::string write = "";  // that was chosen

    bool adds() const
    {
        return number == "0";
    }
};

Operation loads(const char* name, const char* statement, std::vector<Row> rows, Act act)
{
    return {name, act, route_load, statement, "true", "false", rows_stored, rows};
}

Operation gets(const char* name, const char* statement, std::vector<Row> rows, Act act)
{
    const char* const result = rows.empty() ? "null" : "row 0";
    return {name, act, route_load, statement, result, "null", rows_stored, rows};
}

Operation drops(const char* name, const char* statement, const char* rowsStored, Act act)
{
    return {name, act, route_load, statement, "true", "false", rowsStored};
}

Operation has(const char* name, const char* statement, const char* number, Act act)
{
    const char* const result = number == string("0") ? "false" : "true";
    return {name, act, route_count, statement, result, "false", rows_stored, {}, number};
}

Operation writes(const char* name, const char* statement, const std::string& rowsStored, Act act)
{
    return {name, act, route_write, statement, "true", "false", rowsStored};
}

Operation chooses(const char* name, const char* count, const char* number, const char* key,
                  const char* write, const std::string& rowsStored, Act act)
{
    return {name, act, route_choose, count, "true", "false", rowsStored, {}, number, key, write};
}

const std::string rum_added = rows_stored + "\n7|rum|8.0";
const std::string cocoa_for_coffee = "1|tea|2.5\n2|cocoa|3.0\n3|milk|1.25";
const char insert_rum[] = "insert into % (id, name, price) values (7, 'rum', 8.00000000)";
const char update_coffee[] = "update % set name='cocoa', price=3.00000000 where id = 2";

const Operation operations[] = {
    drops("RemoveDropsTheTable", "drop table %", "no table", [](Table& t) { return t.remove(); }),
    drops("TruncateDeletesAllRows", "delete from %", "", [](Table& t) { return t.truncate(); }),
    {"TotalRecordCountCounts",
     [](Table& t) { return t.totalRecordCount(); },
     route_count,
     "select count(*) from %",
     "3",
     "-1",
     rows_stored,
     {},
     "3"},

    loads("OpenLoadsAllRows", "select * from %", {tea, coffee, milk},
          [](Table& t) { return t.open(); }),
    loads("OpenWithAnEmptyConditionLoadsAllRows", "select * from %", {tea, coffee, milk},
          [](Table& t) { return t.open(""); }),
    loads("OpenWithAnEmptyConditionAndOrderLoadsAllRows", "select * from %", {tea, coffee, milk},
          [](Table& t) { return t.open("", ""); }),
    loads("OpenWithAConditionAsItStands", "select * from % where  name = 'tea' ", {tea},
          [](Table& t) { return t.open(" name = 'tea' "); }),
    loads("OpenWithAConditionAndAnOrderAsTheyStand",
          "select * from % where  id = 2  order by  'name' ", {coffee},
          [](Table& t) { return t.open(" id = 2 ", " 'name' "); }),
    loads("OpenWithAConditionAndAnEmptyOrder", "select * from % where price > 2", {tea, coffee},
          [](Table& t) { return t.open("price > 2", ""); }),
    loads("OpenWithAnOrderAlone", "select * from % order by name", {coffee, milk, tea},
          [](Table& t) { return t.open("", "name"); }),
    loads("OpenWithAConditionAndAnOrder", "select * from % where price > 2 order by name",
          {coffee, tea}, [](Table& t) { return t.open("price > 2", "name"); }),
    loads("OpenWithAConditionThatNoRowFulfils", "select * from % where price > 9", {},
          [](Table& t) { return t.open("price > 9"); }),

    gets("GetRecordByAnIntegerKey", "select * from % where id = 2", {coffee},
         [](Table& t) { return t.getRecordByKeyId(2); }),
    gets("GetRecordByAStringKey", "select * from % where id = \"2\"", {coffee},
         [](Table& t) { return t.getRecordByKeyId("2"); }),
    gets("GetRecordByAMissingIntegerKeyIsNullAndEmptiesTheRowsHeld", "select * from % where id = 7",
         {}, [](Table& t) { return t.getRecordByKeyId(7); }),
    gets("GetRecordByAMissingStringKeyIsNullAndEmptiesTheRowsHeld",
         "select * from % where id = \"seven\"", {},
         [](Table& t) { return t.getRecordByKeyId("seven"); }),
    gets("GetRecordByAnEmptyStringKeyIsNull", "select * from % where id = \"\"", {},
         [](Table& t) { return t.getRecordByKeyId(""); }),
    has("HasRecordWithAnIntegerKey", "select count(*) from % where id = 2", "1",
        [](Table& t) { return t.hasRecordWithKeyId(2); }),
    has("HasRecordWithAStringKey", "select count(*) from % where id = \"2\"", "1",
        [](Table& t) { return t.hasRecordWithKeyId("2"); }),
    has("HasNoRecordWithAMissingIntegerKey", "select count(*) from % where id = 7", "0",
        [](Table& t) { return t.hasRecordWithKeyId(7); }),
    has("HasNoRecordWithAMissingStringKey", "select count(*) from % where id = \"seven\"", "0",
        [](Table& t) { return t.hasRecordWithKeyId("seven"); }),

    writes("AddRecordInserts", insert_rum, rum_added,
           [](Table& t) { return t.addRecord(product(t, 7, "rum", 8)); }),
    writes("AddRecordWithoutAKeyLetsSqliteChooseIt",
           "insert into % (id, name, price) values (null, 'O''Brien tea', 2.50000000)",
           rows_stored + "\n4|O'Brien tea|2.5",
           [](Table& t) { return t.addRecord(product(t, "O'Brien tea", 2.5)); }),
    writes("UpdateRecordUpdatesTheRowOfItsKey", update_coffee, cocoa_for_coffee,
           [](Table& t) { return t.updateRecord(product(t, 2, "cocoa", 3)); }),
    writes("UpdateRecordOfAMissingKeySucceeds",
           "update % set name='cocoa', price=3.00000000 where id = 7", rows_stored,
           [](Table& t) { return t.updateRecord(product(t, 7, "cocoa", 3)); }),
    chooses("AddOrUpdateRecordUpdatesByAnIntegerKey", "select count(*) from % where id = 2", "1",
            "2", update_coffee, cocoa_for_coffee,
            [](Table& t) { return t.addOrUpdateRecord(2, product(t, 2, "cocoa", 3)); }),
    chooses("AddOrUpdateRecordAddsByAnIntegerKey", "select count(*) from % where id = 7", "0", "7",
            insert_rum, rum_added,
            [](Table& t) { return t.addOrUpdateRecord(7, product(t, 7, "rum", 8)); }),
    chooses("AddOrUpdateRecordUpdatesByAStringKey", "select count(*) from % where id = \"2\"", "1",
            "2", update_coffee, cocoa_for_coffee,
            [](Table& t) { return t.addOrUpdateRecord("2", product(t, 2, "cocoa", 3)); }),
    chooses("AddOrUpdateRecordAddsByAStringKey", "select count(*) from % where id = \"seven\"", "0",
            "seven", insert_rum, rum_added,
            [](Table& t) { return t.addOrUpdateRecord("seven", product(t, 7, "rum", 8)); }),
    chooses("KeyArgumentOnlyChoosesTheUpdateDeliberately", "select count(*) from % where id = 1",
            "1", "1", update_coffee, cocoa_for_coffee,
            [](Table& t) { return t.addOrUpdateRecord(1, product(t, 2, "cocoa", 3)); }),
    chooses("KeyArgumentOnlyChoosesTheInsertDeliberately",
            "select count(*) from % where id = \"9\"", "0", "9", insert_rum, rum_added,
            [](Table& t) { return t.addOrUpdateRecord("9", product(t, 7, "rum", 8)); }),
    writes("DeleteRecordByAnIntegerKey", "delete from % where id = 1", "2|coffee|4.5\n3|milk|1.25",
           [](Table& t) { return t.deleteRecord(1); }),
    writes("DeleteRecordByAStringKey", "delete from % where id = \"1\"",
           "2|coffee|4.5\n3|milk|1.25", [](Table& t) { return t.deleteRecord("1"); }),
    writes("DeleteRecordOfAMissingIntegerKeySucceeds", "delete from % where id = 7", rows_stored,
           [](Table& t) { return t.deleteRecord(7); }),
    writes("DeleteRecordOfAMissingStringKeySucceeds", "delete from % where id = \"seven\"",
           rows_stored, [](Table& t) { return t.deleteRecord("seven"); }),
    writes("DeleteRecordsWithACondition", "delete from % where price > 2", "3|milk|1.25",
           [](Table& t) { return t.deleteRecords("price > 2"); }),
    writes("DeleteRecordsWithAConditionAsItStands", "delete from % where  name = 'tea' ",
           "2|coffee|4.5\n3|milk|1.25", [](Table& t) { return t.deleteRecords(" name = 'tea' "); }),
    writes("DeleteRecordsWithAnEmptyCondition", "delete from %", "",
           [](Table& t) { return t.deleteRecords(""); }),
};

std::string named(std::string statement, const std::string& table)
{
    return statement.replace(statement.find('%'), 1, table);
}

Texts choice(const Operation& operation)
{
    const std::string line = operation.adds() ? "add record for key=" : "update record for key=";
    return {report::debug(2, "Table::addOrUpdateRecord", line + operation.key)};
}

TableCase succeeding(const Operation& operation, const Setup& setup)
{
    const std::string statement = named(operation.statement, setup.table);
    TableCase one = {operation.name,
                     setup,
                     operation.act,
                     operation.result,
                     report::ran(statement),
                     operation.route == route_load,
                     {},
                     operation.rowsStored};
    for (const Row& row : operation.rowsRead) {
        one.report.push_back(report::rowRead(row.dump));
        one.rowsRead.push_back(row.text);
    }
    if (operation.route == route_count || operation.route == route_choose)
        one.report = report::counted(statement, operation.number);
    if (operation.route == route_choose)
        one.report = joined(
            {one.report, choice(operation), report::ran(named(operation.write, setup.table))});
    return one;
}

std::vector<TableCase> succeedingIn(const Setup& setup)
{
    std::vector<TableCase> all;
    for (const Operation& operation : operations)
        all.push_back(succeeding(operation, setup));
    return all;
}

Texts reportWithoutATable(const Operation& operation)
{
    const std::string reason = "1=SQLITE_ERROR: no such table: product";
    const std::string statement = named(operation.statement, "product");
    if (operation.route == route_count)
        return report::notPrepared(statement, reason);
    if (operation.route == route_choose)
        return joined({report::notPrepared(statement, reason), choice(operation),
                       report::refused(named(operation.write, "product"), reason)});
    return report::refused(statement, reason);
}

Texts reportWithoutAConnection(const Operation& operation)
{
    if (operation.failure == "-1") // the count of the table alone
        return {report::asserted("int sql::Table::totalRecordCount() const", "_db")};
    if (operation.route == route_count)
        return {report::nothingToCountOn()};
    if (operation.route == route_choose)
        return joined({{report::nothingToCountOn()}, choice(operation), {report::notConnected()}});
    return {report::notConnected()};
}

// Without a key that is found there is nothing to update.
std::vector<TableCase> failingIn(const Setup& setup, Texts (*reportOf)(const Operation&))
{
    std::vector<TableCase> all;
    for (const Operation& operation : operations) {
        if (operation.route != route_choose || operation.adds())
            all.push_back({operation.name,
                           setup,
                           operation.act,
                           operation.failure,
                           reportOf(operation),
                           operation.route == route_load,
                           {},
                           "no table"});
    }
    return all;
}

INSTANTIATE_TEST_SUITE_P(Filled, TableCaseTest, ValuesIn(succeedingIn(filled)), test::NameOfCase());
INSTANTIATE_TEST_SUITE_P(Filled, TableSuccessTest, ValuesIn(succeedingIn(filled)),
                         test::NameOfCase());
INSTANTIATE_TEST_SUITE_P(OddlyNamed, TableCaseTest, ValuesIn(succeedingIn(oddly_named)),
                         test::NameOfCase());
INSTANTIATE_TEST_SUITE_P(OddlyNamed, TableSuccessTest, ValuesIn(succeedingIn(oddly_named)),
                         test::NameOfCase());
INSTANTIATE_TEST_SUITE_P(MissingTable, TableCaseTest,
                         ValuesIn(failingIn(missing, reportWithoutATable)), test::NameOfCase());
INSTANTIATE_TEST_SUITE_P(NoConnection, TableCaseTest,
                         ValuesIn(failingIn(unconnected, reportWithoutAConnection)),
                         test::NameOfCase());

// --- Other operations, and other ways to fail

TableCase keeps(const char* name, const Setup& setup, const char* result, const Texts& report,
                Act act)
{
    return {name,   setup, act, result,
            report, false, {},  setup.stored.empty() ? "no table" : rows_stored};
}

TableCase discards(const char* name, const Setup& setup, const char* result, const Texts& report,
                   Act act)
{
    TableCase one = keeps(name, setup, result, report, act);
    one.loads = true;
    return one;
}

const TableCase other_operations[] = {
    keeps("ExistsCounts", filled, "true", report::present("product"),
          [](Table& t) { return t.exists(); }),
    keeps("CreateOfAnExistingTableRunsNothing", filled, "true", report::present("product"),
          [](Table& t) { return t.create(); }),
    {"QueryRunsTheTextUnchanged",
     filled,
     [](Table& t) { return t.query(" select 9, 'rum', 8 -- x;"); },
     "true",
     joined({report::ran(" select 9, 'rum', 8 -- x;"), {report::rowRead(selected.dump)}}),
     true,
     {selected.text},
     rows_stored},
    {"QueryOfAStatementWithoutRows",
     filled,
     [](Table& t) { return t.query("delete from product where id = 1"); },
     "true",
     report::ran("delete from product where id = 1"),
     true,
     {},
     "2|coffee|4.5\n3|milk|1.25"},
    keeps("NameIsThatOfTheTable", filled, "product", {}, [](Table& t) { return t.name(); }),
    keeps("FieldsAreTheColumns", filled, "id, name, price", {},
          [](Table& t) { return t.fields()->toSql(); }),
    keeps("GetHandleIsTheConnection", filled, "true", {},
          [](Table& t) { return t.getHandle() != nullptr; }),
    keeps("GetDefinitionIsTheStatementThatCreates", oddly_named,
          "CREATE TABLE \"it''s my product\" (id INTEGER PRIMARY KEY, name TEXT, price REAL)", {},
          [](Table& t) { return t.getDefinition(); }),
    keeps("ToStringIsTheColumns", filled,
          "1. id INTEGER PRIMARY KEY\r\n2. name TEXT\r\n3. price REAL", {},
          [](Table& t) { return t.toString(); }),
    keeps("RecordCountIsThatOfTheRowsHeld", filled, "1", {},
          [](Table& t) { return t.recordCount(); }),
    keeps("GetRecordBehindTheRowsHeldIsNull", filled, "null", {},
          [](Table& t) { return t.getRecord(1); }),
    keeps("GetRecordInFrontOfTheRowsHeldIsNull", filled, "null", {},
          [](Table& t) { return t.getRecord(-1); }),
    keeps("GetTopRecordIsTheFirstRowHeld", filled, "row 0", {},
          [](Table& t) { return t.getTopRecord(); }),
};

INSTANTIATE_TEST_SUITE_P(Other, TableCaseTest, ValuesIn(other_operations), test::NameOfCase());
INSTANTIATE_TEST_SUITE_P(Other, TableSuccessTest, ValuesIn(other_operations), test::NameOfCase());

const char near_b[] = "1=SQLITE_ERROR: near \"b\": syntax error";
const char incomplete[] = "1=SQLITE_ERROR: incomplete input";
const char no_column[] = "1=SQLITE_ERROR: no such column: colour";
const char key_taken[] = "19=SQLITE_CONSTRAINT: UNIQUE constraint failed: product.id";
const char insert_over_tea[] =
    "insert into product (id, name, price) values (1, 'rum', 8.00000000)";
const std::string not_connected_table = report::asserted("bool sql::Table::exists()", "_db");
const Texts undetermined = report::undetermined("o'clock",
                                                "1=SQLITE_ERROR: near \"clock\": syntax error");

const TableCase unconnected_failures[] = {
    keeps("ExistsWithoutConnection", unconnected, "false", {not_connected_table},
          [](Table& t) { return t.exists(); }),
    keeps("CreateWithoutConnection", unconnected, "false",
          {not_connected_table, report::notConnected()}, [](Table& t) { return t.create(); }),
};

// Without columns, key column or name.
const TableCase schema_failures[] = {
    keeps("GetDefinitionWithoutColumns", without_columns, "", report::noDefinition("product"),
          [](Table& t) { return t.getDefinition(); }),
    keeps("CreateWithoutColumnsReportsTwiceDeliberately", missing_without_columns, "false",
          joined({report::absent("product"), report::notCreated("product")}),
          [](Table& t) { return t.create(); }),
    keeps("GetRecordByIntegerKeyWithoutKeyColumnReportsTwiceDeliberately", without_key, "null",
          report::noKeyName("sql::Record* sql::Table::getRecordByKeyId(sql::integer)"),
          [](Table& t) { return t.getRecordByKeyId(7); }),
    keeps("GetRecordByStringKeyWithoutKeyColumnReportsTwiceDeliberately", without_key, "null",
          report::noKeyName("sql::Record* sql::Table::getRecordByKeyId(sql::string)"),
          [](Table& t) { return t.getRecordByKeyId("7"); }),
    keeps("HasRecordWithIntegerKeyWithoutKeyColumnReportsTwiceDeliberately", without_key, "false",
          report::noKeyName("bool sql::Table::hasRecordWithKeyId(sql::integer)"),
          [](Table& t) { return t.hasRecordWithKeyId(7); }),
    keeps("HasRecordWithStringKeyWithoutKeyColumnReportsTwiceDeliberately", without_key, "false",
          report::noKeyName("bool sql::Table::hasRecordWithKeyId(sql::string)"),
          [](Table& t) { return t.hasRecordWithKeyId("7"); }),
    keeps("DeleteRecordByIntegerKeyWithoutKeyColumnReportsTwiceDeliberately", without_key, "false",
          report::noKeyName("bool sql::Table::deleteRecord(sql::integer)"),
          [](Table& t) { return t.deleteRecord(7); }),
    keeps("DeleteRecordByStringKeyWithoutKeyColumnReportsTwiceDeliberately", without_key, "false",
          report::noKeyName("bool sql::Table::deleteRecord(sql::string)"),
          [](Table& t) { return t.deleteRecord("7"); }),
    keeps("UpdateRecordWithoutKeyColumn", without_key, "false",
          report::notUpdated("product",
                             joined({report::noKeyName(), report::noKeyNameToUpdate("product")})),
          [](Table& t) { return t.updateRecord(product(t, "rum", 8)); }),
    keeps("AddRecordWithoutColumns", without_columns, "false",
          report::notAdded("product", report::noFieldsToInsert("product")),
          [](Table& t) { return t.addRecord(Record(*t.fields())); }),
    keeps("AddRecordWithoutTableName", without_name, "false",
          report::notAdded("", report::noInsert("No table name given")),
          [](Table& t) { return t.addRecord(product(t, "rum", 8)); }),
    keeps("UpdateRecordWithoutTableName", without_name, "false",
          report::notUpdated("", report::noUpdate("No table name given")),
          [](Table& t) { return t.updateRecord(product(t, "rum", 8)); }),
};

bool updateATextKey(Table& table)
{
    Record record(*table.fields());
    record.setString("code", "A1");
    record.setString("name", "rum");
    return table.updateRecord(record);
}

const TableCase refusals[] = {
    discards("CreateUnderAnotherLetterCaseOfAnExistingName", other_letter_case, "false",
             joined({report::absent("Product"),
                     report::refused(
                         "CREATE TABLE Product (id INTEGER PRIMARY KEY, name TEXT, price REAL)",
                         "1=SQLITE_ERROR: table Product already exists")}),
             [](Table& t) { return t.create(); }),
    keeps("ExistsIsTrueWhenTheCountFailsDeliberately", name_with_quote, "true", undetermined,
          [](Table& t) { return t.exists(); }),
    keeps("CreateIsTrueAndRunsNothingWhenTheCountFailsDeliberately", name_with_quote, "true",
          undetermined, [](Table& t) { return t.create(); }),
    discards("OpenWithAnUnknownColumn", filled, "false",
             report::refused("select * from product where colour = 1", no_column),
             [](Table& t) { return t.open("colour = 1"); }),
    discards("OpenWithAnUnknownOrder", filled, "false",
             report::refused("select * from product order by colour", no_column),
             [](Table& t) { return t.open("", "colour"); }),
    discards("OpenWithABlankForACondition", filled, "false",
             report::refused("select * from product where  ", incomplete),
             [](Table& t) { return t.open(" "); }),
    discards("OpenWithABlankForAnOrder", filled, "false",
             report::refused("select * from product order by  ", incomplete),
             [](Table& t) { return t.open("", " "); }),
    discards("QueryOfABrokenStatement", filled, "false",
             report::refused("selekt", "1=SQLITE_ERROR: near \"selekt\": syntax error"),
             [](Table& t) { return t.query("selekt"); }),
    discards("GetRecordByAKeyWithADoubleQuoteBreaksTheStatementDeliberately", filled, "null",
             report::refused("select * from product where id = \"a\"b\"", near_b),
             [](Table& t) { return t.getRecordByKeyId("a\"b"); }),
    keeps("HasRecordWithAKeyWithADoubleQuoteBreaksTheStatementDeliberately", filled, "false",
          report::notPrepared("select count(*) from product where id = \"a\"b\"", near_b),
          [](Table& t) { return t.hasRecordWithKeyId("a\"b"); }),
    keeps("DeleteRecordOfAKeyWithADoubleQuoteBreaksTheStatementDeliberately", filled, "false",
          report::refused("delete from product where id = \"a\"b\"", near_b),
          [](Table& t) { return t.deleteRecord("a\"b"); }),
    keeps("AddRecordOfAnExistingKey", filled, "false", report::refused(insert_over_tea, key_taken),
          [](Table& t) { return t.addRecord(product(t, 1, "rum", 8)); }),
    keeps("AddOrUpdateRecordInsertsTheRecordsOwnKeyDeliberately", filled, "false",
          joined({report::counted("select count(*) from product where id = 7", "0"),
                  {report::debug(2, "Table::addOrUpdateRecord", "add record for key=7")},
                  report::refused(insert_over_tea, key_taken)}),
          [](Table& t) { return t.addOrUpdateRecord(7, product(t, 1, "rum", 8)); }),
    keeps("UpdateRecordWithTheKeyInTheLastColumnLeavesACommaDeliberately", key_last, "false",
          report::refused("update product set name='rum', price=8.00000000,  where id = 1",
                          "1=SQLITE_ERROR: near \"where\": syntax error"),
          [](Table& t) { return t.updateRecord(product(t, 1, "rum", 8)); }),
    keeps("UpdateRecordOfATextKeyIsReportedAndUnquotedDeliberately", text_key, "false",
          joined({{report::keyIsNoInteger()},
                  report::refused("update product set name='rum' where code = A1",
                                  "1=SQLITE_ERROR: no such column: code")}),
          updateATextKey),
    keeps("AddRecordOfInfinity", filled, "false",
          report::refused("insert into product (id, name, price) values (7, 'rum', inf)",
                          "1=SQLITE_ERROR: no such column: inf"),
          [](Table& t) {
              return t.addRecord(product(t, 7, "rum", std::numeric_limits<double>::infinity()));
          }),
    keeps("UpdateRecordWithNotANumber", filled, "false",
          report::refused("update product set name='tea', price=nan where id = 1",
                          "1=SQLITE_ERROR: no such column: nan"),
          [](Table& t) {
              return t.updateRecord(product(t, 1, "tea", std::numeric_limits<double>::quiet_NaN()));
          }),
    keeps("DeleteRecordsWithABlankForACondition", filled, "false",
          report::refused("delete from product where  ", incomplete),
          [](Table& t) { return t.deleteRecords(" "); }),
    keeps("DeleteRecordOfAKeyWithAZeroByteEndsTheStatementThere", filled, "false",
          report::refused("delete from product where id = \"1",
                          "1=SQLITE_ERROR: unrecognized token: \"\"1\""),
          [](Table& t) { return t.deleteRecord(string("1\0", 2)); }),
    keeps("DeleteRecordsWithAnUnknownColumn", filled, "false",
          report::refused("delete from product where colour = 1", no_column),
          [](Table& t) { return t.deleteRecords("colour = 1"); }),
};

INSTANTIATE_TEST_SUITE_P(WithoutConnection, TableCaseTest, ValuesIn(unconnected_failures),
                         test::NameOfCase());
INSTANTIATE_TEST_SUITE_P(Schema, TableCaseTest, ValuesIn(schema_failures), test::NameOfCase());
INSTANTIATE_TEST_SUITE_P(Refusal, TableCaseTest, ValuesIn(refusals), test::NameOfCase());

} // namespace
