#include "SqlBlob.h"

#include "SqlFailure.h"
#include "SqlLiteral.h"
#include "SqlStop.h"

#include <sqlite3.h>

#include <algorithm>

namespace sql {

namespace {

constexpr integer piece_size = 65536;

constexpr const char* row_changed = "the row was changed since the blob was opened";
constexpr const char* has_generated = "a table with generated columns has no blobs in pieces";

} // namespace

void Blob::Close::operator()(sqlite3_blob* blob) const
{
    sqlite3_blob_close(blob);
}

// --- Opening and closing -------------------------------------------------------------------------

Blob::Blob(Database& database, const string& table, const string& column, integer rowid,
           BlobMode mode)
    : _database(&database), _connection(database.getHandle()),
      _statement(joined({"select ", quoteIdentifier(column), " from main.", quoteIdentifier(table),
                         " where rowid = ?"})),
      _writes(mode == blob_write)
{
    open(table, column, rowid, mode);
}

Blob::Blob(Blob&& other) noexcept = default;

Blob& Blob::operator=(Blob&& other) noexcept
{
    if (this == &other)
        return *this;
    end("operator=");
    _database = other._database;
    _connection = other._connection;
    _blob = std::move(other._blob);
    _statement = std::move(other._statement);
    _writes = other._writes;
    _failure = other._failure;
    _error = std::move(other._error);
    return *this;
}

Blob::~Blob()
{
    end("~Blob");
}

bool Blob::open(const string& table, const string& column, integer rowid, int mode)
{
    if (_connection == nullptr)
        return fail("Blob", SQLITE_MISUSE, database_not_open);
    if ((table + column).find('\0') != string::npos)
        return fail("Blob", SQLITE_MISUSE, "there is a zero byte in the name");
    if (isStopRequested(_connection))
        return failAsSqlite("Blob", SQLITE_INTERRUPT);
    bool isGenerated = false;
    int rc = findGenerated(table, isGenerated);
    if (rc != SQLITE_OK)
        return failAsSqlite("Blob", rc);
    if (isGenerated)
        return fail("Blob", SQLITE_ERROR, has_generated);
    sqlite3_blob* blob = nullptr;
    rc = sqlite3_blob_open(_connection, "main", table.c_str(), column.c_str(), rowid, mode, &blob);
    _blob.reset(blob);
    return rc == SQLITE_OK || failAsSqlite("Blob", rc);
}

// SQLite counts virtual columns in, and takes the cell of another column; one that is stored would
// no longer be what it is made of.
int Blob::findGenerated(const string& table, bool& found) const
{
    if (sqlite3_libversion_number() < 3031000) // which has none
        return SQLITE_OK;
    sqlite3_stmt* statement = nullptr;
    const char text[] = "select 1 from pragma_table_xinfo(?, 'main') where hidden > 1";
    const int rc = sqlite3_prepare_v2(_connection, text, sizeof text, &statement, nullptr);
    if (rc != SQLITE_OK)
        return rc;
    sqlite3_bind_text64(statement, 1, table.data(), table.size(), SQLITE_STATIC, SQLITE_UTF8);
    found = sqlite3_step(statement) == SQLITE_ROW;
    return sqlite3_finalize(statement);
}

bool Blob::moveTo(integer rowid)
{
    if (!isUsable("moveTo", false))
        return false;
    const int rc = sqlite3_blob_reopen(_blob.get(), rowid);
    if (rc == SQLITE_OK)
        return true;
    failAsSqlite("moveTo", rc);
    _blob.reset();
    return false;
}

// Without the database, which may be gone. SQLite tells a failure once more that was reported.
bool Blob::release()
{
    _error = Error();
    const int rc = sqlite3_blob_close(_blob.release());
    if (rc == SQLITE_OK)
        return true;
    if (_failure == SQLITE_OK)
        return failAsSqlite("release", rc);
    _error = errorOf(_connection, rc, reasonOf(_connection, rc), _statement.c_str());
    return false;
}

// Keeps no reason: nobody could ask for it.
void Blob::end(const char* operation)
{
    const int rc = sqlite3_blob_close(_blob.release());
    if (rc != SQLITE_OK && _failure == SQLITE_OK)
        reportFailure(operation, _statement.c_str(), extendedCodeOf(_connection, rc),
                      reasonOf(_connection, rc));
}

bool Blob::isOpen() const
{
    return _blob != nullptr;
}

integer Blob::size() const
{
    return sqlite3_blob_bytes(_blob.get());
}

const Error& Blob::error() const
{
    return _error;
}

// --- Pieces --------------------------------------------------------------------------------------

bool Blob::read(integer offset, void* buffer, std::size_t size)
{
    return isUsable("read", false) && transfer("read", false, offset, buffer, size);
}

bool Blob::write(integer offset, Bytes bytes)
{
    return isUsable("write", true)
           && transfer("write", true, offset, const_cast<void*>(bytes.data), bytes.size);
}

bool Blob::readPieces(const Piece& piece)
{
    return forEachPiece("readAll", false, piece);
}

bool Blob::writePieces(const Piece& piece)
{
    return forEachPiece("writeAll", true, piece);
}

bool Blob::forEachPiece(const char* operation, bool writes, const Piece& piece)
{
    if (!isUsable(operation, writes))
        return false;
    const integer end = size();
    const std::unique_ptr<char[]> buffer(new char[std::min(end, piece_size)]);
    for (integer offset = 0; offset < end; offset += piece_size) {
        const auto count = static_cast<std::size_t>(std::min(end - offset, piece_size));
        const auto transferred = [&] {
            return isUsable(operation, writes)
                   && transfer(operation, writes, offset, buffer.get(), count);
        };
        if (!writes && !transferred())
            return false;
        if (!piece.call(piece.callable, buffer.get(), count))
            return fail(operation, SQLITE_ABORT, "the function has failed");
        if (writes && !transferred())
            return false;
    }
    return true;
}

bool Blob::transfer(const char* operation, bool writes, integer offset, void* data,
                    std::size_t size)
{
    if (!isWithin(operation, offset, size))
        return false;
    const int count = static_cast<int>(size);
    const int at = static_cast<int>(offset);
    const int rc = writes ? sqlite3_blob_write(_blob.get(), data, count, at)
                          : sqlite3_blob_read(_blob.get(), data, count, at);
    if (rc == SQLITE_OK)
        return true;
    _failure = extendedCodeOf(_connection, rc);
    return failAsSqlite(operation, rc);
}

bool Blob::isWithin(const char* operation, integer offset, std::size_t size)
{
    const integer end = this->size();
    if (offset >= 0 && offset <= end && size <= static_cast<std::size_t>(end - offset))
        return true;
    return fail(operation, SQLITE_RANGE, "the piece is not within the blob");
}

// --- Failures ------------------------------------------------------------------------------------

bool Blob::isUsable(const char* operation, bool writes)
{
    _error = Error();
    if (_blob == nullptr)
        return fail(operation, SQLITE_MISUSE, "the blob is not open");
    if (_database->getHandle() != _connection)
        return fail(operation, SQLITE_MISUSE, database_closed);
    if (writes && !_writes)
        return fail(operation, SQLITE_MISUSE, "the blob was opened to be read");
    if (_failure == SQLITE_ABORT) // SQLite has forgotten the size, too
        return fail(operation, SQLITE_ABORT, row_changed);
    if (isStopRequested(_connection)) // which SQLite does not heed here
        return failAsSqlite(operation, SQLITE_INTERRUPT);
    return true;
}

bool Blob::fail(const char* operation, int rc, const char* why)
{
    reportFailure(operation, _statement.c_str(), rc, why);
    _error = errorOf(_connection, rc, why, _statement.c_str());
    return false;
}

bool Blob::failAsSqlite(const char* operation, int rc)
{
    const int code = extendedCodeOf(_connection, rc);
    return fail(operation, code, code == SQLITE_ABORT ? row_changed : reasonOf(_connection, rc));
}

} // namespace sql
