#include "SqlCommon.h"

#include "Diagnostics.h"

#include <gmock/gmock.h>

#include <cstring>
#include <string>
#include <vector>

#include <dlfcn.h>

namespace {

int tokenizerCalls = 0;

} // namespace

// Found before the C library's own function of the same name.
extern "C" char* strtok(char* text, const char* delimiters) noexcept
{
    ++tokenizerCalls;
    static auto* const real = reinterpret_cast<char* (*)(char*, const char*)>(
        ::dlsym(RTLD_NEXT, "strtok"));
    return real(text, delimiters);
}

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

// Callers are told not to be in the midst of a list of their own.
TEST(ListTest, IsSplitByTheTokenizerOfTheWholeProcessDeliberately)
{
    test::Diagnostics diagnostics;
    diagnostics.setLevel(9);
    std::vector<std::string> items;
    sql::listToVector(" a ,b", items, ",");
    EXPECT_THAT(items, ElementsAre("a", "b"));
    EXPECT_EQ(tokenizerCalls, 3);
    EXPECT_THAT(diagnostics.events(), IsEmpty());
}

} // namespace
