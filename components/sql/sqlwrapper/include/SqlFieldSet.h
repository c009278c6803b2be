#ifndef SQLWRAPPER_SQLFIELDSET_H
#define SQLWRAPPER_SQLFIELDSET_H

#include "SqlCommon.h"
#include "SqlField.h"

#include <vector>

#pragma GCC visibility push(default)

namespace sql {

/// The ordered columns of a table, owned as copies. The first PRIMARY KEY column is the key column,
/// which is of type_int or type_text.
///
/// @snippet fieldset.cpp fieldset
///
/// Records point at the set they are built on, so it outlives them unchanged. Pointers to fields
/// live until the set is assigned to, extended or destroyed. Any number of threads may read a set;
/// one that changes it has it alone.
class FieldSet {
public:
    /// The columns of an array that an ending field closes, as initFieldSet() takes them and with
    /// its failures, which the set does not tell afterwards. A null `fields` makes an empty set.
    explicit FieldSet(const Field* fields);

    /// Copies of the fields as they are: positions stay what they were (-1 for fields never in a
    /// set, so that records do not find such columns by name), and no key column is looked for.
    explicit FieldSet(const std::vector<Field>& fields);

    /// Appends the columns of an array that an ending field closes and gives them their positions,
    /// counted from the start of the array. True when the set has a key column in the end, and for
    /// a null `fields`, which changes nothing. The array is not needed afterwards.
    ///
    /// False after the assertion "false" when there is no key column; the columns stay. False as
    /// well when a PRIMARY KEY column is of another type than type_int or type_text, with the ERROR
    /// line "PRIMARY KEY column '...' must be of type 'integer' or 'text' instead of type '...'"
    /// and the assertion "false"; the set is then empty.
    ///
    /// Meant for an empty set: on any other the positions go to the first fields of the set.
    bool initFieldSet(const Field* fields);

    /// The number of columns.
    int count() const;

    /// The field at a position; null outside [0, count()).
    const Field* getByIndex(int index) const;

    /// The first field of exactly this name; null when there is none.
    const Field* getByName(const string& name) const;

    /// The name of the key column. Without one: an ERROR line "Failed to get name of PRIMARY KEY
    /// column", the assertion "false" and an empty text.
    string getKeyIdName() const;

    /// The columns of a CREATE TABLE statement: "id INTEGER PRIMARY KEY, name TEXT". A column of an
    /// undefined type fails as in Field::getDefinition().
    string getDefinition() const;

    /// The column names: "id, name". Empty without columns. A column that cannot be found, because
    /// the set's memory has been overwritten, is left out, with an ERROR line "No field for index
    /// 2" and the assertion "false".
    string toSql() const;

    /// Field::dump() of every field, with CR LF between two of them, and with its failure. A lost
    /// column as in toSql(): "No field for index 2" and the assertion "false".
    string dump() const;

private:
    friend class Record; // goes through the columns of its rows

    // toSql(), appended to a statement.
    SQLWRAPPER_LOCAL void toSql(string& statement) const;

    std::vector<Field> _fields;
};

} // namespace sql

#pragma GCC visibility pop

#endif
