// fleet-hub: stores what the devices of a fleet send in PostgreSQL, and sends them their settings.

#include "HubCommands.h"

#include <CLI/CLI.hpp>

#include <functional>
#include <iostream>

namespace {

const char* const notes = R"(
CONNINFO is a connection string of PostgreSQL, such as
"host=one,two dbname=fleet target_session_attrs=read-write"; it can be given as
the environment variable FLEET_CONNECTION, and its password by PGPASSFILE.

Exit status: 0 success; 1 failure, told in one line on standard error; 2 wrong
use; 3 there is no such thing.)";

// What the command line asks for.
struct Request {
    CentreOptions centre;
    Running running;
    std::string device;
    std::string name;
    std::optional<std::string> value;
    std::function<ExitStatus()> run;
};

CLI::App* addCommand(CLI::App& app, Request& request, const char* name, const char* description,
                     const char* details, std::function<ExitStatus()> run)
{
    CLI::App* const command = app.add_subcommand(name, description);
    command->footer(std::string("\n") + details + "\n" + notes);
    command->add_option("--connection", request.centre.connection, "Where PostgreSQL is")
        ->type_name("CONNINFO")
        ->envname("FLEET_CONNECTION")
        ->required();
    // Callbacks run while the line is parsed: the command itself has to wait until all of it is.
    command->callback([&request, run] { request.run = run; });
    return command;
}

// A name is a level of topics.
std::string refuseUnlessName(const std::string& text)
{
    return text.empty() || text.find_first_of("/+#") != std::string::npos
               ? "'" + text + "' is no name of a device"
               : "";
}

CLI::Option* addDevice(CLI::App* command, Request& request)
{
    return command->add_option("DEVICE", request.device, "The device")
        ->required()
        ->type_name("")
        ->check(refuseUnlessName);
}

void addBroker(CLI::App* command, Broker& broker)
{
    command->add_option("--broker", broker.host, "Where the broker is")
        ->type_name("HOST")
        ->capture_default_str();
    command->add_option("--port", broker.port, "Its port")
        ->type_name("P")
        ->capture_default_str()
        ->check(CLI::Range(1, 65535));
    CLI::Option* const authority = command->add_option("--authority", broker.authority,
                                                       "Whose certificates are believed");
    CLI::Option* const certificate = command->add_option("--certificate", broker.certificate,
                                                         "This hub's certificate");
    CLI::Option* const key = command->add_option("--key", broker.key, "The key of that");
    for (CLI::Option* const option : {authority, certificate, key})
        option->type_name("FILE")->check(CLI::ExistingFile);
    certificate->needs(authority)->needs(key);
    key->needs(certificate);
}

void addRun(CLI::App& app, Request& request)
{
    CLI::App* const command = addCommand(
        app, request, "run", "Store what the devices send",
        R"(Goes on until SIGINT or SIGTERM, and tries again whatever fails. Several hubs can
run side by side, each by a name of its own. Certificates are PEM files; without
them the broker is spoken to in clear, which is for measurements.

The web server shows a page at /, and numbers for Prometheus at /metrics. It has
no login: let it listen where only those come who may see the fleet.)",
        [&request] { return runHub(request.centre, request.running); });
    Running& running = request.running;
    addBroker(command, running.broker);
    command->add_option("--name", running.name, "This hub's name")
        ->type_name("NAME")
        ->capture_default_str();
    command
        ->add_option("--keep", request.centre.keep,
                     "Keep the rows of these tables when devices delete them")
        ->type_name("TABLE");
    command->add_option("--web", running.webPort, "Serve the page at this port; 0: any free one")
        ->type_name("PORT")
        ->check(CLI::Range(0, 65535));
    command->add_option("--web-address", running.webAddress, "and at this address")
        ->type_name("ADDRESS")
        ->capture_default_str();
}

void addStatus(CLI::App& app, Request& request)
{
    addCommand(app, request, "status", "Print how the devices stand",
               R"(Prints a line for each device: its name, the number of its latest commit that is
stored, seconds since its latest set was stored, rows stored, commits that never
come, sets in quarantine, sets of settings that it has not applied yet, and why
its latest set was refused.)",
               [&request] { return printStatus(request.centre); });
}

void addSettings(CLI::App& app, Request& request)
{
    addDevice(addCommand(app, request, "settings", "Print the settings that a device is to have",
                         R"(Prints a line for each setting, with name and value.)",
                         [&request] { return printSettings(request.centre, request.device); }),
              request);
}

void addSet(CLI::App& app, Request& request)
{
    CLI::App* const command = addCommand(
        app, request, "set", "Change a setting of a device",
        R"(Without a value removes the setting. A hub that runs sends it to the device, whose
status shows until then that settings are waiting.)",
        [&request] {
            return setSetting(request.centre, request.device, request.name, request.value);
        });
    addDevice(command, request);
    command->add_option("NAME", request.name, "The setting")->required()->type_name("");
    command->add_option("VALUE", request.value, "Its value")->type_name("");
}

void addRepairs(CLI::App& app, Request& request)
{
    addDevice(
        addCommand(
            app, request, "admit", "Let a device go on whose set was refused",
            R"(Takes the set that was refused last as the device's next. For a device whose file
was lost or restored from a copy.)",
            [&request] { return admit(request.centre, request.device); }),
        request);
    addDevice(addCommand(app, request, "retry", "Store a device's sets in quarantine",
                         R"(In their order, as far as they can be stored. Prints how many.)",
                         [&request] { return retry(request.centre, request.device); }),
              request);
    addDevice(addCommand(app, request, "discard", "Drop a device's oldest set in quarantine",
                         R"(Its changes are lost. Prints whether there was one.)",
                         [&request] { return discard(request.centre, request.device); }),
              request);
}

void declare(CLI::App& app, Request& request)
{
    app.footer(notes);
    app.failure_message([](const CLI::App*, const CLI::Error& error) {
        return std::string("fleet-hub: ") + error.what() + " (--help tells more)\n";
    });
    app.require_subcommand(1);
    for (const auto add : {addRun, addStatus, addSettings, addSet, addRepairs})
        add(app, request);
}

} // namespace

int main(int argc, char** argv)
{
    CLI::App app("Stores what the devices of a fleet send in PostgreSQL", "fleet-hub");
    Request request;
    declare(app, request);
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        return app.exit(error) == 0 ? status_success : status_wrong_use;
    }

    const ExitStatus status = request.run();
    if (!std::cout.flush())
        return fail("standard output cannot be written");
    return status;
}
