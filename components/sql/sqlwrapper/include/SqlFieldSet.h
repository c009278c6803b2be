#ifndef SQLWRAPPER_SQLFIELDSET_H
#define SQLWRAPPER_SQLFIELDSET_H

#include "SqlCommon.h"
#include "SqlField.h"

#include <vector>

#pragma GCC visibility push(default)

namespace sql {

/// The columns of a table in their order. The first PRIMARY KEY column is the key column; it holds
/// integers or texts.
///
///     const sql::FieldSet fields(columns);
///     std::printf("%d columns, key %s\n", fields.count(),
///                 fields.getKeyIdName().c_str()); // 3 columns, key id
///     if (const sql::Field* const name = fields.getByName("name"))
///         std::printf("%s\n", name->getDefinition().c_str()); // name TEXT
///
/// Owns copies of the fields. Records borrow the set: keep it, unchanged, for as long as they live.
/// Pointers to fields live until the set is assigned to, extended or destroyed.
class FieldSet {
public:
    /// Takes the columns as initFieldSet() does; a null `fields` makes an empty set.
    FieldSet(const Field* fields);

    /// Copies the fields as they are: without new positions, and without a look for a key column.
    /// Records find no column by name whose position is still -1.
    FieldSet(const std::vector<Field>& fields);

    FieldSet(const FieldSet& other);            ///< Copies the fields.
    FieldSet& operator=(const FieldSet& other); ///< Copies the fields.

    /// Appends copies of the fields up to the ending field, and numbers them from 0. Meant for an
    /// empty set: in any other, the numbers go to the fields at its start. Returns false, and
    /// reports why, without a key column, and for one of a wrong type, which empties the set.
    bool initFieldSet(const Field* fields);

    int count() const; ///< Returns the number of columns.

    /// Returns the field at a position; null outside [0, count()).
    const Field* getByIndex(int index) const;

    /// Returns the first field of exactly this name; null if there is none.
    const Field* getByName(const string& name) const;

    /// Returns the name of the key column. Reports the lack of one and returns an empty text.
    string getKeyIdName() const;

    /// Returns the columns of a CREATE TABLE statement: "id INTEGER PRIMARY KEY, name TEXT".
    string getDefinition() const;

    /// Returns the column names: "id, name".
    string toSql() const;

    /// Returns Field::dump() of every field, with CR LF between two of them.
    string dump() const;

private:
    std::vector<Field> _fields;
};

} // namespace sql

#pragma GCC visibility pop

#endif
