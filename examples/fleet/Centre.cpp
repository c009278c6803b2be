#include "Centre.h"

#include "CentreTables.h"
#include "SettingSet.h"

#include <algorithm>
#include <set>

namespace {

constexpr const char* make_schema = R"(
create schema if not exists data;
create schema if not exists fleet;
create table if not exists fleet.device (
    device text collate "C" primary key,
    incarnation bigint not null default 0,
    number bigint not null default 0,
    checksum bigint not null default 0,
    lost bigint not null default 0,
    rows bigint not null default 0,
    stored_at timestamptz,
    refused text,
    refused_header bytea);
create table if not exists fleet.incarnation (
    device text,
    incarnation bigint,
    first bigint not null,
    last bigint not null,
    retired boolean not null default false,
    primary key (device, incarnation));
create table if not exists fleet.quarantine (
    id bigint generated always as identity primary key,
    device text not null,
    number bigint not null,
    header bytea not null,
    bytes bytea not null,
    reason text not null,
    at timestamptz not null default now());
create index if not exists quarantine_device on fleet.quarantine (device, id);
create table if not exists fleet.setting (
    device text,
    name text,
    value text not null,
    primary key (device, name));
create table if not exists fleet.outgoing (
    device text,
    number bigint,
    incarnation bigint not null,
    header bytea not null,
    bytes bytea not null,
    at timestamptz not null default now(),
    applied_at timestamptz,
    refused text,
    primary key (device, number));
create index if not exists outgoing_waiting on fleet.outgoing (device, number)
    where applied_at is null)";

// Commits of one incarnation that have come, or were passed over.
struct Line {
    sql::integer first = 0;
    sql::integer last = 0;
    bool isRetired = false;
};

// How far a device has come.
struct Mark {
    sql::SyncPosition position;
    sql::integer checksum = 0;
    sql::integer lost = 0;
    std::map<sql::integer, Line> lines; // those that sets are of
    sql::integer rows = 0;              // that come with these sets
    bool isMoved = false;
    bool isStored = false;   // sets of it were, or are in quarantine
    bool wasRefused = false; // its latest set before these
    std::string refused;     // why the latest set was
    std::string refusedHeader;

    sql::SyncMark standOf(const sql::Envelope& envelope) const;
    void note(const sql::SyncPosition& last);
};

// A set on its way.
struct Work {
    const Incoming* incoming = nullptr;
    sql::Envelope envelope;
    std::vector<std::string> whyNotTables; // cannot be written, by table of the envelope
    Answer answer;
    sql::integer rows = 0; // that it has changed
    enum { refused, repeated, stored, quarantined } fate = refused;
    bool isSound = false; // may be looked at further
    bool isNamed = false; // the device's name is one
};

void refuse(Work& work, const std::string& reason)
{
    work.answer = {false, work.envelope.last, reason};
}

// As far as a set has to do with it.
sql::SyncMark Mark::standOf(const sql::Envelope& envelope) const
{
    sql::SyncMark stand;
    stand.position = position;
    stand.checksum = checksum;
    const auto line = lines.find(envelope.last.incarnation);
    if (line != lines.end()) {
        stand.isRetired = line->second.isRetired;
        stand.isKnown = line->second.first <= envelope.last.number
                        && envelope.last.number <= line->second.last;
    }
    return stand;
}

// The commits behind the position have come, or are passed over.
void Mark::note(const sql::SyncPosition& last)
{
    const sql::integer first = position.number + 1;
    const auto [found, isNew] = lines.emplace(last.incarnation, Line());
    Line& line = found->second;
    line.first = isNew ? first : std::min(line.first, first);
    line.last = std::max(line.last, last.number);
}

bool changesOne(const Rows& result)
{
    return result.changed() == 1;
}

} // namespace

struct Centre::Core {
    CentreOptions options;
    Postgres postgres;
    CentreTables tables;
    std::map<std::string, Mark> marks;
    CentreCounts counts;
    std::string error;

