#include "Centre.h"

#include "Cluster.h"
#include "ReportTest.h"
#include "Reports.h"
#include "SqlDatabase.h"
#include "SqlInbox.h"
#include "SqlOutbox.h"
#include "SqlRecorder.h"
#include "SqlStatement.h"
#include "Sqlite.h"

#include <gmock/gmock.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <functional>
#include <random>
#include <thread>

namespace {

namespace report = test::report;

using sql::SyncPosition;
using std::string;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Pair;

const char reading_table[] =
    "create table reading (id integer primary key not null, at timestamp not null,"
    " sensor text not null, value real not null, note text);";
const char event_table[] =
    "create table event (id integer primary key not null, at timestamp not null, kind text,"
    " serious boolean not null, detail blob)";

// All tests have one.
test::Cluster& cluster()
{
    static test::Cluster cluster;
    return cluster;
}

// A device: a file whose commits are recorded.
class Device {
public:
    explicit Device(const string& name = "device-1",
                    const string& statements = string(reading_table) + event_table,
                    const std::vector<string>& tables = {"reading", "event"})
        : _name(name), _outbox(_database, name)
    {
        EXPECT_TRUE(_database.open(":memory:", sql::Database::access_create, false, 0));
        run(statements);
        record(tables);
    }

    // Records from now on. Past this, nothing is.
    void record(const std::vector<string>& tables)
    {
        _recorder = std::make_unique<sql::Recorder>(_database, tables);
        EXPECT_TRUE(_recorder->isRecording());
    }
    void stopRecording()
    {
        _recorder.reset();
    }
    void run(const string& statements)
    {
        test::run(_database.getHandle(), statements);
    }
    string rows(const string& query)
    {
        return test::rows(_database.getHandle(), query);
    }
    bool renew()
    {
        return _recorder->renew();
    }

    // What is sent of a commit of these statements.
    Incoming commit(const string& statements)
    {
        sql::RecordedTransaction transaction(*_recorder);
        EXPECT_TRUE(transaction.isOpen());
        run(statements);
        EXPECT_TRUE(transaction.commit());
        return next();
    }
    Incoming next()
    {
        sql::ChangeSet set;
        EXPECT_TRUE(_outbox.next(set));
        return {_name, string(set.header()), string(set.bytes())};
    }
    Incoming add(int id)
    {
        return commit("insert into reading values (" + std::to_string(id)
                      + ", 1700000000, 'hall', 21.5, null)");
    }

private:
    string _name;
    sql::Database _database;
    std::unique_ptr<sql::Recorder> _recorder;
    sql::Outbox _outbox;
};

sql::Envelope envelopeOf(const Incoming& set)
{
    const auto envelope = sql::readEnvelope(set.header);
    EXPECT_TRUE(envelope);
    return *envelope;
}

// The set with another header.
Incoming changed(Incoming set, const std::function<void(sql::Envelope&)>& change)
{
    sql::Envelope envelope = envelopeOf(set);
    change(envelope);
    set.header = sql::encode(envelope, set.bytes);
    return set;
}

class CentreTest : public test::ReportTest {
protected:
    CentreTest() : _session(cluster().connection())
    {
        rows("alter system reset all");
        rows("select pg_reload_conf()");
        rows("drop schema if exists fleet cascade; drop schema if exists data cascade");
    }

    CentreOptions options() const
    {
        return {cluster().connection(), {"event"}};
    }
    string rows(const string& sql)
    {
        return _session.rows(sql);
    }
    string readings()
    {
        return rows("select device, id, value from data.reading order by 1, 2");
    }
    string quarantine()
    {
        return rows("select device, number, reason from fleet.quarantine order by id");
    }

    // What became of each: "stored", or the reason of a refusal.
    std::vector<string> store(const std::vector<Incoming>& sets)
    {
        std::vector<Answer> answers;
        EXPECT_TRUE(_centre.store(sets, answers)) << _centre.error();
        EXPECT_EQ(answers.size(), sets.size());
        std::vector<string> fates;
        for (std::size_t i = 0; i < answers.size(); ++i) {
            fates.push_back(answers[i].isStored ? "stored" : answers[i].reason);
            const bool isRead = answers[i].last != SyncPosition();
            EXPECT_EQ(answers[i].last, isRead ? envelopeOf(sets[i]).last : SyncPosition());
            EXPECT_EQ(answers[i].reason.empty(), answers[i].isStored);
        }
        return fates;
    }
    void expectStored(const Incoming& set)
    {
        EXPECT_THAT(store({set}), ElementsAre("stored"));
    }
    // It is acknowledged, and nothing of it is in the tables.
    void expectQuarantined(const Incoming& set, const string& reason)
    {
        makeSchema();
        const string before = rows("select coalesce(max(id), 0) from fleet.quarantine");
        const sql::integer count = _centre.counts().quarantined;
        expectStored(set);
        EXPECT_EQ(rows("select reason from fleet.quarantine where id > " + before), reason);
        EXPECT_EQ(_centre.counts().quarantined, count + 1);
    }
    void expectRefused(const Incoming& set, const string& reason, const string& name)
    {
        const sql::integer count = _centre.counts().refused;
        EXPECT_THAT(store({set}), ElementsAre(reason));
        EXPECT_EQ(_centre.counts().refused, count + 1);
        expectReport(report::statementFailed("isNext", "isNext", name + ": " + reason));
    }
    void makeSchema()
    {
        std::vector<DeviceStatus> devices;
        EXPECT_TRUE(_centre.status(devices)) << _centre.error();
    }
    DeviceStatus statusOf(const string& device = "device-1")
    {
        std::vector<DeviceStatus> devices;
        EXPECT_TRUE(_centre.status(devices)) << _centre.error();
        for (const DeviceStatus& status : devices) {
            if (status.device == device)
                return status;
        }
        ADD_FAILURE() << "no " << device;
        return {};
    }

