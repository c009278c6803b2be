#ifndef SQLPREPARED_SQLTYPEDTABLE_H
#define SQLPREPARED_SQLTYPEDTABLE_H

#include "SqlFieldSet.h"
#include "SqlMapping.h"
#include "SqlTableStatements.h"

#include <iterator>

#pragma GCC visibility push(default)

namespace sql {

/// Where the cells of a row go: into the members of an object, or of one that a list makes for it.
struct RowPlace {
    const MappedColumn* columns; ///< Of the mapping.
    int count;                   ///< How many there are.
    const int* order;            ///< Which one each cell belongs to; null for the mapping's order.
    void* object;                ///< Null where `list` makes one.
    void* (*make)(void* list);   ///< Returns a new object at the end of the list.
    void* list;                  ///< Null without one.
};

/// A key as the program gives it.
struct KeyValue {
    const void* value = nullptr; ///< Of the type of the key's member; null for another type.
    Argument argument = nullptr; ///< Of another type.
};

/// What the cursors of all mappings have in common.
///
///     struct Name { sql::string name; };
///     static constexpr auto mapped =
///         sql::mapping<Name>("", sql::column<&Name::name>("name"));
///     auto rows = sql::query<Name>(
///         database, mapped, "select name from nowhere");
///     if (!rows.finished())
///         std::puts(rows.error().text().c_str()); // no such table: nowhere
class MappedCursor {
public:
    MappedCursor(const MappedCursor&) = delete;            ///< A cursor has one owner.
    MappedCursor& operator=(const MappedCursor&) = delete; ///< A cursor has one owner.

    bool finished() const;      ///< Returns whether the last row was read and nothing failed.
    const Error& error() const; ///< Returns why it failed; lives as long as the cursor.

private:
    template <typename T> friend class ObjectCursor;                 // which is one
    template <typename T, typename... Keys> friend class TypedTable; // makes it by MappedTable
    friend class MappedTable;                                        // makes it

    MappedCursor(Database& database, const MappingView& mapping, const string& text,
                 const Argument* values, int count);
    SQLWRAPPER_LOCAL MappedCursor(TableStatements& table, std::list<Statement> held,
                                  const MappingView& mapping);
    MappedCursor(MappedCursor&& other) noexcept;
    MappedCursor& operator=(MappedCursor&& other) noexcept;
    ~MappedCursor();

    bool readNext(void* object);
    SQLWRAPPER_LOCAL bool findColumns(const char* operation);
    SQLWRAPPER_LOCAL int indexOf(std::string_view name) const;
    SQLWRAPPER_LOCAL int compilations() const;

