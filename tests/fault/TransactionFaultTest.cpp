#include "Cases.h"
#include "Diagnostics.h"
#include "Environment.h"
#include "FaultVfs.h"
#include "Shop.h"
#include "SqlStatement.h"
#include "SqlTransaction.h"
#include "Sqlite.h"
#include "SqliteMemory.h"
#ifdef TEST_HEAP
#include "Heap.h"
#endif

#include <gmock/gmock.h>

#include <cstdio>
#include <functional>
#include <map>
#include <memory>
#include <new>
#include <set>
#include <sstream>
#include <string>
#include <tuple>
#include <vector>

namespace {

using sql::Savepoint;
using sql::Transaction;
using test::FileCall;
using test::Shop;
using testing::IsEmpty;

const int most_points = 100000; // far more than any work here has

typedef std::map<sql::integer, std::string> Rows; // the names by key

std::string nameOf(sql::integer id)
{
    return "product " + std::to_string(id) + " " + std::string(id % 3 == 0 ? 900 : 20, 'x');
}

// --- What goes wrong

// What it strikes: calls into the file system, allocations, instructions of SQLite's machine, or
// statements, before which something is done to the connection.
enum class Target { file, sqlite_memory, heap, instruction, statement };

struct Cause : test::Case {
    Target target;
    std::set<int> codes; // for which operations may fail
    FileCall call = FileCall::open;
    int rc = SQLITE_OK; // of that call
    void (*strike)(sqlite3* db) = nullptr;
    bool standsAtARow = false; // with a statement, all the time: for as long an interrupt lasts
};

// Lets a cause strike at its nth target, and at those behind it when it lasts.
class Trouble {
public:
    Trouble(const Cause& cause, int nth, bool lasts) : _cause(cause), _left(nth), _lasts(lasts)
    {
        _vfs.before = [this](const test::FileAccess& access) {
            const bool isMeant = _cause.target == Target::file && access.call == _cause.call;
            return isMeant && strikes() ? _cause.rc : SQLITE_OK;
        };
        if (cause.target == Target::sqlite_memory)
            _memory.refuse(nth, lasts);
    }

    // Counts while `work` runs. False when that was left by an exception.
    bool runThrough(sqlite3* db, const std::function<void()>& work)
    {
#ifdef TEST_HEAP
        const int never = most_points;
        test::MemoryShortage heap(_cause.target == Target::heap ? _left : never, _lasts);
#endif
        if (_cause.target == Target::instruction)
            sqlite3_progress_handler(db, 1, interrupt, this);
        _db = db;
        watch(true);
        bool returned = true;
        try {
            work();
        } catch (const std::bad_alloc&) {
            returned = false;
        }
        watch(false);
        sqlite3_progress_handler(db, 0, nullptr, nullptr);
#ifdef TEST_HEAP
        if (_cause.target == Target::heap)
            _left -= heap.allocations();
#endif
        return returned;
    }

    // Before each statement.
    void step(sqlite3* db)
    {
        if (_cause.target != Target::statement || !strikes())
            return;
        watch(false);
        _cause.strike(db);
        watch(true);
    }

    bool hasStruck() const
    {
        return _cause.target == Target::sqlite_memory ? _memory.hasRefused() : _left <= 0;
    }

    long blocksInUse() const
    {
        return _memory.blocksInUse();
    }

private:
    void watch(bool on)
    {
        _watches = on;
        _memory.watch(on && _cause.target == Target::sqlite_memory);
    }

    bool strikes()
    {
        if (!_watches)
            return false;
        --_left;
        return _left == 0 || (_left < 0 && _lasts);
    }

    // As another thread does, at any time.
    static int interrupt(void* trouble)
    {
        Trouble& self = *static_cast<Trouble*>(trouble);
        if (self.strikes())
            sqlite3_interrupt(self._db);
        return 0;
    }

