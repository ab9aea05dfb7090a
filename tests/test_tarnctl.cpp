// tarnctl, driven as its user drives it: usage and help of all subcommands, and those that need no
// peer: level files, shared memory, serial ports, network interfaces.

#include "tarnctl_support.h"

#include "../examples/gatewayd/point_heap.h"
#include "tarn_shm.h"
#include "tarn_shmx.h"

#include <csignal>
#include <filesystem>

#include <net/if.h>
#include <unistd.h>

using namespace tarnctl_test;

namespace
{

const std::vector<std::vector<std::string>> all_subcommands = {
    {"rpc", "call"},    {"rpc", "ping"}, {"rpc", "send"},    {"ipc", "call"},       {"log-level"},
    {"shm", "list"},    {"shm", "info"}, {"serial", "list"}, {"serial", "monitor"}, {"net", "list"},
    {"net", "gateway"}, {"tls", "init"}, {"tls", "show"},    {"points", "watch"},
};

std::vector<std::string> operator+(std::vector<std::string> words,
                                   const std::vector<std::string> &more)
{
    words.insert(words.end(), more.begin(), more.end());
    return words;
}

std::string joined(const std::vector<std::string> &words)
{
    std::string text;
    for (const std::string &word : words)
    {
        text += (text.empty() ? "" : " ") + word;
    }
    return text;
}

struct wrong_usage
{
    std::vector<std::string> arguments;
    std::vector<std::string> texts;
};

void expect_wrong(const std::vector<wrong_usage> &rows)
{
    for (const auto &[arguments, texts] : rows)
    {
        (void)expect_error(2, arguments, texts);
    }
}

} // namespace

// ---- usage ----------------------------------------------------------------------------------------

TEST(Tarnctl, HelpOfEverySubcommandNamesItsOptionsAndSucceeds)
{
    const std::string overview = expect_ok({"--help"});
    for (const auto &words : all_subcommands)
    {
        const std::string help = expect_ok(words + std::vector<std::string>{"--help"});
        EXPECT_TRUE(help.starts_with("Usage: tarnctl " + joined(words))) << help;
        EXPECT_TRUE(has(help, "--help")) << help;
        EXPECT_TRUE(has(overview, joined(words))) << overview;
    }
    EXPECT_TRUE(has(expect_ok({"rpc", "--help"}), "rpc ping"));
    EXPECT_EQ(expect_ok({"--version"}), "tarnctl " TARN_VERSION_STRING "\n");
}

TEST(Tarnctl, WrongSubcommandsAndOptionsAreNamed)
{
    expect_wrong({
        {{}, {"subcommand is missing", "rpc"}},
        {{"rcp"}, {"'rcp'", "rpc, ipc"}},
        {{"rpc"}, {"tarnctl rpc", "call, ping, send"}},
        {{"rpc", "\x1b[2J"}, {"'\\x1b[2J'"}},
        {{"net", "list", "x"}, {"'x'"}},
        {{"log-level"}, {"NAME", "takes the name of a daemon"}},
    });
    for (const auto &words : all_subcommands)
    {
        (void)expect_error(2, words + std::vector<std::string>{"--bogus"},
                           {"tarnctl " + joined(words), "'--bogus'", "--help"});
        (void)expect_error(2, words + std::vector<std::string>{"-x"}, {"'-x'"});
    }
}

