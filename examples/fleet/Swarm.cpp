// fleet-swarm: many devices in one program and on one connection, each of which has as many sets of
// readings to send and sends the next one once the one before is stored.

#include "Mqtt.h"
#include "Wire.h"

#include "SqlOutbox.h"
#include "SqlRecorder.h"
#include "SqlStatement.h"

#include <CLI/CLI.hpp>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <queue>
#include <string>
#include <vector>

namespace {

using std::string;
using Clock = std::chrono::steady_clock;
using Seconds = std::chrono::duration<double>;

const char tables[] =
    "create table reading (id integer primary key not null, at timestamp not null,"
    " sensor text not null, value real not null, note text)";

struct Options {
    Broker broker;
    int first = 1; // device
    int devices = 1000;
    int sets = 3;
    int rows = 10;
    double spread = 0; // seconds, over which the devices begin
};

[[noreturn]] void fail(const string& why)
{
    std::fprintf(stderr, "fleet-swarm: %s\n", why.c_str());
    std::exit(1);
}

// The changes of each set, the same for all devices, and what describes their tables.
struct Changes {
    std::vector<string> sets;
    sql::Envelope envelope;
};

Changes record(const Options& options)
{
    sql::Database database;
    if (!database.open(":memory:", sql::Database::access_create, false, 0)
        || !sql::runScript(database, tables))
        fail("no database");
    Changes changes;
    {
        sql::Recorder recorder(database, {"reading"});
        sql::Outbox outbox(database, "swarm");
        sql::Statement add(database, "insert into reading values (?, ?, ?, ?, null)");
        int id = 0;
        for (int set = 0; set < options.sets; ++set) {
            sql::RecordedTransaction transaction(recorder);
            for (int row = 0; row < options.rows; ++row, ++id) {
                if (!add.run(id + 1, 1767225600 + 10 * id, "garden", 20 + id % 1000 / 100.0))
                    fail(add.error().text());
            }
            sql::ChangeSet made;
            if (!transaction.commit() || !outbox.next(made))
                fail(transaction.error().text() + outbox.error().text());
            changes.sets.emplace_back(made.bytes());
            changes.envelope = *sql::readEnvelope(made.header());
        }
    }
    database.close();
    return changes;
}

class Swarm {
public:
    explicit Swarm(const Options& options)
        : _options(options), _changes(record(options)), _mqtt("swarm", false),
          _devices(static_cast<std::size_t>(options.devices))
    {
    }

    void run()
    {
        _mqtt.subscribe("fleet/+/ack");
        if (!_mqtt.start(_options.broker))
            fail(_mqtt.error());
        while (!_mqtt.isConnected())
            _mqtt.next(std::chrono::milliseconds(100));
        const Clock::time_point begin = Clock::now();
        for (int i = 0; i < _options.devices; ++i)
            _due.push({begin
                           + std::chrono::duration_cast<Clock::duration>(
                               Seconds(_options.spread * i / _options.devices)),
                       i, 0});
        while (_waits.size() < _devices.size() * _changes.sets.size()) {
            sendDue();
            if (const auto message = _mqtt.next(std::chrono::milliseconds(10)))
                take(*message);
        }
        tell(Seconds(Clock::now() - begin).count());
    }

private:
    struct Device {
        int stored = 0;          // sets
        Clock::time_point since; // the present one was sent first
    };
    // When a device sends its present set, if that is this one still.
    struct Due {
        Clock::time_point at;
        int device;
        int set;
        std::chrono::seconds patience{10};
        bool operator<(const Due& other) const
        {
            return at > other.at;
        }
    };

    void sendDue()
    {
        while (!_due.empty() && _due.top().at <= Clock::now()) {
            Due due = _due.top();
            _due.pop();
            Device& device = _devices[static_cast<std::size_t>(due.device)];
            if (device.stored != due.set)
                continue;
            if (device.since == Clock::time_point())
                device.since = Clock::now();
            else
                ++_repeated;
            send(due.device, due.set);
            due.at = Clock::now() + due.patience;
            due.patience = std::min(2 * due.patience, std::chrono::seconds(60));
            _due.push(due);
        }
    }

    void send(int number, int set)
    {
        sql::Envelope envelope = _changes.envelope;
        envelope.device = "swarm-" + std::to_string(_options.first + number);
        envelope.previous = {set > 0 ? number + 1 : 0, set};
        envelope.last = {number + 1, set + 1};
        const string& bytes = _changes.sets[static_cast<std::size_t>(set)];
        const string message = packSet(sql::encode(envelope, bytes), bytes);
        _bytes += static_cast<double>(message.size());
        _mqtt.publish(topicOf(envelope.device, "set"), message);
    }

    void take(const Message& message)
    {
        string name;
        string what;
        Answer answer;
        if (!readTopic(message.topic, name, what) || !unpackAnswer(message.payload, answer)
            || name.compare(0, 6, "swarm-") != 0)
            return;
        if (!answer.isStored)
            fail(name + " is refused: " + answer.reason);
        const int number = std::stoi(name.substr(6)) - _options.first;
        if (number < 0 || number >= _options.devices)
            return;
        Device& device = _devices[static_cast<std::size_t>(number)];
        if (answer.last.number != device.stored + 1)
            return; // again
        _waits.push_back(Seconds(Clock::now() - device.since).count());
        ++device.stored;
        device.since = Clock::time_point();
        if (device.stored < _options.sets)
            _due.push({Clock::now(), number, device.stored});
    }

    void tell(double seconds)
    {
        std::sort(_waits.begin(), _waits.end());
        const auto sets = static_cast<double>(_waits.size());
        const double rows = sets * _options.rows;
        std::printf(
            "%.0f sets, %.0f rows of %d devices in %.1f s: %.0f sets and %.0f rows a second; %.1f"
            " bytes of messages a row; answered within %.2f s (half), %.2f s (99 of 100); %lld sent again\n",
            sets, rows, _options.devices, seconds, sets / seconds, rows / seconds, _bytes / rows,
            _waits[_waits.size() / 2], _waits[_waits.size() * 99 / 100], _repeated);
    }

    const Options _options;
    const Changes _changes;
    Mqtt _mqtt;
    std::vector<Device> _devices;
    std::priority_queue<Due> _due;
    std::vector<double> _waits;
    long long _repeated = 0;
    double _bytes = 0;
};

} // namespace

int main(int argc, char** argv)
{
    Options options;
    CLI::App app("Many devices, to see what hubs and broker carry");
    app.add_option("--broker", options.broker.host);
    app.add_option("--port", options.broker.port);
    app.add_option("--authority", options.broker.authority);
    app.add_option("--certificate", options.broker.certificate);
    app.add_option("--key", options.broker.key);
    app.add_option("--first", options.first, "the first device's number");
    app.add_option("--devices", options.devices);
    app.add_option("--sets", options.sets, "of each device");
    app.add_option("--rows", options.rows, "of a set");
    app.add_option("--spread", options.spread, "the seconds over which the devices begin");
    CLI11_PARSE(app, argc, argv);
    Swarm(options).run();
}
