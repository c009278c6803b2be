#ifndef SQLWRAPPER_TESTS_SUPPORT_JOB_H
#define SQLWRAPPER_TESTS_SUPPORT_JOB_H

#include "Diagnostics.h"
#include "SqlDatabase.h"
#include "SqlRecord.h"
#include "SqlTable.h"

#include <gtest/gtest.h>

#include <functional>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

namespace test {

// The work of an application on one database file while something runs short: the library's
// operations one after the other, each tried whatever became of those before it. It keeps account of
// what the answers promise, and fails the test where an answer does not agree with what was
// reported, with the rows held or, in the end, with the file.
class Job {
public:
    // Called right before (true) and right after (false) every operation of the library: all else
    // is the test's own doing.
    typedef std::function<void(const std::string& operation, bool begins)> Watch;

    // What SQLite says when it fails: "7=SQLITE_NOMEM" and "out of memory", which may be missing.
    struct Reason {
        std::string code;
        std::string text;
    };
    typedef std::vector<Reason> Reasons;

    // Operations may fail for the reasons given, and for those that the job's state gives them.
    Job(const std::string& fileName, Reasons shortage, Watch watch);

    Diagnostics& diagnostics();

    void work();

    // Nothing is short any more: whatever has happened, the same objects do their work.
    void useAgain();

    void close();

    // The file holds what was acknowledged and nothing else.
    void verifyFile() const;

    // Which of the things that may fail to try: all of them in a long run, otherwise some of every
    // operation, its first and last among them. `ends` counts them after every operation.
    static std::vector<int> cases(const std::vector<int>& ends);

    // The operations that have failed, be it by their result, by a report or by std::bad_alloc.
    const std::set<std::string>& failures() const;

private:
    typedef std::map<int, std::string> Rows; // the names by key; the price follows from the key

    struct Contents {
        std::map<std::string, Rows> tables;
        int userVersion = 0;
    };
    typedef std::function<void(Contents&)> Effect;

    // The ways in which the library runs a statement, each with reports of its own.
    enum Route { by_query, by_number, by_one_step };
    struct Statement {
        Route route;
        std::string text;
        Reasons refusals; // those that the job's state gives
    };

    bool perform(const std::string& operation, const std::function<bool()>& call);
    bool run(const std::string& operation, const Statement& statement,
             const std::function<bool()>& call, const Effect& effect = nullptr);
    bool takeReport(const Statement& statement);
    bool takeExistenceReport(const std::string& table);
    bool takeAddReport(const std::string& table, int key, const std::string& name);
    void settle(bool answer, const Effect& effect);

    bool openFile();
    void makeTables();
    void useUserVersion(int version);
    void useTransaction(bool keep);
    bool endTransaction(bool keep);
    void create(sql::Table& table);
    void add(int key);
    void update(int key, const std::string& name);
    void addOrUpdate(bool textKey, int key, const std::string& name);
    void removeRows();
    void empty(sql::Table& table, const std::string& operation);
    void read();
    bool readByCondition(const std::string& condition, const std::string& order);
    void expectRows(std::vector<std::string> expected, bool all);
    void readByKey(bool textKey, int key);
    void testForKey(bool textKey, int key);
    void count();
    void copy();
    void backUp();
    void takeWhatIsThere(const std::string& table, const Rows& before, const Rows& source);

    bool inTransaction();
    bool has(const std::string& table) const;
    Rows rowsOf(const std::string& table) const;
    Reasons missing(const std::string& table) const;
    sql::Record record(int key, const std::string& name) const;

    const std::string _fileName;
    const Reasons _shortage;
    const Watch _watch;
    const sql::FieldSet _fields;
    Diagnostics _diagnostics;
    sql::Database _database;
    std::unique_ptr<sql::Table> _product;
    std::unique_ptr<sql::Table> _archive;

    Contents _now;                    // as the connection sees it
    Contents _committed;              // as the file holds it
    std::vector<std::string> _errors; // of the operation, those that were not looked at yet
    bool _passedOn = false;           // it has ended with std::bad_alloc
    bool _failed = false;             // so it has, or it has left a report
    std::set<std::string> _failures;
};

// A whole job once for every allocation that may fail.
class ShortageTest : public testing::Test {
protected:
    // `never` is an allocation that no job gets to.
    explicit ShortageTest(int never);

    // A job on a new file, of which the n-th allocation fails, or all from it on. True when one did.
    virtual bool work(int nth, bool lasts) = 0;

    // To be called after each operation, with the number of allocations so far.
    void note(const std::string& operation, int allocations);

    void workWithEveryFailure(bool lasts);

    std::set<std::string> _allocating; // the operations that allocate
    std::set<std::string> _failures;
    bool _planned = false;

private:
    void plan();

    const int _never;
    std::vector<int> _ends;
};

} // namespace test

#endif
