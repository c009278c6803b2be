#ifndef SQLPREPARED_SQLSTATEMENT_H
#define SQLPREPARED_SQLSTATEMENT_H

#include "SqlBinder.h"
#include "SqlResult.h"

#include <tuple>

struct sqlite3_stmt;

#pragma GCC visibility push(default)

namespace sql {

class MappedValues;

/// One statement of SQL, compiled once. Values are bound to its parameters, rows read one by one.
///
///     sql::Statement cheap(
///         database, "select name from product where price < ?");
///     sql::string name;
///     cheap.bind(1, 3.5);
///     while (cheap.next(name))
///         std::puts(name.c_str()); // rum
///     if (!cheap.finished())
///         std::puts(cheap.error().text().c_str());
///
/// An operation that fails keeps the reason in error() and reports it once. Borrows the database,
/// and fails once that was closed or opened anew. Declare it after the database, or release() it
/// before that closes: otherwise the connection leaks. One thread at a time.
class Statement {
public:
    /// Compiles the one statement in `text`. It may read the file's schema, and then waits for
    /// other connections as long as the database's busy timeout. If it fails, every use fails, too,
    /// without another report.
    Statement(Database& database, const string& text);
    Statement(Statement&& other) noexcept;            ///< Takes all; the other is released.
    Statement& operator=(Statement&& other) noexcept; ///< Releases, then takes all.
    Statement(const Statement&) = delete;             ///< A statement has one owner.
    Statement& operator=(const Statement&) = delete;  ///< A statement has one owner.
    ~Statement();                                     ///< Releases the statement.

    /// Lets go of the statement and of any lock that it holds. Every later use fails. If what it
    /// wrote cannot be committed, only the log tells: reset() returns that.
    void release();

    bool isPrepared() const; ///< Returns whether the statement was compiled and not released.

    /// Binds a copy of the value to the parameter at `position`, the first is 1. Fails for a value
    /// that cannot be bound, and at a row, which ends the run. Nothing runs then until reset(), or
    /// run() or one() with values.
    template <typename T> Statement& bind(int position, const T& value)
    {
        return bindArgument(position, argumentOf(value));
    }

    /// Binds likewise to the parameter of this name, which includes its `:`, `@` or `$`.
    template <typename T> Statement& bind(std::string_view name, const T& value)
    {
        return bindArgument(positionOf(name), argumentOf(value));
    }

    void clearBindings(); ///< Makes all values NULL; fails where bind() does.

    /// Runs to the next row. Returns false at the end, after run() and one(), and after a failure,
    /// and from then on until reset() or bind().
    [[nodiscard]] bool next();

    /// Runs to the next row and reads it into the variables, one for each column. A cell that does
    /// not fit its variable, as NULL in one that is not optional, is a failure that names the
    /// column. Views live until the statement goes on.
    template <typename First, typename... More> [[nodiscard]] bool next(First& first, More&... more)
    {
        const Variable variables[] = {variableOf(first), variableOf(more)...};
        return readRow(variables, 1 + sizeof...(More));
    }

    /// Returns whether the latest run came to its end without a failure.
    bool finished() const;

    /// Runs from the start to the end with the bound values; skips any rows. Returns false on
    /// failure.
    [[nodiscard]] bool run();

    /// Runs likewise with these values, one for each parameter. They are not copied: the parameters
    /// are NULL afterwards.
    template <typename First, typename... More>
    [[nodiscard]] bool run(const First& first, const More&... more)
    {
        const Argument arguments[] = {argumentOf(first), argumentOf(more)...};
        return runWith(arguments, 1 + sizeof...(More));
    }

    /// Runs as run() does, but reads only the first row, as next() would. Returns its value, or a
    /// std::tuple of its values, nothing if there is no row, or the reason of a failure.
    template <typename First, typename... More, typename... Values>
    auto one(const Values&... values)
    {
        static_assert(!is_view<First> && (!is_view<More> && ...),
                      "one() lets go of the row: read a sql::string or a vector, no view");
        using Row = std::conditional_t<sizeof...(More) == 0, First, std::tuple<First, More...>>;
        std::tuple<First, More...> row;
        const Presence found = std::apply(
            [&](auto&... cells) {
                const Variable variables[] = {variableOf(cells)...};
                const Argument arguments[] = {argumentOf(values)..., nullptr};
                return readOne(arguments, sizeof...(Values), variables, 1 + sizeof...(More));
            },
            row);
        if (found == Presence::unknown)
            return Result<Row>(error());
        if (found == Presence::absent)
            return Result<Row>();
        if constexpr (sizeof...(More) == 0)
            return Result<Row>(std::get<0>(std::move(row)));
        else
            return Result<Row>(std::move(row));
    }

