#ifndef SQLSYNC_SQLENVELOPE_H
#define SQLSYNC_SQLENVELOPE_H

#include "SqlResult.h"

#include <cstdint>
#include <string_view>
#include <vector>

#pragma GCC visibility push(default)

namespace sql {

/// A recorded commit of a device's file. Numbers go on for ever; an incarnation is a random number
/// for those that one Recorder has given. Both are 0 before the first.
struct SyncPosition {
    integer incarnation = 0; ///< Random, so that two copies of a file do not share a position.
    integer number = 0;      ///< Counts the recorded commits of the file.
};

/// Returns whether both are the same commit.
inline bool operator==(const SyncPosition& one, const SyncPosition& other)
{
    return one.incarnation == other.incarnation && one.number == other.number;
}
/// Returns whether they are two commits.
inline bool operator!=(const SyncPosition& one, const SyncPosition& other)
{
    return !(one == other);
}

/// A column of a recorded table.
struct SyncColumn {
    string name;            ///< As it was declared.
    string type;            ///< As it was declared, in capitals; empty for none.
    int keyOrdinal = 0;     ///< Its place in the key, the first is 1; 0 outside of the key.
    bool isNotNull = false; ///< Whether it was declared so.
};

/// A recorded table.
struct SyncTable {
    string name;                     ///< As it was declared.
    std::vector<SyncColumn> columns; ///< In their order.
};

/// What a change set says of itself: its header, read.
///
///     const auto envelope = sql::readEnvelope(header);
///     if (!envelope || !sql::checkChangeSet(*envelope, bytes))
///         return 1; // cut off or damaged
///     sql::ChangeReader changes(*envelope, bytes);
///     while (changes.next())
///         std::puts(changes.table().name.c_str()); // product
///
/// A plain value. Checksums are 64-bit FNV-1a: they tell accidents, such as a byte that has changed,
/// and no forgery, which the transport has to keep out.
struct Envelope {
    string device;                 ///< Whose changes they are: UTF-8.
    SyncPosition previous;         ///< The commit before its first change; zeros for none.
    SyncPosition last;             ///< The commit of its last change.
    SyncPosition dropped;          ///< Commits up to it never come; zeros for none.
    std::uint64_t schemaHash = 0;  ///< The checksum of the tables' description.
    std::uint64_t size = 0;        ///< How many bytes the change set has.
    std::uint64_t checksum = 0;    ///< The checksum of those bytes.
    std::vector<SyncTable> tables; ///< Those that the device records.
};

/// What a receiver keeps of a device, as far as the next change set has to do with it.
struct SyncMark {
    SyncPosition position; ///< The latest commit that has come or was passed over; zeros for none.
    integer checksum = 0;  ///< The checksum of the set that ended with it; 0 if it was passed over.
    bool isKnown = false;  ///< Whether the commit that the set ends with is one of those.
    bool isRetired = false; ///< Whether that commit's incarnation is never to be accepted again.
};

/// Returns whether a change set is the next of its device; false if it has come before. Fails with
/// SQLITE_NOTFOUND if sets before it are missing that the device has not dropped, and SQLITE_AUTH if
/// it continues something else than what has come. An Inbox asks this; ask it for a receiver that is
/// no SQLite.
Result<bool> isNext(const Envelope& envelope, const SyncMark& mark);

/// Returns the header of a change set with these bytes: little-endian, the same on every system.
/// Takes device, positions and tables from the envelope, and the rest from them and the bytes.
string encode(const Envelope& envelope, std::string_view bytes);

/// Reads a header. Fails with SQLITE_CORRUPT unless it is whole and undamaged, and the envelope in
/// it one that encode() can have been given: any bytes may be tried.
Result<Envelope> readEnvelope(std::string_view header);

/// Checks the bytes of a change set: their number and checksum, and that they are changes of the
/// envelope's tables, well-formed to the last byte. Returns how many changes there are; fails with
/// SQLITE_CORRUPT, which names the byte: any bytes may be tried.
Result<integer> checkChangeSet(const Envelope& envelope, std::string_view bytes);

} // namespace sql

#pragma GCC visibility pop

#endif