    const Cause& _cause;
    int _left;
    const bool _lasts;
    bool _watches = false;
    sqlite3* _db = nullptr;
    test::SqliteMemory _memory;
    test::FaultVfs _vfs;
};

// Of operator new, where the test can tell.
long heapBlocksInUse()
{
#ifdef TEST_HEAP
    return test::heapBlocksInUse();
#else
    return 0;
#endif
}

// --- What is done

const char two_updates[] = "update product set name = 'scripted' where id = 4;"
                           "update product set name = 'scripted' where id = 5";
const char insert[] = "insert into product (id, name) values (?, ?)";

// A program that goes on whatever fails, and keeps account of what was acknowledged.
class Work {
public:
    Work(Shop& shop, Trouble& trouble, const Rows& rows)
        : _shop(shop), _trouble(trouble), _rows(rows), _insert(shop.database, insert)
    {
    }

    // Rows by both libraries, in a transaction with one savepoint that is kept and one that is not.
    void run(bool standsAtARow)
    {
        sql::Statement reader(_shop.database, "select * from product");
        if (standsAtARow && !reader.next())
            return;
        step();
        Transaction transaction(_shop.database, sql::begin_immediate);
        if (!transaction.isOpen())
            return;
        addByTable(10);
        addByStatement(11);
        keepSavepoint();
        update(1);
        readAll();
        undoSavepoint();
        remove(2);
        addByTable(12);
        addByStatement(15);
        step();
        // What is still open may be tried again.
        committed = transaction.commit() || transaction.commit();
    }

    // Once nothing goes wrong any more.
    void runAgain()
    {
        addByTable(20);
        addByStatement(21);
        const auto done = sql::inTransaction(_shop.database, [this] {
            addByTable(22);
            return true;
        });
        EXPECT_TRUE(done);
    }

    const Rows& rows() const
    {
        return _rows;
    }

    bool committed = false;

private:
    void step()
    {
        _trouble.step(_shop.handle());
    }

    void addByTable(sql::integer id)
    {
        step();
        sql::Record record(test::goods());
        record.setInteger("id", id);
        record.setString("name", nameOf(id));
        if (_shop.product.addRecord(record))
            _rows[id] = nameOf(id);
    }

    void addByStatement(sql::integer id)
    {
        step();
        if (_insert.run(id, nameOf(id)))
            _rows[id] = nameOf(id);
    }

    void update(sql::integer id)
    {
        step();
        sql::Statement update(_shop.database, "update product set name = :name where id = :id");
        if (update.bind(":name", "updated").bind(":id", id).run() && update.changes() == 1)
            _rows[id] = "updated";
        EXPECT_EQ(update.expandedText().find(':'), std::string::npos);
    }

    void remove(sql::integer id)
    {
        step();
        if (_shop.product.deleteRecord(id))
            _rows.erase(id);
    }

    void readAll()
    {
        step();
        sql::Statement all(_shop.database, "select id, name from product order by name, id");
        Rows read;
        sql::integer id = 0;
        for (std::string name; all.next(id, name);)
            read[id] = name;
        EXPECT_TRUE(!all.finished() || read == _rows
                    || sqlite3_get_autocommit(_shop.handle()) != 0);
        const auto count =
            all.finished()
                ? sql::Statement(_shop.database, "select count(*) from product").one<std::size_t>()
                : sql::Result<std::size_t>();
        EXPECT_TRUE(!count || *count == read.size());
    }

    void keepSavepoint()
    {
        step();
        Savepoint savepoint(_shop.database);
        const Rows before = _rows;
        if (!savepoint.isOpen())
            return;
        addByTable(13);
        addByStatement(14);
        step();
        const auto done = sql::runScript(_shop.database, two_updates);
        for (const sql::integer id : {4, 5})
            _rows[id] = "scripted";
        step();
        if (!done || !savepoint.commit())
            _rows = before;
    }

    void undoSavepoint()
    {
        step();
        const Rows before = _rows;
        {
            Savepoint savepoint(_shop.database);
            if (!savepoint.isOpen())
                return;
            addByStatement(16);
            addByTable(18);
            update(3);
            step();
        }
        _rows = before;
    }

    Shop& _shop;
    Trouble& _trouble;
    Rows _rows;
    sql::Statement _insert;
};

// --- What comes of it

struct Figures : testing::Environment {
    void TearDown() override
    {
        std::printf("faults in a transaction: %d, %d of them committed nevertheless\n", points,
                    committed);
    }

