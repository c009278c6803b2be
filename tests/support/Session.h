#ifndef SQLWRAPPER_TESTS_SUPPORT_SESSION_H
#define SQLWRAPPER_TESTS_SUPPORT_SESSION_H

#include "Sqlite.h"

#include <gtest/gtest.h>
#include <sqlite3.h>

#include <initializer_list>
#include <string>
#include <string_view>

namespace test {

// What SQLite itself records of the writes to some tables while this object lives.
class Session {
public:
    Session(sqlite3* db, std::initializer_list<const char*> tables)
    {
        EXPECT_EQ(sqlite3session_create(db, "main", &_session), SQLITE_OK);
        for (const char* const table : tables)
            EXPECT_EQ(sqlite3session_attach(_session, table), SQLITE_OK);
    }
    Session(const Session&) = delete;
    Session& operator=(const Session&) = delete;
    ~Session()
    {
        sqlite3session_delete(_session);
    }

    std::string changeSet()
    {
        int size = 0;
        void* bytes = nullptr;
        EXPECT_EQ(sqlite3session_changeset(_session, &size, &bytes), SQLITE_OK);
        std::string set(static_cast<const char*>(bytes), static_cast<std::size_t>(size));
        sqlite3_free(bytes);
        return set;
    }

private:
    sqlite3_session* _session = nullptr;
};

// The change set of statements.
inline std::string changesOf(sqlite3* db, std::initializer_list<const char*> tables,
                             const std::string& statements)
{
    Session session(db, tables);
    run(db, statements);
    return session.changeSet();
}

// Reads a change set with SQLite's own functions: the number of changes, or -1 where it finds damage.
inline int countChanges(std::string_view bytes)
{
    sqlite3_changeset_iter* changes = nullptr;
    if (sqlite3changeset_start(&changes, static_cast<int>(bytes.size()),
                               const_cast<char*>(bytes.data()))
        != SQLITE_OK)
        return -1;
    int count = 0;
    while (sqlite3changeset_next(changes) == SQLITE_ROW)
        ++count;
    return sqlite3changeset_finalize(changes) == SQLITE_OK ? count : -1;
}

} // namespace test

#endif
