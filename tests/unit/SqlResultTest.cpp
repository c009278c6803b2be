#include "SqlResult.h"

#include "SqlRecord.h"
#include "SqlRecordSet.h"
#include "SqlTable.h"

#include "Columns.h"
#include "Environment.h"
#include "PreparedTest.h"
#include "Reports.h"
#include "Sqlite.h"

#include <gmock/gmock.h>

#include <memory>
#include <optional>
#include <regex>
#include <sstream>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

namespace {

namespace report = test::report;

using sql::Error;
using sql::Result;
using testing::SizeIs;

static_assert(!std::is_polymorphic_v<Error>);
static_assert(!std::is_convertible_v<Error, bool> && std::is_constructible_v<bool, Error>);
static_assert(!std::is_convertible_v<Result<bool>, bool>, "a false value is no failure");

// Nothing here reports by itself: silence is that of the highest level.
class ResultTest : public test::PreparedTest {
protected:
    ResultTest()
    {
        _diagnostics.setLevel(9);
        _diagnostics.clear(); // of the database that was opened
    }
};

// --- What an error says

TEST_F(ResultTest, NoFailureIsEmpty)
{
    const Error error;
    EXPECT_FALSE(error);
    EXPECT_EQ(error.code(), SQLITE_OK);
    EXPECT_EQ(error.extendedCode(), SQLITE_OK);
    EXPECT_STREQ(error.name(), "SQLITE_OK");
    EXPECT_EQ(error.text(), "");
    EXPECT_EQ(error.statement(), "");
    EXPECT_EQ(error.offset(), std::nullopt);
}

TEST_F(ResultTest, ErrorThatWasMovedFromHoldsNoFailure)
{
    Error error(SQLITE_BUSY, "database is locked", "commit", 3);
    Error taken(std::move(error));
    EXPECT_EQ(taken.code(), SQLITE_BUSY);
    EXPECT_EQ(taken.text(), "database is locked");
    EXPECT_EQ(taken.statement(), "commit");
    EXPECT_EQ(taken.offset(), 3);
    EXPECT_FALSE(error);
    EXPECT_EQ(error.text(), "");
    EXPECT_EQ(error.statement(), "");
    EXPECT_EQ(error.offset(), std::nullopt);

    error = std::move(taken);
    EXPECT_EQ(error.text(), "database is locked");
    EXPECT_FALSE(taken);

    Error& self = error;
    error = std::move(self);
    EXPECT_EQ(error.code(), SQLITE_BUSY);
    EXPECT_EQ(error.text(), "database is locked");
    EXPECT_EQ(error.statement(), "commit");
    EXPECT_EQ(error.offset(), 3);
}

TEST_F(ResultTest, FailureKeepsWhatItWasGiven)
{
    const Error error(SQLITE_CONSTRAINT_UNIQUE, "why", "insert into t values (?)", 12);
    EXPECT_TRUE(error);
    EXPECT_EQ(error.code(), SQLITE_CONSTRAINT);
    EXPECT_EQ(error.extendedCode(), SQLITE_CONSTRAINT_UNIQUE);
    EXPECT_STREQ(error.name(), "SQLITE_CONSTRAINT_UNIQUE");
    EXPECT_EQ(error.text(), "why");
    EXPECT_EQ(error.statement(), "insert into t values (?)");
    EXPECT_EQ(error.offset(), 12);
}

TEST_F(ResultTest, FailureNeedsNeitherTextNorStatementNorOffset)
{
    const Error error(SQLITE_ERROR, "");
    EXPECT_TRUE(error);
    EXPECT_EQ(error.text(), "");
    EXPECT_EQ(error.statement(), "");
    EXPECT_EQ(error.offset(), std::nullopt);
}

TEST_F(ResultTest, FirstByteOfTheStatementIsAnOffset)
{
    EXPECT_EQ(Error(SQLITE_ERROR, "", "selec", 0).offset(), 0);
}

TEST_F(ResultTest, CopyOfAFailureOwnsItsTexts)
{
    std::optional<Error> error(Error(SQLITE_FULL, std::string(100, 'a'), std::string(100, 'b')));
    const Error copy = *error;
    error.reset();
    EXPECT_EQ(copy.text(), std::string(100, 'a'));
    EXPECT_EQ(copy.statement(), std::string(100, 'b'));
}

// --- Names and kinds, against SQLite's own list

struct Code {
    std::string name;    // SQLITE_BUSY_TIMEOUT
    std::string primary; // SQLITE_BUSY, the same for one that is not extended
    int number;
};

// "#define SQLITE_BUSY  5  /* ... */" and "#define SQLITE_BUSY_TIMEOUT  (SQLITE_BUSY | (3<<8))"
std::vector<Code> codesIn(const std::string& header)
{
    const std::regex plain("#define (SQLITE_[A-Z]+) +([0-9]+) .*");
    const std::regex extended(
        "#define (SQLITE_[A-Z_]+) +\\((SQLITE_[A-Z]+) *\\| *\\(([0-9]+)<<8\\)\\).*");
    std::vector<Code> codes;
    std::istringstream lines(header);
    std::smatch found;
    for (std::string line; std::getline(lines, line);) {
        if (line.compare(0, 15, "#define SQLITE_") != 0)
            continue;
        if (std::regex_match(line, found, extended)) {
            for (const Code& code : codes) {
                if (code.name == found[2]) {
                    codes.push_back({found[1], found[2], code.number | std::stoi(found[3]) << 8});
                    break;
                }
            }
        } else if (codes.size() < 31 && std::regex_match(line, found, plain)) {
            codes.push_back({found[1], found[1], std::stoi(found[2])});
        }
    }
    return codes;
}

const std::vector<Code>& codesOfSqlite()
{
    static const std::vector<Code> codes = codesIn(test::readFile(TEST_SQLITE_HEADER));
    return codes;
}

// What SQLite's header has no failures for: the library never returns these.
bool isNoFailure(const Code& code)
{
    return code.primary == "SQLITE_OK" || code.primary == "SQLITE_NOTICE"
           || code.primary == "SQLITE_WARNING";
}

std::string kindsOf(const Error& error)
{
    std::string kinds;
    const auto add = [&](bool is, const char* kind) {
        if (is)
            kinds += kinds.empty() ? kind : std::string(" ") + kind;
    };
    add(error.isBusy(), "busy");
    add(error.isConstraint(), "constraint");
    add(error.isCorrupt(), "corrupt");
    add(error.isFull(), "full");
    add(error.isIo(), "io");
    add(error.isMismatch(), "mismatch");
    add(error.isMisuse(), "misuse");
    add(error.isNoMemory(), "no memory");
    add(error.isReadOnly(), "read only");
    add(error.isStopped(), "stopped");
    add(error.isTooBig(), "too big");
    return kinds;
}

std::string kindOf(const Code& code)
{
    static const std::vector<std::pair<std::string, std::string>> kinds = {
        {"SQLITE_BUSY", "busy"},
        {"SQLITE_LOCKED", "busy"},
        {"SQLITE_CONSTRAINT", "constraint"},
        {"SQLITE_CORRUPT", "corrupt"},
        {"SQLITE_NOTADB", "corrupt"},
        {"SQLITE_FULL", "full"},
        {"SQLITE_IOERR", "io"},
        {"SQLITE_MISMATCH", "mismatch"},
        {"SQLITE_MISUSE", "misuse"},
        {"SQLITE_RANGE", "misuse"},
        {"SQLITE_NOMEM", "no memory"},
        {"SQLITE_READONLY", "read only"},
        {"SQLITE_INTERRUPT", "stopped"},
        {"SQLITE_TOOBIG", "too big"},
    };
    if (code.name == "SQLITE_IOERR_NOMEM")
        return "no memory";
    for (const auto& [primary, kind] : kinds) {
        if (code.primary == primary)
            return kind;
    }
    return "";
}

TEST_F(ResultTest, SqlitesListOfCodesIsRead)
{
    const std::vector<Code> codes = codesOfSqlite();
    ASSERT_THAT(codes, SizeIs(testing::Ge(31u + 60u)));
    EXPECT_EQ(codes.front().name, "SQLITE_OK");
    EXPECT_EQ(codes[30].name, "SQLITE_DONE");
    EXPECT_EQ(codes[30].number, SQLITE_DONE);
}

TEST_F(ResultTest, EveryCodeOfSqliteHasItsName)
{
    for (const Code& code : codesOfSqlite()) {
        const Error error(code.number, "");
        EXPECT_EQ(error.extendedCode(), code.number);
        EXPECT_EQ(error.code(), code.number & 0xff) << code.name;
        if (!isNoFailure(code)) {
            EXPECT_EQ(error.name(), code.name);
        }
    }
}

TEST_F(ResultTest, UnknownExtendedCodeHasTheNameOfItsCode)
{
    EXPECT_STREQ(Error(SQLITE_BUSY | 99 << 8, "").name(), "SQLITE_BUSY");
    EXPECT_STREQ(Error(SQLITE_RANGE | 1 << 8, "").name(), "SQLITE_RANGE");
    EXPECT_STREQ(Error(200, "").name(), "unknown");
}

TEST_F(ResultTest, EveryCodeIsOfOneKindOrNone)
{
    for (const Code& code : codesOfSqlite())
        EXPECT_EQ(kindsOf(Error(code.number, "")), kindOf(code)) << code.name;
}

// --- Why sqlwrapper failed

class LastErrorTest : public ResultTest {
protected:
    LastErrorTest() : _products(_database.getHandle(), "product", test::product_columns)
    {
        run("create table product (id integer primary key, name text not null, price float)");
        _diagnostics.setLevel(0); // what sqlwrapper reports is none of this
    }

