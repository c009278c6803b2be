#include "TypedTableTest.h"

#include <cmath>
#include <iterator>
#include <list>
#include <string>
#include <vector>

namespace {

namespace report = test::report;

using sql::ObjectCursor;
using sql::TypedTable;
using List = std::vector<Reading>;

const std::string insertion = "insert into `reading` (`id`, `sensor`, `value`, `note`, `at`) values"
                              " (?, ?, ?, ?, ?)";

// An iterator whose objects end before the next one.
class Made {
public:
    using iterator_category = std::input_iterator_tag;
    using value_type = Reading;
    using difference_type = std::ptrdiff_t;
    using pointer = const Reading*;
    using reference = Reading;

    explicit Made(int number) : _number(number)
    {
    }
    Reading operator*() const
    {
        return readingOf(_number, "sensor " + std::to_string(_number) + " that has a long name",
                         _number);
    }
    Made& operator++()
    {
        ++_number;
        return *this;
    }
    bool operator!=(const Made& other) const
    {
        return _number != other._number;
    }

private:
    int _number;
};

class TypedBulkTest : public TypedTest {
protected:
    TypedBulkTest() : _readings(_database, reading)
    {
        run("create table reading (id integer primary key, sensor text not null, value real, note text, at integer)");
    }
    void TearDown() override
    {
        _readings.release();
        TypedTest::TearDown();
    }

    // With keys from 1 on.
    static List many(int count)
    {
        List list;
        for (int i = 1; i <= count; ++i)
            list.push_back(readingOf(i, "sensor " + std::to_string(i), i));
        return list;
    }

    // How many rows there are, and whether each is what it was made as.
    std::string stored()
    {
        return rows(
            "select count(*), sum(value = id and at = id + 1000 and note is null) from reading");
    }

    TypedTable<Reading, sql::integer> _readings;
};

TEST_F(TypedBulkTest, AllAreAdded)
{
    for (const int count : {0, 1, 7, 279, 280, 281, 320, 1000}) {
        run("delete from reading");
        const List list = many(count);
        EXPECT_TRUE(_readings.add(list.begin(), list.end()));
        EXPECT_EQ(_readings.changes(), count);
        EXPECT_EQ(_readings.lastKey(),
                  count > 0 ? std::optional<sql::integer>(count) : std::nullopt);
        if (count > 0) {
            EXPECT_EQ(stored(), std::to_string(count) + "|" + std::to_string(count));
        }
    }
}

TEST_F(TypedBulkTest, SeveralGoInByAStatement)
{
    const List list = many(330);
    const test::Statements statements(_database.getHandle());
    EXPECT_TRUE(_readings.add(list.begin(), list.end()));
    // The beginning, ten times 32, ten alone, and the end.
    EXPECT_EQ(statements.texts().size(), 22u);
}

TEST_F(TypedBulkTest, ObjectsThatAreMadeOnTheWayAreAdded)
{
    EXPECT_TRUE(_readings.add(Made(1), Made(1001)));
    EXPECT_EQ(stored(), "1000|1000");
    EXPECT_EQ(rows("select sensor from reading where id in (1, 32, 33, 1000)"),
              "sensor 1 that has a long name\nsensor 32 that has a long name\n"
              "sensor 33 that has a long name\nsensor 1000 that has a long name");
}

TEST_F(TypedBulkTest, KeysOfZeroAreChosenAndNotSet)
{
    List list = many(300);
    for (Reading& each : list)
        each.id = 0;
    EXPECT_TRUE(_readings.add(list.begin(), list.end()));
    EXPECT_EQ(rows("select min(id), max(id), count(*) from reading"), "1|300|300");
    EXPECT_EQ(list[0].id, 0);
}

TEST_F(TypedBulkTest, OneThatIsRefusedIsToldAndNothingIsAdded)
{
    for (const int count : {10, 400}) {
        List list = many(count);
        list[6].id = 3;
        EXPECT_FALSE(_readings.add(list.begin(), list.end()));
        expectFailure(
            _readings, "add",
            "1555=SQLITE_CONSTRAINT_PRIMARYKEY: record 7: UNIQUE constraint failed: reading.id");
        EXPECT_EQ(_readings.error().statement(), insertion);
        EXPECT_EQ(rows("select count(*) from reading"), "0");
    }
}

TEST_F(TypedBulkTest, OneThatCannotBeBoundIsTold)
{
    for (const int count : {10, 400}) {
        List list = many(count);
        list[8].value = Limits<double>::quiet_NaN();
        EXPECT_FALSE(_readings.add(list.begin(), list.end()));
        expectFailure(_readings, "add",
                      "20=SQLITE_MISMATCH: record 9: column value is not a number");
        EXPECT_EQ(rows("select count(*) from reading"), "0");
    }
}

TEST_F(TypedBulkTest, OneBeforeItMayFailFirst)
{
    List list = many(400);
    list[3].id = 3;
    list[8].value = Limits<double>::quiet_NaN();
    EXPECT_FALSE(_readings.add(list.begin(), list.end()));
    expectFailure(
        _readings, "add",
        "1555=SQLITE_CONSTRAINT_PRIMARYKEY: record 4: UNIQUE constraint failed: reading.id");
}

TEST_F(TypedBulkTest, IsAPartOfTheCallersTransaction)
{
    run("begin; insert into reading (id, sensor, value, at) values (500, 'hall', 500, 1500)");
    List list = many(400);
    EXPECT_TRUE(_readings.add(list.begin(), list.end()));
    list[0].id = 600;
    EXPECT_FALSE(_readings.add(list.begin(), list.end()));
    expectFailure(
        _readings, "add",
        "1555=SQLITE_CONSTRAINT_PRIMARYKEY: record 2: UNIQUE constraint failed: reading.id");
    EXPECT_EQ(stored(), "401|401");
    run("rollback");
    EXPECT_EQ(rows("select count(*) from reading"), "0");
}

TEST_F(TypedBulkTest, ProgressIsToldAndMayStopIt)
{
    const List list = many(330);
    std::string told;
    EXPECT_TRUE(_readings.add(list.begin(), list.begin() + 300, [&](sql::integer count) {
        told += std::to_string(count) + " ";
        return true;
    }));
    EXPECT_EQ(told, "32 64 96 128 160 192 224 256 288 300 ");
    run("delete from reading");
    EXPECT_FALSE(
        _readings.add(list.begin(), list.end(), [](sql::integer count) { return count < 64; }));
    expectFailure(_readings, "add", "9=SQLITE_INTERRUPT: stopped by its progress");
    EXPECT_TRUE(_readings.error().isStopped());
    EXPECT_EQ(rows("select count(*) from reading"), "0");
}

// --- Any query

struct Day {
    sql::string sensor;
    double highest = 0;
};
const auto day = sql::mapping<Day>("", sql::column<&Day::sensor>("sensor"),
                                   sql::column<&Day::highest>("highest"));

class QueryTest : public TypedTest {
protected:
    QueryTest()
    {
        run("create table reading (sensor, value); insert into reading values"
            " ('hall', 2.5), ('hall', 4.5), ('attic', 1)");
    }

