#ifndef LOGGER_COMMANDS_H
#define LOGGER_COMMANDS_H

#include "Recorder.h"

// What the program ends with.
enum ExitStatus {
    status_success = 0,
    status_failure = 1, // a line on standard error says why
    status_wrong_use = 2,
    status_not_found = 3,
};

// The program's commands. Each prints its results on standard output, and what went wrong in one
// line on standard error. Days begin at their midnight of UTC.
ExitStatus record(const std::string& database, const Recording& recording);
ExitStatus simulate(const std::string& database, TimePoint midnight, int days,
                    std::chrono::seconds interval);
ExitStatus tidy(const std::string& database, int days);
ExitStatus printDays(const std::string& database);
ExitStatus chart(const std::string& database, TimePoint midnight, const std::string& sensor,
                 bool asSvg);

// Prints a line on standard error and returns status_failure.
ExitStatus fail(const std::string& text);

#endif
