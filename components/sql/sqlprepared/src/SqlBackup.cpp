#include "SqlBackup.h"

#include "SqlFailure.h"
#include "SqlStop.h"
#include "SqlTrace.h"

#include <fcntl.h>
#include <sqlite3.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <clocale>
#include <cstdio>
#include <cstring>
#include <iterator>
#include <memory>

namespace sql {

namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

constexpr int pages_per_step = 64; // about a millisecond
constexpr milliseconds pause_time(5);

constexpr char read_something[] = "pragma main.schema_version";
constexpr char check_without_memory[] = "unable to get the page. error code=7"; // SQLITE_NOMEM
constexpr const char* leftovers[] = {"-journal", "-wal", "-shm"};

// What an operation works with.
struct Work {
    const char* operation;
    sqlite3* connection;
    const string& file;
    const BackupOptions& options;
};

// As far as SQLite's goes.
milliseconds patienceOf(const Work& work)
{
    return std::clamp(work.options.patience, milliseconds(0), milliseconds(INT_MAX));
}

// --- Failures -------------------------------------------------------------------------------------

Error failed(const char* operation, int rc, const string& file, const string& cause)
{
    const string why = joined({file, ": ", cause});
    reportFailure(operation, operation, rc, why.c_str());
    return Error(rc, why, operation);
}

Error failedAsSqlite(const Work& work, sqlite3* connection, int rc, const string& file)
{
    return failed(work.operation, extendedCodeOf(connection, rc), file, reasonOf(connection, rc));
}

// Where no connection has words of its own.
const char* reasonOf(int rc)
{
    return sqlite3_errstr(rc);
}

// In the same words wherever it runs.
string reasonOfSystem(int error)
{
    const locale_t plain = ::newlocale(LC_ALL_MASK, "C", nullptr);
    if (plain == nullptr)
        return "error " + intToStr(error) + " of the system";
    string reason = ::strerror_l(error, plain);
    ::freelocale(plain);
    return reason;
}

int codeOfSystem(int error, int otherwise)
{
    if (error == ENOSPC || error == EDQUOT)
        return SQLITE_FULL;
    return error == EROFS ? SQLITE_READONLY : otherwise;
}

Error failedAsSystem(const Work& work, int error, int otherwise, const string& file)
{
    return failed(work.operation, codeOfSystem(error, otherwise), file, reasonOfSystem(error));
}

Error stopped(const Work& work)
{
    return failed(work.operation, SQLITE_INTERRUPT, work.file, reasonOf(SQLITE_INTERRUPT));
}

// --- Connections ----------------------------------------------------------------------------------

// Runs a statement to its end, which may be a commit; `cell` becomes what its only row begins with.
Error run(const Work& work, sqlite3* connection, const char* statement, const string& file,
          string& cell)
{
    TRACE_DEBUG2_AS(work.operation, "stmt='%s'", statement);
    sqlite3_stmt* prepared = nullptr;
    int rc = sqlite3_prepare_v2(connection, statement, -1, &prepared, nullptr);
    const std::unique_ptr<sqlite3_stmt, decltype(&sqlite3_finalize)> owner(prepared,
                                                                           sqlite3_finalize);
    if (rc == SQLITE_OK)
        rc = sqlite3_step(prepared);
    if (rc == SQLITE_ROW) {
        const unsigned char* const text = sqlite3_column_text(prepared, 0);
        cell = text != nullptr ? reinterpret_cast<const char*>(text) : "";
        rc = sqlite3_step(prepared);
    }
    return rc == SQLITE_DONE ? Error() : failedAsSqlite(work, connection, rc, file);
}

struct Close {
    void operator()(sqlite3* connection) const
    {
        sqlite3_close(connection);
    }
};

// A connection of the job's own, which stops with that of the program.
class Own {
public:
    Error open(const Work& work, const string& file, int flags)
    {
        sqlite3* connection = nullptr;
        const int rc = sqlite3_open_v2(file.c_str(), &connection, flags, vfsOf(work.connection));
        _connection.reset(connection);
        if (rc != SQLITE_OK)
            return failedAsSqlite(work, connection, rc, file);
        const int patience = static_cast<int>(patienceOf(work).count());
        sqlite3_busy_timeout(connection, patience);
        _hook = std::make_unique<StopHook>(connection, StopHook::flagOf(work.connection), patience);
        return Error();
    }