    test::PlainSession _session;
    Centre _centre{options()};
};

// --- Tables --------------------------------------------------------------------------------------

const char columns_of[] = "select attname, format_type(atttypid, atttypmod) from pg_attribute"
                          " where attnum > 0 and not attisdropped and attrelid = 'data.";

TEST_F(CentreTest, MakesTablesOfWhatADeviceRecords)
{
    Device device;
    EXPECT_FALSE(_centre.isConnected());
    expectStored(device.add(7));
    EXPECT_TRUE(_centre.isConnected());
    EXPECT_EQ(rows("select * from data.reading"),
              "device-1|7|2023-11-14 22:13:20+00|hall|21.5|NULL");
    EXPECT_EQ(rows(string(columns_of) + "event'::regclass order by attnum"),
              "device|text\nid|bigint\nat|timestamp with time zone\nkind|text\nserious|boolean\n"
              "detail|bytea");
    EXPECT_EQ(rows("select pg_get_constraintdef(oid) from pg_constraint"
                   " where conrelid = 'data.reading'::regclass"),
              "PRIMARY KEY (device, id)");
    EXPECT_EQ(_centre.counts().sets, 1);
    EXPECT_EQ(_centre.counts().rows, 1);
    EXPECT_EQ(_centre.error(), "");
}

TEST_F(CentreTest, KeyHasTheDevicesOrder)
{
    Device device("device-1",
                  "create table pair (l text not null, \"a \"\"b\" blob not null, n,"
                  " primary key (\"a \"\"b\", l))",
                  {"pair"});
    expectStored(device.commit("insert into pair values ('x', x'00ff', null)"));
    EXPECT_EQ(rows("select pg_get_constraintdef(oid) from pg_constraint"
                   " where conrelid = 'data.pair'::regclass"),
              "PRIMARY KEY (device, \"a \"\"b\", l)");
    expectStored(device.commit("update pair set n = x'01'"));
    EXPECT_EQ(rows("select * from data.pair"), "device-1|x|\\x00ff|\\x01");
    expectStored(device.commit("delete from pair"));
    EXPECT_EQ(rows("select * from data.pair"), "");
}

TEST_F(CentreTest, DeclaredTypesAreThoseOfPostgres)
{
    Device device("device-1",
                  "create table t (id integer primary key not null, a boolean, b timestamp,"
                  " c datetime, d timestamp(3), e varchar(3), f clob, g text, h blob, i, j real,"
                  " k float, l double precision, m decimal(9, 2), n date, o bigint, p doub)",
                  {"t"});
    expectStored(device.commit("insert into t (id) values (1)"));
    EXPECT_EQ(rows("select string_agg(format_type(atttypid, atttypmod), ', ' order by attnum)"
                   " from pg_attribute where attnum > 2 and attrelid = 'data.t'::regclass"),
              "boolean, timestamp with time zone, timestamp with time zone,"
              " timestamp with time zone, text, text, text, bytea, bytea, double precision,"
              " double precision, double precision, numeric, numeric, bigint, double precision");
}

TEST_F(CentreTest, ColumnsOfALaterReleaseAreAdded)
{
    Device early("device-1");
    Device late("device-2");
    expectStored(early.add(1));
    late.run("alter table reading add column unit text; alter table reading add column dp integer"
             " not null default 1");
    ASSERT_TRUE(late.renew());
    expectStored(
        late.commit("insert into reading values (1, 1700000000, 'hall', 2, null, 'K', 3)"));
    expectStored(early.add(2));
    EXPECT_EQ(rows("select device, id, unit, dp from data.reading order by 1, 2"),
              "device-1|1|NULL|NULL\ndevice-1|2|NULL|NULL\ndevice-2|1|K|3");
}

TEST_F(CentreTest, TablesThatDifferQuarantineWhatTouchesThem)
{
    Device device;
    expectStored(device.add(1));
    Device other("device-2",
                 "create table reading (id text primary key not null, value blob);"
                 "create table event (id integer not null, at integer not null, kind text,"
                 " primary key (at, id));"
                 "create table fine (id integer primary key not null)",
                 {"reading", "event", "fine"});
    expectQuarantined(other.commit("insert into reading values ('a', null)"),
                      "table 'reading': column 'id' is bigint at the centre, and text is needed");
    expectQuarantined(other.commit("insert into event values (1, 2, null)"),
                      "table 'event': column 'at' is timestamp with time zone at the centre, and"
                      " bigint is needed");
    expectStored(other.commit("insert into fine values (1)"));
    EXPECT_EQ(rows("select * from data.fine"), "device-2|1");
    Device third("device-3",
                 "create table reading (id integer not null, sensor text not null,"
                 " primary key (id, sensor))",
                 {"reading"});
    expectQuarantined(third.commit("insert into reading values (1, 'x')"),
                      "table 'reading': it has another key at the centre");
    EXPECT_EQ(quarantine(),
              "device-2|1|table 'reading': column 'id' is bigint at the centre, and text is"
              " needed\n"
              "device-2|2|table 'event': column 'at' is timestamp with time zone at the centre, and"
              " bigint is needed\n"
              "device-3|1|table 'reading': it has another key at the centre");
    expectStored(device.add(2));
}

TEST_F(CentreTest, NamesThatPostgresCannotTakeQuarantine)
{
    const string longest(63, 'n');
    Device edge("device-1",
                "create table \"" + longest + "\" (\"" + longest
                    + "\" integer primary key not null)",
                {longest});
    expectStored(edge.commit("insert into " + longest + " values (1)"));
    EXPECT_EQ(rows("select \"" + longest + "\" from data." + longest), "1");

    const string name = longest + "n";
    struct Case {
        string table;
        string columns;
        string reason;
    };
    const std::vector<Case> cases = {
        {name, "", "table '" + name + "': its name is longer than 63 bytes"},
        {"t1", ", " + name + " text",
         "table 't1': the name of column '" + name + "' is longer than 63 bytes"},
        {"t2", ", device text", "table 't2': column 'device' is the centre's own"},
        {"t3", ", xmin text",
         "table 't3': column name \"xmin\" conflicts with a system column name"},
        {"t\xff", "", "table 't?': its name is no UTF-8"},
        {"t4", ", \"a\xc0\x80\" text", "table 't4': the name of column 'a?\?' is no UTF-8"},
    };
    int number = 1;
    for (const Case& each : cases) {
        Device device("device-" + std::to_string(++number),
                      "create table \"" + each.table + "\" (id integer primary key not null"
                          + each.columns + ")",
                      {each.table});
        expectQuarantined(device.commit("insert into \"" + each.table + "\" (id) values (1)"),
                          each.reason);
    }
}

TEST_F(CentreTest, WhatIsNoTableInPostgresQuarantines)
{
    Device device;
    makeSchema();
    rows("create view data.reading as select 'x' as device, 1::bigint as id");
    expectQuarantined(device.add(1), "table 'reading': it has another key at the centre");
    rows("drop view data.reading");
    expectStored(device.add(2));
    EXPECT_EQ(readings(), "device-1|2|21.5");
}

TEST_F(CentreTest, TableThatSomeoneHasDroppedIsMadeAgain)
{
    Device device;
    expectStored(device.add(1));
    rows("drop table data.reading");
    expectStored(device.add(2));
    EXPECT_EQ(readings(), "device-1|2|21.5");
    EXPECT_EQ(quarantine(), "");
}

// --- Values --------------------------------------------------------------------------------------

const char value_table[] =
    "create table v (id integer primary key not null, flag boolean, at timestamp,"
    " ms timestamp(3), number integer, word text, block blob, real real, num decimal, none, mark integer)";

TEST_F(CentreTest, ValuesOfEveryTypeAtTheirEdges)
{
    struct Case {
        string column;
        string value;   // in SQLite
        string written; // by PostgreSQL
    };
    const std::vector<Case> cases = {
        {"flag", "0", "f"},
        {"flag", "1", "t"},
        {"flag", "null", "NULL"},
        {"at", "0", "1970-01-01 00:00:00+00"},
        {"at", "-1", "1969-12-31 23:59:59+00"},
        {"at", "1700000000", "2023-11-14 22:13:20+00"},
        {"at", "1700000000.25", "2023-11-14 22:13:20.25+00"},
        {"at", "4294967296", "2106-02-07 06:28:16+00"},
        {"at", "-210866803200", "4714-11-24 00:00:00+00 BC"},
        {"at", "9224318015999", "294276-12-31 23:59:59+00"},
        {"at", "'2024-02-29'", "2024-02-29 00:00:00+00"},
        {"at", "'2024-02-29 12:30'", "2024-02-29 12:30:00+00"},
        {"at", "'2024-02-29 12:30:45.125'", "2024-02-29 12:30:45.125+00"},
        {"at", "'2024-02-29T12:30:45Z'", "2024-02-29 12:30:45+00"},
        {"at", "'2024-02-29T12:30:45+02:00'", "2024-02-29 10:30:45+00"},
        {"ms", "1700000000123", "2023-11-14 22:13:20.123+00"},
        {"ms", "1700000000123.5", "2023-11-14 22:13:20.1235+00"},
        {"ms", "-1", "1969-12-31 23:59:59.999+00"},
        {"ms", "'2024-02-29'", "2024-02-29 00:00:00+00"},
        {"number", "9223372036854775807", "9223372036854775807"},
        {"number", "-9223372036854775807 - 1", "-9223372036854775808"},
        {"word", "''", ""},
        {"word", "'a''\"\\|' || char(9, 10)", "a'\"\\|\t\n"},
        {"word", "char(228, 8364, 65533, 128512, 1114111)",
         "\xc3\xa4\xe2\x82\xac\xef\xbf\xbd\xf0\x9f\x98\x80\xf4\x8f\xbf\xbf"},
        {"block", "x''", "\\x"},
        {"block", "x'00ff27'", "\\x00ff27"},
        {"real", "0.1", "0.1"},
        {"real", "-0.0", "0"},
        {"real", "3", "3"},
        {"real", "1.7976931348623157e308", "1.7976931348623157e+308"},
        {"real", "5e-324", "5e-324"},
        {"real", "9e999", "Infinity"},
        {"real", "-9e999", "-Infinity"},
        {"num", "9223372036854775807", "9223372036854775807"},
        {"num", "0.1", "0.1"},
        {"num", "1e300", "1" + string(300, '0')},
        {"num", "9e999", "Infinity"},
        {"none", "x'00'", "\\x00"},
    };
    Device device("device-1", value_table, {"v"});
    int id = 0;
    for (const Case& each : cases) {
        const string row = std::to_string(++id);
        expectStored(device.commit("insert into v (id, " + each.column + ") values (" + row + ", "
                                   + each.value + ")"));
        EXPECT_EQ(rows("select " + each.column + " from data.v where id = " + row), each.written)
            << each.column << ": " << each.value;
        // What it was is found again.
        expectStored(
            device.commit("update v set " + each.column + " = null, mark = 1 where id = " + row));
        expectStored(device.commit("update v set mark = null, " + each.column + " = " + each.value
                                   + " where id = " + row));
        EXPECT_EQ(rows("select " + each.column + " from data.v where id = " + row), each.written);
        expectStored(device.commit("delete from v where id = " + row));
        EXPECT_EQ(rows("select count(*) from data.v"), "0") << each.column << ": " << each.value;
    }
    EXPECT_EQ(quarantine(), "");
}

TEST_F(CentreTest, ValuesOfAnotherKindQuarantine)
{
    struct Case {
        string column;
        string value;
        string reason;
    };
    const string no_time = " is no timestamp with time zone";
    const std::vector<Case> cases = {
        {"flag", "2", "an integer is no boolean"},
        {"flag", "-1", "an integer is no boolean"},
        {"flag", "0.5", "a real is no boolean"},
        {"flag", "'true'", "a text is no boolean"},
        {"flag", "x'01'", "a block is no boolean"},
        {"at", "9224318016000", "an integer" + no_time},
        {"at", "-210866803201", "an integer" + no_time},
        {"at", "9223372036854775807", "an integer" + no_time},
        {"at", "-9223372036854775807", "an integer" + no_time},
        {"at", "1e300", "a real" + no_time},
        {"at", "-9e999", "a real" + no_time},
        {"at", "9e999", "a real" + no_time},
        {"at", "x'00'", "a block" + no_time},
        {"at", "''", "a text" + no_time},
        {"at", "'now'", "a text" + no_time},
        {"at", "'infinity'", "a text" + no_time},
        {"at", "'allballs'", "a text" + no_time},
        {"at", "'2024-02-30'", "a text" + no_time},
        {"at", "'2024-02-29 25:00'", "a text" + no_time},
        {"at", "'2024-02-29 and more'", "a text" + no_time},
        {"at", "'2024-02-29' || char(0)", "a text" + no_time},
        {"at", "'12:30'", "a text" + no_time},
        {"ms", "9224318016000000", "an integer" + no_time},
        {"ms", "9223372036854775807", "an integer" + no_time},
        {"number", "0.5", "a real is no bigint"},
        {"number", "1e30", "a real is no bigint"},
        {"number", "'x'", "a text is no bigint"},
        {"number", "x'01'", "a block is no bigint"},
        {"word", "x'61'", "a block is no text"},
        {"word", "'a' || char(0) || 'b'", "a text that has a zero byte"},
        {"word", "char(0)", "a text that has a zero byte"},
        {"word", "cast(x'ff' as text)", "a text that is no UTF-8"},
        {"word", "cast(x'eda080' as text)", "a text that is no UTF-8"},
        {"word", "cast(x'c080' as text)", "a text that is no UTF-8"},
        {"word", "cast(x'f4908080' as text)", "a text that is no UTF-8"},
        {"word", "cast(x'61e282' as text)", "a text that is no UTF-8"},
        {"block", "'x'", "a text is no bytea"},
        {"block", "1", "an integer is no bytea"},
        {"block", "0.5", "a real is no bytea"},
        {"real", "'x'", "a text is no double precision"},
        {"real", "x'01'", "a block is no double precision"},
        {"num", "'x'", "a text is no numeric"},
        {"num", "x'01'", "a block is no numeric"},
        {"none", "1", "an integer is no bytea"},
        {"none", "'x'", "a text is no bytea"},
    };
    Device device("device-1", value_table, {"v"});
    int id = 0;
    for (const Case& each : cases) {
        id += 2;
        const string insert = "insert into v (id, " + each.column + ") values (";
        expectQuarantined(device.commit(insert + std::to_string(id) + ", null);" + insert
                                        + std::to_string(id + 1) + ", " + each.value + ")"),
                          "table 'v', insert: column '" + each.column + "': " + each.reason);
    }
    EXPECT_EQ(rows("select count(*) from data.v"), "0");
    expectStored(device.commit("insert into v (id) values (2000)"));
    EXPECT_EQ(rows("select id from data.v"), "2000");
}

TEST_F(CentreTest, WhatPostgresItselfRefusesQuarantinesWithItsWords)
{
    Device device;
    expectStored(device.add(1));
    rows("alter table data.reading add check (value < 100);"
         "alter table data.reading add column mine text not null default 'x'");
    expectQuarantined(device.commit("update reading set value = 100"),
                      "table 'reading', update: new row for relation \"reading\" violates check"
                      " constraint \"reading_value_check\"");
    rows("create function data.refuse() returns trigger language plpgsql as"
         " $$ begin raise exception 'not %', new.id; end $$;"
         "create trigger refuse before insert on data.reading for each row execute function"
         " data.refuse()");
    expectQuarantined(device.add(2), "table 'reading', insert: not 2");
    rows("drop trigger refuse on data.reading;"
         "create constraint trigger refuse after insert on data.reading deferrable initially"
         " deferred for each row execute function data.refuse()");
    expectQuarantined(device.add(3), "table 'reading', insert: not 3");
    EXPECT_EQ(readings(), "device-1|1|21.5");
}

TEST_F(CentreTest, KeyThatIsLongerThanAnIndexTakesQuarantines)
{
    Device device("device-1", "create table word (w text primary key not null)", {"word"});
    const auto add = [&device](const string& text) {
        return device.commit("insert into word values ('" + text + "')");
    };
    string noise;
    for (unsigned i = 0, n = 1; i < 8000; ++i, n = n * 1103515245 + 12345)
        noise += static_cast<char>('a' + (n >> 16) % 26);
    expectStored(add(noise.substr(0, 2000)));
    expectQuarantined(
        add(noise), "table 'word', insert: index row size 8024 exceeds btree version 4 maximum 2704"
                    " for index \"word_pkey\"");
}

// --- Order ---------------------------------------------------------------------------------------

const char went_back[] =
    "the device went back to 0 (restored from a backup), or another device has its name";
const char went_back_as[] = "23=SQLITE_AUTH";
const char missing_as[] = "12=SQLITE_NOTFOUND";

TEST_F(CentreTest, NothingToStoreNeedsNoConnection)
{
    std::vector<Answer> answers(1);
    EXPECT_TRUE(_centre.store({}, answers));
    EXPECT_THAT(answers, IsEmpty());
    EXPECT_FALSE(_centre.isConnected());
}

TEST_F(CentreTest, EachSetIsStoredOnceInItsOrder)
{
    Device device;
    const Incoming first = device.add(1);
    const Incoming second = device.commit("update reading set value = 2 where id = 1");
    const Incoming third = device.commit("update reading set value = 3 where id = 1");
    EXPECT_THAT(store({first, second, first, second, third, third}), testing::Each("stored"));
    EXPECT_EQ(readings(), "device-1|1|3");
    EXPECT_THAT(store({first, second, third}), testing::Each("stored"));
    expectStored(second);
    EXPECT_EQ(readings(), "device-1|1|3");
    const CentreCounts counts = _centre.counts();
    EXPECT_EQ(counts.sets, 3);
    EXPECT_EQ(counts.rows, 3);
    EXPECT_EQ(counts.repeated, 7);
    EXPECT_EQ(counts.refused, 0);
    EXPECT_EQ(counts.quarantined, 0);
    const DeviceStatus status = statusOf();
    EXPECT_EQ(status.number, 3);
    EXPECT_EQ(status.rows, 3);
    EXPECT_EQ(status.lost, 0);
    EXPECT_GE(status.secondsBehind, 0);
    EXPECT_LT(status.secondsBehind, 60);
}

TEST_F(CentreTest, SetsThatAreMissingAreWaitedFor)
{
    Device device;
    const Incoming first = device.add(1);
    const Incoming second = device.add(2);
    const Incoming third = device.add(3);
    expectStored(first);
    expectRefused(third, "the commits 2 to 2 are missing", missing_as);
    EXPECT_EQ(statusOf().refused, "the commits 2 to 2 are missing");
    EXPECT_EQ(readings(), "device-1|1|21.5");
    EXPECT_THAT(store({second, third}), testing::Each("stored"));
    EXPECT_EQ(readings(), "device-1|1|21.5\ndevice-1|2|21.5\ndevice-1|3|21.5");
    EXPECT_EQ(statusOf().refused, "");
}

TEST_F(CentreTest, RefusalEndsWithARepetitionToo)
{
    Device device;
    const Incoming first = device.add(1);
    device.add(2);
    expectStored(first);
    expectRefused(device.add(3), "the commits 2 to 2 are missing", missing_as);
    expectStored(first);
    EXPECT_EQ(statusOf().refused, "");
}

TEST_F(CentreTest, CommitsThatTheDeviceHasDroppedAreCounted)
{
    Device device;
    expectStored(device.add(1));
    device.add(2);
    device.add(3);
    expectStored(changed(device.add(4),
                         [](sql::Envelope& envelope) { envelope.dropped = envelope.previous; }));
    EXPECT_EQ(readings(), "device-1|1|21.5\ndevice-1|4|21.5");
    EXPECT_EQ(statusOf().lost, 2);
    EXPECT_EQ(statusOf().number, 4);
}

TEST_F(CentreTest, TwoDevicesOfOneNameAreToldApart)
{
    Device device;
    Device other;
    expectStored(device.add(1));
    const Incoming foreign = other.add(2);
    expectRefused(foreign, went_back, went_back_as);
    expectStored(device.add(2));
    EXPECT_EQ(statusOf().refused, "");
    // The same position, with other bytes.
    const Incoming latest = device.add(3);
    expectStored(latest);
    Device twin;
    const Incoming twins = changed(twin.add(4), [&latest](sql::Envelope& envelope) {
        envelope.previous = envelopeOf(latest).previous;
        envelope.last = envelopeOf(latest).last;
    });
    expectRefused(twins,
                  "the device went back to 2 (restored from a backup), or another device has its"
                  " name",
                  went_back_as);
    expectStored(latest);
    EXPECT_EQ(readings(), "device-1|1|21.5\ndevice-1|2|21.5\ndevice-1|3|21.5");
}

TEST_F(CentreTest, DamagedSetsAreRefusedAndTold)
{
    Device device;
    Incoming set = device.add(1);
    Incoming cut = set;
    cut.header.pop_back();
    EXPECT_THAT(store({cut}), ElementsAre("the header is cut off"));
    expectReport(report::statementFailed("readEnvelope", "readEnvelope",
                                         "11=SQLITE_CORRUPT: the header is cut off"));
    EXPECT_EQ(statusOf().refused, "the header is cut off");
    Incoming damaged = set;
    damaged.bytes.back() ^= 1;
    EXPECT_THAT(store({damaged}), ElementsAre("the change set's checksum is wrong"));
    expectReport(report::statementFailed("checkChangeSet", "checkChangeSet",
                                         "11=SQLITE_CORRUPT: the change set's checksum is wrong"));
    EXPECT_EQ(statusOf().refused, "the change set's checksum is wrong");
    Incoming foreign = set;
    foreign.device = "device-2";
    EXPECT_THAT(store({foreign}), ElementsAre("the change set is of device 'device-1'"));
    EXPECT_EQ(statusOf("device-2").refused, "the change set is of device 'device-1'");
    EXPECT_EQ(_centre.counts().refused, 3);
    expectStored(set);
    EXPECT_EQ(readings(), "device-1|1|21.5");
}

TEST_F(CentreTest, NamesOfDevicesThatAreNoTextsAreRefused)
{
    Device device;
    Incoming set = device.add(1);
    for (const string& name : {string("\xff"), string("a\0b", 3), string()}) {
        set.device = name;
        EXPECT_THAT(store({set, set}), testing::Each("the change set is of device 'device-1'"));
    }
    makeSchema();
    EXPECT_EQ(rows("select count(*) from fleet.device"), "0");
}

TEST_F(CentreTest, NamesOfDevicesMayHaveAnyLetters)
{
    const string name = "a'b\"c\\d{e},f \xc3\xa4";
    Device device(name);
    const Incoming set = device.add(1);
    expectStored(set);
    expectStored(set);
    expectStored(device.add(2));
    EXPECT_EQ(rows("select device, count(*) from data.reading group by 1"), name + "|2");
    EXPECT_EQ(_centre.counts().repeated, 1);
}

// --- Conflicts -----------------------------------------------------------------------------------

TEST_F(CentreTest, RowsThatConflictQuarantineTheWholeSet)
{
    struct Case {
        string before;    // what somebody does at the centre
        string statement; // of the device
        string reason;
    };
    const std::vector<Case> cases = {
        {"insert into data.reading (device, id) values ('device-1', 10)",
         "insert into reading values (10, 1, 'x', 1, null)",
         "insert: there is a row with this key here"},
        {"update data.reading set value = 99 where id = 1",
         "update reading set value = 5 where id = 1", "update: the row has other values here"},
        {"update data.reading set note = 'x' where id = 2",
         "update reading set note = 'y' where id = 2", "update: the row has other values here"},
        {"delete from data.reading where id = 3", "update reading set value = 5 where id = 3",
         "update: there is no such row here"},
        {"update data.reading set value = 99 where id = 4", "delete from reading where id = 4",
         "delete: the row has other values here"},
        {"delete from data.reading where id = 5", "delete from reading where id = 5",
         "delete: there is no such row here"},
    };
    Device device;
    for (int id = 1; id <= 5; ++id)
        expectStored(device.add(id));
    int id = 100;
    for (const Case& each : cases) {
        rows(each.before);
        const string before = rows("select * from data.reading order by id");
        const auto insert = [](int row) {
            return "insert into reading values (" + std::to_string(row) + ", 1, 'x', 1, null);";
        };
        expectQuarantined(device.commit(insert(id) + each.statement + ";" + insert(id + 1)),
                          "table 'reading', " + each.reason);
        id += 2;
        EXPECT_EQ(rows("select * from data.reading order by id"), before);
        const Incoming next = device.add(id++);
        expectStored(next);
        EXPECT_EQ(rows("select count(*) from data.reading where id = " + std::to_string(id - 1)),
                  "1");
    }
    EXPECT_EQ(statusOf().quarantined, 6);
    EXPECT_EQ(statusOf().reason, "table 'reading', insert: there is a row with this key here");
    EXPECT_EQ(statusOf().rows, 11);
}

TEST_F(CentreTest, SetsBehindOneInQuarantineGoOnIfTheyMatch)
{
    Device device;
    expectStored(device.add(1));
    rows("insert into data.reading (device, id) values ('device-1', 2)");
    const Incoming bad = device.add(2);
    const Incoming unlike = device.commit("update reading set value = 7 where id = 2");
    const Incoming good = device.commit("update reading set value = 8 where id = 1");
    EXPECT_THAT(store({bad, unlike, good}), testing::Each("stored"));
    EXPECT_EQ(readings(), "device-1|1|8\ndevice-1|2|NULL");
    EXPECT_EQ(quarantine(),
              "device-1|2|table 'reading', insert: there is a row with this key here\n"
              "device-1|3|table 'reading', update: the row has other values here");
    EXPECT_THAT(store({bad, unlike, good}), testing::Each("stored"));
    EXPECT_EQ(_centre.counts().quarantined, 2);
    EXPECT_EQ(_centre.counts().repeated, 3);
}

TEST_F(CentreTest, WhatIsInQuarantineIsWhatWasSent)
{
    Device device;
    expectStored(device.add(1));
    rows("delete from data.reading");
    const Incoming set = device.commit("delete from reading");
    expectQuarantined(set, "table 'reading', delete: there is no such row here");
    const auto hex = [](const string& bytes) {
        string text = "\\x";
        for (const char byte : bytes) {
            char digits[3];
            std::snprintf(digits, sizeof digits, "%02x", static_cast<unsigned char>(byte));
            text += digits;
        }
        return text;
    };
    EXPECT_EQ(rows("select header, bytes from fleet.quarantine"),
              hex(set.header) + "|" + hex(set.bytes));
}

TEST_F(CentreTest, RowsOfTablesThatAreKeptStay)
{
    Device device;
    expectStored(
        device.commit("insert into event values (1, 0, 'a', 0, null), (2, 0, 'b', 1, null)"));
    expectStored(
        device.commit("delete from event where id = 1; insert into event values (3, 0, 'c',"
                      " 0, null)"));
    EXPECT_EQ(rows("select id from data.event order by 1"), "1\n2\n3");
    EXPECT_EQ(statusOf().rows, 3);
    expectStored(device.commit("update event set kind = 'd' where id = 2"));
    expectStored(device.commit("delete from event"));
    EXPECT_EQ(rows("select id, kind from data.event order by 1"), "1|a\n2|d\n3|c");
    EXPECT_EQ(_centre.counts().quarantined, 0);
}

// Values are compared as PostgreSQL has them, whatever has been set for its sessions.
TEST_F(CentreTest, SettingsOfTheDatabaseChangeNothing)
{
    rows(
        "alter role fleet set datestyle = 'SQL, DMY'; alter role fleet set timezone = 'Asia/Tokyo';"
        "alter role fleet set bytea_output = escape; alter role fleet set extra_float_digits = -10;"
        "alter role fleet set default_transaction_isolation = serializable;"
        "alter role fleet set client_encoding = latin1");
    Device device;
    expectStored(
        device.commit("insert into event values (1, '2024-02-29 12:30', char(228), 1, x'00275c')"));
    expectStored(device.commit("update event set at = 0.5, kind = 'b'"));
    rows("alter role fleet reset all");
    EXPECT_EQ(rows("select * from data.event"),
              "device-1|1|1970-01-01 00:00:00.5+00|b|t|\\x00275c");
    EXPECT_EQ(quarantine(), "");
}

// --- Batches -------------------------------------------------------------------------------------

TEST_F(CentreTest, OneBadSetLeavesTheOthersOfABatch)
{
    std::vector<Incoming> sets;
    std::vector<std::unique_ptr<Device>> devices;
    for (int i = 0; i < 30; ++i) {
        devices.push_back(std::make_unique<Device>("device-" + std::to_string(i)));
        for (int id = 1; id <= 3; ++id) {
            const bool isBad = i == 7 && id == 2;
            sets.push_back(isBad ? devices.back()->commit("insert into reading values"
                                                          " (2, 0, 'a' || char(0), 1, null)")
                                 : devices.back()->add(id));
        }
    }
    sets.erase(sets.begin() + 3 * 11 + 1); // the second of device-11
    std::vector<string> expected(sets.size(), "stored");
    expected[3 * 11 + 1] = "the commits 2 to 2 are missing";
    EXPECT_EQ(store(sets), expected);
    expectReport(report::statementFailed("isNext", "isNext",
                                         string(missing_as) + ": the commits 2 to 2 are missing"));
    EXPECT_EQ(rows("select count(*), count(distinct device) from data.reading"), "87|30");
    EXPECT_EQ(quarantine(), "device-7|2|table 'reading', insert: column 'sensor': a text that has a"
                            " zero byte");
    const CentreCounts counts = _centre.counts();
    EXPECT_EQ(counts.sets, 87);
    EXPECT_EQ(counts.rows, 87);
    EXPECT_EQ(counts.quarantined, 1);
    EXPECT_EQ(counts.refused, 1);
}

TEST_F(CentreTest, ManyKindsOfUpdates)
{
    string columns;
    for (int i = 0; i < 11; ++i)
        columns += ", c" + std::to_string(i) + " integer not null default 0";
    Device device("device-1", "create table t (id integer primary key not null" + columns + ")",
                  {"t"});
    expectStored(device.commit("insert into t (id) values (1)"));
    std::vector<Incoming> sets;
    for (int kind = 1; kind < 1 << 11; ++kind) {
        string update = "update t set id = id";
        for (int i = 0; i < 11; ++i) {
            if ((kind >> i & 1) != 0)
                update += ", c" + std::to_string(i) + " = c" + std::to_string(i) + " + 1";
        }
        sets.push_back(device.commit(update));
    }
    EXPECT_THAT(store(sets), testing::Each("stored"));
    EXPECT_EQ(rows("select c0, c10 from data.t"), "1024|1024");
    EXPECT_EQ(quarantine(), "");
    expectStored(device.commit("update t set c5 = 0"));
}

// Each in an order of its own.
TEST_F(CentreTest, TwoCentresStoreEachSetOnce)
{
    std::vector<std::vector<Incoming>> rounds(20);
    std::vector<std::unique_ptr<Device>> devices;
    for (int i = 0; i < 5; ++i)
        devices.push_back(std::make_unique<Device>("device-" + std::to_string(i)));
    for (std::size_t round = 0; round < rounds.size(); ++round) {
        for (const auto& device : devices)
            rounds[round].push_back(device->add(static_cast<int>(round)));
    }
    // Whoever has waited for the other has to see what that has done.
    rows("alter role fleet set default_transaction_isolation = 'repeatable read'");
    Centre other(options());
    const auto work = [&rounds](Centre& centre, bool isReversed) {
        for (std::vector<Incoming> sets : rounds) {
            if (isReversed)
                std::reverse(sets.begin(), sets.end());
            std::vector<Answer> answers;
            EXPECT_TRUE(centre.store(sets, answers)) << centre.error();
            for (const Answer& answer : answers)
                EXPECT_TRUE(answer.isStored) << answer.reason;
        }
    };
    std::thread thread(work, std::ref(other), true);
    work(_centre, false);
    thread.join();
    rows("alter role fleet reset all");
    EXPECT_EQ(rows("select device, count(*) from data.reading group by 1 order by 1"),
              "device-0|20\ndevice-1|20\ndevice-2|20\ndevice-3|20\ndevice-4|20");
    EXPECT_EQ(quarantine(), "");
    EXPECT_EQ(_centre.counts().sets + other.counts().sets, 100);
    EXPECT_EQ(_centre.counts().repeated + other.counts().repeated, 100);
}

// --- Losses --------------------------------------------------------------------------------------

class CentreLossTest : public CentreTest {
protected:
    // Has it that nothing can be stored.
    void expectFailure(const std::vector<Incoming>& sets, const string& error)
    {
        std::vector<Answer> answers(1);
        EXPECT_FALSE(_centre.store(sets, answers));
        EXPECT_THAT(answers, IsEmpty());
        EXPECT_EQ(_centre.error(), error);
        EXPECT_FALSE(_centre.isConnected());
    }
    void makeTrigger(const string& when, const string& statement)
    {
        rows(
            "create or replace function data.trouble() returns trigger language plpgsql as $$ begin "
            + statement + "; return new; end $$; drop trigger if exists trouble on data.reading;"
            + "create " + when + " for each row execute function data.trouble()");
    }
    void removeTrigger()
    {
        rows("drop trigger trouble on data.reading");
    }
    // Waits until a connection of the centre waits for a standby.
    string waitForSync()
    {
        string process;
        for (int left = 10000; process.empty() && left > 0; --left) {
            process = rows("select pid from pg_stat_activity where wait_event = 'SyncRep' and"
                           " application_name = 'fleet-hub'");
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
        EXPECT_NE(process, "") << "it does not wait";
        return process.empty() ? "0" : process;
    }
};

const char terminated[] = "terminating connection due to administrator command";

TEST_F(CentreLossTest, ConnectionThatIsLostBeforeTheCommitLeavesNothing)
{
    Device device;
    expectStored(device.add(1));
    const std::vector<Incoming> sets = {device.add(2), device.add(3)};
    for (
        const char* const when :
        {"trigger trouble before insert on data.reading",
         "constraint trigger trouble after insert on data.reading deferrable initially deferred"}) {
        makeTrigger(when, "perform pg_terminate_backend(pg_backend_pid())");
        expectFailure(sets, terminated);
        removeTrigger();
        EXPECT_EQ(readings(), "device-1|1|21.5");
        EXPECT_EQ(quarantine(), "");
    }
    EXPECT_THAT(store(sets), ElementsAre("stored", "stored"));
    EXPECT_EQ(readings(), "device-1|1|21.5\ndevice-1|2|21.5\ndevice-1|3|21.5");
    EXPECT_EQ(_centre.counts().sets, 3);
    EXPECT_EQ(_centre.counts().repeated, 0);
}

// What was committed, but not confirmed, may be at the primary alone: it is acknowledged only once a
// standby has it.
TEST_F(CentreLossTest, ConnectionThatIsLostAfterTheCommitLeavesARepetition)
{
    Device device;
    expectStored(device.add(1));
    rows("set synchronous_commit = local");
    rows("alter system set synchronous_standby_names = 'nobody'");
    rows("select pg_reload_conf()");
    // The server takes note of that a little later.
    int id = 1;
    Incoming set;
    std::thread first([&] {
        std::vector<Answer> none;
        do
            set = device.add(++id);
        while (_centre.store({set}, none));
        EXPECT_THAT(none, IsEmpty());
        EXPECT_EQ(_centre.error(), "server closed the connection unexpectedly");
    });
    rows("select pg_terminate_backend(" + waitForSync() + ")");
    first.join();
    const string all = rows("select count(*), max(id) from data.reading");
    EXPECT_EQ(all, std::to_string(id) + "|" + std::to_string(id));

    std::vector<Answer> answers;
    std::thread second([&] { EXPECT_TRUE(_centre.store({set}, answers)) << _centre.error(); });
    waitForSync();
    EXPECT_THAT(answers, IsEmpty());
    rows("alter system reset all");
    rows("select pg_reload_conf()");
    second.join();
    ASSERT_EQ(answers.size(), 1U);
    EXPECT_TRUE(answers[0].isStored);
    EXPECT_EQ(rows("select count(*), max(id) from data.reading"), all);
    EXPECT_EQ(_centre.counts().sets, id - 1);
    EXPECT_EQ(_centre.counts().repeated, 1);
}

TEST_F(CentreLossTest, WhatIsNotOfTheValuesIsTriedAgain)
{
    Device device;
    expectStored(device.add(1));
    const Incoming set = device.add(2);
    for (const char* const state :
         {"25006", "40001", "40P01", "42501", "53100", "55P03", "57014", "XX000"}) {
        makeTrigger("trigger trouble before insert on data.reading",
                    string("raise exception 'trouble' using errcode = '") + state + "'");
        expectFailure({set}, "trouble");
    }
    EXPECT_EQ(quarantine(), "");
    removeTrigger();
    expectStored(set);
    EXPECT_EQ(readings(), "device-1|1|21.5\ndevice-1|2|21.5");
}

TEST_F(CentreLossTest, ServerThatIsAwayIsTriedAgain)
{
    Device device;
    expectStored(device.add(1));
    const Incoming set = device.add(2);
    cluster().stop();
    std::vector<Answer> answers;
    EXPECT_FALSE(_centre.store({set}, answers));
    EXPECT_FALSE(_centre.isConnected());
    const string host = cluster().connection().substr(5, cluster().connection().find(' ') - 5);
    expectFailure({set}, "connection to server on socket \"" + host
                             + "/.s.PGSQL.5432\" failed: No such file or directory");
    std::vector<DeviceStatus> devices;
    std::map<string, string> values;
    std::vector<Outgoing> outgoing;
    sql::integer count = 0;
    bool isDropped = false;
    EXPECT_FALSE(_centre.status(devices));
    EXPECT_FALSE(_centre.settings("device-1", values));
    EXPECT_FALSE(_centre.setSetting("device-1", "a", "b"));
    EXPECT_FALSE(_centre.outgoing({}, outgoing));
    EXPECT_FALSE(_centre.noteApplied("device-1", {true, {1, 1}, ""}));
    EXPECT_FALSE(_centre.admit("device-1"));
    EXPECT_FALSE(_centre.retry("device-1", count));
    EXPECT_FALSE(_centre.discard("device-1", isDropped));
    cluster().start();
    expectStored(set);
    EXPECT_EQ(test::PlainSession(cluster().connection()).rows("select id from data.reading"),
              "1\n2");
}

// Commits that touch the same rows again and again.
std::vector<Incoming> commitsOf(Device& device, std::size_t count, std::minstd_rand& random)
{
    const auto any = [&random](unsigned most) {
        return std::to_string(random() % most + 1);
    };
    std::vector<Incoming> sets;
    for (std::size_t i = 0; i < count; ++i) {
        string statements = "insert into reading select coalesce(max(id), 0) + 1, 5, 'x', 0, null"
                            " from reading;";
        for (int k = 0; k < 3; ++k)
            statements += "insert or replace into event values (" + any(20) + ", " + any(1000)
                          + ", 'kind " + any(9) + "', " + any(2) + " - 1, randomblob(3));"
                          + "delete from event where id = " + any(20) + ";"
                          + "update reading set value = value + 0.1, note = id || 'n'"
                            " where id % "
                          + any(30) + " = 0;";
        sets.push_back(device.commit(statements));
    }
    return sets;
}

// What is to be delivered of some devices, and how far that has come.
class Delivery {
public:
    explicit Delivery(const std::vector<std::vector<Incoming>>& sets)
        : _sets(sets), _acknowledged(sets.size())
    {
    }

