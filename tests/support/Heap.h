#ifndef SQLWRAPPER_TESTS_SUPPORT_HEAP_H
#define SQLWRAPPER_TESTS_SUPPORT_HEAP_H

namespace test {

// What operator new has given out, to the library and the tests alike, and operator delete has not
// got back. SQLite has no part in it. For programs that Heap.cpp is a source of: it takes the place
// of the standard library's operators there.
long heapBlocksInUse();
long heapBytesInUse(); // as large as the blocks have become

// Which allocations fail while one of these lives: the nth, and those behind it when it lasts.
class MemoryShortage {
public:
    MemoryShortage(int nth, bool lasts);
    ~MemoryShortage();
    MemoryShortage(const MemoryShortage&) = delete;
    MemoryShortage& operator=(const MemoryShortage&) = delete;

    bool hasStruck() const;

    // Whether allocations count, and fail; they do at first.
    void watch(bool on);

    int allocations() const; // counted

    // For the operators.
    bool refusesNow();

private:
    const int _nth;
    int _left;
    const bool _lasts;
    bool _watches = true;
};

} // namespace test

#endif
