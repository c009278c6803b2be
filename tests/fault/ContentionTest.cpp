#include "Cases.h"
#include "Diagnostics.h"
#include "Environment.h"
#include "Reports.h"
#include "Shop.h"
#include "SqlPreparedTable.h"
#include "SqlStatement.h"
#include "SqlTransaction.h"
#include "Sqlite.h"

#include <gmock/gmock.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <fstream>
#include <functional>
#include <iterator>
#include <list>
#include <map>
#include <memory>
#include <ostream>
#include <sstream>
#include <string>
#include <tuple>
#include <vector>

namespace {

namespace report = test::report;
using sql::Record;
using test::Shop;
using test::Texts;
using testing::IsEmpty;

const auto read_write = sql::Database::access_read_write;
const int patience = 60000; // ms, longer than any of this takes
const unsigned hang = 300;  // s, after which a process that has not ended is stopped
const char locked[] = "5=SQLITE_BUSY: database is locked";

// A process that has opened no database before.
class Process {
public:
    explicit Process(const std::function<bool()>& work) : _id(::fork())
    {
        if (_id != 0)
            return;
        ::alarm(hang);
        ::_exit(work() ? 0 : 1);
    }
    ~Process()
    {
        if (_id > 0)
            hasSucceeded();
    }
    Process(const Process&) = delete;
    Process& operator=(const Process&) = delete;

    // Waits for its end.
    bool hasSucceeded()
    {
        int status = -1;
        const bool ended = ::waitpid(_id, &status, 0) == _id;
        _id = -1;
        return ended && status == 0;
    }

private:
    pid_t _id;
};

// One process tells another to go on.
class Signal {
public:
    Signal()
    {
        EXPECT_EQ(::pipe(_ends), 0);
    }
    ~Signal()
    {
        ::close(_ends[0]);
        ::close(_ends[1]);
    }
    Signal(const Signal&) = delete;
    Signal& operator=(const Signal&) = delete;

    void send() const
    {
        EXPECT_EQ(::write(_ends[1], "!", 1), 1);
    }
    void await() const
    {
        char byte;
        EXPECT_EQ(::read(_ends[0], &byte, 1), 1);
    }

private:
    int _ends[2];
};

Record product(const std::string& name)
{
    Record row(test::goods()); // SQLite chooses the key
    row.setString("name", name);
    return row;
}

// Of the ERROR lines.
Texts busyReport(const std::string& statement)
{
    return test::errorsOf(report::refused(statement, locked));
}
Texts busyReport(const std::string& operation, const std::string& statement)
{
    return test::errorsOf(report::statementFailed(operation, statement, locked));
}

// By what rows are written.
enum class Route { table, statement, prepared };

const char insert_name[] = "insert into product (name) values (?)";
const char insert_product[] =
    "insert into `product` (`id`, `name`, `price`, `sold`, `code`) values (?, ?, ?, ?, ?)";
const std::vector<sql::Field> copied_columns = { // the keys are others
    sql::Field("name", sql::type_text, sql::flag_none),
    sql::Field("price", sql::type_float, sql::flag_none)};
const char insert_copy[] = "insert into `product` (`name`, `price`) values (?, ?)";
const char select_copy[] = "select `name`, `price` from `product`";

// What processes have to say to the test, one file for each: "added <name>", "copied <rows>",
// "refused" or what is wrong.
typedef std::ofstream Log;

// A connection of a process that does its work among others.
class Worker {
public:
    Worker(const std::string& file, const std::string& logFile, int busyTimeout, Route route)
        : _log(logFile), _route(route), _shop(file)
    {
        expect(_shop.open(read_write, busyTimeout), "open");
        // The disk is slow, and the others shall meet in what is not.
        while (!_shop.query("pragma synchronous = off"))
            _diagnostics.clear();
    }

    void addRows(int worker, int count)
    {
        for (int i = 0; i < count; ++i) {
            const std::string name = std::to_string(worker) + "-" + std::to_string(i);
            note(adds(name), name);
        }
    }

    // Two rows of one name each time, or none.
    void addPairs(int worker, int count, useconds_t pause = 0)
    {
        for (int i = 0; i < count; ++i) {
            const std::string name = std::to_string(worker) + "-" + std::to_string(i);
            note(addsPair(name), name);
            ::usleep(pause);
        }
    }

