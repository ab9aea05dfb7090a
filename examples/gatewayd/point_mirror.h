// The points in a shared heap, where other processes read them: see point_heap.h for the layout.
//
// The heap is written and never read: what another process scribbles into it does not come back.
#pragma once

#include "point_heap.h"
#include "points.h"

namespace gatewayd
{

class point_mirror
{
public:
    explicit point_mirror(point_table &points) : points_(points) {}
    point_mirror(const point_mirror &) = delete;
    point_mirror &operator=(const point_mirror &) = delete;
    ~point_mirror()
    {
        close();
    }

    /** Makes the heap and follows the points from now on; before any source runs. */
    bool open(const char *name);
    /** Tells the readers that it is over, and removes the heap. */
    void close();

private:
    static void on_change(void *self, const point &changed);
    bool make_heap(const char *name);
    void take_over(const point &changed);
    void add(const point &added);
    void write(const point &latest);

    point_table &points_;
    TARN_CRITICAL_SECTION lock_ = TARN_INVALID_HANDLE; ///< one writer at a time
    TARN_SHMX heap_ = TARN_INVALID_HANDLE;
    gatewayd_heap_meta *meta_ = nullptr;
    gatewayd_heap_point *table_ = nullptr;
    // under the lock
    std::array<uint32_t, max_points> sequences_{};
    uint32_t count_ = 0;
    uint64_t changes_ = 0;
};

} // namespace gatewayd
