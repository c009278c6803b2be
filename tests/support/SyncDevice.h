#ifndef SQLWRAPPER_TESTS_SUPPORT_SYNCDEVICE_H
#define SQLWRAPPER_TESTS_SUPPORT_SYNCDEVICE_H

#include "Session.h"
#include "SqlEnvelope.h"
#include "Sqlite.h"

#include <string>
#include <vector>

namespace test {

inline const char sync_tables[] =
    "create table product (id integer primary key, name text, price);"
    "create table pair (left text not null, right blob not null, primary key (right, left))";

inline std::vector<sql::SyncTable> describedTables()
{
    return {{"product",
             {{"id", "INTEGER", 1, false}, {"name", "TEXT", 0, false}, {"price", "", 0, false}}},
            {"pair", {{"left", "TEXT", 2, true}, {"right", "BLOB", 1, true}}}};
}

struct SyncSet {
    std::string header;
    std::string bytes;
};

// The other end of an Inbox, without the library: a file of its own, whose writes SQLite records, and
// what it would send of them.
class SyncDevice {
public:
    explicit SyncDevice(const std::string& name = "device-17", sql::integer incarnation = 11)
        : position{incarnation, 0}
    {
        envelope.device = name;
        envelope.tables = describedTables();
        db.run(sync_tables);
    }

    SyncSet commit(const std::string& statements, int commits = 1)
    {
        return send(changesOf(db, {"product", "pair"}, statements), commits);
    }

    SyncSet send(const std::string& bytes, int commits = 1)
    {
        envelope.previous = position.number > 0 ? before : sql::SyncPosition();
        position.number += commits;
        before = position;
        envelope.last = position;
        return {sql::encode(envelope, bytes), bytes};
    }

    // Goes on from another commit, in an incarnation of its own.
    void restore(sql::SyncPosition from, sql::integer incarnation)
    {
        before = from;
        position = {incarnation, from.number};
    }

    Connection db;
    sql::SyncPosition position;
    sql::SyncPosition before; // of the latest set
    sql::Envelope envelope;
};

} // namespace test

#endif
