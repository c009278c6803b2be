// The calls of the text route and those of sqlprepared for the same, as docs/choosing.md has them side
// by side. Prints what each of both finds.
//
//     calls

#include "SqlStatement.h"
#include "SqlTable.h"
#include "SqlTransaction.h"

#include <cstdio>
#include <optional>
#include <vector>

namespace {

using sql::integer;
using sql::string;

const sql::Field columns[] = {
    sql::Field("id", sql::type_int, sql::flag_primary_key),
    sql::Field("name", sql::type_text, sql::flag_not_null),
    sql::Field("price", sql::type_float, sql::flag_none),
    sql::Field(),
};

// What one route has found, a text for each call.
using Found = std::vector<string>;

string number(integer value)
{
    return sql::intToStr(value);
}

bool byTexts(sql::Database& database, Found& found)
{
    sql::Table products(database.getHandle(), "product", columns);
    if (!products.create() || !products.exists())
        return false;
    sql::Record tea(*products.fields());
    const string typed = "Captain's tea";
    tea.setString("name", typed);
    tea.setDouble("price", 2.5);

    if (!database.transactionBegin() || !products.addRecord(tea) || !database.transactionCommit())
        return false;
    if (!products.query("select last_insert_rowid()"))
        return false;
    const integer id = products.getTopRecord()->getValue("id")->asInteger();
    found.push_back(number(id));

    if (!products.open("name = '" + sql::quoteStr(typed) + "'", "id"))
        return false;
    for (int i = 0; i < products.recordCount(); ++i)
        found.push_back(products.getRecord(i)->getValue("name")->asString());
    const sql::Record* const row = products.getRecordByKeyId(id);
    found.push_back(row != nullptr ? row->getValue("name")->asString() : "none");
    found.push_back(products.hasRecordWithKeyId(id + 1) ? "there" : "not there");

    tea.setInteger("id", id);
    tea.setDouble("price", 3);
    if (!products.updateRecord(tea) || !products.addOrUpdateRecord(id, tea))
        return false;
    found.push_back(
        number(sql::queryNumber(products.getHandle(), "select max(price) from product")));
    if (!database.transactionBegin() || !products.truncate() || !database.transactionRollback())
        return false;
    if (!products.deleteRecord(id) || !products.deleteRecords("price > 3"))
        return false;
    found.push_back(number(products.totalRecordCount()));

    const std::vector<sql::Field> one = {sql::Field("n", sql::type_int, sql::flag_none)};
    sql::RecordSet sums(database.getHandle(), one);
    if (!sums.query("select 1 + 1"))
        return false;
    found.push_back(number(sums.getRecord(0)->getValue(0)->asInteger()));
    return products.remove();
}

bool byStatements(sql::Database& database, Found& found)
{
    if (!sql::runScript(database, "create table product"
                                  " (id integer primary key, name text not null, price real)"))
        return false;
    sql::Statement known(database, "select 1 from sqlite_master where name = ?");
    sql::Statement add(database, "insert into product (name, price) values (?, ?)");
    sql::Statement named(database, "select name from product where name = ? order by id");
    sql::Statement find(database, "select name, price from product where id = ?");
    sql::Statement exists(database, "select 1 from product where id = ?");
    sql::Statement change(database, "update product set price = ? where id = ?");
    sql::Statement put(database, "insert into product (id, name, price) values (?, ?, ?)"
                                 " on conflict (id) do update set price = excluded.price");
    sql::Statement highest(database, "select max(price) from product");
    sql::Statement remove(database, "delete from product where id = ?");
    sql::Statement removeAll(database, "delete from product where price > ?");
    sql::Statement clear(database, "delete from product");
    sql::Statement count(database, "select count(*) from product");
    const string typed = "Captain's tea";
    string name;

    if (!known.one<int>("product"))
        return false;
    {
        sql::Transaction transaction(database, sql::begin_immediate);
        if (!transaction.isOpen() || !add.run(typed, 2.5) || !transaction.commit())
            return false;
    }
    const integer id = add.lastKey().value_or(0);
    found.push_back(number(id));

    named.bind(1, typed);
    while (named.next(name))
        found.push_back(name);
    if (!named.finished())
        return false;
    const auto row = find.one<string, std::optional<double>>(id);
    found.push_back(row ? std::get<0>(*row) : "none");
    found.push_back(exists.one<int>(id + 1) ? "there" : "not there");

    if (!change.run(3, id) || change.changes() != 1 || !put.run(id, typed, 3))
        return false;
    found.push_back(number(highest.one<integer>().valueOr(-1)));
    {
        sql::Transaction transaction(database, sql::begin_immediate);
        if (!transaction.isOpen() || !clear.run() || !transaction.rollback())
            return false;
    }
    if (!remove.run(id) || !removeAll.run(3))
        return false;
    found.push_back(number(count.one<integer>().valueOr(-1)));

    sql::Statement sums(database, "select 1 + 1");
    while (sums.next())
        found.push_back(number(sums.column(0).asInteger()));
    return sums.finished() && sql::runScript(database, "drop table product");
}

} // namespace

int main()
{
    sql::Database database;
    Found texts;
    Found statements;
    if (!database.open(":memory:", sql::Database::access_create, false, 0)
        || !byTexts(database, texts) || !byStatements(database, statements))
        return 1;
    for (const Found& found : {texts, statements}) {
        for (const string& text : found)
            std::printf("%s|", text.c_str());
        std::printf("\n");
    }
    return 0;
}
