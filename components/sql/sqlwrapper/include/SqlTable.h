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
/// @snippet table.cpp table
///
/// The handle is borrowed: the Database it came from stays open for as long as the table is used.
/// The columns are owned. A read, and likewise a create, remove or truncate that runs a statement,
/// replaces the rows held and ends the life of every Record pointer taken from them; row writes and
/// existence tests leave both. A table is neither copied nor moved. One thread at a time.
///
/// Names, conditions, orders and keys go into the statement as they stand. Text from outside
/// belongs into a condition alone, between single quotes and through quoteStr(): "name = '" +
/// quoteStr(text) + "'". A statement ends at a zero byte: a name, condition or cell that contains
/// one cuts it short, an UPDATE perhaps before its "where".
///
/// A statement that SQLite refuses makes an operation fail with the two ERROR lines of
/// RecordSet::query(), and a count or a test for existence or a key with those of queryNumber().
/// Without a connection they fail after the assertion "_db", a test for a key after the assertion
/// "db".
class Table {
public:
    /// A table called `name` to which initTable() has yet to give connection and columns.
    explicit Table(const string& name);

    /// A table with the columns of an array that an ending field closes, as FieldSet takes them: a
    /// PRIMARY KEY column of a wrong type leaves it without columns, and an ERROR line and the
    /// assertion "false" are the only sign; so is that assertion alone when there is no key column.
    Table(sqlite3* db, const string& name, const Field* fields);

    /// A table with a copy of the columns.
    Table(sqlite3* db, const string& name, const FieldSet& fields);

    /// @{
    /// Not copied: the rows point at the table's own columns.
    Table(const Table&) = delete;
    Table& operator=(const Table&) = delete;
    /// @}

    /// Discards the rows held, takes the connection and appends the columns; the result is that of
    /// FieldSet::initFieldSet(). Meant for a table built from its name.
    bool initTable(sqlite3* db, const Field* fields);

    /// The name given to the constructor.
    string name() const;

    /// The columns, which live as long as the table; never null. New records are built on them.
    const FieldSet* fields() const;

    /// The connection; null before initTable() has given one.
    sqlite3* getHandle();

    /// Whether the database has a table of exactly this name, letter case included; views,
    /// temporary tables and tables of attached databases do not count. Also true when that cannot
    /// be found out: the ERROR line "Failed to determine if table '...' exists" is the only sign.
    /// False after the assertion "_db" without a connection.
    bool exists();

    /// Creates the table. When exists() is true it does nothing and is true, also where that could
    /// not be found out: an existing table's columns are not looked at, and the rows held stay.
    /// False when SQLite refuses, and without columns: "Failed to build SQL CREATE TABLE stmt for
    /// table ..." and the assertion "false", each twice.
    bool create();

    /// Drops the table with all its rows, and discards the rows held. False also when there is
    /// none.
    bool remove();

    /// Deletes every row, and discards the rows held. False when SQLite refuses.
    bool truncate();

    /// The number of rows in the database, narrowed to 32 bits; -1 on failure. Without a connection
    /// after the assertion "_db".
    int totalRecordCount() const;

    /// The statement that creates the table: "CREATE TABLE product (id INTEGER PRIMARY KEY, name
    /// TEXT)". Empty without columns: "Failed to build SQL CREATE TABLE stmt for table ..." and the
    /// assertion "false".
    string getDefinition() const;

    /// The columns, numbered from 1, with CR LF between two of them: "1. id INTEGER PRIMARY KEY".
    string toString() const;

    /// @{
    /// Load all rows, or those that fulfil a condition such as "price > 2", in no particular order
    /// or in one such as "name" or "price desc, name". Empty texts stand for no condition and no
    /// order. False on failure; the rows that SQLite delivered before it failed are then held.
    bool open();
    bool open(const string& whereCondition);
    bool open(const string& whereCondition, const string& sortBy);
    /// @}

    /// Runs any statement and holds the rows that it yields, filled by position: it selects the
    /// table's columns in their order, or rows are filled amiss. Fails as open() does.
    bool query(const string& sql);

