#ifndef SQLWRAPPER_TESTS_SUPPORT_TROUBLE_H
#define SQLWRAPPER_TESTS_SUPPORT_TROUBLE_H

// Causes that strike work at its nth point: calls into the file system, allocations and others.
// Programs that define TEST_HEAP, and have Heap.cpp for a source, let their own allocations fail,
// too.

#include "Cases.h"
#include "Diagnostics.h"
#include "Environment.h"
#include "FaultVfs.h"
#include "SqliteMemory.h"
#ifdef TEST_HEAP
#include "Heap.h"
#endif

#include <gmock/gmock.h>
#include <sqlite3.h>

#include <cstdio>
#include <functional>
#include <new>
#include <set>
#include <string>
#include <tuple>
#include <vector>

namespace test {

const int most_points = 100000; // far more than any work here has

// What it strikes: calls into the file system, allocations, instructions of SQLite's machine, or
// statements, before which something is done to the connection.
enum class Target { file, sqlite_memory, heap, instruction, statement };

struct Cause : Case {
    Target target;
    std::set<int> codes; // for which operations may fail
    FileCall call = FileCall::open;
    int rc = SQLITE_OK; // of that call
    void (*strike)(sqlite3* db) = nullptr;
    bool standsAtARow = false; // with a statement, all the time: for as long an interrupt lasts
};

// Lets a cause strike at its nth target, and at those behind it when it lasts.
class Trouble {
public:
    Trouble(const Cause& cause, int nth, bool lasts) : _cause(cause), _left(nth), _lasts(lasts)
    {
        _vfs.before = [this](const FileAccess& access) {
            const bool isMeant = _cause.target == Target::file && access.call == _cause.call;
            return isMeant && strikes() ? _cause.rc : SQLITE_OK;
        };
        if (cause.target == Target::sqlite_memory)
            _memory.refuse(nth, lasts);
    }

    // Counts while `work` runs. False when that was left by an exception.
    bool runThrough(sqlite3* db, const std::function<void()>& work)
    {
#ifdef TEST_HEAP
        const int never = most_points;
        MemoryShortage heap(_cause.target == Target::heap ? _left : never, _lasts);
#endif
        if (_cause.target == Target::instruction)
            sqlite3_progress_handler(db, 1, interrupt, this);
        _db = db;
        watch(true);
        bool returned = true;
        try {
            work();
        } catch (const std::bad_alloc&) {
            returned = false;
        }
        watch(false);
        sqlite3_progress_handler(db, 0, nullptr, nullptr);
#ifdef TEST_HEAP
        if (_cause.target == Target::heap)
            _left -= heap.allocations();
#endif
        return returned;
    }

    // Before each statement.
    void step(sqlite3* db)
    {
        if (_cause.target != Target::statement || !strikes())
            return;
        watch(false);
        _cause.strike(db);
        watch(true);
    }

    bool hasStruck() const
    {
        return _cause.target == Target::sqlite_memory ? _memory.hasRefused() : _left <= 0;
    }

    long blocksInUse() const
    {
        return _memory.blocksInUse();
    }

private:
    void watch(bool on)
    {
        _watches = on;
        _memory.watch(on && _cause.target == Target::sqlite_memory);
    }

    bool strikes()
    {
        if (!_watches)
            return false;
        --_left;
        return _left == 0 || (_left < 0 && _lasts);
    }

    // As another thread does, at any time.
    static int interrupt(void* trouble)
    {
        Trouble& self = *static_cast<Trouble*>(trouble);
        if (self.strikes())
            sqlite3_interrupt(self._db);
        return 0;
    }

