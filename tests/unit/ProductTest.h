#ifndef SQLWRAPPER_TESTS_UNIT_PRODUCTTEST_H
#define SQLWRAPPER_TESTS_UNIT_PRODUCTTEST_H

#include "SqlTable.h"

#include "Columns.h"
#include "Diagnostics.h"
#include "ReportTest.h"
#include "Reports.h"
#include "Rows.h"
#include "Sqlite.h"

#include <gmock/gmock.h>

#include <string>

namespace test {

const char product_definition[] =
    "CREATE TABLE product (id INTEGER PRIMARY KEY, name TEXT, price REAL)";
const char three_products[] = "1|tea|2.5\n2|coffee|4.5\n3|milk|1.25";
const Texts all_held = {"1|tea|2.5", "2|coffee|4.5", "3|milk|1.25"};

inline void fillProducts(Connection& db, const std::string& name = "product")
{
    db.run("CREATE TABLE " + name
           + " (id INTEGER PRIMARY KEY, name TEXT, price REAL);"
             "insert into "
           + name
           + " select 1, 'tea', 2.5 union all select 2, 'coffee', 4.5"
             " union all select 3, 'milk', 1.25");
}

inline std::string products(Connection& db, const std::string& name = "product")
{
    return db.rows("select * from " + name);
}

inline sql::Record product(const sql::Table& table, const std::string& name, double price)
{
    sql::Record record(*table.fields());
    record.setString("name", name);
    record.setDouble("price", price);
    return record;
}

inline sql::Record product(const sql::Table& table, sql::integer id, const std::string& name,
                           double price)
{
    sql::Record record = product(table, name, price);
    record.setInteger("id", id);
    return record;
}

// The table of three products, on a connection in memory.
class ProductTest : public ReportTest {
protected:
    ProductTest() : _table(_db, "product", product_columns)
    {
        fillProducts(_db);
    }

    Connection _db;
    sql::Table _table;
};

} // namespace test

#endif
