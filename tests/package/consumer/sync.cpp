// A program of somebody else, who has the installed libraries alone: a device and a centre. It uses every
// class of sqlsync.
#include "SqlChangeReader.h"
#include "SqlInbox.h"
#include "SqlOutbox.h"
#include "SqlRecorder.h"
#include "SqlStatement.h"

#include <cstdio>

static bool open(sql::Database& database)
{
    return database.open(":memory:", sql::Database::access_create, false, 0)
           && sql::runScript(database, "create table reading (id integer primary key, value real)");
}

static int count(const sql::ChangeSet& set, const sql::Envelope& envelope)
{
    int count = 0;
    sql::ChangeReader changes(envelope, set.bytes());
    while (changes.next())
        ++count;
    return count;
}

int main()
{
    sql::Database device;
    sql::Database centre;
    if (!open(device) || !open(centre))
        return 1;

    sql::Recorder recorder(device, {"reading"});
    sql::RecordedTransaction transaction(recorder);
    if (!sql::runScript(device, "insert into reading values (1, 21.5)") || !transaction.commit())
        return 1;

    sql::Outbox outbox(device, "meter-7");
    sql::Inbox inbox(centre, {"reading"});
    sql::ChangeSet set;
    if (!outbox.next(set))
        return 1;
    const sql::Result<sql::Envelope> envelope = sql::readEnvelope(set.header());
    const sql::Result<sql::Received> received = inbox.apply("meter-7", set.header(), set.bytes());
    if (!envelope || !received || *received != sql::Received::applied)
        return 1;
    if (!outbox.acknowledge(set.last()))
        return 1;
    std::printf("%d change of %s, applied\n", count(set, *envelope), envelope->device.c_str());
    return 0;
}
