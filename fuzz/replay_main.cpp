// Runs a fuzz target over stored inputs without libFuzzer: every file named on the command line and
// every file of the directories named there, in byte order of their paths. Each path is printed
// before it runs, so that a crash names its input.

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size);
extern "C" int LLVMFuzzerInitialize(int *argc, char ***argv) __attribute__((weak));

namespace fs = std::filesystem;

static std::vector<fs::path> collect(int argc, char **argv)
{
    std::vector<fs::path> paths;
    for (int i = 1; i < argc; ++i)
    {
        if (!fs::is_directory(argv[i]))
        {
            paths.emplace_back(argv[i]);
            continue;
        }
        for (const auto &entry : fs::recursive_directory_iterator(argv[i]))
        {
            if (entry.is_regular_file())
            {
                paths.push_back(entry.path());
            }
        }
    }
    std::sort(paths.begin(), paths.end());
    return paths;
}

int main(int argc, char **argv)
{
    if (LLVMFuzzerInitialize != nullptr)
    {
        LLVMFuzzerInitialize(&argc, &argv);
    }
    const std::vector<fs::path> paths = collect(argc, argv);
    for (const fs::path &path : paths)
    {
        std::printf("%s\n", path.c_str());
        std::fflush(stdout);
        std::ifstream file(path, std::ios::binary);
        if (!file)
        {
            std::fprintf(stderr, "cannot read %s\n", path.c_str());
            return EXIT_FAILURE;
        }
        const std::vector<char> bytes((std::istreambuf_iterator<char>(file)),
                                      std::istreambuf_iterator<char>());
        // never a null pointer, as under libFuzzer; an exact copy, so that ASan sees its end
        const std::vector<uint8_t> data(bytes.begin(), bytes.end());
        static const uint8_t none = 0;
        LLVMFuzzerTestOneInput(data.empty() ? &none : data.data(), data.size());
    }
    std::printf("%zu inputs replayed\n", paths.size());
    return paths.empty() ? EXIT_FAILURE : EXIT_SUCCESS;
}
