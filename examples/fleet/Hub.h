#ifndef FLEET_HUB_H
#define FLEET_HUB_H

#include "Downlink.h"

#include <atomic>
#include <map>
#include <optional>
#include <random>
#include <string>
#include <utility>
#include <vector>

// What is done at intervals, but for a twentieth of the time at most.
class Duty {
public:
    explicit Duty(Clock::duration interval) : _interval(interval)
    {
    }

    bool isDue(Clock::time_point now) const
    {
        return now >= _due;
    }

    // It was done, and took so long.
    void note(Clock::time_point now, Clock::duration taken);

private:
    Clock::duration _interval;
    Clock::time_point _due;
};

// The work of a hub: takes what the devices send, has the centre store it, and answers; sends the
// settings that devices have not applied yet. While the centre is of no use it tries again, less and
// less often, and what comes meanwhile waits in the connection to the broker.
class Hub {
public:
    Hub(Mqtt& mqtt, Centre& centre, Metrics& metrics);

    // Subscribes to what devices send, so that each message goes to one of the hubs, and to whether
    // they are there. Before the connection starts.
    static void subscribe(Mqtt& mqtt);

    // Works until it is stopped.
    void run(const std::atomic<bool>& isStopped);

    // One round, which waits for a message for a short time. Returns false if the centre is of no
    // use for now.
    bool step(Clock::time_point now);

private:
    // What is to be stored.
    struct Batch {
        std::vector<Incoming> sets;
        std::map<std::string, std::size_t> latest; // each device's among them
        std::size_t bytes = 0;
        std::vector<std::pair<std::string, Answer>> applied;
    };

    void collect();
    bool isFull() const;
    void take(const Message& message);
    void takeSet(const std::string& device, std::string_view payload);
    bool work(Clock::time_point now);
    bool store();
    void answer(const std::string& device, const Answer& answer);
    bool noteApplied(Clock::time_point now);
    bool sendSettings(Clock::time_point now);
    bool lookAtDevices(Clock::time_point now);
    bool canDoWithout(const std::string& failure);
    void backOff(Clock::time_point now);
    void noteTrouble(const std::string& trouble);
    void noteRefused(const std::string& topic, const std::string& text);
    void complain(const std::string& text);
    void tellOfBroker(bool isUp);
    void measure(Clock::time_point now);

    Mqtt& _mqtt;
    Centre& _centre;
    Metrics& _metrics;
    Downlink _downlink;
    Batch _batch;
    Duty _settings;
    Duty _status;
    Duty _overflow;
    std::minstd_rand _random{std::random_device()()};
    Clock::duration _pause; // before the centre is tried again
    Clock::time_point _retry;
    std::optional<bool> _isBrokerUp;             // as was told
    std::string _trouble;                        // told last
    std::string _complaint;                      // told last
    std::map<std::string, std::string> _refused; // told last, for each topic
    sql::integer _overflowed = 0;                // told last
};

#endif
