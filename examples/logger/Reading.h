#ifndef LOGGER_READING_H
#define LOGGER_READING_H

#include "SqlMapping.h"

typedef std::chrono::system_clock::time_point TimePoint;

// What a sensor told, and when.
struct Reading {
    sql::integer id = 0;
    TimePoint at; // to the second
    std::string sensor;
    double value = 0;
    std::optional<std::string> note;
};

// Reads a line such as "2009-12-31T23:59:59Z hall 21.5 window open". False if it is none.
bool parseReading(const std::string& line, Reading& reading);

inline constexpr auto reading_mapping = sql::mapping<Reading>(
    "reading", sql::autoKey<&Reading::id>("id", sql::flag_not_null),
    sql::column<&Reading::at>("at", sql::flag_not_null, sql::indexed),
    sql::column<&Reading::sensor>("sensor", sql::flag_not_null),
    sql::column<&Reading::value>("value", sql::flag_not_null), sql::column<&Reading::note>("note"));

// What the readings of a sensor came to on a day of UTC.
struct Day {
    std::string date; // "2009-12-31"
    std::string sensor;
    sql::integer count = 0;
    double least = 0;
    double mean = 0;
    double most = 0;
};

inline constexpr auto day_mapping = sql::mapping<Day>(
    "day", sql::key<&Day::date>("date", sql::flag_not_null),
    sql::key<&Day::sensor>("sensor", sql::flag_not_null),
    sql::column<&Day::count>("count", sql::flag_not_null),
    sql::column<&Day::least>("least", sql::flag_not_null),
    sql::column<&Day::mean>("mean", sql::flag_not_null),
    sql::column<&Day::most>("most", sql::flag_not_null), sql::without_rowid);

// The mean of some minutes of a day.
struct Mean {
    int minute = 0; // the first of them, from midnight on
    double value = 0;
};

inline constexpr auto mean_mapping = sql::mapping<Mean>("", sql::column<&Mean::minute>("minute"),
                                                        sql::column<&Mean::value>("value"));

#endif
