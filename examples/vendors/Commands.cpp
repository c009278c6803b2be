#include "Commands.h"

#include "Address.h"
#include "Import.h"
#include "Registry.h"

#include <chrono>
#include <cstdio>
#include <filesystem>
#include <iostream>
#include <optional>

namespace {

typedef std::chrono::steady_clock Clock;

// A name with no control character: it stays on its line and leaves the terminal alone.
std::string printable(std::string text)
{
    for (char& byte : text) {
        if (static_cast<unsigned char>(byte) < ' ' || byte == '\x7f')
            byte = ' ';
    }
    return text;
}

std::string lineOf(const Block& block)
{
    return block.assignment + "  " + printable(block.name);
}

std::string secondsSince(Clock::time_point start)
{
    char text[32];
    std::snprintf(text, sizeof text, "%.2f",
                  std::chrono::duration<double>(Clock::now() - start).count());
    return text;
}

// For writing too, even where nothing is written: SQLite may first have to undo what a program that
// was cut off has left in the file.
bool openExisting(Registry& registry, const std::string& database)
{
    return registry.open(database, sql::Database::access_read_write) && registry.check();
}

// Opens the database for a change to one block, within a transaction, and finds the block.
ExitStatus openForChange(Registry& registry, const std::string& database, const std::string& digits,
                         Block& block)
{
    std::optional<Block> found;
    if (!openExisting(registry, database) || !registry.begin() || !registry.find(digits, found))
        return fail(registry.error());
    if (!found) {
        fail(database + ": no block " + digits);
        return status_not_found;
    }
    block = *found;
    return status_success;
}

} // namespace

ExitStatus importRegistry(const std::string& csvFile, const std::string& database,
                          bool withProgress)
{
    const Clock::time_point start = Clock::now();
    Import import(csvFile);
    if (!import.run(database, withProgress))
        return fail(import.error());
    std::cout << import.rows() << " rows in " << secondsSince(start) << " s, " << import.blocks()
              << " blocks in " << database << '\n';
    return status_success;
}

ExitStatus lookUp(const std::string& database, const std::vector<std::string>& addresses)
{
    Registry registry;
    if (!openExisting(registry, database))
        return fail(registry.error());

    ExitStatus status = status_success;
    for (const std::string& address : addresses) {
        std::optional<Block> found;
        if (!registry.findAddress(addressDigits(address), found))
            return fail(registry.error());
        std::cout << address << "  " << (found ? lineOf(*found) : "unknown") << '\n';
        if (!found)
            status = status_not_found;
    }
    return status;
}

ExitStatus search(const std::string& database, const std::string& text)
{
    Registry registry;
    std::vector<Block> found;
    if (!openExisting(registry, database) || !registry.search(text, found))
        return fail(registry.error());
    for (const Block& block : found)
        std::cout << lineOf(block) << '\n';
    return found.empty() ? status_not_found : status_success;
}

ExitStatus rename(const std::string& database, const std::string& block, const std::string& name)
{
    Registry registry;
    Block found;
    const ExitStatus status = openForChange(registry, database, blockDigits(block), found);
    if (status != status_success)
        return status;
    found.name = name;
    if (!registry.update(found) || !registry.commit())
        return fail(registry.error());
    std::cout << lineOf(found) << '\n';
    return status_success;
}

ExitStatus remove(const std::string& database, const std::string& block)
{
    Registry registry;
    Block found;
    const ExitStatus status = openForChange(registry, database, blockDigits(block), found);
    if (status != status_success)
        return status;
    if (!registry.remove(found.assignment) || !registry.commit())
        return fail(registry.error());
    std::cout << lineOf(found) << '\n';
    return status_success;
}

ExitStatus backUp(const std::string& database, const std::string& copy)
{
    std::error_code ignored;
    if (std::filesystem::equivalent(database, copy, ignored))
        return fail(copy + ": the same file as " + database);

    Registry source;
    if (!openExisting(source, database) || !source.beginReading())
        return fail(source.error());
    Registry target;
    int blocks = 0;
    if (!target.open(copy, sql::Database::access_create) || !target.begin() || !target.prepare()
        || !target.copyFrom(source) || !target.count(blocks) || !target.commit())
        return fail(target.error());
    std::cout << blocks << " blocks copied to " << copy << '\n';
    return status_success;
}

ExitStatus info(const std::string& database)
{
    Registry registry;
    int blocks = 0;
    int version = 0;
    if (!openExisting(registry, database) || !registry.count(blocks) || !registry.version(version))
        return fail(registry.error());
    std::cout << "rows: " << blocks << "\nuser version: " << version << "\ncolumns:\n";
    for (const std::string& column : registry.columns())
        std::cout << "  " << column << '\n';
    return status_success;
}

ExitStatus fail(const std::string& text)
{
    std::cerr << "vendors: " << text << '\n';
    return status_failure;
}
