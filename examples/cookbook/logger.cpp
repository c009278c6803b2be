// A data logger: stores the readings that it gets in batches, and says of what it could not store why.
//
//     logger DATABASE <READINGS
//
// A reading is a line such as "2009-12-31T23:59:59Z hall 21.5".

#include "SqlLiteral.h"
#include "SqlStatement.h"
#include "SqlTransaction.h"

#include <cstdio>
#include <iostream>
#include <sstream>
#include <vector>

namespace {

constexpr int busy_timeout_ms = 100;
constexpr std::chrono::seconds patience(2);
constexpr std::size_t batch_size = 1000;

struct Reading {
    sql::Time at;
    std::string sensor;
    double value = 0;
};

bool fail(const char* what, const sql::Error& error)
{
    std::fprintf(stderr, "logger: cannot %s: %s\n", what, error.text().c_str());
    return false;
}

bool create(sql::Database& database)
{
    const sql::Result<int> run = sql::runScript(
        database,
        "create table if not exists reading (sensor text, at integer, value real not null,"
        " primary key (sensor, at)) without rowid");
    return run || fail("make the table", run.error());
}

class Log {
public:
    explicit Log(sql::Database& database)
        : _database(database),
          _add(database, "insert into reading (sensor, at, value) values (?, ?, ?)")
    {
    }

    // One transaction for all: it waits for the disk once. A reading that the table refuses is left
    // out; what else fails is no fault of a reading's, and leaves out the batch.
    bool add(const std::vector<Reading>& batch)
    {
        sql::Transaction transaction(_database, sql::begin_immediate, patience);
        if (!transaction.isOpen())
            return fail("begin", transaction.error());
        for (const Reading& reading : batch) {
            if (_add.run(reading.sensor, reading.at, reading.value))
                continue;
            if (!_add.error().isConstraint())
                return fail("store", _add.error());
            std::fprintf(stderr, "logger: left out %s of %s: %s\n", reading.sensor.c_str(),
                         sql::toIso8601(reading.at).c_str(), _add.error().text().c_str());
        }
        return transaction.commit() || fail("commit", transaction.error());
    }

private:
    sql::Database& _database;
    sql::Statement _add;
};

bool parse(const std::string& line, Reading& reading)
{
    std::istringstream words(line);
    std::string at;
    return words >> at >> reading.sensor >> reading.value && sql::fromIso8601(at, reading.at);
}

bool addAll(Log& log)
{
    std::vector<Reading> batch;
    std::string line;
    while (std::getline(std::cin, line)) {
        Reading reading;
        if (!parse(line, reading)) {
            std::fprintf(stderr, "logger: left out what is no reading: %s\n", line.c_str());
            continue;
        }
        batch.push_back(reading);
        if (batch.size() == batch_size) {
            if (!log.add(batch))
                return false;
            batch.clear();
        }
    }
    return log.add(batch);
}

bool print(sql::Database& database)
{
    sql::Statement sensors(database, "select sensor, count(*), min(value), max(value), max(at)"
                                     " from reading group by sensor order by sensor");
    Reading latest;
    int count = 0;
    double lowest = 0;
    double highest = 0;
    while (sensors.next(latest.sensor, count, lowest, highest, latest.at))
        std::printf("%s: %d from %.1f to %.1f, the latest of %s\n", latest.sensor.c_str(), count,
                    lowest, highest, sql::toIso8601(latest.at).c_str());
    return sensors.finished() || fail("read the readings", sensors.error());
}

} // namespace

int main(int argc, char** argv)
{
    if (argc != 2) {
        std::fputs("usage: logger DATABASE <READINGS\n", stderr);
        return 2;
    }
    sql::Database database;
    if (!database.open(argv[1], sql::Database::access_create, false, busy_timeout_ms)) {
        fail("open the database", sql::lastError(database));
        return 1;
    }
    if (!create(database))
        return 1;
    Log log(database);
    return addAll(log) && print(database) ? 0 : 1;
}
