#ifndef SQLWRAPPER_BENCHMARKS_WIDE_H
#define SQLWRAPPER_BENCHMARKS_WIDE_H

#include "Operations.h"

#include <memory>

namespace bench {

// A table of any number of columns: an integer key, then integers and short texts by turns.
class Wide {
public:
    virtual ~Wide() = default;

    virtual void insert(int row) = 0;
    virtual void update(int row) = 0;
    virtual void load() = 0;
    virtual long long read(bool byName) = 0; // the sum of what was loaded
};

constexpr bool isText(int column)
{
    return column % 2 == 0 && column > 0;
}

std::string textOf(int row, int column);

// As structs of 2, 20 or 200 members, which read() leaves alone: loaded, they are read.
std::unique_ptr<Wide> makeWideTyped(const std::string& file, int columns);
std::unique_ptr<Wide> makeWidePrepared(const std::string& file, int columns);

// An operation is one of "insert", "update", "load", "read by index" and "read by name"; reads load
// the table first. How many rows the meter saw.
int runWide(const std::string& contestant, const std::string& operation, const std::string& folder,
            int columns, Meter& meter);

} // namespace bench

#endif
