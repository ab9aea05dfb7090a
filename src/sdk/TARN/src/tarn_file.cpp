// Files: stream handles and whole-file reads and writes. The monitor is in tarn_file_monitor.cpp.
//
// Whole files are moved through descriptors, not streams: no second buffer, and a failure of any
// step is seen.

#include "tarn_file.h"

#include "tarn_dir.h"
#include "tarn_file_port.h"
#include "tarn_modules.h"
#include "tarn_os.h"
#include "tarn_raii.h"

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>

struct tarn_file
{
    tarn_handle_header header;
    std::FILE *stream;
};
TARN_ASSERT_RECORD(tarn_file);

namespace
{

constexpr size_t piece_size = 4096;
constexpr size_t mode_size = 32;

using object_owner = tarn::unique_handle<TARN_FILE, tarn_file_close>;

object_owner make_file()
{
    return object_owner(tarn::make_object<tarn_file>(TARN_HANDLE_TYPE_FILE).release());
}

/** A buffer that grows geometrically and keeps room for a terminator. */
class growing_buffer
{
public:
    /** Make room for at least one more piece behind the bytes. */
    bool grow(size_t wanted_room)
    {
        if (capacity_ - size_ > wanted_room)
        {
            return true;
        }
        size_t capacity = 0;
        if (__builtin_add_overflow(capacity_ + capacity_ / 2, wanted_room + 1, &capacity))
        {
            return false;
        }
        void *const block = tarn_mem_realloc(block_.get(), capacity);
        if (block == nullptr)
        {
            return false;
        }
        (void)block_.release();
        block_.reset(static_cast<char *>(block));
        capacity_ = capacity;
        return true;
    }
    [[nodiscard]] char *end() const noexcept
    {
        return block_.get() + size_;
    }
    [[nodiscard]] size_t room() const noexcept
    {
        return capacity_ - size_ - 1;
    }
    void add(size_t n) noexcept
    {
        size_ += n;
    }
    [[nodiscard]] size_t size() const noexcept
    {
        return size_;
    }
    /** Terminate and hand over the bytes. */
    [[nodiscard]] char *release() noexcept
    {
        *end() = '\0';
        return block_.release();
    }

private:
    tarn::unique_mem<char> block_;
    size_t size_ = 0;
    size_t capacity_ = 0;
};

/** A mode with 'e', close on exec, put in front of a character set (",ccs=...") that ends it.
 *  @return false when it does not fit */
bool close_on_exec_mode(const char *mode, char (&full_mode)[mode_size])
{
    const auto flags = static_cast<int>(std::strcspn(mode, ","));
    const int n = std::snprintf(full_mode, mode_size, "%.*se%s", flags, mode, mode + flags);
    return n < static_cast<int>(mode_size);
}

/** Size of a stream from its end position; 0 when it has none. */
size_t stream_size(std::FILE *stream)
{
    if (std::fseek(stream, 0, SEEK_END) != 0)
    {
        return 0;
    }
    const long end = std::ftell(stream);
    return end > 0 ? static_cast<size_t>(end) : 0;
}

} // namespace

TARN_FILE tarn_file_open(const char *path, const char *mode)
{
    RVON(path, TARN_INVALID_HANDLE);
    RVON(mode, TARN_INVALID_HANDLE);
    object_owner f = make_file();
    RVON(f, TARN_INVALID_HANDLE);
    char full_mode[mode_size];
    if (close_on_exec_mode(mode, full_mode))
    {
        f.get()->stream = std::fopen(path, full_mode);
    }
    if (f.get()->stream == nullptr)
    {
        TARN_LOG_ERROR("fail to open %s with mode %s", path, mode);
        return TARN_INVALID_HANDLE;
    }
    return f.release();
}

TARN_FILE tarn_file_open_tmpfile(void)
{
    object_owner f = make_file();
    RVON(f, TARN_INVALID_HANDLE);
    f.get()->stream = tarn::file_open_tmp();
    if (f.get()->stream == nullptr)
    {
        TARN_LOG_ERROR("fail to open tmpfile");
        return TARN_INVALID_HANDLE;
    }
    return f.release();
}

void tarn_file_close(TARN_FILE f)
{
    if (f == nullptr)
    {
        return;
    }
    if (f->stream != nullptr)
    {
        (void)std::fclose(f->stream);
    }
    tarn_mem_free(f);
}

void *tarn_file_get_fp(TARN_FILE f)
{
    RVON(f, NULL);
    return f->stream;
}

int tarn_file_seek(TARN_FILE f, int64_t offset, int whence)
{
    RVON(f, -1);
    return std::fseek(f->stream, static_cast<long>(offset), whence);
}

