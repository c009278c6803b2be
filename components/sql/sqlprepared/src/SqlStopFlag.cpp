#include "SqlStopFlag.h"

#include "SqlFailure.h"
#include "SqlStop.h"
#include "SqlToken.h"

#include <sqlite3.h>

#include <algorithm>
#include <mutex>
#include <thread>

namespace sql {

namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

constexpr milliseconds longest_pause(50); // between two tries to get a lock
constexpr milliseconds longest_sleep(10); // without a look at the flag

constexpr char ask_timeout[] = "pragma busy_timeout";

// All hooks, of all connections. Who reads the list, a signal handler perhaps, takes no lock, but is
// counted: who has taken a hook out waits for those that may have seen it.
std::atomic<StopHook*> hooks(nullptr);
std::atomic<int> readers(0);
std::mutex writers_mutex;

struct Reader {
    Reader()
    {
        ++readers;
    }
    ~Reader()
    {
        --readers;
    }
    Reader(const Reader&) = delete;
    Reader& operator=(const Reader&) = delete;
};

// At the beginning of a statement, when SQLite has just forgotten former interrupts. Writes what it
// reads: a flag that is set only then interrupts only then, on every processor.
bool isSetAtStart(std::atomic<bool>& flag)
{
    bool isSet = false;
    return !flag.compare_exchange_strong(isSet, false);
}

bool isRollback(const char* text)
{
    return sqlite3_strnicmp(text + nextStatement(text), "rollback", 8) == 0;
}

// Sleeps, or returns false as soon as the flag is set.
bool pause(const std::atomic<bool>& flag, milliseconds time)
{
    const Clock::time_point end = Clock::now() + time;
    while (!flag) {
        const Clock::duration left = end - Clock::now();
        if (left <= Clock::duration::zero())
            return true;
        std::this_thread::sleep_for(std::min<Clock::duration>(left, longest_sleep));
    }
    return false;
}

int askNumber(sqlite3* connection, const char* question, int& number)
{
    sqlite3_stmt* statement = nullptr;
    int rc = sqlite3_prepare_v2(connection, question, -1, &statement, nullptr);
    if (rc == SQLITE_OK)
        rc = sqlite3_step(statement);
    if (rc == SQLITE_ROW)
        number = sqlite3_column_int(statement, 0);
    sqlite3_finalize(statement);
    return rc;
}

// Null where a flag may be attached.
const char* whyNotAttached(const sqlite3* connection)
{
    if (connection == nullptr)
        return database_not_open;
    return StopHook::of(connection) != nullptr ? "the connection has a stop flag already" : nullptr;
}

} // namespace

// --- What a connection heeds ----------------------------------------------------------------------

bool isStopRequested(const sqlite3* connection)
{
    const std::atomic<bool>* const flag = StopHook::flagOf(connection);
    return flag != nullptr && *flag;
}

void pauseUnlessStopped(const sqlite3* connection, milliseconds time)
{
    const std::atomic<bool>* const flag = StopHook::flagOf(connection);
    const std::atomic<bool> none(false);
    pause(flag != nullptr ? *flag : none, time);
}

StopHook::StopHook(sqlite3* connection, std::atomic<bool>* flag, int busyTimeoutMs)
    : _connection(flag != nullptr ? connection : nullptr), _flag(flag), _busyTimeout(busyTimeoutMs)
{
    if (_connection == nullptr)
        return;
    enter();
    sqlite3_trace_v2(_connection, SQLITE_TRACE_STMT | SQLITE_TRACE_CLOSE, observe, this);
    sqlite3_busy_handler(_connection, wait, this);
}

StopHook::~StopHook()
{
    detach();
}

void StopHook::detach()
{
    if (_connection == nullptr)
        return;
    sqlite3_trace_v2(_connection, 0, nullptr, nullptr);
    sqlite3_busy_timeout(_connection, _busyTimeout);
    leave();
    _connection = nullptr;
}

