#ifndef SQLWRAPPER_TESTS_SUPPORT_SYNCMODEL_H
#define SQLWRAPPER_TESTS_SUPPORT_SYNCMODEL_H

// What a device and a centre hold by the rules alone, to be compared with what they do: one table, "reading",
// of a key and texts.

#include "SqlRecorder.h"

#include <deque>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

namespace test {

inline const char sync_null[] = "NULL"; // a cell that has no text

typedef std::vector<std::string> SyncRow; // the texts behind the key
typedef std::map<int, SyncRow> SyncRows;
typedef std::pair<sql::integer, sql::integer>
    SyncPlace; // incarnation and number; zeros before the first

// As rows() tells them.
std::string textOf(const SyncRows& rows);

struct SyncChange {
    std::optional<SyncRow> before;
    std::optional<SyncRow> after;
};

// What one commit or several change, which leave out what they do not.
struct SyncChanges {
    SyncChanges() = default;
    SyncChanges(const SyncRows& before, const SyncRows& after, std::size_t columns);

    // Makes it what both together change.
    void add(const SyncChanges& later);

    // How many bytes SQLite writes for it.
    sql::integer size() const;

    std::map<int, SyncChange> rows;
    std::size_t columns = 0; // behind the key
};

// A row of the outbox, and what is sent of it.
struct SyncRange {
    SyncPlace previous;
    SyncPlace last;
    sql::integer first = 0; // number of its first commit
    SyncChanges changes;
    bool isSent = false;
    sql::integer dropped = 0; // by the device when it was sent: commits up to this number
};

// A plain value: so is a backup.
struct DeviceModel {
    // Whether there is room for what makes these rows of those there are. If not, `refusal` says why, and
    // nothing has changed.
    bool commit(const SyncRows& changed, const sql::RecorderOptions& options,
                sql::integer incarnation, std::string& refusal);

    // The range that follows this number, which is merged and sent then; null if there is none.
    const SyncRange* next(sql::integer after, sql::integer most);

    void acknowledge(sql::integer number);
    void addColumn(const std::string& value);
    sql::integer bytes() const;

    SyncRows rows;
    std::size_t columns = 2;
    SyncPlace last; // commit
    std::deque<SyncRange> outbox;
    sql::integer dropped = 0;

private:
    void mergeUnsent();
    void dropOldest(sql::integer limit);
};

struct CentreModel {
    enum Outcome { applied, repeated, kept, missing, forked, retired, unknown_column };

    Outcome apply(const SyncRange& range);
    void admit(const SyncRange& range);
    int retry();
    void addColumn(const std::string& value);

    SyncRows rows;
    std::size_t columns = 2;
    SyncPlace mark;
    std::deque<SyncRange> waiting; // those kept
    std::set<std::string> reasons; // which the oldest of them may have
    sql::integer lost = 0;

private:
    struct Line {
        sql::integer first;
        sql::integer last;
        bool isRetired;
    };

    void note(const SyncPlace& last);
    bool change(const SyncRange& range);
    std::set<std::string> conflictsOf(const SyncRange& range) const;

    std::map<sql::integer, Line> _lines; // by incarnation
    std::vector<std::string> _defaults;  // of the columns that were added
};

} // namespace test

#endif
