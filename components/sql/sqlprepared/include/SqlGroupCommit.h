#ifndef SQLPREPARED_SQLGROUPCOMMIT_H
#define SQLPREPARED_SQLGROUPCOMMIT_H

#include "SqlTransaction.h"

#pragma GCC visibility push(default)

namespace sql {

/// Collects writes into groups, each with one commit: after so many writes, or so long after the
/// first. A power cut costs the group that is open, whole, and what the file's settings let it
/// cost.
///
///     sql::GroupCommit group(database, 100, std::chrono::seconds(5));
///     sql::Statement add(
///         database, "insert into product (name) values (?)");
///     if (!group.write([&] { return add.run("tea"); }))
///         std::puts(group.error().text().c_str());
///     const auto due = group.due(); // how long the program's loop may wait
///     if (due && due->count() == 0 && !group.flush())
///         std::puts(group.error().text().c_str());
///
/// A group is an immediate transaction: the program reads what it has written, other connections
/// read but cannot write, and what the program itself begins meanwhile has to be a Savepoint. Takes
/// the hooks and borrows the database, as a Transaction does. One thread at a time.
class GroupCommit {
public:
    /// Sets after how many writes, and how long after the first, a group is to be committed. Begins
    /// none yet. Waits for other connections, at a group's begin and commit, as a Transaction with
    /// this `patience`.
    GroupCommit(Database& database, int count, std::chrono::milliseconds longest,
                std::chrono::milliseconds patience = std::chrono::milliseconds(0));
    GroupCommit(const GroupCommit&) = delete;            ///< It stays where it is.
    GroupCommit& operator=(const GroupCommit&) = delete; ///< It stays where it is.

    /// Commits the group that is open. If that fails it is lost, and only the log tells. Clear a
    /// StopFlag before: while that is set nothing is committed.
    ~GroupCommit();

    /// Begins a group if none is open, runs `work` in it once, and commits if the group is complete
    /// then. Returns true once the write is part of a group, also where the commit has failed and
    /// is to be tried again. Returns false if `work` did, or on failure: all that `work` has written
    /// is undone then. An exception of `work` undoes likewise and passes through.
    template <typename Work> [[nodiscard]] bool write(Work&& work)
    {
        Write one(*this);
        return one.isOpen() && one.end(static_cast<bool>(work()));
    }

    /// Returns in how many milliseconds to call flush(), at most what an int holds; 0 if it is
    /// time, nothing while no group is open. After a commit that failed it is time again a little
    /// later.
    std::optional<std::chrono::milliseconds> due() const;

    /// Commits the group that is open, if any. Returns false on failure. The group is still open
    /// then, and the commit is tried again, as when the file is busy; unless SQLite has rolled it
    /// back, as on a full disk: it is lost then.
    [[nodiscard]] bool flush();

    /// Returns how many writes are in the group that is open, and not yet safe.
    integer pending() const;

    /// Returns how many writes were part of a group and are lost, since the beginning. Those of
    /// a group that SQLite rolls back by itself count from the next operation on.
    integer lost() const;

    /// Returns why the latest write() or flush() failed, or a commit in it; no failure if `work`
    /// alone did. Lives as long as this.
    const Error& error() const;

private:
    using Clock = std::chrono::steady_clock;

    // One write, undone unless it ends well.
    class Write {
    public:
        explicit Write(GroupCommit& group);
        Write(const Write&) = delete;
        Write& operator=(const Write&) = delete;
        ~Write();

        bool isOpen() const
        {
            return _part && _part->isOpen();
        }
        bool end(bool isGood);

    private:
        GroupCommit& _group;
        std::optional<Savepoint> _part;
    };

    SQLWRAPPER_LOCAL bool begin();
    SQLWRAPPER_LOCAL bool isUsable(const char* operation);
    SQLWRAPPER_LOCAL bool isComplete(integer writes) const;
    SQLWRAPPER_LOCAL bool commit(integer writes);
    SQLWRAPPER_LOCAL bool isOpen();
    SQLWRAPPER_LOCAL void drop();
    SQLWRAPPER_LOCAL bool fail(const char* operation, const char* why);

    Database* _database;
    sqlite3* _connection;
    int _count;
    std::chrono::milliseconds _longest;
    std::chrono::milliseconds _patience;
    std::optional<Transaction> _transaction; // the group that is open
    bool _isWriting = false;
    integer _pending = 0;
    integer _lost = 0;
    integer _goal = 0;                    // commits with so many writes,
    Clock::time_point _since;             // or so long
    std::chrono::milliseconds _wait = {}; // after this
    Error _error;
};

} // namespace sql

#pragma GCC visibility pop

#endif
