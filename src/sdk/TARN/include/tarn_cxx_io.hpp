/** @file
 *  C++: files, directories, libraries, pipes, serial ports, shared memory. Part of tarn.hpp, which
 *  says what holds for all of it. */
#ifndef TARN_CXX_IO_HPP
#define TARN_CXX_IO_HPP

#include "tarn_cxx_owner.hpp"
#include "tarn_dir.h"
#include "tarn_dll.h"
#include "tarn_file.h"
#include "tarn_pipe.h"
#include "tarn_serial.h"
#include "tarn_shm.h"
#include "tarn_shmx.h"

namespace tarn
{
inline namespace v1
{

// ---- files and directories -----------------------------------------------------------------------

class file_ref : public handle_ref<TARN_FILE>
{
public:
    using handle_ref::handle_ref;
    int seek(int64_t offset, int whence) const
    {
        return tarn_file_seek(handle_, offset, whence);
    }
    bool read(bytes buffer, size_t *done = nullptr) const
    {
        return tarn_file_read(handle_, buffer.data(), buffer.size(), done);
    }
    bool write(const_bytes data, size_t *done = nullptr) const
    {
        return tarn_file_write(handle_, data.data(), data.size(), done);
    }
};
class file : public owner<file_ref, tarn_file_close>
{
public:
    using owner::owner;
    static file open(const char *path, const char *mode)
    {
        return file(tarn_file_open(path, mode));
    }
    static file open_tmpfile()
    {
        return file(tarn_file_open_tmpfile());
    }
    /** tarn_file_load() */
    static mem_ptr<char> load(const char *path, size_t *size_out = nullptr)
    {
        return mem_ptr<char>(static_cast<char *>(tarn_file_load(path, size_out)));
    }
    /** tarn_file_write_buffer() */
    static bool save(const char *path, const_bytes data)
    {
        return tarn_file_write_buffer(path, data.data(), data.size());
    }
};

/** Calls f(const char *path) on its thread when the file was modified. */
class file_monitor : public callback_owner<handle_ref<TARN_FILE_MONITOR>, tarn_file_monitor_stop>
{
public:
    using callback_owner::callback_owner;
    template <typename F>
    static file_monitor start(const char *path, F f)
    {
        return file_monitor(std::move(f), [path](detail::callable_of<F> *callable) {
            return tarn_file_monitor_start(path, entry<F>, callable);
        });
    }

private:
    template <typename F>
    static void entry(TARN_FILE_MONITOR, const char *path, uint32_t, void *arg)
    {
        auto *const running = static_cast<detail::callable_of<F> *>(arg);
        const detail::running_call call(running);
        (void)running->call(path);
    }
};

/** An entry of a directory, valid during the call that gets it. */
class dir_entry : public handle_ref<TARN_DIR_ITOR>
{
public:
    using handle_ref::handle_ref;
    [[nodiscard]] const char *name() const
    {
        return tarn_dir_itor_name(handle_);
    }
    [[nodiscard]] const char *path_name() const
    {
        return tarn_dir_itor_path_name(handle_);
    }
    [[nodiscard]] bool is_directory() const
    {
        return tarn_dir_itor_is_directory(handle_);
    }
    [[nodiscard]] bool is_file() const
    {
        return tarn_dir_itor_is_file(handle_);
    }
};
class dir_ref : public handle_ref<TARN_DIR>
{
public:
    using handle_ref::handle_ref;
    /** Call f(dir_entry) for each entry; false from it ends the walk. */
    template <typename F>
    void for_each(F &&f) const
    {
        TARN_DIR_ITOR entry = tarn_dir_read_begin(handle_);
        while (entry != nullptr)
        {
            if (!detail::call_or(true, [&] { return f(dir_entry(entry)); }))
            {
                tarn_dir_read_end(handle_, entry);
                return;
            }
            entry = tarn_dir_read_next(handle_, entry);
        }
    }
};
class dir : public owner<dir_ref, tarn_dir_close>
{
public:
    using owner::owner;
    static dir open(const char *path)
    {
        return dir(tarn_dir_open(path));
    }
};

class dll_ref : public handle_ref<TARN_DLL>
{
public:
    using handle_ref::handle_ref;
    /** A function of the library, as a pointer of this type: dll.function<int(int)>("add"). */
    template <typename Signature>
    [[nodiscard]] Signature *function(const char *symbol) const
    {
        return reinterpret_cast<Signature *>(tarn_dll_get_function(handle_, symbol));
    }
};
class dll : public owner<dll_ref, tarn_dll_unload>
{
public:
    using owner::owner;
    static dll load(const char *filename)
    {
        return dll(tarn_dll_load(filename));
    }
};

// ---- pipes and serial ports ----------------------------------------------------------------------

class pipe_ref : public handle_ref<TARN_PIPE>
{
public:
    using handle_ref::handle_ref;
    int read(bytes buffer, size_t *done = nullptr) const
    {
        return tarn_pipe_read(handle_, buffer.data(), buffer.size(), done);
    }
    int write(const_bytes data, size_t *done = nullptr) const
    {
        return tarn_pipe_write(handle_, data.data(), data.size(), done);
    }
};
class pipe : public owner<pipe_ref, tarn_pipe_close>
{
public:
    using owner::owner;
    /** tarn_pipe_create_wait() */
    static pipe create(const char *name, uint32_t timeout_ms)
    {
        return pipe(tarn_pipe_create_wait(name, timeout_ms));
    }
    /** tarn_pipe_open_wait() */
    static pipe open(const char *name, uint32_t timeout_ms)
    {
        return pipe(tarn_pipe_open_wait(name, timeout_ms));
    }
};

class serial_ref : public handle_ref<TARN_SERIAL>
{
public:
    using handle_ref::handle_ref;
    int read(bytes buffer, uint32_t &read_count) const
    {
        return tarn_serial_read(handle_, buffer.data(), buffer.size32(), &read_count);
    }
    int write(const_bytes data) const
    {
        return tarn_serial_write(handle_, data.data(), data.size32());
    }
    int flush() const
    {
        return tarn_serial_flush(handle_);
    }
    int reopen() const
    {
        return tarn_serial_reopen(handle_);
    }
    bool set_comm_mask(uint32_t event_mask) const
    {
        return tarn_serial_set_comm_mask(handle_, event_mask);
    }
    int wait_comm_event(uint32_t &event_mask) const
    {
        return tarn_serial_wait_comm_event(handle_, &event_mask);
    }
};
class serial : public owner<serial_ref, tarn_serial_close>
{
public:
    using owner::owner;
    static serial open(const char *port, uint32_t baudrate, int32_t bytesize = 8,
                       int32_t stopbits = 1, int32_t parity = TARN_SERIAL_PARITY_NONE)
    {
        return serial(tarn_serial_open(port, baudrate, bytesize, stopbits, parity));
    }
};

// ---- shared memory -------------------------------------------------------------------------------

class shm_ref : public handle_ref<TARN_SHM>
{
public:
    using handle_ref::handle_ref;
    /** The area: tarn_shm_buffer() and tarn_shm_size(). */
    [[nodiscard]] bytes area() const
    {
        return {tarn_shm_buffer(handle_), tarn_shm_size(handle_)};
    }
};
class shm : public owner<shm_ref, tarn_shm_destroy>
{
public:
    using owner::owner;
    static shm create(const char *name, uint32_t size)
    {
        return shm(tarn_shm_create(name, size));
    }
    static shm open(const char *name)
    {
        return shm(tarn_shm_open(name));
    }
};

/** A block of a shared heap; tarn::scoped_lock lock(block) locks it. */
class shmx_block_ref : public handle_ref<void *>
{
public:
    using handle_ref::handle_ref;
    using lock_type = shmx_block_ref;
    [[nodiscard]] bytes area() const
    {
        return {handle_, tarn_shmx_blk_size(handle_)};
    }
    bool lock() const
    {
        return tarn_shmx_blk_lock(handle_);
    }
    void unlock() const
    {
        (void)tarn_shmx_blk_unlock(handle_);
    }
};

/** Owns a block: freed with its scope, before its heap is closed. */
class [[nodiscard]] shmx_block : public shmx_block_ref
{
public:
    shmx_block() noexcept = default;
    shmx_block(TARN_SHMX heap, void *block) noexcept : shmx_block_ref(block), heap_(heap) {}
    shmx_block(shmx_block &&other) noexcept : shmx_block(other.heap_, other.release()) {}
    shmx_block &operator=(shmx_block &&other) noexcept
    {
        if (this != &other)
        {
            reset();
            heap_ = other.heap_;
            handle_ = other.release();
        }
        return *this;
    }
    ~shmx_block()
    {
        reset();
    }
    /** The name of the block between processes. */
    [[nodiscard]] uint32_t offset() const
    {
        return tarn_shmx_ptr_to_offset(heap_, handle_);
    }
    /** Leave the block allocated: for one that another process takes over. */
    [[nodiscard]] void *release() noexcept
    {
        return std::exchange(handle_, nullptr);
    }
    void reset() noexcept
    {
        if (void *const old = release(); old != nullptr)
        {
            const detail::no_cancel guard;
            tarn_shmx_blk_free(heap_, old);
        }
    }

private:
    TARN_SHMX heap_ = nullptr;
};

class shmx_ref : public handle_ref<TARN_SHMX>
{
public:
    using handle_ref::handle_ref;
    [[nodiscard]] shmx_block alloc(uint32_t size) const
    {
        return {handle_, tarn_shmx_blk_alloc(handle_, size)};
    }
    [[nodiscard]] shmx_block_ref at(uint32_t offset) const
    {
        return tarn_shmx_offset_to_ptr(handle_, offset);
    }
    [[nodiscard]] bytes meta_zone() const
    {
        return {tarn_shmx_meta_zone(handle_), tarn_shmx_meta_zone_size(handle_)};
    }
    [[nodiscard]] uint32_t user_id() const
    {
        return tarn_shmx_user_id(handle_);
    }
};
class shmx : public owner<shmx_ref, tarn_shmx_destroy>
{
public:
    using owner::owner;
    static shmx create(const char *name, uint32_t size, uint32_t meta_zone_size,
                       uint32_t max_user_count)
    {
        return shmx(tarn_shmx_create(name, size, meta_zone_size, max_user_count));
    }
    static shmx open(const char *name)
    {
        return shmx(tarn_shmx_open(name));
    }
};

} // namespace v1
} // namespace tarn

#endif
