#include "serial_source.h"

#include "settings.h"
#include "text_file.h"

#include "tarn_log.h"

#include <charconv>
#include <cmath>

namespace gatewayd
{
namespace
{

constexpr uint32_t reopen_ms = 1000;
constexpr uint32_t pause_ms = 50;

/** A finite number, and nothing else. */
bool to_number(std::string_view text, double *out)
{
    text.remove_prefix(text.starts_with('+') ? 1 : 0);
    const char *const end = text.data() + text.size();
    const auto [behind, error] = std::from_chars(text.data(), end, *out);
    return error == std::errc() && behind == end && std::isfinite(*out);
}

} // namespace

bool serial_source::start(const char *device, uint32_t baud)
{
    device_ = device;
    baud_ = baud;
    (void)open_port(); // or the thread, later
    thread_ = tarn_thread_start(loop_proc, this, nullptr, 0, "serial_source");
    return thread_ != TARN_INVALID_HANDLE;
}

void serial_source::stop()
{
    if (thread_ != TARN_INVALID_HANDLE)
    {
        tarn_thread_stop(thread_);
        thread_ = TARN_INVALID_HANDLE;
    }
    close_port();
}

void *serial_source::loop_proc(void *self, void *)
{
    auto *const me = static_cast<serial_source *>(self);
    if (me->port_ != TARN_INVALID_HANDLE || me->open_port())
    {
        me->read_port();
    }
    else
    {
        (void)tarn_thread_sleep(reopen_ms);
    }
    return nullptr;
}

bool serial_source::open_port()
{
    port_ = tarn_serial_open(device_, baud_, 8, 1, TARN_SERIAL_PARITY_NONE);
    if (port_ == TARN_INVALID_HANDLE)
    {
        if (!told_)
        {
            TARN_LOG_WARN("fail to open %s, trying again", device_);
        }
        told_ = true;
        return false;
    }
    told_ = false;
    too_long_ = false;
    length_ = 0;
    // What has been waiting is old, and may begin in the middle of a line.
    (void)tarn_serial_purge(port_, true, false);
    (void)tarn_serial_set_comm_mask(port_, TARN_SERIAL_EVENT_READ);
    TARN_LOG_INFO("reading points from %s at %u baud", device_, baud_);
    return true;
}

void serial_source::close_port()
{
    tarn_serial_close(port_);
    port_ = TARN_INVALID_HANDLE;
}

/** Waits for bytes, and takes those that are there. */
void serial_source::read_port()
{
    uint32_t events = 0;
    const bool is_ready = tarn_serial_wait_comm_event(port_, &events) == 1;
    char bytes[64];
    uint32_t count = 0;
    const int rc = tarn_serial_read(port_, bytes, sizeof bytes, &count);
    if (rc < 0 || (rc == 1 && count == 0))
    {
        TARN_LOG_WARN("%s is lost", device_);
        close_port();
        (void)tarn_thread_sleep(reopen_ms);
        return;
    }
    for (const char byte : std::string_view(bytes, count))
    {
        take_byte(byte);
    }
    if (!is_ready && count == 0)
    {
        (void)tarn_thread_sleep(pause_ms); // the wait may have failed at once
    }
}

void serial_source::take_byte(char byte)
{
    if (byte == '\n' || byte == '\r')
    {
        take_line();
        length_ = 0;
        too_long_ = false;
    }
    else if (length_ < line_.size())
    {
        line_[length_++] = byte;
    }
    else
    {
        too_long_ = true;
    }
}

void serial_source::take_line()
{
    const std::string_view line = trimmed({line_.data(), length_});
    if (line.empty() && !too_long_)
    {
        return;
    }
    const bool taken = !too_long_ && take_point(line);
    if (!taken && !told_line_)
    {
        TARN_LOG_WARN("no point from %s: '%s' is not of the form name=value, or there are too many",
                      device_, shown_text(line).c_str());
    }
    told_line_ = !taken;
}

bool serial_source::take_point(std::string_view line)
{
    const size_t equals = line.find('=');
    double value = 0;
    if (equals == std::string_view::npos || !to_number(trimmed(line.substr(equals + 1)), &value))
    {
        return false;
    }
    const set_result result = points_.set(trimmed(line.substr(0, equals)), value);
    return result == set_result::changed || result == set_result::unchanged;
}

} // namespace gatewayd
