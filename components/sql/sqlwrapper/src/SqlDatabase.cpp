#include "SqlDatabase.h"

#include "SqlRecordSet.h"
#include "SqlTrace.h"

#include <sqlite3.h>

namespace sql {

namespace {

// SQLite keeps the user version in 32 bits with a sign.
constexpr int highest_user_version = 2147483647;

// 0, which SQLite refuses, for an unknown mode.
int openFlags(Database::AccessMode mode)
{
    switch (mode) {
    case Database::access_read_only:
        return SQLITE_OPEN_READONLY;
    case Database::access_read_write:
        return SQLITE_OPEN_READWRITE;
    case Database::access_create:
        return SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE;
    }
    return 0;
}

// A table's string keys stand between double quotes. Systems may have an SQLite that takes those
// for column names alone; it reads them as texts where told to. One that is too old to be told
// always does, so the result does not matter.
void readDoubleQuotedTexts([[maybe_unused]] sqlite3* db)
{
#ifdef SQLITE_DBCONFIG_DQS_DML
    int* const none = nullptr;
    sqlite3_db_config(db, SQLITE_DBCONFIG_DQS_DML, 1, none);
#endif
}

} // namespace

Database::Database() : _db(nullptr), _rc(SQLITE_ERROR)
{
}

Database::~Database()
{
    close();
}

// The unnamed flag has never had an effect; callers pass it all the same.
bool Database::open(const string& fileName, AccessMode mode, bool, int busyTimeoutMs)
{
    TRACE_DEBUG1("Opening database '%s'", fileName.c_str());
    close();

    const int flags = openFlags(mode);
    if (flags == 0)
        SQL_ASSERT(false,
                   "bool sql::Database::open(const string&, sql::Database::AccessMode, bool, int)");

    _rc = sqlite3_open_v2(fileName.c_str(), &_db, flags, nullptr);
    if (!isOpen()) {
        TRACE_ERROR("Failed to open the database %s: rc=%d=%s: %s", fileName.c_str(), _rc,
                    sqliteRc2Str(_rc), sqlite3_errmsg(_db));
        return false;
    }
    if (_db == nullptr) { // isOpen() stays true: it goes by SQLite's result alone
        TRACE_ERROR("Failed to open the database %s: database handle returned by SQLite is 0",
                    fileName.c_str());
        return false;
    }
    readDoubleQuotedTexts(_db);

    const int rc = sqlite3_busy_timeout(_db, busyTimeoutMs);
    if (rc != SQLITE_OK) {
        TRACE_ERROR("Failed to set the busy timeout: rc=%d=%s", rc, sqliteRc2Str(rc));
        return false;
    }
    return true;
}

void Database::close()
{
    if (_db != nullptr) {
        const int rc = sqlite3_close(_db);
        SQL_ASSERT(rc == SQLITE_OK, "void sql::Database::close()");
        _db = nullptr;
    }
    _rc = SQLITE_ERROR;
}

bool Database::isOpen() const
{
    return _rc == SQLITE_OK;
}

sqlite3* Database::getHandle()
{
    return _db;
}

bool Database::transactionBegin()
{
    return RecordSet(_db).query("BEGIN TRANSACTION");
}

bool Database::transactionCommit()
{
    return RecordSet(_db).query("COMMIT TRANSACTION");
}

bool Database::transactionRollback()
{
    return RecordSet(_db).query("ROLLBACK TRANSACTION");
}

int Database::getUserVersion() const
{
    return queryNumber(_db, "PRAGMA user_version;");
}

bool Database::setUserVersion(unsigned int version)
{
    if (version > static_cast<unsigned int>(highest_user_version)) {
        TRACE_ERROR("User version of a Quillmoor SQL database must be <= %d", highest_user_version);
        return false;
    }
    return runOneStepSqlStmt(_db,
                             "PRAGMA user_version=" + intToStr(static_cast<int>(version)) + ";");
}

} // namespace sql
