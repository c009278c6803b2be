// Two processes that write to one file.
//
//     sharing DATABASE

#include "SqlDatabase.h"
#include "SqlRecordSet.h"
#include "SqlTable.h"

#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>

namespace {

// How long a statement waits for the other process; only then does it fail.
constexpr int busy_timeout_ms = 30000;
constexpr int additions = 20;

const sql::Field columns[] = {
    sql::Field("id", sql::type_int, sql::flag_primary_key),
    sql::Field("total", sql::type_int, sql::flag_not_null),
    sql::Field("doubled", sql::type_int, sql::flag_not_null),
    sql::Field(),
};

// A transaction that begins with a read and goes on with a write fails at once, without waiting,
// when the other process does the same: each would wait for the other. So the first statement
// writes. It needs no value that was read before it, and from then on the row is this process's
// alone.
bool change(sql::Table& counters)
{
    sql::RecordSet statement(counters.getHandle());
    if (!statement.query("update counter set total = total + 1 where id = 1"))
        return false;
    sql::Record* const counter = counters.getRecordByKeyId(sql::integer(1));
    if (counter == nullptr)
        return false;
    counter->setInteger("doubled", 2 * counter->getValue("total")->asInteger());
    return counters.updateRecord(*counter);
}

bool addOne(sql::Database& database, sql::Table& counters)
{
    if (!database.transactionBegin())
        return false;
    if (change(counters) && database.transactionCommit())
        return true;
    database.transactionRollback();
    return false;
}

// Each process has a connection of its own: none is ever taken across fork().
bool work(const char* file)
{
    sql::Database database;
    if (!database.open(file, sql::Database::access_read_write, false, busy_timeout_ms))
        return false;
    sql::Table counters(database.getHandle(), "counter", columns);
    for (int i = 0; i < additions; ++i)
        if (!addOne(database, counters))
            return false;
    return true;
}

bool prepare(const char* file)
{
    sql::Database database;
    if (!database.open(file, sql::Database::access_create, false, busy_timeout_ms))
        return false;
    sql::Table counters(database.getHandle(), "counter", columns);
    sql::Record counter(*counters.fields());
    counter.setInteger("id", 1);
    counter.setInteger("total", 0);
    counter.setInteger("doubled", 0);
    return database.getUserVersion() >= 0 && counters.create()
           && counters.addOrUpdateRecord(sql::integer(1), counter);
}

bool print(const char* file)
{
    sql::Database database;
    if (!database.open(file, sql::Database::access_read_only, false, busy_timeout_ms))
        return false;
    sql::Table counters(database.getHandle(), "counter", columns);
    const sql::Record* const counter = counters.getRecordByKeyId(sql::integer(1));
    if (counter != nullptr)
        std::printf("%s\n", counter->dump(false).c_str());
    return counter != nullptr;
}

int fail(const char* what)
{
    std::fprintf(stderr, "sharing: %s\n", what);
    return 1;
}

} // namespace

int main(int argc, char** argv)
{
    if (argc != 2) {
        std::fputs("usage: sharing DATABASE\n", stderr);
        return 2;
    }
    if (!prepare(argv[1]))
        return fail("cannot prepare the database");
    const pid_t child = ::fork();
    if (child == 0)
        ::_exit(work(argv[1]) ? 0 : 1);
    const bool isDone = child > 0 && work(argv[1]);
    int status = -1;
    if (child < 0 || ::waitpid(child, &status, 0) != child || status != 0 || !isDone)
        return fail("a process could not add");
    return print(argv[1]) ? 0 : fail("cannot read the database");
}
