// RPC file transfer: the receiver, three handlers that run in the loop of an RPC object.
//
// A receiver is in its object's table from BEGIN to END, or until the line is lost. Its token is a
// random number that is only ever looked up there. A handler holds the receiver that it found as a
// user: callbacks may run further turns, and those may end the very transfer; the last user closes.
//
// What broke off is remembered for the whole process, by destination, digest and size: the same
// transfer then goes on behind the bytes that were written. Only the receiver says where a transfer
// starts, so that no sender can leave a hole.

#include "tarn_rpc_internal.h"

#include "tarn_check.h"
#include "tarn_file_port.h"
#include "tarn_md5.h"
#include "tarn_os.h"
#include "tarn_rpc_file_port.h"
#include "tarn_str.h"
#include "tarn_sys.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <string_view>
#include <utility>

namespace tarn
{
namespace
{

constexpr uint32_t offered_block_size = 256 * 1024; ///< a round trip costs little beside it
constexpr uint32_t max_receivers = 64;              ///< per object
constexpr uint32_t max_broken_off = 256;            ///< that are remembered
constexpr uint32_t max_path = 4096;
constexpr size_t md5_text_length = TARN_MD5_DIGEST_LENGTH * 2;

} // namespace

/** A file being received. */
struct rpc_receiver
{
    char *path;
    char md5_sum[md5_text_length + 1];
    uint32_t file_size;  ///< above 0
    uint32_t block_size; ///< as the sender announced it; not relied on
    uint32_t blocks;
    uint64_t written; ///< bytes of this run
    uint32_t start_pos;
    int fd;      ///< -1 once closed
    int lock_fd; ///< keeps the lock from END on, while the file is looked at; -1: none
    uint32_t percent;
    uint32_t last_tick;
    uint64_t token;
    uint32_t users; ///< handlers that hold it, and the table; under receivers_cs
    bool whole;     ///< ended: nothing to go on with
};

namespace
{

/** Bytes that stand in the file, which is what the sender is told. */
uint64_t total(const rpc_receiver &receiver)
{
    return receiver.start_pos + receiver.written;
}

uint32_t shown_total(const rpc_receiver &receiver)
{
    return static_cast<uint32_t>(std::min<uint64_t>(total(receiver), UINT32_MAX));
}

// ---- transfers that broke off -----------------------------------------------------------------------

struct broken_transfer
{
    broken_transfer *next;
    char *path;
    char md5_sum[md5_text_length + 1];
    uint32_t file_size;
    uint32_t written;
};

struct broken_transfers
{
    static_mutex lock;
    broken_transfer *head TARN_GUARDED_BY(lock) = nullptr; ///< newest first
    uint32_t count TARN_GUARDED_BY(lock) = 0;
};
constinit broken_transfers broken;

void free_broken(broken_transfer *transfer)
{
    if (transfer != nullptr)
    {
        tarn_mem_free(transfer->path);
        tarn_mem_free(transfer);
    }
}

/** Take the entry of a destination out; null when there is none. */
broken_transfer *take_broken(const char *path) TARN_REQUIRES(broken.lock)
{
    for (broken_transfer **link = &broken.head; *link != nullptr; link = &(*link)->next)
    {
        if (std::strcmp((*link)->path, path) == 0)
        {
            --broken.count;
            return std::exchange(*link, (*link)->next);
        }
    }
    return nullptr;
}

/** Take the oldest entry out. */
broken_transfer *take_oldest() TARN_REQUIRES(broken.lock)
{
    broken_transfer **link = &broken.head;
    while ((*link)->next != nullptr)
    {
        link = &(*link)->next;
    }
    --broken.count;
    return std::exchange(*link, nullptr);
}

void remember(const rpc_receiver &receiver)
{
    // At least one byte is left to be sent: its sender shall see a block that makes the file whole.
    const uint64_t written = std::min<uint64_t>(total(receiver), receiver.file_size - 1);
    if (receiver.whole || written == 0 || total(receiver) > receiver.file_size)
    {
        return;
    }
    auto entry = unique_mem<broken_transfer>::make();
    char *const path = tarn_str_dup(receiver.path);
    if (!entry || path == nullptr)
    {
        tarn_mem_free(path);
        return; // the transfer will begin anew
    }
    entry->path = path;
    tarn_mem_copy(entry->md5_sum, receiver.md5_sum, sizeof entry->md5_sum);
    entry->file_size = receiver.file_size;
    entry->written = static_cast<uint32_t>(written);
    broken_transfer *older = nullptr;
    broken_transfer *surplus = nullptr;
    {
        const lock_guard lock(broken.lock);
        older = take_broken(path);
        surplus = broken.count >= max_broken_off ? take_oldest() : nullptr;
        entry->next = broken.head;
        broken.head = entry.release();
        ++broken.count;
    }
    free_broken(older);
    free_broken(surplus);
}

/** Where a transfer goes on; 0 unless the very same one broke off. Forgets it in any case: the file
 *  is written to from now on. */
uint32_t recall(const char *path, std::string_view md5_sum, uint32_t file_size)
{
    broken_transfer *found = nullptr;
    {
        const lock_guard lock(broken.lock);
        found = take_broken(path);
    }
    const bool same =
        found != nullptr && found->file_size == file_size && md5_sum == found->md5_sum;
    const uint32_t written = same ? found->written : 0;
    free_broken(found);
    return written;
}

// ---- receivers --------------------------------------------------------------------------------------

void tarn_rpc_file_recv_destroy(rpc_receiver *receiver)
{
    TARN_LOG_DEBUG("receiver [%p] of file [%s], %u bytes", static_cast<void *>(receiver),
                   receiver->path, shown_total(*receiver));
    if (receiver->fd >= 0)
    {
        close_fd(receiver->fd);
        remember(*receiver);
    }
    close_fd(receiver->lock_fd);
    tarn_mem_free(receiver->path);
    tarn_mem_free(receiver);
}

/** Open and lock the destination, and cut it to where the transfer starts.
 *  @return false on failure (logged) */
bool open_destination(rpc_receiver &receiver)
{
    receiver.fd = rpc_file_open_destination(receiver.path);
    const int error = errno;
    TARN_LOG_DEBUG("open file [%s] for write, return [%p]", receiver.path,
                   reinterpret_cast<void *>(static_cast<intptr_t>(receiver.fd)));
    if (receiver.fd < 0)
    {
        if (error == EWOULDBLOCK)
        {
            TARN_LOG_WARN("file [%s] already in receiving!", receiver.path);
            return false;
        }
        TARN_LOG_ERROR("failed to open file (%s) for write, error = [%d] (%s)", receiver.path,
                       error, error_text(error).c_str());
        return false;
    }
    // Locked: nobody else writes, so what is remembered of it is still true, if it is long enough.
    receiver.start_pos = recall(receiver.path, receiver.md5_sum, receiver.file_size);
    uint64_t size = 0;
    if (!rpc_file_regular_size(receiver.fd, &size) || size < receiver.start_pos)
    {
        receiver.start_pos = 0;
    }
    if (rpc_file_truncate(receiver.fd, receiver.start_pos) != 0)
    {
        const int truncate_error = errno;
        TARN_LOG_ERROR("failed to truncate file size to [%d], error = [%d] (%s)",
                       static_cast<int>(receiver.start_pos), truncate_error,
                       error_text(truncate_error).c_str());
        return false;
    }
    return true;
}

/** @return the receiver, with the table's use; null on failure (logged) */
rpc_receiver *tarn_rpc_file_recv_create(const char *path, const char *md5_sum, uint32_t file_size,
                                        uint32_t block_size)
{
    auto receiver = unique_mem<rpc_receiver>::make();
    RVON(receiver, NULL);
    receiver->fd = -1;
    receiver->lock_fd = -1;
    receiver->path = tarn_str_dup(path);
    receiver->token = rpc_random_token();
    if (receiver->path == nullptr || receiver->token == 0)
    {
        tarn_mem_free(receiver->path);
        return nullptr;
    }
    (void)tarn_str_printf(receiver->md5_sum, sizeof receiver->md5_sum, "%s", md5_sum);
    receiver->file_size = file_size;
    receiver->block_size = block_size;
    receiver->last_tick = tarn_tick_ms();
    receiver->users = 1;
    if (!open_destination(*receiver))
    {
        receiver->whole = true; // nothing of it is worth remembering
        tarn_rpc_file_recv_destroy(receiver.release());
        return nullptr;
    }
    TARN_LOG_DEBUG("file_path_name = [%s], file_size = [%u], block_size = [%u], start_pos = [%u], "
                   "md5_sum = [%s]",
                   path, file_size, block_size, receiver->start_pos, md5_sum);
    return receiver.release();
}

/** End a use. */
void release(TARN_RPC rpc, rpc_receiver *receiver)
{
    bool last = false;
    {
        const critical_section_guard guard(rpc->receivers_cs);
        last = --receiver->users == 0;
    }
    if (last)
    {
        tarn_rpc_file_recv_destroy(receiver);
    }
}

/** A receiver in use; empty when there is none. */
class [[nodiscard]] receiver_use
{
public:
    receiver_use(TARN_RPC rpc, rpc_receiver *receiver) noexcept : rpc_(rpc), receiver_(receiver) {}
    receiver_use(const receiver_use &) = delete;
    receiver_use &operator=(const receiver_use &) = delete;
    ~receiver_use()
    {
        if (receiver_ != nullptr)
        {
            release(rpc_, receiver_);
        }
    }
    rpc_receiver *operator->() const noexcept
    {
        return receiver_;
    }
    rpc_receiver &operator*() const noexcept
    {
        return *receiver_;
    }
    explicit operator bool() const noexcept
    {
        return receiver_ != nullptr;
    }

private:
    TARN_RPC rpc_;
    rpc_receiver *receiver_;
};

/** Find the receiver of a token.
 *  @param take  take it out of the table, with the table's use
 *  @return null when there is none */
rpc_receiver *find(TARN_RPC rpc, uint64_t token, bool take)
{
    const critical_section_guard guard(rpc->receivers_cs);
    if (take)
    {
        return static_cast<rpc_receiver *>(
            tarn_hash_remove_ex(rpc->receivers, &token, sizeof token));
    }
    void *found = nullptr;
    if (!tarn_hash_find_ex(rpc->receivers, &token, sizeof token, &found))
    {
        return nullptr;
    }
    auto *const receiver = static_cast<rpc_receiver *>(found);
    ++receiver->users;
    return receiver;
}

bool has_path(const void *, void *value, void *path, void *)
{
    return std::strcmp(static_cast<rpc_receiver *>(value)->path, static_cast<char *>(path)) == 0;
}

// ---- reading requests -------------------------------------------------------------------------------

/** Copy a text element.
 *  @return false when it is empty, holds a 0 byte or does not fit */
bool copy_text(std::string_view bytes, char *out, size_t size)
{
    if (bytes.empty() || bytes.size() >= size || bytes.find('\0') != std::string_view::npos)
    {
        return false;
    }
    tarn_mem_copy(out, bytes.data(), bytes.size());
    out[bytes.size()] = '\0';
    return true;
}

/** Bytes of a string element.
 *  @return 0; negative when it is not there, above 0 when it has no value */
int find_text(TARN_RPC_MSG msg, uint16_t elm_id, std::string_view &out)
{
    constexpr int absent = -1937;
    const void *bytes = nullptr;
    uint32_t len = 0;
    const int rc = tarn_rpc_msg_get_element_ptr(msg, elm_id, MSG_ELM_TYPE_STRING, &bytes, &len);
    if (rc != 0)
    {
        return rc == absent ? -1 : 1;
    }
    out = {static_cast<const char *>(bytes), len};
    return 0;
}

bool read_u32(TARN_RPC_MSG msg, uint16_t elm_id, uint32_t &out)
{
    return tarn_rpc_msg_read_element(msg, elm_id, MSG_ELM_TYPE_UINT32, &out, sizeof out, nullptr) ==
           0;
}

/** What a FILE_BEGIN says. */
struct begin_request
{
    uint32_t file_size;
    uint32_t block_size;
    uint32_t start_pos;
    char md5_sum[md5_text_length + 1];
    char name[max_path];
};

int read_begin(TARN_RPC_MSG msg, begin_request &out)
{
    void *const shown = msg;
    std::string_view text;
    const int rc = find_text(msg, MSG_ELM_FILE_NAME, text);
    if (rc < 0)
    {
        TARN_LOG_ERROR("msg = [%p], no MSG_ELM_FILE_NAME!", shown);
        return TARN_ERRLN;
    }
    if (rc > 0 || !copy_text(text, out.name, sizeof out.name))
    {
        TARN_LOG_ERROR("msg = [%p], no value in MSG_ELM_FILE_NAME!", shown);
        return TARN_ERRLN;
    }
    if (find_text(msg, MSG_ELM_MD5_SUM, text) != 0 || text.size() != md5_text_length ||
        !copy_text(text, out.md5_sum, sizeof out.md5_sum))
    {
        TARN_LOG_ERROR("msg = [%p], failed to read MSG_ELM_MD5_SUM!", shown);
        return TARN_ERRLN;
    }
    if (!read_u32(msg, MSG_ELM_FILE_SIZE, out.file_size))
    {
        TARN_LOG_ERROR("msg = [%p], failed to read MSG_ELM_FILE_SIZE!", shown);
        return TARN_ERRLN;
    }
    if (!read_u32(msg, MSG_ELM_BLOCK_SIZE, out.block_size))
    {
        TARN_LOG_ERROR("msg = [%p], failed to read MSG_ELM_BLOCK_SIZE!", shown);
        return TARN_ERRLN;
    }
    out.start_pos = 0;
    (void)read_u32(msg, MSG_ELM_START_POS, out.start_pos);
    return 0;
}

/** Ask the application where a file goes.
 *  @param path  out; valid until the application's next callback
 *  @return 0, or the reply code */
int ask_destination(TARN_RPC rpc, TARN_RPC_MSG msg, const begin_request &request,
                    unique_mem<char> &path)
{
    void *const shown = msg;
    const char *returned = nullptr;
    const int rc =
        rpc->file.on_begin(request.name, request.file_size, &returned, rpc->file.begin_context);
    if (rc != 0)
    {
        TARN_LOG_ERROR("msg = [%p], on_file_recv_begin return [%d]!", shown, rc);
        return rc;
    }
    if (returned == nullptr || *returned == '\0')
    {
        TARN_LOG_ERROR("msg = [%p], no file path name returned!", shown);
        return TARN_ERRLN;
    }
    path.reset(tarn_str_dup(returned));
    RVON(path, TARN_ERRLN);
    if (request.start_pos >= request.file_size)
    {
        TARN_LOG_ERROR("msg = [%p], start_pos [%u] should less than file_size [%u]!", shown,
                       request.start_pos, request.file_size);
        return TARN_ERRLN;
    }
    return 0;
}

/** Put a receiver into the table. Handlers of an object run one at a time, so nobody comes between
 *  this and the look for the same path. */
bool insert(TARN_RPC rpc, rpc_receiver *receiver)
{
    const critical_section_guard guard(rpc->receivers_cs);
    return rpc_is_alive(rpc) && tarn_hash_count(rpc->receivers) < max_receivers &&
           tarn_hash_add_ex(rpc->receivers, &receiver->token, sizeof receiver->token, receiver) !=
               nullptr;
}

int write_begin_reply(TARN_RPC_MSG reply, const rpc_receiver &receiver)
{
    int rc = tarn_rpc_msg_write_element_value(reply, MSG_ELM_FILE_TOKEN, MSG_ELM_TYPE_UINT64,
                                              &receiver.token, 0);
    RVOF(0 == rc, TARN_ERRLN);
    rc = tarn_rpc_msg_write_element_value(reply, MSG_ELM_BLOCK_SIZE, MSG_ELM_TYPE_UINT32,
                                          &offered_block_size, 0);
    RVOF(0 == rc, TARN_ERRLN);
    rc = tarn_rpc_msg_write_element_value(reply, MSG_ELM_START_POS, MSG_ELM_TYPE_UINT32,
                                          &receiver.start_pos, 0);
    RVOF(0 == rc, TARN_ERRLN);
    return 0;
}

/** Make the receiver of an accepted file. */
int start_receiver(TARN_RPC rpc, const begin_request &request, char *path, TARN_RPC_MSG reply)
{
    {
        const critical_section_guard guard(rpc->receivers_cs);
        if (tarn_hash_find_if(rpc->receivers, has_path, path, nullptr) != nullptr)
        {
            TARN_LOG_WARN("file [%s] already in receiving!", path);
            return TARN_ERRLN;
        }
    }
    rpc_receiver *const receiver =
        tarn_rpc_file_recv_create(path, request.md5_sum, request.file_size, request.block_size);
    if (receiver == nullptr)
    {
        TARN_LOG_ERROR("file_recv_create failed!");
        return TARN_ERRLN;
    }
    TARN_LOG_DEBUG("new recv token [%p] for file [%s]", reinterpret_cast<void *>(receiver->token),
                   path);
    if (const int rc = write_begin_reply(reply, *receiver); rc != 0)
    {
        release(rpc, receiver);
        return rc;
    }
    if (!insert(rpc, receiver))
    {
        TARN_LOG_ERROR("file_recv_create failed!");
        release(rpc, receiver);
        return TARN_ERRLN;
    }
    return 0;
}

bool read_token(TARN_RPC_MSG request, uint64_t &token)
{
    if (tarn_rpc_msg_read_element(request, MSG_ELM_FILE_TOKEN, MSG_ELM_TYPE_UINT64, &token,
                                  sizeof token, nullptr) != 0)
    {
        TARN_LOG_ERROR("failed to read MSG_ELM_FILE_TOKEN");
        return false;
    }
    TARN_LOG_DEBUG("the recv token in msg: [%p]", reinterpret_cast<void *>(token));
    return true;
}

int write_size_reply(TARN_RPC_MSG reply, const rpc_receiver &receiver)
{
    if (reply == nullptr)
    {
        return 0; // nobody wants to know
    }
    const uint32_t size = shown_total(receiver);
    const int rc =
        tarn_rpc_msg_write_element_value(reply, MSG_ELM_WRITE_SIZE, MSG_ELM_TYPE_UINT32, &size, 0);
    RVOF(0 == rc, TARN_ERRLN);
    return 0;
}

/** The bytes of a block. @return 0, or the reply code */
int read_block(TARN_RPC_MSG request, std::string_view &block)
{
    const int rc = find_text(request, MSG_ELM_BLOCK_DATA, block);
    if (rc < 0)
    {
        TARN_LOG_ERROR("no MSG_ELM_BLOCK_DATA");
        return TARN_ERRLN;
    }
    if (rc > 0)
    {
        TARN_LOG_ERROR("no value in MSG_ELM_BLOCK_DATA");
        return TARN_ERRLN;
    }
    if (block.empty())
    {
        TARN_LOG_ERROR("invalid buffer size");
        return TARN_ERRLN;
    }
    return 0;
}

/** Append a block and count it.
 *  @return false when it could not be written whole: the file is as before then */
bool append_block(rpc_receiver &receiver, std::string_view block)
{
    if (!file_write_all(receiver.fd, block.data(), block.size()))
    {
        TARN_LOG_ERROR("failed to write file, error = [%d]", errno);
        (void)rpc_file_truncate(receiver.fd, total(receiver));
        return false;
    }
    ++receiver.blocks;
    receiver.written += block.size();
    receiver.percent = static_cast<uint32_t>(total(receiver) * 100 / receiver.file_size);
    receiver.last_tick = tarn_tick_ms();
    if (total(receiver) > receiver.file_size)
    {
        TARN_LOG_WARN("write size exceed file size!");
    }
    return true;
}

/** Close a file that has come to its end and compare its digest. @return 0, or the reply code */
int check_file(rpc_receiver &receiver)
{
    if (total(receiver) != receiver.file_size)
    {
        TARN_LOG_WARN("write_size [%u] != file_size [%u]", shown_total(receiver),
                      receiver.file_size);
    }
    receiver.lock_fd = rpc_file_keep_lock(receiver.fd);
    if (!file_close_written(std::exchange(receiver.fd, -1)))
    {
        TARN_LOG_ERROR("failed to write file, error = [%d]", errno);
        return TARN_ERRLN;
    }
    char actual[md5_text_length + 1];
    do
    {
        const int rc = tarn_md5_file(receiver.path, actual, sizeof actual);
        BOF(0 == rc);
        if (std::strcmp(actual, receiver.md5_sum) != 0)
        {
            TARN_LOG_ERROR("md5sum mismatch, actual: [%s], expected: [%s]", actual,
                           receiver.md5_sum);
            return TARN_ERRLN;
        }
        return 0;
    } while (0);
    return TARN_ERRLN;
}

void take_receiver(uint32_t, const void *, void *value, void *list, void *)
{
    auto *const all = static_cast<rpc_receiver ***>(list);
    *(*all)++ = static_cast<rpc_receiver *>(value);
}

} // namespace

// ---- handlers ---------------------------------------------------------------------------------------

int on_rpc_file_recv_begin(TARN_RPC rpc, TARN_RPC_MSG request, TARN_RPC_MSG reply)
{
    if (rpc->file.on_begin == nullptr)
    {
        TARN_LOG_ERROR("on_file_recv_begin is NULL!");
        return TARN_ERRLN;
    }
    RVON(reply, TARN_ERRLN); // nobody would learn the token
    const auto fields = unique_mem<begin_request>::make();
    RVON(fields, TARN_ERRLN);
    if (const int rc = read_begin(request, *fields); rc != 0)
    {
        return rc;
    }
    unique_mem<char> path;
    if (const int rc = ask_destination(rpc, request, *fields, path); rc != 0)
    {
        return rc;
    }
    return start_receiver(rpc, *fields, path.get(), reply);
}

int on_rpc_file_recv_block(TARN_RPC rpc, TARN_RPC_MSG request, TARN_RPC_MSG reply)
{
    uint64_t token = 0;
    if (!read_token(request, token))
    {
        return TARN_ERRLN;
    }
    const receiver_use receiver(rpc, find(rpc, token, false));
    if (!receiver)
    {
        TARN_LOG_ERROR("invalid token [%p]", reinterpret_cast<void *>(token));
        return TARN_ERRLN;
    }
    if (receiver->fd < 0)
    {
        TARN_LOG_ERROR("file pointer abnormal");
        return TARN_ERRLN;
    }
    std::string_view block;
    if (const int rc = read_block(request, block); rc != 0)
    {
        return rc;
    }
    if (!append_block(*receiver, block))
    {
        return TARN_ERRLN;
    }
    if (rpc->file.on_progress != nullptr)
    {
        rpc->file.on_progress(receiver->percent, rpc->file.context);
    }
    return write_size_reply(reply, *receiver);
}

int on_rpc_file_recv_end(TARN_RPC rpc, TARN_RPC_MSG request, TARN_RPC_MSG reply)
{
    uint64_t token = 0;
    if (!read_token(request, token))
    {
        return TARN_ERRLN;
    }
    const receiver_use receiver(rpc, find(rpc, token, true));
    if (!receiver)
    {
        TARN_LOG_ERROR("invalid token [%p]", reinterpret_cast<void *>(token));
        return TARN_ERRLN;
    }
    if (receiver->fd < 0)
    {
        TARN_LOG_ERROR("file pointer abnormal");
        return TARN_ERRLN;
    }
    receiver->whole = true;
    if (const int rc = check_file(*receiver); rc != 0)
    {
        return rc;
    }
    receiver->percent = 100;
    if (rpc->file.on_end != nullptr)
    {
        rpc->file.on_end(rpc->file.context);
    }
    TARN_LOG_DEBUG("file write finished!");
    return write_size_reply(reply, *receiver);
}

void rpc_close_receivers(TARN_RPC rpc)
{
    rpc_receiver *taken[max_receivers];
    rpc_receiver **end = taken;
    {
        const critical_section_guard guard(rpc->receivers_cs);
        tarn_hash_clear(rpc->receivers, take_receiver, &end, nullptr);
    }
    for (rpc_receiver **at = taken; at != end; ++at)
    {
        release(rpc, *at);
    }
}

} // namespace tarn

void tarn_rpc_set_file_callbacks(TARN_RPC rpc_h, tarn_rpc_on_file_recv_begin on_file_recv_begin,
                                 tarn_rpc_on_file_recv_progress on_file_recv_progress,
                                 tarn_rpc_on_file_recv_end on_file_recv_end, void *context)
{
    RON(rpc_h);
    rpc_h->file.on_begin = on_file_recv_begin;
    rpc_h->file.on_progress = on_file_recv_progress;
    rpc_h->file.on_end = on_file_recv_end;
    rpc_h->file.context = context;
}
