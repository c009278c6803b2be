#include "CutTest.h"
#include "Diagnostics.h"
#include "Environment.h"
#include "Shop.h"
#include "SqlInbox.h"
#include "SqlOutbox.h"
#include "SqlRecorder.h"
#include "SqlStatement.h"
#include "Sqlite.h"
#include "Trouble.h"

#include <gmock/gmock.h>

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

namespace {

using sql::Received;
using sql::WhenFull;
using std::string;
using test::Cause;
using test::Target;
using testing::AnyOf;
using testing::Contains;
using testing::IsEmpty;

// --- The rows

// Inserting products counts in the tally.
const char tables[] =
    "create table product (id integer primary key, name text, price);"
    "create table tally (what text not null primary key, n) without rowid;"
    "create table other (id integer primary key);"
    "create table pack (product references product deferrable initially deferred)";
const char counting[] = "create trigger counted after insert on product begin"
                        " update tally set n = n + 1; end";
const std::vector<string> recorded = {"product", "tally"};

struct Write {
    int id;      // 0 for the tally, which begins
    string name; // none for a removal
};
typedef std::vector<Write> Writes;

string statementsOf(const Writes& writes)
{
    string all;
    for (const auto& [id, name] : writes) {
        const string key = std::to_string(id);
        if (id == 0)
            all += "insert into tally values ('products', 0);";
        else if (name.empty())
            all += "delete from product where id = " + key + ";";
        else
            all += "insert or replace into product values (" + key + ", '" + name + "', " + key
                   + " * 0.5);";
    }
    return all;
}

struct Model {
    void take(const Writes& writes)
    {
        for (const auto& [id, name] : writes) {
            if (id == 0)
                tally = 0;
            else if (name.empty())
                products.erase(id);
            else
                products[id] = name;
            if (!name.empty() && tally)
                ++*tally;
        }
    }

    string rows() const
    {
        string all;
        for (const auto& [id, name] : products)
            all += std::to_string(id) + "|" + name + "|" + std::to_string(id / 2)
                   + (id % 2 == 0 ? ".0\n" : ".5\n");
        return all + (tally ? "products|" + std::to_string(*tally) : "");
    }

    std::map<int, string> products;
    std::optional<int> tally;
};

string rowsOf(sqlite3* db)
{
    const string products = test::rows(db, "select * from product order by id");
    return products + (products.empty() ? "" : "\n") + test::rows(db, "select * from tally");
}

Writes many(int from, int to, const string& name)
{
    Writes writes;
    for (int id = from; id <= to; ++id) {
        string text;
        for (int i = name.empty() ? id : 0; i < id; ++i)
            text += name;
        writes.push_back({id, text});
    }
    return writes;
}

Writes operator+(Writes one, const Writes& other)
{
    one.insert(one.end(), other.begin(), other.end());
    return one;
}

// --- The work

class Device;

// Changes the file at once, or not at all.
struct Step {
    sql::Error (*run)(Device& device, const Step& step);
    Writes writes; // which it commits, or tries to
};

struct Work {
    string name;
    sql::RecorderOptions options;
    std::vector<Step> steps;
    std::set<int> lost; // the products of commits that are dropped
};

// A program on a device.
class Device {
public:
    Device(const string& file, const Work& work, int way = -1) : shop(file), _work(&work), _way(way)
    {
        delivered.reserve(work.steps.size());
    }

    bool open(const string& setting)
    {
        if (!shop.open() || !shop.query(setting))
            return false;
        clear.emplace(shop.database, "delete from product"); // SQLite would empty it in one step
        return clear->isPrepared();
    }

    sql::Error start()
    {
        outbox.emplace(shop.database, "device");
        recorder.emplace(shop.database, recorded, _work->options);
        EXPECT_EQ(recorder->isRecording(), !recorder->error());
        return recorder->error();
    }

    // From a step to the end, or to the first failure.
    sql::Error work(std::size_t& done)
    {
        while (done < _work->steps.size()) {
            const Step& step = _work->steps[done];
            if (sql::Error error = step.run(*this, step))
                return error;
            ++done;
            tell({}, {});
        }
        return sql::Error();
    }

