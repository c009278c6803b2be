#include "Columns.h"
#include "Diagnostics.h"
#include "Environment.h"
#include "FaultVfs.h"
#include "Rows.h"
#include "SqlCommon.h"
#include "SqlDatabase.h"
#include "SqlRecord.h"
#include "SqlRecordSet.h"
#include "SqlTable.h"
#include "Sqlite.h"

#include <gmock/gmock.h>

#include <algorithm>
#include <cstdio>
#include <functional>
#include <map>
#include <memory>
#include <ostream>
#include <set>
#include <sstream>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

namespace {

using sql::Database;
using sql::Record;
using sql::Table;
using test::FileAccess;
using test::FileCall;
using testing::AnyOf;
using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::MatchesRegex;
using testing::Not;

typedef std::vector<std::string> Texts;

const int most_calls = 100000; // far more than any work here makes

// A small cache makes SQLite write within a transaction, and read again what it has read before.
const char large_cache[] = "pragma cache_size = 2000";
const char small_cache[] = "pragma cache_size = 1";

// A journal is otherwise removed at the end of a transaction.
const char cut_journal[] = "pragma journal_mode = truncate";

// --- What fails

struct Fault {
    const char* what;
    FileCall call;
    int rc;
};

void PrintTo(const Fault& fault, std::ostream* out)
{
    *out << fault.what;
}

// Lets the nth call of a kind fail, and those behind it when it lasts.
class Failing {
public:
    Failing(test::FaultVfs& vfs, const Fault& fault, int nth, bool lasts)
        : _vfs(vfs), _fault(fault), _left(nth), _lasts(lasts)
    {
        _vfs.before = [this](const FileAccess& access) {
            return answer(access);
        };
    }
    ~Failing()
    {
        _vfs.before = nullptr;
    }
    Failing(const Failing&) = delete;
    Failing& operator=(const Failing&) = delete;

    bool hasStruck() const
    {
        return _left <= 0;
    }

private:
    int answer(const FileAccess& access)
    {
        if (access.call != _fault.call)
            return SQLITE_OK;
        --_left;
        return _left == 0 || (_left < 0 && _lasts) ? _fault.rc : SQLITE_OK;
    }

    test::FaultVfs& _vfs;
    const Fault _fault;
    int _left;
    const bool _lasts;
};

struct Figures {
    int points = 0;
    int operations = 0;
    int failures = 0;
};

Figures figures;

class PrintFigures : public testing::Environment {
public:
    void TearDown() override
    {
        std::printf("io faults: %d points, %d operations, %d of them failed\n", figures.points,
                    figures.operations, figures.failures);
    }
};

testing::Environment* const printFigures = testing::AddGlobalTestEnvironment(new PrintFigures);

// --- What a file holds

typedef std::map<int, int> Rows; // the version of each, by key

struct Contents {
    std::map<std::string, Rows> tables;
    int userVersion = 0;

    bool operator<(const Contents& other) const
    {
        return std::tie(tables, userVersion) < std::tie(other.tables, other.userVersion);
    }
    bool operator==(const Contents& other) const
    {
        return tables == other.tables && userVersion == other.userVersion;
    }
};

void PrintTo(const Contents& contents, std::ostream* out)
{
    *out << "user version " << contents.userVersion;
    for (const auto& [name, rows] : contents.tables) {
        *out << ", " << name << ":";
        for (const auto& [id, version] : rows)
            *out << " " << id << "/" << version;
    }
}

// Two rows fill a page, so that there are many pages.
std::string nameOf(int version)
{
    return "version " + std::to_string(version) + std::string(1300, 'x');
}

std::string rowOf(int id, int version)
{
    return std::to_string(id) + "|" + nameOf(version) + "|2.5";
}

// Past the library and without faults; the integrity is looked at as well.
Contents contentsOf(const std::string& file)
{
    Contents contents;
    test::Connection db(file);
    db.run("pragma synchronous = off"); // the power stays
    EXPECT_EQ(db.rows("pragma integrity_check"), "ok");
    contents.userVersion = std::stoi(db.rows("pragma user_version"));
    std::istringstream names(db.rows("select name from sqlite_master where type = 'table'"));
    for (std::string name; std::getline(names, name);) {
        Rows& rows = contents.tables[name];
        std::istringstream lines(db.rows("select * from " + name));
        for (std::string line; std::getline(lines, line);) {
            const int id = std::stoi(line);
            rows[id] = std::stoi(line.substr(line.find("version") + 8));
            EXPECT_EQ(line, rowOf(id, rows[id]));
        }
    }
    return contents;
}

// All that a file may hold after what was done to it and what came of that.
class Ledger {
public:
    // Changes what is there; false when what has happened cannot happen to it.
    typedef std::function<bool(Contents&)> Effect;

