#ifndef SQLWRAPPER_TESTS_SUPPORT_WORDING_H
#define SQLWRAPPER_TESTS_SUPPORT_WORDING_H

#include <string>

namespace test {

// A text with a result or message of SQLite 3.40 in it, as the SQLite at hand reports the same:
// older ones put some into other words, and know fewer extended result codes.
std::string worded(const std::string& text);

} // namespace test

#endif
