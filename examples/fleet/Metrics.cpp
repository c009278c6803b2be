#include "Metrics.h"

#include <algorithm>
#include <charconv>
#include <cstdio>
#include <tuple>

namespace {

constexpr std::chrono::seconds sample_interval(1);
constexpr std::chrono::minutes kept_samples(5);
constexpr std::size_t most_devices = 200;                            // shown at once
constexpr std::array<int, 4> behind_limits = {60, 600, 3600, 86400}; // seconds

double secondsOf(Clock::duration duration)
{
    return std::chrono::duration<double>(duration).count();
}

// Whatever the locale.
template <typename Number> std::string textOf(Number number)
{
    char text[32] = {};
    return std::string(text, std::to_chars(text, text + sizeof text, number).ptr);
}

std::string secondsText(double seconds)
{
    char text[32] = {};
    return std::string(
        text, std::to_chars(text, text + sizeof text, seconds, std::chars_format::fixed, 3).ptr);
}

// Negative still if nothing of the device was stored.
double behindNow(const DeviceStatus& device, double age)
{
    return device.secondsBehind < 0 ? -1 : device.secondsBehind + age;
}

// What the devices come to.
struct Totals {
    Totals(const HubState& state, Clock::time_point now)
    {
        if (!state.devices)
            return;
        age = secondsOf(now - state.lookedAt);
        for (const DeviceStatus& device : *state.devices)
            add(device);
    }

    void add(const DeviceStatus& device)
    {
        const double seconds = behindNow(device, age);
        ++devices;
        furthest = std::max(furthest, seconds);
        for (std::size_t i = 0; i < behind_limits.size(); ++i)
            behind[i] += seconds > behind_limits[i];
        rows += device.rows;
        lost += device.lost;
        quarantined += device.quarantined;
        waiting += device.waiting;
        refused += !device.refused.empty();
    }

    double age = 0;
    double furthest = 0;
    std::array<sql::integer, behind_limits.size()> behind = {};
    sql::integer devices = 0;
    sql::integer rows = 0;
    sql::integer lost = 0;
    sql::integer quarantined = 0;
    sql::integer waiting = 0;
    sql::integer refused = 0;
};

// Lines of Prometheus' format.
class Exposition {
public:
    void counter(const char* name, const char* help, sql::integer value)
    {
        family(name, "counter", help);
        sample(name, textOf(value));
    }

    template <typename Number> void gauge(const char* name, const char* help, Number value)
    {
        family(name, "gauge", help);
        sample(name, textOf(value));
    }

    void family(const std::string& name, const char* type, const char* help)
    {
        _text.append("# HELP ").append(name).append(" ").append(help);
        _text.append("\n# TYPE ").append(name).append(" ").append(type).append("\n");
    }

    void sample(const std::string& name, const std::string& value)
    {
        _text.append(name).append(" ").append(value).append("\n");
    }

