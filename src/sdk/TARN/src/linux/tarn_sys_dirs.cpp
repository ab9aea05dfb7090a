// Where the program is, and where things are installed.

#include "tarn_sys.h"

#include "tarn_os.h"
#include "tarn_process_state.h"
#include "tarn_raii.h"
#include "tarn_text.h"

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string_view>

#include <unistd.h>

namespace
{

/** The kernel's links are no longer than a page. */
constexpr size_t path_size = 8192;
constexpr size_t install_dir_size = 1024 + 1;
constexpr char ca_file_name[] = "default-ca-certificates.crt";
constexpr size_t project_dir_size = install_dir_size + sizeof "project";
constexpr size_t ca_file_size = project_dir_size + sizeof ca_file_name;

/** Path of the running program, on the heap because the smallest thread stacks have no room for
 *  it; empty when the system does not tell. */
tarn::unique_mem<char> program_path()
{
    constexpr std::string_view deleted = " (deleted)";
    auto path = tarn::unique_mem<char>::make_array(path_size);
    const ssize_t n = path ? readlink("/proc/self/exe", path.get(), path_size - 1) : -1;
    if (n <= 0 || static_cast<size_t>(n) >= path_size - 1)
    {
        return tarn::unique_mem<char>();
    }
    path.get()[n] = '\0';
    // The kernel says so behind the name; a file may be called like that, too.
    const std::string_view text(path.get(), static_cast<size_t>(n));
    if (text.ends_with(deleted) && access(path.get(), F_OK) != 0)
    {
        path.get()[text.size() - deleted.size()] = '\0';
    }
    return path;
}

/** A text that is put together at its first use and then stays. */
template <size_t Size>
struct cached_text
{
    std::atomic<bool> ready{false};
    char text[Size] = "";
};

constinit tarn::static_mutex cache_lock; ///< of the texts below, while they are filled
constinit cached_text<install_dir_size> install_dir;
constinit cached_text<project_dir_size> project_dir;
constinit cached_text<ca_file_size> ca_file;

/** @param fill  makes the text; may run in several threads at once */
template <size_t Size, typename Fill>
const char *text_of(cached_text<Size> &cache, Fill fill)
{
    if (!cache.ready.load(std::memory_order_acquire))
    {
        char text[Size] = "";
        fill(text);
        const tarn::lock_guard lock(cache_lock);
        if (!cache.ready.load(std::memory_order_relaxed))
        {
            std::memcpy(cache.text, text, sizeof text);
            cache.ready.store(true, std::memory_order_release);
        }
    }
    return cache.text;
}

/** Value of a variable of the environment, whose lock is held; null when it has none. */
const char *variable(const char *name)
{
    const char *const value = std::getenv(name);
    return value != nullptr && *value != '\0' ? value : nullptr;
}

} // namespace

int tarn_sys_get_process_name(char *buf, size_t len)
{
    RVON(buf, -1);
    RVOF(len > 1, -2);
    const auto path = program_path();
    RVON(path, -3);
    const char *const slash = std::strrchr(path.get(), '/');
    RVON(slash, -4);
    const size_t length = std::strlen(slash + 1);
    RVOF(length < len, -5);
    std::memcpy(buf, slash + 1, length + 1);
    return static_cast<int>(length);
}

int tarn_sys_get_process_directory(char *buf, size_t len)
{
    RVON(buf, TARN_ERRLN);
    RVOF(len > 1, TARN_ERRLN);
    const auto path = program_path();
    RVON(path, TARN_ERRLN);
    const char *const slash = std::strrchr(path.get(), '/');
    RVON(slash, TARN_ERRLN);
    const size_t length = slash == path.get() ? 1 : static_cast<size_t>(slash - path.get());
    RVOF(length < len, TARN_ERRLN);
    std::memcpy(buf, path.get(), length);
    buf[length] = '\0';
    return static_cast<int>(length);
}

const char *tarn_sys_install_dir(void)
{
    return text_of(install_dir, [](char(&text)[install_dir_size]) {
        const tarn::lock_guard lock(tarn::environment_lock);
        const char *value = variable("FERNWICK_PATH");
        value = value != nullptr ? value : variable("MOSSVAL_PATH");
        tarn::text_writer(text, sizeof text).append(value != nullptr ? value : "/opt/fernwick");
    });
}

const char *tarn_sys_project_dir(void)
{
    const char *const above = tarn_sys_install_dir();
    return text_of(project_dir, [above](char(&text)[project_dir_size]) {
        (void)std::snprintf(text, sizeof text, "%s/project", above);
    });
}

const char *tarn_sys_default_ca_file(void)
{
    const char *const above = tarn_sys_project_dir();
    return text_of(ca_file, [above](char(&text)[ca_file_size]) {
        (void)std::snprintf(text, sizeof text, "%s/%s", above, ca_file_name);
    });
}

const char *tarn_sys_temp_dir(void)
{
    const tarn::lock_guard lock(tarn::environment_lock);
    const char *const value = variable("TMPDIR");
    return value != nullptr ? value : "/tmp";
}
