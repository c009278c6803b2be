#ifndef SQLWRAPPER_TESTS_UNIT_TYPEDTABLETEST_H
#define SQLWRAPPER_TESTS_UNIT_TYPEDTABLETEST_H

#include "SqlTypedTable.h"
#include "StatementTest.h"

#include <optional>
#include <string>
#include <vector>

// A struct with a key that SQLite chooses.
struct Reading {
    sql::integer id = 0;
    sql::string sensor;
    double value = 0;
    std::optional<sql::string> note;
    Clock::time_point at;
};

inline bool operator==(const Reading& one, const Reading& other)
{
    return one.id == other.id && one.sensor == other.sensor && one.value == other.value
           && one.note == other.note && one.at == other.at;
}

inline std::ostream& operator<<(std::ostream& stream, const Reading& reading)
{
    return stream << reading.id << '|' << reading.sensor << '|' << reading.value << '|'
                  << reading.note.value_or("none") << '|' << Clock::to_time_t(reading.at);
}

inline constexpr auto reading = sql::mapping<Reading>(
    "reading", sql::autoKey<&Reading::id>("id"),
    sql::column<&Reading::sensor>("sensor", sql::flag_not_null),
    sql::column<&Reading::value>("value"), sql::column<&Reading::note>("note"),
    sql::column<&Reading::at>("at", sql::indexed));

inline Reading readingOf(sql::integer id, const sql::string& sensor, double value)
{
    Reading made;
    made.id = id;
    made.sensor = sensor;
    made.value = value;
    made.at = Clock::time_point(std::chrono::seconds(1000 + id));
    return made;
}

// What the tests of typed tables share.
class TypedTest : public StatementTest {
protected:
    using StatementTest::expectFailure;

    std::string typedRows(const std::string& sql)
    {
        return test::typedRows(_database.getHandle(), sql);
    }

    // The text of the table or index in the file.
    std::string textOf(const std::string& name)
    {
        return rows("select sql from sqlite_master where name = '" + name + "'");
    }

    // The operation failed for this reason, and has reported so, and nothing else, with the statement
    // that the error has.
    void expectFailure(const sql::Error& error, const std::string& operation,
                       const std::string& reason)
    {
        expectFailure(error, operation, reason, error.statement());
    }

    // It has changed nothing either.
    void expectFailure(const sql::TableStatements& table, const std::string& operation,
                       const std::string& reason)
    {
        expectFailure(table.error(), operation, reason);
        EXPECT_EQ(table.changes(), 0);
        EXPECT_EQ(table.lastKey(), std::nullopt);
    }
};

#endif
