#include "Web.h"

#include "Page.h"

#include <httplib.h>

#include <thread>

struct Web::Core {
    httplib::Server server;
    std::thread thread;
    int port = 0;
};

namespace {

// Two servers at one port would each get a part of the requests.
void forbidSharing(socket_t socket)
{
    const int yes = 1;
    ::setsockopt(socket, SOL_SOCKET, SO_REUSEADDR, &yes, sizeof yes);
}

} // namespace

Web::Web(const Metrics& metrics) : _core(std::make_unique<Core>())
{
    httplib::Server& server = _core->server;
    server.set_socket_options(forbidSharing);
    server.set_keep_alive_max_count(1); // a connection that waits holds a thread and delays the end
    server.set_default_headers(
        {{"Cache-Control", "no-store"},
         {"Content-Security-Policy", "default-src 'none'; script-src 'unsafe-inline'; style-src "
                                     "'unsafe-inline'; connect-src 'self'; img-src data:"},
         {"X-Content-Type-Options", "nosniff"}});
    server.Get("/", [](const httplib::Request&, httplib::Response& response) {
        response.set_content(page, "text/html; charset=utf-8");
    });
    server.Get("/metrics", [&metrics](const httplib::Request&, httplib::Response& response) {
        response.set_content(prometheusText(metrics.state(), Clock::now()),
                             "text/plain; version=0.0.4");
    });
    server.Get("/status.json", [&metrics](const httplib::Request& request,
                                          httplib::Response& response) {
        const std::string find = request.get_param_value("find");
        response.set_content(statusJson(metrics.state(), Clock::now(), find), "application/json");
    });
}

Web::~Web()
{
    _core->server.stop();
    if (_core->thread.joinable())
        _core->thread.join();
}

bool Web::start(const std::string& address, int port)
{
    httplib::Server& server = _core->server;
    if (port == 0)
        port = server.bind_to_any_port(address);
    else if (!server.bind_to_port(address, port))
        return false;
    if (port < 0)
        return false;
    _core->port = port;
    _core->thread = std::thread([&server] { server.listen_after_bind(); });
    while (!server.is_running()) // it could not be stopped before
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    return true;
}

int Web::port() const
{
    return _core->port;
}
