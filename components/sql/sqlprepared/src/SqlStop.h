#ifndef SQLPREPARED_SRC_SQLSTOP_H
#define SQLPREPARED_SRC_SQLSTOP_H

// How a connection heeds a StopFlag, and what the library asks between two calls of SQLite's.

#include <atomic>
#include <chrono>

struct sqlite3;

namespace sql {

// Whether the flag that the connection heeds is set; false if it heeds none.
bool isStopRequested(const sqlite3* connection);

// Sleeps, until a stop is asked for at most.
void pauseUnlessStopped(const sqlite3* connection, std::chrono::milliseconds time);

// Has a connection heed a flag, until its end or the connection's: one that is set stops what runs
// there, all but a rollback, and waits for other connections. A job that has a connection of its own
// gives it the flag of the one that it works for:
//     const StopHook hook(own, StopHook::flagOf(database.getHandle()), 1000);
// Takes SQLite's trace and busy hooks. In the connection's thread alone.
class StopHook {
public:
    // Does nothing without a flag. Otherwise the busy timeout is that of the connection, here and
    // afterwards.
    StopHook(sqlite3* connection, std::atomic<bool>* flag, int busyTimeoutMs);
    ~StopHook();
    StopHook(const StopHook&) = delete;
    StopHook& operator=(const StopHook&) = delete;

    // Null if the connection has none.
    static StopHook* of(const sqlite3* connection);
    static std::atomic<bool>* flagOf(const sqlite3* connection);

    // Interrupts all connections that heed the flag. For any thread and signal handler.
    static void interrupt(const std::atomic<bool>& flag) noexcept;

    bool isAttached() const;

    // SQLite's own setting would displace the hook, and reads as 0.
    int busyTimeout() const;
    void setBusyTimeout(int timeoutMs);

private:
    static int observe(unsigned event, void* hook, void* subject, void* text);
    static int wait(void* hook, int count);

    void enter();
    void leave();
    void detach();

    sqlite3* _connection;
    std::atomic<bool>* _flag;
    int _busyTimeout;
    std::chrono::steady_clock::time_point _waitsUntil;
    std::atomic<StopHook*> _next{nullptr};
};

} // namespace sql

#endif
