#ifndef SQLSYNC_SRC_SQLSCHEMA_H
#define SQLSYNC_SRC_SQLSCHEMA_H

// What Recorder, Outbox and Inbox share of the envelope: the description of tables as bytes, which are
// stored and sent, and the reasons alone, for those who report under names of their own.

#include "SqlEnvelope.h"

namespace sql {

// 64-bit FNV-1a: each step is a bijection, so that no single byte can change unseen.
std::uint64_t checksumOf(std::string_view bytes);

// The description of tables; its checksum is the schema's hash.
string encodeSchema(const std::vector<SyncTable>& tables);

// Each returns why not, empty if it is. Touched is each table of the envelope that has changes.
string whyNotSchema(std::string_view description, std::vector<SyncTable>& tables);
string whyNotEnvelope(std::string_view header, Envelope& envelope);
string whyNotChanges(const Envelope& envelope, std::string_view bytes, integer& count,
                     std::vector<bool>& isTouched);

// The table of this name in the main file, as it was declared, if its changes can be recorded and
// applied: a table with a key that is never null. Reports its failures.
Result<SyncTable> describeTable(Database& database, const char* operation, const string& name);

// What an operator may ask of a set: whether it has come before, and in which words it is refused if
// its incarnation was retired.
bool hasCome(const Envelope& envelope, const SyncMark& mark);
extern const char* const retired;

// isNext(), which reports under the operation's name.
Result<bool> isTurn(const char* operation, const Envelope& envelope, const SyncMark& mark);

// Keeps and reports a failure that has no statement: the operation's name stands for it.
Error failed(const char* operation, int rc, const string& cause);

} // namespace sql

#endif
