#ifndef SQLSYNC_SRC_SQLOUTBOXFILE_H
#define SQLSYNC_SRC_SQLOUTBOXFILE_H

// The tables of recorded changes in the user's file, of which Recorder and Outbox know. All is done in a
// transaction of the caller's.

#include "SqlRecorder.h"

namespace sql {

// Makes them unless they are there.
Error makeOutbox(Database& database);

// Makes one of the change sets behind this number: as many as have one schema and together no more than so
// many bytes, and at least the first. Says which is the last of them; nothing changes where there is none.
Error mergeBehind(Database& database, const char* operation, integer after, integer most,
                  integer& last);

// Has the outbox, into which the set with this number has just gone, keep to so many bytes. Fails where it
// cannot.
Error keepLimit(Database& database, integer number, integer limit, WhenFull whenFull);

// Removes those up to this number.
Error removeUpTo(Database& database, integer number);

} // namespace sql

#endif