    void deliver(sql::ChangeSet& set)
    {
        tell(set.header(), set.bytes());
        delivered.push_back(std::move(set));
    }

    test::Shop shop;
    std::optional<sql::Recorder> recorder;
    std::optional<sql::Outbox> outbox;
    std::optional<sql::Statement> clear;
    std::vector<sql::ChangeSet> delivered;

private:
    // To who lives on when this ends.
    void tell(std::string_view header, std::string_view bytes) const
    {
        if (_way < 0)
            return;
        const std::uint32_t sizes[] = {static_cast<std::uint32_t>(header.size()),
                                       static_cast<std::uint32_t>(bytes.size())};
        string all(reinterpret_cast<const char*>(sizes), sizeof(sizes));
        all.append(header).append(bytes);
        EXPECT_EQ(::write(_way, all.data(), all.size()), static_cast<ssize_t>(all.size()));
    }

    const Work* _work;
    const int _way;
};

// What an operation has returned says what its error does.
const sql::Error& told(bool isDone, const sql::Error& error)
{
    EXPECT_EQ(isDone, !error);
    return error;
}

sql::Error start(Device& device, const Step&)
{
    return device.start();
}

sql::Error write(Device& device, const Writes& writes)
{
    return sql::runScript(device.shop.database, statementsOf(writes)).error();
}

sql::Error record(Device& device, const Step& step)
{
    sql::RecordedTransaction transaction(*device.recorder);
    if (!transaction.isOpen())
        return transaction.error();
    if (sql::Error error = write(device, step.writes))
        return error;
    return told(transaction.commit(), transaction.error());
}

// Again as long as it is open, but not for ever.
sql::Error recordInTheEnd(Device& device, const Step& step)
{
    sql::RecordedTransaction transaction(*device.recorder);
    if (!transaction.isOpen())
        return transaction.error();
    if (sql::Error error = write(device, step.writes))
        return error;
    for (int attempts = 0; attempts < 3 && transaction.isOpen(); ++attempts) {
        if (transaction.commit())
            return sql::Error();
    }
    return transaction.error();
}

// With a statement that was compiled before the recorder was, and a part that is undone.
sql::Error recordAnew(Device& device, const Step& step)
{
    sql::RecordedTransaction transaction(*device.recorder);
    if (!transaction.isOpen())
        return transaction.error();
    if (!device.clear->run())
        return device.clear->error();
    if (sql::Error error = write(device, step.writes))
        return error;
    {
        sql::Savepoint part(device.shop.database);
        if (!part.isOpen())
            return part.error();
        if (sql::Error error = write(device, {{1, "undone"}, {70, "undone"}}))
            return error;
        if (!part.rollback())
            return part.error();
    }
    return told(transaction.commit(), transaction.error());
}

sql::Error undo(Device& device, const Step& step)
{
    sql::RecordedTransaction transaction(*device.recorder);
    if (!transaction.isOpen())
        return transaction.error();
    if (sql::Error error = write(device, step.writes))
        return error;
    return told(transaction.rollback(), transaction.error());
}

sql::Error refuse(Device& device, const Step& step)
{
    sql::RecordedTransaction transaction(*device.recorder);
    if (!transaction.isOpen())
        return transaction.error();
    if (sql::Error error = write(device, step.writes))
        return error;
    EXPECT_FALSE(transaction.commit());
    const bool isFull = transaction.error().text().compare(0, 19, "the outbox is full:") == 0;
    return isFull ? sql::Error() : transaction.error();
}

sql::Error changeSchema(Device& device, const Step&)
{
    return sql::runScript(device.shop.database, "create table if not exists more (id)").error();
}

sql::Error renew(Device& device, const Step&)
{
    return told(device.recorder->renew(), device.recorder->error());
}

sql::Error handOut(Device& device, const Step&)
{
    sql::ChangeSet set;
    const bool isRead = device.outbox->next(set);
    if (isRead)
        device.deliver(set);
    return told(isRead, device.outbox->error());
}

sql::Error handOutNothing(Device& device, const Step&)
{
    sql::ChangeSet set;
    EXPECT_FALSE(device.outbox->next(set));
    return device.outbox->error();
}

sql::Error acknowledge(Device& device, const Step&)
{
    if (device.delivered.empty()) // done before a restart
        return sql::Error();
    sql::Outbox& outbox = *device.outbox;
    return told(outbox.acknowledge(device.delivered.back().last()), outbox.error());
}

sql::Error countTwo(Device& device, const Step&)
{
    const sql::Result<sql::OutboxSize> size = device.outbox->pending();
    EXPECT_TRUE(!size || size->sets == 2);
    EXPECT_EQ(device.outbox->error().code(), size.error().code());
    return size.error();
}

// The limits have room for two commits of a product each.
const Work works[] = {
    {"Work",
     {},
     {
         {start, {}},
         {record, Writes{{0, ""}} + many(1, 25, "x")},
         {recordInTheEnd, many(26, 30, "yz") + Writes{{3, ""}, {4, ""}, {5, "five"}}},
         {handOut, {}},
         {handOutNothing, {}},
         {undo, {{1, ""}, {80, "undone"}}},
         {record, {{1, "one"}, {40, "forty"}}},
         {changeSchema, {}},
         {renew, {}},
         {recordInTheEnd, {{40, ""}, {41, "forty-one"}}},
         {handOut, {}},
         {countTwo, {}},
         {acknowledge, {}},
         {recordAnew, many(1, 30, "") + Writes{{40, ""}, {41, ""}} + many(6, 9, "new")},
         {handOut, {}},
         {acknowledge, {}},
         {handOutNothing, {}},
     },
     {}},
    {"Refusing",
     {100, WhenFull::refuse_writes},
     {
         {start, {}},
         {record, {{1, "one"}}},
         {record, {{2, "two"}}},
         {refuse, {{3, "three"}}},
         {handOut, {}},
         {refuse, {{3, "three"}}},
         {acknowledge, {}},
         {recordInTheEnd, {{3, "three"}}},
         {handOut, {}},
         {acknowledge, {}},
     },
     {}},
    {"Merging",
     {100, WhenFull::merge_ranges},
     {
         {start, {}},
         {record, {{1, "one"}}},
         {record, {{2, "two"}}},
         {recordInTheEnd, {{1, "another"}}},
         {record, {{1, ""}}},
         {refuse, {{3, string(100, 'x')}}},
         {handOut, {}},
         {refuse, {{4, "four"}, {5, "five"}}},
         {acknowledge, {}},
         {record, {{3, "three"}}},
         {handOut, {}},
         {acknowledge, {}},
     },
     {}},
    {"Dropping",
     {100, WhenFull::drop_oldest},
     {
         {start, {}},
         {record, {{1, "one"}}},
         {record, {{2, "two"}}},
         {handOut, {}},
         {recordInTheEnd, {{3, "three"}}},
         {record, {{4, "four"}}},
         {handOut, {}},
         {acknowledge, {}},
         {record, {{5, "five"}}},
         {record, {{6, "six"}}},
         {recordInTheEnd, {{7, "seven"}}},
         {handOut, {}},
         {acknowledge, {}},
     },
     {5}},
};

bool commits(const Step& step)
{
    return step.run == record || step.run == recordInTheEnd || step.run == recordAnew;
}

void fillFile(const string& file, const string& setting)
{
    test::Connection db(file);
    db.run("pragma page_size = 512; " + setting + ";" + tables + ";" + counting);
}

// --- The other end

class Centre {
public:
    Centre() : _shop(":memory:")
    {
        EXPECT_TRUE(_shop.open());
        test::run(_shop.handle(), tables);
        _inbox.emplace(_shop.database, recorded);
        EXPECT_TRUE(_inbox->isOpen());
    }

