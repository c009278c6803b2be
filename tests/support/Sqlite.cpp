#include "Sqlite.h"

#include <charconv>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <iterator>

#include <dlfcn.h>

namespace {

test::SqliteCalls* watched = nullptr;

template <typename Function> Function* original(const char* name)
{
    return reinterpret_cast<Function*>(::dlsym(RTLD_NEXT, name));
}

// SQLite's own calls of its public functions come here as well.
bool isSqlite(void* caller)
{
    static const void* const own = ::dlsym(RTLD_NEXT, "sqlite3_libversion");
    Dl_info sqlite;
    Dl_info place;
    return ::dladdr(own, &sqlite) != 0 && ::dladdr(caller, &place) != 0
           && place.dli_fbase == sqlite.dli_fbase;
}

void note(int test::SqliteCalls::*counter, const char* name, void* caller)
{
    if (watched == nullptr || isSqlite(caller))
        return;
    ++(watched->*counter);
    watched->order.push_back(name);
}

// Forwards the calls of an option whose arguments are a number and where to put its value.
int configure(sqlite3* db, int option, int value, int* result)
{
    if (watched != nullptr) {
        ++watched->configures;
        if (watched->configure)
            return watched->configure(db, option, value);
    }
    static auto* const real = original<decltype(sqlite3_db_config)>("sqlite3_db_config");
    return real(db, option, value, result);
}

} // namespace

// Found before SQLite's own functions of the same names, for the library and the tests alike.
extern "C" {

int sqlite3_open_v2(const char* file, sqlite3** db, int flags, const char* vfs)
{
    note(&test::SqliteCalls::opens, "open", __builtin_return_address(0));
    if (watched != nullptr && watched->open)
        return watched->open(file, db, flags, vfs);
    static auto* const real = original<decltype(sqlite3_open_v2)>("sqlite3_open_v2");
    return real(file, db, flags, vfs);
}

int sqlite3_close(sqlite3* db)
{
    note(&test::SqliteCalls::closes, "close", __builtin_return_address(0));
    if (watched != nullptr && watched->close)
        return watched->close(db);
    static auto* const real = original<decltype(sqlite3_close)>("sqlite3_close");
    return real(db);
}

// Those options alone: nobody here sets one with other arguments.
int sqlite3_db_config(sqlite3* db, int option, ...)
{
    va_list arguments;
    va_start(arguments, option);
    const int value = va_arg(arguments, int);
    int* const result = va_arg(arguments, int*);
    va_end(arguments);
    return configure(db, option, value, result);
}

int sqlite3_busy_timeout(sqlite3* db, int milliseconds)
{
    note(&test::SqliteCalls::busyTimeouts, "busy_timeout", __builtin_return_address(0));
    if (watched != nullptr && watched->busyTimeout)
        return watched->busyTimeout(db, milliseconds);
    static auto* const real = original<decltype(sqlite3_busy_timeout)>("sqlite3_busy_timeout");
    return real(db, milliseconds);
}

int sqlite3_exec(sqlite3* db, const char* sql, test::SqliteCalls::RowCallback callback,
                 void* context, char** error)
{
    note(&test::SqliteCalls::execs, "exec", __builtin_return_address(0));
    if (watched != nullptr && watched->exec)
        return watched->exec(db, sql, callback, context, error);
    static auto* const real = original<decltype(sqlite3_exec)>("sqlite3_exec");
    return real(db, sql, callback, context, error);
}

int sqlite3_prepare_v2(sqlite3* db, const char* sql, int bytes, sqlite3_stmt** statement,
                       const char** tail)
{
    note(&test::SqliteCalls::prepares, "prepare", __builtin_return_address(0));
    static auto* const real = original<decltype(sqlite3_prepare_v2)>("sqlite3_prepare_v2");
    return real(db, sql, bytes, statement, tail);
}

int sqlite3_step(sqlite3_stmt* statement)
{
    note(&test::SqliteCalls::steps, "step", __builtin_return_address(0));
    static auto* const real = original<decltype(sqlite3_step)>("sqlite3_step");
    return real(statement);
}

int sqlite3_finalize(sqlite3_stmt* statement)
{
    if (statement != nullptr)
        note(&test::SqliteCalls::finalizes, "finalize", __builtin_return_address(0));
    else
        note(&test::SqliteCalls::nullFinalizes, "finalize null", __builtin_return_address(0));
    static auto* const real = original<decltype(sqlite3_finalize)>("sqlite3_finalize");
    return real(statement);
}

void sqlite3_free(void* text)
{
    if (text != nullptr)
        note(&test::SqliteCalls::textsFreed, "free", __builtin_return_address(0));
    static auto* const real = original<decltype(sqlite3_free)>("sqlite3_free");
    real(text);
}

} // extern "C"