    int points = 0;
    int committed = 0;
};

Figures& figures = *new Figures;
testing::Environment* const printFigures = testing::AddGlobalTestEnvironment(&figures);

class TransactionFaultTest : public testing::TestWithParam<std::tuple<Cause, bool, const char*>> {
protected:
    // True when the cause has struck.
    bool workWithTrouble(int nth)
    {
        const auto& [cause, lasts, journal] = GetParam();
        test::Diagnostics diagnostics;
        diagnostics.setLevel(9);
        const test::TemporaryDirectory directory;
        const std::string file = directory.file("shop.db");
        Trouble trouble(cause, nth, lasts);
        const Rows before = fill(file, journal);
        {
            Shop shop(file);
            EXPECT_TRUE(shop.open() && shop.query("pragma cache_size = 1")); // written early
            Work work(shop, trouble, before);
            const bool returned = trouble.runThrough(
                shop.handle(), [&, &cause = cause] { work.run(cause.standsAtARow); });
            expectReports(diagnostics, returned, trouble.hasStruck(), work.committed);
            shop.query("pragma max_page_count = 100000");
            diagnostics.clear();

            const Rows then = work.committed ? work.rows() : before;
            EXPECT_EQ(rowsIn(file), then);
            Work again(shop, trouble, then);
            again.runAgain();
            EXPECT_EQ(rowsIn(file), again.rows());
            EXPECT_EQ(again.rows().size(), then.size() + 3);
            EXPECT_THAT(diagnostics.errors(), IsEmpty());
            figures.committed += work.committed && trouble.hasStruck();
        }
        EXPECT_THAT(diagnostics.assertions(), IsEmpty()); // no statement is left
        EXPECT_EQ(trouble.blocksInUse(), 0);
        ++figures.points;
        return trouble.hasStruck();
    }

private:
    static Rows fill(const std::string& file, const std::string& journal)
    {
        test::Connection db(file);
        db.run(
            "pragma page_size = 512; pragma journal_mode = " + journal
            + "; create table product (id integer primary key, name text not null, price, sold, code)");
        Rows rows;
        for (sql::integer id = 1; id <= 9; ++id) {
            rows[id] = nameOf(id);
            db.run("insert into product (id, name) values (" + std::to_string(id) + ", '"
                   + nameOf(id) + "')");
        }
        return rows;
    }

    // As another connection sees it, which may write at once.
    static Rows rowsIn(const std::string& file)
    {
        test::Connection db(file);
        Rows rows;
        std::istringstream lines(db.rows("select * from product"));
        sql::integer id = 0;
        for (std::string name; lines >> id && lines.ignore() && std::getline(lines, name);)
            rows[id] = name.substr(0, name.find('|'));
        EXPECT_EQ(db.rows("pragma integrity_check"), "ok");
        db.run("begin immediate; pragma user_version = 7; commit");
        return rows;
    }

