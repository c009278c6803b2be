#ifndef FLEET_HUBCOMMANDS_H
#define FLEET_HUBCOMMANDS_H

#include "Centre.h"
#include "Mqtt.h"

#include <optional>
#include <string>

// What the program ends with.
enum ExitStatus {
    status_success = 0,
    status_failure = 1, // a line on standard error says why
    status_wrong_use = 2,
    status_not_found = 3,
};

// How a hub runs.
struct Running {
    Broker broker;
    std::string name = "hub-1";
    std::string webAddress = "127.0.0.1";
    std::optional<int> webPort; // none: no web server
};

// The program's commands. Each prints its results on standard output, and what went wrong in one
// line on standard error.
ExitStatus runHub(const CentreOptions& options, const Running& running);
ExitStatus printStatus(const CentreOptions& options);
ExitStatus printSettings(const CentreOptions& options, const std::string& device);
ExitStatus setSetting(const CentreOptions& options, const std::string& device,
                      const std::string& name, const std::optional<std::string>& value);
ExitStatus admit(const CentreOptions& options, const std::string& device);
ExitStatus retry(const CentreOptions& options, const std::string& device);
ExitStatus discard(const CentreOptions& options, const std::string& device);

// Prints a line on standard error and returns status_failure.
ExitStatus fail(const std::string& text);

#endif
