#ifndef SQLWRAPPER_TESTS_SUPPORT_REPORTTEST_H
#define SQLWRAPPER_TESTS_SUPPORT_REPORTTEST_H

#include "Diagnostics.h"

#include <gmock/gmock.h>

namespace test {

// A test that expects every report: what it has not taken, must not be there when it ends.
class ReportTest : public testing::Test {
protected:
    void TearDown() override
    {
        EXPECT_THAT(_diagnostics.events(), testing::IsEmpty());
    }

    Diagnostics _diagnostics;
};

} // namespace test

#endif
