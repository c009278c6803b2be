#ifndef SQLWRAPPER_BENCHMARKS_OPERATIONS_H
#define SQLWRAPPER_BENCHMARKS_OPERATIONS_H

#include "Contestant.h"

#include <string>
#include <vector>

namespace bench {

// What is measured between start() and stop(): time, instructions or memory.
class Meter {
public:
    Meter() = default;
    virtual ~Meter() = default;
    Meter(const Meter&) = delete;
    Meter& operator=(const Meter&) = delete;
    virtual void start() = 0;
    virtual void stop() = 0;
};

// Where an operation works: a table of so many rows, in a file of the folder.
struct Place {
    std::string folder;
    int rows;
};

// An operation prepares what it needs, starts and stops the meter, and checks what came of it.
struct Operation {
    const char* name;
    // Of what the costs are those of one: "row" for whole tables, otherwise "call".
    const char* unit;
    // How many units the meter saw.
    int (*run)(const Entry& entry, const Place& place, Meter& meter);
};

const std::vector<Operation>& operations();
const Operation& operation(const std::string& name);

// Makes the file that the operations read and change; what they change they roll back.
void makeDatabase(const Place& place);

} // namespace bench

#endif