    Statement _statement;
    std::list<Statement> _held; // where it goes for the table to get it back; empty for a query
    TableStatements* _table;
    int _releases = 0; // of the table until now
    const MappedColumn* _columns;
    int _columnCount;
    std::vector<int> _order;       // of a query's columns
    int _compilations = 0;         // of it, after which that was their order
    mutable bool _isAsked = false; // whether anybody wanted to know of its failure
};

/// The objects that a TypedTable selects or query() finds, read one by one: one row in memory,
/// however many there are.
///
///     struct Name { sql::string name; };
///     static constexpr auto mapped =
///         sql::mapping<Name>("", sql::column<&Name::name>("name"));
///     auto all = sql::query<Name>(
///         database, mapped, "select name from product");
///     for (const Name& product : all)
///         std::puts(product.name.c_str()); // rum
///
/// Owns its statement until its end, borrows the database, the mapping and the table. A loop that
/// ended by a failure for which nobody asked is reported by an assertion at the end of its scope.
/// One thread at a time.
template <typename T> class [[nodiscard]] ObjectCursor : public MappedCursor {
public:
    /// Reads the next row into the object, whose memory is used again. Returns false at the end and
    /// on failure, and from then on. A cell that does not fit its member is a failure that names
    /// the column; the members of columns before it have their values then.
    [[nodiscard]] bool next(T& object)
    {
        return readNext(&object);
    }

    /// Stands at a row, or behind the last one. All of a cursor go on together.
    ///
    ///     struct Name { sql::string name; };
    ///     static constexpr auto mapped =
    ///         sql::mapping<Name>("", sql::column<&Name::name>("name"));
    ///     for (const Name& found :
    ///          sql::query<Name>(database, mapped, "select 'tea' as name"))
    ///         std::puts(found.name.c_str());
    class Iterator {
    public:
        using iterator_category = std::input_iterator_tag; ///< It reads each row once.
        using value_type = T;                              ///< What it reads.
        using difference_type = std::ptrdiff_t;            ///< Unused.
        using pointer = const T*;                          ///< Lives until the cursor goes on.
        using reference = const T&;                        ///< Lives until the cursor goes on.

        /// Returns the object.
        reference operator*() const
        {
            return *_object;
        }
        /// Returns the object.
        pointer operator->() const
        {
            return _object;
        }
        /// Reads the next row.
        Iterator& operator++()
        {
            _object = _cursor->nextOwn();
            return *this;
        }
        /// Returns whether both stand at a row, or neither.
        bool operator==(const Iterator& other) const
        {
            return _object == other._object;
        }
        /// Returns whether only one stands at a row.
        bool operator!=(const Iterator& other) const
        {
            return _object != other._object;
        }

    private:
        friend class ObjectCursor; // makes it

        Iterator(ObjectCursor* cursor, const T* object) : _cursor(cursor), _object(object)
        {
        }

        ObjectCursor* _cursor;
        const T* _object;
    };

    /// Reads the first row that is left into an object of its own, for a loop
    /// `for (const T& object : cursor)`.
    Iterator begin()
    {
        return Iterator(this, nextOwn());
    }
    /// Returns what stands behind the last row.
    Iterator end()
    {
        return Iterator(this, nullptr);
    }

private:
    template <typename, typename...> friend class TypedTable; // makes it
    template <typename Row, typename Keys, std::size_t columns, std::size_t indexes,
              typename... Values>
    friend ObjectCursor<Row> query(Database& database,
                                   const Mapping<Row, Keys, columns, indexes>& mapping,
                                   const string& text, const Values&... values);

    ObjectCursor(MappedCursor&& cursor) : MappedCursor(std::move(cursor))
    {
    }

    template <typename... Values>
    static ObjectCursor find(Database& database, const MappingView& mapping, const string& text,
                             const Values&... values)
    {
        const Argument arguments[] = {Statement::argumentOf(values)..., nullptr};
        return MappedCursor(database, mapping, text, arguments, sizeof...(Values));
    }

    const T* nextOwn()
    {
        if (!_object)
            _object.emplace();
        return readNext(&*_object) ? &*_object : nullptr;
    }

    std::optional<T> _object; // that a loop reads
};

/// What typed tables have in common, whatever their objects are.
///
///     struct Name { sql::string name; };
///     static constexpr auto mapped =
///         sql::mapping<Name>("name", sql::key<&Name::name>("name"));
///     sql::TypedTable names(database, mapped);
///     if (!names.create())
///         return 1;
///     std::printf("%d column\n", names.fields().count()); // 1 column
class MappedTable : public TableStatements {
public:
    MappedTable(const MappedTable&) = delete;            ///< One owner of the statements.
    MappedTable& operator=(const MappedTable&) = delete; ///< One owner of the statements.

    /// Creates the table and its indexes, each unless there is one of its name, whatever its
    /// columns are. All or none.
    [[nodiscard]] bool create();

    /// Returns in words how the table in the file and its indexes differ from the mapping; an empty
    /// list if they do not. Compares names, types, nulls and keys, no other constraints. Hidden and
    /// generated columns are told from SQLite 3.26 on.
    Result<std::vector<string>> checkDeclaration();

    /// Adds the columns and indexes that the file lacks, in one transaction, or creates the table.
    /// Drops and changes nothing: returns in words what differs still, and why SQLite would not add
    /// it, as checkDeclaration() does. That is left to a migration.
    Result<std::vector<string>> sync();

    /// Returns the columns for a Table and its records: integers, enums and times as numbers, with
    /// no type for blocks of bytes and for what a Binder stores. Without a key of integers or texts
    /// its fields have no positions.
    FieldSet fields() const;

private:
    friend class MappedCursor;                                       // gives its statement back
    template <typename T, typename... Keys> friend class TypedTable; // which is one

    struct IndexText {
        string name;
        string columns; // quoted
        bool isUnique;
    };
    using Reader = const char* (*)(const Column& column, void* list);

    class ObjectBulk : public Bulk {
    public:
        ObjectBulk(MappedTable& table, integer count);
        ~ObjectBulk();

        int rows() const
        {
            return _rows;
        }
        bool add(const void* object);

    private:
        SQLWRAPPER_LOCAL static bool runRows(Bulk& bulk, Statement& statement, int row, int count);

        MappedTable& _table;
        std::vector<const void*> _objects; // that are pending
    };

    MappedTable(Database& database, const MappingView& mapping);
    ~MappedTable();

