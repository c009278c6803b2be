#ifndef SQLWRAPPER_TESTS_SUPPORT_PLAINTABLE_H
#define SQLWRAPPER_TESTS_SUPPORT_PLAINTABLE_H

// What a PreparedTable has to do, told once more by plain SQL with bound values.

#include "PlainNumbers.h"
#include "SqlField.h"
#include "SqlResult.h"
#include "Sqlite.h"

#include <sqlite3.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <optional>
#include <string>
#include <utility>
#include <variant>
#include <vector>

namespace test {

using Cell = std::optional<std::string>;
using Cells = std::vector<Cell>;

// A value as SQLite stores it.
struct Block {
    std::string bytes;

    bool operator==(const Block& other) const
    {
        return bytes == other.bytes;
    }
};
using Stored = std::variant<std::nullptr_t, sql::integer, double, std::string, Block>;

// --- What has to come of texts and keys

// "19=SQLITE_CONSTRAINT"
inline std::string codeOf(int code)
{
    return std::to_string(code) + "=" + sql::Error(code, "").name();
}

inline std::string mismatch(const std::string& why)
{
    return codeOf(SQLITE_MISMATCH) + ": " + why;
}

inline std::size_t digitsFrom(const std::string& text, std::size_t at)
{
    return std::min(text.find_first_not_of("0123456789", at), text.size()) - at;
}

// The number that a text is, in SQL's own form, or none.
inline std::optional<Stored> numberIn(const std::string& text, bool real)
{
    std::size_t at = !text.empty() && (text[0] == '+' || text[0] == '-') ? 1 : 0;
    std::size_t digits = digitsFrom(text, at);
    at += digits;
    const bool whole = at == text.size();
    if (at < text.size() && text[at] == '.') {
        const std::size_t decimals = digitsFrom(text, ++at);
        digits += decimals;
        at += decimals;
    }
    if (digits == 0)
        return std::nullopt;
    const std::string mantissa = text.substr(0, at);
    if (at < text.size() && (text[at] == 'e' || text[at] == 'E')) {
        at += at + 1 < text.size() && (text[at + 1] == '+' || text[at + 1] == '-') ? 2 : 1;
        const std::size_t exponent = digitsFrom(text, at);
        if (exponent == 0)
            return std::nullopt;
        at += exponent;
    }
    if (at != text.size())
        return std::nullopt;
    errno = 0;
    const sql::integer number = std::strtoll(text.c_str(), nullptr, 10);
    if (whole && !real && errno == 0)
        return number;
    const double found = readDouble(text);
    const bool isZero = mantissa.find_first_of("123456789") == std::string::npos;
    if (std::isinf(found) || (found == 0 && !isZero))
        return std::nullopt;
    return found;
}

inline bool isNumber(sql::field_type type)
{
    return type == sql::type_int || type == sql::type_float || type == sql::type_bool
           || type == sql::type_time;
}

// How a cell goes into a column, or nothing where it does not.
inline std::optional<Stored> storedIn(const sql::Field& field, const Cell& cell)
{
    if (!cell)
        return nullptr;
    if (!isNumber(field.getType()))
        return *cell;
    return numberIn(*cell, field.getType() == sql::type_float);
}

inline bool isInteger(const std::optional<Stored>& number)
{
    return number && std::holds_alternative<sql::integer>(*number);
}

inline bool isCanonical(const std::string& text)
{
    const std::optional<Stored> number = numberIn(text, false);
    return isInteger(number) && std::to_string(std::get<sql::integer>(*number)) == text;
}

// The value by which the row with a key is looked for, or why there is none.
struct LookFor {
    std::optional<Stored> value;
    std::string why;
};

inline LookFor lookFor(const sql::Field& key, const Stored& argument)
{
    const sql::integer* const number = std::get_if<sql::integer>(&argument);
    const std::string* const text = std::get_if<std::string>(&argument);
    if (std::holds_alternative<std::nullptr_t>(argument))
        return {std::nullopt, "the key is NULL"};
    if (!isNumber(key.getType())) {
        if (text == nullptr && number == nullptr)
            return {std::nullopt, "the key is no text"};
        return {text != nullptr ? *text : std::to_string(*number), ""};
    }
    if (number == nullptr && (text == nullptr || !isCanonical(*text)))
        return {std::nullopt, "the key is no integer"};
    return {number != nullptr ? *number : std::strtoll(text->c_str(), nullptr, 10), ""};
}

// --- Plain SQL

inline std::string quotedName(const std::string& name)
{
    std::string quoted = "`";
    for (const char letter : name)
        quoted += letter == '`' ? "``" : std::string(1, letter);
    return quoted + "`";
}

inline std::string joinedBy(const std::string& separator, const std::vector<std::string>& parts)
{
    std::string all;
    for (const std::string& part : parts)
        all += (all.empty() ? "" : separator) + part;
    return all;
}

inline int bind(sqlite3_stmt* statement, int position, const Stored& value)
{
    if (const sql::integer* const number = std::get_if<sql::integer>(&value))
        return sqlite3_bind_int64(statement, position, *number);
    if (const double* const real = std::get_if<double>(&value))
        return sqlite3_bind_double(statement, position, *real);
    if (const std::string* const text = std::get_if<std::string>(&value))
        return sqlite3_bind_text(statement, position, text->data(), static_cast<int>(text->size()),
                                 SQLITE_TRANSIENT);
    if (const Block* const block = std::get_if<Block>(&value))
        return sqlite3_bind_blob(statement, position, block->bytes.data(),
                                 static_cast<int>(block->bytes.size()), SQLITE_TRANSIENT);
    return sqlite3_bind_null(statement, position);
}

inline Stored cellOf(sqlite3_stmt* statement, int index)
{
    const int type = sqlite3_column_type(statement, index);
    if (type == SQLITE_NULL)
        return nullptr;
    if (type == SQLITE_INTEGER)
        return sql::integer(sqlite3_column_int64(statement, index));
    if (type == SQLITE_FLOAT)
        return sqlite3_column_double(statement, index);
    const void* const data = type == SQLITE_TEXT ? sqlite3_column_text(statement, index)
                                                 : sqlite3_column_blob(statement, index);
    const std::string bytes(data != nullptr ? static_cast<const char*>(data) : "",
                            sqlite3_column_bytes(statement, index));
    if (type == SQLITE_TEXT)
        return bytes;
    return Block{bytes};
}

// What came of a statement: the reason of a failure, or the rows.
struct Outcome {
    std::string why;
    std::vector<std::vector<Stored>> rows;
    int changes = 0;
    std::vector<std::string> whyElse; // reasons that are as good, where there are several
};

inline Outcome ran(sqlite3* db, const std::string& sql, const std::vector<Stored>& values)
{
    Outcome outcome;
    sqlite3_stmt* statement = nullptr;
    const int before = sqlite3_total_changes(db);
    int rc = sqlite3_prepare_v2(db, sql.c_str(), -1, &statement, nullptr);
    for (std::size_t i = 0; rc == SQLITE_OK && i < values.size(); ++i)
        rc = bind(statement, static_cast<int>(i) + 1, values[i]);
    while (rc == SQLITE_OK || rc == SQLITE_ROW) {
        rc = sqlite3_step(statement);
        if (rc != SQLITE_ROW)
            break;
        outcome.rows.emplace_back();
        for (int i = 0; i < sqlite3_column_count(statement); ++i)
            outcome.rows.back().push_back(cellOf(statement, i));
    }
    if (rc != SQLITE_DONE)
        outcome.why = codeOf(sqlite3_extended_errcode(db)) + ": " + sqlite3_errmsg(db);
    sqlite3_finalize(statement);
    outcome.changes = sqlite3_total_changes(db) != before ? sqlite3_changes(db) : 0;
    return outcome;
}

// Whether a record cannot hold the row, and why.
inline bool hasBlock(const std::vector<sql::Field>& fields, const std::vector<Stored>& row,
                     std::string& why)
{
    for (std::size_t i = 0; i < row.size(); ++i) {
        if (std::holds_alternative<Block>(row[i])) {
            why = mismatch("column " + fields[i].getName() + " is a block of bytes");
            return true;
        }
    }
    return false;
}

// The table on a connection of its own, changed by plain SQL in the way that is expected.
class PlainTable {
public:
    PlainTable(std::string name, std::vector<sql::Field> fields)
        : _name(quotedName(name)), _fields(std::move(fields))
    {
        for (std::size_t i = 0; i < _fields.size(); ++i) {
            const std::string column = quotedName(_fields[i].getName());
            if (std::count(_all.begin(), _all.end(), column) == 0)
                _distinct.push_back(i); // the first of a name is the column's cell
            _all.push_back(column);
            if (_fields[i].isPrimaryKey())
                _keys.push_back(i);
        }
    }