    void readPairs(int count)
    {
        for (int i = 0; i < count; ++i) {
            if (!answered(_shop.product.open(), {busyReport("select * from product")}))
                continue;
            std::map<std::string, int> rows;
            for (int row = 0; row < _shop.product.recordCount(); ++row)
                ++rows[_shop.product.getRecord(row)->getValue("name")->asString()];
            for (const auto& [name, number] : rows)
                expect(number == 2, "half of " + name);
        }
    }

    // All rows of another file each time, or none; as new ones.
    void copyRows(const std::string& file, int busyTimeout, int times)
    {
        sql::Database other;
        expect(other.open(file, read_write, false, busyTimeout), "open");
        const sql::Table table(nullptr, "product", sql::FieldSet(copied_columns));
        sql::PreparedTable source(other, table);
        sql::PreparedTable target(_shop.database, table);
        for (int i = 0; i < times; ++i) {
            const bool copied = answered(
                target.copyRecords(source),
                {busyReport("copyRecords", insert_copy), busyReport("copyRecords", select_copy),
                 busyReport("begin", "begin immediate"), busyReport("commit", "commit")});
            _log << (copied ? "copied " + std::to_string(target.changes()) : "refused")
                 << std::endl;
        }
    }

private:
    bool adds(const std::string& name)
    {
        const Record row = product(name);
        if (_route == Route::table)
            return answered(_shop.product.addRecord(row), {busyReport(row.toSqlInsert("product"))});
        if (_route == Route::prepared)
            return answered(_fast.addRecord(row), {busyReport("addRecord", insert_product)});
        sql::Statement statement(_shop.database, insert_name);
        if (!statement.isPrepared()) // it has to read what tables there are
            return answered(false, {busyReport("Statement", insert_name)});
        return answered(statement.run(name), {busyReport("run", insert_name)});
    }

    bool addsPair(const std::string& name)
    {
        if (_route == Route::statement)
            return addsPairInScope(name);
        if (_route == Route::prepared)
            return addsPairInBulk(name);
        expect(_shop.transact("BEGIN"), "begin");
        const bool added = adds(name) && adds(name)
                           && answered(_shop.transact("COMMIT"),
                                       {busyReport("COMMIT TRANSACTION")});
        if (!added)
            expect(_shop.transact("ROLLBACK"), "rollback");
        return added;
    }

    bool addsPairInScope(const std::string& name)
    {
        sql::Transaction transaction(_shop.database, sql::begin_immediate);
        return answered(transaction.isOpen(), {busyReport("begin", "begin immediate")})
               && adds(name) && adds(name)
               && answered(transaction.commit(), {busyReport("commit", "commit")});
    }

    bool addsPairInBulk(const std::string& name)
    {
        const Record pair[] = {product(name), product(name)};
        return answered(_fast.addRecords(std::begin(pair), std::end(pair)),
                        {busyReport("addRecords", insert_product),
                         busyReport("begin", "begin immediate"), busyReport("commit", "commit")});
    }

    // A refusal leaves the two lines of one of the statements, and an answer of success none.
    bool answered(bool succeeded, const std::vector<Texts>& refusals)
    {
        const Texts errors = _diagnostics.errors();
        expect(succeeded ? errors.empty()
                         : std::count(refusals.begin(), refusals.end(), errors) == 1,
               "reports: " + testing::PrintToString(errors));
        const Texts assertions = _diagnostics.assertions();
        expect(assertions.empty(), "assertions: " + testing::PrintToString(assertions));
        _diagnostics.clear();
        return succeeded;
    }

    void note(bool added, const std::string& name)
    {
        _log << (added ? "added " + name : "refused") << std::endl;
    }

    void expect(bool holds, const std::string& what)
    {
        if (!holds)
            _log << what << std::endl;
    }

    Log _log;
    const Route _route;
    test::Diagnostics _diagnostics;
    Shop _shop;
    sql::PreparedTable _fast{_shop.database, _shop.product};
};

class ContentionTest : public testing::Test {
protected:
    explicit ContentionTest(const std::string& journal = "delete")
        : _file(_directory.file("shop.db"))
    {
        make(_file, journal);
    }

    static void make(const std::string& fileName, const std::string& journal)
    {
        test::Connection file(fileName);
        file.run("pragma journal_mode = " + journal);
        file.run("create table product (id integer primary key, name, price, sold, code)");
    }

    std::string rows(const std::string& query) const
    {
        return test::Connection(_file).rows(query);
    }

