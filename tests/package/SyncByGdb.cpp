// What the debugger looks at when the program has reached inspect(): objects of sqlsync, each with the
// text that it is shown as.

#include "SqlInbox.h"
#include "SqlOutbox.h"
#include "SqlRecorder.h"
#include "SqlStatement.h"

#include <cstdlib>
#include <cstring>

namespace all {

sql::Database device;
// sql::Database, open, handle = 0x?
sql::Database centre;
// sql::Database, open, handle = 0x?

// Memory of an object's size that holds none.
template <class Object> const Object& filled(int byte)
{
    void* const memory = std::malloc(sizeof(Object));
    std::memset(memory, byte, sizeof(Object));
    return *static_cast<const Object*>(memory);
}

bool open(sql::Database& one)
{
    return one.open(":memory:", sql::Database::access_create, false, 0)
           && sql::runScript(one, "create table product (id integer primary key, name text)");
}

const bool isOpen = open(device) && open(centre);

// clang-format off
sql::Recorder mistaken(centre, {"produce"});
// sql::Recorder, not recording, rc=21=SQLITE_MISUSE: table 'produce': there is none
sql::Recorder recorder(device, {"product"});
// sql::Recorder, recording
sql::RecordedTransaction unbegun(mistaken);
// sql::RecordedTransaction, not begun, rc=21=SQLITE_MISUSE: table 'produce': there is none
sql::ChangeSet empty;
// sql::ChangeSet, empty
sql::ChangeSet one;
// sql::ChangeSet, commit 1, 28 bytes
sql::ChangeSet two;
// sql::ChangeSet, commits 2 to 3, 44 bytes
sql::Outbox untouched(device, "device \"17\"");
// sql::Outbox, "device \"17\""
sql::Outbox outbox(device, "device-17");
// sql::Outbox, "device-17", handed out up to 3
sql::Outbox wrong(device, "device-17");
// sql::Outbox, "device-17", rc=21=SQLITE_MISUSE: commit 7 was never handed out
sql::Inbox inbox(centre, {"product"});
// sql::Inbox, open
sql::Inbox closed(centre, {});
// sql::Inbox, rc=21=SQLITE_MISUSE: there is no table
const sql::RecordedTransaction& noTransaction = filled<sql::RecordedTransaction>(0xa5);
// <error: Cannot access memory at address NOISE>
const sql::Outbox& noOutbox = filled<sql::Outbox>(0xa5);
// <error: Cannot access memory at address NOISE>

// clang-format on

} // namespace all

extern "C" __attribute__((noinline)) void inspect()
{
    __asm__ volatile("" : : : "memory"); // not to be optimised away
}

namespace {

bool record(const char* statement)
{
    sql::RecordedTransaction transaction(all::recorder);
    return transaction.isOpen() && sql::runScript(all::device, statement) && transaction.commit();
}

} // namespace

int main()
{
    using namespace all;
    bool worked = isOpen && record("insert into product values (1, 'tea')") && outbox.next(one)
                  && record("insert into product values (2, 'rum')")
                  && record("insert into product values (3, 'gin')") && outbox.next(two);
    sql::SyncPosition never;
    never.number = 7;
    worked = worked && !wrong.acknowledge(never);
    inspect();
    return worked ? 0 : 1;
}
