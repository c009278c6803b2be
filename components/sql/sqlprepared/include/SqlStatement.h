#ifndef SQLPREPARED_SQLSTATEMENT_H
#define SQLPREPARED_SQLSTATEMENT_H

#include "SqlResult.h"

#include <chrono>
#include <cstddef>
#include <optional>
#include <string_view>
#include <tuple>
#include <type_traits>
#include <vector>

struct sqlite3_stmt;
struct sqlite3_value;

#pragma GCC visibility push(default)

namespace sql {

/// Bytes that somebody else owns: what a block is bound from, and how one is looked at.
struct Bytes {
    const void* data = nullptr; ///< Where they are; may be null for none.
    std::size_t size = 0;       ///< How many there are.
};

/// A value as SQLite stores it, on its way into a statement: what a Binder makes of a type.
///
///     const auto argument = [](int percent) {
///         if (percent > 100)
///             return sql::Argument::unfit("is no percentage");
///         return sql::Argument(percent / 100.0);
///     };
///
/// Borrows texts and bytes.
class Argument {
public:
    /// Holds NULL.
    Argument(std::nullptr_t) : _kind(Kind::null), _number(0)
    {
    }
    /// Holds an integer.
    Argument(integer number) : _kind(Kind::number), _number(number)
    {
    }
    /// Holds a real; NaN cannot be bound.
    Argument(double real) : _kind(Kind::real), _real(real)
    {
    }
    /// Holds a text, empty for a null pointer.
    Argument(std::string_view text) : _kind(Kind::text), _bytes{text.data(), text.size()}
    {
    }
    /// Holds a block of bytes.
    Argument(Bytes bytes) : _kind(Kind::block), _bytes(bytes)
    {
    }
    /// Holds why a value cannot be bound: a constant text.
    static Argument unfit(const char* why)
    {
        Argument argument(nullptr);
        argument._kind = Kind::unfit;
        argument._why = why;
        return argument;
    }

private:
    friend class Statement; // binds it

    enum class Kind { null, number, real, text, block, unfit };

    Kind _kind;
    union {
        integer _number;
        double _real;
        Bytes _bytes;
        const char* _why;
    };
};

class Statement;

/// A cell of the row that a statement stands at; lives until the statement goes on.
///
///     sql::Statement all(database, "select name, price from product");
///     while (all.next()) {
///         const sql::Column price = all.column("price");
///         if (!price.isNull())
///             std::printf("%.2f\n", price.asDouble()); // 2.50
///     }
///
/// The getters convert as those of Value do and never fail. Views live until the statement goes on
/// or another getter is called for the same cell.
class Column {
public:
    bool isNull() const;             ///< Returns whether the cell is NULL. An empty text is not.
    integer asInteger() const;       ///< Returns the integer at the start of a text; 0 for NULL.
    double asDouble() const;         ///< Returns the number at the start of a text; 0.0 for NULL.
    bool asBool() const;             ///< Returns true for 1 and the text "1" alone.
    Time asTime() const;             ///< Returns the time asInteger() seconds after the epoch.
    string asString() const;         ///< Returns a copy of the text, empty for NULL.
    std::string_view asText() const; ///< Returns a view of the text, empty for NULL.
    Bytes asBytes() const;           ///< Returns a view of the block, empty for NULL.

    /// Stores the cell if it is an integer from `lowest` to `highest`, or the text or real of one.
    /// Returns null, or a constant text that says what the cell is instead, as those below do.
    const char* read(integer& number, integer lowest, integer highest) const;
    const char* read(double& number) const;         ///< Stores a number, or the text of one.
    const char* read(float& number) const;          ///< Stores a number in the range of a float.
    const char* read(std::string_view& text) const; ///< Stores a view, as asText().
    const char* read(Bytes& bytes) const;           ///< Stores a view, as asBytes().
    const char* read(string& text) const;           ///< Stores a copy of the text.
    const char* read(std::vector<unsigned char>& bytes) const; ///< Stores a copy of the block.

private:
    friend class Statement; // stands at its row

    SQLWRAPPER_LOCAL const char* readOther(integer& number) const;
    SQLWRAPPER_LOCAL const char* readOther(double& number) const;

    Column(Statement& statement, sqlite3_value* value) : _statement(&statement), _value(value)
    {
    }

