#include "SqlCommon.h"
#include "SqlField.h"

#include "TraceLevel.h"

#include <cstdarg>
#include <cstdio>
#include <string>
#include <vector>

#include <gmock/gmock.h>

#include <syslog.h>

namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::MatchesRegex;

std::vector<std::string> lines;
std::vector<int> priorities;

__attribute__((format(printf, 2, 0))) void take(int priority, const char* format, va_list arguments)
{
    char text[1024];
    std::vsnprintf(text, sizeof text, format, arguments);
    lines.push_back(text);
    priorities.push_back(priority);
}

} // namespace

extern "C" {

__attribute__((format(printf, 2, 3))) void syslog(int priority, const char* format, ...);
__attribute__((format(printf, 3, 4))) void __syslog_chk(int priority, int flag, const char* format,
                                                        ...);

void syslog(int priority, const char* format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    take(priority, format, arguments);
    va_end(arguments);
}

void __syslog_chk(int priority, int, const char* format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    take(priority, format, arguments);
    va_end(arguments);
}

} // extern "C"

namespace {

class PlatformTest : public testing::Test {
protected:
    PlatformTest()
    {
        lines.clear();
        priorities.clear();
    }

    ~PlatformTest() override
    {
        trace::setLevel(trace::trace_off);
    }
};

TEST_F(PlatformTest, LevelStartsOff)
{
    EXPECT_EQ(trace::level(), 0);
}

TEST_F(PlatformTest, LevelIsReadBack)
{
    trace::setLevel(7);
    EXPECT_EQ(trace::level(), 7);
}

TEST_F(PlatformTest, LevelNamesOpenTheGateTheyAreCalledAfter)
{
    EXPECT_EQ(trace::trace_off, 0);
    EXPECT_EQ(trace::trace_errors, 3);
    EXPECT_EQ(trace::trace_debug1, 7);
    EXPECT_EQ(trace::trace_debug2, 8);
    EXPECT_EQ(trace::trace_debug3, 9);
}

TEST_F(PlatformTest, LibraryIsSilentUntilTheLevelIsSet)
{
    sql::Time(0);
    EXPECT_THAT(lines, IsEmpty());
}

TEST_F(PlatformTest, LibraryTracesAtTheLevelThatIsSet)
{
    trace::setLevel(trace::trace_debug3);
    sql::Time(0);
    EXPECT_THAT(lines, ElementsAre(MatchesRegex("\\[DEBUG3\\] SqlCommon.cpp:[0-9]+ \\(Time\\) - "
                                                "Time ctor: time = 0 = 'Thu Jan  1 .* 1970\n'")));
    EXPECT_THAT(priorities, ElementsAre(LOG_DEBUG));
}

TEST_F(PlatformTest, LibraryIsSilentOneBelowThatLevel)
{
    trace::setLevel(trace::trace_debug3 - 1);
    sql::Time(0);
    EXPECT_THAT(lines, IsEmpty());
}

TEST_F(PlatformTest, AssertionGoesToTheSystemLogWhateverTheLevel)
{
    EXPECT_EQ(sql::queryNumber(nullptr, "select 1"), -1);
    EXPECT_THAT(lines, ElementsAre(MatchesRegex(
                           "\\[ASSERT\\] components/sql/sqlwrapper/src/SqlCommon.cpp:[0-9]+ "
                           "\\(int sql::queryNumber\\(sqlite3\\*, const string&\\)\\) - "
                           "assertion 'db' failed")));
    EXPECT_THAT(priorities, ElementsAre(LOG_ERR));
}

} // namespace
