#ifndef SQLWRAPPER_SQLRECORD_H
#define SQLWRAPPER_SQLRECORD_H

#include "SqlCommon.h"
#include "SqlField.h"
#include "SqlFieldSet.h"
#include "SqlValue.h"

#include <vector>

#pragma GCC visibility push(default)

namespace sql {

/// One row: a cell for every column of a FieldSet, owned, in column order. The set itself is
/// borrowed and must outlive the record, and every copy of it, unchanged.
///
/// @snippet record.cpp record
///
/// A failure leaves the record as it was, writes the ERROR line given and then reports the
/// assertion "false"; where an operation uses another that fails, the line and assertion of that
/// one come first. Only a null `other` in a comparison goes unreported. Pointers to cells live
/// until the record is assigned to, moved from or destroyed; those into a row of a RecordSet or
/// Table, until that row is discarded. One thread at a time.
class Record {
public:
    /// A row of nulls, each of its column's type.
    explicit Record(const FieldSet& fields);

    /// A copy of `*other`, which must not be null.
    explicit Record(const Record* other);

    /// @{
    /// Copies own their cells and share the borrowed set.
    Record(const Record&) = default;
    Record& operator=(const Record&) = default;
    Record(Record&&) = default;
    Record& operator=(Record&&) = default;
    /// @}

    /// Ends the cells; the borrowed set stays.
    ~Record() = default;

    /// The columns, which are borrowed; never null.
    const FieldSet* fields() const;

    /// The number of cells.
    int columnCount() const;

    /// Fills a cell with a copy of a text as SQLite hands it out, null for NULL, and gives it the
    /// type. False for an index outside [0, columnCount()): "Column index (3) is out of range [0,
    /// 3[".
    bool initColumnValue(int index, const char* text, field_type type);

    /// @{
    /// A cell by position or by column name; null when there is none: "No value for column with
    /// index 3", "No value for column with name 'price'". The record owns it.
    Value* getValue(int index);
    const Value* getValue(int index) const;
    Value* getValue(const string& name);
    const Value* getValue(const string& name) const;
    /// @}

    /// The cell of the key column; null without one: "No PRIMARY KEY column found".
    const Value* getKeyIdValue() const;

    /// The definition of a column, which lives as long as the FieldSet; null for an unknown name:
    /// "Field/column 'price' not found".
    const Field* fieldByName(const string& name) const;

    /// @{
    /// Set a cell by position, which fails like getValue(), or by column name, which fails like
    /// fieldByName(). The cell keeps its column's type, whatever is stored.
    ///
    /// What setString() stores in a column of another type than type_text goes into statements as
    /// it stands, without quotes: never store text from outside there. A zero byte ends the
    /// statement.
    void setNull(int index);
    void setNull(const string& name);
    void setString(int index, const string& s);
    void setString(const string& name, const string& s);
    void setInteger(int index, integer n);
    void setInteger(const string& name, integer n);
    void setDouble(int index, double d);
    void setDouble(const string& name, double d);
    void setBool(int index, bool b);
    void setBool(const string& name, bool b);
    void setTime(int index, Time t);
    void setTime(const string& name, Time t);
    /// @}

    /// Whether the cells of one column are equal, by Value::equals() of this record's cell. False
    /// for a null `other`, and when one of the records has no such column: "No value for column
    /// with name 'price'".
    bool equalsColumnValue(const Record* other, const string& name) const;

    /// Whether all cells but those of PRIMARY KEY columns are equal, by Value::equals() of this
    /// record's cells: any two times are. Goes by this record's columns: one for which either
    /// record has no cell is reported as above and counts as equal, and columns of `other` alone
    /// are not looked at. False for a null `other`.
    bool equalsValues(const Record* other) const;

    /// The cells: "7|tea|null".
    string toString() const;

    /// Names and cells: "id = 7|name = tea", or with types "id = 7 (integer)|name = tea (text)",
    /// where a cell of an undefined type reports the assertion "false".
    string dump(bool withTypes) const;

    /// The cells as SQL literals: "7, 'tea', null". Empty for a record without columns, and when a
    /// column has no cell, "field with index 2 does not have value", or no definition, "field with
    /// index 2 does not exist".
    string toSql() const;

    /// The statement that inserts all columns: "insert into product (id, name) values (7, 'tea')".
    /// Empty on failure: "No table name given", "No fields to insert in table 'product'" or "No
    /// values to insert in table 'product'". The table's and columns' names go in as they stand.
    string toSqlInsert(const string& tableName) const;

    /// The statement that sets all columns but the key in the row with this record's key: "update
    /// product set name='tea' where id = 7". Empty on failure: "No table name given", "No value for
    /// column with index=1 (and name=name) of table product", "Failed to get name of PRIMARY KEY
    /// column for table product" or "No PRIMARY KEY column found for table product".
    ///
    /// Needs one integer key that is not the last column, and a column besides it: a key of another
    /// type goes in without quotes, after the assertion "value->getType() == type_int", and a key
    /// column at the end leaves a comma in front of "where". A null key matches no row. Of several
    /// key columns the first selects the row, and none is set.
    string toSqlUpdate(const string& tableName) const;

private:
    friend class RecordSet; // builds its rows

    // A row as SQLite hands it out: cells without a text are null.
    SQLWRAPPER_LOCAL Record(const FieldSet& fields, int columnCount, const char* const* texts);

    // Appends "name=value" for all columns but the key. Stops at a column that has no cell,
    // returns it and leaves its position in `position`; null when all have one.
    SQLWRAPPER_LOCAL const Field* appendAssignments(string& statement, int& position) const;

    // toSql(), appended to a statement; false on failure.
    SQLWRAPPER_LOCAL bool toSql(string& statement) const;

    // About as many bytes as names and cells take in a statement.
    SQLWRAPPER_LOCAL string::size_type statementSize() const;

    const FieldSet* _fields;
    std::vector<Value> _values;
};

} // namespace sql

#pragma GCC visibility pop

#endif
