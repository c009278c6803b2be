// A product catalogue: rows added, found, changed and deleted, with a column of every kind.
//
//     catalogue DATABASE

#include "SqlDatabase.h"
#include "SqlTable.h"

#include <cstdio>

namespace {

constexpr int busy_timeout_ms = 2000;

// Prices are whole cents, which stay exact; reals are for what is measured.
const sql::Field columns[] = {
    sql::Field("id", sql::type_int, sql::flag_primary_key),
    sql::Field("name", sql::type_text, sql::flag_not_null | sql::flag_unique),
    sql::Field("cents", sql::type_int, sql::flag_not_null),
    sql::Field("kilograms", sql::type_float, sql::flag_none),
    sql::Field("in_stock", sql::type_bool, sql::flag_not_null),
    sql::Field(),
};

bool add(sql::Table& products, const char* name, int cents, double kilograms)
{
    sql::Record product(*products.fields());
    product.setString("name", name);
    product.setInteger("cents", cents);
    product.setDouble("kilograms", kilograms);
    product.setBool("in_stock", true);
    return products.addRecord(product);
}

bool addAll(sql::Table& products)
{
    return add(products, "Captain's tea", 250, 0.125) && add(products, "Tea pot", 1999, 0.9)
           && add(products, "50 % cotton towel", 700, 0.25);
}

// What a user typed stands for itself: without meaning for "like", and quoted for the condition.
bool find(sql::Table& products, const sql::string& typed)
{
    sql::string pattern;
    for (const char byte : typed) {
        if (byte == '%' || byte == '_' || byte == '\\')
            pattern += '\\';
        pattern += byte;
    }
    return products.open("name like '%" + sql::quoteStr(pattern) + "%' escape '\\'", "name");
}

void print(sql::Table& products)
{
    for (int i = 0; i < products.recordCount(); ++i) {
        const sql::Record& product = *products.getRecord(i);
        const sql::integer cents = product.getValue("cents")->asInteger();
        std::printf("%lld  %s  %lld.%02lld  %.3f kg  %s\n", product.getKeyIdValue()->asInteger(),
                    product.getValue("name")->asString().c_str(), cents / 100, cents % 100,
                    product.getValue("kilograms")->asDouble(),
                    product.getValue("in_stock")->asBool() ? "in stock" : "sold out");
    }
}

bool markSoldOut(sql::Table& products, sql::integer key)
{
    sql::Record* const product = products.getRecordByKeyId(key);
    if (product == nullptr)
        return false; // there is none, or the file cannot be read
    product->setBool("in_stock", false);
    return products.updateRecord(*product); // writes all columns of the row
}

int fail(const char* what)
{
    std::fprintf(stderr, "catalogue: %s\n", what);
    return 1;
}

} // namespace

int main(int argc, char** argv)
{
    if (argc != 2) {
        std::fputs("usage: catalogue DATABASE\n", stderr);
        return 2;
    }
    sql::Database database;
    if (!database.open(argv[1], sql::Database::access_create, false, busy_timeout_ms))
        return fail("cannot open the database");
    sql::Table products(database.getHandle(), "product", columns);
    if (database.getUserVersion() < 0 || !products.create())
        return fail("cannot read the database, or make the table");
    if (!addAll(products))
        return fail("cannot add the products: perhaps they are there already");

    for (const char* typed : {"n's t", "%", "' or 1 --"}) {
        if (!find(products, typed))
            return fail("cannot search");
        std::printf("%d found with \"%s\"\n", products.recordCount(), typed);
        print(products);
    }
    if (!markSoldOut(products, 2) || !products.deleteRecord(sql::integer(3)))
        return fail("cannot change the products");
    if (!products.open("", "cents desc"))
        return fail("cannot read the products");
    std::printf("%d left\n", products.recordCount());
    print(products);
    return 0;
}
