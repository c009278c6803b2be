#ifndef SQLWRAPPER_TESTS_SUPPORT_SYSTEMCALLS_H
#define SQLWRAPPER_TESTS_SUPPORT_SYSTEMCALLS_H

#include <functional>
#include <string>

namespace test {

// One call into the file system.
struct SystemCall {
    std::string name; // "open", "lstat", "fstat", "flock", "ftruncate", "fsync", "link", "rename",
                      // "renameat2" or "unlink"
    std::string path;
    std::string newPath; // of a link and a rename
    int flags;           // of an open
};

// The calls into the file system that do not come from SQLite, while this object lives. One at a
// time, for programs that SystemCalls.cpp is a source of: it takes the place of the C library's
// functions there.
class SystemCalls {
public:
    SystemCalls();
    ~SystemCalls();
    SystemCalls(const SystemCalls&) = delete;
    SystemCalls& operator=(const SystemCalls&) = delete;

    // Asked before a call. Another result than 0 becomes its errno, and nothing else is done.
    std::function<int(const SystemCall&)> before;

    // Told of each call that has succeeded.
    std::function<void(const SystemCall&)> after;
};

} // namespace test

#endif
