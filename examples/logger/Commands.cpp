#include "Commands.h"

#include "Chart.h"
#include "Lines.h"
#include "Progress.h"
#include "Simulation.h"

#include "SqlLiteral.h"
#include "SqlStopFlag.h"

#include <csignal>
#include <cstdio>
#include <iostream>

namespace {

constexpr int minutes_of_bar = 60;
constexpr int minutes_of_point = 5;

std::string dateOf(TimePoint time)
{
    return sql::toIso8601(time).substr(0, 10);
}

// Signals that stop the work in hand, which is then undone.
sql::StopFlag* stopFlag = nullptr;

extern "C" void stopWork(int)
{
    stopFlag->set();
}

class StopBySignal {
public:
    explicit StopBySignal(sql::Database& database) : _flag(database)
    {
        stopFlag = &_flag;
        for (const int signal : {SIGINT, SIGTERM})
            std::signal(signal, stopWork);
    }
    ~StopBySignal()
    {
        for (const int signal : {SIGINT, SIGTERM})
            std::signal(signal, SIG_DFL);
    }
    StopBySignal(const StopBySignal&) = delete;
    StopBySignal& operator=(const StopBySignal&) = delete;

private:
    sql::StopFlag _flag;
};

} // namespace

ExitStatus record(const std::string& database, const Recording& recording)
{
    Log log;
    if (!log.open(database, sql::Database::access_create))
        return fail(log.error());
    Lines lines;
    Recorder recorder(log, recording);
    while (!lines.areOver()) {
        if (const std::optional<std::string> line = lines.next(recorder.due()))
            recorder.take(*line);
        else
            recorder.flush();
    }
    recorder.flush();
    std::cout << recorder.stored() << " stored, " << recorder.lost() << " lost\n";
    return recorder.lost() == 0 ? status_success : status_failure;
}

ExitStatus simulate(const std::string& database, TimePoint midnight, int days,
                    std::chrono::seconds interval)
{
    Log log;
    if (!log.open(database, sql::Database::access_create))
        return fail(log.error());
    const StopBySignal stop(log.database());
    Progress progress(true);
    std::size_t count = 0;
    for (int day = 0; day < days; ++day) {
        const std::vector<Reading> readings = simulatedDay(midnight + day * whole_day, interval);
        if (!log.add(readings))
            return fail(log.error());
        count += readings.size();
        progress.show((day + 1) * 100 / days);
    }
    std::cout << count << " readings of " << days << " days from " << dateOf(midnight) << '\n';
    return status_success;
}

ExitStatus tidy(const std::string& database, int days)
{
    Log log;
    sql::integer removed = 0;
    if (!log.open(database, sql::Database::access_read_write) || !log.tidy(days, removed))
        return fail(log.error());
    std::cout << removed << " readings removed\n";
    return status_success;
}

ExitStatus printDays(const std::string& database)
{
    Log log;
    std::vector<Day> days;
    if (!log.open(database, sql::Database::access_read_write) || !log.days(days))
        return fail(log.error());
    for (const Day& day : days) {
        char numbers[100];
        std::snprintf(numbers, sizeof numbers, " %7lld %10.3f %10.3f %10.3f\n", day.count,
                      day.least, day.mean, day.most);
        std::cout << day.date << ' ' << day.sensor << numbers;
    }
    return days.empty() ? status_not_found : status_success;
}

ExitStatus chart(const std::string& database, TimePoint midnight, const std::string& sensor,
                 bool asSvg)
{
    Log log;
    std::vector<Mean> means;
    const int minutes = asSvg ? minutes_of_point : minutes_of_bar;
    if (!log.open(database, sql::Database::access_read_write)
        || !log.means(sensor, midnight, minutes, means))
        return fail(log.error());
    if (means.empty()) {
        fail(database + ": no readings of " + sensor + " on " + dateOf(midnight));
        return status_not_found;
    }
    if (!asSvg)
        printBars(means);
    else if (!printSvg(sensor + ", " + dateOf(midnight), means))
        return fail("gnuplot cannot be run");
    return status_success;
}

ExitStatus fail(const std::string& text)
{
    std::cerr << "logger: " << text << '\n';
    return status_failure;
}
