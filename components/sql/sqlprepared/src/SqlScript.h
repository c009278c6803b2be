#ifndef SQLPREPARED_SRC_SQLSCRIPT_H
#define SQLPREPARED_SRC_SQLSCRIPT_H

// Several statements in one text, of a script or of a step that takes a file to a version.

#include "SqlResult.h"

namespace sql {

constexpr int no_version = 0;

// Runs the statements in turn, up to the first that fails, which is reported as the operation's.
// Returns how many ran, or the reason, with the version and the statement's number.
Result<int> runStatements(const char* operation, sqlite3* db, int version, const string& script);

} // namespace sql

#endif
