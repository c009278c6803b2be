// Readings of many devices at one centre. A pipe carries the change sets, and another the answers:
//
//     collect record DATABASE DEVICE VALUE
//     collect send DATABASE DEVICE | collect take CENTRE | collect acknowledge DATABASE DEVICE

#include "SqlInbox.h"
#include "SqlOutbox.h"
#include "SqlRecorder.h"
#include "SqlStatement.h"

#include <iostream>
#include <string>

namespace {

constexpr int busy_timeout_ms = 1000;
constexpr const char* make_table =
    "create table if not exists reading (device text not null, id integer not null,"
    " value real not null, primary key (device, id)) without rowid";

bool fail(const char* what, const sql::Error& error)
{
    std::cerr << "collect: cannot " << what << ": " << error.text() << '\n';
    return false;
}

bool open(sql::Database& database, const char* file)
{
    if (!database.open(file, sql::Database::access_create, false, busy_timeout_ms))
        return fail("open the database", sql::lastError(database));
    const sql::Result<int> made = sql::runScript(database, make_table);
    return !made.failed() || fail("make the table", made.error());
}

// The reading and its change set are stored, or neither.
bool record(sql::Database& database, const char* device, const char* value)
{
    sql::Recorder recorder(database, {"reading"});
    if (!recorder.isRecording())
        return fail("record", recorder.error());
    sql::RecordedTransaction transaction(recorder);
    sql::Statement add(database, "insert into reading select ?1, ifnull(max(id), 0) + 1, ?2 + 0"
                                 " from reading where device = ?1");
    if (!transaction.isOpen() || !add.run(device, value))
        return fail("add the reading", transaction.error() ? transaction.error() : add.error());
    return transaction.commit() || fail("commit", transaction.error());
}

// Each set as its two lengths, in a line, and its bytes. It stays in the outbox.
bool send(sql::Database& database, const char* device)
{
    sql::Outbox outbox(database, device);
    sql::ChangeSet set;
    while (outbox.next(set))
        std::cout << set.header().size() << ' ' << set.bytes().size() << '\n'
                  << set.header() << set.bytes();
    return !outbox.error() || fail("read the outbox", outbox.error());
}

// Who sends over a network takes the device's name from its certificate instead.
bool apply(sql::Inbox& inbox, const std::string& header, const std::string& bytes)
{
    const sql::Result<sql::Envelope> envelope = sql::readEnvelope(header);
    if (!envelope)
        return fail("read a header", envelope.error());
    const auto received = inbox.apply(envelope->device, header, bytes);
    if (!received)
        return fail("apply a change set", received.error());
    std::cout << envelope->last.incarnation << ' ' << envelope->last.number << '\n';
    return true;
}

bool take(sql::Database& database)
{
    sql::Inbox inbox(database, {"reading"});
    if (!inbox.isOpen())
        return fail("open the inbox", inbox.error());
    std::size_t headerSize = 0;
    std::size_t size = 0;
    while (std::cin >> headerSize >> size && std::cin.get() == '\n') {
        std::string all(headerSize + size, '\0');
        std::cin.read(all.data(), static_cast<std::streamsize>(all.size()));
        if (!std::cin || !apply(inbox, all.substr(0, headerSize), all.substr(headerSize)))
            return false;
    }
    return true;
}

bool acknowledge(sql::Database& database, const char* device)
{
    sql::Outbox outbox(database, device);
    sql::SyncPosition last;
    while (std::cin >> last.incarnation >> last.number) {
        if (!outbox.acknowledge(last))
            return fail("acknowledge", outbox.error());
        std::cout << "up to " << last.number << ": acknowledged\n";
    }
    return true;
}

int usage()
{
    std::cerr << "usage: collect record DATABASE DEVICE VALUE | send DATABASE DEVICE | take CENTRE"
                 " | acknowledge DATABASE DEVICE\n";
    return 2;
}

} // namespace

int main(int argc, char** argv)
{
    const std::string command = argc > 2 ? argv[1] : "";
    const bool isKnown = (command == "record" && argc == 5) || (command == "send" && argc == 4)
                         || (command == "take" && argc == 3)
                         || (command == "acknowledge" && argc == 4);
    if (!isKnown)
        return usage();
    sql::Database database;
    if (!open(database, argv[2]))
        return 1;
    if (command == "record")
        return record(database, argv[3], argv[4]) ? 0 : 1;
    if (command == "send")
        return send(database, argv[3]) ? 0 : 1;
    return (command == "take" ? take(database) : acknowledge(database, argv[3])) ? 0 : 1;
}
