#include "SqlTypedTable.h"

#include "Environment.h"
#include "TypedTableTest.h"

#include <iterator>
#include <string>
#include <tuple>
#include <vector>

namespace {

namespace report = test::report;

using sql::ObjectCursor;
using sql::Presence;
using sql::Result;
using sql::TypedTable;

using Readings = TypedTable<Reading, sql::integer>;
using List = std::vector<Reading>;

static_assert(!std::is_polymorphic_v<Readings>);
static_assert(!std::is_copy_constructible_v<Readings>);
static_assert(!std::is_move_constructible_v<Readings>);
static_assert(!std::is_copy_assignable_v<Readings>);
static_assert(std::is_constructible_v<Readings, sql::Database&, decltype((reading))>);
static_assert(!std::is_constructible_v<Readings, sql::Database&, decltype(reading)>);
static_assert(!std::is_copy_constructible_v<ObjectCursor<Reading>>);
static_assert(std::is_nothrow_move_constructible_v<ObjectCursor<Reading>>);
static_assert(std::is_nothrow_move_assignable_v<ObjectCursor<Reading>>);
static_assert(!std::is_default_constructible_v<ObjectCursor<Reading>>);

// Every operation by its exact signature.
template <typename Class, typename Signature> constexpr bool has(Signature Class::*)
{
    return true;
}
using Many = Reading*;
using Going = bool (&)(sql::integer);
using Text = std::string_view;
static_assert(has<Readings, bool(Reading&)>(&Readings::add));
static_assert(has<Readings, bool(const Reading&)>(&Readings::add));
static_assert(has<Readings, bool(Many, Many)>(&Readings::add<Many>));
static_assert(has<Readings, bool(Many, Many, Going)>(&Readings::add<Many, Going>));
static_assert(has<Readings, bool(const Reading&)>(&Readings::update));
static_assert(has<Readings, bool(Reading&)>(&Readings::addOrUpdate));
static_assert(has<Readings, bool(const Reading&)>(&Readings::addOrUpdate));
static_assert(has<Readings, bool(const int&)>(&Readings::remove<int>));
static_assert(has<Readings, Presence(const int&)>(&Readings::has<int>));
static_assert(has<Readings, Result<Reading>(const int&)>(&Readings::find<int>));
static_assert(has<Readings, Result<sql::integer>(Text, const int&)>(&Readings::count<int>));
static_assert(has<Readings, Result<Reading>(Text, const int&)>(&Readings::first<int>));
static_assert(has<Readings, bool(List&, Text, const int&)>(&Readings::load<int>));
static_assert(has<Readings, Result<std::vector<double>>(Text, Text, const int&)>(
    &Readings::values<double, int>));
static_assert(has<Readings, ObjectCursor<Reading>(Text, const int&)>(&Readings::select<int>));
static_assert(has<sql::MappedTable, bool()>(&Readings::create));
static_assert(has<sql::MappedTable, sql::FieldSet() const>(&Readings::fields));
static_assert(has<ObjectCursor<Reading>, bool(Reading&)>(&ObjectCursor<Reading>::next));
static_assert(has<sql::MappedCursor, bool() const>(&ObjectCursor<Reading>::finished));
static_assert(has<sql::MappedCursor, const sql::Error&() const>(&ObjectCursor<Reading>::error));

const std::string taken = "1555=SQLITE_CONSTRAINT_PRIMARYKEY: UNIQUE constraint failed: reading.id";
const std::string closed = "21=SQLITE_MISUSE: the database was closed or opened anew";
const std::string not_open = "21=SQLITE_MISUSE: the database is not open";
const std::string selection = "select `id`, `sensor`, `value`, `note`, `at` from `reading`";

class TypedTableTest : public TypedTest {
protected:
    TypedTableTest() : _readings(_database, reading)
    {
        run("create table reading (id integer primary key, sensor text not null, value real, note text, at integer)");
    }

    // A statement that is left over would be reported when the database closes.
    void TearDown() override
    {
        _readings.release();
        TypedTest::TearDown();
    }

    void fill()
    {
        run("insert into reading values (1, 'hall', 2.5, 'wet', 1001), (2, 'attic', 4.5, null, 1002),"
            " (3, 'hall', 1.25, '', 1003)");
    }

    std::string all()
    {
        return rows("select * from reading");
    }

