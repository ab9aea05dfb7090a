// The table of points: named values that sources set and servers show.
//
// A source (telemetry, a serial line, a client) calls set() from a thread of its own. Who wants to follow the values, to log them or to mirror them into a segment that other
// processes read, adds a listener; who answers questions about them uses get() and list(). Neither
// side knows the other.
//
// Points are never removed and the table has a limit, because clients may come to name new ones.
// Threads: open(), close() and add_listener() belong to the main thread while no source or server
// runs; the rest may be called from any thread.
#pragma once

#include "tarn_critical_section.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>

namespace gatewayd
{

constexpr size_t max_point_name = 63;
constexpr size_t max_points = 1024;

struct point
{
    char name[max_point_name + 1];
    double value;
    uint64_t time_ms; ///< of the last change, in milliseconds since 1970-01-01 00:00:00 UTC
    uint16_t place;   ///< in the order of creation; stays
};

/** 1 to 63 bytes of letters, digits and "_./-". */
bool is_point_name(std::string_view name);

enum class set_result
{
    unchanged,
    changed, ///< or new
    invalid_name,
    table_full
};

class point_table
{
public:
    /** Called after a change, on the thread that made it and without a lock: changes of one point
     *  by several threads may be told in another order than they were made, so a listener that
     *  needs the latest value asks get(). */
    using listener = void (*)(void *context, const point &changed);

    point_table() = default;
    point_table(const point_table &) = delete;
    point_table &operator=(const point_table &) = delete;
    ~point_table()
    {
        close();
    }

    bool open();
    void close();
    bool add_listener(listener call, void *context);

    /** @param time_ms  of the change; 0: now */
    set_result set(std::string_view name, double value, uint64_t time_ms = 0);
    /** @return false, with out untouched, when there is no such point */
    bool get(std::string_view name, point *out) const;
    /** The point at a place; false when there are not so many. */
    bool at(size_t place, point *out) const;
    /** Copies points, in the order of their names, until out is full.
     *  @return how many there are */
    size_t list(std::span<point> out) const;
    [[nodiscard]] size_t count() const;
    /** Changes since open(), new points included. */
    [[nodiscard]] uint64_t changes() const;

private:
    struct listener_entry
    {
        listener call;
        void *context;
    };

    [[nodiscard]] size_t position_of(std::string_view name) const;
    [[nodiscard]] bool has_name_at(size_t position, std::string_view name) const;
    void insert(size_t position, const point &added);
    set_result store(point *wanted);

    TARN_CRITICAL_SECTION lock_ = TARN_INVALID_HANDLE;
    // under the lock
    std::array<point, max_points> points_;   ///< in the order of their creation
    std::array<uint16_t, max_points> order_; ///< places in points_, in the order of their names
    size_t count_ = 0;
    uint64_t changes_ = 0;
    // fixed before sources run
    std::array<listener_entry, 4> listeners_{};
    size_t listener_count_ = 0;
};

/** All points as they were at one moment, in the order of their names. */
class point_list
{
public:
    explicit point_list(const point_table &points);
    point_list(const point_list &) = delete;
    point_list &operator=(const point_list &) = delete;
    ~point_list();

    /** False when memory ran out. */
    [[nodiscard]] bool is_whole() const
    {
        return points_ != nullptr;
    }
    [[nodiscard]] std::span<const point> all() const
    {
        return {points_, count_};
    }

private:
    point *points_;
    size_t count_ = 0;
};

} // namespace gatewayd