TEST(Tarnctl, WrongValuesAreNamedWithWhatIsTaken)
{
    const std::string target = "takes an address and a port";
    const std::string count = "takes a whole number, 1 to 1000000000";
    expect_wrong({
        {{"rpc", "call", "127.0.0.1", "1000"}, {"'127.0.0.1'", target}},
        {{"rpc", "call", "127.0.0.1:0", "1000"}, {"'127.0.0.1:0'", target}},
        {{"rpc", "call", "127.0.0.1:65536", "1000"}, {target}},
        {{"rpc", "call", "a,b:80", "1000"}, {target}},
        {{"rpc", "call", "local:", "1000"}, {target}},
        {{"rpc", "call", "local:x"}, {"ID is missing", "1000 to"}},
        {{"rpc", "call", "local:x", "999"}, {"ID '999'", "a message id, 1000 to 2147483647"}},
        {{"rpc", "call", "local:x", "1000", "--timeout=0"}, {"--timeout=0", "1 to 3600000"}},
        {{"rpc", "call", "local:x", "1000", "--tls-dir"}, {"--tls-dir", "tarnctl tls init"}},
        {{"rpc", "call", "local:x", "1000", "--tls-dir", "--json"}, {"--tls-dir takes"}},
        {{"rpc", "call", "local:x", "1000", "--tls-dir=x"}, {"--tls-dir", "ADDR:PORT only"}},
        {{"rpc", "call", "local:x", "1000", "--json=1"}, {"--json takes no value"}},
        {{"rpc", "call", "local:x", "1000", "x"}, {"ELEM 'x'", "ID:TYPE=VALUE"}},
        {{"rpc", "call", "local:x", "1000", "0:int8=1"}, {"ELEM '0:int8=1'"}},
        {{"rpc", "call", "local:x", "1000", "1:int9=1"}, {"'1:int9=1'", "bytes16, string, hex"}},
        {{"rpc", "call", "local:x", "1000", "1:int8=128"}, {"int8 takes", "-128 to 127"}},
        {{"rpc", "call", "local:x", "1000", "1:uint64=18446744073709551616"}, {"0 to 184467"}},
        {{"rpc", "call", "local:x", "1000", "1:bool=yes"}, {"bool takes true or false"}},
        {{"rpc", "call", "local:x", "1000", "1:double=1x"}, {"double takes a number"}},
        {{"rpc", "call", "local:x", "1000", "1:bytes16=00"}, {"bytes16 takes 32 hex digits"}},
        {{"rpc", "call", "local:x", "1000", "1:hex=0"}, {"hex takes pairs"}},
        {{"rpc", "call", "local:x", "1000", "1:{", "2:int8=1"}, {"'}' is missing"}},
        {{"rpc", "call", "local:x", "1000", "1:{2:string=\"x}"}, {"closing '\"'"}},
        {{"rpc", "call", "local:x", "1000", "1:{", "]"}, {"']'", "none such"}},
        {{"rpc", "call", "local:x", "1000", "1:[2:int8=1 2:int16=1]"}, {"type of its first"}},
        {{"rpc", "ping"}, {"ADDR:PORT|local:NAME is missing"}},
        {{"rpc", "ping", "local:x", "--count=0"}, {"--count=0", count}},
        {{"rpc", "ping", "local:x", "--count", "9x"}, {"--count=9x", count}},
        {{"rpc", "ping", "local:x", "--interval=-1"}, {"--interval=-1", "milliseconds"}},
        {{"rpc", "send", "file"}, {"ADDR:PORT|local:NAME is missing"}},
        {{"rpc", "send", "dir/", "local:x"}, {"FILE 'dir/'", "name of a file"}},
        {{"rpc", "send", "file", "local:x", ""}, {"DEST ''", "for the receiver"}},
        {{"rpc", "send", "file", "local:x", "--retry=x"}, {"--retry=x", "seconds"}},
        {{"ipc", "call", "x"}, {"FUNC is missing"}},
        {{"ipc", "call", "x", "-1"}, {"'-1'"}},
        {{"ipc", "call", "x", "1x"}, {"FUNC '1x'", "0 to 4294967295"}},
        {{"ipc", "call", "x", "1", "5"}, {"VALUE '5'", "TYPE=VALUE", "uint64"}},
        {{"ipc", "call", "x", "1", "uint8=256"}, {"uint8 takes a whole number, 0 to 255"}},
        {{"ipc", "call", "x", "1", "pair=1"}, {"pair takes MAJOR,MINOR"}},
        {{"log-level", "a/b"}, {"NAME 'a/b'", "without '/'"}},
        {{"log-level", ".."}, {"NAME '..'"}},
        {{"log-level", "x", "LOUD"}, {"LEVEL 'LOUD'", "takes FATAL, ERROR"}},
        {{"shm", "info"}, {"NAME is missing"}},
        {{"shm", "info", "a/b"}, {"NAME 'a/b'", "107 characters"}},
        {{"serial", "monitor"}, {"DEVICE is missing"}},
        {{"serial", "monitor", "/dev/x", "fast"}, {"SETTINGS 'fast'", "BAUD,FORM"}},
        {{"serial", "monitor", "/dev/x", "9600,9N1"}, {"SETTINGS '9600,9N1'"}},
        {{"serial", "monitor", "/dev/x", "9600,8X1"}, {"SETTINGS '9600,8X1'"}},
        {{"serial", "monitor", "/dev/x", "--lines=0"}, {"--lines=0", "takes a whole number"}},
        {{"serial", "monitor", "/dev/x", "--for=no"}, {"--for=no", "seconds"}},
        {{"net", "gateway", "x/y"}, {"IF 'x/y'", "15 characters"}},
        {{"tls", "init"}, {"DIR is missing"}},
        {{"tls", "init", "d", "--cn", "\n"}, {"--cn=?", "ASCII"}},
        {{"tls", "init", "d", "--days=0"}, {"--days=0", "1 to 36500"}},
        {{"tls", "init", "d", "--bits=512"}, {"--bits=512", "2048 to 8192"}},
        {{"points", "watch"}, {"NAME is missing", "gatewayd"}},
        {{"points", "watch", "a/b"}, {"NAME 'a/b'", "107 characters"}},
        {{"points", "watch", "x", "--interval=1"}, {"--interval=1", "10 to 3600000"}},
        {{"points", "watch", "x", "--count=0"}, {"--count=0", "1 to 4294967295"}},
        {{"tls", "show"}, {"FILE is missing"}},
        {{"tls", "show", "x", "--secret="}, {"--secret", "a file with the secret"}},
    });
}