    bool fail();
    bool fail(const std::string& why);
    bool undo();
    bool undo(const std::string& why);
    bool connect();
    bool commit();

    bool makeTables(std::vector<Work>& works);
    bool begin(const std::vector<std::string>& devices, const std::vector<Work>& works);
    void takeMarks(const std::vector<Rows>& results);
    bool isTurn(Work& work);
    void pass(Work& work, bool isStored);
    bool send(Work& work, std::string& why);
    bool explain(const Work& work, const std::vector<Rows>& results, const std::string& failure,
                 std::string& why);
    bool write(Work& work, std::string& why);
    bool takeAll(std::vector<Work>& works, bool& isDone);
    bool takeEach(std::vector<Work>& works);
    bool isKept(const sql::ChangeReader& change) const;
    bool keepRaw(const Work& work, const std::string& why);
    void sendMarks();
    void sendRefusal(const std::string& device, const Mark& mark);
    void count(const Work& work);
    bool storeOnce(std::vector<Work>& works, const std::vector<std::string>& devices,
                   bool isCareful, bool& isDone);

    bool readSettings(const std::string& device, std::map<std::string, std::string>& settings,
                      sql::SyncPosition& position);
    void sendSetting(const std::string& device, const std::string& name,
                     const std::optional<std::string>& value, const Outgoing& set);
    bool admit(const sql::Envelope& envelope);
    bool retryOne(long long id, Work& work, sql::integer& count);
};

// --- Connection ----------------------------------------------------------------------------------

Centre::Centre(const CentreOptions& options) : _core(new Core())
{
    _core->options = options;
}

Centre::~Centre() = default;

CentreCounts Centre::counts() const
{
    return _core->counts;
}

bool Centre::isConnected() const
{
    return _core->postgres.isConnected();
}

const std::string& Centre::error() const
{
    return _core->error;
}

bool Centre::Core::fail(const std::string& why)
{
    error = why;
    return false;
}

bool Centre::Core::fail()
{
    return fail(postgres.error());
}

// A failure within a transaction. A connection may have failed as one to a server that is no longer
// the one to write to.
bool Centre::Core::undo()
{
    fail();
    tables.forget();
    if (!postgres.isOfValues() || !postgres.run("rollback"))
        postgres.disconnect();
    return false;
}

bool Centre::Core::undo(const std::string& why)
{
    return postgres.run("rollback") ? fail(why) : fail();
}

bool Centre::Core::connect()
{
    if (postgres.isConnected())
        return true;
    tables.forget();
    std::vector<Rows> results;
    if (!postgres.connect(options.connection)
        || !postgres.run("select to_regclass('fleet.outgoing_waiting') is not null", Parameters(),
                         results))
        return fail();
    if (results[0].text(0, 0) == "t")
        return true;
    // One hub at a time makes them.
    if (!postgres.run("begin") || !postgres.run("select pg_advisory_xact_lock(7013)"))
        return undo();
    return (postgres.runScript(make_schema) && postgres.run("commit")) || undo();
}

bool Centre::Core::commit()
{
    return postgres.run("commit") || undo();
}

// --- Sets ----------------------------------------------------------------------------------------

namespace {

// What is wrong with the set, its answer tells.
void read(const Incoming& incoming, Work& work)
{
    work.incoming = &incoming;
    work.isNamed = !incoming.device.empty() && whyNotText(incoming.device) == nullptr;
    const auto envelope = sql::readEnvelope(incoming.header);
    if (!envelope)
        return refuse(work, envelope.error().text());
    work.envelope = *envelope;
    if (work.envelope.device != incoming.device)
        return refuse(work, "the change set is of device '" + work.envelope.device + "'");
    const auto count = sql::checkChangeSet(work.envelope, incoming.bytes);
    if (!count)
        return refuse(work, count.error().text());
    work.isSound = true;
}

std::vector<std::string> devicesOf(const std::vector<Work>& works)
{
    std::set<std::string> devices;
    for (const Work& work : works) {
        if (work.isNamed)
            devices.insert(work.incoming->device);
    }
    return {devices.begin(), devices.end()};
}

} // namespace

