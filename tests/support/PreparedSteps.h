#ifndef SQLWRAPPER_TESTS_SUPPORT_PREPAREDSTEPS_H
#define SQLWRAPPER_TESTS_SUPPORT_PREPAREDSTEPS_H

#include "Job.h"

#include <vector>

namespace test {

// Changes of the rows that filling() has made, by statements and prepared tables of sqlprepared, and
// by its scripts and transactions, by tables in those, and in bulk; none of their keys is one of
// changing().
std::vector<Step> changingByStatements();
std::vector<Step> changingInTransactions();

// So many rows at once by prepared and typed tables, once backingUp() has made the archive.
std::vector<Step> changingInBulk(int rows);

} // namespace test

#endif
