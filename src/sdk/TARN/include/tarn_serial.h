/** @file
 *  Serial ports: tty devices in raw mode, each open at most once on the whole machine.
 *
 *  A port is guarded against a second opener, in this process and in any other that uses the layer,
 *  by a lock on /tmp/tarn_serial_NODE, where NODE is the device's path with '_' for each '/'; the
 *  lock goes with the process that holds it, however that ends. Nothing keeps out programs that do
 *  not look at that lock.
 *  At most 100 ports can be open in a process. Names of ports have at most 256 characters.
 *
 *  Settings: the rates 0, 50, 75, 110, 134, 150, 200, 300, 600, 1200, 1800, 2400, 4800, 9600, 19200,
 *  38400, 57600, 115200 and 230400 are the standard ones; any other is set as a custom rate, which
 *  the driver brings about as near as it can. Byte size 5, 6 or 7 bits, anything else is 8; stop
 *  bits 2, anything else is 1; parity one of TARN_SERIAL_PARITY_*, anything else is none. Input
 *  parity is never checked. There is no flow control, and the carrier line is ignored.
 *
 *  Results: integer functions give 0 or a positive number, negative on failure (TARN_ERRLN for a
 *  null argument). Failures are logged.
 *  Reading and writing never wait for the device; each function that does says so.
 *  Threads: one at a time per port, the close included; different ports from any threads. */
#ifndef TARN_SERIAL_H
#define TARN_SERIAL_H

#include "tarn.h"

TARN_BEGIN_DECLS

typedef struct tarn_serial *TARN_SERIAL;

enum
{
    TARN_SERIAL_PARITY_NONE = 0,
    TARN_SERIAL_PARITY_ODD = 1,
    TARN_SERIAL_PARITY_EVEN = 2,
    TARN_SERIAL_PARITY_MARK = 3,
    TARN_SERIAL_PARITY_SPACE = 4
};

/** Modem control bits, by number. */
enum
{
    TARN_SERIAL_MCB_DSR = 1,
    TARN_SERIAL_MCB_DTR = 2,
    TARN_SERIAL_MCB_RTS = 3,
    TARN_SERIAL_MCB_CTS = 4,
    TARN_SERIAL_MCB_CD = 5,
    TARN_SERIAL_MCB_RI = 6,
    TARN_SERIAL_MCB_BREAK = 7 /**< can be set only */
};

/** Bits of a comm event mask. */
enum
{
    TARN_SERIAL_EVENT_READ = 1,
    TARN_SERIAL_EVENT_READ2 = 2, /**< the same condition under a second bit */
    TARN_SERIAL_EVENT_WRITE = 4,
    TARN_SERIAL_EVENT_LINE = 8, /**< this and the next three: modem lines */
    TARN_SERIAL_EVENT_LINE2 = 16,
    TARN_SERIAL_EVENT_LINE3 = 32,
    TARN_SERIAL_EVENT_EXCEPTION = 128,
    TARN_SERIAL_EVENT_LINE4 = 256
};

/** Open a port and put its device into raw mode with these settings.
 *  @param port  the device, or a symbolic link to it (up to 40 links, each of up to 256
 *               characters); copied
 *  @return the handle, closed with tarn_serial_close(); TARN_INVALID_HANDLE when the port is open
 *          already, here or in another process (WARN), when it is no tty, cannot be opened or
 *          refuses the settings, or is the 101st. */
TARN_API TARN_SERIAL tarn_serial_open(const char *port, uint32_t baudrate, int32_t bytesize,
                                      int32_t stopbits, int32_t parity);

/** Close the device and open it again; its settings are those it has by then, not set again. The
 *  lock is held all the while. The name must still lead to the same device: an adapter that came
 *  back under another device needs a close and an open.
 *  @return 0; -1 when it cannot be opened; -2 when it is no tty. After a failure every other
 *          function fails until a reopen succeeds; the port still has to be closed. */
TARN_API int tarn_serial_reopen(TARN_SERIAL port);

/** Close a port; null is ignored. The driver may first wait for output to be sent. */
TARN_API void tarn_serial_close(TARN_SERIAL port);

/** Change one setting, after the output written so far has been sent: may wait for that.
 *  A port opened at a custom rate returns to that rate after each of these calls, even after
 *  tarn_serial_set_baudrate(): deliberate.
 *  @return 0; -1 when the settings cannot be read; -2 when they cannot be written, which includes
 *          devices that take none of the change (a pseudo terminal has 8 bits and no parity). */