bool Centre::Core::makeTables(std::vector<Work>& works)
{
    for (Work& work : works) {
        if (work.isSound && !tables.make(postgres, work.envelope.tables, work.whyNotTables))
            return undo();
    }
    return true;
}

bool Centre::Core::begin(const std::vector<std::string>& devices, const std::vector<Work>& works)
{
    std::vector<std::string> ofLines;
    std::vector<long long> incarnations;
    for (const Work& work : works) {
        if (!work.isSound)
            continue;
        ofLines.push_back(work.envelope.device);
        incarnations.push_back(work.envelope.last.incarnation);
    }
    marks.clear();
    postgres.send("begin isolation level read committed");
    postgres.send(
        "insert into fleet.device (device) select unnest($1::text[]) on conflict do nothing",
        Parameters().addTexts(devices));
    // In their order: two hubs that wait for each other would wait for ever.
    postgres.send("select device, incarnation, number, checksum, lost, refused is not null"
                  " from fleet.device"
                  " where device = any ($1) order by device for update",
                  Parameters().addTexts(devices));
    postgres.send("select distinct device, incarnation, first, last, retired from fleet.incarnation"
                  " join unnest($1::text[], $2::bigint[]) as wanted (device, incarnation)"
                  " using (device, incarnation)",
                  Parameters().addTexts(ofLines).addNumbers(incarnations));
    // Constraints of an operator's: no set is to fail at the commit, with all others.
    postgres.send("set constraints all immediate");
    std::vector<Rows> results;
    if (!postgres.finish(results))
        return undo();
    takeMarks(results);
    return true;
}

void Centre::Core::takeMarks(const std::vector<Rows>& results)
{
    const Rows& devices = results[2];
    for (int row = 0; row < devices.count(); ++row) {
        Mark& mark = marks[devices.text(row, 0)];
        mark.position = {devices.number(row, 1), devices.number(row, 2)};
        mark.checksum = devices.number(row, 3);
        mark.lost = devices.number(row, 4);
        mark.wasRefused = devices.text(row, 5) == "t";
    }
    const Rows& lines = results[3];
    for (int row = 0; row < lines.count(); ++row)
        marks[lines.text(row, 0)].lines[lines.number(row, 1)] = {
            lines.number(row, 2), lines.number(row, 3), lines.text(row, 4) == "t"};
}

bool Centre::Core::isTurn(Work& work)
{
    if (!work.isNamed)
        return false;
    Mark& mark = marks[work.incoming->device];
    bool isDue = false;
    if (work.isSound) {
        const auto isNext = sql::isNext(work.envelope, mark.standOf(work.envelope));
        isDue = isNext && *isNext;
        work.fate = isNext ? Work::repeated : Work::refused;
        work.answer = {static_cast<bool>(isNext), work.envelope.last, isNext.error().text()};
    }
    mark.refused = work.answer.reason;
    mark.refusedHeader = work.incoming->header;
    return isDue;
}

void Centre::Core::pass(Work& work, bool isStored)
{
    work.fate = isStored ? Work::stored : Work::quarantined;
    const sql::Envelope& envelope = work.envelope;
    Mark& mark = marks[envelope.device];
    mark.note(envelope.last);
    mark.lost += envelope.previous.number - mark.position.number;
    mark.position = envelope.last;
    mark.checksum = static_cast<sql::integer>(envelope.checksum);
    mark.rows += isStored ? work.rows : 0;
    mark.isMoved = true;
    mark.isStored = true;
}

void Centre::Core::sendRefusal(const std::string& device, const Mark& mark)
{
    Parameters refusal;
    refusal.addText(device);
    if (mark.refused.empty())
        refusal.addNull(type_text).addNull(type_bytea);
    else
        refusal.addText(readable(mark.refused)).addBytes(mark.refusedHeader);
    postgres.send("update fleet.device set refused = $2, refused_header = $3 where device = $1",
                  refusal);
}

