#ifndef SQLWRAPPER_TESTS_SUPPORT_PREPAREDTEST_H
#define SQLWRAPPER_TESTS_SUPPORT_PREPAREDTEST_H

#include "ReportTest.h"
#include "SqlDatabase.h"
#include "Sqlite.h"

#include <string>

namespace test {

// A test of sqlprepared on a database of its own, in memory. Every report is expected; what is
// only traced comes at a higher level than that at which it begins.
class PreparedTest : public ReportTest {
protected:
    PreparedTest()
    {
        if (!_database.open(":memory:", sql::Database::access_create, false, 0))
            ADD_FAILURE() << "no database";
    }

    // A statement that is left over would be reported here.
    void TearDown() override
    {
        _database.close();
        ReportTest::TearDown();
    }

    // As the functions of these names, on the same connection.
    void run(const std::string& sql)
    {
        test::run(_database.getHandle(), sql);
    }
    std::string rows(const std::string& sql)
    {
        return test::rows(_database.getHandle(), sql);
    }

    sql::Database _database;
};

} // namespace test

#endif
