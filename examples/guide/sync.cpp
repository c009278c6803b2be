// A tour of sqlsync, task by task, as docs/sync.md quotes it.
//
//     sync DEVICE CENTRE

#include "SqlChangeReader.h"
#include "SqlInbox.h"
#include "SqlOutbox.h"
#include "SqlRecorder.h"
#include "SqlStatement.h"

#include <cstdio>

namespace {

constexpr const char* make_tables =
    "drop table if exists reading;"
    "create table reading (id integer primary key, sensor text not null, value real)";

bool report(const sql::Error& error)
{
    std::fprintf(stderr, "sync: %s\n", error.text().c_str());
    return false;
}

// A reading more, in a transaction of its own.
bool write(sql::Database& device, sql::Recorder& recorder, sql::integer id, double value)
{
    sql::RecordedTransaction transaction(recorder);
    sql::Statement add(device, "insert into reading values (?, 'hall', ?)");
    if (!transaction.isOpen() || !add.run(id, value))
        return report(transaction.error() ? transaction.error() : add.error());
    return transaction.commit() || report(transaction.error());
}

bool record(sql::Database& device)
{
    sql::Recorder recorder(device, {"reading"});
    if (!recorder.isRecording())
        return report(recorder.error());

    sql::RecordedTransaction transaction(recorder);
    sql::Statement add(device, "insert into reading values (?, ?, ?)");
    if (!transaction.isOpen() || !add.run(1, "hall", 21.5) || !add.run(2, "yard", 7.25))
        return report(transaction.error() ? transaction.error() : add.error());
    if (!transaction.commit()) // the rows and the change set, or neither
        return report(transaction.error());

    if (!add.run(3, "roof", 3.5)) // without a RecordedTransaction
        std::printf("%s\n", add.error().name());
    return write(device, recorder, 3, 3.5);
}

bool send(sql::Database& device, sql::Inbox& inbox)
{
    sql::Outbox outbox(device, "device-17");
    sql::ChangeSet set;
    while (outbox.next(set)) {
        // Here the header and the bytes travel to the centre, and its answer back.
        const sql::Result<sql::Received> received = inbox.apply("device-17", set.header(),
                                                                set.bytes());
        if (!received)
            return report(received.error()); // stays in the outbox
        if (!outbox.acknowledge(set.last()))
            return report(outbox.error());
        std::printf("up to %lld: applied\n", set.last().number);
    }
    return !outbox.error() || report(outbox.error());
}

bool deliverTwice(sql::Database& device, sql::Inbox& inbox)
{
    sql::RecorderOptions options;
    options.limit = 16777216; // bytes of change sets
    options.whenFull = sql::WhenFull::drop_oldest;
    sql::Recorder recorder(device, {"reading"}, options);
    if (!write(device, recorder, 4, 4.5))
        return false;
    sql::Outbox outbox(device, "device-17");
    sql::ChangeSet first;
    if (!outbox.next(first) || !write(device, recorder, 5, 5.5))
        return report(outbox.error());
    sql::ChangeSet second;
    if (!outbox.next(second))
        return report(outbox.error());

    const auto early = inbox.apply("device-17", second.header(), second.bytes());
    std::printf("%s: %s\n", early.error().name(), early.error().text().c_str());
    for (const sql::ChangeSet* const set : {&first, &first, &second}) {
        const auto received = inbox.apply("device-17", set->header(), set->bytes());
        if (!received)
            return report(received.error());
        std::puts(*received == sql::Received::repeated ? "repeated" : "applied");
    }
    return outbox.acknowledge(second.last()) || report(outbox.error());
}

bool conflict(sql::Database& device, sql::Database& centre, sql::Inbox& inbox)
{
    sql::Recorder recorder(device, {"reading"});
    if (!sql::runScript(centre, "insert into reading values (6, 'centre', 0)")
        || !write(device, recorder, 6, 6.5))
        return false;
    sql::Outbox outbox(device, "device-17");
    sql::ChangeSet set;
    if (!outbox.next(set))
        return report(outbox.error());

    const auto received = inbox.apply("device-17", set.header(), set.bytes());
    if (received && *received == sql::Received::kept)
        std::printf("%lld kept\n", inbox.kept("device-17").valueOr(0));
    if (!outbox.acknowledge(set.last()))
        return report(outbox.error());

    // Somebody mends the row.
    if (!sql::runScript(centre, "delete from reading where id = 6"))
        return false;
    std::printf("%lld applied\n", inbox.retry("device-17").valueOr(0));
    return true;
}

bool readChanges(sql::Database& device)
{
    sql::Recorder recorder(device, {"reading"});
    if (!write(device, recorder, 7, 7.5))
        return false;
    sql::Outbox outbox(device, "device-17");
    sql::ChangeSet set;
    if (!outbox.next(set))
        return report(outbox.error());

    const sql::Result<sql::Envelope> envelope = sql::readEnvelope(set.header());
    if (!envelope || !sql::checkChangeSet(*envelope, set.bytes()))
        return report(envelope.error());
    sql::ChangeReader changes(*envelope, set.bytes());
    while (changes.next()) {
        const char* const kind = changes.kind() == sql::change_insert ? "insert" : "change";
        std::printf("%s: %s %lld\n", changes.table().name.c_str(), kind,
                    changes.newValue(0).number);
    }
    return !changes.error() || report(changes.error());
}

bool open(sql::Database& database, const char* file)
{
    return database.open(file, sql::Database::access_create, false, 100)
           && sql::runScript(database, make_tables);
}

// So that the page and what is printed can be compared.
void begin(const char* heading)
{
    std::printf("-- %s\n", heading);
}

bool tour(sql::Database& device, sql::Database& centre)
{
    begin("Record");
    if (!record(device))
        return false;

    sql::Inbox inbox(centre, {"reading"});
    begin("Send and apply");
    if (!send(device, inbox))
        return false;
    begin("Repetitions and gaps");
    if (!deliverTwice(device, inbox))
        return false;
    begin("Conflicts");
    if (!conflict(device, centre, inbox))
        return false;
    begin("Without SQLite");
    return readChanges(device);
}

} // namespace

int main(int argc, char** argv)
{
    if (argc != 3) {
        std::fputs("usage: sync DEVICE CENTRE\n", stderr);
        return 2;
    }
    sql::Database device;
    sql::Database centre;
    if (!open(device, argv[1]) || !open(centre, argv[2])) {
        std::fputs("sync: cannot open the databases\n", stderr);
        return 1;
    }
    return tour(device, centre) ? 0 : 1;
}
