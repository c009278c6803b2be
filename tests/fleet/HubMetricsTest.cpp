#include "Metrics.h"

#include <gmock/gmock.h>

namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;
using testing::ElementsAre;
using testing::EndsWith;
using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;

DeviceStatus deviceOf(const std::string& name, double behind)
{
    DeviceStatus device;
    device.device = name;
    device.secondsBehind = behind;
    return device;
}

class HubMetricsTest : public testing::Test {
protected:
    HubMetricsTest()
    {
        _state.hub = "hub-1";
        _state.isBrokerUp = true;
        _state.stored = {101, 2020, 3, 4, 5};
        _state.received = 200;
        _state.bytes = 123456789012;
        _state.copies = 6;
        _state.unreadable = 7;
        _state.overflowed = 8;
        _state.settingsSent = 9;
        for (const double taken : {0.001, 0.005, 0.0051, 0.5, 11.0})
            _state.batches.add(taken);
    }

    void lookAt(const std::vector<DeviceStatus>& devices)
    {
        _state.devices = std::make_shared<std::vector<DeviceStatus>>(devices);
        _state.lookedAt = _now - milliseconds(500);
    }

    // The names of the devices in the state as JSON.
    std::vector<std::string> devicesFound(const std::string& find) const
    {
        const std::string json = statusJson(_state, _now, find);
        const std::string before = "{\"device\":\"";
        std::vector<std::string> names;
        for (std::size_t at = json.find(before); at != std::string::npos;
             at = json.find(before, at + 1)) {
            const std::size_t start = at + before.size();
            names.push_back(json.substr(start, json.find('"', start) - start));
        }
        return names;
    }

    Clock::time_point _now = Clock::time_point() + std::chrono::hours(1);
    HubState _state;
};

TEST_F(HubMetricsTest, HubIsTold)
{
    EXPECT_EQ(prometheusText(_state, _now),
              R"(# HELP fleet_hub_broker_up Whether the broker is connected.
# TYPE fleet_hub_broker_up gauge
fleet_hub_broker_up 1
# HELP fleet_hub_centre_up Whether PostgreSQL stores.
# TYPE fleet_hub_centre_up gauge
fleet_hub_centre_up 1
# HELP fleet_hub_sets_received_total Change sets that came.
# TYPE fleet_hub_sets_received_total counter
fleet_hub_sets_received_total 200
# HELP fleet_hub_received_bytes_total Bytes of those.
# TYPE fleet_hub_received_bytes_total counter
fleet_hub_received_bytes_total 123456789012
# HELP fleet_hub_sets_stored_total Change sets stored.
# TYPE fleet_hub_sets_stored_total counter
fleet_hub_sets_stored_total 101
# HELP fleet_hub_rows_stored_total Changes of rows stored.
# TYPE fleet_hub_rows_stored_total counter
fleet_hub_rows_stored_total 2020
# HELP fleet_hub_sets_repeated_total Change sets that had come before.
# TYPE fleet_hub_sets_repeated_total counter
fleet_hub_sets_repeated_total 9
# HELP fleet_hub_sets_refused_total Change sets refused.
# TYPE fleet_hub_sets_refused_total counter
fleet_hub_sets_refused_total 4
# HELP fleet_hub_sets_quarantined_total Change sets put into quarantine.
# TYPE fleet_hub_sets_quarantined_total counter
fleet_hub_sets_quarantined_total 5
# HELP fleet_hub_messages_overflowed_total Messages let go because too many were waiting.
# TYPE fleet_hub_messages_overflowed_total counter
fleet_hub_messages_overflowed_total 8
# HELP fleet_hub_messages_unreadable_total Messages that are none of the fleet's.
# TYPE fleet_hub_messages_unreadable_total counter
fleet_hub_messages_unreadable_total 7
# HELP fleet_hub_settings_sent_total Change sets of settings sent.
# TYPE fleet_hub_settings_sent_total counter
fleet_hub_settings_sent_total 9
# HELP fleet_hub_batch_seconds How long it took to store a batch of change sets.
# TYPE fleet_hub_batch_seconds histogram
fleet_hub_batch_seconds_bucket{le="0.005"} 2
fleet_hub_batch_seconds_bucket{le="0.01"} 3
fleet_hub_batch_seconds_bucket{le="0.025"} 3
fleet_hub_batch_seconds_bucket{le="0.05"} 3
fleet_hub_batch_seconds_bucket{le="0.1"} 3
fleet_hub_batch_seconds_bucket{le="0.25"} 3
fleet_hub_batch_seconds_bucket{le="0.5"} 4
fleet_hub_batch_seconds_bucket{le="1"} 4
fleet_hub_batch_seconds_bucket{le="2.5"} 4
fleet_hub_batch_seconds_bucket{le="5"} 4
fleet_hub_batch_seconds_bucket{le="10"} 4
fleet_hub_batch_seconds_bucket{le="+Inf"} 5
fleet_hub_batch_seconds_sum 11.5111
fleet_hub_batch_seconds_count 5
)");
}

