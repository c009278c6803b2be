#ifndef VENDORS_COMMANDS_H
#define VENDORS_COMMANDS_H

#include <string>
#include <vector>

// What the program ends with.
enum ExitStatus {
    status_success = 0,
    status_failure = 1, // a line on standard error says why
    status_wrong_use = 2,
    status_not_found = 3,
};

// The program's commands. Each prints its results on standard output, and what went wrong in one
// line on standard error. Blocks and addresses are in one of the usual notations.
ExitStatus importRegistry(const std::string& csvFile, const std::string& database,
                          bool withProgress);
ExitStatus lookUp(const std::string& database, const std::vector<std::string>& addresses);
ExitStatus search(const std::string& database, const std::string& text);
ExitStatus rename(const std::string& database, const std::string& block, const std::string& name);
ExitStatus remove(const std::string& database, const std::string& block);
ExitStatus backUp(const std::string& database, const std::string& copy);
ExitStatus info(const std::string& database);

// Prints a line on standard error and returns status_failure.
ExitStatus fail(const std::string& text);

#endif