void Centre::Core::sendMarks()
{
    for (const auto& [device, mark] : marks) {
        if (mark.wasRefused || !mark.refused.empty())
            sendRefusal(device, mark);
        if (!mark.isMoved)
            continue;
        postgres.send("update fleet.device set incarnation = $2, number = $3, checksum = $4,"
                      " lost = $5, rows = rows + $6,"
                      " stored_at = case when $7 then clock_timestamp() else stored_at end"
                      " where device = $1",
                      Parameters()
                          .addText(device)
                          .addNumber(mark.position.incarnation)
                          .addNumber(mark.position.number)
                          .addNumber(mark.checksum)
                          .addNumber(mark.lost)
                          .addNumber(mark.rows)
                          .addBoolean(mark.isStored));
        for (const auto& [incarnation, line] : mark.lines)
            postgres.send("insert into fleet.incarnation as line (device, incarnation, first, last)"
                          " values ($1, $2, $3, $4) on conflict (device, incarnation) do update"
                          " set first = least(line.first, excluded.first),"
                          " last = greatest(line.last, excluded.last)",
                          Parameters()
                              .addText(device)
                              .addNumber(incarnation)
                              .addNumber(line.first)
                              .addNumber(line.last));
    }
}

// --- Rows ----------------------------------------------------------------------------------------

// Rows that a device has no room for any more stay here.
bool Centre::Core::isKept(const sql::ChangeReader& change) const
{
    const std::vector<std::string>& keep = options.keep;
    return change.kind() == sql::change_delete
           && std::find(keep.begin(), keep.end(), change.table().name) != keep.end();
}

// Sends what makes the set's changes, and counts them. False at one that cannot be sent.
bool Centre::Core::send(Work& work, std::string& why)
{
    work.rows = 0;
    sql::ChangeReader change(work.envelope, work.incoming->bytes);
    while (change.next()) {
        if (isKept(change))
            continue;
        why = work.whyNotTables[&change.table() - work.envelope.tables.data()];
        if (!why.empty())
            return false;
        if (!sendChange(postgres, work.envelope.device, change, why))
            return why = reasonOf(change, why), false;
        ++work.rows;
    }
    return true;
}

// Finds the first change whose statement has failed, or has changed nothing. Asked once they are undone.
bool Centre::Core::explain(const Work& work, const std::vector<Rows>& results,
                           const std::string& failure, std::string& why)
{
    sql::ChangeReader change(work.envelope, work.incoming->bytes);
    for (std::size_t i = 0; change.next();) {
        if (isKept(change))
            continue;
        if (i == results.size())
            return why = reasonOf(change, failure), true;
        if (results[i++].changed() == 1)
            continue;
        const bool isTold = whyNotChanged(postgres, work.envelope.device, change, why);
        why = reasonOf(change, why);
        return isTold || undo();
    }
    return true;
}

// Makes the changes of one set: all or, with a reason, none.
bool Centre::Core::write(Work& work, std::string& why)
{
    if (!postgres.run("savepoint one"))
        return undo();
    std::vector<Rows> results;
    const bool isSent = send(work, why);
    const bool isRun = postgres.finish(results);
    if (!isRun && !postgres.isOfValues())
        return undo();
    const std::string failure = postgres.error();
    const bool isWhole = isSent && isRun && std::all_of(results.begin(), results.end(), changesOne);
    if (!isWhole && !postgres.run("rollback to savepoint one"))
        return undo();
    if (!isWhole && isSent && !explain(work, results, failure, why))
        return false;
    return postgres.run("release savepoint one") || undo();
}

bool Centre::Core::keepRaw(const Work& work, const std::string& why)
{
    return postgres.run("insert into fleet.quarantine (device, number, header, bytes, reason)"
                        " values ($1, $2, $3, $4, $5)",
                        Parameters()
                            .addText(work.envelope.device)
                            .addNumber(work.envelope.last.number)
                            .addBytes(work.incoming->header)
                            .addBytes(work.incoming->bytes)
                            .addText(readable(why)))
           || undo();
}

