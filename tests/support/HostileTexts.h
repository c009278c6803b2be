#ifndef SQLWRAPPER_TESTS_SUPPORT_HOSTILETEXTS_H
#define SQLWRAPPER_TESTS_SUPPORT_HOSTILETEXTS_H

#include <string>
#include <vector>

namespace test {

// Several hundred texts that somebody careless or malicious could hand to an application: quotes,
// zero and control bytes, broken UTF-8, SQL, conversions of printf(), numbers at their limits, and
// texts of up to a megabyte, or several in a long run. None twice. Run as statements they leave the
// file system and the process's own settings alone and end soon.
const std::vector<std::string>& hostileTexts();

// The start of a text for a person to read: "a\x00b".
std::string printable(const std::string& text);

// What a reader who stops at a zero byte sees of it.
std::string shown(const std::string& text);

// What a text literal has to look like.
std::string quoted(const std::string& text);

} // namespace test

#endif