void StopHook::enter()
{
    const std::lock_guard<std::mutex> lock(writers_mutex);
    _next = hooks.load();
    hooks = this;
}

void StopHook::leave()
{
    const std::lock_guard<std::mutex> lock(writers_mutex);
    std::atomic<StopHook*>* link = &hooks;
    while (*link != this)
        link = &link->load()->_next;
    *link = _next.load();
    while (readers != 0)
        std::this_thread::sleep_for(milliseconds(1));
}

StopHook* StopHook::of(const sqlite3* connection)
{
    const Reader reader;
    for (StopHook* hook = hooks; hook != nullptr; hook = hook->_next) {
        if (hook->_connection == connection)
            return hook;
    }
    return nullptr;
}

std::atomic<bool>* StopHook::flagOf(const sqlite3* connection)
{
    StopHook* const hook = of(connection);
    return hook != nullptr ? hook->_flag : nullptr;
}

// What is running, SQLite stops where it can still be undone; what begins later, observe() does.
void StopHook::interrupt(const std::atomic<bool>& flag) noexcept
{
    const Reader reader;
    for (StopHook* hook = hooks; hook != nullptr; hook = hook->_next) {
        if (hook->_flag == &flag)
            sqlite3_interrupt(hook->_connection);
    }
}

bool StopHook::isAttached() const
{
    return _connection != nullptr;
}

int StopHook::busyTimeout() const
{
    return _busyTimeout;
}

void StopHook::setBusyTimeout(int timeoutMs)
{
    _busyTimeout = timeoutMs;
}

// Before each statement, and before the connection is closed.
int StopHook::observe(unsigned event, void* hook, void*, void* text)
{
    StopHook& self = *static_cast<StopHook*>(hook);
    if (event == SQLITE_TRACE_CLOSE)
        self.detach();
    else if (isSetAtStart(*self._flag) && !isRollback(static_cast<const char*>(text)))
        sqlite3_interrupt(self._connection);
    return 0;
}

// Returns 0 for no more: the time is over, or the flag is set.
int StopHook::wait(void* hook, int count)
{
    StopHook& self = *static_cast<StopHook*>(hook);
    const Clock::time_point now = Clock::now();
    if (count == 0)
        self._waitsUntil = now + milliseconds(self._busyTimeout);
    const auto left = std::chrono::ceil<milliseconds>(self._waitsUntil - now);
    const milliseconds next(1 << std::min(count, 6));
    return left > milliseconds(0) && pause(*self._flag, std::min({next, left, longest_pause}));
}

// --- The flag -------------------------------------------------------------------------------------

StopFlag::StopFlag(Database& database)
{
    sqlite3* const connection = database.getHandle();
    const auto fail = [this, connection](int rc, const char* why) {
        reportFailure("StopFlag", ask_timeout, rc, why);
        _error = errorOf(connection, rc, why, ask_timeout);
    };
    int busyTimeout = 0;
    if (const char* const why = whyNotAttached(connection))
        fail(SQLITE_MISUSE, why);
    else if (const int rc = askNumber(connection, ask_timeout, busyTimeout); rc != SQLITE_ROW)
        fail(extendedCodeOf(connection, rc), reasonOf(connection, rc));
    else
        _hook = std::make_unique<StopHook>(connection, &_isSet, busyTimeout);
}

StopFlag::~StopFlag() = default;

void StopFlag::set() noexcept
{
    _isSet.exchange(true); // which isSetAtStart() comes before or behind
    StopHook::interrupt(_isSet);
}

void StopFlag::clear() noexcept
{
    _isSet = false;
}

bool StopFlag::isSet() const noexcept
{
    return _isSet;
}

bool StopFlag::isAttached() const
{
    return _hook != nullptr && _hook->isAttached();
}

const Error& StopFlag::error() const
{
    return _error;
}

} // namespace sql
