#ifndef SQLPREPARED_SQLMAPPING_H
#define SQLPREPARED_SQLMAPPING_H

#include "SqlBinder.h"
#include "SqlField.h"

#include <array>
#include <forward_list>

#pragma GCC visibility push(default)

namespace sql {

// --- Options of columns and tables ---------------------------------------------------------------

/// That a column has an index of its own.
struct Indexed {};
inline constexpr Indexed indexed; ///< Gives a column an index, named after table and column.

/// That a time is held in milliseconds.
struct Milliseconds {};
inline constexpr Milliseconds milliseconds; ///< Holds a time in milliseconds, not in seconds.

/// That a table has no rowid.
struct WithoutRowid {};
inline constexpr WithoutRowid without_rowid; ///< Keeps the rows of a table by their key alone.

/// A constraint of a column, or its type: a piece of SQL that is taken as it stands.
struct ColumnText {
    /// Which.
    enum class Kind {
        type,          ///< the declared type
        default_value, ///< behind DEFAULT
        check,         ///< in CHECK ()
        references     ///< behind REFERENCES
    };
    Kind kind;        ///< Which.
    const char* text; ///< A constant text.
};

/// Declares a column with this type, "NUMERIC" for example, instead of that of its member.
constexpr ColumnText storedAs(const char* type)
{
    return {ColumnText::Kind::type, type};
}
/// Gives a column a default: a literal of SQL, or an expression in parentheses.
constexpr ColumnText defaultsTo(const char* value)
{
    return {ColumnText::Kind::default_value, value};
}
/// Has SQLite refuse rows for which this expression is false.
constexpr ColumnText check(const char* expression)
{
    return {ColumnText::Kind::check, expression};
}
/// Makes a column a foreign key: "sensor (id) on delete cascade".
constexpr ColumnText references(const char* table)
{
    return {ColumnText::Kind::references, table};
}

// --- What a mapping holds ------------------------------------------------------------------------

/// How members are read and bound that the library has no way of its own for: by their Binder.
struct MemberOperations {
    /// Binds a member; what a getter returned by value goes into the list.
    Argument (*argument)(const void* member, std::forward_list<string>& texts);
    /// Reads a member. Returns null, or why it could not.
    const char* (*read)(const Column& column, void* member);
    const MemberOperations* ofValue; ///< Of a value, where a member is an accessor; else null.
};

/// How to get at the value of a std::optional of any type.
struct OptionalOperations {
    const void* (*get)(const void* member);    ///< Returns the value, null if there is none.
    void* (*set)(void* member, bool hasValue); ///< Makes and returns a value, or takes it away.
};

/// A column of a mapping.
struct MappedColumn {
    /// How the library itself reads and binds a member.
    enum class Kind : unsigned char {
        other,          ///< by its MemberOperations
        truth,          ///< bool
        whole,          ///< integer
        number,         ///< an integer of another type, or an enum
        real,           ///< double
        small_real,     ///< float
        text,           ///< string
        block,          ///< std::vector<unsigned char>
        time,           ///< Time
        in_seconds,     ///< std::chrono::system_clock::time_point in seconds
        in_milliseconds ///< likewise, in milliseconds
    };

    std::string_view name;                              ///< The column's name.
    const char* type = nullptr;                         ///< The declared type.
    const char* defaultValue = nullptr;                 ///< Behind DEFAULT; null for none.
    const char* check = nullptr;                        ///< In CHECK (); null for none.
    const char* references = nullptr;                   ///< Behind REFERENCES; null for none.
    const void* (*place)(const void* object) = nullptr; ///< Returns where the member is.
    const MemberOperations* operations = nullptr;       ///< Of Kind::other.
    const OptionalOperations* optional = nullptr;       ///< Null if the member is none.
    Kind kind = Kind::other;                            ///< How it is read and bound.
    unsigned char size = 0;                             ///< The bytes of a number.
    bool isSigned = false;                              ///< Whether a number has a sign.
    unsigned char cellType = 0; ///< SQLite's type of the cells that are read at once; 0 for none.
    unsigned char flags = 0;    ///< flag_not_null, flag_unique, flag_primary_key.
    bool isPlain = false;       ///< Whether it is never stored as NULL.
    bool isChosen = false;      ///< Whether SQLite chooses a key of 0 anew.
    bool isInMilliseconds = false; ///< Whether it holds a time in milliseconds.
    bool isIndexed = false;        ///< Whether it has an index of its own.
};

/// An index over several columns.
struct MappedIndex {
    static constexpr int most_columns = 8; ///< More are not needed.

