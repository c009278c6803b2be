// Change sets of any bytes for an Inbox: damaged ones, those that are well-formed and lie, and any order of
// them. None may crash; each is applied whole, kept or refused, and what is refused changes nothing.

#include "Fuzz.h"
#include "SqlInbox.h"
#include "SqlStatement.h"
#include "SyncDevice.h"

#include <sqlite3.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace {

using fuzz::expectEqual;
using fuzz::Input;
using sql::Received;
using test::SyncSet;

constexpr int most_steps = 100000; // of SQLite's machine

int stop(void*)
{
    return 1;
}

int abortAtConflict(void*, int, sqlite3_changeset_iter*)
{
    return SQLITE_CHANGESET_ABORT;
}

const char tables[] = "create table log (what);"
                      "create table part (id integer primary key, product references product);"
                      "create trigger told after insert on product begin"
                      " insert into log values (1); end;"
                      "insert into product values (1, 'tea', 2.5), (2, null, x'00'), (3, 'rum', 7);"
                      "insert into pair values ('a', x'01'), ('b', x'02');"
                      "insert into part values (1, 2); delete from log; pragma foreign_keys = on";

const char product_rows[] = "select id, quote(name), quote(price) from product order by 1";
const char pair_rows[] = "select quote(left), quote(right) from pair order by 1, 2";

std::string rowsOf(sqlite3* db)
{
    return test::rows(db, product_rows) + "\n\n" + test::rows(db, pair_rows) + "\n\n"
           + test::rows(db, "select count(*) from part")
           + test::rows(db, "select count(*) from log");
}

std::uint64_t checksumOf(std::string_view bytes)
{
    std::uint64_t sum = 14695981039346656037ULL;
    for (const char byte : bytes)
        sum = (sum ^ static_cast<unsigned char>(byte)) * 1099511628211ULL;
    return sum;
}

void put(std::string& bytes, std::uint64_t number, int width)
{
    for (; width > 0; --width, number >>= 8)
        bytes += static_cast<char>(number & 0xff);
}

// With a length and a checksum that fit the fields.
std::string sealed(const std::string& fields)
{
    std::string header = "SQLSYNC1";
    put(header, fields.size() + 20, 4);
    header += fields;
    put(header, checksumOf(header), 8);
    return header;
}

class Changes {
public:
    explicit Changes(Input input) : _input(input)
    {
        expectEqual("whether there is a database",
                    _database.open(":memory:", sql::Database::access_create, false, 0), true);
        test::run(db(), test::sync_tables + (";" + std::string(tables)));
    }
    Changes(const Changes&) = delete;
    Changes& operator=(const Changes&) = delete;

    void all()
    {
        _inbox.emplace(_database, std::vector<std::string>{"product", "pair"});
        expectEqual("why there is no inbox", _inbox->error().text(), "");
        _diagnostics.clear();
        sqlite3_progress_handler(db(), most_steps, stop, nullptr);
        for (int left = 12; left > 0 && !_input.isUsedUp(); --left)
            doOne();
        expectEqual("the integrity", test::rows(db(), "pragma integrity_check"), "ok");
        _inbox.reset();
    }

private:
    sqlite3* db()
    {
        return _database.getHandle();
    }

    void doOne()
    {
        const std::string before = everything();
        switch (_input.below(8)) {
        case 0:
            return applyOne(before, {any(), any()});
        case 1:
            return applyOne(before, {sealed(any()), any()});
        case 2:
            return expectSame(before, _inbox->retry("d"));
        case 3:
            return expectSame(before, _inbox->discard("d"));
        case 4:
            return expectSame(before, _inbox->admit("d", next("").header));
        default:
            return applyOne(before, next(any()));
        }
    }

    std::string any()
    {
        std::string bytes;
        for (std::uint64_t left = _input.bits(2); left > 0 && !_input.isUsedUp(); --left)
            bytes += static_cast<char>(_input.byte());
        return bytes;
    }

    // Mostly the next of a line; else between any positions.
    SyncSet next(const std::string& bytes)
    {
        sql::Envelope envelope;
        envelope.device = "d";
        envelope.tables = test::describedTables();
        envelope.previous = _position;
        _position = {1 + _position.incarnation / 2, _position.number + 1};
        if (_input.below(4) == 0) {
            envelope.previous = {_input.below(3), _input.below(4)};
            envelope.dropped = {_input.below(3), _input.below(4)};
            _position = {_input.below(3), _input.below(5)};
        }
        envelope.last = _position;
        return {sql::encode(envelope, bytes), bytes};
    }

