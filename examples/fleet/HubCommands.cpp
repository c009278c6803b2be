#include "HubCommands.h"

#include "Hub.h"
#include "Tell.h"
#include "Web.h"

#include <atomic>
#include <csignal>
#include <cstdio>
#include <iostream>

namespace {

std::atomic<bool> isStopped = false;

// A second signal ends the program at once, which costs nothing: what was not stored comes again.
void stopBySignals()
{
    struct sigaction action = {};
    action.sa_handler = [](int) {
        isStopped = true;
    };
    action.sa_flags = static_cast<int>(SA_RESETHAND);
    for (const int signal : {SIGINT, SIGTERM})
        ::sigaction(signal, &action, nullptr);
    std::signal(SIGPIPE, SIG_IGN);
}

std::string lineOf(const std::string& device, const DeviceStatus& status)
{
    char behind[100] = "-";
    if (status.secondsBehind >= 0)
        std::snprintf(behind, sizeof behind, "%.0f", status.secondsBehind);
    char numbers[300] = {};
    std::snprintf(numbers, sizeof numbers, " %12lld %10s %12lld %6lld %11lld %8lld  ",
                  status.number, behind, status.rows, status.lost, status.quarantined,
                  status.waiting);
    return device + numbers + (status.refused.empty() ? "-" : oneLine(status.refused));
}

} // namespace

ExitStatus runHub(const CentreOptions& options, const Running& running)
{
    stopBySignals();
    Metrics metrics(running.name);
    Web web(metrics);
    if (running.webPort && !web.start(running.webAddress, *running.webPort))
        return fail("cannot listen at " + running.webAddress + " port "
                    + std::to_string(*running.webPort));
    if (running.webPort)
        tell("http://" + running.webAddress + ':' + std::to_string(web.port()) + '/');

    Centre centre(options);
    Mqtt mqtt(running.name, false);
    Hub::subscribe(mqtt);
    if (!mqtt.start(running.broker))
        return fail(mqtt.error());
    Hub(mqtt, centre, metrics).run(isStopped);
    return status_success;
}

ExitStatus printStatus(const CentreOptions& options)
{
    Centre centre(options);
    std::vector<DeviceStatus> devices;
    if (!centre.status(devices))
        return fail(centre.error());
    std::size_t width = std::string("device").size();
    for (const DeviceStatus& device : devices)
        width = std::max(width, device.device.size());
    const auto padded = [width](std::string name) {
        name.resize(std::max(width, name.size()), ' ');
        return name;
    };
    std::cout << padded("device")
              << "       number     behind         rows   lost  quarantine  waiting  refused\n";
    for (const DeviceStatus& device : devices)
        std::cout << lineOf(padded(oneLine(device.device)), device) << '\n';
    return status_success;
}

ExitStatus printSettings(const CentreOptions& options, const std::string& device)
{
    Centre centre(options);
    std::map<std::string, std::string> values;
    if (!centre.settings(device, values))
        return fail(centre.error());
    for (const auto& [name, value] : values)
        std::cout << oneLine(name) << ' ' << oneLine(value) << '\n';
    return values.empty() ? status_not_found : status_success;
}

ExitStatus setSetting(const CentreOptions& options, const std::string& device,
                      const std::string& name, const std::optional<std::string>& value)
{
    Centre centre(options);
    return centre.setSetting(device, name, value) ? status_success : fail(centre.error());
}

ExitStatus admit(const CentreOptions& options, const std::string& device)
{
    Centre centre(options);
    return centre.admit(device) ? status_success : fail(centre.error());
}

ExitStatus retry(const CentreOptions& options, const std::string& device)
{
    Centre centre(options);
    sql::integer count = 0;
    if (!centre.retry(device, count))
        return fail(centre.error());
    std::cout << count << " stored\n";
    return status_success;
}

ExitStatus discard(const CentreOptions& options, const std::string& device)
{
    Centre centre(options);
    bool isDropped = false;
    if (!centre.discard(device, isDropped))
        return fail(centre.error());
    std::cout << (isDropped ? "1 discarded\n" : "none discarded\n");
    return isDropped ? status_success : status_not_found;
}

ExitStatus fail(const std::string& text)
{
    tell(text);
    return status_failure;
}
