#include "Cluster.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <pwd.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <thread>

namespace test {

namespace {

constexpr const char* user = "fleet"; // of the database

[[noreturn]] void refuse(const std::string& what, const std::string& log)
{
    std::fprintf(stderr, "%s\n%s", what.c_str(), readFile(log).c_str());
    std::abort();
}

// PostgreSQL does not run as root.
const passwd* otherUser()
{
    const passwd* const postgres = getpwnam("postgres");
    return postgres != nullptr ? postgres : getpwnam("nobody");
}

} // namespace

Cluster::Cluster()
{
    const passwd* const other = otherUser();
    if (geteuid() == 0
        && (other == nullptr
            || chown(_directory.path().c_str(), other->pw_uid, other->pw_gid) != 0))
        refuse("no other user to run PostgreSQL", "");
    std::vector<std::string> words = command("initdb");
    for (const char* const word : {"--pgdata", "data", "--username", user, "--auth", "trust",
                                   "--encoding", "UTF8", "--no-locale", "--no-sync"})
        words.push_back(word == std::string("data") ? _directory.file(word) : word);
    int status = 0;
    if (waitpid(launch(words), &status, 0) < 0 || status != 0)
        refuse("initdb has failed", _directory.file("log"));
    start();
}

Cluster::~Cluster()
{
    stop();
}

std::string Cluster::connection() const
{
    return "host=" + _directory.path() + " dbname=postgres user=" + user;
}

// It ends with the test program, however that ends.
std::vector<std::string> Cluster::command(const std::string& program) const
{
    std::vector<std::string> words = {"setpriv", "--pdeathsig", "QUIT"};
    if (geteuid() == 0) {
        const passwd& other = *otherUser();
        words.insert(words.end(), {"--reuid", std::to_string(other.pw_uid), "--regid",
                                   std::to_string(other.pw_gid), "--clear-groups"});
    }
    words.push_back(TEST_POSTGRES_PROGRAMS "/" + program);
    return words;
}

pid_t Cluster::launch(const std::vector<std::string>& words) const
{
    std::vector<char*> arguments;
    for (const std::string& word : words)
        arguments.push_back(const_cast<char*>(word.c_str()));
    arguments.push_back(nullptr);
    const std::string log = _directory.file("log");
    const std::string directory = _directory.path();
    const pid_t process = fork();
    if (process != 0)
        return process;
    const int output = open(log.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
    if (output < 0 || dup2(output, STDOUT_FILENO) < 0 || dup2(output, STDERR_FILENO) < 0
        || chdir(directory.c_str()) != 0)
        _exit(126);
    execvp(arguments[0], arguments.data());
    _exit(127);
}

void Cluster::start()
{
    std::vector<std::string> words = command("postgres");
    words.insert(words.end(), {"-D", _directory.file("data"), "-k", _directory.path()});
    for (const char* const setting :
         {"listen_addresses=", "fsync=off", "full_page_writes=off", "max_connections=20"})
        words.insert(words.end(), {"-c", setting});
    _server = launch(words);
    for (int left = 3000; PQping(connection().c_str()) != PQPING_OK; --left) {
        if (left == 0 || waitpid(_server, nullptr, WNOHANG) != 0)
            refuse("PostgreSQL does not start", _directory.file("log"));
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
}

void Cluster::stop()
{
    kill(_server, SIGQUIT);
    waitpid(_server, nullptr, 0);
}

PlainSession::PlainSession(const std::string& connection)
    : _connection(PQconnectdb((connection
                               + " options='-c client_min_messages=error"
                                 " -c timezone=UTC'")
                                  .c_str()),
                  PQfinish)
{
    EXPECT_EQ(PQstatus(_connection.get()), CONNECTION_OK) << PQerrorMessage(_connection.get());
}

std::string PlainSession::rows(const std::string& sql)
{
    const std::unique_ptr<PGresult, decltype(&PQclear)> result(
        PQexec(_connection.get(), sql.c_str()), PQclear);
    const ExecStatusType status = PQresultStatus(result.get());
    EXPECT_TRUE(status == PGRES_COMMAND_OK || status == PGRES_TUPLES_OK)
        << sql << "\n"
        << PQerrorMessage(_connection.get());
    std::string text;
    for (int row = 0; row < PQntuples(result.get()); ++row) {
        for (int column = 0; column < PQnfields(result.get()); ++column) {
            text += column > 0 ? "|" : row > 0 ? "\n" : "";
            text += PQgetisnull(result.get(), row, column) != 0
                        ? "NULL"
                        : PQgetvalue(result.get(), row, column);
        }
    }
    return text;
}

} // namespace test
