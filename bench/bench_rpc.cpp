// RPC between two processes, beside the same bytes over a bare socket: a request with its reply, 64
// clients at once, a file.
//
// The other process is forked before anything else: it serves the bare echoes (a thread per
// connection) and the RPC server, and ends when this one does.

#include "ratio.h"

#include "tarn_md5.h"
#include "tarn_rpc.h"
#include "tarn_rpc_file.h"
#include "tarn_sys.h"

#include <atomic>
#include <condition_variable>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sched.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

namespace
{

constexpr size_t file_size = 64u << 20;
constexpr size_t copy_block = 65536;

/** Where the other process listens. */
struct meeting_point
{
    uint16_t ping_port;
    uint16_t bare_port;
    uint16_t copy_port;
    uint16_t rpc_port;
    pid_t pid;
};
meeting_point there;

std::string file_path(const char *what)
{
    return "/tmp/tarn_bench_rpc_" + std::to_string(there.pid) + what;
}

std::string local_name(const char *what)
{
    return "tarn_bench_" + std::to_string(there.pid) + what;
}

// ---- bare sockets -----------------------------------------------------------------------------------

sockaddr_in loopback(uint16_t port)
{
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return address;
}

sockaddr_un local(const std::string &name, socklen_t *length)
{
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    name.copy(address.sun_path + 1, sizeof address.sun_path - 1);
    *length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + 1 + name.size());
    return address;
}

void no_delay(int fd)
{
    const int on = 1;
    (void)::setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
}

bool read_all(int fd, char *at, size_t size)
{
    while (size != 0)
    {
        const ssize_t n = ::read(fd, at, size);
        if (n <= 0)
        {
            return false;
        }
        at += n;
        size -= static_cast<size_t>(n);
    }
    return true;
}

bool write_all(int fd, const char *at, size_t size)
{
    while (size != 0)
    {
        const ssize_t n = ::send(fd, at, size, MSG_NOSIGNAL);
        if (n <= 0)
        {
            return false;
        }
        at += n;
        size -= static_cast<size_t>(n);
    }
    return true;
}

void echo(int fd)
{
    no_delay(fd);
    std::vector<char> bytes(copy_block);
    for (ssize_t n = 0; (n = ::read(fd, bytes.data(), bytes.size())) > 0;)
    {
        if (!write_all(fd, bytes.data(), static_cast<size_t>(n)))
        {
            break;
        }
    }
    ::close(fd);
}

/** Run the calling thread on one processor: left to itself the system puts the two ends of a bare
 *  exchange on one or on two, which differ by a factor of five. RPC threads are spread over all. */
void pin(unsigned processor)
{
    cpu_set_t set;
    CPU_ZERO(&set);
    CPU_SET(processor % std::max(1u, std::thread::hardware_concurrency()), &set);
    (void)::sched_setaffinity(0, sizeof set, &set);
}

/** Undoes a pin at the end of its scope. */
class pinned
{
public:
    explicit pinned(unsigned processor)
    {
        (void)::sched_getaffinity(0, sizeof before_, &before_);
        pin(processor);
    }
    pinned(const pinned &) = delete;
    pinned &operator=(const pinned &) = delete;
    ~pinned()
    {
        (void)::sched_setaffinity(0, sizeof before_, &before_);
    }

private:
    cpu_set_t before_{};
};

void echo_apart(int fd)
{
    pin(1);
    echo(fd);
}