    // Stores all that others do not, in batches of any size, some sets again.
    void run(unsigned seed)
    {
        Centre centre({cluster().connection(), {}});
        std::minstd_rand random(seed);
        std::vector<std::size_t> ends(_sets.size());
        while (!isDone()) {
            std::vector<Answer> answers;
            if (centre.store(next(random, ends), answers))
                acknowledge(answers, ends);
            else
                ++failures;
        }
        stored += centre.counts().sets;
        ++ended;
    }

    std::atomic<int> ended{0};
    std::atomic<int> failures{0};
    std::atomic<sql::integer> stored{0};

private:
    bool isDone() const
    {
        bool isDone = true;
        for (std::size_t i = 0; i < _sets.size(); ++i)
            isDone = isDone && _acknowledged[i] == _sets[i].size();
        return isDone;
    }
    std::vector<Incoming> next(std::minstd_rand& random, std::vector<std::size_t>& ends) const
    {
        std::vector<Incoming> batch;
        for (std::size_t i = 0; i < _sets.size(); ++i) {
            const std::size_t begin = _acknowledged[i];
            ends[i] = std::min(begin + random() % 4, _sets[i].size());
            for (std::size_t k = begin > 0 ? begin - random() % 2 : 0; k < ends[i]; ++k)
                batch.push_back(_sets[i][k]);
        }
        return batch;
    }
    void acknowledge(const std::vector<Answer>& answers, const std::vector<std::size_t>& ends)
    {
        for (const Answer& answer : answers)
            EXPECT_TRUE(answer.isStored) << answer.reason;
        for (std::size_t i = 0; i < ends.size(); ++i) {
            std::size_t former = _acknowledged[i];
            while (former < ends[i] && !_acknowledged[i].compare_exchange_weak(former, ends[i]))
                continue;
        }
    }

