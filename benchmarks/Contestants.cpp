#include "Contestant.h"

#include <cstdlib>

namespace bench {

const std::vector<Entry>& contestants()
{
    static const std::vector<Entry> all = {
        {"library", makeLibrary},
        {"floor", makeFloor},
        {"prepared", makePrepared},
#ifdef BENCHMARKS_WITH_SQLITECPP
        {"SQLiteCpp", makeSqliteCpp},
#endif
#ifdef BENCHMARKS_WITH_SOCI
        {"SOCI", makeSoci},
#endif
#ifdef BENCHMARKS_WITH_POCO
        {"POCO", makePoco},
#endif
#ifdef BENCHMARKS_WITH_QT
        {"Qt", makeQt},
#endif
    };
    return all;
}

const Entry& contestant(const std::string& name)
{
    for (const Entry& each : contestants()) {
        if (each.name == name)
            return each;
    }
    require(false, name.c_str());
    std::abort();
}

} // namespace bench
