#ifndef SQLWRAPPER_TESTS_SUPPORT_TWIN_H
#define SQLWRAPPER_TESTS_SUPPORT_TWIN_H

#include "SqlFieldSet.h"
#include "SqlRecord.h"

#include <sqlite3.h>

#include <optional>
#include <string>
#include <vector>

namespace test {

// A cell's text, or NULL.
typedef std::vector<std::optional<std::string>> TwinRow;

// A connection with the same contents as the one the library works on. Plain SQLite runs on it the
// statements that the library has to run, and so tells what the library has to give back and report.
class Twin {
public:
    explicit Twin(sqlite3* db = nullptr);

    void use(sqlite3* db);

    // As a RecordSet with these columns runs a statement; `rows` receives what it holds then.
    bool query(const std::string& statement, const sql::FieldSet& fields,
               std::vector<TwinRow>& rows);

    // The same for a set without columns, whose rows nobody looks at.
    bool query(const std::string& statement);

    // As queryNumber() and runOneStepSqlStmt().
    int number(const std::string& statement);
    bool oneStep(const std::string& statement);

    // What the library has to report, in the form of Diagnostics::events(), at the highest level.
    const std::vector<std::string>& events() const;
    void clear();
    void report(const std::string& event);

private:
    void reportStatement(const std::string& where, const std::string& statement);

    sqlite3* _db;
    std::vector<std::string> _events;
};

// What a Table has to do on a twin. No column is of type_time, and there is a key column.
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
    std::vector<std::string> held() const;
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
    bool write(const std::string& statement);
    sql::Record record(const TwinRow& row) const;

    Twin* _twin;
    std::string _name;
    sql::FieldSet _fields;
    std::vector<TwinRow> _rows;
};

// What an operation gives, as a text that compares with what it gives on the twin.
std::string result(bool success);
std::string result(int number);
std::string result(const sql::Record* record);
std::string result(const std::optional<std::string>& record);
std::vector<std::string> held(const TwinTable& table);

// All that a database holds, byte for byte.
std::string image(sqlite3* db);

// Replaces it in memory.
void load(sqlite3* db, const std::string& image);

} // namespace test

#endif
