#include "PreparedSteps.h"

#include "SqlStatement.h"
#include "SqlTransaction.h"

#include <string>

namespace test {

namespace {

// One step, told for the library and for its twin.
template <typename Library, typename Plain> struct Told : Library, Plain {
    using Library::operator();
    using Plain::operator();
};
template <typename Library, typename Plain>
Step told(const std::string& name, Library library, Plain plain)
{
    return {name, Told<Library, Plain>{library, plain}};
}

sql::Record named(int id, int version)
{
    return good(id, nameOf(version));
}

bool insert(Shop& shop, int id, int version)
{
    sql::Statement statement(shop.database, "insert into product values (?, ?, ?, ?, ?)");
    return statement.run(id, nameOf(version), id * 0.5, id % 2 == 0, "c" + std::to_string(id));
}

bool rename(Shop& shop, int id, int version)
{
    sql::Statement statement(shop.database, "update product set name = :name where id = :id");
    return statement.bind(":id", id).bind(":name", nameOf(version)).run()
           && statement.changes() == 1;
}

bool remove(Shop& shop, int id)
{
    return sql::Statement(shop.database, "delete from product where id = ?").run(id);
}

bool inParts(Shop& shop)
{
    const auto done = sql::inTransaction(shop.database, [&] {
        if (!rename(shop, 1, 4) || !shop.product.addRecord(named(31, 5)))
            return false;
        {
            const sql::Savepoint undone(shop.database);
            if (!remove(shop, 3) || !insert(shop, 32, 4))
                return false;
        }
        sql::Savepoint kept(shop.database);
        return insert(shop, 33, 4) && shop.product.deleteRecord(sql::integer(6)) && kept.commit();
    });
    return done && *done;
}

} // namespace

std::vector<Step> changingByStatements()
{
    return {
        told(
            "insert by a statement", [](Shop& shop) { return insert(shop, 30, 1); },
            [](TwinShop& shop) { return shop.product.addRecord(named(30, 1)); }),
        told(
            "rename by a statement", [](Shop& shop) { return rename(shop, 30, 4); },
            [](TwinShop& shop) { return shop.product.updateRecord(named(30, 4)); }),
        told(
            "inTransaction", [](Shop& shop) { return inParts(shop); },
            [](TwinShop& shop) {
                return shop.transact("BEGIN") && shop.product.updateRecord(named(1, 4))
                       && shop.product.addRecord(named(31, 5))
                       && shop.product.addRecord(named(33, 4))
                       && shop.product.deleteRecord(sql::integer(6)) && shop.transact("COMMIT");
            }),
        told(
            "a transaction that is left",
            [](Shop& shop) {
                const sql::Transaction transaction(shop.database, sql::begin_immediate);
                return insert(shop, 34, 4) && rename(shop, 1, 5);
            },
            [](TwinShop&) { return true; }),
        told(
            "runScript",
            [](Shop& shop) {
                const auto count = sql::runScript(
                    shop.database,
                    "begin; delete from product where id in (30, 31); delete from product where id = 33; commit");
                return count && *count == 4;
            },
            [](TwinShop& shop) {
                return shop.transact("BEGIN") && shop.product.deleteRecords("id in (30, 31, 33)")
                       && shop.transact("COMMIT");
            }),
    };
}

} // namespace test
