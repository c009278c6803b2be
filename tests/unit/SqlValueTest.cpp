#include "SqlValue.h"

#include "Cases.h"
#include "Diagnostics.h"
#include "Environment.h"
#include "PlainNumbers.h"
#include "ReportTest.h"
#include "Reports.h"

#include <gmock/gmock.h>

#include <locale.h>
#include <stdlib.h>

#include <cfloat>
#include <climits>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <functional>
#include <limits>
#include <ostream>
#include <random>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

namespace {

namespace report = test::report;

using sql::field_type;
using sql::Time;
using sql::type_bool;
using sql::type_float;
using sql::type_int;
using sql::type_text;
using sql::type_time;
using sql::type_undefined;
using sql::Value;
using test::fixedText;
using test::PlainLocale;
using test::readDouble;
using test::Texts;
using testing::ValuesIn;
using testing::WithParamInterface;

static_assert(!std::is_polymorphic<Value>::value, "a plain value");

const field_type all_types[] = {type_int,
                                type_text,
                                type_float,
                                type_bool,
                                type_time,
                                type_undefined,
                                static_cast<field_type>(-1)};

// Of 32 or 64 bits.
constexpr time_t latest = std::numeric_limits<time_t>::max();
constexpr time_t earliest = std::numeric_limits<time_t>::min();

constexpr double infinity = std::numeric_limits<double>::infinity();
constexpr double not_a_number = std::numeric_limits<double>::quiet_NaN();

std::uint64_t bitsOf(double d)
{
    std::uint64_t bits;
    std::memcpy(&bits, &d, sizeof bits);
    return bits;
}

double doubleOf(std::uint64_t bits)
{
    double d;
    std::memcpy(&d, &bits, sizeof d);
    return d;
}

// All bits alike, so that -0.0 is not 0.0; any NaN is like any other.
bool same(double a, double b)
{
    return bitsOf(a) == bitsOf(b) || (std::isnan(a) && std::isnan(b));
}

Value textValue(const std::string& text, field_type type = type_text)
{
    Value value(type);
    value.setString(text);
    return value;
}

const std::string epoch_line = report::timeMade("0", "Thu Jan  1 01:00:00 1970\n");
const std::string minute_line = report::timeMade("60", "Thu Jan  1 01:01:00 1970\n");
const std::string minute_text = "01-01-1970 01:01:00, Thu";

// The most verbose level: what is not expected is not reported at all.
class ValueTest : public test::ReportTest {
protected:
    ValueTest()
    {
        _diagnostics.setLevel(9);
    }

    // The time, without the line that its construction writes.
    Time time(sql::integer seconds)
    {
        const Time made(seconds);
        _diagnostics.clear();
        return made;
    }

    Value timeValue(sql::integer seconds)
    {
        Value value(type_time);
        value.setTime(time(seconds));
        return value;
    }

