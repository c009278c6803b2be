#ifndef SQLPREPARED_SQLFUNCTION_H
#define SQLPREPARED_SQLFUNCTION_H

#include "SqlBinder.h"
#include "SqlResult.h"

#include <exception>
#include <new>
#include <tuple>

struct sqlite3_context;

#pragma GCC visibility push(default)

namespace sql {

/// How SQLite may use a function.
///
///     sql::FunctionOptions options;
///     options.isDeterministic = true;
///     const auto area = [](double a, double b) { return a * b; };
///     if (!sql::addFunction(database, "area", area, options))
///         return 1;
///     sql::Statement ask(database, "select area(2, 1.5)");
///     std::printf("%.1f\n", ask.one<double>().valueOr(0)); // 3.0
struct FunctionOptions {
    /// The same arguments give the same result, so that it may be called less often, and stand in
    /// an index.
    bool isDeterministic = false;
};

struct FunctionCall;

/// What SQLite owns of a function: the object, and what works on it.
struct FunctionObject {
    void* object;                                   ///< A copy of the callable.
    void (*call)(void* object, FunctionCall& call); ///< Calls it.
    void (*destroy)(void* object);                  ///< Deletes it.
    int argumentCount;                              ///< How many arguments it has.
};

/// One call of a C++ function by SQL: what addFunction() makes its thunks of.
struct FunctionCall {
    FunctionCall(const FunctionCall&) = delete;            ///< It is SQLite's.
    FunctionCall& operator=(const FunctionCall&) = delete; ///< It is SQLite's.

    /// Reads the argument at `index`, the first is 0. Returns false if it does not fit: the call
    /// has failed then, with the function's name and the argument's number.
    template <typename T> bool read(int index, T& variable)
    {
        static_assert(is_readable<T>, "no argument can be read into a parameter of this type");
        const Column column = argumentAt(index);
        if constexpr (is_readable<T>)
            return isRead(index, Binder<T>::read(column, variable));
        else
            return false;
    }

    void give(const Argument& result);     ///< Gives a copy of the value to SQL.
    void giveError(const Error& error);    ///< Makes the statement fail with this code and text.
    void giveException(const char* words); ///< Makes the statement fail; null for no words.
    void giveNoMemory();                   ///< Makes the statement fail for want of memory.

private:
    friend struct FunctionAccess; // what SQLite calls

    FunctionCall(sqlite3_context* context, sqlite3_value** arguments)
        : _context(context), _arguments(arguments)
    {
    }
    Column argumentAt(int index);
    bool isRead(int index, const char* why);
    SQLWRAPPER_LOCAL void giveReal(double real);
    SQLWRAPPER_LOCAL void fail(const string& why);

