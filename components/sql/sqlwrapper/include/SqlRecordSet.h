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

/// Runs SQL statements and holds the rows of the latest one.
///
///     sql::RecordSet cheap(database.getHandle(), columns);
///     if (!cheap.query("select id, name from product where price < 3"))
///         return 1;
///     for (int i = 0; i < cheap.count(); ++i)
///         std::printf("%s\n", cheap.getRecord(i)->toString().c_str());
///
/// Borrows the connection, owns columns and rows. Pointers to rows and cells live until the next
/// query(), close() or initRecordSet(), or the end of the set. One thread at a time.
class RecordSet {
public:
    RecordSet();            ///< Has neither connection nor columns until initRecordSet().
    RecordSet(sqlite3* db); ///< Has no columns: rows are counted, but have no cells.
    RecordSet(sqlite3* db, const FieldSet& fields);  ///< Copies the columns.
    RecordSet(sqlite3* db, const Field* fields);     ///< Takes the columns as FieldSet does.
    RecordSet(const RecordSet&) = delete;            ///< The rows point at the set's columns.
    RecordSet& operator=(const RecordSet&) = delete; ///< The rows point at the set's columns.
    ~RecordSet();                                    ///< Discards the rows.

    /// Discards the rows, takes the connection and appends the columns, with the result of
    /// FieldSet::initFieldSet(). Meant for a set without columns.
    bool initRecordSet(sqlite3* db, const Field* fields);

    /// Discards the rows and the result of the latest query().
    void close();

    /// Discards the rows held, then runs a statement, or several separated by semicolons, and holds
    /// their rows. The i-th value of a row fills the i-th column, whatever its name; more values
    /// are ignored, and columns without one are null. Returns false, and reports why, if SQLite
    /// fails or memory runs out; do not use the rows that came before.
    bool query(const string& sql);

    /// Returns whether the latest query() succeeded; false before the first and after close().
    bool isResultOk() const;

    int count() const;                        ///< Returns the number of rows held.
    Record* getRecord(int index);             ///< Returns a row; null outside [0, count()).
    const Record* getRecord(int index) const; ///< Returns a row; null outside [0, count()).

    /// Returns the first row; null if there is none or the latest query() failed.
    const Record* getTopRecord() const;

    /// Returns the first cell of getTopRecord(); null if there is none.
    const Value* getTopRecordFirstValue() const;

    const FieldSet* fields() const; ///< Returns the columns, which live as long as the set.
    string toString() const;        ///< Returns numbered rows, CR LF behind each: "1. 7|tea".

    /// Appends a row to the RecordSet at `recordSet`, as the callback that query() gives to
    /// sqlite3_exec(). Null `values` without `columnNames` make a row of nulls; with them they
    /// announce a result without rows. Returns 0 to go on, 1 to end the query if memory runs out.
    static int on_next_record(void* recordSet, int columnCount, char** values, char** columnNames);

private:
    friend class Table; // writes beside the rows that it holds

    // Does what query() does, but keeps the rows held and their result, and no new rows.
    SQLWRAPPER_LOCAL bool queryAside(const string& sql);

    // Takes a row from SQLite: traces it, and perhaps keeps it.
    SQLWRAPPER_LOCAL static int takeRow(RecordSet& set, bool keep, int columnCount, char** values,
                                        char** columnNames);

    sqlite3* _db;
    std::int32_t _rc;
    FieldSet _fields;
    std::vector<Record> _records;
};

} // namespace sql

#pragma GCC visibility pop

#endif
