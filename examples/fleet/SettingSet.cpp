#include "SettingSet.h"

#include "SqlDatabase.h"
#include "SqlOutbox.h"
#include "SqlRecorder.h"
#include "SqlStatement.h"

namespace {

bool failAs(const sql::Error& error, std::string& why)
{
    why = error.text();
    return false;
}

bool fill(sql::Database& database, const std::map<std::string, std::string>& settings,
          std::string& why)
{
    if (!database.open(":memory:", sql::Database::access_create, false, 0))
        return failAs(sql::lastError(database), why);
    const sql::Result<int> made = sql::runScript(database, make_setting_table);
    if (!made)
        return failAs(made.error(), why);
    sql::Statement add(database, "insert into setting values (?, ?)");
    for (const auto& [name, value] : settings) {
        if (!add.run(name, value))
            return failAs(add.error(), why);
    }
    return true;
}

// Records the change.
bool change(sql::Database& database, const std::string& name,
            const std::optional<std::string>& value, std::string& why)
{
    sql::Recorder recorder(database, {"setting"});
    if (!recorder.isRecording())
        return failAs(recorder.error(), why);
    sql::RecordedTransaction transaction(recorder);
    sql::Statement set(database, "insert into setting values (?1, ?2)"
                                 " on conflict (name) do update set value = excluded.value"
                                 " where value <> excluded.value");
    sql::Statement remove(database, "delete from setting where name = ?");
    if (value ? !set.run(name, *value) : !remove.run(name))
        return failAs((value ? set : remove).error(), why);
    return transaction.commit() || failAs(transaction.error(), why);
}

} // namespace

bool makeSettingSet(const std::map<std::string, std::string>& settings, const std::string& name,
                    const std::optional<std::string>& value, sql::SyncPosition previous,
                    Outgoing& set, std::string& why)
{
    sql::Database database;
    if (!fill(database, settings, why) || !change(database, name, value, why))
        return false;
    sql::Outbox outbox(database, centre_name);
    sql::ChangeSet changes;
    if (!outbox.next(changes))
        return !outbox.error() || failAs(outbox.error(), why);
    sql::Result<sql::Envelope> envelope = sql::readEnvelope(changes.header());
    if (!envelope)
        return failAs(envelope.error(), why);
    envelope->previous = previous;
    envelope->last.number = previous.number + 1;
    if (previous.incarnation != 0)
        envelope->last.incarnation = previous.incarnation;
    set.last = envelope->last;
    set.bytes = changes.bytes();
    set.header = sql::encode(*envelope, set.bytes);
    return true;
}
