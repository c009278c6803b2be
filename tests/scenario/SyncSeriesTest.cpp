// Random series of what happens to a device and to a centre: outboxes that become full, rows at the centre that
// conflict, tables that get more columns, files restored from a backup. A model says after each step which rows
// both have, what waits, and what was told.

#include "SqlInbox.h"
#include "SqlOutbox.h"
#include "SqlRecorder.h"
#include "SqlTransaction.h"

#include "Diagnostics.h"
#include "Environment.h"
#include "Sqlite.h"
#include "SyncModel.h"

#include <gmock/gmock.h>
#include <sqlite3.h>

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <map>
#include <optional>
#include <random>
#include <set>
#include <string>
#include <vector>

namespace {

using sql::Received;
using sql::WhenFull;
using std::string;
using test::CentreModel;
using test::DeviceModel;
using test::SyncPlace;
using test::SyncRow;
using test::SyncRows;
using testing::ElementsAre;
using testing::IsEmpty;

const char table[] =
    "create table if not exists reading (id integer primary key, name text, value text)";
const sql::integer most_merged = 300;

SyncPlace placeOf(const sql::SyncPosition& position)
{
    return {position.incarnation, position.number};
}

// What was handed out, as the device and as the model have it.
struct Sent {
    sql::ChangeSet set;
    test::SyncRange range;
    int line; // counts restorings of the device
};

// How often each step is taken, of a hundred.
struct Plan {
    sql::RecorderOptions options;
    int write = 30;
    int handOut = 20;
    int arrive = 30;
    int writeAtCentre = 0;
    int settle = 0; // what was kept
    int addColumn = 0;
    int restart = 4;
    int backUp = 0;
};

// What has happened in all series.
typedef std::map<string, int> Counts;

class Series {
public:
    Series(const string& file, const Plan& plan, unsigned seed, Counts& counts,
           test::Diagnostics& diagnostics)
        : _file(file), _backup(file + "-backup"), _plan(plan), _random(seed), _counts(counts),
          _diagnostics(diagnostics)
    {
        EXPECT_TRUE(_centre.open(":memory:", sql::Database::access_create, false, 0));
        test::run(_centre.getHandle(), table);
        _inbox.emplace(_centre, std::vector<string>{"reading"});
        start();
    }
    Series(const Series&) = delete;
    Series& operator=(const Series&) = delete;
    ~Series()
    {
        end();
        std::filesystem::remove(_file);
        std::filesystem::remove(_backup);
    }

    void run()
    {
        backUp();
        for (int steps = 120; steps > 0 && !testing::Test::HasFailure(); --steps) {
            doOne();
            expectSame();
        }
        for (int steps = 200; !testing::Test::HasFailure() && !isDone(); --steps) {
            ASSERT_GT(steps, 0) << "never done";
            finishOne();
            expectSame();
        }
        if (_known.lost == 0 && _plan.writeAtCentre == 0 && _plan.backUp == 0) {
            EXPECT_EQ(_known.rows, _device.rows);
        }
    }

private:
    // --- Steps ---

    void doOne()
    {
        int what = static_cast<int>(_random() % 100);
        const auto is = [&what](int share) {
            what -= share;
            return what < 0 && what >= -share;
        };
        if (is(_plan.write))
            write();
        else if (is(_plan.handOut))
            handOut();
        else if (is(_plan.arrive))
            arrive(pick(_way.size()));
        else if (is(_plan.writeAtCentre))
            writeAtCentre();
        else if (is(_plan.settle))
            settle();
        else if (is(_plan.addColumn))
            addColumn();
        else if (is(_plan.restart))
            restart();
        else if (is(_plan.backUp))
            pick(2) == 0 ? backUp() : restore();
    }

    // Nothing waits on the device or at the centre.
    bool isDone()
    {
        return _device.outbox.empty() && _known.waiting.empty();
    }

    void finishOne()
    {
        while (_known.columns < _device.columns)
            addColumnAtCentre();
        _way.clear();
        _outbox->restart();
        _after = 0;
        handOut();
        if (!_way.empty())
            arrive(0, true);
        settle();
    }