    sqlite3_context* _context;
    sqlite3_value** _arguments;
};

/// Does what addFunction() does with an object that it owns from then on, failure or not.
Result<bool> addFunctionObject(Database& database, const string& name, FunctionObject function,
                               FunctionOptions options);

/// How SQL calls a callable of this type.
template <typename Callable, typename Signature = decltype(&Callable::operator())>
struct FunctionThunk;

/// How SQL calls a callable with these arguments and this result.
template <typename Callable, typename Returned, typename... Arguments> struct FunctionThunkOf {
    static constexpr int argument_count = sizeof...(Arguments); ///< How many arguments it has.

    /// Calls it, and lets no exception out.
    static void call(void* object, FunctionCall& call)
    {
#ifdef __cpp_exceptions
        try {
            run(*static_cast<Callable*>(object), call, std::index_sequence_for<Arguments...>());
        } catch (const std::bad_alloc&) {
            call.giveNoMemory();
        } catch (const std::exception& exception) {
            call.giveException(exception.what());
        } catch (...) {
            call.giveException(nullptr);
        }
#else
        run(*static_cast<Callable*>(object), call, std::index_sequence_for<Arguments...>());
#endif
    }

    /// Deletes the copy of it.
    static void destroy(void* object)
    {
        delete static_cast<Callable*>(object);
    }

private:
    template <std::size_t... indices>
    static void run(Callable& callable, FunctionCall& call, std::index_sequence<indices...>)
    {
        std::tuple<std::decay_t<Arguments>...> values;
        if (!(call.read(static_cast<int>(indices), std::get<indices>(values)) && ...))
            return;
        if constexpr (std::is_void_v<Returned>) {
            callable(std::get<indices>(values)...);
            call.give(nullptr);
        } else {
            give(call, callable(std::get<indices>(values)...));
        }
    }

    template <typename Value> static void give(FunctionCall& call, const Value& value)
    {
        static_assert(is_bindable<Value>, "no result of this type can be given to SQL");
        if constexpr (is_bindable<Value>)
            call.give(Binder<Value>::argument(value));
    }
    template <typename Value> static void give(FunctionCall& call, const Result<Value>& result)
    {
        if (result.failed())
            call.giveError(result.error());
        else if (result)
            give(call, *result);
        else
            call.give(nullptr);
    }
};

/// How SQL calls one that stays as it is.
template <typename Callable, typename Class, typename Returned, typename... Arguments,
          bool throws_nothing>
struct FunctionThunk<Callable, Returned (Class::*)(Arguments...) const noexcept(throws_nothing)>
    : FunctionThunkOf<Callable, Returned, Arguments...> {
};
/// How SQL calls one that changes itself.
template <typename Callable, typename Class, typename Returned, typename... Arguments,
          bool throws_nothing>
struct FunctionThunk<Callable, Returned (Class::*)(Arguments...) noexcept(throws_nothing)>
    : FunctionThunkOf<Callable, Returned, Arguments...> {
};

/// How SQL calls one that stays as it is, and is no temporary.
template <typename Callable, typename Class, typename Returned, typename... Arguments,
          bool throws_nothing>
struct FunctionThunk<Callable, Returned (Class::*)(Arguments...) const& noexcept(throws_nothing)>
    : FunctionThunkOf<Callable, Returned, Arguments...> {
};
/// How SQL calls one that changes itself, and is no temporary.
template <typename Callable, typename Class, typename Returned, typename... Arguments,
          bool throws_nothing>
struct FunctionThunk<Callable, Returned (Class::*)(Arguments...)& noexcept(throws_nothing)>
    : FunctionThunkOf<Callable, Returned, Arguments...> {
};

/// Lets SQL on this connection call the callable by the name, with as many arguments as it has.
/// Keeps a copy until the database closes, or the name is given to another with as many arguments.
/// An argument that does not fit its parameter, as NULL where that is no std::optional, makes the
/// statement fail; so do a Result with a failure, and an exception, by its text. Views live as long
/// as the call. Returns true, or the reason of a failure.
template <typename Callable>
Result<bool> addFunction(Database& database, const string& name, Callable callable,
                         FunctionOptions options = FunctionOptions())
{
    using Thunk = FunctionThunk<Callable>;
    return addFunctionObject(
        database, name,
        {new Callable(std::move(callable)), Thunk::call, Thunk::destroy, Thunk::argument_count},
        options);
}

/// Adds a function likewise. Fails for a null pointer.
template <typename Returned, typename... Arguments, bool throws_nothing>
Result<bool> addFunction(Database& database, const string& name,
                         Returned (*function)(Arguments...) noexcept(throws_nothing),
                         FunctionOptions options = FunctionOptions())
{
    if (function == nullptr)
        return addFunctionObject(database, name, {nullptr, nullptr, nullptr, 0}, options);
    return addFunction(
        database, name, [function](Arguments... arguments) { return function(arguments...); },
        options);
}

/// Takes the function with this name and so many arguments away. Returns true, if there was none,
/// too, or the reason of a failure: statements that are running keep it.
Result<bool> removeFunction(Database& database, const string& name, int argumentCount);

} // namespace sql

#pragma GCC visibility pop

#endif
