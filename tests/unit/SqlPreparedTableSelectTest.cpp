#include "SqlPreparedTable.h"

#include "Environment.h"
#include "PreparedTableTest.h"

#include <gmock/gmock.h>

#include <iterator>
#include <memory>
#include <optional>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

namespace {

namespace report = test::report;

using sql::Field;
using sql::PreparedTable;
using sql::Record;
using sql::RecordCursor;
using test::Texts;
using testing::ElementsAre;
using testing::IsEmpty;

static_assert(!std::is_polymorphic_v<RecordCursor>);
static_assert(!std::is_copy_constructible_v<RecordCursor>);
static_assert(!std::is_copy_assignable_v<RecordCursor>);
static_assert(std::is_nothrow_move_constructible_v<RecordCursor>);
static_assert(std::is_nothrow_move_assignable_v<RecordCursor>);
static_assert(std::is_same_v<std::iterator_traits<RecordCursor::Iterator>::iterator_category,
                             std::input_iterator_tag>);
static_assert(std::is_same_v<std::iterator_traits<RecordCursor::Iterator>::value_type, Record>);

// Every operation by its exact signature.
using Iterator = RecordCursor::Iterator;
template <typename Signature, typename Class> constexpr bool has(Signature Class::*)
{
    return true;
}
static_assert(has<bool(Record&)>(&RecordCursor::next));
static_assert(has<bool() const>(&RecordCursor::finished));
static_assert(has<const sql::Error&() const>(&RecordCursor::error));
static_assert(has<Iterator()>(&RecordCursor::begin));
static_assert(has<Iterator()>(&RecordCursor::end));
static_assert(has<const Record&() const>(&Iterator::operator*));
static_assert(has<const Record*() const>(&Iterator::operator->));
static_assert(has<Iterator&()>(&Iterator::operator++));
static_assert(has<bool(const Iterator&) const>(&Iterator::operator==));
static_assert(has<bool(const Iterator&) const>(&Iterator::operator!=));
static_assert(!std::is_default_constructible_v<RecordCursor>);
static_assert(!std::is_default_constructible_v<Iterator>);

const std::string gone = "21=SQLITE_MISUSE: the statement was released or moved from";
const std::string closed = "21=SQLITE_MISUSE: the database was closed or opened anew";
const std::string other_columns = "21=SQLITE_MISUSE: the record has other columns than the table";
const std::string a_block = "20=SQLITE_MISMATCH: column name is a block of bytes";

// Three products; a row that cannot be read is one with a block of bytes.
class PreparedTableSelectTest : public PreparedTableTest {
protected:
    PreparedTableSelectTest()
    {
        fill();
    }

    // The rows that are left.
    Texts held(RecordCursor& rows)
    {
        Texts texts;
        Record record(*_table.fields());
        while (rows.next(record))
            texts.push_back(record.toString());
        EXPECT_TRUE(rows.finished());
        EXPECT_FALSE(rows.error());
        EXPECT_FALSE(rows.next(record));
        return texts;
    }
    Texts held(RecordCursor&& rows)
    {
        return held(rows);
    }

    // A cursor that was not asked about its failure is at its end.
    void expectAssertion()
    {
        ASSERT_EQ(_diagnostics.failedAssertions().size(), 1u);
        const test::Assertion assertion = _diagnostics.failedAssertions().front();
        EXPECT_EQ(assertion.path, "components/sql/sqlprepared/src/SqlPreparedTable.cpp");
        EXPECT_EQ(assertion.function, "sql::RecordCursor::~RecordCursor()");
        EXPECT_THAT(_diagnostics.lines(), IsEmpty());
        _diagnostics.clear();
    }

    void expectBlockReported()
    {
        expectReport(report::statementFailed("next", _ordered, a_block));
    }

