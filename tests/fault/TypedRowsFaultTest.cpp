// Rows of a TypedTable that one row keeps from being stored or read, that a lock or a stop does: what is
// said to be stored is there, all of it, nothing else is, and each failure is reported once.

#include "SqlStopFlag.h"
#include "SqlTransaction.h"
#include "SqlTypedTable.h"

#include "Environment.h"
#include "ReportTest.h"
#include "Reports.h"
#include "Sqlite.h"

#include <cmath>
#include <string>
#include <vector>

namespace {

namespace report = test::report;

struct Sample {
    sql::integer id = 0;
    double value = 0;
};

const auto sample = sql::mapping<Sample>("sample", sql::key<&Sample::id>("id"),
                                         sql::column<&Sample::value>("value"));

const int row_count = 300; // that go in several a statement

std::vector<Sample> samples(sql::integer first)
{
    std::vector<Sample> all(row_count);
    for (int i = 0; i < row_count; ++i)
        all[i] = {first + i, i / 2.0};
    return all;
}

class TypedRowsFaultTest : public test::ReportTest {
protected:
    TypedRowsFaultTest()
    {
        EXPECT_TRUE(_database.open(_file, sql::Database::access_create, false, 0));
        EXPECT_TRUE(_table.create());
        test::run(_database.getHandle(), "insert into sample values (5000, 1.5)");
    }

    void TearDown() override
    {
        _table.release();
        _database.close();
        ReportTest::TearDown();
    }

    void expectFailure(const char* operation, const sql::Error& error, const std::string& reason)
    {
        EXPECT_EQ(std::to_string(error.extendedCode()) + "=" + error.name() + ": " + error.text(),
                  reason);
        expectReport(report::statementFailed(operation, error.statement(), reason));
    }

    // By SQLite the transaction is over, too, unless it was still to begin, or already to end.
    void expectStopped(const sql::Error& error)
    {
        EXPECT_TRUE(error.isStopped()) << error.text();
        std::vector<std::string> expected = {"SQL statement '" + error.statement() + "' failed: ",
                                             "  rc=9=SQLITE_INTERRUPT: " + error.text()};
        if (error.statement().compare(0, 6, "insert") == 0)
            expected.insert(
                expected.begin(),
                "The transaction was rolled back: nothing is committed before its scope ends");
        EXPECT_EQ(_diagnostics.errors(), expected);
        _diagnostics.clear();
    }

    // In the file, as others see it.
    std::string rows() const
    {
        return test::Connection(_file).rows("select count(*), sum(id) from sample");
    }

    // Once nothing keeps them from it.
    void expectAdded(const std::vector<Sample>& all)
    {
        EXPECT_TRUE(_table.add(all.begin(), all.end())) << _table.error().text();
        EXPECT_EQ(rows(), std::to_string(row_count + 1) + "|" + std::to_string(total(all) + 5000));
        expectReport({});
    }

    static sql::integer total(const std::vector<Sample>& all)
    {
        sql::integer sum = 0;
        for (const Sample& each : all)
            sum += each.id;
        return sum;
    }