TEST(Tarnctl, FailuresSayWhatToDo)
{
    const support::temp_dir dir;
    const std::string port = std::to_string(support::free_port());
    const std::string nowhere = "127.0.0.1:" + port;
    const std::string nobody = support::unique_name("nobody");
    const std::vector<wrong_usage> rows = {
        {{"rpc", "call", nowhere, "1000"}, {nowhere, "check that the server runs"}},
        {{"rpc", "ping", "local:" + nobody}, {nobody, "check that the server runs"}},
        {{"rpc", "send", program, nowhere}, {nowhere, "check that the server runs"}},
        {{"rpc", "send", dir.file("none"), nowhere}, {"No such file", "check its name"}},
        {{"rpc", "send", dir.path(), nowhere}, {"choose a regular file"}},
        {{"ipc", "call", nobody, "1"}, {nobody, "check that a process serves that name"}},
        {{"log-level", nobody}, {nobody, "check the name"}},
        {{"log-level", nobody, "DEBUG"}, {nobody, "check the name"}},
        {{"shm", "info", nobody}, {nobody, "tarnctl shm list"}},
        {{"serial", "monitor", dir.file("none")}, {"check the name"}},
        {{"serial", "monitor", "/dev/null"}, {"/dev/null", "check the name"}},
        {{"net", "gateway", "nosuchif"}, {"nosuchif", "tarnctl net list"}},
        {{"net", "gateway", "lo"}, {"lo", "choose another"}},
        {{"points", "watch", nobody}, {nobody, "check that gatewayd runs"}},
        {{"tls", "show", dir.file("none")}, {"No such file", "check the name"}},
    };
    for (const auto &[arguments, texts] : rows)
    {
        (void)expect_error(1, arguments, texts);
    }
    // what the library says goes to standard error, when it is asked for
    const run_result verbose = run({"net", "gateway", "lo", "-vv"});
    EXPECT_EQ(verbose.out, "");
    EXPECT_TRUE(has(verbose.err, "[tarn")) << verbose.err;
}

