#include "CentreTables.h"

#include "SqlLiteral.h"

#include <algorithm>
#include <charconv>
#include <cmath>

namespace {

constexpr std::size_t longest_name = 63; // PostgreSQL cuts off the rest

// Of a time in seconds or milliseconds since 1970; PostgreSQL's end long before.
constexpr double widest_time = 1e16;

struct TypeName {
    const char* declared; // a part of the type that the device has declared
    PostgresType type;
    const char* name;
};

// The first that fits, as SQLite itself chooses by parts of names.
constexpr TypeName types[] = {
    {"BOOL", type_boolean, "boolean"},
    {"TIMESTAMP", type_timestamptz, "timestamp with time zone"},
    {"DATETIME", type_timestamptz, "timestamp with time zone"},
    {"INT", type_bigint, "bigint"},
    {"CHAR", type_text, "text"},
    {"CLOB", type_text, "text"},
    {"TEXT", type_text, "text"},
    {"BLOB", type_bytea, "bytea"},
    {"REAL", type_double, "double precision"},
    {"FLOA", type_double, "double precision"},
    {"DOUB", type_double, "double precision"},
};
constexpr TypeName type_of_nothing = {"", type_bytea, "bytea"};
constexpr TypeName type_of_others = {"", type_numeric, "numeric"};

const TypeName& typeOf(const sql::SyncColumn& column)
{
    const auto* const found = std::find_if(
        std::begin(types), std::end(types), [&column](const TypeName& type) {
            return column.type.find(type.declared) != std::string::npos;
        });
    if (found != std::end(types))
        return *found;
    return column.type.empty() ? type_of_nothing : type_of_others;
}

int unitsPerSecond(const sql::SyncColumn& column)
{
    return column.type.find("(3)") != std::string::npos ? 1000 : 1;
}

std::string quoted(const std::string& name)
{
    std::string text = "\"";
    for (const char letter : name)
        text.append(letter == '"' ? 2 : 1, letter);
    return text + '"';
}

std::string nameOf(const sql::SyncTable& table)
{
    return "data." + quoted(table.name);
}

// The columns of the key, in its order.
std::vector<std::string> keyOf(const sql::SyncTable& table)
{
    std::vector<std::string> key;
    for (const sql::SyncColumn& column : table.columns) {
        const auto place = static_cast<std::size_t>(column.keyOrdinal);
        if (place == 0)
            continue;
        key.resize(std::max(key.size(), place));
        key[place - 1] = column.name;
    }
    return key;
}

// --- Making --------------------------------------------------------------------------------------

const char* whyNotName(const std::string& name)
{
    if (const char* const why = whyNotText(name))
        return why;
    return name.size() > longest_name ? "is longer than 63 bytes" : nullptr;
}

std::string whyNotNamed(const sql::SyncTable& table)
{
    if (const char* const why = whyNotName(table.name))
        return std::string("its name ") + why;
    for (const sql::SyncColumn& column : table.columns) {
        if (const char* const why = whyNotName(column.name))
            return "the name of column '" + column.name + "' " + why;
        if (column.name == "device")
            return "column 'device' is the centre's own";
    }
    return std::string();
}

std::string creationOf(const sql::SyncTable& table)
{
    std::string sql = "create table " + nameOf(table) + " (device text not null";
    for (const sql::SyncColumn& column : table.columns)
        sql += ", " + quoted(column.name) + ' ' + typeOf(column).name;
    sql += ", primary key (device";
    for (const std::string& name : keyOf(table))
        sql += ", " + quoted(name);
    return sql + "))";
}

// What PostgreSQL has of a table: its columns with their types, and the key.
struct Existing {
    std::map<std::string, std::string> columns;
    std::vector<std::string> key;
};

bool readExisting(Postgres& postgres, const sql::SyncTable& table, Existing& existing)
{
    std::vector<Rows> results;
    const Parameters name = Parameters().addText(nameOf(table));
    postgres.send("select attname, format_type(atttypid, atttypmod) from pg_attribute"
                  " where attrelid = to_regclass($1) and attnum > 0 and not attisdropped",
                  name);
    postgres.send(
        "select attname from pg_index, unnest(indkey) with ordinality as place (number, at)"
        " join pg_attribute on attnum = number"
        " where indrelid = to_regclass($1) and attrelid = indrelid and indisprimary"
        " order by at",
        name);
    if (!postgres.finish(results))
        return false;
    for (int row = 0; row < results[0].count(); ++row)
        existing.columns[results[0].text(row, 0)] = results[0].text(row, 1);
    for (int row = 0; row < results[1].count(); ++row)
        existing.key.push_back(results[1].text(row, 0));
    return true;
}

std::string whyNotSame(const sql::SyncTable& table, const Existing& existing)
{
    for (const sql::SyncColumn& column : table.columns) {
        const auto found = existing.columns.find(column.name);
        if (found != existing.columns.end() && found->second != typeOf(column).name)
            return "column '" + column.name + "' is " + found->second + " at the centre, and "
                   + typeOf(column).name + " is needed";
    }
    std::vector<std::string> key = keyOf(table);
    key.insert(key.begin(), "device");
    return key == existing.key ? "" : "it has another key at the centre";
}

// In a transaction.
bool makeTable(Postgres& postgres, const sql::SyncTable& table, std::string& why)
{
    why = whyNotNamed(table);
    if (!why.empty())
        return true;
    Existing existing;
    if (!readExisting(postgres, table, existing))
        return false;
    if (existing.columns.empty())
        return postgres.run(creationOf(table));
    why = whyNotSame(table, existing);
    if (!why.empty())
        return true;
    for (const sql::SyncColumn& column : table.columns) {
        if (existing.columns.count(column.name) == 0)
            postgres.send("alter table " + nameOf(table) + " add column " + quoted(column.name)
                          + ' ' + typeOf(column).name);
    }
    return postgres.finish();
}

// One hub at a time.
bool makeAlone(Postgres& postgres, const sql::SyncTable& table, std::string& why)
{
    if (postgres.run("begin") && postgres.run("select pg_advisory_xact_lock(7013)")
        && makeTable(postgres, table, why) && postgres.run("commit"))
        return true;
    why = postgres.error();
    return postgres.isOfValues() && postgres.run("rollback");
}

// --- Values --------------------------------------------------------------------------------------

const char* nameOf(sql::ChangeType type)
{
    switch (type) {
    case sql::change_integer:
        return "an integer";
    case sql::change_real:
        return "a real";
    case sql::change_text:
        return "a text";
    default:
        return "a block";
    }
}

// A number as text, from which the same one is read.
template <typename Number> std::string written(Number value)
{
    char text[32];
    return {text, std::to_chars(text, text + sizeof text, value).ptr};
}

// A time, and a part of its unit.
bool addTime(Parameters& parameters, long long time, double part, int perSecond)
{
    constexpr int second = 1000000;
    long long seconds = time / perSecond;
    long long rest = time % perSecond;
    if (rest < 0) {
        --seconds;
        rest += perSecond;
    }
    const double microseconds = (static_cast<double>(rest) + part) * second / perSecond;
    parameters.addTime(isTime(seconds) ? seconds : 0, static_cast<int>(std::lround(microseconds)));
    return isTime(seconds);
}

// Of a second, which fromIso8601() leaves out.
double fractionOf(std::string_view text)
{
    double fraction = 0;
    const std::string_view digits = text.substr(std::min(text.find('.'), text.size()));
    std::from_chars(digits.data(), digits.data() + digits.size(), fraction,
                    std::chars_format::fixed);
    return fraction;
}

bool addTime(Parameters& parameters, const sql::SyncColumn& column, const sql::ChangeValue& value)
{
    const int perSecond = unitsPerSecond(column);
    if (value.type == sql::change_integer)
        return addTime(parameters, value.number, 0, perSecond);
    if (value.type == sql::change_real && std::abs(value.real) < widest_time) {
        const double whole = std::floor(value.real);
        return addTime(parameters, static_cast<long long>(whole), value.real - whole, perSecond);
    }
    sql::Time time;
    if (value.type == sql::change_text && sql::fromIso8601(value.bytes, time))
        return addTime(parameters, time.asInteger(), fractionOf(value.bytes), 1);
    parameters.addNull(type_timestamptz);
    return false;
}

bool addReal(Parameters& parameters, const sql::ChangeValue& value)
{
    parameters.addReal(value.type == sql::change_real ? value.real
                                                      : static_cast<double>(value.number));
    return value.type == sql::change_real || value.type == sql::change_integer;
}

bool addNumeric(Parameters& parameters, const sql::ChangeValue& value)
{
    parameters.addNumeric(value.type == sql::change_real ? written(value.real)
                                                         : written(value.number));
    return value.type == sql::change_real || value.type == sql::change_integer;
}

std::string whyNot(const sql::SyncColumn& column, const sql::ChangeValue& value)
{
    const TypeName& type = typeOf(column);
    if (type.type == type_text && value.type == sql::change_text)
        return std::string("a text that ") + whyNotText(value.bytes);
    return std::string(nameOf(value.type)) + " is no " + type.name;
}

// False if the value is none of the column's type.
bool add(Parameters& parameters, const sql::SyncColumn& column, const sql::ChangeValue& value)
{
    const PostgresType type = typeOf(column).type;
    if (value.type == sql::change_null)
        return parameters.addNull(type), true;
    switch (type) {
    case type_boolean:
        parameters.addBoolean(value.number != 0);
        return value.type == sql::change_integer && (value.number == 0 || value.number == 1);
    case type_bigint:
        parameters.addNumber(value.number);
        return value.type == sql::change_integer;
    case type_text:
        parameters.addText(value.bytes);
        return value.type == sql::change_text && whyNotText(value.bytes) == nullptr;
    case type_bytea:
        parameters.addBytes(value.bytes);
        return value.type == sql::change_block;
    case type_timestamptz:
        return addTime(parameters, column, value);
    case type_double:
        return addReal(parameters, value);
    default:
        return addNumeric(parameters, value);
    }
}

// --- Changes -------------------------------------------------------------------------------------

// A statement as it grows.
class Writing {
public:
    Writing(const std::string& device, const sql::ChangeReader& change) : _table(change.table())
    {
        _parameters.addText(device);
    }

