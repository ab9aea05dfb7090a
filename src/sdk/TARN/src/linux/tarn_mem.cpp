// Memory: the layer's allocator is the C library's, with zero-filled blocks.

#include "tarn_mem.h"

#include "tarn_mem_internal.h"
#include "tarn_modules.h"
#include "tarn_os.h"
#include "tarn_text.h"

#include "tarn.h"

#include <cstdlib>
#include <cstring>

#include <fcntl.h>
#include <unistd.h>

namespace tarn
{

constinit std::atomic<bool (*)(size_t)> mem_fail_hook{nullptr};

} // namespace tarn

namespace
{

bool fails_in_test(size_t size)
{
    const auto hook = tarn::mem_fail_hook.load(std::memory_order_relaxed);
    return hook != nullptr && hook(size);
}

/** Read up to size bytes of a file; 0 when there are none or it cannot be read. */
size_t read_some(const char *path, char *out, size_t size)
{
    const tarn::unique_fd fd(
        tarn::retry_eintr([path] { return ::open(path, O_RDONLY | O_CLOEXEC); }));
    if (!fd)
    {
        return 0;
    }
    const ssize_t n = tarn::retry_eintr([&] { return ::read(fd.get(), out, size); });
    return n > 0 ? static_cast<size_t>(n) : 0;
}

} // namespace

void *tarn_mem_alloc(size_t size_bytes)
{
    return fails_in_test(size_bytes) ? nullptr : std::calloc(1, size_bytes);
}

void *tarn_mem_realloc(void *ptr, size_t size_bytes)
{
    return fails_in_test(size_bytes) ? nullptr : std::realloc(ptr, size_bytes);
}

void tarn_mem_free(void *ptr)
{
    std::free(ptr); // keeps errno since glibc 2.33
}

void tarn_mem_set(void *ptr, int byte, size_t n)
{
    if (n != 0)
    {
        std::memset(ptr, byte, n);
    }
}

void tarn_mem_zero(void *ptr, size_t n)
{
    tarn_mem_set(ptr, 0, n);
}

void tarn_mem_copy(void *dst, const void *src, size_t n)
{
    if (n != 0)
    {
        std::memcpy(dst, src, n);
    }
}

void tarn_mem_move(void *dst, const void *src, size_t n)
{
    if (n != 0)
    {
        std::memmove(dst, src, n);
    }
}

int tarn_mem_compare(const void *lhs, const void *rhs, size_t n)
{
    return n == 0 ? 0 : std::memcmp(lhs, rhs, n);
}

void tarn_mem_usage_print(void)
{
    constexpr size_t max_bytes = 256;
    char path[32];
    char text[max_bytes + 1];
    const int pid = ::getpid();
    tarn::text_writer(path, sizeof path).append("/proc/").append_int(pid).append("/statm");
    const size_t n = read_some(path, text, max_bytes);
    if (n == 0)
    {
        TARN_LOG_ERROR("[%d] read statm failed!", pid);
        return;
    }
    text[n] = '\0';
    TARN_LOG_DEBUG("[%d] statm = %s--", pid, text);
}

bool tarn_mem_init(void)
{
    return true;
}

void tarn_mem_uninit(void)
{
    TARN_LOG_EMPTY(TARN_LOG_LEVEL_TRACE);
}
