#ifndef SQLWRAPPER_SRC_SQLTEXT_H
#define SQLWRAPPER_SRC_SQLTEXT_H

#include "SqlCommon.h"

#include <initializer_list>
#include <string_view>

namespace sql {

// The pieces one behind the other, in one allocation, with room for `more` bytes to follow.
string joined(std::initializer_list<std::string_view> pieces, string::size_type more = 0);

// Appends what stands between two columns.
inline void appendComma(string& out)
{
    out += ',';
    out += ' ';
}

// Appends the text with its single quotes doubled.
void appendQuoted(string& out, const string& text);

} // namespace sql

#endif
