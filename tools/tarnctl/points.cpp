// tarnctl points watch: the points of a gatewayd, live, from the heap that it shows them in.

#include "output.h"
#include "owner.h"

#include "point_heap.h"

#include "tarn_process.h"
#include "tarn_sys.h"

#include <algorithm>
#include <cerrno>
#include <csignal>

namespace tarnctl
{
namespace
{

using heap_owner = owner<TARN_SHMX, tarn_shmx_destroy>;

struct settings
{
    std::string name;
    uint32_t tables = 0; ///< 0: without end
    uint32_t interval_ms = 500;
    bool json = false;
};

std::vector<gatewayd_heap_value> read_points(const gatewayd_heap_view &view)
{
    std::vector<gatewayd_heap_value> points;
    const uint32_t count = gatewayd_heap_count(&view);
    for (uint32_t place = 0; place < count; ++place)
    {
        gatewayd_heap_value point;
        if (gatewayd_heap_read(&view, place, &point))
        {
            points.push_back(point);
        }
    }
    std::sort(points.begin(), points.end(),
              [](const auto &a, const auto &b) { return std::string_view(a.name) < b.name; });
    return points;
}

/** "2026-11-22 14:03:07.042", in local time. */
std::string time_text(uint64_t time_ms)
{
    const tarn_time time = {time_ms / 1000, 0};
    char text[64] = "";
    (void)tarn_time_format(&time, true, "%Y-%m-%d %H:%M:%S", text, sizeof text);
    char whole[80];
    (void)std::snprintf(whole, sizeof whole, "%s.%03u", text,
                        static_cast<unsigned>(time_ms % 1000));
    return whole;
}

void print_json(const settings &wanted, const gatewayd_heap_view &view)
{
    json line;
    line.begin_object().key("name").text(wanted.name);
    line.key("changes").number(gatewayd_heap_changes(&view)).key("points").begin_array();
    for (const gatewayd_heap_value &point : read_points(view))
    {
        line.begin_object().key("name").text(point.name).key("value").number(point.value);
        line.key("time_ms").number(point.time_ms).end_object();
    }
    line.end_array().end_object().print();
}

void print_table(const settings &wanted, const gatewayd_heap_view &view)
{
    if (output_is_terminal() && wanted.tables != 1)
    {
        (void)std::fputs("\x1b[H\x1b[2J", out()); // the next table stands where the last one stood
    }
    table rows({"NAME", ">VALUE", "CHANGED"});
    for (const gatewayd_heap_value &point : read_points(view))
    {
        rows.add({escaped(point.name), number_text(point.value), time_text(point.time_ms)});
    }
    rows.print();
    if (wanted.tables != 1)
    {
        (void)std::fprintf(out(), "%llu changes\n\n",
                           static_cast<unsigned long long>(gatewayd_heap_changes(&view)));
    }
}

bool has_ended(const gatewayd_heap_view &view)
{
    const auto pid = static_cast<pid_t>(__atomic_load_n(&view.meta->pid, __ATOMIC_RELAXED));
    return gatewayd_heap_is_closed(&view) || pid <= 0 || (::kill(pid, 0) != 0 && errno == ESRCH);
}

/** Prints a table now and after each change. @return a status */
int watch_points(const settings &wanted, const gatewayd_heap_view &view)
{
    uint32_t left = wanted.tables;
    uint64_t shown_changes = ~gatewayd_heap_changes(&view);
    (void)tarn_process_wait_exit(0); // from here on Ctrl-C ends orderly, and gives the user id back
    for (;;)
    {
        if (has_ended(view))
        {
            return failed("'" + shown(wanted.name) + "' has ended: start it again");
        }
        const uint64_t changes = gatewayd_heap_changes(&view);
        if (changes != shown_changes)
        {
            shown_changes = changes;
            wanted.json ? print_json(wanted, view) : print_table(wanted, view);
            if (!flush_output() || (left != 0 && --left == 0))
            {
                return status_ok;
            }
        }
        if (tarn_process_wait_exit(wanted.interval_ms))
        {
            return status_ok;
        }
    }
}

int watch(const arguments &given)
{
    settings wanted;
    wanted.name = given.operands()[0];
    wanted.json = given.has("json");
    if (wanted.name.empty() || wanted.name.size() >= TARN_NAME_MAX ||
        wanted.name.find('/') != std::string::npos)
    {
        return given.wrong_operand(0, wanted.name);
    }
    if (!given.number("count", 1, UINT32_MAX, &wanted.tables) ||
        !given.number("interval", 10, 3600000, &wanted.interval_ms))
    {
        return status_usage;
    }
    wanted.tables = given.has("once") ? 1 : wanted.tables;
    const heap_owner heap(tarn_shmx_open(wanted.name.c_str()));
    if (!heap)
    {
        return failed("cannot open the points of '" + shown(wanted.name) +
                      "': check that gatewayd runs under that name, and with 'tarnctl shm info' "
                      "that not all user ids are taken");
    }
    gatewayd_heap_view view = {};
    if (!gatewayd_heap_attach(heap.get(), &view))
    {
        return failed("'" + shown(wanted.name) +
                      "' is not the heap of a gatewayd of this version: check the name");
    }
    return watch_points(wanted, view);
}

constexpr operand operands[] = {
    {"NAME", "the name of a gatewayd, 1 to 107 characters without '/'"},
};
constexpr option options[] = {
    {"once", nullptr, nullptr, "print one table and end"},
    {"count", "N", "a whole number, 1 to 4294967295", "end after so many tables"},
    {"interval", "MS", "a whole number of milliseconds, 10 to 3600000",
     "how often to look for changes, default is 500"},
    json_option,
};

} // namespace

const command points_watch_command = {
    "points",
    "watch",
    "Print the points of a gatewayd from its shared heap, again after each change",
    "Reading neither asks nor stops the daemon. With --json one object per line.\n",
    operands,
    options,
    watch,
};

} // namespace tarnctl