    std::string_view columns[most_columns]; ///< Their names, in order.
    int count = 0;                          ///< How many there are.
    bool isUnique = false;                  ///< Whether no two rows may have the same values.
};

/// Declares an index over the columns of these names, in this order.
template <typename... Names> constexpr MappedIndex indexOver(const Names&... columns)
{
    static_assert(sizeof...(Names) <= MappedIndex::most_columns, "an index has at most 8 columns");
    return {{std::string_view(columns)...}, sizeof...(Names), false};
}

/// Declares likewise an index that refuses rows with the same values.
template <typename... Names> constexpr MappedIndex uniqueOver(const Names&... columns)
{
    MappedIndex index = indexOver(columns...);
    index.isUnique = true;
    return index;
}

/// What the library sees of a mapping, which outlives it.
struct MappingView {
    std::string_view name;       ///< Of the table.
    const MappedColumn* columns; ///< In order.
    int columnCount;             ///< How many there are.
    const MappedIndex* indexes;  ///< Over several columns.
    int indexCount;              ///< How many there are.
    bool hasRowid;               ///< Whether the table has rowids.
};

/// Returns the argument with a copy of the text or block that it borrows, which the list keeps.
Argument keptIn(std::forward_list<string>& texts, const Argument& argument);

// --- From members to columns ---------------------------------------------------------------------

/// A way from an object to a member of a member, or to an accessor: a getter and a setter.
template <auto... path> struct MemberPath {
    static constexpr bool is_accessor = false; ///< Whether a getter and a setter are its end.

    /// Returns the member, or what has the accessor.
    template <typename T> static constexpr T& of(T& object)
    {
        return object;
    }
};
template <auto first, auto... rest> struct MemberPath<first, rest...> {
    static constexpr bool is_accessor =
        std::is_member_function_pointer_v<decltype(first)> || MemberPath<rest...>::is_accessor;

    template <typename T> static constexpr auto& of(T& object)
    {
        if constexpr (std::is_member_function_pointer_v<decltype(first)>)
            return object;
        else
            return MemberPath<rest...>::of(object.*first);
    }
    /// Returns what the getter does of what has the accessor.
    template <typename T> static decltype(auto) get(const T& object)
    {
        if constexpr (std::is_member_function_pointer_v<decltype(first)>)
            return (object.*first)();
        else
            return MemberPath<rest...>::get(object);
    }
    /// Calls the setter.
    template <typename T, typename Value> static void set(T& object, Value&& value)
    {
        if constexpr (std::is_member_function_pointer_v<decltype(first)>)
            (object.*(rest, ...))(std::forward<Value>(value));
        else
            MemberPath<rest...>::set(object, std::forward<Value>(value));
    }
};

/// What std::optional holds, or the type itself.
template <typename T> struct HeldBy {
    using Type = T;                            ///< What is held.
    static constexpr bool is_optional = false; ///< Whether it is a std::optional.
};
template <typename T> struct HeldBy<std::optional<T>> {
    using Type = T;
    static constexpr bool is_optional = true;
};

/// A time in milliseconds, as the Binder of a time is in seconds.
template <typename T> struct MillisecondsBinder {
    using Unit = std::chrono::milliseconds; ///< What is counted.

    /// Holds the whole milliseconds since the epoch, rounded down.
    static Argument argument(const T& time)
    {
        const typename T::duration since = time.time_since_epoch();
        if (since > highest<typename T::duration>() || since < lowest<typename T::duration>())
            return Argument::unfit("is out of the range of milliseconds");
        return static_cast<integer>(std::chrono::floor<Unit>(since).count());
    }
    /// Reads them; fails for a time out of the variable's range.
    static const char* read(const Column& column, T& time)
    {
        using Duration = typename T::duration;
        constexpr auto most = std::chrono::duration_cast<Unit>(highest<Duration>());
        constexpr auto least = std::chrono::floor<Unit>(lowest<Duration>());
        integer count = 0;
        const char* const why = column.read(count, least.count(), most.count());
        if (why == nullptr)
            time = T(count < std::chrono::ceil<Unit>(lowest<Duration>()).count()
                         ? lowest<Duration>() // which is within that millisecond
                         : std::chrono::floor<Duration>(Unit(count)));
        return why;
    }

private:
    // The highest that can be counted in either unit.
    template <typename Duration> static constexpr Duration highest()
    {
        using Wide = std::chrono::duration<integer, typename Duration::period>;
        if constexpr (std::is_convertible_v<Duration, Unit>) {
            if (Wide(Duration::max()) > std::chrono::duration_cast<Wide>(Unit::max()))
                return std::chrono::duration_cast<Duration>(Unit::max());
        }
        return Duration::max();
    }
    // Likewise the lowest, which a finer unit rounds down.
    template <typename Duration> static constexpr Duration lowest()
    {
        return std::is_convertible_v<Duration, Unit> ? -highest<Duration>() : Duration::min();
    }
};
template <typename T> struct MillisecondsBinder<std::optional<T>> {
    static Argument argument(const std::optional<T>& time)
    {
        return time ? MillisecondsBinder<T>::argument(*time) : nullptr;
    }
    static const char* read(const Column& column, std::optional<T>& time)
    {
        T found{};
        const char* const why = column.isNull() ? nullptr
                                                : MillisecondsBinder<T>::read(column, found);
        if (why == nullptr)
            time = column.isNull() ? std::optional<T>() : found;
        return why;
    }
};

/// Returns a time in whole milliseconds since the epoch, for a condition.
template <typename Duration>
constexpr integer inMilliseconds(std::chrono::time_point<std::chrono::system_clock, Duration> time)
{
    return std::chrono::floor<std::chrono::milliseconds>(time.time_since_epoch()).count();
}

/// Whether a type is a time that a column holds in seconds or milliseconds.
template <typename T> inline constexpr bool is_time_point = false;
template <typename Duration>
inline constexpr bool is_time_point<std::chrono::time_point<std::chrono::system_clock, Duration>> =
    true;

/// Whether an enum has no Binder of the program's own.
template <typename T, typename = void> inline constexpr bool is_plain_enum = false;
template <typename T>
inline constexpr bool is_plain_enum<T, std::void_t<typename Binder<T>::Underlying>> =
    std::is_enum_v<T>;

/// How the library reads and binds members of a type.
template <typename T, bool inMilliseconds> constexpr MappedColumn::Kind kindOf()
{
    using Kind = MappedColumn::Kind;
    if constexpr (std::is_same_v<T, bool>)
        return Kind::truth;
    else if constexpr (is_plain_enum<T>)
        return std::is_same_v<std::underlying_type_t<T>, bool> ? Kind::truth : Kind::number;
    else if constexpr (std::is_same_v<T, integer>)
        return Kind::whole;
    else if constexpr (is_number<T>)
        return Kind::number;
    else if constexpr (std::is_same_v<T, double>)
        return Kind::real;
    else if constexpr (std::is_same_v<T, float>)
        return Kind::small_real;
    else if constexpr (std::is_same_v<T, string>)
        return Kind::text;
    else if constexpr (std::is_same_v<T, std::vector<unsigned char>>)
        return Kind::block;
    else if constexpr (std::is_same_v<T, Time>)
        return Kind::time;
    else if constexpr (std::is_same_v<T, std::chrono::system_clock::time_point>)
        return inMilliseconds ? Kind::in_milliseconds : Kind::in_seconds;
    else
        return Kind::other;
}

/// SQLite's type of the cells that are read into a member at once; 0 for none.
constexpr unsigned char cellTypeOf(MappedColumn::Kind kind, bool isOptional)
{
    using Kind = MappedColumn::Kind;
    if (kind == Kind::whole || (!isOptional && (kind == Kind::number || kind == Kind::truth)))
        return 1;
    if (kind == Kind::real)
        return 2;
    return kind == Kind::text ? 3 : 0;
}

/// Whether an integer, or the number of an enum, has a sign.
template <typename T> constexpr bool isSignedNumber()
{
    if constexpr (std::is_enum_v<T>)
        return std::is_signed_v<std::underlying_type_t<T>>;
    else
        return std::is_signed_v<T>;
}

/// Whether a type is a fixed number of bytes.
template <typename T> inline constexpr bool is_byte_array = false;
template <std::size_t size>
inline constexpr bool is_byte_array<std::array<unsigned char, size>> = true;

/// The type that a column of such members is declared with; empty for those of a Binder.
template <typename T> constexpr const char* declaredType()
{
    using Kind = MappedColumn::Kind;
    constexpr Kind kind = kindOf<T, false>();
    if constexpr (kind == Kind::real || kind == Kind::small_real)
        return "REAL";
    else if constexpr (kind == Kind::text)
        return "TEXT";
    else if constexpr (kind == Kind::block || is_byte_array<T>)
        return "BLOB";
    else
        return kind != Kind::other || is_time_point<T> ? "INTEGER" : "";
}

/// Whether the library, or the program by a Binder, can store and read a type.
template <typename T> inline constexpr bool is_mappable = is_bindable<T>&& is_readable<T>;

/// The operations on members, or values, of a type that has a Binder.
template <typename T, typename By> struct MemberOf {
    static constexpr MemberOperations operations = {
        [](const void* member, std::forward_list<string>&) {
            return By::argument(*static_cast<const T*>(member));
        },
        [](const Column& column, void* member) {
            return By::read(column, *static_cast<T*>(member));
        },
        nullptr}; ///< What a column holds.
};

/// The operations on members that are accessors.
template <typename Path, typename Owner, typename T, typename By> struct AccessorOf {
    static constexpr MemberOperations operations = {
        [](const void* owner, std::forward_list<string>& texts) {
            const Owner& object = *static_cast<const Owner*>(owner);
            decltype(auto) value = Path::get(object);
            const Argument argument = By::argument(value);
            if constexpr (std::is_reference_v<decltype(Path::get(object))>)
                return argument;
            else
                return keptIn(texts, argument);
        },
        [](const Column& column, void* owner) {
            T value{};
            const char* const why = By::read(column, value);
            if (why == nullptr)
                Path::set(*static_cast<Owner*>(owner), std::move(value));
            return why;
        },
        &MemberOf<T, By>::operations}; ///< What a column holds.
};

/// The operations on a std::optional.
template <typename T> struct OptionalOf {
    static constexpr OptionalOperations operations = {
        [](const void* member) -> const void* {
            const std::optional<T>& optional = *static_cast<const std::optional<T>*>(member);
            return optional ? &*optional : nullptr;
        },
        [](void* member, bool hasValue) -> void* {
            std::optional<T>& optional = *static_cast<std::optional<T>*>(member);
            if (!hasValue)
                optional.reset();
            else if (!optional)
                optional.emplace();
            return hasValue ? &*optional : nullptr;
        }}; ///< What a column holds.
};

/// How a column of a mapping belongs to the key.
enum class KeyKind {
    none,  ///< not at all
    given, ///< by the program
    chosen ///< by SQLite, where the program has none
};

/// A column, before it is known of which type it is.
template <typename Path, KeyKind keyKind, bool inMilliseconds> struct ColumnSpec {
    MappedColumn column; ///< What is known.
};

/// The types of a mapping's keys.
template <typename... Keys> struct KeyTypes {
};

/// A table's columns, each with the member of `T` that it belongs to: what mapping() makes. A
/// constant, to be kept as long as the tables that use it; it borrows the texts that it was made of.
///
///     struct Product {
///         sql::integer id = 0;
///         sql::string name;
///     };
///     static constexpr auto product = sql::mapping<Product>(
///         "product", sql::autoKey<&Product::id>("id"),
///         sql::column<&Product::name>("name"));
///     std::printf("%d columns\n", product.view().columnCount); // 2 columns
///
/// For any number of threads.
template <typename T, typename Keys, std::size_t columns, std::size_t indexes> class Mapping {
public:
    /// Takes what mapping() has found.
    constexpr Mapping(std::string_view name, bool hasRowid) : _name(name), _hasRowid(hasRowid)
    {
    }

    /// Returns what the library needs of it, which lives as long as the mapping.
    constexpr MappingView view() const
    {
        return {_name, _columns, columns, _indexes, indexes, _hasRowid};
    }

    /// Appends a column.
    template <typename Path, KeyKind keyKind, bool inMilliseconds>
    constexpr void append(const ColumnSpec<Path, keyKind, inMilliseconds>& spec);

    /// Appends an index.
    constexpr void append(const MappedIndex& index)
    {
        _indexes[_appendedIndexes++] = index;
    }

    /// Appends nothing.
    constexpr void append(WithoutRowid)
    {
    }

private:
    std::string_view _name;
    MappedColumn _columns[columns];
    MappedIndex _indexes[indexes != 0 ? indexes : 1];
    bool _hasRowid;
    std::size_t _appendedColumns = 0;
    std::size_t _appendedIndexes = 0;
};

/// Applies an option to a column.
constexpr void apply(MappedColumn& column, int flags)
{
    column.flags = static_cast<unsigned char>(column.flags | flags);
}
/// Applies an option to a column.
constexpr void apply(MappedColumn& column, Indexed)
{
    column.isIndexed = true;
}
/// Applies an option to a column.
constexpr void apply(MappedColumn&, Milliseconds)
{
}
/// Applies an option to a column.
constexpr void apply(MappedColumn& column, const ColumnText& text)
{
    if (text.kind == ColumnText::Kind::type)
        column.type = text.text;
    else if (text.kind == ColumnText::Kind::default_value)
        column.defaultValue = text.text;
    else if (text.kind == ColumnText::Kind::check)
        column.check = text.text;
    else
        column.references = text.text;
}

/// Returns a column of this name with these options.
template <typename Path, KeyKind keyKind, typename... Options>
constexpr auto described(std::string_view name, const Options&... options)
{
    ColumnSpec<Path, keyKind, (std::is_same_v<Options, Milliseconds> || ...)> spec{};
    spec.column.name = name;
    if (keyKind != KeyKind::none)
        spec.column.flags = flag_primary_key;
    spec.column.isChosen = keyKind == KeyKind::chosen;
    (apply(spec.column, options), ...);
    return spec;
}

/// Maps a member to the column of this name. `path` is a member, members that lead to one of a
/// member, or a getter and a setter. Options are flag_not_null, flag_unique, `indexed`,
/// `milliseconds` and the texts of storedAs(), defaultsTo(), check() and references().
template <auto... path, typename... Options>
constexpr auto column(std::string_view name, const Options&... options)
{
    return described<MemberPath<path...>, KeyKind::none>(name, options...);
}

/// Maps likewise a member that is the key, or a part of it, which the program chooses.
template <auto... path, typename... Options>
constexpr auto key(std::string_view name, const Options&... options)
{
    return described<MemberPath<path...>, KeyKind::given>(name, options...);
}

/// Maps likewise an integer that is the key. For 0, or an empty optional, SQLite chooses a key when
/// the object is added.
template <auto... path, typename... Options>
constexpr auto autoKey(std::string_view name, const Options&... options)
{
    return described<MemberPath<path...>, KeyKind::chosen>(name, options...);
}

/// The type of the member at the end of a path, or that its accessors take.
template <typename T, typename Path> constexpr auto memberAt()
{
    using Owner = std::remove_reference_t<decltype(Path::of(std::declval<T&>()))>;
    if constexpr (Path::is_accessor)
        return HeldBy<std::decay_t<decltype(Path::get(std::declval<const Owner&>()))>>();
    else
        return HeldBy<Owner>();
}

/// How a type is bound and read by its column.
template <typename T, bool inMilliseconds>
using BinderFor = std::conditional_t<inMilliseconds, MillisecondsBinder<T>, Binder<T>>;

template <typename T, typename Keys, std::size_t columnCount, std::size_t indexCount>
template <typename Path, KeyKind keyKind, bool inMilliseconds>
constexpr void Mapping<T, Keys, columnCount, indexCount>::append(
    const ColumnSpec<Path, keyKind, inMilliseconds>& spec)
{
    using Held = decltype(memberAt<T, Path>());
    using Type = typename Held::Type;
    using Owner = std::remove_reference_t<decltype(Path::of(std::declval<T&>()))>;
    static_assert(is_mappable<Type>, "there is no Binder for the type of this member");
    if constexpr (is_mappable<Type>) {
        static_assert(!inMilliseconds || is_time_point<Type>,
                      "only a time_point can be held in milliseconds");
        static_assert(keyKind != KeyKind::chosen || (is_number<Type> && !Path::is_accessor),
                      "SQLite chooses integers alone, and sets members alone");
        MappedColumn& column = _columns[_appendedColumns++];
        column = spec.column;
        column.isInMilliseconds = inMilliseconds;
        column.isPlain = !Held::is_optional && keyKind != KeyKind::chosen;
        if (column.type == nullptr)
            column.type = declaredType<Type>();
        column.place = [](const void* object) -> const void* {
            return &Path::of(*static_cast<const T*>(object));
        };
        if constexpr (Path::is_accessor) {
            using Given = std::conditional_t<Held::is_optional, std::optional<Type>, Type>;
            column.operations =
                &AccessorOf<Path, Owner, Given, BinderFor<Given, inMilliseconds>>::operations;
        } else {
            column.kind = kindOf<Type, inMilliseconds>();
            column.cellType = cellTypeOf(column.kind, Held::is_optional);
            column.size = sizeof(Type);
            column.isSigned = isSignedNumber<Type>();
            if constexpr (kindOf<Type, false>() == MappedColumn::Kind::other)
                column.operations = &MemberOf<Type, BinderFor<Type, inMilliseconds>>::operations;
            if constexpr (Held::is_optional)
                column.optional = &OptionalOf<Type>::operations;
        }
    }
}

/// Whether what is given to mapping() is a column.
template <typename Item> inline constexpr bool is_column = false;
template <typename Path, KeyKind keyKind, bool inMilliseconds>
inline constexpr bool is_column<ColumnSpec<Path, keyKind, inMilliseconds>> = true;

/// Collects the types of the keys among what is given to mapping().
template <typename T, typename Keys, typename... Items> struct KeysOf {
    using Type = Keys; ///< All of them.
};
template <typename T, typename... Keys, typename Path, KeyKind keyKind, bool inMilliseconds,
          typename... Items>
struct KeysOf<T, KeyTypes<Keys...>, ColumnSpec<Path, keyKind, inMilliseconds>, Items...>
    : KeysOf<T,
             std::conditional_t<keyKind == KeyKind::none, KeyTypes<Keys...>,
                                KeyTypes<Keys..., typename decltype(memberAt<T, Path>())::Type>>,
             Items...> {
};
template <typename T, typename Keys, typename Item, typename... Items>
struct KeysOf<T, Keys, Item, Items...> : KeysOf<T, Keys, Items...> {
};

/// Maps a struct to the table of this name: its columns, in any order, and what indexOver(),
/// uniqueOver() and `without_rowid` add. Names and texts are not copied.
template <typename T, typename... Items>
constexpr auto mapping(std::string_view name, const Items&... items)
{
    constexpr std::size_t columnCount = (std::size_t{is_column<Items>} + ... + 0);
    constexpr std::size_t indexCount = (std::size_t{std::is_same_v<Items, MappedIndex>} + ... + 0);
    constexpr bool hasRowid = !(std::is_same_v<Items, WithoutRowid> || ...);
    static_assert(columnCount > 0, "a mapping has columns");
    Mapping<T, typename KeysOf<T, KeyTypes<>, Items...>::Type, columnCount, indexCount> mapped(
        name, hasRowid);
    (mapped.append(items), ...);
    return mapped;
}

} // namespace sql

#pragma GCC visibility pop

#endif
