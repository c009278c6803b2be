#ifndef SQLPREPARED_SQLBLOB_H
#define SQLPREPARED_SQLBLOB_H

#include "SqlBinder.h"
#include "SqlResult.h"

#include <memory>

struct sqlite3_blob;

#pragma GCC visibility push(default)

namespace sql {

/// What a Blob is opened for.
enum BlobMode : std::int32_t {
    blob_read = 0, ///< to be read
    blob_write = 1 ///< to be read and written
};

/// A cell of bytes, or of text, that is read and written in pieces and never held whole.
///
///     sql::Blob name(database, "product", "name", 1, sql::blob_write);
///     char first = '?';
///     if (name.read(0, &first, 1))
///         std::printf("%c of %lld\n", first, name.size()); // r of 3
///     if (!name.write(0, {"R", 1}) || !name.release())
///         std::puts(name.error().text().c_str());
///
/// Its size is that of the cell: make that as large as it shall be, by `zeroblob(?)`. An operation
/// that fails keeps the reason in error() and reports it once. Borrows the database, and fails once
/// that was closed or opened anew. Declare it after the database, or release() it before that
/// closes: otherwise the connection leaks. One thread at a time.
class Blob {
public:
    /// Opens the cell in the row with this rowid, which an integer primary key is. The table is one
    /// of the file itself, neither temporary nor attached, with rowids and without generated
    /// columns; for writing, the column is neither indexed nor a foreign key that is enforced. If
    /// that fails, isOpen() is false. Until the release the connection has a lock, in blob_write
    /// that for writing. What is written sets off neither triggers nor checks.
    Blob(Database& database, const string& table, const string& column, integer rowid,
         BlobMode mode);
    Blob(Blob&& other) noexcept;            ///< Takes all; the other is released.
    Blob& operator=(Blob&& other) noexcept; ///< Releases as the destructor does, then takes all.
    Blob(const Blob&) = delete;             ///< A blob has one owner.
    Blob& operator=(const Blob&) = delete;  ///< A blob has one owner.
    ~Blob();                                ///< Releases it; only the log tells if that fails.

    /// Goes to the same column of another row, faster than a new blob. If that fails, it is
    /// released.
    [[nodiscard]] bool moveTo(integer rowid);

    bool isOpen() const;  ///< Returns whether it was opened and not released.
    integer size() const; ///< Returns the size of the cell in bytes, 0 if it is not open.

    /// Reads `size` bytes from `offset` on, the first is 0. Reads nothing and fails if the cell
    /// ends before. Fails once its row was changed or deleted by other means: open it anew then.
    [[nodiscard]] bool read(integer offset, void* buffer, std::size_t size);

    /// Writes the bytes over those from `offset` on; fails as read() does. A blob cannot grow.
    [[nodiscard]] bool write(integer offset, Bytes bytes);

    /// Reads it from beginning to end, in pieces of 64 KiB at most, and calls `sink` with the Bytes
    /// of each, which live until it returns. Ends with a failure when that returns false.
    template <typename Sink> [[nodiscard]] bool readAll(Sink&& sink)
    {
        const auto call = [&sink](void* data, std::size_t size) -> bool {
            return sink(Bytes{data, size});
        };
        return readPieces(pieceOf(call));
    }

    /// Writes it likewise: calls `source` with a `void*` and a `std::size_t`, to put as many bytes
    /// there. What was written before a failure stays, unless its transaction is rolled back.
    template <typename Source> [[nodiscard]] bool writeAll(Source&& source)
    {
        const auto call = [&source](void* data, std::size_t size) -> bool {
            return source(data, size);
        };
        return writePieces(pieceOf(call));
    }

    /// Closes it. Outside a transaction that commits what was written; returns false if that fails,
    /// or SQLite could not read or write before, and nothing is stored then. A transaction can be
    /// committed only after it. Does nothing if it is not open.
    [[nodiscard]] bool release();

    /// Returns why the latest operation failed; no failure if it did not. Lives as long as this.
    const Error& error() const;

private:
    struct Piece {
        const void* callable;
        bool (*call)(const void* callable, void* data, std::size_t size);
    };
    struct SQLWRAPPER_LOCAL Close {
        void operator()(sqlite3_blob* blob) const;
    };

    template <typename Call> static Piece pieceOf(const Call& call)
    {
        return {&call, [](const void* callable, void* data, std::size_t size) {
                    return (*static_cast<const Call*>(callable))(data, size);
                }};
    }

    bool readPieces(const Piece& piece);
    bool writePieces(const Piece& piece);
    SQLWRAPPER_LOCAL bool forEachPiece(const char* operation, bool writes, const Piece& piece);
    SQLWRAPPER_LOCAL bool open(const string& table, const string& column, integer rowid, int mode);
    SQLWRAPPER_LOCAL int findGenerated(const string& table, bool& found) const;
    SQLWRAPPER_LOCAL bool isUsable(const char* operation, bool writes);
    SQLWRAPPER_LOCAL bool isWithin(const char* operation, integer offset, std::size_t size);
    SQLWRAPPER_LOCAL bool transfer(const char* operation, bool writes, integer offset, void* data,
                                   std::size_t size);
    SQLWRAPPER_LOCAL void end(const char* operation);
    SQLWRAPPER_LOCAL bool fail(const char* operation, int rc, const char* why);
    SQLWRAPPER_LOCAL bool failAsSqlite(const char* operation, int rc);

    Database* _database;
    sqlite3* _connection;
    std::unique_ptr<sqlite3_blob, Close> _blob;
    string _statement; // that it stands for, in reports
    bool _writes;
    int _failure = 0; // of a read or write, which SQLite tells once more at the end
    Error _error;
};

} // namespace sql

#pragma GCC visibility pop

#endif