    const std::string& text() const
    {
        return _text;
    }

private:
    std::string _text;
};

std::string withLabel(std::string name, const char* label, const std::string& value)
{
    return name.append("{").append(label).append("=\"").append(value).append("\"}");
}

void addBatches(Exposition& text, const Durations& batches)
{
    const std::string name = "fleet_hub_batch_seconds";
    text.family(name, "histogram", "How long it took to store a batch of change sets.");
    sql::integer count = 0;
    for (std::size_t i = 0; i < batches.counts.size(); ++i) {
        const std::string limit = i < Durations::limits.size() ? textOf(Durations::limits.at(i))
                                                               : "+Inf";
        count += batches.counts.at(i);
        text.sample(withLabel(name + "_bucket", "le", limit), textOf(count));
    }
    text.sample(name + "_sum", textOf(batches.sum));
    text.sample(name + "_count", textOf(count));
}

void addHub(Exposition& text, const HubState& state)
{
    text.gauge("fleet_hub_broker_up", "Whether the broker is connected.", int(state.isBrokerUp));
    text.gauge("fleet_hub_centre_up", "Whether PostgreSQL stores.", int(state.trouble.empty()));
    text.counter("fleet_hub_sets_received_total", "Change sets that came.", state.received);
    text.counter("fleet_hub_received_bytes_total", "Bytes of those.", state.bytes);
    text.counter("fleet_hub_sets_stored_total", "Change sets stored.", state.stored.sets);
    text.counter("fleet_hub_rows_stored_total", "Changes of rows stored.", state.stored.rows);
    text.counter("fleet_hub_sets_repeated_total", "Change sets that had come before.",
                 state.stored.repeated + state.copies);
    text.counter("fleet_hub_sets_refused_total", "Change sets refused.", state.stored.refused);
    text.counter("fleet_hub_sets_quarantined_total", "Change sets put into quarantine.",
                 state.stored.quarantined);
    text.counter("fleet_hub_messages_overflowed_total",
                 "Messages let go because too many were waiting.", state.overflowed);
    text.counter("fleet_hub_messages_unreadable_total", "Messages that are none of the fleet's.",
                 state.unreadable);
    text.counter("fleet_hub_settings_sent_total", "Change sets of settings sent.",
                 state.settingsSent);
    addBatches(text, state.batches);
}

// As numbers of devices, so that they stay few however many devices there are.
void addFleet(Exposition& text, const Totals& totals)
{
    text.gauge("fleet_devices", "Devices.", totals.devices);
    text.family("fleet_devices_behind", "gauge",
                "Devices whose latest change set was stored longer ago.");
    for (std::size_t i = 0; i < behind_limits.size(); ++i)
        text.sample(withLabel("fleet_devices_behind", "seconds", textOf(behind_limits.at(i))),
                    textOf(totals.behind.at(i)));
    text.gauge("fleet_devices_refused", "Devices whose latest change set was refused.",
               totals.refused);
    text.gauge("fleet_lag_seconds", "Time since the device furthest behind was stored.",
               totals.furthest);
    text.gauge("fleet_commits_lost", "Commits that never come.", totals.lost);
    text.gauge("fleet_sets_quarantined", "Change sets in quarantine.", totals.quarantined);
    text.gauge("fleet_settings_waiting", "Change sets of settings not applied yet.",
               totals.waiting);
    text.gauge("fleet_status_age_seconds", "Time since the hub looked at the devices.", totals.age);
}

std::string quoted(std::string_view text)
{
    std::string result = "\"";
    for (const char byte : text) {
        char escape[8] = {};
        if (byte == '"' || byte == '\\')
            std::snprintf(escape, sizeof escape, "\\%c", byte);
        else if (static_cast<unsigned char>(byte) < ' ')
            std::snprintf(escape, sizeof escape, "\\u%04x", static_cast<unsigned>(byte));
        else
            escape[0] = byte;
        result += escape;
    }
    return result + '"';
}

// Members of a JSON object.
class Members {
public:
    void add(const char* name, const std::string& json)
    {
        _text += (_text.empty() ? "\"" : ",\"") + std::string(name) + "\":" + json;
    }
    void add(const char* name, sql::integer number)
    {
        add(name, textOf(number));
    }

