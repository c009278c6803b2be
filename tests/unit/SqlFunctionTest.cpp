#include "SqlFunction.h"

#include "SqlLiteral.h"
#include "SqlStatement.h"

#include "PreparedTest.h"
#include "Reports.h"

#include <gmock/gmock.h>

#include <cmath>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace {

namespace report = test::report;

using sql::addFunction;
using sql::Result;

class FunctionTest : public test::PreparedTest {
protected:
    // That the statement fails with this error, by default when it runs.
    void expectFailure(const std::string& statement, const std::string& reason,
                       const std::string& operation = "run")
    {
        sql::Statement failing(_database, statement);
        EXPECT_FALSE(failing.run());
        EXPECT_EQ(std::to_string(failing.error().extendedCode()) + "=" + failing.error().name()
                      + ": " + failing.error().text(),
                  reason);
        expectReport(report::statementFailed(operation, statement, reason));
    }
};

double half(double number)
{
    return number / 2;
}

struct Plain {
    int operator()(int number) const& noexcept
    {
        return number + 1;
    }
};

struct Counting {
    int operator()() &
    {
        return ++count;
    }
    int count = 0;
};

// --- Callables

TEST_F(FunctionTest, CallOperatorsMayBeOfObjectsThatStay)
{
    EXPECT_TRUE(addFunction(_database, "next", Plain()));
    EXPECT_TRUE(addFunction(_database, "count", Counting()));
    EXPECT_EQ(rows("select next(1), count(), count()"), "2|1|2");
}

TEST_F(FunctionTest, NullPointerIsRefused)
{
    double (*const none)(double) = nullptr;
    EXPECT_TRUE(addFunction(_database, "half", half));
    const Result<bool> added = addFunction(_database, "half", none);
    ASSERT_TRUE(added.failed());
    EXPECT_EQ(added.error().extendedCode(), SQLITE_MISUSE);
    EXPECT_EQ(added.error().text(), "the function is a null pointer");
    expectReport(report::statementFailed("addFunction", "half",
                                         "21=SQLITE_MISUSE: the function is a null pointer"));
    EXPECT_EQ(rows("select half(3)"), "1.5");
}

// --- Arguments and results

TEST_F(FunctionTest, NumbersGoInAndOut)
{
    EXPECT_TRUE(addFunction(_database, "half", half));
    EXPECT_TRUE(addFunction(_database, "sum", [](sql::integer a, int b) { return a + b; }));
    EXPECT_TRUE(addFunction(_database, "flip", [](bool truth) { return !truth; }));
    EXPECT_EQ(test::typedRows(_database.getHandle(),
                              "select half(3), half('5'), sum(9223372036854775800, -1), flip(0)"),
              "real 1.5|real 2.5|integer 9223372036854775799|integer 1");
}

TEST_F(FunctionTest, TextsAndBytesGoInAndOutWithAllTheirBytes)
{
    EXPECT_TRUE(
        addFunction(_database, "twice", [](const std::string& text) { return text + text; }));
    EXPECT_TRUE(addFunction(_database, "same", [](std::string_view text) { return text; }));
    EXPECT_TRUE(addFunction(_database, "bytes",
                            [](const std::vector<unsigned char>& bytes) { return bytes; }));
    EXPECT_EQ(rows("select hex(twice(cast(x'6100' as text))), same('') = '', typeof(bytes(x'')),"
                   " hex(bytes(x'00ff')), twice(7)"),
              "61006100|1|blob|00FF|77");
}

TEST_F(FunctionTest, NullGoesInAndOutAsOptional)
{
    EXPECT_TRUE(addFunction(_database, "next", [](std::optional<int> number) {
        return number ? std::optional<int>(*number + 1) : std::nullopt;
    }));
    EXPECT_TRUE(addFunction(_database, "empty", [] {}));
    EXPECT_TRUE(addFunction(_database, "none", [] { return Result<int>(); }));
    EXPECT_EQ(rows("select next(null), next(1), empty(), none()"), "NULL|2|NULL|NULL");
}

TEST_F(FunctionTest, ArgumentThatDoesNotFitIsNamed)
{
    EXPECT_TRUE(addFunction(_database, "pick", [](double, signed char b) { return b; }));
    expectFailure("select pick(1, null)", "20=SQLITE_MISMATCH: argument 2 of pick is NULL");
    expectFailure("select pick('tea', 1)", "20=SQLITE_MISMATCH: argument 1 of pick is no number");
    expectFailure("select pick(1, 128)",
                  "20=SQLITE_MISMATCH: argument 2 of pick is out of the variable's range");
}