    Readings _readings;
};

const std::string three = "1|hall|2.5|wet|1001\n2|attic|4.5|NULL|1002\n3|hall|1.25||1003";

// --- The table

TEST_F(TypedTableTest, IsCreatedWithItsIndexes)
{
    run("drop table reading");
    EXPECT_TRUE(_readings.create());
    EXPECT_EQ(
        textOf("reading"),
        "CREATE TABLE `reading` (`id` INTEGER PRIMARY KEY, `sensor` TEXT NOT NULL, `value` REAL,"
        " `note` TEXT, `at` INTEGER)");
    EXPECT_EQ(textOf("reading_at"), "CREATE INDEX `reading_at` on `reading` (`at`)");
    EXPECT_TRUE(_readings.add(readingOf(7, "hall", 2.5)));
    EXPECT_TRUE(_readings.create());
    EXPECT_EQ(_readings.changes(), 0);
    EXPECT_EQ(all(), "7|hall|2.5|NULL|1007");
}

TEST_F(TypedTableTest, IsCreatedWhollyOrNotAtAll)
{
    run("drop table reading; create table reading_at (id)");
    EXPECT_FALSE(_readings.create());
    expectFailure(_readings, "create", "1=SQLITE_ERROR: there is already a table named reading_at");
    EXPECT_EQ(rows("select name from sqlite_master"), "reading_at");
}

TEST_F(TypedTableTest, IsCreatedInTheCallersTransaction)
{
    run("drop table reading; begin");
    EXPECT_TRUE(_readings.create());
    run("rollback");
    EXPECT_EQ(rows("select name from sqlite_master"), "");
}

TEST_F(TypedTableTest, FieldsAreThoseOfATable)
{
    const sql::FieldSet fields = _readings.fields();
    EXPECT_EQ(fields.dump(), "0: name=id, type=integer, flags: PRIMARY KEY\r\n"
                             "1: name=sensor, type=text, flags: NOT NULL\r\n"
                             "2: name=value, type=float, flags:\r\n"
                             "3: name=note, type=text, flags:\r\n"
                             "4: name=at, type=time, flags:");
}

// --- One object

TEST_F(TypedTableTest, ObjectIsAdded)
{
    Reading made = readingOf(7, "hall", 2.5);
    made.note = "wet";
    EXPECT_TRUE(_readings.add(made));
    EXPECT_EQ(made.id, 7);
    EXPECT_EQ(_readings.changes(), 1);
    EXPECT_EQ(_readings.lastKey(), 7);
    EXPECT_EQ(all(), "7|hall|2.5|wet|1007");
}

TEST_F(TypedTableTest, KeyOfZeroIsChosenAndSet)
{
    fill();
    Reading made = readingOf(0, "cellar", 8);
    EXPECT_TRUE(_readings.add(made));
    EXPECT_EQ(made.id, 4);
    made.id = 0;
    EXPECT_TRUE(_readings.addOrUpdate(made));
    EXPECT_EQ(made.id, 5);
    const Reading constant = readingOf(0, "cellar", 9);
    EXPECT_TRUE(_readings.add(constant));
    EXPECT_EQ(_readings.lastKey(), 6);
    EXPECT_TRUE(_readings.addOrUpdate(constant));
    EXPECT_EQ(_readings.lastKey(), 7);
    EXPECT_EQ(rows("select id from reading where sensor = 'cellar'"), "4\n5\n6\n7");
}

TEST_F(TypedTableTest, KeyThatIsTakenIsRefused)
{
    fill();
    Reading made = readingOf(2, "cellar", 8);
    EXPECT_FALSE(_readings.add(made));
    expectFailure(_readings, "add", taken);
    EXPECT_TRUE(_readings.error().isConstraint());
    EXPECT_EQ(
        _readings.error().statement(),
        "insert into `reading` (`id`, `sensor`, `value`, `note`, `at`) values (?, ?, ?, ?, ?)");
    EXPECT_EQ(all(), three);
    made.id = 4;
    EXPECT_TRUE(_readings.add(made));
    EXPECT_FALSE(_readings.error());
}

TEST_F(TypedTableTest, UpdateSetsAllColumnsOfTheRowWithTheKey)
{
    fill();
    EXPECT_TRUE(_readings.update(readingOf(2, "cellar", 8)));
    EXPECT_EQ(_readings.changes(), 1);
    EXPECT_EQ(_readings.lastKey(), std::nullopt);
    EXPECT_TRUE(_readings.update(readingOf(9, "roof", 8)));
    EXPECT_EQ(_readings.changes(), 0);
    EXPECT_EQ(all(), "1|hall|2.5|wet|1001\n2|cellar|8.0|NULL|1002\n3|hall|1.25||1003");
}

TEST_F(TypedTableTest, UpsertAddsOrUpdates)
{
    fill();
    run("alter table reading add column unit text default 'C'");
    run("update reading set unit = 'K'");
    Reading made = readingOf(2, "cellar", 8);
    EXPECT_TRUE(_readings.addOrUpdate(made));
    EXPECT_EQ(_readings.changes(), 1);
    EXPECT_EQ(_readings.lastKey(), std::nullopt);
    EXPECT_TRUE(_readings.addOrUpdate(readingOf(4, "roof", 9)));
    EXPECT_EQ(_readings.lastKey(), 4);
    EXPECT_EQ(all(), "1|hall|2.5|wet|1001|K\n2|cellar|8.0|NULL|1002|K\n3|hall|1.25||1003|K\n"
                     "4|roof|9.0|NULL|1004|C");
}

TEST_F(TypedTableTest, UpsertChoosesTheKeyThatWasAddedLast)
{
    Reading made = readingOf(0, "hall", 2.5);
    ASSERT_TRUE(_readings.add(made));
    ASSERT_TRUE(_readings.remove(made.id));
    made.id = 0;
    EXPECT_TRUE(_readings.addOrUpdate(made));
    EXPECT_EQ(made.id, 1);
    EXPECT_EQ(_readings.lastKey(), 1);
}

TEST_F(TypedTableTest, RowIsRemovedByItsKey)
{
    fill();
    EXPECT_TRUE(_readings.remove(2));
    EXPECT_EQ(_readings.changes(), 1);
    EXPECT_TRUE(_readings.remove(2));
    EXPECT_EQ(_readings.changes(), 0);
    EXPECT_EQ(rows("select id from reading"), "1\n3");
}

TEST_F(TypedTableTest, ObjectIsFoundByItsKey)
{
    fill();
    const Result<Reading> found = _readings.find(1);
    ASSERT_TRUE(found);
    Reading expected = readingOf(1, "hall", 2.5);
    expected.note = "wet";
    EXPECT_EQ(*found, expected);
    EXPECT_EQ(_readings.find(2LL)->note, std::nullopt);
    EXPECT_EQ(_readings.find(3U)->note, "");
    const Result<Reading> none = _readings.find(4);
    EXPECT_FALSE(none);
    EXPECT_FALSE(none.failed());
    EXPECT_EQ(_readings.has(1), Presence::present);
    EXPECT_EQ(_readings.has(4), Presence::absent);
    EXPECT_FALSE(_readings.error());
}

TEST_F(TypedTableTest, KeyThatNoRowCanHaveIsAFailure)
{
    const std::string reason = "20=SQLITE_MISMATCH: the key is above the range of integers";
    EXPECT_FALSE(_readings.remove(~0ULL));
    expectFailure(_readings, "remove", reason);
    EXPECT_EQ(_readings.has(~0ULL), Presence::unknown);
    expectFailure(_readings, "has", reason);
    EXPECT_TRUE(_readings.find(~0ULL).failed());
    expectFailure(_readings, "find", reason);
}

TEST_F(TypedTableTest, CellThatDoesNotFitIsAFailure)
{
    run("insert into reading (id, sensor, at) values (1, 'hall', 1)");
    const Result<Reading> found = _readings.find(1);
    EXPECT_TRUE(found.failed());
    EXPECT_EQ(found.error().text(), "column value is NULL");
    expectFailure(_readings, "find", "20=SQLITE_MISMATCH: column value is NULL");
    EXPECT_EQ(_readings.error().statement(), selection + " where `id` = ?");
}

TEST_F(TypedTableTest, StatementsAreCompiledOnce)
{
    fill();
    const test::Statements statements(_database.getHandle());
    for (int i = 1; i <= 3; ++i) {
        EXPECT_TRUE(_readings.find(i));
        EXPECT_TRUE(_readings.update(readingOf(i, "hall", i)));
    }
    EXPECT_EQ(statements.texts().size(), 6u);
    EXPECT_EQ(rows("select name from sqlite_master"), "reading");
}

// --- Conditions

TEST_F(TypedTableTest, RowsAreCounted)
{
    EXPECT_EQ(_readings.count().valueOr(-1), 0);
    fill();
    EXPECT_EQ(_readings.count().valueOr(-1), 3);
    EXPECT_EQ(_readings.count("where sensor = ?", "hall").valueOr(-1), 2);
    EXPECT_EQ(_readings.count("where sensor = ? and value > ?", "hall", 2).valueOr(-1), 1);
}

TEST_F(TypedTableTest, ObjectsAreLoaded)
{
    fill();
    List found(7);
    EXPECT_TRUE(_readings.load(found, "where value > ? order by id desc", 2));
    ASSERT_EQ(found.size(), 2u);
    EXPECT_EQ(found[0], readingOf(2, "attic", 4.5));
    EXPECT_EQ(found[1].note, "wet");
    EXPECT_TRUE(_readings.load(found));
    EXPECT_EQ(found.size(), 3u);
    EXPECT_TRUE(_readings.load(found, "where id > 7"));
    EXPECT_TRUE(found.empty());
}

TEST_F(TypedTableTest, ValuesOfALoadMayBeOfTheObjectsThatItReplaces)
{
    const std::string text = "a note too long to stand within the string";
    run("insert into reading values (1, 'attic', 1, '" + text + "', 1001)");
    List found(1, readingOf(1, "attic", 1));
    found[0].note = text;
    EXPECT_TRUE(_readings.load(found, "where note = ?", std::string_view(*found[0].note)));
    ASSERT_EQ(found.size(), 1u);
    EXPECT_EQ(found[0].note, text);
}

TEST_F(TypedTableTest, LoadThatFailsLeavesNothing)
{
    fill();
    run("insert into reading (id, sensor, at) values (4, 'hall', 1)");
    List found(7);
    EXPECT_FALSE(_readings.load(found, "order by id"));
    expectFailure(_readings, "load", "20=SQLITE_MISMATCH: column value is NULL");
    EXPECT_TRUE(found.empty());
}

TEST_F(TypedTableTest, FirstOfTheRowsIsRead)
{
    fill();
    const Result<Reading> best = _readings.first("order by value desc");
    ASSERT_TRUE(best);
    EXPECT_EQ(best->id, 2);
    const Result<Reading> none = _readings.first("where value > ?", 7);
    EXPECT_FALSE(none);
    EXPECT_FALSE(none.failed());
}

TEST_F(TypedTableTest, OneColumnIsRead)
{
    fill();
    const auto values = _readings.values<double>("value", "where sensor = ? order by id", "hall");
    ASSERT_TRUE(values);
    EXPECT_EQ(*values, (std::vector<double>{2.5, 1.25}));
    const auto notes = _readings.values<std::optional<std::string>>("note", "order by id");
    ASSERT_TRUE(notes);
    EXPECT_EQ(*notes, (std::vector<std::optional<std::string>>{"wet", std::nullopt, ""}));
    EXPECT_EQ(_readings.values<bool>("id", "where id = 1").valueOr({}), std::vector<bool>{true});
    EXPECT_EQ(_readings.values<Clock::time_point>("at", "where id = 1").valueOr({}),
              std::vector<Clock::time_point>{Clock::from_time_t(1001)});
}

TEST_F(TypedTableTest, ColumnThatCannotBeReadIsAFailure)
{
    fill();
    EXPECT_TRUE(_readings.values<std::string>("note").failed());
    expectFailure(_readings, "values", "20=SQLITE_MISMATCH: column note is NULL");
    EXPECT_TRUE(_readings.values<int>("none").failed());
    expectFailure(_readings, "values", "1=SQLITE_ERROR: no such column: none");
    EXPECT_EQ(_readings.error().statement(), "select `none` from `reading`");
}

TEST_F(TypedTableTest, ObjectsAreSelected)
{
    fill();
    auto found = _readings.select("where sensor = ? order by id", std::string("hall"));
    Reading row;
    std::string seen;
    while (found.next(row))
        seen += std::to_string(row.id);
    EXPECT_EQ(seen, "13");
    EXPECT_TRUE(found.finished());
    EXPECT_FALSE(found.next(row));
    EXPECT_FALSE(found.error());
    for (const Reading& each : _readings.select("order by id desc"))
        seen += std::to_string(each.id);
    EXPECT_EQ(seen, "13321");
}

TEST_F(TypedTableTest, TwoLoopsOverOneTextGoOnAtOnce)
{
    fill();
    std::string seen;
    for (const Reading& one : _readings.select("where id < ? order by id", 3)) {
        for (const Reading& other : _readings.select("where id < ? order by id", 4))
            seen += std::to_string(one.id) + std::to_string(other.id) + " ";
    }
    EXPECT_EQ(seen, "11 12 13 21 22 23 ");
}

// The prepared statements of the connection.
int statementsOf(sqlite3* db)
{
    int count = 0;
    for (sqlite3_stmt* each = sqlite3_next_stmt(db, nullptr); each != nullptr;
         each = sqlite3_next_stmt(db, each))
        ++count;
    return count;
}

TEST_F(TypedTableTest, ConditionsAreCompiledOnceAndEightAreKept)
{
    fill();
    const auto count = [this] {
        return statementsOf(_database.getHandle());
    };
    for (int i = 0; i < 3; ++i) {
        EXPECT_TRUE(_readings.count("where id > ?", i));
        EXPECT_TRUE(_readings.first("where id > ?", i));
        for (const Reading& each : _readings.select("where id > ?", i))
            EXPECT_GT(each.id, i);
    }
    EXPECT_EQ(count(), 2);
    for (int i = 0; i < 20; ++i)
        EXPECT_TRUE(_readings.count("where id > " + std::to_string(i)));
    EXPECT_EQ(count(), 8);
    _readings.release();
    EXPECT_EQ(count(), 0);
}

TEST_F(TypedTableTest, TheLatestConditionsAreKept)
{
    for (int i = 0; i < 8; ++i)
        EXPECT_TRUE(_readings.count("where id > " + std::to_string(i)));
    EXPECT_TRUE(_readings.count("where id > 0"));
    EXPECT_TRUE(_readings.count("where id > 8")); // in place of 1
    sqlite3_stmt* const latest = sqlite3_next_stmt(_database.getHandle(), nullptr);
    EXPECT_TRUE(_readings.count("where id > 0"));
    EXPECT_EQ(sqlite3_next_stmt(_database.getHandle(), nullptr), latest);
    EXPECT_TRUE(_readings.count("where id > 1"));
    EXPECT_NE(sqlite3_next_stmt(_database.getHandle(), nullptr), latest);
}

TEST_F(TypedTableTest, ConditionHoldsNoRowAndNoValueAfterwards)
{
    fill();
    {
        auto found = _readings.select("where sensor = ?", "hall");
        Reading row;
        EXPECT_TRUE(found.next(row));
    }
    run("drop table reading"); // which a row would keep from it
    sqlite3_stmt* const kept = sqlite3_next_stmt(_database.getHandle(), nullptr);
    ASSERT_NE(kept, nullptr);
    char* const expanded = sqlite3_expanded_sql(kept);
    EXPECT_EQ(std::string(expanded), selection + " where sensor = NULL");
    sqlite3_free(expanded);
}

TEST_F(TypedTableTest, CursorThatOutlivesTheReleaseKeepsNothing)
{
    fill();
    {
        auto found = _readings.select();
        Reading row;
        EXPECT_TRUE(found.next(row));
        _readings.release();
        EXPECT_TRUE(found.next(row));
        EXPECT_EQ(row.id, 2);
    }
    EXPECT_EQ(statementsOf(_database.getHandle()), 0);
}

TEST_F(TypedTableTest, CursorThatWasMovedGoesOn)
{
    fill();
    auto found = _readings.select("order by id");
    Reading row;
    EXPECT_TRUE(found.next(row));
    auto moved = std::move(found);
    EXPECT_TRUE(moved.next(row));
    EXPECT_EQ(row.id, 2);
    moved = _readings.select("order by id desc");
    EXPECT_TRUE(moved.next(row));
    EXPECT_EQ(row.id, 3);
    auto& same = moved;
    moved = std::move(same);
    EXPECT_TRUE(moved.next(row));
    EXPECT_EQ(row.id, 2);
    EXPECT_EQ(statementsOf(_database.getHandle()), 2);
}

TEST_F(TypedTableTest, CursorTakesOverTheColumnsOfAnother)
{
    fill();
    struct Turned {
        double value = 0;
        sql::string sensor;
        sql::integer id = 0;
    };
    const auto mapped = sql::mapping<Turned>("", sql::column<&Turned::value>("value"),
                                             sql::column<&Turned::sensor>("sensor"),
                                             sql::column<&Turned::id>("id"));
    const auto less = sql::mapping<Turned>("", sql::column<&Turned::id>("id"));
    auto rows = sql::query<Turned>(_database, less, "select 7 as id");
    rows = sql::query<Turned>(_database, mapped,
                              "select id, sensor, value from reading order by id");
    Turned row;
    ASSERT_TRUE(rows.next(row));
    EXPECT_EQ(row.id, 1);
    EXPECT_EQ(row.sensor, "hall");
    EXPECT_EQ(row.value, 2.5);
    auto selected = _readings.select("where id = 3");
    auto other = _readings.select("where id = 1");
    other = std::move(selected);
    Reading found;
    EXPECT_TRUE(other.next(found));
    EXPECT_EQ(found.id, 3);
    EXPECT_FALSE(other.next(found));
    EXPECT_TRUE(other.finished());
}

TEST_F(TypedTableTest, CursorThatFailsSaysSoByItsOwnName)
{
    run("insert into reading (id, sensor, value, at) values (1, 'hall', 'warm', 1)");
    auto selected = _readings.select();
    Reading row;
    EXPECT_FALSE(selected.next(row));
    expectFailure(selected.error(), "next", "20=SQLITE_MISMATCH: column value is no number");
    const auto mapped = sql::mapping<Reading>("", sql::column<&Reading::id>("id"));
    auto queried = sql::query<Reading>(_database, mapped,
                                       "select abs(-9223372036854775807 - 1) as id");
    EXPECT_FALSE(queried.next(row));
    expectFailure(queried.error(), "next", "1=SQLITE_ERROR: integer overflow");
}

TEST_F(TypedTableTest, LoopThatEndedByAFailureIsAskedByFinished)
{
    run("insert into reading (id, sensor, at) values (1, 'hall', 1)");
    auto rows = _readings.select();
    Reading row;
    EXPECT_FALSE(rows.next(row));
    EXPECT_FALSE(rows.finished());
    _diagnostics.clear();
}

TEST_F(TypedTableTest, TableThatIsNotThereIsAFailureOfEachOperation)
{
    run("drop table reading");
    const std::string reason = "1=SQLITE_ERROR: no such table: reading";
    Reading row = readingOf(7, "hall", 2.5);
    EXPECT_FALSE(_readings.add(row));
    expectFailure(_readings, "add", reason);
    EXPECT_FALSE(_readings.add(&row, &row + 1));
    expectFailure(_readings, "add", reason);
    EXPECT_FALSE(_readings.update(row));
    expectFailure(_readings, "update", reason);
    EXPECT_FALSE(_readings.addOrUpdate(row));
    expectFailure(_readings, "addOrUpdate", reason);
    EXPECT_FALSE(_readings.remove(7));
    expectFailure(_readings, "remove", reason);
    EXPECT_EQ(_readings.has(7), Presence::unknown);
    expectFailure(_readings, "has", reason);
    EXPECT_TRUE(_readings.find(7).failed());
    expectFailure(_readings, "find", reason);
    EXPECT_TRUE(_readings.count().failed());
    expectFailure(_readings, "count", reason);
}

TEST_F(TypedTableTest, RowThatATriggerLeavesOutHasNoKey)
{
    run("create trigger left before insert on reading begin select raise(ignore); end");
    Reading row = readingOf(0, "hall", 2.5);
    EXPECT_TRUE(_readings.add(row));
    EXPECT_EQ(row.id, 0);
    EXPECT_EQ(_readings.changes(), 0);
    EXPECT_EQ(_readings.lastKey(), std::nullopt);
}

TEST_F(TypedTableTest, CellsOfOtherKindsAreReadIntoTheirMembers)
{
    struct Loose {
        sql::integer whole = 0;
        sql::string text;
        bool truth = false;
        std::optional<sql::integer> maybe;
    };
    const auto mapped = sql::mapping<Loose>(
        "", sql::column<&Loose::whole>("whole"), sql::column<&Loose::text>("text"),
        sql::column<&Loose::truth>("truth"), sql::column<&Loose::maybe>("maybe"));
    const auto ask = [&](const std::string& cells) {
        return sql::query<Loose>(_database, mapped, "select " + cells);
    };
    Loose row;
    EXPECT_TRUE(ask("'12' as whole, 7 as text, '1' as truth, 3.0 as maybe").next(row));
    EXPECT_EQ(row.whole, 12);
    EXPECT_EQ(row.text, "7");
    EXPECT_TRUE(row.truth);
    EXPECT_EQ(row.maybe, 3);
    for (const char* const truth : {"-1", "2"}) {
        auto rows = ask("1 as whole, '' as text, " + std::string(truth)
                        + " as truth, null as maybe");
        EXPECT_FALSE(rows.next(row));
        expectFailure(rows.error(), "next",
                      "20=SQLITE_MISMATCH: column truth is out of the variable's range");
    }
    for (const bool had : {false, true}) {
        row.maybe = had ? std::optional<sql::integer>(9) : std::nullopt;
        auto rows = ask("1 as whole, '' as text, 0 as truth, 'x' as maybe");
        EXPECT_FALSE(rows.next(row));
        expectFailure(rows.error(), "next", "20=SQLITE_MISMATCH: column maybe is no number");
        EXPECT_EQ(row.maybe.has_value(), had);
    }
}

TEST_F(TypedTableTest, ConditionThatIsWrongIsAFailureOfEachOperation)
{
    const std::string reason = "1=SQLITE_ERROR: no such column: none";
    EXPECT_TRUE(_readings.count("where none = 1").failed());
    expectFailure(_readings, "count", reason);
    EXPECT_EQ(_readings.error().statement(), "select count(*) from `reading` where none = 1");
    EXPECT_TRUE(_readings.first("where none = 1").failed());
    expectFailure(_readings, "first", reason);
    List found;
    EXPECT_FALSE(_readings.load(found, "where none = 1"));
    expectFailure(_readings, "load", reason);
    EXPECT_TRUE(_readings.values<int>("id", "where none = 1").failed());
    expectFailure(_readings, "values", reason);
    const auto rows = _readings.select("where none = 1");
    expectFailure(_readings, "select", reason);
    EXPECT_FALSE(rows.finished());
    EXPECT_EQ(rows.error().text(), "no such column: none");
    EXPECT_EQ(statementsOf(_database.getHandle()), 0);
}

TEST_F(TypedTableTest, ValuesHaveToBeAsManyAsTheirMarks)
{
    const std::string few = "25=SQLITE_RANGE: there are 0 values for 1 parameters";
    EXPECT_TRUE(_readings.count("where id = ?").failed());
    expectFailure(_readings, "count", few);
    EXPECT_TRUE(_readings.first("where id = ?").failed());
    expectFailure(_readings, "first", few);
    List found;
    EXPECT_FALSE(_readings.load(found, "where id = ?"));
    expectFailure(_readings, "load", few);
    const auto rows = _readings.select("where id = ?", 1, 2);
    expectFailure(_readings, "select", "25=SQLITE_RANGE: there are 2 values for 1 parameters");
    EXPECT_TRUE(rows.error());
    EXPECT_EQ(_readings.count("where id = ?", 1).valueOr(-1), 0);
    EXPECT_TRUE(_readings.count("where id = ?", Limits<double>::quiet_NaN()).failed());
    expectFailure(_readings, "count",
                  "20=SQLITE_MISMATCH: the value of parameter 1 is not a number");
    EXPECT_TRUE(_readings.count("", 1).failed());
    expectFailure(_readings, "count", "25=SQLITE_RANGE: there are 1 values for 0 parameters");
}

TEST_F(TypedTableTest, LoopThatEndedByAFailureUnaskedIsAnAssertion)
{
    run("insert into reading (id, sensor, at) values (1, 'hall', 1)");
    for (const Reading& each : _readings.select())
        ADD_FAILURE() << each;
    ASSERT_EQ(_diagnostics.assertions().size(), 1u);
    EXPECT_EQ(_diagnostics.failedAssertions()[0].function, "sql::MappedCursor::~MappedCursor()");
    EXPECT_EQ(_diagnostics.lines()[1].message, "  rc=20=SQLITE_MISMATCH: column value is NULL");
    _diagnostics.clear();
}

// --- The connection

TEST_F(TypedTableTest, ClosedDatabaseIsAFailure)
{
    _database.close();
    EXPECT_FALSE(_readings.create());
    expectReport(report::statementFailed("begin", "begin immediate", not_open));
    EXPECT_FALSE(_readings.add(readingOf(7, "hall", 2.5)));
    expectFailure(_readings, "add", not_open);
    EXPECT_TRUE(_readings.count().failed());
    expectFailure(_readings, "count", not_open);
}

TEST_F(TypedTableTest, DatabaseThatWasOpenedAnewIsAFailureUntilTheRelease)
{
    EXPECT_TRUE(_readings.add(readingOf(7, "hall", 2.5)));
    EXPECT_TRUE(_readings.count());
    sqlite3* const leaked = _database.getHandle();
    _database.close();
    expectReport({report::asserted("void sql::Database::close()", "rc == SQLITE_OK")});
    ASSERT_TRUE(_database.open(":memory:", sql::Database::access_create, false, 0));
    EXPECT_FALSE(_readings.add(readingOf(8, "hall", 2.5)));
    expectFailure(_readings, "add", closed);
    EXPECT_TRUE(_readings.count().failed());
    expectFailure(_readings, "count", closed);
    _readings.release();
    EXPECT_EQ(test::closeConnection(leaked), SQLITE_OK);
    EXPECT_TRUE(_readings.create());
    EXPECT_EQ(_readings.count().valueOr(-1), 0);
}

// --- Keys of every kind

struct Setting {
    sql::string name;
    sql::string value;
};
const auto setting = sql::mapping<Setting>("setting", sql::column<&Setting::value>("value"),
                                           sql::key<&Setting::name>("name"), sql::without_rowid);

TEST_F(TypedTableTest, KeyMayBeAText)
{
    TypedTable settings(_database, setting);
    ASSERT_TRUE(settings.create());
    EXPECT_EQ(textOf("setting"),
              "CREATE TABLE `setting` (`value` TEXT, `name` TEXT PRIMARY KEY NOT NULL)"
              " WITHOUT ROWID");
    EXPECT_TRUE(settings.add({"it's \"quoted\"", "on"}));
    EXPECT_EQ(settings.lastKey(), std::nullopt);
    EXPECT_EQ(settings.find("it's \"quoted\"")->value, "on");
    EXPECT_EQ(settings.has(sql::string("it's \"quoted\"")), Presence::present);
    EXPECT_EQ(settings.has(std::string_view("its")), Presence::absent);
    EXPECT_TRUE(settings.addOrUpdate({"it's \"quoted\"", "off"}));
    EXPECT_EQ(rows("select value from setting"), "off");
    const char* const none = nullptr;
    EXPECT_TRUE(settings.find(none).failed());
    expectFailure(settings, "find", "20=SQLITE_MISMATCH: the key is NULL");
    EXPECT_TRUE(settings.remove("it's \"quoted\""));
    EXPECT_EQ(settings.changes(), 1);
    settings.release();
}

TEST_F(TypedTableTest, ValueThatSqliteHasNoRoomForIsAFailure)
{
    sqlite3_limit(_database.getHandle(), SQLITE_LIMIT_LENGTH, 1000);
    const std::string reason = "18=SQLITE_TOOBIG: string or blob too big";
    EXPECT_FALSE(_readings.add(readingOf(7, std::string(1001, 'x'), 2.5)));
    expectFailure(_readings, "add", reason);
    TypedTable settings(_database, setting);
    ASSERT_TRUE(settings.create());
    EXPECT_EQ(settings.has(std::string(1001, 'x')), Presence::unknown);
    expectFailure(settings, "has", reason);
    settings.release();
}

struct Sample {
    sql::string sensor;
    Clock::time_point at;
    double value = 0;
};
const auto sample = sql::mapping<Sample>("sample", sql::key<&Sample::sensor>("sensor"),
                                         sql::key<&Sample::at>("at", sql::milliseconds),
                                         sql::column<&Sample::value>("value"), sql::without_rowid);

TEST_F(TypedTableTest, KeyMayHaveSeveralColumns)
{
    TypedTable samples(_database, sample);
    static_assert(
        std::is_same_v<decltype(samples), TypedTable<Sample, sql::string, Clock::time_point>>);
    ASSERT_TRUE(samples.create());
    EXPECT_EQ(textOf("sample"),
              "CREATE TABLE `sample` (`sensor` TEXT NOT NULL, `at` INTEGER NOT NULL,"
              " `value` REAL, PRIMARY KEY (`sensor`, `at`)) WITHOUT ROWID");
    const Clock::time_point at(std::chrono::milliseconds(1500));
    const Clock::time_point later(std::chrono::milliseconds(1501));
    EXPECT_TRUE(samples.add({"hall", at, 1}));
    EXPECT_TRUE(samples.add({"hall", later, 2}));
    EXPECT_TRUE(samples.addOrUpdate({"hall", at, 3}));
    EXPECT_TRUE(samples.update({"hall", later, 4}));
    EXPECT_EQ(rows("select * from sample"), "hall|1500|3.0\nhall|1501|4.0");
    EXPECT_EQ(samples.find("hall", at)->value, 3);
    EXPECT_EQ(samples.has("attic", at), Presence::absent);
    EXPECT_TRUE(samples.remove("hall", at));
    EXPECT_EQ(rows("select at from sample"), "1501");
    EXPECT_EQ(samples.values<Clock::time_point>("at").valueOr({}),
              std::vector<Clock::time_point>{later});
    EXPECT_EQ(samples.values<std::optional<Clock::time_point>>("at").valueOr({}),
              std::vector<std::optional<Clock::time_point>>{later});
    EXPECT_EQ(samples.count("where at > ?", sql::inMilliseconds(at)).valueOr(-1), 1);
    EXPECT_FALSE(samples.add({"hall", later, 2}));
    expectFailure(samples, "add",
                  "1555=SQLITE_CONSTRAINT_PRIMARYKEY: UNIQUE constraint failed:"
                  " sample.sensor, sample.at");
    samples.release();
}

struct Line {
    sql::string text;
};
const auto line = sql::mapping<Line>("line", sql::column<&Line::text>("text"));

TEST_F(TypedTableTest, IntegersOfAKeyOfSeveralColumnsAreNeverNull)
{
    struct Pair {
        sql::integer left = 0;
        sql::integer right = 0;
    };
    const auto mapped = sql::mapping<Pair>("pair", sql::key<&Pair::left>("left"),
                                           sql::key<&Pair::right>("right"));
    TypedTable pairs(_database, mapped);
    ASSERT_TRUE(pairs.create());
    EXPECT_EQ(textOf("pair"),
              "CREATE TABLE `pair` (`left` INTEGER NOT NULL, `right` INTEGER NOT NULL,"
              " PRIMARY KEY (`left`, `right`))");
    pairs.release();
}

TEST_F(TypedTableTest, FieldsHaveTheTypesOfTheMembers)
{
    struct Kinds {
        bool truth = false;
        double real = 0;
        Clock::time_point at;
        Clock::time_point fine;
        sql::Time time;
        std::vector<unsigned char> block;
    };
    const auto mapped = sql::mapping<Kinds>(
        "kinds", sql::key<&Kinds::real>("real"), sql::column<&Kinds::truth>("truth"),
        sql::column<&Kinds::at>("at"), sql::column<&Kinds::fine>("fine", sql::milliseconds),
        sql::column<&Kinds::time>("time"), sql::column<&Kinds::block>("block"));
    const sql::FieldSet fields = TypedTable(_database, mapped).fields();
    const sql::field_type types[] = {sql::type_float, sql::type_bool, sql::type_time,
                                     sql::type_int,   sql::type_time, sql::type_undefined};
    ASSERT_EQ(fields.count(), static_cast<int>(std::size(types)));
    EXPECT_EQ(fields.getByIndex(0)->getIndex(),
              -1); // it has none without a key of integers or texts
    for (int i = 0; i < fields.count(); ++i)
        EXPECT_EQ(fields.getByIndex(i)->getType(), types[i]) << i;
}

TEST_F(TypedTableTest, TableMayHaveNoKey)
{
    TypedTable lines(_database, line);
    ASSERT_TRUE(lines.create());
    EXPECT_EQ(textOf("line"), "CREATE TABLE `line` (`text` TEXT)");
    EXPECT_TRUE(lines.add({"tea"}));
    EXPECT_TRUE(lines.add({"tea"}));
    EXPECT_EQ(lines.count().valueOr(-1), 2);
    EXPECT_EQ(lines.fields().dump(), "-1: name=text, type=text, flags:");
    lines.release();
}

template <typename Key> struct Keyed {
    Key key{};
    int value = 0;
};

TEST_F(TypedTableTest, KeyThatSqliteDoesNotChooseMayBeZero)
{
    const auto mapped = sql::mapping<Keyed<int>>("keyed", sql::key<&Keyed<int>::key>("key"),
                                                 sql::column<&Keyed<int>::value>("value"));
    TypedTable keyed(_database, mapped);
    ASSERT_TRUE(keyed.create());
    Keyed<int> zero{0, 7};
    EXPECT_TRUE(keyed.add(zero));
    EXPECT_TRUE(keyed.addOrUpdate(zero));
    EXPECT_EQ(rows("select * from keyed"), "0|7");
    keyed.release();
}

TEST_F(TypedTableTest, ChosenKeyMayBeOptional)
{
    using Row = Keyed<std::optional<short>>;
    const auto mapped = sql::mapping<Row>("keyed", sql::autoKey<&Row::key>("key"),
                                          sql::column<&Row::value>("value"));
    TypedTable keyed(_database, mapped);
    static_assert(std::is_same_v<decltype(keyed), TypedTable<Row, short>>);
    ASSERT_TRUE(keyed.create());
    Row row{std::nullopt, 7};
    EXPECT_TRUE(keyed.add(row));
    EXPECT_EQ(row.key, 1);
    row.key = 0;
    EXPECT_TRUE(keyed.add(row));
    EXPECT_EQ(row.key, 2);
    row.key.reset();
    EXPECT_FALSE(keyed.update(row));
    expectFailure(keyed, "update", "20=SQLITE_MISMATCH: the key is NULL");
    keyed.release();
}

TEST_F(TypedTableTest, ChosenKeyThatItsMemberCannotHoldIsTold)
{
    using Row = Keyed<signed char>;
    const auto mapped = sql::mapping<Row>("keyed", sql::autoKey<&Row::key>("key"),
                                          sql::column<&Row::value>("value"));
    TypedTable keyed(_database, mapped);
    ASSERT_TRUE(keyed.create());
    EXPECT_TRUE(keyed.add(Row{127, 1}));
    Row row{0, 7};
    EXPECT_FALSE(keyed.add(row));
    expectFailure(keyed.error(), "add",
                  "20=SQLITE_MISMATCH: column key is out of the variable's range");
    EXPECT_EQ(keyed.lastKey(), 128);
    EXPECT_EQ(row.key, 0);
    EXPECT_EQ(rows("select key from keyed"), "127\n128");
    keyed.release();
}

TEST_F(TypedTableTest, KeyOfOtherTypesIsBoundAsItsMember)
{
    using Real = Keyed<double>;
    const auto real = sql::mapping<Real>("real", sql::key<&Real::key>("key"),
                                         sql::column<&Real::value>("value"));
    TypedTable reals(_database, real);
    ASSERT_TRUE(reals.create());
    EXPECT_EQ(textOf("real"),
              "CREATE TABLE `real` (`key` REAL PRIMARY KEY NOT NULL, `value` INTEGER)");
    EXPECT_TRUE(reals.add({2.5, 7}));
    EXPECT_EQ(reals.find(2.5)->value, 7);
    EXPECT_EQ(reals.find(2.5F)->value, 7);
    EXPECT_EQ(reals.has(Limits<double>::quiet_NaN()), Presence::unknown);
    expectFailure(reals, "has", "20=SQLITE_MISMATCH: the key is not a number");
    reals.release();

    using Flag = Keyed<bool>;
    const auto flag = sql::mapping<Flag>("flag", sql::key<&Flag::key>("key"),
                                         sql::column<&Flag::value>("value"));
    TypedTable flags(_database, flag);
    ASSERT_TRUE(flags.create());
    EXPECT_TRUE(flags.add({true, 7}));
    EXPECT_EQ(flags.find(true)->value, 7);
    EXPECT_EQ(flags.has(false), Presence::absent);
    flags.release();

    using Grade = Keyed<Int8>;
    const auto grade = sql::mapping<Grade>("grade", sql::key<&Grade::key>("key"),
                                           sql::column<&Grade::value>("value"));
    TypedTable grades(_database, grade);
    ASSERT_TRUE(grades.create());
    EXPECT_TRUE(grades.add({Int8::lowest, 7}));
    EXPECT_EQ(grades.find(Int8::lowest)->value, 7);
    grades.release();

    using Block = Keyed<std::vector<unsigned char>>;
    const auto block = sql::mapping<Block>("block", sql::key<&Block::key>("key"),
                                           sql::column<&Block::value>("value"));
    TypedTable blocks(_database, block);
    ASSERT_TRUE(blocks.create());
    EXPECT_TRUE(blocks.add({{1, 0, 2}, 7}));
    EXPECT_EQ(blocks.find(std::vector<unsigned char>{1, 0, 2})->value, 7);
    EXPECT_EQ(blocks.has(sql::Bytes{"\1\0\2", 3}), Presence::present);
    blocks.release();
}

TEST_F(TypedTableTest, TableOfNothingButItsKeyIsUpdatedAndUpserted)
{
    const auto mapped = sql::mapping<Line>("word", sql::key<&Line::text>("text"));
    TypedTable words(_database, mapped);
    ASSERT_TRUE(words.create());
    EXPECT_TRUE(words.addOrUpdate({"tea"}));
    EXPECT_TRUE(words.addOrUpdate({"tea"}));
    EXPECT_EQ(words.changes(), 0);
    EXPECT_TRUE(words.update({"tea"}));
    EXPECT_EQ(words.changes(), 1);
    words.release();
}

TEST_F(TypedTableTest, NamesAreQuoted)
{
    using Row = Keyed<int>;
    const auto mapped = sql::mapping<Row>("from `where`", sql::key<&Row::key>("select"),
                                          sql::column<&Row::value>("it's", sql::indexed));
    TypedTable odd(_database, mapped);
    ASSERT_TRUE(odd.create());
    EXPECT_TRUE(odd.add({1, 7}));
    EXPECT_TRUE(odd.addOrUpdate({1, 8}));
    EXPECT_TRUE(odd.update({1, 9}));
    EXPECT_EQ(odd.find(1)->value, 9);
    EXPECT_EQ(odd.values<int>("it's").valueOr({}), std::vector<int>{9});
    EXPECT_TRUE(odd.remove(1));
    EXPECT_EQ(odd.count().valueOr(-1), 0);
    odd.release();
}

} // namespace
