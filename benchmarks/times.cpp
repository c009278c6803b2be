// Times every contestant at every operation, and tables of the sizes given:
//
//     times --benchmark_... FOLDER ROWS...
//
// Repetitions of all contestants interleave, when --benchmark_enable_random_interleaving says so.

#include "Operations.h"

#include <benchmark/benchmark.h>

#include <time.h>

#include <cstdlib>
#include <cstring>

namespace {

// Seconds of the processor, so that other work on the machine matters little, or where the disk is
// waited for, by the clock on the wall.
class Clock : public bench::Meter {
public:
    explicit Clock(clockid_t clock) : _clock(clock)
    {
    }
    void start() override
    {
        _start = now();
    }
    void stop() override
    {
        _seconds = now() - _start;
    }
    double seconds() const
    {
        return _seconds;
    }

private:
    double now() const
    {
        timespec time = {};
        clock_gettime(_clock, &time);
        return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) / 1e9;
    }

    clockid_t _clock;
    double _start = 0.0;
    double _seconds = 0.0;
};

void run(benchmark::State& state, const bench::Operation& operation, const bench::Entry& entry,
         const bench::Place& place)
{
    const bool waits = std::strcmp(operation.name, "durable insert") == 0;
    Clock clock(waits ? CLOCK_MONOTONIC : CLOCK_PROCESS_CPUTIME_ID);
    int units = 0;
    for ([[maybe_unused]] const auto iteration : state) {
        units = operation.run(entry, place, clock);
        state.SetIterationTime(clock.seconds());
    }
    state.counters["units"] = units;
}

// What says little more at another size is measured at one; a copy of a million rows takes what
// loading and inserting them does.
bool wanted(const std::string& operation, int rows)
{
    if (operation == "insert, set by name" || operation == "insert, record at hand"
        || operation == "open and close" || operation == "durable insert")
        return rows == 10000;
    return operation != "copy" || rows < 1000000;
}

// Short operations run until what they take can be told from the clock's own noise.
constexpr double least_seconds = 0.03;

} // namespace

int main(int argc, char** argv)
{
    benchmark::Initialize(&argc, argv);
    bench::require(argc > 2, "times --benchmark_... FOLDER ROWS...");
    for (int i = 2; i < argc; ++i) {
        const bench::Place place = {argv[1], std::atoi(argv[i])};
        bench::makeDatabase(place);
        for (const bench::Operation& operation : bench::operations()) {
            if (!wanted(operation.name, place.rows))
                continue;
            for (const bench::Entry& entry : bench::contestants())
                benchmark::RegisterBenchmark(
                    (std::string(operation.name) + "/" + argv[i] + "/" + entry.name).c_str(),
                    [&operation, &entry, place](benchmark::State& state) {
                        run(state, operation, entry, place);
                    })
                    ->UseManualTime()
                    ->MinTime(least_seconds);
        }
    }
    benchmark::RunSpecifiedBenchmarks();
    return 0;
}
