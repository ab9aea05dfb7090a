// Termination signals and the exit event.
//
// A handler may interrupt any instruction of any thread: malloc, a log call, the exit event's own
// mutex. So it only counts, and writes one small record into a pipe. A relay thread, which has all
// signals blocked and is no loop thread, reads the records, logs, and sets the exit event.
//
// The two paths that end the process do not depend on the relay, because a process that hangs must
// still die: they write their lines themselves (daemon: they give the relay 100 ms to hand them to
// syslog), restore the default action and raise the signal, which takes effect when the handler
// returns.
//
// The pipe stays open for the life of the process once it is made: a handler on another thread may
// still hold its number.

#include "tarn_process.h"

#include "tarn_log_internal.h"
#include "tarn_os.h"
#include "tarn_process_internal.h"
#include "tarn_process_state.h"
#include "tarn_sys_internal.h"
#include "tarn_text.h"

#include <atomic>
#include <cerrno>
#include <csignal>

#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <sys/eventfd.h>
#include <unistd.h>

namespace
{

/** What a handler tells the relay. */
struct relay_record
{
    enum kind : int
    {
        request, ///< log; set the exit event
        raised,  ///< log that the signal takes its default action; acknowledge
        fourth,  ///< log, with the count of threads still running; acknowledge
        quit     ///< from stop_signals(): end the relay
    } what;
    int sig;
    int use_default_handler;
    unsigned term_sig_count;
};
static_assert(sizeof(relay_record) <= 512, "one write into the pipe is whole");

// Read and written by handlers: lock-free atomics only.
constinit std::atomic<int> use_default_handler{1};
constinit std::atomic<unsigned> term_sig_count{0};
constinit std::atomic<int> relay_in{-1};  ///< write end, not blocking
constinit std::atomic<int> relay_ack{-1}; ///< eventfd, not blocking
constinit std::atomic<int> relay_pid{0};  ///< whose relay it is: a forked child has none

// Main thread only.
int relay_out = -1; ///< read end
pthread_t relay_thread{};
bool relay_runs = false;

constexpr unsigned orderly_signals = 3;
constexpr int relay_patience_ms = 100;

constexpr char line_signal[] = "sig = %d, use_default_handler = %d, term_sig_count = %u";
constexpr char line_raise[] = "raise signal for default process";
constexpr char line_threads[] = "%d threads still running";

bool tell_relay(const relay_record &record)
{
    const int fd = relay_in.load(std::memory_order_relaxed);
    return fd >= 0 && ::getpid() == relay_pid.load() &&
           ::write(fd, &record, sizeof record) == sizeof record;
}

// ---- handler side: async-signal-safe only ------------------------------------------------------

#define TARN_HANDLER_POSITION                                                                      \
    {                                                                                              \
        TARN_FILE_NAME, __LINE__, "termination_signals_handler"                                    \
    }

/** The lines of a path that ends the process, written at once. */
void write_last_lines(const relay_record &record)
{
    char text[128];
    {
        tarn::text_writer out(text, sizeof text);
        out.append("sig = ").append_int(record.sig).append(", use_default_handler = ");
        out.append_int(record.use_default_handler).append(", term_sig_count = ");
        out.append_int(record.term_sig_count);
        tarn::log_write_from_handler(TARN_LOG_LEVEL_TRACE, TARN_HANDLER_POSITION, out.c_str());
    }
    if (record.what == relay_record::raised)
    {
        tarn::log_write_from_handler(TARN_LOG_LEVEL_TRACE, TARN_HANDLER_POSITION, line_raise);
        return;
    }
    tarn::text_writer out(text, sizeof text);
    out.append_int(tarn::process.thread_count.load(std::memory_order_relaxed));
    out.append(" threads still running");
    tarn::log_write_from_handler(TARN_LOG_LEVEL_WARN, TARN_HANDLER_POSITION, out.c_str());
}

/** Give the relay a moment to hand the last lines to syslog. */
void relay_last_lines(const relay_record &record)
{
    if (tell_relay(record))
    {
        pollfd done = {relay_ack.load(std::memory_order_relaxed), POLLIN, 0};
        (void)::poll(&done, 1, relay_patience_ms);
    }
}

/** End the process by the default action of the signal, which is blocked while its handler runs.
 *  The first process of a container is immune to default actions; it exits as a shell would say
 *  that it was killed. */
[[noreturn]] void end_by_default_action(const relay_record &record)
{
    if (tarn::process.is_daemon.load(std::memory_order_relaxed))
    {
        relay_last_lines(record);
    }
    else
    {
        write_last_lines(record);
    }
    struct sigaction action
    {
    };
    action.sa_handler = SIG_DFL;
    (void)sigaction(record.sig, &action, nullptr);
    (void)raise(record.sig);
    sigset_t raised;
    (void)sigemptyset(&raised);
    (void)sigaddset(&raised, record.sig);
    (void)pthread_sigmask(SIG_UNBLOCK, &raised, nullptr);
    ::_exit(128 + record.sig);
}

} // namespace

