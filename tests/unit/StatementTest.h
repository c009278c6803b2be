#ifndef SQLWRAPPER_TESTS_UNIT_STATEMENTTEST_H
#define SQLWRAPPER_TESTS_UNIT_STATEMENTTEST_H

#include "PreparedTest.h"
#include "Reports.h"
#include "SqlStatement.h"

#include <string>

// What the tests of statements share.
class StatementTest : public test::PreparedTest {
protected:
    // The statement's latest operation failed for this reason, "25=SQLITE_RANGE: no parameter", and
    // has reported so and nothing else.
    void expectFailure(const sql::Statement& statement, const std::string& operation,
                       const std::string& reason)
    {
        expectFailure(statement.error(), operation, reason, std::string(statement.text()));
    }

    void expectFailure(const sql::Error& error, const std::string& operation,
                       const std::string& reason, const std::string& text)
    {
        expectReport(test::report::statementFailed(operation, text, reason));
        expectError(error, reason, text);
    }

    static void expectError(const sql::Error& error, const std::string& reason,
                            const std::string& text)
    {
        EXPECT_TRUE(error);
        EXPECT_EQ(std::to_string(error.extendedCode()) + "=" + error.name() + ": " + error.text(),
                  reason);
        EXPECT_EQ(error.statement(), text);
    }
};

#endif