    const test::TimeZone _zone;
};

// --- Null, types and copies

class ValueTypeTest : public ValueTest, public WithParamInterface<field_type> {};

TEST_P(ValueTypeTest, NullIsZeroFalseAndTheEpochAndWrittenAsNull)
{
    Value becomesNull = textValue("17", GetParam());
    becomesNull.setNull();
    Value isSetToNull = textValue("17");
    isSetToNull.setValue(nullptr, GetParam());
    for (const Value& value : {Value(GetParam()), becomesNull, isSetToNull}) {
        EXPECT_TRUE(value.isNull());
        EXPECT_EQ(value.getType(), GetParam());
        EXPECT_EQ(value.asInteger(), 0);
        EXPECT_PRED2(same, value.asDouble(), 0.0);
        EXPECT_FALSE(value.asBool());
        EXPECT_EQ(value.toString(), "null");
        EXPECT_EQ(value.dump(false), "null");
        if (GetParam() != type_time) {
            EXPECT_EQ(value.asString(), "");
        }
        for (const field_type asked : all_types)
            EXPECT_EQ(value.toSql(asked), "null") << asked;
        EXPECT_EQ(value.asTime().asInteger(), 0);
        expectReport({epoch_line});
    }
}

TEST_P(ValueTypeTest, SettersEndNullAndKeepTheType)
{
    const std::vector<std::function<void(Value&)>> setters = {
        [](Value& value) { value.setString(""); },
        [](Value& value) { value.setInteger(0); },
        [](Value& value) { value.setDouble(0.0); },
        [](Value& value) { value.setBool(false); },
        [this](Value& value) { value.setTime(time(0)); },
    };
    for (const auto& set : setters) {
        Value value(GetParam());
        set(value);
        EXPECT_EQ(value.getType(), GetParam());
        EXPECT_FALSE(value.isNull());
    }
}

TEST_P(ValueTypeTest, SetValueTakesTheTextAndTheType)
{
    Value value(type_int);
    value.setValue("1", GetParam());
    EXPECT_FALSE(value.isNull());
    EXPECT_EQ(value.getType(), GetParam());
    EXPECT_EQ(value.asInteger(), 1);
}

INSTANTIATE_TEST_SUITE_P(Types, ValueTypeTest, ValuesIn(all_types));

TEST_F(ValueTest, NullTimeAsATextIsTheEpochInLocalTime)
{
    EXPECT_EQ(Value(type_time).asString(), "01-01-1970 01:00:00, Thu");
    expectReport({epoch_line});
}

TEST_F(ValueTest, SetValueCopiesTheText)
{
    char text[] = "tea";
    Value value(type_int);
    value.setValue(text, type_text);
    text[0] = 's';
    EXPECT_EQ(value.asString(), "tea");
}

TEST_F(ValueTest, EmptyTextIsNotNull)
{
    Value value(type_text);
    value.setValue("", type_text);
    EXPECT_FALSE(value.isNull());
    EXPECT_EQ(value.toString(), "");
    EXPECT_EQ(value.toSql(type_text), "''");
    EXPECT_EQ(value.toSql(type_int), "");
}

// --- What is stored, and how each getter reads it

struct Stored : test::Case {
    std::function<void(Value&)> set;
    std::string text;
    sql::integer asInteger;
    double asDouble;
};

Stored ofText(const std::string& text, sql::integer asInteger, double asDouble)
{
    return {"text '" + text + "'", [text](Value& value) { value.setString(text); }, text, asInteger,
            asDouble};
}

Stored ofInteger(sql::integer n, const std::string& text)
{
    return {"integer " + text, [n](Value& value) { value.setInteger(n); }, text, n,
            static_cast<double>(n)};
}

Stored ofDouble(double d, const std::string& text, sql::integer asInteger, double asDouble)
{
    return {"double " + text, [d](Value& value) { value.setDouble(d); }, text, asInteger, asDouble};
}

Stored ofBool(bool b, const std::string& text)
{
    return {"bool " + text, [b](Value& value) { value.setBool(b); }, text, b, b ? 1.0 : 0.0};
}

Stored ofTime(sql::integer seconds, const std::string& text)
{
    return {"time " + text, [seconds](Value& value) { value.setTime(Time(seconds)); }, text,
            seconds, static_cast<double>(seconds)};
}

class ValueStoredTest : public ValueTest, public WithParamInterface<Stored> {
protected:
    void expectReadBack(field_type type)
    {
        Value value(type);
        GetParam().set(value);
        _diagnostics.clear();
        if (type != type_time) {
            EXPECT_EQ(value.asString(), GetParam().text);
            EXPECT_EQ(value.toString(), GetParam().text);
            EXPECT_EQ(value.dump(false), GetParam().text);
        }
        EXPECT_EQ(value.asInteger(), GetParam().asInteger);
        EXPECT_PRED2(same, value.asDouble(), GetParam().asDouble);
        EXPECT_EQ(value.asBool(), GetParam().text == "1");
        EXPECT_EQ(value.asTime().getTime(), static_cast<time_t>(GetParam().asInteger));
        EXPECT_THAT(_diagnostics.take(), testing::SizeIs(1)) << "the time alone is traced";
    }
};

TEST_P(ValueStoredTest, IsReadBackAsTextNumbersTruthAndTimeWhateverTheType)
{
    for (const field_type type : all_types) {
        SCOPED_TRACE(type);
        expectReadBack(type);
    }
}

TEST_P(ValueStoredTest, IsReadAlikeWhereTheLocaleHasADecimalComma)
{
    const test::CommaLocale comma;
    expectReadBack(type_float);
}

INSTANTIATE_TEST_SUITE_P(
    All, ValueStoredTest,
    testing::Values(
        ofText("", 0, 0.0), ofText("O'Neil", 0, 0.0), ofText("1", 1, 1.0), ofText("0", 0, 0.0),
        ofText("01", 1, 1.0), ofText("1 ", 1, 1.0), ofText(" 1", 1, 1.0), ofText("2", 2, 2.0),
        ofText("true", 0, 0.0), ofText("  +42", 42, 42.0), ofText("-7 pieces", -7, -7.0),
        ofText("- 7", 0, 0.0), ofText("3.99", 3, 3.99), ofText("3,99", 3, 3.0),
        ofText("1.234,5", 1, 1.234), ofText("1.5e3", 1, 1500.0), ofText("0x1p3", 0, 8.0),
        ofText("inf", 0, infinity), ofText("-Infinity", 0, -infinity),
        ofText("nan", 0, not_a_number), ofText("1e999", 1, infinity),
        ofText("-1e999", -1, -infinity), ofText("1e-999", 1, 0.0), ofText("-1e-999", -1, -0.0),
        ofText("9223372036854775807", LLONG_MAX, 9223372036854775808.0),
        ofText("9223372036854775808", LLONG_MAX, 9223372036854775808.0),
        ofText("-9223372036854775809", LLONG_MIN, -9223372036854775808.0), ofInteger(0, "0"),
        ofInteger(1, "1"), ofInteger(-1, "-1"), ofInteger(1234567, "1234567"),
        ofInteger(LLONG_MAX, "9223372036854775807"), ofInteger(LLONG_MIN, "-9223372036854775808"),
        ofDouble(3.5, "3.50000000", 3, 3.5), ofDouble(0.1, "0.10000000", 0, 0.1),
        ofDouble(-2.0, "-2.00000000", -2, -2.0), ofDouble(1.0, "1.00000000", 1, 1.0),
        ofDouble(0.0, "0.00000000", 0, 0.0), ofDouble(-0.0, "-0.00000000", 0, -0.0),
        ofDouble(1234567.25, "1234567.25000000", 1234567, 1234567.25),
        ofDouble(0.000000005, "0.00000001", 0, 0.00000001),
        ofDouble(0.0000000049, "0.00000000", 0, 0.0),
        ofDouble(-0.0000000049, "-0.00000000", 0, -0.0),
        ofDouble(0.001953125, "0.00195312", 0, 0.00195312),
        ofDouble(0.005859375, "0.00585938", 0, 0.00585938),
        ofDouble(0.999999999, "1.00000000", 1, 1.0),
        ofDouble(1e19, "10000000000000000000.00000000", LLONG_MAX, 1e19),
        ofDouble(infinity, "inf", 0, infinity), ofDouble(-infinity, "-inf", 0, -infinity),
        ofDouble(not_a_number, "nan", 0, not_a_number), ofBool(true, "1"), ofBool(false, "0"),
        ofTime(0, "0"), ofTime(1, "1"), ofTime(-1, "-1"), ofTime(1700000000, "1700000000"),
        ofTime(INT_MAX, "2147483647"), ofTime(INT_MIN, "-2147483648"),
        ofTime(latest, std::to_string(latest)), ofTime(earliest, std::to_string(earliest))));

TEST_F(ValueTest, NotANumberKeepsItsSignInTheTextAsPrintfDoes)
{
    Value value(type_float);
    value.setDouble(-not_a_number);
    EXPECT_EQ(value.asString(), fixedText(-not_a_number));
    EXPECT_EQ(value.asString(), "-nan");
    EXPECT_TRUE(std::isnan(value.asDouble()));
}

TEST_F(ValueTest, AllKindsOfBlanksBeforeANumberAreSkipped)
{
    const Value value = textValue(" \t\n\v\f\r+3.5e1x");
    EXPECT_EQ(value.asInteger(), 3);
    EXPECT_EQ(value.asDouble(), 35.0);
}

TEST_F(ValueTest, OnlyTheTextOneIsTrue)
{
    EXPECT_TRUE(textValue("1").asBool());
    EXPECT_FALSE(textValue(std::string("1\0", 2)).asBool());
    EXPECT_FALSE(textValue("1.0").asBool());
    EXPECT_FALSE(textValue("11").asBool());
    EXPECT_FALSE(textValue("TRUE").asBool());
}

TEST_F(ValueTest, ZeroBytesBelongToATextButEndANumber)
{
    const std::string text("4\0"
                           "2'",
                           4);
    const Value value = textValue(text);
    EXPECT_EQ(value.asString(), text);
    EXPECT_EQ(value.toString(), text);
    EXPECT_EQ(value.dump(true), text + " (text)");
    EXPECT_EQ(value.toSql(type_text), "'" + text + "''");
    EXPECT_EQ(value.toSql(type_int), text);
    EXPECT_EQ(value.asInteger(), 4);
    EXPECT_EQ(value.asDouble(), 4.0);
}

// --- The longest doubles

struct LongDouble : test::Case {
    double number;
    std::string text;
};

class ValueLongDoubleTest : public ValueTest, public WithParamInterface<LongDouble> {};

TEST_P(ValueLongDoubleTest, IsKeptUpTo127CharactersDeliberatelyInEveryLocale)
{
    Value value(type_float);
    value.setDouble(GetParam().number);
    EXPECT_EQ(value.asString(), GetParam().text);
    EXPECT_EQ(value.asString(), fixedText(GetParam().number));
    EXPECT_EQ(value.asString().size(), 127U);
    const test::CommaLocale comma;
    value.setDouble(GetParam().number);
    EXPECT_EQ(value.asString(), GetParam().text);
}

// The first two of them just fit.
const LongDouble long_doubles[] = {
    {"-1e116", -1e116,
     "-100000000000000001555941612946684302426820139692106143336977058043083378116475570326498538991504744767620628086784000.00000000"},
    {"1e117", 1e117,
     "1000000000000000050555427725995033814228237030803003279020481474722232763977085405824233377105062219252417113236701184.00000000"},
    {"-1e117", -1e117,
     "-1000000000000000050555427725995033814228237030803003279020481474722232763977085405824233377105062219252417113236701184.0000000"},
    {"1e118", 1e118,
     "9999999999999999665649998943273759183241515094863428494587753284228752052274941196820382078490267674695111155514343424.00000000"},
    {"-1e118", -1e118,
     "-9999999999999999665649998943273759183241515094863428494587753284228752052274941196820382078490267674695111155514343424.0000000"},
    {"1e127", 1e127,
     "9999999999999999549291066784979473595300225087383524118479625982517885450291174622154390152298057300868772377386949310916067328"},
    {"greatest", DBL_MAX,
     "1797693134862315708145274237317043567980705675258449965989174768031572607800285387605895586327668781715404589535143824642343213"},
    {"lowest", -DBL_MAX,
     "-179769313486231570814527423731704356798070567525844996598917476803157260780028538760589558632766878171540458953514382464234321"},
};

INSTANTIATE_TEST_SUITE_P(Doubles, ValueLongDoubleTest, ValuesIn(long_doubles));

// Fails the running test at the first number that is written or read in another way than the C
// library's in its plain locale.
void expectWrittenAndReadAsPlainly(std::mt19937_64 random, int count)
{
    const auto formsOf = [](double d) {
        const PlainLocale plain;
        char decimal[64];
        char hexadecimal[64];
        char fixed[400];
        std::snprintf(decimal, sizeof decimal, " \n%+.17g", d);
        std::snprintf(hexadecimal, sizeof hexadecimal, "%A tail", d);
        std::snprintf(fixed, sizeof fixed, "%.3f", d);
        return Texts{decimal, hexadecimal, fixed};
    };
    Value value(type_float);
    for (int i = 0; i < count; ++i) {
        const double any = doubleOf(random());
        const double scaled = static_cast<double>(static_cast<std::int64_t>(random()))
                              / static_cast<double>(1ULL << (random() % 63));
        for (const double d : {any, scaled}) {
            value.setDouble(d);
            ASSERT_EQ(value.asString(), fixedText(d)) << std::hex << bitsOf(d);
        }
        for (const std::string& text : formsOf(any)) {
            value.setString(text);
            ASSERT_PRED2(same, value.asDouble(), readDouble(text)) << text;
        }
    }
}

TEST_F(ValueTest, ManyDoublesAreWrittenAndReadAsTheCLibraryDoes)
{
    expectWrittenAndReadAsPlainly(std::mt19937_64(20240229), 20000 / test::stride(1));
}

TEST_F(ValueTest, ManyDoublesAreWrittenAndReadAlikeWhereTheLocaleHasADecimalComma)
{
    const test::CommaLocale comma;
    expectWrittenAndReadAsPlainly(std::mt19937_64(19700101), 10000 / test::stride(1));
}

class ValueNumberTextTest : public ValueTest, public WithParamInterface<std::string> {};

TEST_P(ValueNumberTextTest, IsReadAsStrtodReadsItInEveryLocale)
{
    EXPECT_PRED2(same, textValue(GetParam()).asDouble(), readDouble(GetParam()));
    const test::CommaLocale comma;
    EXPECT_PRED2(same, textValue(GetParam()).asDouble(), readDouble(GetParam()));
}

INSTANTIATE_TEST_SUITE_P(Texts, ValueNumberTextTest,
                         testing::Values(".5", "-.5e-1", "5.", "1e", "1e+", "+ 1", "--1", "0x",
                                         "0X.8p+1z", "0x1.8p-1080", "infinite", "-INF", "+infinity",
                                         "NaN", "nan(1)", "-nan", "2.2250738585072011e-308",
                                         "4.9e-324", "2.4e-324", "1.7976931348623159e308",
                                         "-1.8e308", "1e-400", "1_000", "3,5", "1.234.567"));

// --- Times as texts

TEST_F(ValueTest, TimeIsWrittenInLocalTime)
{
    _diagnostics.setLevel(8);
    EXPECT_EQ(timeValue(1700000000).asString(), "14-11-2023 23:13:20, Tue");
    EXPECT_EQ(timeValue(1720000000).asString(), "03-07-2024 11:46:40, Wed");
}

TEST_F(ValueTest, TimeFollowsTheTimeZone)
{
    _diagnostics.setLevel(8);
    const Value value = timeValue(0);
    const test::TimeZone zone("UTC0");
    EXPECT_EQ(value.asString(), "01-01-1970 00:00:00, Thu");
    EXPECT_EQ(value.dump(true), "01-01-1970 00:00:00, Thu (time)");
}

TEST_F(ValueTest, TimeTextConvertsWhateverTextIsStored)
{
    EXPECT_EQ(textValue(" 60.9 seconds", type_time).asString(), "01-01-1970 01:01:00, Thu");
    EXPECT_EQ(textValue("soon", type_time).asString(), "01-01-1970 01:00:00, Thu");
    expectReport({minute_line, epoch_line});
}

struct TimeUse : test::Case {
    std::function<std::string(const Value&)> use;
    std::string result;
    Texts events;
};

class ValueTimeTraceTest : public ValueTest, public WithParamInterface<TimeUse> {};

TEST_P(ValueTimeTraceTest, EveryConversionToATimeIsTracedAtTheMostVerboseLevel)
{
    const Value value = timeValue(60);
    for (const int level : test::trace_levels) {
        _diagnostics.setLevel(level);
        EXPECT_EQ(GetParam().use(value), GetParam().result);
        expectReport(GetParam().events);
    }
}

const TimeUse time_uses[] = {
    {"asTime",
     [](const Value& v) { return sql::intToStr(v.asTime().asInteger()); },
     "60",
     {minute_line}},
    {"asString", [](const Value& v) { return v.asString(); }, minute_text, {minute_line}},
    {"toString", [](const Value& v) { return v.toString(); }, minute_text, {minute_line}},
    {"dump", [](const Value& v) { return v.dump(false); }, minute_text, {minute_line}},
    {"dumpWithItsType",
     [](const Value& v) { return v.dump(true); },
     minute_text + " (time)",
     {minute_line}},
    {"toSqlAsText",
     [](const Value& v) { return v.toSql(type_text); },
     "'" + minute_text + "'",
     {minute_line}},
    {"toSqlAsTime", [](const Value& v) { return v.toSql(type_time); }, "60", {}},
    {"asInteger", [](const Value& v) { return sql::intToStr(v.asInteger()); }, "60", {}},
};

INSTANTIATE_TEST_SUITE_P(All, ValueTimeTraceTest, ValuesIn(time_uses), test::NameOfCase());

TEST_F(ValueTest, StoringATimeIsNotTraced)
{
    const Time made = time(60);
    Value value(type_int);
    value.setTime(made);
    EXPECT_EQ(value.asString(), "60");
}

TEST_F(ValueTest, ComparedTimesAreTracedThisOneFirst)
{
    const Value minute = timeValue(60);
    const Value epoch = timeValue(0);
    EXPECT_TRUE(minute.equals(epoch));
    expectReport({minute_line, epoch_line});
    EXPECT_TRUE(epoch.equals(minute));
    expectReport({epoch_line, minute_line});
}

TEST_F(ValueTest, NullComparedWithATimeIsTracedAsTheEpoch)
{
    const Value minute = timeValue(60);
    EXPECT_TRUE(Value(type_time).equals(minute));
    expectReport({epoch_line, minute_line});
}

TEST_F(ValueTest, TwoNullTimesAreEqualWithoutAnyConversion)
{
    EXPECT_TRUE(Value(type_time).equals(Value(type_time)));
}

TEST_F(ValueTest, TextComparedWithATimeConvertsTheTimeAlone)
{
    const Value minute = timeValue(60);
    EXPECT_TRUE(textValue(minute_text).equals(minute));
    EXPECT_FALSE(textValue("60").equals(minute));
    expectReport({minute_line, minute_line});
}

// --- Dumps

TEST_F(ValueTest, DumpNamesTheTypeOnRequest)
{
    Value value(type_int);
    value.setInteger(42);
    EXPECT_EQ(value.dump(true), "42 (integer)");
    EXPECT_EQ(value.dump(false), "42");
    EXPECT_EQ(textValue("tea").dump(true), "tea (text)");
    EXPECT_EQ(textValue("2.50", type_float).dump(true), "2.50 (float)");
    EXPECT_EQ(textValue("1", type_bool).dump(true), "1 (bool)");
    EXPECT_EQ(Value(type_text).dump(true), "null (text)");
    EXPECT_EQ(Value(type_time).dump(true), "null (time)");
}

TEST_F(ValueTest, DumpOfAnUndefinedTypeIsReported)
{
    EXPECT_EQ(textValue("tea", static_cast<field_type>(7)).dump(true), "tea (undefined)");
    expectReport({report::asserted("sql::string sql::type2Str(sql::field_type)")});
}

TEST_F(ValueTest, DumpOfAnUndefinedTypeWithoutTheTypeIsSilent)
{
    EXPECT_EQ(textValue("tea", type_undefined).dump(false), "tea");
}

// --- Comparison

struct Comparison {
    field_type type;
    const char* text; // null for a null value
    field_type otherType;
    const char* otherText;
    bool equal;
};

void PrintTo(const Comparison& c, std::ostream* out)
{
    const auto name = [](const char* text) {
        return text != nullptr ? text : "null";
    };
    *out << c.type << " '" << name(c.text) << "' with " << c.otherType << " '" << name(c.otherText)
         << "'";
}

class ValueEqualsTest : public ValueTest, public WithParamInterface<Comparison> {};

// Only conversions of times are traced, and only at the most verbose level.
TEST_P(ValueEqualsTest, GoesByTheTypeOfTheFirst)
{
    _diagnostics.setLevel(8);
    Value value(type_undefined);
    Value other(type_undefined);
    value.setValue(GetParam().text, GetParam().type);
    other.setValue(GetParam().otherText, GetParam().otherType);
    EXPECT_EQ(value.equals(other), GetParam().equal);
}

// For every type: null with null, with what null converts to and with something else.
std::vector<Comparison> nullComparisons()
{
    std::vector<Comparison> all;
    for (const field_type type : all_types) {
        const bool isTime = type == type_time;
        const bool isDefined = type >= type_int && type <= type_time;
        const char* const blank = type == type_text ? "" : "0";
        all.push_back({type, nullptr, type, nullptr, true});
        all.push_back({type, nullptr, type, blank, isDefined});
        all.push_back({type, blank, type, nullptr, isDefined});
        all.push_back({type, blank, type, blank, isDefined});
        all.push_back({type, nullptr, type, "1", isTime});
        all.push_back({type, "1", type, nullptr, isTime});
        all.push_back({type, blank, type, "1", isTime});
        all.push_back({type, "1", type, "1", isDefined});
    }
    return all;
}

INSTANTIATE_TEST_SUITE_P(Nulls, ValueEqualsTest, ValuesIn(nullComparisons()));

const Comparison comparisons[] = {
    // nulls of two types
    {type_int, nullptr, type_time, nullptr, true},
    {type_undefined, nullptr, type_text, nullptr, true},
    {type_int, nullptr, type_text, "", true},
    {type_text, "", type_int, nullptr, true},
    {type_text, "null", type_int, nullptr, false},
    {type_text, "01-01-1970 01:00:00, Thu", type_time, nullptr, true},
    {type_text, "", type_time, nullptr, false},
    {type_time, nullptr, type_text, "tea", true},
    {type_undefined, nullptr, type_int, "0", false},
    // integers
    {type_int, "42", type_text, " +42x", true},
    {type_int, "3.50000000", type_float, "3.9", true},
    {type_int, "-1", type_int, "1", false},
    {type_int, "9223372036854775807", type_int, "9223372036854775806", false},
    {type_int, "9223372036854775807", type_int, "99999999999999999999", true},
    {type_int, "60", type_time, "60", true},
    // texts
    {type_text, "tea", type_text, "tea", true},
    {type_text, "tea", type_text, "Tea", false},
    {type_text, "tea", type_text, "tea ", false},
    {type_text, "tea", type_text, "te", false},
    {type_text, "42", type_int, "42", true},
    {type_text, "42", type_int, "042", false},
    // floats
    {type_float, "0.10000000", type_text, "0.1", true},
    {type_float, "0.1", type_float, "0.10000001", false},
    {type_float, "-0.0", type_float, "0.0", true},
    {type_float, nullptr, type_float, "-0.00000000", true},
    {type_float, "3.5", type_int, "3", false},
    {type_float, "inf", type_float, "1e999", true},
    {type_float, "inf", type_float, "-inf", false},
    {type_float, "nan", type_float, "nan", false},
    {type_float, "nan", type_float, nullptr, false},
    {type_float, nullptr, type_float, "nan", false},
    // bools
    {type_bool, "2", type_bool, "true", true},
    {type_bool, "1", type_int, "01", false},
    {type_bool, "1", type_int, "1", true},
    {type_bool, nullptr, type_bool, "true", true},
    // any two times are equal deliberately
    {type_time, "1", type_time, "2", true},
    {type_time, "1700000000", type_text, "tea", true},
    {type_time, "", type_float, "inf", true},
    // undefined types are equal as nulls only
    {type_undefined, "tea", type_text, "tea", false},
    {type_text, "tea", type_undefined, "tea", true}};

INSTANTIATE_TEST_SUITE_P(Other, ValueEqualsTest, ValuesIn(comparisons));

TEST_F(ValueTest, TextsAreComparedBeyondZeroBytes)
{
    const Value value = textValue(std::string("a\0b", 3));
    EXPECT_TRUE(value.equals(textValue(std::string("a\0b", 3))));
    EXPECT_FALSE(value.equals(textValue(std::string("a\0c", 3))));
    EXPECT_FALSE(value.equals(textValue("a")));
}

TEST_F(ValueTest, ValueEqualsItselfUnlessItIsNotANumber)
{
    Value value(type_float);
    value.setDouble(1.5);
    EXPECT_TRUE(value.equals(value));
    value.setDouble(not_a_number);
    EXPECT_FALSE(value.equals(value));
}

// --- SQL

struct SqlCase {
    field_type type;
    const char* text;
    field_type asked;
    const char* sql;
};

void PrintTo(const SqlCase& c, std::ostream* out)
{
    *out << c.type << " asked for as " << c.asked << " gives " << c.sql;
}

class ValueSqlTest : public ValueTest, public WithParamInterface<SqlCase> {};

TEST_P(ValueSqlTest, FollowsTheTypeAskedForThenItsOwn)
{
    _diagnostics.setLevel(8);
    const Value value = textValue(GetParam().text, GetParam().type);
    EXPECT_EQ(value.toSql(GetParam().asked), GetParam().sql);
}

// Every type asked for as every other: quoted for a text, the seconds of a time, else as it stands.
std::vector<SqlCase> sqlCases()
{
    std::vector<SqlCase> all;
    for (const field_type type : all_types) {
        for (const field_type asked : all_types) {
            const char* sql = "+60's";
            if (asked == type_text)
                sql = type == type_time ? "'01-01-1970 01:01:00, Thu'" : "'+60''s'";
            else if (type == type_time)
                sql = "60";
            all.push_back({type, "+60's", asked, sql});
        }
    }
    return all;
}

INSTANTIATE_TEST_SUITE_P(Types, ValueSqlTest, ValuesIn(sqlCases()));

const SqlCase sql_texts[] = {
    {type_text, "O'Neil", type_text, "'O''Neil'"},
    {type_text, "'", type_text, "''''"},
    {type_text, "", type_text, "''"},
    {type_text, "null", type_text, "'null'"},
    {type_int, "abc", type_int, "abc"},
    {type_int, "", type_int, ""},
    {type_time, "soon", type_time, "0"},
    {type_time, "-1", type_int, "-1"},
};

INSTANTIATE_TEST_SUITE_P(Texts, ValueSqlTest, ValuesIn(sql_texts));

TEST_F(ValueTest, OnlySingleQuotesAreDoubledInSql)
{
    EXPECT_EQ(textValue("\"\\\n\xFF%'").toSql(type_text), "'\"\\\n\xFF%'''");
}

TEST_F(ValueTest, StoredFormsAreWrittenUnchanged)
{
    Value value(type_float);
    value.setDouble(2.5);
    EXPECT_EQ(value.toSql(type_float), "2.50000000");
    value.setInteger(LLONG_MIN);
    EXPECT_EQ(value.toSql(type_int), "-9223372036854775808");
    value.setBool(true);
    EXPECT_EQ(value.toSql(type_bool), "1");
    value.setTime(time(1700000000));
    EXPECT_EQ(value.toSql(type_time), "1700000000");
}

TEST_F(ValueTest, TextOfATimeIsWrittenAsTheNumberInIt)
{
    const std::pair<const char*, const char*> cases[] = {
        {"0", "0"},
        {"60", "60"},
        {"-60", "-60"},
        {"+60", "60"},
        {"060", "60"},
        {" 60", "60"},
        {"60 ", "60"},
        {"60/", "60"},
        {"60:", "60"},
        {"60s", "60"},
        {"", "0"},
        {"+", "0"},
        {"soon", "0"},
        {"999999999999999999", "999999999999999999"},
        {"9223372036854775807", "9223372036854775807"},
        {"9999999999999999999", "9223372036854775807"},
        {"-9999999999999999999", "-9223372036854775808"}};
    for (const auto& [text, number] : cases)
        EXPECT_EQ(textValue(text, type_time).toSql(type_time), number) << text;
}

} // namespace
