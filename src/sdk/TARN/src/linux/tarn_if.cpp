// Network interfaces: names, addresses, which of them are physical. The default gateway is in
// tarn_if_route.cpp.
//
// The list of physical interfaces is built without its lock and put in place under it; of two
// threads that build it at once the second drops its own. It lives as long as the process.

#include "tarn_if.h"

#include "tarn_os.h"
#include "tarn_raii.h"
#include "tarn_str.h"
#include "tarn_sys.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>

#include <dirent.h>
#include <fcntl.h>
#include <net/if.h>
#include <net/if_arp.h>
#include <netinet/in.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

namespace
{

constexpr const char *class_directory = "/sys/class/net";
constexpr size_t mac_size = 6;

struct if_name_entry
{
    char text[IFNAMSIZ];
};

bool name_fits(const char *name)
{
    return std::strlen(name) < IFNAMSIZ;
}

// ---- the physical interfaces -----------------------------------------------------------------------

/** Grows in steps: there are few interfaces, and one allocation does for most machines. */
class name_array
{
public:
    bool append(const char *name)
    {
        constexpr size_t step = 10;
        if (count_ == capacity_)
        {
            const size_t bytes = (capacity_ + step) * sizeof(if_name_entry);
            void *larger = tarn_mem_realloc(names_.get(), bytes);
            RVON(larger, false);
            (void)names_.release();
            names_.reset(static_cast<if_name_entry *>(larger));
            capacity_ += step;
        }
        if_name_entry &entry = names_.get()[count_++];
        entry = {};
        std::memcpy(entry.text, name, std::strlen(name));
        return true;
    }
    void sort()
    {
        std::sort(names_.get(), names_.get() + count_,
                  [](const if_name_entry &a, const if_name_entry &b) {
                      return std::strcmp(a.text, b.text) < 0;
                  });
    }
    [[nodiscard]] size_t count() const
    {
        return count_;
    }
    [[nodiscard]] if_name_entry *release()
    {
        return names_.release();
    }

private:
    tarn::unique_mem<if_name_entry> names_;
    size_t count_ = 0;
    size_t capacity_ = 0;
};

struct physical_list
{
    tarn::static_mutex lock;
    if_name_entry *names TARN_GUARDED_BY(lock) = nullptr;
    size_t count TARN_GUARDED_BY(lock) = 0;
};
constinit physical_list physical;

bool is_link(int directory, const char *name)
{
    struct stat status
    {
    };
    return ::fstatat(directory, name, &status, AT_SYMLINK_NOFOLLOW) == 0 && S_ISLNK(status.st_mode);
}

/** Target of a link, terminated; what is beyond the buffer is cut.
 *  @return false, with errno, when it is none */
template <size_t Size>
bool read_link(int directory, const char *name, char (&target)[Size])
{
    const ssize_t length = ::readlinkat(directory, name, target, Size - 1);
    target[std::max<ssize_t>(length, 0)] = '\0';
    return length >= 0;
}

/** An Ethernet-style name with a link that leads to a device. */
bool is_physical_entry(int directory, const char *name)
{
    if (name[0] != 'e' || !name_fits(name) || !is_link(directory, name))
    {
        return false;
    }
    char target[512];
    if (!read_link(directory, name, target))
    {
        TARN_LOG_ERROR("failed to readlink [%s], error = [%d]", name, errno);
        return false;
    }
    return std::strstr(target, "devices/virtual") == nullptr;
}

void close_directory(DIR *directory)
{
    if (directory != nullptr)
    {
        const tarn::cancel_guard no_cancel;
        (void)::closedir(directory);
    }
}

/** A directory under way, closed when a reader is cancelled too. */
class open_directory
{
public:
    explicit open_directory(const char *path) : directory_(::opendir(path)) {}
    open_directory(const open_directory &) = delete;
    open_directory &operator=(const open_directory &) = delete;
    ~open_directory()
    {
        close_directory(directory_);
    }
    explicit operator bool() const
    {
        return directory_ != nullptr;
    }
    [[nodiscard]] int fd() const
    {
        return ::dirfd(directory_);
    }
    /** Null at the end. */
    const char *next()
    {
        const dirent *entry = ::readdir(directory_);
        return entry == nullptr ? nullptr : entry->d_name;
    }

private:
    DIR *directory_;
};

bool collect_physical(name_array &names)
{
    open_directory directory(class_directory);
    if (!directory)
    {
        TARN_LOG_ERROR("failed to open dir [%s], error = [%d]", class_directory, errno);
        return false;
    }
    while (const char *name = directory.next())
    {
        if (is_physical_entry(directory.fd(), name) && !names.append(name))
        {
            return false;
        }
    }
    names.sort();
    return true;
}

bool is_built()
{
    const tarn::lock_guard lock(physical.lock);
    return physical.count != 0;
}

void physical_if_array_init()
{
    name_array names;
    if (is_built() || !collect_physical(names))
    {
        return;
    }
    const tarn::lock_guard lock(physical.lock);
    if (physical.count == 0 && names.count() != 0)
    {
        physical.count = names.count();
        physical.names = names.release();
    }
}

bool physical_name(size_t index, if_name_entry &out)
{
    physical_if_array_init();
    const tarn::lock_guard lock(physical.lock);
    if (index >= physical.count)
    {
        return false;
    }
    out = physical.names[index];
    return true;
}

// ---- the physical test -----------------------------------------------------------------------------

/** May stand in a shell command: a name of an interface that is neither an option nor anything else
 *  that a shell or grep takes apart. */
bool is_plain(const char *name)
{
    const auto plain = [](char c) {
        return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
               c == '_' || c == '.' || c == '-';
    };
    const size_t length = std::strlen(name);
    return length != 0 && length < IFNAMSIZ && name[0] != '-' &&
           std::all_of(name, name + length, plain);
}

int is_physical_by_command(const char *if_name)
{
    char command[96];
    (void)std::snprintf(command, sizeof command, "ls -l /sys/class/net/ | grep %s | grep virtual",
                        if_name);
    char *output = nullptr;
    const int rc = tarn_sys_command_run(command, &output, TARN_INFINITE);
    const tarn::unique_mem<char> lines(output);
    if (rc < 0 && lines && std::strncmp(lines.get(), "fail to run [", 13) == 0)
    {
        TARN_LOG_ERROR("failed to execute %s", command);
        return 0;
    }
    return lines ? 0 : 1; // whatever the status: another part of the process may have reaped it
}

/** What the command would find for any other text: a line that holds both. An empty text is no
 *  pattern and finds nothing. */
int is_physical_by_links(const char *if_name)
{
    open_directory directory(class_directory);
    if (!directory)
    {
        TARN_LOG_ERROR("failed to execute %s", "ls -l /sys/class/net/");
        return 0;
    }
    while (const char *name = directory.next())
    {
        char target[512];
        char line[1024];
        const bool linked = read_link(directory.fd(), name, target);
        (void)std::snprintf(line, sizeof line, "%s%s%s", name, linked ? " -> " : "", target);
        if (name[0] != '.' && if_name[0] != '\0' && std::strstr(line, if_name) != nullptr &&
            std::strstr(line, "virtual") != nullptr)
        {
            return 0;
        }
    }
    return 1;
}

// ---- addresses -------------------------------------------------------------------------------------

/** Asks the kernel about an interface.
 *  @return 0; an error number, which the caller logs
 *  @param socket_failed  out: there was no socket to ask through */
int ask(const char *if_name, unsigned long request, ifreq &answer, bool &socket_failed)
{
    socket_failed = false;
    answer = {};
    if (!name_fits(if_name))
    {
        return ENODEV; // cut to 15 bytes it could be the name of another interface
    }
    std::memcpy(answer.ifr_name, if_name, std::strlen(if_name));
    const tarn::unique_fd fd(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (!fd)
    {
        socket_failed = true;
        return errno;
    }
    return ::ioctl(fd.get(), request, &answer) == 0 ? 0 : errno;
}

uint32_t ask_ipv4(const char *if_name, unsigned long request)
{
    ifreq answer;
    bool socket_failed = false;
    const int error = ask(if_name, request, answer, socket_failed);
    if (socket_failed)
    {
        TARN_LOG_FATAL("failed to call socket on %s, error = %d", if_name, error);
        return 0;
    }
    if (error != 0)
    {
        TARN_LOG_TRACE("failed to call ioctl on %s, error = %d", if_name, error);
        return 0;
    }
    sockaddr_in address{};
    std::memcpy(&address, &answer.ifr_addr, sizeof address);
    if (address.sin_family != AF_INET)
    {
        TARN_LOG_TRACE("%s sa_family != AF_INET", if_name);
        return 0;
    }
    return address.sin_addr.s_addr;
}

} // namespace

int tarn_if_get_hwaddr(const char *if_name, uint8_t *mac)
{
    RVON(if_name, 0);
    RVON(mac, 0);
    ifreq answer;
    bool socket_failed = false;
    const int error = ask(if_name, SIOCGIFHWADDR, answer, socket_failed);
    if (socket_failed)
    {
        TARN_LOG_FATAL("failed to call socket on [%s], error = [%d]", if_name, error);
        return 0;
    }
    if (error != 0)
    {
        TARN_LOG_TRACE("failed to call ioctl on [%s], error = [%d]", if_name, error);
        return 0;
    }
    const int family = answer.ifr_hwaddr.sa_family;
    if (family != ARPHRD_ETHER)
    {
        TARN_LOG_TRACE("sa_family of %s is [%d], expect [%d]", if_name, family, ARPHRD_ETHER);
        return 0;
    }
    std::memcpy(mac, answer.ifr_hwaddr.sa_data, mac_size);
    return 1;
}

int tarn_if_get_hwaddr_by_index(uint32_t index, uint8_t *mac)
{
    RVON(mac, 0);
    if_name_entry name{};
    return physical_name(index, name) ? tarn_if_get_hwaddr(name.text, mac) : 0;
}

uint32_t tarn_if_get_ip(const char *if_name)
{
    RVON(if_name, 0);
    return ask_ipv4(if_name, SIOCGIFADDR);
}

uint32_t tarn_if_get_netmask(const char *if_name)
{
    RVON(if_name, 0);
    return ask_ipv4(if_name, SIOCGIFNETMASK);
}

int tarn_if_is_physical(const char *if_name)
{
    RVON(if_name, 0);
    return is_plain(if_name) ? is_physical_by_command(if_name) : is_physical_by_links(if_name);
}

int tarn_if_first_physical_name_get(char **if_name)
{
    RVON(if_name, TARN_ERRLN);
    if_name_entry first{};
    if (!physical_name(0, first))
    {
        return TARN_ERRLN;
    }
    char *copy = tarn_str_dup(first.text);
    RVON(copy, TARN_ERRLN);
    tarn_mem_free(std::exchange(*if_name, copy));
    return 0;
}

uint32_t tarn_if_name_to_index(const char *if_name)
{
    RVON(if_name, 0);
    return name_fits(if_name) ? ::if_nametoindex(if_name) : 0;
}

const char *tarn_if_index_to_name(uint32_t index, char *name, size_t name_size)
{
    RVON(name, NULL);
    RVOF(name_size >= IF_NAMESIZE, NULL);
    return ::if_indextoname(index, name);
}
