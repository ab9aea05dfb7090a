// tarnctl serial: serial ports of this machine, and what comes in on one.

#include "directory.h"
#include "output.h"
#include "owner.h"
#include "value.h"

#include "tarn_event.h"
#include "tarn_process.h"
#include "tarn_serial.h"
#include "tarn_sys.h"
#include "tarn_thread.h"

#include <algorithm>
#include <atomic>
#include <cctype>

namespace tarnctl
{
namespace
{

// ---- list ---------------------------------------------------------------------------------------

struct port
{
    std::string device;
    std::string driver;
    std::string id; ///< of a USB adapter
    int user = 0;   ///< process that has it open through the layer; 0: none
};

constexpr char tty_dir[] = "/sys/class/tty/";

/** Hardware stands behind the name: many names are kept for ports that are not there. */
bool is_there(const std::string &name)
{
    const std::string dir = tty_dir + name;
    if (link_target(dir + "/device").empty())
    {
        return false;
    }
    uint64_t type = 1;
    if (FILE *const file = std::fopen((dir + "/type").c_str(), "re"))
    {
        char text[16] = "";
        const char *const line = std::fgets(text, sizeof text, file);
        (void)std::fclose(file);
        type = line != nullptr && text[0] == '0' ? 0 : 1; // 0: unknown to the driver
    }
    return type != 0;
}

std::string adapter_id(const std::string &name)
{
    const std::string dir = "/dev/serial/by-id";
    for (const std::string &id : names_in(dir))
    {
        if (base_name(link_target(dir + "/" + id)) == name)
        {
            return id;
        }
    }
    return "";
}

std::vector<port> all_ports()
{
    std::vector<port> all;
    for (const std::string &name : names_in(tty_dir))
    {
        if (is_there(name))
        {
            all.push_back({"/dev/" + name,
                           base_name(link_target(tty_dir + name + "/device/driver")),
                           adapter_id(name), lock_holder("/tmp/tarn_serial_dev_" + name)});
        }
    }
    return all;
}

void print_ports_json(const std::vector<port> &all)
{
    json line;
    line.begin_array();
    for (const port &each : all)
    {
        line.begin_object().key("device").text(each.device).key("driver").text(each.driver);
        line.key("id").text(each.id).key("user");
        (each.user != 0 ? line.number(each.user) : line.null()).end_object();
    }
    line.end_array().print();
}

int list(const arguments &given)
{
    const std::vector<port> all = all_ports();
    if (given.has("json"))
    {
        print_ports_json(all);
        return status_ok;
    }
    table rows({"DEVICE", "DRIVER", ">USER", "ID"});
    for (const port &each : all)
    {
        rows.add({each.device, each.driver, each.user != 0 ? std::to_string(each.user) : "-",
                  each.id.empty() ? "-" : escaped(each.id)});
    }
    rows.print();
    return status_ok;
}

// ---- monitor ------------------------------------------------------------------------------------

struct settings
{
    uint64_t baud = 115200;
    int32_t bits = 8;
    int32_t parity = TARN_SERIAL_PARITY_NONE;
    int32_t stop = 1;
};

/** BAUD, or BAUD and a form as in 9600,7E2. */
bool read_settings(std::string_view text, settings *into)
{
    constexpr std::string_view parities = "NOEMS"; // in the order of TARN_SERIAL_PARITY_*
    const size_t comma = text.find(',');
    if (!read_unsigned(text.substr(0, comma), &into->baud) || into->baud < 1 ||
        into->baud > UINT32_MAX)
    {
        return false;
    }
    if (comma == std::string_view::npos)
    {
        return true;
    }
    const std::string_view form = text.substr(comma + 1);
    if (form.size() != 3 || form[0] < '5' || form[0] > '8' || (form[2] != '1' && form[2] != '2'))
    {
        return false;
    }
    const size_t parity =
        parities.find(static_cast<char>(std::toupper(static_cast<unsigned char>(form[1]))));
    into->bits = form[0] - '0';
    into->parity = static_cast<int32_t>(parity);
    into->stop = form[2] - '0';
    return parity != std::string_view::npos;
}

/** "14:03:07.042". */
std::string time_text()
{
    tarn_time now = {};
    (void)tarn_time_get(&now);
    char text[32] = "";
    (void)tarn_time_format(&now, true, "%H:%M:%S", text, sizeof text);
    char whole[48];
    (void)std::snprintf(whole, sizeof whole, "%s.%03u", text, now.microseconds / 1000);
    return whole;
}

/** Prints what comes: text by lines, hex by rows of 16 bytes. */
class printer
{
public:
    printer(const arguments &given, uint32_t lines)
        : is_hex_(given.has("hex")), is_json_(given.has("json")), has_time_(given.has("time")),
          left_(lines)
    {
    }
    /** @return false when as many lines as were asked for are out */
    bool take(std::string_view bytes)
    {
        for (const char byte : bytes)
        {
            if (row_.empty())
            {
                time_ = time_text();
            }
            const bool ends = is_hex_ ? row_.size() == row_size - 1 : byte == '\n';
            if (is_hex_ || (byte != '\n' && byte != '\r'))
            {
                row_.push_back(byte);
            }
            if ((ends || row_.size() >= longest_line) && !end_row())
            {
                return false;
            }
        }
        return true;
    }
    /** Nothing more is there just now: a row of bytes goes out, a line of text waits for its end.
     *  @return as take() */
    bool pause()
    {
        return !is_hex_ || finish();
    }
    /** Nothing more will come. @return as take() */
    bool finish()
    {
        return row_.empty() || end_row();
    }

private:
    static constexpr size_t row_size = 16;
    static constexpr size_t longest_line = 4096;

