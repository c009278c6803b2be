#ifndef SQLPREPARED_SQLBINDER_H
#define SQLPREPARED_SQLBINDER_H

#include "SqlCommon.h"

#include <array>
#include <chrono>
#include <cstddef>
#include <optional>
#include <string_view>
#include <type_traits>
#include <utility>
#include <vector>

struct sqlite3_value;

#pragma GCC visibility push(default)

namespace sql {

class Statement;

/// A view of bytes that somebody else owns: what a block is bound from, and read as.
struct Bytes {
    const void* data = nullptr; ///< Where they are; may be null if there are none.
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
/// Borrows texts and bytes, which have to outlive the operation that binds it.
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
    friend struct FunctionCall;
    friend class Statement; // binds it
    friend class PreparedTable;
    friend class MappedTable;
    friend struct MemberAccess;
    friend struct RecordAccess;

    enum class Kind { null, number, real, text, block, unfit };

    Kind _kind;
    union {
        integer _number;
        double _real;
        Bytes _bytes;
        const char* _why;
    };
};

/// A cell of the row that a statement stands at. Use it until the statement goes on or is moved.
///
///     sql::Statement all(database, "select name, price from product");
///     while (all.next()) {
///         const sql::Column price = all.column("price");
///         if (!price.isNull())
///             std::printf("%.2f\n", price.asDouble()); // 2.50
///     }
///
/// The getters convert as those of Value do, and fail only for want of memory. Views live until the
/// statement goes on or another getter is called for the same cell.
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
    const char* read(std::vector<unsigned char>& bytes) const;      ///< Stores a copy of the block.
    const char* read(unsigned char* bytes, std::size_t size) const; ///< Copies one of this size.

private:
    friend struct FunctionCall; // whose arguments are cells without a statement
    friend class Statement;     // stands at its row
    friend struct MemberAccess;

    SQLWRAPPER_LOCAL const char* readOther(integer& number) const;
    SQLWRAPPER_LOCAL const char* readOther(double& number) const;

    explicit Column(sqlite3_value* value) : _statement(nullptr), _value(value)
    {
    }
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
/// What argument() returns may borrow from the value, and from nothing else that ends. read()
/// returns null, or a constant text that says why the cell is no such value.
template <typename T, typename = void> struct Binder;

/// Whether a value of a type can be bound.
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

/// Whether a type is one of these.
template <typename T, typename... Those>
inline constexpr bool is_one_of = (std::is_same_v<T, Those> || ...);

/// Whether a type is an integer that SQLite can hold: no bool and no character.
template <typename T>
inline constexpr bool
    is_number = std::is_integral_v<T> && sizeof(T) <= sizeof(integer)
                && !is_one_of<T, bool, char, decltype(u8'a'), wchar_t, char16_t, char32_t>;

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

/// A block of this many bytes, no fewer and no more.
template <std::size_t size> struct Binder<std::array<unsigned char, size>> {
    static Argument argument(const std::array<unsigned char, size>& bytes)
    {
        return Bytes{bytes.data(), size};
    }
    static const char* read(const Column& column, std::array<unsigned char, size>& bytes)
    {
        return column.read(bytes.data(), size);
    }
};

/// A text of C ends at its first zero byte; a null pointer is NULL.
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

/// Whether a unit of time holds every second, in whole numbers.
template <typename Duration>
inline constexpr bool holds_seconds = std::is_convertible_v<std::chrono::seconds, Duration>&&
    std::is_integral_v<typename Duration::rep>;

/// Whole seconds since the epoch, rounded down, as a column of type_time holds them.
template <typename Duration>
struct Binder<std::chrono::time_point<std::chrono::system_clock, Duration>,
              std::enable_if_t<holds_seconds<Duration>>> {
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
                                            std::chrono::floor<Seconds>(Duration::min()).count(),
                                            std::chrono::floor<Seconds>(Duration::max()).count());
        if (why == nullptr)
            time = seconds < std::chrono::ceil<Seconds>(Duration::min()).count()
                       ? TimePoint::min() // which is within that second
                       : TimePoint(Seconds(seconds));
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

} // namespace sql

#pragma GCC visibility pop

#endif
