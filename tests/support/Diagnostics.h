#ifndef SQLWRAPPER_TESTS_SUPPORT_DIAGNOSTICS_H
#define SQLWRAPPER_TESTS_SUPPORT_DIAGNOSTICS_H

#include <functional>
#include <string>
#include <vector>

namespace test {

// A finished line that reached syslog(), taken apart.
struct LogLine {
    int priority;
    std::string tag;      // "[ERROR]"
    std::string file;     // "SqlCommon.cpp"
    int line;             // of the source
    std::string function; // "queryNumber"
    std::string message;  // what follows " - "
};

// A call of logAssertFailed().
struct Assertion {
    std::string expression;
    std::string path; // "components/sql/sqlwrapper/src/SqlCommon.cpp"
    int line;
    std::string function;
};

// The trace object without a level, and none at all; and the levels at which something changes,
// with those two.
const int without_level = -1000;
const int without_trace_object = -1001;
const int trace_levels[] = {0, 2, 3, 6, 7, 8, 9, without_level, without_trace_object};

// Everything that the library reports while this object lives; one at a time. Stands in for the
// trace library (the level starts at 3, which lets ERROR lines through), for the assertion reporter
// and for syslog() with its checked twin.
class Diagnostics {
public:
    Diagnostics();
    ~Diagnostics();
    Diagnostics(const Diagnostics&) = delete;
    Diagnostics& operator=(const Diagnostics&) = delete;

    void setLevel(int level);
    int level() const;

    // Called after every line was captured: may change the level.
    void onLine(std::function<void(const LogLine&)> reaction);

    // Called after every assertion was captured.
    void onAssertion(std::function<void(const Assertion&)> reaction);

    // All reports in their order, whole but for the source line:
    //     "[ERROR] SqlCommon.cpp (queryNumber) - The SQL query '...' failed"
    //     "assert 'db' in SqlCommon.cpp (int sql::queryNumber(sqlite3*, const string&))"
    const std::vector<std::string>& events() const;

    // The messages alone, of all lines and of those with one tag, and the assertions' expressions.
    std::vector<std::string> messages() const;
    std::vector<std::string> messages(const std::string& tag) const;
    std::vector<std::string> errors() const; // messages("[ERROR]")
    std::vector<std::string> assertions() const;

    const std::vector<LogLine>& lines() const;
    const std::vector<Assertion>& failedAssertions() const;

    // Forgets what was captured; level and reactions stay. The other tells it before.
    void clear();
    std::vector<std::string> take();

    // Whether a report is just being captured: what happens then is the test's own doing.
    static bool isCapturing();

    void add(const LogLine& line);
    void add(const Assertion& assertion);

private:
    int _level;
    std::vector<LogLine> _lines;
    std::vector<Assertion> _assertions;
    std::vector<std::string> _events;
    std::function<void(const LogLine&)> _reaction;
    std::function<void(const Assertion&)> _assertionReaction;
};

// Those of `events` that are reported at a trace level, which assertions always are, worded() for
// the SQLite at hand.
std::vector<std::string> visibleAt(int level, const std::vector<std::string>& events);

} // namespace test

#endif
