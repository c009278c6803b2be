#ifndef SQLWRAPPER_TESTS_UNIT_STATEMENTTEST_H
#define SQLWRAPPER_TESTS_UNIT_STATEMENTTEST_H

#include "PreparedTest.h"
#include "Reports.h"
#include "SqlStatement.h"

#include <sqlite3.h>

#include <chrono>
#include <cstdint>
#include <limits>
#include <optional>
#include <string>

template <typename T> using Limits = std::numeric_limits<T>;
using Clock = std::chrono::system_clock;
template <typename Duration> using TimePoint = std::chrono::time_point<Clock, Duration>;

// Enums of every width, with the lowest and the highest that SQLite can hold.
enum Plain { plain_zero, plain_one };
enum class Int8 : std::int8_t { lowest = INT8_MIN, highest = INT8_MAX };
enum class Uint8 : std::uint8_t { lowest, highest = UINT8_MAX };
enum class Int16 : std::int16_t { lowest = INT16_MIN, highest = INT16_MAX };
enum class Uint16 : std::uint16_t { lowest, highest = UINT16_MAX };
enum class Int32 : std::int32_t { lowest = INT32_MIN, highest = INT32_MAX };
enum class Uint32 : std::uint32_t { lowest, highest = UINT32_MAX };
enum class Int64 : std::int64_t { lowest = INT64_MIN, highest = INT64_MAX };
enum class Uint64 : std::uint64_t { lowest, highest = INT64_MAX, above };
enum class Truth : bool { lowest, highest };
enum class Letter : char { a = 'a' };
enum class WideLetter : char32_t { lowest, highest = 0xffffffff };

// What the tests of statements share.
class StatementTest : public test::PreparedTest {
protected:
    // The statement's latest operation failed for this reason, "25=SQLITE_RANGE: no parameter", and
    // has reported so and nothing else.
    void expectFailure(const sql::Statement& statement, const std::string& operation,
                       const std::string& reason)
    {
        expectFailure(statement.error(), operation, reason, std::string(statement.text()));
    }

    void expectFailure(const sql::Error& error, const std::string& operation,
                       const std::string& reason, const std::string& text)
    {
        expectReport(test::report::statementFailed(operation, text, reason));
        expectError(error, reason, text);
    }

    static void expectError(const sql::Error& error, const std::string& reason,
                            const std::string& text)
    {
        EXPECT_TRUE(error);
        EXPECT_EQ(std::to_string(error.extendedCode()) + "=" + error.name() + ": " + error.text(),
                  reason);
        EXPECT_EQ(error.statement(), text);
    }

    // SQLite points at the byte, as of 3.38.
    static void expectOffset(const sql::Error& error, std::optional<int> offset)
    {
        EXPECT_EQ(error.offset(), sqlite3_libversion_number() >= 3038000 ? offset : std::nullopt)
            << error.statement();
    }
};

#endif
