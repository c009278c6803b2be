// Change sets that somebody has changed on the way, checksums and all: refused with nothing changed, or applied
// as SQLite itself applies them.

#include "SqlInbox.h"

#include "Diagnostics.h"
#include "Environment.h"
#include "SyncDevice.h"

#include <gmock/gmock.h>
#include <sqlite3.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <memory>
#include <random>
#include <string>
#include <vector>

namespace {

using sql::Received;
using std::string;
using test::SyncSet;

const char rows_before[] =
    "insert into product values (1, 'tea', 2.5), (2, 'milk', null), (3, x'00', 7);"
    "insert into pair values ('a', x'01'), ('b', x'02')";
const char tables_written[] = "select 1, id, quote(name), quote(price) from product"
                              " union all select 2, 0, quote(left), quote(right) from pair";

int refuseConflict(void*, int, sqlite3_changeset_iter*)
{
    return SQLITE_CHANGESET_ABORT;
}

// A centre whose rows are those that the device had.
class Centre {
public:
    Centre()
    {
        EXPECT_TRUE(database.open(":memory:", sql::Database::access_create, false, 0));
        test::run(database.getHandle(), test::sync_tables);
        test::run(database.getHandle(), rows_before);
        inbox = std::make_unique<sql::Inbox>(database, std::vector<string>{"product", "pair"});
        EXPECT_TRUE(inbox->isOpen());
    }

    string rows()
    {
        return test::rows(database.getHandle(), tables_written);
    }

    sql::Database database;
    std::unique_ptr<sql::Inbox> inbox;
};

// What SQLite makes of the changes; nothing if it refuses them.
string appliedBySqlite(const string& bytes)
{
    test::Connection db;
    db.run(test::sync_tables);
    db.run(rows_before);
    string copy = bytes;
    const int rc = sqlite3changeset_apply(db, static_cast<int>(copy.size()), copy.data(), nullptr,
                                          refuseConflict, nullptr);
    return rc == SQLITE_OK ? db.rows(tables_written) : "";
}

// What can be changed.
std::vector<SyncSet> soundSets()
{
    std::vector<SyncSet> sets;
    for (const char* const writes :
         {"insert into product values (4, 'a longer name', 1.5), (5, null, 9223372036854775807);"
          "insert into pair values ('c', zeroblob(200))",
          "update product set price = price + 1; update product set name = 'x' where id = 2",
          "delete from product where id > 1; delete from pair",
          "delete from pair where left = 'a'; insert into pair values ('a', x'03');"
          "update product set name = printf('%.300c', 'y') where id = 1"}) {
        test::SyncDevice device;
        device.db.run(rows_before);
        sets.push_back(device.commit(writes));
    }
    return sets;
}

class Changer {
public:
    explicit Changer(unsigned seed) : _random(seed)
    {
    }

    std::size_t below(std::size_t count)
    {
        return _random() % std::max<std::size_t>(count, 1);
    }

    void change(string& bytes)
    {
        static const char likely[] = {'\0', '\1', '\5', '\x7f', '\x80', '\xff', 'T', '\x12'};
        const std::size_t at = below(bytes.size());
        switch (below(6)) {
        case 0:
            bytes.erase(at, 1 + below(below(2) ? 4 : 64));
            break;
        case 1:
            bytes.insert(at, bytes.substr(below(bytes.size()), below(40)));
            break;
        case 2:
            bytes.resize(at);
            break;
        case 3:
            if (!bytes.empty())
                bytes[at] = static_cast<char>(bytes[at] ^ 1 << below(8));
            break;
        default:
            if (!bytes.empty())
                bytes[at] = likely[below(sizeof likely)];
        }
    }

private:
    std::mt19937 _random;
};

std::uint64_t checksumOf(std::string_view bytes)
{
    std::uint64_t sum = 14695981039346656037ULL;
    for (const char byte : bytes)
        sum = (sum ^ static_cast<unsigned char>(byte)) * 1099511628211ULL;
    return sum;
}

void write(string& bytes, std::size_t at, std::uint64_t number, std::size_t width)
{
    for (std::size_t i = 0; i < width && at + i < bytes.size(); ++i)
        bytes[at + i] = static_cast<char>(number >> 8 * i & 0xff);
}

// As somebody would who knows the format: length and checksum of the header fit it.
void seal(string& header)
{
    write(header, 8, header.size(), 4);
    if (header.size() >= 8)
        write(header, header.size() - 8, checksumOf(header.substr(0, header.size() - 8)), 8);
}

SyncSet changed(const SyncSet& sound, Changer& changer)
{
    SyncSet set = sound;
    const bool isOfHeader = changer.below(4) == 0;
    for (std::size_t times = 1 + changer.below(3); times > 0; --times)
        changer.change(isOfHeader ? set.header : set.bytes);
    const bool isSealed = changer.below(8) != 0;
    if (isSealed && isOfHeader)
        seal(set.header);
    else if (isSealed)
        set.header = sql::encode(*sql::readEnvelope(sound.header), set.bytes);
    return set;
}

TEST(SyncHostileTest, ChangedSetsAreRefusedOrAppliedAsSqliteDoes)
{
    test::Diagnostics diagnostics;
    diagnostics.setLevel(0);
    const std::vector<SyncSet> sound = soundSets();
    auto centre = std::make_unique<Centre>();
    const string before = centre->rows();
    Changer changer(7);
    int applied = 0;
    const int count = test::longRun() ? 1000000 : 5000;
    for (int i = 0; i < count; ++i) {
        const SyncSet set = changed(sound[changer.below(sound.size())], changer);
        const auto received = centre->inbox->apply("device-17", set.header, set.bytes);
        const string rows = centre->rows();
        if (received && *received == Received::applied) {
            ++applied;
            ASSERT_EQ(rows, appliedBySqlite(set.bytes)) << i;
        } else {
            ASSERT_EQ(rows, before) << i;
        }
        if (received)
            centre = std::make_unique<Centre>();
        diagnostics.take();
    }
    EXPECT_GT(applied, count / 100); // it is not all refused for one reason
    std::printf("%d changed sets, %d applied\n", count, applied);
}

} // namespace
