#include "SqlStatement.h"

#include "SqlValue.h"

#include "Environment.h"
#include "PlainNumbers.h"
#include "SqliteMemory.h"
#include "StatementTest.h"

#include <gmock/gmock.h>

#include <chrono>
#include <cmath>
#include <ctime>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <tuple>
#include <vector>

namespace {

using sql::Bytes;
using sql::Column;
using sql::integer;
using sql::Statement;
using testing::ElementsAre;

// To be read in front of a cell for which there shall be no memory.
struct Shortage {
    test::SqliteMemory& memory;
};

} // namespace

template <> struct sql::Binder<Shortage> {
    static const char* read(const sql::Column&, Shortage& shortage)
    {
        shortage.memory.watch(true);
        return nullptr;
    }
};

namespace {

const std::string is_null = "20=SQLITE_MISMATCH: column cell is NULL";
const std::string is_no_number = "20=SQLITE_MISMATCH: column cell is no number";
const std::string is_no_integer = "20=SQLITE_MISMATCH: column cell is no integer";
const std::string is_out_of_range =
    "20=SQLITE_MISMATCH: column cell is out of the variable's range";

class StatementReadTest : public StatementTest {
protected:
    // The value that a cell is read as, whose text in SQL is given.
    template <typename T> T read(const std::string& cell)
    {
        Statement statement(_database, "select " + cell + " as cell");
        T value{};
        EXPECT_TRUE(statement.next(value)) << cell << " " << statement.error().text();
        EXPECT_FALSE(statement.next()) << cell;
        EXPECT_TRUE(statement.finished()) << cell;
        return value;
    }

    // It cannot be read so, neither by next() nor by one(), and the variable stays as it is.
    template <typename T>
    void expectUnreadable(const std::string& cell, const std::string& reason, T value = T{})
    {
        SCOPED_TRACE(cell);
        Statement statement(_database, "select " + cell + " as cell");
        const T former = value;
        EXPECT_FALSE(statement.next(value));
        expectFailure(statement, "next", reason);
        EXPECT_EQ(value, former);
        EXPECT_FALSE(statement.finished());
        EXPECT_FALSE(statement.next(value)); // and no other report
        expectReport({});
        const sql::Result<T> one = statement.one<T>();
        EXPECT_TRUE(one.failed());
        expectFailure(one.error(), "one", reason, std::string(statement.text()));
    }

    // A variable from `lowest` to `highest`; those are read, and the cells beyond them are not.
    template <typename T>
    void expectRange(T lowest, T highest, const std::string& below, const std::string& above)
    {
        // SQL has no literal for the lowest of all.
        EXPECT_EQ(read<T>(std::to_string(static_cast<integer>(lowest) + 1) + " - 1"), lowest);
        EXPECT_EQ(read<T>(std::to_string(static_cast<integer>(highest))), highest);
        expectUnreadable<T>(below, is_out_of_range, highest);
        expectUnreadable<T>(above, is_out_of_range, highest);
    }

