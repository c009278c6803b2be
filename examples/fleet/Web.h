#ifndef FLEET_WEB_H
#define FLEET_WEB_H

#include "Metrics.h"

#include <memory>
#include <string>

// Shows the state of a hub over HTTP: / is a page for people, /status.json what it shows, and
// /metrics is for Prometheus. Has threads of its own. Nothing can be changed by it, and nobody has to
// log in.
class Web {
public:
    explicit Web(const Metrics& metrics);
    Web(const Web&) = delete;
    Web& operator=(const Web&) = delete;
    ~Web();

    // Listens at an address and port; at any free one for port 0. Fails if it cannot.
    bool start(const std::string& address, int port);

    int port() const;

private:
    struct Core;
    std::unique_ptr<Core> _core;
};

#endif
