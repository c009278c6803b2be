#include "SqlBlob.h"

#include "SqlStatement.h"
#include "SqlStopFlag.h"
#include "SqlTransaction.h"

#include "Cases.h"
#include "Environment.h"
#include "PreparedTest.h"
#include "Reports.h"

#include <gmock/gmock.h>
#include <sqlite3.h>

#include <algorithm>
#include <cstring>
#include <limits>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

namespace {

namespace report = test::report;

using sql::Blob;
using testing::ElementsAre;
using testing::ValuesIn;

static_assert(std::is_nothrow_move_constructible_v<Blob>);
static_assert(std::is_nothrow_move_assignable_v<Blob>);
static_assert(!std::is_copy_constructible_v<Blob> && !std::is_copy_assignable_v<Blob>);
static_assert(std::is_same_v<decltype(&Blob::moveTo), bool (Blob::*)(sql::integer)>);
static_assert(std::is_same_v<decltype(&Blob::isOpen), bool (Blob::*)() const>);
static_assert(std::is_same_v<decltype(&Blob::size), sql::integer (Blob::*)() const>);
static_assert(
    std::is_same_v<decltype(&Blob::read), bool (Blob::*)(sql::integer, void*, std::size_t)>);
static_assert(std::is_same_v<decltype(&Blob::write), bool (Blob::*)(sql::integer, sql::Bytes)>);
static_assert(std::is_same_v<decltype(&Blob::release), bool (Blob::*)()>);
static_assert(std::is_same_v<decltype(&Blob::error), const sql::Error& (Blob::*)() const>);

const char content[] = "select `content` from main.`file` where rowid = ?";
const char changed[] = "the row was changed since the blob was opened";
const char not_within[] = "25=SQLITE_RANGE: the piece is not within the blob";
const char not_open[] = "21=SQLITE_MISUSE: the blob is not open";

class SqlBlobTest : public test::PreparedTest {
protected:
    SqlBlobTest()
    {
        run("create table file (id integer primary key, name text, content blob);"
            "insert into file values (1, 'one', x'616263646566'), (2, 'two', 'text'), (3, 'none', null)");
    }

    Blob open(sql::BlobMode mode, sql::integer rowid = 1)
    {
        return Blob(_database, "file", "content", rowid, mode);
    }

    std::string contents(sql::integer rowid = 1)
    {
        return rows("select cast(content as text) from file where id = " + std::to_string(rowid));
    }

