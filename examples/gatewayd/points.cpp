#include "points.h"

#include "scoped_lock.h"

#include "tarn_mem.h"
#include "tarn_sys.h"

#include <algorithm>
#include <bit>

namespace gatewayd
{
namespace
{

// Not isalnum(): which letters a locale has does not matter here.
bool is_name_byte(char c)
{
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '_' ||
           c == '.' || c == '/' || c == '-';
}

uint64_t now_ms()
{
    tarn_time now = {};
    (void)tarn_time_get(&now);
    return now.seconds * 1000 + now.microseconds / 1000;
}

/** Compares bits, so that a value that is not a number equals itself. */
bool same_value(double a, double b)
{
    return std::bit_cast<uint64_t>(a) == std::bit_cast<uint64_t>(b);
}

} // namespace

bool is_point_name(std::string_view name)
{
    return !name.empty() && name.size() <= max_point_name &&
           std::all_of(name.begin(), name.end(), is_name_byte);
}

bool point_table::open()
{
    count_ = 0;
    changes_ = 0;
    lock_ = tarn_critical_section_create();
    return lock_ != TARN_INVALID_HANDLE;
}

void point_table::close()
{
    tarn_critical_section_destroy(lock_);
    lock_ = TARN_INVALID_HANDLE;
    count_ = 0;
    listener_count_ = 0;
}

bool point_table::add_listener(listener call, void *context)
{
    if (listener_count_ == listeners_.size())
    {
        return false;
    }
    listeners_[listener_count_++] = {call, context};
    return true;
}

/** Where the name stands in the order of names, or would stand. */
size_t point_table::position_of(std::string_view name) const
{
    const auto first = order_.begin();
    const auto found = std::lower_bound(
        first, first + static_cast<ptrdiff_t>(count_), name,
        [this](uint16_t place, std::string_view wanted) { return points_[place].name < wanted; });
    return static_cast<size_t>(found - first);
}

bool point_table::has_name_at(size_t position, std::string_view name) const
{
    return position < count_ && points_[order_[position]].name == name;
}

void point_table::insert(size_t position, const point &added)
{
    const auto at = order_.begin() + static_cast<ptrdiff_t>(position);
    const auto end = order_.begin() + static_cast<ptrdiff_t>(count_);
    std::copy_backward(at, end, end + 1);
    *at = static_cast<uint16_t>(count_);
    points_[count_++] = added;
}

/** @param wanted  in/out: its place is found */
set_result point_table::store(point *wanted)
{
    const scoped_lock lock(lock_);
    const size_t position = position_of(wanted->name);
    if (!has_name_at(position, wanted->name))
    {
        if (count_ == max_points)
        {
            return set_result::table_full;
        }
        wanted->place = static_cast<uint16_t>(count_);
        insert(position, *wanted);
    }
    else if (point &known = points_[order_[position]]; same_value(known.value, wanted->value))
    {
        return set_result::unchanged;
    }
    else
    {
        wanted->place = known.place;
        known = *wanted;
    }
    ++changes_;
    return set_result::changed;
}

set_result point_table::set(std::string_view name, double value, uint64_t time_ms)
{
    if (!is_point_name(name))
    {
        return set_result::invalid_name;
    }
    point wanted = {};
    name.copy(wanted.name, max_point_name);
    wanted.value = value;
    wanted.time_ms = time_ms != 0 ? time_ms : now_ms();
    const set_result result = store(&wanted);
    if (result == set_result::changed)
    {
        for (const listener_entry &entry : std::span(listeners_).first(listener_count_))
        {
            entry.call(entry.context, wanted);
        }
    }
    return result;
}

bool point_table::get(std::string_view name, point *out) const
{
    const scoped_lock lock(lock_);
    const size_t position = position_of(name);
    if (!has_name_at(position, name))
    {
        return false;
    }
    *out = points_[order_[position]];
    return true;
}

bool point_table::at(size_t place, point *out) const
{
    const scoped_lock lock(lock_);
    if (place >= count_)
    {
        return false;
    }
    *out = points_[place];
    return true;
}

size_t point_table::list(std::span<point> out) const
{
    const scoped_lock lock(lock_);
    const size_t copied = std::min(out.size(), count_);
    for (size_t i = 0; i < copied; ++i)
    {
        out[i] = points_[order_[i]];
    }
    return count_;
}

size_t point_table::count() const
{
    const scoped_lock lock(lock_);
    return count_;
}

uint64_t point_table::changes() const
{
    const scoped_lock lock(lock_);
    return changes_;
}

point_list::point_list(const point_table &points)
    : points_(static_cast<point *>(tarn_mem_alloc(max_points * sizeof(point))))
{
    if (points_ != nullptr)
    {
        count_ = points.list({points_, max_points});
    }
}

point_list::~point_list()
{
    tarn_mem_free(points_);
}

} // namespace gatewayd