    void happened(const Effect& effect)
    {
        std::set<Contents> then;
        for (Contents contents : _possible) {
            if (effect(contents))
                then.insert(contents);
        }
        EXPECT_THAT(then, Not(IsEmpty()));
        if (!then.empty())
            _possible = then;
    }

    // It may have happened, or not.
    void mayHaveHappened(const Effect& effect)
    {
        const std::set<Contents> before = _possible;
        for (Contents contents : before) {
            if (effect(contents))
                _possible.insert(contents);
        }
    }

    // A backup of "product" in "spare" was left at any of its steps.
    void leftABackup()
    {
        const std::set<Contents> before = _possible;
        for (Contents contents : before) {
            addCopiesTo(contents);
            contents.tables.erase("spare");
            _possible.insert(contents);
            addCopiesTo(contents);
        }
    }

    const std::set<Contents>& possible() const
    {
        return _possible;
    }

private:
    void addCopiesTo(Contents contents)
    {
        const Rows source = contents.tables.count("product") > 0 ? contents.tables["product"]
                                                                 : Rows();
        Rows& copied = contents.tables["spare"];
        _possible.insert(contents);
        for (const auto& row : source) {
            if (!copied.insert(row).second)
                break;
            _possible.insert(contents);
        }
    }

    std::set<Contents> _possible = {Contents()};
};

// --- What goes on meanwhile

// The effect on a table, which has to exist.
Ledger::Effect on(const std::string& table, const std::function<bool(Rows&)>& effect)
{
    return [=](Contents& contents) {
        const auto found = contents.tables.find(table);
        return found != contents.tables.end() && effect(found->second);
    };
}

// An operation that runs one statement.
struct Write {
    std::string statement;
    std::function<bool()> run;
    Ledger::Effect effect;
};

std::string insertOf(int id, int version)
{
    return "insert into product (id, name, price) values (" + std::to_string(id) + ", '"
           + nameOf(version) + "', 2.50000000)";
}

std::string updateOf(int id, int version)
{
    return "update product set name='" + nameOf(version)
           + "', price=2.50000000 where id = " + std::to_string(id);
}

Record recordOf(const Table& table, int id, int version)
{
    Record record(*table.fields());
    record.setInteger("id", id);
    record.setString("name", nameOf(version));
    record.setDouble("price", 2.5);
    return record;
}

// A program's connection to a database file. Each operation has to leave a report exactly when it
// fails, and the program acts as a program should: it rolls back what is still to be rolled back.
class Shop {
public:
    // A write that fails may have happened when `failsLate`.
    Shop(std::string file, bool failsLate, test::Diagnostics& diagnostics)
        : _file(std::move(file)), _failsLate(failsLate), _diagnostics(diagnostics)
    {
    }

    const Ledger& ledger() const
    {
        return _ledger;
    }

    bool open()
    {
        _diagnostics.clear();
        const bool done = _db.open(_file, Database::access_create, false, 0);
        Texts report;
        if (!done)
            report = {reason("Failed to open the database " + _file + ": rc=", ": ")};
        EXPECT_EQ(_diagnostics.errors(), report);
        EXPECT_EQ(_db.isOpen(), done);
        count(done);
        _product = std::make_unique<Table>(_db.getHandle(), "product", test::product_columns);
        _spare = std::make_unique<Table>(_db.getHandle(), "spare", test::product_columns);
        return done;
    }

    void close()
    {
        _diagnostics.clear();
        _product.reset();
        _spare.reset();
        _db.close();
        EXPECT_THAT(_diagnostics.events(), IsEmpty());
    }

