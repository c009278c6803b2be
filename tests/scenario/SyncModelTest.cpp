// Devices and a centre: whatever happens on the way between them, the centre has the rows of each device in
// the end, or says why not.

#include "SqlInbox.h"
#include "SqlOutbox.h"
#include "SqlRecorder.h"
#include "SqlStatement.h"
#include "SqlTransaction.h"

#include "Diagnostics.h"
#include "Environment.h"
#include "Sqlite.h"

#include <gmock/gmock.h>
#include <sqlite3.h>

#include <filesystem>
#include <map>
#include <memory>
#include <optional>
#include <random>
#include <string>
#include <vector>

namespace {

using sql::Received;
using std::string;
using testing::IsEmpty;

const char tables[] =
    "create table if not exists reading (id integer primary key, name text, value);"
    "create table if not exists total (parity text not null primary key, sum integer) without rowid";
// Sums of every second reading: at the centre, too, where they rest.
const char triggers[] = "create trigger if not exists added after insert on reading begin"
                        " insert into total values (new.id % 2, new.value)"
                        " on conflict (parity) do update set sum = sum + excluded.sum; end;"
                        "create trigger if not exists removed after delete on reading begin"
                        " update total set sum = sum - old.value where parity = old.id % 2; end;"
                        "pragma recursive_triggers = on"; // a row that is replaced is deleted, too

typedef std::map<int, std::pair<string, int>> Model; // the rows

string rowsOf(const Model& model)
{
    string rows;
    for (const auto& [id, row] : model)
        rows += (rows.empty() ? "" : "\n") + std::to_string(id) + "|" + row.first + "|"
                + std::to_string(row.second);
    return rows;
}

// A program on a device: started on a file, and ended.
class Device {
public:
    Device(const string& file, const string& name, const string& more = "")
        : _file(file), _name(name), _more(more)
    {
        start();
    }
    Device(const Device&) = delete;
    Device& operator=(const Device&) = delete;
    ~Device()
    {
        end();
    }

    void start()
    {
        ASSERT_TRUE(_database.open(_file, sql::Database::access_create, false, 0));
        test::run(_database.getHandle(),
                  string("pragma synchronous = off; ") + tables + ";" + _more);
        _recorder.emplace(_database, std::vector<string>{"reading", "total"});
        ASSERT_TRUE(_recorder->isRecording());
        _outbox.emplace(_database, _name, 400);
    }
    void end()
    {
        _outbox.reset();
        _recorder.reset();
        _database.close();
    }

    // Some writes in one transaction, of which not each commits.
    void write(std::mt19937& random)
    {
        const Model before = model;
        sql::RecordedTransaction transaction(*_recorder);
        writeSome(random);
        if (random() % 4 == 0) {
            const Model kept = model;
            sql::Savepoint savepoint(_database);
            writeSome(random);
            if (random() % 2 == 0) {
                EXPECT_TRUE(savepoint.rollback());
                model = kept;
            } else {
                EXPECT_TRUE(savepoint.commit());
            }
        }
        if (random() % 5 == 0) {
            EXPECT_TRUE(transaction.rollback());
            model = before;
        } else {
            EXPECT_TRUE(transaction.commit());
        }
    }
    void write(int id, int value)
    {
        sql::RecordedTransaction transaction(*_recorder);
        writeOne(id, value, false);
        EXPECT_TRUE(transaction.commit());
    }

    sql::Outbox& outbox()
    {
        return *_outbox;
    }
    string rows()
    {
        return test::rows(_database.getHandle(), "select * from reading order by id");
    }
    string totals()
    {
        return test::rows(_database.getHandle(), "select * from total");
    }

    Model model;

private:
    void writeSome(std::mt19937& random)
    {
        for (auto left = random() % 4; left > 0; --left) {
            const int id = static_cast<int>(random() % 12);
            const int value = static_cast<int>(random() % 100);
            writeOne(id, value, random() % 4 == 0);
        }
    }
    void writeOne(int id, int value, bool deletes)
    {
        const string key = std::to_string(id);
        const string name = "name " + key;
        if (deletes) {
            test::run(_database.getHandle(), "delete from reading where id = " + key);
            model.erase(id);
        } else {
            test::run(_database.getHandle(), "insert or replace into reading values (" + key + ", '"
                                                 + name + "', " + std::to_string(value) + ")");
            model[id] = {name, value};
        }
    }

    const string _file;
    const string _name;
    const string _more; // statements for the schema
    sql::Database _database;
    std::optional<sql::Recorder> _recorder;
    std::optional<sql::Outbox> _outbox;
};

class SyncModelTest : public testing::Test {
protected:
    SyncModelTest()
    {
        EXPECT_TRUE(_centre.open(":memory:", sql::Database::access_create, false, 0));
        test::run(_centre.getHandle(), tables);
        _inbox.emplace(_centre, std::vector<string>{"reading", "total"});
        EXPECT_TRUE(_inbox->isOpen());
    }

    sql::Result<Received> apply(const sql::ChangeSet& set)
    {
        return _inbox->apply("device", set.header(), set.bytes());
    }
    string rows()
    {
        return test::rows(_centre.getHandle(), "select * from reading order by id");
    }

