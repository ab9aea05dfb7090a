// The machine's own telemetry: a timer that reads load, memory, uptime and temperatures into points
// once per period, at the multiples of the period on the wall clock, so that the readings of several
// gateways fall together.
//
// The time of such a change is that of the tick, not of the moment a little later when the file has
// been read.
//
// Points: load.1min, load.5min, load.15min; mem.total_kib, mem.free_kib, mem.available_kib;
// uptime_s; temp.zone<N> and temp.hwmon<N>.<M> in degrees Celsius, for the sensors that the machine
// has when the source starts.
#pragma once

#include "points.h"

#include "tarn_timer.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <string_view>

namespace gatewayd
{

/** Where the readings of one tick go. */
struct reading_sink
{
    point_table &points;
    uint64_t time_ms; ///< of the tick; 0: now
};

class telemetry
{
public:
    explicit telemetry(point_table &points) : points_(points) {}
    telemetry(const telemetry &) = delete;
    telemetry &operator=(const telemetry &) = delete;
    ~telemetry()
    {
        stop();
    }

    /** Takes the first readings, and starts the timer. */
    bool start(uint32_t period_ms);
    /** Stops the timer; waits for readings under way. */
    void stop();

private:
    /** A file with readings. Once the timer runs, its thread alone looks at it. */
    struct source
    {
        char path[64];
        char point_name[max_point_name + 1]; ///< of a file with one reading
        /** Sets the points that a text tells; false when it is not the text it should be. */
        bool (*take)(const reading_sink &sink, const char *point_name, std::string_view text);
        bool failed; ///< and told so; until a reading works again
    };

    static void *on_tick(TARN_TIMER timer, uint64_t expirations, uint64_t due_sec,
                         uint32_t due_nsec, void *self, void *unused);
    void read_sources(uint64_t time_ms);
    void add_source(const char *path, const char *point_name, decltype(source::take) take);
    void add_sensor(const char *path, const char *point_name);
    void find_sensors();
    void read_source(source &from, uint64_t time_ms);

    point_table &points_;
    TARN_TIMER timer_ = TARN_INVALID_HANDLE;
    std::array<source, 64> sources_{};
    size_t source_count_ = 0;
};

} // namespace gatewayd
