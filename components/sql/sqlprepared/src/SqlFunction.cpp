#include "SqlFunction.h"

#include "SqlFailure.h"

#include <sqlite3.h>

#include <cmath>
#include <memory>

namespace sql {

namespace {

constexpr const char* unknown_exception = "an exception of no known type";

using Object = std::unique_ptr<void, void (*)(void*)>;

// What SQLite keeps for a function.
struct Kept {
    FunctionObject function;
    string name;
    Object object;
};

const Kept& keptOf(sqlite3_context* context)
{
    return *static_cast<const Kept*>(sqlite3_user_data(context));
}

void destroyKept(void* kept)
{
    const std::unique_ptr<Kept> owner(static_cast<Kept*>(kept));
}

// SQLite would take a null pointer for NULL.
const char* addressOf(Bytes bytes)
{
    return bytes.data != nullptr ? static_cast<const char*>(bytes.data) : "";
}

} // namespace

// --- Calls ---------------------------------------------------------------------------------------

// The thunk lets no exception out.
struct FunctionAccess {
    static void run(sqlite3_context* context, int, sqlite3_value** arguments)
    {
        const FunctionObject& function = keptOf(context).function;
        FunctionCall call(context, arguments);
        function.call(function.object, call);
    }
};

Column FunctionCall::argumentAt(int index)
{
    return Column(_arguments[index]);
}

// Where there is no memory for an argument, SQLite tells that instead.
bool FunctionCall::isRead(int index, const char* why)
{
    if (why == nullptr)
        return true;
    const string& name = keptOf(_context).name;
    const string number = intToStr(index + 1);
    fail("argument " + number + " of " + name + " " + why);
    return false;
}

void FunctionCall::give(const Argument& result)
{
    switch (result._kind) {
    case Argument::Kind::null:
        return sqlite3_result_null(_context);
    case Argument::Kind::number:
        return sqlite3_result_int64(_context, result._number);
    case Argument::Kind::real:
        return giveReal(result._real);
    case Argument::Kind::text:
        return sqlite3_result_text64(_context, addressOf(result._bytes), result._bytes.size,
                                     SQLITE_TRANSIENT, SQLITE_UTF8);
    case Argument::Kind::block:
        return sqlite3_result_blob64(_context, addressOf(result._bytes), result._bytes.size,
                                     SQLITE_TRANSIENT);
    case Argument::Kind::unfit:
        return fail("the result of " + keptOf(_context).name + " " + result._why);
    }
}

// SQLite would take NaN for NULL.
void FunctionCall::giveReal(double real)
{
    if (std::isnan(real))
        return fail("the result of " + keptOf(_context).name + " is not a number");
    sqlite3_result_double(_context, real);
}

void FunctionCall::giveError(const Error& error)
{
    sqlite3_result_error(_context, error.text().c_str(), -1);
    sqlite3_result_error_code(_context, error.extendedCode());
}

// Throws nothing itself.
void FunctionCall::giveException(const char* words)
{
    sqlite3_result_error(_context, words != nullptr ? words : unknown_exception, -1);
}

void FunctionCall::giveNoMemory()
{
    sqlite3_result_error_nomem(_context);
}

void FunctionCall::fail(const string& why)
{
    giveError(Error(SQLITE_MISMATCH, why));
}

// --- Functions -----------------------------------------------------------------------------------

namespace {

Result<bool> failed(const char* operation, sqlite3* db, const string& name, int rc,
                    const string& why)
{
    reportFailure(operation, name.c_str(), rc, why.c_str());
    return errorOf(db, rc, why, name.c_str());
}

const char* whyNotNamed(const sqlite3* db, const string& name)
{
    if (db == nullptr)
        return database_not_open;
    return name.find('\0') != string::npos ? "there is a zero byte in the name" : nullptr;
}

} // namespace

Result<bool> addFunctionObject(Database& database, const string& name, FunctionObject function,
                               FunctionOptions options)
{
    Object object(function.object, function.destroy);
    sqlite3* const db = database.getHandle();
    if (const char* const why = whyNotNamed(db, name))
        return failed("addFunction", db, name, SQLITE_MISUSE, why);
    if (object == nullptr)
        return failed("addFunction", db, name, SQLITE_MISUSE, "the function is a null pointer");
    auto kept = std::make_unique<Kept>(Kept{function, name, std::move(object)});
    const int flags = SQLITE_UTF8 | (options.isDeterministic ? SQLITE_DETERMINISTIC : 0);
    // SQLite destroys what it does not keep.
    const int rc = sqlite3_create_function_v2(db, name.c_str(), function.argumentCount, flags,
                                              kept.release(), FunctionAccess::run, nullptr, nullptr,
                                              destroyKept);
    if (rc != SQLITE_OK)
        return failed("addFunction", db, name, extendedCodeOf(db, rc), reasonOf(db, rc));
    return true;
}

Result<bool> removeFunction(Database& database, const string& name, int argumentCount)
{
    sqlite3* const db = database.getHandle();
    if (const char* const why = whyNotNamed(db, name))
        return failed("removeFunction", db, name, SQLITE_MISUSE, why);
    const int rc = sqlite3_create_function_v2(db, name.c_str(), argumentCount, SQLITE_UTF8, nullptr,
                                              nullptr, nullptr, nullptr, nullptr);
    if (rc != SQLITE_OK)
        return failed("removeFunction", db, name, extendedCodeOf(db, rc), reasonOf(db, rc));
    return true;
}

} // namespace sql
