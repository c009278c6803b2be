#include "FaultVfs.h"

#include <cstring>

namespace test {

namespace {

FaultVfs* current = nullptr;
sqlite3_vfs* real = nullptr;
sqlite3_vfs faulty;

// What SQLite has allocated for a file; the real file's own part follows.
struct File {
    sqlite3_file base;
    const char* path; // SQLite keeps it until the file is closed
};

const int own_size = (sizeof(File) + 7) / 8 * 8;

sqlite3_file* realFile(sqlite3_file* file)
{
    return reinterpret_cast<sqlite3_file*>(reinterpret_cast<char*>(file) + own_size);
}

const sqlite3_io_methods& realMethods(sqlite3_file* file)
{
    return *realFile(file)->pMethods;
}

FileAccess accessTo(sqlite3_file* file, FileCall call)
{
    return FileAccess{call, reinterpret_cast<File*>(file)->path, 0, 0, nullptr, 0};
}

// Makes a call unless it is to fail.
template <typename Call> int attempt(const FileAccess& access, Call call)
{
    const int refusal = current->before ? current->before(access) : SQLITE_OK;
    if (refusal != SQLITE_OK)
        return refusal;
    const int rc = call();
    if (rc == SQLITE_OK && current->after)
        current->after(access);
    return rc;
}

int closeFile(sqlite3_file* file)
{
    return realMethods(file).xClose(realFile(file));
}

int readFile(sqlite3_file* file, void* buffer, int count, sqlite3_int64 offset)
{
    FileAccess access = accessTo(file, FileCall::read);
    access.offset = offset;
    access.count = count;
    bool made = false;
    const int rc = attempt(access, [&] {
        made = true;
        return realMethods(file).xRead(realFile(file), buffer, count, offset);
    });
    if (rc == SQLITE_IOERR_SHORT_READ && !made) // SQLite demands zeros for what is missing
        std::memset(buffer, 0, static_cast<std::size_t>(count));
    return rc;
}

int writeFile(sqlite3_file* file, const void* bytes, int count, sqlite3_int64 offset)
{
    FileAccess access = accessTo(file, FileCall::write);
    access.offset = offset;
    access.bytes = bytes;
    access.count = count;
    return attempt(access,
                   [&] { return realMethods(file).xWrite(realFile(file), bytes, count, offset); });
}

int truncateFile(sqlite3_file* file, sqlite3_int64 size)
{
    FileAccess access = accessTo(file, FileCall::truncate);
    access.offset = size;
    return attempt(access, [&] { return realMethods(file).xTruncate(realFile(file), size); });
}

// Tests never take the power from the machine they run on.
int syncFile(sqlite3_file* file, int)
{
    return attempt(accessTo(file, FileCall::sync), [] { return SQLITE_OK; });
}

int sizeOfFile(sqlite3_file* file, sqlite3_int64* size)
{
    return attempt(accessTo(file, FileCall::size),
                   [&] { return realMethods(file).xFileSize(realFile(file), size); });
}

int lockFile(sqlite3_file* file, int lock)
{
    return attempt(accessTo(file, FileCall::lock),
                   [&] { return realMethods(file).xLock(realFile(file), lock); });
}

int unlockFile(sqlite3_file* file, int lock)
{
    return realMethods(file).xUnlock(realFile(file), lock);
}

int checkReservedLock(sqlite3_file* file, int* isHeld)
{
    return attempt(accessTo(file, FileCall::lock),
                   [&] { return realMethods(file).xCheckReservedLock(realFile(file), isHeld); });
}

int controlFile(sqlite3_file* file, int operation, void* argument)
{
    return realMethods(file).xFileControl(realFile(file), operation, argument);
}

int sectorSizeOf(sqlite3_file* file)
{
    const int pretended = current->sectorSize();
    return pretended > 0 ? pretended : realMethods(file).xSectorSize(realFile(file));
}

int characteristicsOf(sqlite3_file* file)
{
    return current->sectorSize() > 0 ? current->characteristics()
                                     : realMethods(file).xDeviceCharacteristics(realFile(file));
}

int mapShared(sqlite3_file* file, int page, int pageSize, int extend, void volatile** memory)
{
    return realMethods(file).xShmMap(realFile(file), page, pageSize, extend, memory);
}

int lockShared(sqlite3_file* file, int offset, int count, int flags)
{
    const auto call = [&] {
        return realMethods(file).xShmLock(realFile(file), offset, count, flags);
    };
    const bool unlocks = (flags & SQLITE_SHM_UNLOCK) != 0;
    return unlocks ? call() : attempt(accessTo(file, FileCall::lock), call);
}

void shareBarrier(sqlite3_file* file)
{
    realMethods(file).xShmBarrier(realFile(file));
}

int unmapShared(sqlite3_file* file, int remove)
{
    return realMethods(file).xShmUnmap(realFile(file), remove);
}

// The second version: shared memory, which a write-ahead log needs, but no mapped files, past which
// nothing would come here.
const sqlite3_io_methods methods = {2,
                                    closeFile,
                                    readFile,
                                    writeFile,
                                    truncateFile,
                                    syncFile,
                                    sizeOfFile,
                                    lockFile,
                                    unlockFile,
                                    checkReservedLock,
                                    controlFile,
                                    sectorSizeOf,
                                    characteristicsOf,
                                    mapShared,
                                    lockShared,
                                    shareBarrier,
                                    unmapShared,
                                    nullptr,
                                    nullptr};

int openFile(sqlite3_vfs*, const char* path, sqlite3_file* file, int flags, int* flagsOut)
{
    file->pMethods = nullptr; // nothing to close as long as nothing is open
    reinterpret_cast<File*>(file)->path = path != nullptr ? path : "";
    FileAccess access = accessTo(file, FileCall::open);
    access.flags = flags;
    const int rc = attempt(
        access, [&] { return real->xOpen(real, path, realFile(file), flags, flagsOut); });
    if (rc == SQLITE_OK)
        file->pMethods = &methods;
    return rc;
}

int removeFile(sqlite3_vfs*, const char* path, int syncDirectory)
{
    return attempt(FileAccess{FileCall::remove, path, syncDirectory, 0, nullptr, 0},
                   [&] { return real->xDelete(real, path, 0); });
}

int accessFile(sqlite3_vfs*, const char* path, int flags, int* result)
{
    return attempt(FileAccess{FileCall::access, path, flags, 0, nullptr, 0},
                   [&] { return real->xAccess(real, path, flags, result); });
}

} // namespace

FaultVfs::FaultVfs()
{
    real = sqlite3_vfs_find(nullptr);
    current = this;
    faulty = *real; // its other functions do not look at what is changed below
    faulty.szOsFile = own_size + real->szOsFile;
    faulty.zName = "sqlwrapper-test";
    faulty.xOpen = openFile;
    faulty.xDelete = removeFile;
    faulty.xAccess = accessFile;
    sqlite3_vfs_register(&faulty, 1);
}

FaultVfs::~FaultVfs()
{
    sqlite3_vfs_unregister(&faulty);
    current = nullptr;
}

void FaultVfs::pretendDisk(int sectorSize, int characteristics)
{
    _sectorSize = sectorSize;
    _characteristics = characteristics;
}

int FaultVfs::sectorSize() const
{
    return _sectorSize;
}

int FaultVfs::characteristics() const
{
    return _characteristics;
}

} // namespace test
