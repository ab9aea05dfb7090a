// Private: the record, the parts and the seams of serial ports; for tarn_serial*.cpp and the tests.
#ifndef TARN_SERIAL_INTERNAL_H
#define TARN_SERIAL_INTERNAL_H

#include "tarn_os.h"
#include "tarn_raii.h"
#include "tarn_serial.h"

#include <cstddef>
#include <cstdint>

// The C library's, or the kernel's in the one source that includes that instead: both headers in one
// source do not compile.
struct termios;

namespace tarn
{

inline constexpr size_t serial_name_max = 256;
inline constexpr uint32_t serial_port_max = 100;
inline constexpr size_t serial_buffer_size = 30;

/** The device behind a port's name. */
struct serial_node
{
    char path[serial_name_max + 1];
    uint64_t file_system; ///< where the node lies
    uint64_t device;      ///< its device number; 0: there is no such device
};

// ---- seams ---------------------------------------------------------------------------------------

/** The system calls that a pseudo terminal cannot answer as a serial device does. Tests exchange
 *  them while no port is in use. */
struct serial_system
{
    int (*ioctl)(int fd, unsigned long request, void *argument);
    int (*tcgetattr)(int fd, termios *settings);
    int (*tcsetattr)(int fd, int when, const termios *settings);
    ptrdiff_t (*read)(int fd, void *buffer, size_t len);
    ptrdiff_t (*write)(int fd, const void *bytes, size_t len);
};
extern serial_system serial_os;

/** Where the links named after USB adapters are. */
extern const char *serial_by_id_path;

// ---- tarn_serial_node.cpp ------------------------------------------------------------------------

/** Follow the symbolic links of a port's name. The result is the same for every name of a device
 *  that exists; a name that leads nowhere is a result, too.
 *  @return false when there are too many links, a name is too long or memory ran out. */
bool serial_resolve(const char *port, serial_node *out);

/** True when both are the same device, under whatever names. */
bool serial_same_device(const serial_node &a, const serial_node &b);

// ---- tarn_serial_lock.cpp ------------------------------------------------------------------------

/** Lock a device against all other openers, until serial_unlock() or the end of all processes that
 *  have the descriptor.
 *  @param port  for the log
 *  @return empty when it is locked already or cannot be locked; logged. */
unique_fd serial_lock(const char *node, const char *port);

/** Unlock a device and close the descriptor; -1 is ignored. */
void serial_unlock(int fd);

// ---- tarn_serial_settings.cpp --------------------------------------------------------------------

bool serial_is_standard_rate(uint32_t baudrate);

/** Put one setting into a record of settings. A custom rate leaves it as it is. */
void serial_apply_baudrate(termios *settings, uint32_t baudrate);
void serial_apply_bytesize(termios *settings, int32_t bytesize);
void serial_apply_stopbits(termios *settings, int32_t stopbits);
void serial_apply_parity(termios *settings, int32_t parity);

/** Put a freshly opened device into raw mode with these settings.
 *  @return false when that failed; logged. */
bool serial_configure(TARN_SERIAL port, int32_t bytesize, int32_t stopbits, int32_t parity);

// ---- tarn_serial_custom_baudrate.cpp -------------------------------------------------------------

/** Set any rate for both directions, at once.
 *  @return 0; -1 when the settings cannot be read; -2 when they cannot be written; logged. */
int set_custom_baudrate(int fd, uint32_t baudrate);

// ---- tarn_serial_event.cpp -----------------------------------------------------------------------

/** Wait until a descriptor is ready as select() means it: POLLIN is there on a hang-up or an error
 *  as well.
 *  @param wanted  POLLIN, POLLOUT or POLLPRI
 *  @return 1; 0 after the time-out; -1 with errno, EINTR among others. */
int serial_select(int fd, short wanted, int timeout_ms);

} // namespace tarn

struct tarn_serial
{
    tarn_handle_header header;
    int32_t fd; ///< -1 after a reopen that failed
    int32_t lock_fd;
    uint32_t baudrate;   ///< as given at the opening
    uint32_t event_mask; ///< TARN_SERIAL_EVENT_*
    uint32_t read_index; ///< next byte of the buffer
    uint32_t buffered;   ///< bytes from there on
    uint8_t buffer[tarn::serial_buffer_size];
    char port[tarn::serial_name_max + 1]; ///< the name as given
    tarn::serial_node node;
};
TARN_ASSERT_RECORD(tarn_serial);

#endif
