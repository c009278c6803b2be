#include "Job.h"

#include "Columns.h"
#include "Environment.h"
#include "Rows.h"
#include "Sqlite.h"
#include "Wording.h"

#include <gmock/gmock.h>

#include <algorithm>
#include <cstddef>
#include <new>
#include <utility>

// Whether a file outlives a power cut is not asked here, and waiting for the disk takes most of the
// time. Found before the C library's own.
extern "C" {

int fsync(int)
{
    return 0;
}

int fdatasync(int)
{
    return 0;
}

} // extern "C"

namespace test {

namespace {

using testing::ElementsAreArray;
using testing::IsEmpty;
using testing::IsNull;

typedef std::vector<std::string> Texts;

const Job::Reason out_of_memory = {"7=SQLITE_NOMEM", "out of memory"};

Job::Reason noTable(const std::string& table)
{
    return {"1=SQLITE_ERROR", "no such table: " + table};
}

// Longer than any text buffer, for every fourth row longer than a page of the file.
std::string nameOf(int key)
{
    return "name of " + std::to_string(key) + " " + std::string(key % 4 == 0 ? 6000 : 100, 'x');
}

std::string priceOf(int key)
{
    return std::to_string(key) + ".5";
}

std::string rowText(int key, const std::string& name)
{
    return std::to_string(key) + "|" + name + "|" + priceOf(key);
}

template <typename Rows> Texts texts(const Rows& rows)
{
    Texts all;
    for (const auto& [key, name] : rows)
        all.push_back(rowText(key, name));
    return all;
}

std::string lines(const Texts& texts)
{
    std::string all;
    for (const std::string& text : texts)
        all += (all.empty() ? "" : "\n") + text;
    return all;
}

Texts split(const std::string& row)
{
    const std::size_t first = row.find('|');
    const std::size_t last = row.rfind('|');
    return {row.substr(0, first), row.substr(first + 1, last - first - 1), row.substr(last + 1)};
}

std::string keyText(bool textKey, int key)
{
    return textKey ? "\"" + std::to_string(key) + "\"" : std::to_string(key);
}

Texts queryReport(const std::string& statement, const Job::Reason& reason)
{
    return {"Failed to run the SQL stmt '" + statement + "'",
            "  rc=" + reason.code + (reason.text.empty() ? "" : ": " + reason.text)};
}

std::vector<Texts> numberReports(const std::string& statement, const Job::Reason& reason)
{
    return {{"Failed to prepare the SQL query '" + statement + "': ",
             "  rc=" + reason.code + ": " + reason.text},
            {"The SQL query '" + statement + "' failed",
             "   the query returned " + reason.code + " instead of SQLITE_ROW: " + reason.text}};
}

std::vector<Texts> oneStepReports(const std::string& statement, const Job::Reason& reason)
{
    return {{"Failed to prepare the SQL statement '" + statement + "': ",
             " rc=" + reason.code + ": " + reason.text},
            {"Running the SQL stmt '" + statement + "' failed",
             "  SQLite returned " + reason.code + " instead of SQLITE_DONE: " + reason.text}};
}

} // namespace

Job::Job(const std::string& fileName, Reasons shortage, Watch watch)
    : _fileName(fileName), _shortage(std::move(shortage)), _watch(std::move(watch)),
      _fields(product_columns)
{
}

Diagnostics& Job::diagnostics()
{
    return _diagnostics;
}

void Job::work()
{
    const auto construct = [this] {
        makeTables();
        return true;
    };
    if (!openFile() || !perform("constructors", construct))
        return;
    useUserVersion(3);
    create(*_product);
    useTransaction(true);
    read();
    useTransaction(false);
    addOrUpdate(false, 3, "three");
    addOrUpdate(true, 9, nameOf(9));
    backUp();
    removeRows();
    backUp();
    empty(*_archive, "truncate");
    if (readByCondition("", ""))
        copy();
    empty(*_product, "deleteRecords without a condition");
    add(7);
    useUserVersion(4);
    count();
}

void Job::useAgain()
{
    if (!_database.isOpen()) {
        EXPECT_TRUE(_database.open(_fileName, sql::Database::access_create, false, 0));
    }
    if (!_product || !_archive)
        makeTables();
    if (inTransaction()) {
        EXPECT_TRUE(_database.transactionRollback());
        _now = _committed;
    }
    _diagnostics.clear();
    EXPECT_TRUE(_product->create());
    EXPECT_TRUE(_product->addOrUpdateRecord(sql::integer(50), record(50, "again")));
    _now.tables["product"][50] = "again";
    _committed = _now;
    EXPECT_TRUE(_product->open("", "id"));
    EXPECT_EQ(held(*_product), texts(rowsOf("product")));
    EXPECT_TRUE(_database.transactionBegin());
    EXPECT_TRUE(_database.transactionRollback());
    EXPECT_EQ(_database.getUserVersion(), _now.userVersion);
    EXPECT_THAT(_diagnostics.errors(), IsEmpty());
    EXPECT_THAT(_diagnostics.assertions(), IsEmpty());
}

void Job::close()
{
    _product.reset();
    _archive.reset();
    perform("close", [this] {
        _database.close();
        return true;
    });
    EXPECT_EQ(_database.getHandle(), nullptr);
    EXPECT_THAT(_errors, IsEmpty());
}

void Job::verifyFile() const
{
    Connection file(_fileName);
    Texts names;
    for (const auto& [table, rows] : _committed.tables) {
        EXPECT_EQ(file.rows("select * from " + table + " order by id"), lines(texts(rows)))
            << table;
        names.push_back(table);
    }
    EXPECT_EQ(file.rows("select name from sqlite_master order by name"), lines(names));
    EXPECT_EQ(file.rows("pragma user_version"), std::to_string(_committed.userVersion));
    EXPECT_EQ(file.rows("pragma integrity_check"), "ok");
}

std::vector<int> Job::cases(const std::vector<int>& ends)
{
    const int some = briefRun() ? 2 : 4;
    std::vector<int> chosen;
    int before = 0;
    for (const int end : ends) {
        const int count = end - before;
        const int parts = longRun() || count <= some ? count : some;
        for (int i = 0; i < parts; ++i)
            chosen.push_back(parts == 1 ? end : before + 1 + i * (count - 1) / (parts - 1));
        before = end;
    }
    return chosen;
}

const std::set<std::string>& Job::failures() const
{
    return _failures;
}

// --- One operation

bool Job::perform(const std::string& operation, const std::function<bool()>& call)
{
    SCOPED_TRACE(operation);
    const bool within = inTransaction();
    bool answer = false;
    _passedOn = false;
    _diagnostics.clear();
    _watch(operation, true);
    try {
        answer = call();
    } catch (const std::bad_alloc&) {
        _passedOn = true;
    }
    _watch(operation, false);
    _errors = _diagnostics.errors();
    EXPECT_THAT(_diagnostics.assertions(), IsEmpty());
    if (_database.getHandle() != nullptr) {
        EXPECT_THAT(sqlite3_next_stmt(_database.getHandle(), nullptr), IsNull());
    }
    EXPECT_FALSE(_passedOn && !_errors.empty());
    _failed = _passedOn || !_errors.empty();
    if (_failed)
        _failures.insert(operation);
    // Out of memory, SQLite may roll back a transaction by itself.
    if (within && !inTransaction() && !(answer && operation == "transactionCommit"))
        _now = _committed;
    return answer;
}

// An operation that is true when its one statement succeeds.
bool Job::run(const std::string& operation, const Statement& statement,
              const std::function<bool()>& call, const Effect& effect)
{
    SCOPED_TRACE(operation);
    const bool answer = perform(operation, call);
    EXPECT_EQ(answer, !_failed);
    EXPECT_FALSE(answer && !statement.refusals.empty());
    takeReport(statement);
    EXPECT_THAT(_errors, IsEmpty());
    settle(answer, effect);
    return answer;
}

// Whether the next lines report that the statement has failed; they are then done with.
bool Job::takeReport(const Statement& statement)
{
    Reasons reasons = statement.refusals;
    reasons.insert(reasons.end(), _shortage.begin(), _shortage.end());
    std::vector<Texts> reports;
    for (const Reason& reason : reasons) {
        std::vector<Texts> more = {queryReport(statement.text, reason)};
        if (statement.route == by_number)
            more = numberReports(statement.text, reason);
        if (statement.route == by_one_step)
            more = oneStepReports(statement.text, reason);
        reports.insert(reports.end(), more.begin(), more.end());
    }
    const auto count = std::min<std::ptrdiff_t>(2, _errors.end() - _errors.begin());
    const Texts next(_errors.begin(), _errors.begin() + count);
    if (std::find(reports.begin(), reports.end(), next) == reports.end())
        return false;
    _errors.erase(_errors.begin(), _errors.begin() + 2);
    return true;
}

bool Job::takeExistenceReport(const std::string& table)
{
    if (!takeReport(
            {by_number,
             "select count(*) from sqlite_master where type = 'table' and name = '" + table + "'",
             {}}))
        return false;
    const std::string line = "Failed to determine if table '" + table + "' exists";
    EXPECT_EQ(_errors.empty() ? "" : _errors.front(), line);
    if (!_errors.empty())
        _errors.erase(_errors.begin());
    return true;
}

bool Job::takeAddReport(const std::string& table, int key, const std::string& name)
{
    Reasons refusals = {noTable(table)};
    if (rowsOf(table).count(key) != 0)
        refusals.push_back(
            {"19=SQLITE_CONSTRAINT", worded("UNIQUE constraint failed: " + table + ".id")});
    return takeReport({by_query, record(key, name).toSqlInsert(table), refusals});
}

void Job::settle(bool answer, const Effect& effect)
{
    if (answer && effect)
        effect(_now);
    if (!inTransaction())
        _committed = _now;
}

// --- The operations

bool Job::openFile()
{
    const bool opened = perform("open", [this] {
        return _database.open(_fileName, sql::Database::access_create, false, 0);
    });
    EXPECT_EQ(opened, !_failed);
    EXPECT_EQ(_database.isOpen(), opened);
    if (!_errors.empty()) {
        EXPECT_THAT(_errors, ElementsAreArray({"Failed to open the database " + _fileName + ": rc="
                                               + out_of_memory.code + ": " + out_of_memory.text}));
    }
    return opened;
}

void Job::makeTables()
{
    _product = std::make_unique<sql::Table>(_database.getHandle(), "product", _fields);
    _archive = std::make_unique<sql::Table>(_database.getHandle(), "archive", product_columns);
}

void Job::useUserVersion(int version)
{
    run(
        "setUserVersion", {by_one_step, "PRAGMA user_version=" + std::to_string(version) + ";", {}},
        [&] { return _database.setUserVersion(static_cast<unsigned int>(version)); },
        [&](Contents& contents) { contents.userVersion = version; });
    run("getUserVersion", {by_number, "PRAGMA user_version;", {}},
        [&] { return _database.getUserVersion() == _now.userVersion; });
}

void Job::create(sql::Table& table)
{
    const bool answer = perform("create", [&] { return table.create(); });
    const bool unsure = takeExistenceReport(table.name());
    const bool refused = takeReport({by_query, table.getDefinition(), {}});
    EXPECT_THAT(_errors, IsEmpty());
    // A table that cannot be looked for counts as one that exists, and nothing is run.
    EXPECT_EQ(answer, unsure || !_failed);
    EXPECT_FALSE(unsure && refused);
    settle(answer && !unsure, [&](Contents& contents) { contents.tables[table.name()]; });
}

void Job::useTransaction(bool keep)
{
    Reasons refusals;
    if (inTransaction())
        refusals = {{"1=SQLITE_ERROR", "cannot start a transaction within a transaction"}};
    run("transactionBegin", {by_query, "BEGIN TRANSACTION", refusals},
        [this] { return _database.transactionBegin(); });
    if (keep) {
        for (int key = 1; key <= 5; ++key)
            add(key);
    }
    update(2, keep ? "two" : "not two");
    addOrUpdate(false, 1, keep ? "one" : "not one");
    addOrUpdate(true, 6, keep ? nameOf(6) : "not six");
    if (!endTransaction(keep) && keep)
        endTransaction(false);
}

bool Job::endTransaction(bool keep)
{
    const std::string word = keep ? "commit" : "rollback";
    Reasons refusals;
    if (!inTransaction())
        refusals = {{"1=SQLITE_ERROR", "cannot " + word + " - no transaction is active"}};
    if (keep)
        return run("transactionCommit", {by_query, "COMMIT TRANSACTION", refusals},
                   [this] { return _database.transactionCommit(); });
    return run("transactionRollback", {by_query, "ROLLBACK TRANSACTION", refusals},
               [this] { return _database.transactionRollback(); });
}

void Job::add(int key)
{
    const sql::Record row = record(key, nameOf(key));
    run(
        "addRecord", {by_query, row.toSqlInsert("product"), missing("product")},
        [&] { return _product->addRecord(row); },
        [&](Contents& contents) { contents.tables["product"][key] = nameOf(key); });
}

void Job::update(int key, const std::string& name)
{
    const sql::Record row = record(key, name);
    run(
        "updateRecord", {by_query, row.toSqlUpdate("product"), missing("product")},
        [&] { return _product->updateRecord(row); },
        [&](Contents& contents) {
            Rows& rows = contents.tables["product"];
            if (rows.count(key) != 0)
                rows[key] = name;
        });
}

void Job::addOrUpdate(bool textKey, int key, const std::string& name)
{
    const sql::Record row = record(key, name);
    const std::string operation = std::string("addOrUpdateRecord by ")
                                  + (textKey ? "text" : "integer");
    SCOPED_TRACE(operation);
    const bool answer = perform(operation, [&] {
        return textKey ? _product->addOrUpdateRecord(std::to_string(key), row)
                       : _product->addOrUpdateRecord(sql::integer(key), row);
    });
    const bool unsure = takeReport(
        {by_number, "select count(*) from product where id = " + keyText(textKey, key),
         missing("product")});
    // A row that cannot be looked for counts as missing.
    const bool refused = takeAddReport("product", key, name)
                         || takeReport({by_query, row.toSqlUpdate("product"), missing("product")});
    EXPECT_THAT(_errors, IsEmpty());
    EXPECT_EQ(answer, !refused && (unsure || !_failed));
    settle(answer, [&](Contents& contents) { contents.tables["product"][key] = name; });
}

void Job::removeRows()
{
    const auto forget = [](int key) {
        return [key](Contents& contents) {
            contents.tables["product"].erase(key);
        };
    };
    run(
        "deleteRecord by integer",
        {by_query, "delete from product where id = 1", missing("product")},
        [&] { return _product->deleteRecord(sql::integer(1)); }, forget(1));
    run(
        "deleteRecord by text",
        {by_query, "delete from product where id = \"4\"", missing("product")},
        [&] { return _product->deleteRecord(std::string("4")); }, forget(4));
    run(
        "deleteRecords", {by_query, "delete from product where price > 9", missing("product")},
        [&] { return _product->deleteRecords("price > 9"); }, forget(9));
    add(8);
}

void Job::empty(sql::Table& table, const std::string& operation)
{
    run(
        operation, {by_query, "delete from " + table.name(), missing(table.name())},
        [&] { return operation == "truncate" ? table.truncate() : table.deleteRecords(""); },
        [&](Contents& contents) { contents.tables[table.name()].clear(); });
}

void Job::read()
{
    readByCondition("", "");
    readByCondition("price > 2", "name desc");
    readByKey(false, 2);
    readByKey(true, 3);
    testForKey(false, 4);
    testForKey(true, 77);
    count();
    const bool exists = perform("exists", [this] { return _product->exists(); });
    EXPECT_EQ(exists, takeExistenceReport("product") || (!_failed && has("product")));
    EXPECT_THAT(_errors, IsEmpty());
}

bool Job::readByCondition(const std::string& condition, const std::string& order)
{
    std::vector<std::pair<std::string, int>> rows;
    for (const auto& [key, name] : rowsOf("product")) {
        if (condition.empty() || key >= 2)
            rows.emplace_back(order.empty() ? std::string() : name, key);
    }
    if (!order.empty())
        std::sort(rows.rbegin(), rows.rend());
    Texts expected;
    for (const auto& [name, key] : rows)
        expected.push_back(rowText(key, rowsOf("product").at(key)));

    const std::string clauses = (condition.empty() ? "" : " where " + condition)
                                + (order.empty() ? "" : " order by " + order);
    const Texts before = held(*_product);
    const bool answer = run("open" + clauses,
                            {by_query, "select * from product" + clauses, missing("product")},
                            [&] { return _product->open(condition, order); });
    if (_passedOn) { // it has not come to the statement
        EXPECT_EQ(held(*_product), before);
    } else {
        expectRows(expected, answer);
    }
    return answer;
}

// All rows, or the first ones when the read has failed. Then SQLite may have lacked the memory to
// write a number as text: it delivers a null instead, and fails only after this row.
void Job::expectRows(Texts expected, bool all)
{
    Texts rows = held(*_product);
    if (!all) {
        EXPECT_LE(rows.size(), expected.size());
        expected.resize(rows.size());
    }
    if (!all && !rows.empty()) {
        for (int i = 0; i < _fields.count(); ++i) {
            const sql::Value* const cell =
                _product->getRecord(_product->recordCount() - 1)->getValue(i);
            EXPECT_TRUE(cell->isNull() || cell->asString() == split(expected.back())[i]) << i;
        }
        rows.pop_back();
        expected.pop_back();
    }
    EXPECT_EQ(rows, expected);
}

void Job::readByKey(bool textKey, int key)
{
    const Rows rows = rowsOf("product");
    const sql::Record* row = nullptr;
    const std::string text = keyText(textKey, key);
    const bool found = perform(std::string("getRecordByKeyId by ") + (textKey ? "text" : "integer"),
                               [&] {
                                   row = textKey ? _product->getRecordByKeyId(std::to_string(key))
                                                 : _product->getRecordByKeyId(sql::integer(key));
                                   return row != nullptr;
                               });
    EXPECT_EQ(found, !_failed && rows.count(key) != 0);
    takeReport({by_query, "select * from product where id = " + text, missing("product")});
    EXPECT_THAT(_errors, IsEmpty());
    if (found) {
        EXPECT_EQ(row->toString(), rowText(key, rows.at(key)));
    }
}

void Job::testForKey(bool textKey, int key)
{
    const bool found = perform(
        std::string("hasRecordWithKeyId by ") + (textKey ? "text" : "integer"), [&] {
            return textKey ? _product->hasRecordWithKeyId(std::to_string(key))
                           : _product->hasRecordWithKeyId(sql::integer(key));
        });
    EXPECT_EQ(found, !_failed && rowsOf("product").count(key) != 0);
    takeReport({by_number, "select count(*) from product where id = " + keyText(textKey, key),
                missing("product")});
    EXPECT_THAT(_errors, IsEmpty());
}

void Job::count()
{
    int number = -2;
    run("totalRecordCount", {by_number, "select count(*) from product", missing("product")}, [&] {
        number = _product->totalRecordCount();
        return number >= 0;
    });
    if (number != -2) { // it has answered
        EXPECT_EQ(number, _failed ? -1 : static_cast<int>(rowsOf("product").size()));
    }
}

void Job::copy()
{
    const Rows source = rowsOf("product");
    const Rows before = rowsOf("archive");
    const bool answer = perform("copyRecords", [this] { return _archive->copyRecords(*_product); });
    bool refused = false;
    for (const auto& [key, name] : source)
        refused = refused || takeAddReport("archive", key, name);
    EXPECT_THAT(_errors, IsEmpty());
    EXPECT_EQ(answer, !_failed);
    takeWhatIsThere("archive", before, source);
    Rows both = before;
    both.insert(source.begin(), source.end());
    if (answer) {
        EXPECT_EQ(rowsOf("archive"), both);
    }
}

void Job::backUp()
{
    const Rows before = rowsOf("archive");
    const Rows source = rowsOf("product");
    const bool answer = perform("backup", [this] { return _archive->backup(*_product); });
    takeExistenceReport("archive");
    takeReport({by_query, "drop table archive", missing("archive")});
    takeExistenceReport("archive");
    takeReport({by_query, _archive->getDefinition(), {}});
    takeReport({by_query, "select * from product", missing("product")});
    bool refused = false;
    for (const auto& [key, name] : source)
        refused = refused || takeAddReport("archive", key, name);
    takeReport({by_number, "select count(*) from product", missing("product")});
    takeReport({by_number, "select count(*) from archive", {noTable("archive")}});
    EXPECT_THAT(_errors, IsEmpty());
    EXPECT_TRUE(answer || _failed);
    takeWhatIsThere("archive", before, source);
    if (answer) {
        EXPECT_EQ(rowsOf("archive"), source);
    }
}

// An operation of several statements that fails leaves what some of them have done.
void Job::takeWhatIsThere(const std::string& table, const Rows& before, const Rows& source)
{
    _now.tables.erase(table);
    if (sql::queryNumber(_database.getHandle(),
                         "select count(*) from sqlite_master where name = '" + table + "'")
        == 1) {
        sql::RecordSet set(_database.getHandle(), _fields);
        EXPECT_TRUE(set.query("select * from " + table));
        Rows& rows = _now.tables[table];
        for (int i = 0; i < set.count(); ++i) {
            const int key = static_cast<int>(set.getRecord(i)->getValue(0)->asInteger());
            const std::string name = set.getRecord(i)->getValue(1)->asString();
            EXPECT_EQ(rows.count(key), 0U) << key;
            EXPECT_TRUE((before.count(key) != 0 && before.at(key) == name)
                        || (source.count(key) != 0 && source.at(key) == name))
                << key;
            rows[key] = name;
        }
    }
    settle(false, nullptr);
}

// --- What the job knows

bool Job::inTransaction()
{
    return _database.getHandle() != nullptr && sqlite3_get_autocommit(_database.getHandle()) == 0;
}

bool Job::has(const std::string& table) const
{
    return _now.tables.count(table) != 0;
}

Job::Rows Job::rowsOf(const std::string& table) const
{
    return has(table) ? _now.tables.at(table) : Rows();
}

Job::Reasons Job::missing(const std::string& table) const
{
    return has(table) ? Reasons() : Reasons{noTable(table)};
}

sql::Record Job::record(int key, const std::string& name) const
{
    sql::Record row(_fields);
    row.setInteger("id", key);
    row.setString("name", name);
    row.initColumnValue(2, priceOf(key).c_str(), sql::type_float); // as SQLite writes it
    return row;
}

ShortageTest::ShortageTest(int never) : _never(never)
{
}

// The job without failures shows which operation needs which allocations.
void ShortageTest::plan()
{
    EXPECT_FALSE(work(_never, false));
    EXPECT_THAT(_failures, testing::IsEmpty());
    _planned = true;
}

void ShortageTest::note(const std::string& operation, int allocations)
{
    if (_planned)
        return;
    if (_ends.empty() ? allocations > 0 : allocations > _ends.back())
        _allocating.insert(operation);
    _ends.push_back(allocations);
}

void ShortageTest::workWithEveryFailure(bool lasts)
{
    plan();
    const std::vector<int> cases = Job::cases(_ends);
    for (const int nth : cases) {
        SCOPED_TRACE(nth);
        EXPECT_TRUE(work(nth, lasts));
        if (HasFailure())
            break;
    }
    RecordProperty("allocations", _ends.back());
    RecordProperty("tried", static_cast<int>(cases.size()));
}

} // namespace test
