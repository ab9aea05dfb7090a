// gatewayd: the example daemon, for copying.
//
// It keeps a table of points (points.h), which sources fill: the machine's own telemetry
// (telemetry.h). Settings come from the command line and a configuration file (settings.h,
// command_line.h). What it shows of the layer is the shape of a daemon: enter the process frame,
// start the layer, start the work, wait for the exit event, close everything in reverse order.

#include "command_line.h"
#include "points.h"
#include "settings.h"
#include "telemetry.h"

#include "tarn.h"
#include "tarn_process.h"

#include <cinttypes>
#include <cstdio>
#include <cstdlib>

namespace
{

void log_change(void *, const gatewayd::point &changed)
{
    TARN_LOG_INFO("%s = %.15g", changed.name, changed.value);
}

/** The main thread's part, once all work runs in threads: to wait for the end, and to look after
 *  things once a second. */
void wait_for_exit(const gatewayd::point_table &points)
{
    // From the first exit wait on, SIGTERM, SIGINT and SIGQUIT ask for an orderly end; before it
    // they kill. So nobody who has seen this line has to fear that.
    bool ends = tarn_process_wait_exit(0);
    TARN_LOG_INFO("running");
    while (!ends)
    {
        TARN_LOG_DEBUG("%zu points, %" PRIu64 " changes", points.count(), points.changes());
        ends = tarn_process_wait_exit(1000);
    }
    TARN_LOG_INFO("ending");
}

/** The work between start and end of the layer. What stands here closes itself, in reverse order:
 *  first the sources, which join their threads, then the table that they fill. */
int work(const gatewayd::settings &settings)
{
    gatewayd::point_table points;
    if (!points.open() || !points.add_listener(log_change, nullptr))
    {
        TARN_LOG_FATAL("fail to open the table of points");
        return EXIT_FAILURE;
    }
    gatewayd::telemetry telemetry(points);
    if (!telemetry.start(settings.period_ms))
    {
        TARN_LOG_FATAL("fail to start the telemetry");
        return EXIT_FAILURE;
    }
    wait_for_exit(points);
    return EXIT_SUCCESS;
}

} // namespace

int main(int argc, char **argv)
{
    // Each line goes out when it is written, into a pipe as well.
    (void)std::setvbuf(stdout, nullptr, _IOLBF, BUFSIZ);

    gatewayd::settings settings;
    if (const auto status = gatewayd::enter_process(argc, argv, &settings); status)
    {
        return *status;
    }
    if (!tarn_init())
    {
        return EXIT_FAILURE;
    }
    TARN_LOG_INFO("%s: telemetry every %u ms", settings.name, settings.period_ms);
    const int status = work(settings);
    TARN_LOG_INFO("%s: ended with status %d", settings.name, status);
    tarn_uninit();
    return status;
}
