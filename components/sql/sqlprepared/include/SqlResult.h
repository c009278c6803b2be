#ifndef SQLPREPARED_SQLRESULT_H
#define SQLPREPARED_SQLRESULT_H

#include "SqlDatabase.h"

#include <optional>
#include <utility>

#pragma GCC visibility push(default)

namespace sql {

/// Why an operation failed, if it did.
///
///     sql::Statement add(database, "insert into product (id) values (?)");
///     if (!add.run(1) && add.error().isConstraint())
///         std::puts(add.error().name()); // SQLITE_CONSTRAINT_PRIMARYKEY
///     else if (add.error())
///         std::puts(add.error().text().c_str());
///
/// A plain value that owns its texts.
class Error {
public:
    Error() = default; ///< No failure.

    /// Holds a failure with one of SQLite's extended result codes. `offset` is the byte of
    /// `statement` that it is about, -1 for none.
    Error(int extendedCode, string text, string statement = string(), int offset = -1);

    Error(const Error&) = default;            ///< Copies the failure.
    Error& operator=(const Error&) = default; ///< Copies the failure.
    Error(Error&& other) noexcept;            ///< Takes the failure; the other has none.
    Error& operator=(Error&& other) noexcept; ///< Takes the failure; the other has none.

    /// Returns whether there is a failure.
    explicit operator bool() const
    {
        return _extendedCode != 0;
    }
    int code() const;         ///< Returns SQLite's result code, 0 for no failure.
    int extendedCode() const; ///< Returns SQLite's extended result code.

    /// Returns the name of the extended code, a constant text such as "SQLITE_CONSTRAINT_UNIQUE".
    /// Returns that of the code where the extended one is unknown.
    const char* name() const;

    /// Returns the reason in words, without bound values but for names that SQLite's own reasons quote,
    /// such as that of a file to attach.
    const string& text() const;

    /// Returns the statement with its `?`; empty if there is none, or memory ran out.
    const string& statement() const;

    /// Returns the byte of the statement that SQLite points at, nothing if it points at none.
    std::optional<int> offset() const;

    bool isBusy() const;       ///< Returns whether another connection, or this one, has a lock.
    bool isConstraint() const; ///< Returns whether a constraint, a trigger or a hook refused it.
    bool isCorrupt() const;    ///< Returns whether the file is damaged or no database.
    bool isFull() const;       ///< Returns whether the disk is full or the file at its limit.
    bool isIo() const;         ///< Returns whether the system could not read or write.
    bool isMismatch() const;   ///< Returns whether a value or a cell did not fit its place.
    bool isMisuse() const;     ///< Returns whether the program asked for what cannot be.
    bool isNoMemory() const;   ///< Returns whether memory ran out.
    bool isReadOnly() const;   ///< Returns whether the file may not be written.
    bool isStopped() const;    ///< Returns whether the operation was interrupted.
    bool isTooBig() const;     ///< Returns whether a text or block is beyond SQLite's limit.

private:
    int _extendedCode = 0;
    int _offset = -1;
    string _text{};
    string _statement{};
};

/// Returns why the latest call of SQLite on this connection failed; reports nothing. Ask directly
/// after an operation of sqlwrapper that failed. Holds no failure if SQLite knows of none or there
/// is no connection, and never a statement.
Error lastError(Database& database);

/// Whether there is a row with a key. A question that failed is not mistaken for "no".
enum class Presence {
    absent,  ///< there is none
    present, ///< there is one
    unknown  ///< the question failed
};

/// A value, nothing, or the reason why it is not known.
///
///     sql::Statement find(
///         database, "select name from product where id = ?");
///     const sql::Result<sql::string> name = find.one<sql::string>(1);
///     if (name)
///         std::puts(name->c_str()); // rum
///     else if (name.failed())
///         std::puts(name.error().text().c_str());
///
/// Owns what it holds. Take the value only if there is one: otherwise the behaviour is undefined.
template <typename T> class [[nodiscard]] Result {
public:
    Result() = default; ///< Holds nothing, which is no failure.
    /// Holds the value.
    Result(T value) : _value(std::move(value))
    {
    }
    /// Holds the reason.
    Result(Error error) : _error(std::move(error))
    {
    }

    /// Returns whether there is a value.
    explicit operator bool() const
    {
        return _value.has_value();
    }
    /// Returns whether there is a reason why not.
    bool failed() const
    {
        return static_cast<bool>(_error);
    }
    /// Returns the reason, which lives as long as the result; no failure if there is none.
    const Error& error() const
    {
        return _error;
    }

    /// Returns the value, which lives as long as the result.
    T& operator*() &
    {
        return *_value;
    }
    /// Returns the value, which lives as long as the result.
    const T& operator*() const&
    {
        return *_value;
    }
    /// Returns the value of a result that is about to end.
    T&& operator*() &&
    {
        return *std::move(_value);
    }
    /// Returns the value, which lives as long as the result.
    T* operator->()
    {
        return &*_value;
    }
    /// Returns the value, which lives as long as the result.
    const T* operator->() const
    {
        return &*_value;
    }
    /// Returns the value, or `other` where there is none.
    T valueOr(T other) const
    {
        return _value ? *_value : std::move(other);
    }

private:
    std::optional<T> _value;
    Error _error;
};

} // namespace sql

#pragma GCC visibility pop

#endif
