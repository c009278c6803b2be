#ifndef SQLWRAPPER_TESTS_FLEET_CLUSTER_H
#define SQLWRAPPER_TESTS_FLEET_CLUSTER_H

#include "Environment.h"

#include <libpq-fe.h>

#include <memory>
#include <string>
#include <vector>

namespace test {

// A PostgreSQL in a directory of its own, which listens on a Unix socket there alone and never waits
// for the disk. Run by root it is a process of another user. Aborts the test program where it cannot
// be started.
class Cluster {
public:
    Cluster();
    ~Cluster();
    Cluster(const Cluster&) = delete;
    Cluster& operator=(const Cluster&) = delete;

    // libpq's connection string.
    std::string connection() const;

    void start();
    void stop(); // at once: what was not committed is undone

private:
    std::vector<std::string> command(const std::string& program) const;
    pid_t launch(const std::vector<std::string>& words) const;

    TemporaryDirectory _directory;
    pid_t _server = 0;
};

// A connection of the test's own, past the classes that are tested.
class PlainSession {
public:
    explicit PlainSession(const std::string& connection);

    // What the last of these statements yields: cells separated by "|", rows by "\n", NULL as "NULL".
    std::string rows(const std::string& sql);

private:
    std::unique_ptr<PGconn, decltype(&PQfinish)> _connection;
};

} // namespace test

#endif
