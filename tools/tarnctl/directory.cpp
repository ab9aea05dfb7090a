#include "directory.h"

#include "owner.h"

#include "tarn_dir.h"
#include "tarn_file.h"

#include <algorithm>
#include <cstdio>
#include <string_view>

#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

namespace tarnctl
{

std::vector<std::string> names_in(const std::string &dir)
{
    std::vector<std::string> names;
    if (!tarn_dir_is_exist(dir.c_str()))
    {
        return names;
    }
    const owner<TARN_DIR, tarn_dir_close> opened(tarn_dir_open(dir.c_str()));
    TARN_DIR_ITOR at = opened ? tarn_dir_read_begin(opened.get()) : nullptr;
    while (at != nullptr)
    {
        names.emplace_back(tarn_dir_itor_name(at));
        at = tarn_dir_read_next(opened.get(), at);
    }
    std::sort(names.begin(), names.end());
    return names;
}

int lock_holder(const std::string &path)
{
    struct stat status = {};
    const text_owner locks(static_cast<char *>(tarn_file_load("/proc/locks", nullptr)));
    if (!locks || ::stat(path.c_str(), &status) != 0)
    {
        return 0;
    }
    char place[64]; // device and inode as that file shows them
    (void)std::snprintf(place, sizeof place, " %02x:%02x:%llu ", major(status.st_dev),
                        minor(status.st_dev), static_cast<unsigned long long>(status.st_ino));
    std::string_view text = locks.get();
    while (!text.empty())
    {
        const std::string line(text.substr(0, text.find('\n')));
        text.remove_prefix(std::min(line.size() + 1, text.size()));
        int pid = 0;
        // "4: FLOCK  ADVISORY  WRITE 1234 00:1a:77 0 EOF"; a waiter has "->" behind the number
        if (line.find(place) != std::string::npos &&
            std::sscanf(line.c_str(), "%*d: FLOCK %*s %*s %d", &pid) == 1 && pid > 0)
        {
            return pid;
        }
    }
    return 0;
}

std::string link_target(const std::string &path)
{
    char target[4096];
    const ssize_t n = ::readlink(path.c_str(), target, sizeof target);
    return n > 0 ? std::string(target, static_cast<size_t>(n)) : std::string();
}

std::string base_name(const std::string &path)
{
    return path.substr(path.rfind('/') + 1);
}

} // namespace tarnctl
