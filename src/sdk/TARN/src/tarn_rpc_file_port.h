// Private: what file transfer needs of the kernel; for tarn_rpc_file*.cpp. Written in
// linux/tarn_rpc_file_linux.cpp. Reading, writing and closing are those of tarn_file_port.h.
//
// Calls repeat after EINTR and leave errno as the failing call set it. Descriptors are
// close-on-exec.
#ifndef TARN_RPC_FILE_PORT_H
#define TARN_RPC_FILE_PORT_H

#include <cstddef>
#include <cstdint>

namespace tarn
{

/** Open a destination for appending, created with mode 0666 less the umask, and lock it against every
 *  other receiver, this process's included, until it is closed. Never through a symbolic link; never
 *  blocks.
 *  @return descriptor, or -1: EWOULDBLOCK when it is locked, EINVAL when it is no regular file */
int rpc_file_open_destination(const char *path);

/** Another descriptor of an open destination, which keeps it locked when that one is closed; -1 when
 *  there is none to be had. */
int rpc_file_keep_lock(int fd);

/** Cut to a size, or lengthen with zeros. @return 0, or -1 */
int rpc_file_truncate(int fd, uint64_t size);

/** @param size  out, on success
 *  @return false when it is no regular file */
bool rpc_file_regular_size(int fd, uint64_t *size);

/** Read n bytes at a position; may block.
 *  @return bytes, fewer at the end of the file; -1 on failure */
int64_t rpc_file_read_at(int fd, void *buf, size_t n, uint64_t position);

/** A number that nobody can guess; 0 when the kernel has none to give. */
uint64_t rpc_random_token();

} // namespace tarn

#endif
