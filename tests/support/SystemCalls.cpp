// Compiled with _FILE_OFFSET_BITS=64, as what is replaced is called.

#include "SystemCalls.h"

#include <sys/file.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdarg>
#include <cstdio>

#include <dlfcn.h>
#include <fcntl.h>

namespace {

test::SystemCalls* current = nullptr;

template <typename Function> Function* original(const char* name)
{
    return reinterpret_cast<Function*>(::dlsym(RTLD_NEXT, name));
}

bool isSqlite(void* caller)
{
    static const void* const own = ::dlsym(RTLD_DEFAULT, "sqlite3_libversion_number");
    Dl_info sqlite;
    Dl_info place;
    return ::dladdr(own, &sqlite) != 0 && ::dladdr(caller, &place) != 0
           && place.dli_fbase == sqlite.dli_fbase;
}

// As it is made: a call that nobody watches takes no memory.
struct Call {
    const char* name;
    const char* path; // null for that of the descriptor
    const char* newPath;
    int flags;
    int descriptor;
};

Call callOn(int descriptor, const char* name)
{
    return {name, nullptr, "", 0, descriptor};
}

std::string pathOf(int descriptor)
{
    const std::string link = "/proc/self/fd/" + std::to_string(descriptor);
    char path[PATH_MAX];
    const ssize_t length = ::readlink(link.c_str(), path, sizeof path);
    return std::string(path, length > 0 ? static_cast<std::size_t>(length) : 0);
}

// Makes a call unless it is to fail.
template <typename Make> int attempt(void* caller, const Call& call, Make make)
{
    if (current == nullptr || isSqlite(caller))
        return make();
    const test::SystemCall description = {
        call.name, call.path != nullptr ? call.path : pathOf(call.descriptor), call.newPath,
        call.flags};
    const int refusal = current->before ? current->before(description) : 0;
    if (refusal != 0) {
        errno = refusal;
        return -1;
    }
    const int result = make();
    const int error = errno;
    if (result >= 0 && current->after)
        current->after(description);
    errno = error;
    return result;
}

} // namespace

#define CALLER __builtin_return_address(0)

extern "C" {

int open(const char* path, int flags, ...)
{
    std::va_list arguments;
    va_start(arguments, flags);
    const unsigned mode = (flags & O_CREAT) != 0 ? va_arg(arguments, unsigned) : 0;
    va_end(arguments);
    return attempt(CALLER, {"open", path, "", flags, -1},
                   [&] { return ::openat(AT_FDCWD, path, flags, mode); });
}

int lstat(const char* path, struct stat* found) noexcept
{
    return attempt(CALLER, {"lstat", path, "", 0, -1},
                   [&] { return ::fstatat(AT_FDCWD, path, found, AT_SYMLINK_NOFOLLOW); });
}

int fstat(int descriptor, struct stat* found) noexcept
{
    return attempt(CALLER, callOn(descriptor, "fstat"),
                   [&] { return ::fstatat(descriptor, "", found, AT_EMPTY_PATH); });
}

int flock(int descriptor, int operation) noexcept
{
    return attempt(CALLER, callOn(descriptor, "flock"),
                   [&] { return static_cast<int>(::syscall(SYS_flock, descriptor, operation)); });
}

int ftruncate(int descriptor, off_t size) noexcept
{
    static auto* const real = original<int(int, off_t)>("ftruncate64");
    return attempt(CALLER, callOn(descriptor, "ftruncate"), [&] { return real(descriptor, size); });
}

// Nothing waits for the disk.
int fsync(int descriptor)
{
    return attempt(CALLER, callOn(descriptor, "fsync"), [] { return 0; });
}

int link(const char* from, const char* to) noexcept
{
    return attempt(CALLER, {"link", from, to, 0, -1},
                   [&] { return ::linkat(AT_FDCWD, from, AT_FDCWD, to, 0); });
}

int rename(const char* from, const char* to) noexcept
{
    return attempt(CALLER, {"rename", from, to, 0, -1},
                   [&] { return ::renameat(AT_FDCWD, from, AT_FDCWD, to); });
}

int renameat2(int fromFolder, const char* from, int toFolder, const char* to,
              unsigned flags) noexcept
{
    return attempt(CALLER, {"renameat2", from, to, 0, -1}, [&] {
        return static_cast<int>(::syscall(SYS_renameat2, fromFolder, from, toFolder, to, flags));
    });
}

int unlink(const char* path) noexcept
{
    return attempt(CALLER, {"unlink", path, "", 0, -1},
                   [&] { return ::unlinkat(AT_FDCWD, path, 0); });
}

} // extern "C"

namespace test {

SystemCalls::SystemCalls()
{
    current = this;
}

SystemCalls::~SystemCalls()
{
    current = nullptr;
}

} // namespace test
