// A queue that two processes take jobs from: each job is taken once, the oldest first.
//
//     queue DATABASE

#include "SqlPreparedTable.h"

#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <vector>

namespace {

constexpr int busy_timeout_ms = 100;
constexpr std::chrono::seconds patience(30);
constexpr int job_count = 5;

// A key that SQLite chooses is greater than all others: the oldest job has the smallest.
const sql::Field columns[] = {
    sql::Field("id", sql::type_int, sql::flag_primary_key),
    sql::Field("job", sql::type_text, sql::flag_not_null),
    sql::Field(),
};

bool fail(const char* what, const sql::Error& error)
{
    std::fprintf(stderr, "queue: cannot %s: %s\n", what, error.text().c_str());
    return false;
}

// The oldest job, which is no longer in the queue then; nothing if that is empty. Nobody else can
// write from the beginning of the transaction on, so nobody else takes the same job.
sql::Result<sql::string> take(sql::Database& database, sql::PreparedTable& queue,
                              sql::Record& entry)
{
    sql::Transaction transaction(database, sql::begin_immediate, patience);
    if (!transaction.isOpen())
        return transaction.error();
    sql::RecordCursor oldest = queue.select("order by id limit 1");
    if (!oldest.next(entry))
        return oldest.error(); // none where there was no job
    if (!queue.deleteRecord(entry.getKeyIdValue()->asInteger()))
        return queue.error();
    if (!transaction.commit())
        return transaction.error();
    return entry.getValue("job")->asString();
}

bool open(sql::Database& database, const char* file)
{
    return database.open(file, sql::Database::access_create, false, busy_timeout_ms)
           || fail("open the database", sql::lastError(database));
}

// Puts all jobs into the queue, or none.
bool fill(const char* file)
{
    sql::Database database;
    if (!open(database, file))
        return false;
    sql::Table table(database.getHandle(), "queue", columns);
    sql::PreparedTable queue(database, table);
    std::vector<sql::Record> jobs(job_count, sql::Record(*table.fields()));
    int number = 0;
    for (sql::Record& job : jobs)
        job.setString("job", "job " + sql::intToStr(++number));
    const auto work = [&] {
        return (table.create() || fail("make the table", sql::lastError(database)))
               && (queue.addRecords(jobs.begin(), jobs.end())
                   || fail("fill the queue", queue.error()));
    };
    const sql::Result<bool> done = sql::inTransaction(database, work, patience);
    return done || (done.failed() && fail("fill the queue", done.error()));
}

// Each process has a connection of its own: none is ever taken across fork().
bool work(const char* file)
{
    sql::Database database;
    if (!open(database, file))
        return false;
    const sql::Table table(database.getHandle(), "queue", columns);
    sql::PreparedTable queue(database, table);
    sql::Record entry(*table.fields());
    sql::Result<sql::string> job = take(database, queue, entry);
    for (; job; job = take(database, queue, entry)) {
        std::printf("%s done\n", job->c_str());
        std::fflush(stdout); // a whole line, whatever the other process prints
    }
    return !job.failed() || fail("take a job", job.error());
}

} // namespace

int main(int argc, char** argv)
{
    if (argc != 2) {
        std::fputs("usage: queue DATABASE\n", stderr);
        return 2;
    }
    if (!fill(argv[1]))
        return 1;
    const pid_t child = ::fork();
    if (child == 0)
        ::_exit(work(argv[1]) ? 0 : 1);
    const bool isDone = work(argv[1]);
    int status = -1;
    if (child < 0 || ::waitpid(child, &status, 0) != child) {
        std::fputs("queue: there was no second process\n", stderr);
        return 1;
    }
    return status == 0 && isDone ? 0 : 1;
}
