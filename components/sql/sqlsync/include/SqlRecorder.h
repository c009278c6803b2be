#ifndef SQLSYNC_SQLRECORDER_H
#define SQLSYNC_SQLRECORDER_H

#include "SqlEnvelope.h"
#include "SqlTransaction.h"

#include <memory>
#include <optional>

#pragma GCC visibility push(default)

namespace sql {

/// What happens when the change sets of an outbox have more bytes than allowed.
enum class WhenFull {
    refuse_writes, ///< the commit that has no room fails
    merge_ranges,  ///< those that were never handed out become one; if that is not enough, it fails
    drop_oldest    ///< the oldest go, which the receiver is told; a line in the log tells of it
};

/// How much a Recorder may keep.
struct RecorderOptions {
    integer limit = 0; ///< Bytes of change sets in the outbox, without headers; 0 for no limit.
    WhenFull whenFull = WhenFull::refuse_writes; ///< What happens at the limit.
};

/// Records what the transactions of its connection change in some tables, and keeps it in the file
/// with them, in the outbox, until it was sent.
///
///     sql::Recorder recorder(database, {"product"});
///     sql::RecordedTransaction transaction(recorder);
///     if (!transaction.isOpen() || !products.addRecord(tea))
///         return 1;
///     if (!transaction.commit()) // with what has changed, or neither
///         return 1;
///
/// While it lives, only a RecordedTransaction commits changes of these tables: SQLite rolls back any
/// other commit of its connection that has some. Other tables are written as ever. What other
/// connections change is not recorded. A change of the schema ends the recording until renew().
///
/// One for a connection, made outside of a transaction. Takes SQLite's commit and rollback hooks, as
/// a Transaction does, and its preupdate hook. Borrows the database: declare it after that. One
/// thread at a time.
class Recorder {
public:
    /// Begins to record these tables of the main file. Each has a key that is declared and never
    /// NULL, and no generated columns. If that fails, isRecording() is false, and error() says why.
    Recorder(Database& database, const std::vector<string>& tables,
             const RecorderOptions& options = RecorderOptions());
    Recorder(const Recorder&) = delete;            ///< It stays where it is.
    Recorder& operator=(const Recorder&) = delete; ///< It stays where it is.
    ~Recorder();                                   ///< Ends the recording; the outbox stays.

    /// Returns whether it has begun to record.
    bool isRecording() const;

    /// Reads the schema anew, after it has changed, and goes on. Fails as the constructor does, and
    /// within a transaction.
    [[nodiscard]] bool renew();

    /// Returns how many times another connection was seen to have committed what was not recorded.
    /// It is looked for as a RecordedTransaction begins, and told by a line in the log. After an I/O
    /// error SQLite reads the file anew, which looks the same.
    integer unrecorded() const;

    /// Returns why the constructor or renew() failed; no failure if not. Lives as long as this.
    const Error& error() const;

private:
    friend class RecordedTransaction;
    struct SQLWRAPPER_LOCAL Core;

    SQLWRAPPER_LOCAL bool begin(const char* operation);
    SQLWRAPPER_LOCAL const char* whyNotBegun() const;
    SQLWRAPPER_LOCAL std::unique_ptr<Core> describe(const char* operation);
    SQLWRAPPER_LOCAL bool checkInbox(const char* operation, const std::vector<SyncTable>& tables);
    SQLWRAPPER_LOCAL bool expireStatements();
    SQLWRAPPER_LOCAL bool fail(const char* operation, int rc, const string& why);
    SQLWRAPPER_LOCAL bool failAs(const Error& error);

    Database* _database;
    std::vector<string> _tables;
    RecorderOptions _options;
    std::unique_ptr<Core> _core; // null while nothing is recorded
    integer _unrecorded = 0;
    Error _error;
};

/// An immediate transaction whose changes are recorded: its commit stores them in the outbox, too,
/// both or neither.
///
///     sql::Recorder recorder(database, {"product"});
///     sql::RecordedTransaction transaction(recorder);
///     if (!transaction.isOpen() || !products.addRecord(tea))
///         return 1;
///     if (!transaction.commit())
///         return 1;
///
/// Recorded are the rows as they are at its end, those that triggers have changed included. What a
/// savepoint in it has undone leaves no trace, and so does a transaction that is rolled back, as at
/// the end of its scope. Holds the changed rows in memory. Borrows the recorder. One thread at a
/// time.
class RecordedTransaction {
public:
    /// Begins it. Waits for other connections, here and in commit(), as a Transaction with this
    /// `patience`. If it fails it is not open, and error() says why: the schema has changed, for
    /// one.
    explicit RecordedTransaction(Recorder& recorder,
                                 std::chrono::milliseconds patience = std::chrono::milliseconds(0));
    RecordedTransaction(const RecordedTransaction&) = delete;            ///< It stays where it is.
    RecordedTransaction& operator=(const RecordedTransaction&) = delete; ///< It stays where it is.
    ~RecordedTransaction(); ///< Rolls back what was not committed.

    /// Returns whether it was begun and nobody, SQLite included, has committed or undone it.
    bool isOpen() const;

    /// Stores what has changed in the outbox and commits. Returns false on failure: it is still
    /// open then, to be mended and committed again, unless it had to be rolled back.
    [[nodiscard]] bool commit();

    /// Undoes what was done since the beginning, unless SQLite has. Returns false if it has ended
    /// before, or SQLite fails.
    bool rollback();

    /// Returns why the latest operation failed; no failure if it did not. Lives as long as this.
    const Error& error() const;

private:
    SQLWRAPPER_LOCAL bool isOfSchema(const char* operation);
    SQLWRAPPER_LOCAL bool look();
    SQLWRAPPER_LOCAL bool store(SyncPosition& position);
    SQLWRAPPER_LOCAL bool commitAll();
    SQLWRAPPER_LOCAL bool fail(const char* operation, int rc, const string& why);
    SQLWRAPPER_LOCAL bool failAs(const Error& error);

    Recorder* _recorder;
    std::optional<Transaction> _transaction;
    SyncPosition _previous; // the latest commit before this one
    Error _error;
};

} // namespace sql

#pragma GCC visibility pop

#endif