    const test::TemporaryDirectory _directory;
    const std::string _file = _directory.file("sample.db");
    sql::Database _database;
    decltype(sql::TypedTable(std::declval<sql::Database&>(), sample)) _table{_database, sample};
};

const std::string before = "1|5000";
const std::string taken = "UNIQUE constraint failed: sample.id";

std::string ofRecord(const char* code, int index, const std::string& why)
{
    return std::string(code) + ": record " + std::to_string(index + 1) + ": " + why;
}

TEST_F(TypedRowsFaultTest, NoRowOfABulkIsStoredBesideOneThatIsRefused)
{
    for (int i = 0; i < row_count; i += test::stride(7)) {
        SCOPED_TRACE(i);
        std::vector<Sample> all = samples(1);
        all[i].id = 5000;
        EXPECT_FALSE(_table.add(all.begin(), all.end()));
        expectFailure("add", _table.error(),
                      ofRecord("1555=SQLITE_CONSTRAINT_PRIMARYKEY", i, taken));
        EXPECT_EQ(rows(), before);
    }
    expectAdded(samples(1));
}

TEST_F(TypedRowsFaultTest, NoRowOfABulkIsStoredBesideOneThatDoesNotFit)
{
    for (int i = 0; i < row_count; i += test::stride(7)) {
        SCOPED_TRACE(i);
        std::vector<Sample> all = samples(1);
        all[i].value = std::nan("");
        EXPECT_FALSE(_table.add(all.begin(), all.end()));
        expectFailure("add", _table.error(),
                      ofRecord("20=SQLITE_MISMATCH", i, "column value is not a number"));
        EXPECT_EQ(rows(), before);
    }
    expectAdded(samples(1));
}

TEST_F(TypedRowsFaultTest, BulkThatFailsLeavesTheCallersTransactionAsItWas)
{
    sql::integer id = 6000;
    std::string expected = before;
    for (int i = 0; i < row_count; i += test::stride(17)) {
        SCOPED_TRACE(i);
        std::vector<Sample> all = samples(1);
        all[i].id = 5000;
        sql::Transaction transaction(_database, sql::begin_immediate);
        EXPECT_TRUE(_table.add(Sample{id++, 0}));
        EXPECT_FALSE(_table.add(all.begin(), all.end()));
        expectFailure("add", _table.error(),
                      ofRecord("1555=SQLITE_CONSTRAINT_PRIMARYKEY", i, taken));
        EXPECT_EQ(rows(), expected);
        EXPECT_TRUE(_table.add(Sample{id++, 0}));
        EXPECT_TRUE(transaction.commit());
        expected = std::to_string(id - 6000 + 1) + "|"
                   + std::to_string((6000 + id - 1) * (id - 6000) / 2 + 5000);
        EXPECT_EQ(rows(), expected);
    }
}

// The rows before it have been read.
TEST_F(TypedRowsFaultTest, ReadingEndsAtTheCellThatDoesNotFit)
{
    const std::vector<Sample> all = samples(1);
    expectAdded(all);
    for (int i = 0; i < row_count; i += test::stride(7)) {
        SCOPED_TRACE(i);
        const std::string row = " where id = " + std::to_string(i + 1);
        test::run(_database.getHandle(), "update sample set value = 'much'" + row);
        const std::string reason = "20=SQLITE_MISMATCH: column value is no number";
        std::vector<Sample> loaded(2);
        EXPECT_FALSE(_table.load(loaded, "order by id"));
        EXPECT_TRUE(loaded.empty());
        expectFailure("load", _table.error(), reason);
        EXPECT_TRUE(_table.values<double>("value", "order by id").failed());
        expectFailure("values", _table.error(), reason);
        auto cursor = _table.select("order by id");
        int count = 0;
        for (const Sample& each : cursor)
            EXPECT_EQ(each.id, ++count);
        EXPECT_EQ(count, i);
        expectFailure("next", cursor.error(), reason);
        EXPECT_TRUE(_table.find(i + 1).failed());
        expectFailure("find", _table.error(), reason);
        EXPECT_EQ(_table.has(i + 1), sql::Presence::present);
        EXPECT_TRUE(_table.update({i + 1, i / 2.0}));
        expectReport({});
    }
    std::vector<Sample> loaded;
    EXPECT_TRUE(_table.load(loaded));
    EXPECT_EQ(loaded.size(), static_cast<std::size_t>(row_count + 1));
}

TEST_F(TypedRowsFaultTest, WritingFailsWhileAnotherWrites)
{
    test::Connection other(_file);
    const std::string locked = "5=SQLITE_BUSY: database is locked";
    const std::vector<Sample> all = samples(1);
    other.run("begin immediate; insert into sample values (7000, 0)");
    for (int i = 0; i < 3; ++i) {
        EXPECT_FALSE(_table.add(Sample{1, 0}));
        expectFailure("add", _table.error(), locked);
        EXPECT_FALSE(_table.update({5000, 2.5}));
        expectFailure("update", _table.error(), locked);
        EXPECT_FALSE(_table.addOrUpdate(Sample{5000, 2.5}));
        expectFailure("addOrUpdate", _table.error(), locked);
        EXPECT_FALSE(_table.remove(5000));
        expectFailure("remove", _table.error(), locked);
        EXPECT_FALSE(_table.add(all.begin(), all.end()));
        expectFailure("begin", _table.error(), locked);
        EXPECT_EQ(_table.find(5000)->value, 1.5);
        EXPECT_EQ(_table.count().valueOr(-1), 1);
    }
    other.run("rollback");
    expectAdded(all);
}

TEST_F(TypedRowsFaultTest, ReadingFailsWhileAnotherHasTheFileForItself)
{
    test::Connection other(_file);
    const std::string locked = "5=SQLITE_BUSY: database is locked";
    other.run("begin exclusive");
    for (int i = 0; i < 3; ++i) {
        EXPECT_TRUE(_table.find(5000).failed());
        expectFailure("find", _table.error(), locked);
        EXPECT_EQ(_table.has(5000), sql::Presence::unknown);
        expectFailure("has", _table.error(), locked);
        EXPECT_TRUE(_table.count("where value > ?", 1).failed());
        expectFailure("count", _table.error(), locked);
        EXPECT_TRUE(_table.first("where value > ?", 1).failed());
        expectFailure("first", _table.error(), locked);
        std::vector<Sample> loaded(2);
        EXPECT_FALSE(_table.load(loaded));
        EXPECT_TRUE(loaded.empty());
        expectFailure("load", _table.error(), locked);
        EXPECT_TRUE(_table.values<double>("value").failed());
        expectFailure("values", _table.error(), locked);
        auto cursor = _table.select();
        Sample read;
        EXPECT_FALSE(cursor.next(read));
        expectFailure("next", cursor.error(), locked);
    }
    other.run("rollback");
    EXPECT_EQ(_table.find(5000)->value, 1.5);
    expectAdded(samples(1));
}

// Sets a flag at the nth instruction of SQLite's machine, as another thread does at any time.
struct Stopper {
    explicit Stopper(sql::Database& stopped) : database(stopped), flag(stopped)
    {
        EXPECT_TRUE(flag.isAttached());
    }