    template <typename T> void expectRange(const std::string& below, const std::string& above)
    {
        expectRange(Limits<T>::min(), Limits<T>::max(), below, above);
    }
    template <typename Enum> void expectEnum(const std::string& below, const std::string& above)
    {
        expectRange(Enum::lowest, Enum::highest, below, above);
    }
};

// --- Integers

TEST_F(StatementReadTest, IntegersOfEveryWidthAndSign)
{
    expectRange<signed char>("-129", "128");
    expectRange<unsigned char>("-1", "256");
    expectRange<short>("-32769", "32768");
    expectRange<unsigned short>("-1", "65536");
    expectRange<int>("-2147483649", "2147483648");
    expectRange<unsigned int>("-1", "4294967296");
    expectRange<long long>("-9223372036854777856.0", "9223372036854775808");
    if (sizeof(long) == 8)
        expectRange<long>("-9223372036854777856.0", "9223372036854775808");
    else
        expectRange<long>("-2147483649", "2147483648");
}

TEST_F(StatementReadTest, UnsignedIntegerIsReadUpToSqlitesRange)
{
    expectRange(0ull, 9223372036854775807ull, "-1", "9223372036854775808");
    expectUnreadable<unsigned long long>("'18446744073709551615'", is_out_of_range);
}

TEST_F(StatementReadTest, IntegersOutOfOtherCells)
{
    EXPECT_EQ(read<integer>("7.0"), 7);
    EXPECT_EQ(read<integer>("-0.0"), 0);
    EXPECT_EQ(read<integer>("1e3"), 1000);
    EXPECT_EQ(read<integer>("'7'"), 7);
    EXPECT_EQ(read<integer>("'-7'"), -7);
    EXPECT_EQ(read<integer>("'+7'"), 7);
    EXPECT_EQ(read<integer>("'007'"), 7);
    EXPECT_EQ(read<integer>("'7.0'"), 7);
    EXPECT_EQ(read<integer>("'7e0'"), 7);
    EXPECT_EQ(read<integer>("'9223372036854775807'"), 9223372036854775807);
    EXPECT_EQ(read<integer>("'-9223372036854775808'"), -9223372036854775807 - 1);
    EXPECT_EQ(read<integer>("'9007199254740993'"), 9007199254740993) << "no double";
    EXPECT_EQ(read<integer>("'-000000000000000000000000007'"), -7)
        << "more digits than of any integer";
    EXPECT_EQ(read<integer>("'+00000000000000000000'"), 0);
    EXPECT_EQ(read<integer>("'01234567890123456789'"), 1234567890123456789);
    EXPECT_EQ(read<integer>("-9223372036854775808.0"), -9223372036854775807 - 1);
}

TEST_F(StatementReadTest, NullIsNoNumber)
{
    expectUnreadable<integer>("null", is_null, 5);
    expectUnreadable<unsigned char>("null", is_null, 5);
    expectUnreadable<bool>("null", is_null, true);
    expectUnreadable<double>("null", is_null, 2.5);
    expectUnreadable<float>("null", is_null, 2.5f);
    expectUnreadable<Int8>("null", is_null, Int8::lowest);
}

TEST_F(StatementReadTest, FractionIsNoInteger)
{
    for (const char* const cell :
         {"2.5", "-0.5", "1e-3", "'2.5'", "'1e-3'", "1099511627775.5", "'-0.1'"})
        expectUnreadable<integer>(cell, is_no_integer);
    expectUnreadable<bool>("0.5", is_no_integer);
}

TEST_F(StatementReadTest, IntegerBeyondAllRanges)
{
    for (const char* const cell :
         {"9223372036854775808", "9223372036854775808.0", "-9223372036854777856.0", "1e300",
          "-1e300", "9e999", "-9e999", "'9223372036854775808'", "'-9223372036854775809'", "'1e300'",
          "'1e999'", "'-1e999'", "'9999999999999999999'", "'18446744073709551623'",
          "'-100000000000000000000000000007'"})
        expectUnreadable<integer>(cell, is_out_of_range);
}

const char* const no_numbers[] = {
    "''",         "' '",         "'seven'", "'7x'",           "' 7'",    "'7 '",   "'\t7'",
    "'0x10'",     "'7,5'",       "'1e'",    "'1e+'",          "'.'",     "'+'",    "'-'",
    "'+-7'",      "'-+7'",       "'++7'",   "'--7'",          "'inf'",   "'-inf'", "'nan'",
    "'infinity'", "'1 2'",       "'true'",  "'7' || char(0)", "char(0)", "x''",    "x'37'",
    "x'00'",      "zeroblob(3)", "'1_000'", "'\xd9\xa7'"};

TEST_F(StatementReadTest, TextsAndBlocksThatAreNoNumbers)
{
    for (const char* const cell : no_numbers) {
        expectUnreadable<integer>(cell, is_no_number, 5);
        expectUnreadable<double>(cell, is_no_number, 2.5);
        expectUnreadable<float>(cell, is_no_number, 2.5f);
        expectUnreadable<bool>(cell, is_no_number, true);
        expectUnreadable<std::optional<int>>(cell, is_no_number, 5);
    }
}

TEST_F(StatementReadTest, TruthsAreOneAndZero)
{
    EXPECT_TRUE(read<bool>("1"));
    EXPECT_FALSE(read<bool>("0"));
    EXPECT_TRUE(read<bool>("'1'"));
    EXPECT_TRUE(read<bool>("1.0"));
    expectUnreadable<bool>("2", is_out_of_range);
    expectUnreadable<bool>("-1", is_out_of_range, true);
}

TEST_F(StatementReadTest, EnumsAreTheirNumbers)
{
    EXPECT_EQ(read<Plain>("1"), plain_one);
    expectEnum<Int8>("-129", "128");
    expectEnum<Uint8>("-1", "256");
    expectEnum<Int16>("-32769", "32768");
    expectEnum<Uint16>("-1", "65536");
    expectEnum<Int32>("-2147483649", "2147483648");
    expectEnum<Uint32>("-1", "4294967296");
    expectEnum<Int64>("-9223372036854777856.0", "9223372036854775808");
    expectEnum<Uint64>("-1", "9223372036854775808");
    expectEnum<Truth>("-1", "2");
    expectEnum<WideLetter>("-1", "4294967296");
    expectRange(Letter(Limits<char>::min()), Letter(Limits<char>::max()),
                std::to_string(Limits<char>::min() - 1), std::to_string(Limits<char>::max() + 1));
    EXPECT_EQ(read<Letter>("97"), Letter::a);
    expectUnreadable<Letter>("'a'", is_no_number);
}

// --- Reals

TEST_F(StatementReadTest, RealsOutOfNumbersAndTexts)
{
    EXPECT_EQ(read<double>("2.5"), 2.5);
    EXPECT_EQ(read<double>("7"), 7.0);
    EXPECT_EQ(read<double>("-9223372036854775807 - 1"), -9223372036854775808.0);
    EXPECT_EQ(read<double>("9e999"), Limits<double>::infinity());
    EXPECT_EQ(read<double>("-9e999"), -Limits<double>::infinity());
    // Bound: SQLite's own reading of such a literal differs between processors.
    Statement largest(_database, "select ?");
    EXPECT_EQ(largest.one<double>(Limits<double>::max()).valueOr(0), Limits<double>::max());
    for (const char* const text : {"2.5", "-2.5", "+2.5", ".5", "5.", "1e3", "1E-3", "1.5e+3", "0",
                                   "0.1", "1.7976931348623157e308", "5e-324", "-0.0", "00.10"})
        EXPECT_EQ(read<double>("'" + std::string(text) + "'"), test::readDouble(text)) << text;
}

TEST_F(StatementReadTest, TextOfANumberBeyondTheRealsIsOutOfRange)
{
    expectUnreadable<double>("'1e400'", is_out_of_range);
    expectUnreadable<double>("'-1e400'", is_out_of_range);
    expectUnreadable<double>("'1" + std::string(400, '0') + "'", is_out_of_range);
}

TEST_F(StatementReadTest, FloatsAreTheNearestOnes)
{
    EXPECT_EQ(read<float>("0.1"), 0.1f);
    EXPECT_EQ(read<float>("'2.5'"), 2.5f);
    EXPECT_EQ(read<float>("16777217"), 16777216.0f);
    EXPECT_EQ(read<float>("3.4028234663852886e38"), Limits<float>::max());
    EXPECT_EQ(read<float>("-3.4028234663852886e38"), -Limits<float>::max());
    EXPECT_EQ(read<float>("9e999"), Limits<float>::infinity());
    EXPECT_EQ(read<float>("1e-300"), 0.0f);
    expectUnreadable<float>("3.5e38", is_out_of_range);
    expectUnreadable<float>("-3.5e38", is_out_of_range);
    expectUnreadable<float>("'1e39'", is_out_of_range);
}

TEST_F(StatementReadTest, NumbersLookTheSameInEveryLocale)
{
    const test::CommaLocale comma;
    EXPECT_EQ(read<double>("'2.5'"), 2.5);
    EXPECT_EQ(read<integer>("'1000000'"), 1000000);
    EXPECT_EQ(read<std::string>("2.5"), "2.5");
    expectUnreadable<double>("'2,5'", is_no_number);
}

// --- Texts and bytes

TEST_F(StatementReadTest, TextsOfEveryCell)
{
    EXPECT_EQ(read<std::string>("'tea'"), "tea");
    EXPECT_EQ(read<std::string>("''"), "");
    EXPECT_EQ(read<std::string>("7"), "7");
    EXPECT_EQ(read<std::string>("2.5"), "2.5");
    EXPECT_EQ(read<std::string>("'a' || char(0) || 'b'"), std::string("a\0b", 3));
    EXPECT_EQ(read<std::string>("x'610062ff'"), std::string("a\0b\xff", 4));
    EXPECT_EQ(read<std::string>("x''"), "");
    EXPECT_EQ(read<std::string>("zeroblob(2)"), std::string(2, '\0'));
    expectUnreadable<std::string>("null", is_null, "former");
}

TEST_F(StatementReadTest, BytesOfEveryCell)
{
    using Block = std::vector<unsigned char>;
    EXPECT_EQ(read<Block>("x'00ff61'"), (Block{0, 255, 'a'}));
    EXPECT_EQ(read<Block>("x''"), Block());
    EXPECT_EQ(read<Block>("zeroblob(2)"), Block(2));
    EXPECT_EQ(read<Block>("'tea'"), (Block{'t', 'e', 'a'}));
    EXPECT_EQ(read<Block>("''"), Block());
    EXPECT_EQ(read<Block>("17"), (Block{'1', '7'}));
    expectUnreadable<Block>("null", is_null, Block{1});
}

TEST_F(StatementReadTest, FormerContentsOfAVariableAreReplaced)
{
    Statement statement(_database, "select 'tea', x'01', 7");
    std::string text = "a longer text than that";
    std::vector<unsigned char> bytes(100);
    std::optional<int> number = 5;
    ASSERT_TRUE(statement.next(text, bytes, number));
    EXPECT_EQ(text, "tea");
    EXPECT_THAT(bytes, ElementsAre(1));
    EXPECT_EQ(number, 7);
}

TEST_F(StatementReadTest, ViewsLiveUntilTheNextRow)
{
    Statement statement(_database, "values ('tea', x'01'), ('rum', x'')");
    std::string_view text;
    Bytes bytes;
    ASSERT_TRUE(statement.next(text, bytes));
    EXPECT_EQ(text, "tea");
    ASSERT_EQ(bytes.size, 1u);
    EXPECT_EQ(*static_cast<const char*>(bytes.data), 1);
    ASSERT_TRUE(statement.next(text, bytes));
    EXPECT_EQ(text, "rum");
    EXPECT_EQ(bytes.size, 0u);
    EXPECT_FALSE(statement.next());
}

TEST_F(StatementReadTest, ViewsOfNullFail)
{
    Statement statement(_database, "select null as cell");
    std::string_view text = "former";
    Bytes bytes;
    EXPECT_FALSE(statement.next(text));
    expectFailure(statement, "next", is_null);
    EXPECT_EQ(text, "former");
    EXPECT_TRUE(statement.reset());
    EXPECT_FALSE(statement.next(bytes));
    expectFailure(statement, "next", is_null);
}

TEST_F(StatementReadTest, TextOfAnUtf16Database)
{
    sql::Database wide;
    ASSERT_TRUE(wide.open(":memory:", sql::Database::access_create, false, 0));
    test::run(wide.getHandle(), "pragma encoding = 'UTF-16'; create table t (name text)");
    Statement add(wide, "insert into t values (?)");
    EXPECT_TRUE(add.run("T\xc3\xa9\xe2\x82\xac"));
    Statement all(wide, "select name from t where name = ?");
    EXPECT_EQ(all.one<std::string>("T\xc3\xa9\xe2\x82\xac").valueOr("none"),
              "T\xc3\xa9\xe2\x82\xac");
    add.release();
    all.release();
}

// --- Optional variables

TEST_F(StatementReadTest, OptionalIsEmptyForNullAlone)
{
    EXPECT_EQ(read<std::optional<int>>("null"), std::nullopt);
    EXPECT_EQ(read<std::optional<int>>("0"), 0);
    EXPECT_EQ(read<std::optional<std::string>>("null"), std::nullopt);
    EXPECT_EQ(read<std::optional<std::string>>("''"), "");
    EXPECT_EQ(read<std::optional<double>>("2.5"), 2.5);
    EXPECT_EQ(read<std::optional<bool>>("0"), false);
    EXPECT_EQ(read<std::optional<Int8>>("127"), Int8::highest);
    expectUnreadable<std::optional<signed char>>("128", is_out_of_range);
    expectUnreadable<std::optional<int>>("2.5", is_no_integer, 5);
}

TEST_F(StatementReadTest, NullEmptiesAnOptional)
{
    Statement statement(_database, "values (1, 'a'), (null, null)");
    std::optional<int> number;
    std::optional<std::string> text;
    ASSERT_TRUE(statement.next(number, text));
    EXPECT_EQ(number, 1);
    EXPECT_EQ(text, "a");
    ASSERT_TRUE(statement.next(number, text));
    EXPECT_EQ(number, std::nullopt);
    EXPECT_EQ(text, std::nullopt);
}

// --- Times

TEST_F(StatementReadTest, Times)
{
    const auto seconds = [this](const std::string& cell) {
        Statement statement(_database, "select " + cell);
        sql::Time time(77);
        EXPECT_TRUE(statement.next(time)) << cell;
        return time.asInteger();
    };
    EXPECT_EQ(seconds("1262303999"), 1262303999);
    EXPECT_EQ(seconds("-1"), -1);
    EXPECT_EQ(seconds("'7'"), 7);
    EXPECT_EQ(seconds(std::to_string(INT32_MAX)), INT32_MAX);
    EXPECT_EQ(seconds(std::to_string(INT32_MIN)), INT32_MIN);
    if (sizeof(time_t) == 8) {
        EXPECT_EQ(seconds("253402300800"), 253402300800);
    }
}

TEST_F(StatementReadTest, TimeThatIsNoneFails)
{
    const auto expectNoTime = [this](const std::string& cell, const std::string& reason) {
        Statement statement(_database, "select " + cell + " as cell");
        sql::Time time(77);
        EXPECT_FALSE(statement.next(time));
        expectFailure(statement, "next", reason);
        EXPECT_EQ(time.asInteger(), 77);
    };
    expectNoTime("null", is_null);
    expectNoTime("'2009-12-31'", is_no_number);
    expectNoTime("2.5", is_no_integer);
    expectNoTime("9e18 * 2", is_out_of_range);
    if (sizeof(time_t) == 4) {
        expectNoTime("2147483648", is_out_of_range);
        expectNoTime("-2147483649", is_out_of_range);
    }
}

TEST_F(StatementReadTest, TimePointsOfSeveralUnits)
{
    using namespace std::chrono;
    EXPECT_EQ(read<Clock::time_point>("1262303999"), Clock::from_time_t(1262303999));
    EXPECT_EQ(read<Clock::time_point>("-1"), Clock::time_point(seconds(-1)));
    EXPECT_EQ(read<Clock::time_point>("9223372036"), Clock::time_point(seconds(9223372036)));
    EXPECT_EQ(read<Clock::time_point>("-9223372036"), Clock::time_point(seconds(-9223372036)));
    expectUnreadable<Clock::time_point>("9223372037", is_out_of_range);
    EXPECT_EQ(read<Clock::time_point>("-9223372037"), Clock::time_point::min());
    expectUnreadable<Clock::time_point>("-9223372038", is_out_of_range);
    expectUnreadable<Clock::time_point>("null", is_null);
    EXPECT_EQ(read<TimePoint<milliseconds>>("-7"), TimePoint<milliseconds>(milliseconds(-7000)));
    EXPECT_EQ(read<TimePoint<seconds>>("9223372036854775807"), TimePoint<seconds>::max());
    EXPECT_EQ(read<TimePoint<seconds>>("-9223372036854775807 - 1"), TimePoint<seconds>::min());
    using Narrow = TimePoint<duration<std::int32_t>>;
    EXPECT_EQ(read<Narrow>("2147483647"), Narrow::max());
    expectUnreadable<Narrow>("2147483648", is_out_of_range);
    using Unsigned = TimePoint<duration<std::uint32_t, std::milli>>;
    EXPECT_EQ(read<Unsigned>("4294967"), Unsigned(duration<std::uint32_t, std::milli>(4294967000)));
    expectUnreadable<Unsigned>("4294968", is_out_of_range);
    expectUnreadable<Unsigned>("-1", is_out_of_range);
    EXPECT_EQ(read<std::optional<Clock::time_point>>("null"), std::nullopt);
}

// --- Rows into variables

TEST_F(StatementReadTest, RowsIntoVariables)
{
    Statement statement(_database, "values (1, 'tea', 2.5), (2, 'rum', null)");
    integer id = 0;
    std::string name;
    std::optional<double> price;
    std::string rows;
    while (statement.next(id, name, price))
        rows += std::to_string(id) + name + (price ? test::fixedText(*price) : "none") + ";";
    EXPECT_EQ(rows, "1tea2.50000000;2rumnone;");
    EXPECT_TRUE(statement.finished());
    EXPECT_FALSE(statement.error());
}

TEST_F(StatementReadTest, FailureNamesTheColumn)
{
    Statement statement(_database, "values (1, 'tea'), (2, null), (3, 'rum')");
    int id = 0;
    std::string name;
    ASSERT_TRUE(statement.next(id, name));
    EXPECT_FALSE(statement.next(id, name));
    expectFailure(statement, "next", "20=SQLITE_MISMATCH: column column2 is NULL");
    EXPECT_TRUE(statement.error().isMismatch());
    EXPECT_FALSE(statement.next(id, name)) << "the third row is not reached";
    EXPECT_FALSE(statement.finished());
}

TEST_F(StatementReadTest, OtherNumberOfVariablesThanColumnsIsAFailure)
{
    Statement statement(_database, "select 1, 2");
    int a = 0;
    int b = 0;
    int c = 0;
    EXPECT_FALSE(statement.next(a));
    expectFailure(statement, "next", "25=SQLITE_RANGE: there are 1 variables for 2 columns");
    ASSERT_TRUE(statement.reset());
    EXPECT_FALSE(statement.next(a, b, c));
    expectFailure(statement, "next", "25=SQLITE_RANGE: there are 3 variables for 2 columns");
    EXPECT_TRUE(statement.one<int>().failed());
    expectFailure(statement, "one", "25=SQLITE_RANGE: there are 1 variables for 2 columns");
    ASSERT_TRUE(statement.reset());
    EXPECT_TRUE(statement.next(a, b));
}

// --- Single cells

// What every getter says of the only cell of a row.
std::string described(const Column& cell)
{
    const Bytes bytes = cell.asBytes();
    return (cell.isNull() ? "null " : "") + std::to_string(cell.asInteger()) + " "
           + test::fixedText(cell.asDouble()) + " " + (cell.asBool() ? "true" : "false") + " "
           + std::to_string(cell.asTime().asInteger()) + " '" + cell.asString() + "' '"
           + std::string(cell.asText()) + "' "
           + std::string(static_cast<const char*>(bytes.data), bytes.size);
}

TEST_F(StatementReadTest, EveryGetterOfACell)
{
    const auto cell = [this](const std::string& sql) {
        Statement statement(_database, "select " + sql);
        EXPECT_TRUE(statement.next());
        return described(statement.column(0));
    };
    EXPECT_EQ(cell("7"), "7 7.00000000 false 7 '7' '7' 7");
    EXPECT_EQ(cell("1"), "1 1.00000000 true 1 '1' '1' 1");
    EXPECT_EQ(cell("0"), "0 0.00000000 false 0 '0' '0' 0");
    EXPECT_EQ(cell("2.5"), "2 2.50000000 false 2 '2.5' '2.5' 2.5");
    EXPECT_EQ(cell("1.0"), "1 1.00000000 false 1 '1.0' '1.0' 1.0");
    EXPECT_EQ(cell("'tea'"), "0 0.00000000 false 0 'tea' 'tea' tea");
    EXPECT_EQ(cell("'1'"), "1 1.00000000 true 1 '1' '1' 1");
    EXPECT_EQ(cell("'01'"), "1 1.00000000 false 1 '01' '01' 01");
    EXPECT_EQ(cell("'true'"), "0 0.00000000 false 0 'true' 'true' true");
    EXPECT_EQ(cell("'3.5 apples'"), "3 3.50000000 false 3 '3.5 apples' '3.5 apples' 3.5 apples");
    EXPECT_EQ(cell("''"), "0 0.00000000 false 0 '' '' ");
    EXPECT_EQ(cell("null"), "null 0 0.00000000 false 0 '' '' ");
    EXPECT_EQ(cell("x'3761'"), "7 7.00000000 false 7 '7a' '7a' 7a");
    EXPECT_EQ(cell("x''"), "0 0.00000000 false 0 '' '' ");
}

TEST_F(StatementReadTest, GettersConvertAsThoseOfAValue)
{
    for (const std::string text : {"",
                                   "0",
                                   "1",
                                   "-1",
                                   "7",
                                   "+7",
                                   " 7",
                                   "7 ",
                                   "\n7",
                                   "3.5",
                                   "3.99",
                                   "-3.99",
                                   ".5",
                                   "1e3",
                                   "1e-3",
                                   "9223372036854775807",
                                   "-9223372036854775808",
                                   "9223372036854775808",
                                   "-9223372036854775809",
                                   "99999999999999999999999",
                                   "1e30",
                                   "01",
                                   "1.0",
                                   "true",
                                   "TRUE",
                                   "tea",
                                   "0x10",
                                   "0x",
                                   "inf",
                                   "-inf",
                                   "Infinity",
                                   "nan",
                                   "1,5",
                                   "1 000",
                                   "--1",
                                   "+-1",
                                   "-",
                                   "e5",
                                   "1e400",
                                   "-1e400",
                                   "1e-400",
                                   "1.7976931348623157e308",
                                   "2147483648"}) {
        sql::Value value(sql::type_text);
        value.setString(text);
        Statement statement(_database, "select ?");
        statement.bind(1, text);
        ASSERT_TRUE(statement.next());
        const Column cell = statement.column(0);
        EXPECT_EQ(cell.isNull(), value.isNull()) << text;
        EXPECT_EQ(cell.asInteger(), value.asInteger()) << text;
        if (std::isnan(value.asDouble())) {
            EXPECT_TRUE(std::isnan(cell.asDouble())) << text;
        } else {
            EXPECT_EQ(cell.asDouble(), value.asDouble()) << text;
        }
        EXPECT_EQ(cell.asBool(), value.asBool()) << text;
        EXPECT_EQ(cell.asTime().asInteger(), value.asTime().asInteger()) << text;
        EXPECT_EQ(cell.asString(), value.asString()) << text;
    }
}

TEST_F(StatementReadTest, GetterOfANumberKeepsEveryBit)
{
    Statement statement(_database, "select ?");
    const auto got = [&](auto number) {
        EXPECT_TRUE(statement.reset());
        statement.bind(1, number);
        EXPECT_TRUE(statement.next());
        return statement.column(0).asDouble();
    };
    for (const double number : {0.1 + 0.2, -1.0 / 3, 5e-324, Limits<double>::max()})
        EXPECT_EQ(got(number), number);
    EXPECT_EQ(got(9007199254740993), 9007199254740992.0);
}

TEST_F(StatementReadTest, GettersKeepZeroBytes)
{
    Statement statement(_database, "select 'a' || char(0) || 'b'");
    ASSERT_TRUE(statement.next());
    EXPECT_EQ(statement.column(0).asString(), std::string("a\0b", 3));
    EXPECT_EQ(statement.column(0).asText(), std::string_view("a\0b", 3));
    EXPECT_EQ(statement.column(0).asBytes().size, 3u);
}

TEST_F(StatementReadTest, CellsByPositionAndByName)
{
    Statement statement(_database, "select 1 as id, 'tea' as name, 2.5 as price");
    EXPECT_EQ(statement.columnCount(), 3);
    EXPECT_EQ(statement.columnName(0), "id");
    EXPECT_EQ(statement.columnName(2), "price");
    EXPECT_EQ(statement.columnName(3), "");
    EXPECT_EQ(statement.columnName(-1), "");
    ASSERT_TRUE(statement.next());
    for (int i = 0; i < 3; ++i) { // in the columns' order, in another, and the same again
        EXPECT_EQ(statement.column("id").asInteger(), 1);
        EXPECT_EQ(statement.column("name").asText(), "tea");
        EXPECT_EQ(statement.column("price").asDouble(), 2.5);
        EXPECT_EQ(statement.column("price").asDouble(), 2.5);
        EXPECT_EQ(statement.column("name").asString(), "tea");
        EXPECT_EQ(statement.column(std::string("id")).asInteger(), 1);
        EXPECT_EQ(statement.column(2).asDouble(), 2.5);
    }
}

TEST_F(StatementReadTest, RepeatedNameIsTheFirstColumn)
{
    Statement statement(_database, "select 1 as a, 2 as b, 3 as a, 4 as b");
    ASSERT_TRUE(statement.next());
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(statement.column("b").asInteger(), 2);
        EXPECT_EQ(statement.column("a").asInteger(), 1);
        EXPECT_EQ(statement.column("b").asInteger(), 2);
    }
}

