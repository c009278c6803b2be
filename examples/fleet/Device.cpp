#include "Device.h"

#include "Log.h"

#include "SqlMigration.h"
#include "SqlSettings.h"
#include "SqlStatement.h"
#include "SqlTypedTable.h"

#include <algorithm>
#include <charconv>
#include <iostream>

namespace {

constexpr std::chrono::seconds patience(2);
constexpr std::size_t most_waiting = 10000; // readings
// Who sends settings.
constexpr const char* centre = "centre";

// They stay as they are: files of each version are out in the field. A key is never given twice, since
// the centre keeps rows that are removed here.
constexpr sql::MigrationStep steps[] = {
    {1, R"(
create table reading (
    id integer primary key autoincrement not null,
    at timestamp not null,
    sensor text not null,
    value real not null,
    note text);
create index reading_at on reading (at);
create table event (
    id integer primary key autoincrement not null,
    at timestamp not null,
    kind text not null,
    serious boolean not null,
    detail text);
create table setting (name text primary key not null, value text not null) without rowid)"},
};

TimePoint now()
{
    return std::chrono::system_clock::now();
}

} // namespace

bool Device::open(const DeviceOptions& options)
{
    _options = options;
    if (!_database.open(options.file, sql::Database::access_create, false, 0))
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
    if (!version)
        return fail("bring up to date", version.error());

    _inbox = std::make_unique<sql::Inbox>(_database, std::vector<std::string>{"setting"}, patience);
    if (!_inbox->isOpen())
        return fail("take settings", _inbox->error());
    // Last, since the inbox makes tables of its own: a change of the schema ends the recording.
    _recorder = std::make_unique<sql::Recorder>(
        _database, std::vector<std::string>{"reading", "event"}, options.outbox);
    if (!_recorder->isRecording())
        return fail("record", _recorder->error());
    _outbox = std::make_unique<sql::Outbox>(_database, options.name);
    obey();
    return true;
}

// --- Readings ------------------------------------------------------------------------------------

void Device::take(const Reading& reading)
{
    if (_waiting.empty())
        _since = std::chrono::steady_clock::now();
    if (_waiting.size() == most_waiting)
        ++_lost;
    else
        _waiting.push_back(reading);
    if (_waiting.size() % static_cast<std::size_t>(_options.group) == 0)
        flush(); // after a failure again with the next group
}

std::optional<std::chrono::milliseconds> Device::due() const
{
    using std::chrono::milliseconds;
    if (_waiting.empty())
        return std::nullopt;
    const auto left = _since + std::chrono::seconds(_options.within)
                      - std::chrono::steady_clock::now();
    return std::max(std::chrono::ceil<milliseconds>(left), milliseconds(0));
}

void Device::flush()
{
    if (_waiting.empty())
        return;
    if (!store()) {
        _since = std::chrono::steady_clock::now(); // to try again
        return;
    }
    _stored += static_cast<sql::integer>(_waiting.size());
    _waiting.clear();
    _complaint.clear();
}

bool Device::store()
{
    sql::RecordedTransaction transaction(*_recorder, patience);
    if (!transaction.isOpen())
        return fail("store readings", transaction.error());
    sql::TypedTable readings(_database, reading_mapping);
    if (!readings.add(_waiting.begin(), _waiting.end()))
        return fail("store readings", readings.error());
    if (_lost > _told && !storeEvent("lost", true, std::to_string(_lost - _told) + " readings"))
        return false;
    if (!transaction.commit())
        return fail("store readings", transaction.error());
    _told = _lost;
    return true;
}

bool Device::storeEvent(const std::string& kind, bool isSerious, const std::string& detail)
{
    sql::Statement add(_database, "insert into event (at, kind, serious, detail)"
                                  " values (?, ?, ?, ?)");
    return add.run(now(), kind, isSerious, detail) || fail("store an event", add.error());
}

sql::Outbox& Device::outbox()
{
    return *_outbox;
}

void Device::tidy()
{
    const TimePoint before = midnightOf(now()) - (_options.keep - 1) * whole_day;
    if (_options.keep > 0 && before != _tidied && removeBefore(before))
        _tidied = before;
}

bool Device::removeBefore(TimePoint time)
{
    sql::RecordedTransaction transaction(*_recorder, patience);
    if (!transaction.isOpen())
        return fail("tidy up", transaction.error());
    sql::Statement remove(_database, "delete from reading where at < ?");
    if (!remove.run(time))
        return fail("tidy up", remove.error());
    return transaction.commit() || fail("tidy up", transaction.error());
}

sql::integer Device::stored() const
{
    return _stored;
}

sql::integer Device::lost() const
{
    return _lost + static_cast<sql::integer>(_waiting.size());
}

// --- Settings ------------------------------------------------------------------------------------

Answer Device::apply(std::string_view header, std::string_view bytes)
{
    Answer answer;
    const auto envelope = sql::readEnvelope(header);
    if (envelope)
        answer.last = envelope->last;
    const auto received = _inbox->apply(centre, header, bytes);
    answer.isStored = received && *received != sql::Received::kept;
    if (!received)
        answer.reason = received.error().text();
    else if (!answer.isStored)
        answer.reason = "it conflicts";
    obey();
    return answer;
}

void Device::obey()
{
    obey("group", _options.group);
    obey("within", _options.within);
    obey("keep", _options.keep);
    _options.group = std::max(_options.group, 1);
}

// What is no number changes nothing.
void Device::obey(const char* name, int& value)
{
    sql::Statement find(_database, "select value from setting where name = ?");
    const auto found = find.one<std::string>(name);
    if (!found)
        return;
    int number = 0;
    const char* const end = found->data() + found->size();
    const auto read = std::from_chars(found->data(), end, number);
    if (read.ec == std::errc() && read.ptr == end && number >= 0 && number <= 1000000)
        value = number;
    else
        complain("the setting " + std::string(name) + " is no number: " + *found);
}

// --- Complaints ----------------------------------------------------------------------------------

void Device::complain(const std::string& text)
{
    if (text != _complaint)
        std::cerr << "fleet-device: " << text << std::endl;
    _complaint = text;
}

bool Device::fail(const std::string& what, const sql::Error& error)
{
    complain(_options.file + ": cannot " + what + ": " + error.text());
    return false;
}