    const test::TemporaryDirectory _directory;
    const std::string _file;
};

// --- Many processes

struct Crowd {
    int writers;
    const char* journal;
    int busyTimeout;
    Route route = Route::table;
};

void PrintTo(const Crowd& crowd, std::ostream* out)
{
    static const char* const routes[] = {"", ", by statements", ", by prepared tables"};
    *out << crowd.writers << " writers, journal " << crowd.journal << ", " << crowd.busyTimeout
         << " ms" << routes[static_cast<int>(crowd.route)];
}

const int rows_each = test::longRun() ? 250 : test::briefRun() ? 20 : 40;
const int reads_each = test::longRun() ? 250 : test::briefRun() ? 30 : 60;
const useconds_t pause = 500; // of a writer, for as long as copies take

class CrowdTest : public ContentionTest, public testing::WithParamInterface<Crowd> {
protected:
    CrowdTest() : ContentionTest(GetParam().journal)
    {
    }

    void start(const std::function<void(Worker&)>& work)
    {
        start(_file, work);
    }

    void start(const std::string& file, const std::function<void(Worker&)>& work)
    {
        const std::string log = _directory.file("log" + std::to_string(_processes.size()));
        _logs.push_back(log);
        _processes.emplace_back([&] {
            Worker worker(file, log, GetParam().busyTimeout, GetParam().route);
            work(worker);
            return true;
        });
    }

    // Waits for all processes, and takes what they say.
    void finish()
    {
        for (Process& process : _processes)
            EXPECT_TRUE(process.hasSucceeded());
        for (const std::string& log : _logs) {
            std::ifstream lines(log);
            for (std::string line; std::getline(lines, line);) {
                if (line.compare(0, 6, "added ") == 0)
                    _added.push_back(line.substr(6));
                else if (line.compare(0, 7, "copied ") == 0)
                    _copied.push_back(std::stoi(line.substr(7)));
                else if (line == "refused")
                    ++_refused;
                else
                    _problems.push_back(line);
            }
        }
        std::sort(_added.begin(), _added.end());
    }

    // The names in the file, each followed by how often it is there: those that were acknowledged.
    void expectFile(const std::string& times) const
    {
        EXPECT_THAT(_problems, IsEmpty());
        EXPECT_EQ(static_cast<int>(_added.size()) + _refused, GetParam().writers * rows_each);
        EXPECT_TRUE(GetParam().busyTimeout < patience || _refused == 0) << _refused;
        std::string expected;
        for (const std::string& name : _added)
            expected += (expected.empty() ? "" : "\n") + name + "|" + times;
        EXPECT_EQ(rows("select name, count(*) from product group by name order by name"), expected);
        EXPECT_EQ(rows("pragma integrity_check"), "ok");
    }

    std::list<Process> _processes;
    Texts _logs;
    Texts _added;             // acknowledged
    std::vector<int> _copied; // rows at a time
    int _refused = 0;
    Texts _problems;
};

TEST_P(CrowdTest, EveryAcknowledgedRowIsThereOnceAndNoOther)
{
    for (int writer = 0; writer < GetParam().writers; ++writer)
        start([&](Worker& worker) { worker.addRows(writer, rows_each); });
    finish();
    expectFile("1");
}

TEST_P(CrowdTest, ReadersSeeWholeTransactions)
{
    for (int writer = 0; writer < GetParam().writers; ++writer)
        start([&](Worker& worker) { worker.addPairs(writer, rows_each); });
    for (int reader = 0; reader < 2; ++reader)
        start([&](Worker& worker) { worker.readPairs(reads_each); });
    finish();
    expectFile("2");
}

const Crowd crowds[] = {
    {2, "delete", patience},
    {4, "delete", patience},
    {8, "delete", patience},
    {2, "delete", 0},
    {4, "delete", 5},
    {8, "delete", 0},
    {2, "wal", patience},
    {4, "wal", patience},
    {8, "wal", patience},
    {2, "wal", 0},
    {4, "wal", 5},
    {8, "wal", 0},
    {8, "delete", patience, Route::statement},
    {4, "delete", 0, Route::statement},
    {8, "wal", patience, Route::statement},
    {4, "delete", 0, Route::prepared},
    {4, "wal", patience, Route::prepared},
};

INSTANTIATE_TEST_SUITE_P(Crowds, CrowdTest, testing::ValuesIn(crowds));

// --- From one file to another

class CopyTest : public CrowdTest {
protected:
    CopyTest()
    {
        make(_target, GetParam().journal);
    }

    // The names in a file, in their order.
    static Texts namesIn(const std::string& file)
    {
        std::istringstream lines(
            test::Connection(file).rows("select name from product order by id"));
        Texts names;
        for (std::string line; std::getline(lines, line);)
            names.push_back(line);
        return names;
    }

