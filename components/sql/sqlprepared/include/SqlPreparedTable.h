#ifndef SQLPREPARED_SQLPREPAREDTABLE_H
#define SQLPREPARED_SQLPREPAREDTABLE_H

#include "SqlTable.h"
#include "SqlTableStatements.h"

#include <iterator>

#pragma GCC visibility push(default)

namespace sql {

/// The records that a PreparedTable selects, read one by one: one row in memory, however many there
/// are.
///
///     sql::PreparedTable fast(database, products);
///     auto cheap = fast.select("where price < ? order by name", 3.5);
///     sql::Record record(*products.fields());
///     while (cheap.next(record))
///         std::puts(record.toString().c_str()); // 1|rum|2.5
///     if (!cheap.finished())
///         std::puts(cheap.error().text().c_str());
///
/// Owns its statement, borrows the database and the table's columns. A loop that ended by a failure
/// for which nobody asked is reported by an assertion at the end of its scope. One thread at a time.
class [[nodiscard]] RecordCursor {
public:
    RecordCursor(RecordCursor&& other) noexcept;            ///< Takes all; the other is released.
    RecordCursor& operator=(RecordCursor&& other) noexcept; ///< Releases, then takes all.
    RecordCursor(const RecordCursor&) = delete;             ///< A cursor has one owner.
    RecordCursor& operator=(const RecordCursor&) = delete;  ///< A cursor has one owner.
    ~RecordCursor();                                        ///< Releases the statement.

    /// Reads the next row into the record, whose memory is used again. Returns false at the end and
    /// on failure, and from then on. The record needs the table's columns.
    [[nodiscard]] bool next(Record& record);

    bool finished() const;      ///< Returns whether the last row was read and nothing failed.
    const Error& error() const; ///< Returns why it failed; lives as long as the cursor.

    /// Stands at a row, or behind the last one. All of a cursor go on together.
    ///
    ///     for (const sql::Record& product : fast.select("order by name"))
    ///         std::puts(product.toString().c_str());
    class Iterator {
    public:
        using iterator_category = std::input_iterator_tag; ///< It reads each row once.
        using value_type = Record;                         ///< What it reads.
        using difference_type = std::ptrdiff_t;            ///< Unused.
        using pointer = const Record*;                     ///< Lives until the cursor goes on.
        using reference = const Record&;                   ///< Lives until the cursor goes on.

        /// Returns the record.
        reference operator*() const
        {
            return *_record;
        }
        /// Returns the record.
        pointer operator->() const
        {
            return _record;
        }
        /// Reads the next row.
        Iterator& operator++()
        {
            _record = _cursor->nextOwn();
            return *this;
        }
        /// Returns whether both stand at a row, or neither.
        bool operator==(const Iterator& other) const
        {
            return _record == other._record;
        }
        /// Returns whether only one stands at a row.
        bool operator!=(const Iterator& other) const
        {
            return _record != other._record;
        }

    private:
        friend class RecordCursor; // makes it

        Iterator(RecordCursor* cursor, const Record* record) : _cursor(cursor), _record(record)
        {
        }

        RecordCursor* _cursor;
        const Record* _record;
    };

    /// Reads the first row that is left into a record of its own, for a loop
    /// `for (const sql::Record& record : cursor)`.
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
    friend class PreparedTable; // makes it

    SQLWRAPPER_LOCAL RecordCursor(Statement statement, const FieldSet& fields);
    const Record* nextOwn();

    Statement _statement;
    const FieldSet* _fields;
    std::vector<Argument> _cells;  // of the row
    std::optional<Record> _record; // that a loop reads
    mutable bool _isAsked = false; // whether anybody wanted to know of its failure
};

/// The records of a Table by statements that are compiled once, with values that are bound.
///
///     sql::PreparedTable fast(database, products);
///     sql::Record tea(*products.fields()); // SQLite chooses its key
///     tea.setString("name", "Captain's tea");
///     if (!fast.addRecord(tea))
///         std::puts(fast.error().text().c_str());
///     if (fast.readRecord(7, tea))
///         std::puts(tea.toString().c_str());
///
/// Cells are bound by the type of their column: a text as a text, with its zero bytes, anything else
/// as the number that it has to be. Names are quoted, keys are values: nothing is ever pasted. Reals
/// are read with as many digits as it takes to write the same real back.
///
/// Borrows the database and the table, for its name and columns; they have to outlive it, unchanged.
/// Compiles a statement when it is first needed; release() lets go of them before the database
/// closes. An operation that fails changes nothing, keeps the reason in error() and reports it once.
/// Records need the table's columns: the same names in the same order. One thread at a time.
class PreparedTable : public TableStatements {
public:
    PreparedTable(Database& database, const Table& table);           ///< Does not look at the file.
    PreparedTable(Database& database, const Table&& table) = delete; ///< The table has to last.
    PreparedTable(const PreparedTable&) = delete;            ///< Its statements have one owner.
    PreparedTable& operator=(const PreparedTable&) = delete; ///< Its statements have one owner.
    ~PreparedTable();                                        ///< Releases the statements.

    /// Inserts the record. For a null integer key SQLite chooses one: lastKey().
    [[nodiscard]] bool addRecord(const Record& record);

    /// Sets all columns but the key in the row that has the record's key, of any type and in any
    /// place. Returns true also if there is none: changes() tells.
    [[nodiscard]] bool updateRecord(const Record& record);