    // Until nothing waits any more.
    void deliverAll(Device& device)
    {
        device.outbox().restart();
        sql::ChangeSet set;
        while (device.outbox().next(set)) {
            EXPECT_FALSE(apply(set).failed());
            EXPECT_TRUE(device.outbox().acknowledge(set.last()));
        }
        EXPECT_FALSE(device.outbox().error());
        EXPECT_EQ(device.outbox().pending()->sets, 0);
    }

    test::Diagnostics _diagnostics;
    const test::TemporaryDirectory _directory;
    sql::Database _centre;
    std::optional<sql::Inbox> _inbox;
};

TEST_F(SyncModelTest, LossesRepetitionsAndDisorderOnTheWayChangeNothing)
{
    test::run(_centre.getHandle(), triggers);
    int applied = 0;
    int repeated = 0;
    int missing = 0;
    const unsigned series = test::longRun() ? 2000 : 30;
    for (unsigned seed = 1; seed <= series && !HasFailure(); ++seed) {
        std::mt19937 random(seed);
        test::run(
            _centre.getHandle(),
            "delete from reading; delete from total; delete from sqlsync_inbox; delete from sqlsync_incarnation");
        Device device(_directory.file(std::to_string(seed) + ".db"), "device", triggers);
        std::vector<sql::ChangeSet> way;
        for (int step = 0; step < 150 && !HasFailure(); ++step) {
            const auto what = static_cast<int>(random() % 20);
            sql::ChangeSet set;
            if (what < 9) {
                device.write(random);
            } else if (what < 12) {
                if (device.outbox().next(set))
                    way.push_back(set);
            } else if (what == 12) {
                device.end();
                device.start();
            } else if (what == 13) {
                device.outbox().restart();
            } else if (!way.empty()) {
                const auto which = way.begin() + static_cast<int>(random() % way.size());
                const sql::Result<Received> received = apply(*which);
                applied += received.valueOr(Received::kept) == Received::applied;
                repeated += received.valueOr(Received::kept) == Received::repeated;
                missing += received.failed();
                EXPECT_TRUE(received ? *received != Received::kept
                                     : received.error().code() == SQLITE_NOTFOUND)
                    << received.error().text();
                if (received && random() % 3 != 0) {
                    EXPECT_TRUE(device.outbox().acknowledge(which->last()));
                }
                if (random() % 2 == 0)
                    way.erase(which); // else it comes again
            }
        }
        EXPECT_EQ(device.rows(), rowsOf(device.model));
        deliverAll(device);
        EXPECT_EQ(rows(), rowsOf(device.model)) << seed;
        EXPECT_EQ(test::rows(_centre.getHandle(), "select * from total"), device.totals()) << seed;
        EXPECT_NE(device.totals(), "");
        _diagnostics.clear(); // what was missing was told
    }
    EXPECT_GT(applied, 100);
    EXPECT_GT(repeated, 100);
    EXPECT_GT(missing, 20);
}

TEST_F(SyncModelTest, DeviceThatIsRestoredFromABackupIsToldAndAdmitted)
{
    const string file = _directory.file("device.db");
    const string backup = _directory.file("backup.db");
    Device device(file, "device");
    device.write(1, 10);
    deliverAll(device);
    device.end();
    std::filesystem::copy_file(file, backup);
    device.start();
    device.write(2, 20);
    device.write(3, 30);
    deliverAll(device);
    EXPECT_EQ(rows(), "1|name 1|10\n2|name 2|20\n3|name 3|30");

    device.end();
    std::filesystem::copy_file(backup, file, std::filesystem::copy_options::overwrite_existing);
    device.start();
    device.write(4, 40);
    sql::ChangeSet set;
    ASSERT_TRUE(device.outbox().next(set));
    EXPECT_EQ(apply(set).error().text(), "the device went back to 1 (restored from a backup), or"
                                         " another device has its name");
    EXPECT_TRUE(_inbox->admit("device", set.header()));
    _diagnostics.clear();
    deliverAll(device);
    device.write(5, 50);
    deliverAll(device);
    EXPECT_EQ(rows(), "1|name 1|10\n2|name 2|20\n3|name 3|30\n4|name 4|40\n5|name 5|50");
    EXPECT_THAT(_diagnostics.events(), IsEmpty());
}

TEST_F(SyncModelTest, TwoDevicesOfOneNameAreTold)
{
    Device one(_directory.file("one.db"), "device");
    Device other(_directory.file("other.db"), "device");
    one.write(1, 10);
    other.write(2, 20);
    deliverAll(one);
    sql::ChangeSet set;
    ASSERT_TRUE(other.outbox().next(set));
    EXPECT_EQ(apply(set).error().text(), "the device went back to 0 (restored from a backup), or"
                                         " another device has its name");
    _diagnostics.clear();
    one.write(3, 30);
    deliverAll(one);
    EXPECT_EQ(rows(), "1|name 1|10\n3|name 3|30");
    EXPECT_THAT(_diagnostics.events(), IsEmpty());
}

} // namespace