    // A value's place, such as "$2".
    std::string place(std::size_t column, const sql::ChangeValue& value)
    {
        const sql::SyncColumn& declared = _table.columns[column];
        if (!add(_parameters, declared, value) && _why.empty())
            _why = "column '" + declared.name + "': " + whyNot(declared, value);
        return '$' + std::to_string(++_count);
    }

    // Columns and what they are to be, of the key or the others, for each value that the change
    // tells; the separator goes before each.
    template <typename Values>
    std::string each(Values values, bool isOfKey, const char* separator, const char* relation)
    {
        std::string sql;
        for (std::size_t i = 0; i < _table.columns.size(); ++i) {
            const sql::ChangeValue& value = values(i);
            if (value.type != sql::change_undefined
                && (_table.columns[i].keyOrdinal != 0) == isOfKey)
                sql += separator + quoted(_table.columns[i].name) + relation + place(i, value);
        }
        return sql;
    }

    const std::string& why() const
    {
        return _why;
    }
    const Parameters& parameters() const
    {
        return _parameters;
    }

private:
    const sql::SyncTable& _table;
    Parameters _parameters;
    std::size_t _count = 1;
    std::string _why;
};

// The row as it was: a key cannot be null, and finds it by the index.
std::string conditionOf(Writing& writing, const sql::ChangeReader& change, bool isKeyOnly)
{
    const auto former = [&change](std::size_t column) -> const sql::ChangeValue& {
        return change.oldValue(column);
    };
    std::string sql = " where device = $1" + writing.each(former, true, " and ", " = ");
    if (!isKeyOnly)
        sql += writing.each(former, false, " and ", " is not distinct from ");
    return sql;
}

std::string insertOf(Writing& writing, const sql::ChangeReader& change)
{
    std::string columns = "device";
    std::string places = "$1";
    for (std::size_t i = 0; i < change.table().columns.size(); ++i) {
        columns += ", " + quoted(change.table().columns[i].name);
        places += ", " + writing.place(i, change.newValue(i));
    }
    return "insert into " + nameOf(change.table()) + " (" + columns + ") values (" + places
           + ") on conflict do nothing";
}

std::string sqlOf(Writing& writing, const sql::ChangeReader& change)
{
    if (change.kind() == sql::change_insert)
        return insertOf(writing, change);
    if (change.kind() == sql::change_delete)
        return "delete from " + nameOf(change.table()) + conditionOf(writing, change, false);
    const auto later = [&change](std::size_t column) -> const sql::ChangeValue& {
        return change.newValue(column);
    };
    const std::string values = writing.each(later, false, ", ", " = ").substr(2);
    return "update " + nameOf(change.table()) + " set " + values
           + conditionOf(writing, change, false);
}

} // namespace

