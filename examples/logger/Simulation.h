#ifndef LOGGER_SIMULATION_H
#define LOGGER_SIMULATION_H

#include "Reading.h"

#include <vector>

// The readings of a day that begins at this time, in the order of their times: a temperature
// indoors, one outdoors and the voltage of a battery, each every so many seconds. They are the same
// for the same day.
std::vector<Reading> simulatedDay(TimePoint midnight, std::chrono::seconds interval);

#endif
