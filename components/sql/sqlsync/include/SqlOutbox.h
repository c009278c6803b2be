#ifndef SQLSYNC_SQLOUTBOX_H
#define SQLSYNC_SQLOUTBOX_H

#include "SqlEnvelope.h"

#pragma GCC visibility push(default)

namespace sql {

/// What is sent of one or several recorded commits: a header and the bytes of the changes.
///
///     sql::Outbox outbox(database, "device-17");
///     sql::ChangeSet set;
///     while (outbox.next(set))
///         std::printf("%zu bytes\n", set.bytes().size());
///     if (outbox.error())
///         std::puts(outbox.error().text().c_str());
///
/// A plain value that owns both; what they return lives until it changes or ends.
class ChangeSet {
public:
    std::string_view header() const; ///< Returns what readEnvelope() reads.
    std::string_view bytes() const;  ///< Returns what checkChangeSet() checks.
    SyncPosition previous() const;   ///< Returns the commit before its first change.
    SyncPosition last() const;       ///< Returns the commit of its last change.

private:
    friend class Outbox; // fills it

    string _header;
    string _bytes;
    SyncPosition _previous;
    SyncPosition _last;
};

/// How much waits in an outbox.
struct OutboxSize {
    integer sets = 0;  ///< Change sets that are not acknowledged.
    integer bytes = 0; ///< Their bytes, without headers.
};

/// The change sets that Recorders of a file have stored, from the oldest one on, until they are
/// acknowledged: over restarts and power cuts.
///
///     sql::Outbox outbox(database, "device-17");
///     sql::ChangeSet set;
///     while (outbox.next(set)) {
///         if (!outbox.acknowledge(set.last())) // once the receiver has it
///             std::puts(outbox.error().text().c_str());
///     }
///
/// Neighbours that were never handed out are merged: what a later commit undoes is not sent. What
/// was handed out comes again as it was, byte for byte. Each operation is an immediate transaction,
/// and fails within another. One receiver a file. Borrows the database. One thread at a time.
class Outbox {
public:
    /// Names the device in the headers of what it hands out. Merges up to `most` bytes of changes; a
    /// commit that has more is handed out alone.
    Outbox(Database& database, const string& device, integer most = 262144);
    Outbox(const Outbox&) = delete;            ///< It stays where it is.
    Outbox& operator=(const Outbox&) = delete; ///< It stays where it is.

    /// Reads the set behind the one that this object has handed out before, at first the oldest.
    /// Returns false when there is none, and on failure.
    [[nodiscard]] bool next(ChangeSet& set);

    /// Goes back to the oldest set that is not acknowledged, to send all again.
    void restart();

    /// Lets go of the set that ends with this commit, and of those before it. Returns true also if
    /// they are gone. Fails for a commit that was never handed out.
    [[nodiscard]] bool acknowledge(SyncPosition last);

    /// Returns how much waits.
    Result<OutboxSize> pending();

    /// Returns why the latest operation failed; no failure if it did not. Lives as long as this.
    const Error& error() const;

private:
    SQLWRAPPER_LOCAL Error readNext(ChangeSet& set, bool& isRead);
    SQLWRAPPER_LOCAL Error remove(SyncPosition last);

    Database* _database;
    string _device;
    integer _most;
    integer _after = 0; // the number of the set that was handed out
    Error _error;
};

} // namespace sql

#pragma GCC visibility pop

#endif
