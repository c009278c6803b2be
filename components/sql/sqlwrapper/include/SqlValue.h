#ifndef SQLWRAPPER_SQLVALUE_H
#define SQLWRAPPER_SQLVALUE_H

#include "SqlCommon.h"

#pragma GCC visibility push(default)

namespace sql {

/// One cell: a text with a null mark and the type of its column. Numbers, booleans and times are
/// kept as the text that goes into SQL or came from it, and are converted when they are read; no
/// conversion of a number fails or depends on the locale.
///
/// @snippet value.cpp value
///
/// A plain value that owns its text, for one thread at a time.
class Value {
public:
    /// Null, of the given type.
    explicit Value(field_type type);

    /// What setValue() makes of these.
    Value(const char* text, field_type type);

    /// Takes a copy of the text, and the type; a null `text` makes the value null.
    void setValue(const char* text, field_type type);

    /// Makes the cell null and keeps its type.
    void setNull();

    /// Stores a copy of the text and keeps the type, as the setters below do. Text stored by one of
    /// them is read back by every getter, so the type need not fit.
    void setString(const string& s);

    /// Stores the decimal digits of a number and keeps the type.
    void setInteger(integer n);

    /// Stores a number with eight decimals and keeps the type: 3.5 becomes "3.50000000". At most
    /// 127 characters are kept, which cuts the decimals and digits of numbers from about 1e117 on.
    /// An infinity or NaN becomes "inf" or "nan", which SQLite refuses in a statement.
    void setDouble(double d);

    /// Stores "1" or "0" and keeps the type.
    void setBool(bool b);

    /// Stores the seconds since the epoch and keeps the type.
    void setTime(Time t);

    /// Whether there is nothing in the cell. An empty text is not null.
    bool isNull() const;

    /// The type that the constructor or setValue() gave, whatever has been stored since.
    field_type getType() const;

    /// The number at the start of the text after any blanks: 3 for "3.50000000". 0 for null and for
    /// text that starts with no number; the nearest number of the range for one outside it.
    integer asInteger() const;

    /// As asInteger(), in the forms that strtod() reads, with a full stop as decimal point.
    double asDouble() const;

    /// True for the text "1" alone, so false for null.
    bool asBool() const;

    /// The time asInteger() seconds after the epoch; the epoch itself for null.
    Time asTime() const;

    /// The text; for type_time Time::asString() of asTime(), in local time and with the weekday in
    /// the process's language. A time that cannot be converted gives an empty text and the ERROR
    /// line of Time::format(). Null gives an empty text, or for type_time the epoch.
    string asString() const;

    /// "null" for null, otherwise asString().
    string toString() const;

    /// toString(), and with the type: "42 (integer)". An undefined type shows as "undefined" and
    /// reports the assertion "false".
    string dump(bool withType) const;

    /// Whether two cells are equal as values of this one's type. Two nulls are. Otherwise both are
    /// converted, so that null equals 0, 0.0, false or an empty text, and any two times are equal:
    /// compare Time::asInteger() instead. Of an undefined type, only two nulls are equal.
    bool equals(const Value& other) const;

    /// The cell in an SQL statement, for a column of the given type: "null" for null, a quoted text
    /// with its single quotes doubled for type_text, the seconds of a type_time value, and
    /// otherwise the text as it stands, unquoted.
    string toSql(field_type type) const;

private:
    friend class Record; // writes its statements without copies of the texts

    // toSql(), appended to a statement.
    SQLWRAPPER_LOCAL void appendSql(string& statement, field_type type) const;

    string _value;
    bool _isNull;
    field_type _type;
};

} // namespace sql

#pragma GCC visibility pop

#endif