    Statement* _statement;
    sqlite3_value* _value;
};

/// How a type goes into a statement and comes out of a row. Specialize it for a type of your own:
///
///     template <> struct sql::Binder<Money> {
///         static sql::Argument argument(const Money& money)
///         {
///             return sql::Argument(money.cents);
///         }
///         static const char* read(const sql::Column& column, Money& money)
///         {
///             return sql::Binder<sql::integer>::read(column, money.cents);
///         }
///     };
///
/// argument() may borrow from the value alone. read() returns null, or a constant text that says
/// why the cell is no such value.
template <typename T, typename = void> struct Binder;

/// Whether values of a type can be bound.
template <typename T, typename = void> inline constexpr bool is_bindable = false;
template <typename T>
inline constexpr bool
    is_bindable<T, std::void_t<decltype(Binder<T>::argument(std::declval<const T&>()))>> = true;

/// Whether a cell can be read into a variable of a type.
template <typename T, typename = void> inline constexpr bool is_readable = false;
template <typename T>
inline constexpr bool is_readable<
    T, std::void_t<decltype(Binder<T>::read(std::declval<const Column&>(), std::declval<T&>()))>> =
    true;

template <> struct Binder<std::nullptr_t> {
    static Argument argument(std::nullptr_t)
    {
        return nullptr;
    }
};

/// Whether a type is an integer that SQLite can hold: no bool and no character.
template <typename T>
constexpr bool is_number =
    std::is_integral_v<T> && sizeof(T) <= sizeof(integer)
    && !std::is_same_v<
        T,
        bool> && !std::is_same_v<T, char> && !std::is_same_v<T, decltype(u8'a')> && !std::is_same_v<T, wchar_t> && !std::is_same_v<T, char16_t> && !std::is_same_v<T, char32_t>;

template <typename T> struct Binder<T, std::enable_if_t<is_number<T> && !std::is_const_v<T>>> {
    static constexpr int bits = 8 * sizeof(T) - (std::is_signed_v<T> ? 1 : 0);
    static constexpr integer highest = static_cast<integer>(~0ULL >> (bits < 63 ? 64 - bits : 1));
    static constexpr integer lowest = std::is_signed_v<T> ? -highest - 1 : 0;

    static Argument argument(T number)
    {
        if (bits > 63 && static_cast<unsigned long long>(number) > ~0ULL / 2)
            return Argument::unfit("is above the range of integers");
        return static_cast<integer>(number);
    }
    static const char* read(const Column& column, T& number)
    {
        integer wide = 0;
        const char* const why = column.read(wide, lowest, highest);
        if (why == nullptr)
            number = static_cast<T>(wide);
        return why;
    }
};

template <> struct Binder<bool> {
    static Argument argument(bool truth)
    {
        return static_cast<integer>(truth);
    }
    static const char* read(const Column& column, bool& truth)
    {
        integer number = 0;
        const char* const why = column.read(number, 0, 1);
        if (why == nullptr)
            truth = number == 1;
        return why;
    }
};

/// An enum is its number, also one of characters.
template <typename T> struct Binder<T, std::enable_if_t<std::is_enum_v<T> && !std::is_const_v<T>>> {
    using Underlying = std::underlying_type_t<T>;
    using Number =
        std::conditional_t<is_number<Underlying> || std::is_same_v<Underlying, bool>, Underlying,
                           std::conditional_t<std::is_signed_v<Underlying>, std::make_signed_t<T>,
                                              std::make_unsigned_t<T>>>;

    static Argument argument(T value)
    {
        return Binder<Number>::argument(static_cast<Number>(value));
    }
    static const char* read(const Column& column, T& value)
    {
        Number number{};
        const char* const why = Binder<Number>::read(column, number);
        if (why == nullptr)
            value = static_cast<T>(number);
        return why;
    }
};

/// How what a column reads by itself is bound: as `As`.
template <typename T, typename As> struct PlainBinder {
    static Argument argument(const T& value)
    {
        return As(value);
    }
    static const char* read(const Column& column, T& value)
    {
        return column.read(value);
    }
};
template <> struct Binder<double> : PlainBinder<double, double> {
};
template <> struct Binder<float> : PlainBinder<float, double> {
};
template <> struct Binder<string> : PlainBinder<string, std::string_view> {
};
template <> struct Binder<std::string_view> : PlainBinder<std::string_view, std::string_view> {
};
template <> struct Binder<Bytes> : PlainBinder<Bytes, Bytes> {
};

template <> struct Binder<std::vector<unsigned char>> {
    static Argument argument(const std::vector<unsigned char>& bytes)
    {
        return Bytes{bytes.data(), bytes.size()};
    }
    static const char* read(const Column& column, std::vector<unsigned char>& bytes)
    {
        return column.read(bytes);
    }
};

/// Texts of C end at their first zero byte; a null pointer is NULL.
template <> struct Binder<const char*> {
    static Argument argument(const char* text)
    {
        return text != nullptr ? Argument(std::string_view(text)) : nullptr;
    }
};
template <> struct Binder<char*> : Binder<const char*> {
};
template <std::size_t size> struct Binder<char[size]> {
    static Argument argument(const char (&text)[size])
    {
        const std::string_view all(text, size);
        return all.substr(0, all.find('\0'));
    }
};

template <> struct Binder<Time> {
    static Argument argument(const Time& time)
    {
        return time.asInteger();
    }
    static const char* read(const Column& column, Time& time)
    {
        time_t seconds = 0;
        const char* const why = Binder<time_t>::read(column, seconds);
        if (why == nullptr)
            time = Time(seconds);
        return why;
    }
};

/// Whole seconds since the epoch, rounded down, as a column of type_time holds them. Of units that
/// hold every second.
template <typename Duration>
struct Binder<std::chrono::time_point<std::chrono::system_clock, Duration>,
              std::enable_if_t<
                  std::is_convertible_v<std::chrono::seconds,
                                        Duration> && std::is_integral_v<typename Duration::rep>>> {
    using Seconds = std::chrono::seconds;
    using TimePoint = std::chrono::time_point<std::chrono::system_clock, Duration>;

    static Argument argument(const TimePoint& time)
    {
        return static_cast<integer>(std::chrono::floor<Seconds>(time.time_since_epoch()).count());
    }
    static const char* read(const Column& column, TimePoint& time)
    {
        integer seconds = 0;
        const char* const why = column.read(seconds,
                                            std::chrono::ceil<Seconds>(Duration::min()).count(),
                                            std::chrono::floor<Seconds>(Duration::max()).count());
        if (why == nullptr)
            time = TimePoint(Seconds(seconds));
        return why;
    }
};

/// NULL is no value. Templates, since not all that can be bound can be read.
template <typename T> struct Binder<std::optional<T>> {
    template <typename Value>
    static auto argument(const std::optional<Value>& value)
        -> decltype(Binder<Value>::argument(*value))
    {
        return value ? Binder<Value>::argument(*value) : nullptr;
    }
    template <typename Value>
    static auto read(const Column& column, std::optional<Value>& value)
        -> decltype(Binder<Value>::read(column, *value))
    {
        if (column.isNull()) {
            value.reset();
            return nullptr;
        }
        const bool had = value.has_value();
        const char* const why = Binder<Value>::read(column, had ? *value : value.emplace());
        if (why != nullptr && !had)
            value.reset();
        return why;
    }
};

/// One statement of SQL, compiled once: values are bound to its parameters, rows read one by one.
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
/// first: a database that is closed before leaks its connection. One thread at a time.
class Statement {
public:
    /// Compiles the one statement that `text` holds. If that fails, every use fails, too, without
    /// another report.
    Statement(Database& database, const string& text);
    Statement(Statement&& other) noexcept;            ///< Takes all; the other is released.
    Statement& operator=(Statement&& other) noexcept; ///< Releases, then takes all.
    Statement(const Statement&) = delete;             ///< A statement has one owner.
    Statement& operator=(const Statement&) = delete;  ///< A statement has one owner.
    ~Statement();                                     ///< Releases the statement.

