#ifndef FLEET_UPLINK_H
#define FLEET_UPLINK_H

#include "Device.h"
#include "Mqtt.h"

#include <random>

// Sends a device's change sets to the hub, one after the other: the next one once the hub has stored
// the one before, and the same again if it does not say so. Takes settings from there.
class Uplink {
public:
    Uplink(Device& device, const std::string& name);

    // Begins to connect, and goes on trying. False if that cannot be.
    bool start(const Broker& broker);

    // Takes what has come, and sends what is to be sent.
    void step();

    // How long until step(), unless descriptor() can be read before.
    std::chrono::milliseconds due() const;
    int descriptor() const;

    // Whether the hub has stored all.
    bool isDone();

    // Tells the hub that the device goes.
    void end();

    std::string error() const;

private:
    using Clock = std::chrono::steady_clock;

    void tellOfBroker();
    void take(const Message& message);
    void takeAnswer(const Answer& answer);
    void takeSettings(std::string_view payload);
    void send();
    void sendAgainAfter(std::chrono::seconds pause);

    Device& _device;
    const std::string _name;
    Mqtt _mqtt;
    bool _isAway = false;                   // the broker, as was told
    std::optional<sql::SyncPosition> _sent; // the set on its way
    Clock::time_point _again;               // when it is sent again
    std::chrono::seconds _patience;
    std::minstd_rand _random{std::random_device()()};
};

#endif