namespace test {

int closeConnection(sqlite3* db)
{
    return original<decltype(sqlite3_close)>("sqlite3_close")(db);
}

namespace {

[[noreturn]] void refuse(sqlite3* db, const std::string& sql)
{
    std::fprintf(stderr, "%s: %s\n", sql.c_str(), sqlite3_errmsg(db));
    std::abort();
}

void take(void* texts, const void* text)
{
    static_cast<std::vector<std::string>*>(texts)->push_back(static_cast<const char*>(text));
}

// Starts to put the statements' texts into `texts`, or ends it when that is null.
void trace(sqlite3* db, std::vector<std::string>* texts)
{
#if SQLITE_VERSION_NUMBER >= 3014000
    sqlite3_trace_v2(
        db, texts != nullptr ? SQLITE_TRACE_STMT : 0,
        [](unsigned, void* context, void*, void* text) {
            take(context, text);
            return 0;
        },
        texts);
#else
    void (*const takeText)(void*, const char*) = [](void* context, const char* text) {
        take(context, text);
    };
    sqlite3_trace(db, texts != nullptr ? takeText : nullptr, texts);
#endif
}

} // namespace

void run(sqlite3* db, const std::string& sql)
{
    if (sqlite3_exec(db, sql.c_str(), nullptr, nullptr, nullptr) != SQLITE_OK)
        refuse(db, sql);
}

namespace {

std::string plainCell(sqlite3_stmt* statement, int index)
{
    const unsigned char* const text = sqlite3_column_text(statement, index);
    return text != nullptr ? reinterpret_cast<const char*>(text) : "NULL";
}

std::string hexadecimal(const std::string& bytes)
{
    std::string digits;
    for (const char byte : bytes) {
        digits += "0123456789ABCDEF"[(byte >> 4) & 15];
        digits += "0123456789ABCDEF"[byte & 15];
    }
    return digits;
}

std::string typedCell(sqlite3_stmt* statement, int index)
{
    const int type = sqlite3_column_type(statement, index);
    if (type == SQLITE_NULL)
        return "null";
    if (type == SQLITE_INTEGER)
        return "integer " + std::to_string(sqlite3_column_int64(statement, index));
    if (type == SQLITE_FLOAT) {
        char digits[32];
        char* const end =
            std::to_chars(digits, std::end(digits), sqlite3_column_double(statement, index)).ptr;
        return "real " + std::string(digits, end);
    }
    const char* const bytes = static_cast<const char*>(sqlite3_column_blob(statement, index));
    const std::string cell(bytes != nullptr ? bytes : "", sqlite3_column_bytes(statement, index));
    return type == SQLITE_TEXT ? "text " + cell : "blob " + hexadecimal(cell);
}

std::string rows(sqlite3* db, const std::string& sql, std::string (*cell)(sqlite3_stmt*, int))
{
    sqlite3_stmt* statement = nullptr;
    if (sqlite3_prepare_v2(db, sql.c_str(), -1, &statement, nullptr) != SQLITE_OK)
        refuse(db, sql);
    std::string text;
    while (sqlite3_step(statement) == SQLITE_ROW) {
        if (!text.empty())
            text += "\n";
        for (int i = 0; i < sqlite3_column_count(statement); ++i)
            text += (i > 0 ? "|" : "") + cell(statement, i);
    }
    sqlite3_finalize(statement);
    return text;
}

} // namespace

std::string rows(sqlite3* db, const std::string& sql)
{
    return rows(db, sql, plainCell);
}

std::string typedRows(sqlite3* db, const std::string& sql)
{
    return rows(db, sql, typedCell);
}

Connection::Connection(const std::string& fileName) : _db(nullptr)
{
    if (sqlite3_open(fileName.c_str(), &_db) != SQLITE_OK)
        refuse(_db, fileName);
}

Connection::~Connection()
{
    sqlite3_close(_db);
}

sqlite3* Connection::get() const
{
    return _db;
}

Connection::operator sqlite3*() const
{
    return _db;
}

void Connection::run(const std::string& sql)
{
    test::run(_db, sql);
}

std::string Connection::rows(const std::string& sql)
{
    return test::rows(_db, sql);
}

Statements::Statements(sqlite3* db) : _db(db)
{
    trace(_db, &_texts);
}

Statements::~Statements()
{
    trace(_db, nullptr);
}

const std::vector<std::string>& Statements::texts() const
{
    return _texts;
}

void Statements::clear()
{
    _texts.clear();
}

SqliteCalls::SqliteCalls()
{
    watched = this;
}

SqliteCalls::~SqliteCalls()
{
    watched = nullptr;
}

} // namespace test
