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
#include <chrono>
#include <cstdio>
#include <functional>
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
[[maybe_unused]] Incoming changed(Incoming set, const std::function<void(sql::Envelope&)>& change)
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
            const auto envelope = sql::readEnvelope(sets[i].header);
            const SyncPosition last = envelope ? envelope->last : SyncPosition();
            EXPECT_EQ(answers[i].last, last);
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

} // namespace