/** Takes a file, writes it, answers with its digest. */
void take_file(int fd)
{
    std::vector<char> bytes(copy_block);
    const int out =
        ::open(file_path("_bare").c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    for (size_t left = file_size; left != 0;)
    {
        const ssize_t n = ::read(fd, bytes.data(), std::min(left, bytes.size()));
        if (n <= 0 || ::write(out, bytes.data(), static_cast<size_t>(n)) != n)
        {
            break;
        }
        left -= static_cast<size_t>(n);
    }
    ::close(out);
    char digest[64] = {};
    (void)tarn_md5_file(file_path("_bare").c_str(), digest, sizeof digest);
    (void)write_all(fd, digest, sizeof digest);
    ::close(fd);
}

uint16_t serve_tcp(void (*serve)(int))
{
    const int listener = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address = loopback(0);
    socklen_t length = sizeof address;
    (void)::bind(listener, reinterpret_cast<sockaddr *>(&address), length);
    (void)::listen(listener, 128);
    (void)::getsockname(listener, reinterpret_cast<sockaddr *>(&address), &length);
    std::thread([listener, serve] {
        for (int fd = 0; (fd = ::accept(listener, nullptr, nullptr)) >= 0;)
        {
            std::thread(serve, fd).detach();
        }
    }).detach();
    return ntohs(address.sin_port);
}

uint16_t free_port()
{
    const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address = loopback(0);
    socklen_t length = sizeof address;
    (void)::bind(fd, reinterpret_cast<sockaddr *>(&address), length);
    (void)::getsockname(fd, reinterpret_cast<sockaddr *>(&address), &length);
    ::close(fd);
    return ntohs(address.sin_port);
}

void serve_local(const std::string &name, void (*serve)(int))
{
    const int listener = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    socklen_t length = 0;
    const sockaddr_un address = local(name, &length);
    (void)::bind(listener, reinterpret_cast<const sockaddr *>(&address), length);
    (void)::listen(listener, 128);
    std::thread([listener, serve] {
        for (int fd = 0; (fd = ::accept(listener, nullptr, nullptr)) >= 0;)
        {
            std::thread(serve, fd).detach();
        }
    }).detach();
}

int connect_tcp(uint16_t port)
{
    const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const sockaddr_in address = loopback(port);
    (void)::connect(fd, reinterpret_cast<const sockaddr *>(&address), sizeof address);
    no_delay(fd);
    return fd;
}

int connect_local(const std::string &name)
{
    const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    socklen_t length = 0;
    const sockaddr_un address = local(name, &length);
    (void)::connect(fd, reinterpret_cast<const sockaddr *>(&address), length);
    return fd;
}

// ---- the other process --------------------------------------------------------------------------------

int on_begin(const char *, uint32_t, const char **path, void *)
{
    static const std::string kept = file_path("_rpc");
    *path = kept.c_str();
    return 0;
}

int on_peer(TARN_RPC, void *, const char *, TARN_RPC rpc, TARN_RPC_CALLBACK *, void **)
{
    tarn_rpc_set_file_callbacks(rpc, on_begin, nullptr, nullptr, nullptr);
    return 0;
}

void on_connected(TARN_RPC rpc, void *)
{
    (void)tarn_rpc_loop_start(rpc);
}

int on_msg(TARN_RPC, uint32_t, uint32_t, TARN_RPC_MSG msg, TARN_RPC_MSG rsp, void *)
{
    const void *bytes = nullptr;
    uint32_t size = 0;
    return tarn_rpc_msg_get_element_ptr(msg, 1, MSG_ELM_TYPE_STRING, &bytes, &size) == 0
               ? tarn_rpc_msg_write_element_value(rsp, 1, MSG_ELM_TYPE_STRING, bytes, size)
               : -1;
}

TARN_RPC rpc_server(const char *addr, const char *port)
{
    const TARN_RPC_CALLBACK callbacks = {sizeof callbacks, on_peer, on_connected,
                                         nullptr,          on_msg,  nullptr};
    TARN_RPC rpc = nullptr;
    if (tarn_rpc_server_create(nullptr, addr, port, TARN_INFINITE, 256, &callbacks, nullptr,
                               &rpc) != 0 ||
        tarn_rpc_loop_start(rpc) != 0)
    {
        std::_Exit(2);
    }
    return rpc;
}

[[noreturn]] void serve(int to_parent)
{
    (void)::prctl(PR_SET_PDEATHSIG, SIGKILL);
    there.pid = ::getpid();
    (void)tarn_init();
    tarn_log_level_set(TARN_LOG_LEVEL_FATAL); // clients come and go
    there.ping_port = serve_tcp(echo_apart);
    there.bare_port = serve_tcp(echo);
    there.copy_port = serve_tcp(take_file);
    serve_local(local_name("_bare"), echo_apart);
    there.rpc_port = free_port();
    (void)rpc_server("127.0.0.1", std::to_string(there.rpc_port).c_str());
    (void)rpc_server(local_name("_rpc").c_str(), nullptr);
    (void)write_all(to_parent, reinterpret_cast<char *>(&there), sizeof there);
    for (;;)
    {
        ::pause();
    }
}

/** Start the other process. */
bool begin()
{
    int ends[2];
    if (::socketpair(AF_UNIX, SOCK_STREAM, 0, ends) != 0)
    {
        return false;
    }
    if (::fork() == 0)
    {
        serve(ends[1]);
    }
    ::close(ends[1]);
    return read_all(ends[0], reinterpret_cast<char *>(&there), sizeof there);
}

// ---- a request and its reply --------------------------------------------------------------------------

void ping(benchmark::State &state, int fd)
{
    const pinned apart(0);
    std::vector<char> bytes(static_cast<size_t>(state.range(0)), 'p');
    for (auto _ : state)
    {
        if (!write_all(fd, bytes.data(), bytes.size()) || !read_all(fd, bytes.data(), bytes.size()))
        {
            state.SkipWithError("the other process is gone");
            break;
        }
    }
    ::close(fd);
}

void bare_tcp(benchmark::State &state)
{
    ping(state, connect_tcp(there.ping_port));
}
BENCHMARK(bare_tcp)->Arg(64)->Arg(4096)->UseRealTime();

void bare_local(benchmark::State &state)
{
    ping(state, connect_local(local_name("_bare")));
}
BENCHMARK(bare_local)->Arg(64)->Arg(4096)->UseRealTime();

/** A client that is up.
 *  @param with_thread  its loop has a thread; else who sends runs the turns */
TARN_RPC connect_rpc(bool tcp, bool with_thread = true)
{
    TARN_RPC rpc = nullptr;
    const std::string addr = tcp ? "127.0.0.1" : local_name("_rpc");
    const std::string port = std::to_string(there.rpc_port);
    (void)tarn_rpc_client_create(nullptr, nullptr, nullptr, addr.c_str(),
                                 tcp ? port.c_str() : nullptr, 5000, nullptr, nullptr, &rpc);
    if (with_thread)
    {
        (void)tarn_rpc_loop_start(rpc);
    }
    while (!tarn_rpc_is_connected(rpc))
    {
        if (with_thread)
        {
            tarn_sleep_ms(1);
        }
        else
        {
            (void)tarn_rpc_loop(rpc);
        }
    }
    return rpc;
}

bool call(TARN_RPC rpc, uint32_t seq_no, const std::vector<char> &bytes)
{
    TARN_RPC_MSG rsp = nullptr;
    const int rc = tarn_rpc_element_send(rpc, seq_no, 1000, 1, MSG_ELM_TYPE_STRING, bytes.data(),
                                         static_cast<uint32_t>(bytes.size()), &rsp, 10000);
    if (rsp != nullptr)
    {
        (void)tarn_rpc_msg_release(rsp);
    }
    return rc == 0;
}

void calls(benchmark::State &state, bool tcp)
{
    TARN_RPC rpc = connect_rpc(tcp);
    const std::vector<char> bytes(static_cast<size_t>(state.range(0)), 'p');
    uint32_t seq_no = 0;
    for (auto _ : state)
    {
        if (!call(rpc, seq_no++, bytes))
        {
            state.SkipWithError("no reply");
            break;
        }
    }
    tarn_rpc_destroy(rpc);
}

void rpc_tcp(benchmark::State &state)
{
    calls(state, true);
}
BENCHMARK(rpc_tcp)->Arg(64)->Arg(4096)->UseRealTime();

void rpc_local(benchmark::State &state)
{
    calls(state, false);
}
BENCHMARK(rpc_local)->Arg(64)->Arg(4096)->UseRealTime();

// ---- many clients ---------------------------------------------------------------------------------------

constexpr int clients = 64;
constexpr int rounds = 50;

/** Time of rounds calls by each of 64 threads. */
template <typename Client, typename Connect, typename Once, typename Close>
void many(benchmark::State &state, Connect connect, Once once, Close close)
{
    std::vector<Client> all;
    for (int i = 0; i < clients; ++i)
    {
        all.push_back(connect());
    }
    for (auto _ : state)
    {
        std::vector<std::thread> threads;
        for (Client client : all)
        {
            threads.emplace_back([&once, client] {
                for (int i = 0; i < rounds; ++i)
                {
                    once(client);
                }
            });
        }
        for (std::thread &thread : threads)
        {
            thread.join();
        }
    }
    for (Client client : all)
    {
        close(client);
    }
}

void bare_clients(benchmark::State &state)
{
    many<int>(
        state, [] { return connect_tcp(there.bare_port); },
        [](int fd) {
            char bytes[64] = {};
            (void)(write_all(fd, bytes, sizeof bytes) && read_all(fd, bytes, sizeof bytes));
        },
        [](int fd) { ::close(fd); });
}
BENCHMARK(bare_clients)->UseRealTime();

void many_rpc(benchmark::State &state, bool with_thread)
{
    const std::vector<char> bytes(64, 'p');
    many<TARN_RPC>(
        state, [with_thread] { return connect_rpc(true, with_thread); },
        [&bytes](TARN_RPC rpc) { (void)call(rpc, 1, bytes); }, tarn_rpc_destroy);
}

void rpc_clients(benchmark::State &state)
{
    many_rpc(state, true);
}
BENCHMARK(rpc_clients)->UseRealTime();

/** One thread per client, as the bare ones have. */
void rpc_clients_of_one_thread(benchmark::State &state)
{
    many_rpc(state, false);
}
BENCHMARK(rpc_clients_of_one_thread)->UseRealTime();

// ---- a file ---------------------------------------------------------------------------------------------

/** The file to be sent, made once. */
const std::string &source()
{
    static const std::string path = [] {
        const std::string name = file_path("_source");
        const std::vector<char> bytes(file_size, 'f');
        const int fd = ::open(name.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
        (void)(::write(fd, bytes.data(), bytes.size()) > 0);
        ::close(fd);
        return name;
    }();
    return path;
}

void bare_file(benchmark::State &state)
{
    const std::string &path = source();
    for (auto _ : state)
    {
        char digest[64] = {};
        (void)tarn_md5_file(path.c_str(), digest, sizeof digest);
        const int fd = connect_tcp(there.copy_port);
        const int in = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
        std::vector<char> bytes(copy_block);
        for (ssize_t n = 0; (n = ::read(in, bytes.data(), bytes.size())) > 0;)
        {
            (void)write_all(fd, bytes.data(), static_cast<size_t>(n));
        }
        char theirs[64] = {};
        if (!read_all(fd, theirs, sizeof theirs) || std::strcmp(digest, theirs) != 0)
        {
            state.SkipWithError("the digests differ");
        }
        ::close(in);
        ::close(fd);
    }
}
BENCHMARK(bare_file)->UseRealTime()->Iterations(1);

struct outcome
{
    std::mutex lock;
    std::condition_variable over;
    int full = 0;
    bool failed = false;
};

void on_progress(TARN_RPC_FILE_SEND, uint32_t percent, const char *error, void *context)
{
    auto *self = static_cast<outcome *>(context);
    const std::lock_guard guard(self->lock);
    self->full += percent == 100 ? 1 : 0;
    self->failed = error != nullptr;
    self->over.notify_all();
}

void rpc_file(benchmark::State &state)
{
    TARN_RPC rpc = connect_rpc(true);
    const std::string &path = source();
    for (auto _ : state)
    {
        outcome end;
        TARN_RPC_FILE_SEND sending =
            tarn_rpc_file_send_begin(rpc, path.c_str(), "f", 0, 20000, on_progress, &end);
        {
            std::unique_lock guard(end.lock);
            end.over.wait(guard, [&] { return end.failed || end.full == 2; });
        }
        if (end.failed)
        {
            state.SkipWithError("not sent");
        }
        tarn_rpc_file_send_destroy(sending);
    }
    tarn_rpc_destroy(rpc);
}
BENCHMARK(rpc_file)->UseRealTime()->Iterations(1);

} // namespace

int main(int argc, char **argv)
{
    if (!begin())
    {
        return 1;
    }
    (void)tarn_init();
    const int rc =
        bench::run(argc, argv,
                   {{"request and reply, 64 B, TCP", "rpc_tcp/64", "bare_tcp/64", 2.0},
                    {"request and reply, 4 KiB, TCP", "rpc_tcp/4096", "bare_tcp/4096", 2.0},
                    {"request and reply, 64 B, local", "rpc_local/64", "bare_local/64", 2.0},
                    {"request and reply, 4 KiB, local", "rpc_local/4096", "bare_local/4096", 2.0},
                    {"64 clients, 64 B, TCP", "rpc_clients", "bare_clients", 1.43},
                    {"64 clients without loop threads, 64 B, TCP", "rpc_clients_of_one_thread",
                     "bare_clients", 1.43},
                    {"file of 64 MiB and its digests", "rpc_file", "bare_file", 2.0}});
    for (const char *what : {"_source", "_bare", "_rpc"})
    {
        (void)::unlink(file_path(what).c_str());
    }
    (void)::kill(there.pid, SIGKILL);
    (void)::waitpid(there.pid, nullptr, 0);
    return rc;
}
