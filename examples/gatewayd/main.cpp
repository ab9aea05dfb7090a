// gatewayd: the example daemon, for copying.
//
// It keeps a table of points (points.h), which sources fill: the machine's own telemetry
// (telemetry.h), a serial line (serial_source.h), and clients. It shows them over RPC
// (rpc_service.h), over local IPC (ipc_service.h) and in a shared heap (point_mirror.h); protocol.h
// and point_heap.h are for those who talk to it. Settings come from the command line and a
// configuration file (settings.h, command_line.h). What it shows of the layer is the shape of a
// daemon: enter the process frame, start the layer, start the work, wait for the exit event, close
// everything in reverse order.

#include "command_line.h"
#include "ipc_service.h"
#include "point_mirror.h"
#include "points.h"
#include "rpc_service.h"
#include "serial_source.h"
#include "settings.h"
#include "telemetry.h"
#include "work_gate.h"

#include "tarn.h"
#include "tarn_process.h"
#include "tarn_sys.h"

#include <cinttypes>
#include <cstdio>
#include <cstdlib>

namespace
{

constexpr uint32_t watchdog_s = 30;

void log_change(void *, const gatewayd::point &changed)
{
    TARN_LOG_INFO("%s = %.15g", changed.name, changed.value);
}

/** Everything that works. What stands here closes itself, in reverse order: who fills the table
 *  before the heap that mirrors it, and the table last. */
class work
{
public:
    /** @return false after a line that says what cannot be started */
    bool start(const gatewayd::settings &wanted)
    {
        return succeeds(points_.open() && points_.add_listener(log_change, nullptr),
                        "open the table of points") &&
               succeeds(mirror_.open(wanted.name), "make the shared heap") &&
               succeeds(gate_.open(), "count requests") &&
               succeeds(telemetry_.start(wanted.period_ms), "start the telemetry") &&
               succeeds(wanted.serial[0] == '\0' || serial_.start(wanted.serial, wanted.baud),
                        "read the serial port") &&
               succeeds(ipc_.open(wanted.name, wanted.max_conn), "serve IPC") &&
               succeeds(rpc_.open(wanted), "serve RPC");
    }

    /** Called once a second: that the table answers is what the watchdog is told. */
    void look_after()
    {
        TARN_LOG_DEBUG("%zu points, %" PRIu64 " changes", points_.count(), points_.changes());
        tarn_wdt_kick();
    }

    /** Refuses new work and finishes what has been begun. */
    void finish()
    {
        gate_.close();
    }

private:
    static bool succeeds(bool done, const char *what)
    {
        if (!done)
        {
            TARN_LOG_FATAL("fail to %s", what);
        }
        return done;
    }

    gatewayd::point_table points_;
    gatewayd::point_mirror mirror_{points_};
    gatewayd::work_gate gate_;
    gatewayd::telemetry telemetry_{points_};
    gatewayd::serial_source serial_{points_};
    gatewayd::ipc_service ipc_{points_, gate_};
    gatewayd::rpc_service rpc_{points_, gate_};
};

/** The main thread's part, once all work runs in threads: to wait for the end, and to look after
 *  things once a second. */
int run(const gatewayd::settings &settings)
{
    work everything;
    if (!everything.start(settings))
    {
        return EXIT_FAILURE;
    }
    const bool watched = tarn_wdt_set_timeout(watchdog_s);
    // From the first exit wait on, SIGTERM, SIGINT and SIGQUIT ask for an orderly end; before it
    // they kill. So nobody who has seen this line has to fear that.
    bool ends = tarn_process_wait_exit(0);
    TARN_LOG_INFO("running");
    while (!ends)
    {
        everything.look_after();
        ends = tarn_process_wait_exit(1000);
    }
    TARN_LOG_INFO("ending");
    everything.finish();
    if (watched)
    {
        (void)tarn_wdt_set_timeout(0);
    }
    return EXIT_SUCCESS;
}

} // namespace

int main(int argc, char **argv)
{
    // Each line goes out when it is written, into a pipe as well.
    (void)std::setvbuf(stdout, nullptr, _IOLBF, BUFSIZ);

    static gatewayd::settings settings;
    if (const auto status = gatewayd::enter_process(argc, argv, &settings); status)
    {
        return *status;
    }
    if (!tarn_init())
    {
        return EXIT_FAILURE;
    }
    TARN_LOG_INFO("%s: telemetry every %u ms", settings.name, settings.period_ms);
    const int status = run(settings);
    TARN_LOG_INFO("%s: ended with status %d", settings.name, status);
    tarn_uninit();
    return status;
}
