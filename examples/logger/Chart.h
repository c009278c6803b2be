#ifndef LOGGER_CHART_H
#define LOGGER_CHART_H

#include "Reading.h"

#include <vector>

// Prints a bar for each mean, in the order of time: "06:00   12.3 #######". The longest stands for
// the greatest value, none for the least.
void printBars(const std::vector<Mean>& means);

// Prints the means as a line, in SVG. False if the plotting tool cannot be run; it then tells on
// standard error.
bool printSvg(const std::string& title, const std::vector<Mean>& means);

#endif
