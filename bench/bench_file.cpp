// Whole files and directory listings beside the bare calls. What is read is in memory already: there
// is nothing to wait for, and processor time counts.

#include "ratio.h"

#include "tarn_dir.h"
#include "tarn_file.h"

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>

#include <dirent.h>
#include <fcntl.h>
#include <unistd.h>

namespace
{

constexpr size_t file_size = 64u << 20;
constexpr int entry_count = 10000;

/** A file and a directory to read, made once. */
class places
{
public:
    places()
    {
        char pattern[] = "/tmp/tarn_bench_XXXXXX";
        base_ = ::mkdtemp(pattern);
        std::ofstream(file()) << std::string(file_size, 'x');
        std::filesystem::create_directory(dir());
        for (int i = 0; i < entry_count; ++i)
        {
            std::ofstream(dir() + "/entry" + std::to_string(i));
        }
    }
    ~places()
    {
        std::filesystem::remove_all(base_);
    }
    [[nodiscard]] std::string file() const
    {
        return base_ + "/file";
    }
    [[nodiscard]] std::string dir() const
    {
        return base_ + "/dir";
    }

private:
    std::string base_;
};

const places &shared()
{
    static const places made;
    return made;
}

void bare_load(benchmark::State &state)
{
    const std::string path = shared().file();
    for (auto turn : state)
    {
        auto *const buffer = static_cast<char *>(std::malloc(file_size));
        const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
        size_t size = 0;
        for (ssize_t n = 0; (n = ::read(fd, buffer + size, file_size - size)) > 0;)
        {
            size += static_cast<size_t>(n);
        }
        ::close(fd);
        benchmark::DoNotOptimize(buffer);
        std::free(buffer);
    }
}
BENCHMARK(bare_load);

void tarn_load(benchmark::State &state)
{
    const std::string path = shared().file();
    for (auto turn : state)
    {
        size_t size = 0;
        void *const buffer = tarn_file_load(path.c_str(), &size);
        benchmark::DoNotOptimize(buffer);
        tarn_mem_free(buffer);
    }
}
BENCHMARK(tarn_load);

void bare_list(benchmark::State &state)
{
    const std::string path = shared().dir();
    for (auto turn : state)
    {
        DIR *const stream = ::opendir(path.c_str());
        while (const dirent *const entry = ::readdir(stream))
        {
            benchmark::DoNotOptimize(entry->d_name[0] + entry->d_type);
        }
        ::closedir(stream);
    }
}
BENCHMARK(bare_list);

void tarn_list(benchmark::State &state)
{
    const std::string path = shared().dir();
    for (auto turn : state)
    {
        TARN_DIR d = tarn_dir_open(path.c_str());
        for (TARN_DIR_ITOR i = tarn_dir_read_begin(d); i != nullptr; i = tarn_dir_read_next(d, i))
        {
            benchmark::DoNotOptimize(*tarn_dir_itor_name(i) + tarn_dir_itor_is_file(i));
        }
        tarn_dir_close(d);
    }
}
BENCHMARK(tarn_list);

} // namespace

int main(int argc, char **argv)
{
    return bench::run(argc, argv,
                      {{"file load, 64 MiB", "tarn_load", "bare_load", 1.25},
                       {"directory of 10000 entries", "tarn_list", "bare_list", 1.3}});
}