TEST_F(StatementReadTest, CellOutsideARowIsNullAndAFailure)
{
    Statement statement(_database, "select 1 as id");
    const auto expectNone = [&](const Column& cell, const std::string& which) {
        expectFailure(statement, "column",
                      "21=SQLITE_MISUSE: column " + which + " was asked for outside a row");
        EXPECT_EQ(described(cell), "null 0 0.00000000 false 0 '' '' ");
        EXPECT_FALSE(statement.finished());
    };
    expectNone(statement.column(0), "0");
    expectNone(statement.column("id"), "id");
    EXPECT_FALSE(statement.next()) << "the failure stays until the reset";
    ASSERT_TRUE(statement.reset());
    ASSERT_TRUE(statement.next());
    EXPECT_FALSE(statement.next());
    EXPECT_TRUE(statement.finished());
    expectNone(statement.column(0), "0");
    EXPECT_TRUE(statement.run());
}

TEST_F(StatementReadTest, CellWithoutAConnectionReadsAsNull)
{
    sql::Database none;
    Statement statement(none, "select 1");
    std::string text = "tea";
    EXPECT_STREQ(statement.column(0).read(text), "is NULL");
    EXPECT_EQ(text, "tea");
    _diagnostics.clear();
}

TEST_F(StatementReadTest, CellOutsideARowReadsAsNull)
{
    Statement statement(_database, "select 1");
    const Column cell = statement.column(0);
    expectReport(test::report::statementFailed(
        "column", "select 1", "21=SQLITE_MISUSE: column 0 was asked for outside a row"));
    integer number = 5;
    double real = 5;
    float narrow = 5;
    std::string text = "5";
    std::string_view view = "5";
    Bytes bytes;
    std::vector<unsigned char> block;
    std::optional<int> optional = 5;
    EXPECT_STREQ(cell.read(number, 0, 9), "is NULL");
    EXPECT_STREQ(cell.read(real), "is NULL");
    EXPECT_STREQ(cell.read(narrow), "is NULL");
    EXPECT_STREQ(cell.read(text), "is NULL");
    EXPECT_STREQ(cell.read(view), "is NULL");
    EXPECT_STREQ(cell.read(bytes), "is NULL");
    EXPECT_STREQ(cell.read(block), "is NULL");
    EXPECT_STREQ(sql::Binder<bool>::read(cell, *std::make_unique<bool>()), "is NULL");
    EXPECT_EQ(sql::Binder<std::optional<int>>::read(cell, optional), nullptr);
    EXPECT_EQ(optional, std::nullopt);
    EXPECT_EQ(number, 5);
}

