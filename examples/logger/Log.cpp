#include "Log.h"

#include "SqlLiteral.h"
#include "SqlMigration.h"
#include "SqlSettings.h"
#include "SqlStatement.h"
#include "SqlTransaction.h"
#include "SqlTypedTable.h"

namespace {

constexpr std::chrono::seconds patience(2);

using Days = std::chrono::duration<int, std::ratio<86400>>;

// They stay as they are: files of each version are out in the field.
constexpr sql::MigrationStep steps[] = {
    {1, R"(
create table reading (
    id integer primary key not null,
    at integer not null,
    sensor text not null,
    value real not null);
create index reading_at on reading (at))"},
    {2, R"(
alter table reading add column note text;
create table day (
    date text not null,
    sensor text not null,
    count integer not null,
    least real not null,
    mean real not null,
    most real not null,
    primary key (date, sensor)) without rowid)"},
};

// What readings come to, by day and sensor; a condition may follow.
const std::string summary =
    "select date(at, 'unixepoch') as date, sensor, count(*) as count, min(value) as least,"
    " avg(value) as mean, max(value) as most from reading";
const std::string by_day = " group by 1, 2";

// Readings of a day that was summed up may still come.
const std::string keeping =
    "insert into day " + summary + " where at < ?" + by_day
    + " on conflict do update set least = min(least, excluded.least),"
      " mean = (count * mean + excluded.count * excluded.mean) / (count + excluded.count),"
      " most = max(most, excluded.most), count = count + excluded.count";

const std::string all_days = "select date, sensor, sum(count) as count, min(least) as least,"
                             " sum(count * mean) / sum(count) as mean, max(most) as most"
                             " from (select * from day union all "
                             + summary + by_day
                             + ")"
                               " group by date, sensor order by date, sensor";

} // namespace

bool Log::open(const std::string& file, sql::Database::AccessMode mode)
{
    _file = file;
    if (!_database.open(file, mode, false, 0))
        return fail("open", sql::lastError(_database));

    sql::Settings settings;
    settings.busyTimeout = patience;
    settings.tempStore = sql::temp_store_memory;
    settings.journalMode = sql::journal_wal;
    settings.synchronous = sql::synchronous_full;
    const sql::Result<bool> applied = settings.apply(_database);
    if (!applied)
        return fail("set up", applied.error());
    const sql::Result<int> version = sql::migrate(_database, steps, patience);
    return version || fail("bring up to date", version.error());
}

bool Log::add(const std::vector<Reading>& readings)
{
    sql::TypedTable table(_database, reading_mapping);
    return table.add(readings.begin(), readings.end()) || fail("store readings", table.error());
}

bool Log::tidy(int days, sql::integer& removed)
{
    sql::Statement latest(_database, "select max(at) from reading");
    const auto at = latest.one<std::optional<TimePoint>>();
    if (!at)
        return fail("tidy up", at.error());
    removed = 0;
    return !*at || tidy(midnightOf(**at) - (days - 1) * whole_day, removed);
}

bool Log::tidy(TimePoint before, sql::integer& removed)
{
    sql::Transaction transaction(_database, sql::begin_immediate, patience);
    if (!transaction.isOpen())
        return fail("tidy up", transaction.error());
    sql::Statement keep(_database, keeping);
    if (!keep.run(before))
        return fail("tidy up", keep.error());
    sql::Statement remove(_database, "delete from reading where at < ?");
    if (!remove.run(before))
        return fail("tidy up", remove.error());
    removed = remove.changes();
    return transaction.commit() || fail("tidy up", transaction.error());
}

bool Log::days(std::vector<Day>& days)
{
    auto rows = sql::query<Day>(_database, day_mapping, all_days);
    for (const Day& day : rows)
        days.push_back(day);
    return rows.finished() || fail("read the days", rows.error());
}

bool Log::means(const std::string& sensor, TimePoint midnight, int minutes,
                std::vector<Mean>& means)
{
    auto rows = sql::query<Mean>(
        _database, mean_mapping,
        "select (at - ?1) / 60 / ?2 * ?2 as minute, avg(value) as value from reading"
        " where at >= ?1 and at < ?1 + 86400 and sensor = ?3 group by 1 order by 1",
        midnight, minutes, sensor);
    for (const Mean& mean : rows)
        means.push_back(mean);
    return rows.finished() || fail("read the readings", rows.error());
}

TimePoint midnightOf(TimePoint time)
{
    const auto sinceEpoch = std::chrono::floor<std::chrono::seconds>(time.time_since_epoch());
    return TimePoint(std::chrono::floor<Days>(sinceEpoch));
}

sql::Database& Log::database()
{
    return _database;
}

const std::string& Log::error() const
{
    return _error;
}

bool Log::fail(const std::string& what, const sql::Error& error)
{
    _error = _file + ": cannot " + what + ": " + error.text();
    return false;
}