    // Its latest operation has failed, and has reported that and nothing else.
    void expectFailed(const Blob& blob, const std::string& operation, const std::string& reason,
                      const std::string& statement = content)
    {
        const sql::Error& error = blob.error();
        EXPECT_EQ(std::to_string(error.extendedCode()) + "=" + error.name() + ": " + error.text(),
                  reason);
        EXPECT_EQ(error.statement(), statement);
        expectReport(report::statementFailed(operation, statement, reason));
    }
};

std::string pieceOf(Blob& blob, sql::integer offset, std::size_t size)
{
    std::string piece(size, '?');
    EXPECT_TRUE(blob.read(offset, &piece[0], size));
    EXPECT_FALSE(blob.error());
    return piece;
}

// --- Reading and writing

TEST_F(SqlBlobTest, PiecesAreRead)
{
    Blob blob = open(sql::blob_read);
    EXPECT_TRUE(blob.isOpen());
    EXPECT_EQ(blob.size(), 6);
    EXPECT_EQ(pieceOf(blob, 0, 6), "abcdef");
    EXPECT_EQ(pieceOf(blob, 2, 3), "cde");
    EXPECT_EQ(pieceOf(blob, 5, 1), "f");
    EXPECT_EQ(pieceOf(blob, 6, 0), "");
    EXPECT_TRUE(blob.read(0, nullptr, 0));
    EXPECT_TRUE(blob.release());
    EXPECT_FALSE(blob.isOpen());
    EXPECT_EQ(blob.size(), 0);
}

TEST_F(SqlBlobTest, PiecesAreWritten)
{
    Blob blob = open(sql::blob_write);
    EXPECT_TRUE(blob.write(1, {"B", 1}));
    EXPECT_TRUE(blob.write(4, {"EF", 2}));
    EXPECT_TRUE(blob.write(6, {nullptr, 0}));
    EXPECT_EQ(pieceOf(blob, 0, 6), "aBcdEF");
    EXPECT_TRUE(blob.release());
    EXPECT_EQ(contents(), "aBcdEF");
}

TEST_F(SqlBlobTest, TextIsReadAndWrittenInPieces)
{
    Blob blob = open(sql::blob_write, 2);
    EXPECT_EQ(pieceOf(blob, 1, 3), "ext");
    EXPECT_TRUE(blob.write(0, {"n", 1}));
    EXPECT_TRUE(blob.release());
    EXPECT_EQ(rows("select typeof(content), content from file where id = 2"), "text|next");
}

TEST_F(SqlBlobTest, ZerosAreMadeByTheStatement)
{
    sql::Statement add(_database, "insert into file (content) values (zeroblob(?))");
    ASSERT_TRUE(add.run(100000));
    Blob blob = open(sql::blob_read, *add.lastKey());
    EXPECT_EQ(blob.size(), 100000);
    EXPECT_EQ(pieceOf(blob, 0, 100000), std::string(100000, '\0'));
}

TEST_F(SqlBlobTest, AllIsReadInPiecesInOrder)
{
    std::string whole(150000, ' ');
    for (std::size_t i = 0; i < whole.size(); ++i)
        whole[i] = static_cast<char>(i * 7 / 3);
    ASSERT_TRUE(sql::Statement(_database, "update file set content = ? where id = 1")
                    .run(sql::Bytes{whole.data(), whole.size()}));
    std::string all;
    std::vector<std::size_t> sizes;
    Blob blob = open(sql::blob_read);
    EXPECT_TRUE(blob.readAll([&](sql::Bytes piece) {
        all.append(static_cast<const char*>(piece.data), piece.size);
        sizes.push_back(piece.size);
        return true;
    }));
    EXPECT_EQ(all, whole);
    EXPECT_THAT(sizes, ElementsAre(65536, 65536, 18928));
}

TEST_F(SqlBlobTest, AllIsWrittenInPiecesInOrder)
{
    run("update file set content = zeroblob(131072) where id = 1");
    std::vector<std::size_t> sizes;
    Blob blob = open(sql::blob_write);
    EXPECT_TRUE(blob.writeAll([&](void* buffer, std::size_t size) {
        sizes.push_back(size);
        std::memset(buffer, 'a' + static_cast<int>(sizes.size()), size);
        return true;
    }));
    EXPECT_TRUE(blob.release());
    EXPECT_THAT(sizes, ElementsAre(65536, 65536));
    EXPECT_EQ(contents(), std::string(65536, 'b') + std::string(65536, 'c'));
}

TEST_F(SqlBlobTest, EmptyOneHasNoPieces)
{
    run("update file set content = x'' where id = 1");
    Blob blob = open(sql::blob_write);
    EXPECT_EQ(blob.size(), 0);
    int calls = 0;
    EXPECT_TRUE(blob.readAll([&](sql::Bytes) { return ++calls > 0; }));
    EXPECT_TRUE(blob.writeAll([&](void*, std::size_t) { return ++calls > 0; }));
    EXPECT_EQ(calls, 0);
}

bool neverRead(sql::Bytes)
{
    return false;
}

TEST_F(SqlBlobTest, FunctionThatReturnsFalseEndsIt)
{
    Blob blob = open(sql::blob_write);
    EXPECT_FALSE(blob.readAll(neverRead));
    expectFailed(blob, "readAll", "4=SQLITE_ABORT: the function has failed");
    EXPECT_FALSE(blob.writeAll([](void*, std::size_t) { return false; }));
    expectFailed(blob, "writeAll", "4=SQLITE_ABORT: the function has failed");
    EXPECT_EQ(pieceOf(blob, 0, 6), "abcdef");
    EXPECT_TRUE(blob.release());
    EXPECT_EQ(contents(), "abcdef");
}

TEST_F(SqlBlobTest, FunctionMayReleaseIt)
{
    run("update file set content = zeroblob(100000) where id = 1");
    Blob blob = open(sql::blob_write);
    EXPECT_FALSE(blob.readAll([&](sql::Bytes) { return blob.release(); }));
    expectFailed(blob, "readAll", not_open);
    blob = open(sql::blob_write);
    EXPECT_FALSE(blob.writeAll([&](void*, std::size_t) { return blob.release(); }));
    expectFailed(blob, "writeAll", not_open);
    blob = open(sql::blob_read, 2); // which has one piece
    EXPECT_TRUE(blob.readAll([&](sql::Bytes) { return blob.release(); }));
}

// --- Beyond the end

struct Range : test::Case {
    sql::integer offset;
    std::size_t size;
};

const Range ranges[] = {
    {"OneByteTooMany", 0, 7},
    {"BehindTheEnd", 6, 1},
    {"FarBehindTheEnd", 7, 0},
    {"BeforeTheBeginning", -1, 1},
    {"NothingBeforeTheBeginning", -1, 0},
    {"BeyondAnInt", 0x100000000LL, 1},
    {"LeastOffset", std::numeric_limits<sql::integer>::min(), 1},
    {"GreatestOffset", std::numeric_limits<sql::integer>::max(), 1},
    {"GreatestSize", 1, std::numeric_limits<std::size_t>::max()},
};

class SqlBlobRangeTest : public SqlBlobTest, public testing::WithParamInterface<Range> {};

INSTANTIATE_TEST_SUITE_P(Ranges, SqlBlobRangeTest, ValuesIn(ranges), test::NameOfCase());

TEST_P(SqlBlobRangeTest, NothingIsReadOrWritten)
{
    Blob blob = open(sql::blob_write);
    char buffer[8] = "???????";
    EXPECT_FALSE(blob.read(GetParam().offset, buffer, GetParam().size));
    expectFailed(blob, "read", not_within);
    EXPECT_STREQ(buffer, "???????");
    EXPECT_FALSE(blob.write(GetParam().offset, {buffer, GetParam().size}));
    expectFailed(blob, "write", not_within);
    EXPECT_TRUE(blob.error().isMisuse());
    EXPECT_EQ(pieceOf(blob, 0, 6), "abcdef");
    EXPECT_TRUE(blob.release());
    EXPECT_EQ(contents(), "abcdef");
}

// --- What cannot be opened

struct Unfit : test::Case {
    std::string table;
    std::string column;
    sql::BlobMode mode;
    std::string reason;
    sql::integer rowid = 1;
};

const Unfit unfits[] = {
    {"NoTable", "nothing", "content", sql::blob_read, "no such table: main.nothing"},
    {"NoColumn", "file", "size", sql::blob_read, "no such column: \"size\""},
    {"NoRow", "file", "content", sql::blob_read, "no such rowid: 9", 9},
    {"Null", "file", "content", sql::blob_read, "cannot open value of type null", 3},
    {"Integer", "odd", "number", sql::blob_read, "cannot open value of type integer"},
    {"Real", "odd", "price", sql::blob_write, "cannot open value of type real"},
    {"View", "files", "content", sql::blob_read, "cannot open view: files"},
    {"Virtual", "words", "word", sql::blob_read, "cannot open virtual table: words"},
    {"WithoutRowid", "keyed", "content", sql::blob_read, "cannot open table without rowid: keyed"},
    {"Indexed", "odd", "code", sql::blob_write, "cannot open indexed column for writing"},
    {"ForeignKey", "odd", "file", sql::blob_write, "cannot open foreign key column for writing"},
    {"Temporary", "passing", "content", sql::blob_read, "no such table: main.passing"},
#if SQLITE_VERSION_NUMBER >= 3031000 // there are some
    {"Generated", "made", "content", sql::blob_read,
     "a table with generated columns has no blobs in pieces"},
    {"Stored", "stored", "content", sql::blob_write,
     "a table with generated columns has no blobs in pieces"},
#endif
};

class UnfitBlobTest : public SqlBlobTest, public testing::WithParamInterface<Unfit> {};

INSTANTIATE_TEST_SUITE_P(Unfits, UnfitBlobTest, ValuesIn(unfits), test::NameOfCase());

TEST_P(UnfitBlobTest, FailureSaysWhy)
{
    run("pragma foreign_keys = on;"
        "create table odd (number, price, code unique, file references file);"
        "insert into odd values (7, 2.5, 'code', 1);"
        "create view files as select * from file;"
        "create table keyed (id integer primary key, content) without rowid;"
        "create temp table passing (content);"
        "insert into passing values ('text')");
#if SQLITE_VERSION_NUMBER >= 3031000
    run("create table made (content, first as (substr(content, 1, 1)));"
        "create table stored (content, first as (substr(content, 1, 1)) stored);"
        "insert into made values ('text');"
        "insert into stored values ('text')");
#endif
    if (sqlite3_compileoption_used("ENABLE_FTS5") != 0)
        run("create virtual table words using fts5 (word)");
    else if (GetParam().table == "words")
        GTEST_SKIP() << "no virtual tables";
    const Unfit& unfit = GetParam();
    Blob blob(_database, unfit.table, unfit.column, unfit.rowid, unfit.mode);
    EXPECT_FALSE(blob.isOpen());
    EXPECT_EQ(blob.size(), 0);
    const std::string statement = "select `" + unfit.column + "` from main.`" + unfit.table
                                  + "` where rowid = ?";
    expectFailed(blob, "Blob", "1=SQLITE_ERROR: " + unfit.reason, statement);
    char byte = '?';
    EXPECT_FALSE(blob.read(0, &byte, 1));
    expectFailed(blob, "read", not_open, statement);
    EXPECT_FALSE(blob.moveTo(1));
    expectFailed(blob, "moveTo", not_open, statement);
    EXPECT_TRUE(blob.release());
    EXPECT_EQ(sqlite3_get_autocommit(_database.getHandle()), 1);
}

TEST_F(SqlBlobTest, IndexedColumnIsRead)
{
    run("create index by_content on file (content)");
    Blob blob = open(sql::blob_read);
    EXPECT_EQ(pieceOf(blob, 0, 3), "abc");
}

TEST_F(SqlBlobTest, NameWithAZeroByteIsRefused)
{
    const std::string name("file\0s", 6);
    const Blob blob(_database, name, "content", 1, sql::blob_read);
    EXPECT_FALSE(blob.isOpen());
    EXPECT_EQ(blob.error().text(), "there is a zero byte in the name");
    expectReport(report::statementFailed("Blob", "select `content` from main.`file",
                                         "21=SQLITE_MISUSE: there is a zero byte in the name"));
}

TEST_F(SqlBlobTest, NamesAreTakenAsTheyStand)
{
    run("create table `it's` (`a``\"b`); insert into `it's` values ('tea')");
    Blob blob(_database, "it's", "a`\"b", 1, sql::blob_read);
    EXPECT_EQ(pieceOf(blob, 0, 3), "tea");
}

TEST_F(SqlBlobTest, OneThatWasOpenedToBeReadIsNotWritten)
{
    Blob blob = open(sql::blob_read);
    EXPECT_FALSE(blob.write(0, {"x", 1}));
    expectFailed(blob, "write", "21=SQLITE_MISUSE: the blob was opened to be read");
    EXPECT_FALSE(blob.writeAll([](void*, std::size_t) { return true; }));
    expectFailed(blob, "writeAll", "21=SQLITE_MISUSE: the blob was opened to be read");
    EXPECT_EQ(pieceOf(blob, 0, 1), "a");
    EXPECT_TRUE(blob.release());
}

// --- Other rows

TEST_F(SqlBlobTest, OtherRowIsOpened)
{
    Blob blob = open(sql::blob_read);
    EXPECT_TRUE(blob.moveTo(2));
    EXPECT_EQ(blob.size(), 4);
    EXPECT_EQ(pieceOf(blob, 0, 4), "text");
    EXPECT_TRUE(blob.moveTo(1));
    EXPECT_EQ(pieceOf(blob, 0, 6), "abcdef");
}

TEST_F(SqlBlobTest, RowThatCannotBeOpenedReleasesIt)
{
    Blob blob = open(sql::blob_write);
    EXPECT_TRUE(blob.write(0, {"A", 1}));
    EXPECT_FALSE(blob.moveTo(9));
    expectFailed(blob, "moveTo", "1=SQLITE_ERROR: no such rowid: 9");
    EXPECT_FALSE(blob.isOpen());
    blob = open(sql::blob_read);
    EXPECT_FALSE(blob.moveTo(3));
    expectFailed(blob, "moveTo", "1=SQLITE_ERROR: cannot open value of type null");
    EXPECT_FALSE(blob.isOpen());
    EXPECT_EQ(contents(), "Abcdef");
}

// --- A row that is changed

struct Change : test::Case {
    std::string statement;
};

const Change changes[] = {
    {"TheCell", "update file set content = 'other' where id = 1"},
    {"AnotherCell", "update file set name = 'other' where id = 1"},
    {"TheKey", "update file set id = 7 where id = 1"},
    {"Deleted", "delete from file where id = 1"},
    {"AllDeleted", "delete from file"},
};

class ChangedRowTest : public SqlBlobTest, public testing::WithParamInterface<Change> {};

INSTANTIATE_TEST_SUITE_P(Changes, ChangedRowTest, ValuesIn(changes), test::NameOfCase());

TEST_P(ChangedRowTest, BlobSaysSoEachTime)
{
    const std::string reason = std::string("4=SQLITE_ABORT: ") + changed;
    Blob blob = open(sql::blob_write);
    run(GetParam().statement);
    char byte = '?';
    for (int i = 0; i < 2; ++i) {
        EXPECT_FALSE(blob.read(0, &byte, 1));
        expectFailed(blob, "read", reason);
        EXPECT_FALSE(blob.write(0, {"x", 1}));
        expectFailed(blob, "write", reason);
    }
    EXPECT_FALSE(blob.moveTo(2));
    expectFailed(blob, "moveTo", reason);
    EXPECT_EQ(byte, '?');
    EXPECT_TRUE(blob.release());
    EXPECT_EQ(sqlite3_get_autocommit(_database.getHandle()), 1);
}

TEST_F(SqlBlobTest, OtherRowsMayChange)
{
    Blob blob = open(sql::blob_write);
    run("update file set content = 'other' where id = 2; insert into file values (9, '', '')");
    EXPECT_EQ(pieceOf(blob, 0, 6), "abcdef");
    EXPECT_TRUE(blob.write(0, {"A", 1}));
    EXPECT_TRUE(blob.release());
    EXPECT_EQ(contents(), "Abcdef");
}

TEST_F(SqlBlobTest, BlobsOfOneRowLeaveEachOtherAlone)
{
    Blob first = open(sql::blob_write);
    Blob second = open(sql::blob_write);
    EXPECT_TRUE(first.write(0, {"A", 1}));
    EXPECT_EQ(pieceOf(second, 0, 2), "Ab");
    EXPECT_TRUE(second.write(1, {"B", 1}));
    EXPECT_EQ(pieceOf(first, 0, 2), "AB");
    EXPECT_TRUE(first.release());
    EXPECT_TRUE(second.release());
    EXPECT_EQ(contents(), "ABcdef");
}

#if SQLITE_VERSION_NUMBER >= 3040000 // 3.24 looks whether the condition holds

// As it is documented.
TEST_F(SqlBlobTest, IndexWithAConditionKeepsTheRow)
{
    run("create index some on file (name) where content = x'616263646566'");
    Blob blob = open(sql::blob_write);
    EXPECT_TRUE(blob.write(0, {"A", 1}));
    EXPECT_TRUE(blob.release());
    const std::string where = " where content = x'616263646566'";
    EXPECT_EQ(rows("select name from file indexed by some" + where), "one");
    EXPECT_EQ(rows("select name from file not indexed" + where), "");
}

#endif

// --- Transactions

TEST_F(SqlBlobTest, RollbackUndoesWhatWasWritten)
{
    sql::Transaction transaction(_database, sql::begin_immediate);
    Blob blob = open(sql::blob_write);
    EXPECT_TRUE(blob.write(0, {"ABC", 3}));
    EXPECT_TRUE(blob.release());
    EXPECT_TRUE(transaction.rollback());
    EXPECT_EQ(contents(), "abcdef");
}

TEST_F(SqlBlobTest, RollbackBeforeTheReleaseEndsIt)
{
    Blob blob = open(sql::blob_write);
    EXPECT_TRUE(blob.release());
    {
        sql::Transaction transaction(_database, sql::begin_immediate);
        blob = open(sql::blob_write);
        EXPECT_TRUE(blob.write(0, {"ABC", 3}));
        EXPECT_TRUE(transaction.rollback());
    }
    EXPECT_FALSE(blob.write(0, {"x", 1}));
    expectFailed(blob, "write", "516=SQLITE_ABORT_ROLLBACK: abort due to ROLLBACK");
    EXPECT_FALSE(blob.release()); // without another report
    EXPECT_TRUE(blob.error());
    EXPECT_EQ(contents(), "abcdef");
}

TEST_F(SqlBlobTest, CommitWaitsForTheRelease)
{
    sql::Transaction transaction(_database, sql::begin_immediate);
    Blob blob = open(sql::blob_write);
    EXPECT_TRUE(blob.write(0, {"ABC", 3}));
    EXPECT_FALSE(transaction.commit());
    expectReport(report::statementFailed(
        "commit", "commit",
        "5=SQLITE_BUSY: cannot commit transaction - SQL statements in progress"));
    EXPECT_TRUE(blob.release());
    EXPECT_TRUE(transaction.commit());
    EXPECT_EQ(contents(), "ABCdef");
}

// --- Its life

TEST_F(SqlBlobTest, MovedOneTakesAllAndTheOtherIsReleased)
{
    Blob first = open(sql::blob_read);
    Blob second(std::move(first));
    EXPECT_FALSE(first.isOpen()); // NOLINT(bugprone-use-after-move)
    EXPECT_EQ(pieceOf(second, 0, 6), "abcdef");
    first = open(sql::blob_read, 2);
    first = std::move(second);
    EXPECT_FALSE(second.isOpen()); // NOLINT(bugprone-use-after-move)
    EXPECT_EQ(pieceOf(first, 0, 6), "abcdef");
    Blob& same = first;
    first = std::move(same);
    EXPECT_EQ(pieceOf(first, 0, 6), "abcdef");
}

TEST_F(SqlBlobTest, FailureIsMovedToo)
{
    const std::string reason = std::string("4=SQLITE_ABORT: ") + changed;
    Blob first(_database, "file", "name", 2, sql::blob_read);
    Blob second = open(sql::blob_read);
    run("update file set name = 'new' where id = 1");
    char byte = '?';
    EXPECT_FALSE(second.read(0, &byte, 1));
    expectFailed(second, "read", reason);
    first = std::move(second);
    EXPECT_EQ(first.error().text(), changed);
    EXPECT_FALSE(first.read(0, &byte, 1));
    expectFailed(first, "read", reason);
    EXPECT_TRUE(first.release());
}

TEST_F(SqlBlobTest, OneOfAnotherDatabaseTakesItsPlace)
{
    sql::Database other;
    ASSERT_TRUE(other.open(":memory:", sql::Database::access_create, false, 0));
    test::run(other.getHandle(), "create table file (content); insert into file values ('other')");
    Blob blob = open(sql::blob_read);
    blob = Blob(other, "file", "content", 1, sql::blob_write);
    EXPECT_EQ(pieceOf(blob, 0, 5), "other");
    EXPECT_TRUE(blob.write(0, {"O", 1}));
    EXPECT_TRUE(blob.release());
    EXPECT_EQ(test::rows(other.getHandle(), "select content from file"), "Other");
}

TEST_F(SqlBlobTest, ReleaseMayBeRepeated)
{
    Blob blob = open(sql::blob_read);
    EXPECT_FALSE(blob.write(0, {"A", 1}));
    expectFailed(blob, "write", "21=SQLITE_MISUSE: the blob was opened to be read");
    EXPECT_TRUE(blob.release());
    EXPECT_FALSE(blob.error());
    EXPECT_TRUE(blob.release());
    EXPECT_FALSE(blob.error());
}

TEST_F(SqlBlobTest, ClosedDatabaseIsNotRead)
{
    sql::Database closed;
    const Blob blob(closed, "file", "content", 1, sql::blob_read);
    EXPECT_FALSE(blob.isOpen());
    expectFailed(blob, "Blob", "21=SQLITE_MISUSE: the database is not open");
}

TEST_F(SqlBlobTest, DatabaseThatWasClosedOrOpenedAnewIsNotRead)
{
    Blob blob = open(sql::blob_read);
    sqlite3* const leaked = _database.getHandle();
    _database.close();
    expectReport({report::asserted("void sql::Database::close()", "rc == SQLITE_OK")});
    char byte = '?';
    for (int i = 0; i < 2; ++i) {
        EXPECT_FALSE(blob.read(0, &byte, 1));
        expectFailed(blob, "read", "21=SQLITE_MISUSE: the database was closed or opened anew");
        ASSERT_TRUE(_database.open(":memory:", sql::Database::access_create, false, 0));
    }
    EXPECT_TRUE(blob.release());
    EXPECT_EQ(test::closeConnection(leaked), SQLITE_OK);
}

// --- Stops

TEST_F(SqlBlobTest, StopEndsItBetweenTwoPieces)
{
    const std::string stopped = "9=SQLITE_INTERRUPT: interrupted";
    run("update file set content = zeroblob(200000) where id = 1");
    sql::StopFlag stop(_database);
    Blob blob = open(sql::blob_write);
    int calls = 0;
    EXPECT_FALSE(blob.readAll([&](sql::Bytes) {
        if (++calls == 2)
            stop.set();
        return true;
    }));
    EXPECT_EQ(calls, 2);
    EXPECT_TRUE(blob.error().isStopped());
    expectFailed(blob, "readAll", stopped);
    EXPECT_FALSE(blob.writeAll([](void*, std::size_t) { return true; }));
    expectFailed(blob, "writeAll", stopped);
    EXPECT_FALSE(blob.moveTo(2));
    expectFailed(blob, "moveTo", stopped);
    const Blob other = open(sql::blob_read, 2);
    EXPECT_FALSE(other.isOpen());
    expectFailed(other, "Blob", stopped);
    stop.clear();
    EXPECT_TRUE(blob.readAll([](sql::Bytes) { return true; }));
    EXPECT_TRUE(blob.release());
}

// --- Files

class BlobFileTest : public test::ReportTest {
protected:
    BlobFileTest() : _other(_file)
    {
        _other.run("create table file (id integer primary key, content blob);"
                   "insert into file values (1, 'abcdef')");
        EXPECT_TRUE(_database.open(_file, sql::Database::access_read_write, false, 0));
    }

