// Runs operations under callgrind, which counts the instructions of the measured part alone and
// dumps them under the operation's name:
//
//     valgrind --tool=callgrind --instr-atstart=no --collect-atstart=no
//         counts FOLDER CONTESTANT ROWS OPERATION...
//
// Of several operations the earlier ones leave their traces on the heap that the later ones work in.
// An operation such as "wide load" works on a table of as many columns as ROWS says, and of 20
// rows. For the contestant "make" it makes the file that the operations work on, and without any it
// prints who the contestants are.

#include "Operations.h"
#include "Wide.h"

#include <valgrind/callgrind.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace {

class InstructionMeter : public bench::Meter {
public:
    void start() override
    {
        CALLGRIND_START_INSTRUMENTATION;
        CALLGRIND_TOGGLE_COLLECT;
    }
    void stop() override
    {
        CALLGRIND_TOGGLE_COLLECT;
        CALLGRIND_STOP_INSTRUMENTATION;
    }
};

int run(const std::string& contestant, const std::string& operation, const bench::Place& place)
{
    const std::string wide = "wide ";
    InstructionMeter meter;
    if (operation.compare(0, wide.size(), wide) == 0)
        return bench::runWide(contestant, operation.substr(wide.size()), place.folder, place.rows,
                              meter);
    return bench::operation(operation).run(bench::contestant(contestant), place, meter);
}

} // namespace

int main(int argc, char** argv)
{
    if (argc < 4) {
        for (const bench::Entry& entry : bench::contestants())
            std::puts(entry.name);
        return 0;
    }
    const bench::Place place = {argv[1], std::atoi(argv[3])};
    if (std::strcmp(argv[2], "make") == 0) {
        bench::makeDatabase(place);
        return 0;
    }
    for (int i = 4; i < argc; ++i) {
        CALLGRIND_ZERO_STATS;
        const int units = run(argv[2], argv[i], place);
        CALLGRIND_DUMP_STATS_AT(argv[i]);
        std::printf("%s|%d\n", argv[i], units);
        std::fflush(stdout);
    }
    return 0;
}
