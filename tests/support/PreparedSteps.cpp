#include "PreparedSteps.h"

#include "SqlPreparedTable.h"
#include "SqlStatement.h"
#include "SqlTransaction.h"
#include "SqlTypedTable.h"

#include <iterator>
#include <optional>
#include <string>
#include <vector>

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

const char insert_text[] = "insert into product values (?, ?, ?, ?, ?)";
const char rename_text[] = "update product set name = :name where id = :id";
const char remove_text[] = "delete from product where id = ?";

bool insert(Shop& shop, int id, int version)
{
    sql::Statement statement(shop.database, insert_text);
    return statement.run(id, nameOf(version), id * 0.5, id % 2 == 0, "c" + std::to_string(id));
}

bool insert(TwinShop& shop, int id, int version)
{
    return shop.prepared(insert_text, named(id, version).toSqlInsert("product")) == 1;
}

bool rename(Shop& shop, int id, int version)
{
    sql::Statement statement(shop.database, rename_text);
    return statement.bind(":id", id).bind(":name", nameOf(version)).run()
           && statement.changes() == 1;
}

bool rename(TwinShop& shop, int id, int version)
{
    return shop.prepared(rename_text, "update product set name = '" + nameOf(version)
                                          + "' where id = " + std::to_string(id))
           == 1;
}

bool remove(Shop& shop, int id)
{
    return sql::Statement(shop.database, remove_text).run(id);
}

bool remove(TwinShop& shop, int id)
{
    return shop.prepared(remove_text, "delete from product where id = " + std::to_string(id)) != -1;
}

const char add_text[] =
    "insert into `product` (`id`, `name`, `price`, `sold`, `code`) values (?, ?, ?, ?, ?)";
const char update_text[] =
    "update `product` set `name` = ?2, `price` = ?3, `sold` = ?4, `code` = ?5 where `id` = ?1";
const char or_update_text[] =
    " on conflict (`id`) do update set `name` = excluded.`name`, `price` = excluded.`price`,"
    " `sold` = excluded.`sold`, `code` = excluded.`code`";
const char delete_text[] = "delete from `product` where `id` = ?";

bool add(Shop& shop, int id, int version)
{
    sql::PreparedTable fast(shop.database, shop.product);
    return fast.addRecord(named(id, version)) && fast.lastKey() == id;
}

bool add(TwinShop& shop, int id, int version)
{
    return shop.prepared(add_text, named(id, version).toSqlInsert("product"), "addRecord") == 1;
}

bool update(Shop& shop, int id, int version)
{
    sql::PreparedTable fast(shop.database, shop.product);
    return fast.updateRecord(named(id, version)) && fast.changes() == 1;
}

bool update(TwinShop& shop, int id, int version)
{
    return shop.prepared(update_text, named(id, version).toSqlUpdate("product"), "updateRecord")
           == 1;
}

bool addOrUpdate(Shop& shop, int id, int version)
{
    sql::PreparedTable fast(shop.database, shop.product);
    return fast.addOrUpdateRecord(named(id, version)) && fast.changes() == 1;
}

bool addOrUpdate(TwinShop& shop, int id, int version)
{
    return shop.prepared(std::string(add_text) + or_update_text,
                         named(id, version).toSqlInsert("product") + or_update_text,
                         "addOrUpdateRecord")
           == 1;
}

bool removeByKey(Shop& shop, int id)
{
    sql::PreparedTable fast(shop.database, shop.product);
    return fast.deleteRecord(id);
}

// Before 3.35, SQLite's upsert refuses a row that keeps its unique code.
template <typename AnyShop> bool updateByUpsert(AnyShop& shop, int id, int version)
{
#if SQLITE_VERSION_NUMBER >= 3035000
    return addOrUpdate(shop, id, version);
#else
    return update(shop, id, version);
#endif
}

bool removeByKey(TwinShop& shop, int id)
{
    return shop.prepared(delete_text, "delete from product where id = " + std::to_string(id),
                         "deleteRecord")
           != -1;
}

bool addThree(Shop& shop)
{
    sql::PreparedTable fast(shop.database, shop.product);
    const sql::Record records[] = {named(37, 4), named(38, 5), named(39, 1)};
    return fast.addRecords(std::begin(records), std::end(records));
}

std::string manyText(int rows)
{
    return "insert into product with recursive n(i) as (select 100 union all select i + 1 from n limit "
           + std::to_string(rows) + ") select i, 'one of many', null, null, null from n";
}

