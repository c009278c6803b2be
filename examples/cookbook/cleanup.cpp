// A clean-up of old readings that ends when it is told to: by Ctrl+C, or by kill.
//
//     cleanup DATABASE
//
// It deletes them all, or none.

#include "SqlStatement.h"
#include "SqlStopFlag.h"

#include <csignal>
#include <cstdio>

namespace {

constexpr int busy_timeout_ms = 60000;

sql::StopFlag* stop_flag = nullptr;

void setStopFlag(int /*signal*/)
{
    stop_flag->set();
}

int fail(const char* what, const sql::Error& error)
{
    std::fprintf(stderr, "cleanup: cannot %s: %s\n", what, error.text().c_str());
    return 1;
}

// Ends what the connection is doing when a signal comes, as long as this lives.
class StopBySignal {
public:
    explicit StopBySignal(sql::Database& database) : _stop(database)
    {
        stop_flag = &_stop;
        handle(setStopFlag); // stop_flag->set()
    }
    ~StopBySignal()
    {
        handle(SIG_DFL); // before the flag is gone
    }
    StopBySignal(const StopBySignal&) = delete;
    StopBySignal& operator=(const StopBySignal&) = delete;

    bool isAttached() const
    {
        return _stop.isAttached();
    }

private:
    static void handle(void (*handler)(int))
    {
        for (const int number : {SIGINT, SIGTERM})
            std::signal(number, handler);
    }

    sql::StopFlag _stop;
};

// Stopped at any moment, it has deleted nothing.
int cleanUp(sql::Database& database)
{
    sql::Statement remove(database,
                          "delete from reading where at < strftime('%s', 'now', '-30 days') + 0");
    if (remove.run()) {
        std::printf("%lld readings deleted\n", remove.changes());
        return 0;
    }
    if (!remove.error().isStopped())
        return fail("delete the readings", remove.error());
    std::puts("stopped, nothing deleted");
    return 0;
}

} // namespace

int main(int argc, char** argv)
{
    if (argc != 2) {
        std::fputs("usage: cleanup DATABASE\n", stderr);
        return 2;
    }
    sql::Database database;
    if (!database.open(argv[1], sql::Database::access_create, false, busy_timeout_ms))
        return fail("open the database", sql::lastError(database));
    const sql::Result<int> made = sql::runScript(
        database, "create table if not exists reading (sensor text, at integer, value real)");
    if (!made)
        return fail("make the table", made.error());
    const StopBySignal stopping(database);
    return stopping.isAttached() ? cleanUp(database) : 1;
}
