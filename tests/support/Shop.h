#ifndef SQLWRAPPER_TESTS_SUPPORT_SHOP_H
#define SQLWRAPPER_TESTS_SUPPORT_SHOP_H

#include "SqlDatabase.h"
#include "SqlField.h"
#include "SqlFieldSet.h"
#include "SqlRecord.h"
#include "SqlTable.h"
#include "Sqlite.h"
#include "Twin.h"

#include <functional>
#include <string>
#include <utility>
#include <vector>

namespace test {

// id (integer key), name (not null), price, sold, code (unique)
extern const sql::Field goods_columns[];

const sql::FieldSet& goods();
const sql::FieldSet& vendors(); // text_key_columns

sql::Record good(sql::integer id, const std::string& name);

// A database file as an application uses it: the connection and its tables.
class Shop {
public:
    explicit Shop(std::string file);

    bool open(sql::Database::AccessMode mode = sql::Database::access_create, int busyTimeout = 0);
    void close();

    // As Database and RecordSet have them; for the words "BEGIN", "COMMIT" and "ROLLBACK".
    int getUserVersion();
    bool setUserVersion(unsigned int version);
    bool transact(const std::string& word);
    bool query(const std::string& statement);

    bool inTransaction();
    sqlite3* handle();

    sql::Database database;
    sql::Table product{nullptr, "product", goods()};
    sql::Table supplier{nullptr, "vendor", vendors()};
    sql::Table archive{nullptr, "archive", goods()};

private:
    const std::string _file;
};

// What it has to do, told by plain SQLite.
class TwinShop : public Twin {
public:
    using Twin::Twin;

    TwinTable product{*this, "product", goods()};
    TwinTable supplier{*this, "vendor", vendors()};
    TwinTable archive{*this, "archive", goods()};
};

// One operation, for the library and for its twin, and what it gives as a text.
template <typename Library, typename Plain> struct Both {
    template <typename Generic> Both(Generic run) : Both("", run)
    {
    }

    template <typename Generic>
    Both(std::string what, Generic run)
        : name(std::move(what)), library([run](Library& shop) { return result(run(shop)); }),
          plain([run](Plain& shop) { return result(run(shop)); })
    {
    }

    std::string name;
    std::function<std::string(Library&)> library;
    std::function<std::string(Plain&)> plain;
};

typedef Both<Shop, TwinShop> Step;

// All that a database holds, as the statements that make one like it.
std::string contents(Connection& db);
std::string contents(const std::string& file); // whose integrity is looked at as well

} // namespace test

#endif