    bool addObject(const void* object, void* keyed);
    bool updateObject(const void* object);
    bool addOrUpdateObject(const void* object, void* keyed);
    bool removeByKey(const KeyValue* keys);
    Presence hasKey(const KeyValue* keys);
    Presence findByKey(const KeyValue* keys, void* object);
    Result<integer> countRows(std::string_view condition, const Argument* values, int count);
    Presence firstRow(std::string_view condition, const Argument* values, int count, void* object);
    bool loadRows(std::string_view condition, const Argument* values, int count,
                  void* (*make)(void* list), void* list);
    bool loadColumn(std::string_view name, std::string_view condition, const Argument* values,
                    int count, Reader reader, Reader readerOfMilliseconds, void* list);
    MappedCursor selectRows(std::string_view condition, const Argument* values, int count);

    SQLWRAPPER_LOCAL static Declared declared(const TableStatements& table, int index);
    SQLWRAPPER_LOCAL string columnDefinition(int index) const;
    SQLWRAPPER_LOCAL string definition() const;
    SQLWRAPPER_LOCAL std::vector<IndexText> indexes() const;
    SQLWRAPPER_LOCAL bool runAll(const char* operation);
    SQLWRAPPER_LOCAL bool compareIndex(const char* operation, const IndexText& index,
                                       std::vector<string>& remarks);
    SQLWRAPPER_LOCAL Result<std::vector<string>> check(const char* operation);
    SQLWRAPPER_LOCAL string indexDefinition(const IndexText& index) const;
    SQLWRAPPER_LOCAL bool endOf(TransactionScope& whole);
    SQLWRAPPER_LOCAL bool isOfNoTable(const std::vector<string>& remarks) const;
    SQLWRAPPER_LOCAL bool isIncomplete(const std::vector<string>& remarks) const;
    SQLWRAPPER_LOCAL bool addMissing(std::vector<string>& refusals);
    SQLWRAPPER_LOCAL bool addOne(const string& text, const string& remark,
                                 std::vector<string>& refusals);
    SQLWRAPPER_LOCAL bool store(const char* operation, Work work, const void* object, void* keyed);
    SQLWRAPPER_LOCAL Presence lookUp(const char* operation, Work work, const KeyValue* keys,
                                     const Statement::Variable* variables, int count);
    SQLWRAPPER_LOCAL const string& selection();
    SQLWRAPPER_LOCAL Presence firstBy(const char* operation, const string& start,
                                      std::string_view condition, const Argument* values, int count,
                                      const Statement::Variable* variables, int variableCount);
    SQLWRAPPER_LOCAL bool readAll(const char* operation, const string& start,
                                  std::string_view condition, const Argument* values, int count,
                                  const Statement::Variable& variable, int variableCount);