    // A failure is reported with its reason, or passed on; without one there is silence.
    static void expectReports(test::Diagnostics& diagnostics, bool returned, bool struck,
                              bool committed)
    {
        std::set<int> codes = std::get<0>(GetParam()).codes;
        codes.insert({SQLITE_ABORT, SQLITE_CONSTRAINT}); // after a loss
        for (const std::string& error : diagnostics.errors()) {
            if (error.compare(0, 5, "  rc=") != 0)
                continue;
            EXPECT_EQ(codes.count(std::stoi(error.substr(5)) & 0xff), 1U) << error;
        }
        EXPECT_TRUE(committed || !returned || !diagnostics.errors().empty());
        EXPECT_TRUE(struck || (committed && diagnostics.errors().empty()));
        EXPECT_THAT(diagnostics.assertions(), IsEmpty());
    }
};

TEST_P(TransactionFaultTest, NothingOfALostOneStaysAndNothingAfterItIsCommitted)
{
    const Target target = std::get<0>(GetParam()).target;
    const std::map<Target, int> usual = {
        {Target::instruction, 13}, {Target::sqlite_memory, 7}, {Target::statement, 1}};
    const int stride = test::stride(usual.count(target) != 0 ? usual.at(target) : 3);
    int nth = 1;
    for (long blocks = 0; nth < most_points && workWithTrouble(nth) && !HasFailure();) {
        EXPECT_TRUE(nth == 1 || heapBlocksInUse() == blocks) << heapBlocksInUse() - blocks;
        blocks = heapBlocksInUse();
        nth += stride;
    }
    EXPECT_GT(nth, 1);
    EXPECT_LT(nth, most_points);
    if (HasFailure())
        std::printf("at %d\n", nth);
}

void violate(sqlite3* db)
{
    sqlite3_exec(db, "insert or rollback into product (id, name) values (1, '')", nullptr, nullptr,
                 nullptr);
}

void fillUp(sqlite3* db)
{
    sqlite3_exec(db, "pragma max_page_count = 1", nullptr, nullptr,
                 nullptr); // no more than there are
}

const std::set<int> io_codes = {SQLITE_IOERR, SQLITE_CANTOPEN, SQLITE_BUSY, SQLITE_FULL,
                                SQLITE_CORRUPT};

const Cause file_causes[] = {
    {"ReadError", Target::file, io_codes, FileCall::read, SQLITE_IOERR_READ},
    {"WriteError", Target::file, io_codes, FileCall::write, SQLITE_IOERR_WRITE},
    {"DiskFull", Target::file, io_codes, FileCall::write, SQLITE_FULL},
    {"SyncError", Target::file, io_codes, FileCall::sync, SQLITE_IOERR_FSYNC},
    {"LockError", Target::file, io_codes, FileCall::lock, SQLITE_IOERR_LOCK},
};

const Cause journal_causes[] = {
    {"LockedFile", Target::file, io_codes, FileCall::lock, SQLITE_BUSY},
    {"OpenError", Target::file, io_codes, FileCall::open, SQLITE_CANTOPEN},
    {"AccessError", Target::file, io_codes, FileCall::access, SQLITE_IOERR_ACCESS},
    {"RemoveError", Target::file, io_codes, FileCall::remove, SQLITE_IOERR_DELETE},
    {"SizeError", Target::file, io_codes, FileCall::size, SQLITE_IOERR_FSTAT},
};

const Cause other_causes[] = {
    {"NoMemory", Target::sqlite_memory, {SQLITE_NOMEM, SQLITE_IOERR}},
#ifdef TEST_HEAP
    {"NoHeap", Target::heap, {}},
#endif
    {"Interrupt", Target::instruction, {SQLITE_INTERRUPT}},
    {"Stop",
     Target::statement,
     {SQLITE_INTERRUPT},
     FileCall::open,
     SQLITE_OK,
     sqlite3_interrupt,
     true},
    {"Conflict", Target::statement, {}, FileCall::open, SQLITE_OK, violate},
    {"FullFile", Target::statement, {SQLITE_FULL}, FileCall::open, SQLITE_OK, fillUp},
};

std::string nameOfCase(const testing::TestParamInfo<TransactionFaultTest::ParamType>& chosen)
{
    const auto& [cause, lasts, journal] = chosen.param;
    return cause.name + (lasts ? "Lasting" : "Once") + (journal == std::string("wal") ? "Wal" : "");
}

INSTANTIATE_TEST_SUITE_P(File, TransactionFaultTest,
                         testing::Combine(testing::ValuesIn(file_causes), testing::Bool(),
                                          testing::Values("delete", "wal")),
                         nameOfCase);
INSTANTIATE_TEST_SUITE_P(Journal, TransactionFaultTest,
                         testing::Combine(testing::ValuesIn(journal_causes), testing::Bool(),
                                          testing::Values("delete")),
                         nameOfCase);
INSTANTIATE_TEST_SUITE_P(Other, TransactionFaultTest,
                         testing::Combine(testing::ValuesIn(other_causes), testing::Bool(),
                                          testing::Values("delete", "wal")),
                         nameOfCase);

} // namespace
