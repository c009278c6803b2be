#include "Wording.h"

#include <sqlite3.h>

namespace test {

namespace {

struct Wording {
    int since; // the oldest version tried that has the recent words, as sqlite3_libversion_number()
    const char* recent;
    const char* former; // of the version tried before that one
};

// Tried are 3.7.7.1, 3.15.2, 3.24.0 and 3.40.1. In their order: a text may hold several.
const Wording wordings[] = {
    {3015002, "1555=unknown", "19=SQLITE_CONSTRAINT"},
    {3015002, "instead of SQLITE_DONE: UNIQUE constraint failed: product.id",
     "instead of SQLITE_DONE: constraint failed"},
    {3015002, "UNIQUE constraint failed: product.id", "PRIMARY KEY must be unique"},
    {3015002, "UNIQUE constraint failed: archive.id", "PRIMARY KEY must be unique"},
    {3015002, "UNIQUE constraint failed: copy.id", "PRIMARY KEY must be unique"},
    {3015002, "UNIQUE constraint failed: t.id", "PRIMARY KEY must be unique"},
    {3015002, "UNIQUE constraint failed: catalogue.name", "column name is not unique"},
    {3015002, "NOT NULL constraint failed: copy.name", "copy.name may not be NULL"},
    {3024000, "257=unknown", "1=SQLITE_ERROR"},
    {3024000, "SQLITE_MISUSE: bad parameter or other API misuse", "SQLITE_MISUSE: out of memory"},
    {3024000, "another row available", "unknown error"},
    {3024000, "no more rows available", "unknown error"},
    {3024000, "query aborted", "callback requested query abort"},
    {3024000, "file is not a database", "file is encrypted or is not a database"},
    {3024000, "incomplete input", "near \"  \": syntax error"},
};

void replaceAll(std::string& text, const std::string& from, const std::string& to)
{
    for (std::size_t at = text.find(from); at != std::string::npos;
         at = text.find(from, at + to.size()))
        text.replace(at, from.size(), to);
}

} // namespace

std::string worded(const std::string& text)
{
    std::string result = text;
    for (const Wording& wording : wordings) {
        if (sqlite3_libversion_number() < wording.since)
            replaceAll(result, wording.recent, wording.former);
    }
    return result;
}

} // namespace test
