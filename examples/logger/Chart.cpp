#include "Chart.h"

#include <algorithm>
#include <cstdio>
#include <iostream>
#include <memory>

namespace {

constexpr double longest_bar = 50;

const char* const appearance = R"(set terminal svg size 900,400 font "sans,12"
set key off
set grid
set xlabel "UTC"
set xdata time
set timefmt "%s"
set format x "%H:%M"
set xrange [0:86400]
set xtics 10800
)";

bool hasLess(const Mean& left, const Mean& right)
{
    return left.value < right.value;
}

// Between the quotes of gnuplot in which a backslash is one.
std::string quoted(const std::string& text)
{
    std::string result = "'";
    for (const char byte : text)
        result += byte == '\'' ? std::string("''") : std::string(1, byte);
    return result + "'";
}

} // namespace

void printBars(const std::vector<Mean>& means)
{
    if (means.empty())
        return;
    const auto range = std::minmax_element(means.begin(), means.end(), hasLess);
    const double least = range.first->value;
    const double width = range.second->value - least;
    for (const Mean& mean : means) {
        const double part = width > 0 ? (mean.value - least) / width : 1;
        const std::string bar(static_cast<std::size_t>(part * longest_bar + 0.5), '#');
        char line[100];
        std::snprintf(line, sizeof line, "%02d:%02d %9.3f %s\n", static_cast<int>(mean.minute / 60),
                      static_cast<int>(mean.minute % 60), mean.value, bar.c_str());
        std::cout << line;
    }
}

bool printSvg(const std::string& title, const std::vector<Mean>& means)
{
    std::cout.flush(); // gnuplot writes there, too
    std::FILE* const gnuplot = ::popen("gnuplot", "w");
    if (!gnuplot)
        return false;
    std::fprintf(gnuplot, "%sset title %s noenhanced\nplot '-' using 1:2 with lines\n", appearance,
                 quoted(title).c_str());
    for (const Mean& mean : means)
        std::fprintf(gnuplot, "%d %.3f\n", static_cast<int>(mean.minute * 60), mean.value);
    std::fputs("e\n", gnuplot);
    return ::pclose(gnuplot) == 0;
}
