#ifndef SQLWRAPPER_TESTS_SUPPORT_CASES_H
#define SQLWRAPPER_TESTS_SUPPORT_CASES_H

#include <gtest/gtest.h>

#include <ostream>
#include <string>

namespace test {

// A case of a test that is run for many. Its name becomes the test's:
//     INSTANTIATE_TEST_SUITE_P(All, TableTest, ValuesIn(cases), test::NameOfCase());
struct Case {
    Case(const char* text) : name(text)
    {
    }
    Case(const std::string& text) : name(text)
    {
    }

    std::string name;
};

inline std::ostream& operator<<(std::ostream& out, const Case& one)
{
    return out << one.name;
}

struct NameOfCase {
    template <typename Any> std::string operator()(const testing::TestParamInfo<Any>& info) const
    {
        return info.param.name;
    }
};

} // namespace test

#endif