    std::string object() const
    {
        return '{' + _text + '}';
    }

private:
    std::string _text;
};

template <typename Items, typename Json> std::string arrayOf(const Items& items, const Json& json)
{
    std::string text;
    for (const auto& item : items)
        text += (text.empty() ? "" : ",") + json(item);
    return '[' + text + ']';
}

std::string deviceJson(const DeviceStatus& device, double age)
{
    Members members;
    members.add("device", quoted(device.device));
    members.add("number", device.number);
    const double behind = behindNow(device, age);
    members.add("behind", behind < 0 ? "null" : secondsText(behind));
    members.add("rows", device.rows);
    members.add("lost", device.lost);
    members.add("quarantined", device.quarantined);
    members.add("reason", quoted(device.reason));
    members.add("waiting", device.waiting);
    members.add("refused", quoted(device.refused));
    return members.object();
}

bool comesFirst(const DeviceStatus* one, const DeviceStatus* other)
{
    const auto order = [](const DeviceStatus* device) {
        return std::make_tuple(device->refused.empty(), device->quarantined == 0,
                               -device->secondsBehind, std::string_view(device->device));
    };
    return order(one) < order(other);
}

std::vector<const DeviceStatus*> foundDevices(const HubState& state, std::string_view find)
{
    std::vector<const DeviceStatus*> found;
    if (!state.devices)
        return found;
    for (const DeviceStatus& device : *state.devices) {
        if (device.device.find(find) != std::string::npos)
            found.push_back(&device);
    }
    return found;
}

std::string fleetJson(const Totals& totals)
{
    Members members;
    members.add("age", secondsText(totals.age));
    members.add("devices", totals.devices);
    members.add("behind", secondsText(totals.furthest));
    members.add("rows", totals.rows);
    members.add("lost", totals.lost);
    members.add("quarantined", totals.quarantined);
    members.add("waiting", totals.waiting);
    members.add("refused", totals.refused);
    return members.object();
}

std::string hubJson(const HubState& state)
{
    Members members;
    members.add("name", quoted(state.hub));
    members.add("broker", state.isBrokerUp ? "true" : "false");
    members.add("trouble", quoted(state.trouble));
    members.add("received", state.received);
    members.add("bytes", state.bytes);
    members.add("sets", state.stored.sets);
    members.add("rows", state.stored.rows);
    members.add("repeated", state.stored.repeated + state.copies);
    members.add("refused", state.stored.refused);
    members.add("quarantined", state.stored.quarantined);
    members.add("overflowed", state.overflowed);
    members.add("unreadable", state.unreadable);
    return members.object();
}

// Pairs of seconds ago and rows per second.
std::string ratesJson(const HubState& state, Clock::time_point now)
{
    std::string text;
    for (std::size_t i = 1; i < state.samples.size(); ++i) {
        const HubState::Sample& from = state.samples[i - 1];
        const HubState::Sample& to = state.samples[i];
        const double rate = static_cast<double>(to.rows - from.rows) / secondsOf(to.at - from.at);
        text += (text.empty() ? "[" : ",[") + secondsText(secondsOf(now - to.at)) + ','
                + secondsText(rate) + ']';
    }
    return '[' + text + ']';
}

} // namespace

void Durations::add(double seconds)
{
    const auto index = std::distance(limits.begin(),
                                     std::lower_bound(limits.begin(), limits.end(), seconds));
    ++counts.at(static_cast<std::size_t>(index));
    sum += seconds;
}

void HubState::sample(Clock::time_point now)
{
    if (!samples.empty() && now - samples.back().at < sample_interval)
        return;
    samples.push_back({now, stored.rows});
    while (now - samples.front().at > kept_samples)
        samples.pop_front();
}

Metrics::Metrics(const std::string& hub)
{
    _state.hub = hub;
}

HubState Metrics::state() const
{
    const std::lock_guard<std::mutex> lock(_mutex);
    return _state;
}

std::string prometheusText(const HubState& state, Clock::time_point now)
{
    Exposition text;
    addHub(text, state);
    if (state.devices)
        addFleet(text, Totals(state, now));
    return text.text();
}

std::string statusJson(const HubState& state, Clock::time_point now, std::string_view find)
{
    const Totals totals(state, now);
    std::vector<const DeviceStatus*> found = foundDevices(state, find);
    const std::size_t shown = std::min(found.size(), most_devices);
    std::partial_sort(found.begin(), found.begin() + static_cast<std::ptrdiff_t>(shown),
                      found.end(), comesFirst);
    Members members;
    members.add("hub", hubJson(state));
    members.add("fleet", fleetJson(totals));
    members.add("rates", ratesJson(state, now));
    members.add("found", static_cast<sql::integer>(found.size()));
    found.resize(shown);
    members.add("devices", arrayOf(found, [&totals](const DeviceStatus* device) {
                    return deviceJson(*device, totals.age);
                }));
    return members.object();
}
