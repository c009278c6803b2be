// Prints what operations need of memory, in bytes: at most and afterwards on the program's heap, at
// most on SQLite's, and of the stack.
//
//     memory FOLDER CONTESTANT ROWS
//
// Blocks count as the C library keeps them, with its own word for each. Run it with LD_BIND_NOW=1:
// the loader's lookups take stack too. It fails when rows that our own hold need more than their cells,
// and when rows on their way through them take memory.

#include "Operations.h"
#include "SqlBinder.h"
#include "SqlTable.h"

#include <malloc.h>
#include <sqlite3.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>

extern "C" {
void* __libc_malloc(std::size_t size);
void* __libc_calloc(std::size_t count, std::size_t size);
void* __libc_realloc(void* block, std::size_t size);
void* __libc_memalign(std::size_t alignment, std::size_t size);
void __libc_free(void* block);
}

namespace {

struct Heap {
    std::size_t held = 0;
    std::size_t most = 0;

    void add(void* block)
    {
        if (block == nullptr)
            return;
        held += malloc_usable_size(block) + sizeof(std::size_t);
        most = std::max(most, held);
    }
    void subtract(void* block)
    {
        if (block != nullptr)
            held -= malloc_usable_size(block) + sizeof(std::size_t);
    }
};

Heap programHeap;
Heap sqliteHeap;

void* counted(Heap& heap, void* block)
{
    heap.add(block);
    return block;
}

void* resized(Heap& heap, void* old, std::size_t size)
{
    heap.subtract(old);
    void* const block = __libc_realloc(old, size);
    heap.add(block != nullptr || size == 0 ? block : old);
    return block;
}

void released(Heap& heap, void* block)
{
    heap.subtract(block);
    __libc_free(block);
}

} // namespace

// Those of the whole process but SQLite, which has its own below.
extern "C" void* malloc(std::size_t size)
{
    return counted(programHeap, __libc_malloc(size));
}
extern "C" void* calloc(std::size_t count, std::size_t size)
{
    return counted(programHeap, __libc_calloc(count, size));
}
extern "C" void* realloc(void* block, std::size_t size)
{
    return resized(programHeap, block, size);
}
extern "C" void* memalign(std::size_t alignment, std::size_t size)
{
    return counted(programHeap, __libc_memalign(alignment, size));
}
extern "C" void* aligned_alloc(std::size_t alignment, std::size_t size)
{
    return counted(programHeap, __libc_memalign(alignment, size));
}
extern "C" int posix_memalign(void** block, std::size_t alignment, std::size_t size)
{
    *block = counted(programHeap, __libc_memalign(alignment, size));
    return *block != nullptr ? 0 : ENOMEM;
}
extern "C" void free(void* block)
{
    released(programHeap, block);
}

namespace {

void* sqliteMalloc(int size)
{
    return counted(sqliteHeap, __libc_malloc(size));
}

void sqliteFree(void* block)
{
    released(sqliteHeap, block);
}

void* sqliteRealloc(void* block, int size)
{
    return resized(sqliteHeap, block, size);
}

int sqliteSize(void* block)
{
    return block != nullptr ? static_cast<int>(malloc_usable_size(block)) : 0;
}

int sqliteRoundup(int size)
{
    return (size + 7) & ~7;
}

int sqliteInit(void*)
{
    return SQLITE_OK;
}

void sqliteShutdown(void*)
{
}

const sqlite3_mem_methods sqliteMethods = {sqliteMalloc,  sqliteFree, sqliteRealloc,  sqliteSize,
                                           sqliteRoundup, sqliteInit, sqliteShutdown, nullptr};

// The stack below the caller is painted; the lowest spot that lost its paint is how deep calls went.
constexpr std::size_t painted = 192 * 1024;
constexpr std::size_t own_frames = 512;
constexpr unsigned char paint = 0xA5;

[[gnu::noinline]] std::uintptr_t paintStack()
{
    const auto here = reinterpret_cast<std::uintptr_t>(__builtin_frame_address(0));
    for (std::uintptr_t at = here - own_frames; at > here - painted; --at)
        *reinterpret_cast<volatile unsigned char*>(at) = paint;
    return here;
}

[[gnu::noinline]] std::size_t stackDepth(std::uintptr_t top)
{
    std::uintptr_t at = top - painted + 1;
    while (at < top && *reinterpret_cast<volatile unsigned char*>(at) == paint)
        ++at;
    return top - at;
}

class MemoryMeter : public bench::Meter {
public:
    void start() override
    {
        _before = programHeap.held;
        _sqliteBefore = sqliteHeap.held;
        programHeap.most = programHeap.held;
        sqliteHeap.most = sqliteHeap.held;
        _top = paintStack();
    }
    void stop() override
    {
        stack = stackDepth(_top);
        most = programHeap.most - _before;
        held = static_cast<long>(programHeap.held) - static_cast<long>(_before);
        sqliteMost = sqliteHeap.most - _sqliteBefore;
    }

