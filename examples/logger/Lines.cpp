#include "Lines.h"

#include <poll.h>
#include <unistd.h>

#include <algorithm>

namespace {

void onSignal(int)
{
}

} // namespace

Lines::Lines(bool readsInput, int waking) : _input(readsInput ? STDIN_FILENO : -1), _waking(waking)
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
        return _input < 0 && !_bytes.empty() ? std::optional(take(_bytes.size())) : std::nullopt;
    }
    std::string line = take(end);
    _bytes.erase(0, 1);
    return line;
}

bool Lines::areOver() const
{
    return _input < 0 && _bytes.empty();
}

bool Lines::areStopped() const
{
    return _isStopped;
}

bool Lines::fill(std::optional<std::chrono::milliseconds> longest)
{
    if (_isStopped || (_input < 0 && _waking < 0))
        return false;
    pollfd awaited[] = {{_input, POLLIN, 0}, {_waking, POLLIN, 0}};
    const auto time = longest.value_or(std::chrono::milliseconds(0));
    const timespec wait = {static_cast<time_t>(time.count() / 1000),
                           static_cast<long>(time.count() % 1000 * 1000000)};
    const int ready = ::ppoll(awaited, 2, longest ? &wait : nullptr, &_whileWaiting);
    _isStopped = ready < 0;
    if (_isStopped)
        _bytes.clear(); // a line that the signal cut off may say another value
    else if (awaited[0].revents == 0)
        return false;
    char block[4096];
    const ssize_t size = _isStopped ? -1 : ::read(_input, block, sizeof block);
    if (size <= 0)
        _input = -1;
    _bytes.append(block, static_cast<std::size_t>(std::max<ssize_t>(size, 0)));
    return size > 0;
}

std::string Lines::take(std::size_t size)
{
    std::string bytes = _bytes.substr(0, size);
    _bytes.erase(0, size);
    return bytes;
}