    void use(const std::string& setting)
    {
        perform(setting, [&] { return sql::RecordSet(_db.getHandle()).query(setting); });
    }

    // A table that cannot be looked for counts as there.
    void create()
    {
        _diagnostics.clear();
        const bool done = _product->create();
        const bool asked = _diagnostics.errors().size() < 3;
        count(done && asked);
        if (!asked)
            expectNumberReport(existence("product"),
                               {"Failed to determine if table 'product' exists"});
        else
            EXPECT_EQ(_diagnostics.errors(), done ? Texts() : statementReport(creation));
        EXPECT_TRUE(done || asked);
        if (asked)
            settle(done, [](Contents& contents) {
                contents.tables["product"]; // there now, if it was not before
                return true;
            });
    }

    Write add(int id, int version)
    {
        return {insertOf(id, version), [=] { return _product->addRecord(record(id, version)); },
                on("product", [=](Rows& rows) { return rows.emplace(id, version).second; })};
    }

    Write update(int id, int version)
    {
        return {updateOf(id, version), [=] { return _product->updateRecord(record(id, version)); },
                on("product", [=](Rows& rows) {
                    if (rows.count(id) > 0)
                        rows[id] = version;
                    return true;
                })};
    }

    Write remove(int id)
    {
        return {"delete from product where id = " + std::to_string(id),
                [=] { return _product->deleteRecord(sql::integer(id)); },
                on("product", [=](Rows& rows) {
                    rows.erase(id);
                    return true;
                })};
    }

    Write removeAbove(int id)
    {
        const std::string condition = "id > " + std::to_string(id);
        return {"delete from product where " + condition,
                [=] { return _product->deleteRecords(condition); }, on("product", [=](Rows& rows) {
                    rows.erase(rows.upper_bound(id), rows.end());
                    return true;
                })};
    }

    Write emptyBackup()
    {
        return {"delete from spare", [=] { return _spare->truncate(); },
                on("spare", [](Rows& rows) {
                    rows.clear();
                    return true;
                })};
    }

    Write dropBackup()
    {
        return {"drop table spare", [=] { return _spare->remove(); },
                [](Contents& contents) {
                    return contents.tables.erase("spare") > 0;
                }};
    }

    void apply(const Write& write)
    {
        settle(perform(write.statement, write.run), write.effect);
    }

    // All of them or, when one or the commit fails, nothing.
    void applyTogether(const std::vector<Write>& writes)
    {
        if (!begin())
            return;
        for (const Write& write : writes) {
            if (!perform(write.statement, write.run)) {
                rollBack();
                return;
            }
        }
        settle(commit(), [&](Contents& contents) {
            bool possible = true;
            for (const Write& write : writes)
                possible = possible && write.effect(contents);
            return possible;
        });
    }

    void takeBack(const Write& write)
    {
        if (!begin())
            return;
        perform(write.statement, write.run);
        rollBack();
    }

    // The question for the row may fail; the row then counts as absent.
    void addOrUpdate(int id, int version)
    {
        _diagnostics.clear();
        const bool done = _product->addOrUpdateRecord(sql::integer(id), record(id, version));
        Texts errors = _diagnostics.errors();
        count(errors.empty());
        expectReports();
        settle(done, on("product", [=](Rows& rows) {
                   rows[id] = version;
                   return true;
               }));
        if (done) {
            EXPECT_THAT(errors.size(), AnyOf(0U, 2U));
            return;
        }
        ASSERT_THAT(errors.size(), AnyOf(2U, 4U));
        errors.erase(errors.begin(), errors.end() - 2);
        EXPECT_THAT(errors, AnyOf(statementReport(insertOf(id, version)),
                                  statementReport(updateOf(id, version))));
    }

    bool backup()
    {
        _diagnostics.clear();
        const bool done = _spare->backup(*_product);
        count(_diagnostics.errors().empty());
        expectReports();
        EXPECT_TRUE(done || !_diagnostics.errors().empty());
        return done;
    }

    void backupSingly()
    {
        if (backup())
            _ledger.happened(backedUp);
        else
            _ledger.leftABackup();
    }

