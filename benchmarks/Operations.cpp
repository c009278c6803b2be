#include "Operations.h"

#include <sqlite3.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <map>

namespace bench {

namespace {

constexpr int key_calls = 1000;
constexpr int count_calls = 10;
constexpr int open_calls = 100;
constexpr int durable_calls = 20;

// Outside the measured part a file need not survive a crash, and what it costs to make it do so is
// the same for all.
const char* const fast = "pragma journal_mode = memory; pragma synchronous = off";
const char* const durable = "pragma journal_mode = delete; pragma synchronous = full";

std::string fileOf(const Place& place)
{
    return place.folder + "/item-" + std::to_string(place.rows) + ".db";
}

struct Closing {
    void operator()(Contestant* contestant) const
    {
        contestant->close();
        delete contestant;
    }
};
using Session = std::unique_ptr<Contestant, Closing>;

// A contestant on a connection that has read the schema.
Session startSession(const Entry& entry, const std::string& file, const char* pragmas = fast)
{
    Session session(entry.make().release());
    session->open(file);
    session->prepare();
    execute(session->handle(), pragmas);
    execute(session->handle(), "select count(*) from sqlite_master");
    return session;
}

// A new file with the table, empty.
std::string makeEmptyFile(const Place& place)
{
    const std::string name = place.folder + "/empty.db";
    std::remove(name.c_str());
    sqlite3* const db = connect(name);
    execute(db, definition("item"));
    sqlite3_close(db);
    return name;
}

// Keys all over the table, the same ones for all and none twice in `count`: a step that is prime
// to the number of rows.
std::vector<long long> keysOf(const Place& place, int count)
{
    std::vector<long long> keys;
    for (int i = 0; i < std::min(count, place.rows); ++i)
        keys.push_back(1 + static_cast<long long>(i) * 7919 % place.rows);
    return keys;
}

// The rows of a table, made once for each size.
const std::vector<Row>& rowsOf(int count)
{
    static std::map<int, std::vector<Row>> known;
    std::vector<Row>& rows = known[count];
    if (rows.empty())
        rows = makeRows(1, count);
    return rows;
}

unsigned long long expectedDigest(int count)
{
    static std::map<int, unsigned long long> known;
    const auto found = known.find(count);
    if (found != known.end())
        return found->second;
    Digest digest;
    for (int id = 1; id <= count; ++id)
        digest.add(makeRow(id));
    return known[count] = digest.value();
}

// The digest of the rows in the file, by SQLite's own means: a slip of a contestant is not to be
// taken for speed.
void checkRows(sqlite3* db, int count)
{
    const auto take = [](void* sum, int, char** values, char**) {
        *static_cast<std::string*>(sum) = values[0];
        return 0;
    };
    std::string sum;
    const char* const sql =
        "select sum(id * 3 + length(name) * 5 + unicode(place) + cast(price * 4 as integer) + active * 7 + changed + coalesce(length(note) + 1, 0) * 11) from item";
    require(sqlite3_exec(db, sql, take, &sum, nullptr) == SQLITE_OK, sql);
    require(sum == std::to_string(expectedDigest(count)), "the rows written are those given");
}

// A row of those given, or of those that were made ready.
using Insert = void (*)(Contestant& contestant, const Row& row, int index);

int insertAll(const Entry& entry, const Place& place, Meter& meter, Insert insert,
              bool ready = false)
{
    const std::string file = makeEmptyFile(place);
    const std::vector<Row>& rows = rowsOf(place.rows);
    const Session session = startSession(entry, file);
    if (ready)
        session->makeReady(rows);
    meter.start();
    session->begin();
    for (int i = 0; i < place.rows; ++i)
        insert(*session, rows[i], i);
    session->commit();
    meter.stop();
    checkRows(session->handle(), place.rows);
    return place.rows;
}

int insertRows(const Entry& entry, const Place& place, Meter& meter)
{
    return insertAll(entry, place, meter,
                     [](Contestant& contestant, const Row& row, int) { contestant.insert(row); });
}

int insertByName(const Entry& entry, const Place& place, Meter& meter)
{
    return insertAll(entry, place, meter, [](Contestant& contestant, const Row& row, int) {
        contestant.insertByName(row);
    });
}

int insertReady(const Entry& entry, const Place& place, Meter& meter)
{
    const auto insert = [](Contestant& contestant, const Row&, int i) {
        contestant.insertReady(i);
    };
    return insertAll(entry, place, meter, insert, true);
}

int insertTogether(const Entry& entry, const Place& place, Meter& meter)
{
    const std::string file = makeEmptyFile(place);
    const Session session = startSession(entry, file);
    session->makeReady(rowsOf(place.rows));
    meter.start();
    session->begin();
    session->insertTogether(place.rows);
    session->commit();
    meter.stop();
    checkRows(session->handle(), place.rows);
    return place.rows;
}

int loadAll(const Entry& entry, const Place& place, Meter& meter)
{
    const Session session = startSession(entry, fileOf(place));
    meter.start();
    const long long count = session->load();
    meter.stop();
    require(count == place.rows, "all rows are loaded");
    return place.rows;
}

template <void (Contestant::*read)(Digest&)>
int readAll(const Entry& entry, const Place& place, Meter& meter)
{
    const Session session = startSession(entry, fileOf(place));
    Digest digest;
    meter.start();
    ((*session).*read)(digest);
    meter.stop();
    require(digest.value() == expectedDigest(place.rows), "all cells are read");
    return place.rows;
}

// The calls that are measured, one for each item; their number.
template <typename Item, typename Call>
int callForEach(const std::vector<Item>& items, Meter& meter, Call call)
{
    meter.start();
    for (const Item& item : items)
        call(item);
    meter.stop();
    return static_cast<int>(items.size());
}

// Calls that change rows; the changes are undone after they were checked.
template <typename Item, typename Call, typename Check>
int changeForEach(Contestant& contestant, const std::vector<Item>& items, Meter& meter, Call call,
                  Check check)
{
    execute(contestant.handle(), "begin");
    const int count = callForEach(items, meter, call);
    check(count);
    execute(contestant.handle(), "rollback");
    return count;
}

int lookUp(const Entry& entry, const Place& place, Meter& meter)
{
    const Session session = startSession(entry, fileOf(place));
    int found = 0;
    const int calls = callForEach(keysOf(place, key_calls), meter,
                                  [&](long long key) { found += session->lookup(key); });
    require(found == calls && !session->lookup(place.rows + 1), "rows are found by key");
    return calls;
}

// Every other key has no row.
int testExistence(const Entry& entry, const Place& place, Meter& meter)
{
    const Session session = startSession(entry, fileOf(place));
    std::vector<long long> keys = keysOf(place, key_calls);
    for (std::size_t i = 1; i < keys.size(); i += 2)
        keys[i] += place.rows;
    int found = 0;
    const int calls = callForEach(keys, meter,
                                  [&](long long key) { found += session->exists(key); });
    require(found == (calls + 1) / 2, "rows that exist are told from those that do not");
    return calls;
}

std::vector<Row> changedRows(const std::vector<long long>& keys)
{
    std::vector<Row> rows;
    for (const long long key : keys) {
        rows.push_back(makeRow(key + 1));
        rows.back().id = key;
    }
    return rows;
}

int updateRows(const Entry& entry, const Place& place, Meter& meter)
{
    const Session session = startSession(entry, fileOf(place));
    return changeForEach(
        *session, changedRows(keysOf(place, key_calls)), meter,
        [&](const Row& row) { session->update(row); },
        [&](int count) { require(sqlite3_total_changes(session->handle()) == count, "update"); });
}

// Every other row is new.
int addOrUpdateRows(const Entry& entry, const Place& place, Meter& meter)
{
    const Session session = startSession(entry, fileOf(place));
    std::vector<Row> rows = changedRows(keysOf(place, key_calls));
    for (std::size_t i = 1; i < rows.size(); i += 2)
        rows[i].id += place.rows;
    return changeForEach(
        *session, rows, meter, [&](const Row& row) { session->addOrUpdate(row); },
        [&](int count) { require(session->count() == place.rows + count / 2, "add or update"); });
}

int deleteRows(const Entry& entry, const Place& place, Meter& meter)
{
    const Session session = startSession(entry, fileOf(place));
    return changeForEach(
        *session, keysOf(place, key_calls), meter, [&](long long key) { session->remove(key); },
        [&](int count) { require(session->count() == place.rows - count, "delete"); });
}

int countRows(const Entry& entry, const Place& place, Meter& meter)
{
    const Session session = startSession(entry, fileOf(place));
    long long sum = 0;
    meter.start();
    for (int i = 0; i < count_calls; ++i)
        sum += session->count();
    meter.stop();
    require(sum == static_cast<long long>(place.rows) * count_calls, "count");
    return count_calls;
}

// From one file to another, so that the rows pass through the program: within one file a single
// statement does it, with every contestant.
int copyTable(const Entry& entry, const Place& place, Meter& meter)
{
    const std::string file = makeEmptyFile(place);
    const Session source = startSession(entry, fileOf(place));
    const Session target = startSession(entry, file);
    meter.start();
    target->begin();
    target->copyFrom(*source);
    target->commit();
    meter.stop();
    checkRows(target->handle(), place.rows);
    return place.rows;
}

int openAndClose(const Entry& entry, const Place& place, Meter& meter)
{
    const std::unique_ptr<Contestant> contestant = entry.make();
    const std::string file = fileOf(place);
    contestant->open(file);
    contestant->close();
    meter.start();
    for (int i = 0; i < open_calls; ++i) {
        contestant->open(file);
        contestant->close();
    }
    meter.stop();
    return open_calls;
}

int insertDurably(const Entry& entry, const Place& place, Meter& meter)
{
    const std::string file = makeEmptyFile(place);
    const Session session = startSession(entry, file, durable);
    const std::vector<Row> rows = makeRows(1, durable_calls);
    meter.start();
    for (const Row& row : rows)
        session->insert(row);
    meter.stop();
    checkRows(session->handle(), durable_calls);
    return durable_calls;
}

} // namespace

const std::vector<Operation>& operations()
{
    static const std::vector<Operation> all = {
        {"insert", "row", insertRows},
        {"insert, set by name", "row", insertByName},
        {"insert, record at hand", "row", insertReady},
        {"insert, all at once", "row", insertTogether},
        {"load", "row", loadAll},
        {"load, read by index", "row", readAll<&Contestant::readByIndex>},
        {"load, read by name", "row", readAll<&Contestant::readByName>},
        {"lookup", "call", lookUp},
        {"existence", "call", testExistence},
        {"update", "call", updateRows},
        {"add or update", "call", addOrUpdateRows},
        {"delete", "call", deleteRows},
        {"count", "call", countRows},
        {"copy", "row", copyTable},
        {"open and close", "call", openAndClose},
        {"durable insert", "call", insertDurably},
    };
    return all;
}

const Operation& operation(const std::string& name)
{
    for (const Operation& each : operations()) {
        if (each.name == name)
            return each;
    }
    require(false, name.c_str());
    std::abort();
}

void makeDatabase(const Place& place)
{
    const std::string file = fileOf(place);
    std::remove(file.c_str());
    const std::unique_ptr<Contestant> contestant = makePrepared();
    contestant->open(file);
    execute(contestant->handle(), fast);
    execute(contestant->handle(), definition("item"));
    contestant->begin();
    for (int id = 1; id <= place.rows; ++id)
        contestant->insert(makeRow(id));
    contestant->commit();
    contestant->close();
}

} // namespace bench
