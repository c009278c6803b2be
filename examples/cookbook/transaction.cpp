// Many writes in one transaction: all of them or none, and one wait for the disk instead of a
// thousand.
//
//     transaction DATABASE

#include "SqlDatabase.h"
#include "SqlTable.h"

#include <cstdio>

namespace {

constexpr int busy_timeout_ms = 2000;
constexpr int batch_size = 1000;

const sql::Field columns[] = {
    sql::Field("id", sql::type_int, sql::flag_primary_key),
    sql::Field("celsius", sql::type_float, sql::flag_not_null),
    sql::Field(),
};

// Rolls back at the end of its life unless it was committed.
class Transaction {
public:
    explicit Transaction(sql::Database& database)
        : _database(database), _isOpen(database.transactionBegin())
    {
    }

    ~Transaction()
    {
        // On a full disk SQLite may have rolled back itself; then this fails, and nothing is amiss.
        if (_isOpen)
            _database.transactionRollback();
    }

    Transaction(const Transaction&) = delete;
    Transaction& operator=(const Transaction&) = delete;

    bool isOpen() const
    {
        return _isOpen;
    }

    bool commit()
    {
        if (!_database.transactionCommit())
            return false;
        _isOpen = false;
        return true;
    }

private:
    sql::Database& _database;
    bool _isOpen;
};

// Stops at the first failure: it may have ended the transaction, and what is written after that
// would stay.
bool addBatch(sql::Database& database, sql::Table& readings, sql::integer lastKey)
{
    Transaction transaction(database);
    if (!transaction.isOpen())
        return false;
    for (int i = 0; i < batch_size; ++i) {
        sql::Record reading(*readings.fields());
        if (i == batch_size - 1)
            reading.setInteger("id", lastKey);
        reading.setDouble("celsius", 20 + i % 10 * 0.5);
        if (!readings.addRecord(reading))
            return false;
    }
    return transaction.commit();
}

int fail(const char* what)
{
    std::fprintf(stderr, "transaction: %s\n", what);
    return 1;
}

} // namespace

int main(int argc, char** argv)
{
    if (argc != 2) {
        std::fputs("usage: transaction DATABASE\n", stderr);
        return 2;
    }
    sql::Database database;
    if (!database.open(argv[1], sql::Database::access_create, false, busy_timeout_ms))
        return fail("cannot open the database");
    sql::Table readings(database.getHandle(), "reading", columns);
    if (database.getUserVersion() < 0 || !readings.create())
        return fail("cannot read the database, or make the table");

    const int before = readings.totalRecordCount();
    if (before < 0 || !addBatch(database, readings, before + batch_size))
        return fail("cannot add the readings");
    std::printf("%d readings\n", readings.totalRecordCount());

    // The last row of this batch has a key that is taken already.
    if (addBatch(database, readings, 1))
        return fail("the same key twice");
    std::printf("%d readings after a batch that failed\n", readings.totalRecordCount());
    return 0;
}
