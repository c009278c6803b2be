#include "Simulation.h"

#include <cmath>
#include <random>

namespace {

struct Sensor {
    const char* name;
    double mean;
    double swing; // by which it is warmest in the afternoon and coldest before dawn
    double noise;
};

const Sensor sensors[] = {
    {"battery", 3.7, 0.2, 0.005}, {"garden", 9, 6, 0.2}, {"hall", 20.5, 1.5, 0.1}};

// The part of the swing at a time of day: -1 at three in the morning, 1 at three in the afternoon.
double courseOfDay(std::chrono::seconds sinceMidnight)
{
    const double pi = std::acos(-1.0);
    return -std::cos((static_cast<double>(sinceMidnight.count()) / 3600 - 3) / 12 * pi);
}

} // namespace

std::vector<Reading> simulatedDay(TimePoint midnight, std::chrono::seconds interval)
{
    // Its numbers are the same everywhere, those of the library's distributions are not.
    std::mt19937 generator(static_cast<std::uint32_t>(midnight.time_since_epoch().count()));
    std::vector<Reading> readings;
    for (std::chrono::seconds at(0); at < std::chrono::hours(24); at += interval) {
        for (const Sensor& sensor : sensors) {
            const double noise = static_cast<double>(generator()) / 2147483648.0 - 1;
            const double value = sensor.mean + sensor.swing * courseOfDay(at)
                                 + sensor.noise * noise;
            readings.push_back(
                {0, midnight + at, sensor.name, std::round(value * 1000) / 1000, {}});
        }
    }
    return readings;
}
