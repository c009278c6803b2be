// logger: what the sensors of a device tell, stored through power cuts.

#include "Commands.h"

#include "SqlLiteral.h"
#include "TraceLevel.h"

#include <CLI/CLI.hpp>

#include <syslog.h>

#include <csignal>
#include <functional>
#include <iostream>

namespace {

const char* const notes = R"(
Days are those of UTC. Every command brings a database of an older version up
to date, and takes --trace LEVEL, which shows the diagnostics of the database
library on standard error: errors from 3, and more at 7, 8 and 9.

Exit status: 0 success; 1 failure, told in one line on standard error; 2 wrong
use; 3 the database has no such readings.)";

// What the command line asks for.
struct Request {
    std::string database;
    std::string date;
    std::string sensor;
    Recording recording;
    int days = 1;
    int seconds = 10;
    bool asSvg = false;
    int traceLevel = trace::trace_off;
    std::function<ExitStatus()> run;
};

// The beginning of a day.
bool readDate(const std::string& text, TimePoint& midnight)
{
    return text.size() == 10 && sql::fromIso8601(text, midnight);
}

TimePoint midnightOf(const Request& request)
{
    TimePoint midnight;
    readDate(request.date, midnight); // which was checked
    return midnight;
}

std::string refuseUnlessDate(const std::string& text)
{
    TimePoint ignored;
    return readDate(text, ignored) ? "" : "'" + text + "' is no date such as 2009-12-31";
}

std::string refuseEmpty(const std::string& text)
{
    return text.empty() ? "empty file name" : "";
}

CLI::App* addCommand(CLI::App& app, Request& request, const char* name, const char* description,
                     const char* details, std::function<ExitStatus()> run)
{
    CLI::App* const command = app.add_subcommand(name, description);
    command->footer(std::string("\n") + details + "\n" + notes);
    command->add_option("DATABASE", request.database, "The database")
        ->required()
        ->type_name("")
        ->check(refuseEmpty);
    // Callbacks run while the line is parsed: the command itself has to wait until all of it is.
    command->callback([&request, run] { request.run = run; });
    return command;
}

void addDate(CLI::App* command, Request& request)
{
    command->add_option("DATE", request.date, "The day, such as 2009-12-31")
        ->required()
        ->type_name("")
        ->check(refuseUnlessDate);
}

template <typename Value>
CLI::Option* addNumber(CLI::App* command, const char* name, Value& value, const char* unit,
                       int lowest, const char* description)
{
    return command->add_option(name, value, description)
        ->type_name(unit)
        ->capture_default_str()
        ->check(CLI::Range(lowest, 1000000));
}

void addRecord(CLI::App& app, Request& request)
{
    CLI::App* const command = addCommand(
        app, request, "record", "Store the readings that come on standard input",
        R"(A reading is a line: a time, a sensor, a value and perhaps a note, such as

    2009-12-31T23:59:59Z hall 21.5 window open

Readings are committed in groups, which are lost whole if the power fails, or
kept whole. SIGINT and SIGTERM end the program as the end of the input does.
Prints how many readings were stored, and how many were lost: status 1.)",
        [&request] { return record(request.database, request.recording); });
    Recording& recording = request.recording;
    addNumber(command, "--group", recording.group, "N", 1, "Commit so many readings at once");
    addNumber(command, "--within", recording.seconds, "S", 0, "or those of so many seconds");
    addNumber(command, "--keep", recording.days, "DAYS", 0, "Remove those of older days; 0: none");
    command->add_flag("--acknowledge", recording.acknowledges,
                      "Print how many are stored, after each commit");
}

void addSimulate(CLI::App& app, Request& request)
{
    CLI::App* const command = addCommand(
        app, request, "simulate", "Store the readings of simulated days",
        R"(Three sensors each tell a value every few seconds: the same ones for the same
day. Each day is stored as a whole, or not at all. Prints the number of readings.
On a terminal, a bar shows the progress meanwhile.)",
        [&request] {
            return simulate(request.database, midnightOf(request), request.days,
                            std::chrono::seconds(request.seconds));
        });
    addDate(command, request);
    addNumber(command, "--days", request.days, "N", 1, "So many days");
    addNumber(command, "--every", request.seconds, "S", 1,
              "A reading of each sensor every S seconds");
}

void addDays(CLI::App& app, Request& request)
{
    addCommand(app, request, "days", "Print what the readings of each day come to",
               R"(Prints a line for each day and sensor: how many readings there were, the least,
the mean and the greatest. Days whose readings were removed are among them.)",
               [&request] { return printDays(request.database); });
}

void addTidy(CLI::App& app, Request& request)
{
    CLI::App* const command = addCommand(
        app, request, "tidy", "Remove the readings of past days",
        R"(What they come to is kept. The latest of the days to keep is that of the latest
reading. Prints the number of readings.)",
        [&request] { return tidy(request.database, request.days); });
    addNumber(command, "--keep", request.days, "DAYS", 1, "Keep the readings of so many days");
}

void addChart(CLI::App& app, Request& request)
{
    CLI::App* const command = addCommand(
        app, request, "chart", "Show a sensor's day",
        R"(Prints a bar for the mean of each hour; with --svg a line through those of five
minutes, drawn by gnuplot.)",
        [&request] {
            return chart(request.database, midnightOf(request), request.sensor, request.asSvg);
        });
    addDate(command, request);
    command->add_option("SENSOR", request.sensor, "The sensor")->required()->type_name("");
    command->add_flag("--svg", request.asSvg, "Print the chart as SVG");
}

void declare(CLI::App& app, Request& request)
{
    app.footer(notes);
    app.failure_message([](const CLI::App*, const CLI::Error& error) {
        return std::string("logger: ") + error.what() + " (--help tells more)\n";
    });
    app.require_subcommand(1);
    app.fallthrough(); // so that --trace may follow the command
    app.add_option("--trace", request.traceLevel, "Show the database library's diagnostics")
        ->type_name("LEVEL")
        ->check(CLI::Range(trace::trace_off, trace::trace_debug3));
    for (const auto add : {addRecord, addSimulate, addDays, addTidy, addChart})
        add(app, request);
}

void setUpTracing(int level)
{
    if (level == trace::trace_off)
        return;
    trace::setLevel(level);
    ::openlog("logger", LOG_PERROR, LOG_USER);
}

} // namespace

int main(int argc, char** argv)
{
    // A file that reaches its size limit then fails like a full disk, and does not end the program.
    std::signal(SIGXFSZ, SIG_IGN);

    CLI::App app("What the sensors of a device tell, stored through power cuts", "logger");
    Request request;
    declare(app, request);
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        return app.exit(error) == 0 ? status_success : status_wrong_use;
    }

    setUpTracing(request.traceLevel);
    const ExitStatus status = request.run();
    if (!std::cout.flush())
        return fail("standard output cannot be written");
    return status;
}