bool addMany(Shop& shop, int rows)
{
    sql::PreparedTable fast(shop.database, shop.product);
    std::vector<sql::Record> records(rows, sql::Record(goods()));
    for (int i = 0; i < rows; ++i) {
        records[i].setInteger("id", 100 + i);
        records[i].setString("name", "one of many");
    }
    return fast.addRecords(records.begin(), records.end());
}

struct Product {
    sql::integer id = 0;
    std::string name;
    std::optional<double> price;
    std::optional<bool> sold;
    std::optional<std::string> code;
};

const auto product = sql::mapping<Product>(
    "product", sql::key<&Product::id>("id"), sql::column<&Product::name>("name"),
    sql::column<&Product::price>("price"), sql::column<&Product::sold>("sold"),
    sql::column<&Product::code>("code"));

bool addObjects(Shop& shop, int rows)
{
    std::vector<Product> products(rows);
    for (int i = 0; i < rows; ++i) {
        products[i].id = 100 + i;
        products[i].name = "one of many";
    }
    sql::TypedTable typed(shop.database, product);
    return typed.add(products.begin(), products.end());
}

// Row by row, from a database of its own.
bool copyFromAnother(Shop& shop, int rows)
{
    sql::Database other;
    if (!other.open(":memory:", sql::Database::access_create, false, 0))
        return false;
    run(other.getHandle(), "create table product (id, name, price, sold, code)");
    run(other.getHandle(), manyText(rows));
    sql::PreparedTable source(other, shop.product);
    return sql::PreparedTable(shop.database, shop.product).copyRecords(source);
}

bool copyWithin(Shop& shop)
{
    sql::PreparedTable source(shop.database, shop.product);
    return sql::PreparedTable(shop.database, shop.archive).copyRecords(source);
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
        {"insert by a statement",
         [](auto& shop) {
             return insert(shop, 30, 1);
         }},
        {"rename by a statement",
         [](auto& shop) {
             return rename(shop, 30, 4);
         }},
        {"remove by a statement",
         [](auto& shop) {
             return remove(shop, 30);
         }},
        {"add by a prepared table",
         [](auto& shop) {
             return add(shop, 35, 1);
         }},
        {"update by a prepared table",
         [](auto& shop) {
             return update(shop, 35, 4);
         }},
        {"add by an upsert",
         [](auto& shop) {
             return addOrUpdate(shop, 36, 1);
         }},
        {"update by an upsert",
         [](auto& shop) {
             return updateByUpsert(shop, 35, 5);
         }},
        {"delete by a prepared table",
         [](auto& shop) {
             return removeByKey(shop, 35);
         }},
        {"delete another by a prepared table",
         [](auto& shop) {
             return removeByKey(shop, 36);
         }},
    };
}

std::vector<Step> changingInTransactions()
{
    return {
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
            "addRecords", [](Shop& shop) { return addThree(shop); },
            [](TwinShop& shop) {
                return shop.transact("BEGIN") && shop.product.addRecord(named(37, 4))
                       && shop.product.addRecord(named(38, 5))
                       && shop.product.addRecord(named(39, 1)) && shop.transact("COMMIT");
            }),
        told(
            "runScript",
            [](Shop& shop) {
                const auto count = sql::runScript(
                    shop.database,
                    "begin; delete from product where id in (30, 31, 37, 38, 39); delete from product where id = 33; commit");
                return count && *count == 4;
            },
            [](TwinShop& shop) {
                return shop.transact("BEGIN")
                       && shop.product.deleteRecords("id in (30, 31, 33, 37, 38, 39)")
                       && shop.transact("COMMIT");
            }),
    };
}

std::vector<Step> changingInBulk(int rows)
{
    const auto addPlainly = [rows](TwinShop& shop) {
        return shop.query(manyText(rows));
    };
    const Step removeThem = {"deleteRecords", [](auto& shop) {
                                 return shop.product.deleteRecords("id >= 100");
                             }};
    return {
        told(
            "addRecords of many", [rows](Shop& shop) { return addMany(shop, rows); }, addPlainly),
        removeThem,
        told(
            "add of many objects", [rows](Shop& shop) { return addObjects(shop, rows); },
            addPlainly),
        removeThem,
        told(
            "copyRecords from another database",
            [rows](Shop& shop) { return copyFromAnother(shop, rows); }, addPlainly),
        {"truncate",
         [](auto& shop) {
             return shop.archive.truncate();
         }},
        told(
            "copyRecords within a database", [](Shop& shop) { return copyWithin(shop); },
            [](TwinShop& shop) { return shop.query("insert into archive select * from product"); }),
        removeThem,
    };
}

} // namespace test
