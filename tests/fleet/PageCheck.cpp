// Serves the page of a hub with an invented state. Its lines on standard input change that.

#include "Web.h"

#include <cmath>
#include <iostream>
#include <sstream>

namespace {

// Five minutes in which rows came, in waves.
void addSamples(HubState& state)
{
    const Clock::time_point now = Clock::now();
    for (int second = 0; second <= 300; ++second) {
        state.sample(now - std::chrono::seconds(300 - second));
        state.stored.rows += second > 290 ? 1200
                                          : std::llround(900 + 600 * std::sin(second / 20.0));
    }
}

void addDevices(HubState& state, int count)
{
    auto devices = std::make_shared<std::vector<DeviceStatus>>();
    for (int i = 1; i <= count; ++i) {
        DeviceStatus& device = devices->emplace_back();
        device.device = "device-" + std::to_string(i);
        device.number = 1000 + i;
        device.rows = 100 * i;
        device.secondsBehind = i;
    }
    state.devices = devices;
    state.lookedAt = Clock::now();
}

// A device in trouble, whose texts are no markup whatever is in them.
void addTrouble(HubState& state)
{
    auto devices = std::make_shared<std::vector<DeviceStatus>>(*state.devices);
    DeviceStatus& refused = devices->at(0);
    refused.refused = "<b>sets are missing</b> before commit 1001 of a device whose name is long";
    DeviceStatus& quarantined = devices->at(1);
    quarantined.quarantined = 2;
    quarantined.reason = "table 'reading', insert: there is a row with this key here";
    quarantined.lost = 3;
    quarantined.waiting = 4;
    quarantined.secondsBehind = 187500;
    devices->at(2).secondsBehind = -1;
    state.devices = devices;
}

void change(HubState& state, const std::string& line)
{
    std::istringstream words(line);
    std::string what;
    int count = 0;
    words >> what >> count;
    if (what == "samples")
        addSamples(state);
    else if (what == "devices")
        addDevices(state, count);
    else if (what == "trouble")
        addTrouble(state);
    else if (what == "overflow")
        state.overflowed = count;
    else if (what == "away")
        state.trouble = "connection to server failed: Connection refused";
    else if (what == "back")
        state.trouble.clear();
}

} // namespace

int main()
{
    Metrics metrics("hub-1");
    metrics.change([](HubState& state) { state.isBrokerUp = true; });
    Web web(metrics);
    if (!web.start("127.0.0.1", 0))
        return 1;
    std::cout << web.port() << std::endl;
    for (std::string line; std::getline(std::cin, line);) {
        metrics.change([&line](HubState& state) { change(state, line); });
        std::cout << "done" << std::endl;
    }
    return 0;
}
