#include "SqlStatement.h"

#include "Environment.h"
#include "StatementTest.h"

#include <chrono>
#include <cmath>
#include <cstring>
#include <ctime>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace {

using sql::Bytes;
using sql::Statement;

// A type of a program's own, and one that not every value of can be bound.
struct Money {
    sql::integer cents;
};
struct Percentage {
    int percent;
};

} // namespace

template <> struct sql::Binder<Money> {
    static sql::Argument argument(const Money& money)
    {
        return sql::Argument(money.cents);
    }
    static const char* read(const sql::Column& column, Money& money)
    {
        return sql::Binder<sql::integer>::read(column, money.cents);
    }
};

template <> struct sql::Binder<Percentage> {
    static sql::Argument argument(const Percentage& part)
    {
        if (part.percent > 100)
            return sql::Argument::unfit("is no percentage");
        return sql::Argument(part.percent / 100.0);
    }
};

namespace {

const std::string show = "select typeof(?1) || ' ' || hex(?1)";

class StatementBindTest : public StatementTest {
protected:
    // What SQLite sees of a value that is bound, whether it is copied or not.
    template <typename T>
    std::string seen(const T& value,
                     const std::string& sql = "select typeof(?1) || ' ' || quote(?1)")
    {
        Statement statement(_database, sql);
        statement.bind(1, value);
        const sql::Result<std::string> copied = statement.one<std::string>();
        const sql::Result<std::string> borrowed = statement.one<std::string>(value);
        EXPECT_EQ(copied.valueOr(copied.error().text()), borrowed.valueOr(borrowed.error().text()));
        return copied.valueOr(copied.error().text());
    }