    // Returns whether it came before the end of the work.
    template <typename Work> bool strike(int nth, const Work& work)
    {
        left = nth;
        sqlite3_progress_handler(database.getHandle(), 1, atInstruction, this);
        work();
        sqlite3_progress_handler(database.getHandle(), 0, nullptr, nullptr);
        const bool struck = flag.isSet();
        flag.clear();
        return struck;
    }

    static int atInstruction(void* stopper)
    {
        Stopper& self = *static_cast<Stopper*>(stopper);
        if (--self.left == 0)
            self.flag.set();
        return 0;
    }

    sql::Database& database;
    sql::StopFlag flag;
    int left = 0;
};

TEST_F(TypedRowsFaultTest, BulkThatIsStoppedStoresNothing)
{
    Stopper stopper(_database);
    const std::vector<Sample> all = samples(1);
    bool struck = true;
    int stopped = 0;
    for (int nth = 1; struck; nth += test::stride(97)) {
        SCOPED_TRACE(nth);
        bool added = false;
        struck = stopper.strike(nth, [&] { added = _table.add(all.begin(), all.end()); });
        if (added) {
            EXPECT_EQ(rows(),
                      std::to_string(row_count + 1) + "|" + std::to_string(total(all) + 5000));
            test::run(_database.getHandle(), "delete from sample where id < 5000");
            continue;
        }
        ++stopped;
        expectStopped(_table.error());
        EXPECT_TRUE(sqlite3_get_autocommit(_database.getHandle()));
        EXPECT_EQ(rows(), before);
    }
    EXPECT_GT(stopped, 0);
    expectAdded(all);
}

TEST_F(TypedRowsFaultTest, LoadThatIsStoppedLeavesNothing)
{
    Stopper stopper(_database);
    expectAdded(samples(1));
    bool struck = true;
    int stopped = 0;
    for (int nth = 1; struck; nth += test::stride(41)) {
        SCOPED_TRACE(nth);
        std::vector<Sample> loaded(2);
        bool isLoaded = false;
        struck = stopper.strike(nth, [&] { isLoaded = _table.load(loaded, "order by value"); });
        EXPECT_EQ(loaded.size(), isLoaded ? row_count + 1U : 0U);
        if (isLoaded)
            continue;
        ++stopped;
        EXPECT_TRUE(_table.error().isStopped());
        expectFailure("load", _table.error(), "9=SQLITE_INTERRUPT: interrupted");
    }
    EXPECT_GT(stopped, 0);
}

} // namespace
