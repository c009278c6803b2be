#ifndef SQLPREPARED_SRC_SQLTOKEN_H
#define SQLPREPARED_SRC_SQLTOKEN_H

// What is to be known of a text of SQL that SQLite does not tell.

#include "SqlCommon.h"

#include <cstddef>
#include <initializer_list>
#include <string_view>

struct sqlite3;

namespace sql {

// Where the next statement begins: behind blanks, comments and semicolons.
std::size_t nextStatement(std::string_view sql);

// The text up to its first semicolon: that of a statement that SQLite has not compiled.
string firstStatement(std::string_view sql);

// Whether the statement begins with one of these words.
bool beginsWith(std::string_view sql, std::initializer_list<std::string_view> words);

// Whether the statement may change rows itself. Others, such as "create table", have none to count.
bool mayChange(std::string_view sql);

// Whether the statement may give a row a key.
bool mayInsert(std::string_view sql);

// Whether each row that the statement inserts gets a key, and nothing else is counted as a change: a
// table with rows that have one, and no update in place of an insertion. Replaces the latest failure
// that the connection has noted.
bool givesKeys(sqlite3* db, const string& text);

} // namespace sql

#endif
