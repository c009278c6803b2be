#ifndef SQLWRAPPER_SQLRECORDSET_H
#define SQLWRAPPER_SQLRECORDSET_H

#include "SqlCommon.h"
#include "SqlField.h"
#include "SqlFieldSet.h"
#include "SqlRecord.h"
#include "SqlValue.h"

#include <vector>

#pragma GCC visibility push(default)

namespace sql {

/// Runs SQL statements on an open connection and holds the rows of the latest one.
///
/// @snippet recordset.cpp recordset
///
/// The connection is borrowed: it stays open for as long as statements are run. The set owns its
/// columns and its rows; the rows point at the columns, so a set is neither copied nor moved.
/// Pointers to rows and cells live until the next query(), close() or initRecordSet(), or until the
/// set is destroyed. One thread at a time.
class RecordSet {
public:
    /// Without a connection and columns; initRecordSet() gives it both.
    RecordSet();

    /// For statements whose rows are of no interest: rows are counted, but have no cells.
    explicit RecordSet(sqlite3* db);

    /// With a copy of the columns.
    RecordSet(sqlite3* db, const FieldSet& fields);

    /// With the columns of an array that an ending field closes, as FieldSet takes them: a PRIMARY
    /// KEY column of a wrong type leaves the set without columns, and an ERROR line and the
    /// assertion "false" are the only sign; so is that assertion alone when there is no key column.
    RecordSet(sqlite3* db, const Field* fields);

    /// @{
    /// Not copied: the rows point at the set's own columns.
    RecordSet(const RecordSet&) = delete;
    RecordSet& operator=(const RecordSet&) = delete;
    /// @}

    /// Discards the rows; the connection stays open.
    ~RecordSet();

    /// Discards the rows, takes the connection and appends the columns; the result is that of
    /// FieldSet::initFieldSet(). Meant for a set without columns, since those it has stay.
    bool initRecordSet(sqlite3* db, const Field* fields);

    /// Discards the rows and the result of the latest statement; room for as many rows is kept.
    void close();

    /// Runs a statement, or several separated by semicolons, and holds the rows in the order in
    /// which SQLite delivers them; the rows of before are discarded first. A row's i-th value fills
    /// the i-th column of the set, whatever its name: more values are ignored, and columns without
    /// one are null. At DEBUG3 every row is traced.
    ///
    /// False when SQLite reports an error, and when memory runs out for a row (SQLITE_ABORT): two
    /// ERROR lines, "Failed to run the SQL stmt '...'" and "  rc=1=SQLITE_ERROR: ...", or
    /// "  rc=7=SQLITE_NOMEM" where SQLite has no words; the rows delivered until then stay. When
    /// SQLite itself runs out of memory (SQLITE_NOMEM), the last of them may have null cells in
    /// place of values: use no row of a query that failed. False after the assertion "_db" without
    /// a connection.
    bool query(const string& sql);

    /// Whether the latest query() succeeded; false before the first one, and after close() and
    /// initRecordSet().
    bool isResultOk() const;

    /// The number of rows held.
    int count() const;

    /// @{
    /// The row at a position, also after a query() that failed; null outside [0, count()).
    Record* getRecord(int index);
    const Record* getRecord(int index) const;
    /// @}

    /// The first row; null when there is none or the latest query() failed.
    const Record* getTopRecord() const;

    /// The first cell of the first row; null when getTopRecord() is, and for rows without cells,
    /// which Record::getValue() reports.
    const Value* getTopRecordFirstValue() const;

    /// The columns, which live as long as the set; never null. Pointers to its fields end with
    /// initRecordSet().
    const FieldSet* fields() const;

    /// The rows, numbered from 1 and each ended by CR LF: "1. 7|tea", then "2. 8|null".
    string toString() const;

    /// The callback through which query() takes a row from sqlite3_exec(): appends it to the
    /// RecordSet that `recordSet` points at. The column names are not used, and null `values` add
    /// no row. 0 to go on; 1, which ends the statement, when memory runs out.
    static int on_next_record(void* recordSet, int columnCount, char** values, char** columnNames);

private:
    friend class Table; // writes beside the rows that it holds

    struct Run; // runs a statement, for a set or for none

    // Runs a statement whose rows, if it has any, are only traced.
    SQLWRAPPER_LOCAL static bool write(sqlite3* db, const FieldSet& fields, const string& sql);

    sqlite3* _db;
    std::int32_t _rc;
    FieldSet _fields;
    std::vector<Record> _records;
};

} // namespace sql

#pragma GCC visibility pop

#endif
