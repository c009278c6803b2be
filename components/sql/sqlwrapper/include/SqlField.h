#ifndef SQLWRAPPER_SQLFIELD_H
#define SQLWRAPPER_SQLFIELD_H

#include "SqlCommon.h"

#include <cstdint>

#pragma GCC visibility push(default)

namespace sql {

/// @{
/// Column constraints, combined by OR. A Field keeps other bits and ignores them.
constexpr int flag_none = 0;
constexpr int flag_not_null = 1;
constexpr int flag_primary_key = 2;
constexpr int flag_unique = 4;
/// @}

/// The definition of one column. An application declares a table as a static array of fields that
/// an ending field, one without a name, closes:
///
///     static const sql::Field columns[] = {
///         sql::Field("id", sql::type_int, sql::flag_primary_key),
///         sql::Field("name", sql::type_text, sql::flag_not_null),
///         sql::Field(),
///     };
///
/// A plain value that owns its name and never changes but by assignment; any number of threads may
/// read it. The name goes into SQL as it stands: plain identifiers only.
class Field {
public:
    /// The ending field: no name, type_int, no flags.
    Field();

    /// A column. An empty `name` reports the assertion "name.empty() == false" and makes an ending
    /// field; neither type nor flags are checked.
    Field(const string& name, field_type type, int flags);

    /// True for a field without a name, whatever its type and flags.
    bool isEndingField() const;

    /// What the column holds, as it was declared.
    field_type getType() const;

    /// The position in the FieldSet that holds this copy, from 0; -1 for a field of its own.
    int getIndex() const;

    /// The column's name; empty for an ending field.
    string getName() const;

    /// @{
    /// Whether the column was declared with flag_primary_key, flag_not_null or flag_unique.
    bool isPrimaryKey() const;
    bool isNotNull() const;
    bool isUnique() const;
    /// @}

    /// The type in a table definition: "INTEGER" (also for type_bool and type_time), "TEXT" or
    /// "REAL". Any other type reports the assertion "false" and gives an empty text.
    string getTypeStr() const;

    /// The constraints in a table definition, each after a blank and in this order:
    /// " PRIMARY KEY NOT NULL UNIQUE". Empty without constraints.
    string getFlags() const;

    /// The column in a table definition, without blanks at the ends: "id INTEGER PRIMARY KEY NOT
    /// NULL". Any other type than the five fails as in getTypeStr().
    string getDefinition() const;

    /// One line for diagnostics: "0: name=id, type=integer, flags: PRIMARY KEY NOT NULL". Any other
    /// type than the five shows as "undefined" and reports the assertion "false".
    string dump() const;

private:
    friend class FieldSet; // gives its copies their positions, and compares names in place
    friend class Record;   // writes names into statements without copies of them

    string _name;
    field_type _type;
    std::int32_t _index;
    std::int32_t _flags;
};

} // namespace sql

#pragma GCC visibility pop

#endif
