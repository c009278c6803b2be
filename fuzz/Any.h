#ifndef SQLWRAPPER_FUZZ_ANY_H
#define SQLWRAPPER_FUZZ_ANY_H

// A value whose type is chosen at run time, of all those that a statement takes and gives; and what
// SQLite has to store for it and to make of a cell, told once more in the plainest way.

#include "Fuzz.h"
#include "PlainNumbers.h"
#include "SqlStatement.h"

#include <sqlite3.h>

#include <chrono>
#include <cmath>
#include <limits>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace fuzz {

enum class Small : std::uint8_t {};
enum Wide : std::int64_t {};
typedef std::chrono::system_clock::time_point Point;

struct Any {
    enum Kind {
        of_int8,
        of_uint8,
        of_int16,
        of_uint16,
        of_int32,
        of_uint32,
        of_int64,
        of_uint64,
        of_bool,
        of_small_enum,
        of_wide_enum,
        of_time,
        of_point,
        of_optional_number,
        of_double,
        of_float,
        of_optional_double,
        of_string,
        of_view,
        of_optional_string,
        of_bytes,
        of_vector,
        of_literal, // from here on for what is bound alone
        of_c_text,
        of_null,
        of_null_c_text,
        kinds,
        readable_kinds = of_literal
    };

    Kind kind = of_int64;
    sql::integer number = 0;
    double real = 0;
    std::string text;
    std::vector<unsigned char> block;
    std::optional<std::string> optionalText;
    char letters[8] = "";
    std::string found; // when a cell was read: what is in a variable of this kind
};

inline Any chosenAny(Input& input)
{
    static const char* const texts[] = {
        "",      "7",  "-0", "+12", " 3",  "4 ",  "0x10",   "2.5", "1.5e3",
        "1e999", ".5", "5.", "1e",  "inf", "+-5", "1e-999", "-",   "9223372036854775808"};
    Any any;
    any.kind = static_cast<Any::Kind>(input.below(Any::kinds));
    if (any.kind < Any::of_double)
        any.number = input.integer();
    else if (any.kind < Any::of_string)
        any.real = input.real();
    else if (input.flip())
        any.text = texts[input.below(sizeof texts / sizeof texts[0])];
    else
        any.text = input.text();
    any.text.copy(any.letters, sizeof any.letters - 1);
    any.block.assign(any.text.begin(), any.text.end());
    if (!any.text.empty())
        any.optionalText = any.text;
    return any;
}

// What SQLite stores, or why it does not.
struct Stored {
    int type = SQLITE_NULL;
    sql::integer number = 0;
    double real = 0;
    std::string text;
    std::string unfit;
};

inline Stored stored(sql::integer number)
{
    Stored stored;
    stored.type = SQLITE_INTEGER;
    stored.number = number;
    return stored;
}

inline Stored stored(double real)
{
    Stored stored;
    stored.type = SQLITE_FLOAT;
    stored.real = real;
    if (std::isnan(real))
        stored.unfit = "is not a number";
    return stored;
}

inline Stored stored(int type, const std::string& text)
{
    Stored stored;
    stored.type = type;
    stored.text = text;
    return stored;
}

// As a text of C.
inline std::string upToZero(const std::string& text)
{
    return text.substr(0, text.find('\0'));
}

constexpr sql::integer ticks_per_second = Point::period::den;

