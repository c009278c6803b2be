#include "SqlNumber.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstdint>

namespace sql {

namespace {

// Writes a real from 0.0001 to 10,000,000 in front of `end`, returns its begin. With up to eight decimals it
// has no more digits than any real keeps: they are its shortest then. Returns null for others.
char* writeDecimals(char* end, double real)
{
    std::uint32_t whole = static_cast<std::uint32_t>(real);
    double power = 1;
    for (int decimals = 0; decimals <= 8; ++decimals) {
        const double digits = std::floor(real * power + 0.5);
        if (digits / power != real) {
            power *= 10;
            continue;
        }
        std::uint32_t fraction = static_cast<std::uint32_t>(digits - whole * power);
        for (int i = std::max(decimals, 1); i > 0; --i, fraction /= 10)
            *--end = static_cast<char>('0' + fraction % 10);
        *--end = '.';
        do {
            *--end = static_cast<char>('0' + whole % 10);
            whole /= 10;
        } while (whole > 0);
        return end;
    }
    return nullptr;
}

} // namespace

// As std::from_chars(), with fewer instructions and less code.
const char* readNumber(std::string_view text, integer& number)
{
    const bool isNegative = !text.empty() && text[0] == '-';
    if (isNegative || (!text.empty() && text[0] == '+'))
        text.remove_prefix(1);
    if (text.empty())
        return is_no_number;
    constexpr std::size_t most_digits = 19; // that 64 bits hold, whatever they are
    while (text.size() > most_digits && text[0] == '0')
        text.remove_prefix(1);
    std::uint64_t size = 0;
    for (const char byte : text) {
        if (byte < '0' || byte > '9')
            return is_no_number;
        size = size * 10 + (byte - '0');
    }
    const std::uint64_t highest = isNegative ? 1ULL << 63 : ~0ULL >> 1;
    if (text.size() > most_digits || size > highest)
        return is_out_of_range;
    number = static_cast<integer>(isNegative ? 0 - size : size);
    return nullptr;
}

const char* readNumber(std::string_view text, double& number)
{
    if (text.size() > 1 && text[0] == '+' && text[1] != '-')
        text.remove_prefix(1);
    const char* const end = text.data() + text.size();
    const auto [last, error] = std::from_chars(text.data(), end, number);
    if (last != end || error == std::errc::invalid_argument)
        return is_no_number;
    return error == std::errc() ? nullptr : is_out_of_range;
}

NumberText::NumberText(integer number)
    : _end(std::to_chars(_text, _text + sizeof _text, number).ptr)
{
}

NumberText::NumberText(double real)
{
    const double size = std::fabs(real);
    char* const limit = _text + sizeof _text;
    const bool isPlain = size >= 1e-4 && size < 1e15; // where nobody wants an exponent
    char* begin = isPlain && size < 1e7 ? writeDecimals(limit, size) : nullptr;
    if (begin != nullptr) {
        if (real < 0)
            *--begin = '-';
        _begin = begin;
        _end = limit;
        return;
    }
    char* end = (isPlain ? std::to_chars(_text, limit, real, std::chars_format::fixed)
                         : std::to_chars(_text, limit, real))
                    .ptr;
    if (std::none_of(_text, end, [](char byte) { return byte == '.' || byte == 'e'; })) {
        *end++ = '.';
        *end++ = '0';
    }
    _end = end;
}

} // namespace sql
