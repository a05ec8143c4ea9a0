// Runs a harness over files instead of under libFuzzer: every file named, and
// every file in every folder named. Builds without libFuzzer replay the seed
// corpus and the inputs that once crashed this way.
#include <boost/filesystem.hpp>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <fstream>
#include <iterator>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);
extern "C" int LLVMFuzzerInitialize(int* argc, char*** argv) __attribute__((weak));

namespace fs = boost::filesystem;

int main(int argc, char** argv)
{
    if (LLVMFuzzerInitialize)
        LLVMFuzzerInitialize(&argc, &argv);
    std::vector<fs::path> files;
    for (int i = 1; i < argc; ++i) {
        const fs::path given(argv[i]);
        if (fs::is_directory(given)) {
            for (const auto& entry : fs::directory_iterator(given))
                if (fs::is_regular_file(entry.path()))
                    files.push_back(entry.path());
        } else if (fs::is_regular_file(given)) {
            files.push_back(given);
        } else {
            std::fprintf(stderr, "%s: not a file or folder\n", argv[i]);
            return 2;
        }
    }
    std::sort(files.begin(), files.end());
    for (const auto& file : files) {
        std::ifstream in(file.string(), std::ios::binary);
        const std::vector<char> bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
        std::fprintf(stderr, "replaying %s (%zu bytes)\n", file.string().c_str(), bytes.size());
        LLVMFuzzerTestOneInput(reinterpret_cast<const std::uint8_t*>(bytes.data()), bytes.size());
    }
    std::fprintf(stderr, "%zu input(s) replayed\n", files.size());
    return files.empty() ? 1 : 0;
}