    /// Lets go of the statement, and of the lock that it may hold. Every later use fails.
    void release();

    bool isPrepared() const; ///< Returns whether the statement was compiled and not released.

    /// Binds a copy of the value to the parameter at `position`, the first is 1. A value that
    /// cannot be bound sticks: until reset(), or a run() with values, nothing runs.
    template <typename T> Statement& bind(int position, const T& value)
    {
        return bindArgument(position, argumentOf(value));
    }

    /// Binds a copy of the value to the parameter of this name, which includes its `:`, `@` or `$`.
    template <typename T> Statement& bind(std::string_view name, const T& value)
    {
        return bindArgument(positionOf(name), argumentOf(value));
    }

    void clearBindings(); ///< Makes all values NULL.

    /// Runs to the next row. Returns false at the end and after a failure, and from then on until
    /// reset(), a new value or a run.
    [[nodiscard]] bool next();

    /// Runs to the next row and reads all its columns into the variables. A cell that does not fit
    /// its variable, as NULL in one that is not optional, is a failure that names the column.
    template <typename First, typename... More> [[nodiscard]] bool next(First& first, More&... more)
    {
        const Variable variables[] = {variableOf(first), variableOf(more)...};
        return readRow(variables, 1 + sizeof...(More));
    }

    /// Returns whether the latest run came to its end without a failure.
    bool finished() const;

    /// Runs from the start to the end, with the bound values, over any rows.
    [[nodiscard]] bool run();

    /// Resets, then runs from the start to the end with these values, one for each parameter. They
    /// are not copied, and gone afterwards: the parameters are NULL.
    template <typename First, typename... More>
    [[nodiscard]] bool run(const First& first, const More&... more)
    {
        const Argument arguments[] = {argumentOf(first), argumentOf(more)...};
        return runWith(arguments, 1 + sizeof...(More));
    }

