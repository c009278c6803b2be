#ifndef SQLWRAPPER_TESTS_SUPPORT_SQLITE_H
#define SQLWRAPPER_TESTS_SUPPORT_SQLITE_H

#include <sqlite3.h>

#include <functional>
#include <string>
#include <vector>

namespace test {

// Runs statements past the library; aborts the test program when SQLite refuses.
void run(sqlite3* db, const std::string& sql);

// What a query yields, past the library: cells separated by "|", rows by "\n", NULL as "NULL".
std::string rows(sqlite3* db, const std::string& sql);

// The same with each cell's type, all its bytes, and reals to the last bit: "integer 7|text tea|real 2.5".
std::string typedRows(sqlite3* db, const std::string& sql);

// A connection of the test's own, in memory unless a file is named.
class Connection {
public:
    explicit Connection(const std::string& fileName = ":memory:");
    ~Connection();
    Connection(const Connection&) = delete;
    Connection& operator=(const Connection&) = delete;

    sqlite3* get() const;
    operator sqlite3*() const;

    // As the functions of these names.
    void run(const std::string& sql);
    std::string rows(const std::string& sql);

private:
    sqlite3* _db;
};

// The texts of all statements that start on a connection while this object lives.
class Statements {
public:
    explicit Statements(sqlite3* db);
    ~Statements();
    Statements(const Statements&) = delete;
    Statements& operator=(const Statements&) = delete;

    const std::vector<std::string>& texts() const;
    void clear();

private:
    sqlite3* _db;
    std::vector<std::string> _texts;
};

// Closes a connection past SqliteCalls, for functions that replace sqlite3_close().
int closeConnection(sqlite3* db);

// The calls into SQLite that tests watch or replace. A function that is set is called instead of
// SQLite's own; the counters count calls that do not come from within SQLite, whoever answers them.
// One at a time.
class SqliteCalls {
public:
    SqliteCalls();
    ~SqliteCalls();
    SqliteCalls(const SqliteCalls&) = delete;
    SqliteCalls& operator=(const SqliteCalls&) = delete;

    typedef int (*RowCallback)(void*, int, char**, char**);

    std::function<int(const char*, sqlite3**, int, const char*)> open;
    std::function<int(sqlite3*, int option, int value)> configure; // options that are on or off
    std::function<int(sqlite3*, int)> busyTimeout;
    std::function<int(sqlite3*)> close;
    std::function<int(sqlite3*, const char*, RowCallback, void*, char**)> exec;

    int opens = 0;
    int closes = 0;
    int configures = 0; // not in `order`: newer SQLites alone know options to set
    int busyTimeouts = 0;
    int execs = 0;
    int prepares = 0;
    int steps = 0;
    int finalizes = 0; // of a statement
    int nullFinalizes = 0;
    int textsFreed = 0; // sqlite3_free() of a text, not of null
    // "open", "close", "busy_timeout", "exec", "prepare", "step", "finalize", "finalize null" and
    // "free"
    std::vector<std::string> order;
};

} // namespace test

#endif