TEST_F(StatementReadTest, CellBeyondTheColumnsIsNullAndAFailureButTheRowStays)
{
    Statement statement(_database, "values (1), (2)");
    ASSERT_TRUE(statement.next());
    const std::string_view before = statement.column(0).asText();
    for (const int index : {1, -1, 2000, Limits<int>::max(), Limits<int>::min()}) {
        EXPECT_EQ(described(statement.column(index)), "null 0 0.00000000 false 0 '' '' ");
        expectFailure(statement, "column",
                      "25=SQLITE_RANGE: there is no column " + std::to_string(index));
    }
    for (const std::string name : {"Column1", "column", "column1 ", ""}) {
        EXPECT_TRUE(statement.column(name).isNull());
        expectFailure(statement, "column", "25=SQLITE_RANGE: there is no column " + name);
    }
    EXPECT_EQ(before, "1");
    EXPECT_EQ(statement.column(0).asInteger(), 1);
    EXPECT_FALSE(statement.next()) << "so that a loop ends";
    EXPECT_FALSE(statement.finished());
    expectError(statement.error(), "25=SQLITE_RANGE: there is no column ", "values (1), (2)");
}

// --- Lack of memory

// Texts are stored in UTF-16 here, so that each takes memory to be read, as those of numbers do.
class NoMemoryTest : public StatementReadTest {
protected:
    NoMemoryTest()
    {
        _database.close(); // SQLite starts anew
        _memory.emplace();
        EXPECT_TRUE(_database.open(":memory:", sql::Database::access_create, false, 0));
        run("pragma encoding = 'UTF-16'; create table t (cell)");
    }

