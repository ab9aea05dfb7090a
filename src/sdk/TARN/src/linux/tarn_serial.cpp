// Serial ports: opening, closing, reading and writing.
//
// Two things keep a device to one opener: the list of this process's open ports, and a lock file
// that other processes see. The list is looked at before the lock is taken and again when the port
// is entered; what two threads do in between, the lock decides.
//
// Lock order: the module's critical section is a leaf, held only for a look at the list or a change
// of it. A port itself has no lock.

#include "tarn_serial.h"

#include "tarn_list.h"
#include "tarn_modules.h"
#include "tarn_process_state.h"
#include "tarn_serial_internal.h"
#include "tarn_str.h"
#include "tarn_sys.h"

#include <algorithm>
#include <cerrno>
#include <climits>

#include <fcntl.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <termios.h>
#include <unistd.h>

namespace tarn
{
namespace
{

int call_ioctl(int fd, unsigned long request, void *argument)
{
    return ::ioctl(fd, request, argument);
}

} // namespace

constinit serial_system serial_os = {call_ioctl, ::tcgetattr, ::tcsetattr, ::read, ::write};

} // namespace tarn

namespace
{

constexpr uint32_t write_limit_ms = 60000;

struct module_state
{
    TARN_CRITICAL_SECTION crit_sect;
    TARN_LIST ports; ///< the open ports; guarded by crit_sect
};
constinit module_state state{};

void release_port(TARN_SERIAL port)
{
    if (port != nullptr)
    {
        // The device first: what its close still has to send goes out while no other can open it.
        tarn::close_fd(port->fd);
        tarn::serial_unlock(port->lock_fd);
        tarn_mem_free(port);
    }
}

using port_owner = tarn::unique_handle<TARN_SERIAL, release_port>;

port_owner make_port(const char *name, uint32_t baudrate)
{
    port_owner owner(tarn::make_object<tarn_serial>(TARN_HANDLE_TYPE_SERIAL).release());
    if (TARN_SERIAL port = owner.get(); port != nullptr)
    {
        port->fd = -1;
        port->lock_fd = -1;
        port->baudrate = baudrate;
        (void)tarn_str_printf(port->port, sizeof port->port, "%s", name);
    }
    return owner;
}

// ---- the open ports ------------------------------------------------------------------------------

bool is_same(void *item, void *node, void *)
{
    return tarn::serial_same_device(static_cast<TARN_SERIAL>(item)->node,
                                    *static_cast<const tarn::serial_node *>(node));
}

/** To be called with the critical section held. */
bool is_listed(tarn::serial_node *node)
{
    return state.ports != nullptr &&
           tarn_list_find_if(state.ports, is_same, node, nullptr) != nullptr;
}

bool is_open(tarn::serial_node *node)
{
    const tarn::critical_section_guard lock(state.crit_sect);
    return is_listed(node);
}

enum class entry
{
    made,
    no_room,
    open_already ///< another thread entered the device under another name
};

entry enter(TARN_SERIAL port)
{
    const tarn::critical_section_guard lock(state.crit_sect);
    if (is_listed(&port->node))
    {
        return entry::open_already;
    }
    const bool room = state.ports != nullptr && !tarn_list_is_full(state.ports);
    return room && tarn_list_push_back(state.ports, port) ? entry::made : entry::no_room;
}

void leave(TARN_SERIAL port)
{
    const tarn::critical_section_guard lock(state.crit_sect);
    if (state.ports != nullptr)
    {
        (void)tarn_list_remove(state.ports, port);
    }
}

void log_open_already(const char *port)
{
    TARN_LOG_WARN("serial port %s has been opened!", port);
}

bool publish(TARN_SERIAL port)
{
    const entry result = enter(port);
    if (result == entry::open_already)
    {
        log_open_already(port->port);
    }
    else if (result == entry::no_room)
    {
        TARN_LOG_ERROR("fail to add to list");
    }
    return result == entry::made;
}

// ---- the device ----------------------------------------------------------------------------------

/** The name may lead elsewhere by now than when its device was locked. */
bool is_still(int fd, const tarn::serial_node &node)
{
    struct stat status
    {
    };
    return ::fstat(fd, &status) == 0 &&
           (!S_ISCHR(status.st_mode) ||
            (status.st_rdev == node.device && status.st_dev == node.file_system));
}

/** Open the device by the port's name.
 *  @return 0; -1 when it cannot be opened; -2 when it is no tty */
int open_device(TARN_SERIAL port)
{
    constexpr int flags = O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC;
    tarn::unique_fd fd(tarn::retry_eintr([port] { return ::open(port->port, flags); }));
    if (!fd || !is_still(fd.get(), port->node))
    {
        TARN_LOG_ERROR("failed to open port %s", port->port);
        return -1;
    }
    if (::isatty(fd.get()) == 0)
    {
        TARN_LOG_ERROR("fd is not a tty on port %s", port->port);
        return -2;
    }
    port->fd = fd.release();
    return 0;
}

/** Read what the device has, up to one buffer.
 *  @return 1 when the device was ready, 0 when it was not, -1 on failure */
int fill_buffer(TARN_SERIAL port)
{
    port->read_index = 0;
    const int ready =
        tarn::retry_eintr([port] { return tarn::serial_select(port->fd, POLLIN, 0); });
    if (ready < 0)
    {
        TARN_LOG_ERROR("[%s] select failed, error = %d", port->port, errno);
    }
    if (ready <= 0)
    {
        return ready;
    }
    const ptrdiff_t n = tarn::retry_eintr(
        [port] { return tarn::serial_os.read(port->fd, port->buffer, sizeof port->buffer); });
    if (n < 0 && errno != EAGAIN)
    {
        TARN_LOG_ERROR("[%s] read failed, error = %d", port->port, errno);
        return -1;
    }
    port->buffered = n > 0 ? static_cast<uint32_t>(n) : 0;
    return ready;
}

/** The bytes are no text: they hold no terminator, and the log ends its line at a NUL among them. */
void log_traffic(TARN_SERIAL port, const void *bytes, uint32_t len)
{
    if (!tarn::process.log_serial_traffic.load(std::memory_order_relaxed))
    {
        return;
    }
    TARN_LOG_DEBUG("[%s] buf_len = [%u], str = [%.*s]", port->port, len,
                   static_cast<int>(std::min<uint32_t>(len, INT_MAX)),
                   static_cast<const char *>(bytes));
    char prefix[tarn::serial_name_max + sizeof "[]"];
    (void)tarn_str_printf(prefix, sizeof prefix, "[%s]", port->port);
    TARN_LOG_HEX(&tarn_default_logger, TARN_LOG_LEVEL_INFO, prefix, bytes, len);
}

} // namespace