    bool end_row()
    {
        is_json_ ? print_json() : print_row();
        row_.clear();
        return flush_output() && (left_ == 0 || --left_ != 0);
    }
    void print_json() const
    {
        json line;
        line.begin_object().key("time").text(time_);
        if (is_hex_ || !is_utf8(row_))
        {
            line.key("hex").text(hex(row_));
        }
        else
        {
            line.key("text").text(row_);
        }
        line.end_object().print();
    }
    void print_row() const
    {
        std::string line = has_time_ ? time_ + "  " : "";
        if (!is_hex_)
        {
            (void)std::fprintf(out(), "%s%s\n", line.c_str(), escaped(row_).c_str());
            return;
        }
        for (size_t i = 0; i < row_size; ++i)
        {
            line += i < row_.size() ? hex({&row_[i], 1}) + " " : "   ";
        }
        std::string seen = row_;
        std::replace_if(
            seen.begin(), seen.end(), [](char c) { return c < ' ' || c > '~'; }, '.');
        (void)std::fprintf(out(), "%s |%s|\n", line.c_str(), seen.c_str());
    }

    bool is_hex_;
    bool is_json_;
    bool has_time_;
    uint32_t left_; ///< 0: without end
    std::string row_;
    std::string time_;
};

using serial_owner = owner<TARN_SERIAL, tarn_serial_close>;
using thread_owner = owner<TARN_THREAD, tarn_thread_stop>;

/** The reader's part: a loop thread, because a stop request ends its waits. */
struct reader
{
    TARN_SERIAL port;
    printer print;
    std::atomic<bool> is_gone{false}; ///< the device

    static void *turn(void *arg, void *)
    {
        if (!static_cast<reader *>(arg)->read_what_came())
        {
            (void)tarn_event_set(__tarn_process_exit_event__);
            (void)tarn_thread_sleep(TARN_INFINITE); // until it is stopped
        }
        return nullptr;
    }
    /** @return false at the end */
    bool read_what_came()
    {
        uint32_t events = 0;
        if (tarn_serial_wait_comm_event(port, &events) != 1)
        {
            return true; // a stop request, or a signal
        }
        char bytes[30]; // as much as a read gives
        uint32_t count = 0;
        for (int rc = 0; (rc = tarn_serial_read(port, bytes, sizeof bytes, &count)) >= 0;)
        {
            if (count == 0)
            {
                is_gone = rc == 1; // ready, but without a byte: it has hung up
                return print.pause() && !is_gone;
            }
            if (!print.take({bytes, count}))
            {
                return false;
            }
        }
        is_gone = true;
        return false;
    }
};

int monitor(const arguments &given)
{
    settings wanted;
    uint32_t lines = 0;
    uint32_t seconds = 0;
    const char *const form = given.operand_or_null(1);
    if (form != nullptr && !read_settings(form, &wanted))
    {
        return given.wrong_operand(1, form);
    }
    if (!given.number("lines", 1, UINT32_MAX, &lines) || !given.number("for", 1, 4000000, &seconds))
    {
        return status_usage;
    }
    const char *const device = given.operands()[0];
    const serial_owner opened(tarn_serial_open(device, static_cast<uint32_t>(wanted.baud),
                                               wanted.bits, wanted.stop, wanted.parity));
    if (!opened || !tarn_serial_set_comm_mask(opened.get(), TARN_SERIAL_EVENT_READ))
    {
        return failed("cannot open " + shown(device) +
                      ": check the name and the rights, that nobody else has it open, and that it "
                      "takes the settings; -v shows more");
    }
    (void)tarn_process_wait_exit(0); // from here on Ctrl-C ends orderly
    reader state = {opened.get(), printer(given, lines)};
    {
        const thread_owner thread(tarn_thread_start(reader::turn, &state, nullptr, 0, "monitor"));
        if (!thread)
        {
            return failed("cannot start a thread, the machine is short of something");
        }
        (void)tarn_process_wait_exit(seconds != 0 ? seconds * 1000 : TARN_INFINITE);
    }
    (void)state.print.finish();
    return state.is_gone ? failed(shown(device) + " is gone: plug it in again") : int{status_ok};
}

constexpr operand monitor_operands[] = {
    {"DEVICE", "the name of a serial device as in /dev/ttyUSB0"},
    {"SETTINGS", "BAUD or BAUD,FORM as in 9600,7E2 (bits 5 to 8, parity N O E M S, stop bits 1 2)",
     operand::maybe},
};
constexpr option list_options[] = {json_option};
constexpr option monitor_options[] = {
    {"hex", nullptr, nullptr, "rows of 16 bytes as hex digits, instead of text"},
    {"time", nullptr, nullptr, "the time of its first byte before each line"},
    {"lines", "N", "a whole number, 1 to 4294967295", "end after so many lines"},
    {"for", "SECONDS", "a whole number of seconds, 1 to 4000000", "end after that time"},
    json_option,
};

} // namespace

const command serial_list_command = {
    "serial", "list", "List the serial ports of this machine", nullptr, {}, list_options, list,
};

const command serial_monitor_command = {
    "serial",
    "monitor",
    "Print what comes in on a serial port, until Ctrl-C",
    "SETTINGS are 115200,8N1 without others. Nothing is sent.\n",
    monitor_operands,
    monitor_options,
    monitor,
};

} // namespace tarnctl