    void TearDown() override
    {
        _database.close();
        _memory.reset();
        StatementReadTest::TearDown();
    }

    // What it returns while SQLite gets no memory.
    template <typename Work> auto starved(Work work)
    {
        _memory->refuse(1, true);
        const auto result = work(*_memory);
        _memory->watch(false);
        EXPECT_TRUE(_memory->hasRefused());
        return result;
    }

    template <typename T> void expectNotRead(const std::string& cell)
    {
        SCOPED_TRACE(cell);
        run("insert into t values (" + cell + ")");
        Statement statement(_database, "select 1, cell from t");
        T value{};
        EXPECT_FALSE(starved([&](test::SqliteMemory& memory) {
            Shortage shortage{memory};
            return statement.next(shortage, value);
        }));
        expectNoMemory(statement, "next");
        EXPECT_EQ(value, T{});
        EXPECT_FALSE(statement.next());
        int one = 0;
        EXPECT_TRUE(statement.reset());
        EXPECT_TRUE(statement.next(one, value)) << "there is memory again";
        EXPECT_TRUE(statement.reset());
        run("delete from t");
    }

    void expectNoMemory(const Statement& statement, const std::string& operation)
    {
        const std::string reason = "7=SQLITE_NOMEM: out of memory";
        expectReport(
            test::report::statementFailed(operation, std::string(statement.text()), reason));
        expectError(statement.error(), reason, "");
    }

private:
    std::optional<test::SqliteMemory> _memory;
};

