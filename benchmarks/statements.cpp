// Prints every statement that a contestant runs in the measured part of an operation, so that it can
// be seen that the floor runs those of the library:
//
//     statements FOLDER CONTESTANT ROWS OPERATION...

#include "Operations.h"

#include <sqlite3.h>

#include <cstdio>
#include <cstdlib>

namespace {

bool measured = false;

class StatementMeter : public bench::Meter {
public:
    void start() override
    {
        measured = true;
    }
    void stop() override
    {
        measured = false;
    }
};

int print(unsigned, void*, void* statement, void*)
{
    if (measured)
        std::puts(sqlite3_sql(static_cast<sqlite3_stmt*>(statement)));
    return 0;
}

int traceConnection(sqlite3* db, char**, const void*)
{
    return sqlite3_trace_v2(db, SQLITE_TRACE_STMT, print, nullptr);
}

} // namespace

int main(int argc, char** argv)
{
    bench::require(argc > 4, "statements FOLDER CONTESTANT ROWS OPERATION...");
    // SQLite casts it back before it calls it.
    sqlite3_auto_extension(reinterpret_cast<void (*)()>(traceConnection));
    StatementMeter meter;
    const bench::Place place = {argv[1], std::atoi(argv[3])};
    const bench::Entry& entry = bench::contestant(argv[2]);
    for (int i = 4; i < argc; ++i)
        bench::operation(argv[i]).run(entry, place, meter);
    return 0;
}