bool CentreTables::make(Postgres& postgres, const std::vector<sql::SyncTable>& tables,
                        std::vector<std::string>& reasons)
{
    reasons.clear();
    for (const sql::SyncTable& table : tables) {
        const auto [known, isNew] = _reasons.emplace(creationOf(table), std::string());
        if (isNew && !makeAlone(postgres, table, known->second)) {
            _reasons.erase(known);
            return false;
        }
        const std::string& why = known->second;
        reasons.push_back(why.empty() ? why : "table '" + table.name + "': " + why);
    }
    return true;
}

void CentreTables::forget()
{
    _reasons.clear();
}

void CentreTables::forgetRefused()
{
    for (auto known = _reasons.begin(); known != _reasons.end();)
        known = known->second.empty() ? std::next(known) : _reasons.erase(known);
}

bool sendChange(Postgres& postgres, const std::string& device, const sql::ChangeReader& change,
                std::string& why)
{
    Writing writing(device, change);
    const std::string sql = sqlOf(writing, change);
    why = writing.why();
    if (why.empty())
        postgres.send(sql, writing.parameters());
    return why.empty();
}

bool whyNotChanged(Postgres& postgres, const std::string& device, const sql::ChangeReader& change,
                   std::string& why)
{
    why = "there is a row with this key here";
    if (change.kind() == sql::change_insert)
        return true;
    Writing writing(device, change);
    const std::string condition = conditionOf(writing, change, true);
    std::vector<Rows> results;
    if (!postgres.run("select 1 from " + nameOf(change.table()) + condition, writing.parameters(),
                      results))
        return false;
    why = results[0].count() > 0 ? "the row has other values here" : "there is no such row here";
    return true;
}

std::string reasonOf(const sql::ChangeReader& change, const std::string& why)
{
    const char* const kind = change.kind() == sql::change_insert   ? "insert"
                             : change.kind() == sql::change_update ? "update"
                                                                   : "delete";
    return "table '" + change.table().name + "', " + kind + ": " + why;
}