    std::size_t stack = 0;
    std::size_t most = 0;
    long held = 0;
    std::size_t sqliteMost = 0;

private:
    std::size_t _before = 0;
    std::size_t _sqliteBefore = 0;
    std::uintptr_t _top = 0;
};

// A block as the C library keeps it.
std::size_t blockSize(std::size_t size)
{
    const std::size_t step = 2 * sizeof(std::size_t);
    return std::max(2 * step, (size + sizeof(std::size_t) + step - 1) / step * step);
}

// A text of more than fifteen characters has a block, of no less than thirty.
std::size_t textSize(const std::string& text)
{
    return text.size() < 16 ? 0 : blockSize(std::max<std::size_t>(text.size(), 30) + 1);
}

// What the rows of a table need when they are held: their cells, their long texts, and the records,
// whose vector has the former block beside one twice as large while it grows.
std::size_t needOf(int rows)
{
    std::size_t need = 0;
    for (int id = 1; id <= rows; ++id) {
        const bench::Row row = bench::makeRow(id);
        need += blockSize(bench::column_count * sizeof(sql::Value)) + textSize(row.name)
                + textSize(row.place) + (row.note ? textSize(*row.note) : 0)
                + 3 * sizeof(sql::Record);
    }
    return need;
}

// What a plain vector of them takes while it grows.
std::size_t plainNeedOf(int rows)
{
    MemoryMeter meter;
    meter.start();
    std::vector<bench::Row> all;
    for (int id = 1; id <= rows; ++id) {
        const bench::Row made = bench::makeRow(id);
        bench::Row& row = all.emplace_back();
        row.name = std::string_view(made.name); // which may get more room than a copy has
        row.place = std::string_view(made.place);
        if (made.note)
            row.note.emplace() = std::string_view(*made.note);
    }
    meter.stop();
    return meter.most;
}

// Statements, names and what else does not depend on the number of rows.
constexpr std::size_t rest = 4096;

void checkPlainLoad(int rows, const MemoryMeter& meter)
{
    const std::size_t need = plainNeedOf(rows);
    bench::require(meter.most <= need + need / 100 + rest, // the keys, and so the texts, are others
                   "objects held need no more than a vector");
}

void checkLoad(int rows, const MemoryMeter& meter)
{
    std::fprintf(stderr, "rows of %zu bytes, %zu of a cell and %zu of a record\n",
                 needOf(rows) / rows, sizeof(sql::Value), sizeof(sql::Record));
    bench::require(meter.most <= needOf(rows) + rest, "rows held need no more than their cells");
}

// As many cells as go in together, however many rows there are.
constexpr std::size_t group = 32 * bench::column_count * sizeof(sql::Argument);

// As many objects that do not last until their group goes in, with a long text each.
constexpr std::size_t waiting = 32 * (sizeof(bench::Row) + 100);

void checkStream(const MemoryMeter& meter, std::size_t held)
{
    bench::require(meter.most <= held + rest, "rows on their way take no memory");
}

void check(const std::string& contestant, const std::string& operation, int rows,
           const MemoryMeter& meter)
{
    const bool ofTable = contestant == "prepared table";
    const bool isTyped = contestant == "typed";
    const bool reads = operation.compare(0, 10, "load, read") == 0;
    if ((contestant == "library" || ofTable) && operation == "load")
        checkLoad(rows, meter);
    if (isTyped && operation == "load")
        checkPlainLoad(rows, meter);
    if (((contestant == "statement" || isTyped) && reads)
        || (ofTable && (reads || operation == "copy")))
        checkStream(meter, 0);
    if ((ofTable || isTyped) && operation == "insert, all at once")
        checkStream(meter, group);
    if (isTyped && operation == "copy")
        checkStream(meter, group + waiting);
}

} // namespace

int main(int argc, char** argv)
{
    sqlite3_config(SQLITE_CONFIG_MALLOC, &sqliteMethods);
    bench::require(argc == 4, "memory FOLDER CONTESTANT ROWS");
    const bench::Place place = {argv[1], std::atoi(argv[3])};
    const bench::Entry& entry = bench::contestant(argv[2]);
    bench::makeDatabase(place);
    for (const bench::Operation& operation : bench::operations()) {
        MemoryMeter meter;
        operation.run(entry, place, meter);
        std::printf("%s|%zu|%ld|%zu|%zu\n", operation.name, meter.most, meter.held,
                    meter.sqliteMost, meter.stack);
        check(entry.name, operation.name, place.rows, meter);
    }
    return 0;
}
