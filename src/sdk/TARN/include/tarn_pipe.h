/** @file
 *  Named pipes: a pair of FIFOs under /tmp by which two processes talk, one per direction.
 *
 *  The creating side reads /tmp/tarn_pipe_NAME_rd and writes /tmp/tarn_pipe_NAME_wr, the opening
 *  side the other way round. Reads and writes never block. Any local user may connect.
 *  Threads: one reader and one writer per handle. A write to a pipe whose reader has gone raises
 *  SIGPIPE, which tarn_init() has the process ignore. */
#ifndef TARN_PIPE_H
#define TARN_PIPE_H

#include "tarn.h"

TARN_BEGIN_DECLS

typedef struct tarn_pipe *TARN_PIPE;

/** Create, or open, one side of a pair. FIFOs that are missing are made and removed again by the
 *  close; FIFOs that are found are used and left.
 *  The write end is opened first and needs a peer that already holds its read end: two processes
 *  that both use these two calls never meet; see the _wait forms.
 *  @param name  1 to 89 bytes without '/'
 *  @return the handle, closed with tarn_pipe_close(); TARN_INVALID_HANDLE when the name is refused,
 *          a FIFO cannot be made, or no peer is there (ERROR). */
TARN_API TARN_PIPE tarn_pipe_create(const char *name);
TARN_API TARN_PIPE tarn_pipe_open(const char *name);

/** The same, waiting for the peer: the read end is opened first, then the write end is tried again
 *  and again until the peer holds its read end; it returns when both directions stand.
 *  @param timeout_ms  0 tries once; TARN_INFINITE without limit. A stop request to the calling
 *                     loop thread ends the wait too
 *  @return as above; TARN_INVALID_HANDLE after the time-out (ERROR). */
TARN_API TARN_PIPE tarn_pipe_create_wait(const char *name, uint32_t timeout_ms);
TARN_API TARN_PIPE tarn_pipe_open_wait(const char *name, uint32_t timeout_ms);

/** Close both ends and remove the FIFOs that this handle made; null is ignored. */
TARN_API void tarn_pipe_close(TARN_PIPE p);

/** Read what is there, or write what has room; one system call.
 *  @param done  may be null; the bytes moved, written only when the result is 0
 *  @return 0 when at least one byte was moved; -1 when the call failed (errno), also with nothing
 *          to read or no room (EAGAIN); -2 when nothing was moved: for a read, the peer has closed;
 *          -3 for a null handle. */
TARN_API int tarn_pipe_read(TARN_PIPE p, void *buf, size_t len, size_t *done);
TARN_API int tarn_pipe_write(TARN_PIPE p, const void *buf, size_t len, size_t *done);

TARN_END_DECLS

#endif