    sqlite3* get() const
    {
        return _connection.get();
    }

    // From now on it sees one state of the file.
    Error beginReading(const Work& work, const string& file) const
    {
        string cell;
        if (Error error = run(work, get(), "begin", file, cell))
            return error;
        return run(work, get(), read_something, file, cell);
    }

private:
    static const char* vfsOf(sqlite3* connection)
    {
        sqlite3_vfs* vfs = nullptr;
        sqlite3_file_control(connection, "main", SQLITE_FCNTL_VFS_POINTER, &vfs);
        return vfs != nullptr ? vfs->zName : nullptr;
    }

    std::unique_ptr<sqlite3, Close> _connection;
    std::unique_ptr<StopHook> _hook; // ends before the connection
};

Error check(const Work& work, const Own& own, const string& file)
{
    if (work.options.check == check_none)
        return Error();
    string answer;
    const bool isFull = work.options.check == check_full;
    const char* const statement = isFull ? "pragma main.integrity_check(1)"
                                         : "pragma main.quick_check(1)";
    if (Error error = run(work, own.get(), statement, file, answer))
        return error;
    if (answer.find(check_without_memory) != string::npos)
        return failed(work.operation, SQLITE_NOMEM, file, reasonOf(SQLITE_NOMEM));
    if (answer != "ok")
        return failed(work.operation, SQLITE_CORRUPT, file, "the check says: " + answer);
    return Error();
}

// SQLite cuts a file that becomes smaller behind its commit. Should the power fail then, a journal that
// comes back would find pages missing: the removal of the journal is synced meanwhile, too.
class SyncedRemoval {
public:
    SyncedRemoval() = default;
    SyncedRemoval(const SyncedRemoval&) = delete;
    SyncedRemoval& operator=(const SyncedRemoval&) = delete;
    ~SyncedRemoval()
    {
        if (_connection != nullptr)
            sqlite3_exec(_connection, _ending.c_str(), nullptr, nullptr, nullptr);
    }

    Error begin(const Work& work, sqlite3* connection, const string& file)
    {
        string cell;
        if (Error error = run(work, connection, "pragma main.synchronous", file, cell))
            return error;
        _ending = "pragma main.synchronous = " + cell;
        if (Error error = run(work, connection, "pragma main.synchronous = extra", file, cell))
            return error;
        _connection = connection;
        return Error();
    }

private:
    sqlite3* _connection = nullptr;
    string _ending; // it ends without memory, too
};

// --- Copying --------------------------------------------------------------------------------------

// SQLite's backup between two connections; what it has not finished is undone with it.
class Copy {
public:
    Copy(sqlite3* target, sqlite3* source)
        : _target(target), _backup(sqlite3_backup_init(target, "main", source, "main"))
    {
    }
    ~Copy()
    {
        sqlite3_backup_finish(_backup);
    }
    Copy(const Copy&) = delete;
    Copy& operator=(const Copy&) = delete;

    Result<integer> run(const Work& work, const string& file) const
    {
        if (_backup == nullptr)
            return failedAsSqlite(work, _target, sqlite3_errcode(_target), file);
        const Clock::time_point end = Clock::now() + patienceOf(work);
        for (;;) {
            if (isStopRequested(work.connection))
                return stopped(work);
            const int rc = sqlite3_backup_step(_backup, pages_per_step);
            const integer total = sqlite3_backup_pagecount(_backup);
            if (rc == SQLITE_BUSY && Clock::now() < end)
                pauseUnlessStopped(work.connection, pause_time);
            else if (rc == SQLITE_DONE)
                return total;
            else if (rc != SQLITE_OK)
                return failedStep(work, rc, file);
            else if (!tell(work, total - sqlite3_backup_remaining(_backup), total))
                return failed(work.operation, SQLITE_INTERRUPT, work.file,
                              "stopped by its progress");
        }
    }

private:
    static bool tell(const Work& work, integer done, integer total)
    {
        return !work.options.progress || work.options.progress(done, total);
    }