// --- Storing -------------------------------------------------------------------------------------

// As if nothing could go wrong with any; not done if something has.
bool Centre::Core::takeAll(std::vector<Work>& works, bool& isDone)
{
    isDone = true;
    std::string why;
    for (Work& work : works) {
        if (!isDone || !isTurn(work))
            continue;
        isDone = send(work, why);
        pass(work, true);
    }
    std::vector<Rows> results;
    const bool isRun = postgres.finish(results);
    if (!isRun && !postgres.isOfValues())
        return undo();
    if (!isRun && postgres.isOfTables())
        tables.forget();
    isDone = isDone && isRun && std::all_of(results.begin(), results.end(), changesOne);
    return isDone || postgres.run("rollback") || fail();
}

bool Centre::Core::takeEach(std::vector<Work>& works)
{
    for (Work& work : works) {
        std::string why;
        if (!isTurn(work))
            continue;
        if (!write(work, why) || (!why.empty() && !keepRaw(work, why)))
            return false;
        pass(work, why.empty());
    }
    return true;
}

bool Centre::Core::storeOnce(std::vector<Work>& works, const std::vector<std::string>& devices,
                             bool isCareful, bool& isDone)
{
    isDone = true;
    if (!makeTables(works) || !begin(devices, works)
        || !(isCareful ? takeEach(works) : takeAll(works, isDone)))
        return false;
    if (!isDone)
        return true;
    sendMarks();
    return postgres.finish() ? commit() : undo();
}

void Centre::Core::count(const Work& work)
{
    switch (work.fate) {
    case Work::stored:
        ++counts.sets;
        counts.rows += work.rows;
        break;
    case Work::quarantined:
        ++counts.quarantined;
        break;
    case Work::repeated:
        ++counts.repeated;
        break;
    case Work::refused:
        ++counts.refused;
    }
}

bool Centre::store(const std::vector<Incoming>& sets, std::vector<Answer>& answers)
{
    answers.clear();
    std::vector<Work> works(sets.size());
    for (std::size_t i = 0; i < sets.size(); ++i)
        read(sets[i], works[i]);
    const std::vector<std::string> devices = devicesOf(works);
    bool isDone = devices.empty();
    if (!isDone && !_core->connect())
        return false;
    _core->tables.forgetRefused();
    for (const bool isCareful : {false, true}) {
        if (!isDone && !_core->storeOnce(works, devices, isCareful, isDone))
            return false;
    }
    for (const Work& work : works) {
        _core->count(work);
        answers.push_back(work.answer);
    }
    return true;
}

// --- Settings ------------------------------------------------------------------------------------

bool Centre::setSetting(const std::string& device, const std::string& name,
                        const std::optional<std::string>& value)
{
    if (!_core->connect())
        return false;
    if (!_core->begin({device}, {}))
        return false;
    std::map<std::string, std::string> settings;
    sql::SyncPosition position;
    if (!_core->readSettings(device, settings, position))
        return false;
    Outgoing set;
    std::string why;
    if (!makeSettingSet(settings, name, value, position, set, why))
        return _core->undo(why);
    if (!set.bytes.empty())
        _core->sendSetting(device, name, value, set);
    return _core->postgres.finish() ? _core->commit() : _core->undo();
}

bool Centre::Core::readSettings(const std::string& device,
                                std::map<std::string, std::string>& settings,
                                sql::SyncPosition& position)
{
    postgres.send("select name, value from fleet.setting where device = $1",
                  Parameters().addText(device));
    postgres.send("select incarnation, number from fleet.outgoing where device = $1"
                  " order by number desc limit 1",
                  Parameters().addText(device));
    std::vector<Rows> results;
    if (!postgres.finish(results))
        return undo();
    for (int row = 0; row < results[0].count(); ++row)
        settings[results[0].text(row, 0)] = results[0].text(row, 1);
    if (results[1].count() > 0)
        position = {results[1].number(0, 0), results[1].number(0, 1)};
    return true;
}