    // What one of the writers was said to have added, twice each.
    Texts addedBy(int writer) const
    {
        Texts names;
        for (const std::string& name : _added) {
            if (name.compare(0, 2, std::to_string(writer) + "-") == 0)
                names.insert(names.end(), 2, name);
        }
        return names;
    }

    const std::string _target = _directory.file("target.db");
};

TEST_P(CopyTest, TakesAllTransactionsOfTheSourceOrNothing)
{
    for (int writer = 0; writer < 2; ++writer)
        start(writer == 0 ? _file : _target,
              [&](Worker& worker) { worker.addPairs(writer, rows_each, pause); });
    start(_target,
          [&](Worker& worker) { worker.copyRows(_file, GetParam().busyTimeout, rows_each); });
    finish();
    EXPECT_THAT(_problems, IsEmpty());
    EXPECT_EQ(static_cast<int>(_added.size() + _copied.size()) + _refused, 3 * rows_each);
    EXPECT_TRUE(GetParam().busyTimeout < patience || _refused == 0) << _refused;
    const Texts source = namesIn(_file);
    EXPECT_THAT(source, testing::UnorderedElementsAreArray(addedBy(0)));
    Texts expected = addedBy(1);
    for (const int rows : _copied) {
        EXPECT_EQ(rows % 2, 0) << "half of a transaction";
        expected.insert(expected.end(), source.begin(), source.begin() + rows);
    }
    Texts names = namesIn(_target);
    std::sort(names.begin(), names.end());
    std::sort(expected.begin(), expected.end());
    EXPECT_EQ(names, expected);
}

const Crowd copies[] = {
    {2, "delete", patience, Route::prepared},
    {2, "delete", 0, Route::prepared},
    {2, "wal", patience, Route::prepared},
    {2, "wal", 0, Route::prepared},
};

INSTANTIATE_TEST_SUITE_P(Copies, CopyTest, testing::ValuesIn(copies));

// --- One counter

class CounterTest : public ContentionTest, public testing::WithParamInterface<const char*> {
protected:
    CounterTest() : ContentionTest(GetParam())
    {
        test::Connection(_file).run("create table counter (n); insert into counter values (0)");
    }

    // Counts on in transactions that wait for each other. False if anything is not as it should be.
    bool count(int times) const
    {
        test::Diagnostics diagnostics;
        sql::Database database;
        int done = 0;
        if (!database.open(_file, read_write, false, patience)) // which the counting has no need of
            return false;
        sql::Statement read(database, "select n from counter");
        sql::Statement write(database, "update counter set n = ?");
        if (!sql::runScript(database, "pragma busy_timeout = 0; pragma synchronous = off"))
            return false;
        for (int i = 0; i < times; ++i) {
            const auto counted = sql::inTransaction(
                database,
                [&] {
                    const auto n = read.one<int>();
                    return n && write.run(*n + 1);
                },
                std::chrono::milliseconds(patience));
            done += counted ? 1 : 0;
        }
        return done == times && diagnostics.events().empty();
    }
};

TEST_P(CounterTest, NothingIsLostAndEveryProcessEndsWithinAMinute)
{
    const int processes = 8;
    const int times = 1000 / test::stride(1);
    std::list<Process> all;
    for (int i = 0; i < processes; ++i) {
        all.emplace_back([&] {
            ::alarm(60);
            return count(times);
        });
    }
    for (Process& process : all)
        EXPECT_TRUE(process.hasSucceeded());
    EXPECT_EQ(rows("select n from counter"), std::to_string(processes * times));
}

INSTANTIATE_TEST_SUITE_P(Journals, CounterTest, testing::Values("delete", "wal"));

// --- A locked file

const long long generous = 30000; // ms, on a busy machine

// The whole milliseconds that a call takes.
long long duration(const std::function<void()>& call)
{
    const auto start = std::chrono::steady_clock::now();
    call();
    return std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now()
                                                                 - start)
        .count();
}

// A connection of this process, which knows the table already: what waits is the statement itself.
struct User : Shop {
    User(const std::string& file, int busyTimeout) : Shop(file)
    {
        EXPECT_TRUE(open(read_write, busyTimeout) && product.open());
    }
};

// Another process that locks the file.
class Locker {
public:
    explicit Locker(const std::string& file)
        : _process([this, &file] {
              test::Diagnostics diagnostics;
              Shop shop(file);
              _start.await();
              const bool holds = shop.open(read_write, patience) && shop.query("begin exclusive");
              _locked.send();
              _release.await();
              return holds && shop.transact("COMMIT");
          })
    {
    }