    // SQLite keeps no words for what a step returns.
    static Error failedStep(const Work& work, int rc, const string& file)
    {
        if (rc == SQLITE_READONLY)
            return failed(work.operation, rc, file,
                          "cannot be written, or has a write-ahead log and another page size");
        return failed(work.operation, rc, file, reasonOf(rc));
    }

    sqlite3* _target;
    sqlite3_backup* _backup;
};

// --- Files ----------------------------------------------------------------------------------------

// Zero, or what the system says.
int look(const string& file, struct stat& found)
{
    return ::lstat(file.c_str(), &found) == 0 ? 0 : errno;
}

bool isSame(const struct stat& one, const struct stat& other)
{
    return one.st_dev == other.st_dev && one.st_ino == other.st_ino;
}

string nameOf(sqlite3* connection)
{
    const char* const name = sqlite3_db_filename(connection, "main");
    return name != nullptr ? name : "";
}

// Null where the file may be a target or a source.
const char* whyNotUsable(sqlite3* connection, const struct stat& found)
{
    struct stat own = {};
    if (S_ISLNK(found.st_mode))
        return "is a symbolic link";
    if (!S_ISREG(found.st_mode))
        return "is no regular file";
    const bool isOwn = look(nameOf(connection), own) == 0 && isSame(own, found);
    return isOwn ? "is the database itself" : nullptr;
}

Error checkName(const Work& work)
{
    const string& file = work.file;
    if (file.empty() || file[0] == ':' || file.compare(0, 5, "file:") == 0
        || file.find('\0') != string::npos)
        return failed(work.operation, SQLITE_MISUSE, file.substr(0, file.find('\0')),
                      "is no plain name of a file");
    return Error();
}

// Whether the file exists, where it is one that may be used.
Result<bool> findFile(const Work& work)
{
    struct stat found = {};
    const int error = look(work.file, found);
    if (error == ENOENT)
        return false;
    if (error != 0)
        return failedAsSystem(work, error, SQLITE_CANTOPEN, work.file);
    if (const char* const why = whyNotUsable(work.connection, found))
        return failed(work.operation, SQLITE_MISUSE, work.file, why);
    return true;
}

// SQLite would take them for those of the new file.
Error checkNoLeftovers(const Work& work)
{
    for (const char* const ending : leftovers) {
        struct stat found = {};
        const string name = work.file + ending;
        if (look(name, found) != ENOENT)
            return failed(work.operation, SQLITE_CANTOPEN, name, "is left of another database");
    }
    return Error();
}

Error syncFolder(const Work& work)
{
    const std::size_t slash = work.file.rfind('/');
    const string folder = slash == string::npos ? "." : work.file.substr(0, slash + 1);
    const int descriptor = ::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    const int error = descriptor >= 0 && ::fsync(descriptor) == 0 ? 0 : errno;
    if (descriptor >= 0)
        ::close(descriptor);
    return error == 0 ? Error() : failedAsSystem(work, error, SQLITE_IOERR_DIR_FSYNC, folder);
}

// Gives the file its name, which nobody else has taken meanwhile. Not all file systems can.
int renameToNew(const char* from, const char* to)
{
    if (::renameat2(AT_FDCWD, from, AT_FDCWD, to, RENAME_NOREPLACE) == 0)
        return 0;
    if (errno != EINVAL && errno != ENOSYS)
        return -1;
    if (::link(from, to) == 0) {
        ::unlink(from); // a name that is left, the next one removes
        return 0;
    }
    struct stat found = {};
    if (errno == EEXIST)
        return -1;
    const int error = look(to, found);
    errno = error == 0 ? EEXIST : error;
    return error == ENOENT ? ::rename(from, to) : -1;
}

// The copy on its way, which one job at a time makes. Removed in the end, unless it has its name.
class Unfinished {
public:
    explicit Unfinished(const string& target)
        : _name(target + "-unfinished"), _leftovers{_name + leftovers[0], _name + leftovers[1],
                                                    _name + leftovers[2]}
    {
    }
    ~Unfinished()
    {
        if (_descriptor < 0)
            return;
        if (!_isFinished)
            removeAll();
        ::close(_descriptor); // after SQLite's, whose locks end with it
    }
    Unfinished(const Unfinished&) = delete;
    Unfinished& operator=(const Unfinished&) = delete;