    void take(std::string_view header, std::string_view bytes)
    {
        const sql::Result<Received> received = _inbox->apply("device", header, bytes);
        EXPECT_TRUE(received && *received != Received::kept) << received.error().text();
    }

    // Whatever was dropped before it could be sent is missing, and counted.
    void expect(Model model, const std::set<int>& lost)
    {
        for (const int id : lost)
            model.products.erase(id);
        EXPECT_EQ(rows(), model.rows());
        EXPECT_EQ(_inbox->lost("device").valueOr(-1), static_cast<sql::integer>(lost.size()));
    }

    string rows()
    {
        return rowsOf(_shop.handle());
    }

private:
    test::Shop _shop;
    std::optional<sql::Inbox> _inbox;
};

// --- The states

// All but the incarnations, which are random.
string contentsOf(const string& file)
{
    test::Connection db(file);
    string all = db.rows("pragma integrity_check") + "\n" + rowsOf(db);
    if (db.rows("select count(*) from sqlite_master where name = 'sqlsync_state'") == "1")
        all += "\n" + db.rows("select number, sent, dropped, bytes from sqlsync_state") + "\n"
               + db.rows("select number, previous, hash, hex(changes) from sqlsync_outbox") + "\n"
               + db.rows("select hash, hex(description) from sqlsync_schema") + "\n"
               + db.rows("select count(*) from sqlite_master");
    return all;
}

// What the file holds before the work, and after each step.
std::vector<string> statesOf(const Work& work)
{
    test::Diagnostics diagnostics;
    const test::TemporaryDirectory directory;
    const string file = directory.file("file.db");
    fillFile(file, "");
    std::vector<string> states = {contentsOf(file)};
    Centre centre;
    Model model;
    Device device(file, work);
    EXPECT_TRUE(device.open(""));
    for (const Step& step : work.steps) {
        EXPECT_FALSE(step.run(device, step));
        if (commits(step))
            model.take(step.writes);
        EXPECT_EQ(rowsOf(device.shop.handle()), model.rows());
        states.push_back(contentsOf(file));
    }
    for (const sql::ChangeSet& set : device.delivered)
        centre.take(set.header(), set.bytes());
    centre.expect(model, work.lost);
    return states;
}

Model rowsInTheEnd(const Work& work)
{
    Model model;
    for (const Step& step : work.steps) {
        if (commits(step))
            model.take(step.writes);
    }
    return model;
}

const std::vector<string>& states(const Work& work)
{
    static std::map<string, std::vector<string>> all;
    std::vector<string>& known = all[work.name];
    if (known.empty())
        known = statesOf(work);
    return known;
}

struct Figures : testing::Environment {
    void TearDown() override
    {
        std::printf("recorders: %d with faults, %d of them whole; %d power losses, %d kills\n",
                    faults, whole, losses, kills);
    }