TEST_F(NoMemoryTest, CellIsNotRead)
{
    for (const char* const number : {"7", "2.5"}) {
        expectNotRead<std::string>(number);
        expectNotRead<std::vector<unsigned char>>(number);
    }
    expectNotRead<std::string>("'tea'");
    expectNotRead<double>("'2.5'");
    expectNotRead<float>("'2.5'");
    expectNotRead<integer>("'7'");
    expectNotRead<std::optional<int>>("'7'");
}

TEST_F(NoMemoryTest, GettersAreEmptyAndFail)
{
    for (const std::string number : {"7", "2.5"}) {
        Statement statement(_database, "select " + number);
        ASSERT_TRUE(statement.next());
        EXPECT_EQ(starved([&](test::SqliteMemory& memory) {
                      memory.watch(true);
                      return statement.column(0).asText();
                  }),
                  "");
        expectNoMemory(statement, "column");
        EXPECT_FALSE(statement.next());
        expectNoMemory(statement, "next"); // which SQLite says once more
        ASSERT_TRUE(statement.reset());
        ASSERT_TRUE(statement.next());
        EXPECT_EQ(starved([&](test::SqliteMemory& memory) {
                      memory.watch(true);
                      return statement.column(0).asBytes();
                  }).size,
                  0u);
        expectNoMemory(statement, "column");
        EXPECT_FALSE(statement.next());
        expectNoMemory(statement, "next");
        EXPECT_FALSE(statement.finished());
        EXPECT_EQ(statement.one<std::string>().valueOr("none"), number);
    }
}

