#ifndef SQLWRAPPER_SQLVALUE_H
#define SQLWRAPPER_SQLVALUE_H

#include "SqlCommon.h"

#pragma GCC visibility push(default)

namespace sql {

/// One cell: a text with a null mark and the type of its column. Conversions of numbers never fail
/// and do not depend on the locale.
///
///     sql::Value price(sql::type_float);
///     std::printf("%s\n", price.toString().c_str()); // null
///     price.setDouble(2.5);
///     std::printf("%s\n", price.asString().c_str()); // 2.50000000
///     std::printf("%lld\n", price.asInteger());      // 2
///
/// A plain value that owns its text. One thread at a time.
class Value {
public:
    Value(field_type type);               ///< Makes a null of the type.
    Value(const Value& other);            ///< Copies text, null mark and type.
    Value& operator=(const Value& other); ///< Copies text, null mark and type.

    /// Stores a copy of the text, and the type. A null `text` makes the cell null.
    void setValue(const char* text, field_type type);

    void setNull();                  ///< Makes the cell null. Keeps the type, as all setters below.
    void setString(const string& s); ///< Stores a copy of the text.
    void setInteger(integer n);      ///< Stores the number in decimal digits.
    void setDouble(double d);        ///< Stores eight decimals, at most 127 characters.
    void setBool(bool b);            ///< Stores "1" or "0".
    void setTime(Time t);            ///< Stores the seconds since the epoch.

    bool isNull() const;        ///< Returns whether the cell is null. An empty text is not.
    field_type getType() const; ///< Returns the type that the constructor or setValue() gave.

    /// Returns the integer at the start of the text: 3 for "3.50000000". Returns 0 for null and for
    /// other texts, and the nearest integer of 64 bits for a number out of range.
    integer asInteger() const;

    /// Returns the number at the start of the text, in any form that strtod() reads in the "C"
    /// locale. Returns 0.0 for null and for other texts.
    double asDouble() const;

    bool asBool() const; ///< Returns true for the text "1" alone.
    Time asTime() const; ///< Returns the time asInteger() seconds after the epoch.

    /// Returns the text, empty for null. For type_time returns Time::asString(), also for null.
    string asString() const;

    string toString() const;          ///< Returns "null" for null, otherwise asString().
    string dump(bool withType) const; ///< Returns toString(), or with its type "42 (integer)".

    /// Returns whether two cells are equal as values of this cell's type. Careful: any two times
    /// are, and null equals 0, false and an empty text.
    bool equals(const Value& other) const;

    /// Returns the cell as an SQL literal for a column of the type: "null", a quoted text for
    /// type_text, otherwise the seconds of a time or the text as it stands.
    string toSql(field_type type) const;

private:
    friend class Record; // fills its cells, and writes statements without copies of the texts
    friend struct RecordAccess; // of sqlprepared, which binds and fills cells without copies

    SQLWRAPPER_LOCAL void appendSql(string& statement, field_type type) const;

    string _value;
    bool _isNull;
    field_type _type;
};

} // namespace sql

#pragma GCC visibility pop

#endif
