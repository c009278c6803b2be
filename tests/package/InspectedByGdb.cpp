// What the debugger looks at, when the program has reached `inspect`.

#include "SqlDatabase.h"
#include "SqlTable.h"

#include <cstdlib>
#include <cstring>
#include <string>

extern "C" __attribute__((noinline)) void inspect(const void* everything)
{
    __asm__ volatile("" : : "r"(everything) : "memory"); // not to be optimised away
}

namespace {

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

struct Values {
    Values()
    {
        zeroByte.setString(std::string("a\0b", 3));
        large.setString("begin " + std::string(1000, '.') + " end");
        real.setDouble(2.5);
    }

    sql::Value null{sql::type_text};
    sql::Value integer{"-42", sql::type_int};
    sql::Value notInteger{"7 or 8", sql::type_int};
    sql::Value text{"Captain's \"tea\"", sql::type_text};
    sql::Value empty{"", sql::type_text};
    sql::Value foreign{"caf\303\251 \377\001\\", sql::type_text};
    sql::Value zeroByte{sql::type_text};
    sql::Value large{sql::type_text};
    sql::Value real{sql::type_float};
    sql::Value infinite{"inf", sql::type_float};
    sql::Value notReal{"1_000", sql::type_float};
    sql::Value yes{"1", sql::type_bool};
    sql::Value no{"0", sql::type_bool};
    sql::Value perhaps{"2", sql::type_bool};
    sql::Value time{"1262300399", sql::type_time};
    sql::Value untyped{"7", static_cast<sql::field_type>(9)};
};

struct Columns {
    sql::FieldSet product{product_columns};
    sql::FieldSet word{word_columns};
    sql::FieldSet none{static_cast<const sql::Field*>(nullptr)};
    sql::FieldSet replaced{product_columns};
    sql::Field key{product_columns[0]};
    sql::Field ending;
    sql::Field untyped{"size", static_cast<sql::field_type>(9), sql::flag_not_null};
};

struct Records {
    explicit Records(Columns& columns)
        : tea(columns.product), nulls(columns.product), word(columns.word), empty(columns.none),
          changed(columns.replaced)
    {
        tea.setInteger("id", 1);
        tea.setString("name", "tea");
        tea.setBool("sold", true);
        word.setString("word", "so");
        changed.setInteger("id", 2);
        columns.replaced = columns.word;
    }

    sql::Record tea;
    sql::Record nulls;
    sql::Record word;
    sql::Record empty;
    sql::Record changed; // its columns are others than those that it was built on
};

struct Databases {
    Databases()
    {
        open.open(":memory:", sql::Database::access_create, false, 0);
        refused.open("/no/such/folder/shop.db", sql::Database::access_read_only, false, 0);
    }

    sql::Database unused;
    sql::Database open;
    sql::Database refused;
};

struct RecordSets {
    explicit RecordSets(sqlite3* db)
        : two(db, word_columns), none(db, word_columns), failed(db, word_columns)
    {
        two.query("select 'so', 1 union all select null, 2");
        none.query("select 1 where 0");
        failed.query("select 'so', 3; nonsense");
    }

    sql::RecordSet unused;
    sql::RecordSet two;
    sql::RecordSet none;
    sql::RecordSet failed;
};

struct Tables {
    explicit Tables(sqlite3* db) : one(db, "one", word_columns), many(db, "many", word_columns)
    {
        fill(one, 1);
        fill(many, 1000);
    }

    static void fill(sql::Table& table, int rows)
    {
        table.create();
        sql::Record record(*table.fields());
        record.setString("word", "so");
        for (int n = 1; n <= rows; ++n) {
            record.setInteger("n", n);
            table.addRecord(record);
        }
        table.open();
    }

    sql::Table unused{"product"};
    sql::Table one;
    sql::Table many;
};

// Memory of an object's size that holds none.
template <class Object> const Object& filled(int byte)
{
    void* const memory = std::malloc(sizeof(Object));
    std::memset(memory, byte, sizeof(Object));
    return *static_cast<const Object*>(memory);
}

struct Unbuilt {
    explicit Unbuilt(int byte)
        : value(filled<sql::Value>(byte)), field(filled<sql::Field>(byte)),
          fieldSet(filled<sql::FieldSet>(byte)), record(filled<sql::Record>(byte)),
          recordSet(filled<sql::RecordSet>(byte)), table(filled<sql::Table>(byte)),
          database(filled<sql::Database>(byte))
    {
    }

    const sql::Value& value;
    const sql::Field& field;
    const sql::FieldSet& fieldSet;
    const sql::Record& record;
    const sql::RecordSet& recordSet;
    const sql::Table& table;
    const sql::Database& database;
};

struct Everything {
    sql::Time second{1262300399};
    sql::Time early{-1};
    sql::Time distant{static_cast<sql::integer>(1) << 60};
    Values values;
    Columns columns;
    Records records{columns};
    Databases databases;
    RecordSets recordSets{databases.open.getHandle()};
    Tables tables{databases.open.getHandle()};
    Unbuilt zeros{0};
    Unbuilt noise{0xa5};
};

} // namespace

int main()
{
    const Everything all;
    inspect(&all);
}