    // A transaction that SQLite has ended holds nothing together any more, and what was done before
    // is taken back. The backup does not notice: two counts that fail are equal.
    void backupTogether()
    {
        if (!begin())
            return;
        const bool done = backup();
        if (!isInTransaction())
            _ledger.leftABackup();
        else if (!done)
            rollBack();
        else
            settle(commit(), backedUp);
    }

    void setUserVersion(int version)
    {
        _diagnostics.clear();
        const bool done = _db.setUserVersion(static_cast<unsigned int>(version));
        count(done);
        settle(done, [=](Contents& contents) {
            contents.userVersion = version;
            return true;
        });
        const std::string statement = "PRAGMA user_version=" + std::to_string(version) + ";";
        const Texts prepare = {"Failed to prepare the SQL statement '" + statement + "': ",
                               reason(" rc=", ": ")};
        const Texts step = {"Running the SQL stmt '" + statement + "' failed",
                            reason("  SQLite returned ", " instead of SQLITE_DONE: ")};
        if (done)
            EXPECT_THAT(_diagnostics.errors(), IsEmpty());
        else
            EXPECT_THAT(_diagnostics.errors(), AnyOf(prepare, step));
    }

    // What reading yields is what is there. Of a read that fails, the rows before.
    void readAll()
    {
        const bool done = perform("select * from product", [this] { return _product->open(); });
        const Texts held = test::held(*_product);
        if (done || !held.empty())
            _ledger.happened(on("product", [&](const Rows& rows) {
                Texts there = textsOf(rows);
                if (!done)
                    there.resize(std::min(there.size(), held.size()));
                return held == there;
            }));
    }

    void readByKey(int id)
    {
        Record* found = nullptr;
        const bool done = perform("select * from product where id = " + std::to_string(id), [&] {
            found = _product->getRecordByKeyId(sql::integer(id));
            return found != nullptr || _diagnostics.errors().empty();
        });
        const std::string text = found != nullptr ? found->toString() : "";
        if (done)
            _ledger.happened(on("product", [&](const Rows& rows) {
                const auto row = rows.find(id);
                return text == (row != rows.end() ? rowOf(id, row->second) : "");
            }));
    }

    void look(int id)
    {
        _diagnostics.clear();
        const bool has = _product->hasRecordWithKeyId(sql::integer(id));
        const bool done = _diagnostics.errors().empty();
        count(done);
        EXPECT_FALSE(has && !done);
        if (!done)
            return expectNumberReport("select count(*) from product where id = "
                                      + std::to_string(id));
        _ledger.happened(
            on("product", [&](const Rows& rows) { return has == (rows.count(id) > 0); }));
    }

    void countRows()
    {
        _diagnostics.clear();
        const int total = _product->totalRecordCount();
        count(total >= 0);
        if (total < 0)
            return expectNumberReport("select count(*) from product");
        EXPECT_THAT(_diagnostics.errors(), IsEmpty());
        _ledger.happened(on("product", [&](const Rows& rows) {
            return static_cast<std::size_t>(total) == rows.size();
        }));
    }

    // A table that cannot be looked for counts as there.
    void lookForTable()
    {
        _diagnostics.clear();
        const bool exists = _product->exists();
        const bool done = _diagnostics.errors().empty();
        count(done);
        if (done)
            return _ledger.happened([&](const Contents& contents) {
                return exists == (contents.tables.count("product") > 0);
            });
        EXPECT_TRUE(exists);
        expectNumberReport(existence("product"), {"Failed to determine if table 'product' exists"});
    }

private:
    void settle(bool done, const Ledger::Effect& effect)
    {
        if (done)
            _ledger.happened(effect);
        else if (_failsLate)
            _ledger.mayHaveHappened(effect);
    }

    static bool backedUp(Contents& contents)
    {
        contents.tables["spare"] = contents.tables.at("product");
        return true;
    }

    static Texts textsOf(const Rows& rows)
    {
        Texts texts;
        for (const auto& row : rows)
            texts.push_back(rowOf(row.first, row.second));
        return texts;
    }

    static std::string existence(const std::string& table)
    {
        return "select count(*) from sqlite_master where type = 'table' and name = '" + table + "'";
    }

