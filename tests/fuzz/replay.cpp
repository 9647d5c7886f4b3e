#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "fuzz_input.hpp"

// Runs a fuzz target over files that exist, without a fuzzer: what once was found must stay mended.

namespace {

namespace fs = std::filesystem;

/** The files that are named, and those in the folders that are named, in the order of their names. */
std::vector<fs::path> files_in(const std::vector<fs::path>& arguments)
{
    std::vector<fs::path> files;
    for (const fs::path& argument : arguments) {
        if (fs::is_directory(argument)) {
            std::copy(fs::directory_iterator(argument), fs::directory_iterator(), std::back_inserter(files));
        } else {
            files.push_back(argument);
        }
    }
    std::sort(files.begin(), files.end());
    return files;
}

} // namespace

int main(int count, char** arguments)
{
    const std::vector<fs::path> files = files_in({arguments + 1, arguments + count});
    if (files.empty()) {
        std::fprintf(stderr, "usage: %s FILE-OR-FOLDER...\n", arguments[0]);
        return 2;
    }
    for (const fs::path& file : files) {
        std::ifstream stream(file, std::ios::binary);
        if (!stream) {
            std::fprintf(stderr, "%s: cannot be read\n", file.c_str());
            return 2;
        }
        // The last line of a run that ends in here tells which file did it.
        std::printf("%s\n", file.c_str());
        std::fflush(stdout);
        const std::string bytes((std::istreambuf_iterator<char>(stream)), {});
        LLVMFuzzerTestOneInput(reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size());
    }
    std::printf("%zu files\n", files.size());
    return 0;
}