    /// Runs as run() does, but only to the first row. Returns its value, or a std::tuple of its
    /// values, nothing if there is no row, or the reason of a failure.
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

    /// Returns the cell at `index`, the first is 0. Outside a row, and beyond it, that is NULL, and
    /// a failure.
    Column column(int index);

    /// Returns the cell of the first column of this name. Without one, that is NULL, and a failure.
    Column column(std::string_view name);

    /// Goes back to the start: no row, no lock, no failure. Keeps the bound values. Returns false
    /// if what the statement wrote could not be committed.
    bool reset();

    /// Returns how many rows the latest run that ended has changed itself, without those that
    /// triggers and foreign keys did.
    integer changes() const;

    /// Returns the key of the row that the latest run inserted last; nothing if it inserted none,
    /// or into a table without such a key.
    std::optional<integer> lastKey() const;

    const Error& error() const; ///< Returns why the latest run failed; no failure if it did not.

    /// Returns the text of the statement, which lives until the release.
    std::string_view text() const;

    /// Returns the text with the bound values in place; empty if that is too long.
    string expandedText();

    bool isReadOnly() const;    ///< Returns whether the statement changes no file.
    int parameterCount() const; ///< Returns how many values it takes.
    int columnCount() const;    ///< Returns how many columns its rows have.

    /// Returns the name of the column at `index`, empty beyond the last.
    string columnName(int index) const;

private:
    friend class Column; // a cell that cannot be converted is a failure of the statement's

    // Broken: at a row that could not be read. Unbound: a value could not be bound.
    enum class State { ready, row, broken, ended, failed, unbound, unprepared };

    struct Variable {
        const char* (*read)(const Column& column, void* variable);
        void* variable;
    };

    template <typename T>
    static constexpr bool is_view =
        std::is_same_v<
            T,
            std::
                string_view> || std::is_same_v<T, Bytes> || std::is_same_v<T, std::optional<std::string_view>> || std::is_same_v<T, std::optional<Bytes>>;

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

    SQLWRAPPER_LOCAL void prepare(const string& text);
    SQLWRAPPER_LOCAL void refuse(const string& text, int rc, const char* why);
    SQLWRAPPER_LOCAL bool isUsable(const char* operation);
    SQLWRAPPER_LOCAL bool isUnbound() const;
    SQLWRAPPER_LOCAL bool canBind();
    SQLWRAPPER_LOCAL void forgetStale();
    SQLWRAPPER_LOCAL bool bindFrom(const char* operation, int position, const Argument* arguments,
                                   int count, bool copied);
    SQLWRAPPER_LOCAL bool bindAll(const char* operation, const Argument* arguments, int count);
    SQLWRAPPER_LOCAL bool restart(const char* operation);
    SQLWRAPPER_LOCAL void begin(const char* operation);
    SQLWRAPPER_LOCAL bool step(const char* operation);
    SQLWRAPPER_LOCAL bool runToEnd(const char* operation);
    SQLWRAPPER_LOCAL bool end(const char* operation);
    SQLWRAPPER_LOCAL void noteChanges();
    SQLWRAPPER_LOCAL bool nextRow();
    SQLWRAPPER_LOCAL bool readCells(const char* operation, const Variable* variables, int count);
    SQLWRAPPER_LOCAL Column noColumn(const string& which);
    SQLWRAPPER_LOCAL int indexOf(std::string_view name);
    SQLWRAPPER_LOCAL bool learnNames(int count);
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
                                      const string& why);

    struct LettingGo;

    // The statement of SQLite's, which ends with it.
    struct Handle {
        Handle() = default;
        Handle(const Handle&) = delete;
        Handle& operator=(const Handle&) = delete;
        Handle(Handle&& other) noexcept : statement(std::exchange(other.statement, nullptr))
        {
        }
        SQLWRAPPER_LOCAL Handle& operator=(Handle&& other) noexcept;
        SQLWRAPPER_LOCAL ~Handle();

        sqlite3_stmt* statement = nullptr;
    };

    Database* _database;
    sqlite3* _connection;
    Handle _handle;
    State _state = State::unprepared;
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
    integer _totalBefore = 0;   // changes on the connection before this run
    integer _keyBefore = 0;     // the connection's latest key before this run
    integer _changes = 0;
    std::optional<integer> _key;
    Error _error;
};

/// Runs the statements of a script one after the other, over any rows, and returns how many. If one
/// fails, those before it have taken effect; the error says which it was and holds its text.
Result<int> runScript(Database& database, const string& script);

} // namespace sql

#pragma GCC visibility pop

#endif
