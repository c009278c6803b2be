// A program without exceptions. The library throws nothing of its own; what is left is exhausted
// memory, which the standard library reports by an exception, and such a program ends by.
//
//     noexceptions DATABASE <LINES

#include "SqlDatabase.h"
#include "SqlTable.h"

#include <unistd.h>

#include <cstdio>
#include <iostream>
#include <new>
#include <string>

#ifdef __cpp_exceptions
#error "compile this with -fno-exceptions"
#endif

namespace {

constexpr int busy_timeout_ms = 2000;
constexpr int status_no_memory = 3;

const sql::Field columns[] = {
    sql::Field("id", sql::type_int, sql::flag_primary_key),
    sql::Field("line", sql::type_text, sql::flag_not_null),
    sql::Field(),
};

// Runs in place of the exception, so it needs no memory itself. The device's supervisor starts the
// program again; SQLite rolls back what was not committed when the file is opened next.
void endForLackOfMemory()
{
    static const char message[] = "noexceptions: out of memory\n";
    const ssize_t ignored = ::write(STDERR_FILENO, message, sizeof message - 1);
    static_cast<void>(ignored);
    ::_exit(status_no_memory);
}

bool addLines(sql::Table& lines, std::istream& input)
{
    std::string text;
    while (std::getline(input, text)) {
        sql::Record line(*lines.fields());
        line.setString("line", text);
        if (!lines.addRecord(line))
            return false;
    }
    return true;
}

int fail(const char* what)
{
    std::fprintf(stderr, "noexceptions: %s\n", what);
    return 1;
}

} // namespace

int main(int argc, char** argv)
{
    std::set_new_handler(endForLackOfMemory);
    if (argc != 2) {
        std::fputs("usage: noexceptions DATABASE <LINES\n", stderr);
        return 2;
    }
    sql::Database database;
    if (!database.open(argv[1], sql::Database::access_create, false, busy_timeout_ms))
        return fail("cannot open the database");
    sql::Table lines(database.getHandle(), "line", columns);
    if (database.getUserVersion() < 0 || !lines.create())
        return fail("cannot read the database, or make the table");
    if (!database.transactionBegin() || !addLines(lines, std::cin) || !database.transactionCommit())
        return fail("cannot write"); // the connection's end rolls back

    std::printf("%d lines\n", lines.totalRecordCount());
    return 0;
}