    void write()
    {
        sql::RecordedTransaction transaction(*_recorder);
        ASSERT_TRUE(transaction.isOpen());
        SyncRows rows = _device.rows;
        for (auto left = pick(3) + 1; left > 0; --left)
            change(_database, rows, _device.columns);
        string refusal;
        const DeviceModel before = _device;
        // Which incarnation it has, the file tells: what of it is to be so is looked at below.
        const bool isCommitted = transaction.commit();
        const bool hasRoom = _device.commit(rows, _plan.options, incarnation(), refusal);
        ASSERT_EQ(isCommitted, hasRoom) << transaction.error().text();
        if (hasRoom)
            return expectCommitted(before);
        ++_counts["refused"];
        EXPECT_EQ(transaction.error().code(), SQLITE_FULL);
        EXPECT_EQ(transaction.error().text(), refusal);
        EXPECT_THAT(_diagnostics.take(), testing::SizeIs(2));
        if (pick(2) == 0) {
            EXPECT_TRUE(transaction.rollback());
            return;
        }
        // Undone by hand: there is nothing to keep then.
        test::run(_database.getHandle(), "delete from reading");
        for (const auto& [key, row] : _device.rows)
            insert(_database, key, row);
        EXPECT_TRUE(transaction.commit()) << transaction.error().text();
    }

    void expectCommitted(const DeviceModel& before)
    {
        if (_device.last != before.last) {
            EXPECT_TRUE(_given.insert(_device.last).second) << "a position that was another's";
        }
        if (_device.dropped == before.dropped)
            return;
        ++_counts["dropped"];
        EXPECT_THAT(_diagnostics.messages(),
                    ElementsAre("The outbox is full: change sets up to "
                                + std::to_string(_device.dropped) + " were dropped"));
        _diagnostics.clear();
    }

    void handOut()
    {
        Sent sent;
        const test::SyncRange* const range = _device.next(_after, most_merged);
        ASSERT_EQ(_outbox->next(sent.set), range != nullptr) << _outbox->error().text();
        EXPECT_FALSE(_outbox->error());
        if (range == nullptr)
            return;
        sent.range = *range;
        sent.line = _line;
        EXPECT_EQ(placeOf(sent.set.previous()), range->previous);
        EXPECT_EQ(placeOf(sent.set.last()), range->last);
        EXPECT_EQ(static_cast<sql::integer>(sent.set.bytes().size()), range->changes.size());
        _after = range->last.second;
        _counts["merged"] += range->last.second > range->first;
        _way.push_back(sent);
    }

    // Comes once or, now and then, again.
    void arrive(std::size_t which, bool isLast = false)
    {
        if (_way.empty())
            return;
        const Sent sent = _way[which];
        if (isLast || pick(2) == 0)
            _way.erase(_way.begin() + static_cast<int>(which));
        if (receive(sent) && sent.line == _line && (isLast || pick(3) != 0)) {
            EXPECT_TRUE(_outbox->acknowledge(sent.set.last()));
            _device.acknowledge(sent.range.last.second);
        }
    }

    bool receive(const Sent& sent)
    {
        const CentreModel before = _known;
        const CentreModel::Outcome outcome = _known.apply(sent.range);
        const sql::Result<Received> received = _inbox->apply("device", sent.set.header(),
                                                             sent.set.bytes());
        if (received) {
            EXPECT_EQ(*received, static_cast<Received>(outcome)) << placeText(sent);
            ++_counts[outcome == CentreModel::kept ? "kept" : "received"];
            expectTold(before, outcome, sent);
            return true;
        }
        expectRefused(received.error(), before, outcome, sent);
        if (outcome == CentreModel::unknown_column && pick(2) == 0)
            addColumnAtCentre();
        else if ((outcome == CentreModel::forked || outcome == CentreModel::missing)
                 && isOldest(sent))
            admit(sent);
        return false;
    }

    void expectTold(const CentreModel& before, CentreModel::Outcome outcome, const Sent& sent)
    {
        std::vector<testing::Matcher<string>> told;
        const auto missing = _known.lost - before.lost;
        if (missing > 0)
            told.push_back("Device 'device' has dropped " + std::to_string(missing)
                           + " commits, up to " + std::to_string(sent.range.previous.second));
        if (outcome == CentreModel::kept) {
            std::set<string> texts;
            const string start = "Kept the change set of device 'device' up to "
                                 + std::to_string(sent.range.last.second) + ": ";
            if (!before.waiting.empty())
                texts.insert(start + "it waits for the one up to "
                             + std::to_string(before.waiting.front().last.second));
            else
                for (const string& reason : _known.reasons)
                    texts.insert(start + reason);
            told.push_back(testing::AnyOfArray(texts));
        }
        EXPECT_THAT(_diagnostics.messages(), testing::ElementsAreArray(told));
        _diagnostics.clear();
    }

