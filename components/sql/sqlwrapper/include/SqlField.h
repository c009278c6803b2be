#ifndef SQLWRAPPER_SQLFIELD_H
#define SQLWRAPPER_SQLFIELD_H

#include "SqlCommon.h"

#include <cstdint>

#pragma GCC visibility push(default)

namespace sql {

constexpr int flag_none = 0;        ///< No constraint. Combine the others by OR.
constexpr int flag_not_null = 1;    ///< NOT NULL
constexpr int flag_primary_key = 2; ///< PRIMARY KEY
constexpr int flag_unique = 4;      ///< UNIQUE

/// The definition of one column. Declare a table as a static array of fields that a field without a
/// name, the ending field, closes:
///
///     static const sql::Field columns[] = {
///         sql::Field("id", sql::type_int, sql::flag_primary_key),
///         sql::Field("name", sql::type_text, sql::flag_not_null),
///         sql::Field(),
///     };
///
/// A plain value that owns its name. Names go into SQL as they stand: use plain identifiers.
class Field {
public:
    Field(); ///< Makes the ending field.

    /// Defines a column; neither type nor flags are checked. Reports an empty `name`, which makes
    /// an ending field.
    Field(const string& name, field_type type, int flags);

    Field(const Field& other);            ///< Copies name, type, position and flags.
    Field& operator=(const Field& other); ///< Copies name, type, position and flags.

    bool isEndingField() const; ///< Returns whether the field has no name.
    field_type getType() const; ///< Returns the declared type.
    int getIndex() const;      ///< Returns the position in its FieldSet, from 0; -1 outside of one.
    string getName() const;    ///< Returns the column's name, empty for an ending field.
    bool isPrimaryKey() const; ///< Returns whether flag_primary_key was given.
    bool isNotNull() const;    ///< Returns whether flag_not_null was given.
    bool isUnique() const;     ///< Returns whether flag_unique was given.

    /// Returns the type in a table definition: "INTEGER", "TEXT" or "REAL". Booleans and times are
    /// integers. Reports any other type and returns an empty text.
    string getTypeStr() const;

    /// Returns the constraints in a table definition, each after a blank: " PRIMARY KEY NOT NULL".
    string getFlags() const;

    /// Returns the column in a table definition: "id INTEGER PRIMARY KEY".
    string getDefinition() const;

    /// Returns a line for diagnostics: "0: name=id, type=integer, flags: PRIMARY KEY".
    string dump() const;

private:
    friend class FieldSet; // gives its copies their positions
    friend class Record;   // looks for cells by the names of all columns

    string _name;
    field_type _type;
    std::int32_t _index;
    std::int32_t _flags;
};

} // namespace sql

#pragma GCC visibility pop

#endif