    sqlite3* connection()
    {
        return _db;
    }

    const std::vector<std::size_t>& keys() const
    {
        return _keys;
    }

    std::string rows()
    {
        return typedRows(_db, "select * from " + _name);
    }

    // Whatever the declaration says, on any connection.
    void insertStored(sqlite3* db, const std::vector<Stored>& values) const
    {
        std::vector<Stored> bound;
        for (const std::size_t i : _distinct)
            bound.push_back(values[i]);
        ran(db, insertText(), bound);
    }

    Outcome add(const Cells& cells)
    {
        return run(insertText(), _distinct, cells);
    }

    Outcome update(const Cells& cells)
    {
        if (_keys.empty())
            return misused("there is no PRIMARY KEY column");
        Outcome outcome;
        for (const std::size_t key : _keys) {
            const bool number = isNumber(_fields[key].getType());
            if (!cells[key])
                outcome.whyElse.push_back(mismatch("the key is NULL"));
            else if (number && !isInteger(numberIn(*cells[key], false)))
                outcome.whyElse.push_back(mismatch("the key is no integer"));
        }
        addFlaws(cells, outcome);
        if (!outcome.whyElse.empty()) {
            outcome.why = outcome.whyElse.front();
            return outcome;
        }
        std::vector<std::size_t> places = others();
        const std::vector<std::size_t> set = places.empty() ? _keys : places;
        places = set;
        places.insert(places.end(), _keys.begin(), _keys.end());
        std::vector<Stored> values;
        for (const std::size_t i : places) {
            // A number that finds a row is an integer, in a column of reals, too.
            const bool isKeyNumber = _fields[i].isPrimaryKey() && isNumber(_fields[i].getType());
            values.push_back(isKeyNumber ? *numberIn(*cells[i], false)
                                         : *storedIn(_fields[i], cells[i]));
        }
        return ran(_db,
                   "update " + _name + " set " + equations(set, ", ", "?") + " where "
                       + equations(_keys, " and ", "?"),
                   values);
    }