    const Cause& _cause;
    int _left;
    const bool _lasts;
    bool _watches = false;
    sqlite3* _db = nullptr;
    SqliteMemory _memory;
    FaultVfs _vfs;
};

// Of operator new, where the test can tell.
inline long heapInUse()
{
#ifdef TEST_HEAP
    return heapBlocksInUse();
#else
    return 0;
#endif
}

inline const std::set<int> io_codes = {SQLITE_IOERR, SQLITE_CANTOPEN, SQLITE_BUSY, SQLITE_FULL,
                                       SQLITE_CORRUPT};

inline const Cause file_causes[] = {
    {"ReadError", Target::file, io_codes, FileCall::read, SQLITE_IOERR_READ},
    {"WriteError", Target::file, io_codes, FileCall::write, SQLITE_IOERR_WRITE},
    {"DiskFull", Target::file, io_codes, FileCall::write, SQLITE_FULL},
    {"SyncError", Target::file, io_codes, FileCall::sync, SQLITE_IOERR_FSYNC},
    {"LockError", Target::file, io_codes, FileCall::lock, SQLITE_IOERR_LOCK},
};

inline const Cause journal_causes[] = {
    {"LockedFile", Target::file, io_codes, FileCall::lock, SQLITE_BUSY},
    {"OpenError", Target::file, io_codes, FileCall::open, SQLITE_CANTOPEN},
    {"AccessError", Target::file, io_codes, FileCall::access, SQLITE_IOERR_ACCESS},
    {"RemoveError", Target::file, io_codes, FileCall::remove, SQLITE_IOERR_DELETE},
    {"SizeError", Target::file, io_codes, FileCall::size, SQLITE_IOERR_FSTAT},
};

inline const Cause memory_causes[] = {
    {"NoMemory", Target::sqlite_memory, {SQLITE_NOMEM, SQLITE_IOERR}},
#ifdef TEST_HEAP
    {"NoHeap", Target::heap, {}},
#endif
};

inline const Cause interrupt_cause = {"Interrupt", Target::instruction, {SQLITE_INTERRUPT}};

inline void fillUp(sqlite3* db)
{
    sqlite3_exec(db, "pragma max_page_count = 1", nullptr, nullptr,
                 nullptr); // no more than there are
}

// What ends a transaction between two statements: `violate` by a conflict that rolls it back.
inline std::vector<Cause> statementCauses(void (*violate)(sqlite3* db))
{
    const auto at = [](const char* name, const std::set<int>& codes, void (*strike)(sqlite3*)) {
        return Cause{name, Target::statement, codes, FileCall::open, SQLITE_OK, strike};
    };
    Cause stop = at("Stop", {SQLITE_INTERRUPT}, sqlite3_interrupt);
    stop.standsAtARow = true;
    return {stop, at("Conflict", {}, violate), at("FullFile", {SQLITE_FULL}, fillUp)};
}

// How far it is from one point that is tried to the next, where not all are.
struct Strides {
    int instruction = 13;
    int sqliteMemory = 7;
    int other = 3;
};

// Work on a file with one of the journals, that a cause strikes at its points, once or lasting.
class TroubleTest : public testing::TestWithParam<std::tuple<Cause, bool, const char*>> {
protected:
    // True when the cause has struck at its nth target.
    virtual bool workWithTrouble(int nth) = 0;

    // Whatever strikes where, no memory stays behind.
    void tryAllPoints(const Strides& strides = {})
    {
        const int stride = test::stride(usual(strides));
        int nth = 1;
        for (long blocks = 0; nth < most_points && workWithTrouble(nth) && !HasFailure();) {
            EXPECT_TRUE(nth == 1 || heapInUse() == blocks) << heapInUse() - blocks;
            blocks = heapInUse();
            nth += stride;
        }
        EXPECT_GT(nth, 1);
        EXPECT_LT(nth, most_points);
        if (HasFailure())
            std::printf("at %d\n", nth);
    }

    // Each reason that was reported is of the cause, or what a loss brings with it.
    static void expectReasons(const std::vector<std::string>& errors)
    {
        std::set<int> codes = std::get<0>(GetParam()).codes;
        codes.insert({SQLITE_ABORT, SQLITE_CONSTRAINT});
        for (const std::string& error : errors) {
            const bool isReason = error.compare(0, 5, "  rc=") == 0;
            EXPECT_TRUE(!isReason || codes.count(std::stoi(error.substr(5)) & 0xff) == 1) << error;
        }
    }

private:
    static int usual(const Strides& strides)
    {
        switch (std::get<0>(GetParam()).target) {
        case Target::instruction:
            return strides.instruction;
        case Target::sqlite_memory:
            return strides.sqliteMemory;
        case Target::statement:
            return 1;
        case Target::file:
        case Target::heap:
            break;
        }
        return strides.other;
    }
};

// The cases of a TroubleTest, which test::NameOfWay() names.
template <typename Causes> auto everyWay(const Causes& causes)
{
    return testing::Combine(testing::ValuesIn(causes), testing::Bool(),
                            testing::Values("delete", "wal"));
}

template <typename Causes> auto everyWayWithoutALog(const Causes& causes)
{
    return testing::Combine(testing::ValuesIn(causes), testing::Bool(), testing::Values("delete"));
}

struct NameOfWay {
    template <typename Any> std::string operator()(const testing::TestParamInfo<Any>& info) const
    {
        const auto& [cause, lasts, journal] = info.param;
        return cause.name + (lasts ? "Lasting" : "Once")
               + (journal == std::string("wal") ? "Wal" : "");
    }
};

} // namespace test

#endif