TEST_F(FunctionTest, ResultThatIsNoValueIsAFailure)
{
    EXPECT_TRUE(addFunction(_database, "nan", [] { return std::nan(""); }));
    EXPECT_TRUE(addFunction(_database, "large", [] { return ~0ULL; }));
    expectFailure("select nan()", "20=SQLITE_MISMATCH: the result of nan is not a number");
    expectFailure("select large()",
                  "20=SQLITE_MISMATCH: the result of large is above the range of integers");
}

TEST_F(FunctionTest, OtherNumberOfArgumentsDoesNotCompile)
{
    EXPECT_TRUE(addFunction(_database, "half", half));
    for (const std::string call : {"half()", "half(1, 2)"}) {
        const std::string text = "select " + call;
        const sql::Statement wrong(_database, text);
        EXPECT_FALSE(wrong.isPrepared());
        expectReport(report::statementFailed(
            "Statement", text, "1=SQLITE_ERROR: wrong number of arguments to function half()"));
    }
}

TEST_F(FunctionTest, NumbersOfArgumentsAreFunctionsOfTheirOwn)
{
    EXPECT_TRUE(addFunction(_database, "f", [](int) { return 1; }));
    EXPECT_TRUE(addFunction(_database, "f", [](int, int) { return 2; }));
    EXPECT_EQ(rows("select f(0), f(0, 0)"), "1|2");
}

double third(double number) noexcept
{
    return number / 3;
}

struct Counter {
    int operator()(int step) noexcept
    {
        return count += step;
    }
    int count = 0;
};

struct Derived : Counter {};

struct Constant {
    int operator()() const noexcept
    {
        return 7;
    }
};

TEST_F(FunctionTest, WhatThrowsNothingIsCalledLikewise)
{
    EXPECT_TRUE(addFunction(_database, "third", third));
    EXPECT_TRUE(addFunction(_database, "third_of", &third));
    EXPECT_TRUE(addFunction(_database, "lambda", [](int a, int b) noexcept { return a - b; }));
    EXPECT_TRUE(addFunction(_database, "counted", [i = 0]() mutable noexcept { return ++i; }));
    EXPECT_TRUE(addFunction(_database, "constant", Constant()));
    EXPECT_EQ(rows("select third(6), third_of(3), lambda(7, 2), counted(), counted(), constant()"),
              "2.0|1.0|5|1|2|7");
}

TEST_F(FunctionTest, ObjectChangesACopyOfItself)
{
    Counter counter;
    EXPECT_TRUE(addFunction(_database, "count", counter));
    EXPECT_TRUE(addFunction(_database, "derived", Derived()));
    EXPECT_TRUE(addFunction(_database, "mutable", [i = 0](int step) mutable { return i += step; }));
    EXPECT_EQ(rows("select count(1), count(2), derived(5), derived(5), mutable(3), mutable(3)"),
              "1|3|5|10|3|6");
    EXPECT_EQ(counter.count, 0);
}

// --- Failures

TEST_F(FunctionTest, FailureOfTheFunctionIsThatOfTheStatement)
{
    EXPECT_TRUE(addFunction(_database, "root", [](double number) -> Result<double> {
        if (number < 0)
            return sql::Error(20, "no root of a negative number");
        return std::sqrt(number);
    }));
    EXPECT_EQ(rows("select root(4)"), "2.0");
    expectFailure("select root(-4)", "20=SQLITE_MISMATCH: no root of a negative number");
}

#ifdef __cpp_exceptions
TEST_F(FunctionTest, ExceptionIsTheFailureOfTheStatement)
{
    EXPECT_TRUE(addFunction(_database, "lose", []() -> int { throw std::runtime_error("lost"); }));
    EXPECT_TRUE(addFunction(_database, "number", []() -> int { throw 7; }));
    EXPECT_TRUE(addFunction(_database, "greedy", []() -> int { throw std::bad_alloc(); }));
    expectFailure("select lose()", "1=SQLITE_ERROR: lost");
    expectFailure("select number()", "1=SQLITE_ERROR: an exception of no known type");
    expectFailure("select greedy()", "7=SQLITE_NOMEM: out of memory");
}
#endif

// --- Names and lives

TEST_F(FunctionTest, NameIsTakenAsItStands)
{
    for (const std::string name : {"it's", "a \"b\"", "`", "a; drop", "\xc3\xa4"}) {
        EXPECT_TRUE(addFunction(_database, name, half));
        EXPECT_EQ(rows("select " + sql::quoteIdentifier(name) + "(3)"), "1.5");
    }
}