    void lock()
    {
        _start.send();
        _locked.await();
    }

    void release()
    {
        _release.send();
    }

    bool hasSucceeded()
    {
        return _process.hasSucceeded();
    }

private:
    const Signal _start;
    const Signal _locked;
    const Signal _release;
    Process _process;
};

// Another process that adds a row once it is told to, and waits for nobody.
class Writer {
public:
    explicit Writer(const std::string& file)
        : _process([this, &file] {
              test::Diagnostics diagnostics;
              Shop shop(file);
              _start.await();
              return shop.open(read_write, 0) && shop.product.addRecord(product("other"));
          })
    {
    }

    bool writes()
    {
        _start.send();
        return _process.hasSucceeded();
    }

private:
    const Signal _start;
    Process _process;
};

class LockTest : public ContentionTest {
protected:
    const Record _late = product("late");
    const std::string _insert = _late.toSqlInsert("product");
    test::Diagnostics _diagnostics;
};

struct Attempt : test::Case {
    int waits; // the statements that wait, each for the whole timeout
    bool answer;
    bool (*run)(Shop& shop, const Record& row);
    Texts (*reports)(const std::string& insert);
};

class AttemptTest : public LockTest,
                    public testing::WithParamInterface<std::tuple<Attempt, int>> {};

TEST_P(AttemptTest, WaitsForAsLongAsTheBusyTimeoutSays)
{
    const auto& [attempt, busyTimeout] = GetParam();
    Locker other(_file);
    User user(_file, busyTimeout);
    other.lock();
    bool answer = !attempt.answer;
    const long long time = duration([&, &run = attempt.run] { answer = run(user, _late); });
    EXPECT_EQ(answer, attempt.answer);
    EXPECT_EQ(_diagnostics.errors(), test::errorsOf(attempt.reports(_insert)));
    EXPECT_THAT(_diagnostics.assertions(), IsEmpty());
    const long long expected = attempt.waits * std::max(busyTimeout, 0);
    EXPECT_GE(time, expected);
    EXPECT_LT(time, expected + generous);
    other.release();
    EXPECT_TRUE(other.hasSucceeded());
    EXPECT_EQ(rows("select * from product"), "");
}

const Attempt attempts[] = {
    {"addRecord", 1, false,
     [](Shop& shop, const Record& row) { return shop.product.addRecord(row); },
     [](const std::string& insert) {
         return report::refused(insert, locked);
     }},
    {"addOrUpdateRecord", 2, false,
     [](Shop& shop, const Record& row) {
         return shop.product.addOrUpdateRecord(sql::integer(7), row);
     },
     [](const std::string& insert) {
         return test::joined({report::noRow("select count(*) from product where id = 7", locked),
                              report::refused(insert, locked)});
     }},
    {"open", 1, false, [](Shop& shop, const Record&) { return shop.product.open(); },
     [](const std::string&) {
         return report::refused("select * from product", locked);
     }},
    {"exists", 1, true, [](Shop& shop, const Record&) { return shop.product.exists(); },
     [](const std::string&) {
         return test::joined({report::noRow(report::existenceQuery("product"), locked),
                              {report::undetermined("product", locked).back()}});
     }},
    {"totalRecordCount", 1, false,
     [](Shop& shop, const Record&) { return shop.product.totalRecordCount() != -1; },
     [](const std::string&) {
         return report::noRow("select count(*) from product", locked);
     }},
    {"setUserVersion", 1, false, [](Shop& shop, const Record&) { return shop.setUserVersion(7); },
     [](const std::string&) {
         return report::stepFailed("PRAGMA user_version=7;", locked);
     }},
    {"run of a statement", 1, false,
     [](Shop& shop, const Record&) {
         return sql::Statement(shop.database, insert_name).run("late");
     },
     [](const std::string&) {
         return report::statementFailed("run", insert_name, locked);
     }},
    {"next of a statement", 1, false,
     [](Shop& shop, const Record&) {
         return sql::Statement(shop.database, "select * from product").next();
     },
     [](const std::string&) {
         return report::statementFailed("next", "select * from product", locked);
     }},
    {"begin of a transaction", 1, false,
     [](Shop& shop, const Record&) {
         return sql::Transaction(shop.database, sql::begin_immediate).isOpen();
     },
     [](const std::string&) {
         return report::statementFailed("begin", "begin immediate", locked);
     }},
    {"transactionBegin, which waits for nothing", 0, true,
     [](Shop& shop, const Record&) { return shop.transact("BEGIN"); },
     [](const std::string&) {
         return Texts();
     }},
};

