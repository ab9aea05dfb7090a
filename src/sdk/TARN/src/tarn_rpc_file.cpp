// RPC file transfer: the sender, a thread per transfer.
//
// The record has a reference for its handle and one for the thread's run, so a progress callback may
// destroy its transfer: the thread looks at the mark after each callback and touches nothing else of
// it but the record. At its end the thread parks until it is stopped, which keeps the handle valid
// for the destroy.

#include "tarn_rpc_file.h"

#include "tarn_check.h"
#include "tarn_file_port.h"
#include "tarn_md5.h"
#include "tarn_os.h"
#include "tarn_rpc_file_port.h"
#include "tarn_rpc_internal.h"
#include "tarn_str.h"
#include "tarn_thread.h"

#include <algorithm>
#include <cstring>
#include <utility>

struct tarn_rpc_file_send
{
    TARN_RPC rpc; ///< with a reference
    char *dst_file_name;
    uint32_t start_pos;
    uint32_t timeout_ms;
    tarn_rpc_file_on_progress on_progress;
    void *context;
    int fd;
    char *md5_sum;
    uint32_t file_size;
    uint32_t write_size; ///< as the receiver told last
    uint32_t block_size;
    uint32_t seq_no;
    uint64_t token;
    TARN_THREAD thread; ///< atomic; stored before proc works
    bool finished;      ///< of the thread
    bool stopping;      ///< atomic
    uint32_t refs;      ///< atomic
};

