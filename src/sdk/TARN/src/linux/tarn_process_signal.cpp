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
// still hold its number. A forked child inherits it, but no relay: until the child starts its own,
// with a pipe of its own, signals take their default action there.

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
#include <utility>

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
constinit std::atomic<int> relay_pid{0};  ///< whose pipe it is; written behind its ends

// Main thread only, or the thread of a forked child that starts the relay there.
int relay_out = -1; ///< read end
pthread_t relay_thread{};
constinit std::atomic<bool> relay_runs{false}; ///< in the process that owns the pipe

constexpr unsigned orderly_signals = 3;
constexpr int relay_patience_ms = 100;

constexpr char line_signal[] = "sig = %d, use_default_handler = %d, term_sig_count = %u";
constexpr char line_raise[] = "raise signal for default process";
constexpr char line_threads[] = "%d threads still running";

/** True when the relay's pipe belongs to this process, not to the parent of a fork. */
bool owns_relay_pipe()
{
    return relay_pid.load(std::memory_order_acquire) == ::getpid();
}

bool tell_relay(const relay_record &record)
{
    return owns_relay_pipe() && ::write(relay_in.load(std::memory_order_relaxed), &record,
                                        sizeof record) == sizeof record;
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
    if (use_default_handler.load(std::memory_order_relaxed) == 1 || !owns_relay_pipe())
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

void *relay_main(void *read_end)
{
    const auto out = static_cast<int>(reinterpret_cast<intptr_t>(read_end));
    relay_record record{};
    while (tarn::retry_eintr([&] { return ::read(out, &record, sizeof record); }) ==
               sizeof record &&
           relay(record))
    {
    }
    return nullptr;
}

/** Make the pipe, in a forked child a new one. The ends that a child inherited are closed: its
 *  handlers have not looked at them. */
bool open_relay_pipe()
{
    if (owns_relay_pipe())
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
    tarn::close_fd(std::exchange(relay_out, out.release()));
    tarn::close_fd(relay_ack.exchange(ack.release(), std::memory_order_relaxed));
    tarn::close_fd(relay_in.exchange(in.release(), std::memory_order_relaxed));
    relay_pid.store(::getpid(), std::memory_order_release);
    return true;
}

bool start_relay()
{
    if (relay_runs.load(std::memory_order_relaxed) && owns_relay_pipe())
    {
        return true;
    }
    relay_runs.store(false, std::memory_order_relaxed);
    if (!open_relay_pipe())
    {
        return false;
    }
    sigset_t all;
    sigset_t old;
    (void)sigfillset(&all);
    (void)pthread_sigmask(SIG_SETMASK, &all, &old);
    const bool runs =
        pthread_create(&relay_thread, nullptr, relay_main,
                       reinterpret_cast<void *>(static_cast<intptr_t>(relay_out))) == 0;
    (void)pthread_sigmask(SIG_SETMASK, &old, nullptr);
    relay_runs.store(runs, std::memory_order_relaxed);
    return runs;
}

/** Forget requests that came while no relay ran: a new exit event begins not set. */
void drop_stale_requests()
{
    if (relay_runs.load(std::memory_order_relaxed) || !owns_relay_pipe())
    {
        return;
    }
    relay_record record{};
    pollfd ready = {relay_out, POLLIN, 0};
    while (::poll(&ready, 1, 0) == 1 && ::read(relay_out, &record, sizeof record) > 0)
    {
    }
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
        drop_stale_requests();
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
    if (relay_runs.load(std::memory_order_relaxed) && owns_relay_pipe())
    {
        // The pipe may be full of requests; the relay is emptying it.
        while (!tell_relay({relay_record::quit, 0, 0, 0}) && errno == EAGAIN)
        {
            pollfd room = {relay_in.load(), POLLOUT, 0};
            (void)::poll(&room, 1, -1);
        }
        (void)pthread_join(relay_thread, nullptr);
    }
    relay_runs.store(false, std::memory_order_relaxed);
    tarn_event_destroy(exchange_exit_event(nullptr));
}

void restart_signal_relay()
{
    // Of several threads that wait for the exit event one starts it.
    static constinit std::atomic<int> started_in{0};
    if (relay_runs.load(std::memory_order_relaxed) && !owns_relay_pipe() &&
        started_in.exchange(::getpid()) != ::getpid())
    {
        (void)start_relay();
    }
}

void use_default_signal_action(bool yes)
{
    use_default_handler.store(yes ? 1 : 0, std::memory_order_relaxed);
}

} // namespace tarn