INSTANTIATE_TEST_SUITE_P(Attempts, AttemptTest,
                         testing::Combine(testing::ValuesIn(attempts),
                                          testing::Values(-1, 0, 1, 40, 200)));

TEST_F(LockTest, StatementsAndTransactionsKeepNoneBehindTheirEnd)
{
    std::list<Writer> others;
    for (int i = 0; i < 8; ++i)
        others.emplace_back(_file);
    const auto nextOneWrites = [&] {
        const bool writes = others.front().writes();
        others.pop_front();
        return writes;
    };
    User user(_file, 0);
    EXPECT_TRUE(user.product.addRecord(_late) && user.product.addRecord(_late));
    {
        sql::Statement all(user.database, "select name from product");
        EXPECT_TRUE(all.next());
        EXPECT_FALSE(nextOneWrites());
        while (all.next()) {
        }
        EXPECT_TRUE(nextOneWrites()) << "after the last row";
        EXPECT_TRUE(all.reset() && all.next() && all.reset());
        EXPECT_TRUE(nextOneWrites()) << "after a reset";
        int number = 0;
        EXPECT_FALSE(all.next(number));
        EXPECT_EQ(_diagnostics.errors(), test::errorsOf(report::statementFailed(
                                             "next", "select name from product",
                                             "20=SQLITE_MISMATCH: column name is no number")));
        EXPECT_TRUE(nextOneWrites()) << "after a failure";
        EXPECT_TRUE(all.reset() && all.next());
    }
    EXPECT_TRUE(nextOneWrites()) << "after the scope of a statement";
    {
        sql::Transaction transaction(user.database, sql::begin_immediate);
        EXPECT_FALSE(nextOneWrites());
        EXPECT_TRUE(transaction.commit());
        EXPECT_TRUE(nextOneWrites()) << "after a commit";
        const sql::Transaction another(user.database, sql::begin_exclusive);
    }
    EXPECT_TRUE(nextOneWrites()) << "after the scope of a transaction";
    EXPECT_EQ(rows("select count(*) from product where name = 'other'"), "6");
}

TEST_F(LockTest, WaitingStatementRunsWhenTheLockIsReleased)
{
    Locker other(_file);
    User user(_file, patience);
    other.lock();
    const Process releasing([&] {
        ::usleep(50000); // most likely after the statement has begun to wait
        other.release();
        return true;
    });
    EXPECT_TRUE(user.product.addRecord(_late));
    EXPECT_THAT(_diagnostics.events(), IsEmpty());
    EXPECT_TRUE(other.hasSucceeded());
    EXPECT_EQ(rows("select name from product"), "late");
}

TEST_F(LockTest, CommitRefusedBecauseOfAReaderCanBeRepeated)
{
    User reader(_file, 0);
    User writer(_file, 40);
    ASSERT_TRUE(reader.transact("BEGIN") && reader.product.open());
    ASSERT_TRUE(writer.transact("BEGIN") && writer.product.addRecord(_late));
    EXPECT_GE(duration([&] { EXPECT_FALSE(writer.transact("COMMIT")); }), 40);
    EXPECT_EQ(_diagnostics.errors(), busyReport("COMMIT TRANSACTION"));
    EXPECT_TRUE(reader.transact("COMMIT"));
    EXPECT_TRUE(writer.transact("COMMIT"));
    EXPECT_EQ(rows("select name from product"), "late");
}

// Each would have to wait for the other's end.
TEST_F(LockTest, SecondOfTwoReadersThatTurnToWritingIsRefusedAtOnce)
{
    User first(_file, patience);
    User second(_file, patience);
    for (User* user : {&first, &second})
        ASSERT_TRUE(user->transact("BEGIN") && user->product.open());
    ASSERT_TRUE(first.product.addRecord(product("first")));
    EXPECT_LT(duration([&] { EXPECT_FALSE(second.product.addRecord(_late)); }), generous);
    EXPECT_EQ(_diagnostics.errors(), busyReport(_insert));
    EXPECT_TRUE(second.transact("ROLLBACK"));
    EXPECT_TRUE(first.transact("COMMIT"));
    EXPECT_TRUE(second.product.addRecord(_late));
    EXPECT_EQ(rows("select name from product"), "first\nlate");
}

} // namespace
