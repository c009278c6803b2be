#ifndef SQLWRAPPER_TESTS_SUPPORT_TWIN_H
#define SQLWRAPPER_TESTS_SUPPORT_TWIN_H

#include "Reports.h"
#include "SqlFieldSet.h"
#include "SqlRecord.h"
#include "SqlTable.h"

#include <sqlite3.h>

#include <exception>
#include <optional>
#include <string>
#include <vector>

namespace test {

// A cell's text, or NULL.
typedef std::vector<std::optional<std::string>> TwinRow;

// Why SQLite refuses a statement: "7=SQLITE_NOMEM: out of memory", or without a text.
std::string reasonOf(int rc, const char* text);

// How an operation went while something ran short.
struct Course {
    Texts errors;               // that the library has reported
    Texts reasons;              // for which a statement may have been refused
    int spared = 0;             // statements that ran although they read like the first one refused
    int interruptedAt = -1;     // the statement before which it was left by an exception
    int endsTransactionAt = -1; // the refused statement at which SQLite has rolled back
    unsigned effective = 0; // a bit for each refused statement that has had its effect nevertheless
};

// A connection with the same contents as the one the library works on. Plain SQLite runs on it the
// statements that the library has to run, and so tells what the library has to return and report.
class Twin {
public:
    explicit Twin(sqlite3* db = nullptr);

    void use(sqlite3* db);

    // Statements that the library has reported as refused are refused here too, from now on.
    void follow(const Course& course);

    // What came of it: the statements, and those of them that were refused.
    int statements() const;
    int refused() const;
    bool hasWritten() const;

    bool inTransaction() const;

    struct Interrupted : std::exception {};

    // As a RecordSet with these columns runs a statement; `rows` receives what it holds then.
    bool query(const std::string& statement, const sql::FieldSet& fields,
               std::vector<TwinRow>& rows);

    // The same for a set without columns, whose rows nobody looks at.
    bool query(const std::string& statement);

    // Like the operations of a Database.
    int getUserVersion();
    bool setUserVersion(unsigned int version);
    bool transact(const std::string& word);

    // As queryNumber() and runOneStepSqlStmt().
    int number(const std::string& statement);
    bool oneStep(const std::string& statement);

    // As a Statement, or a PreparedTable's operation, that is compiled and run; `filled` has values in
    // place of its `?`. Tells how many rows it has changed, -1 for a failure.
    int prepared(const std::string& statement, const std::string& filled,
                 const std::string& operation = "Statement");

    // What the library has to report, in the form of Diagnostics::events(), at the highest level.
    const Texts& events() const;
    void clear();
    void report(const std::string& event);
    void report(const Texts& events);

private:
    // The ways in which the library runs a statement, each with reports of its own.
    enum Route { by_query, by_number, by_one_step, by_statement };
    void begin(Route route, const std::string& statement);
    bool isRefused(Route route, const std::string& statement, const std::string& filled = "");
    void reportEnd(const Texts& report);
    bool run(const std::string& statement, const sql::FieldSet& fields, std::vector<TwinRow>& rows);

    sqlite3* _db;
    Texts _events;
    Course _course;
    std::size_t _errors = 0; // reported
    int _statements = 0;
    int _refused = 0;
    bool _hasWritten = false;
};

// What a Table has to do on a twin. There is a key column.
class TwinTable {
public:
    TwinTable(Twin& twin, const std::string& name, const sql::FieldSet& fields);

    bool exists();
    bool create();
    bool remove();
    bool truncate();
    int totalRecordCount();

    bool open(const std::string& condition = std::string(),
              const std::string& order = std::string());
    bool query(const std::string& statement);
    bool copyRecords(const TwinTable& source);
    Texts held() const;
    const std::vector<TwinRow>& rows() const;
    bool holdsAll() const; // or else may hold the first of its rows only
    void hold(const std::vector<TwinRow>& rows);
    std::optional<std::string> getRecordByKeyId(const std::string& key);
    std::optional<std::string> getRecordByKeyId(sql::integer key);
    bool hasRecordWithKeyId(const std::string& key);
    bool hasRecordWithKeyId(sql::integer key);

    bool addRecord(const sql::Record& record);
    bool updateRecord(const sql::Record& record);
    bool addOrUpdateRecord(const std::string& key, const sql::Record& record);
    bool addOrUpdateRecord(sql::integer key, const sql::Record& record);
    bool deleteRecord(const std::string& key);
    bool deleteRecord(sql::integer key);
    bool deleteRecords(const std::string& condition);

    bool backup(TwinTable& source);

private:
    std::string keyIs(const std::string& literal) const;
    std::optional<std::string> first(const std::string& condition);
    bool has(const std::string& condition);
    bool addOrUpdate(bool found, const std::string& key, const sql::Record& record);
    bool write(const std::string& statement);
    sql::Record record(const TwinRow& row) const;

    Twin* _twin;
    std::string _name;
    sql::FieldSet _fields;
    std::vector<TwinRow> _rows;
    bool _holdsAll = true;
};

// The rows that a table of the library holds.
std::vector<TwinRow> rowsOf(sql::Table& table);

// What an operation gives, as a text that compares with what it gives on the twin.
std::string result(bool success);
std::string result(const std::string& text);
std::string result(int number);
std::string result(const sql::Record* record);
std::string result(const std::optional<std::string>& record);
Texts held(const TwinTable& table);

} // namespace test

#endif