namespace
{

using tarn::unique_rpc_msg;

constexpr uint32_t first_block_size = 512;
constexpr uint32_t max_block_size = 1024 * 1024;

void unref(TARN_RPC_FILE_SEND fs)
{
    if (__atomic_sub_fetch(&fs->refs, 1, __ATOMIC_ACQ_REL) != 0)
    {
        return;
    }
    tarn::close_fd(fs->fd);
    if (fs->rpc != nullptr)
    {
        tarn::rpc_unref(fs->rpc);
    }
    tarn_mem_free(fs->dst_file_name);
    tarn_mem_free(fs->md5_sum);
    tarn_mem_free(fs);
}

bool is_stopping(TARN_RPC_FILE_SEND fs)
{
    return __atomic_load_n(&fs->stopping, __ATOMIC_ACQUIRE);
}

void report(TARN_RPC_FILE_SEND fs, const char *error)
{
    // As the receiver counts: more than 100 when it has more than was sent.
    const uint64_t percent = uint64_t{fs->write_size} * 100 / fs->file_size;
    if (fs->on_progress != nullptr)
    {
        fs->on_progress(fs, static_cast<uint32_t>(std::min<uint64_t>(percent, UINT32_MAX)), error,
                        fs->context);
    }
}

/** Send a message of this transfer under the next number.
 *  @return the reply's code, or a negative result */
int send(TARN_RPC_FILE_SEND fs, uint32_t msg_id, TARN_RPC_MSG msg, unique_rpc_msg &reply)
{
    TARN_RPC_MSG rsp = nullptr;
    const int rc = tarn::rpc_msg_send_until(fs->rpc, fs->seq_no++, msg_id, msg, &rsp,
                                            fs->timeout_ms, &fs->stopping);
    reply.reset(rsp);
    return rc;
}

bool put(const unique_rpc_msg &msg, uint16_t id, uint8_t type, const void *value, uint32_t len = 0)
{
    return tarn_rpc_msg_write_element_value(msg.get(), id, type, value, len) == 0;
}

bool get_u32(const unique_rpc_msg &msg, uint16_t id, uint32_t &out)
{
    return tarn_rpc_msg_read_element(msg.get(), id, MSG_ELM_TYPE_UINT32, &out, sizeof out,
                                     nullptr) == 0;
}

/** Note a failure of a send. @return the text */
const char *send_failed(const char *text, int rc)
{
    TARN_LOG_ERROR("%s, rc = [%d]", text, rc);
    return text;
}

const char *failed(const char *text)
{
    TARN_LOG_ERROR("%s", text);
    return text;
}

// ---- the three exchanges ----------------------------------------------------------------------------
// Each returns null, or what went wrong.

/** Take what the receiver answered to BEGIN. */
const char *read_begin_reply(TARN_RPC_FILE_SEND fs, const unique_rpc_msg &reply)
{
    if (tarn_rpc_msg_read_element(reply.get(), MSG_ELM_FILE_TOKEN, MSG_ELM_TYPE_UINT64, &fs->token,
                                  sizeof fs->token, nullptr) != 0)
    {
        return failed("file token absent");
    }
    uint32_t value = 0;
    if (get_u32(reply, MSG_ELM_BLOCK_SIZE, value) && value != 0)
    {
        TARN_LOG_DEBUG("returned block_size = [%u]", value);
        fs->block_size = std::min(value, max_block_size);
    }
    if (get_u32(reply, MSG_ELM_START_POS, value))
    {
        fs->start_pos = value;
    }
    TARN_LOG_DEBUG("file begin rsp, file_token = [%lu], block_size = [%d], start_pos = [%d]",
                   static_cast<unsigned long>(fs->token), static_cast<int>(fs->block_size),
                   static_cast<int>(fs->start_pos));
    fs->write_size = fs->start_pos;
    return nullptr;
}

const char *exchange_begin(TARN_RPC_FILE_SEND fs)
{
    const unique_rpc_msg msg(tarn_rpc_msg_create());
    if (!msg || !put(msg, MSG_ELM_FILE_NAME, MSG_ELM_TYPE_STRING, fs->dst_file_name) ||
        !put(msg, MSG_ELM_MD5_SUM, MSG_ELM_TYPE_STRING, fs->md5_sum) ||
        !put(msg, MSG_ELM_FILE_SIZE, MSG_ELM_TYPE_UINT32, &fs->file_size) ||
        !put(msg, MSG_ELM_BLOCK_SIZE, MSG_ELM_TYPE_UINT32, &fs->block_size))
    {
        return failed("failed to send TARN_RPC_MSG_FILE_BEGIN");
    }
    TARN_LOG_DEBUG("file begin, file_name = [%s], file_size = [%u], block_size = [%u], "
                   "start_pos = [%u]",
                   fs->dst_file_name, fs->file_size, fs->block_size, fs->start_pos);
    unique_rpc_msg reply;
    if (const int rc = send(fs, TARN_RPC_MSG_FILE_BEGIN, msg.get(), reply); rc < 0)
    {
        return send_failed("failed to send TARN_RPC_MSG_FILE_BEGIN", rc);
    }
    if (!reply)
    {
        return failed("no response for TARN_RPC_MSG_FILE_BEGIN");
    }
    return read_begin_reply(fs, reply);
}

/** Send the block that is in the buffer. */
const char *exchange_block(TARN_RPC_FILE_SEND fs, const uint8_t *block, uint32_t size,
                           uint32_t position)
{
    const unique_rpc_msg msg(tarn_rpc_msg_create());
    if (!msg || !put(msg, MSG_ELM_FILE_TOKEN, MSG_ELM_TYPE_UINT64, &fs->token) ||
        !put(msg, MSG_ELM_BLOCK_DATA, MSG_ELM_TYPE_STRING, block, size))
    {
        return failed("failed to send file block message");
    }
    TARN_LOG_DEBUG("send file block message, sent_size = [%u], buf_size = [%u]", position, size);
    unique_rpc_msg reply;
    if (const int rc = send(fs, TARN_RPC_MSG_FILE_BLOCK, msg.get(), reply); rc < 0)
    {
        return send_failed("failed to send file block message", rc);
    }
    if (!reply)
    {
        return failed("no response message for TARN_RPC_MSG_FILE_BLOCK");
    }
    if (!get_u32(reply, MSG_ELM_WRITE_SIZE, fs->write_size))
    {
        return failed("no write size returned");
    }
    TARN_LOG_DEBUG("returned write_size = [%u]", fs->write_size);
    return nullptr;
}

/** Read and send all blocks.
 *  @param sent  out: the position behind the last one */
const char *send_blocks(TARN_RPC_FILE_SEND fs, uint64_t &sent)
{
    sent = fs->start_pos;
    if (sent > fs->file_size)
    {
        return failed("failed to send file"); // the receiver does not know what it is talking about
    }
    const auto size =
        static_cast<uint32_t>(std::min<uint64_t>(fs->block_size, fs->file_size - sent));
    const tarn::unique_mem<uint8_t> block(tarn_mem_realloc(nullptr, size_t{size} + 1));
    if (!block)
    {
        return failed("failed to send file");
    }
    while (sent < fs->file_size && !is_stopping(fs))
    {
        const auto n = static_cast<uint32_t>(std::min<uint64_t>(size, fs->file_size - sent));
        const auto position = static_cast<uint32_t>(sent);
        if (tarn::rpc_file_read_at(fs->fd, block.get(), n, sent) != static_cast<int64_t>(n))
        {
            TARN_LOG_ERROR("%s, pos = [%d]", "read file error", static_cast<int>(position));
            return "read file error"; // or the file has become shorter
        }
        if (const char *const error = exchange_block(fs, block.get(), n, position);
            error != nullptr)
        {
            return error;
        }
        sent += n;
        report(fs, nullptr);
    }
    return nullptr;
}

const char *exchange_end(TARN_RPC_FILE_SEND fs)
{
    TARN_LOG_DEBUG("send file end message");
    const unique_rpc_msg msg(tarn_rpc_msg_create());
    if (!msg || !put(msg, MSG_ELM_FILE_TOKEN, MSG_ELM_TYPE_UINT64, &fs->token))
    {
        return failed("failed to send TARN_RPC_MSG_FILE_END");
    }
    unique_rpc_msg reply;
    if (const int rc = send(fs, TARN_RPC_MSG_FILE_END, msg.get(), reply); rc < 0)
    {
        return send_failed("failed to send TARN_RPC_MSG_FILE_END", rc);
    }
    if (!reply)
    {
        return failed("no response message for TARN_RPC_MSG_FILE_END");
    }
    tarn::close_fd(std::exchange(fs->fd, -1));
    return nullptr;
}

/** The whole transfer. */
const char *transfer(TARN_RPC_FILE_SEND fs)
{
    if (const char *const error = exchange_begin(fs); error != nullptr)
    {
        return error;
    }
    uint64_t sent = 0;
    const char *const error = send_blocks(fs, sent);
    if (is_stopping(fs))
    {
        return error;
    }
    TARN_LOG_DEBUG("data blocks sent end");
    if (error == nullptr && sent >= fs->file_size)
    {
        return exchange_end(fs);
    }
    TARN_LOG_ERROR("failed to send file, sent_size = [%u]", static_cast<uint32_t>(sent));
    return error;
}

void *tarn_rpc_file_send_proc(void *arg, void *)
{
    auto *const fs = static_cast<TARN_RPC_FILE_SEND>(arg);
    // Not before the starter has stored the thread, which a destroy inside a callback has to find.
    if (__atomic_load_n(&fs->thread, __ATOMIC_ACQUIRE) == nullptr)
    {
        (void)tarn_thread_sleep(1);
        return nullptr;
    }
    (void)__atomic_add_fetch(&fs->refs, 1, __ATOMIC_RELAXED);
    const tarn::scope_exit done([&] { unref(fs); });
    if (!std::exchange(fs->finished, true))
    {
        const char *const error = transfer(fs);
        if (!is_stopping(fs))
        {
            report(fs, error);
        }
    }
    // A thread whose function ends would be called again, and one that ran only once could not be
    // waited for: so it waits here to be stopped.
    if (!is_stopping(fs))
    {
        (void)tarn_thread_sleep(TARN_INFINITE);
    }
    return nullptr;
}

// ---- beginning ----------------------------------------------------------------------------------------

/** Measure the source. @return false when it cannot be sent (logged) */
bool open_source(TARN_RPC_FILE_SEND fs, const char *path)
{
    fs->fd = tarn::file_open_read(path);
    uint64_t size = 0;
    if (fs->fd < 0 || !tarn::rpc_file_regular_size(fs->fd, &size))
    {
        TARN_LOG_ERROR("failed to open file [%s]", path);
        return false;
    }
    if (size > UINT32_MAX)
    {
        TARN_LOG_ERROR("file [%s] is too large to be sent", path);
        return false;
    }
    if (size <= fs->start_pos)
    {
        TARN_LOG_ERROR("file_size [%d] <= start_pos [%d]!", static_cast<int>(size),
                       static_cast<int>(fs->start_pos));
        return false;
    }
    fs->file_size = static_cast<uint32_t>(size);
    return true;
}

/** True for what can be read to an end: a digest of a device would never be finished. */
bool may_be_digested(const char *path)
{
    const tarn::unique_fd fd(tarn::file_open_read(path));
    uint64_t size = 0;
    return !fd || tarn::rpc_file_regular_size(fd.get(), &size);
}

bool start_thread(TARN_RPC_FILE_SEND fs)
{
    TARN_THREAD thread =
        tarn_thread_start(tarn_rpc_file_send_proc, fs, nullptr, 0, "tarn_rpc_file_send_proc");
    if (thread == TARN_INVALID_HANDLE)
    {
        TARN_LOG_ERROR("failed to create thread!");
        return false;
    }
    __atomic_store_n(&fs->thread, thread, __ATOMIC_RELEASE);
    return true;
}

} // namespace

