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

// A contestant on a connection that has read the schema.
class Session {
public:
    Session(const Entry& entry, const std::string& file, const char* pragmas = fast)
        : _contestant(entry.make())
    {
        _contestant->open(file);
        _contestant->prepare();
        execute(_contestant->handle(), pragmas);
        execute(_contestant->handle(), "select count(*) from sqlite_master");
    }
    ~Session()
    {
        _contestant->close();
    }
    Session(const Session&) = delete;
    Session& operator=(const Session&) = delete;

    Contestant& operator*()
    {
        return *_contestant;
    }
    Contestant* operator->()
    {
        return _contestant.get();
    }

private:
    std::unique_ptr<Contestant> _contestant;
};

// A new file with the table, empty, and removed in the end.
class EmptyFile {
public:
    explicit EmptyFile(const Place& place) : _name(place.folder + "/empty.db")
    {
        std::remove(_name.c_str());
        sqlite3* const db = connect(_name);
        execute(db, definition("item"));
        sqlite3_close(db);
    }
    ~EmptyFile()
    {
        std::remove(_name.c_str());
    }
    EmptyFile(const EmptyFile&) = delete;
    EmptyFile& operator=(const EmptyFile&) = delete;

    const std::string& name() const
    {
        return _name;
    }

private:
    std::string _name;
};

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
    const EmptyFile file(place);
    const std::vector<Row>& rows = rowsOf(place.rows);
    Session session(entry, file.name());
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

int loadAll(const Entry& entry, const Place& place, Meter& meter)
{
    Session session(entry, fileOf(place));
    meter.start();
    const long long count = session->load();
    meter.stop();
    require(count == place.rows, "all rows are loaded");
    return place.rows;
}

template <void (Contestant::*read)(Digest&)>
int readAll(const Entry& entry, const Place& place, Meter& meter)
{
    Session session(entry, fileOf(place));
    Digest digest;
    meter.start();
    ((*session).*read)(digest);
    meter.stop();
    require(digest.value() == expectedDigest(place.rows), "all cells are read");
    return place.rows;
}

int lookUp(const Entry& entry, const Place& place, Meter& meter)
{
    Session session(entry, fileOf(place));
    const std::vector<long long> keys = keysOf(place, key_calls);
    std::size_t found = 0;
    meter.start();
    for (const long long key : keys)
        found += session->lookup(key);
    meter.stop();
    require(found == keys.size() && !session->lookup(place.rows + 1), "rows are found by key");
    return static_cast<int>(keys.size());
}

// Every other key has no row.
int testExistence(const Entry& entry, const Place& place, Meter& meter)
{
    Session session(entry, fileOf(place));
    std::vector<long long> keys = keysOf(place, key_calls);
    for (std::size_t i = 1; i < keys.size(); i += 2)
        keys[i] += place.rows;
    std::size_t found = 0;
    meter.start();
    for (const long long key : keys)
        found += session->exists(key);
    meter.stop();
    require(found == (keys.size() + 1) / 2, "rows that exist are told from those that do not");
    return static_cast<int>(keys.size());
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
    Session session(entry, fileOf(place));
    const std::vector<Row> rows = changedRows(keysOf(place, key_calls));
    execute(session->handle(), "begin");
    meter.start();
    for (const Row& row : rows)
        session->update(row);
    meter.stop();
    require(sqlite3_total_changes(session->handle()) == static_cast<int>(rows.size()), "update");
    execute(session->handle(), "rollback");
    return static_cast<int>(rows.size());
}

// Every other row is new.
int addOrUpdateRows(const Entry& entry, const Place& place, Meter& meter)
{
    Session session(entry, fileOf(place));
    std::vector<Row> rows = changedRows(keysOf(place, key_calls));
    for (std::size_t i = 1; i < rows.size(); i += 2)
        rows[i].id += place.rows;
    execute(session->handle(), "begin");
    meter.start();
    for (const Row& row : rows)
        session->addOrUpdate(row);
    meter.stop();
    require(session->count() == place.rows + static_cast<int>(rows.size() / 2), "add or update");
    execute(session->handle(), "rollback");
    return static_cast<int>(rows.size());
}

int deleteRows(const Entry& entry, const Place& place, Meter& meter)
{
    Session session(entry, fileOf(place));
    const std::vector<long long> keys = keysOf(place, key_calls);
    execute(session->handle(), "begin");
    meter.start();
    for (const long long key : keys)
        session->remove(key);
    meter.stop();
    require(session->count() == place.rows - static_cast<int>(keys.size()), "delete");
    execute(session->handle(), "rollback");
    return static_cast<int>(keys.size());
}

int countRows(const Entry& entry, const Place& place, Meter& meter)
{
    Session session(entry, fileOf(place));
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
    const EmptyFile file(place);
    Session source(entry, fileOf(place));
    Session target(entry, file.name());
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
    const EmptyFile file(place);
    Session session(entry, file.name(), durable);
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