void Centre::Core::sendSetting(const std::string& device, const std::string& name,
                               const std::optional<std::string>& value, const Outgoing& set)
{
    if (value)
        postgres.send("insert into fleet.setting values ($1, $2, $3)"
                      " on conflict (device, name) do update set value = excluded.value",
                      Parameters().addText(device).addText(name).addText(*value));
    else
        postgres.send("delete from fleet.setting where device = $1 and name = $2",
                      Parameters().addText(device).addText(name));
    postgres.send("insert into fleet.outgoing (device, number, incarnation, header, bytes)"
                  " values ($1, $2, $3, $4, $5)",
                  Parameters()
                      .addText(device)
                      .addNumber(set.last.number)
                      .addNumber(set.last.incarnation)
                      .addBytes(set.header)
                      .addBytes(set.bytes));
}

bool Centre::settings(const std::string& device, std::map<std::string, std::string>& values)
{
    sql::SyncPosition position;
    values.clear();
    return _core->connect() && (_core->readSettings(device, values, position) || _core->fail());
}

bool Centre::outgoing(const std::vector<std::string>& devices, std::vector<Outgoing>& sets)
{
    sets.clear();
    std::vector<Rows> results;
    if (!_core->connect())
        return false;
    if (!_core->postgres.run(
            "select distinct on (device) device, incarnation, number, header, bytes"
            " from fleet.outgoing where applied_at is null"
            " and ($1 = '{}' or device = any ($1)) order by device, number",
            Parameters().addTexts(devices), results))
        return _core->fail();
    for (int row = 0; row < results[0].count(); ++row)
        sets.push_back({results[0].text(row, 0),
                        results[0].bytes(row, 3),
                        results[0].bytes(row, 4),
                        {results[0].number(row, 1), results[0].number(row, 2)}});
    return true;
}

bool Centre::noteApplied(const std::string& device, const Answer& answer)
{
    if (!_core->connect())
        return false;
    Parameters parameters;
    parameters.addText(device).addNumber(answer.last.incarnation);
    if (answer.isStored)
        return _core->postgres.run(
                   "update fleet.outgoing set applied_at = now(), refused = null where device = $1"
                   " and incarnation = $2 and number <= $3 and applied_at is null",
                   parameters.addNumber(answer.last.number))
               || _core->fail();
    return _core->postgres.run("update fleet.outgoing set applied_at = null, refused = $3"
                               " where device = $1 and incarnation = $2",
                               parameters.addText(readable(answer.reason)))
           || _core->fail();
}

// --- What an operator does -----------------------------------------------------------------------

bool Centre::admit(const std::string& device)
{
    std::vector<Rows> results;
    if (!_core->connect())
        return false;
    if (!_core->postgres.run("select refused_header from fleet.device where device = $1"
                             " and refused_header is not null",
                             Parameters().addText(device), results))
        return _core->fail();
    if (results[0].count() == 0)
        return _core->fail("no set of '" + device + "' was refused");
    const Incoming incoming = {device, results[0].bytes(0, 0), std::string()};
    const auto envelope = sql::readEnvelope(incoming.header);
    if (!envelope)
        return _core->fail(envelope.error().text());
    if (envelope->device != device)
        return _core->fail("the change set is of device '" + envelope->device + "'");
    Work work;
    work.incoming = &incoming;
    work.envelope = *envelope;
    work.isSound = true;
    return _core->begin({device}, {work}) && _core->admit(work.envelope);
}

// The set is the next then, and the former line ends.
bool Centre::Core::admit(const sql::Envelope& envelope)
{
    Mark& mark = marks[envelope.device];
    const sql::SyncMark stand = mark.standOf(envelope);
    if (stand.isRetired)
        return undo("the device's incarnation was retired when another was admitted");
    if (stand.isKnown)
        return undo("the change set has come before");
    const sql::integer missing = envelope.previous.number - mark.position.number;
    if (missing > 0) {
        mark.note(envelope.previous);
        mark.lost += missing;
    }
    const sql::integer former = mark.position.incarnation;
    mark.position = envelope.previous;
    mark.checksum = 0;
    mark.isMoved = true;
    sendMarks();
    if (former != envelope.last.incarnation)
        postgres.send("update fleet.incarnation set retired = true"
                      " where device = $1 and incarnation = $2",
                      Parameters().addText(envelope.device).addNumber(former));
    return postgres.finish() ? commit() : undo();
}

