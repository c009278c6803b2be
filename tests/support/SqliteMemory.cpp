#include "SqliteMemory.h"

#include <sqlite3.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace test {

namespace {

sqlite3_mem_methods original;
SqliteMemory* current = nullptr;

void* allocate(int size)
{
    void* const memory = current->refusesNow() ? nullptr : original.xMalloc(size);
    if (memory != nullptr)
        current->addBlocks(1);
    return memory;
}

void* resize(void* memory, int size)
{
    return current->refusesNow() ? nullptr : original.xRealloc(memory, size);
}

// What is freed is spoiled first: who reads it still does not get far.
void release(void* memory)
{
    if (memory != nullptr) {
        current->addBlocks(-1);
        std::memset(memory, 0xa5, static_cast<std::size_t>(original.xSize(memory)));
    }
    original.xFree(memory);
}

void configure(int result)
{
    if (result == SQLITE_OK)
        return;
    std::fprintf(stderr, "SQLite does not let its memory be configured: %d\n", result);
    std::abort();
}

} // namespace

SqliteMemory::SqliteMemory()
{
    configure(sqlite3_shutdown());
    configure(sqlite3_config(SQLITE_CONFIG_GETMALLOC, &original));
    sqlite3_mem_methods methods = original;
    methods.xMalloc = allocate;
    methods.xRealloc = resize;
    methods.xFree = release;
    configure(sqlite3_config(SQLITE_CONFIG_MALLOC, &methods));
    configure(sqlite3_config(SQLITE_CONFIG_LOOKASIDE, 0, 0));
    configure(sqlite3_config(SQLITE_CONFIG_MEMSTATUS, 1));
    current = this;
}

SqliteMemory::~SqliteMemory()
{
    configure(sqlite3_shutdown());
    configure(sqlite3_config(SQLITE_CONFIG_MALLOC, &original));
    current = nullptr;
}

void SqliteMemory::refuse(int nth, bool lasts)
{
    _allocations = 0;
    _nth = nth;
    _lasts = lasts;
    _hasRefused = false;
}

void SqliteMemory::watch(bool on)
{
    _watches = on;
}

int SqliteMemory::allocations() const
{
    return _allocations;
}

bool SqliteMemory::hasRefused() const
{
    return _hasRefused;
}

long SqliteMemory::blocksInUse() const
{
    return _blocks;
}

bool SqliteMemory::refusesNow()
{
    if (!_watches)
        return false;
    ++_allocations;
    const bool refuses = _nth > 0 && (_allocations == _nth || (_allocations > _nth && _lasts));
    _hasRefused = _hasRefused || refuses;
    return refuses;
}

void SqliteMemory::addBlocks(int number)
{
    _blocks += number;
}

} // namespace test
