// File transfer over RPC: whole files over every transport, refusals, transfers that break off and go
// on, hostile messages.

#include "rpc_support.h"

#include "tarn_md5.h"
#include "tarn_rpc_file.h"
#include "tarn_str.h"

#include <algorithm>
#include <condition_variable>
#include <cstdio>
#include <thread>

#include <csignal>

#include <sys/resource.h>
#include <sys/stat.h>

using namespace rpc_test;
using support::expect_check;
using support::log_capture;
using support::wait_until;

namespace
{

/** What a receiving application does: stores under a directory, by base name. */
struct store
{
    std::string dir;
    std::string path; ///< of the last file
    std::atomic<int> refuse{0};
    std::atomic<int> blocks{0};
    std::atomic<int> ended{0};
    std::atomic<uint32_t> percent{0};
    std::function<void()> on_block;
    std::function<void()> on_end;

    void set(TARN_RPC rpc)
    {
        current = this;
        tarn_rpc_set_file_callbacks(rpc, begin, progress, end, this);
    }

private:
    static inline std::atomic<store *> current{nullptr}; ///< the begin callback has no context
    static int begin(const char *name, uint32_t, const char **path, void *context)
    {
        static thread_local std::string kept;
        EXPECT_EQ(context, nullptr);
        const store *const self = current;
        const std::string text(name);
        kept = self->dir + "/" + text.substr(text.rfind('/') + 1);
        *path = kept.c_str();
        return self->refuse;
    }
    static void progress(uint32_t percent, void *context)
    {
        auto *self = static_cast<store *>(context);
        ++self->blocks;
        self->percent = percent;
        if (self->on_block)
        {
            self->on_block();
        }
    }
    static void end(void *context)
    {
        auto *self = static_cast<store *>(context);
        if (self->on_end)
        {
            self->on_end();
        }
        ++self->ended;
    }
};

/** One transfer, and what its sender is told. */
class transfer
{
public:
    transfer() = default;
    transfer(TARN_RPC rpc, const std::string &source, const std::string &name, uint32_t start = 0)
    {
        begin(rpc, source, name, start);
    }
    transfer(const transfer &) = delete;
    transfer &operator=(const transfer &) = delete;
    ~transfer()
    {
        tarn_rpc_file_send_destroy(handle_);
    }
    void begin(TARN_RPC rpc, const std::string &source, const std::string &name, uint32_t start = 0)
    {
        handle_ = tarn_rpc_file_send_begin(rpc, source.c_str(), name.c_str(), start, 20000,
                                           progress, this);
    }
    /** It was destroyed inside a callback. */
    void forget()
    {
        handle_ = nullptr;
    }
    [[nodiscard]] bool begun() const
    {
        return handle_ != nullptr;
    }
    /** The error text of the end; "ok" on success. */
    std::string result()
    {
        std::unique_lock guard(lock_);
        EXPECT_TRUE(changed_.wait_for(guard, std::chrono::seconds(60), [&] { return over(); }));
        return error_.empty() ? "ok" : error_;
    }
    [[nodiscard]] uint32_t percent()
    {
        const std::lock_guard guard(lock_);
        return percent_;
    }
    [[nodiscard]] uint32_t calls()
    {
        const std::lock_guard guard(lock_);
        return calls_;
    }
    std::function<void(TARN_RPC_FILE_SEND, uint32_t calls)> on_progress;

private:
    bool over() const
    {
        return !error_.empty() || full_ == 2;
    }
    static void progress(TARN_RPC_FILE_SEND handle, uint32_t percent, const char *error,
                         void *context)
    {
        auto *self = static_cast<transfer *>(context);
        uint32_t calls = 0;
        {
            const std::lock_guard guard(self->lock_);
            calls = ++self->calls_;
            self->full_ += percent == 100 ? 1 : 0; // the last block, and the end
            self->percent_ = percent;
            self->error_ = error != nullptr ? error : "";
        }
        self->changed_.notify_all();
        if (self->on_progress)
        {
            self->on_progress(handle, calls);
        }
    }
    TARN_RPC_FILE_SEND handle_ = nullptr;
    std::mutex lock_;
    std::condition_variable changed_;
    std::string error_;
    int full_ = 0;
    uint32_t percent_ = 0;
    uint32_t calls_ = 0;
};

std::string pattern(size_t size)
{
    std::string bytes(size, '\0');
    uint32_t state = 12345;
    for (char &byte : bytes)
    {
        state = state * 1664525 + 1013904223;
        byte = static_cast<char>(state >> 24);
    }
    return bytes;
}

std::string md5_of(std::string_view bytes)
{
    char text[64];
    EXPECT_EQ(tarn_md5_str(bytes.data(), bytes.size(), text, sizeof text), 0);
    return text;
}

constexpr uint32_t block = 256 * 1024;

class RpcFile : public RpcBase
{
protected:
    RpcFile()
    {
        ::mkdir(dir_.file("in").c_str(), 0700);
        store_.dir = dir_.file("in");
        server_.prepare = [&](TARN_RPC rpc) { store_.set(rpc); };
        server_.start();
        client_ = connected_client(at_, nullptr, 1);
    }
    std::string source(const std::string &name, const std::string &content)
    {
        support::write_file(dir_.file(name), content);
        return dir_.file(name);
    }
    std::string stored(const std::string &name)
    {
        return support::read_file(store_.dir + "/" + name);
    }
    bool up()
    {
        return wait_until([&] { return tarn_rpc_is_connected(client_.get()); });
    }
    support::temp_dir dir_;
    store store_;
    store slow_store_;
    transport other_at_ = make_transport(GetParam());
    server server_{at_};
    rpc_owner client_;
};
INSTANTIATE_TEST_SUITE_P(Transports, RpcFile, kinds,
                         [](const auto &kind) { return std::string(kind.param); });

TEST_P(RpcFile, CarriesFilesOfAnySizeAndName)
{
    int files = 0;
    const bool slow = support::with_sanitizer || at_.client_secret != nullptr;
    for (const size_t size : {size_t{1}, size_t{512}, size_t{block}, size_t{block} + 1,
                              slow ? size_t{4u << 20} : size_t{64u << 20}})
    {
        const std::string name = "gr\xc3\xbc\xc3\x9f"
                                 "e und " +
                                 std::to_string(size) + ".bin";
        const std::string bytes = pattern(size);
        transfer sending(client_.get(), source(name, bytes), "some/where/" + name);
        ASSERT_TRUE(sending.begun());
        EXPECT_EQ(sending.result(), "ok");
        EXPECT_TRUE(stored(name) == bytes) << size;
        EXPECT_EQ(sending.calls(), (size + block - 1) / block + 1);
        EXPECT_EQ(store_.ended, ++files);
        EXPECT_EQ(store_.percent, 100u);
    }
    EXPECT_EQ(server_.any()->receivers != nullptr, true);
    EXPECT_EQ(tarn_hash_count(server_.any()->receivers), 0u);
}

TEST_P(RpcFile, RefusesWhatCannotBeSent)
{
    log_capture log;
    const std::string empty = source("empty", "");
    const std::string five = source("five", "12345");
    EXPECT_FALSE(transfer(client_.get(), empty, "x").begun());
    EXPECT_TRUE(log.contains("error", "file_size [0] <= start_pos [0]!"));
    EXPECT_FALSE(transfer(client_.get(), five, "x", 5).begun());
    EXPECT_FALSE(transfer(client_.get(), "/dev/zero", "x").begun());
    EXPECT_FALSE(transfer(client_.get(), dir_.path(), "x").begun());
    const support::level_scope debug(TARN_LOG_LEVEL_DEBUG);
    expect_check("RVON(src_file_path_name,NULL)");
    expect_check("RVON(dst_file_name,NULL)");
    expect_check("RVOF(tarn_md5_file( src_file_path_name, md5_sum, sizeof(md5_sum) ) == 0,NULL)");
    expect_check("RVON(fp,TARN_ERRLN)");
    EXPECT_EQ(tarn_rpc_file_send_begin(client_.get(), nullptr, "x", 0, 1, nullptr, nullptr),
              nullptr);
    EXPECT_EQ(tarn_rpc_file_send_begin(client_.get(), "x", nullptr, 0, 1, nullptr, nullptr),
              nullptr);
    EXPECT_FALSE(transfer(client_.get(), dir_.file("missing"), "x").begun());
}

TEST_P(RpcFile, RefusalsOfTheReceiverReachTheSender)
{
    const std::string five = source("five", "12345");
    store_.refuse = -3;
    EXPECT_EQ(transfer(client_.get(), five, "x").result(),
              "failed to send TARN_RPC_MSG_FILE_BEGIN");
    store_.refuse = 4; // no failure by its sign, but no token either
    EXPECT_EQ(transfer(client_.get(), five, "x").result(),
              "no response for TARN_RPC_MSG_FILE_BEGIN");
    store_.refuse = 0;
    log_capture log;
    ::mkdir((store_.dir + "/dir").c_str(), 0700);
    EXPECT_EQ(transfer(client_.get(), five, "dir").result(),
              "failed to send TARN_RPC_MSG_FILE_BEGIN");
    EXPECT_TRUE(log.contains("error", "failed to open file ("));
    ASSERT_EQ(::mkfifo((store_.dir + "/fifo").c_str(), 0600), 0);
    EXPECT_EQ(transfer(client_.get(), five, "fifo").result(),
              "failed to send TARN_RPC_MSG_FILE_BEGIN");
    support::write_file(dir_.file("victim"), "untouched");
    ASSERT_EQ(::symlink(dir_.file("victim").c_str(), (store_.dir + "/link").c_str()), 0);
    EXPECT_EQ(transfer(client_.get(), five, "link").result(),
              "failed to send TARN_RPC_MSG_FILE_BEGIN");
    EXPECT_EQ(support::read_file(dir_.file("victim")), "untouched");
    EXPECT_EQ(transfer(client_.get(), five, "good").result(), "ok");
    EXPECT_EQ(stored("good"), "12345");
}

TEST_P(RpcFile, TransferThatBrokeOffGoesOn)
{
    const std::string bytes = pattern(8 * block);
    const std::string path = source("big", bytes);
    store_.on_block = [&] {
        if (store_.blocks == 3)
        {
            tarn::conn_abort(tarn_rpc_conn(server_.any()));
        }
    };
    EXPECT_EQ(transfer(client_.get(), path, "big").result(), "failed to send file block message");
    EXPECT_TRUE(wait_until([&] { return server_.ended == 1; }));
    ASSERT_TRUE(up());
    EXPECT_EQ(stored("big").size(), 3u * block);
    transfer again(client_.get(), path, "big");
    EXPECT_EQ(again.result(), "ok");
    EXPECT_EQ(again.calls(), 5u + 1);
    EXPECT_TRUE(stored("big") == bytes);

    // Another file for the same place begins at 0, and so does one whose remains are gone.
    for (const bool removed : {false, true})
    {
        store_.blocks = 0;
        EXPECT_EQ(transfer(client_.get(), path, "big").result(),
                  "failed to send file block message");
        ASSERT_TRUE(up());
        const std::string other = removed ? bytes : pattern(6 * block);
        if (removed)
        {
            EXPECT_TRUE(wait_until([&] { return server_.ended == 3; }));
            ::unlink((store_.dir + "/big").c_str());
        }
        else
        {
            EXPECT_TRUE(wait_until([&] { return server_.ended == 2; }));
        }
        store_.blocks = 100;
        EXPECT_EQ(transfer(client_.get(), source("other", other), "big").result(), "ok");
        EXPECT_TRUE(stored("big") == other);
    }
}

TEST_P(RpcFile, ChangedOrShortenedSourceIsNotTaken)
{
    const std::string path = source("src", pattern(4 * block));
    {
        transfer sending;
        sending.on_progress = [&](TARN_RPC_FILE_SEND, uint32_t calls) {
            if (calls == 1)
            {
                EXPECT_EQ(::truncate(path.c_str(), 2 * block + 5), 0);
            }
        };
        sending.begin(client_.get(), path, "short");
        EXPECT_EQ(sending.result(), "read file error");
    }
    source("src", pattern(4 * block));
    log_capture log;
    transfer sending;
    sending.on_progress = [&](TARN_RPC_FILE_SEND, uint32_t calls) {
        if (calls == 1)
        {
            support::write_file(path, std::string(4 * block, 'X'));
        }
    };
    sending.begin(client_.get(), path, "changed");
    EXPECT_EQ(sending.result(), "failed to send TARN_RPC_MSG_FILE_END");
    EXPECT_TRUE(log.contains("error", "md5sum mismatch, actual: ["));
    EXPECT_EQ(store_.ended, 0);
}

TEST_P(RpcFile, SenderMayBeStoppedAtEveryStage)
{
    const std::string path = source("src", pattern(4 * block));
    for (uint32_t stage = 1; stage <= 5; ++stage) // four blocks, and the end
    {
        std::atomic<uint32_t> seen{0};
        {
            transfer sending;
            sending.on_progress = [&](TARN_RPC_FILE_SEND handle, uint32_t calls) {
                if (calls == stage)
                {
                    tarn_rpc_file_send_destroy(handle); // inside its own callback
                }
                seen = calls; // the last that the thread does here
            };
            sending.begin(client_.get(), path, "stage" + std::to_string(stage));
            ASSERT_TRUE(sending.begun());
            EXPECT_TRUE(wait_until([&] { return seen == stage; }));
            sending.forget();
            EXPECT_TRUE(wait_until([] { return tarn_thread_count() == 3; }));
        }
        EXPECT_EQ(seen, stage);
    }
    // at once, and while it waits for a reply
    for (int i = 0; i < 10; ++i)
    {
        transfer sending(client_.get(), path, "now" + std::to_string(i));
    }
    const auto go = std::make_shared<std::atomic<bool>>(false);
    rpc_owner other;
    {
        server slow(other_at_);
        slow.prepare = [&](TARN_RPC rpc) { slow_store_.set(rpc); };
        slow_store_.on_block = [go] { (void)wait_until([&] { return go->load(); }); };
        slow_store_.dir = store_.dir;
        slow.start();
        other = connected_client(other_at_);
        {
            transfer sending(other.get(), path, "waits");
            EXPECT_TRUE(wait_until([&] { return slow_store_.blocks == 1; }));
        }
        *go = true;
    }
    store_.set(server_.any());
    // and with its endpoint gone
    transfer sending(client_.get(), path, "gone");
    client_.reset();
    EXPECT_NE(sending.result(), "ok");
}

TEST_P(RpcFile, ManyTransfersAtOnce)
{
    const std::string bytes = pattern(2 * block + 77);
    const std::string path = source("src", bytes);
    std::vector<std::thread> threads;
    for (int i = 0; i < 10; ++i)
    {
        threads.emplace_back([&, i] {
            const rpc_owner client = connected_client(at_);
            EXPECT_EQ(transfer(client.get(), path, "f" + std::to_string(i)).result(), "ok");
        });
    }
    for (auto &thread : threads)
    {
        thread.join();
    }
    for (int i = 0; i < 10; ++i)
    {
        EXPECT_TRUE(stored("f" + std::to_string(i)) == bytes);
    }
}

// ---- messages by hand -------------------------------------------------------------------------------

/** A receiver driven element by element. */
class by_hand
{
public:
    explicit by_hand(TARN_RPC rpc) : rpc_(rpc), msg_(tarn_rpc_msg_create()) {}
    by_hand &text(uint16_t id, std::string_view value)
    {
        // a length of 0 would stand for the text's own
        EXPECT_EQ(tarn_rpc_msg_write_element_value(msg_.get(), id, MSG_ELM_TYPE_STRING,
                                                   value.empty() ? "" : value.data(),
                                                   static_cast<uint32_t>(value.size())),
                  0);
        return *this;
    }
    by_hand &u32(uint16_t id, uint32_t value)
    {
        EXPECT_EQ(tarn_rpc_msg_write_element_value(msg_.get(), id, MSG_ELM_TYPE_UINT32, &value, 0),
                  0);
        return *this;
    }
    by_hand &token(uint64_t value)
    {
        EXPECT_EQ(tarn_rpc_msg_write_element_value(msg_.get(), MSG_ELM_FILE_TOKEN,
                                                   MSG_ELM_TYPE_UINT64, &value, 0),
                  0);
        return *this;
    }
    int send(uint32_t id, uint64_t *token = nullptr, uint32_t *size = nullptr)
    {
        TARN_RPC_MSG rsp = nullptr;
        const int rc = tarn_rpc_msg_send(rpc_, 1, id, msg_.get(), &rsp, 20000);
        const msg_owner owner(rsp);
        if (rc == 0 && token != nullptr)
        {
            EXPECT_EQ(tarn_rpc_msg_read_element(rsp, MSG_ELM_FILE_TOKEN, MSG_ELM_TYPE_UINT64, token,
                                                sizeof *token, nullptr),
                      0);
            uint32_t start = 1;
            EXPECT_EQ(tarn_rpc_msg_read_element(rsp, MSG_ELM_START_POS, MSG_ELM_TYPE_UINT32, &start,
                                                sizeof start, nullptr),
                      0);
            EXPECT_EQ(start, 0u);
        }
        if (rc == 0 && size != nullptr)
        {
            EXPECT_EQ(tarn_rpc_msg_read_element(rsp, MSG_ELM_WRITE_SIZE, MSG_ELM_TYPE_UINT32, size,
                                                sizeof *size, nullptr),
                      0);
        }
        return rc;
    }

private:
    TARN_RPC rpc_;
    msg_owner msg_;
};

TEST_P(RpcFile, HostileMessagesAreRefused)
{
    TARN_RPC rpc = client_.get();
    const std::string md5 = md5_of("0123456789");
    const auto begin = [&](std::string_view name, std::string_view sum, uint32_t size) {
        by_hand hand(rpc);
        hand.text(MSG_ELM_FILE_NAME, name).text(MSG_ELM_MD5_SUM, sum);
        hand.u32(MSG_ELM_FILE_SIZE, size).u32(MSG_ELM_BLOCK_SIZE, 0xFFFFFFFFu);
        return hand;
    };
    const auto put = [&](uint64_t token, std::string_view bytes, uint32_t *size = nullptr) {
        return by_hand(rpc)
            .token(token)
            .text(MSG_ELM_BLOCK_DATA, bytes)
            .send(TARN_RPC_MSG_FILE_BLOCK, nullptr, size);
    };
    EXPECT_LT(by_hand(rpc).u32(99, 1).send(TARN_RPC_MSG_FILE_BEGIN), 0);
    EXPECT_LT(by_hand(rpc).text(MSG_ELM_FILE_NAME, "n").send(TARN_RPC_MSG_FILE_BEGIN), 0);
    EXPECT_LT(begin("", md5, 10).send(TARN_RPC_MSG_FILE_BEGIN), 0);
    EXPECT_LT(begin(std::string_view("a\0b", 3), md5, 10).send(TARN_RPC_MSG_FILE_BEGIN), 0);
    EXPECT_LT(begin(std::string(5000, 'p'), md5, 10).send(TARN_RPC_MSG_FILE_BEGIN), 0);
    EXPECT_LT(begin("n", md5 + "0", 10).send(TARN_RPC_MSG_FILE_BEGIN), 0);
    EXPECT_LT(begin("n", md5, 0).send(TARN_RPC_MSG_FILE_BEGIN), 0);
    EXPECT_LT(begin("n", md5, 10).u32(MSG_ELM_START_POS, 10).send(TARN_RPC_MSG_FILE_BEGIN), 0);
    EXPECT_LT(put(0, "x"), 0);
    EXPECT_LT(by_hand(rpc).u32(99, 1).send(TARN_RPC_MSG_FILE_END), 0);

    // a start position of the sender's makes no hole
    uint64_t token = 0;
    uint32_t size = 0;
    ASSERT_EQ(begin("n", md5, 10).u32(MSG_ELM_START_POS, 4).send(TARN_RPC_MSG_FILE_BEGIN, &token),
              0);
    log_capture log;
    EXPECT_LT(begin("n", md5, 10).send(TARN_RPC_MSG_FILE_BEGIN), 0);
    EXPECT_TRUE(log.contains("warn", "n] already in receiving!"));
    {
        // the same path and the same token over another connection
        const rpc_owner other = connected_client(at_);
        TARN_RPC mine = std::exchange(rpc, other.get());
        EXPECT_LT(begin("n", md5, 10).send(TARN_RPC_MSG_FILE_BEGIN), 0);
        EXPECT_LT(put(token, "0123"), 0);
        rpc = mine;
    }
    EXPECT_LT(put(token + 1, "0123"), 0);
    EXPECT_LT(put(token, ""), 0);
    EXPECT_EQ(put(token, "0123", &size), 0);
    EXPECT_EQ(size, 4u);
    EXPECT_EQ(put(token, "456789", &size), 0);
    EXPECT_EQ(size, 10u);
    EXPECT_EQ(by_hand(rpc).token(token).send(TARN_RPC_MSG_FILE_END, nullptr, &size), 0);
    EXPECT_EQ(stored("n"), "0123456789");
    EXPECT_LT(put(token, "more"), 0); // it has ended

    // too much, too little
    ASSERT_EQ(begin("m", md5, 10).send(TARN_RPC_MSG_FILE_BEGIN, &token), 0);
    EXPECT_EQ(put(token, "0123456789abc"), 0);
    EXPECT_TRUE(log.contains("warn", "write size exceed file size!"));
    EXPECT_LT(by_hand(rpc).token(token).send(TARN_RPC_MSG_FILE_END), 0);
    EXPECT_TRUE(log.contains("warn", "write_size [13] != file_size [10]"));
    EXPECT_LT(by_hand(rpc).token(token).send(TARN_RPC_MSG_FILE_END), 0); // no second try

    // as many as announced, but others
    ASSERT_EQ(begin("m", md5, 10).send(TARN_RPC_MSG_FILE_BEGIN, &token), 0);
    EXPECT_EQ(put(token, "0123456780"), 0);
    EXPECT_LT(by_hand(rpc).token(token).send(TARN_RPC_MSG_FILE_END), 0);
    EXPECT_TRUE(log.contains("error", "md5sum mismatch, actual: ["));
    EXPECT_EQ(tarn_hash_count(server_.any()->receivers), 0u);

    // the file is its own until its end was told
    store_.on_end = [&] {
        const rpc_owner other = connected_client(at_);
        TARN_RPC mine = std::exchange(rpc, other.get());
        EXPECT_LT(begin("m", md5, 10).send(TARN_RPC_MSG_FILE_BEGIN), 0);
        rpc = mine;
    };
    ASSERT_EQ(begin("m", md5, 10).send(TARN_RPC_MSG_FILE_BEGIN, &token), 0);
    EXPECT_EQ(put(token, "0123456789"), 0);
    EXPECT_EQ(by_hand(rpc).token(token).send(TARN_RPC_MSG_FILE_END), 0);
    EXPECT_EQ(store_.ended, 2);
    EXPECT_EQ(stored("m"), "0123456789");

    // begun and left alone: as many as are allowed, all closed with the connection
    EXPECT_TRUE(wait_until([&] { return server_.ended == 2; })); // the other connections
    const size_t before = support::open_descriptors();
    int begun = 0;
    while (begin("left" + std::to_string(begun), md5, 10).send(TARN_RPC_MSG_FILE_BEGIN) == 0)
    {
        ++begun;
    }
    EXPECT_EQ(begun, 64);
    EXPECT_GT(support::open_descriptors(), 64u);
    client_.reset();
    EXPECT_TRUE(wait_until([&] { return server_.ended == 3; }));
    EXPECT_TRUE(wait_until([&] { return support::open_descriptors() <= before; }));
}

TEST_P(RpcFile, TransferThatLostItsEndSendsOneByteAgain)
{
    const std::string bytes = "0123456789";
    uint64_t token = 0;
    by_hand begin(client_.get());
    begin.text(MSG_ELM_FILE_NAME, "n").text(MSG_ELM_MD5_SUM, md5_of(bytes));
    begin.u32(MSG_ELM_FILE_SIZE, 10).u32(MSG_ELM_BLOCK_SIZE, 10);
    ASSERT_EQ(begin.send(TARN_RPC_MSG_FILE_BEGIN, &token), 0);
    by_hand whole(client_.get());
    EXPECT_EQ(whole.token(token).text(MSG_ELM_BLOCK_DATA, bytes).send(TARN_RPC_MSG_FILE_BLOCK), 0);
    client_ = connected_client(at_);
    EXPECT_TRUE(wait_until([&] { return server_.ended == 1; }));
    log_capture log;
    const support::level_scope debug(TARN_LOG_LEVEL_DEBUG);
    EXPECT_EQ(transfer(client_.get(), source("n", bytes), "n").result(), "ok");
    EXPECT_TRUE(log.contains("start_pos = [9]"));
    EXPECT_EQ(stored("n"), bytes);
}

// ---- a receiver that is not ours -----------------------------------------------------------------------

class RpcFileRaw : public RpcBase
{
};
INSTANTIATE_TEST_SUITE_P(Transports, RpcFileRaw, raw_kinds,
                         [](const auto &kind) { return std::string(kind.param); });

std::string element(uint8_t type, uint16_t id, std::initializer_list<uint32_t> value)
{
    return std::string({static_cast<char>(type), '\0', static_cast<char>(id)}) + words(value);
}

struct answer
{
    int code;
    std::string data;
};

/** Answers the requests of a transfer with what it is given.
 *  @return the ids of the requests */
std::string answer_transfer(raw_peer &peer, const std::vector<answer> &answers)
{
    std::string ids;
    for (const answer &reply : answers)
    {
        const std::string head = peer.read(24);
        const auto word = [&](size_t at) {
            uint32_t value = 0;
            std::memcpy(&value, head.data() + at, sizeof value);
            return ntohl(value);
        };
        if (head.size() < 24 || peer.read(word(16)).size() != word(16))
        {
            break;
        }
        ids += std::to_string(word(12)) + " ";
        EXPECT_EQ(word(8) + 1, std::count(ids.begin(), ids.end(), ' ')); // 0, 1, 2, ...
        EXPECT_TRUE(peer.send(
            frame(word(8), word(12) | 0x80000000u, static_cast<uint32_t>(reply.code), reply.data)));
    }
    return ids;
}

TEST_P(RpcFileRaw, AnswersOfAnotherReceiverAreNotTrusted)
{
    const support::temp_dir dir;
    support::write_file(dir.file("ten"), "0123456789");
    const std::string token = element(MSG_ELM_TYPE_UINT64, MSG_ELM_FILE_TOKEN, {1, 2});
    const auto u32 = [](uint16_t id, uint32_t value) {
        return element(MSG_ELM_TYPE_UINT32, id, {value});
    };
    const std::string more = u32(MSG_ELM_WRITE_SIZE, 20);
    struct
    {
        std::vector<answer> answers;
        const char *ids;
        const char *result;
        uint32_t percent;
    } const cases[] = {
        {{{0, ""}}, "10 ", "no response for TARN_RPC_MSG_FILE_BEGIN", 0},
        {{{0, u32(MSG_ELM_BLOCK_SIZE, 9)}}, "10 ", "file token absent", 0},
        {{{0, token + u32(MSG_ELM_START_POS, 11)}}, "10 ", "failed to send file", 110},
        {{{0, token + u32(MSG_ELM_START_POS, 10)}, {0, ""}},
         "10 12 ",
         "no response message for TARN_RPC_MSG_FILE_END",
         100},
        {{{0, token + u32(MSG_ELM_BLOCK_SIZE, UINT32_MAX)}, {0, ""}},
         "10 11 ",
         "no response message for TARN_RPC_MSG_FILE_BLOCK",
         0},
        {{{0, token + u32(MSG_ELM_BLOCK_SIZE, 0)}, {0, u32(99, 1)}},
         "10 11 ",
         "no write size returned",
         0},
        {{{0, token + u32(MSG_ELM_BLOCK_SIZE, 5)}, {0, more}, {0, more}, {-1, ""}},
         "10 11 11 12 ",
         "failed to send TARN_RPC_MSG_FILE_END",
         200},
    };
    server svr(at_);
    svr.start();
    raw_peer peer(at_);
    ASSERT_TRUE(wait_until([&] { return svr.any() != nullptr; }));
    for (const auto &expected : cases)
    {
        transfer sending(svr.any(), dir.file("ten"), "x");
        EXPECT_EQ(answer_transfer(peer, expected.answers), expected.ids) << expected.result;
        EXPECT_EQ(sending.result(), expected.result);
        EXPECT_EQ(sending.percent(), expected.percent) << expected.result;
    }
}

// ---- a receiver in a process of its own ---------------------------------------------------------------

/** Receives into a directory until its input closes; a limit on file sizes stands for a full disk: it
 *  fails a write in the same way. */
TARN_TEST_ROLE(receiver)
{
    const transport at = {.addr = args[0], .port = args[1]};
    const rlimit limit = {std::stoul(args[3]), RLIM_INFINITY};
    ::signal(SIGXFSZ, SIG_IGN);
    ::setrlimit(RLIMIT_FSIZE, &limit);
    const support::layer layer;
    store files;
    files.dir = args[2];
    server svr(at);
    svr.prepare = [&](TARN_RPC rpc) { files.set(rpc); };
    svr.start();
    std::printf("ready\n");
    std::fflush(stdout);
    return std::getchar() == EOF ? 0 : 1;
}

TEST_P(RpcFile, ReceiverInAnotherProcessFailsOrDies)
{
    const std::string bytes = pattern(40 * block);
    const std::string path = source("src", bytes);
    // without TLS, whose keys the other process does not have
    const transport at = make_transport(GetParam() == std::string("local") ? "local" : "tcp");
    const auto start = [&](size_t limit) {
        auto receiver = support::child_process::role(
            "receiver", {at.addr, at.port, store_.dir, std::to_string(limit)});
        EXPECT_TRUE(receiver.wait_for_line("ready"));
        return receiver;
    };
    {
        auto receiver = start(block + block / 2);
        const rpc_owner client = connected_client(at, nullptr, 1);
        EXPECT_EQ(transfer(client.get(), path, "full").result(),
                  "failed to send file block message");
        receiver.close_input();
        EXPECT_EQ(receiver.wait(), 0);
    }
    EXPECT_EQ(stored("full").size(), size_t{block}); // without the half of a block
    auto first = start(1u << 30);
    const rpc_owner client = connected_client(at, nullptr, 1);
    {
        transfer sending;
        sending.on_progress = [&](TARN_RPC_FILE_SEND, uint32_t calls) {
            if (calls == 2)
            {
                first.signal(SIGKILL);
            }
        };
        sending.begin(client.get(), path, "killed");
        EXPECT_EQ(sending.result(), "failed to send file block message");
    }
    EXPECT_EQ(first.wait(), -SIGKILL);
    auto second = start(1u << 30);
    ASSERT_TRUE(wait_until([&] { return tarn_rpc_is_connected(client.get()); }));
    transfer again(client.get(), path, "killed"); // a new process knows of nothing
    EXPECT_EQ(again.result(), "ok");
    EXPECT_EQ(again.calls(), 41u);
    EXPECT_TRUE(stored("killed") == bytes);
    second.close_input();
    EXPECT_EQ(second.wait(), 0);
}

} // namespace