inline Stored stored(const Any& any)
{
    switch (any.kind) {
    case Any::of_int8:
        return stored(sql::integer{static_cast<std::int8_t>(any.number)});
    case Any::of_uint8:
    case Any::of_small_enum:
        return stored(sql::integer{static_cast<std::uint8_t>(any.number)});
    case Any::of_int16:
        return stored(sql::integer{static_cast<std::int16_t>(any.number)});
    case Any::of_uint16:
        return stored(sql::integer{static_cast<std::uint16_t>(any.number)});
    case Any::of_int32:
        return stored(sql::integer{static_cast<std::int32_t>(any.number)});
    case Any::of_uint32:
        return stored(sql::integer{static_cast<std::uint32_t>(any.number)});
    case Any::of_uint64: {
        Stored number = stored(any.number);
        if (any.number < 0)
            number.unfit = "is above the range of integers";
        return number;
    }
    case Any::of_bool:
        return stored(sql::integer{any.number == 0 ? 0 : 1});
    case Any::of_time:
        return stored(sql::integer{static_cast<time_t>(any.number)});
    case Any::of_point: {
        const sql::integer whole = any.number / ticks_per_second;
        return stored(any.number % ticks_per_second < 0 ? whole - 1 : whole);
    }
    case Any::of_optional_number:
        return any.number == 0 ? Stored() : stored(any.number);
    case Any::of_double:
        return stored(any.real);
    case Any::of_float:
        return stored(static_cast<double>(static_cast<float>(any.real)));
    case Any::of_optional_double:
        return any.real == 0 ? Stored() : stored(any.real);
    case Any::of_string:
    case Any::of_view:
        return stored(SQLITE_TEXT, any.text);
    case Any::of_optional_string:
        return any.text.empty() ? Stored() : stored(SQLITE_TEXT, any.text);
    case Any::of_bytes:
    case Any::of_vector:
        return stored(SQLITE_BLOB, any.text);
    case Any::of_literal:
        return stored(SQLITE_TEXT, upToZero(any.text.substr(0, 7)));
    case Any::of_c_text:
        return stored(SQLITE_TEXT, upToZero(any.text));
    case Any::of_null:
    case Any::of_null_c_text:
        return Stored();
    default:
        return stored(any.number);
    }
}

// --- What a variable of a kind is to hold, as a text ---------------------------------------------

inline std::string shown(double real)
{
    char text[64];
    std::snprintf(text, sizeof text, "%a", real);
    return text;
}

struct Cell {
    int type = SQLITE_NULL;
    sql::integer number = 0;
    double real = 0;
    std::string text;  // as a text
    std::string block; // as a block
};

inline bool isNumber(const std::string& text)
{
    const char* at = text.c_str();
    const auto skipDigits = [&at] {
        const char* const first = at;
        while (*at >= '0' && *at <= '9')
            ++at;
        return at - first;
    };
    if (*at == '-' || *at == '+')
        ++at;
    auto digits = skipDigits();
    if (*at == '.') {
        ++at;
        digits += skipDigits();
    }
    if (digits == 0)
        return false;
    if (*at == 'e' || *at == 'E') {
        ++at;
        if (*at == '-' || *at == '+')
            ++at;
        if (skipDigits() == 0)
            return false;
    }
    return at == text.c_str() + text.size();
}

// Null, or why the cell is none.
inline const char* realOf(const Cell& cell, double& real)
{
    switch (cell.type) {
    case SQLITE_NULL:
        return "is NULL";
    case SQLITE_INTEGER:
        real = static_cast<double>(cell.number);
        return nullptr;
    case SQLITE_FLOAT:
        real = cell.real;
        return nullptr;
    default:
        if (cell.type == SQLITE_BLOB || !isNumber(cell.text))
            return "is no number";
        real = test::readDouble(cell.text);
        const bool isZero =
            cell.text.substr(0, cell.text.find_first_of("eE")).find_first_of("123456789")
            == std::string::npos;
        return std::isinf(real) || (real == 0 && !isZero) ? "is out of the variable's range"
                                                          : nullptr;
    }
}

inline const char* integerOf(const Cell& cell, sql::integer lowest, sql::integer highest,
                             sql::integer& number)
{
    double real = 0;
    if (const char* const why = realOf(cell, real))
        return why;
    if (cell.type == SQLITE_INTEGER) {
        number = cell.number;
    } else {
        if (real != std::trunc(real))
            return "is no integer";
        if (!(std::fabs(real) <= std::ldexp(1.0, 63)))
            return "is out of the variable's range";
        if (cell.type == SQLITE_TEXT && cell.text.find_first_of(".eE") == std::string::npos) {
            errno = 0;
            number = std::strtoll(cell.text.c_str(), nullptr, 10);
            if (errno == ERANGE)
                return "is out of the variable's range";
        } else {
            if (real == std::ldexp(1.0, 63))
                return "is out of the variable's range";
            number = static_cast<sql::integer>(real);
        }
    }
    return number < lowest || number > highest ? "is out of the variable's range" : nullptr;
}