    const std::string _ordered = "select `id`, `name`, `price` from `product` order by id";
};

// --- Rows

TEST_F(PreparedTableSelectTest, AllRows)
{
    EXPECT_THAT(held(_fast.select()), ElementsAre("1|tea|2.5", "2|coffee|4.5", "3|milk|1.25"));
    EXPECT_FALSE(_fast.error());
    EXPECT_EQ(_fast.changes(), 0);
    run("delete from product");
    EXPECT_THAT(held(_fast.select()), IsEmpty());
}

TEST_F(PreparedTableSelectTest, ConditionIsSqlWithParameters)
{
    EXPECT_THAT(held(_fast.select("where price < ? order by name", 3.5)),
                ElementsAre("3|milk|1.25", "1|tea|2.5"));
    EXPECT_THAT(held(_fast.select("order by id desc limit 1 offset 1")),
                ElementsAre("2|coffee|4.5"));
    EXPECT_THAT(held(_fast.select("where id in (?, ?)", 1, "3")),
                ElementsAre("1|tea|2.5", "3|milk|1.25"));
    EXPECT_THAT(held(_fast.select("where name = ?", "' or 1 = 1 --")), IsEmpty());
    EXPECT_THAT(held(_fast.select("as p where p.price > (select avg(price) from product)")),
                ElementsAre("2|coffee|4.5"));
    EXPECT_THAT(held(_fast.select("where id = 1 -- and no more")), ElementsAre("1|tea|2.5"));
}

TEST_F(PreparedTableSelectTest, ValuesAreCopied)
{
    auto name = std::make_unique<std::string>("a name that needs memory of its own");
    run("update product set name = '" + *name + "' where id = 2");
    RecordCursor rows = _fast.select("where name = ?", *name);
    *name = "another name that takes its place ..";
    name.reset();
    EXPECT_THAT(held(rows), ElementsAre("2|a name that needs memory of its own|4.5"));
}

TEST_F(PreparedTableSelectTest, NothingRunsBeforeTheFirstRow)
{
    RecordCursor rows = _fast.select("order by id");
    EXPECT_FALSE(rows.finished());
    EXPECT_FALSE(rows.error());
    run("delete from product where id = 1");
    EXPECT_THAT(held(rows), ElementsAre("2|coffee|4.5", "3|milk|1.25"));
}

TEST_F(PreparedTableSelectTest, EndStaysTheEnd)
{
    RecordCursor rows = _fast.select("where id = 1");
    Record record(*_table.fields());
    EXPECT_TRUE(rows.next(record));
    EXPECT_FALSE(rows.finished());
    EXPECT_FALSE(rows.next(record));
    EXPECT_EQ(record.toString(), "1|tea|2.5") << "left as it was";
    run("insert into product values (1000, 'x', 1)");
    EXPECT_FALSE(rows.next(record));
    EXPECT_TRUE(rows.finished());
}

TEST_F(PreparedTableSelectTest, MemoryOfTheRecordIsUsedAgain)
{
    RecordCursor rows = _fast.select("order by id");
    Record record(*_table.fields());
    const sql::Value* const cell = record.getValue(1);
    while (rows.next(record))
        EXPECT_EQ(record.getValue(1), cell);
    EXPECT_TRUE(rows.finished());
}

TEST_F(PreparedTableSelectTest, RowMayBeLeftWhereItIs)
{
    {
        RecordCursor rows = _fast.select("order by id");
        Record record(*_table.fields());
        EXPECT_TRUE(rows.next(record));
        EXPECT_EQ(record.toString(), "1|tea|2.5");
        EXPECT_FALSE(rows.finished());
    }
    EXPECT_THAT(held(_fast.select("order by id limit 2")),
                ElementsAre("1|tea|2.5", "2|coffee|4.5"));
}

TEST_F(PreparedTableSelectTest, CellsAreThoseOfReadRecord)
{
    Declared shelf(_database, {Field("id", sql::type_int, sql::flag_primary_key),
                               Field("words", sql::type_text, sql::flag_none),
                               Field("share", sql::type_float, sql::flag_none)});
    run("create table shelf (id integer primary key, words, share);"
        "insert into shelf values (1, 'a' || char(0) || 'b', 0.1 + 0.2), (2, 3.0, null),"
        " (3, '', 100000.0), (4, 9e999, 'tea')");
    RecordCursor rows = shelf.fast.select("order by id");
    Record record(*shelf.table.fields());
    for (int id = 1; id <= 4; ++id) {
        Record same(*shelf.table.fields());
        ASSERT_TRUE(rows.next(record));
        ASSERT_TRUE(shelf.fast.readRecord(id, same));
        EXPECT_EQ(textsOf(record), textsOf(same));
    }
    EXPECT_FALSE(rows.next(record));
    EXPECT_TRUE(rows.finished());
}

// --- for (const sql::Record& record : cursor)

TEST_F(PreparedTableSelectTest, RangeForReadsEveryRow)
{
    Texts texts;
    RecordCursor rows = _fast.select("where price < ? order by id", 4);
    for (const Record& record : rows)
        texts.push_back(record.toString());
    EXPECT_THAT(texts, ElementsAre("1|tea|2.5", "3|milk|1.25"));
    EXPECT_TRUE(rows.finished());
    texts.clear();
    for (const Record& record : _fast.select("where id > ?", 5))
        texts.push_back(record.toString());
    for (const Record& record : _fast.select())
        texts.push_back(record.getValue("name")->asString());
    EXPECT_THAT(texts, ElementsAre("tea", "coffee", "milk"));
}

TEST_F(PreparedTableSelectTest, RangeForMayBeLeft)
{
    for (const Record& record : _fast.select("order by id")) {
        if (record.getValue("name")->asString() == "coffee")
            break;
    }
    RecordCursor rows = _fast.select("order by id");
    for (const Record& record : rows) {
        EXPECT_EQ(record.toString(), "1|tea|2.5");
        break;
    }
    EXPECT_FALSE(rows.finished());
    Texts texts;
    for (const Record& record : rows)
        texts.push_back(record.toString());
    EXPECT_THAT(texts, ElementsAre("2|coffee|4.5", "3|milk|1.25")) << "the rows that are left";
    EXPECT_TRUE(rows.finished());
}

TEST_F(PreparedTableSelectTest, RowsOfRangeForMayBeKept)
{
    RecordCursor rows = _fast.select("order by id");
    const std::vector<Record> records(rows.begin(), rows.end());
    ASSERT_TRUE(rows.finished());
    ASSERT_EQ(records.size(), 3u);
    EXPECT_EQ(records[0].toString(), "1|tea|2.5");
    EXPECT_EQ(records[2].toString(), "3|milk|1.25");
    EXPECT_EQ(records[2].fields(), _table.fields());
}

TEST_F(PreparedTableSelectTest, RangeForThatFailsEnds)
{
    run("update product set name = x'00' where id = 2");
    RecordCursor rows = _fast.select("order by id");
    Texts texts;
    for (const Record& record : rows)
        texts.push_back(record.toString());
    EXPECT_THAT(texts, ElementsAre("1|tea|2.5"));
    expectBlockReported();
    EXPECT_FALSE(rows.finished());
}

// --- Failures

TEST_F(PreparedTableSelectTest, RowWithABlockOfBytesIsAFailure)
{
    run("update product set name = x'746561' where id = 2");
    RecordCursor rows = _fast.select("order by id");
    Record record(*_table.fields());
    ASSERT_TRUE(rows.next(record));
    EXPECT_FALSE(rows.next(record));
    expectFailure(rows.error(), "next", a_block);
    EXPECT_EQ(rows.error().statement(), _ordered);
    EXPECT_EQ(record.toString(), "1|tea|2.5") << "all cells or none";
    EXPECT_FALSE(rows.finished());
    EXPECT_FALSE(rows.next(record)) << "the third row is not reached";
    EXPECT_FALSE(rows.finished());
    EXPECT_TRUE(rows.error().isMismatch());
}

TEST_F(PreparedTableSelectTest, FailureOfSqlitesBehindSomeRowsEndsThem)
{
    RecordCursor rows = _fast.select("where abs(id - 3 - (id = 2) * 9223372036854775807) >= 0"
                                     " order by id");
    Record record(*_table.fields());
    EXPECT_TRUE(rows.next(record));
    EXPECT_FALSE(rows.next(record));
    expectFailure(rows.error(), "next", "1=SQLITE_ERROR: integer overflow");
    EXPECT_FALSE(rows.next(record));
    EXPECT_FALSE(rows.finished());
}

TEST_F(PreparedTableSelectTest, InterruptedLoopIsStopped)
{
    RecordCursor rows = _fast.select();
    Record record(*_table.fields());
    ASSERT_TRUE(rows.next(record));
    sqlite3_interrupt(_database.getHandle());
    EXPECT_FALSE(rows.next(record));
    expectFailure(rows.error(), "next", "9=SQLITE_INTERRUPT: interrupted");
    EXPECT_TRUE(rows.error().isStopped());
}

TEST_F(PreparedTableSelectTest, RecordNeedsTheTablesColumns)
{
    const sql::FieldSet others(test::key_last_columns);
    RecordCursor rows = _fast.select();
    Record record(others);
    EXPECT_FALSE(rows.next(record));
    expectFailure(rows.error(), "next", other_columns);
    EXPECT_EQ(record.toString(), "null|null|null");
    Record good(*_table.fields());
    EXPECT_FALSE(rows.next(good));
    EXPECT_FALSE(rows.finished());
}

TEST_F(PreparedTableSelectTest, ConditionThatSqliteRefusesIsAFailure)
{
    const auto expectRefused = [this](const std::string& condition, const std::string& reason) {
        RecordCursor rows = _fast.select(condition);
        expectFailure(rows.error(), "select", reason);
        EXPECT_EQ(_fast.error().text(), rows.error().text());
        Record record(*_table.fields());
        EXPECT_FALSE(rows.next(record));
        EXPECT_FALSE(rows.finished());
        for (const Record& other : rows)
            ADD_FAILURE() << other.toString();
        expectReport({});
        EXPECT_TRUE(rows.error());
    };
    expectRefused("were id = 1", "1=SQLITE_ERROR: near \"id\": syntax error");
    expectRefused("where colour = 'red'", "1=SQLITE_ERROR: no such column: colour");
    expectRefused("; delete from product",
                  "21=SQLITE_MISUSE: there is more than one statement in the text");
    expectRefused(std::string("where id = 1\0 or 1", 18),
                  "21=SQLITE_MISUSE: there is a zero byte in the text");
    EXPECT_THAT(held(_fast.select("limit 1")), ElementsAre("1|tea|2.5"));
    EXPECT_FALSE(_fast.error());
}

TEST_F(PreparedTableSelectTest, MissingTableIsAFailure)
{
    run("drop table product");
    RecordCursor rows = _fast.select("order by id");
    expectFailure(rows.error(), "select", "1=SQLITE_ERROR: no such table: product", _ordered);
}

TEST_F(PreparedTableSelectTest, ValuesThatDoNotFitAreAFailure)
{
    const auto expectRefused = [this](RecordCursor rows, const std::string& reason) {
        expectFailure(rows.error(), "select", reason);
        Record record(*_table.fields());
        EXPECT_FALSE(rows.next(record));
        EXPECT_FALSE(rows.finished());
    };
    const std::string two = "where id = ? or id = ?";
    expectRefused(_fast.select(two, 1), "25=SQLITE_RANGE: there are 1 values for 2 parameters");
    expectRefused(_fast.select(two, 1, 2, 3),
                  "25=SQLITE_RANGE: there are 3 values for 2 parameters");
    expectRefused(_fast.select(two), "25=SQLITE_RANGE: there are 0 values for 2 parameters");
    expectRefused(_fast.select("", 1), "25=SQLITE_RANGE: there are 1 values for 0 parameters");
    expectRefused(_fast.select(two, 1, Limits<double>::quiet_NaN()),
                  "20=SQLITE_MISMATCH: the value of parameter 2 is not a number");
    expectRefused(_fast.select(two, Limits<unsigned long long>::max(), 2),
                  "20=SQLITE_MISMATCH: the value of parameter 1 is above the range of integers");
    EXPECT_THAT(held(_fast.select(two, 1, 3)), ElementsAre("1|tea|2.5", "3|milk|1.25"));
}

TEST_F(PreparedTableSelectTest, FailureOfOneSelectIsNotThatOfAnother)
{
    run("update product set name = x'00' where id = 2");
    RecordCursor broken = _fast.select("where id >= ?", 2);
    RecordCursor sound = _fast.select("where id >= ?", 3);
    Record record(*_table.fields());
    EXPECT_FALSE(broken.next(record));
    expectFailure(broken.error(), "next", a_block);
    EXPECT_THAT(held(sound), ElementsAre("3|milk|1.25"));
    EXPECT_TRUE(broken.error());
    EXPECT_FALSE(sound.error());
}

// --- A loop that failed, and nobody asked

class UnaskedTest : public PreparedTableSelectTest {
protected:
    UnaskedTest()
    {
        run("update product set name = x'00' where id = 2");
    }

