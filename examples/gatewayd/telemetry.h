// The machine's own telemetry: a loop thread that reads load, memory, uptime and temperatures into
// points once per period.
//
// Points: load.1min, load.5min, load.15min; mem.total_kib, mem.free_kib, mem.available_kib;
// uptime_s; temp.zone<N> and temp.hwmon<N>.<M> in degrees Celsius, for the sensors that the machine
// has when the source starts.
#pragma once

#include "points.h"

#include "tarn_thread.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <string_view>

namespace gatewayd
{

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

    /** Starts the thread, whose first readings are taken at once. */
    bool start(uint32_t period_ms);
    /** Ends the thread and waits for it. */
    void stop();

private:
    /** Sets the points that a text tells; false when it is not the text it should be. */
    using take_function = bool (*)(point_table &points, const char *point_name,
                                   std::string_view text);

    /** A file with readings. Once the thread runs, it alone looks at it. */
    struct source
    {
        char path[64];
        char point_name[max_point_name + 1]; ///< of a file with one reading
        take_function take;
        bool failed; ///< and told so; until a reading works again
    };

    static void *loop_proc(void *self, void *unused);
    void add_source(const char *path, const char *point_name, take_function take);
    void add_sensor(const char *path, const char *point_name);
    void find_sensors();
    void read_source(source &from);

    point_table &points_;
    TARN_THREAD thread_ = TARN_INVALID_HANDLE;
    std::array<source, 64> sources_{};
    size_t source_count_ = 0;
};

} // namespace gatewayd