    Record record(int id, int version) const
    {
        return recordOf(*_product, id, version);
    }

    // --- Transactions

    bool begin()
    {
        return perform("BEGIN TRANSACTION", [this] { return _db.transactionBegin(); });
    }

    bool isInTransaction()
    {
        return sqlite3_get_autocommit(_db.getHandle()) == 0;
    }

    // Unless SQLite has rolled back by itself.
    void rollBack()
    {
        if (isInTransaction())
            perform("ROLLBACK TRANSACTION", [this] { return _db.transactionRollback(); });
        EXPECT_FALSE(isInTransaction());
    }

    bool commit()
    {
        if (perform("COMMIT TRANSACTION", [this] { return _db.transactionCommit(); }))
            return true;
        rollBack();
        return false;
    }

    // --- Reports

    void count(bool done) const
    {
        EXPECT_THAT(_diagnostics.assertions(), IsEmpty());
        ++figures.operations;
        if (!done)
            ++figures.failures;
    }

    bool perform(const std::string& statement, const std::function<bool()>& operation)
    {
        _diagnostics.clear();
        const bool done = operation();
        EXPECT_EQ(_diagnostics.errors(), done ? Texts() : statementReport(statement));
        count(done);
        return done;
    }

    // A report's last line: why SQLite has refused the latest statement.
    std::string reason(const std::string& start, const std::string& between)
    {
        const int rc = sqlite3_errcode(_db.getHandle());
        return start + std::to_string(rc) + "=" + sql::sqliteRc2Str(rc) + between
               + sqlite3_errmsg(_db.getHandle());
    }

    Texts statementReport(const std::string& statement)
    {
        return {"Failed to run the SQL stmt '" + statement + "'", reason("  rc=", ": ")};
    }

    // A query for a number fails at its beginning or later on.
    void expectNumberReport(const std::string& query, const Texts& more = Texts())
    {
        Texts prepare = {"Failed to prepare the SQL query '" + query + "': ",
                         reason("  rc=", ": ")};
        Texts step = {"The SQL query '" + query + "' failed",
                      reason("   the query returned ", " instead of SQLITE_ROW: ")};
        prepare.insert(prepare.end(), more.begin(), more.end());
        step.insert(step.end(), more.begin(), more.end());
        EXPECT_THAT(_diagnostics.errors(), AnyOf(prepare, step));
    }

    // Whole reports, of any of the statements that an operation runs. (\w, since not every alphabet has
    // all letters between A and Z.)
    void expectReports() const
    {
        std::string lines;
        for (const std::string& line : _diagnostics.errors())
            lines += line + "\n";
        EXPECT_THAT(lines, MatchesRegex("(Failed to run the SQL stmt '[^\n]*'\n"
                                        "  rc=[0-9]+=SQLITE_\\w+: [^\n]+\n"
                                        "|Failed to prepare the SQL query '[^\n]*': \n"
                                        "  rc=[0-9]+=SQLITE_\\w+: [^\n]+\n"
                                        "|The SQL query '[^\n]*' failed\n"
                                        "   the query returned [0-9]+=SQLITE_\\w+ instead of "
                                        "SQLITE_ROW: [^\n]+\n"
                                        "|Failed to determine if table 'spare' exists\n)*"));
    }

    const std::string creation =
        "CREATE TABLE product (id INTEGER PRIMARY KEY, name TEXT, price REAL)";

