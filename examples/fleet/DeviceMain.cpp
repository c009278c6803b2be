// fleet-device: a device of the fleet, which stores what its sensors tell, and has it brought to the
// centre.

#include "Lines.h"
#include "Uplink.h"

#include "SqlStatement.h"
#include "TraceLevel.h"

#include <CLI/CLI.hpp>

#include <syslog.h>

#include <algorithm>
#include <cmath>
#include <csignal>
#include <functional>
#include <iostream>
#include <map>

namespace {

const char* const notes = R"(
Exit status: 0 success; 1 failure, told in one line on standard error; 2 wrong
use.)";

const char* const run_details =
    R"(A reading is a line on standard input: a time, a sensor, a value and perhaps a
note, such as

    2009-12-31T23:59:59Z hall 21.5 window open

Readings are committed in groups, which are lost whole if the power fails, or
kept whole. They are sent to the centre's hub, once it can be reached, and again
until the hub has stored them. SIGINT and SIGTERM end the program as the end of
the input does. Prints how many readings were stored, and how many were lost.

The centre's settings group, within and keep count more than the options.)";

// What the command line asks for.
struct Request {
    DeviceOptions device;
    Broker broker;
    double simulated = 0; // readings a second
    bool untilSent = false;
    int traceLevel = trace::trace_off;
    std::function<int()> run;
};

int fail(const std::string& text)
{
    std::cerr << "fleet-device: " << text << std::endl;
    return 1;
}

using Clock = std::chrono::steady_clock;

// Readings that a program makes up, so many in a second.
class Simulation {
public:
    explicit Simulation(double perSecond) : _perSecond(perSecond), _begin(Clock::now())
    {
    }

    bool isOn() const
    {
        return _perSecond > 0;
    }

    std::chrono::milliseconds due() const
    {
        const std::chrono::duration<double> next(static_cast<double>(_count + 1) / _perSecond);
        const auto left = _begin + next - Clock::now();
        return std::max(std::chrono::ceil<std::chrono::milliseconds>(left),
                        std::chrono::milliseconds(0));
    }

    void feed(Device& device)
    {
        const std::chrono::duration<double> past = Clock::now() - _begin;
        const auto count = static_cast<long long>(past.count() * _perSecond);
        for (; _count < count; ++_count) {
            const double value = 20
                                 + std::round(std::sin(static_cast<double>(_count)) * 1000) / 1000;
            device.take({0, std::chrono::system_clock::now(), "simulated", value, {}});
        }
    }

private:
    double _perSecond;
    Clock::time_point _begin;
    long long _count = 0;
};

// From the first reading on to the last that is to be sent.
class Run {
public:
    Run(const Request& request, Device& device, Uplink& uplink)
        : _request(request), _device(device), _uplink(uplink), _simulation(request.simulated),
          _lines(!_simulation.isOn(), uplink.descriptor())
    {
    }

    void run()
    {
        while (!isOver()) {
            const std::optional<std::string> line = _lines.next(longest());
            if (line)
                take(*line);
            if (_simulation.isOn())
                _simulation.feed(_device);
            if (isInputOver() || _device.due() == std::chrono::milliseconds(0))
                _device.flush();
            _uplink.step();
        }
        _device.flush();
        _uplink.end();
    }

private:
    bool isInputOver() const
    {
        return !_simulation.isOn() && _lines.areOver();
    }

    bool isOver()
    {
        const bool isSent = !_request.untilSent || (!_device.due() && _uplink.isDone());
        return _lines.areStopped() || (isInputOver() && isSent);
    }

    std::chrono::milliseconds longest() const
    {
        auto longest = std::min(_uplink.due(), _device.due().value_or(_uplink.due()));
        return _simulation.isOn() ? std::min(longest, _simulation.due()) : longest;
    }

    void take(const std::string& line)
    {
        Reading reading;
        if (parseReading(line, reading))
            _device.take(reading);
        else
            _device.complain("left out what is no reading: " + line);
    }

    const Request& _request;
    Device& _device;
    Uplink& _uplink;
    Simulation _simulation;
    Lines _lines;
};

int run(const Request& request)
{
    Device device;
    if (!device.open(request.device))
        return 1;
    Uplink uplink(device, request.device.name);
    Run run(request, device, uplink);
    if (!uplink.start(request.broker))
        return fail(uplink.error());
    run.run();
    std::cout << device.stored() << " stored, " << device.lost() << " lost" << std::endl;
    return device.lost() == 0 ? 0 : 1;
}

