#include "SqlDatabase.h"
#include "SqlField.h"
#include "SqlRecord.h"
#include "SqlTable.h"

#include "Cases.h"
#include "Columns.h"
#include "Diagnostics.h"
#include "Environment.h"
#include "Reports.h"
#include "Rows.h"
#include "Sqlite.h"

#include <gmock/gmock.h>

#include <string>

namespace {

namespace report = test::report;
using sql::Database;
using sql::Field;
using sql::Record;
using sql::Table;
using sql::Time;
using test::held;
using test::Texts;
using testing::IsEmpty;

const char cannot_open[] = "14=SQLITE_CANTOPEN: unable to open database file";

// How much of the library's reports the program that does the job lets through.
struct Verbosity : test::Case {
    bool hasTraceObject;
    int level;
};

// Every job gives the same results whatever is traced, and a job that goes well leaves no ERROR
// line and no assertion.
class JobsTest : public testing::TestWithParam<Verbosity> {
protected:
    JobsTest() : _file(_directory.file("shop.db"))
    {
        if (GetParam().hasTraceObject)
            _diagnostics.setLevel(GetParam().level);
        else
            _diagnostics.setLevel(test::without_trace_object);
    }

    void TearDown() override
    {
        EXPECT_EQ(_diagnostics.errors(), GetParam().level > 2 ? _expectedErrors : Texts());
        EXPECT_THAT(_diagnostics.assertions(), IsEmpty());
        EXPECT_EQ(_diagnostics.lines().size() > _diagnostics.errors().size(), GetParam().level > 6);
    }

    // The ERROR lines that a job leaves where they are let through.
    void expectErrors(const Texts& report)
    {
        _expectedErrors = test::errorsOf(report);
    }

    // What the file holds, read past the library.
    std::string stored(const std::string& query) const
    {
        return test::Connection(_file).rows(query);
    }

    test::TimeZone _zone;
    test::Diagnostics _diagnostics;
    test::TemporaryDirectory _directory;
    std::string _file;

private:
    Texts _expectedErrors;
};

INSTANTIATE_TEST_SUITE_P(Traced, JobsTest,
                         testing::Values(Verbosity{"WithoutTraceObject", false, -1},
                                         Verbosity{"Silent", true, 0}, Verbosity{"Errors", true, 3},
                                         Verbosity{"Everything", true, 9}),
                         test::NameOfCase());

bool openForUse(Database& db, const std::string& file, int busyTimeoutMs = 0)
{
    return db.open(file, Database::access_create, false, busyTimeoutMs);
}

// --- A settings store: named values that outlive the program

const Field setting_columns[] = {
    Field("code", sql::type_text, sql::flag_primary_key | sql::flag_not_null),
    Field("content", sql::type_text, sql::flag_none),
    Field(),
};

class Settings {
public:
    explicit Settings(const std::string& file)
        : _open(openForUse(_db, file)), _table(_db.getHandle(), "setting", setting_columns),
          _ready(_open && _table.create())
    {
    }

    bool isReady() const
    {
        return _ready;
    }

    // An update takes integer keys only, so that a text-keyed row is replaced.
    bool set(const std::string& code, const std::string& content)
    {
        Record record(*_table.fields());
        record.setString("code", code);
        record.setString("content", content);
        return _db.transactionBegin() && _table.deleteRecord(code) && _table.addRecord(record)
               && _db.transactionCommit();
    }

    bool forget(const std::string& code)
    {
        return _table.deleteRecord(code);
    }

