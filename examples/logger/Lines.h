#ifndef LOGGER_LINES_H
#define LOGGER_LINES_H

#include <csignal>

#include <chrono>
#include <optional>
#include <string>

// Reads lines from standard input, and waits for each no longer than there is time. SIGINT and
// SIGTERM are held back from its making on, but while it waits: they then end the input.
class Lines {
public:
    // May read nothing, and be woken whenever another descriptor can be read.
    explicit Lines(bool readsInput = true, int waking = -1);

    // A line without its end; nothing if the time, or the input, is over first, or it was woken.
    // Without a time, it waits as long as it takes.
    std::optional<std::string> next(std::optional<std::chrono::milliseconds> longest);

    // Whether there are no more.
    bool areOver() const;

    // Whether a signal has ended them.
    bool areStopped() const;

private:
    bool fill(std::optional<std::chrono::milliseconds> longest);
    std::string take(std::size_t size);

    sigset_t _whileWaiting;
    int _input; // standard input, unless it is over
    int _waking;
    std::string _bytes; // read, but not yet taken
    bool _isStopped = false;
};

#endif
