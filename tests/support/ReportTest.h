#ifndef SQLWRAPPER_TESTS_SUPPORT_REPORTTEST_H
#define SQLWRAPPER_TESTS_SUPPORT_REPORTTEST_H

#include "Diagnostics.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace test {

// A test that expects every report: what it has not taken must not be there when it ends.
class ReportTest : public testing::Test {
protected:
    void TearDown() override
    {
        expectReport({});
    }

    // Takes what has been reported: as much of `report` as the trace level lets through.
    void expectReport(const std::vector<std::string>& report)
    {
        EXPECT_EQ(_diagnostics.take(), visibleAt(_diagnostics.level(), report));
    }

    Diagnostics _diagnostics;
};

} // namespace test

#endif
