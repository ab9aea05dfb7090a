/** @file
 *  File transfer over RPC: copies one file to the peer of a connection, block by block, as requests
 *  with message ids of the layer's own.
 *
 *  The sender runs on a thread of its own and reports progress. The receiver is part of every RPC
 *  object: it asks the application where to store the file, writes it, and compares its MD5 digest
 *  with the one that the sender announced. A transfer that broke off with its connection goes on
 *  where it stopped when the same file is sent to the same place again, as long as the receiving
 *  process lives.
 *
 *  Sizes and positions in bytes; files up to 4 GiB less one byte. Percent and sizes that the sender
 *  is told count the bytes that stood at the receiver before a resumed transfer.
 *  Sequence numbers: a transfer uses 0, 1, 2, ... on its RPC object, so two transfers at once need
 *  two objects, and own requests at that time keep to large numbers. */
#ifndef TARN_RPC_FILE_H
#define TARN_RPC_FILE_H

#include "tarn.h"
#include "tarn_rpc.h"

TARN_BEGIN_DECLS

/** Message ids. */
enum
{
    TARN_RPC_MSG_FILE_BEGIN = 10,
    TARN_RPC_MSG_FILE_BLOCK = 11,
    TARN_RPC_MSG_FILE_END = 12
};

/** Element ids. */
enum
{
    MSG_ELM_BLOCK_SIZE = 1, /**< UINT32 */
    MSG_ELM_BLOCK_DATA = 2, /**< STRING, the bytes of one block */
    MSG_ELM_FILE_NAME = 3,  /**< STRING, as the sender names the destination */
    MSG_ELM_FILE_SIZE = 4,  /**< UINT32, of the whole file */
    MSG_ELM_FILE_TOKEN = 5, /**< UINT64, names the transfer; of no other meaning */
    MSG_ELM_MD5_SUM = 6,    /**< STRING, of the whole file */
    MSG_ELM_START_POS = 7,  /**< UINT32 */
    MSG_ELM_WRITE_SIZE = 8  /**< UINT32, bytes that the receiver has */
};

/** A transfer being sent; not a handle of the generic close. */
typedef struct tarn_rpc_file_send *TARN_RPC_FILE_SEND;

/** Progress of a sender, on its thread: after each block, and once more at the end.
 *  @param percent  of the file that the receiver says it has
 *  @param error    at the end: null on success, else what went wrong, static text; null before. The
 *                  last call is the one that either has an error text or follows the call with 100
 *                  percent (a receiver of this layer never leaves that one out)
 *  It may destroy the transfer. */
typedef void (*tarn_rpc_file_on_progress)(TARN_RPC_FILE_SEND handle, uint32_t percent,
                                          const char *error, void *context);

/** A peer wants to send a file.
 *  @param file_name      as the peer names it: not trusted, it may hold "../" or be an absolute path
 *  @param file_size      bytes of the whole file
 *  @param dst_path       out: path to write, copied when the callback has returned. What stands there
 *                        is overwritten, but never through a symbolic link
 *  @param begin_context  always null, deliberately: the setter has no context for this callback
 *  @return 0 accepts; anything else refuses and is the code that the sender gets (a positive one
 *          without a token fails there as well). */
typedef int (*tarn_rpc_on_file_recv_begin)(const char *file_name, uint32_t file_size,
                                           const char **dst_path, void *begin_context);

/** A block was written. */
typedef void (*tarn_rpc_on_file_recv_progress)(uint32_t percent, void *context);

/** A transfer ended, the file is whole. Until it returns no other transfer can write there. */
typedef void (*tarn_rpc_on_file_recv_end)(void *context);

/** Set what is asked and told of files that peers send; all may be null (without the first, files
 *  are refused). Call it before the object's loop runs: on a server connection in on_peer_connecting
 *  or before tarn_rpc_loop_start(). Callbacks run in the object's loop. */
TARN_API void tarn_rpc_set_file_callbacks(TARN_RPC rpc_h,
                                          tarn_rpc_on_file_recv_begin on_file_recv_begin,
                                          tarn_rpc_on_file_recv_progress on_file_recv_progress,
                                          tarn_rpc_on_file_recv_end on_file_recv_end,
                                          void *context);

/** Begin to send a file. Reads it once for its digest before it returns.
 *  @param rpc_h               connected client or server connection; may be destroyed while the
 *                             transfer runs, which ends it with an error
 *  @param src_file_path_name  a regular file of 1 byte to 4 GiB less one byte
 *  @param dst_file_name       given to the receiving application
 *  @param start_pos           where to begin when the receiver does not say; below the size. A
 *                             receiver of this layer says where, so it is of no effect there
 *  @param timeout_ms          for each reply; the last one waits until the receiver has read the
 *                             file for its digest
 *  @param on_progress         may be null
 *  @return the transfer, destroyed with tarn_rpc_file_send_destroy() after the last progress call, or
 *          before, which ends it without one; null when a name is missing, the file cannot be read or
 *          does not reach beyond start_pos, or memory or threads ran out. */
TARN_API TARN_RPC_FILE_SEND tarn_rpc_file_send_begin(TARN_RPC rpc_h, const char *src_file_path_name,
                                                     const char *dst_file_name, uint32_t start_pos,
                                                     uint32_t timeout_ms,
                                                     tarn_rpc_file_on_progress on_progress,
                                                     void *context);

/** End a transfer and free it; null is ignored. Waits for the sender's thread, but not from inside
 *  its progress callback. */
TARN_API void tarn_rpc_file_send_destroy(TARN_RPC_FILE_SEND handle);

TARN_END_DECLS

#endif
