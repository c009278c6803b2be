#include "Heap.h"

#include "Diagnostics.h"

#include <cstddef>
#include <cstdlib>
#include <new>

#include <malloc.h>

namespace test {

namespace {

MemoryShortage* current = nullptr;
long blocksInUse = 0;
long bytesInUse = 0;

void* allocate(std::size_t size) noexcept
{
    const bool refused = current != nullptr && current->refusesNow();
    void* const memory = refused ? nullptr : std::malloc(size > 0 ? size : 1);
    if (memory != nullptr) {
        ++blocksInUse;
        bytesInUse += static_cast<long>(::malloc_usable_size(memory));
    }
    return memory;
}

void release(void* memory)
{
    if (memory != nullptr) {
        --blocksInUse;
        bytesInUse -= static_cast<long>(::malloc_usable_size(memory));
    }
    std::free(memory);
}

void* allocateOrThrow(std::size_t size)
{
    void* const memory = allocate(size);
    if (memory == nullptr)
        throw std::bad_alloc();
    return memory;
}

} // namespace

long heapBlocksInUse()
{
    return blocksInUse;
}

long heapBytesInUse()
{
    return bytesInUse;
}

MemoryShortage::MemoryShortage(int nth, bool lasts) : _nth(nth), _left(nth), _lasts(lasts)
{
    current = this;
}

MemoryShortage::~MemoryShortage()
{
    current = nullptr;
}

bool MemoryShortage::hasStruck() const
{
    return _left <= 0;
}

void MemoryShortage::watch(bool on)
{
    _watches = on;
}

int MemoryShortage::allocations() const
{
    return _nth - _left;
}

// What the tests do to capture a report is no allocation of the library.
bool MemoryShortage::refusesNow()
{
    if (!_watches || Diagnostics::isCapturing())
        return false;
    --_left;
    return _left == 0 || (_left < 0 && _lasts);
}

} // namespace test

void* operator new(std::size_t size)
{
    return test::allocateOrThrow(size);
}

void* operator new[](std::size_t size)
{
    return test::allocateOrThrow(size);
}

void* operator new(std::size_t size, const std::nothrow_t&) noexcept
{
    return test::allocate(size);
}

void* operator new[](std::size_t size, const std::nothrow_t&) noexcept
{
    return test::allocate(size);
}

void operator delete(void* memory) noexcept
{
    test::release(memory);
}

void operator delete[](void* memory) noexcept
{
    test::release(memory);
}

void operator delete(void* memory, std::size_t) noexcept
{
    test::release(memory);
}

void operator delete[](void* memory, std::size_t) noexcept
{
    test::release(memory);
}
