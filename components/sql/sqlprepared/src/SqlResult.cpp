#include "SqlResult.h"

#include "SqlFailure.h"

#include <sqlite3.h>

#include <cstdint>

namespace sql {

namespace {

// Codes that have a name of their own, held in place: no addresses for the loader to fill in.
struct NamedCode {
    std::uint16_t code;
    char name[32];
};

#define NAMED(name)                                                                                \
    {                                                                                              \
        name, #name                                                                                \
    }
constexpr NamedCode named_codes[] = {
    NAMED(SQLITE_ABORT_ROLLBACK),
    NAMED(SQLITE_AUTH_USER),
    NAMED(SQLITE_BUSY_RECOVERY),
    NAMED(SQLITE_BUSY_SNAPSHOT),
    NAMED(SQLITE_CANTOPEN_CONVPATH),
    NAMED(SQLITE_CANTOPEN_FULLPATH),
    NAMED(SQLITE_CANTOPEN_ISDIR),
    NAMED(SQLITE_CANTOPEN_NOTEMPDIR),
    NAMED(SQLITE_CONSTRAINT_CHECK),
    NAMED(SQLITE_CONSTRAINT_COMMITHOOK),
    NAMED(SQLITE_CONSTRAINT_FOREIGNKEY),
    NAMED(SQLITE_CONSTRAINT_FUNCTION),
    NAMED(SQLITE_CONSTRAINT_NOTNULL),
    NAMED(SQLITE_CONSTRAINT_PRIMARYKEY),
    NAMED(SQLITE_CONSTRAINT_ROWID),
    NAMED(SQLITE_CONSTRAINT_TRIGGER),
    NAMED(SQLITE_CONSTRAINT_UNIQUE),
    NAMED(SQLITE_CONSTRAINT_VTAB),
    NAMED(SQLITE_CORRUPT_VTAB),
    NAMED(SQLITE_ERROR_MISSING_COLLSEQ),
    NAMED(SQLITE_ERROR_RETRY),
    NAMED(SQLITE_IOERR_ACCESS),
    NAMED(SQLITE_IOERR_AUTH),
    NAMED(SQLITE_IOERR_BEGIN_ATOMIC),
    NAMED(SQLITE_IOERR_BLOCKED),
    NAMED(SQLITE_IOERR_CHECKRESERVEDLOCK),
    NAMED(SQLITE_IOERR_CLOSE),
    NAMED(SQLITE_IOERR_COMMIT_ATOMIC),
    NAMED(SQLITE_IOERR_CONVPATH),
    NAMED(SQLITE_IOERR_DELETE),
    NAMED(SQLITE_IOERR_DELETE_NOENT),
    NAMED(SQLITE_IOERR_DIR_CLOSE),
    NAMED(SQLITE_IOERR_DIR_FSYNC),
    NAMED(SQLITE_IOERR_FSTAT),
    NAMED(SQLITE_IOERR_FSYNC),
    NAMED(SQLITE_IOERR_GETTEMPPATH),
    NAMED(SQLITE_IOERR_LOCK),
    NAMED(SQLITE_IOERR_MMAP),
    NAMED(SQLITE_IOERR_NOMEM),
    NAMED(SQLITE_IOERR_RDLOCK),
    NAMED(SQLITE_IOERR_READ),
    NAMED(SQLITE_IOERR_ROLLBACK_ATOMIC),
    NAMED(SQLITE_IOERR_SEEK),
    NAMED(SQLITE_IOERR_SHMLOCK),
    NAMED(SQLITE_IOERR_SHMMAP),
    NAMED(SQLITE_IOERR_SHMOPEN),
    NAMED(SQLITE_IOERR_SHMSIZE),
    NAMED(SQLITE_IOERR_SHORT_READ),
    NAMED(SQLITE_IOERR_TRUNCATE),
    NAMED(SQLITE_IOERR_UNLOCK),
    NAMED(SQLITE_IOERR_VNODE),
    NAMED(SQLITE_IOERR_WRITE),
    NAMED(SQLITE_LOCKED_SHAREDCACHE),
    NAMED(SQLITE_READONLY_CANTINIT),
    NAMED(SQLITE_READONLY_CANTLOCK),
    NAMED(SQLITE_READONLY_DBMOVED),
    NAMED(SQLITE_READONLY_DIRECTORY),
    NAMED(SQLITE_READONLY_RECOVERY),
    NAMED(SQLITE_READONLY_ROLLBACK),
#ifdef SQLITE_BUSY_TIMEOUT
    NAMED(SQLITE_BUSY_TIMEOUT),
#endif
#ifdef SQLITE_CANTOPEN_DIRTYWAL
    NAMED(SQLITE_CANTOPEN_DIRTYWAL),
#endif
#ifdef SQLITE_CANTOPEN_SYMLINK
    NAMED(SQLITE_CANTOPEN_SYMLINK),
#endif
#ifdef SQLITE_CONSTRAINT_DATATYPE
    NAMED(SQLITE_CONSTRAINT_DATATYPE),
#endif
#ifdef SQLITE_CONSTRAINT_PINNED
    NAMED(SQLITE_CONSTRAINT_PINNED),
#endif
#ifdef SQLITE_CORRUPT_INDEX
    NAMED(SQLITE_CORRUPT_INDEX),
#endif
#ifdef SQLITE_CORRUPT_SEQUENCE
    NAMED(SQLITE_CORRUPT_SEQUENCE),
#endif
#ifdef SQLITE_ERROR_SNAPSHOT
    NAMED(SQLITE_ERROR_SNAPSHOT),
#endif
#ifdef SQLITE_IOERR_CORRUPTFS
    NAMED(SQLITE_IOERR_CORRUPTFS),
#endif
#ifdef SQLITE_IOERR_DATA
    NAMED(SQLITE_IOERR_DATA),
#endif
#ifdef SQLITE_LOCKED_VTAB
    NAMED(SQLITE_LOCKED_VTAB),
#endif
};
#undef NAMED

int primaryCode(int extendedCode)
{
    return extendedCode & 0xff;
}

} // namespace

Error::Error(int extendedCode, string text, string statement, int offset)
    : _extendedCode(extendedCode), _offset(offset), _text(std::move(text)),
      _statement(std::move(statement))
{
}

Error::Error(Error&& other) noexcept
    : _extendedCode(std::exchange(other._extendedCode, SQLITE_OK)),
      _offset(std::exchange(other._offset, -1)), _text(std::exchange(other._text, string())),
      _statement(std::exchange(other._statement, string()))
{
}

Error& Error::operator=(Error&& other) noexcept
{
    Error taken(std::move(other)); // swapped, so that one that takes itself stays
    std::swap(_extendedCode, taken._extendedCode);
    std::swap(_offset, taken._offset);
    _text.swap(taken._text);
    _statement.swap(taken._statement);
    return *this;
}

int Error::code() const
{
    return primaryCode(_extendedCode);
}

int Error::extendedCode() const
{
    return _extendedCode;
}

const char* Error::name() const
{
    for (const NamedCode& named : named_codes) {
        if (named.code == _extendedCode)
            return named.name;
    }
    return sqliteRc2Str(code());
}

const string& Error::text() const
{
    return _text;
}

const string& Error::statement() const
{
    return _statement;
}

std::optional<int> Error::offset() const
{
    return _offset >= 0 ? std::optional<int>(_offset) : std::nullopt;
}

bool Error::isBusy() const
{
    return code() == SQLITE_BUSY || code() == SQLITE_LOCKED;
}

bool Error::isConstraint() const
{
    return code() == SQLITE_CONSTRAINT;
}

bool Error::isCorrupt() const
{
    return code() == SQLITE_CORRUPT || code() == SQLITE_NOTADB;
}

bool Error::isFull() const
{
    return code() == SQLITE_FULL;
}

bool Error::isIo() const
{
    return code() == SQLITE_IOERR && !isNoMemory();
}

bool Error::isMismatch() const
{
    return code() == SQLITE_MISMATCH;
}

bool Error::isMisuse() const
{
    return code() == SQLITE_MISUSE || code() == SQLITE_RANGE;
}

bool Error::isNoMemory() const
{
    return code() == SQLITE_NOMEM || _extendedCode == SQLITE_IOERR_NOMEM;
}

bool Error::isReadOnly() const
{
    return code() == SQLITE_READONLY;
}

bool Error::isStopped() const
{
    return code() == SQLITE_INTERRUPT;
}

bool Error::isTooBig() const
{
    return code() == SQLITE_TOOBIG;
}

Error lastError(Database& database)
{
    sqlite3* const db = database.getHandle();
    const int rc = db != nullptr ? sqlite3_extended_errcode(db) : SQLITE_OK;
    if (rc == SQLITE_OK || rc == SQLITE_ROW || rc == SQLITE_DONE)
        return Error();
    return Error(extendedCodeOf(db, rc), reasonOf(db, rc));
}

} // namespace sql