    std::string there()
    {
        return _other.rows("select content from file");
    }

    void expectReported(const std::string& operation, const std::string& reason)
    {
        expectReport(report::statementFailed(operation, content, reason));
    }

    const test::TemporaryDirectory _directory;
    const std::string _file = _directory.file("files.db");
    test::Connection _other;
    sql::Database _database;
};

TEST_F(BlobFileTest, ReleaseCommitsOutsideATransaction)
{
    Blob blob(_database, "file", "content", 1, sql::blob_write);
    EXPECT_TRUE(blob.write(0, {"ABC", 3}));
    EXPECT_EQ(there(), "abcdef");
    EXPECT_TRUE(blob.release());
    EXPECT_EQ(there(), "ABCdef");
}

// As it is documented: it is one transaction of the connection's.
TEST_F(BlobFileTest, OtherWritesAreCommittedWithItsRelease)
{
    Blob blob(_database, "file", "content", 1, sql::blob_write);
    test::run(_database.getHandle(), "insert into file values (2, 'two')");
    EXPECT_EQ(there(), "abcdef");
    EXPECT_TRUE(blob.release());
    EXPECT_EQ(there(), "abcdef\ntwo");
}

TEST_F(BlobFileTest, ReleaseThatCannotCommitSaysSoAndNothingIsStored)
{
    sqlite3_stmt* reader = nullptr;
    ASSERT_EQ(sqlite3_prepare_v2(_other, "select content from file", -1, &reader, nullptr),
              SQLITE_OK);
    ASSERT_EQ(sqlite3_step(reader), SQLITE_ROW);
    {
        Blob blob(_database, "file", "content", 1, sql::blob_write);
        EXPECT_TRUE(blob.write(0, {"ABC", 3}));
        EXPECT_FALSE(blob.release());
        EXPECT_TRUE(blob.error().isBusy());
        expectReported("release", "5=SQLITE_BUSY: database is locked");
        EXPECT_FALSE(blob.isOpen());
    }
    {
        Blob blob(_database, "file", "content", 1, sql::blob_write);
        EXPECT_TRUE(blob.write(0, {"ABC", 3}));
    }
    expectReported("~Blob", "5=SQLITE_BUSY: database is locked");
    {
        Blob blob(_database, "file", "content", 1, sql::blob_write);
        EXPECT_TRUE(blob.write(0, {"ABC", 3}));
        blob = Blob(_database, "file", "content", 1, sql::blob_read);
    }
    expectReported("operator=", "5=SQLITE_BUSY: database is locked");
    sqlite3_finalize(reader);
    EXPECT_EQ(there(), "abcdef");
}

TEST_F(BlobFileTest, BusyFileIsNotWritten)
{
    _other.run("begin immediate");
    const Blob blob(_database, "file", "content", 1, sql::blob_write);
    EXPECT_FALSE(blob.isOpen());
    EXPECT_TRUE(blob.error().isBusy());
    expectReported("Blob", "5=SQLITE_BUSY: database is locked");
    _other.run("commit");
}

TEST_F(BlobFileTest, LockedFileIsNotRead)
{
    _other.run("begin exclusive");
    const Blob blob(_database, "file", "content", 1, sql::blob_read);
    EXPECT_FALSE(blob.isOpen());
    expectReported("Blob", "5=SQLITE_BUSY: database is locked");
    _other.run("commit");
}

TEST_F(BlobFileTest, WhatCouldNotBeReadFailsOnceMoreAtTheEndAndIsReportedOnce)
{
    const std::string reason = "database disk image is malformed";
    _other.run("update file set content = zeroblob(20000)");
    std::string bytes = test::readFile(_file);
    bytes.replace(8192, 4, "\x7f\xff\xff\xff"); // where the second page of the blob is
    test::writeFile(_file, bytes);
    for (const bool releases : {true, false}) {
        Blob blob(_database, "file", "content", 1, sql::blob_read);
        EXPECT_FALSE(blob.readAll([](sql::Bytes) { return true; }));
        expectReported("readAll", "11=SQLITE_CORRUPT: " + reason);
        if (!releases)
            break;
        EXPECT_FALSE(blob.release());
        EXPECT_TRUE(blob.error().isCorrupt());
        EXPECT_EQ(blob.error().text(), reason);
        EXPECT_EQ(blob.error().statement(), content);
    }
}

TEST_F(BlobFileTest, ReadOnlyFileIsReadAndNotWritten)
{
    sql::Database reader;
    ASSERT_TRUE(reader.open(_file, sql::Database::access_read_only, false, 0));
    {
        Blob blob(reader, "file", "content", 1, sql::blob_read);
        EXPECT_EQ(pieceOf(blob, 3, 3), "def");
    }
    const Blob blob(reader, "file", "content", 1, sql::blob_write);
    EXPECT_FALSE(blob.isOpen());
    EXPECT_TRUE(blob.error().isReadOnly());
    expectReported("Blob", "8=SQLITE_READONLY: attempt to write a readonly database");
}

TEST_F(BlobFileTest, LargeOneTakesNoMoreMemoryThanASmallOne)
{
    const sql::integer size = test::longRun() ? 500000000 : 20000000;
    const sqlite3_int64 limit = 4 << 20; // the page cache's two, and what else there is
    ASSERT_TRUE(sql::Statement(_database, "update file set content = zeroblob(?)").run(size));
    sqlite3_memory_highwater(1);
    sql::integer written = 0;
    {
        Blob blob(_database, "file", "content", 1, sql::blob_write);
        EXPECT_TRUE(blob.writeAll([&](void* buffer, std::size_t count) {
            std::memset(buffer, static_cast<int>(written >> 16), count);
            written += static_cast<sql::integer>(count);
            return true;
        }));
        EXPECT_TRUE(blob.release());
    }
    EXPECT_EQ(written, size);
    sql::integer read = 0;
    Blob blob(_database, "file", "content", 1, sql::blob_read);
    EXPECT_TRUE(blob.readAll([&](sql::Bytes piece) {
        const char* const bytes = static_cast<const char*>(piece.data);
        const char expected = static_cast<char>(read >> 16);
        read += static_cast<sql::integer>(piece.size);
        return std::all_of(bytes, bytes + piece.size, [&](char c) { return c == expected; });
    }));
    EXPECT_EQ(read, size);
    EXPECT_LT(sqlite3_memory_highwater(0), limit);
}

} // namespace
