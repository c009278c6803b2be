// What the debugger looks at when the program has reached inspect(): objects, each with the text
// that it is shown as.

#include "SqlDatabase.h"
#include "SqlTable.h"

#include <cstdlib>
#include <cstring>
#include <string>

namespace all {

const auto undefined = static_cast<sql::field_type>(9);

const sql::Field product_columns[] = {
    sql::Field("id", sql::type_int, sql::flag_primary_key | sql::flag_not_null),
    sql::Field("name", sql::type_text, sql::flag_unique),
    sql::Field("price", sql::type_float, sql::flag_none),
    sql::Field("sold", sql::type_bool, sql::flag_none),
    sql::Field("since", sql::type_time, sql::flag_none),
    sql::Field(),
};

const sql::Field word_columns[] = {
    sql::Field("word", sql::type_text, sql::flag_none),
    sql::Field("n", sql::type_int, sql::flag_none),
    sql::Field(),
};

sql::Value value(const std::string& text, sql::field_type type)
{
    sql::Value value(type);
    value.setString(text);
    return value;
}

// Memory of an object's size that holds none.
template <class Object> const Object& filled(int byte)
{
    void* const memory = std::malloc(sizeof(Object));
    std::memset(memory, byte, sizeof(Object));
    return *static_cast<const Object*>(memory);
}

// clang-format off
sql::Value null(sql::type_text);                                // null
sql::Value integer = value("-42", sql::type_int);               // -42
sql::Value notInteger = value("7 or 8", sql::type_int);         // "7 or 8"
sql::Value text = value("Captain's \"tea\"", sql::type_text);   // "Captain's \"tea\""
sql::Value empty = value("", sql::type_text);                   // ""
sql::Value foreign = value("caf\303\251 \377\001\\", sql::type_text); // "café \377\001\\"
sql::Value zeroByte = value(std::string("a\0b", 3), sql::type_text);  // "a\000b"
sql::Value large = value("begin " + std::string(1000, '.') + " end", sql::type_text);
// "begin ", '.' <repeats 194 times>...
sql::Value real = value("2.50000000", sql::type_float);         // 2.50000000
sql::Value infinite = value("inf", sql::type_float);            // inf
sql::Value notReal = value("1_000", sql::type_float);           // "1_000"
sql::Value yes = value("1", sql::type_bool);                    // true
sql::Value no = value("0", sql::type_bool);                     // false
sql::Value perhaps = value("2", sql::type_bool);                // "2"
sql::Value moment = value("1262300399", sql::type_time);
// 1262300399 (2009-12-31 22:59:59 UTC)
sql::Value untyped = value("7", undefined);                     // "7"

sql::Time second(1262300399);
// 1262300399 (2009-12-31 22:59:59 UTC)
sql::Time early(-1);                                            // -1 (1969-12-31 23:59:59 UTC)
sql::Time distant(static_cast<sql::integer>(1) << 60);          // 1152921504606846976

sql::FieldSet product(product_columns);
// {id integer PRIMARY KEY NOT NULL, name text UNIQUE, price float, sold bool, since time}
sql::FieldSet word(word_columns);                               // {word text, n integer}
sql::FieldSet none(static_cast<const sql::Field*>(nullptr));    // no columns
sql::FieldSet replaced(product_columns);                        // {word text, n integer}
sql::Field key(product_columns[0]);                             // id integer PRIMARY KEY NOT NULL
sql::Field ending;                                              // ending field
sql::Field unknown("size", undefined, sql::flag_not_null);      // size undefined type 9 NOT NULL

sql::Record tea(product);
// {id = 1, name = "tea", price = null, sold = true, since = null}
sql::Record nulls(product);
// {id = null, name = null, price = null, sold = null, since = null}
sql::Record so(word);                                           // {word = "so", n = null}
sql::Record cellless(none);                                     // no cells
sql::Record changed(replaced);
// {word = 2, n = null, [2] = null, [3] = null, [4] = null}

sql::Database unused;                                           // sql::Database, closed
sql::Database opened;                                           // sql::Database, open, handle = 0x?
sql::Database refused;
// sql::Database, not open, rc=14=SQLITE_CANTOPEN, handle = 0x?

sql::RecordSet unusedSet;
// sql::RecordSet of 0 rows, no result
sql::RecordSet two;
// sql::RecordSet of 2 rows = {{word = "so", n = 1}, {word = null, n = 2}}
sql::RecordSet zero;                                            // sql::RecordSet of 0 rows
sql::RecordSet failed;
// sql::RecordSet of 1 row, rc=1=SQLITE_ERROR = {{word = "so", n = 3}}

sql::Table unusedTable("product");
// sql::Table product = {handle = 0x0, columns = no columns,
// records = sql::RecordSet of 0 rows, no result}
sql::Table one("one");
// sql::Table one = {handle = 0x?, columns = {word text, n integer},
// records = sql::RecordSet of 1 row = {{word = "so", n = 1}}}
sql::Table many("many");

const sql::Value& zeroValue = filled<sql::Value>(0);            // <error: not a text>
const sql::Field& zeroField = filled<sql::Field>(0);            // <error: not a text>
const sql::FieldSet& zeroFieldSet = filled<sql::FieldSet>(0);   // no columns
const sql::Record& zeroRecord = filled<sql::Record>(0);         // no cells
const sql::RecordSet& zeroSet = filled<sql::RecordSet>(0);      // sql::RecordSet of 0 rows
const sql::Table& zeroTable = filled<sql::Table>(0);            // <error: not a text>
const sql::Database& zeroDatabase = filled<sql::Database>(0);   // sql::Database, closed

const sql::Value& noise = filled<sql::Value>(0xa5);             // <error: not a value>
const sql::Field& noiseField = filled<sql::Field>(0xa5);
// <error: Cannot access memory at address NOISE>
const sql::FieldSet& noiseFieldSet = filled<sql::FieldSet>(0xa5); // <error: not a vector>
const sql::Record& noiseRecord = filled<sql::Record>(0xa5);     // <error: not a vector>
const sql::RecordSet& noiseSet = filled<sql::RecordSet>(0xa5);  // <error: not a vector>
const sql::Table& noiseTable = filled<sql::Table>(0xa5);
// <error: Cannot access memory at address NOISE>
const sql::Database& noiseDatabase = filled<sql::Database>(0xa5);
// sql::Database, not open, rc=-1515870811, handle = NOISE

// clang-format on

void fill(sql::Table& table, int rows)
{
    table.initTable(opened.getHandle(), word_columns);
    table.create();
    sql::Record record(*table.fields());
    record.setString("word", "so");
    for (int n = 1; n <= rows; ++n) {
        record.setInteger("n", n);
        table.addRecord(record);
    }
    table.open();
}

void ask(sql::RecordSet& rows, const char* query)
{
    rows.initRecordSet(opened.getHandle(), word_columns);
    rows.query(query);
}

} // namespace all

extern "C" __attribute__((noinline)) void inspect()
{
    __asm__ volatile("" : : : "memory"); // not to be optimised away
}

int main()
{
    using namespace all;
    tea.setInteger("id", 1);
    tea.setString("name", "tea");
    tea.setBool("sold", true);
    so.setString("word", "so");
    changed.setInteger("id", 2);
    replaced = word;
    opened.open(":memory:", sql::Database::access_create, false, 0);
    refused.open("/no/such/folder/shop.db", sql::Database::access_read_only, false, 0);
    ask(two, "select 'so', 1 union all select null, 2");
    ask(zero, "select 1 where 0");
    ask(failed, "select 'so', 3; nonsense");
    fill(one, 1);
    fill(many, 1000);
    inspect();
}
