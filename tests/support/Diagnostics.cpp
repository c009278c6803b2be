#include "Diagnostics.h"
#include "Wording.h"

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <utility>

// The shape that the library expects of the trace library's object.
struct TraceObject {
    int* level;
};

extern TraceObject* g_traceObject;
TraceObject* g_traceObject = nullptr;

namespace {

TraceObject traceObject = {nullptr};
test::Diagnostics* current = nullptr;
bool capturing = false;

// Marks the time during which a report is captured.
struct Capturing {
    Capturing() : former(capturing)
    {
        capturing = true;
    }
    ~Capturing()
    {
        capturing = former;
    }
    const bool former;
};

// A line of another form is a defect in the library or in the test: there is nobody to report it to
// but the person at the console.
[[noreturn]] void refuse(const char* why, const std::string& text)
{
    std::fprintf(stderr, "unexpected system log line (%s): %s\n", why, text.c_str());
    std::abort();
}

__attribute__((format(printf, 1, 0))) std::string expand(const char* format, va_list arguments)
{
    va_list again;
    va_copy(again, arguments);
    const int length = std::vsnprintf(nullptr, 0, format, arguments);
    std::string text(static_cast<std::size_t>(length) + 1, '\0');
    std::vsnprintf(text.data(), text.size(), format, again);
    va_end(again);
    text.pop_back();
    return text;
}

// Takes "[ERROR] SqlCommon.cpp:123 (queryNumber) - message" apart.
test::LogLine parsed(int priority, const std::string& text)
{
    const std::size_t blank = text.find(' ');
    const std::size_t colon = text.find(':', blank);
    const std::size_t open = text.find(" (", colon);
    const std::size_t close = text.find(") - ", open);
    if (close == std::string::npos)
        refuse("no source place", text);
    return {priority,
            text.substr(0, blank),
            text.substr(blank + 1, colon - blank - 1),
            std::stoi(text.substr(colon + 1, open - colon - 1)),
            text.substr(open + 2, close - open - 2),
            text.substr(close + 4)};
}

__attribute__((format(printf, 2, 0))) void capture(int priority, const char* format,
                                                   va_list arguments)
{
    const Capturing now;
    const std::string text = expand(format, arguments);
    if (current == nullptr)
        refuse("nobody listens", text);
    current->add(parsed(priority, text));
}

} // namespace

extern "C" {

void logAssertFailed(const char* expression, const char* path, int line, const char* function);

void logAssertFailed(const char* expression, const char* path, int line, const char* function)
{
    const Capturing now;
    if (current == nullptr)
        refuse("nobody listens for assertions", expression);
    current->add(test::Assertion{expression, path, line, function});
}

__attribute__((format(printf, 2, 3))) void syslog(int priority, const char* format, ...);
__attribute__((format(printf, 3, 4))) void __syslog_chk(int priority, int flag, const char* format,
                                                        ...);

void syslog(int priority, const char* format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    capture(priority, format, arguments);
    va_end(arguments);
}

// What optimised builds call in its place.
void __syslog_chk(int priority, int, const char* format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    capture(priority, format, arguments);
    va_end(arguments);
}

// The tests' g_traceObject takes the place of the trace library's, as it is meant to.
const char* __asan_default_options();

const char* __asan_default_options()
{
    return "detect_odr_violation=0";
}

} // extern "C"

namespace test {

Diagnostics::Diagnostics()
{
    current = this;
    setLevel(3);
}

Diagnostics::~Diagnostics()
{
    current = nullptr;
    g_traceObject = nullptr;
}

void Diagnostics::setLevel(int level)
{
    _level = level;
    traceObject.level = level == without_level ? nullptr : &_level;
    g_traceObject = level == without_trace_object ? nullptr : &traceObject;
}

int Diagnostics::level() const
{
    return _level;
}

void Diagnostics::onLine(std::function<void(const LogLine&)> reaction)
{
    _reaction = std::move(reaction);
}

void Diagnostics::onAssertion(std::function<void(const Assertion&)> reaction)
{
    _assertionReaction = std::move(reaction);
}

const std::vector<std::string>& Diagnostics::events() const
{
    return _events;
}

std::vector<std::string> Diagnostics::messages() const
{
    std::vector<std::string> texts;
    for (const LogLine& line : _lines)
        texts.push_back(line.message);
    return texts;
}

std::vector<std::string> Diagnostics::messages(const std::string& tag) const
{
    std::vector<std::string> texts;
    for (const LogLine& line : _lines) {
        if (line.tag == tag)
            texts.push_back(line.message);
    }
    return texts;
}

std::vector<std::string> Diagnostics::errors() const
{
    return messages("[ERROR]");
}

std::vector<std::string> Diagnostics::assertions() const
{
    std::vector<std::string> expressions;
    for (const Assertion& assertion : _assertions)
        expressions.push_back(assertion.expression);
    return expressions;
}

const std::vector<LogLine>& Diagnostics::lines() const
{
    return _lines;
}

const std::vector<Assertion>& Diagnostics::failedAssertions() const
{
    return _assertions;
}

void Diagnostics::clear()
{
    _lines.clear();
    _assertions.clear();
    _events.clear();
}

std::vector<std::string> Diagnostics::take()
{
    std::vector<std::string> taken = _events;
    clear();
    return taken;
}

bool Diagnostics::isCapturing()
{
    return capturing;
}

void Diagnostics::add(const LogLine& line)
{
    _lines.push_back(line);
    _events.push_back(line.tag + " " + line.file + " (" + line.function + ") - " + line.message);
    if (_reaction)
        _reaction(line);
}

void Diagnostics::add(const Assertion& assertion)
{
    const std::string file = assertion.path.substr(assertion.path.rfind('/') + 1);
    _assertions.push_back(assertion);
    _events.push_back("assert '" + assertion.expression + "' in " + file + " (" + assertion.function
                      + ")");
    if (_assertionReaction)
        _assertionReaction(assertion);
}

std::vector<std::string> visibleAt(int level, const std::vector<std::string>& events)
{
    static const std::vector<std::pair<std::string, int>> limits = {
        {"[ERROR] ", 2}, {"[DEBUG1] ", 6}, {"[DEBUG2] ", 7}, {"[DEBUG3] ", 8}};
    std::vector<std::string> visible;
    for (const std::string& event : events) {
        bool open = true;
        for (const auto& [tag, limit] : limits)
            open = open && (event.compare(0, tag.size(), tag) != 0 || level > limit);
        if (open)
            visible.push_back(worded(event));
    }
    return visible;
}

} // namespace test
