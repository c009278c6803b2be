#ifndef FLEET_CENTRE_H
#define FLEET_CENTRE_H

#include "Wire.h"

#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

// A change set that has come from a device.
struct Incoming {
    std::string device;
    std::string header;
    std::string bytes;
};

// A change set of settings that waits for its device.
struct Outgoing {
    std::string device;
    std::string header;
    std::string bytes;
    sql::SyncPosition last;
};

// How a device stands.
struct DeviceStatus {
    std::string device;
    sql::integer number = 0;      // of its latest commit that is stored
    double secondsBehind = 0;     // since its latest set was stored; negative: none was
    sql::integer rows = 0;        // changes stored of it
    sql::integer lost = 0;        // commits that never come
    sql::integer quarantined = 0; // sets
    std::string reason;           // why the oldest of those is there; empty without any
    sql::integer waiting = 0;     // sets of settings that it has not applied yet
    std::string refused;          // why its latest set was refused; empty if it was not
};

// What has become of the sets that one Centre was to store, since it was made.
struct CentreCounts {
    sql::integer sets = 0;        // stored
    sql::integer rows = 0;        // changes in those
    sql::integer repeated = 0;    // sets that had come before
    sql::integer refused = 0;     // sets
    sql::integer quarantined = 0; // sets
};

// How a centre keeps the rows.
struct CentreOptions {
    std::string connection;        // libpq's connection string, perhaps with several hosts
    std::vector<std::string> keep; // tables whose rows stay when a device deletes them
};

// The rows of all devices in PostgreSQL: in the schema "data" a table for each of theirs, keyed by
// device and key, and in the schema "fleet" what the hub itself keeps. Several hubs may work at once.
// Functions return false or nothing on failure, which error() tells; they connect if there is no
// connection, and where that has failed the call can be repeated. One thread at a time.
class Centre {
public:
    explicit Centre(const CentreOptions& options);
    Centre(const Centre&) = delete;
    Centre& operator=(const Centre&) = delete;
    ~Centre();

    // Stores the sets in one transaction, each once and in order. A set that PostgreSQL cannot take
    // goes into the quarantine, and counts as stored. Gives an answer for each; on failure for none,
    // and nothing is to be acknowledged.
    bool store(const std::vector<Incoming>& sets, std::vector<Answer>& answers);

    // Changes a setting of a device; without a value removes it. Makes the set that tells the device.
    bool setSetting(const std::string& device, const std::string& name,
                    const std::optional<std::string>& value);

    // What the settings of a device are to be, by name.
    bool settings(const std::string& device, std::map<std::string, std::string>& values);

    // The oldest set of settings that each of the devices has not applied, of all without names.
    bool outgoing(const std::vector<std::string>& devices, std::vector<Outgoing>& sets);

    // Takes note of what a device has applied; after a refusal all of its sets are sent again.
    bool noteApplied(const std::string& device, const Answer& answer);

    // Takes the set that was refused last as the device's next.
    bool admit(const std::string& device);

    // Stores the device's quarantined sets in their order, as far as they can be. Counts them.
    bool retry(const std::string& device, sql::integer& count);

    // Drops the device's oldest quarantined set. Tells whether there was one.
    bool discard(const std::string& device, bool& isDropped);

    // How the devices stand, by name.
    bool status(std::vector<DeviceStatus>& devices);

    CentreCounts counts() const;
    bool isConnected() const;
    const std::string& error() const;

private:
    struct Core;
    std::unique_ptr<Core> _core;
};

#endif