    /// The number of rows held.
    int recordCount() const;

    /// @{
    /// A row held, by position or the first one, also after a load that failed; null outside
    /// [0, recordCount()). The table owns it, until the rows held are replaced.
    Record* getRecord(int index);
    Record* getTopRecord();
    /// @}

    /// @{
    /// Loads the row whose key column equals `key` and returns it; it lives until the rows held are
    /// replaced. Null when no row matches or the query fails, and the rows held are replaced even
    /// then. Null as well when the table has no key column, which keeps the rows held: "Failed to
    /// get name of PRIMARY KEY column" twice and the assertion "false" twice.
    ///
    /// A string key goes between double quotes as it stands: a key that contains one breaks the
    /// statement, or becomes part of it, and a key that reads like the name of a column is taken
    /// for that column.
    Record* getRecordByKeyId(string key);
    Record* getRecordByKeyId(integer key);
    /// @}

    /// @{
    /// Whether the database has a row whose key column equals `key`; also false on failure. Keys as
    /// with getRecordByKeyId(), and without a key column the same reports: "Failed to get name of
    /// PRIMARY KEY column" twice and the assertion "false" twice. The rows held stay.
    bool hasRecordWithKeyId(string key);
    bool hasRecordWithKeyId(integer key);
    /// @}

    /// Inserts the record, its key included, under the names of the record's own columns; a null
    /// integer key lets SQLite choose one. False also when the statement cannot be built: the lines
    /// of Record::toSqlInsert() and "Failed to build SQL INSERT statement for table '...'". The
    /// rows held stay, as with all writes below.
    bool addRecord(const Record& record);

    /// Updates the row that has the record's key, under the names of the record's own columns; true
    /// also when there is none, as for a null key. False also when the statement cannot be built:
    /// the lines of Record::toSqlUpdate(), which tells of the keys it needs, and "Failed to build
    /// SQL UPDATE statement for table '...'".
    bool updateRecord(const Record& record);

    /// @{
    /// Does updateRecord() when a row with this key exists, otherwise addRecord(), also when that
    /// cannot be found out. The key only chooses: what is written has the record's own key. Fails
    /// as the one chosen does; the lines of hasRecordWithKeyId() alone are no failure.
    ///
    /// Within a transaction, on a disk that may be full, prefer deleteRecord() and addRecord(): the
    /// question for the row may fail and end the transaction, and the row is then added outside of
    /// it.
    bool addOrUpdateRecord(string key, const Record& record);
    bool addOrUpdateRecord(integer key, const Record& record);
    /// @}

    /// @{
    /// Deletes the row whose key column equals `key`; true also when there is none. Keys as with
    /// getRecordByKeyId(), and without a key column the same reports: "Failed to get name of
    /// PRIMARY KEY column" twice and the assertion "false" twice.
    bool deleteRecord(string key);
    bool deleteRecord(integer key);
    /// @}

    /// Deletes the rows that fulfil the condition, all rows for an empty one; true also when none
    /// does. False when SQLite refuses.
    bool deleteRecords(const string& whereCondition);

    /// Adds every row that `source` holds to this table, under the names of `source`'s columns.
    /// False as soon as one is refused; those added before stay, unless the caller's transaction
    /// says otherwise.
    bool copyRecords(Table& source);

    /// Makes this table anew as a copy of `source`, whose rows are all loaded for it. True when
    /// both then count the same number of rows, and when neither can be counted. Undoes nothing on
    /// failure: what was in this table is gone, and the table itself may be. When this table cannot
    /// be dropped, its old rows stay among the new ones. Within a transaction see whether it is
    /// still open (sqlite3_get_autocommit): a fault that ends it while the rows are counted leaves
    /// two tables that cannot be.
    ///
    /// Never back up a table onto itself, nor onto another object for the same table of the same
    /// file: the rows are dropped before they are read.
    bool backup(Table& source);

private:
    sqlite3* _db;
    string _name;
    RecordSet _recordSet;
};

} // namespace sql

#pragma GCC visibility pop

#endif