bool Centre::retry(const std::string& device, sql::integer& count)
{
    count = 0;
    std::vector<Rows> results;
    if (!_core->connect())
        return false;
    if (!_core->postgres.run("select id, header, bytes from fleet.quarantine where device = $1"
                             " order by id",
                             Parameters().addText(device), results))
        return _core->fail();
    const Rows& kept = results[0];
    std::vector<Incoming> sets(static_cast<std::size_t>(kept.count()));
    for (int row = 0; row < kept.count(); ++row)
        sets[static_cast<std::size_t>(row)] = {device, kept.bytes(row, 1), kept.bytes(row, 2)};
    std::vector<Work> works(sets.size());
    for (std::size_t i = 0; i < sets.size(); ++i)
        read(sets[i], works[i]);
    _core->tables.forget();
    if (!_core->makeTables(works) || !_core->begin({device}, {}))
        return false;
    for (std::size_t i = 0; i < sets.size(); ++i) {
        if (!_core->retryOne(kept.number(static_cast<int>(i), 0), works[i], count))
            return false;
    }
    return _core->commit();
}

// Somebody else may have dropped it meanwhile.
bool Centre::Core::retryOne(long long id, Work& work, sql::integer& count)
{
    std::vector<Rows> results;
    if (!postgres.run("select 1 from fleet.quarantine where id = $1 for update",
                      Parameters().addNumber(id), results))
        return undo();
    std::string why = work.answer.reason;
    if (results[0].count() == 0)
        return true;
    if (work.isSound && !write(work, why))
        return false;
    if (!why.empty())
        return postgres.run("update fleet.quarantine set reason = $2 where id = $1",
                            Parameters().addNumber(id).addText(readable(why)))
               || undo();
    ++count;
    postgres.send("delete from fleet.quarantine where id = $1", Parameters().addNumber(id));
    postgres.send("update fleet.device set rows = rows + $2 where device = $1",
                  Parameters().addText(work.incoming->device).addNumber(work.rows));
    return postgres.finish() || undo();
}

bool Centre::discard(const std::string& device, bool& isDropped)
{
    std::vector<Rows> results;
    if (!_core->connect())
        return false;
    if (!_core->postgres.run("delete from fleet.quarantine where id ="
                             " (select min(id) from fleet.quarantine where device = $1)",
                             Parameters().addText(device), results))
        return _core->fail();
    isDropped = results[0].changed() > 0;
    return true;
}

bool Centre::status(std::vector<DeviceStatus>& devices)
{
    devices.clear();
    std::vector<Rows> results;
    if (!_core->connect())
        return false;
    if (!_core->postgres.run(
            "select device, number, case when stored_at is null then -1"
            " else greatest(extract(epoch from now() - stored_at), 0) end, rows, lost,"
            " coalesce(kept, 0), coalesce(reason, ''), coalesce(waiting, 0), coalesce(refused, '')"
            " from fleet.device left join (select distinct on (device) device, reason,"
            " count(*) over (partition by device) as kept from fleet.quarantine"
            " order by device, id) as oldest using (device)"
            " left join (select device, count(*) as waiting from fleet.outgoing"
            " where applied_at is null group by device) as settings using (device) order by device",
            Parameters(), results))
        return _core->fail();
    const Rows& rows = results[0];
    for (int row = 0; row < rows.count(); ++row)
        devices.push_back({rows.text(row, 0), rows.number(row, 1), rows.real(row, 2),
                           rows.number(row, 3), rows.number(row, 4), rows.number(row, 5),
                           rows.text(row, 6), rows.number(row, 7), rows.text(row, 8)});
    return true;
}