template <typename Number> const char* numberIn(const Cell& cell, std::string& found)
{
    sql::integer number = 0;
    const bool isWide = sizeof(Number) == 8 && !std::is_signed_v<Number>;
    const char* const why = integerOf(
        cell, static_cast<sql::integer>(std::numeric_limits<Number>::min()),
        isWide ? std::numeric_limits<sql::integer>::max()
               : static_cast<sql::integer>(std::numeric_limits<Number>::max()),
        number);
    if (why == nullptr)
        found = std::to_string(number);
    return why;
}

inline const char* pointIn(const Cell& cell, std::string& found)
{
    const sql::integer limit = std::numeric_limits<sql::integer>::max() / ticks_per_second;
    sql::integer number = 0;
    const char* const why = integerOf(cell, -limit, limit, number);
    if (why == nullptr)
        found = std::to_string(number * ticks_per_second);
    return why;
}

inline const char* doubleIn(const Cell& cell, std::string& found)
{
    double real = 0;
    const char* const why = realOf(cell, real);
    if (why == nullptr)
        found = shown(real);
    return why;
}

inline const char* floatIn(const Cell& cell, std::string& found)
{
    double real = 0;
    if (const char* const why = realOf(cell, real))
        return why;
    if (!std::isinf(real)
        && std::fabs(real) > static_cast<double>(std::numeric_limits<float>::max()))
        return "is out of the variable's range";
    found = shown(static_cast<double>(static_cast<float>(real)));
    return nullptr;
}

// Null when a variable of this kind can hold the cell; then with what it holds.
inline const char* read(const Cell& cell, Any::Kind kind, std::string& found)
{
    const bool isOptional = kind == Any::of_optional_number || kind == Any::of_optional_double
                            || kind == Any::of_optional_string;
    if (cell.type == SQLITE_NULL) {
        found = "nothing";
        return isOptional ? nullptr : "is NULL";
    }
    switch (kind) {
    case Any::of_int8:
        return numberIn<std::int8_t>(cell, found);
    case Any::of_uint8:
    case Any::of_small_enum:
        return numberIn<std::uint8_t>(cell, found);
    case Any::of_int16:
        return numberIn<std::int16_t>(cell, found);
    case Any::of_uint16:
        return numberIn<std::uint16_t>(cell, found);
    case Any::of_int32:
        return numberIn<std::int32_t>(cell, found);
    case Any::of_uint32:
        return numberIn<std::uint32_t>(cell, found);
    case Any::of_uint64:
        return numberIn<std::uint64_t>(cell, found);
    case Any::of_bool:
        return numberIn<bool>(cell, found);
    case Any::of_time:
        return numberIn<time_t>(cell, found);
    case Any::of_point:
        return pointIn(cell, found);
    case Any::of_double:
    case Any::of_optional_double:
        return doubleIn(cell, found);
    case Any::of_float:
        return floatIn(cell, found);
    case Any::of_string:
    case Any::of_view:
    case Any::of_optional_string:
        found = cell.text;
        return nullptr;
    case Any::of_bytes:
    case Any::of_vector:
        found = cell.block;
        return nullptr;
    default:
        return numberIn<std::int64_t>(cell, found);
    }
}

// --- The same by the library's own binders -------------------------------------------------------

inline std::string textOf(double real)
{
    return shown(real);
}
inline std::string textOf(float real)
{
    return shown(static_cast<double>(real));
}
inline std::string textOf(const std::string& text)
{
    return text;
}
inline std::string textOf(std::string_view text)
{
    return std::string(text);
}
inline std::string textOf(const std::vector<unsigned char>& block)
{
    return std::string(block.begin(), block.end());
}
inline std::string textOf(const sql::Bytes& bytes)
{
    return bytes.size == 0 ? std::string()
                           : std::string(static_cast<const char*>(bytes.data), bytes.size);
}
inline std::string textOf(const sql::Time& time)
{
    return std::to_string(time.asInteger());
}
inline std::string textOf(const Point& point)
{
    return std::to_string(point.time_since_epoch().count());
}
template <typename Number> std::string textOf(Number number)
{
    return std::to_string(static_cast<sql::integer>(number));
}
template <typename T> std::string textOf(const std::optional<T>& value)
{
    return value ? textOf(*value) : "nothing";
}

template <typename T> const char* readInto(const sql::Column& column, std::string& found, T value)
{
    const char* const why = sql::Binder<T>::read(column, value);
    if (why == nullptr)
        found = textOf(value);
    return why;
}

} // namespace fuzz