TARN_API int tarn_serial_set_baudrate(TARN_SERIAL port, uint32_t baudrate);
TARN_API int tarn_serial_set_bytesize(TARN_SERIAL port, int32_t bytesize);
TARN_API int tarn_serial_set_stopbits(TARN_SERIAL port, int32_t stopbits);
TARN_API int tarn_serial_set_parity(TARN_SERIAL port, int32_t parity);

/** Take bytes that have arrived. The handle buffers up to 30 bytes; a call reads the device at most
 *  once, and only when that buffer is empty, so it gives 30 bytes at most.
 *  @param buffer      out
 *  @param len         its size
 *  @param read_count  out: bytes stored, which alone says how many came; 0 on failure too
 *  @return 0 when the bytes came out of the buffer, or none were there; 1 when the device was ready,
 *          which with a count of 0 means that it hung up (a pseudo terminal) or had nothing after
 *          all; negative when it cannot be read. */
TARN_API int tarn_serial_read(TARN_SERIAL port, void *buffer, uint32_t len, uint32_t *read_count);

/** Write all bytes. A device that has no room for the next byte fails the call at once, with a part
 *  written (errno EAGAIN): write no more than its output buffer takes, or wait for
 *  TARN_SERIAL_EVENT_WRITE in between. A device that accepts writes but takes no byte is tried for
 *  60 seconds.
 *  @return 0, also for len 0; -1 when not all could be written. */
TARN_API int tarn_serial_write(TARN_SERIAL port, const void *bytes, uint32_t len);

/** Wait until all output has been sent, however long that takes.
 *  @return 0; -1 on failure. */
TARN_API int tarn_serial_flush(TARN_SERIAL port);

/** Drop what the device has received and not yet handed out, or what it has not yet sent, or both.
 *  Bytes that the handle has buffered stay.
 *  @return 0; -1 on failure, and when neither is asked for. */
TARN_API int tarn_serial_purge(TARN_SERIAL port, bool receive, bool transmit);

/** Look at a modem line.
 *  @param bit  TARN_SERIAL_MCB_DSR to TARN_SERIAL_MCB_RI
 *  @return true when it is set; false when it is not or cannot be read, and for other bits. */
TARN_API bool tarn_serial_get_mcb(TARN_SERIAL port, int32_t bit);

/** Set or clear a modem line, or start or end a break.
 *  @param bit  TARN_SERIAL_MCB_*; a driver ignores lines that are inputs
 *  @return true; false when the driver refused, and for other bits. */
TARN_API bool tarn_serial_set_mcb(TARN_SERIAL port, int32_t bit, bool on);

/** The events that tarn_serial_wait_comm_event() looks for; none after the opening.
 *  @return true; false for a null argument. */
TARN_API bool tarn_serial_get_comm_mask(TARN_SERIAL port, uint32_t *event_mask);
TARN_API bool tarn_serial_set_comm_mask(TARN_SERIAL port, uint32_t event_mask);

/** Wait until an event of the port's mask is there. Reading, writing and the exceptional condition
 *  are waited for in turn, up to one second each, so one event may be reported up to two seconds
 *  after it came. Modem-line events are reported on every pass, whether or not a line has changed:
 *  deliberate. A device without modem lines, or one that is gone, ends the wait after one pass; so
 *  do a signal handler that runs meanwhile, a stop request to the calling loop thread and, on the
 *  main thread, the process exit event.
 *  @param event_mask  out: those bits of the mask that are there; written only when 1 is returned
 *  @return 1; 0 when the wait ended without an event, and at once when the mask holds none. */
TARN_API int tarn_serial_wait_comm_event(TARN_SERIAL port, uint32_t *event_mask);

/** Device of a USB serial adapter, as in "/dev/ttyUSB0".
 *  @param id      any part of the adapter's name under /dev/serial/by-id; the first that matches
 *                 is taken
 *  @param buffer  out; untouched on failure
 *  @param len     its size, terminator included
 *  @return 0; -1 when no adapter is plugged in; -2 when none matches; TARN_ERRLN for null and for
 *          a buffer that is too small. */
TARN_API int tarn_serial_get_tty_name_by_id(const char *id, char *buffer, size_t len);

/** Log what all ports read and write, as text at DEBUG and as a hex dump at INFO. Off at start;
 *  the command line option -t and the signals SIGUSR1 and SIGUSR2 switch it as well.
 *  Threads: any. */
TARN_API void tarn_serial_log_traffic(bool on);

TARN_END_DECLS

#endif