    /// Returns the cell at `index`, the first is 0. Without a row or such a column it returns NULL
    /// and fails, after which next() is false.
    Column column(int index);

    /// Returns likewise the cell of the first column that has this name, letter by letter.
    Column column(std::string_view name);

    /// Goes back to the start: no row, no lock, no failure. Keeps the values of bind(). Returns
    /// false if what the statement wrote cannot be committed, or the connection is gone.
    bool reset();

    /// Returns how many rows the latest run has changed, 0 before its end. Leaves out what triggers
    /// and foreign keys did.
    integer changes() const;

    /// Returns the integer key of the row that the latest run inserted last. Returns nothing if it
    /// inserted none, as an upsert that updated, or if the table has no such key.
    std::optional<integer> lastKey() const;

    /// Returns why it failed last; no failure once it is reset or runs again. Lives as long as the
    /// statement.
    const Error& error() const;

    /// Returns the text of the statement, which lives until the release; empty without one.
    std::string_view text() const;

    /// Returns the text with the values of bind() in place; empty if that is too long.
    string expandedText();

    bool isReadOnly() const;    ///< Returns whether the statement itself writes nothing.
    int parameterCount() const; ///< Returns how many values it takes.
    int columnCount() const;    ///< Returns how many columns its rows have.

    /// Returns the name of the column at `index`, empty beyond the last.
    string columnName(int index) const;

private:
    friend class Column;          // a cell that cannot be converted is a failure of the statement's
    friend class TableStatements; // runs statements under the names of its own operations
    friend class PreparedTable;
    friend class RecordCursor;
    friend class MappedTable;
    friend class MappedValues;
    friend class MappedCursor;
    template <typename T, typename... Keys> friend class TypedTable;
    template <typename T> friend class ObjectCursor;
    friend class Pragma; // likewise

    // Broken: at a row that could not be read. Unbound: a value could not be bound. Released: or
    // moved from.
    enum class State { ready, row, broken, ended, failed, unbound, released, unprepared };

    struct Variable {
        const char* (*read)(const Column& column, void* variable);
        void* variable;
    };

    // In place of a number of variables: the one given is a record, or an object, which takes all cells.
    static constexpr int whole_row = 1 << 20;
    static constexpr int whole_object = whole_row + 1;

    template <typename T>
    static constexpr bool is_view = is_one_of<
        T, std::string_view, Bytes, std::optional<std::string_view>, std::optional<Bytes>>;

    template <typename T> static Argument argumentOf(const T& value)
    {
        static_assert(is_bindable<T>, "no value of this type can be bound");
        if constexpr (is_bindable<T>)
            return Binder<T>::argument(value);
        else
            return nullptr;
    }

    template <typename T> static Variable variableOf(T& variable)
    {
        static_assert(is_readable<T>, "no cell can be read into a variable of this type");
        if constexpr (is_readable<T>)
            return {[](const Column& column, void* target) {
                        return Binder<T>::read(column, *static_cast<T*>(target));
                    },
                    &variable};
        else
            return {};
    }

    Statement& bindArgument(int position, const Argument& argument);
    int positionOf(std::string_view name);
    bool runWith(const Argument* arguments, int count);
    bool readRow(const Variable* variables, int count);
    Presence readOne(const Argument* arguments, int argumentCount, const Variable* variables,
                     int variableCount);

    SQLWRAPPER_LOCAL Statement(const char* operation, Database& database, const string& text,
                               integer record = 0);
    SQLWRAPPER_LOCAL bool bindCopies(const char* operation, const Argument* arguments, int count);
    SQLWRAPPER_LOCAL bool runAs(const char* operation, const Argument* arguments, int count);
    SQLWRAPPER_LOCAL bool runMapped(const char* operation, MappedValues& values);
    SQLWRAPPER_LOCAL Presence readMapped(const char* operation, MappedValues& values,
                                         const Variable* variables, int variableCount);
    SQLWRAPPER_LOCAL bool nextAs(const char* operation);
    SQLWRAPPER_LOCAL bool readNext(const char* operation, const Variable* variables, int count);
    SQLWRAPPER_LOCAL Presence readFirst(const char* operation, const Argument* arguments,
                                        int argumentCount, const Variable* variables,
                                        int variableCount);

