#ifndef SQLWRAPPER_SQLTABLE_H
#define SQLWRAPPER_SQLTABLE_H

#include "SqlCommon.h"
#include "SqlField.h"
#include "SqlFieldSet.h"
#include "SqlRecord.h"
#include "SqlRecordSet.h"

#pragma GCC visibility push(default)

namespace sql {

/// A named table on an open connection, together with the rows of its latest read.
///
///     sql::Table products(database.getHandle(), "product", columns);
///     sql::Record tea(*products.fields()); // SQLite chooses its key
///     tea.setString("name", "Captain's tea");
///     if (!products.create() || !products.addRecord(tea)
///         || !products.open("price < 3", "name"))
///         return 1;
///     for (int i = 0; i < products.recordCount(); ++i)
///         std::printf("%s\n", products.getRecord(i)->toString().c_str());
///
/// Borrows the connection, owns columns and rows. Pointers to rows end with the table, and with its
/// next open(), query(), getRecordByKeyId(), create(), remove() or truncate(), or a backup() from
/// it or into it. One thread at a time.
///
/// Names, conditions, orders and keys go into SQL as they stand. Text from outside belongs into a
/// condition alone, between single quotes and through quoteStr(). An operation that fails reports
/// why.
class Table {
public:
    Table(const string& name); ///< Has neither connection nor columns until initTable().
    Table(sqlite3* db, const string& name, const Field* fields);    ///< Columns as in a FieldSet.
    Table(sqlite3* db, const string& name, const FieldSet& fields); ///< Copies the columns.
    Table(const Table&) = delete;            ///< The rows point at the table's columns.
    Table& operator=(const Table&) = delete; ///< The rows point at the table's columns.

    /// Discards the rows, takes the connection and appends the columns, with the result of
    /// FieldSet::initFieldSet(). Meant for a table built from its name.
    bool initTable(sqlite3* db, const Field* fields);

    string name() const;            ///< Returns the table's name.
    const FieldSet* fields() const; ///< Returns the columns, which live as long as the table.
    sqlite3* getHandle();           ///< Returns the connection; null before initTable().

    /// Returns whether the database has a table of exactly this name. Careful: also true if that
    /// cannot be found out, after a report. Views and temporary tables do not count.
    bool exists();

    /// Creates the table unless exists() is true. Does not look at an existing table's columns.
    bool create();

    bool remove();   ///< Drops the table with all its rows. Returns false also if there is none.
    bool truncate(); ///< Deletes every row.

    int totalRecordCount() const; ///< Returns the number of rows in the database; -1 on failure.
    string getDefinition() const; ///< Returns the CREATE TABLE statement; empty without columns.
    string toString() const;      ///< Returns numbered columns, CR LF between two: "1. id INTEGER".

    bool open(); ///< Loads all rows.

    /// Loads the rows that fulfil a condition such as "price > 2", all rows for an empty text.
    bool open(const string& whereCondition);
    /// Loads them in an order such as "price desc, name", in no particular one for an empty text.
    bool open(const string& whereCondition, const string& sortBy);

    /// Runs any statement and holds its rows, filled by position as RecordSet::query() does: select
    /// the table's columns in their order.
    bool query(const string& sql);

    int recordCount() const;      ///< Returns the number of rows held.
    Record* getRecord(int index); ///< Returns a row held; null if there is none.
    Record* getTopRecord();       ///< Returns the first row held; null if there is none.

    /// Loads the row with this key and returns it. Returns null if there is none and on failure;
    /// the rows held before are gone even then. The key stands in the statement as it is, between
    /// double quotes: never take one from outside.
    Record* getRecordByKeyId(string key);
    Record* getRecordByKeyId(integer key); ///< Loads the row with an integer key, which is safe.

    /// Returns whether the database has a row with this key; false also on failure.
    bool hasRecordWithKeyId(string key);
    bool hasRecordWithKeyId(integer key); ///< The same for an integer key.

    /// Inserts the record under the names of its own columns. For a null integer key SQLite chooses
    /// one. Keeps the rows held, as all writes below do.
    bool addRecord(const Record& record);

    /// Updates the row that has the record's key; true also if there is none. Needs an integer key
    /// that is not the last column, as Record::toSqlUpdate() does.
    bool updateRecord(const Record& record);

    /// Updates if a row with this key exists, otherwise adds, also if that cannot be found out. The
    /// key only chooses: the record is written under its own. Not for a transaction on a disk that
    /// may be full.
    bool addOrUpdateRecord(string key, const Record& record);
    bool addOrUpdateRecord(integer key, const Record& record); ///< The same for an integer key.

    /// Deletes the row with this key; true also if there is none.
    bool deleteRecord(string key);
    bool deleteRecord(integer key); ///< The same for an integer key.

    /// Deletes the rows that fulfil the condition, all rows for an empty text.
    bool deleteRecords(const string& whereCondition);

    /// Adds every row that `source` holds. Stops at the first one refused; those before it stay.
    bool copyRecords(Table& source);

    /// Drops this table and makes it anew as a copy of `source`, all of whose rows are loaded.
    /// Returns true if both counts match. Careful: also if both counts fail. Undoes nothing on
    /// failure. Never back up a table onto itself: its rows are dropped first.
    bool backup(Table& source);

private:
    sqlite3* _db;
    string _name;
    RecordSet _recordSet;
};

} // namespace sql

#pragma GCC visibility pop

#endif