    void expectRefused(const sql::Error& error, const CentreModel& before,
                       CentreModel::Outcome outcome, const Sent& sent)
    {
        const sql::integer previous = sent.range.previous.second;
        switch (outcome) {
        case CentreModel::missing:
            ++_counts["missing"];
            EXPECT_EQ(error.code(), SQLITE_NOTFOUND);
            EXPECT_EQ(error.text(), "the commits " + std::to_string(before.mark.second + 1) + " to "
                                        + std::to_string(previous) + " are missing");
            break;
        case CentreModel::forked:
            ++_counts["forked"];
            EXPECT_EQ(error.code(), SQLITE_AUTH);
            EXPECT_EQ(error.text(),
                      "the device went back to " + std::to_string(previous)
                          + " (restored from a backup), or another device has its name");
            break;
        case CentreModel::retired:
            ++_counts["retired"];
            EXPECT_EQ(error.code(), SQLITE_AUTH);
            EXPECT_EQ(error.text(),
                      "the device's incarnation was retired when another was admitted");
            break;
        case CentreModel::unknown_column:
            ++_counts["unknown column"];
            EXPECT_EQ(error.code(), SQLITE_SCHEMA);
            EXPECT_EQ(error.text(), "table 'reading': column 'more"
                                        + std::to_string(_known.columns - 1) + "' is missing here");
            break;
        default:
            ADD_FAILURE() << placeText(sent) << ": " << error.text() << " instead of " << outcome;
        }
        EXPECT_THAT(_diagnostics.take(), testing::SizeIs(2));
    }

    void admit(const Sent& sent)
    {
        const sql::Result<bool> admitted = _inbox->admit("device", sent.set.header());
        EXPECT_TRUE(admitted) << admitted.error().text();
        _known.admit(sent.range);
        ++_counts["admitted"];
    }

    // By hand, at the centre: what a device sends may conflict with it.
    void writeAtCentre()
    {
        change(_centre, _known.rows, _known.columns);
    }

    void settle()
    {
        const bool hasKept = !_known.waiting.empty();
        if (hasKept && pick(3) == 0)
            makeFit(_known.waiting.front());
        if (pick(3) == 0) {
            const sql::Result<bool> dropped = _inbox->discard("device");
            EXPECT_FALSE(dropped.failed());
            EXPECT_EQ(dropped.valueOr(false), hasKept);
            if (hasKept)
                _known.waiting.pop_front();
            _counts["discarded"] += hasKept;
        } else {
            const int count = _known.retry();
            EXPECT_EQ(_inbox->retry("device").valueOr(-1), count);
            _counts["retried"] += count;
            if (!_known.waiting.empty()) {
                EXPECT_THAT(_known.reasons, testing::Contains(oldestReason()));
            }
        }
    }

    // Has the rows of a kept set be what they were before it, by hand.
    void makeFit(const test::SyncRange& range)
    {
        const std::size_t columns = range.changes.columns;
        for (const auto& [key, change] : range.changes.rows) {
            test::run(_centre.getHandle(), "delete from reading where id = " + std::to_string(key));
            _known.rows.erase(key);
            if (!change.before)
                continue;
            SyncRow& row = _known.rows[key] = *change.before;
            for (std::size_t i = columns; i < _known.columns; ++i)
                row.push_back(columnValue(i - 1));
            insert(_centre, key, row);
        }
    }

    void addColumn()
    {
        if (_device.columns == 5)
            return;
        ++_counts["columns"];
        if (hasDefault(_device.columns - 1))
            return addColumnOfDefault();
        test::run(_database.getHandle(), columnText(_device.columns - 1));
        _device.addColumn(columnValue(_device.columns - 1));
        const string why = "the schema has changed: renew the recorder";
        {
            sql::RecordedTransaction transaction(*_recorder);
            EXPECT_FALSE(transaction.isOpen());
            EXPECT_EQ(transaction.error().code(), SQLITE_SCHEMA);
            EXPECT_EQ(transaction.error().text(), why);
        }
        EXPECT_THAT(_diagnostics.take(), testing::SizeIs(2));
        EXPECT_NE(sqlite3_exec(_database.getHandle(), "insert into reading (id) values (77)",
                               nullptr, nullptr, nullptr),
                  SQLITE_OK);
        EXPECT_THAT(
            _diagnostics.messages(),
            ElementsAre("Refused a commit of recorded tables outside of a RecordedTransaction"));
        _diagnostics.clear();
        EXPECT_TRUE(_recorder->renew());
    }

