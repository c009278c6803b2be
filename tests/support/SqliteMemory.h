#ifndef SQLWRAPPER_TESTS_SUPPORT_SQLITEMEMORY_H
#define SQLWRAPPER_TESTS_SUPPORT_SQLITEMEMORY_H

namespace test {

// The memory that SQLite asks for while this object lives, which it may be refused. SQLite starts
// anew with it and once more after it, so no connection lives longer than either; its own pools are
// off, and every allocation comes here. One at a time.
class SqliteMemory {
public:
    SqliteMemory();
    ~SqliteMemory();
    SqliteMemory(const SqliteMemory&) = delete;
    SqliteMemory& operator=(const SqliteMemory&) = delete;

    // Refuses the nth allocation from now on, and those behind it when the shortage lasts.
    void refuse(int nth, bool lasts);

    // Whether allocations count, and are refused; they are not at first.
    void watch(bool on);

    int allocations() const; // counted
    bool hasRefused() const;
    long blocksInUse() const; // counted or not

    // For SQLite's allocator.
    bool refusesNow();
    void addBlocks(int number);

private:
    bool _watches = false;
    int _allocations = 0;
    int _nth = 0;
    bool _lasts = false;
    bool _hasRefused = false;
    long _blocks = 0;
};

} // namespace test

#endif