    const std::vector<std::vector<Incoming>>& _sets;
    std::vector<std::atomic<std::size_t>> _acknowledged; // of each device
};

// Two centres beside each other, and connections that end at any moment: in the end PostgreSQL has what
// the devices have.
TEST_F(CentreLossTest, NothingIsLostOrStoredTwice)
{
    std::minstd_rand random(1);
    std::vector<std::unique_ptr<Device>> devices;
    std::vector<std::vector<Incoming>> sets;
    for (const char* const name : {"device-0", "device-1", "device-2", "device-3"}) {
        devices.push_back(std::make_unique<Device>(name));
        sets.push_back(commitsOf(*devices.back(), 150, random));
    }
    Delivery delivery(sets);
    std::thread one([&delivery] { delivery.run(1); });
    std::thread other([&delivery] { delivery.run(2); });
    while (delivery.ended < 2) {
        rows("select pg_terminate_backend(pid) from pg_stat_activity"
             " where application_name = 'fleet-hub' and query like '%fleet%' and random() < 0.3");
        std::this_thread::sleep_for(std::chrono::milliseconds(3));
    }
    one.join();
    other.join();

    EXPECT_GT(delivery.failures, 0);
    EXPECT_LE(delivery.stored, 600); // what was committed, but not confirmed, is counted nowhere
    EXPECT_EQ(quarantine(), "");
    EXPECT_EQ(rows("select number, count(*) from fleet.device group by 1"), "150|4");
    for (std::size_t i = 0; i < devices.size(); ++i) {
        const string those = " where device = 'device-" + std::to_string(i) + "' order by id";
        EXPECT_EQ(rows("select id, extract(epoch from at)::int, round(value * 1e6)::int, note"
                       " from data.reading"
                       + those),
                  devices[i]->rows("select id, at, cast(round(value * 1e6) as integer), note"
                                   " from reading order by id"));
        EXPECT_EQ(rows("select id, extract(epoch from at)::int, kind, serious::int,"
                       " upper(encode(detail, 'hex')) from data.event"
                       + those),
                  devices[i]->rows("select id, at, kind, serious, hex(detail) from event"
                                   " order by id"));
    }
}

// --- Settings ------------------------------------------------------------------------------------

// A device's end: an inbox, and the table behind it.
class SettingInbox {
public:
    SettingInbox()
    {
        EXPECT_TRUE(_database.open(":memory:", sql::Database::access_create, false, 0));
        test::run(_database.getHandle(), "create table setting (name text primary key not null,"
                                         " value text not null) without rowid");
        _inbox = std::make_unique<sql::Inbox>(_database, std::vector<string>{"setting"});
    }

