// gatewayd's local sides: IPC, the shared heap and the serial line.

#include "gatewayd_support.h"
#include "support_ipc.h"
#include "support_serial.h"

#include "../examples/gatewayd/point_heap.h"
#include "../examples/gatewayd/protocol.h"

#include "tarn_sys.h"

#include <map>
#include <random>

using namespace gatewayd_test;
using tarn::unique_data;

namespace
{

class GatewaydLocal : public testing::Test
{
protected:
    support::layer layer_;
    support::level_scope quiet_{TARN_LOG_LEVEL_FATAL};
    instance self_;
};

// ---- IPC ----------------------------------------------------------------------------------------

unique_data text(const std::string &value, bool with_nul)
{
    const auto size = static_cast<uint32_t>(value.size() + (with_nul ? 1 : 0));
    return unique_data(tarn_data_alloc(TARN_DATA_TYPE_STRING, value.c_str(), &size));
}

template <typename Number>
unique_data number(uint8_t type, Number value)
{
    return unique_data(tarn_data_alloc(type, &value, nullptr));
}

unique_data both(unique_data first, unique_data second)
{
    EXPECT_TRUE(tarn_data_add_tail(first.get(), second.release()));
    return first;
}

unique_data named_value(const std::string &name, double value)
{
    return both(text(name, true), number(TARN_DATA_TYPE_DOUBLE, value));
}

struct answer
{
    int32_t code;
    unique_data results;
    template <typename Number>
    Number at(uint32_t place, uint8_t type) const
    {
        const TARN_DATA found = tarn_data_get_at(results.get(), place);
        Number value{};
        EXPECT_EQ(tarn_data_get_type(found), type);
        EXPECT_TRUE(tarn_data_get_value(found, &value, nullptr));
        return value;
    }
};

/** A client of the daemon's IPC. */
class ipc_client
{
public:
    explicit ipc_client(const instance &self)
        : ipc_(side_.open(self.name(), support::unique_name("caller")))
    {
        EXPECT_TRUE(ipc_);
    }
    answer call(uint32_t function, const unique_data &args = unique_data())
    {
        int32_t code = -1000;
        TARN_DATA results = nullptr;
        EXPECT_EQ(tarn_ipc_call(ipc_.get(), function, args.get(), &code, &results), 0);
        return {code, unique_data(results)};
    }

private:
    support::ipc_side side_;
    support::ipc_owner ipc_;
};

// ---- the shared heap ----------------------------------------------------------------------------

/** A reader of the daemon's heap. */
class reader
{
public:
    explicit reader(const instance &self) : heap_(tarn_shmx_open(self.name().c_str()))
    {
        EXPECT_NE(heap_, nullptr);
        EXPECT_TRUE(gatewayd_heap_attach(heap_, &view));
    }
    reader(const reader &) = delete;
    reader &operator=(const reader &) = delete;
    ~reader()
    {
        tarn_shmx_destroy(heap_);
    }
    std::map<std::string, gatewayd_heap_value> all() const
    {
        std::map<std::string, gatewayd_heap_value> found;
        for (uint32_t i = 0; i < gatewayd_heap_count(&view); ++i)
        {
            gatewayd_heap_value point{};
            EXPECT_TRUE(gatewayd_heap_read(&view, i, &point));
            EXPECT_TRUE(found.emplace(point.name, point).second) << point.name;
        }
        return found;
    }
    /** Waits until the point has the value. */
    bool wait_for(const std::string &name, double value) const
    {
        return support::wait_until(
            [&] {
                const auto points = all();
                const auto found = points.find(name);
                return found != points.end() && found->second.value == value;
            },
            60000);
    }
    gatewayd_heap_view view{};

private:
    TARN_SHMX heap_;
};

} // namespace

