#ifndef LOGGER_LOG_H
#define LOGGER_LOG_H

#include "Reading.h"

#include "SqlDatabase.h"
#include "SqlResult.h"

#include <string>
#include <vector>

constexpr std::chrono::hours whole_day(24);

// The beginning of the day of UTC that a time is in.
TimePoint midnightOf(TimePoint time);

// The database: readings, and what those of past days came to. Operations return false on failure,
// which error() tells.
class Log {
public:
    // Opens the file, brings it up to date, and sets how it is kept.
    bool open(const std::string& file, sql::Database::AccessMode mode);

    // Stores them all, or none.
    bool add(const std::vector<Reading>& readings);

    // Keeps the readings of so many days, the last of which is that of the latest reading or of this
    // time. What those before come to is stored in their place.
    bool tidy(int days, sql::integer& removed);
    bool tidy(TimePoint before, sql::integer& removed);

    // What the readings came to on each day, those that were removed included.
    bool days(std::vector<Day>& days);

    // The means of the sensor's readings on the day that begins at this time, each of so many
    // minutes.
    bool means(const std::string& sensor, TimePoint midnight, int minutes,
               std::vector<Mean>& means);

    // For who reads and writes by himself.
    sql::Database& database();

    const std::string& error() const;

private:
    bool fail(const std::string& what, const sql::Error& error);

    std::string _file;
    sql::Database _database;
    std::string _error;
};

#endif
