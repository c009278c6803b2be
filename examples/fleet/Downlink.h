#ifndef FLEET_DOWNLINK_H
#define FLEET_DOWNLINK_H

#include "Metrics.h"
#include "Mqtt.h"

#include <map>
#include <string>

// Sends devices the settings that they have not applied yet: once at once, and again after a while,
// less and less often, since the broker keeps what it cannot deliver.
class Downlink {
public:
    Downlink(Mqtt& mqtt, Centre& centre) : _mqtt(mqtt), _centre(centre)
    {
    }

    // Sends what is due, and counts it. Fails if the centre does not tell.
    bool send(Clock::time_point now, sql::integer& count);

    // The device is there: what it has not applied is sent to it soon.
    void noteSeen(const std::string& device);

    // The device has connected: what was sent to it before may be lost.
    void noteConnected(const std::string& device);

    // The device has refused its settings: nothing is sent to it for a while.
    void noteRefused(const std::string& device, Clock::time_point now);

    // What was sent may be lost.
    void restart();

private:
    struct Sent {
        sql::SyncPosition last;
        Clock::duration pause = Clock::duration::zero(); // until it is sent again
        Clock::time_point again;
        bool isHeld = false; // nothing else before then either
    };

    static void hurry(Sent& sent);
    static bool isDue(const Outgoing& set, Sent& sent, Clock::time_point now);

    Mqtt& _mqtt;
    Centre& _centre;
    std::map<std::string, Sent> _sent;
};

#endif