    const string& name() const
    {
        return _name;
    }

    Error take(const Work& work)
    {
        if (Error error = checkPlace(work))
            return error;
        while (_descriptor < 0) {
            if (Error error = tryToTake(work))
                return error;
        }
        if (::ftruncate(_descriptor, 0) != 0)
            return failedAsSystem(work, errno, SQLITE_IOERR_TRUNCATE, _name);
        removeLeftovers();
        return Error();
    }

    Error finish(const Work& work)
    {
        if (::fsync(_descriptor) != 0)
            return failedAsSystem(work, errno, SQLITE_IOERR_FSYNC, _name);
        if (Error error = checkNoLeftovers(work))
            return error;
        if (renameToNew(_name.c_str(), work.file.c_str()) != 0)
            return failedAsSystem(work, errno, SQLITE_CANTOPEN, work.file);
        _isFinished = true;
        Error error = syncFolder(work);
        if (error)
            ::unlink(work.file.c_str());
        return error;
    }

private:
    // Who may read the copy may read the database.
    static mode_t modeOf(sqlite3* connection)
    {
        struct stat found = {};
        const string source = nameOf(connection);
        return ::stat(source.c_str(), &found) == 0 ? found.st_mode & 0666 : 0644;
    }

    // Neither the database is there nor the target, whose second name a former job may have left.
    Error checkPlace(const Work& work) const
    {
        struct stat found = {};
        struct stat target = {};
        if (look(_name, found) != 0)
            return Error();
        if (const char* const why = whyNotUsable(work.connection, found))
            return failed(work.operation, SQLITE_MISUSE, _name, why);
        const bool isTarget = look(work.file, target) == 0 && isSame(found, target);
        if (isTarget && ::unlink(_name.c_str()) != 0)
            return failedAsSystem(work, errno, SQLITE_CANTOPEN, _name);
        return Error();
    }

    // Who has removed it before the lock was there leaves a file without a name: then not yet.
    Error tryToTake(const Work& work)
    {
        const int descriptor = ::open(_name.c_str(),
                                      O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK,
                                      modeOf(work.connection));
        if (descriptor < 0)
            return failedAsSystem(work, errno, SQLITE_CANTOPEN, _name);
        const int error = lock(descriptor);
        if (error == 0)
            _descriptor = descriptor;
        else
            ::close(descriptor);
        if (error == EWOULDBLOCK)
            return failed(work.operation, SQLITE_BUSY, _name, "another backup is being made");
        if (error != 0 && error != ENOENT)
            return failedAsSystem(work, error, SQLITE_IOERR_LOCK, _name);
        return Error();
    }

    // Zero if the file is locked and has its name, or what the system says.
    int lock(int descriptor) const
    {
        struct stat opened = {};
        struct stat named = {};
        if (::flock(descriptor, LOCK_EX | LOCK_NB) != 0 || ::fstat(descriptor, &opened) != 0)
            return errno;
        const int error = look(_name, named);
        return error != 0 || isSame(opened, named) ? error : ENOENT;
    }

    void removeAll() const
    {
        removeLeftovers();
        ::unlink(_name.c_str());
    }
    void removeLeftovers() const
    {
        for (const string& name : _leftovers)
            ::unlink(name.c_str());
    }

