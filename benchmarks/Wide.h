#ifndef SQLWRAPPER_BENCHMARKS_WIDE_H
#define SQLWRAPPER_BENCHMARKS_WIDE_H

#include "Operations.h"

namespace bench {

// The library and the floor on tables of any number of columns: an integer key, then integers and
// short texts by turns. An operation is one of "insert", "update", "load", "read by index" and
// "read by name"; reads load the table first. How many rows the meter saw.
int runWide(const std::string& contestant, const std::string& operation, const std::string& folder,
            int columns, Meter& meter);

} // namespace bench

#endif
