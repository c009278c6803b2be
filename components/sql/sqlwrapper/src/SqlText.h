#ifndef SQLWRAPPER_SRC_SQLTEXT_H
#define SQLWRAPPER_SRC_SQLTEXT_H

#include "SqlCommon.h"

namespace sql {

// Appends the text with its single quotes doubled.
void appendQuoted(string& out, const string& text);

} // namespace sql

#endif
