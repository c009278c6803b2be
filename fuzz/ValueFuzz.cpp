// Cells: what is set, read, compared, shown and written, beside a model of a cell; and times.

#include "Cell.h"
#include "Fuzz.h"

#include "Environment.h"
#include "SqlCommon.h"
#include "SqlValue.h"

#include <cmath>
#include <string>

namespace {

using fuzz::Cell;
using fuzz::Events;
using fuzz::expectEqual;
using fuzz::Input;
using fuzz::Reports;
using sql::Time;
using sql::Value;

const test::TimeZone zone;

// A value and what it has to be.
struct Pair {
    explicit Pair(sql::field_type type) : value(type), cell(type)
    {
    }

    Value value;
    Cell cell;
};

void setText(Pair& pair, Input& input)
{
    const sql::field_type type = input.type();
    if (input.flip()) {
        pair.value.setValue(nullptr, type);
        pair.cell.setNull();
    } else {
        const std::string text = input.word();
        pair.value.setValue(text.c_str(), type);
        pair.cell.set(text);
    }
    pair.cell.type = type;
}

void setTime(Pair& pair, Input& input, Reports& reports)
{
    const sql::integer seconds = input.integer();
    Events expected;
    const time_t time = fuzz::madeTime(seconds, expected);
    pair.value.setTime(Time(seconds));
    reports.expect("Time(integer)", expected);
    pair.cell.set(std::to_string(time));
}

void assign(Pair& pair, const Pair& other, Input& input)
{
    switch (input.below(3)) {
    case 0:
        pair.value = other.value;
        pair.cell = other.cell;
        break;
    case 1:
        pair.value = Value(other.value);
        pair.cell = other.cell;
        break;
    default:
        const Value& same = pair.value;
        pair.value = same;
    }
}

void set(Pair& pair, Input& input)
{
    switch (input.below(5)) {
    case 0: {
        const std::string text = input.text();
        pair.value.setString(text);
        pair.cell.set(text);
        break;
    }
    case 1: {
        const sql::integer number = input.integer();
        pair.value.setInteger(number);
        pair.cell.set(std::to_string(number));
        break;
    }
    case 2: {
        const double number = input.real();
        pair.value.setDouble(number);
        pair.cell.set(test::fixedText(number));
        break;
    }
    case 3: {
        const bool truth = input.flip();
        pair.value.setBool(truth);
        pair.cell.set(truth ? "1" : "0");
        break;
    }
    default:
        pair.value.setNull();
        pair.cell.setNull();
    }
}

void checkNumbers(const Pair& pair, Reports& reports)
{
    expectEqual("isNull", pair.value.isNull(), pair.cell.isNull);
    expectEqual("getType", static_cast<std::int32_t>(pair.value.getType()), pair.cell.type);
    expectEqual("asInteger", pair.value.asInteger(), pair.cell.asInteger());
    const double expected = pair.cell.asDouble();
    if (std::isnan(expected))
        expectEqual("whether asDouble is no number", std::isnan(pair.value.asDouble()), true);
    else
        expectEqual("asDouble", pair.value.asDouble(), expected);
    expectEqual("asBool", pair.value.asBool(), pair.cell.asBool());
    reports.expect("the readers of numbers", {});

    Events events;
    const time_t time = fuzz::madeTime(pair.cell.asInteger(), events);
    expectEqual("asTime", pair.value.asTime().getTime(), time);
    reports.expect("asTime", events);
}

void checkTexts(const Pair& pair, Reports& reports)
{
    Events events;
    expectEqual("asString", pair.value.asString(), pair.cell.asString(events));
    expectEqual("toString", pair.value.toString(), pair.cell.toString(events));
    expectEqual("dump(false)", pair.value.dump(false), pair.cell.dump(false, events));
    expectEqual("dump(true)", pair.value.dump(true), pair.cell.dump(true, events));
    for (std::int32_t type = -1; type <= 5; ++type)
        expectEqual("toSql", pair.value.toSql(static_cast<sql::field_type>(type)),
                    pair.cell.toSql(type, events));
    reports.expect("the readers of texts", events);
}

void checkEquality(const Pair& one, const Pair& other, Reports& reports)
{
    Events events;
    expectEqual("equals", one.value.equals(other.value), one.cell.equals(other.cell, events));
    expectEqual("equals itself", one.value.equals(one.value), one.cell.equals(one.cell, events));
    reports.expect("equals", events);
}

// Sums of times are those of unsigned numbers, and wrap in the width of a time.
void tryTime(Input& input, Reports& reports)
{
    const sql::integer start = input.integer();
    const sql::integer count = input.integer();
    Events events;
    std::uint64_t sum = static_cast<std::uint64_t>(fuzz::madeTime(start, events));
    Time time(start);
    const std::uint64_t steps = static_cast<std::uint64_t>(count);
    time.addValue(count);
    time.addMinutes(count);
    time.addHours(count);
    time.addDays(count);
    sum += steps + steps * 60 + steps * 3600 + steps * 86400;
    const time_t expected = static_cast<time_t>(sum);
    expectEqual("the sum of times", time.getTime(), expected);
    expectEqual("asInteger of a time", time.asInteger(), static_cast<sql::integer>(expected));
    expectEqual("asString of a time", time.asString(), fuzz::localText(expected, events));
    reports.expect("a time", events);
}

void change(Pair& pair, const Pair& other, Input& input, Reports& reports)
{
    switch (input.below(8)) {
    case 0:
        setText(pair, input);
        break;
    case 1:
        setTime(pair, input, reports);
        break;
    case 2:
        assign(pair, other, input);
        break;
    case 3:
        tryTime(input, reports);
        break;
    default:
        set(pair, input);
    }
    reports.expect("a setter", {});
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    Input input(data, size);
    Reports reports(9);
    Pair pairs[] = {Pair(input.type()), Pair(input.type())};
    for (int steps = 0; steps < 64 && !input.isUsedUp(); ++steps) {
        const int chosen = input.below(2);
        change(pairs[chosen], pairs[1 - chosen], input, reports);
        checkNumbers(pairs[chosen], reports);
        checkTexts(pairs[chosen], reports);
        checkEquality(pairs[0], pairs[1], reports);
        checkEquality(pairs[1], pairs[0], reports);
    }
    return 0;
}