    std::string everything()
    {
        return rowsOf(db()) + "\n\n" + test::rows(db(), "select * from sqlsync_inbox") + "\n\n"
               + test::rows(db(), "select * from sqlsync_incarnation") + "\n\n"
               + test::rows(db(), "select id, last, reason from sqlsync_kept");
    }

    // What fails has changed nothing, and was told once.
    template <typename T> void expectSame(const std::string& before, const sql::Result<T>& result)
    {
        const auto lines = _diagnostics.errors();
        const auto told = std::count_if(lines.begin(), lines.end(), [](const std::string& line) {
            return line.compare(0, 15, "SQL statement '") == 0;
        });
        expectEqual("how often a failure is told", told, result.failed() ? 1 : 0);
        _diagnostics.clear();
        if (result.failed())
            expectEqual("what a failure leaves", everything(), before);
        for (const int setting : {SQLITE_DBCONFIG_ENABLE_TRIGGER, SQLITE_DBCONFIG_ENABLE_FKEY}) {
            int isOn = -1;
            sqlite3_db_config(db(), setting, -1, &isOn);
            expectEqual("a setting", isOn, 1);
        }
        expectEqual("an open transaction", sqlite3_get_autocommit(db()), 1);
    }

    void applyOne(const std::string& before, const SyncSet& set)
    {
        const sql::Result<sql::Envelope> envelope = sql::readEnvelope(set.header);
        expectSame(before, envelope);
        const bool isSound = envelope && isSoundSet(before, *envelope, set);
        test::Connection twin;
        copyTo(twin);
        const std::string rows = rowsOf(db());
        const sql::Result<Received> received = _inbox->apply(envelope ? envelope->device : "d",
                                                             set.header, set.bytes);
        expectSame(before, received);
        if (!received)
            return;
        expectEqual("whether what is received is sound", isSound, true);
        if (*received == Received::applied)
            expectApplied(twin, *envelope, set);
        else
            expectEqual("rows beside a set that is not applied", rowsOf(db()), rows);
        const std::string after = everything();
        const sql::Result<Received> again = _inbox->apply(envelope->device, set.header, set.bytes);
        expectEqual("a repetition", again.valueOr(Received::kept), Received::repeated);
        expectEqual("what a repetition leaves", everything(), after);
    }

    // What passes, SQLite reads to its end, and its header is that of these bytes.
    bool isSoundSet(const std::string& before, const sql::Envelope& envelope, const SyncSet& set)
    {
        const sql::Result<sql::integer> count = sql::checkChangeSet(envelope, set.bytes);
        expectSame(before, count);
        if (!count)
            return false;
        expectEqual("the number of changes", test::countChanges(set.bytes), *count);
        expectEqual("the header", sql::encode(envelope, set.bytes) == set.header, true);
        return true;
    }

    void copyTo(sqlite3* twin)
    {
        sqlite3_backup* const copy = sqlite3_backup_init(twin, "main", db(), "main");
        expectEqual("a copy", sqlite3_backup_step(copy, -1), SQLITE_DONE);
        sqlite3_backup_finish(copy);
    }

    // As SQLite alone applies it, all of it.
    void expectApplied(sqlite3* twin, const sql::Envelope& envelope, const SyncSet& set)
    {
        const int changes = sqlite3_total_changes(twin);
        applyBySqlite(twin, set);
        expectEqual("the changes made", sqlite3_total_changes(twin) - changes,
                    sql::checkChangeSet(envelope, set.bytes).valueOr(-1));
        expectEqual("the rows", rowsOf(db()), rowsOf(twin));
    }

    static void applyBySqlite(sqlite3* twin, SyncSet set)
    {
        sqlite3_db_config(twin, SQLITE_DBCONFIG_ENABLE_TRIGGER, 0, nullptr);
        sqlite3_db_config(twin, SQLITE_DBCONFIG_ENABLE_FKEY, 0, nullptr);
        expectEqual("what SQLite says",
                    sqlite3changeset_apply(twin, static_cast<int>(set.bytes.size()),
                                           set.bytes.data(), nullptr, abortAtConflict, nullptr),
                    SQLITE_OK);
    }

    Input _input;
    test::Diagnostics _diagnostics;
    sql::Database _database;
    std::optional<sql::Inbox> _inbox;
    sql::SyncPosition _position;
};

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    Changes(Input(data, size)).all();
    return 0;
}
