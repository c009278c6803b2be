#ifndef SQLWRAPPER_TESTS_SUPPORT_INTERRUPTION_H
#define SQLWRAPPER_TESTS_SUPPORT_INTERRUPTION_H

#include "Diagnostics.h"
#include "SqlResult.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <sqlite3.h>

#include <string>
#include <vector>

namespace test {

// Interrupts the nth statement that starts on a connection while this object lives, as it starts. Some that
// read no table, such as begin, take no notice.
class Interruption {
public:
    Interruption(sqlite3* db, int nth) : _db(db), _left(nth)
    {
        sqlite3_trace_v2(
            db, SQLITE_TRACE_STMT,
            [](unsigned, void* interruption, void*, void*) {
                auto& self = *static_cast<Interruption*>(interruption);
                if (--self._left == 0)
                    sqlite3_interrupt(self._db);
                return 0;
            },
            this);
    }
    ~Interruption()
    {
        sqlite3_trace_v2(_db, 0, nullptr, nullptr);
    }
    Interruption(const Interruption&) = delete;
    Interruption& operator=(const Interruption&) = delete;

    bool hasHappened() const
    {
        return _left <= 0;
    }

private:
    sqlite3* const _db;
    int _left;
};

inline void copyDatabase(sqlite3* from, sqlite3* to)
{
    sqlite3_backup* const pages = sqlite3_backup_init(to, "main", from, "main");
    EXPECT_EQ(sqlite3_backup_step(pages, -1), SQLITE_DONE);
    EXPECT_EQ(sqlite3_backup_finish(pages), SQLITE_OK);
}

// Does it again and again, with each of its statements interrupted in turn, until none was. It fails with
// that as its reason, which is reported once, maybe behind the line that tells of SQLite's rollback; or it
// does not notice, and reports what it does when it is done. Each time, whether it was done is checked. How
// often it has failed.
template <typename Operation, typename Check>
int interruptEach(sqlite3* db, Diagnostics& diagnostics, Operation operation, Check check,
                  const std::vector<std::string>& reportWhenDone = {})
{
    int failed = 0;
    for (int nth = 1;; ++nth) {
        bool hasHappened = false;
        sql::Error error;
        {
            const Interruption interruption(db, nth);
            error = operation();
            hasHappened = interruption.hasHappened();
        }
        auto report = diagnostics.take();
        check(!error);
        if (error) {
            EXPECT_EQ(error.extendedCode(), SQLITE_INTERRUPT) << nth;
            EXPECT_THAT(error.text(), testing::EndsWith("interrupted")) << nth;
            if (report.size() == 3 && report[0].find("(noteRollback)") != std::string::npos)
                report.erase(report.begin());
            EXPECT_EQ(report.size(), 2U) << nth << ": " << testing::PrintToString(report);
            ++failed;
        } else {
            EXPECT_EQ(report, reportWhenDone) << nth;
        }
        if (!hasHappened)
            return error ? -1 : failed;
    }
}

} // namespace test

#endif
