#ifndef SQLWRAPPER_SQLRECORD_H
#define SQLWRAPPER_SQLRECORD_H

#include "SqlCommon.h"
#include "SqlField.h"
#include "SqlFieldSet.h"
#include "SqlValue.h"

#include <vector>

#pragma GCC visibility push(default)

namespace sql {

/// One row: a cell for each column of a FieldSet, in column order.
///
///     sql::Record tea(*products.fields());
///     tea.setInteger("id", 7);
///     tea.setString("name", "Captain's tea");
///     if (const sql::Value* const name = tea.getValue("name"))
///         std::puts(name->asString().c_str()); // Captain's tea
///     std::puts(tea.toSql().c_str()); // 7, 'Captain''s tea', null
///
/// Owns its cells and borrows the FieldSet, which must outlive the record and its copies,
/// unchanged: never build a record on a temporary FieldSet. Pointers to cells live until the record
/// is assigned to, moved from or destroyed. An operation that fails changes nothing and reports
/// why. One thread at a time.
class Record {
public:
    Record(const FieldSet& fields);             ///< Makes a row of nulls of the columns' types.
    Record(const Record* other);                ///< Copies `*other`, which must not be null.
    Record(const Record& other);                ///< Copies the cells, borrows the same FieldSet.
    Record& operator=(const Record& other);     ///< Copies the cells, borrows the same FieldSet.
    Record(Record&& other) noexcept;            ///< Moves the cells, borrows the same FieldSet.
    Record& operator=(Record&& other) noexcept; ///< Moves the cells, borrows the same FieldSet.

    const FieldSet* fields() const; ///< Returns the borrowed columns.
    int columnCount() const;        ///< Returns the number of cells.

    /// Stores a copy of the text, null for NULL, and the type in a cell. Returns false for an index
    /// outside [0, columnCount()).
    bool initColumnValue(int index, const char* text, field_type type);

    Value* getValue(int index);                      ///< Returns a cell; null if there is none.
    const Value* getValue(int index) const;          ///< Returns a cell; null if there is none.
    Value* getValue(const string& name);             ///< Returns a cell; null if there is none.
    const Value* getValue(const string& name) const; ///< Returns a cell; null if there is none.
    const Value* getKeyIdValue() const; ///< Returns the key column's cell; null if there is none.

    /// Returns the definition of a column, which the FieldSet owns; null for an unknown name.
    const Field* fieldByName(const string& name) const;

    void setNull(int index);          ///< Makes a cell null. Setters keep the cell's type.
    void setNull(const string& name); ///< Makes a cell null.

    /// Stores a text. In a number column it goes into statements without quotes: never store text
    /// from outside there.
    void setString(int index, const string& s);
    void setString(const string& name, const string& s); ///< Stores a text, as by position.
    void setInteger(int index, integer n);               ///< Stores an integer.
    void setInteger(const string& name, integer n);      ///< Stores an integer.
    void setDouble(int index, double d);                 ///< Stores a real with eight decimals.
    void setDouble(const string& name, double d);        ///< Stores a real with eight decimals.
    void setBool(int index, bool b);                     ///< Stores 1 or 0.
    void setBool(const string& name, bool b);            ///< Stores 1 or 0.
    void setTime(int index, Time t);                     ///< Stores the seconds since the epoch.
    void setTime(const string& name, Time t);            ///< Stores the seconds since the epoch.

    /// Compares the cells of one column by this record's Value::equals(). Returns false if either
    /// record lacks it, and for a null `other`.
    bool equalsColumnValue(const Record* other, const string& name) const;

    /// Compares the cells of this record's columns by name, but for PRIMARY KEY columns. A column
    /// that one record lacks counts as equal, after a report. Returns false for a null `other`.
    bool equalsValues(const Record* other) const;

    string toString() const;           ///< Returns the cells: "7|tea|null".
    string dump(bool withTypes) const; ///< Returns names and cells: "id = 7|name = tea".

    /// Returns SQL literals: "7, 'tea', null". Returns an empty text if a column has no cell.
    string toSql() const;

    /// Returns the statement that inserts all columns: "insert into product (id, name) values (7,
    /// 'tea')". Returns an empty text without a table name, columns or cells.
    string toSqlInsert(const string& tableName) const;

    /// Returns the statement that sets all columns but the key in the row with this record's key:
    /// "update product set name='tea' where id = 7". Returns an empty text without a table name, a
    /// key column or a cell. Needs an integer key that is not the last column.
    string toSqlUpdate(const string& tableName) const;

private:
    friend class RecordSet;     // builds its rows
    friend struct RecordAccess; // of sqlprepared, which binds and fills cells without copies

    // A row as SQLite hands it out: cells without a text are null.
    SQLWRAPPER_LOCAL Record(const FieldSet& fields, int textCount, const char* const* texts);

    const FieldSet* _fields;
    std::vector<Value> _values;
};

} // namespace sql

#pragma GCC visibility pop

#endif