extern "C" void termination_signals_handler(int sig)
{
    const tarn::errno_keeper keep_errno;
    // A forked child shares the pipe, but must not speak to its parent's relay.
    if (use_default_handler.load(std::memory_order_relaxed) == 1 || ::getpid() != relay_pid.load())
    {
        end_by_default_action({relay_record::raised, sig, 1, term_sig_count.load()});
    }
    // The line shows the count before this signal.
    const unsigned before = term_sig_count.fetch_add(1, std::memory_order_relaxed);
    if (before + 1 > orderly_signals)
    {
        end_by_default_action({relay_record::fourth, sig, 0, before});
    }
    (void)tell_relay({relay_record::request, sig, 0, before});
}

extern "C" void serial_traffic_signals_handler(int sig)
{
    tarn::process.log_serial_traffic.store(sig == SIGUSR1, std::memory_order_relaxed);
}

namespace
{

// ---- relay side ----------------------------------------------------------------------------------

/** Handle one record.
 *  @return false at the end of the relay */
bool relay(const relay_record &record)
{
    if (record.what == relay_record::quit)
    {
        return false;
    }
    TARN_LOG_TRACE(line_signal, record.sig, record.use_default_handler, record.term_sig_count);
    switch (record.what)
    {
    case relay_record::request:
        (void)tarn_event_set(tarn::exit_event());
        return true;
    case relay_record::raised:
        TARN_LOG_TRACE("%s", line_raise);
        break;
    case relay_record::fourth:
        TARN_LOG_WARN(line_threads,
                      static_cast<int>(tarn::process.thread_count.load(std::memory_order_relaxed)));
        break;
    case relay_record::quit:
        break;
    }
    constexpr uint64_t one = 1;
    [[maybe_unused]] const ssize_t n = ::write(relay_ack.load(), &one, sizeof one);
    return true;
}

void *relay_main(void *)
{
    relay_record record{};
    while (tarn::retry_eintr([&] { return ::read(relay_out, &record, sizeof record); }) ==
               sizeof record &&
           relay(record))
    {
    }
    return nullptr;
}

bool open_relay_pipe()
{
    if (relay_out >= 0)
    {
        return true;
    }
    int ends[2];
    if (::pipe2(ends, O_CLOEXEC) != 0)
    {
        return false;
    }
    tarn::unique_fd out(ends[0]);
    tarn::unique_fd in(ends[1]);
    tarn::unique_fd ack(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
    if (!ack || ::fcntl(in.get(), F_SETFL, O_NONBLOCK) != 0)
    {
        return false;
    }
    relay_out = out.release();
    relay_ack.store(ack.release(), std::memory_order_relaxed);
    relay_in.store(in.release(), std::memory_order_relaxed);
    return true;
}

bool start_relay()
{
    if (relay_runs)
    {
        return true;
    }
    if (!open_relay_pipe())
    {
        return false;
    }
    relay_pid.store(::getpid());
    sigset_t all;
    sigset_t old;
    (void)sigfillset(&all);
    (void)pthread_sigmask(SIG_SETMASK, &all, &old);
    relay_runs = pthread_create(&relay_thread, nullptr, relay_main, nullptr) == 0;
    (void)pthread_sigmask(SIG_SETMASK, &old, nullptr);
    return relay_runs;
}

bool handle_signal(int sig, void (*handler)(int))
{
    struct sigaction action
    {
    };
    action.sa_handler = handler;
    (void)sigemptyset(&action.sa_mask);
    return sigaction(sig, &action, nullptr) == 0;
}

} // namespace

namespace tarn
{

bool start_signals()
{
    char stamp[time_stamp_length];
    (void)time_stamp_local(stamp); // so that handlers know the distance to UTC
    RVOF(handle_signal(SIGTERM, termination_signals_handler), false);
    RVOF(handle_signal(SIGINT, termination_signals_handler), false);
    RVOF(handle_signal(SIGQUIT, termination_signals_handler), false);
    RVOF(handle_signal(SIGPIPE, SIG_IGN), false);
    RVOF(handle_signal(SIGUSR1, serial_traffic_signals_handler), false);
    RVOF(handle_signal(SIGUSR2, serial_traffic_signals_handler), false);
    if (exit_event() == nullptr)
    {
        (void)exchange_exit_event(tarn_event_create(true, false));
    }
    // clang-format off
    RVOF(__tarn_process_exit_event__ != ((void*)0), false);
    // clang-format on
    RVOF(start_relay(), false);
    return true;
}

void stop_signals()
{
    if (relay_runs && relay_pid.load() == ::getpid())
    {
        // The pipe may be full of requests; the relay is emptying it.
        while (!tell_relay({relay_record::quit, 0, 0, 0}) && errno == EAGAIN)
        {
            pollfd room = {relay_in.load(), POLLOUT, 0};
            (void)::poll(&room, 1, -1);
        }
        (void)pthread_join(relay_thread, nullptr);
        relay_runs = false;
    }
    tarn_event_destroy(exchange_exit_event(nullptr));
}

void restart_signal_relay()
{
    if (relay_runs)
    {
        relay_runs = false;
        (void)start_relay();
    }
}

void use_default_signal_action(bool yes)
{
    use_default_handler.store(yes ? 1 : 0, std::memory_order_relaxed);
}

} // namespace tarn
