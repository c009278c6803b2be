// vendors: which maker does a network address belong to?

#include "Address.h"
#include "Commands.h"
#include "TraceLevel.h"

#include <CLI/CLI.hpp>

#include <syslog.h>

#include <csignal>
#include <functional>
#include <iostream>
#include <string>
#include <vector>

namespace {

const char* const notes = R"(
Addresses are written 00:22:72:0a:0b:0c, 00-22-72-0A-0B-0C, 0022.720a.0b0c or
0022720A0B0C; blocks likewise, with 6, 7 or 9 digits.

Every command takes --trace LEVEL, which shows the diagnostics of the database
library on standard error: errors from 3, and more at 7, 8 and 9.

Exit status: 0 success; 1 failure, told in one line on standard error; 2 wrong
use; 3 the database has no such address, name or block.)";

// What the command line asks for.
struct Request {
    std::string file;
    std::string database;
    std::vector<std::string> addresses;
    std::string block;
    std::string text;
    int traceLevel = trace::trace_off;
    std::function<ExitStatus()> run;
};

std::string refuseUnlessAddress(const std::string& text)
{
    return addressDigits(text).empty() ? "'" + text + "' is no network address" : std::string();
}

std::string refuseUnlessBlock(const std::string& text)
{
    return blockDigits(text).empty() ? "'" + text + "' is no block of addresses" : std::string();
}

std::string refuseEmpty(const std::string& text)
{
    return text.empty() ? "empty file name" : std::string();
}

CLI::App* addCommand(CLI::App& app, const char* name, const char* description, const char* details)
{
    CLI::App* const command = app.add_subcommand(name, description);
    command->footer(std::string("\n") + details + "\n" + notes);
    return command;
}

template <typename Value>
CLI::Option* addArgument(CLI::App* command, const char* name, Value& value, const char* description)
{
    return command->add_option(name, value, description)->required()->type_name("");
}

void addFile(CLI::App* command, const char* name, std::string& value, const char* description)
{
    addArgument(command, name, value, description)->check(refuseEmpty);
}

void addBlock(CLI::App* command, Request& request)
{
    addArgument(command, "BLOCK", request.block, "The block")->check(refuseUnlessBlock);
}

// Callbacks run while the line is parsed: the command itself has to wait until all of it is.
void onceParsed(CLI::App* command, Request& request, std::function<ExitStatus()> run)
{
    command->callback([&request, run] { request.run = run; });
}

void addImport(CLI::App& app, Request& request)
{
    CLI::App* const command = addCommand(
        app, "import", "Put a registry's file into a database",
        R"(All of its records are put there, or none. A block that the database has already
is updated; of several records for one block, the last one counts. A database
that is missing is made.

Prints the number of records, the time they took and the number of blocks that
the database has then. On a terminal, a bar shows the progress meanwhile.)");
    addFile(command, "FILE.csv", request.file, "The file, as the registry publishes it");
    addFile(command, "DATABASE", request.database, "The database");
    onceParsed(command, request, [&request] {
        // Bar and diagnostics would tear each other apart.
        const bool withProgress = request.traceLevel == trace::trace_off;
        return importRegistry(request.file, request.database, withProgress);
    });
}

void addLookup(CLI::App& app, Request& request)
{
    CLI::App* const command = addCommand(
        app, "lookup", "Print which makers addresses belong to",
        R"(Prints a line for every address: the address, the smallest block that it is in
and the maker's name, or the address and "unknown".)");
    addFile(command, "DATABASE", request.database, "The database");
    addArgument(command, "ADDRESS", request.addresses, "Addresses")->check(refuseUnlessAddress);
    onceParsed(command, request,
               [&request] { return lookUp(request.database, request.addresses); });
}

void addSearch(CLI::App& app, Request& request)
{
    CLI::App* const command = addCommand(
        app, "search", "Print the blocks of makers whose name contains a text",
        R"(Prints a line for every block, with block and name, in the order of the names.
Capitals and small letters from A to Z are the same; all other characters stand
for themselves. Put -- in front of a text that begins with a hyphen.)");
    addFile(command, "DATABASE", request.database, "The database");
    addArgument(command, "TEXT", request.text, "The text");
    onceParsed(command, request, [&request] { return search(request.database, request.text); });
}

void addRename(CLI::App& app, Request& request)
{
    CLI::App* const command = addCommand(
        app, "rename", "Give the maker that has a block another name",
        R"(The name lasts until the block is imported again. Prints the block with its new
name.)");
    addFile(command, "DATABASE", request.database, "The database");
    addBlock(command, request);
    addArgument(command, "NAME", request.text, "The new name");
    onceParsed(command, request,
               [&request] { return rename(request.database, request.block, request.text); });
}

void addRemove(CLI::App& app, Request& request)
{
    CLI::App* const command = addCommand(app, "remove", "Remove a block",
                                         R"(Prints the block and the name that it had.)");
    addFile(command, "DATABASE", request.database, "The database");
    addBlock(command, request);
    onceParsed(command, request, [&request] { return remove(request.database, request.block); });
}

void addBackup(CLI::App& app, Request& request)
{
    CLI::App* const command = addCommand(
        app, "backup", "Copy all blocks to another database",
        R"(They replace what the other database has; one that is missing is made. A failure
leaves it as it was. Prints the number of blocks.)");
    addFile(command, "DATABASE", request.database, "The database");
    addFile(command, "OTHER", request.file, "The other database");
    onceParsed(command, request, [&request] { return backUp(request.database, request.file); });
}

void addInfo(CLI::App& app, Request& request)
{
    CLI::App* const command = addCommand(
        app, "info", "Describe a database",
        R"(Prints the number of rows, the user version and the columns.)");
    addFile(command, "DATABASE", request.database, "The database");
    onceParsed(command, request, [&request] { return info(request.database); });
}

void declare(CLI::App& app, Request& request)
{
    app.footer(notes);
    app.failure_message([](const CLI::App*, const CLI::Error& error) {
        return std::string("vendors: ") + error.what() + " (--help tells more)\n";
    });
    app.require_subcommand(1);
    app.fallthrough(); // so that --trace may follow the command
    app.add_option("--trace", request.traceLevel, "Show the database library's diagnostics")
        ->type_name("LEVEL")
        ->check(CLI::Range(trace::trace_off, trace::trace_debug3));
    for (const auto add :
         {addImport, addLookup, addSearch, addRename, addRemove, addBackup, addInfo})
        add(app, request);
}

void setUpTracing(int level)
{
    if (level == trace::trace_off)
        return;
    trace::setLevel(level);
    ::openlog("vendors", LOG_PERROR, LOG_USER);
}

} // namespace

int main(int argc, char** argv)
{
    // A file that reaches its size limit then fails like a full disk, and does not end the program.
    std::signal(SIGXFSZ, SIG_IGN);

    CLI::App app("Which maker does a network address belong to?", "vendors");
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