    std::string read(ObjectCursor<Day> days)
    {
        std::string all;
        for (const Day& each : days)
            all += each.sensor + " " + std::to_string(std::lround(each.highest * 10))
                   + "\n"; // tenths
        EXPECT_TRUE(days.finished()) << days.error().text();
        return all;
    }
};

TEST_F(QueryTest, ColumnsAreFoundByTheirNames)
{
    EXPECT_EQ(read(sql::query<Day>(_database, day,
                                   "select max(value) as highest, sensor from reading"
                                   " where value > ? group by sensor",
                                   0)),
              "attic 10\nhall 45\n");
    EXPECT_EQ(read(sql::query<Day>(_database, day,
                                   "select sensor, value as highest from reading where sensor = ?",
                                   std::string("hall"))),
              "hall 25\nhall 45\n");
    EXPECT_EQ(read(sql::query<Day>(_database, day, "select 1 as sensor, 1 as highest where 0")),
              "");
}

TEST_F(QueryTest, OtherColumnsAreNamed)
{
    const auto expectRefused = [this](const std::string& text, const std::string& reason) {
        const auto days = sql::query<Day>(_database, day, text);
        expectFailure(days.error(), "query", "20=SQLITE_MISMATCH: " + reason, text);
        EXPECT_FALSE(days.finished());
    };
    expectRefused("select sensor from reading", "column highest is missing");
    expectRefused("select sensor, value, 1 as highest from reading", "column value is not mapped");
    expectRefused(
        "select value, sensor as Sensor from reading",
        "column value is not mapped, column Sensor is not mapped, column sensor is missing,"
        " column highest is missing");
    expectRefused("select 1 as highest, sensor, sensor from reading", "column sensor comes twice");
    expectRefused("delete from reading", "column sensor is missing, column highest is missing");
    EXPECT_EQ(rows("select count(*) from reading"), "3");
}

TEST_F(QueryTest, QueryThatIsWrongIsAFailure)
{
    {
        const auto days = sql::query<Day>(_database, day, "select none");
        expectFailure(days.error(), "query", "1=SQLITE_ERROR: no such column: none", "select none");
    }
    const auto days = sql::query<Day>(_database, day, "select 'a' as sensor, ? as highest", 1, 2);
    expectFailure(days.error(), "query", "25=SQLITE_RANGE: there are 2 values for 1 parameters",
                  "select 'a' as sensor, ? as highest");
}

TEST_F(QueryTest, CellThatDoesNotFitIsAFailure)
{
    auto days = sql::query<Day>(_database, day, "select 'a' as sensor, 'b' as highest");
    Day row;
    EXPECT_FALSE(days.next(row));
    expectFailure(days.error(), "next", "20=SQLITE_MISMATCH: column highest is no number",
                  "select 'a' as sensor, 'b' as highest");
}

TEST_F(QueryTest, ColumnsThatChangeBeforeTheFirstRowAreFoundAnew)
{
    run("create table day (sensor, highest); insert into day values ('hall', 4.5)");
    auto days = sql::query<Day>(_database, day, "select * from day");
    run("drop table day; create table day (highest, sensor); insert into day values (2.5, 'roof')");
    Day row;
    EXPECT_TRUE(days.next(row));
    EXPECT_EQ(row.sensor, "roof");
    auto others = sql::query<Day>(_database, day, "select * from day");
    run("alter table day add column low");
    EXPECT_FALSE(others.next(row));
    expectFailure(others.error(), "next", "20=SQLITE_MISMATCH: column low is not mapped",
                  "select * from day");
}

} // namespace