    SQLWRAPPER_LOCAL void prepare(const char* operation, const string& text);
    SQLWRAPPER_LOCAL void refuse(const char* operation, const string& text, int rc,
                                 const char* why);
    SQLWRAPPER_LOCAL bool isUsable(const char* operation);
    SQLWRAPPER_LOCAL bool canBind();
    SQLWRAPPER_LOCAL void forgetStale();
    SQLWRAPPER_LOCAL bool bindFrom(const char* operation, int position, const Argument* arguments,
                                   int count, bool copied);
    SQLWRAPPER_LOCAL int bindOne(int position, const Argument& argument, bool copied);
    SQLWRAPPER_LOCAL int bindBorrowed(int position, const Argument& argument);
    SQLWRAPPER_LOCAL bool bindAll(const char* operation, const Argument* arguments, int count);
    SQLWRAPPER_LOCAL void forgetRun();
    SQLWRAPPER_LOCAL bool restart(const char* operation);
    SQLWRAPPER_LOCAL void begin(const char* operation);
    SQLWRAPPER_LOCAL void traceRun(const char* operation) const;
    SQLWRAPPER_LOCAL bool step(const char* operation);
    SQLWRAPPER_LOCAL Presence readStep(const char* operation, const Variable* variables, int count);
    SQLWRAPPER_LOCAL bool runToEnd(const char* operation);
    SQLWRAPPER_LOCAL bool end(const char* operation);
    SQLWRAPPER_LOCAL void noteChanges(int rc);
    SQLWRAPPER_LOCAL bool nextRow(const char* operation);
    SQLWRAPPER_LOCAL bool readCells(const char* operation, const Variable* variables, int count);
    SQLWRAPPER_LOCAL bool readRecord(const char* operation, const Variable& variable);
    SQLWRAPPER_LOCAL bool readObject(const char* operation, const Variable& variable);
    SQLWRAPPER_LOCAL Column noColumn(const string& which);
    SQLWRAPPER_LOCAL int indexOf(std::string_view name);
    SQLWRAPPER_LOCAL void learnNames(int count);
    SQLWRAPPER_LOCAL void forgetError();
    SQLWRAPPER_LOCAL bool failToUse(const char* operation);
    SQLWRAPPER_LOCAL bool failToBind(const char* operation, int position, const Argument& argument,
                                     int rc);
    SQLWRAPPER_LOCAL bool failToCount(const char* operation, int count);
    SQLWRAPPER_LOCAL bool failToFill(const char* operation, int count);
    SQLWRAPPER_LOCAL bool failToRead(const char* operation, int index, const char* why);
    SQLWRAPPER_LOCAL bool failToRun(const char* operation, int rc);
    SQLWRAPPER_LOCAL bool fail(const char* operation, State state, int rc, const string& why);
    SQLWRAPPER_LOCAL void keepFailure(const char* operation, State state, int rc,
                                      const string& cause);

    struct LettingGo;

    // The statement of SQLite's, which ends with it, and where it stands.
    struct Handle {
        Handle() = default;
        Handle(const Handle&) = delete;
        Handle& operator=(const Handle&) = delete;
        Handle(Handle&& other) noexcept
            : statement(std::exchange(other.statement, nullptr)),
              state(std::exchange(other.state, State::released))
        {
        }
        SQLWRAPPER_LOCAL Handle& operator=(Handle&& other) noexcept;
        SQLWRAPPER_LOCAL ~Handle();

        sqlite3_stmt* statement = nullptr;
        State state = State::unprepared;
    };

    Database* _database;
    sqlite3* _connection;
    Handle _handle;
    int _parameterCount = 0;
    bool _writes = false;     // whether it may change rows
    bool _inserts = false;    // whether it may give a row a key
    bool _givesKeys = false;  // whether each row that it changes is one with a new key
    bool _stale = false;      // the bound values belong to a caller that is gone
    bool _namesKnown = false; // in this run
    bool _namesDistinct = false;
    std::vector<string> _names; // of the columns, for those who ask by them
    int _compilations = 0;      // after which those were the names
    int _latestIndex = -1;      // of the column that was found by its name last
    integer _keyBefore = 0;     // the connection's latest key before this run
    integer _changes = 0;
    integer _record = 0; // that a failure is about, of many; -1 where another operation reports it
    std::optional<integer> _key;
    Error _error;
};

/// Runs the statements of a script one after the other, skips any rows, and returns how many
/// statements there were. Stops at the first failure: the reason has that statement's number and
/// text, and those before it have taken effect.
Result<int> runScript(Database& database, const string& script);

} // namespace sql

#pragma GCC visibility pop

#endif