    int faults = 0;
    int whole = 0;
    int losses = 0;
    int kills = 0;
};

Figures& figures = *new Figures;
testing::Environment* const printFigures = testing::AddGlobalTestEnvironment(&figures);

// --- Faults

template <int number> class FaultTest : public test::TroubleTest {
protected:
    bool workWithTrouble(int nth) override
    {
        const auto& [cause, lasts, journal] = GetParam();
        test::Diagnostics diagnostics;
        const test::TemporaryDirectory directory;
        const string file = directory.file("file.db");
        const string setting = "pragma journal_mode = " + string(journal);
        test::Trouble trouble(cause, nth, lasts);
        fillFile(file, setting);
        {
            Device device(file, _work);
            EXPECT_TRUE(device.open(setting + "; pragma cache_size = 1"));
            std::size_t done = 0;
            sql::Error error;
            trouble.runThrough(device.shop.handle(), [&] { error = device.work(done); });
            expectReports(diagnostics, error, done, trouble.hasStruck());
            // No memory is left for a rollback that SQLite compiles anew.
            if (cause.target == Target::sqlite_memory && lasts && device.shop.inTransaction())
                device.shop.query("rollback");
            EXPECT_FALSE(device.shop.inTransaction());
            EXPECT_THAT(contentsOf(file), AnyOf(states(_work)[done], afterFailure(done))) << done;
            figures.whole += done == _work.steps.size() && trouble.hasStruck();
            expectGuarded(device);
            EXPECT_FALSE(device.work(done));
            EXPECT_EQ(contentsOf(file), states(_work).back());
            expectDelivered(device);
            diagnostics.clear();
        }
        EXPECT_THAT(diagnostics.events(), IsEmpty()); // no statement is left
        EXPECT_EQ(trouble.blocksInUse(), 0);
        ++figures.faults;
        return trouble.hasStruck();
    }

    void tryAll(const test::Strides& strides)
    {
        states(_work);
        tryAllPoints(strides);
    }

private:
    // A failure has one of the cause's codes, and is reported.
    static void expectReports(const test::Diagnostics& diagnostics, const sql::Error& error,
                              std::size_t done, bool struck)
    {
        std::set<int> codes = std::get<0>(GetParam()).codes;
        codes.insert(SQLITE_ABORT); // the transaction is lost
        if (error) {
            EXPECT_EQ(codes.count(error.code()), 1U) << error.text();
            EXPECT_THAT(diagnostics.errors(),
                        Contains("  rc=" + std::to_string(error.extendedCode()) + "=" + error.name()
                                 + ": " + error.text()));
        }
        EXPECT_TRUE(struck || (!error && done == _work.steps.size()));
        EXPECT_THAT(diagnostics.assertions(), IsEmpty());
    }

    // As long as it records, nothing is written past it.
    static void expectGuarded(Device& device)
    {
        if (!device.recorder || !device.recorder->isRecording())
            return;
        EXPECT_FALSE(device.shop.query("insert into product values (900, 'past it', 0)"));
        EXPECT_EQ(test::rows(device.shop.handle(), "select * from product where id = 900"), "");
        EXPECT_TRUE(device.shop.query("insert into other values (null)"));
        EXPECT_LE(device.recorder->unrecorded(), std::get<0>(GetParam()).target == Target::file);
    }

    // A recorder that fails as the last thing has made its tables.
    static const string& afterFailure(std::size_t done)
    {
        return states(_work)[std::max<std::size_t>(done, 1)];
    }

    static void expectDelivered(const Device& device)
    {
        Centre centre;
        for (const sql::ChangeSet& set : device.delivered)
            centre.take(set.header(), set.bytes());
        centre.expect(rowsInTheEnd(_work), _work.lost);
    }

    static constexpr const Work& _work = works[number];
};

typedef FaultTest<0> RecorderFaultTest;
typedef FaultTest<1> RefusingOutboxFaultTest;
typedef FaultTest<2> MergingOutboxFaultTest;
typedef FaultTest<3> DroppingOutboxFaultTest;

#define TEST_WORK(Test)                                                                            \
    TEST_P(Test, EachStepIsDoneWholeOrNotAtAllAndCanBeDoneAgain)                                   \
    {                                                                                              \
        tryAll({997, 211, 23});                                                                    \
    }                                                                                              \
    INSTANTIATE_TEST_SUITE_P(File, Test, test::everyWay(test::file_causes), test::NameOfWay());    \
    INSTANTIATE_TEST_SUITE_P(Journal, Test, test::everyWayWithoutALog(test::journal_causes),       \
                             test::NameOfWay());                                                   \
    INSTANTIATE_TEST_SUITE_P(Memory, Test, test::everyWay(test::memory_causes),                    \
                             test::NameOfWay());                                                   \
    INSTANTIATE_TEST_SUITE_P(Interrupt, Test, test::everyWay(std::vector{test::interrupt_cause}),  \
                             test::NameOfWay())

TEST_WORK(RecorderFaultTest);
TEST_WORK(RefusingOutboxFaultTest);
TEST_WORK(MergingOutboxFaultTest);
TEST_WORK(DroppingOutboxFaultTest);

// --- Faults that are over with the operation

// At the nth allocation or instruction, and at those behind it when it lasts.
const Cause passing_causes[] = {
    test::memory_causes[0],
#ifdef TEST_HEAP
    test::memory_causes[1],
#endif
    test::interrupt_cause,
};

class PassingFaultTest : public testing::TestWithParam<std::tuple<Cause, bool, const char*>> {
protected:
    // Tries it at each point of a new device, until there is no further one; unless all are, at every
    // `usual`th.
    template <typename Operation, typename Check>
    void tryAll(Operation operation, Check check, int usual = 1)
    {
        const auto& [cause, lasts, journal] = GetParam();
        int nth = 1;
        const int stride = test::stride(cause.target == Target::instruction ? 17 : usual);
        for (bool hasStruck = true; hasStruck && !HasFailure(); nth += stride) {
            test::Diagnostics diagnostics;
            test::Trouble trouble(cause, nth, lasts);
            Device device(":memory:", works[0]);
            EXPECT_TRUE(device.open(tables));
            operation(device, trouble);
            if (device.shop.inTransaction())
                device.shop.query("rollback");
            check(device);
            hasStruck = trouble.hasStruck();
            diagnostics.clear();
        }
        EXPECT_GT(nth, 1);
        if (HasFailure())
            std::printf("at %d\n", nth - stride);
    }