    // The rows that are there have to be written, which a recorder would have recorded.
    void addColumnOfDefault()
    {
        const std::size_t number = _device.columns - 1;
        const string name = columnName(_device.columns);
        end();
        ASSERT_TRUE(_database.open(_file, sql::Database::access_create, false, 0));
        test::run(_database.getHandle(), "begin; " + columnText(number) + "; update reading set "
                                             + name + " = " + name + "; commit");
        _database.close();
        _device.addColumn(columnValue(number));
        start();
    }

    void addColumnAtCentre()
    {
        test::run(_centre.getHandle(), columnText(_known.columns - 1));
        _known.addColumn(columnValue(_known.columns - 1));
    }

    void restart()
    {
        end();
        start();
    }

    void backUp()
    {
        end();
        std::filesystem::copy_file(_file, _backup,
                                   std::filesystem::copy_options::overwrite_existing);
        _backedUp = _device;
        start();
    }

    void restore()
    {
        ++_counts["restored"];
        end();
        std::filesystem::copy_file(_backup, _file,
                                   std::filesystem::copy_options::overwrite_existing);
        _device = _backedUp;
        ++_line;
        start();
    }

    // --- What they use ---

    void start()
    {
        ASSERT_TRUE(_database.open(_file, sql::Database::access_create, false, 0));
        test::run(_database.getHandle(), string("pragma synchronous = off; ") + table);
        _recorder.emplace(_database, std::vector<string>{"reading"}, _plan.options);
        ASSERT_TRUE(_recorder->isRecording());
        _outbox.emplace(_database, "device", most_merged);
        _after = 0;
    }
    void end()
    {
        _outbox.reset();
        _recorder.reset();
        _database.close();
    }

    std::size_t pick(std::size_t count)
    {
        return count == 0 ? 0 : _random() % count;
    }

    // Inserts, updates or deletes one row.
    void change(sql::Database& database, SyncRows& rows, std::size_t columns)
    {
        const int key = static_cast<int>(pick(8));
        const string where = " where id = " + std::to_string(key);
        const auto found = rows.find(key);
        if (found == rows.end()) {
            SyncRow& row = rows[key];
            while (row.size() < columns)
                row.push_back(anyText());
            insert(database, key, row);
        } else if (pick(3) == 0) {
            test::run(database.getHandle(), "delete from reading" + where);
            rows.erase(found);
        } else {
            const std::size_t column = pick(columns);
            string& cell = found->second[column];
            cell = anyText();
            test::run(database.getHandle(),
                      "update reading set " + columnName(column) + " = '" + cell + "'" + where);
        }
    }

    static void insert(sql::Database& database, int key, const SyncRow& row)
    {
        string values = std::to_string(key);
        for (const string& cell : row)
            values += cell == test::sync_null ? ", null" : ", '" + cell + "'";
        test::run(database.getHandle(), "insert into reading values (" + values + ")");
    }

    string anyText()
    {
        return string(pick(20), static_cast<char>('a' + pick(3)));
    }

    static string columnName(std::size_t column)
    {
        return column == 0 ? "name" : column == 1 ? "value" : "more" + std::to_string(column - 1);
    }
    static bool hasDefault(std::size_t number)
    {
        return number % 2 == 0;
    }
    static string columnValue(std::size_t number)
    {
        return hasDefault(number) ? "none" : test::sync_null;
    }
    static string columnText(std::size_t number)
    {
        return "alter table reading add column more" + std::to_string(number) + " text"
               + (hasDefault(number) ? " default 'none'" : "");
    }

    sql::integer incarnation()
    {
        return std::stoll(
            test::rows(_database.getHandle(), "select incarnation from sqlsync_state"));
    }
    string oldestReason()
    {
        return test::rows(_centre.getHandle(),
                          "select reason from sqlsync_kept order by id limit 1");
    }
    static string placeText(const Sent& sent)
    {
        return std::to_string(sent.range.previous.second) + " to "
               + std::to_string(sent.range.last.second);
    }