TEST_F(GatewaydLocal, IpcSetsGetsAndListsPoints)
{
    foreground daemon = start_running(self_);
    ipc_client client(self_);
    EXPECT_EQ(client.call(GATEWAYD_FUNC_SET, named_value("tank/level", 2.5)).code, 0);
    for (const bool with_nul : {true, false})
    {
        const answer got = client.call(GATEWAYD_FUNC_GET, text("tank/level", with_nul));
        EXPECT_EQ(got.code, 0);
        EXPECT_EQ(tarn_data_count(got.results.get()), 2u);
        EXPECT_EQ(got.at<double>(0, TARN_DATA_TYPE_DOUBLE), 2.5);
        EXPECT_GT(got.at<uint64_t>(1, TARN_DATA_TYPE_UINT64), 1700000000000u);
    }
    const answer listed = client.call(GATEWAYD_FUNC_LIST);
    EXPECT_EQ(listed.code, 0);
    const uint32_t count = tarn_data_count(listed.results.get());
    EXPECT_EQ(count % 3, 0u);
    std::map<std::string, double> points;
    for (uint32_t i = 0; i < count; i += 3)
    {
        char name[100];
        int32_t len = sizeof name;
        EXPECT_TRUE(tarn_data_get_as_string(tarn_data_get_at(listed.results.get(), i), name, &len));
        points[name] = listed.at<double>(i + 1, TARN_DATA_TYPE_DOUBLE);
        EXPECT_GT(listed.at<uint64_t>(i + 2, TARN_DATA_TYPE_UINT64), 0u);
    }
    EXPECT_EQ(points.size(), count / 3);
    EXPECT_EQ(points["tank/level"], 2.5);
    EXPECT_GT(points["uptime_s"], 0);
    expect_orderly_end(daemon);
}

TEST_F(GatewaydLocal, IpcEchoesAndTellsWrongCalls)
{
    foreground daemon = start_running(self_);
    ipc_client client(self_);
    const answer echoed = client.call(
        GATEWAYD_FUNC_ECHO, both(text("x", false), number(TARN_DATA_TYPE_INT16, int16_t{-7})));
    EXPECT_EQ(echoed.code, 0);
    EXPECT_EQ(support::ipc_text_of(echoed.results.get()), "x");
    EXPECT_EQ(echoed.at<int16_t>(1, TARN_DATA_TYPE_INT16), -7);
    EXPECT_EQ(client.call(GATEWAYD_FUNC_ECHO).code, 0);

    for (const uint32_t function : {GATEWAYD_FUNC_GET, GATEWAYD_FUNC_SET})
    {
        EXPECT_EQ(client.call(function).code, -1);
        EXPECT_EQ(client.call(function, number(TARN_DATA_TYPE_DOUBLE, 1.0)).code, -1);
    }
    EXPECT_EQ(client.call(GATEWAYD_FUNC_SET, text("x", true)).code, -1);
    EXPECT_EQ(
        client.call(GATEWAYD_FUNC_SET, both(text("x", true), number(TARN_DATA_TYPE_FLOAT, 1.0f)))
            .code,
        -1);
    EXPECT_EQ(client.call(GATEWAYD_FUNC_GET, text("x", true)).code, -2);
    for (const std::string &name : {std::string(), std::string(64, 'n'), std::string("a b")})
    {
        EXPECT_EQ(client.call(GATEWAYD_FUNC_SET, named_value(name, 1)).code, -3) << name;
    }
    EXPECT_EQ(client.call(5).code, GATEWAYD_NO_SUCH_CALL);
    EXPECT_EQ(client.call(0).code, GATEWAYD_NO_SUCH_CALL);
}

