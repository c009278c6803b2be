#include "Web.h"

#include "Page.h"

#include <gmock/gmock.h>
#include <httplib.h>

namespace {

using testing::HasSubstr;
using testing::StartsWith;

class HubWebTest : public testing::Test {
protected:
    HubWebTest()
    {
        EXPECT_TRUE(_web.start("127.0.0.1", 0));
    }

    httplib::Response get(const std::string& path)
    {
        httplib::Client client("127.0.0.1", _web.port());
        const httplib::Result result = client.Get(path);
        return result ? *result : httplib::Response();
    }

    Metrics _metrics{"hub-1"};
    Web _web{_metrics};
};

TEST_F(HubWebTest, PageIsShown)
{
    const httplib::Response response = get("/");
    EXPECT_EQ(response.status, 200);
    EXPECT_EQ(response.body, page);
    EXPECT_THAT(response.body, StartsWith("<!DOCTYPE html>\n"));
    EXPECT_EQ(response.get_header_value("Content-Type"), "text/html; charset=utf-8");
    EXPECT_EQ(response.get_header_value("Cache-Control"), "no-store");
    EXPECT_EQ(response.get_header_value("X-Content-Type-Options"), "nosniff");
    EXPECT_EQ(response.get_header_value("Content-Security-Policy"),
              "default-src 'none'; script-src 'unsafe-inline'; style-src 'unsafe-inline'; "
              "connect-src 'self'; img-src data:");
}

TEST_F(HubWebTest, StateIsShown)
{
    _metrics.change([](HubState& state) {
        state.received = 17;
        state.devices = std::make_shared<std::vector<DeviceStatus>>(2);
    });
    httplib::Response response = get("/metrics");
    EXPECT_EQ(response.status, 200);
    EXPECT_EQ(response.get_header_value("Content-Type"), "text/plain; version=0.0.4");
    EXPECT_THAT(response.body, HasSubstr("\nfleet_hub_sets_received_total 17\n"));

    response = get("/status.json");
    EXPECT_EQ(response.get_header_value("Content-Type"), "application/json");
    EXPECT_THAT(response.body, StartsWith("{\"hub\":{\"name\":\"hub-1\","));
    EXPECT_THAT(response.body, HasSubstr("\"found\":2,"));
    EXPECT_THAT(get("/status.json?find=a%20b").body, HasSubstr("\"found\":0,"));
}

TEST_F(HubWebTest, NothingElseIsThere)
{
    EXPECT_EQ(get("/favicon.ico").status, 404);
    EXPECT_EQ(get("/metrics/x").status, 404);
    httplib::Client client("127.0.0.1", _web.port());
    EXPECT_EQ(client.Post("/status.json")->status, 404);
}

TEST_F(HubWebTest, PortIsNotShared)
{
    EXPECT_FALSE(Web(_metrics).start("127.0.0.1", _web.port()));
    EXPECT_FALSE(Web(_metrics).start("192.0.2.1", 0)); // no address of this machine
}

TEST_F(HubWebTest, PortIsFreeAfterwards)
{
    int port = 0;
    {
        Web other(_metrics);
        ASSERT_TRUE(other.start("127.0.0.1", 0));
        port = other.port();
        httplib::Client client("127.0.0.1", port);
        EXPECT_EQ(client.Get("/metrics")->status, 200);
    }
    EXPECT_TRUE(Web(_metrics).start("127.0.0.1", port));
}

} // namespace