    // What an operator makes sure of who admits a device: that this is what it goes on with.
    bool isOldest(const Sent& sent) const
    {
        return sent.line == _line && !_device.outbox.empty()
               && _device.outbox.front().last == sent.range.last;
    }

    void expectSame()
    {
        const char all[] = "select * from reading order by id";
        EXPECT_EQ(test::rows(_database.getHandle(), all), test::textOf(_device.rows));
        EXPECT_EQ(test::rows(_centre.getHandle(), all), test::textOf(_known.rows));
        const sql::Result<sql::OutboxSize> pending = _outbox->pending();
        EXPECT_EQ(pending->sets, static_cast<sql::integer>(_device.outbox.size()));
        EXPECT_EQ(pending->bytes, _device.bytes());
        EXPECT_EQ(_inbox->kept("device").valueOr(-1),
                  static_cast<sql::integer>(_known.waiting.size()));
        EXPECT_EQ(_inbox->lost("device").valueOr(0), _known.lost);
        EXPECT_EQ(_recorder->unrecorded(), 0);
        EXPECT_THAT(_diagnostics.take(), IsEmpty());
    }

    const string _file;
    const string _backup;
    const Plan _plan;
    std::mt19937 _random;
    Counts& _counts;
    test::Diagnostics& _diagnostics;

    sql::Database _centre;
    std::optional<sql::Inbox> _inbox;
    sql::Database _database;
    std::optional<sql::Recorder> _recorder;
    std::optional<sql::Outbox> _outbox;
    std::vector<Sent> _way;

    DeviceModel _device;
    DeviceModel _backedUp;
    CentreModel _known;         // at the centre
    sql::integer _after = 0;    // number of the set that was handed out
    std::set<SyncPlace> _given; // to commits
    int _line = 0;
};

class SyncSeriesTest : public testing::Test {
protected:
    void run(const Plan& plan)
    {
        const unsigned series = test::longRun() ? 2000 : test::briefRun() ? 6 : 20;
        for (unsigned seed = 1; seed <= series && !HasFailure(); ++seed) {
            SCOPED_TRACE(seed);
            Series(_directory.file("device.db"), plan, seed, counts, _diagnostics).run();
        }
    }

    // Each has happened.
    void expectAll(const std::vector<string>& names)
    {
        for (const string& name : names)
            EXPECT_GT(counts[name], 0) << name;
    }

    Counts counts;

private:
    test::Diagnostics _diagnostics;
    const test::TemporaryDirectory _directory;
};

TEST_F(SyncSeriesTest, OutboxThatRefusesWritesLeavesNoTraceOfThem)
{
    Plan plan;
    plan.options = {600, WhenFull::refuse_writes};
    run(plan);
    expectAll({"refused", "merged", "missing", "received"});
}

TEST_F(SyncSeriesTest, OutboxThatMergesRangesKeepsToItsLimit)
{
    Plan plan;
    plan.options = {500, WhenFull::merge_ranges};
    plan.handOut = 5;
    run(plan);
    expectAll({"refused", "merged", "received"});
}

TEST_F(SyncSeriesTest, OutboxThatDropsTheOldestTellsTheReceiverWhatIsLost)
{
    Plan plan;
    plan.options = {300, WhenFull::drop_oldest};
    plan.handOut = 10;
    plan.settle = 10;
    run(plan);
    expectAll({"dropped", "merged", "received", "kept", "discarded"});
}

TEST_F(SyncSeriesTest, SetsThatConflictAreKeptUntilTheyAreRetriedOrDiscarded)
{
    Plan plan;
    plan.writeAtCentre = 8;
    plan.settle = 8;
    run(plan);
    expectAll({"kept", "retried", "discarded", "received", "missing"});
}

TEST_F(SyncSeriesTest, TablesGetMoreColumnsOnTheDeviceAndAtTheCentre)
{
    Plan plan;
    plan.options = {2000, WhenFull::merge_ranges};
    plan.writeAtCentre = 2;
    plan.settle = 4;
    plan.addColumn = 5;
    run(plan);
    expectAll({"columns", "unknown column", "merged", "received", "kept", "retried"});
}

TEST_F(SyncSeriesTest, DeviceThatIsRestoredFromABackupIsAdmitted)
{
    Plan plan;
    plan.settle = 6;
    plan.backUp = 6;
    run(plan);
    expectAll({"restored", "forked", "admitted", "kept", "received", "missing"});
}

} // namespace