    // Reads to the failure, which is reported.
    void readAll(RecordCursor& rows)
    {
        Record record(*_table.fields());
        while (rows.next(record)) {
        }
        expectBlockReported();
    }
};

TEST_F(UnaskedTest, IsAnAssertionAtTheEndOfItsScope)
{
    {
        RecordCursor rows = _fast.select("order by id");
        readAll(rows);
    }
    expectAssertion();
}

TEST_F(UnaskedTest, IsAnAssertionAfterARangeForOverATemporary)
{
    for (const Record& record : _fast.select("order by id"))
        EXPECT_EQ(record.toString(), "1|tea|2.5");
    ASSERT_EQ(_diagnostics.lines().size(), 2u);
    EXPECT_EQ(_diagnostics.assertions().size(), 1u);
    EXPECT_EQ(_diagnostics.lines()[1].message, "  rc=" + a_block);
    EXPECT_EQ(_diagnostics.failedAssertions()[0].function, "sql::RecordCursor::~RecordCursor()");
    _diagnostics.clear();
}

TEST_F(UnaskedTest, OneWhoAsksHearsNoMore)
{
    {
        RecordCursor rows = _fast.select("order by id");
        readAll(rows);
        EXPECT_FALSE(rows.finished());
    }
    {
        RecordCursor rows = _fast.select("order by id");
        readAll(rows);
        EXPECT_TRUE(rows.error());
    }
    expectReport({});
}

TEST_F(UnaskedTest, AskingBeforeTheFailureIsNotAsking)
{
    {
        RecordCursor rows = _fast.select("order by id");
        EXPECT_FALSE(rows.finished());
        EXPECT_FALSE(rows.error());
        readAll(rows);
    }
    expectAssertion();
}

TEST_F(UnaskedTest, GoesWithTheCursorThatIsMoved)
{
    {
        std::optional<RecordCursor> rows(_fast.select("order by id"));
        readAll(*rows);
        const RecordCursor owner(std::move(*rows));
        rows.reset();
        expectReport({});
    }
    expectAssertion();
}

TEST_F(UnaskedTest, GoesWithTheCursorThatIsAssigned)
{
    {
        RecordCursor rows = _fast.select("order by id");
        readAll(rows);
        EXPECT_FALSE(rows.finished());
        RecordCursor others = _fast.select("order by id");
        readAll(others);
        rows = std::move(others);
        expectReport({});
    }
    expectAssertion();
}

TEST_F(UnaskedTest, SilentWhereNothingFailed)
{
    Record record(*_table.fields());
    {
        RecordCursor left = _fast.select("order by id");
        EXPECT_TRUE(left.next(record));
        RecordCursor ended = _fast.select("where id = 1");
        while (ended.next(record)) {
        }
        const RecordCursor unused = _fast.select("order by id");
    }
    expectReport({});
}

// --- Several at once, and writes meanwhile

TEST_F(PreparedTableSelectTest, TwoOfTheSameTextAtOnce)
{
    const std::string condition = "where id >= ? order by id";
    RecordCursor first = _fast.select(condition, 1);
    RecordCursor second = _fast.select(condition, 2);
    Record record(*_table.fields());
    Texts texts;
    const auto read = [&](RecordCursor& rows) {
        texts.push_back(rows.next(record) ? record.getValue(1)->asString() : "end");
    };
    for (int i = 0; i < 4; ++i) {
        read(first);
        read(second);
    }
    EXPECT_THAT(texts, ElementsAre("tea", "coffee", "coffee", "milk", "milk", "end", "end", "end"));
    EXPECT_TRUE(first.finished());
    EXPECT_TRUE(second.finished());
}

TEST_F(PreparedTableSelectTest, LoopInALoopOfTheSameText)
{
    std::string pairs;
    for (const Record& outer : _fast.select("order by id")) {
        for (const Record& inner : _fast.select("order by id"))
            pairs += outer.getValue(0)->asString() + inner.getValue(0)->asString() + " ";
    }
    EXPECT_EQ(pairs, "11 12 13 21 22 23 31 32 33 ");
}

TEST_F(PreparedTableSelectTest, SameTextOneAfterTheOtherForgetsTheValues)
{
    for (int i = 0; i < 3; ++i) {
        EXPECT_THAT(held(_fast.select("where id = ? or name = ?", 1, "milk")),
                    ElementsAre("1|tea|2.5", "3|milk|1.25"));
        EXPECT_THAT(held(_fast.select("where id = ? or name = ?", 2, nullptr)),
                    ElementsAre("2|coffee|4.5"));
    }
}

TEST_F(PreparedTableSelectTest, OtherOperationsGoOnMeanwhile)
{
    RecordCursor rows = _fast.select("order by id");
    Record record(*_table.fields());
    Record other(*_table.fields());
    std::string names;
    while (rows.next(record)) {
        EXPECT_TRUE(_fast.readRecord(4 - record.getValue(0)->asInteger(), other));
        EXPECT_EQ(_fast.hasRecordWithKeyId(1), sql::Presence::present);
        names += other.getValue(1)->asString() + " ";
    }
    EXPECT_TRUE(rows.finished());
    EXPECT_EQ(names, "milk coffee tea ");
}

TEST_F(PreparedTableSelectTest, RowsMayBeWrittenWhileTheyAreRead)
{
    RecordCursor rows = _fast.select("order by id");
    Record record(*_table.fields());
    while (rows.next(record)) {
        record.setString("name", record.getValue("name")->asString() + "!");
        EXPECT_TRUE(_fast.updateRecord(record));
        EXPECT_TRUE(_fast.addOrUpdateRecord(record));
    }
    EXPECT_TRUE(rows.finished());
    EXPECT_EQ(this->rows("select group_concat(name) from product"), "tea!,coffee!,milk!");
    rows = _fast.select("order by id");
    while (rows.next(record))
        EXPECT_TRUE(_fast.deleteRecord(record.getValue("id")->asInteger()));
    EXPECT_TRUE(rows.finished());
    EXPECT_EQ(this->rows("select count(*) from product"), "0");
}

// SQLite's rules: in the order of the key a loop meets the rows that are added before it gets there,
// and not those that are deleted before.
TEST_F(PreparedTableSelectTest, RowsAheadOfTheLoopAreMetAsTheyAreThen)
{
    Texts texts;
    RecordCursor rows = _fast.select("order by id");
    Record record(*_table.fields());
    while (rows.next(record)) {
        texts.push_back(record.toString());
        if (texts.size() == 1) {
            EXPECT_TRUE(_fast.deleteRecord(2));
            EXPECT_TRUE(_fast.addRecord(product(4, "rum", 8)));
            EXPECT_TRUE(_fast.updateRecord(product(3, "cream", 2)));
        }
    }
    EXPECT_TRUE(rows.finished());
    EXPECT_THAT(texts, ElementsAre("1|tea|2.5", "3|cream|2.0", "4|rum|8.0"));
}

TEST_F(PreparedTableSelectTest, RowsThatAreSortedFirstAreThoseOfTheBeginning)
{
    Texts texts;
    for (const Record& record : _fast.select("order by price")) {
        texts.push_back(record.toString());
        run("delete from product");
    }
    EXPECT_THAT(texts, ElementsAre("3|milk|1.25", "1|tea|2.5", "2|coffee|4.5"));
}

TEST_F(PreparedTableSelectTest, RollbackMeanwhileEndsTheLoopWithSqlitesReason)
{
    run("begin");
    EXPECT_TRUE(_fast.addRecord(product(4, "rum", 8)));
    RecordCursor rows = _fast.select();
    Record record(*_table.fields());
    ASSERT_TRUE(rows.next(record));
    run("create table other (id)"); // so that the schema goes back, too
    run("rollback");
    EXPECT_FALSE(rows.next(record));
    expectFailure(rows.error(), "next", "516=SQLITE_ABORT_ROLLBACK: abort due to ROLLBACK");
}

TEST_F(PreparedTableSelectTest, LockEndsWithTheLoop)
{
    const test::TemporaryDirectory directory;
    const std::string file = directory.file("shop.db");
    _fast.release();
    ASSERT_TRUE(_database.open(file, sql::Database::access_create, false, 0));
    run(test::product_definition);
    fill();
    test::Connection other(file);
    RecordCursor rows = _fast.select();
    Record record(*_table.fields());
    ASSERT_TRUE(rows.next(record));
    EXPECT_EQ(sqlite3_exec(other, "delete from product", nullptr, nullptr, nullptr), SQLITE_BUSY);
    EXPECT_EQ(held(rows).size(), 2u);
    other.run("delete from product where id = 1");
    {
        RecordCursor left = _fast.select();
        ASSERT_TRUE(left.next(record));
        EXPECT_EQ(sqlite3_exec(other, "delete from product", nullptr, nullptr, nullptr),
                  SQLITE_BUSY);
    }
    other.run("delete from product where id = 2");
    run("update product set name = x'00'");
    RecordCursor failed = _fast.select();
    EXPECT_FALSE(failed.next(record));
    expectFailure(failed.error(), "next", a_block);
    other.run("delete from product");
}

// --- Owners

TEST_F(PreparedTableSelectTest, MoveTakesTheRowsThatAreLeft)
{
    RecordCursor first = _fast.select("order by id");
    Record record(*_table.fields());
    ASSERT_TRUE(first.next(record));
    RecordCursor second(std::move(first));
    EXPECT_FALSE(first.next(record)); // NOLINT(bugprone-use-after-move)
    expectFailure(first.error(), "next", gone);
    EXPECT_FALSE(first.finished());
    ASSERT_TRUE(second.next(record));
    EXPECT_EQ(record.toString(), "2|coffee|4.5");
    first = std::move(second);
    EXPECT_FALSE(first.error());
    EXPECT_THAT(held(first), ElementsAre("3|milk|1.25"));
    EXPECT_FALSE(second.finished()); // NOLINT(bugprone-use-after-move)
}

TEST_F(PreparedTableSelectTest, AssignmentTakesTheColumnsAndTheLoopsRecord)
{
    run("create table shelf (name text); insert into shelf values ('a'), ('b')");
    Declared shelf(_database, {Field("name", sql::type_text, sql::flag_none)});
    RecordCursor rows = _fast.select("order by id");
    EXPECT_EQ(rows.begin()->toString(), "1|tea|2.5");
    RecordCursor others = shelf.fast.select("order by name");
    EXPECT_EQ(others.begin()->toString(), "a");
    rows = std::move(others);
    EXPECT_EQ(rows.begin()->toString(), "b");
}

TEST_F(PreparedTableSelectTest, AssignmentReleasesTheFormerRows)
{
    RecordCursor rows = _fast.select("order by id");
    Record record(*_table.fields());
    ASSERT_TRUE(rows.next(record));
    rows = _fast.select("where id = ?", 3);
    RecordCursor& same = rows;
    rows = std::move(same);
    EXPECT_THAT(held(rows), ElementsAre("3|milk|1.25"));
}

TEST_F(PreparedTableSelectTest, CursorOutlivesTheReleaseOfTheTablesStatements)
{
    RecordCursor rows = _fast.select("order by id");
    Record record(*_table.fields());
    ASSERT_TRUE(rows.next(record));
    _fast.release();
    EXPECT_THAT(held(rows), ElementsAre("2|coffee|4.5", "3|milk|1.25"));
    EXPECT_THAT(held(_fast.select("limit 1")), ElementsAre("1|tea|2.5"));
}

TEST_F(PreparedTableSelectTest, CursorMayOutliveThePreparedTable)
{
    std::optional<PreparedTable> fast(std::in_place, _database, _table);
    RecordCursor rows = fast->select("where id > ?", 1);
    Record record(*_table.fields());
    ASSERT_TRUE(rows.next(record));
    fast.reset();
    EXPECT_THAT(held(rows), ElementsAre("3|milk|1.25"));
}

TEST_F(PreparedTableSelectTest, DatabaseThatWasClosedEndsTheLoop)
{
    sqlite3* const leaked = _database.getHandle();
    {
        RecordCursor rows = _fast.select();
        Record record(*_table.fields());
        ASSERT_TRUE(rows.next(record));
        _database.close();
        expectReport({report::asserted("void sql::Database::close()", "rc == SQLITE_OK")});
        EXPECT_FALSE(rows.next(record));
        expectFailure(rows.error(), "next", closed);
        EXPECT_FALSE(rows.finished());
        _fast.release();
    }
    EXPECT_EQ(test::closeConnection(leaked), SQLITE_OK);
    RecordCursor none = _fast.select();
    expectFailure(none.error(), "select", "21=SQLITE_MISUSE: the database is not open");
}

} // namespace