    static bool isCommitted(Device& device, const string& statement)
    {
        sql::RecordedTransaction transaction(*device.recorder);
        return device.shop.query(statement) && transaction.commit();
    }
    static string rows(Device& device, const string& query)
    {
        return test::rows(device.shop.handle(), query);
    }

    // Once with a trouble, and again as long as it is open.
    static void commitTwice(Device& device, test::Trouble& trouble, const string& statements)
    {
        EXPECT_FALSE(device.start());
        sql::RecordedTransaction transaction(*device.recorder);
        EXPECT_TRUE(device.shop.query(statements));
        trouble.runThrough(device.shop.handle(), [&] {
            const bool isDone = transaction.commit();
            EXPECT_EQ(isDone, !transaction.error());
        });
        if (!transaction.isOpen())
            return;
        EXPECT_TRUE(device.shop.query("insert into product values (2, 'rum', 3)"));
        EXPECT_TRUE(transaction.commit()) << transaction.error().text();
    }

    static void expectAllSent(Device& device)
    {
        EXPECT_FALSE(device.shop.query("insert into product values (900, 'past it', 0)"));
        EXPECT_TRUE(device.shop.query("insert into other values (1)"));
        EXPECT_TRUE(isCommitted(device, "insert into product values (9, 'gin', 4)"));
        Centre centre;
        sql::ChangeSet set;
        while (device.outbox->next(set))
            centre.take(set.header(), set.bytes());
        EXPECT_EQ(centre.rows(), rowsOf(device.shop.handle()));
    }
};

TEST_P(PassingFaultTest, RecorderThatFailsDoesNotRecord)
{
    const auto start = [](Device& device, test::Trouble& trouble) {
        trouble.runThrough(device.shop.handle(), [&device] { device.start(); });
    };
    tryAll(
        start,
        [](Device& device) {
            EXPECT_TRUE((device.recorder && device.recorder->isRecording()) || !device.start());
            EXPECT_TRUE(isCommitted(device, "insert into product values (1, 'tea', 2)"));
            EXPECT_EQ(rows(device, "select number from sqlsync_outbox"), "1");
        },
        7);
}

TEST_P(PassingFaultTest, PlainWriteIsNeverCommitted)
{
    const auto write = [](Device& device, test::Trouble& trouble) {
        EXPECT_FALSE(device.start());
        trouble.runThrough(device.shop.handle(), [&device] {
            device.shop.query("insert into product values (1, 'tea', 2)");
        });
    };
    tryAll(write, [](Device& device) {
        EXPECT_EQ(rows(device, "select * from product"), "");
        EXPECT_TRUE(device.shop.query("insert into other values (1)"));
    });
}

TEST_P(PassingFaultTest, WriteIsCommittedWithItsChangeSetOrNotAtAll)
{
    const auto write = [](Device& device, test::Trouble& trouble) {
        EXPECT_FALSE(device.start());
        sql::RecordedTransaction transaction(*device.recorder);
        trouble.runThrough(device.shop.handle(), [&device] {
            device.shop.query("insert into product values (1, 'tea', 2)");
        });
        EXPECT_TRUE(!transaction.isOpen() || transaction.commit() || !transaction.isOpen());
    };
    tryAll(write, [](Device& device) {
        EXPECT_EQ(rows(device, "select number from sqlsync_outbox"),
                  rows(device, "select id from product"));
        EXPECT_TRUE(device.shop.query("insert into other values (1)"));
    });
}

// A statement that is compiled between two sessions would empty the table in one step.
TEST_P(PassingFaultTest, StatementThatIsCompiledAfterARollbackIsRecorded)
{
    const auto undo = [](Device& device, test::Trouble& trouble) {
        EXPECT_FALSE(device.start());
        EXPECT_TRUE(isCommitted(device, "insert into product values (1, 'tea', 2)"));
        EXPECT_TRUE(device.shop.query("begin; insert into product values (2, 'rum', 3)"));
        trouble.runThrough(device.shop.handle(), [&device] { device.shop.query("rollback"); });
    };
    tryAll(undo, [](Device& device) {
        sql::Statement clear(device.shop.database, "delete from product");
        {
            sql::RecordedTransaction transaction(*device.recorder);
            EXPECT_TRUE(clear.run() && transaction.commit());
        }
        EXPECT_EQ(rows(device, "select number from sqlsync_outbox"), "1\n2");
    });
}

TEST_P(PassingFaultTest, CommitIsDoneTheNextTime)
{
    const auto commit = [](Device& device, test::Trouble& trouble) {
        commitTwice(device, trouble, "insert into product values (1, 'tea', 2)");
    };
    tryAll(commit, expectAllSent, 3);
}

TEST_P(PassingFaultTest, CommitThatFailedIsDoneTheNextTime)
{
    const auto commit = [](Device& device, test::Trouble& trouble) {
        EXPECT_TRUE(device.shop.query("pragma foreign_keys = on"));
        commitTwice(device, trouble,
                    "insert into product values (1, 'tea', 2); insert into pack values (2)");
    };
    tryAll(commit, expectAllSent, 3);
}

// What is told by whom as one allocation of SQLite's after the other fails.
std::set<string> toldInAShortage(bool isMadeBefore)
{
    std::set<string> told;
    bool hasStruck = true;
    for (int nth = 1; hasStruck; ++nth) {
        const test::Diagnostics diagnostics;
        test::Trouble trouble(test::memory_causes[0], nth, false);
        Device device(":memory:", works[0]);
        EXPECT_TRUE(device.open(tables));
        EXPECT_FALSE(isMadeBefore && device.start());
        trouble.runThrough(device.shop.handle(), [&] {
            const sql::Error error = isMadeBefore
                                         ? sql::RecordedTransaction(*device.recorder).error()
                                         : device.start();
            told.insert(error.statement() + ": " + error.text());
        });
        hasStruck = trouble.hasStruck();
    }
    return told;
}

TEST(RecorderShortageTest, ThatOfItsSessionIsToldByTheOperation)
{
    EXPECT_THAT(toldInAShortage(false), Contains("Recorder: out of memory"));
    EXPECT_THAT(toldInAShortage(true), Contains("begin: out of memory"));
}

TEST(RecorderShortageTest, SetsThatAreMergedMeanwhileAreWhole)
{
    std::set<string> told;
    bool hasStruck = true;
    for (int nth = 1; hasStruck; ++nth) {
        const test::Diagnostics diagnostics;
        test::Trouble trouble(test::memory_causes[0], nth, false);
        Device device(":memory:", works[0]);
        EXPECT_TRUE(device.open(tables));
        EXPECT_FALSE(device.start());
        for (int id = 1; id <= 3; ++id)
            EXPECT_FALSE(record(device, {nullptr, {{id, "tea"}}}));
        trouble.runThrough(device.shop.handle(), [&] {
            const sql::Error error = handOut(device, {});
            told.insert(error.statement() + ": " + error.text());
        });
        hasStruck = trouble.hasStruck();
        sql::ChangeSet set;
        while (device.outbox->next(set))
            device.deliver(set);
        Centre centre;
        for (const sql::ChangeSet& delivered : device.delivered)
            centre.take(delivered.header(), delivered.bytes());
        EXPECT_EQ(centre.rows(), rowsOf(device.shop.handle())) << nth;
    }
    EXPECT_THAT(told, Contains("next: out of memory"));
}

INSTANTIATE_TEST_SUITE_P(Causes, PassingFaultTest, test::everyWayWithoutALog(passing_causes),
                         test::NameOfWay());

// --- Power cuts and kills

struct SentSet {
    string header;
    string bytes;
};

// What a device has told until it ended.
struct Progress {
    explicit Progress(const string& told)
    {
        std::uint32_t sizes[2];
        for (std::size_t at = 0; at < told.size(); at += sizeof(sizes) + sizes[0] + sizes[1]) {
            std::memcpy(sizes, told.data() + at, sizeof(sizes));
            if (sizes[0] == 0)
                ++done;
            else
                sets.push_back({told.substr(at + sizeof(sizes), sizes[0]),
                                told.substr(at + sizeof(sizes) + sizes[0], sizes[1])});
        }
    }

