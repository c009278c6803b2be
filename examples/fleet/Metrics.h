#ifndef FLEET_METRICS_H
#define FLEET_METRICS_H

#include "Centre.h"

#include <array>
#include <chrono>
#include <deque>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

typedef std::chrono::steady_clock Clock;

// How many took how long.
struct Durations {
    static constexpr std::array<double, 11> limits = {0.005, 0.01, 0.025, 0.05, 0.1, 0.25,
                                                      0.5,   1,    2.5,   5,    10}; // seconds

    void add(double seconds);

    std::array<sql::integer, limits.size() + 1> counts = {}; // up to each limit, and beyond
    double sum = 0;
};

// What a hub has done since it began, and how the fleet stood when it last looked.
struct HubState {
    // How many rows were stored by then.
    struct Sample {
        Clock::time_point at;
        sql::integer rows = 0;
    };

    // Keeps a sample a second, those of the last minutes.
    void sample(Clock::time_point now);

    std::string hub;
    bool isBrokerUp = false;
    std::string trouble; // why the centre is of no use; empty if it is
    CentreCounts stored;
    sql::integer received = 0;     // sets
    sql::integer bytes = 0;        // of those
    sql::integer copies = 0;       // sets that were twice in a batch
    sql::integer unreadable = 0;   // messages
    sql::integer overflowed = 0;   // messages
    sql::integer settingsSent = 0; // sets of settings
    Durations batches;
    std::deque<Sample> samples;
    std::shared_ptr<const std::vector<DeviceStatus>> devices; // null: not looked yet
    Clock::time_point lookedAt;
};

// The state of a hub, which its worker changes while others look at it.
class Metrics {
public:
    explicit Metrics(const std::string& hub);

    HubState state() const;

    template <typename Change> void change(Change change)
    {
        const std::lock_guard<std::mutex> lock(_mutex);
        change(_state);
    }

private:
    mutable std::mutex _mutex;
    HubState _state;
};

// The state in the text format that Prometheus reads.
std::string prometheusText(const HubState& state, Clock::time_point now);

// The state as JSON, with the devices whose name contains a text: those with trouble and those
// furthest behind come first, and only so many.
std::string statusJson(const HubState& state, Clock::time_point now, std::string_view find);

#endif
