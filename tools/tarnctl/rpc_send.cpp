// tarnctl rpc send: a file to a server, with its progress.
//
// When the connection breaks, the same file is sent to the same place again as soon as the server can
// be reached: the receiver says where it stopped, and the transfer goes on from there.

#include "rpc.h"

#include "output.h"

#include "tarn_dir.h"
#include "tarn_event.h"
#include "tarn_rpc_file.h"
#include "tarn_sys.h"

#include <algorithm>
#include <atomic>
#include <cerrno>

#include <sys/stat.h>

namespace tarnctl
{
namespace
{

using event_owner = owner<TARN_EVENT, tarn_event_destroy>;
using transfer_owner = owner<TARN_RPC_FILE_SEND, tarn_rpc_file_send_destroy>;

constexpr uint32_t redraw_ms = 100;

/** What the sender's thread tells. */
struct progress
{
    event_owner changed{tarn_event_create(false, false)};
    std::atomic<uint32_t> percent{0};
    std::atomic<bool> has_reached_end{false};
    std::atomic<const char *> error{nullptr};
    std::atomic<bool> done{false};

    static void report(TARN_RPC_FILE_SEND, uint32_t percent, const char *error, void *context)
    {
        auto *const self = static_cast<progress *>(context);
        self->percent = percent;
        if (error != nullptr)
        {
            self->error = error;
            self->done = true;
        }
        else if (percent == 100 && self->has_reached_end.exchange(true))
        {
            self->done = true; // the second time: the receiver has the file, and it is whole
        }
        (void)tarn_event_set(self->changed.get());
    }
};

/** Shows how far the file is: as a bar on a terminal, as lines elsewhere. */
class progress_view
{
public:
    progress_view(uint64_t size, bool is_quiet)
        : size_(size), is_quiet_(is_quiet), is_terminal_(output_is_terminal())
    {
    }
    void show(uint32_t percent)
    {
        if (!has_begun_)
        {
            // what the receiver had before the first block does not count for the rate
            has_begun_ = true;
            first_percent_ = percent - std::min(percent, block_percent());
        }
        if (is_quiet_)
        {
            return;
        }
        if (is_terminal_)
        {
            draw_bar(percent);
        }
        else if (percent / 10 != last_percent_ / 10)
        {
            (void)std::fprintf(out(), "%3u%%  %s of %s  %s/s\n", percent, so_far(percent).c_str(),
                               size_text(static_cast<double>(size_)).c_str(),
                               size_text(rate(percent)).c_str());
            (void)flush_output();
        }
        last_percent_ = percent;
    }
    /** Leaves the line of the bar. */
    void end_line() const
    {
        if (is_terminal_ && !is_quiet_ && has_begun_)
        {
            (void)std::fputc('\n', out());
        }
    }
    /** The connection broke: the time until it stands again does not count. */
    void begin_again()
    {
        end_line();
        has_begun_ = false;
    }
    /** The connection stands. */
    void start()
    {
        start_ = tarn_tick_ms();
    }
    [[nodiscard]] double rate(uint32_t percent) const
    {
        const uint32_t ms = std::max<uint32_t>(tarn_tick_ms_since(start_), 1);
        const uint32_t sent = percent > first_percent_ ? percent - first_percent_ : 0;
        return static_cast<double>(size_) * sent / 100 * 1000 / ms;
    }

private:
    /** What one block comes to. */
    [[nodiscard]] uint32_t block_percent() const
    {
        constexpr uint64_t block = 256 * 1024; // as receivers of the layer ask for
        return static_cast<uint32_t>(std::min<uint64_t>(block * 100 / size_ + 1, 100));
    }
    [[nodiscard]] std::string so_far(uint32_t percent) const
    {
        return size_text(static_cast<double>(size_) * percent / 100);
    }
    void draw_bar(uint32_t percent) const
    {
        constexpr size_t width = 30;
        const size_t full = width * percent / 100;
        const std::string bar = std::string(full, '#') + std::string(width - full, '-');
        (void)std::fprintf(out(), "\r[%s] %3u%%  %s of %s  %s/s \x1b[K", bar.c_str(), percent,
                           so_far(percent).c_str(), size_text(static_cast<double>(size_)).c_str(),
                           size_text(rate(percent)).c_str());
        (void)flush_output();
    }

