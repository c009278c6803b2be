#ifndef FLEET_TELL_H
#define FLEET_TELL_H

#include <string>

// The text on one line and without what moves a terminal's cursor: names and reasons come from
// elsewhere.
std::string oneLine(std::string text);

// Prints a line of the hub on standard error.
void tell(const std::string& text);

#endif