TEST_F(GatewaydLocal, HeapShowsPointsWhileTheyChange)
{
    foreground daemon = start_running(self_);
    ipc_client client(self_);
    const reader heap(self_);
    EXPECT_EQ(heap.view.meta->pid, static_cast<uint32_t>(daemon.pid()));
    EXPECT_GT(heap.all().at("uptime_s").value, 0);

    // A point and its time are one: a reader that keeps looking sees the pairs that were set.
    const uint64_t before = gatewayd_heap_changes(&heap.view);
    EXPECT_EQ(client.call(GATEWAYD_FUNC_SET, named_value("n", 0)).code, 0);
    EXPECT_EQ(gatewayd_heap_changes(&heap.view), before + 1);
    const uint32_t place = gatewayd_heap_count(&heap.view) - 1;
    std::atomic<int> torn{0};
    std::jthread looking([&](const std::stop_token &stop) {
        gatewayd_heap_value last{};
        while (!stop.stop_requested())
        {
            gatewayd_heap_value now{};
            if (!gatewayd_heap_read(&heap.view, place, &now) || now.value < last.value ||
                now.time_ms < last.time_ms)
            {
                ++torn;
            }
            last = now;
        }
    });
    constexpr int sets = support::with_sanitizer ? 300 : 3000;
    {
        const drain lines(daemon);
        for (int i = 1; i <= sets; ++i)
        {
            ASSERT_EQ(client.call(GATEWAYD_FUNC_SET, named_value("n", i)).code, 0);
        }
    }
    looking.request_stop();
    looking.join();
    EXPECT_EQ(torn, 0);
    EXPECT_EQ(heap.all().at("n").value, sets);
    EXPECT_EQ(gatewayd_heap_changes(&heap.view), before + 1 + sets);
    const answer got = client.call(GATEWAYD_FUNC_GET, text("n", true));
    EXPECT_EQ(heap.all().at("n").time_ms, got.at<uint64_t>(1, TARN_DATA_TYPE_UINT64));

    EXPECT_FALSE(gatewayd_heap_is_closed(&heap.view));
    expect_orderly_end(daemon);
    EXPECT_TRUE(gatewayd_heap_is_closed(&heap.view));
    EXPECT_EQ(heap.all().at("n").value, sets) << "what was read stays mapped";
    EXPECT_FALSE(self_.has_heap());
}

TEST_F(GatewaydLocal, TelemetryIsSampledAtMultiplesOfItsPeriod)
{
    foreground daemon = start({self_.option(), "--period=250", "--log-level=WARN"});
    TARN_SHMX heap = nullptr;
    const tarn::scope_exit close_heap([&] { tarn_shmx_destroy(heap); });
    ASSERT_TRUE(support::wait_until(
        [&] {
            heap = self_.has_heap() ? tarn_shmx_open(self_.name().c_str()) : nullptr;
            return heap != nullptr;
        },
        60000));
    gatewayd_heap_view view{};
    ASSERT_TRUE(support::wait_until([&] { return gatewayd_heap_attach(heap, &view); }));
    std::set<uint64_t> times;
    EXPECT_TRUE(support::wait_until(
        [&] {
            for (uint32_t i = 0; i < gatewayd_heap_count(&view); ++i)
            {
                gatewayd_heap_value point{};
                if (gatewayd_heap_read(&view, i, &point) && std::string(point.name) == "uptime_s")
                {
                    times.insert(point.time_ms);
                }
            }
            return times.size() > 4;
        },
        60000));
    times.erase(times.begin()); // the first reading was taken at the start
    for (const uint64_t time_ms : times)
    {
        EXPECT_EQ(time_ms % 250, 0u);
    }
    tarn_time now{};
    EXPECT_TRUE(tarn_time_get(&now)); // the clock of whole seconds is a little behind
    EXPECT_LE(*times.rbegin(), now.seconds * 1000 + now.microseconds / 1000);
}

TEST_F(GatewaydLocal, HeapThatWasScribbledOnHarmsNeitherSide)
{
    foreground daemon = start_running(self_);
    ipc_client client(self_);
    const reader heap(self_);
    auto *const meta = const_cast<gatewayd_heap_meta *>(heap.view.meta);
    auto *const table = const_cast<gatewayd_heap_point *>(heap.view.table);
    std::mt19937 random(1);
    const uint32_t table_offset = meta->table_offset;
    constexpr int rounds = 50;
    for (int round = 0; round < rounds; ++round)
    {
        for (size_t i = 0; i < sizeof *meta; ++i)
        {
            reinterpret_cast<unsigned char *>(meta)[i] = static_cast<unsigned char>(random());
        }
        std::memset(table, 0xfe, 16 * sizeof *table); // names without end
        table[0].sequence = 1;
        meta->table_offset = round % 25 == 0 ? table_offset : static_cast<uint32_t>(random());
        meta->magic = GATEWAYD_HEAP_MAGIC;
        meta->version = GATEWAYD_HEAP_VERSION;
        meta->point_size = sizeof(gatewayd_heap_point);
        meta->capacity = GATEWAYD_HEAP_POINTS;
        gatewayd_heap_view view{};
        TARN_SHMX opened = tarn_shmx_open(self_.name().c_str());
        if (gatewayd_heap_attach(opened, &view))
        {
            const uint32_t count = gatewayd_heap_count(&view);
            EXPECT_LE(count, GATEWAYD_HEAP_POINTS);
            for (uint32_t i = 0; i < count; ++i)
            {
                gatewayd_heap_value point{};
                (void)gatewayd_heap_read(&view, i, &point);
                EXPECT_LT(::strnlen(point.name, sizeof point.name), sizeof point.name);
            }
        }
        tarn_shmx_destroy(opened);
        EXPECT_EQ(client.call(GATEWAYD_FUNC_SET, named_value("n", round)).code, 0);
    }
    const answer got = client.call(GATEWAYD_FUNC_GET, text("n", true));
    EXPECT_EQ(got.at<double>(0, TARN_DATA_TYPE_DOUBLE), rounds - 1);
    expect_orderly_end(daemon);
}