    /// Inserts the record, or updates the row that has its key, in one statement. Leaves columns of
    /// the file that are not declared as they are. The file's table has to hold the key as its own.
    [[nodiscard]] bool addOrUpdateRecord(const Record& record);

    /// Deletes the row with this key, an integer or a text. Returns true also if there is none:
    /// changes() tells. An integer key may be given as its decimal digits.
    template <typename Key> [[nodiscard]] bool deleteRecord(const Key& key)
    {
        return deleteByKey(Statement::argumentOf(key));
    }

    /// Returns whether there is a row with this key.
    template <typename Key> [[nodiscard]] Presence hasRecordWithKeyId(const Key& key)
    {
        return hasKey(Statement::argumentOf(key));
    }

    /// Reads the row with this key into the record, whose memory is used again. Returns true, or
    /// nothing if there is no such row, which leaves the record as it is, or the reason of a
    /// failure, such as a block of bytes, which a Record cannot hold.
    template <typename Key> Result<bool> readRecord(const Key& key, Record& record)
    {
        return readByKey(Statement::argumentOf(key), record);
    }

    /// Inserts the records, all or none, several rows a statement.
    template <typename Iterator> [[nodiscard]] bool addRecords(Iterator begin, Iterator end)
    {
        return addRecords(begin, end, [](integer) { return true; });
    }

    /// Inserts likewise, and calls `progress` with the number of rows added so far, now and then and
    /// at the end. It returns whether to go on; if not, nothing is added and error().isStopped().
    template <typename Iterator, typename Progress>
    [[nodiscard]] bool addRecords(Iterator begin, Iterator end, Progress&& progress);

    /// Adds all rows of another table, which may be of another database or connection, column by
    /// column of this table's names, as they are there. All or none; one row in memory.
    [[nodiscard]] bool copyRecords(PreparedTable& source);

    /// Selects records by what follows the table's name in the statement: SQL with `?`, such as
    /// "where price < ? order by name". Copies the values.
    template <typename... Values>
    RecordCursor select(std::string_view condition = std::string_view(), const Values&... values)
    {
        const Argument arguments[] = {Statement::argumentOf(values)..., nullptr};
        return selectWith(condition, arguments, sizeof...(Values));
    }

    /// Returns in words how the table in the file differs from the declaration; an empty list if it
    /// does not.
    Result<std::vector<string>> checkDeclaration();

private:
    // Records that end before the next one are copied.
    class RecordBulk : public Bulk {
    public:
        RecordBulk(const char* operation, PreparedTable& table, bool stays, integer count);
        ~RecordBulk();

        bool add(const Record& record);

    private:
        friend class PreparedTable;

        SQLWRAPPER_LOCAL static bool runRows(Bulk& bulk, Statement& statement, int row, int count);
        SQLWRAPPER_LOCAL const Record& lasting(const Record& record);
        SQLWRAPPER_LOCAL Argument* cellsOf(int row);
        SQLWRAPPER_LOCAL bool failToTake(int index);
        SQLWRAPPER_LOCAL bool copyAll(Statement& rows);

        PreparedTable& _table;
        bool _stays;
        std::vector<Record> _records;
        std::vector<Argument> _cells;
        std::forward_list<string> _texts; // that some of the cells borrow
    };

    bool deleteByKey(const Argument& key);
    Presence hasKey(const Argument& key);
    Result<bool> readByKey(const Argument& key, Record& record);
    RecordCursor selectWith(std::string_view condition, const Argument* values, int count);

    SQLWRAPPER_LOCAL static Declared declared(const TableStatements& table, int index);
    SQLWRAPPER_LOCAL bool store(const char* operation, Work work, const Record& record);
    SQLWRAPPER_LOCAL bool failToTake(const char* operation, Statement& statement, int index);
    SQLWRAPPER_LOCAL bool failToFind(const char* operation, Statement& statement, const char* why);
    SQLWRAPPER_LOCAL const char* whyNotFound(const Record& record);
    SQLWRAPPER_LOCAL const Argument* keyFor(const char* operation, Statement& statement,
                                            const Argument& given);
    SQLWRAPPER_LOCAL const Argument* otherKey(const char* operation, Statement& statement,
                                              const Argument& given);
    SQLWRAPPER_LOCAL Presence find(const char* operation, Work work, const Argument& key,
                                   const Statement::Variable* variables, int count);
    SQLWRAPPER_LOCAL Error whyNotCopied(const PreparedTable& source) const;

    const FieldSet* _fields;
    std::vector<field_type> _types; // of the columns
    std::vector<Argument> _cells;   // of a row
    int _keyIndex = -1;             // of the first column of the key
};

template <typename Iterator, typename Progress>
bool PreparedTable::addRecords(Iterator begin, Iterator end, Progress&& progress)
{
    using Traits = std::iterator_traits<Iterator>;
    constexpr bool again =
        std::is_base_of_v<std::forward_iterator_tag, typename Traits::iterator_category>;
    constexpr bool stays = again && std::is_lvalue_reference_v<typename Traits::reference>;
    RecordBulk bulk("addRecords", *this, stays, again ? std::distance(begin, end) : -1);
    if (!bulk.isReady())
        return false;
    for (; begin != end; ++begin) {
        if (!bulk.add(*begin) || !bulk.report(progress))
            return false;
    }
    return bulk.addRest() && bulk.report(progress) && bulk.finish();
}

} // namespace sql

#pragma GCC visibility pop

#endif
