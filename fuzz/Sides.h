#ifndef SQLWRAPPER_FUZZ_SIDES_H
#define SQLWRAPPER_FUZZ_SIDES_H

// Two tables of a database in memory on two sides: the library, and plain SQLite with the statements
// that the library has to run.

#include "Fuzz.h"

#include "Columns.h"
#include "SqlDatabase.h"
#include "SqlTable.h"
#include "Sqlite.h"
#include "Twin.h"

#include <optional>
#include <string>

namespace fuzz {

struct Library {
    Library(const char* first, const char* second)
        : tables{{nullptr, first, test::all_type_columns},
                 {nullptr, second, test::all_type_columns}}
    {
        expectEqual("whether a database can be opened in memory",
                    database.open(":memory:", sql::Database::access_create, false, 0), true);
        for (sql::Table& table : tables)
            table.initTable(database.getHandle(), nullptr); // it has its columns
    }

    bool transact(const std::string& word)
    {
        if (word == "BEGIN")
            return database.transactionBegin();
        return word == "COMMIT" ? database.transactionCommit() : database.transactionRollback();
    }

    int getUserVersion()
    {
        return database.getUserVersion();
    }

    bool setUserVersion(unsigned version)
    {
        return database.setUserVersion(version);
    }

    sql::Database database;
    sql::Table tables[2];
};

struct Plain : test::Twin {
    Plain(const char* first, const char* second)
        : tables{{*this, first, test::all_type_columns}, {*this, second, test::all_type_columns}}
    {
        use(db);
    }

    test::Connection db;
    test::TwinTable tables[2];
};

inline bool found(const sql::Record* record)
{
    return record != nullptr;
}

inline bool found(const std::optional<std::string>& record)
{
    return record.has_value();
}

class Sides {
public:
    Sides(const char* first, const char* second) : library(first, second), plain(first, second)
    {
        diagnostics.setLevel(level);
    }

    // Does it on both sides: the same results, reports and rows held. What is chosen at random is
    // the same as well.
    template <typename Generic> void expectSame(const char* what, Generic operation)
    {
        diagnostics.clear();
        plain.clear();
        sqlite3_test_control(SQLITE_TESTCTRL_PRNG_SEED, 7, nullptr);
        const std::string given = test::result(operation(library));
        const Events events = diagnostics.events();
        sqlite3_test_control(SQLITE_TESTCTRL_PRNG_SEED, 7, nullptr);
        const std::string expected = test::result(operation(plain));
        expectEqual(what, given, expected);
        expectEqual(what, events, test::visibleAt(level, plain.events()));
        for (int i = 0; i < 2; ++i) {
            sql::Table& table = library.tables[i];
            expectEqual("what is held", test::rowsOf(table), plain.tables[i].rows());
            expectEqual("the record after the last", found(table.getRecord(table.recordCount())),
                        false);
        }
    }

    static const int level = 8; // statements too

    test::Diagnostics diagnostics;
    Library library;
    Plain plain;
};

} // namespace fuzz

#endif