    std::size_t done = 0;
    std::vector<SentSet> sets;
};

template <int number> class CutTest : public test::CutTest {
protected:
    void SetUp() override
    {
        states(_work);
    }
    void TearDown() override
    {
        ::close(_way);
    }

    void fill() override
    {
        ::close(_way);
        _way = ::open(_told.file("way").c_str(), O_CREAT | O_TRUNC | O_APPEND | O_RDWR, 0600);
        fillFile(file(), GetParam().setting);
    }

    bool work() override
    {
        Device device(file(), _work, _way);
        std::size_t done = 0;
        return device.open(GetParam().setting) && !device.work(done);
    }

    std::function<void()> startAgain() override
    {
        return [this, progress = Progress(test::readFile(_told.file("way")))] {
            goOn(progress);
        };
    }

private:
    // The step that was interrupted is done or not. All that was handed out and is not acknowledged
    // comes again as it was.
    void goOn(const Progress& progress) const
    {
        std::size_t done = progress.done;
        const std::vector<string>& all = states(_work);
        const string next = done + 1 < all.size() ? all[done + 1] : all[done];
        const string there = contentsOf(file());
        EXPECT_THAT(there, AnyOf(all[done], next)) << done;
        if (there == next && done < _work.steps.size() && commits(_work.steps[done]))
            ++done;
        Device device(file(), _work);
        EXPECT_TRUE(device.open(GetParam().setting));
        if (done > 0) {
            EXPECT_FALSE(device.start());
            expectAgain(device, progress.sets);
        }
        EXPECT_FALSE(device.work(done));
        EXPECT_EQ(contentsOf(file()), all.back());
        expectDelivered(device, progress.sets);
    }

    static void expectAgain(Device& device, const std::vector<SentSet>& sets)
    {
        for (const SentSet& set : sets) {
            const sql::SyncPosition last = sql::readEnvelope(set.header)->last;
            if (test::rows(device.shop.handle(),
                           "select count(*) from sqlsync_outbox where number = "
                               + std::to_string(last.number))
                == "0")
                continue;
            sql::ChangeSet again;
            EXPECT_TRUE(device.outbox->next(again));
            EXPECT_EQ(again.last(), last);
            EXPECT_EQ(again.header(), set.header);
            EXPECT_EQ(again.bytes(), set.bytes);
            device.deliver(again);
        }
    }

    static void expectDelivered(const Device& device, const std::vector<SentSet>& sets)
    {
        Centre centre;
        for (const SentSet& set : sets)
            centre.take(set.header, set.bytes);
        for (const sql::ChangeSet& set : device.delivered)
            centre.take(set.header(), set.bytes());
        centre.expect(rowsInTheEnd(_work), _work.lost);
    }

    static constexpr const Work& _work = works[number];
    const test::TemporaryDirectory _told;
    int _way = -1;
};

typedef CutTest<0> RecorderCutTest;
typedef CutTest<1> RefusingOutboxCutTest;
typedef CutTest<2> MergingOutboxCutTest;
typedef CutTest<3> DroppingOutboxCutTest;

#define TEST_CUTS(Test)                                                                            \
    TEST_P(Test, PowerCutAtEveryWriteLosesNothingThatWasCommitted)                                 \
    {                                                                                              \
        figures.losses += tryPowerCuts(7);                                                         \
    }                                                                                              \
    TEST_P(Test, KillAtEachCallIntoTheFileSystemLosesNothingThatWasCommitted)                      \
    {                                                                                              \
        figures.kills += tryKills(17);                                                             \
    }                                                                                              \
    INSTANTIATE_TEST_SUITE_P(Journals, Test, testing::ValuesIn(test::journals), test::NameOfCase())

TEST_CUTS(RecorderCutTest);
TEST_CUTS(RefusingOutboxCutTest);
TEST_CUTS(MergingOutboxCutTest);
TEST_CUTS(DroppingOutboxCutTest);

} // namespace