// ---- level files ------------------------------------------------------------------------------------

TEST(Tarnctl, LevelFileIsReadAndWritten)
{
    const std::string name = support::unique_name("level");
    const std::string path = "/tmp/tarn_log_level/" + name;
    std::error_code error;
    std::filesystem::create_directory("/tmp/tarn_log_level", error);
    support::write_file(path, "INFO\n");
    EXPECT_EQ(expect_ok({"log-level", name}), "INFO\n");
    EXPECT_EQ(expect_ok({"log-level", name, "warn"}), "WARN\n");
    EXPECT_EQ(support::read_file(path), "WARN\n");
    EXPECT_EQ(expect_ok({"log-level", name, "DEBUG"}), "DEBUG\n");
    EXPECT_EQ(json_value(expect_ok({"log-level", name, "--json"}), "v['level'], v['name']"),
              "DEBUG " + name);
    // another's link is not followed
    const support::temp_dir dir;
    const std::string victim = dir.file("victim");
    support::write_file(victim, "content");
    std::filesystem::remove(path);
    std::filesystem::create_symlink(victim, path);
    (void)expect_error(1, {"log-level", name, "DEBUG"}, {"cannot write", "check who owns it"});
    EXPECT_EQ(support::read_file(victim), "content");
    std::filesystem::remove(path);
}

// ---- shared memory ----------------------------------------------------------------------------------

TEST(Tarnctl, SharedMemoryIsListedWithItsKindAndUsers)
{
    const support::layer layer;
    const std::string heap_name = support::unique_name("ctl_heap");
    const std::string plain_name = support::unique_name("ctl_shm");
    TARN_SHMX heap = tarn_shmx_create(heap_name.c_str(), 100000, 50, 3);
    TARN_SHMX visitor = tarn_shmx_open(heap_name.c_str());
    TARN_SHM plain = tarn_shm_create(plain_name.c_str(), 4321);
    tarn_shmx_blk_free(heap, tarn_shmx_blk_alloc(heap, 20));
    (void)tarn_shmx_blk_alloc(heap, 1000);
    const std::string pid = std::to_string(::getpid());

    const std::string list = expect_ok({"shm", "list"});
    EXPECT_TRUE(list.starts_with("NAME ")) << list;
    EXPECT_TRUE(has(list, heap_name)) << list;
    const std::string found = "[[o for o in v if o['name'] == '" + plain_name + "'][0]['size'], " +
                              "[o for o in v if o['name'] == '" + heap_name + "'][0]['users']]";
    EXPECT_EQ(json_value(expect_ok({"shm", "list", "--json"}), found), "[4321, 1]");

    const std::string info = expect_ok({"shm", "info", heap_name});
    for (const std::string &text :
         {std::string("heap"), std::string("100000 bytes"), std::string("50 bytes"),
          std::string("0 of 100 busy"), std::string("1 of 3"), pid + "  running"})
    {
        EXPECT_TRUE(has(info, text)) << info;
    }
    const std::string json = expect_ok({"shm", "info", heap_name, "--json"});
    EXPECT_EQ(json_value(json, "v['users'][0]['pid'], v['users'][0]['running'], v['slots'], "
                               "v['reclaim'], v['data_size'], v['free_blocks'][0]['count'], "
                               "v['creator']"),
              pid + " True 100 52 100000 1 " + pid);
    EXPECT_EQ(json_value(json, "v['used'] + v['unused']"), "100000");
    EXPECT_TRUE(has(expect_ok({"shm", "info", plain_name}), "4321 bytes"));
    EXPECT_EQ(json_value(expect_ok({"shm", "info", plain_name, "--json"}), "v['kind']"), "object");

    EXPECT_TRUE(tarn_shmx_destroy(visitor));
    EXPECT_TRUE(tarn_shmx_destroy(heap));
    EXPECT_TRUE(tarn_shm_destroy(plain));
}