TEST_F(HubMetricsTest, FleetIsToldOnceItIsKnown)
{
    EXPECT_THAT(prometheusText(_state, _now), Not(HasSubstr("fleet_devices")));
    DeviceStatus bad = deviceOf("a", 60);
    bad.lost = 2;
    bad.quarantined = 3;
    bad.waiting = 4;
    bad.refused = "gap";
    lookAt({bad, deviceOf("b", 100000), deviceOf("c", -1), deviceOf("d", 59.5)});
    EXPECT_THAT(prometheusText(_state, _now), EndsWith(R"(# HELP fleet_devices Devices.
# TYPE fleet_devices gauge
fleet_devices 4
# HELP fleet_devices_behind Devices whose latest change set was stored longer ago.
# TYPE fleet_devices_behind gauge
fleet_devices_behind{seconds="60"} 2
fleet_devices_behind{seconds="600"} 1
fleet_devices_behind{seconds="3600"} 1
fleet_devices_behind{seconds="86400"} 1
# HELP fleet_devices_refused Devices whose latest change set was refused.
# TYPE fleet_devices_refused gauge
fleet_devices_refused 1
# HELP fleet_lag_seconds Time since the device furthest behind was stored.
# TYPE fleet_lag_seconds gauge
fleet_lag_seconds 100000.5
# HELP fleet_commits_lost Commits that never come.
# TYPE fleet_commits_lost gauge
fleet_commits_lost 2
# HELP fleet_sets_quarantined Change sets in quarantine.
# TYPE fleet_sets_quarantined gauge
fleet_sets_quarantined 3
# HELP fleet_settings_waiting Change sets of settings not applied yet.
# TYPE fleet_settings_waiting gauge
fleet_settings_waiting 4
# HELP fleet_status_age_seconds Time since the hub looked at the devices.
# TYPE fleet_status_age_seconds gauge
fleet_status_age_seconds 0.5
)"));
}

TEST_F(HubMetricsTest, CentreThatFailsAndBrokerThatIsAwayAreTold)
{
    _state.isBrokerUp = false;
    _state.trouble = "away";
    EXPECT_THAT(prometheusText(_state, _now), HasSubstr("\nfleet_hub_broker_up 0\n"));
    EXPECT_THAT(prometheusText(_state, _now), HasSubstr("\nfleet_hub_centre_up 0\n"));
}

TEST_F(HubMetricsTest, StateIsJson)
{
    _state.trouble = "no \"host\"\n\\ \x01 \xc3\xa4";
    DeviceStatus device = deviceOf("a", 1.25);
    device.number = 17;
    device.rows = 1700;
    device.lost = 1;
    device.quarantined = 2;
    device.reason = "wrong type";
    device.waiting = 3;
    device.refused = "gap";
    lookAt({device});
    _state.stored.rows = 0;
    _state.sample(_now - seconds(4));
    _state.stored.rows = 15;
    _state.sample(_now - seconds(2));
    _state.stored.rows = 16;
    _state.sample(_now - seconds(1));
    EXPECT_EQ(
        statusJson(_state, _now, ""),
        R"({"hub":{"name":"hub-1","broker":true,"trouble":"no \"host\"\u000a\\ \u0001 )"
        "\xc3\xa4"
        R"(","received":200,"bytes":123456789012,"sets":101,"rows":16,"repeated":9,"refused":4,)"
        R"("quarantined":5,"overflowed":8,"unreadable":7},)"
        R"("fleet":{"age":0.500,"devices":1,"behind":1.750,"rows":1700,"lost":1,"quarantined":2,)"
        R"("waiting":3,"refused":1},"rates":[[2.000,7.500],[1.000,1.000]],"found":1,)"
        R"("devices":[{"device":"a","number":17,"behind":1.750,"rows":1700,"lost":1,)"
        R"("quarantined":2,"reason":"wrong type","waiting":3,"refused":"gap"}]})");
}