    Answer apply(const Outgoing& set)
    {
        const auto received = _inbox->apply("centre", set.header, set.bytes);
        return {received && *received != sql::Received::kept, set.last, received.error().text()};
    }
    string settings()
    {
        return test::rows(_database.getHandle(), "select * from setting order by 1");
    }

private:
    sql::Database _database;
    std::unique_ptr<sql::Inbox> _inbox;
};

class CentreSettingTest : public CentreTest {
protected:
    void set(const string& name, const std::optional<string>& value,
             const string& device = "device-1")
    {
        EXPECT_TRUE(_centre.setSetting(device, name, value)) << _centre.error();
    }
    std::vector<Outgoing> outgoing(const std::vector<string>& devices = {})
    {
        std::vector<Outgoing> sets(1);
        EXPECT_TRUE(_centre.outgoing(devices, sets)) << _centre.error();
        return sets;
    }
    // Hands the inbox all that waits, as the hub does.
    int bring(SettingInbox& inbox)
    {
        int count = 0;
        for (std::vector<Outgoing> sets = outgoing(); !sets.empty(); sets = outgoing(), ++count) {
            EXPECT_EQ(sets.size(), 1U);
            const Answer answer = inbox.apply(sets[0]);
            EXPECT_TRUE(_centre.noteApplied("device-1", answer)) << _centre.error();
            EXPECT_LT(count, 20);
        }
        return count;
    }
    std::map<string, string> settings()
    {
        std::map<string, string> values = {{"former", "value"}};
        EXPECT_TRUE(_centre.settings("device-1", values)) << _centre.error();
        return values;
    }
};

TEST_F(CentreSettingTest, SettingsReachTheDevice)
{
    SettingInbox inbox;
    EXPECT_THAT(outgoing(), IsEmpty());
    EXPECT_THAT(settings(), IsEmpty());
    set("group", "10");
    set("keep", "7");
    set("group", "20");
    EXPECT_THAT(settings(), ElementsAre(Pair("group", "20"), Pair("keep", "7")));
    EXPECT_EQ(statusOf().waiting, 3);
    EXPECT_EQ(bring(inbox), 3);
    EXPECT_EQ(inbox.settings(), "group|20\nkeep|7");
    EXPECT_EQ(statusOf().waiting, 0);
    set("keep", std::nullopt);
    set("limit", "\xc3\xa4 '\"\\");
    EXPECT_EQ(bring(inbox), 2);
    EXPECT_EQ(inbox.settings(), "group|20\nlimit|\xc3\xa4 '\"\\");
    EXPECT_THAT(settings(), ElementsAre(Pair("group", "20"), Pair("limit", "\xc3\xa4 '\"\\")));
}

TEST_F(CentreSettingTest, SettingThatIsSoAlreadyMakesNoSet)
{
    set("group", "10");
    set("group", "10");
    set("keep", std::nullopt);
    EXPECT_EQ(statusOf().waiting, 1);
    SettingInbox inbox;
    EXPECT_EQ(bring(inbox), 1);
    set("group", "10");
    EXPECT_THAT(outgoing(), IsEmpty());
}

TEST_F(CentreSettingTest, SetsOfADeviceAreChained)
{
    set("a", "1");
    const Outgoing first = outgoing()[0];
    EXPECT_EQ(first.device, "device-1");
    EXPECT_NE(first.last.incarnation, 0);
    EXPECT_EQ(first.last.number, 1);
    ASSERT_TRUE(_centre.noteApplied("device-1", {true, first.last, ""}));
    Centre(options()).setSetting("device-1", "a", "2");
    const Outgoing second = outgoing()[0];
    EXPECT_EQ(second.last, (SyncPosition{first.last.incarnation, 2}));
    const auto envelope = sql::readEnvelope(second.header);
    ASSERT_TRUE(envelope);
    EXPECT_EQ(envelope->device, "centre");
    EXPECT_EQ(envelope->previous, first.last);
    EXPECT_EQ(envelope->dropped, SyncPosition());
    EXPECT_EQ(sql::checkChangeSet(*envelope, second.bytes).valueOr(0), 1);
    set("a", "1", "device-2");
    EXPECT_NE(outgoing({"device-2"})[0].last.incarnation, first.last.incarnation);
}

TEST_F(CentreSettingTest, OldestOfEachDeviceIsHandedOut)
{
    for (const char* const device : {"device-2", "device-1", "device-3"}) {
        set("a", "1", device);
        set("b", "1", device);
    }
    const auto read = [](const std::vector<Outgoing>& sets) {
        string text;
        for (const Outgoing& each : sets)
            text += each.device + " " + std::to_string(each.last.number) + "\n";
        return text;
    };
    EXPECT_EQ(read(outgoing()), "device-1 1\ndevice-2 1\ndevice-3 1\n");
    EXPECT_EQ(read(outgoing({"device-3", "device-1", "other"})), "device-1 1\ndevice-3 1\n");
    ASSERT_TRUE(_centre.noteApplied("device-2", {true, outgoing()[1].last, ""}));
    EXPECT_EQ(read(outgoing()), "device-1 1\ndevice-2 2\ndevice-3 1\n");
    ASSERT_TRUE(_centre.noteApplied("device-2", {true, outgoing()[1].last, ""}));
    EXPECT_EQ(read(outgoing({"device-2"})), "");
}

TEST_F(CentreSettingTest, DeviceWhoseFileWasLostGetsAllAgain)
{
    SettingInbox lost;
    set("a", "1");
    set("b", "2");
    set("a", "3");
    EXPECT_EQ(bring(lost), 3);
    set("c", "4");
    SettingInbox inbox;
    EXPECT_EQ(bring(inbox), 5); // the first of them is refused
    expectReport(report::statementFailed("apply", "apply",
                                         "12=SQLITE_NOTFOUND: the commits 1 to 3 are missing"));
    EXPECT_EQ(inbox.settings(), "a|3\nb|2\nc|4");
    EXPECT_EQ(statusOf().waiting, 0);
}

TEST_F(CentreSettingTest, AnswersToSetsOfAnotherChainAreNothing)
{
    set("a", "1");
    const SyncPosition last = outgoing()[0].last;
    EXPECT_TRUE(_centre.noteApplied("device-1", {true, {last.incarnation + 1, 1}, ""}));
    EXPECT_TRUE(_centre.noteApplied("device-1", {true, {last.incarnation, 0}, ""}));
    EXPECT_TRUE(_centre.noteApplied("device-2", {true, last, ""}));
    EXPECT_EQ(outgoing().size(), 1U);
    EXPECT_TRUE(_centre.noteApplied("device-1", {true, last, ""}));
    EXPECT_THAT(outgoing(), IsEmpty());
    EXPECT_TRUE(_centre.noteApplied("device-1", {false, {last.incarnation + 1, 1}, "x"}));
    EXPECT_THAT(outgoing(), IsEmpty());
    EXPECT_TRUE(_centre.noteApplied("device-1", {false, last, string("a\xff\0b", 4)}));
    EXPECT_EQ(outgoing().size(), 1U);
}

TEST_F(CentreSettingTest, SettingsThatAreNoTextsFailAndLeaveNothing)
{
    set("a", "1");
    for (const string& text : {string("\xff"), string("a\0b", 3)}) {
        EXPECT_FALSE(_centre.setSetting("device-1", "b", text));
        EXPECT_NE(_centre.error(), "");
        EXPECT_FALSE(_centre.setSetting("device-1", text, "1"));
        EXPECT_FALSE(_centre.setSetting(text, "b", "1"));
    }
    EXPECT_THAT(settings(), ElementsAre(Pair("a", "1")));
    EXPECT_EQ(rows("select count(*) from fleet.outgoing"), "1");
    EXPECT_EQ(rows("select count(*) from fleet.device"), "1");
    set("a", "2");
}

TEST_F(CentreSettingTest, TwoCentresChangeSettingsOfOneDevice)
{
    Centre other(options());
    const auto work = [](Centre& centre, const string& name) {
        for (int i = 1; i <= 10; ++i)
            EXPECT_TRUE(centre.setSetting("device-1", name, std::to_string(i))) << centre.error();
    };
    std::thread thread(work, std::ref(other), "a");
    work(_centre, "b");
    thread.join();
    EXPECT_EQ(rows("select count(*), max(number), count(distinct incarnation) from fleet.outgoing"),
              "20|20|1");
    SettingInbox inbox;
    EXPECT_EQ(bring(inbox), 20);
    EXPECT_EQ(inbox.settings(), "a|10\nb|10");
}

// --- What an operator does -----------------------------------------------------------------------

class CentreOperatorTest : public CentreTest {
protected:
    void admit(const string& device = "device-1")
    {
        EXPECT_TRUE(_centre.admit(device)) << _centre.error();
    }
    void expectNotAdmitted(const string& why, const string& device = "device-1")
    {
        const string query = "select * from fleet.device order by 1";
        makeSchema();
        const string before = rows(query);
        EXPECT_FALSE(_centre.admit(device));
        EXPECT_EQ(_centre.error(), why);
        EXPECT_EQ(rows(query), before);
        EXPECT_TRUE(_centre.isConnected());
    }
    sql::integer retry()
    {
        sql::integer count = -1;
        EXPECT_TRUE(_centre.retry("device-1", count)) << _centre.error();
        return count;
    }
    bool discard()
    {
        bool isDropped = false;
        EXPECT_TRUE(_centre.discard("device-1", isDropped)) << _centre.error();
        return isDropped;
    }
};

TEST_F(CentreOperatorTest, DeviceThatWasExchangedIsAdmitted)
{
    Device former;
    const Incoming first = former.add(1);
    const Incoming second = former.add(2);
    EXPECT_THAT(store({first, second}), testing::Each("stored"));
    Device device;
    const Incoming set = device.add(10);
    expectRefused(set, went_back, went_back_as);
    admit();
    EXPECT_EQ(statusOf().refused, "");
    EXPECT_EQ(statusOf().number, 0);
    EXPECT_EQ(readings(), "device-1|1|21.5\ndevice-1|2|21.5");
    expectStored(set);
    expectStored(device.add(11));
    EXPECT_EQ(readings(), "device-1|1|21.5\ndevice-1|2|21.5\ndevice-1|10|21.5\ndevice-1|11|21.5");
    EXPECT_EQ(statusOf().number, 2);
    EXPECT_EQ(statusOf().lost, 0);
    // What the former one has sent is known, and no more is taken.
    const sql::integer repeated = _centre.counts().repeated;
    EXPECT_THAT(store({first, second}), testing::Each("stored"));
    EXPECT_EQ(_centre.counts().repeated, repeated + 2);
    const char* const retired = "the device's incarnation was retired when another was admitted";
    expectRefused(former.add(3), retired, went_back_as);
    expectNotAdmitted(retired);
}

TEST_F(CentreOperatorTest, AdmittedGapIsLost)
{
    Device device;
    expectStored(device.add(1));
    const Incoming second = device.add(2);
    const Incoming third = device.add(3);
    const Incoming fourth = device.add(4);
    expectRefused(fourth, "the commits 2 to 3 are missing", missing_as);
    admit();
    EXPECT_EQ(statusOf().lost, 2);
    // They are passed over.
    EXPECT_THAT(store({second, third, fourth}), testing::Each("stored"));
    EXPECT_EQ(_centre.counts().repeated, 2);
    EXPECT_EQ(readings(), "device-1|1|21.5\ndevice-1|4|21.5");
    EXPECT_EQ(statusOf().number, 4);
}

TEST_F(CentreOperatorTest, FormerCommitsAreKnownWhenAGapIsAdmittedWithAnotherIncarnation)
{
    Device device;
    const Incoming first = device.add(1);
    const Incoming second = device.add(2);
    EXPECT_THAT(store({first, second}), testing::Each("stored"));
    const SyncPosition last = envelopeOf(second).last;
    Device restored;
    const Incoming set = changed(restored.add(9), [&last](sql::Envelope& envelope) {
        envelope.previous = {last.incarnation, 5};
        envelope.last.number = 6;
    });
    expectRefused(set, "the commits 3 to 5 are missing", missing_as);
    admit();
    expectStored(set);
    EXPECT_EQ(rows("select incarnation = " + std::to_string(last.incarnation)
                   + ", first, last, retired from fleet.incarnation order by first"),
              "t|1|5|t\nf|6|6|f");
    EXPECT_EQ(statusOf().lost, 3);
    EXPECT_THAT(store({first, second}), testing::Each("stored"));
    EXPECT_EQ(_centre.counts().repeated, 2);
}

TEST_F(CentreOperatorTest, WhatWasNotRefusedIsNotAdmitted)
{
    expectNotAdmitted("no set of 'device-1' was refused");
    Device device;
    const Incoming set = device.add(1);
    expectStored(set);
    expectNotAdmitted("no set of 'device-1' was refused");
    std::vector<Answer> answers;
    ASSERT_TRUE(_centre.store({{"device-1", "x", "y"}}, answers));
    expectReport(
        report::statementFailed("readEnvelope", "readEnvelope",
                                "11=SQLITE_CORRUPT: the bytes are no header of a change set"));
    expectNotAdmitted("the bytes are no header of a change set");
    expectReport(
        report::statementFailed("readEnvelope", "readEnvelope",
                                "11=SQLITE_CORRUPT: the bytes are no header of a change set"));
    ASSERT_TRUE(_centre.store({{"device-2", set.header, set.bytes}}, answers));
    expectNotAdmitted("the change set is of device 'device-1'", "device-2");
    // Another hub has stored it meanwhile.
    rows("update fleet.device set refused = 'x', refused_header = (select refused_header"
         " from fleet.device where device = 'device-2') where device = 'device-1'");
    expectNotAdmitted("the change set has come before");
}

TEST_F(CentreOperatorTest, QuarantineIsStoredOnceItCanBe)
{
    Device device;
    rows("select 1");
    expectStored(device.add(1));
    rows("insert into data.reading (device, id) values ('device-1', 2), ('device-1', 4)");
    const std::vector<Incoming> sets = {
        device.add(2), device.commit("update reading set value = 3 where id = 2"),
        device.commit("insert into reading values (4, 0, 'x', 1, null), (5, 0, 'x', 1, null)")};
    EXPECT_THAT(store(sets), testing::Each("stored"));
    EXPECT_EQ(statusOf().quarantined, 3);
    EXPECT_EQ(retry(), 0);
    EXPECT_EQ(statusOf().quarantined, 3);
    rows("delete from data.reading where id = 2");
    EXPECT_EQ(retry(), 2);
    EXPECT_EQ(readings(), "device-1|1|21.5\ndevice-1|2|3\ndevice-1|4|NULL");
    EXPECT_EQ(quarantine(),
              "device-1|4|table 'reading', insert: there is a row with this key here");
    EXPECT_EQ(statusOf().rows, 3);
    EXPECT_EQ(statusOf().number, 4);
    rows("delete from data.reading where id = 4");
    EXPECT_EQ(retry(), 1);
    EXPECT_EQ(readings(), "device-1|1|21.5\ndevice-1|2|3\ndevice-1|4|1\ndevice-1|5|1");
    EXPECT_EQ(statusOf().rows, 5);
    EXPECT_EQ(statusOf().reason, "");
    EXPECT_EQ(retry(), 0);
    EXPECT_EQ(_centre.counts().repeated, 0);
    EXPECT_THAT(store(sets), testing::Each("stored"));
    EXPECT_EQ(_centre.counts().repeated, 3);
}

TEST_F(CentreOperatorTest, LaterReasonReplacesTheFormer)
{
    Device device;
    expectStored(device.add(1));
    rows("update data.reading set value = 1");
    expectQuarantined(device.commit("update reading set value = 2"),
                      "table 'reading', update: the row has other values here");
    rows("delete from data.reading");
    EXPECT_EQ(retry(), 0);
    EXPECT_EQ(statusOf().reason, "table 'reading', update: there is no such row here");
}

TEST_F(CentreOperatorTest, TableThatCanBeMadeAtLastIsMadeForARetry)
{
    Device device;
    makeSchema();
    rows("create view data.reading as select 1");
    expectQuarantined(device.add(1), "table 'reading': it has another key at the centre");
    EXPECT_EQ(retry(), 0);
    rows("drop view data.reading");
    EXPECT_EQ(retry(), 1);
    EXPECT_EQ(readings(), "device-1|1|21.5");
}

TEST_F(CentreOperatorTest, OldestOfTheQuarantineIsDropped)
{
    makeSchema();
    EXPECT_FALSE(discard());
    Device device;
    Device other("device-2");
    expectStored(device.add(1));
    rows("insert into data.reading (device, id) select d, i from unnest(array['device-1',"
         " 'device-2']) d, generate_series(2, 3) i");
    EXPECT_THAT(store({other.add(2), device.add(2), device.add(3)}), testing::Each("stored"));
    EXPECT_TRUE(discard());
    const string why = "table 'reading', insert: there is a row with this key here";
    EXPECT_EQ(quarantine(), "device-2|1|" + why + "\ndevice-1|3|" + why);
    EXPECT_TRUE(discard());
    EXPECT_FALSE(discard());
    EXPECT_EQ(quarantine(), "device-2|1|" + why);
    EXPECT_EQ(statusOf().quarantined, 0);
    EXPECT_EQ(statusOf("device-2").quarantined, 1);
}

TEST_F(CentreOperatorTest, StatusTellsOfAllDevicesByName)
{
    Device b("device-b");
    Device a("device-a");
    EXPECT_THAT(store({b.add(1), a.add(1), b.add(2)}), testing::Each("stored"));
    EXPECT_TRUE(_centre.setSetting("device-c", "a", "1"));
    rows("update fleet.device set stored_at = now() - interval '1 hour' where device = 'device-a'");
    std::vector<DeviceStatus> devices(1);
    EXPECT_TRUE(_centre.status(devices));
    ASSERT_EQ(devices.size(), 3U);
    EXPECT_EQ(devices[0].device, "device-a");
    EXPECT_NEAR(devices[0].secondsBehind, 3600, 60);
    EXPECT_EQ(devices[1].device, "device-b");
    EXPECT_EQ(devices[1].number, 2);
    EXPECT_EQ(devices[2].device, "device-c");
    EXPECT_EQ(devices[2].number, 0);
    EXPECT_EQ(devices[2].waiting, 1);
    EXPECT_EQ(devices[2].secondsBehind, -1);
}

} // namespace