    const std::string _file;
    const bool _failsLate;
    test::Diagnostics& _diagnostics;
    Database _db;
    std::unique_ptr<Table> _product;
    std::unique_ptr<Table> _spare;
    Ledger _ledger;
};

void fill(Shop& shop)
{
    shop.create();
    std::vector<Write> writes;
    for (int id = 1; id <= 10; ++id)
        writes.push_back(shop.add(id, 1));
    shop.applyTogether(writes);
}

void change(Shop& shop)
{
    shop.apply(shop.update(3, 2));
    shop.addOrUpdate(4, 2);
    shop.addOrUpdate(20, 1);
    shop.apply(shop.remove(5));
    shop.apply(shop.add(21, 1));
    shop.applyTogether({shop.update(1, 3), shop.update(9, 3), shop.remove(2), shop.removeAbove(20),
                        shop.add(22, 1)});
    shop.takeBack(shop.update(7, 4));
}

void keep(Shop& shop)
{
    shop.backupSingly();
    shop.apply(shop.update(6, 5));
    shop.backupTogether();
    shop.setUserVersion(7);
}

void read(Shop& shop)
{
    shop.lookForTable();
    shop.readAll();
    shop.readByKey(9);
    shop.readByKey(2);
    shop.look(22);
    shop.countRows();
}

void work(Shop& shop, const std::string& setting)
{
    if (!shop.open() && !shop.open())
        return;
    shop.use(setting);
    fill(shop);
    read(shop);
    change(shop);
    keep(shop);
    read(shop);
    shop.apply(shop.emptyBackup());
    shop.apply(shop.dropBackup());
}

// What all this leaves when nothing fails.
Contents finished()
{
    Contents contents;
    contents.tables["product"] = {{1, 3}, {3, 2}, {4, 2},  {6, 5},  {7, 1},
                                  {8, 1}, {9, 3}, {10, 1}, {20, 1}, {22, 1}};
    contents.userVersion = 7;
    return contents;
}

// --- Every call fails, once or from then on

class IoFaultTest : public testing::TestWithParam<std::tuple<Fault, bool, std::string>> {
protected:
    // True when the fault has struck.
    bool workWithFault(int nth)
    {
        const auto& [fault, lasts, setting] = GetParam();
        const test::TemporaryDirectory directory;
        const std::string file = directory.file("shop.db");
        // What is written stays once the journal is cut off, be that synced or not.
        const bool failsLate = setting == cut_journal && fault.call == FileCall::sync;
        Shop shop(file, failsLate, _diagnostics);
        bool struck = false;
        {
            test::FaultVfs vfs;
            const Failing failing(vfs, fault, nth, lasts);
            work(shop, setting);
            shop.close();
            struck = failing.hasStruck();
        }
        EXPECT_THAT(shop.ledger().possible(), Contains(contentsOf(file)));
        if (!struck) {
            EXPECT_EQ(shop.ledger().possible(), std::set<Contents>({finished()}));
        }
        ++figures.points;
        return struck;
    }

    test::Diagnostics _diagnostics;
};

TEST_P(IoFaultTest, WhatWasAcknowledgedIsThereAndWhatFailedIsReported)
{
    // With a fault that lasts, one point is much like the next.
    const int stride = test::stride(std::get<1>(GetParam()) ? 13 : 7);
    int nth = 1;
    while (nth < most_calls && workWithFault(nth) && !HasFailure())
        nth += stride;
    EXPECT_GT(nth, 1);
    EXPECT_LT(nth, most_calls);
    if (HasFailure())
        std::printf("with call %d\n", nth);
}

const Fault faults[] = {
    {"ReadError", FileCall::read, SQLITE_IOERR_READ},
    {"WriteError", FileCall::write, SQLITE_IOERR_WRITE},
    {"DiskFull", FileCall::write, SQLITE_FULL},
    {"SyncError", FileCall::sync, SQLITE_IOERR_FSYNC},
    {"OpenError", FileCall::open, SQLITE_CANTOPEN},
    {"AccessError", FileCall::access, SQLITE_IOERR_ACCESS},
    {"SizeError", FileCall::size, SQLITE_IOERR_FSTAT},
    {"LockError", FileCall::lock, SQLITE_IOERR_LOCK},
    {"LockedFile", FileCall::lock, SQLITE_BUSY},
};

std::string nameOfCase(const testing::TestParamInfo<IoFaultTest::ParamType>& chosen)
{
    const auto& [fault, lasts, setting] = chosen.param;
    const std::map<std::string, std::string> names = {
        {large_cache, ""}, {small_cache, "SmallCache"}, {cut_journal, "CutJournal"}};
    return std::string(fault.what) + (lasts ? "Lasting" : "Once") + names.at(setting);
}

INSTANTIATE_TEST_SUITE_P(Faults, IoFaultTest,
                         testing::Combine(testing::ValuesIn(faults), testing::Bool(),
                                          testing::Values(large_cache, small_cache, cut_journal)),
                         nameOfCase);

// A journal is either removed or cut off.
const Fault remove_error = {"RemoveError", FileCall::remove, SQLITE_IOERR_DELETE};
const Fault truncate_error = {"TruncateError", FileCall::truncate, SQLITE_IOERR_TRUNCATE};

INSTANTIATE_TEST_SUITE_P(RemoveFaults, IoFaultTest,
                         testing::Combine(testing::Values(remove_error), testing::Bool(),
                                          testing::Values(large_cache, small_cache)),
                         nameOfCase);

INSTANTIATE_TEST_SUITE_P(TruncateFaults, IoFaultTest,
                         testing::Combine(testing::Values(truncate_error), testing::Bool(),
                                          testing::Values(cut_journal)),
                         nameOfCase);

// --- A file that seems to end too early

class ShortReadTest : public testing::TestWithParam<bool> {
protected:
    // True when the fault has struck.
    bool readWithFault(Shop& shop, int nth)
    {
        test::FaultVfs vfs;
        const Failing failing(vfs, {"ShortRead", FileCall::read, SQLITE_IOERR_SHORT_READ}, nth,
                              GetParam());
        if (shop.open())
            read(shop);
        shop.close();
        ++figures.points;
        return failing.hasStruck();
    }