TEST_F(GatewaydLocal, SuccessorOfAKilledDaemonMakesANewHeap)
{
    {
        foreground daemon = start_running(self_);
        daemon.signal(SIGKILL);
        EXPECT_EQ(daemon.wait(), -SIGKILL);
    }
    foreground successor = start_running(self_);
    const reader heap(self_);
    EXPECT_EQ(heap.view.meta->pid, static_cast<uint32_t>(successor.pid()));
    expect_orderly_end(successor);
}

TEST_F(GatewaydLocal, SerialLinesBecomePoints)
{
    support::serial_pty tty;
    const auto feed = [&](const std::string &bytes) {
        EXPECT_EQ(::write(tty.master(), bytes.data(), bytes.size()),
                  static_cast<ssize_t>(bytes.size()));
    };
    // while somebody has the other end open, what is written waits there
    const tarn::unique_fd other_end(
        ::open(tty.slave_name().c_str(), O_RDWR | O_NOCTTY | O_CLOEXEC));
    feed("old/half.line=1\n");
    foreground daemon =
        start_running(self_, {"--serial=" + tty.slave_name(), "--baud=9600"},
                      {"reading points from " + tty.slave_name() + " at 9600 baud"});
    const reader heap(self_);
    feed("boiler/temp=71.5\n");
    EXPECT_TRUE(heap.wait_for("boiler/temp", 71.5));
    feed("boil");
    feed("er/temp = 7");
    feed("2.25 \r\n\r\n\tpump.rpm=+1.5e3\n");
    EXPECT_TRUE(heap.wait_for("boiler/temp", 72.25));
    EXPECT_TRUE(heap.wait_for("pump.rpm", 1500));
    // what is no point is passed over, and the next line counts again
    for (const std::string &line :
         {std::string("no equals"), std::string("a b=1"), std::string("=1"), std::string("x="),
          std::string("x=1y"), std::string("x=nan"), std::string("x=inf"), std::string("x=1e999"),
          std::string("x=0x10"), std::string("x=1=2"), std::string(64, 'n') + "=1",
          std::string("\x1b[2J\0\xff=1", 8), "x=" + std::string(3000, '1'), std::string(300, ' ')})
    {
        feed(line + "\n");
    }
    feed("last=1\n");
    EXPECT_TRUE(heap.wait_for("last", 1));
    const auto points = heap.all();
    EXPECT_EQ(points.count("x"), 0u);
    EXPECT_EQ(points.count("old/half.line"), 0u);
    EXPECT_TRUE(daemon.wait_for_line("'no equals' is not of the form name=value"));
    expect_orderly_end(daemon);
}

TEST_F(GatewaydLocal, SerialPortThatHangsUpIsOpenedAgain)
{
    auto tty = std::make_unique<support::serial_pty>();
    const support::temp_dir dir;
    const std::string link = dir.file("tty");
    ASSERT_EQ(::symlink(tty->slave_name().c_str(), link.c_str()), 0);
    foreground daemon = start_running(self_, {"--serial=" + link}, {"reading points from"});
    const reader heap(self_);
    tty->close_master();
    ASSERT_TRUE(daemon.wait_for_line("is lost", 60000));
    support::serial_pty other;
    ::unlink(link.c_str());
    ASSERT_EQ(::symlink(other.slave_name().c_str(), link.c_str()), 0);
    ASSERT_TRUE(daemon.wait_for_line("reading points from", 60000));
    ASSERT_EQ(::write(other.master(), "again=1\n", 8), 8);
    EXPECT_TRUE(heap.wait_for("again", 1));
    expect_orderly_end(daemon);
}