// ---- points of a gatewayd ---------------------------------------------------------------------------

namespace
{

/** A heap as gatewayd shows it, with what a test puts in. */
class point_heap
{
public:
    explicit point_heap(const std::string &name)
        : heap_(tarn_shmx_create(name.c_str(), GATEWAYD_HEAP_TABLE_SIZE + 4096,
                                 GATEWAYD_HEAP_META_SIZE, 4))
    {
        void *const block = tarn_shmx_blk_alloc(heap_, GATEWAYD_HEAP_TABLE_SIZE);
        table_ = static_cast<gatewayd_heap_point *>(gatewayd_heap_aligned(block));
        meta_ =
            static_cast<gatewayd_heap_meta *>(gatewayd_heap_aligned(tarn_shmx_meta_zone(heap_)));
        meta_->version = GATEWAYD_HEAP_VERSION;
        meta_->point_size = sizeof(gatewayd_heap_point);
        meta_->capacity = GATEWAYD_HEAP_POINTS;
        meta_->table_offset = tarn_shmx_ptr_to_offset(heap_, block);
        meta_->pid = static_cast<uint32_t>(::getpid());
        __atomic_store_n(&meta_->magic, GATEWAYD_HEAP_MAGIC, __ATOMIC_RELEASE);
    }
    point_heap(const point_heap &) = delete;
    point_heap &operator=(const point_heap &) = delete;
    ~point_heap()
    {
        (void)tarn_shmx_destroy(heap_);
    }
    void set(uint32_t place, const std::string &name, double value)
    {
        gatewayd_heap_point &point = table_[place];
        name.copy(point.name, sizeof point.name - 1);
        uint64_t bits = 0;
        memcpy(&bits, &value, sizeof bits);
        __atomic_store_n(&point.value_bits, bits, __ATOMIC_RELEASE);
        __atomic_store_n(&point.time_ms, uint64_t{1000} + place, __ATOMIC_RELEASE);
        if (place >= meta_->count)
        {
            __atomic_store_n(&meta_->count, place + 1, __ATOMIC_RELEASE);
        }
        (void)__atomic_add_fetch(&meta_->changes, 1, __ATOMIC_RELEASE);
    }
    void close()
    {
        __atomic_store_n(&meta_->closed, 1u, __ATOMIC_RELEASE);
    }

private:
    TARN_SHMX heap_;
    gatewayd_heap_point *table_;
    gatewayd_heap_meta *meta_;
};

} // namespace

TEST(Tarnctl, PointsAreWatchedUntilTheDaemonEnds)
{
    const support::layer layer;
    const support::temp_dir dir;
    const std::string name = support::unique_name("ctl_points");
    point_heap heap(name);
    heap.set(0, "room/2", 21.5);
    heap.set(1, "room/1\x1b", -3);
    const std::string table = expect_ok({"points", "watch", name, "--once"});
    EXPECT_TRUE(table.starts_with("NAME")) << table;
    EXPECT_TRUE(has(table, "room/1\\x1b     -3  ")) << table;
    EXPECT_LT(table.find("room/1"), table.find("room/2"));
    EXPECT_TRUE(has(table, ":01.001\n")) << table;
    auto watch = start({"points", "watch", name, "--json", "--interval=10"}, dir.file("err"));
    const std::string first = watch.read_line(60000);
    EXPECT_EQ(json_value(first, "v['changes'], [p['value'] for p in v['points']]"), "2 [-3, 21.5]");
    heap.set(2, "room/0", 0.25);
    EXPECT_EQ(json_value(watch.read_line(60000), "v['points'][0]"),
              "{'name': 'room/0', 'value': 0.25, 'time_ms': 1002}");
    heap.close();
    EXPECT_EQ(watch.wait(60000), 1);
    EXPECT_TRUE(has(support::read_file(dir.file("err")), "has ended: start it again"));
    const std::string other = support::unique_name("ctl_heap");
    TARN_SHMX no_points = tarn_shmx_create(other.c_str(), 1000, 100, 1);
    (void)expect_error(1, {"points", "watch", other}, {other, "not the heap of a gatewayd"});
    EXPECT_TRUE(tarn_shmx_destroy(no_points));
}

