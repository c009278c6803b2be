#ifndef SQLWRAPPER_TESTS_SUPPORT_JOB_H
#define SQLWRAPPER_TESTS_SUPPORT_JOB_H

#include "Diagnostics.h"
#include "Environment.h"
#include "Shop.h"

#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <set>
#include <string>
#include <vector>

namespace test {

// For rows that are told apart by their version: longer than any text buffer, for every fourth
// version longer than a small page.
std::string nameOf(int version);

// What an application does to its file, as steps of one operation each.
Step setting(const std::string& pragma);
std::vector<Step> filling(int rows); // makes the table of products
std::vector<Step> changing();
std::vector<Step> backingUp(); // in a transaction
std::vector<Step> reading();
std::vector<Step> removing(); // the backup
std::vector<Step>
wholeJob(); // all this, and operations of several statements outside a transaction

std::vector<Step> operator+(std::vector<Step> first, const std::vector<Step>& second);

// The first step of each name.
std::vector<Step> onceEach(const std::vector<Step>& steps);

// Steps whose end changes what the file holds, and what it holds then.
struct Change {
    std::vector<Step> steps;
    std::string after;
};

std::vector<Change> changesOf(const std::vector<Step>& steps);

// The work of an application on one database file while something runs short, each operation tried
// whatever became of those before it. It keeps account of all that the database may hold by what
// the operations have answered and reported, told by plain SQLite; and fails the test where a
// result, a report or the rows held cannot come from any of that, or, in the end, the file.
class Job {
public:
    // Called right before (true) and right after (false) every operation of the library: all else
    // is the test's own doing.
    typedef std::function<void(const std::string& operation, bool begins)> Watch;

    // Operations may fail for the reasons given; of those that do the effect may stay where that is
    // known too late.
    Job(const std::string& file, Texts reasons, Watch watch, bool failsLate = false);

    Diagnostics& diagnostics();

    bool open();
    void take(const std::vector<Step>& steps);

    // Nothing is short any more: whatever has happened, the same objects do their work.
    void useAgain();

    void close();

    // The file holds what was acknowledged and nothing else.
    void verifyFile() const;

    // All that the file may hold.
    std::set<std::string> possible() const;

    // The operations that were taken, and those that have failed, be it by a report or by
    // std::bad_alloc.
    int operations() const;
    int failed() const;
    const std::set<std::string>& failures() const;

private:
    struct State {
        std::string now;   // the contents as the connection sees them
        std::string begun; // as they were when its transaction began; empty outside of one

        bool operator<(const State& other) const;
    };

    bool perform(const std::string& operation, const std::function<void()>& call);
    void take(const Step& step);
    void tryCourses(const State& state, const Step& step, std::set<State>& then);
    void tryCourse(const State& state, const Step& step, const Course& course,
                   std::set<State>& then);
    void load(const State& state);
    bool holdsTheSame();
    std::string outcome(const std::string& result, const Texts& errors) const;

    const std::string _file;
    const Texts _reasons;
    Watch _watch;
    const bool _failsLate;
    Diagnostics _diagnostics;
    Shop _shop;

    std::unique_ptr<Connection> _plain; // what is loaded at the moment, and its twin
    std::unique_ptr<State> _loaded;
    TwinShop _twin;

    std::set<State> _possible;
    std::vector<std::vector<TwinRow>> _held; // by each table

    // Of the latest operation.
    std::string _result;
    Texts _errors;
    bool _passedOn = false; // it has ended with std::bad_alloc
    std::string _expected;

    int _operations = 0;
    int _failed = 0;
    std::set<std::string> _failures;
};

// A whole job once for every allocation that may fail.
class ShortageTest : public testing::Test {
protected:
    // `never` is an allocation that no job gets to.
    explicit ShortageTest(int never);

    // A job on a new file of which the n-th allocation fails, or all from it on. True when one did.
    virtual bool work(int nth, bool lasts) = 0;

    // To be called after each operation, with the number of allocations so far.
    void note(const std::string& operation, int allocations);

    // Lets some allocations of every operation fail, its first and last among them; or all.
    void workWithEveryFailure(bool lasts, bool all = longRun());

    std::vector<Step> _steps = wholeJob();
    std::set<std::string> _allocating; // the operations that allocate
    std::set<std::string> _failures;
    bool _planned = false;

private:
    void plan();

    std::vector<int> cases(bool all) const;

    const int _never;
    std::vector<int> _ends; // the allocations so far, after each operation
};

} // namespace test

#endif
