#include "Lines.h"

#include <poll.h>
#include <unistd.h>

#include <algorithm>

namespace {

void onSignal(int)
{
}

} // namespace

Lines::Lines()
{
    sigset_t signals;
    ::sigemptyset(&signals);
    for (const int signal : {SIGINT, SIGTERM}) {
        std::signal(signal, onSignal);
        ::sigaddset(&signals, signal);
    }
    ::sigprocmask(SIG_BLOCK, &signals, &_whileWaiting);
}

std::optional<std::string> Lines::next(std::optional<std::chrono::milliseconds> longest)
{
    std::size_t end = 0;
    while ((end = _bytes.find('\n')) == std::string::npos) {
        if (fill(longest))
            continue;
        return _over && !_bytes.empty() ? std::optional(take(_bytes.size())) : std::nullopt;
    }
    std::string line = take(end);
    _bytes.erase(0, 1);
    return line;
}

bool Lines::areOver() const
{
    return _over && _bytes.empty();
}

bool Lines::fill(std::optional<std::chrono::milliseconds> longest)
{
    if (_over)
        return false;
    pollfd input = {STDIN_FILENO, POLLIN, 0};
    const auto time = longest.value_or(std::chrono::milliseconds(0));
    const timespec wait = {static_cast<time_t>(time.count() / 1000),
                           static_cast<long>(time.count() % 1000 * 1000000)};
    const int ready = ::ppoll(&input, 1, longest ? &wait : nullptr, &_whileWaiting);
    if (ready == 0)
        return false;
    if (ready < 0)
        _bytes.clear(); // a line that the signal cut off may say another value
    char block[4096];
    const ssize_t size = ready < 0 ? -1 : ::read(STDIN_FILENO, block, sizeof block);
    _over = size <= 0;
    _bytes.append(block, static_cast<std::size_t>(std::max<ssize_t>(size, 0)));
    return !_over;
}

std::string Lines::take(std::size_t size)
{
    std::string bytes = _bytes.substr(0, size);
    _bytes.erase(0, size);
    return bytes;
}