TARN_SERIAL tarn_serial_open(const char *port, uint32_t baudrate, int32_t bytesize,
                             int32_t stopbits, int32_t parity)
{
    RVON(port, TARN_INVALID_HANDLE);
    RVOF(tarn_str_len(port) <= tarn::serial_name_max, TARN_INVALID_HANDLE);
    port_owner owner = make_port(port, baudrate);
    TARN_SERIAL p = owner.get();
    RVON(p, TARN_INVALID_HANDLE);
    if (!tarn::serial_resolve(port, &p->node))
    {
        TARN_LOG_ERROR("failed to open port %s", port);
        return TARN_INVALID_HANDLE;
    }
    TARN_LOG_INFO("port = %s, file_node == %s, baudrate = %d, byte = %d, stop = %d, parity = %d",
                  port, p->node.path, static_cast<int>(baudrate), bytesize, stopbits, parity);
    if (is_open(&p->node))
    {
        log_open_already(port);
        return TARN_INVALID_HANDLE;
    }
    p->lock_fd = tarn::serial_lock(p->node.path, port).release();
    const bool opened = p->lock_fd >= 0 && open_device(p) == 0 &&
                        tarn::serial_configure(p, bytesize, stopbits, parity) && publish(p);
    return opened ? owner.release() : TARN_INVALID_HANDLE;
}

int tarn_serial_reopen(TARN_SERIAL port)
{
    RVON(port, TARN_ERRLN);
    tarn::close_fd(std::exchange(port->fd, -1));
    return open_device(port);
}

void tarn_serial_close(TARN_SERIAL port)
{
    if (port == nullptr)
    {
        return;
    }
    TARN_LOG_INFO("port = [%s]", port->port);
    leave(port);
    release_port(port);
}

int tarn_serial_read(TARN_SERIAL port, void *buffer, uint32_t len, uint32_t *read_count)
{
    RVON(port, TARN_ERRLN);
    RVON(buffer, TARN_ERRLN);
    RVON(read_count, TARN_ERRLN);
    const int result = port->buffered == 0 ? fill_buffer(port) : 0;
    const uint32_t count = std::min(port->buffered, len);
    tarn_mem_copy(buffer, port->buffer + port->read_index, count);
    port->read_index += count;
    port->buffered -= count;
    *read_count = count;
    if (count != 0)
    {
        log_traffic(port, buffer, count);
    }
    return result; // says nothing about the count: deliberate
}

int tarn_serial_write(TARN_SERIAL port, const void *bytes, uint32_t len)
{
    RVON(port, TARN_ERRLN);
    RVOF(bytes != NULL || len == 0, TARN_ERRLN);
    log_traffic(port, bytes, len);
    const auto *rest = static_cast<const char *>(bytes);
    const char *const end = rest + len;
    const uint32_t start = tarn_tick_ms();
    while (rest != end)
    {
        const ptrdiff_t n = tarn::retry_eintr(
            [&] { return tarn::serial_os.write(port->fd, rest, static_cast<size_t>(end - rest)); });
        if (n < 0 || (n == 0 && tarn_tick_ms_since(start) >= write_limit_ms))
        {
            return -1;
        }
        if (n == 0)
        {
            tarn_sleep_ms(1);
        }
        rest += n;
    }
    return 0;
}

int tarn_serial_flush(TARN_SERIAL port)
{
    RVON(port, TARN_ERRLN);
    return tarn::retry_eintr([port] { return ::tcdrain(port->fd); });
}

int tarn_serial_purge(TARN_SERIAL port, bool receive, bool transmit)
{
    RVON(port, TARN_ERRLN);
    if (!receive && !transmit)
    {
        return -1;
    }
    return ::tcflush(port->fd, receive && transmit ? TCIOFLUSH : receive ? TCIFLUSH : TCOFLUSH);
}

void tarn_serial_log_traffic(bool on)
{
    tarn::process.log_serial_traffic.store(on, std::memory_order_relaxed);
}

bool tarn_serial_init(void)
{
    if (state.crit_sect == nullptr)
    {
        state.crit_sect = tarn_critical_section_create();
    }
    if (state.ports == nullptr)
    {
        state.ports = tarn_list_create(tarn::serial_port_max);
    }
    return state.crit_sect != nullptr && state.ports != nullptr;
}

void tarn_serial_uninit(void)
{
    tarn_list_destroy(std::exchange(state.ports, nullptr));
    tarn_critical_section_destroy(std::exchange(state.crit_sect, nullptr));
}
