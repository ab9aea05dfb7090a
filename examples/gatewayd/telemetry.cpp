#include "telemetry.h"

#include "text_file.h"

#include <algorithm>
#include <charconv>
#include <cstdio>
#include <span>

namespace gatewayd
{
namespace
{

/** Takes the number off the front of a text, blanks before it included. */
bool take_number(std::string_view *text, double *out)
{
    text->remove_prefix(std::min(text->find_first_not_of(blanks), text->size()));
    const char *const end = text->data() + text->size();
    const auto [behind, error] = std::from_chars(text->data(), end, *out);
    text->remove_prefix(static_cast<size_t>(behind - text->data()));
    return error == std::errc();
}

// When others have filled the table, a point that is not in it yet stays out.
void set_point(const reading_sink &sink, const char *name, double value)
{
    (void)sink.points.set(name, value, sink.time_ms);
}

/** Sets a point to the number that a text begins with, divided by unit. */
bool take_single(const reading_sink &sink, const char *point_name, std::string_view text,
                 double unit)
{
    double number = 0;
    const bool understood = take_number(&text, &number);
    if (understood)
    {
        set_point(sink, point_name, number / unit);
    }
    return understood;
}

/** "0.20 0.18 0.12 1/80 11206": three averages, processes that run, the newest process. */
bool take_load(const reading_sink &sink, const char *, std::string_view text)
{
    double averages[3] = {};
    for (double &average : averages)
    {
        if (!take_number(&text, &average))
        {
            return false;
        }
    }
    set_point(sink, "load.1min", averages[0]);
    set_point(sink, "load.5min", averages[1]);
    set_point(sink, "load.15min", averages[2]);
    return true;
}

/** Lines such as "MemFree:        23459304 kB". */
bool take_memory(const reading_sink &sink, const char *, std::string_view text)
{
    struct row
    {
        std::string_view title;
        const char *point_name;
    };
    constexpr row wanted[] = {{"MemTotal:", "mem.total_kib"},
                              {"MemFree:", "mem.free_kib"},
                              {"MemAvailable:", "mem.available_kib"}};
    bool understood = false;
    while (!text.empty())
    {
        const std::string_view line = take_line(&text);
        for (const auto &[title, point_name] : wanted)
        {
            if (line.starts_with(title))
            {
                understood |= take_single(sink, point_name, line.substr(title.size()), 1);
            }
        }
    }
    return understood;
}

/** "2342.51 4471.60": seconds since the start, seconds idle. */
bool take_uptime(const reading_sink &sink, const char *point_name, std::string_view text)
{
    return take_single(sink, point_name, text, 1);
}

/** "47250": thousandths of a degree Celsius. */
bool take_temperature(const reading_sink &sink, const char *point_name, std::string_view text)
{
    return take_single(sink, point_name, text, 1000);
}

/** Large enough for /proc/meminfo, and still at home on a small stack. */
using text_buffer = std::array<char, 8192>;

} // namespace

bool telemetry::start(uint32_t period_ms)
{
    source_count_ = 0;
    add_source("/proc/loadavg", "", take_load);
    add_source("/proc/meminfo", "", take_memory);
    add_source("/proc/uptime", "uptime_s", take_uptime);
    find_sensors();
    read_sources(0);
    timer_ = tarn_timer_create(TARN_TIMER_WALL_CLOCK, on_tick, this, nullptr);
    return timer_ != TARN_INVALID_HANDLE &&
           tarn_timer_start(timer_, period_ms * uint64_t{1000000}, 0) == 0;
}

void telemetry::stop()
{
    tarn_timer_destroy(timer_);
    timer_ = TARN_INVALID_HANDLE;
}

void telemetry::add_source(const char *path, const char *point_name, decltype(source::take) take)
{
    if (source_count_ < sources_.size())
    {
        source &added = sources_[source_count_++];
        added = {};
        (void)std::snprintf(added.path, sizeof added.path, "%s", path);
        (void)std::snprintf(added.point_name, sizeof added.point_name, "%s", point_name);
        added.take = take;
    }
}

/** Adds a sensor that can be read. */
void telemetry::add_sensor(const char *path, const char *point_name)
{
    text_buffer buffer;
    if (read_text_file(path, buffer).error == nullptr)
    {
        add_source(path, point_name, take_temperature);
    }
}

void telemetry::find_sensors()
{
    constexpr int max_devices = 16;
    constexpr int max_inputs = 8;
    char path[sizeof source::path];
    char name[sizeof source::point_name];
    for (int device = 0; device < max_devices; ++device)
    {
        (void)std::snprintf(path, sizeof path, "/sys/class/thermal/thermal_zone%d/temp", device);
        (void)std::snprintf(name, sizeof name, "temp.zone%d", device);
        add_sensor(path, name);
        for (int input = 1; input <= max_inputs; ++input)
        {
            (void)std::snprintf(path, sizeof path, "/sys/class/hwmon/hwmon%d/temp%d_input", device,
                                input);
            (void)std::snprintf(name, sizeof name, "temp.hwmon%d.%d", device, input);
            add_sensor(path, name);
        }
    }
}

void *telemetry::on_tick(TARN_TIMER, uint64_t, uint64_t due_sec, uint32_t due_nsec, void *self,
                         void *)
{
    static_cast<telemetry *>(self)->read_sources(due_sec * 1000 + due_nsec / 1000000);
    return nullptr;
}

void telemetry::read_sources(uint64_t time_ms)
{
    for (source &from : std::span(sources_).first(source_count_))
    {
        read_source(from, time_ms);
    }
}

void telemetry::read_source(source &from, uint64_t time_ms)
{
    text_buffer buffer;
    const text_result read = read_text_file(from.path, buffer);
    const bool understood =
        read.error == nullptr && from.take({points_, time_ms}, from.point_name, read.text);
    if (!understood && !from.failed)
    {
        TARN_LOG_WARN("fail to read %s: %s", from.path,
                      read.error != nullptr ? read.error : "no readings in it");
    }
    from.failed = !understood;
}

} // namespace gatewayd
