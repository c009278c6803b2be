#ifndef SQLSYNC_SQLCHANGEREADER_H
#define SQLSYNC_SQLCHANGEREADER_H

#include "SqlEnvelope.h"

#pragma GCC visibility push(default)

namespace sql {

/// What was done to a row. The numbers are those in the bytes.
enum ChangeKind : std::int32_t {
    change_delete = 9,  ///< it was deleted
    change_insert = 18, ///< it was inserted
    change_update = 23  ///< some of its cells were changed, none of its key
};

/// What a cell of a change holds. The numbers are those in the bytes.
enum ChangeType : std::int32_t {
    change_undefined = 0, ///< nothing: the change does not tell it
    change_integer = 1,   ///< an integer, in `number`
    change_real = 2,      ///< a real, in `real`
    change_text = 3,      ///< a text, in `bytes`
    change_block = 4,     ///< a block, in `bytes`
    change_null = 5       ///< NULL
};

/// A cell of a change. Borrows texts and blocks from the change set.
struct ChangeValue {
    ChangeType type = change_undefined; ///< Which of the others counts.
    integer number = 0;                 ///< An integer.
    double real = 0;                    ///< A real.
    std::string_view bytes;             ///< A text or a block.
};

/// Reads a change set change by change, without a database: for one that is no SQLite.
///
///     sql::ChangeReader changes(envelope, bytes);
///     while (changes.next()) {
///         if (changes.kind() == sql::change_insert)
///             std::printf("%lld\n", changes.newValue(0).number); // 2
///     }
///     if (changes.error())
///         std::puts(changes.error().text().c_str());
///
/// Borrows the envelope and the bytes, which have to outlive it. Any bytes may be tried. One thread
/// at a time.
class ChangeReader {
public:
    /// Begins before the first change of the bytes that the envelope belongs to.
    ChangeReader(const Envelope& envelope, std::string_view bytes);
    ChangeReader(const ChangeReader&) = delete;            ///< It stays where it is.
    ChangeReader& operator=(const ChangeReader&) = delete; ///< It stays where it is.

    /// Goes to the next change. Returns false at the end, and fails as checkChangeSet() does: the
    /// changes before the damage have been read then.
    [[nodiscard]] bool next();

    /// Returns the table of the change, of those in the envelope. Ask for it, and for what follows,
    /// after next() has returned true.
    const SyncTable& table() const;
    ChangeKind kind() const; ///< Returns what was done to the row.

    /// Returns whether a trigger or a foreign key has done it.
    bool isIndirect() const;

    /// Returns the cell at `column`, the first is 0, before the change: of a row that was deleted
    /// all, of one that was updated the key and what has changed.
    const ChangeValue& oldValue(std::size_t column) const;

    /// Returns the cell after the change: of a row that was inserted all, of one that was updated
    /// what has changed. Every other is undefined, here and above.
    const ChangeValue& newValue(std::size_t column) const;

    /// Returns why the reading has failed; no failure if it has not. Lives as long as this.
    const Error& error() const;

private:
    friend string whyNotChanges(const Envelope& envelope, std::string_view bytes, integer& count,
                                std::vector<bool>& isTouched);

    SQLWRAPPER_LOCAL bool advance();
    SQLWRAPPER_LOCAL bool check();
    SQLWRAPPER_LOCAL bool readTable();
    SQLWRAPPER_LOCAL bool readChange();
    SQLWRAPPER_LOCAL bool readRow(std::vector<ChangeValue>& row);
    SQLWRAPPER_LOCAL bool readValue(ChangeValue& value);
    SQLWRAPPER_LOCAL bool readLength(std::size_t& length);
    SQLWRAPPER_LOCAL bool readBytes(std::size_t size, std::string_view& bytes);
    SQLWRAPPER_LOCAL const char* whyNotWhole() const;
    SQLWRAPPER_LOCAL const char* whyNotUpdate() const;
    SQLWRAPPER_LOCAL bool fail(std::size_t at, const char* why);

    const Envelope& _envelope;
    const std::string_view _bytes;
    std::size_t _at = 0;
    bool _isChecked = false;
    bool _isEnded = false;
    std::vector<bool> _isRead; // by table of the envelope
    const SyncTable* _table = nullptr;
    ChangeKind _kind = change_insert;
    bool _isIndirect = false;
    std::vector<ChangeValue> _old; // a cell for each column of the table
    std::vector<ChangeValue> _new;
    string _reason; // not yet reported
    Error _error;
};

} // namespace sql

#pragma GCC visibility pop

#endif