bool tarn_file_read(TARN_FILE f, void *buf, size_t n, size_t *done)
{
    RVON(f, false);
    RVON(buf, false);
    const size_t moved = std::fread(buf, 1, n, f->stream);
    if (moved != 0 && done != nullptr)
    {
        *done = moved;
    }
    return moved != 0;
}

bool tarn_file_write(TARN_FILE f, const void *buf, size_t n, size_t *done)
{
    RVON(f, false);
    RVON(buf, false);
    const size_t moved = std::fwrite(buf, 1, n, f->stream);
    if (moved != 0 && done != nullptr)
    {
        *done = moved;
    }
    return moved != 0;
}

int tarn_file_scanf(TARN_FILE f, const char *format, ...)
{
    RVON(f, -1);
    va_list args;
    va_start(args, format);
    const int result = std::vfscanf(f->stream, format, args);
    va_end(args);
    return result;
}

int tarn_file_printf(TARN_FILE f, const char *format, ...)
{
    RVON(f, -1);
    va_list args;
    va_start(args, format);
    const int result = std::vfprintf(f->stream, format, args);
    va_end(args);
    return result;
}

void *tarn_file_read_to_buffer(TARN_FILE f, size_t *size_out)
{
    RVON(f, NULL);
    const long position = std::ftell(f->stream);
    const size_t n = stream_size(f->stream);
    tarn::unique_mem<char> file_buf(tarn_mem_alloc(n + 1));
    size_t count = 0;
    if (file_buf && n >= 1)
    {
        std::rewind(f->stream);
        count = std::fread(file_buf.get(), 1, n, f->stream);
    }
    if (position >= 0)
    {
        (void)std::fseek(f->stream, position, SEEK_SET);
    }
    RVON(file_buf, NULL);
    if (size_out != nullptr)
    {
        *size_out = count;
    }
    return file_buf.release();
}

void *tarn_file_load(const char *path, size_t *size_out)
{
    RVON(path, NULL);
    const tarn::unique_fd fd(tarn::file_open_read(path));
    if (!fd)
    {
        return nullptr;
    }
    growing_buffer content;
    // One byte more than the size: the read that finds the end then needs no growth. Never less than
    // a piece: some files of /proc give out what fits the first read, and nothing after that.
    const uint64_t hint = tarn::file_size_hint(fd.get());
    if (hint >= SIZE_MAX - piece_size ||
        !content.grow(std::max(static_cast<size_t>(hint) + 1, piece_size)))
    {
        return nullptr;
    }
    for (;;)
    {
        const int64_t n = tarn::file_read_some(fd.get(), content.end(), content.room());
        if (n < 0)
        {
            return nullptr;
        }
        if (n == 0)
        {
            break;
        }
        content.add(static_cast<size_t>(n));
        if (content.room() == 0 && !content.grow(piece_size))
        {
            return nullptr;
        }
    }
    if (size_out != nullptr)
    {
        *size_out = content.size();
    }
    return content.release();
}

bool tarn_file_write_buffer(const char *path, const void *buf, size_t size)
{
    RVON(path, false);
    RVON(buf, false);
    tarn::unique_fd fd(tarn::file_open_write(path));
    if (!fd)
    {
        (void)tarn_dir_create_for_file(path);
        fd.reset(tarn::file_open_write(path));
    }
    if (!fd)
    {
        TARN_LOG_ERROR("fail to open %s for write", path);
        return false;
    }
    const bool written = tarn::file_write_all(fd.get(), buf, size);
    const bool closed = tarn::file_close_written(fd.release());
    return size != 0 && written && closed;
}

bool tarn_file_delete(const char *path)
{
    RVON(path, false);
    if (std::remove(path) != 0)
    {
        const int error = errno;
        TARN_LOG_ERROR("delete %s failed, error = %d (%s)", path, error,
                       tarn::error_text(error).c_str());
        return false;
    }
    return true;
}

bool tarn_file_exists(const char *path)
{
    RVON(path, false);
    return tarn::file_access(path, 0) == 0;
}

bool tarn_file_is_readable(const char *path)
{
    RVON(path, false);
    return tarn::file_access(path, 4) == 0;
}

bool tarn_file_is_writable(const char *path)
{
    RVON(path, false);
    return tarn::file_access(path, 2) == 0;
}

int tarn_file_access(const char *path, int mode)
{
    RVON(path, -1);
    return tarn::file_access(path, mode);
}

uint64_t tarn_file_size(const char *path)
{
    RVON(path, 0);
    uint64_t size = 0;
    (void)tarn::file_stat(path, &size);
    return size;
}

void tarn_file_sync(void)
{
    tarn::file_sync_all();
}

bool tarn_file_init(void)
{
    TARN_LOG_EMPTY(TARN_LOG_LEVEL_TRACE);
    return true;
}

void tarn_file_uninit(void)
{
    TARN_LOG_EMPTY(TARN_LOG_LEVEL_TRACE);
}
