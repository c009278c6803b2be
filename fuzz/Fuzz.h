#ifndef SQLWRAPPER_FUZZ_FUZZ_H
#define SQLWRAPPER_FUZZ_FUZZ_H

// What all targets share: reading choices off an input, and saying which property does not hold.

#include "Diagnostics.h"
#include "HostileTexts.h"
#include "SqlCommon.h"

#include <gtest/gtest.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

// What each target defines: tries one input, and ends the program when a property does not hold.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

namespace fuzz {

// The choices that a target makes, read off an input from its start. Zeroes follow the input's end.
// The same on every target, whatever its widths and byte order.
class Input {
public:
    Input(const std::uint8_t* data, std::size_t size) : _data(data), _left(size)
    {
    }

    bool isUsedUp() const
    {
        return _left == 0;
    }

    int byte()
    {
        if (_left == 0)
            return 0;
        --_left;
        return *_data++;
    }

    // A number of [0, limit[, for limits up to 256.
    int below(int limit)
    {
        return byte() % limit;
    }

    template <typename T, std::size_t count> const T& oneOf(const T (&all)[count])
    {
        return all[below(count)];
    }

    bool flip()
    {
        return byte() % 2 == 1;
    }

    std::uint64_t bits(int bytes)
    {
        std::uint64_t bits = 0;
        for (int i = 0; i < bytes; ++i)
            bits = bits << 8 | static_cast<std::uint64_t>(byte());
        return bits;
    }

    // Small ones, 64 bits of any kind, and those next to the limits.
    sql::integer integer()
    {
        switch (below(4)) {
        case 0:
            return static_cast<sql::integer>(bits(8));
        case 1:
            return static_cast<sql::integer>((std::uint64_t{1} << below(64)) - bits(1));
        default:
            return static_cast<std::int8_t>(byte());
        }
    }

    std::int32_t number()
    {
        return static_cast<std::int32_t>(static_cast<std::uint32_t>(integer()));
    }

    // Short decimals, and any bits that a double can have.
    double real()
    {
        if (flip())
            return static_cast<double>(static_cast<std::int16_t>(bits(2))) / 64;
        const std::uint64_t pattern = bits(8);
        double real = 0;
        static_assert(sizeof real == sizeof pattern);
        std::memcpy(&real, &pattern, sizeof real);
        return real;
    }

    // Any bytes, after a byte that says how many.
    std::string text()
    {
        std::string text;
        for (int left = byte(); left > 0 && !isUsedUp(); --left)
            text += static_cast<char>(byte());
        return text;
    }

    // Any bytes but zero.
    std::string word()
    {
        std::string word = text();
        for (char& letter : word)
            letter = letter == '\0' ? '0' : letter;
        return word;
    }

    sql::field_type type()
    {
        return static_cast<sql::field_type>(flip() ? number() : below(6));
    }

private:
    const std::uint8_t* _data;
    std::size_t _left;
};

// Ends the program when the two differ, naming what was found out and both values.
template <typename Actual, typename Expected>
void expectEqual(const char* what, const Actual& actual, const Expected& expected)
{
    if (actual == expected)
        return;
    std::fprintf(stderr, "%s is %s instead of %s\n", what, testing::PrintToString(actual).c_str(),
                 testing::PrintToString(expected).c_str());
    std::abort();
}

typedef std::vector<std::string> Events;

// What the library reports while this object lives, in its order: "[ERROR] No table name given" for
// a line, "assert 'false'" for an assertion.
class Reports {
public:
    explicit Reports(int level)
    {
        _diagnostics.setLevel(level);
        _diagnostics.onLine([this](const test::LogLine& line) {
            _events.push_back(line.tag + " " + line.message);
        });
        _diagnostics.onAssertion([this](const test::Assertion& assertion) {
            _events.push_back("assert '" + assertion.expression + "'");
        });
    }

    Reports(const Reports&) = delete;
    Reports& operator=(const Reports&) = delete;

    void setLevel(int level)
    {
        _diagnostics.setLevel(level);
    }

    // The reports since the last time they were taken.
    Events take()
    {
        Events events;
        events.swap(_events);
        _diagnostics.clear();
        return events;
    }

    // Takes the reports, which have to be just these.
    void expect(const char* what, const Events& expected)
    {
        const std::string reports = std::string("what is reported by ") + what;
        expectEqual(reports.c_str(), take(), expected);
    }

private:
    test::Diagnostics _diagnostics;
    Events _events;
};

} // namespace fuzz

#endif
