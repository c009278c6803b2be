#ifndef SQLPREPARED_SRC_SQLFAILURE_H
#define SQLPREPARED_SRC_SQLFAILURE_H

// How an operation of this library fails: a reason that is kept, and one report of two lines. Neither
// has values in it but what SQLite's own reasons quote: a statement shows its parameters.

#include "SqlResult.h"

#include <initializer_list>
#include <string_view>

namespace sql {

constexpr const char* database_not_open = "the database is not open";
constexpr const char* database_closed = "the database was closed or opened anew";

// Why a cell could not be converted; compared by address, since it is SQLite's failure, not the cell's.
inline constexpr char no_memory[] = "out of memory";

#pragma GCC visibility push(default) // for sqlsync, which fails in the same way

// What SQLite says of a call that returned this code, which is not always noted in the connection.
int extendedCodeOf(sqlite3* db, int rc);
const char* reasonOf(sqlite3* db, int rc);

// The parts one behind the other: less code than their sum.
string joined(std::initializer_list<std::string_view> parts);

// Takes no memory.
void reportFailure(const char* operation, const char* statement, int rc, const char* why);

// Copies no statement where memory has run out.
Error errorOf(sqlite3* db, int rc, const string& why, const char* statement);

#pragma GCC visibility pop

} // namespace sql

#endif
