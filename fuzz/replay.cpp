// Runs a target on the inputs of a folder, as a test that needs no fuzzer.

#include "Fuzz.h"

#include "Environment.h"

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <string>
#include <vector>

namespace fs = std::filesystem;

namespace {

std::vector<std::string> inputsIn(const char* folder)
{
    std::vector<std::string> paths;
    std::error_code error;
    for (fs::directory_iterator entry(folder, error); !error && entry != fs::directory_iterator();
         entry.increment(error))
        paths.push_back(entry->path().string());
    if (error)
        std::fprintf(stderr, "%s: %s\n", folder, error.message().c_str());
    std::sort(paths.begin(), paths.end());
    return paths;
}

} // namespace

int main(int argc, char** argv)
{
    if (argc != 2) {
        std::fprintf(stderr, "%s FOLDER\n", argv[0]);
        return 2;
    }

    const std::vector<std::string> inputs = inputsIn(argv[1]);
    for (const std::string& path : inputs) {
        // Left at the end of the output by an input that ends the program.
        std::printf("%s\n", path.c_str());
        std::fflush(stdout);
        const std::string input = test::readFile(path);
        LLVMFuzzerTestOneInput(reinterpret_cast<const std::uint8_t*>(input.data()), input.size());
    }
    std::printf("%zu inputs\n", inputs.size());
    return inputs.empty() ? 1 : 0;
}
