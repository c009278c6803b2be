// A big table read page by page: only one page is in memory, and no page costs more than the first.
//
//     pages DATABASE

#include "SqlDatabase.h"
#include "SqlTable.h"

#include <cstdio>

namespace {

constexpr int busy_timeout_ms = 2000;
constexpr int row_count = 1000;
constexpr int page_size = 50;

const sql::Field columns[] = {
    sql::Field("id", sql::type_int, sql::flag_primary_key),
    sql::Field("cents", sql::type_int, sql::flag_not_null),
    sql::Field(),
};

// Pages of the products from a price on, by price. Prices repeat, so the key is part of the order,
// and the condition names the rows that follow the last one of the page before.
class Pages {
public:
    Pages(sql::Table& table, sql::integer fromCents) : _table(table), _cents(fromCents)
    {
    }

    // False when the table cannot be read. No rows: that was the last page.
    bool next()
    {
        const sql::string cents = sql::intToStr(_cents);
        const sql::string follows = "cents >= " + cents + " and (cents > " + cents + " or id > "
                                    + sql::intToStr(_id) + ")";
        if (!_table.open(follows, "cents, id limit " + sql::intToStr(page_size)))
            return false;
        if (_table.recordCount() > 0) {
            const sql::Record& last = *_table.getRecord(_table.recordCount() - 1);
            _cents = last.getValue("cents")->asInteger();
            _id = last.getValue("id")->asInteger();
        }
        return true;
    }

private:
    sql::Table& _table;
    sql::integer _cents;
    sql::integer _id = -1; // comes before every key
};

bool fill(sql::Database& database, sql::Table& table)
{
    // With an index in the same order SQLite goes straight to the page, and sorts nothing.
    if (!database.transactionBegin()
        || !sql::runOneStepSqlStmt(table.getHandle(), "create index by_cents on product (cents)"))
        return false;
    for (int id = 1; id <= row_count; ++id) {
        sql::Record product(*table.fields());
        product.setInteger("id", id);
        product.setInteger("cents", id * 37 % 101);
        if (!table.addRecord(product))
            return false;
    }
    return database.transactionCommit();
}

int fail(const char* what)
{
    std::fprintf(stderr, "pages: %s\n", what);
    return 1;
}

} // namespace

int main(int argc, char** argv)
{
    if (argc != 2) {
        std::fputs("usage: pages DATABASE\n", stderr);
        return 2;
    }
    sql::Database database;
    if (!database.open(argv[1], sql::Database::access_create, false, busy_timeout_ms))
        return fail("cannot open the database");
    sql::Table table(database.getHandle(), "product", columns);
    if (database.getUserVersion() < 0 || !table.create())
        return fail("cannot read the database, or make the table");
    const int count = table.totalRecordCount();
    if (count < 0 || (count == 0 && !fill(database, table)))
        return fail("cannot fill the table");

    Pages pages(table, 90);
    for (int number = 1; pages.next(); ++number) {
        const int rows = table.recordCount();
        if (rows == 0)
            return 0;
        std::printf("page %d: %d rows, %s to %s\n", number, rows,
                    table.getRecord(0)->toString().c_str(),
                    table.getRecord(rows - 1)->toString().c_str());
    }
    return fail("cannot read the table");
}