TARN_RPC_FILE_SEND tarn_rpc_file_send_begin(TARN_RPC rpc_h, const char *src_file_path_name,
                                            const char *dst_file_name, uint32_t start_pos,
                                            uint32_t timeout_ms,
                                            tarn_rpc_file_on_progress on_progress, void *context)
{
    RVON(rpc_h, NULL);
    RVON(src_file_path_name, NULL);
    RVON(dst_file_name, NULL);
    TARN_LOG_DEBUG("file_path_name = [%s]", src_file_path_name);
    if (!may_be_digested(src_file_path_name))
    {
        TARN_LOG_ERROR("failed to open file [%s]", src_file_path_name);
        return nullptr;
    }
    char md5_sum[100];
    RVOF_TEXT(tarn_md5_file(src_file_path_name, md5_sum, sizeof md5_sum) == 0, NULL,
              "RVOF(tarn_md5_file( src_file_path_name, md5_sum, sizeof(md5_sum) ) == 0,NULL)");
    auto owner = tarn::unique_mem<tarn_rpc_file_send>::make();
    RVON_TEXT(owner, NULL, "RVON(fs,NULL)");
    TARN_RPC_FILE_SEND fs = owner.release();
    fs->refs = 1;
    fs->fd = -1;
    fs->rpc = rpc_h;
    tarn::rpc_ref(rpc_h);
    fs->start_pos = start_pos;
    fs->timeout_ms = timeout_ms;
    fs->on_progress = on_progress;
    fs->context = context;
    fs->block_size = first_block_size;
    fs->dst_file_name = tarn_str_dup(dst_file_name);
    fs->md5_sum = tarn_str_dup(md5_sum);
    if (fs->dst_file_name == nullptr || fs->md5_sum == nullptr ||
        !open_source(fs, src_file_path_name) || !start_thread(fs))
    {
        unref(fs);
        return nullptr;
    }
    return fs;
}

void tarn_rpc_file_send_destroy(TARN_RPC_FILE_SEND handle)
{
    if (handle == nullptr || __atomic_exchange_n(&handle->stopping, true, __ATOMIC_ACQ_REL))
    {
        return;
    }
    tarn_thread_stop(handle->thread);
    unref(handle);
}