// --- Schema changes

TEST_F(StatementReadTest, NamesAfterASchemaChangeAreTheNewOnes)
{
    run("create table t (a, b); insert into t values (1, 2)");
    Statement statement(_database, "select * from t");
    ASSERT_TRUE(statement.next());
    EXPECT_EQ(statement.column("b").asInteger(), 2);
    ASSERT_TRUE(statement.reset());
    run("drop table t; create table t (b, c, a, d); insert into t values (12, 13, 11, 14)");
    ASSERT_TRUE(statement.next());
    EXPECT_EQ(statement.columnCount(), 4);
    EXPECT_EQ(statement.column("a").asInteger(), 11);
    EXPECT_EQ(statement.column("b").asInteger(), 12);
    EXPECT_EQ(statement.column("d").asInteger(), 14);
    EXPECT_EQ(statement.columnName(1), "c");
    ASSERT_TRUE(statement.reset());
    run("drop table t; create table t (a); insert into t values (21)");
    ASSERT_TRUE(statement.next());
    EXPECT_EQ(statement.columnCount(), 1);
    EXPECT_EQ(statement.column("a").asInteger(), 21);
    EXPECT_TRUE(statement.column("b").isNull());
    expectFailure(statement, "column", "25=SQLITE_RANGE: there is no column b");
    ASSERT_TRUE(statement.reset());
    run("drop table t; create table t (a, a2, b); insert into t values (1, 2, 3)");
    int a = 0;
    EXPECT_FALSE(statement.next(a));
    expectFailure(statement, "next", "25=SQLITE_RANGE: there are 1 variables for 3 columns");
}

TEST_F(StatementReadTest, TableThatIsGoneIsSqlitesFailure)
{
    run("create table t (a); insert into t values (1)");
    Statement statement(_database, "select a from t");
    run("drop table t");
    EXPECT_FALSE(statement.next());
    expectFailure(statement, "next", "1=SQLITE_ERROR: no such table: t");
    run("create table t (a); insert into t values (7)");
    EXPECT_EQ(statement.one<int>().valueOr(0), 7);
}

} // namespace
