#ifndef SQLPREPARED_SQLSTOPFLAG_H
#define SQLPREPARED_SQLSTOPFLAG_H

#include "SqlResult.h"

#include <atomic>
#include <memory>

#pragma GCC visibility push(default)

namespace sql {

class SQLWRAPPER_LOCAL StopHook; // which is the library's own

/// Stops what a connection is doing, from any thread or a signal handler.
///
///     sql::StopFlag stop(database);
///     std::thread user([&stop] { stop.set(); }); // at any time
///     user.join();
///     sql::Statement all(database, "select * from product");
///     if (!all.run() && all.error().isStopped())
///         std::puts("stopped"); // stopped
///     stop.clear();
///
/// While it is set, what runs on the connection is stopped, nothing but rollbacks begins, and no
/// other connection is waited for: operations of both libraries fail. What was stopped is undone,
/// with its transaction if it was writing in one; what had succeeded is not taken back. Takes
/// SQLite's trace and busy hooks: a program's own are gone, afterwards too, and a busy timeout that
/// it sets by itself meanwhile puts an end to the stopping of waits. Make it and end it in the
/// connection's thread.
class StopFlag {
public:
    /// Attaches a flag that is not set to the open connection. If that fails, isAttached() is
    /// false and error() says why: the database is not open, or has a flag already.
    explicit StopFlag(Database& database);
    ~StopFlag();                                   ///< Gives the busy timeout back.
    StopFlag(const StopFlag&) = delete;            ///< It stays where it is.
    StopFlag& operator=(const StopFlag&) = delete; ///< It stays where it is.

    /// Sets the flag, and stops what is running. Takes no lock and no memory.
    void set() noexcept;

    /// Takes the flag back, whoever set it. Statements that stand at a row are to be reset before:
    /// as long as there is one, what runs beside it is stopped all the same.
    void clear() noexcept;

    bool isSet() const noexcept; ///< Returns whether it is set, attached or not.

    /// Returns whether it is heeded: from its making until the database is closed.
    bool isAttached() const;

    /// Returns why it could not be attached; no failure if it was. Lives as long as this.
    const Error& error() const;

private:
    std::atomic<bool> _isSet{false};
    std::unique_ptr<StopHook> _hook;
    Error _error;
};

} // namespace sql

#pragma GCC visibility pop

#endif
