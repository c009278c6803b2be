#ifndef SQLWRAPPER_TESTS_UNIT_PREPAREDTABLETEST_H
#define SQLWRAPPER_TESTS_UNIT_PREPAREDTABLETEST_H

#include "ProductTest.h"
#include "SqlPreparedTable.h"
#include "StatementTest.h"

#include <optional>
#include <string>
#include <vector>

typedef std::vector<std::optional<std::string>> Cells;

// A record of these texts, of which none is NULL.
inline sql::Record recordOf(const sql::Table& table, const Cells& cells)
{
    sql::Record record(*table.fields());
    for (std::size_t i = 0; i < cells.size(); ++i) {
        if (cells[i])
            record.setString(static_cast<int>(i), *cells[i]);
    }
    return record;
}

// The texts of a record, NULL as none.
inline Cells textsOf(const sql::Record& record)
{
    Cells cells(record.columnCount());
    for (int i = 0; i < record.columnCount(); ++i) {
        sql::Value value = *record.getValue(i);
        if (!value.isNull())
            cells[i] = value.getType() == sql::type_time ? value.toSql(sql::type_int)
                                                         : value.asString();
    }
    return cells;
}

// A table of these columns, and how it is prepared. The file's is the test's own to make.
struct Declared {
    Declared(sql::Database& database, const std::vector<sql::Field>& fields,
             const std::string& name = "shelf")
        : table(database.getHandle(), name, sql::FieldSet(fields)), fast(database, table)
    {
    }

    sql::Record record(const Cells& cells) const
    {
        return recordOf(table, cells);
    }

    sql::Table table;
    sql::PreparedTable fast;
};

// What the tests of prepared tables share: one of products.
class PreparedTableTest : public StatementTest {
protected:
    PreparedTableTest()
        : _table(_database.getHandle(), "product", test::product_columns), _fast(_database, _table)
    {
        run(test::product_definition);
    }

    // A statement that is left over would be reported when the database closes.
    void TearDown() override
    {
        _fast.release();
        StatementTest::TearDown();
    }

    void fill()
    {
        run("insert into product (id, name, price) values (1, 'tea', 2.5), (2, 'coffee', 4.5), (3, 'milk', 1.25)");
    }

    sql::Record product(sql::integer id, const std::string& name, double price)
    {
        return test::product(_table, id, name, price);
    }

    std::string products()
    {
        return typedRows("select * from product");
    }

    std::string typedRows(const std::string& sql)
    {
        return test::typedRows(_database.getHandle(), sql);
    }

    using StatementTest::expectFailure;

    // The operation failed for this reason, and has reported so, and nothing else, with the statement
    // that the error has.
    void expectFailure(const sql::Error& error, const std::string& operation,
                       const std::string& reason)
    {
        expectFailure(error, operation, reason, error.statement());
    }

    // It has changed nothing either.
    void expectFailure(const sql::PreparedTable& fast, const std::string& operation,
                       const std::string& reason)
    {
        expectFailure(fast.error(), operation, reason);
        EXPECT_EQ(fast.changes(), 0);
        EXPECT_EQ(fast.lastKey(), std::nullopt);
    }

    // The operations that are given a key fail for this reason.
    template <typename Key>
    void expectKeyFails(Declared& declared, const Key& key, const std::string& reason)
    {
        sql::PreparedTable& fast = declared.fast;
        EXPECT_FALSE(fast.deleteRecord(key));
        expectFailure(fast, "deleteRecord", reason);
        EXPECT_EQ(fast.hasRecordWithKeyId(key), sql::Presence::unknown);
        expectFailure(fast, "hasRecordWithKeyId", reason);
        sql::Record record(*declared.table.fields());
        const sql::Result<bool> found = fast.readRecord(key, record);
        EXPECT_FALSE(found);
        EXPECT_TRUE(found.failed());
        expectFailure(fast, "readRecord", reason);
        EXPECT_EQ(found.error().text(), fast.error().text());
        EXPECT_EQ(textsOf(record), Cells(record.columnCount()));
    }

    sql::Table _table;
    sql::PreparedTable _fast;
};

#endif
