// A tour of the library, task by task, as docs/tour.md quotes it.
//
//     tour DATABASE

#include "SqlDatabase.h"
#include "SqlTable.h"
#include "TraceLevel.h"

#include <syslog.h>

#include <cstdio>
#include <vector>

namespace {

constexpr int busy_timeout_ms = 200;

const sql::Field columns[] = {
    sql::Field("id", sql::type_int, sql::flag_primary_key),
    sql::Field("name", sql::type_text, sql::flag_not_null | sql::flag_unique),
    sql::Field("cents", sql::type_int, sql::flag_not_null),
    sql::Field("weight", sql::type_float, sql::flag_none),
    sql::Field("fragile", sql::type_bool, sql::flag_none),
    sql::Field("arrived", sql::type_time, sql::flag_none),
    sql::Field(), // ends the list
};

void show(sql::Table& table)
{
    for (int i = 0; i < table.recordCount(); ++i)
        std::printf("%s\n", table.getRecord(i)->toString().c_str());
}

bool open(sql::Database& database, const char* file)
{
    // open() reads nothing; asking for the version does, and so finds a damaged or locked file.
    return database.open(file, sql::Database::access_create, false, busy_timeout_ms)
           && database.getUserVersion() >= 0;
}

bool create(sql::Database&, sql::Table& products)
{
    std::printf("%s\n", products.getDefinition().c_str());
    return products.create();
}

bool add(sql::Database&, sql::Table& products)
{
    sql::Record record(*products.fields()); // a row of nulls
    record.setString("name", "Captain's tea");
    record.setInteger("cents", 250);
    record.setDouble("weight", 0.125);
    record.setBool("fragile", false);
    record.setTime("arrived", sql::Time(1262304000));
    if (!products.addRecord(record)) // its key is null: SQLite chooses one
        return false;

    sql::Record another(*products.fields());
    another.setString("name", "Tea pot");
    another.setInteger("cents", 1999);
    another.setBool("fragile", true);
    return products.addRecord(another) && products.open("", "id");
}

bool readBack(sql::Database&, sql::Table& products)
{
    if (!products.open())
        return false;
    for (int i = 0; i < products.recordCount(); ++i) {
        const sql::Record* const product = products.getRecord(i);
        std::printf("%lld: %s costs %lld\n", product->getValue("id")->asInteger(),
                    product->getValue("name")->asString().c_str(),
                    product->getValue("cents")->asInteger());
    }
    return true;
}

bool lookUp(sql::Database&, sql::Table& products)
{
    const sql::Record* const product = products.getRecordByKeyId(sql::integer(2));
    if (product == nullptr)
        return false; // no such row, or a read that failed
    std::printf("%s\n", product->dump(false).c_str());
    return true;
}

bool search(sql::Database&, sql::Table& products)
{
    const sql::string typed = "Captain's tea"; // by a user
    const sql::integer limit = 2000;
    if (!products.open("name = '" + sql::quoteStr(typed) + "'"))
        return false;
    std::printf("%d called so\n", products.recordCount());
    if (!products.open("cents < " + sql::intToStr(limit), "cents desc, id"))
        return false;
    show(products);
    return true;
}

bool update(sql::Database&, sql::Table& products)
{
    sql::Record* const pot = products.getRecordByKeyId(sql::integer(2));
    if (pot == nullptr)
        return false;
    pot->setInteger("cents", 1799);
    if (!products.updateRecord(*pot)) // all its cells, in the row that has its key
        return false;
    if (!products.open("id = 2"))
        return false;
    show(products);
    return true;
}

bool addOrUpdate(sql::Database&, sql::Table& products)
{
    sql::Record mug(*products.fields());
    mug.setInteger("id", 7);
    mug.setString("name", "Mug");
    mug.setInteger("cents", 450);
    if (!products.addOrUpdateRecord(sql::integer(7), mug) || !products.open("", "id"))
        return false;
    show(products);
    return true;
}

bool erase(sql::Database&, sql::Table& products)
{
    if (!products.deleteRecord(sql::integer(7)) || !products.deleteRecords("cents > 100000"))
        return false;
    std::printf("%s\n", products.hasRecordWithKeyId(sql::integer(7)) ? "still there" : "gone");
    return true;
}

bool count(sql::Database&, sql::Table& products)
{
    const int all = products.totalRecordCount();
    const int fragile = sql::queryNumber(products.getHandle(),
                                         "select count(*) from product where fragile = 1");
    if (all < 0 || fragile < 0)
        return false;
    std::printf("%d, %d of them fragile\n", all, fragile);
    return true;
}

bool raisePrices(sql::Database& database, sql::Table& products)
{
    if (!database.transactionBegin())
        return false;
    if (products.query("update product set cents = cents + 10")
        && products.deleteRecords("cents > 5000") && database.transactionCommit())
        return products.open("", "id");
    database.transactionRollback(); // fails, and may, where SQLite has rolled back itself
    return false;
}

bool upgrade(sql::Database& database, sql::Table& products)
{
    if (!products.query("begin immediate")) // waits for a program that writes, keeps others from it
        return false;
    const int version = database.getUserVersion(); // 0 in a new file
    bool done = version >= 0;
    if (version == 0)
        done = products.query("create index by_cents on product (cents)")
               && database.setUserVersion(1);
    if (done && database.transactionCommit()) {
        std::printf("version %d, was %d\n", database.getUserVersion(), version);
        return true;
    }
    database.transactionRollback();
    return false;
}

bool backUp(sql::Database& database, sql::Table& products)
{
    sql::Table copy(database.getHandle(), "product_copy", columns);
    if (!copy.backup(products)) // drops the copy of before, if there is one
        return false;
    std::printf("%d rows copied\n", copy.totalRecordCount());
    return copy.remove();
}

bool tellTimes(sql::Database&, sql::Table& products)
{
    const sql::Record* const tea = products.getRecordByKeyId(sql::integer(1));
    if (tea == nullptr)
        return false;
    sql::Time time = tea->getValue("arrived")->asTime();
    std::printf("%s\n", time.asString().c_str());
    time.addDays(30);
    std::printf("%s\n", time.format("%Y-%m-%d %H:%M").c_str());
    return products.open("arrived < " + sql::intToStr(time.asInteger()));
}

bool tellNulls(sql::Database&, sql::Table& products)
{
    if (!products.open("weight is null") || products.recordCount() == 0)
        return false;
    const sql::Value* const weight = products.getTopRecord()->getValue("weight");
    std::printf("null: %s, as a number: %.1f, as a text: '%s'\n", weight->isNull() ? "yes" : "no",
                weight->asDouble(), weight->asString().c_str());
    return true;
}

bool sumUp(sql::Database& database, sql::Table&)
{
    const std::vector<sql::Field> fields = {sql::Field("fragile", sql::type_bool, sql::flag_none),
                                            sql::Field("cents", sql::type_int, sql::flag_none)};
    sql::RecordSet sums(database.getHandle(), fields);
    if (!sums.query("select fragile, sum(cents) from product group by fragile order by fragile"))
        return false;
    for (int i = 0; i < sums.count(); ++i)
        std::printf("%s: %lld\n", sums.getRecord(i)->getValue(0)->asBool() ? "fragile" : "other",
                    sums.getRecord(i)->getValue(1)->asInteger());
    return true;
}

bool report(sql::Database&, sql::Table& products)
{
    ::openlog("tour", LOG_PERROR, LOG_USER); // standard error as well as the system log
    trace::setLevel(trace::trace_errors);
    if (!products.open("prize < 300"))
        std::printf("cannot read the products\n");
    trace::setLevel(trace::trace_off);
    return true;
}

// `other` is another connection to the file of the products.
bool meetWriter(sql::Database& other, sql::Table& products)
{
    if (!sql::runOneStepSqlStmt(other.getHandle(), "begin immediate"))
        return false;
    std::printf("read: %s\n", products.open() ? "yes" : "no");
    std::printf("written: %s\n", products.truncate() ? "yes" : "no"); // after the busy timeout
    if (!other.transactionRollback())
        return false;
    std::printf("written: %s\n", products.truncate() ? "yes" : "no");
    return true;
}

struct Task {
    const char* heading;
    bool (*run)(sql::Database& database, sql::Table& products);
    bool changes; // the products, which are then shown
};

const Task tasks[] = {
    {"Create the table", create, false},
    {"Add rows", add, true},
    {"Read rows back", readBack, false},
    {"Look up by key", lookUp, false},
    {"Conditions and orders", search, false},
    {"Update", update, false},
    {"Add or update", addOrUpdate, false},
    {"Delete", erase, false},
    {"Count", count, false},
    {"Transactions", raisePrices, true},
    {"Schema version", upgrade, false},
    {"Copies and backups", backUp, false},
    {"Times", tellTimes, false},
    {"Nulls and defaults", tellNulls, false},
    {"Any other statement", sumUp, false},
    {"Errors and diagnostics", report, false},
};

// Each with a line for it, so that the page and what is printed can be compared.
bool runTasks(sql::Database& database, sql::Table& products)
{
    for (const Task& task : tasks) {
        std::printf("-- %s\n", task.heading);
        if (!task.run(database, products))
            return false;
        if (task.changes)
            show(products);
    }
    return true;
}

int fail(const char* what)
{
    std::fprintf(stderr, "tour: %s\n", what);
    return 1;
}

} // namespace

int main(int argc, char** argv)
{
    if (argc != 2) {
        std::fputs("usage: tour DATABASE\n", stderr);
        return 2;
    }
    std::setvbuf(stdout, nullptr, _IOLBF, BUFSIZ); // in order with what goes to standard error
    sql::Database database;
    sql::Database other;
    if (!open(database, argv[1]) || !open(other, argv[1]))
        return fail("cannot open the database");
    sql::Table products(database.getHandle(), "product", columns);
    if (!runTasks(database, products))
        return fail("this task failed");
    std::printf("-- Busy files\n");
    return meetWriter(other, products) ? 0 : fail("this task failed");
}
