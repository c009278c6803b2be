#ifndef SQLWRAPPER_TESTS_UNIT_PREPAREDTABLEBULKTEST_H
#define SQLWRAPPER_TESTS_UNIT_PREPAREDTABLEBULKTEST_H

#include "PreparedTableTest.h"

#include <cstddef>
#include <iterator>
#include <optional>
#include <string>
#include <vector>

// Makes records while it is read, and may be read once: what a file or a network gives.
class Made {
public:
    using iterator_category = std::input_iterator_tag;
    using value_type = sql::Record;
    using difference_type = std::ptrdiff_t;
    using pointer = const sql::Record*;
    using reference = sql::Record;

    Made(const sql::Table& table, sql::integer number, sql::integer repeated = 0)
        : _table(&table), _number(number), _repeated(repeated)
    {
    }

    sql::Record operator*() const
    {
        sql::Record record(*_table->fields());
        record.setInteger(0, _number == _repeated ? 1 : _number);
        record.setString(1, "product of the number " + std::to_string(1000000 + _number));
        record.setDouble(2, static_cast<double>(_number) / 2);
        return record;
    }
    Made& operator++()
    {
        ++_number;
        return *this;
    }
    Made operator++(int)
    {
        const Made before = *this;
        ++_number;
        return before;
    }
    bool operator==(const Made& other) const
    {
        return _number == other._number;
    }
    bool operator!=(const Made& other) const
    {
        return _number != other._number;
    }

private:
    const sql::Table* _table;
    sql::integer _number;
    sql::integer _repeated; // this one has the key of the first
};

// What the tests of records in bulk share: products of a number each.
class PreparedTableBulkTest : public PreparedTableTest {
protected:
    // Numbered from 1, which are their keys.
    std::vector<sql::Record> records(int count)
    {
        return std::vector<sql::Record>(Made(_table, 1), Made(_table, count + 1));
    }

    bool add(const std::vector<sql::Record>& records)
    {
        return _fast.addRecords(records.begin(), records.end());
    }

    // All rows of this many records, and no others, each as it was made.
    void expectStored(int count)
    {
        const std::string number = std::to_string(count);
        EXPECT_EQ(rows("select count(*), coalesce(min(id), 1), coalesce(max(id), 0) from product"),
                  number + "|1|" + number);
        EXPECT_EQ(rows("select count(*) from product where price = id / 2.0"
                       " and name = 'product of the number ' || (1000000 + id)"),
                  number);
    }

    void expectAdded(int count)
    {
        EXPECT_FALSE(_fast.error());
        EXPECT_EQ(_fast.changes(), count);
        EXPECT_EQ(_fast.lastKey(), count > 0 ? std::optional<sql::integer>(count) : std::nullopt);
        expectStored(count);
    }

    // A failure at which SQLite has rolled back all, which the transaction tells first.
    void expectLost(const std::string& reason)
    {
        const sql::Error& error = _fast.error();
        expectReport(
            test::joined({{test::report::error("Transaction::noteRollback",
                                               "The transaction was rolled back: nothing is "
                                               "committed before its scope ends")},
                          test::report::statementFailed("addRecords", error.statement(), reason)}));
        expectError(error, reason, error.statement());
        EXPECT_EQ(_fast.changes(), 0);
        EXPECT_EQ(_fast.lastKey(), std::nullopt);
    }

    bool inTransaction()
    {
        return sqlite3_get_autocommit(_database.getHandle()) == 0;
    }

    // Behind the code, and the number of the record.
    const std::string _taken = "UNIQUE constraint failed: product.id";
    const std::string _stopped = "9=SQLITE_INTERRUPT: stopped by its progress";
};

#endif
