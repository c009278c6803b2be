// Prints what it costs to record transactions, as a table: beside the same transactions unrecorded.
//
//     recording FOLDER
//
// Time is the processor's, the kernel's part included; the median of rounds in which both take turns.

#include "SqlInbox.h"
#include "SqlOutbox.h"
#include "SqlRecorder.h"
#include "SqlSettings.h"
#include "SqlStatement.h"

#include <sqlite3.h>

#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <fstream>
#include <memory>
#include <string>
#include <vector>

namespace {

long long syncs = 0;

} // namespace

// SQLite calls these in place of the C library's.
extern "C" int fdatasync(int file)
{
    ++syncs;
    return static_cast<int>(syscall(SYS_fdatasync, file));
}
extern "C" int fsync(int file)
{
    ++syncs;
    return static_cast<int>(syscall(SYS_fsync, file));
}

namespace {

using std::string;

constexpr int most_rows = 20000;
constexpr int most_transactions = 1000;
constexpr int rounds = 5;
constexpr const char* make_tables =
    "create table reading (id integer primary key, at integer not null, sensor text not null,"
    " value real not null)";

void require(bool isDone, const char* what)
{
    if (isDone)
        return;
    std::fprintf(stderr, "recording: %s failed\n", what);
    std::exit(1);
}

// What the process has written so far.
struct Written {
    Written()
    {
        std::ifstream lines("/proc/self/io");
        string name;
        long long number = 0;
        while (lines >> name >> number) {
            if (name == "wchar:")
                bytes = number;
            else if (name == "syscw:")
                calls = number;
        }
    }

    long long bytes = 0;
    long long calls = 0;
};

struct Cost {
    double seconds = 0;
    long long bytes = 0; // written
    long long calls = 0;
    long long syncs = 0;
    long long size = 0; // of the file
    long long sent = 0; // bytes of change sets
    double next = 0;    // seconds of handing out
    double apply = 0;   // seconds of applying
};

double now()
{
    return static_cast<double>(std::clock()) / CLOCKS_PER_SEC;
}

class Device {
public:
    Device(const string& file, const char* journal) : _file(file)
    {
        for (const char* const rest : {"", "-journal", "-wal", "-shm"})
            std::remove((file + rest).c_str());
        require(_database.open(file, sql::Database::access_create, false, 0), "open");
        require(!sql::runScript(_database, string("pragma journal_mode = ") + journal).failed(),
                "pragma");
        require(sql::runScript(_database, make_tables).valueOr(0) == 1, "create");
    }

    Cost write(int rowsOfEach, int transactions, bool isRecorded)
    {
        std::unique_ptr<sql::Recorder> recorder;
        if (isRecorded)
            recorder = std::make_unique<sql::Recorder>(_database, std::vector<string>{"reading"});
        sql::Statement add(_database, "insert into reading values (null, ?, 'hall', ?)");
        const Written before;
        const long long syncsBefore = syncs;
        const double start = now();
        for (int i = 0; i < transactions; ++i)
            commit(recorder.get(), add, rowsOfEach);
        Cost cost;
        cost.seconds = now() - start;
        const Written after;
        cost.bytes = after.bytes - before.bytes;
        cost.calls = after.calls - before.calls;
        cost.syncs = syncs - syncsBefore;
        require(!sql::runScript(_database, "pragma wal_checkpoint(truncate)").failed(),
                "checkpoint");
        struct stat state = {};
        require(stat(_file.c_str(), &state) == 0, "stat");
        cost.size = state.st_size;
        return cost;
    }

    void send(sql::Inbox& inbox, Cost& cost)
    {
        sql::Outbox outbox(_database, "device");
        sql::ChangeSet set;
        while (true) {
            const double start = now();
            const bool isThere = outbox.next(set);
            cost.next += now() - start;
            if (!isThere)
                break;
            cost.sent += static_cast<long long>(set.header().size() + set.bytes().size());
            const double arrived = now();
            const auto received = inbox.apply("device", set.header(), set.bytes());
            require(received && *received == sql::Received::applied, "apply");
            cost.apply += now() - arrived;
            require(outbox.acknowledge(set.last()), "acknowledge");
        }
        require(!outbox.error(), "next");
    }

private:
    void commit(sql::Recorder* recorder, sql::Statement& add, int rows)
    {
        if (recorder == nullptr) {
            sql::Transaction transaction(_database, sql::begin_immediate);
            insert(add, rows);
            require(transaction.commit(), "commit");
        } else {
            sql::RecordedTransaction transaction(*recorder);
            insert(add, rows);
            require(transaction.commit(), "commit");
        }
    }
    static void insert(sql::Statement& add, int rows)
    {
        static int second = 0;
        for (int row = 0; row < rows; ++row, ++second)
            require(add.run(1262304000 + second, second % 400 / 10.0), "insert");
    }

    string _file;
    sql::Database _database;
};

double median(std::vector<double> values)
{
    std::sort(values.begin(), values.end());
    return values[values.size() / 2];
}

void printRow(const char* journal, const string& folder, int rows)
{
    const int transactions = std::min(most_transactions, most_rows / rows);
    std::vector<double> ratios;
    std::vector<double> nexts;
    std::vector<double> applies;
    Cost plain;
    Cost recorded;
    for (int round = 0; round < rounds; ++round) {
        plain = Device(folder + "/plain.db", journal).write(rows, transactions, false);
        Device device(folder + "/device.db", journal);
        recorded = device.write(rows, transactions, true);
        sql::Database centre;
        require(centre.open(":memory:", sql::Database::access_create, false, 0), "open");
        require(sql::runScript(centre, make_tables).valueOr(0) == 1, "create");
        sql::Inbox inbox(centre, {"reading"});
        device.send(inbox, recorded);
        ratios.push_back(recorded.seconds / plain.seconds);
        nexts.push_back(recorded.next);
        applies.push_back(recorded.apply);
    }
    const double all = static_cast<double>(rows) * transactions;
    const double each = transactions;
    std::printf("| `%s` | %d | %.2f | %.1f | %.1f | %.0f / %.0f | %.0f / %.0f | %.1f / %.1f |"
                " %.1f / %.1f | %.0f |\n",
                journal, rows, median(ratios), median(nexts) / all * 1e6,
                median(applies) / all * 1e6, static_cast<double>(plain.size) / all,
                static_cast<double>(recorded.size) / all, static_cast<double>(plain.bytes) / all,
                static_cast<double>(recorded.bytes) / all, static_cast<double>(plain.calls) / each,
                static_cast<double>(recorded.calls) / each, static_cast<double>(plain.syncs) / each,
                static_cast<double>(recorded.syncs) / each,
                static_cast<double>(recorded.sent) / all);
}

} // namespace

int main(int argc, char** argv)
{
    if (argc != 2) {
        std::fputs("usage: recording FOLDER\n", stderr);
        return 2;
    }
    std::puts("| Journal | Rows a transaction | Time | Handing out | Applying | File | Written |"
              " Writes | Syncs | Sent |");
    std::puts("|---|--:|--:|--:|--:|--:|--:|--:|--:|--:|");
    for (const char* const journal : {"delete", "wal"}) {
        for (const int rows : {1, 10, 100, 1000})
            printRow(journal, argv[1], rows);
    }
    return 0;
}
