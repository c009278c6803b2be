#include "Diagnostics.h"
#include "Environment.h"
#include "Shop.h"
#include "SqlStatement.h"
#include "SqlTransaction.h"
#include "Sqlite.h"
#include "Trouble.h"

#include <gmock/gmock.h>

#include <cstdio>
#include <map>
#include <sstream>
#include <string>
#include <vector>

namespace {

using sql::Savepoint;
using sql::Transaction;
using test::Shop;
using test::Trouble;
using testing::IsEmpty;

typedef std::map<sql::integer, std::string> Rows; // the names by key

std::string nameOf(sql::integer id)
{
    return "product " + std::to_string(id) + " " + std::string(id % 3 == 0 ? 900 : 20, 'x');
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

class TransactionFaultTest : public test::TroubleTest {
protected:
    bool workWithTrouble(int nth) override
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
        expectReasons(diagnostics.errors());
        EXPECT_TRUE(committed || !returned || !diagnostics.errors().empty());
        EXPECT_TRUE(struck || (committed && diagnostics.errors().empty()));
        EXPECT_THAT(diagnostics.assertions(), IsEmpty());
    }
};

TEST_P(TransactionFaultTest, NothingOfALostOneStaysAndNothingAfterItIsCommitted)
{
    tryAllPoints();
}

void violate(sqlite3* db)
{
    sqlite3_exec(db, "insert or rollback into product (id, name) values (1, '')", nullptr, nullptr,
                 nullptr);
}

INSTANTIATE_TEST_SUITE_P(File, TransactionFaultTest, test::everyWay(test::file_causes),
                         test::NameOfWay());
INSTANTIATE_TEST_SUITE_P(Journal, TransactionFaultTest,
                         test::everyWayWithoutALog(test::journal_causes), test::NameOfWay());
INSTANTIATE_TEST_SUITE_P(Memory, TransactionFaultTest, test::everyWay(test::memory_causes),
                         test::NameOfWay());
INSTANTIATE_TEST_SUITE_P(Interrupt, TransactionFaultTest,
                         test::everyWay(std::vector{test::interrupt_cause}), test::NameOfWay());
INSTANTIATE_TEST_SUITE_P(Statement, TransactionFaultTest,
                         test::everyWay(test::statementCauses(violate)), test::NameOfWay());

} // namespace