    MappingView _mapping;
    string _selection;   // of all columns; empty until it is needed
    string _counting;    // likewise
    int _chosenKey = -1; // the column whose key SQLite chooses
};

/// Whether a key of one type can be given as another: numbers as any, texts as any.
template <typename Key, typename Given>
inline constexpr bool is_key_of =
    (is_number<Key> && is_number<Given>)
    || (std::is_floating_point_v<Key> && std::is_floating_point_v<Given>)
    || (std::is_same_v<
            Key,
            string> && std::is_convertible_v<const Given&, std::string_view> && !std::is_same_v<Given, std::nullptr_t>)
    || (std::is_same_v<Key, std::vector<unsigned char>> && std::is_same_v<Given, Bytes>);

/// Objects of `T` in a table, by statements that are compiled once. `Keys` are the types of the
/// mapping's keys; both follow from the mapping.
///
///     struct Name { sql::string name; };
///     static constexpr auto mapped =
///         sql::mapping<Name>("product", sql::key<&Name::name>("name"));
///     sql::TypedTable products(database, mapped);
///     if (const auto rum = products.find("rum"))
///         std::puts(rum->name.c_str()); // rum
///
/// Names are quoted, values and keys bound; conditions are SQL that is taken as it stands, with `?`
/// for values. Each is compiled once and kept, up to eight of them, so use few texts.
///
/// Borrows the database and the mapping, which have to outlive it, and its cursors. An operation
/// that fails changes nothing, keeps the reason in error() and reports it once. One thread at a time.
template <typename T, typename... Keys> class TypedTable : public MappedTable {
public:
    /// Does not look at the file.
    template <std::size_t columns, std::size_t indexes>
    TypedTable(Database& database, const Mapping<T, KeyTypes<Keys...>, columns, indexes>& mapping)
        : MappedTable(database, mapping.view())
    {
    }
    /// Does not compile: the mapping has to last.
    template <std::size_t columns, std::size_t indexes>
    TypedTable(Database& database,
               const Mapping<T, KeyTypes<Keys...>, columns, indexes>&& mapping) = delete;

    /// Inserts the object. Where SQLite chooses its key, sets it, too.
    [[nodiscard]] bool add(T& object)
    {
        return addObject(&object, &object);
    }
    /// Inserts the object; lastKey() has the key that SQLite chose.
    [[nodiscard]] bool add(const T& object)
    {
        return addObject(&object, nullptr);
    }

    /// Inserts the objects, all or none, several rows a statement. Sets no keys.
    template <typename Iterator> [[nodiscard]] bool add(Iterator begin, Iterator end)
    {
        return add(begin, end, [](integer) { return true; });
    }

    /// Inserts likewise, and calls `progress` with the number of rows added so far, now and then and
    /// at the end. It returns whether to go on; if not, nothing is added and error().isStopped().
    template <typename Iterator, typename Progress>
    [[nodiscard]] bool add(Iterator begin, Iterator end, Progress&& progress);

    /// Sets all columns but the key in the row that has the object's key. Returns true also if there
    /// is none: changes() tells.
    [[nodiscard]] bool update(const T& object)
    {
        needKey();
        return updateObject(&object);
    }

    /// Inserts the object, or updates the row that has its key, in one statement. Where SQLite
    /// chooses the key, sets it, too.
    [[nodiscard]] bool addOrUpdate(T& object)
    {
        needKey();
        return addOrUpdateObject(&object, &object);
    }
    /// Inserts or updates likewise, and sets no key.
    [[nodiscard]] bool addOrUpdate(const T& object)
    {
        needKey();
        return addOrUpdateObject(&object, nullptr);
    }

    /// Deletes the row with this key, a value for each of its columns in their order. Returns true
    /// also if there is none: changes() tells.
    template <typename... Given> [[nodiscard]] bool remove(const Given&... key)
    {
        const KeyValues keys = keysOf(key...);
        return removeByKey(keys.values);
    }

    /// Returns whether there is a row with this key.
    template <typename... Given> [[nodiscard]] Presence has(const Given&... key)
    {
        const KeyValues keys = keysOf(key...);
        return hasKey(keys.values);
    }

    /// Returns the object with this key, nothing if there is none, or the reason of a failure, such
    /// as a cell that does not fit its member.
    template <typename... Given> Result<T> find(const Given&... key)
    {
        const KeyValues keys = keysOf(key...);
        Result<T> found{T{}};
        end(findByKey(keys.values, &*found), found);
        return found;
    }

    /// Returns how many rows there are, by what follows the table's name in the statement.
    template <typename... Values>
    Result<integer> count(std::string_view condition = std::string_view(), const Values&... values)
    {
        const Argument arguments[] = {Statement::argumentOf(values)..., nullptr};
        return countRows(condition, arguments, sizeof...(Values));
    }

    /// Returns the first object by what follows the table's name: "where at > ? order by at".
    template <typename... Values>
    Result<T> first(std::string_view condition = std::string_view(), const Values&... values)
    {
        const Argument arguments[] = {Statement::argumentOf(values)..., nullptr};
        Result<T> found{T{}};
        end(firstRow(condition, arguments, sizeof...(Values), &*found), found);
        return found;
    }

    /// Puts the objects into the vector, in place of what it had. It is empty after a failure.
    template <typename... Values>
    [[nodiscard]] bool load(std::vector<T>& objects,
                            std::string_view condition = std::string_view(),
                            const Values&... values)
    {
        const Argument arguments[] = {Statement::argumentOf(values)..., nullptr};
        const auto make = [](void* list) -> void* {
            std::vector<T>& all = *static_cast<std::vector<T>*>(list);
            all.emplace_back();
            return &all.back();
        };
        std::vector<T> before; // of which the values may be
        if constexpr (!(std::is_arithmetic_v<Values> && ...))
            before.swap(objects);
        objects.clear();
        if (loadRows(condition, arguments, sizeof...(Values), make, &objects))
            return true;
        objects.clear();
        return false;
    }

    /// Returns one column of the rows, by the column's name. Take a `std::optional` where there may
    /// be NULL.
    template <typename Value, typename... Values>
    Result<std::vector<Value>> values(std::string_view column,
                                      std::string_view condition = std::string_view(),
                                      const Values&... values);

    /// Selects objects by what follows the table's name. Copies the values. End the cursor before
    /// the table.
    template <typename... Values>
    ObjectCursor<T> select(std::string_view condition = std::string_view(), const Values&... values)
    {
        const Argument arguments[] = {Statement::argumentOf(values)..., nullptr};
        return selectRows(condition, arguments, sizeof...(Values));
    }

private:
    struct KeyValues {
        KeyValue values[sizeof...(Keys) + 1];
    };

    static constexpr void needKey()
    {
        static_assert(sizeof...(Keys) > 0, "the mapping has no key");
    }

    template <typename Key, typename Given> static KeyValue keyOf(const Given& given)
    {
        static_assert(std::is_same_v<Key, Given> || is_key_of<Key, Given>,
                      "a key of this type does not fit the table");
        if constexpr (std::is_same_v<Key, Given>)
            return {&given, nullptr};
        else if constexpr (is_key_of<Key, Given>)
            return {nullptr, Statement::argumentOf(given)};
        else
            return {nullptr, nullptr};
    }

    template <typename... Given> static KeyValues keysOf(const Given&... given)
    {
        needKey();
        static_assert(sizeof...(Keys) == 0 || sizeof...(Given) == sizeof...(Keys),
                      "the key has another number of columns");
        if constexpr (sizeof...(Given) == sizeof...(Keys))
            return {{keyOf<Keys>(given)..., {nullptr, nullptr}}};
        else
            return {};
    }

    template <typename Value, typename By>
    static const char* readerOf(const Column& column, void* list)
    {
        Value value{};
        const char* const why = By::read(column, value);
        if (why == nullptr)
            static_cast<std::vector<Value>*>(list)->push_back(std::move(value));
        return why;
    }

    void end(Presence presence, Result<T>& found) const
    {
        if (presence != Presence::present)
            found = presence == Presence::unknown ? Result<T>(error()) : Result<T>();
    }
};

template <typename T, typename... Keys>
template <typename Iterator, typename Progress>
bool TypedTable<T, Keys...>::add(Iterator begin, Iterator end, Progress&& progress)
{
    using Traits = std::iterator_traits<Iterator>;
    constexpr bool again =
        std::is_base_of_v<std::forward_iterator_tag, typename Traits::iterator_category>;
    constexpr bool stays = again && std::is_lvalue_reference_v<typename Traits::reference>;
    ObjectBulk bulk(*this, again ? std::distance(begin, end) : -1);
    if (!bulk.isReady())
        return false;
    std::vector<T> objects; // that end before the next one, in copies
    objects.reserve(stays ? 0 : bulk.rows());
    for (; begin != end; ++begin) {
        const T* object = nullptr;
        if constexpr (stays) {
            object = &*begin;
        } else {
            if (static_cast<int>(objects.size()) == bulk.rows())
                objects.clear();
            objects.push_back(*begin);
            object = &objects.back();
        }
        if (!bulk.add(object) || !bulk.report(progress))
            return false;
    }
    return bulk.addRest() && bulk.report(progress) && bulk.finish();
}

template <typename T, typename... Keys>
template <typename Value, typename... Values>
Result<std::vector<Value>> TypedTable<T, Keys...>::values(std::string_view column,
                                                          std::string_view condition,
                                                          const Values&... values)
{
    static_assert(is_readable<Value>, "no cell can be read into a variable of this type");
    static_assert(!Statement::is_view<Value>, "values() lets go of the rows: take no view");
    const Argument arguments[] = {Statement::argumentOf(values)..., nullptr};
    std::vector<Value> all;
    if constexpr (is_readable<Value>) {
        const Reader reader = readerOf<Value, Binder<Value>>;
        Reader ofMilliseconds = reader;
        if constexpr (is_time_point<typename HeldBy<Value>::Type>)
            ofMilliseconds = readerOf<Value, MillisecondsBinder<Value>>;
        if (!loadColumn(column, condition, arguments, sizeof...(Values), reader, ofMilliseconds,
                        &all))
            return error();
    }
    return all;
}

/// Runs any query, with a `?` for each of the values, and reads its rows into objects. The columns
/// are found by their names, in any order: each of the mapping has to be there, and no other. Copies
/// the values. If it fails, so does the cursor.
template <typename T, typename Keys, std::size_t columns, std::size_t indexes, typename... Values>
ObjectCursor<T> query(Database& database, const Mapping<T, Keys, columns, indexes>& mapping,
                      const string& text, const Values&... values)
{
    return ObjectCursor<T>::find(database, mapping.view(), text, values...);
}
/// Does not compile: the mapping has to last.
template <typename T, typename Keys, std::size_t columns, std::size_t indexes, typename... Values>
ObjectCursor<T> query(Database& database, const Mapping<T, Keys, columns, indexes>&& mapping,
                      const string& text, const Values&... values) = delete;

} // namespace sql

#pragma GCC visibility pop

#endif
