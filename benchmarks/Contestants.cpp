#include "Contestant.h"

#include <cstdlib>

namespace bench {

const char* const statements[work_count] = {
    "insert into item values (?1, ?2, ?3, ?4, ?5, ?6, ?7)",
    "update item set name=?2, place=?3, price=?4, active=?5, changed=?6, note=?7 where id = ?1",
    "insert into item values (?1, ?2, ?3, ?4, ?5, ?6, ?7) on conflict(id) do update set name=?2, place=?3, price=?4, active=?5, changed=?6, note=?7",
    "delete from item where id = ?1",
    "select * from item where id = ?1",
    "select 1 from item where id = ?1",
    "select count(*) from item",
    "select * from item",
};

long long ReadingContestant::load()
{
    _rows.clear();
    select();
    while (next(_rows.emplace_back())) {
    }
    _rows.pop_back();
    return static_cast<long long>(_rows.size());
}

void ReadingContestant::readByIndex(Digest& digest)
{
    select();
    while (next(_row))
        digest.add(_row);
}

void ReadingContestant::copyFrom(Contestant& source)
{
    ReadingContestant& from = static_cast<ReadingContestant&>(source);
    from.select();
    while (from.next(_row))
        insert(_row);
}

const std::vector<Entry>& contestants()
{
    static const std::vector<Entry> all = {
        {"library", makeLibrary},
        {"floor", makeFloor},
        {"prepared", makePrepared},
        {"statement", makeStatement},
        {"prepared table", makePreparedTable},
        {"typed", makeTyped},
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