    test::Diagnostics _diagnostics;
    const test::TemporaryDirectory _directory;
};

TEST_P(ShortReadTest, NothingIsMadeUpAndTheFileStaysAsItIs)
{
    const std::string file = _directory.file("shop.db");
    Shop shop(file, false, _diagnostics);
    ASSERT_TRUE(shop.open());
    fill(shop);
    shop.close();
    const std::string before = test::readFile(file);
    int nth = 1;
    while (nth < most_calls && readWithFault(shop, nth) && !HasFailure())
        ++nth;
    EXPECT_GT(nth, 1);
    EXPECT_LT(nth, most_calls);
    EXPECT_EQ(test::readFile(file), before);
    EXPECT_THAT(shop.ledger().possible(), ElementsAre(contentsOf(file)));
}

INSTANTIATE_TEST_SUITE_P(OnceAndLasting, ShortReadTest, testing::Bool());

// --- What programs have to know of

class QuestionFaultTest : public testing::Test {
protected:
    QuestionFaultTest() : _file(_directory.file("shop.db"))
    {
        Shop shop(_file, false, _diagnostics);
        EXPECT_TRUE(shop.open());
        fill(shop);
        shop.close();
    }

    // Adds a last row and, when the next page cannot be read, a first one.
    void addAroundAFault(Table& table)
    {
        EXPECT_TRUE(table.addRecord(recordOf(table, 20, 1))); // reads the last page only
        const Failing failing(_vfs, {"ReadError", FileCall::read, SQLITE_IOERR_READ}, 1, false);
        EXPECT_TRUE(table.addOrUpdateRecord(sql::integer(0), recordOf(table, 0, 1)));
    }

    test::Diagnostics _diagnostics;
    const test::TemporaryDirectory _directory;
    const std::string _file;
    test::FaultVfs _vfs;
};

TEST_F(QuestionFaultTest, AddOrUpdateAddsAfterTheTransactionHasEnded)
{
    Database db;
    ASSERT_TRUE(db.open(_file, Database::access_read_write, false, 0));
    Table table(db.getHandle(), "product", test::product_columns);
    EXPECT_TRUE(db.transactionBegin());
    addAroundAFault(table);
    EXPECT_FALSE(db.transactionCommit());
    EXPECT_THAT(
        _diagnostics.errors(),
        ElementsAre("The SQL query 'select count(*) from product where id = 0' failed",
                    "   the query returned 10=SQLITE_IOERR instead of SQLITE_ROW: disk I/O error",
                    "Failed to run the SQL stmt 'COMMIT TRANSACTION'",
                    "  rc=1=SQLITE_ERROR: cannot commit - no transaction is active"));
    const Rows rows = contentsOf(_file).tables["product"];
    EXPECT_EQ(rows.count(0), 1U);
    EXPECT_EQ(rows.count(20), 0U);
}

} // namespace
