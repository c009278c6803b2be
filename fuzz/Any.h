#ifndef SQLWRAPPER_FUZZ_ANY_H
#define SQLWRAPPER_FUZZ_ANY_H

// A value whose type is chosen at run time; and what SQLite has to store for it and to make of a cell,
// told once more in the plainest way.

#include "Fuzz.h"
#include "PlainNumbers.h"
#include "SqlBinder.h"

#include <sqlite3.h>

#include <cerrno>
#include <cmath>
#include <optional>
#include <regex>
#include <string>
#include <type_traits>
#include <variant>
#include <vector>

namespace fuzz {

typedef std::optional<std::string> OptionalText;
typedef std::vector<unsigned char> Block;

// A type for each way in and out: the unit tests try the others. The first takes any cell.
typedef std::variant<OptionalText, std::string, Block, double, sql::integer, std::int16_t,
                     std::uint64_t>
    Any;

inline std::string anyText(Input& input)
{
    static const char* const numbers[] = {
        "",      "7",  "-0", "+12", " 3",  "4 ",  "0x10",   "2.5", "1.5e3",
        "1e999", ".5", "5.", "1e",  "inf", "+-5", "1e-999", "-",   "9223372036854775808"};
    return input.flip() ? input.oneOf(numbers) : input.text();
}

inline Any anyValue(Input& input)
{
    const int kind = input.below(8);
    if (kind < 4) {
        const std::string text = anyText(input);
        const Any texts[] = {text, Block(text.begin(), text.end()), OptionalText(text),
                             OptionalText()};
        return texts[kind];
    }
    if (kind == 4)
        return input.below(16) == 0 ? NAN : input.real();
    const sql::integer number = input.integer();
    const Any numbers[] = {number, static_cast<std::int16_t>(number),
                           static_cast<std::uint64_t>(number)};
    return numbers[kind - 5];
}

// Returns null, or why the value cannot be bound.
inline const char* bindPlainly(sqlite3_stmt* statement, int position, const Any& any)
{
    const auto bind = [=](auto value) -> const char* {
        typedef std::decay_t<decltype(value)> T;
        if constexpr (std::is_integral_v<T>) {
            const sql::integer number = static_cast<sql::integer>(value);
            if (std::is_unsigned_v<T> && number < 0)
                return "is above the range of integers";
            sqlite3_bind_int64(statement, position, number);
        } else if constexpr (std::is_same_v<T, double>) {
            if (std::isnan(value))
                return "is not a number";
            sqlite3_bind_double(statement, position, value);
        } else if constexpr (std::is_same_v<T, Block>) {
            sqlite3_bind_zeroblob(statement, position, 0);
            if (!value.empty())
                sqlite3_bind_blob64(statement, position, value.data(), value.size(),
                                    SQLITE_TRANSIENT);
        } else {
            const OptionalText text = std::move(value);
            sqlite3_bind_null(statement, position);
            if (text)
                sqlite3_bind_text64(statement, position, text->data(), text->size(),
                                    SQLITE_TRANSIENT, SQLITE_UTF8);
        }
        return nullptr;
    };
    return std::visit(bind, any);
}

struct Cell {
    int type = SQLITE_NULL;
    sql::integer number = 0;
    double real = 0;
    std::string text; // also the bytes of a block
};

inline Cell cellOf(sqlite3_stmt* statement, int index)
{
    Cell cell;
    cell.type = sqlite3_column_type(statement, index);
    cell.number = sqlite3_column_int64(statement, index);
    cell.real = sqlite3_column_double(statement, index);
    const void* const bytes = sqlite3_column_blob(statement, index);
    cell.text.assign(static_cast<const char*>(bytes),
                     static_cast<std::size_t>(sqlite3_column_bytes(statement, index)));
    if (cell.type == SQLITE_TEXT || cell.type == SQLITE_BLOB)
        cell.real = test::readDouble(cell.text); // knows more forms than SQLite
    return cell;
}

// Returns null, or why the cell, which is not NULL, does not fit.
inline const char* readPlainly(const Cell& cell, double& real)
{
    static const std::regex number("[-+]?([0-9]+[.]?[0-9]*|[.][0-9]+)([eE][-+]?[0-9]+)?");
    static const std::regex zero("[-+]?[0.]*([eE].*)?");
    const bool isText = cell.type == SQLITE_TEXT;
    if (cell.type == SQLITE_BLOB || (isText && !std::regex_match(cell.text, number)))
        return "is no number";
    const bool isTooSmall = cell.real == 0 && !std::regex_match(cell.text, zero);
    if (isText && (std::isinf(cell.real) || isTooSmall))
        return "is out of the variable's range";
    real = cell.real;
    return nullptr;
}

template <typename Number> const char* readPlainly(const Cell& cell, Number& number)
{
    double real = 0;
    if (const char* const why = readPlainly(cell, real))
        return why;
    if (real != std::trunc(real))
        return "is no integer";
    sql::integer found = 0;
    errno = 0;
    if (cell.type != SQLITE_FLOAT && cell.text.find_first_of(".eE") == std::string::npos)
        found = std::strtoll(cell.text.c_str(), nullptr, 10);
    else if (real >= std::ldexp(-1, 63) && real < std::ldexp(1, 63))
        found = static_cast<sql::integer>(real);
    else
        errno = ERANGE;
    if (errno == ERANGE || (std::is_unsigned_v<Number> && found < 0)
        || static_cast<sql::integer>(static_cast<Number>(found)) != found)
        return "is out of the variable's range";
    number = static_cast<Number>(found);
    return nullptr;
}

inline const char* readPlainly(const Cell& cell, Any& any)
{
    const bool isNull = cell.type == SQLITE_NULL;
    const auto read = [&](auto& value) -> const char* {
        typedef std::decay_t<decltype(value)> T;
        if constexpr (std::is_same_v<T, OptionalText>)
            value = isNull ? T() : cell.text;
        else if constexpr (std::is_arithmetic_v<T>)
            return isNull ? "is NULL" : readPlainly(cell, value);
        else if (!isNull)
            value = T(cell.text.begin(), cell.text.end());
        else
            return "is NULL";
        return nullptr;
    };
    return std::visit(read, any);
}

} // namespace fuzz

template <> struct sql::Binder<fuzz::Any> {
    static Argument argument(const fuzz::Any& any)
    {
        return std::visit(
            [](const auto& value) {
                return Binder<std::decay_t<decltype(value)>>::argument(value);
            },
            any);
    }

    static const char* read(const Column& column, fuzz::Any& any)
    {
        return std::visit(
            [&](auto& value) { return Binder<std::decay_t<decltype(value)>>::read(column, value); },
            any);
    }
};

#endif
