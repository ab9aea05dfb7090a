// Points from a serial line: a thread that reads lines of the form name=value. Blanks round both are
// ignored, and so are empty lines. A port that is lost is opened again once a second.
#pragma once

#include "points.h"

#include "tarn_serial.h"
#include "tarn_thread.h"

#include <array>
#include <string_view>

namespace gatewayd
{

class serial_source
{
public:
    explicit serial_source(point_table &points) : points_(points) {}
    serial_source(const serial_source &) = delete;
    serial_source &operator=(const serial_source &) = delete;
    ~serial_source()
    {
        stop();
    }

    /** Opens the port if it can be had, and starts the thread.
     *  @param device  borrowed while it runs */
    bool start(const char *device, uint32_t baud);
    /** Ends the thread and closes the port. */
    void stop();

private:
    static void *loop_proc(void *self, void *unused);
    bool open_port();
    void close_port();
    void read_port();
    void take_byte(char byte);
    void take_line();
    bool take_point(std::string_view line);

    point_table &points_;
    const char *device_ = nullptr;
    uint32_t baud_ = 0;
    TARN_THREAD thread_ = TARN_INVALID_HANDLE;
    // of the thread
    TARN_SERIAL port_ = TARN_INVALID_HANDLE;
    bool told_ = false;      ///< that the port cannot be opened
    bool told_line_ = false; ///< of a line that is none, until there is one again
    bool too_long_ = false;  ///< the line is dropped up to its end
    std::array<char, 256> line_{};
    size_t length_ = 0;
};

} // namespace gatewayd
