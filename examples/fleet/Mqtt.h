#ifndef FLEET_MQTT_H
#define FLEET_MQTT_H

#include <chrono>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

// Where the broker is, and who this is. The certificates are PEM files; without any there is no TLS,
// which is for measurements.
struct Broker {
    std::string host = "localhost";
    int port = 8883;
    std::string authority;   // whose certificates are believed
    std::string certificate; // this one's; its common name is the user's name
    std::string key;         // of it
};

// What has come.
struct Message {
    std::string topic; // empty: the connection is up again, and what was published may be lost
    std::string payload;
};

// A connection to an MQTT broker that a thread of its own keeps up: it goes on trying for ever.
// Messages come at least once. Functions return false on failure, which error() tells.
class Mqtt {
public:
    // A session that `isKept` outlives the connection: what is published for it meanwhile comes
    // later.
    Mqtt(const std::string& client, bool isKept);
    Mqtt(const Mqtt&) = delete;
    Mqtt& operator=(const Mqtt&) = delete;
    ~Mqtt();

    // Has the broker publish this, retained, once the connection is lost. Before start().
    bool leaveBehind(const std::string& topic, const std::string& payload);

    // Subscribes at each connecting. Before start().
    void subscribe(const std::string& filter);

    // Begins to connect.
    bool start(const Broker& broker);

    // The next message; nothing if none comes in this time.
    std::optional<Message> next(std::chrono::milliseconds longest);

    // Can be read while next() has something: for poll().
    int descriptor() const;

    // Hands the message to the broker, again if the connection is lost meanwhile. Fails without one.
    bool publish(const std::string& topic, std::string_view payload, bool isRetained = false);

    bool isConnected() const;

    // Messages that came while too many were waiting, and were let go.
    long long overflowed() const;

    std::string error() const;

private:
    struct Core;
    std::unique_ptr<Core> _core;
};

#endif