    // The value can be bound neither way, and the failure sticks to the statement.
    template <typename T>
    void expectUnfit(const T& value, const std::string& reason, const std::string& sql = "select ?")
    {
        Statement statement(_database, sql);
        statement.bind(1, value);
        expectFailure(statement, "bind", reason);
        EXPECT_FALSE(statement.next());
        EXPECT_FALSE(statement.run());
        EXPECT_FALSE(statement.finished());
        expectReport({}); // it was reported already
        EXPECT_FALSE(statement.run(value));
        expectFailure(statement, "run", reason);
        EXPECT_TRUE(statement.one<int>(value).failed());
        expectFailure(statement, "one", reason);
    }
};

// --- Numbers

TEST_F(StatementBindTest, IntegersOfEveryWidthAndSign)
{
    EXPECT_EQ(seen(Limits<signed char>::min()), "integer -128");
    EXPECT_EQ(seen(Limits<signed char>::max()), "integer 127");
    EXPECT_EQ(seen(Limits<unsigned char>::max()), "integer 255");
    EXPECT_EQ(seen(Limits<short>::min()), "integer -32768");
    EXPECT_EQ(seen(Limits<unsigned short>::max()), "integer 65535");
    EXPECT_EQ(seen(Limits<int>::min()), "integer -2147483648");
    EXPECT_EQ(seen(Limits<int>::max()), "integer 2147483647");
    EXPECT_EQ(seen(Limits<unsigned>::max()), "integer 4294967295");
    EXPECT_EQ(seen(Limits<long>::min()), "integer " + std::to_string(Limits<long>::min()));
    EXPECT_EQ(seen(Limits<long>::max()), "integer " + std::to_string(Limits<long>::max()));
    EXPECT_EQ(seen(Limits<long long>::min()), "integer -9223372036854775808");
    EXPECT_EQ(seen(Limits<long long>::max()), "integer 9223372036854775807");
    EXPECT_EQ(seen(0), "integer 0");
    EXPECT_EQ(seen(0u), "integer 0");
    EXPECT_EQ(seen(-1LL), "integer -1");
}

TEST_F(StatementBindTest, UnsignedNumberUpToTheRangeOfIntegers)
{
    EXPECT_EQ(seen(9223372036854775807ull), "integer 9223372036854775807");
    expectUnfit(9223372036854775808ull,
                "20=SQLITE_MISMATCH: the value of parameter 1 is above the range of integers");
    expectUnfit(Limits<unsigned long long>::max(),
                "20=SQLITE_MISMATCH: the value of parameter 1 is above the range of integers");
}

TEST_F(StatementBindTest, TruthsAreOneAndZero)
{
    EXPECT_EQ(seen(true), "integer 1");
    EXPECT_EQ(seen(false), "integer 0");
}

TEST_F(StatementBindTest, EnumsAreTheirNumbers)
{
    EXPECT_EQ(seen(plain_one), "integer 1");
    EXPECT_EQ(seen(Int8::lowest), "integer -128");
    EXPECT_EQ(seen(Int8::highest), "integer 127");
    EXPECT_EQ(seen(Uint8::highest), "integer 255");
    EXPECT_EQ(seen(Int16::lowest), "integer -32768");
    EXPECT_EQ(seen(Int16::highest), "integer 32767");
    EXPECT_EQ(seen(Uint16::highest), "integer 65535");
    EXPECT_EQ(seen(Int32::lowest), "integer -2147483648");
    EXPECT_EQ(seen(Int32::highest), "integer 2147483647");
    EXPECT_EQ(seen(Uint32::highest), "integer 4294967295");
    EXPECT_EQ(seen(Int64::lowest), "integer -9223372036854775808");
    EXPECT_EQ(seen(Int64::highest), "integer 9223372036854775807");
    EXPECT_EQ(seen(Uint64::lowest), "integer 0");
    EXPECT_EQ(seen(Uint64::highest), "integer 9223372036854775807");
    EXPECT_EQ(seen(Truth::highest), "integer 1");
    EXPECT_EQ(seen(Letter::a), "integer 97");
    EXPECT_EQ(seen(WideLetter::highest), "integer 4294967295");
    expectUnfit(Uint64::above,
                "20=SQLITE_MISMATCH: the value of parameter 1 is above the range of integers");
}

TEST_F(StatementBindTest, RealsKeepEveryBit)
{
    for (const double real : {0.0, -0.0, 0.1, 1.0 / 3, -2.5, 5e-324, 2.2250738585072014e-308,
                              1.7976931348623157e308, -1.7976931348623157e308, 9007199254740993.0,
                              Limits<double>::infinity(), -Limits<double>::infinity()}) {
        Statement statement(_database, "select ?1, typeof(?1)");
        const sql::Result<std::tuple<double, std::string>> row = statement.one<double, std::string>(
            real);
        ASSERT_TRUE(row) << real;
        EXPECT_EQ(std::memcmp(&std::get<0>(*row), &real, sizeof real), 0) << real;
        EXPECT_EQ(std::get<1>(*row), "real") << real;
    }
    EXPECT_EQ(seen(2.5), "real 2.5");
    EXPECT_EQ(seen(Limits<double>::infinity(), "select ?1 = 9e999"), "1");
    EXPECT_EQ(seen(-Limits<double>::infinity(), "select ?1 = -9e999"), "1");
}

TEST_F(StatementBindTest, FloatIsTheDoubleOfItsValue)
{
    EXPECT_EQ(seen(2.5f), "real 2.5");
    EXPECT_EQ(seen(0.1f), seen(static_cast<double>(0.1f)));
    EXPECT_EQ(seen(Limits<float>::infinity(), "select ?1 = 9e999"), "1");
}

TEST_F(StatementBindTest, NanIsNoValue)
{
    const std::string why = "20=SQLITE_MISMATCH: the value of parameter 1 is not a number";
    expectUnfit(Limits<double>::quiet_NaN(), why);
    expectUnfit(-Limits<double>::quiet_NaN(), why);
    expectUnfit(Limits<double>::signaling_NaN(), why);
    expectUnfit(Limits<float>::quiet_NaN(), why);
    expectUnfit(std::optional<double>(std::nan("")), why);
}

// --- Texts and bytes

TEST_F(StatementBindTest, TextsOfEveryKind)
{
    char buffer[] = "tea";
    char* const pointer = buffer;
    const char* const constant = buffer;
    EXPECT_EQ(seen("tea"), "text 'tea'");
    EXPECT_EQ(seen(buffer), "text 'tea'");
    EXPECT_EQ(seen(pointer), "text 'tea'");
    EXPECT_EQ(seen(constant), "text 'tea'");
    EXPECT_EQ(seen(std::string("tea")), "text 'tea'");
    EXPECT_EQ(seen(std::string_view("teapot", 3)), "text 'tea'");
    EXPECT_EQ(seen(sql::string("it's \"quoted\"; --")), "text 'it''s \"quoted\"; --'");
}

TEST_F(StatementBindTest, EmptyTextIsNotNull)
{
    const char nothing[1] = {'\0'};
    EXPECT_EQ(seen(""), "text ''");
    EXPECT_EQ(seen(nothing), "text ''");
    EXPECT_EQ(seen(std::string()), "text ''");
    EXPECT_EQ(seen(std::string_view()), "text ''") << "its pointer is null";
    EXPECT_EQ(seen(std::string_view("", 0)), "text ''");
}

TEST_F(StatementBindTest, NullsOfEveryKind)
{
    EXPECT_EQ(seen(nullptr, "select typeof(?1)"), "null");
    EXPECT_EQ(seen(static_cast<const char*>(nullptr), "select typeof(?1)"), "null");
    EXPECT_EQ(seen(static_cast<char*>(nullptr), "select typeof(?1)"), "null");
    EXPECT_EQ(seen(std::optional<int>(), "select typeof(?1)"), "null");
    EXPECT_EQ(seen(std::optional<std::string>(), "select typeof(?1)"), "null");
    EXPECT_EQ(seen(std::optional<const char*>(nullptr), "select typeof(?1)"), "null");
    EXPECT_EQ(seen(std::optional<std::optional<int>>(), "select typeof(?1)"), "null");
}

TEST_F(StatementBindTest, OptionalIsItsValue)
{
    EXPECT_EQ(seen(std::optional<int>(0)), "integer 0");
    EXPECT_EQ(seen(std::optional<std::string>("")), "text ''");
    EXPECT_EQ(seen(std::optional<const char*>("tea")), "text 'tea'");
    EXPECT_EQ(seen(std::optional<Int8>(Int8::lowest)), "integer -128");
    EXPECT_EQ(seen(std::optional<std::optional<int>>(7)), "integer 7");
}

TEST_F(StatementBindTest, ZeroBytesStayInTextsThatKnowTheirLength)
{
    EXPECT_EQ(seen(std::string("a\0b", 3), show), "text 610062");
    EXPECT_EQ(seen(std::string_view("\0", 1), show), "text 00");
}

TEST_F(StatementBindTest, TextOfCEndsAtItsFirstZeroByte)
{
    char buffer[8] = "tea";
    buffer[4] = 'x';
    EXPECT_EQ(seen("a\0b", show), "text 61");
    EXPECT_EQ(seen(buffer, show), "text 746561");
}

TEST_F(StatementBindTest, BufferWithoutAZeroByteIsTakenWhole)
{
    const char buffer[3] = {'t', 'e', 'a'};
    EXPECT_EQ(seen(buffer, show), "text 746561");
}

TEST_F(StatementBindTest, BlocksOfBytes)
{
    const unsigned char bytes[] = {0, 255, 'a', 0};
    EXPECT_EQ(seen(Bytes{bytes, 4}), "blob X'00FF6100'");
    EXPECT_EQ(seen(Bytes{bytes, 0}), "blob X''");
    EXPECT_EQ(seen(Bytes{nullptr, 0}), "blob X''");
    EXPECT_EQ(seen(Bytes()), "blob X''");
    EXPECT_EQ(seen(std::vector<unsigned char>(bytes, bytes + 4)), "blob X'00FF6100'");
    EXPECT_EQ(seen(std::vector<unsigned char>()), "blob X''");
}

TEST_F(StatementBindTest, BindKeepsACopy)
{
    Statement statement(_database, "select ?1 || ?2, ?3");
    {
        std::string text = "tea";
        char buffer[] = "pot";
        std::vector<unsigned char> bytes(3, 'x');
        statement.bind(1, text).bind(2, buffer).bind(3, bytes);
        text = "rum";
        buffer[0] = 'd';
        bytes[0] = 'y';
    }
    std::string text;
    std::string bytes;
    ASSERT_TRUE(statement.next(text, bytes));
    EXPECT_EQ(text, "teapot");
    EXPECT_EQ(bytes, "xxx");
}

// --- The limit of a text's length

TEST_F(StatementBindTest, TextBeyondTheConnectionsLimitIsSqlitesFailure)
{
    sqlite3_limit(_database.getHandle(), SQLITE_LIMIT_LENGTH, 100);
    const std::string most(100, 'a');
    const std::string why = "18=SQLITE_TOOBIG: string or blob too big";
    EXPECT_EQ(seen(most, "select typeof(?1)"), "text");
    expectUnfit(most + 'a', why);
    expectUnfit(std::vector<unsigned char>(101), why);
}

TEST_F(StatementBindTest, TextBeyondSqlitesOwnLimitIsItsFailure)
{
    const char byte = 'a'; // SQLite looks at the size first
    for (const std::size_t size : {std::size_t(1) << 30, Limits<std::size_t>::max() / 4}) {
        expectUnfit(std::string_view(&byte, size), "18=SQLITE_TOOBIG: string or blob too big");
        expectUnfit(Bytes{&byte, size}, "18=SQLITE_TOOBIG: string or blob too big");
    }
}

TEST_F(StatementBindTest, TextOfAHundredMillionBytes)
{
    const std::string text(100000000, 'a');
    Statement statement(_database, "select typeof(?1), length(substr(?1, 99999991))");
    const sql::Result<std::tuple<std::string, int>> row = statement.one<std::string, int>(text);
    ASSERT_TRUE(row) << row.error().text();
    EXPECT_EQ(*row, std::make_tuple("text", 10));

    sqlite3_limit(_database.getHandle(), SQLITE_LIMIT_LENGTH, 99999999);
    expectUnfit(text, "18=SQLITE_TOOBIG: string or blob too big");
}

// --- Times

TEST_F(StatementBindTest, TimesAreWholeSeconds)
{
    using namespace std::chrono;
    EXPECT_EQ(seen(sql::Time(1262303999)), "integer 1262303999");
    EXPECT_EQ(seen(sql::Time(-1)), "integer -1");
    EXPECT_EQ(seen(sql::Time(Limits<time_t>::min())),
              "integer " + std::to_string(Limits<time_t>::min()));
    EXPECT_EQ(seen(sql::Time(Limits<time_t>::max())),
              "integer " + std::to_string(Limits<time_t>::max()));
    EXPECT_EQ(seen(Clock::from_time_t(1262303999)), "integer 1262303999");
    EXPECT_EQ(seen(TimePoint<seconds>(seconds(7))), "integer 7");
    EXPECT_EQ(seen(TimePoint<seconds>::min()), "integer -9223372036854775808");
    EXPECT_EQ(seen(TimePoint<seconds>::max()), "integer 9223372036854775807");
}

TEST_F(StatementBindTest, PartsOfASecondAreRoundedDown)
{
    using namespace std::chrono;
    EXPECT_EQ(seen(Clock::time_point(nanoseconds(1999999999))), "integer 1");
    EXPECT_EQ(seen(Clock::time_point(nanoseconds(-1))), "integer -1");
    EXPECT_EQ(seen(Clock::time_point::min()), "integer -9223372037");
    EXPECT_EQ(seen(Clock::time_point::max()), "integer 9223372036");
    EXPECT_EQ(seen(TimePoint<milliseconds>(milliseconds(2999))), "integer 2");
    EXPECT_EQ(seen(TimePoint<milliseconds>(milliseconds(-1))), "integer -1");
    EXPECT_EQ(seen(TimePoint<milliseconds>(milliseconds(-1000))), "integer -1");
    EXPECT_EQ(seen(TimePoint<microseconds>(microseconds(-1000001))), "integer -2");
    using Thirds = TimePoint<duration<int, std::ratio<1, 3>>>;
    EXPECT_EQ(seen(Thirds(Thirds::duration(-1))), "integer -1");
}

// --- Types of a program's own

TEST_F(StatementBindTest, TypeOfTheProgramsOwn)
{
    EXPECT_EQ(seen(Money{250}), "integer 250");
    EXPECT_EQ(seen(std::optional<Money>(Money{250})), "integer 250");
    EXPECT_EQ(seen(Percentage{50}), "real 0.5");
    expectUnfit(Percentage{101}, "20=SQLITE_MISMATCH: the value of parameter 1 is no percentage");
}

// --- Positions and names

TEST_F(StatementBindTest, NamesIncludeTheirSign)
{
    Statement statement(_database, "select :a || @b || $c || :a");
    EXPECT_EQ(statement.parameterCount(), 3);
    statement.bind(":a", 1).bind("@b", 2).bind(std::string("$c"), 3);
    EXPECT_EQ(statement.one<std::string>().valueOr("failed"), "1231");
}

TEST_F(StatementBindTest, PositionsCountFromOne)
{
    Statement statement(_database, "select ? || ?3 || ?2 || :name");
    EXPECT_EQ(statement.parameterCount(), 4);
    statement.bind(1, "a").bind(2, "b").bind(3, "c").bind(4, "d");
    EXPECT_EQ(statement.one<std::string>().valueOr("failed"), "acbd");
    EXPECT_EQ(statement.one<std::string>(1, 2, 3, 4).valueOr("failed"), "1324");
}

TEST_F(StatementBindTest, ParameterThatWasNotBoundIsNull)
{
    Statement statement(_database, "select typeof(?) || typeof(?)");
    statement.bind(2, 7);
    EXPECT_EQ(statement.one<std::string>().valueOr("failed"), "nullinteger");
}

TEST_F(StatementBindTest, UnknownPositionIsAFailure)
{
    for (const int position : {0, -1, 3, Limits<int>::max(), Limits<int>::min()}) {
        Statement statement(_database, "select ?, ?");
        statement.bind(position, 7);
        expectFailure(statement, "bind",
                      "25=SQLITE_RANGE: there is no parameter " + std::to_string(position)
                          + " among 2");
        EXPECT_FALSE(statement.next());
    }
}

TEST_F(StatementBindTest, UnknownPositionIsAFailureWhateverTheValue)
{
    Statement statement(_database, "select ?, ?");
    statement.bind(3, std::nan(""));
    expectFailure(statement, "bind", "25=SQLITE_RANGE: there is no parameter 3 among 2");
}

TEST_F(StatementBindTest, UnknownNameIsAFailure)
{
    for (const std::string name : {"limit", ":Limit", ":limi", ":limit ", "@limit", ""}) {
        Statement statement(_database, "select :limit, ?");
        statement.bind(name, 7);
        expectFailure(statement, "bind", "25=SQLITE_RANGE: there is no parameter " + name);
        EXPECT_FALSE(statement.run());
    }
}

TEST_F(StatementBindTest, FailureInAChainIsTheFirstOne)
{
    Statement statement(_database, "select ?, ?");
    statement.bind(1, 1).bind(3, 3).bind(4, 4).bind(":x", 5).bind(2, std::nan(""));
    expectFailure(statement, "bind", "25=SQLITE_RANGE: there is no parameter 3 among 2");
}

TEST_F(StatementBindTest, FailureSticksUntilTheReset)
{
    Statement statement(_database, "select ?1 || ?2");
    statement.bind(1, "a").bind(3, "x").bind(2, "b");
    expectFailure(statement, "bind", "25=SQLITE_RANGE: there is no parameter 3 among 2");
    statement.clearBindings();
    EXPECT_FALSE(statement.run());
    EXPECT_TRUE(statement.one<std::string>().failed());
    EXPECT_TRUE(statement.column(0).isNull());
    expectFailure(statement, "column", "21=SQLITE_MISUSE: column 0 was asked for outside a row");
    EXPECT_FALSE(statement.run());
    EXPECT_TRUE(statement.error());
    EXPECT_TRUE(statement.reset());
    EXPECT_FALSE(statement.error());
    statement.bind(2, "b");
    EXPECT_EQ(statement.one<std::string>().valueOr("failed"), "ab");
}

TEST_F(StatementBindTest, RunWithValuesForgetsAFailure)
{
    Statement statement(_database, "select ?1");
    statement.bind(2, 7);
    expectFailure(statement, "bind", "25=SQLITE_RANGE: there is no parameter 2 among 1");
    EXPECT_TRUE(statement.run(7));
    EXPECT_FALSE(statement.error());
    statement.bind(2, 7);
    expectFailure(statement, "bind", "25=SQLITE_RANGE: there is no parameter 2 among 1");
    EXPECT_EQ(statement.one<int>(7).valueOr(0), 7);
    EXPECT_FALSE(statement.error());
}

TEST_F(StatementBindTest, ResetKeepsTheValues)
{
    Statement statement(_database, "select ?1 || ?2");
    statement.bind(1, "a").bind(2, "b");
    EXPECT_TRUE(statement.reset());
    EXPECT_EQ(statement.one<std::string>().valueOr("failed"), "ab");
    statement.bind(2, "c");
    EXPECT_EQ(statement.one<std::string>().valueOr("failed"), "ac");
}

TEST_F(StatementBindTest, ClearedBindingsAreNull)
{
    Statement statement(_database, "select typeof(?1) || typeof(?2)");
    statement.bind(1, "a").bind(2, "b");
    statement.clearBindings();
    EXPECT_EQ(statement.one<std::string>().valueOr("failed"), "nullnull");
}

TEST_F(StatementBindTest, BindingAtARowIsAFailureAndEndsTheRun)
{
    Statement statement(_database, "select 1 where ? is null union all select 2");
    ASSERT_TRUE(statement.next());
    statement.bind(1, 7);
    const std::string why =
        "21=SQLITE_MISUSE: a value was bound at a row: reset the statement before";
    expectFailure(statement, "bind", why);
    EXPECT_FALSE(statement.next());
    ASSERT_TRUE(statement.reset());
    ASSERT_TRUE(statement.next());
    statement.bind("?", 7);
    expectFailure(statement, "bind", why);
    ASSERT_TRUE(statement.reset());
    ASSERT_TRUE(statement.next());
    statement.clearBindings();
    expectFailure(statement, "bind", why);
    ASSERT_TRUE(statement.reset());
    ASSERT_TRUE(statement.next());
    EXPECT_TRUE(statement.column(1).isNull());
    expectFailure(statement, "column", "25=SQLITE_RANGE: there is no column 1");
    statement.bind(1, 7);
    expectFailure(statement, "bind", why);
}

TEST_F(StatementBindTest, BindingAfterTheEndStartsAnew)
{
    Statement statement(_database, "select ?");
    int number = 0;
    statement.bind(1, 7);
    ASSERT_TRUE(statement.next(number));
    EXPECT_FALSE(statement.next(number));
    statement.bind(1, 8);
    ASSERT_TRUE(statement.next(number));
    EXPECT_EQ(number, 8);
    EXPECT_FALSE(statement.next(number));
    EXPECT_TRUE(statement.finished());
}

TEST_F(StatementBindTest, BindingAfterAFailureStartsAnew)
{
    Statement statement(_database, "select abs(?)");
    statement.bind(1, Limits<sql::integer>::min());
    EXPECT_FALSE(statement.next());
    expectFailure(statement, "next", "1=SQLITE_ERROR: integer overflow");
    EXPECT_FALSE(statement.next());
    int number = 0;
    statement.bind(1, -7);
    EXPECT_TRUE(statement.next(number));
    EXPECT_FALSE(statement.error());
    EXPECT_EQ(number, 7);
}

// --- Values that run() borrows

TEST_F(StatementBindTest, ValuesOfARunAreNotCopied)
{
    const void* address = nullptr;
    const auto note = [](sqlite3_context* context, int, sqlite3_value** values) {
        *static_cast<const void**>(sqlite3_user_data(context)) = sqlite3_value_blob(values[0]);
    };
    sqlite3_create_function(_database.getHandle(), "note", 1, SQLITE_UTF8, &address, note, nullptr,
                            nullptr);
    const std::string tea = "tea";
    Statement statement(_database, "select note(?)");
    EXPECT_TRUE(statement.run(tea));
    EXPECT_EQ(address, tea.data());
    EXPECT_TRUE(statement.bind(1, tea).run());
    EXPECT_NE(address, tea.data());
}

TEST_F(StatementBindTest, TooFewOrTooManyValuesAreAFailure)
{
    Statement statement(_database, "select ?, ?");
    EXPECT_FALSE(statement.run(1));
    expectFailure(statement, "run", "25=SQLITE_RANGE: there are 1 values for 2 parameters");
    EXPECT_FALSE(statement.run(1, 2, 3));
    expectFailure(statement, "run", "25=SQLITE_RANGE: there are 3 values for 2 parameters");
    EXPECT_TRUE((statement.one<int, int>(1).failed()));
    expectFailure(statement, "one", "25=SQLITE_RANGE: there are 1 values for 2 parameters");
    EXPECT_TRUE(statement.run(1, 2));

    Statement without(_database, "select 1");
    EXPECT_FALSE(without.run(1));
    expectFailure(without, "run", "25=SQLITE_RANGE: there are 1 values for 0 parameters");
}

TEST_F(StatementBindTest, ValuesOfARunAreGoneAfterIt)
{
    Statement statement(_database, "select typeof(?1) || typeof(?2)");
    const auto runs = [&] {
        const std::string tea = "tea";
        EXPECT_TRUE(statement.run(tea, 7));
    };
    std::string types;
    runs();
    ASSERT_TRUE(statement.reset());
    ASSERT_TRUE(statement.next(types));
    EXPECT_EQ(types, "nullnull");
    EXPECT_FALSE(statement.next());

    runs();
    EXPECT_EQ(statement.one<std::string>().valueOr("failed"), "nullnull");

    runs();
    statement.bind(2, 7);
    EXPECT_EQ(statement.one<std::string>().valueOr("failed"), "nullinteger");

    runs();
    EXPECT_EQ(statement.expandedText(), "select typeof(NULL) || typeof(NULL)");

    EXPECT_EQ(statement.one<std::string>("tea", 7).valueOr("failed"), "textinteger");
    EXPECT_EQ(statement.expandedText(), "select typeof(NULL) || typeof(NULL)");

    statement.bind(1, "tea"); // these are copies
    EXPECT_TRUE(statement.run());
    EXPECT_EQ(statement.expandedText(), "select typeof('tea') || typeof(NULL)");
}

TEST_F(StatementBindTest, RunWithoutValuesAfterARunWithThemHasNone)
{
    run("create table t (name text)");
    Statement insert(_database, "insert into t values (?)");
    const std::string tea = "tea";
    EXPECT_TRUE(insert.run(tea));
    EXPECT_TRUE(insert.run());
    EXPECT_EQ(rows("select * from t"), "tea\nNULL");
}

TEST_F(StatementBindTest, ValuesOfARunThatFailedAreGoneToo)
{
    run("create table t (id integer primary key, name text not null)");
    Statement statement(_database, "insert into t values (?, ?)");
    {
        const std::string tea = "tea";
        EXPECT_TRUE(statement.run(1, tea));
        EXPECT_FALSE(statement.run(1, tea));
    }
    expectFailure(statement, "run",
                  "1555=SQLITE_CONSTRAINT_PRIMARYKEY: UNIQUE constraint failed: t.id");
    EXPECT_EQ(statement.expandedText(), "insert into t values (NULL, NULL)");
}

TEST_F(StatementBindTest, ExpandedTextHasTheBoundValues)
{
    Statement statement(_database, "select ?1, :name, ?3, ?4, ?5");
    statement.bind(1, 7).bind(":name", "it's").bind(3, 2.5).bind(4, std::vector<unsigned char>{1});
    EXPECT_EQ(statement.expandedText(), "select 7, 'it''s', 2.5, x'01', NULL");
    EXPECT_EQ(statement.text(), "select ?1, :name, ?3, ?4, ?5");
}

TEST_F(StatementBindTest, ExpandedTextThatIsTooLongIsEmpty)
{
    Statement statement(_database, "select ?1, ?1, ?1");
    sqlite3_limit(_database.getHandle(), SQLITE_LIMIT_LENGTH, 100);
    statement.bind(1, std::string(50, 'a'));
    EXPECT_EQ(statement.expandedText(), "");
    _diagnostics.setLevel(9);
    EXPECT_TRUE(statement.run());
    expectReport({test::report::started("run", "select ?1, ?1, ?1")});
    _diagnostics.setLevel(3);
}

// --- What is logged

TEST_F(StatementBindTest, StatementsAreTracedAndTheirValuesAtTheHighestLevelAlone)
{
    const std::string sql = "select ? where ? is not null";
    for (const int level : test::trace_levels) {
        Statement statement(_database, sql);
        _diagnostics.setLevel(level);
        EXPECT_TRUE(statement.run("tea", 7));
        expectReport({test::report::started("run", sql),
                      test::report::withValues("run", "select 'tea' where 7 is not null")});
        EXPECT_EQ(statement.one<std::string>("tea", 7).valueOr("failed"), "tea");
        expectReport({test::report::started("one", sql),
                      test::report::withValues("one", "select 'tea' where 7 is not null")});
        statement.bind(1, "rum").bind(2, 8);
        expectReport({});
        EXPECT_TRUE(statement.next());
        expectReport({test::report::started("next", sql),
                      test::report::withValues("next", "select 'rum' where 8 is not null")});
        EXPECT_FALSE(statement.next());
        EXPECT_TRUE(statement.finished());
    }
}

TEST_F(StatementBindTest, NoFailureNamesAValue)
{
    run("create table t (id integer primary key, name text unique check (length(name) < 50))");
    const std::string sql = "insert into t values (?, ?)";
    for (const int level : test::trace_levels) {
        run("delete from t");
        Statement statement(_database, sql);
        _diagnostics.setLevel(0);
        EXPECT_TRUE(statement.run(4711, "secret"));
        _diagnostics.setLevel(level);
        EXPECT_FALSE(statement.run(4711, "secret"));
        expectReport(test::joined(
            {{test::report::started("run", sql),
              test::report::withValues("run", "insert into t values (4711, 'secret')")},
             test::report::statementFailed(
                 "run", sql,
                 "1555=SQLITE_CONSTRAINT_PRIMARYKEY: UNIQUE constraint failed: t.id")}));
        EXPECT_EQ(statement.error().statement(), sql);
        EXPECT_EQ(statement.error().text(), "UNIQUE constraint failed: t.id");
    }
    _diagnostics.setLevel(3);
}

// A limit: the reason is SQLite's.
TEST_F(StatementBindTest, ReasonOfSqlitesMayQuoteAValue)
{
    Statement detach(_database, "detach ?");
    EXPECT_FALSE(detach.run("secret"));
    expectFailure(detach, "run", "1=SQLITE_ERROR: no such database: secret");
}

} // namespace
