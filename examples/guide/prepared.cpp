// A tour of sqlprepared, task by task, as docs/prepared.md quotes it.
//
//     prepared DATABASE

#include "SqlBackup.h"
#include "SqlBlob.h"
#include "SqlFunction.h"
#include "SqlGroupCommit.h"
#include "SqlLiteral.h"
#include "SqlMigration.h"
#include "SqlPreparedTable.h"
#include "SqlSettings.h"
#include "SqlStopFlag.h"
#include "SqlTypedTable.h"

#include <cmath>
#include <cstdio>
#include <cstring>
#include <optional>
#include <thread>
#include <tuple>
#include <vector>

// A type of the program's own.
struct Money {
    sql::integer cents;
};

template <> struct sql::Binder<Money> {
    static sql::Argument argument(const Money& money)
    {
        return sql::Argument(money.cents);
    }
    static const char* read(const sql::Column& column, Money& money)
    {
        return sql::Binder<sql::integer>::read(column, money.cents);
    }
};

namespace {

struct Reading {
    sql::integer id = 0;
    sql::string sensor;
    double value = 0;
    std::optional<sql::string> note;
    std::chrono::system_clock::time_point at;
};

constexpr auto reading = sql::mapping<Reading>(
    "reading", sql::autoKey<&Reading::id>("id"), // 0: SQLite chooses
    sql::column<&Reading::sensor>("sensor", sql::flag_not_null),
    sql::column<&Reading::value>("value"), sql::column<&Reading::note>("note"),
    sql::column<&Reading::at>("at", sql::indexed));

constexpr int busy_timeout_ms = 100;

const sql::Field columns[] = {
    sql::Field("id", sql::type_int, sql::flag_primary_key),
    sql::Field("name", sql::type_text, sql::flag_not_null | sql::flag_unique),
    sql::Field("cents", sql::type_int, sql::flag_not_null),
    sql::Field("weight", sql::type_float, sql::flag_none),
    sql::Field(),
};

bool report(const sql::Error& error)
{
    std::printf("%s\n", error.text().c_str());
    return false;
}

bool show(sql::Database& database)
{
    sql::Statement all(database, "select id || ' ' || name || ' ' || cents from product");
    sql::string row;
    while (all.next(row))
        std::printf("%s\n", row.c_str());
    return all.finished() || report(all.error());
}

bool runScript(sql::Database& database, sql::Database&)
{
    const sql::Result<int> run = sql::runScript(
        database, "drop table if exists product;"
                  "create table product (id integer primary key, name text not null unique,"
                  " cents integer not null, weight real);");
    if (!run)
        return report(run.error());
    std::printf("%d statements\n", *run);
    return true;
}

bool bindValues(sql::Database& database, sql::Database&)
{
    sql::Statement add(database, "insert into product (name, cents, weight) values (?, ?, ?)");
    const std::optional<double> unknown;
    if (!add.run("Captain's tea", 250, 0.125) || !add.run("Tea pot", 1999, unknown))
        return report(add.error());

    sql::Statement raise(database, "update product set cents = cents + :more where name = :name");
    raise.bind(":more", 10).bind(":name", "Tea pot");
    if (!raise.run())
        return report(raise.error());
    return show(database);
}

bool readRows(sql::Database& database, sql::Database&)
{
    sql::Statement cheap(database, "select name, weight from product where cents < ? order by id");
    cheap.bind(1, 5000);
    sql::string name;
    std::optional<double> weight; // is empty for NULL
    while (cheap.next(name, weight))
        std::printf("%s: %.3f\n", name.c_str(), weight.value_or(0));
    if (!cheap.finished()) // the loop has ended by a failure
        return report(cheap.error());

    sql::Statement all(database, "select * from product order by cents desc");
    while (all.next())
        std::printf("%lld %s\n", all.column("cents").asInteger(),
                    all.column("name").asString().c_str());
    return all.finished() || report(all.error());
}

bool tellReasons(sql::Database& database, sql::Database&)
{
    sql::Statement add(database, "insert into product (name, cents) values (?, ?)");
    if (!add.run("Tea pot", 1) && add.error().isConstraint())
        std::printf("%s: %s\n", add.error().name(), add.error().text().c_str());

    const sql::Statement misspelt(database, "select prize from product");
    if (!misspelt.isPrepared())
        std::printf("%s in '%s'\n", misspelt.error().text().c_str(),
                    misspelt.error().statement().c_str());
    return true;
}

bool readOne(sql::Database& database, sql::Database&)
{
    sql::Statement find(database, "select cents from product where name = ?");
    const sql::Result<sql::integer> cents = find.one<sql::integer>("Tea pot");
    if (cents)
        std::printf("%lld\n", *cents);
    else if (cents.failed())
        return report(cents.error());
    else
        std::printf("no such product\n");

    sql::Statement row(database, "select name, cents from product where id = ?");
    if (const auto tea = row.one<sql::string, sql::integer>(1))
        std::printf("%s %lld\n", std::get<0>(*tea).c_str(), std::get<1>(*tea));
    return true;
}

bool tellKeys(sql::Database& database, sql::Database&)
{
    sql::Statement add(database, "insert into product (name, cents) values (?, ?)");
    if (!add.run("Mug", 450))
        return report(add.error());
    std::printf("key %lld\n", add.lastKey().value_or(0));

    sql::Statement reduce(database, "update product set cents = cents - 10 where cents > ?");
    if (!reduce.run(400))
        return report(reduce.error());
    std::printf("%lld changed\n", reduce.changes());
    return true;
}

bool changeTogether(sql::Database& database, sql::Database&)
{
    sql::Statement reduce(database, "update product set cents = cents - ?");
    sql::Statement remove(database, "delete from product where cents > ?");

    sql::Transaction transaction(database, sql::begin_immediate);
    if (!transaction.isOpen())
        return report(transaction.error());
    if (!reduce.run(50))
        return report(reduce.error()); // leaving the scope rolls back
    {
        sql::Savepoint trial(database);
        if (!trial.isOpen() || !remove.run(1000))
            return report(trial.isOpen() ? remove.error() : trial.error());
    } // was not committed: nothing is removed
    if (!transaction.commit())
        return report(transaction.error());
    return show(database);
}

// `other` is another program's connection to the same file.
bool shareFile(sql::Database& database, sql::Database& other)
{
    sql::Statement take(database,
                        "update product set cents = cents - 1 where name = ? and cents > 0");
    const auto work = [&take] {
        return take.run("Mug") && take.changes() == 1;
    };

    sql::Transaction writer(other, sql::begin_immediate);
    sql::Result<bool> done = sql::inTransaction(database, work, std::chrono::milliseconds(50));
    if (done.error().isBusy())
        std::printf("busy\n");
    writer.rollback();

    done = sql::inTransaction(database, work, std::chrono::seconds(2));
    std::printf("%s\n", done ? "done" : done.failed() ? "failed" : "rolled back");
    return true;
}

bool find(sql::Database& database, const sql::string& typed)
{
    sql::Statement find(database, "select name from product where name like ? escape '\\'");
    find.bind(1, "%" + sql::escapeLike(typed) + "%");
    sql::string name;
    while (find.next(name))
        std::printf("%s\n", name.c_str());
    return find.finished() || report(find.error());
}

bool stopRun(sql::Database& database, sql::Database&)
{
    sql::StopFlag stop(database);
    if (!stop.isAttached())
        return report(stop.error());
    std::thread user([&stop] { stop.set(); }); // at any time

    sql::Statement endless(database, "with recursive number (i) as"
                                     " (select 1 union all select i + 1 from number)"
                                     " select max(i) from number");
    if (!endless.run() && endless.error().isStopped())
        std::printf("stopped\n");
    user.join();
    stop.clear();
    return true;
}

bool fillShelves(sql::Database& database)
{
    return sql::Statement(database, "update article set shelf = 'A' || id").run();
}

// A release appends its steps and changes none.
const sql::MigrationStep steps[] = {
    {1, "create table article (id integer primary key, name text not null)"},
    {2, "alter table article add column shelf text; create index by_shelf on article (shelf)"},
    {3, fillShelves},
};

bool migrateFile(sql::Database& database, sql::Database&)
{
    const sql::Result<int> version = sql::migrate(database, steps, std::chrono::seconds(2));
    if (!version)
        return report(version.error());
    std::printf("version %d\n", *version);
    return true;
}

bool callFunctions(sql::Database& database, sql::Database&)
{
    const auto distance = [](double x, double y) {
        return std::sqrt(x * x + y * y);
    };
    const sql::Result<bool> added = sql::addFunction(database, "distance", distance);
    if (!added)
        return report(added.error());
    sql::Statement ask(database, "select distance(3, 4)");
    std::printf("%.1f\n", ask.one<double>().valueOr(0));
    return true;
}

bool storePieces(sql::Database& database, sql::Database&)
{
    if (!sql::runScript(database, "create table if not exists picture (content blob)"))
        return false;

    sql::Transaction transaction(database, sql::begin_immediate);
    sql::Statement add(database, "insert into picture (content) values (zeroblob(?))");
    if (!transaction.isOpen() || !add.run(200000))
        return report(sql::lastError(database));
    const sql::integer key = *add.lastKey();
    sql::Blob blob(database, "picture", "content", key, sql::blob_write);
    const auto camera = [](void* buffer, std::size_t size) {
        std::memset(buffer, 7, size);
        return true;
    };
    if (!blob.writeAll(camera) || !blob.release())
        return report(blob.error());
    if (!transaction.commit())
        return report(transaction.error());

    sql::Blob stored(database, "picture", "content", key, sql::blob_read);
    unsigned char header[2] = {};
    if (!stored.read(0, header, sizeof header))
        return report(stored.error());
    std::printf("%lld bytes, the first %d\n", stored.size(), header[0]);
    return true;
}

bool lookForTexts(sql::Database& database, sql::Database&)
{
    return find(database, "n's t") && find(database, "%");
}

bool quoteNames(sql::Database& database, sql::Database&)
{
    const sql::string typed = "my \"best\" products";
    const sql::string name = sql::quoteIdentifier(typed);
    std::printf("%s\n", name.c_str());
    const sql::Result<int> run = sql::runScript(database, "create table " + name + " (id integer);"
                                                              + "drop table " + name);
    return run || report(run.error());
}

bool tellTimes(sql::Database& database, sql::Database&)
{
    const sql::string text = sql::toIso8601(sql::Time(1262304000));
    std::printf("%s\n", text.c_str());
    sql::Statement nextDay(database, "select datetime(?, '+1 day')"); // SQLite takes such texts
    const sql::Result<sql::string> day = nextDay.one<sql::string>(text);
    sql::Time time;
    if (!day || !sql::fromIso8601(*day, time))
        return report(day.error());
    std::printf("%s is %lld\n", day->c_str(), time.asInteger());
    return true;
}

bool useOwnTypes(sql::Database& database, sql::Database&)
{
    sql::Statement price(database, "select cents from product where cents >= ? order by cents");
    const sql::Result<Money> least = price.one<Money>(Money{300});
    if (!least)
        return report(least.error());
    std::printf("%.2f\n", static_cast<double>(least->cents) / 100);
    return true;
}

bool useTables(sql::Database& database, sql::Database&)
{
    sql::Table products(database.getHandle(), "product", columns);
    sql::Record towel(*products.fields());
    towel.setString("name", "Towel");
    towel.setInteger("cents", 700);
    sql::Record another(towel); // whose name is taken

    sql::Transaction transaction(database, sql::begin_immediate);
    if (!transaction.isOpen())
        return report(transaction.error());
    if (!products.addRecord(towel) || !products.addRecord(another))
        report(sql::lastError(database));
    return transaction.rollback();
}

bool useRecords(sql::Database& database, sql::Database&)
{
    const sql::Table products(database.getHandle(), "product", columns);
    sql::PreparedTable fast(database, products); // borrows both
    sql::Record towel(*products.fields());
    towel.setString("name", "Towel");
    towel.setInteger("cents", 700);
    if (!fast.addRecord(towel))
        return report(fast.error());

    const sql::integer key = fast.lastKey().value_or(0);
    sql::Record found(*products.fields());
    const sql::Result<bool> isThere = fast.readRecord(key, found);
    if (isThere)
        std::printf("%s\n", found.toString().c_str());
    else if (isThere.failed())
        return report(isThere.error());

    found.setInteger("cents", 650);
    if (!fast.updateRecord(found))
        return report(fast.error());
    std::printf("%lld changed\n", fast.changes());
    if (!fast.deleteRecord(key))
        return report(fast.error());
    if (fast.hasRecordWithKeyId(key) == sql::Presence::absent)
        std::printf("gone\n");
    return true;
}

bool selectRecords(sql::Database& database, sql::Database&)
{
    const sql::Table products(database.getHandle(), "product", columns);
    sql::PreparedTable fast(database, products);
    sql::RecordCursor cheap = fast.select("where cents < ? order by name", 400);
    sql::Record product(*products.fields());
    while (cheap.next(product))
        std::printf("%s\n", product.toString().c_str());
    return cheap.finished() || report(cheap.error());
}

bool tell(sql::integer count)
{
    std::printf("%lld added\n", count);
    return true; // false stops, and nothing is added
}

bool addManyRecords(sql::Database& database, sql::Database&)
{
    const sql::Table products(database.getHandle(), "product", columns);
    sql::PreparedTable fast(database, products);
    std::vector<sql::Record> many;
    for (const char* name : {"Spoon", "Fork", "Mug"}) {
        many.emplace_back(*products.fields());
        many.back().setString("name", name);
        many.back().setInteger("cents", 120);
    }

    if (!fast.addRecords(many.begin(), many.end(), tell))
        report(fast.error());
    if (!fast.addRecords(many.begin(), many.begin() + 2, tell))
        return report(fast.error());
    const auto undone = sql::runScript(database, "delete from product where cents = 120");
    return undone || report(undone.error());
}

bool checkDeclaration(sql::Database& database, sql::Database&)
{
    const sql::Field others[] = {sql::Field("id", sql::type_int, sql::flag_primary_key),
                                 sql::Field("name", sql::type_text, sql::flag_none),
                                 sql::Field("grams", sql::type_int, sql::flag_none), sql::Field()};
    const sql::Table products(database.getHandle(), "product", others);
    const auto differences = sql::PreparedTable(database, products).checkDeclaration();
    if (!differences)
        return report(differences.error());
    for (const sql::string& difference : *differences)
        std::printf("%s\n", difference.c_str());
    return true;
}

bool useObjects(sql::Database& database, sql::Database&)
{
    sql::TypedTable readings(database, reading);
    if (!readings.create())
        return report(readings.error());
    Reading warm;
    warm.sensor = "hall";
    warm.value = 21.5;
    if (!readings.add(warm)) // sets the key
        return report(readings.error());
    warm.value = 22;
    if (!readings.update(warm))
        return report(readings.error());

    const sql::Result<Reading> found = readings.find(warm.id);
    if (found)
        std::printf("%s: %.1f\n", found->sensor.c_str(), found->value);
    else if (found.failed())
        return report(found.error());
    return true;
}

bool selectObjects(sql::Database& database, sql::Database&)
{
    sql::TypedTable readings(database, reading);
    std::vector<Reading> many(3);
    for (Reading& each : many) {
        each.sensor = "attic";
        each.value = 30.0 + static_cast<double>(&each - many.data());
    }
    if (!readings.add(many.begin(), many.end())) // all or none
        return report(readings.error());

    auto hot = readings.select("where sensor = ? and value > ? order by id", "attic", 30.5);
    Reading row;
    while (hot.next(row))
        std::printf("%lld: %.1f\n", row.id, row.value);
    if (!hot.finished())
        return report(hot.error());

    std::vector<Reading> all;
    if (!readings.load(all, "order by id limit 100"))
        return report(readings.error());
    const auto values = readings.values<double>("value", "where sensor = ?", "hall");
    const sql::Result<sql::integer> count = readings.count("where value > ?", 31);
    if (!values || !count)
        return report(readings.error());
    std::printf("%zu loaded, %zu of the hall, %lld above 31\n", all.size(), values->size(), *count);
    return true;
}

struct Day {
    sql::string sensor;
    double highest = 0;
};

constexpr auto day = sql::mapping<Day>("", sql::column<&Day::sensor>("sensor"),
                                       sql::column<&Day::highest>("highest"));

bool queryObjects(sql::Database& database, sql::Database&)
{
    auto days = sql::query<Day>(database, day,
                                "select sensor, max(value) as highest from reading"
                                " where value > ? group by sensor",
                                0);
    for (const Day& each : days)
        std::printf("%s: %.1f\n", each.sensor.c_str(), each.highest);
    return days.finished() || report(days.error());
}

struct Sealed : Reading {
    bool isSealed = false;
    sql::string by;
};

// What the next release needs.
constexpr auto sealed = sql::mapping<Sealed>(
    "reading", sql::autoKey<&Sealed::id>("id"),
    sql::column<&Sealed::sensor>("sensor", sql::flag_not_null),
    sql::column<&Sealed::value>("value"), sql::column<&Sealed::note>("note"),
    sql::column<&Sealed::at>("at", sql::indexed),
    sql::column<&Sealed::isSealed>("sealed", sql::flag_not_null, sql::defaultsTo("0")),
    sql::column<&Sealed::by>("sealed_by", sql::flag_not_null), sql::indexOver("sensor", "at"));

bool syncObjects(sql::Database& database, sql::Database&)
{
    const auto left = sql::TypedTable(database, sealed).sync();
    if (!left)
        return report(left.error());
    for (const sql::string& difference : *left)
        std::printf("%s\n", difference.c_str());
    const auto dropped = sql::runScript(database, "drop table reading");
    return dropped || report(dropped.error());
}

bool collectWrites(sql::Database& database, sql::Database&)
{
    sql::Statement weigh(database, "update product set weight = ? where name = 'Mug'");

    sql::GroupCommit group(database, 3, std::chrono::seconds(5));
    for (const std::optional<double> weight : {0.31, 0.32, 0.33, 0.34}) {
        if (!group.write([&] { return weigh.run(weight); }))
            return report(group.error() ? group.error() : weigh.error());
        std::printf("%lld pending\n", group.pending());
    }

    const auto due = group.due(); // how long the program's loop may wait
    if (due && due->count() == 0 && !group.flush())
        return report(group.error());

    if (!group.write([&] { return weigh.run(nullptr); }) || !group.flush())
        return report(group.error());
    std::printf("%lld pending, %lld lost\n", group.pending(), group.lost());
    return true;
}

bool applySettings(sql::Database& database, sql::Database&)
{
    sql::Settings settings;
    settings.busyTimeout = std::chrono::seconds(2);
    settings.foreignKeys = true;
    settings.journalMode = sql::journal_wal;
    settings.synchronous = sql::synchronous_full;
    sql::Result<bool> applied = settings.apply(database);
    if (!applied)
        return report(applied.error());

    settings.pageSize = 1024; // too late: there are tables in the file
    applied = settings.apply(database);
    if (!applied)
        std::printf("%s\n", applied.error().text().c_str());
    return true;
}

bool lookAfter(sql::Database& database, sql::Database&)
{
    const auto complaints = sql::checkIntegrity(database, sql::check_quick);
    if (!complaints)
        return report(complaints.error());
    for (const sql::string& complaint : *complaints)
        std::printf("%s\n", complaint.c_str());

    const sql::Result<sql::integer> left = sql::checkpoint(database, sql::checkpoint_truncate);
    if (left.failed())
        return report(left.error());
    const sql::Result<bool> optimized = sql::optimize(database);
    if (!optimized)
        return report(optimized.error());
    std::printf("%lld frames left in the log\n", left.valueOr(0));
    return true;
}

bool backUp(sql::Database& database, sql::Database&)
{
    sql::BackupOptions options;
    options.patience = std::chrono::seconds(2);
    options.progress = [](sql::integer done, sql::integer total) {
        return done <= total; // false stops
    };
    for (const auto& job : {sql::backupDatabase, sql::restoreDatabase}) {
        const sql::Result<sql::integer> pages = job(database, "backup.db", options);
        if (!pages)
            return report(pages.error());
    }
    std::printf("backed up, and restored\n");
    return true;
}

struct Task {
    const char* heading;
    bool (*run)(sql::Database& database, sql::Database& other);
};

const Task tasks[] = {
    {"Scripts", runScript},
    {"Bind values", bindValues},
    {"Read rows", readRows},
    {"Why it failed", tellReasons},
    {"One value", readOne},
    {"Keys and counts", tellKeys},
    {"Transactions and savepoints", changeTogether},
    {"Several programs at once", shareFile},
    {"Stop what is running", stopRun},
    {"From version to version", migrateFile},
    {"Functions of your own", callFunctions},
    {"Blobs in pieces", storePieces},
    {"Look for texts", lookForTexts},
    {"Names from outside", quoteNames},
    {"Times as texts", tellTimes},
    {"Types of your own", useOwnTypes},
    {"Together with tables", useTables},
    {"The records of a table", useRecords},
    {"Records one by one", selectRecords},
    {"Many records at once", addManyRecords},
    {"What differs from the declaration", checkDeclaration},
    {"Structs in place of records", useObjects},
    {"Objects by a condition", selectObjects},
    {"Any query into a struct", queryObjects},
    {"Columns that a release adds", syncObjects},
    {"Many small writes", collectWrites},
    {"Settings of a connection", applySettings},
    {"Look after a file", lookAfter},
    {"Backup and restore", backUp},
};

int fail(const char* what)
{
    std::fprintf(stderr, "prepared: %s\n", what);
    return 1;
}

} // namespace

int main(int argc, char** argv)
{
    if (argc != 2) {
        std::fputs("usage: prepared DATABASE\n", stderr);
        return 2;
    }
    sql::Database database;
    sql::Database other;
    for (sql::Database* const one : {&database, &other}) {
        if (!one->open(argv[1], sql::Database::access_create, false, busy_timeout_ms)
            || one->getUserVersion() < 0)
            return fail("cannot open the database");
    }
    for (const Task& task : tasks) {
        std::printf("-- %s\n",
                    task.heading); // so that the page and what is printed can be compared
        if (!task.run(database, other))
            return fail("this task failed");
    }
    return 0;
}
