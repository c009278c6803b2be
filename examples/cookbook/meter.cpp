// A meter: stores readings as they come, one a line, with one wait for the disk for many of them.
//
//     meter DATABASE <READINGS
//
// A power cut costs the readings of the open group: a hundred at most, or those of five seconds.

#include "SqlGroupCommit.h"
#include "SqlStatement.h"

#include <cstdio>
#include <string>

#include <poll.h>
#include <unistd.h>

namespace {

constexpr int busy_timeout_ms = 100;
constexpr std::chrono::seconds patience(2);
constexpr int most_readings = 100;
constexpr std::chrono::seconds longest(5);

bool fail(const char* what, const sql::Error& error)
{
    std::fprintf(stderr, "meter: cannot %s: %s\n", what, error.text().c_str());
    return false;
}

class Meter {
public:
    explicit Meter(sql::Database& database)
        : _group(database, most_readings, longest, patience),
          _add(database, "insert into reading (value) values (?)")
    {
    }

    // What cannot be stored now is left out: the next one is tried.
    void store(const std::string& line)
    {
        if (!_group.write([&] { return _add.run(line); }))
            fail("store a reading", _group.error() ? _group.error() : _add.error());
    }

    // Until there is a line, or the group has waited long enough. Such a wait ends early at a signal.
    void wait() const
    {
        const auto due = _group.due();
        pollfd input = {STDIN_FILENO, POLLIN, 0};
        ::poll(&input, 1, due ? static_cast<int>(due->count()) : -1);
    }

    // A commit that fails because others have the file is tried again when the group is due again.
    void flushIfDue()
    {
        if (_group.due() == std::chrono::milliseconds(0))
            flush();
    }

    bool flush()
    {
        return _group.flush() || fail("commit", _group.error());
    }

    sql::integer lost() const
    {
        return _group.lost();
    }

private:
    sql::GroupCommit _group;
    sql::Statement _add;
};

bool hasInput()
{
    pollfd input = {STDIN_FILENO, POLLIN, 0};
    return ::poll(&input, 1, 0) > 0;
}

void storeAll(Meter& meter)
{
    std::string line;
    char bytes[4096];
    for (;;) {
        meter.wait();
        meter.flushIfDue();
        if (!hasInput())
            continue;
        const ssize_t count = ::read(STDIN_FILENO, bytes, sizeof bytes);
        if (count <= 0)
            return;
        for (const char byte : std::string(bytes, static_cast<std::size_t>(count))) {
            if (byte != '\n') {
                line += byte;
                continue;
            }
            meter.store(line);
            line.clear();
        }
    }
}

bool print(sql::Database& database, sql::integer lost)
{
    sql::Statement count(database, "select count(*) from reading");
    const auto stored = count.one<int>();
    if (!stored)
        return fail("count the readings", stored.error());
    std::printf("%d stored, %lld lost\n", *stored, lost);
    return true;
}

} // namespace

int main(int argc, char** argv)
{
    if (argc != 2) {
        std::fputs("usage: meter DATABASE <READINGS\n", stderr);
        return 2;
    }
    sql::Database database;
    if (!database.open(argv[1], sql::Database::access_create, false, busy_timeout_ms)) {
        fail("open the database", sql::lastError(database));
        return 1;
    }
    const sql::Result<int> made = sql::runScript(
        database, "create table if not exists reading (id integer primary key, value real not null"
                  " constraint number check (value + 0 = value))");
    if (!made) {
        fail("make the table", made.error());
        return 1;
    }
    Meter meter(database);
    storeAll(meter);
    return meter.flush() && print(database, meter.lost()) ? 0 : 1;
}