    Outcome addOrUpdate(const Cells& cells)
    {
        if (_keys.empty())
            return misused("there is no PRIMARY KEY column");
        std::vector<std::string> target;
        for (const std::size_t key : _keys)
            target.push_back(_all[key]);
        const std::string what = others().empty()
                                     ? "nothing"
                                     : "update set " + equations(others(), ", ", "excluded.");
        return run(insertText() + " on conflict (" + joinedBy(", ", target) + ") do " + what,
                   _distinct, cells);
    }

    Outcome remove(const Stored& key)
    {
        return byKey("delete from " + _name, key);
    }

    Outcome find(const Stored& key)
    {
        return byKey("select " + joinedBy(", ", _all) + " from " + _name, key, " limit 1");
    }

    Outcome has(const Stored& key)
    {
        return byKey("select 1 from " + _name, key, " limit 1");
    }

    Outcome all()
    {
        return ran(_db, "select " + joinedBy(", ", _all) + " from " + _name, {});
    }

    Outcome addAll(const std::vector<Cells>& records)
    {
        Outcome whole;
        test::run(_db, "savepoint bulk");
        for (std::size_t i = 0; i < records.size() && whole.why.empty(); ++i) {
            const Outcome one = add(records[i]);
            whole.changes += one.changes;
            if (!one.why.empty()) {
                const std::size_t behindCode = one.why.find(": ") + 2;
                whole.why = one.why.substr(0, behindCode) + "record " + std::to_string(i + 1) + ": "
                            + one.why.substr(behindCode);
            }
        }
        test::run(_db, whole.why.empty() ? "release bulk" : "rollback to bulk; release bulk");
        return whole;
    }

private:
    static Outcome misused(const std::string& why)
    {
        return {codeOf(SQLITE_MISUSE) + ": " + why, {}, 0, {}};
    }

    std::vector<std::size_t> others() const
    {
        std::vector<std::size_t> places;
        for (const std::size_t i : _distinct) {
            if (!_fields[i].isPrimaryKey())
                places.push_back(i);
        }
        return places;
    }

    // The first cell of a column that holds no number, and those behind it.
    void addFlaws(const Cells& cells, Outcome& outcome) const
    {
        for (const std::size_t i : _distinct) {
            if (!storedIn(_fields[i], cells[i]))
                outcome.whyElse.push_back(
                    mismatch("column " + _fields[i].getName() + " is no number"));
        }
    }

    std::string insertText() const
    {
        std::vector<std::string> names;
        names.reserve(_distinct.size());
        for (const std::size_t i : _distinct)
            names.push_back(_all[i]);
        return "insert into " + _name + " (" + joinedBy(", ", names) + ") values ("
               + joinedBy(", ", std::vector<std::string>(names.size(), "?")) + ")";
    }

    std::string equations(const std::vector<std::size_t>& places, const std::string& separator,
                          const std::string& from) const
    {
        std::vector<std::string> parts;
        parts.reserve(places.size());
        for (const std::size_t i : places)
            parts.push_back(_all[i] + " = " + (from == "?" ? from : from + _all[i]));
        return joinedBy(separator, parts);
    }

    Outcome run(const std::string& sql, const std::vector<std::size_t>& places, const Cells& cells)
    {
        Outcome flawed;
        addFlaws(cells, flawed);
        if (!flawed.whyElse.empty())
            return {flawed.whyElse.front(), {}, 0, {}};
        std::vector<Stored> values;
        values.reserve(places.size());
        for (const std::size_t i : places)
            values.push_back(*storedIn(_fields[i], cells[i]));
        return ran(_db, sql, values);
    }

    Outcome byKey(const std::string& what, const Stored& argument, const std::string& limit = "")
    {
        if (_keys.empty())
            return misused("there is no PRIMARY KEY column");
        if (_keys.size() > 1)
            return misused("the key has " + std::to_string(_keys.size()) + " columns");
        const LookFor key = lookFor(_fields[_keys[0]], argument);
        if (!key.value)
            return {mismatch(key.why), {}, 0, {}};
        return ran(_db, what + " where " + _all[_keys[0]] + " = ?" + limit, {*key.value});
    }

    Connection _db;
    const std::string _name;
    const std::vector<sql::Field> _fields;
    std::vector<std::string> _all; // columns
    std::vector<std::size_t> _distinct;
    std::vector<std::size_t> _keys;
};

} // namespace test

#endif