    std::string get(const std::string& code, const std::string& otherwise)
    {
        Record* const record = _table.getRecordByKeyId(code);
        return record != nullptr ? record->getValue("content")->asString() : otherwise;
    }

private:
    Database _db;
    bool _open;
    Table _table;
    bool _ready;
};

TEST_P(JobsTest, SettingsOutliveARestart)
{
    {
        Settings settings(_file);
        ASSERT_TRUE(settings.isReady());
        EXPECT_TRUE(settings.set("volume", "11"));
        EXPECT_TRUE(settings.set("greeting", "it's \"100% é\" %s"));
        EXPECT_TRUE(settings.set("volume", "7"));
        EXPECT_TRUE(settings.set("theme", ""));
        EXPECT_TRUE(settings.set("colour", "blue"));
        EXPECT_TRUE(settings.forget("colour"));
    }
    Settings settings(_file);
    ASSERT_TRUE(settings.isReady());
    EXPECT_EQ(settings.get("volume", "none"), "7");
    EXPECT_EQ(settings.get("greeting", "none"), "it's \"100% é\" %s");
    EXPECT_EQ(settings.get("theme", "none"), "");
    EXPECT_EQ(settings.get("colour", "none"), "none");
    EXPECT_EQ(stored("select * from setting order by code"),
              "greeting|it's \"100% é\" %s\ntheme|\nvolume|7");
}

// --- A catalogue: all types of columns and any text

const Field catalogue_columns[] = {
    Field("id", sql::type_int, sql::flag_primary_key),
    Field("name", sql::type_text, sql::flag_not_null | sql::flag_unique),
    Field("price", sql::type_float, sql::flag_none),
    Field("sold", sql::type_bool, sql::flag_none),
    Field("added", sql::type_time, sql::flag_none),
    Field(),
};

Record article(const Table& table, const std::string& name, double price, bool sold, Time added)
{
    Record record(*table.fields());
    record.setString("name", name);
    record.setDouble("price", price);
    record.setBool("sold", sold);
    record.setTime("added", added);
    return record;
}

TEST_P(JobsTest, CatalogueKeepsEveryTypeAndAnyText)
{
    Database db;
    ASSERT_TRUE(openForUse(db, _file));
    Table table(db.getHandle(), "catalogue", catalogue_columns);
    ASSERT_TRUE(table.create());
    EXPECT_TRUE(table.addRecord(article(table, "O'Brien's tea", 2.5, true, Time(1616893200))));
    EXPECT_TRUE(table.addRecord(article(table, "thé \"vert\" 緑茶", 1234567.125, false, Time(0))));
    EXPECT_TRUE(table.addRecord(article(table, "100% %s\r\n; --", -0.25, true, Time(-1))));
    Record unknown(*table.fields());
    unknown.setString("name", "");
    EXPECT_TRUE(table.addRecord(unknown));

    ASSERT_TRUE(table.open("name = '" + sql::quoteStr("O'Brien's tea") + "'"));
    ASSERT_EQ(table.recordCount(), 1);
    Record tea(table.getTopRecord());
    EXPECT_EQ(tea.toString(), "1|O'Brien's tea|2.5|1|28-03-2021 03:00:00, Sun");
    EXPECT_EQ(tea.getValue("price")->asDouble(), 2.5);
    EXPECT_TRUE(tea.getValue("sold")->asBool());
    EXPECT_EQ(tea.getValue("added")->asTime().asInteger(), 1616893200);

    tea.setDouble("price", 3.75);
    tea.setNull("sold");
    EXPECT_TRUE(table.updateRecord(tea));
    EXPECT_EQ(stored("select * from catalogue"), "1|O'Brien's tea|3.75|NULL|1616893200\n"
                                                 "2|thé \"vert\" 緑茶|1234567.125|0|0\n"
                                                 "3|100% %s\r\n; --|-0.25|1|-1\n"
                                                 "4||NULL|NULL|NULL");
    ASSERT_TRUE(table.open("price > 1", "price desc"));
    EXPECT_EQ(held(table), (Texts{"2|thé \"vert\" 緑茶|1234567.125|0|01-01-1970 01:00:00, Thu",
                                  "1|O'Brien's tea|3.75|null|28-03-2021 03:00:00, Sun"}));
    EXPECT_EQ(table.getTopRecord()->getValue("price")->asDouble(), 1234567.125);
}

TEST_P(JobsTest, CatalogueKeepsItsNumbersUnderALocaleWithADecimalComma)
{
    const test::CommaLocale locale;
    Database db;
    ASSERT_TRUE(openForUse(db, _file));
    Table table(db.getHandle(), "catalogue", catalogue_columns);
    ASSERT_TRUE(table.create());
    Record record = article(table, "tea", 1234567.125, true, Time(1616893200));
    record.setInteger("id", 1234567);
    EXPECT_TRUE(table.addOrUpdateRecord(1234567, record));
    ASSERT_NE(table.getRecordByKeyId(1234567), nullptr);
    EXPECT_EQ(table.getTopRecord()->getValue("price")->asDouble(), 1234567.125);
    EXPECT_EQ(stored("select * from catalogue"), "1234567|tea|1234567.125|1|1616893200");
}

TEST_P(JobsTest, CatalogueRefusesASecondArticleOfTheSameName)
{
    Database db;
    ASSERT_TRUE(openForUse(db, _file));
    Table table(db.getHandle(), "catalogue", catalogue_columns);
    ASSERT_TRUE(table.create());
    EXPECT_TRUE(table.addRecord(article(table, "tea", 2.5, true, Time(5))));
    EXPECT_FALSE(table.addRecord(article(table, "tea", 9, false, Time(6))));
    EXPECT_EQ(table.totalRecordCount(), 1);
    EXPECT_EQ(stored("select * from catalogue"), "1|tea|2.5|1|5");
    expectErrors(report::refused(
        "insert into catalogue (id, name, price, sold, added) values (null, 'tea', 9.00000000, 0, 6)",
        "19=SQLITE_CONSTRAINT: UNIQUE constraint failed: catalogue.name"));
}

// --- An event log: times in a zone that puts its clocks forward and back

const Field event_columns[] = {
    Field("id", sql::type_int, sql::flag_primary_key),
    Field("at", sql::type_time, sql::flag_not_null),
    Field("what", sql::type_text, sql::flag_none),
    Field(),
};

bool logEvent(Table& table, Time at, const std::string& what)
{
    Record record(*table.fields());
    record.setTime("at", at);
    record.setString("what", what);
    return table.addRecord(record);
}

TEST_P(JobsTest, EventLogTellsLocalTimesAcrossTheChangesOfTheClocks)
{
    const Time spring(1616893199); // the last second of winter time in 2021
    const Time autumn(1635641999); // the last second of summer time
    Time summer = spring;
    summer.addValue(1);
    Time winter = autumn;
    winter.addValue(1);
    Time nextDay = spring;
    nextDay.addDays(1);

    Database db;
    ASSERT_TRUE(openForUse(db, _file));
    Table table(db.getHandle(), "event", event_columns);
    ASSERT_TRUE(table.create());
    EXPECT_TRUE(logEvent(table, winter, "clocks back"));
    EXPECT_TRUE(logEvent(table, spring, "before"));
    EXPECT_TRUE(logEvent(table, summer, "clocks forward"));
    EXPECT_TRUE(logEvent(table, autumn, "still summer"));
    EXPECT_TRUE(logEvent(table, nextDay, "a day later"));

    ASSERT_TRUE(table.open("", "at"));
    EXPECT_EQ(
        held(table),
        (Texts{"2|28-03-2021 01:59:59, Sun|before", "3|28-03-2021 03:00:00, Sun|clocks forward",
               "5|29-03-2021 02:59:59, Mon|a day later", "4|31-10-2021 02:59:59, Sun|still summer",
               "1|31-10-2021 02:00:00, Sun|clocks back"}));
    EXPECT_EQ(stored("select at from event order by at"),
              "1616893199\n1616893200\n1616979599\n1635641999\n1635642000");

    ASSERT_TRUE(table.open("at >= " + sql::intToStr(summer.asInteger()) + " and at < "
                               + sql::intToStr(winter.asInteger()),
                           "at desc"));
    ASSERT_EQ(table.recordCount(), 3);
    Time last = table.getTopRecord()->getValue("at")->asTime();
    Time first = table.getRecord(2)->getValue("at")->asTime();
    EXPECT_EQ(last.diff(first), 18748799.0);
    EXPECT_EQ(first.asDateString(), "28-03-2021");
    EXPECT_EQ(first.asTimeString(), "03:00:00");
}

// --- Many writes that succeed or fail together

Record product(const Table& table, sql::integer id, const std::string& name, double price)
{
    Record record(*table.fields());
    record.setInteger("id", id);
    record.setString("name", name);
    record.setDouble("price", price);
    return record;
}

bool addNumbered(Table& table, int first, int last)
{
    for (int i = first; i <= last; ++i) {
        if (!table.addRecord(product(table, i, "no. " + sql::intToStr(i), i)))
            return false;
    }
    return true;
}

TEST_P(JobsTest, WritesOfATransactionAppearTogether)
{
    Database db;
    ASSERT_TRUE(openForUse(db, _file));
    Table table(db.getHandle(), "product", test::product_columns);
    ASSERT_TRUE(table.create());
    ASSERT_TRUE(db.transactionBegin());
    EXPECT_TRUE(addNumbered(table, 1, 500));
    EXPECT_TRUE(table.deleteRecords("id > 400"));
    EXPECT_EQ(table.totalRecordCount(), 400);
    EXPECT_EQ(stored("select count(*) from product"), "0");
    EXPECT_TRUE(db.transactionCommit());
    EXPECT_EQ(stored("select count(*), min(id), max(id), sum(price) from product"),
              "400|1|400|80200.0");
    ASSERT_TRUE(table.open("price > 397", "id"));
    EXPECT_EQ(held(table), (Texts{"398|no. 398|398.0", "399|no. 399|399.0", "400|no. 400|400.0"}));
}

TEST_P(JobsTest, WritesThatFailOnTheWayAreRolledBackTogether)
{
    Database db;
    ASSERT_TRUE(openForUse(db, _file));
    Table table(db.getHandle(), "product", test::product_columns);
    ASSERT_TRUE(table.create());
    ASSERT_TRUE(table.addRecord(product(table, 5, "tea", 2.5)));
    ASSERT_TRUE(db.transactionBegin());
    EXPECT_FALSE(addNumbered(table, 1, 10));
    EXPECT_EQ(table.totalRecordCount(), 5);
    EXPECT_TRUE(db.transactionRollback());
    EXPECT_EQ(table.totalRecordCount(), 1);
    EXPECT_EQ(stored("select * from product"), "5|tea|2.5");
    EXPECT_FALSE(db.transactionCommit());
    expectErrors(test::joined(
        {report::refused("insert into product (id, name, price) values (5, 'no. 5', 5.00000000)",
                         "19=SQLITE_CONSTRAINT: UNIQUE constraint failed: product.id"),
         report::refused("COMMIT TRANSACTION",
                         "1=SQLITE_ERROR: cannot commit - no transaction is active")}));
}

// --- Two programs on one file

TEST_P(JobsTest, SecondConnectionIsRefusedWhileTheFirstOneWrites)
{
    Database first;
    Database second;
    ASSERT_TRUE(openForUse(first, _file));
    ASSERT_TRUE(openForUse(second, _file, 5));
    Table ours(first.getHandle(), "product", test::product_columns);
    Table theirs(second.getHandle(), "product", test::product_columns);
    ASSERT_TRUE(ours.create());

    ASSERT_TRUE(first.transactionBegin());
    EXPECT_TRUE(ours.addRecord(product(ours, 1, "tea", 2.5)));
    EXPECT_TRUE(theirs.open());
    EXPECT_EQ(theirs.recordCount(), 0);
    EXPECT_FALSE(theirs.addRecord(product(theirs, 2, "rum", 8)));
    EXPECT_FALSE(second.setUserVersion(3));
    EXPECT_TRUE(first.transactionCommit());

    EXPECT_TRUE(theirs.addRecord(product(theirs, 2, "rum", 8)));
    EXPECT_TRUE(second.setUserVersion(3));
    EXPECT_TRUE(ours.open("", "id"));
    EXPECT_EQ(held(ours), (Texts{"1|tea|2.5", "2|rum|8.0"}));
    EXPECT_EQ(first.getUserVersion(), 3);
    EXPECT_EQ(stored("select * from product"), "1|tea|2.5\n2|rum|8.0");
    expectErrors(test::joined(
        {report::refused("insert into product (id, name, price) values (2, 'rum', 8.00000000)",
                         "5=SQLITE_BUSY: database is locked"),
         report::stepFailed("PRAGMA user_version=3;", "5=SQLITE_BUSY: database is locked")}));
}

TEST_P(JobsTest, AddOrUpdateKeepsOneRowPerKeyFromTwoConnections)
{
    Database first;
    Database second;
    ASSERT_TRUE(openForUse(first, _file));
    ASSERT_TRUE(openForUse(second, _file));
    Table ours(first.getHandle(), "product", test::product_columns);
    Table theirs(second.getHandle(), "product", test::product_columns);
    ASSERT_TRUE(ours.create());
    ASSERT_TRUE(theirs.create());
    EXPECT_TRUE(ours.addOrUpdateRecord(1, product(ours, 1, "tea", 2.5)));
    EXPECT_TRUE(theirs.addOrUpdateRecord(1, product(theirs, 1, "green tea", 3)));
    EXPECT_TRUE(ours.addOrUpdateRecord("2", product(ours, 2, "rum", 8)));
    EXPECT_EQ(theirs.totalRecordCount(), 2);
    EXPECT_EQ(stored("select * from product"), "1|green tea|3.0\n2|rum|8.0");
}

// --- A new version of the program that has a column more

const Field second_product_columns[] = {
    Field("id", sql::type_int, sql::flag_primary_key),
    Field("name", sql::type_text, sql::flag_none),
    Field("price", sql::type_float, sql::flag_none),
    Field("sold", sql::type_bool, sql::flag_none),
    Field(),
};

bool install(const std::string& file)
{
    Database db;
    if (!openForUse(db, file) || db.getUserVersion() != 0)
        return false;
    Table table(db.getHandle(), "product", test::product_columns);
    return table.create() && addNumbered(table, 1, 3) && db.setUserVersion(1);
}

// The old rows are kept aside while the table is made anew.
bool rebuild(Database& db)
{
    Table before(db.getHandle(), "product", test::product_columns);
    Table aside(db.getHandle(), "product_before", test::product_columns);
    Table after(db.getHandle(), "product", second_product_columns);
    if (!aside.backup(before) || !before.remove() || !after.create() || !aside.open()
        || !after.copyRecords(aside) || !aside.remove() || !after.open())
        return false;
    for (int i = 0; i < after.recordCount(); ++i) {
        Record* const record = after.getRecord(i);
        record->setBool("sold", false);
        if (!after.updateRecord(*record))
            return false;
    }
    return db.setUserVersion(2);
}

TEST_P(JobsTest, SchemaIsUpgradedOnceByItsUserVersion)
{
    ASSERT_TRUE(install(_file));
    Database db;
    ASSERT_TRUE(openForUse(db, _file));
    ASSERT_EQ(db.getUserVersion(), 1);
    ASSERT_TRUE(db.transactionBegin());
    EXPECT_TRUE(rebuild(db));
    EXPECT_TRUE(db.transactionCommit());
    EXPECT_EQ(db.getUserVersion(), 2);
    EXPECT_EQ(stored("pragma user_version"), "2");
    EXPECT_EQ(
        stored("select name, sql from sqlite_master"),
        "product|CREATE TABLE product (id INTEGER PRIMARY KEY, name TEXT, price REAL, sold INTEGER)");
    EXPECT_EQ(stored("select * from product"), "1|no. 1|1.0|0\n2|no. 2|2.0|0\n3|no. 3|3.0|0");
}

TEST_P(JobsTest, SchemaUpgradeThatIsRolledBackLeavesTheOldVersion)
{
    ASSERT_TRUE(install(_file));
    Database db;
    ASSERT_TRUE(openForUse(db, _file));
    ASSERT_TRUE(db.transactionBegin());
    EXPECT_TRUE(rebuild(db));
    EXPECT_EQ(db.getUserVersion(), 2);
    EXPECT_TRUE(db.transactionRollback());
    EXPECT_EQ(db.getUserVersion(), 1);
    EXPECT_EQ(stored("select name, sql from sqlite_master"),
              "product|CREATE TABLE product (id INTEGER PRIMARY KEY, name TEXT, price REAL)");
    EXPECT_EQ(stored("select * from product"), "1|no. 1|1.0\n2|no. 2|2.0\n3|no. 3|3.0");
}

// --- Backup to another file, and back

TEST_P(JobsTest, BackupRestoresATableThatWasEmptied)
{
    const std::string archiveFile = _directory.file("archive.db");
    {
        Database db;
        Database archive;
        ASSERT_TRUE(openForUse(db, _file));
        ASSERT_TRUE(openForUse(archive, archiveFile));
        Table table(db.getHandle(), "product", test::product_columns);
        Table copy(archive.getHandle(), "product_copy", test::product_columns);
        ASSERT_TRUE(table.create());
        ASSERT_TRUE(table.addRecord(product(table, 7, "O'Brien's tea", 2.5)));
        ASSERT_TRUE(table.addRecord(product(table, 9, "rum", 8)));
        EXPECT_TRUE(copy.backup(table));
        EXPECT_TRUE(table.deleteRecords(""));
        EXPECT_EQ(stored("select * from product"), "");
    }
    EXPECT_EQ(test::Connection(archiveFile).rows("select * from product_copy"),
              "7|O'Brien's tea|2.5\n9|rum|8.0");

    Database db;
    Database archive;
    ASSERT_TRUE(openForUse(db, _file));
    ASSERT_TRUE(archive.open(archiveFile, Database::access_read_only, false, 0));
    Table table(db.getHandle(), "product", test::product_columns);
    Table copy(archive.getHandle(), "product_copy", test::product_columns);
    ASSERT_TRUE(db.transactionBegin());
    EXPECT_TRUE(table.backup(copy));
    EXPECT_TRUE(db.transactionCommit());
    EXPECT_EQ(stored("select * from product"), "7|O'Brien's tea|2.5\n9|rum|8.0");
}

// --- Opening without the right to write, or without a file

TEST_P(JobsTest, ReadOnlyConnectionReadsAndIsRefusedEveryWrite)
{
    ASSERT_TRUE(install(_file));
    Database db;
    ASSERT_TRUE(db.open(_file, Database::access_read_only, false, 0));
    Table table(db.getHandle(), "product", test::product_columns);
    EXPECT_TRUE(table.exists());
    EXPECT_EQ(db.getUserVersion(), 1);
    ASSERT_TRUE(table.open("id > 1", "id desc"));
    EXPECT_EQ(held(table), (Texts{"3|no. 3|3.0", "2|no. 2|2.0"}));
    EXPECT_FALSE(table.addRecord(product(table, 7, "rum", 8)));
    EXPECT_FALSE(db.setUserVersion(5));
    EXPECT_EQ(held(table), (Texts{"3|no. 3|3.0", "2|no. 2|2.0"}));
    EXPECT_FALSE(table.remove());
    EXPECT_EQ(stored("select * from product"), "1|no. 1|1.0\n2|no. 2|2.0\n3|no. 3|3.0");
    EXPECT_EQ(stored("pragma user_version"), "1");
    expectErrors(test::joined(
        {report::refused("insert into product (id, name, price) values (7, 'rum', 8.00000000)",
                         "8=SQLITE_READONLY: attempt to write a readonly database"),
         report::stepFailed("PRAGMA user_version=5;",
                            "8=SQLITE_READONLY: attempt to write a readonly database"),
         report::refused("drop table product",
                         "8=SQLITE_READONLY: attempt to write a readonly database")}));
}

TEST_P(JobsTest, MissingFileIsMadeByTheModeThatCreatesAlone)
{
    Database db;
    EXPECT_FALSE(db.open(_file, Database::access_read_only, false, 0));
    EXPECT_FALSE(db.open(_file, Database::access_read_write, false, 0));
    EXPECT_FALSE(db.isOpen());
    EXPECT_TRUE(db.open(_file, Database::access_create, false, 0));
    EXPECT_TRUE(db.isOpen());
    Table table(db.getHandle(), "product", test::product_columns);
    EXPECT_FALSE(table.exists());
    EXPECT_TRUE(table.create());
    db.close();
    EXPECT_TRUE(db.open(_file, Database::access_read_write, false, 0));
    EXPECT_EQ(stored("select name from sqlite_master"), "product");
    const Texts report = report::notOpened(_file, cannot_open);
    expectErrors(test::joined({report, report}));
}

TEST_P(JobsTest, ProgramWithoutADatabaseGetsFailuresAndNoMore)
{
    Database db;
    EXPECT_FALSE(db.open(_directory.file("missing/shop.db"), Database::access_create, false, 0));
    EXPECT_FALSE(db.isOpen());
    expectErrors(report::notOpened(_directory.file("missing/shop.db"), cannot_open));
}

} // namespace
