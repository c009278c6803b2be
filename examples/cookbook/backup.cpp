// Backup and restore of a table, safe from a power failure at any moment.
//
//     backup DATABASE
//
// The backup is a database of its own beside it, DATABASE.bak.

#include "SqlDatabase.h"
#include "SqlTable.h"

#include <fcntl.h>
#include <unistd.h>

#include <cstdio>

namespace {

constexpr int busy_timeout_ms = 2000;

const sql::Field columns[] = {
    sql::Field("id", sql::type_int, sql::flag_primary_key),
    sql::Field("name", sql::type_text, sql::flag_not_null),
    sql::Field(),
};

// Makes the table in `to` a copy of the one in `from`, in one transaction: until it is committed
// the old rows are there. A failure leaves it to the connection's end, which rolls back.
bool copy(const sql::string& from, const sql::string& to)
{
    sql::Database source;
    sql::Database target;
    if (!source.open(from, sql::Database::access_read_only, false, busy_timeout_ms)
        || !target.open(to, sql::Database::access_create, false, busy_timeout_ms))
        return false;
    sql::Table original(source.getHandle(), "product", columns);
    sql::Table duplicate(target.getHandle(), "product", columns);
    // backup() goes on when it cannot drop the old table, so that is dropped before; where there is
    // none yet, an empty one.
    if (!target.transactionBegin() || !duplicate.create() || !duplicate.remove())
        return false;
    if (!duplicate.backup(original) || duplicate.totalRecordCount() < 0)
        return false;
    return target.transactionCommit();
}

// Waits until a file, or the list of files in a folder, is on the disk.
bool sync(const sql::string& name)
{
    const int file = ::open(name.c_str(), O_RDONLY | O_CLOEXEC);
    if (file < 0)
        return false;
    const bool isDone = ::fsync(file) == 0;
    ::close(file);
    return isDone;
}

sql::string folderOf(const sql::string& file)
{
    const sql::string::size_type slash = file.rfind('/');
    return slash == sql::string::npos ? "." : file.substr(0, slash + 1);
}

// Under another name until it is complete and on the disk: the last good backup is replaced in one
// step. No connection to the copy is open any more, whose locks sync() would end.
bool backUp(const sql::string& file)
{
    const sql::string unfinished = file + ".new";
    const sql::string finished = file + ".bak";
    if (!copy(file, unfinished) || !sync(unfinished))
        return false;
    if (std::rename(unfinished.c_str(), finished.c_str()) != 0)
        return false;
    return sync(folderOf(file));
}

bool fill(sql::Table& products)
{
    for (const char* name : {"tea", "pot", "towel"}) {
        sql::Record product(*products.fields());
        product.setString("name", name);
        if (!products.addRecord(product))
            return false;
    }
    return true;
}

// False when they cannot be counted.
bool printCount(const sql::Table& products, const char* what)
{
    const int count = products.totalRecordCount();
    if (count < 0)
        return false;
    std::printf("%d products %s\n", count, what);
    return true;
}

int fail(const char* what)
{
    std::fprintf(stderr, "backup: %s\n", what);
    return 1;
}

} // namespace

int main(int argc, char** argv)
{
    if (argc != 2) {
        std::fputs("usage: backup DATABASE\n", stderr);
        return 2;
    }
    const sql::string file = argv[1];
    sql::Database database;
    if (!database.open(file, sql::Database::access_create, false, busy_timeout_ms))
        return fail("cannot open the database");
    sql::Table products(database.getHandle(), "product", columns);
    if (database.getUserVersion() < 0 || !products.create() || !fill(products))
        return fail("cannot write the database");

    if (!backUp(file) || !printCount(products, "backed up"))
        return fail("cannot back up");
    if (!products.truncate() || !printCount(products, "left by mistake"))
        return fail("cannot empty the table");
    if (!copy(file + ".bak", file) || !printCount(products, "restored"))
        return fail("cannot restore");
    return 0;
}
