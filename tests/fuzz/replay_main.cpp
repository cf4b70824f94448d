// Stands in for libFuzzer in ordinary builds: runs a target on every file of the folders and files
// that it is given. Usage: fuzz_TARGET PATH...

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <vector>

#include "tests/fuzz/fuzz_input.h"

namespace {

namespace fs = std::filesystem;

std::vector<fs::path> filesIn(const fs::path& path) {
    if (!fs::is_directory(path)) {
        return {path};
    }
    std::vector<fs::path> files;
    for (const fs::directory_entry& entry : fs::directory_iterator(path)) {
        if (entry.is_regular_file()) {
            files.push_back(entry.path());
        }
    }
    return files;
}

bool runFile(const fs::path& path) {
    std::ifstream file(path, std::ios::binary);
    const std::vector<char> content{std::istreambuf_iterator<char>(file), {}};
    if (!file) {
        std::fprintf(stderr, "cannot read %s\n", path.c_str());
        return false;
    }
    LLVMFuzzerTestOneInput(reinterpret_cast<const std::uint8_t*>(content.data()), content.size());
    return true;
}

}  // namespace

int main(int argc, char** argv) {
    LLVMFuzzerInitialize(&argc, &argv);
    int count = 0;
    for (int i = 1; i < argc; ++i) {
        for (const fs::path& file : filesIn(argv[i])) {
            if (!runFile(file)) {
                return 1;
            }
            ++count;
        }
    }
    std::fprintf(stderr, "%d inputs\n", count);
    return count > 0 ? 0 : 1;
}
