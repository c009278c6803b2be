// A file as a blob of the database, stored and fetched piece by piece: however large it is, it takes
// no more memory than a piece.
//
//     files DATABASE <FILE >COPY

#include "SqlBlob.h"
#include "SqlStatement.h"
#include "SqlTransaction.h"

#include <cstdio>

#include <sys/stat.h>

namespace {

constexpr int busy_timeout_ms = 1000;

bool fail(const char* what, const sql::Error& error)
{
    std::fprintf(stderr, "files: cannot %s: %s\n", what, error.text().c_str());
    return false;
}

// The blob comes last in the table: who reads the columns before it need not read past it.
bool makeTable(sql::Database& database)
{
    const sql::Result<int> made = sql::runScript(
        database, "create table if not exists file (id integer primary key, content blob)");
    return made || fail("make the table", made.error());
}

// Makes room of the whole size, and fills it from the input. All of it is stored, or nothing.
bool store(sql::Database& database, sql::integer size, sql::integer& id)
{
    sql::Transaction transaction(database, sql::begin_immediate);
    if (!transaction.isOpen())
        return fail("begin", transaction.error());
    sql::Statement add(database, "insert into file (content) values (zeroblob(?))");
    if (!add.run(size))
        return fail("make room", add.error());
    id = *add.lastKey();
    sql::Blob blob(database, "file", "content", id, sql::blob_write);
    const auto input = [](void* buffer, std::size_t count) {
        return std::fread(buffer, 1, count, stdin) == count;
    };
    if (!blob.writeAll(input) || !blob.release())
        return fail("store the file", blob.error());
    return transaction.commit() || fail("commit", transaction.error());
}

bool fetch(sql::Database& database, sql::integer id)
{
    sql::Blob blob(database, "file", "content", id, sql::blob_read);
    const auto output = [](sql::Bytes piece) {
        return std::fwrite(piece.data, 1, piece.size, stdout) == piece.size;
    };
    return blob.readAll(output) || fail("fetch the file", blob.error());
}

} // namespace

int main(int argc, char** argv)
{
    if (argc != 2) {
        std::fputs("usage: files DATABASE <FILE >COPY\n", stderr);
        return 2;
    }
    sql::Database database;
    if (!database.open(argv[1], sql::Database::access_create, false, busy_timeout_ms)) {
        fail("open the database", sql::lastError(database));
        return 1;
    }
    struct stat input = {};
    sql::integer id = 0;
    if (!makeTable(database))
        return 1;
    if (::fstat(::fileno(stdin), &input) != 0 || !S_ISREG(input.st_mode)) {
        std::fputs("files: the input is no file\n", stderr);
        return 1;
    }
    return store(database, input.st_size, id) && fetch(database, id) ? 0 : 1;
}
