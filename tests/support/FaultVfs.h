#ifndef SQLWRAPPER_TESTS_SUPPORT_FAULTVFS_H
#define SQLWRAPPER_TESTS_SUPPORT_FAULTVFS_H

#include <sqlite3.h>

#include <functional>

namespace test {

enum class FileCall { open, remove, access, read, write, truncate, sync, size, lock };

// One call that SQLite makes into the file system.
struct FileAccess {
    FileCall call;
    const char* path;     // "" for a temporary file without a name
    int flags;            // of an open those of sqlite3_open_v2(); of a remove whether it is synced
    sqlite3_int64 offset; // of a read or write; the size that a truncate leaves
    const void* bytes;    // of a write
    int count;            // of the bytes read or written
};

// Is SQLite's default file system while it lives, and passes all calls on to the former one; only
// what is synced never waits for the disk. Connections opened before and after have nothing to do
// with it; those opened in between are closed before it ends. One at a time.
class FaultVfs {
public:
    FaultVfs();
    ~FaultVfs();
    FaultVfs(const FaultVfs&) = delete;
    FaultVfs& operator=(const FaultVfs&) = delete;

    // Asked before a call. Another result than SQLITE_OK becomes the result of the call, which then
    // does nothing else.
    std::function<int(const FileAccess&)> before;

    // Told of each call that has succeeded.
    std::function<void(const FileAccess&)> after;

    // What SQLite shall believe of the disk, instead of what it would find out.
    void pretendDisk(int sectorSize, int characteristics);

    int sectorSize() const; // 0 while nothing is pretended
    int characteristics() const;

private:
    int _sectorSize = 0;
    int _characteristics = 0;
};

} // namespace test

#endif