    sql::Record product(sql::integer id)
    {
        sql::Record record(*_products.fields());
        record.setInteger("id", id);
        record.setString("name", "tea");
        record.setDouble("price", 2.5);
        return record;
    }

    // Code, kinds, name, text, statement and offset.
    std::string lastError()
    {
        _diagnostics.setLevel(9);
        const Error error = sql::lastError(_database);
        expectReport({});
        _diagnostics.setLevel(0);
        if (!error) {
            EXPECT_EQ(error.text(), "");
            return "none";
        }
        return error.name() + (": " + error.text()) + "|" + error.statement() + "|"
               + (error.offset() ? "offset" : "");
    }

    sql::Table _products;
};

TEST_F(LastErrorTest, NoneAfterASuccess)
{
    sql::Record tea = product(1);
    ASSERT_TRUE(_products.addRecord(tea));
    EXPECT_EQ(lastError(), "none");
    ASSERT_TRUE(_products.open());
    EXPECT_EQ(lastError(), "none");
    ASSERT_TRUE(_database.transactionBegin());
    EXPECT_EQ(lastError(), "none");
    ASSERT_TRUE(_database.transactionCommit());
    EXPECT_EQ(lastError(), "none");
}

TEST_F(LastErrorTest, NoneAtARowAndAtTheEndOfRows)
{
    sqlite3_stmt* statement = nullptr;
    sqlite3_prepare_v2(_database.getHandle(), "select 1", -1, &statement, nullptr);
    EXPECT_EQ(sqlite3_step(statement), SQLITE_ROW);
    EXPECT_EQ(lastError(), "none");
    EXPECT_EQ(sqlite3_step(statement), SQLITE_DONE);
    EXPECT_EQ(lastError(), "none");
    sqlite3_finalize(statement);
}

TEST_F(LastErrorTest, NoneOfADatabaseThatIsNotOpen)
{
    sql::Database closed;
    EXPECT_FALSE(sql::lastError(closed));
}

TEST_F(LastErrorTest, KeyThatIsTaken)
{
    sql::Record tea = product(1);
    ASSERT_TRUE(_products.addRecord(tea));
    ASSERT_FALSE(_products.addRecord(tea));
    EXPECT_EQ(lastError(), "SQLITE_CONSTRAINT_PRIMARYKEY: UNIQUE constraint failed: product.id||");
    EXPECT_TRUE(sql::lastError(_database).isConstraint());
}

TEST_F(LastErrorTest, GoneAfterTheNextSuccess)
{
    sql::Record tea = product(1);
    ASSERT_TRUE(_products.addRecord(tea));
    ASSERT_FALSE(_products.addRecord(tea));
    ASSERT_TRUE(_products.deleteRecord(1));
    EXPECT_EQ(lastError(), "none");
}

TEST_F(LastErrorTest, MissingTable)
{
    run("drop table product");
    ASSERT_FALSE(_products.open());
    EXPECT_EQ(lastError(), "SQLITE_ERROR: no such table: product||");
}

TEST_F(LastErrorTest, CommitWithoutATransaction)
{
    ASSERT_FALSE(_database.transactionCommit());
    EXPECT_EQ(lastError(), "SQLITE_ERROR: cannot commit - no transaction is active||");
}

TEST_F(LastErrorTest, LockOfAnotherConnection)
{
    const test::TemporaryDirectory directory;
    const std::string file = directory.file("product.db");
    test::Connection other(file);
    other.run("create table product (id integer primary key, name text, price float)");
    other.run("begin immediate");
    ASSERT_TRUE(_database.open(file, sql::Database::access_read_write, false, 0));
    sql::Table products(_database.getHandle(), "product", test::product_columns);
    sql::Record tea = product(1);
    ASSERT_FALSE(products.addRecord(tea));
    EXPECT_EQ(lastError(), "SQLITE_BUSY: database is locked||");
    EXPECT_TRUE(sql::lastError(_database).isBusy());
}

TEST_F(LastErrorTest, FileThatMayOnlyBeRead)
{
    const test::TemporaryDirectory directory;
    const std::string file = directory.file("product.db");
    test::Connection(file).run("create table product (id integer primary key)");
    ASSERT_TRUE(_database.open(file, sql::Database::access_read_only, false, 0));
    ASSERT_FALSE(_database.setUserVersion(7));
    EXPECT_EQ(lastError(), "SQLITE_READONLY: attempt to write a readonly database||");
    EXPECT_TRUE(sql::lastError(_database).isReadOnly());
}

// --- Results

TEST_F(ResultTest, HoldsNothingAtFirst)
{
    const Result<int> nothing;
    EXPECT_FALSE(nothing);
    EXPECT_FALSE(nothing.failed());
    EXPECT_FALSE(nothing.error());
    EXPECT_EQ(nothing.valueOr(7), 7);
}

TEST_F(ResultTest, HoldsAValue)
{
    Result<std::string> name(std::string("tea"));
    EXPECT_TRUE(name);
    EXPECT_FALSE(name.failed());
    EXPECT_FALSE(name.error());
    EXPECT_EQ(*name, "tea");
    EXPECT_EQ(name->size(), 3u);
    EXPECT_EQ(name.valueOr("rum"), "tea");
    *name = "rum";
    name->push_back('!');
    EXPECT_EQ(*std::as_const(name), "rum!");
    EXPECT_EQ(std::as_const(name)->size(), 4u);
}

TEST_F(ResultTest, HoldsAReason)
{
    const Result<std::string> name(Error(SQLITE_BUSY, "locked"));
    EXPECT_FALSE(name);
    EXPECT_TRUE(name.failed());
    EXPECT_EQ(name.error().text(), "locked");
    EXPECT_EQ(name.valueOr("rum"), "rum");
}

TEST_F(ResultTest, ValueThatIsFalseIsAValue)
{
    EXPECT_TRUE(Result<bool>(false));
    EXPECT_TRUE(Result<int>(0));
    EXPECT_TRUE(Result<std::string>(std::string()));
    EXPECT_TRUE(Result<std::optional<int>>(std::optional<int>()));
}

TEST_F(ResultTest, NoFailureAsAReasonIsNoFailure)
{
    const Result<int> result{Error()};
    EXPECT_FALSE(result);
    EXPECT_FALSE(result.failed());
}

TEST_F(ResultTest, ValueCanBeMovedOut)
{
    Result<std::unique_ptr<int>> number(std::make_unique<int>(7));
    const std::unique_ptr<int> owner = *std::move(number);
    EXPECT_EQ(*owner, 7);
}

TEST_F(ResultTest, PresenceOfAKeyIsNoTruth)
{
    static_assert(!std::is_convertible_v<sql::Presence, bool>);
    EXPECT_NE(sql::Presence::unknown, sql::Presence::absent);
    EXPECT_NE(sql::Presence::unknown, sql::Presence::present);
    EXPECT_NE(sql::Presence::absent, sql::Presence::present);
}

} // namespace
