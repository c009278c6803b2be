#ifndef SQLWRAPPER_BENCHMARKS_FLOOR_H
#define SQLWRAPPER_BENCHMARKS_FLOOR_H

#include <optional>
#include <string>
#include <vector>

namespace bench {

// How a program keeps what comes back which writes its SQL itself.
using Cells = std::vector<std::optional<std::string>>;
using Rows = std::vector<Cells>;

// For sqlite3_exec(): copies every cell.
int keepRow(void* rows, int count, char** values, char** names);

void appendQuoted(std::string& sql, const std::string& text);

} // namespace bench

#endif