    const string _name;
    const string _leftovers[std::size(leftovers)]; // as above
    int _descriptor = -1;
    bool _isFinished = false;
};

// --- Backup ---------------------------------------------------------------------------------------

// A database in memory is read by its own connection, since there is no other way to it.
Result<integer> copyOut(const Work& work, const string& copy)
{
    const string name = nameOf(work.connection);
    Own source;
    Own target;
    if (name.empty() && sqlite3_get_autocommit(work.connection) == 0)
        return failed(work.operation, SQLITE_MISUSE, work.file, "a transaction is open already");
    if (!name.empty()) {
        const bool isReadOnly = sqlite3_db_readonly(work.connection, "main") == 1;
        if (Error error = source.open(work, name,
                                      isReadOnly ? SQLITE_OPEN_READONLY : SQLITE_OPEN_READWRITE))
            return error;
        if (Error error = source.beginReading(work, name))
            return error;
    }
    if (Error error = target.open(work, copy, SQLITE_OPEN_READWRITE))
        return error;
    return Copy(target.get(), name.empty() ? work.connection : source.get()).run(work, copy);
}

// Opened anew, since the mode is that of the file only when it was read.
Error settle(const Work& work, const string& copy)
{
    Own own;
    string mode;
    if (Error error = own.open(work, copy, SQLITE_OPEN_READWRITE))
        return error;
    if (Error error = run(work, own.get(), "pragma main.journal_mode = delete", copy, mode))
        return error;
    return check(work, own, copy);
}

Result<integer> copyInto(const Work& work, const string& copy)
{
    Own source;
    Own target;
    if (Error error = source.open(work, copy, SQLITE_OPEN_READONLY))
        return error;
    if (Error error = target.open(work, work.file, SQLITE_OPEN_READWRITE))
        return error;
    SyncedRemoval synced;
    if (Error error = synced.begin(work, target.get(), work.file))
        return error;
    return Copy(target.get(), source.get()).run(work, work.file);
}

Result<integer> backUp(const Work& work)
{
    if (Error error = checkName(work))
        return error;
    const Result<bool> exists = findFile(work);
    if (!exists)
        return exists.error();
    if (!*exists) {
        if (Error error = checkNoLeftovers(work))
            return error;
    }
    Unfinished copy(work.file);
    if (Error error = copy.take(work))
        return error;
    Result<integer> pages = copyOut(work, copy.name());
    if (!pages)
        return pages;
    if (Error error = settle(work, copy.name()))
        return error;
    if (isStopRequested(work.connection))
        return stopped(work);
    if (*exists)
        return copyInto(work, copy.name());
    if (Error error = copy.finish(work))
        return error;
    return pages;
}

// --- Restore --------------------------------------------------------------------------------------

Error checkRestore(const Work& work)
{
    if (sqlite3_get_autocommit(work.connection) == 0)
        return failed(work.operation, SQLITE_MISUSE, work.file, "a transaction is open already");
    if (sqlite3_db_readonly(work.connection, "main") == 1)
        return failed(work.operation, SQLITE_READONLY, work.file, "the database is read-only");
    return checkName(work);
}

// Checked and copied in one transaction: nobody changes the file in between.
Result<integer> restore(const Work& work)
{
    if (Error error = checkRestore(work))
        return error;
    const Result<bool> exists = findFile(work);
    if (!exists)
        return exists.error();
    Own source;
    if (Error error = source.open(work, work.file, SQLITE_OPEN_READONLY))
        return error;
    if (Error error = source.beginReading(work, work.file))
        return error;
    if (Error error = check(work, source, work.file))
        return error;
    SyncedRemoval synced;
    if (Error error = synced.begin(work, work.connection, work.file))
        return error;
    return Copy(work.connection, source.get()).run(work, work.file);
}

} // namespace

Result<integer> backupDatabase(Database& database, const string& file, const BackupOptions& options)
{
    sqlite3* const connection = database.getHandle();
    if (connection == nullptr)
        return failed("backupDatabase", SQLITE_MISUSE, file, database_not_open);
    return backUp({"backupDatabase", connection, file, options});
}

Result<integer> restoreDatabase(Database& database, const string& file,
                                const BackupOptions& options)
{
    sqlite3* const connection = database.getHandle();
    if (connection == nullptr)
        return failed("restoreDatabase", SQLITE_MISUSE, file, database_not_open);
    return restore({"restoreDatabase", connection, file, options});
}

} // namespace sql