TEST_F(HubMetricsTest, StateIsJsonBeforeAnythingIsKnown)
{
    const std::string json = statusJson(HubState(), _now, "");
    EXPECT_THAT(json, StartsWith("{\"hub\":{\"name\":\"\",\"broker\":false,\"trouble\":\"\","));
    EXPECT_THAT(json,
                EndsWith(R"("fleet":{"age":0.000,"devices":0,"behind":0.000,"rows":0,"lost":0,)"
                         R"("quarantined":0,"waiting":0,"refused":0},"rates":[],"found":0,)"
                         R"("devices":[]})"));
}

TEST_F(HubMetricsTest, DeviceOfWhichNothingWasStoredIsNotBehind)
{
    lookAt({deviceOf("a", 0), deviceOf("b", -1)});
    EXPECT_THAT(statusJson(_state, _now, "a"), HasSubstr("\"number\":0,\"behind\":0.500,"));
    EXPECT_THAT(statusJson(_state, _state.lookedAt, "a"),
                HasSubstr("\"number\":0,\"behind\":0.000,"));
    EXPECT_THAT(statusJson(_state, _now, "b"), HasSubstr("\"number\":0,\"behind\":null,"));
    EXPECT_THAT(devicesFound(""), ElementsAre("a", "b"));
}

TEST_F(HubMetricsTest, DevicesWithTroubleAndThoseFurthestBehindComeFirst)
{
    DeviceStatus refused = deviceOf("refused", 1);
    refused.refused = "gap";
    DeviceStatus quarantined = deviceOf("quarantined", 2);
    quarantined.quarantined = 1;
    lookAt({deviceOf("b", 3), deviceOf("a", 3), quarantined, deviceOf("late", 9), refused});
    EXPECT_THAT(devicesFound(""), ElementsAre("refused", "quarantined", "late", "a", "b"));
    EXPECT_THAT(devicesFound("a"), ElementsAre("quarantined", "late", "a"));
    EXPECT_THAT(devicesFound("A"), ElementsAre());
}

TEST_F(HubMetricsTest, SoManyDevicesAreInJson)
{
    std::vector<DeviceStatus> devices;
    for (int i = 0; i < 1000; ++i)
        devices.push_back(deviceOf("device-" + std::to_string(i), i));
    lookAt(devices);
    const std::vector<std::string> found = devicesFound("");
    ASSERT_EQ(found.size(), 200);
    EXPECT_EQ(found.front(), "device-999");
    EXPECT_EQ(found.back(), "device-800");
    EXPECT_THAT(statusJson(_state, _now, ""), HasSubstr("\"found\":1000,"));
    EXPECT_THAT(statusJson(_state, _now, "99"), HasSubstr("\"found\":19,"));
}

TEST_F(HubMetricsTest, SamplesAreThoseOfFiveMinutes)
{
    for (int i = 0; i <= 1000; ++i)
        _state.sample(_now + i * milliseconds(500));
    ASSERT_EQ(_state.samples.size(), 301);
    EXPECT_EQ(_state.samples.front().at, _now + seconds(200));
    EXPECT_EQ(_state.samples.back().at, _now + seconds(500));
}

TEST(MetricsTest, ChangesAreSeen)
{
    Metrics metrics("hub-1");
    metrics.change([](HubState& state) { state.received = 3; });
    EXPECT_EQ(metrics.state().hub, "hub-1");
    EXPECT_EQ(metrics.state().received, 3);
}

} // namespace