    uint64_t size_;
    bool is_quiet_;
    bool is_terminal_;
    bool has_begun_ = false;
    uint32_t first_percent_ = 0;
    uint32_t last_percent_ = 0;
    uint32_t start_ = tarn_tick_ms();
};

/** What is to be sent. */
struct job
{
    std::string path;
    std::string dest;
    uint64_t size = 0;
    uint32_t retry_s = 60;
};

enum class outcome
{
    sent,
    broken, ///< the connection is gone
    refused
};

outcome send_once(TARN_RPC rpc, const job &wanted, uint32_t timeout_ms, progress_view &view,
                  std::string *reason)
{
    progress state;
    view.start();
    {
        const transfer_owner transfer(tarn_rpc_file_send_begin(rpc, wanted.path.c_str(),
                                                               wanted.dest.c_str(), 0, timeout_ms,
                                                               progress::report, &state));
        if (!transfer)
        {
            *reason = "the file cannot be read";
            return outcome::refused;
        }
        while (!state.done)
        {
            if (tarn_event_wait(state.changed.get(), redraw_ms) && state.percent != 0)
            {
                view.show(state.percent);
            }
        }
    }
    if (state.error == nullptr)
    {
        return outcome::sent;
    }
    *reason = state.error.load();
    // the sender itself reads the answers, so a break has been noticed by now
    return tarn_rpc_is_connected(rpc) ? outcome::refused : outcome::broken;
}

/** Waits until the connection stands again. @return false when the time has passed */
bool reconnect(TARN_RPC rpc, uint32_t seconds)
{
    const uint32_t start = tarn_tick_ms();
    while (!tarn_rpc_is_connected(rpc))
    {
        if (tarn_tick_ms_since(start) >= seconds * 1000)
        {
            return false;
        }
        (void)tarn_rpc_loop(rpc); // one attempt, a second after the last one
    }
    return true;
}

/** Sends the file, however often the connection breaks. @return a status */
int send_to_end(const rpc_target &target, TARN_RPC rpc, const job &wanted, progress_view &view)
{
    // the last answer comes when the receiver has read the whole file, from a slow disk perhaps
    constexpr uint64_t slow_bytes_per_ms = 20000;
    const auto timeout_ms =
        static_cast<uint32_t>(target.timeout_ms + wanted.size / slow_bytes_per_ms);
    for (;;)
    {
        std::string reason;
        switch (send_once(rpc, wanted, timeout_ms, view, &reason))
        {
        case outcome::sent:
            view.show(100);
            view.end_line();
            return status_ok;
        case outcome::refused:
            view.end_line();
            return failed("the server refuses " + shown(wanted.dest) + " (" + reason +
                          "): check that it takes files, and the name");
        case outcome::broken:
            view.begin_again();
            note("the connection to " + target.shown + " broke, trying for " +
                 std::to_string(wanted.retry_s) + " s to go on");
            if (!reconnect(rpc, wanted.retry_s))
            {
                return failed("cannot reach " + target.shown +
                              " any more: run the same command again to go on where it stopped");
            }
        }
    }
}

void print_result(const arguments &given, const job &wanted, uint32_t ms)
{
    const double seconds = std::max<uint32_t>(ms, 1) / 1000.0;
    const double rate = static_cast<double>(wanted.size) / seconds;
    if (given.has("json"))
    {
        json line;
        line.begin_object().key("file").text(wanted.path).key("dest").text(wanted.dest);
        line.key("bytes").number(wanted.size).key("seconds").number(seconds);
        line.key("bytes_per_second").number(rate).end_object().print();
        return;
    }
    (void)std::fprintf(out(), "%s sent as %s: %s in %.1f s, %s/s\n", shown(wanted.path).c_str(),
                       shown(wanted.dest).c_str(),
                       size_text(static_cast<double>(wanted.size)).c_str(), seconds,
                       size_text(rate).c_str());
}

/** @return status_ok, or another after a message */
int look_at_file(job *wanted)
{
    struct stat status = {};
    if (::stat(wanted->path.c_str(), &status) != 0)
    {
        return failed("cannot read " + shown(wanted->path) + ": " + error_text(errno) +
                      ", check its name");
    }
    if (!S_ISREG(status.st_mode) || status.st_size <= 0 || status.st_size > UINT32_MAX)
    {
        return failed(shown(wanted->path) +
                      " cannot be sent: choose a regular file of 1 byte to 4 GiB less one byte");
    }
    wanted->size = static_cast<uint64_t>(status.st_size);
    return status_ok;
}

int send(const arguments &given)
{
    job wanted;
    wanted.path = given.operands()[0];
    const char *const dest = given.operand_or_null(2);
    wanted.dest = dest != nullptr ? dest : wanted.path.substr(wanted.path.rfind('/') + 1);
    if (wanted.dest.empty())
    {
        return dest != nullptr ? given.wrong_operand(2, dest) : given.wrong_operand(0, wanted.path);
    }
    if (!given.number("retry", 0, 86400, &wanted.retry_s))
    {
        return status_usage;
    }
    rpc_target target;
    if (const int result = read_target(given, 1, &target); result != status_ok)
    {
        return result;
    }
    if (const int result = look_at_file(&wanted); result != status_ok)
    {
        return result;
    }
    const rpc_owner rpc = connect_to(target);
    if (!rpc)
    {
        return status_failed;
    }
    const uint32_t start = tarn_tick_ms();
    progress_view view(wanted.size, given.has("json"));
    const int result = send_to_end(target, rpc.get(), wanted, view);
    if (result == status_ok)
    {
        print_result(given, wanted, tarn_tick_ms_since(start));
    }
    return result;
}

constexpr operand operands[] = {
    {"FILE", "the name of a file"},
    {target_name, target_takes},
    {"DEST", "a name for the receiver, default is that of the file without its directory",
     operand::maybe},
};
constexpr option options[] = {
    {"retry", "SECONDS", "a whole number of seconds, 0 to 86400",
     "how long to try to connect again after a break, default is 60"},
    json_option,
    tls_dir_option,
    timeout_option,
};

} // namespace

const command rpc_send_command = {
    "rpc",
    "send",
    "Send a file to an RPC server, and go on where it stopped when the connection breaks",
    "The receiver decides where the file lands, and whether it takes it at all.\n",
    operands,
    options,
    send,
};

} // namespace tarnctl
