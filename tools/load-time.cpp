// load-time LIBRARY DEPENDENCY...: prints how many microseconds it takes to load a library into a
// process that has loaded what the library needs: the median of many processes.
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <vector>

#include <dlfcn.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

bool load(const char* library)
{
    const bool loaded = ::dlopen(library, RTLD_NOW | RTLD_GLOBAL) != nullptr;
    if (!loaded)
        std::fprintf(stderr, "%s\n", ::dlerror());
    return loaded;
}

// In a process of its own, which hands the result through a pipe.
double microseconds(int count, char** libraries)
{
    int ends[2];
    double time = -1;
    if (::pipe(ends) != 0)
        return time;
    const pid_t child = ::fork();
    if (child == 0) {
        bool loaded = true;
        for (int i = 1; i < count; ++i)
            loaded = load(libraries[i]) && loaded;
        const auto start = std::chrono::steady_clock::now();
        loaded = load(libraries[0]) && loaded;
        time = std::chrono::duration<double, std::micro>(std::chrono::steady_clock::now() - start)
                   .count();
        ::_exit(loaded && ::write(ends[1], &time, sizeof time) == sizeof time ? 0 : 1);
    }
    ::close(ends[1]);
    if (::read(ends[0], &time, sizeof time) != sizeof time)
        time = -1;
    ::close(ends[0]);
    ::waitpid(child, nullptr, 0);
    return time;
}

} // namespace

int main(int argc, char** argv)
{
    std::vector<double> times;
    for (int i = 0; i < 201; ++i)
        times.push_back(microseconds(argc - 1, argv + 1));
    std::sort(times.begin(), times.end());
    if (times.front() < 0)
        return 1;
    std::printf("%.0f\n", times[times.size() / 2]);
    return 0;
}
