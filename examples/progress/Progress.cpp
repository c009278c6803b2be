#include "Progress.h"

#include <unistd.h>

#include <iostream>
#include <string>

namespace {

constexpr int bar_width = 50;

} // namespace

Progress::Progress(bool isWanted) : _isShown(isWanted && ::isatty(STDERR_FILENO) == 1)
{
}

Progress::~Progress()
{
    const std::string blanks(bar_width + 7, ' ');
    if (_percent >= 0)
        std::cerr << '\r' << blanks << '\r';
}

void Progress::show(int percent)
{
    if (!_isShown || percent <= _percent)
        return;
    _percent = percent;

    std::string bar(static_cast<std::size_t>(percent * bar_width / 100), '#');
    bar.resize(bar_width, ' ');
    std::cerr << "\r[" << bar << "] " << percent << '%';
}
