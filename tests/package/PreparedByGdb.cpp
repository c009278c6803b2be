// What the debugger looks at when the program has reached inspect(): objects of sqlprepared, each with
// the text that it is shown as where gdb can call functions of the process.

#include "SqlBlob.h"
#include "SqlGroupCommit.h"
#include "SqlPreparedTable.h"
#include "SqlStopFlag.h"
#include "SqlTypedTable.h"

#include <cmath>
#include <cstdlib>
#include <cstring>
#include <string>

namespace all {

sql::Database database;
// sql::Database, open, handle = 0x?
sql::Database closed;
// sql::Database, open, handle = 0x?
sql::Database other;
// sql::Database, open, handle = 0x?
sql::Database metered;
// sql::Database, open, handle = 0x?
sql::Database pictures;
// sql::Database, open, handle = 0x?

// Memory of an object's size that holds none.
template <class Object> const Object& filled(int byte)
{
    void* const memory = std::malloc(sizeof(Object));
    std::memset(memory, byte, sizeof(Object));
    return *static_cast<const Object*>(memory);
}

bool open(sql::Database& one)
{
    return one.open(":memory:", sql::Database::access_create, false, 0)
           && sql::runScript(one, "create table product (id integer primary key, name text unique);"
                                  "insert into product values (1, 'tea')");
}

const bool isOpen = open(database) && open(closed) && open(metered)
                    && other.open(":memory:", sql::Database::access_create, false, 0)
                    && open(pictures)
                    && sql::runScript(pictures, "create table picture (content);"
                                                "insert into picture values (zeroblob(3))");

// clang-format off
sql::Statement ready(database, "select id from product where name = ?");
// sql::Statement, ready = {text = "select id from product where name = NULL"}
sql::Statement bound(database, "select id from product where name = :name and id < :id");
// sql::Statement, ready = {text = "select id from product where name = 'it''s \"tea\"\n' and
// id < 3"}
sql::Statement atRow(database, "select id, name from product");
// sql::Statement, at a row = {text = "select id, name from product"}
sql::Statement mismatch(database, "select null from product");
// sql::Statement, failed, rc=20=SQLITE_MISMATCH: column null is NULL = {text = "select null
// from product"}
sql::Statement ended(database, "update product set name = name where id < ?");
// sql::Statement, ended, 1 changed = {text = "update product set name = name where id < ?"}
sql::Statement refused(database, "insert into product values (?, 'rum')");
// sql::Statement, failed, rc=1555=SQLITE_CONSTRAINT: UNIQUE constraint failed: product.id =
// {text = "insert into product values (?, 'rum')"}
sql::Statement unfit(database, "select ?");
// sql::Statement, a value could not be bound, rc=20=SQLITE_MISMATCH: the value of parameter 1
// is not a number = {text = "select NULL"}
sql::Statement misspelt(database, "select prize from product");
// sql::Statement, not prepared, rc=1=SQLITE_ERROR: no such column: prize = {text = "select
// prize from product"}
sql::Statement released(database, "select 1");
// sql::Statement, released
sql::Statement used(database, "select 2");
// sql::Statement, released, rc=21=SQLITE_MISUSE: the statement was released or moved from =
// {text = ""}
sql::Statement widowed(closed, "select 3");
// sql::Statement, ready = {text = "select 3"}
sql::Statement longText(database, "select 4" + std::string(1000, ' ') + "+ 5");

const sql::Field columns[] = {sql::Field("id", sql::type_int, sql::flag_primary_key),
                              sql::Field("name", sql::type_text, sql::flag_none), sql::Field()};
const sql::Table products(database.getHandle(), "product", columns);

sql::PreparedTable untouched(database, products);
// sql::PreparedTable product
sql::PreparedTable added(database, products);
// sql::PreparedTable product, 1 changed
sql::PreparedTable refusing(database, products);
// sql::PreparedTable product, rc=1555=SQLITE_CONSTRAINT: UNIQUE constraint failed: product.id
struct Product {
    sql::integer id = 0;
    sql::string name;
};
const auto mapped = sql::mapping<Product>("product", sql::autoKey<&Product::id>("id"),
                                          sql::column<&Product::name>("name"));
sql::TypedTable typed(database, mapped);
// sql::TypedTable product
sql::ObjectCursor<Product> objects = typed.select("where id < ?", 3);
// sql::ObjectCursor, ready = {text = "select `id`, `name` from `product` where id < 3"}
sql::RecordCursor cursor = added.select("where id < ?", 3);
// sql::RecordCursor, at a row = {text = "select `id`, `name` from `product` where id < 3"}
sql::RecordCursor drained = added.select("where id > 7");
// sql::RecordCursor, ended = {text = "select `id`, `name` from `product` where id > 7"}
sql::RecordCursor unreadable = added.select("where prize");
// sql::RecordCursor, not prepared, rc=1=SQLITE_ERROR: no such column: prize = {text = "select
// `id`, `name` from `product` where prize"}
sql::RecordCursor emptied = added.select();
// sql::RecordCursor, released
sql::RecordCursor taken = std::move(emptied);
// sql::RecordCursor, ready = {text = "select `id`, `name` from `product`"}

sql::Error none;
// no failure
sql::Error busy(517, "database is locked");
// rc=517=SQLITE_BUSY: database is locked
sql::Error odd(999999, "caf\303\251");
// rc=999999: caf\xc3\xa9

sql::Result<sql::integer> seven(7);
// sql::Result = {value = 7}
sql::Result<sql::integer> nothing;
// sql::Result, nothing
sql::Result<sql::Time> unknown(sql::Error(5, "database is locked"));
// sql::Result, rc=5=SQLITE_BUSY: database is locked
sql::Result<bool> done(true);
// sql::Result = {value = true}

sql::Transaction transaction(database, sql::begin_immediate);
// sql::Transaction, open
sql::Savepoint part(database);
// sql::Savepoint, open, in another
sql::Savepoint over(database);
// sql::Savepoint, ended
sql::Transaction second(database, sql::begin_deferred);
// sql::Transaction, not begun, rc=1=SQLITE_ERROR: cannot start a transaction within a transaction
sql::Transaction lost(other, sql::begin_deferred);
// sql::Transaction, rolled back by SQLite

sql::StopFlag still(closed);
// sql::StopFlag, not set
sql::StopFlag stopping(closed);
// sql::StopFlag, set, rc=21=SQLITE_MISUSE: the connection has a stop flag already
sql::Blob written(pictures, "picture", "content", 1, sql::blob_write);
// sql::Blob, to be written = {cell = "select `content` from main.`picture` where rowid = ?"}
sql::Blob beyond(pictures, "picture", "content", 1, sql::blob_read);
// sql::Blob, to be read, rc=25=SQLITE_RANGE: the piece is not within the blob = {cell = "select
// `content` from main.`picture` where rowid = ?"}
sql::Blob missing(pictures, "picture", "content", 2, sql::blob_read);
// sql::Blob, not open, rc=1=SQLITE_ERROR: no such rowid: 2 = {cell = "select `content` from
// main.`picture` where rowid = ?"}
sql::GroupCommit idle(metered, 10, std::chrono::seconds(5));
// sql::GroupCommit, none open
sql::GroupCommit writing(metered, 10, std::chrono::seconds(5));
// sql::GroupCommit, 1 pending
sql::GroupCommit kept(metered, 10, std::chrono::seconds(5));
// sql::GroupCommit, none open, rc=1=SQLITE_ERROR: cannot start a transaction within a transaction

const sql::Blob& zeroBlob = filled<sql::Blob>(0); // <error: not a text>
const sql::Blob& noiseBlob = filled<sql::Blob>(0xa5);
// <error: Cannot access memory at address NOISE>
const sql::Statement& zeroStatement = filled<sql::Statement>(0); // <error: not a text>
const sql::Error& zeroError = filled<sql::Error>(0);             // <error: not a text>
const sql::Result<sql::integer>& zeroResult = filled<sql::Result<sql::integer>>(0);
// <error: not a text>
const sql::Transaction& zeroScope = filled<sql::Transaction>(0); // <error: not a text>
const sql::PreparedTable& zeroTable = filled<sql::PreparedTable>(0); // <error: not a text>
const sql::RecordCursor& zeroCursor = filled<sql::RecordCursor>(0);  // <error: not a text>
const sql::StopFlag& zeroFlag = filled<sql::StopFlag>(0);            // <error: not a text>
const sql::Statement& noise = filled<sql::Statement>(0xa5);
// <error: Cannot access memory at address NOISE>
const sql::Error& noiseError = filled<sql::Error>(0xa5);
// <error: Cannot access memory at address NOISE>
const sql::GroupCommit& zeroGroup = filled<sql::GroupCommit>(0); // <error: not a text>
const sql::GroupCommit& noiseGroup = filled<sql::GroupCommit>(0xa5);
// <error: Cannot access memory at address NOISE>
const sql::PreparedTable& noiseTable = filled<sql::PreparedTable>(0xa5);
// <error: Cannot access memory at address NOISE>
const sql::RecordCursor& noiseCursor = filled<sql::RecordCursor>(0xa5);
// <error: Cannot access memory at address NOISE>
const sql::Transaction& noiseScope = filled<sql::Transaction>(0xa5);
// <error: Cannot access memory at address NOISE>
const sql::StopFlag& noiseFlag = filled<sql::StopFlag>(0xa5);
// <error: Cannot access memory at address NOISE>

// clang-format on

} // namespace all

extern "C" __attribute__((noinline)) void inspect()
{
    __asm__ volatile("" : : : "memory"); // not to be optimised away
}

int main()
{
    using namespace all;
    const std::string name("it's \"tea\"\n");
    sql::integer id = 0;
    bound.bind(":name", name).bind(":id", 3);
    bool worked = isOpen && atRow.next() && !mismatch.next(id) && ended.run(3) && !refused.run(1)
                  && misspelt.error();
    sql::Record tea(*products.fields());
    worked = worked && added.addRecord(tea) && cursor.next(tea) && !refusing.addRecord(tea)
             && !drained.next(tea) && drained.finished() && unreadable.error();
    unfit.bind(1, std::nan(""));
    released.release();
    used.release();
    worked = worked && !used.run() && over.commit() && sql::runScript(other, "rollback");
    stopping.set();
    const auto good = [] {
        return true;
    };
    worked = worked && writing.write(good) && !kept.write(good);
    char piece = 0;
    worked = worked && written.isOpen() && !beyond.read(3, &piece, 1) && missing.error();
    inspect();
    closed.close();
    return worked ? 0 : 1;
}
