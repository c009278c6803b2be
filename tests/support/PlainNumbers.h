#ifndef SQLWRAPPER_TESTS_SUPPORT_PLAINNUMBERS_H
#define SQLWRAPPER_TESTS_SUPPORT_PLAINNUMBERS_H

#include <cstdio>
#include <cstdlib>
#include <string>

#include <locale.h>

namespace test {

// Numbers as the C library writes and reads them in its own plain locale, whatever is set.
class PlainLocale {
public:
    PlainLocale() : _plain(::newlocale(LC_ALL_MASK, "C", nullptr)), _former(::uselocale(_plain))
    {
    }
    ~PlainLocale()
    {
        ::uselocale(_former);
        ::freelocale(_plain);
    }
    PlainLocale(const PlainLocale&) = delete;
    PlainLocale& operator=(const PlainLocale&) = delete;

private:
    const locale_t _plain;
    const locale_t _former;
};

// What stays of a formatted number in 128 bytes.
inline std::string fixedText(double number)
{
    const PlainLocale plain;
    char text[128];
    std::snprintf(text, sizeof text, "%0.8f", number);
    return text;
}

inline double readDouble(const std::string& text)
{
    const PlainLocale plain;
    return ::strtod(text.c_str(), nullptr);
}

} // namespace test

#endif
