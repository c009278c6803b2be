#ifndef SQLWRAPPER_TESTS_SUPPORT_HEAP_H
#define SQLWRAPPER_TESTS_SUPPORT_HEAP_H

namespace test {

// What operator new has given out, to the library and the tests alike, and operator delete has not
// got back. SQLite has no part in it. For programs that Heap.cpp is a source of: it takes the place
// of the standard library's operators there.
long heapBlocksInUse();

// Asked before each allocation, which fails when the answer is true; null at first.
extern bool (*refusesHeap)();

} // namespace test

#endif