int printStatus(const Request& request)
{
    sql::Database database;
    if (!database.open(request.device.file, sql::Database::access_read_write, false, 0))
        return fail(request.device.file + ": " + sql::lastError(database).text());
    sql::Outbox outbox(database, "status");
    const auto pending = outbox.pending();
    if (!pending)
        return fail(request.device.file + ": " + pending.error().text());
    std::cout << pending->sets << " change sets, " << pending->bytes << " bytes to be sent\n";
    std::string name;
    std::string value;
    sql::Statement settings(database, "select name, value from setting order by name");
    while (settings.next(name, value))
        std::cout << name << ' ' << value << '\n';
    return settings.finished() ? 0 : fail(settings.error().text());
}

CLI::App* addCommand(CLI::App& app, Request& request, const char* name, const char* description,
                     const char* details, int (*run)(const Request&))
{
    CLI::App* const command = app.add_subcommand(name, description);
    command->footer(std::string("\n") + details + "\n" + notes);
    command->add_option("FILE", request.device.file, "The device's database")
        ->required()
        ->type_name("");
    // Callbacks run while the line is parsed: the command itself has to wait until all of it is.
    command->callback([&request, run] {
        request.run = [&request, run] {
            return run(request);
        };
    });
    return command;
}

template <typename Value>
void addNumber(CLI::App* command, const char* name, Value& value, const char* unit, Value lowest,
               Value highest, const char* description)
{
    command->add_option(name, value, description)
        ->type_name(unit)
        ->capture_default_str()
        ->check(CLI::Range(lowest, highest));
}

void addBroker(CLI::App* command, Broker& broker)
{
    command->add_option("--broker", broker.host, "The MQTT broker")->type_name("HOST");
    addNumber(command, "--port", broker.port, "PORT", 1, 65535, "Its port");
    command->add_option("--authority", broker.authority, "Whose certificates are believed")
        ->type_name("FILE");
    command->add_option("--certificate", broker.certificate, "This device's certificate")
        ->type_name("FILE");
    command->add_option("--key", broker.key, "Its key")->type_name("FILE");
}

void addRun(CLI::App& app, Request& request)
{
    CLI::App* const command = addCommand(app, request, "run", "Store readings, and send them",
                                         run_details, run);
    DeviceOptions& device = request.device;
    command->add_option("--name", device.name, "The device's name, as its certificate has it")
        ->required()
        ->type_name("NAME");
    addBroker(command, request.broker);
    addNumber(command, "--simulate", request.simulated, "N", 0.0, 100000.0,
              "Make up N readings a second, and read none");
    addNumber(command, "--group", device.group, "N", 1, 1000000, "Commit so many readings at once");
    addNumber(command, "--within", device.within, "S", 0, 1000000, "or those of so many seconds");
    addNumber(command, "--keep", device.keep, "DAYS", 0, 1000000,
              "Remove those of older days, once all is sent; 0: none");
    addNumber(command, "--limit", device.outbox.limit, "BYTES", 0LL, 1000000000000000LL,
              "Keep no more to be sent; 0: as much as there is room");
    const std::map<std::string, sql::WhenFull> policies = {{"refuse", sql::WhenFull::refuse_writes},
                                                           {"merge", sql::WhenFull::merge_ranges},
                                                           {"drop", sql::WhenFull::drop_oldest}};
    command
        ->add_option("--when-full", device.outbox.whenFull,
                     "Then refuse readings, merge what was not sent, or drop the oldest")
        ->transform(CLI::CheckedTransformer(policies))
        ->type_name("refuse|merge|drop");
    command->add_flag("--until-sent", request.untilSent, "End once the hub has all");
}

void declare(CLI::App& app, Request& request)
{
    app.footer(notes);
    app.failure_message([](const CLI::App*, const CLI::Error& error) {
        return std::string("fleet-device: ") + error.what() + " (--help tells more)\n";
    });
    app.require_subcommand(1);
    app.fallthrough(); // so that --trace may follow the command
    app.add_option("--trace", request.traceLevel, "Show the database library's diagnostics")
        ->type_name("LEVEL")
        ->check(CLI::Range(trace::trace_off, trace::trace_debug3));
    addRun(app, request);
    addCommand(app, request, "status", "Show what is to be sent, and the settings",
               "Prints how much waits for the hub, and each setting.", printStatus);
}

} // namespace

int main(int argc, char** argv)
{
    // A file that reaches its size limit then fails like a full disk, and does not end the program.
    std::signal(SIGXFSZ, SIG_IGN);
    std::signal(SIGPIPE, SIG_IGN);

    CLI::App app("A device of the fleet: stores readings, and has them brought to the centre",
                 "fleet-device");
    Request request;
    declare(app, request);
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        return app.exit(error) == 0 ? 0 : 2;
    }
    if (request.traceLevel != trace::trace_off) {
        trace::setLevel(request.traceLevel);
        ::openlog("fleet-device", LOG_PERROR, LOG_USER);
    }
    return request.run();
}
