#include "Heap.h"

#include <cstddef>
#include <cstdlib>
#include <new>

namespace test {

bool (*refusesHeap)() = nullptr;

namespace {

long blocksInUse = 0;

void* allocate(std::size_t size) noexcept
{
    const bool refused = refusesHeap != nullptr && refusesHeap();
    void* const memory = refused ? nullptr : std::malloc(size > 0 ? size : 1);
    if (memory != nullptr)
        ++blocksInUse;
    return memory;
}

void release(void* memory)
{
    if (memory != nullptr)
        --blocksInUse;
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