template <> struct sql::Binder<fuzz::Any> {
    static Argument argument(const fuzz::Any& any)
    {
        using fuzz::Any;
        switch (any.kind) {
        case Any::of_int8:
            return number<std::int8_t>(any);
        case Any::of_uint8:
            return number<std::uint8_t>(any);
        case Any::of_int16:
            return number<std::int16_t>(any);
        case Any::of_uint16:
            return number<std::uint16_t>(any);
        case Any::of_int32:
            return number<std::int32_t>(any);
        case Any::of_uint32:
            return number<std::uint32_t>(any);
        case Any::of_uint64:
            return number<std::uint64_t>(any);
        case Any::of_bool:
            return number<bool>(any);
        case Any::of_small_enum:
            return number<fuzz::Small>(any);
        case Any::of_wide_enum:
            return number<fuzz::Wide>(any);
        case Any::of_time:
            return of(Time(any.number));
        case Any::of_point:
            return of(fuzz::Point(fuzz::Point::duration(any.number)));
        case Any::of_optional_number:
            return of(any.number == 0 ? std::nullopt : std::optional<integer>(any.number));
        case Any::of_double:
            return of(any.real);
        case Any::of_float:
            return of(static_cast<float>(any.real));
        case Any::of_optional_double:
            return of(any.real == 0 ? std::nullopt : std::optional<double>(any.real));
        case Any::of_string:
            return of(any.text);
        case Any::of_view:
            return of(any.text.empty() ? std::string_view() : std::string_view(any.text));
        case Any::of_optional_string:
            return of(any.optionalText);
        case Any::of_bytes:
            return of(Bytes{any.block.data(), any.block.size()});
        case Any::of_vector:
            return of(any.block);
        case Any::of_literal:
            return of(any.letters);
        case Any::of_c_text:
            return of(any.text.c_str());
        case Any::of_null:
            return of(nullptr);
        case Any::of_null_c_text:
            return of(static_cast<const char*>(nullptr));
        default:
            return of(any.number);
        }
    }

    static const char* read(const Column& column, fuzz::Any& any)
    {
        using fuzz::Any;
        using fuzz::readInto;
        switch (any.kind) {
        case Any::of_int8:
            return readInto(column, any.found, std::int8_t{});
        case Any::of_uint8:
            return readInto(column, any.found, std::uint8_t{});
        case Any::of_int16:
            return readInto(column, any.found, std::int16_t{});
        case Any::of_uint16:
            return readInto(column, any.found, std::uint16_t{});
        case Any::of_int32:
            return readInto(column, any.found, std::int32_t{});
        case Any::of_uint32:
            return readInto(column, any.found, std::uint32_t{});
        case Any::of_uint64:
            return readInto(column, any.found, std::uint64_t{});
        case Any::of_bool:
            return readInto(column, any.found, false);
        case Any::of_small_enum:
            return readInto(column, any.found, fuzz::Small{});
        case Any::of_wide_enum:
            return readInto(column, any.found, fuzz::Wide{});
        case Any::of_time:
            return readInto(column, any.found, Time(0));
        case Any::of_point:
            return readInto(column, any.found, fuzz::Point());
        case Any::of_optional_number:
            return readInto(column, any.found, std::optional<integer>());
        case Any::of_double:
            return readInto(column, any.found, 0.0);
        case Any::of_float:
            return readInto(column, any.found, 0.0F);
        case Any::of_optional_double:
            return readInto(column, any.found, std::optional<double>(0.5));
        case Any::of_string:
            return readInto(column, any.found, string());
        case Any::of_view:
            return readInto(column, any.found, std::string_view());
        case Any::of_optional_string:
            return readInto(column, any.found, std::optional<string>());
        case Any::of_bytes:
            return readInto(column, any.found, Bytes());
        case Any::of_vector:
            return readInto(column, any.found, std::vector<unsigned char>());
        default:
            return readInto(column, any.found, integer{});
        }
    }

private:
    // What an argument borrows is the Any's own.
    template <typename T> static Argument of(const T& value)
    {
        return Binder<T>::argument(value);
    }
    template <typename T> static Argument number(const fuzz::Any& any)
    {
        return of(static_cast<T>(any.number));
    }
};

#endif