TEST_F(FunctionTest, NameWithAZeroByteOrTooLongIsAFailure)
{
    const std::string zero("a\0b", 3);
    EXPECT_TRUE(addFunction(_database, zero, half).error().isMisuse());
    expectReport(report::statementFailed("addFunction", "a",
                                         "21=SQLITE_MISUSE: there is a zero byte in the name"));
    EXPECT_TRUE(sql::removeFunction(_database, zero, 1).error().isMisuse());
    expectReport(report::statementFailed("removeFunction", "a",
                                         "21=SQLITE_MISUSE: there is a zero byte in the name"));
    const std::string name(256, 'x');
    EXPECT_TRUE(addFunction(_database, name, half).error().isMisuse());
    expectReport(report::statementFailed("addFunction", name,
                                         "21=SQLITE_MISUSE: bad parameter or other API misuse"));
}

TEST_F(FunctionTest, ObjectLivesUntilItIsReplacedRemovedOrTheDatabaseCloses)
{
    const auto token = std::make_shared<int>(7);
    const auto give = [token] {
        return *token;
    };
    const long own = token.use_count();
    EXPECT_TRUE(addFunction(_database, "f", give) && addFunction(_database, "g", give));
    EXPECT_EQ(token.use_count(), own + 2);
    EXPECT_TRUE(addFunction(_database, "f", [] { return 8; }));
    EXPECT_EQ(token.use_count(), own + 1);
    EXPECT_EQ(rows("select f(), g()"), "8|7");
    EXPECT_TRUE(sql::removeFunction(_database, "g", 0));
    EXPECT_EQ(token.use_count(), own);
    EXPECT_EQ(sql::removeFunction(_database, "g", 0).valueOr(false), true); // there is none
    EXPECT_EQ(addFunction(_database, "h", give).valueOr(false), true);
    _database.close();
    EXPECT_EQ(token.use_count(), own);
    EXPECT_TRUE(addFunction(_database, "h", give).error().isMisuse());
    expectReport(
        report::statementFailed("addFunction", "h", "21=SQLITE_MISUSE: the database is not open"));
    EXPECT_EQ(token.use_count(), own);
}

TEST_F(FunctionTest, FunctionInUseIsNeitherReplacedNorRemoved)
{
    const char busy[] = "5=SQLITE_BUSY: unable to delete/modify user-function due to active "
                        "statements";
    EXPECT_TRUE(addFunction(_database, "half", half));
    sql::Statement running(_database, "select half(1) union all select half(2)");
    EXPECT_TRUE(running.next());
    EXPECT_TRUE(addFunction(_database, "half", half).error().isBusy());
    expectReport(report::statementFailed("addFunction", "half", busy));
    EXPECT_TRUE(sql::removeFunction(_database, "half", 1).error().isBusy());
    expectReport(report::statementFailed("removeFunction", "half", busy));
    EXPECT_TRUE(running.next());
}

TEST_F(FunctionTest, OneThatIsDeterministicMayStandInAnIndex)
{
    sql::FunctionOptions options;
    options.isDeterministic = true;
    EXPECT_TRUE(addFunction(_database, "half", half, options));
    EXPECT_TRUE(addFunction(_database, "other", half));
    run("create table t (a); create index by_half on t (half(a))");
    const sql::Statement refused(_database, "create index by_other on t (other(a))");
    EXPECT_EQ(refused.error().text(),
              "non-deterministic functions prohibited in index expressions");
    _diagnostics.clear();
}

TEST_F(FunctionTest, TableWithAnIndexOverOneIsOnlyReadWithoutIt)
{
    sql::FunctionOptions options;
    options.isDeterministic = true;
    EXPECT_TRUE(addFunction(_database, "half", half, options));
    run("create table t (a); create index by_half on t (half(a)); insert into t values (3)");
    EXPECT_TRUE(sql::removeFunction(_database, "half", 1));
    EXPECT_EQ(rows("select a from t"), "3");
    const char unknown[] = "1=SQLITE_ERROR: unknown function: half()";
    expectFailure("insert into t values (4)", unknown, "Statement");
    expectFailure("pragma integrity_check", unknown, "Statement");
    EXPECT_TRUE(addFunction(_database, "half", half, options));
    EXPECT_EQ(rows("pragma integrity_check"), "ok");
}

TEST_F(FunctionTest, NameOfSqlitesOwnIsHidden)
{
    EXPECT_TRUE(addFunction(_database, "LOWER", [](std::string_view) { return "mine"; }));
    EXPECT_EQ(rows("select lower('TEA')"), "mine");
}

} // namespace