// ---- network interfaces -----------------------------------------------------------------------------

TEST(Tarnctl, InterfacesAreListed)
{
    const std::string list = expect_ok({"net", "list"});
    EXPECT_TRUE(list.starts_with("NAME ")) << list;
    const std::string index = std::to_string(::if_nametoindex("lo"));
    EXPECT_EQ(json_value(
                  expect_ok({"net", "list", "--json"}),
                  "[(o['index'], o['address'], o['hardware']) for o in v if o['name'] == 'lo'][0]"),
              "(" + index + ", '127.0.0.1', None)");
}

// ---- serial ports -----------------------------------------------------------------------------------

TEST(Tarnctl, SerialPortsAreListed)
{
    EXPECT_TRUE(expect_ok({"serial", "list"}).starts_with("DEVICE "));
    (void)json_value(expect_ok({"serial", "list", "--json"}), "len(v)");
}

TEST(Tarnctl, SerialMonitorPrintsLinesAndHex)
{
    const support::temp_dir dir;
    const auto write = [](const support::pty_pair &pty, const std::string &bytes) {
        return ::write(pty.master(), bytes.data(), bytes.size()) ==
               static_cast<ssize_t>(bytes.size());
    };
    // bytes that are there before the port is open are kept by the terminal
    {
        support::pty_pair pty;
        auto monitor =
            start({"serial", "monitor", pty.slave_name(), "9600", "--lines=2"}, dir.file("err"));
        std::string first;
        ASSERT_TRUE(support::wait_until([&] {
            return write(pty, "a\x1b[2J line\r\n") && !(first = monitor.read_line(200)).empty();
        }));
        EXPECT_EQ(first, "a\\x1b[2J line");
        (void)write(pty, "second\n");
        EXPECT_EQ(monitor.wait(), 0);
        EXPECT_EQ(support::read_file(dir.file("err")), "");
    }
    {
        support::pty_pair pty;
        auto monitor =
            start({"serial", "monitor", pty.slave_name(), "--hex", "--time"}, dir.file("err"));
        std::string first;
        ASSERT_TRUE(support::wait_until([&] {
            return write(pty, std::string("ab\0\xff", 4)) &&
                   !(first = monitor.read_line(200)).empty();
        }));
        EXPECT_EQ(first.find("61 62 00 ff"), std::string("00:00:00.000  ").size()) << first;
        EXPECT_EQ(first[8], '.') << first;
        EXPECT_TRUE(has(first, "|ab..")) << first;
        monitor.signal(SIGINT);
        EXPECT_EQ(monitor.wait(), 0);
    }
    {
        support::pty_pair pty;
        auto monitor =
            start({"serial", "monitor", pty.slave_name(), "115200,8N1", "--json"}, dir.file("err"));
        std::string first;
        ASSERT_TRUE(support::wait_until([&] {
            return write(pty, "json \"x\"\n") && !(first = monitor.read_line(200)).empty();
        }));
        EXPECT_EQ(json_value(first, "v['text']"), "json \"x\"");
        pty.close_master();
        EXPECT_EQ(monitor.wait(), 1);
        EXPECT_TRUE(has(support::read_file(dir.file("err")), "is gone"));
    }
}
